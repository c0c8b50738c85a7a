// description_test.cpp: block files that hold no sound description: none of them is loaded, none is
// created over, none is written, and nothing is left in memory.
#include <cstdlib>
#include <functional>

#include "row_fixture.h"

namespace {

// ---- block files that hold something else -----------------------------------------------------

using Description = RowTest;

class DescriptionRefused : public RowTest {
  protected:
    // The table "T" cannot be loaded, opened or created over, whatever is asked first, and its file
    // stays as it is.
    void ExpectRefusedAndKept(const std::string& message, int32_t level)
    {
        const std::string path = PathOf("Indexes", "T");
        const std::string bytes = ReadFileBytes(path);
        ASSERT_TRUE(Reopen());
        EXPECT_EQ(TableCount(), 0u);
        const LiveCounts before;
        void* oTable = &oTable;
        {
            TraceRecorder trace;
            EXPECT_EQ(IndxLoadTable(&oTable, database(), "T", "T"), 0u);
            EXPECT_EQ(oTable, nullptr);
            EXPECT_TRUE(trace.has(TAG, 0, level, message)) << trace.dump();
            EXPECT_EQ(before, LiveCounts());
        }
        {
            TraceRecorder trace;
            EXPECT_EQ(Create("T"), nullptr);
            EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to load table 'T' from 'T'"));
            EXPECT_FALSE(trace.has("Create a new table"));
            EXPECT_EQ(before, LiveCounts());
        }
        Close();
        EXPECT_EQ(IndxError(), UNCHANGED);
        EXPECT_TRUE(ReadFileBytes(path) == bytes) << "nothing was written";
        EXPECT_FALSE(std::filesystem::exists(PathOf("Records", "T")));
    }
    // A block file "T" whose user data begins with this.
    void WriteBlockFile(const std::string& userData)
    {
        if (!database()) {
            ASSERT_TRUE(Open());
        }
        ASSERT_NE(Create("Model"), nullptr);
        Close();
        std::string bytes = ReadFileBytes(PathOf("Indexes", "Model"));
        std::fill(bytes.begin() + 40, bytes.end(), '\0');
        bytes.replace(40, userData.size(), userData);
        WriteFileBytes(PathOf("Indexes", "T"), bytes);
        std::filesystem::remove(PathOf("Indexes", "Model"));
    }
    static std::string Serialized(void* object)
    {
        std::string bytes(ObjSerializedSize(object), '\0');
        EXPECT_EQ(ObjSerializeToMemory(object, bytes.data(), nullptr), 1u);
        return bytes;
    }
};

TEST_F(DescriptionRefused, ShortFiles)
{
    for (const size_t size : {1u, 100u, 16167u}) {
        WriteFileBytes(PathOf("Indexes", "T"), std::string(size, 'x'));
        ExpectRefusedAndKept("Failed to reconstruct table", 4);
    }
}

TEST_F(DescriptionRefused, ShortFileIsReportedByTheOpenOfTheBlockFile)
{
    WriteFileBytes(PathOf("Indexes", "T"), std::string(100, 'x'));
    TraceRecorder trace;
    void* oTable = nullptr;
    EXPECT_EQ(IndxLoadTable(&oTable, database(), "T", "T"), 0u);
    EXPECT_TRUE(trace.has(
        TAG, 0, -1, "Failed to open blck file when opening indx '" + PathOf("Indexes", "T") + "'"))
        << trace.dump();
}

TEST_F(DescriptionRefused, FilesWithAnotherMagic)
{
    WriteFileBytes(PathOf("Indexes", "T"), std::string(20000, 'x'));
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
    WriteFileBytes(PathOf("Indexes", "T"), std::string(20000, '\0'));
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
}

TEST_F(DescriptionRefused, UserDataThatIsNoObject)
{
    WriteBlockFile("x");
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
    WriteBlockFile(std::string(16127, '\0') + "x");
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
}

TEST_F(DescriptionRefused, ObjectThatIsNoTable)
{
    void* object = ObjIntegerNew(5);
    WriteBlockFile(Serialized(object));
    ObjReleaseInternal(&object);
    ExpectRefusedAndKept("Wrong object, Integer", 4);
}

TEST_F(DescriptionRefused, ReconstructionThatFails)
{
    Create("T");
    Close();
    std::filesystem::remove(PathOf("Records", "T"));
    Fail(FAULT_RECONSTRUCT, 1, 0);
    ExpectRefusedAndKept("Failed to reconstruct table", 4);
}

TEST_F(DescriptionRefused, RingsOfObjectsThatAreNoTableAreTakenApart)
{
    // A pair that hold each other, and a list that holds them and itself through them.
    ObjTemplate* pTemplate = nullptr;
    ASSERT_EQ(
        ObjTemplateCreateInternal(&pTemplate, OBJ_SIZE_COMPUTED, 0xca0000aa, "o;o;o;", nullptr),
        1u);
    void* oFirst = nullptr;
    void* oSecond = nullptr;
    ASSERT_EQ(ObjTemplateCreateInstanceFromPool(&oFirst, pTemplate, 1), 1u);
    ASSERT_EQ(ObjTemplateCreateInstanceFromPool(&oSecond, pTemplate, 1), 1u);
    void* oList = ListNewFromPool(0, 1);
    auto** pFirst = static_cast<void**>(oFirst);
    auto** pSecond = static_cast<void**>(oSecond);
    pFirst[0] = ObjIncRefCount(oSecond);
    pFirst[1] = ObjIncRefCount(oList);
    pFirst[2] = ObjIncRefCount(oFirst);
    pSecond[0] = ObjIncRefCount(oFirst);
    pSecond[2] = ObjIncRefCount(oList);
    for (int i = 0; i < 3; ++i) {
        ListAddLastItem(oList, oFirst);
        ListAddLastItem(oList, oSecond);
    }
    const std::string bytes = Serialized(oFirst);
    // The same routine takes the originals apart.
    ObjReleaseInternal(&oSecond);
    ObjReleaseInternal(&oList);
    IndxDiscardGraph(&oFirst);
    EXPECT_EQ(oFirst, nullptr);

    WriteBlockFile(bytes);
    ExpectRefusedAndKept("Wrong object, magic 0xca0000aa", 4);
}

TEST_F(DescriptionRefused, LongRingsAreTakenApartInConstantStack)
{
    // Thousands of objects that each refer to the list they are in: a walk that followed them by
    // recursion would go as deep.
    ObjTemplate* pTemplate = nullptr;
    ASSERT_EQ(
        ObjTemplateCreateInternal(&pTemplate, OBJ_SIZE_COMPUTED, 0xca0000ab, "o;", nullptr), 1u);
    void* oList = ListNewFromPool(0, 1);
    for (int i = 0; i < 4000; ++i) {
        void* oItem = nullptr;
        ASSERT_EQ(ObjTemplateCreateInstanceFromPool(&oItem, pTemplate, 1), 1u);
        *static_cast<void**>(oItem) = ObjIncRefCount(oList);
        ListPushLastItemInternal(oList, &oItem);
    }
    const std::string bytes = Serialized(oList);
    ASSERT_LE(bytes.size(), 16128u);
    IndxDiscardGraph(&oList);
    WriteBlockFile(bytes);
    ExpectRefusedAndKept("Wrong object, List", 4);
}

TEST_F(DescriptionRefused, DirectoryInThePlaceOfABlockFile)
{
    std::filesystem::create_directories(PathOf("Indexes", "T"));
    ASSERT_TRUE(Reopen());
    EXPECT_EQ(TableCount(), 0u);
    TraceRecorder trace;
    void* oTable = nullptr;
    EXPECT_EQ(IndxLoadTable(&oTable, database(), "T", "T"), 0u);
    EXPECT_EQ(Create("T"), nullptr);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to create table")) << trace.dump();
    EXPECT_TRUE(std::filesystem::is_directory(PathOf("Indexes", "T")));
}

TEST_F(DescriptionRefused, MissingBlockFileIsNotMadeByALoad)
{
    void* oTable = nullptr;
    TraceRecorder trace;
    EXPECT_EQ(IndxLoadTable(&oTable, database(), "None", "None"), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Failed to reconstruct table")) << trace.dump();
}

// Tables of the right magic whose content contradicts itself: each change is made to a sound
// table, serialised with a right checksum, and refused.
class DescriptionContradictory : public DescriptionRefused {
  protected:
    using Change = std::function<void(IndxTable*)>;

    void ExpectFault(const Change& change, const std::string& fault)
    {
        SCOPED_TRACE(fault);
        std::filesystem::remove(PathOf("Indexes", "T")); // of the change before
        ASSERT_TRUE(Reopen());
        auto* pTable = static_cast<IndxTable*>(OpenTable("Sound", MAGIC, FORMAT, FIELDS));
        ASSERT_NE(pTable, nullptr);
        void* oBytes = nullptr;
        {
            // On a copy: the sound one is closed in the usual way.
            const std::string sound = Serialized(pTable);
            ASSERT_EQ(
                ObjReconstructFromMemorySized(
                    &oBytes, sound.data(), static_cast<uint32_t>(sound.size())),
                1u);
        }
        auto* pCopy = static_cast<IndxTable*>(oBytes);
        change(pCopy);
        const std::string bytes = Serialized(pCopy);
        IndxDiscardGraph(&oBytes);
        Close();
        std::filesystem::remove(PathOf("Indexes", "Sound"));
        WriteBlockFile(bytes);
        ExpectRefusedAndKept("Damaged description of table 'T' in 'T': " + fault, -1);
    }
};

void SetText(char** ppText, const char* text)
{
    MemFree(*ppText);
    *ppText = StrDuplicateIntoPool(text, 1);
}

IndxField* FieldAt(IndxTable* pTable, uint32_t position)
{
    void* oField = nullptr;
    ListGetNthItem(&oField, pTable->oFields, position);
    return static_cast<IndxField*>(oField);
}

TEST_F(DescriptionContradictory, Texts)
{
    ExpectFault([](IndxTable* p) { SetText(&p->name, nullptr); }, "a text is missing");
    ExpectFault([](IndxTable* p) { SetText(&p->format, nullptr); }, "a text is missing");
    ExpectFault([](IndxTable* p) { SetText(&p->fields, nullptr); }, "a text is missing");
    ExpectFault(
        [](IndxTable* p) { SetText(&FieldAt(p, 1)->name, nullptr); }, "a field has no name");
    ExpectFault(
        [](IndxTable* p) { SetText(&FieldAt(p, 2)->name, "NAME"); }, "a field is there twice");
    ExpectFault(
        [](IndxTable* p) { SetText(&p->format, "i;s;"); },
        "the fields are not those of the format");
    ExpectFault([](IndxTable* p) { SetText(&p->format, "i;s;x;"); }, "the format cannot be used");
    ExpectFault(
        [](IndxTable* p) { SetText(&p->format, "i;s;q;"); }, "the format makes another record");
    ExpectFault(
        [](IndxTable* p) { SetText(&p->format, "i;s;b;"); },
        "a field is not what the format makes of it");
    ExpectFault(
        [](IndxTable* p) { SetText(&p->format, "i;i;s;"); },
        "a field is not what the format makes of it");
}

TEST_F(DescriptionContradictory, Lists)
{
    ExpectFault([](IndxTable* p) { ObjRelease(p->oFields); }, "there is no list of fields");
    ExpectFault(
        [](IndxTable* p) {
            IndxUnhookFields(p);
            ObjRelease(p->oFields);
            p->oFields = ObjIntegerNew(3);
        },
        "there is no list of fields");
    ExpectFault(
        [](IndxTable* p) {
            IndxUnhookFields(p);
            ObjRelease(p->oFields);
            p->oFields = ListNewFromPool(0, 1);
            for (int i = 0; i < 3; ++i) {
                void* oItem = ObjIntegerNew(i);
                ListPushLastItemInternal(p->oFields, &oItem);
            }
        },
        "there is no list of fields");
    ExpectFault(
        [](IndxTable* p) { IndxUnhookFields(p); }, "the fields are not those of the format");
    ExpectFault(
        [](IndxTable* p) {
            void* oField = FieldAt(p, 2);
            ListNode* pNode = nullptr;
            ListFindNode(&pNode, p->oFields, oField);
            ListRemoveItem(pNode);
            ListAddLastItem(p->oFields, FieldAt(p, 1));
        },
        "a field is there twice");
    // Fields of the right magic and another layout.
    ExpectFault(
        [](IndxTable* p) {
            IndxUnhookFields(p);
            for (int i = 0; i < 3; ++i) {
                void* oField = nullptr;
                ASSERT_EQ(
                    ObjCreateInternal(
                        &oField, OBJ_SIZE_COMPUTED, INDX_FIELD_MAGIC, "s;", nullptr, 1),
                    1u);
                ListPushLastItemInternal(p->oFields, &oField);
            }
        },
        "an item of the field list is no field");
}

TEST_F(DescriptionContradictory, TableOfAnotherLayout)
{
    void* object = nullptr;
    ASSERT_EQ(
        ObjCreateInternal(&object, OBJ_SIZE_COMPUTED, INDX_TABLE_MAGIC, "s;", nullptr, 1), 1u);
    WriteBlockFile(Serialized(object));
    ObjReleaseInternal(&object);
    ExpectRefusedAndKept(
        "Damaged description of table 'T' in 'T': the table has another layout", -1);
}

TEST_F(DescriptionContradictory, FieldsOfAnotherTable)
{
    ExpectFault(
        [](IndxTable* p) {
            void* oOther = nullptr;
            ObjTemplateCreateInstanceFromPool(&oOther, gIndxTemplates.table, 1);
            ObjRelease(FieldAt(p, 1)->oTable);
            FieldAt(p, 1)->oTable = static_cast<IndxTable*>(oOther);
        },
        "a field belongs to another table");
}

TEST_F(DescriptionContradictory, Flags)
{
    ExpectFault(
        [](IndxTable* p) { static_cast<uint32_t*>(p->indexedFlags.data)[1] = 0; },
        "the indexed flags contradict the fields");
    ExpectFault(
        [](IndxTable* p) { p->indexedFlags.size = 8; },
        "there are no indexed flags for the fields");
    ExpectFault(
        [](IndxTable* p) {
            MemFree(p->indexedFlags.data);
            p->indexedFlags.size = 0;
        },
        "there are no indexed flags for the fields");
    const std::string contradicted = "a field is not what the format makes of it";
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->bCaseSensitive = 1; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 0)->bUnique = 1; }, contradicted);
    ExpectFault(
        [](IndxTable* p) {
            FieldAt(p, 0)->bIndexed = 0;
            static_cast<uint32_t*>(p->indexedFlags.data)[0] = 0;
        },
        contradicted);
}

