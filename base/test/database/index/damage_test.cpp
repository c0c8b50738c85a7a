// damage_test.cpp: trees whose bytes were damaged on disk. What an operation cannot believe ends
// it: a search with "not found", a move with "no key in that direction", both with last error 13
// and a failure trace; an insertion or deletion with FALSE. Nothing is read or written outside a
// node, nothing runs for ever, and a back-out leaves the file as it was.

#include "support/tree_test.h"

#include <random>

#include "database/block.h"
#include "support/effort.h"
#include "support/file_bytes.h"
#include "support/seed.h"

namespace {

// Node words, by hand.
constexpr uint32_t PARENT = 0;
constexpr uint32_t NEXT = 4;
constexpr uint32_t PREVIOUS = 8;
constexpr uint32_t LEAF = 12;
constexpr uint32_t HEAP = 16;
constexpr uint32_t COUNT = 20;
constexpr uint32_t Length(uint32_t entry)
{
    return 32 + 24 * entry + 8;
}
constexpr uint32_t HeapOffset(uint32_t entry)
{
    return 32 + 24 * entry + 12;
}
constexpr uint32_t Pointer(uint32_t entry)
{
    return 32 + 24 * entry + 16;
}

// Keys 1 to KEYS, eight of which fill a node: a root, branches, leaves.
constexpr uint32_t KEYS = 200;
Key Name(uint32_t n, size_t size = 2020)
{
    char start[8];
    snprintf(start, sizeof start, "%05u", n);
    return SizedKey(start, size);
}

class TreeDamage : public TreeTest {
  protected:
    void SetUp() override
    {
        TreeTest::SetUp();
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        for (uint32_t n = 1; n <= KEYS; ++n)
            ASSERT_TRUE(index.Add(n, Name(2 * n), n));
        const IndexReport report = CheckTable(index.table()).indexes.at(0);
        ASSERT_EQ(report.perLevel, (std::vector<uint32_t>{1, 4, 25}));
        root_ = report.nodes[0];
        branches_ = {report.nodes.begin() + 1, report.nodes.begin() + 5};
        leaves_ = {report.nodes.begin() + 5, report.nodes.end()};
        roots_ = index.field()->roots;
        index.Close();
        good_ = ReadFileBytes(path());
    }

    // Opens the file with one word of a node overwritten. What was opened before is closed first:
    // not every system lets others write to a file that is read in place.
    std::unique_ptr<IndexFixture> Open(uint32_t tNode, uint32_t offset, uint32_t value)
    {
        std::string bytes = good_;
        PutU32At(bytes, (size_t{tNode} + 1) * 16384 + offset, value);
        return Open(bytes);
    }
    std::unique_ptr<IndexFixture> Open(const std::string& bytes)
    {
        WriteFileBytes(path(), bytes);
        auto index =
            std::make_unique<IndexFixture>(path(), std::vector<IndexSpec>{{INDX_KEY_TEXT}});
        index->field()->roots = roots_;
        index->field()->levels = 3;
        IndxCommitRoots(index->table());
        IndxSetError(0);
        return index;
    }
    // The ordinary outcomes of an operation that met damage.
    static void NotFound(IndexFixture& index, uint32_t n)
    {
        IndxSetError(0);
        TraceRecorder trace;
        EXPECT_EQ(index.Find(0, Name(n)), INDX_RESULT_NOT_FOUND);
        EXPECT_EQ(index.cursor()->status, INDX_AT_END);
        EXPECT_EQ(index.cursor()->oKey, nullptr);
        EXPECT_EQ(IndxError(), 13u);
        EXPECT_TRUE(trace.hasPart("Cannot use node")) << trace.dump();
    }
    static void NoKey(int32_t (*move)(void*), IndexFixture& index, int32_t status)
    {
        IndxSetError(0);
        TraceRecorder trace;
        EXPECT_EQ(move(index.cursor()), INDX_RESULT_NO_KEY);
        EXPECT_EQ(index.cursor()->status, status);
        EXPECT_EQ(index.cursor()->oKey, nullptr);
        EXPECT_EQ(IndxError(), 13u);
        EXPECT_TRUE(trace.hasPart("Cannot use node")) << trace.dump();
    }
    void Refuses(IndexFixture& index, bool insert, uint32_t n, size_t size = 2020)
    {
        const std::string before = ReadFileBytes(path());
        IndxSetError(0);
        TraceRecorder trace;
        if (insert) {
            EXPECT_FALSE(index.Insert(9000, Name(n, size)));
            EXPECT_TRUE(trace.has(TAG, 1, -1, "Could not modify index")) << trace.dump();
        } else {
            EXPECT_FALSE(index.Delete(n / 2, Name(n)));
        }
        EXPECT_GE(trace.countLevel(-1), 1u) << "no failure was traced";
        EXPECT_EQ(IndxError(), 13u);
        index.Backout();
        EXPECT_EQ(ReadFileBytes(path()), before);
    }

