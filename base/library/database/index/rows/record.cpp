// record.cpp: whole records. A record is the encoded form of one object, appended to the table's
// records file and addressed by its offset; every key of the record carries that offset and the
// record's id.
//
// The order is fixed: keys first, bytes second, so that a refused key leaves the records file as it
// was and the caller's back-out drops the keys. The records file is never rolled back: bytes that
// were written stay. Its offsets are signed 32-bit numbers, so it ends at 2 GiB; an add that would
// pass that end fails before any key is entered.

#include <span>

#include "database/block.h"
#include "database/dbrecord_internal.h"
#include "database/index.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/rows/record.h"
#include "database/index/schema/store.h"
#include "database/index/tree/insert.h"
#include "database/index/tree/keycursor.h"
#include "database/logids.h"
#include "nim/bytes.h"
#include "nim/scope.h"

namespace {

constexpr uint32_t CREATE_MODE = 2;  // a companion file is created empty
constexpr uint32_t FIRST_READ = 512; // one read fetches most records whole

// What the walk over the fields of a table carries.
struct KeyUpdate {
    uint32_t offset;
    const ObjData* pRecord;
};

// Enters the record's key into one field's index.
NimBool IndxUpdateIndex(void* context, void* oField)
{
    const auto* pUpdate = static_cast<const KeyUpdate*>(context);
    auto* pField = static_cast<IndxField*>(oField);
    if (!pField->bIndexed)
        return TRUE;
    IndxKeyCursor cursor(pField);
    const NimBool bInserted = IndxInsertKey(cursor.get(), pUpdate->offset, pUpdate->pRecord);
    if (!bInserted)
        INDX_TRACE(INDX_ALWAYS, "Failed to insert key");
    return bInserted;
}

// The end of the records file, where a record of `size` bytes is to go. False: the file cannot be
// positioned, or the record would pass the last offset there is.
bool SeekToNewRecord(uint32_t* pOffset, IndxTable* pTable, uint32_t size)
{
    int64_t end = 0;
    if (FileSysSeekEnd(pTable->hRecords) && FileSysGetOffset(&end, pTable->hRecords) &&
        end + size <= INDX_RECORDS_END) {
        *pOffset = static_cast<uint32_t>(end);
        return true;
    }
    INDX_TRACE(INDX_ALWAYS, "Failed to seek to record");
    IndxSetError(INDX_ERROR_SEEK);
    return false;
}

NimBool CreateCompanionFile(IndxTable* pTable, uint32_t id)
{
    HeldMemory<char> path;
    if (!IndxGetFilePath(path.Out(), pTable, id)) {
        INDX_TRACE(INDX_ALWAYS, "Failed to create file name");
        return FALSE;
    }
    void* hFile = FILE_NONE;
    if (!FileSysOpen(&hFile, path.get(), CREATE_MODE)) {
        INDX_TRACE(INDX_ALWAYS, "Failed to create file");
        return FALSE;
    }
    FileSysClose(&hFile);
    return TRUE;
}

} // namespace

bool IndxIsRecordOf(const IndxTable* pTable, const ObjData* pData)
{
    return pData && pData->data && pData->size >= INDX_RECORD_HEADER &&
           pData->size >= pTable->fixedSize && BytesInside(pTable->idOffset, 4, pData->size);
}

void IndxReportType(const IndxTable* pTable, uint32_t recordMagic)
{
    INDX_TRACE(
        INDX_ALWAYS, "Record of type (%s) for table '%s', which holds type (%s)",
        ObjNameFromMagic(recordMagic), pTable->name, ObjNameFromMagic(pTable->recordMagic));
    IndxSetError(INDX_ERROR_RECORD_TYPE);
}

NimBool IndxAddRecordInternal(uint32_t id, void* oTable, void* pData, NimBool bCreateFile)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxAddRecordInternal(%ld, %p %p, %s)", id, oTable, pData,
        IndxTruth(bCreateFile));
    IndxTable* pTable = IndxAsTable(oTable);
    auto* pRecord = static_cast<ObjData*>(pData);
    if (!pTable || !IndxIsRecordOf(pTable, pRecord)) {
        INDX_TRACE(INDX_ALWAYS, "Not a record of this table");
        IndxSetError(INDX_ERROR_ARGUMENT);
        return FALSE;
    }
    auto* pBytes = static_cast<uint8_t*>(pRecord->data);
    PutU32(pBytes + INDX_RECORD_LENGTH, pRecord->size);
    INDX_TRACE(INDX_DETAIL, "Index at Offset %ld", pTable->idOffset);
    PutU32(pBytes + pTable->idOffset, id);
    KeyUpdate update = {0, pRecord};
    if (!SeekToNewRecord(&update.offset, pTable, pRecord->size))
        return FALSE;
    if (!ListWalk(pTable->oFields, IndxUpdateIndex, &update)) {
        INDX_TRACE(INDX_ALWAYS, "Failed to update indices");
        IndxSetError(INDX_ERROR_UPDATE);
        return FALSE;
    }
    uint32_t moved = 0;
    if (!FileSysWrite(&moved, pTable->hRecords, pBytes, pRecord->size)) {
        INDX_TRACE(INDX_ALWAYS, "Failed to write record");
        LogMessageAs(LOG_WRITE_RECORD, "Failed to write record in table '%s'", pTable->name);
        IndxSetError(INDX_ERROR_UPDATE);
        return FALSE;
    }
    return bCreateFile && pTable->bCompanionFiles ? CreateCompanionFile(pTable, id) : TRUE;
}

