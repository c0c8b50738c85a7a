// quirks_tree_test.cpp: what nodes, searches, insertion and deletion do on purpose and keep doing,
// oddities included. Every test ends with the whole-tree check.

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>

#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/file_calls.h"
#include "support/record_objects.h"
#include "support/trace_recorder.h"
#include "tree_scene.h"

namespace {

constexpr uint32_t NONE = 0xFFFFFFFF;
constexpr int32_t FAR = 2000000000; // and -FAR: more than 2^31 apart

class TreeQuirk : public testing::Test {
  protected:
    IndexFixture& Even() // 0, 2, 4 ... in one full leaf
    {
        std::vector<int32_t> values;
        for (int32_t i = 0; i < FULL; ++i)
            values.push_back(2 * i);
        return scene_.Integers(values);
    }
    IndexFixture& tree() { return *scene_.tree; }
    IndxCursor* cursor() { return tree().cursor(); }
    const IndxField* field() { return tree().field(); }
    uint8_t* Node(uint32_t tNode)
    {
        uint8_t* pNode = nullptr;
        IndxGetNode(&pNode, cursor(), tNode);
        EXPECT_NE(pNode, nullptr);
        return pNode;
    }
    // Entries of the first and the last leaf.
    std::vector<int32_t> Leaves()
    {
        return {
            NodeCount(Node(field()->roots.tFirstLeaf)), NodeCount(Node(field()->roots.tLastLeaf))};
    }
    // The way in to a node, by its own search.
    std::pair<bool, int32_t> Search(uint32_t tNode, uint32_t id, const Key& key)
    {
        int32_t index = -77;
        IndxKeyInfo* pKey = tree().MakeKeyInfo(id, key);
        const NimBool bFound = IndxSearchNode(&index, cursor(), Node(tNode), pKey);
        ObjRelease(pKey);
        return {bFound == TRUE, index};
    }

    // Three leaves, "b" and "c", "m" and "n", "p", under a root that has 26 bytes left.
    void FullParent()
    {
        scene_.Texts({});
        EXPECT_TRUE(tree().Insert(1, TextKey("b")));
        for (const char* key : {"c", "m", "n"})
            EXPECT_TRUE(tree().Insert(static_cast<uint32_t>(*key), SizedKey(key, 8152)));
        EXPECT_TRUE(tree().Insert('p', SizedKey("p", 8100)));
        EXPECT_TRUE(tree().Update());
        EXPECT_EQ(CheckTable(tree().table()).indexes[0].perLevel, std::vector<uint32_t>({1, 3}));
        steps_ = std::make_unique<TraceRecorder>();
    }
    // What an insertion did since then on its way up, until the first split.
    std::string Steps()
    {
        std::string steps;
        for (const std::string& text : steps_->texts()) {
            const bool bFixup = text.rfind("IndxFixupParent(", 0) == 0;
            const bool bSplit = text.rfind("IndxSplit", 0) == 0;
            if (!bFixup && !bSplit && text != "IndxAddKeyIntoExistingNode()")
                continue;
            steps += (steps.empty() ? "" : " ") +
                     (bFixup ? "IndxFixupParent " + text.substr(text.find(", ") + 2, 1) : text);
            if (bSplit)
                break;
        }
        steps_.reset();
        return steps;
    }

