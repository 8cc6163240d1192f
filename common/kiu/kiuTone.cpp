// Tone corrections: lighting compensation of BGR images and histogram equalisation of luma.
#include <cmath>

#include "kiu.h"

namespace kiu {
namespace {

// Fewer bright pixels than this say too little about the light to correct it.
constexpr uint32_t kMinBrightPixels = 100;

// Columns x0..x1-1 of rows y0..y1-1.
struct Region {
    int64_t x0, y0, x1, y1;
};

struct LightingErrors {
    int noData;
    int size;
    int format;
};

void CheckLightingImages(const Image& source, const Image& target, const LightingErrors& e) {
    if (!source.data || !target.data) kau::Error::Throw(kKiuFile, e.noData);
    if (source.width != target.width || source.height != target.height)
        kau::Error::Throw(kKiuFile, e.size);
    if (source.format != BGR || target.format != BGR) kau::Error::Throw(kKiuFile, e.format);
}

template <typename PixelFn>
void ForEachPixel(const Region& region, PixelFn pixel) {
    for (int64_t y = region.y0; y < region.y1; ++y)
        for (int64_t x = region.x0; x < region.x1; ++x)
            pixel(x, y);
}

// Each channel's reference is its smallest value among the bright pixels, so every value at
// or above it saturates to white. Every pixel of the region is checked before any is written.
bool Compensate(const Image& source, Image& target, const Region& region, unsigned int threshold) {
    uint32_t reference[3] = {255, 255, 255};
    uint32_t bright = 0;
    ForEachPixel(region, [&](int64_t x, int64_t y) {
        const unsigned char* px = source.data + source.PixelOffset(x, y, 3);
        unsigned char luma;
        ConvertRGBtoY(px[2], px[1], px[0], luma);
        if (luma <= threshold) return;
        ++bright;
        for (int c = 0; c < 3; ++c)
            if (px[c] < reference[c]) reference[c] = px[c];
    });
    if (bright < kMinBrightPixels) return false;
    ForEachPixel(region, [&](int64_t x, int64_t y) {
        const unsigned char* px = source.data + source.PixelOffset(x, y, 3);
        unsigned char* out = target.data + target.PixelOffset(x, y, 3);
        for (int c = 0; c < 3; ++c)
            out[c] = px[c] < reference[c] ? static_cast<unsigned char>(px[c] * 255u / reference[c])
                                          : 255;
    });
    return true;
}

}  // namespace

bool Image::CompensateLighting(Image& target, unsigned int threshold) const {
    CheckLightingImages(*this, target, {kErrLightingNoData, kErrLightingSize, kErrLightingFormat});
    return Compensate(*this, target, Region{0, 0, width, height}, threshold);
}

bool Image::CompensateLighting(const xy::Box& box, Image& target, unsigned int threshold) const {
    CheckLightingImages(*this, target,
                        {kErrBoxLightingNoData, kErrBoxLightingSize, kErrBoxLightingFormat});
    Region region{box.x, box.y, int64_t{box.x} + box.width, int64_t{box.y} + box.height};
    return Compensate(*this, target, region, threshold);
}

void Image::EqualizeHistogram() {
    if (!data) kau::Error::Throw(kKiuFile, kErrEqualizeNoData);
    if (format != Gray8 && format != YUV) kau::Error::Throw(kKiuFile, kErrEqualizeFormat);
    uint32_t step = BytesPerPixel(format);
    uint64_t histogram[256] = {};
    for (uint32_t y = 0; y < height; ++y) {
        const unsigned char* row = data + size_t{y} * stride;
        for (uint32_t x = 0; x < width; ++x)
            ++histogram[row[size_t{x} * step]];
    }
    uint64_t pixels = uint64_t{width} * height;
    if (pixels == 0) return;

    // Value 0 always stays 0, whatever its count.
    double scale = 255.0 / static_cast<double>(pixels);
    unsigned char map[256] = {};
    uint64_t cumulative = histogram[0];
    for (int i = 1; i < 256; ++i) {
        cumulative += histogram[i];
        map[i] =
            static_cast<unsigned char>(std::nearbyint(static_cast<double>(cumulative) * scale));
    }
    for (uint32_t y = 0; y < height; ++y) {
        unsigned char* row = data + size_t{y} * stride;
        for (uint32_t x = 0; x < width; ++x)
            row[size_t{x} * step] = map[row[size_t{x} * step]];
    }
}

}  // namespace kiu
