// field.cpp: fields by name, and the cursors on them. Every indexed field keeps the list of its
// open cursors, so that a change of the index reaches each cursor that stands on it; moving a
// cursor is the business of `cursor` and `search`.
//
// The list holds one reference on a cursor and the caller another; the cursor holds its field, and
// the field its table. A cursor that is given up leaves the list first.

#include "database/index.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/schema/definition.h"
#include "database/index/tree/position.h"
#include "nim/scope.h"

namespace {

const char* TableName(const IndxField* pField)
{
    return pField && pField->oTable ? pField->oTable->name : nullptr;
}

// A new cursor on an indexed field, held by the field's list and once for the caller; null when
// there is no memory.
IndxCursor* OpenCursor(IndxField* pField)
{
    HeldObject<IndxCursor> cursor;
    ObjTemplateCreateInstanceFromPool(cursor.OutVoid(), gIndxTemplates.cursor, IndxPool());
    if (!cursor)
        return nullptr;
    cursor->oField = static_cast<IndxField*>(ObjIncRefCount(pField));
    cursor->status = 0;
    if (!ListAddLastItem(pField->oCursors, cursor.get()))
        return nullptr;
    INDX_TRACE(
        INDX_DETAIL, "Got cursor to field     '%s' of '%s'", pField->name, TableName(pField));
    return cursor.Take();
}

} // namespace

NimBool IndxGetField(void** ppField, void* oTable, const char* name)
{
    INDX_TRACE(INDX_DETAIL, "IndxGetField(%p, %p, %s)", static_cast<void*>(ppField), oTable, name);
    if (ppField)
        *ppField = nullptr;
    const IndxTable* pTable = IndxAsTable(oTable);
    if (!ppField || !pTable || !name)
        return FALSE;
    void* oField = nullptr;
    if (ListSearch(pTable->oFields, IndxMatchField, name, &oField)) {
        *ppField = ObjIncRefCount(oField);
    } else {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Field does not exist");
        IndxSetError(INDX_ERROR_NO_FIELD);
    }
    const NimBool bFound = *ppField != nullptr;
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxGetField(%p, %p, %s)", IndxTruth(bFound),
        static_cast<void*>(ppField), oTable, name);
    return bFound;
}

NimBool IndxGetCursor(void** ppCursor, void* oField)
{
    if (ppCursor)
        *ppCursor = nullptr;
    IndxField* pField = IndxAsField(oField);
    if (!ppCursor || !pField) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Invalid argument to GetCursor");
        IndxSetError(INDX_ERROR_ARGUMENT);
    } else if (!pField->bIndexed) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Field is not indexed");
        IndxSetError(INDX_ERROR_NOT_INDEXED);
    } else {
        *ppCursor = OpenCursor(pField);
    }
    const NimBool bMade = ppCursor && *ppCursor;
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxGetCursor(%p, %p) %p", IndxTruth(bMade),
        static_cast<void*>(ppCursor), oField, ppCursor ? *ppCursor : nullptr);
    return bMade;
}

NimBool IndxGetFieldCursor(void** ppCursor, void* oTable, const char* fieldName)
{
    if (ppCursor)
        *ppCursor = nullptr;
    const IndxTable* pTable = IndxAsTable(oTable);
    if (!pTable || !fieldName)
        return FALSE;
    INDX_TRACE(
        INDX_DETAIL, "IndxGetFieldCursor(%p, %p, %s) %s", static_cast<void*>(ppCursor), oTable,
        fieldName, pTable->name);
    HeldObject<> field;
    if (!IndxGetField(field.Out(), oTable, fieldName))
        return FALSE;
    return IndxGetCursor(ppCursor, field.get());
}

NimBool IndxReleaseCursor(void** ppCursor)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxReleaseCursor(%p) %p", static_cast<void*>(ppCursor),
        ppCursor ? *ppCursor : nullptr);
    IndxCursor* pCursor = ppCursor ? IndxAsCursor(*ppCursor) : nullptr;
    if (!pCursor)
        return FALSE;
    IndxField* pField = pCursor->oField;
    INDX_TRACE(
        INDX_DETAIL, "Release cursor to field '%s' of '%s'", pField ? pField->name : nullptr,
        TableName(pField));
    ListNode* pNode = nullptr;
    if (pField && ListFindNode(&pNode, pField->oCursors, pCursor))
        ListRemoveItem(pNode);
    IndxUpdateCursor(pCursor, nullptr, 0);
    ObjReleaseInternal(ppCursor);
    return TRUE;
}
