// filesys.cpp: the calls of filesys.h.
//
// One handle is one File: the system's file, position, known length, mapping and what was reserved.
// Which number stands for which File is the table's business (filetable.h), how the mapping grows
// the mapping's (filemap.h), the system calls stand in sys.h.
//
// Invariants: the position is never negative; a byte is taken out of the mapping only when it lies
// inside the known length; the known length is never more than what the system, or our own write,
// has told.
#include "nim/filesys.h"

#include "filemap.h"
#include "filetable.h"
#include "memwide.h"
#include "nim/fault.h"
#include "refusal.h"
#include "sys.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>

struct File {
    intptr_t system;
    uint32_t access; // SYS_READ, SYS_WRITE
    int64_t position;
    int64_t length; // as far as known
    int64_t limit;  // how long the process may make it, as last asked for
    FileMapping mapping;
    int64_t reservedFrom; // disk space for [reservedFrom, reservedTo) has been reserved
    int64_t reservedTo;
    int64_t filledTo; // the disk is known to have room for all bytes of [0, filledTo)
    char* path;       // stands behind the struct
};

// How far ahead space is reserved: a call for each 16 blocks and not for each block.
constexpr int64_t RESERVE_STEP = int64_t{256} << 10;

constexpr uint32_t MODE_ACCESS = FILE_MODE_READ | FILE_MODE_EMPTY | FILE_MODE_WRITE;

static std::atomic<bool> gMapping{true};
static std::atomic<bool> gMappedWriting{false};

// ---- faults ----

// What a transfer of `size` bytes is to do, once the faults of a test have been asked.
struct FilePlan {
    uint32_t size; // bytes to move
    bool fails;    // and then to fail
};

static FilePlan FilePlanTransfer(uint32_t point, const char* path, uint32_t size)
{
    FaultStrike strike = {};
    if (!FaultStrikes(point, path, &strike))
        return {size, false};
    const uint32_t part = strike.count < size ? strike.count : size;
    switch (strike.mode) {
    case FAULT_FAIL_AFTER:
        return {part, true};
    case FAULT_FAIL_FULL:
        return {size, true};
    case FAULT_SHORT:
        return {part, false};
    default:
        return {0, true};
    }
}

// Whether a test wants to see every read.
static inline bool FileIsWatched()
{
#if defined(NIM_NO_FAULTS)
    return false;
#else
    return gFaultReads || gFileSysObserver;
#endif
}

#if !defined(NIM_NO_FAULTS)
uint32_t FileSysOpenCount(void)
{
    return FileTableCount();
}
#endif

// ---- opening and closing ----

void FileSysSetMapping(NimBool on)
{
    gMapping.store(on != 0, std::memory_order_relaxed);
}

void FileSysSetMappedWriting(NimBool on)
{
    gMappedWriting.store(on != 0, std::memory_order_relaxed);
}

// Whether a variable of the environment is set to anything but "0".
static bool FileIsAskedFor(const char* variable)
{
    char value[64];
    return SysGetEnvironment(variable, value, sizeof value) && strcmp(value, "0") != 0;
}

static bool FileMappingIsOn()
{
    return gMapping.load(std::memory_order_relaxed) && !FileIsAskedFor("NIM_NO_MAPPING");
}

static bool FileMappedWritingIsOn()
{
    return gMappedWriting.load(std::memory_order_relaxed) || FileIsAskedFor("NIM_MAPPED_WRITING");
}

static bool FileModeIsSound(uint32_t mode)
{
    return (mode & ~(MODE_ACCESS | FILE_MODE_CREATE)) == 0 && (mode & MODE_ACCESS) != 0;
}

static uint32_t FileModeFlags(uint32_t mode)
{
    uint32_t flags = 0;
    if (mode & FILE_MODE_READ)
        flags |= SYS_READ;
    if (mode & FILE_MODE_WRITE)
        flags |= SYS_WRITE;
    if (mode & FILE_MODE_CREATE)
        flags |= SYS_CREATE;
    if (mode & FILE_MODE_EMPTY)
        flags |= SYS_WRITE | SYS_CREATE;
    return flags;
}

