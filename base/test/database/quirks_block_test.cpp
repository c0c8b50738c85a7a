// quirks_block_test.cpp: what the block store does on purpose and keeps doing, oddities included.
// Files and hosts depend on these; a change of one of them is a change of the system.

#include <cstring>
#include <filesystem>
#include <functional>

#include "block_scene.h"
#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/file_calls.h"
#include "support/trace_recorder.h"

namespace {

constexpr size_t BLOCK = 16384;
constexpr size_t COUNT = 8; // words of the control block, by their offsets in the file
constexpr size_t CHAIN = 12;
constexpr size_t MODIFIED = 16;
constexpr size_t USER_DATA = 40;

class BlockQuirk : public testing::Test {
  protected:
    // Allocates blocks 0 to n - 1, filled with their ids, and ends the operation.
    void Make(int32_t n)
    {
        for (int32_t i = 0; i < n; ++i) {
            ASSERT_EQ(scene_.New(), i);
            std::memset(scene_.pData, 'a' + i, BLOCK);
            BlckModifiedBlock(scene_.pData, blck());
        }
        BlckReleaseAll(blck());
    }
    void* Get(int32_t tId)
    {
        void* pData = nullptr;
        EXPECT_EQ(BlckGetBlock(&pData, blck(), tId), 1u) << tId;
        return pData;
    }
    void Discard(int32_t tId) { EXPECT_EQ(BlckDiscardBlock(Get(tId), blck()), 1u); }
    void Close() { ObjReleaseInternal(&scene_.oBlck); }
    void Reopen()
    {
        Close();
        scene_.Open();
    }
    // Closes, changes the bytes of the file, opens again.
    void Change(const std::function<void(std::string&)>& change)
    {
        Close();
        std::string bytes = File();
        change(bytes);
        WriteFileBytes(scene_.path, bytes);
        scene_.Open();
    }
    std::string File() const { return ReadFileBytes(scene_.path); }
    uint32_t Word(size_t offset) const { return U32At(File(), offset); }
    static std::string Start(void* pData) { return std::string(static_cast<char*>(pData), 4); }

    BlckControl* control() { return scene_.control(); }
    void* blck() { return scene_.oBlck; }

    LogRecorder log_; // keeps the losses off the standard error
    TraceRecorder trace_;
    BlockScene scene_;
};

// ---- opening
// -------------------------------------------------------------------------------------

TEST_F(BlockQuirk, TheStoredBlockSizeIsNeverChecked)
{
    Make(1);
    Change([](std::string& bytes) { PutU32At(bytes, 4, 512); });
    EXPECT_EQ(Start(Get(0)), "aaaa");
    EXPECT_EQ(control()->blockSize, 512);
}

TEST_F(BlockQuirk, TheStoredModifiedFlagIsAlwaysOne)
{
    Make(1);
    EXPECT_EQ(Word(MODIFIED), 1u); // written before it is cleared
    EXPECT_EQ(control()->bModified, 0u);
}

TEST_F(BlockQuirk, AnOpenedFileIsRewrittenAtItsFirstReleaseThoughNothingChanged)
{
    Make(1);
    Reopen();
    EXPECT_EQ(control()->bModified, 1u);
    const FileCalls calls;
    BlckReleaseAll(blck());
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>({0}));
    BlckReleaseAll(blck());
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 1u);
}

TEST_F(BlockQuirk, AnOpenedFileIsRewrittenWhenItIsClosedThoughNothingChanged)
{
    Make(1);
    Reopen();
    const FileCalls calls;
    Close();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>({0}));
}

TEST_F(BlockQuirk, EveryWordButTheHandleKeepsTheValueRead)
{
    Make(2);
    Change([](std::string& bytes) {
        PutU32At(bytes, MODIFIED, 0); // no file says so, but it would be believed
        PutU32At(bytes, COUNT, 1);
    });
    EXPECT_EQ(control()->bModified, 0u);
    EXPECT_EQ(control()->blockCount, 1);
}

