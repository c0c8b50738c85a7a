// dbconfig_test.cpp: the home directory, clustered mode, derived paths, munged qtree ids and the
// list of database paths, the latter on drives of the tests' own.
#include "database/dbconfig.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "database/dbconfig_internal.h"
#include "database/index.h"
#include "database/indexinternal.h"
#include "nim/fault.h"
#include "nim/nim.h"
#include "support/file_bytes.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"

namespace {

const std::string TAG = "DBCONFIG" + std::string(8, ' ');
const uint32_t gModeAtStart = gbDbClusteredMode;

using Texts = std::vector<std::string>;

// Takes over a text from the pool.
std::string Taken(char* text)
{
    const std::string copy = text ? text : "(null)";
    MemFree(text);
    return copy;
}

// Every test has a product home of its own.
class DbConfig : public testing::Test {
  protected:
    DbConfig() { PathSetHome(directory_.path().c_str()); }
    ~DbConfig() override
    {
        PathSetHome(nullptr);
        FaultDisarmAll();
        gpDbDrives = &kDbSystemDrives;
        gbDbClusteredMode = 0;
    }
    void Configure(const std::string& home)
    {
        WriteFileBytes(
            directory_.path("configure.cfg"), "[Directories]\ndatabase = " + home + "\n");
    }
    std::string Home()
    {
        char* home = nullptr;
        EXPECT_EQ(DbGetHomeDir(&home), 1u);
        return Taken(home);
    }
    // The derived path, "" when there is none; checks that a refusal leaves the variable alone.
    static std::string Derived(const char* path)
    {
        char untouched[] = "untouched";
        char* derived = untouched;
        const NimBool found = DbGetClusterDerivedPath(path, &derived);
        if (found == 0) {
            EXPECT_EQ(derived, untouched) << path;
            return "";
        }
        EXPECT_EQ(found, 1u);
        EXPECT_NE(derived, untouched);
        return Taken(derived);
    }

    TemporaryDirectory directory_;
};

void ExpectLine(const TraceRecorder& trace, uint32_t error, int32_t level, const std::string& text)
{
    EXPECT_TRUE(trace.has(TAG, error, level, text)) << text << "\nis not in\n" << trace.dump();
}

} // namespace

// ---- home directory and mode ------------------------------------------------------------------

TEST_F(DbConfig, HomeIsDbUnderTheProductsHomeWithoutAKey)
{
    const std::string expected = (std::filesystem::path(directory_.path()) / "db").string();
    EXPECT_EQ(Home(), expected);
    WriteFileBytes(directory_.path("configure.cfg"), "[Directories]\nother = x\n");
    EXPECT_EQ(Home(), expected);
    WriteFileBytes(directory_.path("configure.cfg"), "[Other]\ndatabase = x\n");
    EXPECT_EQ(Home(), expected);
    Configure(""); // an empty value is none
    EXPECT_EQ(Home(), expected);
}

TEST_F(DbConfig, HomeIsTheConfiguredDirectoryAsItStands)
{
    Configure("D:\\bases de données");
    EXPECT_EQ(Home(), "D:\\bases de données");
    Configure("relative/place");
    EXPECT_EQ(Home(), "relative/place");
    Configure("some\\..\\where");
    EXPECT_EQ(Home(), "some\\..\\where");
}

TEST_F(DbConfig, HomeWithoutMemoryIsNullAndTheResultStaysOne)
{
    Configure("/var/bases");
    const uint32_t pieces = MemLiveCount();
    const FaultRule rule = {FAULT_ALLOC, nullptr, 1, 0, FAULT_FAIL, 0};
    FaultArm(&rule);
    TraceRecorder trace;
    char* home = nullptr;
    EXPECT_EQ(DbGetHomeDir(&home), 1u);
    FaultDisarmAll();
    EXPECT_EQ(home, nullptr);
    ExpectLine(trace, 0, 4, "Db home dir is (null)");
    EXPECT_EQ(MemLiveCount(), pieces);
    EXPECT_EQ(DbGetHomeDir(nullptr), 0u);
}

TEST_F(DbConfig, HomeIsNullAndNotTheDefaultWhenTheConfigurationCannotBeRead)
{
    Configure("/var/bases");
    for (const uint32_t point : {FAULT_OPEN, FAULT_READ, FAULT_STNZ_LOAD}) {
        const FaultRule rule = {point, "configure.cfg", 1, 1, FAULT_FAIL, 0};
        FaultArm(&rule);
        TraceRecorder trace(-1);
        EXPECT_EQ(Home(), "(null)") << point;
        EXPECT_TRUE(trace.hasPart("configure.cfg'; no default takes its place")) << trace.dump();
        FaultDisarmAll();
        EXPECT_EQ(Home(), "/var/bases");
    }
    std::filesystem::remove(directory_.path("configure.cfg"));
    std::filesystem::create_directory(directory_.path("configure.cfg"));
    EXPECT_EQ(Home(), "(null)");
}

