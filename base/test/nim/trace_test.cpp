// trace_test.cpp: levels, sinks, the ring, and what reaches the standard error or a file. The
// default sink is watched in child processes, since the environment is read once in each.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "nim/fault.h"
#include "nim/log.h"
#include "nim/mem.h"
#include "support/environment.h"
#include "support/file_bytes.h"
#include "support/trace_recorder.h"

#define TAG "TRACETEST        "

namespace {

constexpr int32_t RING_LEVEL = 3;
constexpr size_t RING_LINES = 512;

std::vector<std::string> Dump(uint32_t lines)
{
    char* text = nullptr;
    EXPECT_EQ(TraceDumpToString(&text, lines), 1u);
    std::vector<std::string> result;
    std::string all = text ? text : "";
    MemFree(text);
    for (size_t at = 0; at <= all.size() && !all.empty();) {
        size_t end = std::min(all.find('\n', at), all.size());
        result.push_back(all.substr(at, end - at));
        at = end + 1;
    }
    return result;
}

bool InRing(const std::string& part)
{
    for (const std::string& line : Dump(0))
        if (line.find(part) != std::string::npos)
            return true;
    return false;
}

void TraceList(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    TraceMessageV(TAG, 5, 0, 4, format, args);
    va_end(args);
}

class TraceChild : public testing::Test {
  protected:
    void SetUp() override
    {
        // A child of its own for each, begun afresh.
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        UnsetEnvironment("NIM_TRACE_LEVEL");
        UnsetEnvironment("NIM_TRACE_FILE");
    }
};

[[noreturn]] void TraceAllLevelsAndExit()
{
    for (int32_t level = 5; level >= -1; --level)
        NIM_TRACE(TAG, level == -1, level, "line of level %ld", level);
    std::exit(0);
}

} // namespace

TEST(Trace, ARecorderSeesEverythingOfALine)
{
    TraceRecorder trace;
    NIM_TRACE(TAG, 1, -1, "Failed to open '%s', %ld", "x", -5);
    uint32_t line = __LINE__ - 1;
    NIM_TRACE("INDX        ", 0, 4, "plain");
    NIM_TRACE(TAG, 5, 1, "a system's error value");
    ASSERT_EQ(trace.lines().size(), 3u);
    TraceRecorder::Line first = trace.lines()[0];
    EXPECT_EQ(first.tag, TAG);
    EXPECT_EQ(first.line, line);
    EXPECT_EQ(first.error, 1u);
    EXPECT_EQ(first.level, -1);
    EXPECT_EQ(first.text, "Failed to open 'x', -5");
    EXPECT_TRUE(trace.has("INDX        ", 0, 4, "plain"));
    EXPECT_FALSE(trace.has("INDX        ", 1, 4, "plain"));
    EXPECT_FALSE(trace.has("INDX        ", 0, 3, "plain"));
    EXPECT_FALSE(trace.has("INDX", 0, 4, "plain"));
    EXPECT_TRUE(trace.has(TAG, 5, 1, "a system's error value"));
    EXPECT_EQ(
        trace.texts(),
        (std::vector<std::string>{"Failed to open 'x', -5", "plain", "a system's error value"}));
}

TEST(Trace, RecordersNest)
{
    TraceRecorder outer(1);
    NIM_TRACE(TAG, 0, 1, "one");
    {
        TraceRecorder inner;
        NIM_TRACE(TAG, 0, 4, "two");
        EXPECT_EQ(inner.texts(), std::vector<std::string>{"two"});
    }
    NIM_TRACE(TAG, 0, 4, "above the level");
    NIM_TRACE(TAG, 0, 0, "three");
    EXPECT_EQ(outer.texts(), (std::vector<std::string>{"one", "three"}));
}

TEST(Trace, ASilentLineEvaluatesNoArgument)
{
    int evaluated = 0;
    auto argument = [&] { return ++evaluated; };
    TraceSetSink(nullptr, nullptr, 0); // and the environment is read
    ASSERT_EQ(gNimTraceThreshold, RING_LEVEL);
    NIM_TRACE(TAG, 1, 4, "%d", argument());
    EXPECT_EQ(evaluated, 0);
    NIM_TRACE(TAG, 0, 3, "%d", argument());
    EXPECT_EQ(evaluated, 1);
    TraceRecorder trace;
    NIM_TRACE(TAG, 0, 4, "%d", argument());
    EXPECT_EQ(evaluated, 2);
}

