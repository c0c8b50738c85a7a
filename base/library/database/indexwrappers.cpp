// indexwrappers.cpp: operations on a table by key in one call, and walks over a table. Composes the
// calls of the index module; holds no state. Every cursor taken here is released here.

#include "database/indexwrappers.h"

#include "database/block/blockstore.h"
#include "database/dbrecord.h"
#include "database/index.h"
#include "database/indexinternal.h"
#include "database/trace.h"
#include "nim/bytes.h"
#include "nim/scope.h"

namespace {

// A cursor on a field for the length of a call.
class HeldCursor {
  public:
    HeldCursor(void* oTable, const char* fieldName)
    {
        IndxGetFieldCursor(&oCursor_, oTable, fieldName);
    }
    ~HeldCursor() { IndxReleaseCursor(&oCursor_); }
    HeldCursor(const HeldCursor&) = delete;
    HeldCursor& operator=(const HeldCursor&) = delete;

    explicit operator bool() const { return oCursor_ != nullptr; }
    void* get() const { return oCursor_; }
    IndxCursor* operator->() const { return static_cast<IndxCursor*>(oCursor_); }
    bool Find(uint32_t id, void* oKeyObject)
    {
        return IndxFindKey(oCursor_, id, oKeyObject) == INDX_RESULT_FOUND;
    }

  private:
    void* oCursor_ = nullptr;
};

} // namespace

NimBool IndxGetRecordFromTable(
    void** ppRecord, void* oTable, const char* fieldName, uint32_t, void* oKeyObject)
{
    if (ppRecord)
        *ppRecord = nullptr;
    HeldCursor cursor(oTable, fieldName);
    // The caller's record id is not passed on, unlike in IndxGetObjectFromTable: kept.
    return cursor && cursor.Find(0, oKeyObject) ? IndxGetRecordAtCursor(ppRecord, cursor.get())
                                                : FALSE;
}

NimBool IndxGetObjectFromTable(
    void** ppObject, void* oTable, const char* fieldName, uint32_t id, void* oKeyObject)
{
    if (ppObject)
        *ppObject = nullptr;
    HeldCursor cursor(oTable, fieldName);
    return cursor && cursor.Find(id, oKeyObject) ? IndxGetObjectAtCursor(ppObject, cursor.get())
                                                 : FALSE;
}

NimBool
IndxDeleteObjectFromTable(void* oTable, const char* fieldName, uint32_t id, void* oKeyObject)
{
    HeldCursor cursor(oTable, fieldName);
    if (!cursor) {
        WRAP_TRACE_ERROR(TraceLevel::ALWAYS, "Failed to get cursor on '%s'", fieldName);
        return FALSE;
    }
    if (!cursor.Find(id, oKeyObject)) {
        WRAP_TRACE_ERROR(TraceLevel::ALWAYS, "Could not find key");
        return FALSE;
    }
    return IndxDeleteRecord(cursor.get());
}

NimBool IndxModifyObject(void* oTable, void* oObject)
{
    HeldObject<> record;
    if (!IndxAsTable(oTable) || (ObjGetMagic(oObject) & OBJ_MAGIC_MASK) != OBJ_MAGIC_VALID ||
        !DbConvertObjectToDbFormat(record.Out(), oObject))
        return FALSE;
    uint32_t id = 0;
    HeldCursor cursor(oTable, "Id");
    if (!cursor || !IndxGetRecordId(&id, oTable, record.get()))
        return FALSE;
    if (!cursor.Find(id, nullptr) || cursor->status != INDX_ON_KEY || !cursor->oKey) {
        if (!cursor->bFailed) // else it is not known whether there is one
            IndxReportNoRecord(oTable, id);
        return FALSE;
    }
    return IndxModifyRecordInTable(oTable, cursor->oKey->fileOffset, record.get());
}

