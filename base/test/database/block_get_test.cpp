// block_get_test.cpp: how blocks come into memory: new ones, those off the free chain, sound and
// damaged, and those read from the file; and how they are marked and told apart.

#include "support/block_file.h"

#include <cstring>

#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/file_calls.h"
#include "support/trace_recorder.h"

namespace {

class BlockGet : public BlockFileTest {};

std::string Bytes(const uint8_t* pData, size_t size)
{
    return std::string(reinterpret_cast<const char*>(pData), size);
}

// ---- allocation --------------------------------------------------------------------------------

TEST_F(BlockGet, TheFirstIdsAre012AndADiscardedBlockIsHandedOutNext)
{
    Open();
    EXPECT_EQ(New('a'), 0);
    EXPECT_EQ(New('b'), 1);
    EXPECT_EQ(New('c'), 2);
    Release();
    Discard(1);
    Release();
    EXPECT_EQ(control()->tFreeChain, 1u);
    EXPECT_EQ(New('d'), 1);
    EXPECT_EQ(control()->tFreeChain, 0xFFFFFFFF); // what block 1's first four bytes held
    EXPECT_EQ(control()->blockCount, 3);
    EXPECT_EQ(New('e'), 3);
}

TEST_F(BlockGet, ANewBlockIsAllZeroEvenWhenItWasUsedBefore)
{
    MakeBlocks(1);
    Discard(0);
    Release();
    void* pData = nullptr;
    EXPECT_EQ(BlckNewBlock(&pData, oBlck_), 0);
    EXPECT_EQ(Bytes(static_cast<uint8_t*>(pData), 16384), std::string(16384, '\0'));
}

TEST_F(BlockGet, ANewBlockIsNotMarkedModified)
{
    Open();
    void* pData = nullptr;
    EXPECT_EQ(BlckNewBlock(&pData, oBlck_), 0);
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>{0});
    EXPECT_EQ(U32At(ReadFileBytes(path()), 8), 1u);
}

TEST_F(BlockGet, OnlyAFreshBlockIsTracedAsAllocated)
{
    Open();
    TraceRecorder trace;
    Discard(New());
    Release();
    EXPECT_EQ(trace.count("Allocate new block 0"), 1u) << trace.dump();
    trace.clear();
    New();
    EXPECT_FALSE(trace.hasPart("Allocate new block"));
}

TEST_F(BlockGet, AllocatingInNoBlockFileGivesMinusOne)
{
    void* pData = &pData;
    TraceRecorder trace;
    EXPECT_EQ(BlckNewBlock(&pData, nullptr), -1);
    EXPECT_EQ(pData, nullptr);
    const std::string call = "BlckNewBlock(" + Address(&pData) + ", " + Address(nullptr) + ")";
    EXPECT_EQ(trace.texts(), (std::vector<std::string>{call, "-1 = " + call}));
    void* oWrong = ObjIntegerNew(1);
    EXPECT_EQ(BlckNewBlock(&pData, oWrong), -1);
    ObjReleaseInternal(&oWrong);
}

TEST_F(BlockGet, AnIdWhoseBlockCannotBeReadStaysAllocatedAndComesWithoutData)
{
    MakeBlocks(1);
    Discard(0);
    Release();
    void* pData = &pData;
    {
        const ArmedFault fault(FAULT_READ, 2); // the link is read first
        EXPECT_EQ(BlckNewBlock(&pData, oBlck_), 0);
        EXPECT_EQ(fault.hits(), 1u);
    }
    EXPECT_EQ(pData, nullptr);
    EXPECT_EQ(New(), 1);
    {
        const ArmedFault fault(FAULT_READ); // the same of a fresh one
        EXPECT_EQ(BlckNewBlock(&pData, oBlck_), 2);
        EXPECT_EQ(fault.hits(), 1u);
    }
    EXPECT_EQ(pData, nullptr);
    EXPECT_EQ(control()->blockCount, 3);
}

