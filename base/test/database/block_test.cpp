// block_test.cpp: block files and the cache of their blocks: the format byte by byte, allocation,
// what is written when and in which order, every message, and failures of every call to the file.

#include "support/block_file.h"

#include <cstring>

#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/file_calls.h"
#include "support/trace_recorder.h"

namespace {

class Block : public BlockFileTest {};

std::string Bytes(const uint8_t* pData, size_t size)
{
    return std::string(reinterpret_cast<const char*>(pData), size);
}

// ---- opening -----------------------------------------------------------------------------------

TEST_F(Block, OpeningAnAbsentPathCreatesAnEmptyFileThatTheFirstReleaseFills)
{
    Open();
    EXPECT_TRUE(std::filesystem::exists(path()));
    EXPECT_EQ(std::filesystem::file_size(path()), 0u);
    New('a');
    EXPECT_EQ(std::filesystem::file_size(path()), 0u);
    Release();
    EXPECT_EQ(std::filesystem::file_size(path()), 2u * 16384);
}

TEST_F(Block, AReleaseWithoutBlocksWritesTheControlBlockAlone)
{
    Open();
    Release();
    EXPECT_EQ(std::filesystem::file_size(path()), 16168u);
}

TEST_F(Block, AFileOf16168BytesOpensWithNoBlockBeyondItsCount)
{
    Open();
    Release();
    Close();
    std::string bytes = ReadFileBytes(path());
    ASSERT_EQ(bytes.size(), 16168u);
    PutU32At(bytes, 8, 2);
    WriteFileBytes(path(), bytes);
    Open();
    void* pData = nullptr;
    EXPECT_EQ(BlckGetBlock(&pData, oBlck_, 2), 0u);
    EXPECT_EQ(Bytes(Get(1), 16384), std::string(16384, '\0')); // counted, but not in the file
}

TEST_F(Block, AFileOf100BytesIsNoBlockFileAndStaysAsItIs)
{
    const std::string bytes = "ABCD" + std::string(96, 'z');
    WriteFileBytes(path(), bytes);
    TraceRecorder trace;
    EXPECT_EQ(BlckFileOpen(&oBlck_, path().c_str()), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Read '100' of '16168' byte header")) << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid control block (1145258561)")) << trace.dump();
    EXPECT_EQ(ReadFileBytes(path()), bytes);
}

