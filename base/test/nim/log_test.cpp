// log_test.cpp: the product log, through a sink, on the standard error and in a file. The default
// is watched in child processes, since the environment is read once in each.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/environment.h"
#include "support/file_bytes.h"
#include "support/trace_recorder.h"

namespace {

class LogChild : public testing::Test {
  protected:
    void SetUp() override
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        UnsetEnvironment("NIM_LOG_FILE");
    }
};

[[noreturn]] void LogTwoAndExit()
{
    LogMessage(1299, 96, 0, "Failed to flush database block");
    LogMessageWithContext(
        1298, 80, 0, "first\nsecond\n\nlast", "Failed %ld '%s'", -1,
        static_cast<const char*>(nullptr));
    std::exit(0);
}

const char TWO_MESSAGES[] = "NIM 1299 [96] Failed to flush database block\n"
                            "NIM 1298 [80] Failed -1 '(null)'\n"
                            "    first\n"
                            "    second\n"
                            "    \n"
                            "    last\n";

} // namespace

TEST(Log, ASinkGetsNumberClassTextAndContext)
{
    LogRecorder log;
    TraceRecorder trace;
    NIM_TRACE("LOGTEST        ", 1, -1, "a line of the trace is no message");
    LogMessage(1302, 96, 0, "Failed to write record in table '%s'", "People");
    LogMessageWithContext(1298, 80, 0, "line one\nline two", "at %I64d", int64_t{1} << 40);
    LogMessageWithContext(1298, 96, 0, nullptr, "no context");
    LogMessageWithContext(1298, 96, 0, "", "empty context");
    std::vector<LogRecorder::Message> messages = log.messages();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_TRUE(log.has(1302, 96, "Failed to write record in table 'People'"));
    EXPECT_FALSE(messages[0].hasContext);
    EXPECT_TRUE(log.has(1298, 80, "at 1099511627776"));
    EXPECT_EQ(messages[1].context, "line one\nline two");
    EXPECT_TRUE(log.has(1298, 96, "no context"));
    EXPECT_FALSE(messages[2].hasContext);
    EXPECT_TRUE(messages[3].hasContext);
    EXPECT_EQ(log.count(1298), 3u);
    EXPECT_FALSE(log.has(1302, 80, "Failed to write record in table 'People'"));
    EXPECT_EQ(trace.lines().size(), 1u); // and a message is no line of the trace
}

TEST(Log, LongTextsAreWholeUpTo64KiB)
{
    LogRecorder log;
    for (size_t size : {1000, 1022, 1023, 1024, 8168, 65536}) {
        std::string text(size, 't');
        LogMessage(1, 2, 0, "%s", text.c_str());
        EXPECT_EQ(log.messages().back().text, text);
    }
    std::string text(100000, 't');
    LogMessage(1, 2, 0, "%s%ld", text.c_str(), 5);
    EXPECT_EQ(log.messages().back().text, text.substr(0, 65536));
}

TEST(Log, NullFormatIsPrintedAsSuch)
{
    LogRecorder log;
    LogMessage(1, 2, 0, nullptr);
    EXPECT_TRUE(log.has(1, 2, "(null)"));
}

TEST(Log, RecordersNest)
{
    LogRecorder outer;
    {
        LogRecorder inner;
        LogMessage(1, 96, 0, "inner");
        EXPECT_TRUE(inner.has(1, 96, "inner"));
    }
    EXPECT_TRUE(outer.empty());
    LogMessage(2, 96, 0, "outer");
    EXPECT_TRUE(outer.has(2, 96, "outer"));
}

TEST(Log, WhatASinkLogsIsIgnoredAndItMayTrace)
{
    TraceRecorder trace;
    int calls = 0;
    LogSetSink(
        [](void* context, const LogRecord*) {
            ++*static_cast<int*>(context);
            LogMessage(2, 96, 0, "from inside");
            NIM_TRACE("LOGTEST        ", 0, 4, "logged");
        },
        &calls);
    LogMessage(1, 96, 0, "from outside");
    LogMessage(1, 96, 0, "from outside");
    LogSetSink(nullptr, nullptr);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(trace.count("logged"), 2u);
}

TEST(Log, ASinkMaySetAnotherSink)
{
    static LogRecorder* next;
    LogSetSink([](void*, const LogRecord*) { next = new LogRecorder; }, nullptr);
    LogMessage(1, 96, 0, "to the first");
    LogMessage(2, 96, 0, "to the second");
    EXPECT_EQ(next->count(1), 0u);
    EXPECT_EQ(next->count(2), 1u);
    delete next;
}

TEST(Log, ServesSeveralThreads)
{
    std::vector<uint32_t> ids; // not locked: calls come one at a time
    LogSetSink(
        [](void* context, const LogRecord* record) {
            static_cast<std::vector<uint32_t>*>(context)->push_back(record->id);
        },
        &ids);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 1000; ++i)
                LogMessage(t, 96, 0, "message %ld", i);
        });
    for (std::thread& thread : threads)
        thread.join();
    LogSetSink(nullptr, nullptr);
    EXPECT_EQ(ids.size(), 4000u);
}

TEST_F(LogChild, MessagesAreLinesOnTheStandardErrorWithTheContextIndented)
{
    EXPECT_EXIT(
        LogTwoAndExit(), testing::ExitedWithCode(0),
        "^NIM 1299 \\[96\\] Failed to flush database block\n"
        "NIM 1298 \\[80\\] Failed -1 '\\(null\\)'\n"
        "    first\n    second\n    \n    last\n$");
}

TEST_F(LogChild, MessagesAreAppendedToTheFileOfTheEnvironment)
{
    SharedDirectory directory;
    std::string path = directory.path("log.txt");
    EXPECT_EXIT(
        {
            WriteFileBytes(path, "there before\n");
            SetEnvironment("NIM_LOG_FILE", path);
            LogTwoAndExit();
        },
        testing::ExitedWithCode(0), "^$");
    EXPECT_EQ(ReadFileBytes(path), std::string("there before\n") + TWO_MESSAGES);
}

TEST_F(LogChild, AFileThatCannotBeOpenedSendsMessagesToTheStandardError)
{
    EXPECT_EXIT(
        {
            SetEnvironment("NIM_LOG_FILE", "/no/such/directory/log.txt");
            LogTwoAndExit();
        },
        testing::ExitedWithCode(0), "^NIM 1299 ");
}
