// runtime.h: the process-wide state of the index module: the object templates of the table layer,
// the default pool, the last error; and how its rooms trace.
#pragma once

#include <cstdint>

#include "database/index.h"
#include "database/trace.h"
#include "nim/nim.h"

// The levels of trace.h, under the names that this module's lines give them.
constexpr int32_t INDX_ALWAYS = trace_level::ALWAYS;
constexpr int32_t INDX_NODE_FAILURE = trace_level::NODE_FAILURE;
constexpr int32_t INDX_OPENED = trace_level::OPENED;
constexpr int32_t INDX_DETAIL = trace_level::DETAIL;

inline const char* IndxTruth(NimBool b)
{
    return TraceTruth(b);
}

struct IndxTemplates {
    ObjTemplate* database;
    ObjTemplate* table;
    ObjTemplate* field;
    ObjTemplate* cursor;
    ObjTemplate* keyInfo;
};
// Creates the templates on first use. False when there is no memory for them.
bool IndxEnsureTemplates();
extern IndxTemplates gIndxTemplates;
uint32_t IndxPool();
void IndxSetError(uint32_t code);
