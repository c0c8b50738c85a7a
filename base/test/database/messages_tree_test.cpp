// messages_tree_test.cpp: every message of the trees - nodes, keys, searches, cursors, insertion
// and deletion - with its level and error flag.

#include "message_book.h"
#include "support/armed_fault.h"
#include "tree_scene.h"

namespace {

constexpr const char* INDX = "INDX        ";
class S : public TreeScene {
  public:
    IndxCursor* cursor() const { return tree->cursor(); }
};

// ---- nodes ------------------------------------------------------------------------------------

TEST(TreeMessages, OpeningAndNodes)
{
    const std::vector<BookLine<S>> lines = {
        {"Failed to open blck file when opening indx '%s'", 0, -1,
         [](S& s) {
             void* oBlck = nullptr;
             const std::string path = s.directory.path("no/such");
             EXPECT_EQ(IndxIndexOpen(&oBlck, s.Integers({}).table(), path.c_str()), 1u);
             return With(path);
         }},
        {"Failed to open blck file when opening indx '%s'", With("(null)"), 0, -1,
         [](S& s) {
             void* oBlck = nullptr;
             EXPECT_EQ(IndxIndexOpen(&oBlck, s.Integers({}).table(), nullptr), 1u);
         }},
        {"%s = IndxIndexOpen(%p, %p, %s)", 0, 3,
         [](S& s) { // "TRUE" also for a file that was refused
             void* oBlck = nullptr;
             const IndexFixture& t = s.Integers({});
             const std::string path = s.directory.path("no/such");
             IndxIndexOpen(&oBlck, t.table(), path.c_str());
             return With("TRUE", &oBlck, t.table(), path);
         }},
        {"IndxUpdateTable(%p)", 0, 4, [](S& s) { return With(s.Integers({1}).table()); }},
        {"Failed to update table", 1, -1,
         [](S& s) {
             IndexFixture& t = s.Integers({1});
             t.table()->bChanged = TRUE;
             const ArmedFault fault(FAULT_SERIALIZE);
             EXPECT_FALSE(t.Update());
         }},
        {"IndxGetNode(%p, %p, %ld)", 0, 4,
         [](S& s) {
             uint8_t* pNode = nullptr;
             IndxGetNode(&pNode, s.Integers({1}).cursor(), 0);
             return With(&pNode, s.cursor(), 0);
         }},
        {"IndxNewNode(%p, %p)", 0, 4,
         [](S& s) {
             uint8_t* pNode = nullptr;
             IndxNewNode(&pNode, s.Integers({}).cursor());
             return With(&pNode, s.cursor());
         }},
        {"IndxReleaseNode(%p, %p, %s)", 0, 4,
         [](S& s) {
             uint8_t* pNode = nullptr;
             IndxGetNode(&pNode, s.Integers({1}).cursor(), 0);
             IndxReleaseNode(&pNode, s.tree->cursor(), TRUE);
             return With(&pNode, s.cursor(), "TRUE");
         }},
        {"IndxReleaseNode(%p, %p, %s)", With(ANY, &S::cursor, "FALSE"), 0, 4,
         [](S& s) { s.Integers({1}).Find(1, NumberKey(1)); }},
        {"IndxDiscardNode(%p, %p)", With(ANY, &S::cursor), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Integers({1}).Remove(1, NumberKey(1))); }},
    };
    ReadBook(INDX, lines);
}

TEST(TreeMessages, KeysOfRecords)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxGetKeyInfoFromRecord(%p, %p, %p)", With(ANY, &S::cursor, ANY), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Integers({}).Add(1, NumberKey(1))); }},
        {"Id = %ld", With(4), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Make(INDX_KEY_RECORD_ID).Add(4, {})); }},
        {"Id = %ld, value = %ld", With(4, -9), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Make(INDX_KEY_INTEGER).Add(4, NumberKey(-9))); }},
        {"Id = %ld, value = %I64d", With(4, -1099511627776), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Make(INDX_KEY_INT64).Add(4, NumberKey(-(int64_t(1) << 40)))); }},
        {"Id = %ld, value = %s", With(4, "text"), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Make(INDX_KEY_TEXT).Add(4, TextKey("text"))); }},
        {"Id = %ld, value = %s", With(4, "abcd"), 0, 4, // without a NUL
         [](S& s) { EXPECT_TRUE(s.Make(INDX_KEY_TEXT_NO_CASE).Add(4, BytesKey("abcd"))); }},
        {"Id = %ld, value = %s", With(4, "Oslo"), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Make(INDX_KEY_TEXT_NO_CASE).Add(4, TextKey("Oslo"))); }},
        {"Id = %ld, value = %s", 0, 4,
         [](S& s) { // the 32 bytes as UniqueToString writes them
             EXPECT_TRUE(s.Make(INDX_KEY_UNIQUE_ID).Add(4, BytesKey(std::string(32, '\xab'))));
             std::string digits;
             for (int i = 0; i < 32; ++i)
                 digits += "ab";
             return With(4, digits);
         }},
    };
    ReadBook(INDX, lines);
}

