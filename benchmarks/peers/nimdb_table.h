// nimdb_table.h - the table that engine_nimdb.cpp makes, for those who open it themselves.
#pragma once
#include <cstdint>

#include <nim/unique.h>

constexpr uint32_t SAMPLE_MAGIC = 0xc8424e43;
constexpr const char* SAMPLE_FORMAT = "i;s;i;q;u;s;";
constexpr const char* SAMPLE_FIELDS = "Id, Name;Indexed, Size;Indexed, Stamp, Hash;Indexed, Note";
constexpr const char* SAMPLE_DATABASE = "bench";
constexpr const char* SAMPLE_TABLE = "samples";

// The objects of the table: the items of the format, as they lie in memory.
struct Sample {
    int32_t id;
    char* name;
    int32_t size;
    int64_t stamp;
    UniqueId hash;
    char* note;
};
