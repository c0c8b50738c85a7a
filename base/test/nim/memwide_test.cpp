// memwide_test.cpp: pieces whose size is counted in 64 bits, and the texts that are too long for
// one.
#include <gtest/gtest.h>

#include <cstring>

#include "memwide.h"
#include "nim/fault.h"
#include "nim/filesys.h"
#include "nim/object.h"
#include "nim/path.h"
#include "nim/stanza.h"
#include "nim/str.h"
#include "support/armed_fault.h"

#if defined(__linux__)
#include "support/endless_text.h"
#endif

TEST(MemWide, PiecesAreThoseOfTheDefaultPool)
{
    const uint64_t bytes = MemLiveBytes();
    for (uint64_t size : {0u, 1u, 100u, 70000u}) {
        void* p = MemAllocateWideUncleared(size);
        ASSERT_NE(p, nullptr);
        memset(p, 0xA5, size);
        EXPECT_EQ(MemLiveBytes(), bytes + size);
        MemFree(p);
        // Most likely the same memory again.
        auto* q = static_cast<uint8_t*>(MemAllocateWide(size));
        ASSERT_NE(q, nullptr);
        for (uint64_t i = 0; i < size; ++i)
            ASSERT_EQ(q[i], 0) << size;
        EXPECT_EQ(MemLiveBytes(), bytes + size);
        MemFree(q);
    }
    EXPECT_EQ(MemLiveBytes(), bytes);
}

TEST(MemWide, ASizeOfMoreThan32BitsIsRefusedAndNotCut)
{
    const uint32_t count = MemLiveCount();
    for (uint64_t size : {uint64_t{1} << 32, (uint64_t{1} << 32) + 8, UINT64_MAX}) {
        EXPECT_EQ(MemAllocateWide(size), nullptr) << size;
        EXPECT_EQ(MemAllocateWideUncleared(size), nullptr) << size;
    }
    EXPECT_EQ(MemLiveCount(), count);
}

TEST(MemWide, FailsWithThePool)
{
    ArmedFault fault(FAULT_ALLOC, 1, 2);
    EXPECT_EQ(MemAllocateWide(8), nullptr);
    EXPECT_EQ(MemAllocateWideUncleared(8), nullptr);
    EXPECT_EQ(fault.hits(), 2u);
}

#if defined(__linux__)
TEST(MemWide, TextsOf4GiBAreRefusedAndNotCut)
{
    EndlessText text(256);
    if (!text.get())
        GTEST_SKIP() << "no room for so many addresses";
    const uint32_t count = MemLiveCount();
    EXPECT_EQ(StrSize(text.get()), 0xFFFFFFFF);
    EXPECT_EQ(StrDuplicateIntoPool(text.get(), MemGetDefaultPoolId()), nullptr);
    EXPECT_EQ(PathBuild(text.get(), "name", 0), nullptr);
    EXPECT_EQ(PathBuild("directory", text.get(), 0), nullptr);
    EXPECT_EQ(ObjStringNew(text.get()), nullptr);
    void* handle = nullptr;
    EXPECT_EQ(FileSysOpen(&handle, text.get(), FILE_MODE_UPDATE), 0u);
    EXPECT_EQ(handle, FILE_NONE);
    Stnz* stanza = nullptr;
    ASSERT_EQ(StnzCreate(&stanza, 0, "S", 0), 1u);
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, text.get()), 0u);
    StnzRelease(&stanza);
    EXPECT_EQ(MemLiveCount(), count);
}
#endif
