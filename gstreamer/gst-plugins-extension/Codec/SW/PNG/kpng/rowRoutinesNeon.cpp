// Row routines for ARM processors with NEON. On 32-bit ARM each function carries NEON as its own
// target, so that a build for the baseline without NEON holds them and runs them only where the
// processor has NEON; on 64-bit ARM NEON is always there.
#include "rowRoutines.h"

#if defined(__arm__) || defined(__aarch64__)
#include <arm_neon.h>

#include <type_traits>

#if defined(__aarch64__)
#define KPNG_NEON
#else
#define KPNG_NEON __attribute__((target("fpu=neon")))
#endif

namespace kpng {
namespace {

// ---- Sub, Average and Paeth for pixels of 3, 4, 6 or 8 bytes ----
//
// Each step loads 16 raw and 16 prior bytes and widens them to 16-bit lanes: four pixels of 3
// or 4 bytes, each in a 4-lane register, or two of 6 or 8 bytes, each in an 8-lane register.
// The pixels are unfiltered one after the other, then narrowed and stored as 16 bytes, those
// past the step's pixels raw until the next step writes them. The last pixels of a row go
// through 16-byte copies.

template <int Bpp>
struct Step {
    using Lanes = std::conditional_t<(Bpp <= 4), int16x4_t, int16x8_t>;
    static constexpr int kPixels = Bpp <= 4 ? 4 : 2;
    using Pixels = Lanes[kPixels];
};

// The arithmetic of both register widths under one name each.
KPNG_NEON inline int16x4_t Add(int16x4_t x, int16x4_t y) {
    return vadd_s16(x, y);
}
KPNG_NEON inline int16x8_t Add(int16x8_t x, int16x8_t y) {
    return vaddq_s16(x, y);
}
KPNG_NEON inline int16x4_t Sub(int16x4_t x, int16x4_t y) {
    return vsub_s16(x, y);
}
KPNG_NEON inline int16x8_t Sub(int16x8_t x, int16x8_t y) {
    return vsubq_s16(x, y);
}
KPNG_NEON inline int16x4_t HalfSum(int16x4_t x, int16x4_t y) {
    return vhadd_s16(x, y);
}
KPNG_NEON inline int16x8_t HalfSum(int16x8_t x, int16x8_t y) {
    return vhaddq_s16(x, y);
}
KPNG_NEON inline int16x4_t Distance(int16x4_t x, int16x4_t y) {
    return vabd_s16(x, y);
}
KPNG_NEON inline int16x8_t Distance(int16x8_t x, int16x8_t y) {
    return vabdq_s16(x, y);
}
KPNG_NEON inline int16x4_t Min(int16x4_t x, int16x4_t y) {
    return vmin_s16(x, y);
}
KPNG_NEON inline int16x8_t Min(int16x8_t x, int16x8_t y) {
    return vminq_s16(x, y);
}
KPNG_NEON inline uint16x4_t AtMost(int16x4_t x, int16x4_t y) {
    return vcle_s16(x, y);
}
KPNG_NEON inline uint16x8_t AtMost(int16x8_t x, int16x8_t y) {
    return vcleq_s16(x, y);
}
KPNG_NEON inline int16x4_t Select(uint16x4_t m, int16x4_t x, int16x4_t y) {
    return vbsl_s16(m, x, y);
}
KPNG_NEON inline int16x8_t Select(uint16x8_t m, int16x8_t x, int16x8_t y) {
    return vbslq_s16(m, x, y);
}
// The sum of lanes 0 to 255, wrapped to a byte: added in byte lanes, the high bytes stay zero.
KPNG_NEON inline int16x4_t AddWrapped(int16x4_t x, int16x4_t y) {
    return vreinterpret_s16_u8(vadd_u8(vreinterpret_u8_s16(x), vreinterpret_u8_s16(y)));
}
KPNG_NEON inline int16x8_t AddWrapped(int16x8_t x, int16x8_t y) {
    return vreinterpretq_s16_u8(vaddq_u8(vreinterpretq_u8_s16(x), vreinterpretq_u8_s16(y)));
}

// The pixels of a step, each in the low lanes of its register.
template <int Bpp>
KPNG_NEON inline void SplitPixels(uint8x16_t bytes, typename Step<Bpp>::Pixels& pixel) {
    const int16x8_t low = vreinterpretq_s16_u16(vmovl_u8(vget_low_u8(bytes)));
    const int16x8_t high = vreinterpretq_s16_u16(vmovl_u8(vget_high_u8(bytes)));
    if constexpr (Bpp == 3) {
        pixel[0] = vget_low_s16(low);
        pixel[1] = vext_s16(vget_low_s16(low), vget_high_s16(low), 3);
        pixel[2] = vext_s16(vget_high_s16(low), vget_low_s16(high), 2);
        pixel[3] = vext_s16(vget_low_s16(high), vget_high_s16(high), 1);
    } else if constexpr (Bpp == 4) {
        pixel[0] = vget_low_s16(low);
        pixel[1] = vget_high_s16(low);
        pixel[2] = vget_low_s16(high);
        pixel[3] = vget_high_s16(high);
    } else if constexpr (Bpp == 6) {
        pixel[0] = low;
        pixel[1] = vextq_s16(low, high, 6);
    } else {
        pixel[0] = low;
        pixel[1] = high;
    }
}

// The pixels narrowed and packed back into the step's bytes, followed by the bytes of `rest`
// after them.
template <int Bpp>
KPNG_NEON inline uint8x16_t JoinPixels(const typename Step<Bpp>::Pixels& pixel, uint8x16_t rest) {
    uint8x8_t first, second;
    if constexpr (Bpp <= 4) {
        first = vmovn_u16(vreinterpretq_u16_s16(vcombine_s16(pixel[0], pixel[1])));
        second = vmovn_u16(vreinterpretq_u16_s16(vcombine_s16(pixel[2], pixel[3])));
    } else {
        first = vmovn_u16(vreinterpretq_u16_s16(pixel[0]));
        second = vmovn_u16(vreinterpretq_u16_s16(pixel[1]));
    }
    if constexpr (Bpp == 4 || Bpp == 8) return vcombine_u8(first, second);
    // Indices into the two registers side by side; those past 15 keep the byte of `rest`.
    const uint8x8_t lowIndex =
        Bpp == 3 ? uint8x8_t{0, 1, 2, 4, 5, 6, 8, 9} : uint8x8_t{0, 1, 2, 3, 4, 5, 8, 9};
    const uint8x8_t highIndex = Bpp == 3 ? uint8x8_t{10, 12, 13, 14, 255, 255, 255, 255}
                                         : uint8x8_t{10, 11, 12, 13, 255, 255, 255, 255};
    const uint8x8x2_t table = {{first, second}};
    return vcombine_u8(vtbl2_u8(table, lowIndex), vtbx2_u8(vget_high_u8(rest), table, highIndex));
}

// Each filter takes the left, upper and upper-left pixels and the raw bytes and gives the
// unfiltered pixel, all lanes 0 to 255.
struct SubFilter {
    template <class Lanes>
    KPNG_NEON static Lanes Next(Lanes left, Lanes, Lanes, Lanes raw) {
        return AddWrapped(raw, left);
    }
};

struct AverageFilter {
    template <class Lanes>
    KPNG_NEON static Lanes Next(Lanes left, Lanes upper, Lanes, Lanes raw) {
        return AddWrapped(raw, HalfSum(left, upper));
    }
};

// The predictor is the one of a = left, b = upper, c = upper-left nearest to a + b - c, ties
// going to a, then b: the distances are |b - c|, |a - c| and |a - (2c - b)|, the first and the
// target 2c - b known before a is.
struct PaethFilter {
    template <class Lanes>
    KPNG_NEON static Lanes Next(Lanes a, Lanes b, Lanes c, Lanes raw) {
        const Lanes pa = Distance(b, c);
        const Lanes target = Sub(Add(c, c), b);
        const Lanes pb = Distance(a, c);
        const Lanes pc = Distance(a, target);
        const Lanes predictor = Select(AtMost(pa, Min(pb, pc)), a, Select(AtMost(pb, pc), b, c));
        return AddWrapped(raw, predictor);
    }
};

template <int Bpp, class Filter>
KPNG_NEON inline void UnfilterStep(const unsigned char* in, const unsigned char* prior,
                                   unsigned char* row, typename Step<Bpp>::Lanes& left,
                                   typename Step<Bpp>::Lanes& upperLeft) {
    const uint8x16_t raw = vld1q_u8(in), up = vld1q_u8(prior);
    typename Step<Bpp>::Pixels rawPixel, upPixel, out;
    SplitPixels<Bpp>(raw, rawPixel);
    SplitPixels<Bpp>(up, upPixel);
    for (int k = 0; k < Step<Bpp>::kPixels; ++k) {
        left = Filter::Next(left, upPixel[k], upperLeft, rawPixel[k]);
        upperLeft = upPixel[k];
        out[k] = left;
    }
    vst1q_u8(row, JoinPixels<Bpp>(out, raw));
}

template <int Bpp, class Filter>
KPNG_NEON void UnfilterPixels(const unsigned char* __restrict raw,
                              const unsigned char* __restrict prior, unsigned char* __restrict row,
                              uint32_t n) {
    constexpr uint32_t kStep = Step<Bpp>::kPixels * Bpp;
    typename Step<Bpp>::Lanes left = {}, upperLeft = {};
    uint32_t i = 0;
    for (; n - i >= 16; i += kStep)
        UnfilterStep<Bpp, Filter>(raw + i, prior + i, row + i, left, upperLeft);
    while (i < n) {
        const uint32_t m = n - i < kStep ? n - i : kStep;
        unsigned char rawBytes[16] = {}, upBytes[16] = {}, rowBytes[16];
        memcpy(rawBytes, raw + i, m);
        memcpy(upBytes, prior + i, m);
        UnfilterStep<Bpp, Filter>(rawBytes, upBytes, rowBytes, left, upperLeft);
        memcpy(row + i, rowBytes, m);
        i += m;
    }
}

template <int Bpp>
KPNG_NEON void SetPixelFilters(RowRoutines& r) {
    r.unfilter[kFilterSub] = UnfilterPixels<Bpp, SubFilter>;
    r.unfilter[kFilterAverage] = UnfilterPixels<Bpp, AverageFilter>;
    r.unfilter[kFilterPaeth] = UnfilterPixels<Bpp, PaethFilter>;
}

KPNG_NEON void UnfilterUpNeon(const unsigned char* __restrict raw,
                              const unsigned char* __restrict prior, unsigned char* __restrict row,
                              uint32_t n) {
    uint32_t i = 0;
    for (; n - i >= 16; i += 16)
        vst1q_u8(row + i, vaddq_u8(vld1q_u8(raw + i), vld1q_u8(prior + i)));
    UnfilterUp(raw + i, prior + i, row + i, n - i);
}

// ---- Expansion ----

KPNG_NEON void ExpandRgb8Neon(const unsigned char* __restrict in, unsigned char* __restrict out,
                              uint32_t n, const PixelKeys&) {
    uint32_t i = 0;
    for (; n - i >= 8; i += 8) {
        const uint8x8x3_t rgb = vld3_u8(in + 3 * i);
        const uint8x8x4_t rgba = {{rgb.val[0], rgb.val[1], rgb.val[2], vdup_n_u8(255)}};
        vst4_u8(out + 4 * i, rgba);
    }
    for (; i < n; ++i) {
        memcpy(out + 4 * i, in + 3 * i, 3);
        out[4 * i + 3] = 255;
    }
}

KPNG_NEON void ExpandGrey8Neon(const unsigned char* __restrict in, unsigned char* __restrict out,
                               uint32_t n, const PixelKeys&) {
    uint32_t i = 0;
    for (; n - i >= 8; i += 8) {
        const uint8x8_t grey = vld1_u8(in + i);
        const uint8x8x4_t rgba = {{grey, grey, grey, vdup_n_u8(255)}};
        vst4_u8(out + 4 * i, rgba);
    }
    for (; i < n; ++i) {
        memset(out + 4 * i, in[i], 3);
        out[4 * i + 3] = 255;
    }
}

KPNG_NEON void ExpandGreyAlpha8Neon(const unsigned char* __restrict in,
                                    unsigned char* __restrict out, uint32_t n, const PixelKeys&) {
    uint32_t i = 0;
    for (; n - i >= 8; i += 8) {
        const uint8x8x2_t greyAlpha = vld2_u8(in + 2 * i);
        const uint8x8x4_t rgba = {
            {greyAlpha.val[0], greyAlpha.val[0], greyAlpha.val[0], greyAlpha.val[1]}};
        vst4_u8(out + 4 * i, rgba);
    }
    for (; i < n; ++i) {
        memset(out + 4 * i, in[2 * i], 3);
        out[4 * i + 3] = in[2 * i + 1];
    }
}

}  // namespace

void UseNeonRowRoutines(RowRoutines& r, const RowFormat& format) {
    r.unfilter[kFilterUp] = UnfilterUpNeon;
    // Pixels of one or two bytes depend on their left neighbour byte by byte: no lanes to fill.
    ForBytesPerPixel(format.bytesPerPixel, [&](auto bpp) {
        if constexpr (bpp >= 3) SetPixelFilters<bpp>(r);
    });
    if (format.keyed || format.bitDepth != 8) return;
    if (format.colourType == 2)
        r.expand = ExpandRgb8Neon;
    else if (format.colourType == 0)
        r.expand = ExpandGrey8Neon;
    else if (format.colourType == 4)
        r.expand = ExpandGreyAlpha8Neon;
}

}  // namespace kpng
#endif
