// open_test.cpp: opening, creating and loading tables: shape, versions, files that are missing or
// belong to others, and what a failure at any step may leave behind.
#include <utility>

#include "row_fixture.h"
#include "support/same_files.h"

namespace {

using Opening = RowTest;

// ---- creating ---------------------------------------------------------------------------------

TEST_F(Opening, NewTableIsListedStoredAndHandedOut)
{
    void* oTable = Create("T");
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(ListedTable("T"), oTable);
    EXPECT_EQ(TableCount(), 1u);
    // Database list, caller, and one reference for each of three fields.
    EXPECT_EQ(OBJ_HEADER(oTable)->refCount, 5);
    EXPECT_EQ(OBJ_HEADER(oTable)->flags, 0u);
    EXPECT_EQ(ReadFileBytes(PathOf("Indexes", "T")).size(), 16168u);
    EXPECT_TRUE(std::filesystem::exists(PathOf("Records", "T")));
    EXPECT_FALSE(std::filesystem::exists(VersionFile("T")));
    // The description in the file is the table's own.
    std::string stored(ObjSerializedSize(oTable), '\0');
    ASSERT_EQ(ObjSerializeToMemory(oTable, stored.data(), nullptr), 1u);
    EXPECT_EQ(ReadFileBytes(PathOf("Indexes", "T")).substr(40, stored.size()), stored);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Opening, TableMayStayWithTheDatabaseOnly)
{
    EXPECT_EQ(
        IndxOpenTableInternal(
            nullptr, database(), "T", "T", MAGIC, FORMAT, FIELDS, 0, INDX_VERSION_NONE),
        1u);
    ASSERT_NE(ListedTable("T"), nullptr);
    EXPECT_EQ(OBJ_HEADER(ListedTable("T"))->refCount, 4);
    // And found again, loaded again.
    EXPECT_EQ(
        IndxOpenTableInternal(
            nullptr, database(), "T", "T", MAGIC, FORMAT, FIELDS, 0, INDX_VERSION_ANY),
        1u);
    EXPECT_EQ(OBJ_HEADER(ListedTable("T"))->refCount, 4);
}

TEST_F(Opening, BadArgumentsAreError15)
{
    void* oOther = ObjIntegerNew(1);
    struct Case {
        void* oDatabase;
        const char *name, *fileName, *format, *fields;
    };
    const Case cases[] = {
        {nullptr, "T", "T", FORMAT, FIELDS},        {oOther, "T", "T", FORMAT, FIELDS},
        {database(), nullptr, "T", FORMAT, FIELDS}, {database(), "T", nullptr, FORMAT, FIELDS},
        {database(), "T", "T", nullptr, FIELDS},    {database(), "T", "T", FORMAT, nullptr}};
    for (const Case& c : cases) {
        IndxSetError(UNCHANGED);
        TraceRecorder trace;
        void* oTable = &oTable;
        EXPECT_EQ(
            IndxOpenTableInternal(
                &oTable, c.oDatabase, c.name, c.fileName, MAGIC, c.format, c.fields, 0, 0),
            0u);
        EXPECT_EQ(oTable, nullptr);
        EXPECT_EQ(IndxError(), 15u);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid argument")) << trace.dump();
        EXPECT_EQ(trace.lines().size(), 3u) << "entry, refusal, result";
        EXPECT_EQ(trace.lines()[2].level, 3);
        EXPECT_EQ(trace.lines()[2].text.find("FALSE = IndxOpenTableInternal("), 0u);
    }
    EXPECT_EQ(TableCount(), 0u);
    ObjReleaseInternal(&oOther);
}

// A name is that of a file: with a separator in it two tables could meet in one file, and block
// file and records file could be the same one.
TEST_F(Opening, NamesThatAreNoFileNamesAreError15)
{
    for (const char* bad :
         {"", ".", "..", "../evil", "a/b", "a\\b", "/evil", "\\", "a/", ".. ", "..."}) {
        for (const bool bFile : {false, true}) {
            SCOPED_TRACE(testing::Message() << "'" << bad << "' as a file " << bFile);
            const char* name = bFile ? "T" : bad;
            const char* fileName = bFile ? bad : "T";
            const std::map<std::string, std::string> before = FilesBelow(HomePath());
            IndxSetError(UNCHANGED);
            TraceRecorder trace;
            void* oTable = &oTable;
            EXPECT_EQ(
                IndxOpenTableInternal(
                    &oTable, database(), name, fileName, MAGIC, FORMAT, FIELDS, 0, 5),
                0u);
            EXPECT_EQ(oTable, nullptr);
            EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
            EXPECT_TRUE(trace.has(
                TAG, 1, -1,
                "'" + std::string(bad) + "' cannot be the name of a table or of its files"))
                << trace.dump();
            EXPECT_TRUE(before == FilesBelow(HomePath()));
        }
        uint32_t version = 123;
        void* oTable = nullptr;
        EXPECT_EQ(IndxGetTableVersion(&version, bad, database()), 0u);
        EXPECT_EQ(version, 123u);
        EXPECT_EQ(IndxLoadTable(&oTable, database(), bad, "T"), 0u);
        EXPECT_EQ(IndxRecordsOpen(Create("Sound"), bad), 0u);
    }
    for (const char* good : {"a.b", ".a", "a..b", "a b", "a.new"})
        EXPECT_NE(Create(good), nullptr) << good;
}

// Records of such a magic could be made, but not added: objects are known by their magic.
TEST_F(Opening, MagicOutsideItsRangeIsError15)
{
    for (const uint32_t bad : {0u, 7u, 0x12345678u, 0xC7FFFFFFu, 0xD0000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(bad);
        IndxSetError(UNCHANGED);
        TraceRecorder trace;
        EXPECT_EQ(OpenTable("T", bad, FORMAT, FIELDS, 0, 5), nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
        char text[100];
        std::snprintf(
            text, sizeof text, "Magic 0x%08x of table 'T' is outside 0xc8000000 to 0xcfffffff",
            bad);
        EXPECT_TRUE(trace.has(TAG, 1, -1, text)) << trace.dump();
        EXPECT_FALSE(std::filesystem::exists(PathOf("Indexes", "T"))) << "nothing is made";
        EXPECT_FALSE(std::filesystem::exists(VersionFile("T")));
    }
    EXPECT_NE(OpenTable("Lowest", 0xC8000000u, "i;", "Id"), nullptr);
    EXPECT_NE(OpenTable("Highest", 0xCFFFFFFFu, "i;", "Id"), nullptr);
    // Of a table that exists the magic is compared, as ever.
    Create("T");
    EXPECT_EQ(OpenTable("T", 7, FORMAT, FIELDS), nullptr);
    EXPECT_EQ(IndxError(), INDX_ERROR_SHAPE);
}

TEST_F(Opening, FailedCreationHandsOutNothingAndListsNothing)
{
    void* oTable = &oTable;
    TraceRecorder trace;
    EXPECT_EQ(
        IndxOpenTableInternal(
            &oTable, database(), "T", "T", MAGIC, FORMAT, "Id,Name", 0, INDX_VERSION_NONE),
        0u);
    EXPECT_EQ(oTable, nullptr);
    EXPECT_EQ(TableCount(), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to create table")) << trace.dump();
    // The files that were made stay; the next attempt uses them.
    EXPECT_TRUE(std::filesystem::exists(PathOf("Indexes", "T")));
    EXPECT_NE(Create("T"), nullptr);
    EXPECT_EQ(OpenTable("U", MAGIC, FORMAT, "Id,Name", 0, 5), nullptr);
    EXPECT_TRUE(std::filesystem::exists(VersionFile("U")));
}

TEST_F(Opening, BlockFileThatCannotBeMadeFailsInTheStepAfter)
{
    std::filesystem::remove_all(DatabasePath() + "/Indexes");
    TraceRecorder trace;
    EXPECT_EQ(Create("T"), nullptr);
    EXPECT_TRUE(trace.has(
        TAG, 0, -1, "Failed to open blck file when opening indx '" + PathOf("Indexes", "T") + "'"))
        << trace.dump();
    EXPECT_TRUE(trace.hasPart("TRUE = IndxIndexOpen("));
    EXPECT_TRUE(trace.hasPart("Table too large MAX 0, table "));
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to create table"));
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Opening, RecordsFileThatCannotBeOpenedIsNoFailure)
{
    std::filesystem::create_directories(PathOf("Records", "T"));
    TraceRecorder trace;
    void* oTable = Create("T");
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(static_cast<IndxTable*>(oTable)->hRecords, FILE_NONE);
    EXPECT_TRUE(trace.hasPart("TRUE = IndxRecordsOpen("));
    // The operations on records meet a closed file.
    EXPECT_FALSE(Add(oTable, "a", 1));
    EXPECT_EQ(IndxError(), 12u);
    // The same when it is loaded.
    trace.clear();
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(TableCount(), 1u);
    EXPECT_TRUE(trace.hasPart("TRUE = IndxRecordsOpen("));
    EXPECT_EQ(ListedTable("T")->hRecords, FILE_NONE);
}

TEST_F(Opening, DescriptionThatCannotBeStoredFailsTheOpenAndLeavesTheTableListed)
{
    LogRecorder log;
    TraceRecorder trace;
    Fail(FAULT_SERIALIZE);
    void* oTable = nullptr;
    EXPECT_EQ(
        IndxOpenTableInternal(
            &oTable, database(), "T", "T", MAGIC, FORMAT, FIELDS, 0, INDX_VERSION_NONE),
        0u);
    FaultDisarmAll();
    EXPECT_NE(oTable, nullptr);
    EXPECT_EQ(ListedTable("T"), oTable);
    EXPECT_TRUE(log.has(1301, 96, "Failed to update table 'T'")) << log.dump();
    EXPECT_TRUE(trace.hasPart("FALSE = IndxOpenTableInternal("));
    // It can be used, and its description is stored with the next change.
    AddMany(oTable, 3);
    IndxReleaseTable(&oTable);
    ASSERT_TRUE(Reopen());
    ExpectRecords(Create("T"), 3);
}

// ---- opening again ----------------------------------------------------------------------------

TEST_F(Opening, ListedTableIsHandedOutAgain)
{
    void* oTable = Create("T");
    TraceRecorder trace;
    EXPECT_EQ(Create("t"), oTable) << "without regard to case";
    EXPECT_EQ(TableCount(), 1u);
    EXPECT_TRUE(
        trace.has(TAG, 0, 3, "TRUE = IndxOpenExistingTable(" + trace.lines()[2].text.substr(22)))
        << trace.dump();
    EXPECT_FALSE(trace.hasPart("Create a new table"));
}

TEST_F(Opening, TrailingSemicolonIsTheSameShape)
{
    ASSERT_NE(OpenTable("T", MAGIC, "i;s", "Id,Name"), nullptr);
    EXPECT_NE(OpenTable("T", MAGIC, "i;s;", "Id,Name"), nullptr);
    EXPECT_NE(OpenTable("T", MAGIC, "i;s", "Id,Name"), nullptr);
    ASSERT_NE(OpenTable("U", MAGIC, "i;s;", "Id,Name"), nullptr);
    EXPECT_NE(OpenTable("U", MAGIC, "i;s", "Id,Name"), nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Opening, AnotherShapeIsError25)
{
    ASSERT_NE(OpenTable("T", MAGIC, "i;s", "Id,Name"), nullptr);
    struct Case {
        uint32_t magic;
        const char* format;
    };
    for (const Case& c : std::initializer_list<Case>{
             {MAGIC, "I;s"},
             {MAGIC, "i;s;;"},
             {MAGIC, "i;"},
             {MAGIC, "i;s;i"},
             {MAGIC, "i;b"},
             {MAGIC, "i;sx"},
             {MAGIC, ""},
             {MAGIC + 1, "i;s"}}) {
        SCOPED_TRACE(c.format);
        IndxSetError(UNCHANGED);
        TraceRecorder trace;
        EXPECT_EQ(OpenTable("T", c.magic, c.format, "Id,Name"), nullptr);
        EXPECT_EQ(IndxError(), 25u);
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Shape of table has changed")) << trace.dump();
    }
    EXPECT_EQ(TableCount(), 1u);
}

TEST_F(Opening, AnotherFieldsTextKeepsTheStoredFlags)
{
    void* oTable = Create("T");
    EXPECT_EQ(OpenTable("T", MAGIC, FORMAT, "Id;Bad,,", 1), oTable); // nor is the flag looked at
    EXPECT_EQ(static_cast<IndxTable*>(oTable)->bCompanionFiles, 0u);
    EXPECT_STREQ(static_cast<IndxTable*>(oTable)->fields, FIELDS);
    ASSERT_TRUE(Reopen());
    oTable = OpenTable("T", MAGIC, FORMAT, "Id,Name,Size");
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(Field(oTable, 1)->bIndexed, 1u);
    EXPECT_EQ(Field(oTable, 2)->bUnique, 1u);
}

TEST_F(Opening, FlagsThatDifferAreTold)
{
    const auto line = [](const char* name, const char* flags) {
        return std::string("Field '") + name + "' of table 'T' keeps its stored flags: " + flags;
    };
    Create("T");
    for (const bool reopened : {false, true}) {
        SCOPED_TRACE(reopened);
        if (reopened) {
            ASSERT_TRUE(Reopen());
        }
        TraceRecorder trace;
        EXPECT_NE(OpenTable("T", MAGIC, FORMAT, "Id,Name,Size;Indexed;Unique;Case"), nullptr);
        EXPECT_EQ(IndxError(), UNCHANGED);
        EXPECT_TRUE(
            trace.has(TAG, 0, -1, line("Name", "indexed TRUE unique FALSE case sensitive FALSE")))
            << trace.dump();
        EXPECT_TRUE(
            trace.has(TAG, 0, -1, line("Size", "indexed TRUE unique TRUE case sensitive FALSE")));
        EXPECT_EQ(trace.countLevel(-1), 2u) << "nothing of the field that is as it was";
    }
    // The same flags in other words, flags that the field never had, and texts that are no fields.
    TraceRecorder trace;
    for (const char* fields :
         {"Id;Unique,NAME;ind, Size;unique;INDEXED", "Id;Bad,,", "Id,Name;;,Size", "Other", ""})
        EXPECT_NE(OpenTable("T", MAGIC, FORMAT, fields), nullptr);
    EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
    EXPECT_TRUE(
        trace.has(TAG, 0, -1, line("Size", "indexed TRUE unique TRUE case sensitive FALSE")));
}

TEST_F(Opening, FlagsThatAKindDropsAreNotToldAgain)
{
    ASSERT_NE(OpenTable("T", MAGIC, "i;b;d;", "Id,Lent;Indexed,Data"), nullptr);
    TraceRecorder trace;
    EXPECT_NE(OpenTable("T", MAGIC, "i;b;d;", "Id,Lent,Data;Indexed"), nullptr);
    EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
}

// ---- the records file -------------------------------------------------------------------------

TEST_F(Opening, RecordsFileThatIsMissingIsMadeAnewAndTold)
{
    AddMany(Create("T"), 3);
    Close();
    std::filesystem::remove(PathOf("Records", "T"));
    TraceRecorder trace;
    ASSERT_TRUE(Open());
    EXPECT_TRUE(trace.has(
        TAG, 1, -1,
        "Records file '" + PathOf("Records", "T") +
            "' is made anew, though table 'T' has keys of records"))
        << trace.dump();
    void* oTable = Create("T");
    ASSERT_NE(oTable, nullptr);
    EXPECT_TRUE(std::filesystem::exists(PathOf("Records", "T")));
    EXPECT_TRUE(Add(oTable, "after", 9));
}

TEST_F(Opening, MissingRecordsFileOfATableWithoutKeysIsNoWord)
{
    Create("T");
    Close();
    std::filesystem::remove(PathOf("Records", "T"));
    TraceRecorder trace;
    ASSERT_TRUE(Open());
    EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
}

TEST_F(Opening, ReopenedTableIsWhatItWas)
{
    void* oTable = OpenTable(
        "T", MAGIC, "i;s;q;u;b;n5;o;d;p;", "Id,a;i,b;i;u,c;i,d,e;i;c,f,g,h", 1, INDX_VERSION_NONE);
    ASSERT_NE(oTable, nullptr);
    std::vector<IndxField> fields;
    for (uint32_t i = 0; i < 9; ++i)
        fields.push_back(*Field(oTable, i));
    const IndxTable before = *static_cast<IndxTable*>(oTable);
    ASSERT_TRUE(Reopen());
    IndxTable* pTable = ListedTable("T");
    ASSERT_NE(pTable, nullptr);
    EXPECT_EQ(pTable->recordMagic, MAGIC);
    EXPECT_EQ(pTable->highestId, 0u);
    EXPECT_EQ(pTable->fixedSize, before.fixedSize);
    EXPECT_EQ(pTable->idOffset, before.idOffset);
    EXPECT_EQ(pTable->indexedFlags.size, before.indexedFlags.size);
    EXPECT_EQ(pTable->bTextIndex, 1u);
    EXPECT_EQ(pTable->bChanged, 0u);
    EXPECT_EQ(pTable->bCompanionFiles, 1u);
    EXPECT_EQ(pTable->oDatabase, database());
    EXPECT_EQ(OBJ_HEADER(pTable)->refCount, 10) << "the list, and nine fields";
    EXPECT_EQ(OBJ_HEADER(pTable)->flags, 0u);
    EXPECT_EQ(OBJ_HEADER(database())->refCount, 2) << "the caller, and the table";
    for (uint32_t i = 0; i < 9; ++i) {
        SCOPED_TRACE(i);
        const IndxField* pField = Field(pTable, i);
        EXPECT_EQ(pField->type, fields[i].type);
        EXPECT_EQ(pField->recordOffset, fields[i].recordOffset);
        EXPECT_EQ(pField->bIndexed, fields[i].bIndexed);
        EXPECT_EQ(pField->bUnique, fields[i].bUnique);
        EXPECT_EQ(pField->bCaseSensitive, fields[i].bCaseSensitive);
        EXPECT_EQ(pField->maximumKey, 8168u);
        EXPECT_EQ(pField->keyType, fields[i].keyType);
        EXPECT_EQ(pField->oTable, pTable);
        EXPECT_EQ(OBJ_HEADER(pField)->refCount, 1);
        EXPECT_EQ(pField->oCursors != nullptr, pField->bIndexed != 0);
    }
}

TEST_F(Opening, LoadedIndexesHaveTheirRootsCommitted)
{
    AddMany(Create("T"), 3);
    ASSERT_TRUE(Reopen());
    for (uint32_t i = 0; i < 3; ++i) {
        const IndxField* pField = Field(ListedTable("T"), i);
        EXPECT_NE(pField->roots.tRoot, 0xFFFFFFFFu);
        EXPECT_EQ(pField->committedRoots.tRoot, pField->roots.tRoot);
        EXPECT_EQ(pField->committedRoots.tFirstLeaf, pField->roots.tFirstLeaf);
        EXPECT_EQ(pField->committedRoots.tLastLeaf, pField->roots.tLastLeaf);
        EXPECT_EQ(pField->levels, 1);
        EXPECT_EQ(pField->committedLevels, 1);
    }
    ExpectRecords(Create("T"), 3);
}

TEST_F(Opening, ClosedTableIsOpenedAgainFromDisk)
{
    AddMany(Create("T"), 5);
    void* oTable = ObjIncRefCount(ListedTable("T"));
    ASSERT_EQ(IndxCloseTable(&oTable), 1u);
    void* oAgain = Create("T");
    ASSERT_NE(oAgain, nullptr);
    EXPECT_EQ(TableCount(), 1u);
    ExpectRecords(oAgain, 5);
    EXPECT_TRUE(Add(oAgain, "name 5", 5));
}

// ---- tables that are on disk but not in the list ----------------------------------------------

TEST_F(Opening, TableLeftOutOfTheOpenIsLoadedWithAllItsRecords)
{
    AddMany(Create("A"), 10);
    AddMany(Create("B"), 20);
    void* oNames = ListNewFromPool(0, 1);
    void* oName = ObjStringNew("A");
    ListPushLastItemInternal(oNames, &oName);
    ASSERT_TRUE(Reopen(oNames));
    ObjReleaseInternal(&oNames);
    ASSERT_EQ(ListedTable("B"), nullptr);
    const std::string before = ReadFileBytes(PathOf("Indexes", "B"));
    TraceRecorder trace;
    void* oTable = Create("B");
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(ListedTable("B"), oTable);
    EXPECT_EQ(OBJ_HEADER(oTable)->refCount, 5);
    EXPECT_FALSE(trace.hasPart("Create a new table"));
    ExpectRecords(oTable, 20);
    EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "B")).substr(16384) == before.substr(16384));
    ExpectRecords(Create("A"), 10);
}

TEST_F(Opening, TableLeftOutOfTheOpenPassesTheCheckOfItsShape)
{
    Create("B");
    void* oNames = ListNewFromPool(OBJ_MAGIC_STRING, 1);
    ASSERT_TRUE(Reopen(oNames));
    ObjReleaseInternal(&oNames);
    EXPECT_EQ(TableCount(), 0u);
    EXPECT_EQ(OpenTable("B", MAGIC, "i;s;", "Id,Name"), nullptr);
    EXPECT_EQ(IndxError(), 25u);
    EXPECT_NE(ListedTable("B"), nullptr) << "it has joined the list";
    EXPECT_NE(Create("B"), nullptr);
}

TEST_F(Opening, TableThatCouldNotBeLoadedAMomentAgoIsLoadedWhenItIsOpened)
{
    AddMany(Create("T"), 10);
    Close();
    Fail(FAULT_READ, 1, 0, "Indexes");
    ASSERT_TRUE(Open());
    FaultDisarmAll();
    EXPECT_EQ(TableCount(), 0u);
    ExpectRecords(Create("T"), 10);
}

TEST_F(Opening, TableThatCannotBeLoadedIsNotCreatedOver)
{
    AddMany(Create("T"), 10);
    Close();
    const std::string blocks = ReadFileBytes(PathOf("Indexes", "T"));
    const std::string records = ReadFileBytes(PathOf("Records", "T"));
    Fail(FAULT_READ, 1, 0, "Indexes");
    ASSERT_TRUE(Open());
    TraceRecorder trace;
    EXPECT_EQ(Create("T"), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to load table 'T' from 'T'")) << trace.dump();
    EXPECT_FALSE(trace.hasPart("Create a new table"));
    EXPECT_EQ(IndxError(), UNCHANGED);
    FaultDisarmAll();
    EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "T")) == blocks);
    EXPECT_TRUE(ReadFileBytes(PathOf("Records", "T")) == records);
    ExpectRecords(Create("T"), 10);
}

