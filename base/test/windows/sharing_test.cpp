// sharing_test.cpp: files that another program holds open, and files and directories that may not
// be written: the operation fails as such, what is there stays, and all is well when the file is
// free.
#include <chrono>
#include <string>
#include <thread>

#include "nim/stanza.h"
#include "support/person_table.h"
#include "support/same_files.h"
#include "windows/win32_calls.h"

namespace {

class Sharing : public PersonTest {
  protected:
    void SetUp() override
    {
        PersonTest::SetUp();
        ASSERT_TRUE(Open());
        void* oTable = OpenVersioned();
        ASSERT_NE(oTable, nullptr);
        AddPeople(oTable, &model_, 0, 40);
        Close();
        blocks_ = ReadFileBytes(BlocksPath());
        records_ = ReadFileBytes(RecordsPath());
        version_ = ReadFileBytes(PathOf("Attributes", TABLE));
    }
    void* OpenVersioned(uint32_t version = 3)
    {
        return OpenTable(TABLE, PERSON_MAGIC, FORMAT, FIELDS, 0, version);
    }
    void ExpectUntouched()
    {
        EXPECT_TRUE(AreSameBlocks(ReadFileBytes(BlocksPath()), blocks_));
        EXPECT_TRUE(ReadFileBytes(RecordsPath()) == records_);
        EXPECT_EQ(ReadFileBytes(PathOf("Attributes", TABLE)), version_);
    }
    // Once nobody holds anything, the table is what it was and takes more.
    void ExpectWell()
    {
        Close();
        ASSERT_TRUE(Open());
        void* oTable = OpenVersioned();
        ASSERT_NE(oTable, nullptr);
        ExpectHolds(oTable, model_);
        AddPeople(oTable, &model_, 500, 510);
        ExpectHolds(oTable, model_);
    }

    People model_;
    std::string blocks_;
    std::string records_;
    std::string version_;
};

// A directory in which nothing can be made, whoever asks; "" when none is found.
std::string ReadOnlyDirectory()
{
    for (const char* path : {"Z:\\sys\\kernel", "Z:\\sys", "Z:\\proc"}) {
        const std::wstring probe = LongForm(path) + L"\\nimdb-probe";
        if (GetFileAttributesW(LongForm(path).c_str()) == INVALID_FILE_ATTRIBUTES)
            continue;
        if (!CreateDirectoryW(probe.c_str(), nullptr))
            return path;
        RemoveDirectoryW(probe.c_str());
    }
    return "";
}

} // namespace

TEST_F(Sharing, ABlockFileThatNobodyElseMayOpenFailsTheTableAndNotTheDatabase)
{
    for (const DWORD share : {DWORD{0}, DWORD{FILE_SHARE_READ}}) {
        SCOPED_TRACE(share);
        TraceRecorder trace;
        HeldFile held(BlocksPath(), share);
        ASSERT_TRUE(held.held());
        ASSERT_TRUE(Open());
        EXPECT_EQ(TableCount(), 0u);
        EXPECT_EQ(OpenVersioned(), nullptr);
        EXPECT_TRUE(trace.hasPart("Failed to open blck file when opening indx")) << trace.dump();
        EXPECT_EQ(TableCount(), 0u);
        held.Release();
        Close();
        ExpectUntouched();
    }
    ExpectWell();
}

TEST_F(Sharing, ARecordsFileThatNobodyElseMayOpenFailsTheOperationsOnRecords)
{
    {
        TraceRecorder quiet(-1);
        LogRecorder log;
        HeldFile held(RecordsPath());
        ASSERT_TRUE(held.held());
        ASSERT_TRUE(Open());
        void* oTable = OpenVersioned();
        ASSERT_NE(oTable, nullptr);
        Person person = MakePerson(100);
        EXPECT_EQ(Add(oTable, &person), 0u);
        EXPECT_EQ(IndxError(), 12u);
        EXPECT_EQ(WalkIds(oTable, "Name").size(), model_.size()) << "the index has nothing new";
        EXPECT_FALSE(FindById(oTable, 1)) << "the key is found, its record cannot be read";
        held.Release();
        Close();
    }
    EXPECT_TRUE(ReadFileBytes(RecordsPath()) == records_);
    ExpectWell();
}

