// fault_test.cpp: the rules themselves, through the hooks that the services call.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nim/fault.h"
#include "nim/mem.h"

namespace {

class Fault : public testing::Test {
  protected:
    void SetUp() override { Clean(); }
    void TearDown() override
    {
        Clean();
        FileSysSetObserver(nullptr, nullptr);
    }

    static void Clean()
    {
        FaultDisarmAll();
        FaultResetCalls();
        FaultStopCalls();
    }
    static uint32_t
    Arm(uint32_t point, const char* part, uint32_t nth, uint32_t times, uint32_t mode = FAULT_FAIL,
        uint32_t count = 0)
    {
        FaultRule rule = {point, part, nth, times, mode, count};
        return FaultArm(&rule);
    }
    // 'x' for each of n calls that was struck, '.' for the others.
    static std::string Calls(uint32_t point, const char* path, int n)
    {
        std::string result;
        for (int i = 0; i < n; ++i)
            result += FaultFails(point, path) ? 'x' : '.';
        return result;
    }
};

} // namespace

TEST_F(Fault, NothingStrikesWhileNothingIsArmed)
{
    EXPECT_FALSE(gFaultActive);
    for (uint32_t point = 1; point < FAULT_POINTS; ++point)
        EXPECT_EQ(Calls(point, "path", 3), "...");
}

TEST_F(Fault, StrikesTheNthCallAsOftenAsAsked)
{
    uint32_t id = Arm(FAULT_READ, nullptr, 3, 2);
    EXPECT_TRUE(gFaultActive);
    EXPECT_EQ(Calls(FAULT_READ, "a", 7), "..xx...");
    EXPECT_EQ(FaultHits(id), 2u);
    FaultDisarmAll();
    EXPECT_FALSE(gFaultActive);
    EXPECT_EQ(Calls(FAULT_READ, "a", 2), "..");
    EXPECT_EQ(FaultHits(id), 2u) << "hits stay to be asked for";
}

TEST_F(Fault, TimesZeroStrikesForEver)
{
    uint32_t id = Arm(FAULT_WRITE, nullptr, 2, 0);
    EXPECT_EQ(Calls(FAULT_WRITE, "a", 6), ".xxxxx");
    EXPECT_EQ(FaultHits(id), 5u);
}

TEST_F(Fault, NthZeroIsTheNextCall)
{
    Arm(FAULT_SEEK, nullptr, 0, 1);
    EXPECT_EQ(Calls(FAULT_SEEK, "a", 3), "x..");
}

TEST_F(Fault, StrikesItsPointOnly)
{
    for (uint32_t armed = 1; armed < FAULT_POINTS; ++armed) {
        FaultDisarmAll();
        ASSERT_NE(Arm(armed, nullptr, 1, 0), 0u);
        for (uint32_t point = 1; point < FAULT_POINTS; ++point)
            EXPECT_EQ(Calls(point, "a", 1), point == armed ? "x" : ".");
    }
}

TEST_F(Fault, CountsCallsOfItsPathOnly)
{
    std::string part = "Records";
    uint32_t id = Arm(FAULT_WRITE, part.c_str(), 2, 1);
    part = "changed"; // the rule has a copy
    EXPECT_EQ(Calls(FAULT_WRITE, "/db/Indexes/t", 5), ".....");
    EXPECT_EQ(Calls(FAULT_WRITE, nullptr, 5), ".....");
    EXPECT_EQ(Calls(FAULT_WRITE, "/db/Records/t", 1), ".");
    EXPECT_EQ(Calls(FAULT_WRITE, "/db/Indexes/t", 1), ".");
    EXPECT_EQ(Calls(FAULT_WRITE, "/db/Records/t", 3), "x..");
    EXPECT_EQ(FaultHits(id), 1u);
}

