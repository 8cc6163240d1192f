// Whole-image conversion between formats.
#include <gtest/gtest.h>

#include <cstring>

#include "kiu_test_support.h"

namespace {

TEST(ConvertImage, ByteOrdersBothWays) {
    // The bytes of the pixel R=1, G=2, B=3, A=4 in each layout.
    const std::pair<kiu::Format, std::vector<int>> layouts[] = {
        {kiu::RGBA, {1, 2, 3, 4}}, {kiu::BGRA, {3, 2, 1, 4}}, {kiu::ARGB, {4, 1, 2, 3}},
        {kiu::ABGR, {4, 3, 2, 1}}, {kiu::RGB, {1, 2, 3}},     {kiu::BGR, {3, 2, 1}},
    };
    kau::mem::Heap heap;
    for (const auto& [from, fromBytes] : layouts)
        for (const auto& [to, toBytes] : layouts) {
            kiu::Image source = MakeImage(3, 2, from, heap), target = MakeImage(3, 2, to, heap);
            for (uint32_t i = 0; i < 6; ++i)
                std::copy(fromBytes.begin(), fromBytes.end(),
                          PixelOf(source, i % 3, i / 3, fromBytes.size()));
            source.ConvertTo(target);
            std::vector<int> expected = toBytes;
            if (fromBytes.size() == 3) std::replace(expected.begin(), expected.end(), 4, 255);
            for (uint32_t i = 0; i < 6; ++i)
                EXPECT_EQ(BytesAt(PixelOf(target, i % 3, i / 3, toBytes.size()), toBytes.size()),
                          expected)
                    << from << " to " << to;
        }
}

TEST(ConvertImage, GrayAndYuv) {
    kau::mem::Heap heap;
    kiu::Image rgba = MakeImage(7, 3, kiu::RGBA, heap), gray = MakeImage(7, 3, kiu::Gray8, heap),
               yuv = MakeImage(7, 3, kiu::YUV, heap), back = MakeImage(7, 3, kiu::RGBA, heap);
    auto colours = RandomBytes(rgba.ImageDataSize(), 11);
    std::memcpy(rgba.data, colours.data(), colours.size());
    rgba.ConvertTo(gray);
    rgba.ConvertTo(yuv);
    yuv.ConvertTo(back);
    for (uint32_t i = 0; i < 21; ++i) {
        const unsigned char *c = PixelOf(rgba, i % 7, i / 7, 4), *v = PixelOf(yuv, i % 7, i / 7, 3);
        Triple e = YccOf(c[0], c[1], c[2]);
        EXPECT_LE(std::abs(*PixelOf(gray, i % 7, i / 7, 1) - e.a), 0.501);
        EXPECT_TRUE(Rounds(v, e));
        EXPECT_TRUE(Rounds(PixelOf(back, i % 7, i / 7, 4), RgbOf(v[0], v[1], v[2])));
        EXPECT_EQ(PixelOf(back, i % 7, i / 7, 4)[3], 255);
    }
    // Gray goes to colour and back unchanged, and luma sources keep their Y as gray, whatever
    // chroma RGB could not hold.
    gray.ConvertTo(back);
    EXPECT_EQ(BytesAt(back.data, 4),
              std::vector<int>({gray.data[0], gray.data[0], gray.data[0], 255}));
    kiu::Image grayAgain = MakeImage(7, 3, kiu::Gray8, heap);
    back.ConvertTo(grayAgain);
    EXPECT_EQ(std::memcmp(grayAgain.data, gray.data, gray.ImageDataSize()), 0);
    gray.ConvertTo(yuv);
    EXPECT_EQ(BytesAt(yuv.data, 3), std::vector<int>({gray.data[0], 128, 128}));
    for (uint32_t i = 0; i < 21; ++i)
        PixelOf(yuv, i % 7, i / 7, 3)[1] = 255;
    kau::mem::Zero8(grayAgain.data, grayAgain.ImageDataSize());
    yuv.ConvertTo(grayAgain);
    EXPECT_EQ(std::memcmp(grayAgain.data, gray.data, gray.ImageDataSize()), 0);
}

// Y per pixel, chroma per 2x2 block, in an odd-sized image.
struct I420 {
    kiu::Image image;
    unsigned char *u, *v;
    uint32_t chromaStride;
    I420(uint32_t w, uint32_t h, kau::mem::Heap& heap) : image(MakeImage(w, h, kiu::I420, heap)) {
        kiu::PlaneLayout layout = kiu::I420Layout(w, h);
        chromaStride = layout.chromaStride;
        u = image.data + image.stride * layout.lumaRows;
        v = u + chromaStride * layout.chromaRows;
    }
    Triple At(uint32_t x, uint32_t y) const {
        return {double(image.data[y * image.stride + x]), double(u[y / 2 * chromaStride + x / 2]),
                double(v[y / 2 * chromaStride + x / 2])};
    }
};

TEST(ConvertImage, I420AndRgba) {
    kau::mem::Heap heap;
    I420 i420(5, 3, heap), fromRgba(5, 3, heap);
    auto bytes = RandomBytes(i420.image.ImageDataSize(), 5);
    std::memcpy(i420.image.data, bytes.data(), bytes.size());
    kiu::Image rgba = MakeImage(5, 3, kiu::RGBA, heap);
    i420.image.ConvertTo(rgba);
    rgba.ConvertTo(fromRgba.image);
    for (uint32_t y = 0; y < 3; ++y)
        for (uint32_t x = 0; x < 5; ++x) {
            Triple yuv = i420.At(x, y);
            EXPECT_TRUE(Rounds(PixelOf(rgba, x, y, 4), RgbOf(yuv.a, yuv.b, yuv.c)))
                << x << "," << y;
            EXPECT_EQ(PixelOf(rgba, x, y, 4)[3], 255);
        }
    // Back to I420: Y per pixel, chroma the mean of the block's rounded chroma.
    for (uint32_t by = 0; by < 3; by += 2)
        for (uint32_t bx = 0; bx < 5; bx += 2) {
            double u = 0, v = 0, n = 0;
            for (uint32_t y = by; y < std::min(by + 2, 3u); ++y)
                for (uint32_t x = bx; x < std::min(bx + 2, 5u); ++x, ++n) {
                    const unsigned char* p = PixelOf(rgba, x, y, 4);
                    Triple e = YccOf(p[0], p[1], p[2]);
                    EXPECT_LE(std::abs(fromRgba.At(x, y).a - e.a), 0.501);
                    u += e.b, v += e.c;
                }
            EXPECT_LE(std::abs(fromRgba.At(bx, by).b - u / n), 1.01) << bx << "," << by;
            EXPECT_LE(std::abs(fromRgba.At(bx, by).c - v / n), 1.01) << bx << "," << by;
        }
}

TEST(ConvertImage, Failures) {
    kau::mem::Heap heap;
    kiu::Image rgba = MakeImage(4, 2, kiu::RGBA, heap), none;
    none.Create(4, 2, kiu::RGBA, nullptr, nullptr);
    const std::tuple<kiu::Image, kiu::Image, int> cases[] = {
        {none, rgba, kiu::kErrConvertNoData},
        {rgba, none, kiu::kErrConvertNoData},
        {MakeImage(4, 2, kiu::CMYK, heap), rgba, kiu::kErrConvertPair},
        {rgba, MakeImage(4, 2, kiu::Packed32A, heap), kiu::kErrConvertPair},
        {rgba, MakeImage(4, 3, kiu::RGBA, heap), kiu::kErrConvertSize},
        {rgba, MakeImage(5, 2, kiu::I420, heap), kiu::kErrConvertSize},
    };
    for (auto [source, target, position] : cases)
        EXPECT_EQ(RaisedBy([&] { source.ConvertTo(target); }), KiuError(position));
}

}  // namespace
