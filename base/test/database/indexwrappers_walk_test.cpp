// indexwrappers_walk_test.cpp: walks over a table in the order of an index: what the callbacks see,
// what they may do to the table meanwhile, and how a walk ends over damaged nodes and records.
//
// Words of a node by their offsets in its block of 16384 bytes, block n at (n + 1) * 16384: next
// node 4, previous 8, leaf flag 12, count 20; entries of 24 bytes from 32 on, each with the id at
// 0, the value at 8, the record's offset at 16.

#include <gtest/gtest.h>

#include "database/indexwrappers.h"
#include "support/person_table.h"
#include "support/quiet_trace.h"

namespace {

constexpr const char* TAG = "INDXWRAP        ";
constexpr uint32_t NONE = 0xffffffff;

// What a walk does with each object; the result goes on when it is 1.
using Visit = std::function<uint32_t(void* oObject, uint32_t id)>;

uint32_t CallVisit(void* oObject, void* context)
{
    return (*static_cast<Visit*>(context))(oObject, 0);
}
uint32_t CallVisitWithId(void* oObject, void* context, uint32_t id)
{
    return (*static_cast<Visit*>(context))(oObject, id);
}

enum class Form { Plain, WithId, Partial };
constexpr Form FORMS[] = {Form::Plain, Form::WithId, Form::Partial};
constexpr uint32_t ALL[8] = {1, 1, 1, 1, 1, 1, 1, 1};

uint32_t Walk(Form form, void* oTable, const char* field, Visit visit)
{
    switch (form) {
    case Form::Plain:
        return IndxWalkTable(oTable, field, CallVisit, &visit);
    case Form::WithId:
        return IndxWalkTableWithRecordId(oTable, field, CallVisitWithId, &visit);
    default:
        return IndxWalkTableWithPartialRecords(oTable, ALL, field, CallVisit, &visit);
    }
}

class WrappersWalk : public PeopleTest {
  protected:
    void TearDown() override
    {
        if (table_)
            ExpectNoCursors(table_);
        PeopleTest::TearDown();
    }
    static void ExpectNoCursors(void* oTable)
    {
        void* oField = nullptr;
        for (uint32_t i = 0; ListGetNthItem(&oField, IndxAsTable(oTable)->oFields, i); ++i) {
            const auto* pField = static_cast<const IndxField*>(oField);
            if (pField->oCursors) {
                EXPECT_EQ(ListGetCount(pField->oCursors), 0u) << pField->name;
            }
        }
    }
    void AddFirst(uint32_t count) { AddPeople(table_, &model_, 1, count + 1); }
    // The ids in the order in which a walk meets them, by the objects themselves.
    std::vector<uint32_t> Ids(Form form, const char* field, uint32_t expected = 1)
    {
        std::vector<uint32_t> ids;
        const uint32_t result = Walk(form, table_, field, [&](void* oObject, uint32_t id) {
            ids.push_back(PersonOf(oObject).id);
            if (form == Form::WithId) {
                EXPECT_EQ(id, ids.back());
            }
            return 1u;
        });
        EXPECT_EQ(result, expected);
        return ids;
    }

