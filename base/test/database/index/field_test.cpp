// field_test.cpp: fields by name, and handing out and ending cursors on them: references, lists,
// refusals, messages.
#include "support/database_fixture.h"

namespace {

constexpr const char* TAG = "INDX        ";
constexpr uint32_t UNCHANGED = 77;

std::string Hex(const void* p)
{
    char text[32];
    std::snprintf(
        text, sizeof text, "%016llX",
        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

class Fields : public DatabaseTest {
  protected:
    void SetUp() override
    {
        DatabaseTest::SetUp();
        ASSERT_TRUE(Open());
        oTable_ = OpenTable("T", MAGIC, "i;s;b;s;", "Id,Name;Indexed,Flag;Indexed,Plain");
        ASSERT_NE(oTable_, nullptr);
        IndxSetError(UNCHANGED);
    }
    static int32_t References(const void* object) { return OBJ_HEADER(object)->refCount; }

    void* oTable_ = nullptr;
};

// ---- fields -----------------------------------------------------------------------------------

TEST_F(Fields, AreFoundWithoutRegardToCase)
{
    for (const char* name : {"Name", "name", "NAME", "nAmE"}) {
        void* oField = nullptr;
        EXPECT_EQ(IndxGetField(&oField, oTable_, name), 1u);
        EXPECT_EQ(oField, Field(oTable_, 1));
        ObjReleaseInternal(&oField);
    }
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Fields, AreHandedOutWithAReferenceOfTheCallers)
{
    const int32_t before = References(Field(oTable_, 1));
    void* oField = nullptr;
    ASSERT_EQ(IndxGetField(&oField, oTable_, "Name"), 1u);
    EXPECT_EQ(References(oField), before + 1);
    ObjReleaseInternal(&oField);
    EXPECT_EQ(References(Field(oTable_, 1)), before);
}

TEST_F(Fields, UnknownNameIsError5)
{
    TraceRecorder trace;
    void* oField = &oField;
    EXPECT_EQ(IndxGetField(&oField, oTable_, "Nam"), 0u);
    EXPECT_EQ(oField, nullptr);
    EXPECT_EQ(IndxError(), 5u);
    const std::string arguments = "IndxGetField(" + Hex(&oField) + ", " + Hex(oTable_) + ", Nam)";
    EXPECT_TRUE(trace.has(TAG, 0, 4, arguments)) << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 1, -1, "Field does not exist"));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "FALSE = " + arguments));
}

TEST_F(Fields, BadArgumentsAreRefusedWithoutACode)
{
    void* oField = nullptr;
    void* oOther = ObjIntegerNew(1);
    TraceRecorder trace;
    EXPECT_EQ(IndxGetField(nullptr, oTable_, "Name"), 0u);
    EXPECT_EQ(IndxGetField(&oField, nullptr, "Name"), 0u);
    EXPECT_EQ(IndxGetField(&oField, oOther, "Name"), 0u);
    EXPECT_EQ(IndxGetField(&oField, database(), "Name"), 0u);
    EXPECT_EQ(IndxGetField(&oField, oTable_, nullptr), 0u);
    EXPECT_EQ(oField, nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_EQ(trace.countLevel(-1), 0u);
    EXPECT_EQ(trace.countLevel(4), 5u) << "only the entries are traced";
    EXPECT_TRUE(trace.hasPart(", (null))"));
    ObjReleaseInternal(&oOther);
}

// ---- cursors ----------------------------------------------------------------------------------

TEST_F(Fields, CursorStartsNowhereAndHoldsItsField)
{
    IndxField* pField = Field(oTable_, 1);
    const int32_t before = References(pField);
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetCursor(&oCursor, pField), 1u);
    const auto* pCursor = static_cast<IndxCursor*>(oCursor);
    EXPECT_EQ(ObjGetMagic(oCursor), 0xca8c918du);
    EXPECT_EQ(pCursor->status, 0);
    EXPECT_EQ(pCursor->oKey, nullptr);
    EXPECT_EQ(pCursor->oField, pField);
    EXPECT_EQ(References(pField), before + 1);
    EXPECT_EQ(References(oCursor), 2) << "one for the list, one for the caller";
    EXPECT_EQ(ListGetCount(pField->oCursors), 1u);
    EXPECT_EQ(IndxNextKey(oCursor), 9);
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 1u);
    EXPECT_EQ(References(pField), before);
}

