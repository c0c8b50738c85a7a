// stanza.cpp: stanza files: reading one stanza, and putting one into a file.
//
// There is one reader of lines, which both uses share. Nothing of a file is believed: its size is
// bounded, every line is found by its end, and a line that is neither a header nor a key (one that
// holds a NUL, for one) is passed over when read and kept when written.
//
// Invariants: a name or value in memory is one that comes back from a file as it is; a key belongs
// to at most one stanza.
#include "nim/stanza.h"

#include "memwide.h"
#include "nim/fault.h"
#include "nim/filesys.h"
#include "nim/mem.h"
#include "nim/path.h"
#include "nim/str.h"
#include "nim/trace.h"
#include "refusal.h"
#include "sys.h"

#include <cstring>

// What has become of a key while a file is rewritten.
enum KeyState : uint32_t { KEY_MISSING, KEY_FOUND, KEY_WRITTEN };

struct StnzKey {
    char* name;
    char* value;
    Stnz* owner; // null: the caller's
    StnzKey* next;
    KeyState state;
};

struct Stnz {
    char* name;
    StnzKey* keys; // in order
};

constexpr char TAG[] = "STANZA        ";
constexpr int32_t LEVEL_FAILURE = -1;

constexpr int64_t STANZA_FILE_MOST = 16 << 20;
constexpr char STANZA_MARK[] = "\xEF\xBB\xBF"; // UTF-8 mark
constexpr uint32_t STANZA_MARK_SIZE = sizeof STANZA_MARK - 1;

// ---- text ----

namespace {
// Bytes of a file, without an end of their own.
struct Span {
    const char* start;
    uint32_t size;
};

enum LineKind { LINE_OTHER, LINE_HEADER, LINE_KEY };

struct Line {
    LineKind kind;
    Span whole; // with its line end
    Span name;  // of the header or the key
    Span value; // of the key
};

// The content of a file that is being made. The room was counted beforehand.
struct Output {
    char* bytes;
    uint32_t size;
};
} // namespace

// A carriage return at the end of a line is a blank there, so that both line ends read alike.
static bool StnzIsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

static Span StnzTrim(const char* start, const char* end)
{
    while (start < end && StnzIsBlank(*start))
        ++start;
    while (start < end && StnzIsBlank(end[-1]))
        --end;
    return {start, static_cast<uint32_t>(end - start)};
}

static const char* StnzFindByte(Span span, char c)
{
    return static_cast<const char*>(memchr(span.start, c, span.size));
}

static bool StnzSameName(Span span, const char* name)
{
    return strlen(name) == span.size && StrCompareRangeNoCase(span.start, name, span.size) == 0;
}

// Takes the first line off the text. False at its end.
static bool StnzNextLine(Line* line, Span* text)
{
    if (text->size == 0)
        return false;
    const char* lineEnd = StnzFindByte(*text, '\n');
    const char* next = lineEnd ? lineEnd + 1 : text->start + text->size;
    *line = {LINE_OTHER, {text->start, static_cast<uint32_t>(next - text->start)}, {}, {}};
    text->start = next;
    text->size -= line->whole.size;

    const Span content = StnzTrim(line->whole.start, lineEnd ? lineEnd : next);
    if (content.size == 0 || content.start[0] == '#' || content.start[0] == ';' ||
        StnzFindByte(content, 0))
        return true;
    if (content.start[0] == '[') {
        if (const char* close = StnzFindByte(content, ']')) {
            line->kind = LINE_HEADER;
            line->name = StnzTrim(content.start + 1, close);
        }
    } else if (const char* equals = StnzFindByte(content, '=')) {
        line->name = StnzTrim(content.start, equals);
        line->value = StnzTrim(equals + 1, content.start + content.size);
        line->kind = line->name.size > 0 ? LINE_KEY : LINE_OTHER;
    }
    return true;
}

// The text of a file behind its mark.
static Span StnzSkipMark(Span file)
{
    if (file.size < STANZA_MARK_SIZE || memcmp(file.start, STANZA_MARK, STANZA_MARK_SIZE) != 0)
        return file;
    return {file.start + STANZA_MARK_SIZE, file.size - STANZA_MARK_SIZE};
}

