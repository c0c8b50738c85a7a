/* path.h: building paths, the product's home directory, and what stands at a path.
 *
 * Paths are UTF-8. Strings handed out come from the default pool; the caller frees them with
 * MemFreeInternal.
 */
#ifndef NIM_PATH_H
#define NIM_PATH_H

#include "nim/types.h"

NIM_BEGIN

/* The path of a name inside a directory.
 *   directory  in: a separator is put behind it unless it ends in one. Null or empty: the result is
 *              a copy of `name` (an empty directory must not turn a relative name into one at the
 *              root).
 *   name       in: taken as it stands. Null: the result is a copy of `directory`.
 *   reserved   in: 0.
 * Returns a new string; null when both are null or out of memory. */
NIM_API char* PathBuild(const char* directory, const char* name, uint32_t reserved);

/* The path of a name under the product's home directory: the one set by PathSetHome, else the
 * environment variable NIM_HOME (when it is not empty), else the directory of the running program.
 *   name      in: as in PathBuild.
 *   reserved  in: 0.
 * Returns a new string; null when out of memory. */
NIM_API char* PathHomeBuild(const char* name, uint32_t reserved);

/* Sets the product's home directory for this process.
 *   directory  in: copied, used as it stands; null or empty goes back to NIM_HOME or the directory
 *              of the running program.
 * Returns TRUE; FALSE, with the old home kept, for a path of more than 32,767 bytes. */
NIM_API NimBool PathSetHome(const char* directory);

/* Makes one directory; its parent must exist.
 *   path  in: null or empty fails.
 * Returns TRUE when it was made or is a directory already; else FALSE. */
NIM_API NimBool PathCreateDirectory(const char* path);

/* What stands at a path, as PathKind tells it. */
enum {
    PATH_ABSENT = 0,    /* certainly nothing                                                      */
    PATH_FILE = 1,      /* anything but a directory                                               */
    PATH_DIRECTORY = 2, /* a directory                                                            */
    PATH_UNKNOWN = 3    /* the system does not tell (no permission, a failing device, no memory):
                         * something may stand there                                              */
};

/* What stands at a path, links followed. For callers that create or choose something else when
 * nothing is there: PATH_UNKNOWN must not be taken for PATH_ABSENT.
 *   path  in: null or empty names nothing: PATH_ABSENT.
 * Returns one of PATH_ABSENT, PATH_FILE, PATH_DIRECTORY and PATH_UNKNOWN. */
NIM_API uint32_t PathKind(const char* path);

/* Whether a path is a directory, links followed. Returns exactly TRUE or FALSE; null is FALSE, and
 * so is a path about which the system gives no answer (PathKind tells these apart). */
NIM_API NimBool PathIsADirectory(const char* path);

/* Whether a path is there and is no directory, links followed. Returns exactly TRUE or FALSE; null
 * is FALSE, and so is a path about which the system gives no answer (PathKind tells these apart).
 */
NIM_API NimBool FileExists(const char* path);

NIM_END

#endif /* NIM_PATH_H */
