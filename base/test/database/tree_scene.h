// tree_scene.h: one index of a chosen key type in a block file of its own, for books that need one
// for each of their lines. At the end it must be sound, unless it was damaged on purpose.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "database/index/tree/node.h"
#include "nim/fault.h"
#include "support/index_fixture.h"
#include "support/temporary_directory.h"
#include "support/tree_check.h"

inline constexpr int32_t FULL = 681; // entries of a full leaf of integers

class TreeScene {
  public:
    ~TreeScene()
    {
        FaultDisarmAll();
        if (!tree)
            return;
        tree->Backout();
        if (!damaged) {
            const TreeReport report = CheckTable(tree->table());
            EXPECT_TRUE(report.problems.empty()) << report.text();
        }
    }

    const TemporaryDirectory directory;
    std::unique_ptr<IndexFixture> tree;
    bool damaged = false;

    IndexFixture& Make(int32_t keyType, bool unique = false)
    {
        tree = std::make_unique<IndexFixture>(
            directory.path("tree"), std::vector<IndexSpec>{{keyType, unique}});
        return *tree;
    }
    // An index of these integers, under the record ids 1, 2, 3 ...
    IndexFixture& Integers(const std::vector<int32_t>& values, bool unique = false)
    {
        Make(INDX_KEY_INTEGER, unique);
        uint32_t id = 0;
        for (int32_t value : values) {
            ++id;
            EXPECT_TRUE(tree->Insert(id, NumberKey(value), 100 * id));
        }
        EXPECT_TRUE(tree->Update());
        return *tree;
    }
    IndexFixture& Texts(const std::vector<std::string>& values)
    {
        Make(INDX_KEY_TEXT);
        uint32_t id = 0;
        for (const std::string& value : values)
            EXPECT_TRUE(tree->Insert(++id, TextKey(value)));
        EXPECT_TRUE(tree->Update());
        return *tree;
    }
    // Two leaves under a root: 0 to 680, and 681.
    IndexFixture& TwoLeaves()
    {
        std::vector<int32_t> values;
        for (int32_t i = 0; i <= FULL; ++i)
            values.push_back(i);
        return Integers(values);
    }
    // A leaf forgets who its parent is, in memory only.
    void LoseParent(uint32_t tLeaf)
    {
        damaged = true;
        uint8_t* pLeaf = nullptr;
        IndxGetNode(&pLeaf, tree->cursor(), tLeaf);
        EXPECT_TRUE(IndxSetNodeWord(pLeaf, INDX_NODE_PARENT, 77));
    }
    // A new lowest key, for which the leaf has room, cannot be told to the levels above.
    void AddLowestWithoutParent()
    {
        IndexFixture& t = TwoLeaves();
        EXPECT_TRUE(t.Remove(9, NumberKey(8)));
        LoseParent(t.field()->roots.tFirstLeaf);
        EXPECT_FALSE(t.Add(9, NumberKey(-1)));
    }
};
