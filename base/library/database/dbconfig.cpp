// dbconfig.cpp: where databases live. It reads the home directory from the product's configuration,
// maps paths to the database directories of clustered mode, and packs a drive into a munged qtree
// id and back. It opens no database and keeps nothing but the mode. Drives are asked for through
// gpDbDrives.
//
// A home directory that cannot be told (a configuration that is there and cannot be read) is never
// replaced by the default one: a database under another home is another database.
#include "database/dbconfig.h"

#include <cstring>

#include "database/dbconfig_internal.h"
#include "database/trace.h"
#include "nim/config.h"
#include "nim/drive.h"
#include "nim/list.h"
#include "nim/mem.h"
#include "nim/object.h"
#include "nim/path.h"
#include "nim/scope.h"
#include "nim/str.h"
#include "nim/trace.h"

uint32_t gbDbClusteredMode = 0;
// Lambdas, since the address of what another library exports is not constant everywhere.
constinit const DbDrives kDbSystemDrives = {
    [] { return DriveGetLetters(); }, [](const char* root) { return DriveGetType(root); },
    [] { return DriveGetLastError(); }};
constinit const DbDrives* gpDbDrives = &kDbSystemDrives;

namespace {

constexpr char HOME_NAME[] = "db";
constexpr char CONFIG_FILE[] = "configure.cfg";
constexpr char CONFIG_STANZA[] = "Directories";
constexpr char CONFIG_KEY[] = "database";

// Paths that belong to the home directory, and paths that belong to no database directory.
constexpr char STATE_PREFIX[] = "SystemState";
constexpr char APP_PREFIX[] = "App";

// The letter is replaced by that of the drive in question.
constexpr char DRIVE_DIRECTORY[] = "C:\\tambdb";
constexpr char DRIVE_ROOT[] = "A:\\";

constexpr uint32_t DRIVE_BASE = 64; // the character code ahead of "A": drive A is number 1
constexpr uint32_t DRIVE_SHIFT = 24;
constexpr uint32_t QTREE_MASK = 0x00FFFFFF;
constexpr uint32_t DRIVE_LETTERS = 26;

// Text of a constant's size without its NUL.
template <uint32_t N>
constexpr uint32_t Length(const char (&)[N])
{
    return N - 1;
}

bool IsLowerCase(char c)
{
    return c >= 'a' && c <= 'z';
}

// "a" to "z" only: drive letters are ASCII, whatever the locale says of other bytes.
char UpperCase(char c)
{
    return IsLowerCase(c) ? static_cast<char>(c - 'a' + 'A') : c;
}

bool IsLetter(char c)
{
    c = UpperCase(c);
    return c >= 'A' && c <= 'Z';
}

// The database directory of a drive, from the pool; null without memory. The letter is not judged:
// a munged id may carry any byte, and then names a directory that is not there.
char* DriveDirectory(char letter)
{
    char* path = StrDuplicateIntoPool(DRIVE_DIRECTORY, MemGetDefaultPoolId());
    if (path)
        path[0] = letter;
    return path;
}

// The database directory that belongs to a path; null when none does, and without memory. The order
// of the tests counts: "SystemState" and "App" are looked for before a drive is.
char* DerivedPath(const char* path)
{
    if (StrCompareRangeNoCase(path, STATE_PREFIX, Length(STATE_PREFIX)) == 0) {
        char* pHome = nullptr;
        DbGetHomeDir(&pHome);
        return pHome;
    }
    if (StrCompareRangeNoCase(path, APP_PREFIX, Length(APP_PREFIX)) == 0)
        return nullptr;
    if (IsLetter(path[0]) && path[1] == ':')
        return DriveDirectory(UpperCase(path[0]));
    return nullptr;
}

// Appends a string object to the caller's list; drops it when the list does not take it.
void AppendPath(void* list, const char* path)
{
    void* text = ObjStringNew(path);
    ListPushLastItemInternal(list, &text);
    ObjReleaseInternal(&text);
}

// Appends the drive's database directory when the drive is fixed and has one.
void AppendDrive(void* list, char letter)
{
    char root[sizeof DRIVE_ROOT];
    std::memcpy(root, DRIVE_ROOT, sizeof root);
    root[0] = letter;
    const uint32_t type = gpDbDrives->getDriveType(root);
    DBCONFIG_TRACE(
        trace_level::NOTICE, "The drive type for drive %s is %d", root, static_cast<int32_t>(type));
    if (type == DB_DRIVE_UNKNOWN)
        DBCONFIG_TRACE_ERROR(
            trace_level::ALWAYS, "Failed to tell the type of drive %s; it is left out", root);
    if (type != DB_DRIVE_FIXED)
        return;

    char path[sizeof DRIVE_DIRECTORY];
    std::memcpy(path, DRIVE_DIRECTORY, sizeof path);
    path[0] = letter;
    const uint32_t kind = PathKind(path);
    if (kind == PATH_DIRECTORY) {
        DBCONFIG_TRACE(trace_level::NOTICE, "PathIsADirectory returned TRUE for %s", path);
        AppendPath(list, path);
    } else if (kind == PATH_UNKNOWN) {
        DBCONFIG_TRACE_ERROR(
            trace_level::ALWAYS, "Failed to tell whether %s is a directory; it is left out", path);
    } else {
        DBCONFIG_TRACE(trace_level::NOTICE, "PathIsADirectory returned FALSE for %s", path);
    }
}

} // namespace

