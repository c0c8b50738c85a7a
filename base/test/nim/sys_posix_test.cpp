// sys_posix_test.cpp: what becomes of system calls that fail, are interrupted or do half of their
// work.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/file_bytes.h"
#include "support/standard_error.h"
#include "support/system_calls.h"
#include "support/temporary_directory.h"
#include "sys.h"

namespace {

class SysPosix : public testing::Test {
  protected:
    void SetUp() override
    {
        WriteFileBytes(path_, "0123456789");
        ASSERT_TRUE(SysFileOpen(&file_, path_.c_str(), SYS_READ | SYS_WRITE));
    }
    void TearDown() override { SysFileClose(file_); }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("file");
    intptr_t file_ = SYS_NO_FILE;
};

bool IsOpen(intptr_t file)
{
    return fcntl(static_cast<int>(file), F_GETFD) >= 0;
}

// Runs the work with the call struck and says how often it was.
#define STRUCK(times, call, work)                                                                  \
    do {                                                                                           \
        const int64_t struckTimes = WithStruckCall(call, work);                                    \
        if (struckTimes < 0)                                                                       \
            GTEST_SKIP() << "no filters of system calls here";                                     \
        EXPECT_EQ(struckTimes, times);                                                             \
    } while (0)

} // namespace

TEST_F(SysPosix, InterruptedCallsAreMadeAgain)
{
    intptr_t other = SYS_NO_FILE;
    STRUCK(3, (StruckCall{SYS_openat, EINTR, 1, 3}), [&] {
        EXPECT_TRUE(SysFileOpen(&other, path_.c_str(), SYS_READ));
    });
    SysFileClose(other);
    char bytes[10];
    size_t moved = 0;
    STRUCK(3, (StruckCall{SYS_pread64, EINTR, 1, 3}), [&] {
        EXPECT_TRUE(SysFileRead(&moved, file_, bytes, 10, 0));
    });
    EXPECT_EQ(moved, 10u);
    EXPECT_EQ(std::string(bytes, 10), "0123456789");
    STRUCK(3, (StruckCall{SYS_pwrite64, EINTR, 1, 3}), [&] {
        EXPECT_TRUE(SysFileWrite(&moved, file_, "abc", 3, 2));
    });
    EXPECT_EQ(moved, 3u);
    EXPECT_EQ(ReadFileBytes(path_), "01abc56789");
    STRUCK(3, (StruckCall{SYS_fallocate, EINTR, 1, 3}), [&] {
        EXPECT_TRUE(SysFileReserve(file_, 0, 65536));
    });
}

TEST_F(SysPosix, FailingTransfersMoveNothing)
{
    char bytes[10];
    size_t moved = 7;
    STRUCK(1, (StruckCall{SYS_pread64, EIO}), [&] {
        EXPECT_FALSE(SysFileRead(&moved, file_, bytes, 10, 0));
    });
    EXPECT_EQ(moved, 0u);
    moved = 7;
    STRUCK(1, (StruckCall{SYS_pwrite64, EIO}), [&] {
        EXPECT_FALSE(SysFileWrite(&moved, file_, "abc", 3, 0));
    });
    EXPECT_EQ(moved, 0u);
    EXPECT_EQ(ReadFileBytes(path_), "0123456789");
}

TEST_F(SysPosix, AnInterruptedCloseHasClosed)
{
    intptr_t other = SYS_NO_FILE;
    ASSERT_TRUE(SysFileOpen(&other, path_.c_str(), SYS_READ));
    // The descriptor is not asked for a second time.
    STRUCK(1, (StruckCall{SYS_close, EINTR}), [&] { EXPECT_TRUE(SysFileClose(other)); });
    STRUCK(1, (StruckCall{SYS_close, EIO}), [&] { EXPECT_FALSE(SysFileClose(other)); });
    EXPECT_TRUE(SysFileClose(other)); // the calls above never came to the system
    EXPECT_FALSE(SysFileClose(other));
}

