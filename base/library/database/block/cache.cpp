// cache.cpp: the blocks of a file in memory: reading, changing, writing back, forgetting.
//
// Nothing reaches the file between the start of an operation and its release, except by an explicit
// BlckFlushBlock. A release writes blocks in ascending order of their ids and then the control
// block; of a block it writes what was declared (blockstore.h) and nothing else.
//
// A block need not be in memory whole: the free room of a node stays behind, and a part of it
// follows when it is declared. So most of an operation's time, which goes into moving blocks of 16
// KiB in and out, is spent on bytes that are used.

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstring>

#include "database/block.h"
#include "database/block/blockstore.h"
#include "database/block/shapes.h"
#include "database/logids.h"
#include "database/trace.h"
#include "nim/bytes.h"
#include "nim/nim.h"
#include "nim/scope.h"

using namespace trace_level;

namespace {

// How much more than what was declared is brought in: the next entry or value will want it.
constexpr uint32_t AHEAD = 192;

uint32_t Pool()
{
    static const uint32_t pool = MemGetDefaultPoolId();
    return pool;
}

BlckBlock* AsBlock(const void* pData)
{
    if (!pData)
        return nullptr;
    BlckBlock* pBlock = BlckBlockOf(pData);
    return ObjGetMagic(pBlock) == BLCK_BLOCK_MAGIC ? pBlock : nullptr;
}

// ---- what was brought in, for the proof at the release ------------------------------------------

#if defined(NDEBUG)
void KeepAsRead(BlckBlock*, uint32_t, uint32_t) {}
void ProveDeclared(const BlckBlock*) {}
#else
void KeepAsRead(BlckBlock* pBlock, uint32_t from, uint32_t to)
{
    memcpy(pBlock->asRead + from, pBlock->data + from, to - from);
}

bool IsAsRead(const BlckBlock* pBlock, uint32_t from, uint32_t to)
{
    return from >= to || memcmp(pBlock->data + from, pBlock->asRead + from, to - from) == 0;
}

// Whether [from, to) differs from what was brought in only where that was declared.
bool DiffersAsDeclared(const BlckBlock* pBlock, uint32_t from, uint32_t to)
{
    uint32_t at = from;
    for (uint32_t i = 0; i < pBlock->dirty.count && at < to; ++i) {
        const BlckRange& range = pBlock->dirty.ranges[i];
        if (!IsAsRead(pBlock, at, std::min<uint32_t>(range.from, to)))
            return false;
        at = std::max<uint32_t>(at, range.to);
    }
    return IsAsRead(pBlock, at, to);
}

void ProveDeclared(const BlckBlock* pBlock)
{
    assert(DiffersAsDeclared(pBlock, 0, pBlock->frontTo));
    assert(DiffersAsDeclared(pBlock, pBlock->backFrom, BLCK_BLOCK_SIZE));
}
#endif

// ---- writing ------------------------------------------------------------------------------------

// Writes bytes [from, to) of a block's data to their place. A failed seek is a failed write, with
// no message of its own: written all the same, the block would overwrite whatever lies at the
// file's present position.
bool WriteBytes(BlckControl* pOwner, const BlckBlock* pBlock, uint32_t from, uint32_t to)
{
    const int64_t offset = BlckOffsetOf(pBlock->tId) + from;
    BLCK_TRACE(
        DETAIL, "Write out block %ld, %ld bytes at offset %ld", pBlock->tId, to - from,
        static_cast<uint32_t>(offset));
    uint32_t moved = 0;
    if (!FileSysSeek(pOwner->hFile, offset))
        return false;
    return FileSysWrite(&moved, pOwner->hFile, pBlock->data + from, to - from) != 0;
}

// Whether bytes [from, to) are in memory.
bool IsThere(const BlckBlock* pBlock, uint32_t from, uint32_t to)
{
    return to <= pBlock->frontTo || from >= pBlock->backFrom || pBlock->frontTo >= pBlock->backFrom;
}

// Ranges go to the file with one call where what lies between them is there: a process that dies
// between two writes of one block leaves a node that contradicts itself, and a call costs what
// copying some thousand bytes costs.
bool WriteDirty(BlckControl* pOwner, const BlckBlock* pBlock)
{
    ProveDeclared(pBlock);
    const BlckRanges& dirty = pBlock->dirty;
    for (uint32_t i = 0; i < dirty.count;) {
        const uint32_t from = dirty.ranges[i].from;
        uint32_t to = dirty.ranges[i].to;
        for (++i; i < dirty.count && IsThere(pBlock, to, dirty.ranges[i].from); ++i)
            to = dirty.ranges[i].to;
        assert(IsThere(pBlock, from, to));
        if (!WriteBytes(pOwner, pBlock, from, to))
            return false;
    }
    return true;
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
        pBlock->dirty.Add(0, BLCK_LINK_SIZE);
        PutU32(pBlock->data, tFormerHead);
        pOwner->tFreeChain = static_cast<uint32_t>(pBlock->tId);
        pOwner->bModified = TRUE;
    }
    if (!pBlock->bModified || WriteDirty(pOwner, pBlock))
        return;
    // One text for every failed write here, discarded or not: operators know it.
    LogMessageAs(LOG_BLOCK_DISCARD, "Failed to discard database block");
    // Without its link on disk the block would lead the chain to whatever its first word was.
    if (pBlock->bDiscarded)
        pOwner->tFreeChain = tFormerHead;
}

