// quirks_texts_test.cpp: what texts, unique ids, trace and log do on purpose and keep doing: the
// order of keys in files, and what operators search for, depend on it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "nim/mem.h"
#include "nim/str.h"
#include "nim/unique.h"
#include "support/trace_recorder.h"

namespace {

#define TAG "QUIRKS        "

std::string Taken(char* text)
{
    const std::string copy = text ? text : "(null)";
    MemFree(text);
    return copy;
}
const uint32_t POOL = MemGetDefaultPoolId();

// ---- texts
// ---------------------------------------------------------------------------------------

TEST(TextQuirk, TheSizeOfATextCountsItsNulAndThatOfNoneIsZero)
{
    EXPECT_EQ(StrSize("abc"), 4u);
    EXPECT_EQ(StrSize(""), 1u);
    EXPECT_EQ(StrSize(nullptr), 0u);
    EXPECT_EQ(StrIsEmpty(""), 1u);
    EXPECT_EQ(StrIsEmpty(nullptr), 1u);
    EXPECT_EQ(StrIsEmpty(" "), 0u);
}

TEST(TextQuirk, TextsAreOrderedByUnsignedByteNotByTheLocale)
{
    EXPECT_LT(StrCompare("Z", "a"), 0);
    EXPECT_LT(StrCompare("z", "\xC3\xA4"), 0); // an umlaut comes behind every letter
    EXPECT_LT(StrCompare("ab", "abc"), 0);
    EXPECT_EQ(StrCompare("abc", "abc"), 0);
}

TEST(TextQuirk, OnlyLettersFromAToZHaveCases)
{
    EXPECT_EQ(StrCompareNoCase("aZ09", "Az09"), 0);
    EXPECT_NE(StrCompareNoCase("\xC3\xA4", "\xC3\x84"), 0);
    EXPECT_NE(StrCompareNoCase("[", "{"), 0); // as far apart as "A" and "a"
    EXPECT_NE(StrCompareNoCase("@", "`"), 0);
}

TEST(TextQuirk, NoTextComesBeforeTheEmptyOne)
{
    EXPECT_LT(StrCompare(nullptr, ""), 0);
    EXPECT_EQ(StrCompare(nullptr, nullptr), 0);
    EXPECT_GT(StrCompareNoCase("", nullptr), 0);
}

TEST(TextQuirk, ARangeAgreesWhenItsFirstCharactersDoAndNothingIsReadBehindIt)
{
    EXPECT_EQ(StrCompareRange("Indexed", "Index", 5), 0);
    EXPECT_NE(StrCompareRange("Indexed", "index", 5), 0);
    EXPECT_EQ(StrCompareRangeNoCase("Indexed", "iNd", 3), 0);
    EXPECT_NE(StrCompareRangeNoCase("Indexed", "Indexed1", 8), 0);
    EXPECT_EQ(StrCompareRange("a", "b", 0), 0);
    const char open[] = {'a', 'b'}; // no NUL
    EXPECT_EQ(StrCompareRange(open, "abc", 2), 0);
}

TEST(TextQuirk, ReadingCharactersStopsAtTheEndAndStaysThere)
{
    const char* place = "a\xFF";
    EXPECT_EQ(StrGetChar(&place), 'a');
    EXPECT_EQ(StrGetChar(&place), 0xFFu); // unsigned
    const char* const end = place;
    EXPECT_EQ(StrGetChar(&place), 0u);
    EXPECT_EQ(StrGetChar(&place), 0u);
    EXPECT_EQ(place, end);
}

TEST(TextQuirk, ACharacterIsFoundAtThePlaceItselfAndTheEndIsOne)
{
    const char* text = ";a;";
    EXPECT_EQ(StrNextCharMatch(text, ';'), text);
    EXPECT_EQ(StrNextCharMatch(text + 1, ';'), text + 2);
    EXPECT_EQ(StrNextCharMatch(text, 0), text + 3);
    EXPECT_EQ(StrNextCharMatch(text, 'x'), nullptr);
}

TEST(TextQuirk, APartIsFoundAnywhereWithRegardToCase)
{
    const char* text = "T.new.newer";
    EXPECT_EQ(StrFindSubString(text, ".new"), text + 1);
    EXPECT_EQ(StrFindSubString(text, ".NEW"), nullptr);
    EXPECT_EQ(StrFindSubString(text, ""), text);
}

TEST(TextQuirk, ACopiedRangeHasItsBytesWhateverTheyAreAndANul)
{
    char* copy = StrDuplicateRangeIntoPool("a\0bc", POOL, 3);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy, "a\0b", 4), 0);
    MemFree(copy);
    EXPECT_EQ(StrDuplicateIntoPool(nullptr, POOL), nullptr);
}

