/* index.h: databases, tables, fields, cursors, records and keys.
 *
 * All handles are objects of the base services. An out-parameter receives a new reference, which
 * the caller gives back with the matching release or close operation, passing the address of its
 * variable. A null handle and an object of another type are refused everywhere. The handles of one
 * database are used by one thread at a time.
 */
#ifndef DATABASE_INDEX_H
#define DATABASE_INDEX_H

#include "database/export.h"
#include "nim/types.h"

NIM_BEGIN

/* Result codes of the cursor operations. */
enum {
    INDX_RESULT_EMPTY_KEY = 1,  /* the text key is empty                                       */
    INDX_RESULT_LONG_KEY = 2,   /* the text key is longer than the field allows                */
    INDX_RESULT_BAD_LENGTH = 3, /* a stored text has a negative length: damaged record         */
    INDX_RESULT_KEY_TYPE = 5,   /* this kind of index cannot be searched or keyed              */
    INDX_RESULT_FOUND = 6,      /* the cursor is on a key                                      */
    INDX_RESULT_NOT_FOUND = 7,  /* not found, or no further matching key                       */
    INDX_RESULT_NO_KEY = 8,     /* no key in that direction: at the beginning or the end       */
    INDX_RESULT_STATUS = 9,     /* the cursor has no valid status                              */
    INDX_RESULT_CURSOR = 11,    /* not a cursor                                                */
    INDX_RESULT_KEY_OBJECT = 12 /* the key object is of the wrong type for the index           */
};

/* Last error of the table and record operations, read with IndxError. */
typedef enum IndxErrorCode {
    INDX_ERROR_NONE = 0,             /* no operation has failed yet                              */
    INDX_ERROR_NO_FIELD = 5,         /* the table has no field of this name                      */
    INDX_ERROR_NOT_INDEXED = 6,      /* the field has no index                                   */
    INDX_ERROR_SEEK = 12,            /* the records file cannot be positioned, or would pass its
                                        end of 2 GiB                                             */
    INDX_ERROR_READ = 13,            /* a record or node cannot be read, or is damaged           */
    INDX_ERROR_UPDATE = 14,          /* an index could not be updated, or a write failed         */
    INDX_ERROR_ARGUMENT = 15,        /* an argument cannot be used                               */
    INDX_ERROR_RECORD_TYPE = 18,     /* the record is of another type than the table's           */
    INDX_ERROR_NO_FORMAT = 19,       /* the format text is empty                                 */
    INDX_ERROR_NO_FIELDS = 20,       /* the fields text is empty                                 */
    INDX_ERROR_NO_FIELD_NAME = 21,   /* a field's name is empty                                  */
    INDX_ERROR_DUPLICATE_FIELD = 23, /* two fields have the same name                            */
    INDX_ERROR_FIELD_KIND = 24,      /* a kind that no field can have, or "Id" is not of kind "i" */
    INDX_ERROR_SHAPE = 25,           /* the table on disk has another magic or format            */
    INDX_ERROR_HOME = 28,            /* the home or database directory cannot be used            */
    INDX_ERROR_SUBDIRECTORY = 29,    /* a subdirectory of the database cannot be used            */
    INDX_ERROR_NO_FLAG = 30,         /* a field's flag is empty                                  */
    INDX_ERROR_UNKNOWN_FLAG = 31,    /* a field's flag is unknown                                */
    INDX_ERROR_ID_MISMATCH = 33      /* the new record's id is not that of the old one           */
} IndxErrorCode;

/* Types of fields, as IndxGetFieldTypeByNumber reports them. */
typedef enum IndxFieldType {
    INDX_FIELD_RECORD_ID = 1,
    INDX_FIELD_INTEGER = 2,
    INDX_FIELD_INT64 = 3,
    INDX_FIELD_TEXT = 4,
    INDX_FIELD_TEXT_NO_CASE = 5, /* text without regard to case */
    INDX_FIELD_POINTER = 6,
    INDX_FIELD_DATA = 7,
    INDX_FIELD_OBJECT = 8,
    INDX_FIELD_UNIQUE_ID = 9,
    INDX_FIELD_BOOLEAN = 10
} IndxFieldType;

