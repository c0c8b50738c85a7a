// partial_test.cpp: the fixed part of a record, alone or with its variable data behind it. The
// selections that ask for it are selection_test.cpp.
//
// Offsets of record bytes are written out by hand: total length at 0, slots from 4 on (id 4, name
// 8, town 16, age 24, number 28, key 36, photo 68, alive 76), variable data from 80 on.

#include <gtest/gtest.h>

#include "support/file_calls.h"
#include "support/person_table.h"
#include "support/quiet_trace.h"
#include "support/seed.h"

namespace {

constexpr const char* TAG = "INDX        ";
constexpr uint32_t NAME_SLOT = 8;
constexpr uint32_t TOWN_SLOT = 16;
constexpr uint32_t PHOTO_SLOT = 68;
constexpr uint32_t FIELD_COUNT = 8;

// The bytes that a read hands out, freed at the end of the test.
struct HeldBytes {
    ObjData data = {};
    ~HeldBytes() { MemFree(data.data); }
    std::string bytes() const { return DataBytes(data); }
};

class PartialRead : public PeopleTest {
  protected:
    // One flag a field; which of them are set is not looked at.
    const uint32_t none_[FIELD_COUNT] = {};

    Person Ada() const
    {
        Person person = MakePerson(3);
        person.name = "Ada";
        person.town = "Ham";
        person.photo = "12345";
        return person;
    }
    uint32_t AddAda()
    {
        Person person = Ada();
        EXPECT_EQ(Add(table_, &person), 1u);
        return person.id;
    }
    NimBool Read(HeldBytes* pBytes, uint32_t offset, const uint32_t* pSelected)
    {
        return IndxRetrivePartialRecord(&pBytes->data, table_, offset, pSelected);
    }
    // A record whose bytes were changed on disk: the whole read fails, with 1306 and nothing but
    // the fixed part allocated for it.
    void ExpectDamaged(const std::function<void(std::string&)>& change, const char* text)
    {
        SCOPED_TRACE(text);
        AddAda();
        MustAdd(4);
        WithRecordsFile(change);
        ExpectRefused(text);
    }
    void ExpectRefused(const char* text)
    {
        TraceRecorder trace;
        LogRecorder log;
        HeldBytes read;
        FaultResetCalls();
        EXPECT_EQ(Read(&read, 0, none_), 0u);
        EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 1u);
        FaultStopCalls();
        EXPECT_EQ(read.data.data, nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
        EXPECT_TRUE(trace.has(TAG, 0, -1, text)) << trace.dump();
        EXPECT_TRUE(log.has(1306, 96, "Failed to retrive record field from table 'People'"))
            << log.dump();
        EXPECT_EQ(log.messages().size(), 1u);
    }
};

// ---- what comes back -------------------------------------------------------------------------

TEST_F(PartialRead, WithoutASelectionTheFixedPartComesAloneWithItsSlotsAsTheyStandInTheFile)
{
    AddAda();
    const std::string file = ReadFileBytes(RecordsPath());
    HeldBytes read;
    ASSERT_EQ(Read(&read, 0, nullptr), 1u);
    EXPECT_EQ(read.bytes(), file.substr(0, FIXED_SIZE));
    // Sizes and places of bytes that were not read.
    EXPECT_EQ(U32At(read.bytes(), NAME_SLOT), 4u);
    EXPECT_EQ(U32At(read.bytes(), NAME_SLOT + 4), 80u);
    EXPECT_EQ(U32At(read.bytes(), PHOTO_SLOT), 5u);
    EXPECT_EQ(U32At(read.bytes(), PHOTO_SLOT + 4), 88u);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(PartialRead, ASelectionBringsEveryVariableFieldWhateverItsFlags)
{
    const Person ada = Ada();
    AddAda();
    MustAdd(4);
    const std::string file = ReadFileBytes(RecordsPath());
    const std::string whole = file.substr(0, U32At(file, 0));
    for (uint32_t flags = 0; flags < 1u << FIELD_COUNT; ++flags) {
        uint32_t selected[FIELD_COUNT];
        for (uint32_t i = 0; i < FIELD_COUNT; ++i)
            selected[i] = flags >> i & 1;
        HeldBytes read;
        ASSERT_EQ(Read(&read, 0, selected), 1u) << flags;
        // Of a record as an add writes it the places come out as they were.
        ASSERT_EQ(read.bytes(), whole) << flags;
    }
}

TEST_F(PartialRead, PlacesAreRewrittenToWhereTheDataNowLies)
{
    AddAda();
    const std::string file = ReadFileBytes(RecordsPath());
    WithRecordsFile([](std::string& bytes) {
        PutU32At(bytes, NAME_SLOT + 4, 0xdeadbeef);
        PutU32At(bytes, TOWN_SLOT + 4, 0);
        PutU32At(bytes, PHOTO_SLOT + 4, 80);
    });
    HeldBytes read;
    ASSERT_EQ(Read(&read, 0, none_), 1u);
    EXPECT_EQ(read.bytes(), file);
}

TEST_F(PartialRead, ARecordBehindOthersAndAnAbsentTextAreReadAsTheyWereWritten)
{
    void* oTable =
        OpenTable("Plain", PERSON_MAGIC, FORMAT, "Id,Name,Town,Age,Number,Key,Photo,Alive");
    ASSERT_NE(oTable, nullptr);
    for (uint32_t n = 1; n <= 3; ++n) {
        Person person = MakePerson(n);
        if (n == 2)
            person.town.reset();
        if (n == 3)
            person.photo.clear();
        ASSERT_EQ(Add(oTable, &person), 1u);
    }
    const std::string file = ReadFileBytes(RecordsPath("Plain"));
    for (uint32_t offset = 0; offset < file.size(); offset += U32At(file, offset)) {
        HeldBytes read;
        ASSERT_EQ(IndxRetrivePartialRecord(&read.data, oTable, offset, none_), 1u);
        EXPECT_EQ(read.bytes(), file.substr(offset, U32At(file, offset)));
    }
}

TEST_F(PartialRead, ATableWithoutVariableFieldsGivesTheFixedPartInOneReadEitherWay)
{
    void* oTable = OpenTable("Fixed", MAGIC, "i;i;q;u;b;", "Id,A,B,C,D");
    ASSERT_NE(oTable, nullptr);
    Instance object(MAGIC, "i;i;q;u;b;");
    object.at<int32_t>(1) = 77;
    ASSERT_EQ(IndxAddObjectToTable(nullptr, oTable, object.get()), 1u);
    const std::string file = ReadFileBytes(RecordsPath("Fixed"));
    for (const uint32_t* pSelected : {static_cast<const uint32_t*>(nullptr), none_}) {
        FileCalls calls;
        HeldBytes read;
        ASSERT_EQ(IndxRetrivePartialRecord(&read.data, oTable, 0, pSelected), 1u);
        EXPECT_EQ(read.bytes(), file);
        EXPECT_EQ(calls.count(FILE_OP_READ), 1u);
    }
}

TEST_F(PartialRead, TheFixedPartIsReadInOneCallAndEachVariableFieldInOne)
{
    AddAda();
    FileCalls calls;
    HeldBytes read;
    ASSERT_EQ(Read(&read, 0, none_), 1u);
    EXPECT_EQ(calls.offsets(FILE_OP_READ), (std::vector<int64_t>{0, 80, 84, 88}));
    EXPECT_EQ(calls.sizes(FILE_OP_READ), (std::vector<uint32_t>{80, 4, 4, 5}));
    EXPECT_EQ(calls.calls().size(), 4u);
    HeldBytes fixed;
    calls.clear();
    ASSERT_EQ(Read(&fixed, 0, nullptr), 1u);
    EXPECT_EQ(calls.sizes(FILE_OP_READ), (std::vector<uint32_t>{80}));
}

TEST_F(PartialRead, WhatAnotherHandleAppendedIsReadToo)
{
    MustAdd(1);
    HeldBytes first;
    ASSERT_EQ(Read(&first, 0, none_), 1u);
    // Written past this handle: a second record, of which it has not heard.
    std::string file = ReadFileBytes(RecordsPath());
    const auto second = static_cast<uint32_t>(file.size());
    WriteFileBytes(directory().path("copy"), file);
    std::ofstream(RecordsPath(), std::ios::binary | std::ios::app) << file;
    HeldBytes read;
    ASSERT_EQ(Read(&read, second, none_), 1u);
    EXPECT_EQ(read.bytes(), file);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

// ---- types of fields -------------------------------------------------------------------------

TEST_F(PartialRead, AFieldOfAnUnknownTypeFailsTheReadWithoutAWord)
{
    AddAda();
    IndxField* pAge = Field(table_, 3);
    for (const int32_t type : {0, 11, 12, 4711, -2, INT32_MIN, INT32_MAX}) {
        pAge->type = type;
        TraceRecorder trace;
        LogRecorder log;
        HeldBytes read;
        EXPECT_EQ(Read(&read, 0, none_), 0u) << type;
        EXPECT_EQ(read.data.data, nullptr);
        EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
        EXPECT_TRUE(log.empty());
        EXPECT_EQ(IndxError(), UNTOUCHED);
    }
    // A field without a type of its own needs no work.
    for (const int32_t type : {-1, 1, 2, 3, 6, 9, 10}) {
        pAge->type = type;
        HeldBytes read;
        EXPECT_EQ(Read(&read, 0, none_), 1u) << type;
    }
    pAge->type = INDX_FIELD_INTEGER;
}

TEST_F(PartialRead, AnUnknownTypeIsMetOnlyWhenThereIsVariableDataToRead)
{
    AddAda();
    Field(table_, 3)->type = 11;
    HeldBytes fixed;
    EXPECT_EQ(Read(&fixed, 0, nullptr), 1u);
    WithRecordsFile([](std::string& bytes) {
        for (const uint32_t slot : {NAME_SLOT, TOWN_SLOT, PHOTO_SLOT})
            PutU32At(bytes, slot, 0);
    });
    Field(table_, 3)->type = 11;
    HeldBytes read;
    EXPECT_EQ(Read(&read, 0, none_), 1u);
    EXPECT_EQ(read.data.size, FIXED_SIZE);
    Field(table_, 3)->type = INDX_FIELD_INTEGER;
}

TEST_F(PartialRead, EveryStorableKindIsReadBack)
{
    const char* format = "i;s;o;n8;d;s;q;u;b;";
    void* oTable = OpenTable("Kinds", MAGIC, format, "Id,A,B,C,D,E,F,G,H");
    ASSERT_NE(oTable, nullptr);
    Instance object(MAGIC, format);
    object.setText(1, "first");
    object.at<void*>(2) = ObjStringNew("inside");
    std::memcpy(&object.at<char>(3), "8 bytes", 8);
    object.setData(4, std::string("\0\1\2", 3));
    object.setText(5, "last");
    ASSERT_EQ(IndxAddObjectToTable(nullptr, oTable, object.get()), 1u);
    const std::string file = ReadFileBytes(RecordsPath("Kinds"));
    HeldBytes read;
    ASSERT_EQ(IndxRetrivePartialRecord(&read.data, oTable, 0, none_), 1u);
    EXPECT_EQ(read.bytes(), file);

    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable, "Id"), 1u);
    ASSERT_EQ(IndxFirstKey(oCursor), INDX_RESULT_FOUND);
    {
        Held whole;
        ASSERT_EQ(IndxGetPartialObjectAtCursor(whole.out(), oCursor, none_), 1u);
        EXPECT_STREQ(Item<char*>(whole.get(), 1), "first");
        EXPECT_STREQ(ObjGetString(Item<void*>(whole.get(), 2)), "inside");
        EXPECT_STREQ(&Item<char>(whole.get(), 3), "8 bytes");
        EXPECT_EQ(DataBytes(Item<ObjData>(whole.get(), 4)), std::string("\0\1\2", 3));
        EXPECT_STREQ(Item<char*>(whole.get(), 5), "last");
        // Nothing of it without a selection.
        Held fixed;
        TraceRecorder trace;
        ASSERT_EQ(IndxGetPartialObjectAtCursor(fixed.out(), oCursor, nullptr), 1u);
        EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
        EXPECT_EQ(Item<int32_t>(fixed.get(), 0), 1);
        EXPECT_EQ(Item<char*>(fixed.get(), 1), nullptr);
        EXPECT_EQ(Item<void*>(fixed.get(), 2), nullptr);
        EXPECT_EQ(std::string(&Item<char>(fixed.get(), 3), 8), std::string(8, '\0'));
        EXPECT_EQ(Item<ObjData>(fixed.get(), 4).size, 0u);
        EXPECT_EQ(Item<char*>(fixed.get(), 5), nullptr);
    }
    IndxReleaseCursor(&oCursor);
}

// ---- failures --------------------------------------------------------------------------------

TEST_F(PartialRead, ASeekThatFailsSetsError12AndLogsNothing)
{
    AddAda();
    struct {
        uint32_t offset;
        bool fault;
    } const cases[] = {{0, true}, {0x80000000u, false}, {0xffffffffu, false}};
    for (const auto& c : cases) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        LogRecorder log;
        HeldBytes read;
        read.data.size = 5;
        if (c.fault)
            Fail(FAULT_SEEK, 1, 1, "Records");
        EXPECT_EQ(Read(&read, c.offset, none_), 0u);
        FaultDisarmAll();
        EXPECT_EQ(read.data.size, 5u); // untouched
        EXPECT_EQ(IndxError(), INDX_ERROR_SEEK);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to seek to record")) << trace.dump();
        EXPECT_EQ(trace.countLevel(-1), 1u);
        EXPECT_TRUE(log.empty());
    }
}