TEST_F(Opening, FilesOfAnotherTableAreNotTaken)
{
    AddMany(Create("A"), 10);
    for (const bool bListed : {true, false}) {
        const std::string blocks = ReadFileBytes(PathOf("Indexes", "A"));
        TraceRecorder trace;
        void* oTable = &oTable;
        EXPECT_EQ(
            IndxOpenTableInternal(
                &oTable, database(), "B", "A", MAGIC, FORMAT, FIELDS, 0, INDX_VERSION_ANY),
            0u);
        EXPECT_EQ(oTable, nullptr);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "'A' holds table 'A'")) << trace.dump();
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to load table 'B' from 'A'"));
        EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "A")) == blocks);
        EXPECT_EQ(TableCount(), bListed ? 1u : 0u);
        void* oNames = ListNewFromPool(0, 1);
        ASSERT_TRUE(Reopen(oNames));
        ObjReleaseInternal(&oNames);
    }
    ExpectRecords(Create("A"), 10);
}

TEST_F(Opening, FileNameMayDifferFromTheTablesName)
{
    void* oTable = nullptr;
    ASSERT_EQ(
        IndxOpenTableInternal(
            &oTable, database(), "Table", "file", MAGIC, FORMAT, FIELDS, 0, INDX_VERSION_NONE),
        1u);
    AddMany(oTable, 4);
    IndxReleaseTable(&oTable);
    EXPECT_TRUE(std::filesystem::exists(PathOf("Indexes", "file")));
    EXPECT_TRUE(std::filesystem::exists(PathOf("Records", "file")));
    ASSERT_TRUE(Reopen());
    ASSERT_EQ(
        IndxOpenTableInternal(
            &oTable, database(), "TABLE", "file", MAGIC, FORMAT, FIELDS, 0, INDX_VERSION_NONE),
        1u);
    EXPECT_EQ(TableCount(), 1u);
    ExpectRecords(oTable, 4);
    IndxReleaseTable(&oTable);
}

