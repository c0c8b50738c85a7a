// block_release_test.cpp: how blocks leave memory: what a release, a back-out, a flush and the end
// of the file write, in which order, and what becomes of a write that fails.

#include "support/block_file.h"

#include <cstring>
#include <random>

#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/file_calls.h"
#include "support/seed.h"
#include "support/trace_recorder.h"

namespace {

class BlockRelease : public BlockFileTest {
  protected:
    // The bytes of a block in the file.
    std::string Stored(int32_t tId)
    {
        return ReadFileBytes(path()).substr((static_cast<size_t>(tId) + 1) * 16384, 16384);
    }
    // A block of which only the ends are in memory. They come out of a copy of the file, so that
    // nothing need be mapped.
    uint8_t* TakeEnds(int32_t tId, uint32_t front, uint32_t back)
    {
        const std::string bytes = Stored(tId);
        uint8_t* pData =
            BlckBringIn(oBlck_, tId, reinterpret_cast<const uint8_t*>(bytes.data()), front, back);
        EXPECT_NE(pData, nullptr);
        return pData;
    }
    // A file of one block, filled with 'y'; its id.
    int32_t MakeBlockOfY()
    {
        Open();
        const int32_t tId = New('y');
        Release();
        return tId;
    }
};

using Offsets = std::vector<int64_t>;

TEST_F(BlockRelease, NothingIsWrittenBeforeThenBlocksAscendingThenTheControlBlock)
{
    MakeBlocks(5);
    FileCalls calls;
    for (const int id : {3, 0, 4, 1})
        Fill(Get(id), 'm');
    New('n');
    Discard(2);
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    Release();
    EXPECT_EQ(
        calls.offsets(FILE_OP_WRITE),
        (Offsets{1 * 16384, 2 * 16384, 3 * 16384, 4 * 16384, 5 * 16384, 6 * 16384, 0}));
    const std::string image(static_cast<const char*>(oBlck_), 16168);
    std::string stored = ReadFileBytes(path()).substr(0, 16168);
    EXPECT_EQ(stored[16], 1); // cleared in memory once it was written
    stored[16] = 0;
    EXPECT_TRUE(stored == image);
}

// Declares bytes of a block and fills them.
void Change(uint8_t* pData, uint32_t offset, uint32_t size, char letter)
{
    ASSERT_TRUE(BlckWillChange(pData, offset, size));
    memset(pData + offset, letter, size);
}

// What was not declared is in the file already, and stays there as it is.
TEST_F(BlockRelease, WritesWhatWasDeclared)
{
    MakeBlocks(3);
    Release();
    Change(Get(0), 0, 100, 'a');
    Change(Get(1), 20, 4, 'b');
    Change(Get(1), 10000, 200, 'b');
    Change(Get(1), 10100, 50, 'B'); // inside what was declared
    ASSERT_TRUE(BlckWillChange(Get(2), 300, 1));
    Fill(Get(2), 'c'); // marked whole
    auto* pUserData = static_cast<char*>(BlckUserData(oBlck_));
    BlckUserDataWillChange(oBlck_, 60);
    memset(pUserData, 'u', 60);
    std::string expected = ReadFileBytes(path());
    expected.replace(16384, 100, 100, 'a');
    expected.replace(2 * 16384 + 20, 4, 4, 'b');
    expected.replace(2 * 16384 + 10000, 200, 200, 'b');
    expected.replace(2 * 16384 + 10100, 50, 50, 'B');
    expected.replace(3 * 16384, 16384, 16384, 'c');
    expected.replace(40, 60, 60, 'u');
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.sizes(FILE_OP_WRITE), (std::vector<uint32_t>{100, 10180, 16384, 100}));
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), (Offsets{16384, 2 * 16384 + 20, 3 * 16384, 0}));
    const std::string after = ReadFileBytes(path());
    EXPECT_EQ(after.substr(24), expected.substr(24)); // the words before count blocks
    // The user data that a host marks is written whole, and so is what failed to be written before.
    BlckUserDataWillChange(oBlck_, 60);
    {
        const ArmedFault fault(FAULT_WRITE);
        Release();
    }
    BlckUserDataModified(oBlck_);
    Release();
    BlckUserDataWillChange(oBlck_, 10);
    Release();
    EXPECT_EQ(
        calls.sizes(FILE_OP_WRITE),
        (std::vector<uint32_t>{100, 10180, 16384, 100, 100, 16168, 50}));
}

