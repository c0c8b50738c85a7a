// dbrecord_internal.h: the conversions of dbrecord.h without the BLOB object around the bytes, for
// the layers of this library that know the template and move records one by one. An add or a find
// then makes no copy of the format text and looks no template up by its name.
#pragma once

#include "nim/object.h"

// Encodes `oObject` into fresh record bytes, as DbConvertObjectToDbFormat does, with the same
// messages. `pRecord` receives byte count and pointer; the bytes are the caller's, to be freed with
// MemFree. Bytes that no slot covers are zero, the first four among them. Returns 1, or 0 with
// `pRecord` {0, null}: null argument, object that cannot be stored, record above 2 GiB, no memory.
NimBool DbEncodeObject(ObjData* pRecord, const void* oObject);

// Decodes the record bytes into a new object of the template, as DbConvertObjectFromDbFormat does,
// with its messages from "Size of database BLOB" on. `*ppObject` receives a new reference. Returns
// 1, or 0 with `*ppObject` null: null argument, damaged bytes, no memory. `pRecord` is only read,
// and never outside its `size` bytes.
NimBool DbDecodeRecord(void** ppObject, ObjTemplate* pTemplate, const ObjData* pRecord);
