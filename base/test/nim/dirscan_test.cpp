// Directory scans: order, what is left out, and what callbacks may do.
#include "nim/dirscan.h"
#include "nim/fault.h"
#include "support/effort.h"
#include "support/file_bytes.h"
#include "support/seed.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

struct Found {
    std::vector<std::string> names;
    std::string directory;
    NimBool answer = 1;
    size_t answerOnlyAfter = 0; // so many names are answered with 1 before
};

NimBool Take(const char* directory, const char* name, void* context)
{
    Found* found = static_cast<Found*>(context);
    found->directory = directory;
    found->names.push_back(name);
    return found->names.size() > found->answerOnlyAfter ? found->answer : 1;
}

bool ByUnsignedByte(const std::string& a, const std::string& b)
{
    const size_t common = std::min(a.size(), b.size());
    const int order = memcmp(a.data(), b.data(), common);
    return order != 0 ? order < 0 : a.size() < b.size();
}

} // namespace

using ScanFunction = NimBool (*)(const char*, DirScanCallback, void*);
class Scans : public testing::TestWithParam<ScanFunction> {
  protected:
    NimBool Scan(const std::string& directory, DirScanCallback f, void* context)
    {
        return GetParam()(directory.c_str(), f, context);
    }
    void Touch(const std::string& name) { WriteFileBytes(directory_.path(name), name); }
    TemporaryDirectory directory_;
};

INSTANTIATE_TEST_SUITE_P(
    Both, Scans, testing::Values(DirScan, DirScanDirect),
    [](const testing::TestParamInfo<ScanFunction>& way) {
        return std::string(way.index == 0 ? "DirScan" : "DirScanDirect");
    });

TEST_P(Scans, HandOverFilesAndDirectoriesInByteOrderWithoutDescent)
{
    // No two names that differ in case alone: some systems take them for one.
    for (const char* name : {"b", "a", "C", "a.new", "aa", "\xC3\xA4", "~", "0001", "Z9", "_"})
        Touch(name);
    std::filesystem::create_directory(directory_.path("aDirectory"));
    WriteFileBytes(directory_.path("aDirectory/below"), "");
    Found found;
    EXPECT_EQ(Scan(directory_.path(), Take, &found), 1u);
    const std::vector<std::string> expected = {"0001",       "C",  "Z9", "_", "a",       "a.new",
                                               "aDirectory", "aa", "b",  "~", "\xC3\xA4"};
    EXPECT_EQ(found.names, expected);
    EXPECT_EQ(found.directory, directory_.path());
}

TEST_P(Scans, OfAnEmptyDirectorySucceedWithoutACall)
{
    Found found;
    EXPECT_EQ(Scan(directory_.path(), Take, &found), 1u);
    EXPECT_TRUE(found.names.empty());
}

TEST_P(Scans, GoOnOnlyAtExactlyOne)
{
    for (const char* name : {"a", "b", "c"})
        Touch(name);
    for (NimBool answer : {0u, 2u, 0xFFFFFFFFu}) {
        for (size_t at = 0; at < 3; ++at) {
            Found found;
            found.answer = answer;
            found.answerOnlyAfter = at;
            EXPECT_EQ(Scan(directory_.path(), Take, &found), 0u) << answer;
            EXPECT_EQ(found.names.size(), at + 1);
        }
    }
}

TEST_P(Scans, OfWhatIsNoDirectoryFail)
{
    Touch("file");
    Found found;
    EXPECT_EQ(Scan(directory_.path("absent"), Take, &found), 0u);
    EXPECT_EQ(Scan(directory_.path("file"), Take, &found), 0u);
    EXPECT_EQ(Scan("", Take, &found), 0u);
    EXPECT_EQ(GetParam()(nullptr, Take, &found), 0u);
    EXPECT_EQ(Scan(directory_.path(), nullptr, &found), 0u);
    EXPECT_TRUE(found.names.empty());
}

TEST_P(Scans, AllowCallbacksToScanCreateAndRemove)
{
    struct Context {
        TemporaryDirectory* directory;
        std::vector<std::string> outer, inner;
    } context = {&directory_, {}, {}};
    for (const char* name : {"d1", "d2"}) {
        std::filesystem::create_directory(directory_.path(name));
        for (const char* below : {"y", "x"})
            WriteFileBytes(directory_.path(std::string(name) + "/" + below), "");
    }
    auto inner = [](const char* directory, const char* name, void* c) -> NimBool {
        static_cast<Context*>(c)->inner.push_back(
            std::filesystem::path(directory).filename().string() + name);
        return 1;
    };
    static DirScanCallback innerScan;
    innerScan = inner;
    auto outer = [](const char* directory, const char* name, void* c) -> NimBool {
        Context* seen = static_cast<Context*>(c);
        seen->outer.push_back(name);
        const std::string path = std::string(directory) + "/" + name;
        const NimBool result = DirScanDirect(path.c_str(), innerScan, c);
        std::filesystem::remove_all(path);
        WriteFileBytes(seen->directory->path(std::string("made by ") + name), "");
        return result;
    };
    EXPECT_EQ(Scan(directory_.path(), outer, &context), 1u);
    EXPECT_EQ(context.outer, (std::vector<std::string>{"d1", "d2"}));
    EXPECT_EQ(context.inner, (std::vector<std::string>{"d1x", "d1y", "d2x", "d2y"}));
}

