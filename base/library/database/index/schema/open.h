// open.h: one table at a time, as the catalogue and the rooms above need it.
#pragma once

#include "database/index/ground/shapes.h"

// Opens or creates the block file "Indexes"/name of the table's database. *ppBlck is null when that
// fails, which is traced; the result is TRUE all the same: the failure shows where the handle is
// used.
NimBool IndxIndexOpen(void** ppBlck, IndxTable* pTable, const char* name);

// Finds a table in its database's list by name. The version is only traced.
//   ppTable  out: a new reference, null when there is none; may be null.
// False: not listed, or last error 15 for an unusable argument.
bool IndxOpenExistingTable(void** ppTable, void* oDatabase, const char* name, uint32_t version);

// Comparison for ListSearch: the table with this name, without regard to case.
NimBool IndxMatchTable(const void* name, const void* item);

// Takes the table out of use and drops the variable's reference: breaks the ring with its fields
// and closes its records file. The block file closes with the table.
void IndxDropTable(IndxTable** ppTable);