TEST_F(DescriptionContradictory, ItemsThatNoFieldCanHave)
{
    // What lives in memory only is counted as an item, and has no place in a record.
    for (const char* format : {"i;s;sl;", "i;s;ol;"}) {
        ObjTemplate* pTemplate = nullptr;
        ASSERT_EQ(
            ObjTemplateCreateInternal(&pTemplate, OBJ_SIZE_COMPUTED, MAGIC, format, nullptr), 1u);
        const uint32_t size = ObjGetDbDataFromTemplate(pTemplate)->fixedSize;
        ExpectFault(
            [&](IndxTable* p) {
                SetText(&p->format, format);
                p->fixedSize = size;
            },
            "a field is not what the format makes of it");
    }
}

TEST_F(DescriptionContradictory, Numbers)
{
    const std::string contradicted = "a field is not what the format makes of it";
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->keyType = 3; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->keyType = 4095; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 2)->keyType = 99; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->type = 2; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->recordOffset = 4; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->recordOffset = -1; }, contradicted);
    ExpectFault([](IndxTable* p) { FieldAt(p, 2)->recordOffset = 17; }, contradicted);
    ExpectFault([](IndxTable* p) { p->idOffset = 8; }, contradicted);
    ExpectFault(
        [](IndxTable* p) { FieldAt(p, 1)->maximumKey = 8169; }, "a field has another longest key");
    const std::string sizes = "the sizes of a record are out of range";
    ExpectFault([](IndxTable* p) { p->idOffset = 0; }, sizes);
    ExpectFault([](IndxTable* p) { p->idOffset = 17; }, sizes);
    ExpectFault([](IndxTable* p) { p->idOffset = 0xFFFFFFFF; }, sizes);
    ExpectFault([](IndxTable* p) { p->fixedSize = 15; }, sizes);
    ExpectFault([](IndxTable* p) { p->fixedSize = 0; }, sizes);
    ExpectFault([](IndxTable* p) { p->fixedSize = 0x80000000; }, sizes);
    ExpectFault([](IndxTable* p) { p->fixedSize = 24; }, "the format makes another record");
}

