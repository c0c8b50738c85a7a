// definition_test.cpp: format text and fields text into tables and fields: names, flags, kinds, the
// refused ones with their codes, and the size that a description may have.
#include <cstdio>

#include "support/database_fixture.h"

namespace {

constexpr const char* TAG = "INDX        ";

// Sets the last error to a value that no refusal leaves.
void PresetError()
{
    IndxSetError(77);
}

class Definition : public DatabaseTest {
  protected:
    void SetUp() override
    {
        DatabaseTest::SetUp();
        ASSERT_TRUE(Open());
        PresetError();
    }
    // Creates the table "T"; null when it is refused.
    IndxTable* Create(const char* format, const char* fields)
    {
        return static_cast<IndxTable*>(OpenTable("T", MAGIC, format, fields));
    }
    // Refused, with this last error, and with the line that tells it from the caller's.
    void ExpectRefused(const char* format, const char* fields, uint32_t error)
    {
        SCOPED_TRACE(std::string(format) + " | " + fields);
        PresetError();
        TraceRecorder trace;
        EXPECT_EQ(Create(format, fields), nullptr);
        EXPECT_EQ(IndxError(), error);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to create table")) << trace.dump();
        EXPECT_EQ(TableCount(), 0u);
    }
};

constexpr uint32_t UNCHANGED = 77;

// ---- the table --------------------------------------------------------------------------------

TEST_F(Definition, FillsEveryItemOfTheTable)
{
    const char* format = "i;s;i;";
    const char* fields = "Id, Name;Indexed;Case Sensitive, Size;Indexed;Unique";
    void* oTable = nullptr;
    ASSERT_TRUE(IndxOpenTableInternal(
        &oTable, database(), "Things", "Things", MAGIC, format, fields, 1, INDX_VERSION_NONE));
    const auto* pTable = static_cast<IndxTable*>(oTable);
    EXPECT_STREQ(pTable->name, "Things");
    EXPECT_NE(pTable->hRecords, FILE_NONE);
    EXPECT_EQ(ObjGetMagic(pTable->oBlck), 0xca7d0e8eu);
    EXPECT_EQ(pTable->oDatabase, database());
    EXPECT_STREQ(pTable->format, format);
    EXPECT_NE(pTable->format, format);
    EXPECT_STREQ(pTable->fields, fields);
    EXPECT_EQ(pTable->recordMagic, MAGIC);
    EXPECT_EQ(pTable->highestId, 0u);
    EXPECT_EQ(pTable->fixedSize, 20u);
    EXPECT_EQ(pTable->idOffset, 4u);
    ASSERT_EQ(pTable->indexedFlags.size, 12u);
    const auto* flags = static_cast<uint32_t*>(pTable->indexedFlags.data);
    EXPECT_EQ(flags[0], 1u);
    EXPECT_EQ(flags[1], 1u);
    EXPECT_EQ(flags[2], 1u);
    EXPECT_EQ(pTable->bTextIndex, 1u);
    EXPECT_EQ(pTable->bChanged, 0u); // stored by the end of the open
    EXPECT_EQ(pTable->bCompanionFiles, 1u);
    EXPECT_EQ(ListGetCount(pTable->oFields), 3u);
    IndxReleaseTable(&oTable);
}

TEST_F(Definition, FillsEveryItemOfAField)
{
    IndxTable* pTable = Create("i;s;i;", "Id, Name;Indexed;Case Sensitive, Size;Indexed;Unique");
    ASSERT_NE(pTable, nullptr);
    const IndxField* pName = Field(pTable, 1);
    ASSERT_NE(pName, nullptr);
    EXPECT_STREQ(pName->name, "Name");
    EXPECT_EQ(pName->type, 4);
    EXPECT_EQ(pName->recordOffset, 8);
    EXPECT_EQ(pName->bIndexed, 1u);
    EXPECT_EQ(pName->bUnique, 0u);
    EXPECT_EQ(pName->bCaseSensitive, 1u);
    EXPECT_EQ(pName->maximumKey, 8168u);
    EXPECT_EQ(pName->roots.tRoot, 0xFFFFFFFFu);
    EXPECT_EQ(pName->roots.tFirstLeaf, 0xFFFFFFFFu);
    EXPECT_EQ(pName->roots.tLastLeaf, 0xFFFFFFFFu);
    EXPECT_EQ(pName->keyType, 4097);
    EXPECT_EQ(pName->levels, 0);
    EXPECT_EQ(pName->oTable, pTable);
    ASSERT_EQ(ObjGetMagic(pName->oCursors), OBJ_MAGIC_LIST);
    EXPECT_EQ(ListGetCount(pName->oCursors), 0u);
    EXPECT_EQ(pName->committedRoots.tRoot, 0xFFFFFFFFu);
    EXPECT_EQ(pName->committedLevels, 0);

    const IndxField* pSize = Field(pTable, 2);
    EXPECT_STREQ(pSize->name, "Size");
    EXPECT_EQ(pSize->type, 2);
    EXPECT_EQ(pSize->recordOffset, 16);
    EXPECT_EQ(pSize->bIndexed, 1u);
    EXPECT_EQ(pSize->bUnique, 1u);
    EXPECT_EQ(pSize->bCaseSensitive, 0u);
    EXPECT_EQ(pSize->keyType, 3);
}

TEST_F(Definition, FieldsThatAreNotIndexedHaveNoListOfCursors)
{
    IndxTable* pTable = Create("i;s;", "Id,Name");
    ASSERT_NE(pTable, nullptr);
    EXPECT_NE(Field(pTable, 0)->oCursors, nullptr);
    EXPECT_EQ(Field(pTable, 1)->oCursors, nullptr);
}

// ---- texts that are missing -------------------------------------------------------------------

TEST_F(Definition, EmptyFormatIsRefusedWith19)
{
    ExpectRefused("", "Id", 19);
    IndxTable table = {};
    PresetError();
    EXPECT_EQ(IndxCreateTable(&table, MAGIC, nullptr, "Id"), 0u);
    EXPECT_EQ(IndxError(), 19u);
}

TEST_F(Definition, EmptyFormatIsTracedWithItsLength)
{
    TraceRecorder trace;
    Create("", "Id");
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid format length 0")) << trace.dump();
}

TEST_F(Definition, EmptyFieldsTextIsRefusedWith20)
{
    ExpectRefused("i;", "", 20);
    TraceRecorder trace;
    Create("i;", "");
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Invalid Fields length 0")) << trace.dump();
    IndxTable table = {};
    PresetError();
    EXPECT_EQ(IndxCreateTable(&table, MAGIC, "i;", nullptr), 0u);
    EXPECT_EQ(IndxError(), 20u);
}

TEST_F(Definition, FormatThatTheObjectServicesRefuseSetsNoCode)
{
    for (const char* format : {"x;", "i;;", "I;", "n0;", " i;", ";"})
        ExpectRefused(format, "Id", UNCHANGED);
}

// ---- names ------------------------------------------------------------------------------------

// ---- what a refusal says ----------------------------------------------------------------------

TEST_F(Definition, ItemOfNoKindIsNamed)
{
    struct Case {
        const char* format;
        uint32_t item;
        const char* text;
    };
    for (const Case& c : std::initializer_list<Case>{
             {"i;x;s;", 2, "x"},
             {"i;S", 2, "S"},
             {"i;;s;", 2, ""},
             {"i;s ;", 2, "s "},
             {"i;n;", 2, "n"},
             {"i;n0;", 2, "n0"},
             {"i;n5x;", 2, "n5x"},
             {"i;s;il;", 3, "il"},
             {"i;n2147483648;", 2, "n2147483648"},
             {";", 1, ""},
             {"i;oll;", 2, "oll"}}) {
        SCOPED_TRACE(c.format);
        TraceRecorder trace;
        EXPECT_EQ(Create(c.format, "Id,A,B"), nullptr);
        EXPECT_EQ(IndxError(), UNCHANGED);
        EXPECT_TRUE(trace.has(
            TAG, 1, -1,
            "Item " + std::to_string(c.item) + " '" + c.text + "' of format '" + c.format +
                "' of table 'T' is of no kind"))
            << trace.dump();
    }
}

TEST_F(Definition, FormatOfSoundItemsThatIsRefusedIsNamed)
{
    const char* format = "i;n2147483647;n2147483647;";
    TraceRecorder trace;
    EXPECT_EQ(Create(format, "Id,A,B"), nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_TRUE(trace.has(
        TAG, 1, -1, std::string("No record can be made of format '") + format + "' of table 'T'"))
        << trace.dump();
}

TEST_F(Definition, NumberOfNamesThatIsNotThatOfTheItemsIsTold)
{
    struct Case {
        const char *fields, *said;
    };
    for (const Case& c : std::initializer_list<Case>{
             {"Id", "Fields 'Id' of table 'T' name 1 of the 2 items of format 'i;i;'"},
             {"Id,A,B", "Fields 'Id,A,B' of table 'T' name more than the 2 items of format 'i;i;'"},
             {"Id,A,", "Fields 'Id,A,' of table 'T' name more than the 2 items of format 'i;i;'"},
             {"A,B", "Fields 'A,B' of table 'T' name no field 'Id'"}}) {
        SCOPED_TRACE(c.fields);
        TraceRecorder trace;
        EXPECT_EQ(Create("i;i;", c.fields), nullptr);
        EXPECT_EQ(IndxError(), UNCHANGED);
        EXPECT_TRUE(trace.has(TAG, 1, -1, c.said)) << trace.dump();
    }
}

TEST_F(Definition, FlagThatIsNoneIsNamed)
{
    TraceRecorder trace;
    EXPECT_EQ(Create("i;i;", "Id,A;Indexed;Sorted"), nullptr);
    EXPECT_EQ(IndxError(), INDX_ERROR_UNKNOWN_FLAG);
    EXPECT_TRUE(trace.has(TAG, 1, -1, "Flag 'Sorted' of field 'A' of table 'T' is unknown"))
        << trace.dump();
    EXPECT_EQ(Create("i;i;", "Id,A;Indexed; ;Unique"), nullptr);
    EXPECT_EQ(IndxError(), INDX_ERROR_NO_FLAG);
    EXPECT_TRUE(trace.has(TAG, 1, -1, "A flag of field 'A' of table 'T' is empty"));
}

TEST_F(Definition, KindThatNoFieldCanHaveIsNamed)
{
    TraceRecorder trace;
    EXPECT_EQ(Create("i;ol;", "Id,A"), nullptr);
    EXPECT_EQ(IndxError(), INDX_ERROR_FIELD_KIND);
    EXPECT_TRUE(
        trace.has(TAG, 1, -1, "Field 'A' of table 'T' is of kind 9, which is kept in memory only"))
        << trace.dump();
}

TEST_F(Definition, UniqueWithoutAnIndexIsToldToHaveNoEffect)
{
    const auto line = [](const char* name) {
        return std::string("'Unique' has no effect on field '") + name +
               "' of table 'T', which is not indexed";
    };
    TraceRecorder trace;
    ASSERT_NE(
        Create("i;s;b;s;s;", "Id;Unique,A;Unique,B;Indexed;Unique,C;Indexed;Unique,D"), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, line("A"))) << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 0, -1, line("B")));
    EXPECT_EQ(trace.countLevel(-1), 2u);
    EXPECT_EQ(IndxError(), UNCHANGED);
}

