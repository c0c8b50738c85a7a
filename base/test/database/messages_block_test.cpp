// messages_block_test.cpp: every message of the block store, with its level and error flag, and its
// messages of the product log.

#include "block_scene.h"
#include "message_book.h"
#include "nim/nim.h"
#include "support/armed_fault.h"
#include "support/file_bytes.h"

namespace {

constexpr const char* BLCK = "BLCK        ";

class S : public BlockScene {
  public:
    std::string Opened(const char* verdict)
    {
        return std::string(verdict) + " = BlckFileOpen(" + Pointer(&oBlck) + ", " + path + ")";
    }
    std::string Got(const char* verdict, void** ppData, void* block, int32_t tId, void* data)
    {
        return std::string(verdict) + " = BlckGetBlock(" + Pointer(ppData) + ", " + Pointer(block) +
               ", " + Number(tId) + ") " + Pointer(data);
    }
};

TEST(BlockMessages, OpeningAFile)
{
    ReadBook<S>(
        BLCK, {
                  {"BlckFileOpen(%p, %s)", 0, 4,
                   [](S& s) {
                       s.Open();
                       return "BlckFileOpen(" + Pointer(&s.oBlck) + ", " + s.path + ")";
                   }},
                  {"BlckFileOpen(%p, %s)", 0, 4,
                   [](S&) {
                       EXPECT_EQ(BlckFileOpen(nullptr, nullptr), 0u);
                       return "BlckFileOpen(" + Pointer(nullptr) + ", (null))";
                   }},
                  {"Read '%ld' of '%ld' byte header", 0, 4,
                   [](S& s) {
                       s.Open();
                       return std::string("Read '0' of '16168' byte header");
                   }},
                  {"Read '%ld' of '%ld' byte header", 0, 4,
                   [](S& s) {
                       s.OneBlock();
                       void* oAgain = nullptr;
                       EXPECT_EQ(BlckFileOpen(&oAgain, s.path.c_str()), 1u);
                       ObjReleaseInternal(&oAgain);
                       return std::string("Read '16168' of '16168' byte header");
                   }},
                  {"Set free chain empty", 0, 4, [](S& s) { s.Open(); }},
                  {"Invalid control block (%ld)", 0, -1,
                   [](S& s) {
                       WriteFileBytes(s.path, std::string("\x0a\0\0\0", 4) + std::string(96, 'x'));
                       EXPECT_EQ(s.Open(s.path.c_str()), 0u);
                       return std::string("Invalid control block (10)");
                   }},
                  {"Invalid control block (%ld)", 0, -1,
                   [](S& s) { // the wrong magic, as a signed number
                       WriteFileBytes(s.path, std::string(16168, '\xfe'));
                       EXPECT_EQ(s.Open(s.path.c_str()), 0u);
                       return std::string("Invalid control block (-16843010)");
                   }},
                  {"%s = BlckFileOpen(%p, %s)", 0, 3,
                   [](S& s) {
                       s.Open();
                       return s.Opened("TRUE");
                   }},
                  {"%s = BlckFileOpen(%p, %s)", 0, 3,
                   [](S& s) {
                       const ArmedFault fault(FAULT_OPEN);
                       EXPECT_EQ(s.Open(s.path.c_str()), 0u);
                       return s.Opened("FALSE");
                   }},
                  {"%s = BlckFileOpen(%p, %s)", 0, 3,
                   [](S& s) {
                       const ArmedFault fault(FAULT_READ);
                       EXPECT_EQ(s.Open(s.path.c_str()), 0u);
                       return s.Opened("FALSE");
                   }},
              });
}

TEST(BlockMessages, AllocatingABlockAndTheUserData)
{
    ReadBook<S>(
        BLCK,
        {
            {"BlckNewBlock(%p, %p)", 0, 4,
             [](S& s) {
                 s.New();
                 return "BlckNewBlock(" + Pointer(&s.pData) + ", " + Pointer(s.oBlck) + ")";
             }},
            {"Allocate new block %ld", 0, 4,
             [](S& s) {
                 s.New();
                 s.New();
                 return std::string("Allocate new block 1");
             }},
            {"tFreeChain %ld", 0, 4,
             [](S& s) {
                 s.New();
                 return std::string("tFreeChain -1");
             }},
            {"tFreeChain %ld", 0, 4,
             [](S& s) { // the head after the allocation
                 s.New();
                 BlckDiscardBlock(s.pData, s.oBlck);
                 s.New();
                 BlckDiscardBlock(s.pData, s.oBlck);
                 BlckReleaseAll(s.oBlck);
                 EXPECT_EQ(s.New(), 1);
                 return std::string("tFreeChain 0");
             }},
            {"%ld = BlckNewBlock(%p, %p)", 0, 4,
             [](S& s) {
                 s.New();
                 return "0 = BlckNewBlock(" + Pointer(&s.pData) + ", " + Pointer(s.oBlck) + ")";
             }},
            {"%ld = BlckNewBlock(%p, %p)", 0, 4,
             [](S& s) {
                 EXPECT_EQ(BlckNewBlock(nullptr, s.oOther), -1);
                 return "-1 = BlckNewBlock(" + Pointer(nullptr) + ", " + Pointer(s.oOther) + ")";
             }},
            {"Mark user data modified", 0, 4,
             [](S& s) {
                 s.Open();
                 BlckUserDataModified(s.oBlck);
             }},
        });
}

TEST(BlockMessages, FlushingTheControlBlock)
{
    ReadBook<S>(
        BLCK, {
                  {"Modified control block has no handle", 0, -1,
                   [](S& s) {
                       s.Open();
                       FileSysClose(&s.control()->hFile);
                       BlckReleaseAll(s.oBlck);
                   }},
                  {"Failed to seek to begining of file", 0, -1,
                   [](S& s) {
                       s.Open();
                       const ArmedFault fault(FAULT_SEEKSTART);
                       BlckReleaseAll(s.oBlck);
                   }},
                  {"Failed to write control block to file", 0, -1,
                   [](S& s) {
                       s.Open();
                       const ArmedFault fault(FAULT_WRITE);
                       BlckReleaseAll(s.oBlck);
                   }},
              });
}

TEST(BlockMessages, FetchingABlock)
{
    ReadBook<S>(
        BLCK, {
                  {"BlckGetBlock(%p, 0x%p, %ld)", 0, 4,
                   [](S& s) {
                       s.OneBlock();
                       EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 0), 1u);
                       return "BlckGetBlock(" + Pointer(&s.pData) + ", 0x" + Pointer(s.oBlck) +
                              ", 0)";
                   }},
                  {"Invalid ppData at %p", 0, -1,
                   [](S& s) {
                       s.OneBlock();
                       EXPECT_EQ(BlckGetBlock(nullptr, s.oBlck, 0), 0u);
                       return "Invalid ppData at " + Pointer(nullptr);
                   }},
                  {"Invalid oBlck at %p", 0, -1,
                   [](S& s) {
                       EXPECT_EQ(BlckGetBlock(&s.pData, s.oOther, 0), 0u);
                       return "Invalid oBlck at " + Pointer(s.oOther);
                   }},
                  {"Invalid tId %ld", 0, -1,
                   [](S& s) {
                       s.OneBlock();
                       EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, -1), 0u);
                       return std::string("Invalid tId -1");
                   }},
                  {"Unallocated tId %ld", 0, -1,
                   [](S& s) {
                       s.OneBlock();
                       EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 1), 0u);
                       return std::string("Unallocated tId 1");
                   }},
                  {"Block already in memory", 0, 4,
                   [](S& s) {
                       s.New();
                       EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 0), 1u);
                   }},
                  {"Block %ld (%ld) at %p", 0, 4,
                   [](S& s) {
                       s.New();
                       s.New();
                       EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 1), 1u);
                       return "Block 1 (1) at " + Pointer(s.pData);
                   }},
                  {"Seek to read position %ld", 0, 4,
                   [](S& s) {
                       s.New();
                       s.New();
                       return std::string("Seek to read position 32768");
                   }},
                  {"Insert into map", 0, 4, [](S& s) { s.New(); }},
                  {"%s = BlckGetBlock(%p, %p, %ld) %p", 0, 4,
                   [](S& s) {
                       s.OneBlock();
                       EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 0), 1u);
                       return s.Got("TRUE", &s.pData, s.oBlck, 0, s.pData);
                   }},
                  {"%s = BlckGetBlock(%p, %p, %ld) %p", 0, 4,
                   [](S& s) { // the variable keeps what it held
                       s.OneBlock();
                       s.pData = s.oOther;
                       const ArmedFault fault(FAULT_READ);
                       EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 0), 0u);
                       return s.Got("FALSE", &s.pData, s.oBlck, 0, s.oOther);
                   }},
                  {"%s = BlckGetBlock(%p, %p, %ld) %p", 0, 4,
                   [](S& s) {
                       EXPECT_EQ(BlckGetBlock(nullptr, nullptr, 3), 0u);
                       return s.Got("FALSE", nullptr, nullptr, 3, nullptr);
                   }},
              });
}

