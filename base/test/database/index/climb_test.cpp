// climb_test.cpp: the loop that works up a tree: the order of its steps and frames, what a failure
// skips, and its end when the way up has no end.

#include "database/index/tree/climb.h"

#include <algorithm>
#include <tuple>

#include "database/block.h"
#include "support/armed_fault.h"
#include "support/tree_test.h"

namespace {

std::string sOrder; // what ran, one letter each

bool Again(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo*)
{
    sOrder += 's';
    return climb.Next(Again, pNode, position, nullptr);
}
bool Last(IndxClimb&, uint8_t*, int32_t, const IndxKeyInfo*)
{
    sOrder += 'l';
    return true;
}
bool Fails(IndxClimb&, uint8_t*, int32_t, const IndxKeyInfo*)
{
    sOrder += 'f';
    return false;
}
bool First(IndxClimb&, uint8_t*, const IndxKeyInfo*, bool bResult)
{
    sOrder += bResult ? '1' : '-';
    return bResult;
}
bool Second(IndxClimb&, uint8_t*, const IndxKeyInfo*, bool bResult)
{
    sOrder += bResult ? '2' : '=';
    return bResult;
}
bool GoesOn(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo*, bool bResult)
{
    sOrder += 'g';
    return bResult && climb.Next(Last, pNode, 0, nullptr);
}

int32_t sLevels = 0;
// Climbs on from a level, whose number stands for the position.
bool Enters(IndxClimb& climb, uint8_t* pNode, int32_t level, const IndxKeyInfo*)
{
    sOrder += 'e';
    return level == sLevels || climb.Next(Enters, pNode, level + 1, nullptr);
}
bool EntersAbove(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey, bool bResult)
{
    const auto level = static_cast<int32_t>(pKey->recordId);
    return bResult && (level == sLevels || climb.Next(Enters, pNode, level + 1, nullptr));
}
// As a level that has to wait for those above does: they first, then up again from here.
bool Rekeys(IndxClimb& climb, uint8_t* pNode, int32_t level, const IndxKeyInfo*)
{
    sOrder += 'r';
    IndxKeyInfo* pKey = nullptr;
    return IndxNewKeyInfo(&pKey, 0, static_cast<uint32_t>(level)) &&
           climb.Push(EntersAbove, pNode, pKey) &&
           (level == sLevels || climb.Next(Rekeys, pNode, level + 1, nullptr));
}
bool RaisesTheTree(IndxClimb& climb, uint8_t* pNode, int32_t, const IndxKeyInfo*)
{
    sOrder += 'r';
    ++climb.Cursor()->oField->levels;
    return climb.Next(Last, pNode, 0, nullptr);
}
bool RunsAgain(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo*, bool bResult)
{
    sOrder += 'a';
    return bResult && climb.Push(RunsAgain, pNode, nullptr) && climb.Next(Last, pNode, 0, nullptr);
}

class Climb : public TreeTest {
  protected:
    void SetUp() override
    {
        TreeTest::SetUp();
        sOrder.clear();
        index_ = std::make_unique<IndexFixture>(path(), std::vector<IndexSpec>{{INDX_KEY_TEXT}});
        index_->Add(1, TextKey("one"));
        IndxGetNode(&pNode_, index_->cursor(), 0);
    }
    void TearDown() override
    {
        index_.reset();
        TreeTest::TearDown();
    }
    std::unique_ptr<IndexFixture> index_;
    uint8_t* pNode_ = nullptr;
};

TEST_F(Climb, FramesRunLastInFirstOutOnceNoStepIsLeft)
{
    IndxClimb climb(index_->cursor(), 2);
    ASSERT_TRUE(climb.Push(First, pNode_, nullptr));
    ASSERT_TRUE(climb.Push(GoesOn, pNode_, nullptr));
    ASSERT_TRUE(climb.Push(Second, pNode_, nullptr));
    ASSERT_TRUE(climb.Next(Last, pNode_, 0, nullptr));
    EXPECT_EQ(climb.Run(true), true);
    EXPECT_EQ(sOrder, "l2gl1");
}

TEST_F(Climb, AFailureSkipsTheNextStepAndIsToldToEveryFrame)
{
    {
        IndxClimb climb(index_->cursor(), 2);
        std::ignore = climb.Push(First, pNode_, nullptr);
        std::ignore = climb.Push(Second, pNode_, nullptr);
        std::ignore = climb.Next(Last, pNode_, 0, nullptr);
        EXPECT_EQ(climb.Run(false), false);
        EXPECT_EQ(sOrder, "=-");
    }
    sOrder.clear();
    IndxClimb climb(index_->cursor(), 2);
    std::ignore = climb.Push(First, pNode_, nullptr);
    std::ignore = climb.Next(Fails, pNode_, 0, nullptr);
    EXPECT_EQ(climb.Run(true), false);
    EXPECT_EQ(sOrder, "f-");
}

// A parent link that leads above the root closes a ring: it ends at the height of the tree.
TEST_F(Climb, AWayUpThatIsHigherThanTheTreeIsDamage)
{
    for (const uint32_t levels : {1u, 10u, 1000u}) {
        sOrder.clear();
        IndxSetError(0);
        TraceRecorder trace;
        IndxClimb climb(index_->cursor(), levels);
        ASSERT_TRUE(climb.Push(First, pNode_, nullptr));
        EXPECT_EQ(climb.Next(Again, pNode_, 0, nullptr), levels > 1);
        EXPECT_FALSE(climb.Run(levels > 1));
        EXPECT_EQ(sOrder, std::string(levels - 1, 's') + "-");
        EXPECT_EQ(IndxError(), 13u);
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Cannot use node 0 of field 'F0' of table 'Fixture'"))
            << trace.dump();
    }
}

// A root that is put on top on the way makes the tree a level higher.
TEST_F(Climb, ANewRootIsALevelMore)
{
    IndxClimb climb(index_->cursor(), 2);
    ASSERT_TRUE(climb.Push(First, pNode_, nullptr));
    ASSERT_TRUE(climb.Next(RaisesTheTree, pNode_, 0, nullptr));
    EXPECT_TRUE(climb.Run(true));
    EXPECT_EQ(sOrder, "rl1");
    --index_->field()->levels;
}

// Every level may send the climb up to the top once more: that is what a new lowest key does that
// fits into none of many full parents. The steps grow with the square of the levels.
TEST_F(Climb, EveryLevelMayBeClimbedOnceForEveryLevel)
{
    for (const int32_t levels : {3, 135, 400}) {
        sOrder.clear();
        IndxClimb climb(index_->cursor(), static_cast<uint32_t>(levels));
        sLevels = levels;
        EXPECT_TRUE(climb.Run(climb.Next(Rekeys, pNode_, 2, nullptr))) << levels;
        EXPECT_EQ(std::count(sOrder.begin(), sOrder.end(), 'r'), levels - 1);
        const auto enters = (levels - 2) * (levels - 1) / 2;
        EXPECT_EQ(std::count(sOrder.begin(), sOrder.end(), 'e'), enters);
    }
}

// Frames that send the climb up again and again, from below, end by their number.
TEST_F(Climb, AWayUpWithoutAnEndIsDamage)
{
    TraceRecorder trace;
    IndxClimb climb(index_->cursor(), 2);
    ASSERT_TRUE(climb.Push(RunsAgain, pNode_, nullptr));
    EXPECT_FALSE(climb.Run(true));
    EXPECT_EQ(std::count(sOrder.begin(), sOrder.end(), 'l'), 16 * 10 * 10);
    EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
}

TEST_F(Climb, KeysAreGivenBackWhetherTheyWereUsedOrNot)
{
    const auto NewKey = [&] { return index_->MakeKeyInfo(1, TextKey("key")); };
    const uint32_t before = ObjLiveCount(INDX_KEY_INFO_MAGIC);
    {
        IndxClimb climb(index_->cursor(), 2);
        for (int i = 0; i < 40; ++i) // more than it has room for at first
            ASSERT_TRUE(climb.Push(First, pNode_, NewKey()));
        std::ignore = climb.Next(Last, pNode_, 0, NewKey());
        EXPECT_EQ(climb.Run(true), true);
        EXPECT_EQ(sOrder, "l" + std::string(40, '1'));
    }
    EXPECT_EQ(ObjLiveCount(INDX_KEY_INFO_MAGIC), before);
    {
        IndxClimb climb(index_->cursor(), 2);
        std::ignore = climb.Push(First, pNode_, NewKey());
        std::ignore = climb.Next(Last, pNode_, 0, NewKey()); // never run
    }
    EXPECT_EQ(ObjLiveCount(INDX_KEY_INFO_MAGIC), before);
    {
        IndxClimb climb(index_->cursor(), 2);
        IndxKeyInfo* pKey = NewKey();
        const ArmedFault fault(FAULT_ALLOC);
        EXPECT_FALSE(climb.Push(First, pNode_, pKey));
    }
    EXPECT_EQ(ObjLiveCount(INDX_KEY_INFO_MAGIC), before);
}

} // namespace