    uint32_t root_ = 0;
    std::vector<uint32_t> branches_;
    std::vector<uint32_t> leaves_;
    IndxRoots roots_ = {};
    std::string good_;
};

// ---- nodes that are none -----------------------------------------------------------------------

TEST_F(TreeDamage, ANodeThatIsNoneEndsFindsMovesAndChanges)
{
    const struct {
        uint32_t offset, value;
    } cases[] = {{COUNT, 0xFFFFFFFF}, {COUNT, 682},           {COUNT, 0x7FFFFFFF},
                 {LEAF, 2},           {LEAF, 0xFFFFFFFF},     {HEAP, 0},
                 {HEAP, 0x1001},      {HeapOffset(7), 16385}, {HeapOffset(7), 0xFFFFFFFF}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.offset) + " = " + std::to_string(c.value));
        // Leaf 3 holds the keys 25 to 32.
        auto index = Open(leaves_[3], c.offset, c.value);
        {
            TraceRecorder trace;
            EXPECT_EQ(index->Find(0, Name(54)), INDX_RESULT_NOT_FOUND);
            EXPECT_TRUE(trace.has(
                TAG, 0, -1,
                "Node " + std::to_string(leaves_[3]) +
                    " of field 'F0' of table 'Fixture' is damaged"))
                << trace.dump();
        }
        NotFound(*index, 2 * 27);
        Refuses(*index, true, 2 * 27 + 1);
        Refuses(*index, false, 2 * 27);
        ASSERT_EQ(index->Find(24, Name(48)), INDX_RESULT_FOUND); // the leaf before it is sound
        NoKey(IndxNextKey, *index, INDX_AT_END);
        ASSERT_EQ(index->Find(33, Name(66)), INDX_RESULT_FOUND); // and the one behind it
        NoKey(IndxPreviousKey, *index, INDX_AT_BEGINNING);
        ASSERT_EQ(index->Find(24, Name(48)), INDX_RESULT_FOUND);
        NoKey(IndxNextMatchingKey, *index, INDX_AT_END);
        // A miss at the end of the leaf before it goes there, too.
        NotFound(*index, 49);
    }
}

TEST_F(TreeDamage, ADamagedRootOrEndLeafEndsEverything)
{
    {
        auto index = Open(root_, COUNT, 0x80000000);
        NotFound(*index, 10);
        Refuses(*index, true, 11);
        Refuses(*index, false, 10);
    }
    {
        auto index = Open(leaves_[0], COUNT, 1000);
        NoKey(IndxFirstKey, *index, INDX_AT_END);
        IndxCursorBOI(index->cursor());
        NoKey(IndxNextKey, *index, INDX_AT_END);
    }
    {
        auto index = Open(leaves_.back(), COUNT, 1000);
        NoKey(IndxLastKey, *index, INDX_AT_BEGINNING);
        IndxCursorEOI(index->cursor());
        NoKey(IndxPreviousKey, *index, INDX_AT_BEGINNING);
    }
}