    LogRecorder log_;
    TraceRecorder trace_{0};
    std::unique_ptr<TraceRecorder> steps_;
    TreeScene scene_;
};

// ---- nodes and key types
// -------------------------------------------------------------------------

TEST_F(TreeQuirk, IntegersMoreThanHalfTheirRangeApartCompareTheWrongWayRound)
{
    scene_.Integers({-FAR, FAR});
    EXPECT_EQ(tree().Walk(), std::vector<uint32_t>({2, 1}));
    EXPECT_EQ(Search(0, 0, NumberKey(FAR)).second, 0);
    scene_.damaged = true; // not the order that the check knows
}

TEST_F(TreeQuirk, OfTwoIntegersExactlyHalfTheirRangeApartEachIsTheSmaller)
{
    scene_.damaged = true; // not the order that the check knows
    scene_.Integers({0, INT32_MIN}, true);
    EXPECT_EQ(tree().Walk(), std::vector<uint32_t>({2, 1}));
    EXPECT_EQ(tree().Find(1, NumberKey(0)), 7); // there, and not to be found
    EXPECT_FALSE(tree().Remove(1, NumberKey(0)));
    EXPECT_EQ(cursor()->result, 7);
    EXPECT_TRUE(tree().Add(3, NumberKey(0))); // a second one, though the index is unique
    EXPECT_EQ(tree().Walk().size(), 3u);
}

TEST_F(TreeQuirk, RecordIdsFromHalfTheirRangeOnComeBeforeZero)
{
    scene_.Make(INDX_KEY_RECORD_ID);
    for (uint32_t id : {1u, 0x90000000u})
        EXPECT_TRUE(tree().Add(id, {}));
    EXPECT_EQ(tree().Walk(), std::vector<uint32_t>({0x90000000, 1}));
    EXPECT_EQ(Search(0, 0, {}).second, 1);
    scene_.damaged = true;
}

TEST_F(TreeQuirk, OpeningAnIndexSaysTrueOfAFileThatItCannotOpen)
{
    scene_.Make(INDX_KEY_INTEGER);
    void* oBlck = &scene_;
    EXPECT_EQ(IndxIndexOpen(&oBlck, tree().table(), scene_.directory.path("no/such").c_str()), 1u);
    EXPECT_EQ(oBlck, &scene_);
}

TEST_F(TreeQuirk, TheStoredDescriptionSaysThatItIsUnchanged)
{
    scene_.Integers({1});
    tree().table()->bChanged = TRUE;
    EXPECT_TRUE(tree().Update());
    Held stored;
    ASSERT_EQ(ObjReconstructFromMemory(stored.out(), BlckUserData(tree().block())), 1u);
    auto* pStored = static_cast<IndxTable*>(stored.get());
    EXPECT_EQ(pStored->bChanged, 0u); // cleared before it was written
    void* oField = nullptr;
    ASSERT_EQ(ListGetNthItem(&oField, pStored->oFields, 0), 1u);
    ObjRelease(static_cast<IndxField*>(oField)->oTable); // opens the ring
}

TEST_F(TreeQuirk, ADescriptionThatWasNotStoredIsNotTriedAgain)
{
    scene_.Integers({1});
    const auto stored = [&] {
        return std::string(static_cast<const char*>(BlckUserData(tree().block())), 16128);
    };
    const std::string before = stored();
    tree().table()->highestId = 42;
    tree().table()->bChanged = TRUE;
    {
        const ArmedFault fault(FAULT_SERIALIZE);
        EXPECT_FALSE(tree().Update());
    }
    EXPECT_EQ(tree().table()->bChanged, 0u);
    EXPECT_TRUE(tree().Update());
    EXPECT_EQ(stored(), before);
    tree().table()->bChanged = TRUE;
    EXPECT_TRUE(tree().Update());
    EXPECT_NE(stored(), before);
}

TEST_F(TreeQuirk, AFailedUpdateReleasesTheBlocksAllTheSame)
{
    scene_.Integers({1});
    EXPECT_TRUE(tree().Insert(2, NumberKey(2)));
    tree().table()->bChanged = TRUE;
    const ArmedFault fault(FAULT_SERIALIZE);
    const FileCalls calls;
    EXPECT_FALSE(tree().Update());
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>({16384}));
    EXPECT_EQ(tree().Walk(), std::vector<uint32_t>({1, 2}));
}

TEST_F(TreeQuirk, AnUpdateOfAnUnchangedTableReleasesTheBlocks)
{
    scene_.Integers({1});
    EXPECT_TRUE(tree().Insert(2, NumberKey(2)));
    EXPECT_EQ(tree().table()->bChanged, 0u);
    const FileCalls calls;
    EXPECT_TRUE(tree().Update());
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>({16384}));
}

