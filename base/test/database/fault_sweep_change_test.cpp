// fault_sweep_change_test.cpp: every fault at every call of modifications and deletions, over
// tables where they split nodes, grow the root, empty leaves and branches, and take blocks off the
// free chain. Each time: no crash, nothing left behind; the operation said FALSE or did its work;
// every other record is read back whole, in place and after reopening, and the trees are sound.
//
// The exceptions are the design's: a block that cannot be written at the release is lost (log
// message 1300); a description that cannot be stored fails an operation that is done (1301); and
// the write of a modified record, whose failures mostly go unnoticed, may lose that one record.

#include <memory>

#include <gtest/gtest.h>

#include "database/indexwrappers.h"
#include "support/fault_sweep.h"

namespace {

class FaultSweepChange : public FaultSweep {
  protected:
    using Operation = std::function<NimBool(void* oTable)>;

    // Sweeps an operation that makes record `id` into `wanted`, or deletes it.
    void
    Sweep(uint32_t id, const std::optional<Person>& wanted, const Operation& run, uint32_t flag = 0)
    {
        const bool inPlace = StaysInPlace(id, run);
        uint32_t torn = 0; // writes of the record that failed, and nothing else with them
        ForEveryFault([&](const FaultRule& rule, bool* pHit) {
            Restore();
            const LiveCounts before;
            ASSERT_TRUE(Open());
            void* oTable = OpenPeople(flag);
            ASSERT_NE(oTable, nullptr);
            CrashRecorder crashes;
            LogRecorder log;
            const uint32_t armed = FaultArm(&rule);
            const NimBool said = run(oTable);
            const uint32_t hits = FaultHits(armed);
            *pHit = hits > 0;
            FaultDisarmAll();
            ASSERT_EQ(crashes.count(), 0u);
            ASSERT_TRUE(*pHit || said) << "refused without a fault";
            const bool lost = log.count(1300) > 0;
            writesNodes_ |= lost;
            const bool unstored = log.count(1301) > 0;
            ASSERT_TRUE(!unstored || !said);
            if (!lost) {
                // A write that was neither a node's nor the control block's was the record's.
                const bool bTorn = rule.point == FAULT_WRITE && hits > log.count(1298);
                const bool inVain = bTorn && rule.mode == FAULT_FAIL_FULL;
                ASSERT_TRUE(!bTorn || said == !inVain);
                ASSERT_EQ(log.count(1308), inVain ? 1u : 0u);
                torn += bTorn;
                People model = before_;
                if (said || unstored)
                    Change(&model, id, wanted);
                // Written in vain behind all others, the record does not lose its old place.
                const bool suffers = bTorn && (inPlace || !inVain);
                ExpectGoesOn(
                    oTable, model, suffers ? std::set<uint32_t>{id} : std::set<uint32_t>(), flag);
            }
            Close();
            ASSERT_EQ(LiveCounts(), before);
            if (lost)
                ReadWhateverIsLeft(flag);
            ASSERT_EQ(LiveCounts(), before);
        });
        // Each way to fail it once, and from then on the one that ends the operation; where no node
        // is lost behind it, from then on each way.
        const uint32_t ways = writesNodes_ ? 4 : 6;
        EXPECT_EQ(torn, wanted ? ways : 0u);
    }
    bool StaysInPlace(uint32_t id, const Operation& run)
    {
        Restore();
        EXPECT_TRUE(Open());
        void* oTable = OpenPeople();
        const int64_t offset = OffsetOf(oTable, id);
        EXPECT_EQ(run(oTable), 1u);
        const bool stays = OffsetOf(oTable, id) == offset;
        Close();
        return stays;
    }
    static void Change(People* pModel, uint32_t id, const std::optional<Person>& wanted)
    {
        if (!wanted) {
            pModel->erase(id);
            return;
        }
        (*pModel)[id] = *wanted;
        (*pModel)[id].id = id;
    }