TEST_F(TreeDamage, AnEmptyLeafOrBranchInTheTreeIsNoEndOfTheIndex)
{
    auto index = Open(leaves_[3], COUNT, 0);
    ASSERT_EQ(index->Find(24, Name(48)), INDX_RESULT_FOUND);
    NoKey(IndxNextKey, *index, INDX_AT_END);
    index.reset();
    index = Open(leaves_[0], COUNT, 0);
    NoKey(IndxFirstKey, *index, INDX_AT_END);
    index.reset();
    index = Open(branches_[1], COUNT, 0);
    NotFound(*index, 2 * 70);
    Refuses(*index, true, 2 * 70 + 1);
}

TEST_F(TreeDamage, ALeafTakenForABranchAndABranchForALeafEndInAnOrdinaryFailure)
{
    auto index = Open(leaves_[3], LEAF, 0); // record offsets become child ids
    IndxSetError(0);
    index->Find(0, Name(54));
    index->Delete(27, Name(54));
    index->Insert(9000, Name(55));
    index->Backout();
    index.reset();
    index = Open(branches_[1], LEAF, 1);
    EXPECT_NE(index->Find(70, Name(141)), INDX_RESULT_FOUND);
    index->Delete(70, Name(140));
    index->Insert(9000, Name(141));
    index->Backout();
}

// ---- values ------------------------------------------------------------------------------------

TEST_F(TreeDamage, AValueOutsideTheHeapIsNotCompared)
{
    for (const auto& [offset, value] :
         {std::pair{Length(3), 0xFFFFFFFFu},
          {Length(3), 0x7FFFFFFFu},
          {Length(3), 8081u},
          {HeapOffset(3), 0xFFFFFFFFu},
          {HeapOffset(3), 16385u},
          {HeapOffset(3), 0u},
          {HeapOffset(3), 0x80000000u}}) {
        SCOPED_TRACE(std::to_string(offset) + " = " + std::to_string(value));
        auto index = Open(leaves_[3], offset, value); // entry 3 of 8: the middle is looked at first
        NotFound(*index, 2 * 27);
        Refuses(*index, true, 2 * 27 + 1);
        Refuses(*index, false, 2 * 27);
        ASSERT_EQ(index->Find(24, Name(48)), INDX_RESULT_FOUND);
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(IndxNextKey(index->cursor()), INDX_RESULT_FOUND);
        NoKey(IndxNextKey, *index, INDX_AT_END); // the copy of the key cannot be made
    }
}

TEST_F(TreeDamage, HeapOffsetsThatAreNoRunningSumsAreNotMoved)
{
    // Each value lies in the heap, but the entries contradict each other.
    const auto RefusesEntry = [&](IndexFixture& index, int32_t position) {
        IndxSetError(0);
        TraceRecorder trace;
        EXPECT_EQ(IndxDeleteKeyFromNode(index.cursor(), leaves_[3], position), 0u) << position;
        EXPECT_TRUE(trace.has(TAG, 1, 0, "Failed to delete key from node")) << trace.dump();
        EXPECT_EQ(IndxError(), 13u);
        index.Backout();
    };
    auto index = Open(leaves_[3], HeapOffset(5), 2020 * 6 + 100);
    for (const int32_t position : {0, 3, 5, 6}) // the run behind it is moved, or it is the run
        RefusesEntry(*index, position);
    // The entry before the last: without the last one it would say where the heap ends.
    for (const uint32_t value : {2020u * 8 - 1, 0x7FFFFF00u, 0u, 16353u}) {
        index.reset();
        index = Open(leaves_[3], HeapOffset(6), value);
        RefusesEntry(*index, 7);
        RefusesEntry(*index, 6);
    }
    // A split at the end of the node moves nothing, and is right.
    index.reset();
    index = Open(leaves_.back(), HeapOffset(2), 2020 * 3 + 7);
    EXPECT_TRUE(index->Insert(9000, Name(401)));
    index->Backout();
}

