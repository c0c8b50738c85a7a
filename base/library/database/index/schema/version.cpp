// version.cpp: the version of a table. It stands beside the table's files, not in them, so that a
// host can tell an old table from a new one without opening either.

#include "database/index/schema/version.h"

#include "database/index.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/schema/names.h"
#include "nim/scope.h"

namespace {

constexpr const char* VERSION_STANZA = "Versioning";
constexpr const char* VERSION_KEY = "Version";

// Guards of what the stanza services hand out.
struct HeldStanza {
    Stnz* p = nullptr;
    HeldStanza() = default;
    ~HeldStanza() { StnzRelease(&p); }
    HeldStanza(const HeldStanza&) = delete;
    HeldStanza& operator=(const HeldStanza&) = delete;
};

struct HeldKey {
    StnzKey* p = nullptr;
    HeldKey() = default;
    ~HeldKey() { StnzReleaseKey(&p); }
    HeldKey(const HeldKey&) = delete;
    HeldKey& operator=(const HeldKey&) = delete;
};

// Makes the stanza and puts it into the file. False: not stored.
bool StoreVersion(const char* name, const IndxDatabase* pDatabase, uint32_t version)
{
    HeldStanza stanza;
    HeldKey key;
    if (!StnzCreate(&stanza.p, 0, VERSION_STANZA, 1) ||
        !StnzCreateKeyFromInteger(&key.p, VERSION_KEY, static_cast<int32_t>(version)) ||
        !StnzAddKeyToStanza(stanza.p, key.p))
        return false;
    key.p = nullptr; // the stanza's now
    HeldMemory<char> path(PathBuild(pDatabase->attributesPath, name, 0));
    return StnzReplaceStanzaViaParent(stanza.p, path.get()) == TRUE;
}

// Reads the number of a version file that is there. False with a failure trace.
bool LoadVersion(uint32_t* pVersion, const char* fileName, const IndxDatabase* pDatabase)
{
    HeldStanza stanza;
    HeldMemory<char> path(PathBuild(pDatabase->attributesPath, fileName, 0));
    if (StnzLoadStanzaFromFile(&stanza.p, path.get(), 0, VERSION_STANZA) != TRUE) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Failed to load version stanza for table '%s'", fileName);
        return false;
    }
    constexpr auto NONE = static_cast<int32_t>(INDX_VERSION_NONE);
    int32_t version = NONE;
    if (!StnzGetInteger(stanza.p, VERSION_KEY, NONE, &version) || version == NONE) {
        INDX_TRACE(INDX_ALWAYS, "Failed to get version integer from stnz for '%s'", fileName);
        return false;
    }
    INDX_TRACE(INDX_DETAIL, "Got version of %ld for table '%s'", version, fileName);
    *pVersion = static_cast<uint32_t>(version);
    return true;
}

} // namespace

NimBool IndxGetTableVersion(uint32_t* pVersion, const char* fileName, void* oDatabase)
{
    const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase);
    if (!pVersion || !fileName || !pDatabase) {
        INDX_TRACE(INDX_ALWAYS, "Invalid argument");
        return FALSE;
    }
    if (!IndxCheckFileName(fileName))
        return FALSE;
    const IndxPresence table = IndxLookFor(pDatabase->indexesPath, fileName);
    if (table == IndxPresence::Unknown)
        return FALSE;
    if (table == IndxPresence::Absent) {
        INDX_TRACE(INDX_DETAIL, "Return table '%s' version of 'does not exist'", fileName);
        *pVersion = INDX_VERSION_ABSENT;
        return TRUE;
    }
    const IndxPresence version = IndxLookFor(pDatabase->attributesPath, fileName);
    if (version == IndxPresence::Unknown)
        return FALSE;
    if (version == IndxPresence::Absent) {
        INDX_TRACE(INDX_DETAIL, "Return table '%s' version of 'none'", fileName);
        *pVersion = INDX_VERSION_NONE;
        return TRUE;
    }
    return LoadVersion(pVersion, fileName, pDatabase);
}

bool IndxSetTableVersion(const char* name, void* oDatabase, uint32_t version)
{
    const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase);
    const bool bSet = pDatabase && name && StoreVersion(name, pDatabase, version);
    if (bSet)
        INDX_TRACE(INDX_DETAIL, "Succesfully set table '%s' version to %ld", name, version);
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxSetTableVersion('%s', %p, %ld)", IndxTruth(bSet), name, oDatabase,
        version);
    return bSet;
}

bool IndxVersionFits(uint32_t stored, uint32_t wanted)
{
    if (stored == INDX_VERSION_ABSENT || wanted == INDX_VERSION_ANY || stored == wanted)
        return true;
    HeldMemory<char> wantedText(IndxTableVersionString(wanted));
    HeldMemory<char> storedText(IndxTableVersionString(stored));
    INDX_TRACE(
        INDX_ALWAYS, "Wrong table version - wanted '%s', is '%s'", wantedText.get(),
        storedText.get());
    return false;
}

char* IndxTableVersionString(uint32_t version)
{
    switch (version) {
    case INDX_VERSION_ABSENT:
        return StrDuplicateIntoPool("Does not exist", IndxPool());
    case INDX_VERSION_NONE:
        return StrDuplicateIntoPool("None", IndxPool());
    case INDX_VERSION_ANY:
        return StrDuplicateIntoPool("Any", IndxPool());
    default:
        return StrFromInteger(version, IndxPool());
    }
}
