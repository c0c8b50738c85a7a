// indexwrappers_test.cpp: records by key in one call. Walks over a table are
// indexwrappers_walk_test.cpp.

#include <gtest/gtest.h>

#include "database/indexwrappers.h"
#include "support/person_table.h"
#include "support/quiet_trace.h"

namespace {

constexpr const char* TAG = "INDXWRAP        ";

class Wrappers : public PeopleTest {
  protected:
    void SetUp() override
    {
        PeopleTest::SetUp();
        AddPeople(table_, &model_, 1, 10);
    }
    void TearDown() override
    {
        if (table_)
            ExpectNoCursors();
        PeopleTest::TearDown();
    }
    // Every cursor that a call has opened is gone again.
    void ExpectNoCursors()
    {
        for (uint32_t i = 0; i < 8; ++i) {
            const IndxField* pField = Field(table_, i);
            if (pField->oCursors) {
                EXPECT_EQ(ListGetCount(pField->oCursors), 0u) << pField->name;
            }
        }
    }
    static Held Text(const std::string& text) { return Held(ObjStringNew(text.c_str())); }

    std::optional<Person> GetObject(const char* field, uint32_t id, void* oKey)
    {
        Held object;
        if (!IndxGetObjectFromTable(object.out(), table_, field, id, oKey)) {
            EXPECT_EQ(object.get(), nullptr);
            return std::nullopt;
        }
        EXPECT_EQ(OBJ_HEADER(object.get())->refCount, 1);
        return PersonOf(object.get());
    }
    std::optional<Person> GetRecord(const char* field, uint32_t id, void* oKey)
    {
        Held record;
        if (!IndxGetRecordFromTable(record.out(), table_, field, id, oKey)) {
            EXPECT_EQ(record.get(), nullptr);
            return std::nullopt;
        }
        EXPECT_EQ(OBJ_HEADER(record.get())->magic, DB_BLOB_MAGIC);
        EXPECT_EQ(OBJ_HEADER(record.get())->refCount, 1);
        return PersonOf(Decoded(record.get()).get());
    }

