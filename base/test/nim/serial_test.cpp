// serial_test.cpp: the serialised form - its bytes, what comes back, and what damage does to it.
#include "support/file_bytes.h"
#include "support/object_graph.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "crc32.h"
#include "nim/list.h"
#include "nim/objmap.h"

namespace {

constexpr uint32_t MAGIC = 0xc8000500u;
constexpr uint32_t TABLE_MAGIC = 0xca8ab522u;
constexpr uint32_t FIELD_MAGIC = 0xca8ec4a2u;
constexpr char TABLE_FORMAT[] = "s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;";
constexpr char FIELD_FORMAT[] = "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;";

struct Table {
    char* name;
    void* file;
    void* block;
    void* database;
    char* format;
    char* fieldNames;
    int32_t magic;
    int32_t highest;
    int32_t fixedSize;
    int32_t idOffset;
    ObjData flags;
    int32_t hasText;
    int32_t changed;
    int32_t companion;
    void* fields;
};
static_assert(sizeof(Table) == 104);

struct Field {
    char* name;
    int32_t numbers[11];
    void* table;
    void* cursors;
};
static_assert(sizeof(Field) == 72);

// ---- bytes by hand ------------------------------------------------------------------------------

uint32_t BitwiseCrc(const std::string& bytes)
{
    uint32_t crc = ~0u;
    for (char c : bytes) {
        crc ^= static_cast<uint8_t>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 1 ? crc >> 1 ^ 0xEDB88320u : crc >> 1;
    }
    return ~crc;
}

std::string U32(uint32_t value)
{
    std::string bytes(4, 0);
    PutU32At(bytes, 0, value);
    return bytes;
}

std::string Byte(int value)
{
    return std::string(1, static_cast<char>(value));
}

std::string Leb(uint32_t value)
{
    std::string bytes;
    for (; value >= 0x80; value >>= 7)
        bytes += Byte(static_cast<int>(value & 0x7f) | 0x80);
    return bytes + Byte(static_cast<int>(value));
}

std::string Text(const std::string& text)
{
    return Leb(static_cast<uint32_t>(text.size()) + 1) + text;
}

std::string New(uint32_t magic, const std::string& format)
{
    return Byte(3) + U32(magic) + Text(format);
}

// Puts the envelope ahead of a value.
std::string Seal(const std::string& value)
{
    return "NIMO" + std::string("\1\0\0\0", 4) + U32(static_cast<uint32_t>(value.size()) + 16) +
           U32(BitwiseCrc(value)) + value;
}

// Makes the checksum of damaged bytes right, so that the checks behind it are reached. With the
// library's own routine, for speed: a test below proves it against the plain one.
std::string Resealed(std::string form)
{
    PutU32At(form, 12, crc32::Of(form.data() + 16, form.size() - 16));
    return form;
}

std::string Serialised(const void* object)
{
    std::string bytes(ObjSerializedSize(object), '\xAA');
    uint32_t size = 0xFFFFFFFFu;
    EXPECT_EQ(ObjSerializeToMemory(object, bytes.data(), &size), bytes.empty() ? 0u : 1u);
    EXPECT_EQ(size, bytes.size());
    return bytes;
}

// From a piece of exactly this size, so that a read past its end is seen by the sanitizer.
Ref Reconstructed(const std::string& form)
{
    std::vector<char> exact(form.begin(), form.end());
    Ref object;
    NimBool made = ObjReconstructFromMemorySized(
        object.out(), exact.data(), static_cast<uint32_t>(exact.size()));
    EXPECT_EQ(made, object.get() ? 1u : 0u);
    return object;
}

// ---- graphs -------------------------------------------------------------------------------------

// Takes a graph apart, cycles and all: holds every object, empties what refers to others, lets go.
void Dissolve(Ref root)
{
    std::vector<void*> objects = {root.get()};
    std::set<void*> met = {root.get()};
    auto meet = [&](void* object) {
        if (object && met.insert(object).second)
            objects.push_back(object);
    };
    for (size_t i = 0; i < objects.size(); ++i) {
        ObjIncRefCount(objects[i]);
        const ObjDbData* db = ObjGetDbData(objects[i]);
        for (int32_t f = 0; f < db->fieldCount; ++f) {
            if (db->fields[f].kind == OBJ_KIND_OBJECT)
                meet(Item<void*>(objects[i], f));
        }
        void* item = nullptr;
        for (uint32_t n = 0; ListGetNthItem(&item, objects[i], n); ++n)
            meet(item);
    }
    for (void* object : objects) {
        const ObjDbData* db = ObjGetDbData(object);
        for (int32_t f = 0; f < db->fieldCount; ++f) {
            if (db->fields[f].kind == OBJ_KIND_OBJECT)
                ObjReleaseInternal(&Item<void*>(object, f));
        }
        void* item = nullptr;
        while (ListGetNthItem(&item, object, 0)) {
            ListNode* node = nullptr;
            ListFindNode(&node, object, item);
            ListRemoveItem(node);
        }
    }
    for (void* object : objects)
        ObjReleaseInternal(&object);
}

void* NewField(Table* table, const std::string& name, const int32_t (&numbers)[11])
{
    auto* field = static_cast<Field*>(NewObject(FIELD_MAGIC, FIELD_FORMAT).take());
    field->name = PoolText(name);
    memcpy(field->numbers, numbers, sizeof numbers);
    field->table = ObjIncRefCount(table);
    field->cursors = ListNewFromPool(0, 1);
    void* object = field;
    EXPECT_EQ(ListPushLastItemInternal(table->fields, &object), 1u);
    return field;
}

Table* NewTable(const std::string& name, const std::string& format, const std::string& fields)
{
    auto* table = static_cast<Table*>(NewObject(TABLE_MAGIC, TABLE_FORMAT).take());
    table->name = PoolText(name);
    table->file = reinterpret_cast<void*>(uintptr_t{0x1234});
    table->database = ObjIntegerNew(1);
    table->format = PoolText(format);
    table->fieldNames = PoolText(fields);
    table->fields = ListNewFromPool(FIELD_MAGIC, 1);
    return table;
}

// What the golden file holds.
Ref People()
{
    Table* table = NewTable(
        "People", "i;s;i;q;u;",
        "Id, Name;Indexed;Case Sensitive, Size;Indexed;Unique, Stamp, Key;Indexed");
    table->magic = static_cast<int32_t>(0xc8000001u);
    table->highest = 7;
    table->fixedSize = 60;
    table->idOffset = 4;
    int32_t flags[5] = {1, 1, 1, 0, 1};
    table->flags = PoolData(std::string(reinterpret_cast<char*>(flags), sizeof flags));
    table->hasText = 1;
    table->companion = 1;
    NewField(table, "Id", {1, 4, 1, 0, 0, 8168, 0, 0, 0, 0, 1});
    NewField(table, "Name", {4, 8, 1, 0, 1, 8168, 3, 1, 2, 4097, 2});
    NewField(table, "Size", {2, 16, 1, 1, 0, 8168, -1, -1, -1, 3, 0});
    NewField(table, "Stamp", {3, 20, 0, 0, 0, 8168, -1, -1, -1, 4, 0});
    NewField(table, "Key", {9, 28, 1, 0, 0, 8168, 4, 4, 4, 4101, 1});
    return Ref(table);
}

// A table whose record format is `count` integers, under a name of 14 characters.
Ref WideTable(uint32_t count, uint32_t nameLength, const std::string& flags)
{
    std::string format;
    std::string fields;
    std::vector<std::string> names;
    for (uint32_t i = 0; i < count; ++i) {
        std::string name = std::to_string(1000 + i);
        name.resize(nameLength, 'x');
        names.push_back(name);
        fields += (i ? ", " : "") + name + flags;
        format += "i;";
    }
    Table* table = NewTable("FourteenLetter", format, fields);
    table->flags = PoolData(std::string(4 * count, 0));
    for (const std::string& name : names)
        NewField(table, name, {});
    return Ref(table);
}

std::string GoldenTable()
{
    return ReadFileBytes(std::string(NIM_GOLDEN_DIR) + "/serialised_table.bin");
}

} // namespace

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
    Ref large = NewObject(MAGIC, "q;u;n9;");
    uint32_t zero = ObjSerializedSize(large.get());
    memset(large.get(), 0xFF, 8 + 32 + 9);
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