TEST_F(Sharing, AVersionFileThatNobodyElseMayOpenFailsTheOpen)
{
    {
        HeldFile held(PathOf("Attributes", TABLE));
        ASSERT_TRUE(held.held());
        ASSERT_TRUE(Open());
        TraceRecorder trace(-1);
        EXPECT_EQ(OpenVersioned(), nullptr);
        EXPECT_TRUE(trace.has("Failed when discovering table version")) << trace.dump();
        EXPECT_EQ(OpenVersioned(INDX_VERSION_ANY), nullptr) << "it cannot be told";
        held.Release();
        Close();
        ExpectUntouched();
    }
    ExpectWell();
}

TEST_F(Sharing, AStanzaFileThatMayNotBeReplacedKeepsItsBytes)
{
    const std::string path = directory().path("held.cfg");
    WriteFileBytes(path, "[A]\nkey = 1\n");
    Stnz* stanza = nullptr;
    StnzKey* key = nullptr;
    ASSERT_EQ(StnzCreate(&stanza, 0, "A", 1), 1u);
    ASSERT_EQ(StnzCreateKeyFromInteger(&key, "key", 2), 1u);
    ASSERT_EQ(StnzAddKeyToStanza(stanza, key), 1u);
    {
        HeldFile held(path, FILE_SHARE_READ | FILE_SHARE_WRITE); // may be read, not taken away
        ASSERT_TRUE(held.held());
        EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path.c_str()), 0u);
    }
    EXPECT_EQ(ReadFileBytes(path), "[A]\nkey = 1\n");
    EXPECT_FALSE(std::filesystem::exists(Utf8Path(path + ".tmp")));
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path.c_str()), 1u);
    EXPECT_EQ(ReadFileBytes(path), "[A]\nkey = 2\n");
    StnzRelease(&stanza);
}

TEST_F(Sharing, WhoHoldsAFileForAMomentIsWaitedFor)
{
    // On a busy machine a moment may last: once in many tries it does not.
    uint32_t found = 0;
    for (int i = 0; i < 20 && found == 0; ++i) {
        HeldFile held(BlocksPath());
        ASSERT_TRUE(held.held());
        std::thread scanner([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
            held.Release();
        });
        EXPECT_TRUE(Reopen());
        scanner.join();
        found = TableCount();
    }
    EXPECT_EQ(found, 1u) << "the table came up with its database";
    EXPECT_NE(OpenVersioned(), nullptr);
}

TEST_F(Sharing, OthersMayReadWhatIsOpenHere)
{
    ASSERT_TRUE(Open());
    void* oTable = OpenVersioned();
    ASSERT_NE(oTable, nullptr);
    const HeldFile blocks(BlocksPath(), FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    const HeldFile records(RecordsPath(), FILE_SHARE_READ | FILE_SHARE_WRITE);
    EXPECT_TRUE(blocks.held());
    EXPECT_TRUE(records.held());
    AddPeople(oTable, &model_, 600, 620);
    ExpectHolds(oTable, model_);
}

TEST_F(Sharing, AFileMarkedReadOnlyFailsTheOpenAndStaysAsItIs)
{
    const std::wstring path = LongForm(BlocksPath());
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
        CloseHandle(file);
        SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        GTEST_SKIP() << "this user may write everything";
    }
    {
        TraceRecorder quiet(-1);
        ASSERT_TRUE(Open());
        EXPECT_EQ(OpenVersioned(), nullptr);
        Close();
    }
    ExpectUntouched();
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL));
    ExpectWell();
}

TEST_F(Sharing, AHomeInWhichNothingCanBeMadeIsError28)
{
    const std::string home = ReadOnlyDirectory();
    if (home.empty())
        GTEST_SKIP() << "this user may write everywhere";
    WriteFileBytes(directory().path("configure.cfg"), "[Directories]\ndatabase = " + home + "\n");
    EXPECT_FALSE(Open("nimdb-test"));
    EXPECT_EQ(IndxError(), 28u);
    WriteFileBytes(
        directory().path("configure.cfg"), "[Directories]\ndatabase = " + home + "\\nimdb-test\n");
    EXPECT_FALSE(Open("Data"));
    EXPECT_EQ(IndxError(), 28u);
    std::filesystem::remove(Utf8Path(directory().path("configure.cfg")));
    ASSERT_TRUE(Open());
    EXPECT_EQ(TableCount(), 1u) << "the usual home has not suffered";
}
