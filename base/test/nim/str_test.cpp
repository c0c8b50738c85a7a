// str_test.cpp: texts, by tables written by hand and against a plain model.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "nim/fault.h"
#include "nim/mem.h"
#include "nim/str.h"
#include "support/seed.h"

namespace {

int Sign(int32_t value)
{
    return (value > 0) - (value < 0);
}

// What is compared: up to the first NUL, as unsigned bytes, A to Z folded when asked.
std::vector<int> Seen(const char* text, size_t size, bool fold)
{
    std::vector<int> result;
    for (size_t i = 0; i < size && text[i] != 0; ++i) {
        int c = static_cast<unsigned char>(text[i]);
        result.push_back(fold && c >= 65 && c <= 90 ? c + 32 : c);
    }
    return result;
}

int Model(const std::string& a, const std::string& b, bool fold)
{
    std::vector<int> seenA = Seen(a.data(), a.size(), fold);
    std::vector<int> seenB = Seen(b.data(), b.size(), fold);
    return seenA < seenB ? -1 : seenB < seenA;
}

// The bytes in memory that ends with them, so that a sanitizer sees any read behind.
std::unique_ptr<char[]> Exactly(const std::string& bytes)
{
    std::unique_ptr<char[]> copy(new char[bytes.size()]);
    memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

// Compares with all seven, both ways round.
void ExpectOrder(const char* a, const char* b, int exact, int folded)
{
    SCOPED_TRACE(std::string(a ? a : "null") + " / " + (b ? b : "null"));
    EXPECT_EQ(Sign(StrCompare(a, b)), exact);
    EXPECT_EQ(Sign(StrCompare(b, a)), -exact);
    EXPECT_EQ(Sign(StrCompareNoCase(a, b)), folded);
    EXPECT_EQ(Sign(StrCompareNoCase(b, a)), -folded);
    EXPECT_EQ(Sign(StrCompareRange(a, b, 0xFFFFFFFF)), exact);
    EXPECT_EQ(Sign(StrCompareRange(b, a, 0xFFFFFFFF)), -exact);
    EXPECT_EQ(Sign(StrCompareRangeNoCase(a, b, 0xFFFFFFFF)), folded);
    EXPECT_EQ(Sign(StrCompareRangeNoCase(b, a, 0xFFFFFFFF)), -folded);
    uint32_t sizeA = StrSize(a);
    uint32_t sizeB = StrSize(b);
    EXPECT_EQ(Sign(StrCompareBounded(a, sizeA, b, sizeB)), exact);
    EXPECT_EQ(Sign(StrCompareBounded(b, sizeB, a, sizeA)), -exact);
    EXPECT_EQ(Sign(StrCompareBoundedNoCase(a, sizeA, b, sizeB)), folded);
    EXPECT_EQ(Sign(StrCompareBoundedNoCase(b, sizeB, a, sizeA)), -folded);
}

} // namespace

TEST(Str, SizeCountsTheNul)
{
    EXPECT_EQ(StrSize(nullptr), 0u);
    EXPECT_EQ(StrSize(""), 1u);
    EXPECT_EQ(StrSize("a"), 2u);
    EXPECT_EQ(StrSize("ab\0cd"), 3u);
}

TEST(Str, NullAndNothingAreEmpty)
{
    EXPECT_EQ(StrIsEmpty(nullptr), 1u);
    EXPECT_EQ(StrIsEmpty(""), 1u);
    EXPECT_EQ(StrIsEmpty(" "), 0u);
}

TEST(Str, ComparisonsGoByUnsignedByteAndFoldAToZOnly)
{
    ExpectOrder("", "", 0, 0);
    ExpectOrder("abc", "abc", 0, 0);
    ExpectOrder("abc", "abd", -1, -1);
    ExpectOrder("ab", "abc", -1, -1);
    ExpectOrder("", "a", -1, -1);
    ExpectOrder("ABC", "abc", -1, 0);
    ExpectOrder("aBcDeFgHiJkLmNoPqRsTuVwXyZ", "AbCdEfGhIjKlMnOpQrStUvWxYz", 1, 0);
    ExpectOrder("Z", "a", -1, 1);
    // The neighbours of the letters are no letters; folded letters are lower-case ones.
    ExpectOrder("@", "`", -1, -1);
    ExpectOrder("[", "{", -1, -1);
    ExpectOrder("_", "a", -1, -1);
    ExpectOrder("_", "A", 1, -1);
    ExpectOrder("\x7f", "\x80", -1, -1);
    ExpectOrder("a", "\xff", -1, -1);
    ExpectOrder("\xC4", "\xE4", -1, -1); // letters elsewhere, bytes here
    ExpectOrder("\xC3\x84", "\xC3\xA4", -1, -1);
    ExpectOrder("12345678", "12345679", -1, -1);
    ExpectOrder("0123456789abcdef", "0123456789ABCDEF", 1, 0);
    ExpectOrder("0123456789abcdefGHIJKLMNOP", "0123456789ABCDEFghijklmnoq", 1, -1);
    ExpectOrder("0123456789abcdef", "0123456789abcdef0", -1, -1);
}

TEST(Str, NullSortsFirst)
{
    ExpectOrder(nullptr, nullptr, 0, 0);
    ExpectOrder(nullptr, "", -1, -1);
    ExpectOrder(nullptr, "a", -1, -1);
}

TEST(Str, FoldingIsRightForEveryPairOfBytes)
{
    for (int a = 0; a < 256; ++a) {
        for (int b = 0; b < 256; ++b) {
            for (size_t where : {size_t{0}, size_t{5}, size_t{9}, size_t{20}}) {
                std::string textA(where, 'x');
                std::string textB(where, 'X');
                textA += static_cast<char>(a);
                textB += static_cast<char>(b);
                textA += "tail that is equal";
                textB += "tail that is equal";
                int model = Model(textA, textB, true);
                ASSERT_EQ(Sign(StrCompareNoCase(textA.c_str(), textB.c_str())), model)
                    << a << " " << b << " at " << where;
                ASSERT_EQ(
                    Sign(StrCompareBoundedNoCase(
                        textA.data(), static_cast<uint32_t>(textA.size()), textB.data(),
                        static_cast<uint32_t>(textB.size()))),
                    model)
                    << a << " " << b << " at " << where;
            }
        }
    }
}

TEST(Str, RangesStopAtTheCountAndAtANul)
{
    struct {
        const char* a;
        const char* b;
        uint32_t n;
        int exact;
        int folded;
    } cases[] = {
        {"IndexedX", "Indexed", 7, 0, 0},
        {"IndexedX", "Indexed", 8, 1, 1},
        {"Index", "Indexed", 7, -1, -1},
        {"indexed", "INDEXED", 7, 1, 0},
        {"indexed;Case", "Indexed", 7, 1, 0},
        {"a\0b", "a\0c", 3, 0, 0},
        {"abc", "xyz", 0, 0, 0},
        {"b", "a", 1, 1, 1},
        {"\xff", "a", 1, 1, 1},
        {"A", "b", 1, -1, -1},
        {nullptr, nullptr, 3, 0, 0},
        {nullptr, "", 1, -1, -1},
        {"", nullptr, 1, 1, 1},
        {nullptr, "abc", 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.a ? c.a : "null") + " / " + (c.b ? c.b : "null"));
        EXPECT_EQ(Sign(StrCompareRange(c.a, c.b, c.n)), c.exact);
        EXPECT_EQ(Sign(StrCompareRange(c.b, c.a, c.n)), -c.exact);
        EXPECT_EQ(Sign(StrCompareRangeNoCase(c.a, c.b, c.n)), c.folded);
        EXPECT_EQ(Sign(StrCompareRangeNoCase(c.b, c.a, c.n)), -c.folded);
    }
}

