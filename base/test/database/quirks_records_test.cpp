// quirks_records_test.cpp: what whole records, partial reads and companion files do on purpose and
// keep doing, oddities included.

#include <filesystem>

#include "people_scene.h"
#include "support/file_calls.h"

namespace {

constexpr uint32_t SELECTION[8] = {}; // nobody is selected, by the flags

class RecordQuirk : public testing::Test {
  protected:
    ~RecordQuirk() override
    {
        ObjReleaseInternal(&out_);
        MemFreeInternal(&data_.data);
    }
    void* people() { return scene_.table_; }
    NimBool AddPerson(uint32_t n)
    {
        Person person = MakePerson(n);
        return scene_.Add(people(), &person);
    }
    NimBool AddOnly(uint32_t id, const Held& record)
    {
        return IndxAddRecordOnly(id, people(), &static_cast<DbBlob*>(record.get())->data);
    }
    uint64_t RecordsSize() { return std::filesystem::file_size(scene_.RecordsPath()); }
    int64_t OffsetOf(uint32_t id) { return scene_.OffsetOf(people(), id); }
    NimBool Read(uint32_t offset)
    {
        MemFreeInternal(&data_.data);
        data_ = {};
        return IndxRetriveRecord(&data_, people(), offset);
    }
    NimBool ReadPart(uint32_t offset, const uint32_t* pSelected)
    {
        MemFreeInternal(&data_.data);
        data_ = {};
        return IndxRetrivePartialRecord(&data_, people(), offset, pSelected);
    }
    std::string Bytes() const { return DataBytes(data_); }

    LogRecorder log_;
    TraceRecorder trace_;
    PeopleScene scene_;
    void* out_ = nullptr;
    ObjData data_ = {};
};

// ---- adding
// --------------------------------------------------------------------------------------

TEST_F(RecordQuirk, TheKeysComeFirstAndTheBytesSecond)
{
    scene_.MustAdd(1);
    const uint64_t size = RecordsSize();
    const FileCalls calls;
    EXPECT_EQ(AddPerson(1), 0u); // the name is there already
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 0u);
    EXPECT_EQ(RecordsSize(), size);
}

TEST_F(RecordQuirk, AWalkOverTheFieldsStopsAtTheFirstThatFails)
{
    scene_.MustAdd(1);
    trace_.clear();
    EXPECT_EQ(AddPerson(1), 0u);
    EXPECT_EQ(trace_.count("Failed to insert key"), 1u);
    EXPECT_TRUE(trace_.hasPart("'Name' of 'People'"));
    EXPECT_FALSE(trace_.hasPart("'Town' of 'People'"));
}

TEST_F(RecordQuirk, AFailedAddLeavesAGapInTheIds)
{
    scene_.MustAdd(1);
    EXPECT_EQ(AddPerson(1), 0u);
    EXPECT_EQ(IndxNextId(people()), 3u);
    EXPECT_EQ(scene_.MustAdd(2), 3u);
}

TEST_F(RecordQuirk, AnIdLostToAFailedAddIsStoredByTheNextUpdateOnly)
{
    scene_.MustAdd(1);
    EXPECT_EQ(AddPerson(1), 0u);
    scene_.Reload(); // nothing stored it
    EXPECT_EQ(IndxNextId(people()), 2u);
}

TEST_F(RecordQuirk, AnIdPointerIsUntouchedByAFailedAdd)
{
    scene_.MustAdd(1);
    uint32_t id = 77;
    const Held record = scene_.BlobOf(MakePerson(1));
    EXPECT_EQ(IndxAddRecordToTable(&id, people(), record.get()), 0u);
    EXPECT_EQ(id, 77u);
}

TEST_F(RecordQuirk, TheIdIsHandedOutThoughTheTableCouldNotBeStored)
{
    uint32_t id = 77;
    const Held record = scene_.BlobOf(MakePerson(1));
    scene_.Fail(FAULT_SERIALIZE);
    EXPECT_EQ(IndxAddRecordToTable(&id, people(), record.get()), 0u);
    EXPECT_EQ(id, 1u);
    EXPECT_EQ(OffsetOf(1), 0); // the record is there
}

