// config.cpp: single values of the configuration, taken out of stanza files.
#include "nim/config.h"

#include "nim/mem.h"
#include "nim/path.h"
#include "nim/stanza.h"
#include "nim/str.h"
#include "sys.h"

// The key's value as a new string; null when there is none, or an empty one.
static char* CfgReadString(const char* file, const char* stanza, const char* key)
{
    const uint32_t pool = MemGetDefaultPoolId();
    char* path = SysIsAbsolute(file) ? StrDuplicateIntoPool(file, pool) : PathHomeBuild(file, 0);
    if (!path)
        return nullptr;
    char* value = nullptr;
    Stnz* loaded;
    if (StnzLoadStanzaFromFile(&loaded, path, 0, stanza)) {
        const char* text = StnzGetString(loaded, key);
        if (text && *text)
            value = StrDuplicateIntoPool(text, pool);
        StnzRelease(&loaded);
    }
    MemFree(path);
    return value;
}

NimBool
CfgGetString(char** value, const char* file, const char* stanza, const char* key, const char* dflt)
{
    if (!value)
        return FALSE;
    *value = nullptr;
    if (file && *file && stanza && key)
        *value = CfgReadString(file, stanza, key);
    if (!*value)
        *value = StrDuplicateIntoPool(dflt, MemGetDefaultPoolId());
    return *value != nullptr;
}
