// insert_test.cpp: entering keys: room to the byte, where nodes split and which side takes the key,
// lowest keys on the way up, keys too long to fit, every message, and failures of every call.

#include "support/tree_test.h"

#include <cstring>

#include "database/block.h"
#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/file_calls.h"

namespace {

class Insert : public TreeTest {
  protected:
    // Entries of each leaf, first to last, read from the file.
    static std::vector<uint32_t> LeafCounts(const IndexFixture& index, size_t which = 0)
    {
        const IndexReport report = CheckTable(index.table()).indexes.at(which);
        const std::string bytes = ReadFileBytes(index.path());
        std::vector<uint32_t> counts;
        for (size_t i = report.nodes.size() - report.perLevel.back(); i < report.nodes.size(); ++i)
            counts.push_back(U32At(bytes, (size_t{report.nodes[i]} + 1) * 16384 + 20));
        return counts;
    }
    static std::vector<uint32_t> LevelCounts(const IndexFixture& index, size_t which = 0)
    {
        return CheckTable(index.table()).indexes.at(which).perLevel;
    }
    // A leaf of 681 integers 10, 20 ... 6810.
    static void FillLeaf(IndexFixture& index)
    {
        for (int i = 1; i <= 681; ++i)
            ASSERT_TRUE(index.Insert(static_cast<uint32_t>(i), NumberKey(10 * i)));
        index.Update();
        ASSERT_EQ(LeafCounts(index), std::vector<uint32_t>{681});
    }
};

using Counts = std::vector<uint32_t>;

// ---- where keys go -----------------------------------------------------------------------------

TEST_F(Insert, TheFirstKeyMakesATreeOfOneLeaf)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Insert(1, NumberKey(5), 77));
    const IndxField* f = index.field();
    EXPECT_EQ(f->roots.tRoot, 0u);
    EXPECT_EQ(f->roots.tFirstLeaf, 0u);
    EXPECT_EQ(f->roots.tLastLeaf, 0u);
    EXPECT_EQ(f->levels, 1);
    EXPECT_EQ(index.table()->bChanged, 1u);
    index.Update();
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, ADuplicateOfAUniqueKeyIsRefusedAndTheTreeUnchanged)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER, true}});
    for (int i = 1; i <= 1000; ++i)
        index.Insert(static_cast<uint32_t>(i), NumberKey(i));
    index.Update();
    const std::string before = ReadFileBytes(path());
    for (const int value : {1, 500, 682, 1000}) { // 682 also stands in the root
        TraceRecorder trace;
        index.cursor()->result = 0;
        EXPECT_FALSE(index.Insert(5000, NumberKey(value)));
        EXPECT_EQ(index.cursor()->result, INDX_RESULT_FOUND);
        EXPECT_TRUE(trace.has(TAG, 1, 0, "Key already exists")) << trace.dump();
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Could not modify index"));
        EXPECT_FALSE(trace.hasPart("IndxInvalidateCursors"));
    }
    FileCalls calls;
    index.Update();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_EQ(ReadFileBytes(path()), before);
    calls.clear();
    EXPECT_FALSE(index.Insert(5000, NumberKey(682)));
    EXPECT_EQ(calls.count(FILE_OP_READ), 1u); // the root was enough
    index.Update();
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, TheSameValueUnderTheSameIdIsRefusedInEveryIndex)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}, {INDX_KEY_RECORD_ID}});
    ASSERT_TRUE(index.Add(1, NumberKey(5)));
    EXPECT_FALSE(index.Add(1, NumberKey(5)));
    EXPECT_TRUE(index.Add(2, NumberKey(5)));
    ASSERT_TRUE(index.Add(1, {}, 0, 1));
    EXPECT_FALSE(index.Add(1, {}, 9, 1));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, ASmallestKeyForAFullFirstLeafGetsALeafOfItsOwn)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    FillLeaf(index);
    const uint32_t tOld = index.field()->roots.tFirstLeaf;
    TraceRecorder trace;
    ASSERT_TRUE(index.Add(1000, NumberKey(5)));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "IndxSplitLeft()"));
    EXPECT_FALSE(trace.has("IndxSplitRight()"));
    EXPECT_EQ(LeafCounts(index), (Counts{1, 681}));
    EXPECT_NE(index.field()->roots.tFirstLeaf, tOld);
    EXPECT_EQ(index.field()->roots.tLastLeaf, tOld);
    EXPECT_EQ(index.field()->levels, 2);
    EXPECT_TRUE(SoundTable(index.table()));
    // The same below a root that is there already.
    for (int i = 1; i <= 680; ++i)
        ASSERT_TRUE(index.Insert(static_cast<uint32_t>(2000 + i), NumberKey(5 - i)));
    ASSERT_TRUE(index.Add(5000, NumberKey(-700)));
    EXPECT_EQ(LeafCounts(index), (Counts{1, 681, 681}));
    EXPECT_EQ(index.field()->levels, 2);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, AGreatestKeyForAFullLastLeafGetsALeafOfItsOwn)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    FillLeaf(index);
    const uint32_t tOld = index.field()->roots.tLastLeaf;
    TraceRecorder trace;
    ASSERT_TRUE(index.Add(1000, NumberKey(9999)));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "IndxSplitRight()"));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "tNode 681 entries, tRightNode 1 entries")) << trace.dump();
    EXPECT_EQ(LeafCounts(index), (Counts{681, 1}));
    EXPECT_EQ(index.field()->roots.tFirstLeaf, tOld);
    EXPECT_NE(index.field()->roots.tLastLeaf, tOld);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, AscendingInsertionsLeaveFullNodesBehindThem)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}, {INDX_KEY_TEXT}});
    for (int i = 0; i < 681 * 3; ++i)
        ASSERT_TRUE(index.Insert(static_cast<uint32_t>(i + 1), NumberKey(i)));
    // Eight keys of 2020 bytes fill a node to the last byte, on every level.
    for (uint32_t i = 0; i < 8 * 8 * 8; ++i)
        ASSERT_TRUE(index.Insert(i + 1, SizedKey(std::to_string(1000 + i), 2020), 0, 1));
    index.Update();
    EXPECT_EQ(LeafCounts(index), Counts(3, 681));
    EXPECT_EQ(LeafCounts(index, 1), Counts(64, 8));
    EXPECT_EQ(LevelCounts(index, 1), (Counts{1, 8, 64}));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, DescendingInsertionsSplitToTheLeftAndLeaveFullNodesToo)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (int i = 0; i < 681 * 5; ++i)
        ASSERT_TRUE(index.Insert(static_cast<uint32_t>(i + 1), NumberKey(-i)));
    index.Update();
    EXPECT_EQ(LeafCounts(index), Counts(5, 681));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, ANodeSplitsAtTheInsertionPositionAndTheKeyGoesWhereMoreRoomIs)
{
    // 681 entries leave 8 bytes: at position 340 the left side keeps 8192 bytes of room and the
    // right one 8168; at 341 it is the other way round.
    const struct {
        int position;
        uint32_t left, right;
        bool keyLeft;
    } cases[] = {{1, 2, 680, true},      {339, 340, 342, true},  {340, 341, 341, true},
                 {341, 341, 341, false}, {342, 342, 340, false}, {680, 680, 2, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.position);
        IndexFixture index(directory_.path("p" + std::to_string(c.position)), {{INDX_KEY_INTEGER}});
        FillLeaf(index);
        ASSERT_TRUE(index.Add(5000, NumberKey(10 * c.position + 5)));
        EXPECT_EQ(LeafCounts(index), (Counts{c.left, c.right}));
        index.Find(5000, NumberKey(10 * c.position + 5));
        EXPECT_EQ(
            index.cursor()->tNode,
            c.keyLeft ? index.field()->roots.tFirstLeaf : index.field()->roots.tLastLeaf);
        EXPECT_EQ(index.cursor()->position, c.keyLeft ? static_cast<int32_t>(c.left) - 1 : 0);
        EXPECT_TRUE(SoundTable(index.table()));
    }
}