TEST_F(TreeQuirk, DiscardingANodeLeavesThePointerAndReleasingOneDoesNot)
{
    scene_.Integers({1});
    uint8_t* pNode = Node(0);
    uint8_t* const pSame = pNode;
    IndxDiscardNode(&pNode, cursor());
    EXPECT_EQ(pNode, pSame);
    IndxReleaseNode(&pNode, cursor(), FALSE);
    EXPECT_EQ(pNode, nullptr);
}

TEST_F(TreeQuirk, AFreshNodeIsNoLeafYet)
{
    scene_.Make(INDX_KEY_TEXT);
    uint8_t* pNode = nullptr;
    ASSERT_EQ(IndxNewNode(&pNode, cursor()), 0);
    const std::string expected = std::string(12, '\xff') + std::string(4, '\0') +
                                 std::string("\1\0\0\0", 4) + std::string(4, '\0');
    EXPECT_EQ(std::string(reinterpret_cast<char*>(pNode), 24), expected);
}

TEST_F(TreeQuirk, ANodeThatCannotBeMadeLeavesTheVariableUntouched)
{
    scene_.Make(INDX_KEY_INTEGER);
    uint8_t own[1];
    uint8_t* pNode = own;
    const ArmedFault fault(FAULT_RESERVE);
    EXPECT_EQ(IndxNewNode(&pNode, cursor()), -1);
    EXPECT_EQ(pNode, own);
}

TEST_F(TreeQuirk, ANodeThatCannotBeReadIsNullWithoutAMessageOfTheIndex)
{
    scene_.Integers({1});
    tree().Backout();
    uint8_t own[1];
    uint8_t* pNode = own;
    const TraceRecorder trace(0);
    const ArmedFault fault(FAULT_READ);
    IndxGetNode(&pNode, cursor(), 0);
    EXPECT_EQ(pNode, nullptr);
    IndxGetNode(&pNode, cursor(), 1);
    EXPECT_TRUE(trace.has("Unallocated tId 1")); // the block store says what it has to say
    EXPECT_EQ(trace.lines().size(), 1u) << trace.dump();
}

TEST_F(TreeQuirk, AReleasedNodeStaysInMemoryUntilTheOperationEnds)
{
    scene_.Integers({1});
    uint8_t* pNode = Node(0);
    uint8_t* const pSame = pNode;
    IndxReleaseNode(&pNode, cursor(), TRUE);
    const FileCalls calls;
    EXPECT_EQ(Node(0), pSame);
    EXPECT_TRUE(calls.calls().empty());
    EXPECT_TRUE(tree().Update());
    EXPECT_EQ(calls.offsets(FILE_OP_WRITE), std::vector<int64_t>({16384})); // it was marked
}

TEST_F(TreeQuirk, ANodeReleasedUnmodifiedIsNotWritten)
{
    scene_.Integers({1});
    uint8_t* pNode = Node(0);
    IndxReleaseNode(&pNode, cursor(), FALSE);
    const FileCalls calls;
    EXPECT_TRUE(tree().Update());
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
}

TEST_F(TreeQuirk, UnusedWordsOfAnEntryAreCarriedAlong)
{
    scene_.Integers({2});
    uint8_t* pEntry = NodeEntry(Node(0), 0);
    PutU32(pEntry + 4, 0x11111111);
    PutU32(pEntry + 20, 0x22222222);
    EXPECT_TRUE(tree().Add(2, NumberKey(1)));
    pEntry = NodeEntry(Node(0), 1);
    EXPECT_EQ(GetU32(pEntry + 4), 0x11111111u);
    EXPECT_EQ(GetU32(pEntry + 20), 0x22222222u);
}

