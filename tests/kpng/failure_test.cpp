// The reason of a failed decode: the first report's place, recorded on the decoding thread,
// and its words.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "CPNG.h"
#include "kau.h"
#include "kpng.h"
#include "test_png.h"

namespace pngtest {
namespace {

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
    const auto decode = [] {
        const Bytes png(64, 'X');  // no signature
        STImageSimple image = {};
        Printed([&] { DecodePNG(png.data(), png.size(), 255, &image); });
    };
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

}  // namespace
}  // namespace pngtest
