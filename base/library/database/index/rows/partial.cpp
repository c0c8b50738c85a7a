// partial.cpp: reading a record's fixed part and then, field by field, its variable data.
//
// A record's variable data follows its fixed part in the order of the fields, so that it is read,
// or skipped, in one pass. A selection has one flag a field, but whether a field is read is decided
// by there being a selection at all: every variable field is read whatever its flag. So a record
// that was read with a selection is a whole one, and any key can be taken from it.

#include "database/index/rows/partial.h"
#include "database/dbrecord_internal.h"
#include "database/index.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/rows/record.h"
#include "database/index/schema/definition.h"
#include "database/index/schema/open.h"
#include "database/logids.h"
#include "nim/bytes.h"
#include "nim/scope.h"

namespace {

constexpr uint32_t SLOT_OFFSET = 4; // in a variable field's slot: size, then offset
constexpr uint32_t SLOT_SIZE = 8;
constexpr int32_t FIELD_TYPE_NONE = -1;

// Whether a field of this type keeps its value in the record's variable part.
bool IsVariable(int32_t type)
{
    return type == INDX_FIELD_TEXT || type == INDX_FIELD_TEXT_NO_CASE || type == INDX_FIELD_DATA ||
           type == INDX_FIELD_OBJECT;
}

bool IsFixed(int32_t type)
{
    switch (type) {
    case FIELD_TYPE_NONE:
    case INDX_FIELD_RECORD_ID:
    case INDX_FIELD_INTEGER:
    case INDX_FIELD_INT64:
    case INDX_FIELD_POINTER:
    case INDX_FIELD_UNIQUE_ID:
    case INDX_FIELD_BOOLEAN:
        return true;
    default:
        return false;
    }
}

// The slot of a variable field, or null when it does not lie in the fixed part.
uint8_t* SlotOf(const IndxPartialRead* pRead, const IndxField* pField)
{
    const auto offset = static_cast<uint32_t>(pField->recordOffset);
    return BytesInside(offset, SLOT_SIZE, pRead->pTable->fixedSize) ? pRead->pBytes + offset
                                                                    : nullptr;
}

// Adds a variable field's size to the total. The selection is tested for being there, and moves on
// by one flag for every field.
NimBool AddFieldSize(void* context, void* oField)
{
    auto* pRead = static_cast<IndxPartialRead*>(context);
    const auto* pField = static_cast<const IndxField*>(oField);
    if (IsVariable(pField->type) && pRead->pSelected) {
        const uint8_t* pSlot = SlotOf(pRead, pField);
        if (!pSlot)
            return FALSE;
        pRead->total += GetU32(pSlot);
    }
    if (pRead->pSelected)
        ++pRead->pSelected;
    return TRUE;
}

NimBool ReportField(const IndxTable* pTable, uint32_t size)
{
    LogMessageAs(LOG_READ_FIELD, "Failed to retrive record field from table '%s'", pTable->name);
    INDX_TRACE(INDX_ALWAYS, "Failed to read %ld bytes", size);
    IndxSetError(INDX_ERROR_READ);
    return FALSE;
}

// Reads one variable field behind what has been assembled and points its slot there.
NimBool ReadVariable(IndxPartialRead* pRead, uint8_t* pSlot)
{
    const uint32_t size = GetU32(pSlot);
    INDX_TRACE(INDX_DETAIL, "Read %ld byte field", size);
    uint32_t count = 0;
    const bool bRead =
        BytesInside(pRead->size, size, pRead->capacity) &&
        FileSysRead(&count, pRead->pTable->hRecords, pRead->pBytes + pRead->size, size) &&
        count == size;
    const uint32_t place = pRead->size;
    pRead->size += size;
    if (!bRead)
        return ReportField(pRead->pTable, size);
    PutU32(pSlot + SLOT_OFFSET, place);
    return TRUE;
}

} // namespace