TEST_F(TreeQuirk, TheStoredAddressOfANodesEndMeansNothing)
{
    scene_.Integers({1, 2});
    tree().Close();
    std::string bytes = ReadFileBytes(tree().path());
    bytes.replace(16384 + 24, 8, std::string(8, '\x5a'));
    WriteFileBytes(tree().path(), bytes);
    tree().Open();
    EXPECT_EQ(tree().Walk(), std::vector<uint32_t>({1, 2}));
    EXPECT_EQ(GetU64(Node(0) + 24), reinterpret_cast<uintptr_t>(Node(0)) + 16384);
}

TEST_F(TreeQuirk, AFieldThatMustNotBeKeyedEndsTheProcess)
{
    scene_.Make(INDX_KEY_FORBIDDEN);
    const CrashRecorder crash;
    EXPECT_FALSE(tree().Add(1, {}));
    EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0}));
}

TEST_F(TreeQuirk, AnEntryOfAnotherKeyTypeHoldsRecordIdAndPointerAlone)
{
    scene_.Integers({0x01020304});
    tree().Backout();
    uint8_t* pNode = Node(0);
    IndxKeyInfo* pKey = tree().MakeKeyInfo(9, NumberKey(5));
    pKey->keyType = 99;
    pKey->fileOffset = 77;
    EXPECT_EQ(IndxPutKeyIntoNode(cursor(), pNode, 0, pKey), 1u);
    ObjRelease(pKey);
    EXPECT_EQ(GetU32(NodeEntry(pNode, 0)), 9u);
    EXPECT_EQ(GetU32(NodeEntry(pNode, 0) + 8), 0x01020304u);
    EXPECT_EQ(GetU32(NodeEntry(pNode, 0) + 16), 77u);
}

TEST_F(TreeQuirk, TheLowestKeyOfANodeCarriesAValueForTheKnownTypesOnly)
{
    scene_.Integers({7});
    const auto lowest = [&](int32_t keyType) {
        tree().field()->keyType = keyType;
        IndxKeyInfo* pKey = nullptr;
        EXPECT_EQ(IndxGetKeyInfoFromNode(&pKey, cursor(), Node(0)), 1u);
        tree().field()->keyType = INDX_KEY_INTEGER;
        return Held(pKey);
    };
    const Held integer = lowest(INDX_KEY_INTEGER);
    EXPECT_EQ(ObjGetInteger(static_cast<IndxKeyInfo*>(integer.get())->oValue), 7);
    for (int32_t keyType : {static_cast<int32_t>(INDX_KEY_RECORD_ID), 99}) {
        const Held key = lowest(keyType);
        const auto* pKey = static_cast<IndxKeyInfo*>(key.get());
        EXPECT_EQ(pKey->keyType, keyType);
        EXPECT_EQ(pKey->recordId, 1u);
        EXPECT_EQ(pKey->tChild, 0u);
        EXPECT_EQ(pKey->oValue, nullptr);
    }
}

// ---- search
// --------------------------------------------------------------------------------------

TEST_F(TreeQuirk, ASearchForAnUnknownKeyTypeEndsAtPositionZero)
{
    scene_.Integers({1, 2, 3, 4, 5});
    tree().field()->keyType = 99;
    for (uint32_t id = 1; id <= 5; ++id)
        EXPECT_EQ(Search(0, id, {}), std::make_pair(false, 0));
    tree().field()->keyType = INDX_KEY_INTEGER;
}

TEST_F(TreeQuirk, TheIndexTellsTheKeyTypeNeverTheKey)
{
    scene_.Integers({1, 2, 3});
    IndxKeyInfo* pKey = tree().MakeKeyInfo(2, NumberKey(2));
    pKey->keyType = INDX_KEY_TEXT;
    EXPECT_EQ(IndxFind(cursor(), pKey, nullptr), 1u);
    ObjRelease(pKey);
    EXPECT_EQ(CursorId(cursor()), 2u);
}

TEST_F(TreeQuirk, IdZeroSortsBeforeEveryEntryOfItsValue)
{
    scene_.Integers({5, 5, 5});
    EXPECT_EQ(Search(0, 0, NumberKey(5)), std::make_pair(false, 0));
    EXPECT_EQ(Search(0, 3, NumberKey(5)), std::make_pair(true, 2));
}

