// dbrecord_test.cpp: record bytes against hand-written literals, every message of the conversions,
// and the access to single fields. What damage and a lack of memory do: dbrecord_damage_test.cpp.
#include "database/dbrecord.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "database/dbrecord_internal.h"
#include "nim/bytes.h"
#include "nim/fault.h"
#include "nim/nim.h"
#include "support/record_objects.h"
#include "support/trace_recorder.h"

namespace {

const std::string TAG = "DBLIB" + std::string(8, ' ');

using Texts = std::vector<std::string>;

std::string Pointer(const void* p)
{
    char text[32];
    std::snprintf(
        text, sizeof text, "%016llX",
        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

// The exact line: tag, no error flag, level, text.
void ExpectLine(const TraceRecorder& trace, int32_t level, const std::string& text)
{
    EXPECT_TRUE(trace.has(TAG, 0, level, text)) << text << "\nis not in\n" << trace.dump();
}

// A serialised object as the base services write it.
std::string Serialised(const void* object)
{
    std::string bytes(ObjSerializedSize(object), '\0');
    uint32_t size = 0;
    EXPECT_EQ(ObjSerializeToMemory(object, bytes.data(), &size), 1u);
    EXPECT_EQ(size, bytes.size());
    return bytes;
}

} // namespace

// ---- bytes.h ----------------------------------------------------------------------------------

TEST(Bytes, IntegersLieInLittleEndianOrderAtAnyAddress)
{
    unsigned char bytes[20] = {};
    PutU32(bytes + 1, 0x12345678);
    PutU64(bytes + 7, 0x1122334455667788);
    const unsigned char expected[20] = {0,    0x78, 0x56, 0x34, 0x12, 0, 0, 0x88, 0x77, 0x66,
                                        0x55, 0x44, 0x33, 0x22, 0x11, 0, 0, 0,    0,    0};
    EXPECT_EQ(std::memcmp(bytes, expected, sizeof bytes), 0);
    EXPECT_EQ(GetU32(bytes + 1), 0x12345678u);
    EXPECT_EQ(GetU64(bytes + 7), 0x1122334455667788u);
    PutI32(bytes + 1, -2);
    PutI64(bytes + 7, -3);
    EXPECT_EQ(bytes[1], 0xFE);
    EXPECT_EQ(bytes[14], 0xFF);
    EXPECT_EQ(GetI32(bytes + 1), -2);
    EXPECT_EQ(GetI64(bytes + 7), -3);
}

TEST(Bytes, RangesThatWrapThirtyTwoBitsAreOutside)
{
    EXPECT_TRUE(BytesInside(0, 0, 0));
    EXPECT_TRUE(BytesInside(4, 6, 10));
    EXPECT_FALSE(BytesInside(4, 7, 10));
    EXPECT_FALSE(BytesInside(0xFFFFFFFF, 2, 10));
    EXPECT_FALSE(BytesInside(2, 0xFFFFFFFF, 10));
}

// ---- record bytes -----------------------------------------------------------------------------

TEST(DbRecord, InlineItemsAloneGiveExactlyTheFixedSize)
{
    Instance object(0xcabc0001, "i;b;");
    object.at<int32_t>(0) = 0x01020304;
    object.at<uint32_t>(1) = 1;
    TraceRecorder trace;
    Held blob = Encoded(object.get());
    EXPECT_EQ(
        RecordBytes(blob.get()), std::string("\0\0\0\0\x04\x03\x02\x01\x01\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(trace.texts(), Texts({"Size of database BLOB is 16 bytes (16 + 0)"}));
    ExpectLine(trace, 4, "Size of database BLOB is 16 bytes (16 + 0)");
}

TEST(DbRecord, NullTextTakesNoBytesAndComesBackNull)
{
    Instance object(0xcabc0002, "s;s;");
    object.setText(1, "xyz");
    Held blob = Encoded(object.get());
    // Offsets 20: the absent text still gets the running offset.
    EXPECT_EQ(
        RecordBytes(blob.get()), std::string(
                                     "\0\0\0\0"
                                     "\0\0\0\0\x14\0\0\0"
                                     "\x04\0\0\0\x14\0\0\0"
                                     "xyz\0",
                                     24));
    Held back = Decoded(blob.get());
    EXPECT_EQ(Item<char*>(back.get(), 0), nullptr);
    EXPECT_STREQ(Item<char*>(back.get(), 1), "xyz");
}

TEST(DbRecord, EmptyTextIsStoredAsItsNulAndComesBackEmpty)
{
    Instance object(0xcabc0002, "s;s;");
    object.setText(0, "");
    Held blob = Encoded(object.get());
    EXPECT_EQ(
        RecordBytes(blob.get()), std::string(
                                     "\0\0\0\0"
                                     "\x01\0\0\0\x14\0\0\0"
                                     "\0\0\0\0\x15\0\0\0"
                                     "\0",
                                     21));
    Held back = Decoded(blob.get());
    EXPECT_STREQ(Item<char*>(back.get(), 0), "");
    EXPECT_EQ(Item<char*>(back.get(), 1), nullptr);
}

TEST(DbRecord, TextsLieBackToBackInTemplateOrder)
{
    Instance object(0xcabc0002, "s;s;");
    object.setText(0, "ab");
    object.setText(1, "c");
    Held blob = Encoded(object.get());
    EXPECT_EQ(
        RecordBytes(blob.get()), std::string(
                                     "\0\0\0\0"
                                     "\x03\0\0\0\x14\0\0\0"
                                     "\x02\0\0\0\x17\0\0\0"
                                     "ab\0c\0",
                                     25));
}

TEST(DbRecord, InlineArrayAlwaysContributesItsWholeLength)
{
    Instance object(0xcabc0003, "n16384;");
    TraceRecorder trace;
    Held blob = Encoded(object.get());
    ExpectLine(trace, 4, "Size of database BLOB is 16400 bytes (16 + 16384)");
    std::string expected(16 + 16384, '\0');
    expected.replace(4, 8, std::string("\0\x40\0\0\x10\0\0\0", 8));
    EXPECT_EQ(RecordBytes(blob.get()), expected);
}

TEST(DbRecord, SixtyFourBitValueIsStoredLowWordFirst)
{
    Instance object(0xcabc0004, "q;");
    object.at<int64_t>(0) = 0x0000000100000002;
    Held blob = Encoded(object.get());
    EXPECT_EQ(RecordBytes(blob.get()).substr(4, 8), std::string("\x02\0\0\0\x01\0\0\0", 8));
    Held back = Decoded(blob.get());
    EXPECT_EQ(Item<int64_t>(back.get(), 0), 0x0000000100000002);
}

TEST(DbRecord, UniqueIdLiesInItsSlotAsItStands)
{
    Instance object(0xcabc0005, "u;");
    std::string id;
    for (int i = 0; i < 32; ++i)
        id += static_cast<char>(200 + i);
    std::memcpy(&object.at<UniqueId>(0), id.data(), 32);
    TraceRecorder trace;
    Held blob = Encoded(object.get());
    EXPECT_EQ(RecordBytes(blob.get()), std::string(4, '\0') + id);
    ExpectLine(trace, 4, "Size of database BLOB is 36 bytes (36 + 0)");
    Held back = Decoded(blob.get());
    EXPECT_EQ(std::memcmp(&Item<UniqueId>(back.get(), 0), id.data(), 32), 0);
}

TEST(DbRecord, EveryKindOfItemHasItsPlaceInTheRecord)
{
    Instance object(0xcabc0006, "i;s;s;d;o;q;u;n5;");
    object.at<int32_t>(0) = -2;
    object.setText(1, "hi");
    object.setData(3, std::string("\x01\0\xFF", 3));
    object.at<void*>(4) = ObjIntegerNew(0x0BADCAFE);
    object.at<int64_t>(5) = -3;
    std::memset(&object.at<UniqueId>(6), 'U', 32);
    std::memcpy(&object.at<uint8_t>(7), "array", 5);
    const std::string nested = Serialised(object.at<void*>(4));
    ASSERT_LT(nested.size(), 100u); // one byte of its length and of the offsets behind it

    Held blob = Encoded(object.get());
    std::string expected(
        "\0\0\0\0"
        "\xFE\xFF\xFF\xFF"
        "\x03\0\0\0\x58\0\0\0"
        "\0\0\0\0\x5B\0\0\0"
        "\x03\0\0\0\x5B\0\0\0",
        32);
    expected += static_cast<char>(nested.size()) + std::string("\0\0\0\x5E\0\0\0", 7);
    expected += std::string("\xFD\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8);
    expected += std::string(32, 'U');
    expected += std::string("\x05\0\0\0", 4) + static_cast<char>(0x5E + nested.size()) +
                std::string("\0\0\0", 3);
    ASSERT_EQ(expected.size(), 88u);
    expected += std::string("hi\0\x01\0\xFF", 6) + nested + "array";
    EXPECT_EQ(RecordBytes(blob.get()), expected);

    Held back = Decoded(blob.get());
    EXPECT_EQ(ObjGetMagic(back.get()), 0xcabc0006u);
    EXPECT_STREQ(ObjGetDbData(back.get())->format, "i;s;s;d;o;q;u;n5;");
    EXPECT_EQ(Item<int32_t>(back.get(), 0), -2);
    EXPECT_STREQ(Item<char*>(back.get(), 1), "hi");
    EXPECT_EQ(Item<char*>(back.get(), 2), nullptr);
    EXPECT_EQ(DataBytes(Item<ObjData>(back.get(), 3)), std::string("\x01\0\xFF", 3));
    EXPECT_EQ(ObjGetInteger(Item<void*>(back.get(), 4)), 0x0BADCAFE);
    EXPECT_EQ(Item<int64_t>(back.get(), 5), -3);
    EXPECT_EQ(std::memcmp(&Item<UniqueId>(back.get(), 6), std::string(32, 'U').data(), 32), 0);
    EXPECT_EQ(std::memcmp(&Item<uint8_t>(back.get(), 7), "array", 5), 0);
}

TEST(DbRecord, BytesThatNoSlotCoversAreZeroInReusedMemory)
{
    const uint32_t pool = MemGetDefaultPoolId();
    for (int i = 0; i < 8; ++i) {
        void* dirty = MemAllocateUncleared(16, pool);
        std::memset(dirty, 0xEE, 16);
        MemFree(dirty);
        Instance object(0xcabc0007, "i;");
        object.at<int32_t>(0) = -1;
        Held blob = Encoded(object.get());
        EXPECT_EQ(
            RecordBytes(blob.get()), std::string("\0\0\0\0\xFF\xFF\xFF\xFF\0\0\0\0\0\0\0\0", 16));
    }
}

TEST(DbRecord, DataBlockOfNoBytesComesBackAsABlockOfNoBytes)
{
    Instance object(0xcabc0008, "d;");
    Held blob = Encoded(object.get());
    EXPECT_EQ(RecordBytes(blob.get()), std::string("\0\0\0\0\0\0\0\0\x10\0\0\0\0\0\0\0", 16));
    Held back = Decoded(blob.get());
    EXPECT_EQ(Item<ObjData>(back.get(), 0).size, 0u);
    EXPECT_NE(Item<ObjData>(back.get(), 0).data, nullptr);
}

TEST(DbRecord, BooleanKeepsItsWholeWord)
{
    Instance object(0xcabc0009, "b;");
    object.at<uint32_t>(0) = 0x80000002;
    Held blob = Encoded(object.get());
    EXPECT_EQ(RecordBytes(blob.get()).substr(4, 4), std::string("\x02\0\0\x80", 4));
    Held back = Decoded(blob.get());
    EXPECT_EQ(Item<uint32_t>(back.get(), 0), 0x80000002u);
}

TEST(DbRecord, ItemsBeyondTheRememberedLengthsAreMeasuredAgain)
{
    std::string format;
    for (int i = 0; i < 200; ++i)
        format += i % 3 == 2 ? "o;" : "s;";
    Instance object(0xcabc000a, format);
    for (int i = 0; i < 200; ++i) {
        if (i % 3 == 2)
            object.at<void*>(i) = ObjIntegerNew(i);
        else
            object.setText(i, std::to_string(i * 1000));
    }
    Held blob = Encoded(object.get());
    Held back = Decoded(blob.get());
    for (int i = 0; i < 200; ++i) {
        if (i % 3 == 2) {
            EXPECT_EQ(ObjGetInteger(Item<void*>(back.get(), i)), i);
        } else {
            EXPECT_EQ(Item<char*>(back.get(), i), std::to_string(i * 1000));
        }
    }
}

// ---- the BLOB and the inner forms -------------------------------------------------------------

TEST(DbRecord, BlobCarriesMagicACopyOfTheFormatAndTheBytes)
{
    Instance object(0xcabc000b, "i;s;");
    Held blob = Encoded(object.get());
    EXPECT_EQ(ObjGetMagic(blob.get()), 0xCA66CAE6u);
    EXPECT_STREQ(ObjGetDbData(blob.get())->format, "i;s;d;");
    const auto* body = static_cast<const char*>(blob.get());
    EXPECT_EQ(GetU32(body), 0xcabc000bu);
    const char* format;
    std::memcpy(&format, body + 8, sizeof format);
    EXPECT_STREQ(format, "i;s;");
    EXPECT_NE(format, ObjGetDbData(object.get())->format);
    EXPECT_EQ(GetU32(body + 16), 16u);
    EXPECT_EQ(static_cast<const DbBlob*>(blob.get())->data.size, 16u);
}

TEST(DbRecord, TheInnerFormAgreesWithTheExportedOneAndNeedsNoBlob)
{
    Instance object(0xcabc000c, "i;s;d;");
    object.at<int32_t>(0) = 77;
    object.setText(1, "seventy-seven");
    object.setData(2, "77");
    Held blob = Encoded(object.get());

    const DbBlob* pBlob = static_cast<DbBlob*>(blob.get());

    TraceRecorder trace;
    Held back;
    ASSERT_TRUE(DbDecodeRecord(back.out(), pBlob->magic, pBlob->format, DbBytesOf(pBlob->data)));
    EXPECT_EQ(
        trace.texts(),
        Texts({"Magic -893648884 format i;s;d;", "Size of database BLOB is 40 bytes"}));
    EXPECT_EQ(ObjGetMagic(back.get()), 0xcabc000cu);
    EXPECT_STREQ(Item<char*>(back.get(), 1), "seventy-seven");
}

TEST(DbRecord, WithoutAFormatOrBytesTheInnerFormMakesNothing)
{
    const uint8_t bytes[16] = {};
    TraceRecorder trace;
    void* out = &trace;
    EXPECT_FALSE(DbDecodeRecord(&out, 0xcabc0007, nullptr, bytes));
    EXPECT_EQ(out, nullptr);
    out = &trace;
    EXPECT_FALSE(DbDecodeRecord(&out, 0xcabc0007, "i;", {}));
    EXPECT_EQ(out, nullptr);
}

// A host that registers its template after a table was opened finds nothing in its place.
TEST(DbRecord, AskingForALayoutRegistersNothingForObjects)
{
    const ObjDbData* pLayout = DbRecordLayout("i;s;q;");
    ASSERT_NE(pLayout, nullptr);
    EXPECT_EQ(DbRecordLayout("i;s;q;"), pLayout);
    Instance object(0xcabc0052, "i;s;q;");
    const ObjDbData* pData = ObjGetDbData(object.get());
    EXPECT_NE(pData, pLayout);
    EXPECT_EQ(pLayout->fixedSize, pData->fixedSize);
    ASSERT_EQ(pLayout->fieldCount, 3);
    for (int32_t i = 0; i < 3; ++i)
        EXPECT_EQ(std::memcmp(&pLayout->fields[i], &pData->fields[i], sizeof(ObjDbField)), 0);
    EXPECT_EQ(DbRecordLayout("i;;"), nullptr);
    EXPECT_EQ(DbRecordLayout(nullptr), nullptr);
}

// ---- messages and failures of the encoder -----------------------------------------------------

TEST(DbRecordEncode, NullObjectIsRefusedWithoutAMessage)
{
    TraceRecorder trace;
    void* blob = &trace;
    EXPECT_EQ(DbConvertObjectToDbFormat(&blob, nullptr), 0u);
    EXPECT_EQ(blob, nullptr);
    EXPECT_EQ(DbConvertObjectToDbFormat(nullptr, nullptr), 0u);
    EXPECT_EQ(trace.texts(), Texts());
}

TEST(DbRecordEncode, TemplateThatCannotBeStoredIsRefusedWithoutAMessage)
{
    for (const char* format : {"i;p;", "ol;i;", "i;sl;"}) {
        Instance object(0xcabc0010, format);
        TraceRecorder trace;
        void* blob = &trace;
        const uint32_t before = MemLiveCount();
        EXPECT_EQ(DbConvertObjectToDbFormat(&blob, object.get()), 0u) << format;
        EXPECT_EQ(blob, nullptr);
        EXPECT_EQ(MemLiveCount(), before);
        EXPECT_EQ(trace.texts(), Texts());
    }
}

TEST(DbRecordEncode, InvalidMagicIsTracedAndEndsTheProcess)
{
    Instance object(0xcabc0011, "i;");
    for (uint32_t magic : {0u, 0x12345678u, 0xC0000000u, 0xD0000000u, 0xFFFFFFFFu}) {
        OBJ_HEADER(object.get())->magic = magic;
        CrashRecorder crash;
        TraceRecorder trace;
        void* blob = &trace;
        EXPECT_EQ(DbConvertObjectToDbFormat(&blob, object.get()), 0u);
        EXPECT_EQ(blob, nullptr);
        EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0}));
        ExpectLine(trace, -1, "Invalid object at '" + Pointer(object.get()) + "'");
        EXPECT_EQ(trace.texts().size(), 1u);
    }
    OBJ_HEADER(object.get())->magic = 0xcabc0011;
    for (uint32_t magic : {0xC8000000u, 0xCFFFFFFFu}) { // whatever lies under the mask is valid
        const Instance valid(magic, "i;");
        EXPECT_EQ(static_cast<DbBlob*>(Encoded(valid.get()).get())->magic, magic);
    }
}

TEST(DbRecordEncode, ObjectWithoutTemplateIsTracedAndEndsTheProcess)
{
    Instance object(0xcabc0011, "i;");
    OBJ_HEADER(object.get())->tmpl = nullptr;
    {
        CrashRecorder crash;
        TraceRecorder trace;
        void* blob = &trace;
        EXPECT_EQ(DbConvertObjectToDbFormat(&blob, object.get()), 0u);
        EXPECT_EQ(blob, nullptr);
        EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0}));
        ExpectLine(trace, -1, "Corrupt object - no template at '" + Pointer(object.get()) + "'");
        EXPECT_EQ(trace.texts().size(), 1u);
    }
    OBJ_HEADER(object.get())->tmpl = object.pTemplate();
}

