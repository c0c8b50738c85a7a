// damage.h: a node, a link or an entry that cannot be believed. Any room of the tree may meet one.
#pragma once

#include "database/index/ground/shapes.h"

// A node or entry that cannot be had ended a search or a move: failure trace and last error 13, and
// the cursor knows.
void IndxReportDamage(IndxCursor* pCursor, uint32_t tNode);
