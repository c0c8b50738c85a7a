// delete_record_test.cpp: deleting a record with all its keys, what stays of it, and cursors that
// stand on what has gone. Keys in one tree are delete_test.cpp.

#include <gtest/gtest.h>

#include "support/file_calls.h"
#include "support/person_table.h"

namespace {

constexpr const char* TAG = "INDX        ";
constexpr const char* INDEXES[] = {"Id", "Name", "Town", "Age", "Number", "Key"};

class DeleteRecord : public PeopleTest {
  protected:
    void AddFirst(uint32_t count) { AddPeople(table_, &model_, 1, count + 1); }
    NimBool DeleteBy(const char* field, uint32_t id)
    {
        const Cursor cursor(table_, field);
        for (int32_t code = IndxFirstKey(cursor.get()); code == INDX_RESULT_FOUND;
             code = IndxNextKey(cursor.get())) {
            if (IndxAsCursor(cursor.get())->oKey->recordId == id)
                return IndxDeleteRecord(cursor.get());
        }
        return FALSE;
    }
    void MustDelete(const char* field, uint32_t id)
    {
        ASSERT_EQ(DeleteBy(field, id), 1u) << field << " " << id;
        model_.erase(id);
    }
    // A deletion that fails, with these lines among the failures, and changes nothing.
    void ExpectRefused(
        void* oCursor, const std::vector<std::pair<const char*, uint32_t>>& lines,
        uint32_t error = UNTOUCHED)
    {
        const std::string records = ReadFileBytes(RecordsPath());
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        EXPECT_EQ(IndxDeleteRecord(oCursor), 0u);
        for (const auto& [line, errorFlag] : lines)
            EXPECT_TRUE(trace.has(TAG, errorFlag, -1, line)) << line << "\n" << trace.dump();
        EXPECT_TRUE(trace.has(TAG, 0, 4, "FALSE = IndxDeleteRecord(" + Hex(oCursor) + ")"));
        EXPECT_EQ(IndxError(), error);
        EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
        ExpectHolds(table_, model_);
    }

