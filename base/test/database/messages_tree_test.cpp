// messages_tree_test.cpp: every message of the trees - nodes, keys, searches, cursors, insertion
// and deletion - with its level and error flag.

#include "message_book.h"
#include "support/armed_fault.h"
#include "tree_scene.h"

namespace {

constexpr const char* INDX = "INDX        ";
class S : public TreeScene {
  public:
    std::string cursor() const { return Pointer(tree->cursor()); }
};

// ---- nodes
// ---------------------------------------------------------------------------------------

TEST(TreeMessages, OpeningAndNodes)
{
    ReadBook<S>(
        INDX,
        {
            {"Failed to open blck file when opening indx '%s'", 0, -1,
             [](S& s) {
                 void* oBlck = nullptr;
                 const std::string path = s.directory.path("no/such");
                 EXPECT_EQ(IndxIndexOpen(&oBlck, s.Integers({}).table(), path.c_str()), 1u);
                 return "Failed to open blck file when opening indx '" + path + "'";
             }},
            {"Failed to open blck file when opening indx '%s'", 0, -1,
             [](S& s) {
                 void* oBlck = nullptr;
                 EXPECT_EQ(IndxIndexOpen(&oBlck, s.Integers({}).table(), nullptr), 1u);
                 return std::string("Failed to open blck file when opening indx '(null)'");
             }},
            {"%s = IndxIndexOpen(%p, %p, %s)", 0, 3,
             [](S& s) { // "TRUE" also for a file that was refused
                 void* oBlck = nullptr;
                 const IndexFixture& t = s.Integers({});
                 const std::string path = s.directory.path("no/such");
                 IndxIndexOpen(&oBlck, t.table(), path.c_str());
                 return "TRUE = IndxIndexOpen(" + Pointer(&oBlck) + ", " + Pointer(t.table()) +
                        ", " + path + ")";
             }},
            {"IndxUpdateTable(%p)", 0, 4,
             [](S& s) { return "IndxUpdateTable(" + Pointer(s.Integers({1}).table()) + ")"; }},
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
                 return "IndxGetNode(" + Pointer(&pNode) + ", " + s.cursor() + ", 0)";
             }},
            {"IndxNewNode(%p, %p)", 0, 4,
             [](S& s) {
                 uint8_t* pNode = nullptr;
                 IndxNewNode(&pNode, s.Integers({}).cursor());
                 return "IndxNewNode(" + Pointer(&pNode) + ", " + s.cursor() + ")";
             }},
            {"IndxReleaseNode(%p, %p, %s)", 0, 4,
             [](S& s) {
                 uint8_t* pNode = nullptr;
                 IndxGetNode(&pNode, s.Integers({1}).cursor(), 0);
                 IndxReleaseNode(&pNode, s.tree->cursor(), TRUE);
                 return "IndxReleaseNode(" + Pointer(&pNode) + ", " + s.cursor() + ", TRUE)";
             }},
            {"IndxReleaseNode(%p, %p, %s)", 0, 4,
             [](S& s) {
                 s.Integers({1}).Find(1, NumberKey(1));
                 return "IndxReleaseNode({p}, " + s.cursor() + ", FALSE)";
             }},
            {"IndxDiscardNode(%p, %p)", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Integers({1}).Remove(1, NumberKey(1)));
                 return "IndxDiscardNode({p}, " + s.cursor() + ")";
             }},
        });
}

TEST(TreeMessages, KeysOfRecords)
{
    ReadBook<S>(
        INDX,
        {
            {"IndxGetKeyInfoFromRecord(%p, %p, %p)", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Integers({}).Add(1, NumberKey(1)));
                 return "IndxGetKeyInfoFromRecord({p}, " + s.cursor() + ", {p})";
             }},
            {"Id = %ld", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Make(INDX_KEY_RECORD_ID).Add(4, {}));
                 return std::string("Id = 4");
             }},
            {"Id = %ld, value = %ld", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Make(INDX_KEY_INTEGER).Add(4, NumberKey(-9)));
                 return std::string("Id = 4, value = -9");
             }},
            {"Id = %ld, value = %I64d", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Make(INDX_KEY_INT64).Add(4, NumberKey(-(int64_t(1) << 40))));
                 return std::string("Id = 4, value = -1099511627776");
             }},
            {"Id = %ld, value = %s", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Make(INDX_KEY_TEXT_NO_CASE).Add(4, TextKey("Oslo")));
                 return std::string("Id = 4, value = Oslo");
             }},
            {"Id = %ld, value = %s", 0, 4,
             [](S& s) { // the 32 bytes as UniqueToString writes them
                 EXPECT_TRUE(s.Make(INDX_KEY_UNIQUE_ID).Add(4, BytesKey(std::string(32, '\xab'))));
                 std::string digits;
                 for (int i = 0; i < 32; ++i)
                     digits += "ab";
                 return "Id = 4, value = " + digits;
             }},
        });
}