TEST_F(RecordQuirk, AnIdGivenToAFailedSetDoesNotRaiseTheHighestOne)
{
    scene_.MustAdd(1);
    EXPECT_EQ(IndxSetRecordInTable(9, people(), scene_.BlobOf(MakePerson(1)).get()), 0u);
    EXPECT_EQ(IndxNextId(people()), 2u);
}

TEST_F(RecordQuirk, LengthAndIdAreStampedIntoTheCallersBytes)
{
    const Held record = scene_.BlobOf(MakePerson(1));
    ASSERT_EQ(IndxSetRecordInTable(9, people(), record.get()), 1u);
    const std::string bytes = RecordBytes(record.get());
    EXPECT_EQ(U32At(bytes, 0), bytes.size());
    EXPECT_EQ(U32At(bytes, 4), 9u);
}

TEST_F(RecordQuirk, NobodyAsksWhetherAnIdIsInUseButItsKeyIsRefused)
{
    ASSERT_EQ(IndxSetRecordInTable(5, people(), scene_.BlobOf(MakePerson(1)).get()), 1u);
    EXPECT_EQ(IndxSetRecordInTable(5, people(), scene_.BlobOf(MakePerson(2)).get()), 0u);
    EXPECT_TRUE(trace_.has("Key already exists"));
    EXPECT_EQ(IndxError(), 14u);
}

TEST_F(RecordQuirk, AGivenIdRaisesTheHighestOneByASignedComparison)
{
    const auto set = [&](uint32_t id, uint32_t n) {
        EXPECT_EQ(IndxSetRecordInTable(id, people(), scene_.BlobOf(MakePerson(n)).get()), 1u);
        return IndxNextId(people());
    };
    EXPECT_EQ(set(7, 1), 8u);
    EXPECT_EQ(set(3, 2), 8u);
    EXPECT_EQ(set(0x90000000, 3), 8u); // a negative number
    EXPECT_EQ(scene_.MustAdd(4), 8u);
}

TEST_F(RecordQuirk, ASetStoresTheDescriptionThoughTheHighestIdStays)
{
    scene_.MustAdd(1);
    ASSERT_EQ(IndxSetRecordInTable(5, people(), scene_.BlobOf(MakePerson(2)).get()), 1u);
    const FileCalls calls;
    EXPECT_EQ(IndxSetRecordInTable(3, people(), scene_.BlobOf(MakePerson(3)).get()), 1u);
    ASSERT_FALSE(calls.calls().empty());
    EXPECT_EQ(calls.calls().back().op, static_cast<uint32_t>(FILE_OP_WRITE));
    EXPECT_EQ(calls.calls().back().path, scene_.BlocksPath());
    EXPECT_EQ(calls.calls().back().offset, 0);
}

TEST_F(RecordQuirk, ObjectsThatAreNoTableOrNoRecordAreRefusedWithoutAMessage)
{
    const TraceRecorder failures(0);
    IndxSetError(77);
    EXPECT_EQ(IndxAddRecordToTable(nullptr, scene_.database(), people()), 0u);
    EXPECT_EQ(IndxAddRecordToTable(nullptr, people(), people()), 0u);
    EXPECT_EQ(IndxSetRecordInTable(1, people(), nullptr), 0u);
    EXPECT_TRUE(failures.lines().empty()) << failures.dump();
    EXPECT_EQ(IndxError(), 77u);
}

TEST_F(RecordQuirk, AnObjectOfAnotherTypeEndsTheProcess)
{
    out_ = ObjIntegerNew(1);
    const CrashRecorder crash;
    EXPECT_EQ(IndxAddObjectToTable(nullptr, people(), out_), 0u);
    EXPECT_EQ(IndxAddObjectToTable(nullptr, people(), nullptr), 0u);
    EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0, 0}));
}

