// insert.h: entering a key into an index, and the steps up the tree that deletion takes, too.
#pragma once

#include "database/index/ground/shapes.h"
#include "database/index/tree/climb.h"

// Enters the record's key into the cursor's index, to lead to `fileOffset` of the records file.
// False, with the failure traced: the record has no such key, the key is there already, no room, no
// memory, damage. The operation has to be backed out then.
[[nodiscard]] bool IndxInsertKey(IndxCursor* pCursor, uint32_t fileOffset, const ObjData* pRecord);

// ---- steps of a climb ----
bool IndxInsertKeyIntoNode(
    IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);
bool IndxAddKeyIntoExistingNode(
    IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);
bool IndxSplitLeft(IndxClimb& climb, uint8_t* pNode, const IndxKeyInfo* pKey);
bool IndxSplitRight(IndxClimb& climb, uint8_t* pNode, int32_t position, const IndxKeyInfo* pKey);
bool IndxFixupParent(IndxClimb& climb, int32_t position, uint8_t* pNode);
// Takes the entry of a node out of its parent and enters the node's present lowest key instead.
bool IndxRekeyParent(IndxClimb& climb, uint8_t* pNode);