// ---- searches and cursors
// ------------------------------------------------------------------------

TEST(TreeMessages, Searching)
{
    ReadBook<S>(
        INDX, {
                  {"IndxSearchNode(%p, %p, %p, %p)", 0, 4,
                   [](S& s) {
                       s.Integers({1}).Find(1, NumberKey(1));
                       return "IndxSearchNode({p}, " + s.cursor() + ", {p}, {p})";
                   }},
                  {"lower %ld upper %ld KeyType %ld", 0, 4,
                   [](S& s) {
                       s.Integers({1, 2}).Find(1, NumberKey(1));
                       return std::string("lower 0 upper 1 KeyType 3");
                   }},
                  {"lower %ld upper %ld KeyType %ld", 0, 4,
                   [](S& s) {
                       s.Texts({"a", "b", "c"}).Find(1, TextKey("a"));
                       return std::string("lower 0 upper 2 KeyType 4097");
                   }},
                  {"Compare keys %ld and %ld", 0, 4,
                   [](S& s) { // the id searched for, then the entry's
                       s.Make(INDX_KEY_INTEGER);
                       EXPECT_TRUE(s.tree->Add(3, NumberKey(5)));
                       s.tree->Find(4, NumberKey(5));
                       return std::string("Compare keys 4 and 3");
                   }},
                  {"lResult %ld index %ld", 0, 4,
                   [](S& s) { // 15 - 10, and the place of the first greater entry
                       s.Integers({10, 20, 30}).Find(1, NumberKey(15));
                       return std::string("lResult 5 index 1");
                   }},
                  {"IndxFind(%p, %p)", 0, 4,
                   [](S& s) {
                       s.Integers({1}).Find(1, NumberKey(1));
                       return "IndxFind(" + s.cursor() + ", {p})";
                   }},
                  {"IndxUpdateCursor(%p, %p, %d)", 0, 4,
                   [](S& s) {
                       IndxCursorEOI(s.Integers({1}).cursor());
                       return "IndxUpdateCursor(" + s.cursor() + ", " + Pointer(nullptr) + ", 2)";
                   }},
                  {"No record for type %ld", 0, 4,
                   [](S& s) { // a key object of the wrong type leaves 12, and the step keeps it
                       IndexFixture& t = s.Integers({1, 2});
                       t.Find(1, NumberKey(1));
                       EXPECT_EQ(IndxFindKey(t.cursor(), 1, nullptr), 12);
                       EXPECT_EQ(IndxNextKey(t.cursor()), 12);
                       return std::string("No record for type 12");
                   }},
                  {"Get key at %ld:%ld", 0, 4,
                   [](S& s) {
                       s.Integers({1, 2}).Find(2, NumberKey(2));
                       return std::string("Get key at 0:1");
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
                  {"IndxFindKey(%p, %ld, %p)", 0, 4,
                   [](S& s) {
                       IndxFindKey(s.Integers({}).cursor(), 7, nullptr);
                       return "IndxFindKey(" + s.cursor() + ", 7, " + Pointer(nullptr) + ")";
                   }},
              });
}

TEST(TreeMessages, MovingForward)
{
    ReadBook<S>(
        INDX, {
                  {"IndxNextKey(0x%p)", 0, 4,
                   [](S& s) {
                       IndxNextKey(s.Integers({1}).cursor());
                       return "IndxNextKey(0x" + s.cursor() + ")";
                   }},
                  {"Cursor status %ld at %ld:%ld", 0, 4,
                   [](S& s) {
                       IndexFixture& t = s.Integers({1, 2});
                       t.Find(2, NumberKey(2));
                       IndxNextKey(t.cursor());
                       return std::string("Cursor status 3 at 0:1");
                   }},
                  {"Cursor was Untrusted, bFound = %s", 0, 4,
                   [](S& s) {
                       IndexFixture& t = s.Integers({1, 2, 3});
                       IndxCursor* pOther = t.OpenCursor();
                       t.Find(pOther, 2, NumberKey(2));
                       EXPECT_TRUE(t.Remove(2, NumberKey(2)));
                       EXPECT_EQ(IndxNextKey(pOther), 6);
                       return std::string("Cursor was Untrusted, bFound = TRUE");
                   }},
                  {"Cursor was Untrusted, bFound = %s", 0, 4,
                   [](S& s) { // the saved key is there: the step is still to come
                       IndexFixture& t = s.Integers({1, 2, 3});
                       IndxCursor* pOther = t.OpenCursor();
                       t.Find(pOther, 2, NumberKey(2));
                       EXPECT_TRUE(t.Add(9, NumberKey(9)));
                       EXPECT_EQ(IndxNextKey(pOther), 6);
                       return std::string("Cursor was Untrusted, bFound = FALSE");
                   }},
                  {"Cursor was Untrusted, bFound = %s", 0, 4,
                   [](S& s) {
                       IndexFixture& t = s.Integers({5, 5});
                       IndxCursor* pOther = t.OpenCursor();
                       t.Find(pOther, 1, NumberKey(5));
                       EXPECT_TRUE(t.Add(9, NumberKey(9)));
                       EXPECT_EQ(IndxNextMatchingKey(pOther), 6);
                       return std::string("Cursor was Untrusted, bFound = FALSE");
                   }},
                  {"Cursor is at beginning of index", 0, 4,
                   [](S& s) { IndxNextKey(s.Integers({}).cursor()); }},
                  {"Block is apparently valid", 0, 4,
                   [](S& s) {
                       IndxCursorBOI(s.Integers({1}).cursor());
                       EXPECT_EQ(IndxNextKey(s.tree->cursor()), 6);
                   }},
                  {"at %ld:%ld, %ld keys in node", 0, 4,
                   [](S& s) {
                       IndexFixture& t = s.Integers({1, 2, 3});
                       t.Find(2, NumberKey(2));
                       IndxNextKey(t.cursor());
                       return std::string("at 0:1, 3 keys in node");
                   }},
                  {"%d = IndxNextKey", 0, 4,
                   [](S& s) {
                       IndxCursorBOI(s.Integers({1}).cursor());
                       IndxNextKey(s.tree->cursor());
                       return std::string("6 = IndxNextKey");
                   }},
                  {"%d = IndxNextKey", 0, 4,
                   [](S& s) {
                       IndxNextKey(s.Integers({}).cursor());
                       return std::string("8 = IndxNextKey");
                   }},
                  {"IndxNextMatchingKey(0x%p)", 0, 4,
                   [](S& s) {
                       IndxNextMatchingKey(s.Integers({1}).cursor());
                       return "IndxNextMatchingKey(0x" + s.cursor() + ")";
                   }},
                  {"Cursor status %ld at %ld:%ld", 0, 4,
                   [](S& s) {
                       IndexFixture& t = s.Integers({5, 5});
                       IndxFirstKey(t.cursor());
                       EXPECT_EQ(IndxNextMatchingKey(t.cursor()), 6);
                       return std::string("Cursor status 3 at 0:0");
                   }},
                  {"Cursor was Untrusted, bFound = %s", 0, 4,
                   [](S& s) {
                       IndexFixture& t = s.Integers({5, 5, 5});
                       IndxCursor* pOther = t.OpenCursor();
                       t.Find(pOther, 2, NumberKey(5));
                       EXPECT_TRUE(t.Remove(2, NumberKey(5)));
                       EXPECT_EQ(IndxNextMatchingKey(pOther), 6);
                       return std::string("Cursor was Untrusted, bFound = TRUE");
                   }},
                  {"Unexpected key type", 0, -1,
                   [](S& s) {
                       IndexFixture& t = s.Make(INDX_KEY_RECORD_ID);
                       EXPECT_TRUE(t.Add(1, {}) && t.Add(2, {}));
                       IndxFirstKey(t.cursor());
                       IndxNextMatchingKey(t.cursor());
                   },
                   1},
              });
}

TEST(TreeMessages, OtherMoves)
{
    ReadBook<S>(
        INDX,
        {
            {"IndxPreviousKey(%p)", 0, 4,
             [](S& s) {
                 IndxPreviousKey(s.Integers({1}).cursor());
                 return "IndxPreviousKey(" + s.cursor() + ")";
             }},
            {"IndxFirstKey()", 0, 4, [](S& s) { IndxFirstKey(s.Integers({1}).cursor()); }},
            {"IndxLastKey()", 0, 4, [](S& s) { IndxLastKey(s.Integers({1}).cursor()); }},
            {"IndxCurrentKey()", 0, 4, [](S& s) { IndxCurrentKey(s.Integers({1}).cursor()); }},
            {"IndxCursorBOI(%p)", 0, 4,
             [](S& s) {
                 IndxCursorBOI(s.Integers({}).cursor());
                 return "IndxCursorBOI(" + s.cursor() + ")";
             }},
            {"IndxCursorEOI(%p)", 0, 4,
             [](S& s) {
                 IndxCursorEOI(s.Integers({}).cursor());
                 return "IndxCursorEOI(" + s.cursor() + ")";
             }},
            {"IndxInvalidateCursors(%p)", 0, 4,
             [](S& s) {
                 s.Integers({1});
                 return "IndxInvalidateCursors(" + s.cursor() + ")";
             }},
            {"IndxInvalidateCursors(%p)", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Integers({1}).Remove(1, NumberKey(1)));
                 return "IndxInvalidateCursors(" + s.cursor() + ")";
             }},
        });
}

