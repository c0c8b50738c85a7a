// modify_fault_test.cpp: what failing seeks, reads, writes and allocations do to a modification and
// a deletion. The keys are as before or as after, never in between; of the records file only the
// record that was being modified may be lost, and that only by a write in its own place.

#include <gtest/gtest.h>

#include "database/indexwrappers.h"
#include "support/armed_fault.h"
#include "support/person_table.h"
#include "support/quiet_trace.h"

namespace {

constexpr const char* TAG = "INDX        ";

class ModifyFault : public PeopleTest {
  protected:
    void SetUp() override
    {
        PeopleTest::SetUp();
        AddPeople(table_, &model_, 1, 9);
    }
    NimBool Modify(uint32_t id, Person person)
    {
        person.id = id;
        return IndxModifyRecordInTable(
            table_, static_cast<uint32_t>(OffsetOf(table_, id)), BlobOf(person).get());
    }
    NimBool Delete(uint32_t id)
    {
        const Cursor cursor(table_, "Id");
        EXPECT_EQ(IndxFindKey(cursor.get(), id, nullptr), INDX_RESULT_FOUND);
        return IndxDeleteRecord(cursor.get());
    }
    // A modification during which one call on the records file fails. The rule is armed behind the
    // look-up of the record.
    NimBool ModifyWithFault(uint32_t id, Person person, const FaultRule& rule)
    {
        person.id = id;
        const auto offset = static_cast<uint32_t>(OffsetOf(table_, id));
        const Held blob = BlobOf(person);
        const uint32_t ruleId = FaultArm(&rule);
        const NimBool bModified = IndxModifyRecordInTable(table_, offset, blob.get());
        EXPECT_EQ(FaultHits(ruleId), 1u);
        FaultDisarmAll();
        return bModified;
    }
    void ExpectUnchanged(const std::string& records)
    {
        EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
        ExpectHolds(table_, model_);
        Reload();
        ExpectHolds(table_, model_);
    }
    Person Shorter() const { return MakePerson(60); }
    Person Longer() const { return MakePerson(61, 300); }