// ---- names ------------------------------------------------------------------------------------

TEST_F(Definition, BlanksAroundWordsAreTrimmedAndThoseInsideAreKept)
{
    IndxTable* pTable = Create("i;s;s;", " \t Id \t,\tFirst  name\t , b");
    ASSERT_NE(pTable, nullptr);
    EXPECT_STREQ(Field(pTable, 0)->name, "Id");
    EXPECT_STREQ(Field(pTable, 1)->name, "First  name");
    EXPECT_STREQ(Field(pTable, 2)->name, "b");
}

TEST_F(Definition, BlankBeforeTheFlagsBelongsToTheName)
{
    IndxTable* pTable = Create("i;s;", "Id,Name ;Indexed");
    ASSERT_NE(pTable, nullptr);
    EXPECT_STREQ(Field(pTable, 1)->name, "Name ");
    EXPECT_EQ(Field(pTable, 1)->bIndexed, 1u);
}

TEST_F(Definition, BlanksAroundFlagsAreTrimmed)
{
    IndxTable* pTable = Create("i;s;", "Id,Name;  Indexed  ");
    ASSERT_NE(pTable, nullptr);
    EXPECT_STREQ(Field(pTable, 1)->name, "Name");
    EXPECT_EQ(Field(pTable, 1)->bIndexed, 1u);
}

