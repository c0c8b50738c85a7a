// quirks_modification_test.cpp: what the modification and deletion of records do on purpose and
// keep doing, oddities included.

#include <filesystem>

#include "people_scene.h"
#include "support/file_calls.h"

namespace {

class ModificationQuirk : public testing::Test {
  protected:
    void* people() { return scene_.table_; }
    // A person whose record is 10 bytes longer for each step in `size`.
    static Person Sized(uint32_t n, uint32_t id, size_t size)
    {
        Person person = MakePerson(n);
        person.id = id;
        person.photo = std::string(10 * size, 'p');
        return person;
    }
    // Adds persons 1 to n, of size 5.
    void AddSized(uint32_t n)
    {
        for (uint32_t i = 1; i <= n; ++i) {
            Person person = Sized(i, 0, 5);
            ASSERT_EQ(scene_.Add(people(), &person), 1u);
        }
    }
    NimBool Modify(uint32_t offset, const Person& person)
    {
        return IndxModifyRecordInTable(people(), offset, scene_.BlobOf(person).get());
    }
    uint32_t OffsetOf(uint32_t id) { return static_cast<uint32_t>(scene_.OffsetOf(people(), id)); }
    std::string Records() { return ReadFileBytes(scene_.RecordsPath()); }
    std::string RecordOf(const Person& person)
    {
        std::string bytes = RecordBytes(scene_.BlobOf(person).get());
        PutU32At(bytes, 0, static_cast<uint32_t>(bytes.size()));
        return bytes;
    }
    NimBool Delete(uint32_t id)
    {
        const PeopleScene::Cursor cursor(people(), "Id");
        EXPECT_EQ(IndxFindKey(cursor.get(), id, nullptr), 6);
        return IndxDeleteRecord(cursor.get());
    }
    size_t KeysIn(const char* field)
    {
        const PeopleScene::Cursor cursor(people(), field);
        size_t n = 0;
        for (int32_t code = IndxFirstKey(cursor.get()); code == 6; code = IndxNextKey(cursor.get()))
            ++n;
        return n;
    }
    // The write of the new record fails in this way.
    static void FailWrite(uint32_t mode, uint32_t count)
    {
        const FaultRule rule = {FAULT_WRITE, "Records", 1, 1, mode, count};
        FaultArm(&rule);
    }
    void TearDown() override { PeopleScene::ExpectSound(people()); }

