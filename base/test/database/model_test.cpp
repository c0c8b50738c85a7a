// model_test.cpp: random adds and deletes in one tree against a std::map, for every key type,
// unique and not, with keys of every length; cursors that move between the changes; operations that
// are ended singly and in groups, or backed out; the file closed and opened again. The whole-tree
// check runs on the way and at the end, and compares every key.
//
// NIM_TEST_SEED replays a run: the seed is printed. NIM_TEST_OPERATIONS sets the number of adds and
// deletes of the whole program; each case takes its share of it (support/effort.h).

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <map>
#include <random>

#include "database/tree_model.h"
#include "support/effort.h"
#include "support/index_fixture.h"
#include "support/quiet_trace.h"
#include "support/seed.h"
#include "support/temporary_directory.h"
#include "support/tree_check.h"

namespace {

enum class Lengths { Short, Middle, NearHalf, Longest };

struct ModelCase {
    const char* name;
    int32_t keyType;
    bool unique;
    Lengths lengths;
    uint32_t share;   // of 1000 operations
    uint32_t maxLive; // keys in the tree at most
};

std::ostream& operator<<(std::ostream& out, const ModelCase& c)
{
    return out << c.name;
}

// ---- keys ------------------------------------------------------------------------------------

// Keys by rank: a greater rank is a greater key, so that patterns can be asked for.
class KeySource {
  public:
    KeySource(const ModelCase& c, std::mt19937_64& random)
        : case_(c), random_(random), domain_(4 * c.maxLive)
    {
    }

    uint32_t domain() const { return domain_; }

    ModelKey At(uint32_t rank)
    {
        ModelKey key;
        if (case_.keyType == INDX_KEY_RECORD_ID) {
            key.id = 1 + rank * (0x7FFFFFF0u / domain_);
            return key;
        }
        // Few values under many ids in an index that is not unique: equal values stand in a row.
        const uint32_t values = case_.unique ? domain_ : std::max(domain_ / 8, 4u);
        const uint32_t value = case_.unique ? rank : rank / 8;
        key.id = case_.unique ? 1 + Below(1u << 30) : 1 + (rank % 8) * 0x0F000000u;
        key.value = Value(value, values);
        return key;
    }

  private:
    uint32_t Below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

    Key Value(uint32_t value, uint32_t values)
    {
        const int64_t stride =
            case_.keyType == INDX_KEY_INT64 ? INT64_MAX / values * 2 : 0x7FFFFFFF / values;
        if (case_.keyType == INDX_KEY_INTEGER)
            return NumberKey(-(1 << 30) + static_cast<int64_t>(value) * stride);
        if (case_.keyType == INDX_KEY_INT64)
            return NumberKey(
                static_cast<int64_t>(static_cast<uint64_t>(INT64_MIN) + uint64_t{value} * stride));
        if (case_.keyType == INDX_KEY_UNIQUE_ID)
            return BytesKey(Letters(value, 32, '\xE9'));
        return Text(value);
    }

    // Six letters that order as the value does, then fill.
    std::string Letters(uint32_t value, size_t size, char fill)
    {
        std::string text(6, 'a');
        for (size_t i = 6; i-- > 0; value /= 26)
            text[i] = static_cast<char>('a' + value % 26);
        text.resize(size, fill);
        return text;
    }

    Key Text(uint32_t value)
    {
        if (value == 0)
            return BytesKey(std::string(1, '\0')); // the shortest key of all
        const size_t size = Length();
        std::string text = Letters(value, std::max<size_t>(size, 8), Below(8) ? 'x' : '\xFF');
        if (case_.keyType == INDX_KEY_TEXT_NO_CASE) {
            for (char& c : text) {
                if (c >= 'a' && c <= 'z' && Below(2))
                    c = static_cast<char>(c - 32);
            }
        }
        // Now and then no NUL, as from an inline array, or bytes behind it, which do not count.
        const uint32_t form = Below(16);
        if (form == 0)
            return BytesKey(text);
        if (form == 1)
            text[text.size() - 2] = '\0';
        text.back() = '\0';
        return BytesKey(text);
    }

