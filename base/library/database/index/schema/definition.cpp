// definition.cpp: from two texts to a table. The format text says what the items of a record are,
// the fields text names them and flags their indexes; together they fill the table object and its
// list of field objects. What is stored of them, and where, is the business of `open` and `node`.
//
// Table and fields hold each other: the list in the table holds its fields, each field the table.
// Whoever gives a table up breaks that ring first (IndxUnhookFields).

#include "database/index/schema/definition.h"

#include <cassert>

#include "database/block.h"
#include "database/dbrecord_internal.h"
#include "database/index.h"
#include "database/index/ground/runtime.h"
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

// The first flag of a text that was refused, where it stands in the text.
struct BadFlag {
    const char* start;
    uint32_t length;
};

// Reads flag words separated by ";". The error code; INDX_ERROR_NONE when every word is a flag.
uint32_t ReadFlags(IndxField* pField, const char* flags, BadFlag* pBad)
{
    for (;;) {
        const char* pSeparator = StrNextCharMatch(flags, ';');
        const char* pEnd = pSeparator ? pSeparator : StrNextCharMatch(flags, 0);
        while (flags < pEnd && IsBlank(*flags))
            ++flags;
        while (pEnd > flags && IsBlank(pEnd[-1]))
            --pEnd;
        *pBad = {flags, static_cast<uint32_t>(pEnd - flags)};
        if (flags == pEnd)
            return INDX_ERROR_NO_FLAG;
        if (!SetFlag(pField, flags, pBad->length))
            return INDX_ERROR_UNKNOWN_FLAG;
        if (!pSeparator)
            return INDX_ERROR_NONE;
        flags = pSeparator + 1;
    }
}

// ---- the format text -------------------------------------------------------------------------

constexpr const char* DIGITS = "0123456789";

// Whether an item of a format text is one that the object services know.
bool IsItem(const char* item, uint32_t length)
{
    if (length == 0)
        return false;
    if (*item != 'n') {
        const bool bTransient = length == 2 && (*item == 'o' || *item == 's') && item[1] == 'l';
        return bTransient ||
               (length == 1 && StrNextCharMatch("bisopdqu", static_cast<uint8_t>(*item)));
    }
    uint64_t size = 0;
    for (uint32_t i = 1; i < length; ++i) {
        if (!StrNextCharMatch(DIGITS, static_cast<uint8_t>(item[i])))
            return false;
        size = size * 10 + static_cast<uint32_t>(item[i] - '0');
        if (size > INT32_MAX)
            return false;
    }
    return size != 0;
}

// Says what is wrong with a format of which no template can be made.
void TellBadFormat(const IndxTable* pTable, const char* format)
{
    uint32_t number = 0;
    for (const char* item = format; *item || number == 0;) {
        ++number;
        const char* pEnd = StrNextCharMatch(item, ';');
        if (!pEnd)
            pEnd = StrNextCharMatch(item, 0);
        const auto length = static_cast<uint32_t>(pEnd - item);
        if (!IsItem(item, length)) {
            HeldMemory<char> text(StrDuplicateRangeIntoPool(item, IndxPool(), length));
            INDX_TRACE_ERROR(
                INDX_ALWAYS, "Item %ld '%s' of format '%s' of table '%s' is of no kind", number,
                text.get(), format, pTable->name);
            return;
        }
        item = *pEnd ? pEnd + 1 : pEnd;
    }
    // Its items are sound: it is too long for an object, or there is no memory.
    INDX_TRACE_ERROR(
        INDX_ALWAYS, "No record can be made of format '%s' of table '%s'", format, pTable->name);
}

// ---- the fields text -------------------------------------------------------------------------

// One word of the fields text: a name with its flags, blanks around it cut off.
struct Word {
    const char* start;
    uint32_t length; // 0: there is nothing between two separators
    bool bLast;      // it ends with the text
};

// Takes the word at *ppNext, which ends at "," or at the end of the text, and leaves *ppNext behind
// it. Blanks before and behind a word do not count, blanks inside it do.
Word NextWord(const char** ppNext)
{
    const char* pStart = *ppNext;
    const char* pEnd = pStart;
    bool bAtStart = true;
    for (;;) {
        const uint32_t c = StrGetChar(ppNext);
        if (c == ',' || c == 0)
            return {pStart, pEnd > pStart ? static_cast<uint32_t>(pEnd - pStart) : 0, c == 0};
        if (c != ' ' && c != '\t') {
            pEnd = *ppNext;
            bAtStart = false;
        } else if (bAtStart) {
            pStart = *ppNext;
        }
    }
}

// A field, of the word's name and with the flags that it has.
struct NamedField {
    HeldObject<IndxField> field; // null: no memory
    HeldMemory<char> text;       // what `bad` points into
    uint32_t error;              // of the flags
    BadFlag bad;
};

