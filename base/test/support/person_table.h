// person_table.h: a table of people, for tests of whole records: one item of every storable kind,
// an index of every key type. A person is a plain value; it is made into an object for the library
// and read back from one, so that what comes out can be compared with what went in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "database/dbrecord.h"
#include "database_fixture.h"
#include "record_objects.h"
#include "tree_check.h"

struct Person {
    uint32_t id = 0;
    std::optional<std::string> name; // none: an absent text, which cannot be indexed
    std::optional<std::string> town;
    int32_t age = 0;
    int64_t number = 0;
    std::array<uint8_t, 32> key = {};
    std::string photo;
    bool alive = false;

    bool operator==(const Person&) const = default;
};

// The same as the library sees it, laid over the body of an object.
struct PersonBody {
    int32_t id;
    char* name;
    char* town;
    int32_t age;
    int64_t number;
    UniqueId key;
    ObjData photo;
    int32_t alive;
};
static_assert(offsetof(PersonBody, name) == 8 && offsetof(PersonBody, number) == 32);
static_assert(offsetof(PersonBody, photo) == 72 && sizeof(PersonBody) == 96);

inline void PrintTo(const Person& person, std::ostream* out)
{
    *out << "{id " << person.id << ", name " << person.name.value_or("(none)").substr(0, 40)
         << ", town " << person.town.value_or("(none)").substr(0, 40) << ", age " << person.age
         << ", number " << person.number << ", photo of " << person.photo.size() << "}";
}

// By record id.
using People = std::map<uint32_t, Person>;

// Person `n`: no two share a name or a key, three share a town. `nameLength` (0: as it comes) and
// `townLength` make the texts longer.
inline Person MakePerson(uint32_t n, size_t nameLength = 0, size_t townLength = 0)
{
    char digits[16];
    std::snprintf(digits, sizeof digits, "%08u", n);
    Person person;
    person.name = std::string("Name ") + digits;
    person.town = std::string("Town ") + std::to_string(n / 3);
    if (nameLength > person.name->size())
        person.name->resize(nameLength, 'x');
    if (townLength > person.town->size())
        person.town->resize(townLength, 'y');
    person.age = static_cast<int32_t>(n % 90) - 5;
    person.number = (static_cast<int64_t>(n) << 33) - 7;
    for (size_t i = 0; i < person.key.size(); ++i)
        person.key[i] = static_cast<uint8_t>((n * 2654435761u) >> (i % 4 * 8)) ^ uint8_t(i);
    person.photo = std::string(n % 50, static_cast<char>(n));
    person.alive = n % 2 == 0;
    return person;
}

class PersonTest : public DatabaseTest {
  protected:
    static constexpr uint32_t PERSON_MAGIC = 0xca222222;
    static constexpr const char* FORMAT = "i;s;s;i;q;u;d;b;";
    static constexpr const char* FIELDS =
        "Id, Name;Indexed;Unique;Case Sensitive, Town;Indexed, Age;Indexed, Number;Indexed, "
        "Key;Indexed;Unique, Photo, Alive";
    static constexpr uint32_t FIXED_SIZE = 80; // of a record
    static constexpr const char* TABLE = "People";

    void* OpenPeople(uint32_t flag = 0, const char* name = TABLE)
    {
        return OpenTable(name, PERSON_MAGIC, FORMAT, FIELDS, flag);
    }

    static ObjTemplate* PersonTemplate()
    {
        ObjTemplate* pTemplate = nullptr;
        ObjTemplateCreateInternal(&pTemplate, sizeof(PersonBody), PERSON_MAGIC, FORMAT, nullptr);
        return pTemplate;
    }

    static Held ObjectOf(const Person& person)
    {
        Held object;
        EXPECT_EQ(
            ObjTemplateCreateInstanceFromPool(
                object.out(), PersonTemplate(), MemGetDefaultPoolId()),
            1u);
        auto* pBody = static_cast<PersonBody*>(object.get());
        pBody->id = static_cast<int32_t>(person.id);
        pBody->name = person.name ? PoolText(*person.name) : nullptr;
        pBody->town = person.town ? PoolText(*person.town) : nullptr;
        pBody->age = person.age;
        pBody->number = person.number;
        std::memcpy(&pBody->key, person.key.data(), person.key.size());
        pBody->photo = PoolData(person.photo);
        pBody->alive = person.alive;
        return object;
    }
    static Held BlobOf(const Person& person) { return Encoded(ObjectOf(person).get()); }

