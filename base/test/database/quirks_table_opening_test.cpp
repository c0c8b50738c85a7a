// quirks_table_opening_test.cpp: what the opening of tables, their versions, and fields and cursors
// do on purpose and keep doing, oddities included.

#include <filesystem>

#include "people_scene.h"

namespace {

constexpr uint32_t SMALL = 0xca333333;

class OpeningQuirk : public testing::Test {
  protected:
    NimBool OpenAs(
        void** ppTable, const std::string& name, const std::string& fileName, uint32_t version,
        const char* format = "i;i;", const char* fields = "Id,A;Indexed")
    {
        return IndxOpenTableInternal(
            ppTable, scene_.database(), name.c_str(), fileName.c_str(), SMALL, format, fields, 0,
            version);
    }
    NimBool OpenT(
        uint32_t version = INDX_VERSION_NONE, const char* format = "i;i;",
        const char* fields = "Id,A;Indexed")
    {
        return OpenAs(nullptr, "T", "T", version, format, fields);
    }
    bool HasVersionFile(const std::string& name)
    {
        return std::filesystem::exists(scene_.PathOf("Attributes", name));
    }
    std::string VersionFile(const std::string& name)
    {
        return ReadFileBytes(scene_.PathOf("Attributes", name));
    }
    static std::string Version(uint32_t version)
    {
        char* text = IndxTableVersionString(version);
        const std::string copy = text;
        MemFree(text);
        return copy;
    }

    LogRecorder log_;
    TraceRecorder trace_;
    PeopleScene scene_;
};

// ---- versions
// ------------------------------------------------------------------------------------

TEST_F(OpeningQuirk, AVersionIsWrittenUnderTheNameAndReadUnderTheFileName)
{
    ASSERT_EQ(OpenAs(nullptr, "Name", "File", 5), 1u);
    EXPECT_TRUE(HasVersionFile("Name"));
    EXPECT_FALSE(HasVersionFile("File"));
    EXPECT_EQ(OpenAs(nullptr, "Name", "File", 5), 0u);
    EXPECT_TRUE(trace_.has("Wrong table version - wanted '5', is 'None'"));
    EXPECT_EQ(OpenAs(nullptr, "Name", "File", INDX_VERSION_NONE), 1u);
}

TEST_F(OpeningQuirk, TheVersionThatMeansAbsentIsStoredAsANumberWhenAskedFor)
{
    ASSERT_EQ(OpenT(INDX_VERSION_ABSENT), 1u);
    EXPECT_NE(VersionFile("T").find("-3"), std::string::npos);
    EXPECT_EQ(OpenT(5), 1u); // and reads as a table that does not exist
}

TEST_F(OpeningQuirk, AnyAndNoneMakeNoVersionFile)
{
    ASSERT_EQ(OpenT(INDX_VERSION_ANY), 1u);
    EXPECT_FALSE(HasVersionFile("T"));
    ASSERT_EQ(OpenAs(nullptr, "U", "U", INDX_VERSION_NONE), 1u);
    EXPECT_FALSE(HasVersionFile("U"));
}

TEST_F(OpeningQuirk, AnyVersionIsAcceptedWhenAnyIsAskedFor)
{
    ASSERT_EQ(OpenT(5), 1u);
    EXPECT_EQ(OpenT(INDX_VERSION_ANY), 1u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE), 0u);
}

TEST_F(OpeningQuirk, ATableWithoutVersionOpensWhenNoneOrAnyIsAskedFor)
{
    ASSERT_EQ(OpenT(), 1u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE), 1u);
    EXPECT_EQ(OpenT(INDX_VERSION_ANY), 1u);
    EXPECT_EQ(OpenT(5), 0u);
}

TEST_F(OpeningQuirk, AWrongVersionHasNoErrorCode)
{
    ASSERT_EQ(OpenT(5), 1u);
    IndxSetError(77);
    EXPECT_EQ(OpenT(6), 0u);
    EXPECT_EQ(IndxError(), 77u);
}

TEST_F(OpeningQuirk, AVersionFileWithoutItsTableIsNotCompared)
{
    WriteFileBytes(scene_.PathOf("Attributes", "T"), "[Versioning]\nVersion = 9\n");
    EXPECT_EQ(OpenT(5), 1u);
    EXPECT_NE(VersionFile("T").find("Version = 5"), std::string::npos);
}

