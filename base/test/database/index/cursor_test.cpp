// cursor_test.cpp: positions and moves, cursors whose key has gone, and cursors without a key.

#include "support/tree_test.h"

#include "support/armed_fault.h"

namespace {

class Cursor : public TreeTest {
  protected:
    // Records 1, 2, 3 ... with the values 10, 20, 30 ...
    static void Fill(IndexFixture& index, int count)
    {
        for (int i = 1; i <= count; ++i)
            ASSERT_TRUE(index.Insert(static_cast<uint32_t>(i), NumberKey(10 * i)));
        index.Update();
    }
};

// ---- the ends ----------------------------------------------------------------------------------

TEST_F(Cursor, OnAnEmptyIndexFirstAndNextEndAtTheEndLastAndPreviousAtTheBeginning)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    IndxCursor* c = index.cursor();
    EXPECT_EQ(IndxFirstKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_END);
    EXPECT_EQ(IndxLastKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_BEGINNING);
    EXPECT_EQ(IndxNextKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_END);
    EXPECT_EQ(IndxPreviousKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_BEGINNING);
    EXPECT_EQ(IndxPreviousKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_BEGINNING);
    EXPECT_EQ(c->oKey, nullptr);
}

TEST_F(Cursor, BeforeTheFirstKeyNextLandsOnItBehindTheLastPreviousDoes)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 3);
    IndxCursor* c = index.cursor();
    EXPECT_EQ(IndxCursorBOI(c), 1u);
    EXPECT_EQ(c->status, INDX_AT_BEGINNING);
    EXPECT_EQ(c->result, 8);
    EXPECT_EQ(IndxNextKey(c), 6);
    EXPECT_EQ(CursorId(c), 1u);
    EXPECT_EQ(IndxCursorEOI(c), 1u);
    EXPECT_EQ(c->status, INDX_AT_END);
    EXPECT_EQ(c->result, 8);
    EXPECT_EQ(c->oKey, nullptr);
    EXPECT_EQ(IndxPreviousKey(c), 6);
    EXPECT_EQ(CursorId(c), 3u);
}

TEST_F(Cursor, SteppingOverAnEndGivesCode8AndStaysThere)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2);
    IndxCursor* c = index.cursor();
    IndxLastKey(c);
    EXPECT_EQ(IndxNextKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_END);
    EXPECT_EQ(IndxNextKey(c), 8);
    EXPECT_EQ(IndxPreviousKey(c), 6);
    EXPECT_EQ(CursorId(c), 2u);
    EXPECT_EQ(IndxPreviousKey(c), 6);
    EXPECT_EQ(IndxPreviousKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_BEGINNING);
    EXPECT_EQ(IndxPreviousKey(c), 8);
    EXPECT_EQ(IndxNextKey(c), 6);
    EXPECT_EQ(CursorId(c), 1u);
}

TEST_F(Cursor, WalksCrossLeavesBothWays)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 3000);
    EXPECT_GE(CheckTable(index.table()).indexes[0].perLevel.back(), 5u);
    IndxCursor* c = index.cursor();
    uint32_t expected = 1;
    for (int32_t code = IndxFirstKey(c); code == 6; code = IndxNextKey(c))
        ASSERT_EQ(CursorId(c), expected++);
    EXPECT_EQ(expected, 3001u);
    for (int32_t code = IndxLastKey(c); code == 6; code = IndxPreviousKey(c))
        ASSERT_EQ(CursorId(c), --expected);
    EXPECT_EQ(expected, 1u);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Cursor, AStepKeepsTheCodeThatTheFindLeft)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 4);
    EXPECT_EQ(index.Find(0, NumberKey(15)), 7); // on 20
    EXPECT_EQ(IndxNextKey(index.cursor()), 7);
    EXPECT_EQ(CursorId(index.cursor()), 3u);
    EXPECT_EQ(IndxPreviousKey(index.cursor()), 7);
    EXPECT_EQ(CursorId(index.cursor()), 2u);
    EXPECT_EQ(IndxFirstKey(index.cursor()), 6);
}

// ---- changes under a cursor --------------------------------------------------------------------

