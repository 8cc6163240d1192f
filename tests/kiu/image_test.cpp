// The image object: strides and sizes, creation and copying, colour-space names, clamping.
#include <gtest/gtest.h>

#include <cstring>

#include "kiu_test_support.h"

namespace {

TEST(Image, StrideAndSizeOfEveryFormat) {
    struct Case {
        uint32_t format, width, height, stride, size;
    };
    const Case cases[] = {
        {kiu::Gray8, 5, 3, 8, 24},
        {kiu::Packed16A, 3, 2, 8, 16},
        {kiu::Packed16B, 1, 1, 4, 4},
        {kiu::Packed32A, 3, 2, 12, 24},
        {kiu::Packed32B, 1, 1, 4, 4},
        {kiu::Packed64, 3, 1, 24, 24},
        {kiu::ABGR, 2, 2, 8, 16},
        {kiu::ARGB, 1, 3, 4, 12},
        {kiu::BGR, 3, 2, 12, 24},
        {kiu::BGRA, 5, 1, 20, 20},
        {kiu::RGB, 1, 1, 4, 4},
        {kiu::RGB, 5, 2, 16, 32},
        {kiu::RGBA, 7, 2, 28, 56},
        {kiu::YUV, 3, 3, 12, 36},
        {kiu::CMYK, 2, 1, 8, 8},
        {kiu::YCCK, 3, 1, 12, 12},
        {kiu::RGBA, 0, 5, 0, 0},
        // I420: a Y plane of even height, then two planes of half the width rounded up to a
        // multiple of 8 by half the height.
        {kiu::I420, 3, 3, 4, 32},
        {kiu::I420, 1, 1, 4, 16},
        {kiu::I420, 10, 5, 12, 120},
    };
    for (const Case& c : cases) {
        kau::mem::Heap heap;
        kiu::Image image = MakeImage(c.width, c.height, static_cast<kiu::Format>(c.format), heap);
        EXPECT_EQ(image.stride, c.stride) << c.format << " " << c.width;
        EXPECT_EQ(image.ImageDataSize(), c.size) << c.format << " " << c.width;
    }
}

TEST(Image, CreateFailures) {
    struct Case {
        uint32_t width, height, format;
        Raised raised;
    };
    const Case cases[] = {
        {1, 1, 0, KiuError(kiu::kErrBytesPerPixel)},
        {1, 1, 7, KiuError(kiu::kErrBytesPerPixel)},
        {1, 1, 17, KiuError(kiu::kErrBytesPerPixel)},  // named, yet no image can be made of it
        {1, 1, 40, KiuError(kiu::kErrBytesPerPixel)},
        {0x40000000, 1, kiu::RGBA, KauError(kau::kErrRoundUpOverflow)},
        {0xFFFFFFFE, 1, kiu::Gray8, KauError(kau::kErrRoundUpOverflow)},
        {0xFFFFFFFE, 1, kiu::I420, KauError(kau::kErrRoundUpOverflow)},
        {4, 0xFFFFFFFF, kiu::I420, KauError(kau::kErrRoundUpOverflow)},
        {0x10000, 0x10000, kiu::RGBA, KauError(kau::kErrRoundUpOverflow)},
    };
    for (const Case& c : cases) {
        kau::mem::Heap heap;
        kiu::Image image;
        auto create = [&] {
            image.Create(c.width, c.height, kiu::Format(c.format), &heap, nullptr);
        };
        EXPECT_EQ(RaisedBy(create), c.raised) << c.width << "x" << c.height << " " << c.format;
    }
    // Both a heap and a buffer: refused after the stride is stored.
    kau::mem::Heap heap;
    unsigned char buffer[32];
    kiu::Image image;
    EXPECT_EQ(RaisedBy([&] { image.Create(5, 2, kiu::RGB, &heap, buffer); }),
              KiuError(kiu::kErrCreateHeapAndBuffer));
    EXPECT_EQ(std::vector<uint32_t>({image.format, image.width, image.height, image.stride}),
              std::vector<uint32_t>({kiu::RGB, 5, 2, 16}));
    EXPECT_EQ(image.data, nullptr);
    image.Create(2, 2, kiu::RGBA, nullptr, buffer);
    EXPECT_EQ(image.data, buffer);
}

TEST(Image, CopyDataTo) {
    kau::mem::Heap heap;
    kiu::Image source = MakeImage(5, 3, kiu::I420, heap), target = MakeImage(5, 3, kiu::I420, heap);
    auto bytes = RandomBytes(source.ImageDataSize(), 7);
    std::memcpy(source.data, bytes.data(), bytes.size());
    source.CopyDataTo(target);
    EXPECT_EQ(std::memcmp(target.data, bytes.data(), bytes.size()), 0) << "every plane";

    kiu::Image rgb = MakeImage(4, 2, kiu::RGB, heap), none;
    none.Create(4, 2, kiu::RGB, nullptr, nullptr);
    const std::pair<kiu::Image, int> cases[] = {
        {none, kiu::kErrCopyNoData},
        {MakeImage(5, 2, kiu::RGB, heap), kiu::kErrCopySize},
        {MakeImage(4, 3, kiu::RGB, heap), kiu::kErrCopySize},
        {MakeImage(4, 2, kiu::BGR, heap), kiu::kErrCopyFormat},
    };
    for (auto [other, position] : cases)
        EXPECT_EQ(RaisedBy([&] { rgb.CopyDataTo(other); }), KiuError(position));
    EXPECT_EQ(RaisedBy([&] { none.CopyDataTo(rgb); }), KiuError(kiu::kErrCopyNoData));
}

TEST(ColorSpaceFrom, NameTable) {
    const char* names[] = {"abgr", "argb", "bgr",  "bgra", "rgb",  "rgba", "yuv",  "yvu",
                           "uvy",  "uyv",  "vuy",  "vyu",  "yzuv", "yzvu", "yuvz", "yuzv",
                           "yvuz", "yvzu", "zyuv", "zyvu", "zuvy", "zuyv", "zvuy", "zvyu",
                           "uyzv", "uyvz", "uzvy", "uzyv", "uvzy", "uvyz", "vyuz", "vyzu",
                           "vuzy", "vuyz", "vzuy", "vzyu", "i420", "cmyk", "ycck"};
    const uint32_t values[] = {8,  9,  10, 11, 12, 13, 16, 17, 18, 19, 20, 21,  32,
                               33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44,  45,
                               46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 64, 128, 256};
    for (size_t i = 0; i < std::size(names); ++i) {
        EXPECT_EQ(kiu::ColorSpaceFrom(names[i]), values[i]) << names[i];
        std::string upper = names[i];
        for (char& ch : upper)
            ch = static_cast<char>(std::toupper(ch));
        EXPECT_EQ(kiu::ColorSpaceFrom(upper.c_str()), values[i]) << upper;
    }
    const std::pair<const char*, int> failures[] = {
        {nullptr, kiu::kErrColorSpaceNull},    {"rgbax", kiu::kErrColorSpaceTooLong},
        {"rgbx", kiu::kErrColorSpaceUnknown4}, {"rgb ", kiu::kErrColorSpaceUnknown4},
        {"rgx", kiu::kErrColorSpaceUnknown3},  {"ab", kiu::kErrColorSpaceUnknown3},
        {"", kiu::kErrColorSpaceUnknown3},     {"RG\xC2", kiu::kErrColorSpaceUnknown3},
    };
    for (auto [name, position] : failures)
        EXPECT_EQ(RaisedBy([&] { kiu::ColorSpaceFrom(name); }), KiuError(position))
            << (name ? name : "null");
}

TEST(Tables, ClampingTableRanges) {
    for (int v = -256; v <= 1151; ++v) {
        int expected = v < 0 ? 0 : v <= 255 ? v : v <= 639 ? 255 : v <= 1023 ? 0 : v - 1024;
        ASSERT_EQ(kiu::ubyteRangeLimit[v], expected) << v;
    }
    EXPECT_EQ(kiu::ubyteRangeLimit[1152], 1) << "the tables are complete";
}

}  // namespace
