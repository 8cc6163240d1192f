#include "rowRoutines.h"

#include "kauCpu.h"

namespace kpng {
namespace {

uint16_t BigEndian16(const unsigned char* p) {
    return uint16_t(p[0] << 8 | p[1]);
}

void StorePixel(unsigned char* out, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
    out[0] = r;
    out[1] = g;
    out[2] = b;
    out[3] = a;
}

// Packed samples of 1, 2 or 4 bits, most significant first, through the table of their pixels.
template <unsigned Depth>
void ExpandPacked(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                  const PixelKeys& keys) {
    constexpr unsigned kPerByte = 8 / Depth, kMask = (1u << Depth) - 1;
    uint32_t i = 0;
    for (; n - i >= kPerByte; i += kPerByte, out += 4 * kPerByte) {
        const unsigned byte = *in++;
        for (unsigned j = 0; j < kPerByte; ++j)
            memcpy(out + 4 * j, &keys.table[(byte >> (8 - Depth * (j + 1))) & kMask], 4);
    }
    const unsigned byte = i < n ? *in : 0;
    for (unsigned j = 0; i + j < n; ++j)
        memcpy(out + 4 * j, &keys.table[(byte >> (8 - Depth * (j + 1))) & kMask], 4);
}

// Eight pixels per step, which keeps the loop's own work small beside the lookups.
void ExpandBytes(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                 const PixelKeys& keys) {
    const uint32_t* table = keys.table;
    uint32_t i = 0;
    for (; n - i >= 8; i += 8) {
        for (uint32_t k = 0; k < 8; ++k)
            memcpy(out + 4 * (i + k), &table[in[i + k]], 4);
    }
    for (; i < n; ++i)
        memcpy(out + 4 * i, &table[in[i]], 4);
}

void ExpandGrey16(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                  const PixelKeys&) {
    for (uint32_t i = 0; i < n; ++i)
        StorePixel(out + 4 * i, in[2 * i], in[2 * i], in[2 * i], 255);
}

void ExpandGrey16Keyed(const unsigned char* __restrict in, unsigned char* __restrict out,
                       uint32_t n, const PixelKeys& keys) {
    for (uint32_t i = 0; i < n; ++i) {
        const uint8_t grey = in[2 * i];
        StorePixel(out + 4 * i, grey, grey, grey, BigEndian16(in + 2 * i) == keys.grey ? 0 : 255);
    }
}

// Each pixel but the last as one 4-byte load whose fourth byte is replaced by the alpha.
void ExpandRgb8(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                const PixelKeys&) {
    const unsigned char colourBytes[4] = {255, 255, 255, 0}, alphaBytes[4] = {0, 0, 0, 255};
    uint32_t colour, alpha;
    memcpy(&colour, colourBytes, 4);
    memcpy(&alpha, alphaBytes, 4);
    for (uint32_t i = 0; i + 1 < n; ++i) {
        uint32_t pixel;
        memcpy(&pixel, in + 3 * i, 4);
        pixel = (pixel & colour) | alpha;
        memcpy(out + 4 * i, &pixel, 4);
    }
    StorePixel(out + 4 * (n - 1), in[3 * n - 3], in[3 * n - 2], in[3 * n - 1], 255);
}

void ExpandRgb8Keyed(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                     const PixelKeys& keys) {
    for (uint32_t i = 0; i < n; ++i) {
        const uint8_t r = in[3 * i], g = in[3 * i + 1], b = in[3 * i + 2];
        const bool transparent = r == keys.colour[0] && g == keys.colour[1] && b == keys.colour[2];
        StorePixel(out + 4 * i, r, g, b, transparent ? 0 : 255);
    }
}

void ExpandRgb16(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                 const PixelKeys&) {
    for (uint32_t i = 0; i < n; ++i)
        StorePixel(out + 4 * i, in[6 * i], in[6 * i + 2], in[6 * i + 4], 255);
}

void ExpandRgb16Keyed(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                      const PixelKeys& keys) {
    for (uint32_t i = 0; i < n; ++i) {
        const unsigned char* p = in + 6 * i;
        const bool transparent = BigEndian16(p) == keys.colour[0] &&
                                 BigEndian16(p + 2) == keys.colour[1] &&
                                 BigEndian16(p + 4) == keys.colour[2];
        StorePixel(out + 4 * i, p[0], p[2], p[4], transparent ? 0 : 255);
    }
}

void ExpandGreyAlpha8(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                      const PixelKeys&) {
    for (uint32_t i = 0; i < n; ++i)
        StorePixel(out + 4 * i, in[2 * i], in[2 * i], in[2 * i], in[2 * i + 1]);
}

void ExpandGreyAlpha16(const unsigned char* __restrict in, unsigned char* __restrict out,
                       uint32_t n, const PixelKeys&) {
    for (uint32_t i = 0; i < n; ++i)
        StorePixel(out + 4 * i, in[4 * i], in[4 * i], in[4 * i], in[4 * i + 2]);
}

void ExpandRgba16(const unsigned char* __restrict in, unsigned char* __restrict out, uint32_t n,
                  const PixelKeys&) {
    for (uint32_t i = 0; i < n; ++i)
        StorePixel(out + 4 * i, in[8 * i], in[8 * i + 2], in[8 * i + 4], in[8 * i + 6]);
}

ExpandRoutine PortableExpansion(const RowFormat& f) {
    switch (f.colourType * 32 + f.bitDepth) {
        case 0 * 32 + 1:
        case 3 * 32 + 1:
            return ExpandPacked<1>;
        case 0 * 32 + 2:
        case 3 * 32 + 2:
            return ExpandPacked<2>;
        case 0 * 32 + 4:
        case 3 * 32 + 4:
            return ExpandPacked<4>;
        case 0 * 32 + 8:
        case 3 * 32 + 8:
            return ExpandBytes;
        case 0 * 32 + 16:
            return f.keyed ? ExpandGrey16Keyed : ExpandGrey16;
        case 2 * 32 + 8:
            return f.keyed ? ExpandRgb8Keyed : ExpandRgb8;
        case 2 * 32 + 16:
            return f.keyed ? ExpandRgb16Keyed : ExpandRgb16;
        case 4 * 32 + 8:
            return ExpandGreyAlpha8;
        case 4 * 32 + 16:
            return ExpandGreyAlpha16;
        case 6 * 32 + 16:
            return ExpandRgba16;
        default:
            return nullptr;
    }
}

template <int Bpp>
void SetPixelFilters(RowRoutines& r) {
    r.unfilter[kFilterSub] = UnfilterSub<Bpp>;
    r.unfilter[kFilterAverage] = UnfilterAverage<Bpp>;
    r.unfilter[kFilterPaeth] = UnfilterPaeth<Bpp>;
    r.unfilterFirst[kFilterAverage] = UnfilterAverageFirst<Bpp>;
}

RowRoutines PortableRowRoutines(const RowFormat& format) {
    RowRoutines r{};
    r.unfilter[kFilterNone] = UnfilterNone;
    r.unfilter[kFilterUp] = UnfilterUp;
    ForBytesPerPixel(format.bytesPerPixel, [&](auto bpp) { SetPixelFilters<bpp>(r); });
    r.expand = PortableExpansion(format);
    return r;
}

}  // namespace

RowRoutines ChooseRowRoutines(const RowFormat& format, const PixelKeys& keys) {
    RowRoutines r = PortableRowRoutines(format);
    const kau::cpu::Features cpu = kau::cpu::Available();
#if defined(__x86_64__) || defined(__i386__)
    // SSE2 is the x86-64 baseline: only the switch can turn it off.
    if (kau::cpu::VectorPathsEnabled()) UseSseRowRoutines(r, format, cpu);
#elif defined(__arm__) || defined(__aarch64__)
    if (cpu.neon) UseNeonRowRoutines(r, format);
#endif
    // The first row reuses the chosen routines wherever the zero prior row changes nothing.
    r.unfilterFirst[kFilterNone] = r.unfilter[kFilterNone];
    r.unfilterFirst[kFilterSub] = r.unfilter[kFilterSub];
    r.unfilterFirst[kFilterUp] = r.unfilter[kFilterNone];
    r.unfilterFirst[kFilterPaeth] = r.unfilter[kFilterSub];
    r.keys = keys;
    return r;
}

}  // namespace kpng
