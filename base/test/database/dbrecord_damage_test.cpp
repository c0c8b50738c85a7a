// dbrecord_damage_test.cpp: what the record encoding does with damaged bytes, without memory and at
// its limits, and that any object of any template comes back as it was.
#include "database/dbrecord.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "database/dbrecord_internal.h"
#include "nim/fault.h"
#include "nim/nim.h"
#include "support/record_objects.h"
#include "support/trace_recorder.h"

namespace {

const std::string TAG = "DBLIB" + std::string(8, ' ');

std::string Word(uint32_t value)
{
    std::string bytes;
    for (int i = 0; i < 4; ++i)
        bytes += static_cast<char>(value >> (8 * i));
    return bytes;
}

// A piece of the heap of exactly the record's size, so that a sanitizer sees the first byte read
// outside it.
class ExactRecord {
  public:
    explicit ExactRecord(const std::string& bytes)
        : bytes_(new char[bytes.size()]), record_{static_cast<uint32_t>(bytes.size()), 0, nullptr}
    {
        std::memcpy(bytes_.get(), bytes.data(), bytes.size());
        record_.data = bytes_.get();
    }
    std::span<const uint8_t> get() const { return DbBytesOf(record_); }

  private:
    std::unique_ptr<char[]> bytes_;
    ObjData record_;
};

ObjTemplate* Template(const std::string& format)
{
    ObjTemplate* made = nullptr;
    EXPECT_EQ(
        ObjTemplateCreateInternal(&made, OBJ_SIZE_COMPUTED, 0xcabd0001, format.c_str(), nullptr),
        1u);
    return made;
}

bool Decode(Held& out, const std::string& format, const std::string& bytes)
{
    const ExactRecord record(bytes);
    return DbDecodeRecord(out.out(), 0xcabd0001, format.c_str(), record.get());
}

// The bytes do not decode, a failure of this module is traced, and nothing is left behind.
void ExpectRefused(const std::string& format, const std::string& bytes)
{
    Template(format);
    const uint32_t pieces = MemLiveCount();
    const uint32_t objects = ObjLiveCount(0);
    {
        TraceRecorder trace;
        Held out;
        EXPECT_EQ(Decode(out, format, bytes), 0u) << format;
        EXPECT_EQ(out.get(), nullptr);
        EXPECT_TRUE(trace.hasPart("Damaged record of ")) << trace.dump();
        EXPECT_EQ(trace.countLevel(-1), 1u);
        EXPECT_EQ(trace.lines().back().tag, TAG);
    }
    EXPECT_EQ(MemLiveCount(), pieces);
    EXPECT_EQ(ObjLiveCount(0), objects);
}

// The seed of the random tests: NIM_TEST_SEED, to replay one, or always the same.
uint32_t Seed()
{
    const char* chosen = std::getenv("NIM_TEST_SEED");
    const uint32_t seed =
        chosen ? static_cast<uint32_t>(std::strtoul(chosen, nullptr, 0)) : 20240917;
    std::cout << "NIM_TEST_SEED=" << seed << "\n";
    return seed;
}

// Nothing reaches the standard error while it lives.
class SilentTrace {
  public:
    SilentTrace()
    {
        TraceSetSink([](void*, const TraceLine*) {}, nullptr, -1);
    }
    ~SilentTrace() { TraceSetSink(nullptr, nullptr, 0); }
};

} // namespace

// ---- damaged slots ----------------------------------------------------------------------------

TEST(DbRecordDamage, RecordShorterThanItsFixedPartIsRefused)
{
    for (size_t size = 0; size < 16; ++size)
        ExpectRefused("i;b;", std::string(size, '\0'));
    Held out;
    EXPECT_EQ(Decode(out, "i;b;", std::string(16, '\0')), 1u);
}

TEST(DbRecordDamage, RecordWithoutBytesIsRefused)
{
    Template("i;b;");
    TraceRecorder trace;
    Held out;
    EXPECT_FALSE(DbDecodeRecord(out.out(), 0xcabd0001, "i;b;", DbBytesOf({16, 0, nullptr})));
    EXPECT_EQ(trace.countLevel(-1), 1u);
}