// Moves on behind the first header of this name. False when there is none.
static bool StnzFindHeader(Line* line, Span* text, const char* name)
{
    while (StnzNextLine(line, text))
        if (line->kind == LINE_HEADER && StnzSameName(line->name, name))
            return true;
    return false;
}

// ---- files ----

// The bytes of a file, freed by the caller. Null when it cannot be read or is too large; what the
// system refuses has been traced below.
static char* StnzReadFile(uint32_t* size, const char* path)
{
    *size = 0;
    void* handle;
    if (!FileSysOpen(&handle, path, FILE_MODE_READ))
        return nullptr;
    int64_t length = 0;
    void* bytes = nullptr;
    if (FileSysGetLength(&length, handle) && length > STANZA_FILE_MOST) {
        NIM_TRACE(TAG, 1, LEVEL_FAILURE, "'%s' is too large to be a stanza file", path);
    } else {
        const uint32_t wanted = static_cast<uint32_t>(length);
        bytes = MemAllocateUncleared(wanted, MemGetDefaultPoolId());
        // A short count would be a file that shrinks under our hands: its rest must not get lost.
        if (bytes && (!FileSysRead(size, handle, bytes, wanted) || *size != wanted))
            MemFree(bytes);
    }
    FileSysClose(&handle);
    return static_cast<char*>(bytes);
}

static bool StnzWriteFile(const char* path, const Output* output)
{
    void* handle;
    if (!FileSysOpen(&handle, path, FILE_MODE_EMPTY))
        return false;
    uint32_t count;
    const bool written =
        FileSysWrite(&count, handle, output->bytes, output->size) && count == output->size;
    // Some file systems tell only here that the bytes found no room.
    return FileSysClose(&handle) && written;
}

// The new content into the temporary file, and that in the place of the file.
static bool StnzReplaceFile(const char* path, const char* temporary, const Output* output)
{
    if (StnzWriteFile(temporary, output)) {
        if (SysReplaceFile(temporary, path))
            return true;
        TraceRefusal(__LINE__, SysLastError(), "put a new file in the place of", path);
    }
    // Opening it may be what failed: a directory that stands there is not removed by this.
    SysRemoveFile(temporary);
    return false;
}

// ---- keys and stanzas in memory ----

// Whether a text comes back from a file as it is, given the bytes that must not be in it.
static bool StnzTextHolds(const char* text, const char* forbidden)
{
    const size_t size = strlen(text);
    if (size > static_cast<size_t>(STANZA_FILE_MOST) || text[strcspn(text, forbidden)] != 0)
        return false;
    return size == 0 || (!StnzIsBlank(text[0]) && !StnzIsBlank(text[size - 1]));
}

static bool StnzKeyNameHolds(const char* name)
{
    return name && *name && !strchr("#;[", name[0]) && StnzTextHolds(name, "=\r\n");
}

static void StnzFreeKey(StnzKey* key)
{
    MemFree(key->name);
    MemFree(key->value);
    MemFree(key);
}

// Takes over the value, also when it fails; a null value fails.
static StnzKey* StnzNewKey(Span name, char* value)
{
    const uint32_t pool = MemGetDefaultPoolId();
    StnzKey* key = static_cast<StnzKey*>(MemAllocateFromPool(sizeof(StnzKey), pool));
    if (!key) {
        MemFree(value);
        return nullptr;
    }
    key->value = value;
    key->name = StrDuplicateRangeIntoPool(name.start, pool, name.size);
    if (!key->name || !key->value) {
        StnzFreeKey(key);
        return nullptr;
    }
    return key;
}

static Stnz* StnzNew(const char* name)
{
    const uint32_t pool = MemGetDefaultPoolId();
    Stnz* stanza = static_cast<Stnz*>(MemAllocateFromPool(sizeof(Stnz), pool));
    if (stanza && !(stanza->name = StrDuplicateIntoPool(name, pool)))
        MemFree(stanza);
    return stanza;
}

// The place of the key of this name, or the place behind the last key.
static StnzKey** StnzFindKey(Stnz* stanza, Span name)
{
    StnzKey** place = &stanza->keys;
    while (*place && !StnzSameName(name, (*place)->name))
        place = &(*place)->next;
    return place;
}

