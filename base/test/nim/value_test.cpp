// value_test.cpp: the built-in value objects.
#include "support/object_graph.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "nim/list.h"

namespace {

UniqueId SomeId()
{
    UniqueId id;
    for (int i = 0; i < 32; ++i)
        id.b[i] = static_cast<uint8_t>(0xF0 + i);
    return id;
}

} // namespace

TEST(Value, IntegersKeepTheirValue)
{
    for (int32_t value : {0, 1, -1, INT32_MIN, INT32_MAX}) {
        Ref created;
        ASSERT_EQ(ObjIntegerCreate(created.out(), value), 1u);
        EXPECT_EQ(ObjGetInteger(created.get()), value);
        Ref made(ObjIntegerNew(value));
        EXPECT_EQ(ObjGetInteger(made.get()), value);
        EXPECT_EQ(ObjGetMagic(made.get()), OBJ_MAGIC_INTEGER);
        EXPECT_EQ(RefCount(made.get()), 1);
    }
}

TEST(Value, LongIntegersKeepTheirValue)
{
    for (int64_t value : {int64_t{0}, int64_t{-1}, INT64_MIN, INT64_MAX, int64_t{1} << 32 | 2}) {
        Ref created;
        ASSERT_EQ(ObjInt64Create(created.out(), value), 1u);
        EXPECT_EQ(ObjGetInt64(created.get()), value);
        Ref made(ObjInt64New(value));
        EXPECT_EQ(ObjGetInt64(made.get()), value);
        EXPECT_EQ(ObjGetMagic(made.get()), OBJ_MAGIC_INT64);
    }
}

TEST(Value, StringsCopyTheirText)
{
    std::string text = "a text";
    Ref object(ObjStringNew(text.c_str()));
    text[0] = 'X';
    EXPECT_STREQ(ObjGetString(object.get()), "a text");
    EXPECT_EQ(ObjGetMagic(object.get()), OBJ_MAGIC_STRING);
    Ref empty(ObjStringNew(""));
    EXPECT_STREQ(ObjGetString(empty.get()), "");
    Ref null(ObjStringNew(nullptr));
    ASSERT_NE(null.get(), nullptr);
    EXPECT_EQ(ObjGetString(null.get()), nullptr);
}

TEST(Value, UniqueIdsKeepTheir32Bytes)
{
    UniqueId id = SomeId();
    Ref object(ObjUniqueNew(&id));
    EXPECT_EQ(ObjGetMagic(object.get()), OBJ_MAGIC_UNIQUE);
    ASSERT_NE(ObjGetUnique(object.get()), nullptr);
    EXPECT_EQ(memcmp(ObjGetUnique(object.get()), &id, 32), 0);
    Ref zero(ObjUniqueNew(nullptr));
    UniqueId zeros = {};
    EXPECT_EQ(memcmp(ObjGetUnique(zero.get()), &zeros, 32), 0);
}

TEST(Value, DataFieldsCopyTheirBytesAndKeepAHiddenNulBehindThem)
{
    char bytes[] = {'a', 0, 'b'};
    Ref object;
    ASSERT_EQ(ObjDataFieldCreate(object.out(), bytes, 3), 1u);
    bytes[0] = 'X';
    EXPECT_EQ(ObjGetMagic(object.get()), OBJ_MAGIC_DATAFIELD);
    EXPECT_EQ(ObjGetDataFieldSize(object.get()), 3u);
    auto* data = static_cast<const char*>(ObjGetDataFieldData(object.get()));
    EXPECT_EQ(std::string(data, 4), std::string("a\0b\0", 4));
}

TEST(Value, ADataFieldMayBeEmpty)
{
    Ref object;
    ASSERT_EQ(ObjDataFieldCreate(object.out(), nullptr, 0), 1u);
    EXPECT_EQ(ObjGetDataFieldSize(object.get()), 0u);
    ASSERT_NE(ObjGetDataFieldData(object.get()), nullptr);
    EXPECT_EQ(*static_cast<const char*>(ObjGetDataFieldData(object.get())), 0);
}

TEST(Value, ADataFieldNeedsItsBytes)
{
    void* object = &object;
    EXPECT_EQ(ObjDataFieldCreate(&object, nullptr, 1), 0u);
    EXPECT_EQ(object, nullptr);
    object = &object;
    EXPECT_EQ(ObjDataFieldCreate(&object, "x", UINT32_MAX), 0u); // no room for the NUL
    EXPECT_EQ(object, nullptr);
}

TEST(Value, TheDataIsAPieceOfItsOwnThatGoesWithTheObject)
{
    Ref first;
    ASSERT_EQ(ObjDataFieldCreate(first.out(), "abc", 3), 1u); // the template is there now
    Alive before;
    Ref object;
    ASSERT_EQ(ObjDataFieldCreate(object.out(), "abc", 3), 1u);
    EXPECT_EQ(MemLiveCount() - before.pieces, 2u);
    // An owner may exchange the data as in any `d` item.
    MemFreeInternal(&Item<ObjData>(object.get(), 0).data);
    Item<ObjData>(object.get(), 0) = PoolData("other");
    object = Ref();
    EXPECT_EQ(Alive(), before);
}

TEST(Value, NullOutParametersAreRefused)
{
    EXPECT_EQ(ObjIntegerCreate(nullptr, 1), 0u);
    EXPECT_EQ(ObjInt64Create(nullptr, 1), 0u);
    EXPECT_EQ(ObjDataFieldCreate(nullptr, "a", 1), 0u);
}

