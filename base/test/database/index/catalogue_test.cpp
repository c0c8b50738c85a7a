// catalogue_test.cpp: opening and closing databases, their directories and their lists of tables,
// closing and releasing tables, and clustered mode.
#include <cstring>
#include <thread>

#include "support/database_fixture.h"
#include "support/effort.h"

namespace {

constexpr const char* TAG = "INDX        ";
constexpr uint32_t UNCHANGED = 77;

std::string Hex(const void* p)
{
    char text[32];
    std::snprintf(
        text, sizeof text, "%016llX",
        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

// A list of the base services with these names.
void* Names(std::initializer_list<const char*> names, uint32_t type = 0)
{
    void* oNames = ListNewFromPool(type, 1);
    for (const char* name : names) {
        void* oName = ObjStringNew(name);
        ListPushLastItemInternal(oNames, &oName);
    }
    return oNames;
}

class Catalogue : public DatabaseTest {
  protected:
    void SetUp() override
    {
        DatabaseTest::SetUp();
        IndxSetError(UNCHANGED);
    }
    void* Create(const std::string& name)
    {
        return OpenTable(name, MAGIC, "i;s;", "Id,Name;Indexed");
    }
    std::vector<std::string> Listed() const
    {
        std::vector<std::string> names;
        const IndxDatabase* pDatabase = IndxAsDatabase(database());
        void* oTable = nullptr;
        for (uint32_t i = 0; ListGetNthItem(&oTable, pDatabase->oTables, i); ++i)
            names.push_back(static_cast<IndxTable*>(oTable)->name);
        return names;
    }
    static bool Add(void* oTable, const char* name)
    {
        struct Row {
            int32_t id, padding;
            char* name;
        };
        void* oRow = nullptr;
        ObjCreateInternal(&oRow, OBJ_SIZE_COMPUTED, MAGIC, "i;s;", nullptr, 1);
        static_cast<Row*>(oRow)->name = StrDuplicateIntoPool(name, 1);
        const NimBool bAdded = IndxAddObjectToTable(nullptr, oTable, oRow);
        ObjReleaseInternal(&oRow);
        return bAdded != 0;
    }
    static bool Finds(void* oTable, const char* name)
    {
        void* oCursor = nullptr;
        void* oKey = ObjStringNew(name);
        EXPECT_EQ(IndxGetFieldCursor(&oCursor, oTable, "Name"), 1u);
        const bool bFound = IndxFindKey(oCursor, 0, oKey) == 6;
        ObjReleaseInternal(&oKey);
        IndxReleaseCursor(&oCursor);
        return bFound;
    }
    bool IsDirectory(const std::string& path) { return std::filesystem::is_directory(path); }
};

// ---- opening ----------------------------------------------------------------------------------

TEST_F(Catalogue, DatabaseThatDoesNotExistIsMadeWithFourSubdirectories)
{
    ASSERT_FALSE(std::filesystem::exists(HomePath()));
    ASSERT_TRUE(Open());
    for (const char* name : {"", "/Indexes", "/Records", "/Files", "/Attributes"})
        EXPECT_TRUE(IsDirectory(DatabasePath() + name)) << name;
    EXPECT_EQ(TableCount(), 0u);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Catalogue, DatabaseObjectHoldsNamePathsAndAnEmptyList)
{
    std::string name = "Data";
    ASSERT_TRUE(Open(name));
    const auto* pDatabase = static_cast<IndxDatabase*>(database());
    EXPECT_EQ(ObjGetMagic(pDatabase), 0xca8ab2cbu);
    EXPECT_EQ(OBJ_HEADER(pDatabase)->refCount, 1);
    EXPECT_STREQ(pDatabase->name, "Data");
    EXPECT_EQ(pDatabase->indexesPath, Native(DatabasePath() + "/Indexes"));
    EXPECT_EQ(pDatabase->recordsPath, Native(DatabasePath() + "/Records"));
    EXPECT_EQ(pDatabase->filesPath, Native(DatabasePath() + "/Files"));
    EXPECT_EQ(pDatabase->attributesPath, Native(DatabasePath() + "/Attributes"));
    EXPECT_EQ(ObjGetMagic(pDatabase->oTables), OBJ_MAGIC_LIST);
    EXPECT_EQ(ListGetCount(pDatabase->oTables), 0u);
}

TEST_F(Catalogue, TemplatesAreMadeOnceWithTheirMagicsAndSizes)
{
    ASSERT_TRUE(Open());
    const IndxTemplates before = gIndxTemplates;
    struct Case {
        ObjTemplate* pTemplate;
        uint32_t magic;
        const char* format;
    };
    for (const Case& c : std::initializer_list<Case>{
             {before.database, 0xca8ab2cb, "s;sl;sl;sl;sl;ol;"},
             {before.table, 0xca8ab522, "s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;"},
             {before.field, 0xca8ec4a2, "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;"},
             {before.cursor, 0xca8c918d, "i;i;i;i;o;o;"},
             {before.keyInfo, 0xca8c92e0, "i;i;o;i;i;"}}) {
        ASSERT_NE(c.pTemplate, nullptr);
        EXPECT_STREQ(ObjGetDbDataFromTemplate(c.pTemplate)->format, c.format);
        void* object = nullptr;
        ASSERT_EQ(ObjTemplateCreateInstanceFromPool(&object, c.pTemplate, 1), 1u);
        EXPECT_EQ(ObjGetMagic(object), c.magic);
        ObjReleaseInternal(&object);
    }
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(std::memcmp(&before, &gIndxTemplates, sizeof before), 0);
}

TEST_F(Catalogue, MissingArgumentsFailWithoutACode)
{
    void* oDatabase = &oDatabase;
    TraceRecorder trace;
    EXPECT_EQ(IndxOpenDatabase(nullptr, "Data", nullptr, nullptr), 0u);
    EXPECT_EQ(IndxOpenDatabase(&oDatabase, nullptr, nullptr, nullptr), 0u);
    EXPECT_EQ(oDatabase, nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_TRUE(trace.has(
        TAG, 0, 3, "FALSE = IndxOpenDatabase(0x" + Hex(&oDatabase) + ", (null), 0000000000000000)"))
        << trace.dump();
    EXPECT_FALSE(std::filesystem::exists(HomePath()));
}

TEST_F(Catalogue, OnlyAListOfStringsNamesTables)
{
    void* oDatabase = nullptr;
    void* oInteger = ObjIntegerNew(1);
    void* oIntegers = ListNewFromPool(OBJ_MAGIC_INTEGER, 1);
    EXPECT_EQ(IndxOpenDatabase(&oDatabase, "Data", oInteger, nullptr), 0u);
    EXPECT_EQ(IndxOpenDatabase(&oDatabase, "Data", oIntegers, nullptr), 0u);
    EXPECT_EQ(oDatabase, nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
    void* oStrings = ListNewFromPool(OBJ_MAGIC_STRING, 1);
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "Data", oStrings, nullptr), 1u);
    IndxCloseDatabase(&oDatabase);
    // An unset list may hold anything: what is no string names nothing.
    void* oUnset = ListNewFromPool(0, 1);
    ListPushLastItemInternal(oUnset, &oInteger);
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "Data", oUnset, nullptr), 1u);
    IndxCloseDatabase(&oDatabase);
    ObjReleaseInternal(&oIntegers);
    ObjReleaseInternal(&oStrings);
    ObjReleaseInternal(&oUnset);
}

TEST_F(Catalogue, TablesAreListedInTheOrderOfTheirFileNames)
{
    ASSERT_TRUE(Open());
    for (const char* name : {"b", "a", "C"})
        Create(name);
    EXPECT_EQ(Listed(), (std::vector<std::string>{"b", "a", "C"})) << "in order of creation";
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(Listed(), (std::vector<std::string>{"C", "a", "b"})) << "in order of bytes";
}

TEST_F(Catalogue, FilesWithNewInTheirNameAreIgnored)
{
    ASSERT_TRUE(Open());
    Create("T");
    Close();
    for (const char* name : {"T.new", "T.newer", "a.new.T"}) {
        std::filesystem::copy_file(PathOf("Indexes", "T"), PathOf("Indexes", name));
    }
    std::filesystem::copy_file(PathOf("Indexes", "T"), PathOf("Indexes", "U.NEW"));
    TraceRecorder trace;
    ASSERT_TRUE(Open());
    EXPECT_TRUE(trace.hasPart(", T, T)"));
    EXPECT_TRUE(trace.hasPart(", U.NEW, U.NEW)")) << "case counts";
    EXPECT_FALSE(trace.hasPart("T.new"));
    EXPECT_EQ(TableCount(), 2u);
}

TEST_F(Catalogue, OnlyNamedTablesAreLoadedAndOthersOpenedLater)
{
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Add(Create("A"), "in A"));
    ASSERT_TRUE(Add(Create("B"), "in B"));
    for (const char* name : {"A", "a"}) {
        void* oNames = Names({"Z", name});
        ASSERT_TRUE(Reopen(oNames));
        ObjReleaseInternal(&oNames);
        EXPECT_EQ(Listed(), std::vector<std::string>{"A"}) << "without regard to case";
        EXPECT_TRUE(Finds(Create("B"), "in B"));
        EXPECT_EQ(Listed(), (std::vector<std::string>{"A", "B"}));
        EXPECT_TRUE(Finds(Create("A"), "in A"));
    }
}

