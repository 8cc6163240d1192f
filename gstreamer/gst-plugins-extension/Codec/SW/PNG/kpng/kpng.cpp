#include "kpng.h"

#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#include <tmmintrin.h>
#endif

#include "kauCpu.h"
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

// Adam7: column increment, first column, first row, row increment and the narrowest image
// that has a column in the pass.
struct Pass {
    uint32_t columnIncrement, firstColumn, firstRow, rowIncrement, minimumWidth;
};
constexpr Pass kPasses[7] = {{8, 0, 0, 8, 1}, {8, 4, 0, 8, 5}, {4, 0, 4, 8, 1}, {4, 2, 0, 4, 3},
                             {2, 0, 2, 4, 1}, {2, 1, 0, 2, 2}, {1, 0, 1, 2, 1}};

// Products of image sizes in 32 bits; false when the result would wrap.
bool Multiply32(uint32_t a, uint32_t b, uint32_t& product) {
    uint64_t wide = uint64_t{a} * b;
    product = uint32_t(wide);
    return wide <= UINT32_MAX;
}

uint32_t Pixel(uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
    const unsigned char bytes[4] = {r, g, b, a};
    uint32_t pixel;
    memcpy(&pixel, bytes, 4);
    return pixel;
}

void StorePixel(unsigned char* out, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
    out[0] = r;
    out[1] = g;
    out[2] = b;
    out[3] = a;
}

// Row filters. Each undoes its filter on `row` and leaves a copy of the unfiltered bytes in
// `prior`, which held the previous unfiltered row: the next row's prior row and the input of
// the expansion. The left neighbour of the first pixel is zero, so one loop serves every pixel.
// Rows of Bpp-byte pixels are always a whole number of pixels long.
void UnfilterNone(unsigned char* __restrict row, unsigned char* __restrict prior, uint32_t n) {
    memcpy(prior, row, n);
}

void UnfilterUp(unsigned char* __restrict row, unsigned char* __restrict prior, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i)
        prior[i] = row[i] = uint8_t(row[i] + prior[i]);
}

template <int Bpp>
void UnfilterSub(unsigned char* __restrict row, unsigned char* __restrict prior, uint32_t n) {
    uint8_t left[Bpp] = {};
    for (uint32_t i = 0; i < n; i += Bpp) {
        for (int k = 0; k < Bpp; ++k) {
            left[k] = uint8_t(row[i + k] + left[k]);
            prior[i + k] = row[i + k] = left[k];
        }
    }
}

template <int Bpp>
void UnfilterAverage(unsigned char* __restrict row, unsigned char* __restrict prior, uint32_t n) {
    uint8_t left[Bpp] = {};
    for (uint32_t i = 0; i < n; i += Bpp) {
        for (int k = 0; k < Bpp; ++k) {
            left[k] = uint8_t(row[i + k] + ((unsigned{left[k]} + prior[i + k]) >> 1));
            prior[i + k] = row[i + k] = left[k];
        }
    }
}

// Written without branches: the choice depends on the data and would defeat branch prediction.
inline uint8_t PaethPredictor(int a, int b, int c) {
    const int pa = abs(b - c), pb = abs(a - c), pc = abs(a + b - 2 * c);
    const int nearerOfBAndC = pb <= pc ? b : c;
    return uint8_t(((pa <= pb) & (pa <= pc)) ? a : nearerOfBAndC);
}

// Continues a Paeth row at byte `i` with the left and upper-left bytes of the pixel before it.
template <int Bpp>
void UnfilterPaethBytesFrom(unsigned char* __restrict row, unsigned char* __restrict prior,
                            uint32_t i, uint32_t n, uint8_t* left, uint8_t* upperLeft) {
    for (; i < n; i += Bpp) {
        for (int k = 0; k < Bpp; ++k) {
            uint8_t upper = prior[i + k];
            left[k] = uint8_t(row[i + k] + PaethPredictor(left[k], upper, upperLeft[k]));
            upperLeft[k] = upper;
            prior[i + k] = row[i + k] = left[k];
        }
    }
}

template <int Bpp>
void UnfilterPaethBytes(unsigned char* __restrict row, unsigned char* __restrict prior,
                        uint32_t n) {
    uint8_t left[Bpp] = {};
    uint8_t upperLeft[Bpp] = {};
    UnfilterPaethBytesFrom<Bpp>(row, prior, 0, n, left, upperLeft);
}

