// catalogue.cpp: the database as a whole: its directories, the list of its tables, opening and
// closing. How one table is loaded is the business of `open`; where databases live, of dbconfig.
//
// A database holds its tables, and each table its database. Outside clustered mode closing a table
// leaves that reference: the table gives it back when it dies, so that a table which somebody still
// holds keeps its database alive. In clustered mode closing gives it back at once.

#include "database/block/blockstore.h"
#include "database/dbconfig.h"
#include "database/index.h"
#include "database/index/ground/runtime.h"
#include "database/index/ground/shapes.h"
#include "database/index/schema/definition.h"
#include "database/index/schema/names.h"
#include "database/index/schema/open.h"
#include "nim/scope.h"

namespace {

// A file whose name contains this is a table in the making, left by whoever makes it.
constexpr const char* UNFINISHED = ".new";

bool IsClustered()
{
    return gbDbClusteredMode == DB_CLUSTERED_MODE;
}

// ---- directories -----------------------------------------------------------------------------

// Makes a directory where it is missing. False, with a failure trace that names it: it is no
// directory afterwards, or that cannot be told.
bool EnsureDirectory(const char* path)
{
    PathCreateDirectory(path);
    if (PathIsADirectory(path) == TRUE)
        return true;
    INDX_TRACE_ERROR(INDX_ALWAYS, "'%s' is no directory and cannot be made one", path);
    return false;
}

// The home directory: the caller's in clustered mode, else the configured one. Null: it cannot be
// told, or there is no memory for it.
char* HomeDirectory(const char* homeDir)
{
    if (IsClustered() && homeDir)
        return StrDuplicateIntoPool(homeDir, IndxPool());
    char* home = nullptr;
    DbGetHomeDir(&home);
    if (!home)
        INDX_TRACE_ERROR(INDX_ALWAYS, "Cannot tell the home directory of databases");
    return home;
}

// The path of the database's directory, which exists then; null with the error code set, or without
// memory.
char* MakeDatabaseDirectory(const char* name, const char* homeDir)
{
    if (!IndxCheckDatabaseName(name)) {
        IndxSetError(INDX_ERROR_ARGUMENT);
        return nullptr;
    }
    HeldMemory<char> home(HomeDirectory(homeDir));
    if (!home || !EnsureDirectory(home.get())) {
        IndxSetError(INDX_ERROR_HOME);
        return nullptr;
    }
    HeldMemory<char> path(PathBuild(home.get(), name, 0));
    if (path && !EnsureDirectory(path.get())) {
        IndxSetError(INDX_ERROR_HOME);
        return nullptr;
    }
    return path.Take();
}

// Makes one subdirectory and keeps its path.
bool MakeSubdirectory(char** ppPath, const char* directory, const char* name)
{
    *ppPath = PathBuild(directory, name, 0);
    if (!*ppPath)
        return false;
    if (EnsureDirectory(*ppPath))
        return true;
    IndxSetError(INDX_ERROR_SUBDIRECTORY);
    return false;
}

// ---- loading the tables ----------------------------------------------------------------------

struct Loading {
    IndxDatabase* pDatabase;
    void* oTableNames; // null: all
};

// One entry of the directory of block files. What cannot be loaded is left out, and found again
// when it is opened by name.
NimBool LoadEntry(const char*, const char* name, void* context)
{
    const auto* pLoading = static_cast<Loading*>(context);
    if (StrFindSubString(name, UNFINISHED))
        return TRUE;
    if (pLoading->oTableNames &&
        !ListSearch(pLoading->oTableNames, IndxFindTableInList, name, nullptr))
        return TRUE;
    void* oTable = nullptr;
    if (!IndxLoadTable(&oTable, pLoading->pDatabase, name, name))
        return TRUE;
    if (!ListPushLastItemInternal(pLoading->pDatabase->oTables, &oTable)) {
        auto* pTable = static_cast<IndxTable*>(oTable);
        BlckForgetChanges(pTable->oBlck);
        IndxDropTable(&pTable);
    }
    return TRUE;
}

// The database object over its directories, made where they are missing, with an empty list; null
// on failure.
IndxDatabase* MakeDatabase(const char* name, const char* directory)
{
    HeldObject<IndxDatabase> database;
    ObjTemplateCreateInstanceFromPool(database.OutVoid(), gIndxTemplates.database, IndxPool());
    if (!database || !MakeSubdirectory(&database->indexesPath, directory, "Indexes") ||
        !MakeSubdirectory(&database->recordsPath, directory, "Records") ||
        !MakeSubdirectory(&database->filesPath, directory, "Files") ||
        !MakeSubdirectory(&database->attributesPath, directory, "Attributes"))
        return nullptr;
    database->name = StrDuplicateIntoPool(name, IndxPool());
    if (!database->name || !ListCreateFromPool(&database->oTables, INDX_TABLE_MAGIC, IndxPool()))
        return nullptr;
    return database.Take();
}

// Closes one table of a database that is being closed, and takes it out of the list.
NimBool CloseItem(void* oTables, void* oTable)
{
    void* oHeld = ObjIncRefCount(oTable);
    IndxCloseTable(&oHeld);
    ListNode* pNode = nullptr;
    if (ListFindNode(&pNode, oTables, oTable))
        ListRemoveItem(pNode);
    return TRUE;
}

IndxDatabase* OpenDatabase(const char* name, void* oTableNames, const char* homeDir)
{
    HeldMemory<char> directory(MakeDatabaseDirectory(name, homeDir));
    if (!directory || !IndxEnsureTemplates())
        return nullptr;
    HeldObject<IndxDatabase> database(MakeDatabase(name, directory.get()));
    if (!database)
        return nullptr;
    // A database without tables and one whose tables cannot be seen must not be taken for each
    // other: the host would fill the one, and miss everything in the other.
    Loading loading = {database.get(), oTableNames};
    if (DirScan(database->indexesPath, LoadEntry, &loading) != TRUE) {
        INDX_TRACE(INDX_ALWAYS, "Failed to scan '%s'", database->indexesPath);
        IndxSetError(INDX_ERROR_SUBDIRECTORY);
        ListWalk(database->oTables, CloseItem, database->oTables);
        return nullptr;
    }
    return database.Take();
}

// A list whose items are strings, as far as the list itself tells.
bool IsListOfNames(const void* oList)
{
    if (ObjGetMagic(oList) != OBJ_MAGIC_LIST)
        return false;
    const uint32_t type = ListGetItemType(oList);
    return type == 0 || type == OBJ_MAGIC_STRING;
}

} // namespace