TEST_F(OpeningQuirk, VersionsPrintUnsignedAndThreeByName)
{
    EXPECT_EQ(Version(0xFFFFFFFD), "Does not exist");
    EXPECT_EQ(Version(0xFFFFFFFE), "None");
    EXPECT_EQ(Version(0xFFFFFFFF), "Any");
    EXPECT_EQ(Version(0xFFFFFFFC), "4294967292");
    EXPECT_EQ(Version(0), "0");
}

TEST_F(OpeningQuirk, AVersionThatCannotBeReadLeavesTheVariableUntouched)
{
    ASSERT_EQ(OpenT(5), 1u);
    scene_.Fail(FAULT_STNZ_LOAD);
    uint32_t version = 77;
    EXPECT_EQ(IndxGetTableVersion(&version, "T", scene_.database()), 0u);
    EXPECT_EQ(version, 77u);
}

TEST_F(OpeningQuirk, SoDoesAVersionThatIsNoNumberOrThatMeansNone)
{
    ASSERT_EQ(OpenT(5), 1u);
    for (const char* text : {"[Versioning]\nVersion = x\n", "[Versioning]\nVersion = -2\n"}) {
        WriteFileBytes(scene_.PathOf("Attributes", "T"), text);
        uint32_t version = 77;
        EXPECT_EQ(IndxGetTableVersion(&version, "T", scene_.database()), 0u);
        EXPECT_EQ(version, 77u);
    }
}

TEST_F(OpeningQuirk, TheSpellingSuccesfullyStays)
{
    ASSERT_EQ(OpenT(5), 1u);
    EXPECT_TRUE(trace_.has("Succesfully set table 'T' version to 5"));
}

TEST_F(OpeningQuirk, TheVersionOfAnExistingTableIsOnlyTraced)
{
    ASSERT_EQ(OpenT(5), 1u);
    EXPECT_EQ(IndxOpenExistingTable(nullptr, scene_.database(), "T", 99), 1u);
    EXPECT_TRUE(trace_.hasPart(", T, 99)"));
}

// ---- shape
// ---------------------------------------------------------------------------------------

TEST_F(OpeningQuirk, TheFieldsOfAnExistingTableAreNotCompared)
{
    ASSERT_EQ(OpenT(), 1u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE, "i;i;", "Something else;Unique"), 1u);
    EXPECT_STREQ(scene_.ListedTable("T")->fields, "Id,A;Indexed"); // what was stored counts
}

TEST_F(OpeningQuirk, OneSemicolonAtTheEndMakesNoOtherShape)
{
    ASSERT_EQ(OpenT(INDX_VERSION_NONE, "i;i"), 1u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE, "i;i;"), 1u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE, "i;i;;"), 0u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE, "i;i;i;"), 0u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE, "i;i.."), 0u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE, "i;ix"), 0u);
}

TEST_F(OpeningQuirk, TheCaseOfAShapeCounts)
{
    ASSERT_EQ(OpenT(), 1u);
    EXPECT_EQ(OpenT(INDX_VERSION_NONE, "I;i;"), 0u);
    EXPECT_EQ(IndxError(), 25u);
}

TEST_F(OpeningQuirk, TheFlagOfAnExistingTableIsNotLookedAt)
{
    ASSERT_EQ(OpenT(), 1u);
    EXPECT_EQ(
        IndxOpenTableInternal(
            nullptr, scene_.database(), "T", "T", SMALL, "i;i;", "Id,A", 1, INDX_VERSION_NONE),
        1u);
    EXPECT_EQ(scene_.ListedTable("T")->bCompanionFiles, 0u);
}

// ---- creating
// ------------------------------------------------------------------------------------

TEST_F(OpeningQuirk, ARefusedBlockFileShowsInTheNextStep)
{
    scene_.Fail(FAULT_OPEN, 1, 0, "Indexes");
    EXPECT_EQ(OpenT(), 0u);
    EXPECT_TRUE(trace_.hasPart("Failed to open blck file when opening indx '"));
    EXPECT_TRUE(trace_.hasPart("TRUE = IndxIndexOpen("));
    EXPECT_TRUE(trace_.has("Failed to create table"));
}

