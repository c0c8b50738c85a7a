#include "bare_io.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr uint32_t BLOCK_SIZE = 16384;
constexpr uint32_t CONTROL_SIZE = 16168;
constexpr uint32_t RECORD_READ = 256; // a record with one call: more than it is long
constexpr uint32_t RECORD_SIZE = 126; // of the benchmark's records, on the average

void Must(bool bDone, const char* what)
{
    if (!bDone)
        throw std::system_error(errno, std::generic_category(), what);
}

off_t Offset(uint32_t block)
{
    return (off_t(block) + 1) * BLOCK_SIZE;
}

} // namespace

BareIo::BareIo(const std::string& directory, const BlockFileFacts& facts, uint64_t recordBytes)
    : blockPath_(directory + "/bare.blocks"), recordPath_(directory + "/bare.records"),
      blocks_(facts.blocks), recordBytes_(recordBytes), recordEnd_(recordBytes), buffer_(BLOCK_SIZE)
{
    for (uint8_t& byte : buffer_)
        byte = uint8_t(random_.Next());
    blockFile_ = open(blockPath_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    recordFile_ = open(recordPath_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    Must(blockFile_ >= 0 && recordFile_ >= 0, "open");
    for (uint64_t at = 0; at <= blocks_; ++at)
        Must(
            pwrite(blockFile_, buffer_.data(), BLOCK_SIZE, off_t(at) * BLOCK_SIZE) == BLOCK_SIZE,
            "pwrite");
    for (uint64_t at = 0; at < recordBytes; at += BLOCK_SIZE) {
        size_t count = size_t(std::min<uint64_t>(BLOCK_SIZE, recordBytes - at));
        Must(pwrite(recordFile_, buffer_.data(), count, off_t(at)) == ssize_t(count), "pwrite");
    }
    for (const IndexFacts& index : facts.indexes) {
        Tree tree = {AnyBlock(), {}, index.levels, AnyBlock(), index.field == "Id"};
        for (uint32_t i = 1; i < std::max(2u, index.branches); ++i)
            tree.branches.push_back(AnyBlock());
        trees_.push_back(tree);
    }
}

BareIo::~BareIo()
{
    close(blockFile_);
    close(recordFile_);
    unlink(blockPath_.c_str());
    unlink(recordPath_.c_str());
}

void BareIo::ReadBlock(uint32_t block)
{
    Must(pread(blockFile_, buffer_.data(), BLOCK_SIZE, Offset(block)) == BLOCK_SIZE, "pread");
}

void BareIo::WriteBlock(uint32_t block)
{
    Must(pwrite(blockFile_, buffer_.data(), BLOCK_SIZE, Offset(block)) == BLOCK_SIZE, "pwrite");
}

uint32_t BareIo::Descend(const Tree& tree, bool bAdd)
{
    uint32_t leaf = bAdd && tree.bAscending ? tree.lastLeaf : AnyBlock();
    for (int32_t level = 1; level < tree.levels; ++level)
        ReadBlock(
            level == 1 ? tree.root : tree.branches[random_.Below(uint32_t(tree.branches.size()))]);
    ReadBlock(leaf);
    return leaf;
}

void BareIo::Add()
{
    uint32_t leaves[8];
    size_t count = 0;
    for (const Tree& tree : trees_)
        leaves[count++] = Descend(tree, true);
    Must(
        pwrite(recordFile_, buffer_.data(), RECORD_SIZE, off_t(recordEnd_)) == RECORD_SIZE,
        "pwrite");
    recordEnd_ += RECORD_SIZE;
    for (size_t i = 0; i < count; ++i)
        WriteBlock(leaves[i]);
    Must(pwrite(blockFile_, buffer_.data(), CONTROL_SIZE, 0) == CONTROL_SIZE, "pwrite");
}

void BareIo::Find(size_t index)
{
    Descend(trees_.at(index), false);
    ReadRecord();
}

void BareIo::ReadRecord()
{
    uint64_t offset = random_.Next() % (recordBytes_ - RECORD_READ);
    Must(pread(recordFile_, buffer_.data(), RECORD_READ, off_t(offset)) == RECORD_READ, "pread");
}

void BareIo::ReadLeaf()
{
    ReadBlock(AnyBlock());
}

void BareIo::Open()
{
    int blocks = open(blockPath_.c_str(), O_RDWR | O_CLOEXEC);
    int records = open(recordPath_.c_str(), O_RDWR | O_CLOEXEC);
    Must(blocks >= 0 && records >= 0, "open");
    Must(pread(blocks, buffer_.data(), CONTROL_SIZE, 0) == CONTROL_SIZE, "pread");
    close(blocks);
    close(records);
}

uint32_t BareIo::ReadsOfAdd() const
{
    uint32_t reads = 0;
    for (const Tree& tree : trees_)
        reads += uint32_t(tree.levels);
    return reads;
}
