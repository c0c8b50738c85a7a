// node.cpp: one block as a node: header, entries, heap. Getting, making, releasing and discarding
// nodes, the room left in them, putting, moving and removing entries.
//
// Invariants of a node: at most 681 entries; every heap offset is the sum of the lengths up to its
// entry; entries and heap do not touch. IndxGetNode checks what can be checked in constant time
// when a node is fetched; what an entry says is checked where it is followed.

#include "database/index/tree/node.h"

#include <cassert>
#include <cstring>

#include "database/block/blockstore.h"
#include "database/index/tree/key.h"
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

// In memory a node carries the address of its end.
void SetNodeEnd(uint8_t* pNode)
{
    PutU64(pNode + INDX_NODE_END, reinterpret_cast<uintptr_t>(pNode + BlckSize(nullptr)));
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

// Behind which byte of a node nothing has changed when header and entries from a position on, with
// their values, are all that has.
uint32_t ChangedTo(const uint8_t* pNode, int32_t position)
{
    return NodeHasHeap(pNode)
               ? INDX_NODE_SIZE - IndxHeapBefore(pNode, position)
               : INDX_NODE_HEADER + INDX_ENTRY_SIZE * static_cast<uint32_t>(NodeCount(pNode));
}

} // namespace

namespace {

// Brings a sound node into memory of which an address in the file is at hand; null: no memory. The
// free room stays behind, when it is worth it, but for some entries more; who adds others asks for
// them (BlckNeedStart).
uint8_t* TakeNode(IndxCursor* pCursor, uint32_t tId, const uint8_t* pFound)
{
    constexpr uint32_t MORE = 8;
    constexpr uint32_t WORTH_IT = 4096; // what is written in two parts costs a second call
    const uint32_t entries = static_cast<uint32_t>(NodeCount(pFound)) + MORE;
    uint32_t front = INDX_NODE_HEADER + INDX_ENTRY_SIZE * entries;
    uint32_t back = HeapUsed(pFound);
    if (back > 0 && front + back + WORTH_IT > INDX_NODE_SIZE) {
        front = INDX_NODE_SIZE;
        back = 0;
    }
    void* pTaken = BlckTakeBlock(BlckOf(pCursor), static_cast<int32_t>(tId), pFound, front, back);
    return static_cast<uint8_t*>(pTaken);
}

} // namespace

void IndxGetNode(uint8_t** ppNode, IndxCursor* pCursor, uint32_t tId)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxGetNode(%p, %p, %ld)", static_cast<void*>(ppNode),
        static_cast<void*>(pCursor), tId);
    *ppNode = nullptr;
    void* oBlck = BlckOf(pCursor);
    bool bInMemory = false;
    const uint8_t* pFound = BlckPeekBlock(&bInMemory, oBlck, static_cast<int32_t>(tId));
    void* pData = nullptr;
    if (bInMemory)
        pData = const_cast<uint8_t*>(pFound); // handed out by the block store as such
    else if (pFound && NodeIsSound(pFound, HeapFlag(pCursor)))
        pData = TakeNode(pCursor, tId, pFound);
    else
        BlckGetBlock(&pData, oBlck, static_cast<int32_t>(tId));
    if (!pData)
        return;
    auto* pNode = static_cast<uint8_t*>(pData);
    if (!NodeIsSound(pNode, HeapFlag(pCursor))) {
        INDX_TRACE(
            INDX_ALWAYS, "Node %ld of field '%s' of table '%s' is damaged", tId,
            pCursor->oField->name, TableOf(pCursor)->name);
        return;
    }
    SetNodeEnd(pNode);
    *ppNode = pNode;
}

const uint8_t* IndxReadNode(bool* pInMemory, IndxCursor* pCursor, uint32_t tId)
{
    const uint8_t* pNode = BlckPeekBlock(pInMemory, BlckOf(pCursor), static_cast<int32_t>(tId));
    if (pNode && NodeIsSound(pNode, HeapFlag(pCursor)))
        return pNode;
    uint8_t* pFetched = nullptr;
    IndxGetNode(&pFetched, pCursor, tId);
    if (pInMemory)
        *pInMemory = pFetched != nullptr;
    return pFetched;
}

const uint8_t* IndxReadNodeToChange(bool* pInMemory, IndxCursor* pCursor, uint32_t tId)
{
    const uint8_t* pNode = IndxReadNode(pInMemory, pCursor, tId);
    if (!pNode || *pInMemory || !NodeIsLeaf(pNode))
        return pNode;
    uint8_t* pTaken = TakeNode(pCursor, tId, pNode);
    *pInMemory = pTaken != nullptr;
    if (pTaken)
        SetNodeEnd(pTaken);
    return pTaken;
}

