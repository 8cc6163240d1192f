// Attributes and the ownership their sizes carry (misuse shows under ASan), the stream kinds, the
// flat functions and the registries as the load-time initialiser left them.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "MMFileStream.h"
#include "MMPageArrayStream.h"

namespace {

char buffer[8] = "abcdefg";
const char otherData[] = "mm.image.data";  // mmIdData's text at another address

MMAttri Any(const char* name, const void* bytes = nullptr, int32_t size = 0) {
    return {name, MMAttriTagAny, reinterpret_cast<uintptr_t>(bytes), size};
}
MMAttri Tagged(const char* name, MMAttriTag tag, uintptr_t value = 0) {
    return {name, tag, value, 0};
}
auto Fields(const MMAttri& a) {
    return std::make_tuple(a.name, static_cast<int>(a.tag), a.value, a.size);
}

TEST(Attri, ConstructorsFillTheRecordOrLeaveItUntouched) {
    const MMAttri kBefore = {"before", static_cast<MMAttriTag>(3), 0x5A5A, 77};
    std::vector<MMAttri> r(9, kBefore);
    // The call's result and the record expected afterwards: kBefore when refused.
    const std::pair<MMAttri*, MMAttri> cases[] = {
        {MMAttriFromAny(&r[0], mmIdData, nullptr, 0), Any(mmIdData)},
        {MMAttriFromAny(&r[1], mmIdData, buffer, -8), Any(mmIdData, buffer, -8)},
        {MMAttriFromAny(&r[2], mmIdData, buffer, 0), kBefore},
        {MMAttriFromAny(&r[3], mmIdData, nullptr, 4), kBefore},
        {MMAttriFromAny(&r[4], nullptr, buffer, 8), kBefore},
        {MMAttriFromTag(&r[5], mmIdWidth, MMAttriTagNone), kBefore},
        {MMAttriFromI32(&r[6], mmIdWidth, -5), {mmIdWidth, MMAttriTagI32, ~uintptr_t{4}, 77}},
        {MMAttriFromU32(&r[7], mmIdWidth, ~0ul), {mmIdWidth, MMAttriTagU32, 0xFFFFFFFF, 77}},
        {MMAttriFromString(&r[8], mmIdData, buffer), Any(mmIdData, buffer, 8)}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        const bool refused = Fields(cases[i].second) == Fields(kBefore);
        EXPECT_EQ(cases[i].first, refused ? nullptr : &r[i]) << i;
        EXPECT_EQ(Fields(r[i]), Fields(cases[i].second)) << i;
    }
}

TEST(AttriTable, KeepsSixteenRecordsAndAnswersByNamePointerAndTag) {
    static const char more[13] = {};  // thirteen more names: their addresses
    // Width as I32 and U32, data as an inconsistent then a valid pair, 13 more (the 17th drops).
    MMAttri records[17] = {Tagged(mmIdWidth, MMAttriTagI32, ~uintptr_t{1}),
                           Tagged(mmIdWidth, MMAttriTagU32, 10), Any(mmIdData, otherData, 0),
                           Any(mmIdData, buffer, 8)};
    for (int i = 4; i < 17; ++i)
        records[i] = Tagged(more + i - 4, MMAttriTagU32, i);
    MMStream s(records, 17);
    EXPECT_EQ(s.GetAttri(nullptr, 0) + s.GetAttri(nullptr, 2), 16u + 2);
    // Only the last is stored: a new name, or a known name with another tag, is a 17th entry.
    const MMAttri put[4] = {records[16], Tagged(more, MMAttriTagI32),
                            Tagged(nullptr, MMAttriTagU32), Tagged(mmIdWidth, MMAttriTagU32, 640)};
    EXPECT_EQ(s.PutAttri(put, 4), 1u);
    EXPECT_EQ(s.AttriGetU32(mmIdWidth)->value, 640u);
    // Any kind: the first of the name, with its tag; an empty slot: its tag is cleared.
    MMAttri req[3] = {Tagged(mmIdWidth, MMAttriTagNone), Tagged(nullptr, MMAttriTagU32),
                      Any(otherData)};
    EXPECT_EQ(s.GetAttri(req, 3), 1u);
    EXPECT_EQ(Fields(req[0]), Fields(records[0]));
    EXPECT_EQ(req[1].tag, MMAttriTagNone);
    MMAttri listing[2] = {};
    EXPECT_EQ(s.GetAttri(listing, 2), 2u);  // a listing: the first two records
    EXPECT_EQ(Fields(listing[0]), Fields(records[0]));
    EXPECT_EQ(s.AttriAnyPointer(mmIdData), buffer);
}

MMAttri Owned(const char* name) {
    return Any(name, strcpy(static_cast<char*>(MMAllocate(4)), "xyz"), -4);
}

TEST(AttriOwnership, ANegativeSizeHandsTheBufferOverOnce) {
    // A take-over hands an owned buffer to the caller once and leaves a borrowed one borrowed.
    const MMAttri records[3] = {Owned(mmIdData), Owned(mmIdFileMode), Any(mmIdFileName, buffer, 8)};
    auto* s = new MMStream(records, 3);
    EXPECT_STREQ(s->AttriAnyString(mmIdFileMode), "xyz");
    MMAttri take[3] = {Any(mmIdData, nullptr, -1), Any(mmIdFileName, nullptr, -1),
                       Any(mmIdData, nullptr, -1)};
    EXPECT_EQ(s->GetAttri(take, 3), 3u);
    EXPECT_EQ(Fields(take[0]), Fields(records[0]));
    EXPECT_EQ(take[1].size + take[2].size, 8 + 4);
    delete s;
    MMFree(reinterpret_cast<void*>(take[0].value));

    // Replacing frees an owned buffer unless it is put again; a record of no kind is skipped.
    MMStream t(nullptr, 0);
    const MMAttri first = Owned(mmIdData),
                  puts[4] = {first, first, Owned(mmIdData), Tagged(mmIdWidth, MMAttriTagNone)};
    EXPECT_EQ(t.PutAttri(puts, 4), 3u);
    EXPECT_EQ(t.AttriPut(mmIdData, MMAttriTagAny), t.AttriGet(mmIdData));
    EXPECT_EQ(t.AttriGet(mmIdData)->value, 0u);
    EXPECT_EQ(t.AttriPut(mmIdData, MMAttriTagNone), nullptr);
    MMFree(kau::mem::New(32));  // the load-time hooks: a mismatched release shows
}

enum Kind { kByte, kPageArray, kFile, kFileRw };  // kFile has no mode, kFileRw asks for "rb+"

// A ready stream of each kind, made by the registry, holding ten digits (files are temporary).
class Streams : public testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        close(mkstemp(path_.data()));
        std::ofstream(path_) << bytes_;
        const MMAttri file = Any(mmIdFileName, path_.c_str(), int32_t(path_.size() + 1));
        // Unused records stay empty; pages of 1 byte make the page table grow past 16 entries.
        const MMAttri requests[4][2] = {{Any(mmIdData, bytes_, 10)},
                                        {Any(mmIdData), Tagged(mmIdPageSize, MMAttriTagU32, 1)},
                                        {file},
                                        {file, Any(mmIdFileMode, "rb+", 4)}};
        s_.reset(MMStreamNew(requests[kind_], 2));
        ASSERT_EQ(s_->Play(), 1);
        if (kind_ != kPageArray) return;
        ASSERT_EQ(s_->Put(bytes_, 10) + s_->Ready(), 11u);
    }
    void TearDown() override { unlink(path_.c_str()); }

    std::string Read(unsigned n) { return std::string(buf_, s_->Get(buf_, n)); }
    // What Tell or Size answers, or 0xDEAD when it fails.
    unsigned long Tell() { return s_->Tell(answer_) ? answer_ : 0xDEAD; }
    unsigned long Size() { return s_->Size(answer_) ? answer_ : 0xDEAD; }

    const Kind kind_ = GetParam();
    const bool file_ = kind_ >= kFile;
    char bytes_[11] = "0123456789";
    std::string path_ = testing::TempDir() + "mmstreamXXXXXX";
    std::unique_ptr<MMStream> s_;
    char buf_[32];
    unsigned long answer_ = 0;
};

