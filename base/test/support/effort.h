// effort.h: how often a test repeats what opens, makes and removes files. Where the system runs
// under an emulator each of these takes a hundred times as long, and the facts are the same.
#pragma once

template <typename Number>
constexpr Number FileEffort(Number times)
{
#ifdef _WIN32
    return times / 10;
#else
    return times;
#endif
}
