// names.cpp: names of databases and of tables, before anything is made or opened under them, and
// the look for a file, with an answer of its own when the system gives none.
//
// Both separators count on both systems, so that a database can be copied from one to the other.

#include "database/index/schema/names.h"

#include "database/index/ground/runtime.h"
#include "nim/scope.h"

namespace {

bool IsSeparator(char c)
{
    return c == '/' || c == '\\';
}

// One part of a path, up to a separator or the end of the text.
struct Part {
    uint32_t length;
    uint32_t dots;
    uint32_t blanks;

    // One system drops dots and blanks at the end of a name: what consists of nothing else may mean
    // "." or ".." there.
    bool IsDotsOnly() const { return dots + blanks == length; }
};

Part MeasurePart(const char* text)
{
    Part part = {0, 0, 0};
    for (; text[part.length] && !IsSeparator(text[part.length]); ++part.length) {
        part.dots += text[part.length] == '.';
        part.blanks += text[part.length] == ' ';
    }
    return part;
}

bool IsLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool StaysBelowHome(const char* name)
{
    // An absolute path, in the ways of both systems. A drive alone would do: "C:Data" lies wherever
    // the process stands on that drive.
    if (!*name || IsSeparator(*name) || (IsLetter(name[0]) && name[1] == ':'))
        return false;
    for (;;) {
        const Part part = MeasurePart(name);
        if (part.dots > 1 && part.IsDotsOnly())
            return false;
        if (!name[part.length])
            return true;
        name += part.length + 1;
    }
}

} // namespace

bool IndxCheckFileName(const char* name)
{
    const Part part = MeasurePart(name);
    if (!part.IsDotsOnly() && !name[part.length])
        return true;
    INDX_TRACE_ERROR(INDX_ALWAYS, "'%s' cannot be the name of a table or of its files", name);
    return false;
}

bool IndxCheckDatabaseName(const char* name)
{
    if (StaysBelowHome(name))
        return true;
    INDX_TRACE_ERROR(INDX_ALWAYS, "'%s' is no name of a database below its home", name);
    return false;
}

IndxPresence IndxLookFor(const char* directory, const char* fileName)
{
    HeldMemory<char> path(PathBuild(directory, fileName, 0));
    // Without memory for the path nothing has been asked.
    uint32_t kind = PATH_UNKNOWN;
    if (path)
        kind = PathKind(path.get());
    if (kind == PATH_UNKNOWN) {
        INDX_TRACE_ERROR(
            INDX_ALWAYS, "Cannot tell whether '%s' exists", path ? path.get() : fileName);
        return IndxPresence::Unknown;
    }
    return kind == PATH_FILE ? IndxPresence::Present : IndxPresence::Absent;
}