TEST_F(Catalogue, EmptyListOfNamesLoadsNothing)
{
    ASSERT_TRUE(Open());
    Create("A");
    void* oNames = Names({});
    ASSERT_TRUE(Reopen(oNames));
    ObjReleaseInternal(&oNames);
    EXPECT_EQ(TableCount(), 0u);
}

TEST_F(Catalogue, WhatCannotBeLoadedIsSkippedWithoutAMessageOfItsOwn)
{
    ASSERT_TRUE(Open());
    Create("T");
    Close();
    WriteFileBytes(PathOf("Indexes", "Empty"), "");
    WriteFileBytes(PathOf("Indexes", "Text"), "not a block file");
    std::filesystem::create_directories(PathOf("Indexes", "Directory/Inner"));
    TraceRecorder trace;
    ASSERT_TRUE(Open());
    EXPECT_EQ(Listed(), std::vector<std::string>{"T"});
    EXPECT_EQ(IndxError(), UNCHANGED);
    for (const TraceRecorder::Line& line : trace.lines()) {
        if (line.level == -1) {
            EXPECT_TRUE(
                line.tag != TAG ||
                line.text.find("Failed to open blck file when opening indx '") == 0)
                << line;
        }
    }
    EXPECT_EQ(ReadFileBytes(PathOf("Indexes", "Empty")), "");
    EXPECT_EQ(ReadFileBytes(PathOf("Indexes", "Text")), "not a block file");
    EXPECT_FALSE(std::filesystem::exists(PathOf("Indexes", "Inner")));
}

