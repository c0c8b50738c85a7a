// sys_posix.cpp: the platform interface on Linux.
//
// Thin covers of the system calls: interruptions are retried here, partial transfers are left to
// the caller. Nothing traces, takes memory from a pool or keeps state.
#include "sys.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

// Offsets past 4 GiB and mappings larger than memory are taken for granted.
static_assert(sizeof(off_t) == 8 && sizeof(size_t) == 8, "64-bit Linux");

// ---- files ----

bool SysFileOpen(intptr_t* file, const char* path, uint32_t flags)
{
    *file = SYS_NO_FILE;
    // Not blocking, so that a pipe that lies about cannot stop the process; files do not care.
    int how = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    if ((flags & SYS_READ) && (flags & SYS_WRITE))
        how |= O_RDWR;
    else if (flags & (SYS_WRITE | SYS_APPEND))
        how |= O_WRONLY;
    else
        how |= O_RDONLY;
    if (flags & SYS_CREATE)
        how |= O_CREAT;
    if (flags & SYS_APPEND)
        how |= O_APPEND;

    int descriptor;
    do {
        descriptor = open(path, how, 0666);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0)
        return false;

    // A directory opens for reading; a pipe or a socket has no offsets.
    struct stat status;
    int refusal = 0;
    if (fstat(descriptor, &status) != 0)
        refusal = errno;
    else if (S_ISDIR(status.st_mode))
        refusal = EISDIR;
    else if (!(S_ISREG(status.st_mode) || S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)))
        refusal = ESPIPE;
    if (refusal != 0) {
        close(descriptor);
        errno = refusal;
        return false;
    }
    *file = descriptor;
    return true;
}

bool SysFileClose(intptr_t file)
{
    // Not repeated after an interruption: the descriptor is gone by then, and its number may belong
    // to another thread's file already.
    return close(static_cast<int>(file)) == 0 || errno == EINTR;
}

bool SysFileRead(size_t* moved, intptr_t file, void* buffer, size_t size, int64_t offset)
{
    ssize_t result;
    do {
        result = pread(static_cast<int>(file), buffer, size, offset);
    } while (result < 0 && errno == EINTR);
    *moved = result > 0 ? static_cast<size_t>(result) : 0;
    return result >= 0;
}

bool SysFileWrite(size_t* moved, intptr_t file, const void* buffer, size_t size, int64_t offset)
{
    ssize_t result;
    do {
        result = pwrite(static_cast<int>(file), buffer, size, offset);
    } while (result < 0 && errno == EINTR);
    *moved = result > 0 ? static_cast<size_t>(result) : 0;
    return result >= 0;
}

// The signal for a file that would become too long goes to the thread that writes, so that this
// thread alone can hold it off and take it back: the host's disposition stays what it is, and no
// other thread is concerned. Comparing with the limit is not enough where others append, too.
class NoLimitSignal {
  public:
    NoLimitSignal()
    {
        sigset_t pending;
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGXFSZ);
        sigpending(&pending);
        held_ = sigismember(&pending, SIGXFSZ) == 0 &&
                pthread_sigmask(SIG_BLOCK, &signal_, &former_) == 0;
    }
    ~NoLimitSignal()
    {
        if (!held_)
            return;
        const int reason = errno;
        const timespec now = {};
        while (sigtimedwait(&signal_, nullptr, &now) < 0 && errno == EINTR)
            ;
        pthread_sigmask(SIG_SETMASK, &former_, nullptr);
        errno = reason;
    }
    NoLimitSignal(const NoLimitSignal&) = delete;
    NoLimitSignal& operator=(const NoLimitSignal&) = delete;

  private:
    sigset_t signal_;
    sigset_t former_;
    bool held_;
};

static bool SysAppendNow(size_t* moved, intptr_t file, const void* buffer, size_t size)
{
    ssize_t result;
    do {
        result = write(static_cast<int>(file), buffer, size);
    } while (result < 0 && errno == EINTR);
    *moved = result > 0 ? static_cast<size_t>(result) : 0;
    return result >= 0;
}

