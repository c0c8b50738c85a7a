/* filesys.h: files, by handle and 64-bit offset.
 *
 * A handle is a number in a `void*`, not an address: handle values get written into files and come
 * back years later, so a value is never used twice and a stale or foreign one is recognised. Every
 * function answers 0, -1 (FILE_NONE) and any other value that is not an open file with FALSE.
 *
 * A handle keeps its path, its position and the length of the file as far as it knows it. Setting
 * the position is therefore no system call. The known length is what the file had at the open; the
 * handle's own writes raise it, FileSysSeekEnd asks the system for it, and a read that would pass
 * it sees what another handle or process has appended and raises it at least to its own end.
 *
 * Reads are copied out of a shared mapping of the file that follows the file's growth; where no
 * mapping can be had, or it is switched off, they are positioned reads. Writes are always
 * positioned writes, so that a full disk is a result. A file that is read through a mapping must
 * not be made shorter by anyone while it is open, and a device that fails under a mapping ends the
 * process with a signal: a host for which one of them is a possibility switches mappings off.
 *
 * Different handles may be used by several threads at a time; one handle by one thread at a time.
 * At most 65,535 files are open at a time.
 *
 * Out-parameters are written by every call, a refused one included. A null out-parameter makes the
 * call do nothing and return FALSE.
 */
#ifndef NIM_FILESYS_H
#define NIM_FILESYS_H

#include "nim/types.h"

NIM_BEGIN

/* The value of a variable that holds no file. */
#define FILE_NONE ((void*)~(uintptr_t)0)

/* Bits of the open mode. At least one of the first three must be given. */
#define FILE_MODE_READ 0x001u   /* reading an existing file                                     */
#define FILE_MODE_EMPTY 0x002u  /* writing; the file is created, or emptied when it exists      */
#define FILE_MODE_WRITE 0x004u  /* writing; the file keeps its bytes                            */
#define FILE_MODE_CREATE 0x100u /* the file is created, empty, when it does not exist           */
/* The mode of the database's files: read and write, create when absent, never truncate. */
#define FILE_MODE_UPDATE (FILE_MODE_READ | FILE_MODE_WRITE | FILE_MODE_CREATE)

/* Opens a file, positioned at its start.
 *   handle  out: the handle, which the caller ends with FileSysClose; FILE_NONE on failure.
 *   path    in: UTF-8; null or empty fails. A directory is refused.
 *   mode    in: FILE_MODE_... bits; any other bit, or none of the first three, is refused.
 * The file is not handed on to child programs, and others may read, write and delete it meanwhile.
 * Returns TRUE; FALSE when the arguments or the system refuse it, out of memory, or too many files
 * are open. A refused open has created and emptied nothing. */
NIM_API NimBool FileSysOpen(void** handle, const char* path, uint32_t mode);

/* Closes a file.
 *   handle  in/out: the caller's variable; FILE_NONE afterwards, whatever the result.
 * Disk space that FileSysReserve took ahead and that was not used stays with the file (at most 256
 * KiB) and serves its next growth: giving it back here could take away what another handle has
 * appended meanwhile.
 * Returns TRUE; FALSE when there was nothing to close, or when the system reports a failure: the
 * handle is gone all the same. */
NIM_API NimBool FileSysClose(void** handle);

/* Sets the position to the start of the file. Returns TRUE; FALSE for a bad handle. */
NIM_API NimBool FileSysSeekStart(void* handle);

/* Asks the system for the length of the file, makes it the known one and sets the position there.
 * Returns TRUE; FALSE, with the position unchanged, for a bad handle or when the system fails. */
NIM_API NimBool FileSysSeekEnd(void* handle);

/* Sets the position.
 *   offset  in: bytes from the start. Past the end is legal, negative is not.
 * Returns exactly TRUE or FALSE; FALSE leaves the position unchanged. */
NIM_API NimBool FileSysSeek(void* handle, int64_t offset);

/* Moves the position forward by `count` bytes, past the end if need be.
 * Returns TRUE; FALSE, with the position unchanged, for a bad handle or past 2^63 - 1. */
