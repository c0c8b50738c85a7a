// node.cpp: one block as a node: header, entries, heap. Getting, making, releasing and discarding
// nodes, the room left in them, putting, moving and removing entries.
//
// Invariants of a node: at most 681 entries; every heap offset is the sum of the lengths up to its
// entry; entries and heap do not touch. What can be checked in constant time is checked when a node
// is fetched; what an entry says is checked where it is followed.
//
// The word at offset 24, the address of the node's end in files written long ago, is left as it is:
// the end follows from the node's own address.

#include "database/index/tree/node.h"

#include <cassert>
#include <cstring>

#include "database/block/blockstore.h"
#include "database/index/ground/runtime.h"
#include "nim/scope.h"

namespace {

IndxTable* TableOf(const IndxCursor* pCursor)
{
    return pCursor->oField ? pCursor->oField->oTable : nullptr;
}

void* BlckOf(const IndxCursor* pCursor)
{
    const IndxTable* pTable = TableOf(pCursor);
    return pTable ? pTable->oBlck : nullptr;
}

uint32_t HeapFlag(const IndxCursor* pCursor)
{
    return pCursor->oField->keyType & INDX_KEY_HEAP_BIT ? 1 : 0;
}

// Heap bytes in use: the last entry's heap offset.
uint32_t HeapUsed(const uint8_t* pNode)
{
    return IndxHeapBefore(pNode, NodeCount(pNode));
}

// What can be told about a node at once, whoever wrote its bytes.
bool NodeIsSound(const uint8_t* pNode, uint32_t heapFlag)
{
    const int32_t count = NodeCount(pNode);
    if (count < 0 || count > INDX_NODE_MAX_ENTRIES || NodeWord(pNode, INDX_NODE_LEAF) > 1 ||
        NodeWord(pNode, INDX_NODE_HEAP) != heapFlag)
        return false;
    const uint32_t entries = INDX_ENTRY_SIZE * static_cast<uint32_t>(count);
    return HeapUsed(pNode) <= INDX_NODE_ROOM - entries;
}

// Declares the slots of a run of entries.
bool EntriesWillChange(uint8_t* pNode, int32_t position, int32_t count)
{
    return BlckWillChange(
        pNode, INDX_NODE_HEADER + INDX_ENTRY_SIZE * static_cast<uint32_t>(position),
        INDX_ENTRY_SIZE * static_cast<uint32_t>(count));
}

// Declares `size` bytes of the heap, of which the lowest lies `heapOffset` below the node's end.
bool HeapWillChange(uint8_t* pNode, uint32_t heapOffset, uint32_t size)
{
    return BlckWillChange(pNode, INDX_NODE_SIZE - heapOffset, size);
}

} // namespace

// ---- reading ------------------------------------------------------------------------------------

uint32_t IndxHeapBefore(const uint8_t* pNode, int32_t position)
{
    return NodeHasHeap(pNode) && position > 0 ? EntryHeapOffset(NodeEntry(pNode, position - 1)) : 0;
}

uint32_t IndxFreeSpace(const uint8_t* pNode)
{
    const uint32_t used =
        INDX_ENTRY_SIZE * static_cast<uint32_t>(NodeCount(pNode)) + HeapUsed(pNode);
    assert(used <= INDX_NODE_ROOM);
    return INDX_NODE_ROOM - used;
}

bool IndxHasRoom(const uint8_t* pNode, uint32_t keyLength)
{
    return static_cast<uint64_t>(IndxFreeSpace(pNode)) >=
           static_cast<uint64_t>(keyLength) + INDX_ENTRY_SIZE;
}

int32_t IndxFindChild(const uint8_t* pNode, uint32_t tChild)
{
    const int32_t count = NodeCount(pNode);
    for (int32_t i = 0; i < count; ++i) {
        if (EntryPointer(NodeEntry(pNode, i)) == tChild)
            return i;
    }
    return -1;
}

uint32_t IndxChildAt(const uint8_t* pNode, int32_t position)
{
    const int32_t entry = position < 0 ? 0 : position;
    return entry < NodeCount(pNode) ? EntryPointer(NodeEntry(pNode, entry)) : INDX_NO_NODE;
}

