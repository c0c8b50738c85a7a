// cluster_test.cpp: a database in clustered mode from beginning to end, on the second fixed drive
// of the machine, opened by the path that is derived from a path on that drive.
#include <filesystem>
#include <string>

#include "database/indexwrappers.h"
#include "support/person_table.h"
#include "windows/win32_calls.h"

namespace {

const char* const DRIVE_DIRECTORY = "E:\\tambdb";
const char* const ON_DISK = "E:\\tambdb\\Cluster";

class Cluster : public PersonTest {
  protected:
    void SetUp() override
    {
        if (!TestDrivesAreMapped())
            GTEST_SKIP() << "the drives of the test prefix are not mapped";
        PersonTest::SetUp();
        std::filesystem::remove_all(ON_DISK); // left by a run that was stopped
        DbSetClusteredMode(DB_CLUSTERED_MODE);
    }
    void TearDown() override
    {
        if (!TestDrivesAreMapped())
            return;
        PersonTest::TearDown();
        std::filesystem::remove_all(ON_DISK);
    }
    // Opens the database of the drive that a path lies on.
    void OpenOn(const char* path)
    {
        char* derived = nullptr;
        ASSERT_EQ(DbGetClusterDerivedPath(path, &derived), 1u);
        EXPECT_STREQ(derived, DRIVE_DIRECTORY);
        EXPECT_EQ(IndxOpenDatabase(databaseVariable(), "Cluster", nullptr, derived), 1u);
        MemFree(derived);
        ASSERT_NE(database(), nullptr);
    }
    static uint32_t CountPerson(void*, void* pCount)
    {
        ++*static_cast<uint32_t*>(pCount);
        return 1;
    }
};

} // namespace

TEST_F(Cluster, DatabaseOnASecondDriveKeepsWhatIsDoneToIt)
{
    People model;
    People others;
    OpenOn("e:\\somewhere\\else");
    void* oTable = OpenPeople();
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(OBJ_HEADER(oTable)->flags, 0u) << "made, not loaded";
    AddPeople(oTable, &model, 0, 300);
    AddPeople(OpenPeople(0, "Others"), &others, 1000, 1020);
    ExpectHolds(oTable, model);
    uint32_t walked = 0;
    EXPECT_EQ(IndxWalkTable(oTable, "Name", CountPerson, &walked), 1u);
    EXPECT_EQ(walked, 300u);
    for (const char* name : {"Indexes", "Records", "Files", "Attributes"})
        EXPECT_TRUE(std::filesystem::is_directory(std::string(ON_DISK) + "\\" + name)) << name;
    EXPECT_FALSE(std::filesystem::exists(Utf8Path(HomePath() + "\\Cluster")));
    Close();

    OpenOn("E:");
    EXPECT_EQ(TableCount(), 2u);
    oTable = OpenPeople();
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(OBJ_HEADER(oTable)->flags, 1u) << "loaded in clustered mode";
    ExpectHolds(oTable, model);
    ExpectHolds(OpenPeople(0, "Others"), others);
    AddPeople(oTable, &model, 300, 310);
    DeletePeople(oTable, &model, {1, 50, 300});
    Close();

    // The same files without clustered mode, by the same home.
    DbSetClusteredMode(0);
    WriteFileBytes(
        directory().path("configure.cfg"),
        std::string("[Directories]\ndatabase = ") + DRIVE_DIRECTORY + "\n");
    ASSERT_TRUE(Open("Cluster"));
    oTable = OpenPeople();
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(OBJ_HEADER(oTable)->flags, 0u);
    ExpectHolds(oTable, model);
}

TEST_F(Cluster, ClosingATableGivesTheDatabaseBackInThisModeOnly)
{
    OpenOn("E:\\x");
    void* oTable = OpenPeople();
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(OBJ_HEADER(database())->refCount, 2);
    void* oHeld = ObjIncRefCount(oTable);
    ASSERT_EQ(IndxCloseTable(&oHeld), 1u);
    EXPECT_EQ(static_cast<IndxTable*>(oTable)->oDatabase, nullptr);
    EXPECT_EQ(OBJ_HEADER(database())->refCount, 1);
    Close();

    OpenOn("E:\\x");
    oTable = OpenPeople();
    ASSERT_NE(oTable, nullptr);
    DbSetClusteredMode(0);
    oHeld = ObjIncRefCount(oTable);
    ASSERT_EQ(IndxCloseTable(&oHeld), 1u);
    EXPECT_EQ(static_cast<void*>(static_cast<IndxTable*>(oTable)->oDatabase), database());
    EXPECT_EQ(OBJ_HEADER(database())->refCount, 2);
}

TEST_F(Cluster, DatabaseOpensByTheDirectoryThatItsMungedIdStandsFor)
{
    const uint32_t munged = DbMungeQtreeIdFromDbPath(0x00ABCDEF, "e:\\tambdb\\Cluster");
    EXPECT_EQ(munged, 0x05ABCDEFu);
    char* path = DbGetDbPathFromMungedQtreeId(static_cast<int32_t>(munged));
    ASSERT_EQ(IndxOpenDatabase(databaseVariable(), "Cluster", nullptr, path), 1u);
    MemFree(path);
    EXPECT_TRUE(std::filesystem::is_directory(std::string(ON_DISK) + "\\Indexes"));
}

TEST_F(Cluster, DriveThatIsNotThereIsError28AndLeavesNothing)
{
    EXPECT_EQ(IndxOpenDatabase(databaseVariable(), "Cluster", nullptr, "B:\\tambdb"), 0u);
    EXPECT_EQ(database(), nullptr);
    EXPECT_EQ(IndxError(), 28u);
    // A file stands where the directory should be.
    EXPECT_EQ(IndxOpenDatabase(databaseVariable(), "Cluster", nullptr, "Q:\\tambdb"), 0u);
    EXPECT_EQ(IndxError(), 28u);
}