TEST_F(Cursor, WhenItsKeyWasDeletedNextLandsOnTheKeyBehindItAndPreviousOnTheOneBefore)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (const bool next : {true, false}) {
        Fill(index, 4);
        IndxCursor* c = index.OpenCursor();
        ASSERT_EQ(index.Find(c, 2, NumberKey(20)), 6);
        ASSERT_TRUE(index.Remove(2, NumberKey(20)));
        EXPECT_EQ(c->status, INDX_UNTRUSTED);
        if (next) {
            EXPECT_EQ(IndxNextKey(c), 6);
            EXPECT_EQ(CursorId(c), 3u);
        } else {
            EXPECT_EQ(IndxPreviousKey(c), 7); // the code of the find that missed
            EXPECT_EQ(CursorId(c), 1u);
        }
        EXPECT_EQ(c->status, INDX_ON_KEY);
        EXPECT_TRUE(SoundTable(index.table()));
        for (uint32_t id : {1u, 3u, 4u})
            index.Remove(id, NumberKey(10 * id));
    }
}

TEST_F(Cursor, WhenAKeyWasInsertedBeforeItNextStillLandsOnTheKeyBehindIt)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 3);
    IndxCursor* c = index.OpenCursor();
    ASSERT_EQ(index.Find(c, 2, NumberKey(20)), 6);
    ASSERT_TRUE(index.Add(9, NumberKey(15)));
    EXPECT_EQ(IndxNextKey(c), 6);
    EXPECT_EQ(CursorId(c), 3u);
    ASSERT_EQ(index.Find(c, 2, NumberKey(20)), 6);
    ASSERT_TRUE(index.Add(8, NumberKey(12)));
    EXPECT_EQ(IndxPreviousKey(c), 6);
    EXPECT_EQ(CursorId(c), 9u);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Cursor, WhenTheLastKeyWasDeletedNextEndsAndPreviousLandsOnTheNewLastKey)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 3);
    IndxCursor* a = index.OpenCursor();
    IndxCursor* b = index.OpenCursor();
    IndxLastKey(a);
    IndxLastKey(b);
    ASSERT_TRUE(index.Remove(3, NumberKey(30)));
    EXPECT_EQ(IndxNextKey(a), 8);
    EXPECT_EQ(a->status, INDX_AT_END);
    EXPECT_EQ(IndxPreviousKey(b), 6); // from the end to the last key
    EXPECT_EQ(CursorId(b), 2u);
}

TEST_F(Cursor, OnAnEmptiedIndexNextEndsPreviousBegins)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 1);
    IndxCursor* a = index.OpenCursor();
    IndxCursor* b = index.OpenCursor();
    IndxFirstKey(a);
    IndxFirstKey(b);
    ASSERT_TRUE(index.Remove(1, NumberKey(10)));
    EXPECT_EQ(IndxNextKey(a), 8);
    EXPECT_EQ(a->status, INDX_AT_END);
    EXPECT_EQ(IndxPreviousKey(b), 8);
    EXPECT_EQ(b->status, INDX_AT_BEGINNING);
}

TEST_F(Cursor, CurrentFindsAnUntrustedCursorAgainAndLeavesATrustedOneAlone)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 3);
    IndxCursor* c = index.OpenCursor();
    index.Find(c, 0, NumberKey(15));
    EXPECT_EQ(IndxCurrentKey(c), 7);
    EXPECT_EQ(CursorId(c), 2u);
    index.Add(9, NumberKey(99));
    EXPECT_EQ(c->status, INDX_UNTRUSTED);
    EXPECT_EQ(IndxCurrentKey(c), 6); // its key is there
    EXPECT_EQ(c->status, INDX_ON_KEY);
    EXPECT_EQ(CursorId(c), 2u);
    index.Remove(2, NumberKey(20));
    EXPECT_EQ(IndxCurrentKey(c), 7);
    EXPECT_EQ(CursorId(c), 3u);
    // At the ends it has no key, and stays.
    IndxCursorBOI(c);
    EXPECT_EQ(IndxCurrentKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_BEGINNING);
    IndxCursorEOI(c);
    index.Add(10, NumberKey(100));
    EXPECT_EQ(IndxCurrentKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_END);
}

