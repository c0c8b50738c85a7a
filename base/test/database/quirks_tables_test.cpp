// quirks_tables_test.cpp: what the catalogue and the definition of tables do on purpose and keep
// doing, oddities included.

#include <filesystem>

#include "database/index/schema/schema.h"
#include "people_scene.h"

namespace {

constexpr uint32_t SMALL = 0xca333333;

class TableQuirk : public testing::Test {
  protected:
    ~TableQuirk() override { ObjReleaseInternal(&oNames_); }
    // A table made under its name; null when it is refused.
    IndxTable* Define(const char* format, const char* fields, const char* name = "T")
    {
        return static_cast<IndxTable*>(scene_.OpenTable(name, SMALL, format, fields));
    }
    void* Names(const char* name)
    {
        oNames_ = ListNewFromPool(OBJ_MAGIC_STRING, MemGetDefaultPoolId());
        void* oName = ObjStringNew(name);
        EXPECT_EQ(ListPushLastItemInternal(oNames_, &oName), 1u);
        return oNames_;
    }
    static std::string NameOf(const IndxTable* pTable, uint32_t position)
    {
        return PeopleScene::Field(const_cast<IndxTable*>(pTable), position)->name;
    }
    static const uint32_t* Flags(const IndxTable* pTable)
    {
        return static_cast<const uint32_t*>(pTable->indexedFlags.data);
    }
    // What is refused without a code: the table, and the last error as it was.
    void ExpectRefusedWithoutCode(const char* format, const char* fields)
    {
        IndxSetError(77);
        EXPECT_EQ(Define(format, fields), nullptr) << format << " " << fields;
        EXPECT_EQ(IndxError(), 77u) << format << " " << fields;
    }

    LogRecorder log_;
    TraceRecorder trace_;
    PeopleScene scene_;
    void* oNames_ = nullptr;
};

// ---- databases
// -----------------------------------------------------------------------------------

TEST_F(TableQuirk, AFileWithNewAnywhereInItsNameIsNoTable)
{
    scene_.Close();
    for (const char* name : {"Other.new", "a.newer", ".new"})
        std::filesystem::copy_file(scene_.BlocksPath(), scene_.PathOf("Indexes", name));
    std::filesystem::rename(scene_.BlocksPath(), scene_.PathOf("Indexes", "People.NEW"));
    trace_.clear();
    ASSERT_TRUE(scene_.Open());
    EXPECT_FALSE(trace_.hasPart(".new"));
    EXPECT_EQ(scene_.TableCount(), 1u); // case counts here
}

TEST_F(TableQuirk, TheNamesOfTablesToLoadAreComparedWithoutRegardToCase)
{
    ASSERT_NE(Define("i;", "Id"), nullptr);
    ASSERT_TRUE(scene_.Reopen(Names("PEOPLE")));
    EXPECT_EQ(scene_.TableCount(), 1u);
    EXPECT_NE(scene_.ListedTable("People"), nullptr);
}

TEST_F(TableQuirk, ATableThatDoesNotLoadIsLeftOutAndTheDatabaseOpens)
{
    scene_.Close();
    WriteFileBytes(scene_.PathOf("Indexes", "Broken"), "no block file");
    ASSERT_TRUE(scene_.Open());
    EXPECT_EQ(scene_.TableCount(), 1u);
}

TEST_F(TableQuirk, TheHomeDirectoryIsTakenAfreshAtEveryOpening)
{
    scene_.Close();
    const std::string other = scene_.directory().path("other");
    WriteFileBytes(
        scene_.directory().path("configure.cfg"), "[Directories]\ndatabase = " + other + "\n");
    ASSERT_TRUE(scene_.Open());
    EXPECT_TRUE(std::filesystem::is_directory(other + "/" + PeopleScene::DATABASE));
    EXPECT_EQ(scene_.TableCount(), 0u);
}

TEST_F(TableQuirk, AHomeDirectoryGivenCountsInClusteredModeOnly)
{
    const std::string other = scene_.directory().path("other");
    void* oDatabase = nullptr;
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "D", nullptr, other.c_str()), 1u);
    IndxCloseDatabase(&oDatabase);
    EXPECT_FALSE(std::filesystem::exists(other));
    DbSetClusteredMode(2); // no other value than 1 counts
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "D", nullptr, other.c_str()), 1u);
    IndxCloseDatabase(&oDatabase);
    EXPECT_FALSE(std::filesystem::exists(other));
    DbSetClusteredMode(1);
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "D", nullptr, other.c_str()), 1u);
    IndxCloseDatabase(&oDatabase);
    EXPECT_TRUE(std::filesystem::is_directory(other + "/D/Indexes"));
}

