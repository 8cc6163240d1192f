// The paged byte array against a flat reference, and the sort against std::sort.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "kau.h"

namespace {

int PositionOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const kau::Error& e) {
        return e.Position();
    }
    return 0;
}

TEST(PageArray, TableGrowsBySixteenFromNothing) {
    kau::PageArray pages(0, 8);
    EXPECT_EQ(pages.Capacity(), 0u);
    pages.AddPage();
    EXPECT_EQ(pages.Capacity(), 16u);
    for (int i = 1; i < 17; ++i)
        pages.AddPage();
    EXPECT_EQ(pages.Capacity(), 32u);
    EXPECT_EQ(pages.PageCount(), 17u);
    EXPECT_EQ(pages.BytesInLastPage(), 0u);
}

TEST(PageArray, PageBoundaries) {
    std::vector<unsigned char> bytes(9, 0x11);
    struct Case {
        unsigned long pushed;
        uint32_t pages, inLast;
    } cases[] = {{0, 0, 0}, {1, 1, 1}, {7, 1, 7}, {8, 1, 8}, {9, 2, 1}, {16, 2, 8}};
    for (const Case& c : cases) {
        kau::PageArray pages(16, 8);
        pages.PushBytes(bytes.data(), std::min<unsigned long>(c.pushed, 8));
        if (c.pushed > 8) pages.PushBytes(bytes.data(), c.pushed - 8);
        EXPECT_EQ(pages.PageCount(), c.pages) << c.pushed;
        EXPECT_EQ(pages.BytesInLastPage(), c.inLast) << c.pushed;
        EXPECT_EQ(pages.Size(), c.pushed);
    }
}

TEST(PageArray, MatchesAFlatArrayForRandomPushesAndReads) {
    std::mt19937 rng(7);
    for (unsigned long pageSize : {1ul, 3ul, 64ul, 4096ul}) {
        kau::PageArray pages(2, pageSize);
        std::vector<unsigned char> flat;
        for (int push = 0; push < 60; ++push) {
            std::vector<unsigned char> piece(rng() % 200);
            for (auto& b : piece)
                b = static_cast<unsigned char>(rng());
            pages.PushBytes(piece.data(), piece.size());
            flat.insert(flat.end(), piece.begin(), piece.end());
        }
        ASSERT_EQ(pages.Size(), flat.size());
        for (int read = 0; read < 200; ++read) {
            size_t offset = rng() % (flat.size() + 2), n = rng() % 300;
            std::vector<unsigned char> out(n + 1, 0);
            size_t expected = offset >= flat.size() ? 0 : std::min(n, flat.size() - offset);
            ASSERT_EQ(pages.GetBytes(out.data(), n, offset), expected);
            EXPECT_EQ(memcmp(out.data(), flat.data() + std::min(offset, flat.size()), expected), 0);
        }
        unsigned char byte;
        EXPECT_EQ(pages.GetBytes(nullptr, 4, 0), 0u);
        EXPECT_EQ(pages.GetBytes(&byte, 0, 0), 0u);
        std::vector<unsigned char> whole(flat.size());
        EXPECT_EQ(pages.CopyTo(whole.data()), 1);
        EXPECT_EQ(whole, flat);
    }
}

TEST(PageArray, ShrinkingFromTheEnd) {
    kau::PageArray pages(16, 4);
    const unsigned char data[10] = {};
    pages.PushBytes(data, 10);
    EXPECT_EQ(pages.SetByteCountInLastPage(5), 0);
    EXPECT_EQ(pages.SetByteCountInLastPage(1), 1);
    EXPECT_EQ(pages.Size(), 9u);
    EXPECT_EQ(pages.DeleteLastPage(), 1);
    EXPECT_EQ(pages.Size(), 8u) << "the new last page counts as full";
    EXPECT_EQ(pages.DeleteLastPage(), 1);
    EXPECT_EQ(pages.DeleteLastPage(), 1);
    EXPECT_EQ(pages.Size(), 0u);
    EXPECT_EQ(pages.BytesInLastPage(), 0u);
    EXPECT_EQ(pages.DeleteLastPage(), 0);
    EXPECT_EQ(pages.SetByteCountInLastPage(0), 0);
}

