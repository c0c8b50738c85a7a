// modify.cpp: replacing and deleting a record, with every key it has.
//
// A record is replaced by moving each index key from its old form to the new one, and then writing
// the new bytes over the old or at the end of the records file. A record is deleted by taking its
// keys out; its bytes stay where they are. Bytes left behind are never used again. A failure backs
// the key changes out; bytes already written to the records file stay.

#include "database/index/rows/modify.h"

#include "database/dbrecord.h"
#include "database/index.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/rows/record.h"
#include "database/index/schema/store.h"
#include "database/index/tree/delete.h"
#include "database/index/tree/insert.h"
#include "database/index/tree/keycursor.h"
#include "database/index/tree/repoint.h"
#include "database/logids.h"
#include "nim/bytes.h"
#include "nim/scope.h"

namespace {

// The bytes of a record, freed at the end of the operation.
struct HeldRecord {
    ObjData data = {};
    ~HeldRecord() { MemFreeInternal(&data.data); }
};

// The old record: its fixed part, and its variable data where keys lie in it.
bool ReadOldRecord(HeldRecord* pOld, IndxTable* pTable, uint32_t offset)
{
    const auto* pFlags = static_cast<const uint32_t*>(pTable->indexedFlags.data);
    return IndxRetrivePartialRecord(
        &pOld->data, pTable, offset, pTable->bTextIndex ? pFlags : nullptr);
}

struct KeyChange {
    const ObjData* pOld;
    const ObjData* pNew;
    uint32_t newOffset;
};

bool MoveKey(IndxCursor* pCursor, const KeyChange* pChange)
{
    if (IndxRepointKey(pCursor, pChange->pOld, pChange->pNew, pChange->newOffset))
        return true;
    if (!IndxDeleteKey(pCursor, pChange->pOld)) {
        INDX_TRACE(INDX_ALWAYS, "Error failed to delete old key");
        return false;
    }
    if (!IndxInsertKey(pCursor, pChange->newOffset, pChange->pNew)) {
        INDX_TRACE(INDX_ALWAYS, "Error failed to insert new key");
        return false;
    }
    return true;
}

// Moves one field's key from the old record to the new one. Kept: a field counts as indexed when
// its flag is not 0, as it does for an add, while deletion tests for exactly 1.
NimBool IndxModifyKey(void* context, void* oField)
{
    auto* pField = static_cast<IndxField*>(oField);
    if (!pField->bIndexed)
        return TRUE;
    IndxKeyCursor cursor(pField);
    return MoveKey(cursor.get(), static_cast<const KeyChange*>(context));
}

NimBool IndxDeleteOldKey(void* context, void* oField)
{
    auto* pField = static_cast<IndxField*>(oField);
    if (pField->bIndexed != 1)
        return TRUE;
    IndxKeyCursor cursor(pField);
    const NimBool bDeleted = IndxDeleteKey(cursor.get(), static_cast<const ObjData*>(context));
    if (!bDeleted)
        INDX_TRACE(INDX_ALWAYS, "Failed to delete key");
    return bDeleted;
}

// Whether a record that grows has room at an offset: before the end of records, and on the disk. A
// full disk met by the write would lose the record, since its failure goes unnoticed.
bool HasRoom(const IndxTable* pTable, int64_t offset, uint32_t length)
{
    return offset + length <= INDX_RECORDS_END && FileSysReserve(pTable->hRecords, offset, length);
}

// Positions the records file where the new record goes: over the old one when it fits, or when the
// table never issued an id but 1 (kept: the only record of a table grows in place), else to the
// end. False: no such place. A record that does not grow may stay wherever it lies.
bool SeekToWritePosition(
    uint32_t* pNewOffset, IndxTable* pTable, uint32_t offset, uint32_t oldLength,
    uint32_t newLength)
{
    *pNewOffset = offset;
    const bool bFits = static_cast<int32_t>(oldLength) >= static_cast<int32_t>(newLength);
    if (bFits || pTable->highestId == 1) {
        if ((bFits || HasRoom(pTable, offset, newLength)) &&
            FileSysSeek(pTable->hRecords, static_cast<int32_t>(offset)))
            return true;
        INDX_TRACE(INDX_ALWAYS, "Error failed to seek to write position");
        return false;
    }
    int64_t end = 0;
    if (FileSysSeekEnd(pTable->hRecords) && FileSysGetOffset(&end, pTable->hRecords) &&
        HasRoom(pTable, end, newLength)) {
        *pNewOffset = static_cast<uint32_t>(end);
        return true;
    }
    INDX_TRACE(INDX_ALWAYS, "Error failed to seek to end of file");
    return false;
}

// Writes the new record where the file stands. Kept: it counts as failed only when the write fails
// and says that it moved everything. Any other failure goes unnoticed here: the keys then lead to a
// record that is lost, and reading it says so.
bool WriteNewRecord(IndxTable* pTable, const ObjData* pNew)
{
    uint32_t moved = 0;
    if (FileSysWrite(&moved, pTable->hRecords, pNew->data, pNew->size) || moved != pNew->size)
        return true;
    LogMessageAs(LOG_WRITE_MODIFIED, "Failed to write modified record in table '%s'", pTable->name);
    INDX_TRACE(INDX_ALWAYS, "Error writing out modified record");
    IndxSetError(INDX_ERROR_UPDATE);
    return false;
}

// First the place, then the keys, then the bytes: a refused key leaves the records file as it was.
bool ReplaceRecord(IndxTable* pTable, uint32_t offset, const ObjData* pOld, ObjData* pNew)
{
    auto* pBytes = static_cast<uint8_t*>(pNew->data);
    const uint32_t oldLength = GetU32(static_cast<const uint8_t*>(pOld->data));
    KeyChange change = {pOld, pNew, offset};
    if (!SeekToWritePosition(&change.newOffset, pTable, offset, oldLength, pNew->size) ||
        !ListWalk(pTable->oFields, IndxModifyKey, &change))
        return false;
    PutU32(pBytes + INDX_RECORD_LENGTH, pNew->size);
    return WriteNewRecord(pTable, pNew);
}

// Whether a new record may take the place of the old one: of the same id, or of none. It gets the
// old one's id then.
bool TakeOverId(const IndxTable* pTable, const ObjData* pOld, ObjData* pNew)
{
    uint8_t* pNewId = static_cast<uint8_t*>(pNew->data) + pTable->idOffset;
    const uint32_t oldId = GetU32(static_cast<const uint8_t*>(pOld->data) + pTable->idOffset);
    const uint32_t newId = GetU32(pNewId);
    if (newId != 0 && newId != oldId) {
        INDX_TRACE(INDX_ALWAYS, "Old Id %ld does not match new Id %ld", oldId, newId);
        IndxSetError(INDX_ERROR_ID_MISMATCH);
        return false;
    }
    PutU32(pNewId, oldId);
    return true;
}

// The type comes first: how long a record of another type is says nothing.
bool CanReplace(const IndxTable* pTable, const DbBlob* pBlob)
{
    if (pTable && pBlob && pBlob->magic != pTable->recordMagic) {
        INDX_TRACE(INDX_ALWAYS, "Magic %lx does not match %lx", pBlob->magic, pTable->recordMagic);
        IndxReportType(pTable, pBlob->magic);
        return false;
    }
    if (pTable && pBlob && IndxIsRecordOf(pTable, &pBlob->data))
        return true;
    INDX_TRACE(INDX_ALWAYS, "Not a record of this table");
    IndxSetError(INDX_ERROR_ARGUMENT);
    return false;
}

} // namespace