TEST_F(Definition, NameBeforeFlagsMayBeEmpty)
{
    // Only an empty word is a null name; this word is its flags.
    IndxTable* pTable = Create("i;s;", "Id,;Indexed");
    ASSERT_NE(pTable, nullptr);
    EXPECT_STREQ(Field(pTable, 1)->name, "");
}

TEST_F(Definition, NullFieldNamesAreRefusedWith21)
{
    for (const char* fields : {",Id", "Id,,Name", "Id, ,Name", "Id,", " ", "\t", "Id,Name,\t,x"})
        ExpectRefused("i;s;i;i;", fields, 21);
    TraceRecorder trace;
    Create("i;s;", ",Id");
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Null field name")) << trace.dump();
}

TEST_F(Definition, RepeatedNamesAreRefusedWith23WithoutRegardToCase)
{
    ExpectRefused("i;s;s;", "Id,Name,nAME", 23);
    ExpectRefused("i;i;", "Id,ID", 23);
    TraceRecorder trace;
    Create("i;s;s;", "Id,Name,Name;Indexed");
    EXPECT_TRUE(trace.has(TAG, 0, -1, "duplicate field name")) << trace.dump();
}

TEST_F(Definition, RepeatedNameOutranksABadFlag)
{
    ExpectRefused("i;s;s;", "Id,Name,Name;Sorted", 23);
}