TEST(DbRecordEncode, ItemWithoutDatabaseFormIsTracedAndEndsTheProcess)
{
    Instance object(0xcabc0012, "i;i;s;");
    // No storable template holds such an item: as a damaged description would have it.
    auto* field = const_cast<ObjDbField*>(&ObjGetDbData(object.get())->fields[1]);
    for (int32_t kind : {0, 5, 6, 9, 12, 13, -1}) {
        field->kind = kind;
        CrashRecorder crash;
        TraceRecorder trace;
        void* blob = &trace;
        const uint32_t before = MemLiveCount();
        EXPECT_EQ(DbConvertObjectToDbFormat(&blob, object.get()), 0u) << kind;
        EXPECT_EQ(blob, nullptr);
        EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0}));
        EXPECT_EQ(trace.texts(), Texts({"Should not get these"}));
        ExpectLine(trace, -1, "Should not get these");
        EXPECT_EQ(MemLiveCount(), before);
    }
    field->kind = DB_KIND_INTEGER;
}

TEST(DbRecordEncode, NestedObjectsAreTracedWithSizeAndOffset)
{
    Instance object(0xcabc0013, "o;o;");
    object.at<void*>(1) = ObjStringNew("nested");
    const std::string size = std::to_string(Serialised(object.at<void*>(1)).size());
    const std::string total = std::to_string(Serialised(object.at<void*>(1)).size() + 20);
    TraceRecorder trace;
    Held blob = Encoded(object.get());
    EXPECT_EQ(
        trace.texts(), Texts(
                           {"Size of database BLOB is " + total + " bytes (20 + " + size + ")",
                            "size is 0 at 20", "size is " + size + " at 20"}));
    ExpectLine(trace, 4, "size is 0 at 20");
    ExpectLine(trace, 4, "size is " + size + " at 20");
    EXPECT_EQ(RecordBytes(blob.get()).substr(4, 8), std::string("\0\0\0\0\x14\0\0\0", 8));
}