// ---- refusals -----------------------------------------------------------------------------------

TEST(Serial, TheEnvelopeIsChecked)
{
    std::string good = Seal(New(MAGIC, "i;") + U32(7));
    Ref object = Reconstructed(good);
    ASSERT_NE(object.get(), nullptr);
    object = Ref();
    ASSERT_EQ(ObjReconstructFromMemory(object.out(), good.data()), 1u);
    EXPECT_EQ(Item<int32_t>(object.get(), 0), 7);
    object = Reconstructed(good + "whatever follows it");
    EXPECT_NE(object.get(), nullptr);

    void* out = &good;
    EXPECT_EQ(ObjReconstructFromMemory(&out, nullptr), 0u);
    EXPECT_EQ(out, nullptr);
    out = &good;
    EXPECT_EQ(ObjReconstructFromMemorySized(&out, nullptr, 100), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ObjReconstructFromMemory(nullptr, good.data()), 0u);
    char zeros[16128] = {};
    out = &good;
    EXPECT_EQ(ObjReconstructFromMemory(&out, zeros), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ObjReconstructFromMemorySized(&out, zeros, sizeof zeros), 0u);
    for (uint32_t available = 0; available < good.size(); ++available)
        EXPECT_EQ(Reconstructed(good.substr(0, available)).get(), nullptr) << available;

    auto refused = [&](size_t offset, uint32_t value) {
        std::string bad = good;
        PutU32At(bad, offset, value);
        return Reconstructed(bad).get() == nullptr;
    };
    EXPECT_TRUE(refused(0, 0x4F4D494D));
    EXPECT_TRUE(refused(4, 0));       // version 0
    EXPECT_TRUE(refused(4, 2));       // a later one
    EXPECT_TRUE(refused(4, 0x10001)); // the word behind it
    EXPECT_TRUE(refused(8, 0));
    EXPECT_TRUE(refused(8, 16));
    EXPECT_TRUE(refused(8, 0xFFFFFFFFu));
    EXPECT_TRUE(refused(12, 0));
}

