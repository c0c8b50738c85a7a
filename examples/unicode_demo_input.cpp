#include "unicode_demo_input.h"

#include <charconv>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include <csv.h>

namespace {

// Columns of UnicodeData.txt.
enum Column {
    CODE_POINT = 0,
    NAME = 1,
    CATEGORY = 2,
    BIDIRECTIONAL = 4,
    DECOMPOSITION = 5,
    MIRRORED = 9,
    UPPER_CASE = 12,
    LOWER_CASE = 13,
    COLUMNS = 15
};

using Line = std::vector<std::string>;

struct Reader {
    size_t limit = 0;
    Line line;
    std::vector<Character> characters;
    std::string error;
};

bool ParseHexadecimal(const std::string& text, uint32_t& value)
{
    const char* end = text.data() + text.size();
    auto result = std::from_chars(text.data(), end, value, 16);
    return result.ec == std::errc() && result.ptr == end;
}

// 32 bytes that differ for any two lines that differ: four hash chains with different seeds. Told
// apart by chance, not safe against someone who wants two lines to agree.
UniqueId Digest(const Line& line)
{
    UniqueId digest;
    for (uint32_t part = 0; part < 4; ++part) {
        uint64_t hash = 0xcbf29ce484222325u + part * 0x9e3779b97f4a7c15u;
        for (const std::string& field : line) {
            for (char c : field)
                hash = (hash ^ uint8_t(c)) * 0x100000001b3u;
            hash = (hash ^ 0x100u) * 0x100000001b3u; // no byte: the end of a field
        }
        hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9u;
        hash = (hash ^ (hash >> 27)) * 0x94d049bb133111ebu;
        hash ^= hash >> 31;
        for (uint32_t i = 0; i < 8; ++i)
            digest.b[part * 8 + i] = uint8_t(hash >> (8 * i));
    }
    return digest;
}

bool ParseLine(const Line& line, Character& character)
{
    uint32_t codePoint = 0, upper = 0, lower = 0;
    if (line.size() != COLUMNS || !ParseHexadecimal(line[CODE_POINT], codePoint))
        return false;
    if (!line[UPPER_CASE].empty() && !ParseHexadecimal(line[UPPER_CASE], upper))
        return false;
    if (!line[LOWER_CASE].empty() && !ParseHexadecimal(line[LOWER_CASE], lower))
        return false;
    character.codePoint = int32_t(codePoint);
    character.name = line[NAME];
    character.category = line[CATEGORY];
    character.bidirectional = line[BIDIRECTIONAL];
    character.decomposition = line[DECOMPOSITION];
    character.caseMapping = int64_t(uint64_t(upper) << 32 | lower);
    character.digest = Digest(line);
    character.bMirrored = line[MIRRORED] == "Y";
    return true;
}

bool Full(const Reader& reader)
{
    return !reader.error.empty() || (reader.limit && reader.characters.size() == reader.limit);
}

void OnField(void* text, size_t length, void* context)
{
    static_cast<Reader*>(context)->line.emplace_back(static_cast<const char*>(text), length);
}

void OnLine(int, void* context)
{
    Reader& reader = *static_cast<Reader*>(context);
    Character character;
    if (!Full(reader)) {
        if (ParseLine(reader.line, character))
            reader.characters.push_back(std::move(character));
        else
            reader.error = "unexpected line " + std::to_string(reader.characters.size() + 1);
    }
    reader.line.clear();
}

} // namespace

std::vector<Character> ReadUnicodeData(const std::string& path, size_t limit)
{
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "rb"), &fclose);
    if (!file)
        throw std::runtime_error("cannot open " + path + " (Debian's package unicode-data has it)");

    csv_parser parser;
    if (csv_init(&parser, 0) != 0)
        throw std::runtime_error("cannot start the reader");
    csv_set_delim(&parser, ';');
    Reader reader;
    reader.limit = limit;
    char bytes[65536];
    size_t count = 0;
    while (!Full(reader) && (count = fread(bytes, 1, sizeof bytes, file.get())) > 0) {
        if (csv_parse(&parser, bytes, count, OnField, OnLine, &reader) != count)
            reader.error = csv_strerror(csv_error(&parser));
    }
    if (!Full(reader))
        csv_fini(&parser, OnField, OnLine, &reader);
    csv_free(&parser);
    if (reader.error.empty() && ferror(file.get()))
        reader.error = "read failure";
    if (!reader.error.empty())
        throw std::runtime_error(path + ": " + reader.error);
    return std::move(reader.characters);
}
