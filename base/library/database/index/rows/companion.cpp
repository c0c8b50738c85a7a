// companion.cpp: the file that a record may have beside its row. Its path follows from the record
// id alone, Files/<table>/AAAA/BB/CC with the upper 16 bits, then two times 8 bits in hexadecimal,
// so that no catalogue of these files is needed and no directory holds more than 256 of them (65536
// on the upper level). What is in the files belongs to the callers; none is made here.

#include <cstdio>

#include "database/index/rows/rows.h"
#include "nim/scope.h"

namespace {

constexpr int32_t LAST_LEVEL = 2;
constexpr uint32_t UPPER_NAME = 4; // characters of the name on the first level
constexpr uint32_t LOWER_NAME = 2;
constexpr size_t NAME_ROOM = 2 * sizeof(unsigned long) + 1;

// The directory of a table's companion files; null without memory, and for a table that has given
// its database back.
char* TableDirectory(const IndxTable* pTable)
{
    // A missing directory must not make a path of the table's name alone.
    if (!pTable->oDatabase || !pTable->oDatabase->filesPath || !pTable->name)
        return nullptr;
    return PathBuild(pTable->oDatabase->filesPath, pTable->name, 0);
}

// Makes a directory inside another one and goes there. False: it is no directory afterwards.
bool EnterDirectory(HeldMemory<char>* pPath, const char* name)
{
    HeldMemory<char> inner(PathBuild(pPath->get(), name, 0));
    if (!inner)
        return false;
    PathCreateDirectory(inner.get());
    pPath->Set(inner.Take());
    return PathIsADirectory(pPath->get()) == TRUE;
}

struct Scan {
    void* oList;
    uint32_t levels[LAST_LEVEL + 1];
    int32_t depth;
};

// Whether a name has the form of one at this depth. Two characters pass at every depth.
bool HasLevelForm(const char* name, int32_t depth)
{
    const uint32_t length = StrSize(name) - 1;
    return length == LOWER_NAME || (length == UPPER_NAME && depth == 0);
}

// The hexadecimal number that a name is, and nothing but it.
bool ReadLevel(uint32_t* pValue, const char* name)
{
    unsigned long value = 0;
    char rest = 0;
    if (std::sscanf(name, "%lx%c", &value, &rest) != 1)
        return false;
    *pValue = static_cast<uint32_t>(value);
    return true;
}

// One entry of a directory at the scan's depth; never ends the scan.
NimBool IndxFindFiles(const char* directory, const char* name, void* context)
{
    auto* pScan = static_cast<Scan*>(context);
    INDX_TRACE(
        INDX_DETAIL, "IndxFindFiles(%s, %s, %p) %ld", directory, name, context, pScan->depth);
    if (!HasLevelForm(name, pScan->depth) || !ReadLevel(&pScan->levels[pScan->depth], name))
        return TRUE;
    if (pScan->depth < LAST_LEVEL) {
        HeldMemory<char> inner(PathBuild(directory, name, 0));
        ++pScan->depth;
        DirScanDirect(inner.get(), IndxFindFiles, context);
        --pScan->depth;
        return TRUE;
    }
    const uint32_t id = pScan->levels[0] << 16 | pScan->levels[1] << 8 | pScan->levels[2];
    HeldObject<> integer(ObjIntegerNew(static_cast<int32_t>(id)));
    ListAddLastItem(pScan->oList, integer.get());
    return TRUE;
}

} // namespace

uint32_t IndxNextId(void* oTable)
{
    const IndxTable* pTable = IndxAsTable(oTable);
    return pTable ? pTable->highestId + 1 : 0;
}

NimBool IndxGetFilePath(char** ppPath, void* oTable, uint32_t id)
{
    if (ppPath)
        *ppPath = nullptr;
    const IndxTable* pTable = IndxAsTable(oTable);
    // An id from 2^31 on counts as negative and is refused too.
    if (!ppPath || !pTable || static_cast<int32_t>(id) < 1) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Invalid argument (id is %ld)", static_cast<int32_t>(id));
        return FALSE;
    }
    char upper[NAME_ROOM];
    char middle[NAME_ROOM];
    char lower[NAME_ROOM];
    std::snprintf(upper, sizeof upper, "%04lx", static_cast<unsigned long>(id >> 16));
    std::snprintf(middle, sizeof middle, "%02lx", static_cast<unsigned long>(id >> 8 & 0xFF));
    std::snprintf(lower, sizeof lower, "%02lx", static_cast<unsigned long>(id & 0xFF));

    HeldMemory<char> path(TableDirectory(pTable));
    if (path) {
        PathCreateDirectory(path.get());
        if (EnterDirectory(&path, upper) && EnterDirectory(&path, middle))
            *ppPath = PathBuild(path.get(), lower, 0);
    }
    INDX_TRACE(INDX_DETAIL, "IndxGetFilePath()");
    return *ppPath != nullptr;
}

NimBool IndxGetFilePathAtCursor(char** ppPath, void* oCursor)
{
    const IndxCursor* pCursor = IndxAsCursor(oCursor);
    // TRUE without a path is deliberate: callers look at *ppPath.
    if (!ppPath || !pCursor || pCursor->status != INDX_ON_KEY)
        return TRUE;
    uint32_t id = 0;
    IndxCursorGetId(&id, oCursor);
    return IndxGetFilePath(ppPath, pCursor->oField ? pCursor->oField->oTable : nullptr, id);
}

NimBool IndxGetFileList(void** ppList, void* oTable)
{
    const IndxTable* pTable = IndxAsTable(oTable);
    if (!pTable || !ppList) {
        INDX_TRACE_ERROR(INDX_ALWAYS, "Not a valid table");
        return FALSE;
    }
    Scan scan = {ListNewFromPool(0, IndxPool()), {0, 0, 0}, 0};
    HeldMemory<char> directory(TableDirectory(pTable));
    DirScanDirect(directory.get(), IndxFindFiles, &scan);
    *ppList = scan.oList;
    return FALSE; // kept: callers look at *ppList
}
