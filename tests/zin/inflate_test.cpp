#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>

#include "stream_maker.h"
#include "zin.h"

namespace {

using zintest::Bytes;
using zintest::Content;

struct Outcome {
    int result;
    Bytes output;
};

// How a test feeds the stream: input in pieces of `inPiece` bytes (0: all at once), output
// space in sizes taken in turn from `outSizes`.
struct Feed {
    const char* name;
    size_t inPiece;
    std::vector<uint32_t> outSizes;
};

const Feed kWhole{"whole", 0, {1u << 20}};
const Feed kByteByByte{"byte-by-byte", 1, {1}};
// As the PNG decoder drives it: one filter byte, then a row, input one IDAT chunk at a time.
const Feed kRows{"rows", 8192, {1, 3001}};
const Feed kWideRows{"wide-rows", 65536, {1, 40000}};

// Inflates `stream` with a fresh zin::Stream. Every call writes at a new place in a buffer that
// is poisoned afterwards, so a back-reference served from earlier output memory instead of
// the window shows up as wrong bytes.
Outcome Inflate(const Bytes& stream, const Feed& feed) {
    auto s = std::make_unique<zin::Stream>();
    s->Reset();
    Outcome o{zin::kOk, {}};
    size_t given = 0;
    const uint32_t largest = *std::max_element(feed.outSizes.begin(), feed.outSizes.end());
    constexpr size_t kShifts = 61;
    std::vector<unsigned char> buffer(largest + kShifts, 0xA5);
    for (size_t call = 0;; ++call) {
        if (s->availIn == 0 && given < stream.size()) {
            size_t n = feed.inPiece ? std::min(feed.inPiece, stream.size() - given)
                                    : stream.size() - given;
            s->nextIn = stream.data() + given;
            s->availIn = static_cast<uint32_t>(n);
            given += n;
        }
        if (s->nextIn == nullptr) s->nextIn = stream.data();
        const uint32_t size = feed.outSizes[call % feed.outSizes.size()];
        const auto begin = buffer.begin() + static_cast<long>(call * 7 % kShifts);
        s->nextOut = &*begin;
        s->availOut = size;
        o.result = s->Inflate(zio::FlushPartial);
        const auto written = begin + (size - s->availOut);
        o.output.insert(o.output.end(), begin, written);
        std::fill(begin, written, 0xA5);
        if (o.result != zin::kOk) return o;
        if (call > 4 * stream.size() + 2 * o.output.size() + 16) {
            ADD_FAILURE() << "inflater loops";
            return o;
        }
    }
}

struct Setting {
    int level, strategy, windowBits;
};

std::vector<Setting> Settings() {
    std::vector<Setting> settings;
    for (int level = 0; level <= 9; ++level)
        settings.push_back({level, Z_DEFAULT_STRATEGY, 15});
    for (int strategy : {Z_FILTERED, Z_HUFFMAN_ONLY, Z_RLE, Z_FIXED})
        for (int level : {1, 6, 9})
            settings.push_back({level, strategy, 15});
    for (int bits = 8; bits < 15; ++bits)
        settings.push_back({9, Z_DEFAULT_STRATEGY, bits});
    return settings;
}

TEST(InflateTest, MatchesZlibForEveryLevelStrategyWindowAndFeed) {
    for (Content content : {Content::Random, Content::Text, Content::Runs}) {
        for (size_t size : {size_t{0}, size_t{1}, size_t{100}, size_t{70000}}) {
            const Bytes data = zintest::MakeData(content, size, static_cast<uint32_t>(size));
            for (const Setting& st : Settings()) {
                const Bytes stream =
                    zintest::ZlibCompress(data, st.level, st.strategy, st.windowBits);
                // One byte per call is slow: on large data, a few settings cover it.
                const bool bytewise = size <= 100 || st.level == 1 ||
                                      (st.level == 6 && st.strategy != Z_DEFAULT_STRATEGY) ||
                                      st.windowBits == 8;
                for (const Feed* feed : {&kWhole, &kRows, &kByteByByte}) {
                    if (feed == &kByteByByte && !bytewise) continue;
                    SCOPED_TRACE(testing::Message()
                                 << zintest::ContentName(content) << " size " << size << " level "
                                 << st.level << " strategy " << st.strategy << " window "
                                 << st.windowBits << " feed " << feed->name);
                    Outcome o = Inflate(stream, *feed);
                    ASSERT_EQ(o.result, zin::kStreamEnd);
                    ASSERT_TRUE(o.output == data);
                }
            }
        }
    }
}

TEST(InflateTest, LongStreamsAcrossManyWindows) {
    for (Content content : {Content::Random, Content::Text, Content::Runs}) {
        const Bytes data = zintest::MakeData(content, 600000, 7);
        const Bytes stream = zintest::ZlibCompress(data, 6);
        for (const Feed* feed : {&kWhole, &kRows, &kWideRows}) {
            SCOPED_TRACE(testing::Message() << zintest::ContentName(content) << " " << feed->name);
            Outcome o = Inflate(stream, *feed);
            ASSERT_EQ(o.result, zin::kStreamEnd);
            ASSERT_TRUE(o.output == data);
        }
    }
}

// zlib never reaches back the full 32768 bytes; this stream does, with the longest matches,
// from a window that has wrapped, and with short repeat distances next to it.
TEST(InflateTest, LongestDistanceAndLength) {
    const Bytes random = zintest::MakeData(Content::Random, 40000, 3);
    zintest::BitWriter w;
    zintest::ZlibHeader(w);
    w.Bits(0, 1);
    w.Bits(1, 2);
    auto block = zintest::BlockWriter::Fixed(w);
    block.Literals(random);
    Bytes data = random;
    auto match = [&](int length, int distance) {
        block.Match(length, distance);
        for (int i = 0; i < length; ++i) {
            const unsigned char c = data[data.size() - distance];
            data.push_back(c);
        }
    };
    for (int i = 0; i < 300; ++i) {
        match(258, 32768);
        match(3 + i % 200, 1 + i % 17);
        block.Literal(static_cast<unsigned char>(i));
        data.push_back(static_cast<unsigned char>(i));
    }
    block.End();
    w.Bits(1, 1);  // an empty stored block ends the stream
    w.Bits(0, 2);
    w.AlignToByte();
    for (unsigned char b : {0x00, 0x00, 0xff, 0xff})
        w.Byte(b);
    zintest::ZlibTrailer(w, data);
    const Bytes stream = w.Take();
    const zintest::ZlibResult z = zintest::ZlibInflate(stream);
    ASSERT_EQ(z.code, Z_OK);
    ASSERT_TRUE(z.output == data);
    for (const Feed* feed : {&kWhole, &kByteByByte, &kRows, &kWideRows}) {
        SCOPED_TRACE(feed->name);
        Outcome o = Inflate(stream, *feed);
        EXPECT_EQ(o.result, zin::kStreamEnd);
        EXPECT_TRUE(o.output == data);
    }
}

// Code shapes zlib does not write: a one-bit distance code, and no distance code at all.
TEST(InflateTest, AcceptsSingleAndEmptyDistanceCodes) {
    std::vector<int> lengthLens(258, 8);
    for (int s = 254; s < 258; ++s)
        lengthLens[s] = 9;  // complete: 254/256 + 4/512
    for (int distanceLen : {1, 0}) {
        SCOPED_TRACE(distanceLen);
        zintest::BitWriter w;
        zintest::ZlibHeader(w);
        zintest::DynamicHeader(w, true, lengthLens, {distanceLen});
        zintest::BlockWriter block(w, lengthLens, {distanceLen});
        Bytes data = {'a', 'b'};
        block.Literals(data);
        if (distanceLen) {
            block.Match(3, 1);  // symbol 257, the only length
            data.insert(data.end(), 3, 'b');
        }
        block.End();
        zintest::ZlibTrailer(w, data);
        const Bytes stream = w.Take();
        ASSERT_EQ(zintest::ZlibInflate(stream).code, Z_OK);
        Outcome o = Inflate(stream, kWhole);
        EXPECT_EQ(o.result, zin::kStreamEnd);
        EXPECT_TRUE(o.output == data);
    }
}

// Stream builders for the error table.
Bytes Raw(std::initializer_list<unsigned char> bytes) {
    return Bytes(bytes);
}

Bytes FixedBlockStream(const std::function<void(zintest::BlockWriter&)>& body) {
    zintest::BitWriter w;
    zintest::ZlibHeader(w);
    w.Bits(1, 1);
    w.Bits(1, 2);
    auto block = zintest::BlockWriter::Fixed(w);
    body(block);
    block.End();
    zintest::ZlibTrailer(w, {});
    return w.Take();
}

Bytes DynamicStream(const std::vector<int>& lengthLens, const std::vector<int>& distanceLens) {
    zintest::BitWriter w;
    zintest::ZlibHeader(w);
    zintest::DynamicHeader(w, true, lengthLens, distanceLens);
    return w.Take();
}

// A dynamic header whose code-length code has the given lengths (in symbol order 0..18),
// followed by the code-length symbols `sent` written with that code.
Bytes CodeLengthStream(std::vector<int> codeLengthLens, const std::vector<int>& sent,
                       int literalCount = 257) {
    zintest::BitWriter w;
    zintest::ZlibHeader(w);
    w.Bits(1, 1);
    w.Bits(2, 2);
    w.Bits(static_cast<uint32_t>(literalCount - 257), 5);
    w.Bits(0, 5);
    w.Bits(15, 4);
    static const int order[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
    for (int s : order)
        w.Bits(static_cast<uint32_t>(codeLengthLens[s]), 3);
    auto codes = zintest::CanonicalCodes(codeLengthLens);
    for (int s : sent) {
        w.Code(codes[s], codeLengthLens[s]);
        if (s == 16) w.Bits(3, 2);
        if (s == 17) w.Bits(7, 3);
        if (s == 18) w.Bits(127, 7);
    }
    return w.Take();
}

std::vector<int> FlatCodeLengthCode() {
    std::vector<int> lens(19, 0);
    for (int s : {0, 1, 2, 8, 16, 17, 18, 9})
        lens[s] = 3;
    return lens;
}

Bytes WithBadTrailer(const Bytes& data) {
    Bytes stream = zintest::ZlibCompress(data, 6);
    stream.back() ^= 1;
    return stream;
}

TEST(InflateTest, RejectsBrokenStreams) {
    const Bytes text = zintest::MakeData(Content::Text, 50000, 9);
    std::vector<int> overSubscribed(257, 1);
    std::vector<int> noEndOfBlock(257, 8);
    noEndOfBlock[256] = 0;
    std::vector<int> incomplete(257, 9);
    std::vector<int> valid(258, 8);
    for (int s = 254; s < 258; ++s)
        valid[s] = 9;
    std::vector<int> clOver(19, 1);
    std::vector<int> clIncomplete(19, 0);
    clIncomplete[0] = 2;
    const struct {
        const char* name;
        Bytes stream;
    } cases[] = {
        {"header checksum", Raw({0x78, 0x9d, 0x03, 0x00})},
        {"method 7", Raw({0x77, 0x09, 0x03, 0x00})},
        {"window field 8", Raw({0x88, 0x1c, 0x03, 0x00})},
        {"preset dictionary", Raw({0x78, 0xbb, 0x12, 0x34, 0x56, 0x78, 0x03, 0x00})},
        {"block type 3", Raw({0x78, 0x01, 0x07, 0x00})},
        {"stored length mismatch", Raw({0x78, 0x01, 0x01, 0x05, 0x00, 0xfa, 0xfe, 1, 2, 3, 4, 5})},
        {"too many length codes", CodeLengthStream(FlatCodeLengthCode(), {}, 287)},
        {"over-subscribed code-length code", CodeLengthStream(clOver, {})},
        {"incomplete code-length code", CodeLengthStream(clIncomplete, {0})},
        {"repeat with no previous length", CodeLengthStream(FlatCodeLengthCode(), {16})},
        {"repeat past the last length", CodeLengthStream(FlatCodeLengthCode(), {18, 18, 18})},
        {"over-subscribed lengths", DynamicStream(overSubscribed, {1})},
        {"incomplete lengths", DynamicStream(incomplete, {1})},
        {"no end-of-block code", DynamicStream(noEndOfBlock, {1})},
        {"over-subscribed distances", DynamicStream(valid, {1, 1, 1})},
        {"incomplete distances", DynamicStream(valid, {2, 2, 2})},
        {"length symbol 286", FixedBlockStream([](auto& b) { b.Symbol(286); })},
        {"distance symbol 30", FixedBlockStream([](auto& b) {
             b.Literal('x');
             b.Symbol(257);
             b.DistanceSymbolCode(30);
         })},
        {"distance before the start", FixedBlockStream([](auto& b) {
             b.Literal('x');
             b.Match(3, 2);
         })},
        {"distance in an empty distance code",
         [&] {
             zintest::BitWriter w;
             zintest::ZlibHeader(w);
             zintest::DynamicHeader(w, true, valid, {0});
             zintest::BlockWriter block(w, valid, {1});
             block.Literal('a');
             block.Match(3, 1);
             return w.Take();
         }()},
        {"Adler-32 mismatch", WithBadTrailer(text)},
    };
    for (const auto& c : cases) {
        ASSERT_NE(zintest::ZlibInflate(c.stream).code, Z_OK) << c.name;
        for (const Feed* feed : {&kWhole, &kByteByByte, &kRows}) {
            SCOPED_TRACE(testing::Message() << c.name << ", " << feed->name);
            Outcome o = Inflate(c.stream, *feed);
            EXPECT_EQ(o.result, zin::kDataError);
        }
    }
}

// Distances too far back are found by the fast loop too, deep inside a large block, and an
// Adler-32 mismatch is reported only once every byte is out.
TEST(InflateTest, LateErrorsComeAfterTheGoodData) {
    const Bytes text = zintest::MakeData(Content::Text, 50000, 9);
    Bytes stream = WithBadTrailer(text);
    Outcome o = Inflate(stream, kRows);
    EXPECT_EQ(o.result, zin::kDataError);
    EXPECT_TRUE(o.output == text);

    const Bytes random = zintest::MakeData(Content::Random, 5000, 2);
    stream = FixedBlockStream([&](auto& b) {
        b.Literals(random);
        b.Match(10, 5001);
    });
    o = Inflate(stream, kWhole);
    EXPECT_EQ(o.result, zin::kDataError);
    EXPECT_TRUE(o.output == random);
}

// Bad calls, the error that sticks, no progress and finishing.
TEST(InflateTest, CallResults) {
    const Bytes data = zintest::MakeData(Content::Text, 1000, 4);
    const Bytes good = zintest::ZlibCompress(data, 6);
    const Bytes bad = {0x78, 0x9d, 0x03, 0x00};
    auto s = std::make_unique<zin::Stream>();
    unsigned char out[2000];
    auto start = [&](const Bytes& stream, uint32_t inLength, uint32_t outLength) {
        s->Reset();
        s->nextIn = stream.data();
        s->availIn = inLength;
        s->nextOut = out;
        s->availOut = outLength;
    };

    start(good, static_cast<uint32_t>(good.size()), sizeof out);
    s->nextOut = nullptr;
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kBadCall) << "null output";

    start(good, static_cast<uint32_t>(good.size()), sizeof out);
    s->nextIn = nullptr;
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kBadCall) << "null input with input";
    s->availIn = 0;
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kNoProgress) << "null input, none available";

    start(bad, static_cast<uint32_t>(bad.size()), sizeof out);
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kDataError);
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kBadCall) << "call after an error";
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kBadCall);
    start(good, static_cast<uint32_t>(good.size()), sizeof out);
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kStreamEnd) << "reset clears the error";
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kStreamEnd) << "end repeats";
    EXPECT_EQ(s->totalIn, good.size());
    EXPECT_EQ(s->totalOut, data.size());
    EXPECT_EQ(s->check, adler32(1, data.data(), static_cast<uInt>(data.size())));

    Bytes trailing = good;
    trailing.insert(trailing.end(), {1, 2, 3, 4, 5});
    start(trailing, static_cast<uint32_t>(trailing.size()), sizeof out);
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kStreamEnd);
    EXPECT_EQ(s->availIn, 5u) << "nothing taken past the trailer";
    EXPECT_EQ(s->totalIn, good.size());

    start(good, static_cast<uint32_t>(good.size()), 100);
    EXPECT_EQ(s->Inflate(zio::FlushFinish), zin::kNoProgress) << "finish without the end";
    EXPECT_EQ(s->totalOut, 100u);
    s->availOut = sizeof out - 100;
    EXPECT_EQ(s->Inflate(zio::FlushFinish), zin::kStreamEnd);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), out));

    start(good, 10, sizeof out);
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kOk);
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kNoProgress) << "no input left";
    s->availOut = 0;
    s->availIn = 5;
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kOk) << "input taken into the bit buffer";

    const Bytes dictionary = {0x78, 0xbb, 0x12, 0x34, 0x56, 0x78};
    start(dictionary, 6, sizeof out);
    EXPECT_EQ(s->Inflate(zio::FlushPartial), zin::kDataError) << "preset dictionary";
    EXPECT_EQ(s->check, 0x12345678u) << "the dictionary identifier is kept";
}

