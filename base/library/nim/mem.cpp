// mem.cpp: the memory pools.
//
// Every piece is one piece of the heap: a prefix of 16 bytes (size, pool, guard word), then the
// body that the caller gets. Freed pieces wait in a list of their size class for the next
// allocation of that class; a class keeps at most its bound, what comes above goes back to the
// heap at once, so that one peak is not kept for ever. Sizes above the largest class always come
// from the heap. There is one pool; its id is checked, so that a call with a stray id fails.
//
// In sanitizer builds and under valgrind none of this takes part: memdirect passes every call
// through to the heap.
//
// Invariants: a live piece's guard word is MemLiveGuard of its prefix; a waiting piece's is
// MemFreeGuard of its address and of the link in its first 8 body bytes. Nothing is traced, and
// the heap is not called, while a class is locked.
#include "nim/mem.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#include "memdirect.h"
#include "mempool.h"
#include "nim/fault.h"
#include "nim/proc.h"
#include "nim/trace.h"
#include "spinlock.h"
#include "sys.h"

#define TAG "NIMMEM        "

#if defined(NIM_SANITIZE) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NIM_MEM_ALWAYS_DIRECT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||                         \
    __has_feature(memory_sanitizer)
#define NIM_MEM_ALWAYS_DIRECT 1
#endif
#endif

namespace {

constexpr uint32_t MEM_DEFAULT_POOL = 1;

struct MemPrefix {
    uint32_t size; // bytes that the caller asked for
    uint32_t pool;
    uint64_t guard;
};
static_assert(sizeof(MemPrefix) == 16, "the body must stay aligned to 16 bytes");

constexpr uint64_t MEM_LIVE_KEY = 0x9ae16a3b2f90404full;
constexpr uint64_t MEM_FREE_KEY = 0xc949d7c7509e6557ull;

// Size classes. Small ones go up in steps of 16 bytes. Large ones are quarters of a doubling, each
// 128 bytes longer: what asks for that much is mostly a power of two with a header before it (a
// block object is 16384 + 56 bytes), which would otherwise just miss its class.
constexpr uint32_t MEM_LARGE_EXTRA = 128;
constexpr uint32_t MEM_SMALL_STEP = 16;
constexpr uint32_t MEM_SMALL_MAX = 1024 + MEM_LARGE_EXTRA;
constexpr uint32_t MEM_SMALL_CLASSES = MEM_SMALL_MAX / MEM_SMALL_STEP;
constexpr uint32_t MEM_LARGE_FIRST_BIT = 10; // sizes from 2^10 + 128 on ...
constexpr uint32_t MEM_LARGE_LAST_BIT = 15;  // ... to 2^16 + 128
constexpr uint32_t MEM_CLASSES =
    MEM_SMALL_CLASSES + 4 * (MEM_LARGE_LAST_BIT - MEM_LARGE_FIRST_BIT + 1);
constexpr uint32_t MEM_LARGE_MAX = (2u << MEM_LARGE_LAST_BIT) + MEM_LARGE_EXTRA;
constexpr uint32_t MEM_NO_CLASS = 0xFFFFFFFF;

// What a class keeps: 256 KiB of a small size, 1 MiB (64 block objects) of a large one. All classes
// filled to the brim, which no program does, would keep 42 MiB.
constexpr uint32_t MEM_SMALL_KEEP = 256 * 1024;
constexpr uint32_t MEM_LARGE_KEEP = 1024 * 1024;

// A line of its own for each, so that two threads at two sizes do not meet.
struct alignas(64) MemClass {
    SpinLock lock;
    uint32_t count;
    MemPrefix* first;
};

MemClass gMemClasses[MEM_CLASSES];

enum : uint32_t { MEM_MODE_UNKNOWN = 0, MEM_MODE_POOLED, MEM_MODE_DIRECT };
std::atomic<uint32_t> gMemMode{MEM_MODE_UNKNOWN};

#ifndef NIM_NO_FAULTS
std::atomic<uint64_t> gMemLiveBytes{0};
std::atomic<uint32_t> gMemLiveCount{0};
#endif

} // namespace

static inline uint32_t MemClassOf(uint32_t size)
{
    if (size <= MEM_SMALL_MAX)
        return size == 0 ? 0 : (size - 1) / MEM_SMALL_STEP;
    if (size > MEM_LARGE_MAX)
        return MEM_NO_CLASS;
    uint32_t n = size - MEM_LARGE_EXTRA - 1;
    uint32_t bit = 31 - static_cast<uint32_t>(std::countl_zero(n));
    return MEM_SMALL_CLASSES + (bit - MEM_LARGE_FIRST_BIT) * 4 + ((n >> (bit - 2)) & 3);
}

