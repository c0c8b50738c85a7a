// sys_win32.cpp: the platform interface on Windows.
//
// Paths are UTF-8 outside and UTF-16 here. They are made whole (drive, directory, back slashes)
// before use, and those that pass the old limit of 260 characters get the prefix that lifts it.
// Nothing traces, takes memory from a pool or keeps state; the buffers stand on the stack, since no
// path and no variable of the environment is longer than 32,767 characters.
//
// A name means one file here, or it is refused. Windows has several names for a file: without the
// dots at its end, in 8.3 form, in another case, before a colon (a stream beside the file's bytes);
// and names in every directory that are no files (NUL). Two tables under two names of one file
// would write over each other, and what is written to a device is gone.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#define _CRT_RAND_S
#if !defined(_WIN32_WINNT)
#define _WIN32_WINNT 0x0A00
#endif
#include "sys.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

constexpr DWORD WIDE_ROOM = 32768;
// Of it for a path made whole: the size in bytes goes through 16 bits on its way to the directories
// of drives ("H:name"), and would be 0 for all of it.
constexpr DWORD WHOLE_ROOM = WIDE_ROOM - 1;
// Directories are limited to 12 characters less than files, for the names to be made in them.
constexpr DWORD LONG_PATH = MAX_PATH - 12;
// One transfer; far below what the 32-bit count of the calls can hold.
constexpr size_t TRANSFER_MOST = size_t{1} << 30;
// Longer files are read, not mapped: the system keeps 8 bytes for each page of a view, 128 MiB for
// one of this size.
constexpr uint64_t MAP_MOST = uint64_t{64} << 30;
// Virus scanners, indexers and backups hold a file for a moment and let nobody else at it: asked
// again after 10, 20, 40 ... milliseconds, a third of a second in all.
constexpr DWORD FIRST_WAIT = 10;
constexpr DWORD LAST_WAIT = 160;

namespace {

bool IsSeparator(wchar_t c)
{
    return c == L'\\' || c == L'/';
}

// \\?\ or \\.\ ahead of a path, with separators of either kind.
bool HasDevicePrefix(const wchar_t* path)
{
    return IsSeparator(path[0]) && IsSeparator(path[1]) && (path[2] == L'?' || path[2] == L'.') &&
           IsSeparator(path[3]);
}

// Whether a name on the path ends in a dot, or the last one in a blank: the system would drop it
// and go to another file. "." and ".." are directories.
bool HasDroppedEnd(const wchar_t* path)
{
    if (path[0] && path[1] == L':')
        path += 2;
    const wchar_t* name = path;
    for (const wchar_t* p = path;; ++p) {
        if (*p && !IsSeparator(*p))
            continue;
        const size_t length = static_cast<size_t>(p - name);
        const bool walk =
            (length == 1 && name[0] == L'.') || (length == 2 && name[0] == L'.' && name[1] == L'.');
        if (length > 0 && !walk && (p[-1] == L'.' || (*p == 0 && p[-1] == L' ')))
            return true;
        if (*p == 0)
            return false;
        name = p + 1;
    }
}

// Whether a whole path names a stream beside the bytes of a file: a colon that is not the drive's.
bool NamesAStream(const wchar_t* whole)
{
    if (wcsncmp(whole, L"\\\\?\\", 4) == 0)
        whole += 4;
    const bool drive = whole[0] && whole[1] == L':';
    return wcschr(drive ? whole + 2 : whole, L':') != nullptr;
}

// A path as the wide-character calls take it.
class WidePath {
  public:
    explicit WidePath(const char* path, const wchar_t* tail = L"");
    // Null when the path is no UTF-8, too long, or does not name the one file that it seems to.
    const wchar_t* Text() const
    {
        if (!text_)
            SetLastError(ERROR_INVALID_NAME);
        return text_;
    }

