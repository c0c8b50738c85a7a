// control.cpp: the control block of a block file: opening, the user data, flushing, closing.
//
// A block file handle is the control block object; it owns the open file and the map of the blocks
// in memory. It is written last, at the end of a release: the free chain and the count on disk
// never speak of blocks that are not there yet.

#include <algorithm>
#include <cstring>

#include "database/block.h"
#include "database/block/blockstore.h"
#include "database/block/shapes.h"
#include "database/logids.h"
#include "database/trace.h"
#include "nim/nim.h"
#include "nim/scope.h"

using namespace trace_level;

namespace {

constexpr uint32_t OPEN_MODE = 261; // read and write, created when absent, never truncated

void BlckControlBlockDestructor(void* oBlck)
{
    auto* pControl = static_cast<BlckControl*>(oBlck);
    BlckFlushControlBlock(pControl);
    FileSysClose(&pControl->hFile);
}

// Makes a control block that was read harmless: its destructor would flush and close through
// words that came from the file.
void DisarmControl(BlckControl* pControl)
{
    pControl->bModified = FALSE;
    pControl->hFile = FILE_NONE;
    pControl->oMap = nullptr;
}

// Takes the image read (count bytes of it) as the state of the open file.
bool AdoptHeader(BlckControl* pControl, uint32_t count)
{
    if (count == 0) {
        BLCK_TRACE(DETAIL, "Set free chain empty");
        pControl->magic = BLCK_FILE_MAGIC;
        pControl->blockSize = BLCK_BLOCK_SIZE;
        pControl->blockCount = 0;
        pControl->tFreeChain = BLCK_NO_BLOCK;
        pControl->bModified = TRUE;
        return true;
    }
    if (count == BLCK_CONTROL_SIZE && pControl->magic == BLCK_FILE_MAGIC)
        return true;
    BLCK_TRACE(ALWAYS, "Invalid control block (%ld)", pControl->magic);
    return false;
}

// Room for the control block of a new file. Without it, a disk with little room would take half of
// the control block at the first release, and the file could never be opened again.
bool ReserveControl(void* hFile)
{
    if (FileSysReserve(hFile, 0, BLCK_CONTROL_SIZE))
        return true;
    BLCK_TRACE(ALWAYS, "No room in the file for the control block");
    return false;
}

// The control block of an open file, with one reference; null when the file holds none.
BlckControl* ReadControl(void* hFile)
{
    ObjTemplate* tmpl = nullptr;
    if (!ObjTemplateCreateInternal(
            &tmpl, sizeof(BlckControl), BLCK_CONTROL_MAGIC, "i;i;i;i;b;p;o;n16128;",
            BlckControlBlockDestructor))
        return nullptr;
    HeldObject<BlckControl> control;
    if (!ObjTemplateCreateInstanceFromPool(control.OutVoid(), tmpl, MemGetDefaultPoolId()))
        return nullptr;
    uint32_t count = 0;
    const bool bRead =
        FileSysSeekStart(hFile) && FileSysRead(&count, hFile, control.get(), BLCK_CONTROL_SIZE);
    bool bSound = false;
    if (bRead) {
        BLCK_TRACE(DETAIL, "Read '%ld' of '%ld' byte header", count, BLCK_CONTROL_SIZE);
        bSound = AdoptHeader(control.get(), count) && (count > 0 || ReserveControl(hFile));
    }
    control->dirtyTo = BLCK_CONTROL_SIZE;
    const uint32_t bModified = control->bModified;
    DisarmControl(control.get());
    if (!bSound || !ObjMapCreateInternal(
                       &control->oMap, BLCK_BLOCK_MAGIC, BLCK_MAP_SIZE_HINT, BlckCompareBlocks,
                       BlckCompareBlockId, 0))
        return nullptr;
    ObjMapSetIntegerKey(control->oMap, offsetof(BlckBlock, tId));
    control->bModified = bModified;
    control->hFile = hFile;
    return control.Take();
}

} // namespace

