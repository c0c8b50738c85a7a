// quirks_cursors_test.cpp: what finds and moves of cursors do on purpose and keep doing, oddities
// included.

#include "support/armed_fault.h"
#include "support/record_objects.h"
#include "support/trace_recorder.h"
#include "tree_scene.h"

namespace {

class CursorQuirk : public testing::Test {
  protected:
    // An index of these values under the ids 1, 2, 3 ..., and a second cursor on the one of `id`.
    IndxCursor* On(const std::vector<int32_t>& values, uint32_t id)
    {
        scene_.Integers(values);
        IndxCursor* pCursor = tree().OpenCursor();
        EXPECT_EQ(tree().Find(pCursor, id, NumberKey(values[id - 1])), 6);
        return pCursor;
    }
    IndexFixture& tree() { return *scene_.tree; }
    void Remove(uint32_t id, int32_t value) { EXPECT_TRUE(tree().Remove(id, NumberKey(value))); }
    // Where a cursor stands.
    struct Place {
        int32_t status;
        uint32_t tNode;
        int32_t position;
        uint32_t id;
        bool operator==(const Place&) const = default;
    };
    static Place PlaceOf(const IndxCursor* pCursor)
    {
        return {pCursor->status, pCursor->tNode, pCursor->position, CursorId(pCursor)};
    }

