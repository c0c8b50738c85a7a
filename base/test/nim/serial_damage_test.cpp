// serial_damage_test.cpp: what is no serialised form, what faults do to writing and reading one,
// and what damage does.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "nim/objmap.h"
#include "nim/serial_scene.h"

// ---- refusals -----------------------------------------------------------------------------------

TEST(SerialDamage, TheEnvelopeIsChecked)
{
    std::string good = Seal(New(MAGIC, "i;") + U32(7));
    Ref object = Reconstructed(good);
    ASSERT_NE(object.get(), nullptr);
    object = Ref();
    ASSERT_EQ(ObjReconstructFromMemory(object.out(), good.data()), 1u);
    EXPECT_EQ(Item<int32_t>(object.get(), 0), 7);
    object = Reconstructed(good + "whatever follows it");
    EXPECT_NE(object.get(), nullptr);

    void* out = &good;
    EXPECT_EQ(ObjReconstructFromMemory(&out, nullptr), 0u);
    EXPECT_EQ(out, nullptr);
    out = &good;
    EXPECT_EQ(ObjReconstructFromMemorySized(&out, nullptr, 100), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ObjReconstructFromMemory(nullptr, good.data()), 0u);
    char zeros[16128] = {};
    out = &good;
    EXPECT_EQ(ObjReconstructFromMemory(&out, zeros), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ObjReconstructFromMemorySized(&out, zeros, sizeof zeros), 0u);
    for (uint32_t available = 0; available < good.size(); ++available)
        EXPECT_EQ(Reconstructed(good.substr(0, available)).get(), nullptr) << available;

    auto refused = [&](size_t offset, uint32_t value) {
        std::string bad = good;
        PutU32At(bad, offset, value);
        const uint32_t memory = MemLiveCount();
        const bool none = Reconstructed(bad).get() == nullptr;
        EXPECT_EQ(MemLiveCount(), memory);
        return none;
    };
    EXPECT_TRUE(refused(0, 0x4F4D494D));
    EXPECT_TRUE(refused(4, 0));       // version 0
    EXPECT_TRUE(refused(4, 2));       // a later one
    EXPECT_TRUE(refused(4, 0x10001)); // the word behind it
    EXPECT_TRUE(refused(8, 0));
    EXPECT_TRUE(refused(8, 16));
    EXPECT_TRUE(refused(8, 0xFFFFFFFFu));
    EXPECT_TRUE(refused(12, 0));
}