// Pixels of 3 to 8 bytes: one pixel per step, all its bytes at once in 16-bit lanes (the
// compiler's generic vectors, SIMD where the target has it). Each step loads 8 bytes and stores
// the pixel's own; the last pixels, where 8 bytes would pass the row's end, go through a copy.
typedef int16_t Lanes __attribute__((vector_size(16)));
typedef uint8_t LaneBytes __attribute__((vector_size(8)));

inline Lanes LoadLanes(const unsigned char* p) {
    LaneBytes bytes;
    memcpy(&bytes, p, 8);
    return __builtin_convertvector(bytes, Lanes);
}

inline Lanes SelectLanes(Lanes mask, Lanes ifSet, Lanes ifClear) {
    return (mask & ifSet) | (~mask & ifClear);
}

// The predictor of a lane depends on where the left byte a falls among thresholds set by the
// upper byte b and the upper-left byte c, so that only a few compares and selects wait for a.
// Lanes where b < c are mirrored (v -> 255 - v, under which the predictor makes the same choice)
// so that b >= c in all of them. Then along a: up to 3c - 2b the predictor is a; below
// (3c - b) / 2 it is c; below b it is b; from b on it is a again.
inline Lanes PaethLanes(Lanes left, Lanes upper, Lanes upperLeft) {
    const Lanes mirror = (upper < upperLeft) & 0xFF;
    const Lanes b = upper ^ mirror, c = upperLeft ^ mirror;
    const Lanes aBelow = c + c + c - b - b + 1;
    const Lanes aAbove = b - 1;
    const Lanes bAbove = (c + c + c - b - 1) >> 1;
    const Lanes a = left ^ mirror;
    const Lanes takeA = (aBelow > a) | (a > aAbove);
    return SelectLanes(takeA, left, SelectLanes(a > bAbove, upper, upperLeft));
}

template <int Bpp>
inline void PaethPixel(unsigned char* x, unsigned char* p, Lanes& left, Lanes& upperLeft) {
    const Lanes upper = LoadLanes(p);
    left = (LoadLanes(x) + PaethLanes(left, upper, upperLeft)) & 0xFF;
    upperLeft = upper;
    for (int k = 0; k < Bpp; ++k)
        x[k] = p[k] = uint8_t(left[k]);
}

template <int Bpp>
void UnfilterPaethLanes(unsigned char* __restrict row, unsigned char* __restrict prior,
                        uint32_t n) {
    Lanes left = {}, upperLeft = {};
    uint32_t i = 0;
    for (; n >= 8 && i <= n - 8; i += Bpp)
        PaethPixel<Bpp>(row + i, prior + i, left, upperLeft);
    for (; i < n; i += Bpp) {
        unsigned char x[8] = {}, p[8] = {};
        memcpy(x, row + i, Bpp);
        memcpy(p, prior + i, Bpp);
        PaethPixel<Bpp>(x, p, left, upperLeft);
        memcpy(row + i, x, Bpp);
        memcpy(prior + i, p, Bpp);
    }
}

// The lanes pay off only where the target has SIMD registers for them.
#if defined(__SSE2__) || defined(__ARM_NEON)
constexpr bool kSimdLanes = true;
#else
constexpr bool kSimdLanes = false;
#endif

#if defined(__SSE2__)
// SSE2 is part of every x86-64 processor.
inline __m128i PaethSse2(__m128i a, __m128i b, __m128i c) {
    return __m128i(PaethLanes(Lanes(a), Lanes(b), Lanes(c)));
}

