// messages_block_test.cpp: every message of the block store, with its level and error flag, and its
// messages of the product log.

#include "block_scene.h"
#include "message_book.h"
#include "nim/nim.h"
#include "support/armed_fault.h"
#include "support/file_bytes.h"

namespace {

constexpr const char* BLCK = "BLCK        ";

using S = BlockScene;

TEST(BlockMessages, OpeningAFile)
{
    const std::vector<BookLine<S>> lines = {
        {"BlckFileOpen(%p, %s)", With(At(&S::oBlck), &S::path), 0, 4, [](S& s) { s.Open(); }},
        {"BlckFileOpen(%p, %s)", With(nullptr, "(null)"), 0, 4,
         [](S&) { EXPECT_EQ(BlckFileOpen(nullptr, nullptr), 0u); }},
        {"Read '%ld' of '%ld' byte header", With(0, 16168), 0, 4, [](S& s) { s.Open(); }},
        {"Read '%ld' of '%ld' byte header", With(16168, 16168), 0, 4,
         [](S& s) {
             s.OneBlock();
             void* oAgain = nullptr;
             EXPECT_EQ(BlckFileOpen(&oAgain, s.path.c_str()), 1u);
             ObjReleaseInternal(&oAgain);
         }},
        {"Set free chain empty", 0, 4, [](S& s) { s.Open(); }},
        {"Invalid control block (%ld)", With(10), 0, -1,
         [](S& s) {
             WriteFileBytes(s.path, std::string("\x0a\0\0\0", 4) + std::string(96, 'x'));
             EXPECT_EQ(s.Open(s.path.c_str()), 0u);
         }},
        {"Invalid control block (%ld)", With(-16843010), 0, -1,
         [](S& s) { // the wrong magic, as a signed number
             WriteFileBytes(s.path, std::string(16168, '\xfe'));
             EXPECT_EQ(s.Open(s.path.c_str()), 0u);
         }},
        {"%s = BlckFileOpen(%p, %s)", With("TRUE", At(&S::oBlck), &S::path), 0, 3,
         [](S& s) { s.Open(); }},
        {"%s = BlckFileOpen(%p, %s)", With("FALSE", At(&S::oBlck), &S::path), 0, 3,
         [](S& s) {
             const ArmedFault fault(FAULT_OPEN);
             EXPECT_EQ(s.Open(s.path.c_str()), 0u);
         }},
        {"%s = BlckFileOpen(%p, %s)", With("FALSE", At(&S::oBlck), &S::path), 0, 3,
         [](S& s) {
             const ArmedFault fault(FAULT_READ);
             EXPECT_EQ(s.Open(s.path.c_str()), 0u);
         }},
    };
    ReadBook(BLCK, lines);
}

TEST(BlockMessages, AllocatingABlockAndTheUserData)
{
    const std::vector<BookLine<S>> lines = {
        {"BlckNewBlock(%p, %p)", With(At(&S::pData), &S::oBlck), 0, 4, [](S& s) { s.New(); }},
        {"Allocate new block %ld", With(1), 0, 4,
         [](S& s) {
             s.New();
             s.New();
         }},
        {"tFreeChain %ld", With(-1), 0, 4, [](S& s) { s.New(); }},
        {"tFreeChain %ld", With(0), 0, 4,
         [](S& s) { // the head after the allocation
             s.New();
             BlckDiscardBlock(s.pData, s.oBlck);
             s.New();
             BlckDiscardBlock(s.pData, s.oBlck);
             BlckReleaseAll(s.oBlck);
             EXPECT_EQ(s.New(), 1);
         }},
        {"%ld = BlckNewBlock(%p, %p)", With(0, At(&S::pData), &S::oBlck), 0, 4,
         [](S& s) { s.New(); }},
        {"%ld = BlckNewBlock(%p, %p)", With(-1, nullptr, &S::oOther), 0, 4,
         [](S& s) { EXPECT_EQ(BlckNewBlock(nullptr, s.oOther), -1); }},
        {"Mark user data modified", 0, 4,
         [](S& s) {
             s.Open();
             BlckUserDataModified(s.oBlck);
         }},
    };
    ReadBook(BLCK, lines);
}

TEST(BlockMessages, FlushingTheControlBlock)
{
    const std::vector<BookLine<S>> lines = {
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
    };
    ReadBook(BLCK, lines);
}

TEST(BlockMessages, FetchingABlock)
{
    const std::vector<BookLine<S>> lines = {
        {"BlckGetBlock(%p, 0x%p, %ld)", With(At(&S::pData), &S::oBlck, 0), 0, 4,
         [](S& s) {
             s.OneBlock();
             EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 0), 1u);
         }},
        {"Invalid ppData at %p", With(nullptr), 0, -1,
         [](S& s) {
             s.OneBlock();
             EXPECT_EQ(BlckGetBlock(nullptr, s.oBlck, 0), 0u);
         }},
        {"Invalid oBlck at %p", With(&S::oOther), 0, -1,
         [](S& s) { EXPECT_EQ(BlckGetBlock(&s.pData, s.oOther, 0), 0u); }},
        {"Invalid tId %ld", With(-1), 0, -1,
         [](S& s) {
             s.OneBlock();
             EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, -1), 0u);
         }},
        {"Unallocated tId %ld", With(1), 0, -1,
         [](S& s) {
             s.OneBlock();
             EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 1), 0u);
         }},
        {"Block already in memory", 0, 4,
         [](S& s) {
             s.New();
             EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 0), 1u);
         }},
        {"Block %ld (%ld) at %p", With(1, 1, &S::pData), 0, 4,
         [](S& s) {
             s.New();
             s.New();
             EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 1), 1u);
         }},
        {"Seek to read position %ld", With(32768), 0, 4,
         [](S& s) {
             s.New();
             s.New();
         }},
        {"Insert into map", 0, 4, [](S& s) { s.New(); }},
        {"%s = BlckGetBlock(%p, %p, %ld) %p", With("TRUE", At(&S::pData), &S::oBlck, 0, &S::pData),
         0, 4,
         [](S& s) {
             s.OneBlock();
             EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 0), 1u);
         }},
        {"%s = BlckGetBlock(%p, %p, %ld) %p",
         With("FALSE", At(&S::pData), &S::oBlck, 0, &S::oOther), 0, 4,
         [](S& s) { // the variable keeps what it held
             s.OneBlock();
             s.pData = s.oOther;
             const ArmedFault fault(FAULT_READ);
             EXPECT_EQ(BlckGetBlock(&s.pData, s.oBlck, 0), 0u);
         }},
        {"%s = BlckGetBlock(%p, %p, %ld) %p", With("FALSE", nullptr, nullptr, 3, nullptr), 0, 4,
         [](S&) { EXPECT_EQ(BlckGetBlock(nullptr, nullptr, 3), 0u); }},
    };
    ReadBook(BLCK, lines);
}