// Tables would be missing from the list without a word.
TEST_F(Catalogue, DirectoryThatCannotBeScannedFailsTheOpen)
{
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Add(Create("T"), "kept"));
    Close();
    Fail(FAULT_SCAN);
    const LiveCounts before;
    TraceRecorder trace;
    EXPECT_FALSE(Open());
    EXPECT_EQ(database(), nullptr);
    EXPECT_EQ(IndxError(), INDX_ERROR_SUBDIRECTORY);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to scan '" + Native(DatabasePath() + "/Indexes'")))
        << trace.dump();
    EXPECT_EQ(before, LiveCounts());
    ASSERT_TRUE(Open());
    EXPECT_EQ(Listed(), std::vector<std::string>{"T"});
    EXPECT_TRUE(Finds(Create("T"), "kept"));
}

TEST_F(Catalogue, TwoDatabasesAreApart)
{
    ASSERT_TRUE(Open("One"));
    Create("T");
    void* oOther = nullptr;
    ASSERT_EQ(IndxOpenDatabase(&oOther, "Two", nullptr, nullptr), 1u);
    EXPECT_EQ(ListGetCount(static_cast<IndxDatabase*>(oOther)->oTables), 0u);
    EXPECT_EQ(TableCount(), 1u);
    IndxCloseDatabase(&oOther);
    EXPECT_TRUE(Add(ListedTable("T"), "still open"));
}

// Each thread has its own database, as the guide allows; what they share must bear it.
TEST_F(Catalogue, TwoThreadsOpenAndCloseTwoDatabasesAtOnce)
{
    const auto openAndClose = [](const char* name, uint32_t* pRight) {
        for (uint32_t i = 0; i < FileEffort(4000u); ++i) {
            void* oDatabase = nullptr;
            if (!IndxOpenDatabase(&oDatabase, name, nullptr, nullptr))
                continue;
            const auto* pDatabase = static_cast<IndxDatabase*>(oDatabase);
            *pRight += std::string(pDatabase->indexesPath).find(name) != std::string::npos;
            IndxCloseDatabase(&oDatabase);
        }
    };
    uint32_t right[2] = {0, 0};
    std::thread first(openAndClose, "One", &right[0]);
    std::thread second(openAndClose, "Two", &right[1]);
    first.join();
    second.join();
    EXPECT_EQ(right[0], FileEffort(4000u));
    EXPECT_EQ(right[1], FileEffort(4000u));
}

