// description.cpp: a table's stored description, rebuilt from the user data of its block file and
// judged. A checksum tells damage, not intent, and a magic alone is no shape: a rebuilt table is
// relied on only when every object in it has the registered layout, its list holds the fields
// that its format text asks for, and its numbers are those that the format and the flags lead to.
//
// Nothing is attached here (block file, database, cursors), and nothing is left behind by a
// description that is refused.

#include "database/index/schema/description.h"

#include <algorithm>
#include <cstring>

#include "database/block/blockstore.h"
#include "database/dbrecord_internal.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "database/index/schema/definition.h"
#include "nim/scope.h"

namespace {

// ---- taking a rebuilt graph apart ------------------------------------------------------------

// Deeper than 64 nothing is rebuilt, and a walk that takes the items in the order in which they
// were read goes no deeper than the reader did.
constexpr uint32_t GRAPH_DEPTH = 80;

// Takes the first entry out of a list, with the list's reference; null when there is none left.
void* TakeFromList(void* oList)
{
    void* oItem = nullptr;
    ListNode* pNode = nullptr;
    while (ListGetNthItem(&oItem, oList, 0) && ListFindNode(&pNode, oList, oItem)) {
        ObjIncRefCount(oItem);
        ListRemoveItem(pNode);
        if (oItem)
            return oItem;
    }
    return nullptr;
}

// Takes the first reference out of an object, null when it holds none. Transient items hold
// nothing in an object that was just rebuilt.
void* TakeChild(void* oParent)
{
    if (ObjGetMagic(oParent) == OBJ_MAGIC_LIST)
        return TakeFromList(oParent);
    const ObjDbData* pData = ObjGetDbData(oParent);
    for (int32_t i = 0; pData && i < pData->fieldCount; ++i) {
        if (pData->fields[i].kind != OBJ_KIND_OBJECT)
            continue;
        auto* pSlot = reinterpret_cast<void**>(
            static_cast<uint8_t*>(oParent) + pData->fields[i].objectOffset);
        if (void* oChild = *pSlot) {
            *pSlot = nullptr;
            return oChild;
        }
    }
    return nullptr;
}

// ---- judging ---------------------------------------------------------------------------------

bool HasTemplate(const void* object, const ObjTemplate* pTemplate)
{
    return object && OBJ_HEADER(object)->tmpl == pTemplate;
}

// Whether the items of an object with the template's magic lie where the template has them. An
// object is rebuilt from the template that was the first of its magic and format in the process,
// and that may be another module's, without a tail or with a longer one.
bool HasLayout(const void* object, ObjTemplate* pTemplate)
{
    const ObjDbData* pData = ObjGetDbData(object);
    return HasTemplate(object, pTemplate) ||
           (pData && StrCompare(pData->format, ObjGetDbDataFromTemplate(pTemplate)->format) == 0);
}

// Items of a format text, counted without making a template of it: templates are never freed.
uint32_t CountItems(const char* format)
{
    uint32_t count = 0;
    for (const char* p = format; *p; ++count) {
        const char* pEnd = StrNextCharMatch(p, ';');
        if (!pEnd)
            return count + 1;
        p = pEnd + 1;
    }
    return count;
}

// An index is empty, without nodes and levels, or all of its ends lie among the blocks.
bool HasSoundRoots(const IndxField* pField, uint32_t blockCount)
{
    const IndxRoots& roots = pField->roots;
    if (roots.tRoot == INDX_NO_NODE) {
        return roots.tFirstLeaf == INDX_NO_NODE && roots.tLastLeaf == INDX_NO_NODE &&
               pField->levels == 0;
    }
    return pField->bIndexed && roots.tRoot < blockCount && roots.tFirstLeaf < blockCount &&
           roots.tLastLeaf < blockCount && pField->levels >= 1 &&
           static_cast<uint32_t>(pField->levels) <= blockCount;
}

struct Occurrences {
    const void* object;
    uint32_t count;
};

NimBool CountOccurrence(void* context, void* item)
{
    auto* pOccurrences = static_cast<Occurrences*>(context);
    pOccurrences->count += item == pOccurrences->object;
    return TRUE;
}

// What is wrong with a field as such.
const char*
FieldFault(const IndxTable* pTable, const IndxField* pField, uint32_t position, uint32_t blockCount)
{
    if (!HasLayout(pField, gIndxTemplates.field))
        return "an item of the field list is no field";
    if (!pField->name)
        return "a field has no name";
    if (pField->oTable && pField->oTable != pTable)
        return "a field belongs to another table";
    Occurrences occurrences = {pField, 0};
    ListWalk(pTable->oFields, CountOccurrence, &occurrences);
    // The search ends at this field at the latest, so it meets only fields that were judged
    // already.
    void* oFirst = nullptr;
    if (occurrences.count != 1 ||
        !ListSearch(pTable->oFields, IndxMatchField, pField->name, &oFirst) || oFirst != pField)
        return "a field is there twice";
    // Any other value than 0 counts as true, as it does for the operations on records.
    const uint32_t flag = static_cast<const uint32_t*>(pTable->indexedFlags.data)[position];
    if ((flag != 0) != (pField->bIndexed != 0))
        return "the indexed flags contradict the fields";
    if (pField->maximumKey != IndxLongestKey(INDX_NODE_SIZE))
        return "a field has another longest key";
    if (!HasSoundRoots(pField, blockCount))
        return "an index has no sound root";
    return nullptr;
}

// Everything that can be told without the template of the records.
const char* ShapeFault(const IndxTable* pTable, uint32_t blockCount)
{
    if (!HasLayout(pTable, gIndxTemplates.table))
        return "the table has another layout";
    if (!pTable->name || !pTable->format || !pTable->fields)
        return "a text is missing";
    if (ObjGetMagic(pTable->oFields) != OBJ_MAGIC_LIST ||
        ListGetItemType(pTable->oFields) != INDX_FIELD_MAGIC)
        return "there is no list of fields";
    const uint32_t count = ListGetCount(pTable->oFields);
    if (count == 0 || count != CountItems(pTable->format))
        return "the fields are not those of the format";
    if (!pTable->indexedFlags.data ||
        pTable->indexedFlags.size != static_cast<uint64_t>(count) * sizeof(uint32_t))
        return "there are no indexed flags for the fields";
    if (pTable->fixedSize < INDX_RECORD_HEADER || pTable->fixedSize > INDX_RECORDS_END ||
        pTable->idOffset < sizeof(uint32_t) ||
        pTable->idOffset > pTable->fixedSize - sizeof(uint32_t))
        return "the sizes of a record are out of range";
    for (uint32_t i = 0; i < count; ++i) {
        void* oField = nullptr;
        if (!ListGetNthItem(&oField, pTable->oFields, i))
            return "the fields cannot be counted";
        if (const char* fault = FieldFault(pTable, static_cast<IndxField*>(oField), i, blockCount))
            return fault;
    }
    return nullptr;
}

// Whether a field is what its item of the format and its flags make of it.
bool FitsItem(const IndxTable* pTable, const IndxField* pField, const ObjDbField* pItem)
{
    IndxField expected = {};
    expected.bIndexed = pField->bIndexed;
    expected.bUnique = pField->bUnique;
    expected.bCaseSensitive = pField->bCaseSensitive;
    if (StrCompareNoCase(pField->name, INDX_ID_FIELD) == 0) {
        if (!IndxApplyIdKind(&expected, pItem->kind) ||
            pTable->idOffset != static_cast<uint32_t>(pItem->fixedOffset))
            return false;
    } else if (!IndxApplyKind(&expected, pItem->kind)) {
        return false;
    }
    return pField->recordOffset == pItem->fixedOffset && pField->type == expected.type &&
           pField->keyType == expected.keyType &&
           (pField->bIndexed != 0) == (expected.bIndexed != 0) &&
           (pField->bUnique != 0) == (expected.bUnique != 0);
}

// What the template of the records tells: its slots lie inside the fixed part, each as wide as its
// kind, so a field that agrees with its item can be read and keyed.
const char* TemplateFault(const IndxTable* pTable)
{
    const ObjDbData* pData = DbRecordLayout(pTable->format);
    if (!pData)
        return "the format cannot be used";
    if (static_cast<uint32_t>(pData->fieldCount) != ListGetCount(pTable->oFields) ||
        pData->fixedSize != pTable->fixedSize)
        return "the format makes another record";
    for (int32_t i = 0; i < pData->fieldCount; ++i) {
        void* oField = nullptr;
        ListGetNthItem(&oField, pTable->oFields, static_cast<uint32_t>(i));
        if (!FitsItem(pTable, static_cast<IndxField*>(oField), &pData->fields[i]))
            return "a field is not what the format makes of it";
    }
    if (!ListSearch(pTable->oFields, IndxMatchField, INDX_ID_FIELD, nullptr))
        return "there is no field for the record id";
    return nullptr;
}

NimBool IsOwnField(void*, void* item)
{
    return HasTemplate(item, gIndxTemplates.field);
}

// Appends a field of our own template to a list, with all that the other one holds. False: no
// memory; what was taken over has gone with the new field.
bool MoveField(void* oList, IndxField* pFrom)
{
    HeldObject<IndxField> field;
    ObjTemplateCreateInstanceFromPool(field.OutVoid(), gIndxTemplates.field, IndxPool());
    if (!field)
        return false;
    // The items of the format; the tail is the new field's own.
    MemCopy(field.get(), pFrom, offsetof(IndxField, committedRoots));
    pFrom->name = nullptr;
    pFrom->oTable = nullptr;
    pFrom->oCursors = nullptr;
    void* oField = field.get();
    if (!ListPushLastItemInternal(oList, &oField))
        return false;
    field.Take();
    return true;
}

bool AdoptFields(IndxTable* pTable)
{
    if (ListWalk(pTable->oFields, IsOwnField, nullptr))
        return true;
    HeldObject<> list(ListNewFromPool(INDX_FIELD_MAGIC, IndxPool()));
    if (!list)
        return false;
    void* oField = nullptr;
    for (uint32_t i = 0; ListGetNthItem(&oField, pTable->oFields, i); ++i) {
        if (!MoveField(list.get(), static_cast<IndxField*>(oField)))
            return false;
    }
    ObjRelease(pTable->oFields);
    pTable->oFields = list.Take();
    return true;
}

NimBool LetGoOfTable(void*, void* item)
{
    ObjRelease(static_cast<IndxField*>(item)->oTable);
    return TRUE;
}

// Moves everything that a table of another template holds into one of our own.
bool AdoptTable(IndxTable** ppTable)
{
    IndxTable* pFrom = *ppTable;
    if (HasTemplate(pFrom, gIndxTemplates.table))
        return true;
    IndxTable* pTable = nullptr;
    if (!ObjTemplateCreateInstance(&pTable, gIndxTemplates.table, IndxPool()))
        return false;
    // The fields hold the table that goes; attaching makes them hold the one that comes.
    ListWalk(pFrom->oFields, LetGoOfTable, nullptr);
    MemCopy(pTable, pFrom, INDX_TABLE_STORED);
    std::memset(static_cast<void*>(pFrom), 0, INDX_TABLE_STORED);
    ObjRelease(*ppTable);
    *ppTable = pTable;
    return true;
}

} // namespace

