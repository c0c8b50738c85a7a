/* str.h: texts: bytes that end with a NUL, UTF-8 by convention.
 *
 * Comparisons go by unsigned byte, and letter case is A to Z only, never by locale: the order of
 * keys in files must not depend on the machine. Results of comparisons are three-way by sign:
 * negative, 0 or positive. A null text sorts before every other and is equal to another null.
 */
#ifndef NIM_STR_H
#define NIM_STR_H

#include "nim/types.h"

NIM_BEGIN

/* Bytes of a text with its NUL: 1 for "", 0 for null. A text of 4 GiB or more counts 0xFFFFFFFF. */
NIM_API uint32_t StrSize(const char* s);

/* Whether there is no text: null or "". */
NIM_API NimBool StrIsEmpty(const char* s);

/* Compares two texts, with and without regard to case. */
NIM_API int32_t StrCompare(const char* a, const char* b);
NIM_API int32_t StrCompareNoCase(const char* a, const char* b);

/* Compares at most the first `n` bytes; stops at a NUL. No byte behind the n-th is read, so neither
 * text need end. A text that ends first sorts first. With n 0 everything is equal. */
NIM_API int32_t StrCompareRange(const char* a, const char* b, uint32_t n);
NIM_API int32_t StrCompareRangeNoCase(const char* a, const char* b, uint32_t n);

/* Compares two texts that need not end: each ends at its first NUL or at its size, whichever comes
 * first, and they compare as StrCompare and StrCompareNoCase would compare texts with a NUL there.
 *   aSize, bSize  bytes that may be read */
NIM_API int32_t StrCompareBounded(const char* a, uint32_t aSize, const char* b, uint32_t bSize);
NIM_API int32_t
StrCompareBoundedNoCase(const char* a, uint32_t aSize, const char* b, uint32_t bSize);

/* The first occurrence of `sub` in `text`, with regard to case; "" is found at the beginning.
 * Result: a place in `text`, or null when there is none or either is null. */
NIM_API const char* StrFindSubString(const char* text, const char* sub);

/* Reads one byte and moves on.
 *   cursor  in/out: address of the caller's place in a text. At the NUL it stays where it is.
 * Result: the byte, 1 to 255; 0 at the NUL, for a null address and for a null place. */
NIM_API uint32_t StrGetChar(const char** cursor);

/* The first byte `c` (0 to 255; 0 finds the NUL) at or behind `s`.
 * Result: its place, or null when there is none or `s` is null. */
NIM_API const char* StrNextCharMatch(const char* s, uint32_t c);

/* Copies a text into a pool. Result: the copy, freed with MemFreeInternal; null for null, for an
 * unknown pool, or when there is no memory. */
NIM_API char* StrDuplicateIntoPool(const char* s, uint32_t pool);

/* Copies `n` bytes, whatever they are, and ends them with a NUL.
 *   start  readable for n bytes; null gives null
 * Result as above. */
NIM_API char* StrDuplicateRangeIntoPool(const char* start, uint32_t pool, uint32_t n);

/* The number in decimal, as a new text in a pool. An unsigned 32-bit number prints as such when it
 * is widened first: (int64_t)(uint32_t)number. Result as above. */
NIM_API char* StrFromInteger(int64_t v, uint32_t pool);

NIM_END

#endif /* NIM_STR_H */
