// serial_test.cpp: the serialised form - its bytes, its size, and what comes back.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "nim/objmap.h"
#include "nim/serial_scene.h"
#include "support/seed.h"

// ---- bytes --------------------------------------------------------------------------------------

TEST(Serial, ChecksumIsTheCommonOneAtEveryLength)
{
    EXPECT_EQ(crc32::Of("123456789", 9), 0xCBF43926u);
    std::mt19937 random(1);
    std::string bytes;
    for (int length = 0; length < 100; ++length) {
        ASSERT_EQ(crc32::Of(bytes.data(), bytes.size()), BitwiseCrc(bytes)) << length;
        bytes += static_cast<char>(random());
    }
}

TEST(Serial, ChecksumFollowsAChangeWhateverIsBehindIt)
{
    std::mt19937_64 random(TestSeed());
    for (const size_t length :
         {4u, 5u, 8u, 11u, 259u, 260u, 261u, 1000u, 65540u, 70000u, 300000u}) {
        std::vector<uint8_t> bytes(length);
        for (auto& byte : bytes)
            byte = static_cast<uint8_t>(random());
        for (const size_t place : {size_t{0}, length / 2, length - 4}) {
            if (place + 4 > length)
                continue;
            const uint32_t before = crc32::Of(bytes.data(), length);
            const auto change = static_cast<uint32_t>(random() >> random() % 64);
            for (size_t i = 0; i < 4; ++i)
                bytes[place + i] ^= static_cast<uint8_t>(change >> 8 * i);
            const auto behind = static_cast<uint32_t>(length - place - 4);
            ASSERT_EQ(before ^ crc32::OfChange(change, behind), crc32::Of(bytes.data(), length))
                << length << " " << place << " " << change;
        }
    }
}

TEST(Serial, EveryItemIsWrittenAsItsLetterSays)
{
    Ref object = NewObject(MAGIC, "b;i;q;u;n3;s;d;o;p;ol;sl;");
    Item<int32_t>(object.get(), 0) = 1;
    Item<int32_t>(object.get(), 1) = -2;
    Item<int64_t>(object.get(), 2) = 0x0102030405060708;
    memset(&Item<UniqueId>(object.get(), 3), 0x55, 32);
    memcpy(&Item<uint8_t>(object.get(), 4), "abc", 3);
    Item<char*>(object.get(), 5) = PoolText("text");
    Item<ObjData>(object.get(), 6) = PoolData("bytes");
    Item<void*>(object.get(), 7) = ObjIntegerNew(0x11223344);
    Item<void*>(object.get(), 8) = object.get();
    Item<void*>(object.get(), 9) = ObjIntegerNew(1);
    Item<char*>(object.get(), 10) = PoolText("path");
    OBJ_HEADER(object.get())->flags = 1;
    std::string expected = New(MAGIC, "b;i;q;u;n3;s;d;o;p;ol;sl;") + U32(1) + U32(0xFFFFFFFEu) +
                           "\x08\x07\x06\x05\x04\x03\x02\x01" + std::string(32, 0x55) + "abc" +
                           "\x05text" + "\x05" + "bytes" + New(OBJ_MAGIC_INTEGER, "i;") +
                           "\x44\x33\x22\x11";
    EXPECT_EQ(Serialised(object.get()), Seal(expected));

    Ref back = Reconstructed(Serialised(object.get()));
    ASSERT_NE(back.get(), nullptr);
    EXPECT_EQ(ObjGetMagic(back.get()), MAGIC);
    EXPECT_EQ(RefCount(back.get()), 1);
    EXPECT_EQ(OBJ_HEADER(back.get())->flags, 0u);
    EXPECT_EQ(OBJ_HEADER(back.get())->tmpl, OBJ_HEADER(object.get())->tmpl);
    EXPECT_EQ(Item<int32_t>(back.get(), 0), 1);
    EXPECT_EQ(Item<int32_t>(back.get(), 1), -2);
    EXPECT_EQ(Item<int64_t>(back.get(), 2), 0x0102030405060708);
    EXPECT_EQ(memcmp(&Item<UniqueId>(back.get(), 3), &Item<UniqueId>(object.get(), 3), 32), 0);
    EXPECT_EQ(memcmp(&Item<uint8_t>(back.get(), 4), "abc", 3), 0);
    EXPECT_STREQ(Item<char*>(back.get(), 5), "text");
    EXPECT_EQ(Item<ObjData>(back.get(), 6).size, 5u);
    EXPECT_EQ(memcmp(Item<ObjData>(back.get(), 6).data, "bytes", 5), 0);
    EXPECT_EQ(ObjGetInteger(Item<void*>(back.get(), 7)), 0x11223344);
    EXPECT_EQ(Item<void*>(back.get(), 8), nullptr);
    EXPECT_EQ(Item<void*>(back.get(), 9), nullptr);
    EXPECT_EQ(Item<char*>(back.get(), 10), nullptr);
}

