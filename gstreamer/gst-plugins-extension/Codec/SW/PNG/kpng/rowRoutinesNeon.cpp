// Row routines for ARM processors with NEON. On 32-bit ARM each function carries NEON as its own
// target, so that a build for the baseline without NEON holds them and runs them only where the
// processor has NEON; on 64-bit ARM NEON is always there.
#include "rowRoutines.h"

#if defined(__arm__) || defined(__aarch64__)
#include <arm_neon.h>

#if defined(__aarch64__)
#define KPNG_NEON
#else
#define KPNG_NEON __attribute__((target("fpu=neon")))
#endif

namespace kpng {
namespace {

// ---- Sub, Average and Paeth for pixels of 3 or 4 bytes ----
//
// Four pixels per step: the raw and prior bytes of the step come in one 16-byte load each, the
// pixels are unfiltered one after the other in the low lanes of 8-byte registers, and the step
// stores 16 bytes back, the bytes past its pixels unchanged. The last pixels of a row go through
// 16-byte copies.

// The four pixels of a step, each in the low lanes of its register.
template <int Bpp>
KPNG_NEON inline void SplitPixels(uint8x16_t q, uint8x8_t (&pixel)[4]) {
    const uint8x8_t low = vget_low_u8(q), high = vget_high_u8(q);
    if constexpr (Bpp == 4) {
        pixel[0] = low;
        pixel[1] = vext_u8(low, low, 4);
        pixel[2] = high;
        pixel[3] = vext_u8(high, high, 4);
    } else {
        pixel[0] = low;
        pixel[1] = vext_u8(low, high, 3);
        pixel[2] = vext_u8(low, high, 6);
        pixel[3] = vext_u8(high, high, 1);
    }
}

// The four pixels packed back into 4 x Bpp bytes, followed by the bytes of `rest` after them.
template <int Bpp>
KPNG_NEON inline uint8x16_t JoinPixels(const uint8x8_t (&pixel)[4], uint8x16_t rest) {
    if constexpr (Bpp == 4) {
        const uint32x2x2_t low =
            vtrn_u32(vreinterpret_u32_u8(pixel[0]), vreinterpret_u32_u8(pixel[1]));
        const uint32x2x2_t high =
            vtrn_u32(vreinterpret_u32_u8(pixel[2]), vreinterpret_u32_u8(pixel[3]));
        return vreinterpretq_u8_u32(vcombine_u32(low.val[0], high.val[0]));
    } else {
        // Indices into the four registers side by side; those past 31 keep the byte of `rest`.
        const uint8x8_t lowIndex = {0, 1, 2, 8, 9, 10, 16, 17};
        const uint8x8_t highIndex = {18, 24, 25, 26, 255, 255, 255, 255};
        const uint8x8x4_t table = {{pixel[0], pixel[1], pixel[2], pixel[3]}};
        return vcombine_u8(vtbl4_u8(table, lowIndex),
                           vtbx4_u8(vget_high_u8(rest), table, highIndex));
    }
}

struct SubStep {
    KPNG_NEON static uint8x8_t Next(uint8x8_t left, uint8x8_t, uint8x8_t, uint8x8_t raw) {
        return vadd_u8(raw, left);
    }
};

struct AverageStep {
    KPNG_NEON static uint8x8_t Next(uint8x8_t left, uint8x8_t upper, uint8x8_t, uint8x8_t raw) {
        return vadd_u8(raw, vhadd_u8(left, upper));
    }
};

// The predictor is the one of a = left, b = upper, c = upper-left nearest to a + b - c, ties
// going to a, then b: the distances are |b - c|, |a - c| and |a + b - 2c|.
struct PaethStep {
    KPNG_NEON static uint8x8_t Next(uint8x8_t a, uint8x8_t b, uint8x8_t c, uint8x8_t raw) {
        const uint16x8_t pa = vabdl_u8(b, c);
        const uint16x8_t pb = vabdl_u8(a, c);
        const uint16x8_t pc = vabdq_u16(vaddl_u8(a, b), vshll_n_u8(c, 1));
        const uint8x8_t takeA = vmovn_u16(vandq_u16(vcleq_u16(pa, pb), vcleq_u16(pa, pc)));
        const uint8x8_t takeB = vmovn_u16(vcleq_u16(pb, pc));
        return vadd_u8(raw, vbsl_u8(takeA, a, vbsl_u8(takeB, b, c)));
    }
};

template <int Bpp, class Step>
KPNG_NEON inline void UnfilterStep(unsigned char* row, unsigned char* prior, uint8x8_t& left,
                                   uint8x8_t& upperLeft) {
    const uint8x16_t raw = vld1q_u8(row), up = vld1q_u8(prior);
    uint8x8_t rawPixel[4], upPixel[4], out[4];
    SplitPixels<Bpp>(raw, rawPixel);
    SplitPixels<Bpp>(up, upPixel);
    for (int k = 0; k < 4; ++k) {
        left = Step::Next(left, upPixel[k], upperLeft, rawPixel[k]);
        upperLeft = upPixel[k];
        out[k] = left;
    }
    vst1q_u8(row, JoinPixels<Bpp>(out, raw));
    vst1q_u8(prior, JoinPixels<Bpp>(out, up));
}

template <int Bpp, class Step>
KPNG_NEON void UnfilterPixels(unsigned char* __restrict row, unsigned char* __restrict prior,
                              uint32_t n) {
    constexpr uint32_t kStep = 4 * Bpp;
    uint8x8_t left = vdup_n_u8(0), upperLeft = vdup_n_u8(0);
    uint32_t i = 0;
    for (; n - i >= 16; i += kStep)
        UnfilterStep<Bpp, Step>(row + i, prior + i, left, upperLeft);
    while (i < n) {
        const uint32_t m = n - i < kStep ? n - i : kStep;
        unsigned char rawBytes[16] = {}, upBytes[16] = {};
        memcpy(rawBytes, row + i, m);
        memcpy(upBytes, prior + i, m);
        UnfilterStep<Bpp, Step>(rawBytes, upBytes, left, upperLeft);
        memcpy(row + i, rawBytes, m);
        memcpy(prior + i, upBytes, m);
        i += m;
    }
}

KPNG_NEON void UnfilterUpNeon(unsigned char* __restrict row, unsigned char* __restrict prior,
                              uint32_t n) {
    uint32_t i = 0;
    for (; n - i >= 16; i += 16) {
        const uint8x16_t sum = vaddq_u8(vld1q_u8(row + i), vld1q_u8(prior + i));
        vst1q_u8(row + i, sum);
        vst1q_u8(prior + i, sum);
    }
    UnfilterUp(row + i, prior + i, n - i);
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
    if (format.bytesPerPixel == 3) {
        r.unfilter[kFilterSub] = UnfilterPixels<3, SubStep>;
        r.unfilter[kFilterAverage] = UnfilterPixels<3, AverageStep>;
        r.unfilter[kFilterPaeth] = UnfilterPixels<3, PaethStep>;
    } else if (format.bytesPerPixel == 4) {
        r.unfilter[kFilterSub] = UnfilterPixels<4, SubStep>;
        r.unfilter[kFilterAverage] = UnfilterPixels<4, AverageStep>;
        r.unfilter[kFilterPaeth] = UnfilterPixels<4, PaethStep>;
    }
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
