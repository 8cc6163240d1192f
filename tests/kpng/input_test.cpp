// The push-mode input: the chunk walk over pieces of any size, pngSize, the carry-over of the
// bytes after IEND into the next PNG, and the errors of the walk.
#include <gtest/gtest.h>

#include <algorithm>

#include "CPNG.h"
#include "kau.h"
#include "kpng.h"
#include "mmstream.h"
#include "test_png.h"

namespace pngtest {
namespace {

// A small PNG with an ancillary chunk and its image data in three IDATs, one of them empty.
Bytes SmallPng(uint32_t seed) {
    const Bytes data = Zlib(Scanlines(RandomImage(5, 4, 8, 6, seed), false, [](int) { return 4; }));
    PngWriter png;
    png.Ihdr(5, 4, 8, 6).Chunk("tEXt", {'a', 0, 'b'}).Idat(Slice(data, 0, 10)).Idat({});
    return png.Idat(Slice(data, 10, data.size())).Iend().bytes();
}

struct Input : kpng::Input {
    Input() : kpng::Input{} { Construct(); }
    ~Input() { Destruct(); }
    int Push(const Bytes& bytes) { return kpng::Input::Push(bytes.data(), bytes.size()); }
    // Decodes the collected PNG as the element does, then carries the bytes after it over.
    Bytes DecodeAndCarryOver() {
        STImageSimple image = {};
        MMStreamReady(stream);
        EXPECT_EQ(Printed([&] { EXPECT_EQ(DecodePNG(stream, 255, &image), 1); }), "");
        const Bytes rgba(image.data, image.data + image.stride * image.height);
        kau::mem::Delete(image.data);
        EXPECT_EQ(Printed([&] { ResetStreamWithDataAfterIEND(); }), "");
        return rgba;
    }
};

TEST(Input, PiecesOfEverySizeCompleteInThePieceThatHoldsTheEnd) {
    const Bytes png = SmallPng(1), expected = ReferenceDecode(png).rgba;
    for (size_t piece = 1; piece <= png.size(); ++piece) {
        Input input;
        for (size_t at = 0; at < png.size(); at += piece) {
            const size_t end = std::min(png.size(), at + piece);
            ASSERT_EQ(input.Push(Slice(png, at, end)), end == png.size() ? 0 : 1) << piece;
        }
        EXPECT_EQ(input.pngSize, png.size());
        EXPECT_TRUE(input.DecodeAndCarryOver() == expected) << piece;
    }
}

// The start of the next PNG, or all of it (which then completes on any further byte), carried
// over; the byte after the second PNG is carried over in turn.
TEST(Input, BytesAfterIendStartTheNextPng) {
    const Bytes first = SmallPng(1), second = SmallPng(2);
    for (size_t carried : {size_t(10), second.size()}) {
        Input input;
        EXPECT_EQ(input.Push(Join({first, Slice(second, 0, carried)})), 0);
        EXPECT_EQ(input.pngSize, first.size());
        EXPECT_TRUE(input.DecodeAndCarryOver() == ReferenceDecode(first).rgba);
        EXPECT_EQ(input.Push(Join({Slice(second, carried, second.size()), {0}})), 0);
        EXPECT_EQ(input.pngSize, second.size());
        EXPECT_TRUE(input.DecodeAndCarryOver() == ReferenceDecode(second).rgba);
        EXPECT_EQ(input.pngSize, 1u);
    }
}

TEST(Input, ErrorsOfTheWalkAreRaisedAtTheByteThatShowsThem) {
    Bytes badFirst = SmallPng(1), badLast = badFirst;
    badFirst[0] = badLast[7] = 'X';
    PngWriter longIend, hugeChunk;
    longIend.Ihdr(1, 1, 8, 0).Chunk("IEND", {1, 2});
    hugeChunk.Raw(Join({Be32(0x80000000), {'I', 'D', 'A', 'T'}}));
    const struct {
        Bytes bytes;
        size_t raisingByte;
        int position;
    } cases[] = {
        {badFirst, 7, 944},
        {badLast, 7, 944},
        {longIend.bytes(), 8 + 25 + 8 + 3, 985},  // the fourth CRC byte of IEND
        {hugeChunk.bytes(), 11, 22},
    };
    for (const auto& c : cases) {
        Input input;
        for (size_t i = 0; i < c.raisingByte; ++i)
            ASSERT_EQ(input.Push({c.bytes[i]}), 1) << c.position << " " << i;
        int position = 0;
        try {
            input.Push({c.bytes[c.raisingByte]});
        } catch (const kau::Error& e) {
            EXPECT_STREQ(e.FileName(), kpng::kKpngFile);
            position = e.Position();
        }
        EXPECT_EQ(position, c.position);
    }
}

}  // namespace
}  // namespace pngtest
