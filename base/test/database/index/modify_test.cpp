// modify_test.cpp: replacing a record: where the new one goes, what becomes of its keys and its id,
// what is refused and with which words. Deletion is delete_record_test.cpp; what a failing file or
// memory does to both is modify_fault_test.cpp.

#include <gtest/gtest.h>
#include <set>

#include "support/file_calls.h"
#include "support/person_table.h"

namespace {

constexpr const char* TAG = "INDX        ";
constexpr const char* INDEXES[] = {"Id", "Name", "Town", "Age", "Number", "Key"};
constexpr uint32_t RECORDS_END = 0x7fffffff;

class ModifyRecord : public PeopleTest {
  protected:
    // Records 1 to `count`, in the model as well.
    void AddFirst(uint32_t count) { AddPeople(table_, &model_, 1, count + 1); }
    // Replaces the record of an id by this person, whose own id goes into the record.
    NimBool Modify(uint32_t id, const Person& person)
    {
        return IndxModifyRecordInTable(
            table_, static_cast<uint32_t>(OffsetOf(table_, id)), BlobOf(person).get());
    }
    // The same when it is expected to work, with the id that the record has; the model follows.
    void MustModify(uint32_t id, Person person)
    {
        person.id = id;
        ASSERT_EQ(Modify(id, person), 1u) << id;
        model_[id] = person;
    }
    // Where the key of an id in an index leads; -1 when there is none.
    int64_t KeyOffset(const char* field, uint32_t id)
    {
        const Cursor cursor(table_, field);
        for (int32_t code = IndxFirstKey(cursor.get()); code == INDX_RESULT_FOUND;
             code = IndxNextKey(cursor.get())) {
            const IndxKeyInfo* pKey = IndxAsCursor(cursor.get())->oKey;
            if (pKey->recordId == id)
                return pKey->fileOffset;
        }
        return -1;
    }
    void ExpectEveryKeyAt(uint32_t id, int64_t offset)
    {
        for (const char* field : INDEXES)
            EXPECT_EQ(KeyOffset(field, id), offset) << field;
    }
    // A modification that fails: no byte of the records file and no key is another afterwards, in
    // memory and on disk, and the lines are among those that were traced as failures.
    void ExpectRefused(
        const std::function<NimBool()>& modify, const std::vector<const char*>& lines,
        uint32_t error = UNTOUCHED)
    {
        const std::string records = ReadFileBytes(RecordsPath());
        IndxSetError(UNTOUCHED);
        {
            TraceRecorder trace;
            LogRecorder log;
            EXPECT_EQ(modify(), 0u);
            for (const char* line : lines)
                EXPECT_TRUE(trace.has(TAG, 0, -1, line)) << line << "\n" << trace.dump();
            EXPECT_TRUE(log.empty()) << log.dump();
        }
        EXPECT_EQ(IndxError(), error);
        EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
        ExpectHolds(table_, model_);
        Reload();
        ExpectHolds(table_, model_);
    }