  private:
    static constexpr DWORD PREFIX_ROOM = 8; // for \\?\UNC\ ahead of the path
    wchar_t room_[PREFIX_ROOM + WIDE_ROOM];
    wchar_t* text_ = nullptr;
};

WidePath::WidePath(const char* path, const wchar_t* tail)
{
    wchar_t given[WIDE_ROOM];
    const int length =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path, -1, given, WIDE_ROOM);
    if (length <= 1)
        return; // "" names nothing
    wchar_t* whole = room_ + PREFIX_ROOM;
    DWORD size = GetFullPathNameW(given, WHOLE_ROOM, whole, nullptr);
    const size_t tailSize = wcslen(tail);
    if (size == 0 || size + tailSize >= WHOLE_ROOM)
        return;
    if (wcsncmp(whole, L"\\\\.\\", 4) == 0) {
        // "NUL" is a device, and so it is in every directory, where a file is meant.
        if (!HasDevicePrefix(given) && wcspbrk(given, L"\\/:"))
            return;
    } else if (NamesAStream(whole) || (!HasDevicePrefix(given) && HasDroppedEnd(given))) {
        return;
    }
    if (tailSize > 0 && whole[size - 1] == L'\\')
        ++tail; // it begins with a separator of its own
    wcscpy(whole + size, tail);
    size += static_cast<DWORD>(wcslen(tail));

    text_ = whole;
    const bool device = wcsncmp(whole, L"\\\\?\\", 4) == 0 || wcsncmp(whole, L"\\\\.\\", 4) == 0;
    if (size < LONG_PATH || device)
        return;
    if (wcsncmp(whole, L"\\\\", 2) == 0) {
        text_ = whole - 6; // \\server\share becomes \\?\UNC\server\share
        wmemcpy(text_, L"\\\\?\\UNC\\", 8);
    } else {
        text_ = whole - 4;
        wmemcpy(text_, L"\\\\?\\", 4);
    }
}

bool ToUtf8(const wchar_t* text, char* buffer, size_t size)
{
    const int room = size < INT_MAX ? static_cast<int>(size) : INT_MAX;
    return WideCharToMultiByte(CP_UTF8, 0, text, -1, buffer, room, nullptr, nullptr) > 0;
}

HANDLE Handle(intptr_t file)
{
    return reinterpret_cast<HANDLE>(file);
}

// As long as it lives, a drive without a medium is a result and not a window that asks for one.
class NoQuestions {
  public:
    NoQuestions() { SetThreadErrorMode(SEM_FAILCRITICALERRORS, &former_); }
    ~NoQuestions() { SetThreadErrorMode(former_, nullptr); }
    NoQuestions(const NoQuestions&) = delete;
    NoQuestions& operator=(const NoQuestions&) = delete;

  private:
    DWORD former_ = 0;
};

// Waits before the next try, longer each time; false when it has been tried long enough.
bool WaitForOthers(DWORD* pWait)
{
    if (*pWait > LAST_WAIT)
        return false;
    Sleep(*pWait);
    *pWait *= 2;
    return true;
}

// Whether two names differ in the case of A to Z at most.
bool IsSameName(const wchar_t* a, const wchar_t* b)
{
    const auto fold = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? c - L'A' + L'a' : int{c}; };
    while (*a && fold(*a) == fold(*b)) {
        ++a;
        ++b;
    }
    return *a == *b;
}

// Whether what stands at the path is called otherwise there: by its long name, or with letters that
// are folded by the system only. The library takes these for names of different files.
bool IsAnotherName(const wchar_t* path)
{
    WIN32_FIND_DATAW entry;
    const HANDLE scan =
        FindFirstFileExW(path, FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr, 0);
    if (scan == INVALID_HANDLE_VALUE)
        return false;
    FindClose(scan);
    const wchar_t* separator = wcsrchr(path, L'\\');
    return separator && !IsSameName(separator + 1, entry.cFileName);
}

OVERLAPPED At(int64_t offset)
{
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return place;
}

} // namespace

// ---- files ----

