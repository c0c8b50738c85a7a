/* config.h: single values of the product's configuration.
 */
#ifndef NIM_CONFIG_H
#define NIM_CONFIG_H

#include "nim/types.h"

NIM_BEGIN

/* The text of a key in a configuration file (a stanza file, see stanza.h). The file is read anew by
 * every call.
 *   value   out: a new string from the default pool, freed by the caller with MemFreeInternal: the
 *           key's value, else a copy of `dflt`; null on failure.
 *   file    in: a path; a relative one lies under the product's home directory (path.h).
 *   stanza  in: the stanza's name.
 *   key     in: the key's name.
 *   dflt    in: used when file, stanza or key is missing or null, or the value is empty. May be
 *           null.
 * Returns TRUE when there is a string; FALSE when there is neither a value nor a default, and when
 * the value cannot be told: there is a file, or may be, that cannot be read, or out of memory. A
 * default would then be another value than the configured one; a failure trace says so. */
NIM_API NimBool
CfgGetString(char** value, const char* file, const char* stanza, const char* key, const char* dflt);

NIM_END

#endif /* NIM_CONFIG_H */