NimBool IndxOpenDatabase(void** ppDatabase, const char* name, void* tableNames, const char* homeDir)
{
    INDX_TRACE(
        INDX_DETAIL, "IndxOpenDatabase(%p, %s, %p)", static_cast<void*>(ppDatabase), name,
        tableNames);
    if (ppDatabase)
        *ppDatabase = nullptr;
    NimBool bOpened = FALSE;
    if (ppDatabase && name && (!tableNames || IsListOfNames(tableNames))) {
        *ppDatabase = OpenDatabase(name, tableNames, homeDir);
        bOpened = *ppDatabase != nullptr;
    }
    INDX_TRACE(
        INDX_OPENED, "%s = IndxOpenDatabase(0x%p, %s, %p)", IndxTruth(bOpened),
        static_cast<void*>(ppDatabase), name, tableNames);
    return bOpened;
}

NimBool IndxCloseDatabase(void** ppDatabase)
{
    INDX_TRACE(INDX_DETAIL, "IndxCloseDatabase(%p)", static_cast<void*>(ppDatabase));
    NimBool bClosed = FALSE;
    if (ppDatabase && *ppDatabase) {
        // An object of another type has no list: its reference is dropped all the same.
        if (const IndxDatabase* pDatabase = IndxAsDatabase(*ppDatabase))
            ListWalk(pDatabase->oTables, CloseItem, pDatabase->oTables);
        ObjReleaseInternal(ppDatabase);
        bClosed = TRUE;
    }
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxCloseDatabase(%p)", IndxTruth(bClosed),
        static_cast<void*>(ppDatabase));
    return bClosed;
}

NimBool IndxCloseTable(void** ppTable)
{
    IndxTable* pTable = ppTable ? IndxAsTable(*ppTable) : nullptr;
    if (!pTable)
        return FALSE;
    INDX_TRACE(INDX_DETAIL, "Release table (%p) %s", static_cast<void*>(pTable), pTable->name);
    if (IsClustered())
        BlckReleaseAll(pTable->oBlck);
    ObjRelease(pTable->oBlck);
    FileSysClose(&pTable->hRecords);
    IndxUnhookFields(pTable);
    if (IsClustered())
        ObjRelease(pTable->oDatabase);
    ObjReleaseInternal(ppTable);
    INDX_TRACE(
        INDX_DETAIL, "%s = IndxCloseTable(%p)", IndxTruth(TRUE), static_cast<void*>(ppTable));
    return TRUE;
}

NimBool IndxReleaseTable(void** ppTable)
{
    if (!ppTable || !IndxAsTable(*ppTable))
        return FALSE;
    ObjReleaseInternal(ppTable);
    return TRUE;
}

NimBool IndxFindTableInList(const void* name, const void* item)
{
    const char* text = ObjGetString(item);
    return text && StrCompareNoCase(static_cast<const char*>(name), text) == 0;
}