TEST_F(TableQuirk, TheHomeDirectoryIsGivenUpAfterAFailedOpeningToo)
{
    const auto configure = [&](const std::string& home) {
        WriteFileBytes(
            scene_.directory().path("configure.cfg"),
            "[Directories]\ndatabase = " + scene_.directory().path(home) + "\n");
    };
    scene_.Close();
    WriteFileBytes(scene_.directory().path("file"), "no directory");
    configure("file");
    EXPECT_FALSE(scene_.Open());
    EXPECT_EQ(IndxError(), 28u);
    configure("obstacle");
    std::filesystem::create_directories(scene_.directory().path("obstacle/D"));
    WriteFileBytes(scene_.directory().path("obstacle/D/Files"), "no directory");
    EXPECT_FALSE(scene_.Open("D"));
    EXPECT_EQ(IndxError(), 29u);
    configure("other");
    ASSERT_TRUE(scene_.Open("D"));
    EXPECT_TRUE(std::filesystem::is_directory(scene_.directory().path("other/D")));
}

TEST_F(TableQuirk, AHomeDirectoryGivenIsNotKeptForTheNextOpening)
{
    const std::string other = scene_.directory().path("other");
    DbSetClusteredMode(1);
    void* oDatabase = nullptr;
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "D", nullptr, other.c_str()), 1u);
    IndxCloseDatabase(&oDatabase);
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "E", nullptr, nullptr), 1u);
    IndxCloseDatabase(&oDatabase);
    EXPECT_TRUE(std::filesystem::exists(other + "/D"));
    EXPECT_FALSE(std::filesystem::exists(other + "/E"));
    EXPECT_TRUE(std::filesystem::exists(scene_.HomePath() + "/E"));
}

TEST_F(TableQuirk, TheDirectoriesAreMadeInOrderAndTheFirstThatFailsEndsIt)
{
    const std::string home = scene_.directory().path("home");
    DbSetClusteredMode(1);
    const char* const names[] = {"Indexes", "Records", "Files", "Attributes"};
    for (size_t i = 0; i < 4; ++i) {
        const std::string database = home + "/" + names[i];
        std::filesystem::create_directories(database);
        WriteFileBytes(database + "/" + names[i], "in the way");
        void* oDatabase = nullptr;
        EXPECT_EQ(IndxOpenDatabase(&oDatabase, names[i], nullptr, home.c_str()), 0u);
        EXPECT_EQ(IndxError(), 29u);
        for (size_t j = 0; j < 4; ++j)
            EXPECT_EQ(std::filesystem::exists(database + "/" + names[j]), j <= i) << names[j];
    }
}

// ---- closing
// -------------------------------------------------------------------------------------

TEST_F(TableQuirk, AClosedTableHasNoFieldsLeft)
{
    void* oHeld = ObjIncRefCount(scene_.table_);
    void* oClosed = ObjIncRefCount(scene_.table_);
    EXPECT_EQ(IndxCloseTable(&oClosed), 1u);
    EXPECT_EQ(ListGetCount(static_cast<IndxTable*>(oHeld)->oFields), 0u);
    IndxReleaseTable(&oHeld);
}

TEST_F(TableQuirk, OutsideClusteredModeATableKeepsItsDatabaseAlive)
{
    void* oTable = ObjIncRefCount(scene_.table_);
    scene_.Close();
    EXPECT_NE(static_cast<IndxTable*>(oTable)->oDatabase, nullptr);
    EXPECT_EQ(ObjLiveCount(INDX_DATABASE_MAGIC), 1u);
    IndxReleaseTable(&oTable);
    EXPECT_EQ(ObjLiveCount(INDX_DATABASE_MAGIC), 0u);
}

TEST_F(TableQuirk, InClusteredModeAClosedTableGivesItsDatabaseBack)
{
    void* oTable = ObjIncRefCount(scene_.table_);
    DbSetClusteredMode(1);
    scene_.Close();
    EXPECT_EQ(static_cast<IndxTable*>(oTable)->oDatabase, nullptr);
    EXPECT_EQ(ObjLiveCount(INDX_DATABASE_MAGIC), 0u);
    IndxReleaseTable(&oTable);
}

