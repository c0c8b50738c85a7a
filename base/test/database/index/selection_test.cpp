// selection_test.cpp: selections, one flag a field, and fields by number and type. What a partial
// read makes of a selection is partial_test.cpp.

#include <gtest/gtest.h>

#include "support/person_table.h"

namespace {

constexpr uint32_t FIELD_COUNT = 8;

// ---- selections ------------------------------------------------------------------------------

class Selection : public PeopleTest {
  protected:
    // A list of string objects.
    static Held Names(const std::vector<const char*>& names)
    {
        Held list(ListNewFromPool(0, MemGetDefaultPoolId()));
        for (const char* name : names) {
            void* oName = ObjStringNew(name);
            EXPECT_EQ(ListPushLastItemInternal(list.get(), &oName), 1u);
        }
        return list;
    }
    // The flags of the people's fields; empty when refused.
    std::vector<uint32_t> Selected(void* oNames)
    {
        uint32_t* pSelected = nullptr;
        if (!IndxGetSelected(&pSelected, table_, oNames)) {
            EXPECT_EQ(pSelected, nullptr);
            return {};
        }
        std::vector<uint32_t> flags(pSelected, pSelected + FIELD_COUNT);
        MemFree(pSelected);
        return flags;
    }
};

using Flags = std::vector<uint32_t>;

TEST_F(Selection, AFlagIs1ExactlyWhenTheFieldIsNamedWithoutRegardToCase)
{
    EXPECT_EQ(Selected(Names({"Name"}).get()), (Flags{0, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Selected(Names({"ALIVE", "id"}).get()), (Flags{1, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_EQ(Selected(Names({"pHoTo", "Town", "photo"}).get()), (Flags{0, 0, 1, 0, 0, 0, 1, 0}));
    EXPECT_EQ(Selected(Names({"Nam", "Names", "", " Name"}).get()), Flags(8, 0));
}

TEST_F(Selection, WhatIsNoStringObjectSelectsNothing)
{
    Held names = Names({"Name"});
    void* oInteger = ObjIntegerNew(3);
    ASSERT_EQ(ListPushLastItemInternal(names.get(), &oInteger), 1u);
    void* oNoText = ObjStringNew(nullptr);
    ASSERT_EQ(ListPushLastItemInternal(names.get(), &oNoText), 1u);
    EXPECT_EQ(Selected(names.get()), (Flags{0, 1, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Selection, UnusableArgumentsAreRefusedWithoutACode)
{
    const Held names = Names({"Name"});
    const Held empty = Names({});
    const Held text(ObjStringNew("Name"));
    uint32_t* pSelected = nullptr;
    TraceRecorder trace;
    EXPECT_EQ(IndxGetSelected(nullptr, table_, names.get()), 0u);
    EXPECT_EQ(IndxGetSelected(&pSelected, nullptr, names.get()), 0u);
    EXPECT_EQ(IndxGetSelected(&pSelected, names.get(), names.get()), 0u);
    EXPECT_EQ(IndxGetSelected(&pSelected, table_, nullptr), 0u);
    EXPECT_EQ(IndxGetSelected(&pSelected, table_, text.get()), 0u);
    EXPECT_EQ(IndxGetSelected(&pSelected, table_, empty.get()), 0u);
    EXPECT_EQ(IndxGetSelectedByName(nullptr, database(), TABLE, names.get()), 0u);
    EXPECT_EQ(IndxGetSelectedByName(&pSelected, nullptr, TABLE, names.get()), 0u);
    EXPECT_EQ(IndxGetSelectedByName(&pSelected, table_, TABLE, names.get()), 0u);
    EXPECT_EQ(IndxGetSelectedByName(&pSelected, database(), nullptr, names.get()), 0u);
    EXPECT_EQ(IndxGetSelectedByName(&pSelected, database(), "Nobody", names.get()), 0u);
    EXPECT_EQ(IndxGetSelectedByName(&pSelected, database(), "", names.get()), 0u);
    EXPECT_EQ(IndxGetSelectedByName(&pSelected, database(), TABLE, nullptr), 0u);
    EXPECT_EQ(IndxGetSelectedByName(&pSelected, database(), TABLE, empty.get()), 0u);
    EXPECT_EQ(pSelected, nullptr);
    EXPECT_EQ(IndxError(), UNTOUCHED);
    EXPECT_EQ(trace.countLevel(-1), 0u);
}

TEST_F(Selection, NoMemoryForTheFlagsIsAFailure)
{
    const Held names = Names({"Name"});
    Fail(FAULT_ALLOC);
    EXPECT_EQ(Selected(names.get()), Flags{});
    FaultDisarmAll();
}

TEST_F(Selection, ATableIsFoundByItsNameWithoutRegardToCase)
{
    ASSERT_NE(OpenTable("Others", MAGIC, "i;s;", "Id,Word"), nullptr);
    const Held names = Names({"Word", "Name"});
    for (const char* table : {"People", "PEOPLE", "people"}) {
        uint32_t* pSelected = nullptr;
        ASSERT_EQ(IndxGetSelectedByName(&pSelected, database(), table, names.get()), 1u);
        EXPECT_EQ(Flags(pSelected, pSelected + 8), (Flags{0, 1, 0, 0, 0, 0, 0, 0}));
        MemFree(pSelected);
    }
    uint32_t* pSelected = nullptr;
    ASSERT_EQ(IndxGetSelectedByName(&pSelected, database(), "oThErS", names.get()), 1u);
    EXPECT_EQ(Flags(pSelected, pSelected + 2), (Flags{0, 1}));
    MemFree(pSelected);
}

// ---- fields by number and type ---------------------------------------------------------------

TEST_F(Selection, AFieldsNumberIsItsPositionWhateverTheCaseOfItsName)
{
    const char* names[] = {"Id", "Name", "Town", "Age", "Number", "Key", "Photo", "Alive"};
    for (uint32_t i = 0; i < FIELD_COUNT; ++i) {
        uint32_t number = 99;
        EXPECT_EQ(IndxGetFieldNumber(&number, table_, names[i]), 1u);
        EXPECT_EQ(number, i);
    }
    uint32_t number = 99;
    EXPECT_EQ(IndxGetFieldNumber(&number, table_, "aLiVe"), 1u);
    EXPECT_EQ(number, 7u);
}

TEST_F(Selection, NoNumberForAnEmptyOrUnknownName)
{
    uint32_t number = 99;
    EXPECT_EQ(IndxGetFieldNumber(&number, table_, ""), 0u);
    EXPECT_EQ(IndxGetFieldNumber(&number, table_, nullptr), 0u);
    EXPECT_EQ(IndxGetFieldNumber(&number, table_, "Nam"), 0u);
    EXPECT_EQ(IndxGetFieldNumber(&number, table_, "Named"), 0u);
    EXPECT_EQ(IndxGetFieldNumber(&number, nullptr, "Name"), 0u);
    EXPECT_EQ(IndxGetFieldNumber(&number, database(), "Name"), 0u);
    EXPECT_EQ(IndxGetFieldNumber(nullptr, table_, "Name"), 0u);
    EXPECT_EQ(number, 99u);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(Selection, EveryKindOfFieldHasItsType)
{
    void* oTable = OpenTable(
        "Kinds", MAGIC, "i;i;q;s;s;d;o;u;b;n8;n8;",
        "Id,A,B,C;Case Sensitive,D,E,F,G,H,I;Case Sensitive,J");
    ASSERT_NE(oTable, nullptr);
    const int32_t types[] = {1, 2, 3, 4, 5, 7, 8, 9, 10, 4, 5};
    int32_t type = 99;
    for (uint32_t i = 0; i < std::size(types); ++i) {
        EXPECT_EQ(IndxGetFieldTypeByNumber(&type, oTable, i), 1u);
        EXPECT_EQ(type, types[i]) << i;
    }
    type = 99;
    EXPECT_EQ(IndxGetFieldTypeByNumber(&type, oTable, 11), 0u);
    EXPECT_EQ(IndxGetFieldTypeByNumber(&type, oTable, 0xffffffff), 0u);
    EXPECT_EQ(IndxGetFieldTypeByNumber(&type, nullptr, 0), 0u);
    EXPECT_EQ(IndxGetFieldTypeByNumber(&type, database(), 0), 0u);
    EXPECT_EQ(IndxGetFieldTypeByNumber(nullptr, oTable, 0), 0u);
    EXPECT_EQ(type, 99);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

} // namespace