// A file that exists but in which nothing was ever stored.
TEST_F(Opening, EmptyBlockFileGetsADescription)
{
    WriteFileBytes(PathOf("Indexes", "T"), "");
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(TableCount(), 0u);
    EXPECT_EQ(ReadFileBytes(PathOf("Indexes", "T")).size(), 0u) << "looking writes nothing";
    TraceRecorder trace;
    void* oTable = Create("T");
    ASSERT_NE(oTable, nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Failed to reconstruct table")) << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 0, 3, "Create a new table"));
    EXPECT_EQ(trace.countLevel(-1), 0u);
    AddMany(oTable, 3);
    ASSERT_TRUE(Reopen());
    ExpectRecords(Create("T"), 3);
}

TEST_F(Opening, BlockFileWithoutUserDataGetsADescription)
{
    Create("Other");
    Close();
    std::string bytes = ReadFileBytes(PathOf("Indexes", "Other"));
    std::fill(bytes.begin() + 40, bytes.end(), '\0');
    WriteFileBytes(PathOf("Indexes", "T"), bytes);
    ASSERT_TRUE(Open());
    EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "T")) == bytes);
    void* oTable = Create("T");
    ASSERT_NE(oTable, nullptr);
    AddMany(oTable, 3);
    ASSERT_TRUE(Reopen());
    ExpectRecords(Create("T"), 3);
}

