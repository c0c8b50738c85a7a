// backout_test.cpp: operations that fail half-way, seen from outside: what was stored before is
// there, nothing of the failed one is, and the table goes on working. After every failure the whole
// tree is checked and everything is found again.

#include <gtest/gtest.h>

#include "support/person_table.h"
#include "support/small_disk.h"

namespace {

class Backout : public PeopleTest {
  protected:
    // The person cannot be added; nothing but the id is used up.
    void ExpectRefused(Person person, const People& model)
    {
        const uint32_t next = IndxNextId(table_);
        const std::string records = ReadFileBytes(RecordsPath());
        EXPECT_EQ(Add(table_, &person), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_UPDATE);
        EXPECT_EQ(IndxNextId(table_), next + 1);
        EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
        ExpectHolds(table_, model);
    }
    void ExpectAdded(const Person& person, People* pModel)
    {
        Person added = person;
        ASSERT_EQ(Add(table_, &added), 1u);
        (*pModel)[added.id] = added;
        ExpectHolds(table_, *pModel);
    }
    // Persons that are refused by an index behind the first: by the second, third and last one.
    static std::vector<Person> Refused(uint32_t fresh, uint32_t present)
    {
        std::vector<Person> refused;
        refused.push_back(MakePerson(fresh));
        refused.back().name.reset(); // absent
        refused.push_back(MakePerson(fresh));
        refused.back().name = MakePerson(present).name; // duplicate
        refused.push_back(MakePerson(fresh));
        refused.back().name = std::string(8168, 'n'); // too long by one
        refused.push_back(MakePerson(fresh));
        refused.back().town.reset();
        refused.push_back(MakePerson(fresh));
        refused.back().key = MakePerson(present).key;
        return refused;
    }
    int32_t Levels(uint32_t field) const { return Field(table_, field)->levels; }
};

TEST_F(Backout, AnAbsentNameOnAnEmptyTableIsRefusedAndTheNextAddWorks)
{
    People model;
    Person nameless = MakePerson(1);
    nameless.name.reset();
    ExpectRefused(nameless, model);
    for (uint32_t position = 0; position < 6; ++position) {
        EXPECT_EQ(Field(table_, position)->roots.tRoot, INDX_NO_NODE) << position;
        EXPECT_EQ(Levels(position), 0) << position;
    }
    ExpectAdded(MakePerson(2), &model);
    EXPECT_EQ(model.begin()->first, 2u);
    Reload();
    ExpectHolds(table_, model);
}

TEST_F(Backout, AnEmptyTableRefusesInAnyIndexAndGoesOn)
{
    People model;
    for (const Person& person : Refused(1, 2)) {
        if (person.name && person.town && person.name->size() < 100)
            continue; // a duplicate of nothing
        ExpectRefused(person, model);
    }
    ExpectAdded(MakePerson(1), &model);
    ExpectAdded(MakePerson(2), &model);
    for (const Person& person : Refused(3, 2))
        ExpectRefused(person, model);
    Reload();
    ExpectHolds(table_, model);
}

// 681 ids fill a node: the next one splits the root of the ids before another index refuses.
TEST_F(Backout, ASplitRootComesBackWhenALaterIndexRefuses)
{
    People model;
    AddPeople(table_, &model, 0, 681);
    const int32_t levels = Levels(0);
    const uint32_t tRoot = Field(table_, 0)->roots.tRoot;
    ASSERT_EQ(levels, 1);
    for (const Person& person : Refused(681, 300)) {
        ExpectRefused(person, model);
        EXPECT_EQ(Levels(0), levels);
        EXPECT_EQ(Field(table_, 0)->roots.tRoot, tRoot);
        EXPECT_EQ(Field(table_, 0)->roots.tLastLeaf, tRoot);
    }
    ExpectAdded(MakePerson(681), &model);
    EXPECT_EQ(Levels(0), 2);
    Reload();
    ExpectHolds(table_, model);
}

// Long names make trees of many levels of few entries, in which nearly every add splits.
TEST_F(Backout, DeepTreesComeBackWhenALaterIndexRefuses)
{
    People model;
    uint32_t n = 0;
    for (const size_t length : {8000u, 5400u, 3000u, 7000u, 16u, 5000u}) {
        for (int i = 0; i < 6; ++i, ++n) {
            // From both ends, so that first leaves change as well as last ones.
            Person person = MakePerson(i % 2 ? n : 1000 - n, length, length / 2);
            person.key = MakePerson(n).key;
            ExpectAdded(person, &model);
            Person refused = MakePerson(i % 2 ? 400 + n : 600 - n, length, length / 2);
            refused.key = person.key; // refused by the last index, after all others have changed
            ExpectRefused(refused, model);
        }
    }
    EXPECT_GE(Levels(1), 4);
    Reload();
    ExpectHolds(table_, model);
}

// The new root of the first index comes off the free chain; dropped with the failed operation it
// must not be taken for a root again.
TEST_F(Backout, ARootFromTheFreeChainIsForgottenWithItsOperation)
{
    People model;
    AddPeople(table_, &model, 0, 3);
    DeletePeople(table_, &model, {1, 2, 3});
    ExpectHolds(table_, model);
    const TreeReport before = CheckTable(table_);
    EXPECT_EQ(before.freeChain.size(), 6u);
    for (const Person& person : Refused(3, 0)) {
        if (person.name && person.town && person.name->size() < 100)
            continue;
        ExpectRefused(person, model);
    }
    for (uint32_t n = 10; n < 20; ++n)
        ExpectAdded(MakePerson(n), &model);
    const TreeReport after = CheckTable(table_);
    EXPECT_FALSE(after.lost.empty()); // ids of backed-out operations are not handed out again
    Reload();
    ExpectHolds(table_, model);
}

TEST_F(Backout, AFailedAddAfterEveryNodeOfAnIndexWentLeavesItEmpty)
{
    People model;
    AddPeople(table_, &model, 0, 1);
    DeletePeople(table_, &model, {1});
    Reload();
    ExpectHolds(table_, model);
    Person nameless = MakePerson(5);
    nameless.name.reset();
    ExpectRefused(nameless, model);
    ExpectAdded(MakePerson(6), &model);
    Reload();
    ExpectHolds(table_, model);
}

TEST_F(Backout, AFailedAddWritesNothingToTheBlockFile)
{
    People model;
    AddPeople(table_, &model, 0, 30);
    const std::string before = ReadFileBytes(BlocksPath());
    for (const Person& person : Refused(100, 7)) {
        Person refused = person;
        EXPECT_EQ(Add(table_, &refused), 0u);
        EXPECT_EQ(ReadFileBytes(BlocksPath()), before);
    }
    ExpectHolds(table_, model);
}

// An add that fails has moved the cursors' keys under them, and back.
TEST_F(Backout, CursorsKeepTheirPlaceOverAFailedAdd)
{
    People model;
    AddPeople(table_, &model, 0, 900);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 500, nullptr), INDX_RESULT_FOUND);
    Person refused = MakePerson(1000);
    refused.key = MakePerson(1).key;
    EXPECT_EQ(Add(table_, &refused), 0u);
    EXPECT_EQ(IndxNextKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(PersonAt(cursor.get())->id, 501u);
    EXPECT_EQ(IndxPreviousKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(PersonAt(cursor.get())->id, 500u);
    ExpectSound(table_);
}

// ---- ids -------------------------------------------------------------------------------------

// Kept: a failed add uses its id up in memory only, so that closing right away lets it be issued
// again.
TEST_F(Backout, AnIdOfAFailedAddIsIssuedAgainAfterClosingWithoutAnUpdate)
{
    People model;
    ExpectAdded(MakePerson(1), &model);
    ExpectRefused(MakePerson(1), model);
    EXPECT_EQ(IndxNextId(table_), 3u);
    Reload();
    EXPECT_EQ(IndxNextId(table_), 2u);
    ExpectHolds(table_, model);
    ExpectAdded(MakePerson(2), &model);
    EXPECT_EQ(model.rbegin()->first, 2u);
}

TEST_F(Backout, AnIdOfAFailedAddStaysUsedOnceALaterOneWasStored)
{
    People model;
    ExpectAdded(MakePerson(1), &model);
    ExpectRefused(MakePerson(1), model);
    ExpectAdded(MakePerson(2), &model);
    Reload();
    EXPECT_EQ(IndxNextId(table_), 4u);
    ExpectHolds(table_, model);
}

// ---- adding without storing ------------------------------------------------------------------

// Kept: IndxAddRecord neither stores nor backs out. Its caller must not go on after a failure: the
// keys entered so far stay in memory, and the next good add commits them.
TEST_F(Backout, AFailedAddRecordThatIsNotBackedOutLeavesItsKeyToTheNextAdd)
{
    People model;
    ExpectAdded(MakePerson(1), &model);
    const Held refused = BlobOf(MakePerson(1)); // its name is taken
    EXPECT_EQ(IndxAddRecord(7, table_, &static_cast<DbBlob*>(refused.get())->data), 0u);
    Person second = MakePerson(2);
    ASSERT_EQ(Add(table_, &second), 1u);
    ASSERT_EQ(second.id, 2u);
    // The stray key leads to the second record, which has another id: the database is corrupt.
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 7, nullptr), INDX_RESULT_FOUND);
    CrashRecorder crashes;
    EXPECT_FALSE(PersonAt(cursor.get()));
    EXPECT_EQ(crashes.count(), 1u);
    EXPECT_EQ(FindById(table_, 2)->name, second.name);
    ExpectSound(table_);
}