TEST(Serial, WhatIsNoValueIsRefused)
{
    std::string head = New(MAGIC, "o;i;");
    std::string list = New(OBJ_MAGIC_LIST, "");
    struct {
        const char* why;
        std::string value;
    } const cases[] = {
        {"the root is null", Byte(0)},
        {"the root is a reference", Byte(1) + Byte(0)},
        {"the root is of a template not met", Byte(2) + Byte(0) + U32(1)},
        {"no such tag", Byte(4)},
        {"no such tag inside", head + Byte(0xFF) + U32(1)},
        {"a reference to nothing met", head + Byte(1) + Byte(1) + U32(1)},
        {"a template not met", head + Byte(2) + Byte(1) + U32(1)},
        {"bytes behind the value", head + Byte(0) + U32(1) + Byte(0)},
        {"the value ends early", head + Byte(0) + "\1\0\0"},
        {"a number in more bytes than it needs", head + Byte(1) + "\x80" + Byte(0) + U32(1)},
        {"a number above 32 bits", head + Byte(1) + "\xFF\xFF\xFF\xFF\x1F" + U32(1)},
        {"a number that would wrap to one that is met",
         head + Byte(1) + "\x80\x80\x80\x80\x10" + U32(1)},
        {"a number without end", head + Byte(1) + std::string(20, '\xFF')},
        {"a number cut off", head + Byte(1) + "\x80"},
        {"a null format", Byte(3) + U32(MAGIC) + Byte(0)},
        {"an empty format", New(MAGIC, "")},
        {"a format that is none", New(MAGIC, "x;") + U32(1)},
        {"a format with a NUL", New(MAGIC, std::string("i;\0i;", 5)) + U32(1) + U32(1)},
        {"a format cut off", Byte(3) + U32(MAGIC) + Byte(100) + "i;"},
        {"a long format that is none", New(MAGIC, std::string(500, 'i')) + U32(1)},
        {"an object map", New(OBJ_MAGIC_MAP, "")},
        {"an object map of items", New(OBJ_MAGIC_MAP, "i;") + U32(1)},
        {"a list of items", New(OBJ_MAGIC_LIST, "i;") + U32(1)},
        {"a text longer than what is left", New(MAGIC, "s;") + Byte(5) + "abc"},
        {"a text with a NUL", New(MAGIC, "s;") + Byte(4) + std::string("a\0b", 3)},
        {"data longer than what is left", New(MAGIC, "d;") + Byte(4) + "abc"},
        {"an array longer than what is left", New(MAGIC, "n4;") + "abc"},
        {"a huge array", New(MAGIC, "n2147483647;") + "abc"},
        {"a list cut off", list + U32(0) + "\1\0"},
        {"a list of more items than bytes", list + U32(0) + U32(2) + Byte(0)},
        {"a list of a null", list + U32(0) + U32(1) + Byte(0)},
        {"a list of another magic", list + U32(MAGIC) + U32(1) + New(MAGIC + 1, "i;") + U32(1)},
        {"a list of many nothings", list + U32(0) + U32(0xFFFFFFFFu) + std::string(50, 0)},
    };
    for (const auto& one : cases) {
        Alive before;
        EXPECT_EQ(Reconstructed(Seal(one.value)).get(), nullptr) << one.why;
        EXPECT_EQ(Alive(), before) << one.why;
    }
}

