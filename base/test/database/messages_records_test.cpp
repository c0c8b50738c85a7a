// messages_records_test.cpp: every message of the rows - whole records, partial reads, modification
// and deletion, companion files - with its level and error flag, and their messages of the product
// log.

#include <filesystem>

#include "database/indexwrappers.h"
#include "message_book.h"
#include "people_scene.h"
#include "support/armed_fault.h"

namespace {

constexpr const char* INDX = "INDX        ";

// The scene of the people, and what the lines here need of it.
class RecordsScene : public PeopleScene {
  public:
    ~RecordsScene() override { ObjReleaseInternal(&variable); }

    void* variable = nullptr;
    ObjData data = {};

    // A record of a person that fits the table, and its bytes.
    Held Record(uint32_t n) { return BlobOf(MakePerson(n)); }
    static ObjData* Bytes(const Held& record) { return &static_cast<DbBlob*>(record.get())->data; }

    NimBool AddPerson(uint32_t n)
    {
        Person person = MakePerson(n);
        return Add(table_, &person);
    }
    // Two people that have the same unique name: the second is refused.
    void AddTwice()
    {
        MustAdd(1);
        EXPECT_EQ(AddPerson(1), 0u);
    }
    // Adds to a table whose records get companion files.
    NimBool AddWithFile()
    {
        void* oTable = OpenPeople(1, "Docs");
        Person person = MakePerson(1);
        return Add(oTable, &person);
    }
    // Replaces the record of id 1 by that of person `n`, under its own id.
    NimBool Modify(uint32_t n, uint32_t offset = 0)
    {
        Person person = MakePerson(n, 100);
        person.id = 1;
        return IndxModifyRecordInTable(table_, offset, BlobOf(person).get());
    }
    // A cursor on record 1, whose record has moved and changed its name since.
    void LeaveBehind(const Cursor& cursor)
    {
        MustAdd(1);
        MustAdd(2);
        EXPECT_EQ(IndxFindKey(cursor.get(), 1, nullptr), 6);
        EXPECT_EQ(Modify(7), 1u);
    }
    NimBool Partial(uint32_t offset, const uint32_t* pSelected)
    {
        const NimBool bRead = IndxRetrivePartialRecord(&data, table_, offset, pSelected);
        MemFreeInternal(&data.data);
        return bRead;
    }
    static constexpr uint32_t SELECTION[8] = {};
};
using S = RecordsScene;

// ---- adding -----------------------------------------------------------------------------------

TEST(RecordMessages, AddingRecords)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxAddRecordInternal(%ld, %p %p, %s)", 0, 4,
         [](S& s) {
             const Held record = s.Record(1);
             EXPECT_EQ(IndxAddRecord(7, s.table_, S::Bytes(record)), 1u);
             EXPECT_EQ(IndxUpdateTable(s.table_), 1u);
             return With(7, s.table_, S::Bytes(record), "TRUE");
         }},
        {"IndxAddRecordInternal(%ld, %p %p, %s)", 0, 4,
         [](S& s) {
             const Held record = s.Record(1);
             EXPECT_EQ(IndxAddRecordOnly(7, s.table_, S::Bytes(record)), 1u);
             EXPECT_EQ(IndxUpdateTable(s.table_), 1u);
             return With(7, s.table_, S::Bytes(record), "FALSE");
         }},
        {"Index at Offset %ld", With(4), 0, 4, [](S& s) { s.MustAdd(1); }},
        {"Failed to seek to record", 0, -1,
         [](S& s) {
             s.Fail(FAULT_SEEKEND, 1, 1, "Records");
             EXPECT_EQ(s.AddPerson(1), 0u);
         }},
        {"Failed to insert key", 0, -1, [](S& s) { s.AddTwice(); }},
        {"Failed to update indices", 0, -1, [](S& s) { s.AddTwice(); }},
        {"Failed to write record", 0, -1,
         [](S& s) {
             s.Fail(FAULT_WRITE, 1, 1, "Records");
             EXPECT_EQ(s.AddPerson(1), 0u);
         }},
        {"Failed to create file name", 0, -1,
         [](S& s) {
             s.Fail(FAULT_MKDIR, 1, 0, "Files");
             EXPECT_EQ(s.AddWithFile(), 0u);
         }},
        {"Failed to create file", 0, -1,
         [](S& s) {
             s.Fail(FAULT_OPEN, 1, 0, "Files");
             EXPECT_EQ(s.AddWithFile(), 0u);
         }},
        {"%s = IndxAddRecordToTable(%p, %p, %p)", 0, 4,
         [](S& s) {
             const Held record = s.Record(1);
             uint32_t id = 0;
             EXPECT_EQ(IndxAddRecordToTable(&id, s.table_, record.get()), 1u);
             return With("TRUE", &id, s.table_, record.get());
         }},
        {"%s = IndxAddRecordToTable(%p, %p, %p)", With("FALSE", nullptr, nullptr, nullptr), 0, 4,
         [](S&) { EXPECT_EQ(IndxAddRecordToTable(nullptr, nullptr, nullptr), 0u); }},
        {"New record id is %ld", With(2), 0, 4,
         [](S& s) {
             s.MustAdd(1);
             s.MustAdd(2);
         }},
        {"Magic %lx does not match %lx", With(0xca333333, 0xca222222), 0, -1,
         [](S& s) {
             const Held record = MakeBlob(0xca333333, "i;", std::string(80, '\0'));
             EXPECT_EQ(IndxAddRecordToTable(nullptr, s.table_, record.get()), 0u);
         }},
        {"%s = IndxSetRecordInTable(%ld, %p, %p)", 0, 4,
         [](S& s) {
             const Held record = s.Record(1);
             EXPECT_EQ(IndxSetRecordInTable(9, s.table_, record.get()), 1u);
             return With("TRUE", 9, s.table_, record.get());
         }},
        {"%s = IndxSetRecordInTable(%ld, %p, %p)", With("FALSE", 9, nullptr, nullptr), 0, 4,
         [](S&) { EXPECT_EQ(IndxSetRecordInTable(9, nullptr, nullptr), 0u); }},
        {"Magic %lx for record to set does not match %lx", With(0xca333333, 0xca222222), 0, -1,
         [](S& s) {
             const Held record = MakeBlob(0xca333333, "i;", std::string(80, '\0'));
             EXPECT_EQ(IndxSetRecordInTable(9, s.table_, record.get()), 0u);
         }},
        {"Incorrect object type (%s)", With("Integer"), 0, -1,
         [](S& s) {
             s.variable = ObjIntegerNew(1);
             EXPECT_EQ(IndxAddObjectToTable(nullptr, s.table_, s.variable), 0u);
         },
         1},
        {"Table holds type (%s)", With("magic 0xca222222"), 0, -1,
         [](S& s) { EXPECT_EQ(IndxAddObjectToTable(nullptr, s.table_, nullptr), 0u); }, 1},
        {"Failed to convert object to db format", 0, -1,
         [](S& s) { // a pointer cannot be stored
             void* oTable = s.OpenTable("P", 0xca444444, "i;p;", "Id,P");
             const Instance object(0xca444444, "i;p;");
             EXPECT_EQ(IndxAddObjectToTable(nullptr, oTable, object.get()), 0u);
         }},
    };
    ReadBook(INDX, lines);
}