// An object map has no serialised form. Storing it as no object at all would lose it in silence.
TEST(DbRecordEncode, NestedObjectWithoutSerialisedFormIsRefused)
{
    Instance map(0xcabc0014, "o;i;");
    ASSERT_EQ(
        ObjMapCreateInternal(
            &map.at<void*>(0), 0, 0, [](const void*, const void*) -> int32_t { return 0; },
            [](const void*, const void*) -> int32_t { return 0; }, 0),
        1u);
    const uint32_t before = MemLiveCount();
    TraceRecorder trace;
    void* blob = &trace;
    EXPECT_EQ(DbConvertObjectToDbFormat(&blob, map.get()), 0u);
    EXPECT_EQ(blob, nullptr);
    EXPECT_EQ(MemLiveCount(), before);
    ExpectLine(trace, -1, "Failed to serialise object at '" + Pointer(map.at<void*>(0)) + "'");
}

// ---- messages and failures of the decoder -----------------------------------------------------

TEST(DbRecordDecode, TracesItsEntryTheMagicAndTheSize)
{
    Instance object(0xcabc0020, "i;o;o;");
    object.at<void*>(2) = ObjIntegerNew(5);
    const std::string nested = std::to_string(Serialised(object.at<void*>(2)).size());
    Held blob = Encoded(object.get());
    TraceRecorder trace;
    Held back;
    ASSERT_EQ(DbConvertObjectFromDbFormat(back.out(), blob.get()), 1u);
    const Texts expected = {
        "DbConvertObjectFromDbFormat(" + Pointer(back.out()) + ", " + Pointer(blob.get()) + ")",
        "Magic " + std::to_string(static_cast<int32_t>(0xcabc0020)) + " format i;o;o;",
        "Size of database BLOB is " + std::to_string(RecordBytes(blob.get()).size()) + " bytes",
        "Reconstruct Object from 0 bytes at 18",
        "Reconstruct Object from " + nested + " bytes at 18"};
    EXPECT_EQ(trace.texts(), expected);
    for (const std::string& text : expected)
        ExpectLine(trace, 4, text);
}

