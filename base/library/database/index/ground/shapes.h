// shapes.h: databases, tables, fields, cursors and keys in memory: structs laid over the bodies of
// the base services' objects, the codes that stand in them, and the templates' magics.
#pragma once

#include <cstddef>
#include <cstdint>

#include "nim/nim.h"

constexpr uint32_t INDX_DATABASE_MAGIC = 0xca8ab2cb;
constexpr uint32_t INDX_TABLE_MAGIC = 0xca8ab522;
constexpr uint32_t INDX_FIELD_MAGIC = 0xca8ec4a2;
constexpr uint32_t INDX_CURSOR_MAGIC = 0xca8c918d;
constexpr uint32_t INDX_KEY_INFO_MAGIC = 0xca8c92e0;

constexpr uint32_t INDX_NO_NODE = 0xFFFFFFFF;

// Database, template "s;sl;sl;sl;sl;ol;".
struct IndxDatabase {
    char* name;
    char* indexesPath;
    char* recordsPath;
    char* filesPath;
    char* attributesPath;
    void* oTables; // list of tables, in the order in which they were loaded or created
};
static_assert(sizeof(IndxDatabase) == 48);

// Table, template "s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;".
struct IndxTable {
    char* name;
    void* hRecords;
    void* oBlck;
    IndxDatabase* oDatabase; // a reference
    char* format;
    char* fields;
    uint32_t recordMagic;
    uint32_t highestId;
    uint32_t fixedSize; // of a record
    uint32_t idOffset;  // of the slot of the field "Id"
    ObjData indexedFlags;
    uint32_t bTextIndex; // an indexed field has a text kind
    uint32_t bChanged;   // the description must be stored by the next IndxUpdateTable
    uint32_t bCompanionFiles;
    uint32_t padding;
    void* oFields; // list of fields; field and table hold each other
    // Behind the template's items, and so not stored: see store.cpp.
    uint32_t idPlace;        // where the stored description has the highest id; 0: not known
    uint32_t bOnlyIdChanged; // and nothing else, since the description was stored
};
constexpr uint32_t INDX_TABLE_STORED = offsetof(IndxTable, idPlace);
static_assert(offsetof(IndxTable, format) == 32 && offsetof(IndxTable, recordMagic) == 48);
static_assert(offsetof(IndxTable, indexedFlags) == 64 && offsetof(IndxTable, bTextIndex) == 80);
static_assert(offsetof(IndxTable, oFields) == 96 && INDX_TABLE_STORED == 104);
static_assert(sizeof(IndxTable) == 112);

// Where the tree of an index hangs.
struct IndxRoots {
    uint32_t tRoot; // INDX_NO_NODE while the index is empty
    uint32_t tFirstLeaf;
    uint32_t tLastLeaf;
};

// Field, template "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;". Behind the template's items the object carries
// the committed roots: what root, first leaf, last leaf and levels were when the table's blocks
// were last released. A back-out drops the nodes of a failed operation and has to put these back
// with them, or the next operation would follow a root that was never written.
struct IndxField {
    char* name;
    int32_t type;
    int32_t recordOffset; // of the field's slot in the fixed part of a record
    uint32_t bIndexed;
    uint32_t bUnique;
    uint32_t bCaseSensitive;
    uint32_t maximumKey; // longest key in bytes
    IndxRoots roots;
    int32_t keyType;
    int32_t levels; // 1 when the root is a leaf, 0 when the index is empty
    uint32_t padding;
    IndxTable* oTable; // a reference
    void* oCursors;    // list of open cursors; null for a field that is not indexed
    IndxRoots committedRoots;
    int32_t committedLevels;
};
static_assert(offsetof(IndxField, bIndexed) == 16 && offsetof(IndxField, roots) == 32);
static_assert(offsetof(IndxField, keyType) == 44 && offsetof(IndxField, levels) == 48);
static_assert(offsetof(IndxField, oTable) == 56 && offsetof(IndxField, oCursors) == 64);
static_assert(offsetof(IndxField, committedRoots) == 72 && sizeof(IndxField) == 88);