// ---- directories that cannot be had -----------------------------------------------------------

TEST_F(Catalogue, HomeThatIsNoDirectoryIsError28)
{
    WriteFileBytes(HomePath(), "a file");
    const LiveCounts before;
    EXPECT_FALSE(Open());
    EXPECT_EQ(database(), nullptr);
    EXPECT_EQ(IndxError(), 28u);
    EXPECT_EQ(before, LiveCounts()) << "the home directory's text is freed";
}

TEST_F(Catalogue, HomeIsMadeOneLevelDeepOnly)
{
    WriteFileBytes(
        directory().path("configure.cfg"),
        "[Directories]\ndatabase = " + directory().path("a/b") + "\n");
    EXPECT_FALSE(Open());
    EXPECT_EQ(IndxError(), 28u);
    std::filesystem::create_directory(directory().path("a"));
    EXPECT_TRUE(Open());
    EXPECT_TRUE(IsDirectory(directory().path("a/b/Data/Indexes")));
}

TEST_F(Catalogue, DatabaseThatIsNoDirectoryIsError28)
{
    std::filesystem::create_directory(HomePath());
    WriteFileBytes(DatabasePath(), "a file");
    const LiveCounts before;
    TraceRecorder trace;
    EXPECT_FALSE(Open());
    EXPECT_EQ(IndxError(), 28u);
    EXPECT_EQ(before, LiveCounts());
    EXPECT_TRUE(trace.hasPart("FALSE = IndxOpenDatabase(0x"));
    EXPECT_EQ(ReadFileBytes(DatabasePath()), "a file");
}

TEST_F(Catalogue, SubdirectoryThatIsNoneIsError29AndEndsTheMaking)
{
    const std::vector<std::string> names = {"Indexes", "Records", "Files", "Attributes"};
    for (size_t bad = 0; bad < names.size(); ++bad) {
        SCOPED_TRACE(names[bad]);
        IndxSetError(UNCHANGED);
        std::filesystem::remove_all(HomePath());
        std::filesystem::create_directories(DatabasePath());
        WriteFileBytes(DatabasePath() + "/" + names[bad], "a file");
        const LiveCounts before;
        EXPECT_FALSE(Open());
        EXPECT_EQ(database(), nullptr);
        EXPECT_EQ(IndxError(), 29u);
        EXPECT_EQ(before, LiveCounts());
        for (size_t i = 0; i < names.size(); ++i)
            EXPECT_EQ(IsDirectory(DatabasePath() + "/" + names[i]), i < bad) << names[i];
    }
    // The home is given up with it.
    WriteFileBytes(
        directory().path("configure.cfg"),
        "[Directories]\ndatabase = " + directory().path("elsewhere") + "\n");
    ASSERT_TRUE(Open());
    EXPECT_TRUE(IsDirectory(directory().path("elsewhere/Data/Indexes")));
}

TEST_F(Catalogue, DirectoriesThatCannotBeMadeAreTheSameErrors)
{
    // Home, database, then the four subdirectories.
    for (uint32_t nth = 1; nth <= 6; ++nth) {
        std::filesystem::remove_all(HomePath());
        IndxSetError(UNCHANGED);
        Fail(FAULT_MKDIR, nth);
        EXPECT_FALSE(Open());
        FaultDisarmAll();
        EXPECT_EQ(IndxError(), nth <= 2 ? 28u : 29u) << nth;
    }
    std::filesystem::remove_all(HomePath());
    Fail(FAULT_MKDIR, 7);
    EXPECT_TRUE(Open());
}

TEST_F(Catalogue, HomeIsReadAnewByEveryOpen)
{
    ASSERT_TRUE(Open());
    Close();
    WriteFileBytes(
        directory().path("configure.cfg"),
        "[Directories]\ndatabase = " + directory().path("elsewhere") + "\n");
    ASSERT_TRUE(Open());
    EXPECT_TRUE(IsDirectory(directory().path("elsewhere/Data/Indexes")));
}

TEST_F(Catalogue, NameMayLieDeeperWhenItsParentExists)
{
    std::filesystem::create_directories(HomePath() + "/group");
    ASSERT_TRUE(Open("group/Data"));
    EXPECT_TRUE(IsDirectory(HomePath() + "/group/Data/Indexes"));
}