TEST_F(Definition, FirstBadWordEndsTheScan)
{
    ExpectRefused("i;s;s;i;", "Id,a;Sorted,,b", 31);
    TraceRecorder trace;
    Create("i;s;s;i;", "Id,a;Sorted,,b");
    EXPECT_TRUE(trace.has("Process 'a'"));
    EXPECT_FALSE(trace.has("Null field name"));
    EXPECT_FALSE(trace.has("Process 'b'"));
    EXPECT_FALSE(trace.has("End of format string"));
}

TEST_F(Definition, TrailingCommaIsRefusedWithoutACode)
{
    ExpectRefused("i;s;", "Id,Name,", UNCHANGED);
}

TEST_F(Definition, MoreNamesThanItemsAreRefusedWithoutACode)
{
    ExpectRefused("i;s;", "Id,Name,Size", UNCHANGED);
}

TEST_F(Definition, FewerNamesThanItemsAreRefusedWithoutACode)
{
    ExpectRefused("i;s;i;", "Id,Name", UNCHANGED);
}

TEST_F(Definition, MissingIdIsRefusedWithoutACode)
{
    ExpectRefused("i;s;", "Key,Name", UNCHANGED);
    ExpectRefused("i;s;", "Id ;Indexed,Name", UNCHANGED); // "Id " is another name
}

// ---- flags ------------------------------------------------------------------------------------

TEST_F(Definition, LeadingPartOfAKeywordSelectsIt)
{
    struct Case {
        const char* flags;
        uint32_t bIndexed, bUnique, bCaseSensitive;
    };
    const Case cases[] = {
        {"i", 1, 0, 0},          {"IND", 1, 0, 0},
        {"indexed", 1, 0, 0},    {"U", 0, 1, 0},
        {"uniQUE", 0, 1, 0},     {"c", 0, 0, 1},
        {"case", 0, 0, 1},       {"Case Sens", 0, 0, 1},
        {"case ", 0, 0, 1},      {"CASE SENSITIVE", 0, 0, 1},
        {"c;u;i", 1, 1, 1},      {" Indexed ; Unique\t;\tCase Sensitive ", 1, 1, 1},
        {"i;i;Indexed", 1, 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.flags);
        const std::string fields = std::string("Id,a;") + c.flags;
        const std::string name = std::string("T") + std::to_string(&c - cases);
        void* oTable = OpenTable(name, MAGIC, "i;s;", fields.c_str());
        ASSERT_NE(oTable, nullptr);
        EXPECT_EQ(Field(oTable, 1)->bIndexed, c.bIndexed);
        EXPECT_EQ(Field(oTable, 1)->bUnique, c.bUnique);
        EXPECT_EQ(Field(oTable, 1)->bCaseSensitive, c.bCaseSensitive);
    }
}