// Four pixels of 3 or 4 bytes per step: the raw and prior bytes of the step come in one load
// each, the pixels are unfiltered one after the other in registers, and exactly the step's
// bytes are stored, so that no later load overlaps an earlier store. Loads need 16 bytes, so
// the last pixels of a row go through the byte loop.
template <int Bpp>
void UnfilterPaethSse2(unsigned char* __restrict row, unsigned char* __restrict prior, uint32_t n) {
    static_assert(Bpp == 3 || Bpp == 4, "four pixels fill at most 16 bytes");
    const __m128i zero = _mm_setzero_si128(), low = _mm_set1_epi16(0xFF);
    __m128i a = zero, c = zero;
    uint32_t i = 0;
    for (; n >= 16 && i <= n - 16; i += 4 * Bpp) {
        __m128i raw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + i));
        __m128i up = _mm_loadu_si128(reinterpret_cast<const __m128i*>(prior + i));
        uint32_t pixels[4];
        for (int k = 0; k < 4; ++k) {
            const __m128i b = _mm_unpacklo_epi8(up, zero);
            a = _mm_and_si128(_mm_add_epi16(_mm_unpacklo_epi8(raw, zero), PaethSse2(a, b, c)), low);
            c = b;
            pixels[k] = uint32_t(_mm_cvtsi128_si32(_mm_packus_epi16(a, a)));
            raw = _mm_srli_si128(raw, Bpp);
            up = _mm_srli_si128(up, Bpp);
        }
        unsigned char bytes[16];
        if constexpr (Bpp == 4) {
            memcpy(bytes, pixels, 16);
        } else {
            for (int k = 0; k < 4; ++k)
                memcpy(bytes + 3 * k, &pixels[k], 3);
        }
        memcpy(row + i, bytes, 4 * Bpp);
        memcpy(prior + i, bytes, 4 * Bpp);
    }
    uint8_t left[Bpp], upperLeft[Bpp];
    for (int k = 0; k < Bpp; ++k) {
        left[k] = uint8_t(_mm_extract_epi16(a, 0));
        upperLeft[k] = uint8_t(_mm_extract_epi16(c, 0));
        a = _mm_srli_si128(a, 2);
        c = _mm_srli_si128(c, 2);
    }
    UnfilterPaethBytesFrom<Bpp>(row, prior, i, n, left, upperLeft);
}
#endif

template <int Bpp>
void UnfilterPaeth(unsigned char* __restrict row, unsigned char* __restrict prior, uint32_t n) {
    if (!kau::cpu::VectorPathsEnabled()) return UnfilterPaethBytes<Bpp>(row, prior, n);
#if defined(__SSE2__)
    if constexpr (Bpp == 3 || Bpp == 4) return UnfilterPaethSse2<Bpp>(row, prior, n);
#endif
    if constexpr (Bpp >= 3 && kSimdLanes)
        UnfilterPaethLanes<Bpp>(row, prior, n);
    else
        UnfilterPaethBytes<Bpp>(row, prior, n);
}

using UnfilterFunction = void (*)(unsigned char* __restrict, unsigned char* __restrict, uint32_t);

template <int Bpp>
UnfilterFunction PixelFilter(unsigned filterType) {
    switch (filterType) {
        case 1:
            return UnfilterSub<Bpp>;
        case 3:
            return UnfilterAverage<Bpp>;
        default:
            return UnfilterPaeth<Bpp>;
    }
}

// Expansion loops: `in` holds the unfiltered row, `out` receives n pixels R, G, B, A.
// Packed samples of 1, 2 or 4 bits (most significant first) through a table of their pixels.
void ExpandPacked(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                  unsigned depth, const uint32_t* table) {
    const unsigned perByte = 8 / depth;
    const unsigned mask = (1u << depth) - 1;
    for (uint32_t i = 0; i < n; i += perByte) {
        unsigned byte = in[i / perByte];
        uint32_t count = n - i < perByte ? n - i : perByte;
        for (uint32_t j = 0; j < count; ++j) {
            unsigned shift = 8 - depth * (j + 1);
            memcpy(out + 4 * (i + j), &table[(byte >> shift) & mask], 4);
        }
    }
}

void ExpandBytes(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                 const uint32_t* table) {
    for (uint32_t i = 0; i < n; ++i)
        memcpy(out + 4 * i, &table[in[i]], 4);
}

void ExpandGrey16(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                  bool keyed, uint16_t key) {
    for (uint32_t i = 0; i < n; ++i) {
        uint8_t grey = in[2 * i];
        bool transparent = keyed && BigEndian16(in + 2 * i) == key;
        StorePixel(out + 4 * i, grey, grey, grey, transparent ? 0 : 255);
    }
}

