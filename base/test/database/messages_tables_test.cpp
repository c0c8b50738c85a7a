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

    void* variable = nullptr;
};
using S = TablesScene;

// ---- the catalogue ----------------------------------------------------------------------------

TEST(TableMessages, OpeningAndClosingDatabases)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxOpenDatabase(%p, %s, %p)", With(At(&S::variable), "Other", nullptr), 0, 4,
         [](S& s) {
             EXPECT_EQ(IndxOpenDatabase(&s.variable, "Other", nullptr, nullptr), 1u);
             IndxCloseDatabase(&s.variable);
         }},
        {"IndxOpenDatabase(%p, %s, %p)", With(nullptr, "(null)", nullptr), 0, 4,
         [](S&) { EXPECT_EQ(IndxOpenDatabase(nullptr, nullptr, nullptr, nullptr), 0u); }},
        {"%s = IndxOpenDatabase(0x%p, %s, %p)", With("TRUE", At(&S::variable), "Other", nullptr), 0,
         3,
         [](S& s) {
             EXPECT_EQ(IndxOpenDatabase(&s.variable, "Other", nullptr, nullptr), 1u);
             IndxCloseDatabase(&s.variable);
         }},
        {"%s = IndxOpenDatabase(0x%p, %s, %p)", With("FALSE", At(&S::variable), "(null)", nullptr),
         0, 3,
         [](S& s) { EXPECT_EQ(IndxOpenDatabase(&s.variable, nullptr, nullptr, nullptr), 0u); }},
        {"IndxCloseDatabase(%p)", With(&S::databaseVariable), 0, 4, [](S& s) { s.Close(); }},
        {"%s = IndxCloseDatabase(%p)", With("TRUE", &S::databaseVariable), 0, 4,
         [](S& s) { s.Close(); }},
        {"%s = IndxCloseDatabase(%p)", With("FALSE", At(&S::variable)), 0, 4,
         [](S& s) { EXPECT_EQ(IndxCloseDatabase(&s.variable), 0u); }},
        {"Release table (%p) %s", 0, 4,
         [](S& s) {
             const void* const table = s.table_;
             s.Close();
             return With(table, "People");
         }},
        {"%s = IndxCloseTable(%p)", With("TRUE", At(&S::variable)), 0, 4,
         [](S& s) {
             s.variable = ObjIncRefCount(s.table_);
             EXPECT_EQ(IndxCloseTable(&s.variable), 1u);
         }},
    };
    ReadBook(INDX, lines);
}

// ---- definition -------------------------------------------------------------------------------

TEST(TableMessages, DefiningTables)
{
    const auto define = [](S& s) {
        EXPECT_EQ(
            s.OpenSmall("New", INDX_VERSION_NONE, "i;s;", "Id, Name;Indexed;Case Sensitive"), 1u);
    };
    const std::vector<BookLine<S>> lines = {
        {"IndxCreateTable()", 0, 4, define},
        {"Invalid format length %ld", With(0), 0, -1, [](S& s) { s.Refuse("", "Id"); }},
        {"Invalid Fields length %ld", With(0), 0, -1, [](S& s) { s.Refuse("i;", ""); }},
        {"Format '%s'", With("i;s;"), 0, 4, [=](S& s) { define(s); }},
        {"Fields '%s'", With("Id, Name;Indexed;Case Sensitive"), 0, 4, [=](S& s) { define(s); }},
        {"End of format string", 0, 4, define},
        {"Null field name", 0, -1, [](S& s) { s.Refuse("i;i;", "Id,,A"); }},
        {"Process '%s'", With("Name"), 0, 4, [=](S& s) { define(s); }},
        {"duplicate field name", 0, -1, [](S& s) { s.Refuse("i;i;i;", "Id,A,a"); }},
        {"Field %ld '%s' offset %ld indexed %s unique %s case sensitive %s",
         With(1, "Name", 8, "TRUE", "FALSE", "TRUE"), 0, 4, [=](S& s) { define(s); }},
        {"Field %ld '%s' offset %ld indexed %s unique %s case sensitive %s",
         With(0, "Id", 4, "FALSE", "TRUE", "FALSE"), 0, 4,
         [](S& s) { // the flags as they were written, before the kind drops them
             EXPECT_EQ(s.OpenSmall("New", INDX_VERSION_NONE, "i;b;", "Id;Unique,B;Indexed"), 1u);
         }},
        {"Index must be type 'i'", 0, -1, [](S& s) { s.Refuse("s;", "Id"); }},
        {"Table too large MAX %ld, table %ld", With(16128, 32278), 0, -1,
         [](S& s) {
             std::string format;
             std::string fields = "Id";
             for (int i = 0; i < 300; ++i) {
                 format += "i;";
                 fields += i ? ",A field of some length " + std::to_string(i) : "";
             }
             s.Refuse(format.c_str(), fields.c_str());
             // The bytes that the description would take in its stored form, which is
             // frozen.
         }},
    };
    ReadBook(INDX, lines);
}