    // The table holds the model, all but the bytes of the torn records; it takes another person;
    // and all of it is there after reopening.
    void ExpectGoesOn(void* oTable, People model, const std::set<uint32_t>& torn, uint32_t flag)
    {
        ASSERT_NO_FATAL_FAILURE(ExpectHoldsBut(oTable, model, torn));
        ASSERT_NO_FATAL_FAILURE(AddPeople(oTable, &model, 777, 778, HALF));
        ASSERT_NO_FATAL_FAILURE(ExpectHoldsBut(oTable, model, torn));
        ASSERT_TRUE(Reopen());
        ASSERT_NO_FATAL_FAILURE(ExpectHoldsBut(OpenPeople(flag), model, torn));
    }
    // What the operation does to the tree of a field when nothing fails.
    struct Effect {
        int32_t levels; // how many more there are afterwards
        int32_t leaves;
        int32_t nodes;
        int32_t free;   // blocks on the free chain
        int32_t blocks; // ids handed out for the first time
        std::vector<std::string> lines;
        bool traced(const std::string& text) const
        {
            return std::find(lines.begin(), lines.end(), text) != lines.end();
        }
    };
    Effect EffectOn(uint32_t field, const Operation& run)
    {
        Restore();
        EXPECT_TRUE(Open());
        void* oTable = OpenPeople();
        const TreeReport before = CheckTable(oTable);
        TraceRecorder trace;
        EXPECT_EQ(run(oTable), 1u);
        const std::vector<std::string> lines = trace.texts();
        const TreeReport after = CheckTable(oTable);
        EXPECT_TRUE(after.problems.empty()) << after.text();
        Close();
        const IndexReport& was = before.indexes[field];
        const IndexReport& is = after.indexes[field];
        return {
            Difference(was.perLevel.size(), is.perLevel.size()),
            Difference(Leaves(was), Leaves(is)),
            Difference(was.nodes.size(), is.nodes.size()),
            Difference(before.freeChain.size(), after.freeChain.size()),
            Difference(before.blocks, after.blocks),
            lines};
    }
    static size_t Leaves(const IndexReport& index)
    {
        return index.perLevel.empty() ? 0 : index.perLevel.back();
    }
    static int32_t Difference(size_t was, size_t is)
    {
        return static_cast<int32_t>(is) - static_cast<int32_t>(was);
    }

    static Person Named(uint32_t n, const std::string& name, size_t length = 0)
    {
        Person person = MakePerson(n);
        person.name = name;
        if (length > name.size())
            person.name->resize(length, 'x');
        return person;
    }
    static void AddNamed(
        void* oTable, People* pModel, std::initializer_list<std::pair<const char*, size_t>> names)
    {
        uint32_t n = 100;
        for (const auto& [name, length] : names) {
            Person person = Named(n++, name, length);
            ASSERT_EQ(Add(oTable, &person), 1u) << name;
            (*pModel)[person.id] = person;
        }
    }

    // ---- the operations ----

    // At a cursor on the index of names: the cursor is found and used with faults, too. What the
    // host brings along is made before.
    Operation ModifyAtCursor(uint32_t id, const Person& wanted)
    {
        auto key = std::make_shared<Held>(ObjStringNew(before_.at(id).name->c_str()));
        auto object = std::make_shared<Held>(ObjectOf(wanted));
        return [key, object](void* oTable) -> NimBool {
            return AtCursor(oTable, "Name", key->get(), [&](void* oCursor) {
                return IndxModifyObjectAtCursor(oCursor, object->get());
            });
        };
    }
    Operation DeleteAtCursor(uint32_t id)
    {
        auto key = std::make_shared<Held>(ObjStringNew(before_.at(id).town->c_str()));
        return [key, id](void* oTable) -> NimBool {
            return AtCursor(oTable, "Town", key->get(), IndxDeleteRecord, id);
        };
    }
    static NimBool AtCursor(
        void* oTable, const char* field, void* oKey, const std::function<NimBool(void*)>& run,
        uint32_t id = 0)
    {
        void* oCursor = nullptr;
        if (!IndxGetFieldCursor(&oCursor, oTable, field))
            return FALSE;
        NimBool said = FALSE;
        if (IndxFindKey(oCursor, id, oKey) == INDX_RESULT_FOUND)
            said = run(oCursor);
        IndxReleaseCursor(&oCursor);
        return said;
    }
    static Operation ModifyById(uint32_t id, Person wanted)
    {
        wanted.id = id;
        auto object = std::make_shared<Held>(ObjectOf(wanted));
        return [object](void* oTable) { return IndxModifyObject(oTable, object->get()); };
    }
    static Operation DeleteById(uint32_t id)
    {
        return [id](void* oTable) { return IndxDeleteObjectFromTable(oTable, "Id", id, nullptr); };
    }