// ---- insertion
// -----------------------------------------------------------------------------------

TEST(TreeMessages, Inserting)
{
    ReadBook<S>(
        INDX,
        {
            {"IndxInsertKey(%p, %ld, %p)", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Integers({}).Add(1, NumberKey(1), 77));
                 return "IndxInsertKey(" + s.cursor() + ", 77, {p})";
             }},
            {"Failed to fill in key info", 1, -1,
             [](S& s) { EXPECT_FALSE(s.Texts({}).Add(1, BytesKey(""))); }},
            {"Root node is %ld set file offset to %ld", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Integers({}).Add(1, NumberKey(1), 77));
                 return std::string("Root node is -1 set file offset to 77");
             }},
            {"Root node is %ld set file offset to %ld", 0, 4,
             [](S& s) {
                 EXPECT_TRUE(s.Integers({1}).Add(2, NumberKey(2), 78));
                 return std::string("Root node is 0 set file offset to 78");
             }},
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
            {"IndxFixupParent(%p, %ld, %p) %ld", 0, 4,
             [](S& s) { // the root has no parent
                 EXPECT_TRUE(s.Integers({2}).Add(9, NumberKey(1)));
                 return "IndxFixupParent(" + s.cursor() + ", 0, {p}) -1";
             }},
        });
}

