/* unique.h: 32-byte unique ids. */
#ifndef NIM_UNIQUE_H
#define NIM_UNIQUE_H

#include "nim/types.h"

NIM_BEGIN

typedef struct UniqueId {
    uint8_t b[32];
} UniqueId;

/* Whether two ids have the same 32 bytes.
 *   a, b  addresses of 32 bytes each, at any alignment; null allowed
 * Result: 1 or 0; a null is equal to another null only. */
NIM_API NimBool UniqueEqual(const void* a, const void* b);

/* The id as 64 lower-case hexadecimal digits, first byte first.
 *   id  address of 32 bytes; null gives "(null)"
 * Result: never null, not freed; stays until the calling thread has asked for eight more. */
NIM_API const char* UniqueToString(const void* id);

NIM_END

#endif /* NIM_UNIQUE_H */