TEST_F(SysPosix, WhatTellsNoStatusIsNotOpenedAndNotLeftOpen)
{
    const int lowest = dup(STDERR_FILENO);
    close(lowest);
    intptr_t other = 17;
    STRUCK(1, (StruckCall{SYS_STATUS, EIO}), [&] {
        EXPECT_FALSE(SysFileOpen(&other, path_.c_str(), SYS_READ));
    });
    EXPECT_EQ(other, SYS_NO_FILE);
    EXPECT_FALSE(IsOpen(lowest));
}

TEST_F(SysPosix, ALengthThatIsNotToldIsNone)
{
    int64_t length = 5;
    EXPECT_TRUE(SysFileLength(&length, file_));
    EXPECT_EQ(length, 10);
    EXPECT_FALSE(SysFileLength(&length, SYS_NO_FILE));
    EXPECT_EQ(length, 0);
}

TEST_F(SysPosix, OnlyARefusedReservationFailsAndNotOneThatCannotBeHad)
{
    for (int error : {EOPNOTSUPP, ENOSYS, EINVAL, ENODEV, ESPIPE, EPERM})
        STRUCK(1, (StruckCall{SYS_fallocate, error}), [&] {
            EXPECT_TRUE(SysFileReserve(file_, 0, 4096)) << strerror(error);
        });
    for (int error : {ENOSPC, EDQUOT, EFBIG, EIO, EBADF})
        STRUCK(1, (StruckCall{SYS_fallocate, error}), [&] {
            EXPECT_FALSE(SysFileReserve(file_, 0, 4096)) << strerror(error);
        });
}

TEST_F(SysPosix, NothingIsReservedPastTheLimitOfTheProcess)
{
    Limited limit(RLIMIT_FSIZE, 65536);
    EXPECT_TRUE(SysFileReserve(file_, 0, 65536));
    EXPECT_FALSE(SysFileReserve(file_, 0, 65537));
    EXPECT_FALSE(SysFileReserve(file_, 65536, 1));
}

TEST_F(SysPosix, ARefusedMappingIsNone)
{
    void* address = &address;
    bool mapped = true;
    STRUCK(
        1, (StruckCall{SYS_mmap, ENOMEM}), [&] { mapped = SysMap(&address, file_, 4096, false); });
    EXPECT_FALSE(mapped);
    EXPECT_EQ(address, nullptr);
    ASSERT_TRUE(SysMap(&address, file_, 4096, false));
    EXPECT_EQ(memcmp(address, "0123456789", 10), 0);
    SysUnmap(address, 4096);
}

TEST_F(SysPosix, OnlyWhatIsSurelyAbsentIsAbsent)
{
    for (int error : {ENOENT, ENOTDIR, ENAMETOOLONG})
        STRUCK(1, (StruckCall{SYS_STATUS, error}), [&] {
            EXPECT_EQ(SysPathKind(path_.c_str()), SYS_ABSENT) << strerror(error);
        });
    for (int error : {EACCES, EIO, ELOOP, ENOMEM})
        STRUCK(1, (StruckCall{SYS_STATUS, error}), [&] {
            EXPECT_EQ(SysPathKind(path_.c_str()), SYS_UNKNOWN) << strerror(error);
        });
}

TEST_F(SysPosix, ADirectoryThatCannotBeReadToItsEndIsNoScan)
{
    uint32_t names = 0;
    const SysNameCallback count = [](void* context, const char*) {
        ++*static_cast<uint32_t*>(context);
        return true;
    };
    // The second call is the one that would tell the end.
    STRUCK(1, (StruckCall{SYS_getdents64, EIO, 2, 1}), [&] {
        EXPECT_FALSE(SysScan(directory_.path().c_str(), count, &names));
    });
    EXPECT_EQ(names, 1u);
    EXPECT_TRUE(SysScan(directory_.path().c_str(), count, &names));
    EXPECT_EQ(names, 2u);
}

// ---- the program's directory ------------------------------------------------------------------