TEST(TextQuirk, NumbersPrintWithTheirSignUnlessTheyWereWidened)
{
    EXPECT_EQ(Taken(StrFromInteger(-3, POOL)), "-3");
    EXPECT_EQ(Taken(StrFromInteger(uint32_t{0xFFFFFFFC}, POOL)), "4294967292");
}

TEST(TextQuirk, UniqueIdsAreEqualInAllBytesAndPrintTheFirstOneFirst)
{
    UniqueId id = {};
    id.b[0] = 0xAB;
    id.b[31] = 1;
    UniqueId other = id;
    EXPECT_EQ(UniqueEqual(&id, &other), 1u);
    other.b[31] = 2;
    EXPECT_EQ(UniqueEqual(&id, &other), 0u);
    EXPECT_EQ(UniqueToString(&id), "ab" + std::string(60, '0') + "01");
}

// ---- trace
// ---------------------------------------------------------------------------------------

TEST(TraceQuirk, NoTextPrintsAsNullAndAPointerInSixteenDigits)
{
    TraceRecorder trace;
    const char* none = nullptr;
    NIM_TRACE(TAG, 0, 4, "%s %p", none, reinterpret_cast<void*>(uintptr_t{0xAB}));
    EXPECT_TRUE(trace.has("(null) 00000000000000AB")) << trace.dump();
}

TEST(TraceQuirk, LongNumbersHaveThirtyTwoBits)
{
    TraceRecorder trace;
    NIM_TRACE(TAG, 0, 4, "%ld %lx %lu %I64d", 0xFFFFFFFFu, -1, -1, int64_t{1} << 40);
    EXPECT_TRUE(trace.has("-1 ffffffff 4294967295 1099511627776")) << trace.dump();
}

TEST(TraceQuirk, ALineHasItsTagFlagAndLevelAsTheyWereGiven)
{
    TraceRecorder trace;
    NIM_TRACE(TAG, 5, 1, "text"); // the flag may be a system's error value
    ASSERT_EQ(trace.lines().size(), 1u);
    const TraceRecorder::Line line = trace.lines()[0];
    EXPECT_EQ(line.tag, TAG);
    EXPECT_EQ(line.error, 5u);
    EXPECT_EQ(line.level, 1);
}

TEST(TraceQuirk, FailuresAreAlwaysShownAndASilentLineEvaluatesNothing)
{
    TraceRecorder trace(-1);
    int evaluated = 0;
    const auto count = [&] { return ++evaluated; };
    NIM_TRACE(TAG, 0, -1, "%d", count());
    NIM_TRACE(TAG, 1, 4, "%d", count()); // the flag shows no line
    EXPECT_EQ(trace.texts(), std::vector<std::string>({"1"}));
    EXPECT_EQ(evaluated, 1);
}

TEST(TraceQuirk, TheRecentLinesEndWithTheNewest)
{
    TraceRecorder trace(-1);
    NIM_TRACE(TAG, 0, 3, "the one before");
    NIM_TRACE(TAG, 0, -1, "the last one");
    char* dump = nullptr;
    ASSERT_EQ(TraceDumpToString(&dump, 2), 1u);
    const std::string text = Taken(dump);
    EXPECT_LT(text.find("the one before"), text.find("the last one"));
    EXPECT_NE(text.find("the last one"), std::string::npos);
}

// ---- log
// -----------------------------------------------------------------------------------------

TEST(LogQuirk, AMessageHasANumberAClassAndOnlySometimesAContext)
{
    LogRecorder log;
    LogMessage(1303, 80, 0, "%ld of '%s'", 5, "T");
    LogMessageWithContext(1298, 96, 0, "a\nb", "text");
    ASSERT_EQ(log.messages().size(), 2u);
    EXPECT_TRUE(log.has(1303, 80, "5 of 'T'"));
    EXPECT_FALSE(log.messages()[0].hasContext);
    EXPECT_TRUE(log.has(1298, 96, "text"));
    EXPECT_EQ(log.messages()[1].context, "a\nb");
}

TEST(LogQuirk, MessagesAreNoTraceLinesAndTraceLinesAreNoMessages)
{
    LogRecorder log;
    TraceRecorder trace;
    LogMessage(1303, 80, 0, "text");
    EXPECT_TRUE(trace.lines().empty());
    NIM_TRACE(TAG, 1, -1, "text");
    EXPECT_EQ(log.messages().size(), 1u);
}

// ---- the end of the process
// ----------------------------------------------------------------------

TEST(ProcQuirk, ACrashThatAHandlerTookReturnsToItsCaller)
{
    const CrashRecorder crash;
    ProcCrash(0);
    ProcCrash(7);
    EXPECT_EQ(crash.codes(), std::vector<uint32_t>({0, 7}));
}

} // namespace
