// record_test.cpp: adding whole records: where they lie and what they look like, how ids are
// issued, what is refused and with which words. Reading them is record_read_test.cpp.
//
// Offsets of record bytes are written out by hand: total length at 0, slots from 4 on (id 4, name
// 8, town 16, age 24, number 28, key 36, photo 68, alive 76), variable data from 80 on.

#include <algorithm>
#include <gtest/gtest.h>

#include "support/file_calls.h"
#include "support/person_table.h"

namespace {

constexpr const char* TAG = "INDX        ";
constexpr uint32_t RECORDS_END = 0x7FFFFFFF;

class RecordAdd : public PeopleTest {};

// ---- adding: places and ids ------------------------------------------------------------------

TEST_F(RecordAdd, TwoAddsGiveConsecutiveIdsAndOffsetsInTheOrderOfAdding)
{
    EXPECT_EQ(MustAdd(1), 1u);
    const uint64_t firstLength = std::filesystem::file_size(RecordsPath());
    EXPECT_EQ(MustAdd(2), 2u);
    EXPECT_EQ(OffsetOf(table_, 1), 0);
    EXPECT_EQ(OffsetOf(table_, 2), static_cast<int64_t>(firstLength));
    const std::string bytes = ReadFileBytes(RecordsPath());
    EXPECT_EQ(U32At(bytes, 0), firstLength); // the second lies behind the first and its length
    EXPECT_EQ(U32At(bytes, firstLength), bytes.size() - firstLength);
}

TEST_F(RecordAdd, ARecordInItsFileIsWhatItsByteOffsetsSay)
{
    Person person;
    person.name = "Ada";
    person.town = "";
    person.age = -2;
    person.number = 0x0102030405060708;
    for (size_t i = 0; i < 32; ++i)
        person.key[i] = static_cast<uint8_t>(0xa0 + i);
    person.photo = std::string("\x01\x00\x02", 3);
    person.alive = true;
    ASSERT_EQ(Add(table_, &person), 1u);

    std::string expected;
    const auto put = [&](uint64_t value, size_t width) {
        for (size_t i = 0; i < width; ++i)
            expected.push_back(static_cast<char>(value >> (8 * i)));
    };
    put(88, 4);                 // 0: the whole record
    put(1, 4);                  // 4: id, stamped
    put(4, 4), put(80, 4);      // 8: name, its length with the NUL, where it lies
    put(1, 4), put(84, 4);      // 16: town, an empty text is its NUL
    put(0xfffffffe, 4);         // 24: age
    put(0x0102030405060708, 8); // 28: number
    expected.append(reinterpret_cast<const char*>(person.key.data()), 32); // 36: key
    put(3, 4), put(85, 4);                                                 // 68: photo
    put(1, 4);                                                             // 76: alive
    expected.append("Ada\0", 4);
    expected.append("\0", 1);
    expected.append("\x01\x00\x02", 3);
    EXPECT_EQ(ReadFileBytes(RecordsPath()), expected);

    People model = {{1, person}};
    ExpectHolds(table_, model);
}

TEST_F(RecordAdd, LengthAndIdAreStampedOverWhateverTheRecordHeld)
{
    const Held blob = BlobOf(MakePerson(1));
    auto* pBlob = static_cast<DbBlob*>(blob.get());
    std::memset(pBlob->data.data, 0xee, 8); // bytes 0 to 3, and the slot of the id
    uint32_t id = 0;
    ASSERT_EQ(IndxAddRecordToTable(&id, table_, blob.get()), 1u);
    const std::string stored = ReadFileBytes(RecordsPath());
    EXPECT_EQ(U32At(stored, 0), pBlob->data.size);
    EXPECT_EQ(U32At(stored, 4), id);
    // The caller's copy carries them as well.
    EXPECT_EQ(RecordBytes(blob.get()), stored);
    ExpectSound(table_);
}

TEST_F(RecordAdd, ANullIdPointerIsLegal)
{
    const Held object = ObjectOf(MakePerson(1));
    EXPECT_EQ(IndxAddObjectToTable(nullptr, table_, object.get()), 1u);
    const Held blob = BlobOf(MakePerson(2));
    EXPECT_EQ(IndxAddRecordToTable(nullptr, table_, blob.get()), 1u);
    ExpectHolds(table_, {{1, MakePerson(1)}, {2, MakePerson(2)}});
}

TEST_F(RecordAdd, ThePassedObjectKeepsItsOwnId)
{
    Person person = MakePerson(1);
    person.id = 4711;
    const Held object = ObjectOf(person);
    uint32_t id = 0;
    ASSERT_EQ(IndxAddObjectToTable(&id, table_, object.get()), 1u);
    EXPECT_EQ(static_cast<PersonBody*>(object.get())->id, 4711);
    EXPECT_EQ(id, 1u);
    ExpectHolds(table_, {{1, MakePerson(1)}});
}

TEST_F(RecordAdd, AFailedAddLeavesAGapInTheIds)
{
    EXPECT_EQ(MustAdd(1), 1u);
    Person again = MakePerson(1); // name and key are taken
    again.id = 99;
    EXPECT_EQ(Add(table_, &again), 0u);
    EXPECT_EQ(again.id, 99u); // untouched
    EXPECT_EQ(IndxError(), INDX_ERROR_UPDATE);
    EXPECT_EQ(IndxNextId(table_), 3u);
    EXPECT_EQ(MustAdd(2), 3u);
    ExpectHolds(table_, {{1, MakePerson(1)}, {3, MakePerson(2)}});
}

TEST_F(RecordAdd, ARefusedKeyLeavesTheRecordsFileAsItWas)
{
    MustAdd(1);
    const std::string before = ReadFileBytes(RecordsPath());
    Person again = MakePerson(1);
    EXPECT_EQ(Add(table_, &again), 0u);
    EXPECT_EQ(ReadFileBytes(RecordsPath()), before);
    ExpectHolds(table_, {{1, MakePerson(1)}});
}

TEST_F(RecordAdd, SettingAnIdBelowTheHighestLeavesItAndALargerOneRaisesIt)
{
    ASSERT_EQ(IndxSetRecordInTable(10, table_, BlobOf(MakePerson(1)).get()), 1u);
    EXPECT_EQ(IndxNextId(table_), 11u);
    {
        const FileCalls calls;
        ASSERT_EQ(IndxSetRecordInTable(4, table_, BlobOf(MakePerson(2)).get()), 1u);
        const FileCalls::Call last = calls.calls().back(); // the description, all the same
        EXPECT_EQ(last.op, static_cast<uint32_t>(FILE_OP_WRITE));
        EXPECT_EQ(last.path, BlocksPath());
        EXPECT_EQ(last.offset, 0);
    }
    EXPECT_EQ(IndxNextId(table_), 11u);
    ASSERT_EQ(IndxSetRecordInTable(20, table_, BlobOf(MakePerson(3)).get()), 1u);
    EXPECT_EQ(IndxNextId(table_), 21u);
    EXPECT_EQ(MustAdd(4), 21u);
    const People model = {
        {10, MakePerson(1)}, {4, MakePerson(2)}, {20, MakePerson(3)}, {21, MakePerson(4)}};
    ExpectHolds(table_, model);
    Reload();
    EXPECT_EQ(IndxNextId(table_), 22u); // stored with the table
    ExpectHolds(table_, model);
}

// Nothing else of the description changes here: no root, no end of an index.
TEST_F(RecordAdd, AHighestIdThatWasRaisedIsStored)
{
    MustAdd(1);
    Reload();
    ASSERT_EQ(IndxSetRecordInTable(20, table_, BlobOf(MakePerson(2)).get()), 1u);
    Reload();
    EXPECT_EQ(IndxNextId(table_), 21u);
    ExpectHolds(table_, {{1, MakePerson(1)}, {20, MakePerson(2)}});
}

TEST_F(RecordAdd, AFailedSetDoesNotRaiseTheHighestId)
{
    MustAdd(1);
    EXPECT_EQ(IndxSetRecordInTable(50, table_, BlobOf(MakePerson(1)).get()), 0u);
    EXPECT_EQ(IndxNextId(table_), 2u);
    ExpectHolds(table_, {{1, MakePerson(1)}});
}

// Kept: the highest id is compared signed, so an id from 2^31 on never raises it, and counts as
// negative everywhere.
TEST_F(RecordAdd, AnIdFromTwoToThe31OnDoesNotRaiseTheHighestId)
{
    MustAdd(1);
    ASSERT_EQ(IndxSetRecordInTable(0x80000000u, table_, BlobOf(MakePerson(2)).get()), 1u);
    EXPECT_EQ(IndxNextId(table_), 2u);
    EXPECT_EQ(MustAdd(3), 2u);
    EXPECT_EQ(FindById(table_, 0x80000000u)->name, MakePerson(2).name);
    ExpectSound(table_);
}

TEST_F(RecordAdd, SettingAnIdThatIsPresentIsRefusedByTheIndexOfIds)
{
    MustAdd(1);
    const std::string before = ReadFileBytes(RecordsPath());
    TraceRecorder trace;
    EXPECT_EQ(IndxSetRecordInTable(1, table_, BlobOf(MakePerson(2)).get()), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_UPDATE);
    EXPECT_TRUE(trace.has(TAG, 1, 0, "Key already exists")) << trace.dump();
    EXPECT_EQ(ReadFileBytes(RecordsPath()), before);
    ExpectHolds(table_, {{1, MakePerson(1)}});
    EXPECT_EQ(MustAdd(2), 2u);
    ExpectHolds(table_, {{1, MakePerson(1)}, {2, MakePerson(2)}});
}

TEST_F(RecordAdd, AnAddOfARecordOnlyMakesNoCompanionFile)
{
    void* oOther = OpenPeople(1, "Other");
    ASSERT_NE(oOther, nullptr);
    const Held one = BlobOf(MakePerson(1));
    ASSERT_EQ(IndxAddRecordOnly(1, oOther, &static_cast<DbBlob*>(one.get())->data), 1u);
    const Held two = BlobOf(MakePerson(2));
    ASSERT_EQ(IndxAddRecord(2, oOther, &static_cast<DbBlob*>(two.get())->data), 1u);
    ASSERT_EQ(IndxUpdateTable(oOther), 1u);
    EXPECT_FALSE(std::filesystem::exists(PathOf("Files", "Other/0000/00/01")));
    EXPECT_TRUE(std::filesystem::exists(PathOf("Files", "Other/0000/00/02")));
    EXPECT_EQ(std::filesystem::file_size(PathOf("Files", "Other/0000/00/02")), 0u);
    ExpectHolds(oOther, {{1, MakePerson(1)}, {2, MakePerson(2)}});
}

TEST_F(RecordAdd, NeitherAddRecordNorAddRecordOnlyTouchesTheHighestId)
{
    const Held blob = BlobOf(MakePerson(1));
    ASSERT_EQ(IndxAddRecord(7, table_, &static_cast<DbBlob*>(blob.get())->data), 1u);
    ASSERT_EQ(IndxUpdateTable(table_), 1u);
    EXPECT_EQ(IndxNextId(table_), 1u);
    ExpectHolds(table_, {{7, MakePerson(1)}});
}

TEST_F(RecordAdd, ATableWithoutTheFlagMakesNoCompanionFiles)
{
    MustAdd(1);
    EXPECT_FALSE(std::filesystem::exists(PathOf("Files", TABLE)));
}

TEST_F(RecordAdd, ACompanionFileIsCreatedEmptyOverAnOldOne)
{
    void* oOther = OpenPeople(1, "Other");
    ASSERT_NE(oOther, nullptr);
    std::filesystem::create_directories(PathOf("Files", "Other/0000/00"));
    WriteFileBytes(PathOf("Files", "Other/0000/00/01"), "old");
    Person person = MakePerson(1);
    ASSERT_EQ(Add(oOther, &person), 1u);
    EXPECT_EQ(ReadFileBytes(PathOf("Files", "Other/0000/00/01")), "");
    ExpectSound(oOther);
}

// ---- companion failures ----------------------------------------------------------------------

TEST_F(RecordAdd, AFailedCompanionFileLeavesRecordAndKeysOfAnAddRecord)
{
    void* oOther = OpenPeople(1, "Other");
    const Held blob = BlobOf(MakePerson(1));
    TraceRecorder trace;
    Fail(FAULT_OPEN, 1, 1, "Files");
    EXPECT_EQ(IndxAddRecord(1, oOther, &static_cast<DbBlob*>(blob.get())->data), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to create file")) << trace.dump();
    EXPECT_EQ(IndxError(), UNTOUCHED);
    FaultDisarmAll();
    ASSERT_EQ(IndxUpdateTable(oOther), 1u);
    ExpectHolds(oOther, {{1, MakePerson(1)}});
}

TEST_F(RecordAdd, AFailedCompanionNameIsTracedAndLeavesRecordAndKeys)
{
    void* oOther = OpenPeople(1, "Other");
    WriteFileBytes(PathOf("Files", "Other"), "no directory");
    const Held blob = BlobOf(MakePerson(1));
    TraceRecorder trace;
    EXPECT_EQ(IndxAddRecord(1, oOther, &static_cast<DbBlob*>(blob.get())->data), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to create file name")) << trace.dump();
    EXPECT_EQ(IndxError(), UNTOUCHED);
    ASSERT_EQ(IndxUpdateTable(oOther), 1u);
    ExpectHolds(oOther, {{1, MakePerson(1)}});
}

TEST_F(RecordAdd, AFailedCompanionFileIsBackedOutByAddRecordToTable)
{
    void* oOther = OpenPeople(1, "Other");
    Fail(FAULT_OPEN, 1, 1, "Files");
    Person person = MakePerson(1);
    EXPECT_EQ(Add(oOther, &person), 0u);
    FaultDisarmAll();
    // The bytes are orphaned, the keys are gone, and so is the id.
    EXPECT_GT(std::filesystem::file_size(RecordsPath("Other")), 0u);
    ExpectHolds(oOther, {});
    ASSERT_EQ(Add(oOther, &person), 1u);
    EXPECT_EQ(person.id, 2u);
    ExpectHolds(oOther, {{2, MakePerson(1)}});
}

TEST_F(RecordAdd, AnIdThatHasNoCompanionPathIsBackedOutBySet)
{
    void* oOther = OpenPeople(1, "Other");
    TraceRecorder trace;
    EXPECT_EQ(IndxSetRecordInTable(0, oOther, BlobOf(MakePerson(1)).get()), 0u);
    EXPECT_TRUE(trace.has(TAG, 1, -1, "Invalid argument (id is 0)"));
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to create file name"));
    ExpectHolds(oOther, {});
}

// ---- refused ---------------------------------------------------------------------------------

TEST_F(RecordAdd, ARecordOfAnotherTypeIsRefusedWith18AndWritesNothing)
{
    MustAdd(1);
    const std::string records = ReadFileBytes(RecordsPath());
    const std::string blocks = ReadFileBytes(BlocksPath());
    const Held wrong = MakeBlob(0xca333333, FORMAT, RecordBytes(BlobOf(MakePerson(2)).get()));
    {
        TraceRecorder trace;
        uint32_t id = 55;
        EXPECT_EQ(IndxAddRecordToTable(&id, table_, wrong.get()), 0u);
        EXPECT_EQ(id, 55u);
        EXPECT_EQ(IndxError(), INDX_ERROR_RECORD_TYPE);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Magic ca333333 does not match ca222222"))
            << trace.dump();
    }
    IndxSetError(UNTOUCHED);
    {
        TraceRecorder trace;
        EXPECT_EQ(IndxSetRecordInTable(9, table_, wrong.get()), 0u);
        EXPECT_EQ(IndxError(), INDX_ERROR_RECORD_TYPE);
        EXPECT_TRUE(
            trace.has(TAG, 0, -1, "Magic ca333333 for record to set does not match ca222222"))
            << trace.dump();
    }
    EXPECT_EQ(IndxNextId(table_), 2u); // no id was issued
    EXPECT_EQ(ReadFileBytes(RecordsPath()), records);
    EXPECT_EQ(ReadFileBytes(BlocksPath()), blocks);
    ExpectHolds(table_, {{1, MakePerson(1)}});
}

TEST_F(RecordAdd, WrongObjectMagicsAreRefusedWithoutMessageAndCode)
{
    const Held blob = BlobOf(MakePerson(1));
    const Held object = ObjectOf(MakePerson(1));
    void* const wrongTables[] = {nullptr, blob.get(), object.get()};
    void* const wrongRecords[] = {nullptr, object.get(), table_};
    TraceRecorder trace;
    uint32_t id = 55;
    for (void* wrong : wrongTables) {
        EXPECT_EQ(IndxAddRecordToTable(&id, wrong, blob.get()), 0u);
        EXPECT_EQ(IndxSetRecordInTable(1, wrong, blob.get()), 0u);
        EXPECT_EQ(IndxAddObjectToTable(&id, wrong, object.get()), 0u);
    }
    for (void* wrong : wrongRecords) {
        EXPECT_EQ(IndxAddRecordToTable(&id, table_, wrong), 0u);
        EXPECT_EQ(IndxSetRecordInTable(1, table_, wrong), 0u);
    }
    EXPECT_EQ(trace.countLevel(-1) + trace.countLevel(0), 0u) << trace.dump();
    EXPECT_EQ(IndxError(), UNTOUCHED);
    EXPECT_EQ(id, 55u);
    EXPECT_EQ(IndxNextId(table_), 1u);
    ExpectHolds(table_, {});
}

TEST_F(RecordAdd, AnObjectOfAnotherTypeEndsTheProcess)
{
    const Instance other(0xca333333, "i;s;");
    const Held text(ObjStringNew("x"));
    CrashRecorder crashes;
    TraceRecorder trace;
    uint32_t id = 55;
    EXPECT_EQ(IndxAddObjectToTable(&id, table_, other.get()), 0u);
    ASSERT_EQ(crashes.count(), 1u);
    EXPECT_EQ(crashes.codes()[0], 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Incorrect object type (magic 0xca333333)")) << trace.dump();
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Table holds type (magic 0xca222222)"));
    EXPECT_EQ(IndxAddObjectToTable(&id, table_, text.get()), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Incorrect object type (String)"));
    EXPECT_EQ(IndxAddObjectToTable(&id, table_, nullptr), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Incorrect object type ((null))"));
    EXPECT_EQ(crashes.count(), 3u);
    EXPECT_EQ(id, 55u);
    ExpectHolds(table_, {});
}

TEST_F(RecordAdd, AnObjectThatCannotBeEncodedIsRefused)
{
    constexpr uint32_t POINTER_MAGIC = 0xca444444;
    void* oTable = OpenTable("Pointers", POINTER_MAGIC, "i;p;", "Id, Pointer");
    ASSERT_NE(oTable, nullptr);
    const Instance object(POINTER_MAGIC, "i;p;");
    TraceRecorder trace;
    EXPECT_EQ(IndxAddObjectToTable(nullptr, oTable, object.get()), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to convert object to db format")) << trace.dump();
    EXPECT_EQ(IndxNextId(oTable), 1u);
    EXPECT_EQ(std::filesystem::file_size(RecordsPath("Pointers")), 0u);
    ExpectSound(oTable);
}

// Shorter than the fixed part, there would be no slot for the id.
TEST_F(RecordAdd, ARecordShorterThanItsFixedPartIsRefused)
{
    for (const uint32_t size : {0u, 3u, 15u, 16u, FIXED_SIZE - 1}) {
        const Held blob = MakeBlob(PERSON_MAGIC, FORMAT, std::string(size, '\0'));
        EXPECT_EQ(IndxAddRecordToTable(nullptr, table_, blob.get()), 0u) << size;
        EXPECT_EQ(IndxSetRecordInTable(5, table_, blob.get()), 0u) << size;
    }
    const Held none = MakeBlob(PERSON_MAGIC, FORMAT, "");
    MemFree(static_cast<DbBlob*>(none.get())->data.data);
    static_cast<DbBlob*>(none.get())->data.size = 1000;
    EXPECT_EQ(IndxAddRecordToTable(nullptr, table_, none.get()), 0u);
    static_cast<DbBlob*>(none.get())->data.size = 0;
    EXPECT_EQ(IndxAddRecord(5, table_, nullptr), 0u);
    EXPECT_EQ(std::filesystem::file_size(RecordsPath()), 0u);
    ExpectHolds(table_, {});
}

// Also when every key lies in what is there: what could not be decoded is not stored.
TEST_F(RecordAdd, AShortRecordIsRefusedThoughItsKeysAreThere)
{
    constexpr uint32_t SHORT_MAGIC = 0xca888888;
    void* oTable = OpenTable("Short", SHORT_MAGIC, "i;i;q;u;", "Id, A;Indexed, B, C");
    ASSERT_NE(oTable, nullptr);
    for (const uint32_t size : {16u, 20u, 51u}) {
        TraceRecorder trace;
        const Held blob = MakeBlob(SHORT_MAGIC, "i;i;q;u;", std::string(size, '\0'));
        EXPECT_EQ(IndxAddRecordToTable(nullptr, oTable, blob.get()), 0u) << size;
        EXPECT_EQ(IndxError(), INDX_ERROR_ARGUMENT);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Not a record of this table")) << trace.dump();
    }
    const Held whole = MakeBlob(SHORT_MAGIC, "i;i;q;u;", std::string(52, '\0'));
    EXPECT_EQ(IndxAddRecordToTable(nullptr, oTable, whole.get()), 1u);
    EXPECT_EQ(std::filesystem::file_size(RecordsPath("Short")), 52u);
    ExpectSound(oTable);
}

// The slots of a record from a caller are believed no more than those from a file.
TEST_F(RecordAdd, ARecordWhoseSlotsPointOutsideItIsRefused)
{
    MustAdd(1);
    struct {
        size_t at;
        uint32_t value;
    } const damages[] = {
        {8, 0x7fffffff}, {8, 0xffffffff},  {8, 8168},        {12, 0xfffffff0}, {12, 200},
        {16, 1000},      {20, 0x80000000}, {20, 0xffffffff}, {8, 0},
    };
    for (const auto& damage : damages) {
        std::string bytes = RecordBytes(BlobOf(MakePerson(2)).get());
        PutU32At(bytes, damage.at, damage.value);
        const Held blob = MakeBlob(PERSON_MAGIC, FORMAT, bytes);
        EXPECT_EQ(IndxAddRecordToTable(nullptr, table_, blob.get()), 0u)
            << damage.value << " at " << damage.at;
        EXPECT_EQ(IndxError(), INDX_ERROR_UPDATE);
    }
    ExpectHolds(table_, {{1, MakePerson(1)}});
}

// ---- failures --------------------------------------------------------------------------------

TEST_F(RecordAdd, TheFirstIndexThatRefusesAKeyEndsTheAdd)
{
    MustAdd(1);
    TraceRecorder trace;
    Person again = MakePerson(1); // name and key are taken
    EXPECT_EQ(Add(table_, &again), 0u);
    EXPECT_EQ(trace.count("Failed to insert key"), 1u) << trace.dump();
    const auto isInsert = [](const std::string& text) {
        return text.rfind("IndxInsertKey(", 0) == 0;
    };
    const auto texts = trace.texts();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(), isInsert), 2) << "Id and Name; not Town";
    ExpectSound(table_);
}

TEST_F(RecordAdd, AFailedSeekGivesError12AndEntersNoKey)
{
    MustAdd(1);
    for (const uint32_t point : {FAULT_SEEKEND, FAULT_GETOFFSET}) {
        IndxSetError(UNTOUCHED);
        const std::string before = ReadFileBytes(RecordsPath());
        TraceRecorder trace;
        Fail(point, 1, 1, "Records");
        Person person = MakePerson(2);
        EXPECT_EQ(Add(table_, &person), 0u);
        FaultDisarmAll();
        EXPECT_EQ(IndxError(), INDX_ERROR_SEEK);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to seek to record")) << trace.dump();
        EXPECT_FALSE(trace.hasPart("IndxInsertKey("));
        EXPECT_EQ(ReadFileBytes(RecordsPath()), before);
        ExpectHolds(table_, {{1, MakePerson(1)}});
    }
}

TEST_F(RecordAdd, AFailedWriteIsLoggedWith1302AndBackedOut)
{
    MustAdd(1);
    const uint64_t before = std::filesystem::file_size(RecordsPath());
    const FaultRule rule = {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_AFTER, 10};
    TraceRecorder trace;
    LogRecorder log;
    FaultArm(&rule);
    Person person = MakePerson(2);
    EXPECT_EQ(Add(table_, &person), 0u);
    FaultDisarmAll();
    EXPECT_EQ(IndxError(), INDX_ERROR_UPDATE);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to write record")) << trace.dump();
    EXPECT_TRUE(log.has(1302, 96, "Failed to write record in table 'People'")) << log.dump();
    EXPECT_EQ(log.messages().size(), 1u);
    // Bytes that were written stay, and the next record lies behind them.
    EXPECT_EQ(std::filesystem::file_size(RecordsPath()), before + 10);
    ExpectHolds(table_, {{1, MakePerson(1)}});
    ASSERT_EQ(Add(table_, &person), 1u);
    EXPECT_EQ(person.id, 3u);
    EXPECT_EQ(OffsetOf(table_, 3), static_cast<int64_t>(before) + 10);
    const People model = {{1, MakePerson(1)}, {3, MakePerson(2)}};
    ExpectHolds(table_, model);
    Reload();
    ExpectHolds(table_, model);
}

TEST_F(RecordAdd, AFailedWriteOfAnAddRecordLeavesItsKeysInMemory)
{
    const Held blob = BlobOf(MakePerson(1));
    Fail(FAULT_WRITE, 1, 1, "Records");
    EXPECT_EQ(IndxAddRecord(1, table_, &static_cast<DbBlob*>(blob.get())->data), 0u);
    FaultDisarmAll();
    EXPECT_EQ(WalkIds(table_, "Name"), std::vector<uint32_t>{1});
    IndxBackout(table());
    ExpectHolds(table_, {});
}

TEST_F(RecordAdd, ADescriptionThatCannotBeStoredFailsTheAddButNotTheRecord)
{
    MustAdd(1);
    LogRecorder log;
    Fail(FAULT_SERIALIZE);
    Person person = MakePerson(2);
    EXPECT_EQ(Add(table_, &person), 0u);
    FaultDisarmAll();
    EXPECT_EQ(person.id, 2u); // known to the caller all the same
    EXPECT_TRUE(log.has(1301, 96, "Failed to update table 'People'")) << log.dump();
    ExpectHolds(table_, {{1, MakePerson(1)}, {2, MakePerson(2)}});
}

// ---- the end of the file at 2 GiB ------------------------------------------------------------

TEST_F(RecordAdd, ARecordMayEndExactlyAtTheLastOffset)
{
    MustAdd(1);
    Person person = MakePerson(2);
    const uint32_t size = static_cast<DbBlob*>(BlobOf(person).get())->data.size;
    SetRecordsLength(RECORDS_END - size);
    ASSERT_EQ(Add(table_, &person), 1u);
    EXPECT_EQ(std::filesystem::file_size(RecordsPath()), RECORDS_END);
    EXPECT_EQ(OffsetOf(table_, person.id), static_cast<int64_t>(RECORDS_END - size));
    ExpectHolds(table_, {{1, MakePerson(1)}, {person.id, person}});
}

TEST_F(RecordAdd, AnAddThatWouldPassTwoGiBFailsBeforeAnyKeyIsEntered)
{
    MustAdd(1);
    const uint32_t size = static_cast<DbBlob*>(BlobOf(MakePerson(2)).get())->data.size;
    for (const uint64_t length :
         {uint64_t{RECORDS_END} - size + 1, uint64_t{RECORDS_END}, uint64_t{RECORDS_END} + 1,
          uint64_t{0xffffffff}, uint64_t{0x100000000}, uint64_t{0x100000000} + 100}) {
        SetRecordsLength(length);
        TraceRecorder trace;
        LogRecorder log;
        Person person = MakePerson(2);
        EXPECT_EQ(Add(table_, &person), 0u) << length;
        EXPECT_EQ(IndxError(), INDX_ERROR_SEEK);
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to seek to record")) << trace.dump();
        EXPECT_FALSE(trace.hasPart("IndxInsertKey("));
        EXPECT_TRUE(log.empty()) << log.dump();
        EXPECT_EQ(std::filesystem::file_size(RecordsPath()), length);
        ExpectHolds(table_, {{1, MakePerson(1)}});
    }
}

// ---- closed ----------------------------------------------------------------------------------

TEST_F(RecordAdd, AClosedRecordsFileIsMetByEveryOperation)
{
    MustAdd(1);
    FileSysClose(&table()->hRecords);
    TraceRecorder trace;
    Person person = MakePerson(2);
    EXPECT_EQ(Add(table_, &person), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_SEEK);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Failed to seek to record"));
    LogRecorder log;
    ObjData data = {};
    EXPECT_EQ(IndxRetriveRecord(&data, table_, 0), 0u);
    EXPECT_EQ(log.count(1305), 1u);
    EXPECT_EQ(IndxRetriveRecord(nullptr, table_, 0), 0u);
    EXPECT_EQ(IndxRetriveRecord(&data, nullptr, 0), 0u);
    ASSERT_EQ(IndxRecordsOpen(table_, TABLE), 1u);
    ExpectHolds(table_, {{1, MakePerson(1)}});
}

} // namespace