TEST_F(TreeDamage, ANodeIsNotSplitBehindAnEntryWhoseHeapPassesItsEnd)
{
    // The second entry of a full branch, which no search for the last key compares, claims to lead
    // to the last leaf: splitting that leaf splits the branch behind this entry.
    std::string bytes = good_;
    const size_t branch = (size_t{branches_[0]} + 1) * 16384;
    PutU32At(bytes, branch + Pointer(1), leaves_[7]);
    PutU32At(bytes, branch + HeapOffset(1), 16340);
    auto index = Open(bytes);
    TraceRecorder trace;
    Refuses(*index, true, 127);
    index.reset();
    index = Open(good_);
    EXPECT_TRUE(index->Insert(9000, Name(127)));
    index->Backout();
}

TEST_F(TreeDamage, EveryHeapOffsetOverwrittenWithEveryLimitIsRefusedOrHarmless)
{
    const uint32_t values[] = {0,          1,          23,         16351,      16352,
                               16353,      16384,      16385,      0x7FFFFFFF, 0x80000000,
                               0x80004000, 0xFFFFC000, 0xFFFFFF00, 0xFFFFFFFF};
    for (uint32_t entry = 0; entry < 8; ++entry) {
        for (const uint32_t value : values) {
            for (const uint32_t offset : {Length(entry), HeapOffset(entry)}) {
                for (const uint32_t tNode : {leaves_[3], branches_[0]}) {
                    IndexFixture* index = nullptr;
                    auto held = Open(tNode, offset, value);
                    index = held.get();
                    for (uint32_t n = 24; n <= 33; ++n) {
                        index->Find(0, Name(2 * n));
                        index->Delete(n, Name(2 * n));
                        index->Backout();
                        index->Insert(9000, Name(2 * n + 1, n % 2 ? 30 : 6000));
                        index->Backout();
                    }
                }
            }
        }
    }
}

// ---- children and parents ----------------------------------------------------------------------

TEST_F(TreeDamage, AChildThatIsNoneOrLeadsUpAgainEndsTheDescent)
{
    for (const uint32_t value :
         {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 30u, 1000u, root_, branches_[0], branches_[1]}) {
        SCOPED_TRACE(value);
        auto index = Open(branches_[0], Pointer(3), value);
        if (value == branches_[1]) { // a level too deep, but a tree: simply not found
            EXPECT_EQ(index->Find(27, Name(54)), INDX_RESULT_NOT_FOUND);
            continue;
        }
        NotFound(*index, 54);
        Refuses(*index, true, 55);
        Refuses(*index, false, 54);
        EXPECT_EQ(index->Find(70, Name(140)), INDX_RESULT_FOUND);
    }
}

TEST_F(TreeDamage, ARingOfChildrenEndsAfterNoMoreStepsThanTheFileHasBlocks)
{
    std::string bytes = good_;
    const auto Put = [&](uint32_t tNode, uint32_t offset, uint32_t value) {
        PutU32At(bytes, (size_t{tNode} + 1) * 16384 + offset, value);
    };
    for (uint32_t entry = 0; entry < 8; ++entry)
        Put(branches_[0], Pointer(entry), branches_[1]);
    for (uint32_t entry = 0; entry < 8; ++entry)
        Put(branches_[1], Pointer(entry), branches_[0]);
    auto index = Open(bytes);
    TraceRecorder trace;
    NotFound(*index, 54);
    EXPECT_LE(trace.count("IndxReleaseNode"), 100u);
    Refuses(*index, true, 55);
    Refuses(*index, false, 54);
}

TEST_F(TreeDamage, AWrongParentFailsWhatHasToGoUpAndNothingElse)
{
    for (const uint32_t value :
         {0xFFFFFFFFu, 0x80000000u, 999u, root_, leaves_[3], leaves_[4], branches_[1],
          branches_[2]}) {
        SCOPED_TRACE(value);
        auto index = Open(leaves_[3], PARENT, value);
        EXPECT_EQ(index->Find(27, Name(54)), INDX_RESULT_FOUND);
        Refuses(*index, false, 50); // entry 0: the parent must be re-keyed
        Refuses(*index, true, 55);  // the leaf is full: its new neighbour needs an entry
        EXPECT_TRUE(index->Delete(27, Name(54))); // stays in the leaf
        index->Backout();
    }
}