TEST_F(TreeQuirk, AFindForAnyRecordIsFalseThoughTheCodeSaysFound)
{
    scene_.Integers({5});
    IndxKeyInfo* pKey = tree().MakeKeyInfo(0, NumberKey(5));
    EXPECT_EQ(IndxFind(cursor(), pKey, nullptr), 0u);
    ObjRelease(pKey);
    EXPECT_EQ(cursor()->result, 6);
    EXPECT_EQ(CursorId(cursor()), 1u);
}

TEST_F(TreeQuirk, ATextKeyIsMeasuredAndStoredWithItsNul)
{
    scene_.Texts({"abc"});
    EXPECT_EQ(GetU32(NodeEntry(Node(0), 0) + 8), 4u);
    EXPECT_EQ(std::memcmp(Node(0) + 16384 - 4, "abc", 4), 0);
    EXPECT_EQ(tree().Find(0, SizedKey("x", 8168)), 7); // 8167 characters
    EXPECT_EQ(tree().Find(0, SizedKey("x", 8169)), 2);
}

TEST_F(TreeQuirk, AnEmptyTextIsIndexedButCannotBeLookedFor)
{
    scene_.Texts({"", "a"});
    EXPECT_EQ(tree().Walk(), std::vector<uint32_t>({1, 2}));
    EXPECT_EQ(tree().Find(1, TextKey("")), 1);
}

TEST_F(TreeQuirk, AnAbsentTextCannotBeIndexed)
{
    scene_.Texts({});
    EXPECT_FALSE(tree().Add(1, BytesKey("")));
    EXPECT_EQ(cursor()->result, 1);
}

// ---- insertion
// -----------------------------------------------------------------------------------

TEST_F(TreeQuirk, ASplitIsAlwaysAtTheInsertionPosition)
{
    Even();
    EXPECT_TRUE(tree().Add(5000, NumberKey(2 * 100 - 1))); // 100 entries come before it
    EXPECT_EQ(Leaves(), std::vector<int32_t>({101, FULL - 100}));
}

TEST_F(TreeQuirk, TheNewKeyGoesToTheSideWithMoreRoom)
{
    Even();
    EXPECT_TRUE(tree().Add(5000, NumberKey(2 * 600 - 1)));
    EXPECT_EQ(Leaves(), std::vector<int32_t>({600, FULL - 600 + 1}));
    EXPECT_EQ(GetU32(NodeEntry(Node(field()->roots.tLastLeaf), 0)), 5000u);
}

TEST_F(TreeQuirk, WithEqualRoomOnBothSidesTheNewKeyGoesLeft)
{
    scene_.Texts({});
    EXPECT_TRUE(tree().Add(1, SizedKey("a", 8000)));
    EXPECT_TRUE(tree().Add(2, SizedKey("c", 8000)));
    EXPECT_TRUE(tree().Add(3, SizedKey("b", 8000)));
    EXPECT_EQ(Leaves(), std::vector<int32_t>({2, 1}));
}

TEST_F(TreeQuirk, AscendingInsertionsLeaveFullNodesBehindThem)
{
    std::vector<int32_t> values;
    for (int32_t i = 0; i < 3 * FULL; ++i)
        values.push_back(i);
    scene_.Integers(values);
    const TreeReport report = CheckTable(tree().table());
    ASSERT_EQ(report.indexes[0].perLevel, std::vector<uint32_t>({1, 3}));
    EXPECT_EQ(Leaves(), std::vector<int32_t>({FULL, FULL}));
}

TEST_F(TreeQuirk, ASplitToTheLeftMovesNoEntry)
{
    Even();
    EXPECT_TRUE(tree().Add(5000, NumberKey(-1)));
    EXPECT_EQ(Leaves(), std::vector<int32_t>({1, FULL}));
    EXPECT_EQ(field()->roots.tLastLeaf, 0u); // the old leaf is where it was
}