TEST_F(BlockQuirk, HandleAndMapWordsOnDiskMeanNothing)
{
    Make(2);
    Change([](std::string& bytes) {
        for (size_t i = 20; i < USER_DATA; ++i)
            bytes[i] = '\x5a';
    });
    EXPECT_EQ(Start(Get(1)), "bbbb");
    EXPECT_EQ(scene_.New(), 2);
}

TEST_F(BlockQuirk, ANewFileStaysEmptyUntilItsFirstRelease)
{
    scene_.New();
    EXPECT_EQ(std::filesystem::file_size(scene_.path), 0u);
    BlckReleaseAll(blck());
    EXPECT_EQ(std::filesystem::file_size(scene_.path), 16168u);
}

TEST_F(BlockQuirk, TheControlBlocksTemplateIsAskedForOnEveryOpenAndIsTheSame)
{
    scene_.Open();
    ObjTemplate* const pTemplate = OBJ_HEADER(blck())->tmpl;
    Close();
    const uint32_t memory = MemLiveCount();
    for (int i = 0; i < 3; ++i) {
        scene_.Open();
        EXPECT_EQ(OBJ_HEADER(blck())->tmpl, pTemplate);
        Close();
    }
    EXPECT_EQ(MemLiveCount(), memory);
}

TEST_F(BlockQuirk, TheBlocksTemplateIsMadeOnceAndKept)
{
    Make(1);
    ObjTemplate* const pTemplate = OBJ_HEADER(static_cast<char*>(Get(0)) - 8)->tmpl;
    BlckReleaseAll(blck());
    Reopen();
    EXPECT_EQ(OBJ_HEADER(static_cast<char*>(Get(0)) - 8)->tmpl, pTemplate);
}

// Whether it has to be closed was left open; left open it would be lost.
TEST_F(BlockQuirk, AFailingOpenClosesTheFile)
{
    WriteFileBytes(scene_.path, std::string(100, 'x'));
    const uint32_t open = FileSysOpenCount();
    EXPECT_EQ(scene_.Open(scene_.path.c_str()), 0u);
    EXPECT_EQ(FileSysOpenCount(), open);
    EXPECT_EQ(File(), std::string(100, 'x'));
}

TEST_F(BlockQuirk, AnOpenedFileHasTheReferenceOfItsCallerAndNoOther)
{
    scene_.Open();
    EXPECT_EQ(OBJ_HEADER(blck())->refCount, 1);
    const uint32_t open = FileSysOpenCount();
    Close();
    EXPECT_EQ(FileSysOpenCount() + 1, open);
}

// ---- allocating
// ----------------------------------------------------------------------------------

TEST_F(BlockQuirk, AnIdIsPoppedAndReturnedThoughTheNextLinkCannotBeRead)
{
    Make(2);
    Discard(0);
    BlckReleaseAll(blck());
    const ArmedFault fault(FAULT_READ); // the link; the block itself is read afterwards
    EXPECT_EQ(scene_.New(), 0);
    EXPECT_NE(scene_.pData, nullptr);
    EXPECT_EQ(trace_.countLevel(-1), 0u);
}

TEST_F(BlockQuirk, AnIdStaysAllocatedAndIsReturnedWhenItsBlockCannotBeHad)
{
    Make(1);
    {
        const ArmedFault fault(FAULT_READ);
        EXPECT_EQ(scene_.New(), 1);
        EXPECT_EQ(scene_.pData, nullptr);
    }
    EXPECT_EQ(control()->blockCount, 2);
    EXPECT_EQ(scene_.New(), 2);
}

TEST_F(BlockQuirk, ANewBlockIsNotMarkedModified)
{
    Make(1);
    scene_.New();
    const FileCalls calls;
    BlckReleaseAll(blck());
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>({0})); // the control block alone
}