/* Reserved table versions. */
#define INDX_VERSION_ABSENT 0xFFFFFFFDu /* read: the table does not exist */
#define INDX_VERSION_NONE 0xFFFFFFFEu   /* read: no version file; asked: make no version file     */
#define INDX_VERSION_ANY 0xFFFFFFFFu    /* asked: accept whatever version is stored               */

/* ---- databases and tables ---------------------------------------------------------------- */

/* Opens the database `name` under the home directory (see dbconfig.h), creating its directories
 * where they are missing, and loads its tables.
 *   ppDatabase  out: the database, given back with IndxCloseDatabase; null on failure.
 *   name        in: name of the database directory, not null. May lie deeper ("group/Data") where
 *               the directories on the way are there. Refused: an absolute path, a part "..".
 *   tableNames  in: null for all tables, or a list of string objects naming those to load, compared
 *               without regard to case; the others can still be opened by name later.
 *   homeDir     in: the home directory to use in clustered mode; may be null; not looked at
 *               otherwise.
 * TRUE or FALSE. Last error INDX_ERROR_HOME: the home directory cannot be told (its configuration
 * cannot be read), or it or the database directory cannot be made or is no directory;
 * INDX_ERROR_SUBDIRECTORY: the same of a subdirectory, or the tables in it cannot be listed;
 * INDX_ERROR_ARGUMENT: `name` is empty or leads out of the home directory. Other failures (a null
 * argument, no list of strings, no memory) set none. A table that cannot be loaded does not fail
 * the open; it is missing from the list of tables, and can still be opened by name. */
NIMDB_API NimBool
IndxOpenDatabase(void** ppDatabase, const char* name, void* tableNames, const char* homeDir);

/* Closes every table of the database and drops the caller's reference; *ppDatabase becomes null.
 * TRUE, or FALSE when ppDatabase or *ppDatabase is null. */
NIMDB_API NimBool IndxCloseDatabase(void** ppDatabase);

/* Opens the table `name`, creating it when it does not exist.
 *   ppTable    out: a new reference, given back with IndxReleaseTable (or IndxCloseTable when
 *              nobody else uses the table); null on failure, but for a new table whose description
 *              could not be stored: it is handed out all the same. May be null: the table then
 *              stays with the database only.
 *   oDatabase  in: an open database.
 *   name       in: the table's name, matched without regard to case. Not null, not empty, without
 *              "/" and "\\", and not of dots and blanks only.
 *   fileName   in: name of the table's files. Normally the same as `name`; as that one otherwise.
 *   magic      in: magic of the records' objects: (magic & OBJ_MAGIC_MASK) is OBJ_MAGIC_VALID.
 *   format     in: format text of the records' objects, not null. "i;s" and "i;s;" are the same.
 *   fields     in: one name per item of the format, separated by ",", each with its flags behind
 *              ";": "Id, Name;Indexed;Case Sensitive, Size;Indexed;Unique". "Unique" has no effect
 *              without "Indexed". When the table exists its own flags hold, and a trace names the
 *              fields whose flags differ. One field is named "Id" and is a 32-bit integer.
 *   flag       in: for a new table, whether each record gets a companion file.
 *   version    in: the version the table must have, or is given when new; INDX_VERSION_NONE,
 *              INDX_VERSION_ANY.
 * TRUE or FALSE. Last error INDX_ERROR_ARGUMENT: an argument is unusable, or the magic of a new
 * table is out of its range; INDX_ERROR_SHAPE: the table has another magic or format;
 * INDX_ERROR_NO_FORMAT, INDX_ERROR_NO_FIELDS, INDX_ERROR_NO_FIELD_NAME, INDX_ERROR_DUPLICATE_FIELD,
 * INDX_ERROR_FIELD_KIND, INDX_ERROR_NO_FLAG, INDX_ERROR_UNKNOWN_FLAG: the texts of a new table.
 * Unchanged when the version is wrong or cannot be read or written, the format is refused by the
 * object services, names and format differ in number, there is no field "Id", the description is
 * too large, or the table's block file is there, or may be there, but cannot be loaded or holds a
 * table of another name. A failure trace names what it is.
 * A failed creation leaves the files that were made; a table on disk is never created over, and its
 * version is not written over. */
