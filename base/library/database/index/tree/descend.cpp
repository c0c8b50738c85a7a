// descend.cpp: from the root to a leaf. A branch entry carries the lowest key of its child: the way
// goes through the entry that holds the key, else through the one before the place where it
// belongs, else through the first.

#include "database/index/tree/descend.h"

#include "database/block/blockstore.h"
#include "database/index/ground/damage.h"
#include "database/index/tree/node.h"
#include "database/index/tree/nodesearch.h"

namespace {

// One node of the way, searched. False: not to be had, or not to be believed.
bool Visit(IndxPlace* pPlace, IndxCursor* pCursor, const IndxKeyInfo* pKey, IndxFor what)
{
    pPlace->pNode = IndxReadNode(&pPlace->bInMemory, pCursor, pPlace->tNode);
    if (!pPlace->pNode)
        return false;
    if (what != IndxFor::Reading && NodeIsLeaf(pPlace->pNode)) {
        pPlace->pNode = IndxNodeToChange(pCursor, pPlace->tNode, pPlace->pNode, pPlace->bInMemory);
        pPlace->bInMemory = true;
        if (!pPlace->pNode)
            return false;
    }
    pPlace->bFound = IndxSearchNode(&pPlace->position, pCursor, pPlace->pNode, pKey);
    return pPlace->position != INDX_POSITION_DAMAGED;
}

// A tree has no more levels than the file has blocks; a descent that takes more runs in a cycle.
// Few trees have more than three levels, so the file is asked late.
bool MayGoDown(uint32_t levels, const IndxCursor* pCursor)
{
    constexpr uint32_t FEW = 16;
    return levels < FEW || levels < BlckBlockLimit(pCursor->oField->oTable->oBlck);
}

} // namespace

bool IndxDescend(IndxPlace* pPlace, IndxCursor* pCursor, const IndxKeyInfo* pKey, IndxFor what)
{
    *pPlace = {};
    pPlace->tNode = pCursor->oField->roots.tRoot;
    while (MayGoDown(pPlace->levels, pCursor) && Visit(pPlace, pCursor, pKey, what)) {
        ++pPlace->levels;
        if (NodeIsLeaf(pPlace->pNode) || (pPlace->bFound && what == IndxFor::Entering))
            return true;
        pPlace->bInBranch = pPlace->bInBranch || pPlace->bFound;
        const int32_t entry = pPlace->bFound ? pPlace->position : pPlace->position - 1;
        pPlace->tNode = IndxChildAt(pPlace->pNode, entry);
        IndxReleaseNode(&pPlace->pNode, pCursor);
    }
    IndxReportDamage(pCursor, pPlace->tNode);
    return false;
}
