// version.h: the version of a table, a number in a stanza file of its own.
#pragma once

#include <cstdint>

// Writes the version file. Kept: it is written under the table's name and read under the name of
// the table's files.
[[nodiscard]] bool IndxSetTableVersion(const char* name, void* oDatabase, uint32_t version);

// Whether a table whose version is `stored` may be opened by a host that wants `wanted`. False with
// a failure trace.
[[nodiscard]] bool IndxVersionFits(uint32_t stored, uint32_t wanted);
