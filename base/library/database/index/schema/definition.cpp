// definition.cpp: from two texts to a table. The format text says what the items of a record are,
// the fields text names them and flags their indexes; together they fill the table object and its
// list of field objects. What is stored of them, and where, is the business of `open` and `node`.
//
// Table and fields hold each other: the list in the table holds its fields, each field the table.
// Whoever gives a table up breaks that ring first (IndxUnhookFields).

#include <cassert>

#include "database/block.h"
#include "database/dbrecord_internal.h"
#include "database/index/schema/schema.h"
#include "nim/scope.h"

namespace {

// ---- kinds -----------------------------------------------------------------------------------

bool HasTextKind(int32_t kind)
{
    return kind == OBJ_KIND_STRING || kind == OBJ_KIND_ARRAY || kind == OBJ_KIND_UNIQUE;
}

void SetTypes(IndxField* pField, int32_t type, int32_t keyType)
{
    pField->type = type;
    pField->keyType = keyType;
}

// A kind that is stored but has no order: its flag is dropped in silence.
void SetUnindexed(IndxField* pField, int32_t type)
{
    pField->type = type;
    pField->bIndexed = FALSE;
}

// ---- flags -----------------------------------------------------------------------------------

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

// Sets the flag that one word of `length` bytes names. A leading part of a keyword names it too,
// and the first that fits wins: the comparison runs over the word's own length.
bool SetFlag(IndxField* pField, const char* word, uint32_t length)
{
    if (StrCompareRangeNoCase("Indexed", word, length) == 0)
        pField->bIndexed = TRUE;
    else if (StrCompareRangeNoCase("Unique", word, length) == 0)
        pField->bUnique = TRUE;
    else if (StrCompareRangeNoCase("Case Sensitive", word, length) == 0)
        pField->bCaseSensitive = TRUE;
    else
        return false;
    return true;
}

// Reads flag words separated by ";". The error code, 0 for none.
uint32_t ReadFlags(IndxField* pField, const char* flags)
{
    for (;;) {
        const char* pSeparator = StrNextCharMatch(flags, ';');
        const char* pEnd = pSeparator ? pSeparator : StrNextCharMatch(flags, 0);
        while (flags < pEnd && IsBlank(*flags))
            ++flags;
        while (pEnd > flags && IsBlank(pEnd[-1]))
            --pEnd;
        if (flags == pEnd)
            return INDX_ERROR_NO_FLAG;
        if (!SetFlag(pField, flags, static_cast<uint32_t>(pEnd - flags)))
            return INDX_ERROR_UNKNOWN_FLAG;
        if (!pSeparator)
            return 0;
        flags = pSeparator + 1;
    }
}

// ---- the fields text -------------------------------------------------------------------------

struct Definition {
    IndxTable* pTable;
    const ObjDbData* pData; // of the records' template
    int32_t accepted;       // fields in the list; also the next item of the template
    bool bIdSeen;
    bool bEndSeen;
    bool bFailed;
};

void Refuse(Definition* pDefinition, uint32_t error)
{
    IndxSetError(error);
    pDefinition->bFailed = true;
}

// Splits "name;flags" into the field. False: no memory.
bool NameField(Definition* pDefinition, IndxField* pField, const char* word)
{
    const char* pSeparator = StrNextCharMatch(word, ';');
    pField->name =
        pSeparator
            ? StrDuplicateRangeIntoPool(word, IndxPool(), static_cast<uint32_t>(pSeparator - word))
            : StrDuplicateIntoPool(word, IndxPool());
    if (!pField->name)
        return false;
    if (pSeparator) {
        if (const uint32_t error = ReadFlags(pField, pSeparator + 1))
            Refuse(pDefinition, error);
    }
    return true;
}

// Fills a named field from the item of the template that it stands for.
void DescribeField(Definition* pDefinition, IndxField* pField, const ObjDbField* pItem)
{
    IndxTable* pTable = pDefinition->pTable;
    pField->recordOffset = pItem->fixedOffset;
    pField->maximumKey = IndxLongestKey(BlckSize(pTable->oBlck));
    pField->roots = {INDX_NO_NODE, INDX_NO_NODE, INDX_NO_NODE};
    pField->levels = 0;
    INDX_TRACE(
        INDX_DETAIL, "Field %ld '%s' offset %ld indexed %s unique %s case sensitive %s",
        pDefinition->accepted, pField->name, pField->recordOffset, IndxTruth(pField->bIndexed),
        IndxTruth(pField->bUnique), IndxTruth(pField->bCaseSensitive));
    if (StrCompareNoCase(pField->name, INDX_ID_FIELD) == 0) {
        if (!IndxApplyIdKind(pField, pItem->kind)) {
            INDX_TRACE(INDX_ALWAYS, "Index must be type 'i'");
            Refuse(pDefinition, INDX_ERROR_FIELD_KIND);
            return;
        }
        pTable->idOffset = static_cast<uint32_t>(pItem->fixedOffset);
        pDefinition->bIdSeen = true;
    } else if (!IndxApplyKind(pField, pItem->kind)) {
        Refuse(pDefinition, INDX_ERROR_FIELD_KIND);
    }
    if (pField->bIndexed && HasTextKind(pItem->kind))
        pTable->bTextIndex = TRUE;
}

// Makes a field of one word of the fields text, for the template's next item. The last error that
// is met is the one that is reported: a repeated name outranks a bad flag.
void TakeWord(Definition* pDefinition, const char* start, uint32_t length)
{
    IndxTable* pTable = pDefinition->pTable;
    HeldMemory<char> word(StrDuplicateRangeIntoPool(start, IndxPool(), length));
    HeldObject<IndxField> field;
    ObjTemplateCreateInstanceFromPool(field.OutVoid(), gIndxTemplates.field, IndxPool());
    if (!word || !field || !NameField(pDefinition, field.get(), word.get())) {
        pDefinition->bFailed = true;
        return;
    }
    INDX_TRACE(INDX_DETAIL, "Process '%s'", field->name);
    if (ListSearch(pTable->oFields, IndxMatchField, field->name, nullptr)) {
        INDX_TRACE(INDX_ALWAYS, "duplicate field name");
        Refuse(pDefinition, INDX_ERROR_DUPLICATE_FIELD);
    }
    if (!pDefinition->bFailed)
        DescribeField(pDefinition, field.get(), &pDefinition->pData->fields[pDefinition->accepted]);
    static_cast<uint32_t*>(pTable->indexedFlags.data)[pDefinition->accepted] = field->bIndexed;
    if (pDefinition->bFailed)
        return;
    void* oField = field.get();
    if (!ListPushLastItemInternal(pTable->oFields, &oField)) {
        pDefinition->bFailed = true;
        return;
    }
    field.Take();
    ++pDefinition->accepted;
}

// Scans the fields text. A word ends at "," or at the end of the text; blanks before and behind it
// do not count, blanks inside it do. The scan stops at the template's last item: what is left of
// the text then shows in bEndSeen.
void ScanFields(Definition* pDefinition, const char* fields)
{
    const char* pNext = fields;
    const char* pStart = fields;
    const char* pEnd = fields;
    bool bAtStart = true;
    while (pDefinition->accepted < pDefinition->pData->fieldCount && !pDefinition->bFailed &&
           !pDefinition->bEndSeen) {
        const uint32_t c = StrGetChar(&pNext);
        if (c == ' ' || c == '\t') {
            if (bAtStart)
                pStart = pNext;
            continue;
        }
        if (c != ',' && c != 0) {
            pEnd = pNext;
            bAtStart = false;
            continue;
        }
        if (c == 0) {
            INDX_TRACE(INDX_DETAIL, "End of format string");
            pDefinition->bEndSeen = true;
        }
        if (pEnd <= pStart) {
            INDX_TRACE(INDX_ALWAYS, "Null field name");
            Refuse(pDefinition, INDX_ERROR_NO_FIELD_NAME);
            return;
        }
        TakeWord(pDefinition, pStart, static_cast<uint32_t>(pEnd - pStart));
        bAtStart = true;
        pStart = pNext;
    }
}

// ---- the table -------------------------------------------------------------------------------

bool HasTexts(const char* format, const char* fields)
{
    // A null text and an empty one both count as length 0, here and in the messages.
    if (StrIsEmpty(format)) {
        INDX_TRACE(INDX_ALWAYS, "Invalid format length %ld", 0);
        IndxSetError(INDX_ERROR_NO_FORMAT);
        return false;
    }
    if (StrIsEmpty(fields)) {
        INDX_TRACE(INDX_ALWAYS, "Invalid Fields length %ld", 0);
        IndxSetError(INDX_ERROR_NO_FIELDS);
        return false;
    }
    return true;
}

// Copies the texts and makes room for the fields. False: no memory.
bool PrepareTable(IndxTable* pTable, const char* format, const char* fields, const ObjDbData* pData)
{
    const uint32_t flagBytes =
        static_cast<uint32_t>(pData->fieldCount) * static_cast<uint32_t>(sizeof(uint32_t));
    pTable->format = StrDuplicateIntoPool(format, IndxPool());
    pTable->fields = StrDuplicateIntoPool(fields, IndxPool());
    pTable->indexedFlags.data = MemAllocateFromPool(flagBytes, IndxPool());
    pTable->indexedFlags.size = pTable->indexedFlags.data ? flagBytes : 0;
    ListCreateFromPool(&pTable->oFields, INDX_FIELD_MAGIC, IndxPool());
    return pTable->format && pTable->fields && pTable->indexedFlags.data && pTable->oFields;
}

// The description is stored without its length being looked at again, so it must fit now, and it
// never grows afterwards: integers are stored with a fixed width.
bool FitsUserData(const IndxTable* pTable)
{
    const uint32_t size = ObjSerializedSize(pTable);
    const uint32_t room = BlckUserDataLength(pTable->oBlck);
    if (room < size) {
        INDX_TRACE(INDX_ALWAYS, "Table too large MAX %ld, table %ld", room, size);
        return false;
    }
    return size != 0;
}

NimBool HookField(void* context, void* item)
{
    auto* pField = static_cast<IndxField*>(item);
    auto* pTable = static_cast<IndxTable*>(ObjIncRefCount(context));
    if (!pTable)
        return FALSE;
    // A rebuilt field comes with a counted reference already; overwritten, it would never go.
    ObjRelease(pField->oTable);
    pField->oTable = pTable;
    ObjRelease(pField->oCursors);
    if (pField->bIndexed && !ListCreateFromPool(&pField->oCursors, INDX_CURSOR_MAGIC, IndxPool()))
        return FALSE;
    pField->committedRoots = pField->roots;
    pField->committedLevels = pField->levels;
    return TRUE;
}

} // namespace