    LogRecorder log_;
    TraceRecorder trace_;
    PeopleScene scene_;
};

// ---- where the record goes
// -----------------------------------------------------------------------

TEST_F(ModificationQuirk, AFormThatIsNotLongerStaysInPlace)
{
    AddSized(2);
    EXPECT_EQ(Modify(0, Sized(7, 1, 5)), 1u);
    EXPECT_EQ(OffsetOf(1), 0u);
    EXPECT_EQ(Modify(0, Sized(8, 1, 4)), 1u);
    EXPECT_EQ(OffsetOf(1), 0u);
}

TEST_F(ModificationQuirk, TheTailOfALongerOldFormStays)
{
    AddSized(2);
    const std::string before = Records();
    const Person person = Sized(1, 1, 4);
    EXPECT_EQ(Modify(0, person), 1u);
    const std::string bytes = RecordOf(person);
    EXPECT_EQ(Records(), bytes + before.substr(bytes.size()));
    EXPECT_EQ(scene_.FindById(people(), 1), person); // its length tells where it ends
}

TEST_F(ModificationQuirk, ALongerFormMovesToTheEndAndTheOldBytesStay)
{
    AddSized(2);
    const std::string before = Records();
    const Person person = Sized(1, 1, 6);
    EXPECT_EQ(Modify(0, person), 1u);
    EXPECT_EQ(OffsetOf(1), before.size());
    EXPECT_EQ(Records(), before + RecordOf(person));
}

TEST_F(ModificationQuirk, InATableWhoseHighestIdIsOneALongerFormStaysInPlace)
{
    AddSized(1);
    const Person person = Sized(1, 1, 50);
    EXPECT_EQ(Modify(0, person), 1u);
    EXPECT_EQ(OffsetOf(1), 0u);
    EXPECT_EQ(Records(), RecordOf(person));
}

TEST_F(ModificationQuirk, ThereItRunsOverTheRecordsOfIdsThatTheCallerChose)
{
    AddSized(1);
    const Person other = Sized(2, 0x90000000, 5); // which never raises the highest id
    ASSERT_EQ(IndxSetRecordInTable(other.id, people(), scene_.BlobOf(other).get()), 1u);
    ASSERT_EQ(scene_.FindById(people(), other.id), other);
    EXPECT_EQ(Modify(0, Sized(1, 1, 50)), 1u);
    EXPECT_EQ(OffsetOf(1), 0u);
    const std::string bytes = Records();
    EXPECT_EQ(bytes.find("Name 00000002"), std::string::npos);
}

TEST_F(ModificationQuirk, TheWholeOldLengthCountsThoughOnlyTheFixedPartIsRead)
{
    void* oTable = scene_.OpenTable("T", 0xca333333, "i;s;", "Id,S");
    const auto text = [&](const std::string& value, uint32_t id) {
        Instance object(0xca333333, "i;s;");
        object.at<int32_t>(0) = static_cast<int32_t>(id);
        object.setText(1, value);
        return Encoded(object.get());
    };
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(IndxAddRecordToTable(nullptr, oTable, text(std::string(100, 'a'), 0).get()), 1u);
    }
    ASSERT_EQ(static_cast<IndxTable*>(oTable)->bTextIndex, 0u);
    trace_.clear();
    EXPECT_EQ(IndxModifyRecordInTable(oTable, 0, text(std::string(100, 'b'), 1).get()), 1u);
    EXPECT_TRUE(trace_.has("There are 0 bytes of variable data"));
    EXPECT_EQ(scene_.OffsetOf(oTable, 1), 0);
    EXPECT_EQ(IndxModifyRecordInTable(oTable, 0, text(std::string(101, 'c'), 1).get()), 1u);
    EXPECT_EQ(scene_.OffsetOf(oTable, 1), 2 * 116 + 2); // 16, 100 and a NUL each
}

TEST_F(ModificationQuirk, TheLengthsAreComparedWithTheirSigns)
{
    void* oTable = scene_.OpenTable("T", 0xca333333, "i;i;", "Id,A");
    const auto record = [&](uint32_t id) {
        Instance object(0xca333333, "i;i;");
        object.at<int32_t>(0) = static_cast<int32_t>(id);
        return Encoded(object.get());
    };
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(IndxAddRecordToTable(nullptr, oTable, record(0).get()), 1u);
    scene_.Close();
    std::string bytes = ReadFileBytes(scene_.PathOf("Records", "T"));
    ASSERT_EQ(bytes.size(), 32u);
    PutU32At(bytes, 0, 0x80000010); // a negative number: whatever comes is longer
    WriteFileBytes(scene_.PathOf("Records", "T"), bytes);
    scene_.Reload();
    oTable = scene_.OpenTable("T", 0xca333333, "i;i;", "Id,A");
    EXPECT_EQ(IndxModifyRecordInTable(oTable, 0, record(1).get()), 1u);
    EXPECT_EQ(scene_.OffsetOf(oTable, 1), 32);
}

TEST_F(ModificationQuirk, InATableThatHasIssuedNoIdALongerFormMoves)
{
    const uint32_t id = 0x90000000; // raises no highest id
    const Person person = Sized(1, id, 5);
    ASSERT_EQ(IndxSetRecordInTable(id, people(), scene_.BlobOf(person).get()), 1u);
    ASSERT_EQ(scene_.table()->highestId, 0u);
    const uint64_t size = Records().size();
    EXPECT_EQ(Modify(0, Sized(1, id, 6)), 1u);
    EXPECT_EQ(OffsetOf(id), size);
}

TEST_F(ModificationQuirk, WithATextIndexTheOldVariableDataIsReadByTheVectorOfIndexedFlags)
{
    AddSized(2);
    trace_.clear();
    EXPECT_EQ(Modify(0, Sized(7, 1, 5)), 1u);
    EXPECT_TRUE(
        trace_.hasPart(Hex(people()) + ", 0, " + Hex(scene_.table()->indexedFlags.data) + ")"));
}