TEST_F(Block, AShortHeaderOrAWrongMagicFailsTheOpenAndWritesNothing)
{
    Open();
    Release();
    Close();
    const std::string good = ReadFileBytes(path());
    for (const size_t size : {1u, 4u, 40u, 16167u}) {
        WriteFileBytes(path(), good.substr(0, size));
        EXPECT_EQ(BlckFileOpen(&oBlck_, path().c_str()), 0u) << size;
        EXPECT_EQ(ReadFileBytes(path()), good.substr(0, size));
    }
    std::string bad = good;
    PutU32At(bad, 0, 0xc9251dd8);
    WriteFileBytes(path(), bad);
    LogRecorder log;
    FileCalls calls;
    TraceRecorder trace;
    EXPECT_EQ(BlckFileOpen(&oBlck_, path().c_str()), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid control block (-920314408)")) << trace.dump();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_TRUE(log.empty()) << log.dump();
}

TEST_F(Block, OpensTraceTheirEntryTheHeaderReadAndTheirResult)
{
    void** pp = &oBlck_;
    TraceRecorder trace;
    ASSERT_EQ(BlckFileOpen(pp, path().c_str()), 1u);
    const std::string call = "BlckFileOpen(" + Address(pp) + ", " + path() + ")";
    const std::vector<std::string> expected = {
        call, "Read '0' of '16168' byte header", "Set free chain empty", "TRUE = " + call};
    EXPECT_EQ(trace.texts(), expected);
    EXPECT_TRUE(trace.has(TAG, 0, 4, call));
    EXPECT_TRUE(trace.has(TAG, 0, 3, "TRUE = " + call));
}

TEST_F(Block, AnUnusableArgumentFailsTheOpenWithNothingButItsEntryAndResult)
{
    int untouched = 0;
    void* o = &untouched;
    const std::string directory = directory_.path();
    for (const char* bad : {static_cast<const char*>(nullptr), "", directory.c_str()}) {
        TraceRecorder trace;
        EXPECT_EQ(BlckFileOpen(&o, bad), 0u);
        EXPECT_EQ(o, &untouched);
        const std::string call =
            "BlckFileOpen(" + Address(&o) + ", " + (bad ? bad : "(null)") + ")";
        EXPECT_EQ(trace.texts(), (std::vector<std::string>{call, "FALSE = " + call}));
        EXPECT_TRUE(trace.has(TAG, 0, 3, "FALSE = " + call));
    }
    EXPECT_EQ(BlckFileOpen(nullptr, path().c_str()), 0u);
    EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(Block, AFileThatCannotBeOpenedOrReadFailsTheOpenWithoutAMessage)
{
    MakeBlocks(1);
    Close();
    const std::string before = ReadFileBytes(path());
    for (const uint32_t point : {FAULT_OPEN, FAULT_SEEKSTART, FAULT_READ}) {
        const ArmedFault fault(point);
        TraceRecorder trace;
        LogRecorder log;
        EXPECT_EQ(BlckFileOpen(&oBlck_, path().c_str()), 0u);
        EXPECT_EQ(fault.hits(), 1u);
        EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
        EXPECT_TRUE(log.empty()) << log.dump();
        EXPECT_EQ(oBlck_, nullptr);
    }
    // The bytes before the error, stale handle and map words among them, came from the file.
    const ArmedFault fault(FAULT_READ, 1, 1, FAULT_FAIL_AFTER, 16168);
    EXPECT_EQ(BlckFileOpen(&oBlck_, path().c_str()), 0u);
    EXPECT_EQ(ReadFileBytes(path()), before);
}

TEST_F(Block, AnOpenWithoutMemoryLeavesNothingBehind)
{
    MakeBlocks(1);
    Close();
    const std::string before = ReadFileBytes(path());
    const uint32_t memory = MemLiveCount();
    for (uint32_t nth = 1;; ++nth) {
        const ArmedFault fault(FAULT_ALLOC, nth, 0);
        const NimBool opened = BlckFileOpen(&oBlck_, path().c_str());
        if (opened) {
            EXPECT_GT(nth, 1u);
            break;
        }
        EXPECT_EQ(MemLiveCount(), memory) << "allocation " << nth;
        EXPECT_EQ(ReadFileBytes(path()), before);
    }
}

TEST_F(Block, AReferenceThatCannotBeAddedGivesANullHandle)
{
    MakeBlocks(1);
    Close();
    int untouched = 0;
    void* o = &untouched;
    const ArmedFault fault(FAULT_INCREF);
    EXPECT_EQ(BlckFileOpen(&o, path().c_str()), 1u);
    EXPECT_EQ(o, nullptr);
}

TEST_F(Block, TheBlockSizeInTheFileIsNeverChecked)
{
    MakeBlocks(1);
    Close();
    std::string bytes = ReadFileBytes(path());
    PutU32At(bytes, 4, 5);
    WriteFileBytes(path(), bytes);
    Open();
    EXPECT_EQ(Get(0)[0], 'A');
    Release();
    EXPECT_EQ(U32At(ReadFileBytes(path()), 4), 5u); // every other field keeps the value read
}

TEST_F(Block, AnExistingFileIsRewrittenAtTheFirstReleaseOnlyEvenIfNothingChanged)
{
    MakeBlocks(1);
    Close();
    Open();
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>{0});
    EXPECT_EQ(calls.sizes(FILE_OP_WRITE), std::vector<uint32_t>{16168});
    calls.clear();
    Release();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
}

TEST_F(Block, TheLastReferenceWritesTheControlBlockOfAnUnchangedFile)
{
    MakeBlocks(1);
    Close();
    Open();
    FileCalls calls;
    Close();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>{0});
    EXPECT_EQ(calls.calls().back().op, static_cast<uint32_t>(FILE_OP_CLOSE));
}

