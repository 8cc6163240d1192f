#include "formatRoutines.h"

#include <cstring>

#include "kauCpu.h"

#if defined(__SSE2__)
#include <tmmintrin.h>
#elif defined(__arm__) || defined(__aarch64__)
#include <arm_neon.h>
#if defined(__aarch64__)
#define KPNG_NEON
#else
#define KPNG_NEON __attribute__((target("fpu=neon")))
#endif
#endif

namespace kpng {
namespace {

constexpr int Index(OutputFormat format) {
    return int(format);
}

template <OutputFormat Format>
void Reorder(const unsigned char* in, unsigned char* out, uint32_t n) {
    constexpr const uint8_t* order = kByteOrder[Index(Format)];
    for (uint32_t i = 0; i < n; ++i) {
        unsigned char rgba[5] = {in[4 * i], in[4 * i + 1], in[4 * i + 2], in[4 * i + 3], 255};
        for (int k = 0; k < 4; ++k)
            out[4 * i + k] = rgba[order[k]];
    }
}

template <int Red, int Blue>
void WriteRgb(const unsigned char* in, unsigned char* out, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        const unsigned char r = in[4 * i], g = in[4 * i + 1], b = in[4 * i + 2];
        out[3 * i + Red] = r;
        out[3 * i + 1] = g;
        out[3 * i + Blue] = b;
    }
}

void WriteRgb16(const unsigned char* in, unsigned char* out, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        const uint16_t word =
            uint16_t((in[4 * i] >> 3) << 11 | (in[4 * i + 1] >> 2) << 5 | in[4 * i + 2] >> 3);
        memcpy(out + 2 * i, &word, 2);
    }
}

void WriteGray8(const unsigned char* in, unsigned char* out, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i)
        out[i] = uint8_t((19595u * in[4 * i] + 38470u * in[4 * i + 1] + 7471u * in[4 * i + 2] +
                          32768u) >> 16);
}

#if defined(__SSE2__)
// Four pixels per byte shuffle; the last pixels of a row go through the plain loop.
template <OutputFormat Format>
__attribute__((target("ssse3"))) void ReorderSsse3(const unsigned char* in, unsigned char* out,
                                                   uint32_t n) {
    constexpr const uint8_t* order = kByteOrder[Index(Format)];
    alignas(16) char shuffle[16], constant[16];
    for (int p = 0; p < 4; ++p) {
        for (int k = 0; k < 4; ++k) {
            const bool unused = order[k] == kUnusedByte;
            shuffle[4 * p + k] = char(unused ? -1 : 4 * p + order[k]);
            constant[4 * p + k] = char(unused ? 0xFF : 0);
        }
    }
    const __m128i mask = _mm_load_si128(reinterpret_cast<const __m128i*>(shuffle));
    const __m128i fill = _mm_load_si128(reinterpret_cast<const __m128i*>(constant));
    uint32_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 4 * i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * i),
                         _mm_or_si128(_mm_shuffle_epi8(pixels, mask), fill));
    }
    Reorder<Format>(in + 4 * i, out + 4 * i, n - i);
}
#elif defined(__arm__) || defined(__aarch64__)
// Sixteen pixels per step, split into planes of R, G, B and A and stored in the output's order.
template <OutputFormat Format>
KPNG_NEON void ReorderNeon(const unsigned char* in, unsigned char* out, uint32_t n) {
    constexpr const uint8_t* order = kByteOrder[Index(Format)];
    uint32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const uint8x16x4_t rgba = vld4q_u8(in + 4 * i);
        const uint8x16_t planes[5] = {rgba.val[0], rgba.val[1], rgba.val[2], rgba.val[3],
                                      vdupq_n_u8(255)};
        const uint8x16x4_t pixels = {
            {planes[order[0]], planes[order[1]], planes[order[2]], planes[order[3]]}};
        vst4q_u8(out + 4 * i, pixels);
    }
    Reorder<Format>(in + 4 * i, out + 4 * i, n - i);
}
#endif

// The reordering into a 4-byte format: the vector form where the processor offers one.
template <OutputFormat Format>
FormatRoutine ReorderFor([[maybe_unused]] const kau::cpu::Features& cpu) {
#if defined(__SSE2__)
    if (cpu.ssse3) return ReorderSsse3<Format>;
#elif defined(__arm__) || defined(__aarch64__)
    if (cpu.neon) return ReorderNeon<Format>;
#endif
    return Reorder<Format>;
}

}  // namespace

uint32_t FormatPixel(OutputFormat format, const unsigned char rgba[4]) {
    const uint8_t* order = kByteOrder[Index(format)];
    const unsigned char values[5] = {rgba[0], rgba[1], rgba[2], rgba[3], 255};
    const unsigned char bytes[4] = {values[order[0]], values[order[1]], values[order[2]],
                                    values[order[3]]};
    uint32_t pixel;
    memcpy(&pixel, bytes, 4);
    return pixel;
}

FormatRoutine ChooseFormatRoutine(OutputFormat format) {
    const kau::cpu::Features cpu = kau::cpu::Available();
    switch (format) {
        case OutputFormat::kRgba:
            return nullptr;
        case OutputFormat::kBgra:
            return ReorderFor<OutputFormat::kBgra>(cpu);
        case OutputFormat::kArgb:
            return ReorderFor<OutputFormat::kArgb>(cpu);
        case OutputFormat::kAbgr:
            return ReorderFor<OutputFormat::kAbgr>(cpu);
        case OutputFormat::kRgbx:
            return ReorderFor<OutputFormat::kRgbx>(cpu);
        case OutputFormat::kBgrx:
            return ReorderFor<OutputFormat::kBgrx>(cpu);
        case OutputFormat::kXrgb:
            return ReorderFor<OutputFormat::kXrgb>(cpu);
        case OutputFormat::kXbgr:
            return ReorderFor<OutputFormat::kXbgr>(cpu);
        case OutputFormat::kRgb:
            return WriteRgb<0, 2>;
        case OutputFormat::kBgr:
            return WriteRgb<2, 0>;
        case OutputFormat::kRgb16:
            return WriteRgb16;
        case OutputFormat::kGray8:
            return WriteGray8;
    }
    return nullptr;
}

}  // namespace kpng
