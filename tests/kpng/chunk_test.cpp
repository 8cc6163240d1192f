// The chunk reader and the chunk handlers: order rules, CRCs, header limits, transparency and
// background forms, unknown chunks. Each failure is checked by the report it prints.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kpng.h"
#include "png_support.h"

namespace pngtest {
namespace {

struct Piece {
    std::string type;
    Bytes data;
    bool badCrc = false;
};

Bytes Build(const std::vector<Piece>& pieces) {
    PngWriter png;
    for (const Piece& piece : pieces) {
        if (piece.badCrc)
            png.ChunkWithCrc(piece.type, piece.data, 0x12345678);
        else
            png.Chunk(piece.type, piece.data);
    }
    return png.bytes();
}

Bytes IhdrData(uint32_t width, uint32_t height, int depth, int colourType, int compression = 0,
               int filter = 0, int interlace = 0) {
    Bytes data = Join({Be32(width), Be32(height)});
    data.insert(data.end(), {uint8_t(depth), uint8_t(colourType), uint8_t(compression),
                             uint8_t(filter), uint8_t(interlace)});
    return data;
}

// Image data of a 2 x 2 image whose samples are all zero.
Bytes ZeroData(int depth, int colourType) {
    RawImage image;
    image.width = image.height = 2;
    image.depth = depth;
    image.colourType = colourType;
    image.pixels.assign(image.RowBytes(2) * 2, 0);
    return Zlib(Scanlines(image, false, [](int) { return 0; }));
}

const Piece kRgb = {"IHDR", IhdrData(2, 2, 8, 2)};
const Piece kPal = {"IHDR", IhdrData(2, 2, 8, 3)};
const Piece kGrey = {"IHDR", IhdrData(2, 2, 8, 0)};
const Piece kGreyAlpha = {"IHDR", IhdrData(2, 2, 8, 4)};
const Piece kRgba = {"IHDR", IhdrData(2, 2, 8, 6)};
const Piece kPlte = {"PLTE", {10, 20, 30, 40, 50, 60, 70, 80, 90}};
const Piece kRgbData = {"IDAT", ZeroData(8, 2)};
const Piece kPalData = {"IDAT", ZeroData(8, 3)};
const Piece kIend = {"IEND", {}};

struct FailureCase {
    const char* name;
    std::vector<Piece> pieces;
    int position;  // of the first cause, in the decoder
    bool duringDecode;
};

// The two reports of a failure: the first cause, then the constructor's or DecodePNG's own.
std::string Expected(const FailureCase& c, Source source) {
    const bool memory = source == Source::Memory;
    return Report(kKpng, c.position) +
           (c.duringDecode ? Report(kCpng, memory ? 27 : 64) : Report(kKpng, memory ? 62 : 82));
}

std::vector<Piece> WithHeader(const Bytes& ihdr) {
    return {{"IHDR", ihdr}, kRgbData, kIend};
}

const std::vector<FailureCase>& FailureCases() {
    const Piece gama = {"gAMA", Be32(45455)}, greyKey = {"tRNS", Be16(0)};
    const Piece greyBackground = {"bKGD", Be16(0)};
    static const std::vector<FailureCase> cases = {
        // Order of the chunks before the image data.
        {"IdatBeforeIhdr", {kRgbData, kIend}, 32, false},
        {"AncillaryBeforeIhdr", {gama, kRgb, kRgbData, kIend}, 745, false},
        {"PlteBeforeIhdr", {kPlte, kPal, kPalData, kIend}, 647, false},
        {"TrnsBeforeIhdr", {greyKey, kGrey, kRgbData, kIend}, 673, false},
        {"BkgdBeforeIhdr", {greyBackground, kGrey, kRgbData, kIend}, 709, false},
        {"IendFirst", {kIend}, 589, false},
        {"IendBeforeIdat", {kRgb, kIend}, 589, false},
        {"IhdrTwice", {kRgb, kRgb, kRgbData, kIend}, 598, false},
        {"PaletteWithoutPlte", {kPal, kPalData, kIend}, 33, false},
        {"PlteAfterTrns", {kRgb, {"tRNS", Bytes(6)}, kPlte, kRgbData, kIend}, 649, false},
        {"PlteTwice", {kPal, kPlte, kPlte, kPalData, kIend}, 650, false},
        {"PlteNotTriples", {kPal, {"PLTE", Bytes(10)}, kPalData, kIend}, 658, false},
        {"PlteTooLong", {kPal, {"PLTE", Bytes(771)}, kPalData, kIend}, 658, false},
        {"TrnsTwice", {kGrey, greyKey, greyKey, kRgbData, kIend}, 675, false},
        {"TrnsGreyLength", {kGrey, {"tRNS", Bytes(3)}, kRgbData, kIend}, 679, false},
        {"TrnsColourLength", {kRgb, {"tRNS", Bytes(2)}, kRgbData, kIend}, 686, false},
        {"TrnsBeforePlte", {kPal, {"tRNS", {1}}, kPlte, kPalData, kIend}, 695, false},
        {"TrnsBeyondPalette", {kPal, kPlte, {"tRNS", Bytes(4)}, kPalData, kIend}, 696, false},
        {"TrnsPaletteEmpty", {kPal, kPlte, {"tRNS", {}}, kPalData, kIend}, 697, false},
        {"TrnsWithAlpha", {kGreyAlpha, greyKey, kRgbData, kIend}, 702, false},
        {"BkgdTwice", {kGrey, greyBackground, greyBackground, kRgbData, kIend}, 711, false},
        {"BkgdBeforePlte", {kPal, {"bKGD", {0}}, kPlte, kPalData, kIend}, 715, false},
        {"BkgdPaletteLength", {kPal, kPlte, {"bKGD", {0, 0}}, kPalData, kIend}, 716, false},
        {"BkgdPaletteIndex", {kPal, kPlte, {"bKGD", {3}}, kPalData, kIend}, 718, false},
        {"BkgdGreyLength", {kGreyAlpha, {"bKGD", Bytes(6)}, kRgbData, kIend}, 725, false},
        {"BkgdColourLength", {kRgba, {"bKGD", Bytes(2)}, kRgbData, kIend}, 734, false},
        {"UnknownCritical", {kRgb, {"ABCD", {}}, kRgbData, kIend}, 753, false},
        {"TypeNotLetters", {kRgb, {"ab1d", {}}, kRgbData, kIend}, 752, false},
        // The header's own checks, in their order.
        {"IhdrShort", {{"IHDR", Bytes(12)}, kRgbData, kIend}, 599, false},
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
        {"InterlaceTwo", WithHeader(IhdrData(2, 2, 8, 2, 0, 0, 2)), 640, false},
        {"CompressionOne", WithHeader(IhdrData(2, 2, 8, 2, 1)), 641, false},
        {"FilterOne", WithHeader(IhdrData(2, 2, 8, 2, 0, 1)), 642, false},
        // CRCs, checked before anything the chunk says.
        {"IhdrCrcWithBadFields",
         {{"IHDR", IhdrData(0, 0, 3, 9), true}, kRgbData, kIend},
         576,
         false},
        {"PlteCrc", {kPal, {"PLTE", kPlte.data, true}, kPalData, kIend}, 576, false},
        {"TrnsCrc", {kGrey, {"tRNS", Be16(0), true}, kRgbData, kIend}, 576, false},
        {"BkgdCrc", {kGrey, {"bKGD", Be16(0), true}, kRgbData, kIend}, 576, false},
        {"AncillaryCrc", {kRgb, {"gAMA", Be32(45455), true}, kRgbData, kIend}, 576, false},
        {"IdatCrc", {kRgb, {"IDAT", kRgbData.data, true}, kIend}, 576, true},
        {"EmptyIdatCrc", {kRgb, {"IDAT", {}, true}, kRgbData, kIend}, 576, true},
        {"MiddleIdatCrc",
         {kRgb,
          {"IDAT", Slice(kRgbData.data, 0, 4)},
          {"IDAT", Slice(kRgbData.data, 4, 8), true},
          {"IDAT", Slice(kRgbData.data, 8, kRgbData.data.size())},
          kIend},
         576,
         true},
        {"TrailingAncillaryCrc", {kRgb, kRgbData, {"tEXt", {'a', 0, 'b'}, true}, kIend}, 576, true},
        {"IendCrc", {kRgb, kRgbData, {"IEND", {}, true}}, 576, true},
        // Chunks after the image data.
        {"PlteAfterIdat", {kRgb, kRgbData, kPlte, kIend}, 648, true},
        {"TrnsAfterIdat", {kGrey, kRgbData, greyKey, kIend}, 674, true},
        {"IhdrAfterIdat", {kRgb, kRgbData, kRgb, kIend}, 598, true},
        {"IdatAfterOtherChunk", {kRgb, kRgbData, gama, {"IDAT", {}}, kIend}, 884, true},
        {"EmptyIdatAfterImageData", {kRgb, kRgbData, {"IDAT", {}}, kIend}, 884, true},
        {"CriticalAfterIdat", {kRgb, kRgbData, {"ABCD", {}}, kIend}, 753, true},
        {"ImageDataCutByOtherChunk",
         {kRgb,
          {"IDAT", Slice(kRgbData.data, 0, 5)},
          gama,
          {"IDAT", Slice(kRgbData.data, 5, kRgbData.data.size())},
          kIend},
         514,
         true},
        {"ImageDataNotZlib", {kRgb, {"IDAT", {0x78, 0x9C, 0xFF, 0xFF, 0xFF}}, kIend}, 527, true},
    };
    return cases;
}

class ChunkFailure : public testing::TestWithParam<FailureCase> {};

TEST_P(ChunkFailure, IsReportedAtItsCause) {
    const FailureCase& c = GetParam();
    const Bytes png = Build(c.pieces);
    for (Source source : {Source::Memory, Source::PageArrayStream}) {
        SCOPED_TRACE(SourceName(source));
        const Decoded decoded = Decode(png, source);
        EXPECT_EQ(decoded.result, 0);
        EXPECT_EQ(decoded.printed, Expected(c, source));
    }
}

INSTANTIATE_TEST_SUITE_P(Table, ChunkFailure, testing::ValuesIn(FailureCases()),
                         [](const testing::TestParamInfo<FailureCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(ChunkReader, InputsThatEndEarlyFailWhereTheReadFails) {
    const Bytes whole = Build({kRgb, kRgbData, kIend});
    const Bytes signatureOnly = Slice(whole, 0, 8);
    const Bytes withoutIend = Slice(whole, 0, whole.size() - 12);
    const Bytes cutInIdat = Slice(whole, 0, 33 + 12);
    struct Case {
        const Bytes& png;
        bool duringDecode;
    } cases[] = {{signatureOnly, false}, {withoutIend, true}, {cutInIdat, true}};
    for (const Case& c : cases) {
        const std::string tail = c.duringDecode ? Report(kCpng, 27) : Report(kKpng, 62);
        EXPECT_EQ(Decode(c.png).printed, Report(kKpng, 565) + tail);
        const std::string streamTail = c.duringDecode ? Report(kCpng, 64) : Report(kKpng, 82);
        EXPECT_EQ(Decode(c.png, Source::PageArrayStream).printed, Report(kKpng, 556) + streamTail);
    }
}

TEST(ChunkReader, SignatureAndLengthsAreCheckedFirst) {
    Bytes wrongSignature = Build({kRgb, kRgbData, kIend});
    wrongSignature[0] = 0x88;
    EXPECT_EQ(Decode(wrongSignature).printed, Report(kKpng, 18) + Report(kKpng, 62));
    PngWriter longChunk;
    longChunk.Chunk("IHDR", IhdrData(2, 2, 8, 2)).LengthAndType(0x80000000, "gAMA");
    EXPECT_EQ(Decode(longChunk.bytes()).printed, Report(kKpng, 22) + Report(kKpng, 62));
}

// Valid files with unusual chunks: accepted, with the pixels that their data gives.
TEST(ChunkReader, UnusualChunksAreAccepted) {
    struct Case {
        const char* name;
        std::vector<Piece> pieces;
        Bytes trailer;
    } cases[] = {
        {"SkippedAncillary",
         {kRgb,
          {"gAMA", Be32(1)},
          {"tEXt", {'k', 0, 'v'}},
          {"zzzz", Bytes(70)},
          kRgbData,
          {"tIME", Bytes(7)},
          kIend},
         {}},
        {"SuggestedPaletteOfNine", {kRgb, {"PLTE", Bytes(9)}, kRgbData, kIend}, {}},
        {"SuggestedPaletteOfTen", {kRgb, {"PLTE", Bytes(10)}, kRgbData, kIend}, {}},
        {"BkgdAfterIdat", {kRgb, kRgbData, {"bKGD", Bytes(1)}, kIend}, {}},
        {"ZeroLengthIdats", {kRgb, {"IDAT", {}}, {"IDAT", {}}, kRgbData, kIend}, {}},
        {"EmptyPalette", {kPal, {"PLTE", {}}, kPalData, kIend}, {}},
        {"BytesAfterIend", {kRgb, kRgbData, kIend}, RandomBytes(40, 5)},
    };
    const Bytes blackOpaque = {0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255};
    for (const Case& c : cases) {
        const Bytes png = Join({Build(c.pieces), c.trailer});
        for (Source source : {Source::Memory, Source::PageArrayStream, Source::FileStream}) {
            SCOPED_TRACE(std::string(c.name) + " " + SourceName(source));
            const Decoded decoded = Decode(png, source);
            ASSERT_EQ(decoded.printed, "");
            EXPECT_EQ(decoded.rgba, blackOpaque);
        }
    }
}

// Header values and the transparency and background forms, seen on the constructed decoder.
TEST(Decoder, KeepsAlphaDepthAndBackground) {
    const Piece header16 = {"IHDR", IhdrData(2, 2, 16, 0)};
    struct Case {
        const char* name;
        std::vector<Piece> pieces;
        int alphaDepth;
        std::vector<uint16_t> background;  // none when empty
    } cases[] = {
        {"RgbPlain", {kRgb, kRgbData}, -1, {}},
        {"RgbKey", {kRgb, {"tRNS", Bytes(6)}, kRgbData}, 8, {}},
        {"Grey1Key", {{"IHDR", IhdrData(2, 2, 1, 0)}, {"tRNS", Be16(1)}, kRgbData}, 1, {}},
        {"Grey16KeyClamped", {header16, {"tRNS", Be16(1)}, kRgbData}, 8, {}},
        {"Rgba16", {{"IHDR", IhdrData(2, 2, 16, 6)}, kRgbData}, 8, {}},
        {"GreyAlpha8", {kGreyAlpha, kRgbData}, 8, {}},
        {"Palette4Alpha", {{"IHDR", IhdrData(2, 2, 4, 3)}, kPlte, {"tRNS", {9}}, kRgbData}, 4, {}},
        {"PaletteBackground", {kPal, kPlte, {"bKGD", {2}}, kPalData}, -1, {70, 80, 90}},
        {"Grey16Background",
         {header16, {"bKGD", Be16(0x1234)}, kRgbData},
         -1,
         {0x1234, 0x1234, 0x1234}},
        {"GreyAlphaBackground", {kGreyAlpha, {"bKGD", Be16(7)}, kRgbData}, 8, {7, 7, 7}},
        {"RgbBackground",
         {kRgb, {"bKGD", Join({Be16(1), Be16(2), Be16(0xFFFF)})}, kRgbData},
         -1,
         {1, 2, 0xFFFF}},
        {"WidestImage", {{"IHDR", IhdrData(536870851, 1, 1, 0)}, {"IDAT", {}}}, -1, {}},
        {"TallestImage", {{"IHDR", IhdrData(1, 0x7FFFFFFF, 16, 6)}, {"IDAT", {}}}, 8, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes png = Build(c.pieces);
        kpng::Decoder decoder(png.data(), png.size(), 255);
        EXPECT_EQ(decoder.AlphaDepth(), c.alphaDepth);
        EXPECT_EQ(decoder.HasBackground(), !c.background.empty());
        const std::vector<uint16_t> background = {
            decoder.BackgroundRed(), decoder.BackgroundGreen(), decoder.BackgroundBlue()};
        if (decoder.HasBackground()) {
            EXPECT_EQ(background, c.background);
        }
    }
}

TEST(Decoder, ConstructionFailuresRaiseAtTheConstructorAfterReportingTheCause) {
    const Bytes png = Build({kPal, kPalData, kIend});
    struct Case {
        std::function<void()> construct;
        int cause, position;
    } cases[] = {
        {[&] { kpng::Decoder decoder(png.data(), png.size(), 255); }, 33, 62},
        {[] { kpng::Decoder decoder(nullptr, 10, 255); }, 52, 62},
        {[] { kpng::Decoder decoder(static_cast<MMStream*>(nullptr), 255); }, 70, 82},
    };
    for (const Case& c : cases) {
        int position = 0;
        const std::string printed = Printed([&] {
            try {
                c.construct();
            } catch (const kau::Error& e) {
                position = e.Position();
                EXPECT_STREQ(e.FileName(), kKpng);
            }
        });
        EXPECT_EQ(position, c.position);
        EXPECT_EQ(printed, Report(kKpng, c.cause));
    }
}

}  // namespace
}  // namespace pngtest
