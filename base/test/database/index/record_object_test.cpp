// record_object_test.cpp: what the objects of records are made of. A host registers a template for
// the magic and format of its records; with a tail behind the items it lays a struct over the
// object that is longer than the items, and its destructor gives back what hangs on the tail.
// Whatever makes the object of a record has to use that template, or the tail lies behind the
// allocation and the destructor never runs.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "database/dbrecord.h"
#include "database/indexwrappers.h"
#include "nim/bytes.h"
#include "support/database_fixture.h"
#include "support/record_objects.h"

namespace {

constexpr const char* FORMAT = "i;s;i;";
constexpr const char* FIELDS = "Id,Name;Indexed,Size";

// As the host sees a record. The items take 24 bytes.
struct RecordWithTail {
    int32_t id;
    int32_t padding;
    char* name;
    int32_t size;
    int32_t padding2;
    uint64_t tail[20];
};

int gDestroyed = 0;

void Destroy(void* object)
{
    ++gDestroyed;
    EXPECT_EQ(static_cast<RecordWithTail*>(object)->tail[19], 7u); // as the test has left it
}

enum class Registered { BeforeTheTable, AfterTheTable, AfterReopening, AfterARead };

struct Case {
    Registered when;
    bool traced;
    const char* format = FORMAT; // as the host spells it
};

class RecordObjectTest : public DatabaseTest, public testing::WithParamInterface<Case> {
  public:
    // An object of the host's template, its tail zero; the test's mark goes to the tail's end.
    void ExpectHostObject(void* object)
    {
        ASSERT_NE(object, nullptr);
        ASSERT_EQ(OBJ_HEADER(object)->tmpl, pTemplate_);
        auto* pRecord = static_cast<RecordWithTail*>(object);
        EXPECT_EQ(pRecord->id, 1);
        EXPECT_EQ(pRecord->size, 99);
        for (const uint64_t word : pRecord->tail)
            EXPECT_EQ(word, 0u);
        pRecord->tail[19] = 7;
    }

  protected:
    void SetUp() override
    {
        DatabaseTest::SetUp();
        gDestroyed = 0;
        static uint32_t sMagic = 0xca120000; // templates are process-wide and stay
        magic_ = ++sMagic;
        ASSERT_TRUE(Open());
        Arrange(GetParam().when);
        if (GetParam().traced)
            trace_ = std::make_unique<TraceRecorder>();
    }
    void TearDown() override
    {
        trace_.reset();
        DatabaseTest::TearDown();
    }

    void Arrange(Registered when)
    {
        if (when == Registered::BeforeTheTable)
            Register();
        oTable_ = OpenTable("T", magic_, FORMAT, FIELDS);
        ASSERT_NE(oTable_, nullptr);
        AddRecord();
        if (when == Registered::AfterReopening || when == Registered::AfterARead) {
            ASSERT_TRUE(Reopen());
            oTable_ = OpenTable("T", magic_, FORMAT, FIELDS);
            ASSERT_NE(oTable_, nullptr);
        }
        if (when == Registered::AfterARead) {
            Held early;
            ASSERT_EQ(IndxGetObjectFromTable(early.out(), oTable_, "Id", 1, nullptr), 1u);
        }
        if (when != Registered::BeforeTheTable)
            Register();
    }

    // The host's template first, then another one, which is not to be used.
    void Register()
    {
        ASSERT_EQ(
            ObjTemplateCreateInternal(
                &pTemplate_, sizeof(RecordWithTail), magic_, GetParam().format, Destroy),
            1u);
        ObjTemplate* pOther = nullptr;
        ASSERT_EQ(
            ObjTemplateCreateInternal(&pOther, OBJ_SIZE_COMPUTED, magic_, FORMAT, nullptr), 1u);
        ASSERT_NE(pOther, pTemplate_);
    }

    // Encoded from bytes, so that no object is made for it.
    void AddRecord()
    {
        std::string bytes(24, '\0');
        PutU32(bytes.data() + 8, 5);
        PutU32(bytes.data() + 12, 20);
        PutU32(bytes.data() + 16, 99);
        bytes.replace(20, 4, "Anna");
        bytes.push_back('\0');
        const Held blob = MakeBlob(magic_, FORMAT, bytes);
        uint32_t id = 0;
        ASSERT_EQ(IndxAddRecordToTable(&id, oTable_, blob.get()), 1u);
        ASSERT_EQ(id, 1u);
    }

