/* block.h: block files, and the cache of their blocks in memory.
 *
 * A block file is a control block of 16384 bytes followed by blocks of 16384 bytes, numbered from
 * 0. Blocks are read into memory when they are asked for and stay there until the operation ends:
 * BlckReleaseAll writes what was changed, BlckBackoutAll forgets it. The blocks of one file are
 * used by one thread at a time.
 *
 * A block file handle (oBlck) is an object of the base services; a block is handled by the address
 * of its 16384 data bytes (pData), which stays valid until the next BlckReleaseAll or
 * BlckBackoutAll on its file. A null handle and an object of another type are refused everywhere.
 */
#ifndef DATABASE_BLOCK_H
#define DATABASE_BLOCK_H

#include "database/export.h"
#include "nim/types.h"

NIM_BEGIN

/* Opens the block file at `path`, creating it when there is none.
 *   ppBlck  out: the new handle with one reference, given back with ObjRelease; left untouched on
 *           failure. Not null.
 *   path    in: UTF-8, not null, not empty.
 * TRUE, or FALSE when an argument is unusable, the file cannot be opened or read, it does not start
 * with a sound control block ("Invalid control block"), or the disk has no room for the control
 * block of a new one. A failed open leaves the file as it was. A new file stays empty until the
 * first BlckReleaseAll, and an old one is rewritten then even if nothing was changed: its control
 * block always opens as modified. */
NIMDB_API NimBool BlckFileOpen(void** ppBlck, const char* path);

/* Allocates a block: the head of the free chain, else the next one never used.
 *   ppData  out: the block's data, all zero; null when the block could not be had. May be null.
 *   oBlck   in: the file.
 * The block's id, or -1 when oBlck is invalid. When the id was handed out but the block cannot be
 * had (read failure, disk full), the id is returned, stays allocated, and *ppData is null.
 * The block is not marked modified: the caller does that. */
NIMDB_API int32_t BlckNewBlock(void** ppData, void* oBlck);

/* Size of every block in bytes: 16384. The argument is not looked at. */
NIMDB_API uint32_t BlckSize(const void* oBlck);

/* The 16128 bytes of the control block that belong to the caller. Borrowed: valid as long as the
 * handle. Null when oBlck is invalid. After a change call BlckUserDataModified. */
NIMDB_API void* BlckUserData(void* oBlck);

/* Size of the user data in bytes: 16128, or 0 when oBlck is invalid. */
NIMDB_API uint32_t BlckUserDataLength(const void* oBlck);

/* Notes that the user data was changed, so that the next BlckReleaseAll writes it. An invalid
 * handle is ignored. */
NIMDB_API void BlckUserDataModified(void* oBlck);

/* Fetches a block, from memory or from the file.
 *   ppData  out: the block's data, borrowed; left untouched on failure. Not null.
 *   oBlck   in: the file.
 *   tId     in: 0 to the number of blocks ever allocated less 1.
 * TRUE, or FALSE with a failure trace (invalid argument, id out of range) or without (the file
 * could not be read, no memory); after a failure nothing is kept in memory. Whether the block is
 * on the free chain is not checked; a block past the end of the file reads as zeros. */
NIMDB_API NimBool BlckGetBlock(void** ppData, void* oBlck, int32_t tId);

/* Marks a block as changed, so that it is written when it leaves memory.
 * TRUE, or FALSE with a failure trace when an argument is invalid. */
NIMDB_API NimBool BlckModifiedBlock(void* pData, void* oBlck);

/* Marks a block as no longer used: it joins the free chain when it leaves memory, and can be read
 * and written until then. TRUE, or FALSE with a failure trace when an argument is invalid. */
NIMDB_API NimBool BlckDiscardBlock(void* pData, void* oBlck);

/* Writes a block to the file now, changed or not, and clears its mark.
 * TRUE, or FALSE when an argument is invalid or the write failed (log message 1299; the mark
 * stays). Note the order of the arguments. */
NIMDB_API NimBool BlckFlushBlock(void* oBlck, void* pData);

/* The block's id, or -1 with a failure trace when pData is not a block. */
NIMDB_API int32_t BlckId(const void* pData);

/* Ends an operation and keeps what it did: writes every changed block, in ascending order of their
 * ids, threads discarded ones onto the free chain, then writes the control block if it changed.
 * Every pData of the file is invalid afterwards. A block that cannot be written is lost (log
 * message 1300); a control block that cannot be written is tried again the next time (log message
 * 1298). An invalid handle is ignored. */
NIMDB_API void BlckReleaseAll(void* oBlck);

/* Ends an operation and forgets what it did to blocks; nothing is written. Every pData of the file
 * is invalid afterwards. What changed in the control block stays: ids handed out are not handed out
 * again, changed user data stays in memory. An invalid handle is ignored. */
NIMDB_API void BlckBackoutAll(void* oBlck);

NIM_END

#endif /* DATABASE_BLOCK_H */