static Span StnzSpan(const char* text)
{
    return {text, static_cast<uint32_t>(strlen(text))};
}

// Fills a stanza with the key lines up to the next header. False when out of memory.
static bool StnzTakeKeys(Stnz* stanza, Span text)
{
    const uint32_t pool = MemGetDefaultPoolId();
    StnzKey** end = &stanza->keys;
    Line line;
    while (StnzNextLine(&line, &text) && line.kind != LINE_HEADER) {
        if (line.kind != LINE_KEY)
            continue;
        StnzKey* key = StnzNewKey(
            line.name, StrDuplicateRangeIntoPool(line.value.start, pool, line.value.size));
        if (!key)
            return false;
        // A later key of the same name is kept behind the first, which is the one that is found:
        // looking for it here would take the square of the number of lines.
        key->owner = stanza;
        *end = key;
        end = &key->next;
    }
    return true;
}

// The stanza in the bytes of a file.
static uint32_t StnzTake(Stnz** out, Span file, const char* name)
{
    Span text = StnzSkipMark(file);
    Line line;
    if (!StnzFindHeader(&line, &text, name))
        return STNZ_NO_STANZA;
    *out = StnzNew(name);
    if (*out && !StnzTakeKeys(*out, text))
        StnzRelease(out);
    return *out ? STNZ_READ : STNZ_UNREAD; // out of memory
}

uint32_t StnzReadStanzaFromFile(Stnz** out, const char* path, const char* name)
{
    if (!out)
        return STNZ_UNREAD;
    *out = nullptr;
    if (!path || !*path || !name || FaultFails(FAULT_STNZ_LOAD, path))
        return STNZ_UNREAD;
    // A file that is certainly not there is told apart before it is opened: an open may fail for
    // many reasons.
    if (PathKind(path) == PATH_ABSENT)
        return STNZ_NO_FILE;
    uint32_t size;
    char* bytes = StnzReadFile(&size, path);
    if (!bytes)
        return STNZ_UNREAD;
    const uint32_t answer = StnzTake(out, {bytes, size}, name);
    MemFree(bytes);
    return answer;
}

NimBool StnzLoadStanzaFromFile(Stnz** out, const char* path, uint32_t, const char* name)
{
    return StnzReadStanzaFromFile(out, path, name) == STNZ_READ;
}

NimBool StnzCreate(Stnz** out, uint32_t, const char* name, uint32_t)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!name || !*name || !StnzTextHolds(name, "]\r\n"))
        return FALSE;
    *out = StnzNew(name);
    return *out != nullptr;
}

const char* StnzGetString(const Stnz* stanza, const char* key)
{
    if (!stanza || !key)
        return nullptr;
    for (const StnzKey* each = stanza->keys; each; each = each->next)
        if (StrCompareNoCase(each->name, key) == 0)
            return each->value;
    return nullptr;
}

// An optional sign and digits, nothing else, from -2^31 to 2^32 - 1.
static bool StnzParseInteger(int64_t* value, const char* text)
{
    const bool negative = *text == '-';
    if (*text == '-' || *text == '+')
        ++text;
    if (!*text)
        return false;
    int64_t sum = 0;
    for (; *text; ++text) {
        if (*text < '0' || *text > '9')
            return false;
        sum = sum * 10 + (*text - '0');
        if (sum > UINT32_MAX)
            return false;
    }
    *value = negative ? -sum : sum;
    return *value >= INT32_MIN;
}

NimBool StnzGetInteger(Stnz* stanza, const char* key, int32_t dflt, int32_t* value)
{
    if (!value)
        return FALSE;
    *value = dflt;
    if (!stanza || !key)
        return FALSE;
    const char* text = StnzGetString(stanza, key);
    if (!text)
        return TRUE;
    int64_t number;
    if (!StnzParseInteger(&number, text))
        return FALSE;
    *value = static_cast<int32_t>(static_cast<uint32_t>(number));
    return TRUE;
}

NimBool StnzCreateKeyFromInteger(StnzKey** out, const char* key, int32_t value)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!StnzKeyNameHolds(key))
        return FALSE;
    *out = StnzNewKey(StnzSpan(key), StrFromInteger(value, MemGetDefaultPoolId()));
    return *out != nullptr;
}