NIMDB_API NimBool IndxOpenTableInternal(
    void** ppTable, void* oDatabase, const char* name, const char* fileName, uint32_t magic,
    const char* format, const char* fields, uint32_t flag, uint32_t version);

/* Loads one table from its block file, without adding it to the database's list.
 *   ppTable    out: the table; null on failure. May be null.
 *   oDatabase  in: an open database.
 *   fileName   in: name of the table's files. Not null.
 *   name       in: the name under which the list is searched first. Not null.
 * TRUE, or FALSE: the database has a table of this name already, `fileName` is no name of a file,
 * or the block file cannot be opened or holds no sound description. Sets no error code. */
NIMDB_API NimBool
IndxLoadTable(void** ppTable, void* oDatabase, const char* fileName, const char* name);

/* Opens the table's records file, creating it when absent, into the table. A failure trace tells of
 * a file that was absent though the table has keys of records. TRUE also when the file could not be
 * opened: the operations on records meet a closed file instead. FALSE for a bad argument. */
NIMDB_API NimBool IndxRecordsOpen(void* oTable, const char* fileName);

/* Closes a table and drops the caller's reference; *ppTable becomes null. Only for a table that
 * nobody else uses any more: it has no fields afterwards. Changes that were not stored are lost.
 * Opening it by name loads it again.
 * TRUE, or FALSE when ppTable or *ppTable is null or no table. */
NIMDB_API NimBool IndxCloseTable(void** ppTable);

/* Drops the caller's reference to a table; *ppTable becomes null. The table stays open.
 * TRUE, or FALSE when ppTable or *ppTable is null or no table. */
NIMDB_API NimBool IndxReleaseTable(void** ppTable);

/* Comparison for ListSearch: TRUE when the string object `item` equals the text `name` without
 * regard to case. */
NIMDB_API NimBool IndxFindTableInList(const void* name, const void* item);

/* The stored version of a table.
 *   pVersion   out: the version, INDX_VERSION_ABSENT or INDX_VERSION_NONE; untouched on failure.
 *   fileName   in: name of the table's files.
 *   oDatabase  in: an open database.
 * TRUE, or FALSE when there is a version file that cannot be read, when it cannot be told whether
 * the table or its version file exists, or for an unusable argument. Sets no error code. */
NIMDB_API NimBool IndxGetTableVersion(uint32_t* pVersion, const char* fileName, void* oDatabase);

/* A version as text: "Does not exist", "None", "Any", or its decimal digits. A new string that the
 * caller frees with MemFree; null when there is no memory. */
NIMDB_API char* IndxTableVersionString(uint32_t version);

/* Ends a changing operation on a table: stores the table's description if it changed, then writes
 * every changed node and the control block. Called by the operations below; hosts call it after
 * IndxAddRecord and IndxAddRecordOnly, or to let go of the blocks kept in memory by reading.
 * TRUE, or FALSE when oTable is no table or the description could not be stored (log message 1301;
 * the nodes are written all the same). */
NIMDB_API NimBool IndxUpdateTable(void* oTable);

/* The last error of the table and record operations, an IndxErrorCode; process-wide,
 * INDX_ERROR_NONE before the first. It keeps its number until the next failure that sets one: a
 * success does not clear it, and a failure that sets none leaves that of an earlier operation. So
 * it says something only after an operation that has failed, and whose contract names a code. */
NIMDB_API uint32_t IndxError(void);

