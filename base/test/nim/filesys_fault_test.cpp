// Files under faults: every point and mode, the observer, and a disk that is really full.
#include "nim/fault.h"
#include "nim/filesys.h"
#include "support/coverage.h"
#include "support/file_bytes.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#if defined(__linux__)
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

class FileFaults : public testing::Test {
  protected:
    void SetUp() override { WriteFileBytes(path_, "0123456789"); }
    void TearDown() override
    {
        FaultDisarmAll();
        FileSysSetObserver(nullptr, nullptr);
        FileSysClose(&file_);
        EXPECT_EQ(FileSysOpenCount(), 0u);
    }
    void Open() { ASSERT_EQ(FileSysOpen(&file_, path_.c_str(), FILE_MODE_UPDATE), 1u); }
    uint32_t Arm(uint32_t point, uint32_t mode, uint32_t count = 0, const char* part = nullptr)
    {
        FaultRule rule = {point, part, 1, 1, mode, count};
        return FaultArm(&rule);
    }
    int64_t Offset()
    {
        int64_t offset = -1;
        EXPECT_EQ(FileSysGetOffset(&offset, file_), 1u);
        return offset;
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.path("file");
    void* file_ = FILE_NONE;
};

} // namespace

TEST_F(FileFaults, AFailingOpenCreatesNothingAndLeavesNoHandle)
{
    const std::string fresh = directory_.path("fresh");
    Arm(FAULT_OPEN, FAULT_FAIL);
    file_ = nullptr;
    EXPECT_EQ(FileSysOpen(&file_, fresh.c_str(), FILE_MODE_UPDATE), 0u);
    EXPECT_EQ(file_, FILE_NONE);
    EXPECT_FALSE(std::filesystem::exists(fresh));
    Arm(FAULT_OPEN, FAULT_FAIL);
    EXPECT_EQ(FileSysOpen(&file_, path_.c_str(), FILE_MODE_EMPTY), 0u);
    EXPECT_EQ(ReadFileBytes(path_), "0123456789");
    EXPECT_EQ(FileSysOpen(&file_, fresh.c_str(), FILE_MODE_UPDATE), 1u) << "struck once only";
}

TEST_F(FileFaults, AnOpenWithoutMemoryCreatesAndEmptiesNothing)
{
    Arm(FAULT_ALLOC, FAULT_FAIL);
    EXPECT_EQ(FileSysOpen(&file_, path_.c_str(), FILE_MODE_EMPTY), 0u);
    EXPECT_EQ(file_, FILE_NONE);
    EXPECT_EQ(ReadFileBytes(path_), "0123456789");
}

TEST_F(FileFaults, AFailingCloseLetsGoOfTheFileAllTheSame)
{
    Open();
    Arm(FAULT_CLOSE, FAULT_FAIL);
    EXPECT_EQ(FileSysClose(&file_), 0u);
    EXPECT_EQ(file_, FILE_NONE);
    EXPECT_EQ(FileSysOpenCount(), 0u);
}

TEST_F(FileFaults, FailingPositionCallsLeaveThePosition)
{
    Open();
    ASSERT_EQ(FileSysSeek(file_, 4), 1u);
    Arm(FAULT_SEEK, FAULT_FAIL);
    EXPECT_EQ(FileSysSeek(file_, 1), 0u);
    Arm(FAULT_SEEKSTART, FAULT_FAIL);
    EXPECT_EQ(FileSysSeekStart(file_), 0u);
    Arm(FAULT_SEEKEND, FAULT_FAIL);
    EXPECT_EQ(FileSysSeekEnd(file_), 0u);
    Arm(FAULT_SKIP, FAULT_FAIL);
    EXPECT_EQ(FileSysSkip(file_, 1), 0u);
    Arm(FAULT_GETOFFSET, FAULT_FAIL);
    int64_t offset = 9;
    EXPECT_EQ(FileSysGetOffset(&offset, file_), 0u);
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(Offset(), 4);
    EXPECT_EQ(FileSysSeek(file_, 1), 1u);
    EXPECT_EQ(FileSysSkip(file_, 1), 1u);
    EXPECT_EQ(FileSysSeekEnd(file_), 1u);
    EXPECT_EQ(Offset(), 10);
    EXPECT_EQ(FileSysSeekStart(file_), 1u);
    EXPECT_EQ(Offset(), 0);
}

namespace {
struct TransferCase {
    uint32_t mode;
    uint32_t ruleCount;
    uint32_t result;
    uint32_t moved; // of 6
};
const TransferCase TRANSFERS[] = {
    {FAULT_FAIL, 0, 0, 0},       {FAULT_FAIL, 3, 0, 0},       {FAULT_FAIL_AFTER, 0, 0, 0},
    {FAULT_FAIL_AFTER, 4, 0, 4}, {FAULT_FAIL_AFTER, 9, 0, 6}, {FAULT_FAIL_FULL, 0, 0, 6},
    {FAULT_SHORT, 0, 1, 0},      {FAULT_SHORT, 5, 1, 5},      {FAULT_SHORT, 9, 1, 6},
};
} // namespace

