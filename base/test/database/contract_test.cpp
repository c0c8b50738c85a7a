// contract_test.cpp: sentences of index.h that no room's own test proves: what an operation leaves
// behind, what a cursor answers after a miss or a change, and how long the last error stays.

#include <gtest/gtest.h>

#include "support/person_table.h"
#include "support/quiet_trace.h"

namespace {

class Contract : public PeopleTest {
  protected:
    static std::string NameAt(void* oCursor)
    {
        Held object;
        return IndxGetObjectAtCursor(object.out(), oCursor) ? *PersonOf(object.get()).name : "";
    }
    const QuietTrace quiet_;
};

TEST_F(Contract, AnAddWhoseDescriptionCannotBeStoredIsDoneAndHandsOutItsId)
{
    MustAdd(1);
    Person large = MakePerson(3, 8100);
    ASSERT_EQ(Add(table_, &large), 1u);
    LogRecorder log;
    Fail(FAULT_SERIALIZE, 1, 0);
    uint32_t id = 0;
    const Person added = MakePerson(2, 8100); // splits, so that more than the id changes
    const Held object = ObjectOf(added);
    const NimBool bAdded = IndxAddObjectToTable(&id, table_, object.get());
    FaultDisarmAll();
    ASSERT_EQ(log.count(1301), 1u) << log.dump();
    EXPECT_EQ(bAdded, 0u);
    EXPECT_EQ(id, 3u);
    EXPECT_EQ(FindById(table_, 3)->name, added.name);
    MustAdd(4); // stores it
    Reload();
    EXPECT_EQ(FindById(table_, 3)->name, added.name);
    ExpectSound(table_);
}

TEST_F(Contract, ADeletionWhoseDescriptionCannotBeStoredIsDone)
{
    MustAdd(1);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    LogRecorder log;
    Fail(FAULT_SERIALIZE, 1, 0); // the index is empty afterwards: its roots change
    EXPECT_EQ(IndxDeleteRecord(cursor.get()), 0u);
    FaultDisarmAll();
    EXPECT_EQ(log.count(1301), 1u) << log.dump();
    EXPECT_FALSE(FindById(table_, 1).has_value());
}

TEST_F(Contract, ARefusedRecordIsStampedAllTheSame)
{
    MustAdd(1);
    Person same = MakePerson(1);
    same.id = 0;
    const Held blob = BlobOf(same);
    uint32_t id = 77;
    EXPECT_EQ(IndxAddRecordToTable(&id, table_, blob.get()), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_UPDATE);
    EXPECT_EQ(id, 77u);
    const ObjData& data = static_cast<DbBlob*>(blob.get())->data;
    uint32_t stamped[2]; // the length, and the id in the first slot
    std::memcpy(stamped, data.data, sizeof stamped);
    EXPECT_EQ(stamped[0], data.size);
    EXPECT_EQ(stamped[1], 2u);
}

TEST_F(Contract, AnEmptyTextIsAcceptedAndMetButNotSearchedFor)
{
    MustAdd(1);
    Person nameless = MakePerson(2);
    nameless.name = "";
    ASSERT_EQ(Add(table_, &nameless), 1u);
    const Cursor cursor(table_, "Name");
    ASSERT_EQ(IndxLastKey(cursor.get()), INDX_RESULT_FOUND);
    const Held empty(ObjStringNew(""));
    EXPECT_EQ(IndxFindKey(cursor.get(), 0, empty.get()), INDX_RESULT_EMPTY_KEY);
    EXPECT_EQ(NameAt(cursor.get()), *MakePerson(1).name) << "the cursor has not moved";
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    uint32_t id = 0;
    IndxCursorGetId(&id, cursor.get());
    EXPECT_EQ(id, nameless.id);
}

TEST_F(Contract, StepsAfterAMissKeepItsResultAndTheRangeLoopMeetsEveryKey)
{
    for (uint32_t n : {10u, 20u, 30u, 40u})
        MustAdd(n);
    const auto from = [&](uint32_t n) {
        const Cursor cursor(table_, "Name");
        const Held lowest(ObjStringNew(MakePerson(n).name->c_str()));
        std::vector<std::string> met;
        uint32_t offset = 0;
        int32_t result = IndxFindKey(cursor.get(), 0, lowest.get());
        const int32_t found = result;
        for (; IndxCursorGetOffset(&offset, cursor.get()); result = IndxNextKey(cursor.get())) {
            EXPECT_EQ(result, found) << "every step keeps the find's result";
            met.push_back(NameAt(cursor.get()));
        }
        return met;
    };
    const std::vector<std::string> all = {
        *MakePerson(10).name, *MakePerson(20).name, *MakePerson(30).name, *MakePerson(40).name};
    EXPECT_EQ(from(1), all);
    EXPECT_EQ(from(20), std::vector<std::string>(all.begin() + 1, all.end()));
    EXPECT_EQ(from(21), std::vector<std::string>(all.begin() + 2, all.end()));
    EXPECT_EQ(from(41), std::vector<std::string>());
}

TEST_F(Contract, AChangeOfTheIndexTakesACursorOffItsRecordUntilItFindsItsKeyAgain)
{
    MustAdd(1);
    const Cursor cursor(table_, "Name");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    MustAdd(2);
    Held object;
    EXPECT_EQ(IndxGetObjectAtCursor(object.out(), cursor.get()), 0u);
    EXPECT_EQ(IndxCurrentKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(IndxGetObjectAtCursor(object.out(), cursor.get()), 1u);
}

TEST_F(Contract, AWalkMeetsARecordAgainWhoseKeyItsCallbackRaises)
{
    for (uint32_t n : {1u, 2u, 3u})
        MustAdd(n);
    const Cursor cursor(table_, "Age");
    std::vector<uint32_t> met;
    for (int32_t result = IndxFirstKey(cursor.get());
         result == INDX_RESULT_FOUND && met.size() < 10; result = IndxNextKey(cursor.get())) {
        uint32_t id = 0;
        IndxCursorGetId(&id, cursor.get());
        met.push_back(id);
        if (met.size() > 1)
            continue;
        Person older = *FindById(table_, id);
        older.age += 100;
        const Held object = ObjectOf(older);
        ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), object.get()), 1u);
    }
    EXPECT_EQ(met, (std::vector<uint32_t>{1, 2, 3, 1}));
}