TEST_F(TreeQuirk, TheFirstEntryThatPointsToAChildIsTaken)
{
    scene_.TwoLeaves();
    uint8_t* pRoot = Node(field()->roots.tRoot);
    const uint32_t tFirst = GetU32(NodeEntry(pRoot, 0) + 16);
    PutU32(NodeEntry(pRoot, 1) + 16, tFirst);
    EXPECT_EQ(IndxFindChild(pRoot, tFirst), 0);
}

TEST_F(TreeQuirk, AKeyFoundInABranchExistsAlready)
{
    std::vector<int32_t> values;
    for (int32_t i = 0; i <= FULL; ++i)
        values.push_back(i);
    scene_.Integers(values, true);
    const FileCalls calls;
    EXPECT_FALSE(tree().Add(5000, NumberKey(FULL))); // the lowest key of the second leaf
    EXPECT_EQ(cursor()->result, 6);
    EXPECT_EQ(calls.offsets(FILE_OP_READ).size(), 1u); // the root was enough
}

TEST_F(TreeQuirk, OnlyAKeyThatExistsSetsAResultCode)
{
    scene_.Texts({});
    EXPECT_TRUE(tree().Add(1, SizedKey("a", 8152)));
    EXPECT_TRUE(tree().Add(2, SizedKey("c", 8152)));
    cursor()->result = 77;
    EXPECT_FALSE(tree().Add(3, SizedKey("b", 8168))); // no room on either side
    EXPECT_TRUE(trace_.has("Failed to split right"));
    EXPECT_EQ(cursor()->result, 77);
    EXPECT_FALSE(tree().Add(1, SizedKey("a", 8152)));
    EXPECT_EQ(cursor()->result, 6);
}

// What a split does without a block was left open; it fails, and its caller backs out.
TEST_F(TreeQuirk, ASplitWithoutABlockFails)
{
    Even();
    {
        const ArmedFault fault(FAULT_RESERVE);
        EXPECT_FALSE(tree().Add(5000, NumberKey(1)));
    }
    EXPECT_TRUE(trace_.has("INDX        ", 1, 0, "Failed to split right"));
    EXPECT_TRUE(tree().Add(5000, NumberKey(1)));
}

TEST_F(TreeQuirk, AFailedInsertionUndoesNothingItself)
{
    scene_.Texts({});
    EXPECT_TRUE(tree().Add(1, SizedKey("b", 8168)));
    EXPECT_FALSE(tree().Insert(2, SizedKey("a", 8168))); // no root can hold both
    EXPECT_NE(field()->roots.tFirstLeaf, field()->roots.tLastLeaf);
    tree().Backout(); // that is the caller's
    EXPECT_EQ(field()->roots.tFirstLeaf, field()->roots.tLastLeaf);
}

TEST_F(TreeQuirk, ARefusedKeyMarksNoNode)
{
    scene_.TwoLeaves();
    EXPECT_FALSE(tree().Insert(1, NumberKey(0)));
    const FileCalls calls;
    EXPECT_TRUE(tree().Update()); // and nobody backs it out
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
}

TEST_F(TreeQuirk, ANewLowestKeyWithoutRoomInItsParentSplitsTheParentToTheLeft)
{
    FullParent();
    ASSERT_TRUE(tree().Insert(10, SizedKey("a", 100))); // the entry of the first leaf was "b"
    EXPECT_EQ(
        Steps(),
        "IndxAddKeyIntoExistingNode() IndxFixupParent 0 IndxFixupParent 0 IndxSplitLeft()");
    EXPECT_EQ(field()->levels, 3);
    EXPECT_TRUE(tree().Update());
    EXPECT_EQ(tree().Walk().front(), 10u);
}

