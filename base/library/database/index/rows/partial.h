// partial.h: the walk over a table's fields that reads a record in part.
#pragma once

#include <cstdint>

#include "database/index/ground/shapes.h"

// The state of a partial read while the fields are walked.
struct IndxPartialRead {
    const IndxTable* pTable;
    const uint32_t* pSelected; // moves on by one flag for every field; null: no selection
    uint8_t* pBytes;           // fixed part, then what has been read
    uint32_t size;             // bytes assembled so far
    uint32_t capacity;         // of pBytes
    uint64_t total;            // of variable data, from the sizing pass
};
// The step for one field, for ListWalk over the table's fields.
NimBool IndxReadPartialField(void* pRead, void* oField);
