// open.cpp: one table at a time: finding it in its database, loading it from its block file,
// creating it, its version and its records file. The definition of a new table and the judgement on
// a stored one have rooms of their own.
//
// A table on disk is never created over: only a block file in which no description was ever stored
// gets a new one. A block file that was read and refused is not written.

#include "database/block/blockstore.h"
#include "database/dbconfig.h"
#include "database/index/schema/schema.h"
#include "nim/scope.h"

namespace {

constexpr const char* VERSION_STANZA = "Versioning";
constexpr const char* VERSION_KEY = "Version";

// What the caller of IndxOpenTableInternal wants.
struct Request {
    IndxDatabase* pDatabase;
    const char* name;
    const char* fileName;
    uint32_t magic;
    const char* format;
    const char* fields;
    uint32_t flag;
    uint32_t version;
};

// ---- versions --------------------------------------------------------------------------------

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

bool ExistsIn(const char* directory, const char* fileName)
{
    HeldMemory<char> path(PathBuild(directory, fileName, 0));
    return FileExists(path.get()) != 0;
}

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
    return StnzReplaceStanzaViaParent(stanza.p, path.get()) != 0;
}

// Whether the stored version lets the open go on.
bool VersionFits(const Request& request)
{
    uint32_t current = 0;
    if (!IndxGetTableVersion(&current, request.fileName, request.pDatabase)) {
        INDX_TRACE(INDX_ALWAYS, "Failed when discovering table version");
        return false;
    }
    if (current == INDX_VERSION_ABSENT || request.version == INDX_VERSION_ANY ||
        current == request.version)
        return true;
    HeldMemory<char> wanted(IndxTableVersionString(request.version));
    HeldMemory<char> stored(IndxTableVersionString(current));
    INDX_TRACE(
        INDX_ALWAYS, "Wrong table version - wanted '%s', is '%s'", wanted.get(), stored.get());
    return false;
}

// ---- loading ---------------------------------------------------------------------------------

// IndxIndexOpen reaches the directory through a table; at loading there is none yet.
bool OpenBlockFile(void** ppBlck, IndxDatabase* pDatabase, const char* fileName)
{
    HeldObject<IndxTable> stand;
    ObjTemplateCreateInstanceFromPool(stand.OutVoid(), gIndxTemplates.table, IndxPool());
    if (!stand)
        return false;
    stand->oDatabase = static_cast<IndxDatabase*>(ObjIncRefCount(pDatabase));
    return stand->oDatabase && IndxIndexOpen(ppBlck, stand.get(), fileName);
}

// Gives a rebuilt table what is not stored with it. False: no memory; the ring may be half made.
bool AttachTable(IndxTable* pTable, void* oBlck, IndxDatabase* pDatabase, const char* fileName)
{
    // The host's flag word: in clustered mode a loaded table is marked in it.
    if (gbDbClusteredMode == DB_CLUSTERED_MODE)
        OBJ_HEADER(pTable)->flags = 1;
    pTable->hRecords = FILE_NONE;
    pTable->oBlck = ObjIncRefCount(oBlck);
    pTable->oDatabase = static_cast<IndxDatabase*>(ObjIncRefCount(pDatabase));
    if (!pTable->oBlck || !pTable->oDatabase || !IndxHookFields(pTable))
        return false;
    IndxRecordsOpen(pTable, fileName); // TRUE for any table of a database
    return true;
}

IndxStored
LoadFromFile(IndxTable** ppTable, IndxDatabase* pDatabase, const char* fileName, const char* name)
{
    *ppTable = nullptr;
    HeldObject<> blck;
    if (!OpenBlockFile(blck.Out(), pDatabase, fileName)) {
        INDX_TRACE(INDX_DETAIL, "Failed to open index file");
        return IndxStored::Refused;
    }
    IndxTable* pTable = nullptr;
    IndxStored stored = IndxRebuildTable(&pTable, blck.get(), name, fileName);
    if (stored == IndxStored::Sound && !AttachTable(pTable, blck.get(), pDatabase, fileName)) {
        IndxDropTable(&pTable);
        stored = IndxStored::Refused;
    }
    if (stored != IndxStored::Sound)
        BlckForgetChanges(blck.get());
    *ppTable = pTable;
    return stored;
}

// Gives a loaded table up again, without a trace of it in its files.
void UnloadTable(IndxTable** ppTable)
{
    BlckForgetChanges((*ppTable)->oBlck);
    IndxDropTable(ppTable);
}

