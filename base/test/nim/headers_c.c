/* headers_c.c: a C program as a user of the base services: types, macros and calls, as C11 sees
 * them. headers_test.cpp runs it. */
#include "nim/nim.h"

#include <stdlib.h>

#define TAG "HEADERS        "

_Static_assert(TRUE == 1 && FALSE == 0, "truth values");
_Static_assert(sizeof(NimBool) == 4, "truth values are 32-bit");
_Static_assert(sizeof(UniqueId) == 32 && _Alignof(UniqueId) == 1, "ids lie packed");

typedef struct Seen {
    uint32_t lines;
    uint32_t messages;
} Seen;

static void TakeLine(void* context, const TraceLine* line)
{
    if (StrCompare(line->text, "one 2 (null)") == 0 && line->level == 4)
        ((Seen*)context)->lines++;
}

static void TakeMessage(void* context, const LogRecord* record)
{
    if (record->id == 1298 && record->cls == 96)
        ((Seen*)context)->messages++;
}

static uint32_t gCrashCode;

static void TakeCrash(uint32_t code)
{
    gCrashCode = code;
}

/* Counts what went wrong; 0 = nothing. */
uint32_t HeadersInC(void);

uint32_t HeadersInC(void)
{
    uint32_t wrong = 0;
    Seen seen = {0, 0};
    uint32_t pool = MemGetDefaultPoolId();

    /* A variable of another pointer type than void*, freed and nulled through the macro. */
    char* text = StrDuplicateIntoPool("abc", pool);
    const char* borrowed = text;
    wrong += StrSize(text) != 4;
    MemFree(text);
    wrong += text != NULL;
    wrong += borrowed == NULL;
    uint64_t* words = MemAllocateFromPool(16, pool);
    wrong += words == NULL || words[1] != 0;
    MemFree(words);
    wrong += words != NULL;
    const char* constant = StrFromInteger(-7, pool);
    wrong += StrCompare(constant, "-7") != 0;
    MemFree(constant);
    wrong += constant != NULL;

    TraceSetSink(TakeLine, &seen, 4);
    if (pool) /* the macro is one statement */
        NIM_TRACE(TAG, 0, 4, "one %ld %s", (int32_t)2, (const char*)NULL);
    else
        wrong++;
    TraceSetSink(NULL, NULL, 0);
    wrong += seen.lines != 1;

    LogSetSink(TakeMessage, &seen);
    LogMessage(1298, 96, 0, "text");
    LogMessageWithContext(1298, 96, 0, NULL, "text");
    LogSetSink(NULL, NULL);
    wrong += seen.messages != 2;

    ProcCrashHandler former = ProcSetCrashHandler(TakeCrash);
    ProcCrash(11);
    wrong += ProcSetCrashHandler(former) != TakeCrash;
    wrong += gCrashCode != 11;

    UniqueId id = {{0}};
    wrong += UniqueEqual(&id, &id) != 1;
    return wrong;
}
