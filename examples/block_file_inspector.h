// block_file_inspector.h: what lies in a table's block file, counted by reading the file itself.
//
// The exported interface tells nothing about nodes and levels, so this looks at the bytes, and at
// nothing but the bytes: it opens the file for reading only, and never goes through the code that
// wrote it, except to rebuild the table's description, which is a serialised object. What it finds
// on the way (levels, leaf chain, entry counts) it holds against what the description says.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct IndexFacts {
    std::string field;
    int32_t levels = 0; // 1 when the root is a leaf, 0 when the index is empty
    uint32_t branches = 0;
    uint32_t leaves = 0;
    uint64_t entries = 0;   // in the leaves: one a record
    uint64_t bytesUsed = 0; // in the leaves: headers, entries and values

    double LeafFill() const;
};

struct BlockFileFacts {
    uint64_t bytes = 0;      // length of the file
    uint32_t blocks = 0;     // ever allocated
    uint32_t freeBlocks = 0; // on the free chain
    uint32_t highestId = 0;  // of a record
    std::vector<IndexFacts> indexes;

    uint64_t Nodes() const;
};

// Throws std::runtime_error when the file cannot be read or is not what a block file has to be.
// The database must not be in the middle of an operation; it may be open.
BlockFileFacts InspectBlockFile(const std::string& path);
