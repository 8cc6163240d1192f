// The push-mode input: the chunk walk over pieces of any size, pngSize, the carry-over of the
// bytes after IEND, and the errors of each state.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CPNG.h"
#include "kau.h"
#include "kpng.h"
#include "mmstream.h"
#include "png_support.h"

namespace pngtest {
namespace {

Bytes SmallPng(uint32_t seed = 1) {
    const RawImage image = RandomImage(5, 4, 8, 6, seed);
    PngWriter png;
    png.Ihdr(5, 4, 8, 6).Chunk("tEXt", {'a', 0, 'b'});
    const Bytes data = Zlib(Scanlines(image, false, [](int i) { return i % 5; }));
    png.Idat(Slice(data, 0, 10)).Idat({}).Idat(Slice(data, 10, data.size()));
    return png.Iend().bytes();
}

class InputTest : public testing::Test {
  protected:
    void SetUp() override { input.Construct(); }
    void TearDown() override { input.Destruct(); }

    int Push(const Bytes& bytes) { return input.Push(bytes.data(), bytes.size()); }
    int PushByte(unsigned char byte) { return input.Push(&byte, 1); }
    // The position of the error the push raises, or 0.
    int PushError(const Bytes& bytes) {
        try {
            Push(bytes);
        } catch (const kau::Error& e) {
            EXPECT_STREQ(e.FileName(), kKpng);
            return e.Position();
        }
        return 0;
    }
    Bytes StreamContent() {
        unsigned long size = 0;
        MMStreamSize(input.stream, &size);
        Bytes content(size);
        unsigned long position = 0;
        MMStreamTell(input.stream, &position);
        MMStreamReady(input.stream);
        if (size) MMStreamGet(input.stream, content.data(), unsigned(size));
        MMStreamSeek(input.stream, long(position), MMStreamSeekFromBegin);
        return content;
    }
    Decoded DecodeStream() {
        Decoded d;
        STImageSimple image = {};
        MMStreamReady(input.stream);
        d.printed = Printed([&] { d.result = DecodePNG(input.stream, 255, &image); });
        if (d.result) d.rgba.assign(image.data, image.data + image.stride * image.height);
        kau::mem::Delete(image.data);
        return d;
    }

