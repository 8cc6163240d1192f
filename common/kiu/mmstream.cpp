#include "mmstream.h"

#include <cstdlib>
#include <list>
#include <memory>

#include "MMFileStream.h"
#include "MMPageArrayStream.h"
#include "kau.h"

const char* mmIdAngleInDegrees = "mm.image.angleInDegrees";
const char* mmIdBitsPerColorChannel = "mm.image.bitsPerColorChannel";
const char* mmIdBitsPerPixel = "mm.image.bitsPerPixel";
const char* mmIdBitsPerSample = "mm.image.bitsPerSample";
const char* mmIdChannelsTotal = "mm.image.channelsTotal";
const char* mmIdColorSpace = "mm.image.colorSpace";
const char* mmIdContentToGet = "mm.image.contentToGet";
const char* mmIdContentToPut = "mm.image.contentToPut";
const char* mmIdData = "mm.image.data";
const char* mmIdDurationInMsec = "mm.image.durationInMsec";
const char* mmIdFileMode = "mm.image.fileMode";
const char* mmIdFileName = "mm.image.fileName";
const char* mmIdFrameDurationInMsec = "mm.image.frameDurationInMsec";
const char* mmIdFramesTotal = "mm.image.framesTotal";
const char* mmIdHeight = "mm.image.height";
const char* mmIdHorizontalSamplesU = "mm.image.horizontalSamplesU";
const char* mmIdHorizontalSamplesV = "mm.image.horizontalSamplesV";
const char* mmIdHorizontalSamplesY = "mm.image.horizontalSamplesY";
const char* mmIdImageQuality = "mm.image.imageQuality";
const char* mmIdLocationInMsec = "mm.image.locationInMsec";
const char* mmIdMaskA = "mm.image.maskA";
const char* mmIdMaskB = "mm.image.maskB";
const char* mmIdMaskG = "mm.image.maskG";
const char* mmIdMaskR = "mm.image.maskR";
const char* mmIdPageSize = "mm.image.pageSize";
const char* mmIdRowStrideInBytes = "mm.image.rowStrideInBytes";
const char* mmIdSampleRate = "mm.image.sampleRate";
const char* mmIdShiftA = "mm.image.shiftA";
const char* mmIdShiftB = "mm.image.shiftB";
const char* mmIdShiftG = "mm.image.shiftG";
const char* mmIdShiftR = "mm.image.shiftR";
const char* mmIdStreamToGet = "mm.image.streamToGet";
const char* mmIdStreamToPut = "mm.image.streamToPut";
const char* mmIdVerticalSamplesU = "mm.image.verticalSamplesU";
const char* mmIdVerticalSamplesV = "mm.image.verticalSamplesV";
const char* mmIdVerticalSamplesY = "mm.image.verticalSamplesY";
const char* mmIdWidth = "mm.image.width";

namespace {

constexpr const char kModuleFile[] =
    "middleware/multimedia-framework/media-service/common/kiu/mmstream";

// Catch sites of this module (all in kModuleFile).
constexpr int kCatchPutAttri = 180;
constexpr int kCatchAddToStreamRegistry = 227;
constexpr int kCatchNewFromStreamRegistry = 256;
constexpr int kCatchAddToContentRegistry = 290;
constexpr int kCatchContentFromContentRegistry = 301;

// The image libraries' attribute for a pixel buffer; it has no published name variable.
[[maybe_unused]] constexpr const char kPixelsAttriName[] = "mm.image.pixelsAttri";

// The byte count of a buffer whose size carries ownership in its sign.
uint32_t Magnitude(int32_t size) {
    return size < 0 ? 0u - static_cast<uint32_t>(size) : static_cast<uint32_t>(size);
}

bool Owned(const MMAttri& a) {
    return a.tag == MMAttriTagAny && a.size < 0 && a.value;
}

// A consistent buffer pair: (null, 0) or (non-null, non-zero).
bool AnyPairValid(const MMAttri& a) {
    return (a.value == 0) == (a.size == 0);
}

}  // namespace

// ---- Attribute records ----

MMAttri* MMAttriFromAny(MMAttri* attr, const char* name, void* data, long size) {
    const int32_t size32 = static_cast<int32_t>(size);
    if (!attr || !name || (data == nullptr) != (size32 == 0)) return nullptr;
    attr->name = name;
    attr->tag = MMAttriTagAny;
    attr->value = reinterpret_cast<uintptr_t>(data);
    attr->size = size32;
    return attr;
}