TEST_F(ModificationQuirk, NeitherModificationNorDeletionStoresTheDescriptionWhenNoRootChanges)
{
    AddSized(3);
    const FileCalls calls;
    Person person = Sized(1, 1, 5);
    person.town = "Elsewhere";
    EXPECT_EQ(Modify(0, person), 1u);
    EXPECT_EQ(Delete(2), 1u);
    size_t blocks = 0;
    for (const FileCalls::Call& call : calls.calls()) {
        if (call.op == FILE_OP_WRITE && call.path == scene_.BlocksPath()) {
            EXPECT_GT(call.offset, 0); // no control block
            ++blocks;
        }
    }
    EXPECT_GT(blocks, 0u);
}

// ---- ids
// -----------------------------------------------------------------------------------------

TEST_F(ModificationQuirk, ANewFormWithoutAnIdTakesTheOldOne)
{
    AddSized(2);
    EXPECT_EQ(Modify(0, Sized(7, 0, 5)), 1u);
    EXPECT_EQ(scene_.FindById(people(), 1)->name, MakePerson(7).name);
}

TEST_F(ModificationQuirk, IdAndLengthAreStampedIntoTheCallersBytes)
{
    AddSized(2);
    const Held record = scene_.BlobOf(Sized(7, 0, 5));
    EXPECT_EQ(IndxModifyRecordInTable(people(), 0, record.get()), 1u);
    const std::string bytes = RecordBytes(record.get());
    EXPECT_EQ(U32At(bytes, 0), bytes.size());
    EXPECT_EQ(U32At(bytes, 4), 1u);
    // The id comes before the keys, the length behind them.
    const Held refused = scene_.BlobOf(Sized(2, 0, 5));
    EXPECT_EQ(IndxModifyRecordInTable(people(), 0, refused.get()), 0u);
    EXPECT_EQ(U32At(RecordBytes(refused.get()), 0), 0u);
    EXPECT_EQ(U32At(RecordBytes(refused.get()), 4), 1u);
}

TEST_F(ModificationQuirk, AnotherIdIsRefusedAndNothingIsBackedOut)
{
    AddSized(2);
    const Held unsaved = scene_.BlobOf(MakePerson(9));
    EXPECT_EQ(IndxAddRecordOnly(9, people(), &static_cast<DbBlob*>(unsaved.get())->data), 1u);
    const std::string before = Records();
    EXPECT_EQ(Modify(0, Sized(7, 2, 5)), 0u);
    EXPECT_EQ(IndxError(), 33u);
    EXPECT_EQ(Records(), before);
    EXPECT_EQ(KeysIn("Id"), 3u); // what was not saved is still there
    EXPECT_EQ(IndxUpdateTable(people()), 1u);
}

// ---- keys
// ----------------------------------------------------------------------------------------

TEST_F(ModificationQuirk, AFlagOtherThanOneGetsKeysByAddAndModifyAndKeepsThemAtADelete)
{
    PeopleScene::Field(people(), 2)->bIndexed = 2;
    AddSized(2);
    EXPECT_EQ(KeysIn("Town"), 2u);
    Person person = Sized(1, 1, 5);
    person.town = "Elsewhere";
    EXPECT_EQ(Modify(0, person), 1u);
    EXPECT_EQ(KeysIn("Town"), 2u);
    EXPECT_EQ(Delete(1), 1u);
    EXPECT_EQ(KeysIn("Town"), 2u);
    EXPECT_EQ(KeysIn("Id"), 1u);
    PeopleScene::Field(people(), 2)->bIndexed = 1;
}

TEST_F(ModificationQuirk, AKeyThatWasKeptIsInTheWayOfTheSameRecord)
{
    PeopleScene::Field(people(), 1)->bIndexed = 2; // the unique name
    AddSized(1);
    EXPECT_EQ(Delete(1), 1u);
    Person person = Sized(1, 0, 5);
    EXPECT_EQ(scene_.Add(people(), &person), 0u);
    PeopleScene::Field(people(), 1)->bIndexed = 1;
}