TEST(TreeMessages, WritingEntries)
{
    const auto move = [](S& s) { EXPECT_TRUE(s.Texts({"bb", "cc"}).Add(9, TextKey("a"))); };
    ReadBook<S>(
        INDX, {
                  {"IndxPutKeyIntoNode(%p, %p, %ld, %p)", 0, 4,
                   [](S& s) {
                       EXPECT_TRUE(s.Integers({1, 2}).Add(9, NumberKey(3)));
                       return "IndxPutKeyIntoNode(" + s.cursor() + ", {p}, 2, {p})";
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
                  {"Insert heap data %p, %p, %ld", 0, 4,
                   [](S& s) {
                       s.Texts({"ab"});
                       return std::string("Insert heap data {p}, {p}, 3");
                   }},
                  {"IndxMoveEntries(%p, %p, %ld, %p, %ld, %ld, %ld)", 0, 4,
                   [=](S& s) { // two entries one place on, behind the two bytes of the new key
                       move(s);
                       return "IndxMoveEntries(" + s.cursor() + ", {p}, 1, {p}, 0, 2, 2)";
                   }},
                  {"lOffsetCorrection = %ld", 0, 4,
                   [=](S& s) {
                       move(s);
                       return std::string("lOffsetCorrection = 2");
                   }},
                  {"lOffsetCorrection = %ld", 0, 4,
                   [](S& s) { // the gap of the first key closes
                       EXPECT_TRUE(s.Texts({"bb", "cc"}).Remove(1, TextKey("bb")));
                       return std::string("lOffsetCorrection = -3");
                   }},
                  {"Move entries %p, %p, %ld", 0, 4,
                   [=](S& s) {
                       move(s);
                       return std::string("Move entries {p}, {p}, 48");
                   }},
                  {" fixup entry %ld offset %ld", 0, 4,
                   [=](S& s) {
                       move(s);
                       return std::string(" fixup entry 1 offset 6");
                   }},
                  {"Move the heap data %p, %p, %ld", 0, 4,
                   [=](S& s) {
                       move(s);
                       return std::string("Move the heap data {p}, {p}, 6");
                   }},
                  {"Just move entries %p, %p, %ld", 0, 4,
                   [](S& s) {
                       EXPECT_TRUE(s.Integers({2, 3}).Add(9, NumberKey(1)));
                       return std::string("Just move entries {p}, {p}, 48");
                   }},
              });
}

TEST(TreeMessages, Splitting)
{
    ReadBook<S>(
        INDX, {
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
                  {"tNode %ld entries, tRightNode %ld entries", 0, 4,
                   [](S& s) {
                       s.TwoLeaves();
                       return std::string("tNode 681 entries, tRightNode 1 entries");
                   }},
                  {"Failed to split right", 1, 0,
                   [](S& s) { // room on neither side
                       s.Texts({});
                       EXPECT_TRUE(s.tree->Add(1, SizedKey("a", 8152)));
                       EXPECT_TRUE(s.tree->Add(2, SizedKey("c", 8152)));
                       EXPECT_FALSE(s.tree->Add(3, SizedKey("b", 8168)));
                   }},
              });
}

// ---- deletion
// ------------------------------------------------------------------------------------

TEST(TreeMessages, Deleting)
{
    ReadBook<S>(
        INDX, {
                  {"IndxDeletetKey(%p, %p)", 0, 4,
                   [](S& s) {
                       EXPECT_TRUE(s.Integers({1}).Remove(1, NumberKey(1)));
                       return "IndxDeletetKey(" + s.cursor() + ", {p})";
                   }},
                  {"%s = IndxDeleteKey(%p, %p)", 0, 4,
                   [](S& s) {
                       EXPECT_TRUE(s.Integers({1}).Remove(1, NumberKey(1)));
                       return "TRUE = IndxDeleteKey(" + s.cursor() + ", {p})";
                   }},
                  {"%s = IndxDeleteKey(%p, %p)", 0, 4,
                   [](S& s) {
                       EXPECT_FALSE(s.Integers({1}).Remove(1, NumberKey(2)));
                       return "FALSE = IndxDeleteKey(" + s.cursor() + ", {p})";
                   }},
                  {"IndxDeleteKeyFromNode(%p, %ld, %ld)", 0, 4,
                   [](S& s) {
                       EXPECT_TRUE(s.Integers({1, 2}).Remove(2, NumberKey(2)));
                       return "IndxDeleteKeyFromNode(" + s.cursor() + ", 0, 1)";
                   }},
                  {"Failed to delete key from node", 1, 0,
                   [](S& s) {
                       s.LoseParent(s.TwoLeaves().field()->roots.tLastLeaf);
                       EXPECT_FALSE(s.tree->Remove(FULL + 1, NumberKey(FULL)));
                   }},
              });
}

TEST(TreeMessages, LogEntryOfADescriptionThatCouldNotBeStored)
{
    ReadLogBook<S>({
        {1301, 96, "Failed to update table '%s'",
         [](S& s) {
             IndexFixture& t = s.Integers({1});
             t.table()->bChanged = TRUE;
             const ArmedFault fault(FAULT_SERIALIZE);
             EXPECT_FALSE(t.Update());
             return "Failed to update table '" + std::string(t.table()->name) + "'";
         }},
    });
}

} // namespace