TEST_F(TableQuirk, ClosingReleasesTheBlocksInClusteredModeOnly)
{
    const auto closeWithAnUnsavedRecord = [&] {
        const Held record = scene_.BlobOf(MakePerson(1));
        EXPECT_EQ(IndxAddRecord(1, scene_.table_, &static_cast<DbBlob*>(record.get())->data), 1u);
        scene_.Close();
    };
    DbSetClusteredMode(1);
    closeWithAnUnsavedRecord();
    EXPECT_EQ(log_.count(1300), 0u);
    DbSetClusteredMode(0);
    scene_.Reload();
    closeWithAnUnsavedRecord();
    EXPECT_GT(log_.count(1300), 0u); // lost, each with its entry
}

TEST_F(TableQuirk, ClosingDoesNotStoreTheDescription)
{
    scene_.table()->highestId = 41;
    scene_.table()->bChanged = TRUE;
    scene_.Reload();
    EXPECT_EQ(scene_.table()->highestId, 0u);
}

TEST_F(TableQuirk, ClosingADatabaseDoesNotAskWhetherItIsOne)
{
    void* oOther = ObjIntegerNew(1);
    EXPECT_EQ(IndxCloseDatabase(&oOther), 1u); // drops the reference
    EXPECT_EQ(oOther, nullptr);
}

TEST_F(TableQuirk, ReleasingATableHasNoTrace)
{
    void* oTable = ObjIncRefCount(scene_.table_);
    trace_.clear();
    EXPECT_EQ(IndxReleaseTable(&oTable), 1u);
    EXPECT_EQ(IndxReleaseTable(&oTable), 0u);
    EXPECT_EQ(IndxReleaseTable(nullptr), 0u);
    EXPECT_TRUE(trace_.lines().empty());
}

TEST_F(TableQuirk, ClosingTwiceThroughOneVariableIsFalseTheSecondTime)
{
    void* oDatabase = nullptr;
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "D", nullptr, nullptr), 1u);
    EXPECT_EQ(IndxCloseDatabase(&oDatabase), 1u);
    EXPECT_EQ(IndxCloseDatabase(&oDatabase), 0u);
}

TEST_F(TableQuirk, TheTemplatesOfTheTableLayerAreMadeOnceAndKept)
{
    ObjTemplate* const pTemplate = OBJ_HEADER(scene_.table_)->tmpl;
    scene_.Reload();
    EXPECT_EQ(OBJ_HEADER(scene_.table_)->tmpl, pTemplate);
    EXPECT_EQ(gIndxTemplates.table, pTemplate);
}

// ---- definition
// ----------------------------------------------------------------------------------

TEST_F(TableQuirk, TheEndOfTheFieldsIsTracedAsTheEndOfTheFormat)
{
    trace_.clear();
    ASSERT_NE(Define("i;i;", "Id,A"), nullptr);
    EXPECT_EQ(trace_.count("End of format string"), 1u);
}

TEST_F(TableQuirk, FlagsOfTheIdAreDropped)
{
    const IndxTable* pTable = Define("i;i;", "ID;Unique;Case Sensitive,A");
    ASSERT_NE(pTable, nullptr);
    const IndxField* pId = PeopleScene::Field(const_cast<IndxTable*>(pTable), 0);
    EXPECT_EQ(pId->bIndexed, 1u);
    EXPECT_EQ(pId->bUnique, 0u);
    EXPECT_EQ(pId->bCaseSensitive, 0u);
    EXPECT_EQ(pId->type, INDX_FIELD_RECORD_ID);
    EXPECT_EQ(pId->keyType, INDX_KEY_RECORD_ID);
    EXPECT_EQ(Flags(pTable)[0], 1u);
}

TEST_F(TableQuirk, KindsWithoutAnOrderAreSilentlyNotIndexed)
{
    trace_.clear();
    const IndxTable* pTable =
        Define("i;b;o;p;d;", "Id,B;Indexed,O;Indexed;Unique,P;Indexed,D;Indexed");
    ASSERT_NE(pTable, nullptr);
    for (uint32_t i = 1; i <= 4; ++i) {
        EXPECT_EQ(PeopleScene::Field(const_cast<IndxTable*>(pTable), i)->bIndexed, 0u);
        EXPECT_EQ(Flags(pTable)[i], 0u);
    }
    EXPECT_EQ(trace_.countLevel(-1), 0u);
}