TEST(Serial, AbsentAndEmptyAreDifferentTextsAndNullItemsComeBackNull)
{
    Ref object = NewObject(MAGIC, "s;s;d;o;");
    Item<char*>(object.get(), 1) = PoolText("");
    EXPECT_EQ(
        Serialised(object.get()),
        Seal(New(MAGIC, "s;s;d;o;") + Byte(0) + Byte(1) + Byte(0) + Byte(0)));
    Ref back = Reconstructed(Serialised(object.get()));
    ASSERT_NE(back.get(), nullptr);
    EXPECT_EQ(Item<char*>(back.get(), 0), nullptr);
    EXPECT_STREQ(Item<char*>(back.get(), 1), "");
    EXPECT_EQ(Item<ObjData>(back.get(), 2).size, 0u);
    EXPECT_EQ(Item<void*>(back.get(), 3), nullptr);
}

TEST(Serial, AListIsWrittenWithItsTypeAndItems)
{
    Ref list(ListNewFromPool(OBJ_MAGIC_STRING, 1));
    for (const char* text : {"a", "bc"}) {
        void* item = ObjStringNew(text);
        ASSERT_EQ(ListPushLastItemInternal(list.get(), &item), 1u);
    }
    std::string expected = New(OBJ_MAGIC_LIST, "") + U32(OBJ_MAGIC_STRING) + U32(2) +
                           New(OBJ_MAGIC_STRING, "s;") +
                           "\x02"
                           "a" +
                           Byte(2) + Byte(1) +
                           "\x03"
                           "bc";
    EXPECT_EQ(Serialised(list.get()), Seal(expected));
    Ref back = Reconstructed(Serialised(list.get()));
    EXPECT_EQ(ListGetItemType(back.get()), OBJ_MAGIC_STRING);
    ASSERT_EQ(ListGetCount(back.get()), 2u);
    void* item = nullptr;
    ListGetNthItem(&item, back.get(), 1);
    EXPECT_STREQ(ObjGetString(item), "bc");
    EXPECT_EQ(RefCount(item), 1);
}

TEST(Serial, LongTextsAndDataTakeLongerLengths)
{
    for (uint32_t length : {126u, 127u, 128u, 16382u, 16383u, 16384u, 2097151u, 2097152u}) {
        Ref object = NewObject(MAGIC, "s;d;");
        std::string bytes(length, 'z');
        Item<char*>(object.get(), 0) = PoolText(bytes);
        Item<ObjData>(object.get(), 1) = PoolData(bytes);
        std::string form = Serialised(object.get());
        ASSERT_EQ(form, Seal(New(MAGIC, "s;d;") + Text(bytes) + Leb(length) + bytes));
        Ref back = Reconstructed(form);
        ASSERT_NE(back.get(), nullptr);
        EXPECT_EQ(Item<char*>(back.get(), 0), bytes);
        EXPECT_EQ(Item<ObjData>(back.get(), 1).size, length);
    }
}

TEST(Serial, ATableIsWrittenAsTheGoldenFile)
{
    Ref table = People();
    EXPECT_EQ(Serialised(table.get()), GoldenTable());
    Dissolve(std::move(table));
}