// Between two writes of one block a process can die: there is one, unless something between its
// parts is not in memory.
TEST_F(BlockRelease, ABlockIsWrittenAtOnceWhereAllBetweenIsThere)
{
    const int32_t tId = MakeBlockOfY();
    for (const bool whole : {true, false}) {
        uint8_t* pData = whole ? Get(tId) : TakeEnds(tId, 4000, 4000);
        Change(pData, 20, 4, 'a');
        Change(pData, 3000, 8, 'b');
        Change(pData, 16000, 8, 'c');
        FileCalls calls;
        Release();
        const std::vector<uint32_t> parts = {3008 - 20, 8};
        EXPECT_EQ(calls.sizes(FILE_OP_WRITE), whole ? std::vector<uint32_t>{16008 - 20} : parts);
    }
}

// Ranges are joined when there are many; what lies between two of them is not made up.
TEST_F(BlockRelease, ManyChangesOnBothSidesOfWhatIsNotInMemory)
{
    const int32_t tId = MakeBlockOfY();
    std::string expected = Stored(tId);
    // What is not there lies between the two that are closest.
    uint8_t* pData = TakeEnds(tId, 8000, 8000);
    for (const uint32_t offset : {0u, 2500u, 7900u, 8500u, 12000u, 16000u}) {
        Change(pData, offset, 8, 'z');
        expected.replace(offset, 8, 8, 'z');
    }
    Release();
    EXPECT_TRUE(Stored(tId) == expected);
}

// Whatever is declared, in whatever order, is written, and of the rest nothing that differs.
TEST_F(BlockRelease, RandomChangesAreAllWritten)
{
    const int32_t tId = MakeBlockOfY();
    std::mt19937_64 random(TestSeed());
    for (int round = 0; round < 300; ++round) {
        std::string expected = Stored(tId);
        const auto front = static_cast<uint32_t>(random() % 9000);
        const auto back = static_cast<uint32_t>(random() % 7000);
        uint8_t* pData = random() % 4 ? TakeEnds(tId, front, back) : Get(tId);
        for (uint64_t changes = random() % 12; changes > 0; --changes) {
            const auto offset = static_cast<uint32_t>(random() % 16384);
            const auto size = static_cast<uint32_t>(
                random() % std::min<uint32_t>(16385 - offset, random() % 2 ? 16384 : 64));
            const char letter = static_cast<char>('a' + random() % 26);
            Change(pData, offset, size, letter);
            expected.replace(offset, size, size, letter);
        }
        Release();
        ASSERT_TRUE(Stored(tId) == expected) << round;
    }
}

// A block of which only the ends were brought into memory is a whole one to everybody who does not
// know that.
TEST_F(BlockRelease, TheRestOfABlockFollowsWhereItIsNeeded)
{
    Open();
    for (const char* use : {"get", "mark", "discard", "flush", "release"}) {
        New('x');
        const int tId = New('y');
        Release();
        uint8_t* pData = TakeEnds(tId, 500, 1000);
        bool bInMemory = false;
        ASSERT_EQ(BlckReadBlock(&bInMemory, oBlck_, tId), pData);
        EXPECT_TRUE(bInMemory);
        Change(pData, 400, 200, 'z');          // past what was there
        Change(pData, 16384 - 1200, 300, 'w'); // on both sides
        std::string expected(16384, 'y');
        expected.replace(400, 200, 200, 'z');
        expected.replace(16384 - 1200, 300, 300, 'w');
        if (use == std::string("get")) {
            EXPECT_EQ(Get(tId), pData);
            EXPECT_TRUE(std::string(reinterpret_cast<char*>(pData), 16384) == expected);
        } else if (use == std::string("mark")) {
            BlckModifiedBlock(pData, oBlck_);
        } else if (use == std::string("discard")) {
            BlckDiscardBlock(pData, oBlck_);
            expected.replace(0, 4, 4, '\xff');
        } else if (use == std::string("flush")) {
            EXPECT_EQ(BlckFlushBlock(oBlck_, pData), 1u);
        }
        Release();
        EXPECT_TRUE(Stored(tId) == expected) << use;
        if (use == std::string("discard"))
            New('x'); // the chain is empty again
    }
}

