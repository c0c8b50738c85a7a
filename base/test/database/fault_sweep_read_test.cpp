// fault_sweep_read_test.cpp: every fault at every call of operations that change nothing: walks,
// partial reads, selections, reads by key, paths and lists of companion files. Each time: no crash,
// nothing left behind; the operation said FALSE, or what it gave is what was stored; and the table
// goes on working.

#include <gtest/gtest.h>

#include "database/indexwrappers.h"
#include "support/fault_sweep.h"

namespace {

class FaultSweepRead : public FaultSweep {
  protected:
    static constexpr uint32_t COMPANIONS = 1; // the table has companion files

    // Three levels of names, records of more than one read.
    void SetUp() override
    {
        FaultSweep::SetUp();
        Prepare(
            [](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 7, HALF, 200); },
            COMPANIONS);
    }

    // Sweeps an operation. `check` sees the open table before the faults go, `judge` behind them.
    void Sweep(
        const std::function<void(void* oTable)>& read, const std::function<void(bool bHit)>& judge)
    {
        ForEveryFault([&](const FaultRule& rule, bool* pHit) {
            Restore();
            const LiveCounts before;
            ASSERT_TRUE(Open());
            void* oTable = OpenPeople(COMPANIONS);
            ASSERT_NE(oTable, nullptr);
            const LiveCounts opened;
            CrashRecorder crashes;
            const LogRecorder log;
            const uint32_t armed = FaultArm(&rule);
            read(oTable);
            *pHit = FaultHits(armed) > 0;
            FaultDisarmAll();
            ASSERT_EQ(crashes.count(), 0u);
            ASSERT_NO_FATAL_FAILURE(judge(*pHit));
            ASSERT_EQ(IndxUpdateTable(oTable), 1u); // lets go of the blocks that were read
            ASSERT_EQ(ObjLiveCount(0), opened.objects);
            ASSERT_EQ(FileSysOpenCount(), opened.files);
            People model = before_;
            ASSERT_NO_FATAL_FAILURE(ExpectHolds(oTable, model));
            ASSERT_NO_FATAL_FAILURE(AddPeople(oTable, &model, 777, 778));
            ASSERT_TRUE(Reopen());
            ASSERT_NO_FATAL_FAILURE(ExpectHolds(OpenPeople(COMPANIONS), model));
            Close();
            ASSERT_EQ(LiveCounts(), before);
        });
    }

    // What a partial read without a selection leaves of a person.
    static Person FixedPartOf(Person person)
    {
        person.name.reset();
        person.town.reset();
        person.photo.clear();
        return person;
    }
    const Person& Third() const { return before_.at(3); }

    // ---- walks ----

    struct Walk {
        const People* pModel;
        bool partial;
        uint32_t calls;
        uint32_t wrong;
    };
    static uint32_t See(void* oObject, void* context)
    {
        auto* pWalk = static_cast<Walk*>(context);
        const Person seen = PersonOf(oObject);
        const auto it = pWalk->pModel->find(seen.id);
        ++pWalk->calls;
        pWalk->wrong += it == pWalk->pModel->end() ||
                        seen != (pWalk->partial ? FixedPartOf(it->second) : it->second);
        return 1;
    }
    static uint32_t SeeWithId(void* oObject, void* context, uint32_t id)
    {
        static_cast<Walk*>(context)->wrong += PersonOf(oObject).id != id;
        return See(oObject, context);
    }
    // A walk gives only what is stored, skips what it cannot read, and says 1 only at the end.
    void SweepWalk(bool partial, const std::function<uint32_t(void* oTable, Walk* pWalk)>& run)
    {
        Walk walk = {};
        uint32_t result = 0;
        Sweep(
            [&](void* oTable) {
                walk = {&before_, partial, 0, 0};
                result = run(oTable, &walk);
            },
            [&](bool bHit) {
                ASSERT_EQ(walk.wrong, 0u);
                ASSERT_LE(walk.calls, before_.size());
                ASSERT_LE(result, 1u);
                ASSERT_TRUE(bHit || (result == 1 && walk.calls == before_.size()));
            });
    }
};

TEST_F(FaultSweepRead, AWalkOfWholeRecords)
{
    SweepWalk(
        false, [](void* oTable, Walk* pWalk) { return IndxWalkTable(oTable, "Name", See, pWalk); });
}

TEST_F(FaultSweepRead, AWalkWithRecordIds)
{
    SweepWalk(false, [](void* oTable, Walk* pWalk) {
        return IndxWalkTableWithRecordId(oTable, "Id", SeeWithId, pWalk);
    });
}

TEST_F(FaultSweepRead, AWalkOfFixedParts)
{
    SweepWalk(true, [](void* oTable, Walk* pWalk) {
        return IndxWalkTableWithPartialRecords(oTable, nullptr, "Town", See, pWalk);
    });
}

TEST_F(FaultSweepRead, AWalkWithASelection)
{
    const uint32_t selected[8] = {0, 1};
    SweepWalk(false, [&](void* oTable, Walk* pWalk) {
        return IndxWalkTableWithPartialRecords(oTable, selected, "Number", See, pWalk);
    });
}

