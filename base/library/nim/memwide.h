// memwide.h: pieces of the default pool whose size is counted in 64 bits, so that no caller has to
// see for itself that what it adds and multiplies still fits into the 32 bits of the pools.
#pragma once

#include <cstdint>

#include "nim/mem.h"

// Null also when the size is larger than any piece can be.
inline void* MemAllocateWide(uint64_t size)
{
    return size <= UINT32_MAX
               ? MemAllocateFromPool(static_cast<uint32_t>(size), MemGetDefaultPoolId())
               : nullptr;
}

// The same, its bytes as they happen to be.
inline void* MemAllocateWideUncleared(uint64_t size)
{
    return size <= UINT32_MAX
               ? MemAllocateUncleared(static_cast<uint32_t>(size), MemGetDefaultPoolId())
               : nullptr;
}