TEST(Serial, AHugeArrayIsRefusedBeforeAnythingIsAllocated)
{
    FaultResetCalls();
    EXPECT_EQ(Reconstructed(Seal(New(MAGIC + 8, "n2147483647;i;") + U32(0))).get(), nullptr);
    EXPECT_EQ(Reconstructed(Seal(New(MAGIC + 8, "n2000000000;i;") + U32(0))).get(), nullptr);
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 1u); // one template description; no body
    FaultResetCalls();
    TemplateOf(MAGIC + 8, "n2000000000;q;"); // one that the program vouches for
    EXPECT_EQ(Reconstructed(Seal(New(MAGIC + 8, "n2000000000;q;") + U32(0))).get(), nullptr);
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 1u);
    FaultStopCalls();
}

TEST(Serial, MemoryIsBoundedByTheBytesUnlessTheProgramRegisteredTheTemplate)
{
    // Items that take no bytes: 8,000 a body of 64,000 bytes, two bytes an object.
    std::string format;
    for (int i = 0; i < 8000; ++i)
        format += "p;";
    std::string value = New(OBJ_MAGIC_LIST, "") + U32(0) + U32(4000) + New(MAGIC + 9, format);
    for (int i = 1; i < 4000; ++i)
        value += Byte(2) + Byte(1);
    Alive before;
    EXPECT_EQ(Reconstructed(Seal(value)).get(), nullptr); // 256 MB out of 24 KB
    EXPECT_EQ(Alive(), before);

    // A tail is as long as the program made it.
    TemplateOf(MAGIC + 10, "p;", nullptr, 65536);
    value = New(OBJ_MAGIC_LIST, "") + U32(0) + U32(500) + New(MAGIC + 10, "p;");
    for (int i = 1; i < 500; ++i)
        value += Byte(2) + Byte(1);
    EXPECT_NE(Reconstructed(Seal(value)).get(), nullptr);
}

// ---- faults -------------------------------------------------------------------------------------

