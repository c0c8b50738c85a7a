// key_test.cpp: keys taken from records and from nodes, and values compared.

#include "support/tree_test.h"

#include <cstring>

#include "database/block.h"
#include "support/armed_fault.h"
#include "support/file_bytes.h"

namespace {

class KeyFromRecord : public TreeTest {
  protected:
    struct Taken {
        bool taken;
        int32_t result; // the cursor's code, 0 when none was set
        uint32_t id;
        int32_t keyType;
        std::string bytes;
        int64_t number;
    };

    Taken Take(const IndexSpec& spec, const TestRecord& record)
    {
        IndexFixture index(directory_.path("k"), {spec});
        index.cursor()->result = 0;
        IndxKeyInfo key;
        const bool taken = IndxGetKeyInfoFromRecord(&key, index.cursor(), record.data());
        Taken result{taken, index.cursor()->result, 0, 0, "", 0};
        if (!taken)
            return result;
        result.id = key.recordId;
        result.keyType = key.keyType;
        EXPECT_EQ(key.fileOffset, 0u);
        EXPECT_EQ(key.oValue, nullptr); // borrowed from the record, if there is one
        if (spec.keyType & INDX_KEY_HEAP_BIT)
            result.bytes.assign(KeyBytes(&key), KeySize(&key));
        else if (spec.keyType == INDX_KEY_INT64)
            result.number = KeyInt64(&key);
        else if (spec.keyType == INDX_KEY_INTEGER)
            result.number = KeyInteger(&key);
        else
            EXPECT_EQ(key.pBorrowed, nullptr);
        return result;
    }
    Taken Take(int32_t keyType, const Key& key, uint32_t id = 7)
    {
        return Take({keyType}, TestRecord({{keyType}}, id, {key}));
    }
};

TEST_F(KeyFromRecord, EveryKeyTypeTakesItsValueFromTheSlot)
{
    std::string id32;
    for (int i = 0; i < 32; ++i)
        id32 += static_cast<char>(i * 9);
    EXPECT_EQ(Take(INDX_KEY_RECORD_ID, {}, 0xFFFFFFFE).id, 0xFFFFFFFE);
    EXPECT_EQ(Take(INDX_KEY_INTEGER, NumberKey(INT32_MIN)).number, INT32_MIN);
    EXPECT_EQ(Take(INDX_KEY_INT64, NumberKey(INT64_MIN)).number, INT64_MIN);
    EXPECT_EQ(Take(INDX_KEY_TEXT, TextKey("Abc")).bytes, std::string("Abc\0", 4));
    EXPECT_EQ(Take(INDX_KEY_TEXT_NO_CASE, TextKey("Abc")).bytes, std::string("Abc\0", 4));
    EXPECT_EQ(Take(INDX_KEY_UNIQUE_ID, BytesKey(id32)).bytes, id32);
    for (const int32_t keyType : {0, 3, 4, 4097, 4098, 4101}) {
        const Taken taken = Take(keyType, {1, id32});
        EXPECT_TRUE(taken.taken);
        EXPECT_EQ(taken.keyType, keyType);
        EXPECT_EQ(taken.id, 7u);
        EXPECT_EQ(taken.result, 0);
    }
}

TEST_F(KeyFromRecord, ATextOfTheMaximumLengthIsTakenAndOneByteMoreGivesCode2)
{
    EXPECT_TRUE(Take(INDX_KEY_TEXT, SizedKey("a", 8168)).taken);
    const Taken longer = Take(INDX_KEY_TEXT, SizedKey("a", 8169));
    EXPECT_FALSE(longer.taken);
    EXPECT_EQ(longer.result, INDX_RESULT_LONG_KEY);
    const IndexSpec spec{INDX_KEY_TEXT, false, 10};
    EXPECT_TRUE(Take(spec, TestRecord({spec}, 1, {SizedKey("a", 10)})).taken);
    EXPECT_EQ(Take(spec, TestRecord({spec}, 1, {SizedKey("a", 11)})).result, 2);
}

TEST_F(KeyFromRecord, AnAbsentTextGivesCode1AndANegativeLengthCode3)
{
    for (const int32_t keyType : {INDX_KEY_TEXT, INDX_KEY_TEXT_NO_CASE}) {
        const Taken absent = Take(keyType, BytesKey(""));
        EXPECT_FALSE(absent.taken);
        EXPECT_EQ(absent.result, INDX_RESULT_EMPTY_KEY);
        TestRecord record({{keyType}}, 1, {TextKey("abc")});
        PutU32At(record.bytes, IndexFixture::FIRST_SLOT, 0xFFFFFFFF);
        const Taken negative = Take({keyType}, record);
        EXPECT_FALSE(negative.taken);
        EXPECT_EQ(negative.result, INDX_RESULT_BAD_LENGTH);
    }
}

TEST_F(KeyFromRecord, AnEmptyTextIsAKeyOfOneByte)
{
    const Taken empty = Take(INDX_KEY_TEXT, TextKey(""));
    EXPECT_TRUE(empty.taken);
    EXPECT_EQ(empty.bytes, std::string(1, '\0'));
}

TEST_F(KeyFromRecord, ATextThatPassesTheEndOfTheRecordIsRefused)
{
    for (const uint32_t offset : {44u - 3, 44u, 0x7FFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFCu}) {
        TestRecord record({{INDX_KEY_TEXT}}, 1, {TextKey("abc")});
        ASSERT_EQ(record.bytes.size(), 44u);
        PutU32At(record.bytes, IndexFixture::FIRST_SLOT + 4, offset);
        TraceRecorder trace;
        const Taken taken = Take({INDX_KEY_TEXT}, record);
        EXPECT_FALSE(taken.taken);
        EXPECT_EQ(taken.result, INDX_RESULT_BAD_LENGTH);
        EXPECT_EQ(trace.countLevel(-1), 1u) << trace.dump();
    }
}

TEST_F(KeyFromRecord, ARecordTooShortForItsSlotsIsRefused)
{
    for (const int32_t keyType : {0, 3, 4, 4097, 4098, 4101}) {
        const TestRecord whole({{keyType}}, 1, {{1, std::string(32, 'u')}});
        for (uint32_t size = 0; size < 40; ++size) {
            ObjData data = *whole.data();
            data.size = size;
            IndexFixture index(directory_.path("short"), {{keyType}});
            IndxKeyInfo key;
            const uint32_t width = keyType == 3 ? 4 : keyType == 4101 ? 32 : keyType == 0 ? 0 : 8;
            const bool fits = size >= 8 + width && keyType != 4097 && keyType != 4098;
            EXPECT_EQ(IndxGetKeyInfoFromRecord(&key, index.cursor(), &data), fits)
                << keyType << " " << size;
        }
    }
}

TEST_F(KeyFromRecord, AForbiddenKeyTypeSetsCode5AndEndsTheProcess)
{
    CrashRecorder crash;
    const Taken taken = Take(4095, {});
    EXPECT_FALSE(taken.taken);
    EXPECT_EQ(taken.result, INDX_RESULT_KEY_TYPE);
    EXPECT_EQ(crash.codes(), std::vector<uint32_t>{0});
}

TEST_F(KeyFromRecord, AnUnknownKeyTypeFailsWithoutACode)
{
    CrashRecorder crash;
    for (const int32_t keyType : {1, 2, 5, 99, 4096, 4100}) {
        const Taken taken = Take(keyType, {});
        EXPECT_FALSE(taken.taken);
        EXPECT_EQ(taken.result, 0);
    }
    EXPECT_EQ(crash.count(), 0u);
}

TEST_F(KeyFromRecord, AKeyTakesNoMemory)
{
    for (const int32_t keyType : {0, 3, 4, 4097, 4101}) {
        IndexFixture index(directory_.path("m" + std::to_string(keyType)), {{keyType}});
        const TestRecord record({{keyType}}, 1, {{1, std::string(32, 'u')}});
        const ArmedFault fault(FAULT_ALLOC, 1, 0);
        IndxKeyInfo key;
        EXPECT_TRUE(IndxGetKeyInfoFromRecord(&key, index.cursor(), record.data()));
        EXPECT_EQ(fault.hits(), 0u);
    }
}

// ---- keys from nodes ---------------------------------------------------------------------------

class KeyFromNode : public TreeTest {};

TEST_F(KeyFromNode, TheLowestKeyOfANodeCarriesTheNodeAsItsChild)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Insert(3, TextKey("bb"), 300);
    index.Insert(4, TextKey("aa"), 400);
    index.Update();
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    IndxKeyInfo* pKey = nullptr;
    ASSERT_EQ(IndxGetKeyInfoFromNode(&pKey, index.cursor(), pNode), 1u);
    EXPECT_EQ(pKey->keyType, INDX_KEY_TEXT);
    EXPECT_EQ(pKey->recordId, 4u);
    EXPECT_EQ(pKey->tChild, 0u);
    EXPECT_EQ(IndxKeyLength(pKey), 3u);
    EXPECT_STREQ(static_cast<const char*>(ObjGetDataFieldData(pKey->oValue)), "aa");
    ObjRelease(pKey);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(KeyFromNode, AnEmptyNodeAndAValueOutsideTheHeapGiveNoKey)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Add(1, TextKey("one"));
    index.Add(2, TextKey("two"));
    uint8_t* pNode = nullptr;
    IndxGetNode(&pNode, index.cursor(), 0);
    const struct {
        uint32_t offset;
        uint32_t value;
    } cases[] = {{20, 0}, {40, 5}, {40, 0xFFFFFFFF}, {44, 9}, {44, 3}, {44, 0xFFFFFFFF}};
    for (const auto& c : cases) {
        uint32_t kept = 0;
        memcpy(&kept, pNode + c.offset, 4);
        memcpy(pNode + c.offset, &c.value, 4);
        IndxSetError(0);
        TraceRecorder trace;
        auto* pKey = reinterpret_cast<IndxKeyInfo*>(&index);
        EXPECT_EQ(IndxGetKeyInfoFromNode(&pKey, index.cursor(), pNode), 0u) << c.offset;
        EXPECT_EQ(pKey, nullptr);
        EXPECT_EQ(IndxError(), 13u);
        EXPECT_TRUE(trace.has(TAG, 1, -1, "Cannot use node 0 of field 'F0' of table 'Fixture'"))
            << trace.dump();
        memcpy(pNode + c.offset, &kept, 4);
    }
    index.Backout();
    EXPECT_TRUE(SoundTable(index.table()));
}

