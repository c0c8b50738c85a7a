// quirks_files_test.cpp: what files, scans, paths, stanza files and the configuration do on purpose
// and keep doing: the database's own files are read and written through these.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "nim/config.h"
#include "nim/dirscan.h"
#include "nim/fault.h"
#include "nim/filesys.h"
#include "nim/mem.h"
#include "nim/path.h"
#include "nim/stanza.h"
#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/temporary_directory.h"

namespace {

class FileQuirk : public testing::Test {
  protected:
    ~FileQuirk() override
    {
        FileSysClose(&hFile_);
        EXPECT_EQ(FileSysOpenCount(), 0u);
    }
    void Open(uint32_t mode = 261) { EXPECT_EQ(FileSysOpen(&hFile_, path_.c_str(), mode), 1u); }
    void Write(const std::string& bytes)
    {
        uint32_t moved = 0;
        EXPECT_EQ(
            FileSysWrite(&moved, hFile_, bytes.data(), static_cast<uint32_t>(bytes.size())), 1u);
        EXPECT_EQ(moved, bytes.size());
    }
    std::string Read(uint32_t size)
    {
        std::string bytes(size, '?');
        uint32_t moved = 77;
        EXPECT_EQ(FileSysRead(&moved, hFile_, bytes.data(), size), 1u);
        return bytes.substr(0, moved);
    }
    int64_t Position()
    {
        int64_t offset = -1;
        EXPECT_EQ(FileSysGetOffset(&offset, hFile_), 1u);
        return offset;
    }