TEST_F(Backout, AnAddRecordThatWasNotStoredIsDroppedByALaterFailure)
{
    People model;
    ExpectAdded(MakePerson(1), &model);
    const Held blob = BlobOf(MakePerson(2));
    const uint64_t size = std::filesystem::file_size(RecordsPath());
    ASSERT_EQ(IndxAddRecord(7, table_, &static_cast<DbBlob*>(blob.get())->data), 1u);
    Person again = MakePerson(1);
    EXPECT_EQ(Add(table_, &again), 0u);
    ExpectHolds(table_, model);
    EXPECT_GT(std::filesystem::file_size(RecordsPath()), size); // its bytes stay
    ExpectAdded(MakePerson(2), &model);
}

// The first keys of all indexes: the roots are as good as never made.
TEST_F(Backout, FirstRootsThatWereNotStoredAreDroppedByALaterFailure)
{
    const Held blob = BlobOf(MakePerson(2));
    ASSERT_EQ(IndxAddRecord(7, table_, &static_cast<DbBlob*>(blob.get())->data), 1u);
    Person nameless = MakePerson(1);
    nameless.name.reset();
    EXPECT_EQ(Add(table_, &nameless), 0u);
    People model;
    ExpectHolds(table_, model);
    ExpectAdded(MakePerson(2), &model);
    Reload();
    ExpectHolds(table_, model);
}

