// companion_test.cpp: paths of companion files, the list of those there are, and the next id.
#include <set>

#include "support/database_fixture.h"

namespace {

constexpr const char* TAG = "INDX        ";
constexpr uint32_t UNCHANGED = 77;

class Companion : public DatabaseTest {
  protected:
    void SetUp() override
    {
        DatabaseTest::SetUp();
        ASSERT_TRUE(Open());
        // The table's name decides, not its file's.
        ASSERT_EQ(
            IndxOpenTableInternal(
                &oTable_, database(), "Docs", "file", MAGIC, "i;s;", "Id,Name;Indexed", 0,
                INDX_VERSION_NONE),
            1u);
        IndxSetError(UNCHANGED);
    }
    void TearDown() override
    {
        IndxReleaseTable(&oTable_);
        DatabaseTest::TearDown();
    }
    std::string FilesPath() const { return PathOf("Files", "Docs"); }
    // The path of an id's file, "" when it is refused.
    std::string PathFor(uint32_t id)
    {
        char* path = nullptr;
        const NimBool bGot = IndxGetFilePath(&path, oTable_, id);
        const std::string result = path ? path : "";
        EXPECT_EQ(bGot != 0, path != nullptr);
        MemFree(path);
        return result;
    }
    void MakeFile(const std::string& relative)
    {
        const std::filesystem::path path = FilesPath() + "/" + relative;
        std::filesystem::create_directories(path.parent_path());
        WriteFileBytes(path.string(), "content");
    }
    // The listed ids in the order of the list.
    std::vector<uint32_t> Ids()
    {
        void* oList = nullptr;
        EXPECT_EQ(IndxGetFileList(&oList, oTable_), 0u) << "always 0";
        EXPECT_NE(oList, nullptr);
        std::vector<uint32_t> ids;
        void* oId = nullptr;
        for (uint32_t i = 0; ListGetNthItem(&oId, oList, i); ++i) {
            EXPECT_EQ(ObjGetMagic(oId), OBJ_MAGIC_INTEGER);
            ids.push_back(static_cast<uint32_t>(ObjGetInteger(oId)));
        }
        ObjReleaseInternal(&oList);
        return ids;
    }
    bool Add(const char* name)
    {
        struct Row {
            int32_t id, padding;
            char* name;
        };
        void* oRow = nullptr;
        ObjCreateInternal(&oRow, OBJ_SIZE_COMPUTED, MAGIC, "i;s;", nullptr, 1);
        static_cast<Row*>(oRow)->name = StrDuplicateIntoPool(name, 1);
        const NimBool bAdded = IndxAddObjectToTable(nullptr, oTable_, oRow);
        ObjReleaseInternal(&oRow);
        return bAdded != 0;
    }