// Each pixel but the last as one 4-byte load whose fourth byte is replaced by the alpha.
void ExpandRgb8Portable(const unsigned char* __restrict in, unsigned char* __restrict out,
                        uint32_t n) {
    const uint32_t colour = Pixel(255, 255, 255, 0), alpha = Pixel(0, 0, 0, 255);
    for (uint32_t i = 0; i + 1 < n; ++i) {
        uint32_t pixel;
        memcpy(&pixel, in + 3 * i, 4);
        pixel = (pixel & colour) | alpha;
        memcpy(out + 4 * i, &pixel, 4);
    }
    StorePixel(out + 4 * (n - 1), in[3 * n - 3], in[3 * n - 2], in[3 * n - 1], 255);
}

#if defined(__SSE2__)
// Four pixels per byte shuffle, for processors with SSSE3 (checked at run time); loads need
// 16 bytes, so the last pixels go through the portable loop.
__attribute__((target("ssse3"))) void ExpandRgb8Ssse3(const unsigned char* __restrict in,
                                                      unsigned char* __restrict out, uint32_t n) {
    const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m128i alpha = _mm_set1_epi32(int(Pixel(0, 0, 0, 255)));
    uint32_t i = 0;
    for (; n >= 6 && i <= n - 6; i += 4) {
        const __m128i rgb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 3 * i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * i),
                         _mm_or_si128(_mm_shuffle_epi8(rgb, spread), alpha));
    }
    if (i < n) ExpandRgb8Portable(in + 3 * i, out + 4 * i, n - i);
}
#endif

void ExpandRgb8(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n) {
#if defined(__SSE2__)
    if (kau::cpu::Available().ssse3) return ExpandRgb8Ssse3(in, out, n);
#endif
    ExpandRgb8Portable(in, out, n);
}

void ExpandRgb8Keyed(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                     const uint16_t* key) {
    for (uint32_t i = 0; i < n; ++i) {
        uint8_t r = in[3 * i], g = in[3 * i + 1], b = in[3 * i + 2];
        bool transparent = r == key[0] && g == key[1] && b == key[2];
        StorePixel(out + 4 * i, r, g, b, transparent ? 0 : 255);
    }
}

void ExpandRgb16(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                 bool keyed, const uint16_t* key) {
    for (uint32_t i = 0; i < n; ++i) {
        const unsigned char* p = in + 6 * i;
        bool transparent = keyed && BigEndian16(p) == key[0] && BigEndian16(p + 2) == key[1] &&
                           BigEndian16(p + 4) == key[2];
        StorePixel(out + 4 * i, p[0], p[2], p[4], transparent ? 0 : 255);
    }
}

void ExpandGreyAlpha8(const unsigned char* __restrict in, unsigned char* __restrict out,
                      uint32_t n) {
    for (uint32_t i = 0; i < n; ++i)
        StorePixel(out + 4 * i, in[2 * i], in[2 * i], in[2 * i], in[2 * i + 1]);
}

void ExpandGreyAlpha16(const unsigned char* __restrict in, unsigned char* __restrict out,
                       uint32_t n) {
    for (uint32_t i = 0; i < n; ++i)
        StorePixel(out + 4 * i, in[4 * i], in[4 * i], in[4 * i], in[4 * i + 2]);
}

void ExpandRgba16(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i)
        StorePixel(out + 4 * i, in[8 * i], in[8 * i + 2], in[8 * i + 4], in[8 * i + 6]);
}

}  // namespace

void UseVectorRowPaths(bool enabled) {
    kau::cpu::UseVectorPaths(enabled);
}

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
    CheckOptions(options);
}

Decoder::Decoder(MMStream* source, unsigned char alpha, const DecodeOptions& options)
    : Decoder(source, alpha) {
    CheckOptions(options);
}