// Only what is there may change: a declaration that cannot bring it in changes nothing.
TEST_F(BlockRelease, WhatCannotBeReadCannotBeDeclared)
{
    const int32_t tId = MakeBlockOfY();
    uint8_t* pData = TakeEnds(tId, 500, 1000);
    {
        const ArmedFault fault(FAULT_READ, 1, 0);
        EXPECT_TRUE(BlckWillChange(pData, 0, 500));
        EXPECT_TRUE(BlckWillChange(pData, 16384 - 1000, 1000));
        EXPECT_FALSE(BlckWillChange(pData, 0, 501));
        EXPECT_FALSE(BlckWillChange(pData, 16384 - 1001, 1));
        EXPECT_TRUE(BlckWillChange(pData, 5000, 0)); // nothing
    }
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.sizes(FILE_OP_WRITE), (std::vector<uint32_t>{500, 1000}));
    EXPECT_TRUE(Stored(tId) == std::string(16384, 'y'));
}

#if !defined(NDEBUG)
// The proof of the contract: a byte that was changed and not declared ends the process.
TEST_F(BlockRelease, AByteThatWasNotDeclaredEndsTheProcess)
{
    const int32_t tId = MakeBlockOfY();
    uint8_t* pData = Get(tId);
    Change(pData, 100, 10, 'z');
    for (const int offset : {0, 99, 110, 16383}) {
        const uint8_t kept = pData[offset];
        EXPECT_DEATH(
            {
                pData[offset] = '!';
                Release();
            },
            "DiffersAsDeclared")
            << offset;
        EXPECT_EQ(pData[offset], kept);
    }
    Release();
}
#endif

// What is written in two parts has failed when one of them has.
TEST_F(BlockRelease, EitherPartThatFailsIsAFailedWrite)
{
    const int32_t tId = MakeBlockOfY();
    for (uint32_t nth : {1u, 2u, 3u}) {
        uint8_t* pData = TakeEnds(tId, 500, 1000);
        Change(pData, 0, 500, 'y');
        Change(pData, 15384, 1000, 'y');
        LogRecorder log;
        const ArmedFault fault(FAULT_WRITE, nth);
        Release();
        EXPECT_EQ(log.count(1300), nth < 3 ? 1u : 0u) << nth;
        EXPECT_EQ(fault.hits(), nth < 3 ? 1u : 0u) << nth;
    }
}

// Where the rest cannot be read, nothing is made up: what is there is written, or nothing.
TEST_F(BlockRelease, ARestThatCannotBeReadStaysAsItIsInTheFile)
{
    const int32_t tId = MakeBlockOfY();
    uint8_t* pData = TakeEnds(tId, 500, 0);
    {
        const ArmedFault fault(FAULT_READ, 1, 0);
        memset(pData, 'z', 10);
        void* pAgain = nullptr;
        EXPECT_EQ(BlckGetBlock(&pAgain, oBlck_, tId), 0u);
        EXPECT_EQ(BlckFlushBlock(oBlck_, pData), 0u);
        EXPECT_EQ(BlckModifiedBlock(pData, oBlck_), 1u);
        EXPECT_EQ(BlckDiscardBlock(pData, oBlck_), 1u);
        Release();
    }
    std::string expected(16384, 'y');
    expected.replace(0, 10, 10, 'z');
    expected.replace(0, 4, 4, '\xff');
    EXPECT_TRUE(Stored(tId) == expected);
}

TEST_F(BlockRelease, OnlyChangedBlocksAreWrittenAndNoControlBlockThatIsUnchanged)
{
    MakeBlocks(3);
    Get(0);
    Fill(Get(1), 'm');
    Get(2);
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), Offsets{2 * 16384});
}

TEST_F(BlockRelease, AnInvalidHandleIsIgnored)
{
    void* oWrong = ObjIntegerNew(1);
    TraceRecorder trace;
    BlckReleaseAll(nullptr);
    BlckReleaseAll(oWrong);
    BlckBackoutAll(nullptr);
    BlckBackoutAll(oWrong);
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    ObjReleaseInternal(&oWrong);
}

TEST_F(BlockRelease, ABlockModifiedAndDiscardedIsWrittenOnceWithItsLink)
{
    MakeBlocks(2);
    Discard(0);
    Release();
    Fill(Get(1), 'm');
    Discard(1);
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), (Offsets{2 * 16384, 0}));
    const std::string bytes = ReadFileBytes(path());
    EXPECT_EQ(U32At(bytes, 2 * 16384), 0u); // the former head
    EXPECT_EQ(bytes.substr(2 * 16384 + 4, 16380), std::string(16380, 'm'));
}

