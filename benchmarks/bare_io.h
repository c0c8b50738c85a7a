// bare_io.h: the input and output of an operation and nothing else: positioned reads and writes on
// two files of the sizes that the table's files have, no tree, no search, no copy.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "block_file_inspector.h"
#include "workload.h"

class BareIo {
  public:
    // Makes the two files in `directory`, as long as the table's are and with something in every
    // block, so that they lie in the page cache as the table's files do.
    BareIo(const std::string& directory, const BlockFileFacts& facts, uint64_t recordBytes);
    BareIo(const BareIo&) = delete;
    BareIo& operator=(const BareIo&) = delete;
    ~BareIo(); // removes them

    // Every index: its nodes from root to leaf are read and the leaf is written. Then one record is
    // appended and the control block is written.
    void Add();
    // The nodes of one index and the record.
    void Find(size_t index);
    // The record alone: what a find costs while the nodes are in memory.
    void ReadRecord();
    // One leaf.
    void ReadLeaf();
    // Both files opened, the control block read, both files closed.
    void Open();

    uint32_t ReadsOfAdd() const;

  private:
    // A tree as the reads see it: one root, the branches between it and the leaves, which are few
    // and always the same, and leaves anywhere in the file.
    struct Tree {
        uint32_t root;
        std::vector<uint32_t> branches;
        int32_t levels;
        uint32_t lastLeaf;
        bool bAscending; // keys come in ascending order: every add goes to the last leaf
    };

    uint32_t AnyBlock() { return random_.Below(blocks_); }
    void ReadBlock(uint32_t block);
    void WriteBlock(uint32_t block);
    uint32_t Descend(const Tree& tree, bool bAdd); // the leaf

    std::string blockPath_;
    std::string recordPath_;
    int blockFile_ = -1;
    int recordFile_ = -1;
    uint32_t blocks_ = 0;
    uint64_t recordBytes_ = 0; // as it was at first: records are read below, appended behind
    uint64_t recordEnd_ = 0;
    std::vector<Tree> trees_;
    Random random_{1};
    std::vector<uint8_t> buffer_;
};