TEST_F(PartialRead, AFixedPartThatCannotBeReadIsLoggedWith1307)
{
    AddAda();
    struct {
        uint32_t offset;
        bool fault;
        FaultRule rule;
    } const cases[] = {
        {0, true, {FAULT_READ, "Records", 1, 1, FAULT_FAIL, 0}},
        {0, true, {FAULT_READ, "Records", 1, 1, FAULT_FAIL_AFTER, FIXED_SIZE - 1}},
        {0, true, {FAULT_READ, "Records", 1, 1, FAULT_FAIL_FULL, 0}},
        {0, true, {FAULT_READ, "Records", 1, 1, FAULT_SHORT, FIXED_SIZE - 1}},
        {0, true, {FAULT_READ, "Records", 1, 1, FAULT_SHORT, 0}},
        {0, true, {FAULT_ALLOC, nullptr, 1, 1, FAULT_FAIL, 0}},
        {14, false, {}}, // one byte too few behind it
        {93, false, {}}, // the end of the file
        {0x7fffffff, false, {}},
    };
    for (const auto& c : cases) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        LogRecorder log;
        HeldBytes read;
        if (c.fault)
            FaultArm(&c.rule);
        EXPECT_EQ(Read(&read, c.offset, none_), 0u) << c.offset;
        FaultDisarmAll();
        EXPECT_EQ(read.data.data, nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to read fixed part of record")) << trace.dump();
        EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
        EXPECT_TRUE(log.has(1307, 96, "Faiedl to read record from table 'People'")) << log.dump();
        EXPECT_EQ(log.messages().size(), 1u);
    }
}

