// insert.cpp: entering one record's key into one index: the way down to the leaf, the choice
// between adding and splitting, and the way up, on which branch entries are kept equal to the
// lowest key of their child. Node surgery itself is node.cpp, the loop on the way up climb.cpp.
//
// Splits happen at the insertion position, so ascending insertions leave full nodes behind them.
// Nothing is undone here: a failure leaves half a change in memory, which the caller backs out.
//
// A node holds 16352 bytes of entries and keys. Two keys of up to 8152 bytes always fit together;
// longer ones may fit on neither side of a split, nor both into a new root. That is found out
// before anything is written past the free space, and the insertion fails.

#include <algorithm>
#include <cassert>

#include "database/block/blockstore.h"
#include "database/index/tree/climb.h"
#include "database/index/tree/key.h"
#include "database/index/tree/node.h"
#include "nim/scope.h"

namespace {

// The parent of a node, checked to be a branch that holds an entry for it; null: damage, reported.
uint8_t* GetParent(IndxCursor* pCursor, const uint8_t* pNode, int32_t* pPosition)
{
    uint8_t* pParent = nullptr;
    IndxGetNode(&pParent, pCursor, NodeParent(pNode));
    *pPosition = pParent && !NodeIsLeaf(pParent) ? IndxFindChild(pParent, NodeId(pNode)) : -1;
    if (*pPosition >= 0)
        return pParent;
    IndxReportDamage(pCursor, NodeParent(pNode));
    return nullptr;
}

// The lowest key of a node, to be entered into its parent.
IndxKeyInfo* LowestKey(IndxCursor* pCursor, const uint8_t* pNode)
{
    IndxKeyInfo* pKey = nullptr;
    IndxGetKeyInfoFromNode(&pKey, pCursor, pNode);
    return pKey;
}

// A new root over two nodes. Their lowest keys must fit into it together.
NimBool MakeRoot(IndxCursor* pCursor, uint8_t* pLeft, uint8_t* pRight)
{
    const HeldObject<IndxKeyInfo> left(LowestKey(pCursor, pLeft));
    const HeldObject<IndxKeyInfo> right(LowestKey(pCursor, pRight));
    if (!left || !right ||
        IndxKeyLength(left.get()) + IndxKeyLength(right.get()) + 2 * INDX_ENTRY_SIZE >
            INDX_NODE_ROOM)
        return FALSE;
    uint8_t* pRoot = nullptr;
    const int32_t tRoot = IndxNewNode(&pRoot, pCursor);
    if (!pRoot)
        return FALSE;
    // Puts the root in as the parent of both.
    if (!IndxPutKeyIntoNode(pCursor, pRoot, 0, left.get()) ||
        !IndxPutKeyIntoNode(pCursor, pRoot, 1, right.get()))
        return FALSE;
    SetNodeCount(pRoot, 2);
    pCursor->oField->roots.tRoot = static_cast<uint32_t>(tRoot);
    ++pCursor->oField->levels;
    IndxSetTableModified(pCursor->oField->oTable);
    IndxReleaseNode(&pRoot, pCursor, TRUE);
    return TRUE;
}

NimBool FinishAdd(IndxClimb&, uint8_t*, const IndxKeyInfo*, NimBool bResult)
{
    if (!bResult)
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Failed to add key to existing node");
    return bResult;
}

NimBool FinishSplitLeft(IndxClimb&, uint8_t*, const IndxKeyInfo*, NimBool bResult)
{
    if (!bResult)
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Failed to split left");
    return bResult;
}

NimBool FinishSplitRight(IndxClimb&, uint8_t*, const IndxKeyInfo*, NimBool bResult)
{
    if (!bResult)
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Failed to split right");
    return bResult;
}

// The levels above a full parent have been re-keyed: now its new lowest key goes in front of it.
NimBool FinishRekey(IndxClimb& climb, uint8_t* pParent, const IndxKeyInfo* pKey, NimBool bResult)
{
    return bResult ? IndxSplitLeft(climb, pParent, pKey) : FALSE;
}

NimBool StepFixup(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo*)
{
    return IndxFixupParent(climb, position, pNode);
}

} // namespace

NimBool
IndxInsertKeyIntoNode(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "IndxInsertKeyIntoNode()");
    if (IndxHasRoom(pNode, IndxKeyLength(pKey)))
        return IndxAddKeyIntoExistingNode(climb, pNode, position, pKey);
    return position == 0 ? IndxSplitLeft(climb, pNode, pKey)
                         : IndxSplitRight(climb, pNode, position, pKey);
}