TEST_F(FileFaults, ReadsMoveWhatTheRuleSaysAndReportIt)
{
    Open();
    for (const TransferCase& each : TRANSFERS) {
        SCOPED_TRACE(testing::Message() << "mode " << each.mode << " count " << each.ruleCount);
        ASSERT_EQ(FileSysSeek(file_, 2), 1u);
        ASSERT_NE(Arm(FAULT_READ, each.mode, each.ruleCount), 0u);
        std::string bytes(6, '#');
        uint32_t count = 99;
        EXPECT_EQ(FileSysRead(&count, file_, bytes.data(), 6), each.result);
        EXPECT_EQ(count, each.moved);
        EXPECT_EQ(
            bytes, std::string("234567").substr(0, each.moved) + std::string(6 - each.moved, '#'));
        EXPECT_EQ(Offset(), 2 + each.moved);
        FaultDisarmAll();
    }
}

TEST_F(FileFaults, WritesMoveWhatTheRuleSaysAndReportIt)
{
    for (const TransferCase& each : TRANSFERS) {
        SCOPED_TRACE(testing::Message() << "mode " << each.mode << " count " << each.ruleCount);
        WriteFileBytes(path_, "0123456789");
        Open();
        ASSERT_EQ(FileSysSeek(file_, 7), 1u);
        ASSERT_NE(Arm(FAULT_WRITE, each.mode, each.ruleCount), 0u);
        uint32_t count = 99;
        EXPECT_EQ(FileSysWrite(&count, file_, "abcdef", 6), each.result);
        EXPECT_EQ(count, each.moved);
        EXPECT_EQ(Offset(), 7 + each.moved);
        std::string expected = "0123456789";
        expected.replace(
            7, std::min<size_t>(each.moved, 3), std::string("abcdef").substr(0, each.moved));
        EXPECT_EQ(ReadFileBytes(path_), expected);
        int64_t length;
        EXPECT_EQ(FileSysGetLength(&length, file_), 1u);
        EXPECT_EQ(length, static_cast<int64_t>(expected.size()));
        FaultDisarmAll();
        FileSysClose(&file_);
    }
}

TEST_F(FileFaults, ARefusedReservationChangesNothing)
{
    Open();
    Arm(FAULT_RESERVE, FAULT_FAIL);
    EXPECT_EQ(FileSysReserve(file_, 16384, 16384), 0u);
    EXPECT_EQ(FileSysReserve(file_, 16384, 16384), 1u);
    Arm(FAULT_RESERVE, FAULT_FAIL);
    EXPECT_EQ(FileSysReserve(file_, 32768, 16384), 0u)
        << "also where the space is reserved already";
    EXPECT_EQ(ReadFileBytes(path_), "0123456789");
}

TEST_F(FileFaults, ARuleStrikesOnlyTheFilesWhosePathItNames)
{
    const std::string other = directory_.path("other");
    Open();
    void* second;
    ASSERT_EQ(FileSysOpen(&second, other.c_str(), FILE_MODE_UPDATE), 1u);
    const uint32_t rule = Arm(FAULT_WRITE, FAULT_FAIL, 0, "other");
    uint32_t count;
    EXPECT_EQ(FileSysWrite(&count, file_, "x", 1), 1u);
    EXPECT_EQ(FileSysWrite(&count, second, "x", 1), 0u);
    EXPECT_EQ(FaultHits(rule), 1u);
    EXPECT_EQ(FileSysClose(&second), 1u);
}

TEST_F(FileFaults, CallsWithABadHandleMeetNoRule)
{
    const uint32_t rule = Arm(FAULT_READ, FAULT_FAIL);
    uint32_t count;
    char byte;
    EXPECT_EQ(FileSysRead(&count, FILE_NONE, &byte, 1), 0u);
    EXPECT_EQ(FaultHits(rule), 0u);
}

// ---- the observer ----