TEST_F(Definition, EmptyFlagsAreRefusedWith30)
{
    for (const char* fields :
         {"Id,a;Indexed;;Unique", "Id,a;", "Id,a;Indexed;", "Id,a; ;Indexed", "Id,a;\t", "Id;,a"})
        ExpectRefused("i;s;", fields, 30);
}

TEST_F(Definition, UnknownFlagsAreRefusedWith31)
{
    // A word longer than the keyword is another word.
    for (const char* fields :
         {"Id,a;Sorted", "Id,a;Indexedx", "Id,a;Case  Sensitive", "Id,a;CaseSensitive",
          "Id,a;Indexed Unique", "Id;Primary,a"})
        ExpectRefused("i;s;", fields, 31);
}

TEST_F(Definition, FirstBadFlagDecidesTheCode)
{
    ExpectRefused("i;s;", "Id,a;;Sorted", 30);
    ExpectRefused("i;s;", "Id,a;Sorted;", 31);
}

// ---- the field "Id" ---------------------------------------------------------------------------

TEST_F(Definition, IdIsIndexedAndNeverUnique)
{
    IndxTable* pTable = Create("s;i;", "Name,iD;Unique;Case Sensitive");
    ASSERT_NE(pTable, nullptr);
    const IndxField* pId = Field(pTable, 1);
    EXPECT_STREQ(pId->name, "iD");
    EXPECT_EQ(pId->bIndexed, 1u);
    EXPECT_EQ(pId->bUnique, 0u);
    EXPECT_EQ(pId->bCaseSensitive, 0u);
    EXPECT_EQ(pId->type, 1);
    EXPECT_EQ(pId->keyType, 0);
    EXPECT_EQ(pId->recordOffset, 12);
    EXPECT_EQ(pTable->idOffset, 12u);
    EXPECT_EQ(static_cast<uint32_t*>(pTable->indexedFlags.data)[0], 0u);
    EXPECT_EQ(static_cast<uint32_t*>(pTable->indexedFlags.data)[1], 1u);
}

TEST_F(Definition, IdOfAnotherKindIsRefusedWith24)
{
    for (const char* format : {"s;", "b;", "q;", "u;", "d;", "o;", "p;", "n4;", "ol;"})
        ExpectRefused(format, "Id", 24);
    TraceRecorder trace;
    Create("q;", "id");
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Index must be type 'i'")) << trace.dump();
}

// ---- kinds ------------------------------------------------------------------------------------

TEST_F(Definition, KindDecidesTypeKeyTypeAndIndex)
{
    struct Case {
        const char* item;
        const char* flags;
        int32_t type, keyType;
        uint32_t bIndexed;
        uint32_t bTextIndex;
    };
    const Case cases[] = {
        {"b;", "Indexed", 10, 0, 0, 0},        {"i;", "Indexed", 2, 3, 1, 0},
        {"i;", "Unique", 2, 3, 0, 0},          {"s;", "Indexed", 5, 4098, 1, 1},
        {"s;", "Indexed;Case", 4, 4097, 1, 1}, {"s;", "Case", 4, 4097, 0, 0},
        {"n8;", "Indexed", 5, 4098, 1, 1},     {"n8;", "Indexed;Case", 4, 4097, 1, 1},
        {"o;", "Indexed", 8, 0, 0, 0},         {"p;", "Indexed", 6, 0, 0, 0},
        {"d;", "Indexed", 7, 0, 0, 0},         {"q;", "Indexed", 3, 4, 1, 0},
        {"u;", "Indexed", 9, 4101, 1, 1},      {"u;", "Unique", 9, 4101, 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.item) + c.flags);
        const std::string format = std::string("i;") + c.item;
        const std::string fields = std::string("Id,a;") + c.flags;
        const std::string name = "T" + std::to_string(&c - cases);
        auto* pTable =
            static_cast<IndxTable*>(OpenTable(name, MAGIC, format.c_str(), fields.c_str()));
        ASSERT_NE(pTable, nullptr);
        const IndxField* pField = Field(pTable, 1);
        EXPECT_EQ(pField->type, c.type);
        EXPECT_EQ(pField->keyType, c.keyType);
        EXPECT_EQ(pField->bIndexed, c.bIndexed);
        EXPECT_EQ(static_cast<uint32_t*>(pTable->indexedFlags.data)[1], c.bIndexed);
        EXPECT_EQ(pTable->bTextIndex, c.bTextIndex);
        EXPECT_EQ(pField->oCursors != nullptr, c.bIndexed != 0);
    }
}

