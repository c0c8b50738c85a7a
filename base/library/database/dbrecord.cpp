// dbrecord.cpp: values to record bytes and back.
//
// The encoder measures an object, takes memory once and fills it; the decoder walks the same
// descriptors the other way; the field functions read and write single slots in place. What a
// template's descriptors say is taken from the base services, and where a record is kept is the
// index module's matter. The BLOB's template and the objects of records are made here and nowhere
// else.
//
// Invariants. A record's length is its fixed size plus the lengths of its variable items, at most
// DB_RECORD_MAX. The decoder believes no byte of a record: whatever a slot says, nothing outside
// the record is read and nothing outside the object is written, and an object that is released on
// the way holds no pointer that did not come from its pool.
#include "database/dbrecord.h"

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstring>

#include "database/dbrecord_internal.h"
#include "database/index.h"
#include "database/index/ground/shapes.h"
#include "database/trace.h"
#include "nim/bytes.h"
#include "nim/mem.h"
#include "nim/proc.h"
#include "nim/scope.h"
#include "nim/str.h"
#include "nim/unique.h"

// The BLOB is laid over the body of an object "i;s;d;".
static_assert(sizeof(DbBlob) == 32 && sizeof(ObjData) == 16);
static_assert(offsetof(DbBlob, magic) == 0 && offsetof(DbBlob, format) == 8);
static_assert(offsetof(DbBlob, data) == 16 && offsetof(ObjData, data) == 8);