    void* oTable_ = nullptr;
};

// ---- the next id ------------------------------------------------------------------------------

TEST_F(Companion, NextIdOfANewTableIs1)
{
    EXPECT_EQ(IndxNextId(oTable_), 1u);
    EXPECT_EQ(IndxNextId(oTable_), 1u) << "nothing is reserved";
    EXPECT_EQ(static_cast<IndxTable*>(oTable_)->bChanged, 0u) << "nor stored";
}

TEST_F(Companion, NextIdIsOneAboveTheHighest)
{
    ASSERT_TRUE(Add("a"));
    ASSERT_TRUE(Add("b"));
    EXPECT_EQ(IndxNextId(oTable_), 3u);
    static_cast<IndxTable*>(oTable_)->highestId = 0xFFFFFFFE;
    EXPECT_EQ(IndxNextId(oTable_), 0xFFFFFFFFu);
    static_cast<IndxTable*>(oTable_)->highestId = 0;
}

TEST_F(Companion, NextIdOfWhatIsNoTableIs0)
{
    EXPECT_EQ(IndxNextId(nullptr), 0u);
    EXPECT_EQ(IndxNextId(database()), 0u);
}

// ---- paths ------------------------------------------------------------------------------------

TEST_F(Companion, PathFollowsFromTheId)
{
    const std::pair<uint32_t, const char*> cases[] = {
        {1, "0000/00/01"},        {0x10000, "0001/00/00"},    {0x7FFFFFFF, "7fff/ff/ff"},
        {0x12345, "0001/23/45"},  {0xFF, "0000/00/ff"},       {0x100, "0000/01/00"},
        {0xABCDEF, "00ab/cd/ef"}, {0x70000001, "7000/00/01"}, {0xFFFF, "0000/ff/ff"}};
    for (const auto& [id, path] : cases)
        EXPECT_EQ(PathFor(id), Native(FilesPath() + "/" + path));
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Companion, PathMakesItsDirectoriesButNotTheFile)
{
    EXPECT_FALSE(std::filesystem::exists(FilesPath()));
    const std::string path = PathFor(0x12345);
    EXPECT_TRUE(std::filesystem::is_directory(FilesPath() + "/0001/23"));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(PathFor(0x12345), path) << "again, with the directories there";
    Fail(FAULT_MKDIR, 1, 0); // that one was made is not asked, that it is one is
    EXPECT_EQ(PathFor(0x12345), path);
    EXPECT_EQ(PathFor(0x20000), "");
    FaultDisarmAll();
}

TEST_F(Companion, PathIsTracedWithoutItsResult)
{
    TraceRecorder trace;
    PathFor(5);
    EXPECT_EQ(trace.texts(), std::vector<std::string>{"IndxGetFilePath()"});
    EXPECT_TRUE(trace.has(TAG, 0, 4, "IndxGetFilePath()"));
}

TEST_F(Companion, IdsThatAreNoneAreRefused)
{
    const std::pair<uint32_t, const char*> cases[] = {
        {0, "0"}, {0x80000000u, "-2147483648"}, {0xFFFFFFFFu, "-1"}};
    for (const auto& [id, text] : cases) {
        TraceRecorder trace;
        EXPECT_EQ(PathFor(id), "");
        EXPECT_TRUE(trace.has(TAG, 1, -1, std::string("Invalid argument (id is ") + text + ")"))
            << trace.dump();
    }
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_FALSE(std::filesystem::exists(FilesPath()));
}

TEST_F(Companion, BadArgumentsAreRefused)
{
    char* path = nullptr;
    TraceRecorder trace;
    EXPECT_EQ(IndxGetFilePath(nullptr, oTable_, 5), 0u);
    EXPECT_EQ(IndxGetFilePath(&path, nullptr, 5), 0u);
    EXPECT_EQ(IndxGetFilePath(&path, database(), 5), 0u);
    EXPECT_EQ(trace.count("Invalid argument (id is 5)"), 3u) << trace.dump();
    EXPECT_EQ(path, nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Companion, DirectoryThatCannotBeMadeIsAFailureOfWhichTheSystemsReasonIsTold)
{
    for (const char* file : {"0001", "0002/23"}) {
        MakeFile(file);
        TraceRecorder trace;
        EXPECT_EQ(PathFor(file[3] == '1' ? 0x10000 : 0x22345), "");
        for (const TraceRecorder::Line& line : trace.lines()) {
            EXPECT_TRUE(line.level != -1 || line.tag == "FILESYS        ") << line.text;
        }
    }
    EXPECT_EQ(IndxError(), UNCHANGED);
    // The table's own directory is not tested: what it holds tells.
    std::filesystem::remove_all(FilesPath());
    WriteFileBytes(FilesPath(), "a file");
    EXPECT_EQ(PathFor(1), "");
}

TEST_F(Companion, NoAllocationThatFailsLeavesAnythingBehind)
{
    const LiveCounts before;
    for (uint32_t nth = 1;; ++nth) {
        ASSERT_LT(nth, 50u);
        char* path = nullptr;
        const uint32_t rule = Fail(FAULT_ALLOC, nth);
        const NimBool bGot = IndxGetFilePath(&path, oTable_, 7);
        const bool bStruck = FaultHits(rule) != 0;
        FaultDisarmAll();
        EXPECT_EQ(bGot, bStruck ? 0u : 1u);
        EXPECT_EQ(bGot != 0, path != nullptr);
        MemFree(path);
        EXPECT_EQ(before, LiveCounts());
        if (!bStruck)
            break;
    }
}

// ---- at a cursor ------------------------------------------------------------------------------

TEST_F(Companion, PathAtACursorIsThatOfItsRecord)
{
    ASSERT_TRUE(Add("b"));
    ASSERT_TRUE(Add("a"));
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Name"), 1u);
    ASSERT_EQ(IndxFirstKey(oCursor), 6);
    char* path = nullptr;
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, oCursor), 1u);
    EXPECT_EQ(path, Native(FilesPath() + "/0000/00/02"));
    MemFree(path);
    ASSERT_EQ(IndxNextKey(oCursor), 6);
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, oCursor), 1u);
    EXPECT_EQ(path, Native(FilesPath() + "/0000/00/01"));
    MemFree(path);
    IndxReleaseCursor(&oCursor);
    IndxUpdateTable(oTable_);
}