MMAttri* MMAttriFromTag(MMAttri* attr, const char* name, MMAttriTag tag) {
    if (!attr || !name || tag == MMAttriTagNone) return nullptr;
    attr->name = name;
    attr->tag = tag;
    attr->value = 0;
    attr->size = 0;
    return attr;
}

MMAttri* MMAttriFromI32(MMAttri* attr, const char* name, long v) {
    if (!attr || !name) return nullptr;
    attr->name = name;
    attr->tag = MMAttriTagI32;
    // Sign-extended, so that reading the value back as a long gives v on every host.
    attr->value = static_cast<uintptr_t>(static_cast<intptr_t>(static_cast<int32_t>(v)));
    return attr;
}

MMAttri* MMAttriFromU32(MMAttri* attr, const char* name, unsigned long v) {
    if (!attr || !name) return nullptr;
    attr->name = name;
    attr->tag = MMAttriTagU32;
    attr->value = static_cast<uint32_t>(v);
    return attr;
}

MMAttri* MMAttriFromString(MMAttri* attr, const char* name, const char* s) {
    if (!attr || !name) return nullptr;
    attr->name = name;
    attr->tag = MMAttriTagAny;
    attr->value = reinterpret_cast<uintptr_t>(s);
    attr->size = s ? static_cast<int32_t>(kau::mem::StrLen(s) + 1) : 0;
    return attr;
}

// ---- The stream base ----

MMStream::MMStream(const MMAttri* attrs, unsigned count)
    : attris_(new MMAttri[kAttriCapacity]()), attriCount_(0) {
    if (!attrs) return;
    // Records past the table's capacity are not kept.
    const uint32_t kept = count < kAttriCapacity ? count : kAttriCapacity;
    for (uint32_t i = 0; i < kept; ++i)
        attris_[i] = attrs[i];
    attriCount_ = kept;
}

MMStream::~MMStream() {
    for (uint32_t i = 0; i < attriCount_; ++i)
        AttriAnyFree(&attris_[i]);
    delete[] attris_;
}

unsigned MMStream::Get(void*, unsigned) {
    return 0;
}

unsigned MMStream::Put(const void*, unsigned) {
    return 0;
}

int MMStream::Null() {
    return 1;
}

int MMStream::Play() {
    return Ready();
}

int MMStream::Ready() {
    return Null();
}

int MMStream::Seek(long, MMStreamSeekFrom) {
    return 0;
}

int MMStream::Size(unsigned long&) {
    return 0;
}

int MMStream::Tell(unsigned long&) {
    return 0;
}

unsigned MMStream::GetAttri(MMAttri* req, unsigned count) {
    if (!req) return count && count < attriCount_ ? count : attriCount_;
    if (!req[0].name) {
        // A listing lends the buffers: ownership stays with the stream.
        uint32_t copied = 0;
        for (; copied < attriCount_ && copied < count; ++copied) {
            req[copied] = attris_[copied];
            if (req[copied].tag == MMAttriTagAny)
                req[copied].size = static_cast<int32_t>(Magnitude(req[copied].size));
        }
        return copied;
    }
    uint32_t matched = 0;
    for (uint32_t i = 0; i < count; ++i) {
        MMAttri& r = req[i];
        if (!r.name) {
            r.tag = MMAttriTagNone;
            continue;
        }
        MMAttri* stored = FindAttri(r.name, r.tag);
        if (!stored) continue;
        r.tag = stored->tag;
        r.value = stored->value;
        if (stored->tag != MMAttriTagAny) {
            r.size = stored->size;
        } else if (r.size < 0) {
            // A take-over: an owned buffer passes to the caller, a borrowed one stays borrowed.
            r.size = stored->size;
            stored->size = static_cast<int32_t>(Magnitude(stored->size));
        } else {
            r.size = static_cast<int32_t>(Magnitude(stored->size));
        }
        ++matched;
    }
    return matched;
}

