// block_file.h: a block file of a test's own, opened and closed by hand, and the check that nothing
// is left behind: no object, no memory, no open file.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "database/block.h"
#include "database/block/shapes.h"
#include "nim/fault.h"
#include "nim/nim.h"
#include "support/address_text.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"

class BlockFileTest : public testing::Test {
  protected:
    static constexpr const char* TAG = "BLCK        "; // and eight blanks

    void SetUp() override
    {
        // Templates are made once in a process and stay.
        static bool sWarm = false;
        if (!sWarm) {
            sWarm = true;
            Open(directory_.path("warm"));
            New();
            Close();
        }
        objects_ = ObjLiveCount(0);
        memory_ = MemLiveCount();
        files_ = FileSysOpenCount();
    }
    void TearDown() override
    {
        FaultDisarmAll();
        Close();
        EXPECT_EQ(ObjLiveCount(0), objects_) << "objects are left";
        EXPECT_EQ(MemLiveCount(), memory_) << "memory is left";
        EXPECT_EQ(FileSysOpenCount(), files_) << "files are left open";
    }

    std::string path() const { return directory_.path("blocks"); }
    void Open(const std::string& path)
    {
        Close();
        ASSERT_EQ(BlckFileOpen(&oBlck_, path.c_str()), 1u);
        ASSERT_NE(oBlck_, nullptr);
    }
    void Open() { Open(path()); }
    void Close() { ObjReleaseInternal(&oBlck_); }
    void Release() { BlckReleaseAll(oBlck_); }
    void Backout() { BlckBackoutAll(oBlck_); }
    BlckControl* control() const { return static_cast<BlckControl*>(oBlck_); }

    // A new block, marked modified, its bytes all `fill`; its id.
    int32_t New(char fill = '\0')
    {
        void* pData = nullptr;
        const int32_t id = BlckNewBlock(&pData, oBlck_);
        EXPECT_NE(pData, nullptr);
        Fill(pData, fill);
        return id;
    }
    void Fill(void* pData, char fill)
    {
        memset(pData, fill, BLCK_BLOCK_SIZE);
        EXPECT_EQ(BlckModifiedBlock(pData, oBlck_), 1u);
    }
    uint8_t* Get(int32_t id)
    {
        void* pData = nullptr;
        EXPECT_EQ(BlckGetBlock(&pData, oBlck_, id), 1u) << "block " << id;
        return static_cast<uint8_t*>(pData);
    }
    void Discard(int32_t id) { EXPECT_EQ(BlckDiscardBlock(Get(id), oBlck_), 1u); }
    // `count` blocks on disk, block i filled with 'A' + i.
    void MakeBlocks(int count)
    {
        Open();
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(New(static_cast<char>('A' + i)), i);
        Release();
    }

    TemporaryDirectory directory_;
    void* oBlck_ = nullptr;

  private:
    // Keep what the tests provoke off the standard error.
    TraceRecorder quietTrace_{-1};
    LogRecorder quietLog_;
    uint32_t objects_ = 0;
    uint32_t memory_ = 0;
    uint32_t files_ = 0;
};
