// drives_test.cpp: the drives of the machine and the list of database directories on them, with the
// drives that the Wine prefix of the tests maps (cmake/wine_prefix.sh): E fixed with \tambdb, H
// fixed without it, Q fixed with a file of that name, F floppy, G network, I optical and J RAM
// disk, all of these with \tambdb.
#include "database/dbconfig.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "database/dbconfig_internal.h"
#include "nim/nim.h"
#include "support/file_bytes.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"
#include "windows/win32_calls.h"

namespace {

using Texts = std::vector<std::string>;

const std::string TAG = "DBCONFIG" + std::string(8, ' ');
const char* const C_DIRECTORY = "C:\\tambdb";

std::string Taken(char* text)
{
    const std::string copy = text ? text : "(null)";
    MemFree(text);
    return copy;
}

class Drives : public testing::Test {
  protected:
    void SetUp() override
    {
        if (!TestDrivesAreMapped())
            GTEST_SKIP() << "the drives of the test prefix are not mapped";
        PathSetHome(directory_.path().c_str());
        ASSERT_FALSE(std::filesystem::exists(C_DIRECTORY)) << "left by an earlier run";
    }
    void TearDown() override
    {
        std::filesystem::remove(C_DIRECTORY);
        gpDbDrives = &kDbSystemDrives;
        PathSetHome(nullptr);
    }
    static Texts Listed(uint32_t includeHome)
    {
        void* list = ListNewFromPool(0, MemGetDefaultPoolId());
        DbGetDbPathList(list, includeHome);
        Texts paths;
        for (uint32_t i = 0; i < ListGetCount(list); ++i) {
            void* item = nullptr;
            EXPECT_EQ(ListGetNthItem(&item, list, i), 1u);
            paths.push_back(ObjGetString(item));
        }
        ObjReleaseInternal(&list);
        return paths;
    }

    TemporaryDirectory directory_;
};

} // namespace

TEST_F(Drives, AreThoseOfTheSystemWithTheirTypes)
{
    EXPECT_EQ(gpDbDrives, &kDbSystemDrives);
    const uint32_t mask = kDbSystemDrives.getLogicalDrives();
    for (const char letter : std::string("CEFGHIJQ"))
        EXPECT_TRUE(mask >> (letter - 'A') & 1) << letter;
    for (const char letter : std::string("ABDKLMNOP"))
        EXPECT_FALSE(mask >> (letter - 'A') & 1) << letter;
    const std::pair<const char*, uint32_t> types[] = {
        {"C:\\", DRIVE_FIXED},   {"E:\\", DRIVE_FIXED}, {"F:\\", DRIVE_REMOVABLE},
        {"G:\\", DRIVE_REMOTE},  {"H:\\", DRIVE_FIXED}, {"I:\\", DRIVE_CDROM},
        {"J:\\", DRIVE_RAMDISK}, {"Q:\\", DRIVE_FIXED}, {"B:\\", DRIVE_NO_ROOT_DIR}};
    for (const auto& [root, type] : types)
        EXPECT_EQ(kDbSystemDrives.getDriveType(root), type) << root;
}

TEST_F(Drives, OfAllKindsButFixedAreNotListedThoughTheyHaveTheDirectory)
{
    for (const char* directory : {"F:\\tambdb", "G:\\tambdb", "I:\\tambdb", "J:\\tambdb"})
        EXPECT_EQ(PathIsADirectory(directory), 1u) << directory;
    TraceRecorder trace(1);
    EXPECT_EQ(Listed(0), Texts({"E:\\tambdb"}));
    for (const char* line :
         {"The drive type for drive F:\\ is 2", "The drive type for drive G:\\ is 4",
          "The drive type for drive I:\\ is 5", "The drive type for drive J:\\ is 6"})
        EXPECT_TRUE(trace.has(TAG, 0, 1, line)) << line << trace.dump();
    for (const char letter : std::string("FGIJ"))
        EXPECT_FALSE(trace.hasPart(std::string("for ") + letter + ":\\tambdb")) << letter;
}