namespace {

// A slot of kind 3, 4, 7 or 8: length, then offset.
constexpr uint32_t SLOT_OFFSET = 4;
constexpr uint32_t POINTER_SIZE = sizeof(void*);
constexpr uint32_t OBJECT_ALIGNMENT = 8;
static_assert(sizeof(UniqueId) == 32);

// No object has this magic: a template under it says how a format is laid out and makes nothing.
constexpr uint32_t LAYOUT_MAGIC = 0;

// The pool of all bytes and objects made here. Set on first use; two threads with a database each
// may both set it, to the same value.
uint32_t Pool()
{
    static std::atomic<uint32_t> gPool{0};
    uint32_t pool = gPool.load(std::memory_order_relaxed);
    if (pool == 0) {
        pool = MemGetDefaultPoolId();
        gPool.store(pool, std::memory_order_relaxed);
    }
    return pool;
}

// The BLOB's template, made on first use and kept for the life of the process; null without memory.
// The registry gives the same handle to everyone who asks, so a race here stores it twice.
ObjTemplate* BlobTemplate()
{
    static std::atomic<ObjTemplate*> gTemplate{nullptr};
    ObjTemplate* pTemplate = gTemplate.load(std::memory_order_acquire);
    if (!pTemplate && ObjTemplateCreateInternal(
                          &pTemplate, sizeof(DbBlob), DB_BLOB_MAGIC, DB_BLOB_FORMAT, nullptr))
        gTemplate.store(pTemplate, std::memory_order_release);
    return pTemplate;
}

// An item that no record can hold, met where only storable items may be: memory corruption.
void CrashOnKind()
{
    DBLIB_TRACE(trace_level::ALWAYS, "Should not get these");
    ProcCrash(0);
}

void TraceNoMemory(uint32_t lSize)
{
    DBLIB_TRACE(trace_level::ALWAYS, "No memory for %lu bytes", lSize);
}

// The pointer in an item, whatever its type is to the module that owns the object.
const void* PointerIn(const uint8_t* pItem)
{
    const void* pointer;
    std::memcpy(&pointer, pItem, sizeof pointer);
    return pointer;
}

void SetPointer(uint8_t* pItem, const void* pointer)
{
    std::memcpy(pItem, &pointer, sizeof pointer);
}

// ---- encoder ----------------------------------------------------------------------------------

// Lengths that the first pass found, for the second: counting the characters of a text and walking
// a nested object cost as much as copying them. Items beyond these are measured again.
struct Lengths {
    static constexpr int32_t REMEMBERED = 64;
    uint32_t of[REMEMBERED]; // by item number; only those of variable items are set
};

// Bytes that an item takes in the variable part; 0 for an item that lies in its slot. False when
// the item cannot be stored.
bool MeasureItem(uint32_t* pLength, const ObjDbField* pField, const uint8_t* pBody)
{
    const uint8_t* pItem = pBody + pField->objectOffset;
    *pLength = 0;
    switch (pField->kind) {
    case DB_KIND_BOOLEAN:
    case DB_KIND_INTEGER:
    case DB_KIND_INT64:
    case DB_KIND_UNIQUE:
        return true;
    case DB_KIND_STRING:
        *pLength = StrSize(static_cast<const char*>(PointerIn(pItem)));
        return true;
    case DB_KIND_OBJECT: {
        const void* oNested = PointerIn(pItem);
        if (!oNested)
            return true;
        *pLength = ObjSerializedSize(oNested);
        // Without this an object that holds a map, or for which there is no memory now, would be
        // stored as none at all, and be gone.
        if (*pLength == 0)
            DBLIB_TRACE(trace_level::ALWAYS, "Failed to serialise object at '%p'", oNested);
        return *pLength != 0;
    }
    case DB_KIND_DATA: {
        const ObjData* pData = reinterpret_cast<const ObjData*>(pItem);
        *pLength = pData->size;
        if (pData->size != 0 && !pData->data)
            DBLIB_TRACE(trace_level::ALWAYS, "Data of %lu bytes has none", pData->size);
        return pData->size == 0 || pData->data;
    }
    case DB_KIND_ARRAY:
        *pLength = static_cast<uint32_t>(pField->arrayLength);
        return true;
    default:
        CrashOnKind();
        return false;
    }
}

// First pass: the length of the variable part. In 64 bits: the items' own lengths have 32.
bool MeasureObject(
    uint64_t* pVariable, Lengths* pLengths, const ObjDbData* pDbData, const uint8_t* pBody)
{
    uint64_t lVariable = 0;
    for (int32_t i = 0; i < pDbData->fieldCount; ++i) {
        uint32_t lLength;
        if (!MeasureItem(&lLength, &pDbData->fields[i], pBody))
            return false;
        if (i < Lengths::REMEMBERED)
            pLengths->of[i] = lLength;
        lVariable += lLength;
    }
    *pVariable = lVariable;
    return true;
}

// The nested object's serialised form, which must be exactly as long as it was measured: the room
// behind it is another item's.
bool WriteNested(uint8_t* pTo, uint32_t lLength, uint32_t lOffset, const void* oNested)
{
    uint32_t lReported = 0;
    if (oNested) {
        lReported = UINT32_MAX;
        ObjSerializeToMemory(oNested, pTo, &lReported);
    }
    DBLIB_TRACE(
        trace_level::DETAIL, "size is %ld at %ld", static_cast<int32_t>(lReported),
        static_cast<int32_t>(lOffset));
    if (lReported != lLength)
        DBLIB_TRACE(trace_level::ALWAYS, "Failed to serialise object at '%p'", oNested);
    return lReported == lLength;
}

// The bytes of one variable item at `lOffset`. False when they cannot be written.
bool WriteVariable(
    uint8_t* pRecord, const ObjDbField* pField, const uint8_t* pItem, uint32_t lLength,
    uint32_t lOffset)
{
    PutU32(pRecord + pField->fixedOffset, lLength);
    PutU32(pRecord + pField->fixedOffset + SLOT_OFFSET, lOffset);
    uint8_t* pTo = pRecord + lOffset;
    switch (pField->kind) {
    case DB_KIND_STRING:
        if (lLength > 0)
            std::memcpy(pTo, PointerIn(pItem), lLength);
        return true;
    case DB_KIND_OBJECT:
        return WriteNested(pTo, lLength, lOffset, PointerIn(pItem));
    case DB_KIND_DATA:
        if (lLength > 0)
            std::memcpy(pTo, reinterpret_cast<const ObjData*>(pItem)->data, lLength);
        return true;
    default: // an inline array
        std::memcpy(pTo, pItem, lLength);
        return true;
    }
}

// Second pass: slots and variable bytes into memory of `lTotal` bytes, the fixed part of it zero.
bool WriteObject(
    uint8_t* pRecord, uint32_t lTotal, const Lengths* pLengths, const ObjDbData* pDbData,
    const uint8_t* pBody)
{
    uint32_t lOffset = pDbData->fixedSize;
    for (int32_t i = 0; i < pDbData->fieldCount; ++i) {
        const ObjDbField* pField = &pDbData->fields[i];
        const uint8_t* pItem = pBody + pField->objectOffset;
        uint8_t* pSlot = pRecord + pField->fixedOffset;
        switch (pField->kind) {
        case DB_KIND_BOOLEAN:
        case DB_KIND_INTEGER:
            PutU32(pSlot, *reinterpret_cast<const uint32_t*>(pItem));
            break;
        case DB_KIND_INT64:
            PutU64(pSlot, *reinterpret_cast<const uint64_t*>(pItem));
            break;
        case DB_KIND_UNIQUE:
            std::memcpy(pSlot, pItem, sizeof(UniqueId));
            break;
        default: { // of variable length: what is of no kind was met when it was measured
            uint32_t lLength;
            if (i < Lengths::REMEMBERED)
                lLength = pLengths->of[i];
            else if (!MeasureItem(&lLength, pField, pBody))
                return false;
            assert(BytesInside(lOffset, lLength, lTotal));
            if (!BytesInside(lOffset, lLength, lTotal) ||
                !WriteVariable(pRecord, pField, pItem, lLength, lOffset))
                return false;
            lOffset += lLength;
            break;
        }
        }
    }
    assert(lOffset == lTotal);
    return true;
}

// The description of an object that can be stored, or null. A broken object ends the process.
const ObjDbData* StorableDbData(const void* oObject)
{
    if ((ObjGetMagic(oObject) & OBJ_MAGIC_MASK) != OBJ_MAGIC_VALID) {
        DBLIB_TRACE(trace_level::ALWAYS, "Invalid object at '%p'", oObject);
        ProcCrash(0);
        return nullptr;
    }
    const ObjDbData* pDbData = ObjGetDbData(oObject);
    if (!pDbData) {
        DBLIB_TRACE(trace_level::ALWAYS, "Corrupt object - no template at '%p'", oObject);
        ProcCrash(0);
        return nullptr;
    }
    return pDbData->notStorable ? nullptr : pDbData;
}

// Encodes an object whose description is known. `pRecord` is written on success only.
bool EncodeObject(ObjData* pRecord, const ObjDbData* pDbData, const void* oObject)
{
    const uint8_t* pBody = static_cast<const uint8_t*>(oObject);
    Lengths lengths; // not cleared: the first pass sets what the second reads
    uint64_t lVariable;
    if (!MeasureObject(&lVariable, &lengths, pDbData, pBody))
        return false;
    const uint64_t lTotal = pDbData->fixedSize + lVariable;
    if (lTotal > DB_RECORD_MAX) {
        DBLIB_TRACE(trace_level::ALWAYS, "Record of %I64u bytes is too long", lTotal);
        return false;
    }
    const uint32_t lSize = static_cast<uint32_t>(lTotal);
    DBLIB_TRACE(
        trace_level::DETAIL, "Size of database BLOB is %ld bytes (%ld + %ld)",
        static_cast<int32_t>(lSize), static_cast<int32_t>(pDbData->fixedSize),
        static_cast<int32_t>(lVariable));

    // Slots need not cover the fixed part, and what lies between them goes to disk: it must not be
    // stray memory. The variable part is written through and through.
    void* pBytes = MemAllocateUncleared(lSize, Pool());
    if (!pBytes) {
        TraceNoMemory(lSize);
        return false;
    }
    std::memset(pBytes, 0, pDbData->fixedSize);
    if (!WriteObject(static_cast<uint8_t*>(pBytes), lSize, &lengths, pDbData, pBody)) {
        MemFreeInternal(&pBytes);
        return false;
    }
    pRecord->size = lSize;
    pRecord->data = pBytes;
    return true;
}

// ---- decoder ----------------------------------------------------------------------------------

// A record as it is being read, or a stretch of it. Records end at 2 GiB.
using Bytes = std::span<const uint8_t>;

uint32_t SizeOf(Bytes bytes)
{
    return static_cast<uint32_t>(bytes.size());
}

bool Damaged(Bytes record, const ObjDbField* pField)
{
    DBLIB_TRACE(
        trace_level::ALWAYS, "Damaged record of %lu bytes, slot at %ld", SizeOf(record),
        pField->fixedOffset);
    return false;
}

// Where the bytes of a variable item lie; null when they would not lie inside the record.
const uint8_t* VariableBytes(Bytes record, const uint8_t* pSlot, uint32_t lLength)
{
    const uint32_t lOffset = GetU32(pSlot + SLOT_OFFSET);
    return BytesInside(lOffset, lLength, SizeOf(record)) ? record.data() + lOffset : nullptr;
}

// The end of the object's last item, rounded up as objects are. Items lie in template order.
uint32_t ObjectEnd(const ObjDbData* pDbData)
{
    const ObjDbField* pLast = &pDbData->fields[pDbData->fieldCount - 1];
    uint32_t lWidth = POINTER_SIZE;
    switch (pLast->kind) {
    case DB_KIND_BOOLEAN:
    case DB_KIND_INTEGER:
        lWidth = sizeof(uint32_t);
        break;
    case DB_KIND_DATA:
        lWidth = sizeof(ObjData);
        break;
    case DB_KIND_UNIQUE:
        lWidth = sizeof(UniqueId);
        break;
    case DB_KIND_ARRAY:
        lWidth = static_cast<uint32_t>(pLast->arrayLength);
        break;
    default: // 8 bytes: a pointer, a handle or a 64-bit integer
        break;
    }
    const uint32_t lEnd = static_cast<uint32_t>(pLast->objectOffset) + lWidth;
    return (lEnd + OBJECT_ALIGNMENT - 1) & ~(OBJECT_ALIGNMENT - 1);
}

// An array ran over the items behind `pField`, up to `lReach`. Those that hold pointers go back to
// null at once, so that neither a slot without contents nor a failure leaves stray bytes to be
// freed. The other items are written when their turn comes.
void ClearOverrunItems(
    uint8_t* pBody, const ObjDbData* pDbData, const ObjDbField* pField, uint32_t lReach)
{
    const ObjDbField* pEnd = pDbData->fields + pDbData->fieldCount;
    for (++pField; pField != pEnd && static_cast<uint32_t>(pField->objectOffset) < lReach;
         ++pField) {
        switch (pField->kind) {
        case DB_KIND_BOOLEAN:
        case DB_KIND_INTEGER:
        case DB_KIND_INT64:
        case DB_KIND_UNIQUE:
        case DB_KIND_ARRAY:
            break;
        case DB_KIND_DATA:
            std::memset(pBody + pField->objectOffset, 0, sizeof(ObjData));
            break;
        default:
            SetPointer(pBody + pField->objectOffset, nullptr);
            break;
        }
    }
}

bool DecodeString(Bytes record, const ObjDbField* pField, uint8_t* pItem)
{
    const uint8_t* pSlot = record.data() + pField->fixedOffset;
    const int32_t lLength = GetI32(pSlot);
    if (lLength <= 0)
        return true;
    const uint32_t lRoom = static_cast<uint32_t>(lLength);
    const uint8_t* pText = VariableBytes(record, pSlot, lRoom);
    if (!pText)
        return Damaged(record, pField);
    const void* pNul = std::memchr(pText, 0, lRoom);
    const uint32_t lText =
        pNul ? static_cast<uint32_t>(static_cast<const uint8_t*>(pNul) - pText) : lRoom;
    const char* pCopy =
        StrDuplicateRangeIntoPool(reinterpret_cast<const char*>(pText), Pool(), lText);
    SetPointer(pItem, pCopy);
    if (!pCopy)
        TraceNoMemory(lText);
    return pCopy != nullptr;
}

bool DecodeNested(Bytes record, const ObjDbField* pField, uint8_t* pItem)
{
    const uint8_t* pSlot = record.data() + pField->fixedOffset;
    const int32_t lLength = GetI32(pSlot);
    DBLIB_TRACE(
        trace_level::DETAIL, "Reconstruct Object from %ld bytes at %lx", lLength,
        GetU32(pSlot + SLOT_OFFSET));
    if (lLength <= 0)
        return true;
    const uint8_t* pForm = VariableBytes(record, pSlot, static_cast<uint32_t>(lLength));
    if (!pForm)
        return Damaged(record, pField);
    // Kept: an object that cannot be rebuilt is reported, and the rest of the record still counts.
    void* oNested;
    if (!ObjReconstructFromMemorySized(&oNested, pForm, static_cast<uint32_t>(lLength)))
        DBLIB_TRACE(trace_level::ALWAYS, "Reconstruct failed");
    SetPointer(pItem, oNested);
    return true;
}

// The byte count is unsigned here, and a block of no bytes is a block all the same.
bool DecodeData(Bytes record, const ObjDbField* pField, ObjData* pData)
{
    const uint8_t* pSlot = record.data() + pField->fixedOffset;
    const uint32_t lLength = GetU32(pSlot);
    const uint8_t* pBytes = lLength > 0 ? VariableBytes(record, pSlot, lLength) : pSlot;
    if (!pBytes)
        return Damaged(record, pField);
    void* pCopy = MemAllocateUncleared(lLength, Pool());
    if (!pCopy) {
        TraceNoMemory(lLength);
        return false;
    }
    std::memcpy(pCopy, pBytes, lLength);
    pData->size = lLength;
    pData->data = pCopy;
    return true;
}

// Kept: the stored length counts, not the template's, so an array may run over the items behind it.
// What it may not do is pass the end of the object.
bool DecodeArray(Bytes record, const ObjDbData* pDbData, const ObjDbField* pField, uint8_t* pBody)
{
    const uint8_t* pSlot = record.data() + pField->fixedOffset;
    const uint32_t lLength = GetU32(pSlot);
    if (lLength == 0)
        return true;
    const uint32_t lStart = static_cast<uint32_t>(pField->objectOffset);
    const bool bOverrun = lLength > static_cast<uint32_t>(pField->arrayLength);
    if (bOverrun && !BytesInside(lStart, lLength, ObjectEnd(pDbData)))
        return Damaged(record, pField);
    const uint8_t* pBytes = VariableBytes(record, pSlot, lLength);
    if (!pBytes)
        return Damaged(record, pField);
    std::memcpy(pBody + lStart, pBytes, lLength);
    if (bOverrun)
        ClearOverrunItems(pBody, pDbData, pField, lStart + lLength);
    return true;
}

// Fills the body of a fresh object. False: the object is to be released, and can be.
bool DecodeFields(uint8_t* pBody, const ObjDbData* pDbData, Bytes record)
{
    if (!record.data() || record.size() < pDbData->fixedSize) {
        DBLIB_TRACE(
            trace_level::ALWAYS, "Damaged record of %lu bytes, fixed size %lu", SizeOf(record),
            pDbData->fixedSize);
        return false;
    }
    bool bStorable = true;
    for (int32_t i = 0; i < pDbData->fieldCount; ++i) {
        const ObjDbField* pField = &pDbData->fields[i];
        const uint8_t* pSlot = record.data() + pField->fixedOffset;
        uint8_t* pItem = pBody + pField->objectOffset;
        bool bDecoded = true;
        switch (pField->kind) {
        case DB_KIND_BOOLEAN:
        case DB_KIND_INTEGER:
            *reinterpret_cast<uint32_t*>(pItem) = GetU32(pSlot);
            break;
        case DB_KIND_INT64:
            *reinterpret_cast<uint64_t*>(pItem) = GetU64(pSlot);
            break;
        case DB_KIND_UNIQUE:
            std::memcpy(pItem, pSlot, sizeof(UniqueId));
            break;
        case DB_KIND_STRING:
            bDecoded = DecodeString(record, pField, pItem);
            break;
        case DB_KIND_OBJECT:
            bDecoded = DecodeNested(record, pField, pItem);
            break;
        case DB_KIND_DATA:
            bDecoded = DecodeData(record, pField, reinterpret_cast<ObjData*>(pItem));
            break;
        case DB_KIND_ARRAY:
            bDecoded = DecodeArray(record, pDbData, pField, pBody);
            break;
        default:
            CrashOnKind();
            bStorable = false;
            break;
        }
        if (!bDecoded)
            return false;
    }
    return bStorable;
}

// ---- single fields ----------------------------------------------------------------------------

// The slot of field `lField`, if there is one of this kind; else null.
uint8_t* FieldSlot(const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, int32_t lKind)
{
    if (!pRecord || !pRecord->data || !pTemplate || lField < 1)
        return nullptr;
    const ObjDbData* pDbData = ObjGetDbDataFromTemplate(pTemplate);
    if (lField > pDbData->fieldCount || pDbData->fields[lField - 1].kind != lKind)
        return nullptr;
    return static_cast<uint8_t*>(pRecord->data) + pDbData->fields[lField - 1].fixedOffset;
}

// The slot's value in the machine's own order, as an item of the kind holds it.
NimBool GetField(
    void* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, int32_t lKind)
{
    const uint8_t* pSlot = FieldSlot(pRecord, pTemplate, lField, lKind);
    if (!pValue || !pSlot)
        return FALSE;
    if (lKind == DB_KIND_UNIQUE)
        std::memcpy(pValue, pSlot, sizeof(UniqueId));
    else if (lKind == DB_KIND_INT64)
        *static_cast<uint64_t*>(pValue) = GetU64(pSlot);
    else
        *static_cast<uint32_t*>(pValue) = GetU32(pSlot);
    return TRUE;
}

NimBool SetField(
    const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, int32_t lKind,
    const void* pValue)
{
    uint8_t* pSlot = FieldSlot(pRecord, pTemplate, lField, lKind);
    if (!pValue || !pSlot)
        return FALSE;
    if (lKind == DB_KIND_UNIQUE)
        std::memcpy(pSlot, pValue, sizeof(UniqueId));
    else if (lKind == DB_KIND_INT64)
        PutU64(pSlot, *static_cast<const uint64_t*>(pValue));
    else
        PutU32(pSlot, *static_cast<const uint32_t*>(pValue));
    return TRUE;
}

} // namespace

