// file_bytes.h: whole files as byte strings, and little-endian words read by hand. Independent of
// the library's own file and byte-order code, so that a test cannot agree with it by accident.
#pragma once

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "support/utf8_path.h"

inline std::string ReadFileBytes(const std::string& path)
{
    std::ifstream in(Utf8Path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFileBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream out(Utf8Path(path), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    EXPECT_TRUE(out.flush().good()) << "cannot write " << path;
}

inline uint32_t U32At(const std::string& bytes, size_t offset)
{
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(static_cast<uint8_t>(bytes.at(offset + i))) << (8 * i);
    return value;
}

inline uint64_t U64At(const std::string& bytes, size_t offset)
{
    return U32At(bytes, offset) | static_cast<uint64_t>(U32At(bytes, offset + 4)) << 32;
}

inline void PutU32At(std::string& bytes, size_t offset, uint32_t value)
{
    for (size_t i = 0; i < 4; ++i)
        bytes.at(offset + i) = static_cast<char>(value >> (8 * i));
}
