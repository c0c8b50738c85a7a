// deep_test.cpp: trees of thousands of levels, on a thread whose stack is as small as a host's may
// be. The way up a tree must not cost stack for each level.

#include "support/tree_test.h"

#include <functional>
#include <pthread.h>

#include "database/block.h"
#include "support/file_bytes.h"

namespace {

constexpr size_t SMALL_STACK = 1 << 20;
constexpr uint32_t LEVELS = 3000;

void RunOnSmallStack(const std::function<void()>& body)
{
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, SMALL_STACK), 0);
    pthread_t thread;
    const auto run = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    auto* argument = const_cast<std::function<void()>*>(&body);
    ASSERT_EQ(pthread_create(&thread, &attributes, run, argument), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

class Deep : public TreeTest {
  protected:
    // A chain of nodes with one entry each, node 0 the root, the last one a leaf: what is left of
    // a tree when nearly everything was deleted from it. Written byte by byte.
    void WriteChain(int32_t keyType, const Key& key, uint32_t id)
    {
        std::string bytes(16384, '\0');
        PutU32At(bytes, 0, 0xc9251dd9);
        PutU32At(bytes, 4, 16384);
        PutU32At(bytes, 8, LEVELS);
        PutU32At(bytes, 12, NONE);
        PutU32At(bytes, 16, 1);
        for (uint32_t i = 0; i < LEVELS; ++i) {
            const bool leaf = i + 1 == LEVELS;
            std::string node(16384, '\0');
            PutU32At(node, 0, i - 1); // NONE for the root
            PutU32At(node, 4, NONE);
            PutU32At(node, 8, NONE);
            PutU32At(node, 12, leaf ? 1 : 0);
            PutU32At(node, 16, keyType >= 4097 ? 1 : 0);
            PutU32At(node, 20, 1);
            PutU32At(node, 32, id);
            PutU32At(node, 48, leaf ? 77 : i + 1);
            if (keyType >= 4097) {
                const auto length = static_cast<uint32_t>(key.bytes.size());
                PutU32At(node, 40, length);
                PutU32At(node, 44, length);
                node.replace(16384 - length, length, key.bytes);
            } else {
                PutU32At(node, 40, static_cast<uint32_t>(key.number));
            }
            bytes += node;
        }
        WriteFileBytes(path(), bytes);
    }
    static void SetRoots(IndexFixture& index)
    {
        index.field()->roots = {0, LEVELS - 1, LEVELS - 1};
        index.field()->levels = LEVELS;
        index.table()->bChanged = TRUE;
        IndxCommitRoots(index.table());
        ASSERT_TRUE(SoundTable(index.table()));
    }
};

TEST_F(Deep, ANewLowestKeyGoesUpThreeThousandLevelsAndDeletionsEmptyThemAll)
{
    WriteChain(INDX_KEY_INTEGER, NumberKey(100), 1);
    RunOnSmallStack([&] {
        IndexFixture index(path(), {{INDX_KEY_INTEGER}});
        SetRoots(index);
        ASSERT_EQ(index.Find(1, NumberKey(100)), INDX_RESULT_FOUND);
        ASSERT_TRUE(index.Add(2, NumberKey(50)));
        EXPECT_TRUE(SoundTable(index.table()));
        EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{2, 1}));
        ASSERT_TRUE(index.Remove(2, NumberKey(50)));
        EXPECT_TRUE(SoundTable(index.table()));
        ASSERT_TRUE(index.Remove(1, NumberKey(100)));
        EXPECT_EQ(index.field()->roots.tRoot, NONE);
        EXPECT_EQ(CheckTable(index.table()).freeChain.size(), LEVELS);
        EXPECT_TRUE(SoundTable(index.table()));
        ASSERT_TRUE(index.Add(3, NumberKey(7)));
        EXPECT_TRUE(SoundTable(index.table()));
    });
}

TEST_F(Deep, ALongerLowestTextGoesUpThreeThousandLevels)
{
    WriteChain(INDX_KEY_TEXT, TextKey("m"), 1);
    RunOnSmallStack([&] {
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        SetRoots(index);
        ASSERT_TRUE(index.Add(2, SizedKey("a", 8152)));
        EXPECT_TRUE(SoundTable(index.table()));
        ASSERT_TRUE(index.Remove(2, SizedKey("a", 8152)));
        ASSERT_TRUE(index.Remove(1, TextKey("m")));
        EXPECT_EQ(CheckTable(index.table()).freeChain.size(), LEVELS);
        EXPECT_TRUE(SoundTable(index.table()));
    });
}

TEST_F(Deep, ASplitOfEveryLevelThatFailsAtTheRootIsBackedOut)
{
    // Two keys of 8160 bytes fit into no node together: every level splits, the new root cannot.
    WriteChain(INDX_KEY_TEXT, SizedKey("m", 8160), 1);
    RunOnSmallStack([&] {
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        SetRoots(index);
        for (const char* start : {"a", "z"}) {
            EXPECT_FALSE(index.Add(2, SizedKey(start, 8160)));
            const TreeReport report = CheckTable(index.table());
            EXPECT_TRUE(report.problems.empty()) << report.text();
            EXPECT_EQ(index.Walk(), std::vector<uint32_t>{1});
            index.Backout();
        }
        ASSERT_TRUE(index.Add(2, SizedKey("a", 8100))); // fits beside it, one level up
        const TreeReport report = CheckTable(index.table());
        EXPECT_TRUE(report.problems.empty()) << report.text();
        EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{2, 1}));
    });
}

TEST_F(Deep, KeysInAnOrderMadeToHurtMakeHundredsOfLevelsThatStaySound)
{
    // Each key of half a node goes between the two last ones: every node ends with few children.
    RunOnSmallStack([&] {
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        const auto Name = [](uint32_t n) {
            char start[8];
            snprintf(start, sizeof start, "%06u", n);
            return SizedKey(start, 8152 - n % 3);
        };
        uint32_t low = 0;
        uint32_t high = 900'000;
        std::vector<uint32_t> held;
        for (uint32_t i = 0; i < 500; ++i) {
            const uint32_t n = i % 2 ? (low += 1000) : (high -= 1000);
            ASSERT_TRUE(index.Add(n + 1, Name(n))) << i;
            held.push_back(n);
        }
        EXPECT_TRUE(SoundTable(index.table()));
        for (size_t i = 0; i < held.size(); ++i) {
            const uint32_t n = held[i * 7919 % held.size()];
            ASSERT_TRUE(index.Remove(n + 1, Name(n))) << i;
        }
        EXPECT_EQ(index.field()->roots.tRoot, NONE);
        EXPECT_TRUE(SoundTable(index.table()));
    });
}

} // namespace