NimBool IndxReadPartialField(void* context, void* oField)
{
    auto* pRead = static_cast<IndxPartialRead*>(context);
    const auto* pField = static_cast<const IndxField*>(oField);
    NimBool bRead = TRUE;
    if (IsVariable(pField->type)) {
        uint8_t* pSlot = SlotOf(pRead, pField);
        if (!pSlot)
            return ReportField(pRead->pTable, 0);
        if (pRead->pSelected) {
            bRead = ReadVariable(pRead, pSlot);
        } else {
            const uint32_t size = GetU32(pSlot);
            INDX_TRACE(INDX_DETAIL, "Skip %ld byte field", size);
            FileSysSkip(pRead->pTable->hRecords, size);
            PutU32(pSlot, 0);
        }
    } else if (!IsFixed(pField->type)) {
        return FALSE;
    }
    if (pRead->pSelected)
        ++pRead->pSelected;
    return bRead;
}

namespace {

// The fixed part of the record at an offset, in a new buffer; null: not there.
uint8_t* ReadFixedPart(const IndxTable* pTable, uint32_t offset)
{
    if (!FileSysSeek(pTable->hRecords, static_cast<int32_t>(offset))) {
        INDX_TRACE(INDX_ALWAYS, "Failed to seek to record");
        IndxSetError(INDX_ERROR_SEEK);
        return nullptr;
    }
    HeldMemory<uint8_t> bytes(
        static_cast<uint8_t*>(MemAllocateUncleared(pTable->fixedSize, IndxPool())));
    uint32_t count = 0;
    if (bytes && FileSysRead(&count, pTable->hRecords, bytes.get(), pTable->fixedSize) &&
        count == pTable->fixedSize)
        return bytes.Take();
    LogMessageAs(LOG_READ_FIXED, "Faiedl to read record from table '%s'", pTable->name);
    INDX_TRACE(INDX_ALWAYS, "Failed to read fixed part of record");
    IndxSetError(INDX_ERROR_READ);
    return nullptr;
}

// Whether the fixed part and this much variable data lie inside the record, and the record inside
// the file. Asked before anything is allocated for them.
bool FitsRecord(const IndxTable* pTable, uint32_t offset, const uint8_t* pFixed, uint64_t total)
{
    const uint32_t length = GetU32(pFixed + INDX_RECORD_LENGTH);
    const int64_t position = static_cast<int64_t>(offset) + pTable->fixedSize;
    return pTable->fixedSize + total <= length &&
           IndxRecordInFile(pTable, offset, length, position);
}

// Behind the fixed part, all variable data. Takes the fixed part over and gives it back assembled,
// or null.
uint8_t* ReadVariablePart(
    uint32_t* pSize, const IndxTable* pTable, uint32_t offset, uint8_t* pFixed,
    const uint32_t* pSelected)
{
    HeldMemory<uint8_t> fixed(pFixed);
    IndxPartialRead read = {pTable, pSelected, pFixed, pTable->fixedSize, pTable->fixedSize, 0};
    if (pSelected && !ListWalk(pTable->oFields, AddFieldSize, &read)) {
        ReportField(pTable, 0);
        return nullptr;
    }
    INDX_TRACE(
        INDX_DETAIL, "There are %ld bytes of variable data", static_cast<uint32_t>(read.total));
    *pSize = pTable->fixedSize;
    if (read.total == 0)
        return fixed.Take();
    if (!FitsRecord(pTable, offset, pFixed, read.total)) {
        ReportField(pTable, static_cast<uint32_t>(read.total));
        return nullptr;
    }
    read.capacity = pTable->fixedSize + static_cast<uint32_t>(read.total);
    HeldMemory<uint8_t> bytes(
        static_cast<uint8_t*>(MemAllocateUncleared(read.capacity, IndxPool())));
    if (!bytes) {
        ReportField(pTable, read.capacity);
        return nullptr;
    }
    MemCopy(bytes.get(), pFixed, pTable->fixedSize);
    fixed.Free();
    read.pBytes = bytes.get();
    read.pSelected = pSelected;
    if (!ListWalk(pTable->oFields, IndxReadPartialField, &read))
        return nullptr;
    *pSize = read.size;
    return bytes.Take();
}

} // namespace

