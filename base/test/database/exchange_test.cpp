// exchange_test.cpp: the same calls give the same files on every system, and what one system wrote
// the others open, check, change and close. By itself the program does both on one system; told by
// its environment it does one step on a directory, so that steps can be done in turn by programs
// built for different systems:
//
//   NIM_EXCHANGE_STEP       build, check-built, change, check-changed, compare
//   NIM_EXCHANGE_DIRECTORY  the home of the database; for compare two of them, with ";" between
#include <cstdlib>
#include <functional>
#include <string>

#include "database/indexwrappers.h"
#include "support/person_table.h"
#include "support/same_files.h"

namespace {

const std::string LETTERS = "Gr\xC3\xB6\xC3\x9F"
                            "e \xCE\xA9 \xE6\x95\xB0";

class Exchange : public PersonTest {
  protected:
    static constexpr uint32_t VERSION = 7;
    static constexpr uint32_t LONG_MAGIC = 0xca333333;

    struct Models {
        People people;
        People lettered;
        std::map<uint32_t, std::string> longTexts;
    };
    struct Tables {
        void* people = nullptr;
        void* lettered = nullptr;
        void* longTexts = nullptr;
    };

    Tables OpenTables()
    {
        Tables tables;
        tables.people = OpenTable("People", PERSON_MAGIC, FORMAT, FIELDS, 1, VERSION);
        tables.lettered = OpenPeople(0, LETTERS.c_str());
        tables.longTexts =
            OpenTable("Long", LONG_MAGIC, "i;s;", "Id, Text;Indexed;Unique;Case Sensitive");
        EXPECT_TRUE(tables.people && tables.lettered && tables.longTexts);
        return tables;
    }

    // Text `n`: up to half a node long, so that the tree has many levels, in a scattered order.
    static std::string LongText(uint32_t n)
    {
        const uint32_t scattered = n * 2654435761u;
        return std::to_string(scattered) + "-" + std::string(200 + scattered % 7800, 'k');
    }
    static void AddLong(void* oTable, Models* pModels, uint32_t from, uint32_t to)
    {
        for (uint32_t n = from; n < to; ++n) {
            Instance object(LONG_MAGIC, "i;s;");
            Item<char*>(object.get(), 1) = PoolText(LongText(n));
            uint32_t id = 0;
            ASSERT_EQ(IndxAddObjectToTable(&id, oTable, object.get()), 1u) << n;
            pModels->longTexts[id] = LongText(n);
        }
    }
    static void DeletePerson(void* oTable, People* pModel, uint32_t id)
    {
        ASSERT_EQ(IndxDeleteObjectFromTable(oTable, "Id", id, nullptr), 1u) << id;
        pModel->erase(id);
    }
    static void Modify(void* oTable, People* pModel, uint32_t id, Person person)
    {
        person.id = id;
        ASSERT_EQ(IndxModifyObject(oTable, ObjectOf(person).get()), 1u) << id;
        (*pModel)[id] = person;
    }
    // One whose name is taken: some keys have been entered when the unique one is refused.
    static void FailToAdd(void* oTable, const People& model)
    {
        const TraceRecorder quiet(-1);
        Person person = MakePerson(777777);
        person.name = model.begin()->second.name;
        ASSERT_EQ(Add(oTable, &person), 0u);
    }

    // ---- the steps ----

    // Splits, deletions that empty nodes, records that move, failures that are backed out, and
    // companion files, with the database closed and opened between them.
    void Build(Models* pModels)
    {
        ASSERT_TRUE(Open());
        Tables tables = OpenTables();
        AddPeople(tables.people, &pModels->people, 0, 900);
        AddPeople(tables.people, &pModels->people, 900, 960, 3000, 40);
        AddPeople(tables.lettered, &pModels->lettered, 5000, 5040, 0, 300);
        AddLong(tables.longTexts, pModels, 0, 60);
        FailToAdd(tables.people, pModels->people);
        ASSERT_TRUE(Reopen());
        tables = OpenTables();
        for (uint32_t id = 1; id <= 960; ++id) {
            if (id % 3 == 0 || (id > 400 && id < 600))
                DeletePerson(tables.people, &pModels->people, id);
        }
        uint32_t n = 20000;
        for (const uint32_t id : {1u, 2u, 700u, 701u, 950u}) {
            Modify(tables.people, &pModels->people, id, MakePerson(n, n % 2 ? 2000 : 0, 100));
            ++n;
        }
        AddPeople(tables.people, &pModels->people, 1000, 1100);
        for (const uint32_t id : {1u, 256u, 1060u}) {
            char* path = nullptr;
            ASSERT_EQ(IndxGetFilePath(&path, tables.people, id), 1u);
            WriteFileBytes(path, "beside record " + std::to_string(id));
            MemFree(path);
        }
        Close();
    }
    void Change(Models* pModels)
    {
        ASSERT_TRUE(Open());
        const Tables tables = OpenTables();
        AddPeople(tables.people, &pModels->people, 2000, 2200);
        AddPeople(tables.lettered, &pModels->lettered, 6000, 6005);
        FailToAdd(tables.people, pModels->people);
        for (uint32_t id = 610; id < 660; ++id) {
            if (pModels->people.contains(id))
                DeletePerson(tables.people, &pModels->people, id);
        }
        Modify(tables.people, &pModels->people, 4, MakePerson(30000, 1000, 1000));
        AddLong(tables.longTexts, pModels, 60, 90);
        ASSERT_EQ(IndxDeleteObjectFromTable(tables.longTexts, "Id", 5, nullptr), 1u);
        pModels->longTexts.erase(5);
        Close();
    }
    void Check(const Models& models)
    {
        ASSERT_TRUE(Open());
        EXPECT_EQ(TableCount(), 3u) << "all have come up with the database";
        const Tables tables = OpenTables();
        ExpectHolds(tables.people, models.people);
        ExpectHolds(tables.lettered, models.lettered);
        ExpectSound(tables.longTexts);
        for (const auto& [id, text] : models.longTexts) {
            const Held key(ObjStringNew(text.c_str()));
            Held object;
            ASSERT_EQ(
                IndxGetObjectFromTable(object.out(), tables.longTexts, "Text", id, key.get()), 1u);
            ASSERT_EQ(Item<int32_t>(object.get(), 0), static_cast<int32_t>(id));
            ASSERT_EQ(Item<char*>(object.get(), 1), text);
        }
        for (const char* field : {"Id", "Text"}) {
            EXPECT_EQ(WalkIds(tables.longTexts, field).size(), models.longTexts.size());
        }
        Close();
    }

