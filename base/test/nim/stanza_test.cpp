// Stanza files: what is read, what is refused, and that a rewritten file keeps everything else.
#include "nim/fault.h"
#include "nim/stanza.h"
#include "support/effort.h"
#include "support/file_bytes.h"
#include "support/seed.h"
#include "support/temporary_directory.h"
#include "support/trace_recorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace {

class Stanzas : public testing::Test {
  protected:
    void TearDown() override
    {
        FaultDisarmAll();
        FileSysSetObserver(nullptr, nullptr);
        EXPECT_EQ(MemLiveCount(), live_) << "a test has left memory behind";
        EXPECT_EQ(FileSysOpenCount(), 0u);
    }
    // The value of a key of the stanza "S" in a file of these bytes; nothing when there is none.
    std::optional<std::string>
    Read(const std::string& bytes, const char* key = "key", const char* name = "S")
    {
        WriteFileBytes(path_, bytes);
        Stnz* stanza = nullptr;
        if (!StnzLoadStanzaFromFile(&stanza, path_.c_str(), 0, name))
            return std::nullopt;
        const char* value = StnzGetString(stanza, key);
        std::optional<std::string> result;
        if (value)
            result = value;
        StnzRelease(&stanza);
        return result;
    }
    bool Has(const std::string& bytes, const char* name)
    {
        WriteFileBytes(path_, bytes);
        Stnz* stanza = nullptr;
        const NimBool result = StnzLoadStanzaFromFile(&stanza, path_.c_str(), 0, name);
        EXPECT_EQ(result == 1, stanza != nullptr);
        StnzRelease(&stanza);
        EXPECT_EQ(stanza, nullptr);
        return result == 1;
    }
    Stnz* Make(const char* name, const std::vector<std::pair<std::string, std::string>>& keys)
    {
        Stnz* stanza = nullptr;
        EXPECT_EQ(StnzCreate(&stanza, 0, name, 1), 1u);
        for (const auto& [key, value] : keys) {
            StnzKey* made = nullptr;
            EXPECT_EQ(StnzCreateKeyFromString(&made, key.c_str(), value.c_str()), 1u) << key;
            EXPECT_EQ(StnzAddKeyToStanza(stanza, made), 1u);
        }
        return stanza;
    }
    // The bytes of a file of `bytes` after the stanza has replaced its like.
    std::string Replace(
        const std::string& bytes, const char* name,
        const std::vector<std::pair<std::string, std::string>>& keys)
    {
        WriteFileBytes(path_, bytes);
        Stnz* stanza = Make(name, keys);
        EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path_.c_str()), 1u);
        StnzRelease(&stanza);
        EXPECT_FALSE(std::filesystem::exists(path_ + ".tmp"));
        return ReadFileBytes(path_);
    }
    uint32_t Arm(uint32_t point, uint32_t mode, uint32_t count, const char* part, uint32_t nth = 1)
    {
        FaultRule rule = {point, part, nth, 1, mode, count};
        return FaultArm(&rule);
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.path("file.cfg");
    const uint32_t live_ = MemLiveCount();
};

const std::string BOM = "\xEF\xBB\xBF";

} // namespace

// ---- reading ----