    kpng::Input input{};
};

TEST_F(InputTest, OneByteAtATimeCompletesAtTheLastCrcByteOfIend) {
    const Bytes png = SmallPng();
    for (size_t i = 0; i < png.size(); ++i)
        ASSERT_EQ(PushByte(png[i]), i + 1 == png.size() ? 0 : 1) << "byte " << i;
    EXPECT_EQ(input.pngSize, png.size());
    EXPECT_TRUE(StreamContent() == png);
}

TEST_F(InputTest, PiecesOfEverySizeCompleteInThePieceThatHoldsTheEnd) {
    const Bytes png = SmallPng();
    for (size_t piece = 1; piece <= png.size(); ++piece) {
        SCOPED_TRACE(piece);
        input.Destruct();
        input.Construct();
        for (size_t at = 0; at < png.size(); at += piece) {
            const size_t end = std::min(png.size(), at + piece);
            ASSERT_EQ(Push(Slice(png, at, end)), end == png.size() ? 0 : 1);
        }
        EXPECT_EQ(input.pngSize, png.size());
    }
}

TEST_F(InputTest, BytesAfterIendAreCarriedIntoAFreshStream) {
    const Bytes png = SmallPng();
    const Bytes after = Slice(SmallPng(2), 0, 10);  // the start of the next PNG
    EXPECT_EQ(Push(Join({png, after})), 0);
    EXPECT_EQ(input.pngSize, png.size());
    const Decoded decoded = DecodeStream();
    ASSERT_EQ(decoded.result, 1) << decoded.printed;
    EXPECT_TRUE(decoded.rgba == ReferenceDecode(png).rgba);

    EXPECT_EQ(Printed([&] { input.ResetStreamWithDataAfterIEND(); }), "");
    EXPECT_TRUE(StreamContent() == after);
    EXPECT_EQ(input.pngSize, 10u);
    EXPECT_EQ(input.signatureCount, 8);
}

TEST_F(InputTest, TwoPngsInARowDecodeOneAfterTheOther) {
    const Bytes first = SmallPng(1), second = SmallPng(2);
    EXPECT_EQ(Push(Join({first, second})), 0);
    ASSERT_EQ(DecodeStream().rgba, ReferenceDecode(first).rgba);
    input.ResetStreamWithDataAfterIEND();
    EXPECT_EQ(input.pngSize, second.size());
    // The carried bytes already hold the second PNG: any further byte completes at once.
    EXPECT_EQ(PushByte(0), 0);
    EXPECT_EQ(input.pngSize, second.size());
    ASSERT_EQ(DecodeStream().rgba, ReferenceDecode(second).rgba);
    input.ResetStreamWithDataAfterIEND();
    EXPECT_EQ(StreamContent(), Bytes({0}));
    EXPECT_EQ(input.signatureCount, 1);
}

TEST_F(InputTest, ResetWithNothingAfterThePngStartsEmpty) {
    const Bytes png = SmallPng();
    Push(png);
    DecodeStream();
    input.ResetStreamWithDataAfterIEND();
    ASSERT_NE(input.stream, nullptr);
    EXPECT_EQ(input.pngSize, 0u);
    EXPECT_EQ(input.signatureCount, 0);
    EXPECT_TRUE(StreamContent().empty());
}

TEST_F(InputTest, ResetBeforeThePositionReachesThePngEndRaises) {
    Push(SmallPng());
    MMStreamReady(input.stream);
    try {
        input.ResetStreamWithDataAfterIEND();
        FAIL() << "no error";
    } catch (const kau::Error& e) {
        EXPECT_EQ(e.Position(), 1022);
    }
}

TEST_F(InputTest, CarriedBytesThatAreNoPngAreReported) {
    Push(Join({SmallPng(), Bytes(9, 'x')}));
    DecodeStream();
    EXPECT_EQ(Printed([&] { input.ResetStreamWithDataAfterIEND(); }), Report(kKpng, 944));
    ASSERT_NE(input.stream, nullptr);
    EXPECT_EQ(StreamContent(), Bytes(9, 'x'));
}

TEST_F(InputTest, ErrorsOfTheWalkAreRaisedWhereTheyAreNoticed) {
    const Bytes png = SmallPng();
    struct Case {
        const char* name;
        Bytes bytes;
        size_t raisingByte;  // index of the byte whose push raises
        int position;
    };
    Bytes badSignature = png;
    badSignature[0] = 'X';
    PngWriter longIend;
    longIend.Ihdr(1, 1, 8, 0).Chunk("IEND", {1, 2});
    PngWriter hugeChunk;
    hugeChunk.LengthAndType(0x80000000, "IDAT");
    const Case cases[] = {
        {"SignatureAtTheEighthByte", badSignature, 7, 944},
        {"IendLengthAtItsFourthCrcByte", longIend.bytes(), 8 + 25 + 8 + 3, 985},
        {"LengthWithTheTopBit", hugeChunk.bytes(), 11, 22},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        input.Destruct();
        input.Construct();
        for (size_t i = 0; i < c.raisingByte; ++i)
            ASSERT_EQ(PushByte(c.bytes[i]), 1) << i;
        EXPECT_EQ(PushError({c.bytes[c.raisingByte]}), c.position);
    }
}

TEST_F(InputTest, AfterASignatureMismatchBytesCountAsChunkLengths) {
    EXPECT_EQ(PushError(Bytes(8, 0)), 944);
    EXPECT_EQ(input.signatureCount, 8);
    EXPECT_EQ(Push({0, 0, 0, 1}), 1);
    EXPECT_EQ(input.lengthCount, 4);
    EXPECT_EQ(input.chunkLength, 1);
}

TEST_F(InputTest, PushingNothingAnswersOneInEveryState) {
    const Bytes png = SmallPng();
    // Fresh, in the signature, between chunks, in a length, in a chunk, after IEND's length, in
    // IEND's CRC, complete.
    const size_t states[] = {0, 3, 8, 10, 16, 20, png.size() - 8, png.size() - 2, png.size()};
    const unsigned char byte = 0;
    for (size_t state : states) {
        SCOPED_TRACE(state);
        input.Destruct();
        input.Construct();
        if (state) Push(Slice(png, 0, state));
        const uint32_t size = input.pngSize;
        EXPECT_EQ(input.Push(&byte, 0), 1);
        EXPECT_EQ(input.pngSize, size);
    }
    EXPECT_EQ(PushByte(7), 0);
    EXPECT_EQ(input.pngSize, png.size());
}

TEST_F(InputTest, PushWithoutDataOrStreamRaises) {
    try {
        input.Push(nullptr, 1);
        FAIL() << "no error";
    } catch (const kau::Error& e) {
        EXPECT_EQ(e.Position(), 927);
    }
    input.Destruct();
    EXPECT_EQ(input.stream, nullptr);
    EXPECT_EQ(PushError({1}), 927);
    input.Construct();
}

TEST(InputIsValid, ChecksAndConsumesTheSignature) {
    const Bytes png = SmallPng();
    struct Case {
        const char* name;
        Bytes bytes;
        bool valid;
        std::string printed;
    } cases[] = {
        {"Png", png, true, ""},
        {"Short", Slice(png, 0, 7), false, Report(kKpng, 918)},
        {"Other", Bytes(20, 1), false, Report(kKpng, 919)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MMStream* stream = PageArrayStream(c.bytes);
        bool valid = !c.valid;
        EXPECT_EQ(Printed([&] { valid = kpng::Input::IsValid(stream); }), c.printed);
        EXPECT_EQ(valid, c.valid);
        unsigned long position = 0;
        MMStreamTell(stream, &position);
        EXPECT_EQ(position, std::min<size_t>(8, c.bytes.size()));
        MMStreamDelete(&stream);
    }
    EXPECT_EQ(Printed([] { EXPECT_FALSE(kpng::Input::IsValid(nullptr)); }), "");
}

}  // namespace
}  // namespace pngtest