// Body bytes of the pieces of a class.
static inline uint32_t MemClassCapacity(uint32_t cls)
{
    if (cls < MEM_SMALL_CLASSES)
        return (cls + 1) * MEM_SMALL_STEP;
    uint32_t large = cls - MEM_SMALL_CLASSES;
    return ((5 + (large & 3)) << (large / 4 + MEM_LARGE_FIRST_BIT - 2)) + MEM_LARGE_EXTRA;
}

static inline uint32_t MemClassBound(uint32_t cls)
{
    return (cls < MEM_SMALL_CLASSES ? MEM_SMALL_KEEP : MEM_LARGE_KEEP) / MemClassCapacity(cls);
}

// Covers address, size and pool, so that damage to any of them shows.
static inline uint64_t MemLiveGuard(const MemPrefix* p)
{
    return (reinterpret_cast<uintptr_t>(p) ^ MEM_LIVE_KEY) +
           (static_cast<uint64_t>(p->pool) << 32 | p->size);
}

static inline uint64_t MemFreeGuard(const MemPrefix* p, const MemPrefix* next)
{
    return (reinterpret_cast<uintptr_t>(p) ^ MEM_FREE_KEY) + reinterpret_cast<uintptr_t>(next);
}

static inline MemPrefix* MemNext(const MemPrefix* p)
{
    uintptr_t next;
    memcpy(&next, p + 1, sizeof next);
    return reinterpret_cast<MemPrefix*>(next);
}

// Whether pieces go straight to the heap and back. Valgrind is recognised by the libraries that it
// loads ahead of all others.
static uint32_t MemDecideMode()
{
#ifdef NIM_MEM_ALWAYS_DIRECT
    uint32_t mode = MEM_MODE_DIRECT;
#else
    char preload[4096];
    bool valgrind = SysGetEnvironment("LD_PRELOAD", preload, sizeof preload) &&
                    strstr(preload, "vgpreload") != nullptr;
    uint32_t mode = valgrind ? MEM_MODE_DIRECT : MEM_MODE_POOLED;
#endif
    gMemMode.store(mode, std::memory_order_relaxed);
    return mode;
}

static inline bool MemPooled()
{
    uint32_t mode = gMemMode.load(std::memory_order_relaxed);
    if (mode == MEM_MODE_UNKNOWN) [[unlikely]]
        mode = MemDecideMode();
    return mode == MEM_MODE_POOLED;
}

static void MemDamaged(const char* what, const void* body)
{
    NIM_TRACE(TAG, 1, -1, "%s at '%p'", what, body);
    ProcCrash(0);
}

// Takes a waiting piece out of its class; null when there is none.
static inline MemPrefix* MemTake(uint32_t cls)
{
    MemClass& c = gMemClasses[cls];
    c.lock.Lock();
    MemPrefix* p = c.first;
    if (!p) {
        c.lock.Unlock();
        return nullptr;
    }
    MemPrefix* next = MemNext(p);
    bool sound = p->guard == MemFreeGuard(p, next);
    // A link that was written over leads anywhere: the rest of the list is given up.
    c.first = sound ? next : nullptr;
    c.count = sound ? c.count - 1 : 0;
    c.lock.Unlock();
    if (!sound) [[unlikely]] {
        MemDamaged("Memory written after it was freed", p + 1);
        return nullptr;
    }
    return p;
}

// Gives a piece to its class; false when the class keeps enough.
static inline bool MemKeep(uint32_t cls, MemPrefix* p)
{
    MemClass& c = gMemClasses[cls];
    SpinLockGuard guard(c.lock);
    if (c.count >= MemClassBound(cls))
        return false;
    uintptr_t next = reinterpret_cast<uintptr_t>(c.first);
    memcpy(static_cast<void*>(p + 1), &next, sizeof next);
    p->guard = MemFreeGuard(p, c.first);
    c.first = p;
    ++c.count;
    return true;
}

static inline void MemCountIn([[maybe_unused]] uint32_t size)
{
#ifndef NIM_NO_FAULTS
    gMemLiveBytes.fetch_add(size, std::memory_order_relaxed);
    gMemLiveCount.fetch_add(1, std::memory_order_relaxed);
#endif
}

static inline void MemCountOut([[maybe_unused]] uint32_t size)
{
#ifndef NIM_NO_FAULTS
    gMemLiveBytes.fetch_sub(size, std::memory_order_relaxed);
    gMemLiveCount.fetch_sub(1, std::memory_order_relaxed);
#endif
}

