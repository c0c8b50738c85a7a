// memdirect_test.cpp: pieces that pass straight through to the heap. The table of these pieces is
// the process's: where the pools pass everything through, it holds theirs as well.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "memdirect.h"
#include "mempool.h"
#include "nim/mem.h"
#include "support/seed.h"

#if defined(__linux__) && !defined(NIM_SANITIZE)
#include "support/system_calls.h"
#endif

namespace {

// More than the table holds at first, so that it grows several times.
constexpr uint32_t MANY = 5000;

void Free(void* body, uint32_t size)
{
    uint32_t told = ~size;
    ASSERT_TRUE(MemDirectFree(body, &told));
    ASSERT_EQ(told, size);
}

#if defined(__linux__) && !defined(NIM_SANITIZE)
// Whether the pools use the table, too.
bool PassesThrough()
{
    MemTrim();
    void* p = MemAllocateFromPool(64, MemGetDefaultPoolId());
    MemFreeInternal(&p);
    return MemWaitingBytes() == 0;
}
#endif

} // namespace

TEST(MemDirect, EveryPieceIsFoundAgainWithItsSizeHoweverManyThereAre)
{
    std::vector<uint8_t*> pieces;
    for (uint32_t i = 0; i < MANY; ++i) {
        const uint32_t size = i % 300;
        auto* piece = static_cast<uint8_t*>(MemDirectAllocate(size, i % 2));
        ASSERT_NE(piece, nullptr);
        for (uint32_t k = 0; i % 2 && k < size; ++k)
            ASSERT_EQ(piece[k], 0);
        memset(piece, static_cast<int>(i), size);
        pieces.push_back(piece);
    }
    EXPECT_EQ(std::set<uint8_t*>(pieces.begin(), pieces.end()).size(), MANY);
    for (uint32_t i = 0; i < MANY; ++i) {
        for (uint32_t k = 0; k < i % 300; ++k)
            ASSERT_EQ(pieces[i][k], static_cast<uint8_t>(i));
        Free(pieces[i], i % 300);
    }
    MemDirectTrim();
}

TEST(MemDirect, WhatIsNoLivePieceIsLeftAlone)
{
    char local[64] = "as it was";
    uint32_t size = 77;
    // With an empty table, where this is the only user of it, and with one that is not.
    MemDirectTrim();
    EXPECT_FALSE(MemDirectFree(local, &size));
    void* piece = MemDirectAllocate(10, false);
    EXPECT_FALSE(MemDirectFree(local, &size));
    EXPECT_FALSE(MemDirectFree(static_cast<char*>(piece) + 1, &size));
    EXPECT_EQ(size, 77u);
    EXPECT_STREQ(local, "as it was");
    Free(piece, 10);
    EXPECT_FALSE(MemDirectFree(piece, &size));
    MemDirectTrim();
}

TEST(MemDirect, FreeingInAnyOrderLosesNoPieceOfTheTable)
{
    std::mt19937_64 random(TestSeed());
    std::map<void*, uint32_t> live;
    std::vector<void*> order;
    for (int step = 0; step < 60000; ++step) {
        // Up to a table that is half full, and down to one that is nearly empty, again and again.
        const bool bGrow = step % 6000 < 3000;
        if (order.empty() || random() % 10 < (bGrow ? 8 : 2)) {
            const auto size = static_cast<uint32_t>(random() % 64);
            void* piece = MemDirectAllocate(size, false);
            ASSERT_NE(piece, nullptr);
            ASSERT_TRUE(live.emplace(piece, size).second);
            order.push_back(piece);
        } else {
            std::swap(order[random() % order.size()], order.back());
            const uint32_t size = live[order.back()];
            live.erase(order.back());
            Free(order.back(), size);
            order.pop_back();
        }
    }
    for (void* piece : order)
        Free(piece, live[piece]);
    MemDirectTrim();
}

TEST(MemDirect, TrimmingLeavesATableWithPiecesInIt)
{
    void* piece = MemDirectAllocate(24, true);
    MemDirectTrim();
    Free(piece, 24);
    MemDirectTrim();
    piece = MemDirectAllocate(25, true);
    Free(piece, 25);
    MemDirectTrim();
}

#if defined(__linux__) && !defined(NIM_SANITIZE)
// The sanitizers' own heap ends the program instead.
TEST(MemDirect, WithoutMemoryForThePieceThereIsNone)
{
    Limited limit(RLIMIT_AS, AddressesInUse());
    void* cleared = MemDirectAllocate(0xFFFFFFFF, true);
    void* uncleared = MemDirectAllocate(0xFFFFFFFF, false);
    EXPECT_EQ(cleared, nullptr);
    EXPECT_EQ(uncleared, nullptr);
}

TEST(MemDirect, WithoutMemoryForTheTableThereIsNoPieceAndNothingIsLost)
{
    if (PassesThrough())
        GTEST_SKIP() << "the table is in use, and may be large enough";
    MemDirectTrim();
    std::vector<void*> taken;
    taken.reserve(1 << 20);
    free(malloc(16)); // room for the piece itself
    void* piece;
    {
        Limited limit(RLIMIT_AS, AddressesInUse());
        while (void* p = malloc(8000)) // less than the table takes
            taken.push_back(p);
        piece = MemDirectAllocate(16, false);
    }
    for (void* p : taken)
        free(p);
    EXPECT_EQ(piece, nullptr);
    piece = MemDirectAllocate(16, false);
    ASSERT_NE(piece, nullptr);
    Free(piece, 16);
    MemDirectTrim();
}
#endif
