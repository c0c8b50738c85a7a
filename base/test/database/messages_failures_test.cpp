// messages_failures_test.cpp: every message about what only damage, a full disk, a lack of memory
// or a wrong use of an interior brings about, with its level and error flag.

#include <filesystem>

#include "block_scene.h"
#include "message_book.h"
#include "people_scene.h"
#include "support/armed_fault.h"
#include "tree_scene.h"

namespace {

constexpr const char* BLCK = "BLCK        ";
constexpr const char* DBLIB = "DBLIB        ";
constexpr const char* INDX = "INDX        ";

// ---- block files ------------------------------------------------------------------------------

TEST(FailureMessages, OfBlockFiles)
{
    using S = BlockScene;
    const std::vector<BookLine<S>> lines = {
        {"No room in the file for the control block", 0, -1,
         [](S& s) {
             const ArmedFault fault(FAULT_RESERVE);
             EXPECT_EQ(s.Open(s.path.c_str()), 0u);
         }},
        {"No room in the file for block %ld", With(1), 0, -1,
         [](S& s) {
             s.New();
             const ArmedFault fault(FAULT_RESERVE);
             EXPECT_EQ(s.New(), 1);
         }},
        {"Free chain leads to block %ld, which is in use: the chain is given up", With(1), 0, -1,
         [](S& s) {
             s.New();
             s.New();
             s.control()->tFreeChain = 1;
             EXPECT_EQ(BlckNewUnusedBlock(&s.pData, s.oBlck), 2);
         }},
    };
    ReadBook(BLCK, lines);
}

// ---- the record encoding ----------------------------------------------------------------------

// An object to encode, and bytes to decode.
struct EncodingScene {
    static constexpr uint32_t MAGIC = 0xcabf0001;
    void* out = nullptr;

    ~EncodingScene() { ObjReleaseInternal(&out); }

    NimBool Encode(const Instance& object) { return DbConvertObjectToDbFormat(&out, object.get()); }
    // The n-th allocation of an encoding fails; its template has been made before.
    NimBool EncodeWithoutMemory(uint32_t nth)
    {
        const Instance object(MAGIC, "i;b;");
        Encoded(object.get());
        const ArmedFault fault(FAULT_ALLOC, nth);
        return Encode(object);
    }
    NimBool Decode(const char* format, const std::string& bytes)
    {
        return DbConvertObjectFromDbFormat(&out, MakeBlob(MAGIC, format, bytes).get());
    }
};

TEST(FailureMessages, OfEncoding)
{
    using S = EncodingScene;
    const std::vector<BookLine<S>> lines = {
        {"No memory for %lu bytes", With(16), 0, -1,
         [](S& s) { EXPECT_EQ(s.EncodeWithoutMemory(1), 0u); }},
        {"No memory for %lu bytes", With(32), 0, -1,
         [](S& s) { // for the BLOB, behind the record
             EXPECT_EQ(s.EncodeWithoutMemory(2), 0u);
         }},
        {"No memory for %lu bytes", With(5), 0, -1,
         [](S& s) { // for the copy of the format
             EXPECT_EQ(s.EncodeWithoutMemory(3), 0u);
         }},
        {"Failed to serialise object at '%p'", 0, -1,
         [](S& s) { // a lost template gives it no size
             Instance object(S::MAGIC, "i;o;");
             void* oNested = ObjIntegerNew(5);
             object.at<void*>(1) = oNested;
             ObjTemplate* const pTemplate = OBJ_HEADER(oNested)->tmpl;
             OBJ_HEADER(oNested)->tmpl = nullptr;
             EXPECT_EQ(s.Encode(object), 0u);
             OBJ_HEADER(oNested)->tmpl = pTemplate;
             return With(oNested);
         }},
        {"Failed to serialise object at '%p'", 0, -1,
         [](S& s) { // it was measured, and then not written
             Instance object(S::MAGIC, "i;o;");
             void* oNested = ObjIntegerNew(5);
             object.at<void*>(1) = oNested;
             const ArmedFault fault(FAULT_SERIALIZE);
             EXPECT_EQ(s.Encode(object), 0u);
             return With(oNested);
         }},
        {"Data of %lu bytes has none", With(7), 0, -1,
         [](S& s) {
             Instance object(S::MAGIC, "i;d;");
             object.at<ObjData>(1).size = 7;
             EXPECT_EQ(s.Encode(object), 0u);
             object.at<ObjData>(1).size = 0;
         }},
        {"Record of %I64u bytes is too long", With(2147483663), 0, -1,
         [](S& s) {
             Instance object(S::MAGIC, "d;");
             object.at<ObjData>(0) = {0x7FFFFFFF, 0, &s};
             EXPECT_EQ(s.Encode(object), 0u);
             object.at<ObjData>(0) = {};
         }},
    };
    ReadBook(DBLIB, lines);
}

TEST(FailureMessages, OfDecoding)
{
    using S = EncodingScene;
    const std::string text("\0\0\0\0\3\0\0\0\x10\0\0\0\0\0\0\0ab\0", 19);
    const std::string data("\0\0\0\0\2\0\0\0\x10\0\0\0\0\0\0\0ab", 18);
    const auto damaged = [](const char* format, char length) {
        return [=](S& s) {
            std::string bytes(20, '\0');
            bytes[4] = length;
            bytes[8] = 16;
            EXPECT_EQ(s.Decode(format, bytes), 0u);
        };
    };
    // The object comes first, then what belongs to the item.
    const auto withoutMemory = [](const char* format, const std::string& bytes) {
        return [=](S& s) {
            const Held blob = MakeBlob(S::MAGIC, format, bytes);
            const ArmedFault fault(FAULT_ALLOC, 2);
            EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, blob.get()), 0u);
        };
    };
    const std::vector<BookLine<S>> lines = {
        {"Damaged record of %lu bytes, slot at %ld", With(20, 4), 0, -1, damaged("s;", 5)},
        {"Damaged record of %lu bytes, slot at %ld", With(20, 4), 0, -1, damaged("o;", 5)},
        {"Damaged record of %lu bytes, slot at %ld", With(20, 4), 0, -1, damaged("d;", 5)},
        {"Damaged record of %lu bytes, slot at %ld", With(20, 4), 0, -1, damaged("n8;", 5)},
        {"Damaged record of %lu bytes, slot at %ld", With(20, 4), 0, -1,
         damaged("n8;", 9)}, // past the end of the object
        {"Damaged record of %lu bytes, fixed size %lu", With(15, 16), 0, -1,
         [](S& s) { EXPECT_EQ(s.Decode("i;", std::string(15, '\0')), 0u); }},
        {"No memory for %lu bytes", With(2), 0, -1, withoutMemory("s;", text)},
        {"No memory for %lu bytes", With(2), 0, -1, withoutMemory("d;", data)},
        {"Invalid BLOB at '%p'", 0, -1,
         [](S& s) {
             const Instance object(S::MAGIC, "i;");
             EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, object.get()), 0u);
             return With(object.get());
         }},
        {"Invalid BLOB at '%p'", With(nullptr), 0, -1,
         [](S& s) { EXPECT_EQ(DbConvertObjectFromDbFormat(&s.out, nullptr), 0u); }},
    };
    ReadBook(DBLIB, lines);
}