TEST_F(RecordQuirk, AddingARecordAloneNeitherSavesNorBacksOut)
{
    const FileCalls calls;
    EXPECT_EQ(AddOnly(5, scene_.BlobOf(MakePerson(1))), 1u);
    EXPECT_EQ(calls.count(FILE_OP_WRITE), 1u); // the record; its keys are in memory
    EXPECT_EQ(AddOnly(6, scene_.BlobOf(MakePerson(1))), 0u);
    EXPECT_EQ(OffsetOf(6), static_cast<int64_t>(RecordsSize())); // its id stays, too
    IndxBackout(scene_.table());
    EXPECT_EQ(OffsetOf(5), -1);
}

TEST_F(RecordQuirk, AFailureThatWasNotBackedOutIsCommittedByTheNextAdd)
{
    scene_.MustAdd(1);
    EXPECT_EQ(AddOnly(7, scene_.BlobOf(MakePerson(1))), 0u); // its id is entered, its name is not
    EXPECT_EQ(scene_.MustAdd(2), 2u);
    scene_.Reload();
    EXPECT_EQ(OffsetOf(7), OffsetOf(2));
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 7, nullptr), 6);
    const CrashRecorder crash;
    EXPECT_EQ(IndxGetObjectAtCursor(&out_, cursor.get()), 0u); // another record's bytes
    EXPECT_EQ(crash.count(), 1u);
}

TEST_F(RecordQuirk, RecordsThatWereNotSavedAreDroppedByALaterFailure)
{
    EXPECT_EQ(AddOnly(5, scene_.BlobOf(MakePerson(1))), 1u);
    EXPECT_EQ(AddPerson(1), 0u); // backs everything out
    EXPECT_EQ(OffsetOf(5), -1);
    EXPECT_GT(RecordsSize(), 0u); // its bytes stay
}

TEST_F(RecordQuirk, BytesOfAFailedWriteStayInTheRecordsFile)
{
    scene_.MustAdd(1);
    const uint64_t size = RecordsSize();
    const FaultRule rule = {FAULT_WRITE, "Records", 1, 1, FAULT_FAIL_AFTER, 10};
    FaultArm(&rule);
    EXPECT_EQ(AddPerson(2), 0u);
    EXPECT_EQ(RecordsSize(), size + 10);
    scene_.MustAdd(3);
    EXPECT_EQ(OffsetOf(3), static_cast<int64_t>(size + 10)); // the lost id was 2
}

TEST_F(RecordQuirk, TheRecordsFileIsNotRolledBack)
{
    void* oTable = scene_.OpenPeople(1, "Docs");
    scene_.Fail(FAULT_OPEN, 1, 0, "Files");
    Person person = MakePerson(1);
    EXPECT_EQ(scene_.Add(oTable, &person), 0u); // the keys are backed out
    FaultDisarmAll();
    EXPECT_EQ(scene_.OffsetOf(oTable, 1), -1);
    EXPECT_GT(std::filesystem::file_size(scene_.RecordsPath("Docs")), 0u);
}

TEST_F(RecordQuirk, AFailedCompanionFileLeavesRecordAndKeys)
{
    void* oTable = scene_.OpenPeople(1, "Docs");
    scene_.Fail(FAULT_OPEN, 1, 0, "Files");
    const Held record = scene_.BlobOf(MakePerson(1));
    EXPECT_EQ(IndxAddRecord(5, oTable, &static_cast<DbBlob*>(record.get())->data), 0u);
    FaultDisarmAll();
    EXPECT_EQ(IndxUpdateTable(oTable), 1u);
    EXPECT_EQ(scene_.OffsetOf(oTable, 5), 0);
}

TEST_F(RecordQuirk, AddingARecordOnlyMakesNoCompanionFile)
{
    void* oTable = scene_.OpenPeople(1, "Docs");
    const Held record = scene_.BlobOf(MakePerson(1));
    EXPECT_EQ(IndxAddRecordOnly(5, oTable, &static_cast<DbBlob*>(record.get())->data), 1u);
    EXPECT_EQ(IndxUpdateTable(oTable), 1u);
    EXPECT_FALSE(std::filesystem::exists(scene_.PathOf("Files", "Docs")));
}