TEST(BlockMessages, MarkingABlock)
{
    ReadBook<S>(
        BLCK, {
                  {"Invalid oBlck at %p", 0, -1,
                   [](S& s) {
                       s.New();
                       EXPECT_EQ(BlckModifiedBlock(s.pData, s.oOther), 0u);
                       return "Invalid oBlck at " + Pointer(s.oOther);
                   }},
                  {"Invalid oBlck at %p", 0, -1,
                   [](S& s) {
                       EXPECT_EQ(BlckDiscardBlock(s.pData, nullptr), 0u);
                       return "Invalid oBlck at " + Pointer(nullptr);
                   }},
                  {"Invalid pData at %p", 0, -1,
                   [](S& s) {
                       s.Open();
                       EXPECT_EQ(BlckModifiedBlock(nullptr, s.oBlck), 0u);
                       return "Invalid pData at " + Pointer(nullptr);
                   }},
                  {"Invalid pData at %p", 0, -1,
                   [](S& s) {
                       s.Open();
                       EXPECT_EQ(BlckDiscardBlock(nullptr, s.oBlck), 0u);
                       return "Invalid pData at " + Pointer(nullptr);
                   }},
                  {"Invalid oBlock at %p", 0, -1,
                   [](S& s) { // the data lies behind the owner, at the object's byte 8
                       s.Open();
                       EXPECT_EQ(BlckModifiedBlock(static_cast<char*>(s.oOther) + 8, s.oBlck), 0u);
                       return "Invalid oBlock at " + Pointer(s.oOther);
                   }},
                  {"Invalid oBlock at %p", 0, -1,
                   [](S& s) {
                       s.Open();
                       EXPECT_EQ(BlckDiscardBlock(static_cast<char*>(s.oOther) + 8, s.oBlck), 0u);
                       return "Invalid oBlock at " + Pointer(s.oOther);
                   }},
                  {"Block %ld ref count %ld Modified", 0, 4,
                   [](S& s) {
                       s.New();
                       EXPECT_EQ(BlckModifiedBlock(s.pData, s.oBlck), 1u);
                       return std::string("Block 0 ref count 1 Modified");
                   }},
                  {"%s = BlckModifiedBlock(%p, %p)", 0, 4,
                   [](S& s) {
                       s.New();
                       BlckModifiedBlock(s.pData, s.oBlck);
                       return "TRUE = BlckModifiedBlock(" + Pointer(s.pData) + ", " +
                              Pointer(s.oBlck) + ")";
                   }},
                  {"%s = BlckModifiedBlock(%p, %p)", 0, 4,
                   [](S&) {
                       BlckModifiedBlock(nullptr, nullptr);
                       return "FALSE = BlckModifiedBlock(" + Pointer(nullptr) + ", " +
                              Pointer(nullptr) + ")";
                   }},
                  {"Invalid BlckBlock at %p", 0, -1,
                   [](S&) {
                       EXPECT_EQ(BlckId(nullptr), -1);
                       return "Invalid BlckBlock at " + Pointer(nullptr);
                   }},
                  {"Invalid BlckBlock at %p", 0, -1,
                   [](S& s) {
                       char* pNoBlock = static_cast<char*>(s.oOther) + 8;
                       EXPECT_EQ(BlckId(pNoBlock), -1);
                       return "Invalid BlckBlock at " + Pointer(pNoBlock);
                   }},
              });
}