// ---- opening ----------------------------------------------------------------------------------

TEST(TableMessages, OpeningTables)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxOpenTableInternal(%p, %p, %s, %s, %ld, %s %s, %s %ld)", 0, 4,
         [](S& s) {
             EXPECT_EQ(
                 IndxOpenTableInternal(
                     &s.variable, s.database(), "T", "F", 0xca333333, "i;", "Id", 1,
                     INDX_VERSION_ANY),
                 1u);
             IndxReleaseTable(&s.variable);
             return With(
                 &s.variable, s.database(), "T", "F", static_cast<int32_t>(0xca333333), "i;", "Id",
                 "TRUE", -1);
         }},
        {"IndxOpenTableInternal(%p, %p, %s, %s, %ld, %s %s, %s %ld)",
         With(nullptr, nullptr, "(null)", "(null)", 7, "(null)", "(null)", "FALSE", 5), 0, 4,
         [=](S&) {
             IndxOpenTableInternal(nullptr, nullptr, nullptr, nullptr, 7, nullptr, nullptr, 0, 5);
         }},
        {"Invalid argument", 0, -1,
         [](S& s) {
             EXPECT_EQ(
                 IndxOpenTableInternal(nullptr, s.database(), nullptr, "F", 7, "i;", "Id", 0, 5),
                 0u);
         }},
        {"Failed when discovering table version", 0, -1,
         [](S& s) {
             s.BreakVersionFile("no stanza");
             EXPECT_EQ(s.OpenSmall("T", 5), 0u);
         }},
        {"Wrong table version - wanted '%s', is '%s'", With("5", "None"), 0, -1,
         [](S& s) {
             EXPECT_EQ(s.OpenSmall("T"), 1u);
             EXPECT_EQ(s.OpenSmall("T", 5), 0u);
         }},
        {"Wrong table version - wanted '%s', is '%s'", With("None", "2147483648"), 0, -1,
         [](S& s) { // versions are unsigned
             EXPECT_EQ(s.OpenSmall("T", 0x80000000), 1u);
             EXPECT_EQ(s.OpenSmall("T", INDX_VERSION_NONE), 0u);
         }},
        {"Shape of table has changed", 1, -1,
         [](S& s) {
             EXPECT_EQ(s.OpenSmall("T"), 1u);
             EXPECT_EQ(s.OpenSmall("T", INDX_VERSION_NONE, "i;s;"), 0u);
         }},
        {"Create a new table", 0, 3, [](S& s) { EXPECT_EQ(s.OpenSmall("T"), 1u); }},
        {"Failed to set table version when creating new table '%s'", With("T"), 0, -1,
         [](S& s) {
             s.Fail(FAULT_STNZ_SAVE);
             EXPECT_EQ(s.OpenSmall("T", 5), 0u);
         }},
        {"Failed to create table", 0, -1, [](S& s) { s.Refuse("i;", ""); }},
        {"%s = IndxOpenTableInternal(%p, %p, %s, %s, ...)",
         With("TRUE", At(&S::variable), &S::database, "T", "F"), 0, 3,
         [](S& s) {
             EXPECT_EQ(
                 IndxOpenTableInternal(
                     &s.variable, s.database(), "T", "F", 0xca333333, "i;", "Id", 0,
                     INDX_VERSION_NONE),
                 1u);
             IndxReleaseTable(&s.variable);
         }},
        {"%s = IndxOpenTableInternal(%p, %p, %s, %s, ...)",
         With("FALSE", nullptr, nullptr, "(null)", "(null)"), 0, 3,
         [=](S&) {
             IndxOpenTableInternal(nullptr, nullptr, nullptr, nullptr, 7, nullptr, nullptr, 0, 5);
         }},
        {"IndxOpenExistingTable(%p, %p, %s, %ld)", With(nullptr, &S::database, "people", 3), 0, 4,
         [](S& s) { IndxOpenExistingTable(nullptr, s.database(), "people", 3); }},
        {"Invalid argument", 0, -1,
         [](S& s) { EXPECT_EQ(IndxOpenExistingTable(nullptr, s.database(), nullptr, 0), 0u); }},
        {"Table does not exist yet", 0, 4,
         [](S& s) { EXPECT_EQ(IndxOpenExistingTable(nullptr, s.database(), "T", 0), 0u); }},
        {"%s = IndxOpenExistingTable(%p, %p, %s, %ld)",
         With("TRUE", At(&S::variable), &S::database, "PEOPLE", 3), 0, 3,
         [](S& s) {
             EXPECT_EQ(IndxOpenExistingTable(&s.variable, s.database(), "PEOPLE", 3), 1u);
             IndxReleaseTable(&s.variable);
         }},
        {"%s = IndxOpenExistingTable(%p, %p, %s, %ld)",
         With("FALSE", nullptr, nullptr, "(null)", -2), 0, 3,
         [=](S&) { IndxOpenExistingTable(nullptr, nullptr, nullptr, 0xFFFFFFFE); }},
    };
    ReadBook(INDX, lines);
}