TEST_F(BlockRelease, ADiscardedBlockBecomesTheHeadAndTheControlBlockFollowsIt)
{
    MakeBlocks(3);
    Discard(2);
    Release();
    Discard(0);
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), (Offsets{16384, 0}));
    const std::string bytes = ReadFileBytes(path());
    EXPECT_EQ(U32At(bytes, 12), 0u);
    EXPECT_EQ(U32At(bytes, 16384), 2u);
    EXPECT_EQ(U32At(bytes, 3 * 16384), 0xFFFFFFFFu);
}

TEST_F(BlockRelease, SeveralDiscardedBlocksJoinInAscendingOrderSoTheHighestHeadsTheChain)
{
    MakeBlocks(3);
    Discard(2);
    Discard(0);
    Discard(1);
    Release();
    const std::string bytes = ReadFileBytes(path());
    EXPECT_EQ(U32At(bytes, 12), 2u);
    EXPECT_EQ(U32At(bytes, 3 * 16384), 1u);
    EXPECT_EQ(U32At(bytes, 2 * 16384), 0u);
    EXPECT_EQ(U32At(bytes, 1 * 16384), 0xFFFFFFFFu);
}

TEST_F(BlockRelease, ABlockMarkedDiscardedCanBeUsedUntilItLeavesMemory)
{
    MakeBlocks(1);
    Discard(0);
    EXPECT_EQ(Get(0)[0], 'A');
    Get(0)[9] = 'w';
    Release();
    EXPECT_EQ(ReadFileBytes(path())[16384 + 9], 'w');
}

// ---- back-out ----------------------------------------------------------------------------------

TEST_F(BlockRelease, ABackoutWritesNothingAndBlocksShowTheDiskAgain)
{
    MakeBlocks(2);
    const std::string before = ReadFileBytes(path());
    Fill(Get(0), 'm');
    Discard(1);
    FileCalls calls;
    Backout();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_EQ(ReadFileBytes(path()), before);
    EXPECT_EQ(Get(0)[0], 'A');
    Release();
    EXPECT_EQ(ReadFileBytes(path()), before); // block 1 has not joined the chain
}

TEST_F(BlockRelease, ABackoutRestoresNeitherCountNorUserData)
{
    MakeBlocks(1);
    New();
    static_cast<char*>(BlckUserData(oBlck_))[7] = 'u';
    BlckUserDataModified(oBlck_);
    FileCalls calls;
    Backout();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_EQ(control()->bModified, 1u);
    Release();
    const std::string bytes = ReadFileBytes(path());
    EXPECT_EQ(U32At(bytes, 8), 2u);
    EXPECT_EQ(bytes[47], 'u');
    // What a back-out left is written when the file is closed, too.
    New();
    Backout();
    Close();
    EXPECT_EQ(U32At(ReadFileBytes(path()), 8), 3u);
}

// ---- flushing one block ------------------------------------------------------------------------

TEST_F(BlockRelease, AFlushWritesTheBlockNowWhetherItChangedOrNot)
{
    MakeBlocks(2);
    FileCalls calls;
    TraceRecorder trace;
    EXPECT_EQ(BlckFlushBlock(oBlck_, Get(1)), 1u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Write out block 1, 16384 bytes at offset 32768"));
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), Offsets{2 * 16384});
    Get(1)[0] = 'w'; // and nobody is told
    EXPECT_EQ(BlckFlushBlock(oBlck_, Get(1)), 1u);
    EXPECT_EQ(Stored(1), "w" + std::string(16383, 'B'));
    Fill(Get(0), 'm');
    EXPECT_EQ(BlckFlushBlock(oBlck_, Get(0)), 1u);
    EXPECT_EQ(ReadFileBytes(path())[16384], 'm');
    calls.clear();
    Release(); // its mark is cleared
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
}