    const TemporaryDirectory directory_;
    const std::string path_ = directory_.path("file");
    void* hFile_ = FILE_NONE;
};

// ---- files
// ---------------------------------------------------------------------------------------

TEST_F(FileQuirk, TheModeOfTheDatabaseCreatesWhatIsAbsentAndKeepsWhatIsThere)
{
    Open();
    Write("bytes");
    FileSysClose(&hFile_);
    Open();
    EXPECT_EQ(Read(9), "bytes");
}

TEST_F(FileQuirk, TheModeOfCompanionFilesEmptiesWhatIsThere)
{
    WriteFileBytes(path_, "bytes");
    Open(2);
    EXPECT_EQ(std::filesystem::file_size(path_), 0u);
}

TEST_F(FileQuirk, NoFileIsAllOnesAndAClosedVariableHoldsIt)
{
    EXPECT_EQ(reinterpret_cast<uintptr_t>(FILE_NONE), ~uintptr_t{0});
    Open();
    FileSysClose(&hFile_);
    EXPECT_EQ(hFile_, FILE_NONE);
    EXPECT_EQ(FileSysClose(&hFile_), 0u);
}

TEST_F(FileQuirk, AHandleValueOfAClosedFileIsNeverUsedAgain)
{
    Open();
    void* const hStale = hFile_;
    FileSysClose(&hFile_);
    Open();
    EXPECT_NE(hFile_, hStale);
    EXPECT_EQ(FileSysSeekStart(hStale), 0u); // old files hold stale values
}

TEST_F(FileQuirk, AReadAtOrBehindTheEndSucceedsShort)
{
    Open();
    Write("bytes");
    EXPECT_EQ(Read(3), "");
    EXPECT_EQ(FileSysSeek(hFile_, 3), 1u);
    EXPECT_EQ(Read(3), "es");
    EXPECT_EQ(FileSysSeek(hFile_, 1000), 1u);
    EXPECT_EQ(Read(3), "");
}

TEST_F(FileQuirk, SeeksAnswerExactlyOneAndANegativePlaceIsNone)
{
    Open();
    EXPECT_EQ(FileSysSeek(hFile_, 5), 1u);
    EXPECT_EQ(FileSysSeek(hFile_, int64_t{1} << 40), 1u); // wider than 32 bits
    EXPECT_EQ(FileSysSeek(hFile_, -1), 0u);
    EXPECT_EQ(Position(), int64_t{1} << 40);
    EXPECT_EQ(FileSysSeekStart(hFile_), 1u);
    EXPECT_EQ(Position(), 0);
}

TEST_F(FileQuirk, TheEndIsWhereItIsNowThoughAnotherMovedIt)
{
    Open();
    Write("bytes");
    std::filesystem::resize_file(path_, 10);
    EXPECT_EQ(FileSysSeekEnd(hFile_), 1u);
    EXPECT_EQ(Position(), 10);
}

TEST_F(FileQuirk, ASkipGoesOnFromThePositionAndPastTheEnd)
{
    Open();
    Write("bytes");
    EXPECT_EQ(FileSysSeek(hFile_, 1), 1u);
    EXPECT_EQ(FileSysSkip(hFile_, 2), 1u);
    EXPECT_EQ(Read(1), "e");
    EXPECT_EQ(FileSysSkip(hFile_, 100), 1u);
    EXPECT_EQ(Position(), 104);
}

TEST_F(FileQuirk, AWriteBehindTheEndLeavesZerosBetween)
{
    Open();
    EXPECT_EQ(FileSysSeek(hFile_, 3), 1u);
    Write("x");
    EXPECT_EQ(ReadFileBytes(path_), std::string("\0\0\0x", 4));
}

TEST_F(FileQuirk, AFailedWriteTellsHowMuchItMoved)
{
    Open();
    uint32_t moved = 77;
    {
        const ArmedFault fault(FAULT_WRITE, 1, 1, FAULT_FAIL_AFTER, 2);
        EXPECT_EQ(FileSysWrite(&moved, hFile_, "bytes", 5), 0u);
    }
    EXPECT_EQ(moved, 2u);
    EXPECT_EQ(ReadFileBytes(path_), "by");
}

TEST_F(FileQuirk, RoomThatIsReservedMakesNoFileLonger)
{
    Open();
    EXPECT_EQ(FileSysReserve(hFile_, 0, 16384), 1u);
    EXPECT_EQ(std::filesystem::file_size(path_), 0u);
    EXPECT_EQ(Position(), 0);
}

// ---- scans and paths
// -----------------------------------------------------------------------------

std::vector<std::string> sNames;
uint32_t sAnswer = 1;
NimBool Visit(const char*, const char* name, void* context)
{
    EXPECT_EQ(context, &sNames);
    sNames.emplace_back(name);
    return sAnswer;
}
std::vector<std::string> Scanned(const std::string& directory, uint32_t answer)
{
    sNames.clear();
    sAnswer = answer;
    DirScan(directory.c_str(), Visit, &sNames);
    return sNames;
}

TEST(ScanQuirk, NamesComeInTheOrderOfTheirBytesWithoutTheDirectoryItself)
{
    const TemporaryDirectory directory;
    for (const char* name : {"b", "B2", "10", "9"})
        WriteFileBytes(directory.path(name), "");
    std::filesystem::create_directory(directory.path("a"));
    WriteFileBytes(directory.path("a/below"), "");
    EXPECT_EQ(Scanned(directory.path(), 1), std::vector<std::string>({"10", "9", "B2", "a", "b"}));
}

TEST(ScanQuirk, OnlyExactlyOneGoesOn)
{
    const TemporaryDirectory directory;
    for (const char* name : {"a", "b"})
        WriteFileBytes(directory.path(name), "");
    EXPECT_EQ(Scanned(directory.path(), 2), std::vector<std::string>({"a"}));
    EXPECT_EQ(Scanned(directory.path(), 0), std::vector<std::string>({"a"}));
    EXPECT_EQ(Scanned(directory.path("none"), 1), std::vector<std::string>());
}

std::string Taken(char* text)
{
    const std::string copy = text ? text : "(null)";
    MemFree(text);
    return copy;
}

TEST(PathQuirk, OneSeparatorStandsBetweenDirectoryAndName)
{
    const std::string separator(1, static_cast<char>(std::filesystem::path::preferred_separator));
    EXPECT_EQ(Taken(PathBuild("d", "n", 0)), "d" + separator + "n");
    EXPECT_EQ(Taken(PathBuild(("d" + separator).c_str(), "n", 0)), "d" + separator + "n");
    EXPECT_EQ(Taken(PathBuild("", "n", 0)), "n"); // not at the root
    EXPECT_EQ(Taken(PathBuild(nullptr, "n", 0)), "n");
    EXPECT_EQ(PathBuild(nullptr, nullptr, 0), nullptr);
}

TEST(PathQuirk, MakingADirectoryThatIsThereIsASuccessAndOneBelowNothingIsNot)
{
    const TemporaryDirectory directory;
    EXPECT_EQ(PathCreateDirectory(directory.path("d").c_str()), 1u);
    EXPECT_EQ(PathCreateDirectory(directory.path("d").c_str()), 1u);
    EXPECT_EQ(PathCreateDirectory(directory.path("none/d").c_str()), 0u);
    WriteFileBytes(directory.path("file"), "");
    EXPECT_EQ(PathCreateDirectory(directory.path("file").c_str()), 0u);
}

TEST(PathQuirk, ADirectoryIsNoFile)
{
    const TemporaryDirectory directory;
    WriteFileBytes(directory.path("file"), "");
    EXPECT_EQ(FileExists(directory.path("file").c_str()), 1u);
    EXPECT_EQ(PathIsADirectory(directory.path("file").c_str()), 0u);
    EXPECT_EQ(FileExists(directory.path().c_str()), 0u);
    EXPECT_EQ(PathIsADirectory(directory.path().c_str()), 1u);
    EXPECT_EQ(FileExists(directory.path("none").c_str()), 0u);
}

// ---- stanza files and the configuration
// ----------------------------------------------------------

class StanzaQuirk : public testing::Test {
  protected:
    ~StanzaQuirk() override { StnzRelease(&pStanza_); }
    bool Load(const std::string& bytes)
    {
        StnzRelease(&pStanza_);
        WriteFileBytes(path_, bytes);
        return StnzLoadStanzaFromFile(&pStanza_, path_.c_str(), 0, "Versioning") == 1;
    }
    // The key "Version" of a file, "-" where its value is none.
    std::string Version(const std::string& value)
    {
        EXPECT_TRUE(Load("[Versioning]\n" + value + "\n"));
        int32_t number = 0;
        return StnzGetInteger(pStanza_, "Version", -2, &number) ? std::to_string(number) : "-";
    }
    // Stores a version in the file.
    void Store(int32_t version)
    {
        Stnz* pStanza = nullptr;
        StnzKey* pKey = nullptr;
        EXPECT_EQ(StnzCreate(&pStanza, 0, "Versioning", 1), 1u);
        EXPECT_EQ(StnzCreateKeyFromInteger(&pKey, "Version", version), 1u);
        EXPECT_EQ(StnzAddKeyToStanza(pStanza, pKey), 1u);
        EXPECT_EQ(StnzReplaceStanzaInFile(pStanza, path_.c_str()), 1u);
        StnzRelease(&pStanza); // and the key with it
    }

