// block.cpp: the only code that touches a block file.
//
// A block file handle is the control block object; it owns the open file and the map of the blocks
// in memory. Nothing reaches the file between the start of an operation and its release, except by
// an explicit BlckFlushBlock. A release writes blocks first, in ascending order of their ids, and
// the control block last: the free chain and the count on disk never speak of blocks that are not
// there yet. What the blocks hold is the index's business.
//
// Most of an operation's time goes into moving blocks of 16 KiB in and out. So a caller may bring
// in the two ends of a block alone, and tell up to where it has changed it: what was not read, or
// not changed, is not written, and stays in the file as it is.
//
// A new block's space is reserved in the file when it is handed out, while the operation can still
// be backed out: a full disk met at the release would already have overwritten the old half of a
// split node.

#include "database/block.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "database/block/blockstore.h"
#include "nim/bytes.h"
#include "nim/nim.h"
#include "nim/scope.h"

namespace {

constexpr const char* TAG = "BLCK        ";
constexpr int32_t ALWAYS = -1;
constexpr int32_t OPENED = 3;
constexpr int32_t DETAIL = 4;
#define BLCK_TRACE(level, ...) NIM_TRACE(TAG, 0, (level), __VA_ARGS__)

constexpr uint32_t OPEN_MODE = 261; // read and write, created when absent, never truncated
constexpr uint32_t LOG_CLASS = 96;
constexpr uint32_t LOG_CONTROL_FLUSH = 1298;
constexpr uint32_t LOG_BLOCK_FLUSH = 1299;
constexpr uint32_t LOG_BLOCK_DISCARD = 1300;
constexpr uint32_t LINK_SIZE = 4; // a free block's link to the next one

const char* Truth(NimBool b)
{
    return b ? "TRUE" : "FALSE";
}

uint32_t Pool()
{
    static const uint32_t pool = MemGetDefaultPoolId();
    return pool;
}

BlckControl* AsControl(const void* oBlck)
{
    return ObjGetMagic(oBlck) == BLCK_CONTROL_MAGIC
               ? static_cast<BlckControl*>(const_cast<void*>(oBlck))
               : nullptr;
}

// The block object around a block's data.
BlckBlock* BlockOf(const void* pData)
{
    return reinterpret_cast<BlckBlock*>(
        const_cast<uint8_t*>(static_cast<const uint8_t*>(pData)) - offsetof(BlckBlock, data));
}

BlckBlock* AsBlock(const void* pData)
{
    if (!pData)
        return nullptr;
    BlckBlock* pBlock = BlockOf(pData);
    return ObjGetMagic(pBlock) == BLCK_BLOCK_MAGIC ? pBlock : nullptr;
}

// The id is a signed 32-bit number, to which one is added before it is widened.
int64_t OffsetOf(int32_t tId)
{
    const int32_t place = static_cast<int32_t>(static_cast<uint32_t>(tId) + 1);
    return static_cast<int64_t>(place) * BLCK_BLOCK_SIZE;
}

// What has changed reaches at least so far.
void ChangeTo(BlckBlock* pBlock, uint32_t size)
{
    pBlock->changedTo = std::max(pBlock->changedTo, static_cast<uint16_t>(size));
}

// Writes bytes [from, to) of a block's data to their place. A failed seek is a failed write, with
// no message of its own: written all the same, the block would overwrite whatever lies at the
// file's present position.
bool WriteBytes(BlckControl* pOwner, const BlckBlock* pBlock, uint32_t from, uint32_t to)
{
    const int64_t offset = OffsetOf(pBlock->tId) + from;
    BLCK_TRACE(
        DETAIL, "Write out block %ld, %ld bytes at offset %ld", pBlock->tId, to - from,
        static_cast<uint32_t>(offset));
    uint32_t moved = 0;
    if (!FileSysSeek(pOwner->hFile, offset))
        return false;
    return FileSysWrite(&moved, pOwner->hFile, pBlock->data + from, to - from) != 0;
}

// Writes what may have changed of a block.
bool WriteChanges(BlckControl* pOwner, const BlckBlock* pBlock)
{
    const uint32_t end = pBlock->changedTo;
    if (pBlock->holeFrom >= pBlock->holeTo || end <= pBlock->holeFrom)
        return WriteBytes(pOwner, pBlock, 0, end);
    return WriteBytes(pOwner, pBlock, 0, pBlock->holeFrom) &&
           (end <= pBlock->holeTo || WriteBytes(pOwner, pBlock, pBlock->holeTo, end));
}

// Runs when the map gives a block up, which is the end of an operation or of the file. The owner's
// memory outlives its last block, but its file may be closed already: the write then fails cleanly.
void BlkBlockDestructor(void* oBlock)
{
    BLCK_TRACE(DETAIL, "BlkBlockDestructor(%p)", oBlock);
    auto* pBlock = static_cast<BlckBlock*>(oBlock);
    BlckControl* pOwner = pBlock->pOwner;
    const uint32_t tFormerHead = pOwner->tFreeChain;
    if (pBlock->bDiscarded) {
        BLCK_TRACE(DETAIL, "Add Block %ld to free chain", pBlock->tId);
        pBlock->bModified = TRUE;
        ChangeTo(pBlock, LINK_SIZE);
        PutU32(pBlock->data, tFormerHead);
        pOwner->tFreeChain = static_cast<uint32_t>(pBlock->tId);
        pOwner->bModified = TRUE;
    }
    if (!pBlock->bModified || WriteChanges(pOwner, pBlock))
        return;
    // One text for every failed write here, discarded or not: operators know it.
    LogMessage(LOG_BLOCK_DISCARD, LOG_CLASS, 0, "Failed to discard database block");
    // Without its link on disk the block would lead the chain to whatever its first word was.
    if (pBlock->bDiscarded)
        pOwner->tFreeChain = tFormerHead;
}

void BlckControlBlockDestructor(void* oBlck)
{
    auto* pControl = static_cast<BlckControl*>(oBlck);
    BlckFlushControlBlock(pControl);
    FileSysClose(&pControl->hFile);
}

// Kept once it has been made; without memory for it, the next block tries again.
ObjTemplate* BlockTemplate()
{
    static std::atomic<ObjTemplate*> sTemplate{nullptr};
    ObjTemplate* tmpl = sTemplate.load(std::memory_order_acquire);
    if (!tmpl) {
        ObjTemplateCreateInternal(
            &tmpl, sizeof(BlckBlock), BLCK_BLOCK_MAGIC, "p;n16384;i;b;b;", BlkBlockDestructor);
        sTemplate.store(tmpl, std::memory_order_release);
    }
    return tmpl;
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
    if (!ObjTemplateCreateInstanceFromPool(control.OutVoid(), tmpl, Pool()))
        return nullptr;
    uint32_t count = 0;
    const bool bRead =
        FileSysSeekStart(hFile) && FileSysRead(&count, hFile, control.get(), BLCK_CONTROL_SIZE);
    bool bSound = false;
    if (bRead) {
        BLCK_TRACE(DETAIL, "Read '%ld' of '%ld' byte header", count, BLCK_CONTROL_SIZE);
        bSound = AdoptHeader(control.get(), count) && (count > 0 || ReserveControl(hFile));
    }
    control->changedTo = BLCK_CONTROL_SIZE;
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

int32_t BlckCompareBlocks(const void* pLeft, const void* pRight)
{
    const uint32_t tLeft = static_cast<uint32_t>(static_cast<const BlckBlock*>(pLeft)->tId);
    const uint32_t tRight = static_cast<uint32_t>(static_cast<const BlckBlock*>(pRight)->tId);
    return static_cast<int32_t>(tLeft - tRight);
}

int32_t BlckCompareBlockId(const void* pKey, const void* pBlock)
{
    const uint32_t tKey = GetU32(pKey);
    return static_cast<int32_t>(
        tKey - static_cast<uint32_t>(static_cast<const BlckBlock*>(pBlock)->tId));
}

NimBool BlckFileOpen(void** ppBlck, const char* path)
{
    BLCK_TRACE(DETAIL, "BlckFileOpen(%p, %s)", static_cast<void*>(ppBlck), path);
    NimBool bOpened = FALSE;
    void* hFile = FILE_NONE;
    if (ppBlck && !StrIsEmpty(path) && FileSysOpen(&hFile, path, OPEN_MODE)) {
        HeldObject<BlckControl> control(ReadControl(hFile));
        bOpened = control ? TRUE : FALSE;
        if (bOpened)
            *ppBlck = ObjIncRefCount(control.get());
        else
            FileSysClose(&hFile);
    }
    BLCK_TRACE(
        OPENED, "%s = BlckFileOpen(%p, %s)", Truth(bOpened), static_cast<void*>(ppBlck), path);
    return bOpened;
}

namespace {

// Takes the head off the free chain. A link that cannot be read ends the chain: kept as the head,
// the block would be handed out twice.
int32_t PopFreeBlock(BlckControl* pControl)
{
    const auto tId = static_cast<int32_t>(pControl->tFreeChain);
    uint8_t link[LINK_SIZE] = {};
    uint32_t moved = 0;
    const bool bRead = FileSysSeek(pControl->hFile, OffsetOf(tId)) &&
                       FileSysRead(&moved, pControl->hFile, link, LINK_SIZE) && moved == LINK_SIZE;
    pControl->tFreeChain = bRead ? GetU32(link) : BLCK_NO_BLOCK;
    // A block that names itself as the next one would be handed out twice, too.
    if (pControl->tFreeChain == static_cast<uint32_t>(tId))
        pControl->tFreeChain = BLCK_NO_BLOCK;
    pControl->bModified = TRUE;
    return tId;
}

// The next id never used, with its space in the file.
int32_t ExtendFile(BlckControl* pControl, bool* pReserved)
{
    const int32_t tId = pControl->blockCount;
    pControl->blockCount = static_cast<int32_t>(static_cast<uint32_t>(tId) + 1);
    pControl->bModified = TRUE;
    BLCK_TRACE(DETAIL, "Allocate new block %ld", tId);
    *pReserved = tId >= 0 && FileSysReserve(pControl->hFile, OffsetOf(tId), BLCK_BLOCK_SIZE);
    if (!*pReserved)
        BLCK_TRACE(ALWAYS, "No room in the file for block %ld", tId);
    return tId;
}

} // namespace

int32_t BlckNewBlock(void** ppData, void* oBlck)
{
    BLCK_TRACE(DETAIL, "BlckNewBlock(%p, %p)", static_cast<void*>(ppData), oBlck);
    if (ppData)
        *ppData = nullptr;
    int32_t tId = -1;
    if (BlckControl* pControl = AsControl(oBlck)) {
        bool bReserved = true;
        if (pControl->tFreeChain != BLCK_NO_BLOCK)
            tId = PopFreeBlock(pControl);
        else
            tId = ExtendFile(pControl, &bReserved);
        BLCK_TRACE(DETAIL, "tFreeChain %ld", pControl->tFreeChain);
        void* pData = nullptr;
        if (bReserved && BlckGetBlock(&pData, oBlck, tId)) {
            memset(pData, 0, BLCK_BLOCK_SIZE);
            ChangeTo(BlockOf(pData), BLCK_BLOCK_SIZE);
        }
        if (ppData)
            *ppData = pData;
    }
    BLCK_TRACE(DETAIL, "%ld = BlckNewBlock(%p, %p)", tId, static_cast<void*>(ppData), oBlck);
    return tId;
}

int32_t BlckNewUnusedBlock(void** ppData, void* oBlck)
{
    if (BlckControl* pControl = AsControl(oBlck);
        pControl && pControl->tFreeChain != BLCK_NO_BLOCK) {
        HeldObject<BlckBlock> inUse;
        if (ObjMapFind(inUse.OutVoid(), pControl->oMap, &pControl->tFreeChain)) {
            BLCK_TRACE(
                ALWAYS, "Free chain leads to block %ld, which is in use: the chain is given up",
                pControl->tFreeChain);
            pControl->tFreeChain = BLCK_NO_BLOCK;
            pControl->bModified = TRUE;
        }
    }
    return BlckNewBlock(ppData, oBlck);
}

uint32_t BlckSize(const void*)
{
    return BLCK_BLOCK_SIZE;
}

void* BlckUserData(void* oBlck)
{
    BlckControl* pControl = AsControl(oBlck);
    return pControl ? pControl->userData : nullptr;
}

uint32_t BlckUserDataLength(const void* oBlck)
{
    return AsControl(oBlck) ? BLCK_USER_DATA_SIZE : 0;
}

void BlckUserDataModified(void* oBlck)
{
    BlckUserDataModifiedStart(oBlck, BLCK_USER_DATA_SIZE);
}

void BlckUserDataModifiedStart(void* oBlck, uint32_t size)
{
    if (BlckControl* pControl = AsControl(oBlck)) {
        BLCK_TRACE(DETAIL, "Mark user data modified");
        pControl->bModified = TRUE;
        const uint32_t end = size < BLCK_USER_DATA_SIZE && !NIM_TRACES(DETAIL)
                                 ? static_cast<uint32_t>(offsetof(BlckControl, userData)) + size
                                 : BLCK_CONTROL_SIZE;
        pControl->changedTo = std::max(pControl->changedTo, end);
    }
}

uint32_t BlckBlockLimit(const void* oBlck)
{
    const BlckControl* pControl = AsControl(oBlck);
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
    } else if (!FileSysWrite(&moved, pControl->hFile, pControl, pControl->changedTo)) {
        BLCK_TRACE(ALWAYS, "Failed to write control block to file");
    } else {
        pControl->bModified = FALSE; // after the write: the image on disk carries 1
        pControl->changedTo = offsetof(BlckControl, userData);
        return;
    }
    HeldMemory<char> dump;
    TraceDumpToString(dump.Out(), 0);
    LogMessageWithContext(
        LOG_CONTROL_FLUSH, LOG_CLASS, 0, dump.get(), "Failed to flush a database control block");
}

namespace {

// The checks of BlckGetBlock, in the order in which they are answered.
bool CanGetBlock(void** ppData, void* oBlck, int32_t tId)
{
    const BlckControl* pControl = AsControl(oBlck);
    if (!ppData)
        BLCK_TRACE(ALWAYS, "Invalid ppData at %p", static_cast<void*>(ppData));
    else if (!pControl)
        BLCK_TRACE(ALWAYS, "Invalid oBlck at %p", oBlck);
    else if (tId < 0)
        BLCK_TRACE(ALWAYS, "Invalid tId %ld", tId);
    else if (tId >= pControl->blockCount)
        BLCK_TRACE(ALWAYS, "Unallocated tId %ld", tId);
    else
        return true;
    return false;
}

// An object for a block that is not in memory, with one reference; null without memory. Its data is
// undefined.
BlckBlock* NewBlockObject(BlckControl* pControl, int32_t tId)
{
    HeldObject<BlckBlock> block;
    if (!ObjTemplateCreateInstanceUncleared(block.OutVoid(), BlockTemplate(), Pool()))
        return nullptr;
    block->pOwner = pControl;
    block->tId = tId;
    block->changedTo = 0;
    block->holeFrom = 0;
    block->holeTo = BLCK_BLOCK_SIZE;
    return block.Take();
}

// Puts a block whose data is there into the map, which then holds it.
bool KeepBlock(void** ppData, BlckControl* pControl, BlckBlock* pBlock)
{
    BLCK_TRACE(DETAIL, "Insert into map");
    if (!ObjMapInsert(pControl->oMap, pBlock))
        return false;
    *ppData = pBlock->data;
    return true;
}

// Reads what is not there of a block.
bool FillHole(BlckControl* pControl, BlckBlock* pBlock)
{
    const int64_t offset = OffsetOf(pBlock->tId) + pBlock->holeFrom;
    const uint32_t wanted = pBlock->holeTo - pBlock->holeFrom;
    uint8_t* pHole = pBlock->data + pBlock->holeFrom;
    BLCK_TRACE(DETAIL, "Seek to read position %ld", static_cast<uint32_t>(offset));
    uint32_t count = 0;
    if (!FileSysSeek(pControl->hFile, offset) ||
        !FileSysRead(&count, pControl->hFile, pHole, wanted))
        return false;
    if (count < wanted) {
        memset(pHole + count, 0, wanted - count);
        ChangeTo(pBlock, BLCK_BLOCK_SIZE); // what the file does not have
    }
    pBlock->holeFrom = pBlock->holeTo;
    return true;
}

// Reads a block into a new block object and puts it into the map.
bool LoadBlock(void** ppData, BlckControl* pControl, int32_t tId)
{
    const HeldObject<BlckBlock> block(NewBlockObject(pControl, tId));
    return block && FillHole(pControl, block.get()) && KeepBlock(ppData, pControl, block.get());
}

// Whether all of a block in memory is there, after reading what was not.
bool IsWhole(BlckBlock* pBlock)
{
    return pBlock->holeFrom >= pBlock->holeTo || FillHole(pBlock->pOwner, pBlock);
}

} // namespace

NimBool BlckGetBlock(void** ppData, void* oBlck, int32_t tId)
{
    BLCK_TRACE(DETAIL, "BlckGetBlock(%p, 0x%p, %ld)", static_cast<void*>(ppData), oBlck, tId);
    NimBool bGot = FALSE;
    if (CanGetBlock(ppData, oBlck, tId)) {
        BlckControl* pControl = AsControl(oBlck);
        HeldObject<BlckBlock> block;
        if (ObjMapFind(block.OutVoid(), pControl->oMap, &tId)) {
            BLCK_TRACE(DETAIL, "Block already in memory");
            BLCK_TRACE(
                DETAIL, "Block %ld (%ld) at %p", tId, block->tId, static_cast<void*>(block->data));
            bGot = IsWhole(block.get()) ? TRUE : FALSE;
            if (bGot)
                *ppData = block->data;
        } else {
            bGot = LoadBlock(ppData, pControl, tId) ? TRUE : FALSE;
        }
    }
    BLCK_TRACE(
        DETAIL, "%s = BlckGetBlock(%p, %p, %ld) %p", Truth(bGot), static_cast<void*>(ppData), oBlck,
        tId, ppData ? *ppData : nullptr);
    return bGot;
}

void* BlckTakeBlock(void* oBlck, int32_t tId, const uint8_t* pView, uint32_t front, uint32_t back)
{
    BlckControl* pControl = AsControl(oBlck);
    const HeldObject<BlckBlock> block(pControl ? NewBlockObject(pControl, tId) : nullptr);
    if (!block)
        return nullptr;
    const uint32_t from = std::min(front, BLCK_BLOCK_SIZE);
    const uint32_t to = BLCK_BLOCK_SIZE - std::min(back, BLCK_BLOCK_SIZE - from);
    memcpy(block->data, pView, from);
    memcpy(block->data + to, pView + to, BLCK_BLOCK_SIZE - to);
    block->holeFrom = static_cast<uint16_t>(from);
    block->holeTo = static_cast<uint16_t>(to);
    void* pData = nullptr;
    return KeepBlock(&pData, pControl, block.get()) ? pData : nullptr;
}

bool BlckNeedStart(void* pData, uint32_t size)
{
    BlckBlock* pBlock = BlockOf(pData);
    return size <= pBlock->holeFrom || IsWhole(pBlock);
}

const uint8_t* BlckPeekBlock(bool* pInMemory, void* oBlck, int32_t tId)
{
    if (pInMemory)
        *pInMemory = false;
    const BlckControl* pControl = AsControl(oBlck);
    if (!pControl || tId < 0 || tId >= pControl->blockCount || NIM_TRACES(DETAIL))
        return nullptr;
    if (const void* oBlock = ObjMapPeek(pControl->oMap, &tId)) {
        if (pInMemory)
            *pInMemory = true;
        return static_cast<const BlckBlock*>(oBlock)->data;
    }
    const void* pView = nullptr;
    FileSysView(&pView, pControl->hFile, OffsetOf(tId), BLCK_BLOCK_SIZE);
    return static_cast<const uint8_t*>(pView);
}

namespace {

// All of a block may have changed. Where the rest of it cannot be had, it has not.
void ChangeToEnd(BlckBlock* pBlock)
{
    if (IsWhole(pBlock))
        ChangeTo(pBlock, BLCK_BLOCK_SIZE);
}

// The block to be marked, or null with the trace that says what is wrong.
BlckBlock* BlockToMark(void* pData, void* oBlck)
{
    BlckBlock* pBlock = nullptr;
    if (!AsControl(oBlck))
        BLCK_TRACE(ALWAYS, "Invalid oBlck at %p", oBlck);
    else if (!pData)
        BLCK_TRACE(ALWAYS, "Invalid pData at %p", pData);
    else if (pBlock = AsBlock(pData); !pBlock)
        BLCK_TRACE(ALWAYS, "Invalid oBlock at %p", static_cast<void*>(BlockOf(pData)));
    return pBlock;
}

} // namespace

NimBool BlckModifiedBlock(void* pData, void* oBlck)
{
    BlckBlock* pBlock = BlockToMark(pData, oBlck);
    if (pBlock) {
        BLCK_TRACE(
            DETAIL, "Block %ld ref count %ld Modified", pBlock->tId, OBJ_HEADER(pBlock)->refCount);
        pBlock->bModified = TRUE;
        ChangeToEnd(pBlock);
    }
    const NimBool bMarked = pBlock ? TRUE : FALSE;
    BLCK_TRACE(DETAIL, "%s = BlckModifiedBlock(%p, %p)", Truth(bMarked), pData, oBlck);
    return bMarked;
}

void BlckModifiedStart(void* pData, void* oBlck, uint32_t size, uint32_t back)
{
    BlckBlock* pBlock = NIM_TRACES(DETAIL) ? nullptr : AsBlock(pData);
    if (!pBlock) {
        BlckModifiedBlock(pData, oBlck); // which has the messages
        return;
    }
    const uint32_t backFrom = BLCK_BLOCK_SIZE - std::min(back, BLCK_BLOCK_SIZE);
    pBlock->holeTo = std::min(pBlock->holeTo, static_cast<uint16_t>(backFrom));
    pBlock->bModified = TRUE;
    ChangeTo(pBlock, std::min(size, BLCK_BLOCK_SIZE));
}

NimBool BlckDiscardBlock(void* pData, void* oBlck)
{
    BlckBlock* pBlock = BlockToMark(pData, oBlck);
    if (pBlock) {
        pBlock->bDiscarded = TRUE;
        ChangeToEnd(pBlock); // its data may be written to until it leaves memory
    }
    return pBlock ? TRUE : FALSE;
}

NimBool BlckFlushBlock(void* oBlck, void* pData)
{
    BlckControl* pControl = AsControl(oBlck);
    if (!pControl) {
        BLCK_TRACE(ALWAYS, "Invalid oBlck at %p", oBlck);
        return FALSE;
    }
    BlckBlock* pBlock = AsBlock(pData);
    if (!pBlock)
        return FALSE;
    if (IsWhole(pBlock) && WriteBytes(pControl, pBlock, 0, BLCK_BLOCK_SIZE)) {
        pBlock->bModified = FALSE;
        pBlock->changedTo = 0;
        return TRUE;
    }
    BLCK_TRACE(ALWAYS, "Failed to flush database block");
    LogMessage(LOG_BLOCK_FLUSH, LOG_CLASS, 0, "Failed to flush database block");
    return FALSE;
}

int32_t BlckId(const void* pData)
{
    const BlckBlock* pBlock = AsBlock(pData);
    if (!pBlock) {
        BLCK_TRACE(ALWAYS, "Invalid BlckBlock at %p", const_cast<void*>(pData));
        return -1;
    }
    return pBlock->tId;
}

void BlckReleaseAll(void* oBlck)
{
    if (BlckControl* pControl = AsControl(oBlck)) {
        ObjMapReleaseEntries(pControl->oMap);
        BlckFlushControlBlock(pControl);
    }
}

namespace {

NimBool BlckForgetBlock(void*, void* oBlock)
{
    auto* pBlock = static_cast<BlckBlock*>(oBlock);
    pBlock->bModified = FALSE;
    pBlock->bDiscarded = FALSE;
    return TRUE;
}

} // namespace

void BlckBackoutAll(void* oBlck)
{
    if (BlckControl* pControl = AsControl(oBlck)) {
        ObjMapWalk(pControl->oMap, BlckForgetBlock, nullptr);
        ObjMapReleaseEntries(pControl->oMap);
    }
}