TEST(Str, RangesReadNothingBehindTheCount)
{
    std::unique_ptr<char[]> word = Exactly("Indexed");
    EXPECT_EQ(StrCompareRange(word.get(), "Indexed;", 7), 0);
    EXPECT_EQ(StrCompareRangeNoCase("INDEXED", word.get(), 7), 0);
}

TEST(Str, BoundedTextsEndAtTheirNulOrTheirSize)
{
    struct {
        std::string a;
        std::string b;
        int exact;
        int folded;
    } cases[] = {
        {"", "", 0, 0},
        {"abc", "abc", 0, 0},
        {"abc", std::string("abc\0", 4), 0, 0},
        {"abc", std::string("abc\0\0\0\0\0\0\0\0\0\0\0\0\0", 16), 0, 0},
        {std::string("abc\0xyz", 7), std::string("abc\0aaa", 7), 0, 0},
        {std::string("abcdefg\0xyzxyzxyz", 17), std::string("abcdefg\0aaa", 11), 0, 0},
        {std::string("abcdefgh\0xyzxyzxyz", 18), std::string("abcdefgh", 8), 0, 0},
        {std::string("ABCDEFGH\0xyzxyzxyz", 18), std::string("abcdefgh\0q", 10), -1, 0},
        {"", std::string("\0abc", 4), 0, 0},
        {"abc", "abcd", -1, -1},
        {std::string("abc\0", 4), "abcd", -1, -1},
        {"abcdefghi", "abcdefgh", 1, 1},
        {"abcdefgh", "abcdefgz", -1, -1},
        {"abcdefgH", "abcdefgz", -1, -1},
        {"Bbcdefghij", "abcdefghij", -1, 1},
        {"\xff", "\x01", 1, 1},
        {"abcdefg\x80", "abcdefg\x7f", 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.a + " / " + c.b);
        std::unique_ptr<char[]> a = Exactly(c.a);
        std::unique_ptr<char[]> b = Exactly(c.b);
        uint32_t sizeA = static_cast<uint32_t>(c.a.size());
        uint32_t sizeB = static_cast<uint32_t>(c.b.size());
        EXPECT_EQ(Sign(StrCompareBounded(a.get(), sizeA, b.get(), sizeB)), c.exact);
        EXPECT_EQ(Sign(StrCompareBounded(b.get(), sizeB, a.get(), sizeA)), -c.exact);
        EXPECT_EQ(Sign(StrCompareBoundedNoCase(a.get(), sizeA, b.get(), sizeB)), c.folded);
        EXPECT_EQ(Sign(StrCompareBoundedNoCase(b.get(), sizeB, a.get(), sizeA)), -c.folded);
    }
}