// ---- opening ---------------------------------------------------------------------------------

// Two formats are the same when they differ at most in a ";" at the end.
bool IsSameShape(const char* stored, const char* given)
{
    const uint32_t storedSize = StrSize(stored);
    const uint32_t givenSize = StrSize(given);
    if (storedSize == givenSize)
        return StrCompare(stored, given) == 0;
    const char* longer = storedSize > givenSize ? stored : given;
    const char* shorter = storedSize > givenSize ? given : stored;
    const uint32_t length = StrSize(shorter) - 1;
    return StrSize(longer) == length + 2 && longer[length] == ';' &&
           StrCompareRange(longer, shorter, length) == 0;
}

bool HasShapeOf(const IndxTable* pTable, const Request& request)
{
    return pTable->recordMagic == request.magic && IsSameShape(pTable->format, request.format);
}

// A table that is on disk though not in the list (left out when the database was opened, or not
// loadable then) joins the list now. Blank: there is none on disk.
IndxStored LoadIntoDatabase(IndxTable** ppTable, const Request& request)
{
    // The file is asked for here, not the version: a version file may hold any number.
    if (!ExistsIn(request.pDatabase->indexesPath, request.fileName))
        return IndxStored::Blank;
    IndxStored stored = LoadFromFile(ppTable, request.pDatabase, request.fileName, request.name);
    if (stored == IndxStored::Blank)
        return stored;
    if (stored == IndxStored::Sound) {
        // Another table's files, whether that table is open or not, are not this table's.
        if (StrCompareNoCase((*ppTable)->name, request.name) == 0 &&
            ListAddLastItem(request.pDatabase->oTables, *ppTable))
            return stored;
        if (StrCompareNoCase((*ppTable)->name, request.name) != 0) {
            INDX_TRACE(INDX_ALWAYS, "'%s' holds table '%s'", request.fileName, (*ppTable)->name);
        }
        UnloadTable(ppTable);
    }
    INDX_TRACE(INDX_ALWAYS, "Failed to load table '%s' from '%s'", request.name, request.fileName);
    return IndxStored::Refused;
}

// The new table with its block file and its fields. False: `pTable` is to be dropped.
bool DefineTable(IndxTable* pTable, const Request& request)
{
    pTable->name = StrDuplicateIntoPool(request.name, IndxPool());
    pTable->oDatabase = static_cast<IndxDatabase*>(ObjIncRefCount(request.pDatabase));
    pTable->hRecords = FILE_NONE;
    pTable->bChanged = TRUE;
    pTable->bCompanionFiles = request.flag;
    if (!pTable->name || !pTable->oDatabase)
        return false;
    IndxIndexOpen(&pTable->oBlck, pTable, request.fileName);
    // Seen before, unless the file appeared or could not be asked for in between.
    if (pTable->oBlck && !IndxIsBlank(pTable->oBlck)) {
        INDX_TRACE(INDX_ALWAYS, "'%s' holds a table already", request.fileName);
        BlckForgetChanges(pTable->oBlck);
        return false;
    }
    // Without a block file there is no room for the description, and this fails.
    if (!IndxCreateTable(pTable, request.magic, request.format, request.fields)) {
        INDX_TRACE(INDX_ALWAYS, "Failed to create table");
        return false;
    }
    IndxRecordsOpen(pTable, request.fileName); // TRUE for any table of a database
    return true;
}

NimBool CreateNewTable(void** ppTable, const Request& request)
{
    INDX_TRACE(INDX_OPENED, "Create a new table");
    if (request.version != INDX_VERSION_NONE && request.version != INDX_VERSION_ANY &&
        !IndxSetTableVersion(request.name, request.pDatabase, request.version)) {
        INDX_TRACE(
            INDX_ALWAYS, "Failed to set table version when creating new table '%s'", request.name);
        return FALSE;
    }
    HeldObject<IndxTable> table;
    ObjTemplateCreateInstanceFromPool(table.OutVoid(), gIndxTemplates.table, IndxPool());
    if (!table)
        return FALSE;
    if (!DefineTable(table.get(), request) ||
        !ListAddLastItem(request.pDatabase->oTables, table.get())) {
        IndxTable* pTable = table.Take();
        IndxDropTable(&pTable);
        return FALSE;
    }
    if (ppTable)
        *ppTable = ObjIncRefCount(table.get());
    // The table is listed and handed out from here on, even when its description is not stored.
    const NimBool bStored = IndxUpdateTable(table.get());
    return bStored && (!ppTable || *ppTable);
}