TEST(SerialDamage, WhatIsNoValueIsRefused)
{
    std::string head = New(MAGIC, "o;i;");
    std::string list = New(OBJ_MAGIC_LIST, "");
    struct {
        const char* why;
        std::string value;
    } const cases[] = {
        {"the root is null", Byte(0)},
        {"the root is a reference", Byte(1) + Byte(0)},
        {"the root is of a template not met", Byte(2) + Byte(0) + U32(1)},
        {"no such tag", Byte(4)},
        {"no such tag inside", head + Byte(0xFF) + U32(1)},
        {"a reference to nothing met", head + Byte(1) + Byte(1) + U32(1)},
        {"a template not met", head + Byte(2) + Byte(1) + U32(1)},
        {"bytes behind the value", head + Byte(0) + U32(1) + Byte(0)},
        {"the value ends early", head + Byte(0) + "\1\0\0"},
        {"a number in more bytes than it needs", head + Byte(1) + "\x80" + Byte(0) + U32(1)},
        {"a number above 32 bits", head + Byte(1) + "\xFF\xFF\xFF\xFF\x1F" + U32(1)},
        {"a number that would wrap to one that is met",
         head + Byte(1) + "\x80\x80\x80\x80\x10" + U32(1)},
        {"a number without end", head + Byte(1) + std::string(20, '\xFF')},
        {"a number cut off", head + Byte(1) + "\x80"},
        {"a null format", Byte(3) + U32(MAGIC) + Byte(0)},
        {"an empty format", New(MAGIC, "")},
        {"a format that is none", New(MAGIC, "x;") + U32(1)},
        {"a format with a NUL", New(MAGIC, std::string("i;\0i;", 5)) + U32(1) + U32(1)},
        {"a format cut off", Byte(3) + U32(MAGIC) + Byte(100) + "i;"},
        {"a long format that is none", New(MAGIC, std::string(500, 'i')) + U32(1)},
        {"an object map", New(OBJ_MAGIC_MAP, "")},
        {"an object map of items", New(OBJ_MAGIC_MAP, "i;") + U32(1)},
        {"a list of items", New(OBJ_MAGIC_LIST, "i;") + U32(1)},
        {"a text longer than what is left", New(MAGIC, "s;") + Byte(5) + "abc"},
        {"a text with a NUL", New(MAGIC, "s;") + Byte(4) + std::string("a\0b", 3)},
        {"data longer than what is left", New(MAGIC, "d;") + Byte(4) + "abc"},
        {"an array longer than what is left", New(MAGIC, "n4;") + "abc"},
        {"a huge array", New(MAGIC, "n2147483647;") + "abc"},
        {"a list cut off", list + U32(0) + "\1\0"},
        {"a list of more items than bytes", list + U32(0) + U32(2) + Byte(0)},
        {"a list of a null", list + U32(0) + U32(1) + Byte(0)},
        {"a list of another magic", list + U32(MAGIC) + U32(1) + New(MAGIC + 1, "i;") + U32(1)},
        {"a list of many nothings", list + U32(0) + U32(0xFFFFFFFFu) + std::string(50, 0)},
    };
    for (const auto& one : cases) {
        Alive before;
        EXPECT_EQ(Reconstructed(Seal(one.value)).get(), nullptr) << one.why;
        EXPECT_EQ(Alive(), before) << one.why;
    }
}

TEST(SerialDamage, AHugeArrayIsRefusedBeforeAnythingIsAllocated)
{
    FaultResetCalls();
    EXPECT_EQ(Reconstructed(Seal(New(MAGIC + 8, "n2147483647;i;") + U32(0))).get(), nullptr);
    EXPECT_EQ(Reconstructed(Seal(New(MAGIC + 8, "n2000000000;i;") + U32(0))).get(), nullptr);
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 1u); // one template description; no body
    FaultResetCalls();
    TemplateOf(MAGIC + 8, "n2000000000;q;"); // one that the program vouches for
    EXPECT_EQ(Reconstructed(Seal(New(MAGIC + 8, "n2000000000;q;") + U32(0))).get(), nullptr);
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 1u);
    FaultStopCalls();
}

TEST(SerialDamage, MemoryIsBoundedByTheBytesUnlessTheProgramRegisteredTheTemplate)
{
    // Items that take no bytes: 8,000 a body of 64,000 bytes, two bytes an object.
    std::string format;
    for (int i = 0; i < 8000; ++i)
        format += "p;";
    std::string value = New(OBJ_MAGIC_LIST, "") + U32(0) + U32(4000) + New(MAGIC + 9, format);
    for (int i = 1; i < 4000; ++i)
        value += Byte(2) + Byte(1);
    Alive before;
    EXPECT_EQ(Reconstructed(Seal(value)).get(), nullptr); // 256 MB out of 24 KB
    EXPECT_EQ(Alive(), before);

    // A tail is as long as the program made it.
    TemplateOf(MAGIC + 10, "p;", nullptr, 65536);
    value = New(OBJ_MAGIC_LIST, "") + U32(0) + U32(500) + New(MAGIC + 10, "p;");
    for (int i = 1; i < 500; ++i)
        value += Byte(2) + Byte(1);
    EXPECT_NE(Reconstructed(Seal(value)).get(), nullptr);
}

// ---- faults -------------------------------------------------------------------------------------