TEST_F(Opening, BlockFileThatAppearsDuringACreationIsNotCreatedOver)
{
    AddMany(Create("T"), 10);
    void* oNames = ListNewFromPool(0, 1);
    ASSERT_TRUE(Reopen(oNames));
    ObjReleaseInternal(&oNames);
    const std::string blocks = ReadFileBytes(PathOf("Indexes", "T"));
    {
        const ReturningFile file(PathOf("Indexes", "T"));
        EXPECT_EQ(Create("T"), nullptr);
        EXPECT_TRUE(file.told("'T' holds a table already"));
    }
    EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "T")) == blocks);
    ExpectRecords(Create("T"), 10);
}

TEST_F(Opening, VersionFileThatSaysAbsentDoesNotMakeTheTableAbsent)
{
    AddMany(Create("T"), 10);
    WriteFileBytes(VersionFile("T"), "[Versioning]\nVersion = -3\n");
    void* oNames = ListNewFromPool(0, 1);
    ASSERT_TRUE(Reopen(oNames));
    ObjReleaseInternal(&oNames);
    ExpectRecords(Create("T", 5), 10);
}

// ---- the operations below an open -------------------------------------------------------------

TEST_F(Opening, OpenExistingTableFindsOnlyWhatIsListed)
{
    void* oTable = Create("T");
    void* oFound = nullptr;
    TraceRecorder trace;
    EXPECT_EQ(IndxOpenExistingTable(&oFound, database(), "t", 9), 1u);
    EXPECT_EQ(oFound, oTable);
    const std::string call =
        "IndxOpenExistingTable(" + Hex(&oFound) + ", " + Hex(database()) + ", t, 9)";
    EXPECT_EQ(trace.texts(), (std::vector<std::string>{call, "TRUE = " + call}));
    ObjReleaseInternal(&oFound);
    EXPECT_EQ(IndxOpenExistingTable(nullptr, database(), "T", 9), 1u);
    trace.clear();
    EXPECT_EQ(IndxOpenExistingTable(&oFound, database(), "U", 9), 0u);
    EXPECT_EQ(oFound, nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Table does not exist yet"));
    EXPECT_TRUE(trace.hasPart("FALSE = IndxOpenExistingTable("));
}

TEST_F(Opening, OpenExistingTableRefusesBadArgumentsWith15)
{
    void* oFound = nullptr;
    void* oTable = Create("T");
    TraceRecorder trace;
    for (int i = 0; i < 3; ++i) {
        IndxSetError(UNCHANGED);
        trace.clear();
        EXPECT_EQ(
            IndxOpenExistingTable(
                &oFound,
                i == 0   ? nullptr
                : i == 1 ? oTable
                         : database(),
                i == 2 ? nullptr : "T", 9),
            0u);
        EXPECT_EQ(IndxError(), 15u);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid argument")) << trace.dump();
        EXPECT_TRUE(trace.hasPart("FALSE = IndxOpenExistingTable("));
    }
}

TEST_F(Opening, LoadTableOfAListedNameReturns0AndLeavesTheListAsItWas)
{
    void* oTable = Create("T");
    void* oLoaded = &oLoaded;
    TraceRecorder trace;
    EXPECT_EQ(IndxLoadTable(&oLoaded, database(), "T", "t"), 0u);
    EXPECT_EQ(oLoaded, nullptr);
    EXPECT_EQ(
        trace.texts(), (std::vector<std::string>{
                           "IndxLoadTable(" + Hex(&oLoaded) + ", " + Hex(database()) + ", T, t)"}));
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_EQ(TableCount(), 1u);
    EXPECT_EQ(ListedTable("T"), oTable);
}

TEST_F(Opening, LoadTableDoesNotJoinTheList)
{
    AddMany(Create("T"), 5);
    void* oNames = ListNewFromPool(0, 1);
    ASSERT_TRUE(Reopen(oNames));
    ObjReleaseInternal(&oNames);
    void* oTable = nullptr;
    TraceRecorder trace;
    ASSERT_EQ(IndxLoadTable(&oTable, database(), "T", "T"), 1u);
    EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
    EXPECT_EQ(TableCount(), 0u);
    EXPECT_EQ(OBJ_HEADER(oTable)->refCount, 4) << "the caller, and three fields";
    EXPECT_EQ(OBJ_HEADER(static_cast<IndxTable*>(oTable)->oBlck)->refCount, 1);
    ExpectRecords(oTable, 5);
    EXPECT_EQ(IndxCloseTable(&oTable), 1u);
}

TEST_F(Opening, LoadTableWithoutAVariableLeavesNothingBehind)
{
    AddMany(Create("T"), 5);
    void* oNames = ListNewFromPool(0, 1);
    ASSERT_TRUE(Reopen(oNames));
    ObjReleaseInternal(&oNames);
    const std::string blocks = ReadFileBytes(PathOf("Indexes", "T"));
    const LiveCounts before;
    EXPECT_EQ(IndxLoadTable(nullptr, database(), "T", "T"), 1u);
    EXPECT_EQ(before, LiveCounts());
    EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "T")) == blocks);
}

