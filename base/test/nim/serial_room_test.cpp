// serial_room_test.cpp: writing a form in one go into room that may be too small.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "nim/fault.h"
#include "nim/list.h"
#include "nim/mem.h"
#include "nim/object.h"
#include "nim/objmap.h"
#include "nim/str.h"
#include "support/seed.h"

namespace {

// A list of texts, one of them twice.
void* NewTexts()
{
    void* oList = ListNewFromPool(OBJ_MAGIC_STRING, MemGetDefaultPoolId());
    void* oTwice = ObjStringNew("there twice");
    for (void* oText : {ObjStringNew(""), oTwice, ObjStringNew("a text of some length")}) {
        EXPECT_EQ(ListAddLastItem(oList, oText), 1u);
        if (oText != oTwice)
            ObjReleaseInternal(&oText);
    }
    EXPECT_EQ(ListAddLastItem(oList, oTwice), 1u);
    ObjReleaseInternal(&oTwice);
    return oList;
}

TEST(SerialRoom, WhatFitsIsWrittenAsWhenMeasuredFirstAndNothingIsWrittenBehindTheRoom)
{
    void* oTexts = NewTexts();
    std::string measured(ObjSerializedSize(oTexts), '\0');
    ASSERT_EQ(ObjSerializeToMemory(oTexts, measured.data(), nullptr), 1u);
    for (uint32_t room = 0; room < measured.size() + 20; ++room) {
        std::vector<uint8_t> exact(room + 8, 0x77);
        uint32_t size = 0xFFFFFFFFu;
        const NimBool written =
            ObjSerializeInto(oTexts, exact.data(), room, &size, nullptr, nullptr);
        ASSERT_EQ(written, room >= measured.size() ? 1u : 0u) << room;
        ASSERT_EQ(size, written ? measured.size() : 0u) << room;
        if (written) {
            ASSERT_EQ(std::string(exact.begin(), exact.begin() + size), measured) << room;
        }
        for (uint32_t i = written ? size : room; i < exact.size(); ++i)
            ASSERT_EQ(exact[i], 0x77) << room << " " << i;
    }
    EXPECT_EQ(
        ObjSerializeInto(oTexts, measured.data(), 0xFFFFFFFFu, nullptr, nullptr, nullptr), 1u);
    ObjReleaseInternal(&oTexts);
}

TEST(SerialRoom, RefusesWhatCannotBeWritten)
{
    char room[64];
    uint32_t size = 5;
    EXPECT_EQ(ObjSerializeInto(nullptr, room, sizeof room, &size, nullptr, nullptr), 0u);
    EXPECT_EQ(size, 0u);
    void* oText = ObjStringNew("text");
    size = 5;
    EXPECT_EQ(ObjSerializeInto(oText, nullptr, sizeof room, &size, nullptr, nullptr), 0u);
    EXPECT_EQ(size, 0u);
    void* oMap = nullptr;
    auto compare = [](const void*, const void*) -> int32_t { return 0; };
    ASSERT_EQ(ObjMapCreateInternal(&oMap, 0, 64, compare, compare, 0), 1u);
    EXPECT_EQ(ObjSerializeInto(oMap, room, sizeof room, &size, nullptr, nullptr), 0u);
    const FaultRule rule = {FAULT_SERIALIZE, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    EXPECT_EQ(ObjSerializeInto(oText, room, sizeof room, &size, nullptr, nullptr), 0u);
    EXPECT_EQ(ObjSerializeInto(oText, room, sizeof room, &size, nullptr, nullptr), 1u);
    FaultDisarmAll();
    ObjReleaseInternal(&oMap);
    ObjReleaseInternal(&oText);
}

// Numbers in front of and behind a text, and one in an object that it holds.
struct Numbers {
    int32_t first;
    uint32_t bSecond;
    char* text;
    int32_t third;
    Numbers* oInner;
};

Numbers* NewNumbers(Numbers* oInner)
{
    static ObjTemplate* const tmpl = [] {
        ObjTemplate* made = nullptr;
        EXPECT_EQ(
            ObjTemplateCreateInternal(&made, sizeof(Numbers), 0x0badcafe, "i;b;s;i;o;", nullptr),
            1u);
        return made;
    }();
    void* object = nullptr;
    EXPECT_EQ(ObjTemplateCreateInstanceFromPool(&object, tmpl, MemGetDefaultPoolId()), 1u);
    auto* numbers = static_cast<Numbers*>(object);
    numbers->text = StrDuplicateIntoPool("between the numbers", MemGetDefaultPoolId());
    numbers->oInner = oInner;
    return numbers;
}

std::string FormOf(const Numbers* numbers, const void* number, uint32_t* place)
{
    std::string form(1000, '\0');
    uint32_t size = 0;
    EXPECT_EQ(
        ObjSerializeInto(
            numbers, form.data(), static_cast<uint32_t>(form.size()), &size, number, place),
        1u);
    form.resize(size);
    return form;
}

TEST(SerialRoom, ANumberPutIntoAFormMakesTheFormOfTheChangedObject)
{
    std::mt19937_64 random(TestSeed());
    Numbers* inner = NewNumbers(nullptr);
    Numbers* outer = NewNumbers(inner);
    void* const items[] = {
        &outer->first, &outer->bSecond, &outer->third, &inner->first, &inner->third};
    for (int round = 0; round < 400; ++round) {
        void* item = items[random() % std::size(items)];
        uint32_t place = 0;
        std::string form = FormOf(outer, item, &place);
        ASSERT_NE(place, 0u);
        // Small numbers, and changes of one bit, too.
        const auto value = static_cast<uint32_t>(random() >> random() % 64);
        ASSERT_EQ(
            ObjSerializedPutNumber(form.data(), static_cast<uint32_t>(form.size()), place, value),
            1u);
        memcpy(item, &value, sizeof value);
        ASSERT_EQ(form, FormOf(outer, nullptr, nullptr)) << round;
        void* back = nullptr;
        ASSERT_EQ(ObjReconstructFromMemory(&back, form.data()), 1u) << round;
        ObjReleaseInternal(&back);
    }
    void* object = outer;
    ObjReleaseInternal(&object);
}

TEST(SerialRoom, ANumberThatIsNotThereHasNoPlace)
{
    Numbers* numbers = NewNumbers(nullptr);
    uint32_t place = 5;
    int32_t stranger = 0;
    std::string form = FormOf(numbers, &stranger, &place);
    EXPECT_EQ(place, 0u);
    place = 5;
    EXPECT_EQ(ObjSerializeInto(nullptr, form.data(), 1000, nullptr, nullptr, &place), 0u);
    EXPECT_EQ(place, 0u);
    const auto size = static_cast<uint32_t>(form.size());
    const std::string before = form;
    for (const uint32_t nowhere : {0u, 15u, size - 3, size, 0xFFFFFFFFu})
        EXPECT_EQ(ObjSerializedPutNumber(form.data(), size, nowhere, 1), 0u) << nowhere;
    for (const uint32_t room : {0u, 3u, 15u, size - 1})
        EXPECT_EQ(ObjSerializedPutNumber(form.data(), room, 16, 1), 0u) << room;
    EXPECT_EQ(ObjSerializedPutNumber(nullptr, size, 16, 1), 0u);
    const FaultRule rule = {FAULT_SERIALIZE, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    EXPECT_EQ(ObjSerializedPutNumber(form.data(), size, size - 5, 1), 0u);
    FaultDisarmAll();
    EXPECT_EQ(form, before);
    void* object = numbers;
    ObjReleaseInternal(&object);
}

} // namespace