TEST(TableMessages, LoadingTables)
{
    const std::vector<BookLine<S>> lines = {
        {"IndxLoadTable(%p, %p, %s, %s)", With(At(&S::variable), &S::database, "F", "People"), 0, 4,
         [](S& s) { EXPECT_EQ(IndxLoadTable(&s.variable, s.database(), "F", "People"), 0u); }},
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
        {"Wrong object, %s", With("String"), 0, 4,
         [](S& s) {
             s.LoadChanged([](std::string& bytes) {
                 void* oText = ObjStringNew("no table");
                 uint32_t size = 0;
                 EXPECT_EQ(ObjSerializeToMemory(oText, bytes.data() + 40, &size), 1u);
                 ObjReleaseInternal(&oText);
             });
         }},
        {"%s = IndxRecordsOpen(%p) %s", 0, 4,
         [](S& s) {
             EXPECT_EQ(IndxRecordsOpen(s.table_, "Elsewhere"), 1u);
             return With("TRUE", s.table_, s.PathOf("Records", "Elsewhere"));
         }},
        {"%s = IndxRecordsOpen(%p) %s", 0, 4,
         [](S& s) { // "TRUE" also of a file that did not open
             s.Fail(FAULT_OPEN);
             EXPECT_EQ(IndxRecordsOpen(s.table_, "Elsewhere"), 1u);
             return With("TRUE", s.table_, s.PathOf("Records", "Elsewhere"));
         }},
    };
    ReadBook(INDX, lines);
}

TEST(TableMessages, Versions)
{
    const auto ask = [](S& s, uint32_t expected) {
        uint32_t version = 77;
        EXPECT_EQ(IndxGetTableVersion(&version, "T", s.database()), expected);
    };
    const std::vector<BookLine<S>> lines = {
        {"Return table '%s' version of 'does not exist'", With("T"), 0, 4,
         [=](S& s) { ask(s, 1); }},
        {"Return table '%s' version of 'none'", With("T"), 0, 4,
         [=](S& s) {
             EXPECT_EQ(s.OpenSmall("T"), 1u);
             ask(s, 1);
         }},
        {"Failed to load version stanza for table '%s'", With("T"), 1, -1,
         [=](S& s) {
             s.BreakVersionFile("[Other]\n");
             ask(s, 0);
         }},
        {"Failed to get version integer from stnz for '%s'", With("T"), 0, -1,
         [=](S& s) {
             s.BreakVersionFile("[Versioning]\nVersion = many\n");
             ask(s, 0);
         }},
        {"Failed to get version integer from stnz for '%s'", With("T"), 0, -1,
         [=](S& s) {
             s.BreakVersionFile("[Versioning]\nVersion = -2\n");
             ask(s, 0);
         }},
        {"Got version of %ld for table '%s'", With(5, "T"), 0, 4,
         [=](S& s) {
             EXPECT_EQ(s.OpenSmall("T", 5), 1u);
             ask(s, 1);
         }},
        {"Succesfully set table '%s' version to %ld", With("T", 5), 0, 4,
         [](S& s) { EXPECT_EQ(s.OpenSmall("T", 5), 1u); }},
        {"%s = IndxSetTableVersion('%s', %p, %ld)", With("TRUE", "T", &S::database, 5), 0, 4,
         [](S& s) { EXPECT_EQ(s.OpenSmall("T", 5), 1u); }},
        {"%s = IndxSetTableVersion('%s', %p, %ld)", With("FALSE", "T", &S::database, 5), 0, 4,
         [](S& s) {
             s.Fail(FAULT_STNZ_SAVE);
             EXPECT_EQ(s.OpenSmall("T", 5), 0u);
         }},
    };
    ReadBook(INDX, lines);
}