// The home directory of databases would be another one, and the database in it an empty one.
TEST_F(DbConfig, NoDatabaseIsOpenedUnderAnotherHomeThanTheConfiguredOne)
{
    Configure(directory_.path("configured"));
    void* oDatabase = nullptr;
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "Data", nullptr, nullptr), 1u);
    ASSERT_EQ(IndxCloseDatabase(&oDatabase), 1u);
    ASSERT_TRUE(std::filesystem::exists(directory_.path("configured/Data/Indexes")));
    TraceRecorder quiet(-1);
    LogRecorder log;
    for (const uint32_t point :
         {FAULT_OPEN, FAULT_READ, FAULT_STNZ_LOAD, FAULT_ALLOC, FAULT_EXISTS, FAULT_SEEKEND}) {
        for (const uint32_t times : {1u, 0u}) {
            bool struck = true;
            for (uint32_t nth = 1; struck; ++nth) {
                ASSERT_LT(nth, 1000u);
                const FaultRule rule = {point, nullptr, nth, times, FAULT_FAIL, 0};
                const uint32_t id = FaultArm(&rule);
                const NimBool opened = IndxOpenDatabase(&oDatabase, "Data", nullptr, nullptr);
                struck = FaultHits(id) != 0;
                FaultDisarmAll();
                EXPECT_EQ(opened == 1, oDatabase != nullptr);
                EXPECT_TRUE(opened || struck);
                IndxCloseDatabase(&oDatabase);
                ASSERT_FALSE(std::filesystem::exists(directory_.path("db")))
                    << "point " << point << ", call " << nth;
                ASSERT_FALSE(std::filesystem::exists("Data"));
            }
        }
    }
}

TEST_F(DbConfig, ClusteredModeStartsAtZeroAndKeepsAnyValue)
{
    EXPECT_EQ(gModeAtStart, 0u);
    for (uint32_t mode : {1u, 2u, 0xFFFFFFFFu, 0u}) {
        EXPECT_EQ(DbSetClusteredMode(mode), mode);
        EXPECT_EQ(DbGetClusteredMode(), mode);
        EXPECT_EQ(gbDbClusteredMode, mode);
    }
    gbDbClusteredMode = 7;
    EXPECT_EQ(DbGetClusteredMode(), 7u);
}

// ---- derived paths ----------------------------------------------------------------------------

TEST_F(DbConfig, PathsThatBeginWithSystemStateBelongToTheHomeDirectory)
{
    Configure("/home/bases");
    for (const char* path :
         {"SystemState", "systemstate", "SYSTEMSTATE\\x", "sYsTeMsTaTe:", "SystemStateful"})
        EXPECT_EQ(Derived(path), "/home/bases") << path;
}

TEST_F(DbConfig, PathsThatBeginWithAppBelongToNone)
{
    for (const char* path : {"App", "application", "APP1", "aPp:\\x", "Apple", "app\\C:\\"})
        EXPECT_EQ(Derived(path), "") << path;
}

TEST_F(DbConfig, PathsOnADriveBelongToItsDirectory)
{
    const std::pair<const char*, const char*> cases[] = {
        {"C:", "C:\\tambdb"},      {"c:\\x\\y", "C:\\tambdb"}, {"e:relative", "E:\\tambdb"},
        {"Z:/unix", "Z:\\tambdb"}, {"a:pp", "A:\\tambdb"},     {"S:ystemState", "S:\\tambdb"},
        {"q::\\", "Q:\\tambdb"}};
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(Derived(path), expected) << path;
}

TEST_F(DbConfig, AllOtherPathsBelongToNone)
{
    for (const char* path :
         {"", "C", "C;", "CC:", ":", "1:\\x", "@:\\x", "[:\\x", "`:\\x", "{:\\x", "\xC3:\\x",
          "\\\\server\\share", "/unix", "SystemStat", "Ap", " C:\\x"})
        EXPECT_EQ(Derived(path), "") << path;
    EXPECT_EQ(Derived(nullptr), "");
}