NimBool IndxAddRecord(uint32_t id, void* oTable, void* pData)
{
    return IndxAddRecordInternal(id, oTable, pData, TRUE);
}

NimBool IndxAddRecordOnly(uint32_t id, void* oTable, void* pData)
{
    return IndxAddRecordInternal(id, oTable, pData, FALSE);
}

namespace {

// Adds a record under the table's next id and ends the operation. The id is not taken back on
// failure: it may be known to somebody already.
NimBool AddUnderNextId(uint32_t* pId, IndxTable* pTable, ObjData* pData)
{
    const uint32_t id = ++pTable->highestId;
    IndxSetHighestIdModified(pTable);
    INDX_TRACE(INDX_DETAIL, "New record id is %ld", id);
    if (!IndxAddRecord(id, pTable, pData)) {
        IndxBackout(pTable);
        return FALSE;
    }
    const NimBool bStored = IndxUpdateTable(pTable);
    if (pId)
        *pId = id;
    return bStored;
}

} // namespace

NimBool IndxAddRecordToTable(uint32_t* pId, void* oTable, void* oRecord)
{
    NimBool bAdded = FALSE;
    IndxTable* pTable = IndxAsTable(oTable);
    DbBlob* pBlob = IndxAs<DbBlob>(oRecord, DB_BLOB_MAGIC);
    if (pTable && pBlob) {
        if (pBlob->magic == pTable->recordMagic) {
            bAdded = AddUnderNextId(pId, pTable, &pBlob->data);
        } else {
            INDX_TRACE(
                INDX_ALWAYS, "Magic %lx does not match %lx", pBlob->magic, pTable->recordMagic);
            IndxReportType(pTable, pBlob->magic);
        }
    }
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxAddRecordToTable(%p, %p, %p)", IndxTruth(bAdded),
        static_cast<void*>(pId), oTable, oRecord);
    return bAdded;
}

namespace {

NimBool AddUnderGivenId(uint32_t id, IndxTable* pTable, ObjData* pData)
{
    IndxSetHighestIdModified(pTable);
    if (!IndxAddRecord(id, pTable, pData)) {
        IndxBackout(pTable);
        return FALSE;
    }
    // Compared signed: kept, ids from 2^31 on never raise the highest one.
    if (static_cast<int32_t>(id) > static_cast<int32_t>(pTable->highestId))
        pTable->highestId = id;
    return IndxUpdateTable(pTable);
}

} // namespace

NimBool IndxSetRecordInTable(uint32_t id, void* oTable, void* oRecord)
{
    NimBool bSet = FALSE;
    IndxTable* pTable = IndxAsTable(oTable);
    DbBlob* pBlob = IndxAs<DbBlob>(oRecord, DB_BLOB_MAGIC);
    if (pTable && pBlob) {
        if (pBlob->magic == pTable->recordMagic) {
            bSet = AddUnderGivenId(id, pTable, &pBlob->data);
        } else {
            INDX_TRACE(
                INDX_ALWAYS, "Magic %lx for record to set does not match %lx", pBlob->magic,
                pTable->recordMagic);
            IndxReportType(pTable, pBlob->magic);
        }
    }
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxSetRecordInTable(%ld, %p, %p)", IndxTruth(bSet), id, oTable,
        oRecord);
    return bSet;
}

NimBool IndxAddObjectToTable(uint32_t* pId, void* oTable, void* oObject)
{
    IndxTable* pTable = IndxAsTable(oTable);
    if (!pTable)
        return FALSE;
    if (ObjGetMagic(oObject) != pTable->recordMagic) {
        INDX_TRACE(INDX_ALWAYS, "Incorrect object type (%s)", ObjNameFromObject(oObject));
        INDX_TRACE(INDX_ALWAYS, "Table holds type (%s)", ObjNameFromMagic(pTable->recordMagic));
        ProcCrash(0);
        return FALSE;
    }
    HeldObject<> record;
    if (!DbConvertObjectToDbFormat(record.Out(), oObject)) {
        INDX_TRACE(INDX_ALWAYS, "Failed to convert object to db format");
        return FALSE;
    }
    return IndxAddRecordToTable(pId, pTable, record.get());
}