bool IndxGetRecordId(uint32_t* pId, void* oTable, void* oRecord)
{
    const IndxTable* pTable = IndxAsTable(oTable);
    const DbBlob* pBlob = IndxAs<DbBlob>(oRecord, DB_BLOB_MAGIC);
    if (!CanReplace(pTable, pBlob))
        return false;
    *pId = GetU32(static_cast<const uint8_t*>(pBlob->data.data) + pTable->idOffset);
    return true;
}

void IndxReportNoRecord(void* oCursor, uint32_t id)
{
    const auto* pCursor = static_cast<const IndxCursor*>(oCursor);
    if (!pCursor->bFailed)
        INDX_TRACE(
            INDX_ALWAYS, "No record %ld in table '%s' to modify", id,
            pCursor->oField->oTable->name);
}

NimBool IndxModifyRecordInTable(void* oTable, uint32_t offset, void* oRecord)
{
    IndxTable* pTable = IndxAsTable(oTable);
    DbBlob* pBlob = IndxAs<DbBlob>(oRecord, DB_BLOB_MAGIC);
    if (!CanReplace(pTable, pBlob))
        return FALSE;
    HeldRecord old;
    if (!ReadOldRecord(&old, pTable, offset) || !TakeOverId(pTable, &old.data, &pBlob->data))
        return FALSE;
    if (!ReplaceRecord(pTable, offset, &old.data, &pBlob->data)) {
        // Without this a cursor whose record has been deleted would only be told of a lost key.
        INDX_TRACE(
            INDX_ALWAYS, "Failed to modify record %ld at %ld in table '%s'",
            GetU32(static_cast<const uint8_t*>(old.data.data) + pTable->idOffset), offset,
            pTable->name);
        IndxBackout(pTable);
        return FALSE;
    }
    return IndxUpdateTable(pTable);
}

