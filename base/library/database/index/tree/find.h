// find.h: positioning a cursor on a key.
#pragma once

#include "database/index/ground/shapes.h"

// Positions the cursor on the key, or on the first greater one; whether it stands in a leaf
// exactly. *pDamaged becomes true when a node could not be had (reported): result code 7, at the
// end. The index is not empty.
bool IndxFind(IndxCursor* pCursor, const IndxKeyInfo* pKey, bool* pDamaged);
