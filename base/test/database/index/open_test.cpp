// open_test.cpp: opening, creating and loading tables: shape, versions, files that are missing or
// damaged, and what a failure may leave behind.
#include <array>
#include <functional>

#include "database/block_internal.h"
#include "database/index/schema.h"
#include "support/database_fixture.h"

namespace {

constexpr const char* TAG = "INDX        ";
constexpr uint32_t UNCHANGED = 77;
constexpr const char* FORMAT = "i;s;i;";
constexpr const char* FIELDS = "Id,Name;Indexed,Size;Indexed;Unique";

std::string Hex(const void* p)
{
    char text[32];
    std::snprintf(
        text, sizeof text, "%016llX",
        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

class Opening : public DatabaseTest {
  protected:
    // A record of FORMAT.
    struct Row {
        int32_t id;
        int32_t padding;
        char* name;
        int32_t size;
    };

    void SetUp() override
    {
        DatabaseTest::SetUp();
        ASSERT_TRUE(Open());
        IndxSetError(UNCHANGED);
    }

    void* Create(const std::string& name, uint32_t version = INDX_VERSION_NONE)
    {
        return OpenTable(name, MAGIC, FORMAT, FIELDS, 0, version);
    }

    static bool Add(void* oTable, const std::string& name, int32_t size)
    {
        void* oRow = nullptr;
        ObjCreateInternal(&oRow, OBJ_SIZE_COMPUTED, MAGIC, FORMAT, nullptr, 1);
        auto* pRow = static_cast<Row*>(oRow);
        pRow->name = StrDuplicateIntoPool(name.c_str(), 1);
        pRow->size = size;
        uint32_t id = 0;
        const NimBool bAdded = IndxAddObjectToTable(&id, oTable, oRow);
        ObjReleaseInternal(&oRow);
        return bAdded && id != 0;
    }
    static void AddMany(void* oTable, int32_t count)
    {
        for (int32_t i = 0; i < count; ++i)
            ASSERT_TRUE(Add(oTable, "name " + std::to_string(i), i));
    }
    // The records of the table, counted through each of its indexes.
    static void ExpectRecords(void* oTable, int32_t count)
    {
        for (const char* field : {"Id", "Name", "Size"}) {
            void* oCursor = nullptr;
            ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable, field), 1u);
            int32_t seen = 0;
            for (int32_t result = IndxFirstKey(oCursor); result == 6;
                 result = IndxNextKey(oCursor)) {
                void* oRow = nullptr;
                ASSERT_EQ(IndxGetObjectAtCursor(&oRow, oCursor), 1u);
                EXPECT_EQ(
                    static_cast<Row*>(oRow)->name,
                    "name " + std::to_string(static_cast<Row*>(oRow)->size));
                ObjReleaseInternal(&oRow);
                ++seen;
            }
            EXPECT_EQ(seen, count) << field;
            IndxReleaseCursor(&oCursor);
        }
        IndxUpdateTable(oTable);
    }

    // Opens with wanted version 5, expecting this last line before the result.
    std::string VersionFile(const std::string& name) const { return PathOf("Attributes", name); }
};

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

TEST_F(Opening, CreationIsTraced)
{
    TraceRecorder trace;
    void* oTable = nullptr;
    ASSERT_EQ(
        IndxOpenTableInternal(&oTable, database(), "T", "F", 0xca000007, FORMAT, FIELDS, 1, 7), 1u);
    const std::string table = Hex(&oTable) + ", " + Hex(database()) + ", T";
    EXPECT_TRUE(trace.has(
        TAG, 0, 4,
        "IndxOpenTableInternal(" + table + ", F, " + std::to_string(int32_t(0xca000007)) + ", " +
            FORMAT + " " + FIELDS + ", TRUE 7)"))
        << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Return table 'F' version of 'does not exist'"));
    EXPECT_TRUE(trace.hasPart("IndxOpenExistingTable("));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Table does not exist yet"));
    EXPECT_TRUE(trace.has(TAG, 0, 3, "Create a new table"));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Succesfully set table 'T' version to 7"));
    EXPECT_TRUE(
        trace.has(TAG, 0, 4, "TRUE = IndxSetTableVersion('T', " + Hex(database()) + ", 7)"));
    EXPECT_TRUE(trace.has(
        TAG, 0, 4, "TRUE = IndxRecordsOpen(" + Hex(oTable) + ") " + PathOf("Records", "F")));
    EXPECT_TRUE(trace.has(TAG, 0, 3, "TRUE = IndxOpenTableInternal(" + table + ", F, ...)"));
    EXPECT_EQ(trace.countLevel(-1), 0u);
    IndxReleaseTable(&oTable);
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
}

TEST_F(Opening, BlockFileThatCannotBeMadeFailsInTheStepAfter)
{
    std::filesystem::remove_all(DatabasePath() + "/Indexes");
    TraceRecorder trace;
    EXPECT_EQ(Create("T"), nullptr);
    EXPECT_TRUE(trace.has(
        TAG, 0, -1, "Failed to open blck file when opening indx '" + PathOf("Indexes", "T") + "'"))
        << trace.dump();
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
    EXPECT_EQ(OpenTable("T", MAGIC, FORMAT, "Id;Bad,,"), oTable);
    EXPECT_STREQ(static_cast<IndxTable*>(oTable)->fields, FIELDS);
    ASSERT_TRUE(Reopen());
    oTable = OpenTable("T", MAGIC, FORMAT, "Id,Name,Size");
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(Field(oTable, 1)->bIndexed, 1u);
    EXPECT_EQ(Field(oTable, 2)->bUnique, 1u);
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
    Fail(FAULT_EXISTS, 1, 0); // as if it were not there when it is asked for
    TraceRecorder trace;
    EXPECT_EQ(Create("T"), nullptr);
    FaultDisarmAll();
    EXPECT_TRUE(trace.has(TAG, 0, -1, "'T' holds a table already")) << trace.dump();
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

// ---- versions ---------------------------------------------------------------------------------

TEST_F(Opening, VersionFileWithoutABlockFileIsNotCompared)
{
    WriteFileBytes(VersionFile("T"), "[Versioning]\nVersion = 9\n");
    EXPECT_NE(Create("T", 5), nullptr);
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = 5\n");
}

TEST_F(Opening, Wanted5AgainstNoneIsRefused)
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

TEST_F(Opening, TableWithoutAVersionOpensOnlyWhenNoneOrAnyIsAsked)
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

TEST_F(Opening, StoredVersionMustBeTheWantedOne)
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

TEST_F(Opening, VersionIsCheckedBeforeTheShape)
{
    Create("T", 5);
    EXPECT_EQ(OpenTable("T", MAGIC + 1, FORMAT, FIELDS, 0, 6), nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Opening, LargeVersionsKeepTheir32Bits)
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

TEST_F(Opening, ReservedVersionAbsentIsWrittenAsAPlainNumber)
{
    EXPECT_NE(Create("T", INDX_VERSION_ABSENT), nullptr);
    EXPECT_EQ(ReadFileBytes(VersionFile("T")), "[Versioning]\nVersion = -3\n");
}

TEST_F(Opening, VersionIsWrittenUnderTheNameAndReadUnderTheFileName)
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
}

TEST_F(Opening, GetTableVersionKnowsThreeOutcomes)
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

TEST_F(Opening, DamagedVersionFilesFailTheOpen)
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
    Fail(FAULT_STNZ_LOAD);
    TraceRecorder trace;
    EXPECT_EQ(Create("T", 5), nullptr);
    EXPECT_TRUE(trace.has(TAG, 1, -1, noStanza)) << trace.dump();
}

TEST_F(Opening, VersionThatCannotBeWrittenFailsTheCreation)
{
    Fail(FAULT_STNZ_SAVE);
    TraceRecorder trace;
    EXPECT_EQ(Create("T", 5), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to set table version when creating new table 'T'"))
        << trace.dump();
    EXPECT_TRUE(
        trace.has(TAG, 0, 4, "FALSE = IndxSetTableVersion('T', " + Hex(database()) + ", 5)"));
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_FALSE(std::filesystem::exists(PathOf("Indexes", "T")));
    FaultDisarmAll();
    std::filesystem::remove_all(DatabasePath() + "/Attributes");
    EXPECT_EQ(Create("T", 5), nullptr);
    EXPECT_NE(Create("T", INDX_VERSION_NONE), nullptr) << "no version file is asked for";
}

TEST_F(Opening, VersionFileKeepsWhatElseIsInIt)
{
    WriteFileBytes(VersionFile("T"), "# kept\n[Other]\nVersion = 1\n");
    EXPECT_NE(Create("T", 5), nullptr);
    const std::string bytes = ReadFileBytes(VersionFile("T"));
    EXPECT_EQ(bytes.find("# kept\n[Other]\nVersion = 1\n"), 0u);
    EXPECT_NE(bytes.find("[Versioning]\nVersion = 5\n"), std::string::npos);
}

TEST_F(Opening, VersionTextsAreFixed)
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

TEST_F(Opening, VersionCallsRefuseBadArguments)
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

// ---- block files that hold something else -----------------------------------------------------

class Refused : public Opening {
  protected:
    // The table "T" cannot be loaded, opened or created over, whatever is asked first, and its file
    // stays as it is.
    void ExpectRefusedAndKept(const std::string& message, int32_t level)
    {
        const std::string path = PathOf("Indexes", "T");
        const std::string bytes = ReadFileBytes(path);
        ASSERT_TRUE(Reopen());
        EXPECT_EQ(TableCount(), 0u);
        const LiveCounts before;
        void* oTable = &oTable;
        {
            TraceRecorder trace;
            EXPECT_EQ(IndxLoadTable(&oTable, database(), "T", "T"), 0u);
            EXPECT_EQ(oTable, nullptr);
            EXPECT_TRUE(trace.has(TAG, 0, level, message)) << trace.dump();
            EXPECT_EQ(before, LiveCounts());
        }
        {
            TraceRecorder trace;
            EXPECT_EQ(Create("T"), nullptr);
            EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to load table 'T' from 'T'"));
            EXPECT_FALSE(trace.has("Create a new table"));
            EXPECT_EQ(before, LiveCounts());
        }
        Close();
        EXPECT_EQ(IndxError(), UNCHANGED);
        EXPECT_TRUE(ReadFileBytes(path) == bytes) << "nothing was written";
        EXPECT_FALSE(std::filesystem::exists(PathOf("Records", "T")));
    }
    // A block file "T" whose user data begins with this.
    void WriteBlockFile(const std::string& userData)
    {
        if (!database()) {
            ASSERT_TRUE(Open());
        }
        ASSERT_NE(Create("Model"), nullptr);
        Close();
        std::string bytes = ReadFileBytes(PathOf("Indexes", "Model"));
        std::fill(bytes.begin() + 40, bytes.end(), '\0');
        bytes.replace(40, userData.size(), userData);
        WriteFileBytes(PathOf("Indexes", "T"), bytes);
        std::filesystem::remove(PathOf("Indexes", "Model"));
    }
    static std::string Serialized(void* object)
    {
        std::string bytes(ObjSerializedSize(object), '\0');
        EXPECT_EQ(ObjSerializeToMemory(object, bytes.data(), nullptr), 1u);
        return bytes;
    }
};

TEST_F(Refused, ShortFiles)
{
    for (const size_t size : {1u, 100u, 16167u}) {
        WriteFileBytes(PathOf("Indexes", "T"), std::string(size, 'x'));
        ExpectRefusedAndKept("Failed to reconstruct table", 4);
    }
}

TEST_F(Refused, ShortFileIsReportedByTheOpenOfTheBlockFile)
{
    WriteFileBytes(PathOf("Indexes", "T"), std::string(100, 'x'));
    TraceRecorder trace;
    void* oTable = nullptr;
    EXPECT_EQ(IndxLoadTable(&oTable, database(), "T", "T"), 0u);
    EXPECT_TRUE(trace.has(
        TAG, 0, -1, "Failed to open blck file when opening indx '" + PathOf("Indexes", "T") + "'"))
        << trace.dump();
}

TEST_F(Refused, FilesWithAnotherMagic)
{
    WriteFileBytes(PathOf("Indexes", "T"), std::string(20000, 'x'));
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
    WriteFileBytes(PathOf("Indexes", "T"), std::string(20000, '\0'));
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
}

TEST_F(Refused, UserDataThatIsNoObject)
{
    WriteBlockFile("x");
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
    WriteBlockFile(std::string(16127, '\0') + "x");
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
}

TEST_F(Refused, ObjectThatIsNoTable)
{
    void* object = ObjIntegerNew(5);
    WriteBlockFile(Serialized(object));
    ObjReleaseInternal(&object);
    ExpectRefusedAndKept("Wrong object, Integer", 4);
}

TEST_F(Refused, ReconstructionThatFails)
{
    Create("T");
    Close();
    std::filesystem::remove(PathOf("Records", "T"));
    Fail(FAULT_RECONSTRUCT, 1, 0);
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
}

TEST_F(Refused, RingsOfObjectsThatAreNoTableAreTakenApart)
{
    // A pair that hold each other, and a list that holds them and itself through them.
    ObjTemplate* pTemplate = nullptr;
    ASSERT_EQ(
        ObjTemplateCreateInternal(&pTemplate, OBJ_SIZE_COMPUTED, 0xca0000aa, "o;o;o;", nullptr),
        1u);
    void* oFirst = nullptr;
    void* oSecond = nullptr;
    ASSERT_EQ(ObjTemplateCreateInstanceFromPool(&oFirst, pTemplate, 1), 1u);
    ASSERT_EQ(ObjTemplateCreateInstanceFromPool(&oSecond, pTemplate, 1), 1u);
    void* oList = ListNewFromPool(0, 1);
    auto** pFirst = static_cast<void**>(oFirst);
    auto** pSecond = static_cast<void**>(oSecond);
    pFirst[0] = ObjIncRefCount(oSecond);
    pFirst[1] = ObjIncRefCount(oList);
    pFirst[2] = ObjIncRefCount(oFirst);
    pSecond[0] = ObjIncRefCount(oFirst);
    pSecond[2] = ObjIncRefCount(oList);
    for (int i = 0; i < 3; ++i) {
        ListAddLastItem(oList, oFirst);
        ListAddLastItem(oList, oSecond);
    }
    const std::string bytes = Serialized(oFirst);
    // The same routine takes the originals apart.
    ObjReleaseInternal(&oSecond);
    ObjReleaseInternal(&oList);
    IndxDiscardGraph(&oFirst);
    EXPECT_EQ(oFirst, nullptr);

    WriteBlockFile(bytes);
    ExpectRefusedAndKept("Wrong object, magic 0xca0000aa", 4);
}

TEST_F(Refused, LongRingsAreTakenApartInConstantStack)
{
    // Thousands of objects that each refer to the list they are in: a walk that followed them by
    // recursion would go as deep.
    ObjTemplate* pTemplate = nullptr;
    ASSERT_EQ(
        ObjTemplateCreateInternal(&pTemplate, OBJ_SIZE_COMPUTED, 0xca0000ab, "o;", nullptr), 1u);
    void* oList = ListNewFromPool(0, 1);
    for (int i = 0; i < 4000; ++i) {
        void* oItem = nullptr;
        ASSERT_EQ(ObjTemplateCreateInstanceFromPool(&oItem, pTemplate, 1), 1u);
        *static_cast<void**>(oItem) = ObjIncRefCount(oList);
        ListPushLastItemInternal(oList, &oItem);
    }
    const std::string bytes = Serialized(oList);
    ASSERT_LE(bytes.size(), 16128u);
    IndxDiscardGraph(&oList);
    WriteBlockFile(bytes);
    ExpectRefusedAndKept("Wrong object, List", 4);
}

TEST_F(Refused, DirectoryInThePlaceOfABlockFile)
{
    std::filesystem::create_directories(PathOf("Indexes", "T"));
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(TableCount(), 0u);
    TraceRecorder trace;
    void* oTable = nullptr;
    EXPECT_EQ(IndxLoadTable(&oTable, database(), "T", "T"), 0u);
    EXPECT_EQ(Create("T"), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to create table")) << trace.dump();
    EXPECT_TRUE(std::filesystem::is_directory(PathOf("Indexes", "T")));
}

TEST_F(Refused, MissingBlockFileIsNotMadeByALoad)
{
    void* oTable = nullptr;
    TraceRecorder trace;
    EXPECT_EQ(IndxLoadTable(&oTable, database(), "None", "None"), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Failed to reconstruct table")) << trace.dump();
}

// Tables of the right magic whose content contradicts itself: each change is made to a sound
// table, serialised with a right checksum, and refused.
class Contradictory : public Refused {
  protected:
    using Change = std::function<void(IndxTable*)>;

    void ExpectFault(const Change& change, const std::string& fault)
    {
        SCOPED_TRACE(fault);
        std::filesystem::remove(PathOf("Indexes", "T")); // of the change before
        ASSERT_TRUE(Reopen());
        auto* pTable = static_cast<IndxTable*>(OpenTable("Sound", MAGIC, FORMAT, FIELDS));
        ASSERT_NE(pTable, nullptr);
        void* oBytes = nullptr;
        {
            // On a copy: the sound one is closed in the usual way.
            const std::string sound = Serialized(pTable);
            ASSERT_EQ(
                ObjReconstructFromMemorySized(
                    &oBytes, sound.data(), static_cast<uint32_t>(sound.size())),
                1u);
        }
        auto* pCopy = static_cast<IndxTable*>(oBytes);
        change(pCopy);
        const std::string bytes = Serialized(pCopy);
        IndxDiscardGraph(&oBytes);
        Close();
        std::filesystem::remove(PathOf("Indexes", "Sound"));
        WriteBlockFile(bytes);
        ExpectRefusedAndKept("Damaged description of table 'T' in 'T': " + fault, -1);
    }
};

void SetText(char** ppText, const char* text)
{
    MemFree(*ppText);
    *ppText = StrDuplicateIntoPool(text, 1);
}

IndxField* FieldAt(IndxTable* pTable, uint32_t position)
{
    void* oField = nullptr;
    ListGetNthItem(&oField, pTable->oFields, position);
    return static_cast<IndxField*>(oField);
}

TEST_F(Contradictory, Texts)
{
    ExpectFault([](IndxTable* p) { SetText(&p->name, nullptr); }, "a text is missing");
    ExpectFault([](IndxTable* p) { SetText(&p->format, nullptr); }, "a text is missing");
    ExpectFault([](IndxTable* p) { SetText(&p->fields, nullptr); }, "a text is missing");
    ExpectFault(
        [](IndxTable* p) { SetText(&FieldAt(p, 1)->name, nullptr); }, "a field has no name");
    ExpectFault(
        [](IndxTable* p) { SetText(&FieldAt(p, 2)->name, "NAME"); }, "a field is there twice");
    ExpectFault(
        [](IndxTable* p) { SetText(&p->format, "i;s;"); },
        "the fields are not those of the format");
    ExpectFault([](IndxTable* p) { SetText(&p->format, "i;s;x;"); }, "the format cannot be used");
    ExpectFault(
        [](IndxTable* p) { SetText(&p->format, "i;s;q;"); }, "the format makes another record");
    ExpectFault(
        [](IndxTable* p) { SetText(&p->format, "i;s;b;"); },
        "a field is not what the format makes of it");
    ExpectFault(
        [](IndxTable* p) { SetText(&p->format, "i;i;s;"); },
        "a field is not what the format makes of it");
}

TEST_F(Contradictory, Lists)
{
    ExpectFault([](IndxTable* p) { ObjRelease(p->oFields); }, "there is no list of fields");
    ExpectFault(
        [](IndxTable* p) {
            IndxUnhookFields(p);
            ObjRelease(p->oFields);
            p->oFields = ObjIntegerNew(3);
        },
        "there is no list of fields");
    ExpectFault(
        [](IndxTable* p) {
            IndxUnhookFields(p);
            ObjRelease(p->oFields);
            p->oFields = ListNewFromPool(0, 1);
            for (int i = 0; i < 3; ++i) {
                void* oItem = ObjIntegerNew(i);
                ListPushLastItemInternal(p->oFields, &oItem);
            }
        },
        "there is no list of fields");
    ExpectFault(
        [](IndxTable* p) { IndxUnhookFields(p); }, "the fields are not those of the format");
    ExpectFault(
        [](IndxTable* p) {
            void* oField = FieldAt(p, 2);
            ListNode* pNode = nullptr;
            ListFindNode(&pNode, p->oFields, oField);
            ListRemoveItem(pNode);
            ListAddLastItem(p->oFields, FieldAt(p, 1));
        },
        "a field is there twice");
    // Fields of the right magic and another layout.
    ExpectFault(
        [](IndxTable* p) {
            IndxUnhookFields(p);
            for (int i = 0; i < 3; ++i) {
                void* oField = nullptr;
                ASSERT_EQ(
                    ObjCreateInternal(
                        &oField, OBJ_SIZE_COMPUTED, INDX_FIELD_MAGIC, "s;", nullptr, 1),
                    1u);
                ListPushLastItemInternal(p->oFields, &oField);
            }
        },
        "an item of the field list is no field");
}

TEST_F(Contradictory, TableOfAnotherLayout)
{
    void* object = nullptr;
    ASSERT_EQ(
        ObjCreateInternal(&object, OBJ_SIZE_COMPUTED, INDX_TABLE_MAGIC, "s;", nullptr, 1), 1u);
    WriteBlockFile(Serialized(object));
    ObjReleaseInternal(&object);
    ExpectRefusedAndKept(
        "Damaged description of table 'T' in 'T': the table has another layout", -1);
}

TEST_F(Contradictory, FieldsOfAnotherTable)
{
    ExpectFault(
        [](IndxTable* p) {
            void* oOther = nullptr;
            ObjTemplateCreateInstanceFromPool(&oOther, gIndxTemplates.table, 1);
            ObjRelease(FieldAt(p, 1)->oTable);
            FieldAt(p, 1)->oTable = static_cast<IndxTable*>(oOther);
        },
        "a field belongs to another table");
}

TEST_F(Contradictory, Flags)
{
    ExpectFault(
        [](IndxTable* p) { static_cast<uint32_t*>(p->indexedFlags.data)[1] = 0; },
        "the indexed flags contradict the fields");
    ExpectFault(
        [](IndxTable* p) { p->indexedFlags.size = 8; },
        "there are no indexed flags for the fields");
    ExpectFault(
        [](IndxTable* p) {
            MemFree(p->indexedFlags.data);
            p->indexedFlags.size = 0;
        },
        "there are no indexed flags for the fields");
    const std::string contradicted = "a field is not what the format makes of it";
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->bCaseSensitive = 1; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 0)->bUnique = 1; }, contradicted);
    ExpectFault(
        [](IndxTable* p) {
            FieldAt(p, 0)->bIndexed = 0;
            static_cast<uint32_t*>(p->indexedFlags.data)[0] = 0;
        },
        contradicted);
}

TEST_F(Contradictory, Numbers)
{
    const std::string contradicted = "a field is not what the format makes of it";
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->keyType = 3; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->keyType = 4095; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 2)->keyType = 99; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->type = 2; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->recordOffset = 4; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->recordOffset = -1; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 2)->recordOffset = 17; }, contradicted);
    ExpectFault([](IndxTable* p) { p->idOffset = 8; }, contradicted);
    ExpectFault(
        [](IndxTable* p) { FieldAt(p, 1)->maximumKey = 8169; }, "a field has another longest key");
    const std::string sizes = "the sizes of a record are out of range";
    ExpectFault([](IndxTable* p) { p->idOffset = 0; }, sizes);
    ExpectFault([](IndxTable* p) { p->idOffset = 17; }, sizes);
    ExpectFault([](IndxTable* p) { p->idOffset = 0xFFFFFFFF; }, sizes);
    ExpectFault([](IndxTable* p) { p->fixedSize = 15; }, sizes);
    ExpectFault([](IndxTable* p) { p->fixedSize = 0; }, sizes);
    ExpectFault([](IndxTable* p) { p->fixedSize = 0x80000000; }, sizes);
    ExpectFault([](IndxTable* p) { p->fixedSize = 24; }, "the format makes another record");
}