static inline void* MemHandOut(MemPrefix* p, uint32_t size)
{
    p->size = size;
    p->pool = MEM_DEFAULT_POOL;
    p->guard = MemLiveGuard(p);
    MemCountIn(size);
    return p + 1;
}

// A fresh piece. When the heap has nothing left, the waiting pieces of all sizes go first.
static void* MemFromHeap(uint32_t size, uint32_t cls, bool clear)
{
    size_t capacity = cls == MEM_NO_CLASS ? size : MemClassCapacity(cls);
    size_t bytes = sizeof(MemPrefix) + capacity;
    void* p = clear ? calloc(1, bytes) : malloc(bytes);
    if (!p) [[unlikely]] {
        MemTrim();
        p = clear ? calloc(1, bytes) : malloc(bytes);
    }
    return p ? MemHandOut(static_cast<MemPrefix*>(p), size) : nullptr;
}

static void* MemDirect(uint32_t size, bool clear)
{
    void* body = MemDirectAllocate(size, clear);
    if (body)
        MemCountIn(size);
    return body;
}

static inline void* MemAllocate(uint32_t size, uint32_t pool, bool clear)
{
    if (pool != MEM_DEFAULT_POOL || FaultFails(FAULT_ALLOC))
        return nullptr;
    if (!MemPooled()) [[unlikely]]
        return MemDirect(size, clear);
    uint32_t cls = MemClassOf(size);
    MemPrefix* p = cls != MEM_NO_CLASS ? MemTake(cls) : nullptr;
    if (!p)
        return MemFromHeap(size, cls, clear);
    if (clear)
        memset(static_cast<void*>(p + 1), 0, size);
    return MemHandOut(p, size);
}

uint32_t MemGetDefaultPoolId(void)
{
    return MEM_DEFAULT_POOL;
}

void* MemAllocateFromPool(uint32_t size, uint32_t pool)
{
    return MemAllocate(size, pool, true);
}

void* MemAllocateUncleared(uint32_t size, uint32_t pool)
{
    return MemAllocate(size, pool, false);
}

static void MemFreeDirect(void* body)
{
    uint32_t size = 0;
    if (MemDirectFree(body, &size))
        MemCountOut(size);
    else
        MemDamaged("Memory freed twice or not from a pool", body);
}

void MemFreeInternal(void** pp)
{
    if (!pp || !*pp)
        return;
    void* body = *pp;
    *pp = nullptr;
    if (!MemPooled()) [[unlikely]] {
        MemFreeDirect(body);
        return;
    }
    MemPrefix* p = static_cast<MemPrefix*>(body) - 1;
    if (p->guard != MemLiveGuard(p) || p->pool != MEM_DEFAULT_POOL) [[unlikely]] {
        bool waiting =
            p->guard == MemFreeGuard(p, nullptr) || p->guard == MemFreeGuard(p, MemNext(p));
        MemDamaged(waiting ? "Memory freed twice" : "Memory damaged or not from a pool", body);
        return;
    }
    MemCountOut(p->size);
    uint32_t cls = MemClassOf(p->size);
    if (cls != MEM_NO_CLASS && MemKeep(cls, p))
        return;
    // Volatile, since the compiler drops an ordinary store into memory that is freed next: a second
    // free should find the mark as long as the heap leaves it there.
    *const_cast<volatile uint64_t*>(&p->guard) = MemFreeGuard(p, nullptr);
    free(p);
}

void MemCopy(void* dest, const void* src, uint32_t count)
{
    if (dest && src)
        memmove(dest, src, count);
}

void MemTrim(void)
{
    for (uint32_t cls = 0; cls < MEM_CLASSES; ++cls)
        while (MemPrefix* p = MemTake(cls))
            free(p);
    MemDirectTrim();
}

uint64_t MemWaitingBytes()
{
    uint64_t bytes = 0;
    for (uint32_t cls = 0; cls < MEM_CLASSES; ++cls) {
        SpinLockGuard guard(gMemClasses[cls].lock);
        bytes += uint64_t{gMemClasses[cls].count} * MemClassCapacity(cls);
    }
    return bytes;
}

#ifndef NIM_NO_FAULTS
uint64_t MemLiveBytes(void)
{
    return gMemLiveBytes.load(std::memory_order_relaxed);
}

uint32_t MemLiveCount(void)
{
    return gMemLiveCount.load(std::memory_order_relaxed);
}
#endif
