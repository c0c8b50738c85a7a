// open.cpp: one table at a time: finding it in its database, loading it from its block file,
// creating it, and its records file. The definition of a new table, the judgement on a stored one
// and the version have rooms of their own.
//
// A table on disk is never created over: only a block file in which no description was ever stored
// gets a new one, and what cannot be told is no permission to create. A block file that was read
// and refused is not written. The version file comes after the block file: before that file is open
// and found blank, the version on disk may be another table's.

#include "database/index/schema/open.h"

#include "database/block/blockstore.h"
#include "database/dbconfig.h"
#include "database/index.h"
#include "database/index/ground/runtime.h"
#include "database/index/schema/definition.h"
#include "database/index/schema/description.h"
#include "database/index/schema/names.h"
#include "database/index/schema/version.h"
#include "nim/scope.h"

namespace {

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

// ---- loading ---------------------------------------------------------------------------------

// IndxIndexOpen reaches the directory through a table; at loading there is none yet.
bool OpenBlockFile(void** ppBlck, IndxDatabase* pDatabase, const char* fileName)
{
    HeldObject<IndxTable> stand;
    ObjTemplateCreateInstanceFromPool(stand.OutVoid(), gIndxTemplates.table, IndxPool());
    if (!stand)
        return false;
    stand->oDatabase = static_cast<IndxDatabase*>(ObjIncRefCount(pDatabase));
    return IndxIndexOpen(ppBlck, stand.get(), fileName) == TRUE;
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
    if (!IndxHookFields(pTable))
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
    IndxStored stored = IndxReadDescription(&pTable, blck.get(), name, fileName);
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
    switch (IndxLookFor(request.pDatabase->indexesPath, request.fileName)) {
    case IndxPresence::Absent:
        return IndxStored::Blank;
    case IndxPresence::Unknown:
        return IndxStored::Refused;
    case IndxPresence::Present:
        break;
    }
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

// Stores the version that a new table is to have, if any. Kept: a definition that is refused
// afterwards leaves it, as it leaves the files that were made.
bool GiveVersion(const Request& request)
{
    if (request.version == INDX_VERSION_NONE || request.version == INDX_VERSION_ANY ||
        IndxSetTableVersion(request.name, request.pDatabase, request.version))
        return true;
    INDX_TRACE(
        INDX_ALWAYS, "Failed to set table version when creating new table '%s'", request.name);
    return false;
}

// The new table with its block file and its fields. False: `pTable` is to be dropped.
bool DefineTable(IndxTable* pTable, const Request& request)
{
    pTable->name = StrDuplicateIntoPool(request.name, IndxPool());
    pTable->oDatabase = static_cast<IndxDatabase*>(ObjIncRefCount(request.pDatabase));
    pTable->hRecords = FILE_NONE;
    pTable->bChanged = TRUE;
    pTable->bCompanionFiles = request.flag;
    if (!pTable->name)
        return false;
    IndxIndexOpen(&pTable->oBlck, pTable, request.fileName);
    // Seen before, unless the file appeared in between.
    if (pTable->oBlck && !IndxIsBlank(pTable->oBlck)) {
        INDX_TRACE(INDX_ALWAYS, "'%s' holds a table already", request.fileName);
        BlckForgetChanges(pTable->oBlck);
        return false;
    }
    if (pTable->oBlck && !GiveVersion(request)) {
        BlckForgetChanges(pTable->oBlck); // stays empty: the next attempt starts from there
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

bool CreateNewTable(void** ppTable, const Request& request)
{
    INDX_TRACE(INDX_OPENED, "Create a new table");
    if (!IndxIsRecordMagic(request.magic)) {
        INDX_TRACE_ERROR(
            INDX_ALWAYS, "Magic 0x%08lx of table '%s' is outside 0xc8000000 to 0xcfffffff",
            request.magic, request.name);
        IndxSetError(INDX_ERROR_ARGUMENT);
        return false;
    }
    HeldObject<IndxTable> table;
    ObjTemplateCreateInstanceFromPool(table.OutVoid(), gIndxTemplates.table, IndxPool());
    if (!table)
        return false;
    if (!DefineTable(table.get(), request) ||
        !ListAddLastItem(request.pDatabase->oTables, table.get())) {
        IndxTable* pTable = table.Take();
        IndxDropTable(&pTable);
        return false;
    }
    if (ppTable)
        *ppTable = ObjIncRefCount(table.get());
    // The table is listed and handed out from here on, even when its description is not stored.
    return IndxUpdateTable(table.get()) == TRUE;
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

bool OpenOrCreate(void** ppTable, const Request& request)
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
            return false;
        }
    }
    if (!HasShapeOf(table.get(), request)) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Shape of table has changed");
        IndxSetError(INDX_ERROR_SHAPE);
        return false;
    }
    IndxTellKeptFlags(table.get(), request.fields);
    if (ppTable)
        *ppTable = table.Take();
    return true;
}

// ---- what the table is asked for -------------------------------------------------------------

void RefuseArgument()
{
    INDX_TRACE(INDX_ALWAYS, "Invalid argument");
    IndxSetError(INDX_ERROR_ARGUMENT);
}

bool HasSoundNames(const Request& request)
{
    if (IndxCheckFileName(request.name) && IndxCheckFileName(request.fileName))
        return true;
    IndxSetError(INDX_ERROR_ARGUMENT);
    return false;
}

// Whether a table that is in no list has a block file in which nothing was ever stored.
bool IsBlankOnDisk(const Request& request)
{
    if (ListSearch(request.pDatabase->oTables, IndxMatchTable, request.name, nullptr))
        return false;
    HeldObject<> blck;
    if (!OpenBlockFile(blck.Out(), request.pDatabase, request.fileName))
        return false;
    BlckForgetChanges(blck.get());
    return IndxIsBlank(blck.get());
}

// Whether the stored version lets the open go on.
bool HasWantedVersion(const Request& request)
{
    uint32_t stored = 0;
    if (!IndxGetTableVersion(&stored, request.fileName, request.pDatabase)) {
        INDX_TRACE(INDX_ALWAYS, "Failed when discovering table version");
        return false;
    }
    // A creation that came no further than its block file has not left a table without a version,
    // but none: refused for its version, it could not be created any more.
    if (stored == INDX_VERSION_NONE && request.version != INDX_VERSION_NONE &&
        request.version != INDX_VERSION_ANY && IsBlankOnDisk(request))
        stored = INDX_VERSION_ABSENT;
    return IndxVersionFits(stored, request.version);
}

// ---- the records file ------------------------------------------------------------------------

NimBool IsEmptyIndex(void*, void* oField)
{
    return static_cast<IndxField*>(oField)->roots.tRoot == INDX_NO_NODE;
}

// A records file that has gone is made anew like that of a new table: keys then lead to nothing, or
// into records that were added later.
void TellMissingRecords(const IndxTable* pTable, const char* path)
{
    if (ListWalk(pTable->oFields, IsEmptyIndex, nullptr) || PathKind(path) != PATH_ABSENT)
        return;
    INDX_TRACE_ERROR(
        INDX_ALWAYS, "Records file '%s' is made anew, though table '%s' has keys of records", path,
        pTable->name);
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
    bool bOpened = false;
    if (!request.pDatabase || !name || !fileName || !format || !fields)
        RefuseArgument();
    else if (HasSoundNames(request) && HasWantedVersion(request))
        bOpened = OpenOrCreate(ppTable, request);
    INDX_TRACE(
        INDX_OPENED, "%s = IndxOpenTableInternal(%p, %p, %s, %s, ...)", IndxTruth(bOpened),
        static_cast<void*>(ppTable), oDatabase, name, fileName);
    return bOpened;
}

NimBool IndxMatchTable(const void* name, const void* item)
{
    const char* itemName = static_cast<const IndxTable*>(item)->name;
    return StrCompareNoCase(static_cast<const char*>(name), itemName) == 0;
}

bool IndxOpenExistingTable(void** ppTable, void* oDatabase, const char* name, uint32_t version)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxOpenExistingTable(%p, %p, %s, %ld)", static_cast<void*>(ppTable),
        oDatabase, name, version);
    if (ppTable)
        *ppTable = nullptr;
    const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase);
    void* oTable = nullptr;
    bool bFound = false;
    if (!pDatabase || !name) {
        RefuseArgument();
    } else if (!ListSearch(pDatabase->oTables, IndxMatchTable, name, &oTable)) {
        INDX_TRACE(INDX_DETAIL, "Table does not exist yet");
    } else {
        bFound = true;
        if (ppTable)
            *ppTable = ObjIncRefCount(oTable);
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
    if (!IndxCheckFileName(fileName))
        return FALSE;
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
    if (!IndxCheckFileName(fileName))
        return FALSE;
    HeldMemory<char> path(PathBuild(pTable->oDatabase->recordsPath, fileName, 0));
    if (path)
        TellMissingRecords(pTable, path.get());
    FileSysClose(&pTable->hRecords); // of an earlier open, or nothing
    FileSysOpen(&pTable->hRecords, path.get(), FILE_MODE_UPDATE);
    // TRUE whether or not the file opened: the operations on records meet a closed file.
    INDX_TRACE(INDX_DETAIL, "%s = IndxRecordsOpen(%p) %s", IndxTruth(TRUE), oTable, path.get());
    return TRUE;
}

void IndxDropTable(IndxTable** ppTable)
{
    IndxUnhookFields(*ppTable);
    FileSysClose(&(*ppTable)->hRecords);
    ObjRelease(*ppTable);
}
