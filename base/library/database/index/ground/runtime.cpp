// runtime.cpp: the process-wide state of the index module: the object templates of the table layer,
// the default pool and the last error. Set on first use; the templates are never released.
//
// The templates of tables, fields, cursors and keys are larger than their formats ask for: behind
// the items lies what is no part of the stored form (see shapes.h).

#include "database/index/ground/runtime.h"

#include <atomic>
#include <mutex>

#include "database/index.h"
#include "database/index/ground/shapes.h"

IndxTemplates gIndxTemplates = {};

namespace {

// Atomic, since two databases may be used by two threads; whose error it then is nobody can say.
std::atomic<uint32_t> sLastError{0};

struct Wanted {
    ObjTemplate** ppTemplate;
    uint32_t size;
    uint32_t magic;
    const char* format;
};

// Two threads may open their first databases at once.
std::mutex sMaking;

} // namespace

bool IndxEnsureTemplates()
{
    static std::atomic<bool> sMade{false};
    if (sMade.load(std::memory_order_acquire)) // every record that is read asks
        return true;
    const std::lock_guard<std::mutex> guard(sMaking);
    const Wanted wanted[] = {
        {&gIndxTemplates.database, sizeof(IndxDatabase), INDX_DATABASE_MAGIC, "s;sl;sl;sl;sl;ol;"},
        {&gIndxTemplates.table, sizeof(IndxTable), INDX_TABLE_MAGIC,
         "s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;"},
        {&gIndxTemplates.field, sizeof(IndxField), INDX_FIELD_MAGIC,
         "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;"},
        {&gIndxTemplates.cursor, sizeof(IndxCursor), INDX_CURSOR_MAGIC, "i;i;i;i;o;o;"},
        {&gIndxTemplates.keyInfo, sizeof(IndxKeyInfo), INDX_KEY_INFO_MAGIC, "i;i;o;i;i;"},
    };
    for (const Wanted& w : wanted) {
        if (!ObjTemplateCreateInternal(w.ppTemplate, w.size, w.magic, w.format, nullptr))
            return false;
    }
    sMade.store(true, std::memory_order_release);
    return true;
}

uint32_t IndxPool()
{
    static const uint32_t sPool = MemGetDefaultPoolId();
    return sPool;
}

void IndxSetError(uint32_t code)
{
    sLastError.store(code, std::memory_order_relaxed);
}

uint32_t IndxError(void)
{
    return sLastError.load(std::memory_order_relaxed);
}