// Arbitrary corruption never crashes, and zin accepts exactly what zlib accepts.
TEST(InflateTest, CorruptStreamsAgreeWithZlib) {
    std::mt19937 rng(12345);
    std::vector<Bytes> streams;
    for (Content content : {Content::Random, Content::Text, Content::Runs}) {
        const Bytes data = zintest::MakeData(content, 3000, 5);
        streams.push_back(zintest::ZlibCompress(data, 9));
        streams.push_back(zintest::ZlibCompress(data, 1, Z_FIXED));
    }
    for (int round = 0; round < 3000; ++round) {
        Bytes stream = streams[round % streams.size()];
        for (int flips = 1 + rng() % 3; flips > 0; --flips)
            stream[rng() % stream.size()] ^= static_cast<unsigned char>(1 + rng() % 255);
        if (rng() % 4 == 0) stream.resize(rng() % stream.size());
        zintest::ZlibResult z = zintest::ZlibInflate(stream);
        static const Feed kOneCall{"one call", 0, {65536}};
        Outcome o = Inflate(stream, round % 2 ? kRows : kOneCall);
        SCOPED_TRACE(round);
        if (z.code == Z_OK) {
            EXPECT_EQ(o.result, zin::kStreamEnd);
        } else if (z.code == Z_BUF_ERROR) {
            EXPECT_EQ(o.result, zin::kNoProgress) << "truncated";
        } else {
            EXPECT_EQ(o.result, zin::kDataError);
        }
        EXPECT_TRUE(o.output == z.output);
    }
}

}  // namespace