TEST_F(RecordQuirk, ARecordsFileEndsAtTwoGibibytes)
{
    scene_.Close();
    const uint64_t most = 0x7FFFFFFF;
    const uint64_t size = RecordBytes(scene_.BlobOf(MakePerson(1)).get()).size();
    std::filesystem::resize_file(scene_.RecordsPath(), most - size + 1);
    scene_.Reload();
    EXPECT_EQ(AddPerson(1), 0u);
    EXPECT_EQ(IndxError(), 12u);
    EXPECT_TRUE(trace_.has("Failed to seek to record"));
    scene_.Close();
    std::filesystem::resize_file(scene_.RecordsPath(), most - size);
    scene_.Reload();
    EXPECT_EQ(AddPerson(1), 1u); // ends with the last byte there is
}

// ---- reading
// -------------------------------------------------------------------------------------

TEST_F(RecordQuirk, TheSpellingRetriveStays)
{
    scene_.MustAdd(1);
    EXPECT_EQ(Read(0), 1u);
    EXPECT_TRUE(trace_.hasPart("IndxRetriveRecord("));
    EXPECT_EQ(Read(1 << 20), 0u);
    EXPECT_TRUE(trace_.hasPart("Failed to retrive record header at 1048576 from table 'People'"));
}

TEST_F(RecordQuirk, AReadInsideARecordYieldsWhateverLengthStandsThere)
{
    Person person = MakePerson(1);
    person.photo = std::string("\x14\0\0\0", 4) + std::string(40, 'p');
    ASSERT_EQ(scene_.Add(people(), &person), 1u);
    const uint32_t inside = static_cast<uint32_t>(RecordsSize()) - 44;
    EXPECT_EQ(Read(inside), 1u);
    EXPECT_EQ(Bytes(), person.photo.substr(0, 20));
}

TEST_F(RecordQuirk, ARecordReadAtACursorIsNotComparedWithItsKey)
{
    scene_.MustAdd(1);
    scene_.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 4, 8); });
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), 6);
    EXPECT_EQ(IndxGetRecordAtCursor(&out_, cursor.get()), 1u);
    EXPECT_EQ(U32At(RecordBytes(out_), 4), 8u);
}

TEST_F(RecordQuirk, AnObjectReadAtACursorIsAndAnotherIdEndsTheProcess)
{
    scene_.MustAdd(1);
    scene_.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 4, 8); });
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), 6);
    const CrashRecorder crash;
    EXPECT_EQ(IndxGetObjectAtCursor(&out_, cursor.get()), 0u);
    EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0}));
}

TEST_F(RecordQuirk, NoRecordIsLeftBehindByAReadAtACursorWhateverBecomesOfIt)
{
    scene_.MustAdd(1);
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), 6);
    EXPECT_EQ(IndxGetObjectAtCursor(&out_, cursor.get()), 1u);
    EXPECT_EQ(ObjLiveCount(DB_BLOB_MAGIC), 0u);
    ObjReleaseInternal(&out_);
    EXPECT_EQ(IndxGetPartialObjectAtCursor(&out_, cursor.get(), nullptr), 1u);
    EXPECT_EQ(ObjLiveCount(DB_BLOB_MAGIC), 0u);
    ObjReleaseInternal(&out_);
    scene_.Fail(FAULT_READ, 1, 0, "Records");
    EXPECT_EQ(IndxGetObjectAtCursor(&out_, cursor.get()), 0u);
    EXPECT_EQ(IndxGetRecordAtCursor(&out_, cursor.get()), 0u);
    EXPECT_EQ(IndxGetPartialObjectAtCursor(&out_, cursor.get(), nullptr), 0u);
    EXPECT_EQ(IndxGetPartialRecordAtCursor(&out_, cursor.get(), nullptr), 0u);
    EXPECT_EQ(ObjLiveCount(DB_BLOB_MAGIC), 0u);
}

