// proc_test.cpp: the end of the process, in child processes, and the handler that takes its place.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/environment.h"
#include "support/file_bytes.h"
#include "support/trace_recorder.h"

#define TAG "PROCTEST        "

namespace {

class ProcChild : public testing::Test {
  protected:
    void SetUp() override { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

void OtherHandler(uint32_t) {}

} // namespace

TEST(Proc, AHandlerTakesTheCrashAndMayReturn)
{
    CrashRecorder crashes;
    ProcCrash(0);
    ProcCrash(17);
    EXPECT_EQ(crashes.codes(), (std::vector<uint32_t>{0, 17}));
}

TEST(Proc, SettingAHandlerGivesTheFormerOne)
{
    ProcCrashHandler before = ProcSetCrashHandler(OtherHandler);
    EXPECT_EQ(ProcSetCrashHandler(nullptr), OtherHandler);
    EXPECT_EQ(ProcSetCrashHandler(before), nullptr);
}

TEST(Proc, RecordersOfCrashesGiveTheFormerHandlerBack)
{
    ProcCrashHandler before = ProcSetCrashHandler(OtherHandler);
    {
        CrashRecorder crashes;
        ProcCrash(3);
        EXPECT_EQ(crashes.count(), 1u);
    }
    EXPECT_EQ(ProcSetCrashHandler(before), OtherHandler);
}

TEST_F(ProcChild, WithoutAHandlerTheProcessEndsAsACrashAndShowsTheRecentTrace)
{
    // Code 0 as well must not look like success.
    EXPECT_DEATH(
        {
            NIM_TRACE(TAG, 0, 3, "not on the standard error by itself");
            NIM_TRACE(TAG, 0, 3, "and another");
            ProcCrash(0);
        },
        "NIM ends the process \\(0\\), recent trace:\n"
        "PROCTEST         +\\w+    3 not on the standard error by itself\n"
        "PROCTEST         +\\w+    3 and another\n");
    EXPECT_DEATH(ProcCrash(7), "NIM ends the process \\(7\\), recent trace:\n");
}

TEST_F(ProcChild, AWholeRingIsShown)
{
    EXPECT_DEATH(
        {
            for (int32_t i = 0; i < 600; ++i)
                NIM_TRACE(TAG, 0, 3, "line %ld.", i);
            ProcCrash(0);
        },
        "recent trace:\nPROCTEST         +\\w+    3 line 88\\.\nPROCTEST         +\\w+    3 line "
        "89\\.\n");
}

TEST_F(ProcChild, ACrashInsideASinkEndsTheProcessToo)
{
    EXPECT_DEATH(
        {
            TraceSetSink([](void*, const TraceLine*) { ProcCrash(1); }, nullptr, 4);
            NIM_TRACE(TAG, 0, 0, "the last line");
        },
        "NIM ends the process \\(1\\), recent trace:\nPROCTEST         +\\w+    0 the last line\n");
}

TEST_F(ProcChild, WhatAHostsSinkLeftWithTheCLibraryIsWritten)
{
    SharedDirectory directory;
    std::string path = directory.path("sink.txt");
    EXPECT_DEATH(
        {
            static FILE* file = std::fopen(path.c_str(), "wb");
            TraceSetSink(
                [](void*, const TraceLine* line) {
                    std::fputs(line->text, file);
                    std::fputs("\n", file);
                },
                nullptr, 4);
            NIM_TRACE(TAG, 0, 4, "buffered");
            ProcCrash(0);
        },
        "NIM ends the process");
    EXPECT_EQ(ReadFileBytes(path), "buffered\n");
}

#if defined(__linux__)
TEST_F(ProcChild, ACrashOnTheWayDownDoesNotBeginItAllAgain)
{
    // What a host's own stream does when it is flushed may crash, too.
    EXPECT_DEATH(
        {
            cookie_io_functions_t calls = {};
            calls.write = [](void*, const char*, size_t) -> ssize_t {
                ProcCrash(2);
                return 0;
            };
            FILE* file = fopencookie(nullptr, "w", calls);
            std::fputs("buffered", file);
            ProcCrash(1);
        },
        "^NIM ends the process \\(1\\), recent trace:\n$");
}
#endif