TEST(BlockMessages, MarkingABlock)
{
    const std::vector<BookLine<S>> lines = {
        {"Invalid oBlck at %p", With(&S::oOther), 0, -1,
         [](S& s) {
             s.New();
             EXPECT_EQ(BlckModifiedBlock(s.pData, s.oOther), 0u);
         }},
        {"Invalid oBlck at %p", With(nullptr), 0, -1,
         [](S& s) { EXPECT_EQ(BlckDiscardBlock(s.pData, nullptr), 0u); }},
        {"Invalid pData at %p", With(nullptr), 0, -1,
         [](S& s) {
             s.Open();
             EXPECT_EQ(BlckModifiedBlock(nullptr, s.oBlck), 0u);
         }},
        {"Invalid pData at %p", With(nullptr), 0, -1,
         [](S& s) {
             s.Open();
             EXPECT_EQ(BlckDiscardBlock(nullptr, s.oBlck), 0u);
         }},
        {"Invalid oBlock at %p", With(&S::oOther), 0, -1,
         [](S& s) { // the data lies behind the owner, at the object's byte 8
             s.Open();
             EXPECT_EQ(BlckModifiedBlock(static_cast<char*>(s.oOther) + 8, s.oBlck), 0u);
         }},
        {"Invalid oBlock at %p", With(&S::oOther), 0, -1,
         [](S& s) {
             s.Open();
             EXPECT_EQ(BlckDiscardBlock(static_cast<char*>(s.oOther) + 8, s.oBlck), 0u);
         }},
        {"Block %ld ref count %ld Modified", With(0, 1), 0, 4,
         [](S& s) {
             s.New();
             EXPECT_EQ(BlckModifiedBlock(s.pData, s.oBlck), 1u);
         }},
        {"%s = BlckModifiedBlock(%p, %p)", With("TRUE", &S::pData, &S::oBlck), 0, 4,
         [](S& s) {
             s.New();
             BlckModifiedBlock(s.pData, s.oBlck);
         }},
        {"%s = BlckModifiedBlock(%p, %p)", With("FALSE", nullptr, nullptr), 0, 4,
         [](S&) { BlckModifiedBlock(nullptr, nullptr); }},
        {"Invalid BlckBlock at %p", With(nullptr), 0, -1,
         [](S&) { EXPECT_EQ(BlckId(nullptr), -1); }},
        {"Invalid BlckBlock at %p", 0, -1,
         [](S& s) {
             char* pNoBlock = static_cast<char*>(s.oOther) + 8;
             EXPECT_EQ(BlckId(pNoBlock), -1);
             return With(pNoBlock);
         }},
    };
    ReadBook(BLCK, lines);
}