TEST_F(Stanzas, LinesAreReadAsHeadersKeysCommentsOrNothing)
{
    struct {
        const char* what;
        std::string bytes;
        std::optional<std::string> value; // of "key" in "S"
    } const rows[] = {
        {"plain", "[S]\nkey = value\n", "value"},
        {"no blanks", "[S]\nkey=value\n", "value"},
        {"blanks and tabs", " \t[ \tS ]\t \n \tkey \t=\t value \t\n", "value"},
        {"blanks inside stay", "[S]\nkey = a  b\tc\n", "a  b\tc"},
        {"CRLF", "[S]\r\nkey = value\r\n", "value"},
        {"no line end", "[S]\nkey = value", "value"},
        {"CRLF in the last line only", "[S]\nkey = value\r", "value"},
        {"mark", BOM + "[S]\nkey = value\n", "value"},
        {"only half a mark", "\xEF\xBB[S]\nkey = value\n", std::nullopt},
        {"mark elsewhere", "\n" + BOM + "[S]\nkey = value\n", std::nullopt},
        {"names without case", "[s]\nKEY = value\n", "value"},
        {"first key counts", "[S]\nkey = 1\nKey = 2\n", "1"},
        {"first stanza counts", "[S]\na = 1\n[T]\nkey = 2\n[S]\nkey = 3\n", std::nullopt},
        {"keys ahead of any stanza", "key = 0\n[S]\nkey = 1\n", "1"},
        {"next stanza ends it", "[S]\n[T]\nkey = value\n", std::nullopt},
        {"comments", "[S]\n#key = 1\n;key = 2\n # key = 3\nkey = 4\n", "4"},
        {"no comment behind a value", "[S]\nkey = 1 # one ; uno\n", "1 # one ; uno"},
        {"equals signs in the value", "[S]\nkey = a=b==\n", "a=b=="},
        {"backslashes and quotes", "[S]\nkey = \"C:\\new\\table\"\n", "\"C:\\new\\table\""},
        {"empty value", "[S]\nkey =\n", ""},
        {"blank value", "[S]\nkey = \t \r\n", ""},
        {"empty key name", "[S]\n= value\nkey = 1\n", "1"},
        {"unknown lines", "[S]\nwhat is this\n[broken\nkey = 1\n", "1"},
        {"text behind a header", "[S] # the stanza\nkey = 1\n", "1"},
        {"first bracket closes", "[S]T]\nkey = 1\n", "1"},
        {"UTF-8", "[S]\nkey = \xC3\xA4\xE2\x82\xAC\n", "\xC3\xA4\xE2\x82\xAC"},
        {"NUL in the line", std::string("[S]\nkey = a\0b\n", 14), std::nullopt},
        {"NUL in a header", std::string("[S\0]\nkey = 1\n", 13), std::nullopt},
        {"NUL elsewhere", std::string("[S]\n\0\0\nkey = 1\n", 15), "1"},
        {"other stanza only", "[T]\nkey = 1\n", std::nullopt},
        {"empty file", "", std::nullopt},
        {"mark only", BOM, std::nullopt},
        {"line ends only", "\n\r\n\n", std::nullopt},
        {"longer name", "[Sx]\nkey = 1\n", std::nullopt},
        {"key with a longer name", "[S]\nkeys = 1\nke = 2\n", std::nullopt},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Read(row.bytes), row.value) << row.what;
}

TEST_F(Stanzas, LinesOfAnyLengthAreRead)
{
    const std::string value(3 << 20, 'v');
    EXPECT_EQ(Read("[S]\n#" + std::string(1 << 20, 'c') + "\nkey = " + value + "\n"), value);
    const std::string name(100000, 'n');
    EXPECT_EQ(Read("[" + name + "]\n" + name + "=1", name.c_str(), name.c_str()), "1");
}

TEST_F(Stanzas, AStanzaIsFoundByItsWholeNameOnly)
{
    const std::string bytes = "[Versioning]\nVersion = 5\n[Two Words]\n[]\n";
    EXPECT_TRUE(Has(bytes, "Versioning"));
    EXPECT_TRUE(Has(bytes, "vERSIONING"));
    EXPECT_TRUE(Has(bytes, "Two Words"));
    EXPECT_TRUE(Has(bytes, ""));
    EXPECT_FALSE(Has(bytes, "Version"));
    EXPECT_FALSE(Has(bytes, "Versioning2"));
    EXPECT_FALSE(Has(bytes, " Versioning"));
    EXPECT_FALSE(Has(bytes, "Two"));
}

TEST_F(Stanzas, AFileThatCannotBeReadOrIsTooLargeIsRefused)
{
    Stnz* stanza = reinterpret_cast<Stnz*>(this);
    EXPECT_EQ(StnzLoadStanzaFromFile(&stanza, directory_.path("absent").c_str(), 0, "S"), 0u);
    EXPECT_EQ(stanza, nullptr);
    EXPECT_EQ(StnzLoadStanzaFromFile(&stanza, directory_.path().c_str(), 0, "S"), 0u);
    std::string bytes = "[S]\nkey = 1\n";
    bytes.resize(16 << 20, '\n');
    EXPECT_TRUE(Has(bytes, "S"));
    bytes.push_back('\n');
    EXPECT_FALSE(Has(bytes, "S"));
}