TEST_F(SysPosix, TheProgramsDirectoryHasNoSeparatorBehindItAndFitsOrFails)
{
    char whole[4096];
    ASSERT_TRUE(SysProgramDirectory(whole, sizeof whole));
    struct stat status;
    EXPECT_EQ(stat(whole, &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_NE(whole[strlen(whole) - 1], '/');
    char link[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", link, sizeof link - 1), 0);
    EXPECT_EQ(std::string(link).find(whole), 0u);
    std::vector<char> exact(strlen(link) + 1);
    EXPECT_TRUE(SysProgramDirectory(exact.data(), exact.size()));
    EXPECT_FALSE(SysProgramDirectory(exact.data(), exact.size() - 1));
}

TEST_F(SysPosix, AProgramInTheRootIsInTheRoot)
{
    char found[64] = "";
    bool good = false;
    ASSERT_EQ(mkdir(directory_.path("proc").c_str(), 0700), 0);
    ASSERT_EQ(mkdir(directory_.path("proc/self").c_str(), 0700), 0);
    ASSERT_EQ(symlink("/program", directory_.path("proc/self/exe").c_str()), 0);
    if (!WithRoot(directory_.path(), [&] { good = SysProgramDirectory(found, sizeof found); }))
        GTEST_SKIP() << "another root is for the administrator";
    EXPECT_TRUE(good);
    EXPECT_STREQ(found, "/");
    // Nor is a name without a directory taken for one, or no name at all.
    unlink(directory_.path("proc/self/exe").c_str());
    WithRoot(directory_.path(), [&] { good = SysProgramDirectory(found, sizeof found); });
    EXPECT_FALSE(good);
    good = true;
    ASSERT_EQ(symlink("program", directory_.path("proc/self/exe").c_str()), 0);
    WithRoot(directory_.path(), [&] { good = SysProgramDirectory(found, sizeof found); });
    EXPECT_FALSE(good);
}

// ---- the process ------------------------------------------------------------------------------

TEST_F(SysPosix, AVariableThatDoesNotFitIsNone)
{
    setenv("NIM_TEST_VARIABLE", "1234567", 1);
    char value[8] = "before";
    EXPECT_FALSE(SysGetEnvironment("NIM_TEST_VARIABLE", value, 7));
    EXPECT_STREQ(value, "before");
    EXPECT_TRUE(SysGetEnvironment("NIM_TEST_VARIABLE", value, 8));
    EXPECT_STREQ(value, "1234567");
    unsetenv("NIM_TEST_VARIABLE");
    EXPECT_FALSE(SysGetEnvironment("NIM_TEST_VARIABLE", value, 8));
}

TEST_F(SysPosix, WithoutTheKernelsNumbersRandomOnesDifferAllTheSame)
{
    std::set<uint64_t> numbers;
    uint64_t met = 0;
    uint64_t missing = 0;
    STRUCK(64, (StruckCall{SYS_getrandom, ENOSYS}), [&] {
        for (int i = 0; i < 64; ++i) {
            const uint64_t number = SysRandom();
            numbers.insert(number);
            met |= number;
            missing |= ~number;
        }
    });
    // A clock may stand still for one call, not for all; and every bit comes both ways.
    EXPECT_GT(numbers.size(), 32u);
    EXPECT_EQ(met, UINT64_MAX);
    EXPECT_EQ(missing, UINT64_MAX);
}

TEST_F(SysPosix, TheStandardErrorGetsAllOfATextHoweverOftenItsWritingIsInterrupted)
{
    const std::string text(1000, 't');
    StandardError taken;
    STRUCK(3, (StruckCall{SYS_write, EINTR, 1, 3}), [&] {
        SysWriteStandardError(text.data(), text.size());
    });
    EXPECT_EQ(taken.text(), text);
    STRUCK(5, (StruckCall{SYS_write, 0, 1, 5}), [&] {
        SysWriteStandardError(text.data(), text.size());
    });
    EXPECT_EQ(taken.text(), text + text);
}

TEST_F(SysPosix, AStandardErrorThatFailsIsGivenUp)
{
    StandardError taken;
    STRUCK(1, (StruckCall{SYS_write, EIO, 2}), [&] {
        SysWriteStandardError("one", 3);
        SysWriteStandardError("two", 3);
    });
    EXPECT_EQ(taken.text(), "one");
}
