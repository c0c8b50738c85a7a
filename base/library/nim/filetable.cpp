// filetable.cpp: giving out and ending file handles. Looking them up stands in filetable.h.
//
// Invariants: a free slot's token is 0, so that no handle matches it (only handle 0 leads to slot
// 0, whose file stays null); no token is ever given out twice; FILE_NONE is never given out.
#include "filetable.h"

#include "nim/filesys.h"
#include "spinlock.h"
#include "sys.h"

static_assert(sizeof(void*) == sizeof(uint64_t), "a handle is a 64-bit number");

FileSlot gFileSlots[FILE_SLOTS];

static SpinLock gLock;          // held for a few stores
static uint64_t gBase;          // the random upper half; 0 = not drawn yet
static uint32_t gFirstFree;     // slots that were used before and are free again
static uint32_t gNextFresh = 1; // the slots from here on have never been used
static std::atomic<uint32_t> gCount;

// Not zero, since small numbers are common where no handle is; and with the highest bit free, so
// that no carry ever takes it through FILE_NONE to zero.
static uint64_t FileTableDrawBase()
{
    uint64_t upper;
    do {
        upper = SysRandom() >> 33;
    } while (upper == 0);
    return upper << 32;
}

void* FileTableAdd(File* file)
{
    SpinLockGuard lock(gLock);
    if (gBase == 0)
        gBase = FileTableDrawBase();

    uint32_t index = gFirstFree;
    if (index != 0)
        gFirstFree = gFileSlots[index].nextFree;
    else if (gNextFresh < FILE_SLOTS)
        index = gNextFresh++;
    else
        return FILE_NONE;

    FileSlot& slot = gFileSlots[index];
    const uint64_t token = gBase + (++slot.uses << FILE_SLOT_BITS | index);
    slot.file.store(file, std::memory_order_relaxed);
    slot.token.store(token, std::memory_order_release);
    gCount.fetch_add(1, std::memory_order_relaxed);
    return reinterpret_cast<void*>(static_cast<uintptr_t>(token));
}

File* FileTableRemove(const void* handle)
{
    SpinLockGuard lock(gLock);
    File* file = FileTableFind(handle);
    if (!file)
        return nullptr;
    const uint32_t index = reinterpret_cast<uintptr_t>(handle) & (FILE_SLOTS - 1);
    FileSlot& slot = gFileSlots[index];
    slot.token.store(0, std::memory_order_release);
    slot.file.store(nullptr, std::memory_order_relaxed);
    slot.nextFree = gFirstFree;
    gFirstFree = index;
    gCount.fetch_sub(1, std::memory_order_relaxed);
    return file;
}

uint32_t FileTableCount()
{
    return gCount.load(std::memory_order_relaxed);
}
