// link.cpp: parents and neighbours.

#include "database/index/tree/link.h"

#include "database/index/ground/damage.h"
#include "database/index/ground/layout.h"
#include "database/index/tree/node.h"

namespace {

uint32_t BackOf(uint32_t link)
{
    return link == INDX_NODE_NEXT ? INDX_NODE_PREVIOUS : INDX_NODE_NEXT;
}

// The leaf at the end of the level, as the index knows it, in the direction of a link.
uint32_t* EndLeaf(IndxCursor* pCursor, uint32_t link)
{
    IndxRoots& roots = pCursor->oField->roots;
    return link == INDX_NODE_NEXT ? &roots.tLastLeaf : &roots.tFirstLeaf;
}

// The neighbour of a node on its level, to be changed, checked to be of that level and to link
// back; null: damage, reported.
uint8_t* GetSibling(IndxCursor* pCursor, const uint8_t* pNode, uint32_t link)
{
    uint8_t* pSibling = nullptr;
    IndxGetNode(&pSibling, pCursor, NodeWord(pNode, link));
    if (pSibling && NodeIsLeaf(pSibling) == NodeIsLeaf(pNode) &&
        NodeWord(pSibling, BackOf(link)) == NodeId(pNode))
        return pSibling;
    IndxReportDamage(pCursor, NodeWord(pNode, link));
    return nullptr;
}

// What stands behind a node in the direction of a link, a neighbour or the end of the level, learns
// that `tNew` comes before it now.
bool TellBeyond(IndxCursor* pCursor, const uint8_t* pNode, uint32_t link, uint32_t tNew)
{
    if (NodeWord(pNode, link) != INDX_NO_NODE) {
        uint8_t* pBeyond = GetSibling(pCursor, pNode, link);
        if (!pBeyond || !IndxSetNodeWord(pBeyond, BackOf(link), tNew))
            return false;
        IndxReleaseNode(&pBeyond, pCursor, true);
        return true;
    }
    if (!NodeIsLeaf(pNode))
        return true; // of the levels above the leaves nobody knows the ends
    if (!IndxIsEndLeaf(pCursor, NodeId(pNode), link)) {
        IndxReportDamage(pCursor, NodeId(pNode));
        return false;
    }
    *EndLeaf(pCursor, link) = tNew;
    IndxSetTableModified(pCursor->oField->oTable);
    return true;
}

} // namespace

uint8_t* IndxGetParent(int32_t* pPosition, IndxCursor* pCursor, const uint8_t* pNode)
{
    uint8_t* pParent = nullptr;
    IndxGetNode(&pParent, pCursor, NodeParent(pNode));
    *pPosition = pParent && !NodeIsLeaf(pParent) ? IndxFindChild(pParent, NodeId(pNode)) : -1;
    if (*pPosition >= 0)
        return pParent;
    IndxReportDamage(pCursor, NodeParent(pNode));
    return nullptr;
}

const uint8_t* IndxReadNeighbour(IndxCursor* pCursor, uint32_t tFrom, uint32_t tTo, uint32_t link)
{
    // No leaf comes before the first or behind the last: a link to it closes a ring.
    const bool bRing = tTo == *EndLeaf(pCursor, BackOf(link));
    bool bInMemory = false;
    const uint8_t* pNode = bRing ? nullptr : IndxReadNode(&bInMemory, pCursor, tTo);
    if (pNode && NodeIsLeaf(pNode) && NodeWord(pNode, BackOf(link)) == tFrom &&
        NodeCount(pNode) > 0)
        return pNode;
    IndxReportDamage(pCursor, tTo);
    return nullptr;
}

bool IndxIsEndLeaf(const IndxCursor* pCursor, uint32_t tLeaf, uint32_t link)
{
    const IndxRoots& roots = pCursor->oField->roots;
    return tLeaf == (link == INDX_NODE_NEXT ? roots.tLastLeaf : roots.tFirstLeaf);
}

bool IndxLinkBeside(IndxCursor* pCursor, uint8_t* pNode, uint8_t* pNew, uint32_t link)
{
    const uint32_t tNew = NodeId(pNew);
    return IndxSetNodeWord(pNew, INDX_NODE_PARENT, NodeParent(pNode)) &&
           IndxSetNodeWord(pNew, INDX_NODE_LEAF, NodeWord(pNode, INDX_NODE_LEAF)) &&
           IndxSetNodeWord(pNew, BackOf(link), NodeId(pNode)) &&
           IndxSetNodeWord(pNew, link, NodeWord(pNode, link)) &&
           TellBeyond(pCursor, pNode, link, tNew) && IndxSetNodeWord(pNode, link, tNew);
}

bool IndxUnlink(IndxCursor* pCursor, const uint8_t* pNode)
{
    return TellBeyond(pCursor, pNode, INDX_NODE_PREVIOUS, NodeWord(pNode, INDX_NODE_NEXT)) &&
           TellBeyond(pCursor, pNode, INDX_NODE_NEXT, NodeWord(pNode, INDX_NODE_PREVIOUS));
}
