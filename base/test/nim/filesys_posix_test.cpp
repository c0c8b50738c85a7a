// filesys_posix_test.cpp: files on a system whose calls fail or do half of their work.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "nim/fault.h"
#include "nim/filesys.h"
#include "nim/mem.h"
#include "nim/path.h"
#include "support/file_bytes.h"
#include "support/system_calls.h"
#include "support/temporary_directory.h"

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
    const auto former = std::signal(SIGXFSZ, SIG_IGN);
    uint32_t count = 0;
    NimBool written;
    {
        Limited limit(RLIMIT_FSIZE, 30);
        FileSysSeek(file, 20);
        written = FileSysWrite(&count, file, "ABCDEFGHIJKLMNOPQRST", 20);
    }
    std::signal(SIGXFSZ, former);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(count, 10u);
    int64_t offset = 0;
    EXPECT_EQ(FileSysGetOffset(&offset, file), 1u);
    EXPECT_EQ(offset, 30);
    EXPECT_EQ(FileSysClose(&file), 1u);
    EXPECT_EQ(ReadFileBytes(path_), BYTES.substr(0, 20) + "ABCDEFGHIJ" + BYTES.substr(30));
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