    // What the tables hold after Build, and after Change: the steps done elsewhere.
    Models Built()
    {
        const TemporaryDirectory elsewhere;
        Models models;
        PathSetHome(elsewhere.path().c_str());
        Build(&models);
        return models;
    }
    Models Changed()
    {
        const TemporaryDirectory elsewhere;
        Models models;
        PathSetHome(elsewhere.path().c_str());
        Build(&models);
        Change(&models);
        return models;
    }
    static void Compare(const std::string& left, const std::string& right)
    {
        for (const char* kind : {"Indexes/", "Records/"}) {
            const auto files = FilesBelow(left);
            EXPECT_TRUE(std::any_of(
                files.begin(), files.end(),
                [&](const auto& file) {
                    return file.first.find(kind) != std::string::npos && !file.second.empty();
                }))
                << "there is nothing to compare: no files in " << kind;
        }
        for (const std::string& difference : Differences(left, right))
            ADD_FAILURE() << difference;
    }

    void DoStep(const std::string& step, const std::string& directory)
    {
        if (step == "compare") {
            const size_t middle = directory.find(';');
            ASSERT_NE(middle, std::string::npos);
            Compare(directory.substr(0, middle), directory.substr(middle + 1));
            return;
        }
        Models models;
        if (step == "check-built" || step == "change")
            models = Built();
        else if (step == "check-changed")
            models = Changed();
        PathSetHome(directory.c_str());
        if (step == "build")
            Build(&models);
        else if (step == "change")
            Change(&models);
        else
            ASSERT_TRUE(step == "check-built" || step == "check-changed") << step;
        Check(models);
    }
};

} // namespace

TEST_F(Exchange, TheSameCallsGiveTheSameFilesWhichAnyoneMayChange)
{
    if (const char* step = std::getenv("NIM_EXCHANGE_STEP")) {
        const char* place = std::getenv("NIM_EXCHANGE_DIRECTORY");
        ASSERT_NE(place, nullptr);
        DoStep(step, place);
        return;
    }
    const TemporaryDirectory first;
    const TemporaryDirectory second;
    for (const TemporaryDirectory* pHome : {&first, &second})
        DoStep("build", pHome->path());
    DoStep("compare", first.path() + ";" + second.path());
    for (const TemporaryDirectory* pHome : {&first, &second}) {
        DoStep("check-built", pHome->path());
        DoStep("change", pHome->path());
        DoStep("check-changed", pHome->path());
    }
    DoStep("compare", first.path() + ";" + second.path());
}

TEST(SameFiles, DifferInEveryByteThatMeansSomethingAndInNoOther)
{
    const TemporaryDirectory first;
    const TemporaryDirectory second;
    const std::string bytes(3 * 16384, 'b');
    for (const TemporaryDirectory* pHome : {&first, &second}) {
        std::filesystem::create_directories(Utf8Path(pHome->path("Indexes")));
        WriteFileBytes(pHome->path("Indexes/T"), bytes);
        WriteFileBytes(pHome->path("T"), bytes);
    }
    EXPECT_TRUE(Differences(first.path(), second.path()).empty());
    const auto differs = [&](const std::string& name, size_t offset) {
        std::string other = bytes;
        other[offset] = 'x';
        WriteFileBytes(second.path(name), other);
        const bool found = !Differences(first.path(), second.path()).empty();
        WriteFileBytes(second.path(name), bytes);
        return found;
    };
    for (const size_t offset : {24u, 31u, 32u, 39u, 16384u + 24, 16384u + 31, 32768u + 24})
        EXPECT_FALSE(differs("Indexes/T", offset)) << offset;
    for (const size_t offset :
         {0u, 23u, 40u, 16167u, 16383u, 16384u, 16384u + 23, 16384u + 32, 16384u + 39, 32768u + 32,
          3u * 16384 - 1})
        EXPECT_TRUE(differs("Indexes/T", offset)) << offset;
    EXPECT_TRUE(differs("T", 24)) << "a file of another kind has no such bytes";

    WriteFileBytes(second.path("T"), bytes.substr(1));
    EXPECT_EQ(Differences(first.path(), second.path()).size(), 1u);
    std::filesystem::remove(Utf8Path(second.path("T")));
    EXPECT_EQ(Differences(first.path(), second.path()).size(), 1u);
    EXPECT_EQ(Differences(second.path(), first.path()).size(), 1u);
}