TEST(Serial, FaultsFailTheOperationAndNothingElse)
{
    Ref object(ObjIntegerNew(5));
    std::string good = Serialised(object.get());
    std::string dest(good.size(), 0x77);
    FaultRule rule = {FAULT_SERIALIZE, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    uint32_t size = 5;
    EXPECT_EQ(ObjSerializedSize(object.get()), good.size());
    EXPECT_EQ(ObjSerializeToMemory(object.get(), dest.data(), &size), 0u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(dest, std::string(good.size(), 0x77));
    EXPECT_EQ(ObjSerializeToMemory(object.get(), dest.data(), &size), 1u);
    FaultDisarmAll();
    rule.point = FAULT_RECONSTRUCT;
    FaultArm(&rule);
    EXPECT_EQ(Reconstructed(good).get(), nullptr);
    EXPECT_NE(Reconstructed(good).get(), nullptr);
    FaultDisarmAll();
}

TEST(Serial, WritingSurvivesEveryAllocationFailure)
{
    Ref table = WideTable(600, 12, ""); // more objects than find room on the stack
    std::string good = Serialised(table.get());
    for (uint32_t n = 1;; ++n) {
        std::string dest(good.size(), 0x77);
        FaultRule rule = {FAULT_ALLOC, nullptr, n, 1, FAULT_FAIL, 0};
        uint32_t id = FaultArm(&rule);
        uint32_t size = 5;
        NimBool written = ObjSerializeToMemory(table.get(), dest.data(), &size);
        uint32_t hits = FaultHits(id);
        FaultDisarmAll();
        if (hits == 0) {
            EXPECT_EQ(written, 1u);
            EXPECT_EQ(dest, good);
            EXPECT_GT(n, 2u);
            break;
        }
        EXPECT_EQ(written, 0u);
        EXPECT_EQ(size, 0u);
    }
    Dissolve(std::move(table));
}

TEST(Serial, WritingASmallGraphTakesNoMemory)
{
    Ref table = WideTable(150, 12, "");
    std::string form = Serialised(table.get());
    FaultResetCalls();
    EXPECT_EQ(Serialised(table.get()), form);
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 0u);
    FaultStopCalls();
    Dissolve(std::move(table));
}

TEST(Serial, ReadingSurvivesEveryFault)
{
    for (uint32_t point : {FAULT_ALLOC, FAULT_INCREF}) {
        Alive before;
        for (uint32_t n = 1;; ++n) {
            // Templates of its own each time, so that making them are steps that fail, too; more
            // objects than find room on the stack; every one refers back to the list.
            uint32_t magic = MAGIC + 0x1000 * (point + 1) + n;
            std::string body = Text("text") + "\x05" + "bytes" + Byte(1) + Byte(0);
            std::string value =
                New(OBJ_MAGIC_LIST, "") + U32(0) + U32(200) + New(magic, "s;d;o;") + body;
            for (int i = 1; i < 150; ++i)
                value += Byte(2) + Byte(1) + body;
            for (int i = 0; i < 50; ++i)
                value += New(magic, "s;d;o;n" + std::to_string(i + 1)) + body +
                         std::string(static_cast<size_t>(i) + 1, 'x');
            FaultRule rule = {point, nullptr, n, 1, FAULT_FAIL, 0};
            uint32_t id = FaultArm(&rule);
            Ref object = Reconstructed(Seal(value));
            uint32_t hits = FaultHits(id);
            FaultDisarmAll();
            EXPECT_EQ(object.get() == nullptr, hits == 1) << n;
            if (object.get())
                Dissolve(std::move(object));
            ASSERT_EQ(Alive(), before) << n;
            if (hits == 0) {
                EXPECT_GT(n, 200u);
                break;
            }
        }
    }
}

// ---- damage -------------------------------------------------------------------------------------

namespace {

// Reconstructs damaged bytes. Whatever comes of it: no crash, nothing left behind, and what was
// accepted is a graph that can be written and read again.
bool Survives(const std::string& form)
{
    uint32_t pieces = MemLiveCount();
    uint64_t bytes = MemLiveBytes();
    bool accepted = false;
    {
        Ref object = Reconstructed(form);
        accepted = object.get() != nullptr;
        if (accepted) {
            std::string again = Serialised(object.get());
            EXPECT_LE(again.size(), U32At(form, 8));
            Ref twice = Reconstructed(again);
            EXPECT_NE(twice.get(), nullptr);
            if (twice.get()) {
                EXPECT_EQ(Serialised(twice.get()), again);
                Dissolve(std::move(twice));
            }
            Dissolve(std::move(object));
        }
    }
    EXPECT_EQ(MemLiveCount(), pieces);
    EXPECT_EQ(MemLiveBytes(), bytes);
    return accepted;
}

} // namespace

TEST(SerialDamage, EveryFlippedBitIsNoticed)
{
    std::string golden = GoldenTable();
    for (size_t i = 0; i < golden.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string damaged = golden;
            damaged[i] = static_cast<char>(damaged[i] ^ 1 << bit);
            ASSERT_FALSE(Survives(damaged)) << i;
        }
        std::string damaged = golden;
        damaged[i] = static_cast<char>(~damaged[i]);
        ASSERT_FALSE(Survives(damaged)) << i;
    }
}