TEST(DbRecordDecode, NullFormatIsTracedAsNullAndRefused)
{
    Held blob = MakeBlob(0xcabc0021, nullptr, std::string(16, '\0'));
    TraceRecorder trace;
    void* out = &trace;
    EXPECT_EQ(DbConvertObjectFromDbFormat(&out, blob.get()), 0u);
    EXPECT_EQ(out, nullptr);
    ExpectLine(
        trace, 4, "Magic " + std::to_string(static_cast<int32_t>(0xcabc0021)) + " format (null)");
    EXPECT_EQ(trace.texts().size(), 2u);
}

TEST(DbRecordDecode, RefusedFormatGivesNoObject)
{
    for (const char* format : {"", "x;", "i; s;", "n0;"}) {
        Held blob = MakeBlob(0xcabc0021, format, std::string(16, '\0'));
        void* out = &blob;
        EXPECT_EQ(DbConvertObjectFromDbFormat(&out, blob.get()), 0u) << format;
        EXPECT_EQ(out, nullptr);
    }
}

TEST(DbRecordDecode, OnlyABlobIsDecoded)
{
    Instance object(0xcabc0022, "i;s;d;");
    TraceRecorder trace;
    void* out = &trace;
    EXPECT_EQ(DbConvertObjectFromDbFormat(&out, object.get()), 0u);
    EXPECT_EQ(out, nullptr);
    ExpectLine(trace, -1, "Invalid BLOB at '" + Pointer(object.get()) + "'");
    EXPECT_EQ(DbConvertObjectFromDbFormat(&out, nullptr), 0u);
    Held blob = Encoded(object.get());
    EXPECT_EQ(DbConvertObjectFromDbFormat(nullptr, blob.get()), 0u);
}

