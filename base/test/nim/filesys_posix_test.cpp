// filesys_posix_test.cpp: files on a system whose calls fail or do half of their work.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "nim/dirscan.h"
#include "nim/fault.h"
#include "nim/filesys.h"
#include "nim/mem.h"
#include "nim/path.h"
#include "nim/stanza.h"
#include "support/file_bytes.h"
#include "support/system_calls.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"

namespace {

class FilesPosix : public testing::Test {
  protected:
    void SetUp() override
    {
        WriteFileBytes(path_, BYTES);
        live_ = MemLiveCount();
        open_ = FileSysOpenCount();
    }
    void TearDown() override
    {
        EXPECT_EQ(MemLiveCount(), live_);
        EXPECT_EQ(FileSysOpenCount(), open_);
    }
    // Runs the work on a file that is open, with the call struck from then on. False: no filters.
    template <class Work>
    bool Strike(const StruckCall& call, uint32_t mode, Work work)
    {
        void* file = nullptr;
        EXPECT_EQ(FileSysOpen(&file, path_.c_str(), mode), 1u);
        const bool bRun = WithStruckCall(call, [&] { work(file); }) >= 0;
        EXPECT_EQ(FileSysClose(&file), 1u);
        return bRun;
    }

    static inline const std::string BYTES = "0123456789abcdefghijklmnopqrstuvwxyz";
    TemporaryDirectory directory_;
    std::string path_ = directory_.path("file");
    uint32_t live_ = 0;
    uint32_t open_ = 0;
};

NimBool GoOn(const char*, const char*, void*)
{
    return TRUE;
}

#define SKIP_UNLESS(run)                                                                           \
    if (!(run))                                                                                    \
    GTEST_SKIP() << "no filters of system calls here"

} // namespace

TEST_F(FilesPosix, ReadsGoOnUntilAllBytesAreThere)
{
    FileSysSetMapping(FALSE);
    const bool bRun = Strike({SYS_pread64, 0, 1, 3}, FILE_MODE_READ, [](void* file) {
        char bytes[64];
        uint32_t count = 0;
        EXPECT_EQ(FileSysRead(&count, file, bytes, 30), 1u);
        EXPECT_EQ(std::string(bytes, count), BYTES.substr(0, 30));
        EXPECT_EQ(FileSysRead(&count, file, bytes, 30), 1u);
        EXPECT_EQ(std::string(bytes, count), BYTES.substr(30));
    });
    FileSysSetMapping(TRUE);
    SKIP_UNLESS(bRun);
}

TEST_F(FilesPosix, AReadThatFailsHalfWayTellsHowFarItCame)
{
    FileSysSetMapping(FALSE);
    // The first call is cut by the end of what is there, the one behind it would tell the end.
    const bool bRun = Strike({SYS_pread64, EIO, 2, 1}, FILE_MODE_READ, [](void* file) {
        char bytes[64];
        uint32_t count = 0;
        int64_t offset = 0;
        EXPECT_EQ(FileSysRead(&count, file, bytes, 64), 0u);
        EXPECT_EQ(std::string(bytes, count), BYTES);
        EXPECT_EQ(FileSysGetOffset(&offset, file), 1u);
        EXPECT_EQ(offset, 36);
    });
    FileSysSetMapping(TRUE);
    SKIP_UNLESS(bRun);
}

TEST_F(FilesPosix, WritesGoOnUntilAllBytesAreOut)
{
    SKIP_UNLESS(Strike({SYS_pwrite64, 0, 1, 4}, FILE_MODE_UPDATE, [](void* file) {
        uint32_t count = 0;
        EXPECT_EQ(FileSysWrite(&count, file, "ABCDEFGHIJKLMNOPQRST", 20), 1u);
        EXPECT_EQ(count, 20u);
    }));
    EXPECT_EQ(ReadFileBytes(path_), "ABCDEFGHIJKLMNOPQRST" + BYTES.substr(20));
}

TEST_F(FilesPosix, AWriteThatFailsHalfWayTellsHowFarItCame)
{
    void* file = nullptr;
    ASSERT_EQ(FileSysOpen(&file, path_.c_str(), FILE_MODE_UPDATE), 1u);
    uint32_t count = 0;
    NimBool written;
    {
        Limited limit(RLIMIT_FSIZE, 30);
        FileSysSeek(file, 20);
        written = FileSysWrite(&count, file, "ABCDEFGHIJKLMNOPQRST", 20);
    }
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(count, 10u);
    int64_t offset = 0;
    EXPECT_EQ(FileSysGetOffset(&offset, file), 1u);
    EXPECT_EQ(offset, 30);
    EXPECT_EQ(FileSysClose(&file), 1u);
    EXPECT_EQ(ReadFileBytes(path_), BYTES.substr(0, 20) + "ABCDEFGHIJ" + BYTES.substr(30));
}

