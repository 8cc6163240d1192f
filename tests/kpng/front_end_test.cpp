// The DecodePNG front ends: argument checks, the record, alpha depth, and stream input.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "CPNG.h"
#include "kau.h"
#include "mmstream.h"
#include "png_support.h"

namespace pngtest {
namespace {

Bytes OnePixelRgba() {
    PngWriter png;
    return png.Ihdr(1, 1, 8, 6).Idat(Zlib({0, 1, 2, 3, 4})).Iend().bytes();
}

STImageSimple Untouched() {
    STImageSimple image;
    memset(&image, 0xA5, sizeof(image));
    return image;
}

bool SameRecord(const STImageSimple& a, const STImageSimple& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

// Each overload with one argument spoiled at a time: 0, a report at the overload's line, and
// nothing touched.
TEST(DecodePNG, InvalidArgumentsAreReportedAtEachOverloadsLine) {
    const Bytes png = OnePixelRgba();
    MMStream* stream = PageArrayStream(png);
    struct Case {
        const unsigned char* png;
        unsigned long size, alpha;
        bool nullImage;
    } cases[] = {{nullptr, png.size(), 255, false},
                 {png.data(), 0, 255, false},
                 {png.data(), png.size(), 256, false},
                 {png.data(), png.size(), 255, true}};
    for (const Case& c : cases) {
        const bool streamCase = c.size != 0;  // the stream overload has no size to spoil
        MMStream* source = c.png ? stream : nullptr;
        for (int overload = 1; overload <= (streamCase ? 3 : 2); ++overload) {
            SCOPED_TRACE(std::to_string(&c - cases) + " overload " + std::to_string(overload));
            STImageSimple image = Untouched();
            STImageSimple* record = c.nullImage ? nullptr : &image;
            int alphaDepth = 5, result = -1;
            const std::string printed = Printed([&] {
                result = overload == 1   ? DecodePNG(c.png, c.size, c.alpha, record, alphaDepth)
                         : overload == 2 ? DecodePNG(c.png, c.size, c.alpha, record)
                                         : DecodePNG(source, c.alpha, record);
            });
            EXPECT_EQ(printed, Report(kCpng, overload == 1 ? 97 : overload == 2 ? 22 : 59));
            EXPECT_EQ(result, 0);
            EXPECT_TRUE(SameRecord(image, Untouched()));
            EXPECT_EQ(alphaDepth, 5);
        }
    }
    unsigned long position = 1;
    MMStreamTell(stream, &position);
    EXPECT_EQ(position, 0u);
    MMStreamDelete(&stream);
}

TEST(DecodePNG, FillsTheRecord) {
    const Bytes png = OnePixelRgba();
    MMStream* stream = PageArrayStream(png);
    int alphaDepth = 0;
    struct Case {
        const char* name;
        std::function<int(STImageSimple*)> call;
        uint32_t dataSize;
    } cases[] = {
        {"MemoryWithDepth",
         [&](STImageSimple* i) { return DecodePNG(png.data(), png.size(), 0, i, alphaDepth); }, 0},
        {"Memory", [&](STImageSimple* i) { return DecodePNG(png.data(), png.size(), 0, i); }, 4},
        {"Stream", [&](STImageSimple* i) { return DecodePNG(stream, 255, i); }, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        STImageSimple image = Untouched();
        EXPECT_EQ(Printed([&] { EXPECT_EQ(c.call(&image), 1); }), "");
        EXPECT_EQ(image.width, 1u);
        EXPECT_EQ(image.height, 1u);
        EXPECT_EQ(image.stride, 4u);
        EXPECT_EQ(image.bpp, 32);
        EXPECT_EQ(image.reserved, 0);
        EXPECT_EQ(image.dataSize, c.dataSize);
        ASSERT_NE(image.data, nullptr);
        EXPECT_EQ(Bytes(image.data, image.data + 4), Bytes({1, 2, 3, 4}));
        kau::mem::Delete(image.data);
    }
    EXPECT_EQ(alphaDepth, 8);
    MMStreamDelete(&stream);
}

TEST(DecodePNG, AlphaDepthIsWrittenOnceTheHeaderIsRead) {
    PngWriter rgb16;
    rgb16.Ihdr(1, 1, 16, 6).ChunkWithCrc("IDAT", Zlib(Bytes(9)), 0).Iend();
    PngWriter rgb;
    rgb.Ihdr(1, 1, 8, 2).Idat(Zlib(Bytes(4))).Iend();
    PngWriter broken;
    broken.Ihdr(1, 1, 8, 9);
    struct Case {
        const char* name;
        Bytes png;
        int result, alphaDepth;
    } cases[] = {
        {"DecodingFails", rgb16.bytes(), 0, 8},
        {"NoAlpha", rgb.bytes(), 1, -1},
        {"ConstructionFails", broken.bytes(), 0, 77},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        STImageSimple image = {};
        int alphaDepth = 77;
        int result = -1;
        Printed([&] { result = DecodePNG(c.png.data(), c.png.size(), 255, &image, alphaDepth); });
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(alphaDepth, c.alphaDepth);
        kau::mem::Delete(image.data);
    }
}

// ---- Stream input ----

// A 300 x 200 RGB image whose IDAT chunks are small, larger than the stream read buffer and
// empty, so that stream reads refill, grow and skip.
Bytes MixedChunksPng() {
    const RawImage image = RandomImage(300, 200, 8, 2, 11);
    const Bytes data = Zlib(Scanlines(image, false, [](int i) { return i % 5; }), 1);
    PngWriter png;
    png.Ihdr(image.width, image.height, 8, 2).Chunk("tEXt", Bytes(9000, 'x'));
    const size_t cuts[] = {0, 100, 8292, 8292, 30000, 30001};
    for (size_t k = 0; k + 1 < std::size(cuts); ++k)
        png.Idat(Slice(data, cuts[k], cuts[k + 1]));
    png.Idat(Slice(data, 30001, data.size()));
    return png.Iend().bytes();
}

TEST(StreamInput, GivesTheSamePixelsAsMemory) {
    const Bytes png = MixedChunksPng();
    const Decoded memory = Decode(png);
    ASSERT_EQ(memory.result, 1) << memory.printed;
    EXPECT_TRUE(memory.rgba == ReferenceDecode(png).rgba);
    for (Source source : {Source::PageArrayStream, Source::FileStream}) {
        const Decoded decoded = Decode(png, source);
        ASSERT_EQ(decoded.result, 1) << decoded.printed;
        EXPECT_TRUE(decoded.rgba == memory.rgba) << SourceName(source);
    }
}

TEST(StreamInput, ShortStreamsFailAtTheirRead) {
    const Bytes png = MixedChunksPng();
    const size_t bigChunk = png.size() - 1000;  // inside the last, large IDAT
    struct Case {
        const char* name;
        size_t length;
        int position;
        bool duringDecode;
    } cases[] = {
        {"InsideTheHeader", 20, 556, false},
        {"InsideTheLargeText", 8 + 25 + 5000, 544, false},
        {"InsideTheLastIdat", bigChunk, 544, true},
        {"BeforeIend", png.size() - 6, 556, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes cut = Slice(png, 0, c.length);
        for (Source source : {Source::PageArrayStream, Source::FileStream}) {
            const Decoded decoded = Decode(cut, source);
            EXPECT_EQ(decoded.printed, Report(kKpng, c.position) +
                                           (c.duringDecode ? Report(kCpng, 64) : Report(kKpng, 82)))
                << SourceName(source);
        }
    }
}

TEST(StreamInput, AShortGrownReadLeavesTheStreamAtItsEnd) {
    const Bytes png = MixedChunksPng();
    MMStream* stream = PageArrayStream(Slice(png, 0, 8 + 25 + 5000));
    STImageSimple image = {};
    Printed([&] { EXPECT_EQ(DecodePNG(stream, 255, &image), 0); });
    unsigned long position = 0;
    ASSERT_TRUE(MMStreamTell(stream, &position));
    EXPECT_EQ(position, 8u + 25 + 5000);
    MMStreamDelete(&stream);
}

TEST(StreamInput, IsReadFromItsPositionWithoutRewinding) {
    const Bytes png = OnePixelRgba();
    MMStream* stream = PageArrayStream(png);
    MMStreamSeek(stream, 8, MMStreamSeekFromBegin);
    STImageSimple image = Untouched();
    EXPECT_EQ(Printed([&] { EXPECT_EQ(DecodePNG(stream, 255, &image), 0); }),
              Report(kKpng, 18) + Report(kKpng, 82));
    EXPECT_TRUE(SameRecord(image, Untouched()));
    MMStreamDelete(&stream);
}

}  // namespace
}  // namespace pngtest