// ---- comparing ---------------------------------------------------------------------------------

bool Same(int32_t keyType, const std::string& left, const std::string& right)
{
    void* oLeft = nullptr;
    void* oRight = nullptr;
    ObjDataFieldCreate(&oLeft, left.data(), static_cast<uint32_t>(left.size()));
    ObjDataFieldCreate(&oRight, right.data(), static_cast<uint32_t>(right.size()));
    const bool same = IndxSameValue(keyType, oLeft, oRight);
    ObjReleaseInternal(&oLeft);
    ObjReleaseInternal(&oRight);
    return same;
}

TEST(KeyCompare, TextsAreEqualUpToTheirNulOrTheirLength)
{
    const std::string padded("abc\0\0\0zz", 8);
    EXPECT_TRUE(Same(INDX_KEY_TEXT, padded, "abc"));
    EXPECT_TRUE(Same(INDX_KEY_TEXT, std::string("abc\0", 4), "abc"));
    EXPECT_FALSE(Same(INDX_KEY_TEXT, "abcd", "abc"));
    EXPECT_FALSE(Same(INDX_KEY_TEXT, "abc", "Abc"));
    EXPECT_TRUE(Same(INDX_KEY_TEXT_NO_CASE, "abC", std::string("ABc\0", 4)));
    EXPECT_FALSE(Same(INDX_KEY_TEXT_NO_CASE, "\xC4", "\xE4")); // A to Z only
    EXPECT_TRUE(Same(INDX_KEY_TEXT, "", std::string(1, '\0')));
}