TEST(PageArray, Failures) {
    EXPECT_EQ(PositionOf([] { kau::PageArray pages(16, 0); }), kau::kErrPageSizeZero);
    kau::PageArray pages(16, 4);
    EXPECT_EQ(pages.CopyTo(nullptr), 0) << "nothing to copy";
    pages.AddPage();
    EXPECT_EQ(PositionOf([&] { pages.CopyTo(nullptr); }), kau::kErrCopyToNull);
}

// Elements of any width sort by their first four bytes, the rest is payload that must move along.
int CompareKeys(const void* a, const void* b) {
    uint32_t x, y;
    memcpy(&x, a, 4);
    memcpy(&y, b, 4);
    return (x > y) - (x < y);
}

int compares = 0;
int CountingCompare(const void* a, const void* b) {
    ++compares;
    return CompareKeys(a, b);
}

std::vector<unsigned char> Elements(const std::vector<uint32_t>& keys, unsigned long width) {
    std::vector<unsigned char> out(keys.size() * width);
    for (size_t i = 0; i < keys.size(); ++i) {
        memcpy(&out[i * width], &keys[i], 4);
        for (unsigned long j = 4; j < width; ++j)
            out[i * width + j] = static_cast<unsigned char>(keys[i] + j);
    }
    return out;
}

// Random keys over narrow and wide ranges, then ordered, reversed, organ-pipe and equal runs.
TEST(Sort, AgreesWithStdSort) {
    std::mt19937 rng(11);
    std::vector<std::function<uint32_t(uint32_t, uint32_t)>> shapes = {
        [&](uint32_t, uint32_t) { return rng() % 2; },
        [&](uint32_t, uint32_t) { return rng() % 1000; },
        [&](uint32_t, uint32_t) { return rng(); },
        [](uint32_t i, uint32_t) { return i; },
        [](uint32_t i, uint32_t n) { return n - i; },
        [](uint32_t i, uint32_t n) { return i < n / 2 ? i : n - i; },
        [](uint32_t, uint32_t) { return 5u; },
    };
    for (unsigned long width : {4ul, 5ul, 13ul})
        for (uint32_t count : {2u, 3u, 9u, 10u, 31u, 1000u, 50000u})
            for (size_t shape = 0; shape < shapes.size(); ++shape) {
                std::vector<uint32_t> keys(count);
                for (uint32_t i = 0; i < count; ++i)
                    keys[i] = shapes[shape](i, count);
                auto elements = Elements(keys, width);
                kau::Sort(elements.data(), count, width, CompareKeys);
                std::sort(keys.begin(), keys.end());
                EXPECT_EQ(elements, Elements(keys, width)) << width << " " << count << " " << shape;
            }
}

TEST(Sort, SmallArraysUseSelectionAndTrivialOnesNothing) {
    for (unsigned long count = 0; count <= 8; ++count) {
        std::vector<uint32_t> keys(count);
        for (uint32_t i = 0; i < count; ++i)
            keys[i] = (i * 5) % 8;
        auto elements = Elements(keys, 4);
        compares = 0;
        kau::Sort(elements.data(), count, 4, CountingCompare);
        EXPECT_EQ(compares, count < 2 ? 0 : int(count * (count - 1) / 2)) << count;
        std::sort(keys.begin(), keys.end());
        EXPECT_EQ(elements, Elements(keys, 4));
    }
    unsigned char one[4] = {9, 9, 9, 9};
    compares = 0;
    kau::Sort(one, 4, 0, CountingCompare);
    EXPECT_EQ(compares, 0);
}

}  // namespace