    static Person PersonOf(const void* object)
    {
        const auto* pBody = static_cast<const PersonBody*>(object);
        Person person;
        person.id = static_cast<uint32_t>(pBody->id);
        if (pBody->name)
            person.name = pBody->name;
        if (pBody->town)
            person.town = pBody->town;
        person.age = pBody->age;
        person.number = pBody->number;
        std::memcpy(person.key.data(), &pBody->key, person.key.size());
        person.photo = DataBytes(pBody->photo);
        person.alive = pBody->alive != 0;
        return person;
    }

    // ---- adding and finding ----

    // Adds the person and, on success, tells its id.
    static NimBool Add(void* oTable, Person* pPerson)
    {
        const Held object = ObjectOf(*pPerson);
        return IndxAddObjectToTable(&pPerson->id, oTable, object.get());
    }
    // Adds persons `from` to `to` - 1 and enters them into the model.
    static void AddPeople(
        void* oTable, People* pModel, uint32_t from, uint32_t to, size_t nameLength = 0,
        size_t townLength = 0)
    {
        for (uint32_t n = from; n < to; ++n) {
            Person person = MakePerson(n, nameLength, townLength);
            ASSERT_EQ(Add(oTable, &person), 1u) << n;
            (*pModel)[person.id] = person;
        }
    }

    // A cursor that is released at the end of its scope.
    class Cursor {
      public:
        Cursor(void* oTable, const char* field)
        {
            EXPECT_EQ(IndxGetFieldCursor(&oCursor_, oTable, field), 1u) << field;
        }
        ~Cursor() { IndxReleaseCursor(&oCursor_); }
        Cursor(const Cursor&) = delete;
        Cursor& operator=(const Cursor&) = delete;
        void* get() const { return oCursor_; }

      private:
        void* oCursor_ = nullptr;
    };

    // The person at a cursor; nothing when there is none to be read.
    static std::optional<Person> PersonAt(void* oCursor)
    {
        Held object;
        if (!IndxGetObjectAtCursor(object.out(), oCursor))
            return std::nullopt;
        return PersonOf(object.get());
    }
    static std::optional<Person> FindById(void* oTable, uint32_t id)
    {
        const Cursor cursor(oTable, "Id");
        if (IndxFindKey(cursor.get(), id, nullptr) != INDX_RESULT_FOUND)
            return std::nullopt;
        return PersonAt(cursor.get());
    }
    static std::optional<Person> FindByName(void* oTable, const std::string& name)
    {
        const Cursor cursor(oTable, "Name");
        const Held key(ObjStringNew(name.c_str()));
        if (IndxFindKey(cursor.get(), 0, key.get()) != INDX_RESULT_FOUND)
            return std::nullopt;
        return PersonAt(cursor.get());
    }

    // The record ids of an index in its order; ends at 200,000 keys, which no test has.
    static std::vector<uint32_t> WalkIds(void* oTable, const char* field)
    {
        const Cursor cursor(oTable, field);
        std::vector<uint32_t> ids;
        for (int32_t code = IndxFirstKey(cursor.get());
             code == INDX_RESULT_FOUND && ids.size() < 200000; code = IndxNextKey(cursor.get())) {
            uint32_t id = 0;
            IndxCursorGetId(&id, cursor.get());
            ids.push_back(id);
        }
        return ids;
    }

