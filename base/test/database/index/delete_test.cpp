// delete_test.cpp: taking keys out: lowest keys on the way up, emptied nodes, re-keying full
// parents, keys of other records, every message, and failures of every call.

#include "support/tree_test.h"

#include <cstring>
#include <set>

#include "database/block.h"
#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/file_calls.h"

namespace {

class Delete : public TreeTest {
  protected:
    static void Fill(IndexFixture& index, int count)
    {
        for (int i = 1; i <= count; ++i)
            ASSERT_TRUE(index.Insert(static_cast<uint32_t>(i), NumberKey(10 * i)));
        index.Update();
    }
    static std::vector<uint32_t> Levels(const IndexFixture& index)
    {
        return CheckTable(index.table()).indexes.at(0).perLevel;
    }
    // Ids of the leaves, first to last.
    static std::vector<uint32_t> Leaves(const IndexFixture& index)
    {
        const IndexReport report = CheckTable(index.table()).indexes.at(0);
        return {report.nodes.end() - report.perLevel.back(), report.nodes.end()};
    }
};

using Ids = std::vector<uint32_t>;

// ---- what goes ---------------------------------------------------------------------------------

TEST_F(Delete, TheOnlyKeyEmptiesTheIndexAndItsBlockIsDiscarded)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Add(1, NumberKey(5)));
    ASSERT_TRUE(index.Delete(1, NumberKey(5)));
    EXPECT_EQ(index.table()->bChanged, 1u);
    index.Update();
    EXPECT_EQ(index.field()->roots.tRoot, NONE);
    EXPECT_EQ(index.field()->roots.tFirstLeaf, NONE);
    EXPECT_EQ(index.field()->roots.tLastLeaf, NONE);
    EXPECT_EQ(index.field()->levels, 0);
    EXPECT_EQ(CheckTable(index.table()).freeChain, Ids{0});
    EXPECT_TRUE(SoundTable(index.table()));
    ASSERT_TRUE(index.Add(2, NumberKey(6)));
    EXPECT_EQ(index.field()->roots.tRoot, 0u); // the block is used again
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Delete, AKeyThatIsNotEntry0OfItsLeafTouchesNoOtherNode)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2000);
    FileCalls calls;
    ASSERT_TRUE(index.Remove(1000, NumberKey(10000)));
    EXPECT_EQ(calls.blocksWritten(), std::vector<int64_t>{int64_t{Leaves(index)[1]} + 1});
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Delete, Entry0OfALeafReKeysItsParentOnly)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2000);
    FileCalls calls;
    ASSERT_TRUE(index.Remove(682, NumberKey(6820)));
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 2u);
    EXPECT_TRUE(SoundTable(index.table()));
    EXPECT_EQ(index.Find(0, NumberKey(6820)), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(CursorId(index.cursor()), 683u);
}

TEST_F(Delete, TheSmallestKeyOfAllReKeysEveryAncestor)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    for (uint32_t i = 0; i < 40; ++i) {
        const std::string start = {static_cast<char>('A' + i)};
        ASSERT_TRUE(index.Add(2 * i + 1, SizedKey(start + "1", 3500)));
        ASSERT_TRUE(index.Add(2 * i + 2, SizedKey(start + "2", 3500)));
    }
    ASSERT_GE(index.field()->levels, 3);
    for (uint32_t i = 0; i < 10; ++i) {
        const std::string start = {static_cast<char>('A' + i)};
        ASSERT_TRUE(index.Remove(2 * i + 1, SizedKey(start + "1", 3500)));
        ASSERT_TRUE(SoundTable(index.table()));
        ASSERT_TRUE(index.Remove(2 * i + 2, SizedKey(start + "2", 3500)));
        ASSERT_TRUE(SoundTable(index.table()));
    }
}

