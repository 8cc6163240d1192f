// The PNG decoder: a chunk reader that verifies every CRC, the image data fed through the
// inflater, row unfiltering, Adam7 de-interlacing and expansion of every colour type and bit
// depth to 8-bit R, G, B, A. Also the push-mode input that collects a PNG from pieces.
#pragma once

#include <cstdint>

#include "kau.h"

class MMStream;
namespace zin {
struct Stream;
}

namespace kiu {

// An image decoder: construction reads the header, DecodeImage yields the pixels.
class Decoder {
  public:
    virtual ~Decoder();
    // The decoded pixels, owned by the caller (kau::mem::Delete), or null on failure.
    virtual unsigned char* DecodeImage() = 0;
    virtual unsigned long OutputWidth() const = 0;
    virtual unsigned long OutputHeight() const = 0;
};

}  // namespace kiu

namespace kpng {

// Module text carried by every error raised in this header, kpng.cpp and the push-mode input.
inline constexpr const char kKpngFile[] =
    "middleware/multimedia-framework/media-service/gstreamer/gst-plugins-extension/Codec/SW/PNG/"
    "kpng/kpng";

// Error and catch positions of the decoder and the push-mode input (all in kKpngFile).
inline constexpr int kErrSignature = 18;
inline constexpr int kErrTopBitSet = 22;
inline constexpr int kErrIdatBeforeIhdr = 32;
inline constexpr int kErrPaletteMissing = 33;
inline constexpr int kErrNoMemoryInput = 52;
inline constexpr int kCatchMemoryConstructor = 58;
inline constexpr int kErrMemoryConstructor = 62;
inline constexpr int kErrNoStream = 70;
inline constexpr int kCatchStreamConstructor = 78;
inline constexpr int kErrStreamConstructor = 82;
inline constexpr int kErrNoImageData = 89;
inline constexpr int kErrOutputAllocate = 100;
inline constexpr int kErrOutputOverLimit = 101;
inline constexpr int kErrInterlacedOutputAllocate = 109;
inline constexpr int kCatchDecodeImage = 161;
inline constexpr int kErrIdatMissing = 514;
inline constexpr int kErrInflate = 527;
inline constexpr int kErrShortStreamGrown = 544;
inline constexpr int kErrShortStream = 556;
inline constexpr int kErrShortInputMemory = 565;
inline constexpr int kErrCrc = 576;
inline constexpr int kErrIendOrder = 589;
inline constexpr int kErrIendRepeated = 590;
inline constexpr int kErrIendLength = 592;
inline constexpr int kErrIhdrRepeated = 598;
inline constexpr int kErrIhdrLength = 599;
inline constexpr int kErrSizeZero = 631;
inline constexpr int kErrSizeNegative = 632;
inline constexpr int kErrWidthTooLarge = 635;
inline constexpr int kErrBitDepth = 636;
inline constexpr int kErrColourType = 637;
inline constexpr int kErrDepthForColourType = 639;
inline constexpr int kErrInterlaceMethod = 640;
inline constexpr int kErrCompressionMethod = 641;
inline constexpr int kErrFilterMethod = 642;
inline constexpr int kErrPlteBeforeIhdr = 647;
inline constexpr int kErrPlteAfterIdat = 648;
inline constexpr int kErrPlteAfterTrns = 649;
inline constexpr int kErrPlteRepeated = 650;
inline constexpr int kErrPlteLength = 658;
inline constexpr int kErrTrnsLongerThanPalette = 668;
inline constexpr int kErrTrnsBeforeIhdr = 673;
inline constexpr int kErrTrnsAfterIdat = 674;
inline constexpr int kErrTrnsRepeated = 675;
inline constexpr int kErrTrnsGreyLength = 679;
inline constexpr int kErrTrnsColourLength = 686;
inline constexpr int kErrTrnsBeforePlte = 695;
inline constexpr int kErrTrnsPaletteLength = 696;
inline constexpr int kErrTrnsPaletteEmpty = 697;
inline constexpr int kErrTrnsWithAlpha = 702;
inline constexpr int kErrBkgdBeforeIhdr = 709;
inline constexpr int kErrBkgdAfterIdat = 710;
inline constexpr int kErrBkgdRepeated = 711;
inline constexpr int kErrBkgdBeforePlte = 715;
inline constexpr int kErrBkgdPaletteLength = 716;
inline constexpr int kErrBkgdIndex = 718;
inline constexpr int kErrBkgdGreyLength = 725;
inline constexpr int kErrBkgdColourLength = 734;
inline constexpr int kErrChunkBeforeIhdr = 745;
inline constexpr int kErrChunkAfterIend = 746;
inline constexpr int kErrChunkTypeNotLetters = 752;
inline constexpr int kErrUnknownCriticalChunk = 753;
inline constexpr int kErrIdatAfterImageData = 884;
inline constexpr int kErrIsValidShortRead = 918;
inline constexpr int kErrIsValidSignature = 919;
inline constexpr int kCatchIsValid = 921;
inline constexpr int kErrPushNoInput = 927;
inline constexpr int kErrPushWrite = 928;
inline constexpr int kErrPushSignature = 944;
inline constexpr int kErrPushIendLength = 985;
inline constexpr int kErrResetPosition = 1022;
inline constexpr int kErrResetSeek = 1031;
inline constexpr int kErrResetAllocate = 1032;
inline constexpr int kErrResetRead = 1033;
inline constexpr int kCatchReset = 1037;
inline constexpr int kErrInputOverLimit = 1040;

// The 8 bytes that open every PNG file.
inline constexpr unsigned char kpngSignature[8] = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};