    People model_;
};

// ---- where the record goes -------------------------------------------------------------------

TEST_F(ModifyRecord, AShorterOrEqualRecordKeepsItsPlaceAndTheDeadTailItsBytes)
{
    AddFirst(3);
    const std::string before = ReadFileBytes(RecordsPath());
    const auto offset = static_cast<size_t>(OffsetOf(table_, 2));
    const size_t length = U32At(before, offset);

    Person person = MakePerson(70); // as long as before: two digits of a town are not more
    person.town = model_[2].town;
    person.photo.assign(model_[2].photo.size(), 'e');
    MustModify(2, person);
    ExpectEveryKeyAt(2, static_cast<int64_t>(offset));
    EXPECT_EQ(ReadFileBytes(RecordsPath()).size(), before.size());
    const std::string equal = ReadFileBytes(RecordsPath());
    EXPECT_EQ(U32At(equal, offset), length);
    ExpectHolds(table_, model_);

    person.name = "B";
    person.town = "C";
    person.photo.clear();
    MustModify(2, person);
    ExpectEveryKeyAt(2, static_cast<int64_t>(offset));
    const std::string shorter = ReadFileBytes(RecordsPath());
    const size_t newLength = U32At(shorter, offset);
    EXPECT_EQ(newLength, FIXED_SIZE + 4);
    EXPECT_EQ(shorter.substr(0, offset), before.substr(0, offset));
    EXPECT_EQ(shorter.substr(offset + newLength), equal.substr(offset + newLength));
    ExpectHolds(table_, model_);
    // The room behind a record is forgotten with its length: one byte more and it moves.
    person.photo = "x";
    MustModify(2, person);
    ExpectEveryKeyAt(2, static_cast<int64_t>(before.size()));
    Reload();
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, ALongerRecordMovesToTheEndWithEveryKeyAndTheOldBytesStay)
{
    AddFirst(5);
    const std::string before = ReadFileBytes(RecordsPath());
    Person person = model_[2];
    person.photo += "longer";
    MustModify(2, person);
    ExpectEveryKeyAt(2, static_cast<int64_t>(before.size()));
    const std::string after = ReadFileBytes(RecordsPath());
    EXPECT_EQ(after.substr(0, before.size()), before);
    EXPECT_EQ(U32At(after, before.size()), after.size() - before.size());
    ExpectHolds(table_, model_);
    // Dead bytes are not used again, not even by a record that would fit.
    MustModify(3, MakePerson(3, 90, 90));
    EXPECT_EQ(OffsetOf(table_, 3), static_cast<int64_t>(after.size()));
    AddPeople(table_, &model_, 6, 7);
    Reload();
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, TheOnlyRecordOfATableGrowsInPlace)
{
    AddFirst(1);
    MustModify(1, MakePerson(1, 100, 200));
    ExpectEveryKeyAt(1, 0);
    const std::string file = ReadFileBytes(RecordsPath());
    EXPECT_EQ(U32At(file, 0), file.size());
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, FromTheSecondIdOnRecordsMoveEvenWhenTheFirstIsAloneAgain)
{
    AddFirst(2);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 2, nullptr), INDX_RESULT_FOUND);
    ASSERT_EQ(IndxDeleteRecord(cursor.get()), 1u);
    model_.erase(2);
    const int64_t end = static_cast<int64_t>(ReadFileBytes(RecordsPath()).size());
    MustModify(1, MakePerson(1, 100, 200));
    ExpectEveryKeyAt(1, end);
    ExpectHolds(table_, model_);
}

// Ids of the caller's choice that do not raise the highest one leave it at 1.
TEST_F(ModifyRecord, InPlaceGrowthRunsOverTheNextRecordWhileTheHighestIdIs1)
{
    for (const uint32_t id : {0u, 0x90000000u}) {
        void* oTable = OpenPeople(0, id ? "Far" : "Zero");
        Person ada = MakePerson(1);
        ASSERT_EQ(Add(oTable, &ada), 1u);
        const std::string first = ReadFileBytes(RecordsPath(id ? "Far" : "Zero"));
        ASSERT_EQ(IndxSetRecordInTable(id, oTable, BlobOf(MakePerson(2)).get()), 1u);
        ASSERT_EQ(static_cast<IndxTable*>(oTable)->highestId, 1u);
        const std::string both = ReadFileBytes(RecordsPath(id ? "Far" : "Zero"));
        const Person grown = MakePerson(1, 300, 300);
        ASSERT_EQ(IndxModifyRecordInTable(oTable, 0, BlobOf(grown).get()), 1u);
        const std::string after = ReadFileBytes(RecordsPath(id ? "Far" : "Zero"));
        EXPECT_EQ(OffsetOf(oTable, 1), 0);
        EXPECT_EQ(U32At(after, 0), after.size());
        EXPECT_NE(
            after.substr(first.size(), both.size() - first.size()), both.substr(first.size()));
        // The keys know nothing of it.
        EXPECT_EQ(WalkIds(oTable, "Number").size(), 2u);
        ExpectSound(oTable);
    }
}