bool IndxAdoptTable(IndxTable** ppTable)
{
    return AdoptFields(*ppTable) && AdoptTable(ppTable);
}

void IndxDiscardGraph(void** ppRoot)
{
    // Each object on the path is held by one reference. What is taken out of an object is gone from
    // it, so that a ring opens where the walk has entered it, and every object ends by its count.
    void* path[GRAPH_DEPTH] = {*ppRoot};
    *ppRoot = nullptr;
    uint32_t depth = path[0] ? 1 : 0;
    while (depth) {
        void* oChild = TakeChild(path[depth - 1]);
        if (!oChild)
            ObjReleaseInternal(&path[--depth]);
        else if (depth == GRAPH_DEPTH || std::find(path, path + depth, oChild) != path + depth)
            ObjReleaseInternal(&oChild);
        else
            path[depth++] = oChild;
    }
}

bool IndxIsBlank(void* oBlck)
{
    const auto* pData = static_cast<const uint8_t*>(BlckUserData(oBlck));
    return pData &&
           std::all_of(pData, pData + BlckUserDataLength(oBlck), [](uint8_t b) { return b == 0; });
}

const char* IndxTableFault(const IndxTable* pTable, void* oBlck)
{
    const int32_t blockCount = BlckBlockCount(oBlck);
    if (blockCount < 0)
        return "the block count is out of range";
    // Last comes what makes a template: a damaged text should have been found out before.
    const char* fault = ShapeFault(pTable, static_cast<uint32_t>(blockCount));
    return fault ? fault : TemplateFault(pTable);
}