/* Two limits of keys, which files in use depend on:
 * - Record ids and 32-bit integers are ordered by wrapping subtraction, and so are the ids of records
 *   with equal values in any index. Keys that lie within 2^31 of each other are in order. Among keys
 *   that lie further apart (hashes, say, or ids of the caller's choice over the whole range) some
 *   cannot be found, modified or deleted by them afterwards, and an id that is present may be accepted
 *   once more. Keep hashes in 64-bit integer fields.
 * - A text key has up to 8168 bytes with its NUL. Two keys of up to 8152 bytes always fit one node;
 *   with longer ones in an index an add, modification or deletion may be refused (INDX_ERROR_UPDATE
 *   from an add) though the key itself is lawful; everything is then as it was. */

/* ---- fields and cursors -------------------------------------------------------------------- */

/* The field `name` of a table, compared without regard to case.
 *   ppField  out: a new reference, given back with ObjRelease; null on failure.
 * TRUE or FALSE. Last error INDX_ERROR_NO_FIELD: no such field; unchanged for an unusable argument.
 */
NIMDB_API NimBool IndxGetField(void** ppField, void* oTable, const char* name);

/* A new cursor on an indexed field, standing nowhere.
 *   ppCursor  out: the cursor, given back with IndxReleaseCursor; null on failure.
 *   oField    in: a field.
 * TRUE or FALSE. Last error INDX_ERROR_ARGUMENT: unusable argument; INDX_ERROR_NOT_INDEXED. */
NIMDB_API NimBool IndxGetCursor(void** ppCursor, void* oField);

/* IndxGetField and IndxGetCursor in one call. Results as theirs; no error code for an unusable
 * table or name. */
NIMDB_API NimBool IndxGetFieldCursor(void** ppCursor, void* oTable, const char* fieldName);

/* Ends a cursor; *ppCursor becomes null. TRUE, or FALSE when ppCursor or *ppCursor is null or no
 * cursor. */
NIMDB_API NimBool IndxReleaseCursor(void** ppCursor);

/* Positions a cursor on a key.
 *   oCursor     in: the cursor.
 *   id          in: record id; 0 = any record with this value. For an index of record ids the key.
 *   oKeyObject  in: the value: an integer, 64-bit integer, string or unique-id object, by the type
 *               of the index; not looked at for an index of record ids. Borrowed.
 * INDX_RESULT_FOUND: on the key. INDX_RESULT_NOT_FOUND: the cursor is on the next greater key, or
 * at the end. INDX_RESULT_EMPTY_KEY, INDX_RESULT_LONG_KEY, INDX_RESULT_KEY_TYPE,
 * INDX_RESULT_KEY_OBJECT: the key is unusable; the cursor has not moved. (An empty text is accepted
 * as a value and has its key, which a walk meets, but cannot be searched for.) INDX_RESULT_CURSOR:
 * not a cursor. When a damaged node ended the search the result is INDX_RESULT_NOT_FOUND, last
 * error INDX_ERROR_READ.
 *
 * All keys from a value on, whether the value is there or not, with a new cursor:
 *
 *     for (IndxFindKey(oCursor, 0, oLowest); IndxCursorGetOffset(&offset, oCursor);
 *          IndxNextKey(oCursor))
 *         ... IndxGetObjectAtCursor, and break behind the highest ...
 *
 * The results do not say whether there is a key: after a miss every step keeps the find's
 * INDX_RESULT_NOT_FOUND. The cursor does: it holds no key at either end. */
NIMDB_API int32_t IndxFindKey(void* oCursor, uint32_t id, void* oKeyObject);

/* The first, last, next or previous key. INDX_RESULT_FOUND: on a key; a step from a key on which a
 * find missed keeps that find's INDX_RESULT_NOT_FOUND, and so do the steps after it (see above).
 * INDX_RESULT_NO_KEY: no key in that direction; the cursor is at the end (first, next) or the
 * beginning (last, previous). INDX_RESULT_STATUS: the cursor stands nowhere yet.
 * INDX_RESULT_CURSOR: not a cursor. When a damaged node ended the move the result is
 * INDX_RESULT_NO_KEY, last error INDX_ERROR_READ. A cursor whose key was deleted moves to the key
 * after or before it. One whose record was given a greater key meets the record again there. */
