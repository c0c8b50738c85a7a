// mapping_test.cpp: reads through a view of a file are what was written last, by whatever handle
// and by whichever program: block files are read in place, so a stale page would be a damaged tree.
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "filemap.h"
#include "nim/filesys.h"
#include "nim/nim.h"
#include "support/seed.h"
#include "support/temporary_directory.h"
#include "sys.h"
#include "windows/win32_calls.h"

namespace {

class Views : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(FileSysOpen(&file_, path_.c_str(), FILE_MODE_UPDATE), 1u);
        other_ = CreateFileW(
            LongForm(path_).c_str(), GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0,
            nullptr);
        ASSERT_NE(other_, INVALID_HANDLE_VALUE);
    }
    void TearDown() override
    {
        FileSysClose(&file_);
        CloseHandle(other_);
    }
    // The bytes in place; null when they cannot be shown.
    const char* View(int64_t offset, uint32_t size)
    {
        const void* view = nullptr;
        return FileSysView(&view, file_, offset, size) ? static_cast<const char*>(view) : nullptr;
    }
    void Write(int64_t offset, const std::string& bytes)
    {
        uint32_t count = 0;
        ASSERT_EQ(FileSysSeek(file_, offset), 1u);
        const auto size = static_cast<uint32_t>(bytes.size());
        ASSERT_EQ(FileSysWrite(&count, file_, bytes.data(), size), 1u);
    }
    // As another program writes and reads: through the system alone.
    void WriteElsewhere(int64_t offset, const std::string& bytes)
    {
        OVERLAPPED place = {};
        place.Offset = static_cast<DWORD>(offset);
        place.OffsetHigh = static_cast<DWORD>(offset >> 32);
        DWORD count = 0;
        const auto size = static_cast<DWORD>(bytes.size());
        ASSERT_TRUE(WriteFile(other_, bytes.data(), size, &count, &place));
    }
    std::string ReadElsewhere(int64_t offset, uint32_t size)
    {
        OVERLAPPED place = {};
        place.Offset = static_cast<DWORD>(offset);
        place.OffsetHigh = static_cast<DWORD>(offset >> 32);
        std::string bytes(size, '\0');
        DWORD count = 0;
        ReadFile(other_, bytes.data(), size, &count, &place);
        bytes.resize(count);
        return bytes;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("file");
    void* file_ = nullptr;
    HANDLE other_ = INVALID_HANDLE_VALUE;
};

} // namespace

TEST_F(Views, AreToBeHadHere)
{
    Write(0, "bytes");
    ASSERT_NE(View(0, 5), nullptr);
    EXPECT_EQ(memcmp(View(0, 5), "bytes", 5), 0);
}

TEST_F(Views, ShowWhatOtherHandlesWriteAtOnce)
{
    Write(0, std::string(3 * 65536, 'a'));
    const char* view = View(0, 3 * 65536);
    ASSERT_NE(view, nullptr);
    // At both ends of pages and of the steps in which views are placed.
    for (const int64_t offset : {0, 4094, 4096, 65534, 65536, 131072 - 2, 3 * 65536 - 4}) {
        WriteElsewhere(offset, "wxyz");
        EXPECT_EQ(memcmp(view + offset, "wxyz", 4), 0) << offset;
        Write(offset, "1234");
        EXPECT_EQ(memcmp(view + offset, "1234", 4), 0) << offset;
        EXPECT_EQ(ReadElsewhere(offset, 4), "1234") << offset;
    }
}

TEST_F(Views, AgreeWithReadsThroughEveryHandleInRandomOrder)
{
    std::mt19937_64 random(TestSeed());
    constexpr int64_t LENGTH = 1 << 20;
    std::string model(LENGTH, '\0');
    Write(0, model);
    ASSERT_NE(View(0, LENGTH), nullptr);
    for (int i = 0; i < 3000; ++i) {
        const auto offset = static_cast<int64_t>(random() % (LENGTH - 20000));
        const std::string bytes(1 + random() % 20000, static_cast<char>(random()));
        if (random() % 2)
            Write(offset, bytes);
        else
            WriteElsewhere(offset, bytes);
        model.replace(static_cast<size_t>(offset), bytes.size(), bytes);
        const auto at = static_cast<int64_t>(random() % (LENGTH - 20000));
        const char* view = View(at, 20000);
        ASSERT_NE(view, nullptr);
        ASSERT_EQ(memcmp(view, model.data() + at, 20000), 0) << i;
        if (i % 16 == 0) {
            ASSERT_EQ(ReadElsewhere(at, 20000), model.substr(static_cast<size_t>(at), 20000));
        }
    }
}

TEST_F(Views, FollowAFileThatAnotherProgramLetsGrow)
{
    std::string model;
    for (int step = 1; step <= 300; ++step) {
        const std::string bytes(static_cast<size_t>(step) * 37, static_cast<char>('a' + step % 26));
        WriteElsewhere(static_cast<int64_t>(model.size()), bytes);
        model += bytes;
        std::string read(model.size(), '\0');
        uint32_t count = 0;
        ASSERT_EQ(FileSysSeekStart(file_), 1u);
        ASSERT_EQ(FileSysRead(&count, file_, read.data(), static_cast<uint32_t>(read.size())), 1u);
        ASSERT_EQ(count, model.size());
        ASSERT_TRUE(read == model) << step;
    }
}

TEST_F(Views, ReachBeyondFourGigabytes)
{
    DWORD count = 0; // a sparse file where the volume knows them
    DeviceIoControl(
        other_, 0x000900C4 /* FSCTL_SET_SPARSE */, nullptr, 0, nullptr, 0, &count, nullptr);
    constexpr int64_t DISTANT = (int64_t{5} << 30) + 12345;
    Write(DISTANT, "far away");
    Write(DISTANT & 0xFFFFFFFF, "near");
    const char* view = View(DISTANT, 8);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(memcmp(view, "far away", 8), 0);
    WriteElsewhere(DISTANT, "FAR");
    EXPECT_EQ(memcmp(view, "FAR away", 8), 0);
    EXPECT_EQ(memcmp(View(DISTANT & 0xFFFFFFFF, 4), "near", 4), 0);
}

TEST_F(Views, OfMoreThanTheSystemShouldKeepBooksOfAreNotMade)
{
    void* address = nullptr;
    EXPECT_FALSE(SysMap(&address, SYS_NO_FILE, (size_t{64} << 30) + 1, false));
    EXPECT_EQ(address, nullptr);
}

TEST_F(Views, DoNotKeepAFileFromBeingDeletedOrReplacedAfterTheClose)
{
    Write(0, std::string(100000, 'a'));
    ASSERT_NE(View(0, 100000), nullptr);
    FileSysClose(&file_);
    CloseHandle(other_);
    other_ = INVALID_HANDLE_VALUE;
    ASSERT_EQ(FileSysOpen(&file_, path_.c_str(), FILE_MODE_EMPTY), 1u) << "emptied";
    FileSysClose(&file_);
    EXPECT_TRUE(DeleteFileW(LongForm(path_).c_str()));
    EXPECT_EQ(GetFileAttributesW(LongForm(path_).c_str()), INVALID_FILE_ATTRIBUTES);
}