NimBool DbGetHomeDir(char** ppDir)
{
    if (!ppDir)
        return FALSE;
    const HeldMemory<> byDefault(PathHomeBuild(HOME_NAME, 0));
    CfgGetString(ppDir, CONFIG_FILE, CONFIG_STANZA, CONFIG_KEY, byDefault.get());
    DBCONFIG_TRACE(trace_level::DETAIL, "Db home dir is %s", *ppDir);
    return TRUE;
}

uint32_t DbSetClusteredMode(uint32_t mode)
{
    gbDbClusteredMode = mode;
    return gbDbClusteredMode;
}

uint32_t DbGetClusteredMode(void)
{
    return gbDbClusteredMode;
}

NimBool DbGetClusterDerivedPath(const char* path, char** ppDbPath)
{
    char* pDerived = nullptr;
    if (path && ppDbPath)
        pDerived = DerivedPath(path);
    if (pDerived)
        *ppDbPath = pDerived;
    const NimBool lResult = pDerived ? TRUE : FALSE;
    DBCONFIG_TRACE(
        trace_level::DETAIL, "For path %s, retval is %s, db is %s", path,
        lResult ? "TRUE" : "FALSE", ppDbPath ? *ppDbPath : nullptr);
    return lResult;
}

uint32_t DbMungeQtreeIdFromDbPath(uint32_t qtreeId, const char* path)
{
    uint32_t mungedId = 0;
    if (path) {
        HeldMemory<> home;
        DbGetHomeDir(home.Out());
        if (!home) {
            DBCONFIG_TRACE_ERROR(
                trace_level::ALWAYS, "Failed to munge path %s: the home directory cannot be told",
                path);
        } else if (StrCompareNoCase(path, home.get()) != 0) {
            // Kept: a character below 64 wraps, and no more of the path than this is looked at.
            const uint32_t drive = static_cast<uint8_t>(UpperCase(path[0])) - DRIVE_BASE;
            mungedId = (drive << DRIVE_SHIFT) | (qtreeId & QTREE_MASK);
        }
    }
    DBCONFIG_TRACE(
        trace_level::DETAIL, "For path %s and qtree id %d 0x%x, the return value is 0x%x", path,
        static_cast<int32_t>(qtreeId), qtreeId, mungedId);
    return mungedId;
}

char* DbGetDbPathFromMungedQtreeId(int32_t mungedId)
{
    const int32_t drive = mungedId >> DRIVE_SHIFT; // keeps its sign
    if (drive != 0)
        return DriveDirectory(static_cast<char>(drive + static_cast<int32_t>(DRIVE_BASE)));
    char* pHome = nullptr;
    DbGetHomeDir(&pHome);
    return pHome;
}

void DbGetDbPathList(void* list, uint32_t includeHome)
{
    if (includeHome == TRUE) {
        HeldMemory<> home;
        if (DbGetHomeDir(home.Out()) && home)
            AppendPath(list, home.get());
    }

    uint32_t mask = gpDbDrives->getLogicalDrives();
    if (mask == 0) {
        // The line's error word carries the system's own error value.
        const uint32_t systemError = gpDbDrives->getLastError();
        NIM_TRACE(
            DBCONFIG_TAG, systemError, trace_level::ALWAYS,
            "GetLogicalDrives failed. Unable to enumerate drives");
        return;
    }
    for (uint32_t i = 0; i < DRIVE_LETTERS && mask != 0; ++i, mask >>= 1) {
        if (mask & 1)
            AppendDrive(list, static_cast<char>('A' + i));
    }
}