TEST(Serial, TheGoldenTableIsReadBackWithItsCyclesAndCounts)
{
    Alive before;
    std::string golden = GoldenTable();
    ASSERT_EQ(golden.size(), 504u);
    Ref root = Reconstructed(golden);
    ASSERT_NE(root.get(), nullptr);
    EXPECT_EQ(ObjGetMagic(root.get()), TABLE_MAGIC);
    EXPECT_EQ(RefCount(root.get()), 1 + 5);
    auto* table = static_cast<Table*>(root.get());
    EXPECT_STREQ(table->name, "People");
    EXPECT_STREQ(table->format, "i;s;i;q;u;");
    EXPECT_STREQ(
        table->fieldNames,
        "Id, Name;Indexed;Case Sensitive, Size;Indexed;Unique, Stamp, Key;Indexed");
    EXPECT_EQ(table->file, nullptr);
    EXPECT_EQ(table->database, nullptr);
    EXPECT_EQ(static_cast<uint32_t>(table->magic), 0xc8000001u);
    EXPECT_EQ(table->highest, 7);
    EXPECT_EQ(table->flags.size, 20u);
    EXPECT_EQ(static_cast<int32_t*>(table->flags.data)[4], 1);
    EXPECT_EQ(table->companion, 1);
    ASSERT_EQ(ListGetCount(table->fields), 5u);
    EXPECT_EQ(ListGetItemType(table->fields), FIELD_MAGIC);
    EXPECT_EQ(RefCount(table->fields), 1);
    for (uint32_t n = 0; n < 5; ++n) {
        void* item = nullptr;
        ASSERT_EQ(ListGetNthItem(&item, table->fields, n), 1u);
        auto* field = static_cast<Field*>(item);
        EXPECT_EQ(RefCount(item), 1);
        EXPECT_EQ(field->table, root.get());
        EXPECT_EQ(field->cursors, nullptr);
        EXPECT_EQ(field->numbers[5], 8168);
    }
    EXPECT_EQ(Serialised(root.get()), golden);
    Dissolve(std::move(root));
    EXPECT_EQ(Alive(), before);
}

// ---- sizes --------------------------------------------------------------------------------------

TEST(Serial, SizesOfWideTables)
{
    struct {
        uint32_t fields;
        uint32_t nameLength;
        const char* flags;
        uint32_t size;
    } const cases[] = {
        {150, 12, "", 12298},
        {150, 12, ";Indexed", 13498},
        {150, 12, ";Indexed;Case Sensitive", 15748},
        {150, 20, "", 14698},
        {150, 20, ";Indexed", 15898},
        {150, 30, "", 17698},
        {197, 12, "", 16105}, // the most that a block file's user data of 16128 bytes takes
        {198, 12, "", 16186},
        {179, 12, ";Indexed", 16079},
        {180, 12, ";Indexed", 16168},
    };
    for (const auto& one : cases) {
        Ref table = WideTable(one.fields, one.nameLength, one.flags);
        EXPECT_EQ(ObjSerializedSize(table.get()), one.size);
        std::string form = Serialised(table.get());
        Ref back = Reconstructed(form);
        ASSERT_NE(back.get(), nullptr);
        EXPECT_EQ(Serialised(back.get()), form);
        Dissolve(std::move(table));
        Dissolve(std::move(back));
    }
}

TEST(Serial, SizeDoesNotDependOnTheValuesOfNumbers)
{
    Ref root = People();
    uint32_t size = ObjSerializedSize(root.get());
    auto* table = static_cast<Table*>(root.get());
    for (int32_t value : {0, 1, -1, 127, 128, INT32_MAX, INT32_MIN}) {
        table->magic = table->highest = table->fixedSize = table->idOffset = value;
        for (uint32_t n = 0; n < 5; ++n) {
            void* item = nullptr;
            ListGetNthItem(&item, table->fields, n);
            for (int32_t& number : static_cast<Field*>(item)->numbers)
                number = value;
        }
        EXPECT_EQ(ObjSerializedSize(root.get()), size);
        EXPECT_EQ(Serialised(root.get()).size(), size);
    }
    Ref large = NewObject(MAGIC, "q;b;u;n9;");
    uint32_t zero = ObjSerializedSize(large.get());
    memset(large.get(), 0xFF, 8 + 4 + 32 + 9);
    EXPECT_EQ(ObjSerializedSize(large.get()), zero);
    Dissolve(std::move(root));
}

