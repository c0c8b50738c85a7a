// indexinternal.h: what the rooms of the index module share. Four sections: layout on disk, shapes
// in memory, limits and codes, prototypes grouped by room.
#pragma once

#include <cstddef>
#include <cstdint>

#include "database/dbrecord.h"
#include "database/index.h"
#include "nim/nim.h"

// =============================================================================================
// 1. Layout on disk
// =============================================================================================
//
// A node is one block of 16384 bytes:
//
//   offset        size    field
//   0             4       parent node id, 0xFFFFFFFF for the root
//   4             4       next node of the same level, 0xFFFFFFFF at the end
//   8             4       previous node of the same level, 0xFFFFFFFF at the start
//   12            4       leaf flag: 1 leaf, 0 branch
//   16            4       heap flag: 1 when the values lie in the heap
//   20            4       entry count, signed
//   24            8       in memory the address of the node's end; means nothing on disk
//   32            24 x n  the entries, in key order
//   ...                   free space
//   16384 - used  used    the heap: entry 0's value ends at the node's end, each later entry's
//                         value lies directly below its predecessor's
//
// An entry is 24 bytes:
//
//   0             4       record id
//   4             4       not used, carried along
//   8             4       32-bit value, low half of the 64-bit value, or length of the heap value
//   12            4       high half of the 64-bit value, or heap offset of the value
//   16            4       leaf: offset of the record in the records file; branch: child node id
//   20            4       not used, carried along
//
// The heap offset of an entry is the sum of the lengths of the entries up to and including it, so
// its value starts at (end - heap offset). Worked example: "ab\0" as entry 0 and "cde\0" as entry 1
// have heap offsets 3 and 7 and lie at end - 3 and end - 7.

constexpr uint32_t INDX_NODE_SIZE = 16384;

constexpr uint32_t INDX_NODE_PARENT = 0;
constexpr uint32_t INDX_NODE_NEXT = INDX_NODE_PARENT + 4;
constexpr uint32_t INDX_NODE_PREVIOUS = INDX_NODE_NEXT + 4;
constexpr uint32_t INDX_NODE_LEAF = INDX_NODE_PREVIOUS + 4;
constexpr uint32_t INDX_NODE_HEAP = INDX_NODE_LEAF + 4;
constexpr uint32_t INDX_NODE_COUNT = INDX_NODE_HEAP + 4;
constexpr uint32_t INDX_NODE_END = INDX_NODE_COUNT + 4;
constexpr uint32_t INDX_NODE_HEADER = INDX_NODE_END + 8;
static_assert(INDX_NODE_LEAF == 12 && INDX_NODE_COUNT == 20 && INDX_NODE_END == 24);
static_assert(INDX_NODE_HEADER == 32);

constexpr uint32_t INDX_ENTRY_ID = 0;
constexpr uint32_t INDX_ENTRY_VALUE = INDX_ENTRY_ID + 8;
constexpr uint32_t INDX_ENTRY_LENGTH = INDX_ENTRY_VALUE;
constexpr uint32_t INDX_ENTRY_HEAP_OFFSET = INDX_ENTRY_LENGTH + 4;
constexpr uint32_t INDX_ENTRY_POINTER = INDX_ENTRY_VALUE + 8;
constexpr uint32_t INDX_ENTRY_SIZE = INDX_ENTRY_POINTER + 8;
static_assert(INDX_ENTRY_VALUE == 8 && INDX_ENTRY_HEAP_OFFSET == 12 && INDX_ENTRY_POINTER == 16);
static_assert(INDX_ENTRY_SIZE == 24);

constexpr uint32_t INDX_NODE_ROOM = INDX_NODE_SIZE - INDX_NODE_HEADER; // 16352: entries and heap
constexpr int32_t INDX_NODE_MAX_ENTRIES = INDX_NODE_ROOM / INDX_ENTRY_SIZE; // 681
static_assert(INDX_NODE_ROOM == 16352 && INDX_NODE_MAX_ENTRIES == 681);

// A record in the records file: its total length, the rest of its header, its other fixed slots,
// its variable data. The id lies in the slot of the field "Id".
constexpr uint32_t INDX_RECORD_LENGTH = 0;
constexpr uint32_t INDX_RECORD_HEADER = 16;
constexpr uint32_t INDX_RECORDS_END = 0x7FFFFFFF; // no record starts or ends beyond this offset

// =============================================================================================
// 2. Shapes in memory: structs laid over the bodies of the base services' objects
// =============================================================================================

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
    // Not stored: see store.cpp.
    uint16_t idPlace;        // where the stored description has the highest id; 0: not known
    uint16_t bOnlyIdChanged; // and nothing else, since the description was stored
    void* oFields;           // list of fields; field and table hold each other
};
static_assert(offsetof(IndxTable, format) == 32 && offsetof(IndxTable, recordMagic) == 48);
static_assert(offsetof(IndxTable, indexedFlags) == 64 && offsetof(IndxTable, bTextIndex) == 80);
static_assert(offsetof(IndxTable, oFields) == 96 && sizeof(IndxTable) == 104);

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