bool SysFileOpen(intptr_t* file, const char* path, uint32_t flags)
{
    *file = SYS_NO_FILE;
    const WidePath wide(path);
    const NoQuestions quiet;
    if (!wide.Text())
        return false;
    if ((flags & (SYS_WRITE | SYS_APPEND)) && IsAnotherName(wide.Text())) {
        SetLastError(ERROR_INVALID_NAME);
        return false;
    }
    DWORD access = 0;
    if (flags & SYS_READ)
        access |= GENERIC_READ;
    if (flags & SYS_WRITE)
        access |= GENERIC_WRITE;
    // Without the right to write elsewhere every write goes behind the end, in one step.
    if (flags & SYS_APPEND)
        access |= FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    const DWORD how = flags & SYS_CREATE ? OPEN_ALWAYS : OPEN_EXISTING;
    // Without the flag for backups a directory does not open. Without security attributes the
    // handle is not inherited.
    HANDLE handle;
    DWORD wait = FIRST_WAIT;
    do {
        handle = CreateFileW(
            wide.Text(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
            how, FILE_ATTRIBUTE_NORMAL, nullptr);
    } while (handle == INVALID_HANDLE_VALUE && GetLastError() == ERROR_SHARING_VIOLATION &&
             WaitForOthers(&wait));
    if (handle == INVALID_HANDLE_VALUE)
        return false;
    const DWORD type = GetFileType(handle);
    if (type != FILE_TYPE_DISK && type != FILE_TYPE_CHAR) { // a pipe has no offsets
        CloseHandle(handle);
        SetLastError(ERROR_SEEK_ON_DEVICE);
        return false;
    }
    *file = reinterpret_cast<intptr_t>(handle);
    return true;
}

bool SysFileClose(intptr_t file)
{
    return CloseHandle(Handle(file)) != 0;
}

bool SysFileRead(size_t* moved, intptr_t file, void* buffer, size_t size, int64_t offset)
{
    OVERLAPPED place = At(offset);
    DWORD count = 0;
    const DWORD wanted = static_cast<DWORD>(size < TRANSFER_MOST ? size : TRANSFER_MOST);
    const bool good = ReadFile(Handle(file), buffer, wanted, &count, &place) != 0 ||
                      GetLastError() == ERROR_HANDLE_EOF;
    *moved = count;
    return good;
}

bool SysFileWrite(size_t* moved, intptr_t file, const void* buffer, size_t size, int64_t offset)
{
    OVERLAPPED place = At(offset);
    DWORD count = 0;
    const DWORD wanted = static_cast<DWORD>(size < TRANSFER_MOST ? size : TRANSFER_MOST);
    const bool good = WriteFile(Handle(file), buffer, wanted, &count, &place) != 0;
    *moved = count;
    return good;
}

bool SysFileAppend(size_t* moved, intptr_t file, const void* buffer, size_t size)
{
    return SysFileWrite(moved, file, buffer, size, -1); // the end, wherever it is
}

bool SysFileEmpty(intptr_t file)
{
    FILE_END_OF_FILE_INFO end = {};
    return SetFileInformationByHandle(Handle(file), FileEndOfFileInfo, &end, sizeof end) != 0;
}

int64_t SysFileLimit()
{
    return INT64_MAX;
}

bool SysFileLength(int64_t* length, intptr_t file)
{
    LARGE_INTEGER size = {};
    const bool good = GetFileSizeEx(Handle(file), &size) != 0;
    *length = good ? size.QuadPart : 0;
    return good;
}

bool SysFileReserve(intptr_t file, int64_t offset, int64_t size)
{
    // The allocation of a file is one number, and one below the length would cut the file off: it
    // is only ever raised. What is not used of it, the system takes back when the file is closed.
    FILE_STANDARD_INFO now = {};
    if (!GetFileInformationByHandleEx(Handle(file), FileStandardInfo, &now, sizeof now))
        return true;
    const int64_t end = offset + size;
    if (end <= now.AllocationSize.QuadPart || end <= now.EndOfFile.QuadPart)
        return true;
    FILE_ALLOCATION_INFO wanted = {};
    wanted.AllocationSize.QuadPart = end;
    if (SetFileInformationByHandle(Handle(file), FileAllocationInfo, &wanted, sizeof wanted))
        return true;
    switch (GetLastError()) {
    case ERROR_INVALID_FUNCTION: // the file system has no such call
    case ERROR_NOT_SUPPORTED:
    case ERROR_CALL_NOT_IMPLEMENTED:
    case ERROR_INVALID_PARAMETER:
    case ERROR_INVALID_LEVEL:
    case ERROR_USER_MAPPED_FILE: // says nothing of the disk
        return true;
    default: // ERROR_DISK_FULL, ERROR_DISK_QUOTA_EXCEEDED, ERROR_FILE_TOO_LARGE ...
        return false;
    }
}

// What lies inside a file has its room on the disk from the start, unless the file system saves it.
bool SysFileFillHoles(intptr_t file, int64_t, int64_t)
{
    FILE_BASIC_INFO info = {};
    return GetFileInformationByHandleEx(Handle(file), FileBasicInfo, &info, sizeof info) &&
           !(info.FileAttributes & (FILE_ATTRIBUTE_SPARSE_FILE | FILE_ATTRIBUTE_COMPRESSED));
}

bool SysMapPastEnd()
{
    return false;
}

// Only on a volume of this machine does a mapping show at once what is written through a handle.
static bool SysFileIsRemote(intptr_t file)
{
    FILE_REMOTE_PROTOCOL_INFO remote = {};
    return GetFileInformationByHandleEx(
               Handle(file), FileRemoteProtocolInfo, &remote, sizeof remote) != 0;
}

bool SysMap(void** address, intptr_t file, size_t size, bool writable)
{
    *address = nullptr;
    if (size > MAP_MOST || SysFileIsRemote(file))
        return false;
    const HANDLE section = CreateFileMappingW(
        Handle(file), nullptr, writable ? PAGE_READWRITE : PAGE_READONLY,
        static_cast<DWORD>(uint64_t{size} >> 32), static_cast<DWORD>(size), nullptr);
    if (!section)
        return false;
    *address = MapViewOfFile(section, writable ? FILE_MAP_WRITE : FILE_MAP_READ, 0, 0, size);
    CloseHandle(section); // the view keeps what it needs
    return *address != nullptr;
}

void SysUnmap(void* address, size_t)
{
    UnmapViewOfFile(address);
}

// ---- directories and names ----

bool SysMakeDirectory(const char* path)
{
    const WidePath wide(path);
    const NoQuestions quiet;
    return wide.Text() && CreateDirectoryW(wide.Text(), nullptr);
}

SysKind SysPathKind(const char* path)
{
    const WidePath wide(path);
    if (!wide.Text())
        return SYS_ABSENT;
    const NoQuestions quiet;
    const DWORD attributes = GetFileAttributesW(wide.Text());
    if (attributes != INVALID_FILE_ATTRIBUTES)
        return attributes & FILE_ATTRIBUTE_DIRECTORY ? SYS_DIRECTORY : SYS_OTHER;
    switch (GetLastError()) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME:
    case ERROR_BAD_PATHNAME:
    case ERROR_DIRECTORY:
    case ERROR_INVALID_DRIVE:
    case ERROR_FILENAME_EXCED_RANGE:
        return SYS_ABSENT;
    default: // no access, drive not ready, a server that does not answer ...
        return SYS_UNKNOWN;
    }
}