TEST_F(FaultSweepRead, SelectingByNameAndReadingThatAtACursor)
{
    const Held names(ListNewFromPool(0, MemGetDefaultPoolId()));
    for (const char* name : {"Name", "Photo"})
        ListAddLastItem(names.get(), Held(ObjStringNew(name)).get());
    std::optional<Person> seen;
    Sweep(
        [&](void* oTable) {
            seen.reset();
            uint32_t* pSelected = nullptr;
            void* oCursor = nullptr;
            void* oObject = nullptr;
            if (IndxGetSelectedByName(&pSelected, database(), TABLE, names.get()) &&
                IndxGetFieldCursor(&oCursor, oTable, "Id") &&
                IndxFindKey(oCursor, 3, nullptr) == INDX_RESULT_FOUND &&
                IndxGetPartialObjectAtCursor(&oObject, oCursor, pSelected))
                seen = PersonOf(oObject);
            ObjReleaseInternal(&oObject);
            IndxReleaseCursor(&oCursor);
            MemFree(pSelected);
        },
        [&](bool bHit) {
            ASSERT_TRUE(bHit || seen);
            ASSERT_TRUE(!seen || *seen == Third());
        });
}

TEST_F(FaultSweepRead, PartialRecordsByOffset)
{
    int64_t offset = 0;
    ASSERT_TRUE(Open());
    offset = OffsetOf(OpenPeople(COMPANIONS), 3);
    Close();
    ASSERT_GT(offset, 0);
    const uint32_t selected[8] = {};
    std::optional<Person> seen;
    uint32_t size = 0;
    Sweep(
        [&](void* oTable) {
            seen.reset();
            size = 0;
            Held record;
            ObjData fixed = {};
            if (IndxGetPartialRecord(
                    record.out(), oTable, static_cast<uint32_t>(offset), selected)) {
                Held object;
                if (DbConvertObjectFromDbFormat(object.out(), record.get()))
                    seen = PersonOf(object.get());
            }
            if (IndxRetrivePartialRecord(&fixed, oTable, static_cast<uint32_t>(offset), nullptr))
                size = fixed.size;
            MemFreeInternal(&fixed.data);
        },
        [&](bool bHit) {
            ASSERT_TRUE(bHit || (seen && size == FIXED_SIZE));
            ASSERT_TRUE(!seen || *seen == Third());
            ASSERT_TRUE(size == 0 || size == FIXED_SIZE);
        });
}

TEST_F(FaultSweepRead, OneRecordByItsKey)
{
    const Held name(ObjStringNew(Third().name->c_str()));
    std::optional<Person> object, record;
    Sweep(
        [&](void* oTable) {
            object.reset();
            record.reset();
            Held one, other, decoded;
            if (IndxGetObjectFromTable(one.out(), oTable, "Name", 3, name.get()))
                object = PersonOf(one.get());
            if (IndxGetRecordFromTable(other.out(), oTable, "Name", 0, name.get()) &&
                DbConvertObjectFromDbFormat(decoded.out(), other.get()))
                record = PersonOf(decoded.get());
        },
        [&](bool bHit) {
            ASSERT_TRUE(bHit || (object && record));
            ASSERT_TRUE(!object || *object == Third());
            ASSERT_TRUE(!record || *record == Third());
        });
}

// ---- companion files -------------------------------------------------------------------------

TEST_F(FaultSweepRead, ThePathOfACompanionFile)
{
    std::string path;
    Sweep(
        [&](void* oTable) {
            path.clear();
            char* pPath = nullptr;
            if (IndxGetFilePath(&pPath, oTable, 0x12345678))
                path = pPath;
            MemFree(pPath);
        },
        [&](bool bHit) {
            ASSERT_TRUE(bHit || !path.empty());
            ASSERT_TRUE(path.empty() || path == PathOf("Files", Native("People/1234/56/78")));
        });
}

TEST_F(FaultSweepRead, TheListOfCompanionFiles)
{
    std::vector<int32_t> ids;
    Sweep(
        [&](void* oTable) {
            ids.clear();
            void* oList = nullptr;
            EXPECT_EQ(IndxGetFileList(&oList, oTable), 0u); // whatever it found
            for (uint32_t i = 0; i < ListGetCount(oList); ++i) {
                void* oItem = nullptr;
                if (ListGetNthItem(&oItem, oList, i) == 1)
                    ids.push_back(ObjGetInteger(oItem));
            }
            ObjReleaseInternal(&oList);
        },
        [&](bool bHit) {
            std::sort(ids.begin(), ids.end());
            ASSERT_TRUE(std::adjacent_find(ids.begin(), ids.end()) == ids.end());
            for (const int32_t id : ids)
                ASSERT_TRUE(before_.count(static_cast<uint32_t>(id)));
            ASSERT_TRUE(bHit || ids.size() == before_.size());
        });
}

} // namespace