// Key info: one key on its way between the rooms, template "i;i;o;i;i;".
struct IndxKeyInfo {
    int32_t keyType;
    uint32_t recordId;   // 0 in a search key: any record
    void* oValue;        // integer, 64-bit integer or data field; null for keys of record ids
    uint32_t fileOffset; // of the record; for leaf entries
    uint32_t tChild;     // for branch entries
    // Behind the template's items: the bytes of the value where they lie in a record or in a host's
    // object that outlives the key; then oValue is null. Only keys on the stack borrow: see key.h.
    const void* pBorrowed;
    uint32_t borrowedSize;
    uint32_t padding;
};
static_assert(offsetof(IndxKeyInfo, oValue) == 8 && offsetof(IndxKeyInfo, pBorrowed) == 24);

// Cursor, template "i;i;i;i;o;o;".
struct IndxCursor {
    int32_t status;
    int32_t result;
    uint32_t tNode;
    int32_t position;
    IndxKeyInfo* oKey; // saved key, a reference
    IndxField* oField; // a reference
    // Behind the template's items: whether the last find or move met a node it could not use, so
    // that a walk can tell the end of an index from damage.
    uint32_t bFailed;
    uint32_t padding;
};
static_assert(offsetof(IndxCursor, oKey) == 16 && offsetof(IndxCursor, bFailed) == 32);
static_assert(sizeof(IndxCursor) == 40);

// Key types. Bit 0x1000 marks keys whose values lie in the node's heap.
enum IndxKeyType : int32_t {
    INDX_KEY_RECORD_ID = 0,
    INDX_KEY_INTEGER = 3,
    INDX_KEY_INT64 = 4,
    INDX_KEY_FORBIDDEN = 4095, // a field that must never be keyed
    INDX_KEY_TEXT = 4097,
    INDX_KEY_TEXT_NO_CASE = 4098,
    INDX_KEY_UNIQUE_ID = 4101,
    INDX_KEY_HEAP_BIT = 0x1000
};
constexpr uint32_t INDX_UNIQUE_ID_SIZE = 32;

// Status of a cursor.
enum IndxCursorStatus : int32_t {
    INDX_AT_BEGINNING = 1,
    INDX_AT_END = 2,
    INDX_ON_KEY = 3,
    INDX_UNTRUSTED = 4 // on a key before the index changed: finds its place again when moved
};

template <class T>
T* IndxAs(void* object, uint32_t magic)
{
    return ObjGetMagic(object) == magic ? static_cast<T*>(object) : nullptr;
}
// The handle as what it should be, or null: no object, or an object of another type.
inline IndxDatabase* IndxAsDatabase(void* h)
{
    return IndxAs<IndxDatabase>(h, INDX_DATABASE_MAGIC);
}
inline IndxTable* IndxAsTable(void* h)
{
    return IndxAs<IndxTable>(h, INDX_TABLE_MAGIC);
}
inline IndxField* IndxAsField(void* h)
{
    return IndxAs<IndxField>(h, INDX_FIELD_MAGIC);
}
inline IndxCursor* IndxAsCursor(void* h)
{
    return IndxAs<IndxCursor>(h, INDX_CURSOR_MAGIC);
}
inline IndxKeyInfo* IndxAsKeyInfo(void* h)
{
    return IndxAs<IndxKeyInfo>(h, INDX_KEY_INFO_MAGIC);
}

// The description of the table has changed, and is stored when its operation ends.
inline void IndxSetTableModified(IndxTable* pTable)
{
    pTable->bChanged = TRUE;
    pTable->bOnlyIdChanged = FALSE;
}
// The same where nothing but the highest id has changed by this call.
inline void IndxSetHighestIdModified(IndxTable* pTable)
{
    if (!pTable->bChanged)
        pTable->bOnlyIdChanged = TRUE;
    pTable->bChanged = TRUE;
}