TEST_F(RecordQuirk, AWholeRecordIsReadFromAKeyOnlyAndAPartialOneFromAnUntrustedCursorToo)
{
    scene_.MustAdd(1);
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), 6);
    scene_.MustAdd(2);
    ASSERT_EQ(IndxAsCursor(cursor.get())->status, INDX_UNTRUSTED);
    EXPECT_EQ(IndxGetObjectAtCursor(&out_, cursor.get()), 0u);
    EXPECT_EQ(IndxGetRecordAtCursor(&out_, cursor.get()), 0u);
    EXPECT_EQ(IndxGetPartialRecordAtCursor(&out_, cursor.get(), nullptr), 1u);
}

TEST_F(RecordQuirk, APartialObjectIsNotComparedWithItsKey)
{
    scene_.MustAdd(1);
    scene_.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 4, 8); });
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), 6);
    EXPECT_EQ(IndxGetPartialObjectAtCursor(&out_, cursor.get(), SELECTION), 1u);
    EXPECT_EQ(Item<int32_t>(out_, 0), 8);
}

// ---- partial reads
// -------------------------------------------------------------------------------

TEST_F(RecordQuirk, TheFlagsOfASelectionAreNotRead)
{
    scene_.MustAdd(1);
    ASSERT_EQ(Read(0), 1u);
    const std::string whole = Bytes();
    const uint32_t all[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    ASSERT_EQ(ReadPart(0, SELECTION), 1u);
    EXPECT_EQ(Bytes(), whole);
    ASSERT_EQ(ReadPart(0, all), 1u);
    EXPECT_EQ(Bytes(), whole);
}

TEST_F(RecordQuirk, WithoutASelectionTheSlotsPointPastTheBytes)
{
    scene_.MustAdd(1);
    ASSERT_EQ(ReadPart(0, nullptr), 1u);
    EXPECT_EQ(Bytes().size(), PeopleScene::FIXED_SIZE);
    EXPECT_EQ(U32At(Bytes(), 8), 14u); // the name: its size, and where it lay
    EXPECT_EQ(U32At(Bytes(), 12), PeopleScene::FIXED_SIZE);
}

TEST_F(RecordQuirk, WithoutASelectionAnObjectHasNoVariableFields)
{
    scene_.MustAdd(1);
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), 6);
    ASSERT_EQ(IndxGetPartialObjectAtCursor(&out_, cursor.get(), nullptr), 1u);
    EXPECT_EQ(Item<char*>(out_, 1), nullptr);
    EXPECT_EQ(Item<ObjData>(out_, 6).size, 0u);
    EXPECT_EQ(Item<int32_t>(out_, 3), MakePerson(1).age);
}

TEST_F(RecordQuirk, TheSlotOfAFieldThatWasReadPointsToWhereItLiesNow)
{
    scene_.MustAdd(1);
    scene_.WithRecordsFile([](std::string& bytes) { PutU32At(bytes, 12, 4000); });
    ASSERT_EQ(ReadPart(0, SELECTION), 1u);
    EXPECT_EQ(U32At(Bytes(), 12), PeopleScene::FIXED_SIZE); // read in sequence, wherever it was
    EXPECT_EQ(Bytes().substr(PeopleScene::FIXED_SIZE, 13), "Name 00000001");
}

TEST_F(RecordQuirk, AFieldIsSkippedWhenThereIsNoSelectionAndItsOffsetStays)
{
    uint8_t bytes[PeopleScene::FIXED_SIZE] = {};
    bytes[8] = 14;
    bytes[12] = 80;
    IndxPartialRead read = {scene_.table(),          nullptr, bytes, PeopleScene::FIXED_SIZE,
                            PeopleScene::FIXED_SIZE, 0};
    scene_.Fail(FAULT_SKIP); // nobody asks whether it worked
    EXPECT_EQ(IndxReadPartialField(&read, PeopleScene::Field(people(), 1)), 1u);
    EXPECT_EQ(bytes[8], 0);
    EXPECT_EQ(bytes[12], 80);
    EXPECT_TRUE(trace_.has("Skip 14 byte field"));
}