NIMDB_API int32_t IndxFirstKey(void* oCursor);
NIMDB_API int32_t IndxLastKey(void* oCursor);
NIMDB_API int32_t IndxNextKey(void* oCursor);
NIMDB_API int32_t IndxPreviousKey(void* oCursor);

/* The next key if it has the same value: INDX_RESULT_FOUND; INDX_RESULT_NOT_FOUND when the value
 * differs (the cursor moved all the same), for a unique index and for a cursor without a key;
 * INDX_RESULT_NO_KEY, INDX_RESULT_STATUS, INDX_RESULT_CURSOR as above. Not for the index of record
 * ids, whose keys have no value: there a cursor that has a key behind it ends the process. */
NIMDB_API int32_t IndxNextMatchingKey(void* oCursor);

/* Finds the cursor's key again if the index changed; the result code. Any change of the index
 * between a move and the reading of the record asks for it, by this or another cursor. */
NIMDB_API int32_t IndxCurrentKey(void* oCursor);

/* Move before the first or behind the last key. TRUE, or FALSE when oCursor is no cursor. */
NIMDB_API NimBool IndxCursorBOI(void* oCursor);
NIMDB_API NimBool IndxCursorEOI(void* oCursor);

/* *pId = the record id of the cursor's key, if it holds one; otherwise untouched. Always 0. */
NIMDB_API uint32_t IndxCursorGetId(uint32_t* pId, void* oCursor);

/* The place of a cursor's record in the records file, for the operations that ask for an offset.
 *   pOffset  out: the offset in the cursor's key, which may be one that the index has changed under
 *            (IndxCurrentKey finds it again); untouched on failure. A modification that lengthens a
 *            record moves it: the offset is then that of bytes nobody reads any more.
 * TRUE when the cursor holds a key, else FALSE. Sets no error code. */
NIMDB_API NimBool IndxCursorGetOffset(uint32_t* pOffset, void* oCursor);

/* ---- records ------------------------------------------------------------------------------- */

/* Encodes an object and adds it under the next record id.
 *   pId      out: the new id, which every add that enters the record hands out; untouched when it
 *            does not. May be null.
 *   oTable   in: the table.
 *   oObject  in: an object of the table's record type; null or another type ends the process.
 * TRUE or FALSE. Last error INDX_ERROR_SEEK: the records file cannot be positioned or would pass
 * 2 GiB; INDX_ERROR_UPDATE: a key was refused (it is there already, its text is absent or too long)
 * or the record could not be written. No code: the object cannot be encoded, the companion file
 * cannot be made, or the table's description could not be stored (log message 1301).
 * After a failure nothing was added, and the id is not issued again: with one exception. When log
 * message 1301 was logged the record and all its keys are in, *pId is set, and only the description
 * on disk is the old one until the next change stores it. */
NIMDB_API NimBool IndxAddObjectToTable(uint32_t* pId, void* oTable, void* oObject);

/* The same with an encoded record (a database BLOB, dbrecord.h); its length and id are stamped into
 * it, also when it is refused afterwards. Last error also INDX_ERROR_RECORD_TYPE: the record's type
 * is not the table's; INDX_ERROR_ARGUMENT: it is too short for one. */
NIMDB_API NimBool IndxAddRecordToTable(uint32_t* pId, void* oTable, void* oRecord);

/* Adds an encoded record under an id of the caller's choice, raising the highest id when `id` is
 * larger (compared signed: ids from 2^31 on never raise it). Every table refuses an id that is
 * present, with INDX_ERROR_UPDATE: the index of ids holds each one once. Results as
 * IndxAddRecordToTable. */
NIMDB_API NimBool IndxSetRecordInTable(uint32_t id, void* oTable, void* oRecord);

/* The body of the two above: stamps length and id, enters all keys, appends the record, and (not
 * IndxAddRecordOnly) creates the companion file when the table asks for one. Neither stores nor
 * backs out, and leaves the highest id alone: the caller ends with IndxUpdateTable, and must not go
 * on after a failure other than by closing the table, since the keys entered so far stay in memory.
 *   pData  in/out: ObjData, the record's bytes.
 * TRUE or FALSE. Last error INDX_ERROR_ARGUMENT: no table, or bytes that are too few for a record
 * of it; INDX_ERROR_SEEK; INDX_ERROR_UPDATE, as above; none when the companion file cannot be made.
 */