// ---- for the layers above ---------------------------------------------------------------------

bool DbDecodeRecord(void** ppObject, uint32_t magic, const char* format, Bytes record)
{
    *ppObject = nullptr;
    DBLIB_TRACE(trace_level::DETAIL, "Magic %ld format %s", static_cast<int32_t>(magic), format);
    // Any size, any destructor: the template is the one that the records' owner has registered.
    void* oObject = nullptr;
    if (!ObjCreateInternal(&oObject, OBJ_SIZE_COMPUTED, magic, format, nullptr, Pool()))
        return false;
    DBLIB_TRACE(
        trace_level::DETAIL, "Size of database BLOB is %ld bytes",
        static_cast<int32_t>(record.size()));
    if (!DecodeFields(static_cast<uint8_t*>(oObject), ObjGetDbData(oObject), record)) {
        ObjReleaseInternal(&oObject);
        return false;
    }
    *ppObject = oObject;
    return true;
}

DbBlob* DbNewBlob(uint32_t magic, const char* format)
{
    HeldObject<DbBlob> blob;
    if (!ObjTemplateCreateInstanceFromPool(blob.OutVoid(), BlobTemplate(), Pool())) {
        TraceNoMemory(sizeof(DbBlob));
        return nullptr;
    }
    blob->magic = magic;
    blob->format = StrDuplicateIntoPool(format, Pool());
    if (!blob->format) {
        TraceNoMemory(StrSize(format));
        return nullptr;
    }
    return blob.Take();
}

