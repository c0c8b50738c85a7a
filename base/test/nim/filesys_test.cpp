// Files: what every call does, with reads out of a mapping and without. What faults do to them
// stands in filesys_fault_test.cpp.
#include "filemap.h"
#include "nim/fault.h"
#include "nim/filesys.h"
#include "support/file_bytes.h"
#include "support/seed.h"
#include "support/temporary_directory.h"
#include "sys.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

// How the bytes come out of the file.
enum class Reads {
    Mapped,     // out of a generous mapping that reaches past the end of the file
    Exact,      // out of a mapping that ends with the file, as where no other is to be had
    Unmappable, // asked for, but the system maps nothing
    Positioned, // switched off
    Stored      // as Mapped, and what lies inside the file is written there, too
};

class Files : public testing::TestWithParam<Reads> {
  protected:
    Files()
    {
        FileSysSetMapping(GetParam() != Reads::Positioned);
        FileSysSetMappedWriting(GetParam() == Reads::Stored);
        if (GetParam() == Reads::Exact)
            gFileMapLimit = 15 << 20; // the least generous mapping is larger
        if (GetParam() == Reads::Unmappable)
            gFileMapLimit = 0;
    }
    ~Files() override
    {
        FileSysSetMapping(TRUE);
        FileSysSetMappedWriting(FALSE);
        gFileMapLimit = SIZE_MAX;
        EXPECT_EQ(FileSysOpenCount(), 0u) << "a test has left a file open";
    }
    bool mapped() const
    {
        return GetParam() == Reads::Mapped || GetParam() == Reads::Exact ||
               GetParam() == Reads::Stored;
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.path("file");
};

// A handle that closes itself.
struct Handle {
    void* h = FILE_NONE;
    Handle() = default;
    explicit Handle(const std::string& path, uint32_t mode = FILE_MODE_UPDATE)
    {
        EXPECT_EQ(FileSysOpen(&h, path.c_str(), mode), 1u) << path;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { FileSysClose(&h); }

    void Write(int64_t offset, const std::string& bytes)
    {
        uint32_t count = 99;
        ASSERT_EQ(FileSysSeek(h, offset), 1u);
        ASSERT_EQ(FileSysWrite(&count, h, bytes.data(), static_cast<uint32_t>(bytes.size())), 1u);
        ASSERT_EQ(count, bytes.size());
    }
    std::string Read(int64_t offset, uint32_t size)
    {
        uint32_t count = 99;
        std::string bytes(size, '#');
        EXPECT_EQ(FileSysSeek(h, offset), 1u);
        EXPECT_EQ(FileSysRead(&count, h, bytes.data(), size), 1u);
        EXPECT_LE(count, size);
        bytes.resize(count);
        return bytes;
    }
    int64_t Offset()
    {
        int64_t offset = -9;
        EXPECT_EQ(FileSysGetOffset(&offset, h), 1u);
        return offset;
    }
    int64_t Length()
    {
        int64_t length = -9;
        EXPECT_EQ(FileSysGetLength(&length, h), 1u);
        return length;
    }
};

std::string Pattern(size_t size, uint32_t seed)
{
    std::string bytes(size, 0);
    std::mt19937 random(seed);
    for (char& c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

} // namespace

// The name of a way in the names of the tests.
static std::string ReadsName(const testing::TestParamInfo<Reads>& way)
{
    static const char* const names[] = {"Mapped", "Exact", "Unmappable", "Positioned", "Stored"};
    return names[static_cast<int>(way.param)];
}

INSTANTIATE_TEST_SUITE_P(
    EveryWay, Files,
    testing::Values(
        Reads::Mapped, Reads::Exact, Reads::Unmappable, Reads::Positioned, Reads::Stored),
    ReadsName);

// ---- opening and closing ----

TEST_P(Files, TheDatabasesModeCreatesAnEmptyFileAndKeepsAnExistingOne)
{
    {
        Handle file(path_, 261);
        EXPECT_EQ(file.Length(), 0);
        EXPECT_EQ(file.Offset(), 0);
        EXPECT_EQ(file.Read(0, 16), "");
    }
    EXPECT_TRUE(std::filesystem::exists(path_));
    WriteFileBytes(path_, "kept");
    Handle file(path_, 261);
    EXPECT_EQ(file.Length(), 4);
    EXPECT_EQ(file.Read(0, 16), "kept");
    file.Write(1, "E");
    EXPECT_EQ(ReadFileBytes(path_), "kEpt");
}

TEST_P(Files, Mode2EmptiesAndWritesAndDoesNotRead)
{
    WriteFileBytes(path_, "old bytes");
    {
        Handle file(path_, 2);
        EXPECT_EQ(ReadFileBytes(path_), "");
        file.Write(0, "new");
        uint32_t count = 7;
        char byte;
        EXPECT_EQ(FileSysSeekStart(file.h), 1u);
        EXPECT_EQ(FileSysRead(&count, file.h, &byte, 1), 0u);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(file.Offset(), 0);
    }
    EXPECT_EQ(ReadFileBytes(path_), "new");
    Handle created(directory_.path("created"), 2);
    EXPECT_TRUE(std::filesystem::exists(directory_.path("created")));
}

TEST_P(Files, Mode1ReadsAnExistingFileAndWritesNothing)
{
    WriteFileBytes(path_, "bytes");
    Handle file(path_, 1);
    EXPECT_EQ(file.Read(0, 5), "bytes");
    uint32_t count = 7;
    EXPECT_EQ(FileSysWrite(&count, file.h, "x", 1), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(FileSysReserve(file.h, 0, 1), 0u);
    EXPECT_EQ(ReadFileBytes(path_), "bytes");
    void* absent = nullptr;
    EXPECT_EQ(FileSysOpen(&absent, directory_.path("absent").c_str(), 1), 0u);
    EXPECT_EQ(absent, FILE_NONE);
    EXPECT_FALSE(std::filesystem::exists(directory_.path("absent")));
}

TEST_P(Files, EveryModeOfKnownBitsWithAnAccessOpensAndNoOtherDoes)
{
    WriteFileBytes(path_, "bytes");
    for (uint32_t mode = 0; mode < 0x400; ++mode) {
        const bool sound = (mode & ~0x107u) == 0 && (mode & 7) != 0;
        void* handle = nullptr;
        EXPECT_EQ(FileSysOpen(&handle, path_.c_str(), mode), sound ? 1u : 0u) << mode;
        EXPECT_EQ(handle != FILE_NONE, sound) << mode;
        FileSysClose(&handle);
    }
    for (uint32_t mode : {0x80000105u, 0x1000u, 0xFFFFFFFFu}) {
        void* handle = nullptr;
        EXPECT_EQ(FileSysOpen(&handle, path_.c_str(), mode), 0u) << mode;
        EXPECT_EQ(handle, FILE_NONE);
    }
}

TEST_P(Files, ARefusedModeLeavesTheFileAsItIs)
{
    WriteFileBytes(path_, "bytes");
    void* handle = nullptr;
    EXPECT_EQ(FileSysOpen(&handle, path_.c_str(), 0x20a), 0u);
    EXPECT_EQ(ReadFileBytes(path_), "bytes");
    EXPECT_EQ(FileSysOpen(&handle, directory_.path("absent").c_str(), 4), 0u);
    EXPECT_FALSE(std::filesystem::exists(directory_.path("absent")));
}

TEST_P(Files, ADirectoryIsRefusedInEveryMode)
{
    for (uint32_t mode : {1u, 2u, 4u, 5u, 0x101u, 261u}) {
        void* handle = nullptr;
        EXPECT_EQ(FileSysOpen(&handle, directory_.path().c_str(), mode), 0u) << mode;
        EXPECT_EQ(handle, FILE_NONE);
    }
}

TEST_P(Files, NullAndEmptyArgumentsAreAnswered)
{
    void* handle = nullptr;
    EXPECT_EQ(FileSysOpen(nullptr, path_.c_str(), 261), 0u);
    EXPECT_FALSE(std::filesystem::exists(path_));
    EXPECT_EQ(FileSysOpen(&handle, nullptr, 261), 0u);
    EXPECT_EQ(handle, FILE_NONE);
    handle = nullptr;
    EXPECT_EQ(FileSysOpen(&handle, "", 261), 0u);
    EXPECT_EQ(handle, FILE_NONE);
    EXPECT_EQ(FileSysClose(nullptr), 0u);

    Handle file(path_);
    uint32_t count = 7;
    EXPECT_EQ(FileSysRead(nullptr, file.h, &count, 4), 0u);
    EXPECT_EQ(FileSysWrite(nullptr, file.h, "abcd", 4), 0u);
    EXPECT_EQ(FileSysRead(&count, file.h, nullptr, 4), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(FileSysWrite(&count, file.h, nullptr, 4), 0u);
    EXPECT_EQ(FileSysGetOffset(nullptr, file.h), 0u);
    EXPECT_EQ(FileSysGetLength(nullptr, file.h), 0u);
    EXPECT_EQ(FileSysView(nullptr, file.h, 0, 1), 0u);
    EXPECT_EQ(file.Offset(), 0);
    EXPECT_EQ(ReadFileBytes(path_), "");
}

TEST_P(Files, EveryCallAnswersAHandleThatIsNone)
{
    void* stale;
    {
        Handle closed(path_);
        stale = closed.h;
    }
    Handle other(path_); // takes the stale one's place
    for (void* bad :
         {static_cast<void*>(nullptr), FILE_NONE, stale, reinterpret_cast<void*>(uintptr_t{1}),
          static_cast<void*>(&other)}) {
        uint32_t count = 7;
        int64_t number = 7;
        const void* view = this;
        char buffer[4] = {'#', '#', '#', '#'};
        EXPECT_EQ(FileSysRead(&count, bad, buffer, 4), 0u);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(buffer[0], '#');
        count = 7;
        EXPECT_EQ(FileSysWrite(&count, bad, buffer, 4), 0u);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(FileSysGetOffset(&number, bad), 0u);
        EXPECT_EQ(number, 0);
        number = 7;
        EXPECT_EQ(FileSysGetLength(&number, bad), 0u);
        EXPECT_EQ(number, 0);
        EXPECT_EQ(FileSysView(&view, bad, 0, 1), 0u);
        EXPECT_EQ(view, nullptr);
        EXPECT_EQ(FileSysSeek(bad, 0), 0u);
        EXPECT_EQ(FileSysSeekStart(bad), 0u);
        EXPECT_EQ(FileSysSeekEnd(bad), 0u);
        EXPECT_EQ(FileSysSkip(bad, 0), 0u);
        EXPECT_EQ(FileSysReserve(bad, 0, 1), 0u);
        EXPECT_EQ(FileSysClose(&bad), 0u);
        EXPECT_EQ(bad, FILE_NONE);
    }
    EXPECT_EQ(ReadFileBytes(path_), "");
}

TEST_P(Files, ClosingTwiceThroughOneVariableIsAnsweredTheSecondTime)
{
    void* handle;
    ASSERT_EQ(FileSysOpen(&handle, path_.c_str(), 261), 1u);
    EXPECT_EQ(FileSysOpenCount(), 1u);
    EXPECT_EQ(FileSysClose(&handle), 1u);
    EXPECT_EQ(handle, FILE_NONE);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(handle), ~uintptr_t{0});
    EXPECT_EQ(FileSysOpenCount(), 0u);
    EXPECT_EQ(FileSysClose(&handle), 0u);
}

// ---- positions ----

TEST_P(Files, PositionsAreSetMovedAndTold)
{
    WriteFileBytes(path_, "0123456789");
    Handle file(path_);
    EXPECT_EQ(FileSysSeekEnd(file.h), 1u);
    EXPECT_EQ(file.Offset(), 10);
    EXPECT_EQ(FileSysSeek(file.h, 4), 1u);
    EXPECT_EQ(FileSysSkip(file.h, 3), 1u);
    EXPECT_EQ(file.Offset(), 7);
    uint32_t count;
    char byte;
    EXPECT_EQ(FileSysRead(&count, file.h, &byte, 1), 1u);
    EXPECT_EQ(byte, '7');
    EXPECT_EQ(file.Offset(), 8);
    EXPECT_EQ(FileSysSeekStart(file.h), 1u);
    EXPECT_EQ(file.Offset(), 0);
    EXPECT_EQ(FileSysSkip(file.h, 0), 1u);
    EXPECT_EQ(file.Offset(), 0);
}

TEST_P(Files, APositionPastTheEndIsLegalAndANegativeOneIsNot)
{
    WriteFileBytes(path_, "0123456789");
    Handle file(path_);
    EXPECT_EQ(FileSysSeek(file.h, 1000), 1u);
    EXPECT_EQ(FileSysSeek(file.h, -1), 0u);
    EXPECT_EQ(FileSysSeek(file.h, INT64_MIN), 0u);
    EXPECT_EQ(file.Offset(), 1000);
    uint32_t count = 7;
    char byte;
    EXPECT_EQ(FileSysRead(&count, file.h, &byte, 1), 1u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(FileSysSkip(file.h, UINT32_MAX), 1u);
    EXPECT_EQ(file.Offset(), int64_t{1000} + UINT32_MAX);
}

TEST_P(Files, NoPositionPassesTheLargestOffset)
{
    Handle file(path_);
    EXPECT_EQ(FileSysSeek(file.h, INT64_MAX), 1u);
    EXPECT_EQ(FileSysSkip(file.h, 0), 1u);
    EXPECT_EQ(FileSysSkip(file.h, 1), 0u);
    EXPECT_EQ(file.Offset(), INT64_MAX);
    uint32_t count = 7;
    char bytes[8] = {};
    EXPECT_EQ(FileSysRead(&count, file.h, bytes, 8), 1u);
    EXPECT_EQ(count, 0u);
    count = 7;
    EXPECT_EQ(FileSysWrite(&count, file.h, bytes, 8), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(FileSysReserve(file.h, INT64_MAX, 8), 0u);
    EXPECT_EQ(FileSysReserve(file.h, -1, 8), 0u);
    const void* view;
    EXPECT_EQ(FileSysView(&view, file.h, INT64_MAX, 8), 0u);
    EXPECT_EQ(FileSysView(&view, file.h, -1, 8), 0u);
    EXPECT_EQ(file.Offset(), INT64_MAX);
    EXPECT_EQ(std::filesystem::file_size(path_), 0u);
}

// ---- reading and writing ----

TEST_P(Files, AReadAtTheEndSucceedsShortAndMovesByWhatItRead)
{
    WriteFileBytes(path_, "0123456789");
    Handle file(path_);
    EXPECT_EQ(file.Read(6, 100), "6789");
    EXPECT_EQ(file.Offset(), 10);
    EXPECT_EQ(file.Read(10, 100), "");
    EXPECT_EQ(file.Read(11, 100), "");
    EXPECT_EQ(file.Offset(), 11);
    EXPECT_EQ(file.Read(0, 10), "0123456789");
    EXPECT_EQ(file.Read(9, 1), "9");
}

TEST_P(Files, ReadsAndWritesOfNothingSucceedAndMoveNothing)
{
    Handle file(path_);
    uint32_t count = 7;
    EXPECT_EQ(FileSysSeek(file.h, 5), 1u);
    EXPECT_EQ(FileSysWrite(&count, file.h, nullptr, 0), 1u);
    EXPECT_EQ(count, 0u);
    count = 7;
    EXPECT_EQ(FileSysRead(&count, file.h, nullptr, 0), 1u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(file.Offset(), 5);
    EXPECT_EQ(file.Length(), 0);
    EXPECT_EQ(std::filesystem::file_size(path_), 0u);
}

TEST_P(Files, WritesRaiseTheKnownLengthAndLeaveZerosInBetween)
{
    Handle file(path_);
    file.Write(3, "abc");
    EXPECT_EQ(file.Length(), 6);
    EXPECT_EQ(file.Offset(), 6);
    file.Write(0, "x");
    EXPECT_EQ(file.Length(), 6);
    EXPECT_EQ(file.Read(0, 10), std::string("x\0\0abc", 6));
    EXPECT_EQ(ReadFileBytes(path_), std::string("x\0\0abc", 6));
}

TEST_P(Files, OwnWritesAreReadBackAtOnce)
{
    Handle file(path_);
    for (uint32_t i = 0; i < 64; ++i) {
        const std::string bytes = Pattern(16384, i);
        file.Write(int64_t{i} * 16384, bytes);
        ASSERT_EQ(file.Read(int64_t{i} * 16384, 16384), bytes);
        file.Write(int64_t{i / 2} * 16384 + 100, "changed");
        ASSERT_EQ(file.Read(int64_t{i / 2} * 16384 + 98, 9).substr(2), "changed");
    }
}

TEST_P(Files, WhatAnotherHandleAppendsIsSeenByReadsPastTheKnownLength)
{
    Handle reader(path_);
    Handle writer(path_);
    EXPECT_EQ(reader.Read(0, 10), "");
    std::string content;
    for (uint32_t i = 0; i < 200; ++i) {
        const std::string bytes = Pattern(1 + i * 37, i);
        writer.Write(static_cast<int64_t>(content.size()), bytes);
        const int64_t before = static_cast<int64_t>(content.size());
        content += bytes;
        EXPECT_EQ(reader.Length(), before) << "told without asking";
        ASSERT_EQ(reader.Read(before, static_cast<uint32_t>(bytes.size())), bytes);
        EXPECT_EQ(reader.Length(), static_cast<int64_t>(content.size()));
        writer.Write(before, "!");
        content[static_cast<size_t>(before)] = '!';
        ASSERT_EQ(reader.Read(before, 1), "!");
    }
    EXPECT_EQ(reader.Read(0, static_cast<uint32_t>(content.size()) + 9), content);
}

TEST_P(Files, SeekingToTheEndAsksForTheLength)
{
    Handle reader(path_);
    WriteFileBytes(path_, "appended by somebody else");
    EXPECT_EQ(reader.Length(), 0);
    EXPECT_EQ(FileSysSeekEnd(reader.h), 1u);
    EXPECT_EQ(reader.Offset(), 25);
    EXPECT_EQ(reader.Length(), 25);
    EXPECT_EQ(reader.Read(0, 30), "appended by somebody else");
}

TEST_P(Files, AFileThatGrowsPastItsMappingIsReadWhole)
{
    Handle file(path_);
    file.Write(0, "start");
    EXPECT_EQ(file.Read(0, 5), "start"); // mapped now, as far as it goes
    for (int64_t offset = 1 << 20; offset <= 100 << 20; offset += 3 << 20) {
        const std::string bytes = Pattern(5000, static_cast<uint32_t>(offset));
        file.Write(offset, bytes);
        ASSERT_EQ(file.Read(offset, 6000), bytes);
        ASSERT_EQ(file.Read(0, 5), "start");
        ASSERT_EQ(file.Read(offset - 4, 8), std::string(4, 0) + bytes.substr(0, 4));
    }
    EXPECT_EQ(file.Length(), (100 << 20) + 5000);
}

TEST_P(Files, OffsetsPastFourGigabytesAreReadAndWritten)
{
    Handle file(path_);
    const int64_t far = (int64_t{5} << 30) + 12345;
    file.Write(far, "far away");
    EXPECT_EQ(file.Offset(), far + 8);
    EXPECT_EQ(file.Length(), far + 8);
    EXPECT_EQ(file.Read(far, 100), "far away");
    EXPECT_EQ(file.Read(far - (int64_t{4} << 30), 3), std::string(3, 0));
    EXPECT_EQ(FileSysSeekEnd(file.h), 1u);
    EXPECT_EQ(file.Offset(), far + 8);
    Handle other(path_, 1);
    EXPECT_EQ(other.Read(far + 4, 100), "away");
    EXPECT_EQ(static_cast<int64_t>(std::filesystem::file_size(path_)), far + 8);
}

TEST_P(Files, LargeTransfersAreMovedWhole)
{
    const std::string bytes = Pattern(40 << 20, 1);
    {
        Handle file(path_);
        file.Write(1, bytes);
    }
    Handle file(path_);
    ASSERT_EQ(file.Read(1, static_cast<uint32_t>(bytes.size())), bytes);
}

TEST_P(Files, AnOpenFileMayBeRenamedAndDeleted)
{
    Handle file(path_);
    file.Write(0, "bytes");
    std::filesystem::rename(path_, path_ + ".moved");
    EXPECT_EQ(file.Read(0, 5), "bytes");
    std::filesystem::remove(path_ + ".moved");
    EXPECT_EQ(file.Read(0, 5), "bytes");
    file.Write(5, " more");
    EXPECT_EQ(file.Read(0, 10), "bytes more");
}

// ---- views ----

TEST_P(Files, AViewShowsTheBytesWhereTheyAreMapped)
{
    const std::string bytes = Pattern(100000, 3);
    WriteFileBytes(path_, bytes);
    Handle file(path_);
    EXPECT_EQ(FileSysSeek(file.h, 77), 1u);
    const void* view = this;
    ASSERT_EQ(FileSysView(&view, file.h, 4096, 16384), mapped() ? 1u : 0u);
    EXPECT_EQ(file.Offset(), 77);
    if (!mapped()) {
        EXPECT_EQ(view, nullptr);
        return;
    }
    EXPECT_EQ(std::string(static_cast<const char*>(view), 16384), bytes.substr(4096, 16384));
    file.Write(5000, "written");
    EXPECT_EQ(std::string(static_cast<const char*>(view) + 904, 7), "written");
    EXPECT_EQ(FileSysView(&view, file.h, 99999, 1), 1u);
}

TEST_P(Files, AViewIsRefusedForBytesThatAreNotAllInTheFile)
{
    WriteFileBytes(path_, Pattern(100000, 3));
    Handle file(path_);
    for (auto [offset, size] :
         {std::pair<int64_t, uint32_t>{100000, 1},
          {99999, 2},
          {0, 100001},
          {200000, 1},
          {0, 0},
          {-1, 5},
          {INT64_MAX, 1}}) {
        const void* view = this;
        EXPECT_EQ(FileSysView(&view, file.h, offset, size), 0u) << offset << " " << size;
        EXPECT_EQ(view, nullptr);
    }
    Handle blind(directory_.path("written"), 2);
    blind.Write(0, "bytes");
    const void* view = this;
    EXPECT_EQ(FileSysView(&view, blind.h, 0, 1), 0u) << "not open for reading";
}

TEST_P(Files, AViewFollowsWhatAnotherHandleAppends)
{
    Handle reader(path_);
    const void* view = nullptr;
    EXPECT_EQ(FileSysView(&view, reader.h, 0, 1), 0u) << "the file is empty";
    Handle writer(path_);
    writer.Write(0, Pattern(50000, 4));
    EXPECT_EQ(FileSysView(&view, reader.h, 49999, 1), mapped() ? 1u : 0u);
    writer.Write(50000, Pattern(50000, 5));
    ASSERT_EQ(FileSysView(&view, reader.h, 50000, 50000), mapped() ? 1u : 0u);
    if (mapped()) {
        EXPECT_EQ(std::string(static_cast<const char*>(view), 50000), Pattern(50000, 5));
    }
}

TEST_P(Files, ViewsAreRefusedWhileATestWatches)
{
    WriteFileBytes(path_, Pattern(1000, 3));
    Handle file(path_);
    const void* view;
    for (const uint32_t point : {FAULT_READ, FAULT_SEEK}) {
        FaultRule rule = {point, "nowhere", 1, 1, FAULT_FAIL, 0};
        ASSERT_NE(FaultArm(&rule), 0u);
        EXPECT_EQ(FileSysView(&view, file.h, 0, 1), 0u);
        FaultResetCalls();
        FaultStopCalls(); // the rule is still armed
        EXPECT_EQ(FileSysView(&view, file.h, 0, 1), 0u);
        FaultDisarmAll();
    }
    FaultRule other = {FAULT_ALLOC, nullptr, 1000, 1, FAULT_FAIL, 0};
    ASSERT_NE(FaultArm(&other), 0u); // looks at no read
    EXPECT_EQ(FileSysView(&view, file.h, 0, 1), mapped() ? 1u : 0u);
    FaultDisarmAll();
    FileSysSetObserver([](void*, uint32_t, const char*, int64_t, uint32_t, uint32_t) {}, nullptr);
    EXPECT_EQ(FileSysView(&view, file.h, 0, 1), 0u);
    FileSysSetObserver(nullptr, nullptr);
    FaultResetCalls();
    EXPECT_EQ(FileSysView(&view, file.h, 0, 1), 0u);
    FaultStopCalls();
    EXPECT_EQ(FileSysView(&view, file.h, 0, 1), mapped() ? 1u : 0u);
}

// ---- reserving ----

TEST_P(Files, ReservingChangesNeitherLengthNorPositionNorBytes)
{
    Handle file(path_);
    file.Write(0, "bytes");
    EXPECT_EQ(FileSysReserve(file.h, 16384, 16384), 1u);
    EXPECT_EQ(FileSysReserve(file.h, 32768, 16384), 1u);
    EXPECT_EQ(FileSysReserve(file.h, 1 << 20, 3 << 20), 1u);
    EXPECT_EQ(FileSysReserve(file.h, 0, 0), 1u);
    EXPECT_EQ(file.Length(), 5);
    EXPECT_EQ(file.Offset(), 5);
    EXPECT_EQ(FileSysSeekEnd(file.h), 1u);
    EXPECT_EQ(file.Offset(), 5);
    EXPECT_EQ(ReadFileBytes(path_), "bytes");
    file.Write(16384, "block");
    EXPECT_EQ(file.Read(16384, 10), "block");
    EXPECT_EQ(file.Read(5, 3), std::string(3, 0));
}

// ---- everything at once ----

TEST_P(Files, RandomCallsThroughTwoHandlesAgreeWithAModel)
{
    std::mt19937_64 random(TestSeed());
    auto below = [&](uint64_t limit) { return random() % limit; };
    Handle first(path_);
    Handle second(path_);
    std::string model;
    for (int i = 0; i < 20000; ++i) {
        Handle& file = below(2) ? first : second;
        const int64_t offset = static_cast<int64_t>(below(model.size() + 2000));
        const uint32_t size = static_cast<uint32_t>(below(3000));
        switch (below(8)) {
        case 0:
        case 1: {
            const std::string bytes = Pattern(size, static_cast<uint32_t>(i));
            // Mostly in place, sometimes growing, up to some MiB.
            const int64_t at = below(4) && !model.empty()
                                   ? offset % static_cast<int64_t>(model.size())
                                   : static_cast<int64_t>(model.size());
            if (at + size > 3 << 20)
                break;
            file.Write(at, bytes);
            if (model.size() < static_cast<size_t>(at) + size)
                model.resize(static_cast<size_t>(at) + size);
            model.replace(static_cast<size_t>(at), size, bytes);
            break;
        }
        case 2: {
            ASSERT_EQ(FileSysSeekEnd(file.h), 1u);
            ASSERT_EQ(file.Offset(), static_cast<int64_t>(model.size()));
            break;
        }
        case 3: {
            ASSERT_EQ(FileSysReserve(file.h, offset, size), 1u);
            break;
        }
        case 4: {
            const void* view;
            const bool inside = static_cast<size_t>(offset) + size <= model.size() && size > 0;
            if (FileSysView(&view, file.h, offset, size)) {
                ASSERT_TRUE(inside && mapped());
                ASSERT_EQ(memcmp(view, model.data() + offset, size), 0);
            } else if (GetParam() == Reads::Mapped && SysMapPastEnd()) {
                ASSERT_FALSE(inside);
            }
            break;
        }
        default: {
            const std::string expected = static_cast<size_t>(offset) < model.size()
                                             ? model.substr(static_cast<size_t>(offset), size)
                                             : "";
            ASSERT_EQ(file.Read(offset, size), expected) << i;
            ASSERT_EQ(file.Offset(), offset + static_cast<int64_t>(expected.size()));
        }
        }
    }
    EXPECT_EQ(ReadFileBytes(path_), model);
}

// ---- switching mappings off ----

namespace {
bool IsMapped(const std::string& path)
{
    Handle file(path);
    const void* view;
    return FileSysView(&view, file.h, 0, 1) == 1;
}
} // namespace

TEST(FileMappingSwitch, CountsForTheFilesThatAreOpenedFromThenOn)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("f");
    WriteFileBytes(path, "bytes");
    Handle before(path);
    FileSysSetMapping(FALSE);
    EXPECT_FALSE(IsMapped(path));
    const void* view;
    EXPECT_EQ(FileSysView(&view, before.h, 0, 1), 1u);
    FileSysSetMapping(TRUE);
    EXPECT_TRUE(IsMapped(path));
}

TEST(FileMappingSwitch, TheEnvironmentKeepsMappingsOff)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("f");
    WriteFileBytes(path, "bytes");
    auto set = [](const std::string& value) {
        static std::string text; // some systems keep the pointer
        text = "NIM_NO_MAPPING=" + value;
        putenv(text.data());
    };
    set("1");
    EXPECT_FALSE(IsMapped(path));
    set("yes");
    EXPECT_FALSE(IsMapped(path));
    set("00");
    EXPECT_FALSE(IsMapped(path));
    set("0");
    EXPECT_TRUE(IsMapped(path));
#if defined(__unix__)
    unsetenv("NIM_NO_MAPPING");
#else
    set("");
#endif
    EXPECT_TRUE(IsMapped(path));
}

// ---- mappings by themselves ----

TEST(FileMapping, AGenerousOneIsNotMadeAnewWhileTheFileGrowsIntoIt)
{
    TemporaryDirectory directory;
    Handle file(directory.path("f"));
    file.Write(0, "bytes");
    const void* first;
    if (!FileSysView(&first, file.h, 0, 5))
        GTEST_SKIP() << "no mapping to be had";
    file.Write((10 << 20) - 1, "x");
    const void* second;
    ASSERT_EQ(FileSysView(&second, file.h, 0, 10 << 20), 1u);
#if defined(__unix__)
    EXPECT_EQ(first, second);
#endif
    EXPECT_EQ(memcmp(second, "bytes", 5), 0);
}

TEST(FileMapping, AnExactOneLeavesATailOfAQuarterToPositionedReads)
{
    TemporaryDirectory directory;
    gFileMapLimit = 15 << 20;
    Handle file(directory.path("f"));
    const std::string bytes = Pattern(160000, 1);
    file.Write(0, bytes.substr(0, 100000));
    const void* view;
    ASSERT_EQ(FileSysView(&view, file.h, 0, 100000), 1u);
    file.Write(100000, bytes.substr(100000, 25000));
    EXPECT_EQ(FileSysView(&view, file.h, 100000, 25000), 0u) << "a tail of a quarter";
    EXPECT_EQ(FileSysView(&view, file.h, 0, 100000), 1u);
    EXPECT_EQ(file.Read(99990, 25010), bytes.substr(99990, 25010));
    file.Write(125000, bytes.substr(125000, 1));
    ASSERT_EQ(FileSysView(&view, file.h, 0, 125001), 1u) << "more than a quarter: mapped anew";
    EXPECT_EQ(memcmp(view, bytes.data(), 125001), 0);
    gFileMapLimit = SIZE_MAX;
}

TEST(FileMapping, OneThatCannotGrowGoesOnServingWhatItHas)
{
    TemporaryDirectory directory;
    gFileMapLimit = 100000;
    Handle file(directory.path("f"));
    const std::string bytes = Pattern(400000, 1);
    file.Write(0, bytes.substr(0, 100000));
    const void* first;
    ASSERT_EQ(FileSysView(&first, file.h, 0, 100000), 1u);
    file.Write(100000, bytes.substr(100000));
    const void* view;
    EXPECT_EQ(FileSysView(&view, file.h, 0, 100001), 0u);
    EXPECT_EQ(file.Read(50000, 300000), bytes.substr(50000, 300000));
    ASSERT_EQ(FileSysView(&view, file.h, 0, 100000), 1u);
    EXPECT_EQ(view, first);
    gFileMapLimit = SIZE_MAX;
    EXPECT_EQ(FileSysView(&view, file.h, 0, 100001), 0u) << "asked again by every read";
}

#if defined(__linux__)

// How often a file is mapped into this process.
static int MappingsOf(const std::string& path)
{
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.ends_with(path);
    return count;
}

TEST(FileMapping, AFileOfManyMegabytesGrowsToTheNextPowerOfTwoInPlace)
{
    TemporaryDirectory directory;
    Handle file(directory.path("f"));
    file.Write((20 << 20) - 1, "x");
    const void* first;
    ASSERT_EQ(FileSysView(&first, file.h, 0, 20 << 20), 1u);
    file.Write((32 << 20) - 1, "y");
    const void* second;
    ASSERT_EQ(FileSysView(&second, file.h, 0, 32 << 20), 1u);
    EXPECT_EQ(first, second);
    file.Write(32 << 20, "z");
    ASSERT_EQ(FileSysView(&second, file.h, 32 << 20, 1), 1u);
    EXPECT_EQ(*static_cast<const char*>(second), 'z');
    EXPECT_EQ(MappingsOf(directory.path("f")), 1) << "the smaller one is given back";
}

TEST(FileMapping, IsMadeByTheFirstReadAndGoneAfterTheClose)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("f");
    WriteFileBytes(path, "bytes");
    {
        Handle file(path);
        file.Write(5, "more");
        EXPECT_EQ(MappingsOf(path), 0);
        EXPECT_EQ(file.Read(9, 5), "");
        EXPECT_EQ(MappingsOf(path), 0) << "nothing to be read";
        EXPECT_EQ(file.Read(0, 5), "bytes");
        EXPECT_EQ(MappingsOf(path), 1);
    }
    EXPECT_EQ(MappingsOf(path), 0);
}

#endif // __linux__