TEST(Trace, TheMacroIsOneStatement)
{
    TraceRecorder trace;
    bool yes = true;
    if (!yes)
        NIM_TRACE(TAG, 0, 4, "never");
    else
        NIM_TRACE(TAG, 0, 4, "once");
    EXPECT_EQ(trace.texts(), std::vector<std::string>{"once"});
}

TEST(Trace, SinkAndRingTakeWhatIsNotAboveTheirLevelsAndAllFailures)
{
    int serial = 0;
    for (int32_t sinkLevel = -2; sinkLevel <= 4; ++sinkLevel) {
        for (int32_t ringLevel = -2; ringLevel <= 4; ++ringLevel) {
            TraceRecorder trace(sinkLevel);
            TraceSetRingLevel(ringLevel);
            EXPECT_EQ(gNimTraceThreshold, std::max({sinkLevel, ringLevel, -1}));
            for (int32_t level = -1; level <= 5; ++level) {
                std::string text = "serial " + std::to_string(++serial) + ".";
                NIM_TRACE(TAG, serial % 2, level, "%s", text.c_str()); // the flag shows no line
                EXPECT_EQ(trace.has(text), level == -1 || level <= sinkLevel)
                    << level << " " << sinkLevel;
                EXPECT_EQ(InRing(text), level == -1 || level <= ringLevel)
                    << level << " " << ringLevel;
                // Called without the macro the line is tested all the same.
                std::string direct = "direct " + std::to_string(serial) + ".";
                TraceMessageVa(TAG, 1, 0, level, "%s", direct.c_str());
                EXPECT_EQ(trace.has(direct), level == -1 || level <= sinkLevel);
                EXPECT_EQ(InRing(direct), level == -1 || level <= ringLevel);
            }
        }
    }
    TraceSetRingLevel(RING_LEVEL);
}

TEST(Trace, ALineOfTheRingTellsTagLineFlagLevelAndText)
{
    TraceRecorder quiet(-1);
    TraceMessageVa("INDX        ", 42, 1, -1, "Failed %s", static_cast<const char*>(nullptr));
    TraceMessageVa("BLCK        ", 123456, 0, 3, "TRUE = x");
    EXPECT_EQ(
        Dump(2),
        (std::vector<std::string>{
            "INDX            42 E -1 Failed (null)", "BLCK         123456    3 TRUE = x"}));
}

TEST(Trace, TheRingKeepsTheNewest512LinesInOrder)
{
    TraceRecorder quiet(-1);
    for (int32_t i = 0; i < 1300; ++i)
        NIM_TRACE(TAG, 0, 3, "wrap %ld.", i);
    std::vector<std::string> lines = Dump(0);
    ASSERT_EQ(lines.size(), RING_LINES);
    for (size_t i = 0; i < RING_LINES; ++i)
        EXPECT_NE(
            lines[i].find(" wrap " + std::to_string(1300 - RING_LINES + i) + "."),
            std::string::npos)
            << lines[i];
    EXPECT_EQ(Dump(512), lines);
    EXPECT_EQ(Dump(513), lines);
    EXPECT_EQ(Dump(0xFFFFFFFF), lines);
    for (uint32_t n : {1u, 2u, 100u, 511u})
        EXPECT_EQ(Dump(n), std::vector<std::string>(lines.end() - n, lines.end()));
}

TEST(Trace, TheRingCutsALongLineAndTheSinkDoesNot)
{
    TraceRecorder trace;
    for (size_t size : {100, 230, 231, 500, 990, 1000, 1001, 1100, 8168, 65536}) {
        std::string text(size, 'k');
        text[0] = '<';
        text[size - 1] = '>';
        TraceMessageVa("T", 1, 1, -1, "%s", text.c_str());
        EXPECT_EQ(trace.lines().back().text, text) << size;
        std::string whole = "T     1 E -1 " + text;
        EXPECT_EQ(Dump(1), std::vector<std::string>{whole.substr(0, 255)}) << size;
    }
}