bool SysFileAppend(size_t* moved, intptr_t file, const void* buffer, size_t size)
{
    *moved = 0;
    const int64_t limit = SysFileLimit();
    if (limit == INT64_MAX)
        return SysAppendNow(moved, file, buffer, size);
    // All of it or nothing: half a line helps nobody.
    int64_t length;
    if (!SysFileLength(&length, file))
        return false;
    if (length > limit || size > static_cast<uint64_t>(limit - length)) {
        errno = EFBIG;
        return false;
    }
    const NoLimitSignal quiet;
    return SysAppendNow(moved, file, buffer, size);
}

bool SysFileLength(int64_t* length, intptr_t file)
{
    struct stat status;
    if (fstat(static_cast<int>(file), &status) != 0) {
        *length = 0;
        return false;
    }
    *length = status.st_size;
    return true;
}

bool SysFileEmpty(intptr_t file)
{
    int result;
    do {
        result = ftruncate(static_cast<int>(file), 0);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

int64_t SysFileLimit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur > uint64_t{INT64_MAX})
        return INT64_MAX; // RLIM_INFINITY, too
    return static_cast<int64_t>(limit.rlim_cur);
}

// Without changing the length. False with errno.
static bool SysAllocate(intptr_t file, int64_t offset, int64_t size)
{
    int result;
    do {
        result = fallocate(static_cast<int>(file), FALLOC_FL_KEEP_SIZE, offset, size);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool SysFileReserve(intptr_t file, int64_t offset, int64_t size)
{
    // A reservation does not change the length, so the system lets it pass; the write would be
    // refused.
    if (offset + size > SysFileLimit()) {
        errno = EFBIG;
        return false;
    }
    if (SysAllocate(file, offset, size))
        return true;
    switch (errno) {
    case EOPNOTSUPP: // the file system has no such call
    case ENOSYS:     // the kernel has none
    case EINVAL:     // the file system knows the call, but not for this kind of file
    case ENODEV:     // no regular file
    case ESPIPE:
    case EPERM: // a sandbox that forbids the call
        return true;
    default: // ENOSPC, EDQUOT, EFBIG, EIO ...
        return false;
    }
}

// Whether the disk has room for so many bytes; true, too, when it does not tell.
static bool SysHasRoom(int descriptor, int64_t size)
{
    struct statvfs disk;
    if (fstatvfs(descriptor, &disk) != 0 || disk.f_frsize == 0)
        return true;
    return disk.f_bavail >= static_cast<uint64_t>(size) / disk.f_frsize;
}

bool SysFileFillHoles(intptr_t file, int64_t offset, int64_t size)
{
    // Asked for more than there is, the system would fill the disk before it says so.
    constexpr int64_t BLOCK = 512; // of st_blocks, whatever the disk's own
    struct stat status;
    if (fstat(static_cast<int>(file), &status) == 0) {
        const int64_t there = std::min<int64_t>(status.st_blocks * BLOCK, offset + size);
        if (!SysHasRoom(static_cast<int>(file), std::min(size, offset + size - there)))
            return false;
    }
    return SysAllocate(file, offset, size);
}

bool SysMapPastEnd()
{
    return true;
}

bool SysMap(void** address, intptr_t file, size_t size, bool writable)
{
    const int access = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void* mapped = mmap(nullptr, size, access, MAP_SHARED, static_cast<int>(file), 0);
    *address = mapped == MAP_FAILED ? nullptr : mapped;
    return *address != nullptr;
}

void SysUnmap(void* address, size_t size)
{
    munmap(address, size);
}

// ---- directories and names ----

bool SysMakeDirectory(const char* path)
{
    return mkdir(path, 0777) == 0;
}

SysKind SysPathKind(const char* path)
{
    struct stat status;
    if (stat(path, &status) == 0)
        return S_ISDIR(status.st_mode) ? SYS_DIRECTORY : SYS_OTHER;
    return errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG ? SYS_ABSENT : SYS_UNKNOWN;
}

bool SysScan(const char* directory, SysNameCallback f, void* context)
{
    DIR* stream = opendir(directory);
    if (!stream)
        return false;
    bool good = true;
    while (good) {
        errno = 0;
        const dirent* entry = readdir(stream);
        if (!entry) {
            good = errno == 0;
            break;
        }
        const char* name = entry->d_name;
        if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0)
            good = f(context, name);
    }
    const int reason = errno;
    closedir(stream);
    errno = reason;
    return good;
}

bool SysReplaceFile(const char* from, const char* to)
{
    return rename(from, to) == 0;
}

bool SysRemoveFile(const char* path)
{
    return unlink(path) == 0;
}

char SysSeparator()
{
    return '/';
}

bool SysIsSeparator(char c)
{
    return c == '/';
}

bool SysIsAbsolute(const char* path)
{
    return path[0] == '/';
}

bool SysProgramDirectory(char* buffer, size_t size)
{
    const ssize_t length = readlink("/proc/self/exe", buffer, size);
    if (length <= 0 || static_cast<size_t>(length) >= size)
        return false;
    buffer[length] = 0;
    char* end = strrchr(buffer, '/');
    if (!end)
        return false;
    if (end == buffer)
        ++end; // a program in the root: "/" stays
    *end = 0;
    return true;
}

// ---- drives ----

// A system without drive letters: no drive and no error.
uint32_t SysDriveLetters()
{
    SysForgetError();
    return 0;
}

uint32_t SysDriveType(const char*)
{
    return 0;
}

// ---- reasons ----

uint32_t SysLastError()
{
    return static_cast<uint32_t>(errno);
}

void SysForgetError()
{
    errno = 0;
}

bool SysErrorMeansAbsent(uint32_t error)
{
    return error == ENOENT || error == ENOTDIR;
}

void SysErrorText(char* buffer, size_t size, uint32_t error)
{
    // Not strerror, whose words follow the locale of the host.
    const char* text = error != 0 ? strerrordesc_np(static_cast<int>(error)) : nullptr;
    if (text)
        snprintf(buffer, size, "%s (%u)", text, error);
    else if (error != 0)
        snprintf(buffer, size, "error %u", error);
    else
        snprintf(buffer, size, "the system gives no reason");
}

// ---- process ----

bool SysGetEnvironment(const char* name, char* buffer, size_t size)
{
    const char* value = getenv(name);
    if (!value)
        return false;
    const size_t length = strlen(value);
    if (length >= size)
        return false;
    memcpy(buffer, value, length + 1);
    return true;
}

uint64_t SysRandom()
{
    uint64_t value = 0;
    if (getrandom(&value, sizeof value, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof value))
        return value;
    // Before the kernel has gathered entropy, or where the call is forbidden: what differs between
    // processes, stirred so that every bit depends on every input bit.
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    value = static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
    value ^= static_cast<uint64_t>(getpid()) << 40;
    value ^= reinterpret_cast<uintptr_t>(&now);
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9u;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebu;
    return value ^ (value >> 31);
}

static void SysWriteError(const char* text, size_t size)
{
    while (size > 0) {
        const ssize_t moved = write(STDERR_FILENO, text, size);
        if (moved < 0 && errno == EINTR)
            continue;
        if (moved <= 0)
            return;
        text += moved;
        size -= static_cast<size_t>(moved);
    }
}

void SysWriteStandardError(const char* text, size_t size)
{
    if (SysFileLimit() == INT64_MAX) {
        SysWriteError(text, size);
        return;
    }
    const NoLimitSignal quiet; // it may have been led to a file
    SysWriteError(text, size);
}

void SysEndProcess(uint32_t)
{
    abort(); // the signal leaves a core file where the machine wants one; a code says less
}

void SysYield()
{
    sched_yield();
}