NimBool StnzCreateKeyFromString(StnzKey** out, const char* key, const char* value)
{
    if (!out)
        return FALSE;
    *out = nullptr;
    if (!StnzKeyNameHolds(key) || !value || !StnzTextHolds(value, "\r\n"))
        return FALSE;
    *out = StnzNewKey(StnzSpan(key), StrDuplicateIntoPool(value, MemGetDefaultPoolId()));
    return *out != nullptr;
}

NimBool StnzAddKeyToStanza(Stnz* stanza, StnzKey* key)
{
    if (!stanza || !key || key->owner)
        return FALSE;
    StnzKey** place = StnzFindKey(stanza, StnzSpan(key->name));
    if (StnzKey* old = *place) {
        key->next = old->next;
        StnzFreeKey(old);
    }
    *place = key;
    key->owner = stanza;
    return TRUE;
}

void StnzReleaseKey(StnzKey** key)
{
    if (!key)
        return;
    if (*key && !(*key)->owner)
        StnzFreeKey(*key);
    *key = nullptr;
}

void StnzRelease(Stnz** stanza)
{
    if (!stanza)
        return;
    Stnz* gone = *stanza;
    *stanza = nullptr;
    if (!gone)
        return;
    while (StnzKey* key = gone->keys) {
        gone->keys = key->next;
        StnzFreeKey(key);
    }
    MemFree(gone->name);
    MemFree(gone);
}

// ---- rewriting a file ----

static void StnzPut(Output* output, const char* bytes, size_t size)
{
    memcpy(output->bytes + output->size, bytes, size);
    output->size += static_cast<uint32_t>(size);
}

static void StnzPutText(Output* output, const char* text)
{
    StnzPut(output, text, strlen(text));
}

static void StnzPutKey(Output* output, const StnzKey* key)
{
    StnzPutText(output, key->name);
    StnzPut(output, " = ", 3);
    StnzPutText(output, key->value);
    StnzPut(output, "\n", 1);
}

// Ends the last line of the file, which may lack its end, ahead of a new one.
static void StnzEndLine(Output* output)
{
    if (output->size > 0 && output->bytes[output->size - 1] != '\n')
        StnzPut(output, "\n", 1);
}

static void StnzPutMissingKeys(Output* output, const Stnz* stanza)
{
    for (const StnzKey* key = stanza->keys; key; key = key->next) {
        if (key->state == KEY_MISSING) {
            StnzEndLine(output);
            StnzPutKey(output, key);
        }
    }
}

// Finds the keys that the file's stanza has lines for. Returns the line behind which the others go:
// the last of them, else the header.
static const char* StnzMarkKeys(Stnz* stanza, const Line* header, Span text)
{
    const char* last = header->whole.start;
    Line line;
    while (StnzNextLine(&line, &text) && line.kind != LINE_HEADER) {
        StnzKey* key = line.kind == LINE_KEY ? *StnzFindKey(stanza, line.name) : nullptr;
        if (key && key->state == KEY_MISSING) {
            key->state = KEY_FOUND;
            last = line.whole.start;
        }
    }
    return last;
}

static void StnzPutStanzaLine(Output* output, Stnz* stanza, const Line* line)
{
    if (line->kind != LINE_KEY) {
        StnzPut(output, line->whole.start, line->whole.size);
        return;
    }
    // The first line of a key is rewritten; a second one, and a key that is not wanted, go.
    StnzKey* key = *StnzFindKey(stanza, line->name);
    if (key && key->state == KEY_FOUND) {
        key->state = KEY_WRITTEN;
        StnzPutKey(output, key);
    }
}

// The file with its stanza in the new form; `rest` is what follows the stanza's header.
static void StnzPutReplaced(Output* output, Stnz* stanza, Span file, const Line* header, Span rest)
{
    const char* last = StnzMarkKeys(stanza, header, rest);
    StnzPut(output, file.start, static_cast<size_t>(header->whole.start - file.start));
    Line line = *header;
    bool more;
    do {
        StnzPutStanzaLine(output, stanza, &line);
        if (line.whole.start == last)
            StnzPutMissingKeys(output, stanza);
        more = StnzNextLine(&line, &rest);
    } while (more && line.kind != LINE_HEADER);
    if (more) {
        StnzPut(output, line.whole.start, line.whole.size);
        StnzPut(output, rest.start, rest.size);
    }
}