NIMDB_API NimBool IndxAddRecord(uint32_t id, void* oTable, void* pData);
NIMDB_API NimBool IndxAddRecordOnly(uint32_t id, void* oTable, void* pData);

/* Reads the record at an offset of the records file.
 *   pData   out: ObjData; its bytes are the caller's, freed with MemFree; untouched on failure.
 * TRUE or FALSE. Last error INDX_ERROR_SEEK: seek failed (log message 1305); INDX_ERROR_READ: read
 * failed or the record is damaged (1304 header, 1303 record). */
NIMDB_API NimBool IndxRetriveRecord(void* pData, void* oTable, uint32_t offset);

/* The same as a new database BLOB, given back with ObjRelease; null on failure. */
NIMDB_API NimBool IndxGetRecord(void** ppRecord, void* oTable, uint32_t offset);

/* The record at which a cursor stands, decoded into a new object, given back with ObjRelease; null
 * on failure. TRUE, or FALSE: not on a key, the record cannot be read (last error INDX_ERROR_SEEK,
 * INDX_ERROR_READ) or decoded. A cursor is not on its key any more once the index was changed, by
 * whomever: IndxCurrentKey puts it there again. A record whose id is not its key's ends the
 * process: the database is corrupt. */
NIMDB_API NimBool IndxGetObjectAtCursor(void** ppObject, void* oCursor);

/* The same without decoding and without that check: a new database BLOB. */
NIMDB_API NimBool IndxGetRecordAtCursor(void** ppRecord, void* oCursor);

/* ---- partial records and selections -------------------------------------------------------- */

/* Reads a record's fixed part and, when there is a selection, all its variable data behind it.
 *   pData      out: ObjData; its bytes are the caller's, freed with MemFree; untouched on failure.
 *   oTable     in: the table.
 *   offset     in: of the record in the records file, as IndxCursorGetOffset tells it.
 *   pSelected  in: a selection (IndxGetSelected), or null for the fixed part alone: the slots of
 *              variable fields then hold sizes and offsets of bytes that were not read. The flags
 *              themselves are not looked at: a selection brings every variable field.
 * TRUE or FALSE. Last error INDX_ERROR_SEEK: seek failed; INDX_ERROR_READ: the record cannot be
 * read or is damaged (log messages 1307 fixed part, 1306 a field); unchanged when a field has no
 * known type. */
NIMDB_API NimBool
IndxRetrivePartialRecord(void* pData, void* oTable, uint32_t offset, const uint32_t* pSelected);

/* The same as a new database BLOB, given back with ObjRelease; null on failure. Last error
 * INDX_ERROR_ARGUMENT: an argument is unusable. */
NIMDB_API NimBool
IndxGetPartialRecord(void** ppRecord, void* oTable, uint32_t offset, const uint32_t* pSelected);

/* The same for the record of a cursor's key, which may be one that the index has changed under.
 * Last error INDX_ERROR_ARGUMENT: an argument is unusable, or the cursor holds no key. */
NIMDB_API NimBool
IndxGetPartialRecordAtCursor(void** ppRecord, void* oCursor, const uint32_t* pSelected);

/* The same decoded into a new object, given back with ObjRelease; null on failure. Without a
 * selection the variable fields come out absent. The id is not compared with the key's. */
NIMDB_API NimBool
IndxGetPartialObjectAtCursor(void** ppObject, void* oCursor, const uint32_t* pSelected);

/* Makes a selection: one 32-bit flag for each field of the table, in the order of its fields, 1 for
 * those that are named.
 *   ppSelected  out: the flags, freed with MemFree; null on failure.
 *   oNames      in: a list of string objects, not empty; compared without regard to case.
 * TRUE, or FALSE for an unusable argument or without memory. Sets no error code. */
