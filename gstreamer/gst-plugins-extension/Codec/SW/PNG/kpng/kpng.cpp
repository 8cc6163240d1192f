#include "kpng.h"

#include <cstring>

#include "mmstream.h"
#include "zin.h"

kiu::Decoder::~Decoder() = default;

namespace kpng {
namespace {

[[noreturn]] void Fail(int position) {
    kau::Error::Throw(kKpngFile, position);
}

constexpr uint32_t TypeCode(const char (&name)[5]) {
    return uint32_t(uint8_t(name[0])) << 24 | uint32_t(uint8_t(name[1])) << 16 |
           uint32_t(uint8_t(name[2])) << 8 | uint8_t(name[3]);
}

uint16_t BigEndian16(const unsigned char* p) {
    return uint16_t(p[0] << 8 | p[1]);
}

constexpr uint32_t kIHDR = TypeCode("IHDR");
constexpr uint32_t kIEND = TypeCode("IEND");
constexpr uint32_t kPLTE = TypeCode("PLTE");
constexpr uint32_t kIDAT = TypeCode("IDAT");
constexpr uint32_t ktRNS = TypeCode("tRNS");
constexpr uint32_t kbKGD = TypeCode("bKGD");

constexpr uint32_t kInitialReadCapacity = 8192;
constexpr uint32_t kMaxWidth = 536870851;

// Channels of each colour type; 0 marks a type the header check refuses.
constexpr uint8_t kChannels[7] = {1, 0, 3, 1, 2, 0, 4};

}  // namespace

// ---- Construction ----

Decoder::Decoder(const unsigned char* data, unsigned long size, unsigned char alpha)
    : defaultAlpha(alpha) {
    if (!kau::CatchAndReport(kKpngFile, kCatchMemoryConstructor, false, [&] {
            ConstructFromMemory(data, static_cast<uint32_t>(size));
            return true;
        })) {
        heap.HandleExceptionInConstructor();
        Fail(kErrMemoryConstructor);
    }
}

Decoder::Decoder(MMStream* source, unsigned char alpha) : stream(source), defaultAlpha(alpha) {
    if (!kau::CatchAndReport(kKpngFile, kCatchStreamConstructor, false, [&] {
            ConstructFromStream();
            return true;
        })) {
        heap.HandleExceptionInConstructor();
        Fail(kErrStreamConstructor);
    }
}

Decoder::~Decoder() = default;

Decoder::Decoder(const unsigned char* data, unsigned long size, unsigned char alpha,
                 const DecodeOptions& options)
    : Decoder(data, size, alpha) {
    TakeOptions(options);
}

Decoder::Decoder(MMStream* source, unsigned char alpha, const DecodeOptions& options)
    : Decoder(source, alpha) {
    TakeOptions(options);
}

// Construction stops before the image data, and no pixel or row memory has been taken yet.
void Decoder::TakeOptions(const DecodeOptions& options) {
    const uint32_t pixelBytes = BytesPerPixel(options.format);
    const uint64_t outputBytes = uint64_t{width} * pixelBytes * height;
    if (options.maxOutputBytes && outputBytes > options.maxOutputBytes) Fail(kErrOutputOverLimit);
    if (options.destination && options.stride < uint64_t{width} * pixelBytes)
        Fail(kErrOutputAllocate);
    outputFormat = options.format;
    destination = options.destination;
    destinationStride = options.stride;
}

void Decoder::ConstructFromMemory(const unsigned char* data, uint32_t size) {
    if (!data || size == 0) Fail(kErrNoMemoryInput);
    readCursor = data;
    readEnd = data + size;
    Start();
}

void Decoder::ConstructFromStream() {
    if (!stream) Fail(kErrNoStream);
    readBuffer = static_cast<unsigned char*>(heap.Allocate(kInitialReadCapacity));
    readCapacity = kInitialReadCapacity;
    readCursor = readEnd = readBuffer + kInitialReadCapacity;
    Start();
}

// ---- Chunk reader ----

inline const unsigned char* Decoder::GetData(uint32_t n) {
    if (stream) return GetStreamData(n);
    if (n > uint32_t(readEnd - readCursor)) Fail(kErrShortInputMemory);
    const unsigned char* data = readCursor;
    readCursor += n;
    return data;
}

const unsigned char* Decoder::GetStreamData(uint32_t n) {
    uint32_t avail = uint32_t(readEnd - readCursor);
    if (n > readCapacity) {
        uint32_t missing = n - avail;
        // A stream that cannot deliver the request fails now, at its end, as the read would,
        // without first allocating a buffer of a length read from the input.
        unsigned long size = 0, position = 0;
        if (MMStreamSize(stream, &size) && MMStreamTell(stream, &position) &&
            uint32_t(size) >= uint32_t(position) && uint32_t(size) - uint32_t(position) < missing) {
            MMStreamSeek(stream, 0, MMStreamSeekFromEnd);
            Fail(kErrShortStreamGrown);
        }
        // The unread bytes move to the start and the buffer is grown, not replaced, so that
        // a run of ever longer IDAT chunks does not keep every outgrown buffer.
        memmove(readBuffer, readCursor, avail);
        readBuffer = static_cast<unsigned char*>(heap.Reallocate(readBuffer, n));
        readCapacity = n;
        if (MMStreamGet(stream, readBuffer + avail, missing) < missing) Fail(kErrShortStreamGrown);
        readCursor = readEnd = readBuffer + n;
        return readBuffer;
    }
    if (avail >= n) {
        const unsigned char* data = readCursor;
        readCursor += n;
        return data;
    }
    memmove(readBuffer, readCursor, avail);
    uint32_t got = MMStreamGet(stream, readBuffer + avail, readCapacity - avail);
    if (got < n - avail) Fail(kErrShortStream);
    readEnd = readBuffer + avail + got;
    readCursor = readBuffer + n;
    return readBuffer;
}

const unsigned char* Decoder::GetDataUpdateCRC(uint32_t n) {
    const unsigned char* data = GetData(n);
    chunkCRC = uint32_t(zio::crc32(chunkCRC, data, n));
    return data;
}

uint32_t Decoder::GetChunkLength() {
    return ReadBigEndian31(GetData(4));
}

void Decoder::ReadChunkType() {
    memcpy(chunkType, GetDataUpdateCRC(4), 4);
}

const unsigned char* Decoder::CheckCRC(uint32_t n) {
    GetDataUpdateCRC(n);
    const unsigned char* crc = GetData(4);
    if (BigEndian32(crc) != chunkCRC) Fail(kErrCrc);
    return crc;
}

// ---- Chunk routing ----

// The one table of which handler takes a chunk before the first IDAT (Start) and after the image
// data (the tail check). Types it does not list go to ReadAndCheckUnknown in both.
Decoder::ChunkHandler Decoder::HandlerFor(uint32_t type, Phase phase) {
    struct Route {
        uint32_t type;
        ChunkHandler beforeImageData, afterImageData;
    };
    static constexpr Route kRoutes[] = {
        // In the tail its handler refuses it as repeated.
        {kIHDR, &Decoder::ReadAndCheckIHDR, &Decoder::ReadAndCheckIHDR},
        // Before the image data its handler refuses it as out of order.
        {kIEND, &Decoder::ReadAndCheckIEND, &Decoder::ReadAndCheckIEND},
        // The first IDAT ends the header walk; one after the image data ended is refused.
        {kIDAT, &Decoder::BeginImageData, &Decoder::RefuseImageData},
        // In the tail their handlers refuse them as coming after the image data.
        {kPLTE, &Decoder::ReadAndCheckPLTE, &Decoder::ReadAndCheckPLTE},
        {ktRNS, &Decoder::ReadAndChecktRNS, &Decoder::ReadAndChecktRNS},
        // A background after the image data is skipped like any ancillary chunk, not refused.
        {kbKGD, &Decoder::ReadAndCheckbKGD, &Decoder::ReadAndCheckUnknown},
    };
    for (const Route& route : kRoutes)
        if (route.type == type)
            return phase == Phase::kBeforeImageData ? route.beforeImageData : route.afterImageData;
    return &Decoder::ReadAndCheckUnknown;
}

// Reads chunk after chunk, each handed to its handler, until one of them sets `flag`.
void Decoder::ReadChunksUntil(int32_t flag, Phase phase) {
    while (!(chunkFlags & flag)) {
        uint32_t length = GetChunkLength();
        chunkCRC = 0;
        ReadChunkType();
        (this->*HandlerFor(BigEndian32(chunkType), phase))(length);
    }
}

// ---- Chunks before the image data ----

void Decoder::Start() {
    alphaDepth = -1;
    inflater = static_cast<zin::Stream*>(heap.Allocate(sizeof(zin::Stream)));
    inflater->Reset();
    if (kau::mem::CompareNonNull(GetData(8), kpngSignature, 8) != 0) Fail(kErrSignature);
    ReadChunksUntil(kFlagImageData, Phase::kBeforeImageData);
    if (alphaDepth > 8) alphaDepth = 8;
}

// The first IDAT: its data is left for the inflater, which carries on its CRC.
void Decoder::BeginImageData(uint32_t length) {
    if (!(chunkFlags & kFlagHeader)) Fail(kErrIdatBeforeIhdr);
    if (colourType == 3 && !(chunkFlags & kFlagPalette)) Fail(kErrPaletteMissing);
    idatRemaining = length;
    chunkFlags |= kFlagImageData;
}

void Decoder::ReadAndCheckIHDR(uint32_t length) {
    if (chunkFlags & kFlagHeader) Fail(kErrIhdrRepeated);
    if (length != 13) Fail(kErrIhdrLength);
    chunkFlags |= kFlagHeader;
    unsigned char header[13];
    memcpy(header, GetDataUpdateCRC(13), 13);
    CheckCRC(0);
    width = ReadBigEndian31(header);
    height = ReadBigEndian31(header + 4);
    bitDepth = header[8];
    colourType = header[9];
    compressionMethod = header[10];
    filterMethod = header[11];
    interlaceMethod = header[12];

    unsigned channels = colourType < 7 ? kChannels[colourType] : 0;
    if (colourType == 4 || colourType == 6) alphaDepth = bitDepth;
    bitsPerPixel = uint8_t(channels * bitDepth);
    bytesPerPixel = (bitsPerPixel + 7) / 8;

    if (width == 0 || height == 0) Fail(kErrSizeZero);
    // Unreachable after the 31-bit reads above; a second guard on the same rule.
    if (int32_t(width) < 0 || int32_t(height) < 0) Fail(kErrSizeNegative);
    if (width > kMaxWidth) Fail(kErrWidthTooLarge);
    if (bitDepth != 1 && bitDepth != 2 && bitDepth != 4 && bitDepth != 8 && bitDepth != 16)
        Fail(kErrBitDepth);
    if (channels == 0) Fail(kErrColourType);
    if ((colourType == 3 && bitDepth > 8) || (colourType != 0 && colourType != 3 && bitDepth < 8))
        Fail(kErrDepthForColourType);
    if (interlaceMethod > 1) Fail(kErrInterlaceMethod);
    if (compressionMethod != 0) Fail(kErrCompressionMethod);
    if (filterMethod != 0) Fail(kErrFilterMethod);
}

void Decoder::ReadAndCheckIEND(uint32_t length) {
    if (!(chunkFlags & kFlagHeader) || !(chunkFlags & kFlagImageData)) Fail(kErrIendOrder);
    if (chunkFlags & kFlagEnd) Fail(kErrIendRepeated);
    chunkFlags |= kFlagEnd;
    if (length != 0) Fail(kErrIendLength);
    CheckCRC(0);
}

void Decoder::ReadAndCheckPLTE(uint32_t length) {
    if (!(chunkFlags & kFlagHeader)) Fail(kErrPlteBeforeIhdr);
    if (chunkFlags & kFlagImageData) Fail(kErrPlteAfterIdat);
    if (chunkFlags & kFlagTransparency) Fail(kErrPlteAfterTrns);
    if (chunkFlags & kFlagPalette) Fail(kErrPlteRepeated);
    chunkFlags |= kFlagPalette;
    if (colourType != 3) {
        // A suggested palette of a truecolour or grey image: verified and ignored.
        CheckCRC(length);
        return;
    }
    if (length > 768 || length % 3 != 0) Fail(kErrPlteLength);
    paletteCount = int16_t(length / 3);
    for (int i = 0; i < paletteCount; ++i)
        memcpy(palette + 3 * i, GetDataUpdateCRC(3), 3);
    CheckCRC(0);
    if ((chunkFlags & kFlagTransparency) && trnsCount > paletteCount)
        Fail(kErrTrnsLongerThanPalette);
}

void Decoder::ReadAndChecktRNS(uint32_t length) {
    if (!(chunkFlags & kFlagHeader)) Fail(kErrTrnsBeforeIhdr);
    if (chunkFlags & kFlagImageData) Fail(kErrTrnsAfterIdat);
    if (chunkFlags & kFlagTransparency) Fail(kErrTrnsRepeated);
    chunkFlags |= kFlagTransparency;
    switch (colourType) {
        case 0:
            if (length != 2) Fail(kErrTrnsGreyLength);
            keyGrey = BigEndian16(GetDataUpdateCRC(2));
            break;
        case 2:
            if (length != 6) Fail(kErrTrnsColourLength);
            for (uint16_t& key : keyColour)
                key = BigEndian16(GetDataUpdateCRC(2));
            break;
        case 3:
            if (!(chunkFlags & kFlagPalette)) Fail(kErrTrnsBeforePlte);
            if (length > uint32_t(paletteCount) || length > 256) Fail(kErrTrnsPaletteLength);
            if (length == 0) Fail(kErrTrnsPaletteEmpty);
            memcpy(paletteAlpha, GetDataUpdateCRC(length), length);
            break;
        default:
            Fail(kErrTrnsWithAlpha);
    }
    trnsCount = colourType == 3 ? int16_t(length) : 1;
    alphaDepth = bitDepth;
    CheckCRC(0);
}

void Decoder::ReadAndCheckbKGD(uint32_t length) {
    if (!(chunkFlags & kFlagHeader)) Fail(kErrBkgdBeforeIhdr);
    // Unreachable, since HandlerFor skips a late background; a second guard on the order rule.
    if (chunkFlags & kFlagImageData) Fail(kErrBkgdAfterIdat);
    if (chunkFlags & kFlagBackground) Fail(kErrBkgdRepeated);
    chunkFlags |= kFlagBackground;
    if (colourType == 3) {
        if (!(chunkFlags & kFlagPalette)) Fail(kErrBkgdBeforePlte);
        if (length != 1) Fail(kErrBkgdPaletteLength);
        unsigned index = *GetDataUpdateCRC(1);
        if (int(index) >= paletteCount) Fail(kErrBkgdIndex);
        for (int k = 0; k < 3; ++k)
            backgroundColour[k] = palette[3 * index + k];
    } else if (colourType & 2) {
        if (length != 6) Fail(kErrBkgdColourLength);
        for (uint16_t& value : backgroundColour)
            value = BigEndian16(GetDataUpdateCRC(2));
    } else {
        if (length != 2) Fail(kErrBkgdGreyLength);
        backgroundGrey = BigEndian16(GetDataUpdateCRC(2));
        for (uint16_t& value : backgroundColour)
            value = backgroundGrey;
    }
    CheckCRC(0);
}

void Decoder::ReadAndCheckUnknown(uint32_t length) {
    if (!(chunkFlags & kFlagHeader)) Fail(kErrChunkBeforeIhdr);
    if (chunkFlags & kFlagEnd) Fail(kErrChunkAfterIend);
    for (unsigned char c : chunkType) {
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'))) Fail(kErrChunkTypeNotLetters);
    }
    if (!(chunkType[0] & 0x20)) Fail(kErrUnknownCriticalChunk);
    CheckCRC(length);
}

// ---- Chunks after the image data ----

void Decoder::CheckValidInputStreamTail() {
    if (!imageDataEnded) {
        // One byte more than the rows needed is surplus data and accepted as it stands.
        unsigned char scratch;
        inflater->nextOut = &scratch;
        inflater->availOut = 1;
        do {
            InflateZstreamFromIDAT();
        } while (!imageDataEnded && inflater->availOut != 0);
        inflater->availOut = 0;
    }
    inflater->Reset();
    CheckCRC(0);
    ReadChunksUntil(kFlagEnd, Phase::kAfterImageData);
}

void Decoder::RefuseImageData(uint32_t) {
    Fail(kErrIdatAfterImageData);
}

// ---- Image data and rows ----

int Decoder::InflateZstreamFromIDAT() {
    if (inflater->availIn == 0) {
        while (idatRemaining == 0) {
            CheckCRC(0);
            idatRemaining = GetChunkLength();
            chunkCRC = 0;
            ReadChunkType();
            if (BigEndian32(chunkType) != kIDAT) Fail(kErrIdatMissing);
        }
        inflater->nextIn = GetDataUpdateCRC(idatRemaining);
        inflater->availIn = idatRemaining;
        idatRemaining = 0;
    }
    int result = inflater->Inflate(zio::FlushPartial);
    if (result == zin::kStreamEnd) {
        imageDataEnded = 1;
    } else if (result != zin::kOk) {
        Fail(kErrInflate);
    }
    return result;
}

// The rows take their bytes from image data inflated ahead of them into one buffer that also
// keeps the 32 KiB before it, so that the inflater serves every match from memory rather than
// from its window. It never inflates more than the rows take, and each request of the rows
// meets the end of a short stream where inflating request by request would: the first request
// that starts after that end fetches the next IDAT chunk, when the current one is used up, as
// that inflating would. Image data that ends early leaves the rest of `out` zero, so that no
// pixel of a short image depends on what its memory held before.
void Decoder::InflateInto(unsigned char* out, uint32_t n) {
    if (rowDataTaken >= rowDataAfterEnd) InflateZstreamFromIDAT();
    rowDataTaken += n;
    while (n > 0 && (inflatedNext < inflatedEnd || InflateAhead())) {
        const uint32_t take = n < inflatedEnd - inflatedNext ? n : inflatedEnd - inflatedNext;
        memcpy(out, inflated + inflatedNext, take);
        out += take;
        n -= take;
        inflatedNext += take;
    }
    if (n != 0) kau::mem::Zero8(out, n);
}

// The next n bytes of image data where the look-ahead buffer holds them all, else copied into
// `copy` by InflateInto, which also meets the end of the image data (nothing is held after it):
// the same bytes, and the same fetches of image data, either way.
const unsigned char* Decoder::InflateRow(unsigned char* copy, uint32_t n) {
    if (inflatedEnd - inflatedNext < n) {
        InflateInto(copy, n);
        return copy;
    }
    rowDataTaken += n;
    inflatedNext += n;
    return inflated + inflatedNext - n;
}

// Fills the look-ahead buffer with the next image data, first moving its last 32 KiB to the
// front once it is full; false when the stream has ended or the rows have all they take.
bool Decoder::InflateAhead() {
    constexpr uint32_t kAhead = 65536;
    if (!inflated) {
        imageDataLeft = ImageDataSize();
        const uint64_t most = uint64_t{zin::kWindowSize} + kAhead;
        inflatedSize = uint32_t(imageDataLeft < most ? imageDataLeft : most);
        inflated = static_cast<unsigned char*>(heap.Allocate(inflatedSize));
        inflater->KeepHistoryInOutput();
    }
    if (imageDataLeft == 0 || imageDataEnded) return false;
    if (inflatedEnd == inflatedSize) {
        memmove(inflated, inflated + inflatedEnd - zin::kWindowSize, zin::kWindowSize);
        inflatedNext = inflatedEnd = zin::kWindowSize;
    }
    const uint32_t room = uint32_t(
        imageDataLeft < inflatedSize - inflatedEnd ? imageDataLeft : inflatedSize - inflatedEnd);
    inflater->nextOut = inflated + inflatedEnd;
    inflater->availOut = room;
    uint32_t madeByLastCall;
    do {
        const uint32_t before = inflater->availOut;
        InflateZstreamFromIDAT();
        madeByLastCall = before - inflater->availOut;
    } while (inflater->availOut != 0 && !imageDataEnded);
    const uint32_t made = room - inflater->availOut;
    inflatedEnd += made;
    imageDataLeft -= made;
    imageDataInflated += made;
    if (imageDataEnded) {
        // Request by request, the end is met by the request that holds the last byte when the
        // call that made that byte also read the end; else by the request after that byte.
        rowDataAfterEnd = imageDataInflated + (madeByLastCall > 0 ? 0 : 1);
    } else if (imageDataLeft == 0) {
        // The stream-tail check inflates past the rows into memory of its own.
        inflater->KeepHistoryInWindow();
    }
    return made > 0;
}

unsigned char* Decoder::DecodeImage() {
    if (!(chunkFlags & kFlagImageData)) Fail(kErrNoImageData);
    unsigned char* output = nullptr;
    const bool decoded = kau::CatchAndReport(kKpngFile, kCatchDecodeImage, false, [&] {
        PrepareRows();
        if (interlaceMethod)
            DecodeInterlacedRows(output);
        else
            DecodeRows(output);
        CheckValidInputStreamTail();
        return true;
    });
    if (decoded) return output;
    if (output != destination) kau::mem::Delete(output);
    return nullptr;
}

// ---- Push-mode input ----

namespace {
// The one "IEND" constant: Input::currentType points at it inside the IEND chunk.
constexpr char kIendType[] = "IEND";
}  // namespace

void Input::Construct() {
    kau::mem::Zero8(this, sizeof(*this));
    MMAttri attributes[2];
    MMAttriFromTag(&attributes[0], mmIdData, MMAttriTagAny);
    MMAttriFromTag(&attributes[1], mmIdPageSize, MMAttriTagU32);
    stream = MMStreamNew(attributes, 2);
    if (stream && !MMStreamReady(stream)) MMStreamDelete(&stream);
}

void Input::Destruct() {
    MMStreamDelete(&stream);
}

bool Input::IsValid(MMStream* stream) {
    if (!stream) return false;
    return kau::CatchAndReport(kKpngFile, kCatchIsValid, false, [&] {
        unsigned char bytes[8];
        if (MMStreamGet(stream, bytes, 8) < 8) Fail(kErrIsValidShortRead);
        if (kau::mem::CompareNonNull(bytes, kpngSignature, 8) != 0) Fail(kErrIsValidSignature);
        return true;
    });
}

int Input::Push(const void* data, unsigned long size) {
    if (!data || !stream) Fail(kErrPushNoInput);
    const uint32_t n = static_cast<uint32_t>(size);
    if (MMStreamPut(stream, data, n) < n) Fail(kErrPushWrite);
    const unsigned char* const begin = static_cast<const unsigned char*>(data);
    const unsigned char* const end = begin + n;
    const unsigned char* p = begin;
    while (p != end) {
        if (signatureCount < 8) {
            TakeSignature(p, end);
        } else if (lengthCount < 4) {
            TakeLength(p, end);
        } else if (typeCount < 4) {
            TakeType(p, end);
        } else if (SkipDataAndCrc(p, end)) {
            pngSize += uint32_t(p - begin);
            return 0;
        }
    }
    pngSize += n;
    return 1;
}

namespace {
// Moves bytes from `p` into `field` until it holds `size` of them; true once it does.
bool Collect(unsigned char* field, int32_t& count, int32_t size, const unsigned char*& p,
             const unsigned char* end) {
    while (count < size && p != end)
        field[count++] = *p++;
    return count == size;
}

uint32_t Smaller(uint32_t a, uint32_t b) {
    return a < b ? a : b;
}
}  // namespace

void Input::TakeSignature(const unsigned char*& p, const unsigned char* end) {
    if (Collect(signature, signatureCount, 8, p, end) &&
        kau::mem::CompareNonNull(signature, kpngSignature, 8) != 0)
        Fail(kErrPushSignature);
}

void Input::TakeLength(const unsigned char*& p, const unsigned char* end) {
    if (Collect(lengthBytes, lengthCount, 4, p, end))
        chunkLength = int32_t(ReadBigEndian31(lengthBytes));
}

// The IEND chunk's length is only checked once its CRC is in: the four bytes after its type
// are taken as the CRC whatever the length says.
void Input::TakeType(const unsigned char*& p, const unsigned char* end) {
    if (!Collect(typeBytes, typeCount, 4, p, end)) return;
    if (memcmp(typeBytes, kIendType, 4) == 0) {
        currentType = kIendType;
    } else {
        currentType = reinterpret_cast<const char*>(typeBytes);
        remaining = chunkLength;
    }
    crcCount = 0;
}

bool Input::SkipDataAndCrc(const unsigned char*& p, const unsigned char* end) {
    const uint32_t data = Smaller(uint32_t(remaining), uint32_t(end - p));
    remaining -= int32_t(data);
    p += data;
    const uint32_t crc = Smaller(uint32_t(4 - crcCount), uint32_t(end - p));
    crcCount += int32_t(crc);
    p += crc;
    if (crcCount < 4) return false;
    if (currentType == kIendType) {
        if (chunkLength != 0) Fail(kErrPushIendLength);
        return true;
    }
    currentType = nullptr;
    typeCount = 0;
    lengthCount = 0;
    return false;
}

bool Input::Complete() const {
    return currentType == kIendType && crcCount == 4;
}

void Input::CheckSize(uint64_t maxBytes) const {
    if (maxBytes && pngSize > maxBytes) Fail(kErrInputOverLimit);
}

void Input::ResetStreamWithDataAfterIEND() {
    unsigned long position = 0;
    if (!stream || !MMStreamTell(stream, &position) || uint32_t(position) < pngSize)
        Fail(kErrResetPosition);
    const uint32_t carried = uint32_t(position) - pngSize;
    if (carried == 0) {
        Destruct();
        Construct();
        return;
    }
    unsigned char* bytes = nullptr;
    kau::CatchAndReport(kKpngFile, kCatchReset, [&] {
        if (!MMStreamSeek(stream, long(pngSize), MMStreamSeekFromBegin)) Fail(kErrResetSeek);
        bytes = static_cast<unsigned char*>(kau::mem::New(carried));
        if (!bytes) Fail(kErrResetAllocate);
        if (MMStreamGet(stream, bytes, carried) < carried) Fail(kErrResetRead);
        Destruct();
        Construct();
        Push(bytes, carried);
    });
    kau::mem::Delete(bytes);
}

// ---- Failures in words ----

namespace {

struct FailureWords {
    int position;
    const char* words;
};

// Positions of kKpngFile, in ascending order. Catch positions are absent: a first report there
// is an exception that carries no place of its own.
constexpr FailureWords kDecoderFailures[] = {
    {kErrSignature, "not a PNG: the signature is wrong"},
    {kErrTopBitSet, "a length or size is larger than PNG allows"},
    {kErrIdatBeforeIhdr, "image data comes before the header"},
    {kErrPaletteMissing, "a palette image has no palette"},
    {kErrNoMemoryInput, "there is no input"},
    {kErrNoStream, "there is no input"},
    {kErrNoImageData, "the PNG has no image data"},
    {kErrOutputAllocate, "the image is too large for memory"},
    {kErrOutputOverLimit, "the image is larger than the limit set for a frame"},
    {kErrInterlacedOutputAllocate, "the image is too large for memory"},
    {kErrIdatMissing, "the image data ends early"},
    {kErrInflate, "the compressed image data is corrupt"},
    {kErrShortStreamGrown, "the PNG ends early"},
    {kErrShortStream, "the PNG ends early"},
    {kErrShortInputMemory, "the PNG ends early"},
    {kErrCrc, "a chunk's CRC does not match its data"},
    {kErrIendOrder, "the end chunk comes before the image data"},
    {kErrIendRepeated, "the end chunk is repeated"},
    {kErrIendLength, "the end chunk is not empty"},
    {kErrIhdrRepeated, "the header is repeated"},
    {kErrIhdrLength, "the header has the wrong length"},
    {kErrSizeZero, "the image has no width or no height"},
    {kErrSizeNegative, "the image size is negative"},
    {kErrWidthTooLarge, "the image is too wide"},
    {kErrBitDepth, "the bit depth is invalid"},
    {kErrColourType, "the colour type is invalid"},
    {kErrDepthForColourType, "the bit depth is invalid for the colour type"},
    {kErrInterlaceMethod, "the interlace method is unknown"},
    {kErrCompressionMethod, "the compression method is unknown"},
    {kErrFilterMethod, "the filter method is unknown"},
    {kErrPlteBeforeIhdr, "the palette comes before the header"},
    {kErrPlteAfterIdat, "the palette comes after the image data"},
    {kErrPlteAfterTrns, "the palette comes after the transparency chunk"},
    {kErrPlteRepeated, "the palette is repeated"},
    {kErrPlteLength, "the palette has an invalid length"},
    {kErrTrnsLongerThanPalette, "the transparency chunk is longer than the palette"},
    {kErrTrnsBeforeIhdr, "the transparency chunk comes before the header"},
    {kErrTrnsAfterIdat, "the transparency chunk comes after the image data"},
    {kErrTrnsRepeated, "the transparency chunk is repeated"},
    {kErrTrnsGreyLength, "the transparency chunk has an invalid length"},
    {kErrTrnsColourLength, "the transparency chunk has an invalid length"},
    {kErrTrnsBeforePlte, "the transparency chunk comes before the palette"},
    {kErrTrnsPaletteLength, "the transparency chunk is longer than the palette"},
    {kErrTrnsPaletteEmpty, "the transparency chunk is empty"},
    {kErrTrnsWithAlpha, "a transparency chunk in an image with an alpha channel"},
    {kErrBkgdBeforeIhdr, "the background chunk comes before the header"},
    {kErrBkgdAfterIdat, "the background chunk comes after the image data"},
    {kErrBkgdRepeated, "the background chunk is repeated"},
    {kErrBkgdBeforePlte, "the background chunk comes before the palette"},
    {kErrBkgdPaletteLength, "the background chunk has an invalid length"},
    {kErrBkgdIndex, "the background colour is not in the palette"},
    {kErrBkgdGreyLength, "the background chunk has an invalid length"},
    {kErrBkgdColourLength, "the background chunk has an invalid length"},
    {kErrChunkBeforeIhdr, "a chunk comes before the header"},
    {kErrChunkAfterIend, "a chunk comes after the end chunk"},
    {kErrChunkTypeNotLetters, "a chunk type is not made of letters"},
    {kErrUnknownCriticalChunk, "an unknown critical chunk"},
    {kErrIdatAfterImageData, "image data continues after its end"},
    {kErrIsValidShortRead, "not a PNG: too short for a signature"},
    {kErrIsValidSignature, "not a PNG: the signature is wrong"},
    {kErrPushNoInput, "there is no input"},
    {kErrPushWrite, "the input could not be stored"},
    {kErrPushSignature, "not a PNG: the signature is wrong"},
    {kErrPushIendLength, "the end chunk is not empty"},
    {kErrResetPosition, "the bytes after the PNG could not be kept"},
    {kErrResetSeek, "the bytes after the PNG could not be kept"},
    {kErrResetAllocate, "the bytes after the PNG could not be kept"},
    {kErrResetRead, "the bytes after the PNG could not be kept"},
    {kErrInputOverLimit, "the PNG is larger than the limit set for a frame"},
};

// Every failure of the foundation's memory services is a shortage of memory but one: a size
// that does not fit in 32 bits.
const char* DescribeFoundationFailure(int position) {
    return position == kau::kErrRoundUpOverflow ? "a size is too large"
                                                : "there is not enough memory";
}

}  // namespace

const char* DescribeFailure(const char* file, int position) {
    if (!file) return "the decoder failed";
    if (kau::mem::Compare(file, kau::kKauFile) == 0) return DescribeFoundationFailure(position);
    if (kau::mem::Compare(file, kKpngFile) == 0) {
        for (const FailureWords& entry : kDecoderFailures) {
            if (entry.position == position) return entry.words;
        }
    }
    return "the decoder failed";
}

}  // namespace kpng
