// The image utilities: strides and sizes, colour-space names, conversions against the
// real-valued colour formulas, scaling, rotation, the tone corrections and box drawing.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "kiu.h"

namespace {

// The value of bytes that must stay as they were.
constexpr unsigned char kUntouched = 0xEE;

// An image whose pixels live in `heap`, every byte set to `fill`.
kiu::Image MakeImage(uint32_t width, uint32_t height, kiu::Format format, kau::mem::Heap& heap,
                     unsigned char fill = 0) {
    kiu::Image image;
    image.Create(width, height, format, &heap, nullptr);
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
    // Rows of five pixels, which tell every pixel size apart, padded to 4 bytes.
    const std::pair<kiu::Format, uint32_t> strides[] = {
        {kiu::Gray8, 8},      {kiu::Packed16A, 12}, {kiu::Packed16B, 12}, {kiu::Packed32A, 20},
        {kiu::Packed32B, 20}, {kiu::Packed64, 40},  {kiu::ABGR, 20},      {kiu::ARGB, 20},
        {kiu::BGR, 16},       {kiu::BGRA, 20},      {kiu::RGB, 16},       {kiu::RGBA, 20},
        {kiu::YUV, 16},       {kiu::CMYK, 20},      {kiu::YCCK, 20}};
    kau::mem::Heap heap;
    for (const auto& [format, stride] : strides) {
        kiu::Image image = MakeImage(5, 3, format, heap);
        EXPECT_EQ(image.stride, stride) << format;
        EXPECT_EQ(image.ImageDataSize(), 3 * stride) << format;
    }
    // I420 is a Y plane of even height, then two planes of half the width rounded up to a
    // multiple of 8 by half the height. Width, height, stride, size.
    const uint32_t i420[][4] = {{3, 3, 4, 32}, {1, 1, 4, 16}, {10, 5, 12, 120}, {0, 5, 0, 0}};
    for (const auto& [width, height, stride, size] : i420) {
        kiu::Image image = MakeImage(width, height, kiu::I420, heap);
        EXPECT_EQ(image.stride, stride) << width << "x" << height;
        EXPECT_EQ(image.ImageDataSize(), size) << width << "x" << height;
    }
    // Sizes past 32 bits and formats no image can be made of are refused.
    kiu::Image image;
    EXPECT_THROW(image.Create(0x40000000, 1, kiu::RGBA, &heap, nullptr), kau::Error);
    EXPECT_THROW(image.Create(4, 0xFFFFFFFF, kiu::I420, &heap, nullptr), kau::Error);
    EXPECT_THROW(image.Create(1, 1, kiu::Format(17), &heap, nullptr), kau::Error);
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
    // The bytes of the pixel R=1, G=2, B=3, A=4 in each layout; alpha is 255 where the source
    // has none.
    const std::pair<kiu::Format, std::vector<int>> layouts[] = {
        {kiu::RGBA, {1, 2, 3, 4}}, {kiu::BGRA, {3, 2, 1, 4}}, {kiu::ARGB, {4, 1, 2, 3}},
        {kiu::ABGR, {4, 3, 2, 1}}, {kiu::RGB, {1, 2, 3}},     {kiu::BGR, {3, 2, 1}}};
    kau::mem::Heap heap;
    for (const auto& [from, fromBytes] : layouts)
        for (const auto& [to, toBytes] : layouts) {
            kiu::Image source = MakeImage(3, 2, from, heap), target = MakeImage(3, 2, to, heap);
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
    // Every combination of 19 samples (0, 15, ..., 255 and the chroma centre 128) in each
    // channel, read as R, G, B and as Y, U, V, so that clamping is reached at both ends; the
    // odd sizes cut the I420 chroma blocks at two edges.
    constexpr uint32_t kSamples = 19, kWidth = kSamples, kHeight = kSamples * kSamples;
    constexpr uint32_t kBlocksPerRow = (kWidth + 1) / 2;
    kau::mem::Heap heap;
    auto image = [&](kiu::Format format) { return MakeImage(kWidth, kHeight, format, heap, 99); };
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
    // Each I420 chroma sample is the rounded mean of its block's chroma bytes.
    kiu::PlaneLayout layout = kiu::I420Layout(kWidth, kHeight);
    const unsigned char* u = i420.data + i420.stride * layout.lumaRows;
    const unsigned char* v = u + layout.chromaStride * layout.chromaRows;
    std::vector<std::array<uint32_t, 3>> sums(kBlocksPerRow * layout.chromaRows);
    for (uint32_t i = 0; i < kWidth * kHeight; ++i) {
        const unsigned char *c = PixelOf(rgba, i, 4), *out = PixelOf(yuv, i, 3);
        const unsigned char* y = PixelOf(ycc, i, 3);
        const Triple e = YccOf(c[0], c[1], c[2]);
        auto& [pixels, cb, cr] = sums[i / kWidth / 2 * kBlocksPerRow + i % kWidth / 2];
        ++pixels;
        cb += out[1];
        cr += out[2];
        ASSERT_TRUE(Rounds(out, e)) << i;
        ASSERT_EQ(*PixelOf(gray, i, 1), out[0]) << i;
        ASSERT_EQ(*PixelOf(i420, i, 1), out[0]) << i;
        ASSERT_TRUE(Rounds(PixelOf(fromYcc, i, 4), RgbOf(y[0], y[1], y[2]))) << i;
        ASSERT_EQ(PixelOf(fromYcc, i, 4)[3], 255);
        const size_t chroma = i / kWidth / 2 * layout.chromaStride + i % kWidth / 2;
        ASSERT_TRUE(Rounds(PixelOf(fromI420, i, 4), RgbOf(out[0], u[chroma], v[chroma]))) << i;
    }
    for (uint32_t block = 0; block < sums.size(); ++block) {
        const size_t at = block / kBlocksPerRow * layout.chromaStride + block % kBlocksPerRow;
        const auto& [pixels, cb, cr] = sums[block];
        ASSERT_EQ(u[at], (cb + pixels / 2) / pixels) << block;
        ASSERT_EQ(v[at], (cr + pixels / 2) / pixels) << block;
    }
}

TEST(Scale, HandComputedRowsAndColumns) {
    const std::tuple<std::vector<unsigned char>, uint32_t, std::vector<int>> cases[] = {
        {{0, 0, 200, 0, 0}, 5, {0, 25, 150, 25, 0}},    // same size: blurred by 1/8, 3/4, 1/8
        {{100, 0, 0}, 3, {88, 13, 0}},                  // index -1 reads sample 0,
        {{0, 0, 100}, 3, {0, 13, 88}},                  // index n reads sample n - 1
        {{0, 80, 160}, 6, {10, 10, 80, 80, 150, 150}},  // 2x: outputs 2k, 2k+1 centred on k
        {{80, 160, 240, 0}, 2, {115, 135}},  // halving: weights 1/16, 1/4, 3/8, 1/4, 1/16
        {{0, 0, 255}, 1, {52}},              // 3 to 1 reaches indices -4..4; n + 1 mirrors to n - 2
    };
    kau::mem::Heap heap;
    for (const auto& [row, newLength, expected] : cases)
        for (bool column : {false, true}) {
            std::vector<unsigned char> in = row;
            unsigned char* data = in.data();
            const uint32_t n = uint32_t(row.size());
            unsigned char* out = column ? kiu::ScaleComponent(data, 1, n, 1, newLength, heap)
                                        : kiu::ScaleComponent(data, n, 1, newLength, 1, heap);
            EXPECT_EQ(data, out);
            EXPECT_EQ(std::vector<int>(out, out + newLength), expected) << column;
        }
}

TEST(Rotate, BothWorkersOnNonSquareImages) {
    // Where source pixel (x, y), byte b of which is its index * 8 + b + 1, lands; a quarter turn
    // never copies pixel (0, 0) and lands every pixel after the first target row one position
    // early. Other angles write nothing.
    const std::tuple<kiu::Format, uint32_t, uint32_t, uint32_t> cases[] = {
        {kiu::RGBA, 4, 3, 2}, {kiu::BGRA, 4, 1, 5}, {kiu::BGR, 3, 3, 2}, {kiu::YUV, 3, 2, 7}};
    kau::mem::Heap heap;
    for (const auto& [format, p, w, h] : cases)
        for (unsigned angle : {90u, 180u, 270u}) {
            kiu::Image source = MakeImage(w, h, format, heap, kUntouched);
            kiu::Image target = angle == 180 ? MakeImage(w, h, format, heap, kUntouched)
                                             : MakeImage(h, w, format, heap, kUntouched);
            std::vector<unsigned char> expected(target.data, target.data + target.ImageDataSize());
            for (uint32_t y = 0; y < h; ++y)
                for (uint32_t x = 0; x < w; ++x) {
                    unsigned char* in = PixelOf(source, y * w + x, p);
                    for (uint32_t b = 0; b < p; ++b)
                        in[b] = static_cast<unsigned char>((y * w + x) * 8 + b + 1);
                    size_t at = angle == 180   ? (h - 1 - y) * target.stride + (w - 1 - x) * p
                                : angle == 270 ? (w - 1 - x) * target.stride + y * p
                                               : x * target.stride + (h - 1 - y) * p - (x ? p : 0);
                    if (angle != 90 || x || y) std::memcpy(&expected[at], in, p);
                }
            p == 4 ? source.Rotate(target, angle) : source.Rotate24bpp(target, angle);
            source.Rotate32bpp(target, 45);
            source.Rotate24bpp(target, 0);
            EXPECT_EQ(std::vector<unsigned char>(target.data, target.data + expected.size()),
                      expected)
                << format << " " << w << "x" << h << " by " << angle;
        }
}

TEST(CompensateLighting, NeedsOneHundredPixelsBrighterThanTheThreshold) {
    // Pixels of a bright colour (luminance 224) alternate with white ones up to a count, dark
    // ones (luminance 47) follow. Count, threshold, whether compensated: each channel is
    // stretched so that its smallest bright value becomes 255, rounding down.
    const unsigned char kBright[3] = {200, 220, 240}, kDark[3] = {100, 50, 20};
    const std::tuple<uint32_t, unsigned, bool> cases[] = {
        {100, 150, true}, {99, 150, false}, {200, 223, true}, {0, 46, true}, {0, 47, false}};
    for (const auto& [count, threshold, compensated] : cases) {
        kau::mem::Heap heap;
        kiu::Image source = MakeImage(20, 10, kiu::BGR, heap, 255),
                   target = MakeImage(20, 10, kiu::BGR, heap, kUntouched);
        for (uint32_t i = 0; i < 200; ++i)
            if (i >= count || i % 2 == 0)
                std::memcpy(PixelOf(source, i, 3), i < count ? kBright : kDark, 3);
        EXPECT_EQ(source.CompensateLighting(target, threshold), compensated)
            << count << " " << threshold;
        // With no bright pixel at all, the dark ones are the reference and become white.
        const std::vector<int> untouched(3, kUntouched), white(3, 255),
            dark = count ? std::vector<int>{127, 57, 21} : white;
        for (uint32_t i = 0; i < 200; ++i)
            ASSERT_EQ(BytesAt(PixelOf(target, i, 3), 3), !compensated ? untouched
                                                         : i >= count ? dark
                                                                      : white)
                << count << " " << threshold << " " << i;
    }
}

TEST(EqualizeHistogram, Mappings) {
    const std::tuple<kiu::Format, uint32_t, std::vector<int>, std::vector<int>> cases[] = {
        // 0 stays 0 whatever its count.
        {kiu::Gray8, 2, {0, 0, 1, 2}, {0, 0, 191, 255}},
        // 42.5 and 127.5 both go to the even neighbour.
        {kiu::Gray8, 3, {1, 2, 2, 3, 3, 3}, {42, 128, 128, 255, 255, 255}},
        // Only the Y bytes change.
        {kiu::YUV, 3, {10, 1, 2, 20, 3, 4, 20, 5, 6}, {85, 1, 2, 255, 3, 4, 255, 5, 6}}};
    for (const auto& [format, width, pixels, mapped] : cases) {
        kau::mem::Heap heap;
        uint32_t rowBytes = width * kiu::BytesPerPixel(format),
                 height = uint32_t(pixels.size()) / rowBytes;
        kiu::Image image = MakeImage(width, height, format, heap, kUntouched);
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
            kau::mem::Heap heap;
            kiu::Image image = MakeImage(6, 4, format, heap, kUntouched);
            image.DrawBox(box, colour);
            for (uint32_t i = 0; i < 24; ++i)
                ASSERT_EQ(BytesAt(PixelOf(image, i, 3), 3), drawn[i / 6 * 7 + i % 6] == 'x'
                                                                ? std::vector<int>({3, 2, 1})
                                                                : std::vector<int>(3, kUntouched))
                    << drawn << " pixel " << i;
        }
    // Format 0 and formats of another pixel size are refused before the box is looked at; those
    // without a pixel size fail for want of one. No Create: it refuses some of them.
    const std::pair<kiu::Format, int> refused[] = {{kiu::Format{}, kiu::kErrDrawBoxFormat},
                                                   {kiu::Gray8, kiu::kErrDrawBoxFormat},
                                                   {kiu::RGBA, kiu::kErrDrawBoxFormat},
                                                   {kiu::I420, kiu::kErrBytesPerPixel},
                                                   {kiu::Format(17), kiu::kErrBytesPerPixel}};
    unsigned char pixels[6 * 4 * 8] = {};
    for (const auto& [format, position] : refused) {
        kiu::Image image{format, 6, 4, 6 * 8, pixels};
        xy::Box box = {1, 1, 2, 2};
        try {
            image.DrawBox(box, colour);
            ADD_FAILURE() << "drawn in format " << format;
        } catch (const kau::Error& e) {
            EXPECT_EQ(e.Position(), position) << format;
        }
    }
}

}  // namespace
