// repoint.h: a key that a modification leaves as it is.
#pragma once

#include "database/index/ground/shapes.h"

// Makes the key that an old and a new record have in common lead to the new record's offset, where
// that comes to the same as taking it out and entering it again. False: it does not, or something
// stands in the way; nothing was changed, and the key has to be taken out and entered.
[[nodiscard]] bool
IndxRepointKey(IndxCursor* pCursor, const ObjData* pOld, const ObjData* pNew, uint32_t newOffset);