bool IndxHeapValue(
    const uint8_t** ppBytes, uint32_t* pLength, const uint8_t* pNode, int32_t position)
{
    const uint8_t* pEntry = NodeEntry(pNode, position);
    const uint32_t offset = EntryHeapOffset(pEntry);
    const uint32_t length = EntryLength(pEntry);
    if (length > offset || offset > IndxHeapBefore(pNode, NodeCount(pNode)))
        return false;
    *ppBytes = pNode + INDX_NODE_SIZE - offset;
    *pLength = length;
    return true;
}

bool IndxGetEntryValue(void** ppValue, int32_t keyType, const uint8_t* pNode, int32_t position)
{
    *ppValue = nullptr;
    assert(position >= 0 && position < NodeCount(pNode));
    IndxBytes value = {NodeEntry(pNode, position) + INDX_ENTRY_VALUE, 0};
    if (keyType & INDX_KEY_HEAP_BIT && !IndxHeapValue(&value.p, &value.size, pNode, position))
        return false;
    return IndxMakeValue(ppValue, keyType, value);
}

bool IndxGetKeyInfoFromNode(IndxKeyInfo** ppKey, IndxCursor* pCursor, const uint8_t* pNode)
{
    *ppKey = nullptr;
    HeldObject<IndxKeyInfo> key;
    const int32_t keyType = pCursor->oField->keyType;
    const bool bThere = NodeCount(pNode) > 0;
    if (bThere && !IndxNewKeyInfo(key.Out(), keyType, EntryId(NodeEntry(pNode, 0))))
        return false;
    if (!bThere || !IndxGetEntryValue(&key->oValue, keyType, pNode, 0)) {
        IndxReportDamage(pCursor, NodeId(pNode));
        return false;
    }
    key->tChild = NodeId(pNode);
    *ppKey = key.Take();
    return true;
}

// ---- getting ------------------------------------------------------------------------------------

namespace {

// A node to be read; `ppNode` is the caller's variable, for the trace.
const uint8_t* ReadNode(const void* ppNode, bool* pInMemory, IndxCursor* pCursor, uint32_t tId)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxGetNode(%p, %p, %ld)", const_cast<void*>(ppNode),
        static_cast<void*>(pCursor), tId);
    const uint8_t* pNode = BlckReadBlock(pInMemory, BlckOf(pCursor), static_cast<int32_t>(tId));
    if (!pNode || NodeIsSound(pNode, HeapFlag(pCursor)))
        return pNode;
    INDX_TRACE(
        INDX_ALWAYS, "Node %ld of field '%s' of table '%s' is damaged", tId, pCursor->oField->name,
        TableOf(pCursor)->name);
    return nullptr;
}

} // namespace

const uint8_t* IndxReadNode(bool* pInMemory, IndxCursor* pCursor, uint32_t tId)
{
    return ReadNode(pInMemory, pInMemory, pCursor, tId);
}

// The free room stays behind, when it is worth it, but for some entries more: what is added beyond
// them follows when it is declared.
uint8_t* IndxNodeToChange(IndxCursor* pCursor, uint32_t tId, const uint8_t* pNode, bool bInMemory)
{
    constexpr uint32_t MORE = 8;
    constexpr uint32_t WORTH_IT = 4096; // what is written in two parts costs a second call
    if (bInMemory)
        return const_cast<uint8_t*>(pNode); // the block store's own, handed out as such
    const uint32_t entries = static_cast<uint32_t>(NodeCount(pNode)) + MORE;
    uint32_t front = INDX_NODE_HEADER + INDX_ENTRY_SIZE * entries;
    uint32_t back = HeapUsed(pNode);
    if (front + back + WORTH_IT > INDX_NODE_SIZE) {
        front = INDX_NODE_SIZE;
        back = 0;
    }
    return BlckBringIn(BlckOf(pCursor), static_cast<int32_t>(tId), pNode, front, back);
}

void IndxGetNode(uint8_t** ppNode, IndxCursor* pCursor, uint32_t tId)
{
    bool bInMemory = false;
    const uint8_t* pNode = ReadNode(ppNode, &bInMemory, pCursor, tId);
    *ppNode = pNode ? IndxNodeToChange(pCursor, tId, pNode, bInMemory) : nullptr;
}

