// trace.cpp: levels, the sink, and the ring of recent lines.
//
// A line is composed once, as "tag line flag level text", in a buffer on the stack (on the heap,
// not from a pool, when it is long: tracing must not disturb what it reports on). The ring keeps
// its first bytes; a sink gets the text behind the head.
//
// No lock is held while a file is written: a whole line is one append, and the system keeps them
// apart. A sink of the host runs in its thread's turn (sinkturn.h); the thread inside a sink is
// marked, its own lines are ignored and it may set another sink. Two spin locks guard memory for a
// moment: the ring's, and that of the levels.
#include "nim/trace.h"

#include <cstdlib>
#include <cstring>

#include "format.h"
#include "nim/mem.h"
#include "output.h"
#include "sinkturn.h"
#include "spinlock.h"
#include "sys.h"
#include "tracering.h"

// Starts above every level, so that the first line of all, whatever its level, gets as far as
// reading the environment.
int32_t gNimTraceThreshold = INT32_MAX;

namespace {

constexpr int32_t TRACE_ALWAYS = -1;
constexpr int32_t TRACE_RING_LEVEL = 3;
constexpr uint32_t TRACE_RING_LINES = 512;
constexpr uint32_t TRACE_RING_BYTES = 256;       // of a line, its NUL among them
constexpr uint32_t TRACE_STACK_BYTES = 1024;     // a line up to this takes no memory
constexpr uint32_t TRACE_TEXT_LIMIT = 64 * 1024; // a text above is cut

struct TraceRing {
    SpinLock lock;
    uint32_t next;  // the slot of the next line
    uint32_t count; // lines kept
    char lines[TRACE_RING_LINES][TRACE_RING_BYTES];
};

TraceRing gTraceRing;

struct TraceState {
    SpinLock lock;               // of the levels, and of reading the environment
    std::atomic<TraceSink> sink; // replaced in the turn of a thread; null: file or standard error
    void* context;               // the sink's; read and replaced in turn
    int32_t defaultLevel;        // of the environment, as is the path; both stay as they are
    char path[OUTPUT_PATH_SIZE];
};

TraceState gTrace;
std::atomic<int32_t> gTraceSinkLevel{TRACE_ALWAYS};
std::atomic<int32_t> gTraceRingLevel{TRACE_RING_LEVEL};
std::atomic<bool> gTraceReady{false};
thread_local bool gTraceInSink = false;

} // namespace

// With the lock of the levels held, as what follows.
static void TraceUpdateThreshold()
{
    int32_t sink = gTraceSinkLevel.load(std::memory_order_relaxed);
    int32_t ring = gTraceRingLevel.load(std::memory_order_relaxed);
    int32_t threshold = sink > ring ? sink : ring;
    __atomic_store_n(
        &gNimTraceThreshold, threshold > TRACE_ALWAYS ? threshold : TRACE_ALWAYS, __ATOMIC_RELAXED);
}

static void TraceReadEnvironment()
{
    gTrace.defaultLevel = TRACE_ALWAYS;
    char level[16];
    if (SysGetEnvironment("NIM_TRACE_LEVEL", level, sizeof level) && level[0] != 0) {
        char* end = nullptr;
        long value = strtol(level, &end, 10);
        if (*end == 0 && value >= INT16_MIN && value <= INT16_MAX)
            gTrace.defaultLevel = static_cast<int32_t>(value);
    }
    if (!SysGetEnvironment("NIM_TRACE_FILE", gTrace.path, sizeof gTrace.path))
        gTrace.path[0] = 0;
    gTraceSinkLevel.store(gTrace.defaultLevel, std::memory_order_relaxed);
    TraceUpdateThreshold();
    gTraceReady.store(true, std::memory_order_release);
}

static inline void TracePrepare()
{
    if (!gTraceReady.load(std::memory_order_acquire)) {
        SpinLockGuard guard(gTrace.lock);
        if (!gTraceReady.load(std::memory_order_relaxed))
            TraceReadEnvironment();
    }
}

// Composes a whole line. Result: its length without the NUL, which may be more than fits; *head is
// where the text begins.
static uint32_t TraceCompose(
    char* buffer, uint32_t size, uint32_t* head, const TraceLine* line, const char* format,
    va_list args)
{
    uint32_t start = FormatMessageVa(
        buffer, size, "%.255s %5lu %c %2ld ", line->module, line->line, line->error ? 'E' : ' ',
        line->level);
    *head = start;
    uint32_t fits = start < size ? size - start : 0;
    uint32_t length = FormatMessageV(fits ? buffer + start : nullptr, fits, format, args);
    return length < 0xFFFFFFFF - start ? start + length : 0xFFFFFFFF;
}

static void TraceKeep(const char* text, uint32_t length)
{
    if (length > TRACE_RING_BYTES - 1)
        length = TRACE_RING_BYTES - 1;
    SpinLockGuard guard(gTraceRing.lock);
    char* slot = gTraceRing.lines[gTraceRing.next];
    memcpy(slot, text, length);
    slot[length] = 0;
    gTraceRing.next = (gTraceRing.next + 1) % TRACE_RING_LINES;
    if (gTraceRing.count < TRACE_RING_LINES)
        ++gTraceRing.count;
}