TEST_F(PartialRead, AFieldThatCannotBeReadIsLoggedWith1306)
{
    AddAda();
    const FaultRule rules[] = {
        {FAULT_READ, "Records", 2, 1, FAULT_FAIL, 0},
        {FAULT_READ, "Records", 3, 1, FAULT_FAIL, 0},
        {FAULT_READ, "Records", 4, 1, FAULT_FAIL, 0},
        {FAULT_READ, "Records", 2, 0, FAULT_FAIL, 0},
        {FAULT_READ, "Records", 3, 1, FAULT_SHORT, 3},
        {FAULT_READ, "Records", 3, 1, FAULT_FAIL_AFTER, 3},
        {FAULT_READ, "Records", 4, 1, FAULT_FAIL_FULL, 0},
    };
    for (const FaultRule& rule : rules) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        LogRecorder log;
        HeldBytes read;
        FaultArm(&rule);
        EXPECT_EQ(Read(&read, 0, none_), 0u);
        FaultDisarmAll();
        EXPECT_EQ(read.data.data, nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
        const std::string size = rule.nth == 4 ? "5" : "4";
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to read " + size + " bytes")) << trace.dump();
        EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
        EXPECT_TRUE(log.has(1306, 96, "Failed to retrive record field from table 'People'"))
            << log.dump();
        EXPECT_EQ(log.messages().size(), 1u);
    }
}