TEST_F(Catalogue, DirectoryThatCannotBeMadeIsNamed)
{
    WriteFileBytes(HomePath(), "a file");
    {
        TraceRecorder trace;
        EXPECT_FALSE(Open());
        EXPECT_TRUE(
            trace.has(TAG, 1, -1, "'" + HomePath() + "' is no directory and cannot be made one"))
            << trace.dump();
    }
    std::filesystem::remove_all(HomePath());
    std::filesystem::create_directories(DatabasePath());
    WriteFileBytes(DatabasePath() + "/Records", "a file");
    TraceRecorder trace;
    EXPECT_FALSE(Open());
    EXPECT_TRUE(trace.has(
        TAG, 1, -1,
        "'" + Native(DatabasePath() + "/Records") + "' is no directory and cannot be made one"))
        << trace.dump();
}

TEST_F(Catalogue, NameThatLeadsOutOfTheHomeIsError15)
{
    for (const char* name :
         {"", "..", "../Evil", "group/../../Evil", "group\\..\\..\\Evil", "Data/..", "/Evil",
          "\\Evil", "//host/Evil", "C:Evil", "c:\\Evil", ".. /Evil", "..."}) {
        SCOPED_TRACE(name);
        IndxSetError(UNCHANGED);
        TraceRecorder trace;
        EXPECT_FALSE(Open(name));
        EXPECT_EQ(database(), nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
        EXPECT_TRUE(trace.has(
            TAG, 1, -1, "'" + std::string(name) + "' is no name of a database below its home"))
            << trace.dump();
        EXPECT_FALSE(std::filesystem::exists(HomePath())) << "nothing is made";
        EXPECT_FALSE(std::filesystem::exists(directory().path("Evil")));
    }
    for (const char* name : {".hidden", "a..b", "Data.2", "D"}) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(Open(name));
        Close();
    }
}

// ---- closing ----------------------------------------------------------------------------------

TEST_F(Catalogue, SecondCloseThroughTheSamePointerReturns0)
{
    ASSERT_TRUE(Open());
    Create("T");
    void*& oDatabase = *databaseVariable();
    // The fixture's reference on the table is given back by the end of the test.
    EXPECT_EQ(IndxCloseDatabase(&oDatabase), 1u);
    EXPECT_EQ(oDatabase, nullptr);
    TraceRecorder trace;
    EXPECT_EQ(IndxCloseDatabase(&oDatabase), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "FALSE = IndxCloseDatabase(" + Hex(&oDatabase) + ")"));
    EXPECT_EQ(IndxCloseDatabase(nullptr), 0u);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Catalogue, ClosingAnotherObjectOnlyDropsTheReference)
{
    void* oInteger = ObjIntegerNew(1);
    void* oSecond = ObjIncRefCount(oInteger);
    EXPECT_EQ(IndxCloseDatabase(&oInteger), 1u);
    EXPECT_EQ(oInteger, nullptr);
    EXPECT_EQ(OBJ_HEADER(oSecond)->refCount, 1);
    ObjReleaseInternal(&oSecond);
}

TEST_F(Catalogue, ClosingTheDatabaseLeavesNothingOpen)
{
    const LiveCounts before;
    ASSERT_TRUE(Open());
    for (const char* name : {"A", "B", "C"})
        ASSERT_TRUE(Add(Create(name), "x"));
    EXPECT_EQ(FileSysOpenCount(), before.files + 6);
    Close();
    EXPECT_EQ(before, LiveCounts());
    EXPECT_EQ(FileSysOpenCount(), 0u);
}