    bool writesNodes_ = false; // in the last sweep, a write of a node failed
};

// ---- modifying -------------------------------------------------------------------------------

TEST_F(FaultSweepChange, AModificationInItsPlace)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 10, 14); });
    Person wanted = MakePerson(50);
    wanted.photo.clear();
    wanted.town = "T";
    Sweep(2, wanted, ModifyAtCursor(2, wanted));
}

TEST_F(FaultSweepChange, AModificationThatChangesNoKey)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 10, 14); });
    Person wanted = before_.at(3);
    wanted.alive = !wanted.alive;
    Sweep(3, wanted, ModifyById(3, wanted));
    EXPECT_FALSE(writesNodes_);
}

TEST_F(FaultSweepChange, AModificationThatMovesToTheEnd)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 10, 14); }, 1);
    Sweep(2, MakePerson(50, 300), ModifyById(2, MakePerson(50, 300)), 1);
}

TEST_F(FaultSweepChange, AModificationOfTheOnlyRecordThatGrowsInItsPlace)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 10, 11); });
    Sweep(1, MakePerson(50, 300), ModifyAtCursor(1, MakePerson(50, 300)));
}

TEST_F(FaultSweepChange, AModificationThatSplitsALeafAndGrowsTheRoot)
{
    Prepare([](void* oTable, People* pModel) {
        AddNamed(oTable, pModel, {{"A", 0}, {"M", HALF}, {"R", HALF}});
    });
    const Person wanted = Named(100, "T", HALF);
    const Effect effect = EffectOn(1, ModifyById(1, wanted));
    EXPECT_EQ(effect.levels, 1);
    EXPECT_EQ(effect.leaves, 1);
    Sweep(1, wanted, ModifyById(1, wanted));
}

TEST_F(FaultSweepChange, AModificationThatSplitsABranchAndGrowsTheRoot)
{
    Prepare([](void* oTable, People* pModel) {
        AddPeople(oTable, pModel, 0, 4, HALF, HALF);
        AddPeople(oTable, pModel, 20, 21);
    });
    const Person wanted = MakePerson(20, HALF, HALF);
    const Effect effect = EffectOn(1, ModifyAtCursor(5, wanted));
    EXPECT_EQ(effect.levels, 1);
    EXPECT_EQ(effect.nodes, 3);
    Sweep(5, wanted, ModifyAtCursor(5, wanted));
}

TEST_F(FaultSweepChange, AModificationThatSplitsToTheLeft)
{
    Prepare([](void* oTable, People* pModel) {
        AddPeople(oTable, pModel, 10, 14, HALF, HALF);
        AddPeople(oTable, pModel, 20, 21);
    });
    const Person wanted = MakePerson(5, HALF, HALF);
    EXPECT_TRUE(EffectOn(1, ModifyById(5, wanted)).traced("IndxSplitLeft()"));
    Sweep(5, wanted, ModifyById(5, wanted));
}