    size_t Length()
    {
        switch (case_.lengths) {
        case Lengths::Short:
            return 8 + Below(60);
        case Lengths::Middle:
            return Below(4) ? 8 + Below(2400) : 8 + Below(8145);
        case Lengths::NearHalf:
            return Below(6) ? 8152 - Below(Below(2) ? 40 : 400) : 8 + Below(8145);
        default:
            return Below(6) ? 8168 - Below(Below(2) ? 40 : 400) : 8 + Below(8161);
        }
    }

    const ModelCase& case_;
    std::mt19937_64& random_;
    uint32_t domain_;
};

// ---- the run ---------------------------------------------------------------------------------

class ModelRun {
  public:
    ModelRun(const ModelCase& c, uint64_t seed)
        : case_(c), random_(seed), keys_(c, random_), model_(c.keyType, c.unique),
          index_(directory_.path("model"), {{c.keyType, c.unique, 8168}})
    {
        for (int i = 0; i < 4; ++i)
            models_.emplace_back(model_);
        OpenCursors();
    }

    void Run(uint64_t operations)
    {
        const uint64_t perCheck = std::max<uint64_t>(operations / 25, 200);
        const uint64_t perReopen = std::max<uint64_t>(operations / 10, 500);
        uint64_t nextCheck = perCheck;
        uint64_t nextReopen = perReopen;
        // Only what changes the tree is counted; a key that is there already, or not there, is not.
        while (done_ < operations && !testing::Test::HasFailure()) {
            if (phaseLength_-- == 0)
                NewPhase();
            Change();
            if (Below(2))
                MoveACursor();
            if (done_ >= nextCheck) {
                Check();
                nextCheck += perCheck;
            }
            if (done_ >= nextReopen) {
                Reopen();
                nextReopen += perReopen;
            }
        }
        Check();
        FindEverything();
        std::cout << case_.name << ": " << done_ << " operations, " << model_.keys().size()
                  << " keys at the end, up to " << maxLevels_ << " levels, " << refused_
                  << " refused for length\n";
    }

  private:
    enum class Pattern { Random, Ascending, Descending, Neighbour };

    uint32_t Below(uint64_t n) { return static_cast<uint32_t>(random_() % n); }

    void NewPhase()
    {
        phaseLength_ = 200 + Below(2 * case_.maxLive);
        pattern_ = static_cast<Pattern>(Below(4));
        deletePattern_ = static_cast<Pattern>(Below(4));
        const size_t live = model_.keys().size();
        insertPercent_ = live > case_.maxLive       ? 5
                         : live < case_.maxLive / 4 ? 95
                                                    : 5 + 18 * Below(6);
        groupSize_ = Below(3) ? 1 : 1 + Below(20);
        next_ = Below(keys_.domain());
    }

    uint32_t Rank(Pattern pattern)
    {
        switch (pattern) {
        case Pattern::Ascending:
            next_ = (next_ + 1 + Below(3)) % keys_.domain();
            return next_;
        case Pattern::Descending:
            next_ = (next_ + keys_.domain() - 1 - Below(3)) % keys_.domain();
            return next_;
        case Pattern::Neighbour:
            return (next_ + Below(40)) % keys_.domain();
        default:
            return Below(keys_.domain());
        }
    }

    void Change()
    {
        const bool insert = Below(100) < insertPercent_ || model_.keys().empty();
        const bool kept = insert ? InsertOne() : DeleteOne();
        if (kept && ++inGroup_ < groupSize_)
            return;
        if (!kept || Below(50) == 0)
            Backout();
        else
            Commit();
    }

    // False: the operation failed in the tree, and its caller backs out.
    bool InsertOne()
    {
        const ModelKey key = keys_.At(Rank(pattern_));
        const uint32_t offset = Below(0x7FFFFFFF);
        const bool possible = model_.keys().find(key) == model_.keys().end();
        const bool inserted = index_.Insert(key.id, key.value, offset);
        if (!possible) {
            EXPECT_FALSE(inserted) << "a key entered twice";
            EXPECT_EQ(index_.cursor()->result, INDX_RESULT_FOUND);
            return true; // refused before anything was changed
        }
        if (!inserted)
            return Refused();
        model_.Insert(key, offset);
        ++done_;
        Invalidate();
        return true;
    }