TEST(DbRecordDecode, ItemWithoutDatabaseFormIsTracedAndEndsTheProcess)
{
    for (const char* format : {"s;p;", "s;ol;", "s;sl;"}) {
        Held blob =
            MakeBlob(0xcabc0023, format, std::string("\0\0\0\0\x02\0\0\0\x10\0\0\0\0\0\0\0a", 18));
        const uint32_t objects = ObjLiveCount(0);
        const uint32_t pieces = MemLiveCount();
        CrashRecorder crash;
        TraceRecorder trace;
        void* out = &trace;
        EXPECT_EQ(DbConvertObjectFromDbFormat(&out, blob.get()), 0u) << format;
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0}));
        EXPECT_EQ(trace.count("Should not get these"), 1u);
        ExpectLine(trace, -1, "Should not get these");
        EXPECT_EQ(ObjLiveCount(0), objects);
        // The format's template is made once and stays.
        EXPECT_EQ(DbConvertObjectFromDbFormat(&out, blob.get()), 0u);
        EXPECT_LE(MemLiveCount(), pieces + 8);
        const uint32_t settled = MemLiveCount();
        EXPECT_EQ(DbConvertObjectFromDbFormat(&out, blob.get()), 0u);
        EXPECT_EQ(MemLiveCount(), settled);
    }
}

