// quirks_record_encoding_test.cpp: what the record encoding does on purpose and keeps doing,
// oddities included. Records written long ago depend on it.

#include <cstring>

#include "nim/nim.h"
#include "support/file_bytes.h"
#include "support/record_objects.h"
#include "support/trace_recorder.h"
#include "tree_scene.h"

namespace {

constexpr uint32_t MAGIC = 0xcabe0001;

class EncodingQuirk : public testing::Test {
  protected:
    // A record of this format: its fixed part with the words given from offset 4 on, then the rest.
    static Held
    Record(const char* format, const std::vector<uint32_t>& words, const std::string& rest = "")
    {
        std::string bytes(std::max<size_t>(16, 4 + 4 * words.size()), '\0');
        for (size_t i = 0; i < words.size(); ++i)
            PutU32At(bytes, 4 + 4 * i, words[i]);
        return MakeBlob(MAGIC, format, bytes + rest);
    }
    std::string Encode(const Instance& object) { return RecordBytes(Encoded(object.get()).get()); }

    TraceRecorder trace_;
    void* out_ = this; // what a refusal has to clear
};

// ---- what is refused in silence, and what ends the process
// ---------------------------------------

TEST_F(EncodingQuirk, ANullObjectIsRefusedInSilence)
{
    EXPECT_EQ(DbConvertObjectToDbFormat(&out_, nullptr), 0u);
    EXPECT_EQ(out_, nullptr);
    EXPECT_TRUE(trace_.lines().empty());
}

TEST_F(EncodingQuirk, AnObjectThatCannotBeStoredIsRefusedInSilence)
{
    for (const char* format : {"i;p;", "i;ol;", "i;sl;"}) {
        const Instance object(MAGIC, format);
        trace_.clear();
        EXPECT_EQ(DbConvertObjectToDbFormat(&out_, object.get()), 0u) << format;
        EXPECT_TRUE(trace_.lines().empty()) << format;
    }
}

TEST_F(EncodingQuirk, AnObjectOfNoValidMagicIsMemoryCorruptionNotAnError)
{
    const Instance object(MAGIC, "i;");
    const CrashRecorder crash;
    for (uint32_t magic : {0u, 0x4abe0001u, 0xc0000000u, 0xd8000000u, 0xdeadbeefu}) {
        OBJ_HEADER(object.get())->magic = magic;
        EXPECT_EQ(DbConvertObjectToDbFormat(&out_, object.get()), 0u) << magic;
    }
    EXPECT_EQ(crash.count(), 5u);
    OBJ_HEADER(object.get())->magic = MAGIC;
}

TEST_F(EncodingQuirk, AnyMagicUnderTheMaskIsAnObject)
{
    for (uint32_t magic : {0xc8000000u, 0xcfffffffu}) {
        const Instance object(magic, "i;");
        EXPECT_EQ(static_cast<DbBlob*>(Encoded(object.get()).get())->magic, magic);
    }
}

// ---- layout
// --------------------------------------------------------------------------------------

TEST_F(EncodingQuirk, NoSlotLiesInTheFirstFourBytesAndNoFixedPartIsBelowSixteen)
{
    Instance object(MAGIC, "i;");
    object.at<int32_t>(0) = -1;
    EXPECT_EQ(Encode(object), std::string(4, '\0') + "\xff\xff\xff\xff" + std::string(8, '\0'));
}

TEST_F(EncodingQuirk, AnAbsentTextKeepsItsOffsetAndComesBackAbsent)
{
    Instance object(MAGIC, "s;s;");
    object.setText(1, "a");
    const std::string bytes = Encode(object);
    EXPECT_EQ(U32At(bytes, 4), 0u);
    EXPECT_EQ(U32At(bytes, 8), 20u); // where it would lie
    EXPECT_EQ(U32At(bytes, 16), 20u);
    Held decoded = Decoded(Encoded(object.get()).get());
    EXPECT_EQ(Item<char*>(decoded.get(), 0), nullptr);
}

TEST_F(EncodingQuirk, AnEmptyTextIsItsNulAlone)
{
    Instance object(MAGIC, "s;i;i;");
    object.setText(0, "");
    EXPECT_EQ(U32At(Encode(object), 4), 1u);
    Held decoded = Decoded(Encoded(object.get()).get());
    EXPECT_STREQ(Item<char*>(decoded.get(), 0), "");
}

TEST_F(EncodingQuirk, VariableBytesFollowTemplateOrderWithoutPaddingOrTerminator)
{
    Instance object(MAGIC, "d;s;n3;s;");
    object.setData(0, "ddddd");
    object.setText(1, "ab");
    std::memcpy(&object.at<char>(2), "xyz", 3);
    object.setText(3, "c");
    const std::string bytes = Encode(object);
    EXPECT_EQ(
        bytes.substr(36), std::string(
                              "ddddd"
                              "ab\0"
                              "xyz"
                              "c\0",
                              13));
}

TEST_F(EncodingQuirk, ABooleanIsWhateverWordItIs)
{
    Instance object(MAGIC, "b;");
    object.at<uint32_t>(0) = 0xfedcba98;
    EXPECT_EQ(U32At(Encode(object), 4), 0xfedcba98u);
    Held decoded = Decoded(Encoded(object.get()).get());
    EXPECT_EQ(Item<uint32_t>(decoded.get(), 0), 0xfedcba98u);
}

TEST_F(EncodingQuirk, AUniqueIdLiesInItsSlotAsItStands)
{
    Instance object(MAGIC, "u;");
    std::string id;
    for (int i = 0; i < 32; ++i)
        id += static_cast<char>(i * 7);
    std::memcpy(&object.at<UniqueId>(0), id.data(), 32);
    EXPECT_EQ(Encode(object), std::string(4, '\0') + id);
}

TEST_F(EncodingQuirk, TheWholeMagicAndACopyOfTheFormatGoIntoTheBlob)
{
    const Instance object(MAGIC, "i;b;");
    const Held blob = Encoded(object.get());
    const auto* pBlob = static_cast<const DbBlob*>(blob.get());
    EXPECT_EQ(pBlob->magic, MAGIC);
    EXPECT_STREQ(pBlob->format, "i;b;");
    EXPECT_NE(pBlob->format, ObjGetDbData(object.get())->format);
}

TEST_F(EncodingQuirk, TheBlobsTemplateIsMadeOnceAndKept)
{
    const Instance object(MAGIC, "i;");
    const Held first = Encoded(object.get());
    const Held second = Encoded(object.get());
    EXPECT_EQ(OBJ_HEADER(first.get())->tmpl, OBJ_HEADER(second.get())->tmpl);
    EXPECT_EQ(OBJ_HEADER(first.get())->magic, 0xCA66CAE6u);
}

TEST_F(EncodingQuirk, TransientItemsAreNoPartOfASerialisedForm)
{
    Instance object(MAGIC, "i;p;ol;sl;");
    object.at<void*>(1) = this;
    object.at<void*>(2) = ObjIntegerNew(1);
    object.at<char*>(3) = PoolText("gone");
    std::string form(ObjSerializedSize(object.get()), '\0');
    uint32_t size = 0;
    ASSERT_EQ(ObjSerializeToMemory(object.get(), form.data(), &size), 1u);
    Held rebuilt;
    ASSERT_EQ(ObjReconstructFromMemory(rebuilt.out(), form.data()), 1u);
    EXPECT_EQ(Item<void*>(rebuilt.get(), 1), nullptr);
    EXPECT_EQ(Item<void*>(rebuilt.get(), 2), nullptr);
    EXPECT_EQ(Item<char*>(rebuilt.get(), 3), nullptr);
}

// ---- decoding
// ------------------------------------------------------------------------------------

TEST_F(EncodingQuirk, ANestedObjectThatCannotBeRebuiltDoesNotFailTheRecord)
{
    const Held blob = Record("o;i;", {4, 20, 7, 0}, "junk");
    const Held decoded = Decoded(blob.get());
    EXPECT_EQ(Item<void*>(decoded.get(), 0), nullptr);
    EXPECT_EQ(Item<int32_t>(decoded.get(), 1), 7);
    EXPECT_TRUE(trace_.has("DBLIB        ", 0, -1, "Reconstruct failed"));
}

TEST_F(EncodingQuirk, TheLengthsOfTextsAndObjectsAreSigned)
{
    const Held decoded = Decoded(Record("s;o;", {0x80000000, 0, 0xFFFFFFFF, 0}).get());
    EXPECT_EQ(Item<char*>(decoded.get(), 0), nullptr);
    EXPECT_EQ(Item<void*>(decoded.get(), 1), nullptr);
}

TEST_F(EncodingQuirk, ADataBlockOfNoBytesIsABlockAllTheSame)
{
    Instance object(MAGIC, "d;");
    const Held decoded = Decoded(Encoded(object.get()).get());
    EXPECT_EQ(Item<ObjData>(decoded.get(), 0).size, 0u);
    EXPECT_NE(Item<ObjData>(decoded.get(), 0).data, nullptr);
}

TEST_F(EncodingQuirk, TheStoredLengthOfAnArrayIsNotComparedWithItsDeclaredOne)
{
    // Twelve bytes into an array of four: they run over the item behind it.
    const Held longer =
        Decoded(Record("n4;q;", {12, 20, 0x11111111, 0x22222222}, "aaaabbbbcccc").get());
    EXPECT_EQ(std::string(&Item<char>(longer.get(), 0), 4), "aaaa");
    EXPECT_EQ(Item<uint64_t>(longer.get(), 1), 0x2222222211111111u); // whose turn comes later
    const Held shorter = Decoded(Record("n4;", {2, 16, 0}, "aa").get());
    EXPECT_EQ(std::string(&Item<char>(shorter.get(), 0), 4), std::string("aa\0\0", 4));
}

TEST_F(EncodingQuirk, ATextIsReadUpToItsNul)
{
    const Held decoded = Decoded(Record("s;", {6, 16, 0}, std::string("ab\0cd\0", 6)).get());
    EXPECT_STREQ(Item<char*>(decoded.get(), 0), "ab");
}

TEST_F(EncodingQuirk, AMissingFormatIsHandedOnAndRefusedThere)
{
    const Held blob = MakeBlob(MAGIC, nullptr, std::string(16, '\0'));
    EXPECT_EQ(DbConvertObjectFromDbFormat(&out_, blob.get()), 0u);
    EXPECT_EQ(out_, nullptr);
    EXPECT_EQ(trace_.countLevel(-1), 0u);
}

// What a damaged record would make it read outside of itself, the decoder refuses.
TEST_F(EncodingQuirk, LengthsAndOffsetsOutsideTheRecordAreRefused)
{
    EXPECT_EQ(DbConvertObjectFromDbFormat(&out_, Record("s;", {2, 100, 0}, "a").get()), 0u);
    EXPECT_EQ(DbConvertObjectFromDbFormat(&out_, Record("d;", {2, 16, 0}, "a").get()), 0u);
    EXPECT_EQ(trace_.countLevel(-1), 2u);
}

// ---- single fields
// -------------------------------------------------------------------------------

TEST_F(EncodingQuirk, SingleFieldsAreReadAndWrittenWithoutATrace)
{
    const Instance object(MAGIC, "i;b;");
    const Held blob = Encoded(object.get());
    ObjData* pRecord = &static_cast<DbBlob*>(blob.get())->data;
    trace_.clear();
    int32_t integer = 7;
    uint32_t boolean = 7;
    EXPECT_EQ(DbFormatGetInteger(&integer, pRecord, object.pTemplate(), 1), 1u);
    EXPECT_EQ(DbFormatGetInteger(&integer, pRecord, object.pTemplate(), 9), 0u);
    EXPECT_EQ(DbFormatGetBoolean(&boolean, nullptr, object.pTemplate(), 2), 0u);
    EXPECT_EQ(DbFormatSetBoolean(pRecord, object.pTemplate(), 0, 1), 0u);
    EXPECT_EQ(DbSetFieldBooleanInBlob(pRecord, object.get(), 1), 0u);
    EXPECT_TRUE(trace_.lines().empty());
}

TEST_F(EncodingQuirk, TheByteCountOfARecordIsNotConsultedForASingleField)
{
    Instance object(MAGIC, "i;i;");
    object.at<int32_t>(1) = 5;
    const Held blob = Encoded(object.get());
    ObjData record = static_cast<DbBlob*>(blob.get())->data;
    record.size = 0;
    int32_t value = 0;
    EXPECT_EQ(DbFormatGetInteger(&value, &record, object.pTemplate(), 2), 1u);
    EXPECT_EQ(value, 5);
}

TEST_F(EncodingQuirk, ABooleanFieldTakesAndGivesAnyWord)
{
    const Instance object(MAGIC, "b;");
    const Held blob = Encoded(object.get());
    ObjData* pRecord = &static_cast<DbBlob*>(blob.get())->data;
    uint32_t value = 0;
    EXPECT_EQ(DbFormatSetBoolean(pRecord, object.pTemplate(), 1, 2), 1u);
    EXPECT_EQ(DbFormatGetBoolean(&value, pRecord, object.pTemplate(), 1), 1u);
    EXPECT_EQ(value, 2u);
}

TEST_F(EncodingQuirk, AFieldOfAnotherKindCannotBeReadThoughItIsAsWide)
{
    const Instance object(MAGIC, "b;i;");
    const Held blob = Encoded(object.get());
    ObjData* pRecord = &static_cast<DbBlob*>(blob.get())->data;
    int32_t integer = 77;
    uint32_t boolean = 77;
    EXPECT_EQ(DbFormatGetInteger(&integer, pRecord, object.pTemplate(), 1), 0u);
    EXPECT_EQ(DbFormatGetBoolean(&boolean, pRecord, object.pTemplate(), 2), 0u);
    EXPECT_EQ(integer, 77);
    EXPECT_EQ(boolean, 77u);
}

// ---- keys in records
// -----------------------------------------------------------------------------

class KeyQuirk : public testing::Test {
  protected:
    IndxCursor* cursor() { return scene_.tree->cursor(); }
    // The key of a record with this value in its slot; null when it cannot be had.
    Held KeyOf(const Key& key, int32_t keyType)
    {
        const TestRecord record({{keyType}}, 9, {key});
        return KeyOf(record);
    }
    Held KeyOf(const TestRecord& record)
    {
        IndxKeyInfo* pKey = nullptr;
        IndxGetKeyInfoFromRecord(&pKey, cursor(), record.data());
        return Held(pKey);
    }
    static IndxKeyInfo* Info(const Held& key) { return static_cast<IndxKeyInfo*>(key.get()); }

