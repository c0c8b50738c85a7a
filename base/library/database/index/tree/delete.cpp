// delete.cpp: taking one record's key out of one index. Nodes are never merged: a node leaves the
// tree when its last entry goes, and then its parent loses the entry that pointed to it. The height
// never shrinks except to nothing, when the last key goes.
//
// Nothing is undone here: a failure leaves half a change in memory, which the caller backs out.

#include <cassert>

#include "database/block/blockstore.h"
#include "database/index/tree/climb.h"
#include "database/index/tree/key.h"
#include "database/index/tree/node.h"
#include "nim/scope.h"

namespace {

NimBool StepDelete(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);

NimBool Failed()
{
    INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Failed to delete key from node");
    return FALSE;
}

NimBool FinishDelete(IndxClimb&, uint8_t*, const IndxKeyInfo*, NimBool bResult)
{
    return bResult ? TRUE : Failed();
}

// The parent no longer points to the emptied node, whose block may be used again.
NimBool FinishEmptied(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo*, NimBool bResult)
{
    IndxDiscardNode(&pNode, climb.Cursor());
    return bResult;
}

// One neighbour of a node that leaves its level learns the other one's id, or the index does.
NimBool Unlink(IndxCursor* pCursor, const uint8_t* pNode, uint32_t link)
{
    const bool bNext = link == INDX_NODE_NEXT;
    const uint32_t back = bNext ? INDX_NODE_PREVIOUS : INDX_NODE_NEXT;
    const uint32_t tNeighbour = NodeWord(pNode, link);
    const uint32_t tOther = NodeWord(pNode, back);
    if (tNeighbour == INDX_NO_NODE) {
        if (NodeIsLeaf(pNode)) {
            IndxRoots& roots = pCursor->oField->roots;
            if (!IsEndLeaf(pCursor, NodeId(pNode), link)) {
                IndxReportDamage(pCursor, NodeId(pNode));
                return FALSE;
            }
            (bNext ? roots.tLastLeaf : roots.tFirstLeaf) = tOther;
            IndxSetTableModified(pCursor->oField->oTable);
        }
        return TRUE;
    }
    uint8_t* pNeighbour = nullptr;
    IndxGetNode(&pNeighbour, pCursor, tNeighbour);
    if (!pNeighbour || NodeIsLeaf(pNeighbour) != NodeIsLeaf(pNode) ||
        NodeWord(pNeighbour, back) != NodeId(pNode)) {
        IndxReportDamage(pCursor, tNeighbour);
        return FALSE;
    }
    SetNodeWord(pNeighbour, back, tOther);
    IndxReleaseNode(&pNeighbour, pCursor, TRUE);
    return TRUE;
}

// The last key of the index has gone.
void EmptyIndex(IndxCursor* pCursor, uint8_t* pRoot)
{
    pCursor->oField->roots = {INDX_NO_NODE, INDX_NO_NODE, INDX_NO_NODE};
    pCursor->oField->levels = 0;
    IndxSetTableModified(pCursor->oField->oTable);
    IndxDiscardNode(&pRoot, pCursor);
}

// Takes an emptied node out of its level and goes on with its entry in the parent.
NimBool RemoveEmptied(IndxClimb& climb, uint8_t* pNode)
{
    IndxCursor* pCursor = climb.Cursor();
    if (!Unlink(pCursor, pNode, INDX_NODE_PREVIOUS) || !Unlink(pCursor, pNode, INDX_NODE_NEXT))
        return FALSE;
    uint8_t* pParent = nullptr;
    IndxGetNode(&pParent, pCursor, NodeParent(pNode));
    const int32_t position =
        pParent && !NodeIsLeaf(pParent) ? IndxFindChild(pParent, NodeId(pNode)) : -1;
    if (position < 0) {
        IndxReportDamage(pCursor, NodeParent(pNode));
        return FALSE;
    }
    return climb.Push(FinishEmptied, pNode, nullptr) &&
           climb.Next(StepDelete, pParent, position, nullptr);
}

// What the removal of an entry means for the levels above.
NimBool DeleteEntry(IndxClimb& climb, uint8_t* pNode, int32_t position)
{
    IndxCursor* pCursor = climb.Cursor();
    if (!IndxRemoveEntry(pCursor, pNode, position))
        return FALSE;
    uint8_t* pChanged = pNode;
    IndxReleaseNodeFrom(&pChanged, pCursor, TRUE, position);
    const bool bRoot = IsRoot(pCursor, pNode);
    if (NodeCount(pNode) == 0) {
        if (!bRoot)
            return RemoveEmptied(climb, pNode);
        EmptyIndex(pCursor, pNode);
        return TRUE;
    }
    if (position > 0 || bRoot)
        return TRUE;
    return IndxRekeyParent(climb, pNode);
}

void TraceDelete(const IndxCursor* pCursor, uint32_t tNode, int32_t position)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxDeleteKeyFromNode(%p, %ld, %ld)",
        static_cast<void*>(const_cast<IndxCursor*>(pCursor)), tNode, position);
}