TEST_F(DescriptionContradictory, Roots)
{
    // The model file has no blocks at all.
    const std::string fault = "an index has no sound root";
    ExpectFault(
        [](IndxTable* p) {
            FieldAt(p, 1)->roots = {0, 0, 0};
            FieldAt(p, 1)->levels = 1;
        },
        fault);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->levels = 1; }, fault);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->roots.tRoot = 7; }, fault);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->roots.tFirstLeaf = 0; }, fault);
    ExpectFault([](IndxTable* p) { FieldAt(p, 1)->roots.tLastLeaf = 0; }, fault);
}

TEST_F(DescriptionContradictory, NoFieldForTheRecordId)
{
    ExpectFault(
        [](IndxTable* p) {
            IndxField* pId = FieldAt(p, 0);
            SetText(&pId->name, "Key");
            pId->type = INDX_FIELD_INTEGER;
            pId->keyType = INDX_KEY_INTEGER;
        },
        "there is no field for the record id");
}

TEST_F(Description, RootsMustLieAmongTheBlocks)
{
    AddMany(Create("T"), 3);
    Close();
    std::string bytes = ReadFileBytes(PathOf("Indexes", "T"));
    ASSERT_EQ(U32At(bytes, 8), 3u) << "a block for each index";
    for (const uint32_t count : {2u, 0u, 0xFFFFFFFFu, 0x80000000u}) {
        PutU32At(bytes, 8, count);
        WriteFileBytes(PathOf("Indexes", "T"), bytes);
        TraceRecorder trace;
        ASSERT_TRUE(Open());
        EXPECT_EQ(TableCount(), 0u);
        EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
        Close();
    }
    PutU32At(bytes, 8, 3);
    WriteFileBytes(PathOf("Indexes", "T"), bytes);
    ASSERT_TRUE(Open());
    ExpectRecords(Create("T"), 3);
}