// The file with the stanza behind everything else, a blank line between.
static void StnzPutAppended(Output* output, const Stnz* stanza, Span file)
{
    StnzPut(output, file.start, file.size);
    if (StnzSkipMark(file).size > 0) {
        StnzEndLine(output);
        StnzPut(output, "\n", 1);
    }
    StnzPut(output, "[", 1);
    StnzPutText(output, stanza->name);
    StnzPut(output, "]\n", 2);
    StnzPutMissingKeys(output, stanza);
}

// More bytes than the new file can have: the old one, two line ends, header and keys.
static uint64_t StnzRoom(const Stnz* stanza, Span file)
{
    uint64_t room = file.size + 2 + strlen(stanza->name) + 3;
    for (const StnzKey* key = stanza->keys; key; key = key->next)
        room += strlen(key->name) + 3 + strlen(key->value) + 1;
    return room;
}

static bool StnzRewriteFile(Stnz* stanza, const char* path, const char* temporary, Span file)
{
    const uint64_t room = StnzRoom(stanza, file);
    if (room > static_cast<uint64_t>(STANZA_FILE_MOST)) // it could not be read again
        return false;
    Output output = {nullptr, 0};
    output.bytes = static_cast<char*>(
        MemAllocateUncleared(static_cast<uint32_t>(room), MemGetDefaultPoolId()));
    if (!output.bytes)
        return false;
    for (StnzKey* key = stanza->keys; key; key = key->next)
        key->state = KEY_MISSING;
    Span text = StnzSkipMark(file);
    Line header;
    if (StnzFindHeader(&header, &text, stanza->name))
        StnzPutReplaced(&output, stanza, file, &header, text);
    else
        StnzPutAppended(&output, stanza, file);
    const bool good = StnzReplaceFile(path, temporary, &output);
    MemFree(output.bytes);
    return good;
}

static bool StnzReplaceStanza(Stnz* stanza, const char* path, const char* temporary)
{
    if (FaultFails(FAULT_STNZ_SAVE, path))
        return false;
    // Only a file that is certainly not there counts as empty: anything else that cannot be read
    // would be lost by replacing it.
    if (PathKind(path) == PATH_ABSENT)
        return StnzRewriteFile(stanza, path, temporary, {"", 0});
    uint32_t size;
    char* bytes = StnzReadFile(&size, path);
    if (!bytes)
        return false;
    const bool good = StnzRewriteFile(stanza, path, temporary, {bytes, size});
    MemFree(bytes);
    return good;
}

// The path with `between` ahead of its last name and ".tmp" behind it; null when out of memory.
static char* StnzTemporary(const char* path, const char* between)
{
    constexpr char TAIL[] = ".tmp";
    const char* name = path + strlen(path);
    while (name > path && !SysIsSeparator(name[-1]))
        --name;
    char* temporary = static_cast<char*>(
        MemAllocateWideUncleared(uint64_t{strlen(path)} + strlen(between) + sizeof TAIL));
    if (!temporary)
        return nullptr;
    Output text = {temporary, 0};
    StnzPut(&text, path, static_cast<size_t>(name - path));
    StnzPutText(&text, between);
    StnzPutText(&text, name);
    StnzPut(&text, TAIL, sizeof TAIL); // with its NUL
    return temporary;
}

static NimBool StnzReplaceThrough(Stnz* stanza, const char* path, const char* between)
{
    if (!stanza || !path || !*path)
        return FALSE;
    char* temporary = StnzTemporary(path, between);
    const NimBool good = temporary && StnzReplaceStanza(stanza, path, temporary);
    MemFree(temporary);
    return good;
}

NimBool StnzReplaceStanzaInFile(Stnz* stanza, const char* path)
{
    return StnzReplaceThrough(stanza, path, "");
}

NimBool StnzReplaceStanzaViaParent(Stnz* stanza, const char* path)
{
    return StnzReplaceThrough(stanza, path, "../"); // both systems take this separator
}
