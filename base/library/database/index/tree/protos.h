// protos.h: what the rooms of the tree show each other.
#pragma once

#include "database/dbrecord.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"

// ---- node ----
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

// ---- key ----
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

// ---- search ----
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

// ---- cursor ----
void IndxInvalidateCursors(IndxCursor* pCursor);
// The neighbour of a leaf (`link` is INDX_NODE_NEXT or INDX_NODE_PREVIOUS), checked to be a leaf
// with entries that links back; null with last error 13 and a failure trace when it is not.
const uint8_t* IndxReadNeighbour(IndxCursor* pCursor, uint32_t tFrom, uint32_t tTo, uint32_t link);
// ---- insert, delete, repoint ----
NimBool IndxInsertKey(IndxCursor* pCursor, uint32_t fileOffset, const ObjData* pRecord);
NimBool IndxDeleteKey(IndxCursor* pCursor, const ObjData* pRecord);
NimBool IndxDeleteKeyFromNode(IndxCursor* pCursor, uint32_t tNode, int32_t position);

// Makes the key that an old and a new record have in common lead to the new record's offset, where
// that comes to the same as taking it out and entering it again. False: it does not, or something
// stands in the way; nothing was changed, and the long way has to be gone.
bool IndxRepointKey(
    IndxCursor* pCursor, const ObjData* pOld, const ObjData* pNew, uint32_t newOffset);