TEST_F(Stanzas, AFileThatIsNotThereOneWithoutTheStanzaAndOneThatCannotBeReadAreToldApart)
{
    const auto read = [](const std::string& path) {
        Stnz* stanza = nullptr;
        const uint32_t answer = StnzReadStanzaFromFile(&stanza, path.c_str(), "S");
        EXPECT_EQ(answer == STNZ_READ, stanza != nullptr);
        StnzRelease(&stanza);
        return answer;
    };
    EXPECT_EQ(read(path_), STNZ_NO_FILE);
    EXPECT_EQ(read(directory_.path("absent/file.cfg")), STNZ_NO_FILE);
    Arm(FAULT_EXISTS, FAULT_FAIL, 0, "file.cfg");
    EXPECT_EQ(read(path_), STNZ_UNREAD) << "nobody knows whether it is there";
    FaultDisarmAll();
    WriteFileBytes(path_, "[Other]\na = 1\n");
    EXPECT_EQ(read(path_), STNZ_NO_STANZA);
    WriteFileBytes(path_, "");
    EXPECT_EQ(read(path_), STNZ_NO_STANZA);
    WriteFileBytes(path_, "[S]\na = 1\n");
    EXPECT_EQ(read(path_), STNZ_READ);
    for (const uint32_t point : {FAULT_STNZ_LOAD, FAULT_OPEN, FAULT_READ}) {
        Arm(point, FAULT_FAIL, 0, "file.cfg");
        EXPECT_EQ(read(path_), STNZ_UNREAD) << point;
        FaultDisarmAll();
    }
    Arm(FAULT_READ, FAULT_SHORT, 5, "file.cfg");
    EXPECT_EQ(read(path_), STNZ_UNREAD) << "it shrinks";
    FaultDisarmAll();
    uint32_t nth = 1;
    for (bool struck = true; struck; ++nth) {
        const uint32_t rule = Arm(FAULT_ALLOC, FAULT_FAIL, 0, nullptr, nth);
        const uint32_t answer = read(path_);
        struck = FaultHits(rule) != 0;
        FaultDisarmAll();
        EXPECT_EQ(answer, struck ? STNZ_UNREAD : STNZ_READ) << nth;
    }
    EXPECT_EQ(read(directory_.path()), STNZ_UNREAD) << "a directory";
    {
        TraceRecorder trace;
        WriteFileBytes(path_, std::string((16 << 20) + 1, '#'));
        EXPECT_EQ(read(path_), STNZ_UNREAD);
        EXPECT_TRUE(
            trace.has("STANZA        ", 1, -1, "'" + path_ + "' is too large to be a stanza file"));
    }
    Stnz* stanza = reinterpret_cast<Stnz*>(this);
    EXPECT_EQ(StnzReadStanzaFromFile(&stanza, nullptr, "S"), STNZ_UNREAD);
    EXPECT_EQ(stanza, nullptr);
    EXPECT_EQ(StnzReadStanzaFromFile(&stanza, "", "S"), STNZ_UNREAD);
    EXPECT_EQ(StnzReadStanzaFromFile(&stanza, path_.c_str(), nullptr), STNZ_UNREAD);
    EXPECT_EQ(StnzReadStanzaFromFile(nullptr, path_.c_str(), "S"), STNZ_UNREAD);
}

TEST_F(Stanzas, ManyKeysOfOneNameAreReadInTime)
{
    // A square of the number of lines would take minutes here.
    std::string bytes = "[S]\n";
    while (bytes.size() < (4 << 20))
        bytes += "k=1\n";
    EXPECT_EQ(Read(bytes, "k"), "1");
    EXPECT_EQ(Read(bytes, "absent"), std::nullopt);
}

TEST_F(Stanzas, IntegersAreReadFromTheLeastSignedToTheLargestUnsigned)
{
    struct {
        const char* text;
        NimBool result;
        int32_t value;
    } const rows[] = {
        {"5", 1, 5},
        {"0", 1, 0},
        {"-1", 1, -1},
        {"+7", 1, 7},
        {"007", 1, 7},
        {"2147483647", 1, INT32_MAX},
        {"2147483648", 1, INT32_MIN},
        {"4294967293", 1, -3},
        {"4294967295", 1, -1},
        {"4294967296", 0, -9},
        {"-2147483648", 1, INT32_MIN},
        {"-2147483649", 0, -9},
        {"-4294967295", 0, -9},
        {"99999999999999999999999999999999", 0, -9},
        {"", 0, -9},
        {"-", 0, -9},
        {"+", 0, -9},
        {"--1", 0, -9},
        {"1x", 0, -9},
        {"x1", 0, -9},
        {"0x10", 0, -9},
        {"1 2", 0, -9},
        {"1.0", 0, -9},
    };
    for (const auto& row : rows) {
        WriteFileBytes(path_, std::string("[S]\nkey = ") + row.text + "\n");
        Stnz* stanza;
        ASSERT_EQ(StnzLoadStanzaFromFile(&stanza, path_.c_str(), 0, "S"), 1u);
        int32_t value = 77;
        EXPECT_EQ(StnzGetInteger(stanza, "KEY", -9, &value), row.result) << row.text;
        EXPECT_EQ(value, row.value) << row.text;
        EXPECT_EQ(StnzGetInteger(stanza, "absent", -2, &value), 1u);
        EXPECT_EQ(value, -2);
        StnzRelease(&stanza);
    }
}

// ---- in memory ----