TEST(SerialDamage, FaultsFailTheOperationAndNothingElse)
{
    Ref object(ObjIntegerNew(5));
    std::string good = Serialised(object.get());
    std::string dest(good.size(), 0x77);
    FaultRule rule = {FAULT_SERIALIZE, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    uint32_t size = 5;
    EXPECT_EQ(ObjSerializedSize(object.get()), good.size());
    EXPECT_EQ(ObjSerializeToMemory(object.get(), dest.data(), &size), 0u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(dest, std::string(good.size(), 0x77));
    EXPECT_EQ(ObjSerializeToMemory(object.get(), dest.data(), &size), 1u);
    FaultDisarmAll();
    rule.point = FAULT_RECONSTRUCT;
    FaultArm(&rule);
    EXPECT_EQ(Reconstructed(good).get(), nullptr);
    EXPECT_NE(Reconstructed(good).get(), nullptr);
    FaultDisarmAll();
}

TEST(SerialDamage, WritingSurvivesEveryAllocationFailure)
{
    Ref table = WideTable(600, 12, ""); // more objects than find room on the stack
    std::string good = Serialised(table.get());
    for (uint32_t n = 1;; ++n) {
        std::string dest(good.size(), 0x77);
        FaultRule rule = {FAULT_ALLOC, nullptr, n, 1, FAULT_FAIL, 0};
        uint32_t id = FaultArm(&rule);
        uint32_t size = 5;
        NimBool written = ObjSerializeToMemory(table.get(), dest.data(), &size);
        uint32_t hits = FaultHits(id);
        FaultDisarmAll();
        if (hits == 0) {
            EXPECT_EQ(written, 1u);
            EXPECT_EQ(dest, good);
            EXPECT_GT(n, 2u);
            break;
        }
        EXPECT_EQ(written, 0u);
        EXPECT_EQ(size, 0u);
    }
    Dissolve(std::move(table));
}

TEST(SerialDamage, WritingASmallGraphTakesNoMemory)
{
    Ref table = WideTable(150, 12, "");
    std::string form = Serialised(table.get());
    FaultResetCalls();
    EXPECT_EQ(Serialised(table.get()), form);
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 0u);
    FaultStopCalls();
    Dissolve(std::move(table));
}

TEST(SerialDamage, ReadingSurvivesEveryFault)
{
    Alive before;
    for (uint32_t n = 1;; ++n) {
        // Templates of its own each time, so that making them are steps that fail, too; more
        // objects than find room on the stack; every one refers back to the list.
        uint32_t magic = MAGIC + 0x1000 * (FAULT_ALLOC + 1) + n;
        std::string body = Text("text") + "\x05" + "bytes" + Byte(1) + Byte(0);
        std::string value =
            New(OBJ_MAGIC_LIST, "") + U32(0) + U32(201) + New(magic, "s;d;o;") + body;
        for (int i = 1; i < 150; ++i)
            value += Byte(2) + Byte(1) + body;
        for (int i = 0; i < 50; ++i)
            value += New(magic, "s;d;o;n" + std::to_string(i + 1)) + body +
                     std::string(static_cast<size_t>(i) + 1, 'x');
        // A format that is too long for the stack.
        std::string format;
        for (int i = 0; i < 70; ++i)
            format += "i;";
        value += New(magic, format) + std::string(280, 0);
        FaultRule rule = {FAULT_ALLOC, nullptr, n, 1, FAULT_FAIL, 0};
        uint32_t id = FaultArm(&rule);
        Ref object = Reconstructed(Seal(value));
        uint32_t hits = FaultHits(id);
        FaultDisarmAll();
        EXPECT_EQ(object.get() == nullptr, hits == 1) << n;
        if (object.get())
            Dissolve(std::move(object));
        ASSERT_EQ(Alive(), before) << n;
        if (hits == 0) {
            EXPECT_GT(n, 200u);
            break;
        }
    }
}

// ---- damage -------------------------------------------------------------------------------------

namespace {

// Reconstructs damaged bytes. Whatever comes of it: no crash, nothing left behind, and what was
// accepted is a graph that can be written and read again.
bool Survives(const std::string& form)
{
    uint32_t pieces = MemLiveCount();
    uint64_t bytes = MemLiveBytes();
    bool accepted = false;
    {
        Ref object = Reconstructed(form);
        accepted = object.get() != nullptr;
        if (accepted) {
            std::string again = Serialised(object.get());
            EXPECT_LE(again.size(), U32At(form, 8));
            Ref twice = Reconstructed(again);
            EXPECT_NE(twice.get(), nullptr);
            if (twice.get()) {
                EXPECT_EQ(Serialised(twice.get()), again);
                Dissolve(std::move(twice));
            }
            Dissolve(std::move(object));
        }
    }
    EXPECT_EQ(MemLiveCount(), pieces);
    EXPECT_EQ(MemLiveBytes(), bytes);
    return accepted;
}

} // namespace

TEST(SerialDamage, EveryFlippedBitIsNoticed)
{
    std::string golden = GoldenTable();
    for (size_t i = 0; i < golden.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string damaged = golden;
            damaged[i] = static_cast<char>(damaged[i] ^ 1 << bit);
            ASSERT_FALSE(Survives(damaged)) << i;
        }
        std::string damaged = golden;
        damaged[i] = static_cast<char>(~damaged[i]);
        ASSERT_FALSE(Survives(damaged)) << i;
    }
}

