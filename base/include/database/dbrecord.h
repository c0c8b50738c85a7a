/* dbrecord.h: values to record bytes and back.
 *
 * A record is one flat, self-contained string of little-endian bytes: a fixed part with one slot
 * for every item of the object's template, and behind it the bytes of texts, nested objects, data
 * blocks and inline arrays in template order, back to back.
 *
 *   kind                slot      contents of the slot
 *    1 boolean           4        the 32-bit word
 *    2 integer           4        the 32-bit value
 *   10 64-bit integer    8        the 64-bit value
 *   11 unique id        32        the 32 bytes
 *    3 string            8        length with the NUL (0 = no text), offset
 *    4 object            8        length of the serialised form (0 = no object), offset
 *    7 data              8        byte count, offset
 *    8 inline array      8        length, offset
 *
 * Offsets count from the first byte of the record. Where each slot lies is the template's matter:
 * ObjDbData (nim/object.h). Bytes 0 to 3 and all others that no slot covers are zero when a record
 * leaves the encoder; the records file keeps the total length in bytes 0 to 3.
 *
 * Nothing here touches a file. No call takes a lock: callers of one database call one at a time.
 */
#ifndef DATABASE_DBRECORD_H
#define DATABASE_DBRECORD_H

#include "database/export.h"
#include "nim/object.h"

NIM_BEGIN

/* Magic and template of the database BLOB, the object that carries one encoded record. */
#define DB_BLOB_MAGIC 0xca66cae6u
#define DB_BLOB_FORMAT "i;s;d;"

/* How each item of a template is encoded: the first word of its ObjDbField, under the names of this
 * module. The last three have no database form, and neither have 0 and 5, which name nothing. */
enum {
    DB_KIND_BOOLEAN = OBJ_KIND_BOOLEAN,
    DB_KIND_INTEGER = OBJ_KIND_INTEGER,
    DB_KIND_STRING = OBJ_KIND_STRING,
    DB_KIND_OBJECT = OBJ_KIND_OBJECT,
    DB_KIND_DATA = OBJ_KIND_DATA,
    DB_KIND_ARRAY = OBJ_KIND_ARRAY,
    DB_KIND_INT64 = OBJ_KIND_INT64,
    DB_KIND_UNIQUE = OBJ_KIND_UNIQUE,
    DB_KIND_POINTER = OBJ_KIND_POINTER,
    DB_KIND_TRANSIENT_OBJECT = OBJ_KIND_TRANSIENT_OBJECT,
    DB_KIND_TRANSIENT_STRING = OBJ_KIND_TRANSIENT_STRING
};

/* The longest record, in bytes: offsets in a records file are signed 32-bit numbers. */
#define DB_RECORD_MAX 0x7fffffffu

/* Body of a database BLOB. Texts and bytes are from a pool and die with the object. */
typedef struct DbBlob {
    uint32_t magic; /* magic of the encoded object                  */
    char* format;   /* format text of its template, NUL-terminated  */
    ObjData data;   /* the record bytes                             */
} DbBlob;

/* Encodes an object into a new database BLOB.
 *
 * ppBlob   out: the BLOB, one reference, released by the caller with ObjRelease; null on failure.
 * oObject  in: the object; borrowed, unchanged. Null is refused without a message.
 *
 * Returns 1, or 0 with nothing left behind: null argument; a template with an item that has no
 * database form; a record of more than DB_RECORD_MAX bytes; a data item that counts bytes and
 * holds none; a nested object that cannot be serialised; no memory.
 * An object without a valid magic, without a template, or with an item of an unknown kind is taken
 * for memory corruption: ProcCrash(0), and 0 when that returns.
 * Sets no last error. */
NIMDB_API NimBool DbConvertObjectToDbFormat(void** ppBlob, const void* oObject);

/* Decodes a database BLOB into a new object of the recorded magic and format.
 *
 * ppObject  out: the object, one reference, released by the caller; null on failure.
 * oBlob     in: the BLOB; borrowed, unchanged.
 *
 * Returns 1, or 0 with nothing left behind: null argument or no BLOB; null or unacceptable format;
 * bytes in which a slot points outside the record; an array that would pass the end of the object;
 * no memory. A nested object that cannot be rebuilt is traced and left null, and the result is 1.
 * A text ends at its NUL, or where its slot says when there is none before. An array is as long as
 * its slot says, whatever the template says, up to the end of the object.
 * An item with no database form is taken for memory corruption: ProcCrash(0), and 0 when that
 * returns. Sets no last error. */
NIMDB_API NimBool DbConvertObjectFromDbFormat(void** ppObject, const void* oBlob);

/* ---- one field of an encoded record, in place -------------------------------------------------
 *
 * pRecord    in: byte count and pointer of the record bytes, for example the data item of a BLOB;
 *            only the pointer is used: the caller answers for a record of at least the fixed size.
 * pTemplate  in: the template the record was encoded from; borrowed.
 * lField     in: number of the item in template order, from 1.
 *
 * All return 1, or 0 with nothing read or written: a null argument, a number below 1 or above the
 * template's count, an item of another kind than the function's (a boolean is no integer). They
 * never trace and set no last error. */

/* *pValue receives the 32-bit word as it is stored, also when it is neither 0 nor 1. */
NIMDB_API NimBool DbFormatGetBoolean(
    uint32_t* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField);
NIMDB_API NimBool
DbFormatGetInteger(int32_t* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField);
NIMDB_API NimBool
DbFormatGetInt64(int64_t* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField);
/* pValue: out, room for 32 bytes (a UniqueId). */
NIMDB_API NimBool
DbFormatGetUnique(void* pValue, const ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField);

/* The word is stored as it is given, also when it is neither 0 nor 1. */
NIMDB_API NimBool
DbFormatSetBoolean(ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, uint32_t bValue);
NIMDB_API NimBool
DbFormatSetInteger(ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, int32_t lValue);
NIMDB_API NimBool
DbFormatSetInt64(ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, int64_t lValue);
/* pValue: in, 32 bytes (a UniqueId). */
NIMDB_API NimBool
DbFormatSetUnique(ObjData* pRecord, ObjTemplate* pTemplate, int32_t lField, const void* pValue);

/* Writes a boolean through a table's field object, which knows the slot.
 *
 * pRecord  in: as above.
 * oField   in: field object of the table that the record belongs to; borrowed.
 * bValue   in: the 32-bit word to store.
 *
 * Returns 1, or 0 with nothing written: a null argument, no field object, no boolean field.
 * Never traces, sets no last error. */
NIMDB_API NimBool DbSetFieldBooleanInBlob(ObjData* pRecord, const void* oField, uint32_t bValue);

NIM_END

#endif /* DATABASE_DBRECORD_H */
