// node.h: one block as a node: reading its words, and changing it.
//
// The inline readers make no check: IndxReadNode and IndxGetNode have made sure that the count is
// in range and the heap clear of the entries, and whoever follows a value or a link checks that one
// word. Whatever changes a node here declares the bytes first (BlckWillChange): none of it is
// written otherwise, and a node that was read in place cannot be changed at all.
#pragma once

#include "database/block.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/shapes.h"
#include "database/index/tree/key.h"
#include "nim/bytes.h"

// ---- reading words ------------------------------------------------------------------------------

inline uint32_t NodeWord(const uint8_t* pNode, uint32_t offset)
{
    return GetU32(pNode + offset);
}
inline uint32_t NodeParent(const uint8_t* pNode)
{
    return NodeWord(pNode, INDX_NODE_PARENT);
}
inline bool NodeIsLeaf(const uint8_t* pNode)
{
    return NodeWord(pNode, INDX_NODE_LEAF) != 0;
}
inline bool NodeHasHeap(const uint8_t* pNode)
{
    return NodeWord(pNode, INDX_NODE_HEAP) != 0;
}
inline int32_t NodeCount(const uint8_t* pNode)
{
    return static_cast<int32_t>(NodeWord(pNode, INDX_NODE_COUNT));
}
inline uint32_t NodeId(const uint8_t* pNode)
{
    return static_cast<uint32_t>(BlckId(pNode));
}

// Whether the node is the root of the cursor's index, as the index says: a parent word is only a
// word from the file, and a lower node that has lost its own must not pass for the root.
inline bool IsRoot(const IndxCursor* pCursor, const uint8_t* pNode)
{
    return NodeId(pNode) == pCursor->oField->roots.tRoot;
}

// Address of entry `position` (0-based).
inline uint8_t* NodeEntry(uint8_t* pNode, int32_t position)
{
    return pNode + INDX_NODE_HEADER + size_t{INDX_ENTRY_SIZE} * static_cast<uint32_t>(position);
}
inline const uint8_t* NodeEntry(const uint8_t* pNode, int32_t position)
{
    return pNode + INDX_NODE_HEADER + size_t{INDX_ENTRY_SIZE} * static_cast<uint32_t>(position);
}
inline uint32_t EntryId(const uint8_t* pEntry)
{
    return GetU32(pEntry + INDX_ENTRY_ID);
}
inline uint32_t EntryLength(const uint8_t* pEntry)
{
    return GetU32(pEntry + INDX_ENTRY_LENGTH);
}
inline uint32_t EntryHeapOffset(const uint8_t* pEntry)
{
    return GetU32(pEntry + INDX_ENTRY_HEAP_OFFSET);
}
inline uint32_t EntryPointer(const uint8_t* pEntry)
{
    return GetU32(pEntry + INDX_ENTRY_POINTER);
}

// Heap offset of the entry before `position`; 0 for position 0 and without a heap.
uint32_t IndxHeapBefore(const uint8_t* pNode, int32_t position);
// Bytes between the last entry and the heap.
uint32_t IndxFreeSpace(const uint8_t* pNode);
bool IndxHasRoom(const uint8_t* pNode, uint32_t keyLength);
// Position of the entry of a branch that points to tChild; -1 when there is none.
int32_t IndxFindChild(const uint8_t* pNode, uint32_t tChild);
// Child of entry `position`, negative counting as 0; INDX_NO_NODE for a node without entries.
uint32_t IndxChildAt(const uint8_t* pNode, int32_t position);
// A heap value, checked to lie in the node's heap.
bool IndxHeapValue(
    const uint8_t** ppBytes, uint32_t* pLength, const uint8_t* pNode, int32_t position);
// The value of an entry as an object; a key of record ids has none. False: damaged, no memory.
[[nodiscard]] bool
IndxGetEntryValue(void** ppValue, int32_t keyType, const uint8_t* pNode, int32_t position);
// The lowest key of a node, with the node as its child. False: damaged (reported), no memory.
[[nodiscard]] bool
IndxGetKeyInfoFromNode(IndxKeyInfo** ppKey, IndxCursor* pCursor, const uint8_t* pNode);

// ---- getting nodes ------------------------------------------------------------------------------

// A node to be read only, in place where the file is mapped: good until the next call that touches
// the file. Checked to be a node of the cursor's index (count in range, flags as the index wants
// them, heap clear of the entries); null when the block cannot be had or is none. *pInMemory tells
// whether it is in memory.
const uint8_t* IndxReadNode(bool* pInMemory, IndxCursor* pCursor, uint32_t tId);
// The same node brought into memory to be changed; null: no memory.
uint8_t* IndxNodeToChange(IndxCursor* pCursor, uint32_t tId, const uint8_t* pNode, bool bInMemory);
// Both in one: *ppNode = a node to be changed, or null.
void IndxGetNode(uint8_t** ppNode, IndxCursor* pCursor, uint32_t tId);
// Ends the use of a node. It stays in memory until the operation ends, and what was declared of it
// is written then; bModified says that the node is whole again, which is asserted.
void IndxReleaseNode(uint8_t** ppNode, IndxCursor* pCursor, bool bModified);
void IndxReleaseNode(const uint8_t** ppNode, IndxCursor* pCursor);
// A fresh node, all of it declared; its id, or -1 with *ppNode untouched: callers start from null.
int32_t IndxNewNode(uint8_t** ppNode, IndxCursor* pCursor);
void IndxDiscardNode(uint8_t** ppNode, IndxCursor* pCursor);

// ---- changing nodes -----------------------------------------------------------------------------
//
// False everywhere: bytes that are to change cannot be had, the entries contradict each other, or a
// child cannot be had; the node may be half changed, and the operation has to be backed out.

[[nodiscard]] bool IndxSetNodeWord(uint8_t* pNode, uint32_t offset, uint32_t value);
[[nodiscard]] inline bool IndxSetNodeCount(uint8_t* pNode, int32_t count)
{
    return IndxSetNodeWord(pNode, INDX_NODE_COUNT, static_cast<uint32_t>(count));
}
// Makes an entry lead elsewhere: in a leaf to another offset of the records file.
[[nodiscard]] bool IndxSetEntryPointer(uint8_t* pNode, int32_t position, uint32_t pointer);
// Moves `count` entries with their heap values; in another branch node also their children's
// parents. The counts of the nodes stay.
[[nodiscard]] bool IndxMoveEntries(
    IndxCursor* pCursor, uint8_t* pDest, int32_t destPosition, uint8_t* pSource,
    int32_t sourcePosition, int32_t count, int32_t lOffsetCorrection);
// Writes entry `position` (the count stays) and, in a branch, the child's parent.
[[nodiscard]] bool
IndxPutKeyIntoNode(IndxCursor* pCursor, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);
// Takes entry `position` out and closes the gap.
[[nodiscard]] bool IndxRemoveEntry(IndxCursor* pCursor, uint8_t* pNode, int32_t position);
