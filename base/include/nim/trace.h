/* trace.h: what the program is doing, line by line.
 *
 * A line has a module tag (the module's name and eight blanks), its source line, an error flag, a
 * level and a text. Levels: -1 failures, always shown; 0 and 1 what must show at low verbosity; 3
 * results of opens and creations; 4 entry and detail. A line goes to the sink when its level is not
 * above the sink's, and into a ring of the recent lines when it is not above the ring's level.
 *
 * Unless told otherwise the sink writes failures (-1) to the standard error, and the ring keeps 512
 * lines up to level 3. Two environment variables, read at the first line, change the former:
 * NIM_TRACE_LEVEL is the level, NIM_TRACE_FILE a file that lines are appended to instead.
 *
 * Use NIM_TRACE: while a line is silent it costs one predictable branch and none of its arguments
 * is evaluated, so they must have no side effects. All functions may be called from several
 * threads.
 *
 * Texts are formatted alike on every platform: %d %i %u %x %X, also as %ld %lu %lx, take 32-bit
 * arguments (cast wider ones, never pass a C `long`); %I64d %I64u %I64x 64-bit ones; %p prints 16
 * upper-case hexadecimal digits; %s prints (null) for a null text; %c and %%; flags 0 and -, width
 * and precision. Anything else is printed as it stands, with all that follows it.
 */
#ifndef NIM_TRACE_H
#define NIM_TRACE_H

#include <stdarg.h>

#include "nim/types.h"

NIM_BEGIN

/* The higher of the sink's and the ring's level; lines above it are silent. Read it, through
 * NIM_TRACE only; TraceSetSink and TraceSetRingLevel set it. */
extern NIM_API int32_t gNimTraceThreshold;

/* Whether lines of a level are traced at all. */
#define NIM_TRACES(level)                                                                          \
    __builtin_expect((level) <= __atomic_load_n(&gNimTraceThreshold, __ATOMIC_RELAXED), 0)

/* Traces a line when it is not silent: NIM_TRACE(module, error, level, format, ...). */
#define NIM_TRACE(module, error, level, ...)                                                       \
    do {                                                                                           \
        if (NIM_TRACES(level))                                                                     \
            TraceMessageVa((module), __LINE__, (error), (level), __VA_ARGS__);                     \
    } while (0)

/* One line as a sink gets it. Everything is valid during the call only. */
typedef struct TraceLine {
    const char* module; /* the tag, as it was given            */
    uint32_t line;      /* source line                         */
    uint32_t error;     /* the error flag, as it was given     */
    int32_t level;      /* -1 and up                           */
    const char* text;   /* the formatted text, at most 64 KiB  */
} TraceLine;

/* Takes a line. Calls come one at a time, those of a log sink (nim/log.h) among them, possibly from
 * several threads: a thread whose line is for the sink waits until the sink has returned from the
 * call before, so it must not wait for another thread that traces to it. Lines that are traced
 * while the sink runs, by its own thread, are ignored; it may log. */
typedef void (*TraceSink)(void* context, const TraceLine* line);

/* Sets the sink.
 *   sink     null brings back the one that writes to the standard error or NIM_TRACE_FILE, and the
 *            level that goes with it
 *   context  handed to the sink; must live until another sink is set
 *   level    lines above it do not reach the sink; -1 lines always do. Ignored with a null sink.
 * When it returns, no other thread is inside the former sink, and none will call it: it waits for a
 * call that is running, unless it is called from inside a sink. */
NIM_API void TraceSetSink(TraceSink sink, void* context, int32_t level);

/* Sets the level up to which lines are kept in the ring; -1 lines always are. Default 3. */
NIM_API void TraceSetRingLevel(int32_t level);

/* Traces a line; NIM_TRACE calls it. Tests the level again, so that it may be called directly.
 *   module  the tag, up to 255 bytes of which are printed; null prints as (null)
 *   line    source line
 *   error   1 marks a failure, else 0
 *   level   -1 and up
 *   format  see above; null prints as (null). A text above 64 KiB is cut there; the ring keeps the
 *           first 255 bytes of a line. */
NIM_API void TraceMessageVa(
    const char* module, uint32_t line, uint32_t error, int32_t level, const char* format, ...);

/* The same with the arguments in a list. `args` is left undefined. */
NIM_API void TraceMessageV(
    const char* module, uint32_t line, uint32_t error, int32_t level, const char* format,
    va_list args);

/* Copies the recent lines out of the ring.
 *   out    out: text of the lines, oldest first, with "\n" between them; freed with
 *          MemFreeInternal. Null on failure.
 *   lines  how many of the newest to copy; 0 = all that are kept
 * Result: 1, also with an empty text when nothing was traced; 0 for a null `out` or when there is
 * no memory. */
NIM_API NimBool TraceDumpToString(char** out, uint32_t lines);

NIM_END

#endif /* NIM_TRACE_H */