TEST_F(BlockQuirk, BlckSizeIgnoresItsArgument)
{
    EXPECT_EQ(BlckSize(nullptr), BLOCK);
    EXPECT_EQ(BlckSize(scene_.oOther), BLOCK);
}

TEST_F(BlockQuirk, CountAndFileNeverShrink)
{
    Make(3);
    for (int32_t tId = 0; tId < 3; ++tId)
        Discard(tId);
    BlckReleaseAll(blck());
    Reopen();
    BlckReleaseAll(blck());
    EXPECT_EQ(Word(COUNT), 3u);
    EXPECT_EQ(File().size(), 4 * BLOCK);
}

TEST_F(BlockQuirk, AFreeBlockKeepsItsOldBytesBehindItsLink)
{
    Make(2);
    Discard(1);
    BlckReleaseAll(blck());
    const std::string block = File().substr(2 * BLOCK);
    EXPECT_EQ(block, "\xff\xff\xff\xff" + std::string(BLOCK - 4, 'b'));
}

TEST_F(BlockQuirk, AnObjectOfAnotherTypeHasNoUserDataAndGetsNoBlocks)
{
    EXPECT_EQ(BlckUserData(scene_.oOther), nullptr);
    EXPECT_EQ(BlckUserDataLength(scene_.oOther), 0u);
    EXPECT_EQ(BlckNewBlock(&scene_.pData, scene_.oOther), -1);
    EXPECT_EQ(BlckNewBlock(&scene_.pData, nullptr), -1);
    EXPECT_EQ(scene_.pData, nullptr);
    EXPECT_EQ(trace_.countLevel(-1), 0u);
}

TEST_F(BlockQuirk, UserDataOfAnInvalidHandleIsMarkedInSilence)
{
    trace_.clear();
    BlckUserDataModified(nullptr);
    BlckUserDataModified(scene_.oOther);
    EXPECT_TRUE(trace_.lines().empty());
}

// ---- the control block
// ---------------------------------------------------------------------------

TEST_F(BlockQuirk, TheMisspellingBeginingStays)
{
    scene_.Open();
    const ArmedFault fault(FAULT_SEEKSTART);
    BlckReleaseAll(blck());
    EXPECT_TRUE(trace_.has("BLCK        ", 0, -1, "Failed to seek to begining of file"));
}

TEST_F(BlockQuirk, AControlBlockThatWasNotWrittenIsTriedAgain)
{
    Make(1);
    BlckUserDataModified(blck());
    static_cast<char*>(BlckUserData(blck()))[0] = 'u';
    {
        const ArmedFault fault(FAULT_WRITE);
        BlckReleaseAll(blck());
    }
    EXPECT_EQ(log_.count(1298), 1u);
    EXPECT_EQ(control()->bModified, 1u);
    EXPECT_EQ(File()[USER_DATA], '\0');
    BlckReleaseAll(blck());
    EXPECT_EQ(File()[USER_DATA], 'u');
    EXPECT_EQ(control()->bModified, 0u);
}

TEST_F(BlockQuirk, CountChainAndUserDataMarkTheControlBlockAndOnlyItsWriteClearsTheMark)
{
    Make(2);
    const auto written = [&] { // whether there was a mark; there is none afterwards
        const bool bMarked = control()->bModified == TRUE;
        BlckReleaseAll(blck());
        EXPECT_EQ(control()->bModified, 0u);
        return bMarked;
    };
    BlckModifiedBlock(Get(0), blck());
    EXPECT_FALSE(written());
    scene_.New(); // the count
    EXPECT_TRUE(written());
    Discard(2);
    EXPECT_EQ(control()->bModified, 0u); // not before it leaves memory
    BlckReleaseAll(blck());
    EXPECT_EQ(Word(CHAIN), 2u);
    scene_.New(); // the chain
    EXPECT_TRUE(written());
    BlckUserDataModified(blck());
    EXPECT_TRUE(written());
    BlckUserDataModified(blck());
    BlckBackoutAll(blck());
    EXPECT_TRUE(written());
}