namespace {

// What the three walks have in common, and where they differ.
struct Walk {
    IndxWalkCallback callback;
    IndxWalkIdCallback idCallback; // with record ids, and with traces, when it is there
    void* context;
    bool bPartial;
    const uint32_t* pSelected;
};

NimBool FetchObject(void** ppObject, const Walk& walk, void* oCursor)
{
    return walk.bPartial ? IndxGetPartialObjectAtCursor(ppObject, oCursor, walk.pSelected)
                         : IndxGetObjectAtCursor(ppObject, oCursor);
}

// Hands the record at the cursor to the callback; the walk's result so far.
uint32_t VisitRecord(const Walk& walk, const HeldCursor& cursor)
{
    HeldObject<> object;
    if (!FetchObject(object.Out(), walk, cursor.get())) {
        if (walk.idCallback)
            WRAP_TRACE(
                TraceLevel::ALWAYS, "Failed to fetch object at cursor - skip record in walk");
        return 1;
    }
    if (!walk.idCallback)
        return walk.callback(object.get(), walk.context);
    uint32_t id = 0;
    IndxCursorGetId(&id, cursor.get());
    return walk.idCallback(object.get(), walk.context, id);
}

// How many keys an index can have in the blocks of its file. A walk that takes more steps without
// the index changing under it runs in a ring of leaves.
uint64_t StepLimit(const HeldCursor& cursor)
{
    const IndxTable* pTable = cursor->oField->oTable;
    const uint64_t blocks = pTable ? BlckBlockLimit(pTable->oBlck) : 0;
    return (blocks + 1) * static_cast<uint64_t>(INDX_NODE_MAX_ENTRIES);
}

uint32_t WalkField(const Walk& walk, HeldCursor& cursor)
{
    IndxCursorBOI(cursor.get());
    uint64_t left = StepLimit(cursor);
    uint32_t result = 1;
    while (result == 1) {
        // A callback may put records in front of the walk for as long as it likes.
        if (cursor->status == INDX_UNTRUSTED)
            left = StepLimit(cursor);
        const bool bOnKey = IndxNextKey(cursor.get()) == INDX_RESULT_FOUND;
        if (bOnKey && left-- > 0) {
            result = VisitRecord(walk, cursor);
            continue;
        }
        if (bOnKey)
            IndxReportDamage(static_cast<IndxCursor*>(cursor.get()), cursor->tNode);
        // The end of the index, or a node that cannot be used: not to be taken for the end.
        return cursor->bFailed ? 0 : 1;
    }
    return result;
}

} // namespace

uint32_t
IndxWalkTable(void* oTable, const char* fieldName, IndxWalkCallback callback, void* context)
{
    if (!IndxAsTable(oTable) || !fieldName || !callback)
        return 0;
    HeldCursor cursor(oTable, fieldName);
    return cursor ? WalkField({callback, nullptr, context, false, nullptr}, cursor) : 0;
}

uint32_t IndxWalkTableWithRecordId(
    void* oTable, const char* fieldName, IndxWalkIdCallback callback, void* context)
{
    if (!IndxAsTable(oTable) || !fieldName || !callback) {
        // Names the form with a callback, not this operation: operators know the text.
        WRAP_TRACE(TraceLevel::ALWAYS, "Munged args to IndxWalkCallbackWithRecordId");
        return 0;
    }
    HeldCursor cursor(oTable, fieldName);
    if (!cursor) {
        WRAP_TRACE(TraceLevel::ALWAYS, "Failed to get field cursor for '%s'", fieldName);
        return 0;
    }
    return WalkField({nullptr, callback, context, false, nullptr}, cursor);
}

uint32_t IndxWalkTableWithPartialRecords(
    void* oTable, const uint32_t* pSelected, const char* fieldName, IndxWalkCallback callback,
    void* context)
{
    if (!IndxAsTable(oTable) || !fieldName || !callback)
        return 0;
    HeldCursor cursor(oTable, fieldName);
    return cursor ? WalkField({callback, nullptr, context, true, pSelected}, cursor) : 0;
}
