// Shared helpers of the image-utility tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "kiu.h"

// Where a kau::Error was raised; empty when nothing was.
struct Raised {
    std::string file;
    int position = 0;
    bool operator==(const Raised& o) const { return file == o.file && position == o.position; }
};

inline std::ostream& operator<<(std::ostream& os, const Raised& r) {
    return os << (r.file.empty() ? "nothing" : r.file) << " +" << r.position;
}

template <typename F>
Raised RaisedBy(F&& f) {
    try {
        f();
    } catch (const kau::Error& e) {
        return {e.FileName(), e.Position()};
    }
    return {};
}

inline Raised KiuError(int position) {
    return {kiu::kKiuFile, position};
}
inline Raised KauError(int position) {
    return {kau::kKauFile, position};
}

// An image whose pixels live in `heap`, every byte set to `fill`.
inline kiu::Image MakeImage(uint32_t width, uint32_t height, kiu::Format format,
                            kau::mem::Heap& heap, unsigned char fill = 0) {
    kiu::Image image;
    image.Create(width, height, format, &heap, nullptr);
    kau::mem::Set8(image.data, fill, image.ImageDataSize());
    return image;
}

inline unsigned char* PixelOf(const kiu::Image& image, uint32_t x, uint32_t y, uint32_t size) {
    return image.data + size_t{y} * image.stride + size_t{x} * size;
}

inline std::vector<int> BytesAt(const unsigned char* p, size_t n) {
    return std::vector<int>(p, p + n);
}

// Deterministic pseudo-random bytes.
inline std::vector<unsigned char> RandomBytes(size_t n, uint32_t seed) {
    std::vector<unsigned char> bytes(n);
    for (auto& b : bytes)
        b = static_cast<unsigned char>((seed = seed * 1664525u + 1013904223u) >> 24);
    return bytes;
}

inline double Clamp(double v) {
    return std::min(255.0, std::max(0.0, v));
}

// Exact YCbCr of an RGB colour (chroma centred on 128) and exact, clamped RGB of a YCbCr one.
struct Triple {
    double a, b, c;
};
inline Triple YccOf(double r, double g, double b) {
    return {0.299 * r + 0.587 * g + 0.114 * b, 128 - 0.16874 * r - 0.33126 * g + 0.5 * b,
            128 + 0.5 * r - 0.41869 * g - 0.08131 * b};
}
inline Triple RgbOf(double y, double u, double v) {
    return {Clamp(y + 1.402 * (v - 128)), Clamp(y - 0.34414 * (u - 128) - 0.71414 * (v - 128)),
            Clamp(y + 1.772 * (u - 128))};
}

// Whether three bytes are the exact values rounded, allowing the fixed-point constants.
inline bool Rounds(const unsigned char* p, const Triple& exact, double slack = 0.501) {
    return std::abs(p[0] - exact.a) <= slack && std::abs(p[1] - exact.b) <= slack &&
           std::abs(p[2] - exact.c) <= slack;
}