NimBool BlckFileOpen(void** ppBlck, const char* path)
{
    BLCK_TRACE(DETAIL, "BlckFileOpen(%p, %s)", static_cast<void*>(ppBlck), path);
    NimBool bOpened = FALSE;
    void* hFile = FILE_NONE;
    if (ppBlck && !StrIsEmpty(path) && FileSysOpen(&hFile, path, OPEN_MODE)) {
        HeldObject<BlckControl> control(ReadControl(hFile));
        bOpened = control ? TRUE : FALSE;
        if (bOpened)
            *ppBlck = control.Take();
        else
            FileSysClose(&hFile);
    }
    BLCK_TRACE(
        OPENED, "%s = BlckFileOpen(%p, %s)", TraceTruth(bOpened), static_cast<void*>(ppBlck), path);
    return bOpened;
}

uint32_t BlckSize(const void*)
{
    return BLCK_BLOCK_SIZE;
}

void* BlckUserData(void* oBlck)
{
    BlckControl* pControl = BlckAsControl(oBlck);
    return pControl ? pControl->userData : nullptr;
}

uint32_t BlckUserDataLength(const void* oBlck)
{
    return BlckAsControl(oBlck) ? BLCK_USER_DATA_SIZE : 0;
}

void BlckUserDataModified(void* oBlck)
{
    BlckUserDataWillChange(oBlck, BLCK_USER_DATA_SIZE);
}

void BlckUserDataWillChange(void* oBlck, uint32_t size)
{
    if (BlckControl* pControl = BlckAsControl(oBlck)) {
        BLCK_TRACE(DETAIL, "Mark user data modified");
        pControl->bModified = TRUE;
        const uint32_t end = static_cast<uint32_t>(offsetof(BlckControl, userData)) +
                             std::min(size, BLCK_USER_DATA_SIZE);
        pControl->dirtyTo = std::max(pControl->dirtyTo, end);
    }
}

int32_t BlckBlockCount(const void* oBlck)
{
    const BlckControl* pControl = BlckAsControl(oBlck);
    return pControl ? pControl->blockCount : -1;
}

uint32_t BlckBlockLimit(const void* oBlck)
{
    const BlckControl* pControl = BlckAsControl(oBlck);
    if (!pControl || pControl->blockCount <= 0)
        return 0;
    int64_t length = 0;
    FileSysGetLength(&length, pControl->hFile);
    const int64_t inFile = (length + BLCK_BLOCK_SIZE - 1) / BLCK_BLOCK_SIZE;
    const int64_t atMost = inFile + ObjMapCount(pControl->oMap);
    return static_cast<uint32_t>(std::min<int64_t>(pControl->blockCount, atMost));
}

void BlckFlushControlBlock(BlckControl* pControl)
{
    if (!pControl->bModified)
        return;
    uint32_t moved = 0;
    if (pControl->hFile == FILE_NONE) {
        BLCK_TRACE(ALWAYS, "Modified control block has no handle");
    } else if (!FileSysSeekStart(pControl->hFile)) {
        BLCK_TRACE(ALWAYS, "Failed to seek to begining of file");
    } else if (!FileSysWrite(&moved, pControl->hFile, pControl, pControl->dirtyTo)) {
        BLCK_TRACE(ALWAYS, "Failed to write control block to file");
    } else {
        pControl->bModified = FALSE; // after the write: the image on disk carries 1
        pControl->dirtyTo = offsetof(BlckControl, userData);
        return;
    }
    HeldMemory<char> dump;
    TraceDumpToString(dump.Out(), 0);
    LogMessageWithContextAs(
        LOG_CONTROL_FLUSH, dump.get(), "Failed to flush a database control block");
}

void BlckForgetChanges(void* oBlck)
{
    if (BlckControl* pControl = BlckAsControl(oBlck))
        pControl->bModified = FALSE;
}