TEST_F(Delete, AnEmptiedFirstLeafMakesTheNextOneFirst)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2000);
    const Ids leaves = Leaves(index);
    ASSERT_EQ(leaves.size(), 3u);
    for (uint32_t id = 1; id <= 680; ++id)
        ASSERT_TRUE(index.Remove(id, NumberKey(10 * id)));
    EXPECT_EQ(Leaves(index), leaves); // nodes are never merged
    ASSERT_TRUE(index.Remove(681, NumberKey(6810)));
    EXPECT_EQ(index.field()->roots.tFirstLeaf, leaves[1]);
    EXPECT_EQ(index.field()->roots.tLastLeaf, leaves[2]);
    EXPECT_EQ(CheckTable(index.table()).freeChain, Ids{leaves[0]});
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Delete, AnEmptiedLastLeafMakesThePreviousOneLast)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 1363);
    const Ids leaves = Leaves(index);
    ASSERT_EQ(leaves.size(), 3u);
    ASSERT_TRUE(index.Remove(1363, NumberKey(13630)));
    EXPECT_EQ(index.field()->roots.tFirstLeaf, leaves[0]);
    EXPECT_EQ(index.field()->roots.tLastLeaf, leaves[1]);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Delete, AnEmptiedMiddleLeafLinksItsNeighbours)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 2000);
    const Ids leaves = Leaves(index);
    for (uint32_t id = 1362; id >= 682; --id)
        ASSERT_TRUE(index.Remove(id, NumberKey(10 * id)));
    EXPECT_EQ(Leaves(index), (Ids{leaves[0], leaves[2]}));
    EXPECT_TRUE(SoundTable(index.table()));
    index.Find(681, NumberKey(6810));
    IndxNextKey(index.cursor());
    EXPECT_EQ(CursorId(index.cursor()), 1363u);
}

TEST_F(Delete, EmptyingEveryLeafUnderABranchRemovesTheBranchAndARootOfOneChildStays)
{
    // Eight keys of 2020 bytes fill a node: 65 of them make two branches below the root.
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    const auto Name = [](uint32_t n) { return SizedKey(std::to_string(100 + n), 2020); };
    for (uint32_t n = 1; n <= 65; ++n)
        ASSERT_TRUE(index.Add(n, Name(n)));
    ASSERT_EQ(Levels(index), (Ids{1, 2, 9}));
    for (uint32_t n = 1; n <= 64; ++n) {
        ASSERT_TRUE(index.Remove(n, Name(n)));
        ASSERT_TRUE(SoundTable(index.table())) << n;
    }
    EXPECT_EQ(Levels(index), (Ids{1, 1, 1}));
    EXPECT_EQ(index.field()->levels, 3); // the height stays
    // It grows again below its tall root.
    for (uint32_t n = 1; n <= 64; ++n) {
        ASSERT_TRUE(index.Add(n, Name(n)));
        ASSERT_TRUE(SoundTable(index.table())) << n;
    }
    EXPECT_EQ(index.Walk().size(), 65u);
}

TEST_F(Delete, EmptyingATallTreeReturnsEveryBlock)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    for (uint32_t i = 0; i < 60; ++i)
        ASSERT_TRUE(index.Add(i + 1, SizedKey(std::string(1, static_cast<char>(' ' + i)), 8000)));
    ASSERT_GE(index.field()->levels, 5);
    for (uint32_t i = 0; i < 60; ++i) {
        const uint32_t n = i * 37 % 60;
        ASSERT_TRUE(
            index.Remove(n + 1, SizedKey(std::string(1, static_cast<char>(' ' + n)), 8000)));
        ASSERT_TRUE(SoundTable(index.table())) << i;
    }
    const TreeReport report = CheckTable(index.table());
    EXPECT_EQ(report.freeChain.size(), report.blocks);
    EXPECT_EQ(index.field()->levels, 0);
}