TEST(Trace, ATextEndsAt64KiB)
{
    TraceRecorder trace;
    std::string text(200000, 'k');
    NIM_TRACE(TAG, 1, -1, "<%s", text.c_str());
    EXPECT_EQ(trace.lines().back().text, "<" + text.substr(0, 65535));
}

TEST(Trace, NullTagAndFormatArePrintedAsSuch)
{
    TraceRecorder trace;
    TraceMessageVa(nullptr, 1, 0, 0, "text");
    TraceMessageVa(TAG, 1, 0, 0, nullptr);
    EXPECT_TRUE(trace.has("(null)", 0, 0, "text"));
    EXPECT_TRUE(trace.has(TAG, 0, 0, "(null)"));
}

TEST(Trace, AnEndlessTagLeavesTheTextWhole)
{
    TraceRecorder trace;
    std::string tag(5000, 'T');
    TraceMessageVa(tag.c_str(), 1, 0, 0, "%s", std::string(2000, 't').c_str());
    EXPECT_TRUE(trace.has(tag, 0, 0, std::string(2000, 't')));
}

TEST(Trace, TakesItsArgumentsAsAListToo)
{
    TraceRecorder trace;
    TraceList("%ld %s %I64d", 1, "two", int64_t{3} << 32);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "1 two 12884901888"));
    // Long enough that the list is gone through twice.
    std::string text(3000, 't');
    TraceList("%ld %s %ld", 1, text.c_str(), 3);
    EXPECT_EQ(trace.lines().back().text, "1 " + text + " 3");
}

TEST(Trace, TracingTakesNothingFromThePools)
{
    TraceRecorder trace;
    FaultResetCalls();
    uint32_t live = MemLiveCount();
    std::string text(5000, 't');
    NIM_TRACE(TAG, 0, 4, "%s", text.c_str());
    FaultStopCalls();
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 0u);
    EXPECT_EQ(MemLiveCount(), live);
}