TEST_F(ModifyRecord, ARecordMayEndExactlyWhereRecordsEndAndNotOneByteBehind)
{
    AddFirst(2);
    Person person = MakePerson(1, 100, 100);
    const auto length = static_cast<uint32_t>(RecordBytes(BlobOf(person).get()).size());
    SetRecordsLength(RECORDS_END - length + 1);
    {
        TraceRecorder trace;
        LogRecorder log;
        EXPECT_EQ(Modify(1, person), 0u);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Error failed to seek to end of file")) << trace.dump();
        EXPECT_TRUE(log.empty());
        EXPECT_EQ(IndxError(), UNTOUCHED);
    }
    ExpectHolds(table_, model_);
    EXPECT_EQ(std::filesystem::file_size(RecordsPath()), RECORDS_END - length + 1);
    // In its place it may still be replaced.
    Person same = model_[1];
    same.age = 33;
    MustModify(1, same);
    ExpectHolds(table_, model_);
    SetRecordsLength(RECORDS_END - length);
    MustModify(1, person);
    ExpectEveryKeyAt(1, RECORDS_END - length);
    EXPECT_EQ(std::filesystem::file_size(RecordsPath()), RECORDS_END);
    ExpectHolds(table_, model_);
    // And no other record moves any more.
    EXPECT_EQ(Modify(2, MakePerson(2, 100, 100)), 0u);
    ExpectHolds(table_, model_);
    Reload();
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, InPlaceGrowthDoesNotPassTheEndOfRecordsEither)
{
    const auto length = static_cast<uint32_t>(RecordBytes(BlobOf(MakePerson(1)).get()).size());
    SetRecordsLength(RECORDS_END - length - 10);
    AddFirst(1);
    Person longer = MakePerson(1);
    longer.photo += std::string(11, 'x');
    {
        TraceRecorder trace;
        EXPECT_EQ(Modify(1, longer), 0u);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Error failed to seek to write position"));
        EXPECT_EQ(IndxError(), UNTOUCHED);
    }
    ExpectHolds(table_, model_);
    longer.photo.pop_back();
    MustModify(1, longer);
    EXPECT_EQ(std::filesystem::file_size(RecordsPath()), RECORDS_END);
    ExpectHolds(table_, model_);
}

// ---- ids -------------------------------------------------------------------------------------

TEST_F(ModifyRecord, ANewRecordOfId0TakesTheOldId)
{
    AddFirst(3);
    Person person = MakePerson(50);
    person.id = 0;
    const Held blob = BlobOf(person);
    ASSERT_EQ(
        IndxModifyRecordInTable(table_, static_cast<uint32_t>(OffsetOf(table_, 2)), blob.get()),
        1u);
    // Id and length are stamped into the caller's record as well.
    EXPECT_EQ(U32At(RecordBytes(blob.get()), 4), 2u);
    EXPECT_EQ(U32At(RecordBytes(blob.get()), 0), RecordBytes(blob.get()).size());
    model_[2] = person;
    model_[2].id = 2;
    ExpectHolds(table_, model_);
    // The id comes before the keys, the length behind them.
    person = MakePerson(3); // whose name is taken
    person.id = 0;
    const Held refused = BlobOf(person);
    EXPECT_EQ(
        IndxModifyRecordInTable(table_, static_cast<uint32_t>(OffsetOf(table_, 2)), refused.get()),
        0u);
    EXPECT_EQ(U32At(RecordBytes(refused.get()), 4), 2u);
    EXPECT_EQ(U32At(RecordBytes(refused.get()), 0), 0u);
}

TEST_F(ModifyRecord, AnotherIdIsRefusedWithError33AndNothingChanges)
{
    AddFirst(3);
    for (const uint32_t id : {1u, 3u, 4711u, 0xfffffff0u}) {
        Person person = MakePerson(50);
        person.id = id;
        const std::string line =
            "Old Id 2 does not match new Id " + std::to_string(static_cast<int32_t>(id));
        ExpectRefused([&] { return Modify(2, person); }, {line.c_str()}, INDX_ERROR_ID_MISMATCH);
    }
}

