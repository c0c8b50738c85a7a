// quirks_wrappers_test.cpp: what the table wrappers do on purpose and keep doing, oddities
// included.

#include "database/indexwrappers.h"
#include "people_scene.h"

namespace {

class WrapperQuirk : public testing::Test {
  protected:
    void* people() { return scene_.table_; }
    void AddPeople(uint32_t n)
    {
        for (uint32_t i = 1; i <= n; ++i)
            scene_.MustAdd(i);
    }
    // What a walk saw, and what its callback answers from a record on.
    struct Seen {
        std::vector<uint32_t> ids;
        uint32_t stopAt = 0;
        uint32_t answer = 1;
    };
    static uint32_t Visit(void* oObject, void* context)
    {
        return VisitWithId(
            oObject, context, static_cast<uint32_t>(static_cast<PersonBody*>(oObject)->id));
    }
    static uint32_t VisitWithId(void*, void* context, uint32_t id)
    {
        auto* pSeen = static_cast<Seen*>(context);
        pSeen->ids.push_back(id);
        return pSeen->ids.size() == pSeen->stopAt ? pSeen->answer : 1;
    }
    static uint32_t CountReferences(void* oObject, void* context)
    {
        *static_cast<int32_t*>(context) += OBJ_HEADER(oObject)->refCount;
        return 1;
    }
    // Cursors open on all fields.
    uint32_t OpenCursors()
    {
        uint32_t n = 0;
        for (uint32_t i = 0; i < 6; ++i)
            n += ListGetCount(PeopleScene::Field(people(), i)->oCursors);
        return n;
    }
    static Held Text(const std::string& text) { return Held(ObjStringNew(text.c_str())); }

