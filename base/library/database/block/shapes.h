// shapes.h: the two objects of the block store, and the layout of a block file. For the rooms of
// the block store and their tests: nobody else reaches into a control block or a block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "database/block.h"
#include "database/block/blockstore.h"
#include "database/block/ranges.h"
#include "nim/object.h"

// ---- layout of a block file -----------------------------------------------------------------
//
//   offset   size   control block, at the start of the file (the image of the object below)
//   0        4      magic 0xc9251dd9
//   4        4      block size, 16384; never checked
//   8        4      block count: ids ever handed out, also the next fresh id; signed
//   12       4      free chain: id of the first free block, 0xFFFFFFFF when there is none
//   16       4      modified flag; 1 on disk, since it is cleared only after the write
//   20       4      padding
//   24       8      file handle at the time of writing; means nothing on disk
//   32       8      address of the block map at the time of writing; means nothing on disk
//   40       16128  user data
//   16168    216    never written
//
//   (tId + 1) x 16384   block tId. A free block's first 4 bytes hold the id of the next free block.

constexpr uint32_t BLCK_CONTROL_SIZE = 16168;
constexpr uint32_t BLCK_LINK_SIZE = 4; // a free block's link to the next one
constexpr uint32_t BLCK_FILE_MAGIC = 0xc9251dd9;
constexpr uint32_t BLCK_CONTROL_MAGIC = 0xca7d0e8e;
constexpr uint32_t BLCK_BLOCK_MAGIC = 0xca7d1118;
constexpr uint32_t BLCK_NO_BLOCK = 0xFFFFFFFF;
constexpr uint32_t BLCK_MAP_SIZE_HINT = 64;

// The control block object, template "i;i;i;i;b;p;o;n16128;". Read and written as one raw image.
struct BlckControl {
    uint32_t magic;
    int32_t blockSize;
    int32_t blockCount;
    uint32_t tFreeChain;
    uint32_t bModified;
    uint32_t padding;
    void* hFile;
    void* oMap;
    uint8_t userData[BLCK_USER_DATA_SIZE];
    // Behind the image: how many of its bytes, from its start on, are dirty: may differ from the
    // file's.
    uint32_t dirtyTo;
    uint32_t reserved;
};
static_assert(offsetof(BlckControl, blockCount) == 8 && offsetof(BlckControl, tFreeChain) == 12);
static_assert(offsetof(BlckControl, bModified) == 16 && offsetof(BlckControl, hFile) == 24);
static_assert(offsetof(BlckControl, oMap) == 32 && offsetof(BlckControl, userData) == 40);
static_assert(offsetof(BlckControl, dirtyTo) == BLCK_CONTROL_SIZE);

// The block object, template "p;n16384;i;b;b;". A block's pData is the address of `data`.
struct BlckBlock {
    BlckControl* pOwner; // not a reference: the owner's map holds the block
    uint8_t data[BLCK_BLOCK_SIZE];
    int32_t tId;
    uint32_t bModified;
    uint32_t bDiscarded;
    uint32_t padding;
    // Behind the template's items.
    BlckRanges dirty;   // what has been declared, and is written when the block leaves memory
    uint16_t frontTo;   // [frontTo, backFrom) has not been brought in: undefined bytes
    uint16_t backFrom;  //
    uint16_t shortFrom; // from here on the file had no bytes: zeros, written with the first change
#if !defined(NDEBUG)
    uint8_t asRead[BLCK_BLOCK_SIZE]; // what was brought in, to be compared at the release
#endif
};
static_assert(offsetof(BlckBlock, data) == 8 && offsetof(BlckBlock, tId) == 16392);
static_assert(offsetof(BlckBlock, bDiscarded) == 16400 && offsetof(BlckBlock, dirty) == 16408);

// The handle as a control block; null for anything else.
inline BlckControl* BlckAsControl(const void* oBlck)
{
    return ObjGetMagic(oBlck) == BLCK_CONTROL_MAGIC
               ? static_cast<BlckControl*>(const_cast<void*>(oBlck))
               : nullptr;
}

// The block object around a block's data.
inline BlckBlock* BlckBlockOf(const void* pData)
{
    return reinterpret_cast<BlckBlock*>(
        const_cast<uint8_t*>(static_cast<const uint8_t*>(pData)) - offsetof(BlckBlock, data));
}

// Where a block lies. The id is a signed 32-bit number, to which one is added before it is widened.
inline int64_t BlckOffsetOf(int32_t tId)
{
    const auto place = static_cast<int32_t>(static_cast<uint32_t>(tId) + 1);
    return static_cast<int64_t>(place) * BLCK_BLOCK_SIZE;
}

// ---- control ----

// Writes the control block if it is modified. Run by BlckReleaseAll and by the last release.
void BlckFlushControlBlock(BlckControl* pControl);

// ---- cache ----

// The order of the blocks in memory: by id. The map keeps the ids beside the blocks and calls
// neither; they are what it is told to order by (see ObjMapSetIntegerKey). The first takes two
// blocks, the second the address of an id and a block.
int32_t BlckCompareBlocks(const void* pLeft, const void* pRight);
int32_t BlckCompareBlockId(const void* pKey, const void* pBlock);