int32_t IndxNewNode(uint8_t** ppNode, IndxCursor* pCursor)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxNewNode(%p, %p)", static_cast<void*>(ppNode),
        static_cast<void*>(pCursor));
    void* pData = nullptr;
    const int32_t tId = BlckNewUnusedBlock(&pData, BlckOf(pCursor));
    // An id whose block cannot be had (disk full, read failure) is no node.
    if (tId == -1 || !pData)
        return -1;
    auto* pNode = static_cast<uint8_t*>(pData);
    PutU32(pNode + INDX_NODE_PARENT, INDX_NO_NODE);
    PutU32(pNode + INDX_NODE_NEXT, INDX_NO_NODE);
    PutU32(pNode + INDX_NODE_PREVIOUS, INDX_NO_NODE);
    PutU32(pNode + INDX_NODE_HEAP, HeapFlag(pCursor));
    *ppNode = pNode;
    return tId;
}

namespace {

void TraceRelease(const void* ppNode, IndxCursor* pCursor, bool bModified)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxReleaseNode(%p, %p, %s)", const_cast<void*>(ppNode),
        static_cast<void*>(pCursor), IndxTruth(bModified));
}

} // namespace

void IndxReleaseNode(uint8_t** ppNode, IndxCursor* pCursor, bool bModified)
{
    TraceRelease(ppNode, pCursor, bModified);
    assert(!bModified || NodeIsSound(*ppNode, HeapFlag(pCursor)));
    *ppNode = nullptr;
}

void IndxReleaseNode(const uint8_t** ppNode, IndxCursor* pCursor)
{
    TraceRelease(ppNode, pCursor, false);
    *ppNode = nullptr;
}

void IndxDiscardNode(uint8_t** ppNode, IndxCursor* pCursor)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxDiscardNode(%p, %p)", static_cast<void*>(ppNode),
        static_cast<void*>(pCursor));
    BlckDiscardBlock(*ppNode, BlckOf(pCursor));
}

// ---- changing -----------------------------------------------------------------------------------

bool IndxSetNodeWord(uint8_t* pNode, uint32_t offset, uint32_t value)
{
    if (!BlckWillChange(pNode, offset, sizeof value))
        return false;
    PutU32(pNode + offset, value);
    return true;
}

bool IndxSetEntryPointer(uint8_t* pNode, int32_t position, uint32_t pointer)
{
    const uint32_t offset =
        INDX_NODE_HEADER + INDX_ENTRY_SIZE * static_cast<uint32_t>(position) + INDX_ENTRY_POINTER;
    return IndxSetNodeWord(pNode, offset, pointer);
}