    People model_;
};

// ---- getting ---------------------------------------------------------------------------------

TEST_F(Wrappers, ARecordIsFoundByTheKeyOfAnyIndex)
{
    const Person& person = model_[4];
    const Held name = Text(*person.name);
    const Held town = Text(*person.town);
    const Held age(ObjIntegerNew(person.age));
    const Held number(ObjInt64New(person.number));
    const Held key(ObjUniqueNew(reinterpret_cast<const UniqueId*>(person.key.data())));
    const std::pair<const char*, void*> searches[] = {
        {"Name", name.get()},     {"Town", town.get()}, {"Age", age.get()},
        {"Number", number.get()}, {"Key", key.get()},
    };
    for (const auto& [field, oKey] : searches) {
        EXPECT_EQ(GetObject(field, 4, oKey), person) << field;
        if (std::string(field) != "Town") {
            EXPECT_EQ(GetObject(field, 0, oKey), person) << field;
            EXPECT_EQ(GetRecord(field, 0, oKey), person) << field;
        }
    }
    EXPECT_EQ(GetObject("Id", 4, nullptr), person);
    EXPECT_EQ(GetObject("id", 4, name.get()), person); // the key object is not looked at
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(Wrappers, OfEqualKeysTheLowestIdIsTakenUnlessOneIsNamed)
{
    // Three people share a town: 3, 4 and 5.
    const Held town = Text(*model_[4].town);
    EXPECT_EQ(GetObject("Town", 0, town.get()), model_[3]);
    EXPECT_EQ(GetObject("Town", 4, town.get()), model_[4]);
    EXPECT_EQ(GetObject("Town", 5, town.get()), model_[5]);
    EXPECT_FALSE(GetObject("Town", 6, town.get()));
    EXPECT_EQ(GetRecord("Town", 0, town.get()), model_[3]);
}

TEST_F(Wrappers, InAUniqueIndexTheIdIsNotLookedAt)
{
    const Held name = Text(*model_[4].name);
    for (const uint32_t id : {0u, 4u, 5u, 4711u})
        EXPECT_EQ(GetObject("Name", id, name.get()), model_[4]) << id;
}

TEST_F(Wrappers, ARecordIsSearchedForWithId0WhateverIdTheCallerPasses)
{
    const Held town = Text(*model_[4].town);
    for (const uint32_t id : {0u, 3u, 4u, 5u, 6u, 4711u, 0xffffffffu})
        EXPECT_EQ(GetRecord("Town", id, town.get()), model_[3]) << id;
    // In the index of ids that is the record of id 0, and no other.
    for (const uint32_t id : {0u, 1u, 4u})
        EXPECT_FALSE(GetRecord("Id", id, nullptr)) << id;
    const Person zero = MakePerson(70);
    ASSERT_EQ(IndxSetRecordInTable(0, table_, BlobOf(zero).get()), 1u);
    EXPECT_EQ(GetRecord("Id", 4, nullptr), zero);
    TraceRecorder trace;
    Held record;
    IndxGetRecordFromTable(record.out(), table_, "Town", 4, town.get());
    size_t finds = 0;
    for (const std::string& text : trace.texts()) {
        if (text.rfind("IndxFindKey(", 0) == 0) {
            ++finds;
            EXPECT_NE(text.find(", 0, " + Hex(town.get()) + ")"), std::string::npos) << text;
        }
    }
    EXPECT_EQ(finds, 1u);
}

TEST_F(Wrappers, ARecordIsFetchedWithoutComparingItsIdAndAnObjectIsNot)
{
    const auto offset = static_cast<size_t>(OffsetOf(table_, 4));
    WithRecordsFile([&](std::string& bytes) { PutU32At(bytes, offset + 4, 4711); });
    const Held name = Text(*model_[4].name);
    CrashRecorder crash;
    EXPECT_TRUE(GetRecord("Name", 4, name.get()));
    EXPECT_EQ(crash.count(), 0u);
    EXPECT_FALSE(GetObject("Name", 4, name.get()));
    EXPECT_EQ(crash.count(), 1u);
}

TEST_F(Wrappers, WhatIsNotThereIsAnsweredInSilence)
{
    const Held nobody = Text("Nobody");
    const Held empty = Text("");
    TraceRecorder trace(-1);
    const std::tuple<const char*, uint32_t, void*> searches[] = {
        {"Name", 0, nobody.get()}, {"Name", 0, empty.get()}, {"Id", 10, nullptr},
        {"Id", 0, nullptr},        {nullptr, 0, nullptr},
    };
    for (const auto& [field, id, oKey] : searches) {
        EXPECT_FALSE(GetObject(field, id, oKey));
        EXPECT_FALSE(GetRecord(field, id, oKey));
    }
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(Wrappers, AKeyObjectOfAnotherTypeIsToldByTheFind)
{
    const Held number(ObjIntegerNew(1));
    const Held name = Text(*model_[4].name);
    const std::pair<const char*, void*> searches[] = {
        {"Name", number.get()}, {"Name", nullptr}, {"Age", name.get()}};
    for (const auto& [field, oKey] : searches) {
        TraceRecorder trace(-1);
        EXPECT_FALSE(GetObject(field, 0, oKey));
        EXPECT_FALSE(GetRecord(field, 0, oKey));
        EXPECT_EQ(trace.lines().size(), 2u) << trace.dump();
        EXPECT_TRUE(trace.hasPart("Key object of type ")) << trace.dump();
    }
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(Wrappers, AFieldThatCannotBeSearchedSetsItsOwnCode)
{
    TraceRecorder trace(-1);
    EXPECT_FALSE(GetObject("Nothing", 1, nullptr));
    EXPECT_EQ(IndxError(), INDX_ERROR_NO_FIELD);
    EXPECT_FALSE(GetRecord("Photo", 1, nullptr));
    EXPECT_EQ(IndxError(), INDX_ERROR_NOT_INDEXED);
    for (const TraceRecorder::Line& line : trace.lines())
        EXPECT_NE(line.tag, TAG) << line;
}

TEST_F(Wrappers, UnusableArgumentsGive0)
{
    void* out = table_;
    EXPECT_EQ(IndxGetObjectFromTable(nullptr, table_, "Id", 4, nullptr), 0u);
    EXPECT_EQ(IndxGetObjectFromTable(&out, nullptr, "Id", 4, nullptr), 0u);
    EXPECT_EQ(out, nullptr);
    out = table_;
    EXPECT_EQ(IndxGetObjectFromTable(&out, database(), "Id", 4, nullptr), 0u);
    EXPECT_EQ(out, nullptr);
    const Held name = Text(*model_[4].name);
    EXPECT_EQ(IndxGetRecordFromTable(nullptr, table_, "Name", 4, name.get()), 0u);
    out = table_;
    EXPECT_EQ(IndxGetRecordFromTable(&out, nullptr, "Name", 4, name.get()), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(Wrappers, ARecordThatCannotBeReadIsNotFetched)
{
    const Held name = Text(*model_[4].name);
    for (const uint32_t point : {FAULT_SEEK, FAULT_READ}) {
        TraceRecorder trace(-1);
        LogRecorder log;
        Fail(point, 1, 0, "Records");
        EXPECT_FALSE(GetObject("Name", 4, name.get()));
        EXPECT_FALSE(GetRecord("Name", 4, name.get()));
        FaultDisarmAll();
        EXPECT_EQ(log.messages().size(), 2u);
        EXPECT_EQ(IndxError(), point == FAULT_SEEK ? INDX_ERROR_SEEK : INDX_ERROR_READ);
    }
    EXPECT_EQ(GetObject("Name", 4, name.get()), model_[4]);
}

// ---- deleting --------------------------------------------------------------------------------

TEST_F(Wrappers, ARecordIsDeletedByTheKeyOfAnyIndex)
{
    const Held name = Text(*model_[2].name);
    EXPECT_EQ(IndxDeleteObjectFromTable(table_, "Name", 0, name.get()), 1u);
    model_.erase(2);
    EXPECT_EQ(IndxDeleteObjectFromTable(table_, "Id", 6, nullptr), 1u);
    model_.erase(6);
    const Held town = Text(*model_[4].town);
    EXPECT_EQ(IndxDeleteObjectFromTable(table_, "Town", 4, town.get()), 1u);
    model_.erase(4);
    EXPECT_EQ(IndxDeleteObjectFromTable(table_, "Town", 0, town.get()), 1u);
    model_.erase(3);
    ExpectHolds(table_, model_);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(Wrappers, AKeyThatIsNotPresentIsTracedAndNothingIsDeleted)
{
    const Held nobody = Text("Nobody");
    const std::tuple<const char*, uint32_t, void*> searches[] = {
        {"Name", 0, nobody.get()}, {"Id", 10, nullptr}, {"Id", 0, nullptr}};
    for (const auto& [field, id, oKey] : searches) {
        TraceRecorder trace(-1);
        EXPECT_EQ(IndxDeleteObjectFromTable(table_, field, id, oKey), 0u);
        ASSERT_EQ(trace.lines().size(), 1u) << trace.dump();
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Could not find key")) << trace.dump();
    }
    EXPECT_EQ(IndxError(), UNTOUCHED);
    ExpectHolds(table_, model_);
}

TEST_F(Wrappers, AFieldWithoutACursorIsTracedByADeletion)
{
    struct {
        const char* field;
        const char* text;
        uint32_t error;
    } const cases[] = {
        {"Nothing", "Failed to get cursor on 'Nothing'", INDX_ERROR_NO_FIELD},
        {"Photo", "Failed to get cursor on 'Photo'", INDX_ERROR_NOT_INDEXED},
        {nullptr, "Failed to get cursor on '(null)'", UNTOUCHED},
    };
    for (const auto& c : cases) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace(-1);
        EXPECT_EQ(IndxDeleteObjectFromTable(table_, c.field, 4, nullptr), 0u);
        EXPECT_TRUE(trace.has(TAG, 1, -1, c.text)) << trace.dump();
        EXPECT_EQ(IndxError(), c.error);
    }
    TraceRecorder trace(-1);
    EXPECT_EQ(IndxDeleteObjectFromTable(nullptr, "Id", 4, nullptr), 0u);
    EXPECT_EQ(IndxDeleteObjectFromTable(database(), "Id", 4, nullptr), 0u);
    EXPECT_EQ(trace.count("Failed to get cursor on 'Id'"), 2u);
    ExpectHolds(table_, model_);
}

TEST_F(Wrappers, ADeletionThatFailsGives0)
{
    Fail(FAULT_READ, 1, 1, "Records");
    EXPECT_EQ(IndxDeleteObjectFromTable(table_, "Id", 4, nullptr), 0u);
    FaultDisarmAll();
    EXPECT_EQ(IndxError(), INDX_ERROR_READ);
    ExpectHolds(table_, model_);
}

// ---- modifying -------------------------------------------------------------------------------

TEST_F(Wrappers, AnObjectReplacesTheRecordOfItsId)
{
    for (const size_t length : {0u, 300u}) {
        Person person = MakePerson(static_cast<uint32_t>(50 + length), length);
        person.id = 4;
        ASSERT_EQ(IndxModifyObject(table_, ObjectOf(person).get()), 1u);
        model_[4] = person;
        ExpectHolds(table_, model_);
    }
    Reload();
    ExpectHolds(table_, model_);
}

TEST_F(Wrappers, AnIdWithoutARecordGives0SaysSoAndChangesNothing)
{
    const std::string records = ReadFileBytes(RecordsPath());
    TraceRecorder trace(-1);
    for (const uint32_t id : {0u, 10u, 4711u, 0x80000000u, 0xffffffffu}) {
        Person person = MakePerson(50);
        person.id = id;
        trace.clear();
        EXPECT_EQ(IndxModifyObject(table_, ObjectOf(person).get()), 0u) << id;
        const std::string text = "No record " + std::to_string(static_cast<int32_t>(id)) +
                                 " in table 'People' to modify";
        EXPECT_EQ(trace.texts(), std::vector<std::string>{text});
    }
    EXPECT_EQ(IndxError(), UNTOUCHED);
    EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
    ExpectHolds(table_, model_);
}

TEST_F(Wrappers, WhatCannotBeModifiedGives0)
{
    Person person = MakePerson(50);
    person.id = 4;
    const Held object = ObjectOf(person);
    const Instance foreign(0x11111111, "i;"); // no magic of an object
    const Instance unstorable(MAGIC, "i;p;");
    TraceRecorder trace(-1);
    CrashRecorder crash;
    EXPECT_EQ(IndxModifyObject(nullptr, object.get()), 0u);
    EXPECT_EQ(IndxModifyObject(database(), object.get()), 0u);
    EXPECT_EQ(IndxModifyObject(table_, nullptr), 0u);
    EXPECT_EQ(IndxModifyObject(table_, foreign.get()), 0u);
    EXPECT_EQ(IndxModifyObject(table_, unstorable.get()), 0u);
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    EXPECT_EQ(IndxError(), UNTOUCHED);
    EXPECT_EQ(crash.count(), 0u);
    ExpectHolds(table_, model_);
}

// The type comes first: neither its length nor the number in the place of the id says anything.
TEST_F(Wrappers, AnObjectOfAnotherTypeIsRefusedAsSuchWhateverItHolds)
{
    TraceRecorder trace(-1);
    Instance other(MAGIC, FORMAT);
    other.at<int32_t>(0) = 4;
    other.setText(1, "name");
    other.setText(2, "town");
    Instance shorter(MAGIC, "i;b;");
    shorter.at<int32_t>(0) = 4;
    Instance unknown(MAGIC, "i;b;");
    unknown.at<int32_t>(0) = 4711;
    const Instance tiny(MAGIC, "b;");
    for (const void* object : {other.get(), shorter.get(), unknown.get(), tiny.get()}) {
        IndxSetError(UNTOUCHED);
        trace.clear();
        EXPECT_EQ(IndxModifyObject(table_, const_cast<void*>(object)), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_RECORD_TYPE);
        EXPECT_EQ(
            trace.texts(),
            std::vector<std::string>(
                {"Magic ca111111 does not match ca222222",
                 "Record of type (magic 0xca111111) for table 'People', which holds type "
                 "(magic 0xca222222)"}));
    }
    ExpectHolds(table_, model_);
}

// An index that cannot be searched is not taken for one that has no such key.
TEST_F(Wrappers, ADamagedIndexIsNotTakenForAMissingRecord)
{
    Reload();
    Person person = MakePerson(50);
    person.id = 4;
    const Held object = ObjectOf(person);
    TraceRecorder trace(-1);
    Fail(FAULT_READ, 1, 0, "Indexes");
    EXPECT_EQ(IndxModifyObject(table_, object.get()), 0u);
    FaultDisarmAll();
    EXPECT_EQ(IndxError(), INDX_ERROR_READ);
    EXPECT_TRUE(trace.hasPart("Cannot use node ")) << trace.dump();
    EXPECT_FALSE(trace.hasPart("No record ")) << trace.dump();
}

TEST_F(Wrappers, AnEncodingTooShortToHoldTheIdIsNoRecordOfTheTable)
{
    void* oTable = OpenTable("Deep", MAGIC, "u;u;i;", "Key,Other,Id"); // the id lies at 68
    ASSERT_NE(oTable, nullptr);
    const Instance tiny(MAGIC, "b;");
    EXPECT_EQ(IndxModifyObject(oTable, tiny.get()), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
}

// Every allocation and every reference of each call in turn.
TEST_F(Wrappers, NoMemoryAtAnyPointLeavesNothingBehind)
{
    const Held name = Text(*model_[4].name);
    Person person = MakePerson(50);
    person.id = 4;
    const Held changed = ObjectOf(person);
    const std::function<NimBool()> calls[] = {
        [&] {
            Held object;
            return IndxGetObjectFromTable(object.out(), table_, "Name", 0, name.get());
        },
        [&] {
            Held record;
            return IndxGetRecordFromTable(record.out(), table_, "Name", 0, name.get());
        },
        [&] { return IndxModifyObject(table_, changed.get()); },
        [&] { return IndxDeleteObjectFromTable(table_, "Id", 4, nullptr); },
    };
    const QuietTrace quiet;
    const LogRecorder log;
    for (size_t i = 0; i < std::size(calls); ++i) {
        uint32_t n = 1;
        for (; n < 300; ++n) {
            const uint32_t rule = Fail(FAULT_ALLOC, n);
            const NimBool good = calls[i]();
            const uint32_t hits = FaultHits(rule);
            FaultDisarmAll();
            ExpectNoCursors();
            if (good && i == 2)
                model_[4] = person;
            if (good && i == 3)
                model_.erase(4);
            ASSERT_NO_FATAL_FAILURE(ExpectHolds(table_, model_)) << i << " " << n;
            if (!hits) {
                EXPECT_EQ(good, 1u);
                break;
            }
            if (good)
                break; // done in spite of it: the same call could not be repeated
        }
        EXPECT_LT(n, 300u);
    }
    ASSERT_EQ(IndxSetRecordInTable(4, table_, BlobOf(MakePerson(4)).get()), 1u);
    model_[4] = MakePerson(4);
}

} // namespace