TEST_F(BlockGet, AFreeLinkThatCannotBeReadEndsTheChainSoThatNoBlockIsHandedOutTwice)
{
    for (const bool bShort : {false, true}) {
        std::filesystem::remove(path());
        MakeBlocks(3);
        Discard(0);
        Discard(2);
        Release();
        ASSERT_EQ(control()->tFreeChain, 2u);
        {
            const ArmedFault fault(FAULT_READ, 1, 1, bShort ? FAULT_SHORT : FAULT_FAIL, 3);
            TraceRecorder trace;
            EXPECT_EQ(New(), 2);
            EXPECT_EQ(fault.hits(), 1u);
            EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
        }
        EXPECT_EQ(control()->tFreeChain, 0xFFFFFFFF);
        EXPECT_EQ(New(), 3);
        Close();
    }
}

TEST_F(BlockGet, AFailedSeekToTheFreeLinkEndsTheChain)
{
    MakeBlocks(2);
    Discard(0);
    Discard(1);
    Release();
    {
        const ArmedFault fault(FAULT_SEEK);
        EXPECT_EQ(New(), 1);
    }
    EXPECT_EQ(New(), 2);
}

TEST_F(BlockGet, ABlockDiscardedInAnOperationIsNotHandedOutInIt)
{
    MakeBlocks(1);
    Discard(0);
    EXPECT_EQ(New(), 1);
    Release();
    EXPECT_EQ(New(), 0);
}

TEST_F(BlockGet, ABlockAllocatedBeforeABackoutIsNeverHandedOutAgain)
{
    Open();
    EXPECT_EQ(New(), 0);
    Backout();
    EXPECT_EQ(New(), 1);
    Release();
    Close();
    Open();
    EXPECT_EQ(New(), 2);
}

TEST_F(BlockGet, ABlockTakenOffTheFreeChainBeforeABackoutIsLost)
{
    MakeBlocks(2);
    Discard(0);
    Discard(1);
    Release();
    EXPECT_EQ(New(), 1);
    EXPECT_EQ(New(), 0);
    Backout();
    EXPECT_EQ(New(), 2);
}

TEST_F(BlockGet, AFullDiskIsMetBeforeAnythingIsWritten)
{
    MakeBlocks(1);
    const std::string before = ReadFileBytes(path());
    void* pData = &pData;
    TraceRecorder trace;
    FileCalls calls;
    {
        const ArmedFault fault(FAULT_RESERVE);
        EXPECT_EQ(BlckNewBlock(&pData, oBlck_), 1);
        EXPECT_EQ(fault.hits(), 1u);
    }
    EXPECT_EQ(pData, nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "No room in the file for block 1")) << trace.dump();
    EXPECT_EQ(control()->blockCount, 2); // the id stays counted
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    Backout();
    EXPECT_EQ(ReadFileBytes(path()), before);
    EXPECT_EQ(New(), 2);
}

TEST_F(BlockGet, TheSpaceOfAFreshBlockIsReservedWithoutChangingTheLength)
{
    MakeBlocks(1);
    FileCalls calls;
    New();
    EXPECT_EQ(calls.offsets(FILE_OP_RESERVE), std::vector<int64_t>{2 * 16384});
    EXPECT_EQ(calls.sizes(FILE_OP_RESERVE), std::vector<uint32_t>{16384});
    EXPECT_EQ(std::filesystem::file_size(path()), 2u * 16384);
    Backout();
    Discard(0);
    Release();
    calls.clear();
    New(); // from the chain: it has its space
    EXPECT_EQ(calls.count(FILE_OP_RESERVE), 0u);
}

// ---- the free chain, damaged -------------------------------------------------------------------

class BlockGetDamagedChain : public BlockFileTest {
  protected:
    // Three blocks, of which 0 and 2 are free (head 2, then 0); the head's link becomes `link`.
    void Make(uint32_t head, uint32_t link)
    {
        Close();
        std::filesystem::remove(path());
        MakeBlocks(3);
        Discard(0);
        Discard(2);
        Release();
        Close();
        std::string bytes = ReadFileBytes(path());
        PutU32At(bytes, 12, head);
        PutU32At(bytes, 3 * 16384, link);
        WriteFileBytes(path(), bytes);
        Open();
    }
    // Ids handed out to an operation that needs `count` blocks in memory, none of them twice.
    std::vector<int32_t> Take(int count)
    {
        std::vector<int32_t> ids;
        for (int i = 0; i < count; ++i) {
            void* pData = nullptr;
            const int32_t id = BlckNewUnusedBlock(&pData, oBlck_);
            if (pData)
                ids.push_back(id);
        }
        return ids;
    }
};

