// paths_test.cpp: paths as they are met on Windows: letters outside ASCII, more than 260
// characters, both separators, a drive without a root, and where the home is without NIM_HOME. What
// stands on the disk is looked up by its wide name.
#include <filesystem>
#include <string>

#include "nim/stanza.h"
#include "support/environment.h"
#include "support/person_table.h"
#include "sys.h"
#include "windows/win32_calls.h"

namespace {

// Latin, Greek, Chinese, and one that takes two units of UTF-16.
const std::string LETTERS = "Gr\xC3\xB6\xC3\x9F"
                            "e \xCE\xA9 \xE6\x95\xB0 \xF0\x9F\x97\x84";
const std::wstring WIDE_LETTERS = L"Gr\u00F6\u00DFe \u03A9 \u6570 \xD83D\xDDC4";

class Paths : public PersonTest {
  protected:
    void SetUp() override
    {
        PersonTest::SetUp();
        UnsetEnvironment("NIM_HOME");
    }
    void TearDown() override
    {
        PersonTest::TearDown(); // closes the database
        RemoveByLongForm(LongForm(directory().path()));
        EXPECT_EQ(GetFileAttributesW(LongForm(directory().path()).c_str()), INVALID_FILE_ATTRIBUTES)
            << "something stays behind";
    }
    void Configure(const std::string& home, const std::string& productHome)
    {
        PathSetHome(productHome.c_str());
        WriteFileBytes(
            Utf8Text(Utf8Path(productHome) / "configure.cfg"),
            "[Directories]\ndatabase = " + home + "\n");
    }
    static std::string HomeDirectory()
    {
        char* home = nullptr;
        EXPECT_EQ(DbGetHomeDir(&home), 1u);
        const std::string text = home ? home : "(null)";
        MemFree(home);
        return text;
    }
    // A database of two tables, one with a version and companion files, that is filled, opened
    // again, changed and opened again. It lies in `expected`, an absolute path.
    void LiveIn(const std::string& expected, const std::string& table)
    {
        People model;
        const char* name = table.c_str();
        ASSERT_TRUE(Open());
        void* oTable = OpenTable(table, PERSON_MAGIC, FORMAT, FIELDS, 1, 7);
        ASSERT_NE(oTable, nullptr);
        AddPeople(oTable, &model, 0, 60);
        char* companion = nullptr;
        ASSERT_EQ(IndxGetFilePath(&companion, oTable, 5), 1u);
        void* handle = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(FileSysOpen(&handle, companion, FILE_MODE_UPDATE), 1u) << companion;
        EXPECT_EQ(FileSysWrite(&count, handle, "beside", 6), 1u);
        FileSysClose(&handle);
        MemFree(companion);
        ASSERT_TRUE(Reopen());
        EXPECT_EQ(TableCount(), 1u) << "found by the scan of the directory";
        oTable = OpenTable(table, PERSON_MAGIC, FORMAT, FIELDS, 1, 7);
        ASSERT_NE(oTable, nullptr);
        AddPeople(oTable, &model, 60, 70);
        DeletePeople(oTable, &model, {2, 3});
        ExpectHolds(oTable, model);
        Held files;
        IndxGetFileList(files.out(), oTable);
        EXPECT_GE(ListGetCount(files.get()), 1u);
        Close();

        const std::string place = expected + "\\" + DATABASE;
        const auto bytes = [&](const std::string& of) {
            return BytesByLongForm(place + of + name);
        };
        EXPECT_EQ(bytes("\\Attributes\\"), "[Versioning]\nVersion = 7\n");
        EXPECT_EQ(U32At(bytes("\\Indexes\\"), 0), 0xc9251dd9u);
        EXPECT_GT(bytes("\\Records\\").size(), 70u * FIXED_SIZE);
        EXPECT_EQ(BytesByLongForm(place + "\\Files\\" + name + "\\0000\\00\\05"), "beside");
    }
};

} // namespace

// ---- letters outside ASCII ---------------------------------------------------------------------

TEST_F(Paths, MayHaveLettersOutsideAsciiEverywhere)
{
    const std::string home = directory().path(LETTERS);
    ASSERT_EQ(PathCreateDirectory(home.c_str()), 1u);
    PathSetHome(home.c_str());
    LiveIn(home + "\\db", "T\xC3\xA4nze \xE6\x95\xB0");
    // Under exactly these names for everybody else.
    EXPECT_TRUE(std::filesystem::is_directory(Utf8Path(directory().path()) / WIDE_LETTERS));
    EXPECT_TRUE(std::filesystem::is_regular_file(
        Utf8Path(home + "\\db\\Data\\Indexes") / L"T\u00E4nze \u6570"));
}

