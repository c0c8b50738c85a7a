// filesys_stored_test.cpp: writing through mappings, which hosts may switch on: when it happens,
// when it does not, and that a full disk stays a result.

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>

#include "nim/fault.h"
#include "nim/filesys.h"
#include "support/file_bytes.h"
#include "support/seed.h"
#include "support/small_disk.h"
#include "support/temporary_directory.h"

#if defined(__linux__)
#include <sys/stat.h>
#endif

namespace {

class StoredWrites : public testing::Test {
  protected:
    StoredWrites() { FileSysSetMappedWriting(TRUE); }
    ~StoredWrites() override
    {
        Close();
        FileSysSetMappedWriting(FALSE);
        EXPECT_EQ(FileSysOpenCount(), 0u);
    }
    void Open() { ASSERT_EQ(FileSysOpen(&file_, path_.c_str(), FILE_MODE_UPDATE), 1u); }
    void Close()
    {
        if (file_ != FILE_NONE) {
            EXPECT_EQ(FileSysClose(&file_), 1u);
        }
    }
    NimBool Write(int64_t offset, const std::string& bytes)
    {
        uint32_t moved = 0;
        EXPECT_EQ(FileSysSeek(file_, offset), 1u);
        const NimBool good =
            FileSysWrite(&moved, file_, bytes.data(), static_cast<uint32_t>(bytes.size()));
        EXPECT_EQ(moved, good ? bytes.size() : 0u);
        int64_t position = 0;
        EXPECT_EQ(FileSysGetOffset(&position, file_), 1u);
        EXPECT_EQ(position, offset + moved);
        return good;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("file");
    void* file_ = FILE_NONE;
};

TEST_F(StoredWrites, AreInTheFileAtOnceForEverybody)
{
    std::mt19937_64 random(TestSeed());
    std::string model(300000, 'm');
    WriteFileBytes(path_, model);
    Open();
    for (int i = 0; i < 500; ++i) {
        // Across the end, too: what goes behind it is written.
        const auto offset = static_cast<size_t>(random() % (model.size() + 1));
        const std::string bytes(random() % 20000, static_cast<char>(random()));
        ASSERT_EQ(Write(static_cast<int64_t>(offset), bytes), 1u);
        if (model.size() < offset + bytes.size())
            model.resize(offset + bytes.size());
        model.replace(offset, bytes.size(), bytes);
        ASSERT_EQ(ReadFileBytes(path_) == model, true) << i;
    }
    Close();
    EXPECT_EQ(ReadFileBytes(path_) == model, true);
}

TEST_F(StoredWrites, FailAsAnyWriteDoesWhenAFaultIsArmed)
{
    WriteFileBytes(path_, "0123456789");
    Open();
    FaultRule rule = {FAULT_WRITE, nullptr, 1, 1, FAULT_FAIL_AFTER, 3};
    FaultArm(&rule);
    uint32_t moved = 99;
    EXPECT_EQ(FileSysWrite(&moved, file_, "abcdef", 6), 0u);
    EXPECT_EQ(moved, 3u);
    FaultDisarmAll();
    EXPECT_EQ(ReadFileBytes(path_), "abc3456789");
}

TEST_F(StoredWrites, AreNotForFilesOpenForReadingAlone)
{
    WriteFileBytes(path_, "0123456789");
    ASSERT_EQ(FileSysOpen(&file_, path_.c_str(), FILE_MODE_READ), 1u);
    uint32_t moved = 99;
    EXPECT_EQ(FileSysWrite(&moved, file_, "abc", 3), 0u);
    EXPECT_EQ(moved, 0u);
    EXPECT_EQ(ReadFileBytes(path_), "0123456789");
}

#if defined(__linux__)

// Blocks of 512 bytes that the disk has given the file.
int64_t BlocksOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_blocks;
}

TEST_F(StoredWrites, FillTheHolesOfAFileBeforeTheFirstStore)
{
    {
        std::ofstream(path_).seekp(1 << 20).put('e');
    }
    if (BlocksOf(path_) * 512 >= 1 << 20)
        GTEST_SKIP() << "this file system makes no holes";
    Open();
    ASSERT_EQ(Write(500000, "bytes"), 1u);
    EXPECT_GE(BlocksOf(path_) * 512, 1 << 20);
    std::string expected((1 << 20) + 1, 0);
    expected.back() = 'e';
    expected.replace(500000, 5, "bytes");
    EXPECT_EQ(ReadFileBytes(path_) == expected, true);
}

// A store into a page that finds no room ends the process.
TEST_F(StoredWrites, MeetAFullDiskAsAResult)
{
    const std::string mounted = directory_.path("disk");
    ASSERT_TRUE(std::filesystem::create_directory(mounted));
    SmallDisk disk(SmallDisk::MOUNTED, mounted, 2 << 20);
    if (disk.kind() != SmallDisk::MOUNTED)
        GTEST_SKIP() << "no file system of its own is to be had here";
    path_ = mounted + "/file";
    {
        std::ofstream(path_).seekp(1 << 20).put('e');
    }
    Open();
    disk.Fill();
    EXPECT_EQ(Write(500000, "bytes"), 0u) << "into a hole";
    EXPECT_EQ(Write((1 << 20), "E"), 1u) << "where the file has its room";
    Close();
}

TEST(MappedWritingSwitch, TakesNoRoomForAFileWithMoreHolesThanTheDiskHasRoomFor)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path("f");
    // More than the disk has, and more than others may give back meanwhile.
    const uint64_t length =
        std::filesystem::space(directory.path("")).available + (uint64_t{64} << 30);
    {
        std::ofstream(path).seekp(static_cast<int64_t>(length)).put('e');
    }
    const int64_t before = BlocksOf(path);
    if (std::filesystem::file_size(path) <= length || before > 1024)
        GTEST_SKIP() << "this file system makes no such holes";
    FileSysSetMappedWriting(TRUE);
    void* file = FILE_NONE;
    ASSERT_EQ(FileSysOpen(&file, path.c_str(), FILE_MODE_UPDATE), 1u);
    uint32_t moved = 0;
    EXPECT_EQ(FileSysWrite(&moved, file, "bytes", 5), 1u) << "a write, and no store";
    char read[5] = {};
    EXPECT_EQ(FileSysSeekStart(file), 1u);
    EXPECT_EQ(FileSysRead(&moved, file, read, 5), 1u);
    EXPECT_EQ(std::string(read, 5), "bytes");
    EXPECT_EQ(FileSysClose(&file), 1u);
    FileSysSetMappedWriting(FALSE);
    EXPECT_LE(BlocksOf(path) - before, 1024);
}

