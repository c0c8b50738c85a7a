// config.cpp: single values of the configuration, taken out of stanza files.
//
// A value that cannot be read is never taken for one that is not set: a host that went on with the
// default would work in another place than the one it was configured for.
#include "nim/config.h"

#include "nim/mem.h"
#include "nim/path.h"
#include "nim/stanza.h"
#include "nim/str.h"
#include "nim/trace.h"
#include "sys.h"

namespace {

constexpr char TAG[] = "CONFIG        ";
constexpr int32_t LEVEL_FAILURE = -1;

} // namespace

// The key's value as a new string; null when there is none, or an empty one. False when that cannot
// be told.
static bool CfgReadString(char** value, const char* path, const char* stanza, const char* key)
{
    Stnz* loaded;
    const uint32_t answer = StnzReadStanzaFromFile(&loaded, path, stanza);
    if (answer != STNZ_READ)
        return answer != STNZ_UNREAD;
    const char* text = StnzGetString(loaded, key);
    const bool set = text && *text;
    if (set)
        *value = StrDuplicateIntoPool(text, MemGetDefaultPoolId());
    StnzRelease(&loaded);
    return !set || *value;
}

static bool CfgLookUp(char** value, const char* file, const char* stanza, const char* key)
{
    char* path = SysIsAbsolute(file) ? StrDuplicateIntoPool(file, MemGetDefaultPoolId())
                                     : PathHomeBuild(file, 0);
    const bool told = path && CfgReadString(value, path, stanza, key);
    if (!told) {
        NIM_TRACE(
            TAG, 1, LEVEL_FAILURE,
            "Failed to read the value of '%s' in stanza '%s' of '%s'; no default takes its place",
            key, stanza, path ? path : file);
    }
    MemFree(path);
    return told;
}

NimBool
CfgGetString(char** value, const char* file, const char* stanza, const char* key, const char* dflt)
{
    if (!value)
        return FALSE;
    *value = nullptr;
    if (file && *file && stanza && key && !CfgLookUp(value, file, stanza, key))
        return FALSE;
    if (!*value)
        *value = StrDuplicateIntoPool(dflt, MemGetDefaultPoolId());
    return *value != nullptr;
}