bool IndxApplyKind(IndxField* pField, int32_t kind)
{
    switch (kind) {
    case 0:
    case 5:
    case OBJ_KIND_TRANSIENT_OBJECT:
    case OBJ_KIND_TRANSIENT_STRING:
        return false;
    case OBJ_KIND_BOOLEAN:
        SetUnindexed(pField, INDX_FIELD_BOOLEAN);
        break;
    case OBJ_KIND_INTEGER:
        SetTypes(pField, INDX_FIELD_INTEGER, INDX_KEY_INTEGER);
        break;
    case OBJ_KIND_STRING:
    case OBJ_KIND_ARRAY:
        if (pField->bCaseSensitive)
            SetTypes(pField, INDX_FIELD_TEXT, INDX_KEY_TEXT);
        else
            SetTypes(pField, INDX_FIELD_TEXT_NO_CASE, INDX_KEY_TEXT_NO_CASE);
        break;
    case OBJ_KIND_OBJECT:
        SetUnindexed(pField, INDX_FIELD_OBJECT);
        break;
    case OBJ_KIND_POINTER:
        // Accepted, though a record with such an item cannot be encoded.
        SetUnindexed(pField, INDX_FIELD_POINTER);
        break;
    case OBJ_KIND_DATA:
        SetUnindexed(pField, INDX_FIELD_DATA);
        break;
    case OBJ_KIND_INT64:
        SetTypes(pField, INDX_FIELD_INT64, INDX_KEY_INT64);
        break;
    case OBJ_KIND_UNIQUE:
        SetTypes(pField, INDX_FIELD_UNIQUE_ID, INDX_KEY_UNIQUE_ID);
        break;
    default:
        break; // a kind of later days keeps its flags and has no type
    }
    return true;
}