TEST(DbRecordDamage, SlotThatPointsOutsideTheRecordIsRefused)
{
    const std::string head(4, '\0');
    const std::string tail = std::string(4, '\0') + "abc" + '\0'; // offsets 12 to 19
    for (const char* format : {"s;", "o;", "d;", "n4;"}) {
        ExpectRefused(format, head + Word(4) + Word(17) + tail);
        ExpectRefused(format, head + Word(4) + Word(20) + tail);
        ExpectRefused(format, head + Word(4) + Word(0xFFFFFFFF) + tail);
        ExpectRefused(format, head + Word(4) + Word(0x80000000) + tail);
        ExpectRefused(format, head + Word(0x7FFFFFFF) + Word(16) + tail);
        ExpectRefused(format, head + Word(1) + Word(20) + tail);
    }
    // Unsigned lengths: a negative one is long.
    for (const char* format : {"d;", "n4;"}) {
        ExpectRefused(format, head + Word(0xFFFFFFFF) + Word(16) + tail);
        ExpectRefused(format, head + Word(0xFFFFFFF0) + Word(0x20) + tail);
        ExpectRefused(format, head + Word(0x80000000) + Word(0) + tail);
    }
}

TEST(DbRecordDamage, LengthZeroOrBelowLeavesTextAndObjectNullWhateverTheOffset)
{
    for (uint32_t length : {0u, 0x80000000u, 0xFFFFFFFFu}) {
        for (const char* format : {"s;", "o;"}) {
            TraceRecorder trace;
            Held out;
            ASSERT_EQ(
                Decode(
                    out, format,
                    std::string(4, '\0') + Word(length) + Word(0xFFFFFFFF) + std::string(4, '\0')),
                1u);
            EXPECT_EQ(Item<void*>(out.get(), 0), nullptr);
            EXPECT_EQ(trace.countLevel(-1), 0u);
        }
    }
}

TEST(DbRecordDamage, NegativeLengthOfANestedObjectIsTracedAsSuch)
{
    TraceRecorder trace;
    Held out;
    ASSERT_EQ(
        Decode(out, "o;", std::string(4, '\0') + Word(0xFFFFFFFE) + Word(0xABC) + Word(0)), 1u);
    EXPECT_TRUE(trace.has(TAG, 0, 4, "Reconstruct Object from -2 bytes at abc")) << trace.dump();
}

TEST(DbRecordDamage, TextWithoutNulIsCutAtItsStatedLength)
{
    const std::string bytes =
        std::string(4, '\0') + Word(3) + Word(16) + std::string(4, '\0') + "abcdef";
    Held out;
    ASSERT_EQ(Decode(out, "s;", bytes), 1u);
    EXPECT_STREQ(Item<char*>(out.get(), 0), "abc");
    Held whole;
    ASSERT_EQ(
        Decode(whole, "s;", std::string(4, '\0') + Word(6) + Word(16) + Word(0) + "abcdef"), 1u);
    EXPECT_STREQ(Item<char*>(whole.get(), 0), "abcdef");
}

TEST(DbRecordDamage, TextEndsAtItsFirstNul)
{
    Held out;
    ASSERT_EQ(
        Decode(
            out, "s;",
            std::string(4, '\0') + Word(6) + Word(16) + Word(0) + std::string("ab\0de\0", 6)),
        1u);
    EXPECT_STREQ(Item<char*>(out.get(), 0), "ab");
}

TEST(DbRecordDamage, NestedFormCutShortInsideTheRecordIsLeftOut)
{
    Instance object(0xcabd0001, "o;s;");
    object.at<void*>(0) = ObjStringNew("a nested object");
    object.setText(1, "x");
    Held blob = Encoded(object.get());
    std::string bytes = RecordBytes(blob.get());
    const uint32_t length = static_cast<uint8_t>(bytes[4]);
    for (uint32_t cut = 1; cut < length; ++cut) {
        bytes.replace(4, 4, Word(cut));
        TraceRecorder trace;
        Held out;
        ASSERT_EQ(Decode(out, "o;s;", bytes), 1u);
        EXPECT_EQ(Item<void*>(out.get(), 0), nullptr);
        EXPECT_STREQ(Item<char*>(out.get(), 1), "x");
        EXPECT_TRUE(trace.has(TAG, 0, -1, "Reconstruct failed"));
    }
}

