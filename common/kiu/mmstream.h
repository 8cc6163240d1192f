// Media streams: attributes, the abstract stream with its flat interface, the byte stream and
// the registries that pick a stream kind from a set of attributes.
#pragma once

#include <cstdint>

// The kind of value an attribute carries. 2, 3 and 5 are reserved.
enum MMAttriTag : int32_t {
    MMAttriTagNone = 0,  // no kind; in a query, any kind
    MMAttriTagAny = 1,   // a buffer: `value` points to it, `size` is its signed byte count
    MMAttriTagI32 = 4,
    MMAttriTagU32 = 6,
};

// A named, typed value. Names are compared by pointer: use the mmId variables below.
// For MMAttriTagAny a negative size means that the holder of the record owns the buffer and
// releases it with MMFree; zero or positive means borrowed.
struct MMAttri {
    const char* name;
    MMAttriTag tag;
    uintptr_t value;
    int32_t size;
};

// Attribute names, each pointing to "mm.image." followed by the attribute's name.
extern const char* mmIdAngleInDegrees;
extern const char* mmIdBitsPerColorChannel;
extern const char* mmIdBitsPerPixel;
extern const char* mmIdBitsPerSample;
extern const char* mmIdChannelsTotal;
extern const char* mmIdColorSpace;
extern const char* mmIdContentToGet;
extern const char* mmIdContentToPut;
extern const char* mmIdData;
extern const char* mmIdDurationInMsec;
extern const char* mmIdFileMode;
extern const char* mmIdFileName;
extern const char* mmIdFrameDurationInMsec;
extern const char* mmIdFramesTotal;
extern const char* mmIdHeight;
extern const char* mmIdHorizontalSamplesU;
extern const char* mmIdHorizontalSamplesV;
extern const char* mmIdHorizontalSamplesY;
extern const char* mmIdImageQuality;
extern const char* mmIdLocationInMsec;
extern const char* mmIdMaskA;
extern const char* mmIdMaskB;
extern const char* mmIdMaskG;
extern const char* mmIdMaskR;
extern const char* mmIdPageSize;
extern const char* mmIdRowStrideInBytes;
extern const char* mmIdSampleRate;
extern const char* mmIdShiftA;
extern const char* mmIdShiftB;
extern const char* mmIdShiftG;
extern const char* mmIdShiftR;
extern const char* mmIdStreamToGet;
extern const char* mmIdStreamToPut;
extern const char* mmIdVerticalSamplesU;
extern const char* mmIdVerticalSamplesV;
extern const char* mmIdVerticalSamplesY;
extern const char* mmIdWidth;

// Record constructors: each fills *attr and returns attr, or returns null and leaves *attr
// untouched when the arguments are refused.
MMAttri* MMAttriFromAny(MMAttri* attr, const char* name, void* data, long size);
MMAttri* MMAttriFromTag(MMAttri* attr, const char* name, MMAttriTag tag);
MMAttri* MMAttriFromI32(MMAttri* attr, const char* name, long v);
MMAttri* MMAttriFromU32(MMAttri* attr, const char* name, unsigned long v);
MMAttri* MMAttriFromString(MMAttri* attr, const char* name, const char* s);

enum MMStreamSeekFrom : int32_t {
    MMStreamSeekFromEnd = 0,
    MMStreamSeekFromCurrent = 1,
    MMStreamSeekFromBegin = 2,
};

// A source or sink of bytes with a position, configured by attributes. Operations answer 1 for
// success and 0 for failure, or a byte count.
class MMStream {
  public:
    using Factory = MMStream* (*)(const MMAttri* attrs, unsigned count);
    using Detector = bool (*)(MMStream* stream);

    static constexpr unsigned kAttriCapacity = 16;

    // Copies the records as they are: a record with a negative size hands its buffer over.
    MMStream(const MMAttri* attrs, unsigned count);
    // Releases every owned buffer of the attribute table.
    virtual ~MMStream();
    MMStream(const MMStream&) = delete;
    MMStream& operator=(const MMStream&) = delete;

