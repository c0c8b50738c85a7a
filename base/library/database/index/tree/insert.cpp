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

#include "database/index/tree/insert.h"

#include <algorithm>
#include <cassert>

#include "database/index.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/runtime.h"
#include "database/index/tree/descend.h"
#include "database/index/tree/key.h"
#include "database/index/tree/link.h"
#include "database/index/tree/node.h"
#include "database/index/tree/position.h"
#include "nim/scope.h"

namespace {

// The lowest key of a node, to be entered into its parent.
IndxKeyInfo* LowestKey(IndxCursor* pCursor, const uint8_t* pNode)
{
    IndxKeyInfo* pKey = nullptr;
    return IndxGetKeyInfoFromNode(&pKey, pCursor, pNode) ? pKey : nullptr;
}

// A new root over two nodes. Their lowest keys must fit into it together.
bool MakeRoot(IndxCursor* pCursor, uint8_t* pLeft, uint8_t* pRight)
{
    const HeldObject<IndxKeyInfo> left(LowestKey(pCursor, pLeft));
    const HeldObject<IndxKeyInfo> right(LowestKey(pCursor, pRight));
    if (!left || !right ||
        IndxKeyLength(left.get()) + IndxKeyLength(right.get()) + 2 * INDX_ENTRY_SIZE >
            INDX_NODE_ROOM)
        return false;
    uint8_t* pRoot = nullptr;
    const int32_t tRoot = IndxNewNode(&pRoot, pCursor);
    if (!pRoot)
        return false;
    // Puts the root in as the parent of both.
    if (!IndxPutKeyIntoNode(pCursor, pRoot, 0, left.get()) ||
        !IndxPutKeyIntoNode(pCursor, pRoot, 1, right.get()) || !IndxSetNodeCount(pRoot, 2))
        return false;
    pCursor->oField->roots.tRoot = static_cast<uint32_t>(tRoot);
    ++pCursor->oField->levels;
    IndxSetTableModified(pCursor->oField->oTable);
    IndxReleaseNode(&pRoot, pCursor, true);
    return true;
}

bool FinishAdd(IndxClimb&, uint8_t*, const IndxKeyInfo*, bool bResult)
{
    if (!bResult)
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Failed to add key to existing node");
    return bResult;
}

bool FinishSplitLeft(IndxClimb&, uint8_t*, const IndxKeyInfo*, bool bResult)
{
    if (!bResult)
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Failed to split left");
    return bResult;
}

bool FinishSplitRight(IndxClimb&, uint8_t*, const IndxKeyInfo*, bool bResult)
{
    if (!bResult)
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Failed to split right");
    return bResult;
}

// The levels above a full parent have been re-keyed: now its new lowest key goes in front of it.
bool FinishRekey(IndxClimb& climb, uint8_t* pParent, const IndxKeyInfo* pKey, bool bResult)
{
    return bResult ? IndxSplitLeft(climb, pParent, pKey) : false;
}

bool StepFixup(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo*)
{
    return IndxFixupParent(climb, position, pNode);
}

} // namespace

bool IndxInsertKeyIntoNode(
    IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "IndxInsertKeyIntoNode()");
    if (IndxHasRoom(pNode, IndxKeyLength(pKey)))
        return IndxAddKeyIntoExistingNode(climb, pNode, position, pKey);
    return position == 0 ? IndxSplitLeft(climb, pNode, pKey)
                         : IndxSplitRight(climb, pNode, position, pKey);
}

bool IndxAddKeyIntoExistingNode(
    IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "IndxAddKeyIntoExistingNode()");
    IndxCursor* pCursor = climb.Cursor();
    const int32_t count = NodeCount(pNode);
    assert(position >= 0 && position <= count && IndxHasRoom(pNode, IndxKeyLength(pKey)));
    const auto start = static_cast<int32_t>(IndxHeapBefore(pNode, position) + IndxKeyLength(pKey));
    bool bResult =
        IndxMoveEntries(pCursor, pNode, position + 1, pNode, position, count - position, start) &&
        IndxPutKeyIntoNode(pCursor, pNode, position, pKey) && IndxSetNodeCount(pNode, count + 1);
    if (bResult) {
        const bool bGoesUp = position == 0 && !IsRoot(pCursor, pNode);
        bResult = !bGoesUp || climb.Push(FinishAdd, nullptr, nullptr);
        if (bResult)
            return IndxFixupParent(climb, position, pNode);
    }
    return FinishAdd(climb, nullptr, nullptr, false);
}