// The limit counts for this process alone, and the signal of a write past it would end it.
TEST_F(FilesPosix, ALimitForFilesFailsWritesAndEndsNobody)
{
    const pid_t child = fork();
    if (child == 0) {
        TraceRecorder trace;
        const rlimit limit = {50, 50};
        setrlimit(RLIMIT_FSIZE, &limit);
        void* file = nullptr;
        int wrong = FileSysOpen(&file, path_.c_str(), FILE_MODE_UPDATE) != 1;
        uint32_t count = 0;
        wrong += FileSysSeekEnd(file) != 1;
        wrong += FileSysWrite(&count, file, "ABCDEFGHIJ", 10) != 1 || count != 10;
        wrong += FileSysWrite(&count, file, "ABCDEFGHIJ", 10) != 0 || count != 4;
        wrong += FileSysWrite(&count, file, "ABCDEFGHIJ", 10) != 0 || count != 0;
        wrong += FileSysSeek(file, 1000) != 1;
        wrong += FileSysWrite(&count, file, "A", 1) != 0 || count != 0;
        wrong += FileSysReserve(file, 0, 51) != 0;
        wrong += FileSysClose(&file) != 1;
        wrong += !trace.has(
            "FILESYS        ", 1, -1,
            "Failed to write '" + path_ + "': this process may make files of 50 bytes at most");
        _exit(wrong);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadFileBytes(path_), BYTES + "ABCDEFGHIJABCD");
}

// Written to behind the limit as well as inside the file, which another process has made longer.
TEST_F(FilesPosix, ALimitBelowTheLengthOfAFileFailsWritesInsideIt)
{
    const pid_t child = fork();
    if (child == 0) {
        const rlimit limit = {20, 20};
        setrlimit(RLIMIT_FSIZE, &limit);
        void* file = nullptr;
        int wrong = FileSysOpen(&file, path_.c_str(), FILE_MODE_UPDATE) != 1;
        uint32_t count = 0;
        wrong += FileSysSeek(file, 15) != 1;
        wrong += FileSysWrite(&count, file, "ABCDEFGHIJ", 10) != 0 || count != 5;
        wrong += FileSysSeek(file, 25) != 1;
        wrong += FileSysWrite(&count, file, "ABCDEFGHIJ", 10) != 0 || count != 0;
        wrong += FileSysClose(&file) != 1;
        _exit(wrong);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadFileBytes(path_), BYTES.substr(0, 15) + "ABCDE" + BYTES.substr(20));
}

TEST_F(FilesPosix, ALimitForFilesFailsAStanzaAndLeavesTheFile)
{
    WriteFileBytes(path_, "[S]\na = 1\n");
    const pid_t child = fork();
    if (child == 0) {
        const rlimit limit = {20, 20};
        setrlimit(RLIMIT_FSIZE, &limit);
        Stnz* stanza = nullptr;
        StnzKey* key = nullptr;
        int wrong = StnzCreate(&stanza, 0, "S", 0) != 1;
        wrong += StnzCreateKeyFromString(&key, "a", "more than twenty bytes") != 1;
        wrong += StnzAddKeyToStanza(stanza, key) != 1;
        wrong += StnzReplaceStanzaInFile(stanza, path_.c_str()) != 0;
        _exit(wrong);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadFileBytes(path_), "[S]\na = 1\n");
    EXPECT_EQ(PathKind((path_ + ".tmp").c_str()), PATH_ABSENT);
}

TEST_F(FilesPosix, ARefusalNamesThePathAndTheSystemsReason)
{
    TraceRecorder trace;
    void* file = nullptr;
    const std::string loop = directory_.path("loop");
    ASSERT_EQ(symlink(loop.c_str(), loop.c_str()), 0);
    const std::string reason = ": Too many levels of symbolic links (40)";
    const auto expect = [&](const std::string& text) {
        EXPECT_TRUE(trace.has("FILESYS        ", 1, -1, text)) << text << "\n" << trace.dump();
        EXPECT_EQ(trace.texts().size(), 1u) << trace.dump();
        trace.clear();
    };
    EXPECT_EQ(FileSysOpen(&file, loop.c_str(), FILE_MODE_READ), 0u);
    expect("Failed to open '" + loop + "'" + reason);
    EXPECT_EQ(PathKind(loop.c_str()), PATH_UNKNOWN);
    expect("Failed to ask what stands at '" + loop + "'" + reason);
    EXPECT_EQ(DirScanOutcome(loop.c_str(), GoOn, nullptr), DIRSCAN_UNREAD);
    expect("Failed to scan '" + loop + "'" + reason);
    EXPECT_EQ(PathCreateDirectory((loop + "/d").c_str()), 0u);
    expect("Failed to make the directory '" + loop + "/d'" + reason);
    EXPECT_EQ(FileSysOpen(&file, directory_.path().c_str(), FILE_MODE_UPDATE), 0u);
    expect("Failed to open '" + directory_.path() + "': Is a directory (21)");
    ASSERT_EQ(FileSysOpen(&file, "/dev/full", FILE_MODE_EMPTY), 1u);
    uint32_t count = 0;
    EXPECT_EQ(FileSysWrite(&count, file, "x", 1), 0u);
    expect("Failed to write '/dev/full': No space left on device (28)");
    EXPECT_EQ(FileSysClose(&file), 1u);
}