TEST_P(Scans, CloseTheDirectoryBeforeTheFirstCall)
{
#if defined(__linux__)
    Touch("a");
    auto count = [](const char* directory, const char*, void* context) -> NimBool {
        for (auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code none;
            *static_cast<int*>(context) +=
                std::filesystem::read_symlink(entry.path(), none) == directory;
        }
        return 1;
    };
    int open = 0;
    EXPECT_EQ(Scan(directory_.path(), count, &open), 1u);
    EXPECT_EQ(open, 0);
#else
    GTEST_SKIP() << "cannot be seen here";
#endif
}

TEST_P(Scans, OfManyRandomNamesAreComplete)
{
    std::mt19937_64 random(TestSeed());
    std::vector<std::string> expected;
    const std::string letters = "abcdefghijklmnopqrstuvwxyz0123456789._-~#";
    for (int i = 0; i < FileEffort(2000); ++i) {
        // Lower case only: some file systems take the two cases for one.
        std::string name(1 + random() % 100, 'x');
        for (char& c : name)
            c = letters[random() % letters.size()];
        if (name.back() == '.' || std::filesystem::exists(directory_.path(name)))
            continue;
        Touch(name);
        expected.push_back(name);
    }
    std::sort(expected.begin(), expected.end(), ByUnsignedByte);
    Found found;
    EXPECT_EQ(Scan(directory_.path(), Take, &found), 1u);
    EXPECT_EQ(found.names, expected);
}

TEST_P(Scans, FailWithoutACallWhenMemoryRunsOut)
{
    for (int i = 0; i < 200; ++i)
        Touch("a name of some length " + std::to_string(i));
    uint32_t refused = 0;
    const uint32_t before = MemLiveCount();
    for (uint32_t nth = 1;; ++nth) {
        ASSERT_LT(nth, 50u);
        FaultRule rule = {FAULT_ALLOC, nullptr, nth, 1, FAULT_FAIL, 0};
        const uint32_t id = FaultArm(&rule);
        Found found;
        const NimBool result = Scan(directory_.path(), Take, &found);
        const uint32_t hits = FaultHits(id);
        FaultDisarmAll();
        EXPECT_EQ(MemLiveCount(), before);
        if (hits == 0) {
            EXPECT_EQ(result, 1u);
            EXPECT_EQ(found.names.size(), 200u);
            break;
        }
        ++refused;
        EXPECT_EQ(result, 0u);
        EXPECT_TRUE(found.names.empty());
    }
    EXPECT_GE(refused, 3u) << "names, more names, order";
}

TEST_P(Scans, FailWhereAFaultStrikes)
{
    Touch("a");
    FaultRule rule = {FAULT_SCAN, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    Found found;
    EXPECT_EQ(Scan(directory_.path(), Take, &found), 0u);
    EXPECT_TRUE(found.names.empty());
    EXPECT_EQ(Scan(directory_.path(), Take, &found), 1u);
    FaultDisarmAll();
}

TEST(ScanOutcome, TellsTheEndFromAStopAndAnAbsentDirectoryFromOneThatCannotBeRead)
{
    TemporaryDirectory directory;
    WriteFileBytes(directory.path("a"), "");
    WriteFileBytes(directory.path("b"), "");
    const auto outcome = [](const std::string& path, Found* found) {
        return DirScanOutcome(path.c_str(), Take, found);
    };
    Found all;
    EXPECT_EQ(outcome(directory.path(), &all), DIRSCAN_DONE);
    EXPECT_EQ(all.names.size(), 2u);
    for (const NimBool answer : {0u, 2u}) {
        Found first;
        first.answer = answer;
        EXPECT_EQ(outcome(directory.path(), &first), DIRSCAN_STOPPED);
        EXPECT_EQ(first.names.size(), 1u);
    }
    Found none;
    EXPECT_EQ(outcome(directory.path("absent"), &none), DIRSCAN_ABSENT);
    EXPECT_EQ(outcome(directory.path("a/below"), &none), DIRSCAN_ABSENT);
    EXPECT_EQ(outcome(directory.path("a"), &none), DIRSCAN_UNREAD) << "a file";
    for (const uint32_t point : {FAULT_SCAN, FAULT_ALLOC}) {
        FaultRule rule = {point, nullptr, 1, 1, FAULT_FAIL, 0};
        FaultArm(&rule);
        EXPECT_EQ(outcome(directory.path(), &none), DIRSCAN_UNREAD);
        FaultDisarmAll();
    }
    EXPECT_EQ(DirScanOutcome(nullptr, Take, &none), DIRSCAN_UNREAD);
    EXPECT_EQ(DirScanOutcome("", Take, &none), DIRSCAN_UNREAD);
    EXPECT_EQ(DirScanOutcome(directory.path().c_str(), nullptr, &none), DIRSCAN_UNREAD);
    EXPECT_TRUE(none.names.empty());
}