bool SysScan(const char* directory, SysNameCallback f, void* context)
{
    const WidePath pattern(directory, L"\\*");
    if (!pattern.Text())
        return false;
    const NoQuestions quiet;
    WIN32_FIND_DATAW entry;
    const HANDLE scan = FindFirstFileExW(
        pattern.Text(), FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr,
        FIND_FIRST_EX_LARGE_FETCH);
    if (scan == INVALID_HANDLE_VALUE) // the root of an empty drive has not even "."
        return GetLastError() == ERROR_FILE_NOT_FOUND;
    bool good = true;
    do {
        char name[3 * MAX_PATH + 1]; // three bytes of UTF-8 at most for each of UTF-16
        if (wcscmp(entry.cFileName, L".") == 0 || wcscmp(entry.cFileName, L"..") == 0)
            continue;
        good = ToUtf8(entry.cFileName, name, sizeof name) && f(context, name);
    } while (good && FindNextFileW(scan, &entry));
    const DWORD reason = GetLastError();
    FindClose(scan);
    SetLastError(reason);
    return good && reason == ERROR_NO_MORE_FILES;
}

bool SysReplaceFile(const char* from, const char* to)
{
    const WidePath wideFrom(from);
    const WidePath wideTo(to);
    if (!wideFrom.Text() || !wideTo.Text())
        return false;
    // A file that has just been written is what scanners look at first.
    DWORD wait = FIRST_WAIT;
    bool done;
    do {
        done = MoveFileExW(wideFrom.Text(), wideTo.Text(), MOVEFILE_REPLACE_EXISTING) != 0;
    } while (!done &&
             (GetLastError() == ERROR_SHARING_VIOLATION || GetLastError() == ERROR_ACCESS_DENIED) &&
             WaitForOthers(&wait));
    return done;
}

bool SysRemoveFile(const char* path)
{
    const WidePath wide(path);
    return wide.Text() && DeleteFileW(wide.Text());
}

char SysSeparator()
{
    return '\\';
}

bool SysIsSeparator(char c)
{
    return c == '\\' || c == '/';
}