TEST_F(Catalogue, ClosedTableHasNoFieldsLeft)
{
    ASSERT_TRUE(Open());
    void* oTable = Create("T");
    auto* pTable = static_cast<IndxTable*>(oTable);
    void* oHeld = ObjIncRefCount(oTable);
    const uint32_t files = FileSysOpenCount();
    TraceRecorder trace;
    ASSERT_EQ(IndxCloseTable(&oHeld), 1u);
    EXPECT_EQ(oHeld, nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Release table (" + Hex(oTable) + ") T")) << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 0, 4, "TRUE = IndxCloseTable(" + Hex(&oHeld) + ")"));
    EXPECT_EQ(FileSysOpenCount(), files - 2);
    EXPECT_EQ(pTable->oBlck, nullptr);
    EXPECT_EQ(pTable->hRecords, FILE_NONE);
    EXPECT_EQ(ListGetCount(pTable->oFields), 0u);
    EXPECT_EQ(OBJ_HEADER(pTable)->refCount, 2) << "the list and the caller";
    // What is asked of it now fails, without harm.
    void* oCursor = nullptr;
    EXPECT_EQ(IndxGetFieldCursor(&oCursor, oTable, "Id"), 0u);
    EXPECT_FALSE(Add(oTable, "x"));
    char* path = nullptr;
    EXPECT_EQ(IndxGetFilePath(&path, oTable, 1), 1u) << "the database is still there";
    MemFree(path);
}

TEST_F(Catalogue, TableKeepsItsDatabaseAliveOutsideClusteredMode)
{
    ASSERT_TRUE(Open());
    void* oTable = ObjIncRefCount(Create("T"));
    void* oDatabase = database();
    Close();
    EXPECT_EQ(static_cast<IndxTable*>(oTable)->oDatabase, oDatabase);
    EXPECT_STREQ(static_cast<IndxDatabase*>(oDatabase)->name, "Data");
    EXPECT_EQ(OBJ_HEADER(oDatabase)->refCount, 1);
    EXPECT_EQ(IndxReleaseTable(&oTable), 1u);
    EXPECT_EQ(ObjLiveCount(INDX_DATABASE_MAGIC), 0u);
}

TEST_F(Catalogue, TableThatWasClosedIsNoTroubleToTheDatabase)
{
    ASSERT_TRUE(Open());
    void* oTable = ObjIncRefCount(Create("T"));
    ASSERT_EQ(IndxCloseTable(&oTable), 1u);
    oTable = ObjIncRefCount(ListedTable("T"));
    EXPECT_EQ(IndxCloseTable(&oTable), 1u) << "and a second time";
    Close();
}

TEST_F(Catalogue, CloseAndReleaseRefuseWhatIsNoTable)
{
    ASSERT_TRUE(Open());
    TraceRecorder trace;
    for (NimBool (*f)(void**) : {IndxCloseTable, IndxReleaseTable}) {
        void* oNull = nullptr;
        void* oDatabase = database();
        EXPECT_EQ(f(nullptr), 0u);
        EXPECT_EQ(f(&oNull), 0u);
        EXPECT_EQ(f(&oDatabase), 0u);
        EXPECT_EQ(oDatabase, database()) << "nothing was given up";
    }
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Catalogue, ReleaseOnlyDropsTheCallersReference)
{
    ASSERT_TRUE(Open());
    void* oTable = ObjIncRefCount(Create("T"));
    const int32_t references = OBJ_HEADER(oTable)->refCount;
    TraceRecorder trace;
    EXPECT_EQ(IndxReleaseTable(&oTable), 1u);
    EXPECT_EQ(oTable, nullptr);
    EXPECT_EQ(OBJ_HEADER(ListedTable("T"))->refCount, references - 1);
    EXPECT_EQ(IndxReleaseTable(&oTable), 0u);
    EXPECT_TRUE(trace.lines().empty()) << "no trace";
    EXPECT_TRUE(Add(ListedTable("T"), "still open"));
}

TEST_F(Catalogue, ClosingDoesNotStoreTheDescription)
{
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Add(Create("T"), "first"));
    IndxTable* pTable = ListedTable("T");
    EXPECT_EQ(pTable->highestId, 1u);
    pTable->highestId = 9;
    pTable->bChanged = TRUE;
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(ListedTable("T")->highestId, 1u);
}

TEST_F(Catalogue, ChangesThatWereNotReleasedAreLostWithALogMessage)
{
    ASSERT_TRUE(Open());
    void* oTable = Create("T");
    ASSERT_TRUE(Add(oTable, "first"));
    Close();
    const std::string blocks = ReadFileBytes(PathOf("Indexes", "T")).substr(16384);
    ASSERT_TRUE(Open());
    LogRecorder log;
    void* pData = nullptr;
    void* oBlck = ListedTable("T")->oBlck;
    ASSERT_EQ(BlckGetBlock(&pData, oBlck, 0), 1u);
    static_cast<uint8_t*>(pData)[100] ^= 1;
    BlckModifiedBlock(pData, oBlck);
    Close();
    EXPECT_EQ(log.count(1300), 1u) << log.dump();
    EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "T")).substr(16384) == blocks);
}

// ---- clustered mode ---------------------------------------------------------------------------

class CatalogueClustered : public Catalogue {
  protected:
    void SetUp() override
    {
        Catalogue::SetUp();
        DbSetClusteredMode(1);
    }
};

