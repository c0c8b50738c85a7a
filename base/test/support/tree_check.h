// tree_check.h: the whole-tree check. It reads the nodes of every index of a table by hand-written
// byte offsets, straight from the file, and shares no code with the rooms that write them, so that
// it cannot agree with a fault of theirs. What it proves:
//
//   - entries stand in the order of the index, in each node and along the whole level;
//   - heap offsets are running sums, and heap and entries do not touch;
//   - the nodes of a level are linked both ways, in the order of their parents' entries;
//   - every node's parent word is right, and its entry there is its lowest key, value and id;
//   - all leaves are equally deep; first leaf, last leaf and level count are right;
//   - every block is exactly one of: node of one tree, on the free chain, lost by a back-out.
//
// The check reads what is on disk: run it when an operation has ended (IndxUpdateTable or
// IndxBackout). It leaves the cache of blocks as it is.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// One key as it stands in a leaf.
struct TreeEntry {
    std::string value; // the bytes of the value: 4, 8, or those in the heap; none for record ids
    uint32_t id;
    uint32_t offset; // of the record
};

struct IndexReport {
    std::string field;
    std::vector<TreeEntry> entries; // in the order of the leaves
    std::vector<uint32_t> nodes;    // block ids, level by level from the root
    std::vector<uint32_t> perLevel; // nodes of each level, the root's first
};

struct TreeReport {
    std::vector<std::string> problems; // none: sound
    std::vector<IndexReport> indexes;  // of the indexed fields, in table order
    std::vector<uint32_t> freeChain;   // from its head on
    std::vector<uint32_t> lost;        // in no tree and not on the free chain
    uint32_t blocks = 0;               // ids ever handed out

    std::string text() const; // the problems, one a line
};

// All indexes of an open table.
TreeReport CheckTable(void* oTable);
// One index, given its field and block file; nothing is said about blocks outside of it.
TreeReport CheckIndex(void* oField, void* oBlck);
// All indexes of a block file that is not open, by the description in its user data.
TreeReport CheckBlockFile(const std::string& path);

// The same as assertions: no problem, and exactly as many lost blocks as expected.
testing::AssertionResult SoundTable(void* oTable, size_t lost = 0);
testing::AssertionResult SoundIndex(void* oField, void* oBlck);
testing::AssertionResult SoundBlockFile(const std::string& path, size_t lost = 0);
