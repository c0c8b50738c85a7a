// filetable.h: which file a handle stands for.
//
// A handle is a 64-bit number that is never used twice: the upper half is random for this process,
// the lower half is a count of uses and the number of a slot, and the count carries into the upper
// half when it overflows. Looking one up is one comparison in a fixed table: nothing grows, nothing
// moves, and no lock is taken, so threads that use different handles do not meet. The table lies in
// zero-filled memory that costs nothing until a slot is used.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

struct File; // filesys.cpp

constexpr uint32_t FILE_SLOT_BITS = 16;
constexpr uint32_t FILE_SLOTS = 1u
                                << FILE_SLOT_BITS; // slot 0 is never used, so neither is handle 0

struct alignas(32) FileSlot {    // never across two cache lines
    std::atomic<uint64_t> token; // the handle; 0, which leads to slot 0 only, while it is free
    std::atomic<File*> file;
    uint64_t uses;     // under the lock: how many handles this slot has given
    uint32_t nextFree; // under the lock: the next free slot, 0 = none
};
static_assert(sizeof(FileSlot) == 32, "a slot is half a cache line");

extern FileSlot gFileSlots[FILE_SLOTS];

// The handle for a file, or FILE_NONE when every slot is taken.
void* FileTableAdd(File* file);
// The file behind a handle and the end of the handle; null when it is not one.
File* FileTableRemove(const void* handle);
// How many files are open.
uint32_t FileTableCount();

// The file behind a handle; null when it is not one. A handle that another thread closes meanwhile
// is the caller's fault, as it is for the file itself.
inline File* FileTableFind(const void* handle)
{
    const uint64_t token = reinterpret_cast<uintptr_t>(handle);
    const FileSlot& slot = gFileSlots[token & (FILE_SLOTS - 1)];
    if (slot.token.load(std::memory_order_acquire) != token)
        return nullptr;
    return slot.file.load(std::memory_order_relaxed);
}
