// block_test.cpp: block files: opening and creating them, the format byte by byte, user data, and
// the order of blocks in memory.

#include "support/block_file.h"

#include <cstdlib>
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
        std::vector<std::string> texts;
        for (const TraceRecorder::Line& line : trace.lines())
            if (line.tag == TAG) // the base services tell what the system says
                texts.push_back(line.text);
        EXPECT_EQ(texts, (std::vector<std::string>{call, "FALSE = " + call}));
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
    // No file says that it is unchanged, but it would be believed.
    Close();
    std::string bytes = ReadFileBytes(path());
    PutU32At(bytes, 16, 0);
    WriteFileBytes(path(), bytes);
    Open();
    EXPECT_EQ(control()->bModified, 0u);
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
    void* oWrong = ObjIntegerNew(1);
    EXPECT_EQ(BlckSize(oWrong), 16384u);
    EXPECT_EQ(BlckUserDataLength(oWrong), 0u);
    EXPECT_EQ(BlckUserData(oWrong), nullptr);
    TraceRecorder trace;
    BlckUserDataModified(oWrong);
    BlckUserDataModified(nullptr);
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

// ---- the order of blocks in memory -------------------------------------------------------------

TEST_F(Block, BlocksAndIdsAreOrderedByTheDifferenceOfTheirIdsIn32Bits)
{
    const int32_t ids[] = {0, 1, 2, 77, 16384, INT32_MAX - 1, INT32_MAX, -1, INT32_MIN};
    for (int32_t left : ids) {
        for (int32_t right : ids) {
            BlckBlock a = {};
            BlckBlock b = {};
            a.tId = left;
            b.tId = right;
            const auto difference =
                static_cast<int32_t>(static_cast<uint32_t>(left) - static_cast<uint32_t>(right));
            EXPECT_EQ(BlckCompareBlocks(&a, &b), difference) << left << " " << right;
            EXPECT_EQ(BlckCompareBlockId(&left, &b), difference) << left << " " << right;
            if (left >= 0 && right >= 0) {
                EXPECT_EQ(difference < 0, left < right);
                EXPECT_EQ(difference == 0, left == right);
            }
        }
    }
}

// ---- the first open of a process ---------------------------------------------------------------

// Makes the n-th allocation of the process's first open fail, for every n.
void OpenWithoutMemoryFirst()
{
    TemporaryDirectory directory;
    const std::string path = directory.path("blocks");
    for (uint32_t nth = 1; nth < 20; ++nth) {
        void* oBlck = nullptr;
        bool bStruck;
        NimBool bOpened;
        {
            const ArmedFault fault(FAULT_ALLOC, nth);
            bOpened = BlckFileOpen(&oBlck, path.c_str());
            bStruck = fault.hits() != 0;
        }
        if (bStruck && (bOpened || oBlck || FileSysOpenCount() != 0))
            std::exit(2);
        if (!bStruck) {
            ObjReleaseInternal(&oBlck);
            std::exit(bOpened && nth > 3 && ObjLiveCount(0) == 0 ? 0 : 3);
        }
    }
    std::exit(4);
}

TEST(BlockDeathTest, TheFirstOpenOfAProcessSurvivesEveryAllocationFailure)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(OpenWithoutMemoryFirst(), testing::ExitedWithCode(0), "");
}

// ---- templates and the gap ---------------------------------------------------------------------

TEST_F(Block, TheTemplatesOfControlBlockAndBlocksAreMadeOnceAndKept)
{
    const auto blockTemplate = [&] { return OBJ_HEADER(Get(0) - 8)->tmpl; };
    MakeBlocks(1);
    ObjTemplate* const pControl = OBJ_HEADER(oBlck_)->tmpl;
    ObjTemplate* const pBlock = blockTemplate();
    Close();
    const uint32_t memory = MemLiveCount();
    for (int i = 0; i < 3; ++i) {
        Open();
        EXPECT_EQ(OBJ_HEADER(oBlck_)->tmpl, pControl);
        EXPECT_EQ(blockTemplate(), pBlock);
        Close();
        EXPECT_EQ(MemLiveCount(), memory);
    }
}

TEST_F(Block, TheGapBehindTheControlBlockIsNeverWritten)
{
    MakeBlocks(2);
    Close();
    std::string bytes = ReadFileBytes(path());
    bytes.replace(16168, 216, std::string(216, 'g'));
    WriteFileBytes(path(), bytes);
    Open();
    BlckUserDataModified(oBlck_);
    Release();
    EXPECT_EQ(ReadFileBytes(path()).substr(16168, 216), std::string(216, 'g'));
}

} // namespace