    LogRecorder log_;
    TraceRecorder trace_;
    PeopleScene scene_;
    Held out_;
};

// ---- by key
// --------------------------------------------------------------------------------------

TEST_F(WrapperQuirk, ARecordIsLookedForWithoutTheIdThatIsGivenAndAnObjectWithIt)
{
    AddPeople(5); // 3, 4 and 5 live in town 1
    const Held town = Text("Town 1");
    ASSERT_EQ(IndxGetRecordFromTable(out_.out(), people(), "Town", 5, town.get()), 1u);
    EXPECT_EQ(U32At(RecordBytes(out_.get()), 4), 3u);
    Held object;
    ASSERT_EQ(IndxGetObjectFromTable(object.out(), people(), "Town", 5, town.get()), 1u);
    EXPECT_EQ(static_cast<PersonBody*>(object.get())->id, 5);
    Held none;
    EXPECT_EQ(IndxGetObjectFromTable(none.out(), people(), "Town", 99, town.get()), 0u);
    Held record;
    EXPECT_EQ(IndxGetRecordFromTable(record.out(), people(), "Town", 99, town.get()), 1u);
}

TEST_F(WrapperQuirk, SoNoRecordIsFoundByItsIdAlone)
{
    AddPeople(1);
    EXPECT_EQ(IndxGetRecordFromTable(out_.out(), people(), "Id", 1, nullptr), 0u);
    EXPECT_EQ(IndxGetObjectFromTable(out_.out(), people(), "Id", 1, nullptr), 1u);
}

TEST_F(WrapperQuirk, AmongEqualKeysTheFirstRecordIsTaken)
{
    AddPeople(5);
    const Held town = Text("Town 1");
    EXPECT_EQ(IndxDeleteObjectFromTable(people(), "Town", 0, town.get()), 1u);
    EXPECT_EQ(scene_.FindById(people(), 3), std::nullopt);
    EXPECT_TRUE(scene_.FindById(people(), 4));
}

TEST_F(WrapperQuirk, GettingFailsInSilenceAndDeletingDoesNot)
{
    const TraceRecorder failures(-1);
    const Held town = Text("Nowhere");
    EXPECT_EQ(IndxGetRecordFromTable(out_.out(), people(), "Town", 0, town.get()), 0u);
    EXPECT_EQ(IndxGetObjectFromTable(out_.out(), people(), "Town", 0, town.get()), 0u);
    EXPECT_TRUE(failures.lines().empty()) << failures.dump();
    EXPECT_EQ(IndxDeleteObjectFromTable(people(), "Town", 0, town.get()), 0u);
    EXPECT_EQ(failures.lines().size(), 1u);
}

TEST_F(WrapperQuirk, TheWrappersSetNoCodesOfTheirOwn)
{
    IndxSetError(77);
    EXPECT_EQ(IndxGetRecordFromTable(out_.out(), people(), "Id", 1, nullptr), 0u);
    EXPECT_EQ(IndxGetObjectFromTable(out_.out(), people(), "Id", 1, nullptr), 0u);
    EXPECT_EQ(IndxDeleteObjectFromTable(people(), "Id", 1, nullptr), 0u);
    EXPECT_EQ(IndxModifyObject(people(), nullptr), 0u);
    EXPECT_EQ(IndxModifyObject(people(), scene_.ObjectOf(MakePerson(1)).get()), 0u);
    EXPECT_EQ(IndxWalkTable(people(), nullptr, Visit, nullptr), 0u);
    EXPECT_EQ(IndxError(), 77u);
}

TEST_F(WrapperQuirk, AModificationWithoutATableIsRefusedInSilence)
{
    AddPeople(1);
    const std::string before = ReadFileBytes(scene_.RecordsPath());
    Person person = MakePerson(9);
    person.id = 9;
    const Held object = scene_.ObjectOf(person);
    const TraceRecorder failures(0);
    EXPECT_EQ(IndxModifyObject(nullptr, object.get()), 0u);
    EXPECT_TRUE(failures.lines().empty()) << failures.dump();
    EXPECT_EQ(ReadFileBytes(scene_.RecordsPath()), before);
}

// ---- walks
// ---------------------------------------------------------------------------------------

TEST_F(WrapperQuirk, AWalkOfNothingIsOne)
{
    Seen seen;
    EXPECT_EQ(IndxWalkTable(people(), "Name", Visit, &seen), 1u);
    EXPECT_TRUE(seen.ids.empty());
}

TEST_F(WrapperQuirk, OnlyExactlyOneGoesOnAndAnyOtherValueIsTheResult)
{
    AddPeople(4);
    for (uint32_t answer : {0u, 2u, 0xFFFFFFFFu}) {
        Seen walk{{}, 3, answer};
        EXPECT_EQ(IndxWalkTable(people(), "Id", Visit, &walk), answer);
        EXPECT_EQ(walk.ids, std::vector<uint32_t>({1, 2, 3}));
        Seen withId{{}, 3, answer};
        EXPECT_EQ(IndxWalkTableWithRecordId(people(), "Id", VisitWithId, &withId), answer);
        EXPECT_EQ(withId.ids, walk.ids);
        Seen partial{{}, 3, answer};
        EXPECT_EQ(
            IndxWalkTableWithPartialRecords(people(), nullptr, "Id", Visit, &partial), answer);
        EXPECT_EQ(partial.ids, walk.ids);
    }
}

TEST_F(WrapperQuirk, ARecordThatCannotBeFetchedIsSkipped)
{
    AddPeople(3);
    // A whole record is asked for with a read that takes more than the record, and then, when that
    // fails, with one that does not.
    const auto walk = [&](uint32_t reads, auto step) {
        scene_.Fail(FAULT_READ, 2, reads, "Records");
        Seen seen;
        EXPECT_EQ(step(&seen), 1u);
        FaultDisarmAll();
        EXPECT_EQ(seen.ids, std::vector<uint32_t>({1, 3}));
    };
    walk(2, [&](Seen* p) { return IndxWalkTable(people(), "Id", Visit, p); });
    walk(2, [&](Seen* p) { return IndxWalkTableWithRecordId(people(), "Id", VisitWithId, p); });
    walk(1, [&](Seen* p) {
        return IndxWalkTableWithPartialRecords(people(), nullptr, "Id", Visit, p);
    });
}

TEST_F(WrapperQuirk, OnlyTheWalkWithRecordIdsTracesASkippedRecord)
{
    AddPeople(1);
    const auto skipped = [&](auto step) {
        scene_.Fail(FAULT_READ, 1, 0, "Records");
        trace_.clear();
        step();
        FaultDisarmAll();
        return trace_.count("Failed to fetch object at cursor - skip record in walk");
    };
    Seen seen;
    EXPECT_EQ(skipped([&] { IndxWalkTable(people(), "Id", Visit, &seen); }), 0u);
    EXPECT_EQ(skipped([&] { IndxWalkTableWithRecordId(people(), "Id", VisitWithId, &seen); }), 1u);
}

TEST_F(WrapperQuirk, TheTextAboutMungedArgumentsNamesTheFormOfTheCallback)
{
    EXPECT_EQ(IndxWalkTableWithRecordId(people(), "Id", nullptr, nullptr), 0u);
    EXPECT_TRUE(trace_.has("Munged args to IndxWalkCallbackWithRecordId"));
    trace_.clear();
    EXPECT_EQ(IndxWalkTable(people(), "Id", nullptr, nullptr), 0u);
    EXPECT_EQ(IndxWalkTableWithPartialRecords(people(), nullptr, "Id", nullptr, nullptr), 0u);
    EXPECT_TRUE(trace_.lines().empty()); // the others say nothing
}

TEST_F(WrapperQuirk, AWalkOverAFieldWithoutAnIndexIsZero)
{
    AddPeople(1);
    Seen seen;
    EXPECT_EQ(IndxWalkTable(people(), "Photo", Visit, &seen), 0u);
    EXPECT_EQ(IndxWalkTable(people(), "Shoe", Visit, &seen), 0u);
    EXPECT_TRUE(seen.ids.empty());
}

TEST_F(WrapperQuirk, AWalkHandsItsOnlyReferenceOutAndTakesItBack)
{
    AddPeople(3);
    const uint32_t objects = ObjLiveCount(PeopleScene::PERSON_MAGIC);
    int32_t references = 0;
    EXPECT_EQ(IndxWalkTable(people(), "Id", CountReferences, &references), 1u);
    EXPECT_EQ(references, 3); // one for each of three records
    EXPECT_EQ(ObjLiveCount(PeopleScene::PERSON_MAGIC), objects);
}

TEST_F(WrapperQuirk, EveryCursorTakenIsReleasedOnEveryPath)
{
    AddPeople(2);
    Seen stopped{{}, 1, 0};
    Seen whole;
    IndxWalkTable(people(), "Id", Visit, &stopped);
    IndxWalkTable(people(), "Name", Visit, &whole);
    IndxWalkTableWithRecordId(people(), "Town", VisitWithId, &whole);
    IndxGetObjectFromTable(out_.out(), people(), "Id", 9, nullptr);
    IndxGetRecordFromTable(out_.out(), people(), "Age", 9, nullptr);
    IndxDeleteObjectFromTable(people(), "Id", 9, nullptr);
    IndxDeleteObjectFromTable(people(), "Id", 2, nullptr);
    IndxModifyObject(people(), scene_.ObjectOf(MakePerson(3)).get());
    EXPECT_EQ(OpenCursors(), 0u);
}

} // namespace
