// sealed_damage_test.cpp: damage behind good checksums, used afterwards. A serialised form whose
// checksum fits is judged by what it says: a table's description that loads is changed, walked and
// closed; an object nested in a record is decoded, encoded again and let go. Whatever the bytes:
// an answer, nothing outside of a buffer, nothing left behind.

#include <random>

#include <gtest/gtest.h>

#include "crc32.h"
#include "database/indexwrappers.h"
#include "support/person_table.h"
#include "support/quiet_trace.h"
#include "support/seed.h"

namespace {

constexpr size_t ENVELOPE = 16; // of a serialised form
constexpr size_t ENVELOPE_LENGTH = 8;
constexpr size_t ENVELOPE_CRC = 12;

// Makes length and checksum of the form that takes `bytes` from `at` to its end right.
void Seal(std::string* pBytes, size_t at, size_t length)
{
    PutU32At(*pBytes, at + ENVELOPE_LENGTH, static_cast<uint32_t>(length));
    PutU32At(
        *pBytes, at + ENVELOPE_CRC, crc32::Of(pBytes->data() + at + ENVELOPE, length - ENVELOPE));
}

// Takes a graph apart, rings and all: holds every object, empties what refers to others, lets go.
void Dissolve(void** ppRoot)
{
    std::vector<void*> objects;
    std::set<void*> met;
    const auto meet = [&](void* object) {
        if (object && met.insert(object).second)
            objects.push_back(ObjIncRefCount(object));
    };
    meet(*ppRoot);
    ObjReleaseInternal(ppRoot);
    for (size_t i = 0; i < objects.size(); ++i) {
        const ObjDbData* pData = ObjGetDbData(objects[i]);
        for (int32_t f = 0; pData && f < pData->fieldCount; ++f) {
            if (pData->fields[f].kind == OBJ_KIND_OBJECT)
                meet(Item<void*>(objects[i], f));
        }
        void* oItem = nullptr;
        for (uint32_t n = 0; ListGetNthItem(&oItem, objects[i], n); ++n)
            meet(oItem);
    }
    for (void* object : objects) {
        const ObjDbData* pData = ObjGetDbData(object);
        for (int32_t f = 0; pData && f < pData->fieldCount; ++f) {
            if (pData->fields[f].kind == OBJ_KIND_OBJECT)
                ObjReleaseInternal(&Item<void*>(object, f));
        }
        void* oItem = nullptr;
        ListNode* pNode = nullptr;
        while (ListGetNthItem(&oItem, object, 0) && ListFindNode(&pNode, object, oItem))
            ListRemoveItem(pNode);
    }
    for (void* object : objects)
        ObjReleaseInternal(&object);
}

// ---- descriptions ------------------------------------------------------------------------------

class SealedDamageDescription : public PersonTest {
  protected:
    static constexpr size_t USER_DATA = 40;

    void SetUp() override
    {
        PersonTest::SetUp();
        ASSERT_TRUE(Open());
        AddPeople(OpenPeople(), &people_, 1, 6, 4000);
        Close();
        blocks_ = ReadFileBytes(BlocksPath());
        records_ = ReadFileBytes(RecordsPath());
        length_ = U32At(blocks_, USER_DATA + ENVELOPE_LENGTH);
        ASSERT_GT(length_, ENVELOPE);
        std::string again = blocks_;
        Seal(&again, USER_DATA, length_);
        ASSERT_TRUE(again == blocks_);
    }

    // Opens the database with this block file and changes the table in every way there is. Returns
    // whether the table is one of its list.
    bool Use(const std::string& blocks)
    {
        WriteFileBytes(BlocksPath(), blocks);
        WriteFileBytes(RecordsPath(), records_);
        const QuietTrace quiet;
        const LogRecorder log;
        CrashRecorder crashes; // keys and records that contradict each other
        const LiveCounts before;
        EXPECT_TRUE(Open());
        const bool bListed = TableCount() == 1;
        if (bListed)
            Change(OpenPeople());
        Close();
        EXPECT_EQ(LiveCounts(), before);
        return bListed;
    }
    void Change(void* oTable)
    {
        if (!oTable) // of another shape than asked for
            oTable = ObjIncRefCount(ListedTableByPosition());
        else
            oTable = ObjIncRefCount(oTable);
        Person added = MakePerson(50, 4000);
        Add(oTable, &added);
        for (const char* field : {"Id", "Name", "Town", "Age", "Number", "Key"})
            Walk(oTable, field);
        Person changed = MakePerson(60, 100);
        changed.id = 2;
        IndxModifyObject(oTable, ObjectOf(changed).get());
        IndxDeleteObjectFromTable(oTable, "Id", 3, nullptr);
        IndxDeleteObjectFromTable(oTable, "Id", 1, nullptr);
        added = MakePerson(51);
        Add(oTable, &added);
        IndxReleaseTable(&oTable);
    }
    void* ListedTableByPosition()
    {
        void* oTable = nullptr;
        ListGetNthItem(&oTable, IndxAsDatabase(database())->oTables, 0);
        return oTable;
    }
    static void Walk(void* oTable, const char* field)
    {
        void* oCursor = nullptr;
        if (!IndxGetFieldCursor(&oCursor, oTable, field))
            return;
        uint32_t steps = 0;
        for (int32_t code = IndxFirstKey(oCursor); code == INDX_RESULT_FOUND && steps < 50;
             ++steps) {
            Held object;
            IndxGetObjectAtCursor(object.out(), oCursor);
            code = IndxNextKey(oCursor);
        }
        EXPECT_LT(steps, 50u);
        IndxReleaseCursor(&oCursor);
    }