// A File without a system's file. It is made first, and entered into the table, so that running out
// of memory or handles neither creates nor empties anything.
static File* FileNew(const char* path)
{
    const size_t length = strlen(path);
    File* file = static_cast<File*>(MemAllocateWide(sizeof(File) + length + 1));
    if (file) {
        file->system = SYS_NO_FILE;
        file->path = reinterpret_cast<char*>(file + 1);
        memcpy(file->path, path, length + 1);
    }
    return file;
}

// Asks the system for the length. A file that has become shorter has given back its reserved space.
static bool FileAskLength(File* file)
{
    int64_t length;
    if (!SysFileLength(&length, file->system)) {
        TraceRefusal(__LINE__, SysLastError(), "ask for the length of", file->path);
        return false;
    }
    if (length < file->length) {
        file->reservedFrom = file->reservedTo = 0;
        file->filledTo = std::min(file->filledTo, length);
    }
    file->length = length;
    return true;
}

// The bytes that a file has go last, when nothing else can refuse the open any more.
static bool FileEmpty(File* file)
{
    if (file->length > 0 && !SysFileEmpty(file->system)) {
        TraceRefusal(__LINE__, SysLastError(), "empty", file->path);
        return false;
    }
    file->length = 0;
    return true;
}

static bool FileOpenSystem(File* file, uint32_t mode)
{
    const uint32_t flags = FileModeFlags(mode);
    if (FaultFails(FAULT_OPEN, file->path))
        return false;
    if (!SysFileOpen(&file->system, file->path, flags)) {
        if (flags & SYS_CREATE)
            TraceRefusal(__LINE__, SysLastError(), "open", file->path);
        else
            TraceRefusalUnlessAbsent(__LINE__, SysLastError(), "open", file->path);
        return false;
    }
    file->access = flags & (SYS_READ | SYS_WRITE);
    file->mapping.allowed = (flags & SYS_READ) && FileMappingIsOn();
    file->mapping.writable = (flags & SYS_WRITE) && FileMappedWritingIsOn();
    file->limit = flags & SYS_WRITE ? SysFileLimit() : INT64_MAX;
    if (!FileAskLength(file) || ((mode & FILE_MODE_EMPTY) && !FileEmpty(file))) {
        SysFileClose(file->system);
        return false;
    }
    return true;
}

NimBool FileSysOpen(void** handle, const char* path, uint32_t mode)
{
    if (!handle)
        return FALSE;
    *handle = FILE_NONE;
    if (!path || !*path || !FileModeIsSound(mode))
        return FALSE;
    File* file = FileNew(path);
    if (!file)
        return FALSE;
    void* entered = FileTableAdd(file);
    const bool good = entered != FILE_NONE && FileOpenSystem(file, mode);
    FileSysObserve(FILE_OP_OPEN, path, 0, 0, good);
    if (good) {
        *handle = entered;
        return TRUE;
    }
    FileTableRemove(entered);
    MemFree(file);
    return FALSE;
}

NimBool FileSysClose(void** handle)
{
    if (!handle)
        return FALSE;
    File* file = FileTableRemove(*handle);
    *handle = FILE_NONE;
    if (!file)
        return FALSE;
    // A failing close has let go of the file as well.
    const bool struck = FaultFails(FAULT_CLOSE, file->path);
    FileMapRelease(&file->mapping);
    bool good = SysFileClose(file->system);
    if (!good)
        TraceRefusal(__LINE__, SysLastError(), "close", file->path);
    good = good && !struck;
    FileSysObserve(FILE_OP_CLOSE, file->path, 0, 0, good);
    MemFree(file);
    return good;
}

// ---- position and length ----

NimBool FileSysSeekStart(void* handle)
{
    File* file = FileTableFind(handle);
    if (!file || FaultFails(FAULT_SEEKSTART, file->path))
        return FALSE;
    file->position = 0;
    return TRUE;
}

NimBool FileSysSeekEnd(void* handle)
{
    File* file = FileTableFind(handle);
    if (!file || FaultFails(FAULT_SEEKEND, file->path) || !FileAskLength(file))
        return FALSE;
    file->position = file->length;
    return TRUE;
}

NimBool FileSysSeek(void* handle, int64_t offset)
{
    File* file = FileTableFind(handle);
    if (!file || FaultFails(FAULT_SEEK, file->path) || offset < 0)
        return FALSE;
    file->position = offset;
    return TRUE;
}