TEST_F(TableQuirk, APointerIsAcceptedThoughItsRecordsCannotBeStored)
{
    IndxTable* pTable = Define("i;p;", "Id,P");
    ASSERT_NE(pTable, nullptr);
    EXPECT_EQ(PeopleScene::Field(pTable, 1)->type, INDX_FIELD_POINTER);
    const Instance object(SMALL, "i;p;");
    EXPECT_EQ(IndxAddObjectToTable(nullptr, pTable, object.get()), 0u);
}

TEST_F(TableQuirk, AnArrayIsKeyedAsText)
{
    IndxTable* pTable = Define("i;n8;n8;", "Id,A;Indexed,B;Indexed;Case Sensitive");
    ASSERT_NE(pTable, nullptr);
    EXPECT_EQ(PeopleScene::Field(pTable, 1)->keyType, INDX_KEY_TEXT_NO_CASE);
    EXPECT_EQ(PeopleScene::Field(pTable, 2)->keyType, INDX_KEY_TEXT);
    EXPECT_EQ(pTable->bTextIndex, 1u);
}

TEST_F(TableQuirk, AKindOfLaterDaysKeepsItsFlagsAndHasNoType)
{
    IndxField field = {};
    field.bIndexed = field.bUnique = field.bCaseSensitive = 1;
    EXPECT_TRUE(IndxApplyKind(&field, 13));
    EXPECT_TRUE(field.bIndexed && field.bUnique && field.bCaseSensitive);
    EXPECT_EQ(field.type, 0);
    EXPECT_EQ(field.keyType, 0);
}

TEST_F(TableQuirk, AUniqueIdCountsAsTextForTheReadingOfOldKeys)
{
    EXPECT_EQ(Define("i;u;", "Id,U;Indexed", "A")->bTextIndex, 1u);
    EXPECT_EQ(Define("i;u;", "Id,U", "B")->bTextIndex, 0u);
    EXPECT_EQ(Define("i;i;q;", "Id,I;Indexed,Q;Indexed", "C")->bTextIndex, 0u);
}

TEST_F(TableQuirk, BlanksInsideANameAreKeptAndThoseAroundItAreNot)
{
    const IndxTable* pTable = Define("i;i;i;", " \tId\t , A  B ,C \t");
    ASSERT_NE(pTable, nullptr);
    EXPECT_EQ(NameOf(pTable, 0), "Id");
    EXPECT_EQ(NameOf(pTable, 1), "A  B");
    EXPECT_EQ(NameOf(pTable, 2), "C");
}

TEST_F(TableQuirk, ABlankBeforeTheFlagsBelongsToTheName)
{
    const IndxTable* pTable = Define("i;i;i;", "Id, Name ;Indexed, Other;  Indexed  ");
    ASSERT_NE(pTable, nullptr);
    EXPECT_EQ(NameOf(pTable, 1), "Name ");
    EXPECT_EQ(NameOf(pTable, 2), "Other");
    EXPECT_EQ(Flags(pTable)[2], 1u);
}

TEST_F(TableQuirk, ALeadingPartOfAKeywordSelectsIt)
{
    const IndxTable* pTable = Define("i;s;s;s;", "Id, A;i;u;case, B;INDEX, C;C;unIq");
    ASSERT_NE(pTable, nullptr);
    const auto field = [&](uint32_t n) {
        return PeopleScene::Field(const_cast<IndxTable*>(pTable), n);
    };
    EXPECT_TRUE(field(1)->bIndexed && field(1)->bUnique && field(1)->bCaseSensitive);
    EXPECT_TRUE(field(2)->bIndexed && !field(2)->bUnique && !field(2)->bCaseSensitive);
    EXPECT_TRUE(!field(3)->bIndexed && field(3)->bUnique && field(3)->bCaseSensitive);
}

TEST_F(TableQuirk, AFieldsTextThatEndsInACommaIsRefusedWithoutACode)
{
    ExpectRefusedWithoutCode("i;i;", "Id,A,");
}

