// names.h: the names that databases, tables and their files may have, and what stands where they
// lead.
#pragma once

#include <cstdint>

// Whether a name can be that of a table or of its files: one part of a path, and not one that leads
// to the directory itself or out of it. False with a failure trace that names it.
[[nodiscard]] bool IndxCheckFileName(const char* name);

// Whether a name leads to a directory below the home directory. It may lie deeper ("group/Data"):
// hosts that keep databases in groups make the group's directory themselves. False with a failure
// trace that names it.
[[nodiscard]] bool IndxCheckDatabaseName(const char* name);

enum class IndxPresence {
    Absent, // certainly no file; a directory is none either
    Present,
    Unknown // there may be one
};

// Looks for a file. Unknown comes with a failure trace that names the file: whoever gets it must
// neither create the file nor take something else for it.
[[nodiscard]] IndxPresence IndxLookFor(const char* directory, const char* fileName);