TEST_F(Cursor, ChangesMakeOnlyCursorsOnAKeyUntrustedTheirOwnIncluded)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}, {INDX_KEY_INTEGER}});
    Fill(index, 3);
    IndxCursor* atBeginning = index.OpenCursor();
    IndxCursor* atEnd = index.OpenCursor();
    IndxCursor* onKey = index.OpenCursor();
    IndxCursor* elsewhere = index.OpenCursor(1);
    elsewhere->status = INDX_ON_KEY;
    IndxCursorBOI(atBeginning);
    IndxCursorEOI(atEnd);
    IndxFirstKey(onKey);
    IndxFirstKey(index.cursor());
    TraceRecorder trace;
    ASSERT_TRUE(index.Add(9, NumberKey(99)));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "IndxInvalidateCursors(" + Address(index.cursor()) + ")"));
    EXPECT_EQ(atBeginning->status, INDX_AT_BEGINNING);
    EXPECT_EQ(atEnd->status, INDX_AT_END);
    EXPECT_EQ(onKey->status, INDX_UNTRUSTED);
    EXPECT_EQ(index.cursor()->status, INDX_UNTRUSTED);
    EXPECT_EQ(elsewhere->status, INDX_ON_KEY);
    // A refused key changes nothing.
    IndxFirstKey(onKey);
    EXPECT_FALSE(index.Add(9, NumberKey(99)));
    EXPECT_FALSE(index.Remove(9, NumberKey(98)));
    EXPECT_EQ(onKey->status, INDX_ON_KEY);
}

TEST_F(Cursor, AWalkThatDeletesEachKeyMeetsAllOfThem)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 1500);
    IndxCursor* c = index.OpenCursor();
    uint32_t seen = 0;
    for (int32_t code = IndxFirstKey(c); code == 6; code = IndxNextKey(c)) {
        ++seen;
        const uint32_t id = CursorId(c);
        ASSERT_EQ(id, seen);
        ASSERT_TRUE(index.Remove(id, NumberKey(10 * id)));
    }
    EXPECT_EQ(seen, 1500u);
    EXPECT_EQ(index.field()->roots.tRoot, NONE);
    EXPECT_TRUE(SoundTable(index.table()));
}

// ---- matching keys -----------------------------------------------------------------------------

TEST_F(Cursor, NextMatchingFrom5And5And6GivesTheSecond5Then7OnThe6)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.Add(1, NumberKey(5));
    index.Add(2, NumberKey(5));
    index.Add(3, NumberKey(6));
    IndxCursor* c = index.cursor();
    ASSERT_EQ(index.Find(0, NumberKey(5)), 6);
    EXPECT_EQ(CursorId(c), 1u);
    EXPECT_EQ(IndxNextMatchingKey(c), 6);
    EXPECT_EQ(CursorId(c), 2u);
    EXPECT_EQ(IndxNextMatchingKey(c), 7);
    EXPECT_EQ(CursorId(c), 3u); // it moved all the same
    EXPECT_EQ(c->status, INDX_ON_KEY);
    c->result = 6;
    EXPECT_EQ(IndxNextMatchingKey(c), 8);
    EXPECT_EQ(c->status, INDX_AT_END);
}

TEST_F(Cursor, NextMatchingComparesByTheKeyType)
{
    const std::string u(32, 'u');
    const struct {
        int32_t keyType;
        Key first, same, other;
    } cases[] = {
        {INDX_KEY_INTEGER, NumberKey(-1), NumberKey(-1), NumberKey(0)},
        {INDX_KEY_INT64, NumberKey(1LL << 40), NumberKey(1LL << 40), NumberKey(1LL << 41)},
        {INDX_KEY_TEXT, TextKey("a"), BytesKey("a"), TextKey("aa")},
        {INDX_KEY_TEXT_NO_CASE, TextKey("a"), TextKey("A"), TextKey("b")},
        {INDX_KEY_UNIQUE_ID, BytesKey(u), BytesKey(u), BytesKey(std::string(32, 'v'))},
    };
    for (const auto& k : cases) {
        IndexFixture index(directory_.path("m" + std::to_string(k.keyType)), {{k.keyType}});
        index.Add(1, k.first);
        index.Add(2, k.same);
        index.Add(3, k.other);
        IndxCursor* c = index.cursor();
        IndxFirstKey(c);
        EXPECT_EQ(IndxNextMatchingKey(c), 6) << k.keyType;
        EXPECT_EQ(IndxNextMatchingKey(c), 7) << k.keyType;
    }
}

