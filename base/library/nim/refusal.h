// refusal.h: says what the system has refused, of which file or directory, and why.
//
// The reason is asked for (SysLastError) where the call has just failed, before another one changes
// it. A fault that a test arms is no refusal of the system: nothing is said of it.
#pragma once

#include <cstdint>

// A failure trace "Failed to <what> '<path>': <the system's reason>".
//   line    source line of the caller
//   reason  of SysLastError
void TraceRefusal(uint32_t line, uint32_t reason, const char* what, const char* path);
// The same for a caller that may be asking whether something is there: that there is nothing is a
// result, and shows at the level of results only.
void TraceRefusalUnlessAbsent(uint32_t line, uint32_t reason, const char* what, const char* path);
// The same for a write past the limit of the process for the length of files.
void TraceLimit(uint32_t line, const char* path, int64_t limit);