const ObjDbData* DbRecordLayout(const char* format)
{
    ObjTemplate* pTemplate = nullptr;
    ObjTemplateCreateInternal(&pTemplate, OBJ_SIZE_COMPUTED, LAYOUT_MAGIC, format, nullptr);
    return ObjGetDbDataFromTemplate(pTemplate);
}

// ---- exported ---------------------------------------------------------------------------------

NimBool DbConvertObjectToDbFormat(void** ppBlob, const void* oObject)
{
    if (!ppBlob)
        return FALSE;
    *ppBlob = nullptr;
    if (!oObject)
        return FALSE;
    const ObjDbData* pDbData = StorableDbData(oObject);
    ObjData record;
    if (!pDbData || !EncodeObject(&record, pDbData, oObject))
        return FALSE;
    DbBlob* pBlob = DbNewBlob(ObjGetMagic(oObject), pDbData->format);
    if (!pBlob) {
        MemFreeInternal(&record.data);
        return FALSE;
    }
    pBlob->data = record; // the BLOB takes the bytes over, and frees them with itself
    *ppBlob = pBlob;
    return TRUE;
}

NimBool DbConvertObjectFromDbFormat(void** ppObject, const void* oBlob)
{
    DBLIB_TRACE(trace_level::DETAIL, "DbConvertObjectFromDbFormat(%p, %p)", ppObject, oBlob);
    if (!ppObject)
        return FALSE;
    *ppObject = nullptr;
    if (ObjGetMagic(oBlob) != DB_BLOB_MAGIC) {
        DBLIB_TRACE(trace_level::ALWAYS, "Invalid BLOB at '%p'", oBlob);
        return FALSE;
    }
    const auto* pBlob = static_cast<const DbBlob*>(oBlob);
    return DbDecodeRecord(ppObject, pBlob->magic, pBlob->format, DbBytesOf(pBlob->data));
}

