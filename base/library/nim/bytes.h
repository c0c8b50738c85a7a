// bytes.h: little-endian integers in byte buffers, the one pair of helpers per width that every
// format of the library goes through. No alignment is asked of the address, and no check is made:
// the caller has made sure that the bytes lie inside its buffer (BytesInside). On a little-endian
// machine each helper compiles to a single move; on another, to a move and a byte swap.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

static_assert(
    std::endian::native == std::endian::little || std::endian::native == std::endian::big,
    "a machine with a mixed byte order needs a swap of its own");

// On every machine the value whose little-endian bytes are those of `value` in memory.
inline uint32_t LittleEndian32(uint32_t value)
{
    if constexpr (std::endian::native == std::endian::big)
        value = __builtin_bswap32(value);
    return value;
}

inline uint64_t LittleEndian64(uint64_t value)
{
    if constexpr (std::endian::native == std::endian::big)
        value = __builtin_bswap64(value);
    return value;
}

inline uint32_t GetU32(const void* bytes)
{
    uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return LittleEndian32(value);
}

inline void PutU32(void* bytes, uint32_t value)
{
    value = LittleEndian32(value);
    std::memcpy(bytes, &value, sizeof value);
}

inline uint64_t GetU64(const void* bytes)
{
    uint64_t value;
    std::memcpy(&value, bytes, sizeof value);
    return LittleEndian64(value);
}

inline void PutU64(void* bytes, uint64_t value)
{
    value = LittleEndian64(value);
    std::memcpy(bytes, &value, sizeof value);
}

// The signed readings of the same words: two's complement, so the bytes do not differ.
inline int32_t GetI32(const void* bytes)
{
    return static_cast<int32_t>(GetU32(bytes));
}
inline int64_t GetI64(const void* bytes)
{
    return static_cast<int64_t>(GetU64(bytes));
}
inline void PutI32(void* bytes, int32_t value)
{
    PutU32(bytes, static_cast<uint32_t>(value));
}
inline void PutI64(void* bytes, int64_t value)
{
    PutU64(bytes, static_cast<uint64_t>(value));
}

// True when `length` bytes at `offset` lie inside a buffer of `size` bytes. The sum is taken in 64
// bits, so that no pair of 32-bit words from a file can wrap it.
inline bool BytesInside(uint32_t offset, uint32_t length, uint32_t size)
{
    return static_cast<uint64_t>(offset) + length <= size;
}