TEST_F(Fault, HandsOutModeAndCount)
{
    struct {
        uint32_t mode;
        uint32_t count;
    } cases[] = {
        {FAULT_FAIL, 0}, {FAULT_FAIL_AFTER, 100}, {FAULT_FAIL_FULL, 0}, {FAULT_SHORT, 0xFFFFFFFF}};
    for (const auto& c : cases) {
        FaultDisarmAll();
        ASSERT_NE(Arm(FAULT_READ, nullptr, 1, 1, c.mode, c.count), 0u);
        FaultStrike strike = {77, 77};
        ASSERT_TRUE(FaultStrikes(FAULT_READ, "a", &strike));
        EXPECT_EQ(strike.mode, c.mode);
        EXPECT_EQ(strike.count, c.count);
        strike = {77, 77};
        EXPECT_FALSE(FaultStrikes(FAULT_READ, "a", &strike));
        EXPECT_EQ(strike.mode, 77u) << "untouched where nothing strikes";
    }
}

TEST_F(Fault, OfSeveralRulesTheFirstStrikesAndAllCount)
{
    uint32_t first = Arm(FAULT_READ, nullptr, 2, 1, FAULT_FAIL_AFTER, 1);
    uint32_t second = Arm(FAULT_READ, nullptr, 2, 2, FAULT_SHORT, 2);
    FaultStrike strike;
    EXPECT_FALSE(FaultStrikes(FAULT_READ, "a", &strike));
    ASSERT_TRUE(FaultStrikes(FAULT_READ, "a", &strike));
    EXPECT_EQ(strike.count, 1u);
    ASSERT_TRUE(FaultStrikes(FAULT_READ, "a", &strike));
    EXPECT_EQ(strike.count, 2u);
    EXPECT_FALSE(FaultStrikes(FAULT_READ, "a", &strike));
    EXPECT_EQ(FaultHits(first), 1u);
    EXPECT_EQ(FaultHits(second), 1u);
}

TEST_F(Fault, RefusesWhatItDoesNotKnowAndTheSeventeenthRule)
{
    EXPECT_EQ(FaultArm(nullptr), 0u);
    EXPECT_EQ(Arm(0, nullptr, 1, 1), 0u);
    EXPECT_EQ(Arm(FAULT_POINTS, nullptr, 1, 1), 0u);
    EXPECT_EQ(Arm(FAULT_READ, nullptr, 1, 1, FAULT_SHORT + 1), 0u);
    EXPECT_EQ(Arm(FAULT_READ, std::string(512, 'p').c_str(), 1, 1), 0u);
    EXPECT_FALSE(gFaultActive);
    for (uint32_t i = 1; i <= 16; ++i)
        EXPECT_EQ(Arm(FAULT_READ, "elsewhere", 1, 1), i);
    EXPECT_EQ(Arm(FAULT_READ, nullptr, 1, 1), 0u);
    EXPECT_EQ(Calls(FAULT_READ, "a", 1), ".");
    EXPECT_EQ(FaultHits(0), 0u);
    EXPECT_EQ(FaultHits(17), 0u);
    FaultDisarmAll();
    EXPECT_EQ(Arm(FAULT_READ, nullptr, 1, 1), 1u);
    EXPECT_EQ(FaultHits(1), 0u) << "a new rule begins without hits";
}

TEST_F(Fault, CountsCallsBetweenResetAndStop)
{
    Calls(FAULT_READ, "before", 3);
    FaultResetCalls();
    EXPECT_TRUE(gFaultActive);
    Calls(FAULT_READ, "/db/Indexes/a", 2);
    Calls(FAULT_READ, "/db/Indexes/b", 3);
    Calls(FAULT_READ, "/db/Records/a", 4);
    Calls(FAULT_WRITE, "/db/Records/a", 5);
    Calls(FAULT_READ, nullptr, 6);
    EXPECT_EQ(FaultCalls(FAULT_READ, nullptr), 15u);
    EXPECT_EQ(FaultCalls(FAULT_READ, "Indexes"), 5u);
    EXPECT_EQ(FaultCalls(FAULT_READ, "/a"), 6u);
    EXPECT_EQ(FaultCalls(FAULT_READ, "before"), 0u);
    EXPECT_EQ(FaultCalls(FAULT_WRITE, "Records"), 5u);
    EXPECT_EQ(FaultCalls(FAULT_WRITE, "Indexes"), 0u);
    EXPECT_EQ(FaultCalls(FAULT_OPEN, nullptr), 0u);
    EXPECT_EQ(FaultCalls(0, nullptr), 0u);
    EXPECT_EQ(FaultCalls(FAULT_POINTS, nullptr), 0u);
    FaultStopCalls();
    EXPECT_FALSE(gFaultActive);
    Calls(FAULT_READ, "/db/Indexes/a", 2);
    EXPECT_EQ(FaultCalls(FAULT_READ, nullptr), 15u) << "stays after the stop";
    FaultResetCalls();
    EXPECT_EQ(FaultCalls(FAULT_READ, nullptr), 0u);
}

