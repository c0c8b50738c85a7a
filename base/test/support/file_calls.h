// file_calls.h: the file calls that were made while a recorder lives, in order, for tests of what
// is read, what is written, and what comes first.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "nim/fault.h"

class FileCalls {
  public:
    struct Call {
        uint32_t op; // FILE_OP_READ ...
        std::string path;
        int64_t offset;
        uint32_t size;
    };

    FileCalls() { FileSysSetObserver(Take, this); }
    ~FileCalls() { FileSysSetObserver(nullptr, nullptr); }
    FileCalls(const FileCalls&) = delete;
    FileCalls& operator=(const FileCalls&) = delete;

    void clear() { calls_.clear(); }
    const std::vector<Call>& calls() const { return calls_; }
    size_t count(uint32_t op) const
    {
        size_t n = 0;
        for (const Call& call : calls_)
            n += call.op == op;
        return n;
    }
    // Where the calls of a kind went, in the order in which they were made.
    std::vector<int64_t> offsets(uint32_t op) const
    {
        std::vector<int64_t> result;
        for (const Call& call : calls_) {
            if (call.op == op)
                result.push_back(call.offset);
        }
        return result;
    }
    // Which blocks of a block file the writes went to, 0 for the control block; a block that is
    // written in parts counts once.
    std::vector<int64_t> blocksWritten(const std::string& pathPart = "") const
    {
        std::vector<int64_t> result;
        for (const Call& call : calls_) {
            const int64_t block = call.offset / 16384;
            if (call.op == FILE_OP_WRITE && call.path.find(pathPart) != std::string::npos &&
                (result.empty() || result.back() != block))
                result.push_back(block);
        }
        return result;
    }
    std::vector<uint32_t> sizes(uint32_t op) const
    {
        std::vector<uint32_t> result;
        for (const Call& call : calls_) {
            if (call.op == op)
                result.push_back(call.size);
        }
        return result;
    }

  private:
    static void
    Take(void* context, uint32_t op, const char* path, int64_t offset, uint32_t size, uint32_t)
    {
        static_cast<FileCalls*>(context)->calls_.push_back({op, path, offset, size});
    }

    std::vector<Call> calls_;
};