// ---- bringing in --------------------------------------------------------------------------------

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

// An object for a block that is not in memory, with one reference; null without memory. Nothing of
// its data is there.
BlckBlock* NewBlockObject(BlckControl* pControl, int32_t tId)
{
    HeldObject<BlckBlock> block;
    if (!ObjTemplateCreateInstanceUncleared(block.OutVoid(), BlockTemplate(), Pool()))
        return nullptr;
    block->pOwner = pControl;
    block->tId = tId;
    block->bModified = FALSE;
    block->bDiscarded = FALSE;
    block->dirty.count = 0;
    block->frontTo = 0;
    block->backFrom = BLCK_BLOCK_SIZE;
    block->shortFrom = BLCK_BLOCK_SIZE;
    return block.Take();
}

// Puts a block into the map, which then holds it.
bool KeepBlock(BlckControl* pControl, BlckBlock* pBlock)
{
    BLCK_TRACE(DETAIL, "Insert into map");
    return ObjMapInsert(pControl->oMap, pBlock) != 0;
}

// Reads bytes [from, to) of a block's data from the file.
bool ReadBytes(BlckBlock* pBlock, uint32_t from, uint32_t to)
{
    void* hFile = pBlock->pOwner->hFile;
    const int64_t offset = BlckOffsetOf(pBlock->tId) + from;
    BLCK_TRACE(DETAIL, "Seek to read position %ld", static_cast<uint32_t>(offset));
    uint32_t count = 0;
    if (!FileSysSeek(hFile, offset) || !FileSysRead(&count, hFile, pBlock->data + from, to - from))
        return false;
    if (count < to - from) {
        memset(pBlock->data + from + count, 0, to - from - count);
        pBlock->shortFrom = std::min(pBlock->shortFrom, static_cast<uint16_t>(from + count));
    }
    KeepAsRead(pBlock, from, to);
    return true;
}

// Makes sure that bytes [from, to) of a block are in memory. What is there grows from its two ends.
bool BringInRange(BlckBlock* pBlock, uint32_t from, uint32_t to)
{
    if (IsThere(pBlock, from, to))
        return true;
    if (from > pBlock->frontTo && to >= pBlock->backFrom) {
        const uint32_t ahead = from - pBlock->frontTo > AHEAD ? from - AHEAD : pBlock->frontTo;
        if (!ReadBytes(pBlock, ahead, pBlock->backFrom))
            return false;
        pBlock->backFrom = static_cast<uint16_t>(ahead);
        return true;
    }
    const uint32_t ahead = std::min<uint32_t>(pBlock->backFrom, to + AHEAD);
    if (!ReadBytes(pBlock, pBlock->frontTo, ahead))
        return false;
    pBlock->frontTo = static_cast<uint16_t>(ahead);
    return true;
}

bool BringInWhole(BlckBlock* pBlock)
{
    return BringInRange(pBlock, 0, BLCK_BLOCK_SIZE);
}

// Reads a block into a new block object and puts it into the map; null: not to be had.
BlckBlock* LoadBlock(BlckControl* pControl, int32_t tId)
{
    const HeldObject<BlckBlock> block(NewBlockObject(pControl, tId));
    return block && BringInWhole(block.get()) && KeepBlock(pControl, block.get()) ? block.get()
                                                                                  : nullptr;
}

