#include <gtest/gtest.h>

#include "stream_maker.h"
#include "zin.h"

namespace {

using zintest::Bytes;

// The destination is one byte larger than the capacity passed, so that a write past the
// capacity shows up in the guard byte.
struct Case {
    const char* name;
    Bytes stream;
    uint32_t capacity;
    int result;
    uint32_t length;  // destinationLength afterwards
    Bytes output;     // expected start of the destination
};

TEST(DecompressTest, ResultsAndLengths) {
    const Bytes data = zintest::MakeData(zintest::Content::Text, 20000, 8);
    const uint32_t size = static_cast<uint32_t>(data.size());
    const Bytes stream = zintest::ZlibCompress(data, 9);
    const Bytes noTrailer(stream.begin(), stream.end() - 4);
    const Bytes empty = zintest::ZlibCompress({}, 6);
    // Exactly one page and a bit more, where the page boundary and the size meet.
    const Bytes page = zintest::MakeData(zintest::Content::Runs, 4096, 2);
    const Bytes pageAndOne = zintest::MakeData(zintest::Content::Runs, 4097, 2);
    Bytes cutEarly(stream.begin(), stream.begin() + static_cast<long>(stream.size() / 2));

    const Case cases[] = {
        {"exact capacity", stream, size, zin::kOk, size, data},
        {"one byte short", stream, size - 1, zin::kNoProgress, size - 1, {}},
        {"room to spare", stream, size + 100, zin::kOk, size, data},
        {"cut before the trailer", noTrailer, size, zin::kOk, size, data},
        {"bad header", Bytes{0x78, 0x9d, 0x03, 0x00}, size, zin::kDataError, size, {}},
        {"no input", Bytes{}, size, zin::kDataError, size, {}},
        {"header only", Bytes{0x78, 0x9c}, size, zin::kOk, 0, {}},
        {"empty output", empty, 0, zin::kOk, 0, {}},
        {"one page", zintest::ZlibCompress(page, 6), 4096, zin::kOk, 4096, page},
        {"one page and a byte", zintest::ZlibCompress(pageAndOne, 6), 4097, zin::kOk, 4097,
         pageAndOne},
        {"one page and a byte, short",
         zintest::ZlibCompress(pageAndOne, 6),
         4096,
         zin::kNoProgress,
         4096,
         {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes destination(c.capacity + 1, 0xEE);
        unsigned int length = c.capacity;
        const int result = zin::Decompress(destination.data(), length, c.stream.data(),
                                           static_cast<unsigned int>(c.stream.size()));
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(length, c.length);
        EXPECT_TRUE(std::equal(c.output.begin(), c.output.end(), destination.begin()));
        EXPECT_EQ(destination.back(), 0xEE);
    }

    // A stream that stops in the middle of its data yields what was decoded so far.
    Bytes destination(size);
    unsigned int length = size;
    EXPECT_EQ(zin::Decompress(destination.data(), length, cutEarly.data(),
                              static_cast<unsigned int>(cutEarly.size())),
              zin::kOk);
    EXPECT_GT(length, 0u);
    EXPECT_LT(length, size);
    EXPECT_TRUE(std::equal(destination.begin(), destination.begin() + length, data.begin()));
}

}  // namespace
