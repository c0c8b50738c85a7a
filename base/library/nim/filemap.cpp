// filemap.cpp: making mappings follow the growth of their files.
#include "filemap.h"

#include "sys.h"

#include <bit>

// The least range that is mapped past the end: a table of some thousand records grows inside it
// without ever being mapped again, and it is only addresses.
constexpr uint64_t GENEROUS_LEAST = 16u << 20;
// Longer files are mapped exactly: a power of two past this would ask for all addresses there are.
constexpr uint64_t GENEROUS_MOST = uint64_t{1} << 45;

#if !defined(NIM_NO_FAULTS)
size_t gFileMapLimit = SIZE_MAX;
#endif

static bool FileMapTry(void** address, FileMapping* mapping, intptr_t file, uint64_t size)
{
    *address = nullptr;
    if (size > gFileMapLimit)
        return false;
    if (mapping->writable && SysMap(address, file, static_cast<size_t>(size), true))
        return true;
    mapping->writable = false; // reading alone may still be granted
    return SysMap(address, file, static_cast<size_t>(size), false);
}

bool FileMapExtend(FileMapping* mapping, intptr_t file, int64_t length, int64_t end)
{
    if (!mapping->allowed || mapping->frozen || length <= 0)
        return false;
    const uint64_t bytes = static_cast<uint64_t>(length);
    // An exact mapping follows in steps of a quarter: the growth of a file then costs a constant
    // number of mappings for each doubling, and not one for each read.
    if (mapping->exact && bytes - mapping->size <= mapping->size / 4)
        return false;

    void* address = nullptr;
    uint64_t size = 0;
    bool exact = false;
    if (SysMapPastEnd() && bytes <= GENEROUS_MOST) {
        size = bytes < GENEROUS_LEAST ? GENEROUS_LEAST : std::bit_ceil(bytes + 1);
        FileMapTry(&address, mapping, file, size);
    }
    if (!address) {
        exact = true;
        size = bytes;
        if (!FileMapTry(&address, mapping, file, size)) {
            mapping->frozen = true; // what is mapped goes on serving, the rest is read
            mapping->allowed = mapping->bytes != nullptr;
            return false;
        }
    }
    if (mapping->bytes)
        SysUnmap(const_cast<uint8_t*>(mapping->bytes), mapping->size);
    mapping->bytes = static_cast<const uint8_t*>(address);
    mapping->size = static_cast<size_t>(size);
    mapping->exact = exact;
    return static_cast<uint64_t>(end) <= mapping->size;
}

void FileMapRelease(FileMapping* mapping)
{
    if (mapping->bytes)
        SysUnmap(const_cast<uint8_t*>(mapping->bytes), mapping->size);
    mapping->bytes = nullptr;
    mapping->size = 0;
}