// ---- fields and cursors -----------------------------------------------------------------------

TEST(TableMessages, FieldsAndCursors)
{
    const auto release = [](S& s) { IndxReleaseCursor(&s.variable); };
    const std::vector<BookLine<S>> lines = {
        {"IndxGetField(%p, %p, %s)", With(nullptr, &S::table_, "(null)"), 0, 4,
         [](S& s) { EXPECT_EQ(IndxGetField(nullptr, s.table_, nullptr), 0u); }},
        {"Field does not exist", 1, -1,
         [](S& s) { EXPECT_EQ(IndxGetField(&s.variable, s.table_, "Shoe"), 0u); }},
        {"%s = IndxGetField(%p, %p, %s)", With("TRUE", At(&S::variable), &S::table_, "NAME"), 0, 4,
         [](S& s) {
             EXPECT_EQ(IndxGetField(&s.variable, s.table_, "NAME"), 1u);
             ObjReleaseInternal(&s.variable);
         }},
        {"%s = IndxGetField(%p, %p, %s)", With("FALSE", At(&S::variable), &S::table_, "Shoe"), 0, 4,
         [](S& s) { EXPECT_EQ(IndxGetField(&s.variable, s.table_, "Shoe"), 0u); }},
        {"Invalid argument to GetCursor", 1, -1,
         [](S& s) { EXPECT_EQ(IndxGetCursor(&s.variable, s.table_), 0u); }},
        {"Field is not indexed", 1, -1,
         [](S& s) { EXPECT_EQ(IndxGetCursor(&s.variable, s.Field(s.table_, 7)), 0u); }},
        {"Got cursor to field     '%s' of '%s'", With("Name", "People"), 0, 4,
         [=](S& s) {
             EXPECT_EQ(IndxGetFieldCursor(&s.variable, s.table_, "name"), 1u);
             release(s);
         }},
        {"%s = IndxGetCursor(%p, %p) %p", 0, 4,
         [=](S& s) {
             void* oField = s.Field(s.table_, 1);
             EXPECT_EQ(IndxGetCursor(&s.variable, oField), 1u);
             const void* const cursor = s.variable;
             release(s);
             return With("TRUE", &s.variable, oField, cursor);
         }},
        {"%s = IndxGetCursor(%p, %p) %p", With("FALSE", nullptr, nullptr, nullptr), 0, 4,
         [](S&) { EXPECT_EQ(IndxGetCursor(nullptr, nullptr), 0u); }},
        {"IndxGetFieldCursor(%p, %p, %s) %s", With(At(&S::variable), &S::table_, "name", "People"),
         0, 4,
         [=](S& s) {
             EXPECT_EQ(IndxGetFieldCursor(&s.variable, s.table_, "name"), 1u);
             release(s);
         }},
        {"IndxReleaseCursor(%p) %p", 0, 4,
         [=](S& s) {
             EXPECT_EQ(IndxGetFieldCursor(&s.variable, s.table_, "Name"), 1u);
             const void* const cursor = s.variable;
             release(s);
             return With(&s.variable, cursor);
         }},
        {"IndxReleaseCursor(%p) %p", With(nullptr, nullptr), 0, 4,
         [](S&) { EXPECT_EQ(IndxReleaseCursor(nullptr), 0u); }},
        {"Release cursor to field '%s' of '%s'", With("Name", "People"), 0, 4,
         [=](S& s) {
             EXPECT_EQ(IndxGetFieldCursor(&s.variable, s.table_, "Name"), 1u);
             release(s);
         }},
    };
    ReadBook(INDX, lines);
}

