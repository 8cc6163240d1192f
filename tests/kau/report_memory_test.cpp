// The catch-site report, the allocator hooks, aligned blocks, the tracked heap and the
// byte and string primitives.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "kau.h"

namespace {

using Header = kau::mem::Heap::BlockHeader;

Header* HeaderOf(void* p) {
    return reinterpret_cast<Header*>(static_cast<char*>(p) - sizeof(Header));
}

// The position of the kau::Error that `call` raises, or 0.
int PositionOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const kau::Error& e) {
        return e.Position();
    }
    return 0;
}

TEST(Report, EachArmPrintsItsPlace) {
    struct Case {
        void (*raise)();
        const char* expected;
    } cases[] = {
        {[] { kau::Error::Throw("lib/where", 12); }, "\n?!exception@ lib/where +12 !?\n\n\n"},
        {[] { throw kau::Error(nullptr, 3, -1); }, "\n?!exception@  +3 !?\n\n\n"},
        {[] { throw "boom"; }, "\n?!boom@ site/file +7 !?\n\n\n"},
        {[] { throw static_cast<const char*>(nullptr); }, "\n?!exception@ site/file +7 !?\n\n\n"},
        {[] { throw 42; }, "\n?!exception@ site/file +7 !?\n\n\n"},
        {[] { throw std::bad_alloc(); }, "\n?!exception@ site/file +7 !?\n\n\n"},
    };
    for (const Case& c : cases) {
        testing::internal::CaptureStdout();
        try {
            c.raise();
        } catch (...) {
            kau::ReportCurrentException("site/file", 7);
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.expected);
    }
}

// Allocator hooks that count what passes through them; every test leaves none outstanding.
struct Counting {
    static inline int news = 0, deletes = 0;
    static inline bool fail = false, raise = false;
    static void* New(unsigned long n) {
        if (raise) throw std::bad_alloc();
        if (fail) return nullptr;
        ++news;
        return malloc(n ? n : 1);
    }
    static void Delete(void* p) {
        if (p) ++deletes, free(p);
    }
};

class Hooks : public testing::Test {
  protected:
    void SetUp() override {
        Counting::news = Counting::deletes = 0;
        Counting::fail = Counting::raise = false;
        kau::mem::SetExternalNewAndDelete(Counting::New, Counting::Delete);
    }
    void TearDown() override { EXPECT_EQ(Counting::news, Counting::deletes) << "leaked blocks"; }
};

TEST_F(Hooks, NewReportsAHookThatThrowsAndAnswersNull) {
    Counting::raise = true;
    testing::internal::CaptureStdout();
    EXPECT_EQ(kau::mem::New(10), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string("\n?!exception@ ") + kau::kKauFile + " +475 !?\n\n\n");
}

TEST_F(Hooks, ReplacingNeedsBothHooks) {
    kau::mem::SetExternalNewAndDelete(nullptr, free);
    kau::mem::SetExternalNewAndDelete([](unsigned long) -> void* { return nullptr; }, nullptr);
    kau::mem::Delete(kau::mem::New(8));
    EXPECT_EQ(Counting::news, 1);
}

TEST_F(Hooks, BlocksAreAlignedRecordedAndFreedTogether) {
    {
        kau::mem::Heap heap;
        for (unsigned long size = 0; size < 300; ++size) {
            auto p = static_cast<unsigned char*>(heap.Allocate(size));
            auto q = static_cast<unsigned char*>(kau::mem::NewAligned(size));
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << size;
            ASSERT_EQ(reinterpret_cast<uintptr_t>(q) % 16, 0u) << size;
            EXPECT_EQ(HeaderOf(p)->size, size);
            memset(p, 0x5A, size);
            memset(q, 0xA5, size);
            kau::mem::DeleteAligned(q);
        }
        EXPECT_EQ(Counting::news - Counting::deletes, 300);
    }
}

TEST_F(Hooks, FailuresRaiseAtTheirPositions) {
    kau::mem::Heap heap;
    heap.Allocate(8);
    EXPECT_EQ(PositionOf([] { kau::mem::DeleteAligned(reinterpret_cast<void*>(24)); }),
              kau::kErrDeleteAlignedMisaligned);
    EXPECT_EQ(PositionOf([] { kau::mem::NewAligned(0xFFFFFFF0u); }), kau::kErrNewAligned);
    EXPECT_EQ(PositionOf([&] { heap.Allocate(0xFFFFFFF0u); }), kau::kErrHeapAllocate);
    EXPECT_EQ(PositionOf([&] { heap.AllocateAndZero(0xFFFFFFFDu); }), kau::kErrRoundUpOverflow);
    Counting::fail = true;
    EXPECT_EQ(PositionOf([] { kau::mem::NewAligned(16); }), kau::kErrNewAligned);
    EXPECT_EQ(PositionOf([&] { heap.Allocate(8); }), kau::kErrHeapAllocate);
    Counting::fail = false;
    heap.FreeMemory();
    EXPECT_EQ(Counting::deletes, 1) << "a failed allocation leaves the list alone";
}