TEST(KeyCompare, BinaryValuesAreEqualIn32BytesOnly)
{
    const std::string value("\0\1\2\0", 4);
    const std::string id = value + std::string(28, 'x');
    EXPECT_TRUE(Same(INDX_KEY_UNIQUE_ID, id, id));
    EXPECT_FALSE(Same(INDX_KEY_UNIQUE_ID, id, value + std::string(28, 'y')));
    EXPECT_FALSE(Same(INDX_KEY_UNIQUE_ID, value, value));
}

TEST(KeyCompare, IdsAndForbiddenTypesAreNeverTheSameValue)
{
    EXPECT_FALSE(IndxSameValue(INDX_KEY_RECORD_ID, nullptr, nullptr));
    EXPECT_FALSE(IndxSameValue(INDX_KEY_FORBIDDEN, nullptr, nullptr));
}

TEST_F(KeyFromNode, OnlyTheKnownTypesCarryAValue)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Add(1, NumberKey(7)));
    for (const int32_t keyType :
         std::initializer_list<int32_t>{INDX_KEY_INTEGER, INDX_KEY_RECORD_ID, 99}) {
        index.field()->keyType = keyType;
        uint8_t* pNode = nullptr;
        IndxGetNode(&pNode, index.cursor(), 0);
        IndxKeyInfo* pKey = nullptr;
        ASSERT_EQ(IndxGetKeyInfoFromNode(&pKey, index.cursor(), pNode), 1u);
        EXPECT_EQ(pKey->keyType, keyType);
        EXPECT_EQ(pKey->recordId, 1u);
        EXPECT_EQ(pKey->tChild, 0u);
        EXPECT_EQ(pKey->oValue != nullptr, keyType == INDX_KEY_INTEGER);
        EXPECT_EQ(ObjGetInteger(pKey->oValue), keyType == INDX_KEY_INTEGER ? 7 : 0);
        ObjRelease(pKey);
    }
    index.field()->keyType = INDX_KEY_INTEGER;
    index.Backout();
}

} // namespace
