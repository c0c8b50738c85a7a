// bytes.h: little-endian integers in byte buffers, the one pair of helpers per width that every
// format of the library goes through. No alignment is asked of the address, and no check is made:
// the caller has made sure that the bytes lie inside its buffer (BytesInside). Each helper compiles
// to a single move.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

// The one place that says so. Texts and checksums, too, are read word by word as they stand in
// memory; both systems run on such machines only.
static_assert(std::endian::native == std::endian::little, "the first byte of a word is its lowest");

inline uint32_t GetU32(const void* bytes)
{
    uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

inline void PutU32(void* bytes, uint32_t value)
{
    std::memcpy(bytes, &value, sizeof value);
}

inline uint64_t GetU64(const void* bytes)
{
    uint64_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

inline void PutU64(void* bytes, uint64_t value)
{
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