TEST_F(ModificationQuirk, AKeyThatWasNotDeletedIsNotInsertedEither)
{
    AddSized(2);
    EXPECT_EQ(Modify(0, Sized(1, 1, 6)), 1u);           // moves away
    EXPECT_EQ(Modify(OffsetOf(1), Sized(7, 1, 6)), 1u); // under another name
    trace_.clear();
    EXPECT_EQ(Modify(0, Sized(8, 1, 6)), 0u); // what lies here is no longer indexed
    EXPECT_TRUE(trace_.has("Error failed to delete old key"));
    EXPECT_FALSE(trace_.has("Error failed to insert new key"));
    EXPECT_EQ(scene_.FindById(people(), 1)->name, MakePerson(7).name);
}

TEST_F(ModificationQuirk, ACursorKeepsTheOldOffsetOfARecordThatMoved)
{
    AddSized(2);
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 1, nullptr), 6);
    const Held longer = scene_.ObjectOf(Sized(1, 1, 6));
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), longer.get()), 1u);
    EXPECT_NE(OffsetOf(1), 0u);
    // With unchanged keys the record goes back to where the cursor saw it.
    const Held shorter = scene_.ObjectOf(Sized(1, 1, 5));
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), shorter.get()), 1u);
    EXPECT_EQ(OffsetOf(1), 0u);
}

TEST_F(ModificationQuirk, ASecondModificationThroughThatCursorFailsWhenTheKeysChanged)
{
    AddSized(2);
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 1, nullptr), 6);
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), scene_.ObjectOf(Sized(7, 1, 6)).get()), 1u);
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), scene_.ObjectOf(Sized(8, 1, 6)).get()), 0u);
    EXPECT_EQ(scene_.FindById(people(), 1)->name, MakePerson(7).name);
}

TEST_F(ModificationQuirk, SeekAndKeyFailuresHaveNoCodeOfTheirOwn)
{
    AddSized(2);
    IndxSetError(77);
    scene_.Fail(FAULT_SEEKEND, 1, 1, "Records");
    EXPECT_EQ(Modify(0, Sized(1, 1, 6)), 0u);
    FaultDisarmAll();
    EXPECT_EQ(Modify(0, Sized(2, 1, 5)), 0u); // the name is taken
    EXPECT_EQ(IndxError(), 77u);
}

// ---- the write
// -----------------------------------------------------------------------------------

TEST_F(ModificationQuirk, AWriteThatMovedLessThanTheRecordIsNotNoticed)
{
    AddSized(2);
    for (uint32_t moved : {0u, 10u}) {
        FailWrite(moved ? FAULT_FAIL_AFTER : FAULT_FAIL, moved);
        IndxSetError(77);
        EXPECT_EQ(Modify(0, Sized(1, 1, 5)), 1u) << moved;
        EXPECT_EQ(IndxError(), 77u);
        FaultDisarmAll();
    }
    EXPECT_TRUE(log_.empty());
}

TEST_F(ModificationQuirk, AWriteCountsAsFailedOnlyWhenItSaysThatItMovedEverything)
{
    AddSized(2);
    FailWrite(FAULT_FAIL_FULL, 0);
    EXPECT_EQ(Modify(0, Sized(7, 1, 5)), 0u);
    EXPECT_EQ(IndxError(), 14u);
    EXPECT_TRUE(log_.has(1308, 96, "Failed to write modified record in table 'People'"));
}

TEST_F(ModificationQuirk, BytesThatWereWrittenAreNotTakenBack)
{
    AddSized(2);
    FailWrite(FAULT_FAIL_FULL, 0);
    const Person person = Sized(7, 1, 5);
    EXPECT_EQ(Modify(0, person), 0u);
    EXPECT_EQ(Records().substr(0, RecordOf(person).size()), RecordOf(person));
    EXPECT_TRUE(scene_.FindByName(people(), *MakePerson(1).name)); // the keys are
    EXPECT_FALSE(scene_.FindByName(people(), *person.name));
}

// ---- modifying at a cursor
// -----------------------------------------------------------------------

