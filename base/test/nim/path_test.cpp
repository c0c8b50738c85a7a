// Paths: joining, the home directory, and what stands at a path.
#include "nim/drive.h"
#include "nim/fault.h"
#include "nim/mem.h"
#include "nim/path.h"
#include "support/file_bytes.h"
#include "support/temporary_directory.h"
#include "sys.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace {

// The text of a path that was handed out, which is freed; "(null)" for none.
std::string Take(char* path)
{
    std::string text = path ? path : "(null)";
    MemFree(path);
    return text;
}

// What the system separates names with, as text.
const std::string SEPARATOR(1, SysSeparator());

void SetEnvironment(const std::string& name, const std::string& value)
{
    static std::string text; // some systems keep the pointer
    text = name + "=" + value;
    putenv(text.data());
}

class Home : public testing::Test {
  protected:
    Home() { SetEnvironment("NIM_HOME", ""); }
    ~Home() override
    {
        PathSetHome(nullptr);
        SetEnvironment("NIM_HOME", "");
    }
};

void FailOnce(uint32_t point, const char* part = nullptr)
{
    FaultRule rule = {point, part, 1, 1, FAULT_FAIL, 0};
    ASSERT_NE(FaultArm(&rule), 0u);
}

} // namespace

TEST(PathBuild, PutsOneSeparatorBetweenDirectoryAndName)
{
    EXPECT_EQ(Take(PathBuild("dir", "name", 0)), "dir" + SEPARATOR + "name");
    EXPECT_EQ(Take(PathBuild("a/b", "c", 0)), "a/b" + SEPARATOR + "c");
    EXPECT_EQ(Take(PathBuild("d", "", 0)), "d" + SEPARATOR);
}

TEST(PathBuild, AddsNoneToADirectoryThatEndsInOne)
{
    EXPECT_EQ(Take(PathBuild(("dir" + SEPARATOR).c_str(), "name", 0)), "dir" + SEPARATOR + "name");
    EXPECT_EQ(Take(PathBuild("dir/", "name", 0)), "dir/name");
    EXPECT_EQ(Take(PathBuild("/", "name", 0)), "/name");
}

TEST(PathBuild, CopiesTheOtherWhenOneIsNull)
{
    EXPECT_EQ(Take(PathBuild(nullptr, "name", 0)), "name");
    EXPECT_EQ(Take(PathBuild("dir", nullptr, 0)), "dir");
    EXPECT_EQ(Take(PathBuild(nullptr, "", 0)), "");
    EXPECT_EQ(Take(PathBuild(nullptr, nullptr, 0)), "(null)");
}

TEST(PathBuild, AnEmptyDirectoryDoesNotLeadToTheRoot)
{
    EXPECT_EQ(Take(PathBuild("", "name", 0)), "name");
    EXPECT_EQ(Take(PathBuild("", "", 0)), "");
    EXPECT_EQ(Take(PathBuild("", nullptr, 0)), "");
}

TEST(PathBuild, KeepsEveryByteOfLongNames)
{
    const std::string directory(70000, 'd');
    const std::string name(70000, '\xC3');
    EXPECT_EQ(Take(PathBuild(directory.c_str(), name.c_str(), 0)), directory + SEPARATOR + name);
}

TEST(PathBuild, GivesNullWhenMemoryRunsOut)
{
    FailOnce(FAULT_ALLOC);
    EXPECT_EQ(PathBuild("dir", "name", 0), nullptr);
    FaultDisarmAll();
}

TEST_F(Home, IsTheDirectoryOfTheRunningProgramUnlessTold)
{
    char program[4096];
    ASSERT_TRUE(SysProgramDirectory(program, sizeof program));
    EXPECT_TRUE(std::filesystem::is_directory(program));
    EXPECT_NE(std::string(program).back(), SysSeparator());
    EXPECT_EQ(Take(PathHomeBuild("name", 0)), program + SEPARATOR + "name");
#if defined(__linux__)
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/exe").parent_path().string(), program);
#endif
}

TEST_F(Home, IsNamedByTheEnvironmentAndBeforeThatByTheHost)
{
    SetEnvironment("NIM_HOME", "from-environment");
    EXPECT_EQ(Take(PathHomeBuild("db", 0)), "from-environment" + SEPARATOR + "db");
    EXPECT_EQ(PathSetHome("from-host"), 1u);
    EXPECT_EQ(Take(PathHomeBuild("db", 0)), "from-host" + SEPARATOR + "db");
    EXPECT_EQ(Take(PathHomeBuild(nullptr, 0)), "from-host");
    EXPECT_EQ(PathSetHome("another"), 1u);
    EXPECT_EQ(Take(PathHomeBuild("db", 0)), "another" + SEPARATOR + "db");
    EXPECT_EQ(PathSetHome(""), 1u);
    EXPECT_EQ(Take(PathHomeBuild("db", 0)), "from-environment" + SEPARATOR + "db");
    EXPECT_EQ(PathSetHome("from-host"), 1u);
    EXPECT_EQ(PathSetHome(nullptr), 1u);
    EXPECT_EQ(Take(PathHomeBuild("db", 0)), "from-environment" + SEPARATOR + "db");
}

TEST_F(Home, OneThatIsTooLongIsRefusedAndTheOldOneKept)
{
    ASSERT_EQ(PathSetHome("old"), 1u);
    EXPECT_EQ(PathSetHome(std::string(32768, 'x').c_str()), 0u);
    EXPECT_EQ(Take(PathHomeBuild("db", 0)), "old" + SEPARATOR + "db");
    const std::string longest(32767, 'x');
    EXPECT_EQ(PathSetHome(longest.c_str()), 1u);
    EXPECT_EQ(Take(PathHomeBuild("db", 0)), longest + SEPARATOR + "db");
}

