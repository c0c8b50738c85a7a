// fault_sweep_test.cpp: for every operation, every n and every kind of fault: the n-th file call
// fails, the n-th allocation, the n-th of whatever the base services do, once or from then on,
// until the operation passes untouched. Each time: no crash, nothing left behind; the operation
// said FALSE or did its work; what was stored before is there, the trees are sound, and the table
// goes on working, in place and after reopening.
//
// The one exception: a block that cannot be written at the release is lost (log message 1300), and
// with it what it held. Then only the first half is asked for.

#include <gtest/gtest.h>

#include "support/fault_sweep.h"

namespace {

class FaultSweepAdd : public FaultSweep {
  protected:
    // Sweeps an operation that adds `added` to the open table. `run` answers as the library does.
    void SweepAdd(
        const Person& added, uint32_t id, uint32_t flag,
        const std::function<NimBool(void* oTable, void* oObject)>& run)
    {
        const Held object = ObjectOf(added);
        ForEveryFault([&](const FaultRule& rule, bool* pHit) {
            Restore();
            const LiveCounts before;
            ASSERT_TRUE(Open());
            void* oTable = OpenPeople(flag);
            ASSERT_NE(oTable, nullptr);
            CrashRecorder crashes;
            LogRecorder log;
            const uint32_t armed = FaultArm(&rule);
            const NimBool said = run(oTable, object.get());
            *pHit = FaultHits(armed) > 0;
            FaultDisarmAll();
            ASSERT_EQ(crashes.count(), 0u);
            ASSERT_TRUE(*pHit || said) << "refused without a fault";
            const bool lost = log.count(1300) > 0;
            // A description that could not be stored: the record is in all the same.
            const bool unstored = log.count(1301) > 0;
            ASSERT_TRUE(!unstored || !said);
            if (!lost)
                ExpectGoesOn(oTable, said || unstored, added, id, flag);
            Close();
            ASSERT_EQ(LiveCounts(), before);
            if (lost)
                ReadWhateverIsLeft(flag);
            ASSERT_EQ(LiveCounts(), before);
        });
    }

    // The table is as it was, or has the new person too; it takes another one; and all of it is
    // there after reopening.
    void ExpectGoesOn(void* oTable, bool done, const Person& added, uint32_t id, uint32_t flag)
    {
        People model = before_;
        if (done)
            model[id] = added;
        if (done && flag) {
            char name[32];
            std::snprintf(name, sizeof name, "People/0000/00/%02x", id);
            ASSERT_TRUE(std::filesystem::exists(PathOf("Files", name)));
        }
        ASSERT_NO_FATAL_FAILURE(ExpectHolds(oTable, model));
        ASSERT_NO_FATAL_FAILURE(AddPeople(oTable, &model, 777, 778, HALF));
        ASSERT_NO_FATAL_FAILURE(ExpectHolds(oTable, model));
        ASSERT_TRUE(Reopen());
        ASSERT_NO_FATAL_FAILURE(ExpectHolds(OpenPeople(flag), model));
    }

    // Levels of the index of names once the person is added: what the operation makes grow.
    int32_t LevelsAfter(const Person& added)
    {
        Restore();
        EXPECT_TRUE(Open());
        void* oTable = OpenPeople();
        Person person = added;
        EXPECT_EQ(Add(oTable, &person), 1u);
        const int32_t levels = Field(oTable, 1)->levels;
        Close();
        return levels;
    }

    static NimBool AddObject(void* oTable, void* oObject)
    {
        return IndxAddObjectToTable(nullptr, oTable, oObject);
    }
};

// ---- adding ----------------------------------------------------------------------------------

TEST_F(FaultSweepAdd, TheFirstAdd)
{
    Prepare([](void*, People*) {});
    SweepAdd(MakePerson(1), 1, 0, AddObject);
}

TEST_F(FaultSweepAdd, AnAddWithRoomEverywhere)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 3); });
    SweepAdd(MakePerson(3), 4, 0, AddObject);
}

TEST_F(FaultSweepAdd, AnAddThatSplitsToTheRightAndGrowsTheRoot)
{
    int32_t levels = 0;
    Prepare([&](void* oTable, People* pModel) {
        AddPeople(oTable, pModel, 0, 4, HALF, HALF);
        levels = Field(oTable, 1)->levels;
    });
    const Person added = MakePerson(100, HALF, HALF);
    EXPECT_EQ(LevelsAfter(added), levels + 1);
    SweepAdd(added, 5, 0, AddObject);
}

TEST_F(FaultSweepAdd, AnAddThatSplitsToTheLeftAndGrowsTheRoot)
{
    int32_t levels = 0;
    Prepare([&](void* oTable, People* pModel) {
        for (uint32_t n : {104u, 103u})
            AddPeople(oTable, pModel, n, n + 1, HALF, HALF);
        levels = Field(oTable, 1)->levels;
    });
    const Person added = MakePerson(1, HALF, HALF);
    EXPECT_EQ(LevelsAfter(added), levels + 1);
    SweepAdd(added, 3, 0, AddObject);
}

