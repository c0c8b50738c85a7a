/* stanza.h: stanza files, the text files of settings.
 *
 *     # a comment; so is a line that begins with ;
 *     [Stanza]
 *     key = value
 *
 * Blanks and tabs around names and values do not count; names are compared without regard to case
 * (A to Z); the first stanza and the first key of a name count. Lines end with LF or CRLF and may
 * be of any length; a UTF-8 mark at the start is skipped. There is no quoting and there are no
 * escapes, so that a backslash is a backslash. Lines that are none of the three are ignored when
 * read and kept when the file is rewritten. A file of more than 16 MiB is refused.
 *
 * A stanza and its keys belong to one thread at a time.
 */
#ifndef NIM_STANZA_H
#define NIM_STANZA_H

#include "nim/types.h"

NIM_BEGIN

typedef struct Stnz Stnz;
typedef struct StnzKey StnzKey;

/* What StnzReadStanzaFromFile answers. */
enum {
    STNZ_READ = 1,      /* here it is                                                             */
    STNZ_NO_FILE = 2,   /* there is no such file                                                  */
    STNZ_NO_STANZA = 3, /* there is the file, and no such stanza in it                            */
    STNZ_UNREAD = 4     /* something stands at the path, or may stand there, and could not be read
                         * (no permission, a failing device, a directory, more than 16 MiB), or out
                         * of memory: whether it has the stanza is not known                      */
};

/* Reads one stanza of a file, and tells a file that is not there from one that cannot be read: who
 * goes on with defaults does so for STNZ_NO_FILE and STNZ_NO_STANZA only.
 *   out   out: the stanza, which the caller releases with StnzRelease; null unless STNZ_READ.
 *   path  in: the file; null or empty gives STNZ_UNREAD.
 *   name  in: the stanza's name; null gives STNZ_UNREAD.
 * Returns one of the above; STNZ_UNREAD for a null `out`. What the system has refused, and a file
 * that is too large, stands in a failure trace. */
NIM_API uint32_t StnzReadStanzaFromFile(Stnz** out, const char* path, const char* name);

/* Reads one stanza of a file, for callers to whom it is all one why there is none.
 *   out       out: the stanza, which the caller releases with StnzRelease; null on failure.
 *   path      in: the file; null fails.
 *   reserved  in: any number; not used.
 *   name      in: the stanza's name; null fails.
 * Returns TRUE; FALSE when the file cannot be read or is too large, has no such stanza, or out of
 * memory. */
NIM_API NimBool
StnzLoadStanzaFromFile(Stnz** out, const char* path, uint32_t reserved, const char* name);

/* Makes an empty stanza in memory.
 *   out       out: the stanza, which the caller releases with StnzRelease; null on failure.
 *   reserved  in: any number; not used.
 *   name      in: not empty, without line ends and "]", without blanks at its ends.
 *   flag      in: any number; not used.
 * Returns TRUE; FALSE for a name that no file could hold, or out of memory. */
NIM_API NimBool StnzCreate(Stnz** out, uint32_t reserved, const char* name, uint32_t flag);

/* The integer value of a key.
 *   stanza  in: null fails.
 *   key     in: null fails.
 *   dflt    in: the value when there is none.
 *   value   out: the key's value, else `dflt`. Decimal digits with an optional sign, -2^31 to
 *           2^32 - 1; a number from 2^31 on comes as the int32_t with the same 32 bits.
 * Returns TRUE when the key has such a number and when there is no such key; FALSE when its value
 * is no number or out of range. */
NIM_API NimBool StnzGetInteger(Stnz* stanza, const char* key, int32_t dflt, int32_t* value);

/* The text value of a key: borrowed, valid until the key is replaced or the stanza released. Null
 * when there is no such key, or for a null stanza or key. */
NIM_API const char* StnzGetString(const Stnz* stanza, const char* key);

/* Makes a key with a signed decimal integer.
 *   out    out: the key, for StnzAddKeyToStanza, else for StnzReleaseKey; null on failure.
 *   key    in: the name: not empty, without line ends and "=", without blanks at its ends, and not
 *          beginning with "#", ";" or "[".
 *   value  in: written as it stands, -2147483648 to 2147483647.
 * Returns TRUE; FALSE for a name that no file could hold, or out of memory. */
NIM_API NimBool StnzCreateKeyFromInteger(StnzKey** out, const char* key, int32_t value);

/* Makes a key with a text. As StnzCreateKeyFromInteger; the value may be empty, but has no line
 * ends and no blanks at its ends (they would not come back); null fails. */
NIM_API NimBool StnzCreateKeyFromString(StnzKey** out, const char* key, const char* value);

/* Puts a key into a stanza, in the place of one with the same name, else behind the others.
 *   stanza, key  in: null fails, and so does a key that is in a stanza already.
 * Returns TRUE: the stanza owns the key, and the caller forgets it (its variable is not changed);
 * FALSE: the key stays the caller's. */
NIM_API NimBool StnzAddKeyToStanza(Stnz* stanza, StnzKey* key);

/* Releases a key that no stanza owns (one that is owned is left to its stanza) and sets the
 * caller's variable to null. Null is legal in both places. */
NIM_API void StnzReleaseKey(StnzKey** key);

/* Releases a stanza with its keys and sets the caller's variable to null. Null is legal in both
 * places. */
NIM_API void StnzRelease(Stnz** stanza);

/* Makes the stanza of this name in a file hold exactly the keys of this one; creates the file when
 * it does not exist. A key line that stays in place is rewritten, one that is not in the stanza
 * goes, new ones follow the last key; a stanza that the file does not have goes to its end.
 * Everything else, comments, blank and unknown lines and their line ends included, is kept byte for
 * byte. New lines end with LF.
 *   stanza  in: null fails.
 *   path    in: null or empty fails.
 * The new content is written to a temporary file, path + ".tmp", which then takes the place of the
 * file: the file has its old content or its new one, whenever the process ends. (It is not forced
 * to the disk: after a power failure that is up to the file system.) A process that dies in between
 * leaves the temporary file behind, and the next replacement writes over it.
 * Returns TRUE; FALSE when something fails: the file is then as it was, and the temporary file is
 * gone. */
NIM_API NimBool StnzReplaceStanzaInFile(Stnz* stanza, const char* path);

/* The same for a file in a directory whose files are named by users, so that any name beside it may
 * be another file: the temporary file has the name + ".tmp" in the parent of that directory, where
 * the caller lets nobody name files. It fails, too, where the parent cannot be written to or is in
 * another file system. */
NIM_API NimBool StnzReplaceStanzaViaParent(Stnz* stanza, const char* path);

NIM_END

#endif /* NIM_STANZA_H */