TEST_F(Hooks, AllocateAndZeroRoundsToWords) {
    kau::mem::Heap heap;
    auto p = static_cast<unsigned char*>(heap.AllocateAndZero(5));
    EXPECT_EQ(HeaderOf(p)->size, 8u);
    EXPECT_EQ(std::vector<unsigned char>(p, p + 8), std::vector<unsigned char>(8, 0));
}

TEST_F(Hooks, ReallocateGrowsButNeverShrinks) {
    kau::mem::Heap heap;
    auto p = static_cast<unsigned char*>(heap.Allocate(16));
    for (int i = 0; i < 16; ++i)
        p[i] = static_cast<unsigned char>(i);
    EXPECT_EQ(heap.Reallocate(p, 16), p);
    EXPECT_EQ(heap.Reallocate(p, 4), p);
    EXPECT_EQ(HeaderOf(p)->size, 16u);

    auto q = static_cast<unsigned char*>(heap.Reallocate(p, 64));
    EXPECT_NE(q, p);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(q[i], i);
    EXPECT_EQ(Counting::news - Counting::deletes, 1) << "the old block is released at once";
    EXPECT_NE(heap.Reallocate(nullptr, 8), nullptr);
    unsigned char foreign[64] = {};
    EXPECT_EQ(PositionOf([&] { heap.Reallocate(foreign + 32, 8); }),
              kau::kErrHeapReallocateUnknown);
}

TEST(Primitives, Comparisons) {
    const char a[] = "abc", b[] = "abd";
    struct Case {
        const void* x;
        const void* y;
        unsigned long n;
        int expected;
    } bytes[] = {
        {nullptr, nullptr, 3, 0},
        {nullptr, a, 3, -1},
        {a, nullptr, 3, 1},
        {a, b, 3, -1},
        {b, a, 3, 1},
        {a, b, 2, 0},
        {a, b, 0, 0},
        {"\xff", "\x01", 1, 1},
    };
    for (const Case& c : bytes)
        EXPECT_EQ(kau::mem::Compare(c.x, c.y, c.n), c.expected);

    struct StrCase {
        const char* x;
        const char* y;
        int expected;
    } strings[] = {
        {nullptr, nullptr, 0}, {nullptr, "a", -1}, {"a", nullptr, 1}, {"ab", "abc", -1},
        {"abc", "ab", 1},      {"abc", "abc", 0},  {"b", "abc", 1},
    };
    for (const StrCase& c : strings)
        EXPECT_EQ(kau::mem::Compare(c.x, c.y), c.expected);
}

TEST(Primitives, Strings) {
    struct EndsCase {
        const char* s;
        const char* end;
        bool expected;
    } ends[] = {
        {"image.PNG", ".png", true}, {"image.png", ".PNG", true}, {"abc", "", true},
        {"ab", "abc", false},        {nullptr, "a", false},       {"a", nullptr, false},
        {"x[", "x{", false},         {"x@", "x`", false},         {"abc", "abd", false},
    };
    for (const EndsCase& c : ends)
        EXPECT_EQ(kau::mem::StrEndsWith(c.s, c.end), c.expected) << (c.s ? c.s : "null");

    const char* s = "abc";
    EXPECT_EQ(kau::mem::AtStr(s, "b"), nullptr);
    EXPECT_EQ(kau::mem::AtStr(s, nullptr), s);
    EXPECT_EQ(kau::mem::AtStr("", nullptr), nullptr);
    EXPECT_EQ(kau::mem::AtStr(nullptr, nullptr), nullptr);
    EXPECT_EQ(kau::mem::StrLen(nullptr), 0u);
    EXPECT_EQ(kau::mem::AtChar(s, 'c', 3), s + 2);
    EXPECT_EQ(kau::mem::AtChar(s, 'c', 2), nullptr);
    EXPECT_EQ(kau::mem::AtChar(nullptr, 'c', 3), nullptr);
}

TEST(Primitives, FillsAndCopies) {
    unsigned char buf[12];
    memset(buf, 0xEE, sizeof buf);
    kau::mem::Set32(buf, 0x12345678, 2);
    kau::mem::Set8(buf, 7, 3);
    kau::mem::Zero32(buf + 4, 1);
    EXPECT_EQ(std::vector<unsigned char>(buf, buf + 9),
              (std::vector<unsigned char>{7, 7, 7, 0x78, 0, 0, 0, 0, 0xEE}))
        << "Set32 is a byte fill over a word count";

    unsigned char words[8] = {1, 2, 3, 4, 5, 6, 7, 8}, out[8] = {};
    kau::mem::Copy32(out, words, 2);
    kau::mem::Zero8(out, 3);
    kau::mem::Copy8(out + 7, words, 1);
    EXPECT_EQ(std::vector<unsigned char>(out, out + 8),
              (std::vector<unsigned char>{0, 0, 0, 4, 5, 6, 7, 1}));
}

TEST(RoundUp, RefusesWhatWouldWrap) {
    EXPECT_EQ(kau::RoundUp(5, 4), 8u);
    EXPECT_EQ(kau::RoundUp(0xFFFFFFF8u, 8), 0xFFFFFFF8u);
    EXPECT_EQ(PositionOf([] { kau::RoundUp(0xFFFFFFF9u, 8, 1234); }), kau::kErrRoundUpOverflow);
}

}  // namespace