TEST_F(TreeQuirk, ChangesOfRootsEndsAndLevelsMarkTheDescription)
{
    scene_.Make(INDX_KEY_INTEGER);
    const auto marked = [&](bool bDone) {
        EXPECT_TRUE(bDone);
        const bool bMarked = tree().table()->bChanged == TRUE;
        EXPECT_TRUE(tree().Update());
        return bMarked;
    };
    const auto insert = [&](int32_t value) {
        return marked(tree().Insert(static_cast<uint32_t>(value), NumberKey(value)));
    };
    const auto remove = [&](int32_t value) {
        return marked(tree().Delete(static_cast<uint32_t>(value), NumberKey(value)));
    };
    EXPECT_TRUE(insert(1)); // the first root
    for (int32_t i = 2; i <= FULL; ++i)
        EXPECT_FALSE(insert(i));
    EXPECT_TRUE(insert(1000)); // another root, and a last leaf
    for (int32_t i = 1001; i < 1000 + FULL; ++i)
        EXPECT_FALSE(insert(i));
    EXPECT_TRUE(insert(3000)); // a last leaf alone
    EXPECT_FALSE(remove(5));
    EXPECT_TRUE(remove(3000)); // the last leaf goes
    for (int32_t i = 1; i < FULL; ++i) {
        if (i != 5) {
            EXPECT_FALSE(remove(i));
        }
    }
    EXPECT_TRUE(remove(FULL)); // the first leaf goes
    for (int32_t i = 1001; i < 1000 + FULL; ++i)
        EXPECT_FALSE(remove(i));
    EXPECT_TRUE(remove(1000)); // the last key
}

TEST_F(TreeQuirk, ANewFirstLeafMarksTheDescription)
{
    scene_.TwoLeaves(); // its first leaf is full
    EXPECT_TRUE(tree().Insert(5000, NumberKey(-1)));
    EXPECT_EQ(field()->levels, 2);
    EXPECT_EQ(tree().table()->bChanged, 1u);
    EXPECT_TRUE(tree().Update());
}

TEST_F(TreeQuirk, ALeafBetweenOthersComesAndGoesWithoutMarkingTheDescription)
{
    scene_.TwoLeaves();
    const auto leaves = [&] { return CheckTable(tree().table()).indexes[0].perLevel.back(); };
    EXPECT_TRUE(tree().Insert(5000, NumberKey(0))); // all but the first key go to a new leaf
    EXPECT_EQ(tree().table()->bChanged, 0u);
    EXPECT_TRUE(tree().Update());
    EXPECT_EQ(leaves(), 3u);
    for (int32_t i = 1; i < FULL; ++i)
        EXPECT_TRUE(tree().Delete(static_cast<uint32_t>(i + 1), NumberKey(i)));
    EXPECT_EQ(tree().table()->bChanged, 0u);
    EXPECT_TRUE(tree().Update());
    EXPECT_EQ(leaves(), 2u);
}

TEST_F(TreeQuirk, EqualKeysAreOrderedByRecordId)
{
    scene_.Make(INDX_KEY_INTEGER);
    for (uint32_t id : {3u, 1u, 2u})
        EXPECT_TRUE(tree().Add(id, NumberKey(5)));
    EXPECT_EQ(tree().Walk(), std::vector<uint32_t>({1, 2, 3}));
}

// ---- deletion
// ------------------------------------------------------------------------------------

TEST_F(TreeQuirk, TheDoubledLetterOfTheDeletionsEntryStays)
{
    scene_.Integers({1});
    const TraceRecorder trace;
    EXPECT_TRUE(tree().Remove(1, NumberKey(1)));
    EXPECT_TRUE(trace.hasPart("IndxDeletetKey("));
    EXPECT_TRUE(trace.hasPart("TRUE = IndxDeleteKey("));
    EXPECT_FALSE(trace.hasPart("= IndxDeletetKey("));
}

TEST_F(TreeQuirk, NodesAreNeverMerged)
{
    scene_.TwoLeaves();
    for (int32_t i = 1; i < FULL; ++i)
        EXPECT_TRUE(tree().Remove(static_cast<uint32_t>(i + 1), NumberKey(i)));
    EXPECT_EQ(Leaves(), std::vector<int32_t>({1, 1})); // two leaves of one key each
    EXPECT_EQ(field()->levels, 2);
}