TEST(BlockMessages, WritingABlock)
{
    const std::vector<BookLine<S>> lines = {
        {"Invalid oBlck at %p", With(&S::oOther), 0, -1,
         [](S& s) {
             s.New();
             EXPECT_EQ(BlckFlushBlock(s.oOther, s.pData), 0u);
         }},
        {"Write out block %ld, %ld bytes at offset %ld", With(0, 16384, 16384), 0, 4,
         [](S& s) {
             s.New();
             EXPECT_EQ(BlckFlushBlock(s.oBlck, s.pData), 1u);
         }},
        {"Write out block %ld, %ld bytes at offset %ld", With(1, 16384, 32768), 0, 4,
         [](S& s) {
             s.New();
             s.New();
             BlckModifiedBlock(s.pData, s.oBlck);
             BlckReleaseAll(s.oBlck);
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
             return With(oBlock);
         }},
        {"Add Block %ld to free chain", With(1), 0, 4,
         [](S& s) {
             s.New();
             s.New();
             BlckDiscardBlock(s.pData, s.oBlck);
             BlckReleaseAll(s.oBlck);
         }},
    };
    ReadBook(BLCK, lines);
}

// ---- the product log --------------------------------------------------------------------------

TEST(BlockMessages, LogEntriesOfLostWrites)
{
    const char* control = "Failed to flush a database control block";
    const char* flushed = "Failed to flush database block";
    const char* discarded = "Failed to discard database block";
    const std::vector<BookEntry<S>> lines = {
        {1298, 96, control,
         [=](S& s) {
             s.Open();
             const ArmedFault fault(FAULT_SEEKSTART);
             BlckReleaseAll(s.oBlck);
         }},
        {1298, 96, control,
         [=](S& s) {
             s.Open();
             const ArmedFault fault(FAULT_WRITE);
             BlckReleaseAll(s.oBlck);
         }},
        {1298, 96, control,
         [=](S& s) { // at the release that ends the handle, too
             s.Open();
             FileSysClose(&s.control()->hFile);
             ObjReleaseInternal(&s.oBlck);
         }},
        {1299, 96, flushed,
         [=](S& s) {
             s.New();
             const ArmedFault fault(FAULT_WRITE);
             BlckFlushBlock(s.oBlck, s.pData);
         }},
        {1300, 96, discarded,
         [=](S& s) {
             s.New();
             BlckDiscardBlock(s.pData, s.oBlck);
             const ArmedFault fault(FAULT_WRITE);
             BlckReleaseAll(s.oBlck);
         }},
        {1300, 96, discarded,
         [=](S& s) { // the text for a changed block, too
             s.New();
             BlckModifiedBlock(s.pData, s.oBlck);
             const ArmedFault fault(FAULT_WRITE);
             BlckReleaseAll(s.oBlck);
         }},
    };
    ReadLogBook(lines);
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
