// delete.h: taking a record's key out of an index.
#pragma once

#include "database/index/ground/shapes.h"

// Takes the key of an encoded record out of the cursor's index. False: the record has no such key
// or the index does not hold it for this record (result code 7), damage, no memory. After a failure
// that was not a plain miss the operation has to be backed out.
[[nodiscard]] bool IndxDeleteKey(IndxCursor* pCursor, const ObjData* pRecord);

// The same for the entry at a place; the failure is traced.
[[nodiscard]] bool IndxDeleteKeyFromNode(IndxCursor* pCursor, uint32_t tNode, int32_t position);
