// Handles as numbers: never used twice, and nothing but a live one is recognised.
#include "filetable.h"
#include "nim/fault.h"
#include "nim/filesys.h"
#include "nim/path.h"
#include "support/file_bytes.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <unordered_set>
#include <vector>

static File* FakeFile(uintptr_t number)
{
    return reinterpret_cast<File*>(number * 16);
}

static uint64_t Number(const void* handle)
{
    return reinterpret_cast<uintptr_t>(handle);
}

TEST(FileTable, NumbersAreNeverUsedTwiceOverAHundredThousandOpens)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("f");
    std::unordered_set<uint64_t> seen;
    const uint32_t before = FileSysOpenCount();
    for (int i = 0; i < 100000; ++i) {
        void* handle = nullptr;
        ASSERT_EQ(FileSysOpen(&handle, path.c_str(), FILE_MODE_UPDATE), 1u);
        ASSERT_TRUE(seen.insert(Number(handle)).second) << i;
        ASSERT_EQ(FileSysClose(&handle), 1u);
    }
    EXPECT_EQ(FileSysOpenCount(), before);
}

TEST(FileTable, AllNumbersOfAProcessShareAnUpperHalfThatIsNoSmallNumberAndNotNone)
{
    void* first = FileTableAdd(FakeFile(1));
    void* second = FileTableAdd(FakeFile(2));
    // Each 65,536 uses of a slot carry one into the upper half.
    const int64_t carried =
        static_cast<int64_t>(Number(first) >> 32) - static_cast<int64_t>(Number(second) >> 32);
    EXPECT_LE(std::abs(carried), 100);
    EXPECT_GT(Number(first) >> 32, 0u);
    EXPECT_LT(Number(first) >> 32, 0x80000000u);
    EXPECT_EQ(FileTableRemove(first), FakeFile(1));
    EXPECT_EQ(FileTableRemove(second), FakeFile(2));
}

TEST(FileTable, ARemovedNumberLeadsNowhereWhenItsSlotServesAnotherFile)
{
    void* first = FileTableAdd(FakeFile(1));
    EXPECT_EQ(FileTableFind(first), FakeFile(1));
    EXPECT_EQ(FileTableRemove(first), FakeFile(1));
    void* second = FileTableAdd(FakeFile(2));
    ASSERT_EQ(Number(first) % FILE_SLOTS, Number(second) % FILE_SLOTS) << "not the same slot";
    EXPECT_EQ(FileTableFind(first), nullptr);
    EXPECT_EQ(FileTableRemove(first), nullptr);
    EXPECT_EQ(FileTableFind(second), FakeFile(2));
    EXPECT_EQ(FileTableRemove(second), FakeFile(2));
}

TEST(FileTable, NumbersThatWereNeverGivenLeadNowhere)
{
    void* handle = FileTableAdd(FakeFile(1));
    std::vector<uint64_t> wrong = {0, UINT64_MAX, 1, FILE_SLOTS, FILE_SLOTS - 1, 0x7fffffffffff};
    for (int bit = 0; bit < 64; ++bit)
        wrong.push_back(Number(handle) ^ (uint64_t{1} << bit));
    for (uint64_t number : wrong) {
        const void* stale = reinterpret_cast<void*>(static_cast<uintptr_t>(number));
        EXPECT_EQ(FileTableFind(stale), nullptr) << std::hex << number;
        EXPECT_EQ(FileTableRemove(stale), nullptr) << std::hex << number;
    }
    EXPECT_EQ(FileTableRemove(handle), FakeFile(1));
}

TEST(FileTable, IsFullWithSixtyFiveThousandAndServesAgainAfterwards)
{
    std::vector<void*> handles;
    for (uintptr_t i = 1;; ++i) {
        void* handle = FileTableAdd(FakeFile(i));
        if (handle == FILE_NONE)
            break;
        ASSERT_LT(i, FILE_SLOTS);
        handles.push_back(handle);
    }
    EXPECT_EQ(FileTableCount(), FILE_SLOTS - 1);
    TemporaryDirectory directory;
    void* refused = nullptr;
    EXPECT_EQ(FileSysOpen(&refused, directory.path("f").c_str(), FILE_MODE_UPDATE), 0u);
    EXPECT_EQ(refused, FILE_NONE);
    EXPECT_EQ(PathKind(directory.path("f").c_str()), PATH_ABSENT) << "created for nothing";
    WriteFileBytes(directory.path("full"), "bytes");
    EXPECT_EQ(FileSysOpen(&refused, directory.path("full").c_str(), FILE_MODE_EMPTY), 0u);
    EXPECT_EQ(ReadFileBytes(directory.path("full")), "bytes");
    for (size_t i = 0; i < handles.size(); ++i) {
        ASSERT_EQ(FileTableFind(handles[i]), FakeFile(i + 1));
        ASSERT_EQ(FileTableRemove(handles[i]), FakeFile(i + 1));
    }
    EXPECT_EQ(FileTableCount(), 0u);
    EXPECT_EQ(FileSysOpen(&refused, directory.path("f").c_str(), FILE_MODE_UPDATE), 1u);
    EXPECT_EQ(FileSysClose(&refused), 1u);
}

TEST(FileTable, ThreadsWithHandlesOfTheirOwnDoNotMeet)
{
    TemporaryDirectory directory;
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const std::string path = directory.path("f" + std::to_string(t));
            for (uint32_t i = 0; i < 2000; ++i) {
                void* handle;
                uint32_t count;
                const uint32_t written = t << 24 | i;
                uint32_t read = 0;
                const bool good = FileSysOpen(&handle, path.c_str(), FILE_MODE_UPDATE) &&
                                  FileSysWrite(&count, handle, &written, 4) &&
                                  FileSysSeekStart(handle) &&
                                  FileSysRead(&count, handle, &read, 4) && FileSysClose(&handle);
                failures[t] += !(good && read == written);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
    EXPECT_EQ(FileSysOpenCount(), 0u);
}