TEST_F(Description, DamagedTableDoesNotKeepOthersFromLoading)
{
    AddMany(Create("A"), 3);
    Create("B");
    AddMany(Create("C"), 4);
    Close();
    std::string bytes = ReadFileBytes(PathOf("Indexes", "B"));
    bytes[100] = static_cast<char>(bytes[100] ^ 1);
    WriteFileBytes(PathOf("Indexes", "B"), bytes);
    ASSERT_TRUE(Open());
    EXPECT_EQ(TableCount(), 2u);
    ExpectRecords(Create("A"), 3);
    ExpectRecords(Create("C"), 4);
}

// ---- templates of others ----------------------------------------------------------------------

constexpr const char* FIELD_FORMAT = "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;";
constexpr const char* TABLE_FORMAT = "s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;";

// A table whose fields are of a template without the room that the index adds to its own.
void UseForeignFields(IndxTable* pTable)
{
    ObjTemplate* pShort = nullptr;
    ASSERT_EQ(
        ObjTemplateCreateInternal(
            &pShort, OBJ_SIZE_COMPUTED, INDX_FIELD_MAGIC, FIELD_FORMAT, nullptr),
        1u);
    ASSERT_NE(pShort, gIndxTemplates.field);
    void* oList = ListNewFromPool(INDX_FIELD_MAGIC, 1);
    for (uint32_t i = 0; i < 3; ++i) {
        void* oField = nullptr;
        ASSERT_EQ(ObjTemplateCreateInstanceFromPool(&oField, pShort, 1), 1u);
        IndxField* pFrom = FieldAt(pTable, i);
        MemCopy(oField, pFrom, 72);
        static_cast<IndxField*>(oField)->name = StrDuplicateIntoPool(pFrom->name, 1);
        static_cast<IndxField*>(oField)->oTable = nullptr;
        static_cast<IndxField*>(oField)->oCursors = nullptr;
        ListPushLastItemInternal(oList, &oField);
    }
    IndxUnhookFields(pTable);
    ObjRelease(pTable->oFields);
    pTable->oFields = oList;
}