NimBool IndxAddKeyIntoExistingNode(
    IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "IndxAddKeyIntoExistingNode()");
    IndxCursor* pCursor = climb.Cursor();
    const int32_t count = NodeCount(pNode);
    assert(position >= 0 && position <= count && IndxHasRoom(pNode, IndxKeyLength(pKey)));
    const auto start = static_cast<int32_t>(IndxHeapBefore(pNode, position) + IndxKeyLength(pKey));
    const uint32_t entries = static_cast<uint32_t>(count) + 1;
    if (!BlckNeedStart(pNode, INDX_NODE_HEADER + INDX_ENTRY_SIZE * entries)) {
        IndxReportDamage(pCursor, NodeId(pNode));
        return FinishAdd(climb, nullptr, nullptr, FALSE);
    }
    NimBool bResult =
        IndxMoveEntries(pCursor, pNode, position + 1, pNode, position, count - position, start) &&
        IndxPutKeyIntoNode(pCursor, pNode, position, pKey);
    if (bResult) {
        SetNodeCount(pNode, count + 1);
        uint8_t* pChanged = pNode;
        IndxReleaseNodeFrom(&pChanged, pCursor, TRUE, position);
        const bool bGoesUp = position == 0 && !IsRoot(pCursor, pNode);
        bResult = !bGoesUp || climb.Push(FinishAdd, nullptr, nullptr);
        if (bResult)
            return IndxFixupParent(climb, position, pNode);
    }
    return FinishAdd(climb, nullptr, nullptr, FALSE);
}