// ---- shape --------------------------------------------------------------------------------------

TEST(Serial, SharedObjectsComeBackSharedAndCounted)
{
    Ref object = NewObject(MAGIC, "o;o;o;");
    Item<void*>(object.get(), 0) = ObjStringNew("shared");
    Item<void*>(object.get(), 1) = ObjIncRefCount(Item<void*>(object.get(), 0));
    Item<void*>(object.get(), 2) = ObjStringNew("own");
    Ref back = Reconstructed(Serialised(object.get()));
    ASSERT_NE(back.get(), nullptr);
    void* shared = Item<void*>(back.get(), 0);
    EXPECT_EQ(Item<void*>(back.get(), 1), shared);
    EXPECT_EQ(RefCount(shared), 2);
    EXPECT_NE(Item<void*>(back.get(), 2), shared);
}

TEST(Serial, AnObjectMayReferToItself)
{
    Alive before;
    Ref object = NewObject(MAGIC, "o;");
    Item<void*>(object.get(), 0) = ObjIncRefCount(object.get());
    Ref back = Reconstructed(Serialised(object.get()));
    ASSERT_NE(back.get(), nullptr);
    EXPECT_EQ(Item<void*>(back.get(), 0), back.get());
    EXPECT_EQ(RefCount(back.get()), 2);
    Dissolve(std::move(object));
    Dissolve(std::move(back));
    EXPECT_EQ(Alive(), before);
}

TEST(Serial, ThousandsOfObjectsAndTemplatesAreNumberedRight)
{
    Ref list(ListNewFromPool(0, 1));
    for (int32_t i = 0; i < 3000; ++i) {
        void* item = NewObject(MAGIC, ("o;i;n" + std::to_string(i % 100 + 1)).c_str()).take();
        Item<int32_t>(item, 1) = i;
        if (i >= 10) { // a reference to one long ago
            void* earlier = nullptr;
            ListGetNthItem(&earlier, list.get(), static_cast<uint32_t>(i / 2));
            Item<void*>(item, 0) = ObjIncRefCount(earlier);
        }
        ASSERT_EQ(ListPushLastItemInternal(list.get(), &item), 1u);
    }
    std::string form = Serialised(list.get());
    Ref back = Reconstructed(form);
    ASSERT_NE(back.get(), nullptr);
    EXPECT_EQ(Serialised(back.get()), form);
    std::vector<void*> items;
    ListWalk(
        back.get(),
        [](void* context, void* item) -> NimBool {
            static_cast<std::vector<void*>*>(context)->push_back(item);
            return 1;
        },
        &items);
    ASSERT_EQ(items.size(), 3000u);
    for (size_t i = 10; i < items.size(); ++i)
        ASSERT_EQ(Item<void*>(items[i], 0), items[i / 2]) << i;
}

TEST(Serial, DepthEndsAt64)
{
    Ref chain = NewObject(MAGIC, "o;");
    std::string value = Byte(0);
    for (int depth = 1; depth <= 66; ++depth) {
        // A form made by hand, since the writer refuses what the reader would.
        value = (depth == 1 ? "" : Byte(2) + Byte(0)) + value;
        std::string form = Seal(New(MAGIC, "o;") + value);
        Ref back = Reconstructed(form);
        EXPECT_EQ(back.get() != nullptr, depth <= 64) << depth;
        EXPECT_EQ(ObjSerializedSize(chain.get()), depth <= 64 ? form.size() : 0u) << depth;
        if (depth <= 64) {
            EXPECT_EQ(Serialised(chain.get()), form);
        }
        Ref holder = NewObject(MAGIC, "o;");
        Item<void*>(holder.get(), 0) = chain.take();
        chain = std::move(holder);
    }
}

