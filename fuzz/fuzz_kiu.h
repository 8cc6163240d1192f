// Helpers of the image-utility fuzz targets: images of fuzzer-chosen formats and sizes whose
// pixels come from the input.
#pragma once

#include "fuzz_common.h"

#include "kiu.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <vector>

namespace fuzz {

// Every format, and values that have no pixel size (0, 7, a YUV order, a four-byte order).
inline constexpr uint32_t kFormatValues[] = {kiu::Gray8,
                                             kiu::Packed16A,
                                             kiu::Packed16B,
                                             kiu::Packed32A,
                                             kiu::Packed32B,
                                             kiu::Packed64,
                                             kiu::ABGR,
                                             kiu::ARGB,
                                             kiu::BGR,
                                             kiu::BGRA,
                                             kiu::RGB,
                                             kiu::RGBA,
                                             kiu::YUV,
                                             kiu::I420,
                                             kiu::CMYK,
                                             kiu::YCCK,
                                             0,
                                             7,
                                             17,
                                             40};

inline kiu::Format PickFormat(FuzzedDataProvider& in) {
    return static_cast<kiu::Format>(in.PickValueInArray(kFormatValues));
}

// Fills n bytes from the input, then with a fixed pattern once the input runs out.
inline void Fill(unsigned char* p, size_t n, FuzzedDataProvider& in) {
    std::vector<uint8_t> bytes = in.ConsumeBytes<uint8_t>(n);
    if (!bytes.empty()) memcpy(p, bytes.data(), bytes.size());
    for (size_t i = bytes.size(); i < n; ++i)
        p[i] = static_cast<unsigned char>(i * 37 + 11);
}

// An image from `heap` with pixels from the input; false when Create refuses the format.
inline bool MakeImage(kiu::Image& image, uint32_t width, uint32_t height, kiu::Format format,
                      kau::mem::Heap& heap, FuzzedDataProvider& in) {
    try {
        image.Create(width, height, format, &heap, nullptr);
    } catch (const kau::Error&) {
        return false;
    }
    Fill(image.data, image.ImageDataSize(), in);
    return true;
}

inline std::vector<unsigned char> Pixels(const kiu::Image& image) {
    return std::vector<unsigned char>(image.data, image.data + image.ImageDataSize());
}

}  // namespace fuzz
