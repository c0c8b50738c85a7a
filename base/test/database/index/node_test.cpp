// node_test.cpp: nodes on disk and in memory, moving and putting entries, storing the table's
// description, and the roots at a back-out.

#include "support/tree_test.h"

#include <cstring>

#include "database/block/blockstore.h"
#include "database/block/shapes.h"
#include "support/armed_fault.h"
#include "support/file_bytes.h"
#include "support/file_calls.h"

namespace {

class Node : public TreeTest {};

// The bytes of a block on disk.
std::string BlockAt(const std::string& path, uint32_t id)
{
    return ReadFileBytes(path).substr((size_t{id} + 1) * 16384, 16384);
}

std::string Bytes(const uint8_t* pNode, size_t offset, size_t size)
{
    return std::string(reinterpret_cast<const char*>(pNode) + offset, size);
}

std::string Word(uint32_t value)
{
    std::string bytes(4, '\0');
    PutU32At(bytes, 0, value);
    return bytes;
}

uint8_t* RawBlock(const IndexFixture& index, int32_t id)
{
    void* pData = nullptr;
    EXPECT_EQ(BlckGetBlock(&pData, index.block(), id), 1u);
    return static_cast<uint8_t*>(pData);
}

// ---- the format --------------------------------------------------------------------------------

TEST_F(Node, AFreshNodeHas12BytesOfOnesAZeroLeafFlagAndAZeroCount)
{
    for (const int32_t keyType :
         {INDX_KEY_RECORD_ID, INDX_KEY_INTEGER, INDX_KEY_INT64, INDX_KEY_TEXT,
          INDX_KEY_TEXT_NO_CASE, INDX_KEY_UNIQUE_ID}) {
        IndexFixture index(directory_.path("t" + std::to_string(keyType)), {{keyType}});
        uint8_t* pNode = nullptr;
        ASSERT_EQ(IndxNewNode(&pNode, index.cursor()), 0);
        ASSERT_NE(pNode, nullptr);
        EXPECT_EQ(Bytes(pNode, 0, 12), std::string(12, '\xff'));
        EXPECT_EQ(Bytes(pNode, 12, 4), Word(0));
        EXPECT_EQ(Bytes(pNode, 16, 4), Word(keyType >= 4097 ? 1 : 0));
        EXPECT_EQ(Bytes(pNode, 20, 4), Word(0));
        EXPECT_EQ(Bytes(pNode, 24, 16360), std::string(16360, '\0'));
        index.Update(); // it was marked modified at once
        const std::string block = BlockAt(index.path(), 0);
        EXPECT_EQ(block.substr(0, 12), std::string(12, '\xff'));
        EXPECT_EQ(block.substr(32), std::string(16352, '\0'));
    }
}

TEST_F(Node, TextsOf3And4BytesHaveHeapOffsets3And7)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(index.Add(1, TextKey("ab"), 100));
    ASSERT_TRUE(index.Add(2, TextKey("cde"), 200));
    const std::string block = BlockAt(path(), 0);
    EXPECT_EQ(block.substr(0, 12), std::string(12, '\xff'));
    EXPECT_EQ(block.substr(12, 12), Word(1) + Word(1) + Word(2));
    EXPECT_EQ(block.substr(32, 24), Word(1) + Word(0) + Word(3) + Word(3) + Word(100) + Word(0));
    EXPECT_EQ(block.substr(56, 24), Word(2) + Word(0) + Word(4) + Word(7) + Word(200) + Word(0));
    EXPECT_EQ(block.substr(16384 - 3), std::string("ab\0", 3));
    EXPECT_EQ(block.substr(16384 - 7, 4), std::string("cde\0", 4));
    EXPECT_EQ(block.substr(80, 16384 - 80 - 7), std::string(16384 - 80 - 7, '\0'));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Node, EveryKeyTypeHasItsOwnFormInTheEntry)
{
    struct Form {
        int32_t keyType;
        Key key;
        std::string value; // the 8 bytes at entry offset 8
        std::string heap;
    };
    std::string id32;
    for (int i = 0; i < 32; ++i)
        id32 += static_cast<char>(0xA0 + i);
    const Form forms[] = {
        {INDX_KEY_RECORD_ID, {}, Word(0) + Word(0), ""},
        {INDX_KEY_INTEGER, NumberKey(-2), Word(0xFFFFFFFE) + Word(0), ""},
        {INDX_KEY_INT64, NumberKey(0x123456789ABCDEF0), Word(0x9ABCDEF0) + Word(0x12345678), ""},
        {INDX_KEY_TEXT, TextKey("Key"), Word(4) + Word(4), std::string("Key\0", 4)},
        {INDX_KEY_TEXT_NO_CASE, TextKey("Key"), Word(4) + Word(4), std::string("Key\0", 4)},
        {INDX_KEY_UNIQUE_ID, BytesKey(id32), Word(32) + Word(32), id32},
    };
    for (const Form& form : forms) {
        SCOPED_TRACE(form.keyType);
        IndexFixture index(directory_.path("f" + std::to_string(form.keyType)), {{form.keyType}});
        ASSERT_TRUE(index.Add(0x01020304, form.key, 0x7FFFFFFF));
        const std::string block = BlockAt(index.path(), 0);
        EXPECT_EQ(block.substr(32, 8), Word(0x01020304) + Word(0));
        EXPECT_EQ(block.substr(40, 8), form.value);
        EXPECT_EQ(block.substr(48, 8), Word(0x7FFFFFFF) + Word(0));
        EXPECT_EQ(block.substr(16384 - form.heap.size()), form.heap);
        EXPECT_TRUE(SoundTable(index.table()));
    }
}

