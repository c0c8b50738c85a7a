// modify.h: what an operation that modifies by id needs beyond index.h.
#pragma once

#include <cstdint>

// The id that an encoded record (a database BLOB) carries for a table. False, with last error 18 or
// 15 and a failure trace, when it is of another type than the table's, or no record of it.
[[nodiscard]] bool IndxGetRecordId(uint32_t* pId, void* oTable, void* oRecord);

// Says, after a find with this cursor, that its table has no record of this id to be modified; but
// not when damage ended the find, since then nobody knows.
void IndxReportNoRecord(void* oCursor, uint32_t id);