TEST_F(FileFaults, TheObserverSeesEveryOpenCloseReadWriteAndReservation)
{
    struct Seen {
        uint32_t op;
        std::string path;
        int64_t offset;
        uint32_t size, moved;
        bool operator==(const Seen&) const = default;
    };
    std::vector<Seen> seen;
    FileSysSetObserver(
        [](void* context, uint32_t op, const char* path, int64_t offset, uint32_t size,
           uint32_t moved) {
            static_cast<std::vector<Seen>*>(context)->push_back({op, path, offset, size, moved});
        },
        &seen);
    Open();
    uint32_t count;
    char bytes[32];
    FileSysSeek(file_, 8);
    FileSysRead(&count, file_, bytes, 4);
    FileSysWrite(&count, file_, "abc", 3);
    FileSysReserve(file_, 16384, 4096);
    Arm(FAULT_WRITE, FAULT_FAIL_AFTER, 1);
    FileSysWrite(&count, file_, "abc", 3);
    Arm(FAULT_RESERVE, FAULT_FAIL);
    FileSysReserve(file_, 16384, 4096);
    FileSysClose(&file_);
    FileSysOpen(&file_, directory_.path("absent").c_str(), FILE_MODE_READ);
    FileSysSetObserver(nullptr, nullptr);

    const std::vector<Seen> expected = {
        {FILE_OP_OPEN, path_, 0, 0, 1},   {FILE_OP_READ, path_, 8, 4, 2},
        {FILE_OP_WRITE, path_, 10, 3, 3}, {FILE_OP_RESERVE, path_, 16384, 4096, 4096},
        {FILE_OP_WRITE, path_, 13, 3, 1}, {FILE_OP_RESERVE, path_, 16384, 4096, 0},
        {FILE_OP_CLOSE, path_, 0, 0, 1},  {FILE_OP_OPEN, directory_.path("absent"), 0, 0, 0},
    };
    ASSERT_EQ(seen.size(), expected.size());
    for (size_t i = 0; i < seen.size(); ++i)
        EXPECT_TRUE(seen[i] == expected[i]) << "call " << i << ": op " << seen[i].op << " at "
                                            << seen[i].offset << ", moved " << seen[i].moved;
}

// ---- what only this system can show ----

#if defined(__linux__)

TEST_F(FileFaults, APipeInThePlaceOfAFileIsRefusedAtOnce)
{
    const std::string pipe = directory_.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (uint32_t mode : {1u, 2u, 261u}) {
        EXPECT_EQ(FileSysOpen(&file_, pipe.c_str(), mode), 0u) << mode;
        EXPECT_EQ(file_, FILE_NONE);
    }
}

TEST_F(FileFaults, FilesAreNotHandedOnToChildPrograms)
{
    Open();
    int found = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        std::error_code none;
        const auto link = "/proc/self/fd/" + std::to_string(descriptor);
        if (std::filesystem::read_symlink(link, none) == path_) {
            ++found;
            EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST_F(FileFaults, ReservingTakesDiskSpaceAheadInSteps)
{
    Open();
    struct stat status;
    ASSERT_EQ(FileSysReserve(file_, 16384, 16384), 1u);
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    if (status.st_blocks * 512 < 100000)
        GTEST_SKIP() << "this file system does not reserve";
    const auto first = status.st_blocks;
    EXPECT_GE(first * 512, 256 * 1024);
    EXPECT_LE(first * 512, 384 * 1024);
    EXPECT_EQ(status.st_size, 10);
    for (int block = 2; block < 16; ++block)
        ASSERT_EQ(FileSysReserve(file_, block * 16384, 16384), 1u);
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_blocks, first) << "inside the step";
    ASSERT_EQ(FileSysReserve(file_, 17 * 16384, 16384), 1u);
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_GT(status.st_blocks, first);
}

TEST_F(FileFaults, OnlyWhatWasReservedCountsAsReserved)
{
    Open();
    struct stat status;
    ASSERT_EQ(FileSysReserve(file_, 1 << 20, 16384), 1u);
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    const auto first = status.st_blocks;
    if (first * 512 < 100000)
        GTEST_SKIP() << "this file system does not reserve";
    ASSERT_EQ(FileSysReserve(file_, 512 << 10, 16384), 1u); // ahead of it
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    const auto second = status.st_blocks;
    EXPECT_GE((second - first) * 512, 256 << 10);
    ASSERT_EQ(FileSysReserve(file_, 4 << 20, 16384), 1u); // far behind it
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_GE((status.st_blocks - second) * 512, 256 << 10);
}

TEST_F(FileFaults, AFileThatBecameShorterIsReservedAnew)
{
    Open();
    struct stat status;
    ASSERT_EQ(FileSysReserve(file_, 16384, 16384), 1u);
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    if (status.st_blocks * 512 < 100000)
        GTEST_SKIP() << "this file system does not reserve";
    std::filesystem::resize_file(path_, 0); // gives the space back
    ASSERT_EQ(FileSysSeekEnd(file_), 1u);
    ASSERT_EQ(FileSysReserve(file_, 16384, 16384), 1u);
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_GE(status.st_blocks * 512, 256 << 10);
}

namespace {
// Runs `test` in a process of its own on a file system of one MiB. It returns 0, or the line that
// failed. -1: no such file system is to be had here.
int OnASmallDisk(const std::string& directory, const std::function<int()>& test)
{
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", directory.c_str(), "tmpfs", 0, "size=1m") != 0)
            _exit(250);
        const int line = test();
        SaveCoverage();
        _exit(line == 0 ? 0 : 1 + line % 200);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status))
        return 999;
    return WEXITSTATUS(status) == 250 ? -1 : WEXITSTATUS(status);
}
#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition))                                                                          \
            return __LINE__;                                                                       \
    } while (0)