TEST_F(Fields, CursorsJoinTheListInOrder)
{
    IndxField* pField = Field(oTable_, 1);
    void* oFirst = nullptr;
    void* oSecond = nullptr;
    ASSERT_EQ(IndxGetCursor(&oFirst, pField), 1u);
    ASSERT_EQ(IndxGetCursor(&oSecond, pField), 1u);
    void* oItem = nullptr;
    EXPECT_EQ(ListGetNthItem(&oItem, pField->oCursors, 0), 1u);
    EXPECT_EQ(oItem, oFirst);
    EXPECT_EQ(ListGetNthItem(&oItem, pField->oCursors, 1), 1u);
    EXPECT_EQ(oItem, oSecond);
    IndxReleaseCursor(&oFirst);
    EXPECT_EQ(ListGetNthItem(&oItem, pField->oCursors, 0), 1u);
    EXPECT_EQ(oItem, oSecond);
    IndxReleaseCursor(&oSecond);
    EXPECT_EQ(ListGetCount(pField->oCursors), 0u);
}

TEST_F(Fields, CursorOnAFieldThatIsNotIndexedIsError6)
{
    // A boolean declared "Indexed" is never indexed.
    for (const uint32_t position : {2u, 3u}) {
        IndxSetError(UNCHANGED);
        TraceRecorder trace;
        void* oCursor = &oCursor;
        EXPECT_EQ(IndxGetCursor(&oCursor, Field(oTable_, position)), 0u);
        EXPECT_EQ(oCursor, nullptr);
        EXPECT_EQ(IndxError(), 6u);
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Field is not indexed")) << trace.dump();
        EXPECT_TRUE(trace.has(
            TAG, 0, 4,
            "FALSE = IndxGetCursor(" + Hex(&oCursor) + ", " + Hex(Field(oTable_, position)) +
                ") 0000000000000000"));
    }
}

TEST_F(Fields, BadArgumentsToGetCursorAreError15)
{
    void* oCursor = nullptr;
    for (int i = 0; i < 3; ++i) {
        IndxSetError(UNCHANGED);
        TraceRecorder trace;
        if (i == 0)
            EXPECT_EQ(IndxGetCursor(nullptr, Field(oTable_, 1)), 0u);
        else
            EXPECT_EQ(IndxGetCursor(&oCursor, i == 1 ? nullptr : oTable_), 0u);
        EXPECT_EQ(IndxError(), 15u);
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Invalid argument to GetCursor")) << trace.dump();
        EXPECT_TRUE(trace.hasPart("FALSE = IndxGetCursor("));
    }
    EXPECT_EQ(oCursor, nullptr);
}

TEST_F(Fields, FieldCursorOnIdAlwaysSucceeds)
{
    void* oCursor = nullptr;
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "id"), 1u);
    EXPECT_EQ(static_cast<IndxCursor*>(oCursor)->oField, Field(oTable_, 0));
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 1u);
}

TEST_F(Fields, FieldCursorDropsTheFieldItTookOnTheWay)
{
    const int32_t before = References(Field(oTable_, 1));
    void* oCursor = nullptr;
    TraceRecorder trace;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Name"), 1u);
    EXPECT_EQ(References(Field(oTable_, 1)), before + 1) << "the cursor's own";
    EXPECT_TRUE(trace.has(
        TAG, 0, 4, "IndxGetFieldCursor(" + Hex(&oCursor) + ", " + Hex(oTable_) + ", Name) T"))
        << trace.dump();
    IndxReleaseCursor(&oCursor);
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Plain"), 0u);
    EXPECT_EQ(oCursor, nullptr);
    EXPECT_EQ(IndxError(), 6u);
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Missing"), 0u);
    EXPECT_EQ(IndxError(), 5u);
    EXPECT_EQ(IndxGetFieldCursor(nullptr, oTable_, "Name"), 0u);
    EXPECT_EQ(IndxError(), 15u);
    EXPECT_EQ(References(Field(oTable_, 1)), before);
}

TEST_F(Fields, FieldCursorOfABadTableOrNameIsRefusedInSilence)
{
    TraceRecorder trace;
    void* oCursor = nullptr;
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, nullptr, "Name"), 0u);
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, database(), "Name"), 0u);
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, oTable_, nullptr), 0u);
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
}