TEST_P(Streams, Seek) {
    // From position 4 of 10 bytes, memory clamps but for a negative offset from the beginning; a
    // file leaves it to the C library. Offsets count in 32 bits.
    const std::tuple<MMStreamSeekFrom, long, int, int, int, int> cases[] = {
        {MMStreamSeekFromEnd, -3, 1, 7, 1, 7},
        {MMStreamSeekFromEnd, 5, 1, 10, 1, 15},
        {MMStreamSeekFromEnd, -20, 1, 0, 0, 4},
        {MMStreamSeekFromCurrent, -9, 1, 0, 0, 4},
        {MMStreamSeekFromCurrent, 100, 1, 10, 1, 104},
        {MMStreamSeekFromBegin, -2, 1, -2, 0, 4},
        {MMStreamSeekFromBegin, static_cast<long>(0x100000003ll), 1, 3, 1, 3},
        {static_cast<MMStreamSeekFrom>(3), 1, 0, 4, 0, 4}};
    for (const auto& [from, offset, memResult, memAt, fileResult, fileAt] : cases) {
        ASSERT_EQ(s_->Seek(4, MMStreamSeekFromBegin), 1);
        EXPECT_EQ(s_->Seek(offset, from), file_ ? fileResult : memResult) << offset;
        const int at = file_ ? fileAt : memAt;
        EXPECT_EQ(Tell(), uint32_t(at)) << offset;
        EXPECT_EQ(Read(1), at >= 0 && at < 10 ? std::string(1, char('0' + at)) : "") << offset;
    }
}

