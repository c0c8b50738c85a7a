// order_test.cpp: what reaches the files, and in which order, as an observer of all file calls sees
// it: records first, then blocks in ascending order, the control block last, and no block between
// the start of an operation and its end. A failing operation writes no block. And what is read: a
// node once, a record once.

#include <algorithm>

#include <gtest/gtest.h>

#include "support/file_calls.h"
#include "support/person_table.h"

namespace {

constexpr int64_t BLOCK = 16384;
constexpr uint32_t CONTROL = 16168;
constexpr uint32_t HEADER = 40; // of the control block, before the user data

class OrderOfWrites : public PeopleTest {
  protected:
    using Calls = std::vector<FileCalls::Call>;

    static bool IsBlockFile(const FileCalls::Call& call)
    {
        return call.path.find("Indexes") != std::string::npos;
    }
    static bool IsRecordsFile(const FileCalls::Call& call)
    {
        return call.path.find("Records") != std::string::npos;
    }
    static Calls Only(const Calls& calls, uint32_t op, bool (*file)(const FileCalls::Call&))
    {
        Calls result;
        for (const auto& call : calls) {
            if (call.op == op && file(call))
                result.push_back(call);
        }
        return result;
    }
    // Fails unless the writes are: records, then blocks in ascending order, each byte once, then
    // the control block from its start on (which may be missing when told so).
    static void ExpectOrderOfWrites(const Calls& calls, size_t records, bool hasControl = true)
    {
        Calls writes;
        for (const auto& call : calls) {
            if (call.op == FILE_OP_WRITE)
                writes.push_back(call);
        }
        if (!hasControl)
            writes.push_back({FILE_OP_WRITE, "Indexes", 0, CONTROL});
        ASSERT_GE(writes.size(), records + 1);
        for (size_t i = 0; i < records; ++i)
            EXPECT_TRUE(IsRecordsFile(writes[i])) << i;
        for (size_t i = records; i + 1 < writes.size(); ++i) {
            EXPECT_TRUE(IsBlockFile(writes[i])) << i;
            EXPECT_GT(writes[i].size, 0u) << i;
            EXPECT_LE(writes[i].size, BLOCK) << i;
            EXPECT_EQ(writes[i].offset / BLOCK, (writes[i].offset + writes[i].size - 1) / BLOCK)
                << i;
            EXPECT_GE(writes[i].offset, BLOCK) << i;
            if (i > records) {
                EXPECT_GE(writes[i].offset, writes[i - 1].offset + writes[i - 1].size) << i;
            }
        }
        EXPECT_TRUE(IsBlockFile(writes.back()));
        EXPECT_EQ(writes.back().offset, 0);
        EXPECT_GE(writes.back().size, HEADER);
        EXPECT_LE(writes.back().size, CONTROL);
    }
    static size_t BlockWrites(const FileCalls& files)
    {
        return Only(files.calls(), FILE_OP_WRITE, IsBlockFile).size();
    }
};

TEST_F(OrderOfWrites, AnAddWritesItsRecordThenBlocksThenTheControlBlock)
{
    People model;
    for (uint32_t n = 0; n < 60; ++n) {
        FileCalls files;
        AddPeople(table_, &model, n, n + 1, n % 4 ? 0 : 6000, n % 3 ? 0 : 5000);
        ASSERT_NO_FATAL_FAILURE(ExpectOrderOfWrites(files.calls(), 1)) << n;
    }
    ExpectHolds(table_, model);
}

TEST_F(OrderOfWrites, ADeleteThatEmptiesNodesWritesBlocksThenTheControlBlock)
{
    People model;
    AddPeople(table_, &model, 0, 9, 8000, 8000);
    // The control block is written when a root, an end or the free chain has changed.
    for (const auto& [id, changes] : {std::pair(5u, false), {1u, false}, {9u, true}, {2u, true}}) {
        FileCalls files;
        DeletePeople(table_, &model, {id});
        ASSERT_NO_FATAL_FAILURE(ExpectOrderOfWrites(files.calls(), 0, changes)) << id;
    }
    FileCalls files;
    AddPeople(table_, &model, 100, 101, 8000, 8000); // off the free chain
    ExpectOrderOfWrites(files.calls(), 1);
    ExpectHolds(table_, model);
}

// All of an operation's block writes belong to its end: nothing before IndxUpdateTable has begun.
TEST_F(OrderOfWrites, NoBlockIsWrittenBetweenTheStartOfAnOperationAndItsUpdate)
{
    struct Watch {
        uint32_t blockWrites = 0; // so far
        bool updating = false;    // IndxUpdateTable has been entered
        uint32_t early = 0;       // block writes before that
    };
    static Watch watch;
    People model;
    AddPeople(table_, &model, 0, 5, 8000, 8000);
    watch = {};
    TraceSetSink(
        [](void*, const TraceLine* line) {
            if (std::string(line->text).rfind("IndxUpdateTable(", 0) == 0)
                watch.updating = true;
            if (std::string(line->text).rfind("IndxAddRecordInternal(", 0) == 0)
                watch.updating = false;
        },
        nullptr, 4);
    FileSysSetObserver(
        [](void*, uint32_t op, const char* path, int64_t, uint32_t, uint32_t) {
            if (op == FILE_OP_WRITE && std::string(path).find("Indexes") != std::string::npos) {
                ++watch.blockWrites;
                watch.early += !watch.updating;
            }
        },
        nullptr);
    AddPeople(table_, &model, 5, 25, 8000, 8000);
    FileSysSetObserver(nullptr, nullptr);
    TraceSetSink(nullptr, nullptr, 0);
    EXPECT_GT(watch.blockWrites, 100u);
    EXPECT_EQ(watch.early, 0u);
    ExpectHolds(table_, model);
}

TEST_F(OrderOfWrites, AnAddRecordWritesNoBlockUntilTheUpdate)
{
    People model;
    AddPeople(table_, &model, 0, 5);
    FileCalls files;
    for (uint32_t n = 5; n < 50; ++n) {
        const Held blob = BlobOf(MakePerson(n, n % 5 ? 0 : 7000));
        ASSERT_EQ(IndxAddRecord(n + 1, table_, &static_cast<DbBlob*>(blob.get())->data), 1u);
        model[n + 1] = MakePerson(n, n % 5 ? 0 : 7000);
    }
    EXPECT_EQ(BlockWrites(files), 0u);
    EXPECT_EQ(Only(files.calls(), FILE_OP_WRITE, IsRecordsFile).size(), 45u);
    files.clear();
    ASSERT_EQ(IndxUpdateTable(table_), 1u);
    ExpectOrderOfWrites(files.calls(), 0);
    ExpectHolds(table_, model);
}

TEST_F(OrderOfWrites, AFailingOperationWritesNoBlock)
{
    People model;
    AddPeople(table_, &model, 0, 681);
    FileCalls files;
    Person again = MakePerson(1000);
    again.key = MakePerson(3).key; // refused by the last index, after splits in others
    EXPECT_EQ(Add(table_, &again), 0u);
    EXPECT_EQ(IndxSetRecordInTable(5, table_, BlobOf(MakePerson(1001)).get()), 0u);
    again = MakePerson(1002);
    again.name.reset();
    EXPECT_EQ(Add(table_, &again), 0u);
    EXPECT_EQ(files.count(FILE_OP_WRITE), 0u); // nor anything else
    again = MakePerson(1003);
    Fail(FAULT_WRITE, 1, 1, "Records");
    EXPECT_EQ(Add(table_, &again), 0u);
    FaultDisarmAll();
    Fail(FAULT_SEEKEND, 1, 1, "Records");
    EXPECT_EQ(Add(table_, &again), 0u);
    FaultDisarmAll();
    EXPECT_EQ(BlockWrites(files), 0u);
    ExpectHolds(table_, model);
}

TEST_F(OrderOfWrites, ReadingWritesNothingAndReadsNothingTwice)
{
    People model;
    AddPeople(table_, &model, 0, 1500);
    FileCalls files;
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 900, nullptr), INDX_RESULT_FOUND);
    // One node a level, each block once, whole.
    Calls reads = Only(files.calls(), FILE_OP_READ, IsBlockFile);
    EXPECT_EQ(reads.size(), static_cast<size_t>(Field(table_, 0)->levels));
    for (const auto& read : reads)
        EXPECT_EQ(read.size, BLOCK);
    // The record once; nothing for keys that are in memory already.
    files.clear();
    ASSERT_TRUE(PersonAt(cursor.get()));
    EXPECT_EQ(Only(files.calls(), FILE_OP_READ, IsRecordsFile).size(), 1u);
    EXPECT_EQ(files.calls().size(), 1u);
    files.clear();
    ASSERT_EQ(IndxFindKey(cursor.get(), 901, nullptr), INDX_RESULT_FOUND);
    ASSERT_EQ(IndxNextKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(files.calls().size(), 0u);
    // A whole walk reads each leaf once.
    ASSERT_EQ(IndxUpdateTable(table_), 1u); // lets go of the blocks
    files.clear();
    EXPECT_EQ(WalkIds(table_, "Id").size(), 1500u);
    std::vector<int64_t> offsets = files.offsets(FILE_OP_READ);
    EXPECT_EQ(offsets.size(), 3u); // 681 ids a leaf
    std::sort(offsets.begin(), offsets.end());
    EXPECT_EQ(std::adjacent_find(offsets.begin(), offsets.end()), offsets.end());
    EXPECT_EQ(files.count(FILE_OP_WRITE), 0u);
    ExpectHolds(table_, model);
}

