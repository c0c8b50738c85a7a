// output_posix_test.cpp: no line of a trace or a log is lost or broken, whoever else writes to its
// file, and where the file fails it goes to the standard error; nobody waits for another's disk.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <map>
#include <string>
#include <thread>

#include "nim/log.h"
#include "nim/trace.h"
#include "output.h"
#include "support/environment.h"
#include "support/file_bytes.h"
#include "support/standard_error.h"
#include "support/system_calls.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"

namespace {

constexpr char TAG[] = "OUTPUTTEST        ";
constexpr int LINES = 20000;
const std::string LONG(5000, 'x'); // more than takes no memory

// The text of a line of one of two writers; every hundredth is a long one.
std::string LineOf(char writer, int number)
{
    return std::string(1, writer) + " " + std::to_string(number) +
           std::string(number % 100 == 0 ? 3000 : 40, writer) + "end";
}

// Two processes that write at a time, each its lines; ends this process.
template <class Write>
[[noreturn]] void TwoWriters(Write write)
{
    pid_t children[2];
    for (int i = 0; i < 2; ++i) {
        children[i] = fork();
        if (children[i] == 0) {
            for (int line = 0; line < LINES; ++line)
                write(LineOf(static_cast<char>('a' + i), line));
            _exit(0);
        }
    }
    int status = 0;
    int wrong = 0;
    for (const pid_t child : children)
        wrong += waitpid(child, &status, 0) != child || status != 0;
    _exit(wrong);
}

// Every line of both writers once, whole.
void ExpectAllLines(const std::string& path, const std::string& head)
{
    std::map<std::string, int> seen;
    const std::string bytes = ReadFileBytes(path);
    size_t count = 0;
    for (size_t at = 0; at < bytes.size(); ++count) {
        const size_t end = std::min(bytes.find('\n', at), bytes.size());
        const size_t text = bytes.find(head, at);
        if (text < end)
            ++seen[bytes.substr(text + head.size(), end - text - head.size())];
        at = end + 1;
    }
    EXPECT_EQ(count, 2u * LINES);
    int missing = 0;
    for (char writer : {'a', 'b'})
        for (int line = 0; line < LINES; ++line)
            missing += seen[LineOf(writer, line)] != 1;
    EXPECT_EQ(missing, 0);
}

// What the standard error writes goes nowhere as long as this lives: a pipe that is full.
class BlockedStandardError {
  public:
    BlockedStandardError()
    {
        EXPECT_EQ(pipe(ends_), 0);
        fcntl(ends_[1], F_SETFL, O_NONBLOCK);
        const std::string bytes(4096, 'f');
        while (write(ends_[1], bytes.data(), bytes.size()) > 0)
            ;
        fcntl(ends_[1], F_SETFL, 0);
        former_ = dup(STDERR_FILENO);
        dup2(ends_[1], STDERR_FILENO);
    }
    // Ends the waiting of whoever writes.
    ~BlockedStandardError()
    {
        dup2(former_, STDERR_FILENO);
        close(former_);
        close(ends_[1]);
        close(ends_[0]);
    }
    BlockedStandardError(const BlockedStandardError&) = delete;
    BlockedStandardError& operator=(const BlockedStandardError&) = delete;
    void Drain()
    {
        char bytes[4096];
        fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        while (read(ends_[0], bytes, sizeof bytes) > 0)
            ;
    }

  private:
    int ends_[2] = {};
    int former_ = -1;
};

class OutputChild : public testing::Test {
  protected:
    void SetUp() override
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        UnsetEnvironment("NIM_TRACE_FILE");
        UnsetEnvironment("NIM_LOG_FILE");
    }
};

} // namespace

TEST(OutputPosix, TwoProcessesNeitherLoseNorBreakLines)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("lines");
    const pid_t child = fork();
    if (child == 0)
        TwoWriters([&](const std::string& text) {
            Output output(path.c_str());
            output.Put("> ");
            output.Put(text.c_str());
            output.Put("\n");
        });
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    ExpectAllLines(path, "> ");
}