TEST(BlockMessages, WritingABlock)
{
    ReadBook<S>(
        BLCK, {
                  {"Invalid oBlck at %p", 0, -1,
                   [](S& s) {
                       s.New();
                       EXPECT_EQ(BlckFlushBlock(s.oOther, s.pData), 0u);
                       return "Invalid oBlck at " + Pointer(s.oOther);
                   }},
                  {"Write out block %ld, %ld bytes at offset %ld", 0, 4,
                   [](S& s) {
                       s.New();
                       EXPECT_EQ(BlckFlushBlock(s.oBlck, s.pData), 1u);
                       return std::string("Write out block 0, 16384 bytes at offset 16384");
                   }},
                  {"Write out block %ld, %ld bytes at offset %ld", 0, 4,
                   [](S& s) {
                       s.New();
                       s.New();
                       BlckModifiedBlock(s.pData, s.oBlck);
                       BlckReleaseAll(s.oBlck);
                       return std::string("Write out block 1, 16384 bytes at offset 32768");
                   }},
                  {"Failed to flush database block", 0, -1,
                   [](S& s) {
                       s.New();
                       const ArmedFault fault(FAULT_WRITE);
                       EXPECT_EQ(BlckFlushBlock(s.oBlck, s.pData), 0u);
                   }},
                  {"BlkBlockDestructor(%p)", 0, 4,
                   [](S& s) {
                       s.New();
                       const void* oBlock = static_cast<char*>(s.pData) - 8;
                       BlckReleaseAll(s.oBlck);
                       return "BlkBlockDestructor(" + Pointer(oBlock) + ")";
                   }},
                  {"Add Block %ld to free chain", 0, 4,
                   [](S& s) {
                       s.New();
                       s.New();
                       BlckDiscardBlock(s.pData, s.oBlck);
                       BlckReleaseAll(s.oBlck);
                       return std::string("Add Block 1 to free chain");
                   }},
              });
}