// Every allocation of every read in turn: refused without a leak (the fixture counts), and whole
// again afterwards.
TEST_F(PartialRead, NoMemoryAtAnyPointLeavesNothingBehind)
{
    AddAda();
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, table_, "Id"), 1u);
    ASSERT_EQ(IndxFirstKey(oCursor), INDX_RESULT_FOUND);
    for (const uint32_t* pSelected : {static_cast<const uint32_t*>(nullptr), none_}) {
        const std::function<NimBool(void**)> reads[] = {
            [&](void** ppOut) { return IndxGetPartialRecord(ppOut, table_, 0, pSelected); },
            [&](void** ppOut) { return IndxGetPartialRecordAtCursor(ppOut, oCursor, pSelected); },
            [&](void** ppOut) { return IndxGetPartialObjectAtCursor(ppOut, oCursor, pSelected); },
        };
        for (const auto& read : reads) {
            uint32_t n = 1;
            for (; n < 100; ++n) {
                const LiveCounts before;
                const uint32_t rule = Fail(FAULT_ALLOC, n);
                void* object = nullptr;
                const NimBool good = read(&object);
                const uint32_t hits = FaultHits(rule);
                FaultDisarmAll();
                ASSERT_EQ(good != 0, object != nullptr);
                ObjReleaseInternal(&object);
                ASSERT_EQ(before, LiveCounts()) << n;
                if (!hits)
                    break;
                ASSERT_EQ(good, 0u) << n;
            }
            EXPECT_GT(n, 2u);
            EXPECT_LT(n, 100u);
        }
    }
    IndxReleaseCursor(&oCursor);
}