TEST(Trace, DumpFailsCleanly)
{
    TraceRecorder quiet(-1);
    NIM_TRACE(TAG, 0, 3, "something to dump");
    EXPECT_EQ(TraceDumpToString(nullptr, 0), 0u);
    FaultRule rule = {FAULT_ALLOC, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    char* text = const_cast<char*>("stale");
    EXPECT_EQ(TraceDumpToString(&text, 0), 0u);
    EXPECT_EQ(text, nullptr);
    FaultDisarmAll();
}

TEST(Trace, WhatASinkTracesIsIgnored)
{
    struct State {
        int calls = 0;
    } state;
    TraceSetSink(
        [](void* context, const TraceLine*) {
            ++static_cast<State*>(context)->calls;
            NIM_TRACE(TAG, 1, -1, "from inside the sink");
        },
        &state, 4);
    NIM_TRACE(TAG, 0, 0, "from outside");
    NIM_TRACE(TAG, 0, 0, "from outside again");
    TraceSetSink(nullptr, nullptr, 0);
    EXPECT_EQ(state.calls, 2);
    EXPECT_FALSE(InRing("from inside the sink"));
    EXPECT_TRUE(InRing("from outside again"));
}

TEST(Trace, ASinkMaySetAnotherSinkDumpAndAllocate)
{
    static TraceRecorder* next;
    static std::string dumped;
    struct Once {
        static void Take(void* context, const TraceLine*)
        {
            char* text = nullptr;
            TraceDumpToString(&text, 1);
            dumped = text ? text : "";
            MemFree(text);
            next = new TraceRecorder;
            ++*static_cast<int*>(context);
        }
    };
    int calls = 0;
    TraceSetSink(Once::Take, &calls, 4);
    NIM_TRACE(TAG, 0, 0, "to the first");
    NIM_TRACE(TAG, 0, 0, "to the second");
    EXPECT_EQ(calls, 1);
    EXPECT_NE(dumped.find("to the first"), std::string::npos);
    EXPECT_EQ(next->texts(), std::vector<std::string>{"to the second"});
    delete next;
}

TEST(Trace, ServesSeveralThreads)
{
    struct Sink {
        std::vector<std::string> texts; // not locked: calls come one at a time
        static void Take(void* context, const TraceLine* line)
        {
            static_cast<Sink*>(context)->texts.push_back(line->text);
        }
    } sink;
    TraceSetSink(Sink::Take, &sink, 3);
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::thread reader([&] {
        while (!stop) {
            char* text = nullptr;
            if (TraceDumpToString(&text, 20) != 1 || !text)
                ++bad;
            MemFree(text);
        }
    });
    std::vector<std::thread> writers;
    for (int32_t t = 0; t < 4; ++t)
        writers.emplace_back([t] {
            for (int32_t i = 0; i < 2000; ++i)
                NIM_TRACE(TAG, 0, 3, "thread %ld line %ld", t, i);
        });
    for (std::thread& writer : writers)
        writer.join();
    stop = true;
    reader.join();
    TraceSetSink(nullptr, nullptr, 0);
    EXPECT_EQ(bad, 0);
    ASSERT_EQ(sink.texts.size(), 8000u);
    // Each thread's lines are all there, whole and in order.
    std::vector<int> next(4, 0);
    for (const std::string& text : sink.texts) {
        int t = text.at(7) - '0';
        ASSERT_EQ(text, "thread " + std::to_string(t) + " line " + std::to_string(next.at(t)++));
    }
    // Every line of the ring is a whole one too.
    for (const std::string& line : Dump(0))
        EXPECT_NE(line.find("thread "), std::string::npos) << line;
}

namespace {

// A sink that stays inside its first call until it is let go.
struct Held {
    std::promise<void> entered;
    std::promise<void> letGo;
    std::atomic<int> calls{0};
    std::atomic<bool> left{false};
    static void Take(void* context, const TraceLine*)
    {
        auto* held = static_cast<Held*>(context);
        if (held->calls++ != 0)
            return;
        held->entered.set_value();
        held->letGo.get_future().wait();
        held->left = true;
    }
};

} // namespace

TEST(Trace, WhileASinkTakesItsTimeTheRingAndTheLevelsServeOthers)
{
    Held held;
    TraceSetSink(Held::Take, &held, 0);
    std::thread inside([] { NIM_TRACE(TAG, 0, 0, "held"); });
    held.entered.get_future().wait();
    std::promise<void> done;
    std::thread other([&] {
        NIM_TRACE(TAG, 0, 3, "for the ring alone");
        TraceSetRingLevel(4);
        NIM_TRACE(TAG, 0, 4, "for the ring as well");
        TraceSetRingLevel(RING_LEVEL);
        done.set_value();
    });
    EXPECT_EQ(done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(InRing("for the ring alone"));
    EXPECT_TRUE(InRing("for the ring as well"));
    EXPECT_FALSE(held.left);
    held.letGo.set_value();
    inside.join();
    other.join();
    TraceSetSink(nullptr, nullptr, 0);
    EXPECT_EQ(held.calls, 1);
}

TEST(Trace, ASinkThatIsReplacedHasReturnedAndIsCalledNoMore)
{
    Held held;
    TraceSetSink(Held::Take, &held, 3);
    std::thread inside([] { NIM_TRACE(TAG, 0, 3, "held"); });
    held.entered.get_future().wait();
    // These wait for their turn while the sink is replaced.
    std::vector<std::thread> waiting;
    for (int i = 0; i < 4; ++i)
        waiting.emplace_back([] {
            for (int line = 0; line < 100; ++line)
                NIM_TRACE(TAG, 0, 3, "waits");
        });
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        held.letGo.set_value();
    });
    TraceRecorder next(1); // lines of level 3 are not for it
    EXPECT_TRUE(held.left);
    const int calls = held.calls;
    NIM_TRACE(TAG, 0, 1, "to the next");
    for (std::thread* thread :
         {&inside, &release, &waiting[0], &waiting[1], &waiting[2], &waiting[3]})
        thread->join();
    EXPECT_EQ(held.calls, calls);
    EXPECT_EQ(next.texts(), std::vector<std::string>{"to the next"});
}

