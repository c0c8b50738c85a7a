// repoint_test.cpp: keys that a modification leaves as they are. The short way must leave what the
// long one leaves, but for words that mean nothing; the long way is gone while every step is
// traced, so the same modifications are made once silently and once traced, and the files are
// compared.

#include <optional>

#include <gtest/gtest.h>

#include "support/file_calls.h"
#include "support/person_table.h"
#include "support/quiet_trace.h"
#include "support/same_files.h"
#include "support/seed.h"

namespace {

class Repoint : public PeopleTest {
  protected:
    // Every step is traced, to nobody.
    class LongWay {
      public:
        LongWay()
        {
            TraceSetSink([](void*, const TraceLine*) {}, nullptr, INDX_DETAIL);
        }
        ~LongWay() { TraceSetSink(nullptr, nullptr, 0); }
        LongWay(const LongWay&) = delete;
        LongWay& operator=(const LongWay&) = delete;
    };

    NimBool Modify(uint32_t id, const Person& person)
    {
        return IndxModifyRecordInTable(
            table_, static_cast<uint32_t>(OffsetOf(table_, id)), BlobOf(person).get());
    }
    // Adds person `n` without ending the operation.
    void AddUnstored(People* pModel, uint32_t n)
    {
        Person person = MakePerson(n);
        person.id = n + 1;
        const Held blob = BlobOf(person);
        ASSERT_EQ(IndxAddRecord(n + 1, table_, &static_cast<DbBlob*>(blob.get())->data), 1u);
        auto* pTable = static_cast<IndxTable*>(table_);
        pTable->highestId = std::max(pTable->highestId, n + 1);
        (*pModel)[n + 1] = person;
    }
    // What a modification does to the blocks of the indexes: how many it writes.
    uint32_t NodesWritten(uint32_t id, const Person& person)
    {
        const auto offset = static_cast<uint32_t>(OffsetOf(table_, id));
        const Held blob = BlobOf(person);
        IndxUpdateTable(table_);
        const FileCalls calls;
        EXPECT_EQ(IndxModifyRecordInTable(table_, offset, blob.get()), 1u);
        return static_cast<uint32_t>(calls.blocksWritten(BlocksPath()).size());
    }
    std::string CopyPath(const char* name) const { return directory().path(name); }
    void CopyDatabase(const char* name)
    {
        Close();
        std::filesystem::copy(
            DatabasePath(), CopyPath(name), std::filesystem::copy_options::recursive);
    }
    void BringBack(const char* name)
    {
        Close();
        std::filesystem::remove_all(DatabasePath());
        std::filesystem::copy(
            CopyPath(name), DatabasePath(), std::filesystem::copy_options::recursive);
        ASSERT_TRUE(Open());
        table_ = OpenPeople();
        ASSERT_NE(table_, nullptr);
    }
    // Clears the two words of every entry that no key has a use for: where a heap has been, they
    // keep bytes of it, and an entry that is entered again has those of its neighbour.
    void ForgetUnusedWords(const char* name)
    {
        const std::string path = CopyPath(name) + "/Indexes/" + TABLE;
        std::string bytes = ReadFileBytes(path);
        for (size_t node = 16384; node + 16384 <= bytes.size(); node += 16384) {
            const uint32_t count = U32At(bytes, node + 20);
            for (uint32_t n = 0; U32At(bytes, node + 16) == 1 && n < count && count <= 681; ++n) {
                PutU32At(bytes, node + 32 + size_t{24} * n + 4, 0);
                PutU32At(bytes, node + 32 + size_t{24} * n + 20, 0);
            }
        }
        WriteFileBytes(path, bytes);
    }
    // Changes some of a person's fields, shorter, equal or longer.
    static Person Changed(Person person, std::mt19937_64& random)
    {
        const auto other = static_cast<uint32_t>(random() % 100000 + 1000);
        const Person another = MakePerson(other, random() % 60, random() % 40);
        const uint64_t which = random();
        if (which & 1)
            person.age = another.age;
        if ((which & 14) == 14)
            person.town = another.town;
        if ((which & 48) == 48)
            person.number = another.number;
        if ((which & 0x1c0) == 0x1c0)
            person.name = another.name;
        if ((which & 0x600) == 0x600)
            person.key = another.key;
        if (which & 0x800)
            person.photo = another.photo;
        if ((which & 0x7000) == 0x7000)
            (*person.town)[0] = person.town->at(0) == 'T' ? 't' : 'T'; // the same to the index
        return person;
    }
    // The same modifications from the same seed.
    void ModifyMany(People model, uint64_t seed, uint32_t count)
    {
        std::mt19937_64 random(seed);
        for (uint32_t i = 0; i < count; ++i) {
            const auto id = static_cast<uint32_t>(random() % model.size() + 1);
            Person wanted = Changed(model.at(id), random);
            if (Modify(id, wanted))
                model[id] = wanted;
        }
        ExpectHolds(table_, model);
    }
};

TEST_F(Repoint, TheShortWayLeavesTheSameBytesAsTheLongOne)
{
    const uint64_t seed = TestSeed();
    People model;
    AddPeople(table_, &model, 1, 1500, 40);
    CopyDatabase("before");

    BringBack("before");
    ModifyMany(model, seed, 1500);
    CopyDatabase("short");

    BringBack("before");
    {
        const LongWay traced;
        ModifyMany(model, seed, 1500);
    }
    CopyDatabase("long");

    ForgetUnusedWords("short");
    ForgetUnusedWords("long");
    EXPECT_EQ(Differences(CopyPath("short"), CopyPath("long")), std::vector<std::string>());
}

// While every step is traced, blocks are read and written whole; otherwise only as far as they are
// used and have changed. The files must be the same to the byte.
TEST_F(Repoint, BlocksWrittenInPartHoldTheSameBytesAsBlocksWrittenWhole)
{
    const uint64_t seed = TestSeed();
    CopyDatabase("before");
    for (const bool bWhole : {false, true}) {
        BringBack("before");
        std::optional<LongWay> traced;
        if (bWhole)
            traced.emplace();
        std::mt19937_64 random(seed);
        People model;
        uint32_t next = 0;
        for (int round = 0; round < 2500; ++round) {
            // Now it grows, now it shrinks, down to emptied nodes that are used again. Some records
            // come by the dozen, all in one operation.
            if (random() % 64 == 0) {
                for (uint32_t more = 0; more < 40; ++more, ++next)
                    AddUnstored(&model, next);
                ASSERT_EQ(IndxUpdateTable(table_), 1u);
            } else if (random() % 16 < (round / 500 % 2 ? 5u : 12u) || model.empty()) {
                const bool bLong = random() % 8 == 0;
                AddPeople(table_, &model, next, next + 1, bLong ? random() % 6000 : 0, 0);
                ++next;
            } else {
                auto victim = model.lower_bound(static_cast<uint32_t>(random() % (next + 1)));
                if (victim == model.end())
                    victim = model.begin();
                DeletePeople(table_, &model, {victim->first});
            }
        }
        traced.reset();
        ExpectHolds(table_, model);
        CopyDatabase(bWhole ? "whole" : "part");
    }
    EXPECT_EQ(Differences(CopyPath("part"), CopyPath("whole")), std::vector<std::string>());
}

TEST_F(Repoint, AModificationWritesOnlyTheNodesOfTheKeysThatChange)
{
    People model;
    AddPeople(table_, &model, 1, 200);
    Person person = model.at(100);
    person.alive = !person.alive;
    EXPECT_EQ(NodesWritten(100, person), 0u) << "no key changes, the record stays";
    person.age += 1;
    EXPECT_EQ(NodesWritten(100, person), 1u) << "one key changes within its leaf";
    ++person.number;
    person.name = "Name 00000099b";
    EXPECT_EQ(NodesWritten(100, person), 6u) << "the record moves, and all keys lead to its place";
    model[100] = person;
    ExpectHolds(table_, model);
    Reload();
    ExpectHolds(table_, model);
}

TEST_F(Repoint, AKeyThatLooksTheSameToTheIndexIsReplaced)
{
    People model;
    AddPeople(table_, &model, 1, 20);
    model[7].town = "tOWN 2";
    ASSERT_EQ(Modify(7, model[7]), 1u);
    const Cursor cursor(table_, "Town");
    const Held town(ObjStringNew("Town 2"));
    ASSERT_EQ(IndxFindKey(cursor.get(), 7, town.get()), INDX_RESULT_FOUND);
    const IndxKeyInfo* pKey = IndxAsCursor(cursor.get())->oKey;
    EXPECT_STREQ(static_cast<const char*>(ObjGetDataFieldData(pKey->oValue)), "tOWN 2");
    ExpectHolds(table_, model);
}

TEST_F(Repoint, CursorsOnAKeyThatStaysFindTheirPlaceAgainAsAfterAnyModification)
{
    People model;
    AddPeople(table_, &model, 1, 20);
    const Cursor cursor(table_, "Name");
    const Held name(ObjStringNew(model[7].name->c_str()));
    ASSERT_EQ(IndxFindKey(cursor.get(), 0, name.get()), INDX_RESULT_FOUND);
    ++model[7].age;
    ASSERT_EQ(Modify(7, model[7]), 1u);
    EXPECT_EQ(IndxAsCursor(cursor.get())->status, INDX_UNTRUSTED);
    EXPECT_EQ(IndxCurrentKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(PersonAt(cursor.get()), model[7]);
}

TEST_F(Repoint, AKeyThatAnotherRecordHoldsIsNotTakenForTheRecordsOwn)
{
    People model;
    AddPeople(table_, &model, 1, 20);
    // The name of 7 in the index now belongs to record 8: the modification of 7 has lost its key.
    Person taker = model[7];
    taker.id = 8;
    const Held old = BlobOf(model[7]);
    const Held taken = BlobOf(taker);
    {
        const Cursor cursor(table_, "Name");
        IndxCursor* pCursor = IndxAsCursor(cursor.get());
        ASSERT_TRUE(IndxDeleteKey(pCursor, &static_cast<DbBlob*>(old.get())->data));
        ASSERT_TRUE(IndxInsertKey(pCursor, 0, &static_cast<DbBlob*>(taken.get())->data));
        ASSERT_EQ(IndxUpdateTable(table_), 1u);
    }
    Person person = model[7];
    person.alive = !person.alive;
    const QuietTrace quiet;
    EXPECT_EQ(Modify(7, person), 0u);
}

// What the short way meets on its way down is judged, and told, by the long one.
TEST_F(Repoint, ADamagedTreeEndsInTheFailureOfTheLongWay)
{
    People model;
    AddPeople(table_, &model, 1, 1500, 40);
    ASSERT_GE(Field(table_, 1)->levels, 2);
    const size_t root = (size_t{Field(table_, 1)->roots.tRoot} + 1) * 16384;
    Close();
    const std::string good = ReadFileBytes(BlocksPath());
    const auto Reopened = [&](const std::string& bytes) {
        Close();
        WriteFileBytes(BlocksPath(), bytes);
        EXPECT_TRUE(Open());
        table_ = OpenPeople();
        return table_ != nullptr;
    };
    Person person = model[700];
    person.alive = !person.alive;
    constexpr uint32_t HEAP_OFFSET = 12;
    constexpr uint32_t POINTER = 16;
    const std::pair<uint32_t, uint32_t> damages[] = {
        {HEAP_OFFSET, 0xFFFF},                              // outside the heap
        {POINTER, static_cast<uint32_t>(root / 16384) - 1}, // the branch itself: a ring
        {POINTER, 0x7FFFFFFF},                              // no block
    };
    for (const auto& [word, value] : damages) {
        std::string bytes = good;
        const uint32_t count = U32At(bytes, root + 20);
        for (uint32_t n = 0; n + 1 < count; ++n) // the last one tells how much heap there is
            PutU32At(bytes, root + 32 + size_t{24} * n + word, value);
        ASSERT_TRUE(Reopened(bytes));
        const QuietTrace quiet;
        EXPECT_EQ(Modify(700, person), 0u) << word << " " << value;
        EXPECT_EQ(IndxError(), INDX_ERROR_READ) << word << " " << value;
    }
    ASSERT_TRUE(Reopened(good));
    ExpectHolds(table_, model);
}

TEST_F(Repoint, RecordsTooShortForAKeyAndFieldsWithoutOneHaveNoKeyInCommon)
{
    const Held blob = BlobOf(MakePerson(1));
    const ObjData whole = static_cast<DbBlob*>(blob.get())->data;
    ObjData cut = whole;
    for (uint32_t position = 1; position < 6; ++position) {
        IndxField field = *Field(table_, position);
        EXPECT_TRUE(IndxHaveSameKey(&field, &whole, &whole)) << position;
        cut.size = static_cast<uint32_t>(field.recordOffset) + 3;
        EXPECT_FALSE(IndxHaveSameKey(&field, &whole, &cut)) << position;
        EXPECT_FALSE(IndxHaveSameKey(&field, &cut, &whole)) << position;
        field.keyType = INDX_KEY_FORBIDDEN;
        EXPECT_FALSE(IndxHaveSameKey(&field, &whole, &whole)) << position;
    }
}

} // namespace
