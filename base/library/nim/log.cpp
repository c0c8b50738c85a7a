// log.cpp: formats the numbered messages of the product log and hands them to the sink.
//
// The sink's lock is held while the sink runs, so that messages come out one at a time and a sink
// that was replaced is not running any more; the thread inside a sink is marked, its own messages
// are ignored and it may set another sink.
#include "nim/log.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "format.h"
#include "output.h"
#include "spinlock.h"
#include "sys.h"

namespace {

constexpr uint32_t LOG_STACK_BYTES = 1024;     // a text up to this takes no memory
constexpr uint32_t LOG_TEXT_LIMIT = 64 * 1024; // a text above is cut
constexpr char LOG_INDENT[] = "    ";

struct LogState {
    SpinLock lock;
    bool ready; // the environment was read
    LogSink sink;
    void* context;
    char path[OUTPUT_PATH_SIZE];
};

LogState gLog;
thread_local bool gLogInSink = false;

} // namespace

static void LogWrite(const LogRecord* record)
{
    if (!gLog.ready) {
        gLog.ready = true;
        if (!SysGetEnvironment("NIM_LOG_FILE", gLog.path, sizeof gLog.path))
            gLog.path[0] = 0;
    }
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

    LogRecord record = {id, cls, text, context};
    {
        SpinLockGuard guard(gLog.lock);
        gLogInSink = true;
        if (gLog.sink)
            gLog.sink(gLog.context, &record);
        else
            LogWrite(&record);
        gLogInSink = false;
    }
    if (text != stack)
        free(text);
}

void LogSetSink(LogSink sink, void* context)
{
    bool inside = gLogInSink;
    if (!inside)
        gLog.lock.Lock();
    gLog.sink = sink;
    gLog.context = sink ? context : nullptr;
    if (!inside)
        gLog.lock.Unlock();
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
