// Pixel and colour conversion of rows. All YCbCr arithmetic is fixed point through the
// load-time tables and all clamping through ubyteRangeLimit: no coefficient products and no
// clamping branches on the per-row path.
#include "kiu.h"

namespace kiu {
namespace {

inline uint32_t LumaOf(uint32_t r, uint32_t g, uint32_t b) {
    const RgbToYccTable& t = rgbToYccTable;
    return (t.rToY[r] + t.gToY[g] + t.bToY[b]) >> 16;
}

// Writes Y, U, V. The sums stay within 0..255 << 16, so no clamping is needed.
inline void YuvOf(uint32_t r, uint32_t g, uint32_t b, unsigned char* out) {
    const RgbToYccTable& t = rgbToYccTable;
    out[0] = static_cast<unsigned char>(LumaOf(r, g, b));
    out[1] = static_cast<unsigned char>((t.rToCb[r] + t.gToCb[g] + t.bToCb[b]) >> 16);
    out[2] = static_cast<unsigned char>((t.bToCb[r] + t.gToCr[g] + t.bToCr[b]) >> 16);
}

// Writes R, G, B of a YCbCr pixel.
inline void RgbOf(int32_t y, uint32_t cb, uint32_t cr, unsigned char* out) {
    const YccTables& t = yccTables;
    out[0] = ubyteRangeLimit[y + t.cr[cr].toR];
    out[1] = ubyteRangeLimit[y + ((t.cb[cb].toG + t.cr[cr].toG) >> 16)];
    out[2] = ubyteRangeLimit[y + t.cb[cb].toB];
}

// Writes the inverted R, G, B of a YCbCr pixel scaled by k / 255.
inline void InvertedScaledRgbOf(int32_t y, uint32_t cb, uint32_t cr, uint32_t k,
                                unsigned char* out) {
    const YccTables& t = yccTables;
    uint32_t r = ubyteRangeLimit[255 - (y + t.cr[cr].toR)];
    uint32_t g = ubyteRangeLimit[255 - (y + ((t.cb[cb].toG + t.cr[cr].toG) >> 16))];
    uint32_t b = ubyteRangeLimit[255 - (y + t.cb[cb].toB)];
    out[0] = static_cast<unsigned char>(k * r / 255);
    out[1] = static_cast<unsigned char>(k * g / 255);
    out[2] = static_cast<unsigned char>(k * b / 255);
}

// Walks a row whose chroma is halved horizontally in pairs of pixels that share one chroma
// sample; an odd last pixel takes the sample after the last pair.
template <typename PixelFn>
inline void WalkHalvedChroma(uint32_t count, PixelFn pixel) {
    uint32_t k = 0;
    for (; 2 * k + 1 < count; ++k) {
        pixel(2 * k, k);
        pixel(2 * k + 1, k);
    }
    if (count & 1) pixel(count - 1, k);
}

// Row `row` of the first `n` planar components.
struct PlaneRows {
    const unsigned char* c[4];
    PlaneRows(unsigned char*** planes, uint32_t row, int n) {
        for (int i = 0; i < n; ++i)
            c[i] = planes[i][row];
    }
};

void HalvedChromaToYuv(uint32_t n, const unsigned char* y, const unsigned char* u,
                       const unsigned char* v, unsigned char* out) {
    WalkHalvedChroma(n, [&](uint32_t i, uint32_t k) {
        out[3 * i] = y[i];
        out[3 * i + 1] = u[k];
        out[3 * i + 2] = v[k];
    });
}

void HalvedChromaToRgba(uint32_t n, const unsigned char* y, const unsigned char* u,
                        const unsigned char* v, unsigned char alpha, unsigned char* out) {
    WalkHalvedChroma(n, [&](uint32_t i, uint32_t k) {
        RgbOf(y[i], u[k], v[k], out + 4 * i);
        out[4 * i + 3] = alpha;
    });
}

}  // namespace

void ConvertRGBtoY(unsigned char r, unsigned char g, unsigned char b, unsigned char& y) {
    y = static_cast<unsigned char>(LumaOf(r, g, b));
}

void ConvertRGBtoYUV(unsigned char r, unsigned char g, unsigned char b, unsigned char& y,
                     unsigned char& u, unsigned char& v) {
    unsigned char yuv[3];
    YuvOf(r, g, b, yuv);
    y = yuv[0];
    u = yuv[1];
    v = yuv[2];
}

void ConvertRGBtoYUV(unsigned long count, const unsigned char* in, unsigned char* out) {
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i)
        YuvOf(in[4 * i], in[4 * i + 1], in[4 * i + 2], out + 3 * i);
}

void ConvertGrayToYUV(unsigned long count, unsigned char*** planes, unsigned long row,
                      unsigned char* out) {
    PlaneRows p(planes, static_cast<uint32_t>(row), 1);
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i)
        YuvOf(p.c[0][i], p.c[0][i], p.c[0][i], out + 3 * i);
}