// The 32-bit big-endian value PNG stores in its chunks.
inline uint32_t BigEndian32(const unsigned char* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// A big-endian 32-bit length or size, which PNG limits to 2^31 - 1.
inline uint32_t ReadBigEndian31(const unsigned char* p) {
    uint32_t v = BigEndian32(p);
    if (v & 0x80000000u) kau::Error::Throw(kKpngFile, kErrTopBitSet);
    return v;
}

// The reason of a failed decode in words, from the module text and position of its first
// report (kau::FirstReport): what an application or a tool tells its user. Places the decoder
// does not know answer "the decoder failed".
const char* DescribeFailure(const char* file, int position);

// Row unfiltering, expansion and the checksums have portable loops and, where the processor has
// them, vector forms (chosen at run time where they need more than the target's baseline). They
// give the same bytes; false forces the portable loops, the inflater's included, so that tests
// can compare the two. Process-wide and unsynchronised, like the allocator hooks: set it while
// no decoder runs.
void UseVectorRowPaths(bool enabled);

// The pixel layouts the decoder writes, 8 bits per value, named by their bytes in memory order;
// x is an unused byte, written 255. Alpha is dropped where the layout has none. kRgb16 is one
// native-endian 16-bit word per pixel: the top 5 bits of red, 6 of green and 5 of blue, from
// the most significant bit down. kGray8 is the luma of R, G, B with the BT.601 weights in
// 16-bit fixed point, rounded, (19595 R + 38470 G + 7471 B + 32768) >> 16, which keeps a grey
// value as it is.
enum class OutputFormat : uint8_t {
    kRgba, kBgra, kArgb, kAbgr, kRgbx, kBgrx, kXrgb, kXbgr, kRgb, kBgr, kRgb16, kGray8
};

inline constexpr uint32_t BytesPerPixel(OutputFormat format) {
    return format < OutputFormat::kRgb ? 4 : format < OutputFormat::kRgb16 ? 3
                                           : format == OutputFormat::kRgb16 ? 2 : 1;
}

// What a caller asks of one decode beyond the defaults; a default record changes nothing.
struct DecodeOptions {
    // Bytes of output pixels (width x bytes per pixel x height) above which a PNG is refused
    // once its header has been read, before any pixel memory is taken; 0: no limit.
    uint64_t maxOutputBytes = 0;
    OutputFormat format = OutputFormat::kRgba;
    // Where the rows go, `stride` bytes apart (at least width x bytes per pixel), instead of
    // memory the decoder takes: DecodeImage then returns `destination`, which stays the
    // caller's. It must hold (height - 1) x stride + width x bytes per pixel bytes. On failure
    // its rows may be partly written.
    unsigned char* destination = nullptr;
    uint32_t stride = 0;
};

struct RowRoutines;

// Decodes one PNG, held in memory or read from a stream, into R, G, B, A bytes.
// Construction validates the signature, the header and every chunk up to the first image data;
// a failure there is reported and then raised at kErrMemoryConstructor or
// kErrStreamConstructor.
class Decoder : public kiu::Decoder {
  public:
    // Reads the caller's buffer in place; it must outlive the decoder.
    Decoder(const unsigned char* data, unsigned long size, unsigned char defaultAlpha);
    // Reads with MMStreamGet from the stream's position; the stream must outlive the decoder.
    Decoder(MMStream* stream, unsigned char defaultAlpha);
    // The same, then the options' limits are checked against the header (raising
    // kErrOutputOverLimit without a report of the decoder's own).
    Decoder(const unsigned char* data, unsigned long size, unsigned char defaultAlpha,
            const DecodeOptions& options);
    Decoder(MMStream* stream, unsigned char defaultAlpha, const DecodeOptions& options);
    ~Decoder() override;
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    // Width x height pixels of 4 bytes (or of the options' format), rows without padding (or
    // the options' destination and stride); null after a printed report.
    unsigned char* DecodeImage() override;
    unsigned long OutputWidth() const override { return width; }
    unsigned long OutputHeight() const override { return height; }

    // Bits of alpha the image carries: -1 for none, otherwise at most 8.
    int AlphaDepth() const { return alphaDepth; }
    // The bKGD colour as stored (grey images repeat their grey); zero without bKGD.
    bool HasBackground() const { return chunkFlags & kFlagBackground; }
    uint16_t BackgroundRed() const { return backgroundColour[0]; }
    uint16_t BackgroundGreen() const { return backgroundColour[1]; }
    uint16_t BackgroundBlue() const { return backgroundColour[2]; }

  private:
    // chunkFlags bits.
    static constexpr int32_t kFlagHeader = 1;
    static constexpr int32_t kFlagPalette = 2;
    static constexpr int32_t kFlagImageData = 4;
    // The value 8, "image data ended", is no bit here: imageDataEnded holds that state.
    static constexpr int32_t kFlagEnd = 16;
    static constexpr int32_t kFlagTransparency = 32;
    static constexpr int32_t kFlagBackground = 64;

    // Chunk reader.
    const unsigned char* GetData(uint32_t n);
    const unsigned char* GetStreamData(uint32_t n);
    const unsigned char* GetDataUpdateCRC(uint32_t n);
    uint32_t GetChunkLength();
    void ReadChunkType();
    const unsigned char* CheckCRC(uint32_t n);

    // Header walk and chunk handlers. Each handler is called with the chunk's data length once
    // its type has been read; HandlerFor routes a chunk type to its handler.
    enum class Phase { kBeforeImageData, kAfterImageData };
    using ChunkHandler = void (Decoder::*)(uint32_t length);
    static ChunkHandler HandlerFor(uint32_t type, Phase phase);
    void ReadChunksUntil(int32_t flag, Phase phase);
    void ConstructFromMemory(const unsigned char* data, uint32_t size);
    void ConstructFromStream();
    void Start();
    void BeginImageData(uint32_t length);
    void RefuseImageData(uint32_t length);
    void ReadAndCheckIHDR(uint32_t length);
    void ReadAndCheckIEND(uint32_t length);
    void ReadAndCheckPLTE(uint32_t length);
    void ReadAndChecktRNS(uint32_t length);
    void ReadAndCheckbKGD(uint32_t length);
    void ReadAndCheckUnknown(uint32_t length);
    void CheckValidInputStreamTail();
    void TakeOptions(const DecodeOptions& options);

    // Image data and rows.
    int InflateZstreamFromIDAT();
    void InflateInto(unsigned char* out, uint32_t n);
    const unsigned char* InflateRow(unsigned char* copy, uint32_t n);
    bool InflateAhead();
    uint64_t ImageDataSize();
    void SetRowGeometry(uint32_t pixels);
    void DecodeRows(unsigned char*& output);
    void DecodeInterlacedRows(unsigned char*& output);
    void PrepareRows();
    const unsigned char* ReadRow(const unsigned char* prior, unsigned char* row,
                                 unsigned char* expanded);
    unsigned char* TakeOutputRows(uint32_t size, int failure);
    void AllocateRows(uint32_t rowBytes, uint32_t pixelBytes, bool unfilteredToo);
    void PlacePassPixels(unsigned char* outputRow, int pass, uint32_t pixelBytes,
                         const unsigned char* source);

    int32_t alphaDepth = 0;
    unsigned char* readBuffer = nullptr;
    const unsigned char* readCursor = nullptr;
    uint32_t readCapacity = 0;
    const unsigned char* readEnd = nullptr;
    MMStream* stream = nullptr;
    int32_t chunkFlags = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    // Two unfiltered rows that take turns as the row and its prior row.
    unsigned char* unfilteredRows[2] = {};
    // A row of output pixels that are not written straight into the output rows.
    unsigned char* pixelRow = nullptr;
    // A filtered row that the look-ahead buffer holds in two parts, put together.
    unsigned char* rawRow = nullptr;
    uint32_t idatRemaining = 0;
    uint32_t chunkCRC = 0;
    unsigned char palette[256 * 3] = {};
    int16_t paletteCount = 0;
    // Copied from tRNS, so that a stream-mode refill cannot overwrite them.
    unsigned char paletteAlpha[256] = {};
    unsigned char defaultAlpha = 0;
    uint16_t keyColour[3] = {};
    uint16_t keyGrey = 0;
    uint16_t backgroundColour[3] = {};
    uint16_t backgroundGrey = 0;
    int16_t trnsCount = 0;
    kau::mem::Heap heap;
    // The type of the chunk being handled.
    unsigned char chunkType[4] = {};
    uint8_t filterMethod = 0;
    uint8_t interlaceMethod = 0;
    uint8_t compressionMethod = 0;
    uint8_t colourType = 0;
    uint8_t bitDepth = 0;
    uint8_t bitsPerPixel = 0;
    int32_t bytesPerPixel = 0;
    uint32_t pixelsPerRow = 0;
    uint32_t bytesPerRow = 0;
    // Set when the zlib stream ends.
    uint32_t imageDataEnded = 0;
    zin::Stream* inflater = nullptr;
    // Image data inflated ahead of the rows, after the history its matches read (InflateInto).
    unsigned char* inflated = nullptr;
    uint32_t inflatedSize = 0;
    uint32_t inflatedNext = 0;       // the next byte for the rows
    uint32_t inflatedEnd = 0;        // the end of what is inflated
    uint64_t imageDataLeft = 0;      // bytes the rows take that are not inflated yet
    uint64_t imageDataInflated = 0;  // bytes inflated so far
    uint64_t rowDataTaken = 0;       // bytes the rows have asked for
    // The first request of the rows that starts at or past this offset finds the stream ended.
    uint64_t rowDataAfterEnd = UINT64_MAX;
    // Output pixel (R, G, B, A in memory order) of every palette index or 8-bit grey value,
    // and of every low-depth grey sample; built once before the first row.
    uint32_t pixelTable[256] = {};
    // The image's unfilter and expansion routines, chosen once before the first row.
    RowRoutines* rowRoutines = nullptr;
    // The output: its format, and the caller's rows (null: memory of the decoder's own).
    OutputFormat outputFormat = OutputFormat::kRgba;
    unsigned char* destination = nullptr;
    uint32_t destinationStride = 0;
};

// Collects a PNG that arrives in pieces into a page-array stream, walking its chunk structure to
// notice the moment the IEND chunk is complete. A plain record that lives zero-filled inside its
// owner and is set up by Construct and torn down by Destruct.
struct Input {
    MMStream* stream;
    unsigned char signature[8];
    unsigned char lengthBytes[4];
    int32_t signatureCount, lengthCount, typeCount, crcCount, chunkLength, remaining;
    unsigned char typeBytes[4];
    // Null between chunks; inside IEND the decoder's one "IEND" constant (compared by address);
    // inside any other chunk typeBytes.
    const char* currentType;
    // Bytes of the stream that belong to the PNG; final once IEND is complete.
    uint32_t pngSize;

    void Construct();
    void Destruct();
    // True when the next 8 bytes of the stream are the PNG signature; they stay consumed.
    static bool IsValid(MMStream* stream);
    // 0 when the PNG is complete (now or before, for a piece of at least one byte); 1 when more
    // is needed. Raises kau::Error.
    int Push(const void* data, unsigned long size);
    // After decoding, starts a fresh stream holding the bytes between the end of the PNG and
    // the old stream's position. Raises kau::Error at its first test only.
    void ResetStreamWithDataAfterIEND();

    // The walk over a piece, one step per part of the file: the signature, a chunk's length,
    // its type, then its data and CRC (true once the IEND chunk is complete).
    void TakeSignature(const unsigned char*& p, const unsigned char* end);
    void TakeLength(const unsigned char*& p, const unsigned char* end);
    void TakeType(const unsigned char*& p, const unsigned char* end);
    bool SkipDataAndCrc(const unsigned char*& p, const unsigned char* end);
    // True once the PNG's IEND chunk has been passed to its last CRC byte.
    bool Complete() const;
    // Raises kErrInputOverLimit when more than `maxBytes` bytes (0: no limit) belong to the PNG.
    void CheckSize(uint64_t maxBytes) const;
};

}  // namespace kpng
