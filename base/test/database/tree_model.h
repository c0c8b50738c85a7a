// tree_model.h: what an index should hold and where its cursors should stand, kept in a std::map,
// for tests that drive a tree with random operations. Undoes what was not committed, as a back-out
// does. Numbers and ids must stay inside one window of 2^31 - 1, where the order is an order.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/index_fixture.h"
#include "support/tree_check.h"

struct ModelKey {
    Key value;
    uint32_t id = 0;
};

// The order of an index. In a unique one the id plays no part.
struct ModelOrder {
    int32_t keyType;
    bool unique;

    int CompareValues(const Key& left, const Key& right) const;
    bool operator()(const ModelKey& left, const ModelKey& right) const;
};

class TreeModel {
  public:
    using Map = std::map<ModelKey, uint32_t, ModelOrder>; // record offsets

    TreeModel(int32_t keyType, bool unique) : order_{keyType, unique}, keys_(order_) {}

    const Map& keys() const { return keys_; }
    const ModelOrder& order() const { return order_; }

    // Whether the key could enter, or was there to go; the map follows.
    bool Insert(const ModelKey& key, uint32_t offset);
    bool Delete(const ModelKey& key);
    bool Holds(const ModelKey& key) const;
    void Commit() { undo_.clear(); }
    void Backout();
    bool HasUncommitted() const { return !undo_.empty(); }

    // Whether a checked tree holds exactly these keys, byte for byte.
    testing::AssertionResult Equals(const IndexReport& report) const;

  private:
    struct Undo {
        ModelKey key;
        std::optional<uint32_t> former; // none: was not there
    };

    ModelOrder order_;
    Map keys_;
    std::vector<Undo> undo_;
};

// What a cursor should do, move by move.
class CursorModel {
  public:
    explicit CursorModel(const TreeModel& tree) : tree_(tree) {}

    int32_t status = INDX_AT_BEGINNING;
    int32_t code = 0;
    ModelKey key; // valid while status is on a key or untrusted
    uint32_t offset = 0;

    void Invalidate()
    {
        if (status == INDX_ON_KEY)
            status = INDX_UNTRUSTED;
    }
    int32_t First();
    int32_t Last();
    int32_t Next();
    int32_t Previous();
    int32_t NextMatching();
    int32_t Current();
    int32_t Find(uint32_t id, const Key& value);
    void Beginning() { NoKey(INDX_AT_BEGINNING); }
    void End() { NoKey(INDX_AT_END); }

    // Whether the cursor stands where it should.
    testing::AssertionResult Equals(const IndxCursor* pCursor) const;

  private:
    bool HasKey() const { return status == INDX_ON_KEY || status == INDX_UNTRUSTED; }
    int32_t NoKey(int32_t where);
    void Land(TreeModel::Map::const_iterator at);
    // Whether the saved key was found exactly.
    bool Refind(int32_t statusIfEmpty);
    void StepForward();

    const TreeModel& tree_;
};