TEST(DbRecordDamage, RecordCutAnywhereNeverDecodes)
{
    Instance object(0xcabd0001, "s;d;o;n7;");
    object.setText(0, "text");
    object.setData(1, "data");
    object.at<void*>(2) = ObjIntegerNew(3);
    Held blob = Encoded(object.get());
    const std::string bytes = RecordBytes(blob.get());
    for (size_t size = 0; size < bytes.size(); ++size)
        ExpectRefused("s;d;o;n7;", bytes.substr(0, size));
}

// ---- inline arrays longer or shorter than the template says -----------------------------------

TEST(DbRecordArray, StoredLengthCountsUpToTheEndOfTheObject)
{
    // The array at 0, the integer at 4; the object ends at 8.
    const std::string slots = std::string(4, '\0') + Word(8) + Word(16) + Word(0x11223344);
    Held out;
    ASSERT_EQ(Decode(out, "n4;i;", slots + "ABCDEFGH"), 1u);
    EXPECT_EQ(std::memcmp(&Item<uint8_t>(out.get(), 0), "ABCD", 4), 0);
    EXPECT_EQ(Item<int32_t>(out.get(), 1), 0x11223344);
    ExpectRefused("n4;i;", std::string(4, '\0') + Word(9) + Word(16) + Word(0) + "ABCDEFGHI");
}

TEST(DbRecordArray, RoundingBehindTheLastArrayBelongsToTheObject)
{
    Held out;
    ASSERT_EQ(Decode(out, "n5;", std::string(4, '\0') + Word(8) + Word(16) + "....ABCDEFGH"), 1u);
    EXPECT_EQ(std::memcmp(out.get(), "ABCDEFGH", 8), 0);
    ExpectRefused("n5;", std::string(4, '\0') + Word(9) + Word(16) + "....ABCDEFGHI");
}

TEST(DbRecordArray, ShorterStoredLengthLeavesTheRestZero)
{
    Held out;
    ASSERT_EQ(Decode(out, "n5;", std::string(4, '\0') + Word(2) + Word(16) + "....AB"), 1u);
    EXPECT_EQ(std::memcmp(out.get(), "AB\0\0\0\0\0\0", 8), 0);
}

// The array runs over a text, a data block, an integer, a nested object and half of a 64-bit
// integer. Their own slots put back what they hold; what is absent must not keep array bytes as a
// pointer, or releasing the object would free them.
TEST(DbRecordArray, PointersItRanOverAreNullAgain)
{
    const char* format = "n4;s;d;i;o;q;"; // at 0, 8, 16, 32, 40, 48; the end is 56
    const std::string head = std::string(4, '\0') + Word(52) + Word(48) // n4
                             + Word(0) + Word(0)                        // s
                             + Word(2) + Word(48)                       // d
                             + Word(7)                                  // i
                             + Word(0xFFFFFFFF) + Word(0)               // o
                             + Word(1) + Word(0);                       // q
    ASSERT_EQ(head.size(), 48u);
    Held out;
    ASSERT_EQ(Decode(out, format, head + std::string(52, '\xCC')), 1u);
    EXPECT_EQ(Item<char*>(out.get(), 1), nullptr);
    EXPECT_EQ(DataBytes(Item<ObjData>(out.get(), 2)), "\xCC\xCC");
    EXPECT_EQ(Item<int32_t>(out.get(), 3), 7);
    EXPECT_EQ(Item<void*>(out.get(), 4), nullptr);
    EXPECT_EQ(Item<int64_t>(out.get(), 5), 1);
    // It did run over them: the room between the items still tells.
    EXPECT_EQ(std::memcmp(static_cast<char*>(out.get()) + 4, "\xCC\xCC\xCC\xCC", 4), 0);
    EXPECT_EQ(std::memcmp(static_cast<char*>(out.get()) + 36, "\xCC\xCC\xCC\xCC", 4), 0);
}