TEST_F(Opening, LoadTableRefusesBadArguments)
{
    void* oTable = nullptr;
    void* oOther = Create("T");
    TraceRecorder trace;
    EXPECT_EQ(IndxLoadTable(&oTable, nullptr, "A", "A"), 0u);
    EXPECT_EQ(IndxLoadTable(&oTable, oOther, "A", "A"), 0u);
    EXPECT_EQ(IndxLoadTable(&oTable, database(), nullptr, "A"), 0u);
    EXPECT_EQ(IndxLoadTable(&oTable, database(), "A", nullptr), 0u);
    EXPECT_EQ(trace.count("Invalid argument"), 4u);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Opening, RecordsOpenClosesWhatWasOpenBefore)
{
    auto* pTable = static_cast<IndxTable*>(Create("T"));
    const uint32_t files = FileSysOpenCount();
    void* hBefore = pTable->hRecords;
    EXPECT_EQ(IndxRecordsOpen(pTable, "U"), 1u);
    EXPECT_NE(pTable->hRecords, hBefore);
    EXPECT_EQ(FileSysOpenCount(), files);
    EXPECT_TRUE(std::filesystem::exists(PathOf("Records", "U")));
    EXPECT_EQ(IndxRecordsOpen(nullptr, "U"), 0u);
    EXPECT_EQ(IndxRecordsOpen(database(), "U"), 0u);
    EXPECT_EQ(IndxRecordsOpen(pTable, nullptr), 0u);
}