unsigned MMStream::PutAttri(const MMAttri* a, unsigned count) {
    if (!a) return count && count < attriCount_ ? count : attriCount_;
    return kau::CatchAndReport(kModuleFile, kCatchPutAttri, 0u, [&] {
        uint32_t stored = 0;
        for (uint32_t i = 0; i < count; ++i) {
            const MMAttri& r = a[i];
            if (!r.name || r.tag == MMAttriTagNone) continue;
            MMAttri* old = nullptr;
            for (uint32_t j = 0; j < attriCount_ && !old; ++j)
                if (attris_[j].name == r.name && attris_[j].tag == r.tag) old = &attris_[j];
            if (old) {
                // Putting the same owned buffer again must not free it under the new record.
                if (Owned(*old) && old->value != r.value)
                    MMFree(reinterpret_cast<void*>(old->value));
                old->value = r.value;
                old->size = r.size;
            } else if (attriCount_ < kAttriCapacity) {
                attris_[attriCount_++] = r;
            } else {
                continue;
            }
            ++stored;
        }
        return stored;
    });
}

MMAttri* MMStream::FindAttri(const char* name, MMAttriTag tag) {
    for (uint32_t i = 0; i < attriCount_; ++i)
        if (attris_[i].name == name && (tag == MMAttriTagNone || attris_[i].tag == tag))
            return &attris_[i];
    return nullptr;
}

MMAttri* MMStream::AttriGet(const char* name) {
    return FindAttri(name, MMAttriTagNone);
}

MMAttri* MMStream::AttriGetI32(const char* name) {
    return FindAttri(name, MMAttriTagI32);
}

MMAttri* MMStream::AttriGetU32(const char* name) {
    return FindAttri(name, MMAttriTagU32);
}

void* MMStream::AttriAnyPointer(const char* name) {
    for (uint32_t i = 0; i < attriCount_; ++i)
        if (attris_[i].name == name && AttriAnyValid(&attris_[i]))
            return reinterpret_cast<void*>(attris_[i].value);
    return nullptr;
}

const char* MMStream::AttriAnyString(const char* name) {
    const MMAttri* a = AttriGet(name);
    if (!a || a->tag != MMAttriTagAny || !a->value || !a->size) return nullptr;
    const char* s = reinterpret_cast<const char*>(a->value);
    return s[Magnitude(a->size) - 1] == 0 ? s : nullptr;
}

bool MMStream::AttriAnyValid(const MMAttri* a) {
    return a && a->tag == MMAttriTagAny && AnyPairValid(*a);
}

bool MMStream::AttriAnyFree(MMAttri* a) {
    if (!AttriAnyValid(a)) return false;
    if (a->size < 0) MMFree(reinterpret_cast<void*>(a->value));
    a->value = 0;
    a->size = 0;
    return true;
}

MMAttri* MMStream::AttriPut(const char* name, MMAttriTag tag) {
    MMAttri request;
    if (!MMAttriFromTag(&request, name, tag)) return nullptr;
    return PutAttri(&request, 1) == 1 ? AttriGet(name) : nullptr;
}

bool MMStream::SeekTarget(int64_t size, int64_t position, long offset, MMStreamSeekFrom from,
                          int64_t& target) {
    const int64_t off = static_cast<int32_t>(offset);
    auto atLeast0 = [](int64_t p) { return p < 0 ? 0 : p; };
    auto atMostSize = [size](int64_t p) { return p > size ? size : p; };
    switch (from) {
        case MMStreamSeekFromEnd:
            target = off < 0 ? atLeast0(size + off) : size;
            return true;
        case MMStreamSeekFromCurrent:
            target = off < 0 ? atLeast0(position + off) : atMostSize(position + off);
            return true;
        case MMStreamSeekFromBegin:
            target = off < 0 ? off : atMostSize(off);
            return true;
    }
    return false;
}

// ---- The byte stream ----

MMStream* MMByteStream::New(const MMAttri* attrs, unsigned count) {
    return new MMByteStream(attrs, count);
}

int MMByteStream::Null() {
    start_ = nullptr;
    current_ = nullptr;
    size_ = 0;
    remaining_ = 0;
    return 1;
}

int MMByteStream::Ready() {
    if (!Null()) return 0;
    const MMAttri* data = AttriGet(mmIdData);
    if (!AttriAnyValid(data)) return 0;
    start_ = current_ = reinterpret_cast<unsigned char*>(data->value);
    size_ = remaining_ = Magnitude(data->size);
    return 1;
}

uint32_t MMByteStream::Transferable(const void* buf, unsigned n) const {
    if (!n || !buf || !start_ || !current_ || remaining_ > size_) return 0;
    return n < remaining_ ? n : remaining_;
}