TEST_F(Description, FieldsOfAShorterTemplateAreReplacedByOurOwn)
{
    auto* pTable = static_cast<IndxTable*>(Create("T"));
    ASSERT_NE(pTable, nullptr);
    std::vector<IndxField> before;
    for (uint32_t i = 0; i < 3; ++i)
        before.push_back(*Field(pTable, i));
    UseForeignFields(pTable);
    EXPECT_EQ(IndxTableFault(pTable, pTable->oBlck), nullptr);
    ASSERT_TRUE(IndxAdoptTable(&pTable));
    ASSERT_EQ(ListGetCount(pTable->oFields), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        const IndxField* pField = Field(pTable, i);
        EXPECT_EQ(OBJ_HEADER(pField)->tmpl, gIndxTemplates.field);
        EXPECT_EQ(pField->recordOffset, before[i].recordOffset);
        EXPECT_EQ(pField->keyType, before[i].keyType);
        EXPECT_EQ(pField->bUnique, before[i].bUnique);
    }
    EXPECT_STREQ(Field(pTable, 1)->name, "Name");
    ASSERT_TRUE(IndxHookFields(pTable));
    AddMany(pTable, 3);
    ExpectRecords(pTable, 3);
}

TEST_F(Description, FieldsThatCannotBeReplacedAreGivenUpWhole)
{
    for (uint32_t nth = 1;; ++nth) {
        ASSERT_LT(nth, 50u);
        void* oTable = nullptr;
        {
            auto* pModel = static_cast<IndxTable*>(Create("T"));
            std::string bytes(ObjSerializedSize(pModel), '\0');
            ASSERT_EQ(ObjSerializeToMemory(pModel, bytes.data(), nullptr), 1u);
            ASSERT_EQ(ObjReconstructFromMemory(&oTable, bytes.data()), 1u);
        }
        UseForeignFields(static_cast<IndxTable*>(oTable));
        // Each field holds the table, as in a table that was rebuilt.
        for (uint32_t i = 0; i < 3; ++i)
            Field(oTable, i)->oTable = static_cast<IndxTable*>(ObjIncRefCount(oTable));
        const uint32_t rule = Fail(FAULT_ALLOC, nth);
        auto* pTable = static_cast<IndxTable*>(oTable);
        const bool bAdopted = IndxAdoptTable(&pTable);
        oTable = pTable;
        const bool bStruck = FaultHits(rule) != 0;
        FaultDisarmAll();
        EXPECT_NE(bAdopted, bStruck);
        IndxDiscardGraph(&oTable); // what leaks shows at the end of the test
        if (!bStruck)
            break;
    }
}