TEST_F(BlockRelease, AFlushRefusesAnInvalidFileWithAMessageAndAnInvalidBlockWithout)
{
    MakeBlocks(1);
    TraceRecorder trace;
    LogRecorder log;
    EXPECT_EQ(BlckFlushBlock(Get(0), oBlck_), 0u); // the file comes first here
    EXPECT_EQ(BlckFlushBlock(nullptr, Get(0)), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid oBlck at " + Address(nullptr))) << trace.dump();
    void* oWrong = ObjStringNew("no block");
    trace.clear();
    EXPECT_EQ(BlckFlushBlock(oBlck_, nullptr), 0u);
    EXPECT_EQ(BlckFlushBlock(oBlck_, static_cast<char*>(oWrong) + 8), 0u);
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    EXPECT_TRUE(log.empty()) << log.dump();
    ObjReleaseInternal(&oWrong);
}

TEST_F(BlockRelease, AFlushThatFailsIsLoggedAndTheBlockStaysChanged)
{
    MakeBlocks(1);
    Fill(Get(0), 'm');
    for (const uint32_t point : {FAULT_WRITE, FAULT_SEEK}) {
        const ArmedFault fault(point);
        TraceRecorder trace;
        LogRecorder log;
        EXPECT_EQ(BlckFlushBlock(oBlck_, Get(0)), 0u);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to flush database block")) << trace.dump();
        EXPECT_TRUE(log.has(1299, 96, "Failed to flush database block")) << log.dump();
        EXPECT_EQ(log.messages().size(), 1u);
        EXPECT_FALSE(trace.hasPart("seek")); // it has no message of its own
    }
    EXPECT_EQ(ReadFileBytes(path())[16384], 'A');
    Release();
    EXPECT_EQ(ReadFileBytes(path())[16384], 'm');
}

// ---- writes that fail --------------------------------------------------------------------------

TEST_F(BlockRelease, ABlockThatCannotBeWrittenIsLoggedAndItsChangeLost)
{
    MakeBlocks(3);
    for (int id = 0; id < 3; ++id)
        Fill(Get(id), 'm');
    LogRecorder log;
    TraceRecorder trace;
    {
        const ArmedFault fault(FAULT_WRITE, 2);
        Release();
    }
    EXPECT_TRUE(log.has(1300, 96, "Failed to discard database block")) << log.dump();
    EXPECT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump(); // logged, not traced
    EXPECT_EQ(Get(0)[0], 'm');
    EXPECT_EQ(Get(1)[0], 'B');
    EXPECT_EQ(Get(2)[0], 'm');
}

TEST_F(BlockRelease, ABlockWhosePlaceCannotBeFoundIsNotWrittenElsewhere)
{
    MakeBlocks(2);
    const std::string before = ReadFileBytes(path());
    Fill(Get(1), 'm');
    LogRecorder log;
    {
        const ArmedFault fault(FAULT_SEEK);
        Release();
    }
    EXPECT_EQ(log.count(1300), 1u);
    EXPECT_EQ(ReadFileBytes(path()), before);
}

TEST_F(BlockRelease, ADiscardedBlockThatCannotBeWrittenStaysOffTheFreeChain)
{
    // Its first word on disk is a node's: as a link it would hand out a block in use.
    MakeBlocks(3);
    Discard(2);
    Release();
    Discard(0);
    Discard(1);
    LogRecorder log;
    {
        const ArmedFault fault(FAULT_WRITE, 2); // of block 1
        Release();
    }
    EXPECT_TRUE(log.has(1300, 96, "Failed to discard database block")) << log.dump();
    const std::string bytes = ReadFileBytes(path());
    EXPECT_EQ(U32At(bytes, 12), 0u);
    EXPECT_EQ(U32At(bytes, 16384), 2u);
    EXPECT_EQ(New(), 0);
    EXPECT_EQ(New(), 2);
    EXPECT_EQ(New(), 3);
}

TEST_F(BlockRelease, AControlBlockThatCannotBeWrittenIsLoggedAndTriedAgain)
{
    const struct {
        uint32_t point;
        const char* text;
    } cases[] = {
        {FAULT_SEEKSTART, "Failed to seek to begining of file"},
        {FAULT_WRITE, "Failed to write control block to file"},
    };
    MakeBlocks(1);
    for (const auto& c : cases) {
        BlckUserDataModified(oBlck_);
        static_cast<char*>(BlckUserData(oBlck_))[0]++;
        const std::string before = ReadFileBytes(path());
        TraceRecorder trace;
        LogRecorder log;
        {
            const ArmedFault fault(c.point);
            Release();
        }
        EXPECT_TRUE(trace.has(TAG, 0, -1, c.text)) << trace.dump();
        ASSERT_TRUE(log.has(1298, 96, "Failed to flush a database control block")) << log.dump();
        EXPECT_TRUE(log.messages()[0].hasContext);
        EXPECT_NE(log.messages()[0].context.find(c.text), std::string::npos); // the recent trace
        EXPECT_EQ(ReadFileBytes(path()), before);
        EXPECT_EQ(control()->bModified, 1u);
        Release();
        EXPECT_NE(ReadFileBytes(path()), before);
        EXPECT_EQ(control()->bModified, 0u);
    }
}

TEST_F(BlockRelease, AControlBlockWithoutAHandleIsLogged)
{
    MakeBlocks(1);
    BlckUserDataModified(oBlck_);
    void* hFile = control()->hFile;
    control()->hFile = FILE_NONE;
    TraceRecorder trace;
    LogRecorder log;
    Release();
    control()->hFile = hFile;
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Modified control block has no handle")) << trace.dump();
    EXPECT_TRUE(log.has(1298, 96, "Failed to flush a database control block")) << log.dump();
}

// ---- the end of the file -----------------------------------------------------------------------

TEST_F(BlockRelease, BlocksStillChangedWhenTheFileClosesAreLostEachWithAMessage)
{
    MakeBlocks(3);
    Close();
    Open();
    Fill(Get(0), 'm');
    Get(1);
    Discard(2);
    LogRecorder log;
    FileCalls calls;
    Close();
    EXPECT_EQ(log.count(1300), 2u) << log.dump();
    EXPECT_EQ(log.messages().size(), 2u);
    // The control block, then the close, then nothing.
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), Offsets{0});
    EXPECT_EQ(calls.calls().back().op, static_cast<uint32_t>(FILE_OP_CLOSE));
    const std::string bytes = ReadFileBytes(path());
    EXPECT_EQ(bytes[16384], 'A');
    EXPECT_EQ(bytes[3 * 16384], 'C');
    EXPECT_EQ(U32At(bytes, 12), 0xFFFFFFFFu);
}