NimBool
IndxRetrivePartialRecord(void* pData, void* oTable, uint32_t offset, const uint32_t* pSelected)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxRetrivePartialRecord(%p, %p, %ld, %p)", pData, oTable, offset,
        static_cast<void*>(const_cast<uint32_t*>(pSelected)));
    NimBool bRead = FALSE;
    const IndxTable* pTable = IndxAsTable(oTable);
    uint8_t* pBytes = pTable && pData ? ReadFixedPart(pTable, offset) : nullptr;
    uint32_t size = 0;
    if (pBytes)
        pBytes = ReadVariablePart(&size, pTable, offset, pBytes, pSelected);
    if (pBytes) {
        auto* pRecord = static_cast<ObjData*>(pData);
        pRecord->size = size;
        pRecord->data = pBytes;
        bRead = TRUE;
    }
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxRetrivePartialRecord(%p, %p, %ld, %p)", IndxTruth(bRead), pData,
        oTable, offset, static_cast<void*>(const_cast<uint32_t*>(pSelected)));
    return bRead;
}

NimBool
IndxGetPartialRecord(void** ppRecord, void* oTable, uint32_t offset, const uint32_t* pSelected)
{
    if (ppRecord)
        *ppRecord = nullptr;
    const IndxTable* pTable = IndxAsTable(oTable);
    if (!ppRecord || !pTable) {
        IndxSetError(INDX_ERROR_ARGUMENT);
        return FALSE;
    }
    HeldObject<DbBlob> blob(DbNewBlob(pTable->recordMagic, pTable->format));
    if (!blob || !IndxRetrivePartialRecord(&blob->data, oTable, offset, pSelected))
        return FALSE;
    *ppRecord = blob.Take();
    return TRUE;
}

NimBool IndxGetPartialRecordAtCursor(void** ppRecord, void* oCursor, const uint32_t* pSelected)
{
    if (ppRecord)
        *ppRecord = nullptr;
    const IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!ppRecord || !pCursor || !pCursor->oKey) {
        IndxSetError(INDX_ERROR_ARGUMENT);
        return FALSE;
    }
    return IndxGetPartialRecord(
        ppRecord, pCursor->oField->oTable, pCursor->oKey->fileOffset, pSelected);
}

namespace {

// Makes a variable field absent, in a record of which only the fixed part was read.
NimBool BlankField(void* context, void* oField)
{
    auto* pRead = static_cast<IndxPartialRead*>(context);
    const auto* pField = static_cast<const IndxField*>(oField);
    uint8_t* pSlot = IsVariable(pField->type) ? SlotOf(pRead, pField) : nullptr;
    if (pSlot)
        PutU32(pSlot, 0);
    return TRUE;
}

} // namespace

NimBool IndxGetPartialObjectAtCursor(void** ppObject, void* oCursor, const uint32_t* pSelected)
{
    if (!ppObject) {
        IndxSetError(INDX_ERROR_ARGUMENT);
        return FALSE;
    }
    *ppObject = nullptr;
    HeldObject<> record;
    if (!IndxGetPartialRecordAtCursor(record.Out(), oCursor, pSelected))
        return FALSE;
    auto* pBlob = static_cast<DbBlob*>(record.get());
    if (!pSelected) {
        // The slots point past the bytes that were read: the fields come out absent.
        const IndxTable* pTable = static_cast<IndxCursor*>(oCursor)->oField->oTable;
        IndxPartialRead read = {pTable,           nullptr, static_cast<uint8_t*>(pBlob->data.data),
                                pBlob->data.size, 0,       0};
        ListWalk(pTable->oFields, BlankField, &read);
    }
    return DbConvertObjectFromDbFormat(ppObject, pBlob);
}