TEST(SerialDamage, EveryByteInEveryValueBehindAGoodChecksum)
{
    std::string golden = GoldenTable();
    int accepted = 0;
    for (size_t i = 16; i < golden.size(); ++i) {
        for (int value = 0; value < 256; ++value) {
            std::string damaged = golden;
            damaged[i] = static_cast<char>(value);
            accepted += Survives(Resealed(damaged));
            if (HasFailure())
                FAIL() << "byte " << i << " value " << value;
        }
    }
    EXPECT_GT(accepted, 1000); // numbers and letters may be anything
}

TEST(SerialDamage, EveryTruncationIsRefused)
{
    std::string golden = GoldenTable();
    for (size_t length = 0; length < golden.size(); ++length) {
        std::string cut = golden.substr(0, length);
        ASSERT_FALSE(Survives(cut)) << length;
        if (length < 16)
            continue;
        PutU32At(cut, 8, static_cast<uint32_t>(length));
        ASSERT_FALSE(Survives(Resealed(cut))) << length;
    }
}

TEST(SerialDamage, RandomDamageBehindAGoodChecksum)
{
    std::vector<std::string> seeds = {GoldenTable()};
    Ref wide = WideTable(9, 5, ";Indexed");
    seeds.push_back(Serialised(wide.get()));
    Dissolve(std::move(wide));
    const uint32_t seed = 20240607;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto roll = [&](size_t n) { return static_cast<size_t>(random() % n); };
    int accepted = 0;
    for (int round = 0; round < 200000; ++round) {
        std::string form = seeds[roll(seeds.size())];
        for (size_t changes = 1 + roll(4); changes > 0; --changes) {
            size_t at = 16 + roll(form.size() - 16);
            switch (roll(5)) {
            case 0:
                form[at] = static_cast<char>(random());
                break;
            case 1:
                form[at] = static_cast<char>(form[at] ^ 1 << roll(8));
                break;
            case 2: // a byte that means something
                form[at] = "\0\1\2\3\x80\xFF;osdinlpqu"[roll(17)];
                break;
            case 3: // take some out
                form.erase(at, 1 + roll(12));
                break;
            default: // repeat some
                form.insert(at, form.substr(16 + roll(form.size() - 16), 1 + roll(40)));
            }
            if (form.size() < 18)
                form.resize(18);
        }
        PutU32At(form, 8, static_cast<uint32_t>(form.size()));
        accepted += Survives(Resealed(form));
        if (HasFailure())
            FAIL() << "round " << round;
    }
    EXPECT_GT(accepted, 1000);
    EXPECT_LT(accepted, 199000);
}
