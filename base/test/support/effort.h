// effort.h: how much random tests do. One variable of the environment says it:
//
//   NIM_TEST_OPERATIONS   operations of a model test, of the trees and of the tables each; 50,000
//                         when it is not set, which finds what a careless change breaks. A
//                         million (./dev test --all) finds what is rare, too.
//
// Other random tests have their usual number of rounds, and four times as many from a million
// operations on.
#pragma once

#include <cstdint>
#include <cstdlib>

inline uint64_t ModelOperations()
{
    const char* given = std::getenv("NIM_TEST_OPERATIONS");
    return given && *given ? std::strtoull(given, nullptr, 0) : 50'000;
}

inline uint32_t RandomRounds(uint32_t usual)
{
    return ModelOperations() >= 1'000'000 ? 4 * usual : usual;
}

// What opens, makes and removes files: where the system runs under an emulator each of these takes
// a hundred times as long, and the facts are the same.
template <typename Number>
constexpr Number FileEffort(Number times)
{
#ifdef _WIN32
    return times / 10;
#else
    return times;
#endif
}