    People model_;
};

TEST_F(ModifyFault, ASeekToTheOldPlaceThatFailsIsBackedOutWithoutACode)
{
    Person same = model_[3];
    same.age = 80;
    const std::string records = ReadFileBytes(RecordsPath());
    TraceRecorder trace;
    LogRecorder log;
    // The first seek is to the old record, to be read.
    EXPECT_EQ(ModifyWithFault(3, same, {FAULT_SEEK, "Records", 2, 1, FAULT_FAIL, 0}), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Error failed to seek to write position")) << trace.dump();
    EXPECT_TRUE(trace.hasPart("Failed to modify record 3 at ")) << trace.dump();
    EXPECT_EQ(trace.countLevel(-1), 2u) << trace.dump();
    EXPECT_FALSE(trace.hasPart("IndxDeletetKey")); // no key was touched
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(IndxError(), UNTOUCHED);
    ExpectUnchanged(records);
}

TEST_F(ModifyFault, ASeekToTheEndThatFailsIsBackedOutWithoutACode)
{
    const std::string records = ReadFileBytes(RecordsPath());
    for (const uint32_t point : {FAULT_SEEKEND, FAULT_GETOFFSET}) {
        TraceRecorder trace;
        LogRecorder log;
        EXPECT_EQ(ModifyWithFault(3, Longer(), {point, "Records", 1, 1, FAULT_FAIL, 0}), 0u);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Error failed to seek to end of file")) << trace.dump();
        EXPECT_TRUE(trace.hasPart("Failed to modify record 3 at ")) << trace.dump();
        EXPECT_EQ(trace.countLevel(-1), 2u) << trace.dump();
        EXPECT_TRUE(log.empty());
        EXPECT_EQ(IndxError(), UNTOUCHED);
        ExpectUnchanged(records);
    }
}

// The room is asked for before anything is written: the failure of a write goes unnoticed.
TEST_F(ModifyFault, ADiskWithoutRoomForALongerRecordIsMetBeforeAnyKey)
{
    const std::string records = ReadFileBytes(RecordsPath());
    TraceRecorder trace;
    LogRecorder log;
    EXPECT_EQ(ModifyWithFault(3, Longer(), {FAULT_RESERVE, "Records", 1, 1, FAULT_FAIL, 0}), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Error failed to seek to end of file")) << trace.dump();
    EXPECT_TRUE(trace.hasPart("Failed to modify record 3 at ")) << trace.dump();
    EXPECT_EQ(trace.countLevel(-1), 2u) << trace.dump();
    EXPECT_FALSE(trace.hasPart("IndxDeletetKey"));
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(IndxError(), UNTOUCHED);
    ExpectUnchanged(records);
}

TEST_F(ModifyFault, ADiskWithoutRoomForTheOnlyRecordToGrowIsMetBeforeAnyKey)
{
    void* oOther = OpenPeople(0, "Other");
    People other;
    AddPeople(oOther, &other, 1, 2);
    Person longer = Longer();
    longer.id = 1;
    const Held blob = BlobOf(longer);
    {
        const QuietTrace quiet;
        const ArmedFault fault(FAULT_RESERVE);
        EXPECT_EQ(IndxModifyRecordInTable(oOther, 0, blob.get()), 0u);
        EXPECT_EQ(fault.hits(), 1u);
    }
    ExpectHolds(oOther, other);
    EXPECT_EQ(IndxModifyRecordInTable(oOther, 0, blob.get()), 1u);
    ExpectHolds(oOther, {{1, longer}});
}

TEST_F(ModifyFault, WhatFitsInItsPlaceAsksForNoRoom)
{
    Person same = model_[3];
    same.age = 80;
    same.id = 3;
    const ArmedFault fault(FAULT_RESERVE, 1, 0);
    EXPECT_EQ(IndxModifyObject(table_, ObjectOf(same).get()), 1u);
    EXPECT_EQ(fault.hits(), 0u);
    EXPECT_EQ(FindById(table_, 3), same);
}

TEST_F(ModifyFault, AnOldRecordThatCannotBeReadFailsTheModificationBeforeAnyKey)
{
    struct {
        FaultRule rule;
        uint32_t error;
    } const cases[] = {
        {{FAULT_SEEK, "Records", 1, 1, FAULT_FAIL, 0}, INDX_ERROR_SEEK},
        {{FAULT_READ, "Records", 1, 1, FAULT_FAIL, 0}, INDX_ERROR_READ},
        {{FAULT_READ, "Records", 1, 1, FAULT_SHORT, 20}, INDX_ERROR_READ},
        {{FAULT_READ, "Records", 3, 1, FAULT_FAIL, 0}, INDX_ERROR_READ},
    };
    const std::string records = ReadFileBytes(RecordsPath());
    for (const auto& c : cases) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        EXPECT_EQ(ModifyWithFault(3, Longer(), c.rule), 0u);
        EXPECT_EQ(IndxError(), c.error);
        EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump(); // the partial read's own line
        EXPECT_FALSE(trace.hasPart("IndxDeletetKey"));
        ExpectUnchanged(records);
    }
}

// ---- the narrow test of the write ------------------------------------------------------------

TEST_F(ModifyFault, AWriteThatFailsAndClaimsToHaveMovedEverythingIsLoggedWith1308)
{
    const std::string records = ReadFileBytes(RecordsPath());
    TraceRecorder trace;
    LogRecorder log;
    EXPECT_EQ(ModifyWithFault(3, Longer(), {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_FULL, 0}), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Error writing out modified record")) << trace.dump();
    EXPECT_TRUE(log.has(1308, 96, "Failed to write modified record in table 'People'"))
        << log.dump();
    EXPECT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(IndxError(), INDX_ERROR_UPDATE);
    // The keys are as before; what was written behind the records stays.
    EXPECT_EQ(ReadFileBytes(RecordsPath()).substr(0, records.size()), records);
    ExpectHolds(table_, model_);
    Reload();
    ExpectHolds(table_, model_);
}

TEST_F(ModifyFault, InPlaceTheBytesOfSuchAWriteAreNotUndone)
{
    Person same = model_[3];
    same.age = 80;
    EXPECT_EQ(ModifyWithFault(3, same, {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_FULL, 0}), 0u);
    // The record has its new age, its key the old one.
    EXPECT_EQ(FindById(table_, 3)->age, 80);
    const Cursor cursor(table_, "Age");
    const Held old(ObjIntegerNew(model_[3].age));
    EXPECT_EQ(IndxFindKey(cursor.get(), 3, old.get()), INDX_RESULT_FOUND);
    ExpectSound(table_);
    model_.erase(3);
    for (const auto& [id, person] : model_)
        EXPECT_EQ(FindById(table_, id), person);
}

// Kept: only a failure with a full count counts.
TEST_F(ModifyFault, EveryOtherFailureOfTheWriteGoesUnnoticed)
{
    const FaultRule rules[] = {
        {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL, 0},
        {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_AFTER, 30},
        {FAULT_WRITE, "Records", 1, 1, FAULT_SHORT, 30},
    };
    uint32_t id = 0;
    for (const FaultRule& rule : rules) {
        ++id;
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        LogRecorder log;
        Person person = Longer();
        person.name = "Number " + std::to_string(id) + *person.name;
        person.key[0] = static_cast<uint8_t>(id);
        const std::string before = ReadFileBytes(RecordsPath());
        EXPECT_EQ(ModifyWithFault(id, person, rule), 1u);
        EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
        EXPECT_TRUE(log.empty()) << log.dump();
        EXPECT_EQ(IndxError(), UNTOUCHED);
        // The keys have gone to a record that is not there, or not whole.
        EXPECT_EQ(OffsetOf(table_, id), static_cast<int64_t>(before.size()));
        EXPECT_LE(ReadFileBytes(RecordsPath()).size(), before.size() + 30);
        const QuietTrace quiet;
        EXPECT_FALSE(FindById(table_, id));
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
        model_.erase(id);
    }
    // Only the records that were being modified are lost.
    ExpectSound(table_);
    for (const auto& [other, person] : model_)
        EXPECT_EQ(FindById(table_, other), person);
}

// The keys of a record whose write failed lead to where the next added record begins. Whoever
// deletes or modifies the lost record must not change that one.
TEST_F(ModifyFault, ARecordThatWasAddedInThePlaceOfALostOneIsNotTakenForIt)
{
    EXPECT_EQ(ModifyWithFault(3, Longer(), {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL, 0}), 1u);
    model_.erase(3);
    AddPeople(table_, &model_, 70, 71, 400); // longer, so that nothing would have to move
    const uint32_t added = model_.rbegin()->first;
    ASSERT_EQ(OffsetOf(table_, 3), OffsetOf(table_, added));
    const std::string records = ReadFileBytes(RecordsPath());

    IndxSetError(UNTOUCHED);
    {
        TraceRecorder trace;
        EXPECT_EQ(Delete(3), 0u);
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Lost record")) << trace.dump();
        EXPECT_FALSE(trace.hasPart("IndxDeletetKey"));
    }
    EXPECT_EQ(IndxError(), UNTOUCHED);
    {
        const QuietTrace quiet;
        const Cursor cursor(table_, "Id");
        ASSERT_EQ(IndxFindKey(cursor.get(), 3, nullptr), INDX_RESULT_FOUND);
        Person person = Shorter(); // of id 0: that of the record it replaces
        EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), ObjectOf(person).get()), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_ID_MISMATCH);
        person.id = 3;
        EXPECT_EQ(IndxModifyObject(table_, ObjectOf(person).get()), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_ID_MISMATCH);
    }
    EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
    for (int reopened = 0; reopened < 2; ++reopened) {
        for (const auto& [id, person] : model_) {
            EXPECT_EQ(FindById(table_, id), person);
            ExpectFoundByEveryValue(table_, person);
        }
        ExpectSound(table_);
        Reload();
    }
}