NimBool FileSysSkip(void* handle, uint32_t count)
{
    File* file = FileTableFind(handle);
    if (!file || FaultFails(FAULT_SKIP, file->path) || file->position > INT64_MAX - count)
        return FALSE;
    file->position += count;
    return TRUE;
}

NimBool FileSysGetOffset(int64_t* offset, void* handle)
{
    if (!offset)
        return FALSE;
    *offset = 0;
    File* file = FileTableFind(handle);
    if (!file || FaultFails(FAULT_GETOFFSET, file->path))
        return FALSE;
    *offset = file->position;
    return TRUE;
}

NimBool FileSysGetLength(int64_t* length, void* handle)
{
    if (!length)
        return FALSE;
    *length = 0;
    File* file = FileTableFind(handle);
    if (!file)
        return FALSE;
    *length = file->length;
    return TRUE;
}

// ---- reading ----

// Reads until the bytes are there, the file ends or the system fails.
static bool FileReadPositioned(uint32_t* count, File* file, void* buffer, uint32_t size)
{
    const int64_t offset = file->position;
    bool good = true;
    while (*count < size) {
        size_t moved = 0;
        good = SysFileRead(
            &moved, file->system, static_cast<uint8_t*>(buffer) + *count, size - *count,
            offset + *count);
        if (!good)
            TraceRefusal(__LINE__, SysLastError(), "read", file->path);
        *count += static_cast<uint32_t>(moved);
        if (!good || moved == 0)
            break;
    }
    if (*count > 0 && offset + *count > file->length)
        file->length = offset + *count;
    return good;
}

// Reads at the position, which it does not move. *count is 0 on entry.
static bool FileReadBytes(uint32_t* count, File* file, void* buffer, uint32_t size)
{
    const int64_t offset = file->position;
    if (size > static_cast<uint64_t>(INT64_MAX - offset))
        size = static_cast<uint32_t>(INT64_MAX - offset); // no file has bytes there
    if (size == 0)
        return true;
    int64_t end = offset + size;
    if (!file->mapping.allowed || (end > file->length && !FileAskLength(file)))
        return FileReadPositioned(count, file, buffer, size);
    if (end > file->length)
        end = file->length; // the file ends before
    if (end <= offset)
        return true;
    if (!FileMapReaches(&file->mapping, file->system, file->length, end))
        return FileReadPositioned(count, file, buffer, static_cast<uint32_t>(end - offset));
    *count = static_cast<uint32_t>(end - offset);
    memcpy(buffer, file->mapping.bytes + offset, *count);
    return true;
}

NimBool FileSysRead(uint32_t* count, void* handle, void* buffer, uint32_t size)
{
    if (!count)
        return FALSE;
    *count = 0;
    File* file = FileTableFind(handle);
    if (!file || !(file->access & SYS_READ) || (!buffer && size > 0))
        return FALSE;
    const FilePlan plan = FilePlanTransfer(FAULT_READ, file->path, size);
    const int64_t offset = file->position;
    const bool good = FileReadBytes(count, file, buffer, plan.size) && !plan.fails;
    file->position = offset + *count;
    FileSysObserve(FILE_OP_READ, file->path, offset, size, *count);
    return good;
}

NimBool FileSysView(const void** view, void* handle, int64_t offset, uint32_t size)
{
    if (!view)
        return FALSE;
    *view = nullptr;
    File* file = FileTableFind(handle);
    if (!file || !file->mapping.allowed || offset < 0 || size == 0 || offset > INT64_MAX - size ||
        FileIsWatched())
        return FALSE;
    const int64_t end = offset + size;
    if (end > file->length && (!FileAskLength(file) || end > file->length))
        return FALSE;
    if (!FileMapReaches(&file->mapping, file->system, file->length, end))
        return FALSE;
    *view = file->mapping.bytes + offset;
    return TRUE;
}

// ---- writing ----

// Where the host has asked for it, bytes inside the file are stored through the mapping. A page
// without room on the disk would make that a signal, so holes are filled up first: all of the file
// once, and from then on what is written behind its end, which takes its room with it.
static bool FileMayStore(File* file, int64_t offset, uint32_t size)
{
    const int64_t end = offset + size;
    if (!file->mapping.writable || !file->mapping.allowed || size == 0 || end > file->length ||
        !FileMapReaches(&file->mapping, file->system, file->length, end))
        return false;
    if (end > file->filledTo) {
        if (!SysFileFillHoles(file->system, file->filledTo, file->length - file->filledTo)) {
            file->mapping.writable = false; // every write is a system call from now on
            return false;
        }
        file->filledTo = file->length;
    }
    return true;
}