TEST_F(Paths, InTheConfigurationAreUtf8)
{
    const std::string home = directory().path(LETTERS);
    Configure(home, directory().path());
    EXPECT_EQ(HomeDirectory(), home);
    LiveIn(home, TABLE);
}

TEST_F(Paths, FromTheEnvironmentAreUtf8)
{
    const std::string home = directory().path(LETTERS);
    ASSERT_EQ(PathCreateDirectory(home.c_str()), 1u);
    PathSetHome(nullptr);
    SetEnvironmentVariableW(L"NIM_HOME", Utf8Path(home).c_str());
    EXPECT_EQ(HomeDirectory(), home + "\\db");
    LiveIn(home + "\\db", TABLE);
    SetEnvironmentVariableW(L"NIM_HOME", nullptr);
}

TEST_F(Paths, ThatAreNoUtf8AreRefused)
{
    void* handle = nullptr;
    for (const char* name : {"\xFF", "a\xC3", "\xED\xA0\x80", "\xC0\xAF"}) {
        const std::string path = directory().path() + "\\" + name;
        EXPECT_EQ(FileSysOpen(&handle, path.c_str(), FILE_MODE_UPDATE), 0u);
        EXPECT_EQ(PathCreateDirectory(path.c_str()), 0u);
        EXPECT_EQ(FileExists(path.c_str()), 0u);
    }
}

// ---- long paths --------------------------------------------------------------------------------

TEST_F(Paths, MayBeLongerThan260Characters)
{
    std::string home = directory().path();
    while (home.size() < 1000) {
        home += "\\" + std::string(90, 'd') + LETTERS;
        ASSERT_EQ(PathCreateDirectory(home.c_str()), 1u) << home.size();
        ASSERT_EQ(PathIsADirectory(home.c_str()), 1u) << home.size();
    }
    Configure(home + "\\db", home);
    EXPECT_EQ(HomeDirectory(), home + "\\db") << "the configuration has a long path, too";
    LiveIn(home + "\\db", std::string(120, 't'));
}

TEST_F(Paths, OfEveryLengthAroundTheOldLimitLeadToTheirFiles)
{
    // The limit is 248 for directories, 260 for files, and the separator and a name come behind.
    std::string deep = directory().path() + "\\" + std::string(100, 'd');
    ASSERT_EQ(PathCreateDirectory(deep.c_str()), 1u);
    for (size_t length = 235; length <= 265; ++length) {
        SCOPED_TRACE(length);
        ASSERT_LT(deep.size() + 2, length);
        const std::string path = deep + "\\" + std::string(length - deep.size() - 1, 'x');
        ASSERT_EQ(PathCreateDirectory(path.c_str()), 1u);
        void* handle = nullptr;
        ASSERT_EQ(FileSysOpen(&handle, (path + "\\f").c_str(), FILE_MODE_UPDATE), 1u);
        FileSysClose(&handle);
        EXPECT_EQ(FileExists((path + "\\f").c_str()), 1u);
        EXPECT_EQ(BytesByLongForm(path + "\\f"), "");
        const auto take = [](const char*, const char* name, void* context) -> NimBool {
            *static_cast<std::string*>(context) += name;
            return 1;
        };
        std::string names;
        EXPECT_EQ(DirScan(path.c_str(), take, &names), 1u);
        EXPECT_EQ(names, "f");
    }
}

TEST_F(Paths, BeyondWhatTheSystemTakesAreRefused)
{
    const std::string path = directory().path() + "\\" + std::string(40000, 'x');
    void* handle = nullptr;
    EXPECT_EQ(FileSysOpen(&handle, path.c_str(), FILE_MODE_UPDATE), 0u);
    EXPECT_EQ(PathIsADirectory(path.c_str()), 0u);
    EXPECT_EQ(PathCreateDirectory(path.c_str()), 0u);
}

// ---- separators, drives, homes -----------------------------------------------------------------

TEST_F(Paths, InTheConfigurationMayMixBothSeparators)
{
    const std::string home = directory().path();
    ASSERT_EQ(PathCreateDirectory((home + "/a").c_str()), 1u);
    std::string mixed = home + "/a\\b";
    mixed[2] = '/'; // behind the drive
    Configure(mixed, home);
    EXPECT_EQ(HomeDirectory(), mixed) << "as it stands";
    LiveIn(home + "\\a\\b", TABLE);
}