TEST(Str, RandomTextsCompareAsThePlainModelSays)
{
    std::mt19937_64 random(TestSeed());
    const std::string alphabet("aAbBzZ[@`{\x7f\x80\xC1\xE1\xff\0", 16);
    for (int round = 0; round < 60000; ++round) {
        // Mostly a common beginning, so that the difference lies anywhere in a word.
        std::string a;
        std::string b;
        size_t common = random() % 28;
        for (size_t i = 0; i < common; ++i) {
            a += alphabet[random() % (i % 7 == 6 ? 16 : 15)];
            b += random() % 16 ? a.back() : static_cast<char>(a.back() ^ 0x20);
        }
        for (size_t n = random() % 12; n > 0; --n)
            a += alphabet[random() % 16];
        for (size_t n = random() % 12; n > 0; --n)
            b += alphabet[random() % 16];
        int exact = Model(a, b, false);
        int folded = Model(a, b, true);
        std::unique_ptr<char[]> exactA = Exactly(a);
        std::unique_ptr<char[]> exactB = Exactly(b);
        uint32_t sizeA = static_cast<uint32_t>(a.size());
        uint32_t sizeB = static_cast<uint32_t>(b.size());
        ASSERT_EQ(Sign(StrCompareBounded(exactA.get(), sizeA, exactB.get(), sizeB)), exact);
        ASSERT_EQ(Sign(StrCompareBoundedNoCase(exactA.get(), sizeA, exactB.get(), sizeB)), folded);
        ASSERT_EQ(Sign(StrCompare(a.c_str(), b.c_str())), exact);
        ASSERT_EQ(Sign(StrCompareNoCase(a.c_str(), b.c_str())), folded);
        uint32_t n = static_cast<uint32_t>(random() % 40);
        exact =
            Model(std::string(a.c_str()).substr(0, n), std::string(b.c_str()).substr(0, n), false);
        folded =
            Model(std::string(a.c_str()).substr(0, n), std::string(b.c_str()).substr(0, n), true);
        ASSERT_EQ(Sign(StrCompareRange(a.c_str(), b.c_str(), n)), exact);
        ASSERT_EQ(Sign(StrCompareRangeNoCase(a.c_str(), b.c_str(), n)), folded);
    }
}

TEST(Str, FindsTheFirstOccurrence)
{
    const char* text = "table.new.new";
    EXPECT_EQ(StrFindSubString(text, ".new"), text + 5);
    EXPECT_EQ(StrFindSubString(text, ".NEW"), nullptr);
    EXPECT_EQ(StrFindSubString(text, ".newer"), nullptr);
    EXPECT_EQ(StrFindSubString(text, ""), text);
    EXPECT_EQ(StrFindSubString(text, text), text);
    EXPECT_EQ(StrFindSubString("", ".new"), nullptr);
    EXPECT_EQ(StrFindSubString(nullptr, ".new"), nullptr);
    EXPECT_EQ(StrFindSubString(text, nullptr), nullptr);
}

