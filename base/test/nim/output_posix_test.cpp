// output_posix_test.cpp: no line of a trace or a log is lost where the file that it is for fails:
// it goes to the standard error.
#include <gtest/gtest.h>

#include <string>

#include "output.h"
#include "support/file_bytes.h"
#include "support/standard_error.h"
#include "support/system_calls.h"
#include "support/temporary_directory.h"

namespace {

const std::string LONG(5000, 'x'); // more than is gathered for one write

// A text that takes three writes, each of them another letter.
std::string ThreeWrites()
{
    constexpr size_t GATHERED = 1024;
    return std::string(GATHERED, '1') + std::string(GATHERED, '2') + "3";
}

} // namespace

TEST(OutputPosix, AFullDiskSendsWhatFindsNoRoomToTheStandardError)
{
    StandardError taken;
    {
        Output output("/dev/full");
        output.Put("one line\n");
    }
    {
        Output output("/dev/full");
        output.Put(LONG.c_str());
    }
    EXPECT_EQ(taken.text(), "one line\n" + LONG);
}

TEST(OutputPosix, WhatWentIntoTheFileIsNotWrittenASecondTime)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("output");
    const std::string text = ThreeWrites();
    StandardError taken;
    // After the failure the file is not tried again.
    const int64_t struck = WithStruckCall({SYS_pwrite64, EIO, 2}, [&] {
        Output output(path.c_str());
        output.Put(text.c_str());
    });
    if (struck < 0)
        GTEST_SKIP() << "no filters of system calls here";
    EXPECT_EQ(struck, 1);
    EXPECT_EQ(ReadFileBytes(path), text.substr(0, 1024));
    EXPECT_EQ(taken.text(), text.substr(1024));
}

TEST(OutputPosix, HalfWritesAreGoneOnWith)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("output");
    const int64_t struck = WithStruckCall({SYS_pwrite64, 0, 1, 4}, [&] {
        Output output(path.c_str());
        output.Put(LONG.c_str());
    });
    if (struck < 0)
        GTEST_SKIP() << "no filters of system calls here";
    EXPECT_EQ(struck, 4);
    EXPECT_EQ(ReadFileBytes(path), LONG);
}

TEST(OutputPosix, AFileWhoseEndIsUnknownIsNotWrittenOver)
{
    TemporaryDirectory directory;
    const std::string path = directory.path("output");
    WriteFileBytes(path, "there before\n");
    StandardError taken;
    // The first status is that of the opening.
    const int64_t struck = WithStruckCall({SYS_STATUS, EIO, 2, 1}, [&] {
        Output output(path.c_str());
        output.Put("a line\n");
    });
    if (struck < 0)
        GTEST_SKIP() << "no filters of system calls here";
    EXPECT_EQ(struck, 1);
    EXPECT_EQ(ReadFileBytes(path), "there before\n");
    EXPECT_EQ(taken.text(), "a line\n");
}