TEST(SerialDamage, EveryByteInEveryValueBehindAGoodChecksum)
{
    std::string golden = GoldenTable();
    int accepted = 0;
    for (size_t i = 16; i < golden.size(); ++i) {
        for (int value = 0; value < 256; ++value) {
            std::string damaged = golden;
            damaged[i] = static_cast<char>(value);
            accepted += Survives(Resealed(damaged));
            if (HasFailure())
                FAIL() << "byte " << i << " value " << value;
        }
    }
    EXPECT_GT(accepted, 1000); // numbers and letters may be anything
}

TEST(SerialDamage, EveryTruncationIsRefused)
{
    std::string golden = GoldenTable();
    for (size_t length = 0; length < golden.size(); ++length) {
        std::string cut = golden.substr(0, length);
        ASSERT_FALSE(Survives(cut)) << length;
        if (length < 16)
            continue;
        PutU32At(cut, 8, static_cast<uint32_t>(length));
        ASSERT_FALSE(Survives(Resealed(cut))) << length;
    }
}

TEST(SerialDamage, RandomDamageBehindAGoodChecksum)
{
    std::vector<std::string> seeds = {GoldenTable()};
    Ref wide = WideTable(9, 5, ";Indexed");
    seeds.push_back(Serialised(wide.get()));
    Dissolve(std::move(wide));
    const uint32_t seed = 20240607;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto roll = [&](size_t n) { return static_cast<size_t>(random() % n); };
    int accepted = 0;
    for (int round = 0; round < 200000; ++round) {
        std::string form = seeds[roll(seeds.size())];
        for (size_t changes = 1 + roll(4); changes > 0; --changes) {
            size_t at = 16 + roll(form.size() - 16);
            switch (roll(5)) {
            case 0:
                form[at] = static_cast<char>(random());
                break;
            case 1:
                form[at] = static_cast<char>(form[at] ^ 1 << roll(8));
                break;
            case 2: // a byte that means something
                form[at] = "\0\1\2\3\x80\xFF;osdinlpqu"[roll(17)];
                break;
            case 3: // take some out
                form.erase(at, 1 + roll(12));
                break;
            default: // repeat some
                form.insert(at, form.substr(16 + roll(form.size() - 16), 1 + roll(40)));
            }
            if (form.size() < 18)
                form.resize(18);
        }
        PutU32At(form, 8, static_cast<uint32_t>(form.size()));
        accepted += Survives(Resealed(form));
        if (HasFailure())
            FAIL() << "round " << round;
    }
    EXPECT_GT(accepted, 1000);
    EXPECT_LT(accepted, 199000);
}