// ---- searches and cursors ---------------------------------------------------------------------

TEST(TreeMessages, Searching)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxSearchNode(%p, %p, %p, %p)", With(ANY, &S::cursor, ANY, ANY), 0, 4,
         [](S& s) { s.Integers({1}).Find(1, NumberKey(1)); }},
        {"lower %ld upper %ld KeyType %ld", With(0, 1, 3), 0, 4,
         [](S& s) {
             s.Integers({1, 2}).Find(1, NumberKey(1));
         }},
        {"lower %ld upper %ld KeyType %ld", With(0, 2, 4097), 0, 4,
         [](S& s) {
             s.Texts({"a", "b", "c"}).Find(1, TextKey("a"));
         }},
        {"Compare keys %ld and %ld", With(4, 3), 0, 4,
         [](S& s) { // the id searched for, then the entry's
             s.Make(INDX_KEY_INTEGER);
             EXPECT_TRUE(s.tree->Add(3, NumberKey(5)));
             s.tree->Find(4, NumberKey(5));
         }},
        {"lResult %ld index %ld", With(5, 1), 0, 4,
         [](S& s) { // 15 - 10, and the place of the first greater entry
             s.Integers({10, 20, 30}).Find(1, NumberKey(15));
         }},
        {"IndxFind(%p, %p)", With(&S::cursor, ANY), 0, 4,
         [](S& s) { s.Integers({1}).Find(1, NumberKey(1)); }},
        {"IndxUpdateCursor(%p, %p, %d)", With(&S::cursor, nullptr, 2), 0, 4,
         [](S& s) { IndxCursorEOI(s.Integers({1}).cursor()); }},
        {"No record for type %ld", With(12), 0, 4,
         [](S& s) { // a key object of the wrong type leaves 12, and the step keeps it
             IndexFixture& t = s.Integers({1, 2});
             t.Find(1, NumberKey(1));
             EXPECT_EQ(IndxFindKey(t.cursor(), 1, nullptr), 12);
             EXPECT_EQ(IndxNextKey(t.cursor()), 12);
         }},
        {"Get key at %ld:%ld", With(0, 1), 0, 4,
         [](S& s) {
             s.Integers({1, 2}).Find(2, NumberKey(2));
         }},
        {"Unexpected field type", 0, -1,
         [](S& s) {
             IndexFixture& t = s.Integers({1});
             t.field()->keyType = INDX_KEY_FORBIDDEN;
             IndxFirstKey(t.cursor());
             t.field()->keyType = INDX_KEY_INTEGER;
         },
         1},
        {"Unknown field type", 0, -1,
         [](S& s) {
             IndexFixture& t = s.Integers({1});
             t.field()->keyType = 99;
             IndxFirstKey(t.cursor());
             t.field()->keyType = INDX_KEY_INTEGER;
         },
         1},
        {"IndxFindKey(%p, %ld, %p)", With(&S::cursor, 7, nullptr), 0, 4,
         [](S& s) { IndxFindKey(s.Integers({}).cursor(), 7, nullptr); }},
    };
    ReadBook(INDX, lines);
}

