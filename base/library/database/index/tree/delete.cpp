// delete.cpp: taking one record's key out of one index. Nodes are never merged: a node leaves the
// tree when its last entry goes, and then its parent loses the entry that pointed to it. The height
// never shrinks except to nothing, when the last key goes.
//
// Nothing is undone here: a failure leaves half a change in memory, which the caller backs out.

#include "database/index/tree/delete.h"

#include <cassert>

#include "database/block/blockstore.h"
#include "database/index.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/runtime.h"
#include "database/index/tree/climb.h"
#include "database/index/tree/descend.h"
#include "database/index/tree/insert.h"
#include "database/index/tree/key.h"
#include "database/index/tree/link.h"
#include "database/index/tree/node.h"
#include "database/index/tree/position.h"

namespace {

bool StepDelete(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);

bool Failed()
{
    INDX_TRACE_ERROR(INDX_NODE_FAILURE, "Failed to delete key from node");
    return false;
}

bool FinishDelete(IndxClimb&, uint8_t*, const IndxKeyInfo*, bool bResult)
{
    return bResult ? true : Failed();
}

// The parent no longer points to the emptied node, whose block may be used again.
bool FinishEmptied(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo*, bool bResult)
{
    IndxDiscardNode(&pNode, climb.Cursor());
    return bResult;
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
bool RemoveEmptied(IndxClimb& climb, uint8_t* pNode)
{
    IndxCursor* pCursor = climb.Cursor();
    int32_t position = 0;
    uint8_t* pParent = nullptr;
    if (!IndxUnlink(pCursor, pNode) || !(pParent = IndxGetParent(&position, pCursor, pNode)))
        return false;
    return climb.Push(FinishEmptied, pNode, nullptr) &&
           climb.Next(StepDelete, pParent, position, nullptr);
}

// What the removal of an entry means for the levels above.
bool DeleteEntry(IndxClimb& climb, uint8_t* pNode, int32_t position)
{
    IndxCursor* pCursor = climb.Cursor();
    if (!IndxRemoveEntry(pCursor, pNode, position))
        return false;
    const bool bRoot = IsRoot(pCursor, pNode);
    if (NodeCount(pNode) == 0) {
        if (!bRoot)
            return RemoveEmptied(climb, pNode);
        EmptyIndex(pCursor, pNode);
        return true;
    }
    if (position > 0 || bRoot)
        return true;
    return IndxRekeyParent(climb, pNode);
}

void TraceDelete(const IndxCursor* pCursor, uint32_t tNode, int32_t position)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxDeleteKeyFromNode(%p, %ld, %ld)",
        static_cast<void*>(const_cast<IndxCursor*>(pCursor)), tNode, position);
}

bool DeleteFrom(IndxClimb& climb, uint8_t* pNode, int32_t position)
{
    // The frame speaks for whatever fails here or above.
    return climb.Push(FinishDelete, nullptr, nullptr) ? DeleteEntry(climb, pNode, position)
                                                      : Failed();
}

// The same in the parent of a node that was emptied.
bool StepDelete(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo*)
{
    TraceDelete(climb.Cursor(), NodeId(pNode), position);
    return DeleteFrom(climb, pNode, position);
}

// The body of IndxDeleteKeyFromNode, for a node so many levels below the root, or fewer.
bool DeleteFromNode(IndxCursor* pCursor, uint32_t tNode, int32_t position, uint32_t levels)
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

bool DescendAndDelete(IndxCursor* pCursor, const IndxKeyInfo* pKey)
{
    IndxPlace place;
    if (!IndxDescend(&place, pCursor, pKey, IndxFor::TakingOut))
        return false;
    if (!place.bFound || IsOtherRecords(pCursor, place.pNode, place.position, pKey)) {
        pCursor->result = INDX_RESULT_NOT_FOUND;
        IndxReleaseNode(&place.pNode, pCursor);
        return false;
    }
    const bool bDeleted = DeleteFromNode(pCursor, place.tNode, place.position, place.levels);
    IndxInvalidateCursors(pCursor);
    return bDeleted;
}

} // namespace

bool IndxDeleteKeyFromNode(IndxCursor* pCursor, uint32_t tNode, int32_t position)
{
    return DeleteFromNode(pCursor, tNode, position, BlckBlockLimit(pCursor->oField->oTable->oBlck));
}

bool IndxDeleteKey(IndxCursor* pCursor, const ObjData* pRecord)
{
    // The doubled letter stands in the text that operators search for.
    INDX_TRACE(
        INDX_DETAIL, "IndxDeletetKey(%p, %p)", static_cast<void*>(pCursor),
        static_cast<void*>(const_cast<ObjData*>(pRecord)));
    bool bDeleted = false;
    IndxKeyInfo key; // needed no longer than the record, whose bytes it borrows
    if (IndxGetKeyInfoFromRecord(&key, pCursor, pRecord)) {
        if (pCursor->oField->roots.tRoot == INDX_NO_NODE)
            pCursor->result = INDX_RESULT_NOT_FOUND;
        else
            bDeleted = DescendAndDelete(pCursor, &key);
    }
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxDeleteKey(%p, %p)", IndxTruth(bDeleted), static_cast<void*>(pCursor),
        static_cast<void*>(const_cast<ObjData*>(pRecord)));
    return bDeleted;
}
