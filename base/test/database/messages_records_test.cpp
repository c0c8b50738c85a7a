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
    std::string PartialCall(uint32_t offset, const uint32_t* pSelected) const
    {
        return "IndxRetrivePartialRecord(" + Pointer(&data) + ", " + Pointer(table_) + ", " +
               Number(offset) + ", " + Pointer(pSelected) + ")";
    }
    static constexpr uint32_t SELECTION[8] = {};
};
using S = RecordsScene;

// ---- adding
// --------------------------------------------------------------------------------------

TEST(RecordMessages, AddingRecords)
{
    ReadBook<S>(
        INDX,
        {
            {"IndxAddRecordInternal(%ld, %p %p, %s)", 0, 4,
             [](S& s) {
                 const Held record = s.Record(1);
                 EXPECT_EQ(IndxAddRecord(7, s.table_, S::Bytes(record)), 1u);
                 EXPECT_EQ(IndxUpdateTable(s.table_), 1u);
                 return "IndxAddRecordInternal(7, " + Pointer(s.table_) + " " +
                        Pointer(S::Bytes(record)) + ", TRUE)";
             }},
            {"IndxAddRecordInternal(%ld, %p %p, %s)", 0, 4,
             [](S& s) {
                 const Held record = s.Record(1);
                 EXPECT_EQ(IndxAddRecordOnly(7, s.table_, S::Bytes(record)), 1u);
                 EXPECT_EQ(IndxUpdateTable(s.table_), 1u);
                 return "IndxAddRecordInternal(7, " + Pointer(s.table_) + " " +
                        Pointer(S::Bytes(record)) + ", FALSE)";
             }},
            {"Index at Offset %ld", 0, 4,
             [](S& s) {
                 s.MustAdd(1);
                 return std::string("Index at Offset 4");
             }},
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
                 return "TRUE = IndxAddRecordToTable(" + Pointer(&id) + ", " + Pointer(s.table_) +
                        ", " + Pointer(record.get()) + ")";
             }},
            {"%s = IndxAddRecordToTable(%p, %p, %p)", 0, 4,
             [](S&) {
                 const std::string null = Pointer(nullptr);
                 EXPECT_EQ(IndxAddRecordToTable(nullptr, nullptr, nullptr), 0u);
                 return "FALSE = IndxAddRecordToTable(" + null + ", " + null + ", " + null + ")";
             }},
            {"New record id is %ld", 0, 4,
             [](S& s) {
                 s.MustAdd(1);
                 s.MustAdd(2);
                 return std::string("New record id is 2");
             }},
            {"Magic %lx does not match %lx", 0, -1,
             [](S& s) {
                 const Held record = MakeBlob(0xca333333, "i;", std::string(80, '\0'));
                 EXPECT_EQ(IndxAddRecordToTable(nullptr, s.table_, record.get()), 0u);
                 return std::string("Magic ca333333 does not match ca222222");
             }},
            {"%s = IndxSetRecordInTable(%ld, %p, %p)", 0, 4,
             [](S& s) {
                 const Held record = s.Record(1);
                 EXPECT_EQ(IndxSetRecordInTable(9, s.table_, record.get()), 1u);
                 return "TRUE = IndxSetRecordInTable(9, " + Pointer(s.table_) + ", " +
                        Pointer(record.get()) + ")";
             }},
            {"%s = IndxSetRecordInTable(%ld, %p, %p)", 0, 4,
             [](S&) {
                 EXPECT_EQ(IndxSetRecordInTable(9, nullptr, nullptr), 0u);
                 return "FALSE = IndxSetRecordInTable(9, " + Pointer(nullptr) + ", " +
                        Pointer(nullptr) + ")";
             }},
            {"Magic %lx for record to set does not match %lx", 0, -1,
             [](S& s) {
                 const Held record = MakeBlob(0xca333333, "i;", std::string(80, '\0'));
                 EXPECT_EQ(IndxSetRecordInTable(9, s.table_, record.get()), 0u);
                 return std::string("Magic ca333333 for record to set does not match ca222222");
             }},
            {"Incorrect object type (%s)", 0, -1,
             [](S& s) {
                 s.variable = ObjIntegerNew(1);
                 EXPECT_EQ(IndxAddObjectToTable(nullptr, s.table_, s.variable), 0u);
                 return std::string("Incorrect object type (Integer)");
             },
             1},
            {"Table holds type (%s)", 0, -1,
             [](S& s) {
                 EXPECT_EQ(IndxAddObjectToTable(nullptr, s.table_, nullptr), 0u);
                 return std::string("Table holds type (magic 0xca222222)");
             },
             1},
            {"Failed to convert object to db format", 0, -1,
             [](S& s) { // a pointer cannot be stored
                 void* oTable = s.OpenTable("P", 0xca444444, "i;p;", "Id,P");
                 const Instance object(0xca444444, "i;p;");
                 EXPECT_EQ(IndxAddObjectToTable(nullptr, oTable, object.get()), 0u);
             }},
        });
}