TEST_F(BlockQuirk, TheGapBehindTheControlBlockIsNeverWritten)
{
    Make(2);
    Change([](std::string& bytes) { bytes.replace(16168, 216, std::string(216, 'g')); });
    BlckUserDataModified(blck());
    BlckReleaseAll(blck());
    EXPECT_EQ(File().substr(16168, 216), std::string(216, 'g'));
}

// ---- fetching
// ------------------------------------------------------------------------------------

TEST_F(BlockQuirk, AFetchDoesNotAskWhetherTheBlockIsFree)
{
    Make(2);
    Discard(0);
    BlckReleaseAll(blck());
    ASSERT_EQ(control()->tFreeChain, 0u);
    EXPECT_EQ(Start(Get(0)), "\xff\xff\xff\xff");
}

TEST_F(BlockQuirk, TheBlockCountIsSigned)
{
    Make(1);
    Change([](std::string& bytes) { PutU32At(bytes, COUNT, 0x80000001); });
    EXPECT_EQ(BlckGetBlock(&scene_.pData, blck(), 0), 0u);
    EXPECT_TRUE(trace_.has("Unallocated tId 0"));
    Change([](std::string& bytes) { PutU32At(bytes, COUNT, 0x7FFFFFFF); });
    EXPECT_EQ(Start(Get(0)), "aaaa");
}

TEST_F(BlockQuirk, AShortReadIsAcceptedAndTheRestIsZero)
{
    Make(2);
    Change([](std::string& bytes) { bytes.resize(2 * BLOCK + 10); });
    const auto* pBytes = static_cast<const char*>(Get(1));
    EXPECT_EQ(std::string(pBytes, BLOCK), std::string(10, 'b') + std::string(BLOCK - 10, '\0'));
    EXPECT_EQ(trace_.countLevel(-1), 0u);
}

TEST_F(BlockQuirk, AFailedFetchLeavesTheVariableUntouched)
{
    Make(1);
    void* pData = &scene_;
    EXPECT_EQ(BlckGetBlock(&pData, blck(), 1), 0u);
    EXPECT_EQ(pData, &scene_);
    const ArmedFault fault(FAULT_READ);
    EXPECT_EQ(BlckGetBlock(&pData, blck(), 0), 0u);
    EXPECT_EQ(pData, &scene_);
}

TEST_F(BlockQuirk, AFetchAddsNoReferenceForItsCaller)
{
    Make(1);
    void* pData = Get(0);
    EXPECT_EQ(Get(0), pData);
    EXPECT_EQ(OBJ_HEADER(static_cast<char*>(pData) - 8)->refCount, 1);
}

// ---- marking and writing
// -------------------------------------------------------------------------

TEST_F(BlockQuirk, DiscardingABlockIsSilent)
{
    Make(1);
    void* pData = Get(0);
    trace_.clear();
    EXPECT_EQ(BlckDiscardBlock(pData, blck()), 1u);
    EXPECT_TRUE(trace_.lines().empty());
}

TEST_F(BlockQuirk, ADiscardedBlockCanBeReadAndWrittenUntilItLeavesMemory)
{
    Make(1);
    Discard(0);
    static_cast<char*>(Get(0))[100] = 'n';
    EXPECT_EQ(static_cast<char*>(Get(0))[100], 'n');
    BlckReleaseAll(blck());
    EXPECT_EQ(File()[BLOCK + 100], 'n');
}

TEST_F(BlockQuirk, TheFlushTakesItsArgumentsTheOtherWayRound)
{
    Make(1);
    void* pData = Get(0);
    EXPECT_EQ(BlckModifiedBlock(pData, blck()), 1u);
    EXPECT_EQ(BlckFlushBlock(pData, blck()), 0u);
    EXPECT_EQ(BlckFlushBlock(blck(), pData), 1u);
}