TEST(TreeMessages, MovingForward)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxNextKey(0x%p)", With(&S::cursor), 0, 4,
         [](S& s) { IndxNextKey(s.Integers({1}).cursor()); }},
        {"Cursor status %ld at %ld:%ld", With(1, 0, 0), 0, 4,
         [](S& s) {
             IndxCursorBOI(s.Integers({1}).cursor());
             IndxNextKey(s.tree->cursor());
         }},
        {"Cursor status %ld at %ld:%ld", With(4, 0, 1), 0, 4,
         [](S& s) {
             IndexFixture& t = s.Integers({1, 2, 3});
             IndxCursor* pOther = t.OpenCursor();
             t.Find(pOther, 2, NumberKey(2));
             EXPECT_TRUE(t.Remove(2, NumberKey(2)));
             IndxNextKey(pOther);
         }},
        {"Cursor status %ld at %ld:%ld", With(3, 0, 1), 0, 4,
         [](S& s) {
             IndexFixture& t = s.Integers({1, 2});
             t.Find(2, NumberKey(2));
             IndxNextKey(t.cursor());
         }},
        {"Cursor was Untrusted, bFound = %s", With("TRUE"), 0, 4,
         [](S& s) {
             IndexFixture& t = s.Integers({1, 2, 3});
             IndxCursor* pOther = t.OpenCursor();
             t.Find(pOther, 2, NumberKey(2));
             EXPECT_TRUE(t.Remove(2, NumberKey(2)));
             EXPECT_EQ(IndxNextKey(pOther), 6);
         }},
        {"Cursor was Untrusted, bFound = %s", With("FALSE"), 0, 4,
         [](S& s) { // the saved key is there: the step is still to come
             IndexFixture& t = s.Integers({1, 2, 3});
             IndxCursor* pOther = t.OpenCursor();
             t.Find(pOther, 2, NumberKey(2));
             EXPECT_TRUE(t.Add(9, NumberKey(9)));
             EXPECT_EQ(IndxNextKey(pOther), 6);
         }},
        {"Cursor was Untrusted, bFound = %s", With("FALSE"), 0, 4,
         [](S& s) {
             IndexFixture& t = s.Integers({5, 5});
             IndxCursor* pOther = t.OpenCursor();
             t.Find(pOther, 1, NumberKey(5));
             EXPECT_TRUE(t.Add(9, NumberKey(9)));
             EXPECT_EQ(IndxNextMatchingKey(pOther), 6);
         }},
        {"Cursor is at beginning of index", 0, 4,
         [](S& s) { IndxNextKey(s.Integers({}).cursor()); }},
        {"Block is apparently valid", 0, 4,
         [](S& s) {
             IndxCursorBOI(s.Integers({1}).cursor());
             EXPECT_EQ(IndxNextKey(s.tree->cursor()), 6);
         }},
        {"at %ld:%ld, %ld keys in node", With(0, 1, 3), 0, 4,
         [](S& s) {
             IndexFixture& t = s.Integers({1, 2, 3});
             t.Find(2, NumberKey(2));
             IndxNextKey(t.cursor());
         }},
        {"%d = IndxNextKey", With(6), 0, 4,
         [](S& s) {
             IndxCursorBOI(s.Integers({1}).cursor());
             IndxNextKey(s.tree->cursor());
         }},
        {"%d = IndxNextKey", With(8), 0, 4, [](S& s) { IndxNextKey(s.Integers({}).cursor()); }},
        {"IndxNextMatchingKey(0x%p)", With(&S::cursor), 0, 4,
         [](S& s) { IndxNextMatchingKey(s.Integers({1}).cursor()); }},
        {"Cursor status %ld at %ld:%ld", With(3, 0, 0), 0, 4,
         [](S& s) {
             IndexFixture& t = s.Integers({5, 5});
             IndxFirstKey(t.cursor());
             EXPECT_EQ(IndxNextMatchingKey(t.cursor()), 6);
         }},
        {"Cursor was Untrusted, bFound = %s", With("TRUE"), 0, 4,
         [](S& s) {
             IndexFixture& t = s.Integers({5, 5, 5});
             IndxCursor* pOther = t.OpenCursor();
             t.Find(pOther, 2, NumberKey(5));
             EXPECT_TRUE(t.Remove(2, NumberKey(5)));
             EXPECT_EQ(IndxNextMatchingKey(pOther), 6);
         }},
        {"Unexpected key type", 0, -1,
         [](S& s) {
             IndexFixture& t = s.Make(INDX_KEY_RECORD_ID);
             EXPECT_TRUE(t.Add(1, {}) && t.Add(2, {}));
             IndxFirstKey(t.cursor());
             IndxNextMatchingKey(t.cursor());
         },
         1},
    };
    ReadBook(INDX, lines);
}