    bool DeleteOne()
    {
        ModelKey key = KeyToDelete();
        if (Below(20) == 0)
            key.id ^= 0x40; // another record's id: not there, or refused
        const bool possible = model_.Holds(key);
        const bool deleted = index_.Delete(key.id, key.value);
        if (!possible) {
            EXPECT_FALSE(deleted) << "a key was deleted that is not there";
            EXPECT_EQ(index_.cursor()->result, INDX_RESULT_NOT_FOUND);
            return true;
        }
        Invalidate(); // whatever the result
        if (!deleted)
            return Refused();
        model_.Delete(key);
        ++done_;
        return true;
    }

    ModelKey KeyToDelete()
    {
        const auto& keys = model_.keys();
        if (deletePattern_ == Pattern::Ascending)
            return keys.begin()->first;
        if (deletePattern_ == Pattern::Descending)
            return std::prev(keys.end())->first;
        auto at = keys.lower_bound(keys_.At(Rank(deletePattern_)));
        return at == keys.end() ? keys.begin()->first : at->first;
    }

    // Only keys above 8152 bytes may find no room.
    bool Refused()
    {
        EXPECT_EQ(case_.lengths, Lengths::Longest) << "an operation failed that had to succeed";
        ++refused_;
        return false;
    }

    void Invalidate()
    {
        for (CursorModel& cursor : models_)
            cursor.Invalidate();
    }

    void Commit()
    {
        EXPECT_TRUE(index_.Update());
        model_.Commit();
        inGroup_ = 0;
        maxLevels_ = std::max(maxLevels_, index_.field()->levels);
    }

    void Backout()
    {
        const bool changed = model_.HasUncommitted();
        index_.Backout();
        model_.Backout();
        inGroup_ = 0;
        // A cursor that was moved in the group may stand in a node that has gone.
        for (size_t i = 0; changed && i < cursors_.size(); ++i) {
            IndxCursorBOI(cursors_[i]);
            models_[i].Beginning();
        }
    }

    void MoveACursor()
    {
        const size_t which = Below(cursors_.size());
        IndxCursor* pCursor = cursors_[which];
        CursorModel& model = models_[which];
        const char* move = "";
        int32_t code = 0;
        int32_t expected = 0;
        switch (Below(16)) {
        case 0:
            move = "First", code = IndxFirstKey(pCursor), expected = model.First();
            break;
        case 1:
            move = "Last", code = IndxLastKey(pCursor), expected = model.Last();
            break;
        case 2:
            move = "Current", code = IndxCurrentKey(pCursor), expected = model.Current();
            break;
        case 3:
            move = "BOI", IndxCursorBOI(pCursor), model.Beginning();
            break;
        case 4:
            move = "EOI", IndxCursorEOI(pCursor), model.End();
            break;
        case 5:
        case 6:
        case 7:
            if (!CanFind(&found_))
                return;
            move = "Find", code = index_.Find(pCursor, found_.id, found_.value);
            expected = model.Find(found_.id, found_.value);
            break;
        case 8:
        case 9:
        case 10:
            move = "Previous", code = IndxPreviousKey(pCursor), expected = model.Previous();
            break;
        case 11:
        case 12:
            // An index of ids has no matching keys: asking for one ends the process.
            if (case_.keyType == INDX_KEY_RECORD_ID && !case_.unique)
                return;
            move = "NextMatching", code = IndxNextMatchingKey(pCursor);
            expected = model.NextMatching();
            break;
        default:
            move = "Next", code = IndxNextKey(pCursor), expected = model.Next();
            break;
        }
        EXPECT_EQ(code, expected) << move << " after " << done_ << " operations";
        EXPECT_TRUE(model.Equals(pCursor)) << move << " after " << done_ << " operations";
    }

    // A key for IndxFindKey, there or not, with its id or any: texts that are not empty.
    bool CanFind(ModelKey* pKey)
    {
        *pKey = keys_.At(Rank(Pattern::Random));
        const auto near = model_.keys().lower_bound(*pKey);
        if (Below(2) && near != model_.keys().end())
            *pKey = near->first;
        if (Below(3) == 0)
            pKey->id = 0;
        const bool text = case_.keyType == INDX_KEY_TEXT || case_.keyType == INDX_KEY_TEXT_NO_CASE;
        return !text || (pKey->value.bytes[0] != '\0' && strlen(pKey->value.bytes.c_str()) < 8168);
    }

