// wrapping_test.cpp: indexes of 32-bit integers, and of record ids, that lie more than 2^31 apart.
// They compare by wrapping subtraction, which is no order over such a distance: where a key goes
// and whether it is found again depends on which entries are looked at. Files were written by
// halving from (lower + upper) / 2, and what halving cannot find was never found. So the reference
// here halves, on plain vectors, and the library has to come to the same: every place, every find,
// every deletion, every key that a modification leaves as it is.

#include "support/tree_test.h"

#include <algorithm>
#include <random>
#include <vector>

#include "support/seed.h"

namespace {

struct Entry {
    uint32_t value; // 0 in an index of record ids
    uint32_t id;
    bool operator==(const Entry&) const = default;
};

int32_t Difference(uint32_t left, uint32_t right)
{
    return static_cast<int32_t>(left - right);
}

// A tree of at most two levels, as it was always written.
class HalvedTree {
  public:
    explicit HalvedTree(bool unique) : unique_(unique) {}

    struct Spot {
        size_t leaf;
        size_t position;
        bool found;
        bool inBranch;
    };

    Spot Find(const Entry& key) const
    {
        size_t leaf = 0;
        bool inBranch = false;
        if (leaves_.size() > 1) {
            std::vector<Entry> lowest;
            for (const Leaf& l : leaves_)
                lowest.push_back(l.branch);
            const auto [position, found] = Halve(lowest, key);
            leaf = found ? position : position == 0 ? 0 : position - 1;
            inBranch = found;
        }
        const auto [position, found] = Halve(leaves_[leaf].entries, key);
        return {leaf, position, found, inBranch};
    }

    bool Insert(const Entry& key)
    {
        if (leaves_.empty()) {
            leaves_.push_back({key, {key}});
            return true;
        }
        const Spot spot = Find(key);
        if (spot.found || spot.inBranch)
            return false;
        std::vector<Entry>& entries = leaves_[spot.leaf].entries;
        if (entries.size() < FULL)
            entries.insert(entries.begin() + static_cast<ptrdiff_t>(spot.position), key);
        else if (spot.position == 0)
            leaves_.insert(leaves_.begin() + static_cast<ptrdiff_t>(spot.leaf), {key, {key}});
        else
            SplitRight(spot, key);
        leaves_[spot.leaf].branch = leaves_[spot.leaf].entries.front();
        return true;
    }

    bool Delete(const Entry& key)
    {
        if (leaves_.empty())
            return false;
        const Spot spot = Find(key);
        if (!spot.found || leaves_[spot.leaf].entries[spot.position].id != key.id)
            return false;
        std::vector<Entry>& entries = leaves_[spot.leaf].entries;
        entries.erase(entries.begin() + static_cast<ptrdiff_t>(spot.position));
        if (entries.empty())
            leaves_.erase(leaves_.begin() + static_cast<ptrdiff_t>(spot.leaf));
        else
            leaves_[spot.leaf].branch = entries.front();
        return true;
    }

    std::vector<uint32_t> Ids() const
    {
        std::vector<uint32_t> ids;
        for (const Leaf& leaf : leaves_) {
            for (const Entry& entry : leaf.entries)
                ids.push_back(entry.id);
        }
        return ids;
    }

  private:
    static constexpr size_t FULL = 681;
    struct Leaf {
        Entry branch; // its entry in the root
        std::vector<Entry> entries;
    };