namespace {

// Enters the lowest key of a new node into the parent of the node it came from, `offset` entries
// behind that node's own, or puts a new root over the two.
bool EnterNewNode(IndxClimb& climb, uint8_t* pNode, uint8_t* pNew, IndxFinish finish, bool bLeft)
{
    IndxCursor* pCursor = climb.Cursor();
    if (IsRoot(pCursor, pNode))
        return bLeft ? MakeRoot(pCursor, pNew, pNode) : MakeRoot(pCursor, pNode, pNew);
    int32_t position = 0;
    uint8_t* pParent = IndxGetParent(&position, pCursor, pNode);
    HeldObject<IndxKeyInfo> key(pParent ? LowestKey(pCursor, pNew) : nullptr);
    if (!key)
        return false;
    // Named before the frame is pushed, so that a failure here is traced by the caller alone.
    const int32_t place = bLeft ? position : position + 1;
    return climb.Next(IndxInsertKeyIntoNode, pParent, place, key.Take()) &&
           climb.Push(finish, nullptr, nullptr);
}

// The body of IndxSplitLeft.
bool SplitLeft(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey)
{
    IndxCursor* pCursor = climb.Cursor();
    uint8_t* pNew = nullptr;
    IndxNewNode(&pNew, pCursor);
    if (!pNew || !IndxLinkBeside(pCursor, pNode, pNew, INDX_NODE_PREVIOUS) ||
        !IndxPutKeyIntoNode(pCursor, pNew, 0, pKey) || !IndxSetNodeCount(pNew, 1))
        return false;
    return EnterNewNode(climb, pNode, pNew, FinishSplitLeft, true);
}

// Moves the entries from `position` on to the new right node and puts the key on whichever side
// keeps more room.
bool DivideRight(
    IndxCursor* pCursor, uint8_t* pNode, uint8_t* pRight, int32_t position, const IndxKeyInfo* pKey,
    bool bKeyLeft)
{
    const int32_t moved = NodeCount(pNode) - position;
    if (bKeyLeft) {
        if (!IndxMoveEntries(pCursor, pRight, 0, pNode, position, moved, 0) ||
            !IndxPutKeyIntoNode(pCursor, pNode, position, pKey))
            return false;
        return IndxSetNodeCount(pRight, moved) && IndxSetNodeCount(pNode, position + 1);
    }
    if (!IndxPutKeyIntoNode(pCursor, pRight, 0, pKey) ||
        !IndxMoveEntries(
            pCursor, pRight, 1, pNode, position, moved,
            static_cast<int32_t>(IndxHeapBefore(pRight, 1))))
        return false;
    return IndxSetNodeCount(pRight, moved + 1) && IndxSetNodeCount(pNode, position);
}

// The body of IndxSplitRight.
bool SplitRight(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    IndxCursor* pCursor = climb.Cursor();
    if (IndxHeapBefore(pNode, position) > IndxHeapBefore(pNode, NodeCount(pNode))) {
        IndxReportDamage(pCursor, NodeId(pNode));
        return false;
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
        return false; // room on neither side: only with keys above 8152 bytes
    uint8_t* pRight = nullptr;
    IndxNewNode(&pRight, pCursor);
    if (!pRight || !IndxLinkBeside(pCursor, pNode, pRight, INDX_NODE_NEXT) ||
        !DivideRight(pCursor, pNode, pRight, position, pKey, rightFree <= leftFree))
        return false;
    INDX_TRACE(
        INDX_DETAIL, "tNode %ld entries, tRightNode %ld entries", NodeCount(pNode),
        NodeCount(pRight));
    return EnterNewNode(climb, pNode, pRight, FinishSplitRight, false);
}

} // namespace

// A key that belongs before every key of a full node gets a node of its own, to the left.
bool IndxSplitLeft(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "IndxSplitLeft()");
    return SplitLeft(climb, pNode, pKey) ? true : FinishSplitLeft(climb, nullptr, nullptr, false);
}

bool IndxSplitRight(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "IndxSplitRight()");
    return SplitRight(climb, pNode, position, pKey)
               ? true
               : FinishSplitRight(climb, nullptr, nullptr, false);
}

bool IndxFixupParent(IndxClimb& climb, int32_t position, uint8_t* pNode)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxFixupParent(%p, %ld, %p) %ld", static_cast<void*>(climb.Cursor()),
        position, static_cast<void*>(pNode), NodeParent(pNode));
    if (position != 0 || IsRoot(climb.Cursor(), pNode))
        return true;
    return IndxRekeyParent(climb, pNode);
}