TEST_F(Cursor, NextMatchingOfAUniqueIndexGives7WithoutMoving)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER, true}});
    Fill(index, 2);
    IndxFirstKey(index.cursor());
    EXPECT_EQ(IndxNextMatchingKey(index.cursor()), 7);
    EXPECT_EQ(CursorId(index.cursor()), 1u);
}

TEST_F(Cursor, NextMatchingOfAnIndexOfIdsEndsTheProcess)
{
    IndexFixture index(path(), {{INDX_KEY_RECORD_ID}});
    index.Add(1, {});
    index.Add(2, {});
    IndxFirstKey(index.cursor());
    CrashRecorder crash;
    TraceRecorder trace;
    IndxNextMatchingKey(index.cursor());
    EXPECT_EQ(crash.codes(), std::vector<uint32_t>{0});
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Unexpected key type")) << trace.dump();
}

TEST_F(Cursor, NextMatchingWhoseKeyWasDeletedStandsOnTheNextMatchAlready)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (uint32_t id = 1; id <= 3; ++id)
        index.Add(id, NumberKey(5));
    IndxCursor* c = index.OpenCursor();
    IndxFirstKey(c);
    index.Remove(1, NumberKey(5));
    EXPECT_EQ(IndxNextMatchingKey(c), 6);
    EXPECT_EQ(CursorId(c), 2u);
    index.Remove(2, NumberKey(5));
    index.Remove(3, NumberKey(5));
    index.Add(4, NumberKey(6));
    EXPECT_EQ(IndxNextMatchingKey(c), 7);
    EXPECT_EQ(CursorId(c), 4u);
}

// ---- cursors without a key ---------------------------------------------------------------------

TEST_F(Cursor, AMatchThatEndsWithoutAKeyGives7)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2);
    IndxCursor* atEnd = index.OpenCursor();
    IndxLastKey(atEnd);
    index.Remove(2, NumberKey(20)); // the re-find misses at the end
    EXPECT_EQ(IndxNextMatchingKey(atEnd), 7);
    EXPECT_EQ(atEnd->oKey, nullptr);
    IndxCursor* emptied = index.OpenCursor();
    IndxCursor* current = index.OpenCursor();
    IndxFirstKey(emptied);
    IndxFirstKey(current);
    index.Remove(1, NumberKey(10));
    EXPECT_EQ(IndxNextMatchingKey(emptied), 7);
    EXPECT_EQ(emptied->status, INDX_AT_END);
    EXPECT_EQ(IndxCurrentKey(current), 7); // and not the 6 from before
    EXPECT_EQ(current->status, INDX_AT_END);
}

TEST_F(Cursor, NextMatchingWithoutASavedKeyGives7)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2);
    IndxCursorBOI(index.cursor());
    EXPECT_EQ(IndxNextMatchingKey(index.cursor()), 7);
    EXPECT_EQ(index.cursor()->status, INDX_AT_BEGINNING);
    IndxCursorEOI(index.cursor());
    EXPECT_EQ(IndxNextMatchingKey(index.cursor()), 7);
}