// Entries move to the new right node, and to a new parent.
TEST_F(FaultSweepAdd, AnAddInTheMiddleOfFullNodes)
{
    Prepare([](void* oTable, People* pModel) {
        for (uint32_t n : {10u, 20u, 30u, 40u, 50u, 60u, 70u})
            AddPeople(oTable, pModel, n, n + 1, 5000, 5000);
    });
    SweepAdd(MakePerson(25, 5000, 5000), 8, 0, AddObject);
}

TEST_F(FaultSweepAdd, AnAddThatReusesTheFreeChain)
{
    Prepare([](void* oTable, People* pModel) {
        AddPeople(oTable, pModel, 0, 6, HALF, HALF);
        DeletePeople(oTable, pModel, {3, 4, 5, 6});
        EXPECT_GE(CheckTable(oTable).freeChain.size(), 4u);
    });
    SweepAdd(MakePerson(50, HALF, HALF), 7, 0, AddObject);
}

TEST_F(FaultSweepAdd, AnAddThatWritesACompanionFile)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 2); }, 1);
    SweepAdd(MakePerson(2), 3, 1, AddObject);
}

TEST_F(FaultSweepAdd, SettingARecordUnderAGivenId)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 4, HALF); });
    SweepAdd(MakePerson(9, HALF), 40, 0, [](void* oTable, void* oObject) -> NimBool {
        Held blob;
        if (!DbConvertObjectToDbFormat(blob.out(), oObject))
            return FALSE;
        return IndxSetRecordInTable(40, oTable, blob.get());
    });
}

// ---- opening, creating, loading, closing, reading --------------------------------------------

// Two tables with version files; the database says what it could open, and holds everything then.
TEST_F(FaultSweepAdd, OpeningADatabase)
{
    PrepareTwoTables();
    ForEveryFault([&](const FaultRule& rule, bool* pHit) {
        Restore();
        const LiveCounts before;
        const uint32_t armed = FaultArm(&rule);
        const bool said = Open();
        *pHit = FaultHits(armed) > 0;
        FaultDisarmAll();
        ASSERT_TRUE(*pHit || said);
        ASSERT_EQ(said, database() != nullptr);
        ASSERT_TRUE(*pHit || TableCount() == 2);
        if (said) { // tables that are missing from the list are found when they are opened by name
            ASSERT_NO_FATAL_FAILURE(ExpectBothHold());
        }
        Close();
        ASSERT_EQ(LiveCounts(), before);
        ASSERT_TRUE(Open());
        ASSERT_EQ(TableCount(), 2u);
        ASSERT_NO_FATAL_FAILURE(ExpectBothHold());
        Close();
        ASSERT_EQ(LiveCounts(), before);
    });
}

TEST_F(FaultSweepAdd, LoadingATableThatWasLeftOut)
{
    PrepareTwoTables();
    Held names(ListNewFromPool(0, MemGetDefaultPoolId()));
    ForEveryFault([&](const FaultRule& rule, bool* pHit) {
        Restore();
        const LiveCounts before;
        ASSERT_TRUE(Open(DATABASE, names.get()));
        ASSERT_EQ(TableCount(), 0u);
        const uint32_t armed = FaultArm(&rule);
        void* oTable = OpenTable(TABLE, PERSON_MAGIC, FORMAT, FIELDS, 0, 5);
        *pHit = FaultHits(armed) > 0;
        FaultDisarmAll();
        ASSERT_TRUE(*pHit || oTable);
        ASSERT_NO_FATAL_FAILURE(ExpectBothHold());
        Close();
        ASSERT_EQ(LiveCounts(), before);
        ASSERT_TRUE(Open());
        ASSERT_NO_FATAL_FAILURE(ExpectBothHold());
        Close();
        ASSERT_EQ(LiveCounts(), before);
    });
}

// Whatever cannot be read or told, a table of another version is not opened, and keeps its own.
TEST_F(FaultSweepAdd, OpeningATableOfAnotherVersion)
{
    PrepareTwoTables();
    const std::string version = ReadFileBytes(PathOf("Attributes", TABLE));
    const Held none(ListNewFromPool(0, MemGetDefaultPoolId()));
    for (void* oNames : {static_cast<void*>(nullptr), none.get()}) {
        ForEveryFault([&](const FaultRule& rule, bool* pHit) {
            Restore();
            const LiveCounts before;
            ASSERT_TRUE(Open(DATABASE, oNames));
            const uint32_t armed = FaultArm(&rule);
            void* oTable = OpenTable(TABLE, PERSON_MAGIC, FORMAT, FIELDS, 0, 6);
            *pHit = FaultHits(armed) > 0;
            FaultDisarmAll();
            ASSERT_EQ(oTable, nullptr);
            ASSERT_EQ(ReadFileBytes(PathOf("Attributes", TABLE)), version);
            ASSERT_NO_FATAL_FAILURE(ExpectBothHold());
            Close();
            ASSERT_EQ(LiveCounts(), before);
        });
    }
}

