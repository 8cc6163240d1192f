// Scaling with the quadratic B-spline.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>

#include "kiu_test_support.h"

namespace {

// One output sample of the filter, evaluated directly in double precision.
double Filtered(uint32_t i, uint32_t n, uint32_t m, const std::function<int(uint32_t)>& sample) {
    double centre = double(uint64_t{i} * n / m), s = m < n ? double(n) / m : 1.0, sum = 0;
    for (int64_t j = int64_t(std::ceil(centre - 1.5 * s));
         j <= int64_t(std::floor(centre + 1.5 * s)); ++j) {
        double a = std::abs(centre - j) / s;
        double weight = (a < 0.5 ? 0.75 - a * a : a < 1.5 ? 0.5 * (a - 1.5) * (a - 1.5) : 0) / s;
        int64_t k = j < 0 ? -j - 1 : j;
        sum += weight * sample(uint32_t(k >= n ? n - 1 - k % n : k));
    }
    return sum <= 0 ? 0 : std::min(255.0, std::floor(sum + 0.5));
}

// Rows first, then columns, each pass rounded to bytes.
std::vector<int> ReferenceScale(const std::vector<unsigned char>& in, uint32_t w, uint32_t h,
                                uint32_t nw, uint32_t nh) {
    std::vector<int> across(size_t{nw} * h), out(size_t{nw} * nh);
    for (uint32_t i = 0; i < across.size(); ++i)
        across[i] = Filtered(i % nw, w, nw, [&](uint32_t k) { return in[i / nw * w + k]; });
    for (uint32_t i = 0; i < out.size(); ++i)
        out[i] = Filtered(i / nw, h, nh, [&](uint32_t k) { return across[k * nw + i % nw]; });
    return out;
}

// Allocator hooks like the default ones, that fill new blocks with a pattern, fail blocks
// from a given size on, and record what is deleted.
constexpr unsigned char kPattern = 0xA5;
unsigned long failFrom = ~0ul;
std::vector<void*> deleted;

void* PatternNew(unsigned long n) {
    if (n >= failFrom) return nullptr;
    return std::memset(new unsigned char[n], kPattern, n);
}

void RecordingDelete(void* p) {
    if (p) deleted.push_back(p), delete[] static_cast<unsigned char*>(p);
}

class Scale : public testing::Test {
  protected:
    void SetUp() override { kau::mem::SetExternalNewAndDelete(PatternNew, RecordingDelete); }
    void TearDown() override { failFrom = ~0ul; }

    // A caller's buffer from kau::mem::New.
    static unsigned char* Buffer(const std::vector<unsigned char>& bytes) {
        return static_cast<unsigned char*>(
            std::memcpy(kau::mem::New(bytes.size()), bytes.data(), bytes.size()));
    }
    std::vector<int> Component(std::vector<unsigned char> in, uint32_t w, uint32_t h, uint32_t nw,
                               uint32_t nh) {
        unsigned char* data = in.data();
        unsigned char* out = kiu::ScaleComponent(data, w, h, nw, nh, heap);
        EXPECT_EQ(data, out);
        return std::vector<int>(out, out + size_t{nw} * nh);
    }