bool IndxRekeyParent(IndxClimb& climb, uint8_t* pNode)
{
    IndxCursor* pCursor = climb.Cursor();
    int32_t position = 0;
    uint8_t* pParent = IndxGetParent(&position, pCursor, pNode);
    if (!pParent || !IndxRemoveEntry(pCursor, pParent, position))
        return false;
    HeldObject<IndxKeyInfo> key(LowestKey(pCursor, pNode));
    if (!key)
        return false;
    if (position > 0 || IndxHasRoom(pParent, IndxKeyLength(key.get())))
        return climb.Next(IndxInsertKeyIntoNode, pParent, position, key.Take());
    // The parent is full and its own lowest key has gone: the grandparent must learn the present
    // one first, or the new node would be entered there in front of a key that is too small.
    return climb.Next(StepFixup, pParent, 0, nullptr) &&
           climb.Push(FinishRekey, pParent, key.Take(), true);
}

namespace {

// The first key of an index makes a one-leaf tree.
bool CreateRoot(IndxCursor* pCursor, const IndxKeyInfo* pKey)
{
    INDX_TRACE(INDX_DETAIL, "Create a root node");
    uint8_t* pRoot = nullptr;
    const int32_t tNew = IndxNewNode(&pRoot, pCursor);
    if (!pRoot)
        return false;
    const auto tRoot = static_cast<uint32_t>(tNew);
    pCursor->oField->roots = {tRoot, tRoot, tRoot};
    pCursor->oField->levels = 1;
    IndxSetTableModified(pCursor->oField->oTable);
    if (!IndxSetNodeWord(pRoot, INDX_NODE_LEAF, 1) ||
        !IndxPutKeyIntoNode(pCursor, pRoot, 0, pKey) || !IndxSetNodeCount(pRoot, 1))
        return false;
    IndxReleaseNode(&pRoot, pCursor, true);
    return true;
}

// The key belongs into this leaf, at this position; so many nodes lie on the way from the root.
bool InsertIntoLeaf(
    IndxCursor* pCursor, uint8_t* pLeaf, int32_t position, const IndxKeyInfo* pKey, uint32_t levels)
{
    IndxClimb climb(pCursor, levels);
    const bool bInserted = climb.Run(IndxInsertKeyIntoNode(climb, pLeaf, position, pKey));
    if (!bInserted)
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Could not insert key into node");
    return bInserted;
}

bool DescendAndInsert(IndxCursor* pCursor, const IndxKeyInfo* pKey)
{
    IndxPlace place;
    if (!IndxDescend(&place, pCursor, pKey, IndxFor::Entering))
        return false;
    if (place.bFound) {
        INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Key already exists");
        pCursor->result = INDX_RESULT_FOUND;
        IndxReleaseNode(&place.pNode, pCursor);
        return false;
    }
    auto* pLeaf = const_cast<uint8_t*>(place.pNode); // brought in to be changed
    const bool bInserted = InsertIntoLeaf(pCursor, pLeaf, place.position, pKey, place.levels);
    if (bInserted)
        IndxReleaseNode(&pLeaf, pCursor, true);
    return bInserted;
}

} // namespace

bool IndxInsertKey(IndxCursor* pCursor, uint32_t fileOffset, const ObjData* pRecord)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxInsertKey(%p, %ld, %p)", static_cast<void*>(pCursor), fileOffset,
        static_cast<void*>(const_cast<ObjData*>(pRecord)));
    IndxKeyInfo key; // needed no longer than the record, whose bytes it borrows
    if (!IndxGetKeyInfoFromRecord(&key, pCursor, pRecord)) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Failed to fill in key info");
        return false;
    }
    const uint32_t tRoot = pCursor->oField->roots.tRoot;
    INDX_TRACE(INDX_DETAIL, "Root node is %ld set file offset to %ld", tRoot, fileOffset);
    key.fileOffset = fileOffset;
    const bool bInserted =
        tRoot == INDX_NO_NODE ? CreateRoot(pCursor, &key) : DescendAndInsert(pCursor, &key);
    if (bInserted)
        IndxInvalidateCursors(pCursor);
    else
        INDX_TRACE_ERROR(INDX_ALWAYS, "Could not modify index");
    return bInserted;
}