TEST_F(Contradictory, Roots)
{
    // The model file has no blocks at all.
    const std::string fault = "an index has no sound root";
    ExpectFault(
        [](IndxTable* p) {
            FieldAt(p, 1)->roots = {0, 0, 0};
            FieldAt(p, 1)->levels = 1;
        },
        fault);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->levels = 1; }, fault);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->roots.tRoot = 7; }, fault);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->roots.tFirstLeaf = 0; }, fault);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->roots.tLastLeaf = 0; }, fault);
}

TEST_F(Contradictory, NoFieldForTheRecordId)
{
    ExpectFault(
        [](IndxTable* p) {
            IndxField* pId = FieldAt(p, 0);
            SetText(&pId->name, "Key");
            pId->type = INDX_FIELD_INTEGER;
            pId->keyType = INDX_KEY_INTEGER;
        },
        "there is no field for the record id");
}

TEST_F(Opening, RootsMustLieAmongTheBlocks)
{
    AddMany(Create("T"), 3);
    Close();
    std::string bytes = ReadFileBytes(PathOf("Indexes", "T"));
    ASSERT_EQ(U32At(bytes, 8), 3u) << "a block for each index";
    for (const uint32_t count : {2u, 0u, 0xFFFFFFFFu, 0x80000000u}) {
        PutU32At(bytes, 8, count);
        WriteFileBytes(PathOf("Indexes", "T"), bytes);
        TraceRecorder trace;
        ASSERT_TRUE(Open());
        EXPECT_EQ(TableCount(), 0u);
        EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
        Close();
    }
    PutU32At(bytes, 8, 3);
    WriteFileBytes(PathOf("Indexes", "T"), bytes);
    ASSERT_TRUE(Open());
    ExpectRecords(Create("T"), 3);
}

