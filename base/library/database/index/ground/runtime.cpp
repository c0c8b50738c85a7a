// runtime.cpp: the process-wide state of the index module: the object templates of the table
// layer, the default pool and the last error. Set on first use; the templates are never released.
//
// The field template is made larger than its format asks for: behind its items lie the committed
// roots (see IndxField), which are no part of the stored description.

#include <atomic>

#include "database/index.h"
#include "database/index/ground/runtime.h"
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

} // namespace

bool IndxEnsureTemplates()
{
    static bool sMade = false;
    if (sMade)
        return true;
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
    sMade = true;
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