TEST_F(RecordQuirk, TheAssembledSizeGrowsThoughTheFieldCouldNotBeRead)
{
    uint8_t bytes[200] = {};
    bytes[8] = 14;
    IndxPartialRead read = {scene_.table(),          SELECTION,    bytes,
                            PeopleScene::FIXED_SIZE, sizeof bytes, 0};
    scene_.Fail(FAULT_READ);
    EXPECT_EQ(IndxReadPartialField(&read, PeopleScene::Field(people(), 1)), 0u);
    EXPECT_EQ(read.size, PeopleScene::FIXED_SIZE + 14);
    EXPECT_EQ(read.pSelected, SELECTION + 1); // as the selection goes on
}

TEST_F(RecordQuirk, AFieldWithoutAKnownTypeFailsAPartialReadInSilence)
{
    scene_.MustAdd(1);
    IndxField* pField = PeopleScene::Field(people(), 7);
    for (int32_t type : {0, 11, 12, -2}) {
        pField->type = type;
        IndxSetError(77);
        const TraceRecorder failures(0);
        EXPECT_EQ(ReadPart(0, SELECTION), 0u) << type;
        EXPECT_TRUE(failures.lines().empty()) << failures.dump();
        EXPECT_EQ(IndxError(), 77u);
    }
    for (int32_t type : {-1, 1, 6}) {
        pField->type = type;
        EXPECT_EQ(ReadPart(0, SELECTION), 1u) << type;
    }
    pField->type = INDX_FIELD_BOOLEAN;
}

TEST_F(RecordQuirk, AFieldWithoutAKnownTypeIsNoMatterWithoutVariableData)
{
    scene_.MustAdd(1);
    IndxField* pField = PeopleScene::Field(people(), 7);
    pField->type = 11;
    EXPECT_EQ(ReadPart(0, nullptr), 1u); // the second pass is not run
    pField->type = INDX_FIELD_BOOLEAN;
}

TEST_F(RecordQuirk, TheMisspellingFaiedlStays)
{
    EXPECT_EQ(ReadPart(0, nullptr), 0u);
    EXPECT_TRUE(log_.has(1307, 96, "Faiedl to read record from table 'People'"));
}

TEST_F(RecordQuirk, AnEmptyNameOfAFieldHasNoNumber)
{
    uint32_t number = 77;
    EXPECT_EQ(IndxGetFieldNumber(&number, people(), ""), 0u);
    EXPECT_EQ(number, 77u);
    EXPECT_EQ(IndxGetFieldNumber(&number, people(), "ALIVE"), 1u);
    EXPECT_EQ(number, 7u);
}

// ---- companion files
// -----------------------------------------------------------------------------

class CompanionQuirk : public RecordQuirk {
  protected:
    void Touch(const std::string& below)
    {
        const std::filesystem::path path = scene_.PathOf("Files", "People/" + below);
        std::filesystem::create_directories(path.parent_path());
        WriteFileBytes(path.string(), "");
    }
    std::vector<uint32_t> Listed()
    {
        ObjReleaseInternal(&out_);
        EXPECT_EQ(IndxGetFileList(&out_, people()), 0u); // whatever it found
        std::vector<uint32_t> ids;
        void* oId = nullptr;
        for (uint32_t i = 0; ListGetNthItem(&oId, out_, i); ++i)
            ids.push_back(static_cast<uint32_t>(ObjGetInteger(oId)));
        return ids;
    }
    std::string Path(uint32_t id)
    {
        char* path = nullptr;
        IndxGetFilePath(&path, people(), id);
        const std::string copy = path ? path : "(null)";
        MemFree(path);
        return copy;
    }
};

TEST_F(CompanionQuirk, TheListOfFilesIsReturnedWithZero)
{
    Touch("0000/00/01");
    EXPECT_EQ(Listed(), std::vector<uint32_t>({1}));
}

