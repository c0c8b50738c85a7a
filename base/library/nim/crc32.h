// crc32.h: the CRC-32 of IEEE 802.3 (reflected, polynomial 0xEDB88320), eight bytes a step. The
// tables are made at compile time.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "words are read as they stand in memory");

namespace crc32 {

using Tables = std::array<std::array<uint32_t, 256>, 8>;

// Table k holds the effect of a byte that has k more bytes behind it in the same step.
constexpr Tables MakeTables()
{
    Tables tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = value >> 1 ^ (value & 1 ? 0xEDB88320u : 0);
        tables[0][byte] = value;
    }
    for (size_t k = 1; k < tables.size(); ++k) {
        for (uint32_t byte = 0; byte < 256; ++byte) {
            uint32_t before = tables[k - 1][byte];
            tables[k][byte] = before >> 8 ^ tables[0][before & 255];
        }
    }
    return tables;
}

inline constexpr Tables TABLES = MakeTables();

inline uint32_t Of(const void* bytes, size_t size)
{
    const auto* at = static_cast<const uint8_t*>(bytes);
    uint32_t crc = 0xFFFFFFFFu;
    for (; size >= 8; size -= 8, at += 8) {
        uint32_t low;
        uint32_t high;
        memcpy(&low, at, 4);
        memcpy(&high, at + 4, 4);
        low ^= crc;
        crc = TABLES[7][low & 255] ^ TABLES[6][low >> 8 & 255] ^ TABLES[5][low >> 16 & 255] ^
              TABLES[4][low >> 24] ^ TABLES[3][high & 255] ^ TABLES[2][high >> 8 & 255] ^
              TABLES[1][high >> 16 & 255] ^ TABLES[0][high >> 24];
    }
    for (; size > 0; --size, ++at)
        crc = crc >> 8 ^ TABLES[0][(crc ^ *at) & 255];
    return ~crc;
}

} // namespace crc32