// ---- trees ------------------------------------------------------------------------------------

TEST(FailureMessages, OfTrees)
{
    using S = TreeScene;
    const std::vector<BookLine<S>> lines = {
        {"Cannot use node %ld of field '%s' of table '%s'", With(0, "F0", "Fixture"), 1, -1,
         [](S& s) {
             IndxCursor* pCursor = s.Integers({1}).cursor();
             const ArmedFault fault(FAULT_READ);
             EXPECT_EQ(IndxFirstKey(pCursor), 8);
         }},
        {"Node %ld of field '%s' of table '%s' is damaged", With(0, "F0", "Fixture"), 0, -1,
         [](S& s) {
             uint8_t* pNode = nullptr;
             IndxGetNode(&pNode, s.Integers({1}).cursor(), 0);
             EXPECT_TRUE(IndxSetNodeCount(pNode, -1));
             IndxGetNode(&pNode, s.tree->cursor(), 0);
             EXPECT_EQ(pNode, nullptr);
         }},
        {"Key object of type %lx for field '%s' of table '%s', which wants %lx",
         With(OBJ_MAGIC_STRING, "F0", "Fixture", OBJ_MAGIC_INTEGER), 1, -1,
         [](S& s) {
             const Held text(ObjStringNew("1"));
             EXPECT_EQ(IndxFindKey(s.Integers({1}).cursor(), 0, text.get()), 12);
         }},
        {"Key object of type %lx for field '%s' of table '%s', which wants %lx",
         With(0xffffffff, "F0", "Fixture", OBJ_MAGIC_STRING), 1, -1,
         [](S& s) { EXPECT_EQ(IndxFindKey(s.Texts({"a"}).cursor(), 0, nullptr), 12); }},
        {"Text of %ld bytes at %ld passes the end of a record of %ld bytes", 0, -1,
         [](S& s) {
             IndexFixture& t = s.Texts({});
             TestRecord record({{INDX_KEY_TEXT}}, 9, {TextKey("b")});
             PutU32At(record.bytes, IndexFixture::FIRST_SLOT + 4, 1000);
             EXPECT_EQ(IndxInsertKey(t.cursor(), 0, record.data()), 0u);
             return With(2, 1000, record.data()->size);
         }},
        {"A record of %ld bytes is too short for field '%s' of table '%s'",
         With(12, "F0", "Fixture"), 0, -1,
         [](S& s) {
             IndexFixture& t = s.Texts({});
             char bytes[12] = {};
             const ObjData record = {sizeof bytes, 0, bytes};
             EXPECT_EQ(IndxInsertKey(t.cursor(), 0, &record), 0u);
         }},
    };
    ReadBook(INDX, lines);
}