// The checks of BlckGetBlock, in the order in which they are answered.
bool CanGetBlock(const void* ppData, const void* oBlck, int32_t tId)
{
    const BlckControl* pControl = BlckAsControl(oBlck);
    if (!ppData)
        BLCK_TRACE(ALWAYS, "Invalid ppData at %p", const_cast<void*>(ppData));
    else if (!pControl)
        BLCK_TRACE(ALWAYS, "Invalid oBlck at %p", const_cast<void*>(oBlck));
    else if (tId < 0)
        BLCK_TRACE(ALWAYS, "Invalid tId %ld", tId);
    else if (tId >= pControl->blockCount)
        BLCK_TRACE(ALWAYS, "Unallocated tId %ld", tId);
    else
        return true;
    return false;
}

// A block that is in memory; null when it is not.
BlckBlock* FindInMemory(const BlckControl* pControl, int32_t tId)
{
    auto* pBlock = static_cast<BlckBlock*>(ObjMapPeek(pControl->oMap, &tId));
    if (pBlock) {
        BLCK_TRACE(DETAIL, "Block already in memory");
        BLCK_TRACE(
            DETAIL, "Block %ld (%ld) at %p", tId, pBlock->tId, static_cast<void*>(pBlock->data));
    }
    return pBlock;
}

void TraceGet(const void* ppData, void* oBlck, int32_t tId)
{
    BLCK_TRACE(DETAIL, "BlckGetBlock(%p, 0x%p, %ld)", const_cast<void*>(ppData), oBlck, tId);
}

void TraceGot(bool bGot, const void* ppData, void* oBlck, int32_t tId, const void* pData)
{
    BLCK_TRACE(
        DETAIL, "%s = BlckGetBlock(%p, %p, %ld) %p", TraceTruth(bGot), const_cast<void*>(ppData),
        oBlck, tId, const_cast<void*>(pData));
}

} // namespace

int32_t BlckCompareBlocks(const void* pLeft, const void* pRight)
{
    const auto tLeft = static_cast<uint32_t>(static_cast<const BlckBlock*>(pLeft)->tId);
    const auto tRight = static_cast<uint32_t>(static_cast<const BlckBlock*>(pRight)->tId);
    return static_cast<int32_t>(tLeft - tRight);
}

int32_t BlckCompareBlockId(const void* pKey, const void* pBlock)
{
    const uint32_t tKey = GetU32(pKey);
    return static_cast<int32_t>(
        tKey - static_cast<uint32_t>(static_cast<const BlckBlock*>(pBlock)->tId));
}

NimBool BlckGetBlock(void** ppData, void* oBlck, int32_t tId)
{
    TraceGet(ppData, oBlck, tId);
    bool bGot = false;
    if (CanGetBlock(ppData, oBlck, tId)) {
        BlckControl* pControl = BlckAsControl(oBlck);
        BlckBlock* pBlock = FindInMemory(pControl, tId);
        if (!pBlock)
            pBlock = LoadBlock(pControl, tId);
        bGot = pBlock && BringInWhole(pBlock);
        if (bGot)
            *ppData = pBlock->data;
    }
    TraceGot(bGot, ppData, oBlck, tId, ppData ? *ppData : nullptr);
    return bGot ? TRUE : FALSE;
}

const uint8_t* BlckReadBlock(bool* pInMemory, void* oBlck, int32_t tId)
{
    TraceGet(pInMemory, oBlck, tId);
    const uint8_t* pData = nullptr;
    *pInMemory = false;
    if (CanGetBlock(pInMemory, oBlck, tId)) {
        BlckControl* pControl = BlckAsControl(oBlck);
        const BlckBlock* pBlock = FindInMemory(pControl, tId);
        const void* pView = nullptr;
        if (!pBlock && !FileSysView(&pView, pControl->hFile, BlckOffsetOf(tId), BLCK_BLOCK_SIZE))
            pBlock = LoadBlock(pControl, tId);
        *pInMemory = pBlock != nullptr;
        pData = pBlock ? pBlock->data : static_cast<const uint8_t*>(pView);
    }
    TraceGot(pData != nullptr, pInMemory, oBlck, tId, pData);
    return pData;
}

uint8_t*
BlckBringIn(void* oBlck, int32_t tId, const uint8_t* pInPlace, uint32_t front, uint32_t back)
{
    BlckControl* pControl = BlckAsControl(oBlck);
    const HeldObject<BlckBlock> block(NewBlockObject(pControl, tId));
    if (!block)
        return nullptr;
    assert(front + back <= BLCK_BLOCK_SIZE);
    const uint32_t backFrom = BLCK_BLOCK_SIZE - back;
    memcpy(block->data, pInPlace, front);
    memcpy(block->data + backFrom, pInPlace + backFrom, back);
    block->frontTo = static_cast<uint16_t>(front);
    block->backFrom = static_cast<uint16_t>(backFrom);
    KeepAsRead(block.get(), 0, front);
    KeepAsRead(block.get(), backFrom, BLCK_BLOCK_SIZE);
    return KeepBlock(pControl, block.get()) ? block->data : nullptr;
}

