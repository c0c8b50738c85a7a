// memdirect.cpp: pieces that pass straight through to the heap.
//
// A prefix would blunt the tools that this is for: they would take a write ahead of the body for
// one into live memory, and a pointer to the body for one into the middle of a lost piece. So size
// and identity stand in a table beside the pieces: a hash table with open addressing, at most half
// full. Addresses are stored inverted, or the table itself would count as referring to every piece
// and no leak would ever be reported.
#include "memdirect.h"

#include <cstdlib>
#include <cstring>

#include "spinlock.h"

namespace {

struct MemDirectSlot {
    uintptr_t inverted; // of the address; 0 = empty
    uint32_t size;
};

struct MemDirectTable {
    SpinLock lock;
    MemDirectSlot* slots;
    size_t capacity; // a power of two, or 0
    size_t count;
};

constexpr size_t MEM_DIRECT_FIRST = 1024;

MemDirectTable gMemDirect;

} // namespace

static size_t MemDirectHome(uintptr_t inverted, size_t capacity)
{
    return static_cast<size_t>((uint64_t{inverted} >> 4) * 0x9e3779b97f4a7c15ull >> 20) &
           (capacity - 1);
}

static void MemDirectPut(MemDirectSlot* slots, size_t capacity, const MemDirectSlot& slot)
{
    size_t i = MemDirectHome(slot.inverted, capacity);
    while (slots[i].inverted != 0)
        i = (i + 1) & (capacity - 1);
    slots[i] = slot;
}

static bool MemDirectRoom()
{
    MemDirectTable& t = gMemDirect;
    if (t.count * 2 < t.capacity)
        return true;
    size_t capacity = t.capacity ? t.capacity * 2 : MEM_DIRECT_FIRST;
    auto* slots = static_cast<MemDirectSlot*>(calloc(capacity, sizeof(MemDirectSlot)));
    if (!slots)
        return false;
    for (size_t i = 0; i < t.capacity; ++i)
        if (t.slots[i].inverted != 0)
            MemDirectPut(slots, capacity, t.slots[i]);
    free(t.slots);
    t.slots = slots;
    t.capacity = capacity;
    return true;
}

void* MemDirectAllocate(uint32_t size, bool clear)
{
    size_t bytes = size ? size : 1;
    void* body = clear ? calloc(1, bytes) : malloc(bytes);
    if (!body)
        return nullptr;
    {
        SpinLockGuard guard(gMemDirect.lock);
        if (MemDirectRoom()) {
            MemDirectPut(
                gMemDirect.slots, gMemDirect.capacity, {~reinterpret_cast<uintptr_t>(body), size});
            ++gMemDirect.count;
            return body;
        }
    }
    free(body);
    return nullptr;
}

bool MemDirectFree(void* body, uint32_t* size)
{
    {
        MemDirectTable& t = gMemDirect;
        SpinLockGuard guard(t.lock);
        if (t.count == 0)
            return false;
        uintptr_t inverted = ~reinterpret_cast<uintptr_t>(body);
        size_t hole = MemDirectHome(inverted, t.capacity);
        while (t.slots[hole].inverted != inverted) {
            if (t.slots[hole].inverted == 0)
                return false;
            hole = (hole + 1) & (t.capacity - 1);
        }
        *size = t.slots[hole].size;
        // Close the gap: whatever would not be found any more across it moves into it.
        for (size_t i = (hole + 1) & (t.capacity - 1); t.slots[i].inverted != 0;
             i = (i + 1) & (t.capacity - 1)) {
            size_t home = MemDirectHome(t.slots[i].inverted, t.capacity);
            if (((i - home) & (t.capacity - 1)) >= ((i - hole) & (t.capacity - 1))) {
                t.slots[hole] = t.slots[i];
                hole = i;
            }
        }
        t.slots[hole].inverted = 0;
        --t.count;
    }
    free(body);
    return true;
}

void MemDirectTrim()
{
    SpinLockGuard guard(gMemDirect.lock);
    if (gMemDirect.count == 0) {
        free(gMemDirect.slots);
        gMemDirect.slots = nullptr;
        gMemDirect.capacity = 0;
    }
}
