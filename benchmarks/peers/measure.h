// measure.h - the clocks of the benchmark programs, and what the system says about their memory.
#pragma once
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/resource.h>

inline double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// User and system, of all threads.
inline double cpu_seconds()
{
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           1e-6 * double(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

// A figure of /proc/self/status in KiB: "RssAnon" is the memory that is no file's, "VmHWM" the most
// that was ever resident, mapped files included.
inline long status_kb(const char* key)
{
    FILE* f = fopen("/proc/self/status", "r");
    if (!f)
        return 0;
    char line[256];
    long v = 0;
    while (v == 0 && fgets(line, sizeof line, f)) {
        if (!strncmp(line, key, strlen(key)))
            v = atol(line + strlen(key) + 1);
    }
    fclose(f);
    return v;
}