    TraceRecorder trace_;
    TreeScene scene_;
};

// ---- finding
// -------------------------------------------------------------------------------------

TEST_F(CursorQuirk, AKeyThatCannotBeUsedDoesNotMoveTheCursor)
{
    IndxCursor* pCursor = On({5, 6}, 2);
    const Place place = PlaceOf(pCursor);
    EXPECT_EQ(IndxFindKey(pCursor, 1, nullptr), 12);
    EXPECT_EQ(PlaceOf(pCursor), place);

    tree().field()->keyType = INDX_KEY_TEXT;
    Held text(ObjStringNew(""));
    EXPECT_EQ(IndxFindKey(pCursor, 1, text.get()), 1);
    EXPECT_EQ(PlaceOf(pCursor), place);
    Held longText(ObjStringNew(std::string(8168, 'x').c_str()));
    EXPECT_EQ(IndxFindKey(pCursor, 1, longText.get()), 2);
    EXPECT_EQ(PlaceOf(pCursor), place);
    tree().field()->keyType = 99;
    EXPECT_EQ(IndxFindKey(pCursor, 1, nullptr), 5);
    EXPECT_EQ(PlaceOf(pCursor), place);
    tree().field()->keyType = INDX_KEY_INTEGER;
}

TEST_F(CursorQuirk, OnAKeyWithAnotherCodeThanSixOrSevenTheCursorHoldsNone)
{
    IndxCursor* pCursor = On({5, 6}, 1);
    EXPECT_EQ(IndxFindKey(pCursor, 1, nullptr), 12);
    EXPECT_EQ(IndxNextKey(pCursor), 12);
    EXPECT_EQ(pCursor->status, INDX_ON_KEY);
    EXPECT_EQ(pCursor->position, 1);
    EXPECT_EQ(pCursor->oKey, nullptr);
}

TEST_F(CursorQuirk, AMissPutsTheCursorOnTheNextKey)
{
    IndxCursor* pCursor = On({10, 20, 30}, 1);
    EXPECT_EQ(tree().Find(pCursor, 1, NumberKey(15)), 7);
    EXPECT_EQ(CursorId(pCursor), 2u);
    EXPECT_EQ(tree().Find(pCursor, 1, NumberKey(40)), 7);
    EXPECT_EQ(pCursor->status, INDX_AT_END);
}

TEST_F(CursorQuirk, AnyRecordWithTheValueIsFoundWhereTheNextLeafBeginsToo)
{
    std::vector<int32_t> values(FULL, 5);
    values.push_back(6);
    scene_.Integers(values);                    // a full leaf, and a leaf that begins with the 6
    EXPECT_EQ(tree().Find(0, NumberKey(6)), 6); // looked for in the first leaf, behind its end
    EXPECT_EQ(CursorId(tree().cursor()), FULL + 1u);
    EXPECT_EQ(tree().cursor()->position, 0);
    EXPECT_EQ(tree().Find(1, NumberKey(6)), 7); // that record has another value
    EXPECT_EQ(CursorId(tree().cursor()), FULL + 1u);
}

// ---- the ends
// ------------------------------------------------------------------------------------

TEST_F(CursorQuirk, OnAnEmptyIndexFirstLandsAtTheEndAndLastAtTheBeginning)
{
    scene_.Integers({});
    EXPECT_EQ(IndxFirstKey(tree().cursor()), 8);
    EXPECT_EQ(tree().cursor()->status, INDX_AT_END);
    EXPECT_EQ(IndxLastKey(tree().cursor()), 8);
    EXPECT_EQ(tree().cursor()->status, INDX_AT_BEGINNING);
}

TEST_F(CursorQuirk, NextStaysAtTheEndAndPreviousAtTheBeginning)
{
    IndxCursor* pCursor = On({5}, 1);
    IndxCursorEOI(pCursor);
    EXPECT_EQ(IndxNextKey(pCursor), 8);
    EXPECT_EQ(pCursor->status, INDX_AT_END);
    IndxCursorBOI(pCursor);
    EXPECT_EQ(IndxPreviousKey(pCursor), 8);
    EXPECT_EQ(pCursor->status, INDX_AT_BEGINNING);
}

TEST_F(CursorQuirk, ChangesLeaveCursorsAtTheEndsTrusted)
{
    scene_.Integers({5});
    IndxCursor* pFirst = tree().OpenCursor();
    IndxCursor* pLast = tree().OpenCursor();
    IndxCursorBOI(pFirst);
    IndxCursorEOI(pLast);
    EXPECT_TRUE(tree().Add(2, NumberKey(6)));
    EXPECT_EQ(pFirst->status, INDX_AT_BEGINNING);
    EXPECT_EQ(pLast->status, INDX_AT_END);
}

TEST_F(CursorQuirk, AChangeMakesItsOwnCursorUntrustedToo)
{
    scene_.Integers({5});
    EXPECT_EQ(IndxFirstKey(tree().cursor()), 6);
    EXPECT_TRUE(tree().Add(2, NumberKey(6)));
    EXPECT_EQ(tree().cursor()->status, INDX_UNTRUSTED);
}

// ---- steps
// ---------------------------------------------------------------------------------------

TEST_F(CursorQuirk, AStepFromAKeyKeepsTheCodeOfTheOperationBefore)
{
    IndxCursor* pCursor = On({10, 20, 30}, 1);
    EXPECT_EQ(tree().Find(pCursor, 1, NumberKey(15)), 7);
    EXPECT_EQ(IndxNextKey(pCursor), 7); // on 30 all the same
    EXPECT_EQ(CursorId(pCursor), 3u);
    EXPECT_EQ(IndxPreviousKey(pCursor), 7);
    EXPECT_EQ(CursorId(pCursor), 2u);
}

TEST_F(CursorQuirk, TheFlagInTheTraceOfAMovedCursorIsCalledBFound)
{
    IndxCursor* pCursor = On({1, 2, 3}, 2);
    Remove(2, 2);
    trace_.clear();
    EXPECT_EQ(IndxNextKey(pCursor), 6);
    EXPECT_EQ(CursorId(pCursor), 3u);
    EXPECT_TRUE(trace_.has("Cursor was Untrusted, bFound = TRUE")); // the saved key was not
}

TEST_F(CursorQuirk, AnUntrustedCursorWhoseKeyIsThereStepsOn)
{
    IndxCursor* pCursor = On({1, 2, 3}, 2);
    EXPECT_TRUE(tree().Add(9, NumberKey(0)));
    trace_.clear();
    EXPECT_EQ(IndxNextKey(pCursor), 6);
    EXPECT_EQ(CursorId(pCursor), 3u);
    EXPECT_TRUE(trace_.has("Cursor was Untrusted, bFound = FALSE")); // it had not moved yet
}

TEST_F(CursorQuirk, PreviousStepsWhateverFindingAgainGave)
{
    IndxCursor* pCursor = On({1, 2, 3}, 2);
    Remove(2, 2); // finds 3 again, steps back from there
    EXPECT_EQ(IndxPreviousKey(pCursor), 7);
    EXPECT_EQ(CursorId(pCursor), 1u);

    IndxCursor* pLast = tree().OpenCursor();
    EXPECT_EQ(IndxLastKey(pLast), 6);
    Remove(3, 3); // finds the end
    EXPECT_EQ(IndxPreviousKey(pLast), 6);
    EXPECT_EQ(CursorId(pLast), 1u);
}

TEST_F(CursorQuirk, PreviousHasNoExitTrace)
{
    IndxCursor* pCursor = On({1, 2}, 2);
    trace_.clear();
    EXPECT_EQ(IndxPreviousKey(pCursor), 6);
    EXPECT_FALSE(trace_.hasPart("= IndxPreviousKey"));
    EXPECT_EQ(IndxNextKey(pCursor), 6);
    EXPECT_TRUE(trace_.has("6 = IndxNextKey"));
}

TEST_F(CursorQuirk, OnAnEmptiedIndexNextEndsAtTheEndAndPreviousAtTheBeginning)
{
    IndxCursor* pNext = On({1}, 1);
    IndxCursor* pPrevious = tree().OpenCursor();
    EXPECT_EQ(IndxFirstKey(pPrevious), 6);
    Remove(1, 1);
    EXPECT_EQ(IndxNextKey(pNext), 8);
    EXPECT_EQ(pNext->status, INDX_AT_END);
    EXPECT_EQ(IndxPreviousKey(pPrevious), 8);
    EXPECT_EQ(pPrevious->status, INDX_AT_BEGINNING);
}

TEST_F(CursorQuirk, CurrentReturnsTheCodeWithoutMoving)
{
    IndxCursor* pCursor = On({10, 20}, 1);
    EXPECT_EQ(tree().Find(pCursor, 1, NumberKey(15)), 7);
    const Place place = PlaceOf(pCursor);
    EXPECT_EQ(IndxCurrentKey(pCursor), 7);
    EXPECT_EQ(PlaceOf(pCursor), place);
}

TEST_F(CursorQuirk, AtTheEndsCurrentIsEightAndStays)
{
    IndxCursor* pCursor = On({10, 20}, 1);
    IndxCursorBOI(pCursor);
    EXPECT_EQ(IndxCurrentKey(pCursor), 8);
    EXPECT_EQ(pCursor->status, INDX_AT_BEGINNING);
    IndxCursorEOI(pCursor);
    EXPECT_TRUE(tree().Add(9, NumberKey(99)));
    EXPECT_EQ(IndxCurrentKey(pCursor), 8);
    EXPECT_EQ(pCursor->status, INDX_AT_END);
}

// ---- matching
// ------------------------------------------------------------------------------------

TEST_F(CursorQuirk, ACursorMovesOnThoughTheNextKeyDoesNotMatch)
{
    IndxCursor* pCursor = On({5, 5, 6}, 1);
    EXPECT_EQ(IndxNextMatchingKey(pCursor), 6);
    EXPECT_EQ(IndxNextMatchingKey(pCursor), 7);
    EXPECT_EQ(CursorId(pCursor), 3u);
}

TEST_F(CursorQuirk, AUniqueIndexAnswersMatchingWithoutMoving)
{
    scene_.Integers({5, 6}, true);
    EXPECT_EQ(IndxFirstKey(tree().cursor()), 6);
    EXPECT_EQ(IndxNextMatchingKey(tree().cursor()), 7);
    EXPECT_EQ(CursorId(tree().cursor()), 1u);
}

TEST_F(CursorQuirk, MatchingTakesAMissOfFindingAgainForTheMove)
{
    IndxCursor* pCursor = On({5, 5, 5}, 2);
    Remove(2, 5);
    EXPECT_EQ(IndxNextMatchingKey(pCursor), 6);
    EXPECT_EQ(CursorId(pCursor), 3u);
}

TEST_F(CursorQuirk, MatchingTakesAMissAtTheEndForTheMoveToo)
{
    IndxCursor* pCursor = On({5, 5}, 2);
    Remove(2, 5);
    trace_.clear();
    EXPECT_EQ(IndxNextMatchingKey(pCursor), 7); // there is no key to match
    EXPECT_EQ(pCursor->status, INDX_AT_END);
    EXPECT_TRUE(trace_.has("Cursor was Untrusted, bFound = TRUE"));
}

TEST_F(CursorQuirk, MatchingAfterAMissStepsWithoutComparingAndStaysAtSeven)
{
    IndxCursor* pCursor = On({5, 5, 5}, 1);
    EXPECT_EQ(tree().Find(pCursor, 1, NumberKey(4)), 7); // on the first 5
    EXPECT_EQ(IndxNextMatchingKey(pCursor), 7);
    EXPECT_EQ(CursorId(pCursor), 2u);
    EXPECT_EQ(tree().Find(pCursor, 2, NumberKey(5)), 6);
    EXPECT_EQ(IndxNextMatchingKey(pCursor), 6);
}

TEST_F(CursorQuirk, MatchingWithoutAKeyIsSeven)
{
    scene_.Integers({5, 5});
    IndxCursorBOI(tree().cursor());
    EXPECT_EQ(IndxNextMatchingKey(tree().cursor()), 7);
    EXPECT_EQ(tree().cursor()->status, INDX_AT_BEGINNING);
}

// ---- ids and damage
// ------------------------------------------------------------------------------

TEST_F(CursorQuirk, GettingTheIdReturnsZeroWhateverItDid)
{
    IndxCursor* pCursor = On({5, 6}, 2);
    uint32_t id = 77;
    EXPECT_EQ(IndxCursorGetId(&id, pCursor), 0u);
    EXPECT_EQ(id, 2u);
    IndxCursorEOI(pCursor);
    id = 77;
    EXPECT_EQ(IndxCursorGetId(&id, pCursor), 0u);
    EXPECT_EQ(IndxCursorGetId(&id, nullptr), 0u);
    EXPECT_EQ(id, 77u);
}

// The moves have no failure of their own: a node that cannot be had is no key in that direction.
TEST_F(CursorQuirk, ANodeThatCannotBeHadEndsAMoveAsTheEndOfTheIndexDoes)
{
    scene_.Integers({5, 6});
    IndxSetError(77);
    {
        const ArmedFault fault(FAULT_READ);
        EXPECT_EQ(IndxFirstKey(tree().cursor()), 8);
    }
    EXPECT_EQ(tree().cursor()->status, INDX_AT_END);
    EXPECT_EQ(IndxError(), 13u);
    {
        const ArmedFault fault(FAULT_READ);
        EXPECT_EQ(tree().Find(1, NumberKey(5)), 7);
    }
    EXPECT_EQ(tree().Find(1, NumberKey(5)), 6);
}

} // namespace