// In a process of its own, in which another module was the first to make a template of the magic
// and the format of a field, and one of those of a table: objects are rebuilt from that one.
void OpenBehindAForeignTemplate()
{
    ObjTemplate* pForeign = nullptr;
    if (!ObjTemplateCreateInternal(
            &pForeign, OBJ_SIZE_COMPUTED, INDX_FIELD_MAGIC, FIELD_FORMAT, nullptr) ||
        !ObjTemplateCreateInternal(
            &pForeign, OBJ_SIZE_COMPUTED, INDX_TABLE_MAGIC, TABLE_FORMAT, nullptr))
        std::exit(2);
    TemporaryDirectory directory;
    PathSetHome(directory.path().c_str());
    for (int run = 0; run < 3; ++run) {
        void* oDatabase = nullptr;
        void* oTable = nullptr;
        if (!IndxOpenDatabase(&oDatabase, "Data", nullptr, nullptr))
            std::exit(3);
        if (ListGetCount(static_cast<IndxDatabase*>(oDatabase)->oTables) != (run ? 1u : 0u))
            std::exit(4);
        if (!IndxOpenTableInternal(
                &oTable, oDatabase, "T", "T", 0xca111111, FORMAT, FIELDS, 0, INDX_VERSION_NONE))
            std::exit(5);
        // What is not stored lies behind the items of our own template.
        if (OBJ_HEADER(oTable)->tmpl != gIndxTemplates.table || !IndxUpdateTable(oTable))
            std::exit(9);
        IndxReleaseTable(&oTable);
        IndxCloseDatabase(&oDatabase);
    }
    // The fields of a table that is loaded are replaced by the index's own: without memory for that
    // the table is not loaded, and is there at the next opening.
    bool bStruck = true;
    for (uint32_t nth = 1; bStruck; ++nth) {
        void* oDatabase = nullptr;
        const FaultRule rule = {FAULT_ALLOC, nullptr, nth, 1, FAULT_FAIL, 0};
        const uint32_t id = FaultArm(&rule);
        const NimBool bOpened = IndxOpenDatabase(&oDatabase, "Data", nullptr, nullptr);
        bStruck = FaultHits(id) != 0;
        FaultDisarmAll();
        if (!bStruck &&
            (!bOpened || ListGetCount(static_cast<IndxDatabase*>(oDatabase)->oTables) != 1))
            std::exit(7);
        IndxCloseDatabase(&oDatabase);
        if (ObjLiveCount(0) != 0 || FileSysOpenCount() != 0)
            std::exit(8);
    }
    std::exit(ObjLiveCount(0) == 0 ? 0 : 6);
}

