// trace.h: one way to trace for all rooms of the database library. A line says which module speaks
// (the module's name and eight blanks: what reads the trace tells modules apart by it), at which
// level, and whether it is flagged as an error. While a level is silent none of a line's arguments
// is evaluated; no room asks for the level to decide what it does.
#pragma once

#include <cstdint>

#include "nim/trace.h"

namespace trace_level {
constexpr int32_t ALWAYS = -1;      // failures: always shown
constexpr int32_t NODE_FAILURE = 0; // a key that could not be entered into, or taken out of, a node
constexpr int32_t NOTICE = 1;       // what shows at low verbosity
constexpr int32_t OPENED = 3;       // results of opens and creations
constexpr int32_t DETAIL = 4;       // every entry and every step
} // namespace trace_level

#define BLCK_TAG "BLCK        "
#define DBCONFIG_TAG "DBCONFIG        "
#define DBLIB_TAG "DBLIB        "
#define INDX_TAG "INDX        "
#define WRAP_TAG "INDXWRAP        "

#define BLCK_TRACE(level, ...) NIM_TRACE(BLCK_TAG, 0, (level), __VA_ARGS__)
#define DBCONFIG_TRACE(level, ...) NIM_TRACE(DBCONFIG_TAG, 0, (level), __VA_ARGS__)
#define DBCONFIG_TRACE_ERROR(level, ...) NIM_TRACE(DBCONFIG_TAG, 1, (level), __VA_ARGS__)
#define DBLIB_TRACE(level, ...) NIM_TRACE(DBLIB_TAG, 0, (level), __VA_ARGS__)
#define INDX_TRACE(level, ...) NIM_TRACE(INDX_TAG, 0, (level), __VA_ARGS__)
#define INDX_TRACE_ERROR(level, ...) NIM_TRACE(INDX_TAG, 1, (level), __VA_ARGS__)
#define WRAP_TRACE(level, ...) NIM_TRACE(WRAP_TAG, 0, (level), __VA_ARGS__)
#define WRAP_TRACE_ERROR(level, ...) NIM_TRACE(WRAP_TAG, 1, (level), __VA_ARGS__)

// A truth value as the texts print it.
inline const char* TraceTruth(NimBool b)
{
    return b ? "TRUE" : "FALSE";
}