// A table that was closed while its database is open is still in the list, without fields and block
// file. It leaves the list, so that opening it by name finds it on disk again.
void ForgetClosedTable(const Request& request)
{
    void* oTable = nullptr;
    ListNode* pNode = nullptr;
    if (ListSearch(request.pDatabase->oTables, IndxMatchTable, request.name, &oTable) &&
        !static_cast<IndxTable*>(oTable)->oBlck &&
        ListFindNode(&pNode, request.pDatabase->oTables, oTable))
        ListRemoveItem(pNode);
}

NimBool OpenOrCreate(void** ppTable, const Request& request)
{
    ForgetClosedTable(request);
    HeldObject<IndxTable> table;
    if (!IndxOpenExistingTable(table.OutVoid(), request.pDatabase, request.name, request.version)) {
        switch (LoadIntoDatabase(table.Out(), request)) {
        case IndxStored::Sound:
            break;
        case IndxStored::Blank:
            return CreateNewTable(ppTable, request);
        case IndxStored::Refused:
            return FALSE;
        }
    }
    if (!HasShapeOf(table.get(), request)) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Shape of table has changed");
        IndxSetError(INDX_ERROR_SHAPE);
        return FALSE;
    }
    if (ppTable)
        *ppTable = table.Take();
    return TRUE;
}

void RefuseArgument()
{
    INDX_TRACE(INDX_ALWAYS, "Invalid argument");
    IndxSetError(INDX_ERROR_ARGUMENT);
}

} // namespace

NimBool IndxIndexOpen(void** ppBlck, IndxTable* pTable, const char* name)
{
    const char* directory = pTable && pTable->oDatabase ? pTable->oDatabase->indexesPath : nullptr;
    HeldMemory<char> path(PathBuild(directory, name, 0));
    if (!BlckFileOpen(ppBlck, path.get())) {
        INDX_TRACE(INDX_ALWAYS, "Failed to open blck file when opening indx '%s'", path.get());
    }
    // TRUE whether or not the file opened: callers learn of a failure from the null handle.
    INDX_TRACE(
        INDX_OPENED, "%s = IndxIndexOpen(%p, %p, %s)", "TRUE", static_cast<void*>(ppBlck),
        static_cast<void*>(pTable), name);
    return TRUE;
}

NimBool IndxOpenTableInternal(
    void** ppTable, void* oDatabase, const char* name, const char* fileName, uint32_t magic,
    const char* format, const char* fields, uint32_t flag, uint32_t version)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxOpenTableInternal(%p, %p, %s, %s, %ld, %s %s, %s %ld)",
        static_cast<void*>(ppTable), oDatabase, name, fileName, magic, format, fields,
        IndxTruth(flag), version);
    if (ppTable)
        *ppTable = nullptr;
    const Request request = {
        IndxAsDatabase(oDatabase), name, fileName, magic, format, fields, flag, version};
    NimBool bOpened = FALSE;
    if (!request.pDatabase || !name || !fileName || !format || !fields)
        RefuseArgument();
    else if (VersionFits(request))
        bOpened = OpenOrCreate(ppTable, request);
    INDX_TRACE(
        INDX_OPENED, "%s = IndxOpenTableInternal(%p, %p, %s, %s, ...)", IndxTruth(bOpened),
        static_cast<void*>(ppTable), oDatabase, name, fileName);
    return bOpened;
}

NimBool IndxOpenExistingTable(void** ppTable, void* oDatabase, const char* name, uint32_t version)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxOpenExistingTable(%p, %p, %s, %ld)", static_cast<void*>(ppTable),
        oDatabase, name, version);
    if (ppTable)
        *ppTable = nullptr;
    const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase);
    void* oTable = nullptr;
    NimBool bFound = FALSE;
    if (!pDatabase || !name) {
        RefuseArgument();
    } else if (!ListSearch(pDatabase->oTables, IndxMatchTable, name, &oTable)) {
        INDX_TRACE(INDX_DETAIL, "Table does not exist yet");
    } else {
        bFound = TRUE;
        if (ppTable) {
            *ppTable = ObjIncRefCount(oTable);
            bFound = *ppTable != nullptr;
        }
    }
    INDX_TRACE(
        INDX_OPENED, "%s = IndxOpenExistingTable(%p, %p, %s, %ld)", IndxTruth(bFound),
        static_cast<void*>(ppTable), oDatabase, name, version);
    return bFound;
}