// Construction stops before the image data, and no pixel or row memory has been taken yet.
void Decoder::CheckOptions(const DecodeOptions& options) const {
    const uint64_t outputBytes = uint64_t{width} * 4 * height;
    if (options.maxOutputBytes && outputBytes > options.maxOutputBytes) Fail(kErrOutputOverLimit);
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

// Bytes of image data the rows take, filter bytes included.
uint64_t Decoder::ImageDataSize() {
    const uint32_t pixels = pixelsPerRow;
    uint64_t size = 0;
    if (!interlaceMethod) {
        SetRowGeometry(width);
        size = uint64_t{height} * (uint64_t{bytesPerRow} + 1);
    } else {
        for (const Pass& pass : kPasses) {
            if (width < pass.minimumWidth || height <= pass.firstRow) continue;
            SetRowGeometry((width - 1 + pass.columnIncrement - pass.firstColumn) /
                           pass.columnIncrement);
            const uint32_t rows = (height - 1 - pass.firstRow) / pass.rowIncrement + 1;
            size += uint64_t{rows} * (uint64_t{bytesPerRow} + 1);
        }
    }
    SetRowGeometry(pixels);
    return size;
}

void Decoder::SetRowGeometry(uint32_t pixels) {
    pixelsPerRow = pixels;
    bytesPerRow = bitsPerPixel < 8 ? (pixels * bitsPerPixel + 7) / 8 : bitsPerPixel / 8 * pixels;
    wordsPerRow = (bytesPerRow + 3) / 4;
}

unsigned char* Decoder::DecodeImage() {
    if (!(chunkFlags & kFlagImageData)) Fail(kErrNoImageData);
    unsigned char* output = nullptr;
    const bool decoded = kau::CatchAndReport(kKpngFile, kCatchDecodeImage, false, [&] {
        PreparePixelTable();
        if (interlaceMethod)
            DecodeInterlacedRows(output);
        else
            DecodeRows(output);
        CheckValidInputStreamTail();
        return true;
    });
    if (decoded) return output;
    kau::mem::Delete(output);
    return nullptr;
}

void Decoder::DecodeRows(unsigned char*& output) {
    SetRowGeometry(width);
    const uint32_t stride = width * 4;
    uint32_t size;
    if (!Multiply32(height, stride, size)) Fail(kErrOutputAllocate);
    // 16-bit RGB and RGBA rows are longer filtered than expanded: the last one needs room.
    if (bytesPerRow > stride) {
        if (bytesPerRow - stride > UINT32_MAX - size) Fail(kErrOutputAllocate);
        size += bytesPerRow - stride;
    }
    output = static_cast<unsigned char*>(kau::mem::New(size));
    if (!output) Fail(kErrOutputAllocate);
    previousRow = static_cast<unsigned char*>(heap.AllocateAndZero(bytesPerRow));
    for (uint32_t y = 0; y < height; ++y) {
        currentRow = output + size_t{y} * stride;
        ReadRow();
    }
}

void Decoder::DecodeInterlacedRows(unsigned char*& output) {
    const uint32_t stride = width * 4;
    uint32_t size;
    if (!Multiply32(height, stride, size)) Fail(kErrInterlacedOutputAllocate);
    output = static_cast<unsigned char*>(kau::mem::New(size));
    if (!output) Fail(kErrInterlacedOutputAllocate);
    const uint32_t roundedWidth = kau::RoundUp(width, 8);
    const uint32_t priorBytes =
        bitsPerPixel >= 8 ? bitsPerPixel / 8 * roundedWidth : bitsPerPixel * roundedWidth / 8;
    previousRow = static_cast<unsigned char*>(heap.AllocateAndZero(priorBytes));
    const uint32_t rowBytes = (bitsPerPixel > 32 ? bitsPerPixel : 32) / 8 * roundedWidth;
    currentRow = static_cast<unsigned char*>(heap.AllocateAndZero(rowBytes));
    for (int p = 0; p < 7; ++p) {
        const Pass& pass = kPasses[p];
        SetRowGeometry((width - 1 + pass.columnIncrement - pass.firstColumn) /
                       pass.columnIncrement);
        if (width >= pass.minimumWidth) {
            for (uint32_t y = pass.firstRow; y < height; y += pass.rowIncrement) {
                unsigned char* outputRow = output + size_t{y} * stride;
                if (p == 6) {
                    ReadRow();
                    kau::mem::Copy8(outputRow, currentRow, stride);
                } else {
                    ReadRowInterlaced(outputRow, p);
                }
            }
        }
        // The first row of the next pass is unfiltered against zeros.
        kau::mem::Zero32(previousRow, wordsPerRow);
    }
}

void Decoder::ReadRowInterlaced(unsigned char* outputRow, int pass) {
    ReadRow();
    const uint32_t increment = kPasses[pass].columnIncrement;
    const unsigned char* source = currentRow;
    for (uint32_t x = kPasses[pass].firstColumn; x < width; x += increment, source += 4)
        memcpy(outputRow + size_t{x} * 4, source, 4);
}

void Decoder::ReadRow() {
    unsigned char filterType = 0;
    InflateInto(&filterType, 1);
    InflateInto(currentRow, bytesPerRow);
    Unfilter(filterType);
    if (colourType == 3)
        ExpandRowWithPalette(currentRow);
    else
        ExpandRow(currentRow);
}

// Undoes the row filter in place and leaves the unfiltered row in previousRow too. Filter types
// 5 to 255 are taken as None.
void Decoder::Unfilter(unsigned filterType) {
    UnfilterFunction unfilter = UnfilterNone;
    if (filterType == 2) {
        unfilter = UnfilterUp;
    } else if (filterType == 1 || filterType == 3 || filterType == 4) {
        switch (bytesPerPixel) {
            case 1:
                unfilter = PixelFilter<1>(filterType);
                break;
            case 2:
                unfilter = PixelFilter<2>(filterType);
                break;
            case 3:
                unfilter = PixelFilter<3>(filterType);
                break;
            case 4:
                unfilter = PixelFilter<4>(filterType);
                break;
            case 6:
                unfilter = PixelFilter<6>(filterType);
                break;
            default:
                unfilter = PixelFilter<8>(filterType);
                break;
        }
    }
    unfilter(currentRow, previousRow, bytesPerRow);
}

// The pixels of palette indices and of grey samples up to 8 bits. Palette entries beyond the
// PLTE count are black; a grey sample is transparent when it equals the key scaled the same way,
// kept to 16 bits, so that a key beyond the depth's range never matches.
void Decoder::PreparePixelTable() {
    if (colourType == 3) {
        for (unsigned i = 0; i < 256; ++i) {
            uint8_t alpha = int(i) < trnsCount ? paletteAlpha[i] : defaultAlpha;
            pixelTable[i] = Pixel(palette[3 * i], palette[3 * i + 1], palette[3 * i + 2], alpha);
        }
    } else if (colourType == 0 && bitDepth <= 8) {
        const unsigned scale = 255 / ((1u << bitDepth) - 1);
        const uint16_t scaledKey = uint16_t(keyGrey * scale);
        for (unsigned v = 0; v < (1u << bitDepth); ++v) {
            uint8_t grey = uint8_t(v * scale);
            bool transparent = trnsCount != 0 && scaledKey == grey;
            pixelTable[v] = Pixel(grey, grey, grey, transparent ? 0 : 255);
        }
    }
}

// The expansions read the unfiltered row from previousRow, which holds a copy of it, so that
// they write the row's pixels front to back without overwriting unread input.
void Decoder::ExpandRowWithPalette(unsigned char* row) {
    if (bitDepth == 8)
        ExpandBytes(previousRow, row, pixelsPerRow, pixelTable);
    else
        ExpandPacked(previousRow, row, pixelsPerRow, bitDepth, pixelTable);
}

void Decoder::ExpandRow(unsigned char* row) {
    const unsigned char* in = previousRow;
    const uint32_t n = pixelsPerRow;
    const bool keyed = trnsCount != 0;
    switch (colourType * 32 + bitDepth) {
        case 0 * 32 + 1:
        case 0 * 32 + 2:
        case 0 * 32 + 4:
            ExpandPacked(in, row, n, bitDepth, pixelTable);
            break;
        case 0 * 32 + 8:
            ExpandBytes(in, row, n, pixelTable);
            break;
        case 0 * 32 + 16:
            ExpandGrey16(in, row, n, keyed, keyGrey);
            break;
        case 2 * 32 + 8:
            if (keyed)
                ExpandRgb8Keyed(in, row, n, keyColour);
            else
                ExpandRgb8(in, row, n);
            break;
        case 2 * 32 + 16:
            ExpandRgb16(in, row, n, keyed, keyColour);
            break;
        case 4 * 32 + 8:
            ExpandGreyAlpha8(in, row, n);
            break;
        case 4 * 32 + 16:
            ExpandGreyAlpha16(in, row, n);
            break;
        case 6 * 32 + 16:
            ExpandRgba16(in, row, n);
            break;
        default:
            // 8-bit RGBA is already in the output format.
            break;
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
