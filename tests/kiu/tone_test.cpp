// Lighting compensation, histogram equalisation and box drawing.
#include <gtest/gtest.h>

#include <set>

#include "kiu_test_support.h"

namespace {

constexpr unsigned char kUntouched = 0xEE;

// B, G, R bytes; the bright colour has luminance 224, the dark one 47.
using Bgr = std::vector<unsigned char>;
const Bgr kBright = {200, 220, 240}, kWhite = {255, 255, 255}, kDark = {100, 50, 20};

void Paint(kiu::Image& image, uint32_t i, const Bgr& bgr) {
    std::copy(bgr.begin(), bgr.end(), PixelOf(image, i % image.width, i / image.width, 3));
}

std::vector<int> At(const kiu::Image& image, uint32_t i) {
    return BytesAt(PixelOf(image, i % image.width, i / image.width, 3), 3);
}

// Stretched so that the smallest bright value of each channel becomes 255, rounding down.
std::vector<int> Compensated(const std::vector<int>& bgr) {
    std::vector<int> out;
    for (int c = 0; c < 3; ++c)
        out.push_back(bgr[c] >= kBright[c] ? 255 : bgr[c] * 255 / kBright[c]);
    return out;
}

TEST(CompensateLighting, NeedsOneHundredPixelsBrighterThanTheThreshold) {
    // Bright pixels (alternately kBright and white), threshold, whether compensated.
    const std::tuple<uint32_t, unsigned, bool> cases[] = {
        {100, 150, true}, {99, 150, false}, {200, 223, true}, {0, 46, true}, {0, 47, false}};
    for (const auto& [bright, threshold, compensated] : cases) {
        kau::mem::Heap heap;
        kiu::Image source = MakeImage(20, 10, kiu::BGR, heap),
                   target = MakeImage(20, 10, kiu::BGR, heap, kUntouched);
        for (uint32_t i = 0; i < 200; ++i)
            Paint(source, i, i >= bright ? kDark : i % 2 ? kWhite : kBright);
        EXPECT_EQ(source.CompensateLighting(target, threshold), compensated)
            << bright << " " << threshold;
        for (uint32_t i = 0; i < 200 && compensated && bright; ++i)
            ASSERT_EQ(At(target, i), Compensated(At(source, i)));
        for (uint32_t i = 0; i < 200 && !compensated; ++i)
            ASSERT_EQ(At(target, i), std::vector<int>(3, kUntouched));
        if (compensated && !bright) {
            EXPECT_EQ(At(target, 0), std::vector<int>(3, 255)) << "all dark: all white";
        }
    }
    EXPECT_EQ(Compensated({100, 50, 20}), std::vector<int>({127, 57, 21}));
}

TEST(CompensateLighting, BoxLimitsStatisticsAndOutput) {
    kau::mem::Heap heap;
    kiu::Image source = MakeImage(20, 10, kiu::BGR, heap),
               target = MakeImage(20, 10, kiu::BGR, heap, kUntouched);
    auto inBox = [](uint32_t i) { return i % 20 >= 2 && i % 20 < 14 && i / 20 >= 1; };
    for (uint32_t i = 0, bright = 0; i < 200; ++i)
        Paint(source, i, inBox(i) && bright++ < 100 ? kBright : i < 20 ? kWhite : kDark);
    EXPECT_TRUE(source.CompensateLighting(xy::Box{2, 1, 12, 9}, target, 150));  // 108 pixels
    for (uint32_t i = 0; i < 200; ++i)
        ASSERT_EQ(At(target, i),
                  inBox(i) ? Compensated(At(source, i)) : std::vector<int>(3, kUntouched))
            << i;

    kiu::Image untouched = MakeImage(20, 10, kiu::BGR, heap, kUntouched);
    for (xy::Box box : {xy::Box{15, 0, 10, 2}, xy::Box{-1, 0, 3, 3}, xy::Box{0, 9, 1, 2}})
        EXPECT_EQ(RaisedBy([&] { source.CompensateLighting(box, untouched, 150); }),
                  KiuError(kiu::kErrOutsideImage));
    EXPECT_FALSE(source.CompensateLighting(xy::Box{-50, -50, 1000, 0}, untouched, 150));
    EXPECT_EQ(At(untouched, 0), std::vector<int>(3, kUntouched));
}

TEST(CompensateLighting, Failures) {
    kau::mem::Heap heap;
    kiu::Image bgr = MakeImage(4, 4, kiu::BGR, heap), none;
    none.Create(4, 4, kiu::BGR, nullptr, nullptr);
    const std::tuple<kiu::Image, kiu::Image, int, int> cases[] = {
        {none, bgr, kiu::kErrLightingNoData, kiu::kErrBoxLightingNoData},
        {bgr, none, kiu::kErrLightingNoData, kiu::kErrBoxLightingNoData},
        {bgr, MakeImage(4, 5, kiu::BGR, heap), kiu::kErrLightingSize, kiu::kErrBoxLightingSize},
        {MakeImage(4, 4, kiu::BGRA, heap), MakeImage(4, 4, kiu::BGRA, heap),
         kiu::kErrLightingFormat, kiu::kErrBoxLightingFormat},
        {bgr, MakeImage(4, 4, kiu::RGB, heap), kiu::kErrLightingFormat, kiu::kErrBoxLightingFormat},
    };
    for (auto [source, target, whole, boxed] : cases) {
        EXPECT_EQ(RaisedBy([&] { source.CompensateLighting(target, 0); }), KiuError(whole));
        EXPECT_EQ(RaisedBy([&] {
                      source.CompensateLighting(xy::Box{0, 0, 1, 1}, target, 0);
                  }),
                  KiuError(boxed));
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
    kiu::Image none, rgb;
    none.Create(2, 2, kiu::Gray8, nullptr, nullptr);
    kau::mem::Heap heap;
    rgb = MakeImage(2, 2, kiu::RGB, heap);
    EXPECT_EQ(RaisedBy([&] { none.EqualizeHistogram(); }), KiuError(kiu::kErrEqualizeNoData));
    EXPECT_EQ(RaisedBy([&] { rgb.EqualizeHistogram(); }), KiuError(kiu::kErrEqualizeFormat));
}

TEST(DrawBox, ClippedOutlines) {
    // Drawn pixels of a 6x4 image as rows of "xy" pairs.
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

TEST(DrawBox, Failures) {
    unsigned char buffer[64] = {};
    auto image = [&](uint32_t w, uint32_t h, uint32_t format) {
        return kiu::Image{kiu::Format(format), w, h, 16, buffer};
    };
    kiu::Image none;
    none.Create(2, 2, kiu::RGB, nullptr, nullptr);
    const std::pair<kiu::Image, int> cases[] = {
        {image(2, 2, kiu::RGBA), kiu::kErrDrawBoxFormat},
        {image(2, 2, kiu::Gray8), kiu::kErrDrawBoxFormat},
        {image(2, 2, kiu::YCCK), kiu::kErrDrawBoxFormat},
        {image(2, 2, 0), kiu::kErrDrawBoxFormat},
        {none, kiu::kErrDrawBoxFormat},
        {image(2, 2, kiu::I420), kiu::kErrBytesPerPixel},
        {image(2, 2, 17), kiu::kErrBytesPerPixel},
        {image(0, 2, kiu::RGB), kiu::kErrOutsideImage},
        {image(2, 0, kiu::I420), kiu::kErrOutsideImage},
    };
    const unsigned char colour[3] = {1, 2, 3};
    for (auto [target, position] : cases) {
        xy::Box box{0, 0, 1, 1};
        EXPECT_EQ(RaisedBy([&] { target.DrawBox(box, colour); }), KiuError(position))
            << target.format;
    }
    EXPECT_EQ(BytesAt(buffer, 64), std::vector<int>(64, 0));
}

}  // namespace