TEST_F(OrderOfWrites, AnAddReadsEachNodeOnceAndWritesTheRecordInOneCall)
{
    People model;
    AddPeople(table_, &model, 0, 1500);
    FileCalls files;
    AddPeople(table_, &model, 1500, 1501);
    std::vector<int64_t> offsets;
    for (const auto& read : Only(files.calls(), FILE_OP_READ, IsBlockFile))
        offsets.push_back(read.offset);
    std::sort(offsets.begin(), offsets.end());
    EXPECT_EQ(std::adjacent_find(offsets.begin(), offsets.end()), offsets.end());
    size_t levels = 0;
    for (uint32_t position = 0; position < 6; ++position)
        levels += static_cast<size_t>(Field(table_, position)->levels);
    EXPECT_LE(offsets.size(), levels);
    EXPECT_EQ(Only(files.calls(), FILE_OP_READ, IsRecordsFile).size(), 0u);
    const Calls records = Only(files.calls(), FILE_OP_WRITE, IsRecordsFile);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].size, U32At(ReadFileBytes(RecordsPath()), records[0].offset));
    ExpectHolds(table_, model);
}

// Room for a fresh block is asked for when it is handed out, before anything is overwritten.
TEST_F(OrderOfWrites, RoomForFreshBlocksIsReservedBeforeAnythingIsWritten)
{
    People model;
    AddPeople(table_, &model, 0, 4, 8000, 8000);
    FileCalls files;
    AddPeople(table_, &model, 4, 5, 8000, 8000);
    const auto& calls = files.calls();
    const auto isReserve = [](const auto& call) { return call.op == FILE_OP_RESERVE; };
    const auto firstWrite = std::find_if(
        calls.begin(), calls.end(), [](const auto& call) { return call.op == FILE_OP_WRITE; });
    EXPECT_GT(std::count_if(calls.begin(), firstWrite, isReserve), 1);
    EXPECT_EQ(std::count_if(firstWrite, calls.end(), isReserve), 0);
    ExpectHolds(table_, model);
}