TEST_F(Node, TheWordsThatTheIndexDoesNotUseAreCarriedAlong)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Add(1, NumberKey(10)));
    uint8_t* pNode = RawBlock(index, 0);
    memcpy(pNode + 36, "kept", 4);
    memcpy(pNode + 44, "high", 4);
    memcpy(pNode + 52, "tail", 4);
    ASSERT_TRUE(index.Insert(2, NumberKey(5)));
    EXPECT_EQ(Bytes(pNode, 60, 4), "kept");
    EXPECT_EQ(Bytes(pNode, 68, 4), "high");
    EXPECT_EQ(Bytes(pNode, 76, 4), "tail");
    ASSERT_TRUE(index.Delete(2, NumberKey(5)));
    EXPECT_EQ(Bytes(pNode, 36, 4), "kept");
    index.Update();
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Node, TheStoredEndAddressMeansNothing)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(index.Add(1, TextKey("one")));
    index.Close();
    std::string bytes = ReadFileBytes(path());
    bytes.replace(16384 + 24, 8, "\x41\x41\x41\x41\x41\x41\x41\x41");
    WriteFileBytes(path(), bytes);
    index.Open();
    ASSERT_TRUE(index.Add(2, TextKey("two")));
    EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{1, 2}));
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    EXPECT_EQ(Bytes(pNode, 24, 8), "AAAAAAAA"); // and stays
    EXPECT_TRUE(SoundTable(index.table()));
}

// ---- getting, making, releasing, discarding ----------------------------------------------------

TEST_F(Node, AReleasedNodeStaysInMemoryAndADiscardedOneInItsVariable)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    IndxCursor* c = index.cursor();
    uint8_t* pNode = nullptr;
    IndxNewNode(&pNode, c);
    uint8_t* const pFirst = pNode;
    IndxReleaseNode(&pNode, c, TRUE);
    EXPECT_EQ(pNode, nullptr);
    IndxGetNode(&pNode, c, 0);
    ASSERT_EQ(pNode, pFirst); // in memory until the operation ends
    IndxReleaseNode(&pNode, c, FALSE);
    IndxGetNode(&pNode, c, 0);
    uint8_t* pSame = pNode;
    IndxDiscardNode(&pNode, c);
    EXPECT_EQ(pNode, pSame); // left as it is
    index.Update();
    EXPECT_EQ(CheckTable(index.table()).freeChain, std::vector<uint32_t>{0});
}