TEST_F(OpeningQuirk, AFailedCreationLeavesTheFilesThatWereMade)
{
    EXPECT_EQ(OpenT(5, "i;i;", "Id,A;Sorted"), 0u);
    EXPECT_TRUE(HasVersionFile("T"));
    EXPECT_TRUE(std::filesystem::exists(scene_.PathOf("Indexes", "T")));
    EXPECT_EQ(scene_.ListedTable("T"), nullptr);
}

TEST_F(OpeningQuirk, ATableWhoseDescriptionWasNotStoredIsListedAndHandedOut)
{
    scene_.Fail(FAULT_SERIALIZE);
    void* oTable = nullptr;
    EXPECT_EQ(OpenAs(&oTable, "T", "T", INDX_VERSION_NONE), 0u);
    EXPECT_NE(oTable, nullptr);
    EXPECT_EQ(scene_.ListedTable("T"), oTable);
    IndxReleaseTable(&oTable);
}

TEST_F(OpeningQuirk, WithoutAVariableNoReferenceIsHandedOut)
{
    ASSERT_EQ(OpenT(), 1u);
    EXPECT_EQ(OBJ_HEADER(scene_.ListedTable("T"))->refCount, 3); // the list, and two fields
    EXPECT_EQ(OpenT(), 1u);
    EXPECT_EQ(OBJ_HEADER(scene_.ListedTable("T"))->refCount, 3);
}

// ---- the records file
// ----------------------------------------------------------------------------

TEST_F(OpeningQuirk, ARecordsFileThatDoesNotOpenIsNotNoticedAtACreation)
{
    scene_.Fail(FAULT_OPEN, 1, 1, "Records");
    EXPECT_EQ(OpenT(), 1u);
    EXPECT_TRUE(trace_.hasPart("TRUE = IndxRecordsOpen("));
}

TEST_F(OpeningQuirk, ARecordsFileThatDoesNotOpenIsNotNoticedAtALoading)
{
    scene_.MustAdd(1);
    scene_.Close();
    scene_.Fail(FAULT_OPEN, 1, 1, "Records");
    ASSERT_TRUE(scene_.Open());
    EXPECT_EQ(scene_.TableCount(), 1u);
    EXPECT_TRUE(trace_.hasPart("TRUE = IndxRecordsOpen("));
}

TEST_F(OpeningQuirk, TheOperationsOnRecordsMeetAClosedFileInstead)
{
    scene_.Fail(FAULT_OPEN, 1, 1, "Records");
    EXPECT_EQ(IndxRecordsOpen(scene_.table_, PeopleScene::TABLE), 1u);
    EXPECT_EQ(scene_.table()->hRecords, FILE_NONE);
    Person person = MakePerson(1);
    EXPECT_EQ(scene_.Add(scene_.table_, &person), 0u);
    EXPECT_EQ(IndxError(), 12u);
}

// ---- loading
// -------------------------------------------------------------------------------------

TEST_F(OpeningQuirk, LoadingATableThatIsListedFailsInSilence)
{
    const TraceRecorder failures(0);
    IndxSetError(77);
    EXPECT_EQ(IndxLoadTable(nullptr, scene_.database(), PeopleScene::TABLE, "PEOPLE"), 0u);
    EXPECT_TRUE(failures.lines().empty()) << failures.dump();
    EXPECT_EQ(IndxError(), 77u);
    EXPECT_EQ(scene_.TableCount(), 1u);
}

TEST_F(OpeningQuirk, LoadingATableDoesNotListIt)
{
    ASSERT_EQ(OpenT(), 1u);
    std::filesystem::copy_file(scene_.PathOf("Indexes", "T"), scene_.PathOf("Indexes", "Copy"));
    void* oTable = nullptr;
    EXPECT_EQ(IndxLoadTable(&oTable, scene_.database(), "Copy", "Copy"), 1u);
    EXPECT_EQ(scene_.TableCount(), 2u);
    IndxCloseTable(&oTable);
}