TEST_F(Stanzas, NullArgumentsAreAnswered)
{
    Stnz* stanza = reinterpret_cast<Stnz*>(this);
    WriteFileBytes(path_, "[S]\n");
    EXPECT_EQ(StnzLoadStanzaFromFile(nullptr, path_.c_str(), 0, "S"), 0u);
    EXPECT_EQ(StnzLoadStanzaFromFile(&stanza, nullptr, 0, "S"), 0u);
    EXPECT_EQ(stanza, nullptr);
    stanza = reinterpret_cast<Stnz*>(this);
    EXPECT_EQ(StnzLoadStanzaFromFile(&stanza, path_.c_str(), 0, nullptr), 0u);
    EXPECT_EQ(stanza, nullptr);
    EXPECT_EQ(StnzCreate(nullptr, 0, "S", 1), 0u);
    stanza = reinterpret_cast<Stnz*>(this);
    EXPECT_EQ(StnzCreate(&stanza, 0, nullptr, 1), 0u);
    EXPECT_EQ(stanza, nullptr);

    StnzKey* key = reinterpret_cast<StnzKey*>(this);
    EXPECT_EQ(StnzCreateKeyFromInteger(nullptr, "key", 1), 0u);
    EXPECT_EQ(StnzCreateKeyFromInteger(&key, nullptr, 1), 0u);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(StnzCreateKeyFromString(nullptr, "key", "v"), 0u);
    EXPECT_EQ(StnzCreateKeyFromString(&key, "key", nullptr), 0u);
    EXPECT_EQ(StnzCreateKeyFromString(&key, nullptr, "v"), 0u);
    StnzReleaseKey(nullptr);
    StnzReleaseKey(&key);
    StnzRelease(nullptr);
    StnzRelease(&stanza);

    stanza = Make("S", {});
    ASSERT_EQ(StnzCreateKeyFromInteger(&key, "key", 1), 1u);
    EXPECT_EQ(StnzAddKeyToStanza(nullptr, key), 0u);
    EXPECT_EQ(StnzAddKeyToStanza(stanza, nullptr), 0u);
    int32_t value = 77;
    EXPECT_EQ(StnzGetInteger(nullptr, "key", 3, &value), 0u);
    EXPECT_EQ(value, 3);
    EXPECT_EQ(StnzGetInteger(stanza, nullptr, 4, &value), 0u);
    EXPECT_EQ(value, 4);
    EXPECT_EQ(StnzGetInteger(stanza, "key", 4, nullptr), 0u);
    EXPECT_EQ(StnzGetString(nullptr, "key"), nullptr);
    EXPECT_EQ(StnzGetString(stanza, nullptr), nullptr);
    EXPECT_EQ(StnzReplaceStanzaInFile(nullptr, path_.c_str()), 0u);
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, nullptr), 0u);
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, ""), 0u);
    EXPECT_EQ(ReadFileBytes(path_), "[S]\n");
    StnzReleaseKey(&key);
    EXPECT_EQ(key, nullptr);
    StnzRelease(&stanza);
}

TEST_F(Stanzas, NamesAndValuesThatNoFileCouldHoldAreRefused)
{
    Stnz* stanza;
    for (const char* name : {"", " S", "S ", "\tS", "a]b", "a\nb", "a\rb"})
        EXPECT_EQ(StnzCreate(&stanza, 0, name, 1), 0u) << name;
    StnzKey* key;
    for (const char* name : {"", " k", "k\t", "a=b", "a\nb", "a\rb", "#k", ";k", "[k"}) {
        EXPECT_EQ(StnzCreateKeyFromInteger(&key, name, 1), 0u) << name;
        EXPECT_EQ(key, nullptr);
        EXPECT_EQ(StnzCreateKeyFromString(&key, name, "v"), 0u) << name;
    }
    for (const char* value : {" v", "v ", "v\t", "a\nb", "a\rb", "v\r"})
        EXPECT_EQ(StnzCreateKeyFromString(&key, "k", value), 0u) << value;
    for (const char* value : {"", "#", ";", "[x]", "=", "a b", "C:\\dir\\"}) {
        EXPECT_EQ(StnzCreateKeyFromString(&key, "k]#;[", value), 1u) << value;
        StnzReleaseKey(&key);
    }
}

TEST_F(Stanzas, AKeyTakesThePlaceOfOneWithItsName)
{
    Stnz* stanza = Make("S", {{"one", "1"}, {"two", "2"}, {"three", "3"}, {"TWO", "zwei"}});
    EXPECT_STREQ(StnzGetString(stanza, "two"), "zwei");
    EXPECT_STREQ(StnzGetString(stanza, "ONE"), "1");
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path_.c_str()), 1u);
    EXPECT_EQ(ReadFileBytes(path_), "[S]\none = 1\nTWO = zwei\nthree = 3\n");
    StnzRelease(&stanza);
}

