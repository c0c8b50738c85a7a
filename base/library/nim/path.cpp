// path.cpp: building paths and asking what stands at one.
//
// The home directory that a host sets is kept in fixed memory, so that it neither counts as a leak
// nor can run out of memory; everything handed out comes from the default pool.
#include "nim/path.h"

#include "memwide.h"
#include "nim/fault.h"
#include "nim/str.h"
#include "refusal.h"
#include "spinlock.h"
#include "sys.h"

#include <cstring>

// The longest path a system takes (Windows, in its long form), with its end.
constexpr size_t PATH_ROOM = 32768;

static char gHome[PATH_ROOM]; // "" = not set
static SpinLock gHomeLock;

char* PathBuild(const char* directory, const char* name, uint32_t)
{
    const uint32_t pool = MemGetDefaultPoolId();
    if (!directory || !*directory)
        return StrDuplicateIntoPool(name ? name : directory, pool);
    if (!name)
        return StrDuplicateIntoPool(directory, pool);

    const size_t first = strlen(directory);
    const size_t second = strlen(name);
    char* path = static_cast<char*>(MemAllocateWideUncleared(uint64_t{first} + second + 2));
    if (!path)
        return nullptr;
    MemCopy(path, directory, static_cast<uint32_t>(first));
    char* end = path + first;
    if (!SysIsSeparator(end[-1]))
        *end++ = SysSeparator();
    memcpy(end, name, second + 1);
    return path;
}

// The home as it stands now. "." when the system tells nothing: names then stay relative.
static void PathGetHome(char* home)
{
    {
        SpinLockGuard lock(gHomeLock);
        if (gHome[0]) {
            memcpy(home, gHome, strlen(gHome) + 1);
            return;
        }
    }
    if (SysGetEnvironment("NIM_HOME", home, PATH_ROOM) && home[0])
        return;
    if (!SysProgramDirectory(home, PATH_ROOM))
        memcpy(home, ".", 2);
}

char* PathHomeBuild(const char* name, uint32_t reserved)
{
    char home[PATH_ROOM];
    PathGetHome(home);
    return PathBuild(home, name, reserved);
}

NimBool PathSetHome(const char* directory)
{
    const size_t length = directory ? strlen(directory) : 0;
    if (length >= PATH_ROOM)
        return FALSE;
    SpinLockGuard lock(gHomeLock);
    if (length > 0)
        memmove(gHome, directory, length);
    gHome[length] = 0;
    return TRUE;
}

NimBool PathCreateDirectory(const char* path)
{
    if (!path || !*path || FaultFails(FAULT_MKDIR, path))
        return FALSE;
    if (SysMakeDirectory(path))
        return TRUE;
    const uint32_t reason = SysLastError();
    if (SysPathKind(path) == SYS_DIRECTORY)
        return TRUE;
    TraceRefusal(__LINE__, reason, "make the directory", path);
    return FALSE;
}

uint32_t PathKind(const char* path)
{
    if (!path || !*path)
        return PATH_ABSENT;
    if (FaultFails(FAULT_EXISTS, path))
        return PATH_UNKNOWN;
    switch (SysPathKind(path)) {
    case SYS_ABSENT:
        return PATH_ABSENT;
    case SYS_DIRECTORY:
        return PATH_DIRECTORY;
    case SYS_OTHER:
        return PATH_FILE;
    default:
        TraceRefusal(__LINE__, SysLastError(), "ask what stands at", path);
        return PATH_UNKNOWN;
    }
}

NimBool PathIsADirectory(const char* path)
{
    return PathKind(path) == PATH_DIRECTORY;
}

NimBool FileExists(const char* path)
{
    return PathKind(path) == PATH_FILE;
}