NimBool DeleteFrom(IndxClimb& climb, uint8_t* pNode, int32_t position)
{
    // The frame speaks for whatever fails here or above.
    return climb.Push(FinishDelete, nullptr, nullptr) ? DeleteEntry(climb, pNode, position)
                                                      : Failed();
}

// The same in the parent of a node that was emptied.
NimBool StepDelete(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo*)
{
    TraceDelete(climb.Cursor(), NodeId(pNode), position);
    return DeleteFrom(climb, pNode, position);
}

// The body of IndxDeleteKeyFromNode, for a node so many levels below the root, or fewer.
NimBool DeleteFromNode(IndxCursor* pCursor, uint32_t tNode, int32_t position, uint32_t levels)
{
    TraceDelete(pCursor, tNode, position);
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, pCursor, tNode);
    if (!pNode || position < 0 || position >= NodeCount(pNode))
        return Failed();
    IndxClimb climb(pCursor, levels);
    return climb.Run(DeleteFrom(climb, pNode, position));
}

// An entry of a unique index is this record's only if it carries its id: the same value may have
// been taken over by another record.
bool IsOtherRecords(
    const IndxCursor* pCursor, const uint8_t* pLeaf, int32_t index, const IndxKeyInfo* pKey)
{
    return pCursor->oField->bUnique && EntryId(NodeEntry(pLeaf, index)) != pKey->recordId;
}

// From the root down to the leaf that holds the key.
NimBool DescendAndDelete(IndxCursor* pCursor, const IndxKeyInfo* pKey)
{
    uint32_t tNode = pCursor->oField->roots.tRoot;
    const uint32_t limit = BlckBlockLimit(pCursor->oField->oTable->oBlck);
    for (uint32_t levels = 1; levels <= limit; ++levels) {
        bool bInMemory = false;
        const uint8_t* pNode = IndxReadNodeToChange(&bInMemory, pCursor, tNode);
        if (!pNode)
            break;
        int32_t index = 0;
        const NimBool bFound = IndxSearchNode(&index, pCursor, pNode, pKey);
        if (index == INDX_POSITION_DAMAGED)
            break;
        if (NodeIsLeaf(pNode)) {
            if (!bFound || IsOtherRecords(pCursor, pNode, index, pKey)) {
                pCursor->result = INDX_RESULT_NOT_FOUND;
                IndxEndReading(&pNode, pCursor);
                return FALSE;
            }
            const NimBool bDeleted = DeleteFromNode(pCursor, tNode, index, levels);
            IndxInvalidateCursors(pCursor);
            return bDeleted;
        }
        tNode = IndxChildAt(pNode, bFound ? index : index - 1);
        IndxEndReading(&pNode, pCursor);
    }
    IndxReportDamage(pCursor, tNode);
    return FALSE;
}

} // namespace

NimBool IndxDeleteKeyFromNode(IndxCursor* pCursor, uint32_t tNode, int32_t position)
{
    return DeleteFromNode(pCursor, tNode, position, BlckBlockLimit(pCursor->oField->oTable->oBlck));
}

NimBool IndxDeleteKey(IndxCursor* pCursor, const ObjData* pRecord)
{
    // The doubled letter stands in the text that operators search for.
    INDX_TRACE(
        INDX_DETAIL, "IndxDeletetKey(%p, %p)", static_cast<void*>(pCursor),
        static_cast<void*>(const_cast<ObjData*>(pRecord)));
    NimBool bDeleted = FALSE;
    IndxRecordKey key;
    if (key.Take(pCursor, pRecord)) {
        if (pCursor->oField->roots.tRoot == INDX_NO_NODE)
            pCursor->result = INDX_RESULT_NOT_FOUND;
        else
            bDeleted = DescendAndDelete(pCursor, key.get());
    }
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxDeleteKey(%p, %p)", IndxTruth(bDeleted), static_cast<void*>(pCursor),
        static_cast<void*>(const_cast<ObjData*>(pRecord)));
    return bDeleted;
}
