/* dbconfig.h: where databases live.
 *
 * On a single machine every database is a directory under one home directory, named by the
 * product's configuration (configure.cfg, stanza "Directories", key "database"), or "db" under the
 * product's home directory. In clustered mode a database may instead live in the directory \tambdb
 * of any local fixed drive, and its place travels as a number, the munged qtree id:
 *
 *   bits 24 to 31   drive number: the drive letter's code minus 64 ("A" = 1, "C" = 3), modulo 256;
 *                   0 = the home directory
 *   bits 0 to 23    the low 24 bits of the qtree id that the caller gave
 *
 * Texts are bytes ended by a NUL. New texts come from the default pool and are freed by the caller
 * with MemFree. No function here sets a last error.
 */
#ifndef DATABASE_DBCONFIG_H
#define DATABASE_DBCONFIG_H

#include "database/export.h"

NIM_BEGIN

/* The value of gbDbClusteredMode that means clustered mode. No other value is tested anywhere. */
#define DB_CLUSTERED_MODE 1u

/* Process-wide, 0 until it is set. Meant to be set once, before any database is opened; no lock. */
NIMDB_API extern uint32_t gbDbClusteredMode;

/* Hands out the home directory of databases.
 *
 * ppDir  out: new text, freed by the caller; null when it cannot be told: there was no memory, or
 *        the configuration is there, or may be, and cannot be read (a failure trace says why). The
 *        default is handed out only when nothing is configured. Null must not be taken for a
 *        directory.
 *
 * Returns 1, always; 0 only when ppDir itself is null. */
NIMDB_API NimBool DbGetHomeDir(char** ppDir);

/* Stores the mode in gbDbClusteredMode and returns it. */
NIMDB_API uint32_t DbSetClusteredMode(uint32_t mode);

/* Returns gbDbClusteredMode. */
NIMDB_API uint32_t DbGetClusteredMode(void);

/* Finds the database directory that belongs to a path. The first that fits decides: a path that
 * begins with "SystemState" (without regard to case) belongs to the home directory; one that begins
 * with "App" to none; one that begins with an ASCII letter and ":" to \tambdb on that drive. The
 * disk is not looked at.
 *
 * path      in: the path; null belongs to none.
 * ppDbPath  in/out: address of a valid pointer (null or not): its text is traced in every case.
 *           Receives a new text, freed by the caller; untouched when the result is 0.
 *
 * Returns 1 with *ppDbPath set, or 0: the path belongs to none, or the home directory cannot be
 * told (a failure trace says so), or there was no memory. */
NIMDB_API NimBool DbGetClusterDerivedPath(const char* path, char** ppDbPath);

/* Packs the drive of a path and a qtree id into a munged qtree id.
 *
 * qtreeId  in: the low 24 bits are kept.
 * path     in: the home directory itself (without regard to case) gives 0; of any other path only
 *          the first character counts, and one that is no letter wraps the drive number. Null
 *          gives 0.
 *
 * Returns the munged id; 0 with a failure trace when the home directory cannot be told, since then
 * it cannot be told either whether the path is the home directory. */
NIMDB_API uint32_t DbMungeQtreeIdFromDbPath(uint32_t qtreeId, const char* path);

/* Unpacks a munged qtree id: the database directory of its drive, or the home directory when its
 * drive number is 0. The low 24 bits are ignored.
 *
 * Returns a new text, freed by the caller; null when there was no memory for it, or the home
 * directory cannot be told. */
NIMDB_API char* DbGetDbPathFromMungedQtreeId(int32_t mungedId);

/* Appends one string object for every candidate database directory: the home directory when asked
 * for, then \tambdb of every fixed drive that has it, in order of the letters.
 *
 * list         in: a list of the caller's, unset or of strings; it owns what is appended. With null
 *              nothing is appended.
 * includeHome  in: 1 = the home directory comes first; any other value = it is left out.
 *
 * Gives no result: what cannot be appended is missing. A drive or directory that the system gives
 * no answer about is left out with a failure trace, as is a home directory that cannot be told. */
NIMDB_API void DbGetDbPathList(void* list, uint32_t includeHome);

NIM_END

#endif /* DATABASE_DBCONFIG_H */
