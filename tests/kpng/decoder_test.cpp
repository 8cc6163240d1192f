// The decoder on PngSuite and on files made for one rule each, vector row loops against portable
// ones, failures by their reports; the push-mode input's chunk walk and carry-over after IEND.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "CPNG.h"
#include "checksum.h"
#include "kau.h"
#include "kauCpu.h"
#include "kpng.h"
#include "mmstream.h"
#include "rowRoutines.h"
#include "test_png.h"
#include "zin.h"

namespace pngtest {
namespace {

const std::string kKpng = kModules + "kpng/kpng", kCpng = kModules + "kpng/CPNG";

using kpng::OutputFormat;

// The push-mode input; Decode reads its page-array stream too, as the element does.
struct Input : kpng::Input {
    Input() : kpng::Input{} { Construct(); }
    ~Input() { Destruct(); }
    int Push(const Bytes& bytes) { return kpng::Input::Push(bytes.data(), bytes.size()); }
};

// DecodePNG from memory or a stream: the pixels without the rows' padding (none on failure) and
// what it printed. With a stride it writes a caller's rows, whose padding must stay untouched.
struct Decoded {
    Bytes rgba;  // in the format asked for
    std::string printed;
};

Decoded Decode(const Bytes& png, bool fromStream = false, unsigned long defaultAlpha = 255,
               kpng::DecodeOptions options = {}) {
    Bytes rows(options.stride ? options.stride * kpng::BigEndian32(&png[20]) : 0, 0xA5);
    if (options.stride) options.destination = rows.data();
    Input input;
    MMStreamPut(input.stream, png.data(), unsigned(png.size()));
    MMStreamReady(input.stream);
    Decoded d;
    STImageSimple image = {};
    int result = 0;
    d.printed = Printed([&] {
        result = fromStream ? DecodePNG(input.stream, defaultAlpha, &image, options)
                            : DecodePNG(png.data(), png.size(), defaultAlpha, &image, options);
    });
    if (!result) return d;
    const uint32_t pixelBytes = kpng::BytesPerPixel(options.format),
                   rowBytes = image.width * pixelBytes;
    EXPECT_EQ(image.bpp, 8 * pixelBytes);
    EXPECT_EQ(image.stride, options.stride ? options.stride : rowBytes);
    EXPECT_EQ(image.data == rows.data(), options.stride != 0);
    for (uint32_t y = 0; y < image.height; ++y) {
        const unsigned char* row = image.data + size_t(y) * image.stride;
        d.rgba.insert(d.rgba.end(), row, row + rowBytes);
        EXPECT_EQ(Bytes(row + rowBytes, row + image.stride), Bytes(image.stride - rowBytes, 0xA5));
    }
    if (!options.stride) kau::mem::Delete(image.data);
    return d;
}

// Decodes with the vector row loops and with the portable ones, which must give the same pixels.
Decoded DecodeBothWays(const Bytes& png, bool fromStream = false) {
    kpng::UseVectorRowPaths(false);
    const Decoded portable = Decode(png, fromStream);
    kpng::UseVectorRowPaths(true);
    Decoded decoded = Decode(png, fromStream);
    EXPECT_TRUE(decoded.rgba == portable.rgba) << "the vector and portable row loops differ";
    return decoded;
}

// The output formats in their order, named by their bytes in memory order where they have 3 or 4.
const std::string kFormatNames[] = {"RGBA", "BGRA", "ARGB", "ABGR", "RGBx",  "BGRx",
                                    "xRGB", "xBGR", "RGB",  "BGR",  "RGB16", "GRAY8"};

// R, G, B, A pixels in the format named.
Bytes Converted(const std::string& name, const Bytes& rgba) {
    Bytes out;
    for (size_t i = 0; i < rgba.size(); i += 4) {
        const unsigned char* p = &rgba[i];
        const uint16_t word = uint16_t((p[0] & 0xF8) << 8 | (p[1] & 0xFC) << 3 | p[2] >> 3);
        if (name == "RGB16")
            out.insert(out.end(), {uint8_t(word), uint8_t(word >> 8)});  // little-endian targets
        else if (name == "GRAY8")
            out.push_back(uint8_t((19595 * p[0] + 38470 * p[1] + 7471 * p[2] + 32768) >> 16));
        else
            for (char c : name)
                out.push_back(c == 'x' ? 255 : p[c == 'R' ? 0 : c == 'G' ? 1 : c == 'B' ? 2 : 3]);
    }
    return out;
}

class PngSuite : public testing::TestWithParam<std::string> {};

// Every valid file decodes in every output format to libpng's pixels, portable loops from memory
// and vector loops from a stream into a caller's longer rows; every broken file is refused.
TEST_P(PngSuite, DecodesLikeTheReferenceOrIsRefused) {
    const Bytes png = ReadDataFile("pngsuite/" + GetParam());
    const bool broken = GetParam()[0] == 'x';
    const Reference reference = ReferenceDecode(png);
    ASSERT_EQ(reference.ok, !broken);
    for (size_t f = 0; f < (broken ? 1 : std::size(kFormatNames)); ++f) {
        for (bool vector : {false, true}) {
            SCOPED_TRACE(kFormatNames[f] + (vector ? " vector" : " portable"));
            kpng::DecodeOptions options = {0, OutputFormat(f)};
            if (vector && !broken)
                options.stride = kpng::BytesPerPixel(options.format) * reference.width + 13;
            kpng::UseVectorRowPaths(vector);
            const Decoded decoded = Decode(png, vector, 255, options);
            EXPECT_EQ(decoded.printed.empty(), !broken) << decoded.printed;
            EXPECT_TRUE(decoded.rgba == Converted(kFormatNames[f], reference.rgba));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, PngSuite, testing::ValuesIn(DataFiles("pngsuite")),
                         [](const auto& info) { return info.param; });

// The benchmark images, and grey rows that end on, just past and just before the end of the
// first 96 KiB of image data inflated ahead of them.
TEST(LargeImages, DecodeLikeTheReference) {
    std::vector<Bytes> pngs;
    for (const std::string& name : DataFiles("bench"))
        pngs.push_back(ReadDataFile("bench/" + name));
    ASSERT_FALSE(pngs.empty());
    for (const uint32_t width : {16383u, 19659u, 19660u})
        pngs.push_back(EncodePng(RandomImage(width, 8, 8, 0, width)));
    for (const Bytes& png : pngs)
        EXPECT_TRUE(DecodeBothWays(png).rgba == ReferenceDecode(png).rgba) << &png - &pngs[0];
}

// The limit counts the output format's bytes and refuses gigabytes of pixels at the header; a
// caller's rows must hold a row of the format.
TEST(DecodeLimit, CountsTheFormatsBytesAndRefusesAtTheHeader) {
    const Bytes good = EncodePng(RandomImage(4, 3, 8, 2, 7));  // 48 output bytes
    const Bytes huge = PngWriter().Ihdr(536870851, 1, 16, 6, 1).Idat(Zlib(Bytes{0})).Iend().bytes();
    const int over = kpng::kErrOutputOverLimit, shortRows = kpng::kErrOutputAllocate;
    const std::tuple<const Bytes&, kpng::DecodeOptions, int> cases[] = {
        {good, {48, OutputFormat::kRgba}, 0},
        {good, {47, OutputFormat::kRgba}, over},
        {good, {12, OutputFormat::kGray8}, 0},
        {good, {11, OutputFormat::kGray8}, over},
        {huge, {1 << 20, OutputFormat::kRgba}, over},
        {good, {0, OutputFormat::kRgb, nullptr, 12}, 0},
        {good, {0, OutputFormat::kRgb, nullptr, 11}, shortRows}};
    for (const auto& [png, options, position] : cases)
        EXPECT_EQ(Decode(png, false, 255, options).printed, position ? Report(kKpng, position) : "")
            << options.maxOutputBytes << " " << options.stride;
}

// Every routine of every format and filter type, with and without SSE4.1, gives the portable
// routine's bytes on random rows of up to 70 pixels, through each of the vector loops' row ends;
// a first-row routine gives its routine's bytes on a zero prior row without reading that row.
TEST(RowRoutines, VectorRoutinesEqualThePortableOnRandomRows) {
    // 64-bit targets always have vector registers (SSE2 or NEON); 32-bit ARM may lack NEON.
    const bool vectorSet = sizeof(void*) == 8 || kau::cpu::Available().neon;
    // Random pixel tables, but for 8-bit grey the grey ramp that its vector expansion counts on.
    uint32_t random[256], ramp[256];
    memcpy(random, RandomBytes(sizeof random, 3).data(), sizeof random);
    for (uint32_t v = 0; v < 256; ++v)
        ramp[v] = 0xFF000000u | v * 0x010101u;
    for (const bool sse41 : {false, true}) {
        kau::cpu::UseFeature(&kau::cpu::Features::sse41, sse41);
        for (const Format f : kEveryFormat) {
            for (const bool keyed : {false, true}) {
                SCOPED_TRACE(testing::Message() << "type " << f.colourType << " depth " << f.depth
                                                << " keyed " << keyed << " SSE4.1 " << sse41);
                const RawImage shape = {1, 1, f.depth, f.colourType, {}};
                const int bytesPerPixel = std::max(1, shape.BitsPerPixel() / 8);
                const kpng::RowFormat format = {uint8_t(f.colourType), uint8_t(f.depth),
                                                uint8_t(bytesPerPixel), keyed};
                const uint32_t* table = f.colourType == 0 && f.depth == 8 ? ramp : random;
                const kpng::PixelKeys keys = {table, 0x3131, {0x31, 0x3131, 0x31}};
                kpng::UseVectorRowPaths(false);
                const kpng::RowRoutines portable = kpng::ChooseRowRoutines(format, keys);
                kpng::UseVectorRowPaths(true);
                const kpng::RowRoutines vector = kpng::ChooseRowRoutines(format, keys);
                // The switch reaches the choice: pixels of 3 bytes or more have a vector Paeth.
                if (vectorSet && bytesPerPixel >= 3) {
                    EXPECT_NE(vector.unfilter[kpng::kFilterPaeth],
                              portable.unfilter[kpng::kFilterPaeth]);
                }
                for (uint32_t pixels = 1; pixels <= 70; ++pixels) {
                    const uint32_t n = uint32_t(shape.RowBytes(pixels));
                    const Bytes raw = RandomBytes(n, pixels), up = RandomBytes(n, pixels + 1000);
                    for (int type = 0; type < kpng::kFilterTypes; ++type) {
                        // Unlike starting rows show unwritten bytes; the prior row is poisoned.
                        Bytes row(n, 0x5A), expected(n, 0xC3), poisoned(n, 0xA5), zeros(n);
                        portable.unfilter[type](raw.data(), up.data(), expected.data(), n);
                        vector.unfilter[type](raw.data(), up.data(), row.data(), n);
                        ASSERT_EQ(row, expected) << type << " " << n;
                        portable.unfilter[type](raw.data(), zeros.data(), expected.data(), n);
                        vector.unfilterFirst[type](raw.data(), poisoned.data(), row.data(), n);
                        ASSERT_EQ(row, expected) << "first " << type << " " << n;
                    }
                    if (!portable.expand) continue;
                    Bytes in = raw, out(4 * pixels), expected(4 * pixels);
                    // Some pixels equal the key: every sample byte 0x31.
                    std::fill_n(in.begin(), std::min<size_t>(n, 8), 0x31);
                    portable.expand(in.data(), expected.data(), pixels, keys);
                    vector.expand(in.data(), out.data(), pixels, keys);
                    ASSERT_TRUE(out == expected) << "expansion of " << pixels;
                }
            }
        }
    }
}

// Adler-32 and CRC-32 give the portable sums at every length to 300 and every alignment, and on
// random bytes and 0xFF runs longer than one reduction's; Adler-32 from its largest a and b.
TEST(Checksums, VectorFormsEqualThePortable) {
    const Bytes data = Join({RandomBytes(70000, 9), Bytes(70000, 0xFF)});
    std::vector<std::pair<uint32_t, uint32_t>> spans = {{3, 5552 * 2 + 17}, {70001, 69000}};
    for (uint32_t length = 0; length <= 300; ++length)
        spans.push_back({length % 16, length});
    for (const auto& [offset, length] : spans) {
        const unsigned char* p = data.data() + offset;
        kpng::UseVectorRowPaths(false);
        const uint32_t adler = zin::Adler32(0xFFF0FFF0, p, length);
        const unsigned long crc = zio::crc32(0, p, length);
        kpng::UseVectorRowPaths(true);
        ASSERT_EQ(zin::Adler32(0xFFF0FFF0, p, length), adler) << offset << " " << length;
        ASSERT_EQ(zio::crc32(0, p, length), crc) << offset << " " << length;
    }
}

// A chunk, or raw bytes when the type is empty.
struct Piece {
    std::string type;
    Bytes data;
    bool badCrc = false;
};

// A 2 x 2 RGB image's zero scanlines; image data holding more (enough for every 8-bit type), also
// split in two; a stream with a wrong Adler-32; one ending as the last row starts, also split.
const Bytes kRows = Scanlines(RawImage{2, 2, 8, 2, Bytes(12)}, false, [](int) { return 0; });
const Bytes kData = Zlib(Join({kRows, Bytes(4)})), kShort = Zlib(Slice(kRows, 0, 8));
const Bytes kBadAdler = Join({Slice(Zlib(kRows), 0, Zlib(kRows).size() - 1), {0}});
const Piece kHead = {"IDAT", Slice(kData, 0, 5)}, kTail = {"IDAT", Slice(kData, 5, kData.size())};
const Piece kShortBody = {"IDAT", Slice(kShort, 0, kShort.size() - 4)};
const Piece kShortAdler = {"IDAT", Slice(kShort, kShort.size() - 4, kShort.size())};

const Piece kRgb = {"IHDR", IhdrData(2, 2, 8, 2)}, kPal = {"IHDR", IhdrData(2, 2, 8, 3)};
const Piece kGrey = {"IHDR", IhdrData(2, 2, 8, 0)}, kGreyA = {"IHDR", IhdrData(2, 2, 8, 4)};
const Piece kPlte = {"PLTE", {10, 20, 30, 40, 50, 60, 70, 80, 90}};
const Piece kIdat = {"IDAT", kData}, kIend = {"IEND", {}}, kGama = {"gAMA", Be32(45455)};
const Piece kKey = {"tRNS", Be16(0)}, kBack = {"bKGD", Be16(0)};

std::vector<Piece> WithHeader(const Bytes& ihdr) {
    return {{"IHDR", ihdr}, kIdat, kIend};
}

// A one-row image from its scanline (filter byte first).
std::vector<Piece> OneRow(uint32_t width, int depth, int type, const Bytes& scanline,
                          const Bytes& trns = {}) {
    std::vector<Piece> pieces = {{"IHDR", IhdrData(width, 1, depth, type)}};
    if (type == 3) pieces.push_back({"PLTE", {10, 11, 12, 20, 21, 22, 30, 31, 32, 40, 41, 42}});
    if (!trns.empty()) pieces.push_back({"tRNS", trns});
    pieces.insert(pieces.end(), {{"IDAT", Zlib(scanline)}, kIend});
    return pieces;
}

struct ChunkCase {
    const char* name;
    std::vector<Piece> pieces;
    int position;            // of the first cause; 0: accepted
    bool duringDecode;       // or while constructing
    int streamPosition = 0;  // when a stream fails elsewhere
    size_t cut = 0;          // bytes cut from the end
    Bytes rgba = Join(std::vector<Bytes>(4, {0, 0, 0, 255}));
    unsigned long defaultAlpha = 255;
};

// clang-format off
const ChunkCase kChunkCases[] = {
    {"Ancillary", {kRgb, kGama, {"zzzz", Bytes(70)}, kIdat, {"tIME", Bytes(7)}, kIend}, 0, false},
    {"SuggestedPaletteNotChecked", {kRgb, {"PLTE", Bytes(10)}, kIdat, kIend}, 0, false},
    {"BkgdAfterIdat", {kRgb, kIdat, {"bKGD", Bytes(1)}, kIend}, 0, false},
    {"EmptyPalette", {kPal, {"PLTE", {}}, kIdat, kIend}, 0, false},
    {"IdatBeforeIhdr", {kIdat, kIend}, 32, false},
    {"AncillaryBeforeIhdr", {kGama, kRgb, kIdat, kIend}, 745, false},
    {"PlteBeforeIhdr", {kPlte, kPal, kIdat, kIend}, 647, false},
    {"TrnsBeforeIhdr", {kKey, kGrey, kIdat, kIend}, 673, false},
    {"BkgdBeforeIhdr", {kBack, kGrey, kIdat, kIend}, 709, false},
    {"IendFirst", {kIend}, 589, false},
    {"IendBeforeIdat", {kRgb, kIend}, 589, false},
    {"IhdrTwice", {kRgb, kRgb, kIdat, kIend}, 598, false},
    {"PaletteWithoutPlte", {kPal, kIdat, kIend}, 33, false},
    {"PlteAfterTrns", {kRgb, {"tRNS", Bytes(6)}, kPlte, kIdat, kIend}, 649, false},
    {"PlteTwice", {kPal, kPlte, kPlte, kIdat, kIend}, 650, false},
    {"PlteNotTriples", {kPal, {"PLTE", Bytes(10)}, kIdat, kIend}, 658, false},
    {"PlteTooLong", {kPal, {"PLTE", Bytes(771)}, kIdat, kIend}, 658, false},
    {"TrnsTwice", {kGrey, kKey, kKey, kIdat, kIend}, 675, false},
    {"TrnsGreyLength", {kGrey, {"tRNS", Bytes(3)}, kIdat, kIend}, 679, false},
    {"TrnsColourLength", {kRgb, {"tRNS", Bytes(2)}, kIdat, kIend}, 686, false},
    {"TrnsBeforePlte", {kPal, {"tRNS", {1}}, kPlte, kIdat, kIend}, 695, false},
    {"TrnsBeyondPalette", {kPal, kPlte, {"tRNS", Bytes(4)}, kIdat, kIend}, 696, false},
    {"TrnsPaletteEmpty", {kPal, kPlte, {"tRNS", {}}, kIdat, kIend}, 697, false},
    {"TrnsWithAlpha", {kGreyA, kKey, kIdat, kIend}, 702, false},
    {"BkgdTwice", {kGrey, kBack, kBack, kIdat, kIend}, 711, false},
    {"BkgdBeforePlte", {kPal, {"bKGD", {0}}, kPlte, kIdat, kIend}, 715, false},
    {"BkgdPaletteLength", {kPal, kPlte, {"bKGD", {0, 0}}, kIdat, kIend}, 716, false},
    {"BkgdPaletteIndex", {kPal, kPlte, {"bKGD", {3}}, kIdat, kIend}, 718, false},
    {"BkgdGreyLength", {kGreyA, {"bKGD", Bytes(6)}, kIdat, kIend}, 725, false},
    {"BkgdColourLength", {{"IHDR", IhdrData(2, 2, 8, 6)}, kBack, kIdat, kIend}, 734, false},
    {"UnknownCritical", {kRgb, {"ABCD", {}}, kIdat, kIend}, 753, false},
    {"TypeNotLetters", {kRgb, {"ab1d", {}}, kIdat, kIend}, 752, false},
    // The header's own checks, in their order.
    {"IhdrShort", {{"IHDR", Bytes(12)}, kIdat, kIend}, 599, false},
    {"WidthZero", WithHeader(IhdrData(0, 2, 8, 2)), 631, false},
    {"HeightZero", WithHeader(IhdrData(2, 0, 8, 2)), 631, false},
    {"WidthTopBit", WithHeader(IhdrData(0x80000000, 0, 8, 2)), 22, false},
    {"HeightTopBit", WithHeader(IhdrData(0, 0x80000000, 8, 2)), 22, false},
    {"WidthAboveLimit", WithHeader(IhdrData(536870852, 1, 8, 2)), 635, false},
    {"DepthBeforeType", WithHeader(IhdrData(2, 2, 3, 7)), 636, false},
    {"ColourTypeOne", WithHeader(IhdrData(2, 2, 8, 1)), 637, false},
    {"ColourTypeSeven", WithHeader(IhdrData(2, 2, 8, 7)), 637, false},
    {"Palette16", WithHeader(IhdrData(2, 2, 16, 3)), 639, false},
    {"Rgb4", WithHeader(IhdrData(2, 2, 4, 2)), 639, false},
    {"InterlaceTwo", WithHeader(IhdrData(2, 2, 8, 2, 2)), 640, false},
    {"CompressionOne", WithHeader(IhdrData(2, 2, 8, 2, 0, 1)), 641, false},
    {"FilterOne", WithHeader(IhdrData(2, 2, 8, 2, 0, 0, 1)), 642, false},
    // CRCs, checked before anything the chunk says.
    {"IhdrCrcWithBadFields", {{"IHDR", IhdrData(0, 0, 3, 9), true}, kIdat, kIend}, 576, false},
    {"PlteCrc", {kPal, {"PLTE", kPlte.data, true}, kIdat, kIend}, 576, false},
    {"SuggestedPaletteCrc", {kRgb, {"PLTE", kPlte.data, true}, kIdat, kIend}, 576, false},
    {"TrnsCrc", {kGrey, {"tRNS", Be16(0), true}, kIdat, kIend}, 576, false},
    {"BkgdCrc", {kGrey, {"bKGD", Be16(0), true}, kIdat, kIend}, 576, false},
    {"AncillaryCrc", {kRgb, {"gAMA", Be32(45455), true}, kIdat, kIend}, 576, false},
    {"EmptyIdatCrc", {kRgb, {"IDAT", {}, true}, kIdat, kIend}, 576, true},
    {"TrailingAncillaryCrc", {kRgb, kIdat, {"tEXt", {'a', 0, 'b'}, true}, kIend}, 576, true},
    {"IendCrc", {kRgb, kIdat, {"IEND", {}, true}}, 576, true},
    // Chunks after the image data.
    {"PlteAfterIdat", {kRgb, kIdat, kPlte, kIend}, 648, true},
    {"TrnsAfterIdat", {kGrey, kIdat, kKey, kIend}, 674, true},
    {"IhdrAfterIdat", {kRgb, kIdat, kRgb, kIend}, 598, true},
    {"EmptyIdatAfterImageData", {kRgb, kIdat, {"IDAT", {}}, kIend}, 884, true},
    {"CriticalAfterIdat", {kRgb, kIdat, {"ABCD", {}}, kIend}, 753, true},
    {"ImageDataCutByOtherChunk", {kRgb, kHead, kGama, kTail, kIend}, 514, true},
    {"SurplusOverTwoIdats", {kRgb, kHead, kTail, kIend}, 0, false},
    {"StreamEndsBeforeTheRows", {kRgb, {"IDAT", Zlib(Slice(kRows, 0, 7))}, kIend}, 514, true},
    // An end read with the last byte looks for more image data; one read only from a later IDAT
    // is met by the last row, whose missing bytes read as zero.
    {"StreamEndsAsTheLastRowStarts", {kRgb, {"IDAT", kShort}, kIend}, 514, true},
    {"TrailerAloneInTheLastIdat", {kRgb, kShortBody, kShortAdler, kIend}, 0, false},
    {"BadAdler", {kRgb, {"IDAT", kBadAdler}, kIend}, 527, true},
    {"ImageDataNotZlib", {kRgb, {"IDAT", {0x78, 0x9C, 0xFF, 0xFF, 0xFF}}, kIend}, 527, true},
    // Inputs that end early or are no PNG.
    {"SignatureOnly", {}, 565, false, 556},
    {"CutOneByte", {kRgb, kIdat, kIend}, 565, true, 556, 1},
    {"CutInsideIdat", {kRgb, kIdat}, 565, true, 556, 6},
    {"CutInsideLargeChunk", {kRgb, {"tEXt", Bytes(9000, 'x')}}, 565, false, 544, 4000},
    {"CutInsideLargeIdat", {kRgb, {"IDAT", Join({kData, Bytes(9000)})}}, 565, true, 544, 100},
    {"ChunkLengthTopBit", {kRgb, {"", Join({Be32(0x80000000), {'g', 'A', 'M', 'A'}})}}, 22, false},
    // Pixels. tRNS keys compare every bit of the sample, and keys out of range match nothing.
    {"GreyKeyOutOfRange", OneRow(2, 1, 0, {0, 0x80}, Be16(257)), 0, false, 0, 0,
     {255, 255, 255, 255, 0, 0, 0, 255}},
    {"Grey16KeyEveryBit", OneRow(2, 16, 0, {0, 1, 0, 1, 1}, Be16(256)), 0, false, 0, 0,
     {1, 1, 1, 0, 1, 1, 1, 255}},
    {"RgbKeyOutOfRange", OneRow(1, 8, 2, {0, 1, 2, 3}, Join({Be16(1), Be16(2), Be16(259)})),
     0, false, 0, 0, {1, 2, 3, 255}},
    // defaultAlpha: for palette indices without tRNS alpha only, those beyond PLTE included.
    {"DefaultAlphaNotForRgb", OneRow(1, 8, 2, {0, 9, 8, 7}), 0, false, 0, 0, {9, 8, 7, 255}, 0},
    {"DefaultAlphaAfterTrns", OneRow(4, 2, 3, {0, 0x1B}, {100, 101}), 0, false, 0, 0,
     {10, 11, 12, 100, 20, 21, 22, 101, 30, 31, 32, 200, 40, 41, 42, 200}, 200},
    {"DefaultAlphaWithoutTrns", OneRow(2, 2, 3, {0, 0x30}), 0, false, 0, 0,
     {10, 11, 12, 0, 40, 41, 42, 0}, 0},
    {"IndexBeyondPalette", OneRow(2, 4, 3, {0, 0x71}, {5, 6, 7, 8}), 0, false, 0, 0,
     {0, 0, 0, 99, 20, 21, 22, 6}, 99},
    {"UnknownFilterTypeIsNone", OneRow(2, 8, 2, {5, 1, 2, 3, 4, 5, 6}), 0, false, 0, 0,
     {1, 2, 3, 255, 4, 5, 6, 255}},
};
// clang-format on

// Hands out memory full of a pattern, as reused memory would be.
void* PoisonedNew(unsigned long n) {
    void* p = MMAllocate(n);
    return p ? memset(p, 0xA5, n) : p;
}

class Chunks : public testing::TestWithParam<ChunkCase> {};

// Failures report their cause, then the constructor's or DecodePNG's failure; accepted files with
// bytes after IEND give their pixels (2 x 2 black unless the case says) whatever memory held.
TEST_P(Chunks, AreAcceptedOrReportedAtTheirCause) {
    const ChunkCase& c = GetParam();
    PngWriter png;
    for (const Piece& p : c.pieces)
        p.type.empty() ? png.Raw(p.data)
        : p.badCrc     ? png.ChunkWithCrc(p.type, p.data, 0x12345678)
                       : png.Chunk(p.type, p.data);
    const Bytes& all = png.bytes();
    const Bytes input = c.position ? Slice(all, 0, all.size() - c.cut) : Join({all, Bytes(9, 7)});
    kau::mem::SetExternalNewAndDelete(PoisonedNew, MMFree);
    for (bool fromStream : {false, true}) {
        const int cause = fromStream && c.streamPosition ? c.streamPosition : c.position;
        const Decoded decoded = Decode(input, fromStream, c.defaultAlpha);
        const std::string then = c.duringDecode ? Report(kCpng, fromStream ? 64 : 27)
                                                : Report(kKpng, fromStream ? 82 : 62);
        EXPECT_EQ(decoded.printed, cause ? Report(kKpng, cause) + then : "");
        EXPECT_EQ(decoded.rgba, cause ? Bytes() : c.rgba);
    }
    kau::mem::SetExternalNewAndDelete(MMAllocate, MMFree);
}

INSTANTIATE_TEST_SUITE_P(Table, Chunks, testing::ValuesIn(kChunkCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Small sizes in every Adam7 geometry match libpng and their plain twin; long rows in IDATs below
// and above the read buffer run each filter through the bulk loops (16-bit RGBA raw rows overlap
// the next output row). Random filters, full palettes, half the images keyed on their first pixel.
TEST(EveryFormat, MatchesTheReferenceAndItsInterlacedTwin) {
    for (const Format f : kEveryFormat) {
        for (uint32_t size = 0; size < 81 + 4; ++size) {
            const bool wide = size >= 81;
            const uint32_t width = wide ? 1021 : 1 + size / 9, height = wide ? 24 : 1 + size % 9;
            SCOPED_TRACE(testing::Message() << "type " << f.colourType << " depth " << f.depth
                                            << " " << width << "x" << height);
            const RawImage image = RandomImage(width, height, f.depth, f.colourType, size);
            const int d = f.depth, type = f.colourType;
            const auto sample = [&](int k) {
                return Be16(uint16_t(image.PixelBits(0, 0) >> k * d & ((1u << d) - 1)));
            };
            PngOptions options;
            const Bytes filters = RandomBytes(4096, size);
            options.filterOf = [filters](int i) { return filters[size_t(i) % 4096] % 5; };
            if (type == 3) options.plte = RandomBytes(3u << d, size + 1);
            if (type == 3) options.trns = RandomBytes((1u << d) / 2 + 1, size + 2);
            if (type == 0 && size % 2) options.trns = sample(0);
            if (type == 2 && size % 2) options.trns = Join({sample(2), sample(1), sample(0)});
            if (wide) options.filterOf = [size](int) { return int(size - 80); };
            if (wide) options.idatSize = 4000 * (size - 80) - 1000;
            const Bytes png = EncodePng(image, options);
            const Decoded plain = DecodeBothWays(png, wide);
            EXPECT_TRUE(plain.rgba == ReferenceDecode(png).rgba) << plain.printed;
            if (wide) continue;
            options.interlaced = true;
            EXPECT_TRUE(DecodeBothWays(EncodePng(image, options)).rgba == plain.rgba);
        }
    }
}

// Blocks mapped straight from the system: the largest request is noted, those above
// `refusedAbove` fail, and the pages touched in a block are counted as it is deleted.
unsigned long largestRequest = 0, refusedAbove = 0;
std::map<void*, size_t> mappedBlocks;
size_t touchedBytes = 0;

void* MappedNew(unsigned long n) {
    largestRequest = std::max(largestRequest, n);
    void* p = n > refusedAbove ? MAP_FAILED
                               : mmap(nullptr, n + 1, PROT_READ | PROT_WRITE,
                                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) return nullptr;
    mappedBlocks[p] = n + 1;
    return p;
}

void MappedDelete(void* p) {
    if (!mappedBlocks.count(p)) return MMFree(p);
    const size_t size = mappedBlocks[p], page = size_t(sysconf(_SC_PAGESIZE));
    std::vector<unsigned char> resident((size + page - 1) / page);
    if (mincore(p, size, resident.data()) == 0)
        touchedBytes += page * size_t(std::count_if(resident.begin(), resident.end(),
                                                    [](unsigned char r) { return r & 1; }));
    munmap(p, size);
    mappedBlocks.erase(p);
}

Decoded DecodeMapped(const Bytes& png, unsigned long refuseAbove) {
    largestRequest = touchedBytes = 0;
    refusedAbove = refuseAbove;
    kau::mem::SetExternalNewAndDelete(MappedNew, MappedDelete);
    const Decoded decoded = Decode(png);
    kau::mem::SetExternalNewAndDelete(MMAllocate, MMFree);
    EXPECT_TRUE(mappedBlocks.empty());
    return decoded;
}

// Wrapping 32-bit sizes fail like a failed allocation without a large request; the widest header
// asks its full size; the largest, with 8 bytes of data, touches only the pages the data reached.
TEST(OutputSize, WrappingSizesFailLikeAFailedAllocationAndNothingIsClearedAhead) {
    // Width, height, depth, colour type, interlace, position, largest request above 1 MiB (or 0).
    const std::tuple<uint32_t, uint32_t, int, int, int, int, unsigned long> cases[] = {
        {0x1FFFFFC3, 0x7FFFFFFF, 8, 6, 0, 100, 0},     {0x1FFFFFC3, 0x7FFFFFFF, 8, 6, 1, 109, 0},
        {0x10000, 0x10000, 1, 0, 0, 100, 0},           {1, 0x7FFFFFFF, 16, 6, 1, 109, 0},
        {0x1FFFFFC3, 2, 16, 6, 0, 100, 0xFFFFFE18ul},  // 16-bit rows need no room past the output
        {536870851, 1, 1, 0, 0, 100, 536870851ul * 4},
    };
    for (const auto& [width, height, depth, type, interlace, position, request] : cases) {
        PngWriter png;
        png.Ihdr(width, height, depth, type, interlace).Idat(Zlib(Bytes(64)));
        EXPECT_EQ(DecodeMapped(png.Iend().bytes(), 1ul << 20).printed,
                  Report(kKpng, position) + Report(kCpng, 27));
        EXPECT_EQ(largestRequest > (1ul << 20) ? largestRequest : 0, request) << width;
    }
    const Bytes png =
        PngWriter().Ihdr(536870851, 1, 16, 6, 1).Idat(Slice(Zlib(Bytes(64)), 0, 8)).Iend().bytes();
    EXPECT_EQ(DecodeMapped(png, ~0ul).rgba, Bytes());
    EXPECT_LT(touchedBytes, size_t{1} << 20);
}

// A place's reason in words; unknown places, a catch site among them, are the decoder's failure.
TEST(DecodeFailure, PlacesInWords) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {nullptr, 1, "the decoder failed"},
        {"elsewhere", kpng::kErrSignature, "the decoder failed"},
        {kpng::kKpngFile, kpng::kCatchDecodeImage, "the decoder failed"},
        {kau::kKauFile, kau::kErrHeapAllocate, "there is not enough memory"},
        {kau::kKauFile, kau::kErrRoundUpOverflow, "a size is too large"}};
    for (const auto& [file, position, words] : cases)
        EXPECT_STREQ(kpng::DescribeFailure(file, position), words) << position;
}

// The first report names the cause, not the reports of the constructor and DecodePNG after it.
TEST(DecodeFailure, RecorderIsPerThreadAndNests) {
    const auto decode = [] { Decode(Bytes(64, 'X')); };  // no signature
    kau::FirstReport outer;
    {
        kau::FirstReport inner;
        decode();
        EXPECT_EQ(inner.Position(), kpng::kErrSignature);
    }
    EXPECT_FALSE(outer.Seen());
    std::thread(decode).join();
    EXPECT_FALSE(outer.Seen());
    decode();
    EXPECT_TRUE(outer.Seen());
}

// A small PNG with an ancillary chunk and its image data in three IDATs, one of them empty.
Bytes SmallPng(uint32_t seed) {
    const Bytes data = Zlib(Scanlines(RandomImage(5, 4, 8, 6, seed), false, [](int) { return 4; }));
    PngWriter png;
    png.Ihdr(5, 4, 8, 6).Chunk("tEXt", {'a', 0, 'b'}).Idat(Slice(data, 0, 10)).Idat({});
    return png.Idat(Slice(data, 10, data.size())).Iend().bytes();
}

// Two PNGs and a byte, pushed in pieces of every size: each PNG completes in the piece holding its
// end and decodes as the element does; the bytes after it carry over, completing the next if whole.
TEST(Input, PngsCompleteInThePieceThatHoldsTheirEnd) {
    const Bytes pngs[2] = {SmallPng(1), SmallPng(2)}, all = Join({pngs[0], pngs[1], {0}});
    const Bytes expected[2] = {ReferenceDecode(pngs[0]).rgba, ReferenceDecode(pngs[1]).rgba};
    const size_t ends[3] = {pngs[0].size(), all.size() - 1, SIZE_MAX};
    for (size_t piece = 1; piece < all.size(); ++piece) {
        Input input;
        size_t done = 0;
        for (size_t at = 0; at < all.size(); at += piece) {
            const size_t end = std::min(all.size(), at + piece);
            ASSERT_EQ(input.Push(Slice(all, at, end)), ends[done] <= end ? 0 : 1) << piece;
            if (ends[done] > end) continue;
            EXPECT_EQ(input.pngSize, pngs[done].size());
            STImageSimple image = {};
            MMStreamReady(input.stream);
            EXPECT_EQ(Printed([&] { EXPECT_EQ(DecodePNG(input.stream, 255, &image), 1); }), "");
            EXPECT_TRUE(Bytes(image.data, image.data + image.dataSize) == expected[done]) << piece;
            kau::mem::Delete(image.data);
            EXPECT_EQ(Printed([&] { input.ResetStreamWithDataAfterIEND(); }), "");
            ++done;
        }
        EXPECT_EQ(done, 2u);
        EXPECT_EQ(input.pngSize, 1u);
    }
}

TEST(Input, ErrorsOfTheWalkAreRaisedAtTheByteThatShowsThem) {
    Bytes badFirst = SmallPng(1), badLast = badFirst;
    badFirst[0] = badLast[7] = 'X';
    const Bytes longIend = PngWriter().Ihdr(1, 1, 8, 0).Chunk("IEND", {1, 2}).bytes();
    const Bytes hugeChunk = PngWriter().Raw(Join({Be32(0x80000000), {'I', 'D', 'A', 'T'}})).bytes();
    const std::tuple<Bytes, size_t, int> cases[] = {
        {badFirst, 7, 944},
        {badLast, 7, 944},
        {longIend, 8 + 25 + 8 + 3, 985},  // the fourth CRC byte of IEND
        {hugeChunk, 11, 22}};
    for (const auto& [bytes, raisingByte, position] : cases) {
        Input input;
        for (size_t i = 0; i < raisingByte; ++i)
            ASSERT_EQ(input.Push({bytes[i]}), 1) << position << " " << i;
        const auto push = [&] { input.Push({bytes[raisingByte]}); };
        EXPECT_EQ(Printed([&] { kau::CatchAndReport("", 0, push); }), Report(kKpng, position));
    }
}

}  // namespace
}  // namespace pngtest
