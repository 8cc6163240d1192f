// Image data: feeding the inflater from IDAT chunks, row filters, Adam7, expansion of every
// colour type and depth, and the guards on the output size.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kau.h"
#include "mmstream.h"
#include "png_support.h"

namespace pngtest {
namespace {

struct Format {
    int colourType, depth;
};

const Format kFormats[] = {{0, 1}, {0, 2}, {0, 4}, {0, 8}, {0, 16}, {2, 8}, {2, 16}, {3, 1},
                           {3, 2}, {3, 4}, {3, 8}, {4, 8}, {4, 16}, {6, 8}, {6, 16}};

std::string FormatName(const Format& f) {
    return "type" + std::to_string(f.colourType) + "depth" + std::to_string(f.depth);
}

// A full palette with some transparency, or a tRNS key taken from the image's first pixel so
// that some pixels match it.
PngOptions OptionsFor(const RawImage& image, uint32_t seed, bool interlaced) {
    PngOptions options;
    options.interlaced = interlaced;
    const Bytes randomFilters = RandomBytes(4096, seed);
    options.filterOf = [randomFilters](int i) { return randomFilters[size_t(i) % 4096] % 5; };
    const uint64_t first = image.PixelBits(0, 0);
    if (image.colourType == 3) {
        options.plte = RandomBytes(3u << image.depth, seed + 1);
        options.trns = RandomBytes((1u << image.depth) / 2 + 1, seed + 2);
    } else if (image.colourType == 0 && seed % 2) {
        options.trns = Be16(uint16_t(first));
    } else if (image.colourType == 2 && seed % 2) {
        const int bits = image.depth;
        options.trns = Join({Be16(uint16_t(first >> 2 * bits)), Be16(uint16_t(first >> bits)),
                             Be16(uint16_t(first))});
    }
    return options;
}

class EveryFormat : public testing::TestWithParam<Format> {};

TEST_P(EveryFormat, DecodesLikeTheReference) {
    const Format f = GetParam();
    const uint32_t sizes[][2] = {{1, 1}, {3, 5}, {17, 9}, {33, 2}, {64, 3}, {7, 40}};
    uint32_t seed = uint32_t(f.colourType * 100 + f.depth);
    for (const auto& size : sizes) {
        for (bool interlaced : {false, true}) {
            ++seed;
            SCOPED_TRACE(std::to_string(size[0]) + "x" + std::to_string(size[1]) +
                         (interlaced ? " interlaced" : ""));
            const RawImage image = RandomImage(size[0], size[1], f.depth, f.colourType, seed);
            const Bytes png = EncodePng(image, OptionsFor(image, seed, interlaced));
            const Reference reference = ReferenceDecode(png);
            ASSERT_TRUE(reference.ok);
            const Decoded decoded = Decode(png);
            ASSERT_EQ(decoded.result, 1) << decoded.printed;
            EXPECT_TRUE(decoded.rgba == reference.rgba);
        }
    }
}

// Every pass geometry of the small sizes, filters included, against the same image stored
// without interlacing.
TEST_P(EveryFormat, InterlacedImagesEqualTheirTwins) {
    const Format f = GetParam();
    for (uint32_t width = 1; width <= 9; ++width) {
        for (uint32_t height = 1; height <= 9; ++height) {
            SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
            const uint32_t seed = width * 16 + height;
            const RawImage image = RandomImage(width, height, f.depth, f.colourType, seed);
            PngOptions options = OptionsFor(image, seed, false);
            const Decoded plain = Decode(EncodePng(image, options));
            options.interlaced = true;
            const Decoded interlaced = Decode(EncodePng(image, options));
            ASSERT_EQ(plain.result, 1) << plain.printed;
            ASSERT_EQ(interlaced.result, 1) << interlaced.printed;
            EXPECT_TRUE(plain.rgba == interlaced.rgba);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, EveryFormat, testing::ValuesIn(kFormats),
                         [](const testing::TestParamInfo<Format>& info) {
                             return FormatName(info.param);
                         });

// A one-row image from its scanline bytes (filter byte first).
Bytes OneRowPng(uint32_t width, int depth, int colourType, const Bytes& scanline,
                const Bytes& plte = {}, const Bytes& trns = {}) {
    PngWriter png;
    png.Ihdr(width, 1, depth, colourType);
    if (!plte.empty()) png.Chunk("PLTE", plte);
    if (!trns.empty()) png.Chunk("tRNS", trns);
    return png.Idat(Zlib(scanline)).Iend().bytes();
}

struct ExpansionCase {
    const char* name;
    Bytes png;
    unsigned long defaultAlpha;
    Bytes rgba;
};

const Bytes kFourColours = {10, 11, 12, 20, 21, 22, 30, 31, 32, 40, 41, 42};

const std::vector<ExpansionCase>& ExpansionCases() {
    static const std::vector<ExpansionCase> cases = {
        {"Grey1KeyOne",
         OneRowPng(2, 1, 0, {0, 0x80}, {}, Be16(1)),
         255,
         {255, 255, 255, 0, 0, 0, 0, 255}},
        {"Grey1KeyZero",
         OneRowPng(2, 1, 0, {0, 0x80}, {}, Be16(0)),
         255,
         {255, 255, 255, 255, 0, 0, 0, 0}},
        {"Grey1KeyTwo",
         OneRowPng(2, 1, 0, {0, 0x80}, {}, Be16(2)),
         255,
         {255, 255, 255, 255, 0, 0, 0, 255}},
        {"Grey8KeyAboveRange",
         OneRowPng(2, 8, 0, {0, 0, 255}, {}, Be16(256)),
         255,
         {0, 0, 0, 255, 255, 255, 255, 255}},
        {"Grey16KeyUsesAllBits",
         OneRowPng(2, 16, 0, {0, 1, 0, 1, 1}, {}, Be16(256)),
         255,
         {1, 1, 1, 0, 1, 1, 1, 255}},
        {"Rgb8KeyAboveRange",
         OneRowPng(1, 8, 2, {0, 1, 2, 3}, {}, Join({Be16(1), Be16(2), Be16(259)})),
         255,
         {1, 2, 3, 255}},
        {"TruecolourIgnoresDefaultAlpha", OneRowPng(1, 8, 2, {0, 9, 8, 7}), 0, {9, 8, 7, 255}},
        {"PaletteAlphaThenDefault",
         OneRowPng(4, 2, 3, {0, 0x1B}, kFourColours, {100, 101}),
         200,
         {10, 11, 12, 100, 20, 21, 22, 101, 30, 31, 32, 200, 40, 41, 42, 200}},
        {"PaletteWithoutTrns",
         OneRowPng(4, 2, 3, {0, 0x1B}, kFourColours),
         200,
         {10, 11, 12, 200, 20, 21, 22, 200, 30, 31, 32, 200, 40, 41, 42, 200}},
        {"PaletteDefaultAlphaZero", OneRowPng(1, 8, 3, {0, 3}, kFourColours), 0, {40, 41, 42, 0}},
        {"PaletteIndexBeyondEntries",
         OneRowPng(2, 4, 3, {0, 0x71}, kFourColours, {5, 6, 7, 8}),
         99,
         {0, 0, 0, 99, 20, 21, 22, 6}},
        {"PaletteIndexBeyondTrns",
         OneRowPng(1, 8, 3, {0, 2}, kFourColours, {5}),
         77,
         {30, 31, 32, 77}},
        {"Grey2Width1", OneRowPng(1, 2, 0, {0, 0x80}), 255, {170, 170, 170, 255}},
        {"FilterSevenIsNone",
         OneRowPng(2, 8, 2, {7, 1, 2, 3, 4, 5, 6}),
         255,
         {1, 2, 3, 255, 4, 5, 6, 255}},
        {"FilterTwoHundredIsNone", OneRowPng(1, 8, 0, {200, 42}), 255, {42, 42, 42, 255}},
    };
    return cases;
}

class Expansion : public testing::TestWithParam<ExpansionCase> {};

TEST_P(Expansion, FollowsTheExpansionRules) {
    const ExpansionCase& c = GetParam();
    for (Source source : {Source::Memory, Source::PageArrayStream}) {
        const Decoded decoded = Decode(c.png, source, c.defaultAlpha);
        ASSERT_EQ(decoded.result, 1) << decoded.printed;
        EXPECT_EQ(decoded.rgba, c.rgba) << SourceName(source);
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Expansion, testing::ValuesIn(ExpansionCases()),
                         [](const testing::TestParamInfo<ExpansionCase>& info) {
                             return std::string(info.param.name);
                         });

// Every filter over every pixel width, on rows long enough for the bulk loops and their ends.
TEST(Filters, EachFilterAtEachPixelWidthMatchesTheReference) {
    const Format pixelWidths[] = {{0, 8}, {4, 8}, {2, 8}, {6, 8}, {2, 16}, {6, 16}};
    for (const Format& f : pixelWidths) {
        for (int filter = 1; filter <= 4; ++filter) {
            SCOPED_TRACE(FormatName(f) + " filter " + std::to_string(filter));
            const RawImage image = RandomImage(1021, 24, f.depth, f.colourType, uint32_t(filter));
            PngOptions options;
            options.filterOf = [filter](int) { return filter; };
            const Bytes png = EncodePng(image, options);
            const Decoded decoded = Decode(png);
            ASSERT_EQ(decoded.result, 1) << decoded.printed;
            EXPECT_TRUE(decoded.rgba == ReferenceDecode(png).rgba);
        }
    }
}

// ---- Feeding the image data ----

const RawImage& SmallImage() {
    static const RawImage image = RandomImage(13, 7, 8, 2, 77);
    return image;
}

Bytes WithIdats(const std::vector<Bytes>& idats, const RawImage& image = SmallImage()) {
    PngWriter png;
    png.Ihdr(image.width, image.height, image.depth, image.colourType);
    for (const Bytes& data : idats)
        png.Idat(data);
    return png.Iend().bytes();
}

TEST(ImageData, SplitAtEveryByteWithEmptyChunksDecodesTheSame) {
    const Bytes data = Zlib(Scanlines(SmallImage(), false, [](int i) { return i % 5; }));
    const Bytes expected = ReferenceDecode(WithIdats({data})).rgba;
    for (size_t at = 1; at < data.size(); ++at) {
        SCOPED_TRACE(at);
        const Bytes png = WithIdats({{}, Slice(data, 0, at), {}, {}, Slice(data, at, data.size())});
        for (Source source : {Source::Memory, Source::PageArrayStream}) {
            const Decoded decoded = Decode(png, source);
            ASSERT_EQ(decoded.result, 1) << decoded.printed;
            EXPECT_TRUE(decoded.rgba == expected);
        }
    }
}

TEST(ImageData, SurplusDataIsIgnored) {
    const Bytes scanlines = Scanlines(SmallImage(), false, [](int) { return 1; });
    const Bytes expected = ReferenceDecode(WithIdats({Zlib(scanlines)})).rgba;
    for (size_t surplus : {size_t{1}, size_t{5000}}) {
        const Bytes data = Zlib(Join({scanlines, RandomBytes(surplus, 3)}));
        for (const Bytes& png :
             {WithIdats({data}), WithIdats({Slice(data, 0, 20), Slice(data, 20, data.size())})}) {
            const Decoded decoded = Decode(png);
            ASSERT_EQ(decoded.result, 1) << decoded.printed;
            EXPECT_TRUE(decoded.rgba == expected);
        }
    }
}

TEST(ImageData, AStreamThatEndsEarly) {
    const RawImage& image = SmallImage();
    const Bytes scanlines = Scanlines(image, false, [](int) { return 0; });
    const size_t rowBytes = 1 + image.RowBytes(image.width);
    const Bytes threeRows = Zlib(Slice(scanlines, 0, 3 * rowBytes));
    const Bytes full = Zlib(scanlines);

    // The rows after the end ask for more data and find IEND.
    EXPECT_EQ(Decode(WithIdats({threeRows})).printed, Report(kKpng, 514) + Report(kCpng, 27));
    EXPECT_EQ(Decode(WithIdats({Slice(full, 0, full.size() / 2)})).printed,
              Report(kKpng, 514) + Report(kCpng, 27));

    // Bytes after the end in the same chunk keep the inflater at its end: the rows it decoded
    // are kept and the image is accepted.
    const Decoded decoded = Decode(WithIdats({Join({threeRows, Bytes(9, 0xEE)})}));
    ASSERT_EQ(decoded.result, 1) << decoded.printed;
    const Bytes expected = ReferenceDecode(WithIdats({full})).rgba;
    EXPECT_TRUE(Slice(decoded.rgba, 0, 3 * image.width * 4) ==
                Slice(expected, 0, 3 * image.width * 4));
}

TEST(ImageData, CorruptAdlerIsAnInflateError) {
    Bytes data = Zlib(Scanlines(SmallImage(), false, [](int) { return 0; }));
    data.back() ^= 1;
    EXPECT_EQ(Decode(WithIdats({data})).printed, Report(kKpng, 527) + Report(kCpng, 27));
}

// ---- Output size guards ----

unsigned long largestRequest = 0;

void* CountingNew(unsigned long n) {
    if (n > largestRequest) largestRequest = n;
    return MMAllocate(n);
}

// The largest allocation requested while `work` runs.
unsigned long LargestAllocation(const std::function<void()>& work) {
    largestRequest = 0;
    kau::mem::SetExternalNewAndDelete(CountingNew, MMFree);
    work();
    kau::mem::SetExternalNewAndDelete(MMAllocate, MMFree);
    return largestRequest;
}

TEST(OutputSize, WrappingSizesFailLikeAFailedAllocation) {
    struct Case {
        const char* name;
        uint32_t width, height;
        int depth, colourType, interlace, position;
    } cases[] = {
        {"RgbaLargest", 0x1FFFFFC3, 0x7FFFFFFF, 8, 6, 0, 100},
        {"RgbaLargestInterlaced", 0x1FFFFFC3, 0x7FFFFFFF, 8, 6, 1, 109},
        {"Grey1Tall", 0x10000, 0x10000, 1, 0, 0, 100},
        {"Rgba16RoomForLastRowWraps", 0x1FFFFFC3, 2, 16, 6, 0, 100},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PngWriter png;
        png.Ihdr(c.width, c.height, c.depth, c.colourType, c.interlace)
            .Idat(Zlib(Bytes(64)))
            .Iend();
        Decoded decoded;
        const unsigned long largest = LargestAllocation([&] { decoded = Decode(png.bytes()); });
        EXPECT_EQ(decoded.printed, Report(kKpng, c.position) + Report(kCpng, 27));
        EXPECT_LT(largest, 1ul << 20);
    }
}

}  // namespace
}  // namespace pngtest