TEST_F(Home, SettingItLeavesNoMemoryBehind)
{
    const uint32_t before = MemLiveCount();
    ASSERT_EQ(PathSetHome("somewhere"), 1u);
    EXPECT_EQ(MemLiveCount(), before);
}

TEST(PathCreateDirectory, MakesOneLevelAndIsContentWithOneThatIsThere)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("level");
    EXPECT_EQ(PathCreateDirectory(path.c_str()), 1u);
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_EQ(PathCreateDirectory(path.c_str()), 1u);
    EXPECT_EQ(PathCreateDirectory((path + "/a/b").c_str()), 0u);
    EXPECT_FALSE(std::filesystem::exists(path + "/a"));
    WriteFileBytes(path + "/file", "");
    EXPECT_EQ(PathCreateDirectory((path + "/file").c_str()), 0u);
    EXPECT_EQ(PathCreateDirectory((path + "/file/below").c_str()), 0u);
    EXPECT_EQ(PathCreateDirectory(nullptr), 0u);
    EXPECT_EQ(PathCreateDirectory(""), 0u);
}

TEST(PathIsADirectory, TellsDirectoriesFromEverythingElse)
{
    TemporaryDirectory directory;
    WriteFileBytes(directory.path("file"), "x");
    EXPECT_EQ(PathIsADirectory(directory.path().c_str()), 1u);
    EXPECT_EQ(PathIsADirectory((directory.path() + "/").c_str()), 1u);
    EXPECT_EQ(PathIsADirectory(directory.path("file").c_str()), 0u);
    EXPECT_EQ(PathIsADirectory(directory.path("absent").c_str()), 0u);
    EXPECT_EQ(PathIsADirectory(nullptr), 0u);
    EXPECT_EQ(PathIsADirectory(""), 0u);
}

TEST(FileExists, TellsEntriesThatAreNoDirectories)
{
    TemporaryDirectory directory;
    WriteFileBytes(directory.path("file"), "");
    EXPECT_EQ(FileExists(directory.path("file").c_str()), 1u);
    EXPECT_EQ(FileExists(directory.path().c_str()), 0u);
    EXPECT_EQ(FileExists(directory.path("absent").c_str()), 0u);
    EXPECT_EQ(FileExists(directory.path("file/below").c_str()), 0u);
    EXPECT_EQ(FileExists(nullptr), 0u);
    EXPECT_EQ(FileExists(""), 0u);
}

TEST(PathKind, TellsWhatStandsThere)
{
    TemporaryDirectory directory;
    const std::string file = directory.path("file");
    WriteFileBytes(file, "");
    EXPECT_EQ(PathKind(file.c_str()), PATH_FILE);
    EXPECT_EQ(PathKind(directory.path().c_str()), PATH_DIRECTORY);
    EXPECT_EQ(PathKind(directory.path("absent").c_str()), PATH_ABSENT);
    EXPECT_EQ(PathKind(directory.path("absent/below").c_str()), PATH_ABSENT);
    EXPECT_EQ(PathKind(directory.path("file/below").c_str()), PATH_ABSENT);
    EXPECT_EQ(PathKind(nullptr), PATH_ABSENT);
    EXPECT_EQ(PathKind(""), PATH_ABSENT);
}

TEST(PathKind, ALookUpThatFailsIsNotTakenForNothing)
{
    TemporaryDirectory directory;
    const std::string file = directory.path("file");
    WriteFileBytes(file, "");
    FailOnce(FAULT_EXISTS, "file");
    EXPECT_EQ(PathKind(file.c_str()), PATH_UNKNOWN);
    EXPECT_EQ(PathKind(file.c_str()), PATH_FILE);
    FaultDisarmAll();
    FailOnce(FAULT_EXISTS, "absent");
    EXPECT_EQ(PathKind(directory.path("absent").c_str()), PATH_UNKNOWN);
    EXPECT_EQ(PathKind(directory.path("absent").c_str()), PATH_ABSENT);
    FaultDisarmAll();
}

TEST(PathFaults, AFailingLookUpIsANoAndAFailingCreationMakesNothing)
{
    TemporaryDirectory directory;
    const std::string file = directory.path("file");
    WriteFileBytes(file, "");
    FailOnce(FAULT_EXISTS, "file");
    EXPECT_EQ(PathIsADirectory(directory.path().c_str()), 1u) << "another path";
    EXPECT_EQ(FileExists(file.c_str()), 0u);
    EXPECT_EQ(FileExists(file.c_str()), 1u);
    FaultDisarmAll();
    FailOnce(FAULT_EXISTS);
    EXPECT_EQ(PathIsADirectory(directory.path().c_str()), 0u);
    FaultDisarmAll();
    FailOnce(FAULT_MKDIR, "made");
    EXPECT_EQ(PathCreateDirectory(directory.path("made").c_str()), 0u);
    EXPECT_FALSE(std::filesystem::exists(directory.path("made")));
    EXPECT_EQ(PathCreateDirectory(directory.path("made").c_str()), 1u);
    FaultDisarmAll();
}

TEST(Drives, AreToldWhereTheSystemHasLetters)
{
    const uint32_t letters = DriveGetLetters();
    if (SysSeparator() == '/') {
        EXPECT_EQ(letters, 0u);
        EXPECT_EQ(DriveGetLastError(), 0u) << "that there are none is no failure";
        EXPECT_EQ(DriveGetType("C:\\"), 0u);
    } else {
        EXPECT_NE(letters, 0u);
        EXPECT_NE(DriveGetType("C:\\"), 0u);
    }
    EXPECT_EQ(DriveGetType(nullptr), 0u);
    EXPECT_EQ(DriveGetType(""), 0u);
}
