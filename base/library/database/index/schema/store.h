// store.h: the end of an operation on a table (with IndxUpdateTable, index.h).
#pragma once

#include "database/index/ground/shapes.h"

// Takes the roots of every index as committed; run at the end of every release.
void IndxCommitRoots(IndxTable* pTable);
// BlckBackoutAll on the table's block file, and the roots back to what was committed.
void IndxBackout(IndxTable* pTable);
