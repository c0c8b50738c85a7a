// refusal.cpp: the one message of the base services for what the system refuses.
#include "refusal.h"

#include "nim/trace.h"
#include "sys.h"

namespace {

constexpr char TAG[] = "FILESYS        ";
constexpr int32_t LEVEL_FAILURE = -1;
constexpr int32_t LEVEL_RESULT = 3;

void TraceReason(uint32_t line, uint32_t error, int32_t level, const char* what, const char* path)
{
    if (!NIM_TRACES(level))
        return;
    char reason[512];
    SysErrorText(reason, sizeof reason, error);
    TraceMessageVa(
        TAG, line, level == LEVEL_FAILURE ? 1 : 0, level, "Failed to %s '%s': %s", what, path,
        reason);
}

} // namespace

void TraceRefusal(uint32_t line, uint32_t reason, const char* what, const char* path)
{
    TraceReason(line, reason, LEVEL_FAILURE, what, path);
}

void TraceRefusalUnlessAbsent(uint32_t line, uint32_t reason, const char* what, const char* path)
{
    const int32_t level = SysErrorMeansAbsent(reason) ? LEVEL_RESULT : LEVEL_FAILURE;
    TraceReason(line, reason, level, what, path);
}

void TraceLimit(uint32_t line, const char* path, int64_t limit)
{
    TraceMessageVa(
        TAG, line, 1, LEVEL_FAILURE,
        "Failed to write '%s': this process may make files of %I64d bytes at most", path, limit);
}