    TraceRecorder trace_;
    TreeScene scene_;
};

TEST_F(KeyQuirk, AKeyOfTheRecordIdHasNoValue)
{
    scene_.Make(INDX_KEY_RECORD_ID);
    const Held key = KeyOf({}, INDX_KEY_RECORD_ID);
    EXPECT_EQ(Info(key)->recordId, 9u);
    EXPECT_EQ(Info(key)->oValue, nullptr);
}

TEST_F(KeyQuirk, AKeyFromARecordHasNoPlaceInFileOrTree)
{
    scene_.Make(INDX_KEY_INTEGER);
    const Held key = KeyOf(NumberKey(5), INDX_KEY_INTEGER);
    EXPECT_EQ(Info(key)->keyType, INDX_KEY_INTEGER);
    EXPECT_EQ(Info(key)->fileOffset, 0u);
    EXPECT_EQ(Info(key)->tChild, 0u);
}

TEST_F(KeyQuirk, ATextKeyHasItsNul)
{
    scene_.Make(INDX_KEY_TEXT);
    const Held key = KeyOf(TextKey("ab"), INDX_KEY_TEXT);
    EXPECT_EQ(ObjGetDataFieldSize(Info(key)->oValue), 3u);
}

TEST_F(KeyQuirk, TheLongestTextKeyIsTakenAndOneByteMoreIsNot)
{
    scene_.Make(INDX_KEY_TEXT);
    EXPECT_NE(KeyOf(SizedKey("a", 8168), INDX_KEY_TEXT).get(), nullptr);
    EXPECT_EQ(KeyOf(SizedKey("a", 8169), INDX_KEY_TEXT).get(), nullptr);
    EXPECT_EQ(cursor()->result, 2);
}

TEST_F(KeyQuirk, TheLengthOfATextKeyIsSigned)
{
    scene_.Make(INDX_KEY_TEXT);
    TestRecord record({{INDX_KEY_TEXT}}, 9, {TextKey("b")});
    PutU32At(record.bytes, IndexFixture::FIRST_SLOT, 0xFFFFFFFF);
    EXPECT_EQ(KeyOf(record).get(), nullptr);
    EXPECT_EQ(cursor()->result, 3);
}

TEST_F(KeyQuirk, AnUnknownKeyTypeFailsWithoutAResultCode)
{
    scene_.Make(99);
    cursor()->result = 77;
    EXPECT_EQ(KeyOf({}, 99).get(), nullptr);
    EXPECT_EQ(cursor()->result, 77);
    EXPECT_EQ(trace_.countLevel(-1), 0u);
}

TEST_F(KeyQuirk, AForbiddenKeyTypeLeavesItsCodeAndEndsTheProcess)
{
    scene_.Make(INDX_KEY_FORBIDDEN);
    const CrashRecorder crash;
    EXPECT_EQ(KeyOf({}, INDX_KEY_FORBIDDEN).get(), nullptr);
    EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0}));
    EXPECT_EQ(cursor()->result, 5);
}

} // namespace