NimBool IndxLoadTable(void** ppTable, void* oDatabase, const char* fileName, const char* name)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxLoadTable(%p, %p, %s, %s)", static_cast<void*>(ppTable), oDatabase,
        fileName, name);
    if (ppTable)
        *ppTable = nullptr;
    IndxDatabase* pDatabase = IndxAsDatabase(oDatabase);
    if (!pDatabase || !fileName || !name) {
        INDX_TRACE(INDX_ALWAYS, "Invalid argument");
        return FALSE;
    }
    if (ListSearch(pDatabase->oTables, IndxMatchTable, name, nullptr))
        return FALSE;
    IndxTable* pTable = nullptr;
    if (LoadFromFile(&pTable, pDatabase, fileName, name) != IndxStored::Sound)
        return FALSE;
    if (ppTable)
        *ppTable = pTable;
    else
        UnloadTable(&pTable);
    return TRUE;
}

NimBool IndxRecordsOpen(void* oTable, const char* fileName)
{
    IndxTable* pTable = IndxAsTable(oTable);
    if (!pTable || !pTable->oDatabase || !fileName) {
        INDX_TRACE(INDX_ALWAYS, "Invalid argument");
        return FALSE;
    }
    HeldMemory<char> path(PathBuild(pTable->oDatabase->recordsPath, fileName, 0));
    FileSysClose(&pTable->hRecords); // of an earlier open, or nothing
    FileSysOpen(&pTable->hRecords, path.get(), FILE_MODE_UPDATE);
    // TRUE whether or not the file opened: the operations on records meet a closed file.
    INDX_TRACE(INDX_DETAIL, "%s = IndxRecordsOpen(%p) %s", IndxTruth(TRUE), oTable, path.get());
    return TRUE;
}

NimBool IndxGetTableVersion(uint32_t* pVersion, const char* fileName, void* oDatabase)
{
    const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase);
    if (!pVersion || !fileName || !pDatabase) {
        INDX_TRACE(INDX_ALWAYS, "Invalid argument");
        return FALSE;
    }
    if (!ExistsIn(pDatabase->indexesPath, fileName)) {
        INDX_TRACE(INDX_DETAIL, "Return table '%s' version of 'does not exist'", fileName);
        *pVersion = INDX_VERSION_ABSENT;
        return TRUE;
    }
    if (!ExistsIn(pDatabase->attributesPath, fileName)) {
        INDX_TRACE(INDX_DETAIL, "Return table '%s' version of 'none'", fileName);
        *pVersion = INDX_VERSION_NONE;
        return TRUE;
    }
    HeldStanza stanza;
    HeldMemory<char> path(PathBuild(pDatabase->attributesPath, fileName, 0));
    if (!StnzLoadStanzaFromFile(&stanza.p, path.get(), 0, VERSION_STANZA)) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Failed to load version stanza for table '%s'", fileName);
        return FALSE;
    }
    constexpr auto NONE = static_cast<int32_t>(INDX_VERSION_NONE);
    int32_t version = NONE;
    if (!StnzGetInteger(stanza.p, VERSION_KEY, NONE, &version) || version == NONE) {
        INDX_TRACE(INDX_ALWAYS, "Failed to get version integer from stnz for '%s'", fileName);
        return FALSE;
    }
    INDX_TRACE(INDX_DETAIL, "Got version of %ld for table '%s'", version, fileName);
    *pVersion = static_cast<uint32_t>(version);
    return TRUE;
}

NimBool IndxSetTableVersion(const char* name, void* oDatabase, uint32_t version)
{
    const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase);
    const NimBool bSet = pDatabase && name && StoreVersion(name, pDatabase, version);
    if (bSet)
        INDX_TRACE(INDX_DETAIL, "Succesfully set table '%s' version to %ld", name, version);
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxSetTableVersion('%s', %p, %ld)", IndxTruth(bSet), name, oDatabase,
        version);
    return bSet;
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

void IndxDropTable(IndxTable** ppTable)
{
    IndxUnhookFields(*ppTable);
    FileSysClose(&(*ppTable)->hRecords);
    ObjRelease(*ppTable);
}
