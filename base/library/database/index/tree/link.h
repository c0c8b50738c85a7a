// link.h: from a node to its parent and its neighbours, and into and out of its level. Every link
// is a word from the file: it is followed only to a node that links back.
#pragma once

#include "database/index/ground/shapes.h"

// The parent of a node, checked to be a branch that holds an entry for it, to be changed, and that
// entry's position; null: damage, reported.
uint8_t* IndxGetParent(int32_t* pPosition, IndxCursor* pCursor, const uint8_t* pNode);

// The neighbour of a leaf (`link` is INDX_NODE_NEXT or INDX_NODE_PREVIOUS), to be read, checked to
// be a leaf with entries that links back; null: damage, reported.
const uint8_t* IndxReadNeighbour(IndxCursor* pCursor, uint32_t tFrom, uint32_t tTo, uint32_t link);

// Whether a leaf without a neighbour behind `link` is the end of the level that the index knows.
bool IndxIsEndLeaf(const IndxCursor* pCursor, uint32_t tLeaf, uint32_t link);

// Puts a new node next to `pNode` on its level, in the direction of `link`. The end of a level of
// leaves is also known to the index. False: damage, reported, or no change possible; to be backed
// out.
[[nodiscard]] bool
IndxLinkBeside(IndxCursor* pCursor, uint8_t* pNode, uint8_t* pNew, uint32_t link);

// Takes a node out of its level: its neighbours learn of each other, or the index does. False as
// above.
[[nodiscard]] bool IndxUnlink(IndxCursor* pCursor, const uint8_t* pNode);