NIMDB_API NimBool IndxGetSelected(uint32_t** ppSelected, void* oTable, void* oNames);

/* The same for a table that the database has in its list, by its name. */
NIMDB_API NimBool
IndxGetSelectedByName(uint32_t** ppSelected, void* oDatabase, const char* tableName, void* oNames);

/* *pNumber = the position of a field, from 0, by its name without regard to case. TRUE, or FALSE
 * with *pNumber untouched: no such field, an empty name, or no table. Sets no error code. */
NIMDB_API NimBool IndxGetFieldNumber(uint32_t* pNumber, void* oTable, const char* fieldName);

/* *pType = the type of the field at a position from 0, an IndxFieldType. TRUE, or FALSE with *pType
 * untouched. Sets no error code. */
NIMDB_API NimBool IndxGetFieldTypeByNumber(int32_t* pType, void* oTable, uint32_t position);

/* ---- modifying and deleting ----------------------------------------------------------------- */

/* Replaces the record at an offset. A longer one moves to the end of the records file, and its keys
 * follow it; its old bytes are not used again. Kept: in a table whose highest id is 1 it grows
 * where it is, over the records that follow it. There are none when records were only added;
 * records that were set under ids which do not raise the highest one (0, and those from 2^31 on)
 * are written over, and their keys lead into the longer record. offset   in: of the old record,
 * from a cursor's key (IndxCursorGetOffset). oRecord  in: the new database BLOB; its length and,
 * when its id is 0, the old id are stamped into it, also when it is refused afterwards. TRUE or
 * FALSE. Last error INDX_ERROR_SEEK, INDX_ERROR_READ: the old record cannot be read;
 * INDX_ERROR_ARGUMENT: not a record of this table; INDX_ERROR_RECORD_TYPE: the record's type is not
 * the table's; INDX_ERROR_ID_MISMATCH: another id than the old record's; INDX_ERROR_UPDATE: the
 * write failed (log message 1308). Refused keys and a disk without room for a longer record set
 * none. After a failure the indexes are as before; but with log message 1301 the modification is
 * done, as an add is. Kept: a write that fails before it has moved everything is not noticed; this
 * one record is lost then, its keys stay. */
NIMDB_API NimBool IndxModifyRecordInTable(void* oTable, uint32_t offset, void* oRecord);

/* Encodes an object and replaces the record of a cursor's key by it. Results as above; FALSE
 * without an error code when the cursor holds no key or the object cannot be encoded. */
NIMDB_API NimBool IndxModifyObjectAtCursor(void* oCursor, void* oObject);

/* Deletes the record of a cursor's key: takes its keys out of every index. Its bytes and its
 * companion file stay. TRUE or FALSE; last error INDX_ERROR_SEEK, INDX_ERROR_READ: the record
 * cannot be read. After a failure the indexes are as before; but with log message 1301 the record
 * is deleted. */
NIMDB_API NimBool IndxDeleteRecord(void* oCursor);

/* ---- companion files ----------------------------------------------------------------------- */

/* The id that the next added record will get; 0 when oTable is no table. Nothing is reserved. */
NIMDB_API uint32_t IndxNextId(void* oTable);

/* The path of a record's companion file; its directories are made, the file is not.
 *   ppPath  out: a new string, freed with MemFree; null on failure.
 *   id      in: 1 to 0x7FFFFFFF.
 * TRUE or FALSE; sets no error code. */
NIMDB_API NimBool IndxGetFilePath(char** ppPath, void* oTable, uint32_t id);

/* The same for the record at which a cursor stands. TRUE with *ppPath untouched when an argument is
 * unusable or the cursor is not on a key: look at *ppPath. */
NIMDB_API NimBool IndxGetFilePathAtCursor(char** ppPath, void* oCursor);

/* The ids of all records that have a companion file.
 *   ppList  out: a new list of integer objects, given back with ObjRelease; untouched when an
 *           argument is unusable. Look at *ppList: the result is always 0. */
NIMDB_API NimBool IndxGetFileList(void** ppList, void* oTable);

NIM_END

#endif /* DATABASE_INDEX_H */