TEST(DbRecordArray, FailureBehindAnOverrunFreesNoStrayPointer)
{
    CrashRecorder crash; // the pool would report a foreign pointer through it
    const std::string head = std::string(4, '\0') + Word(48) + Word(36) + Word(1) + Word(0xFFFF) +
                             Word(0) + Word(0) + Word(0) + Word(0);
    ASSERT_EQ(head.size(), 36u);
    ExpectRefused("n4;d;s;o;s;", head + Word(0) + Word(0) + std::string(60, '\xCC'));
    EXPECT_EQ(crash.count(), 0u);
}

TEST(DbRecordArray, OverrunOfItemsWithoutDatabaseFormFreesNoStrayPointer)
{
    const std::string bytes =
        std::string(4, '\0') + Word(32) + Word(16) + Word(0) + std::string(40, '\xCC');
    Template("n4;ol;sl;p;");
    const uint32_t pieces = MemLiveCount();
    {
        CrashRecorder crash;
        TraceRecorder trace;
        Held out;
        EXPECT_EQ(Decode(out, "n4;ol;sl;p;", bytes), 0u);
        EXPECT_EQ(trace.count("Should not get these"), 3u);
        EXPECT_EQ(trace.countLevel(-1), 3u);
        EXPECT_EQ(crash.count(), 3u);
    }
    EXPECT_EQ(MemLiveCount(), pieces);
}

TEST(DbRecordArray, LastItemOfEachKindMarksTheEndOfTheObject)
{
    // The array at 0, then the item at 8 with its width: one byte beyond is refused.
    const struct {
        const char* format;
        uint32_t end;
    } cases[] = {{"n4;b;", 8},  {"n4;i;", 8},  {"n4;s;", 16}, {"n4;o;", 16},
                 {"n4;q;", 16}, {"n4;d;", 24}, {"n4;u;", 40}, {"n4;n9;", 16}};
    for (const auto& c : cases) {
        const uint32_t fixed = ObjGetDbDataFromTemplate(Template(c.format))->fixedSize;
        std::string bytes(fixed, '\0');
        bytes += std::string(64, '\x55');
        bytes.replace(4, 8, Word(c.end) + Word(fixed));
        Held out;
        EXPECT_EQ(Decode(out, c.format, bytes), 1u) << c.format;
        bytes.replace(4, 4, Word(c.end + 1));
        ExpectRefused(c.format, bytes);
    }
}

// ---- limits of the encoder --------------------------------------------------------------------

TEST(DbRecordLimit, RecordAboveTwoGibibytesIsRefusedBeforeAByteIsTouched)
{
    Instance object(0xcabd0001, "d;");
    char one = 0;
    object.at<ObjData>(0) = {0x7FFFFFFF, 0, &one}; // with the fixed part 16 bytes too many
    const uint32_t pieces = MemLiveCount();
    FaultResetCalls();
    TraceRecorder trace;
    void* blob = &one;
    EXPECT_EQ(DbConvertObjectToDbFormat(&blob, object.get()), 0u);
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 0u);
    FaultStopCalls();
    EXPECT_EQ(blob, nullptr);
    EXPECT_EQ(MemLiveCount(), pieces);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Record of 2147483663 bytes is too long")) << trace.dump();
    EXPECT_EQ(trace.texts().size(), 1u);
    object.at<ObjData>(0) = {};
}

