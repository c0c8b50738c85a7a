// nodesearch.h: where a key stands, or belongs, in one node.
#pragma once

#include "database/index/ground/shapes.h"

constexpr int32_t INDX_POSITION_DAMAGED = INT32_MIN;

// Whether the key stands in the node, and where it stands or belongs. INDX_POSITION_DAMAGED and
// false when an entry that had to be looked at cannot be believed.
bool IndxSearchNode(
    int32_t* pIndex, IndxCursor* pCursor, const uint8_t* pNode, const IndxKeyInfo* pKey);

// Whether an entry of a leaf, taken out, would be entered at its own position again: in an order
// that is none (nodesearch.cpp) it need not be. `pKey` is the key that stands there.
bool IndxReturnsToPosition(
    const IndxCursor* pCursor, const uint8_t* pLeaf, int32_t position, const IndxKeyInfo* pKey);