TEST_F(CompanionQuirk, AtACursorOnNoKeyThereIsNoPathAndTheResultIsOne)
{
    const PeopleScene::Cursor cursor(people(), "Id");
    char untouched[] = "untouched";
    char* path = untouched;
    IndxCursorBOI(cursor.get());
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, cursor.get()), 1u);
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, nullptr), 1u);
    EXPECT_EQ(IndxGetFilePathAtCursor(&path, people()), 1u);
    EXPECT_EQ(IndxGetFilePathAtCursor(nullptr, cursor.get()), 1u);
    EXPECT_EQ(path, untouched);
}

TEST_F(CompanionQuirk, TheTraceOfAPathSaysNoMoreThanItsName)
{
    trace_.clear();
    Path(1);
    EXPECT_EQ(trace_.count("IndxGetFilePath()"), 1u);
}

TEST_F(CompanionQuirk, IdsFromHalfTheirRangeOnHaveNoPath)
{
    EXPECT_EQ(Path(0x7FFFFFFF), scene_.PathOf("Files", "People/7fff/ff/ff"));
    EXPECT_EQ(Path(0x80000000), "(null)");
    EXPECT_EQ(Path(0), "(null)");
}

TEST_F(CompanionQuirk, TheFileItselfIsNeitherMadeNorLookedFor)
{
    EXPECT_EQ(Path(0x12345), scene_.PathOf("Files", "People/0001/23/45"));
    EXPECT_TRUE(std::filesystem::is_directory(scene_.PathOf("Files", "People/0001/23")));
    EXPECT_FALSE(std::filesystem::exists(scene_.PathOf("Files", "People/0001/23/45")));
    EXPECT_EQ(Listed(), std::vector<uint32_t>());
}

TEST_F(CompanionQuirk, ADirectoryThatIsThereNeedNotBeMade)
{
    const std::string path = Path(1);
    scene_.Fail(FAULT_MKDIR, 1, 0); // that it was made is not asked, that it is one is
    EXPECT_EQ(Path(1), path);
    EXPECT_EQ(Path(0x10000), "(null)");
}

TEST_F(CompanionQuirk, ThePathHasTheNameOfTheTableNotOfItsFiles)
{
    void* oTable = nullptr;
    ASSERT_EQ(
        IndxOpenTableInternal(
            &oTable, scene_.database(), "Name", "File", 0xca333333, "i;", "Id", 0,
            INDX_VERSION_NONE),
        1u);
    char* path = nullptr;
    EXPECT_EQ(IndxGetFilePath(&path, oTable, 1), 1u);
    EXPECT_EQ(path, scene_.PathOf("Files", "Name/0000/00/01"));
    MemFree(path);
    IndxReleaseTable(&oTable);
}

TEST_F(CompanionQuirk, ANameOfTwoCharactersIsTakenOnTheFirstLevelToo)
{
    Touch("01/02/03");
    EXPECT_EQ(Listed(), std::vector<uint32_t>({0x10203}));
}

TEST_F(CompanionQuirk, CaseOfAHexadecimalNameDoesNotCountAndAnythingBehindItDoes)
{
    Touch("0000/00/1A");
    Touch("0000/00/1b.tmp");
    Touch("0000/00/!!"); // comes first, and the scan goes on
    Touch("0000/00/zz");
    Touch("0000/zz/01");
    Touch("000/00/01");
    EXPECT_EQ(Listed(), std::vector<uint32_t>({0x1a}));
}

TEST_F(CompanionQuirk, ASignOrABlankBeforeADigitIsRead)
{
    Touch("0000/00/+1");
    Touch("0000/00/ 2");
    EXPECT_EQ(Listed(), std::vector<uint32_t>({2, 1})); // in the order of their bytes
}

TEST_F(CompanionQuirk, TheNextIdIsNeitherReservedNorStored)
{
    EXPECT_EQ(IndxNextId(people()), 1u);
    EXPECT_EQ(IndxNextId(people()), 1u);
    EXPECT_EQ(scene_.table()->bChanged, 0u);
    EXPECT_EQ(IndxNextId(scene_.database()), 0u);
}

} // namespace