TEST(Str, GetCharStopsAtTheNul)
{
    const char* text = "a\xff";
    const char* cursor = text;
    EXPECT_EQ(StrGetChar(&cursor), 97u);
    EXPECT_EQ(cursor, text + 1);
    EXPECT_EQ(StrGetChar(&cursor), 255u);
    EXPECT_EQ(StrGetChar(&cursor), 0u);
    EXPECT_EQ(StrGetChar(&cursor), 0u);
    EXPECT_EQ(cursor, text + 2);
    cursor = nullptr;
    EXPECT_EQ(StrGetChar(&cursor), 0u);
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(StrGetChar(nullptr), 0u);
}

TEST(Str, NextCharMatchLooksFromThePlaceOn)
{
    const char* text = "ab;cd;\xff";
    EXPECT_EQ(StrNextCharMatch(text, ';'), text + 2);
    EXPECT_EQ(StrNextCharMatch(text + 2, ';'), text + 2);
    EXPECT_EQ(StrNextCharMatch(text + 3, ';'), text + 5);
    EXPECT_EQ(StrNextCharMatch(text + 6, ';'), nullptr);
    EXPECT_EQ(StrNextCharMatch(text, 0xFF), text + 6);
    EXPECT_EQ(StrNextCharMatch(text, 0), text + 7);
    EXPECT_EQ(StrNextCharMatch(text, 0x100 + ';'), nullptr);
    EXPECT_EQ(StrNextCharMatch("", ';'), nullptr);
    EXPECT_EQ(StrNextCharMatch(nullptr, ';'), nullptr);
}

TEST(Str, DuplicatesAreOnesOwn)
{
    uint32_t pool = MemGetDefaultPoolId();
    uint32_t live = MemLiveCount();
    const char* text = "text";
    char* copy = StrDuplicateIntoPool(text, pool);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, "text");
    MemFree(copy);
    copy = StrDuplicateIntoPool("", pool);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, "");
    MemFree(copy);
    EXPECT_EQ(StrDuplicateIntoPool(nullptr, pool), nullptr);
    EXPECT_EQ(StrDuplicateIntoPool("text", 0), nullptr);
    EXPECT_EQ(MemLiveCount(), live);
}

TEST(Str, RangesAreDuplicatedByteForByte)
{
    uint32_t pool = MemGetDefaultPoolId();
    char* copy = StrDuplicateRangeIntoPool("Name;Indexed", pool, 4);
    EXPECT_STREQ(copy, "Name");
    MemFree(copy);
    copy = StrDuplicateRangeIntoPool("Name", pool, 0);
    EXPECT_STREQ(copy, "");
    MemFree(copy);
    copy = StrDuplicateRangeIntoPool("a\0b", pool, 3);
    EXPECT_EQ(memcmp(copy, "a\0b\0", 4), 0);
    MemFree(copy);
    std::unique_ptr<char[]> unended = Exactly("xyz");
    copy = StrDuplicateRangeIntoPool(unended.get(), pool, 3);
    EXPECT_STREQ(copy, "xyz");
    MemFree(copy);
    EXPECT_EQ(StrDuplicateRangeIntoPool(nullptr, pool, 0), nullptr);
    EXPECT_EQ(StrDuplicateRangeIntoPool(nullptr, pool, 3), nullptr);
    EXPECT_EQ(StrDuplicateRangeIntoPool("abc", 0, 3), nullptr);
    EXPECT_EQ(StrDuplicateRangeIntoPool("abc", pool, 0xFFFFFFFF), nullptr);
}

TEST(Str, NumbersPrintInDecimal)
{
    struct {
        int64_t value;
        const char* text;
    } cases[] = {
        {0, "0"},
        {7, "7"},
        {-7, "-7"},
        {INT64_MAX, "9223372036854775807"},
        {INT64_MIN, "-9223372036854775808"},
        {static_cast<int64_t>(static_cast<uint32_t>(-1)), "4294967295"},
    };
    for (const auto& c : cases) {
        char* text = StrFromInteger(c.value, MemGetDefaultPoolId());
        EXPECT_STREQ(text, c.text);
        MemFree(text);
    }
    EXPECT_EQ(StrFromInteger(1, 0), nullptr);
}

TEST(Str, WithoutMemoryCopiesAreNull)
{
    uint32_t live = MemLiveCount();
    FaultRule rule = {FAULT_ALLOC, nullptr, 1, 0, FAULT_FAIL, 0};
    FaultArm(&rule);
    EXPECT_EQ(StrDuplicateIntoPool("text", MemGetDefaultPoolId()), nullptr);
    EXPECT_EQ(StrDuplicateRangeIntoPool("text", MemGetDefaultPoolId(), 2), nullptr);
    EXPECT_EQ(StrFromInteger(1, MemGetDefaultPoolId()), nullptr);
    FaultDisarmAll();
    EXPECT_EQ(MemLiveCount(), live);
}