    // The table holds exactly the people of the model: every index has exactly their keys, in an
    // order of its own, each leads to its record, each is found by its value; and every tree is
    // sound in itself.
    static void ExpectHolds(void* oTable, const People& model)
    {
        ASSERT_NE(oTable, nullptr);
        std::set<uint32_t> expected;
        for (const auto& entry : model)
            expected.insert(entry.first);
        for (const char* field : {"Id", "Name", "Town", "Age", "Number", "Key"}) {
            const std::vector<uint32_t> ids = WalkIds(oTable, field);
            ASSERT_EQ(ids.size(), model.size()) << field;
            ASSERT_EQ(std::set<uint32_t>(ids.begin(), ids.end()), expected) << field;
        }
        for (const auto& [id, person] : model) {
            const std::optional<Person> byId = FindById(oTable, id);
            ASSERT_TRUE(byId) << id;
            Person wanted = person;
            wanted.id = id;
            ASSERT_EQ(*byId, wanted);
            ExpectFoundByEveryValue(oTable, wanted);
        }
        ExpectSound(oTable);
    }
    static void ExpectFoundByEveryValue(void* oTable, const Person& person)
    {
        const Held name(ObjStringNew(person.name->c_str()));
        const Held town(ObjStringNew(person.town->c_str()));
        const Held age(ObjIntegerNew(person.age));
        const Held number(ObjInt64New(person.number));
        const Held key(ObjUniqueNew(reinterpret_cast<const UniqueId*>(person.key.data())));
        const std::pair<const char*, void*> searches[] = {
            {"Name", name.get()},     {"Town", town.get()}, {"Age", age.get()},
            {"Number", number.get()}, {"Key", key.get()},
        };
        for (const auto& [field, oKey] : searches) {
            const char* text = ObjGetString(oKey);
            if (text && !*text)
                continue; // in the index, but not to be searched for
            const Cursor cursor(oTable, field);
            ASSERT_EQ(IndxFindKey(cursor.get(), person.id, oKey), INDX_RESULT_FOUND) << field;
            const std::optional<Person> found = PersonAt(cursor.get());
            ASSERT_TRUE(found) << field;
            ASSERT_EQ(*found, person) << field;
        }
    }
    // Takes all keys of a record out and ends the operation: what is left of it are dead bytes, and
    // emptied nodes on the free chain.
    static void DeleteKeys(void* oTable, uint32_t id)
    {
        Held record;
        {
            const Cursor cursor(oTable, "Id");
            ASSERT_EQ(IndxFindKey(cursor.get(), id, nullptr), INDX_RESULT_FOUND) << id;
            ASSERT_EQ(IndxGetRecordAtCursor(record.out(), cursor.get()), 1u) << id;
        }
        for (const char* field : {"Id", "Name", "Town", "Age", "Number", "Key"}) {
            const Cursor cursor(oTable, field);
            ASSERT_EQ(
                IndxDeleteKey(
                    IndxAsCursor(cursor.get()), &static_cast<DbBlob*>(record.get())->data),
                1u)
                << field << " of " << id;
        }
        ASSERT_EQ(IndxUpdateTable(oTable), 1u);
    }
    static void DeletePeople(void* oTable, People* pModel, const std::vector<uint32_t>& ids)
    {
        for (uint32_t id : ids) {
            DeleteKeys(oTable, id);
            pModel->erase(id);
        }
    }

    // The whole-tree check over every index of a table.
    static void ExpectSound(void* oTable)
    {
        const TreeReport report = CheckTable(oTable);
        EXPECT_TRUE(report.problems.empty()) << report.text();
    }

    // ---- the records file ----

    std::string RecordsPath(const char* name = TABLE) const { return PathOf("Records", name); }
    std::string BlocksPath(const char* name = TABLE) const { return PathOf("Indexes", name); }
    // Offset of the record with this id, as its key says; -1 when there is none.
    static int64_t OffsetOf(void* oTable, uint32_t id)
    {
        const Cursor cursor(oTable, "Id");
        if (IndxFindKey(cursor.get(), id, nullptr) != INDX_RESULT_FOUND)
            return -1;
        return IndxAsCursor(cursor.get())->oKey->fileOffset;
    }
};

// The same with the database and its table of people open.
class PeopleTest : public PersonTest {
  protected:
    void SetUp() override
    {
        PersonTest::SetUp();
        ASSERT_TRUE(Open());
        table_ = OpenPeople();
        ASSERT_NE(table_, nullptr);
        IndxSetError(UNTOUCHED);
    }
    void TearDown() override
    {
        table_ = nullptr;
        PersonTest::TearDown();
    }

    // Closes, changes the records file, opens again.
    void WithRecordsFile(const std::function<void(std::string&)>& change)
    {
        Close();
        std::string bytes = ReadFileBytes(RecordsPath());
        change(bytes);
        WriteFileBytes(RecordsPath(), bytes);
        Reload();
    }
    void SetRecordsLength(uint64_t length)
    {
        Close();
        std::filesystem::resize_file(RecordsPath(), length);
        Reload();
    }
    void Reload()
    {
        ASSERT_TRUE(Reopen());
        table_ = OpenPeople();
        ASSERT_NE(table_, nullptr);
        IndxSetError(UNTOUCHED);
    }
    // Adds person `n` and expects it to work.
    uint32_t MustAdd(uint32_t n)
    {
        Person person = MakePerson(n);
        EXPECT_EQ(Add(table_, &person), 1u) << n;
        return person.id;
    }
    IndxTable* table() const { return static_cast<IndxTable*>(table_); }

    static constexpr uint32_t UNTOUCHED = 7777; // a last error that nothing sets
    void* table_ = nullptr;
};

// What the trace prints for %p.
inline std::string Hex(const void* p)
{
    char text[32];
    std::snprintf(
        text, sizeof text, "%016llX",
        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}