    People model_;
};

TEST_F(DeleteRecord, ADeletedRecordIsFoundByNoIndexAnyMore)
{
    AddFirst(30);
    uint32_t id = 0;
    for (const char* field : INDEXES) {
        MustDelete(field, id += 3);
        ExpectHolds(table_, model_);
        for (const char* other : INDEXES) {
            const std::vector<uint32_t> ids = WalkIds(table_, other);
            EXPECT_EQ(std::count(ids.begin(), ids.end(), id), 0);
        }
    }
    Reload();
    ExpectHolds(table_, model_);
}

TEST_F(DeleteRecord, ADeletionWritesNothingToTheRecordsFileAndKeepsTheHighestId)
{
    AddFirst(5);
    const std::string records = ReadFileBytes(RecordsPath());
    {
        FileCalls calls;
        MustDelete("Name", 5);
        for (const FileCalls::Call& call : calls.calls()) {
            if (call.op == FILE_OP_WRITE) {
                EXPECT_EQ(call.path, BlocksPath());
                EXPECT_GT(call.offset, 0); // no description either: no root has changed
            }
        }
    }
    EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
    EXPECT_EQ(IndxNextId(table_), 6u);
    Reload();
    EXPECT_EQ(IndxNextId(table_), 6u);
    AddPeople(table_, &model_, 6, 7);
    EXPECT_EQ(model_.rbegin()->first, 6u);
    ExpectHolds(table_, model_);
    // Its bytes are not used again.
    EXPECT_EQ(OffsetOf(table_, 6), static_cast<int64_t>(records.size()));
}

TEST_F(DeleteRecord, ACompanionFileStays)
{
    void* oTable = OpenPeople(1, "WithFiles");
    Person person = MakePerson(1);
    ASSERT_EQ(Add(oTable, &person), 1u);
    const std::string path = PathOf("Files", "WithFiles") + "/0000/00/01";
    WriteFileBytes(path, "content");
    const Cursor cursor(oTable, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    ASSERT_EQ(IndxDeleteRecord(cursor.get()), 1u);
    EXPECT_EQ(ReadFileBytes(path), "content");
    ExpectSound(oTable);
}

TEST_F(DeleteRecord, TheLastRecordEmptiesEveryIndexAndGivesEveryBlockBack)
{
    AddFirst(3);
    for (uint32_t id = 1; id <= 3; ++id)
        MustDelete("Number", id);
    for (uint32_t i = 0; i < 6; ++i) {
        const IndxField* pField = Field(table_, i);
        EXPECT_EQ(pField->roots.tRoot, INDX_NO_NODE);
        EXPECT_EQ(pField->roots.tFirstLeaf, INDX_NO_NODE);
        EXPECT_EQ(pField->roots.tLastLeaf, INDX_NO_NODE);
        EXPECT_EQ(pField->levels, 0);
    }
    EXPECT_TRUE(SoundTable(table_));
    EXPECT_EQ(CheckTable(table_).freeChain.size(), 6u);
    Reload();
    AddPeople(table_, &model_, 9, 12);
    ExpectHolds(table_, model_);
    EXPECT_EQ(CheckTable(table_).freeChain.size(), 0u);
}

TEST_F(DeleteRecord, ThousandsGoInAnyOrder)
{
    AddPeople(table_, &model_, 1, 1201, 60, 40);
    ASSERT_GT(Field(table_, 1)->levels, 1);
    std::vector<uint32_t> ids;
    for (uint32_t n = 0; n < 1200; ++n)
        ids.push_back(n * 7 % 1200 + 1); // every one of them once
    for (size_t i = 0; i < ids.size(); ++i) {
        MustDelete("Id", ids[i]);
        if (i % 300 == 299)
            ExpectHolds(table_, model_);
    }
    EXPECT_TRUE(SoundTable(table_));
}

// ---- refusals --------------------------------------------------------------------------------

TEST_F(DeleteRecord, WithoutACursorOnAKeyThereIsNoRecordToDelete)
{
    AddFirst(2);
    const char* line = "NULL cursor - no record to delete";
    ExpectRefused(nullptr, {{line, 0}});
    ExpectRefused(table_, {{line, 0}});
    const Cursor cursor(table_, "Id");
    ExpectRefused(cursor.get(), {{line, 0}});
    IndxCursorBOI(cursor.get());
    ExpectRefused(cursor.get(), {{line, 0}});
    IndxCursorEOI(cursor.get());
    ExpectRefused(cursor.get(), {{line, 0}});
    // An object of another kind in the place of the key.
    IndxCursor* pCursor = IndxAsCursor(cursor.get());
    void* oInteger = ObjIntegerNew(1);
    pCursor->oKey = static_cast<IndxKeyInfo*>(oInteger);
    ExpectRefused(cursor.get(), {{line, 0}});
    pCursor->oKey = nullptr;
    ObjReleaseInternal(&oInteger);
}

TEST_F(DeleteRecord, ARecordThatCannotBeReadIsLost)
{
    AddFirst(2);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    struct {
        uint32_t point;
        uint32_t nth;
        uint32_t error;
        uint32_t log;
    } const cases[] = {
        {FAULT_SEEK, 1, INDX_ERROR_SEEK, 0},
        {FAULT_READ, 1, INDX_ERROR_READ, 1307},
        {FAULT_READ, 2, INDX_ERROR_READ, 1306},
        {FAULT_READ, 4, INDX_ERROR_READ, 1306},
    };
    for (const auto& c : cases) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        LogRecorder log;
        Fail(c.point, c.nth, 1, "Records");
        EXPECT_EQ(IndxDeleteRecord(cursor.get()), 0u);
        FaultDisarmAll();
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Lost record")) << trace.dump();
        EXPECT_EQ(log.messages().size(), c.log ? 1u : 0u);
        EXPECT_EQ(log.count(c.log), c.log ? 1u : 0u);
        EXPECT_EQ(IndxError(), c.error);
    }
    ExpectHolds(table_, model_);
    ASSERT_EQ(IndxDeleteRecord(cursor.get()), 1u);
    model_.erase(1);
    ExpectHolds(table_, model_);
}

TEST_F(DeleteRecord, ARecordWhoseFileWasCutIsLost)
{
    AddFirst(3);
    const auto end = static_cast<uint64_t>(OffsetOf(table_, 3));
    SetRecordsLength(end + FIXED_SIZE + 3);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxLastKey(cursor.get()), INDX_RESULT_FOUND);
    TraceRecorder trace;
    LogRecorder log;
    EXPECT_EQ(IndxDeleteRecord(cursor.get()), 0u);
    EXPECT_TRUE(trace.has(TAG, 1, -1, "Lost record")) << trace.dump();
    EXPECT_EQ(log.count(1306), 1u);
    EXPECT_EQ(IndxError(), INDX_ERROR_READ);
    EXPECT_EQ(WalkIds(table_, "Id").size(), 3u);
    ExpectSound(table_);
}

