// node.h: reading and writing the words of a node, for the rooms of the tree. No check is made
// here: IndxGetNode has made sure that the count is in range and the heap clear of the entries,
// and whoever follows a value or a link checks that one word.
#pragma once

#include "database/block.h"
#include "database/index/tree/protos.h"
#include "nim/bytes.h"

inline uint32_t NodeWord(const uint8_t* pNode, uint32_t offset)
{
    return GetU32(pNode + offset);
}
inline void SetNodeWord(uint8_t* pNode, uint32_t offset, uint32_t value)
{
    PutU32(pNode + offset, value);
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
inline void SetNodeCount(uint8_t* pNode, int32_t count)
{
    SetNodeWord(pNode, INDX_NODE_COUNT, static_cast<uint32_t>(count));
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

// Whether a leaf without a neighbour behind `link` is the end of the level that the index knows.
inline bool IsEndLeaf(const IndxCursor* pCursor, uint32_t tLeaf, uint32_t link)
{
    const IndxRoots& roots = pCursor->oField->roots;
    return tLeaf == (link == INDX_NODE_NEXT ? roots.tLastLeaf : roots.tFirstLeaf);
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