    People model_;
};

// ---- what is seen ----------------------------------------------------------------------------

TEST_F(WrappersWalk, AWalkOverAnEmptyTableReturns1WithoutACall)
{
    for (const Form form : FORMS) {
        EXPECT_EQ(
            Walk(
                form, table_, "Name",
                [](void*, uint32_t) {
                    ADD_FAILURE();
                    return 1u;
                }),
            1u);
    }
    AddFirst(1);
    ASSERT_EQ(IndxDeleteObjectFromTable(table_, "Id", 1, nullptr), 1u);
    EXPECT_TRUE(Ids(Form::Plain, "Id").empty());
}

TEST_F(WrappersWalk, EveryRecordIsSeenOnceInTheOrderOfTheIndex)
{
    AddFirst(200);
    for (const char* field : {"Id", "Name", "Town", "Age", "Number", "Key", "nAmE"}) {
        const std::vector<uint32_t> expected = WalkIds(table_, field);
        ASSERT_EQ(expected.size(), 200u);
        for (const Form form : FORMS)
            EXPECT_EQ(Ids(form, field), expected) << field;
    }
}

TEST_F(WrappersWalk, TheCallbackSeesWholeObjectsItsContextAndItsId)
{
    AddFirst(5);
    for (const Form form : FORMS) {
        uint32_t next = 1;
        EXPECT_EQ(
            Walk(
                form, table_, "Id",
                [&](void* oObject, uint32_t id) {
                    EXPECT_EQ(PersonOf(oObject), model_[next]);
                    EXPECT_EQ(OBJ_HEADER(oObject)->refCount, 1);
                    EXPECT_EQ(id, form == Form::WithId ? next : 0u);
                    ++next;
                    return 1u;
                }),
            1u);
        EXPECT_EQ(next, 6u);
    }
}

TEST_F(WrappersWalk, AnObjectIsReleasedWhenTheCallbackReturns)
{
    AddFirst(20);
    for (const Form form : FORMS) {
        void* oKept = nullptr;
        uint32_t seen = 0;
        EXPECT_EQ(
            Walk(
                form, table_, "Id",
                [&](void* oObject, uint32_t) {
                    EXPECT_EQ(ObjLiveCount(PERSON_MAGIC), oKept ? 2u : 1u);
                    if (++seen == 3)
                        oKept = ObjIncRefCount(oObject);
                    return 1u;
                }),
            1u);
        EXPECT_EQ(ObjLiveCount(PERSON_MAGIC), 1u);
        EXPECT_EQ(PersonOf(oKept).id, 3u); // a reference of the callback's own
        ObjReleaseInternal(&oKept);
    }
}

TEST_F(WrappersWalk, AnythingBut1StopsTheWalkAndIsItsResult)
{
    AddFirst(6);
    for (const Form form : FORMS) {
        for (const uint32_t value : {0u, 2u, 7u, 0x80000000u, 0xffffffffu}) {
            uint32_t seen = 0;
            EXPECT_EQ(
                Walk(form, table_, "Id", [&](void*, uint32_t) { return ++seen == 3 ? value : 1u; }),
                value);
            EXPECT_EQ(seen, 3u);
        }
        // On the last record too.
        uint32_t seen = 0;
        EXPECT_EQ(
            Walk(form, table_, "Id", [&](void*, uint32_t) { return ++seen == 6 ? 2u : 1u; }), 2u);
    }
}

TEST_F(WrappersWalk, WithoutASelectionTheVariableFieldsAreAbsent)
{
    AddFirst(3);
    Visit visit = [&](void* oObject, uint32_t) {
        Person expected = model_[PersonOf(oObject).id];
        expected.name.reset();
        expected.town.reset();
        expected.photo.clear();
        EXPECT_EQ(PersonOf(oObject), expected);
        return 1u;
    };
    EXPECT_EQ(IndxWalkTableWithPartialRecords(table_, nullptr, "Name", CallVisit, &visit), 1u);
    // A selection brings them whatever it selects.
    const uint32_t none[8] = {};
    visit = [&](void* oObject, uint32_t) {
        EXPECT_EQ(PersonOf(oObject), model_[PersonOf(oObject).id]);
        return 1u;
    };
    EXPECT_EQ(IndxWalkTableWithPartialRecords(table_, none, "Name", CallVisit, &visit), 1u);
}

// ---- arguments -------------------------------------------------------------------------------

TEST_F(WrappersWalk, UnusableArgumentsGive0AndOnlyTheWalkWithIdsSaysSo)
{
    AddFirst(1);
    Visit never = [](void*, uint32_t) {
        ADD_FAILURE();
        return 1u;
    };
    const char* line = "Munged args to IndxWalkCallbackWithRecordId";
    TraceRecorder trace(-1);
    for (void* oTable : {static_cast<void*>(nullptr), database()}) {
        EXPECT_EQ(IndxWalkTable(oTable, "Id", CallVisit, &never), 0u);
        EXPECT_EQ(IndxWalkTableWithPartialRecords(oTable, ALL, "Id", CallVisit, &never), 0u);
    }
    EXPECT_EQ(IndxWalkTable(table_, nullptr, CallVisit, &never), 0u);
    EXPECT_EQ(IndxWalkTableWithPartialRecords(table_, ALL, nullptr, CallVisit, &never), 0u);
    EXPECT_EQ(IndxWalkTable(table_, "Id", nullptr, &never), 0u);
    EXPECT_EQ(IndxWalkTableWithPartialRecords(table_, ALL, "Id", nullptr, &never), 0u);
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    EXPECT_EQ(IndxWalkTableWithRecordId(nullptr, "Id", CallVisitWithId, &never), 0u);
    EXPECT_EQ(IndxWalkTableWithRecordId(database(), "Id", CallVisitWithId, &never), 0u);
    EXPECT_EQ(IndxWalkTableWithRecordId(table_, nullptr, CallVisitWithId, &never), 0u);
    EXPECT_EQ(IndxWalkTableWithRecordId(table_, "Id", nullptr, &never), 0u);
    EXPECT_EQ(trace.lines().size(), 4u) << trace.dump();
    for (const TraceRecorder::Line& traced : trace.lines()) {
        EXPECT_EQ(traced.tag, TAG);
        EXPECT_EQ(traced.text, line);
        EXPECT_EQ(traced.error, 0u);
        EXPECT_EQ(traced.level, -1);
    }
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(WrappersWalk, AFieldWithoutACursorGives0AndOnlyTheWalkWithIdsNamesIt)
{
    AddFirst(1);
    for (const char* field : {"Nothing", "Photo", ""}) {
        for (const Form form : FORMS) {
            IndxSetError(UNTOUCHED);
            TraceRecorder trace(-1);
            EXPECT_EQ(
                Walk(
                    form, table_, field,
                    [](void*, uint32_t) {
                        ADD_FAILURE();
                        return 1u;
                    }),
                0u);
            EXPECT_EQ(IndxError(), field[0] == 'P' ? INDX_ERROR_NOT_INDEXED : INDX_ERROR_NO_FIELD);
            const std::string line = std::string("Failed to get field cursor for '") + field + "'";
            EXPECT_EQ(trace.has(TAG, 0, -1, line), form == Form::WithId) << trace.dump();
            EXPECT_EQ(trace.lines().size(), form == Form::WithId ? 2u : 1u); // one of the field's
        }
    }
}

// ---- records that cannot be fetched ----------------------------------------------------------

TEST_F(WrappersWalk, ARecordThatCannotBeFetchedIsSkippedAndOnlyTheWalkWithIdsSaysSo)
{
    AddFirst(5);
    const auto second = static_cast<size_t>(OffsetOf(table_, 2));
    const auto last = static_cast<size_t>(OffsetOf(table_, 5));
    WithRecordsFile([&](std::string& bytes) {
        PutU32At(bytes, second, 0x7fffffff);
        PutU32At(bytes, second + 8, 0x7ffffff0); // its name
        bytes.resize(last + 20);
    });
    for (const Form form : FORMS) {
        TraceRecorder trace(-1);
        LogRecorder log;
        EXPECT_EQ(Ids(form, "Id"), (std::vector<uint32_t>{1, 3, 4}));
        const char* line = "Failed to fetch object at cursor - skip record in walk";
        EXPECT_EQ(trace.count(line), form == Form::WithId ? 2u : 0u) << trace.dump();
        EXPECT_EQ(trace.has(TAG, 0, -1, line), form == Form::WithId);
        EXPECT_EQ(log.messages().size(), 2u) << log.dump();
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
    }
}

TEST_F(WrappersWalk, EveryRecordMayBeSkipped)
{
    AddFirst(5);
    const QuietTrace quiet;
    const LogRecorder log;
    for (const Form form : FORMS) {
        Fail(FAULT_READ, 1, 0, "Records");
        EXPECT_TRUE(Ids(form, "Number").empty());
        FaultDisarmAll();
    }
}

// ---- callbacks that change the table ---------------------------------------------------------

TEST_F(WrappersWalk, ACallbackMayDeleteTheRecordItSees)
{
    for (const Form form : FORMS) {
        People model;
        AddPeople(table_, &model, 1, 1001);
        const std::vector<uint32_t> expected = WalkIds(table_, "Key");
        std::vector<uint32_t> ids;
        EXPECT_EQ(
            Walk(
                form, table_, "Key",
                [&](void* oObject, uint32_t) {
                    ids.push_back(PersonOf(oObject).id);
                    return IndxDeleteObjectFromTable(table_, "Id", ids.back(), nullptr);
                }),
            1u);
        EXPECT_EQ(ids, expected);
        ExpectHolds(table_, {});
    }
}

TEST_F(WrappersWalk, ACallbackMayDeleteTheRecordsAroundTheOneItSees)
{
    for (const Form form : FORMS) {
        People model;
        AddPeople(table_, &model, 1, 1001);
        const uint32_t first = model.begin()->first;
        std::vector<uint32_t> ids;
        // The one seen before and the one behind: of every two the walk sees one.
        EXPECT_EQ(
            Walk(
                form, table_, "Id",
                [&](void* oObject, uint32_t) {
                    const uint32_t id = PersonOf(oObject).id;
                    ids.push_back(id);
                    for (const uint32_t other : {id - 2, id + 1}) {
                        if (model.erase(other)) {
                            EXPECT_EQ(IndxDeleteObjectFromTable(table_, "Id", other, nullptr), 1u);
                        }
                    }
                    return 1u;
                }),
            1u);
        ASSERT_EQ(ids.size(), 500u);
        for (size_t i = 0; i < ids.size(); ++i)
            EXPECT_EQ(ids[i], first + 2 * i);
        ASSERT_EQ(model.size(), 1u);
        ExpectHolds(table_, model);
        ASSERT_EQ(IndxDeleteObjectFromTable(table_, "Id", model.begin()->first, nullptr), 1u);
    }
}

TEST_F(WrappersWalk, ACallbackThatDeletesEverythingEndsTheWalk)
{
    AddFirst(100);
    uint32_t seen = 0;
    EXPECT_EQ(
        Walk(
            Form::Plain, table_, "Name",
            [&](void*, uint32_t) {
                ++seen;
                for (const auto& entry : model_)
                    EXPECT_EQ(IndxDeleteObjectFromTable(table_, "Id", entry.first, nullptr), 1u);
                return 1u;
            }),
        1u);
    EXPECT_EQ(seen, 1u);
    ExpectHolds(table_, {});
}

TEST_F(WrappersWalk, WhatACallbackAddsIsSeenWhenItLiesInFrontOfTheWalk)
{
    AddFirst(3);
    std::vector<int32_t> ages;
    EXPECT_EQ(
        Walk(
            Form::Plain, table_, "Number",
            [&](void* oObject, uint32_t) {
                const Person seen = PersonOf(oObject);
                ages.push_back(seen.age);
                if (ages.size() > 3)
                    return 1u;
                for (const int64_t number : {seen.number - 1, seen.number + 1}) {
                    Person person = MakePerson(static_cast<uint32_t>(100 + model_.size()));
                    person.number = number;
                    person.age = number < seen.number ? 1000 : 2000;
                    EXPECT_EQ(Add(table_, &person), 1u);
                    model_[person.id] = person;
                }
                return 1u;
            }),
        1u);
    EXPECT_EQ(ages, (std::vector<int32_t>{-4, 2000, 2000, 2000, -3, -2}));
    ExpectHolds(table_, model_);
}

TEST_F(WrappersWalk, ACallbackMayModifyWhatItSeesLongerOrShorter)
{
    AddFirst(400);
    for (const Form form : FORMS) {
        for (const char* field : {"Id", "Name", "Town"}) {
            std::vector<uint32_t> ids;
            const std::vector<uint32_t> expected = WalkIds(table_, field);
            EXPECT_EQ(
                Walk(
                    form, table_, field,
                    [&](void* oObject, uint32_t) {
                        Person person = PersonOf(oObject);
                        ids.push_back(person.id);
                        person.photo.resize((person.photo.size() + 31) % 90, 'x');
                        person.number = -person.number;
                        model_[person.id] = person;
                        return IndxModifyObject(table_, ObjectOf(person).get());
                    }),
                1u);
            EXPECT_EQ(ids, expected) << field;
        }
    }
    ExpectHolds(table_, model_);
}

TEST_F(WrappersWalk, ARecordWhoseKeyMovesAheadIsSeenAgain)
{
    AddFirst(4);
    std::vector<uint32_t> ids;
    EXPECT_EQ(
        Walk(
            Form::Plain, table_, "Number",
            [&](void* oObject, uint32_t) {
                Person person = PersonOf(oObject);
                ids.push_back(person.id);
                person.number += int64_t{1} << 40;
                EXPECT_EQ(IndxModifyObject(table_, ObjectOf(person).get()), 1u);
                return ids.size() == 12 ? 5u : 1u;
            }),
        5u);
    EXPECT_EQ(ids, (std::vector<uint32_t>{1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4}));
    ExpectSound(table_);
}

TEST_F(WrappersWalk, AFailedChangeInACallbackDoesNotDisturbTheWalk)
{
    AddFirst(30);
    const QuietTrace quiet;
    uint32_t seen = 0;
    EXPECT_EQ(
        Walk(
            Form::WithId, table_, "Town",
            [&](void* oObject, uint32_t) {
                ++seen;
                Person again = PersonOf(oObject);
                EXPECT_EQ(Add(table_, &again), 0u); // its name is taken
                Person nameless = PersonOf(oObject);
                nameless.name.reset();
                EXPECT_EQ(IndxModifyObject(table_, ObjectOf(nameless).get()), 0u);
                return 1u;
            }),
        1u);
    EXPECT_EQ(seen, 30u);
    ExpectHolds(table_, model_);
}

TEST_F(WrappersWalk, WalksMayRunInWalks)
{
    AddFirst(12);
    uint32_t seen = 0;
    EXPECT_EQ(
        Walk(
            Form::Plain, table_, "Id",
            [&](void*, uint32_t) {
                return Walk(Form::WithId, table_, "Id", [&](void*, uint32_t) {
                    ++seen;
                    return 1u;
                });
            }),
        1u);
    EXPECT_EQ(seen, 144u);
}

// Records that are taken from the front and put back behind the end: the walk takes more steps than
// the index ever had keys, and that is no damage.
TEST_F(WrappersWalk, AQueueThatIsFilledWhileItIsWalkedIsNoRing)
{
    AddFirst(5);
    constexpr uint32_t STEPS = 9000; // more than 681 keys for each of the file's blocks
    uint32_t seen = 0;
    EXPECT_EQ(
        Walk(
            Form::Plain, table_, "Id",
            [&](void* oObject, uint32_t) {
                Person person = PersonOf(oObject);
                EXPECT_EQ(IndxDeleteObjectFromTable(table_, "Id", person.id, nullptr), 1u);
                EXPECT_EQ(Add(table_, &person), 1u);
                return ++seen == STEPS ? 3u : 1u;
            }),
        3u);
    EXPECT_EQ(seen, STEPS);
    EXPECT_LT(static_cast<uint64_t>(CheckTable(table_).blocks + 1) * 681, STEPS);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(WrappersWalk, ATableThatIsClosedUnderAWalkEndsIt)
{
    for (const bool bChanged : {false, true}) {
        void* oTable = OpenPeople(0, bChanged ? "Changed" : "Same");
        People model;
        AddPeople(oTable, &model, 1, 4);
        void* oMine = ObjIncRefCount(oTable);
        uint32_t seen = 0;
        const QuietTrace quiet;
        EXPECT_EQ(
            Walk(
                Form::Plain, oTable, "Id",
                [&](void*, uint32_t) {
                    ++seen;
                    if (bChanged) {
                        Person person = MakePerson(50);
                        EXPECT_EQ(Add(oTable, &person), 1u);
                    }
                    return IndxCloseTable(&oMine);
                }),
            0u);
        EXPECT_EQ(seen, 1u);
    }
}

// ---- damage ----------------------------------------------------------------------------------

// A table of numbers whose index has three leaves, full ones first, and its file to be damaged.
class WrappersWalkDamage : public DatabaseTest {
  protected:
    static constexpr const char* FORMAT = "i;i;";
    static constexpr uint32_t RECORDS = 1500; // 681, 681 and 138 keys
    static constexpr uint32_t UNTOUCHED = 7777;

    void SetUp() override
    {
        DatabaseTest::SetUp();
        ASSERT_TRUE(Open());
        table_ = OpenNumbers();
        for (uint32_t n = 1; n <= RECORDS; ++n)
            ASSERT_TRUE(AddNumber(static_cast<int32_t>(n)));
        const TreeReport report = CheckTable(table_);
        ASSERT_EQ(report.indexes.size(), 2u);
        ASSERT_EQ(report.indexes[1].perLevel, (std::vector<uint32_t>{1, 3}));
        const std::vector<uint32_t>& nodes = report.indexes[1].nodes;
        leaves_.assign(nodes.begin() + 1, nodes.end());
        root_ = nodes[0];
        otherLeaf_ = report.indexes[0].nodes[2];
    }
    void* OpenNumbers() { return OpenTable("Numbers", MAGIC, FORMAT, "Id,Value;Indexed"); }
    bool AddNumber(int32_t value)
    {
        Instance object(MAGIC, FORMAT);
        object.at<int32_t>(1) = value;
        return IndxAddObjectToTable(nullptr, table_, object.get()) == 1;
    }
    static size_t At(uint32_t block, size_t offset) { return (size_t{block} + 1) * 16384 + offset; }
    void Damage(const std::function<void(std::string&)>& change)
    {
        Close();
        std::string bytes = ReadFileBytes(PathOf("Indexes", "Numbers"));
        change(bytes);
        WriteFileBytes(PathOf("Indexes", "Numbers"), bytes);
        ASSERT_TRUE(Open());
        table_ = OpenNumbers();
        ASSERT_NE(table_, nullptr);
    }
    void PutWord(uint32_t block, size_t offset, uint32_t word)
    {
        Damage([&](std::string& bytes) { PutU32At(bytes, At(block, offset), word); });
    }
    // The last leaf leads to the first, and that back to the last.
    std::function<void(std::string&)> CloseRing() const
    {
        return [this](std::string& bytes) {
            PutU32At(bytes, At(leaves_[2], 4), leaves_[0]);
            PutU32At(bytes, At(leaves_[0], 8), leaves_[2]);
        };
    }
    // A walk in each form sees so many records and ends with 0, error 13 and a failure trace.
    void ExpectEndsAfter(uint32_t records)
    {
        for (const Form form : FORMS) {
            IndxSetError(UNTOUCHED);
            TraceRecorder trace(-1);
            uint32_t seen = 0;
            EXPECT_EQ(
                Walk(
                    form, table_, "Value",
                    [&](void* oObject, uint32_t) {
                        EXPECT_EQ(Item<uint32_t>(oObject, 1), ++seen);
                        return 1u;
                    }),
                0u);
            EXPECT_EQ(seen, records);
            EXPECT_EQ(IndxError(), INDX_ERROR_READ);
            EXPECT_TRUE(trace.hasPart(" of field 'Value' of table 'Numbers'")) << trace.dump();
            EXPECT_GE(trace.countLevel(-1), 1u);
        }
        void* oField = nullptr;
        ASSERT_EQ(IndxGetField(&oField, table_, "Value"), 1u);
        EXPECT_EQ(ListGetCount(static_cast<IndxField*>(oField)->oCursors), 0u);
        ObjReleaseInternal(&oField);
        uint32_t seen = 0; // the other index has nothing to do with it
        EXPECT_EQ(Walk(Form::Plain, table_, "Id", [&](void*, uint32_t) { return ++seen, 1u; }), 1u);
        EXPECT_EQ(seen, RECORDS);
    }

    void* table_ = nullptr;
    std::vector<uint32_t> leaves_;
    uint32_t root_ = 0;
    uint32_t otherLeaf_ = 0; // of the other index
};

TEST_F(WrappersWalkDamage, AWholeIndexIsWalkedToItsEnd)
{
    uint32_t seen = 0;
    IndxSetError(UNTOUCHED);
    EXPECT_EQ(Walk(Form::Plain, table_, "Value", [&](void*, uint32_t) { return ++seen, 1u; }), 1u);
    EXPECT_EQ(seen, RECORDS);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(WrappersWalkDamage, ABrokenLinkEndsTheWalkWith0)
{
    const uint32_t links[] = {root_, otherLeaf_, leaves_[0], leaves_[2],
                              4711,  0x7fffffff, 0x80000000, 0xfffffffe};
    for (const uint32_t link : links) {
        SCOPED_TRACE(link);
        PutWord(leaves_[0], 4, link);
        ExpectEndsAfter(681);
    }
}

TEST_F(WrappersWalkDamage, ALinkThatIsNotAnsweredEndsTheWalkWith0)
{
    for (const uint32_t link : {leaves_[2], leaves_[1], root_, NONE, 4711u}) {
        SCOPED_TRACE(link);
        PutWord(leaves_[1], 8, link);
        ExpectEndsAfter(681);
    }
}

TEST_F(WrappersWalkDamage, ANodeThatIsNoneEndsTheWalkWith0)
{
    const std::string sound = ReadFileBytes(PathOf("Indexes", "Numbers"));
    struct {
        size_t offset;
        uint32_t word;
    } const cases[] = {{12, 0},   {12, 2},          {16, 1},          {20, 0},
                       {20, 682}, {20, 0x7fffffff}, {20, 0x80000000}, {20, NONE}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.offset) + ": " + std::to_string(c.word));
        Damage([&](std::string& bytes) {
            bytes = sound;
            PutU32At(bytes, At(leaves_[1], c.offset), c.word);
        });
        ExpectEndsAfter(681);
    }
}

TEST_F(WrappersWalkDamage, AFirstLeafThatCannotBeUsedEndsTheWalkWithoutACall)
{
    PutWord(leaves_[0], 20, 4711);
    ExpectEndsAfter(0);
}

TEST_F(WrappersWalkDamage, ANodeThatCannotBeReadEndsTheWalkWith0)
{
    Damage([](std::string&) {}); // nothing is in memory any more
    IndxSetError(UNTOUCHED);
    const QuietTrace quiet;
    uint32_t seen = 0;
    Fail(FAULT_READ, 2, 0, "Indexes");
    EXPECT_EQ(Walk(Form::Plain, table_, "Value", [&](void*, uint32_t) { return ++seen, 1u; }), 0u);
    FaultDisarmAll();
    EXPECT_EQ(seen, 681u);
    EXPECT_EQ(IndxError(), INDX_ERROR_READ);
}

// The root plays no part in a walk.
TEST_F(WrappersWalkDamage, ADamagedRootIsNotMet)
{
    PutWord(root_, 20, 4711);
    uint32_t seen = 0;
    EXPECT_EQ(Walk(Form::Plain, table_, "Value", [&](void*, uint32_t) { return ++seen, 1u; }), 1u);
    EXPECT_EQ(seen, RECORDS);
}

TEST_F(WrappersWalkDamage, AChainThatEndsEarlyEndsTheWalkWith0)
{
    PutWord(leaves_[0], 4, NONE);
    ExpectEndsAfter(681);
    PutWord(leaves_[0], 4, leaves_[1]);
    PutWord(leaves_[1], 4, NONE);
    ExpectEndsAfter(1362);
}

TEST_F(WrappersWalkDamage, ARingOfLeavesWithConsistentLinksEndsTheWalkWith0)
{
    Damage(CloseRing());
    ExpectEndsAfter(0); // no leaf comes before the first
    // A cursor that was not placed at an end meets the seam, forth and back.
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, table_, "Value"), 1u);
    const Held value(ObjIntegerNew(700));
    for (const auto& [step, steps] :
         {std::pair(&IndxNextKey, RECORDS - 700), std::pair(&IndxPreviousKey, 699u)}) {
        IndxSetError(UNTOUCHED);
        ASSERT_EQ(IndxFindKey(oCursor, 0, value.get()), INDX_RESULT_FOUND);
        uint32_t taken = 0;
        while (taken <= RECORDS && step(oCursor) == INDX_RESULT_FOUND)
            ++taken;
        EXPECT_EQ(taken, steps);
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
    }
    IndxReleaseCursor(&oCursor);
}