TEST(DbRecordDecode, NestedObjectThatCannotBeRebuiltIsLeftOutAndTheRestCounts)
{
    Instance object(0xcabc0024, "o;s;");
    object.at<void*>(0) = ObjStringNew("nested");
    object.setText(1, "behind it");
    Held blob = Encoded(object.get());
    std::string bytes = RecordBytes(blob.get());
    bytes[20] = '?'; // the first byte of the serialised form
    Held damaged = MakeBlob(0xcabc0024, "o;s;", bytes);
    TraceRecorder trace;
    Held back;
    ASSERT_EQ(DbConvertObjectFromDbFormat(back.out(), damaged.get()), 1u);
    ExpectLine(trace, -1, "Reconstruct failed");
    EXPECT_EQ(Item<void*>(back.get(), 0), nullptr);
    EXPECT_STREQ(Item<char*>(back.get(), 1), "behind it");
}

#if GTEST_HAS_DEATH_TEST
TEST(DbRecordDeathTest, MemoryCorruptionEndsTheProcessWithItsMessage)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    void* out = nullptr;
    Instance object(0xcabc0011, "i;");
    EXPECT_DEATH(
        {
            OBJ_HEADER(object.get())->magic = 1;
            DbConvertObjectToDbFormat(&out, object.get());
        },
        "Invalid object at '");
    EXPECT_DEATH(
        {
            OBJ_HEADER(object.get())->tmpl = nullptr;
            DbConvertObjectToDbFormat(&out, object.get());
        },
        "Corrupt object - no template at '");
    EXPECT_DEATH(
        {
            const_cast<ObjDbField*>(ObjGetDbData(object.get())->fields)->kind = 5;
            DbConvertObjectToDbFormat(&out, object.get());
        },
        "Should not get these");
    Held blob = MakeBlob(0xcabc0023, "p;", std::string(16, '\0'));
    EXPECT_DEATH(DbConvertObjectFromDbFormat(&out, blob.get()), "Should not get these");
}
#endif

// ---- single fields ----------------------------------------------------------------------------

namespace {

// A record with one field of each kind: 1 b, 2 i, 3 q, 4 u, 5 s, 6 o, 7 d, 8 n4.
class DbFormat : public testing::Test {
  protected:
    DbFormat() : object_(0xcabc0030, "b;i;q;u;s;o;d;n4;") {}
    void SetUp() override
    {
        object_.at<uint32_t>(0) = 1;
        object_.at<int32_t>(1) = -5;
        object_.at<int64_t>(2) = INT64_MIN + 7;
        std::memset(&object_.at<UniqueId>(3), 'x', 32);
        ASSERT_EQ(DbConvertObjectToDbFormat(blob_.out(), object_.get()), 1u);
        record_ = static_cast<DbBlob*>(blob_.get())->data;
    }
    ObjTemplate* tmpl() { return object_.pTemplate(); }
    std::string bytes() { return DataBytes(record_); }

    Instance object_;
    Held blob_;
    ObjData record_ = {}; // the BLOB's
};

} // namespace