NimBool
DbFormatGetBoolean(uint32_t* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField)
{
    return GetField(pValue, pRecord, pTemplate, lField, DB_KIND_BOOLEAN);
}

NimBool
DbFormatGetInteger(int32_t* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField)
{
    return GetField(pValue, pRecord, pTemplate, lField, DB_KIND_INTEGER);
}

NimBool
DbFormatGetInt64(int64_t* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField)
{
    return GetField(pValue, pRecord, pTemplate, lField, DB_KIND_INT64);
}

NimBool
DbFormatGetUnique(void* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField)
{
    return GetField(pValue, pRecord, pTemplate, lField, DB_KIND_UNIQUE);
}

NimBool
DbFormatSetBoolean(ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, uint32_t bValue)
{
    return SetField(pRecord, pTemplate, lField, DB_KIND_BOOLEAN, &bValue);
}

NimBool DbFormatSetInteger(ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, int32_t lValue)
{
    return SetField(pRecord, pTemplate, lField, DB_KIND_INTEGER, &lValue);
}

NimBool DbFormatSetInt64(ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, int64_t lValue)
{
    return SetField(pRecord, pTemplate, lField, DB_KIND_INT64, &lValue);
}

NimBool
DbFormatSetUnique(ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, const void* pValue)
{
    return SetField(pRecord, pTemplate, lField, DB_KIND_UNIQUE, pValue);
}

NimBool DbSetFieldBooleanInBlob(ObjData* pRecord, const void* oField, uint32_t bValue)
{
    if (!pRecord || !pRecord->data || ObjGetMagic(oField) != INDX_FIELD_MAGIC)
        return FALSE;
    const auto* pField = static_cast<const IndxField*>(oField);
    if (pField->type != INDX_FIELD_BOOLEAN)
        return FALSE;
    PutU32(static_cast<uint8_t*>(pRecord->data) + pField->recordOffset, bValue);
    return TRUE;
}
