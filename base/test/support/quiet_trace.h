// quiet_trace.h: keeps the trace off the standard error while a test provokes failures by the
// thousand.
#pragma once

#include "nim/trace.h"

class QuietTrace {
  public:
    QuietTrace() { TraceSetSink(Drop, nullptr, -1); }
    ~QuietTrace() { TraceSetSink(nullptr, nullptr, 0); }
    QuietTrace(const QuietTrace&) = delete;
    QuietTrace& operator=(const QuietTrace&) = delete;

  private:
    static void Drop(void*, const TraceLine*) {}
};