namespace {

// The neighbour of a node on its level, checked to be of that level and to link back; null:
// damage, reported.
uint8_t* GetSibling(IndxCursor* pCursor, const uint8_t* pNode, uint32_t link)
{
    const uint32_t back = link == INDX_NODE_NEXT ? INDX_NODE_PREVIOUS : INDX_NODE_NEXT;
    uint8_t* pSibling = nullptr;
    IndxGetNode(&pSibling, pCursor, NodeWord(pNode, link));
    if (pSibling && NodeIsLeaf(pSibling) == NodeIsLeaf(pNode) &&
        NodeWord(pSibling, back) == NodeId(pNode))
        return pSibling;
    IndxReportDamage(pCursor, NodeWord(pNode, link));
    return nullptr;
}

// Puts a new node next to `pNode` on its level, in the direction of `link`. The end of a level of
// leaves is also known to the index.
NimBool LinkBeside(IndxCursor* pCursor, uint8_t* pNode, uint8_t* pNew, uint32_t link)
{
    const bool bNext = link == INDX_NODE_NEXT;
    const uint32_t back = bNext ? INDX_NODE_PREVIOUS : INDX_NODE_NEXT;
    const uint32_t tNew = NodeId(pNew);
    SetNodeWord(pNew, INDX_NODE_PARENT, NodeParent(pNode));
    SetNodeWord(pNew, INDX_NODE_LEAF, NodeWord(pNode, INDX_NODE_LEAF));
    SetNodeWord(pNew, back, NodeId(pNode));
    SetNodeWord(pNew, link, NodeWord(pNode, link));
    if (NodeWord(pNode, link) != INDX_NO_NODE) {
        uint8_t* pBeyond = GetSibling(pCursor, pNode, link);
        if (!pBeyond)
            return FALSE;
        SetNodeWord(pBeyond, back, tNew);
        IndxReleaseNode(&pBeyond, pCursor, TRUE);
    } else if (NodeIsLeaf(pNode)) {
        IndxRoots& roots = pCursor->oField->roots;
        if (!IsEndLeaf(pCursor, NodeId(pNode), link)) {
            IndxReportDamage(pCursor, NodeId(pNode));
            return FALSE;
        }
        (bNext ? roots.tLastLeaf : roots.tFirstLeaf) = tNew;
        IndxSetTableModified(pCursor->oField->oTable);
    }
    SetNodeWord(pNode, link, tNew);
    return TRUE;
}

// Enters the lowest key of a new node into the parent of the node it came from, `offset` entries
// behind that node's own, or puts a new root over the two.
NimBool EnterNewNode(IndxClimb& climb, uint8_t* pNode, uint8_t* pNew, IndxFinish finish, bool bLeft)
{
    IndxCursor* pCursor = climb.Cursor();
    if (IsRoot(pCursor, pNode))
        return bLeft ? MakeRoot(pCursor, pNew, pNode) : MakeRoot(pCursor, pNode, pNew);
    int32_t position = 0;
    uint8_t* pParent = GetParent(pCursor, pNode, &position);
    HeldObject<IndxKeyInfo> key(pParent ? LowestKey(pCursor, pNew) : nullptr);
    if (!key)
        return FALSE;
    // Named before the frame is pushed, so that a failure here is traced by the caller alone.
    const int32_t place = bLeft ? position : position + 1;
    return climb.Next(IndxInsertKeyIntoNode, pParent, place, key.Take()) &&
           climb.Push(finish, nullptr, nullptr);
}

// The body of IndxSplitLeft.
NimBool SplitLeft(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey)
{
    IndxCursor* pCursor = climb.Cursor();
    uint8_t* pNew = nullptr;
    IndxNewNode(&pNew, pCursor);
    if (!pNew || !LinkBeside(pCursor, pNode, pNew, INDX_NODE_PREVIOUS) ||
        !IndxPutKeyIntoNode(pCursor, pNew, 0, pKey))
        return FALSE;
    SetNodeCount(pNew, 1);
    uint8_t* pChanged = pNode;
    IndxReleaseNode(&pChanged, pCursor, TRUE);
    pChanged = pNew;
    IndxReleaseNode(&pChanged, pCursor, TRUE);
    return EnterNewNode(climb, pNode, pNew, FinishSplitLeft, true);
}

// Moves the entries from `position` on to the new right node and puts the key on whichever side
// keeps more room.
NimBool DivideRight(
    IndxCursor* pCursor, uint8_t* pNode, uint8_t* pRight, int32_t position, const IndxKeyInfo* pKey,
    bool bKeyLeft)
{
    const int32_t moved = NodeCount(pNode) - position;
    if (bKeyLeft) {
        if (!IndxMoveEntries(pCursor, pRight, 0, pNode, position, moved, 0) ||
            !IndxPutKeyIntoNode(pCursor, pNode, position, pKey))
            return FALSE;
        SetNodeCount(pRight, moved);
        SetNodeCount(pNode, position + 1);
        return TRUE;
    }
    if (!IndxPutKeyIntoNode(pCursor, pRight, 0, pKey) ||
        !IndxMoveEntries(
            pCursor, pRight, 1, pNode, position, moved,
            static_cast<int32_t>(IndxHeapBefore(pRight, 1))))
        return FALSE;
    SetNodeCount(pRight, moved + 1);
    SetNodeCount(pNode, position);
    return TRUE;
}

// The body of IndxSplitRight.
NimBool SplitRight(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    IndxCursor* pCursor = climb.Cursor();
    if (IndxHeapBefore(pNode, position) > IndxHeapBefore(pNode, NodeCount(pNode))) {
        IndxReportDamage(pCursor, NodeId(pNode));
        return FALSE;
    }
    // What the node would have left keeping only the entries before the position, and what the new
    // node would have holding only the others.
    const auto leftFree = static_cast<int32_t>(
        INDX_NODE_ROOM - INDX_ENTRY_SIZE * static_cast<uint32_t>(position) -
        IndxHeapBefore(pNode, position));
    const auto freeNow = static_cast<int32_t>(IndxFreeSpace(pNode));
    const int32_t rightFree = static_cast<int32_t>(INDX_NODE_ROOM) - (leftFree - freeNow);
    const auto needed = static_cast<int32_t>(IndxKeyLength(pKey) + INDX_ENTRY_SIZE);
    if (std::max(leftFree, rightFree) < needed)
        return FALSE; // room on neither side: only with keys above 8152 bytes
    uint8_t* pRight = nullptr;
    IndxNewNode(&pRight, pCursor);
    if (!pRight || !LinkBeside(pCursor, pNode, pRight, INDX_NODE_NEXT) ||
        !DivideRight(pCursor, pNode, pRight, position, pKey, rightFree <= leftFree))
        return FALSE;
    INDX_TRACE(
        INDX_DETAIL, "tNode %ld entries, tRightNode %ld entries", NodeCount(pNode),
        NodeCount(pRight));
    uint8_t* pChanged = pNode;
    IndxReleaseNode(&pChanged, pCursor, TRUE);
    pChanged = pRight;
    IndxReleaseNode(&pChanged, pCursor, TRUE);
    return EnterNewNode(climb, pNode, pRight, FinishSplitRight, false);
}

} // namespace

// A key that belongs before every key of a full node gets a node of its own, to the left.
NimBool IndxSplitLeft(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "IndxSplitLeft()");
    return SplitLeft(climb, pNode, pKey) ? TRUE : FinishSplitLeft(climb, nullptr, nullptr, FALSE);
}

NimBool IndxSplitRight(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "IndxSplitRight()");
    return SplitRight(climb, pNode, position, pKey)
               ? TRUE
               : FinishSplitRight(climb, nullptr, nullptr, FALSE);
}

NimBool IndxFixupParent(IndxClimb& climb, int32_t position, uint8_t* pNode)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxFixupParent(%p, %ld, %p) %ld", static_cast<void*>(climb.Cursor()),
        position, static_cast<void*>(pNode), NodeParent(pNode));
    if (position != 0 || IsRoot(climb.Cursor(), pNode))
        return TRUE;
    return IndxRekeyParent(climb, pNode);
}