TEST_F(FilesPosix, WhatIsNotThereIsNoFailure)
{
    TraceRecorder trace;
    void* file = nullptr;
    const std::string absent = directory_.path("absent");
    EXPECT_EQ(FileSysOpen(&file, absent.c_str(), FILE_MODE_READ), 0u);
    EXPECT_EQ(DirScanOutcome(absent.c_str(), GoOn, nullptr), DIRSCAN_ABSENT);
    EXPECT_EQ(PathKind(absent.c_str()), PATH_ABSENT);
    EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
    EXPECT_TRUE(trace.has(
        "FILESYS        ", 0, 3, "Failed to open '" + absent + "': No such file or directory (2)"));
    // A file that was to be created and could not be is one.
    EXPECT_EQ(FileSysOpen(&file, (absent + "/f").c_str(), FILE_MODE_UPDATE), 0u);
    EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
}

TEST_F(FilesPosix, AFileThatCannotBeEmptiedIsNotOpened)
{
    void* file = nullptr;
    NimBool opened = TRUE;
    TraceRecorder trace;
    const int64_t struck = WithStruckCall(
        {SYS_ftruncate, EIO}, [&] { opened = FileSysOpen(&file, path_.c_str(), FILE_MODE_EMPTY); });
    if (struck < 0)
        GTEST_SKIP() << "no filters of system calls here";
    EXPECT_EQ(struck, 1);
    EXPECT_EQ(opened, 0u);
    EXPECT_EQ(file, FILE_NONE);
    EXPECT_EQ(ReadFileBytes(path_), BYTES);
    EXPECT_TRUE(trace.has(
        "FILESYS        ", 1, -1, "Failed to empty '" + path_ + "': Input/output error (5)"));
    EXPECT_EQ(FileSysOpen(&file, path_.c_str(), FILE_MODE_EMPTY), 1u);
    EXPECT_EQ(FileSysClose(&file), 1u);
    EXPECT_EQ(ReadFileBytes(path_), "");
}

TEST_F(FilesPosix, ARenameThatIsRefusedSaysWhy)
{
    Stnz* stanza = nullptr;
    ASSERT_EQ(StnzCreate(&stanza, 0, "S", 0), 1u);
    TraceRecorder trace;
    NimBool replaced = TRUE;
    const int64_t struck = WithStruckCall({SYS_rename, EIO, 1, 1}, [&] {
        replaced = StnzReplaceStanzaInFile(stanza, path_.c_str());
    });
    StnzRelease(&stanza);
    if (struck < 0)
        GTEST_SKIP() << "no filters of system calls here";
    EXPECT_EQ(struck, 1);
    EXPECT_EQ(replaced, 0u);
    EXPECT_TRUE(trace.has(
        "FILESYS        ", 1, -1,
        "Failed to put a new file in the place of '" + path_ + "': Input/output error (5)"))
        << trace.dump();
}

// The end of a directory and a failure on the way there look alike but for the reason.
TEST_F(FilesPosix, ADirectoryThatIsNotReadToItsEndHandsOverNothing)
{
    uint32_t outcome = 0;
    int calls = 0;
    const auto count = [](const char*, const char*, void* context) -> NimBool {
        ++*static_cast<int*>(context);
        return TRUE;
    };
    const int64_t struck = WithStruckCall({SYS_getdents64, EIO, 1, 1}, [&] {
        outcome = DirScanOutcome(directory_.path().c_str(), count, &calls);
    });
    if (struck < 0)
        GTEST_SKIP() << "no filters of system calls here";
    EXPECT_EQ(outcome, DIRSCAN_UNREAD);
    EXPECT_EQ(calls, 0);
}

