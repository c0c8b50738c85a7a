// codes_test.cpp: every code of the last error and what sets it; what fails and leaves it as it
// was; every result code that a cursor can have.

#include <filesystem>

#include "database/indexwrappers.h"
#include "people_scene.h"
#include "support/quiet_trace.h"
#include "tree_scene.h"

namespace {

class CodeScene : public PeopleScene {
  public:
    ~CodeScene() override
    {
        ObjReleaseInternal(&variable);
        ObjReleaseInternal(&oNames);
        MemFreeInternal(&data.data);
    }
    void* variable = nullptr;
    void* oNames = nullptr;
    ObjData data = {};
    static constexpr uint32_t SELECTION[8] = {};

    NimBool OpenSmall(
        const char* format, const char* fields, uint32_t version = INDX_VERSION_NONE,
        const char* name = "T")
    {
        return IndxOpenTableInternal(
            nullptr, database(), name, name, 0xca333333, format, fields, 0, version);
    }
    NimBool AddPerson(uint32_t n, size_t nameLength = 0)
    {
        Person person = MakePerson(n, nameLength);
        return Add(table_, &person);
    }
    // Replaces record 1, at offset 0, by a longer one that has person `n`'s name.
    NimBool Modify(uint32_t n, uint32_t id = 1)
    {
        Person person = MakePerson(n, 100);
        person.id = id;
        return IndxModifyRecordInTable(table_, 0, BlobOf(person).get());
    }
    // A cursor on record 1, whose record has moved and changed its name since.
    void LeaveBehind(const Cursor& cursor)
    {
        MustAdd(1);
        MustAdd(2);
        EXPECT_EQ(IndxFindKey(cursor.get(), 1, nullptr), 6);
        EXPECT_EQ(Modify(7), 1u);
    }
    // Opens a database in a home where something is in the way.
    NimBool OpenOver(const std::string& obstacle)
    {
        const std::string home = directory().path("else");
        const std::filesystem::path path = home + obstacle;
        std::filesystem::create_directories(path.parent_path());
        WriteFileBytes(path.string(), "in the way");
        DbSetClusteredMode(1);
        const NimBool bOpened = IndxOpenDatabase(&variable, "D", nullptr, home.c_str());
        DbSetClusteredMode(0);
        return bOpened;
    }
    static Held OtherRecord() { return MakeBlob(0xca555555, "i;", std::string(80, '\0')); }
};
using S = CodeScene;

struct CodeLine {
    const char* what;
    uint32_t code; // afterwards
    std::function<NimBool(S&)> drive;
};
constexpr uint32_t SAME = S::UNTOUCHED;

// Drives every line in a scene of its own: the operation fails, and the code is what is said.
void ReadCodes(const std::vector<CodeLine>& lines)
{
    for (const CodeLine& line : lines) {
        SCOPED_TRACE(line.what);
        const QuietTrace quiet;
        LogRecorder log;
        S scene;
        EXPECT_EQ(IndxError(), SAME);
        EXPECT_EQ(line.drive(scene), 0u);
        EXPECT_EQ(IndxError(), line.code);
    }
}

TEST(LastError, OfDefinitionsAndOpenings)
{
    ReadCodes({
        {"no argument", 15,
         [](S& s) {
             return IndxOpenTableInternal(nullptr, s.database(), "T", nullptr, 1, "i;", "Id", 0, 5);
         }},
        {"no database", 15,
         [](S& s) { return IndxOpenTableInternal(nullptr, s.table_, "T", "T", 1, "", "", 0, 5); }},
        {"no name", 15,
         [](S& s) { return IndxOpenExistingTable(nullptr, s.database(), nullptr, 0); }},
        {"empty format", 19, [](S& s) { return s.OpenSmall("", "Id"); }},
        {"empty fields", 20, [](S& s) { return s.OpenSmall("i;", ""); }},
        {"empty name", 21, [](S& s) { return s.OpenSmall("i;i;", "Id,"); }},
        {"empty name before flags and comma", 21, [](S& s) { return s.OpenSmall("i;i;", " ,Id"); }},
        {"the same name twice", 23, [](S& s) { return s.OpenSmall("i;i;", "Id,ID"); }},
        {"a text as id", 24, [](S& s) { return s.OpenSmall("s;", "Id"); }},
        {"a transient object", 24, [](S& s) { return s.OpenSmall("i;ol;", "Id,A"); }},
        {"a transient text", 24, [](S& s) { return s.OpenSmall("i;sl;", "Id,A"); }},
        {"another format", 25,
         [](S& s) {
             return IndxOpenTableInternal(
                 nullptr, s.database(), S::TABLE, S::TABLE, S::PERSON_MAGIC, "i;", "Id", 0,
                 INDX_VERSION_ANY);
         }},
        {"another magic", 25,
         [](S& s) {
             return IndxOpenTableInternal(
                 nullptr, s.database(), S::TABLE, S::TABLE, 0xca333333, S::FORMAT, S::FIELDS, 0,
                 INDX_VERSION_ANY);
         }},
        {"two separators of flags", 30,
         [](S& s) { return s.OpenSmall("i;i;", "Id,a;Indexed;;Unique"); }},
        {"a separator at the end", 30, [](S& s) { return s.OpenSmall("i;i;", "Id,a;Indexed;"); }},
        {"a flag of blanks", 30, [](S& s) { return s.OpenSmall("i;i;", "Id,a; \t;Indexed"); }},
        {"an unknown flag", 31, [](S& s) { return s.OpenSmall("i;i;", "Id,a;Sorted"); }},
        {"a flag with more behind it", 31,
         [](S& s) { return s.OpenSmall("i;i;", "Id,a;Indexed1"); }},
    });
}

TEST(LastError, OfDirectories)
{
    ReadCodes({
        {"the home is a file", 28, [](S& s) { return s.OpenOver(""); }},
        {"the database is a file", 28, [](S& s) { return s.OpenOver("/D"); }},
        {"Indexes is a file", 29, [](S& s) { return s.OpenOver("/D/Indexes"); }},
        {"Records is a file", 29, [](S& s) { return s.OpenOver("/D/Records"); }},
        {"Files is a file", 29, [](S& s) { return s.OpenOver("/D/Files"); }},
        {"Attributes is a file", 29, [](S& s) { return s.OpenOver("/D/Attributes"); }},
        {"the home cannot be made", 28,
         [](S& s) {
             s.Close();
             std::filesystem::remove_all(s.HomePath());
             s.Fail(FAULT_MKDIR);
             return static_cast<NimBool>(s.Open("D"));
         }},
    });
}

TEST(LastError, OfFieldsAndCursors)
{
    ReadCodes({
        {"no such field", 5, [](S& s) { return IndxGetField(&s.variable, s.table_, "Shoe"); }},
        {"a cursor on no such field", 5,
         [](S& s) { return IndxGetFieldCursor(&s.variable, s.table_, "Shoe"); }},
        {"not indexed", 6, [](S& s) { return IndxGetCursor(&s.variable, s.Field(s.table_, 6)); }},
        {"no variable", 15, [](S& s) { return IndxGetCursor(nullptr, s.Field(s.table_, 1)); }},
        {"no field", 15, [](S& s) { return IndxGetCursor(&s.variable, s.table_); }},
    });
}

TEST(LastError, OfRecords)
{
    ReadCodes({
        {"the end cannot be found", 12,
         [](S& s) {
             s.Fail(FAULT_SEEKEND);
             return s.AddPerson(1);
         }},
        {"a record cannot be sought", 12,
         [](S& s) { return IndxRetriveRecord(&s.data, s.table_, 0x80000000); }},
        {"its fixed part cannot be sought", 12,
         [](S& s) { return IndxRetrivePartialRecord(&s.data, s.table_, 0x80000000, nullptr); }},
        {"a header is not there", 13, [](S& s) { return IndxRetriveRecord(&s.data, s.table_, 0); }},
        {"a record is not there whole", 13,
         [](S& s) {
             s.MustAdd(1);
             s.WithRecordsFile([](std::string& bytes) { bytes.resize(bytes.size() - 1); });
             return IndxRetriveRecord(&s.data, s.table_, 0);
         }},
        {"a fixed part is not there", 13,
         [](S& s) { return IndxRetrivePartialRecord(&s.data, s.table_, 0, nullptr); }},
        {"a field cannot be read", 13,
         [](S& s) {
             s.MustAdd(1);
             s.Fail(FAULT_READ, 2, 1, "Records");
             return IndxRetrivePartialRecord(&s.data, s.table_, 0, S::SELECTION);
         }},
        {"the record of a modification cannot be read", 13, [](S& s) { return s.Modify(1); }},
        {"a key is there already", 14,
         [](S& s) {
             s.MustAdd(1);
             return s.AddPerson(1);
         }},
        {"a key is too long", 14, [](S& s) { return s.AddPerson(1, 8168); }},
        {"a record cannot be written", 14,
         [](S& s) {
             s.Fail(FAULT_WRITE, 1, 1, "Records");
             return s.AddPerson(1);
         }},
        {"a modified record cannot be written", 14,
         [](S& s) {
             s.MustAdd(1);
             const FaultRule rule = {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_FULL, 0};
             FaultArm(&rule);
             return s.Modify(7);
         }},
        {"no variable for a partial record", 15,
         [](S& s) { return IndxGetPartialRecord(nullptr, s.table_, 0, nullptr); }},
        {"no table for a partial record", 15,
         [](S& s) { return IndxGetPartialRecord(&s.variable, nullptr, 0, nullptr); }},
        {"no cursor for a partial record", 15,
         [](S& s) { return IndxGetPartialRecordAtCursor(&s.variable, s.table_, nullptr); }},
        {"no cursor for a partial object", 15,
         [](S& s) { return IndxGetPartialObjectAtCursor(&s.variable, nullptr, nullptr); }},
        {"a cursor without a key for a partial object", 15,
         [](S& s) {
             const S::Cursor cursor(s.table_, "Id");
             return IndxGetPartialObjectAtCursor(&s.variable, cursor.get(), nullptr);
         }},
        {"a record of another type", 18,
         [](S& s) { return IndxAddRecordToTable(nullptr, s.table_, s.OtherRecord().get()); }},
        {"a record of another type to be set", 18,
         [](S& s) { return IndxSetRecordInTable(1, s.table_, s.OtherRecord().get()); }},
        {"another record's id", 33,
         [](S& s) {
             s.MustAdd(1);
             return s.Modify(7, 2);
         }},
    });
}

TEST(LastError, StaysWhenAnOpeningFailsWithoutACodeOfItsOwn)
{
    ReadCodes({
        {"no variable for a database", SAME,
         [](S&) { return IndxOpenDatabase(nullptr, "D", nullptr, nullptr); }},
        {"no name of a database", SAME,
         [](S& s) { return IndxOpenDatabase(&s.variable, nullptr, nullptr, nullptr); }},
        {"table names that are no list", SAME,
         [](S& s) { return IndxOpenDatabase(&s.variable, "D", s.table_, nullptr); }},
        {"table names that are no texts", SAME,
         [](S& s) {
             s.oNames = ListNewFromPool(OBJ_MAGIC_INTEGER, MemGetDefaultPoolId());
             return IndxOpenDatabase(&s.variable, "D", s.oNames, nullptr);
         }},
        {"nothing to close", SAME, [](S& s) { return IndxCloseDatabase(&s.variable); }},
        {"no table to close", SAME, [](S& s) { return IndxCloseTable(&s.variable); }},
        {"no table to release", SAME, [](S& s) { return IndxReleaseTable(&s.variable); }},
        {"a format that is none", SAME, [](S& s) { return s.OpenSmall("x;", "Id"); }},
        {"no id", SAME, [](S& s) { return s.OpenSmall("i;i;", "A,B"); }},
        {"fewer names", SAME, [](S& s) { return s.OpenSmall("i;i;", "Id"); }},
        {"more names", SAME, [](S& s) { return s.OpenSmall("i;", "Id,A"); }},
        {"a comma at the end", SAME, [](S& s) { return s.OpenSmall("i;", "Id,"); }},
        {"too large", SAME,
         [](S& s) {
             const std::string name(16128, 'x');
             return s.OpenSmall("i;i;", ("Id," + name).c_str());
         }},
        {"a version that cannot be read", SAME,
         [](S& s) {
             EXPECT_EQ(s.OpenSmall("i;", "Id", 5), 1u);
             s.Fail(FAULT_STNZ_LOAD);
             return s.OpenSmall("i;", "Id", 5);
         }},
        {"another version", SAME,
         [](S& s) {
             EXPECT_EQ(s.OpenSmall("i;", "Id", 5), 1u);
             return s.OpenSmall("i;", "Id", 6);
         }},
        {"a version that cannot be written", SAME,
         [](S& s) {
             s.Fail(FAULT_STNZ_SAVE);
             return s.OpenSmall("i;", "Id", 5);
         }},
        {"a table that is not there yet", SAME,
         [](S& s) { return IndxOpenExistingTable(nullptr, s.database(), "T", 0); }},
        {"a table that is listed already", SAME,
         [](S& s) { return IndxLoadTable(nullptr, s.database(), S::TABLE, S::TABLE); }},
        {"a block file that was refused", SAME,
         [](S& s) {
             s.Fail(FAULT_OPEN, 1, 0, "Indexes");
             return s.OpenSmall("i;", "Id");
         }},
        {"a description that was not stored", SAME,
         [](S& s) {
             s.table()->bChanged = TRUE;
             s.Fail(FAULT_SERIALIZE);
             return IndxUpdateTable(s.table_);
         }},
    });
}

TEST(LastError, StaysWhenARecordOperationFailsWithoutACodeOfItsOwn)
{
    ReadCodes({
        {"no field asked for", SAME,
         [](S& s) { return IndxGetField(&s.variable, s.table_, nullptr); }},
        {"a field of no table", SAME,
         [](S& s) { return IndxGetField(&s.variable, s.database(), "Id"); }},
        {"a cursor on no table", SAME,
         [](S& s) { return IndxGetFieldCursor(&s.variable, nullptr, "Id"); }},
        {"a cursor on no field", SAME,
         [](S& s) { return IndxGetFieldCursor(&s.variable, s.table_, nullptr); }},
        {"no cursor to release", SAME, [](S& s) { return IndxReleaseCursor(&s.variable); }},
        {"no record to add", SAME,
         [](S& s) { return IndxAddRecordToTable(nullptr, s.table_, s.table_); }},
        {"no record to set", SAME, [](S& s) { return IndxSetRecordInTable(1, s.table_, nullptr); }},
        {"a companion file that cannot be made", SAME,
         [](S& s) {
             void* oTable = s.OpenPeople(1, "Docs");
             Person person = MakePerson(1);
             s.Fail(FAULT_OPEN, 1, 0, "Files");
             return s.Add(oTable, &person);
         }},
        {"the name of a companion file that cannot be made", SAME,
         [](S& s) {
             void* oTable = s.OpenPeople(1, "Docs");
             Person person = MakePerson(1);
             s.Fail(FAULT_MKDIR, 1, 0, "Files");
             return s.Add(oTable, &person);
         }},
        {"an object that cannot be encoded", SAME,
         [](S& s) {
             void* oTable = s.OpenTable("P", 0xca444444, "i;p;", "Id,P");
             const Instance object(0xca444444, "i;p;");
             return IndxAddObjectToTable(nullptr, oTable, object.get());
         }},
        {"an object of another type", SAME,
         [](S& s) {
             const CrashRecorder crash;
             return IndxAddObjectToTable(nullptr, s.table_, nullptr);
         }},
        {"a cursor that is on no key", SAME,
         [](S& s) {
             const S::Cursor cursor(s.table_, "Id");
             return IndxGetObjectAtCursor(&s.variable, cursor.get()) |
                    IndxGetRecordAtCursor(&s.variable, cursor.get());
         }},
        {"a field without a known type", SAME,
         [](S& s) {
             s.MustAdd(1);
             s.Field(s.table_, 7)->type = 11;
             const NimBool bRead = IndxRetrivePartialRecord(&s.data, s.table_, 0, S::SELECTION);
             s.Field(s.table_, 7)->type = INDX_FIELD_BOOLEAN;
             return bRead;
         }},
        {"no names to select", SAME,
         [](S& s) {
             uint32_t* pSelected = nullptr;
             return IndxGetSelected(&pSelected, s.table_, nullptr);
         }},
        {"no table to select of", SAME,
         [](S& s) {
             uint32_t* pSelected = nullptr;
             return IndxGetSelectedByName(&pSelected, s.database(), "T", nullptr);
         }},
        {"no such field number", SAME,
         [](S& s) {
             uint32_t number = 0;
             return IndxGetFieldNumber(&number, s.table_, "Shoe");
         }},
        {"no such position", SAME,
         [](S& s) {
             int32_t type = 0;
             return IndxGetFieldTypeByNumber(&type, s.table_, 8);
         }},
        {"a modification whose place cannot be sought", SAME,
         [](S& s) {
             s.MustAdd(1);
             s.Fail(FAULT_SEEK, 2, 1, "Records");
             return s.Modify(7);
         }},
        {"a modification whose end cannot be sought", SAME,
         [](S& s) {
             s.MustAdd(1);
             s.MustAdd(2);
             s.Fail(FAULT_SEEKEND, 1, 1, "Records");
             return s.Modify(7);
         }},
        {"a modification whose key is refused", SAME,
         [](S& s) {
             s.MustAdd(1);
             s.MustAdd(2);
             Person person = MakePerson(2);
             person.id = 1;
             return IndxModifyRecordInTable(s.table_, 0, s.BlobOf(person).get());
         }},
        {"a modification without a cursor", SAME,
         [](S& s) { return IndxModifyObjectAtCursor(nullptr, s.table_); }},
        {"a modification of a key that is not there", SAME,
         [](S& s) {
             const S::Cursor cursor(s.table_, "Id");
             s.LeaveBehind(cursor);
             return s.Modify(8); // what lies at its old place is no longer indexed
         }},
        {"a deletion without a cursor", SAME, [](S&) { return IndxDeleteRecord(nullptr); }},
        {"a deletion of a key that is not there", SAME,
         [](S& s) {
             const S::Cursor cursor(s.table_, "Id");
             s.LeaveBehind(cursor);
             return IndxDeleteRecord(cursor.get());
         }},
        {"no path for id 0", SAME,
         [](S& s) {
             char* path = nullptr;
             return IndxGetFilePath(&path, s.table_, 0);
         }},
        {"a path whose directory cannot be made", SAME,
         [](S& s) {
             char* path = nullptr;
             s.Fail(FAULT_MKDIR, 1, 0, "Files");
             return IndxGetFilePath(&path, s.table_, 1);
         }},
        {"no list of no table", SAME, [](S& s) { return IndxGetFileList(&s.variable, nullptr); }},
        {"a walk of nothing", SAME,
         [](S& s) { return IndxWalkTable(s.table_, nullptr, nullptr, nullptr); }},
        {"a key that is not there", SAME,
         [](S& s) { return IndxDeleteObjectFromTable(s.table_, "Id", 5, nullptr); }},
        {"an object that is not there", SAME,
         [](S& s) { return IndxModifyObject(s.table_, s.ObjectOf(MakePerson(1)).get()); }},
    });
}

// ---- result codes -----------------------------------------------------------------------------

struct ResultLine {
    const char* what;
    int32_t code;
    std::function<int32_t(TreeScene&)> drive;
};

TEST(ResultCode, OfCursors)
{
    using T = TreeScene;
    const std::vector<ResultLine> lines = {
        {"an empty text is looked for", 1,
         [](T& t) { return t.Texts({"a"}).Find(0, BytesKey(std::string(1, '\0'))); }},
        {"an absent text is looked for", 1,
         [](T& t) {
             void* oKey = ObjStringNew(nullptr);
             const int32_t code = IndxFindKey(t.Texts({"a"}).cursor(), 0, oKey);
             ObjReleaseInternal(&oKey);
             return code;
         }},
        {"a record has no text", 1,
         [](T& t) {
             EXPECT_FALSE(t.Texts({"a"}).Add(9, BytesKey("")));
             return t.tree->cursor()->result;
         }},
        {"too long a text is looked for", 2,
         [](T& t) { return t.Texts({"a"}).Find(0, SizedKey("a", 8169)); }},
        {"a record has too long a text", 2,
         [](T& t) {
             EXPECT_FALSE(t.Texts({"a"}).Add(9, SizedKey("a", 8169)));
             return t.tree->cursor()->result;
         }},
        {"a record's text has a negative length", 3,
         [](T& t) {
             IndexFixture& tree = t.Texts({"a"});
             TestRecord record({{INDX_KEY_TEXT}}, 9, {TextKey("b")});
             record.bytes[IndexFixture::FIRST_SLOT + 3] = '\x80';
             EXPECT_EQ(IndxInsertKey(tree.cursor(), 0, record.data()), 0u);
             return tree.cursor()->result;
         }},
        {"a key type that cannot be looked for", 5, [](T& t) { return t.Make(99).Find(0, {}); }},
        {"a record's field must not be keyed", 5,
         [](T& t) {
             const CrashRecorder crash;
             EXPECT_FALSE(t.Make(INDX_KEY_FORBIDDEN).Add(1, {}));
             EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0}));
             return t.tree->cursor()->result;
         }},
        {"found", 6, [](T& t) { return t.Integers({5}).Find(1, NumberKey(5)); }},
        {"any record with the value", 6,
         [](T& t) { return t.Integers({5}).Find(0, NumberKey(5)); }},
        {"entered already", 6,
         [](T& t) {
             EXPECT_FALSE(t.Integers({5}, true).Add(2, NumberKey(5)));
             return t.tree->cursor()->result;
         }},
        {"the first key", 6, [](T& t) { return IndxFirstKey(t.Integers({5}).cursor()); }},
        {"not found", 7, [](T& t) { return t.Integers({5}).Find(1, NumberKey(4)); }},
        {"not found in an empty index", 7,
         [](T& t) { return t.Integers({}).Find(1, NumberKey(4)); }},
        {"no further matching key", 7,
         [](T& t) {
             IndxFirstKey(t.Integers({5, 6}).cursor());
             return IndxNextMatchingKey(t.tree->cursor());
         }},
        {"not there to be deleted", 7,
         [](T& t) {
             EXPECT_FALSE(t.Integers({5}).Remove(2, NumberKey(5)));
             return t.tree->cursor()->result;
         }},
        {"nothing there to be deleted", 7,
         [](T& t) {
             EXPECT_FALSE(t.Integers({}).Remove(2, NumberKey(5)));
             return t.tree->cursor()->result;
         }},
        {"no key in that direction", 8,
         [](T& t) {
             IndxLastKey(t.Integers({5}).cursor());
             return IndxNextKey(t.tree->cursor());
         }},
        {"no key before the first", 8,
         [](T& t) {
             IndxFirstKey(t.Integers({5}).cursor());
             return IndxPreviousKey(t.tree->cursor());
         }},
        {"a cursor that stands nowhere yet", 9,
         [](T& t) {
             t.Integers({5}).cursor()->status = 0;
             return IndxNextKey(t.tree->cursor());
         }},
        {"the same, backward", 9,
         [](T& t) {
             t.Integers({5}).cursor()->status = 0;
             return IndxPreviousKey(t.tree->cursor());
         }},
        {"no cursor", 11, [](T&) { return IndxFindKey(nullptr, 1, nullptr); }},
        {"another object", 11, [](T& t) { return IndxNextKey(t.Integers({}).table()); }},
        {"no cursor, first", 11, [](T&) { return IndxFirstKey(nullptr); }},
        {"no cursor, last", 11, [](T&) { return IndxLastKey(nullptr); }},
        {"no cursor, previous", 11, [](T&) { return IndxPreviousKey(nullptr); }},
        {"no cursor, matching", 11, [](T&) { return IndxNextMatchingKey(nullptr); }},
        {"no cursor, current", 11, [](T&) { return IndxCurrentKey(nullptr); }},
        {"no key object", 12,
         [](T& t) { return IndxFindKey(t.Integers({5}).cursor(), 1, nullptr); }},
        {"a key object of another type", 12,
         [](T& t) {
             void* oKey = ObjInt64New(5);
             const int32_t code = IndxFindKey(t.Integers({5}).cursor(), 1, oKey);
             ObjReleaseInternal(&oKey);
             return code;
         }},
    };
    for (const ResultLine& line : lines) {
        SCOPED_TRACE(line.what);
        const QuietTrace quiet;
        TreeScene scene;
        EXPECT_EQ(line.drive(scene), line.code);
        if (scene.tree && line.code != INDX_RESULT_CURSOR) {
            EXPECT_EQ(scene.tree->cursor()->result, line.code);
        }
    }
}

TEST(ResultCode, OfTheEndsIsTrueOrFalse)
{
    TreeScene scene;
    IndxCursor* pCursor = scene.Integers({5}).cursor();
    EXPECT_EQ(IndxCursorBOI(pCursor), 1u);
    EXPECT_EQ(pCursor->result, 8);
    EXPECT_EQ(IndxCursorEOI(pCursor), 1u);
    EXPECT_EQ(pCursor->result, 8);
    EXPECT_EQ(IndxCursorBOI(nullptr), 0u);
    EXPECT_EQ(IndxCursorEOI(scene.tree->table()), 0u);
}

} // namespace