TEST_F(BlockRelease, AControlBlockThatCannotBeWrittenAtTheEndIsLoggedAndTheFileClosed)
{
    MakeBlocks(1);
    BlckUserDataModified(oBlck_);
    LogRecorder log;
    const ArmedFault fault(FAULT_WRITE, 1, 0);
    Close();
    EXPECT_EQ(log.count(1298), 1u) << log.dump();
}

TEST_F(BlockRelease, AnotherReferenceKeepsTheFileOpen)
{
    MakeBlocks(1);
    EXPECT_EQ(OBJ_HEADER(oBlck_)->refCount, 1); // the caller's, and no other
    void* oOther = ObjIncRefCount(oBlck_);
    Close();
    void* pData = nullptr;
    EXPECT_EQ(BlckGetBlock(&pData, oOther, 0), 1u);
    ObjReleaseInternal(&oOther);
}

TEST_F(BlockRelease, TwoFilesKeepTheirBlocksApart)
{
    MakeBlocks(1);
    void* oFirst = oBlck_;
    oBlck_ = nullptr;
    Open(directory_.path("second"));
    EXPECT_EQ(New('2'), 0);
    Release();
    void* pData = nullptr;
    EXPECT_EQ(BlckGetBlock(&pData, oFirst, 0), 1u);
    EXPECT_EQ(static_cast<char*>(pData)[0], 'A');
    EXPECT_EQ(Get(0)[0], '2');
    ObjReleaseInternal(&oFirst);
}

// ---- the mark of the control block -------------------------------------------------------------

TEST_F(BlockRelease, CountAndFileNeverShrink)
{
    MakeBlocks(3);
    for (const int32_t tId : {0, 1, 2})
        Discard(tId);
    Release();
    Close();
    Open();
    Release();
    EXPECT_EQ(U32At(ReadFileBytes(path()), 8), 3u);
    EXPECT_EQ(std::filesystem::file_size(path()), 4u * 16384);
}

TEST_F(BlockRelease, CountChainAndUserDataMarkTheControlBlockAndOnlyItsWriteClearsTheMark)
{
    MakeBlocks(2);
    const auto written = [&] { // whether there was a mark; there is none afterwards
        const bool bMarked = control()->bModified == TRUE;
        Release();
        EXPECT_EQ(control()->bModified, 0u);
        return bMarked;
    };
    Fill(Get(0), 'm');
    EXPECT_FALSE(written());
    New(); // the count
    EXPECT_TRUE(written());
    Discard(2);
    EXPECT_EQ(control()->bModified, 0u); // not before it leaves memory
    Release();
    EXPECT_EQ(U32At(ReadFileBytes(path()), 12), 2u);
    New(); // the chain
    EXPECT_TRUE(written());
    BlckUserDataModified(oBlck_);
    EXPECT_TRUE(written());
    BlckUserDataModified(oBlck_);
    Backout();
    EXPECT_TRUE(written());
}

} // namespace