TEST_F(FaultSweepChange, AModificationThatEmptiesALeaf)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 5, HALF); });
    const Person wanted = Named(4, "A");
    const Effect effect = EffectOn(1, ModifyById(5, wanted));
    EXPECT_EQ(effect.leaves, -1);
    EXPECT_EQ(effect.levels, 0);
    Sweep(5, wanted, ModifyById(5, wanted));
}

TEST_F(FaultSweepChange, AModificationThatEmptiesBranches)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 9, HALF); });
    const Person wanted = Named(8, "A");
    const Effect effect = EffectOn(1, ModifyAtCursor(9, wanted));
    EXPECT_EQ(effect.leaves, -1);
    EXPECT_EQ(effect.nodes, -3);
    Sweep(9, wanted, ModifyAtCursor(9, wanted));
}

TEST_F(FaultSweepChange, AModificationThatTakesBlocksOffTheFreeChain)
{
    Prepare([](void* oTable, People* pModel) {
        AddPeople(oTable, pModel, 0, 6, HALF, HALF);
        AddPeople(oTable, pModel, 20, 21);
        DeletePeople(oTable, pModel, {3, 4, 5, 6});
        EXPECT_GE(CheckTable(oTable).freeChain.size(), 2u);
    });
    const Person wanted = Named(20, "Name 00000000z", HALF); // between two that fill a leaf
    const Effect effect = EffectOn(1, ModifyById(7, wanted));
    EXPECT_TRUE(effect.traced("IndxSplitRight()"));
    EXPECT_EQ(effect.blocks, 0);
    Sweep(7, wanted, ModifyById(7, wanted));
}

TEST_F(FaultSweepChange, AModificationThatPutsBlocksOnTheFreeChain)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 5, HALF, HALF); });
    const Person wanted = MakePerson(4);
    EXPECT_GT(EffectOn(1, ModifyById(5, wanted)).free, 0);
    Sweep(5, wanted, ModifyById(5, wanted));
}

// ---- deleting --------------------------------------------------------------------------------

TEST_F(FaultSweepChange, ADeletion)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 10, 14); }, 1);
    Sweep(2, std::nullopt, DeleteAtCursor(2), 1);
}

TEST_F(FaultSweepChange, TheDeletionOfTheLastRecord)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 10, 11); });
    const Effect effect = EffectOn(0, DeleteById(1));
    EXPECT_EQ(effect.levels, -1);
    EXPECT_EQ(effect.free, 6);
    Sweep(1, std::nullopt, DeleteById(1));
}

TEST_F(FaultSweepChange, ADeletionThatEmptiesALeaf)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 5, HALF); });
    EXPECT_EQ(EffectOn(1, DeleteById(5)).leaves, -1);
    Sweep(5, std::nullopt, DeleteById(5));
}

// From the inside of its level: both neighbours learn of it.
TEST_F(FaultSweepChange, ADeletionThatEmptiesALeafBetweenOthers)
{
    Prepare([](void* oTable, People* pModel) {
        AddNamed(oTable, pModel, {{"A", HALF}, {"C", HALF}, {"T", HALF}, {"B", HALF}});
        const IndexReport names = CheckTable(oTable).indexes[1];
        ASSERT_GE(names.perLevel.back(), 3u);
    });
    uint32_t id = 0;
    for (const auto& [candidate, person] : before_) {
        const Effect effect = EffectOn(1, DeleteById(candidate));
        const char first = (*person.name)[0];
        if (effect.leaves == -1 && first != 'A' && first != 'T')
            id = candidate;
    }
    ASSERT_NE(id, 0u) << "no leaf of one key in the middle";
    Sweep(id, std::nullopt, DeleteById(id));
}

TEST_F(FaultSweepChange, ADeletionThatEmptiesBranches)
{
    Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 9, HALF, HALF); });
    EXPECT_EQ(EffectOn(1, DeleteAtCursor(9)).nodes, -3);
    Sweep(9, std::nullopt, DeleteAtCursor(9));
}