TEST_F(TableQuirk, OtherDefinitionsAreRefusedWithoutACodeToo)
{
    ExpectRefusedWithoutCode("i;i", "Id");    // fewer names
    ExpectRefusedWithoutCode("i;", "Id,A");   // more names
    ExpectRefusedWithoutCode("i;i;", "A,B");  // no id
    ExpectRefusedWithoutCode("i;?;", "Id,A"); // no format
    const std::string large = "Id," + std::string(16128, 'x');
    ExpectRefusedWithoutCode("i;i;", large.c_str());
}

TEST_F(TableQuirk, OfTheseOnlyTheTooLargeTableHasAMessage)
{
    const auto defined = [&](const char* format, const std::string& fields) {
        trace_.clear();
        EXPECT_EQ(Define(format, fields.c_str()), nullptr);
        return trace_.countLevel(-1); // one is that the creation failed
    };
    EXPECT_EQ(defined("i;i", "Id"), 1u);
    EXPECT_EQ(defined("i;", "Id,A"), 1u);
    EXPECT_EQ(defined("i;i;", "A,B"), 1u);
    EXPECT_EQ(defined("i;?;", "Id,A"), 1u);
    EXPECT_EQ(defined("i;i;", "Id," + std::string(16128, 'x')), 2u);
    EXPECT_TRUE(trace_.hasPart("Table too large MAX 16128, table "));
}

TEST_F(TableQuirk, WrongKindsAndFlagsHaveACodeButNoMessage)
{
    const auto code = [&](const char* format, const char* fields) {
        trace_.clear();
        EXPECT_EQ(Define(format, fields), nullptr);
        EXPECT_EQ(trace_.countLevel(-1), 1u); // that the creation failed
        return IndxError();
    };
    EXPECT_EQ(code("i;ol;", "Id,A"), 24u);
    EXPECT_EQ(code("i;i;", "Id,A;"), 30u);
    EXPECT_EQ(code("i;i;", "Id,A;Sorted"), 31u);
}

TEST_F(TableQuirk, ARepeatedNameOutranksABadFlag)
{
    EXPECT_EQ(Define("i;i;i;", "Id,A,A;Sorted"), nullptr);
    EXPECT_EQ(IndxError(), 23u);
}

TEST_F(TableQuirk, TheScanStopsAtTheFirstError)
{
    trace_.clear();
    EXPECT_EQ(Define("i;i;i;", "Id,A;Sorted,B"), nullptr);
    EXPECT_FALSE(trace_.has("Process 'B'"));
    EXPECT_FALSE(trace_.has("End of format string"));
}

TEST_F(TableQuirk, TheIndexedFlagOfARefusedFieldIsEnteredAllTheSame)
{
    Held held;
    ASSERT_EQ(
        ObjTemplateCreateInstanceFromPool(held.out(), gIndxTemplates.table, MemGetDefaultPoolId()),
        1u);
    auto* pTable = static_cast<IndxTable*>(held.get());
    pTable->oBlck = ObjIncRefCount(scene_.table()->oBlck);
    EXPECT_EQ(IndxCreateTable(pTable, SMALL, "i;i;", "Id,ID;Indexed"), 0u);
    EXPECT_EQ(IndxError(), 23u);
    EXPECT_EQ(Flags(pTable)[1], 1u);
    IndxUnhookFields(pTable);
}

TEST_F(TableQuirk, ADescriptionThatFillsTheUserDataToTheLastByteIsAccepted)
{
    IndxTable* pFirst = Define("i;i;", "Id,A");
    ASSERT_NE(pFirst, nullptr);
    // A name stands in the description twice: in the field, and in the fields text.
    const uint32_t fixed = ObjSerializedSize(pFirst) - 2;
    const auto sized = [&](size_t length, const char* name) {
        return Define("i;i;", ("Id," + std::string(length, 'x')).c_str(), name);
    };
    const size_t most = (16128 - fixed - 4) / 2; // two longer texts take a byte more each
    size_t length = most + 4;
    while (length > 0 && !sized(length, "U"))
        --length;
    IndxTable* pLargest = scene_.ListedTable("U");
    ASSERT_NE(pLargest, nullptr);
    EXPECT_GE(ObjSerializedSize(pLargest), 16127u);
    EXPECT_LE(ObjSerializedSize(pLargest), 16128u);
}

} // namespace
