// sys.h: the whole platform interface of the base services.
//
// Everything that differs between Linux and Windows stands behind these functions, in posix/ and
// win32/. Paths are UTF-8; on Windows they are converted for the wide-character calls. No function
// here traces, takes memory from a pool or knows an object. All results are true on success; after
// a failure SysLastError tells the reason.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- files ----
constexpr intptr_t SYS_NO_FILE = -1;
// SYS_APPEND: for SysFileAppend and nothing else.
enum SysOpenFlags : uint32_t { SYS_READ = 1, SYS_WRITE = 2, SYS_CREATE = 4, SYS_APPEND = 8 };
// Refuses directories. Binary, unbuffered, closed on exec, shared for reading, writing, deletion.
bool SysFileOpen(intptr_t* file, const char* path, uint32_t flags);
bool SysFileClose(intptr_t file);
// One positioned transfer: may be short, *moved is 0 at the end of the file. Retries interruptions.
bool SysFileRead(size_t* moved, intptr_t file, void* buffer, size_t size, int64_t offset);
bool SysFileWrite(size_t* moved, intptr_t file, const void* buffer, size_t size, int64_t offset);
// Writes behind the end of the file as it is when the bytes go in, whoever else appends. One call:
// the bytes of two writers do not mix. May be short; never more than once where the disk has room.
bool SysFileAppend(size_t* moved, intptr_t file, const void* buffer, size_t size);
bool SysFileLength(int64_t* length, intptr_t file);
bool SysFileEmpty(intptr_t file); // cuts it off at its start
// How long the process may make a file, as things stand now. A write that reaches past it may be a
// signal that ends the process: whoever writes asks first.
int64_t SysFileLimit();
// Reserves disk space for [offset, offset + size) without changing the length. True also where the
// file system cannot reserve; false only when it refuses (full, over quota, too large).
bool SysFileReserve(intptr_t file, int64_t offset, int64_t size);
// Whether the disk is known to have room for every byte of [offset, offset + size), which lies
// inside the file; holes are filled up. False also where that cannot be told.
bool SysFileFillHoles(intptr_t file, int64_t offset, int64_t size);
// Maps [0, size) for reading, or for writing as well: what is stored there is in the file at once,
// as if it had been written, but a failure is a signal and not a result. On Linux `size` may lie
// past the end of the file (such pages may not be touched until the file has grown); where
// SysMapPastEnd() is false it may not.
bool SysMapPastEnd();
bool SysMap(void** address, intptr_t file, size_t size, bool writable);
void SysUnmap(void* address, size_t size);

// ---- directories and names ----
bool SysMakeDirectory(const char* path); // one level; false when it exists
// SYS_UNKNOWN: something may be there, the system does not tell (no permission, a failing device).
enum SysKind : uint32_t { SYS_ABSENT = 0, SYS_DIRECTORY = 1, SYS_OTHER = 2, SYS_UNKNOWN = 3 };
SysKind SysPathKind(const char* path);
using SysNameCallback = bool (*)(void* context, const char* name);
// Calls `f` for every name in no particular order, "." and ".." left out; stops when f says false.
// False when the directory cannot be read or f stopped it.
bool SysScan(const char* directory, SysNameCallback f, void* context);
bool SysReplaceFile(const char* from, const char* to); // rename over an existing file
bool SysRemoveFile(const char* path);
char SysSeparator(); // '/' or '\\'
bool SysIsSeparator(char c);
bool SysIsAbsolute(const char* path);
// Directory of the running program, without a trailing separator. False when it does not fit.
bool SysProgramDirectory(char* buffer, size_t size);

// ---- drives ----
uint32_t SysDriveLetters();              // bit 0 for "A"; 0 on failure, and where there are none
uint32_t SysDriveType(const char* root); // in the numbers of Windows; 0 = cannot be told

// ---- reasons ----
// Why the last call of this thread that failed did: the system's own number.
uint32_t SysLastError();
// For a failure that no call of the system has caused.
void SysForgetError();
// Whether a reason says no more than that there is nothing at the path.
bool SysErrorMeansAbsent(uint32_t error);
// The system's own words for a reason, in English where the system has them, and its number behind
// them; cut where it does not fit.
void SysErrorText(char* buffer, size_t size, uint32_t error);

// ---- process ----
// Copies the variable's value; false when it is not set or does not fit.
bool SysGetEnvironment(const char* name, char* buffer, size_t size);
uint64_t SysRandom(); // unpredictable between processes
void SysWriteStandardError(const char* text, size_t size);
[[noreturn]] void SysEndProcess(uint32_t code);
void SysYield();