TEST_F(Drives, DriveCIsListedOnlyWithItsDirectory)
{
    {
        TraceRecorder trace(1);
        EXPECT_EQ(Listed(0), Texts({"E:\\tambdb"}));
        EXPECT_TRUE(trace.has(TAG, 0, 1, "The drive type for drive C:\\ is 3")) << trace.dump();
        EXPECT_TRUE(trace.has(TAG, 0, 1, "PathIsADirectory returned FALSE for C:\\tambdb"));
        EXPECT_TRUE(trace.has(TAG, 0, 1, "PathIsADirectory returned TRUE for E:\\tambdb"));
        EXPECT_TRUE(trace.has(TAG, 0, 1, "PathIsADirectory returned FALSE for H:\\tambdb"));
        EXPECT_TRUE(trace.has(TAG, 0, 1, "PathIsADirectory returned FALSE for Q:\\tambdb"))
            << "a file is no directory";
    }
    ASSERT_TRUE(std::filesystem::create_directory(C_DIRECTORY));
    EXPECT_EQ(Listed(0), Texts({C_DIRECTORY, "E:\\tambdb"}));
}

TEST_F(Drives, HomeComesFirstWhenAskedFor)
{
    ASSERT_TRUE(std::filesystem::create_directory(C_DIRECTORY));
    const std::string home = directory_.path("db");
    EXPECT_EQ(Listed(1), Texts({home, C_DIRECTORY, "E:\\tambdb"}));
    EXPECT_EQ(Listed(2), Texts({C_DIRECTORY, "E:\\tambdb"}));
}

TEST_F(Drives, EnumerationThatFailsIsTracedWithTheSystemsOwnError)
{
    const DbDrives failing = {
        [] {
            SetLastError(ERROR_NO_SYSTEM_RESOURCES);
            return uint32_t{0};
        },
        kDbSystemDrives.getDriveType, kDbSystemDrives.getLastError};
    gpDbDrives = &failing;
    TraceRecorder trace(-1);
    EXPECT_EQ(Listed(1), Texts({directory_.path("db")}));
    ASSERT_EQ(trace.lines().size(), 1u) << trace.dump();
    EXPECT_TRUE(trace.has(
        TAG, ERROR_NO_SYSTEM_RESOURCES, -1, "GetLogicalDrives failed. Unable to enumerate drives"));
}

TEST_F(Drives, EveryLetterComesBackFromItsMungedId)
{
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        const uint32_t number = static_cast<uint32_t>(letter - 'A' + 1);
        const std::string upper = std::string(1, letter) + ":\\anything";
        const std::string lower = std::string(1, static_cast<char>(letter + 32)) + ":/x";
        const uint32_t munged = DbMungeQtreeIdFromDbPath(0xFF345678, upper.c_str());
        EXPECT_EQ(munged, number << 24 | 0x345678);
        EXPECT_EQ(DbMungeQtreeIdFromDbPath(0xFF345678, lower.c_str()), munged);
        EXPECT_EQ(
            Taken(DbGetDbPathFromMungedQtreeId(static_cast<int32_t>(munged))),
            std::string(1, letter) + ":\\tambdb");
    }
}

TEST_F(Drives, OddPathsMungeByTheirFirstCharacterAndTheHomeToZero)
{
    const auto back = [](uint32_t munged) {
        return Taken(DbGetDbPathFromMungedQtreeId(static_cast<int32_t>(munged)));
    };
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "/db"), 0xEF000007u);
    EXPECT_EQ(back(0xEF000007), "/:\\tambdb");
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "\\db"), 0x1C000007u);
    EXPECT_EQ(back(0x1C000007), "\\:\\tambdb");
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, nullptr), 0u);

    WriteFileBytes(directory_.path("configure.cfg"), "[Directories]\ndatabase = E:\\Bases\\Main\n");
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "E:\\Bases\\Main"), 0u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "e:\\bASES\\mAIN"), 0u);
    EXPECT_EQ(back(0), "E:\\Bases\\Main");
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "E:/Bases/Main"), 0x05000007u) << "another text";
}