    virtual unsigned Get(void* buf, unsigned n);
    virtual unsigned GetAttri(MMAttri* req, unsigned count);
    virtual int Null();
    virtual int Play();
    virtual unsigned Put(const void* buf, unsigned n);
    virtual unsigned PutAttri(const MMAttri* a, unsigned count);
    virtual int Ready();
    virtual int Seek(long offset, MMStreamSeekFrom from);
    virtual int Size(unsigned long& size);
    virtual int Tell(unsigned long& pos);

    // Accessors over the stream's own table; each takes the first match.
    MMAttri* AttriGet(const char* name);
    MMAttri* AttriGetI32(const char* name);
    MMAttri* AttriGetU32(const char* name);
    void* AttriAnyPointer(const char* name);
    const char* AttriAnyString(const char* name);
    static bool AttriAnyValid(const MMAttri* a);
    static bool AttriAnyFree(MMAttri* a);
    MMAttri* AttriPut(const char* name, MMAttriTag tag);

    // Registries, process-wide and unsynchronised: written at load time, read afterwards.
    static int AddToStreamRegistry(const MMAttri* attrs, unsigned count, Factory factory);
    static MMStream* NewFromStreamRegistry(const MMAttri* attrs, unsigned count);
    static int AddToContentRegistry(const char* name, Detector detector);
    static const char* ContentFromContentRegistry(MMStream* s);

  protected:
    const MMAttri* AttriTable() const { return attris_; }
    uint32_t AttriCount() const { return attriCount_; }

    // The position a seek moves to in an in-memory stream of `size` bytes: clamped to
    // [0, size], except that a negative offset from the beginning is taken as it is. False for
    // an unknown origin.
    static bool SeekTarget(int64_t size, int64_t position, long offset, MMStreamSeekFrom from,
                           int64_t& target);

  private:
    MMAttri* FindAttri(const char* name, MMAttriTag tag);

    MMAttri* attris_;
    uint32_t attriCount_;
};

// A stream over a caller's buffer of fixed size, the mmIdData attribute. Writing overwrites
// and never grows the buffer.
class MMByteStream : public MMStream {
  public:
    MMByteStream(const MMAttri* attrs, unsigned count) : MMStream(attrs, count) {}

    static MMStream* New(const MMAttri* attrs, unsigned count);

    unsigned Get(void* buf, unsigned n) override;
    int Null() override;
    unsigned Put(const void* buf, unsigned n) override;
    int Ready() override;
    int Seek(long offset, MMStreamSeekFrom from) override;
    int Size(unsigned long& size) override;
    int Tell(unsigned long& pos) override;

  private:
    // Bytes that Get or Put may move at the position; none while the position lies before the
    // start after an unclamped seek.
    uint32_t Transferable(const void* buf, unsigned n) const;

    unsigned char* start_ = nullptr;
    unsigned char* current_ = nullptr;
    uint32_t size_ = 0;
    uint32_t remaining_ = 0;
};

// Registers the byte stream in the stream registry on the first call; later calls answer the
// remembered result.
int MMByteStreamRegistered();

// The flat interface over an opaque stream; a null stream answers 0 or null.
MMStream* MMStreamNew(const MMAttri* attrs, unsigned count);
int MMStreamDelete(MMStream** ps);
unsigned MMStreamGet(MMStream* s, void* buf, unsigned n);
unsigned MMStreamPut(MMStream* s, const void* buf, unsigned n);
unsigned MMStreamGetAttri(MMStream* s, MMAttri* req, unsigned count);
unsigned MMStreamPutAttri(MMStream* s, const MMAttri* a, unsigned count);
int MMStreamNull(MMStream* s);
int MMStreamPlay(MMStream* s);
int MMStreamReady(MMStream* s);
int MMStreamSeek(MMStream* s, long offset, MMStreamSeekFrom from);
int MMStreamSize(MMStream* s, unsigned long* size);
int MMStreamTell(MMStream* s, unsigned long* pos);
const char* MMStreamContent(MMStream* s);

// The allocator of every buffer whose ownership travels in attributes, and of kau::mem::New.
void* MMAllocate(unsigned long n);
void MMFree(void* p);
