// The media streams: attribute records and tables with the ownership carried by buffer sizes,
// the byte, page-array and file streams, the flat functions, the registries, and what the
// load-time initialiser did (no test here registers the built-in kinds itself). A leaked or
// twice-freed buffer shows in the sanitizer build.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <typeinfo>
#include <vector>

#include "MMFileStream.h"
#include "MMPageArrayStream.h"

namespace {

MMAttri Any(const char* name, const char* bytes = nullptr, int32_t size = 0) {
    return {name, MMAttriTagAny, reinterpret_cast<uintptr_t>(bytes), size};
}

char buffer[8] = "abcdefg";

uintptr_t Addr(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}
auto Fields(const MMAttri& a) {
    return std::make_tuple(a.name, static_cast<int>(a.tag), a.value, a.size);
}

TEST(Attri, ConstructorsFillTheRecordOrLeaveItUntouched) {
    const MMAttri kBefore = {"before", static_cast<MMAttriTag>(3), 0x5A5A, 77};
    MMAttri r[9];
    std::fill(std::begin(r), std::end(r), kBefore);
    // The call's result and the record expected afterwards: kBefore when refused.
    const std::pair<MMAttri*, MMAttri> cases[] = {
        {MMAttriFromAny(&r[0], mmIdData, nullptr, 0), {mmIdData, MMAttriTagAny, 0, 0}},
        {MMAttriFromAny(&r[1], mmIdData, buffer, -8), {mmIdData, MMAttriTagAny, Addr(buffer), -8}},
        {MMAttriFromAny(&r[2], mmIdData, buffer, 0), kBefore},
        {MMAttriFromAny(&r[3], mmIdData, nullptr, 4), kBefore},
        {MMAttriFromAny(&r[4], nullptr, buffer, 8), kBefore},
        {MMAttriFromTag(&r[5], mmIdWidth, MMAttriTagNone), kBefore},
        {MMAttriFromI32(&r[6], mmIdWidth, -5), {mmIdWidth, MMAttriTagI32, ~uintptr_t{4}, 77}},
        {MMAttriFromU32(&r[7], mmIdWidth, ~0ul), {mmIdWidth, MMAttriTagU32, 0xFFFFFFFF, 77}},
        {MMAttriFromString(&r[8], mmIdData, "abc"), {mmIdData, MMAttriTagAny, r[8].value, 4}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const bool refused = Fields(cases[i].second) == Fields(kBefore);
        EXPECT_EQ(cases[i].first, refused ? nullptr : &r[i]) << i;
        EXPECT_EQ(Fields(r[i]), Fields(cases[i].second)) << i;
    }
}

TEST(AttriTable, KeepsSixteenRecordsAndAnswersByNamePointerAndTag) {
    static const char otherData[] = "mm.image.data";  // mmIdData's text at another address
    MMAttri records[17] = {{mmIdWidth, MMAttriTagI32, ~uintptr_t{2}, 0},
                           {mmIdWidth, MMAttriTagU32, 10, 0},
                           {mmIdData, MMAttriTagAny, Addr(buffer), 0},  // an inconsistent pair
                           {mmIdData, MMAttriTagAny, Addr(buffer), 8},
                           {mmIdFileName, MMAttriTagAny, Addr(buffer), 7}};  // no zero at its end
    const char* const more[] = {mmIdMaskA,  mmIdMaskB,    mmIdMaskG,      mmIdMaskR,
                                mmIdShiftA, mmIdShiftB,   mmIdShiftG,     mmIdShiftR,
                                mmIdHeight, mmIdPageSize, mmIdSampleRate, mmIdImageQuality};
    for (int i = 5; i < 17; ++i)
        MMAttriFromU32(&records[i], more[i - 5], i);
    MMStream s(records, 17);
    EXPECT_EQ(s.GetAttri(nullptr, 0), 16u);  // the 17th is dropped
    EXPECT_EQ(s.GetAttri(nullptr, 2) + s.GetAttri(nullptr, 20), 2u + 16u);
    // Only the last is stored: a new name, or a known name with another tag, is a 17th entry.
    MMAttri put[5] = {records[16],
                      {mmIdHeight, MMAttriTagI32, 2, 0},
                      {nullptr, MMAttriTagU32, 0, 0},
                      {mmIdWidth, MMAttriTagNone, 0, 0},
                      {mmIdWidth, MMAttriTagU32, 640, 0}};
    EXPECT_EQ(s.PutAttri(put, 5), 1u);
    EXPECT_EQ(s.AttriGet(mmIdImageQuality), s.AttriGetI32(mmIdHeight));  // neither: null
    EXPECT_EQ(s.AttriGetU32(mmIdWidth)->value, 640u);
    EXPECT_EQ(s.PutAttri(nullptr, 3), 3u);

    MMAttri req[5] = {
        {mmIdWidth, MMAttriTagNone, 0, 0},       // any kind: the first of the name, with its tag
        {mmIdColorSpace, MMAttriTagI32, 99, 5},  // absent: untouched
        {nullptr, MMAttriTagU32, 0, 0},          // empty slot: its tag is cleared
        {otherData, MMAttriTagAny, 0, 0},       {mmIdFileName, MMAttriTagAny, 0, 0},
    };
    EXPECT_EQ(s.GetAttri(req, 5), 2u);
    EXPECT_EQ(Fields(req[0]), Fields(records[0]));
    EXPECT_EQ(req[1].value, 99u);
    EXPECT_EQ(req[2].tag, MMAttriTagNone);
    EXPECT_EQ(req[3].value, 0u);
    EXPECT_EQ(Fields(req[4]), Fields(records[4]));
    MMAttri listing[2] = {};
    EXPECT_EQ(s.GetAttri(listing, 2), 2u);  // a listing: the first two records
    EXPECT_EQ(Fields(listing[0]), Fields(records[0]));
    EXPECT_EQ(s.AttriAnyPointer(mmIdData), buffer);
    EXPECT_EQ(s.AttriAnyPointer(otherData), nullptr);
    EXPECT_EQ(s.AttriAnyString(mmIdFileName), nullptr);
}

MMAttri Owned(const char* name) {
    MMAttri a;
    MMAttriFromAny(&a, name, strcpy(static_cast<char*>(MMAllocate(4)), "xyz"), -4);
    return a;
}

TEST(AttriOwnership, ANegativeSizeHandsTheBufferOverOnce) {
    // The stream frees its owned buffers only; a take-over passes an owned buffer to the caller
    // once, and leaves a borrowed one borrowed.
    MMAttri records[3] = {Owned(mmIdData), Owned(mmIdFileMode)};
    MMAttriFromAny(&records[2], mmIdFileName, buffer, 8);
    auto* s = new MMStream(records, 3);
    EXPECT_STREQ(s->AttriAnyString(mmIdFileMode), "xyz");
    MMAttri take[3] = {{mmIdData, MMAttriTagAny, 0, -1},
                       {mmIdFileName, MMAttriTagAny, 0, -1},
                       {mmIdData, MMAttriTagNone, 0, -1}};
    EXPECT_EQ(s->GetAttri(take, 2), 2u);
    EXPECT_EQ(s->GetAttri(take + 2, 1), 1u);
    EXPECT_EQ(Fields(take[0]), Fields(records[0]));
    EXPECT_EQ(take[1].size + take[2].size, 8 + 4);
    delete s;
    MMFree(reinterpret_cast<void*>(take[0].value));
    EXPECT_STREQ(buffer, "abcdefg");

    // Replacing frees the owned buffer, unless the same buffer is put again.
    MMStream t(nullptr, 0);
    MMAttri first = Owned(mmIdData), second = Owned(mmIdData), third = Owned(mmIdData);
    for (MMAttri* a : {&first, &first, &second})
        EXPECT_EQ(t.PutAttri(a, 1), 1u);
    EXPECT_EQ(t.AttriPut(mmIdData, MMAttriTagAny), t.AttriGet(mmIdData));
    EXPECT_EQ(t.AttriGet(mmIdData)->value, 0u);
    EXPECT_EQ(t.AttriPut(mmIdData, MMAttriTagNone), nullptr);
    EXPECT_EQ(t.PutAttri(&third, 1), 1u);  // freed with the table
}

// A temporary file holding ten digits, removed with the object.
struct TempFile {
    std::string path = testing::TempDir() + "mmstreamXXXXXX";
    TempFile() {
        close(mkstemp(path.data()));
        std::ofstream(path) << "0123456789";
    }
    ~TempFile() { remove(path.c_str()); }
};

// kFile has no mode attribute; kFileRw asks for "rb+".
enum Kind { kByte, kPageArray, kFile, kFileRw };

// A ready stream of the kind under test, made through the registry, holding ten digits at
// position 0.
class Streams : public testing::TestWithParam<Kind> {
  protected:
    void SetUp() override {
        MMAttri records[2];
        MMAttriFromAny(&records[0], mmIdData, kind_ == kByte ? bytes_ : nullptr, kind_ ? 0 : 10);
        MMAttriFromU32(&records[1], mmIdPageSize, 1);  // the page table grows past 16 entries
        if (file_) {
            MMAttriFromString(&records[0], mmIdFileName, temp_.path.c_str());
            MMAttriFromString(&records[1], mmIdFileMode, "rb+");
        }
        s_.reset(MMStreamNew(records, kind_ == kByte || kind_ == kFile ? 1 : 2));
        ASSERT_EQ(s_->Play(), 1);
        if (kind_ != kPageArray) return;
        ASSERT_EQ(s_->Put(bytes_, 10), 10u);
        ASSERT_EQ(s_->Ready(), 1);
    }
    std::string Read(unsigned n) {
        std::string buf(n, '\0');
        return buf.substr(0, s_->Get(buf.data(), n));
    }
    unsigned long Tell() {
        unsigned long pos = 0xDEAD;
        return s_->Tell(pos) ? pos : 0xDEAD;
    }

    const Kind kind_ = GetParam();
    const bool file_ = kind_ >= kFile;
    char bytes_[11] = "0123456789";
    TempFile temp_;
    std::unique_ptr<MMStream> s_;
};

TEST_P(Streams, Seek) {
    // From position 4 of 10 bytes: memory clamps to the content, except a negative offset from
    // the beginning; a file leaves the bounds to the C library. Offsets are 32-bit.
    const struct {
        MMStreamSeekFrom from;
        long offset;
        int memResult, memPosition, fileResult, filePosition;
    } cases[] = {
        {MMStreamSeekFromEnd, -3, 1, 7, 1, 7},
        {MMStreamSeekFromEnd, -20, 1, 0, 0, 4},
        {MMStreamSeekFromCurrent, -2, 1, 2, 1, 2},
        {MMStreamSeekFromCurrent, -9, 1, 0, 0, 4},
        {MMStreamSeekFromCurrent, 100, 1, 10, 1, 104},
        {MMStreamSeekFromBegin, -2, 1, -2, 0, 4},
        {MMStreamSeekFromBegin, static_cast<long>(0x100000003ll), 1, 3, 1, 3},
        {static_cast<MMStreamSeekFrom>(3), 1, 0, 4, 0, 4},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(s_->Seek(4, MMStreamSeekFromBegin), 1);
        EXPECT_EQ(s_->Seek(c.offset, c.from), file_ ? c.fileResult : c.memResult) << c.offset;
        EXPECT_EQ(Tell(), uint32_t(file_ ? c.filePosition : c.memPosition)) << c.offset;
    }
}

TEST_P(Streams, ReadAndSize) {
    unsigned long size = 0;
    EXPECT_EQ(Read(0), "");
    EXPECT_EQ(Read(4), "0123");
    EXPECT_EQ(s_->Get(nullptr, 4), 0u);
    EXPECT_EQ(MMStreamSize(s_.get(), &size), 1);
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(Tell(), 4u);  // measuring keeps the position
    EXPECT_EQ(Read(16), "456789");
    EXPECT_EQ(Read(1), "");
    s_->Seek(-3, MMStreamSeekFromEnd);
    EXPECT_EQ(Read(10), "789");
    s_->Seek(-2, MMStreamSeekFromBegin);
    EXPECT_EQ(Read(10), "");  // nothing from before the start
    remove(temp_.path.c_str());
    EXPECT_EQ(s_->Ready(), 1);  // rewinds: a file is not opened again
    EXPECT_EQ(Read(2), "01");
    // Play keeps the position of a ready stream, except in the byte stream, where it is Ready.
    EXPECT_EQ(s_->Play(), 1);
    EXPECT_EQ(Tell(), kind_ == kByte ? 0u : 2u);
}

TEST_P(Streams, Write) {
    // The byte stream overwrites without growing; the page array appends whatever the
    // position and answers how far the position moved; a file writes at the position, when
    // its mode allows (the default mode is "rb").
    const struct {
        unsigned first, position, second, size;
        std::string content;
        unsigned long sizeAfterNull;  // a page array empties, a file is opened again
    } expected[] = {
        {3, 8, 2, 10, "01234abcAB", 10},
        {8, 13, 10, 23, "0123456789abcABCDEFGHIJ", 0},
        {0, 5, 0, 10, "0123456789", 10},
        {3, 8, 10, 18, "01234abcABCDEFGHIJ", 18},
    };
    const auto& e = expected[kind_];
    unsigned long size = 0;
    ASSERT_EQ(Read(5), "01234");
    ASSERT_EQ(s_->Seek(0, MMStreamSeekFromCurrent), 1);  // a file turns from reading to writing
    EXPECT_EQ(s_->Put("abc", 3), e.first);
    EXPECT_EQ(Tell(), e.position);
    EXPECT_EQ(s_->Put("ABCDEFGHIJ", 10) + s_->Put(nullptr, 3) + s_->Put("abc", 0), e.second);
    EXPECT_EQ(s_->Size(size), 1);
    EXPECT_EQ(size, e.size);
    ASSERT_EQ(s_->Ready(), 1);
    EXPECT_EQ(Read(30), e.content);
    EXPECT_EQ(bytes_[10], 0);
    EXPECT_EQ(s_->Null(), 1);
    ASSERT_EQ(s_->Ready(), 1);
    EXPECT_EQ(s_->Size(size), 1);
    EXPECT_EQ(size, e.sizeAfterNull);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Streams, testing::Values(kByte, kPageArray, kFile, kFileRw));

TEST(Streams, UnreadyStreamsMoveNothing) {
    static const char name[] = "/nonexistent/mmstream", unterminated[3] = {'a', 'b', 'c'};
    // The kind, its one record, what Size and Tell answer, what Play and Ready then answer.
    const std::tuple<MMStream::Factory, MMAttri, int, int> cases[] = {
        {MMByteStream::New, {mmIdData, MMAttriTagU32, 4, 0}, 1, 0},
        {MMByteStream::New, Any(mmIdData, name, 0), 1, 0},     // a buffer of size 0 is refused,
        {MMByteStream::New, Any(mmIdData, nullptr, 0), 1, 1},  // no buffer is an empty one
        {MMPageArrayStream::New, {mmIdPageSize, MMAttriTagU32, 0, 0}, 0, 1},  // default pages
        {MMFileStream::New, Any(mmIdData, nullptr, 0), 0, 0},
        {MMFileStream::New, Any(mmIdFileName, name, sizeof name), 0, 0},
        {MMFileStream::New, Any(mmIdFileName, unterminated, 3), 0, 0},
    };
    for (const auto& [factory, record, answer, ready] : cases) {
        std::unique_ptr<MMStream> s(factory(&record, 1));
        char buf[4] = {};
        unsigned long size = 5, pos = 5;
        EXPECT_EQ(s->Get(buf, 4) + s->Put(buf, 4) + s->Seek(0, MMStreamSeekFromBegin), 0u);
        EXPECT_EQ(s->Size(size) + s->Tell(pos), 2 * answer);
        EXPECT_EQ(size + pos, answer ? 0u : 10u);
        EXPECT_EQ(s->Null(), 1);
        EXPECT_EQ(s->Play(), ready) << record.name;
        EXPECT_EQ(s->Ready(), ready) << record.name;
    }
}

TEST(FlatFunctions, NullStreamsAnswerZero) {
    unsigned char buf[4] = {};
    MMAttri attr = {mmIdWidth, MMAttriTagU32, 1, 0};
    unsigned long value = 123;
    EXPECT_EQ(MMStreamGet(nullptr, buf, 4) + MMStreamPut(nullptr, buf, 4) +
                  MMStreamGetAttri(nullptr, &attr, 1) + MMStreamPutAttri(nullptr, &attr, 1),
              0u);
    EXPECT_EQ(MMStreamNull(nullptr) + MMStreamPlay(nullptr) + MMStreamReady(nullptr) +
                  MMStreamSeek(nullptr, 0, MMStreamSeekFromBegin) + MMStreamSize(nullptr, &value) +
                  MMStreamTell(nullptr, &value) + MMStreamDelete(nullptr),
              0);
    EXPECT_EQ(MMStreamContent(nullptr), nullptr);
    EXPECT_EQ(value, 123u);
    MMStream* s = new MMStream(nullptr, 0);
    EXPECT_EQ(MMStreamTell(s, nullptr), 0);
    EXPECT_EQ(MMStreamDelete(&s), 1);
    EXPECT_EQ(MMStreamDelete(&s), 0);  // it was set to null
}

// The stream a request makes: '-' for none, 'b', 'p' and 'f' for the built-in kinds.
char Made(std::vector<MMAttri> request) {
    MMStream* s = MMStreamNew(request.data(), static_cast<unsigned>(request.size()));
    if (!s) return '-';
    EXPECT_EQ(MMStreamGetAttri(s, nullptr, 0), request.size());  // the whole request
    const std::type_info& kind = typeid(*s);
    const char id = kind == typeid(MMByteStream)        ? 'b'
                    : kind == typeid(MMPageArrayStream) ? 'p'
                                                        : 'f';
    MMStreamDelete(&s);
    return id;
}

TEST(StreamRegistry, MostSpecificKindFirstRegisteredOnTiesValuedRecordsCompareBytes) {
    // Kinds of the test's own names, which no other code uses: a page array wants the bytes
    // "PNG\r" under kMagic, a file stream, registered later, any bytes.
    static const char kMagic[] = "test.magic", kLevel[] = "test.level";
    const MMAttri magic = Any(kMagic, "PNG\r", 4), anyMagic = Any(kMagic),
                  level = {kLevel, MMAttriTagU32, 0, 0};
    ASSERT_EQ(MMStream::AddToStreamRegistry(&magic, 1, MMPageArrayStream::New), 1);
    ASSERT_EQ(MMStream::AddToStreamRegistry(&anyMagic, 1, MMFileStream::New), 1);
    // Inconsistent buffer records are refused, as are empty or factory-less registrations.
    const MMAttri sizeZero = Any(kLevel, "x", 0), noBuffer = Any(kLevel, nullptr, 2);
    EXPECT_EQ(MMStream::AddToStreamRegistry(&sizeZero, 1, MMByteStream::New), 0);
    EXPECT_EQ(MMStream::AddToStreamRegistry(&noBuffer, 1, MMByteStream::New), 0);
    EXPECT_EQ(MMStream::AddToStreamRegistry(&level, 0, MMByteStream::New), 0);
    EXPECT_EQ(MMStream::AddToStreamRegistry(&level, 1, nullptr), 0);

    static const char otherData[] = "mm.image.data", otherPageSize[] = "mm.image.pageSize";
    const MMAttri data = Any(mmIdData, "abc", 4), pageSize = {mmIdPageSize, MMAttriTagU32, 0, 0},
                  fileName = Any(mmIdFileName, "/tmp/none", 10);
    const std::pair<std::vector<MMAttri>, char> cases[] = {
        {{data, pageSize}, 'p'},
        {{data}, 'b'},
        {{level, data}, 'b'},
        {{data, {mmIdPageSize, MMAttriTagI32, 0, 0}}, 'b'},
        {{fileName}, 'f'},
        {{fileName, data}, 'b'},
        {{pageSize}, '-'},
        {{Any(otherData, "abc", 4), {otherPageSize, MMAttriTagU32, 0, 0}}, '-'},
        {{Any(kMagic, "PNG\r\n\x1a\n", 8)}, 'p'},
        {{Any(kMagic, "JPEG", 4)}, 'f'},
        {{Any(kMagic, "PN", 2)}, 'f'},
        {{Any(kMagic, "JPEG", 4), magic}, 'f'},  // the first record of the name decides
        {{{kMagic, MMAttriTagU32, 0, 0}}, '-'},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(Made(cases[i].first), cases[i].second) << i;
    EXPECT_EQ(MMStreamNew(nullptr, 1), nullptr);
    EXPECT_EQ(MMStreamNew(&data, 0), nullptr);
}

char head[8];

bool StartsWithPng(MMStream* s) {
    return MMStreamGet(s, head, 4) == 4 && memcmp(head, "\x89PNG", 4) == 0;
}

// The content registry is process-wide, so this one test walks it from empty.
TEST(ContentRegistry, FirstAcceptingDetectorInRegistrationOrder) {
    const MMAttri png = Any(mmIdData, "\x89PNG\r\n\x1a\n", 8);
    MMStream* s = MMStreamNew(&png, 1);
    char name[] = "image/png";
    ASSERT_EQ(MMStreamReady(s), 1);
    EXPECT_EQ(MMStreamContent(s), nullptr);
    EXPECT_EQ(MMStream::AddToContentRegistry(nullptr, StartsWithPng), 0);
    EXPECT_EQ(MMStream::AddToContentRegistry(name, nullptr), 0);
    // Every detector looks from the start: the first one reads and refuses.
    ASSERT_EQ(MMStream::AddToContentRegistry("none",
                                             [](MMStream* t) { return !MMStreamGet(t, head, 4); }),
              1);
    ASSERT_EQ(MMStream::AddToContentRegistry(name, StartsWithPng), 1);
    ASSERT_EQ(MMStream::AddToContentRegistry("image/png-too", StartsWithPng), 1);
    strcpy(name, "changed");  // the registry keeps its own copy
    ASSERT_EQ(MMStreamGet(s, head, 8), 8u);
    EXPECT_STREQ(MMStreamContent(s), "image/png");
    MMStreamDelete(&s);
}

TEST(LoadTime, NewTakesMemoryFromMMAllocate) {
    MMFree(kau::mem::New(32));  // a mismatched release shows in the sanitizer build
}

}  // namespace