TEST_F(DbConfig, DerivedPathWithoutMemoryIsNone)
{
    const FaultRule rule = {FAULT_ALLOC, nullptr, 1, 0, FAULT_FAIL, 0};
    const uint32_t pieces = MemLiveCount();
    FaultArm(&rule);
    const std::string drive = Derived("C:\\x");
    const std::string state = Derived("SystemState");
    FaultDisarmAll();
    EXPECT_EQ(drive, "");
    EXPECT_EQ(state, "");
    EXPECT_EQ(MemLiveCount(), pieces);
}

// ---- munged qtree ids -------------------------------------------------------------------------

TEST_F(DbConfig, DriveLetterAndLowBitsMakeTheMungedId)
{
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, "e:\\anything"), 0x05345678u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, "E:"), 0x05345678u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0, "A:"), 0x01000000u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0xFFFFFFFF, "z"), 0x1AFFFFFFu);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "Drive D is D"), 0x04000007u);
    EXPECT_EQ(Taken(DbGetDbPathFromMungedQtreeId(0x05345678)), "E:\\tambdb");
}

TEST_F(DbConfig, NullPathMungesToZero)
{
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, nullptr), 0u);
}

TEST_F(DbConfig, HomeDirectoryMungesToZeroAndBack)
{
    Configure("C:\\Bases");
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, "C:\\Bases"), 0u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, "c:\\bASES"), 0u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, "C:\\Bases\\"), 0x03345678u);
    EXPECT_EQ(Taken(DbGetDbPathFromMungedQtreeId(0)), "C:\\Bases");
    EXPECT_EQ(Taken(DbGetDbPathFromMungedQtreeId(0x00FFFFFF)), "C:\\Bases");
}

TEST_F(DbConfig, MungingFailsWhenTheHomeDirectoryCannotBeTold)
{
    Configure("D:\\bases");
    const FaultRule rule = {FAULT_READ, "configure.cfg", 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    TraceRecorder trace;
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "D:\\bases"), 0u);
    ExpectLine(trace, 1, -1, "Failed to munge path D:\\bases: the home directory cannot be told");
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "D:\\other"), 0x04000007u);
}

TEST_F(DbConfig, FirstCharacterThatIsNoLetterWrapsTheDriveNumber)
{
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, "/unix"), 0xEF000001u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, "\\\\server"), 0x1C000001u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, ""), 0xC0000001u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, "@"), 0x00000001u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, "`"), 0x20000001u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, "{"), 0x3B000001u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, "\xC3\xA9"), 0x83000001u);
}

TEST_F(DbConfig, MungedIdIsShiftedWithItsSign)
{
    EXPECT_EQ(Taken(DbGetDbPathFromMungedQtreeId(static_cast<int32_t>(0xEF000001))), "/:\\tambdb");
    EXPECT_EQ(
        Taken(DbGetDbPathFromMungedQtreeId(static_cast<int32_t>(0x83FFFFFF))), "\xC3:\\tambdb");
    EXPECT_EQ(Taken(DbGetDbPathFromMungedQtreeId(0x7F000000)), "\xBF:\\tambdb");
    // Drive number 0xC0 makes the character 0: the text ends before it begins.
    EXPECT_EQ(Taken(DbGetDbPathFromMungedQtreeId(static_cast<int32_t>(0xC0000000))), "");
}

TEST_F(DbConfig, EveryFirstCharacterComesBackFromItsMungedId)
{
    Configure("a home that no first character equals");
    for (int c = 1; c < 256; ++c) {
        const std::string path(1, static_cast<char>(c));
        const uint32_t munged = DbMungeQtreeIdFromDbPath(0xABCDEF, path.c_str());
        const bool lower = c >= 'a' && c <= 'z';
        const std::string expected =
            c == '@' ? Home() : std::string(1, static_cast<char>(lower ? c - 32 : c)) + ":\\tambdb";
        EXPECT_EQ(Taken(DbGetDbPathFromMungedQtreeId(static_cast<int32_t>(munged))), expected) << c;
    }
}

// ---- list of database paths -------------------------------------------------------------------