    void Check()
    {
        if (inGroup_)
            Commit();
        const TreeReport report = CheckTable(index_.table());
        EXPECT_TRUE(report.problems.empty()) << report.text();
        EXPECT_TRUE(model_.Equals(report.indexes.at(0))) << "after " << done_ << " operations";
        for (size_t i = 0; i < cursors_.size(); ++i)
            EXPECT_TRUE(models_[i].Equals(cursors_[i]));
    }

    void OpenCursors()
    {
        cursors_.clear();
        for (CursorModel& model : models_) {
            cursors_.push_back(index_.OpenCursor());
            IndxCursorBOI(cursors_.back());
            model.Beginning();
        }
    }

    void Reopen()
    {
        if (inGroup_)
            Commit();
        index_.Reopen();
        OpenCursors();
    }

    void FindEverything()
    {
        for (const auto& [key, offset] : model_.keys()) {
            ASSERT_TRUE(index_.FindExactly(key.id, key.value));
            ASSERT_EQ(CursorOffset(index_.cursor()), offset);
        }
    }

    const ModelCase& case_;
    std::mt19937_64 random_;
    KeySource keys_;
    TreeModel model_;
    QuietTrace quiet_;
    TemporaryDirectory directory_;
    IndexFixture index_;
    std::vector<CursorModel> models_;
    std::vector<IndxCursor*> cursors_;
    Pattern pattern_ = Pattern::Random;
    Pattern deletePattern_ = Pattern::Random;
    uint32_t insertPercent_ = 90;
    uint32_t phaseLength_ = 0;
    uint32_t groupSize_ = 1;
    uint32_t inGroup_ = 0;
    uint32_t next_ = 0;
    uint64_t done_ = 0;
    uint64_t refused_ = 0;
    int32_t maxLevels_ = 0;
    ModelKey found_;
};

class TreeAgainstModel : public testing::TestWithParam<ModelCase> {};

TEST_P(TreeAgainstModel, HoldsWhatTheMapHolds)
{
    const ModelCase& c = GetParam();
    const uint64_t all = ModelOperations();
    ModelRun(c, TestSeed()).Run(std::max<uint64_t>(all * c.share / 1000, 100));
}

const ModelCase CASES[] = {
    {"RecordId", INDX_KEY_RECORD_ID, false, Lengths::Short, 80, 8000},
    {"RecordIdUnique", INDX_KEY_RECORD_ID, true, Lengths::Short, 60, 3000},
    {"Integer", INDX_KEY_INTEGER, false, Lengths::Short, 80, 8000},
    {"IntegerUnique", INDX_KEY_INTEGER, true, Lengths::Short, 80, 3000},
    {"Int64", INDX_KEY_INT64, false, Lengths::Short, 80, 8000},
    {"Int64Unique", INDX_KEY_INT64, true, Lengths::Short, 60, 3000},
    {"UniqueId", INDX_KEY_UNIQUE_ID, false, Lengths::Short, 80, 6000},
    {"UniqueIdUnique", INDX_KEY_UNIQUE_ID, true, Lengths::Short, 80, 3000},
    {"Text", INDX_KEY_TEXT, false, Lengths::Short, 80, 6000},
    {"TextUnique", INDX_KEY_TEXT, true, Lengths::Short, 60, 3000},
    {"TextNoCase", INDX_KEY_TEXT_NO_CASE, false, Lengths::Short, 60, 3000},
    {"TextNoCaseUnique", INDX_KEY_TEXT_NO_CASE, true, Lengths::Short, 60, 6000},
    {"MiddleText", INDX_KEY_TEXT, false, Lengths::Middle, 30, 3000},
    {"MiddleTextNoCaseUnique", INDX_KEY_TEXT_NO_CASE, true, Lengths::Middle, 30, 3000},
    {"HalfNodeText", INDX_KEY_TEXT, false, Lengths::NearHalf, 20, 1500},
    {"HalfNodeTextUnique", INDX_KEY_TEXT, true, Lengths::NearHalf, 20, 3000},
    {"LongestText", INDX_KEY_TEXT, true, Lengths::Longest, 20, 150},
    {"LongestTextNoCase", INDX_KEY_TEXT_NO_CASE, false, Lengths::Longest, 20, 150},
};

// ---- many indexes in one file ------------------------------------------------------------------

// Records with a key in each of seven trees that share one block file. Two of them are unique: a
// record that one of them refuses is backed out of all, whatever the others had split.
TEST(TreeAgainstModelMany, SevenIndexesOfOneFileHoldTheSameRecords)
{
    const uint64_t all = ModelOperations();
    const uint64_t operations = std::max<uint64_t>(all / 40, 200);
    std::mt19937_64 random(TestSeed());
    const auto Below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    const std::vector<IndexSpec> specs = {{INDX_KEY_RECORD_ID},  {INDX_KEY_INTEGER},
                                          {INDX_KEY_TEXT, true}, {INDX_KEY_INT64},
                                          {INDX_KEY_UNIQUE_ID},  {INDX_KEY_TEXT_NO_CASE, true},
                                          {INDX_KEY_TEXT}};
    const QuietTrace quiet;
    const TemporaryDirectory directory;
    IndexFixture index(directory.path("many"), specs);
    std::vector<TreeModel> models;
    for (const IndexSpec& spec : specs)
        models.emplace_back(spec.keyType, spec.unique);
    std::map<uint32_t, std::pair<std::vector<Key>, uint32_t>> records;

    const auto names = static_cast<uint32_t>(2 * operations); // few enough that some meet
    const auto NewKeys = [&] {
        const std::string name = std::to_string(Below(names));
        return std::vector<Key>{
            {},
            NumberKey(Below(1000)),
            TextKey(name),
            NumberKey(static_cast<int64_t>(random())),
            BytesKey((std::to_string(Below(500)) + std::string(32, 'u')).substr(0, 32)),
            SizedKey(std::to_string(Below(names)) + ";", 16 + Below(Below(20) ? 200 : 5000)),
            SizedKey(name, Below(10) ? 30 : 4000)};
    };
    const auto Check = [&] {
        const TreeReport report = CheckTable(index.table());
        ASSERT_TRUE(report.problems.empty()) << report.text();
        for (size_t i = 0; i < specs.size(); ++i)
            ASSERT_TRUE(models[i].Equals(report.indexes[i])) << "index " << i;
    };
    uint32_t nextId = 1;
    uint64_t refused = 0;
    for (uint64_t done = 0; done < operations && !testing::Test::HasFailure(); ++done) {
        if (Below(100) < (done / (operations / 4 + 1) % 2 ? 35u : 70u) || records.empty()) {
            const uint32_t id = nextId++; // an id that fails is not used again
            const std::vector<Key> keys = NewKeys();
            bool possible = true;
            for (size_t i = 0; i < specs.size(); ++i)
                possible = possible && !models[i].keys().count({keys[i], id});
            ASSERT_EQ(index.InsertAll(id, keys, 16 * id), possible);
            for (size_t i = 0; possible && i < specs.size(); ++i)
                models[i].Insert({keys[i], id}, 16 * id);
            if (possible)
                records[id] = {keys, 16 * id};
            refused += !possible;
            possible ? static_cast<void>(index.Update()) : index.Backout();
        } else {
            auto at = records.lower_bound(1 + Below(nextId));
            if (at == records.end())
                at = records.begin();
            ASSERT_TRUE(index.DeleteAll(at->first, at->second.first));
            if (Below(20) == 0) { // changed its mind
                index.Backout();
                continue;
            }
            index.Update();
            for (size_t i = 0; i < specs.size(); ++i)
                models[i].Delete({at->second.first[i], at->first});
            records.erase(at);
        }
        for (TreeModel& model : models)
            model.Commit();
        if (done % (operations / 20 + 1) == 0)
            Check();
        if (done % (operations / 10 + 1) == 0)
            index.Reopen();
    }
    Check();
    std::cout << operations << " records added or deleted, " << refused << " refused, "
              << records.size() << " at the end\n";
    EXPECT_GT(refused, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Tree, TreeAgainstModel, testing::ValuesIn(CASES),
    [](const testing::TestParamInfo<ModelCase>& which) { return std::string(which.param.name); });

} // namespace