TEST(DescriptionDeathTest, TablesLoadWhereAnotherModuleMadeTheTemplatesFirst)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(OpenBehindAForeignTemplate(), testing::ExitedWithCode(0), "");
}

// ---- every byte of a description, damaged -----------------------------------------------------

uint32_t Crc32(const std::string& bytes, size_t offset, size_t length)
{
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = offset; i < offset + length; ++i) {
        crc ^= static_cast<uint8_t>(bytes[i]);
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320u : 0u);
    }
    return ~crc;
}

class DescriptionDamage : public RowTest {
  protected:
    static constexpr size_t USER_DATA = 40;
    static constexpr size_t ENVELOPE = 16;
    static constexpr size_t ENVELOPE_LENGTH = 8;
    static constexpr size_t ENVELOPE_CRC = 12;

    void SetUp() override
    {
        RowTest::SetUp();
        AddMany(Create("T"), 3);
        Close();
        sound_ = ReadFileBytes(PathOf("Indexes", "T"));
        length_ = U32At(sound_, USER_DATA + ENVELOPE_LENGTH);
        ASSERT_GT(length_, ENVELOPE);
        ASSERT_LE(length_, 16128u);
        ASSERT_EQ(
            U32At(sound_, USER_DATA + ENVELOPE_CRC),
            Crc32(sound_, USER_DATA + ENVELOPE, length_ - ENVELOPE));
        // None of the tables is loaded by the open.
        void* oNames = ListNewFromPool(0, 1);
        ASSERT_TRUE(Open(DATABASE, oNames));
        ObjReleaseInternal(&oNames);
    }
    // Seals a damaged description as if it had been written so.
    void Seal(std::string* pBytes) const
    {
        PutU32At(
            *pBytes, USER_DATA + ENVELOPE_CRC,
            Crc32(*pBytes, USER_DATA + ENVELOPE, length_ - ENVELOPE));
    }
    // Loads the table from this file, or fails; what loads can be used and closed, what fails is
    // not written. Returns whether it loaded.
    bool LoadsOrFailsCleanly(const std::string& bytes)
    {
        WriteFileBytes(PathOf("Indexes", "T"), bytes);
        const LiveCounts before;
        TraceRecorder trace(-1);
        void* oTable = nullptr;
        const bool bLoaded = IndxLoadTable(&oTable, database(), "T", "T") != 0;
        EXPECT_EQ(bLoaded, oTable != nullptr);
        if (bLoaded) {
            for (uint32_t i = 0; i < 3; ++i)
                Walk(Field(oTable, i));
            IndxCloseTable(&oTable);
        } else {
            EXPECT_EQ(Create("T"), nullptr);
            EXPECT_TRUE(ReadFileBytes(PathOf("Indexes", "T")) == bytes);
        }
        EXPECT_EQ(TableCount(), 0u);
        EXPECT_EQ(before, LiveCounts());
        return bLoaded;
    }
    static void Walk(IndxField* pField)
    {
        void* oCursor = nullptr;
        if (!IndxGetCursor(&oCursor, pField))
            return;
        int32_t steps = 0;
        for (int32_t result = IndxFirstKey(oCursor); result == 6 && steps < 100; ++steps) {
            void* oRecord = nullptr;
            IndxGetRecordAtCursor(&oRecord, oCursor);
            ObjReleaseInternal(&oRecord);
            result = IndxNextKey(oCursor);
        }
        EXPECT_LT(steps, 100);
        IndxReleaseCursor(&oCursor);
    }