    std::pair<size_t, bool> Halve(const std::vector<Entry>& entries, const Entry& key) const
    {
        int32_t lower = 0;
        int32_t upper = static_cast<int32_t>(entries.size()) - 1;
        while (upper >= lower) {
            const int32_t index = (lower + upper) / 2;
            const Entry& entry = entries[static_cast<size_t>(index)];
            int32_t result = Difference(key.value, entry.value);
            if (result == 0 && !unique_)
                result = Difference(key.id, entry.id);
            if (result == 0)
                return {static_cast<size_t>(index), true};
            if (result < 0)
                upper = index - 1;
            else
                lower = index + 1;
        }
        return {static_cast<size_t>(lower), false};
    }
    // The entries from the place on move to a new leaf; the key goes where more room is left.
    void SplitRight(const Spot& spot, const Entry& key)
    {
        std::vector<Entry>& left = leaves_[spot.leaf].entries;
        std::vector<Entry> right(left.begin() + static_cast<ptrdiff_t>(spot.position), left.end());
        left.resize(spot.position);
        // In bytes: what the left one has, and the right one, without the key.
        const auto leftFree = static_cast<int64_t>(16352 - 24 * left.size());
        const auto rightFree = static_cast<int64_t>(16352 - 24 * right.size());
        if (rightFree <= leftFree)
            left.push_back(key);
        else
            right.insert(right.begin(), key);
        const Entry lowest = right.front();
        leaves_.insert(
            leaves_.begin() + static_cast<ptrdiff_t>(spot.leaf) + 1, {lowest, std::move(right)});
    }

    bool unique_;
    std::vector<Leaf> leaves_;
};

class Wrapping : public TreeTest {
  protected:
    static Key KeyOf(const Entry& entry) { return NumberKey(static_cast<int32_t>(entry.value)); }
    // Random keys over the whole range, entered into the library's index and into the reference.
    void Fill(IndexFixture& index, HalvedTree& halved, std::vector<Entry>* pEntries, uint32_t count)
    {
        std::mt19937_64 random(TestSeed());
        for (uint32_t n = 1; n <= count; ++n) {
            const Entry entry{static_cast<uint32_t>(random()), n};
            ASSERT_EQ(index.Insert(n, KeyOf(entry), n), halved.Insert(entry)) << n;
            if (n % 1000 == 0)
                index.Update();
            pEntries->push_back(entry);
        }
        index.Update();
        ASSERT_EQ(index.Walk(), halved.Ids());
    }
};

TEST_F(Wrapping, EveryFindGivesWhatHalvingGives)
{
    for (const uint32_t count : {40u, 600u, 20'000u}) {
        IndexFixture index(path() + std::to_string(count), {{INDX_KEY_INTEGER}});
        HalvedTree halved(false);
        std::vector<Entry> entries;
        ASSERT_NO_FATAL_FAILURE(Fill(index, halved, &entries, count));
        uint32_t found = 0;
        for (const Entry& entry : entries) {
            const bool expected = halved.Find(entry).found;
            ASSERT_EQ(index.FindExactly(entry.id, KeyOf(entry)), expected) << entry.id;
            found += expected;
        }
        EXPECT_GT(found, count / 2);
        // Of many random keys of the whole range some cannot be found: they are in no order.
        EXPECT_TRUE(count < 1000 || found < count);
    }
}

TEST_F(Wrapping, EveryDeletionGivesWhatHalvingGives)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    HalvedTree halved(false);
    std::vector<Entry> entries;
    ASSERT_NO_FATAL_FAILURE(Fill(index, halved, &entries, 8000));
    std::mt19937_64 random(TestSeed());
    std::shuffle(entries.begin(), entries.end(), random);
    for (size_t n = 0; n < entries.size(); ++n) {
        const Entry& entry = entries[n];
        ASSERT_EQ(index.Delete(entry.id, KeyOf(entry)), halved.Delete(entry)) << n;
        if (n % 200 == 0) {
            index.Update();
            ASSERT_EQ(index.Walk(), halved.Ids()) << n;
        }
    }
    index.Update();
    EXPECT_EQ(index.Walk(), halved.Ids());
}

// A key that a modification leaves as it is ends where it would be entered again, whichever way it
// goes.
void ModifyLikeHalving(IndexFixture& index, HalvedTree& halved, const Entry& entry, const Key& key)
{
    const TestRecord record({{index.field()->keyType}}, entry.id, {key});
    bool expected = halved.Delete(entry);
    if (expected)
        expected = halved.Insert(entry);
    bool done = IndxRepointKey(index.cursor(), record.data(), record.data(), entry.id + 7);
    if (!done)
        done = index.Delete(entry.id, key) && index.Insert(entry.id, key, entry.id + 7);
    ASSERT_EQ(done, expected) << entry.id;
}

TEST_F(Wrapping, AModificationLeavesAKeyWhereHalvingWouldEnterIt)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    HalvedTree halved(false);
    std::vector<Entry> entries;
    ASSERT_NO_FATAL_FAILURE(Fill(index, halved, &entries, 8000));
    for (size_t n = 0; n < entries.size(); ++n) {
        ASSERT_NO_FATAL_FAILURE(ModifyLikeHalving(index, halved, entries[n], KeyOf(entries[n])));
        if (n % 400 == 0) {
            index.Update();
            ASSERT_EQ(index.Walk(), halved.Ids()) << n;
        }
    }
    index.Update();
    EXPECT_EQ(index.Walk(), halved.Ids());
}