TEST_F(Cursor, AStepAfterARefusedFindHasNoKeyAndIsFoundNowhereAfterAChange)
{
    // The refused find leaves the cursor on its key with code 12; the step then loads no key.
    for (int move = 0; move < 4; ++move) {
        IndexFixture index(directory_.path("r" + std::to_string(move)), {{INDX_KEY_INTEGER}});
        Fill(index, 3);
        IndxCursor* c = index.OpenCursor();
        IndxFirstKey(c);
        EXPECT_EQ(IndxFindKey(c, 0, nullptr), 12);
        EXPECT_EQ(c->status, INDX_ON_KEY);
        EXPECT_EQ(CursorId(c), 1u);
        TraceRecorder trace;
        EXPECT_EQ(IndxNextKey(c), 12);
        EXPECT_TRUE(trace.has(TAG, 0, 4, "No record for type 12"));
        EXPECT_EQ(c->status, INDX_ON_KEY);
        EXPECT_EQ(c->position, 1);
        EXPECT_EQ(c->oKey, nullptr);
        index.Add(9, NumberKey(99));
        EXPECT_EQ(c->status, INDX_UNTRUSTED);
        switch (move) { // nothing to search with: as on an empty index
        case 0:
            EXPECT_EQ(IndxNextKey(c), 8);
            EXPECT_EQ(c->status, INDX_AT_END);
            break;
        case 1:
            EXPECT_EQ(IndxPreviousKey(c), 8);
            EXPECT_EQ(c->status, INDX_AT_BEGINNING);
            break;
        case 2:
            EXPECT_EQ(IndxCurrentKey(c), 12);
            EXPECT_EQ(c->status, INDX_AT_END);
            break;
        default:
            EXPECT_EQ(IndxNextMatchingKey(c), 7);
            break;
        }
        EXPECT_EQ(c->oKey, nullptr);
    }
}

TEST_F(Cursor, AStatusOutside1To4GivesCode9)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2);
    for (const int32_t status : {0, 5, -1}) {
        IndxFirstKey(index.cursor());
        index.cursor()->status = status;
        EXPECT_EQ(IndxNextKey(index.cursor()), 9);
        EXPECT_EQ(IndxPreviousKey(index.cursor()), 9);
        EXPECT_EQ(IndxNextMatchingKey(index.cursor()), 9);
        EXPECT_EQ(index.cursor()->status, status);
        EXPECT_EQ(IndxFirstKey(index.cursor()), 6);
    }
}

TEST_F(Cursor, AnInvalidCursorGives11OrFalseAndChangesNothing)
{
    void* oWrong = ObjStringNew("no cursor");
    for (void* o : {static_cast<void*>(nullptr), oWrong}) {
        for (const auto move :
             {IndxFirstKey, IndxLastKey, IndxNextKey, IndxNextMatchingKey, IndxPreviousKey,
              IndxCurrentKey})
            EXPECT_EQ(move(o), 11);
        EXPECT_EQ(IndxCursorBOI(o), 0u);
        EXPECT_EQ(IndxCursorEOI(o), 0u);
        uint32_t id = 77;
        EXPECT_EQ(IndxCursorGetId(&id, o), 0u);
        EXPECT_EQ(id, 77u);
    }
    EXPECT_STREQ(ObjGetString(oWrong), "no cursor");
    ObjReleaseInternal(&oWrong);
}

TEST_F(Cursor, GetIdReturns0WhetherItStoresAnIdOrCannot)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.Add(42, NumberKey(1));
    uint32_t id = 77;
    IndxCursorBOI(index.cursor());
    EXPECT_EQ(IndxCursorGetId(&id, index.cursor()), 0u);
    EXPECT_EQ(id, 77u);
    IndxFirstKey(index.cursor());
    EXPECT_EQ(IndxCursorGetId(&id, index.cursor()), 0u);
    EXPECT_EQ(id, 42u);
    EXPECT_EQ(IndxCursorGetId(nullptr, index.cursor()), 0u);
    id = 77;
    index.Add(43, NumberKey(2)); // an untrusted cursor still holds its key
    EXPECT_EQ(IndxCursorGetId(&id, index.cursor()), 0u);
    EXPECT_EQ(id, 42u);
}

TEST_F(Cursor, GetOffsetTellsWhetherThereIsAKey)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.Add(42, NumberKey(1), 4711);
    uint32_t offset = 77;
    IndxCursorBOI(index.cursor());
    EXPECT_EQ(IndxCursorGetOffset(&offset, index.cursor()), 0u);
    EXPECT_EQ(IndxCursorGetOffset(&offset, nullptr), 0u);
    EXPECT_EQ(IndxCursorGetOffset(&offset, index.table()), 0u);
    EXPECT_EQ(offset, 77u);
    IndxFirstKey(index.cursor());
    EXPECT_EQ(IndxCursorGetOffset(nullptr, index.cursor()), 0u);
    EXPECT_EQ(IndxCursorGetOffset(&offset, index.cursor()), 1u);
    EXPECT_EQ(offset, 4711u);
    offset = 77;
    index.Add(43, NumberKey(2)); // an untrusted cursor still holds its key
    EXPECT_EQ(IndxCursorGetOffset(&offset, index.cursor()), 1u);
    EXPECT_EQ(offset, 4711u);
}