// ---- reading ----------------------------------------------------------------------------------

TEST(RecordMessages, ReadingRecords)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxRetriveRecord(%p, %p, %ld)", With(At(&S::data), &S::table_, 0), 0, 4,
         [](S& s) {
             s.MustAdd(1);
             EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 0), 1u);
             MemFreeInternal(&s.data.data);
         }},
        {"Failed to seek to record at %ld in table '%s'", With(-2147483648, "People"), 0, -1,
         [](S& s) { EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 0x80000000), 0u); }},
        {"Failed to seek to record at %ld in table '%s'", With(5, "(null)"), 0, -1,
         [](S& s) {
             MemFree(s.table()->name);
             s.Fail(FAULT_SEEK);
             EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 5), 0u);
         }},
        {"Failed to retrive record header at %ld from table '%s'", With(3, "People"), 0, -1,
         [](S& s) { EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 3), 0u); }},
        {"Failed to retrive %ld byte record at %ld from table '%s'", With(4000, 0, "People"), 0, -1,
         [](S& s) {
             s.MustAdd(1);
             s.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 0, 4000); });
             EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 0), 0u);
         }},
        {"Table %s: Cursor Key id %ld does not match record at %ld with id %ld",
         With("People", 1, 0, 8), 0, -1,
         [](S& s) {
             s.MustAdd(1);
             s.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 4, 8); });
             const S::Cursor cursor(s.table_, "Id");
             EXPECT_EQ(IndxFirstKey(cursor.get()), 6);
             EXPECT_EQ(IndxGetObjectAtCursor(&s.variable, cursor.get()), 0u);
         },
         1},
    };
    ReadBook(INDX, lines);
}

