// limit.cpp: walks that end, whatever the links between the leaves say.

#include "database/index/limit.h"

#include "database/block/blockstore.h"
#include "database/index.h"
#include "database/index/ground/damage.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/shapes.h"

bool IndxIsTable(const void* oTable)
{
    return ObjGetMagic(oTable) == INDX_TABLE_MAGIC;
}

namespace {

// How many keys an index can have in the blocks of its file.
uint64_t KeyLimit(const IndxCursor* pCursor)
{
    const IndxTable* pTable = pCursor->oField->oTable;
    const uint64_t blocks = pTable ? BlckBlockLimit(pTable->oBlck) : 0;
    return (blocks + 1) * static_cast<uint64_t>(INDX_NODE_MAX_ENTRIES);
}

} // namespace

IndxWalkStep IndxNextOfWalk(void* oCursor, uint64_t* pLeft)
{
    auto* pCursor = static_cast<IndxCursor*>(oCursor);
    // A callback may put records in front of the walk for as long as it likes.
    if (pCursor->status == INDX_AT_BEGINNING || pCursor->status == INDX_UNTRUSTED)
        *pLeft = KeyLimit(pCursor);
    if (IndxNextKey(pCursor) != INDX_RESULT_FOUND)
        return pCursor->bFailed ? IndxWalkStep::Damaged : IndxWalkStep::End;
    if (*pLeft > 0) {
        --*pLeft;
        return IndxWalkStep::OnKey;
    }
    IndxReportDamage(pCursor, pCursor->tNode);
    return IndxWalkStep::Damaged;
}