TEST_F(OutputChild, TwoProcessesTraceAndLogToOneFileLineByLine)
{
    SharedDirectory directory;
    const std::string trace = directory.path("trace");
    const std::string log = directory.path("log");
    EXPECT_EXIT(
        {
            SetEnvironment("NIM_TRACE_FILE", trace);
            SetEnvironment("NIM_LOG_FILE", log);
            TwoWriters([](const std::string& text) {
                NIM_TRACE(TAG, 1, -1, "> %s", text.c_str());
                LogMessage(1298, 96, 0, "> %s", text.c_str());
            });
        },
        testing::ExitedWithCode(0), "^$");
    ExpectAllLines(trace, "> ");
    ExpectAllLines(log, "> ");
}

TEST(OutputPosix, AMessageWithItsContextIsOneCall)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("output");
    // A second write would be struck.
    const int64_t struck = WithStruckCall({SYS_write, EIO, 2}, [&] {
        Output output(path.c_str());
        output.Put("head ");
        output.Put(LONG.c_str());
        output.Put("\n");
        output.Put(LONG.c_str());
    });
    if (struck < 0)
        GTEST_SKIP() << "no filters of system calls here";
    EXPECT_EQ(struck, 0);
    EXPECT_EQ(ReadFileBytes(path), "head " + LONG + "\n" + LONG);
}

TEST(OutputPosix, NobodyWaitsForAnotherThreadsWrite)
{
    BlockedStandardError blocked;
    std::thread writer([] { NIM_TRACE(TAG, 1, -1, "waits for the disk"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // it is in the write by now
    std::promise<void> promise;
    std::future<void> done = promise.get_future();
    size_t recorded = 0;
    std::thread other([&] {
        TraceSetRingLevel(3);
        {
            TraceRecorder trace;
            NIM_TRACE(TAG, 1, -1, "goes elsewhere");
            recorded = trace.count("goes elsewhere");
        }
        promise.set_value();
    });
    EXPECT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    blocked.Drain();
    writer.join();
    other.join();
    EXPECT_EQ(recorded, 1u);
}

TEST(OutputPosix, AFullDiskSendsWhatFindsNoRoomToTheStandardError)
{
    StandardError taken;
    {
        Output output("/dev/full");
        output.Put("one line\n");
    }
    {
        Output output("/dev/full");
        output.Put(LONG.c_str());
    }
    EXPECT_EQ(taken.text(), "one line\n" + LONG);
}

TEST(OutputPosix, WhatWentIntoTheFileIsNotWrittenASecondTime)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("output");
    // A disk of one page: it takes the first part.
    if (mount("tmpfs", directory.path().c_str(), "tmpfs", 0, "size=4096") != 0)
        GTEST_SKIP() << "no disk of a given size here";
    {
        StandardError taken;
        {
            Output output(path.c_str());
            output.Put(LONG.c_str());
        }
        EXPECT_EQ(ReadFileBytes(path), LONG.substr(0, 4096));
        EXPECT_EQ(taken.text(), LONG.substr(4096));
    }
    umount2(directory.path().c_str(), MNT_DETACH);
}

TEST(OutputPosix, HalfWritesAreGoneOnWith)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("output");
    const int64_t struck = WithStruckCall({SYS_write, 0, 1, 4}, [&] {
        Output output(path.c_str());
        output.Put(LONG.c_str());
    });
    if (struck < 0)
        GTEST_SKIP() << "no filters of system calls here";
    EXPECT_EQ(struck, 4);
    EXPECT_EQ(ReadFileBytes(path), LONG);
}

TEST(OutputPosix, AFileAtTheLimitForFilesSendsLinesToTheStandardErrorWhole)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("output");
    StandardError taken;
    const pid_t child = fork();
    if (child == 0) {
        // The signal's disposition is the default one: it would end the process.
        const rlimit limit = {25, 25};
        setrlimit(RLIMIT_FSIZE, &limit);
        for (const char* line : {"one line\n", "another one\n", "lost\n", "more\n"})
            Output(path.c_str()).Put(line);
        _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadFileBytes(path), "one line\nanother one\n");
    EXPECT_EQ(taken.text(), "lost\nmore\n");
}
