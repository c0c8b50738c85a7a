// runtime.h: the process-wide state of the index module: the object templates of the table layer,
// the default pool, the last error; and how its rooms trace.
#pragma once

#include <cstdint>

#include "database/index.h"
#include "nim/nim.h"

// Trace levels, and the module's tag: its name and eight blanks.
constexpr int32_t INDX_ALWAYS = -1;
constexpr int32_t INDX_NODE_FAILURE = 0;
constexpr int32_t INDX_OPENED = 3;
constexpr int32_t INDX_DETAIL = 4;
#define INDX_TAG "INDX        "
#define INDX_TRACE(level, ...) NIM_TRACE(INDX_TAG, 0, (level), __VA_ARGS__)
#define INDX_TRACE_ERROR(level, ...) NIM_TRACE(INDX_TAG, 1, (level), __VA_ARGS__)

inline const char* IndxTruth(NimBool b)
{
    return b ? "TRUE" : "FALSE";
}

struct IndxTemplates {
    ObjTemplate* database;
    ObjTemplate* table;
    ObjTemplate* field;
    ObjTemplate* cursor;
    ObjTemplate* keyInfo;
    ObjTemplate* blob;
};
// Creates the templates on first use. False when there is no memory for them.
bool IndxEnsureTemplates();
extern IndxTemplates gIndxTemplates;
uint32_t IndxPool();
void IndxSetError(uint32_t code);