TEST_F(TreeQuirk, TheHeightShrinksToNothingOnly)
{
    scene_.TwoLeaves();
    EXPECT_TRUE(tree().Remove(FULL + 1, NumberKey(FULL)));
    EXPECT_EQ(field()->levels, 2); // a root with one child stays
    EXPECT_NE(field()->roots.tRoot, field()->roots.tFirstLeaf);
    for (int32_t i = 0; i < FULL; ++i)
        EXPECT_TRUE(tree().Remove(static_cast<uint32_t>(i + 1), NumberKey(i)));
    EXPECT_EQ(field()->levels, 0);
    EXPECT_EQ(field()->roots.tRoot, NONE);
    EXPECT_EQ(CheckTable(tree().table()).freeChain.size(), 3u);
}

TEST_F(TreeQuirk, CursorsAreInvalidatedWhateverBecomesOfTheDeletion)
{
    scene_.TwoLeaves();
    IndxCursor* pOther = tree().OpenCursor();
    EXPECT_EQ(IndxFirstKey(pOther), 6);
    scene_.LoseParent(field()->roots.tLastLeaf);
    EXPECT_FALSE(tree().Delete(FULL + 1, NumberKey(FULL)));
    EXPECT_EQ(pOther->status, INDX_UNTRUSTED);
}

TEST_F(TreeQuirk, ADeletionThatFindsNothingLeavesTheCursorsTrusted)
{
    scene_.Integers({1, 3});
    IndxCursor* pOther = tree().OpenCursor();
    EXPECT_EQ(IndxFirstKey(pOther), 6);
    EXPECT_FALSE(tree().Remove(2, NumberKey(2)));
    EXPECT_EQ(pOther->status, INDX_ON_KEY);
}

TEST_F(TreeQuirk, AFailedDeletionUndoesNothingItself)
{
    scene_.TwoLeaves();
    const uint32_t tLast = field()->roots.tLastLeaf;
    scene_.LoseParent(tLast);
    EXPECT_FALSE(tree().Delete(FULL + 1, NumberKey(FULL)));
    EXPECT_EQ(NodeCount(Node(tLast)), 0);
    EXPECT_NE(field()->roots.tLastLeaf, tLast);
    tree().Backout();
    EXPECT_EQ(field()->roots.tLastLeaf, tLast);
    EXPECT_EQ(NodeCount(Node(tLast)), 1);
    scene_.damaged = false;
}

TEST_F(TreeQuirk, ADeletionWhoseKeyCannotBeBuiltReadsNoNode)
{
    scene_.Texts({"a"});
    const FileCalls calls;
    EXPECT_FALSE(tree().Delete(1, BytesKey("")));
    EXPECT_EQ(calls.count(FILE_OP_READ), 0u);
    EXPECT_EQ(cursor()->result, 1);
}

TEST_F(TreeQuirk, ALongerLowestKeyThatADeletionLeavesMaySplitItsParent)
{
    FullParent();
    ASSERT_TRUE(tree().Add('q', SizedKey("q", 8168))); // shares the leaf of "p"
    steps_->clear();
    ASSERT_TRUE(tree().Delete('p', SizedKey("p", 8100)));
    EXPECT_EQ(Steps(), "IndxSplitRight()");
    EXPECT_EQ(field()->levels, 3);
    EXPECT_TRUE(tree().Update());
    EXPECT_EQ(tree().Find('q', SizedKey("q", 8168)), 6);
}

TEST_F(TreeQuirk, OneOfSeveralEqualKeysIsDeletedByItsRecordId)
{
    scene_.Integers({5, 5, 5});
    EXPECT_TRUE(tree().Remove(2, NumberKey(5)));
    EXPECT_EQ(tree().Walk(), std::vector<uint32_t>({1, 3}));
}

} // namespace