    const TemporaryDirectory directory_;
    const std::string path_ = directory_.path("stanzas");
    Stnz* pStanza_ = nullptr;
};

TEST_F(StanzaQuirk, AVersionIsOneLineInAStanza)
{
    Store(5);
    EXPECT_EQ(ReadFileBytes(path_), "[Versioning]\nVersion = 5\n");
    Store(-3);
    EXPECT_EQ(ReadFileBytes(path_), "[Versioning]\nVersion = -3\n");
}

TEST_F(StanzaQuirk, WhatIsNotReplacedIsKeptByteForByte)
{
    WriteFileBytes(path_, "; mine\r\n[Other]\n x=1\n\n[versioning]\nVersion=4\n# end");
    Store(5);
    EXPECT_EQ(ReadFileBytes(path_), "; mine\r\n[Other]\n x=1\n\n[versioning]\nVersion = 5\n# end");
}

TEST_F(StanzaQuirk, NumbersAreSignedOrUnsignedAndOthersAreNone)
{
    EXPECT_EQ(Version("Version = -2147483648"), "-2147483648");
    EXPECT_EQ(Version("Version = 4294967295"), "-1"); // the same 32 bits
    EXPECT_EQ(Version("Version = 4294967296"), "-");
    EXPECT_EQ(Version("Version = 5x"), "-");
    EXPECT_EQ(Version("Other = 5"), "-2"); // the default
}

TEST_F(StanzaQuirk, NamesHaveNoCaseAndTheFirstOfANameCounts)
{
    EXPECT_TRUE(Load("[VERSIONING]\nvErsion = 5\nVersion = 6\n[Versioning]\nVersion = 7\n"));
    int32_t number = 0;
    EXPECT_EQ(StnzGetInteger(pStanza_, "VERSION", -2, &number), 1u);
    EXPECT_EQ(number, 5);
}

TEST_F(StanzaQuirk, AFileWithoutTheStanzaIsNotLoaded)
{
    EXPECT_FALSE(Load(""));
    EXPECT_FALSE(Load("[Other]\nVersion = 5\n"));
    EXPECT_EQ(pStanza_, nullptr);
}

TEST(ConfigQuirk, AValueIsReadAnewByEveryCallAndAnEmptyOneIsNone)
{
    const TemporaryDirectory directory;
    PathSetHome(directory.path().c_str());
    const auto get = [&] {
        char* value = nullptr;
        EXPECT_EQ(CfgGetString(&value, "configure.cfg", "Directories", "database", "dflt"), 1u);
        return Taken(value);
    };
    EXPECT_EQ(get(), "dflt"); // no file
    WriteFileBytes(directory.path("configure.cfg"), "[Directories]\ndatabase = C:\\bases\n");
    EXPECT_EQ(get(), "C:\\bases"); // a backslash is one
    WriteFileBytes(directory.path("configure.cfg"), "[Directories]\ndatabase = \n");
    EXPECT_EQ(get(), "dflt");
    PathSetHome(nullptr);
}

} // namespace