IndxStored
IndxReadDescription(IndxTable** ppTable, void* oBlck, const char* name, const char* fileName)
{
    *ppTable = nullptr;
    void* oRebuilt = nullptr;
    if (!ObjReconstructFromMemorySized(&oRebuilt, BlckUserData(oBlck), BlckUserDataLength(oBlck))) {
        INDX_TRACE(INDX_DETAIL, "Failed to reconstruct table");
        return IndxIsBlank(oBlck) ? IndxStored::Blank : IndxStored::Refused;
    }
    IndxTable* pTable = IndxAsTable(oRebuilt);
    if (!pTable) {
        INDX_TRACE(INDX_DETAIL, "Wrong object, %s", ObjNameFromObject(oRebuilt));
        IndxDiscardGraph(&oRebuilt);
        return IndxStored::Refused;
    }
    if (const char* fault = IndxTableFault(pTable, oBlck)) {
        INDX_TRACE(
            INDX_ALWAYS, "Damaged description of table '%s' in '%s': %s", name, fileName, fault);
        IndxDiscardGraph(&oRebuilt);
        return IndxStored::Refused;
    }
    if (!IndxAdoptTable(&pTable)) {
        IndxDiscardGraph(&oRebuilt);
        return IndxStored::Refused;
    }
    *ppTable = pTable;
    return IndxStored::Sound;
}
