// Configuration values: where they come from, and when the default counts.
#include "nim/config.h"
#include "nim/fault.h"
#include "nim/mem.h"
#include "nim/path.h"
#include "support/file_bytes.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

class Config : public testing::Test {
  protected:
    Config() { PathSetHome(directory_.path().c_str()); }
    ~Config() override
    {
        FaultDisarmAll();
        PathSetHome(nullptr);
        EXPECT_EQ(MemLiveCount(), live_);
    }
    std::string
    Get(const char* dflt = "default", const char* file = "configure.cfg",
        const char* stanza = "Directories", const char* key = "database")
    {
        char* value = reinterpret_cast<char*>(this);
        const NimBool result = CfgGetString(&value, file, stanza, key, dflt);
        EXPECT_EQ(result, value ? 1u : 0u);
        std::string text = value ? value : "(null)";
        MemFree(value);
        return text;
    }

    std::string Path() const
    {
        char* path = PathHomeBuild("configure.cfg", 0);
        const std::string text = path;
        MemFree(path);
        return text;
    }

    const uint32_t live_ = MemLiveCount();
    TemporaryDirectory directory_;
    const std::string path_ = directory_.path("configure.cfg");
};

} // namespace

TEST_F(Config, AValueComesFromTheFileUnderTheHome)
{
    WriteFileBytes(
        path_, "[Other]\ndatabase = wrong\n[Directories]\nDatabase = C:\\some where\\db\n");
    EXPECT_EQ(Get(), "C:\\some where\\db");
}

TEST_F(Config, AnAbsolutePathIsTakenAsItStands)
{
    std::filesystem::create_directory(directory_.path("sub"));
    const std::string other = directory_.path("sub/other.cfg");
    WriteFileBytes(other, "[Directories]\ndatabase = there\n");
    EXPECT_EQ(Get("default", other.c_str()), "there");
    EXPECT_EQ(Get("default", "sub/other.cfg"), "there");
}

TEST_F(Config, TheFileIsReadAnewByEveryCall)
{
    WriteFileBytes(path_, "[Directories]\ndatabase = one\n");
    EXPECT_EQ(Get(), "one");
    WriteFileBytes(path_, "[Directories]\ndatabase = two\n");
    EXPECT_EQ(Get(), "two");
    std::filesystem::remove(path_);
    EXPECT_EQ(Get(), "default");
}

TEST_F(Config, WhatIsMissingOrEmptyGivesACopyOfTheDefault)
{
    EXPECT_EQ(Get(), "default") << "no file";
    WriteFileBytes(path_, "[Directories]\nother = x\ndatabase =  \n[Empty]\n");
    EXPECT_EQ(Get(), "default") << "empty value";
    EXPECT_EQ(Get("default", "configure.cfg", "Directories", "absent"), "default");
    EXPECT_EQ(Get("default", "configure.cfg", "Absent"), "default");
    EXPECT_EQ(Get("default", "absent.cfg"), "default");
    EXPECT_EQ(Get("default", nullptr), "default");
    EXPECT_EQ(Get("default", ""), "default");
    EXPECT_EQ(Get("default", "configure.cfg", nullptr), "default");
    EXPECT_EQ(Get("default", "configure.cfg", "Directories", nullptr), "default");
    EXPECT_EQ(Get(""), "") << "an empty default is a string";
}

TEST_F(Config, WithoutValueAndDefaultThereIsNoString)
{
    EXPECT_EQ(Get(nullptr), "(null)");
    WriteFileBytes(path_, "[Directories]\ndatabase = db\n");
    EXPECT_EQ(Get(nullptr), "db");
    EXPECT_EQ(CfgGetString(nullptr, "configure.cfg", "Directories", "database", "d"), 0u);
}

TEST_F(Config, AFileThatCannotBeReadGivesNothingAndNotTheDefault)
{
    WriteFileBytes(path_, "[Directories]\ndatabase = db\n");
    for (const uint32_t point : {FAULT_STNZ_LOAD, FAULT_OPEN, FAULT_READ}) {
        FaultRule rule = {point, "configure.cfg", 1, 1, FAULT_FAIL, 0};
        FaultArm(&rule);
        TraceRecorder trace;
        EXPECT_EQ(Get(), "(null)") << point;
        EXPECT_TRUE(trace.has(
            "CONFIG        ", 1, -1,
            "Failed to read the value of 'database' in stanza 'Directories' of '" + Path() +
                "'; no default takes its place"))
            << trace.dump();
        EXPECT_EQ(Get(), "db") << point;
        FaultDisarmAll();
    }
}

TEST_F(Config, AFileOfWhichNobodyKnowsWhetherItIsThereGivesNothing)
{
    FaultRule rule = {FAULT_EXISTS, "configure.cfg", 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    EXPECT_EQ(Get(), "(null)");
    EXPECT_EQ(Get(), "default");
}

TEST_F(Config, WhatStandsInThePlaceOfTheFileAndIsNoneGivesNothing)
{
    std::filesystem::create_directory(path_);
    EXPECT_EQ(Get(), "(null)") << "a directory";
    std::filesystem::remove(path_);
    WriteFileBytes(path_, std::string((16 << 20) + 1, '#'));
    EXPECT_EQ(Get(), "(null)") << "too large";
}

TEST_F(Config, RunningOutOfMemoryGivesNothingAndLeaksNothing)
{
    WriteFileBytes(path_, "[Directories]\ndatabase = db\n");
    for (const uint32_t times : {1u, 0u}) {
        bool struck = true;
        for (uint32_t nth = 1; struck; ++nth) {
            ASSERT_LT(nth, 50u);
            FaultRule rule = {FAULT_ALLOC, nullptr, nth, times, FAULT_FAIL, 0};
            const uint32_t id = FaultArm(&rule);
            const std::string value = Get();
            struck = FaultHits(id) != 0;
            FaultDisarmAll();
            EXPECT_EQ(value, struck ? "(null)" : "db");
            EXPECT_EQ(MemLiveCount(), live_);
        }
    }
}
