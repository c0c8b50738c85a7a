// position.h: the state of a cursor: where it stands, the copy of its key, and whether it still
// knows.
#pragma once

#include "database/index/ground/shapes.h"

// Puts the cursor into a status, with a copy of the key it stands on. The node is the cursor's, or
// null: it is fetched.
void IndxUpdateCursor(IndxCursor* pCursor, const uint8_t* pNode, int32_t status);

// Makes every cursor on a key of the cursor's index untrusted: a key has entered or left it.
void IndxInvalidateCursors(IndxCursor* pCursor);