TEST_F(TreeDamage, ALeafThatLostItsParentDoesNotEmptyTheIndexOrMakeANewRoot)
{
    auto index = Open(leaves_[3], PARENT, 0xFFFFFFFF);
    for (uint32_t n = 32; n > 25; --n)
        ASSERT_TRUE(index->Remove(n, Name(2 * n)));
    Refuses(*index, false, 50);
    EXPECT_EQ(index->field()->roots.tRoot, root_);
    EXPECT_EQ(index->Find(70, Name(140)), INDX_RESULT_FOUND);
}

TEST_F(TreeDamage, AChildThatBelongsToAnotherParentIsNotTakenAway)
{
    // The branch's last entry leads to a leaf of another branch; a split must not move that leaf.
    auto index = Open(branches_[0], Pointer(7), leaves_[20]);
    Refuses(*index, true, 9, 2020); // splits leaf 0, then the full branch
    EXPECT_EQ(index->Find(164, Name(2 * 164)), INDX_RESULT_FOUND);
}

// ---- neighbours --------------------------------------------------------------------------------

TEST_F(TreeDamage, ANeighbourThatDoesNotLinkBackIsNotEntered)
{
    for (const uint32_t value :
         {0xFFFFFFFFu, 0x80000000u, 999u, root_, branches_[0], leaves_[3], leaves_[2],
          leaves_[9]}) {
        SCOPED_TRACE(value);
        auto index = Open(leaves_[3], NEXT, value);
        ASSERT_EQ(index->Find(32, Name(64)), INDX_RESULT_FOUND);
        NoKey(IndxNextKey, *index, INDX_AT_END);
        NotFound(*index, 65);
        Refuses(*index, true, 63); // the new neighbour would have to be linked in
        index.reset();
        index = Open(leaves_[3], PREVIOUS, value == leaves_[2] ? leaves_[4] : value);
        ASSERT_EQ(index->Find(25, Name(50)), INDX_RESULT_FOUND);
        NoKey(IndxPreviousKey, *index, INDX_AT_BEGINNING);
        Refuses(*index, true, 49);
    }
}

TEST_F(TreeDamage, ALinkThatEndsTooEarlyIsNotTakenForTheEndOfTheIndex)
{
    auto index = Open(leaves_[3], NEXT, 0xFFFFFFFF);
    IndxSetError(0);
    uint32_t keys = 0;
    for (int32_t code = IndxFirstKey(index->cursor()); code == INDX_RESULT_FOUND;
         code = IndxNextKey(index->cursor()))
        ++keys;
    EXPECT_EQ(keys, 32u);
    EXPECT_EQ(IndxError(), 13u);
    Refuses(*index, true, 63);
    EXPECT_EQ(index->field()->roots.tLastLeaf, leaves_.back());
    index.reset();
    index = Open(leaves_[0], PREVIOUS, leaves_[5]);
    NoKey(IndxFirstKey, *index, INDX_AT_END);
    index.reset();
    index = Open(leaves_.back(), NEXT, leaves_[5]);
    NoKey(IndxLastKey, *index, INDX_AT_BEGINNING);
}

TEST_F(TreeDamage, AnEmptiedLeafWhoseNeighboursDoNotKnowItStays)
{
    for (const uint32_t link : {NEXT, PREVIOUS}) {
        auto index = Open(leaves_[3], link, leaves_[10]);
        for (uint32_t n = 32; n > 25; --n)
            ASSERT_TRUE(index->Remove(n, Name(2 * n)));
        Refuses(*index, false, 50);
        index.reset();
        index = Open(leaves_[3], link, 0xFFFFFFFF);
        for (uint32_t n = 32; n > 25; --n)
            ASSERT_TRUE(index->Remove(n, Name(2 * n)));
        Refuses(*index, false, 50);
        EXPECT_EQ(index->field()->roots.tFirstLeaf, leaves_[0]);
        EXPECT_EQ(index->field()->roots.tLastLeaf, leaves_.back());
    }
}