uint8_t* IndxNodeToChange(IndxCursor* pCursor, uint32_t tId, const uint8_t* pNode, bool bInMemory)
{
    if (bInMemory)
        return const_cast<uint8_t*>(pNode); // was handed out by BlckGetBlock as such
    uint8_t* pFetched = nullptr;
    IndxGetNode(&pFetched, pCursor, tId);
    return pFetched;
}

void IndxEndReading(const uint8_t** ppNode, IndxCursor* pCursor)
{
    auto* pNode = const_cast<uint8_t*>(*ppNode); // not modified, so not written to
    IndxReleaseNode(&pNode, pCursor, FALSE);
    *ppNode = nullptr;
}

int32_t IndxNewNode(uint8_t** ppNode, IndxCursor* pCursor)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxNewNode(%p, %p)", static_cast<void*>(ppNode),
        static_cast<void*>(pCursor));
    void* oBlck = BlckOf(pCursor);
    void* pData = nullptr;
    const int32_t tId = BlckNewUnusedBlock(&pData, oBlck);
    // An id whose block cannot be had (disk full, read failure) is no node.
    if (tId == -1 || !pData)
        return -1;
    auto* pNode = static_cast<uint8_t*>(pData);
    SetNodeWord(pNode, INDX_NODE_PARENT, INDX_NO_NODE);
    SetNodeWord(pNode, INDX_NODE_NEXT, INDX_NO_NODE);
    SetNodeWord(pNode, INDX_NODE_PREVIOUS, INDX_NO_NODE);
    SetNodeWord(pNode, INDX_NODE_HEAP, HeapFlag(pCursor));
    SetNodeEnd(pNode);
    BlckModifiedBlock(pNode, oBlck);
    *ppNode = pNode;
    return tId;
}

void IndxReleaseNode(uint8_t** ppNode, IndxCursor* pCursor, NimBool bModified)
{
    IndxReleaseNodeFrom(ppNode, pCursor, bModified, 0);
}

void IndxReleaseNodeFrom(uint8_t** ppNode, IndxCursor* pCursor, NimBool bModified, int32_t position)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxReleaseNode(%p, %p, %s)", static_cast<void*>(ppNode),
        static_cast<void*>(pCursor), IndxTruth(bModified));
    if (bModified && *ppNode) {
        assert(NodeIsSound(*ppNode, HeapFlag(pCursor)));
        BlckModifiedStart(
            *ppNode, BlckOf(pCursor), ChangedTo(*ppNode, position), HeapUsed(*ppNode));
    }
    *ppNode = nullptr;
}

void IndxDiscardNode(uint8_t** ppNode, IndxCursor* pCursor)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxDiscardNode(%p, %p)", static_cast<void*>(ppNode),
        static_cast<void*>(pCursor));
    BlckDiscardBlock(*ppNode, BlckOf(pCursor));
}

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
NimBool SetParent(IndxCursor* pCursor, uint32_t tChild, uint32_t tParent)
{
    uint8_t* pChild = nullptr;
    IndxGetNode(&pChild, pCursor, tChild);
    if (!pChild)
        return FALSE;
    SetNodeWord(pChild, INDX_NODE_PARENT, tParent);
    IndxReleaseNode(&pChild, pCursor, TRUE);
    return TRUE;
}

// The same for a child that moves from one parent to another: a child that does not know the first
// one belongs to somebody else, and stays as it is.
NimBool ChangeParent(IndxCursor* pCursor, uint32_t tChild, uint32_t tFrom, uint32_t tTo)
{
    uint8_t* pChild = nullptr;
    IndxGetNode(&pChild, pCursor, tChild);
    if (!pChild || NodeParent(pChild) != tFrom) {
        IndxReportDamage(pCursor, tChild);
        return FALSE;
    }
    SetNodeWord(pChild, INDX_NODE_PARENT, tTo);
    IndxReleaseNode(&pChild, pCursor, TRUE);
    return TRUE;
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
void MoveWithHeap(
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
    memmove(pSlots, NodeEntry(pSource, sourcePosition), size);
    if (NIM_TRACES(INDX_DETAIL))
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
}

} // namespace

