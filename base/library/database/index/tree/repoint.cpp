// repoint.cpp: a key that a modification leaves as it is. Most modifications change one field of
// many, and most records stay where they are: taking such a key out and entering it again would
// bring a node into memory, move half of it twice and write it, to leave it as it was.
//
// The short way is gone only where the long one provably ends in the same node with the same
// entries: the key stands in its leaf behind another one, so that no parent learns of it, or the
// leaf is the root and holds other keys. Everything else, damage and traced steps included, is left
// to the long way, which has the messages.

#include "database/block/blockstore.h"
#include "database/index/tree/key.h"
#include "database/index/tree/node.h"
#include "nim/scope.h"

namespace {

// Where the key of a record stands.
struct Place {
    uint32_t tLeaf;
    const uint8_t* pLeaf;
    bool bInMemory;
    int32_t position;
};

// Whether an entry comes back to its place when it is taken out and entered again.
bool ReturnsToItsPlace(const IndxCursor* pCursor, const Place& place)
{
    const bool bRoot = place.tLeaf == pCursor->oField->roots.tRoot;
    return bRoot ? NodeCount(place.pLeaf) > 1 : place.position > 0;
}

// From the root down to the key. A branch that holds the key itself leads to it as the first of its
// leaf, or the tree is damaged: neither is for the short way.
bool FindPlace(Place* pPlace, IndxCursor* pCursor, const IndxKeyInfo* pKey)
{
    pPlace->tLeaf = pCursor->oField->roots.tRoot;
    for (uint32_t left = BlckBlockLimit(pCursor->oField->oTable->oBlck); left > 0; --left) {
        pPlace->pLeaf = IndxReadNode(&pPlace->bInMemory, pCursor, pPlace->tLeaf);
        if (!pPlace->pLeaf)
            return false;
        const NimBool bFound = IndxSearchNode(&pPlace->position, pCursor, pPlace->pLeaf, pKey);
        if (pPlace->position == INDX_POSITION_DAMAGED)
            return false;
        if (NodeIsLeaf(pPlace->pLeaf)) {
            return bFound &&
                   EntryId(NodeEntry(pPlace->pLeaf, pPlace->position)) == pKey->recordId &&
                   ReturnsToItsPlace(pCursor, *pPlace);
        }
        if (bFound)
            return false;
        pPlace->tLeaf = IndxChildAt(pPlace->pLeaf, pPlace->position - 1);
    }
    return false;
}

} // namespace

bool IndxRepointKey(
    IndxCursor* pCursor, const ObjData* pOld, const ObjData* pNew, uint32_t newOffset)
{
    IndxRecordKey key;
    Place place = {};
    if (NIM_TRACES(INDX_DETAIL) || pCursor->oField->roots.tRoot == INDX_NO_NODE ||
        !IndxHaveSameKey(pCursor->oField, pOld, pNew) || !key.Take(pCursor, pOld) ||
        !FindPlace(&place, pCursor, key.get()))
        return false;
    if (EntryPointer(NodeEntry(place.pLeaf, place.position)) != newOffset) {
        uint8_t* pLeaf = IndxNodeToChange(pCursor, place.tLeaf, place.pLeaf, place.bInMemory);
        if (!pLeaf)
            return false;
        PutU32(NodeEntry(pLeaf, place.position) + INDX_ENTRY_POINTER, newOffset);
        IndxReleaseNodeFrom(&pLeaf, pCursor, TRUE, NodeCount(pLeaf));
    }
    IndxInvalidateCursors(pCursor); // as they are after the long way
    return true;
}