TEST(RecordMessages, PartialReads)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxRetrivePartialRecord(%p, %p, %ld, %p)",
         With(At(&S::data), &S::table_, 0, S::SELECTION), 0, 4,
         [](S& s) {
             s.MustAdd(1);
             EXPECT_EQ(s.Partial(0, S::SELECTION), 1u);
         }},
        {"%s = IndxRetrivePartialRecord(%p, %p, %ld, %p)",
         With("TRUE", At(&S::data), &S::table_, 0, S::SELECTION), 0, 4,
         [](S& s) {
             s.MustAdd(1);
             EXPECT_EQ(s.Partial(0, S::SELECTION), 1u);
         }},
        {"%s = IndxRetrivePartialRecord(%p, %p, %ld, %p)",
         With("FALSE", At(&S::data), &S::table_, 7, nullptr), 0, 4,
         [](S& s) { EXPECT_EQ(s.Partial(7, nullptr), 0u); }},
        {"Failed to seek to record", 0, -1,
         [](S& s) {
             s.Fail(FAULT_SEEK);
             EXPECT_EQ(s.Partial(0, nullptr), 0u);
         }},
        {"Failed to read fixed part of record", 0, -1,
         [](S& s) { EXPECT_EQ(s.Partial(0, nullptr), 0u); }},
        {"There are %ld bytes of variable data", With(22), 0, 4,
         [](S& s) { // "Name 00000001", "Town 0" and one byte of a photo
             s.MustAdd(1);
             EXPECT_EQ(s.Partial(0, S::SELECTION), 1u);
         }},
        {"There are %ld bytes of variable data", With(0), 0, 4,
         [](S& s) { // without a selection none are counted
             s.MustAdd(1);
             EXPECT_EQ(s.Partial(0, nullptr), 1u);
         }},
        {"Read %ld byte field", With(14), 0, 4,
         [](S& s) {
             s.MustAdd(1);
             EXPECT_EQ(s.Partial(0, S::SELECTION), 1u);
         }},
        {"Failed to read %ld bytes", With(14), 0, -1,
         [](S& s) {
             s.MustAdd(1);
             s.Fail(FAULT_READ, 2, 1, "Records");
             EXPECT_EQ(s.Partial(0, S::SELECTION), 0u);
         }},
        {"Skip %ld byte field", With(14), 0, 4,
         [](S& s) { // the step of one field, run without a selection
             uint8_t bytes[S::FIXED_SIZE] = {};
             bytes[8] = 14;
             IndxPartialRead read = {s.table(), nullptr, bytes, S::FIXED_SIZE, S::FIXED_SIZE, 0};
             EXPECT_EQ(IndxReadPartialField(&read, s.Field(s.table_, 1)), 1u);
         }},
    };
    ReadBook(INDX, lines);
}

// ---- modifying and deleting -------------------------------------------------------------------