// ---- messages ----------------------------------------------------------------------------------

// ---- nodes that cannot be had ------------------------------------------------------------------

TEST_F(Cursor, AMoveWhoseNodeCannotBeReadGives8WithError13)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 1500);
    IndxCursor* c = index.OpenCursor();
    const auto Fails = [&](int32_t (*move)(void*), int32_t status) {
        index.Backout(); // nothing is in memory
        IndxSetError(0);
        TraceRecorder trace;
        const ArmedFault fault(FAULT_READ);
        EXPECT_EQ(move(c), 8);
        EXPECT_EQ(c->status, status);
        EXPECT_EQ(IndxError(), 13u);
        EXPECT_TRUE(trace.hasPart("Cannot use node")) << trace.dump();
    };
    Fails(IndxFirstKey, INDX_AT_END);
    Fails(IndxLastKey, INDX_AT_BEGINNING);
    IndxFirstKey(c);
    Fails(IndxNextKey, INDX_AT_END);
    IndxFirstKey(c);
    Fails(IndxPreviousKey, INDX_AT_BEGINNING);
    IndxFirstKey(c);
    Fails(IndxNextMatchingKey, INDX_AT_END);
    IndxFirstKey(c);
    index.Add(5000, NumberKey(50000));
    Fails(IndxNextKey, INDX_AT_END); // the re-find fails
    IndxFirstKey(c);
    index.Add(5001, NumberKey(50010));
    Fails(IndxPreviousKey, INDX_AT_BEGINNING);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Cursor, AMoveWithoutMemoryNeverClaimsAKeyItDoesNotHold)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    for (uint32_t id = 1; id <= 3; ++id)
        index.Add(id, TextKey(std::string(1, static_cast<char>('a' + id))));
    IndxCursor* c = index.OpenCursor();
    for (const auto move : {IndxFirstKey, IndxLastKey, IndxNextKey, IndxPreviousKey}) {
        for (uint32_t nth = 1;; ++nth) {
            index.Find(c, 2, TextKey("c"));
            index.Backout();
            IndxSetError(0);
            const ArmedFault fault(FAULT_ALLOC, nth, 0);
            const int32_t code = move(c);
            if (fault.hits() == 0) {
                EXPECT_EQ(code, 6);
                break;
            }
            EXPECT_EQ(code, 8) << nth;
            EXPECT_EQ(c->oKey, nullptr);
            EXPECT_EQ(IndxError(), 13u);
        }
    }
}

TEST_F(Cursor, NextMatchingAfterAMissStepsWithoutComparingAndStaysAt7)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (uint32_t id = 1; id <= 3; ++id)
        index.Add(id, NumberKey(5));
    EXPECT_EQ(index.Find(1, NumberKey(4)), 7); // on the first 5
    EXPECT_EQ(IndxNextMatchingKey(index.cursor()), 7);
    EXPECT_EQ(CursorId(index.cursor()), 2u);
    EXPECT_EQ(index.Find(2, NumberKey(5)), 6);
    EXPECT_EQ(IndxNextMatchingKey(index.cursor()), 6);
}

TEST_F(Cursor, PreviousHasNoExitTraceAsNextHas)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2);
    IndxLastKey(index.cursor());
    TraceRecorder trace;
    EXPECT_EQ(IndxPreviousKey(index.cursor()), 6);
    EXPECT_FALSE(trace.hasPart("= IndxPreviousKey")) << trace.dump();
    EXPECT_EQ(IndxNextKey(index.cursor()), 6);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "6 = IndxNextKey"));
    EXPECT_EQ(trace.countLevel(-1), 0u);
}

} // namespace
