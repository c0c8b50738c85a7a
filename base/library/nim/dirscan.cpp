// dirscan.cpp: the names in a directory, sorted.
//
// The names are gathered one behind the other in one growing piece of memory, sorted through an
// array of their starts, and handed out only after the directory has been closed: callbacks open
// files, make directories and scan in turn.
#include "nim/dirscan.h"

#include "memwide.h"
#include "nim/fault.h"
#include "refusal.h"
#include "sys.h"

#include <algorithm>
#include <cstring>

namespace {
struct NameList {
    char* text;     // the names, each with its NUL
    uint32_t size;  // bytes used
    uint32_t room;  // bytes there are
    uint32_t count; // names
    bool full;      // there was no memory for a name
};
} // namespace

// Room for `size` more bytes.
static bool DirMakeRoom(NameList* list, size_t size)
{
    if (size <= list->room - list->size)
        return true;
    const uint64_t room =
        std::max({uint64_t{4096}, uint64_t{list->room} * 2, list->size + uint64_t{size}});
    void* text = MemAllocateWideUncleared(room);
    if (!text)
        return false;
    if (list->size)
        memcpy(text, list->text, list->size);
    MemFree(list->text);
    list->text = static_cast<char*>(text);
    list->room = static_cast<uint32_t>(room);
    return true;
}

static bool DirTakeName(void* context, const char* name)
{
    NameList* list = static_cast<NameList*>(context);
    const size_t size = strlen(name) + 1;
    if (!DirMakeRoom(list, size)) {
        list->full = true; // which fails the scan
        return false;
    }
    memcpy(list->text + list->size, name, size);
    list->size += static_cast<uint32_t>(size);
    ++list->count;
    return true;
}

// The starts of the names in ascending order; null when out of memory.
static const char** DirSortNames(const NameList* list)
{
    const char** names = static_cast<const char**>(
        MemAllocateWideUncleared(uint64_t{list->count} * sizeof(const char*)));
    if (!names)
        return nullptr;
    const char* name = list->text;
    for (uint32_t i = 0; i < list->count; ++i) {
        names[i] = name;
        name += strlen(name) + 1;
    }
    // strcmp compares as unsigned bytes whatever the signedness of char.
    std::sort(
        names, names + list->count, [](const char* a, const char* b) { return strcmp(a, b) < 0; });
    return names;
}

// Gathers the names. DIRSCAN_DONE, or why not.
static uint32_t DirRead(NameList* list, const char* directory)
{
    if (FaultFails(FAULT_SCAN, directory))
        return DIRSCAN_UNREAD;
    if (SysScan(directory, DirTakeName, list))
        return DIRSCAN_DONE;
    const uint32_t reason = SysLastError();
    if (list->full)
        return DIRSCAN_UNREAD;
    TraceRefusalUnlessAbsent(__LINE__, reason, "scan", directory);
    // Asked about once more: the reason may also be that a file stands there.
    return SysErrorMeansAbsent(reason) && SysPathKind(directory) == SYS_ABSENT ? DIRSCAN_ABSENT
                                                                               : DIRSCAN_UNREAD;
}

// Hands the names over.
static uint32_t DirCall(
    const NameList* list, const char** names, const char* directory, DirScanCallback callback,
    void* context)
{
    for (uint32_t i = 0; i < list->count; ++i)
        if (callback(directory, names[i], context) != 1)
            return DIRSCAN_STOPPED;
    return DIRSCAN_DONE;
}

uint32_t DirScanOutcome(const char* directory, DirScanCallback callback, void* context)
{
    if (!directory || !*directory || !callback)
        return DIRSCAN_UNREAD;
    NameList list = {};
    uint32_t outcome = DirRead(&list, directory);
    const char** names = outcome == DIRSCAN_DONE ? DirSortNames(&list) : nullptr;
    if (names)
        outcome = DirCall(&list, names, directory, callback, context);
    else if (outcome == DIRSCAN_DONE)
        outcome = DIRSCAN_UNREAD; // out of memory
    MemFree(names);
    MemFree(list.text);
    return outcome;
}

NimBool DirScan(const char* directory, DirScanCallback callback, void* context)
{
    return DirScanOutcome(directory, callback, context) == DIRSCAN_DONE;
}

NimBool DirScanDirect(const char* directory, DirScanCallback callback, void* context)
{
    return DirScan(directory, callback, context);
}