namespace {

// Whether the heap offsets of a run of entries are the running sums of their lengths, from the
// entry before it on, inside the heap. Only such a run can be moved without leaving the node.
bool RunIsSound(const uint8_t* pNode, int32_t position, int32_t count)
{
    static_assert(INDX_ENTRY_HEAP_OFFSET == INDX_ENTRY_LENGTH + 4);
    uint64_t sum = IndxHeapBefore(pNode, position);
    uint64_t wrong = 0; // collected, not jumped at: this is walked for every key that moves
    const uint8_t* pEnd = NodeEntry(pNode, position + count);
    for (const uint8_t* pEntry = NodeEntry(pNode, position); pEntry < pEnd;
         pEntry += INDX_ENTRY_SIZE) {
        const uint64_t both = GetU64(pEntry + INDX_ENTRY_LENGTH);
        sum += static_cast<uint32_t>(both);
        wrong |= sum ^ (both >> 32);
    }
    // The offsets rise, so that the last one bounds them all.
    return wrong == 0 && sum <= HeapUsed(pNode);
}

// Makes a node the parent of one of its children.
bool SetParent(IndxCursor* pCursor, uint32_t tChild, uint32_t tParent)
{
    uint8_t* pChild = nullptr;
    IndxGetNode(&pChild, pCursor, tChild);
    if (!pChild || !IndxSetNodeWord(pChild, INDX_NODE_PARENT, tParent))
        return false;
    IndxReleaseNode(&pChild, pCursor, true);
    return true;
}

// The same for a child that moves from one parent to another: a child that does not know the first
// one belongs to somebody else, and stays as it is.
bool ChangeParent(IndxCursor* pCursor, uint32_t tChild, uint32_t tFrom, uint32_t tTo)
{
    bool bInMemory = false;
    const uint8_t* pChild = IndxReadNode(&bInMemory, pCursor, tChild);
    if (pChild && NodeParent(pChild) == tFrom)
        return SetParent(pCursor, tChild, tTo);
    IndxReportDamage(pCursor, tChild);
    return false;
}

void TraceFixups(const uint8_t* pEntries, int32_t count)
{
    for (int32_t i = 0; i < count; ++i) {
        const uint8_t* pEntry = pEntries + size_t{INDX_ENTRY_SIZE} * static_cast<uint32_t>(i);
        INDX_TRACE(INDX_DETAIL, " fixup entry %ld offset %ld", i, EntryHeapOffset(pEntry));
    }
}

// Moves a sound run of entries whose values lie in the heap: the entries, their heap offsets, the
// heap bytes.
bool MoveWithHeap(
    uint8_t* pDest, int32_t destPosition, const uint8_t* pSource, int32_t sourcePosition,
    int32_t count, int32_t lOffsetCorrection)
{
    const auto correction = static_cast<int32_t>(
        static_cast<uint32_t>(lOffsetCorrection) - IndxHeapBefore(pSource, sourcePosition));
    INDX_TRACE(INDX_DETAIL, "lOffsetCorrection = %ld", correction);
    const uint32_t lowest = EntryHeapOffset(NodeEntry(pSource, sourcePosition + count - 1));
    uint8_t* pSlots = NodeEntry(pDest, destPosition);
    const uint32_t size = INDX_ENTRY_SIZE * static_cast<uint32_t>(count);
    INDX_TRACE(
        INDX_DETAIL, "Move entries %p, %p, %ld", static_cast<void*>(pSlots),
        static_cast<void*>(const_cast<uint8_t*>(NodeEntry(pSource, sourcePosition))), size);
    const uint32_t total = lowest - IndxHeapBefore(pSource, sourcePosition);
    const uint8_t* pFrom = pSource + INDX_NODE_SIZE - lowest;
    if (!EntriesWillChange(pDest, destPosition, count) ||
        !HeapWillChange(pDest, lowest + static_cast<uint32_t>(correction), total))
        return false;
    memmove(pSlots, NodeEntry(pSource, sourcePosition), size);
    if (NIM_TRACES(INDX_DETAIL)) // a loop of nothing but traces
        TraceFixups(pSlots, count);
    for (uint8_t* pEntry = pSlots; pEntry < pSlots + size; pEntry += INDX_ENTRY_SIZE) {
        PutU32(
            pEntry + INDX_ENTRY_HEAP_OFFSET,
            EntryHeapOffset(pEntry) + static_cast<uint32_t>(correction));
    }
    uint8_t* pTo = pDest + INDX_NODE_SIZE - (lowest + static_cast<uint32_t>(correction));
    INDX_TRACE(
        INDX_DETAIL, "Move the heap data %p, %p, %ld", static_cast<void*>(pTo),
        static_cast<void*>(const_cast<uint8_t*>(pFrom)), total);
    memmove(pTo, pFrom, total);
    return true;
}

} // namespace

bool IndxMoveEntries(
    IndxCursor* pCursor, uint8_t* pDest, int32_t destPosition, uint8_t* pSource,
    int32_t sourcePosition, int32_t count, int32_t lOffsetCorrection)
{
    if (count <= 0)
        return true;
    INDX_TRACE(
        INDX_DETAIL, "IndxMoveEntries(%p, %p, %ld, %p, %ld, %ld, %ld)", static_cast<void*>(pCursor),
        static_cast<void*>(pDest), destPosition, static_cast<void*>(pSource), sourcePosition, count,
        lOffsetCorrection);
    if (NodeHasHeap(pDest)) {
        if (!RunIsSound(pSource, sourcePosition, count)) {
            IndxReportDamage(pCursor, NodeId(pSource));
            return false;
        }
        if (!MoveWithHeap(pDest, destPosition, pSource, sourcePosition, count, lOffsetCorrection))
            return false;
    } else {
        const uint8_t* pFrom = NodeEntry(pSource, sourcePosition);
        const uint32_t size = INDX_ENTRY_SIZE * static_cast<uint32_t>(count);
        INDX_TRACE(
            INDX_DETAIL, "Just move entries %p, %p, %ld",
            static_cast<void*>(NodeEntry(pDest, destPosition)),
            static_cast<void*>(const_cast<uint8_t*>(pFrom)), size);
        if (!EntriesWillChange(pDest, destPosition, count))
            return false;
        memmove(NodeEntry(pDest, destPosition), pFrom, size);
    }
    if (NodeIsLeaf(pDest) || pDest == pSource)
        return true;
    const uint32_t tSource = NodeId(pSource);
    const uint32_t tDest = NodeId(pDest);
    for (int32_t i = destPosition; i < destPosition + count; ++i) {
        if (!ChangeParent(pCursor, EntryPointer(NodeEntry(pDest, i)), tSource, tDest))
            return false;
    }
    return true;
}