TEST_F(Companion, PathAtACursorThatIsOnNoKeyIsTrueAndNoPath)
{
    ASSERT_TRUE(Add("a"));
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Name"), 1u);
    char sentinel = 0;
    char* path = &sentinel;
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, oCursor), 1u) << "standing nowhere";
    IndxCursorBOI(oCursor);
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, oCursor), 1u) << "before the first key";
    IndxCursorEOI(oCursor);
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, oCursor), 1u) << "behind the last key";
    ASSERT_EQ(IndxFirstKey(oCursor), 6);
    ASSERT_TRUE(Add("b"));
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, oCursor), 1u) << "on a key before a change";
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, nullptr), 1u);
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, oTable_), 1u);
    EXPECT_EQ(IndxGetFilePathAtCursor(nullptr, oCursor), 1u);
    EXPECT_EQ(path, &sentinel) << "untouched";
    IndxReleaseCursor(&oCursor);
    IndxUpdateTable(oTable_);
}

// ---- the list ---------------------------------------------------------------------------------

TEST_F(Companion, ListIsEmptyWithoutADirectory)
{
    EXPECT_TRUE(Ids().empty());
}

TEST_F(Companion, IdIsListedOnlyWhenItsFileWasMade)
{
    const std::string path = PathFor(0x12345);
    EXPECT_TRUE(Ids().empty());
    WriteFileBytes(path, "");
    EXPECT_EQ(Ids(), std::vector<uint32_t>{0x12345});
}

TEST_F(Companion, ListedIdsComeInTheOrderOfTheNames)
{
    for (const char* file : {"7fff/ff/ff", "0000/00/01", "0001/00/00", "0000/01/00", "0000/00/ff"})
        MakeFile(file);
    EXPECT_EQ(Ids(), (std::vector<uint32_t>{1, 0xFF, 0x100, 0x10000, 0x7FFFFFFF}));
}

TEST_F(Companion, HexadecimalIsReadWithoutRegardToCase)
{
    MakeFile("0000/00/1A");
    MakeFile("0001/00/1a");
    EXPECT_EQ(Ids(), (std::vector<uint32_t>{0x1A, 0x1001A}));
    // A sign or a blank before a digit is read; the order is that of the names' bytes.
    MakeFile("0000/00/+1");
    MakeFile("0000/00/ 2");
    EXPECT_EQ(Ids(), (std::vector<uint32_t>{2, 1, 0x1A, 0x1001A}));
}

TEST_F(Companion, NamesOfAnotherFormAreSkipped)
{
    for (const char* file :
         {"0000/00/1a.tmp", "0000/00/1", "0000/00/001", "0000/00/0001", "0000/00/zz", "0000/00/1z",
          "0000/001/01", "0000/0001/01", "0000/xx/01", "000/00/01", "00000/00/01", "000g/00/01",
          "abc.d/00/01", "0000/00/ g", "file"})
        MakeFile(file);
    EXPECT_TRUE(Ids().empty());
    MakeFile("0000/00/!!"); // comes first, and the scan goes on
    MakeFile("0000/00/2b");
    EXPECT_EQ(Ids(), std::vector<uint32_t>{0x2B});
}