TEST_F(Definition, FlagsAreTracedAsWrittenAndDroppedByTheKind)
{
    TraceRecorder trace;
    IndxTable* pTable = Create("i;b;", "Id,a;Indexed;Case");
    ASSERT_NE(pTable, nullptr);
    EXPECT_TRUE(
        trace.has(TAG, 0, 4, "Field 1 'a' offset 8 indexed TRUE unique FALSE case sensitive TRUE"));
    EXPECT_EQ(Field(pTable, 1)->bIndexed, 0u);
    EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
}

TEST_F(Definition, TransientItemsAreRefusedWith24)
{
    ExpectRefused("i;ol;", "Id,a", 24);
    ExpectRefused("i;sl;", "Id,a", 24);
}

TEST(DefinitionKinds, UnassignedKindsMakeNoField)
{
    for (const int32_t kind : {0, 5, 9, 12}) {
        IndxField field = {};
        field.bIndexed = 1;
        EXPECT_FALSE(IndxApplyKind(&field, kind)) << kind;
    }
}

TEST(DefinitionKinds, KindsFrom13OnKeepTheirFlagsAndHaveNoType)
{
    for (const int32_t kind : {13, 14, 4096}) {
        IndxField field = {};
        field.bIndexed = field.bUnique = field.bCaseSensitive = 1;
        EXPECT_TRUE(IndxApplyKind(&field, kind)) << kind;
        EXPECT_EQ(field.type, 0);
        EXPECT_EQ(field.keyType, 0);
        EXPECT_EQ(field.bIndexed, 1u);
        EXPECT_EQ(field.bUnique, 1u);
        EXPECT_EQ(field.bCaseSensitive, 1u);
    }
}

TEST(DefinitionKinds, BlockSizeOf1024GivesALongestKeyOf488Bytes)
{
    EXPECT_EQ(IndxLongestKey(1024), 488u);
    EXPECT_EQ(IndxLongestKey(16384), 8168u);
    EXPECT_EQ(IndxLongestKey(0), (0u - 48u) / 2u); // unsigned division
}

// ---- the size of a description ----------------------------------------------------------------

std::string ManyItems(uint32_t count)
{
    std::string format = "i;";
    for (uint32_t i = 1; i < count; ++i)
        format += "i;";
    return format;
}

std::string ManyNames(uint32_t count, size_t length, const std::string& flags)
{
    std::string fields = "Id";
    for (uint32_t i = 1; i < count; ++i) {
        std::string name = "f" + std::to_string(i);
        name.append(length - name.size(), 'x');
        fields += "," + name + flags;
    }
    return fields;
}

TEST_F(Definition, TableOf150FieldsWith30CharacterNamesIsTooLarge)
{
    ExpectRefused(ManyItems(150).c_str(), ManyNames(150, 30, "").c_str(), UNCHANGED);
    TraceRecorder trace;
    Create(ManyItems(150).c_str(), ManyNames(150, 30, "").c_str());
    bool bSeen = false;
    for (const TraceRecorder::Line& line : trace.lines()) {
        unsigned long room = 0;
        unsigned long size = 0;
        if (std::sscanf(line.text.c_str(), "Table too large MAX %lu, table %lu", &room, &size) != 2)
            continue;
        bSeen = true;
        EXPECT_EQ(line.tag, TAG);
        EXPECT_EQ(line.error, 0u);
        EXPECT_EQ(line.level, -1);
        EXPECT_EQ(room, 16128u);
        EXPECT_GT(size, 16128u);
    }
    EXPECT_TRUE(bSeen) << trace.dump();
}