bool IndxApplyIdKind(IndxField* pField, int32_t kind)
{
    if (kind != OBJ_KIND_INTEGER)
        return false;
    // "Unique" and "Case Sensitive" are dropped on purpose: ids are kept apart by being issued one
    // above the highest.
    pField->bIndexed = TRUE;
    pField->bUnique = FALSE;
    pField->bCaseSensitive = FALSE;
    SetTypes(pField, INDX_FIELD_RECORD_ID, INDX_KEY_RECORD_ID);
    return true;
}

NimBool IndxMatchTable(const void* name, const void* item)
{
    const char* itemName = static_cast<const IndxTable*>(item)->name;
    return StrCompareNoCase(static_cast<const char*>(name), itemName) == 0;
}

NimBool IndxMatchField(const void* name, const void* item)
{
    const char* itemName = static_cast<const IndxField*>(item)->name;
    return StrCompareNoCase(static_cast<const char*>(name), itemName) == 0;
}

NimBool
IndxCreateTable(IndxTable* pTable, uint32_t recordMagic, const char* format, const char* fields)
{
    INDX_TRACE(INDX_DETAIL, "IndxCreateTable()");
    if (!HasTexts(format, fields))
        return FALSE;
    const ObjDbData* pData = DbRecordLayout(format);
    if (!pData || !PrepareTable(pTable, format, fields, pData))
        return FALSE;
    INDX_TRACE(INDX_DETAIL, "Format '%s'", pTable->format);
    INDX_TRACE(INDX_DETAIL, "Fields '%s'", pTable->fields);

    Definition definition = {pTable, pData, 0, false, false, false};
    ScanFields(&definition, pTable->fields);
    // A missing "Id", and more or fewer names than items, fail without a code of their own.
    if (definition.bFailed || !definition.bEndSeen || !definition.bIdSeen ||
        definition.accepted != pData->fieldCount)
        return FALSE;
    pTable->recordMagic = recordMagic;
    pTable->highestId = 0;
    pTable->fixedSize = pData->fixedSize;
    return IndxHookFields(pTable) && FitsUserData(pTable);
}

NimBool IndxHookFields(IndxTable* pTable)
{
    return ListWalk(pTable->oFields, HookField, pTable);
}

void IndxUnhookFields(IndxTable* pTable)
{
    void* oField = nullptr;
    bool bRemoved = true;
    while (bRemoved && ListGetNthItem(&oField, pTable->oFields, 0)) {
        // Cursors hold their field: without this a field with an open cursor would live for ever.
        // A field that outlives this, held by a caller's cursor, keeps the table in its turn.
        ObjRelease(static_cast<IndxField*>(oField)->oCursors);
        ListNode* pNode = nullptr;
        bRemoved = ListFindNode(&pNode, pTable->oFields, oField) && ListRemoveItem(pNode);
        assert(bRemoved);
    }
}
