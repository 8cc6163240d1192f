// The reason of a failed decode: the first report's place, recorded on the decoding thread,
// and its words.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>

#include "CPNG.h"
#include "kau.h"
#include "kpng.h"
#include "test_png.h"

namespace pngtest {
namespace {

const Bytes kGood = EncodePng(RandomImage(4, 3, 8, 2, 7));  // 48 output bytes

// The good PNG with the bits of one byte inverted.
Bytes Corrupted(size_t offset) {
    Bytes png = kGood;
    png[offset] ^= 0xFF;
    return png;
}

struct FailureCase {
    const char* name;
    Bytes png;
    int position;
    const char* words;
};

TEST(DecodeFailure, FirstReportNamesTheReasonInWords) {
    const FailureCase cases[] = {
        {"signature", Corrupted(0), kpng::kErrSignature, "not a PNG: the signature is wrong"},
        {"header CRC", Corrupted(29), kpng::kErrCrc, "a chunk's CRC does not match its data"},
        {"colour type", PngWriter().Ihdr(1, 1, 8, 5).Iend().bytes(), kpng::kErrColourType,
         "the colour type is invalid"},
        {"critical chunk", PngWriter().Ihdr(1, 1, 8, 2).Chunk("ABCD", {}).bytes(),
         kpng::kErrUnknownCriticalChunk, "an unknown critical chunk"},
        {"cut short", Slice(kGood, 0, kGood.size() - 20), kpng::kErrShortInputMemory,
         "the PNG ends early"},
        {"corrupt zlib", PngWriter().Ihdr(1, 1, 8, 2).Idat({0x78, 0x9c, 0xff, 0xff}).Iend().bytes(),
         kpng::kErrInflate, "the compressed image data is corrupt"},
    };
    for (const FailureCase& c : cases) {
        kau::FirstReport first;
        STImageSimple image = {};
        Printed([&] { EXPECT_EQ(DecodePNG(c.png.data(), c.png.size(), 255, &image), 0); });
        EXPECT_STREQ(first.FileName(), kpng::kKpngFile) << c.name;
        EXPECT_EQ(first.Position(), c.position) << c.name;
        EXPECT_STREQ(kpng::DescribeFailure(first.FileName(), first.Position()), c.words) << c.name;
    }
}

TEST(DecodeFailure, RecorderIsPerThreadAndNests) {
    const Bytes bad = Corrupted(0);
    STImageSimple image = {};
    kau::FirstReport outer;
    {
        kau::FirstReport inner;
        Printed([&] { DecodePNG(bad.data(), bad.size(), 255, &image); });
        EXPECT_EQ(inner.Position(), kpng::kErrSignature);
    }
    EXPECT_FALSE(outer.Seen());
    std::thread other([&] { Printed([&] { DecodePNG(bad.data(), bad.size(), 255, &image); }); });
    other.join();
    EXPECT_FALSE(outer.Seen());
    Printed([&] { DecodePNG(bad.data(), bad.size(), 255, &image); });
    EXPECT_TRUE(outer.Seen());
}

TEST(DecodeFailure, UnknownPlacesAndFoundationFailures) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {"elsewhere", 1, "the decoder failed"},
        {kpng::kKpngFile, kpng::kCatchDecodeImage, "the decoder failed"},
        {kau::kKauFile, kau::kErrHeapAllocate, "there is not enough memory"},
        {kau::kKauFile, kau::kErrRoundUpOverflow, "a size is too large"}};
    for (const auto& [file, position, words] : cases)
        EXPECT_STREQ(kpng::DescribeFailure(file, position), words) << file << " " << position;
}

// An output-size limit refuses a PNG once its header is read: even one whose pixels would take
// gigabytes is refused without taking them. (The element's tests cover the stream overload.)
TEST(DecodeLimit, OutputOverTheLimitIsRefusedAtTheHeader) {
    const Bytes huge = PngWriter().Ihdr(536870851, 1, 16, 6, 1).Idat(Zlib(Bytes{0})).Iend().bytes();
    const struct {
        const Bytes& png;
        uint64_t limit;
        int result, position;
    } cases[] = {{kGood, 0, 1, 0},
                 {kGood, 48, 1, 0},
                 {kGood, 47, 0, kpng::kErrOutputOverLimit},
                 {huge, 1 << 20, 0, kpng::kErrOutputOverLimit}};
    for (const auto& c : cases) {
        kpng::DecodeOptions options;
        options.maxOutputBytes = c.limit;
        kau::FirstReport first;
        STImageSimple image = {};
        Printed([&] {
            EXPECT_EQ(DecodePNG(c.png.data(), c.png.size(), 255, &image, options), c.result);
        });
        EXPECT_EQ(first.Position(), c.position) << c.limit;
        kau::mem::Delete(image.data);
    }
}

}  // namespace
}  // namespace pngtest