TEST_F(TraceChild, ATraceSinkThatLogsAndALogSinkThatTracesDoNotWaitForEachOther)
{
    // In a process of its own: two locks would leave it waiting for ever.
    EXPECT_EXIT(
        {
            static std::atomic<int> calls{0};
            TraceSetSink(
                [](void*, const TraceLine*) {
                    ++calls;
                    std::this_thread::yield();
                    LogMessage(1, 96, 0, "logged by the sink of the trace");
                },
                nullptr, 0);
            LogSetSink(
                [](void*, const LogRecord*) {
                    ++calls;
                    std::this_thread::yield();
                    NIM_TRACE(TAG, 0, 0, "traced by the sink of the log");
                },
                nullptr);
            std::thread([] {
                std::this_thread::sleep_for(std::chrono::seconds(30));
                std::_Exit(1);
            }).detach();
            std::thread tracing([] {
                for (int i = 0; i < 20000; ++i)
                    NIM_TRACE(TAG, 0, 0, "line");
            });
            for (int i = 0; i < 20000; ++i)
                LogMessage(2, 96, 0, "message");
            tracing.join();
            std::_Exit(calls == 80000 ? 0 : 2);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(TraceChild, FailuresAloneReachTheStandardErrorByDefault)
{
    EXPECT_EXIT(
        TraceAllLevelsAndExit(), testing::ExitedWithCode(0),
        "^TRACETEST         +\\w+ E -1 line of level -1\n$");
}

TEST_F(TraceChild, TheEnvironmentRaisesTheLevel)
{
    EXPECT_EXIT(
        {
            SetEnvironment("NIM_TRACE_LEVEL", "4");
            TraceAllLevelsAndExit();
        },
        testing::ExitedWithCode(0),
        "^TRACETEST         +\\w+    4 line of level 4\n"
        "TRACETEST         +\\w+    3 line of level 3\n"
        "TRACETEST         +\\w+    2 line of level 2\n"
        "TRACETEST         +\\w+    1 line of level 1\n"
        "TRACETEST         +\\w+    0 line of level 0\n"
        "TRACETEST         +\\w+ E -1 line of level -1\n$");
}

TEST_F(TraceChild, ALevelThatIsNoNumberIsIgnored)
{
    for (const char* level : {"", "4x", "verbose", "99999999999999999999", "32768", "-32769"}) {
        EXPECT_EXIT(
            {
                SetEnvironment("NIM_TRACE_LEVEL", level);
                TraceAllLevelsAndExit();
            },
            testing::ExitedWithCode(0), "^TRACETEST         +\\w+ E -1 line of level -1\n$")
            << level;
    }
}

TEST_F(TraceChild, ASinkThatIsTakenAwayGivesTheEnvironmentsLevelBack)
{
    EXPECT_EXIT(
        {
            SetEnvironment("NIM_TRACE_LEVEL", "0");
            {
                TraceRecorder trace;
                NIM_TRACE(TAG, 0, 4, "recorded");
            }
            TraceAllLevelsAndExit();
        },
        testing::ExitedWithCode(0),
        "^TRACETEST         +\\w+    0 line of level 0\n"
        "TRACETEST         +\\w+ E -1 line of level -1\n$");
}

TEST_F(TraceChild, LinesAreAppendedToTheFileOfTheEnvironment)
{
    SharedDirectory directory;
    std::string path = directory.path("trace.txt");
    WriteFileBytes(path, "there before\n");
    EXPECT_EXIT(
        {
            WriteFileBytes(path, "there before\n");
            SetEnvironment("NIM_TRACE_LEVEL", "0");
            SetEnvironment("NIM_TRACE_FILE", path);
            NIM_TRACE(TAG, 0, 0, "%s", std::string(3000, 'l').c_str());
            TraceAllLevelsAndExit();
        },
        testing::ExitedWithCode(0), "^$");
    std::string bytes = ReadFileBytes(path);
    EXPECT_EQ(bytes.find("there before\nTRACETEST "), 0u) << bytes;
    EXPECT_NE(bytes.find(" 0 " + std::string(3000, 'l') + "\nTRACETEST "), std::string::npos);
    EXPECT_NE(bytes.find("    0 line of level 0\nTRACETEST "), std::string::npos) << bytes;
    EXPECT_EQ(bytes.find(" E -1 line of level -1\n") + 23, bytes.size()) << bytes;
}

TEST_F(TraceChild, AFileThatCannotBeOpenedSendsLinesToTheStandardError)
{
    EXPECT_EXIT(
        {
            SetEnvironment("NIM_TRACE_FILE", "/no/such/directory/trace.txt");
            TraceAllLevelsAndExit();
        },
        testing::ExitedWithCode(0), "^TRACETEST         +\\w+ E -1 line of level -1\n$");
}