TEST_F(Node, ANodeThatCannotBeHadIsNull)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.Add(1, NumberKey(1));
    uint8_t* const untouched = reinterpret_cast<uint8_t*>(&index);
    const TraceRecorder trace(0);
    for (const uint32_t id : {1u, 5u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        uint8_t* pNode = untouched;
        IndxGetNode(&pNode, index.cursor(), id);
        EXPECT_EQ(pNode, nullptr);
    }
    const ArmedFault fault(FAULT_READ);
    uint8_t* pNode = untouched;
    IndxGetNode(&pNode, index.cursor(), 0);
    EXPECT_EQ(pNode, nullptr);
    for (const TraceRecorder::Line& line : trace.lines()) // the block store says what there is
        EXPECT_NE(line.tag, TAG) << line;
}

TEST_F(Node, ABlockThatIsNoSoundNodeIsNull)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Add(1, TextKey("one"));
    index.Add(2, TextKey("two"));
    const struct {
        uint32_t offset;
        uint32_t value;
    } cases[] = {
        {20, 0xFFFFFFFF}, {20, 682}, {20, 0x7FFFFFFF}, {20, 0x80000000}, {12, 2},
        {12, 0xFFFFFFFF}, {16, 0},   {16, 2},          {68, 16305},      {68, 0xFFFFFFFF},
    };
    for (const auto& c : cases) {
        uint8_t* pRaw = RawBlock(index, 0);
        const std::string kept = Bytes(pRaw, c.offset, 4);
        memcpy(pRaw + c.offset, Word(c.value).data(), 4);
        uint8_t* pNode = pRaw;
        TraceRecorder trace;
        IndxGetNode(&pNode, index.cursor(), 0);
        EXPECT_EQ(pNode, nullptr) << c.offset << " " << c.value;
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Node 0 of field 'F0' of table 'Fixture' is damaged"))
            << trace.dump();
        memcpy(pRaw + c.offset, kept.data(), 4);
    }
    memcpy(RawBlock(index, 0) + 68, Word(16304).data(), 4); // heap and entries just touch
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    EXPECT_NE(pNode, nullptr);
    index.Backout();
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Node, ANewNodeWhoseBlockCannotBeHadIsMinusOneAndLeavesTheVariableUntouched)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (const uint32_t point : {FAULT_RESERVE, FAULT_ALLOC}) {
        const ArmedFault fault(point);
        uint8_t* const untouched = reinterpret_cast<uint8_t*>(&index);
        uint8_t* pNode = untouched;
        EXPECT_EQ(IndxNewNode(&pNode, index.cursor()), -1);
        EXPECT_EQ(pNode, untouched);
        EXPECT_EQ(fault.hits(), 1u);
    }
    index.Backout();
    EXPECT_TRUE(SoundTable(index.table(), 2)); // the ids stay counted
}

TEST_F(Node, TheFreeSpaceIsCountedToTheByte)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    ASSERT_TRUE(index.Add(1, SizedKey("a", 8000)));
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    EXPECT_EQ(IndxFreeSpace(pNode), 16352u - 24 - 8000);
    EXPECT_TRUE(IndxHasRoom(pNode, 16352 - 24 - 8000 - 24));
    EXPECT_FALSE(IndxHasRoom(pNode, 16352 - 24 - 8000 - 23));
    EXPECT_EQ(IndxHeapBefore(pNode, 0), 0u);
    EXPECT_EQ(IndxHeapBefore(pNode, 1), 8000u);
}

// ---- moving and putting ------------------------------------------------------------------------

