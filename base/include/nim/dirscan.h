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

/* How a scan ended. */
enum {
    DIRSCAN_DONE = 1,    /* every entry was handed over                                           */
    DIRSCAN_STOPPED = 2, /* the callback ended it                                                 */
    DIRSCAN_ABSENT = 3,  /* there is no such directory                                            */
    DIRSCAN_UNREAD = 4   /* the directory could not be read, or not to its end, or no memory:
                          * nothing is known of what is in it                                     */
};

/* Calls `callback` for every entry of a directory, files and directories alike, without "." and
 * "..", without descent, in ascending order of the names by unsigned byte, and tells how it ended.
 *   directory  in: null or empty gives DIRSCAN_UNREAD.
 *   callback   in: null gives DIRSCAN_UNREAD.
 *   context    in: handed through; may be null.
 * Returns one of the above. With DIRSCAN_ABSENT and DIRSCAN_UNREAD the callback was not called: a
 * directory that cannot be read to its end hands over nothing. */
NIM_API uint32_t DirScanOutcome(const char* directory, DirScanCallback callback, void* context);

/* Calls `callback` for every entry of a directory, files and directories alike, without "." and
 * "..", without descent, in ascending order of the names by unsigned byte.
 *   directory  in: null or empty fails.
 *   callback   in: null fails.
 *   context    in: handed through; may be null.
 * Returns TRUE when every entry was handed over; FALSE when the directory is absent or cannot be
 * read, when memory runs out, or when the callback ended the scan: DirScanOutcome tells which. */
NIM_API NimBool DirScan(const char* directory, DirScanCallback callback, void* context);

/* The same; the name says that the scan stays in this one directory. */
NIM_API NimBool DirScanDirect(const char* directory, DirScanCallback callback, void* context);

NIM_END

#endif /* NIM_DIRSCAN_H */