// A modified block is written once however often it was changed.
TEST_F(OrderOfWrites, ABlockIsWrittenOnceAnOperation)
{
    People model;
    AddPeople(table_, &model, 0, 20, 5000, 5000);
    FileCalls files;
    AddPeople(table_, &model, 20, 21, 5000, 5000);
    std::vector<int64_t> offsets;
    for (const auto& write : Only(files.calls(), FILE_OP_WRITE, IsBlockFile))
        offsets.push_back(write.offset);
    std::sort(offsets.begin(), offsets.end());
    EXPECT_EQ(std::adjacent_find(offsets.begin(), offsets.end()), offsets.end());
    ExpectHolds(table_, model);
}

TEST_F(OrderOfWrites, ANewTableIsDescribedInItsFileBeforeItIsHandedOut)
{
    FileCalls files;
    ASSERT_NE(OpenPeople(0, "Other"), nullptr);
    ExpectOrderOfWrites(files.calls(), 0);
    EXPECT_EQ(files.count(FILE_OP_WRITE), 1u);
}

// Kept: a block file always opens as modified, so that its control block is written once more at
// the close; nothing else is.
TEST_F(OrderOfWrites, OpeningReadsEachControlBlockOnceAndClosingRewritesIt)
{
    People model;
    AddPeople(table_, &model, 0, 50);
    Close();
    const std::string blocks = ReadFileBytes(BlocksPath());
    FileCalls files;
    Reload();
    EXPECT_EQ(files.count(FILE_OP_WRITE), 0u);
    const Calls reads = Only(files.calls(), FILE_OP_READ, IsBlockFile);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].offset, 0);
    EXPECT_EQ(reads[0].size, CONTROL);
    EXPECT_EQ(Only(files.calls(), FILE_OP_READ, IsRecordsFile).size(), 0u);
    files.clear();
    Close();
    EXPECT_EQ(files.count(FILE_OP_WRITE), 1u);
    EXPECT_EQ(files.offsets(FILE_OP_WRITE), std::vector<int64_t>{0});
    // The same description, the same blocks; only the words that mean nothing on disk may differ.
    std::string after = ReadFileBytes(BlocksPath());
    ASSERT_EQ(after.size(), blocks.size());
    EXPECT_EQ(after.substr(40), blocks.substr(40));
    EXPECT_EQ(after.substr(0, 24), blocks.substr(0, 24));
    Reload();
    ExpectHolds(table_, model);
}

} // namespace