TEST_F(Backout, ManyAddRecordsAreStoredByOneUpdate)
{
    People model;
    for (uint32_t n = 1; n <= 1500; ++n) {
        const Held blob = BlobOf(MakePerson(n));
        ASSERT_EQ(IndxAddRecord(n, table_, &static_cast<DbBlob*>(blob.get())->data), 1u) << n;
        model[n] = MakePerson(n);
    }
    ASSERT_EQ(IndxUpdateTable(table_), 1u);
    ExpectHolds(table_, model);
    Reload();
    ExpectHolds(table_, model);
}

TEST_F(Backout, ClosingWithChangesThatWereNotStoredLosesThemWithOneMessageABlock)
{
    People model;
    AddPeople(table_, &model, 0, 40);
    const Held blob = BlobOf(MakePerson(100));
    ASSERT_EQ(IndxAddRecord(900, table_, &static_cast<DbBlob*>(blob.get())->data), 1u);
    Cursor* pCursor = new Cursor(table_, "Name"); // outlives the table
    ASSERT_EQ(IndxFirstKey(pCursor->get()), INDX_RESULT_FOUND);
    LogRecorder log;
    Close();
    delete pCursor;
    EXPECT_EQ(log.count(1300), 6u) << log.dump(); // one leaf of each index
    EXPECT_EQ(log.messages().size(), 6u);
    EXPECT_TRUE(log.has(1300, 96, "Failed to discard database block"));
    Reload();
    ExpectHolds(table_, model);
    ExpectAdded(MakePerson(100), &model);
}

TEST_F(Backout, ClosingWithDiscardedBlocksThatWereNotStoredKeepsThemInTheTree)
{
    People model;
    AddPeople(table_, &model, 0, 1);
    {
        Held record;
        ASSERT_EQ(IndxGetRecord(record.out(), table_, 0), 1u);
        for (const char* field : {"Id", "Name", "Town", "Age", "Number", "Key"}) {
            const Cursor cursor(table_, field);
            ASSERT_EQ(
                IndxDeleteKey(
                    IndxAsCursor(cursor.get()), &static_cast<DbBlob*>(record.get())->data),
                1u);
        }
    }
    LogRecorder log;
    Close();
    EXPECT_EQ(log.count(1300), 6u) << log.dump();
    Reload();
    ExpectHolds(table_, model);
    EXPECT_TRUE(CheckTable(table_).freeChain.empty());
    ExpectAdded(MakePerson(2), &model);
}

// ---- full disks ------------------------------------------------------------------------------

TEST_F(Backout, AnAddWhoseBlockHasNoRoomIsBackedOut)
{
    People model;
    AddPeople(table_, &model, 0, 8, 5400);
    for (int round = 0; round < 4; ++round) {
        Person person = MakePerson(static_cast<uint32_t>(100 + round), 5400);
        Fail(FAULT_RESERVE, 1, 0, "Indexes");
        // Until one needs a fresh block.
        while (Add(table_, &person)) {
            model[person.id] = person;
            person = MakePerson(static_cast<uint32_t>(200 + 50 * round + model.size()), 5400);
        }
        FaultDisarmAll();
        ExpectHolds(table_, model);
        ExpectAdded(person, &model);
    }
    Reload();
    ExpectHolds(table_, model);
}

