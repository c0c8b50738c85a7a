// blockstore.h: what the block store offers the index layer beyond its exported interface
// (block.h): reading blocks in place, bringing in parts of them, and the one contract for changing
// them.
//
// Whoever is about to change bytes of a block says so first, with BlckWillChange. In that one place
// the store makes sure that the bytes are there and remembers the range; after it the caller may
// change exactly those bytes. The release writes the declared ranges and no others. A build with
// assertions keeps each block as it was brought in and compares at the release: a byte that differs
// outside the declared ranges ends the process.
#pragma once

#include <cstdint>

#include "database/block.h"

constexpr uint32_t BLCK_BLOCK_SIZE = 16384;
constexpr uint32_t BLCK_USER_DATA_SIZE = 16128;

// How many block ids were ever handed out, as the control block says; negative in a damaged one,
// and for an invalid handle.
int32_t BlckBlockCount(const void* oBlck);

// How many blocks there can be at most: the smaller of the block count and what the length of the
// file allows plus the blocks in memory. The count alone is a word from the file; no walk over
// links between blocks need take more steps than this.
uint32_t BlckBlockLimit(const void* oBlck);

// A block to be read only. Where the file is mapped, a block that is not in memory is not brought
// there but read in place: a descent looks at a few cache lines of each node on its way, and a copy
// of 16 KiB costs more than that. *pInMemory tells whether it is in memory; in place, the address
// is good until the next call that touches the file. Null when the block cannot be had, with the
// traces of BlckGetBlock, as which this counts and is traced.
const uint8_t* BlckReadBlock(bool* pInMemory, void* oBlck, int32_t tId);

// Brings a block into memory that BlckReadBlock has just shown in place: its first `front` and last
// `back` bytes. What lies between follows when it is declared, or when somebody fetches the block.
// Null: no memory.
uint8_t*
BlckBringIn(void* oBlck, int32_t tId, const uint8_t* pInPlace, uint32_t front, uint32_t back);

// Declares that `size` bytes at `offset` of a block in memory are about to change: the block is
// marked modified, and these bytes are written when it leaves memory. False: they are not in memory
// and cannot be read; nothing may be changed then, and the operation fails.
[[nodiscard]] bool BlckWillChange(void* pData, uint32_t offset, uint32_t size);

// The same for the first `size` bytes of the user data, which are in memory always.
void BlckUserDataWillChange(void* oBlck, uint32_t size);

// BlckNewBlock for a caller whose blocks in memory are all in use. A free chain that leads to one
// of them is damaged: it is given up (its blocks are not used again) and a fresh block is handed
// out. All of a new block counts as declared.
int32_t BlckNewUnusedBlock(void** ppData, void* oBlck);

// Forgets that anything is to be written to a file that was read and refused: its control block,
// which always opens as modified, is not flushed when it closes. Null is legal.
void BlckForgetChanges(void* oBlck);