TEST_F(Fault, CountsStruckCallsTooAndOutlivesTheRules)
{
    FaultResetCalls();
    Arm(FAULT_READ, nullptr, 1, 1);
    EXPECT_EQ(Calls(FAULT_READ, "a", 2), "x.");
    FaultDisarmAll();
    EXPECT_TRUE(gFaultActive) << "still counting";
    Calls(FAULT_READ, "a", 1);
    EXPECT_EQ(FaultCalls(FAULT_READ, "a"), 3u);
    Arm(FAULT_READ, nullptr, 1, 1);
    FaultStopCalls();
    EXPECT_TRUE(gFaultActive) << "still armed";
    EXPECT_EQ(Calls(FAULT_READ, "a", 1), "x");
    EXPECT_EQ(FaultCalls(FAULT_READ, "a"), 3u);
}

TEST_F(Fault, TotalsHoldWhenThereAreMorePathsThanItRemembers)
{
    FaultResetCalls();
    for (int i = 0; i < 2000; ++i)
        FaultFails(FAULT_OPEN, ("path " + std::to_string(i) + ".").c_str());
    EXPECT_EQ(FaultCalls(FAULT_OPEN, nullptr), 2000u);
    EXPECT_EQ(FaultCalls(FAULT_OPEN, "path 7."), 1u);
}

TEST_F(Fault, OfALongPathTheEndIsRemembered)
{
    FaultResetCalls();
    FaultFails(FAULT_OPEN, ("/start/" + std::string(600, 'd') + "/end").c_str());
    EXPECT_EQ(FaultCalls(FAULT_OPEN, "d/end"), 1u);
    EXPECT_EQ(FaultCalls(FAULT_OPEN, "start"), 0u);
}

TEST_F(Fault, AllocationsAreCountedAndStruck)
{
    FaultResetCalls();
    void* p = MemAllocateFromPool(8, MemGetDefaultPoolId());
    void* q = MemAllocateUncleared(8, MemGetDefaultPoolId());
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 2u);
    MemFree(p);
    MemFree(q);
    Arm(FAULT_ALLOC, nullptr, 1, 1);
    EXPECT_EQ(MemAllocateFromPool(8, MemGetDefaultPoolId()), nullptr);
    p = MemAllocateFromPool(8, MemGetDefaultPoolId());
    EXPECT_NE(p, nullptr);
    MemFree(p);
}

TEST_F(Fault, TheObserverGetsEveryOperationUntilItIsTakenAway)
{
    std::vector<std::string> seen;
    FileSysSetObserver(
        [](void* context, uint32_t op, const char* path, int64_t offset, uint32_t size,
           uint32_t moved) {
            static_cast<std::vector<std::string>*>(context)->push_back(
                std::to_string(op) + " " + path + " " + std::to_string(offset) + " " +
                std::to_string(size) + " " + std::to_string(moved));
        },
        &seen);
    FileSysObserve(FILE_OP_OPEN, "a", 0, 0, 0);
    FileSysObserve(FILE_OP_WRITE, "b", int64_t{1} << 33, 16384, 100);
    FileSysSetObserver(nullptr, nullptr);
    FileSysObserve(FILE_OP_CLOSE, "a", 0, 0, 0);
    EXPECT_EQ(seen, (std::vector<std::string>{"1 a 0 0 0", "4 b 8589934592 16384 100"}));
}