TEST_F(Insert, WithTheSameRoomOnBothSidesTheKeyGoesLeft)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(index.Add(1, SizedKey("a", 8152)));
    ASSERT_TRUE(index.Add(3, SizedKey("c", 8152)));
    ASSERT_EQ(LeafCounts(index), Counts{2});
    ASSERT_TRUE(index.Add(2, SizedKey("b", 1000)));
    EXPECT_EQ(LeafCounts(index), (Counts{2, 1}));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, AKeyThatFillsTheNodeToTheLastByteIsAddedAndOneByteMoreSplitsIt)
{
    // Two keys of 8000 bytes leave 304 bytes of room: an entry with 280 bytes of key.
    for (const size_t size : {280u, 281u}) {
        IndexFixture index(directory_.path("b" + std::to_string(size)), {{INDX_KEY_TEXT}});
        ASSERT_TRUE(index.Add(1, SizedKey("a", 8000)));
        ASSERT_TRUE(index.Add(2, SizedKey("b", 8000)));
        ASSERT_TRUE(index.Add(3, SizedKey("c", size)));
        EXPECT_EQ(LeafCounts(index), size == 280 ? Counts{3} : (Counts{2, 1}));
        EXPECT_TRUE(SoundTable(index.table()));
    }
}

TEST_F(Insert, SplittingAFullRootMakesARootOfTwoEntriesAndOneLevelMore)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    FillLeaf(index);
    index.table()->bChanged = FALSE;
    ASSERT_TRUE(index.Insert(1000, NumberKey(15)));
    EXPECT_EQ(index.table()->bChanged, 1u);
    index.Update();
    EXPECT_EQ(index.field()->levels, 2);
    const std::string bytes = ReadFileBytes(path());
    const size_t root = (size_t{index.field()->roots.tRoot} + 1) * 16384;
    EXPECT_EQ(U32At(bytes, root), 0xFFFFFFFFu);
    EXPECT_EQ(U32At(bytes, root + 12), 0u); // a branch
    EXPECT_EQ(U32At(bytes, root + 20), 2u);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Insert, ASmallestKeyOfALeafWithRoomIsWrittenIntoEveryAncestor)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    // Long keys make four levels out of a few leaves.
    for (uint32_t i = 0; i < 40; ++i)
        ASSERT_TRUE(
            index.Add(i + 1, SizedKey("m" + std::string(1, static_cast<char>('A' + i)), 5000)));
    ASSERT_GE(index.field()->levels, 4);
    ASSERT_TRUE(index.Remove(1, SizedKey("mA", 5000))); // makes room in the first leaf
    for (const char* key : {"c", "b", "a"}) {
        FileCalls calls;
        const uint32_t id = 100 + static_cast<uint32_t>(*key);
        ASSERT_TRUE(index.Insert(id, TextKey(key)));
        index.Update();
        EXPECT_GE(calls.count(FILE_OP_WRITE), static_cast<size_t>(index.field()->levels)) << key;
        EXPECT_TRUE(SoundTable(index.table())); // its branch entries are compared byte for byte
        EXPECT_EQ(index.Walk().front(), id);
    }
}