TEST(DbRecordLimit, LengthsThatWrapThirtyTwoBitsAreRefused)
{
    Instance object(0xcabd0001, "d;d;");
    char one = 0;
    object.at<ObjData>(0) = {0xFFFFFFFF, 0, &one};
    object.at<ObjData>(1) = {0xFFFFFFFF, 0, &one};
    TraceRecorder trace;
    Held blob;
    EXPECT_EQ(DbConvertObjectToDbFormat(blob.out(), object.get()), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Record of 8589934610 bytes is too long")) << trace.dump();
    object.at<ObjData>(0) = {};
    object.at<ObjData>(1) = {};
}

TEST(DbRecordLimit, DataThatCountsBytesAndHoldsNoneIsRefused)
{
    Instance object(0xcabd0001, "d;");
    object.at<ObjData>(0) = {5, 0, nullptr};
    TraceRecorder trace;
    Held blob;
    EXPECT_EQ(DbConvertObjectToDbFormat(blob.out(), object.get()), 0u);
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Data of 5 bytes has none")) << trace.dump();
}

// ---- faults -----------------------------------------------------------------------------------

namespace {

// Runs `operation` with the n-th allocation failing (and, the second time, all from the n-th on)
// for every n, until no allocation is left to fail. Nothing may stay allocated in any run.
template <typename Operation>
void WithEveryAllocationFailing(Operation operation)
{
    for (uint32_t times : {1u, 0u}) {
        uint32_t nth = 0;
        uint32_t hits = 0;
        do {
            ++nth;
            const uint32_t pieces = MemLiveCount();
            const uint32_t objects = ObjLiveCount(0);
            const FaultRule rule = {FAULT_ALLOC, nullptr, nth, times, FAULT_FAIL, 0};
            const uint32_t id = FaultArm(&rule);
            ASSERT_NE(id, 0u);
            operation([id] { return FaultHits(id) != 0; });
            hits = FaultHits(id);
            FaultDisarmAll();
            EXPECT_EQ(MemLiveCount(), pieces) << "allocation " << nth;
            EXPECT_EQ(ObjLiveCount(0), objects) << "allocation " << nth;
        } while (hits != 0 && nth < 1000);
        EXPECT_GE(nth, 2u); // something was there to fail
        EXPECT_LT(nth, 1000u);
    }
}

// An object with something in every kind of item.
class DbRecordFault : public testing::Test {
  protected:
    DbRecordFault() : object_(0xcabd0002, "i;s;d;o;q;u;n5;s;b;")
    {
        object_.at<int32_t>(0) = 1;
        object_.setText(1, "first");
        object_.setData(2, "bytes");
        object_.at<void*>(3) = ObjStringNew("nested");
        object_.setText(7, "second");
        // Whatever is made once and kept is made here.
        Held blob = Encoded(object_.get());
        Held back = Decoded(blob.get());
    }
    Instance object_;
    SilentTrace silent_;
};

} // namespace

TEST_F(DbRecordFault, EncodingWithoutMemoryFailsAndLeavesNothing)
{
    WithEveryAllocationFailing([this](auto struck) {
        Held blob;
        const NimBool encoded = DbConvertObjectToDbFormat(blob.out(), object_.get());
        EXPECT_EQ(encoded, struck() ? 0u : 1u);
        EXPECT_EQ(blob.get() != nullptr, encoded == 1);
    });
}

TEST_F(DbRecordFault, DecodingWithoutMemoryFailsOrLeavesOutTheNestedObject)
{
    Held blob = Encoded(object_.get());
    WithEveryAllocationFailing([&blob](auto struck) {
        Held back;
        const NimBool decoded = DbConvertObjectFromDbFormat(back.out(), blob.get());
        EXPECT_EQ(back.get() != nullptr, decoded == 1);
        if (decoded) {
            EXPECT_EQ(Item<void*>(back.get(), 3) == nullptr, struck());
            EXPECT_STREQ(Item<char*>(back.get(), 1), "first");
            EXPECT_STREQ(Item<char*>(back.get(), 7), "second");
        } else {
            EXPECT_TRUE(struck());
        }
    });
}

TEST_F(DbRecordFault, SerialisationThatFailsFailsTheEncoding)
{
    for (uint32_t nth : {1u, 2u}) {
        const uint32_t pieces = MemLiveCount();
        const FaultRule rule = {FAULT_SERIALIZE, nullptr, nth, 1, FAULT_FAIL, 0};
        const uint32_t id = FaultArm(&rule);
        TraceRecorder trace;
        Held blob;
        const NimBool encoded = DbConvertObjectToDbFormat(blob.out(), object_.get());
        const bool struck = FaultHits(id) != 0;
        FaultDisarmAll();
        EXPECT_TRUE(nth > 1 || struck); // the point may be passed by the sizing or not
        EXPECT_EQ(encoded, struck ? 0u : 1u);
        if (struck) {
            EXPECT_TRUE(trace.hasPart("Failed to serialise object at '")) << trace.dump();
            EXPECT_EQ(MemLiveCount(), pieces);
        }
    }
}

TEST_F(DbRecordFault, ReconstructionThatFailsIsTracedAndLeavesTheItemNull)
{
    Held blob = Encoded(object_.get());
    const FaultRule rule = {FAULT_RECONSTRUCT, nullptr, 1, 1, FAULT_FAIL, 0};
    const uint32_t id = FaultArm(&rule);
    TraceRecorder trace;
    Held back;
    EXPECT_EQ(DbConvertObjectFromDbFormat(back.out(), blob.get()), 1u);
    EXPECT_EQ(FaultHits(id), 1u);
    FaultDisarmAll();
    EXPECT_TRUE(trace.has(TAG, 0, -1, "Reconstruct failed"));
    EXPECT_EQ(Item<void*>(back.get(), 3), nullptr);
    EXPECT_STREQ(Item<char*>(back.get(), 7), "second");
}

// ---- random templates and values --------------------------------------------------------------

namespace {

using Random = std::mt19937;

uint32_t Below(Random& random, uint32_t n)
{
    return static_cast<uint32_t>(random() % n);
}

std::string RandomBytes(Random& random, uint32_t longest, bool withNul)
{
    std::string bytes(Below(random, longest + 1), '\0');
    for (char& c : bytes)
        c = static_cast<char>(withNul ? random() : 1 + Below(random, 255));
    return bytes;
}

std::string RandomFormat(Random& random, bool storable)
{
    const uint32_t items = Below(random, 20) == 0 ? 60 + Below(random, 40) : 1 + Below(random, 12);
    std::string format;
    bool hasNone = storable; // whether an item without a database form is in it, when one must be
    for (uint32_t i = 0; i < items || !hasNone; ++i) {
        const uint32_t letter = Below(random, storable ? 8 : 11);
        static const char* const LETTERS[] = {"b", "i", "s", "o",  "d", "q",
                                              "u", "n", "p", "ol", "sl"};
        format += LETTERS[letter];
        if (letter == 7)
            format += std::to_string(1 + Below(random, 40));
        format += ';';
        hasNone = hasNone || letter > 7;
    }
    return format;
}

// An object with random values, and what its record must be: worked out here from the rules of the
// format alone, slot by slot, with nothing of the library's but the nested objects' form.
class RandomObject {
  public:
    RandomObject(Random& random, const std::string& format) : object_(0xcabd0003, format)
    {
        std::string slots(4, '\0');
        std::vector<size_t>
            offsets; // where slots hold an offset still counted from the variable part
        const ObjDbData* pDbData = ObjGetDbData(object_.get());
        for (int i = 0; i < pDbData->fieldCount; ++i) {
            const std::optional<std::string> variable =
                Fill(random, pDbData->fields[i].kind, pDbData->fields[i].arrayLength, i, slots);
            if (variable) {
                offsets.push_back(slots.size() + 4);
                slots += Word(static_cast<uint32_t>(variable->size())) +
                         Word(static_cast<uint32_t>(variable_.size()));
                variable_ += *variable;
            }
        }
        slots.resize(std::max<size_t>(slots.size(), 16), '\0');
        for (const size_t at : offsets) {
            uint32_t offset;
            std::memcpy(&offset, &slots[at], 4); // only little-endian machines run the tests
            slots.replace(at, 4, Word(offset + static_cast<uint32_t>(slots.size())));
        }
        expected_ = slots + variable_;
    }
    const Instance& object() const { return object_; }
    const std::string& expected() const { return expected_; }

    // Every item of `other` has the value of this object's.
    void ExpectEqual(void* other)
    {
        const ObjDbData* pDbData = ObjGetDbData(object_.get());
        for (int i = 0; i < pDbData->fieldCount; ++i) {
            switch (pDbData->fields[i].kind) {
            case DB_KIND_BOOLEAN:
            case DB_KIND_INTEGER:
                EXPECT_EQ(Item<int32_t>(other, i), object_.at<int32_t>(i));
                break;
            case DB_KIND_INT64:
                EXPECT_EQ(Item<int64_t>(other, i), object_.at<int64_t>(i));
                break;
            case DB_KIND_UNIQUE:
                EXPECT_TRUE(UniqueEqual(&Item<UniqueId>(other, i), &object_.at<UniqueId>(i)));
                break;
            case DB_KIND_STRING:
                EXPECT_EQ(StrCompare(Item<char*>(other, i), object_.at<char*>(i)), 0);
                EXPECT_EQ(Item<char*>(other, i) == nullptr, object_.at<char*>(i) == nullptr);
                break;
            case DB_KIND_DATA:
                EXPECT_EQ(DataBytes(Item<ObjData>(other, i)), DataBytes(object_.at<ObjData>(i)));
                break;
            case DB_KIND_ARRAY:
                EXPECT_EQ(
                    std::memcmp(
                        &Item<uint8_t>(other, i), &object_.at<uint8_t>(i),
                        static_cast<size_t>(pDbData->fields[i].arrayLength)),
                    0);
                break;
            default:
                ASSERT_EQ(Item<void*>(other, i) == nullptr, object_.at<void*>(i) == nullptr);
                EXPECT_EQ(Form(Item<void*>(other, i)), Form(object_.at<void*>(i)));
                break;
            }
        }
    }

  private:
    static std::string Form(const void* nested)
    {
        std::string form(ObjSerializedSize(nested), '\0');
        if (nested) {
            EXPECT_EQ(ObjSerializeToMemory(nested, form.data(), nullptr), 1u);
        }
        return form;
    }
    static void* RandomNested(Random& random)
    {
        switch (Below(random, 4)) {
        case 0:
            return nullptr;
        case 1:
            return ObjIntegerNew(static_cast<int32_t>(random()));
        case 2:
            return ObjStringNew(RandomBytes(random, 20, false).c_str());
        default: {
            void* list = ListNewFromPool(0, MemGetDefaultPoolId());
            for (uint32_t n = Below(random, 4); n > 0; --n) {
                void* item = ObjInt64New(static_cast<int64_t>(random()));
                EXPECT_EQ(ListPushLastItem(list, item), 1u);
            }
            return list;
        }
        }
    }
    // Sets item i. An inline item's bytes are appended to the slots, a variable item's returned.
    std::optional<std::string>
    Fill(Random& random, int32_t kind, int32_t arrayLength, int i, std::string& slots)
    {
        switch (kind) {
        case DB_KIND_BOOLEAN:
        case DB_KIND_INTEGER: {
            const uint32_t value = static_cast<uint32_t>(random());
            object_.at<uint32_t>(i) = value;
            slots += Word(value);
            return std::nullopt;
        }
        case DB_KIND_INT64: {
            const uint32_t low = static_cast<uint32_t>(random());
            const uint32_t high = static_cast<uint32_t>(random());
            object_.at<uint64_t>(i) = static_cast<uint64_t>(high) << 32 | low;
            slots += Word(low) + Word(high);
            return std::nullopt;
        }
        case DB_KIND_UNIQUE: {
            UniqueId& id = object_.at<UniqueId>(i);
            for (uint8_t& byte : id.b)
                byte = static_cast<uint8_t>(random());
            slots.append(reinterpret_cast<const char*>(id.b), sizeof id.b);
            return std::nullopt;
        }
        case DB_KIND_STRING: {
            if (Below(random, 4) == 0)
                return "";
            const std::string text = RandomBytes(random, 30, false);
            object_.setText(i, text);
            return text + '\0';
        }
        case DB_KIND_DATA: {
            const std::string bytes = RandomBytes(random, 40, true);
            if (!bytes.empty())
                object_.setData(i, bytes);
            return bytes;
        }
        case DB_KIND_ARRAY: {
            std::string bytes(static_cast<size_t>(arrayLength), '\0');
            for (char& c : bytes)
                c = static_cast<char>(random());
            std::memcpy(&object_.at<uint8_t>(i), bytes.data(), bytes.size());
            return bytes;
        }
        default:
            object_.at<void*>(i) = RandomNested(random);
            return Form(object_.at<void*>(i));
        }
    }

    Instance object_;
    std::string variable_;
    std::string expected_;
};

// Damages a record: bytes, words of slots set to numbers that matter, the length.
std::string Mutate(Random& random, std::string bytes, uint32_t fixedSize)
{
    const uint32_t size = static_cast<uint32_t>(bytes.size());
    const uint32_t words[] = {
        0,        1,         2,          4,        8,          size,       size - 1,
        size + 1, fixedSize, 0x7FFFFFFF, 1u << 31, 0xFFFFFFFF, 0xFFFFFFF0, size - fixedSize};
    for (uint32_t n = 1 + Below(random, 4); n > 0; --n) {
        if (Below(random, 3) == 0) {
            bytes[Below(random, size)] = static_cast<char>(random());
        } else {
            const uint32_t word = Below(random, 2) == 0
                                      ? words[Below(random, sizeof words / sizeof words[0])]
                                      : Below(random, size + 16);
            bytes.replace(4 + 4 * Below(random, (fixedSize - 4) / 4), 4, Word(word));
        }
    }
    if (Below(random, 8) == 0)
        bytes.resize(Below(random, size + 1));
    else if (Below(random, 8) == 0)
        bytes += RandomBytes(random, 40, true);
    return bytes;
}

} // namespace

TEST(DbRecordRandom, AnyObjectOfAnyTemplateComesBackFromTheBytesOfTheFormat)
{
    Random random(Seed());
    for (int t = 0; t < 300 && !testing::Test::HasFailure(); ++t) {
        const std::string format = RandomFormat(random, true);
        SCOPED_TRACE(format);
        for (int v = 0; v < 10; ++v) {
            RandomObject object(random, format);
            Held blob = Encoded(object.object().get());
            ASSERT_EQ(RecordBytes(blob.get()), object.expected());
            Held back = Decoded(blob.get());
            object.ExpectEqual(back.get());
            Held again = Encoded(back.get());
            EXPECT_EQ(RecordBytes(again.get()), object.expected());
        }
    }
}

// What decodes is a sound object: it can be encoded and released. What does not leaves nothing.
TEST(DbRecordRandom, DamagedRecordsOfAnyTemplateNeitherReadNorWriteOutside)
{
    Random random(Seed());
    SilentTrace silent;
    CrashRecorder crash; // for templates with items that have no database form
    constexpr int TEMPLATES = 300;
    constexpr int MUTATIONS = 1000;
    uint64_t decodedCount = 0;
    uint64_t refusedCount = 0;
    for (int t = 0; t < TEMPLATES && !testing::Test::HasFailure(); ++t) {
        const bool storable = t % 10 != 0;
        const std::string format = RandomFormat(random, storable);
        SCOPED_TRACE(format);
        Instance sample(0xcabd0003, format);
        const uint32_t fixedSize = ObjGetDbData(sample.get())->fixedSize;
        std::string bytes;
        if (storable) {
            bytes = RandomObject(random, format).expected();
        } else {
            bytes = std::string(fixedSize, '\0') + RandomBytes(random, 60, true);
        }
        const uint32_t objects = ObjLiveCount(0);
        const uint32_t pieces = MemLiveCount();
        for (int m = 0; m < MUTATIONS; ++m) {
            const ExactRecord record(Mutate(random, bytes, fixedSize));
            Held out;
            if (DbDecodeRecord(out.out(), 0xcabd0003, format.c_str(), record.get())) {
                ++decodedCount;
                Held again;
                ASSERT_TRUE(storable);
                ASSERT_EQ(DbConvertObjectToDbFormat(again.out(), out.get()), 1u);
            } else {
                ++refusedCount;
                ASSERT_EQ(out.get(), nullptr);
            }
            if (storable) {
                ASSERT_EQ(crash.count(), 0u); // a foreign pointer freed would be reported here
            }
            crash.clear();
        }
        EXPECT_EQ(ObjLiveCount(0), objects);
        EXPECT_LE(MemLiveCount(), pieces + 4); // a template met in a nested object stays
    }
    EXPECT_GT(decodedCount, 30000u);
    EXPECT_GT(refusedCount, 30000u);
}