int FillASmallDisk(const std::string& path)
{
    void* file;
    uint32_t count = 0;
    uint64_t total = 0;
    const std::string bytes(100000, 'x');
    CHECK(FileSysOpen(&file, path.c_str(), FILE_MODE_UPDATE));
    while (FileSysWrite(&count, file, bytes.data(), 100000))
        total += count;
    total += count; // what went in before the disk was full
    int64_t offset, length;
    CHECK(FileSysGetOffset(&offset, file) && static_cast<uint64_t>(offset) == total);
    CHECK(FileSysGetLength(&length, file) && static_cast<uint64_t>(length) == total);
    CHECK(total == 1 << 20);
    CHECK(FileSysWrite(&count, file, bytes.data(), 10) == 0 && count == 0);
    CHECK(FileSysReserve(file, offset, 16384) == 0);
    std::string back(total, 0);
    CHECK(FileSysSeekStart(file));
    CHECK(FileSysRead(&count, file, back.data(), static_cast<uint32_t>(total)) && count == total);
    CHECK(back == std::string(total, 'x'));
    CHECK(FileSysClose(&file));
    return 0;
}

int ReserveTheLastOfASmallDisk(const std::string& path)
{
    void* file;
    uint32_t count;
    CHECK(FileSysOpen(&file, path.c_str(), FILE_MODE_UPDATE));
    // 1 MiB in blocks of 16 KiB: four steps ahead fit, and every block of them.
    for (int64_t block = 0; block < 60; ++block)
        CHECK(FileSysReserve(file, block * 16384, 16384));
    void* other;
    CHECK(FileSysOpen(&other, (path + "2").c_str(), FILE_MODE_UPDATE));
    CHECK(FileSysWrite(&count, other, "x", 1) == 0); // all is reserved
    CHECK(FileSysClose(&other));
    CHECK(FileSysReserve(file, 64 * 16384, 16384) == 0);
    int64_t length;
    CHECK(FileSysGetLength(&length, file) && length == 0);
    const std::string bytes(64 * 16384, 'x');
    CHECK(FileSysWrite(&count, file, bytes.data(), static_cast<uint32_t>(bytes.size())));
    CHECK(FileSysClose(&file));
    return 0;
}

int ReserveWhenTheStepIsTooLarge(const std::string& path)
{
    void* file;
    uint32_t count;
    const std::string bytes(1024 * 1024 - 5 * 16384, 'x');
    CHECK(FileSysOpen(&file, path.c_str(), FILE_MODE_UPDATE));
    CHECK(FileSysWrite(&count, file, bytes.data(), static_cast<uint32_t>(bytes.size())));
    const int64_t end = static_cast<int64_t>(bytes.size());
    for (int64_t block = 0; block < 5; ++block)
        CHECK(FileSysReserve(file, end + block * 16384, 16384));
    CHECK(FileSysReserve(file, end + 5 * 16384, 16384) == 0);
    CHECK(FileSysReserve(file, end + 4 * 16384, 16384)); // had already
    CHECK(FileSysWrite(&count, file, bytes.data(), 5 * 16384));
    CHECK(FileSysClose(&file));
    return 0;
}
} // namespace

TEST_F(FileFaults, AFullDiskIsAResultWithTheBytesThatWentIn)
{
    const int result =
        OnASmallDisk(directory_.path(), [&] { return FillASmallDisk(directory_.path("full")); });
    if (result < 0)
        GTEST_SKIP() << "no file system of its own to be had";
    EXPECT_EQ(result, 0) << "failed in line (modulo 200) " << result - 1;
}

TEST_F(FileFaults, ReservedSpaceIsThereWhenItIsWritten)
{
    const int result = OnASmallDisk(
        directory_.path(), [&] { return ReserveTheLastOfASmallDisk(directory_.path("full")); });
    if (result < 0)
        GTEST_SKIP() << "no file system of its own to be had";
    EXPECT_EQ(result, 0) << "failed in line (modulo 200) " << result - 1;
}

TEST_F(FileFaults, ExactlyWhatIsAskedForIsReservedWhenTheStepAheadIsRefused)
{
    const int result = OnASmallDisk(
        directory_.path(), [&] { return ReserveWhenTheStepIsTooLarge(directory_.path("full")); });
    if (result < 0)
        GTEST_SKIP() << "no file system of its own to be had";
    EXPECT_EQ(result, 0) << "failed in line (modulo 200) " << result - 1;
}

#endif // __linux__