namespace {

// Drives of a test's own, and what was asked about them.
struct TestDrives {
    uint32_t mask = 0;
    uint32_t error = 0;
    uint32_t types[26] = {};
    Texts asked;
} gTest;

const DbDrives TEST_DRIVES = {
    [] { return gTest.mask; },
    [](const char* root) {
        gTest.asked.push_back(root);
        return gTest.types[root[0] - 'A'];
    },
    [] { return gTest.error; }};

class DbConfigList : public DbConfig {
  protected:
    DbConfigList() : former_(std::filesystem::current_path())
    {
        Configure("/home/bases");
        gTest = TestDrives();
        gpDbDrives = &TEST_DRIVES;
        list_ = ListNewFromPool(0, MemGetDefaultPoolId());
    }
    ~DbConfigList() override
    {
        ObjReleaseInternal(&list_);
        std::filesystem::current_path(former_);
    }
    // Without drive letters \tambdb of a drive is a name in the current directory, and a test can
    // make it. With them the machine's own drives would be asked.
    bool MakeDriveDirectories(const std::string& letters)
    {
        if (std::filesystem::path::preferred_separator == '\\')
            return false;
        std::filesystem::current_path(directory_.path());
        for (char letter : letters)
            std::filesystem::create_directory(std::string(1, letter) + ":\\tambdb");
        return true;
    }
    void Drives(const std::string& letters, uint32_t type)
    {
        for (char letter : letters) {
            gTest.mask |= 1u << (letter - 'A');
            gTest.types[letter - 'A'] = type;
        }
    }
    Texts Listed(uint32_t includeHome)
    {
        DbGetDbPathList(list_, includeHome);
        Texts paths;
        for (uint32_t i = 0; i < ListGetCount(list_); ++i) {
            void* item = nullptr;
            EXPECT_EQ(ListGetNthItem(&item, list_, i), 1u);
            paths.push_back(ObjGetString(item));
        }
        return paths;
    }

    std::filesystem::path former_;
    void* list_ = nullptr;
};

} // namespace

TEST_F(DbConfigList, FixedDrivesWithTheDirectoryAreListedInOrderOfTheirLetters)
{
    if (!MakeDriveDirectories("ACEMZ"))
        GTEST_SKIP() << "drive letters are the system's own here";
    Drives("ACDEMZ", 3);
    TraceRecorder trace(1);
    EXPECT_EQ(
        Listed(1),
        Texts(
            {"/home/bases", "A:\\tambdb", "C:\\tambdb", "E:\\tambdb", "M:\\tambdb", "Z:\\tambdb"}));
    EXPECT_EQ(gTest.asked, Texts({"A:\\", "C:\\", "D:\\", "E:\\", "M:\\", "Z:\\"}));
    ExpectLine(trace, 0, 1, "The drive type for drive C:\\ is 3");
    ExpectLine(trace, 0, 1, "PathIsADirectory returned TRUE for C:\\tambdb");
    ExpectLine(trace, 0, 1, "PathIsADirectory returned FALSE for D:\\tambdb");
    EXPECT_EQ(trace.texts().size(), 12u);
}

TEST_F(DbConfigList, OtherThanFixedDrivesAreNeverListed)
{
    MakeDriveDirectories("BCDEFGH");
    uint32_t type = 0;
    for (const char* letter : {"B", "C", "D", "E", "F", "G", "H"}) {
        Drives(letter, type == 3 ? 0xFFFFFFFF : type);
        ++type;
    }
    TraceRecorder trace(1);
    EXPECT_EQ(Listed(0), Texts());
    EXPECT_EQ(gTest.asked.size(), 7u);
    ExpectLine(trace, 0, 1, "The drive type for drive B:\\ is 0");
    ExpectLine(trace, 0, 1, "The drive type for drive D:\\ is 2");
    ExpectLine(trace, 0, 1, "The drive type for drive E:\\ is -1");
    ExpectLine(trace, 0, 1, "The drive type for drive H:\\ is 6");
    EXPECT_FALSE(trace.hasPart("PathIsADirectory"));
}