TEST_F(Insert, HeapOffsetsStayRunningSumsInBothNodesOfASplit)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}, {INDX_KEY_TEXT_NO_CASE}, {INDX_KEY_UNIQUE_ID}});
    uint32_t random = 99;
    for (uint32_t i = 1; i <= 3000; ++i) {
        random = random * 1664525 + 1013904223;
        const std::string text = std::to_string(random % 100000);
        ASSERT_TRUE(index.Insert(i, SizedKey(text, 8 + random % 300), 0, 0));
        ASSERT_TRUE(index.Insert(i, SizedKey(text, 8 + random % 900), 0, 1));
        ASSERT_TRUE(index.Insert(i, BytesKey(text + std::string(32, 'x')), 0, 2));
        index.Update();
        if (i % 250 == 0) {
            ASSERT_TRUE(SoundTable(index.table())) << i;
        }
    }
}

TEST_F(Insert, ARecordIdIndexHoldsIdsInOrder)
{
    IndexFixture index(path(), {{INDX_KEY_RECORD_ID}});
    for (uint32_t i = 0; i < 5000; ++i)
        ASSERT_TRUE(index.Insert(1 + i * 7919 % 5003, {}, i));
    index.Update();
    EXPECT_TRUE(SoundTable(index.table()));
    EXPECT_EQ(index.Walk().size(), 5000u);
}