// ---- cursors on what has gone ----------------------------------------------------------------

TEST_F(DeleteRecord, ARecordIsNotDeletedTwice)
{
    AddFirst(3);
    const Cursor first(table_, "Name");
    const Cursor second(table_, "Age");
    ASSERT_EQ(IndxFirstKey(first.get()), INDX_RESULT_FOUND);
    ASSERT_EQ(IndxFirstKey(second.get()), INDX_RESULT_FOUND);
    ASSERT_EQ(IndxDeleteRecord(first.get()), 1u);
    model_.erase(1);
    ExpectRefused(
        first.get(), {{"Failed to delete key", 0}, {"Could not delete keys for record", 0}});
    ExpectRefused(
        second.get(), {{"Failed to delete key", 0}, {"Could not delete keys for record", 0}});
    // Both go on from where they stood.
    EXPECT_EQ(IndxNextKey(first.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(PersonAt(first.get())->id, 2u);
    ASSERT_EQ(IndxDeleteRecord(first.get()), 1u);
    model_.erase(2);
    ExpectHolds(table_, model_);
}

TEST_F(DeleteRecord, TheOnlyRecordKeepsItsKeysWhenALaterOneOfThemIsMissing)
{
    AddFirst(1);
    const Cursor stale(table_, "Id");
    ASSERT_EQ(IndxFirstKey(stale.get()), INDX_RESULT_FOUND);
    Person moved = MakePerson(2, 200);
    moved.id = 1;
    {
        // Written behind the old bytes, which stay as they are: another id has been issued.
        table()->highestId = 2;
        const Cursor cursor(table_, "Id");
        ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
        ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(moved).get()), 1u);
    }
    model_ = {{1, moved}};
    // The old bytes tell the same id, whose key goes and leaves its index empty, and an old name.
    ExpectRefused(
        stale.get(), {{"Failed to delete key", 0}, {"Could not delete keys for record", 0}});
    AddPeople(table_, &model_, 5, 8);
    Reload();
    ExpectHolds(table_, model_);
}

// A record is renamed and moves, its old name goes to another record, and a cursor still has the
// old place: deleting through it must not take the other record's key.
TEST_F(DeleteRecord, AnotherRecordsKeyOfTheSameUniqueValueIsNotTaken)
{
    Person bob = MakePerson(1);
    bob.name = "bob";
    Person zed = MakePerson(2);
    zed.name = "zed";
    ASSERT_EQ(Add(table_, &bob), 1u);
    ASSERT_EQ(Add(table_, &zed), 1u);
    const Cursor stale(table_, "Name");
    ASSERT_EQ(IndxFirstKey(stale.get()), INDX_RESULT_FOUND);
    const uint32_t oldPlace = IndxAsCursor(stale.get())->oKey->fileOffset;

    Person robert = bob;
    robert.name = "robert, who was bob";
    ASSERT_EQ(IndxModifyRecordInTable(table_, oldPlace, BlobOf(robert).get()), 1u);
    ASSERT_NE(OffsetOf(table_, 1), static_cast<int64_t>(oldPlace));
    Person other = MakePerson(3);
    other.name = "bob";
    ASSERT_EQ(Add(table_, &other), 1u);
    ASSERT_EQ(other.id, 3u);
    model_ = {{1, robert}, {2, zed}, {3, other}};

    ExpectRefused(
        stale.get(), {{"Failed to delete key", 0}, {"Could not delete keys for record", 0}});
    EXPECT_EQ(FindByName(table_, "bob")->id, 3u);
    EXPECT_EQ(FindByName(table_, "robert, who was bob")->id, 1u);
    // Nor is it modified away.
    Person third = robert;
    third.name = "x";
    EXPECT_EQ(IndxModifyObjectAtCursor(stale.get(), ObjectOf(third).get()), 0u);
    ExpectHolds(table_, model_);
    Reload();
    ExpectHolds(table_, model_);
    MustDelete("Name", 1);
    MustDelete("Name", 3);
    ExpectHolds(table_, model_);
}

// ---- cursors without a copy of their key -----------------------------------------------------

