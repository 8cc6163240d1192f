// The image utilities: strides and sizes, colour-space names, the clamping table, conversions
// against the real-valued colour formulas, scaling, rotation and the tone corrections.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "kiu.h"

namespace {

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

// Deterministic pseudo-random bytes.
std::vector<unsigned char> RandomBytes(size_t n, uint32_t seed) {
    std::vector<unsigned char> bytes(n);
    for (auto& b : bytes)
        b = static_cast<unsigned char>((seed = seed * 1664525u + 1013904223u) >> 24);
    return bytes;
}

// Exact YCbCr of an RGB colour (chroma centred on 128) and exact, clamped RGB of a YCbCr one.
struct Triple {
    double a, b, c;
};
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
bool Rounds(const unsigned char* p, const Triple& exact, double slack = 0.501) {
    return std::abs(p[0] - exact.a) <= slack && std::abs(p[1] - exact.b) <= slack &&
           std::abs(p[2] - exact.c) <= slack;
}

TEST(Image, StrideAndSizeOfEveryFormat) {
    // Rows padded to 4 bytes; I420 is a Y plane of even height, then two planes of half the
    // width rounded up to a multiple of 8 by half the height.
    const uint32_t cases[][5] = {
        {kiu::Gray8, 5, 3, 8, 24},    {kiu::Packed16A, 3, 2, 8, 16},
        {kiu::Packed16B, 1, 1, 4, 4}, {kiu::Packed32A, 3, 2, 12, 24},
        {kiu::Packed32B, 1, 1, 4, 4}, {kiu::Packed64, 3, 1, 24, 24},
        {kiu::ABGR, 2, 2, 8, 16},     {kiu::ARGB, 1, 3, 4, 12},
        {kiu::BGR, 3, 2, 12, 24},     {kiu::BGRA, 5, 1, 20, 20},
        {kiu::RGB, 5, 2, 16, 32},     {kiu::RGBA, 7, 2, 28, 56},
        {kiu::YUV, 3, 3, 12, 36},     {kiu::CMYK, 2, 1, 8, 8},
        {kiu::YCCK, 3, 1, 12, 12},    {kiu::RGBA, 0, 5, 0, 0},
        {kiu::I420, 3, 3, 4, 32},     {kiu::I420, 1, 1, 4, 16},
        {kiu::I420, 10, 5, 12, 120},
    };
    for (const auto& [format, width, height, stride, size] : cases) {
        kau::mem::Heap heap;
        kiu::Image image = MakeImage(width, height, kiu::Format(format), heap);
        EXPECT_EQ(image.stride, stride) << format << " " << width;
        EXPECT_EQ(image.ImageDataSize(), size) << format << " " << width;
    }
    // Sizes past 32 bits and formats no image can be made of are refused.
    const uint32_t refused[][3] = {
        {0x40000000, 1, kiu::RGBA}, {4, 0xFFFFFFFF, kiu::I420}, {1, 1, 17}};
    for (const auto& [width, height, format] : refused) {
        kau::mem::Heap heap;
        kiu::Image image;
        EXPECT_THROW(image.Create(width, height, kiu::Format(format), &heap, nullptr), kau::Error)
            << width << "x" << height << " " << format;
    }
}

TEST(Image, ColorSpaceNamesInEitherCase) {
    const char* names[] = {"abgr", "argb", "bgr",  "bgra", "rgb",  "rgba", "yuv",  "yvu",
                           "uvy",  "uyv",  "vuy",  "vyu",  "yzuv", "yzvu", "yuvz", "yuzv",
                           "yvuz", "yvzu", "zyuv", "zyvu", "zuvy", "zuyv", "zvuy", "zvyu",
                           "uyzv", "uyvz", "uzvy", "uzyv", "uvzy", "uvyz", "vyuz", "vyzu",
                           "vuzy", "vuyz", "vzuy", "vzyu", "i420", "cmyk", "ycck"};
    const uint32_t values[] = {8,  9,  10, 11, 12, 13, 16, 17, 18, 19, 20, 21,  32,
                               33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44,  45,
                               46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 64, 128, 256};
    for (size_t i = 0; i < std::size(names); ++i) {
        std::string upper = names[i];
        for (char& ch : upper)
            ch = static_cast<char>(std::toupper(ch));
        EXPECT_EQ(kiu::ColorSpaceFrom(names[i]), values[i]) << names[i];
        EXPECT_EQ(kiu::ColorSpaceFrom(upper.c_str()), values[i]) << upper;
    }
    for (const char* name : {"rgbax", "rgbx", "rgb ", "rgx", "ab", "", "RG\xC2"})
        EXPECT_THROW(kiu::ColorSpaceFrom(name), kau::Error) << name;
}

TEST(Image, ClampingTableRanges) {
    for (int v = -256; v <= 1151; ++v) {
        int expected = v < 0 ? 0 : v <= 255 ? v : v <= 639 ? 255 : v <= 1023 ? 0 : v - 1024;
        ASSERT_EQ(kiu::ubyteRangeLimit[v], expected) << v;
    }
    EXPECT_EQ(kiu::ubyteRangeLimit[1152], 1) << "the tables are complete";
}

TEST(ConvertTo, ByteOrdersBothWays) {
    // The bytes of the pixel R=1, G=2, B=3, A=4 in each layout; alpha is 255 where the source
    // has none.
    const std::pair<kiu::Format, std::vector<int>> layouts[] = {
        {kiu::RGBA, {1, 2, 3, 4}}, {kiu::BGRA, {3, 2, 1, 4}}, {kiu::ARGB, {4, 1, 2, 3}},
        {kiu::ABGR, {4, 3, 2, 1}}, {kiu::RGB, {1, 2, 3}},     {kiu::BGR, {3, 2, 1}},
    };
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

TEST(ConvertTo, RoundTripsThroughLuminanceAndChroma) {
    // RGBA to YUV and back, to Gray8 and to I420, against the exact formulas; I420 chroma is
    // the mean over 2x2 blocks, cut at the edges of an odd-sized image.
    kau::mem::Heap heap;
    kiu::Image rgba = MakeImage(7, 3, kiu::RGBA, heap), gray = MakeImage(7, 3, kiu::Gray8, heap),
               yuv = MakeImage(7, 3, kiu::YUV, heap), back = MakeImage(7, 3, kiu::RGBA, heap),
               i420 = MakeImage(7, 3, kiu::I420, heap);
    auto colours = RandomBytes(rgba.ImageDataSize(), 11);
    std::memcpy(rgba.data, colours.data(), colours.size());
    for (kiu::Image* target : {&gray, &yuv, &i420})
        rgba.ConvertTo(*target);
    yuv.ConvertTo(back);
    for (uint32_t i = 0; i < 21; ++i) {
        const unsigned char *c = PixelOf(rgba, i, 4), *v = PixelOf(yuv, i, 3);
        Triple e = YccOf(c[0], c[1], c[2]);
        EXPECT_LE(std::abs(*PixelOf(gray, i, 1) - e.a), 0.501) << i;
        EXPECT_TRUE(Rounds(v, e)) << i;
        EXPECT_TRUE(Rounds(PixelOf(back, i, 4), RgbOf(v[0], v[1], v[2]))) << i;
        EXPECT_EQ(PixelOf(back, i, 4)[3], 255);
        EXPECT_EQ(i420.data[i / 7 * i420.stride + i % 7], v[0]) << i;
    }
    kiu::PlaneLayout layout = kiu::I420Layout(7, 3);
    const unsigned char* u = i420.data + i420.stride * layout.lumaRows;
    for (uint32_t block = 0; block < 8; ++block) {
        double sums[2] = {}, n = 0;
        for (uint32_t i = 0; i < 21; ++i) {
            if (i / 7 / 2 * 4 + i % 7 / 2 != block) continue;
            const unsigned char* c = PixelOf(rgba, i, 4);
            Triple e = YccOf(c[0], c[1], c[2]);
            sums[0] += e.b, sums[1] += e.c, ++n;
        }
        for (uint32_t plane = 0; plane < 2; ++plane)
            EXPECT_LE(std::abs(u[plane * layout.chromaStride * layout.chromaRows +
                                 block / 4 * layout.chromaStride + block % 4] -
                               sums[plane] / n),
                      1.01)
                << block;
    }
}

// Samples of each channel: both ends and the chroma centre.
std::vector<int> Samples() {
    std::vector<int> s = {128};
    for (int v = 0; v < 256; v += 15)
        s.push_back(v);
    return s;
}

TEST(ConvertRow, RgbToYcc) {
    std::vector<unsigned char> rgbx;
    for (int r : Samples())
        for (int g : Samples())
            for (int b : Samples())
                rgbx.insert(rgbx.end(), {(unsigned char)r, (unsigned char)g, (unsigned char)b, 99});
    size_t n = rgbx.size() / 4;
    std::vector<unsigned char> row(3 * n);
    kiu::ConvertRGBtoYUV(n, rgbx.data(), row.data());
    for (size_t i = 0; i < n; ++i) {
        const unsigned char* c = &rgbx[4 * i];
        unsigned char yuv[3], y;
        kiu::ConvertRGBtoYUV(c[0], c[1], c[2], yuv[0], yuv[1], yuv[2]);
        kiu::ConvertRGBtoY(c[0], c[1], c[2], y);
        ASSERT_TRUE(Rounds(yuv, YccOf(c[0], c[1], c[2]))) << testing::PrintToString(BytesAt(c, 3));
        ASSERT_EQ(BytesAt(yuv, 3), BytesAt(&row[3 * i], 3));
        ASSERT_EQ(y, yuv[0]);
    }
}

TEST(ConvertRow, YccToRgb) {
    std::vector<unsigned char> y, u, v, yuv;
    for (int a : Samples())
        for (int b : Samples())
            for (int c : Samples()) {
                y.push_back(a), u.push_back(b), v.push_back(c);
                yuv.insert(yuv.end(), {(unsigned char)a, (unsigned char)b, (unsigned char)c});
            }
    size_t n = y.size();
    unsigned char* rows[3] = {y.data(), u.data(), v.data()};
    unsigned char** planes[3] = {&rows[0], &rows[1], &rows[2]};
    std::vector<unsigned char> fromPlanes(4 * n, 0xEE), interleaved(4 * n, 0xEE), alpha(4 * n);
    kiu::ConvertYUVtoRGB(n, planes, 0, fromPlanes.data());
    kiu::ConvertYUVtoRGB(n, yuv.data(), interleaved.data());
    kiu::ConvertYUV111toRGBA(n, planes, 77, alpha.data());
    for (size_t i = 0; i < n; ++i) {
        const unsigned char* p = &fromPlanes[4 * i];
        ASSERT_TRUE(Rounds(p, RgbOf(y[i], u[i], v[i])))
            << testing::PrintToString(BytesAt(&yuv[3 * i], 3));
        ASSERT_EQ(p[3], 0xEE) << "the fourth byte is left alone";
        ASSERT_EQ(BytesAt(p, 4), BytesAt(&interleaved[4 * i], 4));
        ASSERT_EQ(BytesAt(&alpha[4 * i], 4), std::vector<int>({p[0], p[1], p[2], 77}));
    }
}

// The value of bytes that must stay as they were.
constexpr unsigned char kUntouched = 0xEE;

std::vector<int> Component(std::vector<unsigned char> in, uint32_t w, uint32_t h, uint32_t nw,
                           uint32_t nh, kau::mem::Heap& heap) {
    unsigned char* data = in.data();
    unsigned char* out = kiu::ScaleComponent(data, w, h, nw, nh, heap);
    EXPECT_EQ(data, out);
    return std::vector<int>(out, out + size_t{nw} * nh);
}

TEST(Scale, HandComputedRowsAndColumns) {
    const std::tuple<std::vector<unsigned char>, uint32_t, std::vector<int>> cases[] = {
        // Same size: blurred by 0.125, 0.75, 0.125; flat stays flat.
        {{0, 0, 200, 0, 0}, 5, {0, 25, 150, 25, 0}},
        {{90, 90, 90, 90}, 4, {90, 90, 90, 90}},
        // At the borders index -1 reads sample 0 and index n reads sample n - 1.
        {{100, 0, 0}, 3, {88, 13, 0}},
        {{0, 0, 100}, 3, {0, 13, 88}},
        // Enlarging 2x centres outputs 2k and 2k+1 on sample k.
        {{0, 80, 160}, 6, {10, 10, 80, 80, 150, 150}},
        // Halving: weights 0.0625, 0.25, 0.375, 0.25, 0.0625 around samples 0 and 2.
        {{80, 160, 240, 0}, 2, {115, 135}},
        // Shrinking 3 to 1 reaches indices -4..4; n + 1 mirrors to n - 2.
        {{0, 0, 255}, 1, {52}},
    };
    kau::mem::Heap heap;
    for (const auto& [row, newLength, expected] : cases) {
        uint32_t n = uint32_t(row.size());
        EXPECT_EQ(Component(row, n, 1, newLength, 1, heap), expected);
        EXPECT_EQ(Component(row, 1, n, 1, newLength, heap), expected) << "as a column";
    }
}

// Byte b of pixel i is i * 8 + b + 1, so that pixels are told apart.
kiu::Image Numbered(uint32_t w, uint32_t h, kiu::Format format, uint32_t p, kau::mem::Heap& heap) {
    kiu::Image image = MakeImage(w, h, format, heap, kUntouched);
    for (uint32_t i = 0; i < w * h; ++i)
        for (uint32_t b = 0; b < p; ++b)
            PixelOf(image, i, p)[b] = static_cast<unsigned char>(i * 8 + b + 1);
    return image;
}

TEST(Rotate, TwoByTwo) {
    // Source pixels a, b over c, d; -1 is a pixel left as it was.
    const std::pair<unsigned, std::vector<int>> cases[] = {
        {180, {3, 2, 1, 0}},
        {270, {1, 3, 0, 2}},
        {90, {2, 3, 1, -1}},  // a correct quarter turn would give c, a, d, b
    };
    kau::mem::Heap heap;
    kiu::Image source = Numbered(2, 2, kiu::RGBA, 4, heap);
    for (const auto& [angle, order] : cases) {
        kiu::Image target = MakeImage(2, 2, kiu::RGBA, heap, kUntouched);
        source.Rotate(target, angle);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(target.data[4 * i], order[i] < 0 ? kUntouched : order[i] * 8 + 1)
                << angle << " " << i;
    }
}

TEST(Rotate, BothWorkersOnNonSquareImages) {
    // Where source pixel (x, y) lands; a quarter turn never copies pixel (0, 0) and lands every
    // pixel after the first target row one position early. Other angles write nothing.
    const std::tuple<kiu::Format, uint32_t, uint32_t, uint32_t> cases[] = {
        {kiu::RGBA, 4, 3, 2},
        {kiu::BGRA, 4, 1, 5},
        {kiu::BGR, 3, 3, 2},
        {kiu::YUV, 3, 2, 7},
    };
    kau::mem::Heap heap;
    for (const auto& [format, p, w, h] : cases)
        for (unsigned angle : {90u, 180u, 270u}) {
            kiu::Image source = Numbered(w, h, format, p, heap);
            kiu::Image target = angle == 180 ? MakeImage(w, h, format, heap, kUntouched)
                                             : MakeImage(h, w, format, heap, kUntouched);
            std::vector<unsigned char> expected(target.data, target.data + target.ImageDataSize());
            for (uint32_t y = 0; y < h; ++y)
                for (uint32_t x = 0; x < w; ++x) {
                    size_t at = angle == 180   ? (h - 1 - y) * target.stride + (w - 1 - x) * p
                                : angle == 270 ? (w - 1 - x) * target.stride + y * p
                                               : x * target.stride + (h - 1 - y) * p - (x ? p : 0);
                    if (angle != 90 || x || y)
                        std::memcpy(&expected[at], PixelOf(source, y * w + x, p), p);
                }
            p == 4 ? source.Rotate(target, angle) : source.Rotate24bpp(target, angle);
            source.Rotate32bpp(target, 45);
            source.Rotate24bpp(target, 0);
            EXPECT_EQ(std::vector<unsigned char>(target.data, target.data + expected.size()),
                      expected)
                << format << " " << w << "x" << h << " by " << angle;
        }
}

// B, G, R bytes; the bright colour has luminance 224, the dark one 47.
using Bgr = std::vector<unsigned char>;
const Bgr kBright = {200, 220, 240}, kWhite = {255, 255, 255}, kDark = {100, 50, 20};

std::vector<int> At(const kiu::Image& image, uint32_t i) {
    return BytesAt(PixelOf(image, i, 3), 3);
}

TEST(CompensateLighting, NeedsOneHundredPixelsBrighterThanTheThreshold) {
    // Bright pixels (alternately kBright and white), threshold, whether compensated: each
    // channel is stretched so that its smallest bright value becomes 255, rounding down.
    const std::tuple<uint32_t, unsigned, bool> cases[] = {
        {100, 150, true}, {99, 150, false}, {200, 223, true}, {0, 46, true}, {0, 47, false}};
    for (const auto& [bright, threshold, compensated] : cases) {
        kau::mem::Heap heap;
        kiu::Image source = MakeImage(20, 10, kiu::BGR, heap),
                   target = MakeImage(20, 10, kiu::BGR, heap, kUntouched);
        for (uint32_t i = 0; i < 200; ++i) {
            const Bgr& colour = i >= bright ? kDark : i % 2 ? kWhite : kBright;
            std::copy(colour.begin(), colour.end(), PixelOf(source, i, 3));
        }
        EXPECT_EQ(source.CompensateLighting(target, threshold), compensated)
            << bright << " " << threshold;
        const Bgr& reference = bright ? kBright : kDark;  // all dark: the dark become white
        for (uint32_t i = 0; i < 200; ++i) {
            std::vector<int> expected(3, kUntouched), in = At(source, i);
            for (int c = 0; c < 3 && compensated; ++c)
                expected[c] = in[c] >= reference[c] ? 255 : in[c] * 255 / reference[c];
            ASSERT_EQ(At(target, i), expected) << bright << " " << threshold << " " << i;
        }
    }
}

TEST(EqualizeHistogram, Mappings) {
    const std::tuple<kiu::Format, uint32_t, std::vector<int>, std::vector<int>> cases[] = {
        {kiu::Gray8, 3, {0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0}},
        {kiu::Gray8, 3, {10, 10, 10, 10, 10, 10}, {255, 255, 255, 255, 255, 255}},
        {kiu::Gray8, 2, {0, 0, 1, 2}, {0, 0, 191, 255}},
        // 127.5 and 42.5 both go to the even neighbour.
        {kiu::Gray8, 2, {5, 6}, {128, 255}},
        {kiu::Gray8, 3, {1, 2, 2, 2, 2, 2}, {42, 255, 255, 255, 255, 255}},
        // Only the Y bytes change.
        {kiu::YUV, 3, {10, 1, 2, 20, 3, 4, 20, 5, 6}, {85, 1, 2, 255, 3, 4, 255, 5, 6}},
    };
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

TEST(DrawBox, ClippedOutlinesWithTheColourReversed) {
    // Drawn pixels of a 6x4 image as "xy" pairs.
    const std::pair<xy::Box, std::set<std::string>> cases[] = {
        {{2, 1, 0, 0}, {"21"}},
        {{-10, 0, 5, 2}, {"00", "01", "02"}},
        {{1, 1, 10, 1}, {"11", "21", "31", "41", "51", "12", "22", "32", "42", "52"}},
        {{1, 2, 2, -1}, {"12", "22", "32"}},  // y1 above y0: only row y0
        {{1, 0, 3, 2}, {"10", "20", "30", "40", "11", "41", "12", "22", "32", "42"}},
        {{4, 3, -3, -2}, {}},
        {{-5, -5, 100, 100},
         {"00", "10", "20", "30", "40", "50", "01", "51", "02", "52", "03", "13", "23", "33", "43",
          "53"}},
    };
    const unsigned char colour[3] = {1, 2, 3};
    for (kiu::Format format : {kiu::RGB, kiu::BGR, kiu::YUV})
        for (auto [box, drawn] : cases) {
            kau::mem::Heap heap;
            kiu::Image image = MakeImage(6, 4, format, heap, kUntouched);
            image.DrawBox(box, colour);
            for (uint32_t i = 0; i < 24; ++i) {
                bool on = drawn.count(std::to_string(i % 6) + std::to_string(i / 6)) > 0;
                ASSERT_EQ(At(image, i),
                          on ? std::vector<int>({3, 2, 1}) : std::vector<int>(3, kUntouched))
                    << box.x << "," << box.y << " " << box.width << "x" << box.height << " pixel "
                    << i;
            }
            EXPECT_EQ(image.data[18], kUntouched) << "row padding";
        }
}

}  // namespace