// ---- the format --------------------------------------------------------------------------------

TEST_F(Block, TheFileIsWhatTheFormatSaysByteForByte)
{
    Open();
    auto* user = static_cast<char*>(BlckUserData(oBlck_));
    for (int i = 0; i < 16128; ++i)
        user[i] = static_cast<char>(i * 7 + 1);
    BlckUserDataModified(oBlck_);
    for (const char fill : {'a', 'b', 'c'})
        New(fill);
    Discard(1);
    Release();
    const std::string bytes = ReadFileBytes(path());
    ASSERT_EQ(bytes.size(), 4u * 16384);
    EXPECT_EQ(bytes.substr(0, 4), "\xd9\x1d\x25\xc9");
    EXPECT_EQ(bytes.substr(4, 4), std::string("\x00\x40\x00\x00", 4));
    EXPECT_EQ(bytes.substr(8, 4), std::string("\x03\x00\x00\x00", 4));
    EXPECT_EQ(bytes.substr(12, 4), std::string("\x01\x00\x00\x00", 4));
    EXPECT_EQ(bytes.substr(16, 4), std::string("\x01\x00\x00\x00", 4)); // always 1 on disk
    EXPECT_EQ(bytes.substr(40, 16128), std::string(user, 16128));
    EXPECT_EQ(bytes.substr(16168, 216), std::string(216, '\0')); // never written
    EXPECT_EQ(bytes.substr(1 * 16384, 16384), std::string(16384, 'a'));
    EXPECT_EQ(bytes.substr(2 * 16384, 4), "\xff\xff\xff\xff");
    EXPECT_EQ(bytes.substr(2 * 16384 + 4, 16380), std::string(16380, 'b'));
    EXPECT_EQ(bytes.substr(3 * 16384, 16384), std::string(16384, 'c'));
}

TEST_F(Block, StaleHandleAndMapWordsOfTheFileAreNeverFollowed)
{
    MakeBlocks(2);
    Close();
    std::string bytes = ReadFileBytes(path());
    for (size_t i = 24; i < 40; ++i)
        bytes[i] = '\x41';
    WriteFileBytes(path(), bytes);
    Open();
    EXPECT_EQ(Get(1)[0], 'B');
    New('n');
    Release();
    Close();
    // The same in a file that is refused, whose control block dies at once.
    PutU32At(bytes, 0, 1);
    WriteFileBytes(path(), bytes);
    LogRecorder log;
    EXPECT_EQ(BlckFileOpen(&oBlck_, path().c_str()), 0u);
    EXPECT_TRUE(log.empty()) << log.dump();
    EXPECT_EQ(ReadFileBytes(path()), bytes);
}

TEST_F(Block, AHandleValueOfAnotherOpenFileInTheHeaderDoesNotTouchThatFile)
{
    MakeBlocks(1);
    void* other = nullptr;
    ASSERT_EQ(FileSysOpen(&other, directory_.path("other").c_str(), 261), 1u);
    Close();
    std::string bytes = ReadFileBytes(path());
    memcpy(bytes.data() + 24, &other, 8);
    PutU32At(bytes, 0, 1); // refused: the destructor must not flush to, or close, that handle
    WriteFileBytes(path(), bytes);
    EXPECT_EQ(BlckFileOpen(&oBlck_, path().c_str()), 0u);
    EXPECT_EQ(FileSysClose(&other), 1u);
    EXPECT_EQ(std::filesystem::file_size(directory_.path("other")), 0u);
}