namespace {

// Where the write of a record was lost, its keys may lead to one that was added later: an object
// without an id replaces the record of its key and no other.
void TakeIdOfKey(const IndxTable* pTable, uint32_t id, DbBlob* pBlob)
{
    if (!pTable || pBlob->magic != pTable->recordMagic || !IndxIsRecordOf(pTable, &pBlob->data))
        return; // not to be written
    uint8_t* pId = static_cast<uint8_t*>(pBlob->data.data) + pTable->idOffset;
    if (GetU32(pId) == 0)
        PutU32(pId, id);
}

} // namespace

NimBool IndxModifyObjectAtCursor(void* oCursor, void* oObject)
{
    const IndxCursor* pCursor = IndxAsCursor(oCursor);
    HeldObject<> record;
    if (!pCursor || !pCursor->oKey || !DbConvertObjectToDbFormat(record.Out(), oObject))
        return FALSE;
    IndxTable* pTable = pCursor->oField->oTable;
    TakeIdOfKey(pTable, pCursor->oKey->recordId, static_cast<DbBlob*>(record.get()));
    return IndxModifyRecordInTable(pTable, pCursor->oKey->fileOffset, record.get());
}

namespace {

// Whether a record is the one its key was entered for. Taking the keys of another one out, which
// was added where the write of this one was lost, would lose that one, too.
bool IsOfKey(const IndxTable* pTable, const ObjData* pRecord, const IndxKeyInfo* pKey)
{
    return IndxIsRecordOf(pTable, pRecord) &&
           GetU32(static_cast<const uint8_t*>(pRecord->data) + pTable->idOffset) == pKey->recordId;
}

bool DeleteAtKey(const IndxCursor* pCursor)
{
    IndxTable* pTable = IndxAsTable(pCursor->oField->oTable);
    HeldRecord old;
    if (!pTable || !ReadOldRecord(&old, pTable, pCursor->oKey->fileOffset) ||
        !IsOfKey(pTable, &old.data, pCursor->oKey)) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Lost record");
        return false;
    }
    if (!ListWalk(pTable->oFields, IndxDeleteOldKey, &old.data)) {
        INDX_TRACE(INDX_ALWAYS, "Could not delete keys for record");
        IndxBackout(pTable);
        return false;
    }
    return IndxUpdateTable(pTable);
}

} // namespace

NimBool IndxDeleteRecord(void* oCursor)
{
    NimBool bDeleted = FALSE;
    const IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (pCursor && IndxAsKeyInfo(pCursor->oKey))
        bDeleted = DeleteAtKey(pCursor);
    else
        INDX_TRACE(INDX_ALWAYS, "NULL cursor - no record to delete");
    INDX_TRACE(INDX_DETAIL, "%s = IndxDeleteRecord(%p)", IndxTruth(bDeleted), oCursor);
    return bDeleted;
}