TEST_F(BlockGetDamagedChain, ALinkToItselfEndsTheChain)
{
    Make(2, 2);
    EXPECT_EQ(Take(3), (std::vector<int32_t>{2, 3, 4}));
}

TEST_F(BlockGetDamagedChain, AHeadOrALinkOutOfRangeGivesNoBlockAndEndsTheChain)
{
    for (const uint32_t bad : {3u, 1000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu}) {
        SCOPED_TRACE(bad);
        TraceRecorder quiet(-1);
        Make(bad, 0xFFFFFFFF);
        EXPECT_EQ(Take(3), (std::vector<int32_t>{3, 4}));
        Backout();
        Make(2, bad);
        EXPECT_EQ(Take(4), (std::vector<int32_t>{2, 3, 4}));
        Backout();
    }
}

TEST_F(BlockGetDamagedChain, ALinkToABlockInUseGivesTheChainUp)
{
    Make(2, 1);
    Fill(Get(1), 'u'); // in use by the present operation
    TraceRecorder trace;
    EXPECT_EQ(Take(3), (std::vector<int32_t>{2, 3, 4}));
    EXPECT_TRUE(trace.hasPart("Free chain leads to block 1, which is in use")) << trace.dump();
    EXPECT_EQ(Get(1)[0], 'u');
}

TEST_F(BlockGetDamagedChain, ARingOfFreeBlocksHandsNoneOutTwice)
{
    Make(2, 0);
    std::string bytes;
    Close();
    bytes = ReadFileBytes(path());
    PutU32At(bytes, 16384, 2); // 2 -> 0 -> 2
    WriteFileBytes(path(), bytes);
    Open();
    TraceRecorder quiet(-1);
    EXPECT_EQ(Take(4), (std::vector<int32_t>{2, 0, 3, 4}));
}

// ---- fetching ----------------------------------------------------------------------------------

TEST_F(BlockGet, FetchingTheSameIdTwiceGivesTheSameAddressAndReadsOnce)
{
    MakeBlocks(2);
    FileCalls calls;
    const uint8_t* pFirst = Get(1);
    EXPECT_EQ(Get(1), pFirst);
    EXPECT_EQ(OBJ_HEADER(pFirst - 8)->refCount, 1); // the map's; a fetch takes none
    EXPECT_EQ(calls.offsets(FILE_OP_READ), std::vector<int64_t>{2 * 16384});
    EXPECT_EQ(calls.sizes(FILE_OP_READ), std::vector<uint32_t>{16384});
}

TEST_F(BlockGet, FetchesRefuseTheirArgumentsInOrderAndLeaveTheVariableAlone)
{
    MakeBlocks(2);
    int untouched = 0;
    void* pData = &untouched;
    const struct {
        void** ppData;
        void* oBlck;
        int32_t id;
        std::string text;
    } cases[] = {
        {nullptr, nullptr, -1, "Invalid ppData at " + Address(nullptr)},
        {&pData, nullptr, -1, "Invalid oBlck at " + Address(nullptr)},
        {&pData, oBlck_, -1, "Invalid tId -1"},
        {&pData, oBlck_, INT32_MIN, "Invalid tId -2147483648"},
        {&pData, oBlck_, 2, "Unallocated tId 2"},
        {&pData, oBlck_, INT32_MAX, "Unallocated tId 2147483647"},
    };
    for (const auto& c : cases) {
        TraceRecorder trace;
        EXPECT_EQ(BlckGetBlock(c.ppData, c.oBlck, c.id), 0u);
        EXPECT_TRUE(trace.has(TAG, 0, -1, c.text)) << trace.dump();
        EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
        EXPECT_TRUE(trace.hasPart("FALSE = BlckGetBlock(" + Address(c.ppData) + ", "));
        EXPECT_EQ(pData, &untouched);
    }
}

TEST_F(BlockGet, ABlockOnTheFreeChainCanBeFetched)
{
    MakeBlocks(1);
    Discard(0);
    Release();
    EXPECT_EQ(Get(0)[4], 'A');
}

