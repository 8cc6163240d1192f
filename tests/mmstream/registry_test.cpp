// Choosing a stream kind from a request, registering kinds, and detecting content.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <typeinfo>
#include <vector>

#include "MMFileStream.h"
#include "MMPageArrayStream.h"
#include "mmstream.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

char data[4] = "abc";

MMAttri Data() {
    MMAttri a;
    MMAttriFromAny(&a, mmIdData, data, 4);
    return a;
}
MMAttri PageSize() {
    MMAttri a;
    MMAttriFromU32(&a, mmIdPageSize, 64);
    return a;
}
MMAttri FileName() {
    MMAttri a;
    MMAttriFromString(&a, mmIdFileName, "/tmp/none");
    return a;
}
MMAttri Width() {
    MMAttri a;
    MMAttriFromU32(&a, mmIdWidth, 1);
    return a;
}

TEST(StreamRegistry, ChoosesTheMostSpecificKind) {
    static const char otherData[] = "mm.image.data";
    static const char otherPageSize[] = "mm.image.pageSize";
    MMAttri i32PageSize;
    MMAttriFromI32(&i32PageSize, mmIdPageSize, 64);
    MMAttri emptyData;
    MMAttriFromAny(&emptyData, mmIdData, nullptr, 0);
    MMAttri copiedData = Data();
    copiedData.name = otherData;
    MMAttri copiedPageSize = PageSize();
    copiedPageSize.name = otherPageSize;

    const struct {
        const char* label;
        std::vector<MMAttri> request;
        const std::type_info* kind;  // null: no stream
    } cases[] = {
        {"data and page size", {Data(), PageSize()}, &typeid(MMPageArrayStream)},
        {"page size and data", {PageSize(), Data()}, &typeid(MMPageArrayStream)},
        {"data", {Data()}, &typeid(MMByteStream)},
        {"empty data", {emptyData}, &typeid(MMByteStream)},
        {"data with an unknown record", {Width(), Data()}, &typeid(MMByteStream)},
        {"file name", {FileName()}, &typeid(MMFileStream)},
        {"file name and data: the first registered wins",
         {FileName(), Data()},
         &typeid(MMByteStream)},
        {"data and a page size of another kind", {Data(), i32PageSize}, &typeid(MMByteStream)},
        {"page size alone", {PageSize()}, nullptr},
        {"equal texts at other addresses", {copiedData, copiedPageSize}, nullptr},
        {"unknown record", {Width()}, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        MMStream* s = MMStreamNew(c.request.data(), static_cast<unsigned>(c.request.size()));
        if (!c.kind) {
            EXPECT_EQ(s, nullptr);
            continue;
        }
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(typeid(*s), *c.kind);
        // The factory receives the whole request.
        EXPECT_EQ(MMStreamGetAttri(s, nullptr, 0), c.request.size());
        EXPECT_EQ(MMStreamDelete(&s), 1);
    }
    MMAttri d = Data();
    EXPECT_EQ(MMStreamNew(nullptr, 1), nullptr);
    EXPECT_EQ(MMStreamNew(&d, 0), nullptr);
}

// Streams made by the test's own kinds, telling which factory built them.
class Marker : public MMStream {
  public:
    Marker(const MMAttri* attrs, unsigned count, char id) : MMStream(attrs, count), id(id) {}
    const char id;
};

template <char Id>
MMStream* NewMarker(const MMAttri* attrs, unsigned count) {
    return new Marker(attrs, count, Id);
}

char IdOf(std::vector<MMAttri> request) {
    MMStream* s = MMStreamNew(request.data(), static_cast<unsigned>(request.size()));
    if (!s) return '-';
    auto* marker = dynamic_cast<Marker*>(s);
    char id = marker ? marker->id : '?';
    MMStreamDelete(&s);
    return id;
}

// Names of the test's own kinds: nothing else in the program uses these pointers.
const char kMagic[] = "test.magic";
const char kLevel[] = "test.level";
const char kBroken[] = "test.broken";

MMAttri Magic(const char* bytes, long size) {
    MMAttri a;
    MMAttriFromAny(&a, kMagic, const_cast<char*>(bytes), size);
    return a;
}

TEST(StreamRegistry, ValuedRecordsCompareBytes) {
    MMAttri level;
    MMAttriFromTag(&level, kLevel, MMAttriTagU32);
    const MMAttri a[] = {Magic("PNG\r", 4)};  // 'A': a valued record
    const MMAttri b[] = {Magic(nullptr, 0)};  // 'B': any value, registered later
    const MMAttri c[] = {Magic(nullptr, 0), level};
    ASSERT_EQ(MMStream::AddToStreamRegistry(a, 1, NewMarker<'A'>), 1);
    ASSERT_EQ(MMStream::AddToStreamRegistry(b, 1, NewMarker<'B'>), 1);
    ASSERT_EQ(MMStream::AddToStreamRegistry(c, 2, NewMarker<'C'>), 1);

    MMAttri levelValue;
    MMAttriFromU32(&levelValue, kLevel, 3);
    const struct {
        const char* label;
        std::vector<MMAttri> request;
        char id;
    } cases[] = {
        {"matching bytes win the tie", {Magic("PNG\r\n\x1a\n", 8)}, 'A'},
        {"other bytes", {Magic("JPEG", 4)}, 'B'},
        {"a differing record fails the entry at once", {Magic("JPEG", 4), Magic("PNG\r", 4)}, 'B'},
        {"fewer bytes than registered", {Magic("PN", 2)}, 'B'},
        {"more records win", {Magic("PNG\r", 4), levelValue}, 'C'},
        {"record of another kind", {{kMagic, MMAttriTagU32, 0, 0}}, '-'},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(IdOf(c.request), c.id);
    }
}

TEST(StreamRegistry, AddRefusesInconsistentRegistrations) {
    static char bytes[2];
    const struct {
        const char* label;
        MMAttri record;
        unsigned count;
        MMStream::Factory factory;
    } cases[] = {
        {"count 0", {kLevel, MMAttriTagU32, 0, 0}, 0, NewMarker<'X'>},
        {"no factory", {kLevel, MMAttriTagU32, 0, 0}, 1, nullptr},
        {"buffer of size 0",
         {kLevel, MMAttriTagAny, reinterpret_cast<uintptr_t>(bytes), 0},
         1,
         NewMarker<'X'>},
        {"size without buffer", {kLevel, MMAttriTagAny, 0, 2}, 1, NewMarker<'X'>},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        EXPECT_EQ(MMStream::AddToStreamRegistry(&c.record, c.count, c.factory), 0);
    }
    EXPECT_EQ(MMStream::AddToStreamRegistry(nullptr, 1, NewMarker<'X'>), 0);
    MMAttri request = {kLevel, MMAttriTagU32, 0, 0};
    EXPECT_EQ(IdOf({request}), '-');  // nothing was registered
}

TEST(StreamRegistry, AFailingFactoryIsReported) {
    MMAttri record;
    MMAttriFromTag(&record, kBroken, MMAttriTagI32);
    ASSERT_EQ(MMStream::AddToStreamRegistry(
                  &record, 1, [](const MMAttri*, unsigned) -> MMStream* { throw "factory"; }),
              1);
    CaptureStdout();
    EXPECT_EQ(MMStreamNew(&record, 1), nullptr);
    EXPECT_EQ(GetCapturedStdout(),
              "\n?!factory@ middleware/multimedia-framework/media-service/common/kiu/mmstream "
              "+256 !?\n\n\n");
}

TEST(StreamRegistry, KindsAreRegisteredOnce) {
    EXPECT_EQ(MMByteStreamRegistered(), 1);
    EXPECT_EQ(MMFileStreamRegistered(), 1);
    EXPECT_EQ(MMPageArrayStreamRegistered(), 1);
}

// ---- Content registry: process-wide, so one test walks it from empty ----

bool StartsWithPng(MMStream* s) {
    unsigned char head[4] = {};
    return MMStreamGet(s, head, 4) == 4 && memcmp(head, "\x89PNG", 4) == 0;
}

TEST(ContentRegistry, FirstAcceptingDetectorInRegistrationOrder) {
    static char png[] = "\x89PNG\r\n\x1a\n";
    static char text[] = "plain text";
    MMAttri pngData;
    MMAttriFromAny(&pngData, mmIdData, png, 8);
    MMAttri textData;
    MMAttriFromAny(&textData, mmIdData, text, 10);
    MMStream* pngStream = MMStreamNew(&pngData, 1);
    MMStream* textStream = MMStreamNew(&textData, 1);
    ASSERT_EQ(MMStreamReady(pngStream), 1);

    EXPECT_EQ(MMStreamContent(pngStream), nullptr);  // nothing registered yet

    char name[] = "image/png";
    EXPECT_EQ(MMStream::AddToContentRegistry(nullptr, StartsWithPng), 0);
    EXPECT_EQ(MMStream::AddToContentRegistry(name, nullptr), 0);
    ASSERT_EQ(MMStream::AddToContentRegistry(name, StartsWithPng), 1);
    ASSERT_EQ(MMStream::AddToContentRegistry("image/png-too", StartsWithPng), 1);
    ASSERT_EQ(MMStream::AddToContentRegistry("throws", [](MMStream*) -> bool { throw "detector"; }),
              1);
    strcpy(name, "changed");  // the registry keeps its own copy

    char all[8];
    ASSERT_EQ(MMStreamGet(pngStream, all, 8), 8u);  // every detector starts from the beginning
    EXPECT_STREQ(MMStreamContent(pngStream), "image/png");
    EXPECT_STREQ(MMStreamContent(pngStream), "image/png");

    CaptureStdout();
    EXPECT_EQ(MMStreamContent(textStream), nullptr);
    EXPECT_EQ(GetCapturedStdout(),
              "\n?!detector@ middleware/multimedia-framework/media-service/common/kiu/mmstream "
              "+301 !?\n\n\n");
    MMStreamDelete(&pngStream);
    MMStreamDelete(&textStream);
}

}  // namespace