// =============================================================================================
// 3. Limits and codes
// =============================================================================================

constexpr uint32_t INDX_DATABASE_MAGIC = 0xca8ab2cb;
constexpr uint32_t INDX_TABLE_MAGIC = 0xca8ab522;
constexpr uint32_t INDX_FIELD_MAGIC = 0xca8ec4a2;
constexpr uint32_t INDX_CURSOR_MAGIC = 0xca8c918d;
constexpr uint32_t INDX_KEY_INFO_MAGIC = 0xca8c92e0;

constexpr uint32_t INDX_NO_NODE = 0xFFFFFFFF;

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

// Field types, as IndxGetFieldTypeByNumber reports them.
enum IndxFieldType : int32_t {
    INDX_FIELD_RECORD_ID = 1,
    INDX_FIELD_INTEGER = 2,
    INDX_FIELD_INT64 = 3,
    INDX_FIELD_TEXT = 4,
    INDX_FIELD_TEXT_NO_CASE = 5,
    INDX_FIELD_POINTER = 6,
    INDX_FIELD_DATA = 7,
    INDX_FIELD_OBJECT = 8,
    INDX_FIELD_UNIQUE_ID = 9,
    INDX_FIELD_BOOLEAN = 10
};

// Status of a cursor.
enum IndxCursorStatus : int32_t {
    INDX_AT_BEGINNING = 1,
    INDX_AT_END = 2,
    INDX_ON_KEY = 3,
    INDX_UNTRUSTED = 4 // on a key before the index changed: finds its place again when moved
};

// Last error, read with IndxError.
enum IndxErrorCode : uint32_t {
    INDX_ERROR_NO_FIELD = 5,
    INDX_ERROR_NOT_INDEXED = 6,
    INDX_ERROR_SEEK = 12,
    INDX_ERROR_READ = 13,
    INDX_ERROR_UPDATE = 14,
    INDX_ERROR_ARGUMENT = 15,
    INDX_ERROR_RECORD_TYPE = 18,
    INDX_ERROR_NO_FORMAT = 19,
    INDX_ERROR_NO_FIELDS = 20,
    INDX_ERROR_NO_FIELD_NAME = 21,
    INDX_ERROR_DUPLICATE_FIELD = 23,
    INDX_ERROR_FIELD_KIND = 24,
    INDX_ERROR_SHAPE = 25,
    INDX_ERROR_HOME = 28,
    INDX_ERROR_SUBDIRECTORY = 29,
    INDX_ERROR_NO_FLAG = 30,
    INDX_ERROR_UNKNOWN_FLAG = 31,
    INDX_ERROR_ID_MISMATCH = 33
};

// Trace levels, and the module's tag: its name and eight blanks.
constexpr int32_t INDX_ALWAYS = -1;
constexpr int32_t INDX_NODE_FAILURE = 0;
constexpr int32_t INDX_OPENED = 3;
constexpr int32_t INDX_DETAIL = 4;
#define INDX_TAG "INDX        "
#define INDX_TRACE(level, ...) NIM_TRACE(INDX_TAG, 0, (level), __VA_ARGS__)
#define INDX_TRACE_ERROR(level, ...) NIM_TRACE(INDX_TAG, 1, (level), __VA_ARGS__)

inline const char* IndxTruth(NimBool b)
{
    return b ? "TRUE" : "FALSE";
}

// =============================================================================================
// 4. Prototypes, by room
// =============================================================================================

// ---- templates: the six templates of the table layer, and the process-wide state ----
struct IndxTemplates {
    ObjTemplate* database;
    ObjTemplate* table;
    ObjTemplate* field;
    ObjTemplate* cursor;
    ObjTemplate* keyInfo;
    ObjTemplate* blob;
};
// Creates the templates on first use. False when there is no memory for them.
bool IndxEnsureTemplates();
extern IndxTemplates gIndxTemplates;
uint32_t IndxPool();
void IndxSetError(uint32_t code);
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

