// table_model.h: what a table should hold, kept in standard containers, for tests that drive whole
// tables with random operations: random schemas, random rows, and the model that says what each
// operation has to answer and leave behind.
//
// Numbers and ids stay inside one window of 2^31 - 1, where the order of keys is an order.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/record_objects.h"

class Random {
  public:
    explicit Random(uint64_t seed) : engine_(seed) {}

    // 0 to n - 1.
    uint64_t Below(uint64_t n) { return engine_() % n; }
    bool OneIn(uint64_t n) { return Below(n) == 0; }
    uint64_t Word() { return engine_(); }

  private:
    std::mt19937_64 engine_;
};

// ---- schemas -----------------------------------------------------------------------------------

struct FieldSpec {
    char letter; // one of b i s o d n q u
    uint32_t arraySize = 0;
    std::string name;
    bool isId = false;
    bool indexed = false; // really: the flag was written, and the kind can be
    bool unique = false;
    bool caseSensitive = false;
    // How values are drawn.
    int32_t lowest = 0;   // of integers: the window's start
    uint32_t longest = 0; // text or data, in bytes
    uint64_t domain = 0;  // how many different ones there are
    bool commonStart = false;

    bool IsVariable() const
    {
        return letter == 's' || letter == 'o' || letter == 'd' || letter == 'n';
    }
    uint32_t SlotWidth() const
    {
        return letter == 'b' || letter == 'i' ? 4 : letter == 'u' ? 32 : 8;
    }
};

struct Schema {
    std::vector<FieldSpec> fields;
    size_t idField = 0;
    uint32_t fixedSize = 0; // of a record
    uint32_t maximumLive = 0;
    std::string format;
    std::string fieldsText;

    // Positions of the fields that have an index.
    std::vector<size_t> Indexed() const;
};

// 1 to 40 fields, "Id" anywhere among them, any mix of kinds and flags. A large one is of few
// fields and many records.
Schema MakeSchema(Random& random, bool large);

// ---- values ------------------------------------------------------------------------------------

// An item's bytes: little-endian numbers, the text without its NUL, the serialised form of a nested
// object.
struct Value {
    bool absent = false; // a text or object that is not there
    std::string bytes;

    bool operator==(const Value&) const = default;
};
using Row = std::vector<Value>;

// A value of number `n`: the same number gives values that an index takes for equal.
Value MakeValue(const FieldSpec& field, uint64_t n, Random& random);
// A new object of the schema's template, filled from a row.
Held MakeObject(const Schema& schema, ObjTemplate* pTemplate, const Row& row);
// The row that an object holds.
Row RowOf(const Schema& schema, const void* object);
// What a partial read without a selection makes of a row.
Row WithoutVariableFields(const Schema& schema, Row row);
// The length of a row's record.
uint32_t RecordLength(const Schema& schema, const Row& row);
// A search key with a field's value; null for the field of ids.
Held KeyObject(const FieldSpec& field, const Value& value);
// Whether such a key can be searched for: an empty text cannot.
bool IsSearchable(const FieldSpec& field, const Value& value);

uint32_t IdOf(const Schema& schema, const Row& row);
void SetId(const Schema& schema, Row* pRow, uint32_t id);

// ---- the model ---------------------------------------------------------------------------------

// A key in the order of its index: the value's bytes so that strings compare as the keys do, and
// the id.
using OrderedKey = std::pair<std::string, uint32_t>;
using OrderedKeys = std::set<OrderedKey>;

class TableModel {
  public:
    struct Record {
        Row row;
        uint32_t offset;
        uint32_t length;
    };

    explicit TableModel(const Schema& schema) : schema_(schema), indexes_(schema.fields.size()) {}

    const std::map<uint32_t, Record>& records() const { return records_; }
    const OrderedKeys& index(size_t field) const { return indexes_[field]; }
    OrderedKey KeyOf(size_t field, uint32_t id) const;
    OrderedKey KeyOf(size_t field, const Value& value, uint32_t id) const;
    uint32_t highest() const { return highest_; }
    uint64_t fileEnd() const { return fileEnd_; }

    // Whether an index refuses a row as the record `id`: a value that another record has, an absent
    // or too long text, and for a new record an id that is there.
    bool Refuses(uint32_t id, const Row& row, bool bNew) const;

    // The next id, which is used up whatever comes of it.
    uint32_t IssueId() { return ++highest_; }
    void Add(uint32_t id, const Row& row);
    void Modify(uint32_t id, const Row& row);
    void Delete(uint32_t id);
    // The end of any operation that works stores the highest id, one without a change too; what was
    // not stored is forgotten.
    void Store() { stored_ = highest_; }
    void Reopen() { highest_ = stored_; }

  private:
    void EnterKeys(uint32_t id);
    void TakeKeys(uint32_t id);

    const Schema& schema_;
    std::map<uint32_t, Record> records_;
    std::vector<OrderedKeys> indexes_;
    uint32_t highest_ = 0;
    uint32_t stored_ = 0; // the highest id on disk
    uint64_t fileEnd_ = 0;
};
