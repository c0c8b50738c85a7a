// block_scene.h: a block file of its own, for books that need one for each of their lines. Nothing
// is open at first.
#pragma once

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "database/block.h"
#include "database/block/shapes.h"
#include "nim/fault.h"
#include "nim/nim.h"
#include "support/temporary_directory.h"

class BlockScene {
  public:
    ~BlockScene()
    {
        FaultDisarmAll();
        ObjReleaseInternal(&oBlck);
        ObjReleaseInternal(&oOther);
    }

    const TemporaryDirectory directory;
    const std::string path = directory.path("blocks");
    void* oBlck = nullptr;
    void* pData = nullptr;
    void* oOther = ObjIntegerNew(1); // a valid object of another type

    NimBool Open(const char* name) { return BlckFileOpen(&oBlck, name); }
    void Open() { EXPECT_EQ(Open(path.c_str()), 1u); }
    int32_t New()
    {
        if (!oBlck)
            Open();
        return BlckNewBlock(&pData, oBlck);
    }
    BlckControl* control() { return static_cast<BlckControl*>(oBlck); }
    // A file with one block, nothing of it in memory.
    void OneBlock()
    {
        New();
        BlckModifiedBlock(pData, oBlck);
        BlckReleaseAll(oBlck);
        pData = nullptr;
    }
};