TEST_F(Stanzas, AKeyBelongsToOneStanzaAndIsReleasedWithIt)
{
    Stnz* stanza = Make("S", {});
    Stnz* other = Make("T", {});
    StnzKey* key;
    ASSERT_EQ(StnzCreateKeyFromInteger(&key, "key", 5), 1u);
    StnzKey* kept = key;
    EXPECT_EQ(StnzAddKeyToStanza(stanza, key), 1u);
    EXPECT_EQ(key, kept) << "the caller's variable is the caller's";
    EXPECT_EQ(StnzAddKeyToStanza(stanza, key), 0u);
    EXPECT_EQ(StnzAddKeyToStanza(other, key), 0u);
    StnzReleaseKey(&key); // owned: only forgotten
    EXPECT_EQ(key, nullptr);
    EXPECT_STREQ(StnzGetString(stanza, "key"), "5");
    EXPECT_EQ(StnzGetString(other, "key"), nullptr);
    StnzRelease(&other);
    StnzRelease(&stanza);
}

// ---- rewriting ----

TEST_F(Stanzas, AVersionFileIsWrittenAsItStandsHere)
{
    Stnz* stanza;
    StnzKey* key;
    for (auto [version, text] :
         {std::pair<int32_t, const char*>{5, "5"},
          {0, "0"},
          {-3, "-3"},
          {INT32_MIN, "-2147483648"}}) {
        std::filesystem::remove(path_);
        ASSERT_EQ(StnzCreate(&stanza, 0, "Versioning", 1), 1u);
        ASSERT_EQ(StnzCreateKeyFromInteger(&key, "Version", version), 1u);
        ASSERT_EQ(StnzAddKeyToStanza(stanza, key), 1u);
        EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path_.c_str()), 1u);
        StnzRelease(&stanza);
        EXPECT_EQ(ReadFileBytes(path_), std::string("[Versioning]\nVersion = ") + text + "\n");
        ASSERT_EQ(StnzLoadStanzaFromFile(&stanza, path_.c_str(), 0, "Versioning"), 1u);
        int32_t value;
        EXPECT_EQ(StnzGetInteger(stanza, "Version", -2, &value), 1u);
        EXPECT_EQ(value, version);
        StnzRelease(&stanza);
    }
}

TEST_F(Stanzas, ReplacingKeepsEverythingElseByteForByte)
{
    struct {
        const char* what;
        std::string before, after; // S becomes: a = 1, b = 2
    } const rows[] = {
        {"empty file", "", "[S]\na = 1\nb = 2\n"},
        {"mark only", BOM, BOM + "[S]\na = 1\nb = 2\n"},
        {"no such stanza", "[T]\nx = 1\n", "[T]\nx = 1\n\n[S]\na = 1\nb = 2\n"},
        {"no last line end", "[T]\nx = 1", "[T]\nx = 1\n\n[S]\na = 1\nb = 2\n"},
        {"values", "[S]\na = 9\nb = 8\n", "[S]\na = 1\nb = 2\n"},
        {"order of the file stays", "[S]\nb=9\na=8\n", "[S]\nb = 2\na = 1\n"},
        {"case of the header stays", "[s] # note\nA = 9\n", "[s] # note\na = 1\nb = 2\n"},
        {"bare header", "[S]", "[S]\na = 1\nb = 2\n"},
        {"unwanted and second keys go", "[S]\nx = 1\na = 2\na = 3\ny = 4\n", "[S]\na = 1\nb = 2\n"},
        {"and not a second one that goes", "[S]\na = 9\n# c\na = 8\n# d\n",
         "[S]\na = 1\nb = 2\n# c\n# d\n"},
        {"new keys follow the last", "[S]\n# first\na = 9\n\n# about T\n[T]\n",
         "[S]\n# first\na = 1\nb = 2\n\n# about T\n[T]\n"},
        {"comments and unknown lines",
         "# top\n[S]\n; one\nb = 0\nwhat?\n  ; two  \n\n[T]\na = 7\n[S]\na = 8\n",
         "# top\n[S]\n; one\nb = 2\na = 1\nwhat?\n  ; two  \n\n[T]\na = 7\n[S]\na = 8\n"},
        {"CRLF around", "; x\r\n[T]\r\nt=1\r\n[S]\r\n# c\r\na = 9\r\n\r\n[U]\r\nu=1\r\n",
         "; x\r\n[T]\r\nt=1\r\n[S]\r\n# c\r\na = 1\nb = 2\n\r\n[U]\r\nu=1\r\n"},
        {"keys only behind a comment", "[S]\n# c\n[T]\n", "[S]\na = 1\nb = 2\n# c\n[T]\n"},
        {"no line end at a foreign end", "[S]\na=9\nb=9\n[T]\nt=1", "[S]\na = 1\nb = 2\n[T]\nt=1"},
        {"NULs elsewhere", std::string("\0\n[S]\n\0x=1\n", 11),
         std::string("\0\n[S]\na = 1\nb = 2\n\0x=1\n", 23)},
        {"comment as last line", "[S]\na = 9\n# end", "[S]\na = 1\nb = 2\n# end"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Replace(row.before, "S", {{"a", "1"}, {"b", "2"}}), row.after) << row.what;
}

TEST_F(Stanzas, ReplacingByAnEmptyStanzaTakesItsKeysAway)
{
    EXPECT_EQ(Replace("[S]\n#c\na=1\n[T]\nt=1\n", "S", {}), "[S]\n#c\n[T]\nt=1\n");
    EXPECT_EQ(Replace("", "S", {}), "[S]\n");
}

TEST_F(Stanzas, ReplacingTwiceIsTheSameAsOnce)
{
    const std::string once = Replace("[T]\nt=1", "S", {{"a", "1"}});
    EXPECT_EQ(Replace(once, "S", {{"a", "1"}}), once);
}

TEST_F(Stanzas, WhatCannotBeReadIsNotReplaced)
{
    Stnz* stanza = Make("S", {{"a", "1"}});
    std::string bytes((16 << 20) + 1, '#');
    WriteFileBytes(path_, bytes);
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path_.c_str()), 0u);
    EXPECT_EQ(std::filesystem::file_size(path_), bytes.size());
    bytes.resize((16 << 20) - 5); // readable, but with the stanza it would not be
    WriteFileBytes(path_, bytes);
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path_.c_str()), 0u);
    EXPECT_EQ(std::filesystem::file_size(path_), bytes.size());
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, directory_.path().c_str()), 0u);
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, directory_.path("no/such").c_str()), 0u);
    StnzRelease(&stanza);
}