    kau::mem::Heap heap;
};

TEST_F(Scale, HandComputedRows) {
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
    for (const auto& [row, newLength, expected] : cases) {
        uint32_t n = uint32_t(row.size());
        EXPECT_EQ(Component(row, n, 1, newLength, 1), expected);
        EXPECT_EQ(Component(row, 1, n, 1, newLength), expected) << "as a column";
    }
}

TEST_F(Scale, MatchesTheFilterEvaluatedDirectly) {
    const uint32_t sizes[][4] = {{7, 5, 7, 5},   {4, 3, 8, 6}, {5, 4, 13, 9}, {9, 7, 4, 3},
                                 {12, 10, 5, 4}, {3, 3, 1, 1}, {1, 1, 3, 2},  {6, 6, 6, 2},
                                 {10, 1, 3, 1},  {17, 3, 6, 5}};
    uint32_t seed = 1;
    for (const auto& [w, h, nw, nh] : sizes) {
        SCOPED_TRACE(testing::Message() << w << "x" << h << " to " << nw << "x" << nh);
        auto gray = RandomBytes(size_t{w} * h, seed++);
        std::vector<int> expected = ReferenceScale(gray, w, h, nw, nh),
                         actual = Component(gray, w, h, nw, nh);
        for (size_t i = 0; i < expected.size(); ++i)
            EXPECT_LE(std::abs(actual[i] - expected[i]), 1) << i;

        // Colour pixels: each channel is filtered as a plane of its own; a fourth byte is not
        // written.
        for (uint32_t size : {3u, 4u}) {
            auto pixels = RandomBytes(size_t{w} * h * size, seed++);
            unsigned char *data = Buffer(pixels), *old = data;
            unsigned long width = w, height = h;
            deleted.clear();
            (size == 4 ? kiu::ScaleImageRGB : kiu::ScaleImage24bpp)(data, width, height, nw, nh,
                                                                    heap);
            EXPECT_EQ(std::vector<unsigned long>({width, height}),
                      std::vector<unsigned long>({nw, nh}));
            EXPECT_EQ(deleted, std::vector<void*>{old}) << "the old buffer is deleted";
            for (uint32_t c = 0; c < size; ++c) {
                std::vector<unsigned char> plane;
                for (size_t i = c; i < pixels.size(); i += size)
                    plane.push_back(pixels[i]);
                std::vector<int> channel = Component(plane, w, h, nw, nh);
                for (size_t i = 0; i < channel.size(); ++i)
                    ASSERT_EQ(data[i * size + c], c == 3 ? kPattern : channel[i])
                        << size << " " << c << " " << i;
            }
            kau::mem::Delete(data);
        }
    }
}

TEST_F(Scale, OutputThatCannotBeHadIsReported) {
    const std::string kiuFile = kiu::kKiuFile, kauFile = kau::kKauFile;
    const std::tuple<uint32_t, unsigned long, unsigned long, unsigned long, std::string> cases[] = {
        {4, 8, 8, 256, kiuFile + " +1465"},
        {3, 8, 8, 192, kiuFile + " +1609"},
        {4, 0x10000, 0x4000, ~0ul, kiuFile + " +1465"},  // 2^32 bytes
        {1, 0x10000, 0x10000, ~0ul, kauFile + " +390"},  // the heap refuses it
    };
    for (const auto& [size, newWidth, newHeight, failAt, place] : cases) {
        std::vector<unsigned char> in(4 * 4 * size, 7);
        unsigned char *data = size == 1 ? in.data() : Buffer(in), *old = data;
        unsigned long width = 4, height = 4;
        failFrom = failAt;
        deleted.clear();
        testing::internal::CaptureStdout();
        if (size == 1)
            EXPECT_EQ(kiu::ScaleComponent(data, 4, 4, newWidth, newHeight, heap), nullptr);
        else
            (size == 4 ? kiu::ScaleImageRGB : kiu::ScaleImage24bpp)(data, width, height, newWidth,
                                                                    newHeight, heap);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n?!exception@ " + place + " !?\n\n\n");
        failFrom = ~0ul;
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(width, 4u);
        EXPECT_TRUE(deleted.empty()) << "the old buffer is kept";
        if (size != 1) kau::mem::Delete(old);
    }
}

TEST_F(Scale, LaterFailuresAndEdgeSizes) {
    // The output (36 bytes) is had, the row lists (120 bytes) are not: the output goes again.
    unsigned char *data = Buffer(std::vector<unsigned char>(64, 7)), *old = data, *none = nullptr;
    unsigned long width = 4, height = 4, emptyWidth = 0, emptyHeight = 0;
    failFrom = 100;
    deleted.clear();
    EXPECT_EQ(RaisedBy([&] { kiu::ScaleImageRGB(data, width, height, 3, 3, heap); }),
              KauError(kau::kErrHeapAllocate));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(deleted.size(), 1u);
    EXPECT_NE(deleted[0], old);
    kau::mem::Delete(old);
    failFrom = ~0ul;

    // An empty output needs no source; a non-empty one needs at least one sample each way.
    EXPECT_NE(kiu::ScaleComponent(none, 0, 0, 0, 5, heap), nullptr);
    none = nullptr;
    kiu::ScaleImageRGB(none, emptyWidth, emptyHeight, 4, 0, heap);
    EXPECT_NE(none, nullptr);
    kau::mem::Delete(none);
    unsigned char pixel[4] = {}, *one = pixel;
    EXPECT_EQ(RaisedBy([&] { kiu::ScaleComponent(one, 0, 1, 3, 3, heap); }),
              KiuError(kiu::kErrScaleNoSource));
    none = nullptr;
    EXPECT_EQ(RaisedBy([&] { kiu::ScaleComponent(none, 1, 1, 3, 3, heap); }),
              KiuError(kiu::kErrScaleNoSource));
    EXPECT_EQ(one, pixel);
}

}  // namespace