TEST_F(Contract, ASelectionOfOneFieldBringsEveryVariableField)
{
    MustAdd(7);
    const Held names(ListNewFromPool(0, MemGetDefaultPoolId()));
    void* oName = ObjStringNew("Town");
    ListPushLastItemInternal(names.get(), &oName);
    uint32_t* pSelected = nullptr;
    ASSERT_EQ(IndxGetSelected(&pSelected, table_, names.get()), 1u);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    Held object;
    EXPECT_EQ(IndxGetPartialObjectAtCursor(object.out(), cursor.get(), pSelected), 1u);
    Person expected = MakePerson(7);
    expected.id = 1;
    EXPECT_EQ(PersonOf(object.get()), expected);
    MemFree(pSelected);
}

TEST_F(Contract, TheLastErrorStaysUntilAFailureSetsAnother)
{
    void* oField = nullptr;
    EXPECT_EQ(IndxGetField(&oField, table_, "Shoe"), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_NO_FIELD);
    MustAdd(1);
    EXPECT_EQ(IndxError(), INDX_ERROR_NO_FIELD) << "a success does not clear it";
    EXPECT_EQ(IndxGetField(nullptr, table_, "Name"), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_NO_FIELD) << "a failure without a code leaves it";
    void* oCursor = nullptr;
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, table_, "Alive"), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_NOT_INDEXED);
}

TEST_F(Contract, TheOffsetOfACursorIsThatOfItsKeyAndLeadsToItsRecord)
{
    MustAdd(1);
    MustAdd(2);
    const Cursor cursor(table_, "Id");
    uint32_t offset = 77;
    EXPECT_EQ(IndxCursorGetOffset(&offset, cursor.get()), 0u) << "stands nowhere";
    EXPECT_EQ(IndxCursorGetOffset(&offset, nullptr), 0u);
    EXPECT_EQ(IndxCursorGetOffset(&offset, table_), 0u);
    EXPECT_EQ(offset, 77u);
    ASSERT_EQ(IndxFindKey(cursor.get(), 2, nullptr), INDX_RESULT_FOUND);
    EXPECT_EQ(IndxCursorGetOffset(nullptr, cursor.get()), 0u);
    EXPECT_EQ(IndxCursorGetOffset(&offset, cursor.get()), 1u);
    EXPECT_EQ(offset, OffsetOf(table_, 2));
    Held record;
    EXPECT_EQ(IndxGetRecord(record.out(), table_, offset), 1u);
    MustAdd(3); // the key is still held
    offset = 77;
    EXPECT_EQ(IndxCursorGetOffset(&offset, cursor.get()), 1u);
    EXPECT_EQ(offset, OffsetOf(table_, 2));
    IndxCursorEOI(cursor.get());
    EXPECT_EQ(IndxCursorGetOffset(&offset, cursor.get()), 0u);
}

} // namespace