// ---- keys too long to fit ----------------------------------------------------------------------

class InsertLongKeys : public Insert {
  protected:
    // Inserts and expects a clean refusal: the texts, and nothing changed after the back-out.
    void
    Refuse(IndexFixture& index, uint32_t id, const Key& key, const std::vector<std::string>& texts)
    {
        const std::string before = ReadFileBytes(index.path());
        const IndxRoots roots = index.field()->roots;
        const size_t lost = CheckTable(index.table()).lost.size();
        TraceRecorder trace;
        EXPECT_FALSE(index.Insert(id, key));
        for (const std::string& text : texts)
            EXPECT_TRUE(trace.has(TAG, 1, 0, text)) << text << "\n" << trace.dump();
        EXPECT_TRUE(trace.has(TAG, 1, 0, "Could not insert key into node"));
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Could not modify index"));
        index.Backout();
        EXPECT_EQ(memcmp(&index.field()->roots, &roots, sizeof roots), 0);
        EXPECT_EQ(ReadFileBytes(index.path()).substr(16384), before.substr(16384));
        EXPECT_GE(CheckTable(index.table()).lost.size(), lost);
        EXPECT_TRUE(SoundTable(index.table(), CheckTable(index.table()).lost.size()));
        EXPECT_NE(index.Find(id, key), INDX_RESULT_FOUND);
    }
};