static bool TraceReaches(int32_t level, const std::atomic<int32_t>& limit)
{
    return level <= TRACE_ALWAYS || level <= limit.load(std::memory_order_relaxed);
}

// Hands the line to the host's sink. False when there is none any more.
static bool TraceCallSink(const TraceLine* line)
{
    const SinkTurn turn;
    const TraceSink sink = gTrace.sink.load(std::memory_order_relaxed);
    if (!sink)
        return false;
    // The sink may be another one than when the line was composed.
    if (!TraceReaches(line->level, gTraceSinkLevel))
        return true;
    gTraceInSink = true;
    sink(gTrace.context, line);
    gTraceInSink = false;
    return true;
}

// Sends the line out. Its NUL, text[length], makes room for the end of the line.
static void TraceSend(const TraceLine* line, char* text, uint32_t length)
{
    if (gTrace.sink.load(std::memory_order_acquire)) {
        if (TraceCallSink(line))
            return;
        if (!TraceReaches(line->level, gTraceSinkLevel))
            return;
    }
    text[length] = '\n';
    OutputWrite(gTrace.path, text, size_t{length} + 1);
}

void TraceMessageV(
    const char* module, uint32_t line, uint32_t error, int32_t level, const char* format,
    va_list args)
{
    if (gTraceInSink)
        return;
    TracePrepare();
    const bool toSink = TraceReaches(level, gTraceSinkLevel);
    const bool toRing = TraceReaches(level, gTraceRingLevel);
    if (!toSink && !toRing)
        return;

    TraceLine record = {module ? module : "(null)", line, error, level, nullptr};
    char stack[TRACE_STACK_BYTES];
    char* text = stack;
    uint32_t size = sizeof stack;
    uint32_t head = 0;
    va_list again;
    va_copy(again, args);
    uint32_t length = TraceCompose(text, size, &head, &record, format, args);
    // The ring alone needs no more than what is there.
    if (length >= size && toSink) {
        uint32_t limit = head + TRACE_TEXT_LIMIT;
        uint32_t wanted = (length < limit ? length : limit) + 1;
        char* heap = static_cast<char*>(malloc(wanted));
        if (heap) {
            text = heap;
            size = wanted;
            length = TraceCompose(text, size, &head, &record, format, again);
        }
    }
    va_end(again);
    if (length >= size)
        length = size - 1;
    if (toRing)
        TraceKeep(text, length);
    if (toSink) {
        record.text = text + (head < length ? head : length);
        TraceSend(&record, text, length);
    }
    if (text != stack)
        free(text);
}

void TraceMessageVa(
    const char* module, uint32_t line, uint32_t error, int32_t level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    TraceMessageV(module, line, error, level, format, args);
    va_end(args);
}

void TraceSetSink(TraceSink sink, void* context, int32_t level)
{
    TracePrepare();
    const SinkTurn turn;
    gTrace.context = sink ? context : nullptr;
    gTrace.sink.store(sink, std::memory_order_release);
    SpinLockGuard guard(gTrace.lock);
    gTraceSinkLevel.store(sink ? level : gTrace.defaultLevel, std::memory_order_relaxed);
    TraceUpdateThreshold();
}

void TraceSetRingLevel(int32_t level)
{
    TracePrepare();
    SpinLockGuard guard(gTrace.lock);
    gTraceRingLevel.store(level, std::memory_order_relaxed);
    TraceUpdateThreshold();
}

// The slot of the first of the newest `lines` lines; with the ring's lock held.
static uint32_t TraceFirstSlot(uint32_t lines)
{
    return (gTraceRing.next + TRACE_RING_LINES - lines) % TRACE_RING_LINES;
}

NimBool TraceDumpToString(char** out, uint32_t lines)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (lines == 0 || lines > TRACE_RING_LINES)
        lines = TRACE_RING_LINES;
    // Allocating may trace, so it comes before the lock, and is enough for the longest lines.
    {
        SpinLockGuard guard(gTraceRing.lock);
        if (lines > gTraceRing.count)
            lines = gTraceRing.count;
    }
    char* text = static_cast<char*>(
        MemAllocateUncleared(lines * TRACE_RING_BYTES + 1, MemGetDefaultPoolId()));
    if (!text)
        return FALSE;
    size_t used = 0;
    SpinLockGuard guard(gTraceRing.lock);
    uint32_t first = TraceFirstSlot(lines);
    for (uint32_t i = 0; i < lines; ++i) {
        const char* line = gTraceRing.lines[(first + i) % TRACE_RING_LINES];
        size_t length = strlen(line);
        if (i != 0)
            text[used++] = '\n';
        memcpy(text + used, line, length);
        used += length;
    }
    text[used] = 0;
    *out = text;
    return TRUE;
}

void TraceWriteRing()
{
    uint32_t first;
    uint32_t count;
    {
        SpinLockGuard guard(gTraceRing.lock);
        count = gTraceRing.count;
        first = TraceFirstSlot(count);
    }
    for (uint32_t i = 0; i < count; ++i) {
        char line[TRACE_RING_BYTES];
        {
            SpinLockGuard guard(gTraceRing.lock);
            memcpy(line, gTraceRing.lines[(first + i) % TRACE_RING_LINES], sizeof line);
        }
        const size_t length = strlen(line);
        line[length] = '\n'; // in the place of its NUL
        SysWriteStandardError(line, length + 1);
    }
}