unsigned MMByteStream::Get(void* buf, unsigned n) {
    const uint32_t k = Transferable(buf, n);
    kau::mem::Copy8(buf, current_, k);
    current_ += k;
    remaining_ -= k;
    return k;
}

unsigned MMByteStream::Put(const void* buf, unsigned n) {
    const uint32_t k = Transferable(buf, n);
    kau::mem::Copy8(current_, buf, k);
    current_ += k;
    remaining_ -= k;
    return k;
}

int MMByteStream::Size(unsigned long& size) {
    size = size_;
    return 1;
}

int MMByteStream::Tell(unsigned long& pos) {
    pos = size_ - remaining_;
    return 1;
}

int MMByteStream::Seek(long offset, MMStreamSeekFrom from) {
    if (!start_ || !current_) return 0;
    const int64_t position = int64_t{size_} - int64_t{remaining_};
    int64_t target;
    if (!SeekTarget(size_, position, offset, from, target)) return 0;
    remaining_ = static_cast<uint32_t>(int64_t{size_} - target);
    // Address arithmetic: an unclamped negative target lies before the buffer, where Get and
    // Put then refuse to transfer.
    current_ = reinterpret_cast<unsigned char*>(reinterpret_cast<uintptr_t>(start_) +
                                                static_cast<uintptr_t>(target));
    return 1;
}

int MMByteStreamRegistered() {
    static const int registered = [] {
        MMAttri data;
        MMAttriFromAny(&data, mmIdData, nullptr, 0);
        return MMStream::AddToStreamRegistry(&data, 1, MMByteStream::New);
    }();
    return registered;
}

// ---- The registries ----

namespace {

// A registered stream kind: the records a request must carry, and the kind's factory.
class StreamRegistryEntry : public MMStream {
  public:
    StreamRegistryEntry(const MMAttri* attrs, unsigned count, Factory factory)
        : MMStream(attrs, count), factory_(factory) {}

    Factory GetFactory() const { return factory_; }
    uint32_t RecordCount() const { return AttriCount(); }

    // Whether every registered record is matched by a request record of the same name and tag.
    bool Matches(const MMAttri* req, unsigned count) const {
        for (uint32_t i = 0; i < AttriCount(); ++i)
            if (!MatchesRecord(AttriTable()[i], req, count)) return false;
        return true;
    }

  private:
    // A valued buffer record is matched by the bytes of the first request record of its name
    // and tag; a differing one fails the record at once.
    static bool MatchesRecord(const MMAttri& registered, const MMAttri* req, unsigned count) {
        for (uint32_t i = 0; i < count; ++i) {
            const MMAttri& r = req[i];
            if (r.name != registered.name || r.tag != registered.tag) continue;
            if (registered.tag != MMAttriTagAny || registered.size == 0) return true;
            const uint32_t n = Magnitude(registered.size);
            return Magnitude(r.size) >= n &&
                   kau::mem::Compare(reinterpret_cast<const void*>(r.value),
                                     reinterpret_cast<const void*>(registered.value), n) == 0;
        }
        return false;
    }

    Factory factory_;
};

struct ContentRegistryEntry {
    std::unique_ptr<char[]> name;
    MMStream::Detector detector;
};

// Both lists are created on their first registration and live as long as the process.
std::list<StreamRegistryEntry>* streamRegistry = nullptr;
std::list<ContentRegistryEntry>* contentRegistry = nullptr;

}  // namespace

int MMStream::AddToStreamRegistry(const MMAttri* attrs, unsigned count, Factory factory) {
    return kau::CatchAndReport(kModuleFile, kCatchAddToStreamRegistry, 0, [&] {
        if (!attrs || !count || count > kAttriCapacity || !factory) return 0;
        for (uint32_t i = 0; i < count; ++i)
            if (attrs[i].tag == MMAttriTagAny && !AnyPairValid(attrs[i])) return 0;
        if (!streamRegistry) streamRegistry = new std::list<StreamRegistryEntry>;
        streamRegistry->emplace_back(attrs, count, factory);
        return 1;
    });
}