// ---- reading
// -------------------------------------------------------------------------------------

TEST(RecordMessages, ReadingRecords)
{
    ReadBook<S>(
        INDX,
        {
            {"IndxRetriveRecord(%p, %p, %ld)", 0, 4,
             [](S& s) {
                 s.MustAdd(1);
                 EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 0), 1u);
                 MemFreeInternal(&s.data.data);
                 return "IndxRetriveRecord(" + Pointer(&s.data) + ", " + Pointer(s.table_) + ", 0)";
             }},
            {"Failed to seek to record at %ld in table '%s'", 0, -1,
             [](S& s) {
                 EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 0x80000000), 0u);
                 return std::string("Failed to seek to record at -2147483648 in table 'People'");
             }},
            {"Failed to seek to record at %ld in table '%s'", 0, -1,
             [](S& s) {
                 MemFree(s.table()->name);
                 s.Fail(FAULT_SEEK);
                 EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 5), 0u);
                 return std::string("Failed to seek to record at 5 in table '(null)'");
             }},
            {"Failed to retrive record header at %ld from table '%s'", 0, -1,
             [](S& s) {
                 EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 3), 0u);
                 return std::string("Failed to retrive record header at 3 from table 'People'");
             }},
            {"Failed to retrive %ld byte record at %ld from table '%s'", 0, -1,
             [](S& s) {
                 s.MustAdd(1);
                 s.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 0, 4000); });
                 EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 0), 0u);
                 return std::string("Failed to retrive 4000 byte record at 0 from table 'People'");
             }},
            {"Table %s: Cursor Key id %ld does not match record at %ld with id %ld", 0, -1,
             [](S& s) {
                 s.MustAdd(1);
                 s.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 4, 8); });
                 const S::Cursor cursor(s.table_, "Id");
                 EXPECT_EQ(IndxFirstKey(cursor.get()), 6);
                 EXPECT_EQ(IndxGetObjectAtCursor(&s.variable, cursor.get()), 0u);
                 return std::string("Table People: Cursor Key id 1 does not match record at 0 "
                                    "with id 8");
             },
             1},
        });
}