TEST_F(CatalogueClustered, HomeIsTheCallers)
{
    const std::string home = directory().path("drive");
    void* oDatabase = nullptr;
    const LiveCounts before;
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "Data", nullptr, home.c_str()), 1u);
    EXPECT_TRUE(IsDirectory(home + "/Data/Indexes"));
    EXPECT_FALSE(std::filesystem::exists(HomePath()));
    IndxCloseDatabase(&oDatabase);
    EXPECT_EQ(before, LiveCounts());
    // It is not kept for the next one.
    ASSERT_EQ(IndxOpenDatabase(&oDatabase, "Next", nullptr, nullptr), 1u);
    IndxCloseDatabase(&oDatabase);
    EXPECT_FALSE(std::filesystem::exists(home + "/Next"));
    EXPECT_TRUE(IsDirectory(HomePath() + "/Next"));
}

TEST_F(CatalogueClustered, HomeIsTheConfiguredOneWithoutTheCallers)
{
    ASSERT_TRUE(Open());
    EXPECT_TRUE(IsDirectory(HomePath() + "/Data/Indexes"));
}

TEST_F(CatalogueClustered, HomeThatIsNoDirectoryIsError28)
{
    void* oDatabase = nullptr;
    EXPECT_EQ(IndxOpenDatabase(&oDatabase, "Data", nullptr, directory().path("a/b").c_str()), 0u);
    EXPECT_EQ(IndxError(), 28u);
    EXPECT_EQ(IndxOpenDatabase(&oDatabase, "Data", nullptr, ""), 0u);
    EXPECT_EQ(IndxError(), 28u);
}

TEST_F(CatalogueClustered, CallersHomeCountsInNoOtherMode)
{
    for (const uint32_t mode : {0u, 2u, 0xFFFFFFFFu}) {
        DbSetClusteredMode(mode);
        void* oDatabase = nullptr;
        ASSERT_EQ(
            IndxOpenDatabase(&oDatabase, "Data", nullptr, directory().path("drive").c_str()), 1u);
        EXPECT_FALSE(std::filesystem::exists(directory().path("drive")));
        IndxCloseDatabase(&oDatabase);
    }
}

TEST_F(CatalogueClustered, ClosingReleasesTheBlocks)
{
    ASSERT_TRUE(Open());
    void* oTable = Create("T");
    ASSERT_TRUE(Add(oTable, "first"));
    void* oBlck = static_cast<IndxTable*>(oTable)->oBlck;
    void* pData = nullptr;
    ASSERT_EQ(BlckGetBlock(&pData, oBlck, 0), 1u);
    const size_t place = 16384 + 16384 - 200;
    static_cast<uint8_t*>(pData)[16384 - 200] = 0xA5;
    BlckModifiedBlock(pData, oBlck);
    EXPECT_NE(static_cast<uint8_t>(ReadFileBytes(PathOf("Indexes", "T")).at(place)), 0xA5);
    LogRecorder log;
    Close();
    EXPECT_EQ(static_cast<uint8_t>(ReadFileBytes(PathOf("Indexes", "T")).at(place)), 0xA5);
    EXPECT_TRUE(log.empty()) << log.dump();
}

TEST_F(CatalogueClustered, ClosingATableGivesItsDatabaseBack)
{
    ASSERT_TRUE(Open());
    void* oTable = Create("T");
    EXPECT_EQ(OBJ_HEADER(database())->refCount, 2);
    void* oHeld = ObjIncRefCount(oTable);
    ASSERT_EQ(IndxCloseTable(&oHeld), 1u);
    EXPECT_EQ(static_cast<IndxTable*>(oTable)->oDatabase, nullptr);
    EXPECT_EQ(OBJ_HEADER(database())->refCount, 1);
    // Nothing that needs the database finds it any more.
    char* path = nullptr;
    EXPECT_EQ(IndxGetFilePath(&path, oTable, 1), 0u);
    void* oList = nullptr;
    EXPECT_EQ(IndxGetFileList(&oList, oTable), 0u);
    EXPECT_EQ(ListGetCount(oList), 0u);
    ObjReleaseInternal(&oList);
    EXPECT_EQ(IndxRecordsOpen(oTable, "T"), 0u);
    oHeld = ObjIncRefCount(oTable);
    EXPECT_EQ(IndxCloseTable(&oHeld), 1u) << "a second time";
}

