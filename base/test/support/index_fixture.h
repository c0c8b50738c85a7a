// index_fixture.h: a table object over a block file of its own, with indexed fields of chosen key
// types, made without the rooms of the schema, so that the trees can be driven directly: keys go in
// and out through IndxInsertKey and IndxDeleteKey with records made here, operations end with
// IndxUpdateTable or IndxBackout.
//
// A record: the id at offset 4, one slot of 32 bytes for each field from offset 8 on, the texts
// behind the slots.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "database/indexinternal.h"

struct IndexSpec {
    int32_t keyType = INDX_KEY_INTEGER;
    bool unique = false;
    uint32_t maximumKey = 8168;
};

// The value of a key: the number for integers, else the bytes (a text with its NUL, or 32 bytes).
struct Key {
    int64_t number = 0;
    std::string bytes;
};
inline Key NumberKey(int64_t number)
{
    return {number, {}};
}
inline Key TextKey(const std::string& text)
{
    return {0, text + '\0'};
}
inline Key BytesKey(const std::string& bytes)
{
    return {0, bytes};
}
// A text key of `size` bytes, its NUL included: `start`, then the fill.
Key SizedKey(const std::string& start, size_t size, char fill = 'x');

// The bytes of one record, as the rows floor would hand them on.
class TestRecord {
  public:
    TestRecord(const std::vector<IndexSpec>& specs, uint32_t id, const std::vector<Key>& keys);
    TestRecord(const TestRecord&) = delete;
    TestRecord& operator=(const TestRecord&) = delete;

    const ObjData* data() const { return &data_; }
    // The bytes, for tests that damage them.
    std::string bytes;

  private:
    ObjData data_;
};

class IndexFixture {
  public:
    static constexpr uint32_t ID_OFFSET = 4;
    static constexpr uint32_t FIRST_SLOT = 8;
    static constexpr uint32_t SLOT_SIZE = 32;

    // Opens or creates the block file. The roots of an existing file are those of `carried`.
    IndexFixture(const std::string& path, const std::vector<IndexSpec>& specs);
    ~IndexFixture();
    IndexFixture(const IndexFixture&) = delete;
    IndexFixture& operator=(const IndexFixture&) = delete;

    // Gives table, fields, cursors and block file up; the cursors of OpenCursor are gone.
    void Close();
    // Opens them again, with the roots that the fields had at Close.
    void Open();
    void Reopen()
    {
        Close();
        Open();
    }

    const std::string& path() const { return path_; }
    IndxTable* table() const { return pTable_; }
    void* block() const { return pTable_->oBlck; }
    IndxField* field(size_t index = 0) const { return fields_[index]; }
    // The fixture's own cursor on an index, through which it inserts and deletes.
    IndxCursor* cursor(size_t index = 0) const { return cursors_[index]; }
    // Another cursor, at the beginning; borrowed, gone at Close at the latest.
    IndxCursor* OpenCursor(size_t index = 0);
    void CloseCursor(IndxCursor* pCursor);

    // One key in or out of one index; nothing is ended.
    bool Insert(uint32_t id, const Key& key, uint32_t offset = 0, size_t index = 0);
    bool Delete(uint32_t id, const Key& key, size_t index = 0);
    // A record with a key for each index, in or out of all of them; stops at the first that fails.
    bool InsertAll(uint32_t id, const std::vector<Key>& keys, uint32_t offset);
    bool DeleteAll(uint32_t id, const std::vector<Key>& keys);
    bool Update() { return IndxUpdateTable(pTable_) != 0; }
    void Backout() { IndxBackout(pTable_); }
    // The same as whole operations: kept when they succeed, backed out when they fail.
    bool Add(uint32_t id, const Key& key, uint32_t offset = 0, size_t index = 0);
    bool Remove(uint32_t id, const Key& key, size_t index = 0);

    // IndxFindKey with a key object made from the key; the code.
    int32_t Find(uint32_t id, const Key& key, size_t index = 0);
    int32_t Find(IndxCursor* pCursor, uint32_t id, const Key& key);
    // IndxFind with the bytes as they are, which IndxFindKey cannot take: "", or no NUL.
    bool FindExactly(uint32_t id, const Key& key, size_t index = 0);
    // A key info of the index; one reference.
    IndxKeyInfo* MakeKeyInfo(uint32_t id, const Key& key, size_t index = 0);

    // Every key of an index, by walking a cursor from the first to the last: the records' ids.
    std::vector<uint32_t> Walk(size_t index = 0);

  private:
    TestRecord Record(uint32_t id, const Key& key, size_t index) const;

    std::string path_;
    std::vector<IndexSpec> specs_;
    std::vector<IndxRoots> roots_;
    std::vector<int32_t> levels_;
    IndxTable* pTable_ = nullptr;
    std::vector<IndxField*> fields_;
    std::vector<IndxCursor*> cursors_;
};

// Id, value bytes and record offset of a cursor's saved key, for comparisons.
uint32_t CursorId(const IndxCursor* pCursor);
uint32_t CursorOffset(const IndxCursor* pCursor);
Key CursorKey(const IndxCursor* pCursor);