TEST_F(Node, MovingNoEntriesDoesNothingAndTracesNothing)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Add(1, TextKey("one"));
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    const std::string before = Bytes(pNode, 0, 16384);
    TraceRecorder trace;
    EXPECT_EQ(IndxMoveEntries(index.cursor(), pNode, 1, pNode, 0, 0, 4), 1u);
    EXPECT_EQ(IndxMoveEntries(index.cursor(), pNode, 1, pNode, 0, -1, 4), 1u);
    EXPECT_TRUE(trace.lines().empty()) << trace.dump();
    EXPECT_EQ(Bytes(pNode, 0, 16384), before);
}

TEST_F(Node, MovedEntriesTakeTheirHeapAlong)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Add(1, TextKey("bcd"));
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    EXPECT_EQ(IndxMoveEntries(index.cursor(), pNode, 1, pNode, 0, 1, 9), 1u);
    EXPECT_EQ(Bytes(pNode, 16384 - 13, 4), std::string("bcd\0", 4));
    index.Backout();
}

TEST_F(Node, PuttingAKeyLeavesTheCountToItsCaller)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Add(1, TextKey("one"));
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    IndxKeyInfo* pKey = index.MakeKeyInfo(2, TextKey("two"));
    EXPECT_EQ(IndxPutKeyIntoNode(index.cursor(), pNode, 1, pKey), 1u);
    EXPECT_EQ(Bytes(pNode, 16384 - 8, 4), std::string("two\0", 4));
    EXPECT_EQ(Bytes(pNode, 20, 4), Word(1));
    ObjRelease(pKey);
    index.Backout();
}

TEST_F(Node, AKeyThatMustNeverBeStoredEndsTheProcess)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.Add(1, NumberKey(1));
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    IndxKeyInfo* pKey = index.MakeKeyInfo(2, NumberKey(2));
    pKey->keyType = 4095;
    CrashRecorder crash;
    TraceRecorder trace;
    EXPECT_EQ(IndxPutKeyIntoNode(index.cursor(), pNode, 1, pKey), 0u);
    EXPECT_EQ(crash.codes(), std::vector<uint32_t>{0});
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Unexpected field type")) << trace.dump();
    ObjRelease(pKey);
    index.Backout();
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Node, AnUnknownKeyTypeStoresTheIdAndThePointerOnly)
{
    IndexFixture index(path(), {{99}});
    uint8_t* pNode = nullptr;
    IndxNewNode(&pNode, index.cursor());
    memcpy(pNode + 12, Word(1).data(), 4);
    memcpy(pNode + 40, "kept", 4);
    IndxKeyInfo* pKey = index.MakeKeyInfo(5, {});
    pKey->fileOffset = 77;
    EXPECT_EQ(IndxPutKeyIntoNode(index.cursor(), pNode, 0, pKey), 1u);
    EXPECT_EQ(Bytes(pNode, 32, 24), Word(5) + Word(0) + "kept" + Word(0) + Word(77) + Word(0));
    ObjRelease(pKey);
    index.Backout();
}

// ---- the block file of an index ----------------------------------------------------------------

class StoreOpen : public TreeTest {
  protected:
    // A table whose database has this directory for its block files.
    void MakeTable(const std::string& directory)
    {
        void* oDatabase = nullptr;
        void* oTable = nullptr;
        ObjTemplateCreateInstanceFromPool(
            &oDatabase, gIndxTemplates.database, MemGetDefaultPoolId());
        ObjTemplateCreateInstanceFromPool(&oTable, gIndxTemplates.table, MemGetDefaultPoolId());
        table_ = static_cast<IndxTable*>(oTable);
        table_->oDatabase = static_cast<IndxDatabase*>(oDatabase);
        table_->oDatabase->indexesPath =
            StrDuplicateIntoPool(directory.c_str(), MemGetDefaultPoolId());
    }
    void TearDown() override
    {
        ObjRelease(table_);
        TreeTest::TearDown();
    }
    IndxTable* table_ = nullptr;
};