// Refused half-way, a table can be created again at once, and after reopening; what it is then is
// what was asked for.
TEST_F(FaultSweepAdd, CreatingATable)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 3); });
    for (const bool reopen : {false, true}) {
        ForEveryFault([&](const FaultRule& rule, bool* pHit) {
            Restore();
            const LiveCounts before;
            ASSERT_TRUE(Open());
            const uint32_t armed = FaultArm(&rule);
            void* oOther = OpenTable("Other", PERSON_MAGIC, FORMAT, FIELDS, 1, 5);
            *pHit = FaultHits(armed) > 0;
            FaultDisarmAll();
            ASSERT_TRUE(*pHit || oOther);
            if (reopen) {
                ASSERT_TRUE(Reopen());
            }
            oOther = OpenTable("Other", PERSON_MAGIC, FORMAT, FIELDS, 1, 5);
            ASSERT_NE(oOther, nullptr);
            OpenRecordsAgain(oOther, "Other");
            People model;
            ASSERT_NO_FATAL_FAILURE(AddPeople(oOther, &model, 0, 3, HALF));
            ASSERT_TRUE(std::filesystem::exists(PathOf("Files", "Other/0000/00/03")));
            ASSERT_NO_FATAL_FAILURE(ExpectHolds(oOther, model));
            ASSERT_TRUE(Reopen());
            ASSERT_EQ(TableCount(), 2u);
            oOther = OpenTable("Other", PERSON_MAGIC, FORMAT, FIELDS, 1, 5);
            ASSERT_NO_FATAL_FAILURE(ExpectHolds(oOther, model));
            ASSERT_NO_FATAL_FAILURE(ExpectHolds(OpenPeople(), before_));
            Close();
            ASSERT_EQ(LiveCounts(), before);
        });
    }
}

TEST_F(FaultSweepAdd, ClosingADatabase)
{
    PrepareTwoTables();
    ForEveryFault([&](const FaultRule& rule, bool* pHit) {
        Restore();
        const LiveCounts before;
        ASSERT_TRUE(Open());
        void* oTable = OpenTable(TABLE, PERSON_MAGIC, FORMAT, FIELDS, 0, 5);
        People model = before_;
        ASSERT_NO_FATAL_FAILURE(AddPeople(oTable, &model, 500, 501, HALF));
        Person again = MakePerson(500, HALF); // leaves ids of blocks and a record id behind
        ASSERT_EQ(Add(oTable, &again), 0u);
        const uint32_t armed = FaultArm(&rule);
        Close();
        *pHit = FaultHits(armed) > 0;
        FaultDisarmAll();
        ASSERT_EQ(LiveCounts(), before);
        ASSERT_TRUE(Open());
        oTable = OpenTable(TABLE, PERSON_MAGIC, FORMAT, FIELDS, 0, 5);
        ASSERT_NO_FATAL_FAILURE(ExpectHolds(oTable, model));
        ASSERT_NO_FATAL_FAILURE(AddPeople(oTable, &model, 600, 602, HALF));
        ASSERT_NO_FATAL_FAILURE(ExpectHolds(oTable, model));
        Close();
        ASSERT_EQ(LiveCounts(), before);
    });
}

TEST_F(FaultSweepAdd, FindingAndWalking)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 7, HALF, HALF); });
    const Held name(ObjStringNew(MakePerson(3, HALF).name->c_str()));
    ForEveryFault([&](const FaultRule& rule, bool* pHit) {
        Restore();
        const LiveCounts before;
        ASSERT_TRUE(Open());
        void* oTable = OpenPeople();
        CrashRecorder crashes;
        uint32_t keys = 0;
        {
            const uint32_t armed = FaultArm(&rule);
            void* oCursor = nullptr;
            if (IndxGetFieldCursor(&oCursor, oTable, "Name")) {
                void* oObject = nullptr;
                if (IndxFindKey(oCursor, 0, name.get()) == INDX_RESULT_FOUND &&
                    IndxGetObjectAtCursor(&oObject, oCursor)) {
                    EXPECT_EQ(PersonOf(oObject).name, MakePerson(3, HALF).name);
                }
                ObjReleaseInternal(&oObject);
                for (int32_t code = IndxFirstKey(oCursor); code == INDX_RESULT_FOUND && keys < 100;
                     code = IndxNextKey(oCursor))
                    ++keys;
                for (int32_t code = IndxLastKey(oCursor), n = 0;
                     code == INDX_RESULT_FOUND && n < 100; code = IndxPreviousKey(oCursor), ++n) {
                }
                IndxReleaseCursor(&oCursor);
            }
            *pHit = FaultHits(armed) > 0;
            FaultDisarmAll();
        }
        ASSERT_LE(keys, 7u);
        ASSERT_TRUE(*pHit || keys == 7);
        ASSERT_EQ(crashes.count(), 0u);
        // A search that met a fault has not spoilt what is in memory.
        ASSERT_NO_FATAL_FAILURE(ExpectGoesOn(oTable, false, {}, 0, 0));
        Close();
        ASSERT_EQ(LiveCounts(), before);
    });
}

} // namespace