TEST(RecordMessages, ModifyingRecords)
{
    const std::vector<BookLine<S>> lines = {
        {"No record %ld in table '%s' to modify", With(5, "People"), 0, -1,
         [](S& s) {
             Person person = MakePerson(1);
             person.id = 5;
             EXPECT_EQ(IndxModifyObject(s.table_, s.ObjectOf(person).get()), 0u);
         }},
        {"Failed to modify record %ld at %ld in table '%s'", With(1, 0, "People"), 0, -1,
         [](S& s) { // a cursor whose record has been deleted
             s.MustAdd(1);
             const S::Cursor cursor(s.table_, "Id");
             EXPECT_EQ(IndxFindKey(cursor.get(), 1, nullptr), 6);
             EXPECT_EQ(IndxDeleteObjectFromTable(s.table_, "Id", 1, nullptr), 1u);
             Person person = MakePerson(1);
             person.id = 1;
             EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), s.ObjectOf(person).get()), 0u);
         }},
        {"Record of type (%s) for table '%s', which holds type (%s)",
         With("magic 0xca333333", "People", "magic 0xca222222"), 0, -1,
         [](S& s) {
             const Held record = MakeBlob(0xca333333, "i;", std::string(80, '\0'));
             EXPECT_EQ(IndxModifyRecordInTable(s.table_, 0, record.get()), 0u);
         }},
        {"Old Id %ld does not match new Id %ld", With(1, 5), 0, -1,
         [](S& s) {
             s.MustAdd(1);
             Person person = MakePerson(1);
             person.id = 5;
             EXPECT_EQ(IndxModifyRecordInTable(s.table_, 0, s.BlobOf(person).get()), 0u);
         }},
        {"Error failed to seek to write position", 0, -1,
         [](S& s) { // the only record stays in place; the first seek is that of the read
             s.MustAdd(1);
             s.Fail(FAULT_SEEK, 2, 1, "Records");
             EXPECT_EQ(s.Modify(7), 0u);
         }},
        {"Error failed to seek to end of file", 0, -1,
         [](S& s) {
             s.MustAdd(1);
             s.MustAdd(2);
             s.Fail(FAULT_SEEKEND, 1, 1, "Records");
             EXPECT_EQ(s.Modify(7), 0u);
         }},
        {"Error failed to delete old key", 0, -1,
         [](S& s) { // what lies at offset 0 is no longer the record
             const S::Cursor cursor(s.table_, "Id");
             s.LeaveBehind(cursor);
             EXPECT_EQ(s.Modify(8), 0u);
         }},
        {"Error failed to insert new key", 0, -1,
         [](S& s) {
             s.MustAdd(1);
             s.MustAdd(2);
             Person person = MakePerson(2);
             person.id = 1;
             EXPECT_EQ(IndxModifyRecordInTable(s.table_, 0, s.BlobOf(person).get()), 0u);
         }},
        {"Error writing out modified record", 0, -1,
         [](S& s) {
             s.MustAdd(1);
             const FaultRule rule = {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_FULL, 0};
             FaultArm(&rule);
             EXPECT_EQ(s.Modify(7), 0u);
         }},
    };
    ReadBook(INDX, lines);
}

TEST(RecordMessages, DeletingRecords)
{
    const auto deleteMoved = [](S& s) {
        const S::Cursor cursor(s.table_, "Id");
        s.LeaveBehind(cursor);
        EXPECT_EQ(IndxDeleteRecord(cursor.get()), 0u);
    };
    const std::vector<BookLine<S>> lines = {
        {"Failed to delete key", 0, -1, deleteMoved},
        {"Could not delete keys for record", 0, -1, deleteMoved},
        {"NULL cursor - no record to delete", 0, -1,
         [](S&) { EXPECT_EQ(IndxDeleteRecord(nullptr), 0u); }},
        {"NULL cursor - no record to delete", 0, -1,
         [](S& s) { // a cursor without a key
             const S::Cursor cursor(s.table_, "Id");
             EXPECT_EQ(IndxDeleteRecord(cursor.get()), 0u);
         }},
        {"Lost record", 1, -1,
         [](S& s) {
             s.MustAdd(1);
             const S::Cursor cursor(s.table_, "Id");
             EXPECT_EQ(IndxFirstKey(cursor.get()), 6);
             s.Fail(FAULT_READ, 1, 1, "Records");
             EXPECT_EQ(IndxDeleteRecord(cursor.get()), 0u);
         }},
        {"%s = IndxDeleteRecord(%p)", 0, 4,
         [](S& s) {
             s.MustAdd(1);
             const S::Cursor cursor(s.table_, "Id");
             EXPECT_EQ(IndxFirstKey(cursor.get()), 6);
             EXPECT_EQ(IndxDeleteRecord(cursor.get()), 1u);
             return With("TRUE", cursor.get());
         }},
        {"%s = IndxDeleteRecord(%p)", With("FALSE", nullptr), 0, 4,
         [](S&) { EXPECT_EQ(IndxDeleteRecord(nullptr), 0u); }},
    };
    ReadBook(INDX, lines);
}

