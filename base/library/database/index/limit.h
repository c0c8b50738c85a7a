// limit.h: what operations that are put together from the calls of index.h need beyond them. A walk
// of index.h's steps alone could not be told from one that runs in a cycle of leaves, nor one that
// met damage from one that came to its end.
#pragma once

#include <cstdint>

[[nodiscard]] bool IndxIsTable(const void* oTable);

enum class IndxWalkStep {
    OnKey,
    End,
    Damaged // a node that cannot be used, or a cycle of leaves: traced, last error 13
};
// IndxNextKey for a walk that began before the first key. *pLeft is the walk's: how many steps it
// may still take, set by its first one. An index that no step finds changed has no more keys than
// the blocks of its file can hold; where a callback changes it, counting starts anew.
IndxWalkStep IndxNextOfWalk(void* oCursor, uint64_t* pLeft);
