// damage.cpp: says which node of which index cannot be used. Whatever meets it goes on as after a
// miss or fails its operation; nothing is mended here.

#include "database/index/ground/damage.h"

#include "database/index/ground/runtime.h"

void IndxReportDamage(IndxCursor* pCursor, uint32_t tNode)
{
    const IndxField* pField = pCursor->oField;
    INDX_TRACE_ERROR(
        INDX_ALWAYS, "Cannot use node %ld of field '%s' of table '%s'", tNode, pField->name,
        pField->oTable ? pField->oTable->name : nullptr);
    IndxSetError(INDX_ERROR_READ);
    pCursor->bFailed = TRUE;
}