// ---- damage ----------------------------------------------------------------------------------

TEST_F(PartialRead, ASizePastTheRecordIsRefusedBeforeAnythingIsAllocated)
{
    ExpectDamaged(
        [](std::string& bytes) { PutU32At(bytes, NAME_SLOT, 5); }, "Failed to read 14 bytes");
}

TEST_F(PartialRead, ASizePastTheFileIsRefusedBeforeAnythingIsAllocated)
{
    ExpectDamaged(
        [](std::string& bytes) { PutU32At(bytes, PHOTO_SLOT, 0x7fffffff); },
        "Failed to read -2147483641 bytes");
}

TEST_F(PartialRead, SizesWhoseSumPasses32BitsAreRefused)
{
    ExpectDamaged(
        [](std::string& bytes) {
            PutU32At(bytes, NAME_SLOT, 0xffffffff);
            PutU32At(bytes, TOWN_SLOT, 9); // the sum of 32 bits would be 13, what it is
        },
        "Failed to read 13 bytes");
}

TEST_F(PartialRead, ALengthPastTheFileIsRefused)
{
    ExpectDamaged(
        [](std::string& bytes) { PutU32At(bytes, 0, 0x01000000); }, "Failed to read 13 bytes");
}

TEST_F(PartialRead, ALengthShorterThanTheFixedPartIsRefused)
{
    ExpectDamaged([](std::string& bytes) { PutU32At(bytes, 0, 16); }, "Failed to read 13 bytes");
}

TEST_F(PartialRead, ARecordPast2GiBIsRefusedHoweverLongTheFileIs)
{
    AddAda();
    WithRecordsFile([](std::string& bytes) {
        PutU32At(bytes, 0, 0xfffffff0);
        PutU32At(bytes, PHOTO_SLOT, 0xfffff000);
    });
    SetRecordsLength(uint64_t{5} << 30); // takes no room on the disk
    ExpectRefused("Failed to read -4088 bytes");
    // The whole read neither.
    HeldBytes whole;
    FaultResetCalls();
    EXPECT_EQ(IndxRetriveRecord(&whole.data, table_, 0), 0u);
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 0u);
    FaultStopCalls();
    EXPECT_EQ(IndxError(), INDX_ERROR_READ);
}

TEST_F(PartialRead, ASlotOutsideOfTheFixedPartIsNotFollowed)
{
    AddAda();
    IndxField* pName = Field(table_, 1);
    for (const int32_t offset : {static_cast<int32_t>(FIXED_SIZE) - 7, 1000000, -4, INT32_MIN}) {
        pName->recordOffset = offset;
        IndxSetError(UNTOUCHED);
        ExpectRefused("Failed to read 0 bytes");
        // Without a selection nobody looks at the slot.
        HeldBytes read;
        EXPECT_EQ(Read(&read, 0, nullptr), 1u);
    }
    pName->recordOffset = NAME_SLOT;
}

// Any bytes in place of the fixed part: a result or an error, and nothing read outside of a buffer.
TEST_F(PartialRead, AnyBytesGiveAResultOrAnError)
{
    const uint64_t seed = TestSeed();
    std::mt19937_64 random(seed);
    const QuietTrace quiet;
    const LogRecorder log;
    AddAda();
    MustAdd(4);
    const std::string sound = ReadFileBytes(RecordsPath());
    Close();
    const uint32_t words[] = {0, 1, 4, 5, 13, 93, 0x7fffffff, 0x80000000, 0xffffffff, 0xfffffff8};
    for (int round = 0; round < 60; ++round) {
        std::string bytes = sound;
        for (int n = 0; n < 3; ++n)
            PutU32At(bytes, random() % 20 * 4, words[random() % std::size(words)]);
        WriteFileBytes(RecordsPath(), bytes);
        Reload();
        for (const uint32_t* pSelected : {static_cast<const uint32_t*>(nullptr), none_}) {
            HeldBytes read;
            if (Read(&read, 0, pSelected)) {
                EXPECT_LE(read.data.size, sound.size());
            }
            Held record;
            Held object;
            if (IndxGetPartialRecord(record.out(), table_, 0, pSelected))
                DbConvertObjectFromDbFormat(object.out(), record.get());
        }
        Close();
    }
    WriteFileBytes(RecordsPath(), sound);
    Reload();
}