TEST_F(Companion, NameOfTwoCharactersIsTakenAtTheFirstLevelToo)
{
    MakeFile("12/34/56");
    EXPECT_EQ(Ids(), std::vector<uint32_t>{0x123456});
}

TEST_F(Companion, FourCharactersCountAtTheFirstLevelOnly)
{
    MakeFile("ffff/0000/00");
    MakeFile("ffff/00/0000");
    EXPECT_TRUE(Ids().empty());
}

TEST_F(Companion, ScanGoesNoDeeperThanTheThirdLevel)
{
    MakeFile("0000/00/01/02/03"); // a directory in the place of a file counts as one
    EXPECT_EQ(Ids(), std::vector<uint32_t>{1});
}

TEST_F(Companion, FileInThePlaceOfADirectoryIsSkipped)
{
    MakeFile("0000/00");
    MakeFile("0001");
    MakeFile("0002/00/01");
    EXPECT_EQ(Ids(), std::vector<uint32_t>{0x20001});
}

TEST_F(Companion, EveryEntryIsTraced)
{
    MakeFile("0000/00/01");
    MakeFile("0000/00/x");
    TraceRecorder trace;
    Ids();
    std::vector<std::string> texts;
    for (const TraceRecorder::Line& line : trace.lines()) {
        EXPECT_EQ(line.tag, TAG);
        EXPECT_EQ(line.error, 0u);
        EXPECT_EQ(line.level, 4);
        // Without the address of the scan's context.
        std::string text = line.text;
        const size_t end = text.rfind(')');
        texts.push_back(text.erase(end - 16, 16));
    }
    EXPECT_EQ(
        texts, (std::vector<std::string>{
                   "IndxFindFiles(" + FilesPath() + ", 0000, ) 0",
                   "IndxFindFiles(" + Native(FilesPath() + "/0000") + ", 00, ) 1",
                   "IndxFindFiles(" + Native(FilesPath() + "/0000/00") + ", 01, ) 2",
                   "IndxFindFiles(" + Native(FilesPath() + "/0000/00") + ", x, ) 2"}));
}

TEST_F(Companion, ListOfWhatIsNoTableIsRefused)
{
    void* oList = &oList;
    TraceRecorder trace;
    EXPECT_EQ(IndxGetFileList(&oList, nullptr), 0u);
    EXPECT_EQ(IndxGetFileList(&oList, database()), 0u);
    EXPECT_EQ(oList, &oList) << "untouched";
    EXPECT_EQ(IndxGetFileList(nullptr, oTable_), 0u);
    EXPECT_EQ(trace.count("Not a valid table"), 3u);
    EXPECT_TRUE(trace.has(TAG, 1, -1, "Not a valid table")) << trace.dump();
    EXPECT_EQ(IndxError(), UNCHANGED);
}

TEST_F(Companion, EveryFileOfARealTreeIsListed)
{
    std::set<uint32_t> expected;
    for (uint32_t id = 1; id < 0x7F000000; id = id * 3 + 1) {
        expected.insert(id);
        WriteFileBytes(PathFor(id), "");
    }
    const std::vector<uint32_t> ids = Ids();
    EXPECT_EQ(std::set<uint32_t>(ids.begin(), ids.end()), expected);
    EXPECT_EQ(ids.size(), expected.size());
}

TEST_F(Companion, NoFaultWhileListingLeavesAnythingBehind)
{
    MakeFile("0000/00/01");
    MakeFile("0001/00/01");
    const LiveCounts before;
    for (const uint32_t point : {FAULT_ALLOC, FAULT_SCAN}) {
        for (uint32_t nth = 1;; ++nth) {
            ASSERT_LT(nth, 200u);
            void* oList = nullptr;
            const uint32_t rule = Fail(point, nth);
            EXPECT_EQ(IndxGetFileList(&oList, oTable_), 0u);
            const bool bStruck = FaultHits(rule) != 0;
            FaultDisarmAll();
            if (!bStruck) {
                EXPECT_EQ(ListGetCount(oList), 2u);
            }
            ObjReleaseInternal(&oList);
            EXPECT_EQ(before, LiveCounts());
            if (!bStruck)
                break;
        }
    }
}

} // namespace
