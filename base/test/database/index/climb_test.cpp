// climb_test.cpp: the loop that works up a tree: the order of its steps and frames, what a failure
// skips, and its end when the way up has no end.

#include "database/index/tree/climb.h"

#include "database/block.h"
#include "support/armed_fault.h"
#include "support/tree_test.h"

namespace {

std::string sOrder; // what ran, one letter each

NimBool Again(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo*)
{
    sOrder += 's';
    return climb.Next(Again, pNode, position, nullptr);
}
NimBool Last(IndxClimb&, uint8_t*, int32_t, const IndxKeyInfo*)
{
    sOrder += 'l';
    return TRUE;
}
NimBool Fails(IndxClimb&, uint8_t*, int32_t, const IndxKeyInfo*)
{
    sOrder += 'f';
    return FALSE;
}
NimBool First(IndxClimb&, uint8_t*, const IndxKeyInfo*, NimBool bResult)
{
    sOrder += bResult ? '1' : '-';
    return bResult;
}
NimBool Second(IndxClimb&, uint8_t*, const IndxKeyInfo*, NimBool bResult)
{
    sOrder += bResult ? '2' : '=';
    return bResult;
}
NimBool GoesOn(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo*, NimBool bResult)
{
    sOrder += 'g';
    return bResult && climb.Next(Last, pNode, 0, nullptr);
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
    IndxClimb climb(index_->cursor(), 1);
    ASSERT_TRUE(climb.Push(First, pNode_, nullptr));
    ASSERT_TRUE(climb.Push(GoesOn, pNode_, nullptr));
    ASSERT_TRUE(climb.Push(Second, pNode_, nullptr));
    ASSERT_TRUE(climb.Next(Last, pNode_, 0, nullptr));
    EXPECT_EQ(climb.Run(TRUE), 1u);
    EXPECT_EQ(sOrder, "l2gl1");
}

TEST_F(Climb, AFailureSkipsTheNextStepAndIsToldToEveryFrame)
{
    {
        IndxClimb climb(index_->cursor(), 1);
        climb.Push(First, pNode_, nullptr);
        climb.Push(Second, pNode_, nullptr);
        climb.Next(Last, pNode_, 0, nullptr);
        EXPECT_EQ(climb.Run(FALSE), 0u);
        EXPECT_EQ(sOrder, "=-");
    }
    sOrder.clear();
    IndxClimb climb(index_->cursor(), 1);
    climb.Push(First, pNode_, nullptr);
    climb.Next(Fails, pNode_, 0, nullptr);
    EXPECT_EQ(climb.Run(TRUE), 0u);
    EXPECT_EQ(sOrder, "f-");
}

TEST_F(Climb, AWayUpWithoutAnEndIsDamage)
{
    for (const uint32_t levels : {1u, 10u}) {
        sOrder.clear();
        IndxSetError(0);
        TraceRecorder trace;
        IndxClimb climb(index_->cursor(), levels);
        climb.Push(First, pNode_, nullptr);
        ASSERT_TRUE(climb.Next(Again, pNode_, 0, nullptr));
        EXPECT_EQ(climb.Run(TRUE), 0u);
        EXPECT_EQ(sOrder.back(), '-');
        EXPECT_EQ(sOrder.size(), 64u * (levels + 1) + 1);
        EXPECT_EQ(IndxError(), 13u);
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Cannot use node 0 of field 'F0' of table 'Fixture'"))
            << trace.dump();
    }
}

TEST_F(Climb, KeysAreGivenBackWhetherTheyWereUsedOrNot)
{
    const auto NewKey = [&] { return index_->MakeKeyInfo(1, TextKey("key")); };
    const uint32_t before = ObjLiveCount(INDX_KEY_INFO_MAGIC);
    {
        IndxClimb climb(index_->cursor(), 1);
        for (int i = 0; i < 40; ++i) // more than it has room for at first
            ASSERT_TRUE(climb.Push(First, pNode_, NewKey()));
        climb.Next(Last, pNode_, 0, NewKey());
        EXPECT_EQ(climb.Run(TRUE), 1u);
        EXPECT_EQ(sOrder, "l" + std::string(40, '1'));
    }
    EXPECT_EQ(ObjLiveCount(INDX_KEY_INFO_MAGIC), before);
    {
        IndxClimb climb(index_->cursor(), 1);
        climb.Push(First, pNode_, NewKey());
        climb.Next(Last, pNode_, 0, NewKey()); // never run
    }
    EXPECT_EQ(ObjLiveCount(INDX_KEY_INFO_MAGIC), before);
    {
        IndxClimb climb(index_->cursor(), 1);
        IndxKeyInfo* pKey = NewKey();
        const ArmedFault fault(FAULT_ALLOC);
        EXPECT_FALSE(climb.Push(First, pNode_, pKey));
    }
    EXPECT_EQ(ObjLiveCount(INDX_KEY_INFO_MAGIC), before);
}

} // namespace