TEST_F(CatalogueClustered, TableThatIsStillHeldDoesNotKeepItsDatabaseAlive)
{
    ASSERT_TRUE(Open());
    void* oTable = ObjIncRefCount(Create("T"));
    Close();
    EXPECT_EQ(ObjLiveCount(INDX_DATABASE_MAGIC), 0u);
    EXPECT_EQ(static_cast<IndxTable*>(oTable)->oDatabase, nullptr);
    EXPECT_EQ(IndxReleaseTable(&oTable), 1u);
}

TEST_F(CatalogueClustered, TableIsOpenedAgainAfterItWasClosed)
{
    ASSERT_TRUE(Open());
    void* oTable = ObjIncRefCount(Create("T"));
    ASSERT_TRUE(Add(oTable, "first"));
    ASSERT_EQ(IndxCloseTable(&oTable), 1u);
    oTable = Create("T");
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(OBJ_HEADER(oTable)->flags, 1u) << "it was loaded";
    EXPECT_TRUE(Finds(oTable, "first"));
    ASSERT_TRUE(Reopen());
    EXPECT_TRUE(Finds(Create("T"), "first"));
}

// ---- names in lists ---------------------------------------------------------------------------

TEST(CatalogueNames, ComparisonIgnoresCaseAndTakesOnlyStrings)
{
    void* oName = ObjStringNew("Docs");
    void* oNone = ObjStringNew(nullptr);
    void* oInteger = ObjIntegerNew(1);
    EXPECT_EQ(IndxFindTableInList("Docs", oName), 1u);
    EXPECT_EQ(IndxFindTableInList("dOCS", oName), 1u);
    EXPECT_EQ(IndxFindTableInList("Doc", oName), 0u);
    EXPECT_EQ(IndxFindTableInList("Docs2", oName), 0u);
    EXPECT_EQ(IndxFindTableInList(nullptr, oName), 0u);
    EXPECT_EQ(IndxFindTableInList("Docs", nullptr), 0u);
    EXPECT_EQ(IndxFindTableInList("Docs", oInteger), 0u);
    EXPECT_EQ(IndxFindTableInList(nullptr, oNone), 0u) << "no name is no table";
    ObjReleaseInternal(&oName);
    ObjReleaseInternal(&oNone);
    ObjReleaseInternal(&oInteger);
}

// ---- faults at every step ---------------------------------------------------------------------

TEST_F(Catalogue, NoFailureWhileADatabaseIsOpenedLosesATableOrLeavesAnythingBehind)
{
    ASSERT_TRUE(Open());
    ASSERT_TRUE(Add(Create("A"), "in A"));
    ASSERT_TRUE(Add(Create("B"), "in B"));
    Close();
    for (const uint32_t point :
         {FAULT_ALLOC, FAULT_OPEN, FAULT_READ, FAULT_SEEKSTART, FAULT_MKDIR, FAULT_SCAN,
          FAULT_RECONSTRUCT}) {
        for (uint32_t nth = 1;; ++nth) {
            SCOPED_TRACE("call " + std::to_string(nth) + " of point " + std::to_string(point));
            ASSERT_LT(nth, 2000u);
            const LiveCounts before;
            const uint32_t rule = Fail(point, nth);
            bool bOpened = false;
            {
                TraceRecorder trace(-1);
                LogRecorder log;
                bOpened = Open();
            }
            const bool bStruck = FaultHits(rule) != 0;
            FaultDisarmAll();
            if (bOpened) {
                // Tables that did not come up with it come up when they are opened.
                for (const char* name : {"A", "B"}) {
                    void* oTable = Create(name);
                    ASSERT_NE(oTable, nullptr);
                    EXPECT_TRUE(Finds(oTable, (std::string("in ") + name).c_str()));
                }
                EXPECT_EQ(TableCount(), 2u);
                Close();
            }
            EXPECT_EQ(before, LiveCounts());
            if (!bStruck) {
                EXPECT_TRUE(bOpened);
                EXPECT_GT(nth, 1u) << "this point is not passed";
                break;
            }
        }
    }
    ASSERT_TRUE(Open());
    EXPECT_TRUE(Finds(Create("A"), "in A"));
    EXPECT_TRUE(Finds(Create("B"), "in B"));
}

TEST_F(Catalogue, MemoryThatIsGoneForGoodFailsTheOpenCleanly)
{
    const LiveCounts before;
    Fail(FAULT_ALLOC, 1, 0);
    EXPECT_FALSE(Open());
    FaultDisarmAll();
    EXPECT_EQ(IndxError(), INDX_ERROR_HOME) << "which home it is cannot be told";
    EXPECT_EQ(before, LiveCounts());
    EXPECT_TRUE(Open());
}

} // namespace
