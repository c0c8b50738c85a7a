// definition.h: what a table's two texts mean, and the ring that table and fields form.
#pragma once

#include <cstdint>

#include "database/index/ground/layout.h"
#include "database/index/ground/shapes.h"

// Two keys of this length always leave room for a node's header and two branch entries' words.
constexpr uint32_t INDX_KEY_RESERVE = 48;

// The longest key that an index in blocks of this size accepts, in bytes.
constexpr uint32_t IndxLongestKey(uint32_t blockSize)
{
    return (blockSize - INDX_KEY_RESERVE) / 2;
}
static_assert(IndxLongestKey(INDX_NODE_SIZE) == 8168);

// So many fields never fit a description of 16128 bytes: each of them takes more than 48 there. A
// table with more is refused whatever it is, so their names need not be compared with one another.
constexpr uint32_t INDX_MOST_FIELDS = 16128 / 48;

// The field that holds the record id: named so without regard to case.
constexpr const char* INDX_ID_FIELD = "Id";

// Whether records of this magic can be told from damaged memory: the rooms above refuse any other.
[[nodiscard]] bool IndxIsRecordMagic(uint32_t magic);

// Fills a new table from its format and fields texts. False with a failure trace; the error code is
// left as documented for IndxOpenTableInternal, and the caller breaks the ring of table and fields
// (IndxUnhookFields).
[[nodiscard]] bool
IndxCreateTable(IndxTable* pTable, uint32_t recordMagic, const char* format, const char* fields);
// Makes every field refer to its table, gives indexed fields their cursor lists, and takes the
// committed roots. False: no memory.
[[nodiscard]] bool IndxHookFields(IndxTable* pTable);
// Empties the field list and drops the lists of the fields' cursors. A field that a caller's cursor
// still holds keeps the table.
void IndxUnhookFields(IndxTable* pTable);

// Traces every field of a table that exists whose flags are not those that a fields text asks for.
// What cannot be read, or names no field, says nothing: the text counts only when a table is made.
void IndxTellKeptFlags(const IndxTable* pTable, const char* fields);

// Sets a field's type and key type from its database kind and its flags as written, and clears the
// indexed flag of a kind that cannot be indexed. False: the kind makes no field.
[[nodiscard]] bool IndxApplyKind(IndxField* pField, int32_t kind);
// The same for the field INDX_ID_FIELD, which drops its flags. False: not a 32-bit integer.
[[nodiscard]] bool IndxApplyIdKind(IndxField* pField, int32_t kind);

// Comparison for ListSearch: the field with this name, without regard to case.
NimBool IndxMatchField(const void* name, const void* item);