TEST_F(StoreOpen, OpensTheFileInTheTablesDirectory)
{
    MakeTable(directory_.path());
    TraceRecorder trace;
    EXPECT_EQ(IndxIndexOpen(&table_->oBlck, table_, "Name"), 1u);
    EXPECT_NE(table_->oBlck, nullptr);
    EXPECT_TRUE(std::filesystem::exists(directory_.path("Name")));
    EXPECT_TRUE(trace.has(
        TAG, 0, 3,
        "TRUE = IndxIndexOpen(" + Address(&table_->oBlck) + ", " + Address(table_) + ", Name)"))
        << trace.dump();
    EXPECT_EQ(trace.countLevel(-1), 0u);
}

TEST_F(StoreOpen, AFileThatCannotBeOpenedIsTrueAndLeavesTheHandleUntouched)
{
    const std::string missing = directory_.path("missing");
    MakeTable(missing);
    int untouched = 0;
    void* oBlck = &untouched;
    TraceRecorder trace;
    EXPECT_EQ(IndxIndexOpen(&oBlck, table_, "Name"), 1u);
    EXPECT_EQ(oBlck, &untouched);
    EXPECT_TRUE(trace.has(
        TAG, 0, -1,
        "Failed to open blck file when opening indx '" + missing +
            (std::filesystem::path::preferred_separator == '/' ? "/" : "\\") + "Name'"))
        << trace.dump();
    EXPECT_TRUE(trace.has(
        TAG, 0, 3, "TRUE = IndxIndexOpen(" + Address(&oBlck) + ", " + Address(table_) + ", Name)"));
}

TEST_F(StoreOpen, APathThatCannotBeBuiltIsNamedNull)
{
    int untouched = 0;
    void* oBlck = &untouched;
    TraceRecorder trace;
    EXPECT_EQ(IndxIndexOpen(&oBlck, nullptr, nullptr), 1u);
    EXPECT_EQ(oBlck, &untouched);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to open blck file when opening indx '(null)'"))
        << trace.dump();
}

// ---- ending an operation -----------------------------------------------------------------------

class StoreUpdate : public TreeTest {};

TEST_F(StoreUpdate, AnUnchangedTableIsTrueAndStillWritesAllBlocks)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Add(1, NumberKey(1)));
    ASSERT_TRUE(index.Insert(2, NumberKey(2)));
    EXPECT_EQ(index.table()->bChanged, 0u);
    FileCalls calls;
    TraceRecorder trace;
    EXPECT_EQ(IndxUpdateTable(index.table()), 1u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "IndxUpdateTable(" + Address(index.table()) + ")"));
    EXPECT_FALSE(trace.hasPart("Mark user data modified"));
    EXPECT_EQ(calls.blocksWritten(), std::vector<int64_t>{1});
    EXPECT_EQ(ObjMapCount(static_cast<BlckControl*>(index.block())->oMap), 0u);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(StoreUpdate, AChangedDescriptionIsStoredAsUnchangedWithItsRoots)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Insert(1, NumberKey(1)));
    EXPECT_EQ(index.table()->bChanged, 1u);
    EXPECT_EQ(IndxUpdateTable(index.table()), 1u);
    EXPECT_EQ(index.table()->bChanged, 0u);
    index.Close();
    const std::string userData = ReadFileBytes(path()).substr(40, 16128);
    void* oTable = nullptr;
    ASSERT_EQ(
        ObjReconstructFromMemorySized(
            &oTable, userData.data(), static_cast<uint32_t>(userData.size())),
        1u);
    auto* pTable = static_cast<IndxTable*>(oTable);
    EXPECT_EQ(pTable->bChanged, 0u); // it was cleared before it was serialised
    void* oField = nullptr;
    ASSERT_EQ(ListGetNthItem(&oField, pTable->oFields, 0), 1u);
    auto* pField = static_cast<IndxField*>(oField);
    EXPECT_EQ(pField->roots.tRoot, 0u);
    EXPECT_EQ(pField->roots.tFirstLeaf, 0u);
    EXPECT_EQ(pField->roots.tLastLeaf, 0u);
    EXPECT_EQ(pField->levels, 1);
    ObjRelease(pField->oTable);
    ObjReleaseInternal(&oTable);
    EXPECT_TRUE(SoundBlockFile(path()));
}

