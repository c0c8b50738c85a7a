// repoint.cpp: a key that a modification leaves as it is. Most modifications change one field of
// many, and most records stay where they are: taking such a key out and entering it again would
// bring a node into memory, move half of it twice and write it, to leave it as it was.
//
// The key is left where it is only if taking it out and entering it again provably ends in the same
// node with the same entries:
// - No parent learns of it: the key stands in its leaf behind another one, or the leaf is the root
//   and holds other keys. Then no branch changes, and a descent that enters the key compares what
//   the one that found it has compared, and ends in the same leaf.
// - In the leaf the search for its place, among the others, ends where it stands. In a total order
// that
//   is always so; ids and integers more than 2^31 apart have none.

#include "database/index/tree/repoint.h"

#include "database/index/tree/descend.h"
#include "database/index/tree/key.h"
#include "database/index/tree/node.h"
#include "database/index/tree/nodesearch.h"
#include "database/index/tree/position.h"

namespace {

// Whether an entry comes back to its place when it is taken out and entered again.
bool ReturnsToItsPlace(const IndxCursor* pCursor, const IndxPlace& place, const IndxKeyInfo* pKey)
{
    const bool bRoot = place.levels == 1;
    return (bRoot ? NodeCount(place.pNode) > 1 : place.position > 0) &&
           IndxReturnsToPosition(pCursor, place.pNode, place.position, pKey);
}

// Finds the key where it may stay. A branch that holds the key itself leads to it as the first of
// its leaf, or the tree is damaged: neither is for this room.
bool FindPlace(IndxPlace* pPlace, IndxCursor* pCursor, const IndxKeyInfo* pKey)
{
    return IndxDescend(pPlace, pCursor, pKey, IndxFor::Reading) && pPlace->bFound &&
           !pPlace->bInBranch &&
           EntryId(NodeEntry(pPlace->pNode, pPlace->position)) == pKey->recordId &&
           ReturnsToItsPlace(pCursor, *pPlace, pKey);
}

} // namespace

bool IndxRepointKey(
    IndxCursor* pCursor, const ObjData* pOld, const ObjData* pNew, uint32_t newOffset)
{
    IndxKeyInfo key;
    IndxPlace place;
    if (pCursor->oField->roots.tRoot == INDX_NO_NODE ||
        !IndxHaveSameKey(pCursor->oField, pOld, pNew) ||
        !IndxGetKeyInfoFromRecord(&key, pCursor, pOld) || !FindPlace(&place, pCursor, &key))
        return false;
    if (EntryPointer(NodeEntry(place.pNode, place.position)) != newOffset) {
        uint8_t* pLeaf = IndxNodeToChange(pCursor, place.tNode, place.pNode, place.bInMemory);
        if (!pLeaf || !IndxSetEntryPointer(pLeaf, place.position, newOffset))
            return false;
        IndxReleaseNode(&pLeaf, pCursor, true);
    }
    IndxInvalidateCursors(pCursor); // as they are when a key has left and entered
    return true;
}
