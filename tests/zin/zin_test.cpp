// The inflater against zlib as the oracle.
#include <gtest/gtest.h>

#include <zlib.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include "zin.h"

namespace {

using Bytes = std::vector<unsigned char>;
enum class Content { Random, Text, Runs };

// Deterministic random bytes, text-like letters, or runs of short patterns like flat rows.
Bytes MakeData(Content content, size_t size, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes data(size);
    for (size_t i = 0; i < size;) {
        const unsigned run = content == Content::Runs ? 1 + rng() % 300 : 1, base = rng();
        for (unsigned k = 0; k < run && i < size; ++k)
            data[i++] = content == Content::Text
                            ? "etaoin shrdlu\n"[base % 14]
                            : static_cast<unsigned char>(base + k % (1 + base % 5));
    }
    return data;
}

// zlib's stream of `data`; with `then`, the second half is written with that strategy.
Bytes Deflate(const Bytes& data, int level, int strategy = Z_DEFAULT_STRATEGY, int window = 15,
              int then = -1) {
    z_stream z{};
    deflateInit2(&z, level, Z_DEFLATED, window, 8, strategy);
    Bytes out(deflateBound(&z, data.size()) + 64);
    z.next_in = const_cast<unsigned char*>(data.data());
    z.avail_in = static_cast<uInt>(then < 0 ? data.size() : data.size() / 2);
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    if (then >= 0) {
        EXPECT_EQ(deflate(&z, Z_NO_FLUSH), Z_OK);
        EXPECT_EQ(deflateParams(&z, level, then), Z_OK);
        z.avail_in = static_cast<uInt>(data.size() - data.size() / 2);
    }
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

// zlib's result and the bytes it produced, also from a broken or cut stream.
std::pair<int, Bytes> ZlibInflate(const Bytes& stream) {
    Bytes out(1 << 20);
    uLongf length = static_cast<uLongf>(out.size());
    const int result = uncompress(out.data(), &length, stream.data(), uLong(stream.size()));
    out.resize(length);
    return {result, out};
}

enum class History { Window, Output, OutputThenWindow };

// Inflates `stream` and junk behind it with one Stream, Reset between feeds: whole; in the PNG
// decoder's pieces; byte by byte when `bytewise`; into one buffer that keeps the history, all the
// way or for half the output. Each feed ends in `result` with `output`, takes nothing past the
// trailer, then repeats the end or gives kBadCall. Output lands somewhere new each call and is
// poisoned afterwards, so that reading it instead of the window (or the reverse) goes wrong.
void ExpectInflates(const Bytes& stream, int result, const Bytes& output, bool bytewise = true) {
    const std::tuple<size_t, std::vector<uint32_t>, History> feeds[] = {
        {SIZE_MAX, {1u << 20}, History::Window},
        {8192, {1, 3001, 257, 40000}, History::Window},
        {1, {1}, History::Window},
        {8192, {1, 3001, 257, 40000}, History::Output},
        {5000, {7, 20000, 1}, History::OutputThenWindow}};
    Bytes in = stream;
    in.insert(in.end(), {1, 2, 3, 4, 5});
    zin::Stream s;
    for (const auto& [inPiece, outSizes, history] : feeds) {
        if (inPiece == 1 && !bytewise) continue;
        SCOPED_TRACE(testing::Message() << inPiece << " " << int(history));
        s.Reset();
        bool inPlace = history != History::Window;
        if (inPlace) s.KeepHistoryInOutput();
        int last = zin::kOk;
        Bytes got;
        constexpr size_t kShifts = 61;
        const size_t largest = *std::max_element(outSizes.begin(), outSizes.end());
        Bytes buffer(largest + kShifts, 0xA5), kept(output.size() + largest);
        for (size_t call = 0; last == zin::kOk && call < 2 * (in.size() + got.size()) + 9; ++call) {
            if (s.availIn == 0) {  // the next piece starts where the totals say
                s.nextIn = in.data() + s.totalIn;
                s.availIn = static_cast<uint32_t>(std::min(inPiece, in.size() - s.totalIn));
            }
            if (inPlace && history == History::OutputThenWindow &&
                2 * got.size() >= output.size()) {
                s.nextOut = kept.data() + got.size();
                s.KeepHistoryInWindow();
                inPlace = false;
            }
            unsigned char* const begin = s.nextOut =
                inPlace ? kept.data() + got.size() : buffer.data() + call * 7 % kShifts;
            s.availOut = outSizes[call % outSizes.size()];
            last = s.Inflate(zio::FlushPartial);
            got.insert(got.end(), begin, s.nextOut);
            if (!inPlace) std::fill(begin, s.nextOut, 0xA5);
        }
        EXPECT_EQ(last, result);
        EXPECT_TRUE(got == output);
        EXPECT_EQ(s.Inflate(zio::FlushPartial), last == zin::kStreamEnd ? last : zin::kBadCall);
        EXPECT_TRUE(last != zin::kStreamEnd || s.totalIn == stream.size()) << "past the trailer";
    }
}

// Writes a zlib stream: bits least significant first, Huffman codes most significant first.
struct BitWriter {
    Bytes bytes{0x78, 0x01};
    int used = 0;
    void Bits(uint64_t value, int count, bool huffman = false) {
        for (int i = 0; i < count; ++i, used = (used + 1) & 7) {
            if (used == 0) bytes.push_back(0);
            const int bit = huffman ? count - 1 - i : i;
            bytes.back() |= static_cast<unsigned char>(((value >> bit) & 1) << used);
        }
    }
    void Code(uint32_t code, int length) { Bits(code, length, true); }
    void Fixed(int s) {
        if (s < 144) return Code(0x30 + s, 8);
        if (s < 256) return Code(0x190 + s - 144, 9);
        if (s < 280) return Code(s - 256, 7);
        Code(0xc0 + s - 280, 8);
    }
    // A match of length 3 to 10 or 258, the lengths whose symbols have no extra bits.
    void Match(int length, int distance) {
        Fixed(length == 258 ? 285 : 254 + length);
        int code = 0, base = 1;
        for (; distance >= base + (1 << (code < 4 ? 0 : code / 2 - 1)); ++code)
            base += 1 << (code < 4 ? 0 : code / 2 - 1);
        Code(code, 5);
        Bits(distance - base, code < 4 ? 0 : code / 2 - 1);
    }
    // Pads to a byte and appends the Adler-32 of what zlib decodes.
    Bytes Finish() {
        Bits(0, 32 + (8 - used) % 8);
        const Bytes data = ZlibInflate(bytes).second;
        const uLong adler = adler32(1, data.data(), static_cast<uInt>(data.size()));
        for (size_t i = 0; i < 4; ++i)
            bytes[bytes.size() - 4 + i] = static_cast<unsigned char>(adler >> (24 - 8 * i));
        return bytes;
    }
};

// One final fixed block of literals (value, 0) and matches (length, distance).
Bytes FixedStream(const std::vector<std::pair<int, int>>& symbols) {
    BitWriter w;
    w.Bits(3, 3);
    for (auto [value, distance] : symbols)
        distance ? w.Match(value, distance) : w.Fixed(value);
    w.Fixed(256);
    return w.Finish();
}

// One final dynamic block: any code lengths, sent with a flat 4-bit code, then (code, bits), where
// negative bits stand for extra bits, sent least significant first.
Bytes DynamicStream(const std::vector<int>& lens, const std::vector<int>& dlens,
                    const std::vector<std::pair<int, int>>& codes) {
    BitWriter w;
    // Final and dynamic, then HLIT, HDIST and HCLEN (all 19 code-length codes).
    w.Bits(5 | (lens.size() - 257) << 3 | (dlens.size() - 1) << 8 | 15 << 13, 17);
    for (int i = 0; i < 19; ++i)
        w.Bits(i < 3 ? 0 : 4, 3);  // the repeat codes 16-18 come first and are unused
    for (const std::vector<int>* v : {&lens, &dlens})
        for (int l : *v)
            w.Code(l, 4);
    for (auto [code, bits] : codes) {
        if (bits < 0) {
            w.Bits(code, -bits);
        } else {
            w.Code(code, bits);
        }
    }
    return w.Finish();
}

// One final dynamic block of random literals, then matches of length 3 whose distance codes
// take 15 bits and 13 extra bits (symbols 28 and 29), a few literals apart so that they start at
// every bit position. Literal/length lengths as `lens` in HandMadeStreams; distance symbol k < 14
// takes k + 1 bits, code 2^(k + 1) - 2.
Bytes LongDistanceCodes(const std::vector<int>& lens) {
    std::vector<int> dlens(30, 0);
    for (int k = 0; k < 14; ++k)
        dlens[k] = k + 1;
    dlens[28] = dlens[29] = 15;
    std::vector<std::pair<int, int>> codes;
    for (unsigned char c : MakeData(Content::Random, 33000, 5))
        codes.push_back(c < 254 ? std::pair{int{c}, 8} : std::pair{c - 254 + 508, 9});
    for (int i = 0; i < 40; ++i) {
        const int extra = i * 197, symbol = i % 2 ? 29 : 28;  // distances 16385-32767
        codes.insert(codes.end(), {{511, 9}, {32766 + symbol - 28, 15}, {extra, -13}});
        for (int k = 0; k < i % 7; ++k)
            codes.push_back({'a' + k, 8});
    }
    codes.push_back({510, 9});
    return DynamicStream(lens, dlens, codes);
}

// One final dynamic block of `count` literals '0' to '=' with codes of 1 to 14 bits, random, so
// that short codes pair and long ones continue past any root; the end of the block and the length
// 258 take 15 bits. With `matchEvery`, that many literals come before each match of 258 at
// distance 1, which thus starts at every bit position.
Bytes ShortAndLongLiteralCodes(size_t count, size_t matchEvery = 0) {
    std::vector<int> lens(286, 0);
    for (int k = 0; k < 14; ++k)
        lens['0' + k] = k + 1;
    lens[256] = lens[285] = 15;
    std::vector<std::pair<int, int>> codes;
    for (unsigned char c : MakeData(Content::Random, count, 7)) {
        const int k = c % 16 < 14 ? c % 16 : c % 4;
        codes.push_back({(2 << k) - 2, k + 1});
        if (matchEvery && codes.size() % (matchEvery + 2) == matchEvery)
            codes.insert(codes.end(), {{32767, 15}, {0, 1}});
    }
    codes.push_back({32766, 15});
    return DynamicStream(lens, {1}, codes);
}

// One final dynamic block whose last code-length repeat runs one past its 257 + 2 lengths, which
// would leave valid codes for 'a' and the end of the block. Code-length code: 18 is 0, 1 is 10,
// 16 is 11.
Bytes RepeatPastTheLengths() {
    BitWriter w;
    w.Bits(5 | 0 << 3 | 1 << 8 | 15 << 13, 17);  // as above: 257 and 2 codes
    for (int i = 0; i < 19; ++i)                 // in the order 16, 17, 18, 0, 8, ..., 1, 15
        w.Bits(i == 2 ? 1 : i == 0 || i == 17 ? 2 : 0, 3);
    w.Code(0, 1), w.Bits(86, 7), w.Code(2, 2);                 // 97 zeros, then 'a' in 1 bit
    w.Code(0, 1), w.Bits(127, 7), w.Code(0, 1), w.Bits(9, 7);  // 158 zeros
    w.Code(2, 2), w.Code(3, 2), w.Bits(0, 2);  // the end of the block in 1 bit, then 3 more 1s
    w.Code(0, 1), w.Code(1, 1);
    return w.Finish();
}

// Every strategy and level, each window size at level 9; large data byte by byte in a few settings.
TEST(InflateTest, MatchesZlibForEveryLevelStrategyWindowAndFeed) {
    for (Content content : {Content::Random, Content::Text, Content::Runs})
        for (size_t size : {0, 1, 100, 70000}) {
            const Bytes data = MakeData(content, size, static_cast<uint32_t>(size));
            SCOPED_TRACE(testing::Message() << "content " << int(content) << ", size " << size);
            for (int strategy : {Z_DEFAULT_STRATEGY, Z_FILTERED, Z_HUFFMAN_ONLY, Z_RLE, Z_FIXED})
                for (int level = 0; level <= 9; ++level)
                    for (int window = level == 9 && strategy == Z_DEFAULT_STRATEGY ? 8 : 15;
                         window <= 15; ++window) {
                        SCOPED_TRACE(testing::Message()
                                     << strategy << "/" << level << "/" << window);
                        ExpectInflates(Deflate(data, level, strategy, window), zin::kStreamEnd,
                                       data, size <= 100 || level == 1 || window == 8);
                    }
            // Fixed codes, then dynamic ones: each block decodes with its own tables.
            ExpectInflates(Deflate(data, 6, Z_FIXED, 15, Z_DEFAULT_STRATEGY), zin::kStreamEnd, data,
                           false);
        }
}

// Shapes zlib never writes; broken streams fail after exactly the bytes zlib gives (an Adler-32
// mismatch after all data). A broken header precedes a whole empty stream: nothing else fails it.
TEST(InflateTest, HandMadeStreams) {
    std::vector<std::pair<int, int>> longest;
    for (unsigned char c : MakeData(Content::Random, 40000, 3))
        longest.push_back({c, 0});
    for (int i = 0; i < 300; ++i)
        longest.insert(longest.end(), {{258, 32768}, {3 + i % 8, 1 + i % 17}, {i & 0xff, 0}});
    std::vector<std::pair<int, int>> farBack = longest;
    farBack.insert(farBack.begin() + 5000, {10, 5001});  // in the fast loop
    std::vector<int> lens(258, 8), lens287(287, 8);
    std::fill(lens.begin() + 254, lens.end(), 9);        // complete: symbols 254-257 take 9 bits
    std::fill(lens287.begin() + 225, lens287.end(), 9);  // complete: symbol 256 is 481 in 9 bits
    Bytes badTrailer = Deflate(MakeData(Content::Text, 50000, 9), 6);
    badTrailer.back() ^= 1;
    const std::pair<const char*, Bytes> cases[] = {
        {"distance 32768, length 258", FixedStream(longest)},
        {"one-bit distance code", DynamicStream(lens, {1}, {{'a', 8}, {511, 9}, {0, 1}, {510, 9}})},
        {"no distance code", DynamicStream(lens, {0}, {{'a', 8}, {510, 9}})},
        {"distance codes of 15 bits with 13 extra bits", LongDistanceCodes(lens)},
        {"literal codes of 1 to 14 bits", ShortAndLongLiteralCodes(5000)},
        {"header checksum", {0x78, 0x9d, 0x03, 0x00, 0, 0, 0, 1}},
        {"method 7", {0x77, 0x09, 0x03, 0x00, 0, 0, 0, 1}},
        {"window field 8", {0x88, 0x1c, 0x03, 0x00, 0, 0, 0, 1}},
        {"preset dictionary", {0x78, 0xbb, 0x12, 0x34, 0x56, 0x78, 0x03, 0x00, 0, 0, 0, 1}},
        {"block type 3", {0x78, 0x01, 0x07, 0x00}},
        {"stored length mismatch", {0x78, 0x01, 0x01, 0x05, 0x00, 0xfa, 0xfe, 1, 2, 3, 4, 5}},
        {"over-subscribed lengths", DynamicStream(std::vector<int>(257, 8), {1}, {{'a', 8}})},
        {"incomplete lengths", DynamicStream(std::vector<int>(257, 9), {1}, {{'a', 9}})},
        {"287 length codes", DynamicStream(lens287, {1}, {{'a', 8}, {481, 9}})},
        {"code-length repeat past the last length", RepeatPastTheLengths()},
        {"distance too far back, deep in a block", FixedStream(farBack)},
        {"Adler-32 mismatch", badTrailer}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(cases[i].first);
        const auto [zlibResult, output] = ZlibInflate(cases[i].second);
        ASSERT_EQ(zlibResult == Z_OK, i < 5);
        ExpectInflates(cases[i].second, i < 5 ? zin::kStreamEnd : zin::kDataError, output);
    }
}

// A piece that ends inside a long length code leaves whole bytes of it in the bit buffer. When
// the next call has too little room for that match, its fast loop goes back to where the code
// starts, handing back the bytes it read, but none before its own piece: that piece lies apart,
// after a wrong byte (zero, where a byte within a length code is all ones). Each split point of a
// stream of matches at every bit position.
TEST(InflateTest, APieceEndingInsideALongCodeLeavesThePieceBeforeAlone) {
    const Bytes stream = ShortAndLongLiteralCodes(300, 5), output = ZlibInflate(stream).second;
    for (size_t split = 1; split < stream.size(); ++split) {
        SCOPED_TRACE(split);
        Bytes second{0x00};
        second.insert(second.end(), stream.begin() + split, stream.end());
        zin::Stream s;
        s.Reset();
        s.nextIn = stream.data();
        s.availIn = static_cast<uint32_t>(split);
        Bytes got(output.size() + 1);
        s.nextOut = got.data();
        s.availOut = static_cast<uint32_t>(got.size());
        EXPECT_EQ(s.Inflate(zio::FlushPartial), zin::kOk);
        s.nextIn = second.data() + 1;
        s.availIn = static_cast<uint32_t>(second.size() - 1);
        s.availOut = 100;  // less than a match, more than a pass of the fast loop writes
        int result = s.Inflate(zio::FlushPartial);
        for (int call = 0; result == zin::kOk && call < 10; ++call) {
            s.availOut = static_cast<uint32_t>(got.data() + got.size() - s.nextOut);
            result = s.Inflate(zio::FlushPartial);
        }
        EXPECT_EQ(result, zin::kStreamEnd);
        EXPECT_TRUE(Bytes(got.data(), s.nextOut) == output);
    }
}

// Decompress gives what zlib decodes, even from a stream cut short; on failure the destination
// and its length stay untouched (the guard byte past the capacity catches overruns).
TEST(DecompressTest, ResultsAndLengths) {
    const Bytes data = MakeData(Content::Text, 20000, 8), stream = Deflate(data, 9);
    const uint32_t size = static_cast<uint32_t>(data.size());
    const std::tuple<Bytes, uint32_t, int> cases[] = {
        {stream, size, zin::kOk},
        {stream, size - 1, zin::kNoProgress},                       // exact, one byte short
        {Bytes(stream.begin(), stream.end() - 4), size, zin::kOk},  // cut before the trailer
        {{0x78, 0x9d, 0x03, 0x00}, size, zin::kDataError},
        {{}, size, zin::kDataError},
        {Deflate({}, 6), 0, zin::kOk}};
    for (const auto& [source, capacity, result] : cases) {
        SCOPED_TRACE(testing::Message() << source.size() << " bytes into " << capacity);
        Bytes destination(capacity + 1, 0xEE), expected = destination;
        unsigned int length = capacity;
        EXPECT_EQ(zin::Decompress(destination.data(), length, source.data(),
                                  static_cast<unsigned int>(source.size())),
                  result);
        const Bytes z = ZlibInflate(source).second;
        if (result == zin::kOk) std::copy(z.begin(), z.end(), expected.begin());
        EXPECT_EQ(length, result == zin::kOk ? z.size() : capacity);
        EXPECT_TRUE(destination == expected);
    }
}

}  // namespace