// How many of `size` bytes at `offset` the process may write. The limit is asked for anew when the
// file would grow; inside the file what was asked for last will do, since hosts do not lower it
// between two writes, and asking costs a call.
static size_t FileWithinLimit(File* file, size_t size, int64_t offset)
{
    const int64_t end = offset + static_cast<int64_t>(size);
    if (end > file->length)
        file->limit = SysFileLimit();
    if (end <= file->limit)
        return size;
    return offset < file->limit ? static_cast<size_t>(file->limit - offset) : 0;
}

// One transfer. False when nothing could be written: no progress would be no end.
static bool
FileWriteOnce(size_t* moved, File* file, const void* buffer, size_t size, int64_t offset)
{
    const size_t allowed = FileWithinLimit(file, size, offset);
    if (allowed == 0) {
        TraceLimit(__LINE__, file->path, file->limit);
        return false;
    }
    if (SysFileWrite(moved, file->system, buffer, allowed, offset) && *moved > 0)
        return true;
    TraceRefusal(__LINE__, SysLastError(), "write", file->path);
    return false;
}

// Writes all bytes at the position, which it does not move. *count is 0 on entry.
static bool FileWriteBytes(uint32_t* count, File* file, const void* buffer, uint32_t size)
{
    const int64_t offset = file->position;
    if (size > static_cast<uint64_t>(INT64_MAX - offset))
        return false;
    if (FileMayStore(file, offset, size)) {
        memcpy(const_cast<uint8_t*>(file->mapping.bytes) + offset, buffer, size);
        *count = size;
        return true;
    }
    bool good = true;
    while (good && *count < size) {
        size_t moved = 0;
        good = FileWriteOnce(
            &moved, file, static_cast<const uint8_t*>(buffer) + *count, size - *count,
            offset + *count);
        *count += static_cast<uint32_t>(moved);
    }
    if (offset <= file->filledTo && file->filledTo < offset + *count)
        file->filledTo = offset + *count;
    if (*count > 0 && offset + *count > file->length)
        file->length = offset + *count;
    return good;
}

NimBool FileSysWrite(uint32_t* count, void* handle, const void* buffer, uint32_t size)
{
    if (!count)
        return FALSE;
    *count = 0;
    File* file = FileTableFind(handle);
    if (!file || !(file->access & SYS_WRITE) || (!buffer && size > 0))
        return FALSE;
    const FilePlan plan = FilePlanTransfer(FAULT_WRITE, file->path, size);
    const int64_t offset = file->position;
    const bool good = FileWriteBytes(count, file, buffer, plan.size) && !plan.fails;
    file->position = offset + *count;
    FileSysObserve(FILE_OP_WRITE, file->path, offset, size, *count);
    return good;
}

// Reserves up to `end`, and further when the disk has that much: what is refused ahead may still be
// there for the caller.
static bool FileReserveBytes(File* file, int64_t offset, int64_t end)
{
    const bool follows = file->reservedFrom <= offset && offset <= file->reservedTo;
    if (follows && end <= file->reservedTo)
        return true;
    const int64_t from = follows ? file->reservedTo : offset;
    int64_t to = end;
    if (end - from < RESERVE_STEP && from <= INT64_MAX - RESERVE_STEP)
        to = from + RESERVE_STEP;
    if (!SysFileReserve(file->system, from, to - from)) {
        if (to == end || !SysFileReserve(file->system, from, end - from)) {
            TraceRefusal(__LINE__, SysLastError(), "reserve room for", file->path);
            return false;
        }
        to = end;
    }
    if (!follows)
        file->reservedFrom = from;
    file->reservedTo = to;
    return true;
}

NimBool FileSysReserve(void* handle, int64_t offset, uint32_t size)
{
    File* file = FileTableFind(handle);
    if (!file || !(file->access & SYS_WRITE) || offset < 0 || offset > INT64_MAX - size)
        return FALSE;
    const bool good = !FaultFails(FAULT_RESERVE, file->path) &&
                      (size == 0 || FileReserveBytes(file, offset, offset + size));
    FileSysObserve(FILE_OP_RESERVE, file->path, offset, size, good ? size : 0);
    return good;
}
