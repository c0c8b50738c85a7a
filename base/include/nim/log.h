/* log.h: the product log: numbered messages that an operator must see.
 *
 * A message has an id (1298 and up), a class (96 or 80), a text and sometimes a context: several
 * lines that show how it came to it. Unless a sink is set a message is one line on the standard
 * error, "NIM 1298 [96] text", with the context indented below. When the environment variable
 * NIM_LOG_FILE, read at the first message, names a file, messages are appended to it instead.
 *
 * Formats are those of nim/trace.h. All functions may be called from several threads.
 */
#ifndef NIM_LOG_H
#define NIM_LOG_H

#include "nim/types.h"

NIM_BEGIN

/* One message as a sink gets it. Everything is valid during the call only. */
typedef struct LogRecord {
    uint32_t id;
    uint32_t cls;        /* the class                             */
    const char* text;    /* the formatted text, at most 64 KiB    */
    const char* context; /* as it was given; null when there is none */
} LogRecord;

/* Takes a message. Calls come one at a time, those of a trace sink (nim/trace.h) among them,
 * possibly from several threads. Messages that are logged while the sink runs, by its own thread,
 * are ignored; it may trace. */
typedef void (*LogSink)(void* context, const LogRecord* record);

/* Sets the sink.
 *   sink     null brings back the standard error or NIM_LOG_FILE
 *   context  handed to the sink; must live until another sink is set
 * When it returns, no other thread is inside the former sink, and none will call it: it waits for a
 * call that is running, unless it is called from inside a sink. */
NIM_API void LogSetSink(LogSink sink, void* context);

/* Logs a message.
 *   id        its number
 *   cls       its class
 *   reserved  0; ignored
 *   format    its text; null prints as (null) */
NIM_API void LogMessage(uint32_t id, uint32_t cls, uint32_t reserved, const char* format, ...);

/* Logs a message with its context.
 *   context  lines with "\n" between them; null = none
 * The others as for LogMessage. */
NIM_API void LogMessageWithContext(
    uint32_t id, uint32_t cls, uint32_t reserved, const char* context, const char* format, ...);

NIM_END

#endif /* NIM_LOG_H */