// ---- companion files --------------------------------------------------------------------------

TEST(RecordMessages, CompanionFiles)
{
    const std::vector<BookLine<S>> lines = {
        {"Invalid argument (id is %ld)", With(3), 1, -1,
         [](S& s) { EXPECT_EQ(IndxGetFilePath(nullptr, s.table_, 3), 0u); }},
        {"Invalid argument (id is %ld)", With(-2147483648), 1, -1,
         [](S& s) {
             char* path = nullptr;
             EXPECT_EQ(IndxGetFilePath(&path, s.table_, 0x80000000), 0u);
         }},
        {"IndxGetFilePath()", 0, 4,
         [](S& s) {
             char* path = nullptr;
             EXPECT_EQ(IndxGetFilePath(&path, s.table_, 1), 1u);
             MemFree(path);
         }},
        {"Not a valid table", 1, -1,
         [](S& s) { EXPECT_EQ(IndxGetFileList(&s.variable, s.database()), 0u); }},
        {"Not a valid table", 1, -1,
         [](S& s) { EXPECT_EQ(IndxGetFileList(nullptr, s.table_), 0u); }},
        {"IndxFindFiles(%s, %s, %p) %ld", 0, 4,
         [](S& s) {
             const std::string directory = s.PathOf("Files", "People");
             std::filesystem::create_directories(directory + "/0000/00");
             EXPECT_EQ(IndxGetFileList(&s.variable, s.table_), 0u);
             return With(s.PathOf("Files", "People/0000"), "00", ANY, 1);
         }},
    };
    ReadBook(INDX, lines);
}

// ---- the product log --------------------------------------------------------------------------

TEST(RecordMessages, LogEntriesOfRecords)
{
    const std::vector<BookEntry<S>> lines = {
        {1302, 96, "Failed to write record in table '%s'", With("People"),
         [](S& s) {
             s.Fail(FAULT_WRITE, 1, 1, "Records");
             EXPECT_EQ(s.AddPerson(1), 0u);
         }},
        {1303, 80, "Failed to retrive %ld byte record at %ld from table '%s'",
         With(4000, 0, "People"),
         [](S& s) {
             s.MustAdd(1);
             s.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 0, 4000); });
             EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 0), 0u);
         }},
        {1304, 80, "Failed to retrive record header at %ld from table '%s'", With(3, "People"),
         [](S& s) { EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 3), 0u); }},
        {1305, 80, "Failed to seek to record at %ld in table '%s'", With(5, "People"),
         [](S& s) {
             s.Fail(FAULT_SEEK);
             EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 5), 0u);
         }},
        {1306, 96, "Failed to retrive record field from table '%s'", With("People"),
         [](S& s) {
             s.MustAdd(1);
             s.Fail(FAULT_READ, 2, 1, "Records");
             EXPECT_EQ(s.Partial(0, S::SELECTION), 0u);
         }},
        {1307, 96, "Faiedl to read record from table '%s'", With("People"),
         [](S& s) { EXPECT_EQ(s.Partial(0, nullptr), 0u); }},
        {1308, 96, "Failed to write modified record in table '%s'", With("People"),
         [](S& s) {
             s.MustAdd(1);
             const FaultRule rule = {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_FULL, 0};
             FaultArm(&rule);
             EXPECT_EQ(s.Modify(7), 0u);
         }},
    };
    ReadLogBook(lines);
}

} // namespace