TEST_F(FilesPosix, AnEndThatIsNotToldLeavesThePosition)
{
    SKIP_UNLESS(Strike({SYS_STATUS, EIO}, FILE_MODE_READ, [](void* file) {
        int64_t offset = 0;
        EXPECT_EQ(FileSysSeek(file, 7), 1u);
        EXPECT_EQ(FileSysSeekEnd(file), 0u);
        EXPECT_EQ(FileSysGetOffset(&offset, file), 1u);
        EXPECT_EQ(offset, 7);
        // Bytes behind the end that was known are read all the same, and are not shown in place.
        EXPECT_EQ(FileSysSeekStart(file), 1u);
        char bytes[64];
        uint32_t count = 0;
        EXPECT_EQ(FileSysRead(&count, file, bytes, 64), 1u);
        EXPECT_EQ(std::string(bytes, count), BYTES);
        const void* view = bytes;
        EXPECT_EQ(FileSysView(&view, file, 30, 10), 0u);
        EXPECT_EQ(view, nullptr);
    }));
}

TEST_F(FilesPosix, AFileWithoutALengthIsNotOpened)
{
    void* file = nullptr;
    // The first status is that of the opening.
    const int64_t struck = WithStruckCall({SYS_STATUS, EIO, 2, 1}, [&] {
        EXPECT_EQ(FileSysOpen(&file, path_.c_str(), FILE_MODE_READ), 0u);
    });
    SKIP_UNLESS(struck >= 0);
    EXPECT_EQ(struck, 1);
    EXPECT_EQ(file, FILE_NONE);
}

TEST_F(FilesPosix, WithoutMappingsFilesAreRead)
{
    char bytes[64] = {};
    uint32_t counts[2] = {};
    NimBool good[2] = {};
    NimBool viewed = TRUE;
    const void* view = bytes;
    SKIP_UNLESS(Strike({SYS_mmap, ENOMEM}, FILE_MODE_READ, [&](void* file) {
        good[0] = FileSysRead(&counts[0], file, bytes, 20);
        viewed = FileSysView(&view, file, 0, 10);
        good[1] = FileSysRead(&counts[1], file, bytes + 20, 20);
    }));
    EXPECT_EQ(good[0], 1u);
    EXPECT_EQ(good[1], 1u);
    EXPECT_EQ(counts[0], 20u);
    EXPECT_EQ(std::string(bytes, 20 + counts[1]), BYTES);
    EXPECT_EQ(viewed, 0u);
    EXPECT_EQ(view, nullptr);
}

TEST_F(FilesPosix, ACloseThatTheSystemRefusesLetsGoOfTheFileAllTheSame)
{
    void* file = nullptr;
    ASSERT_EQ(FileSysOpen(&file, path_.c_str(), FILE_MODE_READ), 1u);
    const int64_t struck = WithStruckCall({SYS_close, EIO, 1, 1}, [&] {
        EXPECT_EQ(FileSysClose(&file), 0u);
        EXPECT_EQ(file, FILE_NONE);
    });
    if (struck < 0)
        FileSysClose(&file);
    SKIP_UNLESS(struck >= 0);
    EXPECT_EQ(struck, 1);
}

TEST_F(FilesPosix, WhatCannotBeReservedIsRefusedHoweverLargeItIs)
{
    void* file = nullptr;
    ASSERT_EQ(FileSysOpen(&file, path_.c_str(), FILE_MODE_UPDATE), 1u);
    {
        // More and less than what is reserved ahead, and where there is no room for that.
        Limited limit(RLIMIT_FSIZE, 300000);
        EXPECT_EQ(FileSysReserve(file, 0, 1 << 20), 0u);
        EXPECT_EQ(FileSysReserve(file, 290000, 20000), 0u);
        EXPECT_EQ(FileSysReserve(file, INT64_MAX - 100, 50), 0u);
        EXPECT_EQ(FileSysReserve(file, 290000, 10000), 1u);
    }
    EXPECT_EQ(FileSysReserve(file, INT64_MAX - 100, 50), 0u); // longer than any file
    EXPECT_EQ(FileSysClose(&file), 1u);
    EXPECT_EQ(ReadFileBytes(path_), BYTES);
}

TEST_F(FilesPosix, NamesStayRelativeWhereTheProgramsDirectoryIsNotTold)
{
    unsetenv("NIM_HOME");
    PathSetHome(nullptr);
    const int64_t struck = WithStruckCall({SYS_LINK, EACCES}, [] {
        char* path = PathHomeBuild("name", 0);
        EXPECT_STREQ(path, "./name");
        MemFree(path);
    });
    SKIP_UNLESS(struck >= 0);
    EXPECT_EQ(struck, 1);
}
