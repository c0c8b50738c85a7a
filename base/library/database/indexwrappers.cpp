// indexwrappers.cpp: operations on a table by key in one call, and walks over a table. Composes the
// calls of the index module; holds no state. Every cursor taken here is released here.

#include "database/indexwrappers.h"

#include "database/dbrecord.h"
#include "database/index.h"
#include "database/index/limit.h"
#include "database/index/rows/modify.h"
#include "database/trace.h"
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
        WRAP_TRACE_ERROR(trace_level::ALWAYS, "Failed to get cursor on '%s'", fieldName);
        return FALSE;
    }
    if (!cursor.Find(id, oKeyObject)) {
        WRAP_TRACE_ERROR(trace_level::ALWAYS, "Could not find key");
        return FALSE;
    }
    return IndxDeleteRecord(cursor.get());
}

NimBool IndxModifyObject(void* oTable, void* oObject)
{
    HeldObject<> record;
    if (!IndxIsTable(oTable) || (ObjGetMagic(oObject) & OBJ_MAGIC_MASK) != OBJ_MAGIC_VALID ||
        !DbConvertObjectToDbFormat(record.Out(), oObject))
        return FALSE;
    uint32_t id = 0;
    uint32_t offset = 0;
    HeldCursor cursor(oTable, "Id");
    if (!cursor || !IndxGetRecordId(&id, oTable, record.get()))
        return FALSE;
    if (!cursor.Find(id, nullptr) || !IndxCursorGetOffset(&offset, cursor.get())) {
        IndxReportNoRecord(cursor.get(), id);
        return FALSE;
    }
    return IndxModifyRecordInTable(oTable, offset, record.get());
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
                trace_level::ALWAYS, "Failed to fetch object at cursor - skip record in walk");
        return 1;
    }
    if (!walk.idCallback)
        return walk.callback(object.get(), walk.context);
    uint32_t id = 0;
    IndxCursorGetId(&id, cursor.get());
    return walk.idCallback(object.get(), walk.context, id);
}

uint32_t WalkField(const Walk& walk, const HeldCursor& cursor)
{
    IndxCursorBOI(cursor.get());
    uint64_t left = 0;
    for (;;) {
        const IndxWalkStep step = IndxNextOfWalk(cursor.get(), &left);
        if (step != IndxWalkStep::OnKey)
            return step == IndxWalkStep::End ? 1 : 0; // damage is not to be taken for the end
        const uint32_t result = VisitRecord(walk, cursor);
        if (result != 1)
            return result;
    }
}

} // namespace

uint32_t
IndxWalkTable(void* oTable, const char* fieldName, IndxWalkCallback callback, void* context)
{
    if (!IndxIsTable(oTable) || !fieldName || !callback)
        return 0;
    HeldCursor cursor(oTable, fieldName);
    return cursor ? WalkField({callback, nullptr, context, false, nullptr}, cursor) : 0;
}

uint32_t IndxWalkTableWithRecordId(
    void* oTable, const char* fieldName, IndxWalkIdCallback callback, void* context)
{
    if (!IndxIsTable(oTable) || !fieldName || !callback) {
        // Names the form with a callback, not this operation: operators know the text.
        WRAP_TRACE(trace_level::ALWAYS, "Munged args to IndxWalkCallbackWithRecordId");
        return 0;
    }
    HeldCursor cursor(oTable, fieldName);
    if (!cursor) {
        WRAP_TRACE(trace_level::ALWAYS, "Failed to get field cursor for '%s'", fieldName);
        return 0;
    }
    return WalkField({nullptr, callback, context, false, nullptr}, cursor);
}

uint32_t IndxWalkTableWithPartialRecords(
    void* oTable, const uint32_t* pSelected, const char* fieldName, IndxWalkCallback callback,
    void* context)
{
    if (!IndxIsTable(oTable) || !fieldName || !callback)
        return 0;
    HeldCursor cursor(oTable, fieldName);
    return cursor ? WalkField({callback, nullptr, context, true, pSelected}, cursor) : 0;
}
