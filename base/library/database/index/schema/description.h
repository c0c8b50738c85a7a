// description.h: a table's stored description, read and judged.
#pragma once

#include "database/index/ground/shapes.h"

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
[[nodiscard]] IndxStored
IndxReadDescription(IndxTable** ppTable, void* oBlck, const char* name, const char* fileName);

// Whether no byte of the block file's user data was ever set; false without a block file.
[[nodiscard]] bool IndxIsBlank(void* oBlck);

// What is wrong with a rebuilt table, in words; null when every part of it can be relied on.
[[nodiscard]] const char* IndxTableFault(const IndxTable* pTable, void* oBlck);

// Makes a sound table and its fields objects of our own templates, which have room behind the items
// for what is not stored. *ppTable may change. False: no memory; the table is to be discarded then.
[[nodiscard]] bool IndxAdoptTable(IndxTable** ppTable);

// Drops the reference that the variable holds on a rebuilt object of which nothing is known, and
// takes everything apart that can be reached from it: such objects may hold each other in rings.
void IndxDiscardGraph(void** ppRoot);