TEST_F(ModifyRecord, AnotherIdBacksNothingOut)
{
    AddFirst(2);
    // A record of which only the keys are in memory so far.
    const Person added = MakePerson(7);
    const Held blob = BlobOf(added);
    ASSERT_EQ(IndxAddRecord(7, table_, &static_cast<DbBlob*>(blob.get())->data), 1u);
    Person person = MakePerson(50);
    person.id = 4711;
    EXPECT_EQ(Modify(2, person), 0u);
    ASSERT_EQ(IndxUpdateTable(table_), 1u);
    model_[7] = added;
    ExpectHolds(table_, model_);
}

// ---- keys ------------------------------------------------------------------------------------

TEST_F(ModifyRecord, EveryKeyFollowsItsValue)
{
    AddFirst(20);
    for (uint32_t id = 1; id <= 20; ++id)
        MustModify(id, MakePerson(1000 - id));
    ExpectHolds(table_, model_);
    EXPECT_FALSE(FindByName(table_, *MakePerson(3).name));
    EXPECT_TRUE(FindByName(table_, *MakePerson(997).name));
    // And back: values that others have just given up can be taken.
    for (uint32_t id = 1; id <= 20; ++id)
        MustModify(id, MakePerson(id % 20 + 1));
    Reload();
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, TheSameRecordAgainChangesNothing)
{
    AddFirst(10);
    const std::string records = ReadFileBytes(RecordsPath());
    for (uint32_t id = 1; id <= 10; ++id)
        MustModify(id, model_[id]);
    EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, AValueThatAnotherRecordHasIsRefusedInAUniqueIndex)
{
    AddFirst(4);
    // Name is the second index, Key the last: of that one every other key has moved already.
    Person byName = MakePerson(60);
    byName.name = model_[3].name;
    ExpectRefused([&] { return Modify(2, byName); }, {"Error failed to insert new key"});
    Person byKey = MakePerson(60, 200);
    byKey.key = model_[3].key;
    ExpectRefused([&] { return Modify(2, byKey); }, {"Error failed to insert new key"});
}