// Lists in lists go as deep as objects in objects, and are refused by the writer where the reader
// would stop.
TEST(Serial, ListsInListsEndAtTheSameDepth)
{
    Ref nest(ListNewFromPool(0, 1));
    for (int depth = 1; depth <= 70; ++depth) {
        const uint32_t size = ObjSerializedSize(nest.get());
        EXPECT_EQ(size != 0, depth <= 64) << depth;
        if (size != 0) {
            EXPECT_NE(Reconstructed(Serialised(nest.get())).get(), nullptr) << depth;
        }
        Ref outer(ListNewFromPool(0, 1));
        ASSERT_EQ(ListAddLastItem(outer.get(), nest.get()), 1u);
        nest = std::move(outer);
    }
}

TEST(Serial, TheSizeNeedNotBeAskedFor)
{
    Ref object = NewObject(MAGIC, "i;");
    const std::string form = Serialised(object.get());
    std::string again(form.size(), '\xAA');
    EXPECT_EQ(ObjSerializeToMemory(object.get(), again.data(), nullptr), 1u);
    EXPECT_EQ(again, form);
}

TEST(Serial, NullsMapsAndLostTemplatesCannotBeWritten)
{
    char dest[64];
    memset(dest, 0x77, sizeof dest);
    auto untouched = [&] {
        return std::string(dest, sizeof dest) == std::string(sizeof dest, 0x77);
    };
    uint32_t size = 0xFFFFFFFFu;
    EXPECT_EQ(ObjSerializedSize(nullptr), 0u);
    EXPECT_EQ(ObjSerializeToMemory(nullptr, dest, &size), 0u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(ObjSerializeToMemory(nullptr, dest, nullptr), 0u);

    auto compare = [](const void*, const void*) -> int32_t { return 0; };
    Ref object = NewObject(MAGIC, "i;o;");
    Item<int32_t>(object.get(), 0) = 1;
    ASSERT_EQ(ObjMapCreateInternal(&Item<void*>(object.get(), 1), 0, 64, compare, compare, 0), 1u);
    for (void* handle : {object.get(), Item<void*>(object.get(), 1)}) {
        size = 0xFFFFFFFFu;
        EXPECT_EQ(ObjSerializedSize(handle), 0u);
        EXPECT_EQ(ObjSerializeToMemory(handle, dest, &size), 0u);
        EXPECT_EQ(size, 0u);
    }
    size = 5;
    EXPECT_EQ(ObjSerializeToMemory(object.get(), nullptr, &size), 0u);
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(untouched());
}

TEST(Serial, ADataItemWithoutBytesIsWrittenEmpty)
{
    Ref object = NewObject(MAGIC, "d;");
    Item<ObjData>(object.get(), 0).size = 100; // and a null pointer
    EXPECT_EQ(Serialised(object.get()), Seal(New(MAGIC, "d;") + Byte(0)));
}

// ---- templates ----------------------------------------------------------------------------------

TEST(Serial, ATemplateUnknownSoFarIsRegistered)
{
    std::string form = Seal(New(MAGIC + 1, "i;n7;") + U32(5) + "1234567");
    Ref one = Reconstructed(form);
    Ref two = Reconstructed(form);
    ASSERT_NE(one.get(), nullptr);
    EXPECT_EQ(OBJ_HEADER(one.get())->tmpl, OBJ_HEADER(two.get())->tmpl);
    EXPECT_EQ(OBJ_HEADER(one.get())->tmpl, TemplateOf(MAGIC + 1, "i;n7;"));
    EXPECT_EQ(ObjLiveCount(MAGIC + 1), 2u);
}

TEST(Serial, ATemplateNamedTwiceInOneFormIsOneTemplate)
{
    std::string form = Seal(
        New(MAGIC + 2, "o;o;") + New(MAGIC + 2, "i;") + U32(1) + New(MAGIC + 2, "i;") + U32(2));
    Ref back = Reconstructed(form);
    ASSERT_NE(back.get(), nullptr);
    void* first = Item<void*>(back.get(), 0);
    void* second = Item<void*>(back.get(), 1);
    EXPECT_EQ(OBJ_HEADER(first)->tmpl, OBJ_HEADER(second)->tmpl);
    EXPECT_EQ(OBJ_HEADER(first)->tmpl, TemplateOf(MAGIC + 2, "i;"));
    EXPECT_EQ(Item<int32_t>(second, 0), 2);
    EXPECT_EQ(ObjLiveCount(MAGIC + 2), 3u);
    back = Ref();
    EXPECT_EQ(ObjLiveCount(MAGIC + 2), 0u);
}

TEST(Serial, AFailedReconstructionRegistersNothing)
{
    std::string value = New(MAGIC + 3, "i;o;") + U32(1) + New(MAGIC + 3, "i;i;") + U32(1);
    EXPECT_EQ(Reconstructed(Seal(value)).get(), nullptr); // four bytes short
    for (const char* format : {"i;o;", "i;i;"}) {
        FaultResetCalls();
        TemplateOf(MAGIC + 3, format);
        EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 1u) << "made only now";
        FaultStopCalls();
    }
}