TEST_F(Backout, AnAddWhoseRecordHasNoRoomIsBackedOut)
{
    People model;
    AddPeople(table_, &model, 0, 5);
    for (const uint32_t part : {0u, 1u, 15u, 79u, 100u}) {
        const FaultRule rule = {FAULT_WRITE, "Records", 1, 0, FAULT_FAIL_AFTER, part};
        FaultArm(&rule);
        Person person = MakePerson(50 + part);
        EXPECT_EQ(Add(table_, &person), 0u);
        FaultDisarmAll();
        ExpectHolds(table_, model);
        ExpectAdded(person, &model);
    }
    Reload();
    ExpectHolds(table_, model);
}

// A disk that is really full, met wherever it happens: in the block file or in the records file.
class BackoutFullDisk : public Backout, public testing::WithParamInterface<SmallDisk::Kind> {};

INSTANTIATE_TEST_SUITE_P(
    Disks, BackoutFullDisk,
    testing::Values(SmallDisk::MOUNTED, SmallDisk::LIMITED, SmallDisk::FAULTY));

TEST_P(BackoutFullDisk, NothingThatWasStoredIsLost)
{
    Close();
    SmallDisk disk(GetParam(), DatabasePath(), 700 * 1024);
    SCOPED_TRACE(disk.description());
    Reload();
    People model;
    LogRecorder log;
    uint32_t refused = 0;
    // Goes on when the disk is full: some records still fit, some do not.
    for (uint32_t n = 0; n < 3000 && refused < 40; ++n) {
        const size_t length = n % 7 == 0 ? 4000 : n % 3 == 0 ? 700 : 0;
        Person person = MakePerson(n * 7919 % 3000, length);
        person.photo.assign(n % 11 == 0 ? 9000 : n % 50, 'p');
        if (Add(table_, &person)) {
            model[person.id] = person;
        } else {
            ++refused;
            ASSERT_NO_FATAL_FAILURE(ExpectHolds(table_, model)) << n;
        }
    }
    EXPECT_EQ(refused, 40u);
    EXPECT_GT(model.size(), 20u);
    // Nothing that was in memory met the full disk on its way out.
    EXPECT_EQ(log.count(1300), 0u) << log.dump();
    EXPECT_EQ(log.count(1298), 0u);
    Reload();
    ExpectHolds(table_, model);
    // With room again the table goes on.
    Close();
    disk.Enlarge();
    Reload();
    for (uint32_t n = 0; n < 50; ++n) {
        Person person = MakePerson(5000 + n, 3000);
        ASSERT_EQ(Add(table_, &person), 1u);
        model[person.id] = person;
    }
    ExpectHolds(table_, model);
    Close();
}

TEST_P(BackoutFullDisk, ATableThatCannotBeStoredDoesNoHarm)
{
    People model;
    AddPeople(table_, &model, 0, 30);
    Close();
    SmallDisk disk(GetParam(), DatabasePath(), 300 * 1024);
    SCOPED_TRACE(disk.description());
    disk.Fill();
    Reload();
    // The block file of the new table stays empty, the first add has no room.
    TraceRecorder trace(0);
    LogRecorder log;
    void* oOther = OpenPeople(0, "Other");
    if (oOther) {
        Person person = MakePerson(1);
        EXPECT_EQ(Add(oOther, &person), 0u);
    }
    ExpectHolds(table_, model);
    Close();
    disk.Enlarge();
    Reload();
    ExpectHolds(table_, model);
    oOther = OpenPeople(0, "Other");
    ASSERT_NE(oOther, nullptr);
    Person person = MakePerson(1);
    ASSERT_EQ(Add(oOther, &person), 1u);
    ExpectHolds(oOther, {{person.id, person}});
    Close();
}

// With room for a page or two the control block of a new file would be written half-way, and the
// file could never be opened again.
TEST_P(BackoutFullDisk, ATableCreatedWithLittleRoomIsCreatedLater)
{
    Close();
    for (uint64_t pages = 0; pages < 8; ++pages) {
        const std::string name = "Other" + std::to_string(pages);
        {
            SmallDisk disk(GetParam(), DatabasePath(), 300 * 1024);
            SCOPED_TRACE(disk.description() + ", pages left: " + std::to_string(pages));
            disk.Fill(pages * 4096);
            ASSERT_TRUE(Open());
            OpenPeople(0, name.c_str());
            Close();
            disk.Enlarge();
            ASSERT_TRUE(Open());
            void* oOther = OpenPeople(0, name.c_str());
            ASSERT_NE(oOther, nullptr);
            Person person = MakePerson(1);
            ASSERT_EQ(Add(oOther, &person), 1u);
            ExpectHolds(oOther, {{person.id, person}});
            Close();
        }
    }
}

} // namespace