#endif

TEST(MappedWritingSwitch, CountsForTheFilesThatAreOpenedFromThenOn)
{
    // A store and a write leave the same bytes. What tells them apart: ahead of its first store a
    // handle fills the holes of the file.
#if defined(__linux__)
    const TemporaryDirectory directory;
    const std::string path = directory.path("f");
    const auto fills = [&path] {
        std::filesystem::remove(path);
        {
            std::ofstream(path).seekp(1 << 20).put('e');
        }
        const int64_t before = BlocksOf(path);
        void* file = FILE_NONE;
        EXPECT_EQ(FileSysOpen(&file, path.c_str(), FILE_MODE_UPDATE), 1u);
        uint32_t moved = 0;
        EXPECT_EQ(FileSysWrite(&moved, file, "bytes", 5), 1u);
        EXPECT_EQ(FileSysClose(&file), 1u);
        return BlocksOf(path) - before > 1024;
    };
    {
        std::ofstream(path).seekp(1 << 20).put('e');
    }
    if (BlocksOf(path) * 512 >= 1 << 20)
        GTEST_SKIP() << "this file system makes no holes";
    FileSysSetMappedWriting(TRUE);
    EXPECT_TRUE(fills());
    FileSysSetMappedWriting(FALSE);
    EXPECT_FALSE(fills());
    for (const auto& [value, on] : {std::pair("1", true), {"0", false}, {"yes", true}}) {
        setenv("NIM_MAPPED_WRITING", value, 1);
        EXPECT_EQ(fills(), on) << value;
    }
    unsetenv("NIM_MAPPED_WRITING");
    EXPECT_FALSE(fills());
    FileSysSetMappedWriting(TRUE);
    FileSysSetMapping(FALSE);
    EXPECT_FALSE(fills()) << "without mappings nothing is stored through one";
    FileSysSetMapping(TRUE);
    FileSysSetMappedWriting(FALSE);
#else
    GTEST_SKIP() << "files have no holes here";
#endif
}

} // namespace
