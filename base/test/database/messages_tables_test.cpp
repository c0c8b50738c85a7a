// messages_tables_test.cpp: every message of the catalogue, of the definition and opening of
// tables, and of fields and their cursors, with its level and error flag.

#include <filesystem>

#include "message_book.h"
#include "people_scene.h"

namespace {

constexpr const char* INDX = "INDX        ";

// The scene of the people, and what the lines here need of it.
class TablesScene : public PeopleScene {
  public:
    // Opens a table of two fields under its name; the result.
    NimBool OpenSmall(
        const std::string& name, uint32_t version = INDX_VERSION_NONE, const char* format = "i;i;",
        const char* fields = "Id,A;Indexed", uint32_t magic = 0xca333333)
    {
        void* oTable = nullptr;
        const NimBool bOpened = IndxOpenTableInternal(
            &oTable, database(), name.c_str(), name.c_str(), magic, format, fields, 0, version);
        IndxReleaseTable(&oTable);
        return bOpened;
    }
    // A table whose definition is refused.
    void Refuse(const char* format, const char* fields)
    {
        EXPECT_EQ(OpenSmall("Refused", INDX_VERSION_NONE, format, fields), 0u);
    }
    // 4.3 is asked for a version that is not there to be read.
    void BreakVersionFile(const std::string& text)
    {
        EXPECT_EQ(OpenSmall("T", 5), 1u);
        WriteFileBytes(PathOf("Attributes", "T"), text);
    }
    // Loads a table again whose user data was changed in the file.
    void LoadChanged(const std::function<void(std::string&)>& change)
    {
        EXPECT_EQ(OpenSmall("T"), 1u);
        Close();
        std::string bytes = ReadFileBytes(PathOf("Indexes", "T"));
        change(bytes);
        WriteFileBytes(PathOf("Indexes", "T"), bytes);
        EXPECT_TRUE(Open());
    }
    std::string var() const { return Pointer(&variable); }