// ---- failures ----

TEST_F(Stanzas, AFailureWhileReplacingLeavesTheFileAndNoTemporary)
{
    const std::string before = "[S]\na = 9\n# comment\n";
    WriteFileBytes(path_, before);
    Stnz* stanza = Make("S", {{"a", "1"}});
    struct {
        uint32_t point, mode, count;
        const char* part;
    } const rows[] = {
        {FAULT_STNZ_SAVE, FAULT_FAIL, 0, nullptr},  {FAULT_OPEN, FAULT_FAIL, 0, "file.cfg"},
        {FAULT_OPEN, FAULT_FAIL, 0, ".tmp"},        {FAULT_READ, FAULT_FAIL, 0, nullptr},
        {FAULT_READ, FAULT_FAIL_AFTER, 3, nullptr}, {FAULT_READ, FAULT_SHORT, 5, nullptr},
        {FAULT_WRITE, FAULT_FAIL, 0, ".tmp"},       {FAULT_WRITE, FAULT_FAIL_AFTER, 4, ".tmp"},
        {FAULT_WRITE, FAULT_FAIL_FULL, 0, ".tmp"},  {FAULT_WRITE, FAULT_SHORT, 4, ".tmp"},
        {FAULT_CLOSE, FAULT_FAIL, 0, ".tmp"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "point " << row.point << " mode " << row.mode);
        const uint32_t rule = Arm(row.point, row.mode, row.count, row.part);
        EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path_.c_str()), 0u);
        EXPECT_EQ(FaultHits(rule), 1u);
        FaultDisarmAll();
        EXPECT_EQ(ReadFileBytes(path_), before);
        EXPECT_FALSE(std::filesystem::exists(path_ + ".tmp"));
    }
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path_.c_str()), 1u);
    EXPECT_EQ(ReadFileBytes(path_), "[S]\na = 1\n# comment\n");
    StnzRelease(&stanza);
}

TEST_F(Stanzas, ARenameThatFailsLeavesTheOldFile)
{
    const std::string before = "[S]\na = 9\n";
    WriteFileBytes(path_, before);
    Stnz* stanza = Make("S", {{"a", "1"}});
    // Takes the temporary file away between its close and the rename.
    FileSysSetObserver(
        [](void*, uint32_t op, const char* path, int64_t, uint32_t, uint32_t) {
            if (op == FILE_OP_CLOSE && std::string(path).ends_with(".tmp"))
                std::filesystem::remove(path);
        },
        nullptr);
    EXPECT_EQ(StnzReplaceStanzaInFile(stanza, path_.c_str()), 0u);
    FileSysSetObserver(nullptr, nullptr);
    EXPECT_EQ(ReadFileBytes(path_), before);
    StnzRelease(&stanza);
}

TEST_F(Stanzas, ATemporaryFileLeftByADeadProcessIsOverwritten)
{
    WriteFileBytes(path_ + ".tmp", std::string(1000, 'x'));
    EXPECT_EQ(Replace("[S]\n", "S", {{"a", "1"}}), "[S]\na = 1\n");
}

