// record_read_test.cpp: reading whole records, by offset and through a cursor: the bytes come as
// they stand, every failure has its words and codes, and no byte of a records file is believed.

#include <gtest/gtest.h>

#include "support/person_table.h"

namespace {

constexpr const char* TAG = "INDX        ";

class RecordRead : public PeopleTest {};

// ---- reading ---------------------------------------------------------------------------------

TEST_F(RecordRead, ARecordIsReadBackAsItsBytes)
{
    MustAdd(1);
    MustAdd(2);
    const std::string file = ReadFileBytes(RecordsPath());
    const auto offset = static_cast<uint32_t>(OffsetOf(table_, 2));
    ObjData data = {};
    ASSERT_EQ(IndxRetriveRecord(&data, table_, offset), 1u);
    EXPECT_EQ(DataBytes(data), file.substr(offset));
    MemFree(data.data);

    Held record;
    ASSERT_EQ(IndxGetRecord(record.out(), table_, offset), 1u);
    const auto* pBlob = static_cast<DbBlob*>(record.get());
    EXPECT_EQ(OBJ_HEADER(pBlob)->magic, DB_BLOB_MAGIC);
    EXPECT_EQ(OBJ_HEADER(pBlob)->refCount, 1);
    EXPECT_EQ(pBlob->magic, PERSON_MAGIC);
    EXPECT_STREQ(pBlob->format, FORMAT);
    EXPECT_EQ(RecordBytes(pBlob), file.substr(offset));
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

// One read fetches most records; longer ones take a second, at every length around the border.
TEST_F(RecordRead, RecordsOfEveryLengthAreReadBackWhole)
{
    People model;
    for (const size_t length :
         {0u, 1u, 300u, 400u, 403u, 404u, 405u, 406u, 407u, 408u, 409u, 430u, 511u, 512u, 513u,
          4096u, 100000u, 1000000u}) {
        Person person = MakePerson(static_cast<uint32_t>(model.size()));
        person.photo.assign(length, static_cast<char>(length));
        ASSERT_EQ(Add(table_, &person), 1u) << length;
        model[person.id] = person;
    }
    ExpectHolds(table_, model);
    Reload();
    ExpectHolds(table_, model);
}

// The same without a mapping and with every read failing short of nothing: plain reads.
TEST_F(RecordRead, RecordsAreReadBackWholeWithoutAMapping)
{
    People model;
    AddPeople(table_, &model, 1, 40);
    FileSysSetMapping(FALSE);
    Reload();
    ExpectHolds(table_, model);
    AddPeople(table_, &model, 40, 60);
    ExpectHolds(table_, model);
    Close();
    FileSysSetMapping(TRUE);
}

TEST_F(RecordRead, AReadInsideARecordYieldsTheLengthThoseBytesClaim)
{
    MustAdd(1);
    const std::string file = ReadFileBytes(RecordsPath());
    // The length of the photo, if it were a record.
    Person person = MakePerson(2);
    person.photo.assign(64, '\0');
    person.photo[0] = 40;
    ASSERT_EQ(Add(table_, &person), 1u);
    const std::string grown = ReadFileBytes(RecordsPath());
    const size_t inside = grown.size() - 64;
    ObjData data = {};
    ASSERT_EQ(IndxRetriveRecord(&data, table_, static_cast<uint32_t>(inside)), 1u);
    EXPECT_EQ(DataBytes(data), grown.substr(inside, 40));
    MemFree(data.data);
    ExpectSound(table_);
}

TEST_F(RecordRead, ASeekThatFailsIsLoggedWith1305)
{
    MustAdd(1);
    struct {
        uint32_t offset;
        bool fault;
        const char* text;
    } const cases[] = {
        {0, true, "Failed to seek to record at 0 in table 'People'"},
        // An offset is signed: from 2^31 on it lies before the file.
        {0x80000000u, false, "Failed to seek to record at -2147483648 in table 'People'"},
        {0xffffffffu, false, "Failed to seek to record at -1 in table 'People'"},
    };
    for (const auto& c : cases) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        LogRecorder log;
        if (c.fault)
            Fail(FAULT_SEEK, 1, 1, "Records");
        ObjData data = {5, 0, nullptr};
        EXPECT_EQ(IndxRetriveRecord(&data, table_, c.offset), 0u);
        FaultDisarmAll();
        EXPECT_EQ(data.size, 5u);
        EXPECT_EQ(data.data, nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_SEEK);
        EXPECT_TRUE(trace.has(TAG, 0, -1, c.text)) << trace.dump();
        EXPECT_TRUE(log.has(1305, 80, c.text)) << log.dump();
        EXPECT_EQ(log.messages().size(), 1u);
    }
    Held record(table_); // any value: set to null
    ObjIncRefCount(table_);
    void* oRecord = table_;
    EXPECT_EQ(IndxGetRecord(&oRecord, table_, 0x80000000u), 0u);
    EXPECT_EQ(oRecord, nullptr);
}

TEST_F(RecordRead, AHeaderThatCannotBeReadIsLoggedWith1304)
{
    MustAdd(1);
    const auto end = static_cast<uint32_t>(std::filesystem::file_size(RecordsPath()));
    struct {
        uint32_t offset;
        bool fault;
    } const cases[] = {{0, true}, {end, false}, {end - 15, false}, {0x7fffffff, false}};
    for (const auto& c : cases) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        LogRecorder log;
        if (c.fault)
            Fail(FAULT_READ, 1, 0, "Records");
        ObjData data = {5, 0, nullptr};
        EXPECT_EQ(IndxRetriveRecord(&data, table_, c.offset), 0u);
        FaultDisarmAll();
        EXPECT_EQ(data.data, nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
        const std::string text = "Failed to retrive record header at " + std::to_string(c.offset) +
                                 " from table 'People'";
        EXPECT_TRUE(trace.has(TAG, 0, -1, text)) << trace.dump();
        EXPECT_TRUE(log.has(1304, 80, text)) << log.dump();
        EXPECT_EQ(log.messages().size(), 1u);
    }
}

// A header that came whole counts, even when the device fails behind it: the bytes of the record
// that were read before the error are good.
TEST_F(RecordRead, ADeviceThatFailsBehindARecordDoesNotLoseTheRecord)
{
    MustAdd(1);
    MustAdd(2);
    const auto length = static_cast<uint32_t>(OffsetOf(table_, 2));
    const std::string file = ReadFileBytes(RecordsPath());
    const FaultRule rule = {FAULT_READ, "Records", 1, 1, FAULT_FAIL_AFTER, length};
    FaultArm(&rule);
    ObjData data = {};
    EXPECT_EQ(IndxRetriveRecord(&data, table_, 0), 1u);
    FaultDisarmAll();
    EXPECT_EQ(DataBytes(data), file.substr(0, length));
    MemFree(data.data);
}

// What fails is the read that takes more than the record, on account of what lies behind it: some
// systems then say how much came before the failure, and others that nothing did.
TEST_F(RecordRead, AFailureBehindARecordDoesNotLoseTheRecordWhereverTheReadStops)
{
    MustAdd(1);
    MustAdd(2);
    const auto length = static_cast<uint32_t>(OffsetOf(table_, 2));
    const std::string file = ReadFileBytes(RecordsPath());
    for (const uint32_t moved : {0u, 1u, 15u, 16u, 17u, length - 1}) {
        const FaultRule rule = {FAULT_READ, "Records", 1, 1, FAULT_FAIL_AFTER, moved};
        FaultArm(&rule);
        ObjData data = {};
        TraceRecorder trace;
        EXPECT_EQ(IndxRetriveRecord(&data, table_, 0), 1u) << moved;
        FaultDisarmAll();
        EXPECT_EQ(DataBytes(data), file.substr(0, length)) << moved;
        EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
        MemFree(data.data);
    }
}

// A read that fails inside the record is no short record, and none of what follows it is asked for
// in its place.
TEST_F(RecordRead, AFailureInsideARecordFailsWhereverTheReadStops)
{
    MustAdd(1);
    MustAdd(2);
    const auto length = static_cast<uint32_t>(OffsetOf(table_, 2));
    for (const uint32_t moved : {16u, 17u, length - 1}) {
        IndxSetError(UNTOUCHED);
        const FaultRule first = {FAULT_READ, "Records", 1, 1, FAULT_FAIL_AFTER, moved};
        const FaultRule rest = {FAULT_READ, "Records", 3, 1, FAULT_FAIL_AFTER, moved - 16};
        FaultArm(&first);
        const uint32_t restId = FaultArm(&rest);
        ObjData data = {5, 0, nullptr};
        TraceRecorder trace;
        EXPECT_EQ(IndxRetriveRecord(&data, table_, 0), 0u) << moved;
        EXPECT_EQ(FaultHits(restId), 1u) << moved;
        FaultDisarmAll();
        EXPECT_EQ(data.data, nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
        EXPECT_TRUE(trace.has(
            TAG, 0, -1,
            "Failed to retrive " + std::to_string(length) +
                " byte record at 0 from table 'People'"))
            << trace.dump();
    }
}

TEST_F(RecordRead, ARecordThatCannotBeReadIsLoggedWith1303AndFreesItsBuffer)
{
    Person person = MakePerson(1);
    person.photo.assign(5000, 'p');
    ASSERT_EQ(Add(table_, &person), 1u);
    const auto length = static_cast<uint32_t>(std::filesystem::file_size(RecordsPath()));
    const std::string text =
        "Failed to retrive " + std::to_string(length) + " byte record at 0 from table 'People'";
    struct {
        FaultRule rule;
    } const cases[] = {
        {{FAULT_READ, "Records", 2, 1, FAULT_FAIL, 0}},
        {{FAULT_READ, "Records", 2, 1, FAULT_FAIL_AFTER, 100}},
        {{FAULT_READ, "Records", 2, 1, FAULT_SHORT, 100}},
        {{FAULT_READ, "Records", 2, 1, FAULT_FAIL_FULL, 0}},
        {{FAULT_ALLOC, nullptr, 1, 1, FAULT_FAIL, 0}},
    };
    for (const auto& c : cases) {
        IndxSetError(UNTOUCHED);
        TraceRecorder trace;
        LogRecorder log;
        const LiveCounts before;
        FaultArm(&c.rule);
        ObjData data = {5, 0, nullptr};
        EXPECT_EQ(IndxRetriveRecord(&data, table_, 0), 0u);
        FaultDisarmAll();
        EXPECT_EQ(data.size, 5u);
        EXPECT_EQ(data.data, nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
        EXPECT_TRUE(trace.has(TAG, 0, -1, text)) << trace.dump();
        EXPECT_TRUE(log.has(1303, 80, text)) << log.dump();
        EXPECT_EQ(log.messages().size(), 1u);
        EXPECT_EQ(LiveCounts(), before);
    }
    ExpectHolds(table_, {{1, person}});
}

// A record that somebody else has appended since this handle last asked for the file's length.
TEST_F(RecordRead, ARecordAppendedThroughAnotherHandleIsReadWhole)
{
    Person person = MakePerson(1);
    person.photo.assign(5000, 'p');
    for (const bool mapping : {true, false}) {
        FileSysSetMapping(mapping);
        Reload();
        MustAdd(mapping ? 2 : 3); // makes the length known
        const auto offset = static_cast<uint32_t>(std::filesystem::file_size(RecordsPath()));
        std::string bytes = RecordBytes(BlobOf(person).get());
        PutU32At(bytes, 0, static_cast<uint32_t>(bytes.size()));
        std::ofstream(RecordsPath(), std::ios::binary | std::ios::app) << bytes;
        ObjData data = {};
        ASSERT_EQ(IndxRetriveRecord(&data, table_, offset), 1u) << mapping;
        EXPECT_EQ(DataBytes(data), bytes);
        MemFree(data.data);
    }
    FileSysSetMapping(TRUE);
    ExpectSound(table_);
}

// A length from a damaged file: nothing is taken for it before it is known that the file has it.
TEST_F(RecordRead, ARecordThatClaimsMoreThanTheFileHoldsFailsWith1303AndFreesItsBuffer)
{
    MustAdd(1);
    MustAdd(2);
    const auto length = static_cast<uint32_t>(std::filesystem::file_size(RecordsPath()));
    for (const uint32_t claim :
         {0u, 1u, 15u, length + 1, 1000000u, 0x7fffffffu, 0x80000000u, 0xfffffff0u, 0xffffffffu}) {
        WithRecordsFile([&](std::string& bytes) { PutU32At(bytes, 0, claim); });
        TraceRecorder trace;
        LogRecorder log;
        EXPECT_TRUE(FindById(table_, 2)); // its neighbour is not affected
        IndxUpdateTable(table_);          // lets go of the blocks that the find fetched
        const LiveCounts before;
        ObjData data = {5, 0, nullptr};
        FaultResetCalls();
        EXPECT_EQ(IndxRetriveRecord(&data, table_, 0), 0u) << claim;
        EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 0u) << claim;
        FaultStopCalls();
        EXPECT_EQ(data.data, nullptr);
        EXPECT_EQ(IndxError(), INDX_ERROR_READ);
        const std::string text = "Failed to retrive " +
                                 std::to_string(static_cast<int32_t>(claim)) +
                                 " byte record at 0 from table 'People'";
        EXPECT_TRUE(trace.has(TAG, 0, -1, text)) << trace.dump();
        EXPECT_TRUE(log.has(1303, 80, text)) << log.dump();
        EXPECT_EQ(LiveCounts(), before);

        Held record;
        EXPECT_EQ(IndxGetRecord(record.out(), table_, 0), 0u);
        EXPECT_FALSE(FindById(table_, 1)) << claim;
        IndxUpdateTable(table_);
        EXPECT_EQ(LiveCounts(), before);
    }
    ExpectSound(table_);
}

TEST_F(RecordRead, ATruncatedRecordsFileLosesOnlyWhatIsGone)
{
    People model;
    AddPeople(table_, &model, 1, 6);
    std::vector<int64_t> offsets;
    for (uint32_t id = 1; id <= 5; ++id)
        offsets.push_back(OffsetOf(table_, id));
    for (const int64_t cut : {offsets[4] + 20, offsets[4] + 3, offsets[3] + 1, offsets[2]}) {
        SetRecordsLength(static_cast<uint64_t>(cut));
        for (uint32_t id = 1; id <= 5; ++id) {
            const int64_t end = id < 5 ? offsets[id] : INT64_MAX;
            EXPECT_EQ(FindById(table_, id).has_value(), end <= cut) << id << " cut at " << cut;
        }
        ExpectSound(table_);
    }
}

// ---- reading through a cursor ----------------------------------------------------------------

TEST_F(RecordRead, ACursorThatIsNotOnAKeyYieldsNoRecord)
{
    MustAdd(1);
    const Cursor cursor(table_, "Id");
    const Held object = ObjectOf(MakePerson(2));
    TraceRecorder trace;
    const auto expectNothing = [&](void* oCursor) {
        void* out = table_;
        EXPECT_EQ(IndxGetObjectAtCursor(&out, oCursor), 0u);
        EXPECT_EQ(out, nullptr);
        out = table_;
        EXPECT_EQ(IndxGetRecordAtCursor(&out, oCursor), 0u);
        EXPECT_EQ(out, nullptr);
    };
    expectNothing(cursor.get()); // standing nowhere yet
    IndxCursorBOI(cursor.get());
    expectNothing(cursor.get());
    IndxCursorEOI(cursor.get());
    expectNothing(cursor.get());
    expectNothing(nullptr);
    expectNothing(table_);
    expectNothing(object.get());
    EXPECT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(IndxGetObjectAtCursor(nullptr, cursor.get()), 0u);
    EXPECT_EQ(IndxGetRecordAtCursor(nullptr, cursor.get()), 0u);
    EXPECT_EQ(IndxError(), UNTOUCHED);
    EXPECT_EQ(trace.countLevel(-1), 0u) << trace.dump();
    // Untrusted by an add: no longer on a key until it has found it again.
    MustAdd(2);
    expectNothing(cursor.get());
    EXPECT_EQ(IndxCurrentKey(cursor.get()), INDX_RESULT_FOUND);
    EXPECT_EQ(PersonAt(cursor.get())->id, 1u);
    ExpectSound(table_);
}

TEST_F(RecordRead, UnusableArgumentsYieldNoRecord)
{
    MustAdd(1);
    void* out = table_;
    EXPECT_EQ(IndxGetRecord(&out, nullptr, 0), 0u);
    EXPECT_EQ(out, nullptr);
    out = table_;
    EXPECT_EQ(IndxGetRecord(&out, database(), 0), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(IndxGetRecord(nullptr, table_, 0), 0u);
    EXPECT_EQ(IndxError(), UNTOUCHED);
}

TEST_F(RecordRead, ARecordWithAnotherIdThanItsKeyEndsTheProcess)
{
    MustAdd(1);
    MustAdd(2);
    const int64_t offset = OffsetOf(table_, 2);
    WithRecordsFile(
        [&](std::string& bytes) { PutU32At(bytes, static_cast<size_t>(offset) + 4, 77); });
    const Cursor cursor(table_, "Name");
    const Held name(ObjStringNew(MakePerson(2).name->c_str()));
    ASSERT_EQ(IndxFindKey(cursor.get(), 0, name.get()), INDX_RESULT_FOUND);
    CrashRecorder crashes;
    TraceRecorder trace;
    void* oObject = table_;
    EXPECT_EQ(IndxGetObjectAtCursor(&oObject, cursor.get()), 0u);
    EXPECT_EQ(oObject, nullptr);
    ASSERT_EQ(crashes.count(), 1u);
    EXPECT_EQ(crashes.codes()[0], 0u);
    EXPECT_TRUE(trace.has(
        TAG, 0, -1,
        "Table People: Cursor Key id 2 does not match record at " + std::to_string(offset) +
            " with id 77"))
        << trace.dump();
    // Without decoding there is no such check: the bytes come as they stand.
    Held record;
    EXPECT_EQ(IndxGetRecordAtCursor(record.out(), cursor.get()), 1u);
    EXPECT_EQ(U32At(RecordBytes(record.get()), 4), 77u);
    EXPECT_EQ(crashes.count(), 1u);
    ExpectSound(table_);
}

// Too short to carry an id, a record is damaged rather than another one's.
TEST_F(RecordRead, ARecordTooShortForItsIdIsAReadFailure)
{
    constexpr uint32_t LATE_MAGIC = 0xca555555;
    void* oTable = OpenTable("Late", LATE_MAGIC, "u;i;", "Key, Id"); // the id lies at 36
    ASSERT_NE(oTable, nullptr);
    Instance object(LATE_MAGIC, "u;i;");
    ASSERT_EQ(IndxAddObjectToTable(nullptr, oTable, object.get()), 1u);
    std::string bytes = ReadFileBytes(RecordsPath("Late"));
    ASSERT_EQ(bytes.size(), 40u);
    Close();
    PutU32At(bytes, 0, 39);
    WriteFileBytes(RecordsPath("Late"), bytes);
    ASSERT_TRUE(Reopen());
    oTable = OpenTable("Late", LATE_MAGIC, "u;i;", "Key, Id");
    const Cursor cursor(oTable, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    CrashRecorder crashes;
    Held read;
    EXPECT_EQ(IndxGetObjectAtCursor(read.out(), cursor.get()), 0u);
    EXPECT_EQ(IndxError(), INDX_ERROR_READ);
    EXPECT_EQ(crashes.count(), 0u);
}

TEST_F(RecordRead, DamagedSlotsOfAStoredRecordFailTheDecoderOnly)
{
    MustAdd(1);
    WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 12, 0xfffffff0u); });
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    Held object;
    EXPECT_EQ(IndxGetObjectAtCursor(object.out(), cursor.get()), 0u);
    EXPECT_EQ(object.get(), nullptr);
    Held record;
    EXPECT_EQ(IndxGetRecordAtCursor(record.out(), cursor.get()), 1u);
    ExpectSound(table_);
}

// Every single bit of a small records file, turned: a result or a failure, nothing else.
TEST_F(RecordRead, AnyBitOfTheRecordsFileMayBeWrong)
{
    MustAdd(1);
    MustAdd(2);
    const std::string good = ReadFileBytes(RecordsPath());
    CrashRecorder crashes;
    for (size_t bit = 0; bit < good.size() * 8; bit += 3) {
        Close();
        std::string bytes = good;
        bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
        WriteFileBytes(RecordsPath(), bytes);
        Reload();
        for (const char* field : {"Id", "Key"}) {
            const Cursor cursor(table_, field);
            for (int32_t code = IndxFirstKey(cursor.get()); code == INDX_RESULT_FOUND;
                 code = IndxNextKey(cursor.get())) {
                Held object;
                IndxGetObjectAtCursor(object.out(), cursor.get());
                Held record;
                IndxGetRecordAtCursor(record.out(), cursor.get());
            }
        }
    }
    ExpectSound(table_);
}

// ---- running out of memory -------------------------------------------------------------------

TEST_F(RecordRead, ReadingSurvivesAnyFailedAllocation)
{
    MustAdd(1);
    const Cursor cursor(table_, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), INDX_RESULT_FOUND);
    for (uint32_t n = 1;; ++n) {
        ASSERT_LT(n, 1000u);
        const LiveCounts before;
        const uint32_t rule = Fail(FAULT_ALLOC, n);
        void* oObject = table_;
        const NimBool bRead = IndxGetObjectAtCursor(&oObject, cursor.get());
        const bool bStruck = FaultHits(rule) > 0;
        FaultDisarmAll();
        EXPECT_EQ(bRead != 0, oObject != nullptr);
        EXPECT_NE(bRead != 0, bStruck) << n;
        ObjReleaseInternal(&oObject);
        EXPECT_EQ(LiveCounts(), before) << n;
        if (!bStruck)
            break;
    }
}

} // namespace
