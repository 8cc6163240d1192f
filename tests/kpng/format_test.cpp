// The decoder's output formats: every format of every PngSuite image and of the benchmark
// images of at most a megapixel (every layout the set has) equals the R, G, B, A decode
// converted by the formats' rules, in the decoder's memory and in a caller's rows with padding,
// through the portable and the vector row loops.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CPNG.h"
#include "kau.h"
#include "kpng.h"
#include "test_png.h"

namespace pngtest {
namespace {

using kpng::OutputFormat;

struct FormatCase {
    OutputFormat format;
    const char* name;  // the bytes in memory order, for the 3- and 4-byte formats
};
constexpr FormatCase kFormats[] = {
    {OutputFormat::kRgba, "RGBA"},   {OutputFormat::kBgra, "BGRA"}, {OutputFormat::kArgb, "ARGB"},
    {OutputFormat::kAbgr, "ABGR"},   {OutputFormat::kRgbx, "RGBx"}, {OutputFormat::kBgrx, "BGRx"},
    {OutputFormat::kXrgb, "xRGB"},   {OutputFormat::kXbgr, "xBGR"}, {OutputFormat::kRgb, "RGB"},
    {OutputFormat::kBgr, "BGR"},     {OutputFormat::kRgb16, "RGB16"},
    {OutputFormat::kGray8, "GRAY8"}};

// The R, G, B, A pixels in the format.
Bytes ConvertImage(const FormatCase& f, const Bytes& rgba) {
    const std::string name = f.name;
    Bytes out;
    out.reserve(rgba.size());
    for (size_t i = 0; i < rgba.size(); i += 4) {
        const unsigned char* p = &rgba[i];
        if (name == "RGB16") {
            const uint16_t word = uint16_t((p[0] & 0xF8) << 8 | (p[1] & 0xFC) << 3 | p[2] >> 3);
            out.insert(out.end(), reinterpret_cast<const unsigned char*>(&word),
                       reinterpret_cast<const unsigned char*>(&word) + 2);
        } else if (name == "GRAY8") {
            out.push_back(uint8_t((19595 * p[0] + 38470 * p[1] + 7471 * p[2] + 32768) >> 16));
        } else {
            for (char c : name)
                out.push_back(c == 'x' ? 255 : p[c == 'R' ? 0 : c == 'G' ? 1 : c == 'B' ? 2 : 3]);
        }
    }
    return out;
}

// Rows of the caller's, padded, whose padding must come back untouched.
constexpr uint32_t kPadding = 13;
constexpr unsigned char kUntouched = 0xA5;

struct Output {
    bool ok = false;
    Bytes pixels;  // rows without padding
    bool paddingUntouched = true;
};

Output DecodeAs(const Bytes& png, const FormatCase& f, bool intoCallersRows, uint32_t width,
                uint32_t height) {
    Output out;
    kpng::DecodeOptions options;
    options.format = f.format;
    const uint32_t rowBytes = width * kpng::BytesPerPixel(f.format);
    Bytes rows;
    if (intoCallersRows) {
        rows.assign(size_t(rowBytes + kPadding) * height, kUntouched);
        options.destination = rows.data();
        options.stride = rowBytes + kPadding;
    }
    STImageSimple image = {};
    out.ok = DecodePNG(png.data(), png.size(), 255, &image, options) == 1;
    if (!out.ok) return out;
    EXPECT_EQ(image.bpp, 8 * kpng::BytesPerPixel(f.format));
    EXPECT_EQ(image.stride, intoCallersRows ? rowBytes + kPadding : rowBytes);
    EXPECT_EQ(image.data == rows.data(), intoCallersRows);
    for (uint32_t y = 0; y < height; ++y) {
        const unsigned char* row = image.data + size_t(y) * image.stride;
        out.pixels.insert(out.pixels.end(), row, row + rowBytes);
        if (intoCallersRows)
            out.paddingUntouched &= std::all_of(row + rowBytes, row + image.stride,
                                                [](unsigned char b) { return b == kUntouched; });
    }
    if (!intoCallersRows) kau::mem::Delete(image.data);
    return out;
}

class OutputFormats : public testing::TestWithParam<FormatCase> {};

// The portable loops write into the decoder's memory, the vector loops into the caller's rows.
TEST_P(OutputFormats, EqualTheConvertedRgbaDecode) {
    const FormatCase& f = GetParam();
    for (const std::string& file : ConformanceAndBenchFiles(1u << 20)) {
        const Bytes png = ReadDataFile(file);
        STImageSimple rgba = {};
        ASSERT_EQ(DecodePNG(png.data(), png.size(), 255, &rgba), 1) << file;
        const Bytes expected = ConvertImage(f, Bytes(rgba.data, rgba.data + rgba.dataSize));
        kau::mem::Delete(rgba.data);
        for (bool vector : {false, true}) {
            SCOPED_TRACE(file + (vector ? " vector" : " portable"));
            kpng::UseVectorRowPaths(vector);
            const Output out = DecodeAs(png, f, vector, rgba.width, rgba.height);
            kpng::UseVectorRowPaths(true);
            ASSERT_TRUE(out.ok);
            EXPECT_TRUE(out.pixels == expected);
            EXPECT_TRUE(out.paddingUntouched);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, OutputFormats, testing::ValuesIn(kFormats),
                         [](const auto& info) { return std::string(info.param.name); });

// The output limit counts the bytes of the format asked for.
TEST(OutputLimit, CountsTheFormatsBytes) {
    RawImage image = RandomImage(10, 10, 8, 2, 1);
    const Bytes png = EncodePng(image);
    for (const auto& [format, limit, ok] :
         {std::tuple{OutputFormat::kGray8, 100, true}, {OutputFormat::kGray8, 99, false},
          {OutputFormat::kRgb16, 200, true}, {OutputFormat::kRgb16, 199, false},
          {OutputFormat::kRgb, 300, true}, {OutputFormat::kBgrx, 399, false}}) {
        kpng::DecodeOptions options;
        options.format = format;
        options.maxOutputBytes = uint64_t(limit);
        STImageSimple out = {};
        const std::string printed =
            Printed([&] { EXPECT_EQ(DecodePNG(png.data(), png.size(), 255, &out, options), ok); });
        if (ok) kau::mem::Delete(out.data);
        EXPECT_EQ(printed.empty(), ok) << limit;
    }
}

}  // namespace
}  // namespace pngtest
