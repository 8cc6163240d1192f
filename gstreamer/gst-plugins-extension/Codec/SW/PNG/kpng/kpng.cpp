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

uint32_t BigEndian32(const unsigned char* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
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

Decoder::Decoder(const unsigned char* data, unsigned long size, unsigned char alpha) {
    try {
        defaultAlpha = alpha;
        ConstructFromMemory(data, static_cast<uint32_t>(size));
    } catch (...) {
        kau::ReportCurrentException(kKpngFile, kCatchMemoryConstructor);
        heap.HandleExceptionInConstructor();
        Fail(kErrMemoryConstructor);
    }
}

Decoder::Decoder(MMStream* source, unsigned char alpha) {
    try {
        stream = source;
        defaultAlpha = alpha;
        ConstructFromStream();
    } catch (...) {
        kau::ReportCurrentException(kKpngFile, kCatchStreamConstructor);
        heap.HandleExceptionInConstructor();
        Fail(kErrStreamConstructor);
    }
}

Decoder::~Decoder() = default;

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
        unsigned char* grown = static_cast<unsigned char*>(heap.Allocate(n));
        kau::mem::Copy8(grown, readCursor, avail);
        if (MMStreamGet(stream, grown + avail, missing) < missing) Fail(kErrShortStreamGrown);
        readBuffer = grown;
        readCapacity = n;
        readCursor = readEnd = grown + n;
        return grown;
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

// ---- Chunks before the image data ----

void Decoder::Start() {
    alphaDepth = -1;
    inflater = static_cast<zin::Stream*>(heap.AllocateAndZero(sizeof(zin::Stream)));
    inflater->Reset();
    if (kau::mem::CompareNonNull(GetData(8), kpngSignature, 8) != 0) Fail(kErrSignature);
    for (;;) {
        uint32_t length = GetChunkLength();
        chunkCRC = 0;
        ReadChunkType();
        uint32_t type = BigEndian32(chunkType);
        if (type == kIDAT) {
            idatRemaining = length;
            break;
        }
        if (type == kIHDR)
            ReadAndCheckIHDR(length);
        else if (type == kIEND)
            ReadAndCheckIEND(length);
        else if (type == kPLTE)
            ReadAndCheckPLTE(length);
        else if (type == ktRNS)
            ReadAndChecktRNS(length);
        else if (type == kbKGD)
            ReadAndCheckbKGD(length);
        else
            ReadAndCheckUnknown(length);
    }
    if (!(chunkFlags & kFlagHeader)) Fail(kErrIdatBeforeIhdr);
    if (colourType == 3 && !(chunkFlags & kFlagPalette)) Fail(kErrPaletteMissing);
    chunkFlags |= kFlagImageData;
    if (alphaDepth > 8) alphaDepth = 8;
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
    chunkFlags |= kFlagImageDataEnded | kFlagEnd;
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
    if ((chunkFlags & kFlagImageData) && BigEndian32(chunkType) != kIDAT)
        chunkFlags |= kFlagImageDataEnded;
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
        if (inflater->availOut == 0) {
            chunkFlags |= kFlagImageDataEnded;
            imageDataEnded = 1;
        }
        inflater->availOut = 0;
    }
    inflater->Reset();
    chunkFlags |= kFlagImageDataEnded;
    CheckCRC(0);
    while (!(chunkFlags & kFlagEnd)) {
        uint32_t length = GetChunkLength();
        chunkCRC = 0;
        ReadChunkType();
        uint32_t type = BigEndian32(chunkType);
        if (type == kIHDR)
            ReadAndCheckIHDR(length);
        else if (type == kIEND)
            ReadAndCheckIEND(length);
        else if (type == kIDAT)
            Fail(kErrIdatAfterImageData);
        else if (type == kPLTE)
            ReadAndCheckPLTE(length);
        else if (type == ktRNS)
            ReadAndChecktRNS(length);
        else
            ReadAndCheckUnknown(length);
    }
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
        chunkFlags |= kFlagImageDataEnded;
    } else if (result != zin::kOk) {
        Fail(kErrInflate);
    }
    return result;
}