namespace {

// The value of a key that lies in the heap: behind the values of the entries before it.
bool PutHeapValue(uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    const uint32_t length = KeySize(pKey);
    const uint32_t heapOffset = IndxHeapBefore(pNode, position) + length;
    uint8_t* pEntry = NodeEntry(pNode, position);
    uint8_t* pTo = pNode + INDX_NODE_SIZE - heapOffset;
    INDX_TRACE(
        INDX_DETAIL, "Insert heap data %p, %p, %ld", static_cast<void*>(pTo),
        static_cast<void*>(const_cast<char*>(KeyBytes(pKey))), length);
    if (!HeapWillChange(pNode, heapOffset, length))
        return false;
    PutU32(pEntry + INDX_ENTRY_LENGTH, length);
    PutU32(pEntry + INDX_ENTRY_HEAP_OFFSET, heapOffset);
    memcpy(pTo, KeyBytes(pKey), length);
    return true;
}

// The value of a key in an entry whose slot has been declared.
bool PutValue(uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    uint8_t* pEntry = NodeEntry(pNode, position);
    switch (pKey->keyType) {
    case INDX_KEY_FORBIDDEN:
        INDX_TRACE(INDX_ALWAYS, "Unexpected field type");
        ProcCrash(0);
        return false;
    case INDX_KEY_INTEGER:
        PutI32(pEntry + INDX_ENTRY_VALUE, KeyInteger(pKey));
        return true;
    case INDX_KEY_INT64:
        PutI64(pEntry + INDX_ENTRY_VALUE, KeyInt64(pKey));
        return true;
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
    case INDX_KEY_UNIQUE_ID:
        return PutHeapValue(pNode, position, pKey);
    default:
        return true;
    }
}

} // namespace

bool IndxPutKeyIntoNode(
    IndxCursor* pCursor, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxPutKeyIntoNode(%p, %p, %ld, %p)", static_cast<void*>(pCursor),
        static_cast<void*>(pNode), position, static_cast<void*>(const_cast<IndxKeyInfo*>(pKey)));
    if (!EntriesWillChange(pNode, position, 1) || !PutValue(pNode, position, pKey))
        return false;
    uint8_t* pEntry = NodeEntry(pNode, position);
    PutU32(pEntry + INDX_ENTRY_ID, pKey->recordId);
    if (NodeIsLeaf(pNode)) {
        PutU32(pEntry + INDX_ENTRY_POINTER, pKey->fileOffset);
        return true;
    }
    PutU32(pEntry + INDX_ENTRY_POINTER, pKey->tChild);
    return SetParent(pCursor, pKey->tChild, NodeId(pNode));
}

bool IndxRemoveEntry(IndxCursor* pCursor, uint8_t* pNode, int32_t position)
{
    const int32_t count = NodeCount(pNode);
    assert(position >= 0 && position < count);
    // The entry itself must hang together with its neighbours, too: without it the heap ends where
    // the entry before says.
    if (NodeHasHeap(pNode) && !RunIsSound(pNode, position, 1)) {
        IndxReportDamage(pCursor, NodeId(pNode));
        return false;
    }
    const auto before = static_cast<int32_t>(IndxHeapBefore(pNode, position));
    if (!IndxMoveEntries(
            pCursor, pNode, position, pNode, position + 1, count - position - 1, before))
        return false;
    return IndxSetNodeCount(pNode, count - 1);
}