bool SysIsAbsolute(const char* path)
{
    // A path with a drive but no root belongs to that drive, and under no other directory.
    return SysIsSeparator(path[0]) || (path[0] != 0 && path[1] == ':');
}

bool SysProgramDirectory(char* buffer, size_t size)
{
    wchar_t program[WIDE_ROOM];
    const DWORD length = GetModuleFileNameW(nullptr, program, WIDE_ROOM);
    if (length == 0 || length >= WIDE_ROOM)
        return false;
    wchar_t* end = wcsrchr(program, L'\\');
    if (!end)
        return false;
    if (end > program && end[-1] == L':')
        ++end; // a program in the root: "C:\" stays, "C:" would be another place
    *end = 0;
    return ToUtf8(program, buffer, size);
}

// ---- drives ----

uint32_t SysDriveLetters()
{
    return GetLogicalDrives();
}

uint32_t SysDriveType(const char* root)
{
    const NoQuestions quiet;
    return GetDriveTypeA(root);
}

// ---- reasons ----

uint32_t SysLastError()
{
    return GetLastError();
}

void SysForgetError()
{
    SetLastError(ERROR_SUCCESS);
}

bool SysErrorMeansAbsent(uint32_t error)
{
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

void SysErrorText(char* buffer, size_t size, uint32_t error)
{
    constexpr DWORD HOW = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    wchar_t wide[256];
    char text[3 * 256] = "";
    DWORD length = 0;
    if (error != ERROR_SUCCESS) {
        length = FormatMessageW(
            HOW, nullptr, error, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), wide, 256, nullptr);
        if (length == 0) // a system without English
            length = FormatMessageW(HOW, nullptr, error, 0, wide, 256, nullptr);
    }
    while (length > 0 && wcschr(L"\r\n .", wide[length - 1]))
        --length;
    wide[length < 256 ? length : 255] = 0;
    if (length > 0 && ToUtf8(wide, text, sizeof text))
        snprintf(buffer, size, "%s (%u)", text, static_cast<unsigned>(error));
    else if (error != ERROR_SUCCESS)
        snprintf(buffer, size, "error %u", static_cast<unsigned>(error));
    else
        snprintf(buffer, size, "the system gives no reason");
}

// ---- process ----

bool SysGetEnvironment(const char* name, char* buffer, size_t size)
{
    wchar_t wideName[256];
    wchar_t value[WIDE_ROOM];
    if (!MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, name, -1, wideName, 256))
        return false;
    SetLastError(ERROR_SUCCESS); // an empty value has the length 0 as well
    const DWORD length = GetEnvironmentVariableW(wideName, value, WIDE_ROOM);
    if (length >= WIDE_ROOM || (length == 0 && GetLastError() != ERROR_SUCCESS))
        return false;
    value[length] = 0;
    return ToUtf8(value, buffer, size);
}

uint64_t SysRandom()
{
    unsigned int low = 0;
    unsigned int high = 0;
    if (rand_s(&low) == 0 && rand_s(&high) == 0)
        return static_cast<uint64_t>(high) << 32 | low;
    // What differs between processes, stirred so that every bit depends on every input bit.
    LARGE_INTEGER count = {};
    QueryPerformanceCounter(&count);
    uint64_t value = static_cast<uint64_t>(count.QuadPart);
    value ^= static_cast<uint64_t>(GetCurrentProcessId()) << 40;
    value ^= GetTickCount64() << 20;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9u;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebu;
    return value ^ (value >> 31);
}

void SysWriteStandardError(const char* text, size_t size)
{
    const HANDLE out = GetStdHandle(STD_ERROR_HANDLE);
    while (size > 0 && out && out != INVALID_HANDLE_VALUE) {
        DWORD moved = 0;
        const DWORD part = static_cast<DWORD>(size < TRANSFER_MOST ? size : TRANSFER_MOST);
        if (!WriteFile(out, text, part, &moved, nullptr) || moved == 0)
            return;
        text += moved;
        size -= moved;
    }
}

void SysEndProcess(uint32_t)
{
    // At once, without running what libraries do at an exit: the memory is not to be trusted. The
    // code is the one of abort().
    TerminateProcess(GetCurrentProcess(), 3);
    abort(); // not reached
}

void SysYield()
{
    if (!SwitchToThread())
        Sleep(0);
}