TEST_F(ModificationQuirk, ABadCursorOrObjectIsRefusedWithoutAMessage)
{
    AddSized(1);
    const PeopleScene::Cursor nowhere(people(), "Id");
    const PeopleScene::Cursor onKey(people(), "Id");
    ASSERT_EQ(IndxFirstKey(onKey.get()), 6);
    const Held object = scene_.ObjectOf(MakePerson(1));
    const TraceRecorder failures(0);
    IndxSetError(77);
    EXPECT_EQ(IndxModifyObjectAtCursor(nullptr, object.get()), 0u);
    EXPECT_EQ(IndxModifyObjectAtCursor(people(), object.get()), 0u);
    EXPECT_EQ(IndxModifyObjectAtCursor(nowhere.get(), object.get()), 0u);
    EXPECT_EQ(IndxModifyObjectAtCursor(onKey.get(), nullptr), 0u); // cannot be encoded
    EXPECT_TRUE(failures.lines().empty()) << failures.dump();
    EXPECT_EQ(IndxError(), 77u);
}

TEST_F(ModificationQuirk, TheEncodedRecordIsReleasedWhateverBecomesOfTheModification)
{
    AddSized(2);
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 1, nullptr), 6);
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), scene_.ObjectOf(Sized(1, 2, 5)).get()), 0u);
    EXPECT_EQ(IndxModifyObjectAtCursor(cursor.get(), scene_.ObjectOf(Sized(7, 0, 5)).get()), 1u);
    EXPECT_EQ(ObjLiveCount(DB_BLOB_MAGIC), 0u);
}

// ---- deleting
// ------------------------------------------------------------------------------------

TEST_F(ModificationQuirk, ADeletionWritesNothingToTheRecordsFile)
{
    AddSized(2);
    const std::string before = Records();
    const FileCalls calls;
    EXPECT_EQ(Delete(1), 1u);
    for (const FileCalls::Call& call : calls.calls()) {
        if (call.op == FILE_OP_WRITE) {
            EXPECT_EQ(call.path, scene_.BlocksPath());
        }
    }
    EXPECT_EQ(Records(), before);
}

TEST_F(ModificationQuirk, ADeletionKeepsTheHighestId)
{
    AddSized(2);
    EXPECT_EQ(Delete(2), 1u);
    EXPECT_EQ(IndxNextId(people()), 3u);
    scene_.Reload();
    EXPECT_EQ(IndxNextId(people()), 3u);
}

TEST_F(ModificationQuirk, ADeletionKeepsTheCompanionFile)
{
    void* oTable = scene_.OpenPeople(1, "Docs");
    Person person = MakePerson(1);
    ASSERT_EQ(scene_.Add(oTable, &person), 1u);
    const PeopleScene::Cursor cursor(oTable, "Id");
    ASSERT_EQ(IndxFirstKey(cursor.get()), 6);
    EXPECT_EQ(IndxDeleteRecord(cursor.get()), 1u);
    EXPECT_TRUE(std::filesystem::exists(scene_.PathOf("Files", "Docs/0000/00/01")));
}

TEST_F(ModificationQuirk, DeadBytesAreNeverUsedAgain)
{
    AddSized(2);
    const uint64_t size = Records().size();
    EXPECT_EQ(Delete(1), 1u);
    Person person = Sized(3, 0, 1);
    ASSERT_EQ(scene_.Add(people(), &person), 1u);
    EXPECT_EQ(OffsetOf(3), size);
}

TEST_F(ModificationQuirk, ARecordIsDeletedFromAnUntrustedCursorToo)
{
    AddSized(2);
    const PeopleScene::Cursor cursor(people(), "Id");
    ASSERT_EQ(IndxFindKey(cursor.get(), 1, nullptr), 6);
    scene_.MustAdd(3);
    ASSERT_EQ(IndxAsCursor(cursor.get())->status, INDX_UNTRUSTED);
    EXPECT_EQ(IndxDeleteRecord(cursor.get()), 1u);
    EXPECT_EQ(scene_.FindById(people(), 1), std::nullopt);
}

} // namespace
