// The stream base, the flat functions, and the two in-memory kinds: the byte stream over a
// caller's buffer and the growing page-array stream.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "MMPageArrayStream.h"
#include "mmstream.h"

namespace {

TEST(FlatFunctions, NullStreamAnswersZero) {
    unsigned char buf[4] = {};
    MMAttri attr = {mmIdWidth, MMAttriTagU32, 1, 0};
    unsigned long value = 123;
    EXPECT_EQ(MMStreamGet(nullptr, buf, 4), 0u);
    EXPECT_EQ(MMStreamPut(nullptr, buf, 4), 0u);
    EXPECT_EQ(MMStreamGetAttri(nullptr, &attr, 1), 0u);
    EXPECT_EQ(MMStreamPutAttri(nullptr, &attr, 1), 0u);
    EXPECT_EQ(MMStreamNull(nullptr), 0);
    EXPECT_EQ(MMStreamPlay(nullptr), 0);
    EXPECT_EQ(MMStreamReady(nullptr), 0);
    EXPECT_EQ(MMStreamSeek(nullptr, 0, MMStreamSeekFromBegin), 0);
    EXPECT_EQ(MMStreamSize(nullptr, &value), 0);
    EXPECT_EQ(MMStreamTell(nullptr, &value), 0);
    EXPECT_EQ(MMStreamContent(nullptr), nullptr);
    EXPECT_EQ(value, 123u);
    EXPECT_EQ(attr.value, 1u);

    MMStream* none = nullptr;
    EXPECT_EQ(MMStreamDelete(nullptr), 0);
    EXPECT_EQ(MMStreamDelete(&none), 0);

    MMStream* s = new MMStream(nullptr, 0);
    EXPECT_EQ(MMStreamTell(s, nullptr), 0);
    EXPECT_EQ(MMStreamDelete(&s), 1);
    EXPECT_EQ(s, nullptr);
}

// A base stream whose Null answers what the test says.
class NullProbe : public MMStream {
  public:
    explicit NullProbe(int result) : MMStream(nullptr, 0), result_(result) {}
    int Null() override {
        ++calls;
        return result_;
    }
    int calls = 0;

