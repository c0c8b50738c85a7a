// unicode_demo_input.h: the lines of UnicodeData.txt as values of the host program's own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "nim/unique.h"

struct Character {
    int32_t codePoint = 0;
    std::string name;
    std::string category;      // "Lu", "Nd", ...
    std::string bidirectional; // "L", "EN", ...
    std::string decomposition; // may be empty
    int64_t caseMapping = 0;   // simple upper case in the high half, lower case in the low half
    UniqueId digest = {};      // of all fields of the line
    bool bMirrored = false;
};

// The first `limit` lines of the file (0 = all). Throws std::runtime_error, naming the line, when
// the file cannot be read or a line is not what it has to be.
std::vector<Character> ReadUnicodeData(const std::string& path, size_t limit);
