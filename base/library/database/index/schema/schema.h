// schema.h: what the rooms of the schema floor (definition, description, open, catalogue) share
// among themselves and show to their tests.
#pragma once

#include "database/index.h"
#include "database/index/tree/protos.h"

// ---- definition ------------------------------------------------------------------------------

// Two keys of this length always leave room for a node's header and two branch entries' words.
constexpr uint32_t INDX_KEY_RESERVE = 48;

// Fills a new table from its format and fields strings. The error code is left as documented for
// IndxOpenTableInternal. On failure the caller breaks the ring of table and fields
// (IndxUnhookFields).
NimBool
IndxCreateTable(IndxTable* pTable, uint32_t recordMagic, const char* format, const char* fields);
// Makes every field refer to its table, gives indexed fields their cursor lists, and takes the
// committed roots. FALSE: no memory.
NimBool IndxHookFields(IndxTable* pTable);
// Empties the field list and drops the lists of the fields' cursors. A field that a caller's cursor
// still holds keeps the table.
void IndxUnhookFields(IndxTable* pTable);

// The longest key that an index in blocks of this size accepts, in bytes.
constexpr uint32_t IndxLongestKey(uint32_t blockSize)
{
    return (blockSize - INDX_KEY_RESERVE) / 2;
}
static_assert(IndxLongestKey(INDX_NODE_SIZE) == 8168);

// The field that holds the record id: named so without regard to case.
constexpr const char* INDX_ID_FIELD = "Id";

// Sets a field's type and key type from its database kind and its flags as written, and clears the
// indexed flag of a kind that cannot be indexed. False: the kind makes no field.
bool IndxApplyKind(IndxField* pField, int32_t kind);
// The same for the field INDX_ID_FIELD, which drops its flags. False: not a 32-bit integer.
bool IndxApplyIdKind(IndxField* pField, int32_t kind);

// Comparisons for ListSearch: the table, or the field, with this name, without regard to case.
NimBool IndxMatchTable(const void* name, const void* item);
NimBool IndxMatchField(const void* name, const void* item);

// ---- description -----------------------------------------------------------------------------

// What became of a stored description.
enum class IndxStored {
    Sound,  // there is a table
    Blank,  // no description was ever stored: the user data is all zero
    Refused // there is something else, or it cannot be had
};

// Rebuilds the table described in a block file's user data and judges it; nothing is attached yet.
//   ppTable   out: the table with one reference when the result is Sound, else null.
//   oBlck     in: the block file; null is refused.
//   name, fileName  in: for the failure trace.
IndxStored
IndxRebuildTable(IndxTable** ppTable, void* oBlck, const char* name, const char* fileName);

// Whether no byte of the block file's user data was ever set; false without a block file.
bool IndxIsBlank(void* oBlck);

// What is wrong with a rebuilt table, in words; null when every part of it can be relied on.
const char* IndxTableFault(const IndxTable* pTable, void* oBlck);

// Makes every field in the list of a sound table one of our own template, which has room for the
// committed roots behind the items. False: no memory; the table is to be discarded then.
bool IndxAdoptFields(IndxTable* pTable);

// Drops the reference that the variable holds on a rebuilt object of which nothing is known, and
// takes everything apart that can be reached from it: such objects may hold each other in rings.
void IndxDiscardGraph(void** ppRoot);

// ---- store ---------------------------------------------------------------------------------

// Takes the roots of every index as committed; run at the end of every release.
void IndxCommitRoots(IndxTable* pTable);
// BlckBackoutAll on the table's block file, and the roots back to what was committed.
void IndxBackout(IndxTable* pTable);

// ---- open ------------------------------------------------------------------------------------

// Takes the table out of use and drops the variable's reference: breaks the ring with its fields
// and closes its records file. The block file closes with the table.
void IndxDropTable(IndxTable** ppTable);

NimBool IndxOpenExistingTable(void** ppTable, void* oDatabase, const char* name, uint32_t version);
NimBool IndxSetTableVersion(const char* name, void* oDatabase, uint32_t version);
NimBool IndxIndexOpen(void** ppBlck, IndxTable* pTable, const char* name);