namespace {

// A record is being read, into a data block of the caller's or straight into an object.
void TraceRetrieval(const void* pTarget, const void* oTable, uint32_t offset)
{
    INDX_TRACE(INDX_DETAIL, "IndxRetriveRecord(%p, %p, %ld)", pTarget, oTable, offset);
}

void ReportSeek(const IndxTable* pTable, uint32_t offset)
{
    INDX_TRACE(INDX_ALWAYS, "Failed to seek to record at %ld in table '%s'", offset, pTable->name);
    LogMessageAs(
        LOG_SEEK_RECORD, "Failed to seek to record at %ld in table '%s'", offset, pTable->name);
    IndxSetError(INDX_ERROR_SEEK);
}

void ReportHeader(const IndxTable* pTable, uint32_t offset)
{
    INDX_TRACE(
        INDX_ALWAYS, "Failed to retrive record header at %ld from table '%s'", offset,
        pTable->name);
    LogMessageAs(
        LOG_READ_HEADER, "Failed to retrive record header at %ld from table '%s'", offset,
        pTable->name);
    IndxSetError(INDX_ERROR_READ);
}

void ReportRecord(const IndxTable* pTable, uint32_t length, uint32_t offset)
{
    INDX_TRACE(
        INDX_ALWAYS, "Failed to retrive %ld byte record at %ld from table '%s'", length, offset,
        pTable->name);
    LogMessageAs(
        LOG_READ_RECORD, "Failed to retrive %ld byte record at %ld from table '%s'", length, offset,
        pTable->name);
    IndxSetError(INDX_ERROR_READ);
}

} // namespace

bool IndxRecordInFile(const IndxTable* pTable, uint32_t offset, uint32_t length, int64_t position)
{
    const int64_t end = static_cast<int64_t>(offset) + length;
    int64_t known = 0;
    if (end > INDX_RECORDS_END)
        return false;
    if (FileSysGetLength(&known, pTable->hRecords) && known >= end)
        return true;
    return FileSysSeekEnd(pTable->hRecords) && FileSysGetOffset(&known, pTable->hRecords) &&
           known >= end && FileSysSeek(pTable->hRecords, position);
}

namespace {

// The bytes of a record as they were read: most records need no memory for that.
class RecordBytes {
  public:
    RecordBytes() = default; // leaves `first_` as it is: it is read into
    RecordBytes(const RecordBytes&) = delete;
    RecordBytes& operator=(const RecordBytes&) = delete;

    // False with error and messages when the record cannot be had.
    [[nodiscard]] bool Read(const IndxTable* pTable, uint32_t offset);
    // Valid as long as the object.
    std::span<const uint8_t> bytes() const { return {rest_ ? rest_.get() : first_, length_}; }
    // The bytes in memory of the caller's; null: no memory.
    uint8_t* TakeBytes()
    {
        uint8_t* pBytes = rest_.Take();
        if (!pBytes) {
            pBytes = static_cast<uint8_t*>(MemAllocateUncleared(length_, IndxPool()));
            MemCopy(pBytes, first_, length_);
        }
        return pBytes;
    }

  private:
    uint32_t ReadFirst(const IndxTable* pTable, uint32_t offset);
    bool ReadRest(const IndxTable* pTable, uint32_t offset, uint32_t first);

    uint32_t length_ = 0;
    HeldMemory<uint8_t> rest_; // the whole record, where it is longer than the first read
    uint8_t first_[FIRST_READ];
};

// The start of the record, its header at least, from the file's position on; how many bytes are at
// hand, less than a header when they cannot be read. One read fetches most records whole. It may
// fail on account of what lies behind the record: unless it brought the record before that, the
// header is read again, alone.
uint32_t RecordBytes::ReadFirst(const IndxTable* pTable, uint32_t offset)
{
    uint32_t count = 0;
    if (FileSysRead(&count, pTable->hRecords, first_, FIRST_READ) ||
        (count >= INDX_RECORD_HEADER && GetU32(first_ + INDX_RECORD_LENGTH) <= count))
        return count;
    const bool bRead = FileSysSeek(pTable->hRecords, static_cast<int32_t>(offset)) == 1 &&
                       FileSysRead(&count, pTable->hRecords, first_, INDX_RECORD_HEADER);
    return bRead ? count : 0;
}

// The rest of a record of which the first bytes are at hand, from the file's position on. False
// when the record claims more than the file holds, cannot be read, or there is no memory.
bool RecordBytes::ReadRest(const IndxTable* pTable, uint32_t offset, uint32_t first)
{
    if (!IndxRecordInFile(pTable, offset, length_, static_cast<int64_t>(offset) + first))
        return false;
    rest_.Set(static_cast<uint8_t*>(MemAllocateUncleared(length_, IndxPool())));
    if (!rest_)
        return false;
    MemCopy(rest_.get(), first_, first);
    uint32_t count = 0;
    return FileSysRead(&count, pTable->hRecords, rest_.get() + first, length_ - first) &&
           count == length_ - first;
}

bool RecordBytes::Read(const IndxTable* pTable, uint32_t offset)
{
    if (FileSysSeek(pTable->hRecords, static_cast<int32_t>(offset)) != 1) {
        ReportSeek(pTable, offset);
        return false;
    }
    const uint32_t first = ReadFirst(pTable, offset);
    if (first < INDX_RECORD_HEADER) {
        ReportHeader(pTable, offset);
        return false;
    }
    length_ = GetU32(first_ + INDX_RECORD_LENGTH);
    if (length_ < INDX_RECORD_HEADER || (length_ > first && !ReadRest(pTable, offset, first))) {
        ReportRecord(pTable, length_, offset);
        return false;
    }
    return true;
}

} // namespace