TEST(RecordMessages, PartialReads)
{
    ReadBook<S>(
        INDX, {
                  {"IndxRetrivePartialRecord(%p, %p, %ld, %p)", 0, 4,
                   [](S& s) {
                       s.MustAdd(1);
                       EXPECT_EQ(s.Partial(0, S::SELECTION), 1u);
                       return s.PartialCall(0, S::SELECTION);
                   }},
                  {"%s = IndxRetrivePartialRecord(%p, %p, %ld, %p)", 0, 4,
                   [](S& s) {
                       s.MustAdd(1);
                       EXPECT_EQ(s.Partial(0, S::SELECTION), 1u);
                       return "TRUE = " + s.PartialCall(0, S::SELECTION);
                   }},
                  {"%s = IndxRetrivePartialRecord(%p, %p, %ld, %p)", 0, 4,
                   [](S& s) {
                       EXPECT_EQ(s.Partial(7, nullptr), 0u);
                       return "FALSE = " + s.PartialCall(7, nullptr);
                   }},
                  {"Failed to seek to record", 0, -1,
                   [](S& s) {
                       s.Fail(FAULT_SEEK);
                       EXPECT_EQ(s.Partial(0, nullptr), 0u);
                   }},
                  {"Failed to read fixed part of record", 0, -1,
                   [](S& s) { EXPECT_EQ(s.Partial(0, nullptr), 0u); }},
                  {"There are %ld bytes of variable data", 0, 4,
                   [](S& s) { // "Name 00000001", "Town 0" and one byte of a photo
                       s.MustAdd(1);
                       EXPECT_EQ(s.Partial(0, S::SELECTION), 1u);
                       return std::string("There are 22 bytes of variable data");
                   }},
                  {"There are %ld bytes of variable data", 0, 4,
                   [](S& s) { // without a selection none are counted
                       s.MustAdd(1);
                       EXPECT_EQ(s.Partial(0, nullptr), 1u);
                       return std::string("There are 0 bytes of variable data");
                   }},
                  {"Read %ld byte field", 0, 4,
                   [](S& s) {
                       s.MustAdd(1);
                       EXPECT_EQ(s.Partial(0, S::SELECTION), 1u);
                       return std::string("Read 14 byte field");
                   }},
                  {"Failed to read %ld bytes", 0, -1,
                   [](S& s) {
                       s.MustAdd(1);
                       s.Fail(FAULT_READ, 2, 1, "Records");
                       EXPECT_EQ(s.Partial(0, S::SELECTION), 0u);
                       return std::string("Failed to read 14 bytes");
                   }},
                  {"Skip %ld byte field", 0, 4,
                   [](S& s) { // the step of one field, run without a selection
                       uint8_t bytes[S::FIXED_SIZE] = {};
                       bytes[8] = 14;
                       IndxPartialRead read = {s.table(),     nullptr,       bytes,
                                               S::FIXED_SIZE, S::FIXED_SIZE, 0};
                       EXPECT_EQ(IndxReadPartialField(&read, s.Field(s.table_, 1)), 1u);
                       return std::string("Skip 14 byte field");
                   }},
              });
}

// ---- modifying and deleting
// ----------------------------------------------------------------------

TEST(RecordMessages, ModifyingRecords)
{
    ReadBook<S>(
        INDX,
        {
            {"No record %ld in table '%s' to modify", 0, -1,
             [](S& s) {
                 Person person = MakePerson(1);
                 person.id = 5;
                 EXPECT_EQ(IndxModifyObject(s.table_, s.ObjectOf(person).get()), 0u);
                 return std::string("No record 5 in table 'People' to modify");
             }},
            {"Failed to modify record %ld at %ld in table '%s'", 0, -1,
             [](S& s) { // a cursor whose record has been deleted
                 s.MustAdd(1);
                 const S::Cursor cursor(s.table_, "Id");
                 EXPECT_EQ(IndxFindKey(cursor.get(), 1, nullptr), 6);
                 EXPECT_EQ(IndxDeleteObjectFromTable(s.table_, "Id", 1, nullptr), 1u);
                 Person person = MakePerson(1);
                 person.id = 1;
                 EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), s.ObjectOf(person).get()), 0u);
                 return std::string("Failed to modify record 1 at 0 in table 'People'");
             }},
            {"Record of type (%s) for table '%s', which holds type (%s)", 0, -1,
             [](S& s) {
                 const Held record = MakeBlob(0xca333333, "i;", std::string(80, '\0'));
                 EXPECT_EQ(IndxModifyRecordInTable(s.table_, 0, record.get()), 0u);
                 return std::string("Record of type (magic 0xca333333) for table 'People', "
                                    "which holds type (magic 0xca222222)");
             }},
            {"Old Id %ld does not match new Id %ld", 0, -1,
             [](S& s) {
                 s.MustAdd(1);
                 Person person = MakePerson(1);
                 person.id = 5;
                 EXPECT_EQ(IndxModifyRecordInTable(s.table_, 0, s.BlobOf(person).get()), 0u);
                 return std::string("Old Id 1 does not match new Id 5");
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
        });
}

