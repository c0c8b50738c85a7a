// log.cpp: formats the numbered messages of the product log and hands them to the sink.
//
// A sink of the host runs in its thread's turn (sinkturn.h); the thread inside a sink is marked,
// its own messages are ignored and it may set another sink. A message for a file is one append, for
// which no lock is held.
#include "nim/log.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "format.h"
#include "output.h"
#include "sinkturn.h"
#include "spinlock.h"
#include "sys.h"

namespace {

constexpr uint32_t LOG_STACK_BYTES = 1024;     // a text up to this takes no memory
constexpr uint32_t LOG_TEXT_LIMIT = 64 * 1024; // a text above is cut
constexpr char LOG_INDENT[] = "    ";

struct LogState {
    SpinLock lock; // of reading the environment
    std::atomic<bool> ready;
    std::atomic<LogSink> sink;   // replaced in the turn of a thread; null: file or standard error
    void* context;               // the sink's; read and replaced in turn
    char path[OUTPUT_PATH_SIZE]; // of the environment; stays as it is
};

LogState gLog;
thread_local bool gLogInSink = false;

} // namespace

static void LogPrepare()
{
    if (gLog.ready.load(std::memory_order_acquire))
        return;
    SpinLockGuard guard(gLog.lock);
    if (gLog.ready.load(std::memory_order_relaxed))
        return;
    if (!SysGetEnvironment("NIM_LOG_FILE", gLog.path, sizeof gLog.path))
        gLog.path[0] = 0;
    gLog.ready.store(true, std::memory_order_release);
}

// Hands the message to the host's sink. False when there is none any more.
static bool LogCallSink(const LogRecord* record)
{
    const SinkTurn turn;
    const LogSink sink = gLog.sink.load(std::memory_order_relaxed);
    if (!sink)
        return false;
    gLogInSink = true;
    sink(gLog.context, record);
    gLogInSink = false;
    return true;
}

static void LogWrite(const LogRecord* record)
{
    LogPrepare();
    Output output(gLog.path);
    char head[48];
    FormatMessageVa(head, sizeof head, "NIM %lu [%lu] ", record->id, record->cls);
    output.Put(head);
    output.Put(record->text);
    output.Put("\n");
    const char* line = record->context;
    while (line && *line) {
        const char* end = strchr(line, '\n');
        size_t length = end ? static_cast<size_t>(end - line) : strlen(line);
        output.Put(LOG_INDENT);
        output.Put(line, length);
        output.Put("\n");
        line = end ? end + 1 : nullptr;
    }
}

static void
LogSend(uint32_t id, uint32_t cls, const char* context, const char* format, va_list args)
{
    if (gLogInSink)
        return;
    char stack[LOG_STACK_BYTES];
    char* text = stack;
    va_list again;
    va_copy(again, args);
    uint32_t length = FormatMessageV(stack, sizeof stack, format, args);
    if (length >= sizeof stack) {
        uint32_t size = (length < LOG_TEXT_LIMIT ? length : LOG_TEXT_LIMIT) + 1;
        if (char* heap = static_cast<char*>(malloc(size))) {
            FormatMessageV(heap, size, format, again);
            text = heap;
        }
    }
    va_end(again);

    const LogRecord record = {id, cls, text, context};
    if (!gLog.sink.load(std::memory_order_acquire) || !LogCallSink(&record))
        LogWrite(&record);
    if (text != stack)
        free(text);
}

void LogSetSink(LogSink sink, void* context)
{
    const SinkTurn turn;
    gLog.context = sink ? context : nullptr;
    gLog.sink.store(sink, std::memory_order_release);
}

void LogMessage(uint32_t id, uint32_t cls, uint32_t, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    LogSend(id, cls, nullptr, format, args);
    va_end(args);
}

void LogMessageWithContext(
    uint32_t id, uint32_t cls, uint32_t, const char* context, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    LogSend(id, cls, context, format, args);
    va_end(args);
}