TEST_F(ModifyRecord, AnAbsentTextIsRefusedAndTheOnlyRecordKeepsItsKeys)
{
    AddFirst(1);
    Person nameless = MakePerson(60);
    nameless.name.reset();
    ExpectRefused([&] { return Modify(1, nameless); }, {"Error failed to insert new key"});
    // The roots are as before: the record can be replaced, and others added.
    MustModify(1, MakePerson(61));
    AddPeople(table_, &model_, 2, 4);
    Reload();
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, ATextLongerThanItsIndexAllowsIsRefused)
{
    AddFirst(3);
    ExpectRefused(
        [&] { return Modify(2, MakePerson(2, 8168)); }, {"Error failed to insert new key"});
    MustModify(2, MakePerson(2, 8167)); // with its NUL the longest there is
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, AKeyThatHasGoneFailsTheModification)
{
    AddFirst(3);
    {
        const Cursor cursor(table_, "Name");
        const Held blob = BlobOf(model_[2]);
        ASSERT_EQ(
            IndxDeleteKey(IndxAsCursor(cursor.get()), &static_cast<DbBlob*>(blob.get())->data), 1u);
        ASSERT_EQ(IndxUpdateTable(table_), 1u);
    }
    const std::string records = ReadFileBytes(RecordsPath());
    IndxSetError(UNTOUCHED);
    TraceRecorder trace;
    EXPECT_EQ(Modify(2, MakePerson(60)), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Error failed to delete old key")) << trace.dump();
    EXPECT_FALSE(trace.hasPart("insert new key")); // not tried
    EXPECT_EQ(IndxError(), UNTOUCHED);
    EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
    EXPECT_EQ(WalkIds(table_, "Id").size(), 3u); // the id's key, first in turn, is back
    EXPECT_EQ(WalkIds(table_, "Name").size(), 2u);
    EXPECT_EQ(WalkIds(table_, "Age").size(), 3u);
    ExpectSound(table_);
}

// A field counts as indexed in an add and a modification when its flag is not 0, in a deletion when
// it is exactly 1.
TEST_F(ModifyRecord, AFlagThatIsNeither0Nor1GetsKeysOnAddAndModifyButKeepsThemOnDelete)
{
    IndxField* pKey = Field(table_, 5);
    for (const uint32_t flag : {2u, 0xffffffffu}) {
        pKey->bIndexed = flag;
        Person person = MakePerson(flag & 15);
        ASSERT_EQ(Add(table_, &person), 1u);
        ASSERT_EQ(WalkIds(table_, "Key").back(), person.id);
        const std::array<uint8_t, 32> first = person.key;
        person.key.fill(static_cast<uint8_t>(flag));
        ASSERT_EQ(Modify(person.id, person), 1u);
        const size_t keys = WalkIds(table_, "Key").size();
        const Cursor cursor(table_, "Id");
        ASSERT_EQ(IndxFindKey(cursor.get(), person.id, nullptr), INDX_RESULT_FOUND);
        ASSERT_EQ(IndxDeleteRecord(cursor.get()), 1u);
        EXPECT_TRUE(WalkIds(table_, "Id").empty());
        EXPECT_TRUE(WalkIds(table_, "Name").empty());
        EXPECT_EQ(WalkIds(table_, "Key").size(), keys);
        // The value cannot be had again, since the index is unique; the first one can.
        Person again = MakePerson(100 + flag % 16);
        again.key = person.key;
        EXPECT_EQ(Add(table_, &again), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_UPDATE);
        again.key = first;
        EXPECT_EQ(Add(table_, &again), 1u);
        pKey->bIndexed = 1;
        ASSERT_EQ(IndxFindKey(cursor.get(), again.id, nullptr), INDX_RESULT_FOUND);
        ASSERT_EQ(IndxDeleteRecord(cursor.get()), 1u);
        ExpectSound(table_);
    }
}

// ---- cursors ---------------------------------------------------------------------------------

TEST_F(ModifyRecord, ACursorAfterAMoveKeepsTheOldPlaceUntilItIsFoundAgain)
{
    AddFirst(3);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 2, nullptr), INDX_RESULT_FOUND);
    const int64_t first = OffsetOf(table_, 2);
    const int64_t end = static_cast<int64_t>(ReadFileBytes(RecordsPath()).size());
    Person longer = model_[2];
    longer.photo += "longer";
    ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(longer).get()), 1u);
    EXPECT_EQ(IndxAsCursor(cursor.get())->status, INDX_UNTRUSTED);
    EXPECT_EQ(IndxAsCursor(cursor.get())->oKey->fileOffset, first);
    EXPECT_EQ(OffsetOf(table_, 2), end);
    // With unchanged keys a second modification is written back to the old place.
    Person back = model_[2];
    back.alive = !back.alive;
    ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(back).get()), 1u);
    model_[2] = back;
    ExpectEveryKeyAt(2, first);
    ExpectHolds(table_, model_);
    // Found again, the cursor is where the record is.
    ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(longer).get()), 1u);
    ASSERT_EQ(IndxCurrentKey(cursor.get()), INDX_RESULT_FOUND);
    const auto moved = static_cast<int64_t>(IndxAsCursor(cursor.get())->oKey->fileOffset);
    EXPECT_EQ(moved, OffsetOf(table_, 2));
    ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(longer).get()), 1u);
    model_[2] = longer;
    ExpectEveryKeyAt(2, moved);
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, WithChangedKeysASecondModificationThroughTheSameCursorFails)
{
    AddFirst(3);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 2, nullptr), INDX_RESULT_FOUND);
    Person renamed = MakePerson(60, 200);
    renamed.id = 2;
    ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(renamed).get()), 1u);
    model_[2] = renamed;
    {
        TraceRecorder trace;
        EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(renamed).get()), 0u);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Error failed to delete old key")) << trace.dump();
    }
    EXPECT_EQ(IndxError(), UNTOUCHED);
    ExpectHolds(table_, model_);
    ASSERT_EQ(IndxCurrentKey(cursor.get()), INDX_RESULT_FOUND);
    renamed.age = 77;
    ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(renamed).get()), 1u);
    model_[2] = renamed;
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, AnObjectAtACursorIsModifiedThroughAnyIndex)
{
    AddFirst(6);
    uint32_t n = 500;
    for (const char* field : INDEXES) {
        const Cursor cursor(table_, field);
        ASSERT_EQ(IndxLastKey(cursor.get()), INDX_RESULT_FOUND);
        uint32_t id = 0;
        IndxCursorGetId(&id, cursor.get());
        Person person = MakePerson(++n);
        person.id = n % 2 ? id : 0;
        ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(person).get()), 1u) << field;
        person.id = id;
        model_[id] = person;
    }
    ExpectHolds(table_, model_);
}

