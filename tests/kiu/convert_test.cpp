// The pixel and row conversion routines against the real-valued colour formulas.
#include <gtest/gtest.h>

#include <cstring>

#include "kiu_test_support.h"

namespace {

// Samples of each channel: both ends and the chroma centre.
std::vector<int> Samples() {
    std::vector<int> s = {128};
    for (int v = 0; v < 256; v += 15)
        s.push_back(v);
    return s;
}

using Rows = std::vector<std::vector<unsigned char>>;

// The row-pointer arrays of planar components, each given as its rows.
struct Planes {
    std::vector<Rows> components;
    std::vector<unsigned char*> pointers[4];
    unsigned char** arrays[4];
    explicit Planes(std::vector<Rows> c) : components(std::move(c)) {
        for (size_t i = 0; i < components.size(); ++i) {
            for (auto& row : components[i])
                pointers[i].push_back(row.data());
            arrays[i] = pointers[i].data();
        }
    }
    operator unsigned char***() { return arrays; }
};

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
    unsigned char white[3], black[3];
    kiu::ConvertRGBtoYUV(255, 255, 255, white[0], white[1], white[2]);
    kiu::ConvertRGBtoYUV(0, 0, 0, black[0], black[1], black[2]);
    EXPECT_EQ(BytesAt(white, 3), std::vector<int>({255, 128, 128}));
    EXPECT_EQ(BytesAt(black, 3), std::vector<int>({0, 128, 128}));
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
    Planes planes({{y}, {u}, {v}});
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
    const unsigned char corners[] = {0, 128, 128, 255, 128, 128, 255, 255, 255};
    unsigned char out[12];
    kiu::ConvertYUVtoRGB(3, corners, out);
    EXPECT_EQ(std::vector<int>({out[0], out[1], out[2], out[4], out[5], out[6], out[8], out[10]}),
              std::vector<int>({0, 0, 0, 255, 255, 255, 255, 255}));
}

// Halved chroma: pixel i takes sample i / 2, also the last pixel of an odd count.
TEST(ConvertRow, HalvedChroma) {
    std::vector<unsigned char> y0 = {10, 20, 30, 40, 50}, y1 = {60, 70, 80, 90, 100};
    for (unsigned long count : {0ul, 1ul, 4ul, 5ul}) {
        Planes planes({{y0, y1}, {{1, 2, 3}}, {{128, 200, 60}}});
        std::vector<unsigned char> yuv(31, 0xEE), yuv2(31, 0xEE), rgba(41, 0xEE), rgba2(41, 0xEE);
        kiu::ConvertYUV211toYUV(count, planes, 0, yuv.data());
        kiu::ConvertYUV420toYUV2(count, planes, 0, yuv2.data());
        kiu::ConvertYUV420toRGBA(count, planes, 9, rgba.data());
        kiu::ConvertYUV420toRGBA2(count, planes, 9, rgba2.data());
        std::vector<unsigned char> expectedYuv(31, 0xEE), expectedRgba(41, 0xEE);
        for (size_t row = 0; row < 2; ++row)
            for (size_t i = 0; i < count; ++i) {
                unsigned char* e = &expectedYuv[3 * (row * count + i)];
                e[0] = (row ? y1 : y0)[i], e[1] = planes.components[1][0][i / 2],
                e[2] = planes.components[2][0][i / 2];
                kiu::ConvertYUVtoRGB(1, e, &expectedRgba[4 * (row * count + i)]);
                expectedRgba[4 * (row * count + i) + 3] = 9;
            }
        EXPECT_EQ(yuv2, expectedYuv) << count;
        EXPECT_EQ(rgba2, expectedRgba) << count;
        std::fill(expectedYuv.begin() + 3 * count, expectedYuv.end(), 0xEE);
        std::fill(expectedRgba.begin() + 4 * count, expectedRgba.end(), 0xEE);
        EXPECT_EQ(yuv, expectedYuv) << count;
        EXPECT_EQ(rgba, expectedRgba) << count;
        // 4:2:2 and 4:2:0 rows are the same computation.
        std::vector<unsigned char> yuvSame(31, 0xEE), rgbaSame(41, 0xEE);
        kiu::ConvertYUV420toYUV(count, planes, 0, yuvSame.data());
        kiu::ConvertYUV211toRGBA(count, planes, 9, rgbaSame.data());
        EXPECT_EQ(yuvSame, yuv);
        EXPECT_EQ(rgbaSame, rgba);
    }
}

// The product is cut to its low byte before the division: 1 only where that byte is 255.
TEST(ConvertRow, CmykKeepsOnlyTheLowByteOfTheProduct) {
    std::vector<unsigned char> c, m, y, k;
    for (int a : Samples())
        for (int b : Samples())
            c.push_back(a), m.push_back(b), y.push_back(255 - a), k.push_back(b);
    c.push_back(254), m.push_back(0), y.push_back(0), k.push_back(0);
    Planes planes({{c}, {m}, {y}, {k}});
    std::vector<unsigned char> out(4 * c.size(), 0xEE);
    kiu::ConvertCMYKtoRGB(c.size(), planes, 0, out.data());
    auto expected = [](int ink, int black) { return (255 - ink) * (255 - black) % 256 == 255; };
    for (size_t i = 0; i < c.size(); ++i)
        ASSERT_EQ(BytesAt(&out[4 * i], 4),
                  std::vector<int>(
                      {expected(c[i], k[i]), expected(m[i], k[i]), expected(y[i], k[i]), 0xEE}));
    EXPECT_EQ(out[4 * (c.size() - 1)], 1) << "c = 254 on white paper";
}

// The inverted YCbCr colour scaled by k as stored (a rounded colour, then rounding down).
TEST(ConvertRow, YcckInvertsAndScalesByK) {
    std::vector<unsigned char> y, u, v, k;
    for (int a : Samples())
        for (int b : {0, 60, 128, 255})
            for (int c : {0, 90, 128, 255})
                for (int d : {0, 1, 128, 255})
                    y.push_back(a), u.push_back(b), v.push_back(c), k.push_back(d);
    Planes planes({{y}, {u}, {v}, {k}});
    std::vector<unsigned char> out(4 * y.size(), 0xEE);
    kiu::ConvertYCCKtoRGB(y.size(), planes, 0, out.data());
    for (size_t i = 0; i < y.size(); ++i) {
        double cb = u[i] - 128.0, cr = v[i] - 128.0;
        double inverted[3] = {Clamp(255 - (y[i] + 1.402 * cr)),
                              Clamp(255 - (y[i] - 0.34414 * cb - 0.71414 * cr)),
                              Clamp(255 - (y[i] + 1.772 * cb))};
        for (int c = 0; c < 3; ++c) {
            double exact = k[i] * inverted[c] / 255;
            ASSERT_LE(out[4 * i + c], exact + 0.501) << i;
            ASSERT_GT(out[4 * i + c], exact - 1.501) << i;
        }
        if (k[i] == 0) {
            ASSERT_EQ(BytesAt(&out[4 * i], 3), std::vector<int>(3, 0));
        }
        ASSERT_EQ(out[4 * i + 3], 0xEE);
    }
}

}  // namespace
