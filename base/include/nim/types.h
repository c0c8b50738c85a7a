/* types.h: the widths, truth values and linkage that every header of the base services shares.
 *
 * Everything that crosses a library boundary is built from these: fixed-width integers (never
 * `long`, which is 4 bytes on 64-bit Windows and 8 on Linux), 32-bit truth values and plain
 * pointers. No exception crosses a boundary.
 */
#ifndef NIM_TYPES_H
#define NIM_TYPES_H

#include <stddef.h>
#include <stdint.h>

/* 32-bit truth value. Every function that returns one returns exactly TRUE (1) or FALSE (0). */
typedef uint32_t NimBool;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* NIM_STATIC: the services are linked in, not loaded. NIM_BUILD: the library itself is compiled. */
#if defined(_WIN32) && !defined(NIM_STATIC)
#ifdef NIM_BUILD
#define NIM_API __declspec(dllexport)
#else
#define NIM_API __declspec(dllimport)
#endif
#elif defined(_WIN32)
#define NIM_API
#else
#define NIM_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define NIM_BEGIN extern "C" {
#define NIM_END }
#else
#define NIM_BEGIN
#define NIM_END
#endif

#endif /* NIM_TYPES_H */
