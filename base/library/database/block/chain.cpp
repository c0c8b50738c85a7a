// chain.cpp: where new blocks come from: the free chain, or the end of the file.
//
// A new block's space is reserved in the file when it is handed out, while the operation can still
// be backed out: a full disk met at the release would already have overwritten the old half of a
// split node.

#include <cstring>

#include "database/block.h"
#include "database/block/blockstore.h"
#include "database/block/shapes.h"
#include "database/trace.h"
#include "nim/bytes.h"
#include "nim/nim.h"
#include "nim/scope.h"

using namespace trace_level;

namespace {

// Takes the head off the free chain. A link that cannot be read ends the chain: kept as the head,
// the block would be handed out twice.
int32_t PopFreeBlock(BlckControl* pControl)
{
    const auto tId = static_cast<int32_t>(pControl->tFreeChain);
    uint8_t link[BLCK_LINK_SIZE] = {};
    uint32_t moved = 0;
    const bool bRead = FileSysSeek(pControl->hFile, BlckOffsetOf(tId)) &&
                       FileSysRead(&moved, pControl->hFile, link, BLCK_LINK_SIZE) &&
                       moved == BLCK_LINK_SIZE;
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
    *pReserved = tId >= 0 && FileSysReserve(pControl->hFile, BlckOffsetOf(tId), BLCK_BLOCK_SIZE);
    if (!*pReserved)
        BLCK_TRACE(ALWAYS, "No room in the file for block %ld", tId);
    return tId;
}

// BlckNewBlock and BlckNewUnusedBlock.
int32_t NewBlock(void** ppData, BlckControl* pControl)
{
    bool bReserved = true;
    const int32_t tId = pControl->tFreeChain != BLCK_NO_BLOCK ? PopFreeBlock(pControl)
                                                              : ExtendFile(pControl, &bReserved);
    BLCK_TRACE(DETAIL, "tFreeChain %ld", pControl->tFreeChain);
    void* pData = nullptr;
    if (bReserved && BlckGetBlock(&pData, pControl, tId))
        memset(pData, 0, BLCK_BLOCK_SIZE);
    *ppData = pData;
    return tId;
}

} // namespace

int32_t BlckNewBlock(void** ppData, void* oBlck)
{
    BLCK_TRACE(DETAIL, "BlckNewBlock(%p, %p)", static_cast<void*>(ppData), oBlck);
    void* pData = nullptr;
    BlckControl* pControl = BlckAsControl(oBlck);
    const int32_t tId = pControl ? NewBlock(&pData, pControl) : -1;
    if (ppData)
        *ppData = pData;
    BLCK_TRACE(DETAIL, "%ld = BlckNewBlock(%p, %p)", tId, static_cast<void*>(ppData), oBlck);
    return tId;
}

int32_t BlckNewUnusedBlock(void** ppData, void* oBlck)
{
    if (BlckControl* pControl = BlckAsControl(oBlck);
        pControl && pControl->tFreeChain != BLCK_NO_BLOCK &&
        ObjMapPeek(pControl->oMap, &pControl->tFreeChain)) {
        BLCK_TRACE(
            ALWAYS, "Free chain leads to block %ld, which is in use: the chain is given up",
            pControl->tFreeChain);
        pControl->tFreeChain = BLCK_NO_BLOCK;
        pControl->bModified = TRUE;
    }
    const int32_t tId = BlckNewBlock(ppData, oBlck);
    if (*ppData && !BlckWillChange(*ppData, 0, BLCK_BLOCK_SIZE))
        *ppData = nullptr;
    return tId;
}
