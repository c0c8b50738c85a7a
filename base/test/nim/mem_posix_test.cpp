// mem_posix_test.cpp: the pools at the end of memory. Not for sanitizers, whose own heap ends the
// program there.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "mempool.h"
#include "nim/fault.h"
#include "nim/mem.h"
#include "support/system_calls.h"

namespace {

bool PassesThrough()
{
    MemTrim();
    void* p = MemAllocateFromPool(64, MemGetDefaultPoolId());
    MemFreeInternal(&p);
    return MemWaitingBytes() == 0;
}

} // namespace

TEST(MemPosix, AnAllocationThatTheHeapRefusesGivesNullAndCountsNothing)
{
    const uint32_t count = MemLiveCount();
    const uint64_t bytes = MemLiveBytes();
    void* cleared;
    void* uncleared;
    {
        Limited limit(RLIMIT_AS, AddressesInUse());
        cleared = MemAllocateFromPool(0xFFFFFFFF, MemGetDefaultPoolId());
        uncleared = MemAllocateUncleared(0xFFFFFFFF, MemGetDefaultPoolId());
    }
    EXPECT_EQ(cleared, nullptr);
    EXPECT_EQ(uncleared, nullptr);
    EXPECT_EQ(MemLiveCount(), count);
    EXPECT_EQ(MemLiveBytes(), bytes);
}

TEST(MemPosix, WaitingPiecesGoBeforeAnAllocationFails)
{
    if (PassesThrough())
        GTEST_SKIP() << "memory passes through to the heap";
    // A few pieces of one class wait, each longer than one of the class below.
    constexpr uint32_t WAITING = 65664;
    constexpr uint32_t WANTED = 57472;
    constexpr uint32_t AHEAD = 16; // of a body; together what the heap is asked for
    MemTrim();
    std::vector<void*> pieces(10);
    for (void*& p : pieces)
        p = MemAllocateUncleared(WAITING, MemGetDefaultPoolId());
    for (void*& p : pieces)
        MemFreeInternal(&p);
    ASSERT_EQ(MemWaitingBytes(), 10u * WAITING);

    // All that the heap has left of the wanted length goes first.
    std::vector<void*> taken;
    taken.reserve(1 << 20);
    void* cleared;
    void* uncleared;
    uint64_t waiting;
    {
        Limited limit(RLIMIT_AS, AddressesInUse());
        while (void* p = malloc(AHEAD + WANTED))
            taken.push_back(p);
        uncleared = MemAllocateUncleared(WANTED, MemGetDefaultPoolId());
        waiting = MemWaitingBytes();
        cleared = MemAllocateFromPool(WANTED, MemGetDefaultPoolId());
    }
    EXPECT_NE(uncleared, nullptr);
    EXPECT_EQ(waiting, 0u);
    EXPECT_NE(cleared, nullptr);
    MemFreeInternal(&uncleared);
    MemFreeInternal(&cleared);
    for (void* p : taken)
        free(p);
    MemTrim();
}