TEST(TreeMessages, OtherMoves)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxPreviousKey(%p)", With(&S::cursor), 0, 4,
         [](S& s) { IndxPreviousKey(s.Integers({1}).cursor()); }},
        {"IndxFirstKey()", 0, 4, [](S& s) { IndxFirstKey(s.Integers({1}).cursor()); }},
        {"IndxLastKey()", 0, 4, [](S& s) { IndxLastKey(s.Integers({1}).cursor()); }},
        {"IndxCurrentKey()", 0, 4, [](S& s) { IndxCurrentKey(s.Integers({1}).cursor()); }},
        {"IndxCursorBOI(%p)", With(&S::cursor), 0, 4,
         [](S& s) { IndxCursorBOI(s.Integers({}).cursor()); }},
        {"IndxCursorEOI(%p)", With(&S::cursor), 0, 4,
         [](S& s) { IndxCursorEOI(s.Integers({}).cursor()); }},
        {"IndxInvalidateCursors(%p)", With(&S::cursor), 0, 4, [](S& s) { s.Integers({1}); }},
        {"IndxInvalidateCursors(%p)", With(&S::cursor), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Integers({1}).Remove(1, NumberKey(1))); }},
    };
    ReadBook(INDX, lines);
}

// ---- insertion --------------------------------------------------------------------------------

TEST(TreeMessages, Inserting)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxInsertKey(%p, %ld, %p)", With(&S::cursor, 77, ANY), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Integers({}).Add(1, NumberKey(1), 77)); }},
        {"Failed to fill in key info", 1, -1,
         [](S& s) { EXPECT_FALSE(s.Texts({}).Add(1, BytesKey(""))); }},
        {"Root node is %ld set file offset to %ld", With(-1, 77), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Integers({}).Add(1, NumberKey(1), 77)); }},
        {"Root node is %ld set file offset to %ld", With(0, 78), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Integers({1}).Add(2, NumberKey(2), 78)); }},
        {"Create a root node", 0, 4, [](S& s) { s.Integers({1}); }},
        {"Key already exists", 1, 0,
         [](S& s) { EXPECT_FALSE(s.Integers({1}, true).Add(2, NumberKey(1))); }},
        {"Could not insert key into node", 1, 0, [](S& s) { s.AddLowestWithoutParent(); }},
        {"Could not modify index", 1, -1,
         [](S& s) { EXPECT_FALSE(s.Integers({1}, true).Add(2, NumberKey(1))); }},
        {"IndxInsertKeyIntoNode()", 0, 4,
         [](S& s) {
             s.Integers({1, 2});
         }},
        {"IndxAddKeyIntoExistingNode()", 0, 4,
         [](S& s) {
             s.Integers({1, 2});
         }},
        {"Failed to add key to existing node", 1, 0, [](S& s) { s.AddLowestWithoutParent(); }},
        {"IndxFixupParent(%p, %ld, %p) %ld", With(&S::cursor, 0, ANY, -1), 0, 4,
         [](S& s) { // the root has no parent
             EXPECT_TRUE(s.Integers({2}).Add(9, NumberKey(1)));
         }},
    };
    ReadBook(INDX, lines);
}

TEST(TreeMessages, WritingEntries)
{
    const auto move = [](S& s) { EXPECT_TRUE(s.Texts({"bb", "cc"}).Add(9, TextKey("a"))); };
    const std::vector<BookLine<S>> lines = {
        {"IndxPutKeyIntoNode(%p, %p, %ld, %p)", With(&S::cursor, ANY, 2, ANY), 0, 4,
         [](S& s) {
             EXPECT_TRUE(s.Integers({1, 2}).Add(9, NumberKey(3)));
         }},
        {"Unexpected field type", 0, -1,
         [](S& s) {
             IndexFixture& t = s.Integers({1});
             uint8_t* pNode = nullptr;
             IndxGetNode(&pNode, t.cursor(), 0);
             IndxKeyInfo* pKey = t.MakeKeyInfo(2, NumberKey(2));
             pKey->keyType = INDX_KEY_FORBIDDEN;
             EXPECT_EQ(IndxPutKeyIntoNode(t.cursor(), pNode, 1, pKey), 0u);
             ObjRelease(pKey);
         },
         1},
        {"Insert heap data %p, %p, %ld", With(ANY, ANY, 3), 0, 4, [](S& s) { s.Texts({"ab"}); }},
        {"IndxMoveEntries(%p, %p, %ld, %p, %ld, %ld, %ld)", With(&S::cursor, ANY, 1, ANY, 0, 2, 2),
         0, 4,
         [=](S& s) { // two entries one place on, behind the two bytes of the new key
             move(s);
         }},
        {"lOffsetCorrection = %ld", With(2), 0, 4, [=](S& s) { move(s); }},
        {"lOffsetCorrection = %ld", With(-3), 0, 4,
         [](S& s) { // the gap of the first key closes
             EXPECT_TRUE(s.Texts({"bb", "cc"}).Remove(1, TextKey("bb")));
         }},
        {"Move entries %p, %p, %ld", With(ANY, ANY, 48), 0, 4, [=](S& s) { move(s); }},
        {" fixup entry %ld offset %ld", With(1, 6), 0, 4, [=](S& s) { move(s); }},
        {"Move the heap data %p, %p, %ld", With(ANY, ANY, 6), 0, 4, [=](S& s) { move(s); }},
        {"Just move entries %p, %p, %ld", With(ANY, ANY, 48), 0, 4,
         [](S& s) {
             EXPECT_TRUE(s.Integers({2, 3}).Add(9, NumberKey(1)));
         }},
    };
    ReadBook(INDX, lines);
}

