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
    left = (LoadLanes(raw) + PaethLanes(left, upper, upperLeft)) & 0xFF;
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

inline __m128i PaethSse2(__m128i a, __m128i b, __m128i c) {
    return __m128i(PaethLanes(Lanes(a), Lanes(b), Lanes(c)));
}

// Four pixels of 3 or 4 bytes per step: the raw and prior bytes of the step come in one load
// each, the pixels are unfiltered one after the other in registers, and exactly the step's
// bytes are stored. Loads need 16 bytes, so the last pixels of a row go through the byte loop.
template <int Bpp>
void UnfilterPaethSse2(const unsigned char* __restrict raw, const unsigned char* __restrict prior,
                       unsigned char* __restrict row, uint32_t n) {
    static_assert(Bpp == 3 || Bpp == 4, "four pixels fill at most 16 bytes");
    const __m128i zero = _mm_setzero_si128(), low = _mm_set1_epi16(0xFF);
    __m128i a = zero, c = zero;
    uint32_t i = 0;
    for (; n >= 16 && i <= n - 16; i += 4 * Bpp) {
        __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(raw + i));
        __m128i up = _mm_loadu_si128(reinterpret_cast<const __m128i*>(prior + i));
        uint32_t pixels[4];
        for (int k = 0; k < 4; ++k) {
            const __m128i b = _mm_unpacklo_epi8(up, zero);
            a = _mm_and_si128(_mm_add_epi16(_mm_unpacklo_epi8(x, zero), PaethSse2(a, b, c)), low);
            c = b;
            pixels[k] = uint32_t(_mm_cvtsi128_si32(_mm_packus_epi16(a, a)));
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
    uint8_t left[Bpp], upperLeft[Bpp];
    for (int k = 0; k < Bpp; ++k) {
        left[k] = uint8_t(_mm_extract_epi16(a, 0));
        upperLeft[k] = uint8_t(_mm_extract_epi16(c, 0));
        a = _mm_srli_si128(a, 2);
        c = _mm_srli_si128(c, 2);
    }
    UnfilterPaethFrom<Bpp>(raw, prior, row, i, n, left, upperLeft);
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

}  // namespace

void UseSseRowRoutines(RowRoutines& r, const RowFormat& format, bool ssse3) {
    ForBytesPerPixel(format.bytesPerPixel, [&](auto bpp) {
        if constexpr (bpp == 3 || bpp == 4)
            r.unfilter[kFilterPaeth] = UnfilterPaethSse2<bpp>;
        else if constexpr (bpp >= 6)
            r.unfilter[kFilterPaeth] = UnfilterPaethLanes<bpp>;
    });
    if (ssse3 && format.colourType == 2 && format.bitDepth == 8 && !format.keyed)
        r.expand = ExpandRgb8Ssse3;
}

}  // namespace kpng
#endif