TEST_F(WrappersWalkDamage, ALeafThatLinksToItselfEndsTheWalkWith0)
{
    Damage([&](std::string& bytes) {
        PutU32At(bytes, At(leaves_[1], 4), leaves_[1]);
        PutU32At(bytes, At(leaves_[1], 8), leaves_[1]);
    });
    ExpectEndsAfter(681);
}

// The leaves become a ring while the callback writes every record back, so that each step is a new
// find.
TEST_F(WrappersWalkDamage, ARingEndsAlsoWhileTheCallbackModifiesEveryRecord)
{
    const QuietTrace quiet;
    uint32_t seen = 0;
    EXPECT_EQ(
        Walk(
            Form::Plain, table_, "Value",
            [&](void* oObject, uint32_t) {
                EXPECT_EQ(IndxModifyObject(table_, oObject), 1u);
                if (++seen == 10) { // no node is in memory now
                    std::string bytes = ReadFileBytes(PathOf("Indexes", "Numbers"));
                    CloseRing()(bytes);
                    std::fstream(
                        PathOf("Indexes", "Numbers"),
                        std::ios::binary | std::ios::in | std::ios::out)
                        << bytes;
                }
                return seen > 2 * RECORDS ? 9u : 1u;
            }),
        0u);
    EXPECT_EQ(seen, RECORDS);
    EXPECT_EQ(IndxError(), INDX_ERROR_READ);
}