TEST_F(DbConfigList, WhatTheSystemCannotTellIsNotTakenForANo)
{
    if (!MakeDriveDirectories("BC"))
        GTEST_SKIP() << "drive letters are the system's own here";
    Drives("B", 0);
    Drives("C", 3);
    const FaultRule rule = {FAULT_EXISTS, "tambdb", 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    TraceRecorder trace(1);
    EXPECT_EQ(Listed(0), Texts());
    ExpectLine(trace, 1, -1, "Failed to tell the type of drive B:\\; it is left out");
    ExpectLine(trace, 1, -1, "Failed to tell whether C:\\tambdb is a directory; it is left out");
    EXPECT_FALSE(trace.hasPart("PathIsADirectory"));
    EXPECT_EQ(Listed(0), Texts({"C:\\tambdb"}));
}

TEST_F(DbConfigList, FixedDriveWithoutTheDirectoryIsNotListed)
{
    if (!MakeDriveDirectories(""))
        GTEST_SKIP() << "drive letters are the system's own here";
    WriteFileBytes("D:\\tambdb", "a file is no directory");
    Drives("CD", 3);
    TraceRecorder trace(1);
    EXPECT_EQ(Listed(0), Texts());
    ExpectLine(trace, 0, 1, "PathIsADirectory returned FALSE for C:\\tambdb");
    ExpectLine(trace, 0, 1, "PathIsADirectory returned FALSE for D:\\tambdb");
}

TEST_F(DbConfigList, BitsBeyondTheLetterZAreNoDrives)
{
    gTest.mask = 0xFC000000;
    EXPECT_EQ(Listed(0), Texts());
    EXPECT_EQ(gTest.asked, Texts());
}

TEST_F(DbConfigList, HomeIsIncludedForTheValueOneOnly)
{
    gTest.mask = 1u << 31;
    EXPECT_EQ(Listed(0), Texts());
    EXPECT_EQ(Listed(2), Texts());
    EXPECT_EQ(Listed(0xFFFFFFFF), Texts());
    EXPECT_EQ(Listed(1), Texts({"/home/bases"}));
}

TEST_F(DbConfigList, PathsAreAppendedToWhatTheListHolds)
{
    void* former = ObjStringNew("former");
    ASSERT_EQ(ListPushLastItem(list_, former), 1u);
    gTest.mask = 1u << 31;
    EXPECT_EQ(Listed(1), Texts({"former", "/home/bases"}));
}

TEST_F(DbConfigList, FailedEnumerationIsAlwaysTracedWithTheSystemsErrorValue)
{
    gTest.error = 1234;
    TraceRecorder trace(-1);
    EXPECT_EQ(Listed(1), Texts({"/home/bases"}));
    ExpectLine(trace, 1234, -1, "GetLogicalDrives failed. Unable to enumerate drives");
    EXPECT_EQ(trace.texts().size(), 1u);
    EXPECT_EQ(gTest.asked, Texts());
}

TEST_F(DbConfigList, NothingHereSetsTheLastError)
{
    IndxSetError(77);
    Derived(nullptr);
    Derived("App");
    DbMungeQtreeIdFromDbPath(1, nullptr);
    Listed(1); // and no drive
    EXPECT_EQ(IndxError(), 77u);
    IndxSetError(0);
}

TEST_F(DbConfigList, SystemWithoutDriveLettersListsTheHomeDirectoryAlone)
{
    if (std::filesystem::path::preferred_separator == '\\')
        GTEST_SKIP() << "this system has drive letters";
    gpDbDrives = &kDbSystemDrives;
    TraceRecorder trace(-1);
    EXPECT_EQ(Listed(1), Texts({"/home/bases"}));
    ExpectLine(trace, 0, -1, "GetLogicalDrives failed. Unable to enumerate drives");
    EXPECT_EQ(kDbSystemDrives.getDriveType("C:\\"), 0u);
}

TEST_F(DbConfigList, ListThatTakesNoStringsStaysEmptyAndNothingIsLost)
{
    void* integers = ListNewFromPool(OBJ_MAGIC_INTEGER, MemGetDefaultPoolId());
    gTest.mask = 1u << 31;
    const uint32_t pieces = MemLiveCount();
    DbGetDbPathList(integers, 1);
    DbGetDbPathList(nullptr, 1);
    EXPECT_EQ(ListGetCount(integers), 0u);
    EXPECT_EQ(MemLiveCount(), pieces);
    ObjReleaseInternal(&integers);
}

TEST_F(DbConfigList, WithoutMemoryPathsAreMissingAndNothingIsLost)
{
    const bool made = MakeDriveDirectories("C");
    Drives("C", made ? 3 : 2);
    const size_t all = made ? 2 : 1;
    ASSERT_EQ(Listed(1).size(), all);
    for (uint32_t times : {1u, 0u}) {
        uint32_t hits = 1;
        for (uint32_t nth = 1; hits != 0; ++nth) {
            ASSERT_LT(nth, 1000u);
            const uint32_t pieces = MemLiveCount();
            void* list = ListNewFromPool(0, MemGetDefaultPoolId());
            const FaultRule rule = {FAULT_ALLOC, nullptr, nth, times, FAULT_FAIL, 0};
            const uint32_t id = FaultArm(&rule);
            DbGetDbPathList(list, 1);
            hits = FaultHits(id);
            FaultDisarmAll();
            EXPECT_LE(ListGetCount(list), all);
            EXPECT_TRUE(hits != 0 || ListGetCount(list) == all);
            ObjReleaseInternal(&list);
            EXPECT_EQ(MemLiveCount(), pieces) << nth;
        }
    }
}