// Splits "name;flags". False: no memory.
bool NameField(NamedField* pNamed, const Word& word)
{
    pNamed->text.Set(StrDuplicateRangeIntoPool(word.start, IndxPool(), word.length));
    ObjTemplateCreateInstanceFromPool(pNamed->field.OutVoid(), gIndxTemplates.field, IndxPool());
    const char* text = pNamed->text.get();
    if (!text || !pNamed->field)
        return false;
    const char* pSeparator = StrNextCharMatch(text, ';');
    const char* pEnd = pSeparator ? pSeparator : text + word.length;
    pNamed->field->name =
        StrDuplicateRangeIntoPool(text, IndxPool(), static_cast<uint32_t>(pEnd - text));
    if (!pNamed->field->name)
        return false;
    pNamed->error = pSeparator ? ReadFlags(pNamed->field.get(), pSeparator + 1, &pNamed->bad)
                               : static_cast<uint32_t>(INDX_ERROR_NONE);
    return true;
}

// ---- from words to fields --------------------------------------------------------------------

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

void RefuseFlag(Definition* pDefinition, const NamedField& named)
{
    const char* tableName = pDefinition->pTable->name;
    const char* fieldName = named.field->name;
    HeldMemory<char> flag(StrDuplicateRangeIntoPool(named.bad.start, IndxPool(), named.bad.length));
    if (named.error == INDX_ERROR_NO_FLAG) {
        INDX_TRACE_ERROR(
            INDX_ALWAYS, "A flag of field '%s' of table '%s' is empty", fieldName, tableName);
    } else {
        INDX_TRACE_ERROR(
            INDX_ALWAYS, "Flag '%s' of field '%s' of table '%s' is unknown", flag.get(), fieldName,
            tableName);
    }
    Refuse(pDefinition, named.error);
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
        INDX_TRACE_ERROR(
            INDX_ALWAYS, "Field '%s' of table '%s' is of kind %ld, which is kept in memory only",
            pField->name, pTable->name, pItem->kind);
        Refuse(pDefinition, INDX_ERROR_FIELD_KIND);
    } else if (pField->bUnique && !pField->bIndexed) {
        INDX_TRACE(
            INDX_ALWAYS, "'Unique' has no effect on field '%s' of table '%s', which is not indexed",
            pField->name, pTable->name);
    }
    if (pField->bIndexed && HasTextKind(pItem->kind))
        pTable->bTextIndex = TRUE;
}

// Whether a field of this name was accepted before, as far as it matters.
bool IsRepeated(const Definition* pDefinition, const IndxField* pField)
{
    return static_cast<uint32_t>(pDefinition->accepted) < INDX_MOST_FIELDS &&
           ListSearch(pDefinition->pTable->oFields, IndxMatchField, pField->name, nullptr);
}

// Makes a field of one word of the fields text, for the template's next item. The last error that
// is met is the one that is reported: a repeated name outranks a bad flag.
void TakeWord(Definition* pDefinition, const Word& word)
{
    IndxTable* pTable = pDefinition->pTable;
    NamedField named = {};
    if (!NameField(&named, word)) {
        pDefinition->bFailed = true;
        return;
    }
    IndxField* pField = named.field.get();
    if (named.error != INDX_ERROR_NONE)
        RefuseFlag(pDefinition, named);
    INDX_TRACE(INDX_DETAIL, "Process '%s'", pField->name);
    if (IsRepeated(pDefinition, pField)) {
        INDX_TRACE(INDX_ALWAYS, "duplicate field name");
        Refuse(pDefinition, INDX_ERROR_DUPLICATE_FIELD);
    }
    if (!pDefinition->bFailed)
        DescribeField(pDefinition, pField, &pDefinition->pData->fields[pDefinition->accepted]);
    static_cast<uint32_t*>(pTable->indexedFlags.data)[pDefinition->accepted] = pField->bIndexed;
    if (pDefinition->bFailed)
        return;
    void* oField = pField;
    if (!ListPushLastItemInternal(pTable->oFields, &oField)) {
        pDefinition->bFailed = true;
        return;
    }
    named.field.Take();
    ++pDefinition->accepted;
}

// Reads the fields text. The reading stops at the template's last item: what is left of the text
// then shows in bEndSeen.
void ScanFields(Definition* pDefinition, const char* fields)
{
    const char* pNext = fields;
    while (pDefinition->accepted < pDefinition->pData->fieldCount && !pDefinition->bFailed &&
           !pDefinition->bEndSeen) {
        const Word word = NextWord(&pNext);
        if (word.bLast) {
            INDX_TRACE(INDX_DETAIL, "End of format string");
            pDefinition->bEndSeen = true;
        }
        if (word.length == 0) {
            INDX_TRACE(INDX_ALWAYS, "Null field name");
            Refuse(pDefinition, INDX_ERROR_NO_FIELD_NAME);
            return;
        }
        TakeWord(pDefinition, word);
    }
}

