// selection.cpp: which fields of a table a caller names: selections, with one flag a field in the
// order of the table's fields, and single fields by number and type.

#include "database/index.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/schema/definition.h"
#include "database/index/schema/open.h"

namespace {

// Comparison for ListSearch: a string object against a field's name.
NimBool MatchName(const void* pName, const void* oItem)
{
    const char* item = ObjGetString(oItem);
    return item && StrCompareNoCase(static_cast<const char*>(pName), item) == 0 ? TRUE : FALSE;
}

struct Selecting {
    void* oNames;
    uint32_t* pNext;
};

NimBool SelectField(void* context, void* oField)
{
    auto* pSelecting = static_cast<Selecting*>(context);
    *pSelecting->pNext++ = ListSearch(
        pSelecting->oNames, MatchName, static_cast<const IndxField*>(oField)->name, nullptr);
    return TRUE;
}

} // namespace

NimBool IndxGetSelected(uint32_t** ppSelected, void* oTable, void* oNames)
{
    if (!ppSelected)
        return FALSE;
    *ppSelected = nullptr;
    const IndxTable* pTable = IndxAsTable(oTable);
    if (!pTable || ObjGetMagic(oNames) != OBJ_MAGIC_LIST || ListGetCount(oNames) == 0)
        return FALSE;
    const uint32_t size = ListGetCount(pTable->oFields) * static_cast<uint32_t>(sizeof(uint32_t));
    auto* pFlags = static_cast<uint32_t*>(MemAllocateFromPool(size, IndxPool()));
    if (!pFlags)
        return FALSE;
    Selecting selecting = {oNames, pFlags};
    ListWalk(pTable->oFields, SelectField, &selecting);
    *ppSelected = pFlags;
    return TRUE;
}

NimBool
IndxGetSelectedByName(uint32_t** ppSelected, void* oDatabase, const char* tableName, void* oNames)
{
    if (ppSelected)
        *ppSelected = nullptr;
    const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase);
    void* oTable = nullptr;
    if (!ppSelected || !pDatabase || !tableName ||
        !ListSearch(pDatabase->oTables, IndxMatchTable, tableName, &oTable))
        return FALSE;
    return IndxGetSelected(ppSelected, oTable, oNames);
}

namespace {

struct FieldPosition {
    const char* name;
    uint32_t position;
};

// Goes on, and counts, until the name matches.
NimBool PassOtherField(void* context, void* oField)
{
    auto* pPosition = static_cast<FieldPosition*>(context);
    if (StrCompareNoCase(static_cast<const IndxField*>(oField)->name, pPosition->name) == 0)
        return FALSE;
    ++pPosition->position;
    return TRUE;
}

} // namespace

NimBool IndxGetFieldNumber(uint32_t* pNumber, void* oTable, const char* fieldName)
{
    const IndxTable* pTable = IndxAsTable(oTable);
    if (!pNumber || !pTable || StrIsEmpty(fieldName))
        return FALSE;
    FieldPosition position = {fieldName, 0};
    if (ListWalk(pTable->oFields, PassOtherField, &position))
        return FALSE;
    *pNumber = position.position;
    return TRUE;
}

NimBool IndxGetFieldTypeByNumber(int32_t* pType, void* oTable, uint32_t position)
{
    const IndxTable* pTable = IndxAsTable(oTable);
    void* oField = nullptr;
    if (!pType || !pTable || ListGetNthItem(&oField, pTable->oFields, position) != 1)
        return FALSE;
    *pType = static_cast<const IndxField*>(oField)->type;
    return TRUE;
}
