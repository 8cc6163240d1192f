// Row routines for x86 processors: SSE2, part of every x86-64 processor, and SSSE3 where the
// processor has it.
#include "rowRoutines.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#include <tmmintrin.h>

namespace kpng {
namespace {

// Pixels of 3 to 8 bytes: one pixel per step, all its bytes at once in 16-bit lanes. Each step
// loads 8 bytes and stores the pixel's own; the last pixels, where 8 bytes would pass the row's
// end, go through a copy.
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

// The sum of lanes 0 to 255, wrapped to a byte: added in byte lanes, which needs no mask on the
// pixel chain, the high bytes staying zero.
inline Lanes AddWrapped(Lanes x, Lanes y) {
    return Lanes(_mm_add_epi8(__m128i(x), __m128i(y)));
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
inline void PaethPixel(const unsigned char* raw, const unsigned char* prior, unsigned char* row,
                       Lanes& left, Lanes& upperLeft) {
    const Lanes upper = LoadLanes(prior);
    left = AddWrapped(LoadLanes(raw), PaethLanes(left, upper, upperLeft));
    upperLeft = upper;
    for (int k = 0; k < Bpp; ++k)
        row[k] = uint8_t(left[k]);
}

template <int Bpp>
void UnfilterPaethLanes(const unsigned char* __restrict raw, const unsigned char* __restrict prior,
                        unsigned char* __restrict row, uint32_t n) {
    Lanes left = {}, upperLeft = {};
    uint32_t i = 0;
    for (; n >= 8 && i <= n - 8; i += Bpp)
        PaethPixel<Bpp>(raw + i, prior + i, row + i, left, upperLeft);
    for (; i < n; i += Bpp) {
        unsigned char r[8] = {}, p[8] = {};
        memcpy(r, raw + i, Bpp);
        memcpy(p, prior + i, Bpp);
        PaethPixel<Bpp>(r, p, row + i, left, upperLeft);
    }
}

// Four pixels of 3 or 4 bytes per step: the raw and prior bytes of the step come in one load
// each, the pixels are unfiltered one after the other in registers, and exactly the step's
// bytes are stored. Loads need 16 bytes, so the last pixels of a row go through the byte loop.
// Inlined into each caller, so that each compiles it for the instructions it is built for.
template <int Bpp>
[[gnu::always_inline]] inline void UnfilterPaethFourPixels(const unsigned char* __restrict raw,
                                                           const unsigned char* __restrict prior,
                                                           unsigned char* __restrict row,
                                                           uint32_t n) {
    static_assert(Bpp == 3 || Bpp == 4, "four pixels fill at most 16 bytes");
    const __m128i zero = _mm_setzero_si128();
    Lanes a = {}, c = {};
    uint32_t i = 0;
    for (; n >= 16 && i <= n - 16; i += 4 * Bpp) {
        __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(raw + i));
        __m128i up = _mm_loadu_si128(reinterpret_cast<const __m128i*>(prior + i));
        uint32_t pixels[4];
        for (int k = 0; k < 4; ++k) {
            const Lanes b = Lanes(_mm_unpacklo_epi8(up, zero));
            a = AddWrapped(Lanes(_mm_unpacklo_epi8(x, zero)), PaethLanes(a, b, c));
            c = b;
            pixels[k] = uint32_t(_mm_cvtsi128_si32(_mm_packus_epi16(__m128i(a), __m128i(a))));
            x = _mm_srli_si128(x, Bpp);
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
    }
    if (i == 0) return UnfilterPaeth<Bpp>(raw, prior, row, n);
    UnfilterPaethFrom<Bpp>(raw, prior, row, i, n);
}

template <int Bpp>
void UnfilterPaethSse2(const unsigned char* __restrict raw, const unsigned char* __restrict prior,
                       unsigned char* __restrict row, uint32_t n) {
    UnfilterPaethFourPixels<Bpp>(raw, prior, row, n);
}

// For processors with SSE4.1, whose byte blend makes each choice of the chain one instruction
// where SSE2 takes three (a third less time a pixel).
template <int Bpp>
__attribute__((target("sse4.1"))) void UnfilterPaethSse41(const unsigned char* __restrict raw,
                                                          const unsigned char* __restrict prior,
                                                          unsigned char* __restrict row,
                                                          uint32_t n) {
    UnfilterPaethFourPixels<Bpp>(raw, prior, row, n);
}

// Pixels of 1 or 2 bytes: each byte's predictor needs the byte just unfiltered, so each byte
// of the pixel is one chain from the row's start to its end. The thresholds of PaethLanes, taken
// back from the mirrored lanes to the left byte a itself, leave on that chain only a range check
// of a and the selections it drives: a lies in [low, low + width) exactly when the predictor is b
// or c, and from toFirst on that predictor is `first`, below it `second`. The thresholds and the
// sums of the raw byte with b and with c are computed 16 bytes at a time in lanes, ahead of the
// chain.
struct PaethSteps {
    alignas(16) int16_t low[16], width[16], toFirst[16], first[16], second[16];
};

// Lanes k to k + 7 of the steps.
inline void SetPaethSteps(Lanes raw, Lanes upper, Lanes upperLeft, int k, PaethSteps& steps) {
    const Lanes mirror = upper < upperLeft;
    const Lanes b = upper ^ (mirror & 0xFF), c = upperLeft ^ (mirror & 0xFF);
    const Lanes aBelow = c + c + c - b - b + 1, bAbove = (c + c + c - b - 1) >> 1;
    // From aBelow to b - 1; empty, and below zero, when b equals c.
    const Lanes width = b + b + b - c - c - c - 1;
    const Lanes low = SelectLanes(mirror, 256 - b, aBelow);
    const Lanes toFirst = SelectLanes(mirror, 255 - bAbove, bAbove + 1);
    const Lanes first = (raw + SelectLanes(mirror, upperLeft, upper)) & 0xFF;
    const Lanes second = (raw + SelectLanes(mirror, upper, upperLeft)) & 0xFF;
    const Lanes clampedWidth = width & (width > 0);
    memcpy(steps.low + k, &low, 16);
    memcpy(steps.width + k, &clampedWidth, 16);
    memcpy(steps.toFirst + k, &toFirst, 16);
    memcpy(steps.first + k, &first, 16);
    memcpy(steps.second + k, &second, 16);
}

// Conditional moves for the chain, whose conditions depend on the pixels: as branches they would
// be mispredicted often, and the compiler makes branches of them.
inline int SelectIfAtLeast(int x, int limit, int ifAtLeast, int otherwise) {
    __asm__("cmpl %[limit], %[x]\n\tcmovgel %[ifAtLeast], %[result]"
            : [result] "+r"(otherwise)
            : [x] "r"(x), [limit] "rm"(limit), [ifAtLeast] "rm"(ifAtLeast)
            : "cc");
    return otherwise;
}

inline int SelectIfBelow(unsigned x, unsigned limit, int ifBelow, int otherwise) {
    __asm__("cmpl %[limit], %[x]\n\tcmovbl %[ifBelow], %[result]"
            : [result] "+r"(otherwise)
            : [x] "r"(x), [limit] "rm"(limit), [ifBelow] "rm"(ifBelow)
            : "cc");
    return otherwise;
}

// Unfilters the first `count` of the 16 bytes at `raw` into `row`; all 16 raw and prior bytes
// are readable. `left` holds the bytes of the pixel before them, `upperLeft` the upper bytes of
// that pixel, packed from the first; both are left for the next bytes.
template <int Bpp>
inline void UnfilterPaethSmallBlock(const unsigned char* __restrict raw,
                                    const unsigned char* __restrict prior,
                                    unsigned char* __restrict row, int count, int* left,
                                    int& upperLeft) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(raw));
    const __m128i up = _mm_loadu_si128(reinterpret_cast<const __m128i*>(prior));
    const __m128i upLeft = _mm_or_si128(_mm_slli_si128(up, Bpp), _mm_cvtsi32_si128(upperLeft));
    PaethSteps steps;
    SetPaethSteps(Lanes(_mm_unpacklo_epi8(x, zero)), Lanes(_mm_unpacklo_epi8(up, zero)),
                  Lanes(_mm_unpacklo_epi8(upLeft, zero)), 0, steps);
    SetPaethSteps(Lanes(_mm_unpackhi_epi8(x, zero)), Lanes(_mm_unpackhi_epi8(up, zero)),
                  Lanes(_mm_unpackhi_epi8(upLeft, zero)), 8, steps);
    // The steps stay in memory: one load each on the chain's side is cheaper than the lane
    // extractions the compiler would make of them.
    __asm__("" : : "r"(&steps) : "memory");
    upperLeft = 0;
    memcpy(&upperLeft, prior + count - Bpp, Bpp);
    // Unrolled, so that the left bytes stay in registers.
#pragma GCC unroll 16
    for (int j = 0; j < count; j += Bpp) {
#pragma GCC unroll 2
        for (int k = 0; k < Bpp; ++k) {
            const int a = left[k], s = j + k;
            const int ownSum = uint8_t(raw[s] + a);
            const int otherSum =
                SelectIfAtLeast(a, steps.toFirst[s], steps.first[s], steps.second[s]);
            left[k] = SelectIfBelow(unsigned(a - steps.low[s]), unsigned(steps.width[s]), otherSum,
                                    ownSum);
            row[s] = uint8_t(left[k]);
        }
    }
}

template <int Bpp>
void UnfilterPaethSmall(const unsigned char* __restrict raw, const unsigned char* __restrict prior,
                        unsigned char* __restrict row, uint32_t n) {
    static_assert(Bpp == 1 || Bpp == 2, "the upper-left pixel is carried in one register");
    int left[Bpp] = {}, upperLeft = 0;
    uint32_t i = 0;
    for (; n >= 16 && i <= n - 16; i += 16)
        UnfilterPaethSmallBlock<Bpp>(raw + i, prior + i, row + i, 16, left, upperLeft);
    if (i == n) return;
    unsigned char r[16] = {}, p[16] = {}, x[16];
    memcpy(r, raw + i, n - i);
    memcpy(p, prior + i, n - i);
    UnfilterPaethSmallBlock<Bpp>(r, p, x, int(n - i), left, upperLeft);
    memcpy(row + i, x, n - i);
}

// Each pixel but the last as one 4-byte load whose fourth byte is replaced by the alpha.
void ExpandRgb8Tail(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        memcpy(out + 4 * i, in + 3 * i, 3);
        out[4 * i + 3] = 255;
    }
}