// Image data that ends early leaves the rest of `out` zero, so that no pixel of a short image
// depends on what its memory held before.
void Decoder::InflateInto(unsigned char* out, uint32_t n) {
    inflater->nextOut = out;
    inflater->availOut = n;
    do {
        InflateZstreamFromIDAT();
    } while (inflater->availOut != 0 && !imageDataEnded);
    if (inflater->availOut != 0) kau::mem::Zero8(inflater->nextOut, inflater->availOut);
}

unsigned char* Decoder::DecodeImage() {
    if (!(chunkFlags & kFlagImageData)) Fail(kErrNoImageData);
    unsigned char* output = nullptr;
    try {
        PrepareRows();
        if (interlaceMethod)
            DecodeInterlacedRows(output);
        else
            DecodeRows(output);
        CheckValidInputStreamTail();
        return output;
    } catch (...) {
        kau::ReportCurrentException(kKpngFile, kCatchDecodeImage);
        kau::mem::Delete(output);
        return nullptr;
    }
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
    try {
        unsigned char bytes[8];
        if (MMStreamGet(stream, bytes, 8) < 8) Fail(kErrIsValidShortRead);
        if (kau::mem::CompareNonNull(bytes, kpngSignature, 8) != 0) Fail(kErrIsValidSignature);
        return true;
    } catch (...) {
        kau::ReportCurrentException(kKpngFile, kCatchIsValid);
        return false;
    }
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
            while (signatureCount < 8 && p != end)
                signature[signatureCount++] = *p++;
            if (signatureCount == 8 && kau::mem::CompareNonNull(signature, kpngSignature, 8) != 0)
                Fail(kErrPushSignature);
            continue;
        }
        if (lengthCount < 4) {
            while (lengthCount < 4 && p != end)
                lengthBytes[lengthCount++] = *p++;
            if (lengthCount == 4) chunkLength = int32_t(ReadBigEndian31(lengthBytes));
            continue;
        }
        if (typeCount < 4) {
            while (typeCount < 4 && p != end)
                typeBytes[typeCount++] = *p++;
            if (typeCount < 4) continue;
            if (memcmp(typeBytes, kIendType, 4) == 0) {
                currentType = kIendType;
            } else {
                currentType = reinterpret_cast<const char*>(typeBytes);
                remaining = chunkLength;
            }
            crcCount = 0;
        }
        if (currentType == kIendType) {
            uint32_t pass = uint32_t(4 - crcCount);
            if (uint32_t(end - p) < pass) pass = uint32_t(end - p);
            p += pass;
            crcCount += int32_t(pass);
            if (crcCount == 4) {
                if (chunkLength != 0) Fail(kErrPushIendLength);
                pngSize += uint32_t(p - begin);
                return 0;
            }
        } else if (currentType) {
            const uint32_t left = uint32_t(end - p);
            if (left < uint32_t(remaining)) {
                remaining -= int32_t(left);
                p = end;
            } else {
                const uint32_t crcSeen = uint32_t(crcCount);
                const uint32_t crcHere = left - uint32_t(remaining) + crcSeen;
                const uint32_t dataHere = uint32_t(remaining);
                remaining = 0;
                if (crcHere >= 4) {
                    crcCount = 4;
                    currentType = nullptr;
                    typeCount = 0;
                    lengthCount = 0;
                    p += dataHere + (4 - crcSeen);
                } else {
                    crcCount = int32_t(crcHere);
                    p = end;
                }
            }
        }
    }
    pngSize += n;
    return 1;
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
    try {
        if (!MMStreamSeek(stream, long(pngSize), MMStreamSeekFromBegin)) Fail(kErrResetSeek);
        bytes = static_cast<unsigned char*>(kau::mem::New(carried));
        if (!bytes) Fail(kErrResetAllocate);
        if (MMStreamGet(stream, bytes, carried) < carried) Fail(kErrResetRead);
        Destruct();
        Construct();
        Push(bytes, carried);
    } catch (...) {
        kau::ReportCurrentException(kKpngFile, kCatchReset);
    }
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