TEST(TreeMessages, Splitting)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxSplitLeft()", 0, 4,
         [](S& s) {
             s.Texts({});
             EXPECT_TRUE(s.tree->Add(1, SizedKey("b", 8000)));
             EXPECT_TRUE(s.tree->Add(2, SizedKey("c", 8000)));
             EXPECT_TRUE(s.tree->Add(3, SizedKey("a", 8000)));
         }},
        {"Failed to split left", 1, 0,
         [](S& s) { // no root can hold both keys
             s.Texts({});
             EXPECT_TRUE(s.tree->Add(1, SizedKey("b", 8168)));
             EXPECT_FALSE(s.tree->Add(2, SizedKey("a", 8168)));
         }},
        {"IndxSplitRight()", 0, 4, [](S& s) { s.TwoLeaves(); }},
        {"tNode %ld entries, tRightNode %ld entries", With(681, 1), 0, 4,
         [](S& s) { s.TwoLeaves(); }},
        {"Failed to split right", 1, 0,
         [](S& s) { // room on neither side
             s.Texts({});
             EXPECT_TRUE(s.tree->Add(1, SizedKey("a", 8152)));
             EXPECT_TRUE(s.tree->Add(2, SizedKey("c", 8152)));
             EXPECT_FALSE(s.tree->Add(3, SizedKey("b", 8168)));
         }},
    };
    ReadBook(INDX, lines);
}

// ---- deletion ---------------------------------------------------------------------------------

TEST(TreeMessages, Deleting)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxDeletetKey(%p, %p)", With(&S::cursor, ANY), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Integers({1}).Remove(1, NumberKey(1))); }},
        {"%s = IndxDeleteKey(%p, %p)", With("TRUE", &S::cursor, ANY), 0, 4,
         [](S& s) { EXPECT_TRUE(s.Integers({1}).Remove(1, NumberKey(1))); }},
        {"%s = IndxDeleteKey(%p, %p)", With("FALSE", &S::cursor, ANY), 0, 4,
         [](S& s) { EXPECT_FALSE(s.Integers({1}).Remove(1, NumberKey(2))); }},
        {"IndxDeleteKeyFromNode(%p, %ld, %ld)", With(&S::cursor, 0, 1), 0, 4,
         [](S& s) {
             EXPECT_TRUE(s.Integers({1, 2}).Remove(2, NumberKey(2)));
         }},
        {"Failed to delete key from node", 1, 0,
         [](S& s) {
             s.LoseParent(s.TwoLeaves().field()->roots.tLastLeaf);
             EXPECT_FALSE(s.tree->Remove(FULL + 1, NumberKey(FULL)));
         }},
    };
    ReadBook(INDX, lines);
}

TEST(TreeMessages, LogEntryOfADescriptionThatCouldNotBeStored)
{
    const std::vector<BookEntry<S>> lines = {
        {1301, 96, "Failed to update table '%s'",
         [](S& s) {
             IndexFixture& t = s.Integers({1});
             t.table()->bChanged = TRUE;
             const ArmedFault fault(FAULT_SERIALIZE);
             EXPECT_FALSE(t.Update());
             return With(std::string(t.table()->name));
         }},
    };
    ReadLogBook(lines);
}

} // namespace