    std::string sound_;
    uint32_t length_ = 0;
};

TEST_F(DescriptionDamage, AnyChangedByteOfTheDescriptionIsFoundOut)
{
    ASSERT_TRUE(LoadsOrFailsCleanly(sound_));
    for (uint32_t i = 0; i < length_; ++i) {
        for (const int flip : {1 << i % 8, 0xFF}) {
            std::string bytes = sound_;
            bytes[USER_DATA + i] = static_cast<char>(bytes[USER_DATA + i] ^ flip);
            ASSERT_FALSE(LoadsOrFailsCleanly(bytes)) << "byte " << i;
        }
    }
}

TEST_F(DescriptionDamage, AnySealedDamageLoadsOrFailsCleanly)
{
    uint32_t loaded = 0;
    for (uint32_t i = ENVELOPE; i < length_; ++i) {
        for (const int flip : {1 << i % 8, 0x80, 0xFF}) {
            std::string bytes = sound_;
            bytes[USER_DATA + i] = static_cast<char>(bytes[USER_DATA + i] ^ flip);
            Seal(&bytes);
            loaded += LoadsOrFailsCleanly(bytes);
            if (HasFailure())
                FAIL() << "byte " << i << " flipped by " << flip;
        }
    }
    EXPECT_GT(loaded, 0u) << "a letter of a name is no damage that can be told";
}

TEST_F(DescriptionDamage, SealedDescriptionOfAnotherLengthIsRefused)
{
    for (const uint32_t length :
         {0u, 15u, 16u, 17u, length_ - 1, length_ + 1, 16128u, 16129u, 0xFFFFFFFFu}) {
        std::string bytes = sound_;
        PutU32At(bytes, USER_DATA + ENVELOPE_LENGTH, length);
        EXPECT_FALSE(LoadsOrFailsCleanly(bytes)) << length;
    }
}

} // namespace