// ---- the step for one field ------------------------------------------------------------------

// Without a selection no walk is made, so that this branch is reached by nobody but a direct call.
TEST_F(PartialRead, WithoutASelectionAFieldIsSkippedInTheFileAndItsSizeBecomes0)
{
    AddAda();
    HeldBytes fixed;
    ASSERT_EQ(Read(&fixed, 0, nullptr), 1u);
    auto* pBytes = static_cast<uint8_t*>(fixed.data.data);
    IndxPartialRead read = {table(), nullptr, pBytes, FIXED_SIZE, FIXED_SIZE, 0};
    ASSERT_EQ(FileSysSeek(table()->hRecords, FIXED_SIZE), 1u);
    TraceRecorder trace;
    FileCalls calls;
    for (uint32_t i = 0; i < FIELD_COUNT; ++i)
        ASSERT_EQ(IndxReadPartialField(&read, Field(table_, i)), 1u) << i;
    EXPECT_EQ(
        trace.texts(),
        (std::vector<std::string>{"Skip 4 byte field", "Skip 4 byte field", "Skip 5 byte field"}));
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Skip 5 byte field"));
    EXPECT_TRUE(calls.calls().empty());
    int64_t position = 0;
    ASSERT_EQ(FileSysGetOffset(&position, table()->hRecords), 1u);
    EXPECT_EQ(position, FIXED_SIZE + 13);
    EXPECT_EQ(read.size, FIXED_SIZE);
    EXPECT_EQ(read.pSelected, nullptr);
    for (const uint32_t slot : {NAME_SLOT, TOWN_SLOT, PHOTO_SLOT})
        EXPECT_EQ(U32At(fixed.bytes(), slot), 0u);
    // Where the data would be stays as it stood.
    EXPECT_EQ(U32At(fixed.bytes(), NAME_SLOT + 4), 80u);
    EXPECT_EQ(U32At(fixed.bytes(), PHOTO_SLOT + 4), 88u);
}

