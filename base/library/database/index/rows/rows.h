// rows.h: what the rooms of the rows floor (record, partial, modify, companion) share.
#pragma once

#include "database/dbrecord.h"
#include "database/index.h"
#include "database/index/ground/layout.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"

// ---- record ----
NimBool IndxAddRecordInternal(uint32_t id, void* oTable, void* pData, NimBool bCreateFile);
// Whether these are the bytes of a record of this table: its fixed part at least, with the id in
// it. What the slots say is checked by whoever follows them.
bool IndxIsRecordOf(const IndxTable* pTable, const ObjData* pData);
// Whether a record that claims this length ends inside the records file, as it is known or else as
// the system tells, since another handle may have appended; and not beyond the last offset there
// is. Asked before anything is allocated for it. The file's position is `position`, before and
// after; anywhere when the answer is false.
bool IndxRecordInFile(const IndxTable* pTable, uint32_t offset, uint32_t length, int64_t position);

// ---- partial ----
// The state of a partial read while the fields are walked.
struct IndxPartialRead {
    IndxTable* pTable;
    const uint32_t* pSelected; // moves on by one flag for every field; null: no selection
    uint8_t* pBytes;           // fixed part, then what has been read
    uint32_t size;             // bytes assembled so far
    uint32_t capacity;         // of pBytes
    uint64_t total;            // of variable data, from the sizing pass
};
// The step for one field, for ListWalk over the table's fields.
NimBool IndxReadPartialField(void* pRead, void* oField);