NimBool IndxRetriveRecord(void* pData, void* oTable, uint32_t offset)
{
    TraceRetrieval(pData, oTable, offset);
    const IndxTable* pTable = IndxAsTable(oTable);
    RecordBytes record;
    if (!pTable || !pData || !record.Read(pTable, offset))
        return FALSE;
    const auto size = static_cast<uint32_t>(record.bytes().size());
    uint8_t* pBytes = record.TakeBytes();
    if (!pBytes) {
        ReportRecord(pTable, size, offset);
        return FALSE;
    }
    auto* pRecord = static_cast<ObjData*>(pData);
    pRecord->size = size;
    pRecord->data = pBytes;
    return TRUE;
}

namespace {

// The cursor's table and key when it stands on a key of an open table.
bool IsOnRecord(const IndxCursor* pCursor)
{
    return pCursor && pCursor->status == INDX_ON_KEY && pCursor->oKey &&
           pCursor->oField->oTable != nullptr;
}

} // namespace

NimBool IndxGetRecord(void** ppRecord, void* oTable, uint32_t offset)
{
    if (!ppRecord)
        return FALSE;
    *ppRecord = nullptr;
    IndxTable* pTable = IndxAsTable(oTable);
    HeldObject<DbBlob> blob(pTable ? DbNewBlob(pTable->recordMagic, pTable->format) : nullptr);
    if (!blob || !IndxRetriveRecord(&blob->data, pTable, offset))
        return FALSE;
    *ppRecord = blob.Take();
    return TRUE;
}

NimBool IndxGetRecordAtCursor(void** ppRecord, void* oCursor)
{
    if (!ppRecord)
        return FALSE;
    *ppRecord = nullptr;
    const IndxCursor* pCursor = IndxAsCursor(oCursor);
    return IsOnRecord(pCursor)
               ? IndxGetRecord(ppRecord, pCursor->oField->oTable, pCursor->oKey->fileOffset)
               : FALSE;
}

namespace {

// A record belongs to its key when it carries the key's id; an index that points elsewhere is
// corrupt. False also for a record too short to carry an id.
bool BelongsToKey(const IndxTable* pTable, const IndxKeyInfo* pKey, std::span<const uint8_t> record)
{
    const auto size = static_cast<uint32_t>(record.size());
    if (!BytesInside(pTable->idOffset, 4, size)) {
        ReportRecord(pTable, size, pKey->fileOffset);
        return false;
    }
    const uint32_t id = GetU32(record.data() + pTable->idOffset);
    if (id == pKey->recordId)
        return true;
    INDX_TRACE(
        INDX_ALWAYS, "Table %s: Cursor Key id %ld does not match record at %ld with id %ld",
        pTable->name, pKey->recordId, pKey->fileOffset, id);
    ProcCrash(0);
    return false;
}

} // namespace

NimBool IndxGetObjectAtCursor(void** ppObject, void* oCursor)
{
    if (!ppObject)
        return FALSE;
    *ppObject = nullptr;
    const IndxCursor* pCursor = IndxAsCursor(oCursor);
    if (!IsOnRecord(pCursor))
        return FALSE;
    const IndxTable* pTable = pCursor->oField->oTable;
    const IndxKeyInfo* pKey = pCursor->oKey;
    // Straight from the bytes that were read: a find makes no BLOB around them and copies nothing.
    RecordBytes record;
    TraceRetrieval(&record, pTable, pKey->fileOffset);
    return record.Read(pTable, pKey->fileOffset) && BelongsToKey(pTable, pKey, record.bytes()) &&
           DbDecodeRecord(ppObject, pTable->recordMagic, pTable->format, record.bytes());
}