TEST(Serial, ARebuiltObjectUsesTheFirstRegisteredTemplateWithItsTailAndDestructor)
{
    static int32_t died;
    died = 0;
    ObjTemplate* tmpl = TemplateOf(
        MAGIC + 4, "i;", [](void* object) { died = *static_cast<int32_t*>(object); }, 64);
    TemplateOf(MAGIC + 4, "i;");
    Ref back = Reconstructed(Seal(New(MAGIC + 4, "i;") + U32(77)));
    ASSERT_NE(back.get(), nullptr);
    EXPECT_EQ(OBJ_HEADER(back.get())->tmpl, tmpl);
    std::string tail(static_cast<char*>(back.get()) + 8, 56);
    EXPECT_EQ(tail, std::string(56, 0));
    back = Ref();
    EXPECT_EQ(died, 77);
}

TEST(Serial, ARebuiltObjectsTemplateGivesWayToWhatIsRegisteredLater)
{
    const std::string form = Seal(New(MAGIC + 64, "i;") + U32(77));
    EXPECT_NE(Reconstructed(form).get(), nullptr); // nobody has registered it yet
    ObjTemplate* tmpl = TemplateOf(MAGIC + 64, "i;", nullptr, 64);
    Ref back = Reconstructed(form);
    ASSERT_NE(back.get(), nullptr);
    EXPECT_EQ(OBJ_HEADER(back.get())->tmpl, tmpl);
}

TEST(Serial, ADestructorThatExpectsAPointerIsNeverRunOnNothing)
{
    static bool ran;
    ran = false;
    TemplateOf(MAGIC + 5, "p;i;", [](void*) { ran = true; });
    EXPECT_EQ(Reconstructed(Seal(New(MAGIC + 5, "p;i;") + U32(1))).get(), nullptr);
    // Nor as a part of something else.
    EXPECT_EQ(
        Reconstructed(Seal(New(MAGIC, "o;") + New(MAGIC + 5, "p;i;") + U32(1))).get(), nullptr);
    EXPECT_FALSE(ran);
    TemplateOf(MAGIC + 6, "p;i;"); // without a destructor it is harmless
    EXPECT_NE(Reconstructed(Seal(New(MAGIC + 6, "p;i;") + U32(1))).get(), nullptr);
}

TEST(Serial, NoDestructorRunsOnAGraphThatFailed)
{
    static int died;
    died = 0;
    TemplateOf(MAGIC + 7, "i;o;", [](void*) { ++died; });
    std::string value = New(MAGIC + 7, "i;o;") + U32(1) + Byte(2) + Byte(0) + U32(2) + Byte(9);
    Alive before;
    EXPECT_EQ(Reconstructed(Seal(value)).get(), nullptr);
    EXPECT_EQ(died, 0);
    EXPECT_EQ(Alive(), before);
}