// ---- tree: node ----
// *ppNode = the node, checked to be one (count in range, flags as the index wants them, heap clear
// of the entries), or null: the block cannot be had or is no sound node of this index.
void IndxGetNode(uint8_t** ppNode, IndxCursor* pCursor, uint32_t tId);
// The same to be read only, in place where the file is mapped: good until the next call that
// touches the file. *pInMemory (null allowed) tells whether the node is in memory. IndxEndReading
// gives a node up; null is allowed.
const uint8_t* IndxReadNode(bool* pInMemory, IndxCursor* pCursor, uint32_t tId);
// The same on the way to a change: a leaf comes into memory before it is searched. Brought over in
// one go it costs less than line by line in the order of a search, and it is needed whole anyway.
const uint8_t* IndxReadNodeToChange(bool* pInMemory, IndxCursor* pCursor, uint32_t tId);
// The node that IndxReadNode gave, brought into memory to be changed; null: it cannot be had.
uint8_t* IndxNodeToChange(IndxCursor* pCursor, uint32_t tId, const uint8_t* pNode, bool bInMemory);
void IndxEndReading(const uint8_t** ppNode, IndxCursor* pCursor);
// A fresh node, marked modified; its id, or -1 with *ppNode untouched: callers start from null.
int32_t IndxNewNode(uint8_t** ppNode, IndxCursor* pCursor);
void IndxReleaseNode(uint8_t** ppNode, IndxCursor* pCursor, NimBool bModified);
// The same for a change of the header, and of the entries from a position on (of the node as it is
// now) with their values: the values of the entries before are not written again.
void IndxReleaseNodeFrom(
    uint8_t** ppNode, IndxCursor* pCursor, NimBool bModified, int32_t position);
void IndxDiscardNode(uint8_t** ppNode, IndxCursor* pCursor);
// The description has changed; the second: in the highest id, and nowhere else by this call.
void IndxSetTableModified(IndxCursor* pCursor);
void IndxSetHighestIdModified(IndxTable* pTable);
NimBool IndxIndexOpen(void** ppBlck, IndxTable* pTable, const char* name);
// Bytes between the last entry and the heap.
uint32_t IndxFreeSpace(const uint8_t* pNode);
// Heap offset of the entry before `position`; 0 for position 0 and without a heap.
uint32_t IndxHeapBefore(const uint8_t* pNode, int32_t position);
bool IndxHasRoom(const uint8_t* pNode, uint32_t keyLength);
// Moves `count` entries with their heap values; in another branch node also their children's
// parents. FALSE when the entries contradict each other or a child cannot be had.
NimBool IndxMoveEntries(
    IndxCursor* pCursor, uint8_t* pDest, int32_t destPosition, uint8_t* pSource,
    int32_t sourcePosition, int32_t count, int32_t lOffsetCorrection);
// Writes entry `position` (the count stays) and, in a branch, the child's parent.
NimBool
IndxPutKeyIntoNode(IndxCursor* pCursor, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);
// Takes entry `position` out and closes the gap.
NimBool IndxRemoveEntry(IndxCursor* pCursor, uint8_t* pNode, int32_t position);
// Position of the entry of a branch that points to tChild; -1 when there is none.
int32_t IndxFindChild(const uint8_t* pNode, uint32_t tChild);

// ---- tree: key ----
NimBool IndxNewKeyInfo(IndxKeyInfo** ppKey, int32_t keyType, uint32_t recordId);
// The key of the cursor's index, taken from an encoded record. The result codes 1, 2, 3 and 5 may
// be left in the cursor.
NimBool IndxGetKeyInfoFromRecord(IndxKeyInfo** ppKey, IndxCursor* pCursor, const ObjData* pRecord);
// The same for a key that borrows its value from the record; *pKey is cleared first.
NimBool IndxBorrowKeyFromRecord(IndxKeyInfo* pKey, IndxCursor* pCursor, const ObjData* pRecord);
// The lowest key of a node, with the node as its child.
NimBool IndxGetKeyInfoFromNode(IndxKeyInfo** ppKey, IndxCursor* pCursor, const uint8_t* pNode);
// The value of an entry as an object; a key of record ids has none. FALSE: damaged, no memory.
NimBool IndxGetEntryValue(void** ppValue, int32_t keyType, const uint8_t* pNode, int32_t position);
// Bytes the key's value takes in the heap: 0 without a heap.
uint32_t IndxKeyLength(const IndxKeyInfo* pKey);
// A heap value, checked to lie in the node's heap.
bool IndxHeapValue(
    const uint8_t** ppBytes, uint32_t* pLength, const uint8_t* pNode, int32_t position);
// Whether two values of a key type (as objects) are equal.
bool IndxSameValue(int32_t keyType, void* oLeft, void* oRight);
bool IndxSameKeyValue(int32_t keyType, const IndxKeyInfo* pLeft, const IndxKeyInfo* pRight);

// Whether two records have a key of this field that is the same byte for byte. False when in doubt.
bool IndxHaveSameKey(const IndxField* pField, const ObjData* pLeft, const ObjData* pRight);