TEST_F(Opening, DamagedTableDoesNotKeepOthersFromLoading)
{
    AddMany(Create("A"), 3);
    Create("B");
    AddMany(Create("C"), 4);
    Close();
    std::string bytes = ReadFileBytes(PathOf("Indexes", "B"));
    bytes[100] = static_cast<char>(bytes[100] ^ 1);
    WriteFileBytes(PathOf("Indexes", "B"), bytes);
    ASSERT_TRUE(Open());
    EXPECT_EQ(TableCount(), 2u);
    ExpectRecords(Create("A"), 3);
    ExpectRecords(Create("C"), 4);
}

// ---- every byte of a description, damaged -----------------------------------------------------

uint32_t Crc32(const std::string& bytes, size_t offset, size_t length)
{
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = offset; i < offset + length; ++i) {
        crc ^= static_cast<uint8_t>(bytes[i]);
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320u : 0u);
    }
    return ~crc;
}

class Damage : public Opening {
  protected:
    static constexpr size_t USER_DATA = 40;
    static constexpr size_t ENVELOPE = 16;
    static constexpr size_t ENVELOPE_LENGTH = 8;
    static constexpr size_t ENVELOPE_CRC = 12;

    void SetUp() override
    {
        Opening::SetUp();
        AddMany(Create("T"), 3);
        Close();
        sound_ = ReadFileBytes(PathOf("Indexes", "T"));
        length_ = U32At(sound_, USER_DATA + ENVELOPE_LENGTH);
        ASSERT_GT(length_, ENVELOPE);
        ASSERT_LE(length_, 16128u);
        ASSERT_EQ(
            U32At(sound_, USER_DATA + ENVELOPE_CRC),
            Crc32(sound_, USER_DATA + ENVELOPE, length_ - ENVELOPE));
        // None of the tables is loaded by the open.
        void* oNames = ListNewFromPool(0, 1);
        ASSERT_TRUE(Open(DATABASE, oNames));
        ObjReleaseInternal(&oNames);
    }
    // Seals a damaged description as if it had been written so.
    void Seal(std::string* pBytes) const
    {
        PutU32At(
            *pBytes, USER_DATA + ENVELOPE_CRC,
            Crc32(*pBytes, USER_DATA + ENVELOPE, length_ - ENVELOPE));
    }
    // Loads the table from this file, or fails; what loads can be used and closed, what fails is
    // not written. Returns whether it loaded.
    bool LoadsOrFailsCleanly(const std::string& bytes)
    {
        WriteFileBytes(PathOf("Indexes", "T"), bytes);
        const LiveCounts before;
        TraceRecorder trace(-1);
        void* oTable = nullptr;
        const bool bLoaded = IndxLoadTable(&oTable, database(), "T", "T") != 0;
        EXPECT_EQ(bLoaded, oTable != nullptr);
        if (bLoaded) {
            for (uint32_t i = 0; i < 3; ++i)
                Walk(Field(oTable, i));
            IndxCloseTable(&oTable);
        } else {
            EXPECT_EQ(Create("T"), nullptr);
            EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "T")) == bytes);
        }
        EXPECT_EQ(TableCount(), 0u);
        EXPECT_EQ(before, LiveCounts());
        return bLoaded;
    }
    static void Walk(IndxField* pField)
    {
        void* oCursor = nullptr;
        if (!IndxGetCursor(&oCursor, pField))
            return;
        int32_t steps = 0;
        for (int32_t result = IndxFirstKey(oCursor); result == 6 && steps < 100; ++steps) {
            void* oRecord = nullptr;
            IndxGetRecordAtCursor(&oRecord, oCursor);
            ObjReleaseInternal(&oRecord);
            result = IndxNextKey(oCursor);
        }
        EXPECT_LT(steps, 100);
        IndxReleaseCursor(&oCursor);
    }

    std::string sound_;
    uint32_t length_ = 0;
};

