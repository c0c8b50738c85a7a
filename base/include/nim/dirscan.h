/* dirscan.h: the names in a directory, in an order that is the same on every machine.
 */
#ifndef NIM_DIRSCAN_H
#define NIM_DIRSCAN_H

#include "nim/types.h"

NIM_BEGIN

/* Called for one entry.
 *   directory  the directory as it was given to the scan
 *   name       the entry's name; valid during the call
 *   context    as given to the scan
 * The scan goes on while it returns exactly 1. It may open, create and remove entries and start
 * scans of its own: the directory has been read and closed before the first call. */
typedef NimBool (*DirScanCallback)(const char* directory, const char* name, void* context);

/* Calls `callback` for every entry of a directory, files and directories alike, without "." and
 * "..", without descent, in ascending order of the names by unsigned byte.
 *   directory  in: null or empty fails.
 *   callback   in: null fails.
 *   context    in: handed through; may be null.
 * Returns TRUE when every entry was handed over; FALSE when the directory cannot be read or memory
 * runs out (the callback was not called then), or when the callback ended the scan. */
NIM_API NimBool DirScan(const char* directory, DirScanCallback callback, void* context);

/* The same; the name says that the scan stays in this one directory. */
NIM_API NimBool DirScanDirect(const char* directory, DirScanCallback callback, void* context);

NIM_END

#endif /* NIM_DIRSCAN_H */