TEST_F(TreeDamage, AFileCutShortReadsAsZerosWhichAreNoNodes)
{
    for (const uint32_t blocks : {0u, 1u, 5u, 20u}) {
        auto index = Open(good_.substr(0, 16384 + size_t{blocks} * 16384));
        for (uint32_t n = 1; n <= KEYS; ++n) {
            index->Find(n, Name(2 * n));
            index->Delete(n, Name(2 * n));
            index->Insert(9000 + n, Name(2 * n + 1));
            index->Backout();
        }
        IndxFirstKey(index->cursor());
        IndxLastKey(index->cursor());
    }
}

// ---- anything anywhere -------------------------------------------------------------------------

class TreeFuzz : public TreeTest {
  protected:
    TreeFuzz() : random_(TestSeed()) {}
    uint32_t Below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

    // A word that is likely to lead somewhere.
    uint32_t BadWord(uint32_t blocks)
    {
        const uint32_t limits[] = {0,          1,          2,          0xFFFFFFFF, 0x7FFFFFFF,
                                   0x80000000, 681,        682,        16352,      16353,
                                   16384,      0xFFFFC000, 0x80004000, 24,         blocks};
        switch (Below(4)) {
        case 0:
            return limits[Below(15)];
        case 1:
            return Below(blocks + 2);
        case 2:
            return Below(17000);
        default:
            return static_cast<uint32_t>(random_());
        }
    }

    // Overwrites a few words of blocks in memory, as if they had been read like that.
    void Spoil(IndexFixture& index, uint32_t blocks)
    {
        for (uint32_t i = 1 + Below(6); i > 0; --i) {
            void* pData = nullptr;
            if (!BlckGetBlock(&pData, index.block(), static_cast<int32_t>(Below(blocks))))
                continue;
            auto* bytes = static_cast<uint8_t*>(pData);
            const uint32_t offset = Below(2)   ? 4 * Below(6)
                                    : Below(3) ? 32 + 4 * Below(6 * 60)
                                               : 4 * Below(4096);
            uint32_t word = BadWord(blocks);
            if (Below(4) == 0) // one bit
                memcpy(&word, bytes + offset, 4), word ^= 1u << Below(32);
            memcpy(bytes + offset, &word, 4);
        }
    }

    void Operate(IndexFixture& index, const std::function<Key(uint32_t)>& key, uint32_t range)
    {
        const uint32_t n = Below(range);
        switch (Below(8)) {
        case 0:
        case 1:
            if (index.Find(Below(2) ? n : 0, key(n)) == INDX_RESULT_FOUND) {
                EXPECT_NE(index.cursor()->oKey, nullptr);
            }
            break;
        case 2: { // walks go on for as long as a host would let them
            const auto move = Below(2) ? IndxNextKey : IndxPreviousKey;
            for (uint32_t i = 0; i < 200 && move(index.cursor()) == INDX_RESULT_FOUND; ++i)
                ASSERT_NE(index.cursor()->oKey, nullptr);
            break;
        }
        case 3:
            Below(2) ? IndxFirstKey(index.cursor()) : IndxLastKey(index.cursor());
            break;
        case 4:
            IndxNextMatchingKey(index.cursor());
            IndxCurrentKey(index.cursor());
            break;
        case 5:
        case 6:
            index.Insert(n, key(n));
            break;
        default:
            index.Delete(n, key(n));
            break;
        }
    }

    void Fuzz(
        const IndexSpec& spec, const std::function<Key(uint32_t)>& key, uint32_t keys,
        uint32_t rounds)
    {
        IndexFixture index(path(), {spec});
        for (uint32_t i = 0; i < keys; ++i) {
            const uint32_t n = 2 * (i * 7919 % keys);
            ASSERT_TRUE(index.Insert(n, key(n)));
            if (i % 16 == 15)
                index.Update();
        }
        index.Update();
        ASSERT_TRUE(SoundTable(index.table()));
        const uint32_t blocks = CheckTable(index.table()).blocks;
        const std::vector<uint32_t> before = index.Walk();
        index.Backout();
        CrashRecorder crash;
        for (uint32_t round = 0; round < rounds && !HasFailure(); ++round) {
            Spoil(index, blocks);
            for (uint32_t i = 0; i < 60; ++i)
                Operate(index, key, 2 * keys);
            index.Backout(); // the damage was in memory only
            IndxCursorBOI(index.cursor());
            ASSERT_EQ(crash.count(), 0u);
            if (round % 500 == 499) {
                const TreeReport report = CheckTable(index.table());
                ASSERT_TRUE(report.problems.empty()) << report.text();
                ASSERT_EQ(index.Walk(), before);
                index.Backout();
            }
        }
        std::cout << blocks << " nodes, " << rounds * 60 << " operations\n";
    }

