// store_test.cpp: the stored description. Most operations change a number of it in place; what is
// in the user data afterwards must be what the whole table would be serialised to.

#include <gtest/gtest.h>

#include "database/block/blockstore.h"
#include "support/armed_fault.h"
#include "support/person_table.h"
#include "support/quiet_trace.h"
#include "support/seed.h"

namespace {

class Store : public PeopleTest {
  protected:
    IndxTable* table() const { return static_cast<IndxTable*>(table_); }
    const char* stored() const { return static_cast<const char*>(BlckUserData(table()->oBlck)); }

    // Fails unless the user data starts with the form of the table as it is.
    void ExpectStored()
    {
        std::string form(BLCK_USER_DATA_SIZE, '\0');
        uint32_t size = 0;
        ASSERT_EQ(
            ObjSerializeInto(table_, form.data(), BLCK_USER_DATA_SIZE, &size, nullptr, nullptr),
            1u);
        form.resize(size);
        EXPECT_TRUE(std::string(stored(), size) == form);
    }
    // The same of the file, once it was closed and opened again.
    void ExpectStoredInFile()
    {
        const uint32_t highestId = table()->highestId;
        Close();
        ASSERT_TRUE(Open());
        table_ = OpenPeople();
        ASSERT_NE(table_, nullptr);
        EXPECT_EQ(table()->highestId, highestId);
    }
};

TEST_F(Store, IsTheFormOfTheTableAfterEveryOperation)
{
    std::mt19937_64 random(TestSeed());
    People model;
    uint32_t next = 0;
    for (int round = 0; round < 300; ++round) {
        switch (random() % 8) {
        case 0: // large keys split nodes and change roots
            AddPeople(table_, &model, next, next + 1, 8000, 8000);
            ++next;
            break;
        case 1:
            if (!model.empty())
                DeletePeople(table_, &model, {model.begin()->first});
            break;
        case 2: { // refused: the name is longer than any key
            const QuietTrace quiet;
            const Held refused = BlobOf(MakePerson(next, 9000));
            EXPECT_EQ(IndxAddRecordToTable(nullptr, table_, refused.get()), 0u);
            EXPECT_EQ(IndxUpdateTable(table_), 1u);
            break;
        }
        case 3:
            ExpectStoredInFile();
            break;
        default:
            AddPeople(table_, &model, next, next + 1);
            ++next;
            break;
        }
        ASSERT_NO_FATAL_FAILURE(ExpectStored()) << round;
    }
    ExpectHolds(table_, model);
}

TEST_F(Store, AFailureToStoreANumberIsOneToStoreTheTable)
{
    People model;
    AddPeople(table_, &model, 0, 3);
    const std::string before(stored(), BLCK_USER_DATA_SIZE);
    {
        const QuietTrace quiet;
        const ArmedFault fault(FAULT_SERIALIZE);
        table()->highestId = 77;
        IndxSetHighestIdModified(table());
        EXPECT_EQ(IndxUpdateTable(table_), 0u);
    }
    EXPECT_TRUE(std::string(stored(), BLCK_USER_DATA_SIZE) == before);
    EXPECT_EQ(table()->bChanged, 0u);
    IndxSetHighestIdModified(table());
    EXPECT_EQ(IndxUpdateTable(table_), 1u);
    ExpectStored();
}

// Another change before or after the one of the id, in the same operation: all of it is stored.
TEST_F(Store, AnotherChangeBesideTheIdIsStoredAsWell)
{
    People model;
    AddPeople(table_, &model, 0, 3);
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, table_, "Id"), 1u);
    for (const bool first : {true, false}) {
        table()->highestId += 10;
        table()->bCompanionFiles ^= 1;
        if (first)
            IndxSetHighestIdModified(table());
        IndxSetTableModified(static_cast<IndxCursor*>(oCursor)->oField->oTable);
        if (!first)
            IndxSetHighestIdModified(table());
        EXPECT_EQ(IndxUpdateTable(table_), 1u);
        ExpectStored();
    }
    IndxReleaseCursor(&oCursor);
}

} // namespace
