// table_under_test.h: the measured table and the operations on it, each the way a host calls it.
#pragma once

#include <string>
#include <vector>

#include "block_file_inspector.h"
#include "nim/object.h"
#include "workload.h"

// The objects of the table.
struct SampleRecord {
    int32_t id;
    char* name;
    int32_t size;
    int64_t stamp;
    UniqueId hash;
    char* note;
};
static_assert(sizeof(SampleRecord) == 72);

// All operations throw std::runtime_error when they fail or find what they should not.
class TableUnderTest {
  public:
    // An empty database in a new directory inside `directory`.
    explicit TableUnderTest(const std::string& directory);
    TableUnderTest(const TableUnderTest&) = delete;
    TableUnderTest& operator=(const TableUnderTest&) = delete;
    ~TableUnderTest(); // removes the directory

    void Open();
    void Close();

    // Makes the object, adds it, lets go of it.
    void Add(const Sample& sample);
    // Makes the key, finds it, reads and decodes the record: it must be the sample of that id.
    void FindByName(const Sample& sample, uint32_t expectedId);
    void FindByHash(const Sample& sample, uint32_t expectedId);
    // Every record in the order of the names, read and decoded; returns their number and a sum that
    // every one of them went into.
    uint64_t Walk(uint64_t& sum);
    // Drops the nodes that reading has left in memory.
    void ForgetNodes();

    BlockFileFacts Inspect() const;
    uint64_t RecordBytes() const;
    const std::string& Directory() const { return directory_; }

  private:
    void Find(void* oCursor, void* oKey, uint32_t expectedId);

    std::string directory_;
    ObjTemplate* template_ = nullptr;
    void* oDatabase_ = nullptr;
    void* oTable_ = nullptr;
    void* oByName_ = nullptr;
    void* oByHash_ = nullptr;
};

// What Walk adds up, of one record.
uint64_t SumOf(uint32_t id, int32_t size, int64_t stamp, size_t nameLength, size_t noteLength);