TEST_F(StoreUpdate, ADescriptionThatCannotBeStoredIsLoggedAndTheNodesAreWrittenAllTheSame)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Insert(1, NumberKey(1)));
    TraceRecorder trace;
    LogRecorder log;
    {
        const ArmedFault fault(FAULT_SERIALIZE);
        EXPECT_EQ(IndxUpdateTable(index.table()), 0u);
    }
    EXPECT_TRUE(trace.has(TAG, 1, -1, "Failed to update table")) << trace.dump();
    EXPECT_TRUE(log.has(1301, 96, "Failed to update table 'Fixture'")) << log.dump();
    EXPECT_EQ(index.table()->bChanged, 0u); // stays clear
    EXPECT_EQ(ReadFileBytes(path()).size(), 2u * 16384);
    // So it is not tried again before the next change.
    const std::string none(16128, '\0');
    EXPECT_EQ(IndxUpdateTable(index.table()), 1u);
    EXPECT_EQ(ReadFileBytes(path()).substr(40, 16128), none);
    index.table()->bChanged = TRUE;
    EXPECT_EQ(IndxUpdateTable(index.table()), 1u);
    EXPECT_NE(ReadFileBytes(path()).substr(40, 16128), none);
    index.Backout(); // the roots were committed with the nodes
    EXPECT_EQ(index.Find(1, NumberKey(1)), INDX_RESULT_FOUND);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(StoreUpdate, ADescriptionTooLargeForTheUserDataIsNotWrittenBehindIt)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    const std::string text(20000, 'f');
    index.table()->fields = StrDuplicateIntoPool(text.c_str(), MemGetDefaultPoolId());
    ASSERT_TRUE(index.Insert(1, NumberKey(1)));
    LogRecorder log;
    EXPECT_EQ(IndxUpdateTable(index.table()), 0u);
    EXPECT_EQ(log.count(1301), 1u);
    EXPECT_EQ(ReadFileBytes(path()).substr(40, 16128), std::string(16128, '\0'));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(StoreUpdate, NoTableIsFalse)
{
    EXPECT_EQ(IndxUpdateTable(nullptr), 0u);
    void* oWrong = ObjIntegerNew(1);
    EXPECT_EQ(IndxUpdateTable(oWrong), 0u);
    ObjReleaseInternal(&oWrong);
}

// ---- roots and back-outs -----------------------------------------------------------------------

class StoreRoots : public TreeTest {};

TEST_F(StoreRoots, ABackoutPutsTheRootsOfEveryIndexBack)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}, {INDX_KEY_TEXT, true}});
    ASSERT_TRUE(index.Insert(1, NumberKey(1), 0, 0));
    ASSERT_TRUE(index.Insert(1, TextKey("one"), 0, 1));
    index.Backout();
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(index.field(i)->roots.tRoot, NONE);
        EXPECT_EQ(index.field(i)->roots.tFirstLeaf, NONE);
        EXPECT_EQ(index.field(i)->roots.tLastLeaf, NONE);
        EXPECT_EQ(index.field(i)->levels, 0);
    }
    EXPECT_EQ(index.table()->bChanged, 1u); // the changed flag does not go back
    // A block that was never written must not be descended into.
    ASSERT_TRUE(index.Add(2, NumberKey(2), 0, 0));
    EXPECT_EQ(index.Walk(0), std::vector<uint32_t>{2});
    EXPECT_TRUE(SoundTable(index.table(), 2));
}