// Beside a file that a user has named, any name may be another such file: "T.tmp" beside "T".
TEST_F(Stanzas, ByTheParentNothingBesideTheFileIsTouched)
{
    std::filesystem::create_directory(directory_.path("named"));
    const std::string path = directory_.path("named/T");
    const std::string neighbour = directory_.path("named/T.tmp");
    const std::string temporary = directory_.path("T.tmp");
    WriteFileBytes(neighbour, "[S]\nmine = 1\n");
    Stnz* stanza = Make("S", {{"a", "1"}});
    EXPECT_EQ(StnzReplaceStanzaViaParent(stanza, path.c_str()), 1u);
    EXPECT_EQ(ReadFileBytes(path), "[S]\na = 1\n");
    EXPECT_EQ(ReadFileBytes(neighbour), "[S]\nmine = 1\n");
    EXPECT_FALSE(std::filesystem::exists(temporary));
    for (const uint32_t point : {FAULT_OPEN, FAULT_WRITE, FAULT_CLOSE}) {
        Arm(point, FAULT_FAIL, 0, "T.tmp");
        EXPECT_EQ(StnzReplaceStanzaViaParent(stanza, path.c_str()), 0u);
        FaultDisarmAll();
        EXPECT_EQ(ReadFileBytes(path), "[S]\na = 1\n");
        EXPECT_EQ(ReadFileBytes(neighbour), "[S]\nmine = 1\n");
        EXPECT_FALSE(std::filesystem::exists(temporary));
    }
    WriteFileBytes(temporary, "left by a process that died, and longer than what is written now");
    EXPECT_EQ(StnzReplaceStanzaViaParent(stanza, path.c_str()), 1u);
    EXPECT_EQ(ReadFileBytes(path), "[S]\na = 1\n");
    EXPECT_FALSE(std::filesystem::exists(temporary));
    EXPECT_EQ(StnzReplaceStanzaViaParent(stanza, nullptr), 0u);
    EXPECT_EQ(StnzReplaceStanzaViaParent(stanza, ""), 0u);
    EXPECT_EQ(StnzReplaceStanzaViaParent(nullptr, path.c_str()), 0u);
    StnzRelease(&stanza);
}

TEST_F(Stanzas, ByTheParentARelativeNameWorksToo)
{
    const std::filesystem::path former = std::filesystem::current_path();
    std::filesystem::create_directory(directory_.path("named"));
    std::filesystem::current_path(directory_.path("named"));
    Stnz* stanza = Make("S", {{"a", "1"}});
    EXPECT_EQ(StnzReplaceStanzaViaParent(stanza, "T"), 1u);
    std::filesystem::current_path(former);
    StnzRelease(&stanza);
    EXPECT_EQ(ReadFileBytes(directory_.path("named/T")), "[S]\na = 1\n");
    EXPECT_FALSE(std::filesystem::exists(directory_.path("T.tmp")));
}

TEST_F(Stanzas, AFailingLoadGivesNoStanza)
{
    WriteFileBytes(path_, "[S]\na = 1\n");
    for (uint32_t point : {FAULT_STNZ_LOAD, FAULT_OPEN, FAULT_READ}) {
        const uint32_t rule = Arm(point, FAULT_FAIL, 0, "file.cfg");
        Stnz* stanza = reinterpret_cast<Stnz*>(this);
        EXPECT_EQ(StnzLoadStanzaFromFile(&stanza, path_.c_str(), 0, "S"), 0u) << point;
        EXPECT_EQ(stanza, nullptr);
        EXPECT_EQ(FaultHits(rule), 1u);
        FaultDisarmAll();
    }
}

TEST_F(Stanzas, RunningOutOfMemoryAnywhereIsAResultAndLeaksNothing)
{
    const std::string before = "[S]\na = 9\nb = 8\n";
    WriteFileBytes(path_, before);
    uint32_t nth = 1;
    for (bool struck = true; struck; ++nth) {
        ASSERT_LT(nth, 100u);
        const uint32_t rule = Arm(FAULT_ALLOC, FAULT_FAIL, 0, nullptr, nth);
        Stnz* stanza = nullptr;
        StnzKey* key = nullptr;
        const bool good = StnzLoadStanzaFromFile(&stanza, path_.c_str(), 0, "S") &&
                          StnzCreateKeyFromInteger(&key, "c", 7) &&
                          StnzAddKeyToStanza(stanza, key) &&
                          StnzReplaceStanzaInFile(stanza, path_.c_str());
        struck = FaultHits(rule) != 0;
        FaultDisarmAll();
        EXPECT_EQ(good, !struck) << nth;
        if (struck) {
            EXPECT_EQ(ReadFileBytes(path_), before);
        }
        StnzReleaseKey(&key);
        StnzRelease(&stanza);
        ASSERT_EQ(MemLiveCount(), live_) << nth;
    }
    EXPECT_EQ(ReadFileBytes(path_), before + "c = 7\n");
    EXPECT_GT(nth, 10u);

    Stnz* stanza;
    for (nth = 1; nth <= 2; ++nth) {
        Arm(FAULT_ALLOC, FAULT_FAIL, 0, nullptr, nth);
        EXPECT_EQ(StnzCreate(&stanza, 0, "S", 1), 0u);
        FaultDisarmAll();
    }
    StnzKey* key;
    for (nth = 1; nth <= 3; ++nth) {
        Arm(FAULT_ALLOC, FAULT_FAIL, 0, nullptr, nth);
        EXPECT_EQ(StnzCreateKeyFromString(&key, "k", "v"), 0u);
        FaultDisarmAll();
    }
}

