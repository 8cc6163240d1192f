// The image utilities: strides and sizes, colour-space names, conversions against the
// real-valued colour formulas, scaling, rotation, the tone corrections and box drawing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <tuple>
#include <vector>

#include "kiu.h"

namespace {

// The value of bytes that must stay as they were, the fill of every new image.
constexpr unsigned char kUntouched = 0xEE;

// Every image of these tests takes its pixels from here.
kau::mem::Heap heap;

kiu::Image MakeImage(uint32_t w, uint32_t h, kiu::Format format, unsigned char fill = kUntouched) {
    kiu::Image image;
    image.Create(w, h, format, &heap, nullptr);
    kau::mem::Set8(image.data, fill, image.ImageDataSize());
    return image;
}

unsigned char* PixelOf(const kiu::Image& image, uint32_t i, uint32_t size) {
    return image.data + size_t{i / image.width} * image.stride + size_t{i % image.width} * size;
}

std::vector<int> BytesAt(const unsigned char* p, size_t n) {
    return std::vector<int>(p, p + n);
}

TEST(Image, StrideAndSizeOfEveryFormat) {
    // Nine pixels a row tell every pixel size apart; rows are padded to 4 bytes. I420 is a Y
    // plane of even height, then two planes of half the width rounded up to 8 by half the height.
    const std::tuple<kiu::Format, uint32_t, uint32_t> cases[] = {
        {kiu::Gray8, 12, 60},      {kiu::Packed16A, 20, 100}, {kiu::Packed16B, 20, 100},
        {kiu::Packed32A, 36, 180}, {kiu::Packed32B, 36, 180}, {kiu::Packed64, 72, 360},
        {kiu::ABGR, 36, 180},      {kiu::ARGB, 36, 180},      {kiu::BGR, 28, 140},
        {kiu::BGRA, 36, 180},      {kiu::RGB, 28, 140},       {kiu::RGBA, 36, 180},
        {kiu::YUV, 28, 140},       {kiu::CMYK, 36, 180},      {kiu::YCCK, 36, 180},
        {kiu::I420, 12, 120}};
    for (const auto& [format, stride, size] : cases) {
        kiu::Image image = MakeImage(9, 5, format);
        EXPECT_EQ(image.stride, stride) << format;
        EXPECT_EQ(image.ImageDataSize(), size) << format;
    }
    // Sizes past 32 bits and formats no image can be made of are refused.
    EXPECT_THROW(MakeImage(0x40000000, 1, kiu::RGBA), kau::Error);
    EXPECT_THROW(MakeImage(4, 0xFFFFFFFF, kiu::I420), kau::Error);
    EXPECT_THROW(MakeImage(1, 1, kiu::Format(17)), kau::Error);
}

TEST(Image, ColorSpaceNames) {
    // One name of each kind, in either case; the YUV orders run from 17 to 21 and 32 to 55.
    const std::pair<const char*, uint32_t> known[] = {
        {"bgr", kiu::BGR},   {"RGBA", kiu::RGBA}, {"aBgR", kiu::ABGR}, {"yuv", kiu::YUV},
        {"VYU", 21},         {"yzuv", 32},        {"VZYU", 55},        {"i420", kiu::I420},
        {"CMYK", kiu::CMYK}, {"ycck", kiu::YCCK}};
    for (const auto& [name, value] : known)
        EXPECT_EQ(kiu::ColorSpaceFrom(name), value) << name;
    for (const char* name : {"rgbax", "rgbx", "rgb ", "rgx", "ab", "", "RG\xC2"})
        EXPECT_THROW(kiu::ColorSpaceFrom(name), kau::Error) << name;
}

TEST(ConvertTo, ByteOrdersBothWays) {
    // The pixel R=1, G=2, B=3, A=4 in each layout; alpha is 255 where the source has none.
    const std::pair<kiu::Format, std::vector<int>> layouts[] = {
        {kiu::RGBA, {1, 2, 3, 4}}, {kiu::BGRA, {3, 2, 1, 4}}, {kiu::ARGB, {4, 1, 2, 3}},
        {kiu::ABGR, {4, 3, 2, 1}}, {kiu::RGB, {1, 2, 3}},     {kiu::BGR, {3, 2, 1}}};
    for (const auto& [from, fromBytes] : layouts)
        for (const auto& [to, toBytes] : layouts) {
            kiu::Image source = MakeImage(3, 2, from), target = MakeImage(3, 2, to);
            for (uint32_t i = 0; i < 6; ++i)
                std::copy(fromBytes.begin(), fromBytes.end(), PixelOf(source, i, fromBytes.size()));
            source.ConvertTo(target);
            std::vector<int> expected = toBytes;
            if (fromBytes.size() == 3) std::replace(expected.begin(), expected.end(), 4, 255);
            for (uint32_t i = 0; i < 6; ++i)
                EXPECT_EQ(BytesAt(PixelOf(target, i, toBytes.size()), toBytes.size()), expected)
                    << from << " to " << to;
        }
}

// Exact YCbCr of an RGB colour (chroma centred on 128) and exact, clamped RGB of a YCbCr one.
using Triple = std::array<double, 3>;
Triple YccOf(double r, double g, double b) {
    return {0.299 * r + 0.587 * g + 0.114 * b, 128 - 0.16874 * r - 0.33126 * g + 0.5 * b,
            128 + 0.5 * r - 0.41869 * g - 0.08131 * b};
}
Triple RgbOf(double y, double u, double v) {
    auto clamp = [](double x) { return std::min(255.0, std::max(0.0, x)); };
    return {clamp(y + 1.402 * (v - 128)), clamp(y - 0.34414 * (u - 128) - 0.71414 * (v - 128)),
            clamp(y + 1.772 * (u - 128))};
}

// Whether three bytes are the exact values rounded, allowing the fixed-point constants.
bool Rounds(const unsigned char* p, const Triple& exact) {
    return std::abs(p[0] - exact[0]) <= 0.501 && std::abs(p[1] - exact[1]) <= 0.501 &&
           std::abs(p[2] - exact[2]) <= 0.501;
}

TEST(ConvertTo, AgainstTheColourFormulas) {
    // All combinations of 0, 15, ..., 255 and the chroma centre 128, read as RGB and as YUV so
    // that clamping is reached at both ends; the odd sizes cut the I420 blocks at two edges.
    constexpr uint32_t kSamples = 19, kWidth = kSamples, kHeight = kSamples * kSamples;
    auto image = [](kiu::Format format) { return MakeImage(kWidth, kHeight, format, 99); };
    kiu::Image rgba = image(kiu::RGBA), ycc = image(kiu::YUV), gray = image(kiu::Gray8),
               yuv = image(kiu::YUV), i420 = image(kiu::I420), fromYcc = image(kiu::RGBA),
               fromI420 = image(kiu::RGBA);
    for (uint32_t i = 0; i < kWidth * kHeight; ++i)
        for (uint32_t c = 0, k = i; c < 3; ++c, k /= kSamples)
            PixelOf(rgba, i, 4)[c] = PixelOf(ycc, i, 3)[c] =
                static_cast<unsigned char>(k % kSamples < kSamples - 1 ? k % kSamples * 15 : 128);
    for (kiu::Image* target : {&gray, &yuv, &i420})
        rgba.ConvertTo(*target);
    ycc.ConvertTo(fromYcc);
    i420.ConvertTo(fromI420);
    // Each I420 chroma sample is the rounded mean of its block's chroma bytes; the padding of
    // the chroma rows keeps the fill.
    kiu::PlaneLayout layout = kiu::I420Layout(kWidth, kHeight);
    const unsigned char* u = i420.data + i420.stride * layout.lumaRows;
    const unsigned char* v = u + layout.chromaStride * layout.chromaRows;
    std::vector<std::array<uint32_t, 3>> sums(layout.chromaStride * layout.chromaRows);
    for (uint32_t i = 0; i < kWidth * kHeight; ++i) {
        const unsigned char *c = PixelOf(ycc, i, 3), *out = PixelOf(yuv, i, 3);
        const size_t chroma = i / kWidth / 2 * layout.chromaStride + i % kWidth / 2;
        auto& [pixels, cb, cr] = sums[chroma];
        ++pixels;
        cb += out[1];
        cr += out[2];
        ASSERT_TRUE(Rounds(out, YccOf(c[0], c[1], c[2]))) << i;
        ASSERT_EQ(*PixelOf(gray, i, 1), out[0]) << i;
        ASSERT_EQ(*PixelOf(i420, i, 1), out[0]) << i;
        ASSERT_TRUE(Rounds(PixelOf(fromYcc, i, 4), RgbOf(c[0], c[1], c[2]))) << i;
        ASSERT_EQ(PixelOf(fromYcc, i, 4)[3], 255);
        ASSERT_TRUE(Rounds(PixelOf(fromI420, i, 4), RgbOf(out[0], u[chroma], v[chroma]))) << i;
    }
    for (size_t at = 0; at < sums.size(); ++at) {
        const auto& [pixels, cb, cr] = sums[at];
        ASSERT_EQ(u[at], pixels ? (cb + pixels / 2) / pixels : 99) << at;
        ASSERT_EQ(v[at], pixels ? (cr + pixels / 2) / pixels : 99) << at;
    }
}

TEST(Scale, HandComputedRowsAndColumns) {
    std::tuple<std::vector<unsigned char>, uint32_t, std::vector<int>> cases[] = {
        {{0, 0, 200, 0, 0}, 5, {0, 25, 150, 25, 0}},    // same size: blurred by 1/8, 3/4, 1/8
        {{100, 0, 0}, 3, {88, 13, 0}},                  // index -1 reads sample 0,
        {{0, 0, 100}, 3, {0, 13, 88}},                  // index n reads sample n - 1
        {{0, 80, 160}, 6, {10, 10, 80, 80, 150, 150}},  // 2x: outputs 2k, 2k+1 centred on k
        {{80, 160, 240, 0}, 2, {115, 135}},  // halving: weights 1/16, 1/4, 3/8, 1/4, 1/16
        {{0, 0, 255}, 1, {52}},              // 3 to 1 reaches indices -4..4; n + 1 mirrors to n - 2
    };
    for (auto& [row, newLength, expected] : cases)
        for (bool column : {false, true}) {
            unsigned char* data = row.data();
            const uint32_t n = uint32_t(row.size());
            unsigned char* out = column ? kiu::ScaleComponent(data, 1, n, 1, newLength, heap)
                                        : kiu::ScaleComponent(data, n, 1, newLength, 1, heap);
            EXPECT_EQ(data, out);
            EXPECT_EQ(BytesAt(out, newLength), expected) << column;
        }
}

TEST(Rotate, BothWorkersOnNonSquareImages) {
    // Byte b of source pixel i is i * 8 + b + 1. A quarter turn never copies pixel (0, 0) and lands
    // every pixel after the first target row one early; other angles write nothing.
    const std::tuple<kiu::Format, uint32_t, uint32_t, uint32_t> cases[] = {
        {kiu::RGBA, 4, 3, 2}, {kiu::BGRA, 4, 1, 5}, {kiu::BGR, 3, 3, 2}, {kiu::YUV, 3, 2, 7}};
    for (const auto& [format, p, w, h] : cases)
        for (unsigned angle : {90u, 180u, 270u}) {
            kiu::Image source = MakeImage(w, h, format),
                       target = MakeImage(angle == 180 ? w : h, angle == 180 ? h : w, format);
            std::vector<int> expected = BytesAt(target.data, target.ImageDataSize());
            for (uint32_t y = 0; y < h; ++y)
                for (uint32_t x = 0; x < w; ++x) {
                    unsigned char* in = PixelOf(source, y * w + x, p);
                    for (uint32_t b = 0; b < p; ++b)
                        in[b] = static_cast<unsigned char>((y * w + x) * 8 + b + 1);
                    size_t at = angle == 180   ? (h - 1 - y) * target.stride + (w - 1 - x) * p
                                : angle == 270 ? (w - 1 - x) * target.stride + y * p
                                               : x * target.stride + (h - 1 - y) * p - (x ? p : 0);
                    if (angle != 90 || x || y) std::copy(in, in + p, &expected[at]);
                }
            p == 4 ? source.Rotate(target, angle) : source.Rotate24bpp(target, angle);
            source.Rotate32bpp(target, 45);
            source.Rotate24bpp(target, 0);
            EXPECT_EQ(BytesAt(target.data, expected.size()), expected)
                << format << " " << w << "x" << h << " by " << angle;
        }
}

TEST(CompensateLighting, NeedsOneHundredPixelsBrighterThanTheThreshold) {
    // Bright pixels (luminance 224) alternate with white ones up to a count, dark ones (47)
    // follow. Each channel stretches so that its smallest bright value becomes 255, rounding down.
    const unsigned char kBright[3] = {200, 220, 240}, kDark[3] = {100, 50, 20};
    const std::tuple<uint32_t, unsigned, bool> cases[] = {
        {100, 150, true}, {99, 150, false}, {200, 223, true}, {0, 46, true}, {0, 47, false}};
    for (const auto& [count, threshold, compensated] : cases) {
        kiu::Image source = MakeImage(20, 10, kiu::BGR, 255), target = MakeImage(20, 10, kiu::BGR);
        for (uint32_t i = 0; i < 200; ++i)
            if (i >= count || i % 2 == 0)
                std::copy_n(i < count ? kBright : kDark, 3, PixelOf(source, i, 3));
        EXPECT_EQ(source.CompensateLighting(target, threshold), compensated)
            << count << " " << threshold;
        // With no bright pixel at all, the dark ones are the reference and become white.
        const std::vector<int> untouched(3, kUntouched), white(3, 255),
            dark = count ? std::vector<int>{127, 57, 21} : white;
        for (uint32_t i = 0; i < 200; ++i)
            ASSERT_EQ(BytesAt(PixelOf(target, i, 3), 3),
                      compensated ? (i < count ? white : dark) : untouched)
                << count << " " << threshold << " " << i;
    }
}

TEST(EqualizeHistogram, Mappings) {
    const std::tuple<kiu::Format, uint32_t, std::vector<int>, std::vector<int>> cases[] = {
        {kiu::Gray8, 2, {0, 0, 1, 2}, {0, 0, 191, 255}},                     // 0 stays 0
        {kiu::Gray8, 3, {1, 2, 2, 3, 3, 3}, {42, 128, 128, 255, 255, 255}},  // 42.5, 127.5 to even
        {kiu::YUV, 3, {10, 1, 2, 20, 3, 4, 20, 5, 6}, {85, 1, 2, 255, 3, 4, 255, 5, 6}}};  // Y only
    for (const auto& [format, width, pixels, mapped] : cases) {
        uint32_t rowBytes = width * kiu::BytesPerPixel(format),
                 height = uint32_t(pixels.size()) / rowBytes;
        kiu::Image image = MakeImage(width, height, format);
        std::vector<int> expected(image.data, image.data + image.ImageDataSize());  // padding stays
        for (uint32_t i = 0; i < pixels.size(); ++i) {
            image.data[i / rowBytes * image.stride + i % rowBytes] = pixels[i];
            expected[i / rowBytes * image.stride + i % rowBytes] = mapped[i];
        }
        image.EqualizeHistogram();
        EXPECT_EQ(BytesAt(image.data, image.ImageDataSize()), expected);
    }
}

TEST(DrawBox, ClippedOutlinesWithTheColourReversedInThreeBytePixelsOnly) {
    // The drawn pixels of a 6x4 image, row by row.
    const std::pair<xy::Box, const char*> cases[] = {
        {{-10, 0, 5, 2}, "x..... x..... x..... ......"},
        {{1, 1, 10, 1}, "...... .xxxxx .xxxxx ......"},
        {{1, 2, 2, -1}, "...... ...... .xxx.. ......"},  // y1 above y0: only row y0
        {{4, 3, -3, -2}, "...... ...... ...... ......"},
        {{-5, -5, 100, 100}, "xxxxxx x....x x....x xxxxxx"}};
    const unsigned char colour[3] = {1, 2, 3};
    for (kiu::Format format : {kiu::RGB, kiu::BGR, kiu::YUV})
        for (auto [box, drawn] : cases) {
            kiu::Image image = MakeImage(6, 4, format);
            image.DrawBox(box, colour);
            for (uint32_t i = 0; i < 24; ++i)
                ASSERT_EQ(BytesAt(PixelOf(image, i, 3), 3), drawn[i / 6 * 7 + i % 6] == 'x'
                                                                ? std::vector<int>({3, 2, 1})
                                                                : std::vector<int>(3, kUntouched))
                    << drawn << " pixel " << i;
        }
    // Format 0 and other pixel sizes are refused first, formats without a size for want of one.
    const std::pair<kiu::Format, int> refused[] = {{kiu::Format{}, kiu::kErrDrawBoxFormat},
                                                   {kiu::Gray8, kiu::kErrDrawBoxFormat},
                                                   {kiu::RGBA, kiu::kErrDrawBoxFormat},
                                                   {kiu::I420, kiu::kErrBytesPerPixel},
                                                   {kiu::Format(17), kiu::kErrBytesPerPixel}};
    unsigned char pixels[6 * 4 * 8] = {};
    xy::Box box = {1, 1, 2, 2};
    for (const auto& [format, position] : refused) {
        kiu::Image image{format, 6, 4, 6 * 8, pixels};  // Create refuses some of these formats
        EXPECT_THAT([&] { image.DrawBox(box, colour); },
                    testing::Throws<kau::Error>(testing::Property(&kau::Error::Position, position)))
            << format;
    }
}

}  // namespace