// ---- arguments -------------------------------------------------------------------------------

TEST_F(ModifyRecord, AnObjectAtACursorIsRefusedWithoutAMessageWhenAnArgumentIsUnusable)
{
    AddFirst(1);
    const Cursor cursor(table_, "Id");
    const Held object = ObjectOf(model_[1]);
    Instance pointer(MAGIC, "i;p;");
    TraceRecorder trace(-1);
    EXPECT_EQ(IndxModifyObjectAtCursor(nullptr, object.get()), 0u);
    EXPECT_EQ(IndxModifyObjectAtCursor(table_, object.get()), 0u);
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), object.get()), 0u); // holds no key
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), nullptr), 0u);
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), pointer.get()), 0u); // cannot be encoded
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    EXPECT_EQ(IndxError(), UNTOUCHED);
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, AnObjectOfAnotherTypeAtACursorIsRefusedWhateverItsId)
{
    AddFirst(1);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    for (int32_t id : {0, 1}) {
        Instance other(MAGIC, FORMAT);
        other.at<int32_t>(0) = id;
        other.setText(1, "name");
        IndxSetError(UNTOUCHED);
        EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), other.get()), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_RECORD_TYPE);
    }
    // Too short for an id to be looked for.
    Instance shorter(PERSON_MAGIC, "i;");
    IndxSetError(UNTOUCHED);
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), shorter.get()), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, WhatIsNoRecordOfTheTableIsRefused)
{
    AddFirst(1);
    const Held object = ObjectOf(model_[1]);
    const Held blob = BlobOf(model_[1]);
    EXPECT_EQ(IndxModifyRecordInTable(nullptr, 0, blob.get()), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
    IndxSetError(UNTOUCHED);
    EXPECT_EQ(IndxModifyRecordInTable(database(), 0, blob.get()), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
    const char* line = "Not a record of this table";
    ExpectRefused(
        [&] { return IndxModifyRecordInTable(table_, 0, nullptr); }, {line}, INDX_ERROR_ARGUMENT);
    ExpectRefused(
        [&] { return IndxModifyRecordInTable(table_, 0, object.get()); }, {line},
        INDX_ERROR_ARGUMENT);
    const Held cut = MakeBlob(PERSON_MAGIC, FORMAT, std::string(FIXED_SIZE - 1, '\0'));
    ExpectRefused(
        [&] { return IndxModifyRecordInTable(table_, 0, cut.get()); }, {line}, INDX_ERROR_ARGUMENT);
    static_cast<DbBlob*>(blob.get())->magic = MAGIC;
    static_cast<DbBlob*>(cut.get())->magic = MAGIC; // the type comes first
    const char* types =
        "Record of type (magic 0xca111111) for table 'People', which holds type (magic 0xca222222)";
    for (const Held* pRecord : {&blob, &cut}) {
        ExpectRefused(
            [&] { return IndxModifyRecordInTable(table_, 0, pRecord->get()); },
            {"Magic ca111111 does not match ca222222", types}, INDX_ERROR_RECORD_TYPE);
    }
}

// ---- what is read and written ----------------------------------------------------------------

TEST_F(ModifyRecord, TheRecordIsWrittenFirstThenEachNodeOnceAndTheControlBlockLast)
{
    const auto writes = [&](const std::function<void()>& modify) {
        FileCalls calls;
        modify();
        std::vector<std::pair<std::string, int64_t>> result;
        for (const FileCalls::Call& call : calls.calls()) {
            if (call.op == FILE_OP_WRITE)
                result.emplace_back(call.path, call.offset);
        }
        return result;
    };
    // The only record's keys empty each index and make a new root, which the description tells.
    AddFirst(1);
    const auto only = writes([&] { MustModify(1, MakePerson(60, 200)); });
    ASSERT_GT(only.size(), 2u);
    EXPECT_EQ(only.front(), (std::pair<std::string, int64_t>(RecordsPath(), 0)));
    EXPECT_EQ(only.back(), (std::pair<std::string, int64_t>(BlocksPath(), 0)));
    for (size_t i = 2; i < only.size() - 1; ++i)
        EXPECT_LT(only[i - 1].second, only[i].second);
    // Otherwise the description stays as it is: one node for each of the six indexes.
    AddPeople(table_, &model_, 2, 10);
    const auto records = static_cast<int64_t>(ReadFileBytes(RecordsPath()).size());
    const auto many = writes([&] { MustModify(3, MakePerson(61, 200)); });
    EXPECT_EQ(many.front(), (std::pair<std::string, int64_t>(RecordsPath(), records)));
    std::set<int64_t> blocks;
    for (size_t i = 1; i < many.size(); ++i) {
        EXPECT_EQ(many[i].first, BlocksPath());
        EXPECT_LT(i > 1 ? many[i - 1].second : 0, many[i].second);
        blocks.insert(many[i].second / 16384);
    }
    EXPECT_EQ(blocks.size(), 6u);
    ExpectHolds(table_, model_);
}

TEST_F(ModifyRecord, TheOldVariableDataIsReadOnlyWhereATextIndexNeedsIt)
{
    AddFirst(2);
    const auto reads = [&](const std::string& path, const FileCalls& calls) {
        size_t n = 0;
        for (const FileCalls::Call& call : calls.calls())
            n += call.op == FILE_OP_READ && call.path == path;
        return n;
    };
    {
        const Held blob = BlobOf(MakePerson(60));
        FileCalls calls;
        TraceRecorder trace;
        ASSERT_EQ(IndxModifyRecordInTable(table_, 0, blob.get()), 1u);
        EXPECT_EQ(reads(RecordsPath(), calls), 4u);
        // The flags of the indexed fields stand in for a selection.
        EXPECT_TRUE(trace.hasPart(Hex(table_) + ", 0, " + Hex(table()->indexedFlags.data) + ")"))
            << trace.dump();
    }
    void* oTable = OpenTable(
        "Plain", PERSON_MAGIC, FORMAT, "Id,Name,Town,Age;Indexed,Number;Indexed,Key,Photo,Alive");
    Person person = MakePerson(1);
    ASSERT_EQ(Add(oTable, &person), 1u);
    person = MakePerson(2, 100);
    {
        const Held blob = BlobOf(person);
        FileCalls calls;
        ASSERT_EQ(IndxModifyRecordInTable(oTable, 0, blob.get()), 1u);
        EXPECT_EQ(reads(RecordsPath("Plain"), calls), 1u);
    }
    person.id = 1;
    EXPECT_EQ(FindById(oTable, 1), person);
    ExpectSound(oTable);
}

// Keys of the unique ids alone count as a text kind: their old values lie in the fixed part all the
// same.
TEST_F(ModifyRecord, ATableWithoutVariableFieldsIsModified)
{
    const char* format = "i;u;q;";
    void* oTable = OpenTable("Fixed", MAGIC, format, "Id,Key;Indexed;Unique,Number;Indexed");
    ASSERT_NE(oTable, nullptr);
    for (int32_t n = 1; n <= 3; ++n) {
        Instance object(MAGIC, format);
        object.at<UniqueId>(1).b[0] = static_cast<uint8_t>(n);
        object.at<int64_t>(2) = -n;
        ASSERT_EQ(IndxAddObjectToTable(nullptr, oTable, object.get()), 1u);
    }
    const Cursor cursor(oTable, "Key");
    for (int32_t code = IndxFirstKey(cursor.get()); code == INDX_RESULT_FOUND;
         code = IndxNextKey(cursor.get())) {
        Held object;
        ASSERT_EQ(IndxGetObjectAtCursor(object.out(), cursor.get()), 1u);
        Item<UniqueId>(object.get(), 1).b[31] = 9; // stays in order
        Item<int64_t>(object.get(), 2) *= 2;
        ASSERT_EQ(IndxModifyObjectAtCursor(cursor.get(), object.get()), 1u);
    }
    EXPECT_EQ(WalkIds(oTable, "Number"), (std::vector<uint32_t>{3, 2, 1}));
    EXPECT_EQ(std::filesystem::file_size(RecordsPath("Fixed")), 3u * 48u);
    ExpectSound(oTable);
}

// ---- lengths -----------------------------------------------------------------------------------

TEST_F(ModifyRecord, TheWholeOldLengthCountsThoughOnlyTheFixedPartIsRead)
{
    void* oTable = OpenTable("Texts", MAGIC, "i;s;", "Id,S");
    const auto record = [](const std::string& value, uint32_t id) {
        Instance object(MAGIC, "i;s;");
        object.at<uint32_t>(0) = id;
        object.setText(1, value);
        return Encoded(object.get());
    };
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(
            IndxAddRecordToTable(nullptr, oTable, record(std::string(100, 'a'), 0).get()), 1u);
    TraceRecorder trace;
    EXPECT_EQ(IndxModifyRecordInTable(oTable, 0, record(std::string(100, 'b'), 1).get()), 1u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "There are 0 bytes of variable data")) << trace.dump();
    EXPECT_EQ(OffsetOf(oTable, 1), 0);
    EXPECT_EQ(IndxModifyRecordInTable(oTable, 0, record(std::string(101, 'c'), 1).get()), 1u);
    EXPECT_EQ(OffsetOf(oTable, 1), 2 * 116 + 2); // 16, 100 and a NUL each
}

TEST_F(ModifyRecord, LengthsAreComparedWithTheirSigns)
{
    void* oTable = OpenTable("Fixed", MAGIC, "i;i;", "Id,A");
    const auto record = [](uint32_t id) {
        Instance object(MAGIC, "i;i;");
        object.at<uint32_t>(0) = id;
        return Encoded(object.get());
    };
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(IndxAddRecordToTable(nullptr, oTable, record(0).get()), 1u);
    Close();
    std::string bytes = ReadFileBytes(RecordsPath("Fixed"));
    PutU32At(bytes, 0, 0x80000010); // whatever comes is longer
    WriteFileBytes(RecordsPath("Fixed"), bytes);
    Reload();
    oTable = OpenTable("Fixed", MAGIC, "i;i;", "Id,A");
    EXPECT_EQ(IndxModifyRecordInTable(oTable, 0, record(1).get()), 1u);
    EXPECT_EQ(OffsetOf(oTable, 1), 32);
}

TEST_F(ModifyRecord, InATableThatHasIssuedNoIdALongerRecordMoves)
{
    const uint32_t id = 0x90000000; // raises no highest id
    ASSERT_EQ(IndxSetRecordInTable(id, table_, BlobOf(MakePerson(1)).get()), 1u);
    ASSERT_EQ(table()->highestId, 0u);
    const auto size = static_cast<int64_t>(std::filesystem::file_size(RecordsPath()));
    Person longer = MakePerson(1, 200);
    longer.id = id;
    EXPECT_EQ(Modify(id, longer), 1u);
    EXPECT_EQ(OffsetOf(table_, id), size);
}

} // namespace