    People people_;
    std::string blocks_;
    std::string records_;
    uint32_t length_ = 0;
};

TEST_F(SealedDamageDescription, WhatLoadsCanBeChanged)
{
    ASSERT_TRUE(Use(blocks_));
    uint32_t loaded = 0;
    for (size_t i = USER_DATA + ENVELOPE; i < USER_DATA + length_; ++i) {
        for (const int flip : {1 << i % 8, 0x80 >> i % 8, 0xFF}) {
            std::string bytes = blocks_;
            bytes[i] = static_cast<char>(bytes[i] ^ flip);
            Seal(&bytes, USER_DATA, length_);
            loaded += Use(bytes);
            if (HasFailure())
                FAIL() << "byte " << i - USER_DATA << " flipped by " << flip;
        }
    }
    EXPECT_GT(loaded, 100u);
}

TEST_F(SealedDamageDescription, WhatLoadsAfterManyChangesCanBeChanged)
{
    std::mt19937 random(static_cast<uint32_t>(TestSeed()));
    uint32_t loaded = 0;
    for (int round = 0; round < 4000; ++round) {
        std::string bytes = blocks_;
        for (uint32_t n = 1 + random() % 3; n > 0; --n) {
            const size_t at = USER_DATA + ENVELOPE + random() % (length_ - ENVELOPE - 4);
            static constexpr uint32_t WORDS[] = {0, 1, 2, 3, 5, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
            if (random() % 2)
                bytes[at] = static_cast<char>(random() % 3 ? random() % 8 : random());
            else
                PutU32At(bytes, at, WORDS[random() % 8]);
        }
        Seal(&bytes, USER_DATA, length_);
        loaded += Use(bytes);
        if (HasFailure())
            FAIL() << "round " << round;
    }
    EXPECT_GT(loaded, 50u);
}

// ---- objects nested in records -----------------------------------------------------------------

// A record with a name, which is indexed, and an object of any kind.
class SealedDamageNested : public DatabaseTest {
  protected:
    static constexpr uint32_t RECORD = 0xca444444;
    static constexpr uint32_t THING = 0xca333333;
    static constexpr const char* FORMAT = "i;s;o;d;";
    static constexpr const char* FIELDS = "Id, Name;Indexed, Thing, Data";
    static constexpr int THING_ITEM = 2;
    static constexpr size_t THING_SLOT = 16; // of the encoded record: length 4, id 4, name 8

    void* OpenThings() { return OpenTable("Things", RECORD, FORMAT, FIELDS); }

    static Instance NewRecord(const std::string& name, void* oThing)
    {
        Instance record(RECORD, FORMAT);
        record.setText(1, name);
        record.at<void*>(THING_ITEM) = ObjIncRefCount(oThing);
        record.setData(3, "data");
        return record;
    }
    // A list with some of everything, one object twice, and a list in an object in a list.
    static Held RichObject()
    {
        Held list(ListNewFromPool(0, MemGetDefaultPoolId()));
        const auto add = [&](void* oList, void* oItem) {
            ASSERT_EQ(ListAddLastItem(oList, oItem), 1u);
        };
        Instance thing(THING, "i;s;o;d;q;o;b;u;n5;");
        thing.at<int32_t>(0) = 77;
        thing.setText(1, "a text in a thing");
        thing.setData(3, std::string("\1\2\3", 3));
        thing.at<int64_t>(4) = -1;
        Held inner(ListNewFromPool(OBJ_MAGIC_STRING, MemGetDefaultPoolId()));
        add(inner.get(), Held(ObjStringNew("inner")).get());
        thing.at<void*>(2) = ObjIncRefCount(inner.get());
        thing.at<void*>(5) = ObjIncRefCount(inner.get());
        add(list.get(), Held(ObjIntegerNew(5)).get());
        add(list.get(), Held(ObjInt64New(int64_t{1} << 40)).get());
        add(list.get(), Held(ObjStringNew("text")).get());
        add(list.get(), thing.get());
        add(list.get(), thing.get());
        return list;
    }
    // Decodes an encoded record; what comes out can be encoded again, and goes without a trace.
    static bool SurvivesDecoding(const std::string& bytes)
    {
        const Held blob = MakeBlob(RECORD, FORMAT, bytes);
        const LiveCounts before;
        void* oRecord = nullptr;
        const bool bDecoded = DbConvertObjectFromDbFormat(&oRecord, blob.get()) != 0;
        bool bThing = false;
        EXPECT_EQ(bDecoded, oRecord != nullptr);
        if (oRecord) {
            bThing = Item<void*>(oRecord, THING_ITEM) != nullptr;
            Held again;
            DbConvertObjectToDbFormat(again.out(), oRecord); // too deep a graph is refused
        }
        Dissolve(&oRecord);
        EXPECT_EQ(ObjLiveCount(0), before.objects);
        return bThing;
    }
};

TEST_F(SealedDamageNested, EveryByteOfANestedObjectInManyValues)
{
    const QuietTrace quiet;
    const std::string sound = RecordBytes(Encoded(NewRecord("n", RichObject().get()).get()).get());
    const uint32_t length = U32At(sound, THING_SLOT);
    const uint32_t at = U32At(sound, THING_SLOT + 4);
    ASSERT_GT(length, 100u);
    ASSERT_TRUE(SurvivesDecoding(sound));
    uint32_t rebuilt = 0;
    for (size_t i = at + ENVELOPE; i < at + length; ++i) {
        for (int value = 0; value < 256; value += value < 20 ? 1 : 7) {
            std::string bytes = sound;
            bytes[i] = static_cast<char>(value);
            Seal(&bytes, at, length);
            rebuilt += SurvivesDecoding(bytes);
            if (HasFailure())
                FAIL() << "byte " << i - at << " value " << value;
        }
    }
    EXPECT_GT(rebuilt, 1000u);
}

TEST_F(SealedDamageNested, RandomDamageOfANestedObject)
{
    const QuietTrace quiet;
    std::mt19937 random(static_cast<uint32_t>(TestSeed()));
    const std::string sound = RecordBytes(Encoded(NewRecord("n", RichObject().get()).get()).get());
    const uint32_t length = U32At(sound, THING_SLOT);
    const uint32_t at = U32At(sound, THING_SLOT + 4);
    uint32_t rebuilt = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string form = sound.substr(at, length);
        for (uint32_t n = 1 + random() % 4; n > 0; --n) {
            const size_t place = ENVELOPE + random() % (form.size() - ENVELOPE);
            if (random() % 3 == 0)
                form.insert(place, form.substr(ENVELOPE + random() % (form.size() - ENVELOPE), 9));
            else if (random() % 3 == 0 && form.size() > 2 * ENVELOPE)
                form.erase(place, 1 + random() % 5);
            else
                form[place] = static_cast<char>(random());
        }
        Seal(&form, 0, form.size());
        // The object stands where it stood, the data behind it.
        std::string bytes = sound.substr(0, at) + form + sound.substr(at + length);
        PutU32At(bytes, 0, static_cast<uint32_t>(bytes.size()));
        PutU32At(bytes, THING_SLOT, static_cast<uint32_t>(form.size()));
        PutU32At(bytes, THING_SLOT + 12, static_cast<uint32_t>(at + form.size()));
        rebuilt += SurvivesDecoding(bytes);
        if (HasFailure())
            FAIL() << "round " << round;
    }
    EXPECT_GT(rebuilt, 200u);
}

// The shapes that the library itself lays structs over, as a record may hold them: each is what it
// is, an object, and ends without touching what its words might mean.
TEST_F(SealedDamageNested, ObjectsOfTheLibrarysOwnShapes)
{
    const struct {
        uint32_t magic;
        const char* format;
    } shapes[] = {
        {INDX_DATABASE_MAGIC, "s;sl;sl;sl;sl;ol;"},
        {INDX_TABLE_MAGIC, "s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;"},
        {INDX_FIELD_MAGIC, "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;"},
        {INDX_CURSOR_MAGIC, "i;i;i;i;o;o;"},
        {INDX_KEY_INFO_MAGIC, "i;i;o;i;i;"},
        {DB_BLOB_MAGIC, DB_BLOB_FORMAT},
    };
    const QuietTrace quiet;
    ASSERT_TRUE(Open());
    void* oTable = OpenThings();
    ASSERT_NE(oTable, nullptr);
    uint32_t count = 0;
    for (const auto& shape : shapes) {
        Instance forged(shape.magic, shape.format);
        const ObjDbData* pData = ObjGetDbData(forged.get());
        for (int i = 0; i < pData->fieldCount; ++i) {
            if (pData->fields[i].kind == OBJ_KIND_INTEGER ||
                pData->fields[i].kind == OBJ_KIND_BOOLEAN)
                forged.at<uint32_t>(i) = 0x41414141;
        }
        const Instance record = NewRecord("shape " + std::to_string(++count), forged.get());
        ASSERT_EQ(IndxAddObjectToTable(nullptr, oTable, record.get()), 1u);
    }
    // A table that refers to itself, as a stored one does.
    Instance ring(INDX_TABLE_MAGIC, "s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;");
    Held fields(ListNewFromPool(0, MemGetDefaultPoolId()));
    ASSERT_EQ(ListAddLastItem(fields.get(), ring.get()), 1u);
    ring.at<void*>(14) = ObjIncRefCount(fields.get());
    {
        const Instance record = NewRecord("ring", ring.get());
        ASSERT_EQ(IndxAddObjectToTable(nullptr, oTable, record.get()), 1u);
    }
    void* oRing = ObjIncRefCount(ring.get());
    Dissolve(&oRing);
    ASSERT_TRUE(Reopen());
    oTable = OpenThings();
    for (uint32_t id = 1; id <= count + 1; ++id) {
        void* oRecord = nullptr;
        ASSERT_EQ(IndxGetObjectFromTable(&oRecord, oTable, "Id", id, nullptr), 1u);
        void* oThing = Item<void*>(oRecord, THING_ITEM);
        ASSERT_NE(oThing, nullptr) << id;
        EXPECT_EQ(ObjGetMagic(oThing), id <= count ? shapes[id - 1].magic : INDX_TABLE_MAGIC);
        Dissolve(&oRecord);
    }
}

// In the file of a table: the damaged record answers or not, the others are as they were, and it
// can be replaced and deleted.
TEST_F(SealedDamageNested, InATableTheOtherRecordsDoNotSuffer)
{
    const QuietTrace quiet;
    std::mt19937 random(static_cast<uint32_t>(TestSeed()));
    ASSERT_TRUE(Open());
    for (uint32_t n = 1; n <= 3; ++n) {
        const Instance record = NewRecord("name " + std::to_string(n), RichObject().get());
        ASSERT_EQ(IndxAddObjectToTable(nullptr, OpenThings(), record.get()), 1u);
    }
    Close();
    const std::string records = ReadFileBytes(PathOf("Records", "Things"));
    const std::string blocks = ReadFileBytes(PathOf("Indexes", "Things"));
    const size_t second = U32At(records, 0); // where the second record begins
    const uint32_t length = U32At(records, second + THING_SLOT);
    const size_t at = second + U32At(records, second + THING_SLOT + 4);
    for (int round = 0; round < 300; ++round) {
        std::string bytes = records;
        for (uint32_t n = 1 + random() % 3; n > 0; --n)
            bytes[at + ENVELOPE + random() % (length - ENVELOPE)] = static_cast<char>(random());
        Seal(&bytes, at, length);
        WriteFileBytes(PathOf("Records", "Things"), bytes);
        WriteFileBytes(PathOf("Indexes", "Things"), blocks);
        const LiveCounts before;
        ASSERT_TRUE(Open());
        void* oTable = OpenThings();
        for (const uint32_t id : {1u, 2u, 3u}) {
            void* oRecord = nullptr;
            const NimBool bRead = IndxGetObjectFromTable(&oRecord, oTable, "Id", id, nullptr);
            ASSERT_TRUE(bRead || id == 2);
            ASSERT_TRUE(id == 2 || ListGetCount(Item<void*>(oRecord, THING_ITEM)) == 5);
            Dissolve(&oRecord);
        }
        if (round % 2) {
            Instance record = NewRecord("other", RichObject().get());
            record.at<int32_t>(0) = 2;
            ASSERT_EQ(IndxModifyObject(oTable, record.get()), 1u);
        } else {
            ASSERT_EQ(IndxDeleteObjectFromTable(oTable, "Id", 2, nullptr), 1u);
        }
        ASSERT_TRUE(SoundTable(oTable));
        Close();
        ASSERT_EQ(ObjLiveCount(0), before.objects);
    }
}

} // namespace