// ---- the product log
// -----------------------------------------------------------------------------

TEST(BlockMessages, LogEntriesOfLostWrites)
{
    const char* control = "Failed to flush a database control block";
    const char* flushed = "Failed to flush database block";
    const char* discarded = "Failed to discard database block";
    ReadLogBook<S>({
        {1298, 96, control,
         [=](S& s) {
             s.Open();
             const ArmedFault fault(FAULT_SEEKSTART);
             BlckReleaseAll(s.oBlck);
             return control;
         }},
        {1298, 96, control,
         [=](S& s) {
             s.Open();
             const ArmedFault fault(FAULT_WRITE);
             BlckReleaseAll(s.oBlck);
             return control;
         }},
        {1298, 96, control,
         [=](S& s) { // at the release that ends the handle, too
             s.Open();
             FileSysClose(&s.control()->hFile);
             ObjReleaseInternal(&s.oBlck);
             return control;
         }},
        {1299, 96, flushed,
         [=](S& s) {
             s.New();
             const ArmedFault fault(FAULT_WRITE);
             BlckFlushBlock(s.oBlck, s.pData);
             return flushed;
         }},
        {1300, 96, discarded,
         [=](S& s) {
             s.New();
             BlckDiscardBlock(s.pData, s.oBlck);
             const ArmedFault fault(FAULT_WRITE);
             BlckReleaseAll(s.oBlck);
             return discarded;
         }},
        {1300, 96, discarded,
         [=](S& s) { // the text for a changed block, too
             s.New();
             BlckModifiedBlock(s.pData, s.oBlck);
             const ArmedFault fault(FAULT_WRITE);
             BlckReleaseAll(s.oBlck);
             return discarded;
         }},
    });
}

TEST(BlockMessages, OnlyTheLostControlBlockIsLoggedWithTheRecentTrace)
{
    S s;
    s.New();
    BlckModifiedBlock(s.pData, s.oBlck);
    TraceRecorder trace;
    LogRecorder log;
    const ArmedFault fault(FAULT_WRITE, 1, 2);
    BlckReleaseAll(s.oBlck);
    ASSERT_EQ(log.messages().size(), 2u) << log.dump();
    EXPECT_EQ(log.messages()[0].id, 1300u);
    EXPECT_FALSE(log.messages()[0].hasContext);
    EXPECT_EQ(log.messages()[1].id, 1298u);
    EXPECT_NE(
        log.messages()[1].context.find("Failed to write control block to file"), std::string::npos);
}

} // namespace