// ---- clustered mode ---------------------------------------------------------------------------

TEST_F(Opening, LoadedTableIsMarkedInClusteredModeOnly)
{
    void* oTable = Create("T");
    DbSetClusteredMode(1);
    EXPECT_EQ(Create("U") != nullptr, true);
    EXPECT_EQ(OBJ_HEADER(ListedTable("U"))->flags, 0u) << "a new one is not";
    EXPECT_EQ(OBJ_HEADER(oTable)->flags, 0u);
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(OBJ_HEADER(ListedTable("T"))->flags, 1u);
    EXPECT_EQ(OBJ_HEADER(ListedTable("U"))->flags, 1u);
    DbSetClusteredMode(2); // no other value means it
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(OBJ_HEADER(ListedTable("T"))->flags, 0u);
}

// ---- faults at every step ---------------------------------------------------------------------

class OpeningFaults : public RowTest {
  protected:
    // Runs `step` on a fresh state with the n-th call of a fault point failing, for n = 1, 2, ...
    // until nothing struck; `check` follows each run with the faults gone.
    template <typename Prepare, typename Step, typename Check>
    void ForEvery(uint32_t point, Prepare prepare, Step step, Check check)
    {
        for (uint32_t nth = 1;; ++nth) {
            SCOPED_TRACE("call " + std::to_string(nth) + " of point " + std::to_string(point));
            ASSERT_LT(nth, 2000u);
            prepare();
            bool bStruck = false;
            bool bDone = false;
            {
                TraceRecorder trace(-1);
                LogRecorder log;
                const uint32_t rule = Fail(point, nth);
                bDone = step();
                bStruck = FaultHits(rule) != 0;
                FaultDisarmAll();
            }
            check(bDone, bStruck);
            if (HasFatalFailure())
                return;
            if (!bStruck) {
                EXPECT_TRUE(bDone);
                EXPECT_GT(nth, 1u) << "this point is not passed";
                return;
            }
        }
    }
    void RemoveDatabase()
    {
        Close();
        std::filesystem::remove_all(DatabasePath());
    }
};