// 50,000 names compared with one another would take minutes, all of it for a table that is refused
// whatever they are: names are compared as long as the description could still fit. So a name that
// is repeated among the first is found out, and one that is repeated behind them is not looked at.
TEST_F(Definition, NamesBehindThoseThatCanFitAreNotCompared)
{
    std::string format = "i;";
    std::string fields = "Id";
    for (uint32_t i = 1; i < 50000; ++i) {
        format += "i;";
        fields += ',' + std::to_string(i);
    }
    TraceRecorder trace(-1);
    EXPECT_EQ(Create(format.c_str(), fields.c_str()), nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_TRUE(trace.hasPart("Table too large MAX 16128, table ")) << trace.dump();
    trace.clear();
    EXPECT_EQ(Create((format + "i;").c_str(), (fields + ",49999").c_str()), nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED) << "not compared";
    EXPECT_TRUE(trace.hasPart("Table too large MAX 16128, table "));
    EXPECT_EQ(Create(format.c_str(), ("Id,1,1" + fields.substr(6)).c_str()), nullptr);
    EXPECT_EQ(IndxError(), INDX_ERROR_DUPLICATE_FIELD);
}

// The shortest description of so many fields that their names are not compared any more.
TEST_F(Definition, FieldsThatAreNotComparedNeverFit)
{
    std::string format;
    std::string fields = "Id";
    for (uint32_t i = 0; i < INDX_MOST_FIELDS; ++i)
        format += "i;";
    for (uint32_t i = 1; i < INDX_MOST_FIELDS; ++i) {
        fields += ',';
        fields += static_cast<char>('a' + i % 26); // names of two bytes at the most
        if (i >= 26)
            fields += static_cast<char>('m' + i / 26);
    }
    TraceRecorder trace(-1);
    EXPECT_EQ(Create(format.c_str(), fields.c_str()), nullptr);
    EXPECT_EQ(IndxError(), UNCHANGED);
    EXPECT_TRUE(trace.hasPart("Table too large MAX 16128, table ")) << trace.dump();
}

TEST_F(Definition, DescriptionIsAcceptedUpToTheVeryLastByte)
{
    const std::string format = ManyItems(150);
    const std::string fields = ManyNames(150, 24, "");
    void* oProbe = OpenTable("P", MAGIC, format.c_str(), fields.c_str());
    ASSERT_NE(oProbe, nullptr);
    // Blanks behind the last name are stored with the text and count for nothing else.
    const std::string blanks(16128 - ObjSerializedSize(oProbe), ' ');
    void* oFull = OpenTable("Q", MAGIC, format.c_str(), (fields + blanks).c_str());
    ASSERT_NE(oFull, nullptr);
    EXPECT_EQ(ObjSerializedSize(oFull), 16128u);
    TraceRecorder trace;
    EXPECT_EQ(OpenTable("R", MAGIC, format.c_str(), (fields + blanks + " ").c_str()), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Table too large MAX 16128, table 16129")) << trace.dump();
    // The one that fills the room is stored whole, and nothing behind it is overwritten.
    ASSERT_TRUE(Reopen());
    EXPECT_NE(ListedTable("Q"), nullptr);
    EXPECT_EQ(ListedTable("R"), nullptr);
    EXPECT_EQ(std::filesystem::file_size(PathOf("Indexes", "Q")), 16168u);
}

TEST_F(Definition, SizeOfADescriptionNeverGrowsWithItsNumbers)
{
    auto* pTable = Create("i;s;i;", "Id,Name;Indexed,Size;Indexed");
    ASSERT_NE(pTable, nullptr);
    const uint32_t size = ObjSerializedSize(pTable);
    pTable->highestId = 0xFFFFFFFF;
    for (uint32_t i = 0; i < 3; ++i) {
        IndxField* pField = Field(pTable, i);
        pField->roots = {0x7FFFFFF0, 0x7FFFFFF1, 0x7FFFFFF2};
        pField->levels = 0x7FFFFFFF;
    }
    EXPECT_EQ(ObjSerializedSize(pTable), size);
}

// ---- nothing is left behind -------------------------------------------------------------------

TEST_F(Definition, EveryRefusalLeavesNothingInMemory)
{
    const LiveCounts before;
    const char* cases[][2] = {{"", "Id"},          {"i;", ""},           {"x;", "Id"},
                              {"i;s;", ",Id"},     {"i;s;", "Id,Id"},    {"s;", "Id"},
                              {"i;ol;", "Id,a"},   {"i;s;", "Id,a;"},    {"i;s;", "Id,a;x"},
                              {"i;s;", "Id,a,"},   {"i;s;i;", "Id,a"},   {"i;s;", "a,b"},
                              {"i;s;", "Id,a;U,"}, {"i;s;", "Id;i,a;;"}, {"i;s;", "Id, ,a;"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c[0]) + " | " + c[1]);
        EXPECT_EQ(Create(c[0], c[1]), nullptr);
        EXPECT_EQ(before, LiveCounts());
    }
    EXPECT_EQ(Create(ManyItems(150).c_str(), ManyNames(150, 30, ";i").c_str()), nullptr);
    EXPECT_EQ(before, LiveCounts());
}

TEST_F(Definition, RefusedTableCanBeCreatedAfterwards)
{
    EXPECT_EQ(Create("i;s;", "Id,a;Sorted"), nullptr);
    EXPECT_NE(Create("i;s;", "Id,a;Indexed"), nullptr);
}

TEST_F(Definition, UnhookingOpensTheRingOfTableAndFields)
{
    IndxTable* pTable = Create("i;s;", "Id,Name;Indexed");
    ASSERT_NE(pTable, nullptr);
    // List, database list and caller hold the table, and so does each field.
    EXPECT_EQ(OBJ_HEADER(pTable)->refCount, 4);
    IndxUnhookFields(pTable);
    EXPECT_EQ(OBJ_HEADER(pTable)->refCount, 2);
    EXPECT_EQ(ListGetCount(pTable->oFields), 0u);
}

TEST_F(Definition, HookingTwiceCountsOnce)
{
    IndxTable* pTable = Create("i;s;", "Id,Name;Indexed");
    ASSERT_NE(pTable, nullptr);
    const int32_t references = OBJ_HEADER(pTable)->refCount;
    Field(pTable, 1)->roots = {4, 5, 6};
    Field(pTable, 1)->levels = 2;
    EXPECT_TRUE(IndxHookFields(pTable));
    EXPECT_EQ(OBJ_HEADER(pTable)->refCount, references);
    EXPECT_EQ(Field(pTable, 1)->committedRoots.tLastLeaf, 6u);
    EXPECT_EQ(Field(pTable, 1)->committedLevels, 2);
}

// ---- what a refusal says -----------------------------------------------------------------------

// The line that the creation failed comes with all of them.
TEST_F(Definition, EveryRefusalHasAMessageOfItsOwn)
{
    const std::string large = "Id," + std::string(16128, 'x');
    const struct {
        const char* format;
        const char* fields;
    } cases[] = {
        {"i;i", "Id"},           // fewer names
        {"i;", "Id,A"},          // more names
        {"i;i;", "A,B"},         // no id
        {"i;?;", "Id,A"},        // no format
        {"i;ol;", "Id,A"},       // a wrong kind
        {"i;i;", "Id,A;"},       // a flag that is empty
        {"i;i;", "Id,A;Sorted"}, // or none
        {"i;i;", large.c_str()},
    };
    for (const auto& c : cases) {
        TraceRecorder trace;
        EXPECT_EQ(Create(c.format, c.fields), nullptr);
        EXPECT_EQ(trace.countLevel(-1), 2u) << "one is that the creation failed\n" << trace.dump();
    }
}

TEST_F(Definition, TheIndexedFlagOfARefusedFieldIsEnteredAllTheSame)
{
    void* oTable = nullptr;
    ASSERT_EQ(
        ObjTemplateCreateInstanceFromPool(&oTable, gIndxTemplates.table, MemGetDefaultPoolId()),
        1u);
    auto* pTable = static_cast<IndxTable*>(oTable);
    pTable->oBlck = ObjIncRefCount(Create("i;", "Id")->oBlck);
    EXPECT_EQ(IndxCreateTable(pTable, MAGIC, "i;i;", "Id,ID;Indexed"), 0u);
    EXPECT_EQ(IndxError(), 23u);
    EXPECT_EQ(static_cast<uint32_t*>(pTable->indexedFlags.data)[1], 1u);
    IndxUnhookFields(pTable);
    ObjReleaseInternal(&oTable);
}

} // namespace