    const uint32_t rounds_ = RandomRounds(1500);
    std::mt19937_64 random_;
};

TEST_F(TreeFuzz, TextsOfMiddleLength)
{
    const auto key = [](uint32_t n) { return Name(n, 300 + n * 37 % 2500); };
    Fuzz({INDX_KEY_TEXT}, key, 1400, rounds_);
}

TEST_F(TreeFuzz, TextsNearHalfANode)
{
    const auto key = [](uint32_t n) { return Name(n, 7900 + n * 37 % 253); };
    Fuzz({INDX_KEY_TEXT_NO_CASE, true}, key, 150, rounds_ / 2);
}

TEST_F(TreeFuzz, IntegersAndIds)
{
    Fuzz(
        {INDX_KEY_INTEGER}, [](uint32_t n) { return NumberKey(n / 3); }, 60'000, rounds_);
    std::filesystem::remove(path());
    Fuzz(
        {INDX_KEY_RECORD_ID, true}, [](uint32_t) { return Key{}; }, 30'000, rounds_);
}

TEST_F(TreeFuzz, BinaryValues)
{
    const auto key = [](uint32_t n) {
        char text[40];
        snprintf(text, sizeof text, "%032u", n);
        return BytesKey(std::string(text, 32));
    };
    Fuzz({INDX_KEY_UNIQUE_ID}, key, 30'000, rounds_);
}

// The same with the damage in the file, and with every operation ended as its caller ends it.
TEST_F(TreeFuzz, DamageThatIsWrittenBackAndMetAgain)
{
    const auto key = [](uint32_t n) { return Name(n, 600 + n * 37 % 2000); };
    std::string good;
    IndxRoots roots = {};
    int32_t levels = 0;
    {
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        for (uint32_t i = 0; i < 800; ++i)
            ASSERT_TRUE(index.Add(2 * (i * 7919 % 800), key(2 * (i * 7919 % 800))));
        roots = index.field()->roots;
        levels = index.field()->levels;
        index.Close();
        good = ReadFileBytes(path());
    }
    const auto blocks = static_cast<uint32_t>(good.size() / 16384 - 1);
    CrashRecorder crash;
    for (uint32_t round = 0; round < rounds_ / 20 && !HasFailure(); ++round) {
        std::string bytes = good;
        for (uint32_t i = 1 + Below(10); i > 0; --i) {
            const size_t node = (size_t{Below(blocks)} + 1) * 16384;
            const uint32_t offset = Below(2) ? 4 * Below(6) : 32 + 4 * Below(6 * 20);
            PutU32At(bytes, node + offset, BadWord(blocks));
        }
        if (Below(4) == 0)
            PutU32At(bytes, 4 * Below(4) + 4, BadWord(blocks)); // and the control block
        WriteFileBytes(path(), bytes);
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        index.field()->roots = roots;
        index.field()->levels = levels;
        IndxCommitRoots(index.table());
        for (uint32_t i = 0; i < 200; ++i) {
            const uint32_t n = Below(1600);
            switch (Below(3)) {
            case 0:
                index.Add(n, key(n));
                break;
            case 1:
                index.Remove(n, key(n));
                break;
            default:
                index.Find(n, key(n));
                break;
            }
        }
        uint32_t steps = 0;
        for (int32_t code = IndxFirstKey(index.cursor());
             code == INDX_RESULT_FOUND && steps < 10'000; code = IndxNextKey(index.cursor()))
            ++steps;
        ASSERT_EQ(crash.count(), 0u);
        index.Close();
        std::filesystem::remove(path());
    }
}

} // namespace
