// Rotation: routing, both workers, and the one-pixel slip of the quarter turn.
#include <gtest/gtest.h>

#include <cstring>

#include "kiu_test_support.h"

namespace {

constexpr unsigned char kUntouched = 0xEE;

// Byte b of pixel i is i * 8 + b + 1, so that pixels are told apart.
kiu::Image Numbered(uint32_t w, uint32_t h, kiu::Format format, uint32_t p, kau::mem::Heap& heap) {
    kiu::Image image = MakeImage(w, h, format, heap, kUntouched);
    for (uint32_t i = 0; i < w * h; ++i)
        for (uint32_t b = 0; b < p; ++b)
            PixelOf(image, i % w, i / w, p)[b] = i * 8 + b + 1;
    return image;
}

std::vector<unsigned char> Bytes(const kiu::Image& image) {
    return std::vector<unsigned char>(image.data, image.data + image.ImageDataSize());
}

// The target bytes when source pixel (x, y) lands where each turn puts it; a quarter turn
// never copies pixel (0, 0) and lands every row after the first one pixel early.
std::vector<unsigned char> Expected(const kiu::Image& s, const kiu::Image& t, unsigned angle,
                                    uint32_t p) {
    std::vector<unsigned char> expected = Bytes(t);
    int64_t w = s.width, h = s.height;
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = 0; x < w; ++x) {
            int64_t at = angle == 180   ? (h - 1 - y) * t.stride + (w - 1 - x) * p
                         : angle == 270 ? (w - 1 - x) * t.stride + y * p
                                        : x * t.stride + (h - 1 - y) * p - (x > 0 ? p : 0);
            if (angle != 90 || x > 0 || y > 0) std::memcpy(&expected[at], PixelOf(s, x, y, p), p);
        }
    return expected;
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
    const std::tuple<kiu::Format, uint32_t, uint32_t, uint32_t> cases[] = {
        {kiu::RGBA, 4, 3, 2}, {kiu::BGRA, 4, 1, 5}, {kiu::ABGR, 4, 6, 1},
        {kiu::BGR, 3, 3, 2},  {kiu::RGB, 3, 5, 3},  {kiu::YUV, 3, 2, 7},  // rows with padding
    };
    kau::mem::Heap heap;
    for (const auto& [format, p, w, h] : cases)
        for (unsigned angle : {90u, 180u, 270u}) {
            kiu::Image source = Numbered(w, h, format, p, heap);
            kiu::Image target = angle == 180 ? MakeImage(w, h, format, heap, kUntouched)
                                             : MakeImage(h, w, format, heap, kUntouched);
            std::vector<unsigned char> expected = Expected(source, target, angle, p);
            p == 4 ? source.Rotate(target, angle) : source.Rotate24bpp(target, angle);
            EXPECT_EQ(Bytes(target), expected) << format << " " << w << "x" << h << " by " << angle;
            // Other angles of the workers write nothing.
            source.Rotate32bpp(target, 45);
            source.Rotate24bpp(target, 0);
            EXPECT_EQ(Bytes(target), expected);
        }
}

TEST(Rotate, Failures) {
    kau::mem::Heap heap;
    auto image = [&](uint32_t w, uint32_t h, kiu::Format f) { return MakeImage(w, h, f, heap); };
    kiu::Image none, rgba = image(2, 2, kiu::RGBA), wide = image(3, 2, kiu::RGBA),
                     bgr = image(3, 2, kiu::BGR);
    none.Create(2, 2, kiu::RGBA, nullptr, nullptr);
    // Source, target, angle, whether through Rotate24bpp, position.
    const std::tuple<kiu::Image, kiu::Image, unsigned, bool, int> cases[] = {
        {rgba, rgba, 45, false, kiu::kErrRotateRequest},
        {rgba, rgba, 0, false, kiu::kErrRotateRequest},
        {none, rgba, 90, false, kiu::kErrRotateRequest},
        {rgba, none, 90, false, kiu::kErrRotateRequest},
        {image(0, 2, kiu::RGBA), rgba, 180, false, kiu::kErrRotateRequest},
        {rgba, image(2, 2, kiu::BGRA), 180, false, kiu::kErrRotateFormatMismatch},
        // Three-byte images reach the four-byte worker only one pixel wide.
        {image(2, 1, kiu::RGB), image(1, 2, kiu::RGB), 90, false, kiu::kErrRotateStride},
        {bgr, bgr, 180, false, kiu::kErrRotateStride},
        {image(2, 2, kiu::Gray8), image(2, 2, kiu::Gray8), 180, false, kiu::kErrRotateFormat},
        {image(2, 2, kiu::YUV), image(2, 2, kiu::YUV), 180, false, kiu::kErrRotateFormat},
        {wide, wide, 90, false, kiu::kErrRotate32Size90},
        {wide, image(2, 3, kiu::RGBA), 180, false, kiu::kErrRotate32Size180},
        {wide, wide, 270, false, kiu::kErrRotate32Size270},
        // The temporary RGBA images of I420 keep the source's size.
        {image(4, 2, kiu::I420), image(2, 4, kiu::I420), 90, false, kiu::kErrRotate32Size90},
        {bgr, bgr, 90, true, kiu::kErrRotate24Size90},
        {bgr, image(2, 3, kiu::BGR), 180, true, kiu::kErrRotate24Size180},
        {bgr, bgr, 270, true, kiu::kErrRotate24Size270},
        {image(2, 2, kiu::I420), image(2, 2, kiu::I420), 180, true, kiu::kErrBytesPerPixel},
        // Rows too short for the worker's pixel size.
        {image(1, 4, kiu::RGB), image(4, 1, kiu::RGB), 90, false, kiu::kErrRotateLayout},
        {image(3, 2, kiu::Gray8), image(3, 2, kiu::Gray8), 180, true, kiu::kErrRotateLayout},
    };
    for (auto [source, target, angle, direct24, position] : cases)
        EXPECT_EQ(RaisedBy([&] {
                      direct24 ? source.Rotate24bpp(target, angle) : source.Rotate(target, angle);
                  }),
                  KiuError(position))
            << "format " << source.format << " angle " << angle;
}

// Gray I420 pictures pass through RGBA unchanged, so the turn shows in the Y plane.
TEST(Rotate, I420ThroughRgba) {
    kau::mem::Heap heap;
    auto turned = [&](uint32_t w, uint32_t h, std::vector<unsigned char> luma, unsigned angle) {
        kiu::Image source = MakeImage(w, h, kiu::I420, heap, 128),
                   target = MakeImage(w, h, kiu::I420, heap);
        for (uint32_t y = 0; y < h; ++y)
            std::memcpy(source.data + y * source.stride, &luma[y * w], w);
        source.Rotate(target, angle);
        std::vector<int> out;
        for (uint32_t y = 0; y < h; ++y)
            out.insert(out.end(), target.data + y * target.stride,
                       target.data + y * target.stride + w);
        return out;
    };
    EXPECT_EQ(turned(4, 2, {10, 20, 30, 40, 50, 60, 70, 80}, 180),
              std::vector<int>({80, 70, 60, 50, 40, 30, 20, 10}));
    EXPECT_EQ(turned(2, 2, {10, 20, 30, 40}, 90),
              std::vector<int>({30, 40, 20, 0}));  // the slip; black last
}

}  // namespace