// In a leaf that holds the whole range, one that is taken out may not come back to its place.
TEST_F(Wrapping, AKeyOfASmallIndexGoesWhereHalvingWouldEnterIt)
{
    std::mt19937_64 random(TestSeed());
    for (int round = 0; round < 150; ++round) {
        IndexFixture index(path() + std::to_string(round), {{INDX_KEY_INTEGER}});
        HalvedTree halved(false);
        std::vector<Entry> entries;
        const auto count = static_cast<uint32_t>(3 + random() % 60);
        for (uint32_t n = 1; n <= count; ++n) {
            entries.push_back({static_cast<uint32_t>(random()), n});
            ASSERT_EQ(index.Insert(n, KeyOf(entries.back()), n), halved.Insert(entries.back()));
        }
        for (const Entry& entry : entries) {
            ASSERT_NO_FATAL_FAILURE(ModifyLikeHalving(index, halved, entry, KeyOf(entry)));
            ASSERT_EQ(index.Walk(), halved.Ids()) << round << ": " << entry.id;
        }
        index.Update();
    }
}

// Record ids are ordered in the same way, and so are equal values of every index that is not
// unique.
TEST_F(Wrapping, RecordIdsOfTheWholeRangeDoWhatHalvingDoes)
{
    for (const int32_t keyType : {INDX_KEY_RECORD_ID, INDX_KEY_INT64, INDX_KEY_TEXT}) {
        SCOPED_TRACE(keyType);
        IndexFixture index(path() + std::to_string(keyType), {{keyType, false}});
        HalvedTree halved(false);
        const Key key = keyType == INDX_KEY_TEXT ? TextKey("same") : NumberKey(5);
        std::mt19937_64 random(TestSeed());
        std::vector<Entry> entries;
        const int count = keyType == INDX_KEY_TEXT ? 500 : 3000; // texts: one leaf
        for (int n = 0; n < count; ++n) {
            const Entry entry{0, static_cast<uint32_t>(random()) | 1};
            ASSERT_EQ(index.Insert(entry.id, key, entry.id), halved.Insert(entry)) << n;
            entries.push_back(entry);
        }
        index.Update();
        ASSERT_EQ(index.Walk(), halved.Ids());
        for (const Entry& entry : entries)
            ASSERT_EQ(index.FindExactly(entry.id, key), halved.Find(entry).found) << entry.id;
        for (const Entry& entry : entries)
            ASSERT_NO_FATAL_FAILURE(ModifyLikeHalving(index, halved, entry, key));
        index.Update();
        ASSERT_EQ(index.Walk(), halved.Ids());
        for (const Entry& entry : entries)
            ASSERT_EQ(index.Delete(entry.id, key), halved.Delete(entry)) << entry.id;
        index.Update();
        EXPECT_EQ(index.Walk(), halved.Ids());
    }
}

} // namespace