// ---- the description -------------------------------------------------------------------------

TEST_F(ModifyFault, ADescriptionThatCannotBeStoredFailsTheOperationThoughItIsDone)
{
    for (uint32_t id = 2; id <= 8; ++id)
        ASSERT_EQ(Delete(id), 1u);
    // The only record: its key leaves each index and makes a new root.
    TraceRecorder trace(-1);
    LogRecorder log;
    EXPECT_EQ(ModifyWithFault(1, Longer(), {FAULT_SERIALIZE, nullptr, 1, 1, FAULT_FAIL, 0}), 0u);
    EXPECT_TRUE(log.has(1301, 96, "Failed to update table 'People'")) << log.dump();
    EXPECT_EQ(FindById(table_, 1)->name, Longer().name);
    Person longer = Longer();
    longer.id = 1;
    ExpectHolds(table_, {{1, longer}});
}

// ---- every call in turn ----------------------------------------------------------------------

// The n-th call of a point fails, for every n. Whatever the result: the keys are those of the old
// record or those of the new one, all of them, and every other record is as it was.
class ModifyFaultSweep : public ModifyFault {
  protected:
    static constexpr uint32_t MORE = 400; // calls no operation here makes

    // What the table holds of a record after an operation that may have failed.
    enum class After { Old, New };