    void* variable = nullptr;
};
using S = TablesScene;

// ---- the catalogue
// -------------------------------------------------------------------------------

TEST(TableMessages, OpeningAndClosingDatabases)
{
    ReadBook<S>(
        INDX, {
                  {"IndxOpenDatabase(%p, %s, %p)", 0, 4,
                   [](S& s) {
                       EXPECT_EQ(IndxOpenDatabase(&s.variable, "Other", nullptr, nullptr), 1u);
                       IndxCloseDatabase(&s.variable);
                       return "IndxOpenDatabase(" + s.var() + ", Other, " + Pointer(nullptr) + ")";
                   }},
                  {"IndxOpenDatabase(%p, %s, %p)", 0, 4,
                   [](S&) {
                       EXPECT_EQ(IndxOpenDatabase(nullptr, nullptr, nullptr, nullptr), 0u);
                       return "IndxOpenDatabase(" + Pointer(nullptr) + ", (null), " +
                              Pointer(nullptr) + ")";
                   }},
                  {"%s = IndxOpenDatabase(0x%p, %s, %p)", 0, 3,
                   [](S& s) {
                       EXPECT_EQ(IndxOpenDatabase(&s.variable, "Other", nullptr, nullptr), 1u);
                       IndxCloseDatabase(&s.variable);
                       return "TRUE = IndxOpenDatabase(0x" + s.var() + ", Other, " +
                              Pointer(nullptr) + ")";
                   }},
                  {"%s = IndxOpenDatabase(0x%p, %s, %p)", 0, 3,
                   [](S& s) {
                       EXPECT_EQ(IndxOpenDatabase(&s.variable, nullptr, nullptr, nullptr), 0u);
                       return "FALSE = IndxOpenDatabase(0x" + s.var() + ", (null), " +
                              Pointer(nullptr) + ")";
                   }},
                  {"IndxCloseDatabase(%p)", 0, 4,
                   [](S& s) {
                       s.Close();
                       return "IndxCloseDatabase(" + Pointer(s.databaseVariable()) + ")";
                   }},
                  {"%s = IndxCloseDatabase(%p)", 0, 4,
                   [](S& s) {
                       s.Close();
                       return "TRUE = IndxCloseDatabase(" + Pointer(s.databaseVariable()) + ")";
                   }},
                  {"%s = IndxCloseDatabase(%p)", 0, 4,
                   [](S& s) {
                       EXPECT_EQ(IndxCloseDatabase(&s.variable), 0u);
                       return "FALSE = IndxCloseDatabase(" + s.var() + ")";
                   }},
                  {"Release table (%p) %s", 0, 4,
                   [](S& s) {
                       const std::string table = Pointer(s.table_);
                       s.Close();
                       return "Release table (" + table + ") People";
                   }},
                  {"%s = IndxCloseTable(%p)", 0, 4,
                   [](S& s) {
                       s.variable = ObjIncRefCount(s.table_);
                       EXPECT_EQ(IndxCloseTable(&s.variable), 1u);
                       return "TRUE = IndxCloseTable(" + s.var() + ")";
                   }},
              });
}

// ---- definition
// ----------------------------------------------------------------------------------

TEST(TableMessages, DefiningTables)
{
    const auto define = [](S& s) {
        EXPECT_EQ(
            s.OpenSmall("New", INDX_VERSION_NONE, "i;s;", "Id, Name;Indexed;Case Sensitive"), 1u);
    };
    ReadBook<S>(
        INDX, {
                  {"IndxCreateTable()", 0, 4, define},
                  {"Invalid format length %ld", 0, -1,
                   [](S& s) {
                       s.Refuse("", "Id");
                       return std::string("Invalid format length 0");
                   }},
                  {"Invalid Fields length %ld", 0, -1,
                   [](S& s) {
                       s.Refuse("i;", "");
                       return std::string("Invalid Fields length 0");
                   }},
                  {"Format '%s'", 0, 4,
                   [=](S& s) {
                       define(s);
                       return std::string("Format 'i;s;'");
                   }},
                  {"Fields '%s'", 0, 4,
                   [=](S& s) {
                       define(s);
                       return std::string("Fields 'Id, Name;Indexed;Case Sensitive'");
                   }},
                  {"End of format string", 0, 4, define},
                  {"Null field name", 0, -1, [](S& s) { s.Refuse("i;i;", "Id,,A"); }},
                  {"Process '%s'", 0, 4,
                   [=](S& s) {
                       define(s);
                       return std::string("Process 'Name'");
                   }},
                  {"duplicate field name", 0, -1, [](S& s) { s.Refuse("i;i;i;", "Id,A,a"); }},
                  {"Field %ld '%s' offset %ld indexed %s unique %s case sensitive %s", 0, 4,
                   [=](S& s) {
                       define(s);
                       return std::string("Field 1 'Name' offset 8 indexed TRUE unique FALSE "
                                          "case sensitive TRUE");
                   }},
                  {"Field %ld '%s' offset %ld indexed %s unique %s case sensitive %s", 0, 4,
                   [](S& s) { // the flags as they were written, before the kind drops them
                       EXPECT_EQ(
                           s.OpenSmall("New", INDX_VERSION_NONE, "i;b;", "Id;Unique,B;Indexed"),
                           1u);
                       return std::string("Field 0 'Id' offset 4 indexed FALSE unique TRUE "
                                          "case sensitive FALSE");
                   }},
                  {"Index must be type 'i'", 0, -1, [](S& s) { s.Refuse("s;", "Id"); }},
                  {"Table too large MAX %ld, table %ld", 0, -1,
                   [](S& s) {
                       std::string format;
                       std::string fields = "Id";
                       for (int i = 0; i < 300; ++i) {
                           format += "i;";
                           fields += i ? ",A field of some length " + Number(i) : "";
                       }
                       s.Refuse(format.c_str(), fields.c_str());
                       // The bytes that the description would take in its stored form, which is
                       // frozen.
                       return std::string("Table too large MAX 16128, table 32278");
                   }},
              });
}

// ---- opening
// -------------------------------------------------------------------------------------

TEST(TableMessages, OpeningTables)
{
    const std::string null = Pointer(nullptr);
    ReadBook<S>(
        INDX,
        {
            {"IndxOpenTableInternal(%p, %p, %s, %s, %ld, %s %s, %s %ld)", 0, 4,
             [](S& s) {
                 EXPECT_EQ(
                     IndxOpenTableInternal(
                         &s.variable, s.database(), "T", "F", 0xca333333, "i;", "Id", 1,
                         INDX_VERSION_ANY),
                     1u);
                 IndxReleaseTable(&s.variable);
                 return "IndxOpenTableInternal(" + s.var() + ", " + Pointer(s.database()) +
                        ", T, F, " + Number(static_cast<int32_t>(0xca333333)) + ", i; Id, TRUE -1)";
             }},
            {"IndxOpenTableInternal(%p, %p, %s, %s, %ld, %s %s, %s %ld)", 0, 4,
             [=](S&) {
                 IndxOpenTableInternal(
                     nullptr, nullptr, nullptr, nullptr, 7, nullptr, nullptr, 0, 5);
                 return "IndxOpenTableInternal(" + null + ", " + null +
                        ", (null), (null), 7, (null) (null), FALSE 5)";
             }},
            {"Invalid argument", 0, -1,
             [](S& s) {
                 EXPECT_EQ(
                     IndxOpenTableInternal(
                         nullptr, s.database(), nullptr, "F", 7, "i;", "Id", 0, 5),
                     0u);
             }},
            {"Failed when discovering table version", 0, -1,
             [](S& s) {
                 s.BreakVersionFile("no stanza");
                 EXPECT_EQ(s.OpenSmall("T", 5), 0u);
             }},
            {"Wrong table version - wanted '%s', is '%s'", 0, -1,
             [](S& s) {
                 EXPECT_EQ(s.OpenSmall("T"), 1u);
                 EXPECT_EQ(s.OpenSmall("T", 5), 0u);
                 return std::string("Wrong table version - wanted '5', is 'None'");
             }},
            {"Wrong table version - wanted '%s', is '%s'", 0, -1,
             [](S& s) { // versions are unsigned
                 EXPECT_EQ(s.OpenSmall("T", 0x80000000), 1u);
                 EXPECT_EQ(s.OpenSmall("T", INDX_VERSION_NONE), 0u);
                 return std::string("Wrong table version - wanted 'None', is '2147483648'");
             }},
            {"Shape of table has changed", 1, -1,
             [](S& s) {
                 EXPECT_EQ(s.OpenSmall("T"), 1u);
                 EXPECT_EQ(s.OpenSmall("T", INDX_VERSION_NONE, "i;s;"), 0u);
             }},
            {"Create a new table", 0, 3, [](S& s) { EXPECT_EQ(s.OpenSmall("T"), 1u); }},
            {"Failed to set table version when creating new table '%s'", 0, -1,
             [](S& s) {
                 s.Fail(FAULT_STNZ_SAVE);
                 EXPECT_EQ(s.OpenSmall("T", 5), 0u);
                 return std::string("Failed to set table version when creating new table 'T'");
             }},
            {"Failed to create table", 0, -1, [](S& s) { s.Refuse("i;", ""); }},
            {"%s = IndxOpenTableInternal(%p, %p, %s, %s, ...)", 0, 3,
             [](S& s) {
                 EXPECT_EQ(
                     IndxOpenTableInternal(
                         &s.variable, s.database(), "T", "F", 0xca333333, "i;", "Id", 0,
                         INDX_VERSION_NONE),
                     1u);
                 IndxReleaseTable(&s.variable);
                 return "TRUE = IndxOpenTableInternal(" + s.var() + ", " + Pointer(s.database()) +
                        ", T, F, ...)";
             }},
            {"%s = IndxOpenTableInternal(%p, %p, %s, %s, ...)", 0, 3,
             [=](S&) {
                 IndxOpenTableInternal(
                     nullptr, nullptr, nullptr, nullptr, 7, nullptr, nullptr, 0, 5);
                 return "FALSE = IndxOpenTableInternal(" + null + ", " + null +
                        ", (null), (null), ...)";
             }},
            {"IndxOpenExistingTable(%p, %p, %s, %ld)", 0, 4,
             [](S& s) {
                 IndxOpenExistingTable(nullptr, s.database(), "people", 3);
                 return "IndxOpenExistingTable(" + Pointer(nullptr) + ", " + Pointer(s.database()) +
                        ", people, 3)";
             }},
            {"Invalid argument", 0, -1,
             [](S& s) { EXPECT_EQ(IndxOpenExistingTable(nullptr, s.database(), nullptr, 0), 0u); }},
            {"Table does not exist yet", 0, 4,
             [](S& s) { EXPECT_EQ(IndxOpenExistingTable(nullptr, s.database(), "T", 0), 0u); }},
            {"%s = IndxOpenExistingTable(%p, %p, %s, %ld)", 0, 3,
             [](S& s) {
                 EXPECT_EQ(IndxOpenExistingTable(&s.variable, s.database(), "PEOPLE", 3), 1u);
                 IndxReleaseTable(&s.variable);
                 return "TRUE = IndxOpenExistingTable(" + s.var() + ", " + Pointer(s.database()) +
                        ", PEOPLE, 3)";
             }},
            {"%s = IndxOpenExistingTable(%p, %p, %s, %ld)", 0, 3,
             [=](S&) {
                 IndxOpenExistingTable(nullptr, nullptr, nullptr, 0xFFFFFFFE);
                 return "FALSE = IndxOpenExistingTable(" + null + ", " + null + ", (null), -2)";
             }},
        });
}

TEST(TableMessages, LoadingTables)
{
    ReadBook<S>(
        INDX,
        {
            {"IndxLoadTable(%p, %p, %s, %s)", 0, 4,
             [](S& s) {
                 EXPECT_EQ(IndxLoadTable(&s.variable, s.database(), "F", "People"), 0u);
                 return "IndxLoadTable(" + s.var() + ", " + Pointer(s.database()) + ", F, People)";
             }},
            // IndxIndexOpen says TRUE of a file that it could not open: what is left is memory.
            {"Failed to open index file", 0, 4,
             [](S& s) {
                 s.Fail(FAULT_ALLOC);
                 EXPECT_EQ(IndxLoadTable(nullptr, s.database(), "F", "T"), 0u);
             }},
            {"Failed to reconstruct table", 0, 4,
             [](S& s) { // the file was not opened
                 std::filesystem::create_directory(s.PathOf("Indexes", "F"));
                 EXPECT_EQ(IndxLoadTable(nullptr, s.database(), "F", "T"), 0u);
             }},
            {"Failed to reconstruct table", 0, 4,
             [](S& s) { s.LoadChanged([](std::string& bytes) { bytes[40 + 20] ^= 1; }); }},
            {"Wrong object, %s", 0, 4,
             [](S& s) {
                 s.LoadChanged([](std::string& bytes) {
                     void* oText = ObjStringNew("no table");
                     uint32_t size = 0;
                     EXPECT_EQ(ObjSerializeToMemory(oText, bytes.data() + 40, &size), 1u);
                     ObjReleaseInternal(&oText);
                 });
                 return std::string("Wrong object, String");
             }},
            {"%s = IndxRecordsOpen(%p) %s", 0, 4,
             [](S& s) {
                 EXPECT_EQ(IndxRecordsOpen(s.table_, "Elsewhere"), 1u);
                 return "TRUE = IndxRecordsOpen(" + Pointer(s.table_) + ") " +
                        s.PathOf("Records", "Elsewhere");
             }},
            {"%s = IndxRecordsOpen(%p) %s", 0, 4,
             [](S& s) { // "TRUE" also of a file that did not open
                 s.Fail(FAULT_OPEN);
                 EXPECT_EQ(IndxRecordsOpen(s.table_, "Elsewhere"), 1u);
                 return "TRUE = IndxRecordsOpen(" + Pointer(s.table_) + ") " +
                        s.PathOf("Records", "Elsewhere");
             }},
        });
}

TEST(TableMessages, Versions)
{
    const auto ask = [](S& s, uint32_t expected) {
        uint32_t version = 77;
        EXPECT_EQ(IndxGetTableVersion(&version, "T", s.database()), expected);
    };
    ReadBook<S>(
        INDX, {
                  {"Return table '%s' version of 'does not exist'", 0, 4,
                   [=](S& s) {
                       ask(s, 1);
                       return std::string("Return table 'T' version of 'does not exist'");
                   }},
                  {"Return table '%s' version of 'none'", 0, 4,
                   [=](S& s) {
                       EXPECT_EQ(s.OpenSmall("T"), 1u);
                       ask(s, 1);
                       return std::string("Return table 'T' version of 'none'");
                   }},
                  {"Failed to load version stanza for table '%s'", 1, -1,
                   [=](S& s) {
                       s.BreakVersionFile("[Other]\n");
                       ask(s, 0);
                       return std::string("Failed to load version stanza for table 'T'");
                   }},
                  {"Failed to get version integer from stnz for '%s'", 0, -1,
                   [=](S& s) {
                       s.BreakVersionFile("[Versioning]\nVersion = many\n");
                       ask(s, 0);
                       return std::string("Failed to get version integer from stnz for 'T'");
                   }},
                  {"Failed to get version integer from stnz for '%s'", 0, -1,
                   [=](S& s) {
                       s.BreakVersionFile("[Versioning]\nVersion = -2\n");
                       ask(s, 0);
                       return std::string("Failed to get version integer from stnz for 'T'");
                   }},
                  {"Got version of %ld for table '%s'", 0, 4,
                   [=](S& s) {
                       EXPECT_EQ(s.OpenSmall("T", 5), 1u);
                       ask(s, 1);
                       return std::string("Got version of 5 for table 'T'");
                   }},
                  {"Succesfully set table '%s' version to %ld", 0, 4,
                   [](S& s) {
                       EXPECT_EQ(s.OpenSmall("T", 5), 1u);
                       return std::string("Succesfully set table 'T' version to 5");
                   }},
                  {"%s = IndxSetTableVersion('%s', %p, %ld)", 0, 4,
                   [](S& s) {
                       EXPECT_EQ(s.OpenSmall("T", 5), 1u);
                       return "TRUE = IndxSetTableVersion('T', " + Pointer(s.database()) + ", 5)";
                   }},
                  {"%s = IndxSetTableVersion('%s', %p, %ld)", 0, 4,
                   [](S& s) {
                       s.Fail(FAULT_STNZ_SAVE);
                       EXPECT_EQ(s.OpenSmall("T", 5), 0u);
                       return "FALSE = IndxSetTableVersion('T', " + Pointer(s.database()) + ", 5)";
                   }},
              });
}

// ---- fields and cursors
// --------------------------------------------------------------------------

TEST(TableMessages, FieldsAndCursors)
{
    const auto release = [](S& s) { IndxReleaseCursor(&s.variable); };
    ReadBook<S>(
        INDX,
        {
            {"IndxGetField(%p, %p, %s)", 0, 4,
             [](S& s) {
                 EXPECT_EQ(IndxGetField(nullptr, s.table_, nullptr), 0u);
                 return "IndxGetField(" + Pointer(nullptr) + ", " + Pointer(s.table_) + ", (null))";
             }},
            {"Field does not exist", 1, -1,
             [](S& s) { EXPECT_EQ(IndxGetField(&s.variable, s.table_, "Shoe"), 0u); }},
            {"%s = IndxGetField(%p, %p, %s)", 0, 4,
             [](S& s) {
                 EXPECT_EQ(IndxGetField(&s.variable, s.table_, "NAME"), 1u);
                 ObjReleaseInternal(&s.variable);
                 return "TRUE = IndxGetField(" + s.var() + ", " + Pointer(s.table_) + ", NAME)";
             }},
            {"%s = IndxGetField(%p, %p, %s)", 0, 4,
             [](S& s) {
                 EXPECT_EQ(IndxGetField(&s.variable, s.table_, "Shoe"), 0u);
                 return "FALSE = IndxGetField(" + s.var() + ", " + Pointer(s.table_) + ", Shoe)";
             }},
            {"Invalid argument to GetCursor", 1, -1,
             [](S& s) { EXPECT_EQ(IndxGetCursor(&s.variable, s.table_), 0u); }},
            {"Field is not indexed", 1, -1,
             [](S& s) { EXPECT_EQ(IndxGetCursor(&s.variable, s.Field(s.table_, 7)), 0u); }},
            {"Got cursor to field     '%s' of '%s'", 0, 4,
             [=](S& s) {
                 EXPECT_EQ(IndxGetFieldCursor(&s.variable, s.table_, "name"), 1u);
                 release(s);
                 return std::string("Got cursor to field     'Name' of 'People'");
             }},
            {"%s = IndxGetCursor(%p, %p) %p", 0, 4,
             [=](S& s) {
                 void* oField = s.Field(s.table_, 1);
                 EXPECT_EQ(IndxGetCursor(&s.variable, oField), 1u);
                 const std::string cursor = Pointer(s.variable);
                 release(s);
                 return "TRUE = IndxGetCursor(" + s.var() + ", " + Pointer(oField) + ") " + cursor;
             }},
            {"%s = IndxGetCursor(%p, %p) %p", 0, 4,
             [](S&) {
                 const std::string null = Pointer(nullptr);
                 EXPECT_EQ(IndxGetCursor(nullptr, nullptr), 0u);
                 return "FALSE = IndxGetCursor(" + null + ", " + null + ") " + null;
             }},
            {"IndxGetFieldCursor(%p, %p, %s) %s", 0, 4,
             [=](S& s) {
                 EXPECT_EQ(IndxGetFieldCursor(&s.variable, s.table_, "name"), 1u);
                 release(s);
                 return "IndxGetFieldCursor(" + s.var() + ", " + Pointer(s.table_) +
                        ", name) People";
             }},
            {"IndxReleaseCursor(%p) %p", 0, 4,
             [=](S& s) {
                 EXPECT_EQ(IndxGetFieldCursor(&s.variable, s.table_, "Name"), 1u);
                 const std::string cursor = Pointer(s.variable);
                 release(s);
                 return "IndxReleaseCursor(" + s.var() + ") " + cursor;
             }},
            {"IndxReleaseCursor(%p) %p", 0, 4,
             [](S&) {
                 EXPECT_EQ(IndxReleaseCursor(nullptr), 0u);
                 return "IndxReleaseCursor(" + Pointer(nullptr) + ") " + Pointer(nullptr);
             }},
            {"Release cursor to field '%s' of '%s'", 0, 4,
             [=](S& s) {
                 EXPECT_EQ(IndxGetFieldCursor(&s.variable, s.table_, "Name"), 1u);
                 release(s);
                 return std::string("Release cursor to field 'Name' of 'People'");
             }},
        });
}

} // namespace