TEST(RecordMessages, DeletingRecords)
{
    const auto deleteMoved = [](S& s) {
        const S::Cursor cursor(s.table_, "Id");
        s.LeaveBehind(cursor);
        EXPECT_EQ(IndxDeleteRecord(cursor.get()), 0u);
    };
    ReadBook<S>(
        INDX, {
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
                       return "TRUE = IndxDeleteRecord(" + Pointer(cursor.get()) + ")";
                   }},
                  {"%s = IndxDeleteRecord(%p)", 0, 4,
                   [](S&) {
                       EXPECT_EQ(IndxDeleteRecord(nullptr), 0u);
                       return "FALSE = IndxDeleteRecord(" + Pointer(nullptr) + ")";
                   }},
              });
}

// ---- companion files
// -----------------------------------------------------------------------------

TEST(RecordMessages, CompanionFiles)
{
    ReadBook<S>(
        INDX, {
                  {"Invalid argument (id is %ld)", 1, -1,
                   [](S& s) {
                       EXPECT_EQ(IndxGetFilePath(nullptr, s.table_, 3), 0u);
                       return std::string("Invalid argument (id is 3)");
                   }},
                  {"Invalid argument (id is %ld)", 1, -1,
                   [](S& s) {
                       char* path = nullptr;
                       EXPECT_EQ(IndxGetFilePath(&path, s.table_, 0x80000000), 0u);
                       return std::string("Invalid argument (id is -2147483648)");
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
                       return "IndxFindFiles(" + s.PathOf("Files", "People/0000") + ", 00, {p}) 1";
                   }},
              });
}

// ---- the product log
// -----------------------------------------------------------------------------

TEST(RecordMessages, LogEntriesOfRecords)
{
    ReadLogBook<S>({
        {1302, 96, "Failed to write record in table '%s'",
         [](S& s) {
             s.Fail(FAULT_WRITE, 1, 1, "Records");
             EXPECT_EQ(s.AddPerson(1), 0u);
             return std::string("Failed to write record in table 'People'");
         }},
        {1303, 80, "Failed to retrive %ld byte record at %ld from table '%s'",
         [](S& s) {
             s.MustAdd(1);
             s.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 0, 4000); });
             EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 0), 0u);
             return std::string("Failed to retrive 4000 byte record at 0 from table 'People'");
         }},
        {1304, 80, "Failed to retrive record header at %ld from table '%s'",
         [](S& s) {
             EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 3), 0u);
             return std::string("Failed to retrive record header at 3 from table 'People'");
         }},
        {1305, 80, "Failed to seek to record at %ld in table '%s'",
         [](S& s) {
             s.Fail(FAULT_SEEK);
             EXPECT_EQ(IndxRetriveRecord(&s.data, s.table_, 5), 0u);
             return std::string("Failed to seek to record at 5 in table 'People'");
         }},
        {1306, 96, "Failed to retrive record field from table '%s'",
         [](S& s) {
             s.MustAdd(1);
             s.Fail(FAULT_READ, 2, 1, "Records");
             EXPECT_EQ(s.Partial(0, S::SELECTION), 0u);
             return std::string("Failed to retrive record field from table 'People'");
         }},
        {1307, 96, "Faiedl to read record from table '%s'",
         [](S& s) {
             EXPECT_EQ(s.Partial(0, nullptr), 0u);
             return std::string("Faiedl to read record from table 'People'");
         }},
        {1308, 96, "Failed to write modified record in table '%s'",
         [](S& s) {
             s.MustAdd(1);
             const FaultRule rule = {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_FULL, 0};
             FaultArm(&rule);
             EXPECT_EQ(s.Modify(7), 0u);
             return std::string("Failed to write modified record in table 'People'");
         }},
    });
}

} // namespace
