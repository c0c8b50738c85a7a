// block_internal.h: what the block store shows to the index layer and to tests, beyond its exported
// interface: the layout of its two objects and of the file, and a few operations.
#pragma once

#include <cstddef>
#include <cstdint>

#include "database/block.h"

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

constexpr uint32_t BLCK_BLOCK_SIZE = 16384;
constexpr uint32_t BLCK_BLOCK_SHIFT = 14;
constexpr uint32_t BLCK_CONTROL_SIZE = 16168;
constexpr uint32_t BLCK_USER_DATA_SIZE = 16128;
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
    // Behind the image: how many of its bytes, from its start on, may differ from the file's.
    uint32_t changedTo;
    uint32_t reserved;
};
static_assert(offsetof(BlckControl, blockCount) == 8 && offsetof(BlckControl, tFreeChain) == 12);
static_assert(offsetof(BlckControl, bModified) == 16 && offsetof(BlckControl, hFile) == 24);
static_assert(offsetof(BlckControl, oMap) == 32 && offsetof(BlckControl, userData) == 40);
static_assert(offsetof(BlckControl, changedTo) == BLCK_CONTROL_SIZE);

// The block object, template "p;n16384;i;b;b;". A block's pData is the address of `data`.
struct BlckBlock {
    BlckControl* pOwner; // not a reference: the owner's map holds the block
    uint8_t data[BLCK_BLOCK_SIZE];
    int32_t tId;
    uint32_t bModified;
    uint32_t bDiscarded;
    // Behind the template's items. What may differ from the file is what lies before changedTo and
    // outside the hole; the hole was never read and is undefined.
    uint16_t changedTo;
    uint16_t holeFrom;
    uint16_t holeTo;
    uint16_t reserved[3];
};
static_assert(offsetof(BlckBlock, data) == 8 && offsetof(BlckBlock, tId) == 16392);
static_assert(offsetof(BlckBlock, bDiscarded) == 16400 && sizeof(BlckBlock) == 16416);

// The order of the blocks in memory: by id. The map keeps the ids beside the blocks and calls
// neither; they are what it is told to order by (see ObjMapSetIntegerKey). The first takes two
// blocks, the second the address of an id and a block.
int32_t BlckCompareBlocks(const void* pLeft, const void* pRight);
int32_t BlckCompareBlockId(const void* pKey, const void* pBlock);

// Writes the control block if it is modified. Run by BlckReleaseAll and by the last release.
void BlckFlushControlBlock(BlckControl* oBlck);

// How many blocks there can be at most: the smaller of the block count and what the length of the
// file allows plus the blocks in memory. The count alone is a word from the file; no walk over
// links between blocks need take more steps than this.
uint32_t BlckBlockLimit(const void* oBlck);

// A block's data to be read only. Where the file is mapped, the block is not brought into memory
// but read in place: a descent looks at a few cache lines of each node on its way, and a copy of 16
// KiB costs more than that. *pInMemory (null allowed) tells whether the block is in memory. The
// address is good until the next call that touches the file. Null: fetch the block with
// BlckGetBlock, which also says what is wrong with it. That is so, too, while every step is traced,
// since the trace tells of fetched blocks.
const uint8_t* BlckPeekBlock(bool* pInMemory, void* oBlck, int32_t tId);

// Brings the first `front` and the last `back` bytes of a block into memory, of which BlckPeekBlock
// has just given an address in the file, for a caller that uses nothing between them before it has
// written to it. Everybody else gets whole blocks: who asks for this one later, marks it whole or
// discards it, makes the rest follow. Null: no memory.
void* BlckTakeBlock(void* oBlck, int32_t tId, const uint8_t* pView, uint32_t front, uint32_t back);

// Makes sure that the first `size` bytes of a block are there. False: they cannot be read.
bool BlckNeedStart(void* pData, uint32_t size);

// BlckModifiedBlock for a caller that has changed nothing behind the first `size` bytes: the rest
// is the file's already and is not written again. `back`: how many bytes at the end are in use by
// now; they may reach into what was not read before. While every step is traced all of it is
// written, as the trace says.
void BlckModifiedStart(void* pData, void* oBlck, uint32_t size, uint32_t back);
// BlckUserDataModified for a caller that has changed nothing behind the first `size` bytes.
void BlckUserDataModifiedStart(void* oBlck, uint32_t size);

// BlckNewBlock for a caller whose blocks in memory are all in use. A free chain that leads to one
// of them is damaged: it is given up (its blocks stay unused) and a fresh block is handed out.
int32_t BlckNewUnusedBlock(void** ppData, void* oBlck);