TEST_F(Block, NoFlippedBitOfTheHeaderDoesHarm)
{
    MakeBlocks(3);
    Discard(1);
    Release();
    Close();
    const std::string good = ReadFileBytes(path());
    for (size_t bit = 0; bit < 8 * 40; ++bit) {
        SCOPED_TRACE("bit " + std::to_string(bit));
        std::string bytes = good;
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << (bit % 8)));
        WriteFileBytes(path(), bytes);
        TraceRecorder quiet(-1);
        LogRecorder log;
        if (bit / 8 < 4) {
            EXPECT_EQ(BlckFileOpen(&oBlck_, path().c_str()), 0u);
            EXPECT_EQ(ReadFileBytes(path()), bytes);
            continue;
        }
        Open();
        for (int i = 0; i < 3; ++i) {
            void* pData = nullptr;
            BlckNewBlock(&pData, oBlck_);
            if (pData)
                Fill(pData, 'n');
        }
        for (const int32_t id : {0, 1, 2, 3, 1000, -1, INT32_MIN, INT32_MAX}) {
            void* pData = nullptr;
            if (BlckGetBlock(&pData, oBlck_, id))
                BlckDiscardBlock(pData, oBlck_);
        }
        Release();
        Close();
        // Whatever it was, the file is still a block file. It may have become a sparse one of
        // terabytes, and is not read as a whole.
        Open();
        Close();
        std::filesystem::remove(path());
    }
}

TEST_F(Block, BlocksLieBeyondFourGigabytesWhereTheirIdsPutThem)
{
    constexpr int32_t FAR = 300'000;
    MakeBlocks(1);
    Close();
    std::string bytes = ReadFileBytes(path());
    PutU32At(bytes, 8, FAR + 1);
    WriteFileBytes(path(), bytes);
    Open();
    Fill(Get(FAR), 'z');
    TraceRecorder trace;
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), (std::vector<int64_t>{300'001LL * 16384, 0}));
    // Messages print the low half of an offset.
    EXPECT_TRUE(trace.has("Write out block 300000, 16384 bytes at offset 620249088"))
        << trace.dump();
    EXPECT_EQ(std::filesystem::file_size(path()), 300'002ull * 16384);
    EXPECT_EQ(Get(FAR)[16383], 'z');
    EXPECT_EQ(Get(0)[0], 'A');
}

TEST_F(Block, HowManyBlocksThereCanBeIsBoundedByTheFileNotByTheCountAlone)
{
    EXPECT_EQ(BlckBlockLimit(nullptr), 0u);
    MakeBlocks(3);
    EXPECT_EQ(BlckBlockLimit(oBlck_), 3u);
    control()->blockCount = 0x7FFFFFFF;
    EXPECT_EQ(BlckBlockLimit(oBlck_), 4u); // the file's 65536 bytes hold no more
    Get(1);
    EXPECT_EQ(BlckBlockLimit(oBlck_), 5u);
    control()->blockCount = -1;
    EXPECT_EQ(BlckBlockLimit(oBlck_), 0u);
}

// ---- user data and constants -------------------------------------------------------------------

TEST_F(Block, SizeUserDataAndItsLengthOfNullAreConstantsAndNull)
{
    EXPECT_EQ(BlckSize(nullptr), 16384u);
    EXPECT_EQ(BlckUserDataLength(nullptr), 0u);
    EXPECT_EQ(BlckUserData(nullptr), nullptr);
    BlckUserDataModified(nullptr);
    void* oWrong = ObjIntegerNew(1);
    EXPECT_EQ(BlckSize(oWrong), 16384u);
    EXPECT_EQ(BlckUserDataLength(oWrong), 0u);
    EXPECT_EQ(BlckUserData(oWrong), nullptr);
    TraceRecorder trace;
    BlckUserDataModified(oWrong);
    EXPECT_TRUE(trace.lines().empty());
    ObjReleaseInternal(&oWrong);
    Open();
    EXPECT_EQ(BlckSize(oBlck_), 16384u);
    EXPECT_EQ(BlckUserDataLength(oBlck_), 16128u);
}

TEST_F(Block, UserDataReachesTheFileOnlyOnceItIsMarked)
{
    Open();
    Release();
    static_cast<char*>(BlckUserData(oBlck_))[0] = 'u';
    Release();
    EXPECT_EQ(ReadFileBytes(path())[40], '\0');
    TraceRecorder trace;
    BlckUserDataModified(oBlck_);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Mark user data modified"));
    Release();
    EXPECT_EQ(ReadFileBytes(path())[40], 'u');
}

// ---- allocation --------------------------------------------------------------------------------

TEST_F(Block, TheFirstIdsAre012AndADiscardedBlockIsHandedOutNext)
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

TEST_F(Block, ANewBlockIsAllZeroEvenWhenItWasUsedBefore)
{
    MakeBlocks(1);
    Discard(0);
    Release();
    void* pData = nullptr;
    EXPECT_EQ(BlckNewBlock(&pData, oBlck_), 0);
    EXPECT_EQ(Bytes(static_cast<uint8_t*>(pData), 16384), std::string(16384, '\0'));
}

TEST_F(Block, ANewBlockIsNotMarkedModified)
{
    Open();
    void* pData = nullptr;
    EXPECT_EQ(BlckNewBlock(&pData, oBlck_), 0);
    FileCalls calls;
    Release();
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>{0});
    EXPECT_EQ(U32At(ReadFileBytes(path()), 8), 1u);
}

TEST_F(Block, AllocationsTraceWhatTheyDo)
{
    Open();
    void* pData = nullptr;
    TraceRecorder trace;
    BlckNewBlock(&pData, oBlck_);
    const std::string call = "BlckNewBlock(" + Address(&pData) + ", " + Address(oBlck_) + ")";
    EXPECT_TRUE(trace.has(TAG, 0, 4, call)) << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Allocate new block 0"));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "tFreeChain -1"));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "0 = " + call));
    BlckDiscardBlock(pData, oBlck_);
    Release();
    trace.clear();
    BlckNewBlock(&pData, oBlck_);
    EXPECT_FALSE(trace.hasPart("Allocate new block"));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "tFreeChain -1"));
}