// A ring that the first leaf is no part of: a walk gets there only by a find, when the index has
// changed and a key stands in two leaves. It is left when the walk has taken more steps than the
// file can hold keys.
TEST_F(WrappersWalkDamage, ARingBesideTheChainEndsTheWalkToo)
{
    Damage([&](std::string& bytes) {
        PutU32At(bytes, At(leaves_[2], 4), leaves_[1]);
        PutU32At(bytes, At(leaves_[1], 8), leaves_[2]);
        // The last entry of the first leaf becomes the ninth of the second.
        bytes.replace(At(leaves_[0], 32 + 24 * 680), 24, bytes, At(leaves_[1], 32 + 24 * 8), 24);
    });
    const QuietTrace quiet;
    IndxSetError(UNTOUCHED);
    uint64_t seen = 0;
    EXPECT_EQ(
        Walk(
            Form::WithId, table_, "Value",
            [&](void*, uint32_t) {
                if (++seen == 681) {
                    EXPECT_TRUE(AddNumber(5000));
                }
                return seen > 1000000 ? 9u : 1u;
            }),
        0u);
    EXPECT_GT(seen, 2 * RECORDS);
    EXPECT_LE(seen, 681 + 681 * 20u); // there are not twenty blocks
    EXPECT_EQ(IndxError(), INDX_ERROR_READ);
}

TEST_F(WrappersWalkDamage, AnEntryThatLeadsNowhereIsASkippedRecordAndNoEndOfTheWalk)
{
    Damage([&](std::string& bytes) {
        PutU32At(bytes, At(leaves_[1], 32 + 16), 0x7ffffff0);
        PutU32At(bytes, At(leaves_[1], 32 + 24 + 16), 0xffffffff);
    });
    for (const Form form : FORMS) {
        TraceRecorder trace(-1);
        const LogRecorder log;
        uint32_t seen = 0;
        EXPECT_EQ(Walk(form, table_, "Value", [&](void*, uint32_t) { return ++seen, 1u; }), 1u);
        EXPECT_EQ(seen, RECORDS - 2);
        EXPECT_EQ(
            trace.count("Failed to fetch object at cursor - skip record in walk"),
            form == Form::WithId ? 2u : 0u);
    }
}

} // namespace