TEST_F(PartialRead, ASkipThatFailsGoesUnnoticed)
{
    AddAda();
    HeldBytes fixed;
    ASSERT_EQ(Read(&fixed, 0, nullptr), 1u);
    IndxPartialRead read = {table(),    nullptr,    static_cast<uint8_t*>(fixed.data.data),
                            FIXED_SIZE, FIXED_SIZE, 0};
    TraceRecorder trace;
    const uint32_t rule = Fail(FAULT_SKIP, 1, 1, "Records");
    EXPECT_EQ(IndxReadPartialField(&read, Field(table_, 1)), 1u);
    EXPECT_EQ(FaultHits(rule), 1u);
    EXPECT_EQ(trace.countLevel(-1), 0u);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(PartialRead, TheStepMovesTheSelectionOnByOneFlagForEveryField)
{
    AddAda();
    HeldBytes fixed;
    ASSERT_EQ(Read(&fixed, 0, nullptr), 1u);
    std::string room = fixed.bytes() + std::string(13, '\0');
    IndxPartialRead read = {table(),    none_,           reinterpret_cast<uint8_t*>(room.data()),
                            FIXED_SIZE, FIXED_SIZE + 13, 13};
    ASSERT_EQ(FileSysSeek(table()->hRecords, FIXED_SIZE), 1u);
    for (uint32_t i = 0; i < FIELD_COUNT; ++i) {
        EXPECT_EQ(read.pSelected, none_ + i);
        ASSERT_EQ(IndxReadPartialField(&read, Field(table_, i)), 1u) << i;
    }
    EXPECT_EQ(read.pSelected, none_ + FIELD_COUNT);
    EXPECT_EQ(read.size, FIXED_SIZE + 13);
    EXPECT_EQ(room, ReadFileBytes(RecordsPath()));
}

TEST_F(PartialRead, TheStepNeverWritesPastItsBuffer)
{
    AddAda();
    HeldBytes fixed;
    ASSERT_EQ(Read(&fixed, 0, nullptr), 1u);
    std::string room = fixed.bytes() + std::string(3, 'x');
    IndxPartialRead read = {table(),    none_,          reinterpret_cast<uint8_t*>(room.data()),
                            FIXED_SIZE, FIXED_SIZE + 3, 3};
    LogRecorder log;
    EXPECT_EQ(IndxReadPartialField(&read, Field(table_, 1)), 0u);
    EXPECT_EQ(log.count(1306), 1u);
    EXPECT_EQ(room.substr(FIXED_SIZE), "xxx");
    EXPECT_EQ(read.size, FIXED_SIZE + 4); // grows all the same
    EXPECT_EQ(read.pSelected, none_ + 1);
}

TEST_F(PartialRead, TheStepDoesNotFollowASlotOutsideOfTheFixedPart)
{
    AddAda();
    HeldBytes fixed;
    ASSERT_EQ(Read(&fixed, 0, nullptr), 1u);
    std::string room = fixed.bytes() + std::string(13, 'x');
    const std::string before = room;
    IndxField* pField = Field(table_, 1);
    const int32_t good = pField->recordOffset;
    for (const uint32_t* pSelected : {none_, static_cast<const uint32_t*>(nullptr)}) {
        for (const int32_t offset : {-1, -8, static_cast<int32_t>(FIXED_SIZE) - 7, INT32_MAX}) {
            IndxPartialRead read = {
                table(),    pSelected,       reinterpret_cast<uint8_t*>(room.data()),
                FIXED_SIZE, FIXED_SIZE + 13, 13};
            pField->recordOffset = offset;
            LogRecorder log;
            IndxSetError(UNTOUCHED);
            EXPECT_EQ(IndxReadPartialField(&read, pField), 0u) << offset;
            EXPECT_EQ(IndxError(), INDX_ERROR_READ);
            EXPECT_EQ(log.count(1306), 1u);
            EXPECT_EQ(read.size, FIXED_SIZE);
        }
    }
    pField->recordOffset = good;
    EXPECT_EQ(room, before);
}

// ---- records and objects ---------------------------------------------------------------------

TEST_F(PartialRead, APartialRecordIsABlobOfTheTablesType)
{
    AddAda();
    for (const uint32_t* pSelected : {static_cast<const uint32_t*>(nullptr), none_}) {
        Held record;
        ASSERT_EQ(IndxGetPartialRecord(record.out(), table_, 0, pSelected), 1u);
        const auto* pBlob = static_cast<DbBlob*>(record.get());
        EXPECT_EQ(OBJ_HEADER(pBlob)->magic, DB_BLOB_MAGIC);
        EXPECT_EQ(OBJ_HEADER(pBlob)->refCount, 1);
        EXPECT_EQ(pBlob->magic, PERSON_MAGIC);
        EXPECT_STREQ(pBlob->format, FORMAT);
        EXPECT_NE(pBlob->format, table()->format); // a copy
        EXPECT_EQ(pBlob->data.size, pSelected ? FIXED_SIZE + 13 : FIXED_SIZE);
    }
}

TEST_F(PartialRead, UnusableArgumentsSetError15)
{
    AddAda();
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, table_, "Id"), 1u);
    ASSERT_EQ(IndxFirstKey(oCursor), INDX_RESULT_FOUND);
    void* out = oCursor; // not null
    const std::function<NimBool()> calls[] = {
        [&] { return IndxGetPartialRecord(nullptr, table_, 0, nullptr); },
        [&] { return IndxGetPartialRecord(&out, nullptr, 0, nullptr); },
        [&] { return IndxGetPartialRecord(&out, oCursor, 0, nullptr); },
        [&] { return IndxGetPartialRecordAtCursor(nullptr, oCursor, nullptr); },
        [&] { return IndxGetPartialRecordAtCursor(&out, nullptr, nullptr); },
        [&] { return IndxGetPartialRecordAtCursor(&out, table_, nullptr); },
        [&] { return IndxGetPartialObjectAtCursor(nullptr, oCursor, nullptr); },
        [&] { return IndxGetPartialObjectAtCursor(&out, nullptr, nullptr); },
        [&] { return IndxGetPartialObjectAtCursor(&out, table_, nullptr); },
    };
    for (const auto& call : calls) {
        IndxSetError(UNTOUCHED);
        EXPECT_EQ(call(), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
        EXPECT_TRUE(out == nullptr || out == oCursor);
    }
    EXPECT_EQ(out, nullptr);
    // Bytes alone: refused without a code.
    IndxSetError(UNTOUCHED);
    HeldBytes read;
    EXPECT_EQ(IndxRetrivePartialRecord(nullptr, table_, 0, nullptr), 0u);
    EXPECT_EQ(IndxRetrivePartialRecord(&read.data, nullptr, 0, nullptr), 0u);
    EXPECT_EQ(IndxRetrivePartialRecord(&read.data, oCursor, 0, nullptr), 0u);
    EXPECT_EQ(IndxError(), UNTOUCHED);
    IndxReleaseCursor(&oCursor);
}