TEST_F(Block, AllocatingInNoBlockFileGivesMinusOne)
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

TEST_F(Block, AnIdWhoseBlockCannotBeReadStaysAllocatedAndComesWithoutData)
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
}

TEST_F(Block, AFreeLinkThatCannotBeReadEndsTheChainSoThatNoBlockIsHandedOutTwice)
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
            EXPECT_EQ(New(), 2);
            EXPECT_EQ(fault.hits(), 1u);
        }
        EXPECT_EQ(control()->tFreeChain, 0xFFFFFFFF);
        EXPECT_EQ(New(), 3);
        Close();
    }
}

TEST_F(Block, AFailedSeekToTheFreeLinkEndsTheChain)
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

TEST_F(Block, ABlockDiscardedInAnOperationIsNotHandedOutInIt)
{
    MakeBlocks(1);
    Discard(0);
    EXPECT_EQ(New(), 1);
    Release();
    EXPECT_EQ(New(), 0);
}

TEST_F(Block, ABlockAllocatedBeforeABackoutIsNeverHandedOutAgain)
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

TEST_F(Block, ABlockTakenOffTheFreeChainBeforeABackoutIsLost)
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

TEST_F(Block, AFullDiskIsMetBeforeAnythingIsWritten)
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

TEST_F(Block, TheSpaceOfAFreshBlockIsReservedWithoutChangingTheLength)
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

