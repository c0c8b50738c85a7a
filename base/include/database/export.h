/* export.h: linkage of the database library's exported names.
 *
 * NIMDB_BUILD: the library itself is compiled. NIM_STATIC: it is linked in, not loaded (tests).
 * Everything without NIMDB_API stays hidden.
 */
#ifndef DATABASE_EXPORT_H
#define DATABASE_EXPORT_H

#include "nim/types.h"

#if defined(_WIN32) && !defined(NIM_STATIC)
#ifdef NIMDB_BUILD
#define NIMDB_API __declspec(dllexport)
#else
#define NIMDB_API __declspec(dllimport)
#endif
#elif defined(_WIN32)
#define NIMDB_API
#else
#define NIMDB_API __attribute__((visibility("default")))
#endif

#endif /* DATABASE_EXPORT_H */
