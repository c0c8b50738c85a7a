/* proc.h: ending the process on a fault that nothing can be built on. */
#ifndef NIM_PROC_H
#define NIM_PROC_H

#include "nim/types.h"

NIM_BEGIN

/* Takes a crash in the place of the end of the process. May return. */
typedef void (*ProcCrashHandler)(uint32_t code);

/* Sets the handler; null brings back the end of the process. Result: the former handler. Meant for
 * tests and for hosts that write a report of their own. */
NIM_API ProcCrashHandler ProcSetCrashHandler(ProcCrashHandler handler);

/* Writes the recent trace to the standard error and ends the process at once, as a crash: no
 * destructors, no exit functions. With a handler set, calls that instead and returns when it does:
 * callers go on to their failing result.
 *   code  printed, and handed to the handler */
NIM_API void ProcCrash(uint32_t code);

NIM_END

#endif /* NIM_PROC_H */