TEST_F(BlockQuirk, TheFlushWritesABlockThatIsNotMarked)
{
    Make(1);
    void* pData = Get(0);
    std::memcpy(pData, "new!", 4); // and nobody is told
    EXPECT_EQ(BlckFlushBlock(blck(), pData), 1u);
    EXPECT_EQ(File().substr(BLOCK, 5), "new!a");
}

TEST_F(BlockQuirk, AFlushThatSucceedsTakesTheMarkAwayAndOneThatFailsDoesNot)
{
    Make(1);
    BlckModifiedBlock(Get(0), blck());
    {
        const ArmedFault fault(FAULT_WRITE);
        EXPECT_EQ(BlckFlushBlock(blck(), Get(0)), 0u);
    }
    EXPECT_EQ(BlckFlushBlock(blck(), Get(0)), 1u);
    FileCalls calls;
    BlckReleaseAll(blck());
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);

    BlckModifiedBlock(Get(0), blck());
    {
        const ArmedFault fault(FAULT_WRITE);
        EXPECT_EQ(BlckFlushBlock(blck(), Get(0)), 0u);
    }
    calls.clear();
    BlckReleaseAll(blck());
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>({BLOCK}));
}

TEST_F(BlockQuirk, TheFlushOfSomethingElseFailsInSilence)
{
    Make(1);
    trace_.clear();
    EXPECT_EQ(BlckFlushBlock(blck(), nullptr), 0u);
    EXPECT_EQ(BlckFlushBlock(blck(), static_cast<char*>(scene_.oOther) + 8), 0u);
    EXPECT_TRUE(trace_.lines().empty());
    EXPECT_TRUE(log_.empty());
}

TEST_F(BlockQuirk, ASeekBeforeAWriteHasNoMessageOfItsOwn)
{
    Make(2);
    void* pData = Get(1);
    BlckModifiedBlock(pData, blck());
    const std::string before = File();
    trace_.clear();
    const ArmedFault fault(FAULT_SEEK, 1, 2);
    // What cannot be put into its place is put nowhere: it is a write that failed.
    EXPECT_EQ(BlckFlushBlock(blck(), pData), 0u);
    BlckReleaseAll(blck());
    EXPECT_EQ(fault.hits(), 2u);
    EXPECT_FALSE(trace_.hasPart("seek"));
    EXPECT_EQ(log_.count(1299), 1u);
    EXPECT_EQ(log_.count(1300), 1u);
    EXPECT_EQ(File(), before);
}

// ---- leaving memory
// ------------------------------------------------------------------------------

TEST_F(BlockQuirk, OneTextServesEveryWriteThatFailsAtARelease)
{
    Make(2);
    Discard(0);
    BlckModifiedBlock(Get(1), blck());
    const ArmedFault fault(FAULT_WRITE, 1, 2);
    trace_.clear();
    BlckReleaseAll(blck());
    ASSERT_EQ(log_.messages().size(), 2u);
    for (const LogRecorder::Message& message : log_.messages())
        EXPECT_EQ(message.text, "Failed to discard database block");
    EXPECT_EQ(trace_.countLevel(-1), 0u); // logged, not traced
}

TEST_F(BlockQuirk, AWriteThatFailsAtAReleaseIsOtherwiseIgnored)
{
    Make(3);
    for (int32_t tId = 0; tId < 3; ++tId) {
        std::memset(Get(tId), 'X', BLOCK);
        BlckModifiedBlock(Get(tId), blck());
    }
    {
        const ArmedFault fault(FAULT_WRITE, 2);
        BlckReleaseAll(blck());
    }
    const std::string bytes = File();
    EXPECT_EQ(bytes.substr(BLOCK, BLOCK), std::string(BLOCK, 'X'));
    EXPECT_EQ(bytes.substr(2 * BLOCK, BLOCK), std::string(BLOCK, 'b')); // its change is lost
    EXPECT_EQ(bytes.substr(3 * BLOCK, BLOCK), std::string(BLOCK, 'X'));
    EXPECT_EQ(Start(Get(1)), "bbbb");
}