TEST_F(InsertLongKeys, OneKeyOfTheGreatestLengthIsAccepted)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(index.Add(1, SizedKey("a", 8168)));
    EXPECT_EQ(index.Find(0, SizedKey("a", 8168)), INDX_RESULT_FOUND);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(InsertLongKeys, ANewRootThatCannotHoldItsTwoKeysIsRefused)
{
    IndexFixture right(directory_.path("right"), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(right.Add(1, SizedKey("a", 8168)));
    Refuse(right, 2, SizedKey("b", 8168), {"Failed to split right"});
    EXPECT_EQ(right.Walk(), Counts{1});
    IndexFixture left(directory_.path("left"), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(left.Add(2, SizedKey("b", 8168)));
    EXPECT_FALSE(left.Insert(1, SizedKey("a", 8168)));
    EXPECT_NE(left.field()->roots.tFirstLeaf, left.field()->roots.tLastLeaf);
    left.Backout(); // nothing was undone before
    Refuse(left, 1, SizedKey("a", 8168), {"Failed to split left"});
    EXPECT_EQ(left.Walk(), Counts{2});
    // What was refused leaves room for what fits.
    EXPECT_TRUE(left.Add(3, SizedKey("c", 8100)));
    EXPECT_TRUE(SoundTable(left.table(), CheckTable(left.table()).lost.size()));
}

TEST_F(InsertLongKeys, TwoLengthsUpToASumOf16304FitTogetherAndOneMoreDoesNot)
{
    for (const size_t second : {8136u, 8137u}) {
        IndexFixture index(directory_.path("s" + std::to_string(second)), {{INDX_KEY_TEXT}});
        ASSERT_TRUE(index.Add(1, SizedKey("a", 8168)));
        if (second == 8136) {
            ASSERT_TRUE(index.Add(2, SizedKey("b", second))); // in the leaf
            ASSERT_TRUE(index.Add(3, SizedKey("c", 5)));      // which then splits
            EXPECT_EQ(index.field()->levels, 2);
            EXPECT_TRUE(SoundTable(index.table()));
        } else {
            Refuse(index, 2, SizedKey("b", second), {"Failed to split right"});
        }
    }
    IndexFixture index(directory_.path("most"), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(index.Add(1, SizedKey("a", 8152)));
    Refuse(index, 2, SizedKey("b", 8153), {"Failed to split right"});
    ASSERT_TRUE(index.Add(2, SizedKey("b", 8152)));
    EXPECT_TRUE(SoundTable(index.table(), CheckTable(index.table()).lost.size()));
}

TEST_F(InsertLongKeys, ASplitWithRoomOnNeitherSideIsRefusedBeforeANodeIsMade)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(index.Add(1, SizedKey("a", 8152)));
    ASSERT_TRUE(index.Add(3, SizedKey("c", 8152)));
    for (const size_t size : {8153u, 8168u}) {
        TraceRecorder trace;
        Refuse(index, 2, SizedKey("b", size), {"Failed to split right"});
        EXPECT_FALSE(trace.hasPart("IndxNewNode"));
        index.cursor()->result = 77;
        EXPECT_FALSE(index.Add(2, SizedKey("b", size)));
        EXPECT_EQ(index.cursor()->result, 77); // only a key that exists sets one
    }
    EXPECT_EQ(CheckTable(index.table()).lost.size(), 0u);
    ASSERT_TRUE(index.Add(2, SizedKey("b", 8152)));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(InsertLongKeys, ABranchWithRoomOnNeitherSideIsRefusedToo)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    // The root holds "a" and "m", 8152 bytes each; the leaf of "a" is full up to "f".
    ASSERT_TRUE(index.Add(1, SizedKey("a", 8152)));
    ASSERT_TRUE(index.Add(2, SizedKey("m", 8152)));
    ASSERT_TRUE(index.Add(3, SizedKey("n", 8152)));
    ASSERT_TRUE(index.Add(4, SizedKey("b", 8100)));
    ASSERT_TRUE(SoundTable(index.table()));
    const std::vector<uint32_t> before = index.Walk();
    int refused = 0;
    for (const char* start : {"ab", "ac", "ad", "ae", "az", "c", "d", "l", "mm", "mn"}) {
        const uint32_t id = 100 + static_cast<uint32_t>(start[0]) * 10 + start[1] % 10;
        if (!index.Add(id, SizedKey(start, 8168)))
            ++refused;
        const TreeReport report = CheckTable(index.table());
        ASSERT_TRUE(report.problems.empty()) << start << "\n" << report.text();
    }
    EXPECT_GT(refused, 0);
    for (const uint32_t id : before) {
        const std::vector<uint32_t> now = index.Walk();
        EXPECT_NE(std::find(now.begin(), now.end(), id), now.end());
    }
}

TEST_F(InsertLongKeys, EveryPairOfLengthsAroundHalfANodeIsStoredOrRefusedCleanly)
{
    for (size_t first = 8148; first <= 8168; first += 4) {
        for (size_t second = 8148; second <= 8168; second += 5) {
            for (size_t third = 8150; third <= 8168; third += 6) {
                std::filesystem::remove(path());
                IndexFixture index(path(), {{INDX_KEY_TEXT}});
                const Key keys[] = {
                    SizedKey("b", first), SizedKey("d", second), SizedKey("c", third),
                    SizedKey("a", first), SizedKey("e", second)};
                std::vector<uint32_t> held;
                for (uint32_t i = 0; i < 5; ++i) {
                    if (index.Add(i + 1, keys[i]))
                        held.push_back(i + 1);
                }
                const TreeReport report = CheckTable(index.table());
                ASSERT_TRUE(report.problems.empty())
                    << first << " " << second << " " << third << "\n"
                    << report.text();
                for (const uint32_t id : held)
                    ASSERT_TRUE(index.FindExactly(id, keys[id - 1]));
                ASSERT_EQ(index.Walk().size(), held.size());
            }
        }
    }
}

// ---- failures ----------------------------------------------------------------------------------

TEST_F(Insert, AKeyThatCannotBeTakenFromTheRecordIsRefusedWithItsMessage)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    TraceRecorder trace;
    EXPECT_FALSE(index.Insert(1, BytesKey("")));
    EXPECT_EQ(index.cursor()->result, INDX_RESULT_EMPTY_KEY);
    EXPECT_TRUE(trace.has(TAG, 1, -1, "Failed to fill in key info")) << trace.dump();
    EXPECT_FALSE(trace.hasPart("Could not modify index"));
    EXPECT_EQ(index.field()->roots.tRoot, NONE);
}

TEST_F(Insert, ANodeThatCannotBeMadeFailsTheRootAndEverySplit)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    {
        const ArmedFault fault(FAULT_RESERVE);
        TraceRecorder trace;
        EXPECT_FALSE(index.Insert(1, NumberKey(1)));
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Could not modify index")) << trace.dump();
        index.Backout();
    }
    EXPECT_EQ(index.field()->roots.tRoot, NONE);
    FillLeaf(index);
    const struct {
        int value;
        uint32_t nth; // the new node, then the new root
        const char* text;
    } cases[] = {{5, 1, "Failed to split left"},     {5, 2, "Failed to split left"},
                 {95, 1, "Failed to split right"},   {95, 2, "Failed to split right"},
                 {9999, 1, "Failed to split right"}, {9999, 2, "Failed to split right"}};
    for (const auto& c : cases) {
        const ArmedFault fault(FAULT_RESERVE, c.nth);
        TraceRecorder trace;
        EXPECT_FALSE(index.Insert(2000, NumberKey(c.value)));
        EXPECT_EQ(fault.hits(), 1u);
        EXPECT_TRUE(trace.has(TAG, 1, 0, c.text)) << trace.dump();
        EXPECT_TRUE(trace.has(TAG, 1, 0, "Could not insert key into node"));
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Could not modify index"));
        index.Backout();
        EXPECT_EQ(LeafCounts(index), Counts{681});
        EXPECT_TRUE(SoundTable(index.table(), CheckTable(index.table()).lost.size()));
    }
}