bool BlckWillChange(void* pData, uint32_t offset, uint32_t size)
{
    BlckBlock* pBlock = BlckBlockOf(pData);
    assert(AsBlock(pData) && offset <= BLCK_BLOCK_SIZE && size <= BLCK_BLOCK_SIZE - offset);
    if (size == 0)
        return true;
    // One range more than there is room for joins two others, and what lies between them must be
    // there.
    const bool bMayJoin = pBlock->dirty.count == BlckRanges::ROOM;
    if (!BringInRange(pBlock, offset, offset + size) || (bMayJoin && !BringInWhole(pBlock)))
        return false;
    if (!pBlock->bModified) {
        BLCK_TRACE(
            DETAIL, "Block %ld ref count %ld Modified", pBlock->tId, OBJ_HEADER(pBlock)->refCount);
        pBlock->bModified = TRUE;
    }
    pBlock->dirty.Add(offset, offset + size);
    // What the file does not have becomes part of it, or the next block's bytes would end up there.
    if (pBlock->shortFrom < BLCK_BLOCK_SIZE && BringInWhole(pBlock))
        pBlock->dirty.Add(pBlock->shortFrom, BLCK_BLOCK_SIZE);
    return true;
}

namespace {

// Declares all of a block for a caller who may have changed it already, or is free to. Where the
// rest of it cannot be had, it has not been changed.
void DeclareWhole(BlckBlock* pBlock)
{
    if (BringInWhole(pBlock)) {
        pBlock->dirty.Add(0, BLCK_BLOCK_SIZE);
        return;
    }
    if (pBlock->frontTo > 0)
        pBlock->dirty.Add(0, pBlock->frontTo);
    if (pBlock->backFrom < BLCK_BLOCK_SIZE)
        pBlock->dirty.Add(pBlock->backFrom, BLCK_BLOCK_SIZE);
}

// The block to be marked, or null with the trace that says what is wrong.
BlckBlock* BlockToMark(void* pData, void* oBlck)
{
    BlckBlock* pBlock = nullptr;
    if (!BlckAsControl(oBlck))
        BLCK_TRACE(ALWAYS, "Invalid oBlck at %p", oBlck);
    else if (!pData)
        BLCK_TRACE(ALWAYS, "Invalid pData at %p", pData);
    else if (pBlock = AsBlock(pData); !pBlock)
        BLCK_TRACE(ALWAYS, "Invalid oBlock at %p", static_cast<void*>(BlckBlockOf(pData)));
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
        DeclareWhole(pBlock);
    }
    const NimBool bMarked = pBlock ? TRUE : FALSE;
    BLCK_TRACE(DETAIL, "%s = BlckModifiedBlock(%p, %p)", TraceTruth(bMarked), pData, oBlck);
    return bMarked;
}

NimBool BlckDiscardBlock(void* pData, void* oBlck)
{
    BlckBlock* pBlock = BlockToMark(pData, oBlck);
    if (pBlock) {
        pBlock->bDiscarded = TRUE;
        DeclareWhole(pBlock); // it may be written to until it leaves memory
    }
    return pBlock ? TRUE : FALSE;
}

NimBool BlckFlushBlock(void* oBlck, void* pData)
{
    BlckControl* pControl = BlckAsControl(oBlck);
    if (!pControl) {
        BLCK_TRACE(ALWAYS, "Invalid oBlck at %p", oBlck);
        return FALSE;
    }
    BlckBlock* pBlock = AsBlock(pData);
    if (!pBlock)
        return FALSE;
    if (BringInWhole(pBlock) && WriteBytes(pControl, pBlock, 0, BLCK_BLOCK_SIZE)) {
        pBlock->bModified = FALSE;
        pBlock->dirty.count = 0;
        KeepAsRead(pBlock, 0, BLCK_BLOCK_SIZE);
        return TRUE;
    }
    BLCK_TRACE(ALWAYS, "Failed to flush database block");
    LogMessageAs(LOG_BLOCK_FLUSH, "Failed to flush database block");
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
    if (BlckControl* pControl = BlckAsControl(oBlck)) {
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
    if (BlckControl* pControl = BlckAsControl(oBlck)) {
        ObjMapWalk(pControl->oMap, BlckForgetBlock, nullptr);
        ObjMapReleaseEntries(pControl->oMap);
    }
}
