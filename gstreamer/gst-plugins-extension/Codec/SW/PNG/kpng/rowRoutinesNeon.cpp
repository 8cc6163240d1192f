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
// Four pixels per step: the raw and prior bytes of the step come in one 16-byte load each and
// are widened to 16-bit lanes; the pixels are unfiltered one after the other in the lanes of
// 4-lane registers, then narrowed and stored back as 16 bytes, the bytes past the step's pixels
// unchanged. The last pixels of a row go through 16-byte copies.

using Pixels = int16x4_t[4];

// The four pixels of a step, each in the low lanes of its register.
template <int Bpp>
KPNG_NEON inline void SplitPixels(uint8x16_t bytes, Pixels& pixel) {
    const int16x8_t low = vreinterpretq_s16_u16(vmovl_u8(vget_low_u8(bytes)));
    const int16x8_t high = vreinterpretq_s16_u16(vmovl_u8(vget_high_u8(bytes)));
    if constexpr (Bpp == 4) {
        pixel[0] = vget_low_s16(low);
        pixel[1] = vget_high_s16(low);
        pixel[2] = vget_low_s16(high);
        pixel[3] = vget_high_s16(high);
    } else {
        pixel[0] = vget_low_s16(low);
        pixel[1] = vext_s16(vget_low_s16(low), vget_high_s16(low), 3);
        pixel[2] = vext_s16(vget_high_s16(low), vget_low_s16(high), 2);
        pixel[3] = vext_s16(vget_low_s16(high), vget_high_s16(high), 1);
    }
}

// The four pixels packed back into 4 x Bpp bytes, followed by the bytes of `rest` after them.
template <int Bpp>
KPNG_NEON inline uint8x16_t JoinPixels(const Pixels& pixel, uint8x16_t rest) {
    const uint8x8_t first = vmovn_u16(vreinterpretq_u16_s16(vcombine_s16(pixel[0], pixel[1])));
    const uint8x8_t second = vmovn_u16(vreinterpretq_u16_s16(vcombine_s16(pixel[2], pixel[3])));
    if constexpr (Bpp == 4) {
        return vcombine_u8(first, second);
    } else {
        // Indices into the two registers side by side; those past 15 keep the byte of `rest`.
        const uint8x8_t lowIndex = {0, 1, 2, 4, 5, 6, 8, 9};
        const uint8x8_t highIndex = {10, 12, 13, 14, 255, 255, 255, 255};
        const uint8x8x2_t table = {{first, second}};
        return vcombine_u8(vtbl2_u8(table, lowIndex),
                           vtbx2_u8(vget_high_u8(rest), table, highIndex));
    }
}

// Each step takes the left, upper and upper-left pixels and the raw bytes and gives the
// unfiltered pixel, all lanes 0 to 255.
struct SubStep {
    KPNG_NEON static int16x4_t Next(int16x4_t left, int16x4_t, int16x4_t, int16x4_t raw) {
        return vand_s16(vadd_s16(raw, left), vdup_n_s16(0xFF));
    }
};

struct AverageStep {
    KPNG_NEON static int16x4_t Next(int16x4_t left, int16x4_t upper, int16x4_t, int16x4_t raw) {
        return vand_s16(vadd_s16(raw, vhadd_s16(left, upper)), vdup_n_s16(0xFF));
    }
};

// The predictor is the one of a = left, b = upper, c = upper-left nearest to a + b - c, ties
// going to a, then b: the distances are |b - c|, |a - c| and |a - (2c - b)|, the first and the
// target 2c - b known before a is.
struct PaethStep {
    KPNG_NEON static int16x4_t Next(int16x4_t a, int16x4_t b, int16x4_t c, int16x4_t raw) {
        const int16x4_t pa = vabd_s16(b, c);
        const int16x4_t target = vsub_s16(vadd_s16(c, c), b);
        const int16x4_t pb = vabd_s16(a, c);
        const int16x4_t pc = vabd_s16(a, target);
        const uint16x4_t takeA = vcle_s16(pa, vmin_s16(pb, pc));
        const uint16x4_t takeB = vcle_s16(pb, pc);
        const int16x4_t predictor = vbsl_s16(takeA, a, vbsl_s16(takeB, b, c));
        return vand_s16(vadd_s16(raw, predictor), vdup_n_s16(0xFF));
    }
};

template <int Bpp, class Step>
KPNG_NEON inline void UnfilterStep(unsigned char* row, unsigned char* prior, int16x4_t& left,
                                   int16x4_t& upperLeft) {
    const uint8x16_t raw = vld1q_u8(row), up = vld1q_u8(prior);
    Pixels rawPixel, upPixel, out;
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
    int16x4_t left = vdup_n_s16(0), upperLeft = vdup_n_s16(0);
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