// The first key of a leaf goes, the next one is longer, and the full parent has no room for it.
TEST_F(FaultSweepChange, ADeletionThatSplitsAFullParent)
{
    Prepare([](void* oTable, People* pModel) {
        AddNamed(
            oTable, pModel,
            {{"B", 0},
             {"C", HALF},
             {"E", HALF},
             {"G", HALF},
             {"H", HALF},
             {"K", HALF},
             {"L", HALF}});
    });
    uint32_t id = 0;
    for (const auto& entry : before_) {
        const Effect effect = EffectOn(1, DeleteById(entry.first));
        if (effect.traced("IndxSplitLeft()") || effect.traced("IndxSplitRight()"))
            id = entry.first;
    }
    ASSERT_NE(id, 0u) << "no deletion splits";
    Sweep(id, std::nullopt, DeleteById(id));
}

// ---- walks that change the table ---------------------------------------------------------------

// A callback deletes the record it is given, or adds to its age: each record is as before or as
// afterwards, whatever the walk met on its way.
class FaultSweepChangingWalk : public FaultSweepChange {
  protected:
    struct Walk {
        void* oTable;
        bool deletes;
        uint32_t calls;
    };
    static uint32_t ChangeOne(void* oObject, void* context, uint32_t id)
    {
        auto* pWalk = static_cast<Walk*>(context);
        ++pWalk->calls;
        if (pWalk->deletes) {
            IndxDeleteObjectFromTable(pWalk->oTable, "Id", id, nullptr);
        } else {
            static_cast<PersonBody*>(oObject)->age += 100;
            IndxModifyObject(pWalk->oTable, oObject);
        }
        return 1;
    }
    void SweepWalk(bool deletes)
    {
        Prepare([](void* oTable, People* pModel) { AddPeople(oTable, pModel, 0, 6, HALF); });
        ForEveryFault([&](const FaultRule& rule, bool* pHit) {
            Restore();
            const LiveCounts before;
            ASSERT_TRUE(Open());
            void* oTable = OpenPeople();
            CrashRecorder crashes;
            LogRecorder log;
            Walk walk = {oTable, deletes, 0};
            const uint32_t armed = FaultArm(&rule);
            const uint32_t result = IndxWalkTableWithRecordId(oTable, "Name", ChangeOne, &walk);
            *pHit = FaultHits(armed) > 0;
            FaultDisarmAll();
            ASSERT_LE(result, 1u);
            const bool lost = log.count(1300) > 0;
            if (!lost) {
                ASSERT_EQ(crashes.count(), 0u);
                ASSERT_LE(walk.calls, before_.size());
                ExpectHalfChanged(oTable, deletes, *pHit, rule.point == FAULT_WRITE);
            }
            Close();
            ASSERT_EQ(LiveCounts(), before);
            if (lost)
                ReadWhateverIsLeft(0);
            ASSERT_EQ(LiveCounts(), before);
        });
    }
    // What is there, by id, decides what every index must hold. Torn writes leave the old bytes or
    // the new ones here: the length does not change.
    void ExpectHalfChanged(void* oTable, bool deletes, bool bHit, bool bTorn)
    {
        People model;
        uint32_t changed = 0;
        for (const auto& [id, person] : before_) {
            const std::optional<Person> found = FindById(oTable, id);
            changed += !found || found->age != person.age;
            ASSERT_TRUE(found || deletes);
            if (!found)
                continue;
            Person aged = person;
            aged.age += 100;
            ASSERT_TRUE(*found == person || (!deletes && *found == aged));
            model[id] = *found;
        }
        ASSERT_TRUE(bHit || changed == before_.size());
        ExpectSound(oTable);
        // Opens the table again: the handle at hand is gone then.
        if (!bTorn)
            ExpectGoesOn(oTable, model, {}, 0);
    }
};

TEST_F(FaultSweepChangingWalk, DeletingEveryRecord)
{
    SweepWalk(true);
}
TEST_F(FaultSweepChangingWalk, ModifyingEveryRecord)
{
    SweepWalk(false);
}

} // namespace