TEST_F(PartialRead, ACursorWithoutAKeySetsError15)
{
    AddAda();
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, table_, "Id"), 1u);
    const std::function<void()> places[] = {
        [] {}, // new: nowhere
        [&] { IndxCursorBOI(oCursor); },
        [&] { IndxCursorEOI(oCursor); },
    };
    for (const auto& place : places) {
        place();
        Held out;
        IndxSetError(UNTOUCHED);
        EXPECT_EQ(IndxGetPartialRecordAtCursor(out.out(), oCursor, none_), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
        IndxSetError(UNTOUCHED);
        EXPECT_EQ(IndxGetPartialObjectAtCursor(out.out(), oCursor, none_), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
        EXPECT_EQ(out.get(), nullptr);
    }
    IndxReleaseCursor(&oCursor);
}

TEST_F(PartialRead, AnUntrustedCursorStillReadsTheRecordOfItsKey)
{
    AddAda();
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, table_, "Id"), 1u);
    ASSERT_EQ(IndxFirstKey(oCursor), INDX_RESULT_FOUND);
    MustAdd(4);
    ASSERT_EQ(IndxAsCursor(oCursor)->status, INDX_UNTRUSTED);
    {
        Held object;
        EXPECT_EQ(IndxGetObjectAtCursor(object.out(), oCursor), 0u); // looks at the status
        ASSERT_EQ(IndxGetPartialObjectAtCursor(object.out(), oCursor, none_), 1u);
        Person ada = Ada();
        ada.id = 1;
        EXPECT_EQ(PersonOf(object.get()), ada);
    }
    IndxReleaseCursor(&oCursor);
}

TEST_F(PartialRead, WithoutASelectionTheVariableFieldsOfAnObjectAreAbsent)
{
    AddAda();
    const Cursor cursor(table_, "Name");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    Person expected = Ada();
    expected.id = 1;
    Held whole;
    ASSERT_EQ(IndxGetPartialObjectAtCursor(whole.out(), cursor.get(), none_), 1u);
    EXPECT_EQ(PersonOf(whole.get()), expected);
    Held fixed;
    ASSERT_EQ(IndxGetPartialObjectAtCursor(fixed.out(), cursor.get(), nullptr), 1u);
    expected.name.reset();
    expected.town.reset();
    expected.photo.clear();
    EXPECT_EQ(PersonOf(fixed.get()), expected);
    // The bytes of the record keep their slots.
    Held record;
    ASSERT_EQ(IndxGetPartialRecordAtCursor(record.out(), cursor.get(), nullptr), 1u);
    EXPECT_EQ(RecordBytes(record.get()), ReadFileBytes(RecordsPath()).substr(0, FIXED_SIZE));
}

TEST_F(PartialRead, TheIdOfAPartialRecordIsNotComparedWithItsKeys)
{
    AddAda();
    WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 4, 4711); });
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    CrashRecorder crash;
    for (const uint32_t* pSelected : {static_cast<const uint32_t*>(nullptr), none_}) {
        Held object;
        ASSERT_EQ(IndxGetPartialObjectAtCursor(object.out(), cursor.get(), pSelected), 1u);
        EXPECT_EQ(PersonOf(object.get()).id, 4711u);
        Held record;
        ASSERT_EQ(IndxGetPartialRecordAtCursor(record.out(), cursor.get(), pSelected), 1u);
    }
    EXPECT_EQ(crash.count(), 0u);
    Held object;
    EXPECT_EQ(IndxGetObjectAtCursor(object.out(), cursor.get()), 0u);
    EXPECT_EQ(crash.count(), 1u);
}

} // namespace