TEST_F(DbFormat, EachReaderReadsItsKind)
{
    uint32_t boolean = 0;
    int32_t integer = 0;
    int64_t wide = 0;
    UniqueId id = {};
    EXPECT_EQ(DbFormatGetBoolean(&boolean, &record_, tmpl(), 1), 1u);
    EXPECT_EQ(boolean, 1u);
    EXPECT_EQ(DbFormatGetInteger(&integer, &record_, tmpl(), 2), 1u);
    EXPECT_EQ(integer, -5);
    EXPECT_EQ(DbFormatGetInt64(&wide, &record_, tmpl(), 3), 1u);
    EXPECT_EQ(wide, INT64_MIN + 7);
    EXPECT_EQ(DbFormatGetUnique(&id, &record_, tmpl(), 4), 1u);
    EXPECT_EQ(std::memcmp(&id, std::string(32, 'x').data(), 32), 0);
}

TEST_F(DbFormat, EachWriterWritesItsSlotAndNothingElse)
{
    std::string expected = bytes();
    expected.replace(4, 4, std::string("\x02\0\0\0", 4));
    EXPECT_EQ(DbFormatSetBoolean(&record_, tmpl(), 1, 2), 1u);
    EXPECT_EQ(bytes(), expected);
    expected.replace(8, 4, std::string("\xFE\xFF\xFF\xFF", 4));
    EXPECT_EQ(DbFormatSetInteger(&record_, tmpl(), 2, -2), 1u);
    EXPECT_EQ(bytes(), expected);
    expected.replace(12, 8, std::string("\x02\0\0\0\x01\0\0\0", 8));
    EXPECT_EQ(DbFormatSetInt64(&record_, tmpl(), 3, 0x100000002), 1u);
    EXPECT_EQ(bytes(), expected);
    UniqueId id;
    std::memset(&id, 0xAB, sizeof id);
    expected.replace(20, 32, std::string(32, '\xAB'));
    EXPECT_EQ(DbFormatSetUnique(&record_, tmpl(), 4, &id), 1u);
    EXPECT_EQ(bytes(), expected);
}

TEST_F(DbFormat, BooleanWordTwoIsStoredAndReturnedAsTwo)
{
    EXPECT_EQ(DbFormatSetBoolean(&record_, tmpl(), 1, 2), 1u);
    uint32_t value = 0;
    EXPECT_EQ(DbFormatGetBoolean(&value, &record_, tmpl(), 1), 1u);
    EXPECT_EQ(value, 2u);
}

TEST_F(DbFormat, NegativeSixtyFourBitValueComesBackFromItsTwosComplement)
{
    EXPECT_EQ(DbFormatSetInt64(&record_, tmpl(), 3, -2), 1u);
    EXPECT_EQ(bytes().substr(12, 8), "\xFE" + std::string(7, '\xFF'));
    int64_t value = 0;
    EXPECT_EQ(DbFormatGetInt64(&value, &record_, tmpl(), 3), 1u);
    EXPECT_EQ(value, -2);
}

TEST_F(DbFormat, FieldNumberOutsideTheTemplateYieldsZeroAndTouchesNothing)
{
    TraceRecorder trace;
    const std::string before = bytes();
    const UniqueId id = {};
    for (int32_t field : {0, -1, INT32_MIN, 9, INT32_MAX}) {
        uint32_t boolean = 11;
        int32_t integer = 22;
        int64_t wide = 33;
        UniqueId unique;
        std::memset(&unique, 44, sizeof unique);
        EXPECT_EQ(DbFormatGetBoolean(&boolean, &record_, tmpl(), field), 0u);
        EXPECT_EQ(DbFormatGetInteger(&integer, &record_, tmpl(), field), 0u);
        EXPECT_EQ(DbFormatGetInt64(&wide, &record_, tmpl(), field), 0u);
        EXPECT_EQ(DbFormatGetUnique(&unique, &record_, tmpl(), field), 0u);
        EXPECT_EQ(boolean, 11u);
        EXPECT_EQ(integer, 22);
        EXPECT_EQ(wide, 33);
        EXPECT_EQ(unique.b[0], 44);
        EXPECT_EQ(DbFormatSetBoolean(&record_, tmpl(), field, 1), 0u);
        EXPECT_EQ(DbFormatSetInteger(&record_, tmpl(), field, 1), 0u);
        EXPECT_EQ(DbFormatSetInt64(&record_, tmpl(), field, 1), 0u);
        EXPECT_EQ(DbFormatSetUnique(&record_, tmpl(), field, &id), 0u);
    }
    EXPECT_EQ(bytes(), before);
    EXPECT_EQ(trace.texts(), Texts()); // field access never traces
}

