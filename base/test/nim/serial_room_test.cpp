// serial_room_test.cpp: writing a form in one go into room that may be too small.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nim/fault.h"
#include "nim/list.h"
#include "nim/mem.h"
#include "nim/object.h"
#include "nim/objmap.h"

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
        const NimBool written = ObjSerializeInto(oTexts, exact.data(), room, &size);
        ASSERT_EQ(written, room >= measured.size() ? 1u : 0u) << room;
        ASSERT_EQ(size, written ? measured.size() : 0u) << room;
        if (written) {
            ASSERT_EQ(std::string(exact.begin(), exact.begin() + size), measured) << room;
        }
        for (uint32_t i = written ? size : room; i < exact.size(); ++i)
            ASSERT_EQ(exact[i], 0x77) << room << " " << i;
    }
    EXPECT_EQ(ObjSerializeInto(oTexts, measured.data(), 0xFFFFFFFFu, nullptr), 1u);
    ObjReleaseInternal(&oTexts);
}

TEST(SerialRoom, RefusesWhatCannotBeWritten)
{
    char room[64];
    uint32_t size = 5;
    EXPECT_EQ(ObjSerializeInto(nullptr, room, sizeof room, &size), 0u);
    EXPECT_EQ(size, 0u);
    void* oText = ObjStringNew("text");
    size = 5;
    EXPECT_EQ(ObjSerializeInto(oText, nullptr, sizeof room, &size), 0u);
    EXPECT_EQ(size, 0u);
    void* oMap = nullptr;
    auto compare = [](const void*, const void*) -> int32_t { return 0; };
    ASSERT_EQ(ObjMapCreateInternal(&oMap, 0, 64, compare, compare, 0), 1u);
    EXPECT_EQ(ObjSerializeInto(oMap, room, sizeof room, &size), 0u);
    const FaultRule rule = {FAULT_SERIALIZE, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    EXPECT_EQ(ObjSerializeInto(oText, room, sizeof room, &size), 0u);
    EXPECT_EQ(ObjSerializeInto(oText, room, sizeof room, &size), 1u);
    FaultDisarmAll();
    ObjReleaseInternal(&oMap);
    ObjReleaseInternal(&oText);
}

} // namespace