TEST_F(Damage, AnyChangedByteOfTheDescriptionIsFoundOut)
{
    ASSERT_TRUE(LoadsOrFailsCleanly(sound_));
    for (uint32_t i = 0; i < length_; ++i) {
        for (const int flip : {1 << i % 8, 0xFF}) {
            std::string bytes = sound_;
            bytes[USER_DATA + i] = static_cast<char>(bytes[USER_DATA + i] ^ flip);
            ASSERT_FALSE(LoadsOrFailsCleanly(bytes)) << "byte " << i;
        }
    }
}

TEST_F(Damage, AnySealedDamageLoadsOrFailsCleanly)
{
    uint32_t loaded = 0;
    for (uint32_t i = ENVELOPE; i < length_; ++i) {
        for (const int flip : {1 << i % 8, 0x80, 0xFF}) {
            std::string bytes = sound_;
            bytes[USER_DATA + i] = static_cast<char>(bytes[USER_DATA + i] ^ flip);
            Seal(&bytes);
            loaded += LoadsOrFailsCleanly(bytes);
            if (HasFailure())
                FAIL() << "byte " << i << " flipped by " << flip;
        }
    }
    EXPECT_GT(loaded, 0u) << "a letter of a name is no damage that can be told";
}

TEST_F(Damage, SealedDescriptionOfAnotherLengthIsRefused)
{
    for (const uint32_t length :
         {0u, 15u, 16u, 17u, length_ - 1, length_ + 1, 16128u, 16129u, 0xFFFFFFFFu}) {
        std::string bytes = sound_;
        PutU32At(bytes, USER_DATA + ENVELOPE_LENGTH, length);
        EXPECT_FALSE(LoadsOrFailsCleanly(bytes)) << length;
    }
}

// ---- faults at every step ---------------------------------------------------------------------

class Faults : public Opening {
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

TEST_F(Faults, NoFailureWhileATableIsCreatedLeavesAnythingBehind)
{
    for (const uint32_t point :
         {FAULT_ALLOC, FAULT_INCREF, FAULT_OPEN, FAULT_READ, FAULT_WRITE, FAULT_SEEKSTART,
          FAULT_SERIALIZE, FAULT_STNZ_SAVE, FAULT_EXISTS}) {
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

TEST_F(Faults, NoFailureWhileATableIsLoadedLosesIt)
{
    AddMany(Create("T"), 3);
    for (const uint32_t point :
         {FAULT_ALLOC, FAULT_INCREF, FAULT_OPEN, FAULT_READ, FAULT_SEEKSTART, FAULT_RECONSTRUCT,
          FAULT_EXISTS}) {
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
                    // A block file that could not be handed out was opened, and is closed in the
                    // usual way: with the same bytes, but for the words that mean nothing.
                    std::string now = ReadFileBytes(PathOf("Indexes", "T"));
                    if (point == FAULT_INCREF)
                        now.replace(24, 16, blocks.substr(24, 16));
                    EXPECT_TRUE(now == blocks);
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