// What a refusal names: the item, the value, and the table or the file.
TEST(TableMessages, NamingWhatIsRefused)
{
    const std::vector<BookLine<S>> lines = {
        {"'%s' is no directory and cannot be made one", 1, -1,
         [](S& s) {
             s.Close();
             WriteFileBytes(s.HomePath() + "/File", "a file");
             EXPECT_EQ(IndxOpenDatabase(&s.variable, "File", nullptr, nullptr), 0u);
             return With(S::Native(s.HomePath() + "/File"));
         }},
        {"Cannot tell the home directory of databases", 1, -1,
         [](S& s) {
             WriteFileBytes(s.directory().path("configure.cfg"), "[Directories]\n");
             s.Fail(FAULT_READ, 1, 1, "configure.cfg");
             EXPECT_EQ(IndxOpenDatabase(&s.variable, "Data", nullptr, nullptr), 0u);
         }},
        {"'%s' is no name of a database below its home", With("../Evil"), 1, -1,
         [](S& s) { EXPECT_EQ(IndxOpenDatabase(&s.variable, "../Evil", nullptr, nullptr), 0u); }},
        {"'%s' cannot be the name of a table or of its files", With("../evil"), 1, -1,
         [](S& s) { EXPECT_EQ(s.OpenSmall("../evil"), 0u); }},
        {"Cannot tell whether '%s' exists", 1, -1,
         [](S& s) {
             s.Fail(FAULT_EXISTS, 1, 0, "Indexes");
             EXPECT_EQ(s.OpenSmall("T"), 0u);
             return With(s.PathOf("Indexes", "T"));
         }},
        {"Magic 0x%08lx of table '%s' is outside 0xc8000000 to 0xcfffffff", With(0xd0001234u, "T"),
         1, -1,
         [](S& s) {
             EXPECT_EQ(s.OpenSmall("T", INDX_VERSION_NONE, "i;i;", "Id,A", 0xd0001234), 0u);
         }},
        {"Item %ld '%s' of format '%s' of table '%s' is of no kind",
         With(2, "n0", "i;n0;", "Refused"), 1, -1, [](S& s) { s.Refuse("i;n0;", "Id,A"); }},
        {"No record can be made of format '%s' of table '%s'",
         With("i;n2147483647;n2147483647;", "Refused"), 1, -1,
         [](S& s) { s.Refuse("i;n2147483647;n2147483647;", "Id,A,B"); }},
        {"Fields '%s' of table '%s' name more than the %ld items of format '%s'",
         With("Id,A", "Refused", 1, "i;"), 1, -1, [](S& s) { s.Refuse("i;", "Id,A"); }},
        {"Fields '%s' of table '%s' name %ld of the %ld items of format '%s'",
         With("Id,A", "Refused", 2, 3, "i;i;i;"), 1, -1, [](S& s) { s.Refuse("i;i;i;", "Id,A"); }},
        {"Fields '%s' of table '%s' name no field '%s'", With("A", "Refused", "Id"), 1, -1,
         [](S& s) { s.Refuse("i;", "A"); }},
        {"A flag of field '%s' of table '%s' is empty", With("A", "Refused"), 1, -1,
         [](S& s) { s.Refuse("i;i;", "Id,A;"); }},
        {"Flag '%s' of field '%s' of table '%s' is unknown", With("Sorted", "A", "Refused"), 1, -1,
         [](S& s) { s.Refuse("i;i;", "Id,A;Sorted"); }},
        {"Field '%s' of table '%s' is of kind %ld, which is kept in memory only",
         With("A", "Refused", 12), 1, -1, [](S& s) { s.Refuse("i;sl;", "Id,A"); }},
        {"'Unique' has no effect on field '%s' of table '%s', which is not indexed", With("A", "T"),
         0, -1,
         [](S& s) { EXPECT_EQ(s.OpenSmall("T", INDX_VERSION_NONE, "i;i;", "Id,A;Unique"), 1u); }},
        {"Field '%s' of table '%s' keeps its stored flags: indexed %s unique %s case sensitive "
         "%s",
         With("A", "T", "TRUE", "FALSE", "FALSE"), 0, -1,
         [](S& s) {
             EXPECT_EQ(s.OpenSmall("T"), 1u);
             EXPECT_EQ(s.OpenSmall("T", INDX_VERSION_NONE, "i;i;", "Id,A"), 1u);
         }},
        {"Records file '%s' is made anew, though table '%s' has keys of records", 1, -1,
         [](S& s) {
             s.MustAdd(1);
             s.Close();
             std::filesystem::remove(s.RecordsPath());
             EXPECT_TRUE(s.Open());
             return With(s.RecordsPath(), "People");
         }},
    };
    ReadBook(INDX, lines);
}

} // namespace