TEST_F(BlockQuirk, DiscardedBlocksJoinTheChainInAscendingOrder)
{
    Make(3);
    for (int32_t tId : {1, 0, 2})
        Discard(tId);
    BlckReleaseAll(blck());
    EXPECT_EQ(scene_.New(), 2); // so that the highest is its head
    EXPECT_EQ(scene_.New(), 1);
    EXPECT_EQ(scene_.New(), 0);
    EXPECT_EQ(scene_.New(), 3);
}

TEST_F(BlockQuirk, ABlockDiscardedInAnOperationIsNotUsedAgainInIt)
{
    Make(1);
    Discard(0);
    EXPECT_EQ(scene_.New(), 1);
}

TEST_F(BlockQuirk, ClosingWithChangedBlocksLosesEachOfThemWithItsLogEntry)
{
    Make(2);
    for (int32_t tId = 0; tId < 2; ++tId) {
        std::memset(Get(tId), 'X', BLOCK);
        BlckModifiedBlock(Get(tId), blck());
    }
    Close();
    EXPECT_EQ(log_.count(1300), 2u);
    EXPECT_EQ(File().substr(BLOCK), std::string(BLOCK, 'a') + std::string(BLOCK, 'b'));
}

// ---- backing out
// ---------------------------------------------------------------------------------

TEST_F(BlockQuirk, IdsOfABackedOutOperationAreNeverUsedAgain)
{
    Make(1);
    EXPECT_EQ(scene_.New(), 1);
    BlckBackoutAll(blck());
    EXPECT_EQ(scene_.New(), 2);
    BlckReleaseAll(blck());
    EXPECT_EQ(Word(COUNT), 3u);
}

TEST_F(BlockQuirk, FreeBlocksTakenByABackedOutOperationAreLostToTheChain)
{
    Make(2);
    Discard(0);
    Discard(1);
    BlckReleaseAll(blck());
    EXPECT_EQ(scene_.New(), 1);
    BlckBackoutAll(blck());
    EXPECT_EQ(scene_.New(), 0);
    BlckReleaseAll(blck());
    EXPECT_EQ(Word(CHAIN), 0xFFFFFFFFu);
}

TEST_F(BlockQuirk, ABackOutNeitherRestoresNorWritesTheControlBlock)
{
    Make(1);
    static_cast<char*>(BlckUserData(blck()))[5] = 'u';
    BlckUserDataModified(blck());
    const FileCalls calls;
    BlckBackoutAll(blck());
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_EQ(static_cast<char*>(BlckUserData(blck()))[5], 'u');
    EXPECT_EQ(control()->bModified, 1u);
    BlckReleaseAll(blck()); // writes it all the same
    EXPECT_EQ(File()[USER_DATA + 5], 'u');
}

TEST_F(BlockQuirk, WhatABackOutLeftIsWrittenWhenTheFileIsClosed)
{
    Make(1);
    scene_.New();
    BlckBackoutAll(blck());
    Close();
    EXPECT_EQ(Word(COUNT), 2u);
}

TEST_F(BlockQuirk, ABlockDiscardedInABackedOutOperationStaysInUse)
{
    Make(1);
    Discard(0);
    BlckBackoutAll(blck());
    BlckReleaseAll(blck());
    EXPECT_EQ(Word(CHAIN), 0xFFFFFFFFu);
    EXPECT_EQ(Start(Get(0)), "aaaa");
}

TEST_F(BlockQuirk, EndingAnOperationOnAnInvalidHandleIsSilent)
{
    trace_.clear();
    BlckReleaseAll(scene_.oOther);
    BlckReleaseAll(nullptr);
    BlckBackoutAll(scene_.oOther);
    BlckBackoutAll(nullptr);
    EXPECT_TRUE(trace_.lines().empty());
}

} // namespace