// A find that could not be begun leaves a cursor's place, and the next step leaves it on a key
// without a copy of it. Nothing can be read, changed or deleted there, and nothing may follow what
// is not there.
class DeleteRecordNoSavedKey : public DeleteRecord {
  protected:
    // On a key of the index of names, and without a copy of it.
    void LoseKey(void* oCursor)
    {
        ASSERT_EQ(IndxFirstKey(oCursor), INDX_RESULT_FOUND);
        const Held number(ObjIntegerNew(3));
        ASSERT_EQ(IndxFindKey(oCursor, 0, number.get()), INDX_RESULT_KEY_OBJECT);
        ASSERT_EQ(IndxNextKey(oCursor), INDX_RESULT_KEY_OBJECT);
        ASSERT_EQ(IndxAsCursor(oCursor)->status, INDX_ON_KEY);
        ASSERT_EQ(IndxAsCursor(oCursor)->oKey, nullptr);
    }
    void ExpectNothingThere(void* oCursor)
    {
        const uint32_t none[8] = {};
        const Held object = ObjectOf(MakePerson(60));
        void* out = table_;
        IndxSetError(UNTOUCHED);
        EXPECT_EQ(IndxGetObjectAtCursor(&out, oCursor), 0u);
        EXPECT_EQ(out, nullptr);
        out = table_;
        EXPECT_EQ(IndxGetRecordAtCursor(&out, oCursor), 0u);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(IndxModifyObjectAtCursor(oCursor, object.get()), 0u);
        EXPECT_EQ(IndxError(), UNTOUCHED);
        for (const uint32_t* pSelected : {static_cast<const uint32_t*>(nullptr), none}) {
            IndxSetError(UNTOUCHED);
            EXPECT_EQ(IndxGetPartialRecordAtCursor(&out, oCursor, pSelected), 0u);
            EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
            IndxSetError(UNTOUCHED);
            EXPECT_EQ(IndxGetPartialObjectAtCursor(&out, oCursor, pSelected), 0u);
            EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
        }
        ExpectRefused(oCursor, {{"NULL cursor - no record to delete", 0}});
        uint32_t id = 4711;
        EXPECT_EQ(IndxCursorGetId(&id, oCursor), 0u);
        EXPECT_EQ(id, 4711u);
    }
};

TEST_F(DeleteRecordNoSavedKey, NoOperationAtTheCursorFindsARecord)
{
    AddFirst(5);
    const Cursor cursor(table_, "Name");
    LoseKey(cursor.get());
    ExpectNothingThere(cursor.get());
}

TEST_F(DeleteRecordNoSavedKey, NorWhenTheIndexHasChangedUnderIt)
{
    AddFirst(5);
    const Cursor cursor(table_, "Name");
    LoseKey(cursor.get());
    AddPeople(table_, &model_, 6, 7);
    ASSERT_EQ(IndxAsCursor(cursor.get())->status, INDX_UNTRUSTED);
    ExpectNothingThere(cursor.get());
    // Moved, it stands at an end; there is nothing to search with.
    EXPECT_EQ(IndxNextKey(cursor.get()), INDX_RESULT_NO_KEY);
    ExpectNothingThere(cursor.get());
    LoseKey(cursor.get());
    MustDelete("Id", 3);
    EXPECT_EQ(IndxPreviousKey(cursor.get()), INDX_RESULT_NO_KEY);
    LoseKey(cursor.get());
    MustDelete("Id", 2);
    EXPECT_NE(IndxCurrentKey(cursor.get()), INDX_RESULT_FOUND);
    ExpectNothingThere(cursor.get());
    LoseKey(cursor.get());
    MustDelete("Id", 4);
    EXPECT_NE(IndxNextMatchingKey(cursor.get()), INDX_RESULT_FOUND);
    ExpectNothingThere(cursor.get());
    // A step from an end that was reached this way works as ever.
    EXPECT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(PersonAt(cursor.get())->id, 1u);
}

TEST_F(DeleteRecordNoSavedKey, NorAfterEveryOtherRecordHasGone)
{
    AddFirst(3);
    const Cursor cursor(table_, "Name");
    LoseKey(cursor.get());
    for (uint32_t id = 1; id <= 3; ++id)
        MustDelete("Id", id);
    ExpectNothingThere(cursor.get());
    EXPECT_EQ(IndxNextKey(cursor.get()), INDX_RESULT_NO_KEY);
    ExpectNothingThere(cursor.get());
}

TEST_F(DeleteRecord, ARecordIsDeletedFromAnUntrustedCursorToo)
{
    AddFirst(2);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 1, nullptr), INDX_RESULT_FOUND);
    AddPeople(table_, &model_, 3, 4);
    ASSERT_EQ(IndxAsCursor(cursor.get())->status, INDX_UNTRUSTED);
    EXPECT_EQ(IndxDeleteRecord(cursor.get()), 1u);
    model_.erase(1);
    ExpectHolds(table_, model_);
}

} // namespace
