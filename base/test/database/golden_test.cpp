// golden_test.cpp: the golden database, written once by an earlier build, is opened, found whole,
// and worked on; and this build writes the same bytes for the same steps.

#include <gtest/gtest.h>

#include "golden_steps.h"

namespace {

namespace fs = std::filesystem;

std::string GoldenPath()
{
    return std::string(NIM_GOLDEN_DIR) + "/database";
}

class Golden : public PersonTest {
  protected:
    // Opening rewrites a control block, so it is a copy that is opened.
    void OpenCopy()
    {
        fs::create_directories(HomePath());
        fs::copy(GoldenPath(), HomePath() + "/" + golden::DATABASE, fs::copy_options::recursive);
        // The companion files are empty, and left out of what is kept.
        fs::create_directories(HomePath() + "/" + golden::DATABASE + "/Files");
        ASSERT_TRUE(Open(golden::DATABASE));
    }
    void* OpenGolden(uint32_t version = golden::VERSION)
    {
        return OpenTable(golden::TABLE, golden::MAGIC, golden::FORMAT, golden::FIELDS, 1, version);
    }
    // The bytes of a block file, without those that mean nothing on disk.
    static std::string Meaning(std::string blocks)
    {
        blocks.replace(24, 16, 16, '\0'); // file handle and map
        for (size_t node = 16384; node + 32 <= blocks.size(); node += 16384)
            blocks.replace(node + 24, 8, 8, '\0'); // address of the node's end
        return blocks;
    }
};

TEST_F(Golden, EveryRecordIsFoundThroughEveryIndex)
{
    OpenCopy();
    void* oTable = OpenGolden();
    ASSERT_NE(oTable, nullptr);
    EXPECT_EQ(TableCount(), 1u);
    const People model = golden::Model();
    EXPECT_EQ(model.size(), 332u);
    ExpectHolds(oTable, model);
    EXPECT_EQ(IndxNextId(oTable), 335u);
    const IndxTable* pTable = static_cast<IndxTable*>(oTable);
    EXPECT_STREQ(pTable->name, "People");
    EXPECT_STREQ(pTable->format, golden::FORMAT);
    EXPECT_STREQ(pTable->fields, golden::FIELDS);
    EXPECT_EQ(pTable->bCompanionFiles, 1u);
}

TEST_F(Golden, TheTreesAreSoundAndOfTheShapeTheyHad)
{
    const TreeReport report = CheckBlockFile(GoldenPath() + "/Indexes/People");
    EXPECT_TRUE(report.problems.empty()) << report.text();
    ASSERT_EQ(report.indexes.size(), 6u);
    const std::pair<const char*, size_t> levels[] = {{"Id", 1},  {"Name", 2},   {"Town", 1},
                                                     {"Age", 1}, {"Number", 1}, {"Key", 2}};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(report.indexes[i].field, levels[i].first);
        EXPECT_EQ(report.indexes[i].perLevel.size(), levels[i].second) << levels[i].first;
        EXPECT_EQ(report.indexes[i].entries.size(), 332u);
    }
    EXPECT_EQ(report.freeChain.size(), 1u);
    EXPECT_TRUE(report.lost.empty());
}

TEST_F(Golden, TheVersionFileIsUnderstood)
{
    EXPECT_EQ(ReadFileBytes(GoldenPath() + "/Attributes/People"), "[Versioning]\nVersion = 5\n");
    OpenCopy();
    uint32_t version = 0;
    ASSERT_EQ(IndxGetTableVersion(&version, golden::TABLE, database()), 1u);
    EXPECT_EQ(version, 5u);
    EXPECT_EQ(OpenGolden(4), nullptr);
    EXPECT_EQ(OpenGolden(INDX_VERSION_NONE), nullptr);
    EXPECT_NE(OpenGolden(INDX_VERSION_ANY), nullptr);
}

TEST_F(Golden, TheTableGoesOnWhereItStopped)
{
    OpenCopy();
    void* oTable = OpenGolden();
    ASSERT_NE(oTable, nullptr);
    People model = golden::Model();
    for (uint32_t n = 335; n < 700; ++n) {
        Person person = golden::Make(n);
        person.key[31] = static_cast<uint8_t>(~person.key[31]);
        person.name = "new " + std::to_string(n);
        ASSERT_EQ(Add(oTable, &person), 1u) << n;
        ASSERT_EQ(person.id, n);
        model[n] = person;
    }
    ExpectHolds(oTable, model);
    EXPECT_TRUE(CheckTable(oTable).freeChain.empty()); // the free block was used first
    ASSERT_TRUE(Reopen());
    ExpectHolds(OpenGolden(), model);
}

TEST_F(Golden, TheSameStepsWriteTheSameBytes)
{
    ASSERT_TRUE(golden::WriteDatabase());
    const std::string made = HomePath() + "/" + golden::DATABASE;
    for (const char* file : {"/Records/People", "/Attributes/People"})
        EXPECT_TRUE(ReadFileBytes(made + file) == ReadFileBytes(GoldenPath() + file)) << file;
    const std::string blocks = Meaning(ReadFileBytes(made + "/Indexes/People"));
    const std::string expected = Meaning(ReadFileBytes(GoldenPath() + "/Indexes/People"));
    ASSERT_EQ(blocks.size(), expected.size());
    const auto differs = std::mismatch(blocks.begin(), blocks.end(), expected.begin());
    EXPECT_TRUE(differs.first == blocks.end())
        << "first difference at " << differs.first - blocks.begin();
}

} // namespace
