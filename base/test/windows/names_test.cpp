// names_test.cpp: names under which Windows would find something else than the file that they seem
// to name: devices, streams, ends that are dropped, short names, letters of another case. Two
// tables must never share a file, and no table may be a device.
#include <string>
#include <vector>

#include "support/person_table.h"
#include "windows/win32_calls.h"

namespace {

class Names : public PersonTest {
  protected:
    std::string At(const std::string& name) const { return directory().path() + "\\" + name; }
    static bool Opens(const std::string& path, uint32_t mode = FILE_MODE_UPDATE)
    {
        void* handle = nullptr;
        const bool opened = FileSysOpen(&handle, path.c_str(), mode) == 1;
        FileSysClose(&handle);
        return opened;
    }
    std::vector<std::string> Present() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(Utf8Path(directory().path())))
            names.push_back(Utf8Text(entry.path().filename()));
        std::sort(names.begin(), names.end());
        return names;
    }
};

} // namespace

TEST_F(Names, OfDevicesAreNoFilesInADirectory)
{
    const auto before = Present();
    for (const char* name : {"NUL", "nul", "CON", "AUX", "COM1"}) {
        EXPECT_FALSE(Opens(At(name))) << name;
        EXPECT_FALSE(Opens(At(name), FILE_MODE_EMPTY)) << name;
    }
    EXPECT_EQ(Present(), before);
    EXPECT_TRUE(Opens("NUL", FILE_MODE_WRITE))
        << "the device itself, for what is to be thrown away";
    ASSERT_TRUE(Open());
    EXPECT_EQ(OpenPeople(0, "NUL"), nullptr);
    EXPECT_EQ(OpenPeople(0, "con"), nullptr);
    EXPECT_NE(OpenPeople(0, "NULL"), nullptr);
    EXPECT_EQ(TableCount(), 1u);
}

TEST_F(Names, OfStreamsAreRefused)
{
    const auto before = Present();
    WriteFileBytes(At("file"), "bytes");
    for (const char* name : {"file:stream", "file::$DATA", "new:stream", ":", "a:b:c"}) {
        EXPECT_FALSE(Opens(At(name))) << name;
        EXPECT_FALSE(Opens(At(name), FILE_MODE_READ)) << name;
        EXPECT_EQ(FileExists(At(name).c_str()), 0u) << name;
        EXPECT_EQ(PathCreateDirectory(At(name).c_str()), 0u) << name;
    }
    EXPECT_EQ(ReadFileBytes(At("file")), "bytes");
    EXPECT_EQ(Present().size(), before.size() + 1);
}

TEST_F(Names, WhoseEndWouldBeDroppedAreRefused)
{
    WriteFileBytes(At("file"), "bytes");
    ASSERT_EQ(PathCreateDirectory(At("inner").c_str()), 1u);
    for (const char* name : {"file.", "file ", "file..", "file. .", "new.", "...", "inner.\\file"})
        EXPECT_FALSE(Opens(At(name))) << name;
    EXPECT_EQ(FileExists(At("file.").c_str()), 0u);
    EXPECT_EQ(PathIsADirectory(At("inner.").c_str()), 0u);
    EXPECT_EQ(PathCreateDirectory(At("inner ").c_str()), 0u);
    // Dots that stand for directories, in front and in between are what they always were.
    EXPECT_TRUE(Opens(At("inner\\..\\file")));
    EXPECT_TRUE(Opens(At(".\\file")));
    EXPECT_TRUE(Opens(At(".hidden.and.more")));
    EXPECT_EQ(PathIsADirectory(At(".").c_str()), 1u);
    EXPECT_EQ(PathIsADirectory(At("inner\\..").c_str()), 1u);
    EXPECT_EQ(PathIsADirectory("."), 1u);
}

TEST_F(Names, InAnotherCaseOfAToZAreTheSameFile)
{
    WriteFileBytes(At("File"), "bytes");
    EXPECT_TRUE(Opens(At("fILE")));
    EXPECT_EQ(ReadFileBytes(At("File")), "bytes");
}

TEST_F(Names, InAnotherCaseOfOtherLettersAreNotWrittenTo)
{
    const std::string upper = "\xC3\x84pfel"; // Ae
    const std::string lower = "\xC3\xA4pfel"; // ae
    WriteFileBytes(At(upper), "bytes");
    if (FileExists(At(lower).c_str()) == 0)
        GTEST_SKIP() << "these are two files here";
    EXPECT_FALSE(Opens(At(lower)));
    EXPECT_FALSE(Opens(At(lower), FILE_MODE_EMPTY));
    EXPECT_EQ(ReadFileBytes(At(upper)), "bytes");
    EXPECT_TRUE(Opens(At(upper)));
}

TEST_F(Names, OfTablesThatTheSystemTakesForOneAreNotTwoTables)
{
    People model;
    ASSERT_TRUE(Open());
    const std::string upper = "\xC3\x84pfel";
    const std::string lower = "\xC3\xA4pfel";
    void* oTable = OpenPeople(0, upper.c_str());
    ASSERT_NE(oTable, nullptr);
    AddPeople(oTable, &model, 0, 40);
    if (FileExists(PathOf("Indexes", lower).c_str()) == 0)
        GTEST_SKIP() << "these are two files here";
    EXPECT_EQ(OpenPeople(0, lower.c_str()), nullptr);
    EXPECT_EQ(OpenPeople(0, (upper + ".").c_str()), nullptr);
    EXPECT_EQ(TableCount(), 1u);
    AddPeople(oTable, &model, 40, 50);
    ExpectHolds(oTable, model);
    ASSERT_TRUE(Reopen());
    ExpectHolds(OpenPeople(0, upper.c_str()), model);
}

TEST_F(Names, InShortFormAreNotWrittenTo)
{
    const std::string path = At("A rather long name.with more");
    WriteFileBytes(path, "bytes");
    wchar_t shortForm[1024];
    const DWORD length = GetShortPathNameW(Utf8Path(path).c_str(), shortForm, 1024);
    const std::string name = Utf8Text(std::filesystem::path(shortForm).filename());
    if (length == 0 || name.find('~') == std::string::npos || FileExists(At(name).c_str()) == 0)
        GTEST_SKIP() << "this volume has no short names";
    EXPECT_FALSE(Opens(At(name)));
    EXPECT_EQ(ReadFileBytes(path), "bytes");
}
