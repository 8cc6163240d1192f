// Attribute records, the stream's attribute table and the ownership carried by buffer sizes.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "heap_probe.h"
#include "mmstream.h"

namespace {

char buffer[8] = "abcdefg";
const char kAbc[] = "abc";

uintptr_t Addr(const void* p) {
    return reinterpret_cast<uintptr_t>(p);
}

struct ConstructorCase {
    const char* label;
    MMAttri* (*make)(MMAttri* attr);  // given the record to fill
    bool nullRecord;                  // passes no record at all
    bool accepted;
    MMAttri expected;  // the record afterwards when accepted
};

// Every record starts as this, so that untouched fields show.
const MMAttri kBefore = {"before", static_cast<MMAttriTag>(3), 0x5A5A, 77};

TEST(AttriConstructors, FillOrRefuse) {
    const ConstructorCase cases[] = {
        {"empty buffer",
         [](MMAttri* a) { return MMAttriFromAny(a, mmIdData, nullptr, 0); },
         false,
         true,
         {mmIdData, MMAttriTagAny, 0, 0}},
        {"borrowed buffer",
         [](MMAttri* a) { return MMAttriFromAny(a, mmIdData, buffer, 8); },
         false,
         true,
         {mmIdData, MMAttriTagAny, Addr(buffer), 8}},
        {"owned buffer keeps its sign",
         [](MMAttri* a) { return MMAttriFromAny(a, mmIdData, buffer, -8); },
         false,
         true,
         {mmIdData, MMAttriTagAny, Addr(buffer), -8}},
        {"buffer of size 0",
         [](MMAttri* a) { return MMAttriFromAny(a, mmIdData, buffer, 0); },
         false,
         false,
         {}},
        {"size without buffer",
         [](MMAttri* a) { return MMAttriFromAny(a, mmIdData, nullptr, 4); },
         false,
         false,
         {}},
        {"buffer without name",
         [](MMAttri* a) { return MMAttriFromAny(a, nullptr, buffer, 8); },
         false,
         false,
         {}},
        {"buffer without record",
         [](MMAttri* a) { return MMAttriFromAny(a, mmIdData, buffer, 8); },
         true,
         false,
         {}},
        {"tag",
         [](MMAttri* a) { return MMAttriFromTag(a, mmIdWidth, MMAttriTagU32); },
         false,
         true,
         {mmIdWidth, MMAttriTagU32, 0, 0}},
        {"tag none",
         [](MMAttri* a) { return MMAttriFromTag(a, mmIdWidth, MMAttriTagNone); },
         false,
         false,
         {}},
        {"tag without name",
         [](MMAttri* a) { return MMAttriFromTag(a, nullptr, MMAttriTagI32); },
         false,
         false,
         {}},
        {"i32 keeps the size",
         [](MMAttri* a) { return MMAttriFromI32(a, mmIdShiftR, -5); },
         false,
         true,
         {mmIdShiftR, MMAttriTagI32, static_cast<uintptr_t>(intptr_t{-5}), 77}},
        {"i32 without record",
         [](MMAttri* a) { return MMAttriFromI32(a, mmIdShiftR, 1); },
         true,
         false,
         {}},
        {"u32 keeps the size",
         [](MMAttri* a) { return MMAttriFromU32(a, mmIdHeight, 0xFFFFFFFFul); },
         false,
         true,
         {mmIdHeight, MMAttriTagU32, 0xFFFFFFFFu, 77}},
        {"u32 without name",
         [](MMAttri* a) { return MMAttriFromU32(a, nullptr, 1); },
         false,
         false,
         {}},
        {"string counts its zero",
         [](MMAttri* a) { return MMAttriFromString(a, mmIdFileName, kAbc); },
         false,
         true,
         {mmIdFileName, MMAttriTagAny, Addr(kAbc), 4}},
        {"null string",
         [](MMAttri* a) { return MMAttriFromString(a, mmIdFileName, nullptr); },
         false,
         true,
         {mmIdFileName, MMAttriTagAny, 0, 0}},
        {"string without name",
         [](MMAttri* a) { return MMAttriFromString(a, nullptr, "x"); },
         false,
         false,
         {}},
    };
    for (const ConstructorCase& c : cases) {
        SCOPED_TRACE(c.label);
        MMAttri record = kBefore;
        MMAttri* result = c.make(c.nullRecord ? nullptr : &record);
        if (!c.accepted) {
            EXPECT_EQ(result, nullptr);
            EXPECT_EQ(record.name, kBefore.name);
            EXPECT_EQ(record.tag, kBefore.tag);
            EXPECT_EQ(record.value, kBefore.value);
            EXPECT_EQ(record.size, kBefore.size);
            continue;
        }
        ASSERT_EQ(result, &record);
        EXPECT_EQ(record.name, c.expected.name);
        EXPECT_EQ(record.tag, c.expected.tag);
        EXPECT_EQ(record.value, c.expected.value);
        EXPECT_EQ(record.size, c.expected.size);
    }
}

TEST(AttriNames, TextsAreTheVocabularyAndEveryNameIsItsOwnPointer) {
    const struct {
        const char* const* variable;
        const char* text;
    } names[] = {
        {&mmIdAngleInDegrees, "mm.image.angleInDegrees"},
        {&mmIdBitsPerColorChannel, "mm.image.bitsPerColorChannel"},
        {&mmIdBitsPerPixel, "mm.image.bitsPerPixel"},
        {&mmIdBitsPerSample, "mm.image.bitsPerSample"},
        {&mmIdChannelsTotal, "mm.image.channelsTotal"},
        {&mmIdColorSpace, "mm.image.colorSpace"},
        {&mmIdContentToGet, "mm.image.contentToGet"},
        {&mmIdContentToPut, "mm.image.contentToPut"},
        {&mmIdData, "mm.image.data"},
        {&mmIdDurationInMsec, "mm.image.durationInMsec"},
        {&mmIdFileMode, "mm.image.fileMode"},
        {&mmIdFileName, "mm.image.fileName"},
        {&mmIdFrameDurationInMsec, "mm.image.frameDurationInMsec"},
        {&mmIdFramesTotal, "mm.image.framesTotal"},
        {&mmIdHeight, "mm.image.height"},
        {&mmIdHorizontalSamplesU, "mm.image.horizontalSamplesU"},
        {&mmIdHorizontalSamplesV, "mm.image.horizontalSamplesV"},
        {&mmIdHorizontalSamplesY, "mm.image.horizontalSamplesY"},
        {&mmIdImageQuality, "mm.image.imageQuality"},
        {&mmIdLocationInMsec, "mm.image.locationInMsec"},
        {&mmIdMaskA, "mm.image.maskA"},
        {&mmIdMaskB, "mm.image.maskB"},
        {&mmIdMaskG, "mm.image.maskG"},
        {&mmIdMaskR, "mm.image.maskR"},
        {&mmIdPageSize, "mm.image.pageSize"},
        {&mmIdRowStrideInBytes, "mm.image.rowStrideInBytes"},
        {&mmIdSampleRate, "mm.image.sampleRate"},
        {&mmIdShiftA, "mm.image.shiftA"},
        {&mmIdShiftB, "mm.image.shiftB"},
        {&mmIdShiftG, "mm.image.shiftG"},
        {&mmIdShiftR, "mm.image.shiftR"},
        {&mmIdStreamToGet, "mm.image.streamToGet"},
        {&mmIdStreamToPut, "mm.image.streamToPut"},
        {&mmIdVerticalSamplesU, "mm.image.verticalSamplesU"},
        {&mmIdVerticalSamplesV, "mm.image.verticalSamplesV"},
        {&mmIdVerticalSamplesY, "mm.image.verticalSamplesY"},
        {&mmIdWidth, "mm.image.width"},
    };
    std::set<const char*> pointers;
    for (const auto& n : names) {
        EXPECT_STREQ(*n.variable, n.text);
        pointers.insert(*n.variable);
    }
    EXPECT_EQ(pointers.size(), std::size(names));
}

// Sixteen distinct names for filling a table.
const char* const* SixteenNames() {
    static const char* const names[16] = {
        mmIdMaskA,  mmIdMaskB,    mmIdMaskG,    mmIdMaskR,       mmIdShiftA,       mmIdShiftB,
        mmIdShiftG, mmIdShiftR,   mmIdWidth,    mmIdHeight,      mmIdBitsPerPixel, mmIdColorSpace,
        mmIdData,   mmIdPageSize, mmIdFileName, mmIdImageQuality};
    return names;
}

TEST(AttriTable, PutAttriReplacesByNameAndTagAndDropsPastSixteen) {
    MMStream s(nullptr, 0);
    MMAttri records[16];
    for (int i = 0; i < 16; ++i)
        MMAttriFromU32(&records[i], SixteenNames()[i], i);
    EXPECT_EQ(s.PutAttri(records, 16), 16u);

    MMAttri extra[3];
    MMAttriFromU32(&extra[0], mmIdSampleRate, 1);  // a 17th name: dropped
    MMAttriFromI32(&extra[1], mmIdWidth, 2);       // same name, other tag: a new entry, dropped
    MMAttriFromU32(&extra[2], mmIdWidth, 640);     // same name and tag: replaced
    EXPECT_EQ(s.PutAttri(extra, 3), 1u);
    EXPECT_EQ(s.GetAttri(nullptr, 0), 16u);
    EXPECT_EQ(s.AttriGet(mmIdSampleRate), nullptr);
    EXPECT_EQ(s.AttriGetI32(mmIdWidth), nullptr);
    ASSERT_NE(s.AttriGetU32(mmIdWidth), nullptr);
    EXPECT_EQ(s.AttriGetU32(mmIdWidth)->value, 640u);

    MMAttri unnamed[2] = {{nullptr, MMAttriTagU32, 1, 0}, {mmIdWidth, MMAttriTagNone, 1, 0}};
    EXPECT_EQ(s.PutAttri(unnamed, 2), 0u);
    EXPECT_EQ(s.PutAttri(nullptr, 0), 16u);
    EXPECT_EQ(s.PutAttri(nullptr, 3), 3u);
}

TEST(AttriTable, SameNameWithAnotherTagIsAnotherEntry) {
    MMStream s(nullptr, 0);
    MMAttri records[2];
    MMAttriFromI32(&records[0], mmIdWidth, -1);
    MMAttriFromU32(&records[1], mmIdWidth, 7);
    EXPECT_EQ(s.PutAttri(records, 2), 2u);
    EXPECT_EQ(s.GetAttri(nullptr, 0), 2u);
    EXPECT_EQ(s.AttriGet(mmIdWidth), s.AttriGetI32(mmIdWidth));
    EXPECT_EQ(s.AttriGetU32(mmIdWidth)->value, 7u);
}

TEST(AttriTable, NamesAreComparedByPointer) {
    static const char otherData[] = "mm.image.data";
    MMAttri record;
    MMAttriFromU32(&record, otherData, 3);
    MMStream s(&record, 1);
    EXPECT_EQ(s.AttriGet(mmIdData), nullptr);
    EXPECT_NE(s.AttriGet(otherData), nullptr);

    MMAttri request = {mmIdData, MMAttriTagNone, 0, 0};
    EXPECT_EQ(s.GetAttri(&request, 1), 0u);
}

TEST(AttriTable, GetAttriCountsListsAndAnswersRequests) {
    MMAttri records[3];
    MMAttriFromI32(&records[0], mmIdWidth, -3);
    MMAttriFromU32(&records[1], mmIdHeight, 10);
    MMAttriFromAny(&records[2], mmIdData, buffer, 8);
    MMStream s(records, 3);

    EXPECT_EQ(s.GetAttri(nullptr, 0), 3u);
    EXPECT_EQ(s.GetAttri(nullptr, 2), 2u);
    EXPECT_EQ(s.GetAttri(nullptr, 9), 3u);

    MMAttri listing[4] = {};
    EXPECT_EQ(s.GetAttri(listing, 2), 2u);
    EXPECT_EQ(listing[0].name, mmIdWidth);
    EXPECT_EQ(listing[1].name, mmIdHeight);
    EXPECT_EQ(listing[2].name, nullptr);

    MMAttri req[4] = {
        {mmIdWidth, MMAttriTagNone, 0, 0},   // any kind: receives the stored tag
        {mmIdHeight, MMAttriTagI32, 99, 5},  // wrong kind: untouched
        {nullptr, MMAttriTagU32, 0, 0},      // empty slot: its tag is cleared
        {mmIdData, MMAttriTagAny, 0, 0},
    };
    EXPECT_EQ(s.GetAttri(req, 4), 2u);
    EXPECT_EQ(req[0].tag, MMAttriTagI32);
    EXPECT_EQ(static_cast<int32_t>(req[0].value), -3);
    EXPECT_EQ(req[1].value, 99u);
    EXPECT_EQ(req[1].size, 5);
    EXPECT_EQ(req[2].tag, MMAttriTagNone);
    EXPECT_EQ(req[3].value, Addr(buffer));
    EXPECT_EQ(req[3].size, 8);
}

TEST(AttriTable, AccessorsSkipWhatTheyCannotServe) {
    static char unterminated[3] = {'a', 'b', 'c'};
    static char terminated[4] = "abc";
    char* owned = static_cast<char*>(MMAllocate(4));
    strcpy(owned, "xyz");
    const MMAttri records[] = {
        {mmIdData, MMAttriTagAny, Addr(buffer), 0},  // inconsistent pair: skipped
        {mmIdData, MMAttriTagAny, Addr(buffer), 8},
        {mmIdFileName, MMAttriTagAny, Addr(unterminated), 3},
        {mmIdFileMode, MMAttriTagAny, Addr(owned), -4},
        {mmIdColorSpace, MMAttriTagU32, Addr(terminated), 4},
        {mmIdColorSpace, MMAttriTagAny, Addr(terminated), 4},
    };
    MMStream s(records, std::size(records));
    EXPECT_EQ(s.AttriAnyPointer(mmIdData), buffer);
    EXPECT_EQ(s.AttriAnyString(mmIdFileName), nullptr);
    EXPECT_EQ(s.AttriAnyString(mmIdFileMode), owned);
    EXPECT_EQ(s.AttriAnyString(mmIdColorSpace), nullptr);  // the first of the name is no buffer
    EXPECT_EQ(s.AttriAnyPointer(mmIdWidth), nullptr);
}

// ---- Ownership travelling with the sign of the size ----

MMAttri OwnedProbe() {
    MMAttri a;
    MMAttriFromAny(&a, mmIdData, MMAllocate(kProbeBytes), -kProbeBytes);
    return a;
}

TEST(AttriOwnership, DestructionFreesOwnedBuffersOnly) {
    const size_t before = HeapBytesInUse();
    MMAttri records[2] = {OwnedProbe()};
    MMAttriFromAny(&records[1], mmIdFileName, buffer, 8);
    delete new MMStream(records, 2);
    EXPECT_LT(HeapBytesInUse(), before + kProbeBytes / 2);
    EXPECT_STREQ(buffer, "abcdefg");
}

TEST(AttriOwnership, TakeOverPassesTheBufferOnce) {
    MMAttri owned = OwnedProbe();
    auto* s = new MMStream(&owned, 1);

    MMAttri take = {mmIdData, MMAttriTagAny, 0, -1};
    EXPECT_EQ(s->GetAttri(&take, 1), 1u);
    EXPECT_EQ(take.value, owned.value);
    EXPECT_EQ(take.size, -kProbeBytes);

    MMAttri again = {mmIdData, MMAttriTagNone, 0, -1};
    EXPECT_EQ(s->GetAttri(&again, 1), 1u);
    EXPECT_EQ(again.size, kProbeBytes);

    const size_t held = HeapBytesInUse();
    delete s;
    EXPECT_GT(HeapBytesInUse() + kProbeBytes / 2, held);  // the stream no longer frees it
    MMFree(reinterpret_cast<void*>(take.value));
}

TEST(AttriOwnership, ABorrowedBufferCannotBeTakenOver) {
    MMAttri borrowed;
    MMAttriFromAny(&borrowed, mmIdData, buffer, 8);
    MMStream s(&borrowed, 1);
    MMAttri take = {mmIdData, MMAttriTagAny, 0, -1};
    s.GetAttri(&take, 1);
    EXPECT_EQ(take.size, 8);
}

TEST(AttriOwnership, ReplacingFreesTheOwnedBuffer) {
    MMStream* s = new MMStream(nullptr, 0);
    const size_t before = HeapBytesInUse();
    MMAttri first = OwnedProbe();
    ASSERT_EQ(s->PutAttri(&first, 1), 1u);
    EXPECT_EQ(s->PutAttri(&first, 1), 1u);  // the same buffer again is kept, not freed
    MMAttri second = OwnedProbe();
    EXPECT_EQ(s->PutAttri(&second, 1), 1u);
    EXPECT_LT(HeapBytesInUse(), before + kProbeBytes + kProbeBytes / 2);

    EXPECT_EQ(s->AttriPut(mmIdData, MMAttriTagAny), s->AttriGet(mmIdData));  // frees the second
    EXPECT_EQ(s->AttriGet(mmIdData)->value, 0u);
    EXPECT_LT(HeapBytesInUse(), before + kProbeBytes / 2);
    EXPECT_EQ(s->AttriPut(mmIdData, MMAttriTagNone), nullptr);
    delete s;
}

}  // namespace