MMStream* MMStream::NewFromStreamRegistry(const MMAttri* attrs, unsigned count) {
    return kau::CatchAndReport(
        kModuleFile, kCatchNewFromStreamRegistry, nullptr, [&]() -> MMStream* {
            if (!attrs || !count || !streamRegistry) return nullptr;
            const StreamRegistryEntry* chosen = nullptr;
            uint32_t best = 0;
            for (const StreamRegistryEntry& entry : *streamRegistry) {
                // Only a strictly more specific entry displaces an earlier choice.
                if (entry.RecordCount() > count || entry.RecordCount() <= best) continue;
                if (!entry.Matches(attrs, count)) continue;
                chosen = &entry;
                best = entry.RecordCount();
            }
            return chosen ? chosen->GetFactory()(attrs, count) : nullptr;
        });
}

int MMStream::AddToContentRegistry(const char* name, Detector detector) {
    return kau::CatchAndReport(kModuleFile, kCatchAddToContentRegistry, 0, [&] {
        if (!name || !detector) return 0;
        std::unique_ptr<char[]> copy(new char[kau::mem::StrLen(name) + 1]);
        kau::mem::CopyIncludingLast0(copy.get(), name);
        if (!contentRegistry) contentRegistry = new std::list<ContentRegistryEntry>;
        contentRegistry->push_back(ContentRegistryEntry{std::move(copy), detector});
        return 1;
    });
}

const char* MMStream::ContentFromContentRegistry(MMStream* s) {
    return kau::CatchAndReport(kModuleFile, kCatchContentFromContentRegistry, nullptr,
                               [&]() -> const char* {
                                   if (!s || !contentRegistry) return nullptr;
                                   for (const ContentRegistryEntry& entry : *contentRegistry) {
                                       // Every detector looks at the stream from its start.
                                       s->Ready();
                                       if (entry.detector(s)) return entry.name.get();
                                   }
                                   return nullptr;
                               });
}

// ---- The flat interface ----

MMStream* MMStreamNew(const MMAttri* attrs, unsigned count) {
    return MMStream::NewFromStreamRegistry(attrs, count);
}

int MMStreamDelete(MMStream** ps) {
    if (!ps || !*ps) return 0;
    delete *ps;
    *ps = nullptr;
    return 1;
}

unsigned MMStreamGet(MMStream* s, void* buf, unsigned n) {
    return s ? s->Get(buf, n) : 0;
}

unsigned MMStreamPut(MMStream* s, const void* buf, unsigned n) {
    return s ? s->Put(buf, n) : 0;
}

unsigned MMStreamGetAttri(MMStream* s, MMAttri* req, unsigned count) {
    return s ? s->GetAttri(req, count) : 0;
}

unsigned MMStreamPutAttri(MMStream* s, const MMAttri* a, unsigned count) {
    return s ? s->PutAttri(a, count) : 0;
}

int MMStreamNull(MMStream* s) {
    return s ? s->Null() : 0;
}

int MMStreamPlay(MMStream* s) {
    return s ? s->Play() : 0;
}

int MMStreamReady(MMStream* s) {
    return s ? s->Ready() : 0;
}

int MMStreamSeek(MMStream* s, long offset, MMStreamSeekFrom from) {
    return s ? s->Seek(offset, from) : 0;
}

int MMStreamSize(MMStream* s, unsigned long* size) {
    return s && size ? s->Size(*size) : 0;
}

int MMStreamTell(MMStream* s, unsigned long* pos) {
    return s && pos ? s->Tell(*pos) : 0;
}

const char* MMStreamContent(MMStream* s) {
    return MMStream::ContentFromContentRegistry(s);
}

void* MMAllocate(unsigned long n) {
    return malloc(n);
}

void MMFree(void* p) {
    if (p) free(p);
}

// ---- Load time ----

namespace {

// Memory from kau::mem::New must come from MMAllocate before anything allocates through it,
// and the order in which the kinds register decides ties in the stream registry.
struct LoadTimeInit {
    LoadTimeInit() {
        kau::mem::SetExternalNewAndDelete(MMAllocate, MMFree);
        MMByteStreamRegistered();
        MMFileStreamRegistered();
        MMPageArrayStreamRegistered();
    }
};

const LoadTimeInit loadTimeInit;

}  // namespace

// A static library contributes only the objects that a program refers to, and nothing refers
// to the initialiser above. The build makes every program that links this library refer to
// this marker, which keeps this object, and so the initialiser, in every program.
extern "C" {
extern const int MMStreamLoadTimeInit;
const int MMStreamLoadTimeInit = 1;
}