// Whether the names are those of the items, one each, and one of them is that of the record id.
// Kept: false sets no error code.
bool IsComplete(const Definition& definition)
{
    const IndxTable* pTable = definition.pTable;
    const int32_t items = definition.pData->fieldCount;
    if (!definition.bEndSeen) {
        INDX_TRACE_ERROR(
            INDX_ALWAYS, "Fields '%s' of table '%s' name more than the %ld items of format '%s'",
            pTable->fields, pTable->name, items, pTable->format);
        return false;
    }
    if (definition.accepted != items) {
        INDX_TRACE_ERROR(
            INDX_ALWAYS, "Fields '%s' of table '%s' name %ld of the %ld items of format '%s'",
            pTable->fields, pTable->name, definition.accepted, items, pTable->format);
        return false;
    }
    if (!definition.bIdSeen) {
        INDX_TRACE_ERROR(
            INDX_ALWAYS, "Fields '%s' of table '%s' name no field '%s'", pTable->fields,
            pTable->name, INDX_ID_FIELD);
        return false;
    }
    return true;
}

// ---- a table that exists ---------------------------------------------------------------------

// Whether fields of this type can have an index at all.
bool HasOrder(int32_t fieldType)
{
    return fieldType != INDX_FIELD_BOOLEAN && fieldType != INDX_FIELD_OBJECT &&
           fieldType != INDX_FIELD_POINTER && fieldType != INDX_FIELD_DATA;
}

// Whether flags as they are written are those that the field has.
bool HasFlags(const IndxField* pStored, const IndxField* pWritten)
{
    if (pStored->type == INDX_FIELD_RECORD_ID)
        return true; // it takes none
    const bool bIndexed = pWritten->bIndexed && HasOrder(pStored->type);
    return (pStored->bIndexed != 0) == bIndexed &&
           (pStored->bUnique != 0) == (pWritten->bUnique != 0) &&
           (pStored->bCaseSensitive != 0) == (pWritten->bCaseSensitive != 0);
}

void TellKeptFlags(const IndxTable* pTable, const Word& word)
{
    NamedField named = {};
    void* oField = nullptr;
    if (!NameField(&named, word) || named.error != INDX_ERROR_NONE ||
        !ListSearch(pTable->oFields, IndxMatchField, named.field->name, &oField))
        return;
    const auto* pField = static_cast<IndxField*>(oField);
    if (!HasFlags(pField, named.field.get()))
        INDX_TRACE(
            INDX_ALWAYS,
            "Field '%s' of table '%s' keeps its stored flags: indexed %s unique %s case sensitive "
            "%s",
            pField->name, pTable->name, IndxTruth(pField->bIndexed), IndxTruth(pField->bUnique),
            IndxTruth(pField->bCaseSensitive));
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

bool IndxIsRecordMagic(uint32_t magic)
{
    return (magic & OBJ_MAGIC_MASK) == OBJ_MAGIC_VALID;
}

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

NimBool IndxMatchField(const void* name, const void* item)
{
    const char* itemName = static_cast<const IndxField*>(item)->name;
    return StrCompareNoCase(static_cast<const char*>(name), itemName) == 0;
}

bool IndxCreateTable(
    IndxTable* pTable, uint32_t recordMagic, const char* format, const char* fields)
{
    INDX_TRACE(INDX_DETAIL, "IndxCreateTable()");
    if (!HasTexts(format, fields))
        return false;
    const ObjDbData* pData = DbRecordLayout(format);
    if (!pData) {
        TellBadFormat(pTable, format);
        return false;
    }
    if (!PrepareTable(pTable, format, fields, pData))
        return false;
    INDX_TRACE(INDX_DETAIL, "Format '%s'", pTable->format);
    INDX_TRACE(INDX_DETAIL, "Fields '%s'", pTable->fields);

    Definition definition = {pTable, pData, 0, false, false, false};
    ScanFields(&definition, pTable->fields);
    if (definition.bFailed || !IsComplete(definition))
        return false;
    pTable->recordMagic = recordMagic;
    pTable->highestId = 0;
    pTable->fixedSize = pData->fixedSize;
    return IndxHookFields(pTable) && FitsUserData(pTable);
}

bool IndxHookFields(IndxTable* pTable)
{
    return ListWalk(pTable->oFields, HookField, pTable) == TRUE;
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

void IndxTellKeptFlags(const IndxTable* pTable, const char* fields)
{
    // Hosts open their tables with the same text again and again.
    if (StrCompare(pTable->fields, fields) == 0)
        return;
    const char* pNext = fields;
    for (Word word = {}; !word.bLast;) {
        word = NextWord(&pNext);
        if (word.length != 0)
            TellKeptFlags(pTable, word);
    }
}
