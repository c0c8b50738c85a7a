// format.h: the formatter of messages, shared by trace and log.
#pragma once

#include <cstdarg>
#include <cstdint>

// Formats into `buffer`, which holds `size` bytes, and ends it with a NUL when size is not 0. A
// longer text is cut. Result: the length of the whole text without the NUL, whatever fits; a text
// above 4 GiB counts as 0xFFFFFFFF. `buffer` may be null when size is 0. A null format is "(null)".
// `args` is left undefined.
uint32_t FormatMessageV(char* buffer, uint32_t size, const char* format, va_list args);
uint32_t FormatMessageVa(char* buffer, uint32_t size, const char* format, ...);
