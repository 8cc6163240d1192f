#include <gtest/gtest.h>

#include <zlib.h>

#include "stream_maker.h"
#include "zin.h"

namespace {

TEST(Crc32Test, KnownValues) {
    const unsigned char check[] = "123456789";
    EXPECT_EQ(zio::crc32(0, check, 9), 0xCBF43926u);
    // With the register at zero after inversion, one byte 1 leaves table entry 1.
    const unsigned char one = 1;
    EXPECT_EQ(zio::crc32(0xFFFFFFFFu, &one, 1), ~0x77073096u & 0xFFFFFFFFu);
    EXPECT_EQ(zio::crc32(0, check, 0), 0u);
    EXPECT_EQ(zio::crc32(0x1234, nullptr, 10), 0x1234u);
}

// Every length up to a few blocks at every alignment, long buffers, and the same data
// split into two calls, against zlib.
TEST(Crc32Test, MatchesZlib) {
    const zintest::Bytes data = zintest::MakeData(zintest::Content::Random, 70000, 6);
    for (size_t align = 0; align < 16; ++align) {
        for (size_t length = 0; length < 300; ++length) {
            const unsigned char* p = data.data() + align;
            ASSERT_EQ(zio::crc32(0, p, length), ::crc32(0, p, static_cast<uInt>(length)))
                << "align " << align << " length " << length;
        }
    }
    for (size_t length : {1000, 4096, 4099, 65536, 69000}) {
        for (size_t split : {size_t{0}, size_t{1}, size_t{7}, length / 2, length}) {
            const uLong expected = ::crc32(0, data.data() + 3, static_cast<uInt>(length));
            unsigned long c = zio::crc32(0, data.data() + 3, split);
            c = zio::crc32(c, data.data() + 3 + split, length - split);
            ASSERT_EQ(c, expected) << "length " << length << " split " << split;
        }
    }
}

}  // namespace