TEST_F(Paths, OfHomesMayEndInEitherSeparator)
{
    const std::string home = directory().path();
    for (const char* end : {"\\", "/"}) {
        SCOPED_TRACE(end);
        Configure(home + "\\base" + end, home);
        LiveIn(home + "\\base", TABLE);
        std::filesystem::remove_all(Utf8Path(home + "\\base"));
    }
}

TEST_F(Paths, WithADriveAndNoRootAreRelativeToTheDirectoryOfThatDrive)
{
    if (!TestDrivesAreMapped())
        GTEST_SKIP() << "the drives of the test prefix are not mapped";
    std::filesystem::remove_all("H:\\relative");
    std::filesystem::create_directories("H:\\relative\\to");
    {
        CurrentDirectory current;
        current.Set("H:\\relative\\to");
        current.Set(directory().path()); // another drive; that of H stays what it was
        Configure("H:bases", directory().path());
        LiveIn("H:\\relative\\to\\bases", TABLE);
        Configure("H:.", directory().path());
        LiveIn("H:\\relative\\to", TABLE);
    }
    std::filesystem::remove_all("H:\\relative");
}

TEST_F(Paths, OfADriveAloneMeanItsRoot)
{
    if (!TestDrivesAreMapped())
        GTEST_SKIP() << "the drives of the test prefix are not mapped";
    for (const char* home : {"H:", "H:\\", "h:/"}) {
        SCOPED_TRACE(home);
        Configure(home, directory().path());
        LiveIn("H:", TABLE);
        std::filesystem::remove_all("H:\\Data");
    }
}

TEST_F(Paths, WithARootAndNoDriveBelongToTheDriveInUse)
{
    if (!TestDrivesAreMapped())
        GTEST_SKIP() << "the drives of the test prefix are not mapped";
    CurrentDirectory current;
    current.Set("H:\\");
    Configure("\\rooted", directory().path());
    LiveIn("H:\\rooted", TABLE);
    std::filesystem::remove_all("H:\\rooted");
}

TEST_F(Paths, WithoutHomeOfAnyKindLeadToTheDirectoryOfTheProgram)
{
    PathSetHome(nullptr);
    wchar_t program[32768];
    ASSERT_NE(GetModuleFileNameW(nullptr, program, 32768), 0u);
    EXPECT_EQ(HomeDirectory(), Utf8Text(std::filesystem::path(program).parent_path()) + "\\db");
}

// ---- the directory of a program that lies somewhere else ---------------------------------------

// Not a test of this process: its copies are asked for it.
TEST(ProgramCopy, DISABLED_TellsItsHome)
{
    wchar_t path[32768];
    ASSERT_NE(GetEnvironmentVariableW(L"NIM_TEST_TELL", path, 32768), 0u);
    char* home = nullptr;
    ASSERT_EQ(DbGetHomeDir(&home), 1u);
    WriteFileBytes(Utf8Text(path), home);
    MemFree(home);
}

TEST_F(Paths, OfAProgramWithLettersOutsideAsciiAreItsHome)
{
    const std::string home = directory().path(LETTERS);
    ASSERT_EQ(PathCreateDirectory(home.c_str()), 1u);
    wchar_t self[32768];
    ASSERT_NE(GetModuleFileNameW(nullptr, self, 32768), 0u);
    const std::wstring copy = Utf8Path(home + "\\program.exe").wstring();
    ASSERT_TRUE(CopyFileW(self, copy.c_str(), TRUE));
    const std::string told = directory().path("told");
    SetEnvironmentVariableW(L"NIM_TEST_TELL", Utf8Path(told).c_str());

    std::wstring command = L"\"" + copy +
                           L"\" --gtest_also_run_disabled_tests --gtest_brief=1 "
                           L"--gtest_filter=ProgramCopy.DISABLED_TellsItsHome";
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    PROCESS_INFORMATION child = {};
    ASSERT_TRUE(CreateProcessW(
        copy.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &start,
        &child));
    WaitForSingleObject(child.hProcess, INFINITE);
    DWORD status = 1;
    GetExitCodeProcess(child.hProcess, &status);
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
    SetEnvironmentVariableW(L"NIM_TEST_TELL", nullptr);
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(ReadFileBytes(told), home + "\\db");
}
