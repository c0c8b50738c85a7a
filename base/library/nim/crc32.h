// crc32.h: the CRC-32 of IEEE 802.3 (reflected, polynomial 0xEDB88320), eight bytes a step. The
// tables are made at compile time.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

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

// ---- the effect of a change ---------------------------------------------------------------------
//
// The sums of two messages of one length differ by what their difference alone would sum up to,
// started from 0: a remainder, which every byte behind the difference multiplies by x^8. So a sum
// can follow a change of four bytes without the message.

constexpr uint32_t ONE = 0x80000000u; // the polynomial 1, bits reflected

// The product of two remainders. No jumps: they would go either way every other time.
constexpr uint32_t Product(uint32_t left, uint32_t right)
{
    uint32_t product = 0;
    for (int bit = 0; bit < 32; ++bit) {
        product ^= right & (0u - (left >> 31));
        left <<= 1;
        right = right >> 1 ^ (0xEDB88320u & (0u - (right & 1)));
    }
    return product;
}

using Zeros = std::array<std::array<uint32_t, 256>, 4>;

// Entry [k][n] is x^(8 * n * 256^k): the effect of n * 256^k bytes of 0.
constexpr Zeros MakeZeros()
{
    Zeros zeros{};
    uint32_t one = ONE >> 8; // one step of the level
    for (auto& level : zeros) {
        level[0] = ONE;
        for (size_t n = 1; n < level.size(); ++n)
            level[n] = Product(level[n - 1], one);
        one = Product(level[255], one);
    }
    return zeros;
}

inline constexpr Zeros ZEROS = MakeZeros();

// What a sum changes by when four bytes with `behind` more bytes behind them change by `change`
// (old exclusive-or new, little-endian).
inline uint32_t OfChange(uint32_t change, uint32_t behind)
{
    uint32_t effect = TABLES[3][change & 255] ^ TABLES[2][change >> 8 & 255] ^
                      TABLES[1][change >> 16 & 255] ^ TABLES[0][change >> 24];
    for (size_t level = 0; behind != 0; ++level, behind >>= 8)
        effect = Product(effect, ZEROS[level][behind & 255]);
    return effect;
}

} // namespace crc32