TEST_F(OpeningQuirk, InClusteredModeALoadedTableIsMarkedInItsHeader)
{
    EXPECT_EQ(OBJ_HEADER(scene_.table_)->flags, 0u); // created
    scene_.Reload();
    EXPECT_EQ(OBJ_HEADER(scene_.table_)->flags, 0u);
    scene_.Close();
    DbSetClusteredMode(2);
    ASSERT_TRUE(scene_.Open());
    EXPECT_EQ(OBJ_HEADER(scene_.ListedTable("People"))->flags, 0u);
    scene_.Close();
    DbSetClusteredMode(1);
    ASSERT_TRUE(scene_.Open());
    EXPECT_EQ(OBJ_HEADER(scene_.ListedTable("People"))->flags, 1u);
    scene_.Close();
}

// ---- fields and cursors
// --------------------------------------------------------------------------

TEST_F(OpeningQuirk, FiveBlanksStandInTheTextOfAnOpenedCursorAndOneInThatOfAReleasedOne)
{
    {
        const PeopleScene::Cursor cursor(scene_.table_, "Name");
    }
    EXPECT_TRUE(trace_.has("Got cursor to field     'Name' of 'People'"));
    EXPECT_TRUE(trace_.has("Release cursor to field 'Name' of 'People'"));
}

TEST_F(OpeningQuirk, ANewCursorStandsNowhere)
{
    const PeopleScene::Cursor cursor(scene_.table_, "Name");
    EXPECT_EQ(IndxAsCursor(cursor.get())->status, 0);
    EXPECT_EQ(IndxAsCursor(cursor.get())->oKey, nullptr);
    EXPECT_EQ(IndxNextKey(cursor.get()), 9);
}

TEST_F(OpeningQuirk, ABadArgumentForAFieldsCursorHasNeitherTraceNorCode)
{
    IndxSetError(77);
    trace_.clear();
    void* oCursor = nullptr;
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, nullptr, "Id"), 0u);
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, scene_.database(), "Id"), 0u);
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, scene_.table_, nullptr), 0u);
    EXPECT_TRUE(trace_.lines().empty());
    EXPECT_EQ(IndxError(), 77u);
}

TEST_F(OpeningQuirk, BadArgumentsForAFieldOrAReleaseHaveNoCode)
{
    IndxSetError(77);
    void* oNone = nullptr;
    EXPECT_EQ(IndxGetField(nullptr, scene_.table_, "Id"), 0u);
    EXPECT_EQ(IndxGetField(&oNone, nullptr, "Id"), 0u);
    EXPECT_EQ(IndxGetField(&oNone, scene_.table_, nullptr), 0u);
    EXPECT_EQ(IndxReleaseCursor(nullptr), 0u);
    EXPECT_EQ(IndxReleaseCursor(&oNone), 0u);
    EXPECT_EQ(IndxError(), 77u);
}

TEST_F(OpeningQuirk, AReleasedCursorLetsItsKeyGoThoughSomebodyHoldsIt)
{
    scene_.MustAdd(1);
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, scene_.table_, "Name"), 1u);
    ASSERT_EQ(IndxFirstKey(oCursor), 6);
    void* oHeld = ObjIncRefCount(oCursor);
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 1u);
    EXPECT_EQ(IndxAsCursor(oHeld)->status, 0);
    EXPECT_EQ(IndxAsCursor(oHeld)->oKey, nullptr);
    EXPECT_EQ(ListGetCount(PeopleScene::Field(scene_.table_, 1)->oCursors), 0u);
    EXPECT_EQ(IndxReleaseCursor(&oHeld), 1u);
}

TEST_F(OpeningQuirk, TheIdAlwaysHasACursorAndABooleanNeverHas)
{
    ASSERT_EQ(OpenT(INDX_VERSION_NONE, "i;b;", "Id,B;Indexed"), 1u);
    void* oTable = scene_.ListedTable("T");
    void* oCursor = nullptr;
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, oTable, "id"), 1u);
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 1u);
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 0u); // through the same variable
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, oTable, "B"), 0u);
    EXPECT_EQ(IndxError(), 6u);
}

TEST_F(OpeningQuirk, ACursorThatIsStillHeldKeepsItsFieldWhenTheTableIsClosed)
{
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, scene_.table_, "Name"), 1u);
    scene_.Close();
    EXPECT_STREQ(IndxAsCursor(oCursor)->oField->name, "Name");
    EXPECT_EQ(IndxReleaseCursor(&oCursor), 1u); // it is in no list any more
}

} // namespace