TEST_F(OpeningFaults, NoFailureWhileATableIsCreatedLeavesAnythingBehind)
{
    for (const uint32_t point :
         {FAULT_ALLOC, FAULT_OPEN, FAULT_READ, FAULT_WRITE, FAULT_SEEKSTART, FAULT_SERIALIZE,
          FAULT_STNZ_SAVE, FAULT_EXISTS}) {
        LiveCounts before;
        ForEvery(
            point,
            [&] {
                RemoveDatabase();
                ASSERT_TRUE(Open());
                before = LiveCounts();
            },
            [&] { return Create("T", 5) != nullptr; },
            [&](bool bDone, bool) {
                if (!ListedTable("T")) {
                    EXPECT_FALSE(bDone);
                    EXPECT_EQ(before, LiveCounts());
                }
                // Afterwards the table can be created, or opened, and used.
                void* oTable = Create("T", INDX_VERSION_ANY);
                ASSERT_NE(oTable, nullptr);
                if (static_cast<IndxTable*>(oTable)->hRecords == FILE_NONE)
                    IndxRecordsOpen(oTable, "T");
                AddMany(oTable, 2);
                ASSERT_TRUE(Reopen());
                ExpectRecords(Create("T", INDX_VERSION_ANY), 2);
            });
    }
}