TEST_F(StoreRoots, ARootSplitThatAnotherIndexThwartsIsUndone)
{
    // 681 keys fill a leaf; the 682nd splits the root of one index and is a duplicate in the other.
    IndexFixture index(path(), {{INDX_KEY_RECORD_ID}, {INDX_KEY_TEXT, true}});
    for (uint32_t id = 1; id <= 681; ++id) {
        ASSERT_TRUE(index.Insert(id, {}, id, 0));
        ASSERT_TRUE(index.Insert(id, TextKey("n" + std::to_string(id)), id, 1));
        index.Update();
    }
    EXPECT_EQ(index.field(0)->levels, 1);
    const uint32_t tRoot = index.field(0)->roots.tRoot;
    ASSERT_TRUE(index.Insert(682, {}, 682, 0));
    EXPECT_EQ(index.field(0)->levels, 2);
    EXPECT_FALSE(index.Insert(682, TextKey("n5"), 682, 1));
    index.Backout();
    EXPECT_EQ(index.field(0)->levels, 1);
    EXPECT_EQ(index.field(0)->roots.tRoot, tRoot);
    EXPECT_EQ(index.Walk(0).size(), 681u);
    EXPECT_TRUE(SoundTable(index.table(), 2));
    ASSERT_TRUE(index.Add(682, {}, 682, 0));
    EXPECT_EQ(index.Walk(0).size(), 682u);
    EXPECT_TRUE(SoundTable(index.table(), 2));
}

TEST_F(StoreRoots, AnEmptiedIndexThatIsBackedOutHoldsItsKeysAgain)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Add(1, NumberKey(1)));
    ASSERT_TRUE(index.Delete(1, NumberKey(1)));
    EXPECT_EQ(index.field()->roots.tRoot, NONE);
    index.Backout();
    EXPECT_EQ(index.field()->levels, 1);
    EXPECT_EQ(index.Walk(), std::vector<uint32_t>{1});
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(StoreRoots, WhatAnEarlierOperationCommittedWithoutAnUpdateGoesWithALaterBackout)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Insert(1, NumberKey(1))); // not ended
    ASSERT_TRUE(index.Insert(2, NumberKey(2)));
    index.Backout();
    EXPECT_EQ(index.field()->roots.tRoot, NONE);
    EXPECT_TRUE(SoundTable(index.table(), 1));
}

// ---- when anything reaches the file ------------------------------------------------------------

TEST_F(StoreRoots, NoBlockIsWrittenBeforeTheUpdateAndNoneByAFailedOperation)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER, true}});
    for (uint32_t id = 1; id <= 2000; ++id)
        ASSERT_TRUE(index.Insert(id, NumberKey(id)));
    index.Update();
    FileCalls calls;
    ASSERT_TRUE(index.Insert(3000, NumberKey(3000)));
    EXPECT_FALSE(index.Insert(3001, NumberKey(5)));
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    index.Backout();
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    ASSERT_TRUE(index.Insert(3000, NumberKey(3000)));
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    index.Update();
    const std::vector<int64_t> written = calls.offsets(FILE_OP_WRITE);
    ASSERT_GE(written.size(), 1u);
    for (size_t i = 1; i + 1 < written.size(); ++i)
        EXPECT_LT(written[i - 1], written[i]);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Node, TheFirstEntryThatPointsToAChildIsTaken)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (int i = 1; i <= 682; ++i)
        ASSERT_TRUE(index.Insert(static_cast<uint32_t>(i), NumberKey(i)));
    index.Update();
    uint8_t* pRoot = nullptr;
    IndxGetNode(&pRoot, index.cursor(), index.field()->roots.tRoot);
    const uint32_t tFirst = index.field()->roots.tFirstLeaf;
    EXPECT_EQ(IndxFindChild(pRoot, index.field()->roots.tLastLeaf), 1);
    memcpy(pRoot + 32 + 24 + 16, Word(tFirst).data(), 4); // both lead there
    EXPECT_EQ(IndxFindChild(pRoot, tFirst), 0);
    index.Backout();
}

} // namespace