// ---- tree: search ----
constexpr int32_t INDX_POSITION_DAMAGED = INT32_MIN;
// Whether the key stands in the node, and where it stands or belongs. INDX_POSITION_DAMAGED and
// FALSE when an entry that had to be looked at cannot be believed.
NimBool
IndxSearchNode(int32_t* pIndex, IndxCursor* pCursor, const uint8_t* pNode, const IndxKeyInfo* pKey);
// Positions the cursor on the key, or on the first greater one; whether it stands in a leaf
// exactly. *pDamaged (may be null) becomes true when a node could not be had: code 7, at the end.
NimBool IndxFind(IndxCursor* pCursor, const IndxKeyInfo* pKey, bool* pDamaged);
// Puts the cursor into a status, with a copy of the key it stands on. The node is the cursor's, or
// null: it is fetched.
void IndxUpdateCursor(IndxCursor* pCursor, const uint8_t* pNode, int32_t status);
// Child of entry `position`, negative counting as 0; INDX_NO_NODE for a node without entries.
uint32_t IndxChildAt(const uint8_t* pNode, int32_t position);

// ---- tree: cursor ----
void IndxInvalidateCursors(IndxCursor* pCursor);
// The neighbour of a leaf (`link` is INDX_NODE_NEXT or INDX_NODE_PREVIOUS), checked to be a leaf
// with entries that links back; null with last error 13 and a failure trace when it is not.
const uint8_t* IndxReadNeighbour(IndxCursor* pCursor, uint32_t tFrom, uint32_t tTo, uint32_t link);
// A node or entry that cannot be had ended a search or a move: failure trace and last error 13.
void IndxReportDamage(IndxCursor* pCursor, uint32_t tNode);

// ---- tree: insert and delete ----
NimBool IndxInsertKey(IndxCursor* pCursor, uint32_t fileOffset, const ObjData* pRecord);
NimBool IndxDeleteKey(IndxCursor* pCursor, const ObjData* pRecord);
NimBool IndxDeleteKeyFromNode(IndxCursor* pCursor, uint32_t tNode, int32_t position);

// Makes the key that an old and a new record have in common lead to the new record's offset, where
// that comes to the same as taking it out and entering it again. False: it does not, or something
// stands in the way; nothing was changed, and the long way has to be gone.
bool IndxRepointKey(
    IndxCursor* pCursor, const ObjData* pOld, const ObjData* pNew, uint32_t newOffset);

// ---- schema: definition ----
// Fills a new table from its format and fields strings. The error code is left as documented for
// IndxOpenTableInternal. On failure the caller breaks the ring of table and fields
// (IndxUnhookFields).
NimBool
IndxCreateTable(IndxTable* pTable, uint32_t recordMagic, const char* format, const char* fields);
// Makes every field refer to its table, gives indexed fields their cursor lists, and takes the
// committed roots. FALSE: no memory.
NimBool IndxHookFields(IndxTable* pTable);
// Empties the field list and drops the lists of the fields' cursors. A field that a caller's cursor
// still holds keeps the table.
void IndxUnhookFields(IndxTable* pTable);

// ---- schema: open ----
NimBool IndxOpenExistingTable(void** ppTable, void* oDatabase, const char* name, uint32_t version);
NimBool IndxSetTableVersion(const char* name, void* oDatabase, uint32_t version);

// ---- rows: record ----
NimBool IndxAddRecordInternal(uint32_t id, void* oTable, void* pData, NimBool bCreateFile);
// An empty database BLOB of the table's record type; null: no memory.
DbBlob* IndxNewBlob(const IndxTable* pTable);
// Whether these are the bytes of a record of this table: its fixed part at least, with the id in
// it. What the slots say is checked by whoever follows them.
bool IndxIsRecordOf(const IndxTable* pTable, const ObjData* pData);
// Whether a record that claims this length ends inside the records file, as it is known or else as
// the system tells, since another handle may have appended; and not beyond the last offset there
// is. Asked before anything is allocated for it. The file's position is `position`, before and
// after; anywhere when the answer is false.
bool IndxRecordInFile(const IndxTable* pTable, uint32_t offset, uint32_t length, int64_t position);
// Takes the roots of every index as committed; run at the end of every release.
void IndxCommitRoots(IndxTable* pTable);
// BlckBackoutAll on the table's block file, and the roots back to what was committed.
void IndxBackout(IndxTable* pTable);

// ---- rows: partial ----
// The state of a partial read while the fields are walked.
struct IndxPartialRead {
    IndxTable* pTable;
    const uint32_t* pSelected; // moves on by one flag for every field; null: no selection
    uint8_t* pBytes;           // fixed part, then what has been read
    uint32_t size;             // bytes assembled so far
    uint32_t capacity;         // of pBytes
    uint64_t total;            // of variable data, from the sizing pass
};
// The step for one field, for ListWalk over the table's fields.
NimBool IndxReadPartialField(void* pRead, void* oField);