TEST(Value, NullAndObjectsOfAnotherMagicGiveNothing)
{
    UniqueId id = SomeId();
    Ref integer(ObjIntegerNew(5));
    Ref int64(ObjInt64New(6));
    Ref string(ObjStringNew("text"));
    Ref unique(ObjUniqueNew(&id));
    Ref list(ListNewFromPool(0, 1));
    Ref data;
    ASSERT_EQ(ObjDataFieldCreate(data.out(), "bytes", 5), 1u);
    for (void* handle :
         {static_cast<void*>(nullptr), integer.get(), int64.get(), string.get(), unique.get(),
          list.get(), data.get()}) {
        if (handle != integer.get()) {
            EXPECT_EQ(ObjGetInteger(handle), 0);
        }
        if (handle != int64.get()) {
            EXPECT_EQ(ObjGetInt64(handle), 0);
        }
        if (handle != string.get()) {
            EXPECT_EQ(ObjGetString(handle), nullptr);
        }
        if (handle != unique.get()) {
            EXPECT_EQ(ObjGetUnique(handle), nullptr);
        }
        if (handle != data.get()) {
            EXPECT_EQ(ObjGetDataFieldData(handle), nullptr);
            EXPECT_EQ(ObjGetDataFieldSize(handle), 0u);
        }
    }
}

TEST(Value, AMagicAloneIsNoShape)
{
    // A template of another body under a built-in magic: nothing of it may be read as the value.
    Ref shortUnique = NewObject(OBJ_MAGIC_UNIQUE, "i;");
    EXPECT_EQ(ObjGetUnique(shortUnique.get()), nullptr);
    Ref notText = NewObject(OBJ_MAGIC_STRING, "q;");
    Item<int64_t>(notText.get(), 0) = 0x1111;
    EXPECT_EQ(ObjGetString(notText.get()), nullptr);
    Ref notData = NewObject(OBJ_MAGIC_DATAFIELD, "q;q;");
    Item<int64_t>(notData.get(), 1) = 0x1111;
    EXPECT_EQ(ObjGetDataFieldData(notData.get()), nullptr);
    EXPECT_EQ(ObjGetDataFieldSize(notData.get()), 0u);
    Ref notLong = NewObject(OBJ_MAGIC_INT64, "n1;");
    Item<uint8_t>(notLong.get(), 0) = 1;
    EXPECT_EQ(ObjGetInt64(notLong.get()), 0);
    Ref notInteger = NewObject(OBJ_MAGIC_INTEGER, "b;");
    Item<int32_t>(notInteger.get(), 0) = 1;
    EXPECT_EQ(ObjGetInteger(notInteger.get()), 0);
}

TEST(Value, BuiltInObjectsAreOrdinaryObjects)
{
    Ref string(ObjStringNew("x"));
    EXPECT_EQ(OBJ_HEADER(string.get())->tmpl, TemplateOf(OBJ_MAGIC_STRING, "s;"));
    EXPECT_EQ(ObjGetDbData(string.get())->fields[0].kind, OBJ_KIND_STRING);
    EXPECT_EQ(ObjGetDbData(string.get())->notStorable, 0u);
    // A host's own instance of the same template is one of them.
    Ref own = NewObject(OBJ_MAGIC_INTEGER, "i;");
    Item<int32_t>(own.get(), 0) = 99;
    EXPECT_EQ(ObjGetInteger(own.get()), 99);
}

TEST(Value, EveryConstructorSurvivesEveryAllocationFailure)
{
    void* (*const makers[])() = {
        [] { return ObjIntegerNew(1); },
        [] { return ObjInt64New(1); },
        [] { return ObjStringNew("text"); },
        [] { return ObjUniqueNew(nullptr); },
        [] {
            void* object = nullptr;
            ObjDataFieldCreate(&object, "bytes", 5);
            return object;
        },
    };
    for (auto make : makers) {
        void* first = make(); // the template is there now
        ObjReleaseInternal(&first);
        Alive before;
        uint32_t n = 1;
        for (void* object = nullptr; !object; ++n) {
            FaultRule rule = {FAULT_ALLOC, nullptr, n, 1, FAULT_FAIL, 0};
            uint32_t id = FaultArm(&rule);
            object = make();
            uint32_t hits = FaultHits(id);
            FaultDisarmAll();
            EXPECT_EQ(object == nullptr, hits == 1);
            ObjReleaseInternal(&object);
            EXPECT_EQ(Alive(), before);
            if (hits == 0)
                break;
        }
        EXPECT_GE(n, 2u);
    }
}

namespace {

// Makes one object of each type as the first of the process, without memory and then with it.
void MakeTheFirstOfEachType()
{
    const UniqueId id = SomeId();
    const auto make = [&](int type) -> void* {
        void* object = nullptr;
        switch (type) {
        case 0:
            return ObjIntegerNew(1);
        case 1:
            return ObjInt64New(1);
        case 2:
            return ObjStringNew("text");
        case 3:
            return ObjUniqueNew(&id);
        default:
            ObjDataFieldCreate(&object, "bytes", 5);
            return object;
        }
    };
    for (int type = 0; type < 5; ++type) {
        bool bStruck = true;
        for (uint32_t nth = 1; bStruck; ++nth) {
            const FaultRule rule = {FAULT_ALLOC, nullptr, nth, 1, FAULT_FAIL, 0};
            const uint32_t fault = FaultArm(&rule);
            void* object = make(type);
            bStruck = FaultHits(fault) != 0;
            FaultDisarmAll();
            if ((object == nullptr) != bStruck || (!bStruck && nth < 2))
                std::exit(1 + type);
            ObjReleaseInternal(&object);
            if (MemLiveCount() != 0)
                std::exit(10 + type);
        }
    }
    std::exit(0);
}

} // namespace

TEST(ValueDeathTest, TheFirstObjectOfEachTypeNeedsMemoryForItsTypeToo)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(MakeTheFirstOfEachType(), testing::ExitedWithCode(0), "");
}
