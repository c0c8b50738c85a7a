// descend.h: the one way down a tree, for finding, entering, taking out and moving a key.
#pragma once

#include <cstdint>

#include "database/index/ground/shapes.h"

// What the descent is for.
enum class IndxFor {
    Reading,  // the leaf is read in place
    Entering, // ends where the key is met, even in a branch: it must not be there yet
    TakingOut
};

// Where a descent ended.
struct IndxPlace {
    uint32_t tNode;
    const uint8_t* pNode;
    int32_t position; // where the key stands in the node, or belongs
    uint32_t levels;  // nodes from the root down to this one
    bool bInMemory;   // otherwise good until the next call that touches the file
    bool bFound;      // the key stands here
    bool bInBranch;   // the key stands in a branch on the way
};

// From the root of the cursor's index, which is not empty, down to the leaf of a key. On the way to
// a change the leaf comes into memory before it is searched: brought over in one go it costs less
// than line by line in the order of a search, and it is needed anyway. False: damage, reported.
[[nodiscard]] bool
IndxDescend(IndxPlace* pPlace, IndxCursor* pCursor, const IndxKeyInfo* pKey, IndxFor what);
