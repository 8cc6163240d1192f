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
#define KPNG_VECTOR_REORDER(format) \
    (cpu.ssse3 && kau::cpu::VectorPathsEnabled() ? ReorderSsse3<format> : Reorder<format>)
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
#define KPNG_VECTOR_REORDER(format) (cpu.neon ? ReorderNeon<format> : Reorder<format>)
#else
#define KPNG_VECTOR_REORDER(format) Reorder<format>
#endif

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
    [[maybe_unused]] const kau::cpu::Features cpu = kau::cpu::Available();
    switch (format) {
        case OutputFormat::kRgba:
            return nullptr;
        case OutputFormat::kBgra:
            return KPNG_VECTOR_REORDER(OutputFormat::kBgra);
        case OutputFormat::kArgb:
            return KPNG_VECTOR_REORDER(OutputFormat::kArgb);
        case OutputFormat::kAbgr:
            return KPNG_VECTOR_REORDER(OutputFormat::kAbgr);
        case OutputFormat::kRgbx:
            return KPNG_VECTOR_REORDER(OutputFormat::kRgbx);
        case OutputFormat::kBgrx:
            return KPNG_VECTOR_REORDER(OutputFormat::kBgrx);
        case OutputFormat::kXrgb:
            return KPNG_VECTOR_REORDER(OutputFormat::kXrgb);
        case OutputFormat::kXbgr:
            return KPNG_VECTOR_REORDER(OutputFormat::kXbgr);
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