NimBool IndxRekeyParent(IndxClimb& climb, uint8_t* pNode)
{
    IndxCursor* pCursor = climb.Cursor();
    int32_t position = 0;
    uint8_t* pParent = GetParent(pCursor, pNode, &position);
    if (!pParent || !IndxRemoveEntry(pCursor, pParent, position))
        return FALSE;
    HeldObject<IndxKeyInfo> key(LowestKey(pCursor, pNode));
    if (!key)
        return FALSE;
    if (position > 0 || IndxHasRoom(pParent, IndxKeyLength(key.get())))
        return climb.Next(IndxInsertKeyIntoNode, pParent, position, key.Take());
    // The parent is full and its own lowest key has gone: the grandparent must learn the present
    // one first, or the new node would be entered there in front of a key that is too small.
    return climb.Next(StepFixup, pParent, 0, nullptr) &&
           climb.Push(FinishRekey, pParent, key.Take());
}

namespace {

// The first key of an index makes a one-leaf tree.
NimBool CreateRoot(IndxCursor* pCursor, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "Create a root node");
    uint8_t* pRoot = nullptr;
    const int32_t tNew = IndxNewNode(&pRoot, pCursor);
    if (!pRoot)
        return FALSE;
    const auto tRoot = static_cast<uint32_t>(tNew);
    pCursor->oField->roots = {tRoot, tRoot, tRoot};
    pCursor->oField->levels = 1;
    IndxSetTableModified(pCursor->oField->oTable);
    SetNodeWord(pRoot, INDX_NODE_LEAF, 1);
    const NimBool bPut = IndxPutKeyIntoNode(pCursor, pRoot, 0, pKey);
    if (bPut)
        SetNodeCount(pRoot, 1);
    IndxReleaseNode(&pRoot, pCursor, bPut);
    return bPut;
}

// The key belongs into this leaf, at this position; so many nodes lie on the way from the root.
NimBool InsertIntoLeaf(
    IndxCursor* pCursor, uint8_t* pLeaf, int32_t position, const IndxKeyInfo* pKey, uint32_t levels)
{
    IndxClimb climb(pCursor, levels);
    const NimBool bInserted = climb.Run(IndxInsertKeyIntoNode(climb, pLeaf, position, pKey));
    if (!bInserted)
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Could not insert key into node");
    return bInserted;
}

// From the root down to the leaf where the key belongs.
NimBool DescendAndInsert(IndxCursor* pCursor, const IndxKeyInfo* pKey)
{
    uint32_t tNode = pCursor->oField->roots.tRoot;
    const uint32_t limit = BlckBlockLimit(pCursor->oField->oTable->oBlck);
    for (uint32_t levels = 1; levels <= limit; ++levels) {
        bool bInMemory = false;
        const uint8_t* pNode = IndxReadNodeToChange(&bInMemory, pCursor, tNode);
        if (!pNode)
            break;
        int32_t index = 0;
        if (IndxSearchNode(&index, pCursor, pNode, pKey)) {
            INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Key already exists");
            pCursor->result = INDX_RESULT_FOUND;
            IndxEndReading(&pNode, pCursor);
            return FALSE;
        }
        if (index == INDX_POSITION_DAMAGED)
            break;
        if (NodeIsLeaf(pNode)) {
            uint8_t* pLeaf = IndxNodeToChange(pCursor, tNode, pNode, bInMemory);
            if (!pLeaf)
                break;
            const NimBool bInserted = InsertIntoLeaf(pCursor, pLeaf, index, pKey, levels);
            // The steps have released what they changed.
            IndxReleaseNodeFrom(&pLeaf, pCursor, bInserted, NodeCount(pLeaf));
            return bInserted;
        }
        tNode = IndxChildAt(pNode, index - 1);
        IndxEndReading(&pNode, pCursor);
    }
    IndxReportDamage(pCursor, tNode);
    return FALSE;
}

} // namespace

NimBool IndxInsertKey(IndxCursor* pCursor, uint32_t fileOffset, const ObjData* pRecord)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxInsertKey(%p, %ld, %p)", static_cast<void*>(pCursor), fileOffset,
        static_cast<void*>(const_cast<ObjData*>(pRecord)));
    IndxRecordKey key;
    if (!key.Take(pCursor, pRecord)) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Failed to fill in key info");
        return FALSE;
    }
    const uint32_t tRoot = pCursor->oField->roots.tRoot;
    INDX_TRACE(INDX_DETAIL, "Root node is %ld set file offset to %ld", tRoot, fileOffset);
    key.get()->fileOffset = fileOffset;
    const NimBool bInserted = tRoot == INDX_NO_NODE ? CreateRoot(pCursor, key.get())
                                                    : DescendAndInsert(pCursor, key.get());
    if (bInserted)
        IndxInvalidateCursors(pCursor);
    else
        INDX_TRACE_ERROR(INDX_ALWAYS, "Could not modify index");
    return bInserted;
}