TEST_F(Delete, OfSeveralRecordsWithOneValueOnlyTheOneMeantGoes)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (uint32_t id = 1; id <= 2000; ++id)
        ASSERT_TRUE(index.Insert(id, NumberKey(5)));
    index.Update();
    ASSERT_TRUE(index.Remove(1000, NumberKey(5)));
    EXPECT_FALSE(index.Remove(1000, NumberKey(5)));
    const Ids ids = index.Walk();
    EXPECT_EQ(ids.size(), 1999u);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 1000u), 0);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Delete, InAUniqueIndexAnotherRecordsEntryIsNotFound)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT, true}});
    ASSERT_TRUE(index.Add(3, TextKey("bob")));
    EXPECT_FALSE(index.Delete(1, TextKey("bob")));
    EXPECT_EQ(index.cursor()->result, INDX_RESULT_NOT_FOUND);
    FileCalls calls;
    index.Update();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_EQ(index.Walk(), Ids{3});
    EXPECT_TRUE(index.Remove(3, TextKey("bob")));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Delete, AKeyThatIsNotThereIsCode7AndNoChange)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.cursor()->result = 0;
    const TraceRecorder trace(0);
    EXPECT_FALSE(index.Delete(1, NumberKey(1)));
    EXPECT_EQ(index.cursor()->result, INDX_RESULT_NOT_FOUND); // an empty index
    Fill(index, 1500);
    IndxFirstKey(index.cursor());
    for (const int value : {5, 15, 6815, 99999}) {
        index.cursor()->result = 0;
        EXPECT_FALSE(index.Delete(1, NumberKey(value)));
        EXPECT_EQ(index.cursor()->result, INDX_RESULT_NOT_FOUND);
    }
    EXPECT_EQ(index.cursor()->status, INDX_ON_KEY); // nobody was made untrusted
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    FileCalls calls;
    index.Update();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Delete, AKeyThatCannotBeTakenFromTheRecordReadsNoNode)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Add(1, TextKey("one"));
    FileCalls calls;
    EXPECT_FALSE(index.Delete(1, BytesKey("")));
    EXPECT_EQ(index.cursor()->result, INDX_RESULT_EMPTY_KEY);
    EXPECT_EQ(calls.count(FILE_OP_READ), 0u);
}

TEST_F(Delete, AnEntryByNodeAndPositionCanBeRemovedAndOthersAreRefused)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    Fill(index, 3);
    EXPECT_EQ(IndxDeleteKeyFromNode(index.cursor(), 0, 1), 1u);
    index.Update();
    EXPECT_EQ(index.Walk(), (Ids{1, 3}));
    for (const auto& [tNode, position] : {std::pair{0u, 2}, {0u, -1}, {1u, 0}, {NONE, 0}}) {
        TraceRecorder trace;
        EXPECT_EQ(IndxDeleteKeyFromNode(index.cursor(), tNode, position), 0u);
        EXPECT_TRUE(trace.has(TAG, 1, 0, "Failed to delete key from node")) << trace.dump();
        EXPECT_TRUE(trace.hasPart("IndxDeleteKeyFromNode("));
    }
    EXPECT_TRUE(SoundTable(index.table()));
}

// ---- re-keying a full parent -------------------------------------------------------------------

class DeleteReKey : public Delete {
  protected:
    static Key Numbered(uint32_t n, size_t size)
    {
        char start[4];
        snprintf(start, sizeof start, "k%02u", n);
        return SizedKey(start, size);
    }
};

TEST_F(DeleteReKey, ALongerLowestKeyForAFullParentIsEnteredAboveFirst)
{
    // Deleting k10 of 5 bytes leaves k11 of 5400 as the lowest key, in a parent without room.
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    const auto Size = [](uint32_t n) -> size_t { return n <= 9 ? 5426 : n == 10 ? 5 : 5400; };
    for (uint32_t n = 1; n <= 21; ++n)
        ASSERT_TRUE(index.Add(n, Numbered(n, Size(n))));
    ASSERT_TRUE(index.Remove(10, Numbered(10, 5)));
    EXPECT_TRUE(SoundTable(index.table()));
    for (uint32_t n = 1; n <= 21; ++n)
        EXPECT_EQ(index.FindExactly(n, Numbered(n, Size(n))), n != 10) << n;
    for (uint32_t n = 1; n <= 21; ++n) {
        EXPECT_EQ(index.Remove(n, Numbered(n, Size(n))), n != 10) << n;
        ASSERT_TRUE(SoundTable(index.table()));
    }
}