NIM_API NimBool FileSysSkip(void* handle, uint32_t count);

/* Tells the position.
 *   offset  out: bytes from the start; 0 on failure.
 * Returns TRUE; FALSE for a bad handle. */
NIM_API NimBool FileSysGetOffset(int64_t* offset, void* handle);

/* Tells the known length, without a system call (see the head of this file; FileSysSeekEnd asks).
 *   length  out: bytes; 0 on failure.
 * Returns TRUE; FALSE for a bad handle. */
NIM_API NimBool FileSysGetLength(int64_t* length, void* handle);

/* Reads at the position and moves it by what was read.
 *   count   out: bytes read; on failure the bytes read before the error.
 *   buffer  out: room for `size` bytes; may be null when size is 0.
 *   size    in: bytes wanted.
 * Reading at or past the end of the file succeeds with a smaller count, also 0: only the end of the
 * file makes a successful read short. Bytes of the buffer past *count are undefined.
 * Returns TRUE; FALSE for a bad handle, one not open for reading, or when the system fails. */
NIM_API NimBool FileSysRead(uint32_t* count, void* handle, void* buffer, uint32_t size);

/* Writes at the position and moves it by what was written. Past the end the file grows, with zeros
 * in between.
 *   count   out: bytes really written, on failure too.
 *   buffer  in: `size` bytes; may be null when size is 0.
 *   size    in: bytes to write; 0 succeeds and changes nothing.
 * Returns TRUE only when all bytes were written; FALSE for a bad handle, one not open for writing,
 * past 2^63 - 1, or when the system fails (the disk is full, for one). */
NIM_API NimBool FileSysWrite(uint32_t* count, void* handle, const void* buffer, uint32_t size);

/* Shows bytes of the file in place, without a copy. The position is neither used nor changed.
 *   view    out: the first of `size` bytes inside the mapping, read-only, aligned like `offset`;
 *           null on failure. Valid until the next FileSysRead, FileSysView or FileSysClose with
 *           this handle; a write to these bytes of the file shows through at once.
 *   offset  in: bytes from the start of the file.
 *   size    in: bytes wanted, at least 1; all of them must lie inside the file.
 * Returns TRUE; FALSE when they cannot be shown (no mapping, past the end or the mapped part, a bad
 * handle): the caller then reads. Always FALSE while a test has armed faults of reads or
 * observes file calls, so that it meets ordinary reads. */
NIM_API NimBool FileSysView(const void** view, void* handle, int64_t offset, uint32_t size);

/* Makes sure that the disk has room for `size` bytes at `offset`, without changing the length of
 * the file, so that a full disk is met before anything is overwritten.
 *   offset, size  in: bytes; size 0 succeeds.
 * Room is taken ahead in steps of 256 KiB as long as the disk has that much.
 * Returns TRUE when the room is there, and also where the file system cannot reserve; FALSE when it
 * refuses (full, over quota, too large), and for a bad handle or one not open for writing.
 * Position, length and content never change. */
NIM_API NimBool FileSysReserve(void* handle, int64_t offset, uint32_t size);

/* Switches mappings on (the default) or off, for the files that are opened from now on. The
 * environment variable NIM_NO_MAPPING, set to anything but "0", keeps them off in any case.
 *   on  in: 0 = off. */
NIM_API void FileSysSetMapping(NimBool on);

/* Switches writing through mappings on or off (the default), for the files that are opened from now
 * on for reading and writing, with mappings on. The environment variable NIM_MAPPED_WRITING, set to
 * anything but "0", switches it on in any case.
 * What lies inside the file is then stored to memory that is the file, without a system call:
 * faster, and as safe from the death of the process; what goes behind the end of the file is still
 * written. The risk is the host's: a device that fails under a store, or a file that another
 * program cuts off, ends the process with a signal instead of a failed write. Space on disk is made
 * sure of first, so that a full disk does not; where the file system cannot do that, every write
 * stays a system call. on  in: 0 = off. */
NIM_API void FileSysSetMappedWriting(NimBool on);

NIM_END

#endif /* NIM_FILESYS_H */