// Four pixels per byte shuffle; loads need 16 bytes, so the last pixels go through the plain
// loop.
__attribute__((target("ssse3"))) void ExpandRgb8Ssse3(const unsigned char* __restrict in,
                                                      unsigned char* __restrict out, uint32_t n,
                                                      const PixelKeys&) {
    const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m128i alpha = _mm_set1_epi32(int(0xFF000000u));
    uint32_t i = 0;
    for (; n >= 6 && i <= n - 6; i += 4) {
        const __m128i rgb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 3 * i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * i),
                         _mm_or_si128(_mm_shuffle_epi8(rgb, spread), alpha));
    }
    ExpandRgb8Tail(in + 3 * i, out + 4 * i, n - i);
}

// 8-bit grey without a transparent key, whose table is the grey ramp: each pixel is its sample
// three times and an opaque alpha, sixteen pixels per load. The last pixels go through the table.
void ExpandGrey8Sse2(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                     const PixelKeys& keys) {
    const __m128i alpha = _mm_set1_epi32(int(0xFF000000u));
    uint32_t i = 0;
    for (; n >= 16 && i <= n - 16; i += 16) {
        const __m128i grey = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        const __m128i pairs[2] = {_mm_unpacklo_epi8(grey, grey), _mm_unpackhi_epi8(grey, grey)};
        __m128i* pixels = reinterpret_cast<__m128i*>(out + 4 * i);
        for (int k = 0; k < 2; ++k) {
            _mm_storeu_si128(pixels + 2 * k,
                             _mm_or_si128(_mm_unpacklo_epi16(pairs[k], pairs[k]), alpha));
            _mm_storeu_si128(pixels + 2 * k + 1,
                             _mm_or_si128(_mm_unpackhi_epi16(pairs[k], pairs[k]), alpha));
        }
    }
    for (; i < n; ++i)
        memcpy(out + 4 * i, &keys.table[in[i]], 4);
}

}  // namespace

void UseSseRowRoutines(RowRoutines& r, const RowFormat& format, const kau::cpu::Features& cpu) {
    ForBytesPerPixel(format.bytesPerPixel, [&](auto bpp) {
        if constexpr (bpp <= 2)
            r.unfilter[kFilterPaeth] = UnfilterPaethSmall<bpp>;
        else if constexpr (bpp == 3 || bpp == 4)
            r.unfilter[kFilterPaeth] = cpu.sse41 ? UnfilterPaethSse41<bpp> : UnfilterPaethSse2<bpp>;
        else if constexpr (bpp >= 6)
            r.unfilter[kFilterPaeth] = UnfilterPaethLanes<bpp>;
    });
    if (cpu.ssse3 && format.colourType == 2 && format.bitDepth == 8 && !format.keyed)
        r.expand = ExpandRgb8Ssse3;
    if (format.colourType == 0 && format.bitDepth == 8 && !format.keyed) r.expand = ExpandGrey8Sse2;
}

}  // namespace kpng
#endif
