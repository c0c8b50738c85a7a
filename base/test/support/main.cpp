// main.cpp: the entry of every test program.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "coverage.h"
#include "environment.h"

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

// A program that dies leaves no report: the file named by NIM_TEST_RUNNING then holds the test that
// it died in. It goes when the program comes to its end.
class RunningTest : public testing::EmptyTestEventListener {
  public:
    explicit RunningTest(std::string path) : path_(std::move(path)) {}

    void OnTestStart(const testing::TestInfo& test) override
    {
        if (FILE* file = std::fopen(path_.c_str(), "w")) {
            std::fprintf(file, "%s.%s\n", test.test_suite_name(), test.name());
            std::fclose(file);
        }
    }
    void OnTestProgramEnd(const testing::UnitTest&) override { std::remove(path_.c_str()); }

  private:
    const std::string path_;
};

// The programs that tests start are not to write there: for them the variable is gone.
static void TellTheRunningTest()
{
    const char* path = std::getenv("NIM_TEST_RUNNING");
    if (path == nullptr || *path == '\0')
        return;
    testing::UnitTest::GetInstance()->listeners().Append(new RunningTest(path)); // takes it over
    UnsetEnvironment("NIM_TEST_RUNNING");
}

int main(int argc, char** argv)
{
#ifdef NIM_COVERAGE
    std::signal(SIGABRT, OnAbort);
#endif
    testing::InitGoogleTest(&argc, argv);
    TellTheRunningTest();
    return RUN_ALL_TESTS();
}
