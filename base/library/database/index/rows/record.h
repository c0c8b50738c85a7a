// record.h: whole records, and what a record of a table is.
#pragma once

#include <cstdint>

#include "database/dbrecord.h"
#include "database/index/ground/shapes.h"

// The body of IndxAddRecord and IndxAddRecordOnly. pData: ObjData.
NimBool IndxAddRecordInternal(uint32_t id, void* oTable, void* pData, NimBool bCreateFile);

// Whether these are the bytes of a record of this table: its fixed part at least, with the id in
// it. What the slots say is checked by whoever follows them.
[[nodiscard]] bool IndxIsRecordOf(const IndxTable* pTable, const ObjData* pData);

// Whether a record that claims this length ends inside the records file, as it is known or else as
// the system tells, since another handle may have appended; and not beyond the last offset there
// is. Asked before anything is allocated for it. The file's position is `position`, before and
// after; anywhere when the answer is false.
[[nodiscard]] bool
IndxRecordInFile(const IndxTable* pTable, uint32_t offset, uint32_t length, int64_t position);

// Error 18: says which type a refused record or object has, and which the table holds.
void IndxReportType(const IndxTable* pTable, uint32_t recordMagic);