// Trees in which one insertion splits several levels, re-keys others and makes a new root.
class InsertSweep : public Insert {
  protected:
    void Fill(IndexFixture& index)
    {
        for (uint32_t i = 0; i < 30; ++i)
            ASSERT_TRUE(index.Add(i + 1, Name(2 * i + 2)));
    }
    static Key Name(uint32_t n)
    {
        return SizedKey("k" + std::string(1, static_cast<char>('0' + n)), n % 3 ? 5400 : 8150);
    }
    // Fails the n-th call of a point, for every n, in an insertion of each kind.
    void Sweep(uint32_t point)
    {
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        Fill(index);
        ASSERT_GE(index.field()->levels, 4);
        const std::vector<uint32_t> before = index.Walk();
        index.Backout();
        for (const uint32_t n : {1u, 3u, 17u, 31u, 45u, 60u, 61u}) {
            bool done = false;
            for (uint32_t nth = 1; !done; ++nth) {
                ASSERT_LT(nth, 1000u);
                const ArmedFault fault(point, nth);
                const bool inserted = index.Insert(1000, Name(n));
                done = fault.hits() == 0;
                EXPECT_EQ(inserted, done) << "key " << n << ", call " << nth;
                FaultDisarmAll();
                index.Backout();
                ASSERT_EQ(index.Walk(), before) << "key " << n << ", call " << nth;
                index.Backout();
                const TreeReport report = CheckTable(index.table());
                ASSERT_TRUE(report.problems.empty()) << report.text();
            }
        }
    }
};

TEST_F(InsertSweep, EveryAllocationThatFailsIsBackedOutCleanly)
{
    Sweep(FAULT_ALLOC);
}
TEST_F(InsertSweep, EveryReadThatFailsIsBackedOutCleanly)
{
    Sweep(FAULT_READ);
}
TEST_F(InsertSweep, EverySeekThatFailsIsBackedOutCleanly)
{
    Sweep(FAULT_SEEK);
}
TEST_F(InsertSweep, EveryFullDiskIsBackedOutCleanly)
{
    Sweep(FAULT_RESERVE);
}

TEST_F(Insert, AFailedAddOnAFullDiskOverwritesNothingEvenWhenItGoesOn)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    FillLeaf(index);
    const std::string before = ReadFileBytes(path()).substr(16384);
    const ArmedFault fault(FAULT_RESERVE, 1, 0); // full for good
    FileCalls calls;
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(index.Add(static_cast<uint32_t>(2000 + i), NumberKey(15 + 10 * i)));
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_EQ(ReadFileBytes(path()).substr(16384), before);
    EXPECT_EQ(index.Walk().size(), 681u);
    index.Backout();
    EXPECT_TRUE(index.Remove(5, NumberKey(50))); // room inside the node needs no new block
    EXPECT_TRUE(index.Add(5, NumberKey(55)));
    EXPECT_TRUE(SoundTable(index.table(), CheckTable(index.table()).lost.size()));
}

} // namespace
