// filemap.h: the part of a file that is read out of memory, and written there where the host has
// asked for it.
//
// Where the system lets a mapping reach past the end of the file, a generous range of addresses is
// mapped at once and the file grows into it; elsewhere, and where such a range cannot be had, the
// mapping ends with the file and is made anew when what lies behind it has grown past a quarter of
// it. The mapping knows nothing of the file's length: whoever takes bytes out of it makes sure that
// they lie inside the file.
#pragma once

#include <cstddef>
#include <cstdint>

struct FileMapping {
    const uint8_t* bytes; // null while there is none
    size_t size;          // bytes mapped from the start of the file
    bool allowed;         // false: never mapped
    bool exact;           // it ended with the file when it was made
    bool frozen;          // no larger one was to be had: this one is kept
    bool writable;        // its bytes may be stored to
};

// Makes the mapping reach `end`, which lies inside a file of `length` bytes; what was mapped before
// may move. Returns whether it does now.
bool FileMapExtend(FileMapping* mapping, intptr_t file, int64_t length, int64_t end);
void FileMapRelease(FileMapping* mapping);

inline bool FileMapReaches(FileMapping* mapping, intptr_t file, int64_t length, int64_t end)
{
    return static_cast<uint64_t>(end) <= mapping->size || FileMapExtend(mapping, file, length, end);
}

#if defined(NIM_NO_FAULTS)
constexpr size_t gFileMapLimit = SIZE_MAX;
#else
// For tests: larger mappings are refused, as a system short of addresses refuses them.
extern size_t gFileMapLimit;
#endif
