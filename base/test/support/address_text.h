// address_text.h: an address as messages print it: 16 upper-case hexadecimal digits.
#pragma once

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>

inline std::string Address(const void* p)
{
    char text[20];
    snprintf(text, sizeof text, "%016" PRIXPTR, reinterpret_cast<uintptr_t>(p));
    return text;
}