TEST_P(Streams, ReadWriteAndStartOver) {
    // A byte stream overwrites without growing, a page array appends and answers how far the
    // position moved, a file writes when its mode (by default "rb") allows.
    const std::tuple<unsigned, unsigned, unsigned, unsigned long, std::string, unsigned long>
        expected[] = {{3, 8, 2, 10, "01234abcAB", 10},
                      {8, 13, 10, 23, "0123456789abcABCDEFGHIJ", 0},  // Null empties a page array
                      {0, 5, 0, 10, "0123456789", 0xDEAD},  // a removed file cannot reopen
                      {3, 8, 10, 18, "01234abcABCDEFGHIJ", 0xDEAD}};
    const auto& [first, position, second, size, content, sizeAfterNull] = expected[kind_];
    EXPECT_EQ(Read(4), "0123");
    EXPECT_EQ(Size(), 10u);
    EXPECT_EQ(Tell(), 4u);  // measuring keeps the position
    EXPECT_EQ(Read(16), "456789");

    ASSERT_EQ(s_->Seek(5, MMStreamSeekFromBegin), 1);  // a file turns from reading to writing
    EXPECT_EQ(s_->Put("abc", 3), first);
    EXPECT_EQ(Tell(), position);
    EXPECT_EQ(s_->Put("ABCDEFGHIJ", 10) + s_->Put(nullptr, 3) + s_->Get(nullptr, 4), second);
    EXPECT_EQ(Size(), size);
    EXPECT_EQ(bytes_[10], 0);

    unlink(path_.c_str());
    ASSERT_EQ(s_->Ready(), 1);  // rewinds: a file is not opened again
    EXPECT_EQ(Read(30), content);
    EXPECT_EQ(s_->Play(), 1);                                 // keeps a ready stream's position,
    EXPECT_EQ(Tell(), kind_ == kByte ? 0u : content.size());  // but a byte stream's Play is Ready
    EXPECT_EQ(s_->Null(), 1);
    // Unready, a stream moves nothing; only the byte stream still answers Tell.
    EXPECT_EQ(Read(4).size() + s_->Put("abc", 3) + s_->Seek(0, MMStreamSeekFromBegin), 0u);
    EXPECT_EQ(Tell(), kind_ == kByte ? 0u : 0xDEAD);
    EXPECT_EQ(s_->Ready(), file_ ? 0 : 1);
    EXPECT_EQ(Size(), sizeAfterNull);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Streams, testing::Values(kByte, kPageArray, kFile, kFileRw));

TEST(Streams, ReadyRefusesWhatTheKindCannotWorkFrom) {
    static const char name[] = "/nonexistent/mmstream", unterminated[3] = {'a', 'b', 'c'};
    const std::tuple<MMStream::Factory, MMAttri, int> cases[] = {
        {MMByteStream::New, Tagged(mmIdData, MMAttriTagU32, 4), 0},
        {MMByteStream::New, Any(mmIdData, name, 0), 0},  // a buffer of size 0 is refused,
        {MMByteStream::New, Any(mmIdData), 1},           // no buffer is an empty one
        {MMPageArrayStream::New, Tagged(mmIdPageSize, MMAttriTagU32), 1},  // default pages
        {MMFileStream::New, Any(mmIdData), 0},
        {MMFileStream::New, Any(mmIdFileName, name, sizeof name), 0},
        {MMFileStream::New, Any(mmIdFileName, unterminated, 3), 0}};
    for (const auto& [factory, record, ready] : cases) {
        std::unique_ptr<MMStream> s(factory(&record, 1));
        EXPECT_EQ(s->Play() + s->Ready(), 2 * ready) << record.name;
        EXPECT_EQ(s->Seek(0, MMStreamSeekFromBegin), factory == MMPageArrayStream::New);
    }
}