TEST_F(DbFormat, ItemOfAnotherKindYieldsZeroAndTouchesNothing)
{
    TraceRecorder trace;
    const std::string before = bytes();
    const UniqueId id = {};
    for (int32_t field = 1; field <= 8; ++field) {
        uint32_t boolean = 11;
        int32_t integer = 22;
        int64_t wide = 33;
        UniqueId unique = {};
        EXPECT_EQ(DbFormatGetBoolean(&boolean, &record_, tmpl(), field), field == 1 ? 1u : 0u);
        EXPECT_EQ(DbFormatGetInteger(&integer, &record_, tmpl(), field), field == 2 ? 1u : 0u);
        EXPECT_EQ(DbFormatGetInt64(&wide, &record_, tmpl(), field), field == 3 ? 1u : 0u);
        EXPECT_EQ(DbFormatGetUnique(&unique, &record_, tmpl(), field), field == 4 ? 1u : 0u);
        if (field != 1) {
            EXPECT_EQ(boolean, 11u);
            EXPECT_EQ(DbFormatSetBoolean(&record_, tmpl(), field, 9), 0u);
        }
        if (field != 2) {
            EXPECT_EQ(integer, 22);
            EXPECT_EQ(DbFormatSetInteger(&record_, tmpl(), field, 9), 0u);
        }
        if (field != 3) {
            EXPECT_EQ(wide, 33);
            EXPECT_EQ(DbFormatSetInt64(&record_, tmpl(), field, 9), 0u);
        }
        if (field != 4) {
            EXPECT_EQ(DbFormatSetUnique(&record_, tmpl(), field, &id), 0u);
        }
    }
    EXPECT_EQ(bytes(), before);
    EXPECT_EQ(trace.texts(), Texts());
}

TEST_F(DbFormat, NullArgumentsYieldZero)
{
    uint32_t boolean = 0;
    int32_t integer = 0;
    int64_t wide = 0;
    UniqueId id = {};
    ObjData none = {};
    EXPECT_EQ(DbFormatGetBoolean(nullptr, &record_, tmpl(), 1), 0u);
    EXPECT_EQ(DbFormatGetInteger(nullptr, &record_, tmpl(), 2), 0u);
    EXPECT_EQ(DbFormatGetInt64(nullptr, &record_, tmpl(), 3), 0u);
    EXPECT_EQ(DbFormatGetUnique(nullptr, &record_, tmpl(), 4), 0u);
    EXPECT_EQ(DbFormatGetBoolean(&boolean, nullptr, tmpl(), 1), 0u);
    EXPECT_EQ(DbFormatGetInteger(&integer, &none, tmpl(), 2), 0u);
    EXPECT_EQ(DbFormatGetInt64(&wide, &record_, nullptr, 3), 0u);
    EXPECT_EQ(DbFormatGetUnique(&id, nullptr, nullptr, 4), 0u);
    EXPECT_EQ(DbFormatSetBoolean(nullptr, tmpl(), 1, 1), 0u);
    EXPECT_EQ(DbFormatSetInteger(&none, tmpl(), 2, 1), 0u);
    EXPECT_EQ(DbFormatSetInt64(&record_, nullptr, 3, 1), 0u);
    EXPECT_EQ(DbFormatSetUnique(&record_, tmpl(), 4, nullptr), 0u);
}

TEST_F(DbFormat, OnlyThePointerOfTheRecordBlockIsUsed)
{
    ObjData unsized = {0, 0, record_.data};
    int32_t value = 0;
    EXPECT_EQ(DbFormatGetInteger(&value, &unsized, tmpl(), 2), 1u);
    EXPECT_EQ(value, -5);
}

TEST_F(DbFormat, BooleanIsSetThroughATablesFieldObject)
{
    constexpr const char* FIELD_FORMAT = "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;";
    Instance field(0xca8ec4a2, FIELD_FORMAT);
    field.at<int32_t>(1) = 10;
    field.at<int32_t>(2) = 8;
    std::string expected = bytes();
    expected.replace(8, 4, std::string("\x78\x56\x34\x12", 4));
    EXPECT_EQ(DbSetFieldBooleanInBlob(&record_, field.get(), 0x12345678), 1u);
    EXPECT_EQ(bytes(), expected);
}

TEST_F(DbFormat, FieldObjectOfAnIntegerFieldChangesNothing)
{
    TraceRecorder trace;
    constexpr const char* FIELD_FORMAT = "s;i;i;b;b;b;i;i;i;i;i;i;o;ol;";
    Instance field(0xca8ec4a2, FIELD_FORMAT);
    Instance stranger(0xca8ec4a3, FIELD_FORMAT);
    field.at<int32_t>(2) = 8;
    stranger.at<int32_t>(1) = 10;
    stranger.at<int32_t>(2) = 8;
    const std::string before = bytes();
    for (int32_t type : {0, 1, 3, 4, 9, 11, 4097}) {
        field.at<int32_t>(1) = type;
        EXPECT_EQ(DbSetFieldBooleanInBlob(&record_, field.get(), 1), 0u) << type;
    }
    EXPECT_EQ(DbSetFieldBooleanInBlob(&record_, stranger.get(), 1), 0u);
    EXPECT_EQ(DbSetFieldBooleanInBlob(&record_, nullptr, 1), 0u);
    EXPECT_EQ(bytes(), before);
    ObjData none = {};
    field.at<int32_t>(1) = 10;
    EXPECT_EQ(DbSetFieldBooleanInBlob(nullptr, field.get(), 1), 0u);
    EXPECT_EQ(DbSetFieldBooleanInBlob(&none, field.get(), 1), 0u);
    EXPECT_EQ(trace.texts(), Texts());
}