TEST_F(DeleteReKey, AHundredThousandTextsLoadedAscendingAllSurviveTheDeletionOfTheFirst)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    constexpr uint32_t COUNT = 100'000;
    const auto Name = [](uint32_t n) {
        char start[16];
        snprintf(start, sizeof start, "%07u", n);
        return SizedKey(start, 9 + (n * 2654435761u >> 7) % 40);
    };
    for (uint32_t n = 1; n <= COUNT; ++n) {
        ASSERT_TRUE(index.Insert(n, Name(n)));
        if (n % 512 == 0)
            index.Update();
    }
    index.Update();
    ASSERT_EQ(index.field()->levels, 3);
    for (uint32_t n = 1; n <= 1000; ++n) {
        ASSERT_TRUE(index.Remove(n, Name(n))) << n;
        if (n == 1 || n % 100 == 0) {
            ASSERT_TRUE(SoundTable(index.table())) << n;
        }
    }
    for (uint32_t n = 1001; n <= COUNT; ++n)
        ASSERT_TRUE(index.FindExactly(n, Name(n))) << n;
    EXPECT_EQ(index.Walk().size(), COUNT - 1000);
}

TEST_F(DeleteReKey, EveryDeletionOutOfTreesOfUnequalKeysKeepsThemSound)
{
    // Short keys in front of long ones, in every arrangement: parents fill to the byte.
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        std::filesystem::remove(path());
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        uint32_t random = seed;
        const auto Next = [&](uint32_t n) {
            random = random * 1664525 + 1013904223;
            return (random >> 8) % n;
        };
        std::vector<size_t> sizes;
        for (uint32_t n = 0; n < 60; ++n)
            sizes.push_back(Next(2) ? 5 + Next(40) : 5350 + Next(100));
        for (uint32_t n = 0; n < 60; ++n)
            ASSERT_TRUE(index.Add(n + 1, Numbered(n, sizes[n])));
        std::set<uint32_t> live;
        for (uint32_t n = 0; n < 60; ++n)
            live.insert(n);
        while (!live.empty()) {
            auto at = live.lower_bound(Next(60));
            if (at == live.end())
                at = live.begin();
            const uint32_t n = *at;
            live.erase(at);
            ASSERT_TRUE(index.Remove(n + 1, Numbered(n, sizes[n]))) << seed << " " << n;
            ASSERT_TRUE(SoundTable(index.table())) << seed << " " << n;
        }
    }
}

TEST_F(DeleteReKey, ALowestKeyTooLongForItsParentFailsCleanly)
{
    // Under the root stand "a" with 2 bytes and "b" with 8168; without "a" it would be "a2" with
    // 8168 beside it, and the two do not fit into one node.
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(index.Add(1, TextKey("a")));
    ASSERT_TRUE(index.Add(2, SizedKey("a2", 8168)));
    ASSERT_TRUE(index.Add(3, SizedKey("b", 8168)));
    ASSERT_TRUE(SoundTable(index.table()));
    const std::string before = ReadFileBytes(path()).substr(16384);
    const IndxRoots roots = index.field()->roots;
    IndxCursor* pOther = index.OpenCursor();
    ASSERT_EQ(IndxLastKey(pOther), INDX_RESULT_FOUND);
    TraceRecorder trace;
    EXPECT_FALSE(index.Delete(1, TextKey("a")));
    EXPECT_EQ(pOther->status, INDX_UNTRUSTED);        // whatever becomes of the deletion
    EXPECT_FALSE(index.FindExactly(1, TextKey("a"))); // and nothing is undone by it
    EXPECT_TRUE(trace.has(TAG, 1, 0, "Failed to split left")) << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 1, 0, "Failed to delete key from node"));
    index.Backout();
    EXPECT_EQ(memcmp(&index.field()->roots, &roots, sizeof roots), 0);
    EXPECT_EQ(ReadFileBytes(path()).substr(16384), before);
    EXPECT_EQ(index.Walk(), (Ids{1, 2, 3}));
    EXPECT_FALSE(index.Add(1, TextKey("a"))); // it is still there
    EXPECT_TRUE(SoundTable(index.table(), CheckTable(index.table()).lost.size()));
    ASSERT_TRUE(index.Remove(3, SizedKey("b", 8168)));
    EXPECT_TRUE(index.Remove(1, TextKey("a"))); // now it can go
    EXPECT_TRUE(SoundTable(index.table(), CheckTable(index.table()).lost.size()));
}