    // The same for what `make` makes, which dies here.
    void ExpectMakesHostObject(const std::function<NimBool(void**)>& make)
    {
        gDestroyed = 0;
        void* object = nullptr;
        ASSERT_EQ(make(&object), 1u);
        ExpectHostObject(object);
        ObjReleaseInternal(&object);
        EXPECT_EQ(gDestroyed, 1);
    }

    void* oTable_ = nullptr;
    uint32_t magic_ = 0;
    ObjTemplate* pTemplate_ = nullptr;
    std::unique_ptr<TraceRecorder> trace_;
};

TEST_P(RecordObjectTest, AtACursorItIsOfTheHostsTemplate)
{
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Name"), 1u);
    ASSERT_EQ(IndxFirstKey(oCursor), INDX_RESULT_FOUND);
    ExpectMakesHostObject([&](void** out) { return IndxGetObjectAtCursor(out, oCursor); });
    const uint32_t selected[3] = {1, 1, 1};
    ExpectMakesHostObject(
        [&](void** out) { return IndxGetPartialObjectAtCursor(out, oCursor, selected); });
    ExpectMakesHostObject(
        [&](void** out) { return IndxGetPartialObjectAtCursor(out, oCursor, nullptr); });
    IndxReleaseCursor(&oCursor);
}

TEST_P(RecordObjectTest, OfABlobItIsOfTheHostsTemplate)
{
    void* oCursor = nullptr;
    ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable_, "Id"), 1u);
    ASSERT_EQ(IndxFirstKey(oCursor), INDX_RESULT_FOUND);
    Held blob;
    ASSERT_EQ(IndxGetRecordAtCursor(blob.out(), oCursor), 1u);
    IndxReleaseCursor(&oCursor);
    ExpectMakesHostObject([&](void** out) { return DbConvertObjectFromDbFormat(out, blob.get()); });
}

TEST_P(RecordObjectTest, OfTheWrappersItIsOfTheHostsTemplate)
{
    ExpectMakesHostObject(
        [&](void** out) { return IndxGetObjectFromTable(out, oTable_, "Id", 1, nullptr); });
    const IndxWalkCallback look = [](void* object, void* context) {
        static_cast<RecordObjectTest*>(context)->ExpectHostObject(object);
        return 1u;
    };
    const IndxWalkIdCallback lookWithId = [](void* object, void* context, uint32_t) {
        static_cast<RecordObjectTest*>(context)->ExpectHostObject(object);
        return 1u;
    };
    gDestroyed = 0;
    EXPECT_EQ(IndxWalkTable(oTable_, "Id", look, this), 1u);
    EXPECT_EQ(IndxWalkTableWithRecordId(oTable_, "Name", lookWithId, this), 1u);
    EXPECT_EQ(IndxWalkTableWithPartialRecords(oTable_, nullptr, "Name", look, this), 1u);
    EXPECT_EQ(gDestroyed, 3);
}

std::vector<Case> AllCases()
{
    std::vector<Case> cases;
    for (const Registered when :
         {Registered::BeforeTheTable, Registered::AfterTheTable, Registered::AfterReopening,
          Registered::AfterARead}) {
        cases.push_back({when, false});
        cases.push_back({when, true});
        cases.push_back({when, false, "i;s;i"}); // the same format to a table
    }
    return cases;
}

std::string NameOf(const testing::TestParamInfo<Case>& info)
{
    const char* const when[] = {"BeforeTheTable", "AfterTheTable", "AfterReopening", "AfterARead"};
    const std::string name = when[static_cast<int>(info.param.when)];
    const bool respelt = std::string(info.param.format) != FORMAT;
    return name + (info.param.traced ? "Traced" : "") + (respelt ? "SpeltOtherwise" : "");
}

INSTANTIATE_TEST_SUITE_P(All, RecordObjectTest, testing::ValuesIn(AllCases()), NameOf);

} // namespace