class DamagedChain : public BlockFileTest {
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

TEST_F(DamagedChain, ALinkToItselfEndsTheChain)
{
    Make(2, 2);
    EXPECT_EQ(Take(3), (std::vector<int32_t>{2, 3, 4}));
}

TEST_F(DamagedChain, AHeadOrALinkOutOfRangeGivesNoBlockAndEndsTheChain)
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

TEST_F(DamagedChain, ALinkToABlockInUseGivesTheChainUp)
{
    Make(2, 1);
    Fill(Get(1), 'u'); // in use by the present operation
    TraceRecorder trace;
    EXPECT_EQ(Take(3), (std::vector<int32_t>{2, 3, 4}));
    EXPECT_TRUE(trace.hasPart("Free chain leads to block 1, which is in use")) << trace.dump();
    EXPECT_EQ(Get(1)[0], 'u');
}

TEST_F(DamagedChain, ARingOfFreeBlocksHandsNoneOutTwice)
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

TEST_F(Block, FetchingTheSameIdTwiceGivesTheSameAddressAndReadsOnce)
{
    MakeBlocks(2);
    FileCalls calls;
    const uint8_t* pFirst = Get(1);
    EXPECT_EQ(Get(1), pFirst);
    EXPECT_EQ(calls.offsets(FILE_OP_READ), std::vector<int64_t>{2 * 16384});
    EXPECT_EQ(calls.sizes(FILE_OP_READ), std::vector<uint32_t>{16384});
}

TEST_F(Block, FetchesTraceWhereTheBlockComesFrom)
{
    MakeBlocks(1);
    void* pData = nullptr;
    TraceRecorder trace;
    BlckGetBlock(&pData, oBlck_, 0);
    const std::string pp = Address(&pData), o = Address(oBlck_), p = Address(pData);
    const std::string entry = "BlckGetBlock(" + pp + ", 0x" + o + ", 0)";
    const std::string result = "TRUE = BlckGetBlock(" + pp + ", " + o + ", 0) " + p;
    EXPECT_EQ(
        trace.texts(), (std::vector<std::string>{
                           entry, "Seek to read position 16384", "Insert into map", result}));
    trace.clear();
    BlckGetBlock(&pData, oBlck_, 0);
    EXPECT_EQ(
        trace.texts(), (std::vector<std::string>{
                           entry, "Block already in memory", "Block 0 (0) at " + p, result}));
    for (const TraceRecorder::Line& line : trace.lines()) {
        EXPECT_EQ(line.tag, TAG);
        EXPECT_EQ(line.level, 4);
        EXPECT_EQ(line.error, 0u);
    }
}

TEST_F(Block, FetchesRefuseTheirArgumentsInOrderAndLeaveTheVariableAlone)
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

TEST_F(Block, ABlockOnTheFreeChainCanBeFetched)
{
    MakeBlocks(1);
    Discard(0);
    Release();
    EXPECT_EQ(Get(0)[4], 'A');
}

TEST_F(Block, AFailedSeekOrReadLeavesNothingInMemory)
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

TEST_F(Block, AFetchWithoutMemoryFailsAndLeavesNothing)
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

TEST_F(Block, TheBytesBehindTheEndOfTheFileAreZero)
{
    MakeBlocks(2);
    Close();
    const std::string bytes = ReadFileBytes(path());
    WriteFileBytes(path(), bytes.substr(0, 2 * 16384 + 100));
    Open();
    // The memory of the block may have held something else before.
    Fill(Get(0), 'q');
    Backout();
    const uint8_t* pData = Get(1);
    EXPECT_EQ(Bytes(pData, 100), std::string(100, 'B'));
    EXPECT_EQ(Bytes(pData + 100, 16284), std::string(16284, '\0'));
}

// ---- marking -----------------------------------------------------------------------------------

TEST_F(Block, MarkingTracesTheBlockItsReferencesAndTheResult)
{
    MakeBlocks(1);
    void* pData = Get(0);
    TraceRecorder trace;
    EXPECT_EQ(BlckModifiedBlock(pData, oBlck_), 1u);
    EXPECT_EQ(
        trace.texts(),
        (std::vector<std::string>{
            "Block 0 ref count 1 Modified",
            "TRUE = BlckModifiedBlock(" + Address(pData) + ", " + Address(oBlck_) + ")"}));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Block 0 ref count 1 Modified"));
    trace.clear();
    EXPECT_EQ(BlckDiscardBlock(pData, oBlck_), 1u);
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    Backout();
}

TEST_F(Block, MarkingRefusesTheHandleThenTheAddressThenTheObject)
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

TEST_F(Block, TheIdOfABlockIsItsOwnAndOfAnythingElseMinusOne)
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

} // namespace
