// serial_scene.h: serialised forms written by hand, and graphs of objects to serialise.
#pragma once

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "crc32.h"
#include "nim/list.h"
#include "support/file_bytes.h"
#include "support/object_graph.h"

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

inline uint32_t BitwiseCrc(const std::string& bytes)
{
    uint32_t crc = ~0u;
    for (char c : bytes) {
        crc ^= static_cast<uint8_t>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 1 ? crc >> 1 ^ 0xEDB88320u : crc >> 1;
    }
    return ~crc;
}

inline std::string U32(uint32_t value)
{
    std::string bytes(4, 0);
    PutU32At(bytes, 0, value);
    return bytes;
}

inline std::string Byte(int value)
{
    return std::string(1, static_cast<char>(value));
}

inline std::string Leb(uint32_t value)
{
    std::string bytes;
    for (; value >= 0x80; value >>= 7)
        bytes += Byte(static_cast<int>(value & 0x7f) | 0x80);
    return bytes + Byte(static_cast<int>(value));
}

inline std::string Text(const std::string& text)
{
    return Leb(static_cast<uint32_t>(text.size()) + 1) + text;
}

inline std::string New(uint32_t magic, const std::string& format)
{
    return Byte(3) + U32(magic) + Text(format);
}

// Puts the envelope ahead of a value.
inline std::string Seal(const std::string& value)
{
    return "NIMO" + std::string("\1\0\0\0", 4) + U32(static_cast<uint32_t>(value.size()) + 16) +
           U32(BitwiseCrc(value)) + value;
}

// Makes the checksum of damaged bytes right, so that the checks behind it are reached. With the
// library's own routine, for speed: a test below proves it against the plain one.
inline std::string Resealed(std::string form)
{
    PutU32At(form, 12, crc32::Of(form.data() + 16, form.size() - 16));
    return form;
}

inline std::string Serialised(const void* object)
{
    std::string bytes(ObjSerializedSize(object), '\xAA');
    uint32_t size = 0xFFFFFFFFu;
    EXPECT_EQ(ObjSerializeToMemory(object, bytes.data(), &size), bytes.empty() ? 0u : 1u);
    EXPECT_EQ(size, bytes.size());
    return bytes;
}

// From a piece of exactly this size, so that a read past its end is seen by the sanitizer.
inline Ref Reconstructed(const std::string& form)
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
inline void Dissolve(Ref root)
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

inline void* NewField(Table* table, const std::string& name, const int32_t (&numbers)[11])
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

inline Table*
NewTable(const std::string& name, const std::string& format, const std::string& fields)
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
inline Ref People()
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
inline Ref WideTable(uint32_t count, uint32_t nameLength, const std::string& flags)
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

inline std::string GoldenTable()
{
    return ReadFileBytes(std::string(NIM_GOLDEN_DIR) + "/serialised_table.bin");
}