// ---- ending a cursor --------------------------------------------------------------------------

TEST_F(Fields, SecondReleaseThroughTheSameVariableReturns0)
{
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Name"), 1u);
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 1u);
    EXPECT_EQ(oCursor, nullptr);
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 0u);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Fields, ReleaseRefusesWhatIsNoCursor)
{
    EXPECT_EQ(IndxReleaseCursor(nullptr), 0u);
    void* oField = Field(oTable_, 1);
    EXPECT_EQ(IndxReleaseCursor(&oField), 0u);
    EXPECT_EQ(oField, Field(oTable_, 1)) << "nothing was given up";
}

TEST_F(Fields, ReleaseLeavesOtherReferencesOnTheCursorAloneButOutOfTheList)
{
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Name"), 1u);
    void* oSecond = ObjIncRefCount(oCursor);
    static_cast<IndxCursor*>(oCursor)->status = 2;
    void* oKey = nullptr;
    ObjTemplateCreateInstanceFromPool(&oKey, gIndxTemplates.keyInfo, MemGetDefaultPoolId());
    static_cast<IndxCursor*>(oCursor)->oKey = static_cast<IndxKeyInfo*>(oKey);
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 1u);
    EXPECT_EQ(References(oSecond), 1);
    EXPECT_EQ(static_cast<IndxCursor*>(oSecond)->status, 0) << "it stands nowhere";
    EXPECT_EQ(static_cast<IndxCursor*>(oSecond)->oKey, nullptr) << "and has let its key go";
    EXPECT_EQ(ListGetCount(Field(oTable_, 1)->oCursors), 0u);
    EXPECT_EQ(IndxReleaseCursor(&oSecond), 1u) << "released again, it is in no list";
}

TEST_F(Fields, CursorKeepsItsFieldAliveWhenTheTableIsClosed)
{
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Name"), 1u);
    IndxField* pField = Field(oTable_, 1);
    Close();
    EXPECT_EQ(static_cast<IndxCursor*>(oCursor)->oField, pField);
    EXPECT_STREQ(pField->name, "Name");
    EXPECT_EQ(pField->oCursors, nullptr) << "the list is gone";
    EXPECT_EQ(References(pField), 1);
    EXPECT_EQ(References(oCursor), 1);
    // It finds nothing any more, and says so.
    void* oKey = ObjStringNew("a");
    EXPECT_EQ(IndxFindKey(oCursor, 0, oKey), 7);
    EXPECT_EQ(IndxFirstKey(oCursor), 8);
    ObjReleaseInternal(&oKey);
    TraceRecorder trace;
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 1u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Release cursor to field 'Name' of 'T'")) << trace.dump();
}

TEST_F(Fields, ClosingReleasesCursorsThatNobodyElseHolds)
{
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Name"), 1u);
    ObjReleaseInternal(&oCursor); // not IndxReleaseCursor: the list's reference stays
    EXPECT_EQ(ObjLiveCount(INDX_CURSOR_MAGIC), 1u);
    Close();
    EXPECT_EQ(ObjLiveCount(INDX_CURSOR_MAGIC), 0u);
}

TEST_F(Fields, NoAllocationThatFailsLeavesHalfACursor)
{
    IndxField* pField = Field(oTable_, 1);
    const LiveCounts before;
    for (uint32_t nth = 1;; ++nth) {
        ASSERT_LT(nth, 50u);
        void* oCursor = nullptr;
        const uint32_t rule = Fail(FAULT_ALLOC, nth);
        const NimBool bMade = IndxGetFieldCursor(&oCursor, oTable_, "Name");
        const bool bStruck = FaultHits(rule) != 0;
        FaultDisarmAll();
        EXPECT_EQ(bMade != 0, oCursor != nullptr);
        if (bMade)
            IndxReleaseCursor(&oCursor);
        EXPECT_EQ(before, LiveCounts());
        EXPECT_EQ(ListGetCount(pField->oCursors), 0u);
        if (!bStruck) {
            EXPECT_TRUE(bMade);
            EXPECT_GT(nth, 1u);
            break;
        }
        EXPECT_FALSE(bMade);
    }
}

} // namespace
