// open_version_test.cpp: versions of tables: what is stored, read, compared and refused.
#include <utility>

#include "row_fixture.h"
#include "support/directory_image.h"
#include "support/quiet_trace.h"

namespace {

using OpeningVersions = RowTest;

TEST_F(OpeningVersions, VersionFileWithoutABlockFileIsNotCompared)
{
    WriteFileBytes(VersionFile("T"), "[Versioning]\nVersion = 9\n");
    EXPECT_NE(Create("T", 5), nullptr);
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = 5\n");
}

TEST_F(OpeningVersions, NoNameOfATableIsWrittenOverOnTheWay)
{
    Create("T.tmp", 7);
    Create("T", 5);
    EXPECT_EQ(ReadFileBytes(VersionFile("T.tmp")), "[Versioning]\nVersion = 7\n");
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = 5\n");
    ASSERT_TRUE(Reopen());
    EXPECT_NE(Create("T.tmp", 7), nullptr);
    EXPECT_NE(Create("T", 5), nullptr);
}

// Whatever fails on the way to the new version, that of the other table is not touched.
TEST_F(OpeningVersions, AVersionThatCannotBeStoredLeavesThatOfEveryOtherTable)
{
    Create("T.tmp", 7);
    Create("T", 5);
    for (const uint32_t point : {FAULT_OPEN, FAULT_WRITE, FAULT_CLOSE}) {
        Fail(point, 1, 0, "Attributes");
        EXPECT_EQ(IndxSetTableVersion("T", database(), 6), 0u);
        FaultDisarmAll();
        EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = 5\n");
        EXPECT_EQ(ReadFileBytes(VersionFile("T.tmp")), "[Versioning]\nVersion = 7\n");
    }
}

TEST_F(OpeningVersions, Wanted5AgainstNoneIsRefused)
{
    Create("T", INDX_VERSION_NONE);
    TraceRecorder trace;
    EXPECT_EQ(Create("T", 5), nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Wrong table version - wanted '5', is 'None'"))
        << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Return table 'T' version of 'none'"));
    EXPECT_FALSE(std::filesystem::exists(VersionFile("T")));
}

TEST_F(OpeningVersions, TableWithoutAVersionOpensOnlyWhenNoneOrAnyIsAsked)
{
    Create("T", INDX_VERSION_ANY);
    EXPECT_FALSE(std::filesystem::exists(VersionFile("T")));
    EXPECT_NE(Create("T", INDX_VERSION_NONE), nullptr);
    EXPECT_NE(Create("T", INDX_VERSION_ANY), nullptr);
    EXPECT_EQ(Create("T", 0), nullptr);
    TraceRecorder trace;
    EXPECT_EQ(Create("T", INDX_VERSION_ABSENT), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Wrong table version - wanted 'Does not exist', is 'None'"));
}

TEST_F(OpeningVersions, StoredVersionMustBeTheWantedOne)
{
    Create("T", 5);
    EXPECT_NE(Create("T", 5), nullptr);
    EXPECT_NE(Create("T", INDX_VERSION_ANY), nullptr);
    TraceRecorder trace;
    EXPECT_EQ(Create("T", 6), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Wrong table version - wanted '6', is '5'"));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Got version of 5 for table 'T'")) << trace.dump();
    EXPECT_EQ(Create("T", INDX_VERSION_NONE), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Wrong table version - wanted 'None', is '5'"));
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(Create("T", 6), nullptr);
    EXPECT_NE(Create("T", 5), nullptr);
}

TEST_F(OpeningVersions, VersionIsCheckedBeforeTheShape)
{
    Create("T", 5);
    EXPECT_EQ(OpenTable("T", MAGIC + 1, FORMAT, FIELDS, 0, 6), nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(OpeningVersions, LargeVersionsKeepTheir32Bits)
{
    Create("T", 0x80000000u);
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = -2147483648\n");
    uint32_t version = 0;
    EXPECT_EQ(IndxGetTableVersion(&version, "T", database()), 1u);
    EXPECT_EQ(version, 0x80000000u);
    EXPECT_NE(Create("T", 0x80000000u), nullptr);
    WriteFileBytes(VersionFile("T"), "[Versioning]\nVersion = 4294967292\n");
    EXPECT_EQ(IndxGetTableVersion(&version, "T", database()), 1u);
    EXPECT_EQ(version, 0xFFFFFFFCu);
}

TEST_F(OpeningVersions, ReservedVersionAbsentIsWrittenAsAPlainNumber)
{
    EXPECT_NE(Create("T", INDX_VERSION_ABSENT), nullptr);
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = -3\n");
}

TEST_F(OpeningVersions, VersionIsWrittenUnderTheNameAndReadUnderTheFileName)
{
    void* oTable = nullptr;
    ASSERT_EQ(
        IndxOpenTableInternal(&oTable, database(), "Name", "File", MAGIC, FORMAT, FIELDS, 0, 5),
        1u);
    IndxReleaseTable(&oTable);
    EXPECT_TRUE(std::filesystem::exists(VersionFile("Name")));
    EXPECT_FALSE(std::filesystem::exists(VersionFile("File")));
    uint32_t version = 0;
    EXPECT_EQ(IndxGetTableVersion(&version, "File", database()), 1u);
    EXPECT_EQ(version, INDX_VERSION_NONE);
    const auto open = [&](uint32_t wanted) {
        return IndxOpenTableInternal(
            nullptr, database(), "Name", "File", MAGIC, FORMAT, FIELDS, 0, wanted);
    };
    EXPECT_EQ(open(5), 0u);
    EXPECT_EQ(open(INDX_VERSION_NONE), 1u);
}

TEST_F(OpeningVersions, GetTableVersionKnowsThreeOutcomes)
{
    uint32_t version = 1;
    TraceRecorder trace;
    EXPECT_EQ(IndxGetTableVersion(&version, "T", database()), 1u);
    EXPECT_EQ(version, 0xFFFFFFFDu);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Return table 'T' version of 'does not exist'"));
    Create("T");
    EXPECT_EQ(IndxGetTableVersion(&version, "T", database()), 1u);
    EXPECT_EQ(version, 0xFFFFFFFEu);
    EXPECT_EQ(IndxSetTableVersion("T", database(), 12), 1u);
    EXPECT_EQ(IndxGetTableVersion(&version, "T", database()), 1u);
    EXPECT_EQ(version, 12u);
}

TEST_F(OpeningVersions, DamagedVersionFilesFailTheOpen)
{
    Create("T", 5);
    struct Case {
        const char *bytes, *message;
        uint32_t error;
    };
    const char* noStanza = "Failed to load version stanza for table 'T'";
    const char* noNumber = "Failed to get version integer from stnz for 'T'";
    const Case cases[] = {
        {"", noStanza, 1},
        {"[Version]\nVersion = 5\n", noStanza, 1},
        {"Version = 5\n", noStanza, 1},
        {"[Versioning]\n", noNumber, 0},
        {"[Versioning]\nVersion = five\n", noNumber, 0},
        {"[Versioning]\nVersion = -2\n", noNumber, 0},
        {"[Versioning]\nVersion = 99999999999\n", noNumber, 0},
        {"[Versioning]\nVersions = 5\n", noNumber, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes);
        WriteFileBytes(VersionFile("T"), c.bytes);
        uint32_t version = 123;
        TraceRecorder trace;
        EXPECT_EQ(IndxGetTableVersion(&version, "T", database()), 0u);
        EXPECT_EQ(version, 123u) << "untouched";
        EXPECT_TRUE(trace.has(TAG, c.error, -1, c.message)) << trace.dump();
        EXPECT_EQ(Create("T", INDX_VERSION_ANY), nullptr);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed when discovering table version"));
        EXPECT_EQ(IndxError(), UNCHANGED);
    }
    Fail(FAULT_STNZ_LOAD, 1, 2);
    TraceRecorder trace;
    EXPECT_EQ(Create("T", 5), nullptr);
    EXPECT_TRUE(trace.has(TAG, 1, -1, noStanza)) << trace.dump();
    uint32_t version = 123;
    EXPECT_EQ(IndxGetTableVersion(&version, "T", database()), 0u);
    EXPECT_EQ(version, 123u);
}

TEST_F(OpeningVersions, VersionThatCannotBeWrittenFailsTheCreation)
{
    Fail(FAULT_STNZ_SAVE);
    TraceRecorder trace;
    EXPECT_EQ(Create("T", 5), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to set table version when creating new table 'T'"))
        << trace.dump();
    EXPECT_TRUE(
        trace.has(TAG, 0, 4, "FALSE = IndxSetTableVersion('T', " + Hex(database()) + ", 5)"));
    EXPECT_EQ(IndxError(), UNCHANGED);
    FaultDisarmAll();
    std::filesystem::remove_all(DatabasePath() + "/Attributes");
    EXPECT_EQ(Create("T", 5), nullptr);
    EXPECT_NE(Create("T", INDX_VERSION_NONE), nullptr) << "no version file is asked for";
}

TEST_F(OpeningVersions, VersionFileKeepsWhatElseIsInIt)
{
    WriteFileBytes(VersionFile("T"), "# kept\n[Other]\nVersion = 1\n");
    EXPECT_NE(Create("T", 5), nullptr);
    const std::string bytes = ReadFileBytes(VersionFile("T"));
    EXPECT_EQ(bytes.find("# kept\n[Other]\nVersion = 1\n"), 0u);
    EXPECT_NE(bytes.find("[Versioning]\nVersion = 5\n"), std::string::npos);
}

TEST_F(OpeningVersions, VersionTextsAreFixed)
{
    const std::pair<uint32_t, const char*> cases[] = {
        {0xFFFFFFFDu, "Does not exist"},
        {0xFFFFFFFEu, "None"},
        {0xFFFFFFFFu, "Any"},
        {0, "0"},
        {5, "5"},
        {0x80000000u, "2147483648"},
        {0xFFFFFFFCu, "4294967292"}};
    for (const auto& [version, text] : cases) {
        char* made = IndxTableVersionString(version);
        EXPECT_STREQ(made, text);
        MemFree(made);
    }
    Fail(FAULT_ALLOC, 1, 0);
    EXPECT_EQ(IndxTableVersionString(5), nullptr);
    EXPECT_EQ(IndxTableVersionString(INDX_VERSION_ANY), nullptr);
}

TEST_F(OpeningVersions, VersionCallsRefuseBadArguments)
{
    uint32_t version = 123;
    void* oOther = ObjIntegerNew(1);
    TraceRecorder trace;
    EXPECT_EQ(IndxGetTableVersion(nullptr, "T", database()), 0u);
    EXPECT_EQ(IndxGetTableVersion(&version, nullptr, database()), 0u);
    EXPECT_EQ(IndxGetTableVersion(&version, "T", nullptr), 0u);
    EXPECT_EQ(IndxGetTableVersion(&version, "T", oOther), 0u);
    EXPECT_EQ(trace.count("Invalid argument"), 4u);
    EXPECT_EQ(version, 123u);
    EXPECT_EQ(IndxSetTableVersion(nullptr, database(), 1), 0u);
    EXPECT_EQ(IndxSetTableVersion("T", oOther, 1), 0u);
    EXPECT_EQ(IndxSetTableVersion("T", nullptr, 1), 0u);
    EXPECT_EQ(IndxError(), UNCHANGED);
    ObjReleaseInternal(&oOther);
}

// ---- what cannot be told is not taken for absent ----------------------------------------------

class WrongVersion : public OpeningVersions {
  protected:
    void SetUp() override
    {
        OpeningVersions::SetUp();
        AddMany(Create("T", 5), 3);
        Close();
        versionBytes_ = ReadFileBytes(VersionFile("T"));
        pristine_.Take(DatabasePath());
    }
    // Opens the database with table T in its list or, `listed` false, left out of it.
    void OpenAgain(bool listed)
    {
        Close();
        pristine_.Restore();
        void* oNames = listed ? nullptr : ListNewFromPool(0, 1);
        ASSERT_TRUE(Open(DATABASE, oNames));
        ObjReleaseInternal(&oNames);
    }

    std::string versionBytes_;
    DirectoryImage pristine_;
};

TEST_F(WrongVersion, StoredVersionStaysWhenIndexesCannotBeRead)
{
    for (const bool listed : {true, false}) {
        OpenAgain(listed);
        Fail(FAULT_EXISTS, 1, 0, "Indexes");
        Fail(FAULT_OPEN, 1, 0, "Indexes");
        TraceRecorder trace;
        EXPECT_EQ(Create("T", 6), nullptr);
        FaultDisarmAll();
        EXPECT_EQ(ReadFileBytes(VersionFile("T")), versionBytes_);
        EXPECT_TRUE(
            trace.has(TAG, 1, -1, "Cannot tell whether '" + PathOf("Indexes", "T") + "' exists"))
            << trace.dump();
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed when discovering table version"));
    }
}

TEST_F(WrongVersion, StoredVersionStaysWhenItsFileCannotBeLookedFor)
{
    OpenAgain(true);
    Fail(FAULT_EXISTS, 1, 0, "Attributes");
    uint32_t version = 123;
    TraceRecorder trace;
    EXPECT_EQ(IndxGetTableVersion(&version, "T", database()), 0u);
    EXPECT_EQ(version, 123u);
    EXPECT_TRUE(
        trace.has(TAG, 1, -1, "Cannot tell whether '" + PathOf("Attributes", "T") + "' exists"))
        << trace.dump();
}

// T has the version 5, N none.
TEST_F(WrongVersion, IsNeverOpenedAndNeverStoredWhateverFails)
{
    ASSERT_TRUE(Open());
    AddMany(Create("N"), 3);
    Close();
    pristine_.Take(DatabasePath());
    const QuietTrace quiet;
    for (const uint32_t point :
         {FAULT_ALLOC, FAULT_EXISTS, FAULT_OPEN, FAULT_READ, FAULT_SEEKSTART, FAULT_STNZ_LOAD}) {
        for (const bool listed : {true, false}) {
            for (const uint32_t times : {1u, 0u}) {
                bool hit = true;
                for (uint32_t n = 1; hit; ++n) {
                    SCOPED_TRACE(testing::Message() << "point " << point << ", call " << n);
                    ASSERT_NO_FATAL_FAILURE(OpenAgain(listed));
                    const uint32_t armed = Fail(point, n, times);
                    void* oOther = Create("T", 6);
                    void* oNone = Create("N", 6);
                    hit = FaultHits(armed) > 0;
                    FaultDisarmAll();
                    ASSERT_EQ(oOther, nullptr);
                    ASSERT_EQ(oNone, nullptr);
                    ASSERT_EQ(ReadFileBytes(VersionFile("T")), versionBytes_);
                    ASSERT_FALSE(std::filesystem::exists(VersionFile("N")));
                    ASSERT_NO_FATAL_FAILURE(ExpectRecords(Create("T", 5), 3));
                    ASSERT_NO_FATAL_FAILURE(ExpectRecords(Create("N"), 3));
                }
            }
        }
    }
}

// The files of another table are known for what they are only when the block file is open.
TEST_F(WrongVersion, VersionOfATableWhoseFileAppearsMeanwhileStays)
{
    OpenAgain(false);
    {
        const ReturningFile file(PathOf("Indexes", "T"));
        EXPECT_EQ(Create("T", 6), nullptr);
        EXPECT_TRUE(file.told("'T' holds a table already"));
    }
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), versionBytes_);
    ExpectRecords(Create("T", 5), 3);
}

// A creation that came no further than its block file left no table, and is no obstacle to the
// next.
TEST_F(OpeningVersions, BlankBlockFileWithoutAVersionIsNoTableOfVersionNone)
{
    Fail(FAULT_STNZ_SAVE);
    EXPECT_EQ(Create("T", 5), nullptr);
    FaultDisarmAll();
    ASSERT_TRUE(std::filesystem::exists(PathOf("Indexes", "T")));
    ASSERT_FALSE(std::filesystem::exists(VersionFile("T")));
    EXPECT_NE(Create("T", 5), nullptr);
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = 5\n");
}

TEST_F(OpeningVersions, RefusedDefinitionKeepsTheVersionItWasGiven)
{
    EXPECT_EQ(OpenTable("T", MAGIC, "i;s;", "Id", 0, 5), nullptr);
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = 5\n");
    EXPECT_EQ(Create("T", 6), nullptr);
    EXPECT_NE(Create("T", 5), nullptr);
}

} // namespace