TEST_F(BlockGet, AFailedSeekOrReadLeavesNothingInMemory)
{
    MakeBlocks(1);
    for (const uint32_t point : {FAULT_SEEK, FAULT_READ}) {
        int untouched = 0;
        void* pData = &untouched;
        TraceRecorder trace;
        {
            const ArmedFault fault(point);
            EXPECT_EQ(BlckGetBlock(&pData, oBlck_, 0), 0u);
        }
        EXPECT_EQ(pData, &untouched);
        EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
        EXPECT_EQ(ObjMapCount(control()->oMap), 0u);
        EXPECT_EQ(ObjLiveCount(BLCK_BLOCK_MAGIC), 0u);
    }
    EXPECT_EQ(Get(0)[0], 'A');
}

TEST_F(BlockGet, AFetchWithoutMemoryFailsAndLeavesNothing)
{
    MakeBlocks(1);
    for (uint32_t nth = 1;; ++nth) {
        const ArmedFault fault(FAULT_ALLOC, nth, 0);
        void* pData = nullptr;
        if (BlckGetBlock(&pData, oBlck_, 0)) {
            EXPECT_GT(nth, 1u);
            break;
        }
        EXPECT_EQ(pData, nullptr);
        EXPECT_EQ(ObjLiveCount(BLCK_BLOCK_MAGIC), 0u);
    }
}

TEST_F(BlockGet, TheBytesBehindTheEndOfTheFileAreZero)
{
    MakeBlocks(2);
    Close();
    const std::string bytes = ReadFileBytes(path());
    WriteFileBytes(path(), bytes.substr(0, 2 * 16384 + 100));
    Open();
    // The memory of the block may have held something else before.
    Fill(Get(0), 'q');
    Backout();
    TraceRecorder trace;
    const uint8_t* pData = Get(1);
    EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
    EXPECT_EQ(Bytes(pData, 100), std::string(100, 'B'));
    EXPECT_EQ(Bytes(pData + 100, 16284), std::string(16284, '\0'));
}

// ---- marking -----------------------------------------------------------------------------------

TEST_F(BlockGet, DiscardingABlockIsSilent)
{
    MakeBlocks(1);
    void* pData = Get(0);
    TraceRecorder trace;
    EXPECT_EQ(BlckDiscardBlock(pData, oBlck_), 1u);
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    Backout();
}

TEST_F(BlockGet, MarkingRefusesTheHandleThenTheAddressThenTheObject)
{
    MakeBlocks(1);
    void* pData = Get(0);
    void* oWrong = ObjStringNew("no block");
    void* pWrong = static_cast<char*>(oWrong) + 8;
    const struct {
        void* pData;
        void* oBlck;
        std::string text;
    } cases[] = {
        {nullptr, nullptr, "Invalid oBlck at " + Address(nullptr)},
        {pData, oWrong, "Invalid oBlck at " + Address(oWrong)},
        {nullptr, oBlck_, "Invalid pData at " + Address(nullptr)},
        {pWrong, oBlck_, "Invalid oBlock at " + Address(oWrong)},
    };
    for (const auto& c : cases) {
        for (const auto mark : {BlckModifiedBlock, BlckDiscardBlock}) {
            TraceRecorder trace;
            EXPECT_EQ(mark(c.pData, c.oBlck), 0u);
            EXPECT_TRUE(trace.has(TAG, 0, -1, c.text)) << trace.dump();
            EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
        }
    }
    ObjReleaseInternal(&oWrong);
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
}

TEST_F(BlockGet, TheIdOfABlockIsItsOwnAndOfAnythingElseMinusOne)
{
    MakeBlocks(2);
    EXPECT_EQ(BlckId(Get(1)), 1);
    void* oWrong = ObjStringNew("no block");
    const void* pWrong = static_cast<char*>(oWrong) + 8;
    TraceRecorder trace;
    EXPECT_EQ(BlckId(pWrong), -1);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid BlckBlock at " + Address(pWrong))) << trace.dump();
    EXPECT_EQ(BlckId(nullptr), -1);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid BlckBlock at " + Address(nullptr)));
    ObjReleaseInternal(&oWrong);
}

TEST_F(BlockGet, TheCountOfBlocksIsSigned)
{
    MakeBlocks(1);
    control()->blockCount = INT32_MIN + 1;
    void* pData = nullptr;
    TraceRecorder trace;
    EXPECT_EQ(BlckGetBlock(&pData, oBlck_, 0), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Unallocated tId 0")) << trace.dump();
    control()->blockCount = INT32_MAX;
    EXPECT_EQ(Get(0)[0], 'A');
    Backout();
    control()->blockCount = 1;
}

} // namespace
