// The push-mode input: the chunk walk over pieces of any size, pngSize, the carry-over of the
// bytes after IEND into the next PNG, and the errors of the walk.
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

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
};

// Two PNGs and a byte, pushed in pieces of every size: each PNG completes in the piece that
// holds its end and decodes as the element decodes it; the bytes after it are carried over into
// the next one, which completes on the next push when they hold all of it.
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
        try {
            input.Push({bytes[raisingByte]});
            ADD_FAILURE() << position << " not raised";
        } catch (const kau::Error& e) {
            EXPECT_STREQ(e.FileName(), kpng::kKpngFile);
            EXPECT_EQ(e.Position(), position);
        }
    }
}

}  // namespace
}  // namespace pngtest