// ---- tables and records -----------------------------------------------------------------------

class TablesScene : public PeopleScene {
  public:
    ~TablesScene() override { ObjReleaseInternal(&variable); }

    void* variable = nullptr;
    uint32_t version = 0;
    static constexpr uint32_t MAGIC = 0xca333333;

    NimBool OpenAs(const char* name, const char* fileName)
    {
        return IndxOpenTableInternal(
            nullptr, database(), name, fileName, MAGIC, "i;", "Id", 0, INDX_VERSION_NONE);
    }
    // Opens the database again with none of its tables.
    void Empty()
    {
        variable = ListNewFromPool(0, MemGetDefaultPoolId());
        EXPECT_TRUE(Reopen(variable));
    }
    std::string bytes;
};

TEST(FailureMessages, OfTables)
{
    using S = TablesScene;
    const std::vector<BookLine<S>> lines = {
        {"Failed to scan '%s'", 0, -1,
         [](S& s) {
             s.Close();
             s.Fail(FAULT_SCAN);
             EXPECT_FALSE(s.Open());
             return With(s.PathOf("Indexes", "").substr(0, s.PathOf("Indexes", "").size() - 1));
         }},
        {"Damaged description of table '%s' in '%s': %s",
         With("People", "People", "the format makes another record"), 0, -1,
         [](S& s) { // stored as it stands, with a good checksum
             s.table()->fixedSize += 4;
             s.table()->bChanged = TRUE;
             EXPECT_EQ(IndxUpdateTable(s.table_), 1u);
             s.Close();
             EXPECT_TRUE(s.Open());
             EXPECT_EQ(s.TableCount(), 0u);
         }},
        {"'%s' holds table '%s'", With("People", "People"), 0, -1,
         [](S& s) { EXPECT_EQ(s.OpenAs("Other", "People"), 0u); }},
        {"Failed to load table '%s' from '%s'", With("Other", "People"), 0, -1,
         [](S& s) { EXPECT_EQ(s.OpenAs("Other", "People"), 0u); }},
        {"Failed to load table '%s' from '%s'", With("T", "F"), 0, -1,
         [](S& s) {
             WriteFileBytes(s.PathOf("Indexes", "F"), "no block file");
             EXPECT_EQ(s.OpenAs("T", "F"), 0u);
         }},
        {"'%s' holds a table already", With("People"), 0, -1,
         [](S& s) { // its bytes come while the file is made: nothing stood there before
             s.Close();
             s.bytes = ReadFileBytes(s.BlocksPath());
             std::filesystem::remove(s.BlocksPath());
             EXPECT_TRUE(s.Open());
             FileSysSetObserver(
                 [](void* p, uint32_t op, const char* path, int64_t, uint32_t, uint32_t) {
                     if (op == FILE_OP_OPEN && static_cast<S*>(p)->BlocksPath() == path)
                         WriteFileBytes(path, static_cast<S*>(p)->bytes);
                 },
                 &s);
             EXPECT_EQ(s.OpenAs("People", "People"), 0u);
             FileSysSetObserver(nullptr, nullptr);
         }},
        {"Invalid argument", 0, -1,
         [](S& s) { EXPECT_EQ(IndxLoadTable(nullptr, s.database(), nullptr, "T"), 0u); }},
        {"Invalid argument", 0, -1,
         [](S& s) { EXPECT_EQ(IndxRecordsOpen(s.database(), "T"), 0u); }},
        {"Invalid argument", 0, -1,
         [](S& s) { EXPECT_EQ(IndxGetTableVersion(&s.version, "T", s.table_), 0u); }},
    };
    ReadBook(INDX, lines);
}

TEST(FailureMessages, OfRecords)
{
    using S = TablesScene;
    const std::vector<BookLine<S>> lines = {
        {"Not a record of this table", 0, -1,
         [](S& s) {
             char bytes[40] = {}; // the fixed part alone is longer
             ObjData data = {sizeof bytes, 0, bytes};
             EXPECT_EQ(IndxAddRecord(1, s.table_, &data), 0u);
             EXPECT_EQ(IndxError(), 15u);
         }},
        {"Not a record of this table", 0, -1,
         [](S& s) {
             EXPECT_EQ(IndxModifyRecordInTable(s.table_, 0, s.table_), 0u);
             EXPECT_EQ(IndxError(), 15u);
         }},
        {"Magic %lx does not match %lx", With(0xca333333, 0xca222222), 0, -1,
         [](S& s) {
             const Held record = MakeBlob(0xca333333, "i;", std::string(80, '\0'));
             EXPECT_EQ(IndxModifyRecordInTable(s.table_, 0, record.get()), 0u);
             EXPECT_EQ(IndxError(), 18u);
         }},
    };
    ReadBook(INDX, lines);
}

} // namespace