    void SetUp() override
    {
        ModifyFault::SetUp();
        // Some nodes, so that a change of keys splits and empties some.
        AddPeople(table_, &model_, 9, 60, 900, 900);
    }
    // The state that the ids' index tells: a record of this name, or none when `name` is empty.
    bool Is(uint32_t id, const std::optional<Person>& person)
    {
        const std::optional<Person> found = FindById(table_, id);
        return person ? found && found->name == person->name : !found;
    }
    void Sweep(
        uint32_t point, const char* pathPart, uint32_t times,
        const std::function<std::optional<Person>(uint32_t)>& wanted)
    {
        const QuietTrace quiet;
        const LogRecorder log;
        uint32_t n = 1;
        for (uint32_t id = 9; n < MORE; ++n) {
            const std::optional<Person> target = wanted(n);
            const Held object = target ? ObjectOf(*target) : Held();
            const Cursor cursor(table_, "Id");
            ASSERT_EQ(IndxFindKey(cursor.get(), id, nullptr), INDX_RESULT_FOUND);
            const FaultRule rule = {point, pathPart, n, times, FAULT_FAIL, 0};
            const uint32_t ruleId = FaultArm(&rule);
            const NimBool bDone = target ? IndxModifyObjectAtCursor(cursor.get(), object.get())
                                         : IndxDeleteRecord(cursor.get());
            const uint32_t hits = FaultHits(ruleId);
            FaultDisarmAll();
            const bool bNew = Is(id, target);
            ASSERT_TRUE(bNew || !bDone) << n << ": said that it is done";
            ASSERT_TRUE(bNew || Is(id, model_[id])) << n;
            if (bNew && target) {
                model_[id] = *target;
                model_[id].id = id;
            } else if (bNew) {
                model_.erase(id);
                id = model_.lower_bound(9)->first;
            }
            ASSERT_NO_FATAL_FAILURE(ExpectHolds(table_, model_)) << n;
            if (!hits) {
                ASSERT_TRUE(bDone);
                break;
            }
        }
        EXPECT_GT(n, 1u);
        EXPECT_LT(n, MORE);
        Reload();
        ExpectHolds(table_, model_);
    }
    // Another person for every round, longer and shorter in turn.
    static std::optional<Person> Another(uint32_t n)
    {
        return MakePerson(1000 + n, n % 2 ? 1500 : 20, n % 3 ? 40 : 1200);
    }
    static std::optional<Person> Nobody(uint32_t) { return std::nullopt; }
};

TEST_F(ModifyFaultSweep, NoMemoryOnceInAModification)
{
    Sweep(FAULT_ALLOC, nullptr, 1, Another);
}
TEST_F(ModifyFaultSweep, NoMemoryAnyMoreInAModification)
{
    Sweep(FAULT_ALLOC, nullptr, 0, Another);
}
TEST_F(ModifyFaultSweep, NoMemoryOnceInADeletion)
{
    Sweep(FAULT_ALLOC, nullptr, 1, Nobody);
}
TEST_F(ModifyFaultSweep, NoMemoryAnyMoreInADeletion)
{
    Sweep(FAULT_ALLOC, nullptr, 0, Nobody);
}
TEST_F(ModifyFaultSweep, ANodeThatCannotBeReadInAModification)
{
    Sweep(FAULT_READ, "Indexes", 1, Another);
}
TEST_F(ModifyFaultSweep, ANodeThatCannotBeReadInADeletion)
{
    Sweep(FAULT_READ, "Indexes", 1, Nobody);
}
TEST_F(ModifyFaultSweep, NoNodeCanBeReadAnyMoreInAModification)
{
    Sweep(FAULT_READ, "Indexes", 0, Another);
}
TEST_F(ModifyFaultSweep, NoBlockCanBeHadInAModification)
{
    Sweep(FAULT_RESERVE, "Indexes", 1, Another);
}
} // namespace
