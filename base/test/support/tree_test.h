// tree_test.h: the frame of a test that drives trees through an IndexFixture: a directory of its
// own, quiet outputs, and the check that nothing is left behind: no object, no memory, no open
// file.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "nim/fault.h"
#include "support/address_text.h"
#include "support/index_fixture.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"
#include "support/tree_check.h"

class TreeTest : public testing::Test {
  protected:
    static constexpr const char* TAG = "INDX        "; // and eight blanks
    static constexpr uint32_t NONE = 0xFFFFFFFF;

    void SetUp() override
    {
        // Templates are made once in a process and stay.
        static bool sWarm = false;
        if (!sWarm) {
            sWarm = true;
            IndexFixture index(directory_.path("warm"), {{INDX_KEY_TEXT}});
            index.Add(1, TextKey("warm"));
            index.Find(1, TextKey("warm"));
            CheckTable(index.table());
        }
        objects_ = ObjLiveCount(0);
        memory_ = MemLiveCount();
        files_ = FileSysOpenCount();
        IndxSetError(0);
    }
    void TearDown() override
    {
        FaultDisarmAll();
        EXPECT_EQ(ObjLiveCount(0), objects_) << "objects are left";
        EXPECT_EQ(MemLiveCount(), memory_) << "memory is left";
        EXPECT_EQ(FileSysOpenCount(), files_) << "files are left open";
    }
    std::string path() const { return directory_.path("index"); }

    TemporaryDirectory directory_;

  private:
    TraceRecorder quietTrace_{-1};
    LogRecorder quietLog_;
    uint32_t objects_ = 0;
    uint32_t memory_ = 0;
    uint32_t files_ = 0;
};