// ---- everything at once ----

namespace {

std::string Fold(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    return text;
}

// A text of random letters that may stand in a file: no blanks at its ends.
std::string RandomText(std::mt19937_64& random, size_t least, const std::string& letters)
{
    std::string text(least + random() % 12, 'x');
    for (char& c : text)
        c = letters[random() % letters.size()];
    if (!text.empty() && text.front() == ' ')
        text.front() = 'x';
    if (!text.empty() && text.back() == ' ')
        text.back() = 'x';
    return text;
}

} // namespace

TEST_F(Stanzas, RandomStanzasComeBackFromFilesFullOfOtherLines)
{
    std::mt19937_64 random(TestSeed());
    const std::string names = "abcABC xyz019._-\\\xC3\xA4";
    const std::string values = names + "=#;[]\"'";
    for (int round = 0; round < 100; ++round) {
        // A file of foreign lines, among them headers of other stanzas.
        std::string file = random() % 3 == 0 ? BOM : "";
        const size_t lines = random() % 30;
        for (size_t i = 0; i < lines; ++i) {
            switch (random() % 5) {
            case 0:
                file += "[Other" + std::to_string(random() % 3) + "]";
                break;
            case 1:
                file += "# " + RandomText(random, 0, values);
                break;
            case 2:
                file += RandomText(random, 1, names) + "=" + RandomText(random, 0, values);
                break;
            case 3:
                file += RandomText(random, 0, values);
                break;
            default:
                break;
            }
            file += random() % 4 == 0 ? "\r\n" : "\n";
        }
        if (random() % 4 == 0 && !file.empty() && file.back() == '\n')
            file.pop_back();
        WriteFileBytes(path_, file);

        // Replaced several times over, with other keys each time.
        const std::string name = "S" + RandomText(random, 0, names);
        for (int pass = 0; pass < 3; ++pass) {
            std::vector<std::pair<std::string, std::string>> keys;
            const size_t count = random() % 6;
            for (size_t i = 0; i < count; ++i) {
                std::string key = RandomText(random, 1, names);
                const bool there = std::any_of(keys.begin(), keys.end(), [&](const auto& each) {
                    return Fold(each.first) == Fold(key);
                });
                if (!there)
                    keys.emplace_back(key, RandomText(random, 0, values));
            }
            const std::string rewritten = Replace(ReadFileBytes(path_), name.c_str(), keys);
            ASSERT_EQ(rewritten.substr(0, file.size()), file) << "foreign lines stand in front";
            Stnz* stanza = nullptr;
            ASSERT_EQ(StnzLoadStanzaFromFile(&stanza, path_.c_str(), 0, name.c_str()), 1u)
                << rewritten;
            for (const auto& [key, value] : keys) {
                const char* back = StnzGetString(stanza, key.c_str());
                ASSERT_NE(back, nullptr) << key << " in\n" << rewritten;
                ASSERT_EQ(back, value) << rewritten;
            }
            ASSERT_EQ(
                static_cast<size_t>(std::count(
                    rewritten.begin() + static_cast<std::ptrdiff_t>(rewritten.find("[" + name)),
                    rewritten.end(), '\n')),
                keys.size() + 1)
                << rewritten;
            StnzRelease(&stanza);
        }
    }
}

TEST_F(Stanzas, RandomBytesAreReadWithoutHarm)
{
    std::mt19937_64 random(TestSeed());
    const std::string letters("[]=#;S \t\r\n\0k\xEF\xBB\xBF", 15);
    for (int round = 0; round < FileEffort(3000); ++round) {
        std::string bytes(random() % 60, 0);
        for (char& c : bytes)
            c = letters[random() % letters.size()];
        Read(bytes, "k");
        if (round % 10 != 0) // a rename over a file waits for the disk on some systems
            continue;
        const std::string after = Replace(bytes, "S", {{"k", "5"}});
        ASSERT_EQ(Read(after, "k"), "5") << after;
    }
}