// The stream a request makes: '-' for none, 'b', 'p' and 'f' for the built-in kinds. The whole
// request reaches the stream; Tell with nowhere to store fails; deleting clears the pointer.
char Made(std::vector<MMAttri> request) {
    MMStream* s = MMStreamNew(request.data(), static_cast<unsigned>(request.size()));
    if (!s) return '-';
    EXPECT_EQ(MMStreamGetAttri(s, nullptr, 0) + MMStreamTell(s, nullptr), request.size());
    const char id =
        dynamic_cast<MMByteStream*>(s) ? 'b' : (dynamic_cast<MMPageArrayStream*>(s) ? 'p' : 'f');
    EXPECT_EQ(MMStreamDelete(&s) + MMStreamDelete(&s), 1);
    return id;
}

TEST(StreamRegistry, MostRecordsWinFirstRegisteredOnTiesValuedRecordsCompareBytes) {
    // Kinds of the test's own names, which no other code uses: a page array wants the bytes
    // "PNG\r" under kMagic, a file stream, registered later, any bytes.
    static const char kMagic[] = "test.magic", kLevel[] = "test.level";
    const MMAttri magic = Any(kMagic, "PNG\r", 4), anyMagic = Any(kMagic),
                  sizeZero = Any(kLevel, "x", 0);
    ASSERT_EQ(MMStream::AddToStreamRegistry(&magic, 1, MMPageArrayStream::New), 1);
    ASSERT_EQ(MMStream::AddToStreamRegistry(&anyMagic, 1, MMFileStream::New), 1);
    EXPECT_EQ(MMStream::AddToStreamRegistry(&sizeZero, 1, MMByteStream::New), 0) << "inconsistent";

    static const char otherPageSize[] = "mm.image.pageSize";
    const MMAttri data = Any(mmIdData, "abc", 4), pageSize = Tagged(mmIdPageSize, MMAttriTagU32),
                  fileName = Any(mmIdFileName, "/tmp/none", 10);
    const std::pair<std::vector<MMAttri>, char> cases[] = {
        {{data, pageSize}, 'p'},
        {{data, Tagged(mmIdPageSize, MMAttriTagI32)}, 'b'},
        {{fileName}, 'f'},
        {{fileName, data}, 'b'},
        {{Any(otherData, "abc", 4), Tagged(otherPageSize, MMAttriTagU32)}, '-'},
        {{Any(kMagic, "PNG\r\n\x1a\n", 8)}, 'p'},
        {{Any(kMagic, "PN", 2)}, 'f'},
        {{Any(kMagic, "JPEG", 4), magic}, 'f'}};  // the first record of a name decides
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(Made(cases[i].first), cases[i].second) << i;
}

char head[8];

bool StartsWithPng(MMStream* s) {
    return MMStreamGet(s, head, 4) == 4 && memcmp(head, "\x89PNG", 4) == 0;
}

// The content registry is process-wide, so this one test walks it from empty. Every detector
// looks from the start, so the first one, which accepts an exhausted stream, reads and refuses.
TEST(ContentRegistry, FirstAcceptingDetectorInRegistrationOrder) {
    const MMAttri png = Any(mmIdData, "\x89PNG\r\n\x1a\n", 8);
    std::unique_ptr<MMStream> s(MMStreamNew(&png, 1));
    char name[] = "image/png";
    EXPECT_EQ(MMStreamContent(s.get()), nullptr);
    ASSERT_EQ(MMStream::AddToContentRegistry("none", [](MMStream* t) { return !t->Get(head, 4); }),
              1);
    ASSERT_EQ(MMStream::AddToContentRegistry(name, StartsWithPng), 1);
    ASSERT_EQ(MMStream::AddToContentRegistry("image/png-too", StartsWithPng), 1);
    strcpy(name, "changed");  // the registry keeps its own copy
    EXPECT_STREQ(MMStreamContent(s.get()), "image/png");
}

}  // namespace