  private:
    int result_;
};

TEST(StreamBase, ReadyAnswersNullAndPlayAnswersReady) {
    for (int result : {0, 1}) {
        NullProbe s(result);
        EXPECT_EQ(MMStreamReady(&s), result);
        EXPECT_EQ(MMStreamPlay(&s), result);
        EXPECT_EQ(s.calls, 2);
    }
    MMStream s(nullptr, 0);
    unsigned char buf[4];
    unsigned long value = 9;
    EXPECT_EQ(s.Get(buf, 4), 0u);
    EXPECT_EQ(s.Put(buf, 4), 0u);
    EXPECT_EQ(s.Seek(0, MMStreamSeekFromBegin), 0);
    EXPECT_EQ(s.Size(value), 0);
    EXPECT_EQ(s.Tell(value), 0);
    EXPECT_EQ(value, 9u);
}

// ---- Both in-memory kinds ----

const std::string kTen = "0123456789";

// A ready in-memory stream that holds kTen, at position 0.
using MakeStream = std::unique_ptr<MMStream> (*)(std::string& storage);

std::unique_ptr<MMStream> MakeByteStream(std::string& storage) {
    storage = kTen;
    MMAttri data;
    MMAttriFromAny(&data, mmIdData, storage.data(), static_cast<long>(storage.size()));
    std::unique_ptr<MMStream> s(MMByteStream::New(&data, 1));
    EXPECT_EQ(s->Ready(), 1);
    return s;
}

std::unique_ptr<MMStream> MakePageArrayStream(std::string&) {
    MMAttri pageSize;
    MMAttriFromU32(&pageSize, mmIdPageSize, 3);
    std::unique_ptr<MMStream> s(MMPageArrayStream::New(&pageSize, 1));
    EXPECT_EQ(s->Ready(), 1);
    EXPECT_EQ(s->Put(kTen.data(), 10), 10u);
    EXPECT_EQ(s->Ready(), 1);
    return s;
}

unsigned long TellOf(MMStream& s) {
    unsigned long pos = 0xDEAD;
    EXPECT_EQ(s.Tell(pos), 1);
    return pos;
}

class MemoryStreams : public testing::TestWithParam<MakeStream> {
  protected:
    std::unique_ptr<MMStream> Make() { return GetParam()(storage_); }
    std::string storage_;
};

TEST_P(MemoryStreams, SeekClampsToTheContent) {
    const struct {
        MMStreamSeekFrom from;
        long offset;
        int result;
        unsigned long position;  // from position 4, in 10 bytes
    } cases[] = {
        {MMStreamSeekFromEnd, -3, 1, 7},
        {MMStreamSeekFromEnd, -20, 1, 0},
        {MMStreamSeekFromEnd, 0, 1, 10},
        {MMStreamSeekFromEnd, 5, 1, 10},
        {MMStreamSeekFromCurrent, -2, 1, 2},
        {MMStreamSeekFromCurrent, -9, 1, 0},
        {MMStreamSeekFromCurrent, 3, 1, 7},
        {MMStreamSeekFromCurrent, 6, 1, 10},
        {MMStreamSeekFromCurrent, 100, 1, 10},
        {MMStreamSeekFromBegin, 6, 1, 6},
        {MMStreamSeekFromBegin, 11, 1, 10},
        {MMStreamSeekFromBegin, -2, 1, 0xFFFFFFFEul},  // kept unclamped, as a 32-bit position
        {MMStreamSeekFromBegin, static_cast<long>(0x100000003ll), 1, 3},  // offsets are 32-bit
        {static_cast<MMStreamSeekFrom>(3), 1, 0, 4},
        {static_cast<MMStreamSeekFrom>(-1), -1, 0, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "from " << c.from << " offset " << c.offset);
        auto s = Make();
        ASSERT_EQ(s->Seek(4, MMStreamSeekFromBegin), 1);
        EXPECT_EQ(s->Seek(c.offset, c.from), c.result);
        EXPECT_EQ(TellOf(*s), c.position);
    }
}

TEST_P(MemoryStreams, GetReadsWhatRemains) {
    auto s = Make();
    char buf[16] = {};
    EXPECT_EQ(s->Get(buf, 4), 4u);
    EXPECT_EQ(std::string(buf, 4), "0123");
    EXPECT_EQ(s->Get(buf, 0), 0u);
    EXPECT_EQ(s->Get(nullptr, 4), 0u);
    EXPECT_EQ(s->Get(buf, 16), 6u);
    EXPECT_EQ(std::string(buf, 6), "456789");
    EXPECT_EQ(s->Get(buf, 1), 0u);

    ASSERT_EQ(s->Seek(-3, MMStreamSeekFromEnd), 1);
    EXPECT_EQ(s->Get(buf, 10), 3u);
    EXPECT_EQ(std::string(buf, 3), "789");

    ASSERT_EQ(s->Seek(-2, MMStreamSeekFromBegin), 1);
    EXPECT_EQ(s->Get(buf, 10), 0u);  // nothing is read from before the start

    EXPECT_EQ(s->Ready(), 1);  // rewinds, keeping the content
    unsigned long size = 0;
    EXPECT_EQ(s->Size(size), 1);
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(s->Get(buf, 2), 2u);
    EXPECT_EQ(std::string(buf, 2), "01");
}

INSTANTIATE_TEST_SUITE_P(Kinds, MemoryStreams,
                         testing::Values(&MakeByteStream, &MakePageArrayStream),
                         [](const testing::TestParamInfo<MakeStream>& info) {
                             return info.param == &MakeByteStream ? "Byte" : "PageArray";
                         });

// ---- Byte stream ----

TEST(ByteStream, ReadyNeedsAConsistentDataBuffer) {
    static char buffer[4];
    const struct {
        const char* label;
        MMAttri data;
        int ready;
    } cases[] = {
        {"no data", {mmIdWidth, MMAttriTagU32, 4, 0}, 0},
        {"data of another kind", {mmIdData, MMAttriTagU32, 4, 0}, 0},
        {"buffer of size 0", {mmIdData, MMAttriTagAny, reinterpret_cast<uintptr_t>(buffer), 0}, 0},
        {"empty buffer", {mmIdData, MMAttriTagAny, 0, 0}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        MMByteStream s(&c.data, 1);
        EXPECT_EQ(s.Ready(), c.ready);
        // Without a buffer nothing moves, but the size is known: none.
        char buf[4];
        unsigned long size = 9;
        EXPECT_EQ(s.Get(buf, 4), 0u);
        EXPECT_EQ(s.Put(buf, 4), 0u);
        EXPECT_EQ(s.Seek(0, MMStreamSeekFromBegin), 0);
        EXPECT_EQ(s.Size(size), 1);
        EXPECT_EQ(size, 0u);
    }
}

TEST(ByteStream, PutOverwritesAndNeverGrows) {
    char buffer[4] = {'a', 'b', 'c', 'd'};
    MMAttri data;
    MMAttriFromAny(&data, mmIdData, buffer, 4);
    MMByteStream s(&data, 1);
    ASSERT_EQ(s.Ready(), 1);
    EXPECT_EQ(s.Put("0123456789", 10), 4u);
    EXPECT_EQ(std::string(buffer, 4), "0123");
    EXPECT_EQ(s.Put("x", 1), 0u);
    ASSERT_EQ(s.Seek(1, MMStreamSeekFromBegin), 1);
    EXPECT_EQ(s.Put("XY", 2), 2u);
    EXPECT_EQ(std::string(buffer, 4), "0XY3");
    EXPECT_EQ(TellOf(s), 3u);
    ASSERT_EQ(s.Seek(-1, MMStreamSeekFromBegin), 1);
    EXPECT_EQ(s.Put("z", 1), 0u);  // nothing is written before the start
    EXPECT_EQ(s.Null(), 1);
    EXPECT_EQ(s.Put("z", 1), 0u);
    EXPECT_EQ(std::string(buffer, 4), "0XY3");
}

TEST(ByteStream, NewFromTheRegistryReadsAnOwnedBuffer) {
    char* owned = static_cast<char*>(MMAllocate(5));
    memcpy(owned, "hello", 5);
    MMAttri data;
    MMAttriFromAny(&data, mmIdData, owned, -5);
    MMStream* s = MMStreamNew(&data, 1);
    ASSERT_NE(dynamic_cast<MMByteStream*>(s), nullptr);
    ASSERT_EQ(MMStreamReady(s), 1);
    char buf[8];
    EXPECT_EQ(MMStreamGet(s, buf, 8), 5u);
    EXPECT_EQ(std::string(buf, 5), "hello");
    EXPECT_EQ(MMStreamDelete(&s), 1);  // frees the owned buffer
}

// ---- Page-array stream ----

std::unique_ptr<MMStream> NewPageArrayStream(unsigned long pageSize) {
    MMAttri records[2];
    MMAttriFromAny(&records[0], mmIdData, nullptr, 0);
    MMAttriFromU32(&records[1], mmIdPageSize, pageSize);
    return std::unique_ptr<MMStream>(MMStreamNew(records, 2));
}

TEST(PageArrayStream, UnreadyUntilReadyOrPlay) {
    auto s = NewPageArrayStream(16);
    ASSERT_NE(dynamic_cast<MMPageArrayStream*>(s.get()), nullptr);
    char buf[4] = {};
    unsigned long value = 7;
    EXPECT_EQ(s->Put(buf, 4), 0u);
    EXPECT_EQ(s->Get(buf, 4), 0u);
    EXPECT_EQ(s->Seek(0, MMStreamSeekFromBegin), 0);
    EXPECT_EQ(s->Size(value), 0);
    EXPECT_EQ(s->Tell(value), 0);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(s->Null(), 1);

    EXPECT_EQ(s->Play(), 1);
    EXPECT_EQ(s->Put("abc", 3), 3u);
    EXPECT_EQ(s->Put(nullptr, 3), 0u);
    EXPECT_EQ(s->Put("abc", 0), 0u);
    EXPECT_EQ(s->Play(), 1);  // already ready: no rewind
    EXPECT_EQ(TellOf(*s), 3u);
}

TEST(PageArrayStream, GrowsAcrossPagesAndPageTables) {
    // 3-byte pages: 200 bytes need 67 pages, beyond several page-table extensions.
    for (unsigned long pageSize : {3ul, 0ul /* the default */, 64ul}) {
        SCOPED_TRACE(pageSize);
        auto s = NewPageArrayStream(pageSize);
        ASSERT_EQ(MMStreamReady(s.get()), 1);
        std::vector<unsigned char> written;
        for (unsigned chunk = 1; written.size() < 200; chunk = chunk % 7 + 1) {
            unsigned char bytes[7];
            for (unsigned i = 0; i < chunk; ++i)
                bytes[i] = static_cast<unsigned char>(written.size() + i);
            ASSERT_EQ(MMStreamPut(s.get(), bytes, chunk), chunk);
            written.insert(written.end(), bytes, bytes + chunk);
        }
        unsigned long size = 0;
        ASSERT_EQ(MMStreamSize(s.get(), &size), 1);
        EXPECT_EQ(size, written.size());

        ASSERT_EQ(MMStreamReady(s.get()), 1);
        std::vector<unsigned char> read(written.size() + 5);
        unsigned got = 0;
        for (unsigned chunk = 5; got < written.size(); chunk = chunk % 11 + 1)
            got += MMStreamGet(s.get(), read.data() + got, chunk);
        EXPECT_EQ(got, written.size());
        read.resize(got);
        EXPECT_EQ(read, written);
        EXPECT_EQ(MMStreamGet(s.get(), read.data(), 1), 0u);
    }
}

TEST(PageArrayStream, PutAfterAHalfReadReportsHowFarThePositionMoved) {
    auto s = NewPageArrayStream(4);
    ASSERT_EQ(s->Ready(), 1);
    ASSERT_EQ(s->Put("0123456789", 10), 10u);
    ASSERT_EQ(s->Ready(), 1);
    char buf[5];
    ASSERT_EQ(s->Get(buf, 5), 5u);
    EXPECT_EQ(s->Put("abc", 3), 8u);
    EXPECT_EQ(TellOf(*s), 13u);

    ASSERT_EQ(s->Seek(8, MMStreamSeekFromBegin), 1);
    char tail[8] = {};
    EXPECT_EQ(s->Get(tail, 8), 5u);
    EXPECT_EQ(std::string(tail, 5), "89abc");
}

TEST(PageArrayStream, NullThenReadyEmpties) {
    auto s = NewPageArrayStream(4);
    ASSERT_EQ(s->Ready(), 1);
    ASSERT_EQ(s->Put("0123456789", 10), 10u);
    EXPECT_EQ(s->Null(), 1);
    EXPECT_EQ(s->Null(), 1);
    ASSERT_EQ(s->Ready(), 1);
    unsigned long size = 99;
    EXPECT_EQ(s->Size(size), 1);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(TellOf(*s), 0u);
}

}  // namespace
