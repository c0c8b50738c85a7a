// proc.cpp: the end of the process on a fault that nothing can be built on. Takes no memory: the
// pools may be what is damaged.
#include "nim/proc.h"

#include <atomic>
#include <cstdio>

#include "format.h"
#include "sys.h"
#include "tracering.h"

static std::atomic<ProcCrashHandler> gProcHandler{nullptr};
static std::atomic<bool> gProcEnding{false};

ProcCrashHandler ProcSetCrashHandler(ProcCrashHandler handler)
{
    return gProcHandler.exchange(handler);
}

void ProcCrash(uint32_t code)
{
    if (ProcCrashHandler handler = gProcHandler.load()) {
        handler(code);
        return;
    }
    // A crash on the way down, or of a second thread, must not begin it all again.
    if (!gProcEnding.exchange(true)) {
        char head[64];
        uint32_t length =
            FormatMessageVa(head, sizeof head, "NIM ends the process (%lu), recent trace:\n", code);
        SysWriteStandardError(head, length);
        TraceWriteRing();
        // Lines that a host's own sink has handed to the C library and not written yet.
        fflush(nullptr);
    }
    SysEndProcess(code);
}
