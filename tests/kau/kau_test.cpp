// The foundation: reports, hooks, heap, primitives; the page array and the sort against models.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "kau.h"

namespace {

using Bytes = std::vector<unsigned char>;

uintptr_t RecordedSize(void* p) {
    return (static_cast<kau::mem::Heap::BlockHeader*>(p) - 1)->size;
}

// An error names its own place; anything else is reported at the catch site.
TEST(Report, EachArmPrintsItsPlace) {
    const std::pair<void (*)(), const char*> cases[] = {
        {[] { throw kau::Error(nullptr, 3, -1); }, "\n?!exception@  +3 !?\n\n\n"},
        {[] { throw "boom"; }, "\n?!boom@ site/file +7 !?\n\n\n"},
        {[] { throw static_cast<const char*>(nullptr); }, "\n?!exception@ site/file +7 !?\n\n\n"}};
    for (const auto& [raise, expected] : cases) {
        testing::internal::CaptureStdout();
        try {
            raise();
        } catch (...) {
            kau::ReportCurrentException("site/file", 7);
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    }
}

// Allocator hooks that count the blocks outstanding, or raise on demand; every test leaves none.
class Hooks : public testing::Test {
  protected:
    static inline int live = 0;
    static inline bool raise = false;
    static void* New(unsigned long n) {
        if (raise) throw std::bad_alloc();
        ++live;
        return malloc(n);
    }
    static void Delete(void* p) {
        live -= p != nullptr;
        free(p);
    }
    void SetUp() override {
        live = 0;
        kau::mem::SetExternalNewAndDelete(New, Delete);
    }
    void TearDown() override { EXPECT_EQ(live, 0) << "leaked blocks"; }
};

TEST_F(Hooks, HeapBlocksAreAlignedRecordedGrownAndFreedTogether) {
    // Replacing only one hook is refused: either half taking effect would upset the count.
    kau::mem::SetExternalNewAndDelete(nullptr, free);
    kau::mem::SetExternalNewAndDelete([](unsigned long) -> void* { return nullptr; }, nullptr);
    kau::mem::Heap heap;
    char* middle = nullptr;
    for (unsigned long size = 0; size < 300; ++size) {
        void* p = heap.Allocate(size);
        void* q = kau::mem::NewAligned(size);
        ASSERT_EQ((reinterpret_cast<uintptr_t>(p) | reinterpret_cast<uintptr_t>(q)) % 16, 0u);
        EXPECT_EQ(RecordedSize(p), size);
        memset(p, 0x5A, size);
        memset(q, 0xA5, size);
        kau::mem::DeleteAligned(q);
        if (size == 16) middle = static_cast<char*>(p);
    }
    auto zeroed = static_cast<unsigned char*>(heap.AllocateAndZero(5));
    EXPECT_EQ(RecordedSize(zeroed), 8u);
    EXPECT_EQ(Bytes(zeroed, zeroed + 8), Bytes(8, 0));
    // Blocks never shrink; growing one from the middle of the list copies it and frees the old.
    memcpy(middle, "0123456789abcdef", 16);
    EXPECT_EQ(heap.Reallocate(middle, 16), middle);
    EXPECT_EQ(heap.Reallocate(middle, 4), middle);
    auto grown = static_cast<char*>(heap.Reallocate(middle, 64));
    EXPECT_EQ(std::string(grown, 16), "0123456789abcdef");
    heap.Reallocate(nullptr, 8);
    EXPECT_EQ(live, 302);
}

MATCHER_P(At, position, "") {
    return arg.Position() == position && std::string(arg.FileName()) == kau::kKauFile;
}

// A hook that raises is reported by New, which answers null; its caller raises its own error.
TEST_F(Hooks, FailuresRaiseAtTheirPositions) {
    kau::mem::Heap heap;
    void* block = heap.Allocate(8);
    kau::PageArray roomy(16, 4);
    roomy.AddPage();
    unsigned char foreign[64] = {};
    const std::tuple<bool, std::function<void()>, int> cases[] = {
        {false, [] { kau::mem::DeleteAligned(reinterpret_cast<void*>(24)); },
         kau::kErrDeleteAlignedMisaligned},
        {false, [] { kau::mem::NewAligned(0xFFFFFFF0u); }, kau::kErrNewAligned},
        {false, [&] { heap.Allocate(0xFFFFFFF0u); }, kau::kErrHeapAllocate},
        {false, [&] { heap.AllocateAndZero(0xFFFFFFFDu); }, kau::kErrRoundUpOverflow},
        {false, [&] { heap.Reallocate(foreign + 32, 8); }, kau::kErrHeapReallocateUnknown},
        {false, [] { kau::PageArray pages(16, 0); }, kau::kErrPageSizeZero},
        {false, [&] { roomy.CopyTo(nullptr); }, kau::kErrCopyToNull},
        {true, [] { kau::mem::NewAligned(16); }, kau::kErrNewAligned},
        {true, [&] { heap.Reallocate(block, 64); }, kau::kErrHeapAllocate},
        {true, [] { kau::PageArray pages(16, 4); }, kau::kErrPageTableAllocate},
        {true, [] { kau::PageArray(0, 4).AddPage(); }, kau::kErrPageTableGrow},
        {true, [&] { roomy.AddPage(); }, kau::kErrPageAllocate}};
    testing::internal::CaptureStdout();
    for (const auto& [hookRaises, call, position] : cases) {
        raise = hookRaises;
        EXPECT_THAT(call, testing::Throws<kau::Error>(At(position))) << position;
    }
    raise = false;
    const std::string report = std::string("\n?!exception@ ") + kau::kKauFile + " +475 !?\n\n\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), report + report + report + report + report);
    EXPECT_EQ(kau::RoundUp(0xFFFFFFF8u, 8), 0xFFFFFFF8u) << "the largest multiple that fits";
    heap.FreeMemory();
    EXPECT_EQ(live, 2) << "a failed allocation keeps the list; roomy's table and page remain";
}

TEST(Primitives, ComparisonsSearchesFillsAndCopies) {
    // "\xff" lies above "a" unsigned, below it as a signed char.
    const std::tuple<const void*, const void*, unsigned long, int> bytes[] = {
        {nullptr, nullptr, 3, 0}, {nullptr, "abc", 3, -1}, {"abc", nullptr, 3, 1},
        {"abc", "abd", 3, -1},    {"abc", "abd", 2, 0},    {"\xff", "a", 1, 1}};
    for (const auto& [x, y, n, expected] : bytes)
        EXPECT_EQ(kau::mem::Compare(x, y, n), expected) << n;
    const std::tuple<const char*, const char*, int> strings[] = {
        {nullptr, nullptr, 0}, {nullptr, "a", -1}, {"a", nullptr, 1}, {"ab", "abc", -1},
        {"abc", "ab", 1},      {"abc", "abc", 0},  {"b", "abc", 1}};
    for (const auto& [x, y, expected] : strings)
        EXPECT_EQ(kau::mem::Compare(x, y), expected);
    const std::tuple<const char*, const char*, bool> ends[] = {
        {"image.PNG", ".png", true}, {"image.png", ".PNG", true}, {"abc", "", true},
        {"ab", "abc", false},        {nullptr, "a", false},       {"a", nullptr, false},
        {"x[", "x{", false},         {"x@", "x`", false},         {"abc", "abd", false}};
    for (const auto& [s, end, expected] : ends)
        EXPECT_EQ(kau::mem::StrEndsWith(s, end), expected) << (s ? s : "null");
    const char* s = "abc";
    EXPECT_EQ(kau::mem::AtStr(s, "b"), nullptr);
    EXPECT_EQ(kau::mem::AtStr(s, nullptr), s);
    EXPECT_EQ(kau::mem::AtStr("", nullptr), nullptr);
    EXPECT_EQ(kau::mem::AtStr(nullptr, nullptr), nullptr);
    EXPECT_EQ(kau::mem::AtChar(s, 'c', 3), s + 2);
    EXPECT_EQ(kau::mem::AtChar(s, 'c', 2), nullptr);
    // The word functions count words of four bytes; Set32 is a byte fill.
    Bytes buf(9, 0xEE);
    kau::mem::Set32(buf.data(), 0x12345678, 2);
    kau::mem::Set8(buf.data(), 7, 3);
    kau::mem::Zero32(buf.data() + 5, 1);
    EXPECT_EQ(buf, (Bytes{7, 7, 7, 0x78, 0x78, 0, 0, 0, 0}));
    kau::mem::Copy32(buf.data() + 1, "abcdefgh", 2);
    kau::mem::Zero8(buf.data(), 2);
    EXPECT_EQ(buf, (Bytes{0, 0, 'b', 'c', 'd', 'e', 'f', 'g', 'h'}));
}

// Random pushes into a table that grows from nothing, read back at random offsets, then the end
// shrinks: the last page cut short, then dropped, the one before it counting as full.
TEST(PageArray, MatchesAFlatArray) {
    std::mt19937 rng(7);
    for (uint32_t pageSize : {1u, 3u, 64u, 4096u}) {
        kau::PageArray pages(0, pageSize);
        Bytes flat;
        for (int push = 0; push < 60; ++push) {
            Bytes piece(rng() % 200);
            std::generate(piece.begin(), piece.end(), std::ref(rng));
            pages.PushBytes(piece.data(), piece.size());
            flat.insert(flat.end(), piece.begin(), piece.end());
            ASSERT_EQ(pages.Size(), flat.size());
            ASSERT_EQ(pages.PageCount(), (flat.size() + pageSize - 1) / pageSize);
        }
        for (int read = 0; read < 200; ++read) {
            size_t offset = rng() % (flat.size() + 2), n = rng() % 300;
            Bytes out(n + 1, 0);
            size_t expected = offset >= flat.size() ? 0 : std::min(n, flat.size() - offset);
            ASSERT_EQ(pages.GetBytes(out.data(), n, offset), expected);
            EXPECT_EQ(memcmp(out.data(), flat.data() + std::min(offset, flat.size()), expected), 0);
        }
        EXPECT_EQ(pages.GetBytes(nullptr, 4, 0), 0u);
        Bytes whole(flat.size());
        EXPECT_EQ(pages.CopyTo(whole.data()), 1);
        EXPECT_EQ(whole, flat);
        EXPECT_EQ(pages.SetByteCountInLastPage(pageSize + 1), 0);
        EXPECT_EQ(pages.SetByteCountInLastPage(pageSize) + pages.SetByteCountInLastPage(1), 2);
        EXPECT_EQ(pages.Size(), (pages.PageCount() - 1) * pageSize + 1);
        EXPECT_EQ(pages.DeleteLastPage(), 1);
        EXPECT_EQ(pages.Size(), pages.PageCount() * pageSize);
        while (pages.PageCount() > 0)
            pages.DeleteLastPage();
        EXPECT_EQ(pages.DeleteLastPage() + pages.SetByteCountInLastPage(0), 0);
        EXPECT_EQ(pages.Size() + pages.BytesInLastPage(), 0u);
        EXPECT_EQ(pages.CopyTo(nullptr), 0) << "nothing to copy";
    }
}

// Elements of any width sort by their first four bytes; the rest is payload that must move along.
int compares = 0;
int CompareKeys(const void* a, const void* b) {
    ++compares;
    uint32_t x, y;
    memcpy(&x, a, 4);
    memcpy(&y, b, 4);
    return (x > y) - (x < y);
}

Bytes Elements(const std::vector<uint32_t>& keys, unsigned long width) {
    Bytes out(keys.size() * width);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<unsigned char>(keys[i / width] + i % width);
    for (size_t i = 0; i < keys.size(); ++i)
        memcpy(&out[i * width], &keys[i], 4);
    return out;
}

// Keys random over 2 values and over all, ordered, reversed, organ pipe, equal. Up to 8 elements
// are sorted by selection alone, which compares every pair once.
TEST(Sort, AgreesWithStdSort) {
    std::mt19937 rng(11);
    for (unsigned long width : {4ul, 5ul, 13ul})
        for (uint32_t count : {0u, 1u, 2u, 3u, 8u, 9u, 10u, 31u, 1000u, 4000u})
            for (size_t shape = 0; shape < 6; ++shape) {
                std::vector<uint32_t> keys(count);
                for (uint32_t i = 0; i < count; ++i)
                    keys[i] = std::array<uint32_t, 6>{
                        uint32_t(rng() % 2), uint32_t(rng()),        i,
                        count - i,           std::min(i, count - i), 5}[shape];
                auto elements = Elements(keys, width);
                compares = 0;
                kau::Sort(elements.data(), count, width, CompareKeys);
                kau::Sort(elements.data(), count, 0, CompareKeys);  // width 0: nothing at all
                EXPECT_TRUE(count > 8 || compares == int(count * (count - 1) / 2)) << compares;
                std::sort(keys.begin(), keys.end());
                EXPECT_EQ(elements, Elements(keys, width)) << width << " " << count << " " << shape;
            }
}

}  // namespace