// ---- failures ----------------------------------------------------------------------------------

class DeleteSweep : public DeleteReKey {
  protected:
    static size_t Size(uint32_t n) { return n % 4 == 2 ? 5 : n % 2 ? 5426 : 5400; }

    // Fails the n-th call of a point, for every n, in each deletion of a tree.
    void Sweep(uint32_t point)
    {
        IndexFixture index(path(), {{INDX_KEY_TEXT}});
        for (uint32_t n = 1; n <= 30; ++n)
            ASSERT_TRUE(index.Add(n, Numbered(n, Size(n))));
        const Ids before = index.Walk();
        index.Backout();
        for (uint32_t n = 1; n <= 30; ++n) {
            bool done = false;
            for (uint32_t nth = 1; !done; ++nth) {
                ASSERT_LT(nth, 1000u);
                const ArmedFault fault(point, nth);
                const bool deleted = index.Delete(n, Numbered(n, Size(n)));
                done = fault.hits() == 0;
                EXPECT_EQ(deleted, done) << "key " << n << ", call " << nth;
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

TEST_F(DeleteSweep, EveryAllocationThatFailsIsBackedOutCleanly)
{
    Sweep(FAULT_ALLOC);
}
TEST_F(DeleteSweep, EveryReadThatFailsIsBackedOutCleanly)
{
    Sweep(FAULT_READ);
}
TEST_F(DeleteSweep, EverySeekThatFailsIsBackedOutCleanly)
{
    Sweep(FAULT_SEEK);
}
TEST_F(DeleteSweep, EveryFullDiskIsBackedOutCleanly)
{
    Sweep(FAULT_RESERVE);
}

// ---- parents without room ----------------------------------------------------------------------

class DeleteFullParent : public TreeTest {
  protected:
    // Three leaves, "b" and "c", "m" and "n", "p", under a root that has 26 bytes left.
    void SetUp() override
    {
        TreeTest::SetUp();
        index_ = std::make_unique<IndexFixture>(path(), std::vector<IndexSpec>{{INDX_KEY_TEXT}});
        ASSERT_TRUE(index_->Insert(1, TextKey("b")));
        for (const char* key : {"c", "m", "n"})
            ASSERT_TRUE(index_->Insert(static_cast<uint32_t>(*key), SizedKey(key, 8152)));
        ASSERT_TRUE(index_->Insert('p', SizedKey("p", 8100)));
        index_->Update();
        ASSERT_EQ(CheckTable(index_->table()).indexes[0].perLevel, (Ids{1, 3}));
    }
    void TearDown() override
    {
        EXPECT_EQ(index_->field()->levels, 3);
        EXPECT_TRUE(index_->Update());
        EXPECT_TRUE(SoundTable(index_->table()));
        index_.reset();
        TreeTest::TearDown();
    }
    // What a change did on its way up, until the first split.
    static std::string Steps(const TraceRecorder& trace)
    {
        std::string steps;
        for (const std::string& text : trace.texts()) {
            const bool bFixup = text.rfind("IndxFixupParent(", 0) == 0;
            const bool bSplit = text.rfind("IndxSplit", 0) == 0;
            if (!bFixup && !bSplit && text != "IndxAddKeyIntoExistingNode()")
                continue;
            steps += (steps.empty() ? "" : " ") +
                     (bFixup ? "IndxFixupParent " + text.substr(text.find(", ") + 2, 1) : text);
            if (bSplit)
                break;
        }
        return steps;
    }
    std::unique_ptr<IndexFixture> index_;
};

TEST_F(DeleteFullParent, ANewLowestKeySplitsItToTheLeft)
{
    TraceRecorder trace;
    ASSERT_TRUE(index_->Insert(10, SizedKey("a", 100))); // the entry of the first leaf was "b"
    EXPECT_EQ(
        Steps(trace),
        "IndxAddKeyIntoExistingNode() IndxFixupParent 0 IndxFixupParent 0 IndxSplitLeft()");
    index_->Update();
    EXPECT_EQ(index_->Walk().front(), 10u);
}

TEST_F(DeleteFullParent, ALongerLowestKeyThatADeletionLeavesSplitsIt)
{
    ASSERT_TRUE(index_->Add('q', SizedKey("q", 8168))); // shares the leaf of "p"
    TraceRecorder trace;
    ASSERT_TRUE(index_->Delete('p', SizedKey("p", 8100)));
    EXPECT_EQ(Steps(trace), "IndxSplitRight()");
    index_->Update();
    EXPECT_EQ(index_->Find('q', SizedKey("q", 8168)), INDX_RESULT_FOUND);
}

// ---- what marks the description ----------------------------------------------------------------

class StoreMarks : public TreeTest {
  protected:
    // Whether a change marked the description; it is stored afterwards.
    bool Inserts(int32_t value)
    {
        EXPECT_TRUE(index_->Insert(static_cast<uint32_t>(value + 10000), NumberKey(value)));
        return Stored();
    }
    bool Deletes(int32_t value)
    {
        EXPECT_TRUE(index_->Delete(static_cast<uint32_t>(value + 10000), NumberKey(value)));
        return Stored();
    }
    bool Stored()
    {
        const bool bMarked = index_->table()->bChanged == TRUE;
        EXPECT_TRUE(index_->Update());
        return bMarked;
    }
    uint32_t Leaves() { return CheckTable(index_->table()).indexes[0].perLevel.back(); }
    void SetUp() override
    {
        TreeTest::SetUp();
        index_ = std::make_unique<IndexFixture>(path(), std::vector<IndexSpec>{{INDX_KEY_INTEGER}});
    }
    void TearDown() override
    {
        EXPECT_TRUE(SoundTable(index_->table()));
        index_.reset();
        TreeTest::TearDown();
    }
    std::unique_ptr<IndexFixture> index_;
};

TEST_F(StoreMarks, RootsEndsAndLevelsMarkTheDescription)
{
    EXPECT_TRUE(Inserts(1)); // the first root
    for (int32_t i = 2; i <= 681; ++i)
        EXPECT_FALSE(Inserts(i));
    EXPECT_TRUE(Inserts(1000)); // another root, and a last leaf
    for (int32_t i = 1001; i < 1000 + 681; ++i)
        EXPECT_FALSE(Inserts(i));
    EXPECT_TRUE(Inserts(3000)); // a last leaf alone
    EXPECT_FALSE(Deletes(5));
    EXPECT_TRUE(Deletes(3000)); // the last leaf goes
    for (int32_t i = 1; i < 681; ++i)
        EXPECT_TRUE(i == 5 || !Deletes(i));
    EXPECT_TRUE(Deletes(681)); // the first leaf goes
    for (int32_t i = 1001; i < 1000 + 681; ++i)
        EXPECT_FALSE(Deletes(i));
    EXPECT_TRUE(Deletes(1000)); // the last key
}

TEST_F(StoreMarks, ANewFirstLeafMarksTheDescription)
{
    for (int32_t i = 0; i <= 681; ++i)
        Inserts(i);
    EXPECT_TRUE(Inserts(-1)); // the first leaf is full
    EXPECT_EQ(index_->field()->levels, 2);
}

TEST_F(StoreMarks, ALeafBetweenOthersComesAndGoesWithoutMarkingTheDescription)
{
    for (int32_t i = 0; i <= 681; ++i)
        Inserts(2 * i);
    EXPECT_FALSE(Inserts(1)); // all but the first keys go to a new leaf
    EXPECT_EQ(Leaves(), 3u);
    for (int32_t i = 1; i < 681; ++i)
        EXPECT_FALSE(Deletes(2 * i));
    EXPECT_EQ(Leaves(), 2u);
}

} // namespace
