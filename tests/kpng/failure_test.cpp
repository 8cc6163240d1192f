// The reason of a failed decode: the first report's place, recorded on the decoding thread,
// and its words; and the output limit, which refuses a PNG at its header.
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
const Bytes kBadSignature = Join({{'X'}, Slice(kGood, 1, kGood.size())});

// A place's reason in words; places the decoder does not know, a catch site among them, are
// a failure of the decoder's.
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
    STImageSimple image = {};
    const auto decode = [&] {
        Printed([&] { DecodePNG(kBadSignature.data(), kBadSignature.size(), 255, &image); });
    };
    kau::FirstReport outer;
    {
        kau::FirstReport inner;
        decode();
        EXPECT_EQ(inner.Position(), kpng::kErrSignature);
    }
    EXPECT_FALSE(outer.Seen());
    std::thread other(decode);
    other.join();
    EXPECT_FALSE(outer.Seen());
    decode();
    EXPECT_TRUE(outer.Seen());
}

// The limit counts the bytes of the format asked for; even a PNG whose pixels would take
// gigabytes is refused without taking them. A caller's rows must hold a row of the format.
// (The element's tests cover the stream overload.)
TEST(DecodeLimit, CountsTheFormatsBytesAndRefusesAtTheHeader) {
    using kpng::OutputFormat;
    const Bytes huge = PngWriter().Ihdr(536870851, 1, 16, 6, 1).Idat(Zlib(Bytes{0})).Iend().bytes();
    const int over = kpng::kErrOutputOverLimit, shortRows = kpng::kErrOutputAllocate;
    const struct {
        const Bytes& png;
        OutputFormat format;
        uint64_t limit;
        int position;         // 0: decoded
        uint32_t stride = 0;  // of the caller's rows; 0: the decoder's memory
    } cases[] = {
        {kGood, OutputFormat::kRgba, 0, 0},      {kGood, OutputFormat::kRgba, 48, 0},
        {kGood, OutputFormat::kRgba, 47, over},  {kGood, OutputFormat::kGray8, 12, 0},
        {kGood, OutputFormat::kGray8, 11, over}, {kGood, OutputFormat::kRgb16, 24, 0},
        {kGood, OutputFormat::kRgb16, 23, over}, {kGood, OutputFormat::kRgb, 36, 0},
        {kGood, OutputFormat::kBgrx, 47, over},  {huge, OutputFormat::kRgba, 1 << 20, over},
        {kGood, OutputFormat::kRgb, 0, 0, 12},   {kGood, OutputFormat::kRgb, 0, shortRows, 11}};
    for (const auto& c : cases) {
        kpng::DecodeOptions options;
        options.format = c.format;
        options.maxOutputBytes = c.limit;
        Bytes rows(c.stride * 3);
        options.destination = c.stride ? rows.data() : nullptr;
        options.stride = c.stride;
        kau::FirstReport first;
        STImageSimple image = {};
        Printed([&] {
            EXPECT_EQ(DecodePNG(c.png.data(), c.png.size(), 255, &image, options), !c.position);
        });
        EXPECT_EQ(first.Position(), c.position) << c.limit << " " << c.stride;
        if (!c.stride) kau::mem::Delete(image.data);
    }
}

}  // namespace
}  // namespace pngtest
