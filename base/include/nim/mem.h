/* mem.h: memory pools.
 *
 * All memory that the services hand out, and every object, comes from a pool, so that running out
 * of memory is a result and not the end of the process. Every piece carries 16 bytes ahead of it
 * (size, pool, guard word): a foreign pointer, a second free and an overrun of the piece before are
 * found when the piece is freed, traced at level -1, and end the process through ProcCrash(0).
 *
 * Freed pieces are kept by size for the next allocation of their size, up to a bound for each size;
 * MemTrim gives them back. In sanitizer builds and under valgrind every call passes through to the
 * heap, so that those tools see each piece. All functions may be called from several threads.
 */
#ifndef NIM_MEM_H
#define NIM_MEM_H

#include "nim/types.h"

NIM_BEGIN

/* The id of the pool that everything uses unless told otherwise. Never 0, so that 0 can stand for
 * "not fetched yet"; the same during the whole life of the process. */
NIM_API uint32_t MemGetDefaultPoolId(void);

/* Allocates memory whose bytes are all zero.
 *   size  bytes; 0 is legal and gives a piece of its own
 *   pool  id of the pool, see MemGetDefaultPoolId
 * Result: the memory, aligned to 16 bytes, freed with MemFreeInternal; null when there is none left
 * or no such pool. */
NIM_API void* MemAllocateFromPool(uint32_t size, uint32_t pool);

/* The same, but the bytes are whatever they are: for callers that overwrite all of them. */
NIM_API void* MemAllocateUncleared(uint32_t size, uint32_t pool);

/* Frees memory and sets the caller's variable to null.
 *   pp  in/out: address of the variable that holds the memory. A null address and a variable that
 *       holds null are no-ops.
 * A pointer that no pool handed out, that was freed before, or whose guard word was overwritten is
 * traced at level -1 and reported through ProcCrash(0); should that return, the memory is left
 * alone and the variable is null. */
NIM_API void MemFreeInternal(void** pp);

/* Copies `count` bytes from `src` to `dest`; the two may overlap. With count 0 both may be null;
 * with either one null nothing is copied. */
NIM_API void MemCopy(void* dest, const void* src, uint32_t count);

/* Gives the freed pieces that are kept for reuse back to the heap. */
NIM_API void MemTrim(void);

NIM_END

/* MemFree(p): MemFreeInternal for a variable of any pointer type. In C `p` is evaluated twice. */
#ifdef __cplusplus
template <typename T>
inline void MemFree(T*& p)
{
    void* block = const_cast<void*>(static_cast<const volatile void*>(p));
    MemFreeInternal(&block);
    p = nullptr;
}
#else
#define MemFree(p)                                                                                 \
    do {                                                                                           \
        void* memFreeBlock_ = (void*)(p);                                                          \
        MemFreeInternal(&memFreeBlock_);                                                           \
        (p) = NULL;                                                                                \
    } while (0)
#endif

#endif /* NIM_MEM_H */