void ConvertYUVtoYUV(unsigned long count, unsigned char*** planes, unsigned long row,
                     unsigned char* out) {
    PlaneRows p(planes, static_cast<uint32_t>(row), 3);
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i) {
        out[3 * i] = p.c[0][i];
        out[3 * i + 1] = p.c[1][i];
        out[3 * i + 2] = p.c[2][i];
    }
}

void ConvertYUV211toYUV(unsigned long count, unsigned char*** planes, unsigned long row,
                        unsigned char* out) {
    PlaneRows p(planes, static_cast<uint32_t>(row), 3);
    HalvedChromaToYuv(static_cast<uint32_t>(count), p.c[0], p.c[1], p.c[2], out);
}

void ConvertYUV420toYUV(unsigned long count, unsigned char*** planes, unsigned long row,
                        unsigned char* out) {
    ConvertYUV211toYUV(count, planes, row, out);
}

void ConvertYUV420toYUV2(unsigned long count, unsigned char*** planes, unsigned long row,
                         unsigned char* out) {
    uint32_t n = static_cast<uint32_t>(count);
    uint32_t r = static_cast<uint32_t>(row);
    PlaneRows p(planes, r, 3);
    HalvedChromaToYuv(n, p.c[0], p.c[1], p.c[2], out);
    HalvedChromaToYuv(n, planes[0][r + 1], p.c[1], p.c[2], out + 3 * size_t{n});
}

void ConvertCMYKtoRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                      unsigned char* out) {
    PlaneRows p(planes, static_cast<uint32_t>(row), 4);
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i) {
        uint32_t k = 255u - p.c[3][i];
        for (int channel = 0; channel < 3; ++channel)
            out[4 * i + channel] =
                static_cast<unsigned char>((((255u - p.c[channel][i]) * k) & 255u) / 255u);
    }
}

void ConvertYCCKtoRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                      unsigned char* out) {
    PlaneRows p(planes, static_cast<uint32_t>(row), 4);
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i)
        InvertedScaledRgbOf(p.c[0][i], p.c[1][i], p.c[2][i], p.c[3][i], out + 4 * i);
}

void ConvertYUVtoRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                     unsigned char* out) {
    PlaneRows p(planes, static_cast<uint32_t>(row), 3);
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i)
        RgbOf(p.c[0][i], p.c[1][i], p.c[2][i], out + 4 * i);
}

void ConvertYUVtoRGB(unsigned long count, const unsigned char* in, unsigned char* out) {
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i)
        RgbOf(in[3 * i], in[3 * i + 1], in[3 * i + 2], out + 4 * i);
}

void ConvertRGBtoRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                     unsigned char* out) {
    PlaneRows p(planes, static_cast<uint32_t>(row), 3);
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i) {
        out[4 * i] = p.c[0][i];
        out[4 * i + 1] = p.c[1][i];
        out[4 * i + 2] = p.c[2][i];
    }
}

void ConvertGrayToRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                      unsigned char* out) {
    PlaneRows p(planes, static_cast<uint32_t>(row), 1);
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i) {
        unsigned char g = p.c[0][i];
        out[4 * i] = g;
        out[4 * i + 1] = g;
        out[4 * i + 2] = g;
    }
}

void ConvertYUV111toRGBA(unsigned long count, unsigned char*** planes, unsigned char alpha,
                         unsigned char* out) {
    PlaneRows p(planes, 0, 3);
    for (uint32_t i = 0, n = static_cast<uint32_t>(count); i < n; ++i) {
        RgbOf(p.c[0][i], p.c[1][i], p.c[2][i], out + 4 * i);
        out[4 * i + 3] = alpha;
    }
}

void ConvertYUV211toRGBA(unsigned long count, unsigned char*** planes, unsigned char alpha,
                         unsigned char* out) {
    PlaneRows p(planes, 0, 3);
    HalvedChromaToRgba(static_cast<uint32_t>(count), p.c[0], p.c[1], p.c[2], alpha, out);
}

void ConvertYUV420toRGBA(unsigned long count, unsigned char*** planes, unsigned char alpha,
                         unsigned char* out) {
    ConvertYUV211toRGBA(count, planes, alpha, out);
}

void ConvertYUV420toRGBA2(unsigned long count, unsigned char*** planes, unsigned char alpha,
                          unsigned char* out) {
    uint32_t n = static_cast<uint32_t>(count);
    PlaneRows p(planes, 0, 3);
    HalvedChromaToRgba(n, p.c[0], p.c[1], p.c[2], alpha, out);
    HalvedChromaToRgba(n, planes[0][1], p.c[1], p.c[2], alpha, out + 4 * size_t{n});
}

}  // namespace kiu
