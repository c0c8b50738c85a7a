// arguments_test.cpp: what every operation on databases, tables and records answers to an argument
// that is absent or of another type: its result, the last error it leaves, and whether it says so.

#include "database/indexwrappers.h"
#include "people_scene.h"

namespace {

constexpr uint32_t SAME = PeopleScene::UNTOUCHED; // the last error as it was
constexpr bool SILENT = false;
constexpr bool TOLD = true; // by a line that is always shown

class ArgumentScene : public PeopleScene {
  public:
    ArgumentScene()
    {
        MustAdd(1);
        IndxSetError(SAME);
    }
    ~ArgumentScene() override
    {
        ObjReleaseInternal(&out);
        MemFree(text);
        MemFree(pSelected);
        MemFreeInternal(&data.data);
    }
    ObjData* bytes() { return &static_cast<DbBlob*>(record.get())->data; }
    static uint32_t GoOn(void*, void*) { return 1; }
    static uint32_t GoOnWithId(void*, void*, uint32_t) { return 1; }

    Held record = BlobOf(MakePerson(2));
    Held object = ObjectOf(MakePerson(2));
    Held wrong = Held(ObjIntegerNew(1)); // an object of another type than any that is wanted
    void* none = nullptr;
    void* out = nullptr;
    char* text = nullptr;
    uint32_t* pSelected = nullptr;
    uint32_t number = 0;
    int32_t type = 0;
    ObjData data = {};
};
using S = ArgumentScene;

struct Line {
    const char* what;
    uint32_t result;
    uint32_t code;
    bool told;
    std::function<uint32_t(S&)> call;
};

void Read(const std::vector<Line>& lines)
{
    for (const Line& line : lines) {
        SCOPED_TRACE(line.what);
        LogRecorder log;
        TraceRecorder trace;
        S scene;
        trace.clear();
        const CrashRecorder crash;
        EXPECT_EQ(line.call(scene), line.result);
        EXPECT_EQ(IndxError(), line.code);
        EXPECT_EQ(trace.countLevel(-1) > 0, line.told) << trace.dump();
        EXPECT_EQ(scene.out, nullptr);
        EXPECT_EQ(scene.text, nullptr);
        EXPECT_EQ(scene.pSelected, nullptr);
        EXPECT_EQ(scene.data.data, nullptr);
        EXPECT_EQ(crash.count(), 0u);
        EXPECT_TRUE(log.empty()) << log.dump();
    }
}

TEST(Arguments, OfDatabasesAndTables)
{
    const auto open = [](S& s, void* oDatabase, const char* name, const char* fileName,
                         const char* format, const char* fields) {
        return IndxOpenTableInternal(
            &s.out, oDatabase, name, fileName, 1, format, fields, 0, INDX_VERSION_ANY);
    };
    Read({
        {"IndxOpenDatabase: no variable", 0, SAME, SILENT,
         [](S&) { return IndxOpenDatabase(nullptr, "D", nullptr, nullptr); }},
        {"IndxOpenDatabase: no name", 0, SAME, SILENT,
         [](S& s) { return IndxOpenDatabase(&s.out, nullptr, nullptr, nullptr); }},
        {"IndxOpenDatabase: names that are no list", 0, SAME, SILENT,
         [](S& s) { return IndxOpenDatabase(&s.out, "D", s.wrong.get(), nullptr); }},
        {"IndxCloseDatabase: no variable", 0, SAME, SILENT,
         [](S&) { return IndxCloseDatabase(nullptr); }},
        {"IndxCloseDatabase: nothing in it", 0, SAME, SILENT,
         [](S& s) { return IndxCloseDatabase(&s.none); }},
        {"IndxCloseTable: no variable", 0, SAME, SILENT,
         [](S&) { return IndxCloseTable(nullptr); }},
        {"IndxCloseTable: nothing in it", 0, SAME, SILENT,
         [](S& s) { return IndxCloseTable(&s.none); }},
        {"IndxCloseTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxCloseTable(s.wrong.out()); }},
        {"IndxReleaseTable: no variable", 0, SAME, SILENT,
         [](S&) { return IndxReleaseTable(nullptr); }},
        {"IndxReleaseTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxReleaseTable(s.wrong.out()); }},
        {"IndxOpenTableInternal: no database", 0, 15, TOLD,
         [=](S& s) { return open(s, nullptr, "T", "T", "i;", "Id"); }},
        {"IndxOpenTableInternal: another object", 0, 15, TOLD,
         [=](S& s) { return open(s, s.wrong.get(), "T", "T", "i;", "Id"); }},
        {"IndxOpenTableInternal: no name", 0, 15, TOLD,
         [=](S& s) { return open(s, s.database(), nullptr, "T", "i;", "Id"); }},
        {"IndxOpenTableInternal: no file name", 0, 15, TOLD,
         [=](S& s) { return open(s, s.database(), "T", nullptr, "i;", "Id"); }},
        {"IndxOpenTableInternal: no format", 0, 15, TOLD,
         [=](S& s) { return open(s, s.database(), "T", "T", nullptr, "Id"); }},
        {"IndxOpenTableInternal: no fields", 0, 15, TOLD,
         [=](S& s) { return open(s, s.database(), "T", "T", "i;", nullptr); }},
        {"IndxOpenExistingTable: no database", 0, 15, TOLD,
         [](S& s) { return IndxOpenExistingTable(&s.out, nullptr, "People", 0); }},
        {"IndxOpenExistingTable: another object", 0, 15, TOLD,
         [](S& s) { return IndxOpenExistingTable(&s.out, s.table_, "People", 0); }},
        {"IndxOpenExistingTable: no name", 0, 15, TOLD,
         [](S& s) { return IndxOpenExistingTable(&s.out, s.database(), nullptr, 0); }},
        {"IndxUpdateTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxUpdateTable(s.wrong.get()) | IndxUpdateTable(nullptr); }},
        {"IndxNextId: no table", 0, SAME, SILENT,
         [](S& s) { return IndxNextId(s.wrong.get()) | IndxNextId(nullptr); }},
    });
}

TEST(Arguments, OfFieldsAndCursors)
{
    Read({
        {"IndxGetField: no variable", 0, SAME, SILENT,
         [](S& s) { return IndxGetField(nullptr, s.table_, "Id"); }},
        {"IndxGetField: no table", 0, SAME, SILENT,
         [](S& s) { return IndxGetField(&s.out, s.wrong.get(), "Id"); }},
        {"IndxGetField: no name", 0, SAME, SILENT,
         [](S& s) { return IndxGetField(&s.out, s.table_, nullptr); }},
        {"IndxGetCursor: no variable", 0, 15, TOLD,
         [](S& s) { return IndxGetCursor(nullptr, s.Field(s.table_, 0)); }},
        {"IndxGetCursor: no field", 0, 15, TOLD,
         [](S& s) { return IndxGetCursor(&s.out, nullptr); }},
        {"IndxGetCursor: another object", 0, 15, TOLD,
         [](S& s) { return IndxGetCursor(&s.out, s.wrong.get()); }},
        {"IndxGetFieldCursor: no table", 0, SAME, SILENT,
         [](S& s) { return IndxGetFieldCursor(&s.out, nullptr, "Id"); }},
        {"IndxGetFieldCursor: no name", 0, SAME, SILENT,
         [](S& s) { return IndxGetFieldCursor(&s.out, s.table_, nullptr); }},
        {"IndxGetFieldCursor: no variable", 0, 15, TOLD,
         [](S& s) { return IndxGetFieldCursor(nullptr, s.table_, "Id"); }},
        {"IndxReleaseCursor: no cursor", 0, SAME, SILENT,
         [](S& s) { return IndxReleaseCursor(s.wrong.out()) | IndxReleaseCursor(&s.none); }},
        {"IndxGetFieldNumber: no variable", 0, SAME, SILENT,
         [](S& s) { return IndxGetFieldNumber(nullptr, s.table_, "Id"); }},
        {"IndxGetFieldNumber: no table", 0, SAME, SILENT,
         [](S& s) { return IndxGetFieldNumber(&s.number, s.wrong.get(), "Id"); }},
        {"IndxGetFieldNumber: no name", 0, SAME, SILENT,
         [](S& s) { return IndxGetFieldNumber(&s.number, s.table_, nullptr); }},
        {"IndxGetFieldTypeByNumber: no variable", 0, SAME, SILENT,
         [](S& s) { return IndxGetFieldTypeByNumber(nullptr, s.table_, 0); }},
        {"IndxGetFieldTypeByNumber: no table", 0, SAME, SILENT,
         [](S& s) { return IndxGetFieldTypeByNumber(&s.type, s.wrong.get(), 0); }},
        {"IndxGetSelected: no variable", 0, SAME, SILENT,
         [](S& s) { return IndxGetSelected(nullptr, s.table_, s.wrong.get()); }},
        {"IndxGetSelected: no table", 0, SAME, SILENT,
         [](S& s) { return IndxGetSelected(&s.pSelected, nullptr, s.wrong.get()); }},
        {"IndxGetSelected: no list", 0, SAME, SILENT,
         [](S& s) { return IndxGetSelected(&s.pSelected, s.table_, s.wrong.get()); }},
        {"IndxGetSelected: an empty list", 0, SAME, SILENT,
         [](S& s) {
             const Held list(ListNewFromPool(0, MemGetDefaultPoolId()));
             return IndxGetSelected(&s.pSelected, s.table_, list.get());
         }},
        {"IndxGetSelectedByName: no database", 0, SAME, SILENT,
         [](S& s) { return IndxGetSelectedByName(&s.pSelected, s.table_, "People", nullptr); }},
        {"IndxGetSelectedByName: no name", 0, SAME, SILENT,
         [](S& s) { return IndxGetSelectedByName(&s.pSelected, s.database(), nullptr, nullptr); }},
    });
}

TEST(Arguments, OfRecords)
{
    Read({
        {"IndxAddRecord: no table", 0, 15, TOLD,
         [](S& s) { return IndxAddRecord(5, s.wrong.get(), s.bytes()); }},
        {"IndxAddRecord: no bytes", 0, 15, TOLD,
         [](S& s) {
             return IndxAddRecord(5, s.table_, nullptr) | IndxAddRecord(5, s.table_, &s.data);
         }},
        {"IndxAddRecordOnly: no table", 0, 15, TOLD,
         [](S& s) { return IndxAddRecordOnly(5, nullptr, s.bytes()); }},
        {"IndxAddRecordOnly: no bytes", 0, 15, TOLD,
         [](S& s) { return IndxAddRecordOnly(5, s.table_, nullptr); }},
        {"IndxAddRecordToTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxAddRecordToTable(&s.number, s.wrong.get(), s.record.get()); }},
        {"IndxAddRecordToTable: no record", 0, SAME, SILENT,
         [](S& s) { return IndxAddRecordToTable(&s.number, s.table_, s.object.get()); }},
        {"IndxSetRecordInTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxSetRecordInTable(5, nullptr, s.record.get()); }},
        {"IndxSetRecordInTable: no record", 0, SAME, SILENT,
         [](S& s) { return IndxSetRecordInTable(5, s.table_, s.wrong.get()); }},
        {"IndxAddObjectToTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxAddObjectToTable(&s.number, s.wrong.get(), s.object.get()); }},
        {"IndxRetriveRecord: no room", 0, SAME, SILENT,
         [](S& s) { return IndxRetriveRecord(nullptr, s.table_, 0); }},
        {"IndxRetriveRecord: no table", 0, SAME, SILENT,
         [](S& s) { return IndxRetriveRecord(&s.data, s.wrong.get(), 0); }},
        {"IndxGetRecord: no variable", 0, SAME, SILENT,
         [](S& s) { return IndxGetRecord(nullptr, s.table_, 0); }},
        {"IndxGetRecord: no table", 0, SAME, SILENT,
         [](S& s) { return IndxGetRecord(&s.out, s.wrong.get(), 0); }},
        {"IndxGetRecordAtCursor: no cursor", 0, SAME, SILENT,
         [](S& s) { return IndxGetRecordAtCursor(&s.out, s.wrong.get()); }},
        {"IndxGetObjectAtCursor: no cursor", 0, SAME, SILENT,
         [](S& s) { return IndxGetObjectAtCursor(&s.out, nullptr); }},
        {"IndxGetObjectAtCursor: no variable", 0, SAME, SILENT,
         [](S& s) {
             const S::Cursor cursor(s.table_, "Id");
             EXPECT_EQ(IndxFirstKey(cursor.get()), 6);
             return IndxGetObjectAtCursor(nullptr, cursor.get()) |
                    IndxGetRecordAtCursor(nullptr, cursor.get());
         }},
        {"IndxGetPartialRecord: no variable", 0, 15, SILENT,
         [](S& s) { return IndxGetPartialRecord(nullptr, s.table_, 0, nullptr); }},
        {"IndxGetPartialRecord: no table", 0, 15, SILENT,
         [](S& s) { return IndxGetPartialRecord(&s.out, s.wrong.get(), 0, nullptr); }},
        {"IndxGetPartialRecordAtCursor: no cursor", 0, 15, SILENT,
         [](S& s) { return IndxGetPartialRecordAtCursor(&s.out, s.wrong.get(), nullptr); }},
        {"IndxGetPartialObjectAtCursor: no cursor", 0, 15, SILENT,
         [](S& s) { return IndxGetPartialObjectAtCursor(&s.out, nullptr, nullptr); }},
        {"IndxGetPartialObjectAtCursor: no variable", 0, 15, SILENT,
         [](S& s) {
             const S::Cursor cursor(s.table_, "Id");
             EXPECT_EQ(IndxFirstKey(cursor.get()), 6);
             return IndxGetPartialObjectAtCursor(nullptr, cursor.get(), nullptr);
         }},
        {"IndxModifyRecordInTable: no table", 0, 15, TOLD,
         [](S& s) { return IndxModifyRecordInTable(nullptr, 0, s.record.get()); }},
        {"IndxModifyRecordInTable: no record", 0, 15, TOLD,
         [](S& s) { return IndxModifyRecordInTable(s.table_, 0, s.object.get()); }},
        {"IndxModifyObjectAtCursor: no cursor", 0, SAME, SILENT,
         [](S& s) { return IndxModifyObjectAtCursor(s.wrong.get(), s.object.get()); }},
        {"IndxDeleteRecord: no cursor", 0, SAME, TOLD,
         [](S& s) { return IndxDeleteRecord(s.wrong.get()); }},
        {"IndxGetFilePath: no variable", 0, SAME, TOLD,
         [](S& s) { return IndxGetFilePath(nullptr, s.table_, 1); }},
        {"IndxGetFilePath: no table", 0, SAME, TOLD,
         [](S& s) { return IndxGetFilePath(&s.text, s.wrong.get(), 1); }},
        {"IndxGetFilePath: no id", 0, SAME, TOLD,
         [](S& s) { return IndxGetFilePath(&s.text, s.table_, 0); }},
        {"IndxGetFilePathAtCursor: no cursor", 1, SAME, SILENT,
         [](S& s) { return IndxGetFilePathAtCursor(&s.text, s.wrong.get()); }},
        {"IndxGetFileList: no table", 0, SAME, TOLD,
         [](S& s) { return IndxGetFileList(&s.out, s.wrong.get()); }},
        {"IndxGetFileList: no variable", 0, SAME, TOLD,
         [](S& s) { return IndxGetFileList(nullptr, s.table_); }},
    });
}

TEST(Arguments, OfWrappers)
{
    Read({
        {"IndxGetRecordFromTable: no variable", 0, SAME, SILENT,
         [](S& s) {
             const Held age(ObjIntegerNew(MakePerson(1).age));
             return IndxGetRecordFromTable(nullptr, s.table_, "Age", 0, age.get());
         }},
        {"IndxGetRecordFromTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxGetRecordFromTable(&s.out, nullptr, "Id", 1, nullptr); }},
        {"IndxGetRecordFromTable: no field", 0, SAME, SILENT,
         [](S& s) { return IndxGetRecordFromTable(&s.out, s.table_, nullptr, 1, nullptr); }},
        {"IndxGetObjectFromTable: no variable", 0, SAME, SILENT,
         [](S& s) { return IndxGetObjectFromTable(nullptr, s.table_, "Id", 1, nullptr); }},
        {"IndxGetObjectFromTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxGetObjectFromTable(&s.out, s.wrong.get(), "Id", 1, nullptr); }},
        {"IndxGetObjectFromTable: no key object", 0, SAME, TOLD,
         [](S& s) { return IndxGetObjectFromTable(&s.out, s.table_, "Name", 1, nullptr); }},
        {"IndxDeleteObjectFromTable: no table", 0, SAME, TOLD,
         [](S&) { return IndxDeleteObjectFromTable(nullptr, "Id", 1, nullptr); }},
        {"IndxDeleteObjectFromTable: no field", 0, SAME, TOLD,
         [](S& s) { return IndxDeleteObjectFromTable(s.table_, nullptr, 1, nullptr); }},
        {"IndxModifyObject: no table", 0, SAME, SILENT,
         [](S& s) { return IndxModifyObject(s.wrong.get(), s.object.get()); }},
        {"IndxModifyObject: no object", 0, SAME, SILENT,
         [](S& s) { return IndxModifyObject(s.table_, nullptr); }},
        {"IndxWalkTable: no table", 0, SAME, SILENT,
         [](S& s) { return IndxWalkTable(s.wrong.get(), "Id", S::GoOn, nullptr); }},
        {"IndxWalkTable: no field", 0, SAME, SILENT,
         [](S& s) { return IndxWalkTable(s.table_, nullptr, S::GoOn, nullptr); }},
        {"IndxWalkTable: no callback", 0, SAME, SILENT,
         [](S& s) { return IndxWalkTable(s.table_, "Id", nullptr, nullptr); }},
        {"IndxWalkTableWithRecordId: no table", 0, SAME, TOLD,
         [](S&) { return IndxWalkTableWithRecordId(nullptr, "Id", S::GoOnWithId, nullptr); }},
        {"IndxWalkTableWithRecordId: no field", 0, SAME, TOLD,
         [](S& s) { return IndxWalkTableWithRecordId(s.table_, nullptr, S::GoOnWithId, nullptr); }},
        {"IndxWalkTableWithRecordId: no callback", 0, SAME, TOLD,
         [](S& s) { return IndxWalkTableWithRecordId(s.table_, "Id", nullptr, nullptr); }},
        {"IndxWalkTableWithPartialRecords: no table", 0, SAME, SILENT,
         [](S&) {
             return IndxWalkTableWithPartialRecords(nullptr, nullptr, "Id", S::GoOn, nullptr);
         }},
        {"IndxWalkTableWithPartialRecords: no field", 0, SAME, SILENT,
         [](S& s) {
             return IndxWalkTableWithPartialRecords(s.table_, nullptr, nullptr, S::GoOn, nullptr);
         }},
        {"IndxWalkTableWithPartialRecords: no callback", 0, SAME, SILENT,
         [](S& s) {
             return IndxWalkTableWithPartialRecords(s.table_, nullptr, "Id", nullptr, nullptr);
         }},
    });
}

} // namespace