TEST_F(OpeningFaults, NoFailureWhileATableIsLoadedLosesIt)
{
    AddMany(Create("T"), 3);
    for (const uint32_t point :
         {FAULT_ALLOC, FAULT_OPEN, FAULT_READ, FAULT_SEEKSTART, FAULT_RECONSTRUCT, FAULT_EXISTS}) {
        LiveCounts before;
        std::string blocks;
        ForEvery(
            point,
            [&] {
                Close();
                blocks = ReadFileBytes(PathOf("Indexes", "T"));
                void* oNames = ListNewFromPool(0, 1);
                ASSERT_TRUE(Reopen(oNames));
                ObjReleaseInternal(&oNames);
                before = LiveCounts();
            },
            [&] { return Create("T") != nullptr; },
            [&](bool bDone, bool) {
                if (!ListedTable("T")) {
                    EXPECT_FALSE(bDone);
                    EXPECT_EQ(before, LiveCounts());
                    EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "T")) == blocks);
                }
                void* oTable = Create("T");
                ASSERT_NE(oTable, nullptr);
                if (static_cast<IndxTable*>(oTable)->hRecords == FILE_NONE)
                    IndxRecordsOpen(oTable, "T");
                ExpectRecords(oTable, 3);
            });
    }
}

} // namespace
