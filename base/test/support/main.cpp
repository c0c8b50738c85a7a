// main.cpp: the entry of every test program.
#include <gtest/gtest.h>

#include <csignal>

#include "coverage.h"

#ifdef NIM_COVERAGE
extern "C" void __gcov_dump(); // of the compiler's own library

void SaveCoverage()
{
    __gcov_dump();
}

// The process ends all the same when this returns.
static void OnAbort(int)
{
    SaveCoverage();
}
#else
void SaveCoverage() {}
#endif

int main(int argc, char** argv)
{
#ifdef NIM_COVERAGE
    std::signal(SIGABRT, OnAbort);
#endif
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
