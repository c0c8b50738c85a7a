/* indexwrappers.h: one-call operations on a table by key, and walks over a whole table.
 *
 * A key is the pair that IndxFindKey takes: a record id and a key object (an integer, 64-bit
 * integer, string or unique-id object by the type of the index; null for the index of record ids).
 * Each operation opens a cursor on the named field's index, uses it and releases it. They set no
 * error codes of their own; the operations that they call do (index.h).
 */
#ifndef DATABASE_INDEXWRAPPERS_H
#define DATABASE_INDEXWRAPPERS_H

#include "database/export.h"
#include "nim/types.h"

NIM_BEGIN

/* Called with each object of a walk, which is released when it returns. Exactly 1 goes on; any
 * other value stops the walk and becomes its result. May change the table. */
typedef uint32_t (*IndxWalkCallback)(void* oObject, void* context);
typedef uint32_t (*IndxWalkIdCallback)(void* oObject, void* context, uint32_t id);

/* The record with a key, as a new database BLOB.
 *   ppRecord   out: given back with ObjRelease; null on failure.
 *   fieldName  in: an indexed field.
 *   id         not used: any record with the value will do.
 * TRUE, or FALSE: no such field or key, or the record cannot be read. */
NIMDB_API NimBool IndxGetRecordFromTable(
    void** ppRecord, void* oTable, const char* fieldName, uint32_t id, void* oKeyObject);

/* The record with a key, decoded into a new object.
 *   ppObject  out: given back with ObjRelease; null on failure.
 *   id        in: 0 = any record with the value.
 * TRUE, or FALSE as above. */
NIMDB_API NimBool IndxGetObjectFromTable(
    void** ppObject, void* oTable, const char* fieldName, uint32_t id, void* oKeyObject);

/* Deletes the record with a key (IndxDeleteRecord). TRUE, or FALSE with a failure trace: no such
 * field or key, or the deletion failed. */
NIMDB_API NimBool
IndxDeleteObjectFromTable(void* oTable, const char* fieldName, uint32_t id, void* oKeyObject);

/* Encodes an object, finds its record by the id in it, and replaces that record
 * (IndxModifyRecordInTable). TRUE, or FALSE: an argument is unusable, there is no record with this
 * id, or the modification failed. */
NIMDB_API NimBool IndxModifyObject(void* oTable, void* oObject);

/* Walks every record in ascending order of a field's index. A record that cannot be read or decoded
 * is skipped. One whose value the callback raises in this field is met again at its new place: a
 * callback that raises every value it meets never comes to the end.
 *   context  in: handed to the callback.
 * 1 when the end was reached (also of an empty table), the callback's value when it stopped the
 * walk, 0 for an unusable argument or field, and 0 with last error INDX_ERROR_READ and a failure
 * trace when a damaged index ended the walk. */
NIMDB_API uint32_t
IndxWalkTable(void* oTable, const char* fieldName, IndxWalkCallback callback, void* context);

/* The same with each record's id. Skipped records and failures are traced. */
NIMDB_API uint32_t IndxWalkTableWithRecordId(
    void* oTable, const char* fieldName, IndxWalkIdCallback callback, void* context);

/* The same as IndxWalkTable, each object decoded from a partial read (IndxGetPartialObjectAtCursor)
 * with a selection, which may be null. */
NIMDB_API uint32_t IndxWalkTableWithPartialRecords(
    void* oTable, const uint32_t* pSelected, const char* fieldName, IndxWalkCallback callback,
    void* context);

NIM_END

#endif /* DATABASE_INDEXWRAPPERS_H */