NimBool IndxMoveEntries(
    IndxCursor* pCursor, uint8_t* pDest, int32_t destPosition, uint8_t* pSource,
    int32_t sourcePosition, int32_t count, int32_t lOffsetCorrection)
{
    if (count <= 0)
        return TRUE;
    INDX_TRACE(
        INDX_DETAIL, "IndxMoveEntries(%p, %p, %ld, %p, %ld, %ld, %ld)", static_cast<void*>(pCursor),
        static_cast<void*>(pDest), destPosition, static_cast<void*>(pSource), sourcePosition, count,
        lOffsetCorrection);
    if (NodeHasHeap(pDest)) {
        if (!RunIsSound(pSource, sourcePosition, count)) {
            IndxReportDamage(pCursor, NodeId(pSource));
            return FALSE;
        }
        MoveWithHeap(pDest, destPosition, pSource, sourcePosition, count, lOffsetCorrection);
    } else {
        const uint8_t* pFrom = NodeEntry(pSource, sourcePosition);
        const uint32_t size = INDX_ENTRY_SIZE * static_cast<uint32_t>(count);
        INDX_TRACE(
            INDX_DETAIL, "Just move entries %p, %p, %ld",
            static_cast<void*>(NodeEntry(pDest, destPosition)),
            static_cast<void*>(const_cast<uint8_t*>(pFrom)), size);
        MemCopy(NodeEntry(pDest, destPosition), pFrom, size);
    }
    if (NodeIsLeaf(pDest) || pDest == pSource)
        return TRUE;
    const uint32_t tSource = NodeId(pSource);
    const uint32_t tDest = NodeId(pDest);
    for (int32_t i = destPosition; i < destPosition + count; ++i) {
        if (!ChangeParent(pCursor, EntryPointer(NodeEntry(pDest, i)), tSource, tDest))
            return FALSE;
    }
    return TRUE;
}

NimBool
IndxPutKeyIntoNode(IndxCursor* pCursor, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxPutKeyIntoNode(%p, %p, %ld, %p)", static_cast<void*>(pCursor),
        static_cast<void*>(pNode), position, static_cast<void*>(const_cast<IndxKeyInfo*>(pKey)));
    uint8_t* pEntry = NodeEntry(pNode, position);
    switch (pKey->keyType) {
    case INDX_KEY_FORBIDDEN:
        INDX_TRACE(INDX_ALWAYS, "Unexpected field type");
        ProcCrash(0);
        return FALSE;
    case INDX_KEY_INTEGER:
        PutI32(pEntry + INDX_ENTRY_VALUE, KeyInteger(pKey));
        break;
    case INDX_KEY_INT64:
        PutI64(pEntry + INDX_ENTRY_VALUE, KeyInt64(pKey));
        break;
    case INDX_KEY_TEXT:
    case INDX_KEY_TEXT_NO_CASE:
    case INDX_KEY_UNIQUE_ID: {
        const uint32_t length = KeySize(pKey);
        const uint32_t offset = IndxHeapBefore(pNode, position) + length;
        assert(offset <= INDX_NODE_ROOM);
        PutU32(pEntry + INDX_ENTRY_LENGTH, length);
        PutU32(pEntry + INDX_ENTRY_HEAP_OFFSET, offset);
        uint8_t* pTo = pNode + INDX_NODE_SIZE - offset;
        INDX_TRACE(
            INDX_DETAIL, "Insert heap data %p, %p, %ld", static_cast<void*>(pTo),
            static_cast<void*>(const_cast<char*>(KeyBytes(pKey))), length);
        MemCopy(pTo, KeyBytes(pKey), length);
        break;
    }
    default:
        break;
    }
    PutU32(pEntry + INDX_ENTRY_ID, pKey->recordId);
    if (NodeIsLeaf(pNode)) {
        PutU32(pEntry + INDX_ENTRY_POINTER, pKey->fileOffset);
        return TRUE;
    }
    PutU32(pEntry + INDX_ENTRY_POINTER, pKey->tChild);
    return SetParent(pCursor, pKey->tChild, NodeId(pNode));
}

NimBool IndxRemoveEntry(IndxCursor* pCursor, uint8_t* pNode, int32_t position)
{
    const int32_t count = NodeCount(pNode);
    assert(position >= 0 && position < count);
    // The entry itself must hang together with its neighbours, too: without it the heap ends where
    // the entry before says.
    if (NodeHasHeap(pNode) && !RunIsSound(pNode, position, 1)) {
        IndxReportDamage(pCursor, NodeId(pNode));
        return FALSE;
    }
    const auto before = static_cast<int32_t>(IndxHeapBefore(pNode, position));
    if (!IndxMoveEntries(
            pCursor, pNode, position, pNode, position + 1, count - position - 1, before))
        return FALSE;
    SetNodeCount(pNode, count - 1);
    return TRUE;
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
