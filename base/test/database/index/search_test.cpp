// search_test.cpp: the search in one node, the descent, and IndxFindKey with its codes.

#include "support/tree_test.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include "support/armed_fault.h"
#include "support/seed.h"

namespace {

class Search : public TreeTest {
  protected:
    // A search in the node with this id: the position, whether found.
    static std::pair<int32_t, bool>
    In(IndexFixture& index, uint32_t tNode, uint32_t id, const Key& key)
    {
        uint8_t* pNode = nullptr;
        IndxGetNode(&pNode, index.cursor(), tNode);
        IndxKeyInfo* pKey = index.MakeKeyInfo(id, key);
        int32_t position = -99;
        const NimBool found = IndxSearchNode(&position, index.cursor(), pNode, pKey);
        ObjRelease(pKey);
        return {position, found == 1};
    }
};

using Found = std::pair<int32_t, bool>;

uint32_t U32Of(const uint8_t* pBytes)
{
    uint32_t value;
    memcpy(&value, pBytes, sizeof value);
    return value;
}

// ---- one node ----------------------------------------------------------------------------------

TEST_F(Search, ANodeWithoutEntriesGivesPosition0NotFound)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    uint8_t* pNode = nullptr;
    ASSERT_EQ(IndxNewNode(&pNode, index.cursor()), 0);
    EXPECT_EQ(In(index, 0, 1, NumberKey(5)), Found(0, false));
    index.Backout();
}

TEST_F(Search, PositionsIn10And20And30)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER, true}});
    for (const int n : {10, 20, 30})
        index.Insert(static_cast<uint32_t>(n), NumberKey(n));
    index.Update();
    EXPECT_EQ(In(index, 0, 1, NumberKey(5)), Found(0, false));
    EXPECT_EQ(In(index, 0, 1, NumberKey(10)), Found(0, true));
    EXPECT_EQ(In(index, 0, 1, NumberKey(15)), Found(1, false));
    EXPECT_EQ(In(index, 0, 1, NumberKey(20)), Found(1, true));
    EXPECT_EQ(In(index, 0, 1, NumberKey(30)), Found(2, true));
    EXPECT_EQ(In(index, 0, 1, NumberKey(40)), Found(3, false));
    EXPECT_EQ(index.Find(1, NumberKey(40)), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(index.cursor()->status, INDX_AT_END); // there is no next leaf
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Search, AMissBehindALeafGoesToTheFirstEntryOfTheNextLeaf)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (int i = 1; i <= 682; ++i)
        ASSERT_TRUE(index.Insert(static_cast<uint32_t>(i), NumberKey(10 * i)));
    index.Update();
    EXPECT_EQ(index.Find(1, NumberKey(6815)), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(index.cursor()->status, INDX_ON_KEY);
    EXPECT_EQ(CursorId(index.cursor()), 682u);
    EXPECT_EQ(index.cursor()->position, 0);
    EXPECT_EQ(index.cursor()->tNode, index.field()->roots.tLastLeaf);
    // The value of that entry is looked for in the first leaf, too, when any record will do.
    EXPECT_EQ(index.Find(0, NumberKey(6820)), INDX_RESULT_FOUND);
    EXPECT_EQ(CursorId(index.cursor()), 682u);
    EXPECT_EQ(index.cursor()->position, 0);
    EXPECT_EQ(index.Find(1, NumberKey(6820)), INDX_RESULT_NOT_FOUND); // that record has another
    EXPECT_EQ(CursorId(index.cursor()), 682u);
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Search, EveryPositionOfNodesOfEverySizeIsFound)
{
    for (const int32_t keyType :
         {INDX_KEY_RECORD_ID, INDX_KEY_INTEGER, INDX_KEY_INT64, INDX_KEY_TEXT,
          INDX_KEY_TEXT_NO_CASE, INDX_KEY_UNIQUE_ID}) {
        IndexFixture index(directory_.path("s" + std::to_string(keyType)), {{keyType, true}});
        const auto At = [&](int n) {
            char text[8];
            snprintf(text, sizeof text, "%05d", n);
            return Key{
                n, keyType == INDX_KEY_UNIQUE_ID ? text + std::string(27, 'z')
                                                 : text + std::string(1, '\0')};
        };
        for (int size = 1; size <= 40; ++size) {
            ASSERT_TRUE(index.Insert(static_cast<uint32_t>(2 * size), At(2 * size)));
            for (int n = 1; n <= 2 * size + 1; ++n) {
                const Found expected(n / 2 - (n % 2 == 0), n % 2 == 0);
                EXPECT_EQ(In(index, 0, static_cast<uint32_t>(n), At(n)), expected) << n;
            }
        }
        index.Update();
        EXPECT_TRUE(SoundTable(index.table()));
    }
}

// A search starts where the value would stand if all were spread evenly; they may be spread anyhow.
TEST_F(Search, EveryPlaceIsFoundHoweverTheValuesAreSpread)
{
    std::mt19937_64 random(TestSeed());
    using Values = std::set<int64_t>;
    const std::function<int64_t(int, int64_t)> spreads[] = {
        [](int n, int64_t) { return 5 + n; },                                // without a gap
        [](int n, int64_t limit) { return limit / 700 * n; },                // evenly
        [](int n, int64_t limit) { return limit - (limit >> (n % 40)); },    // towards the end
        [](int n, int64_t limit) { return n ? limit >> (n % 40) : -limit; }, // towards 0
        [](int n, int64_t limit) { return n % 9 ? n : limit - n; },          // in two heaps
        [&](int, int64_t limit) { return static_cast<int64_t>(random() % limit); },
        [&](int, int64_t limit) { return static_cast<int64_t>(random() % limit) - limit / 2; },
        [&](int, int64_t limit) { return limit >> random() % 60; },
    };
    int files = 0;
    for (const int32_t keyType :
         {INDX_KEY_RECORD_ID, INDX_KEY_INTEGER, INDX_KEY_INT64, INDX_KEY_UNIQUE_ID}) {
        const bool bIds = keyType == INDX_KEY_RECORD_ID;
        const bool bWide = keyType == INDX_KEY_INT64 || keyType == INDX_KEY_UNIQUE_ID;
        const int64_t limit = bWide ? INT64_MAX / 2 : INT32_MAX / 2;
        const auto At = [&](int64_t value) {
            std::string bytes(32, '\0');
            for (int i = 0; i < 8; ++i)
                bytes[7 - i] = static_cast<char>((value ^ INT64_MIN) >> 8 * i);
            return Key{value, bytes};
        };
        for (const auto& spread : spreads) {
            for (const size_t size : {1u, 16u, 17u, 18u, 60u, 290u}) {
                Values values;
                for (int n = 0; n < 3000 && values.size() < size; ++n) {
                    const int64_t value = spread(n, limit);
                    if (!bIds || value > 0)
                        values.insert(value);
                }
                IndexFixture index(
                    directory_.path("p" + std::to_string(files++)), {{keyType, true}});
                for (const int64_t value : values)
                    ASSERT_TRUE(index.Insert(bIds ? static_cast<uint32_t>(value) : 1, At(value)));
                const std::vector<int64_t> sorted(values.begin(), values.end());
                for (const int64_t value : sorted) {
                    for (const int64_t wanted : {value - 1, value, value + 1}) {
                        const auto place = std::lower_bound(sorted.begin(), sorted.end(), wanted);
                        const Found expected(
                            static_cast<int32_t>(place - sorted.begin()), values.contains(wanted));
                        ASSERT_EQ(In(index, 0, static_cast<uint32_t>(wanted), At(wanted)), expected)
                            << "key type " << keyType << ", spread " << (&spread - spreads)
                            << ", size " << size << ", value " << wanted;
                    }
                }
                index.Backout();
            }
        }
    }
}

// Values that do not lie in the heap are no help for a guess, and still damage where they are met.
TEST_F(Search, AGuessDoesNotBelieveTheOutermostValues)
{
    for (const uint32_t word : {INDX_ENTRY_LENGTH, INDX_ENTRY_HEAP_OFFSET}) {
        for (const bool bLast : {false, true}) {
            IndexFixture index(
                directory_.path("d" + std::to_string(word) + (bLast ? "l" : "f")),
                {{INDX_KEY_UNIQUE_ID, true}});
            const auto At = [](int n) {
                return Key{0, std::string(1, static_cast<char>(n)) + std::string(31, 'z')};
            };
            for (int n = 1; n <= 60; ++n)
                ASSERT_TRUE(index.Insert(static_cast<uint32_t>(n), At(2 * n)));
            uint8_t* pNode = nullptr;
            IndxGetNode(&pNode, index.cursor(), 0);
            ASSERT_NE(pNode, nullptr);
            uint8_t* pEntry = pNode + INDX_NODE_HEADER + (bLast ? 59 : 0) * INDX_ENTRY_SIZE;
            const uint32_t former = U32Of(pEntry + word);
            for (const uint32_t damaged : {0u, 31u, 33u, 16384u, 0x80000000u, 0xFFFFFFFFu}) {
                if (bLast && word == INDX_ENTRY_HEAP_OFFSET && damaged > 60 * 32)
                    continue; // no such node is ever fetched
                memcpy(pEntry + word, &damaged, 4);
                for (int n = 1; n <= 121; ++n) {
                    int32_t position = -99;
                    IndxKeyInfo* pKey = index.MakeKeyInfo(1, At(n));
                    IndxSearchNode(&position, index.cursor(), pNode, pKey);
                    ObjRelease(pKey);
                    EXPECT_TRUE(
                        position == INDX_POSITION_DAMAGED || (position >= 0 && position <= 60));
                }
            }
            memcpy(pEntry + word, &former, 4);
            index.Backout();
        }
    }
}

TEST_F(Search, AKeyTypeWithoutAnOrderEndsAtPosition0)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (int i = 1; i <= 7; ++i)
        index.Insert(static_cast<uint32_t>(i), NumberKey(i));
    index.field()->keyType = 99;
    EXPECT_EQ(In(index, 0, 5, {}), Found(0, false));
    index.field()->keyType = INDX_KEY_INTEGER;
    index.Backout();
}

TEST_F(Search, AUniqueIndexLooksAtTheValueAlone)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER, true}});
    index.Add(3, NumberKey(5));
    TraceRecorder trace;
    EXPECT_EQ(index.Find(77, NumberKey(5)), INDX_RESULT_FOUND);
    EXPECT_EQ(CursorId(index.cursor()), 3u);
    EXPECT_FALSE(trace.hasPart("Compare keys"));
}

// ---- finding -----------------------------------------------------------------------------------

TEST_F(Search, TwoRecordsWithOneValueAreTakenByTheirIds)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.Add(3, NumberKey(5), 30);
    index.Add(9, NumberKey(5), 90);
    EXPECT_EQ(index.Find(0, NumberKey(5)), INDX_RESULT_FOUND);
    EXPECT_EQ(CursorId(index.cursor()), 3u);
    EXPECT_EQ(CursorOffset(index.cursor()), 30u);
    EXPECT_EQ(index.Find(9, NumberKey(5)), INDX_RESULT_FOUND);
    EXPECT_EQ(CursorId(index.cursor()), 9u);
    EXPECT_EQ(index.Find(4, NumberKey(5)), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(CursorId(index.cursor()), 9u);
    EXPECT_EQ(In(index, 0, 0, NumberKey(5)), Found(0, false)); // id 0 sorts before all of them
    EXPECT_EQ(In(index, 0, 9, NumberKey(5)), Found(1, true));
    ASSERT_TRUE(index.Add(4, NumberKey(5)));
    EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{3, 4, 9}));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Search, AFindForAnyRecordIsNotExactEvenWhenItsCodeIsFound)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Add(3, TextKey("five"));
    EXPECT_FALSE(index.FindExactly(0, TextKey("five")));
    EXPECT_EQ(index.cursor()->result, INDX_RESULT_FOUND);
    EXPECT_TRUE(index.FindExactly(3, TextKey("five")));
}

TEST_F(Search, AFindForAnyRecordComparesTheValueByItsType)
{
    const std::string id32(32, 'u');
    const struct {
        int32_t keyType;
        Key stored;
        Key same;
        Key other;
    } cases[] = {
        {INDX_KEY_INTEGER, NumberKey(-7), NumberKey(-7), NumberKey(-8)},
        {INDX_KEY_INT64, NumberKey(INT64_MAX), NumberKey(INT64_MAX), NumberKey(INT64_MAX - 1)},
        {INDX_KEY_TEXT, TextKey("Five"), TextKey("Five"), TextKey("FIVE")},
        {INDX_KEY_TEXT_NO_CASE, TextKey("Five"), TextKey("fIVE"), TextKey("fiv")},
        {INDX_KEY_UNIQUE_ID, BytesKey(id32), BytesKey(id32), BytesKey(std::string(32, 't'))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keyType);
        IndexFixture index(directory_.path("v" + std::to_string(c.keyType)), {{c.keyType}});
        ASSERT_TRUE(index.Add(3, c.stored));
        EXPECT_EQ(index.Find(0, c.same), INDX_RESULT_FOUND);
        EXPECT_EQ(CursorId(index.cursor()), 3u);
        EXPECT_EQ(index.Find(0, c.other), INDX_RESULT_NOT_FOUND);
        EXPECT_EQ(index.cursor()->status, INDX_ON_KEY); // on the first greater key
    }
}

TEST_F(Search, RecordIdsAreFoundWithoutAKeyObject)
{
    IndexFixture index(path(), {{INDX_KEY_RECORD_ID}});
    for (const uint32_t id : {4u, 8u})
        index.Add(id, {}, id * 10);
    EXPECT_EQ(index.Find(8, {}), INDX_RESULT_FOUND);
    EXPECT_EQ(CursorOffset(index.cursor()), 80u);
    EXPECT_EQ(index.Find(5, {}), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(CursorId(index.cursor()), 8u);
    EXPECT_EQ(index.Find(0, {}), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(CursorId(index.cursor()), 4u);
    EXPECT_EQ(index.Find(9, {}), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(index.cursor()->status, INDX_AT_END);
}

TEST_F(Search, AnEmptyIndexGivesCode7AtItsEnd)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    EXPECT_EQ(index.Find(1, NumberKey(1)), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(index.cursor()->status, INDX_AT_END);
}

TEST_F(Search, AnInvalidCursorGivesCode11)
{
    void* oKey = ObjIntegerNew(1);
    EXPECT_EQ(IndxFindKey(nullptr, 1, oKey), INDX_RESULT_CURSOR);
    EXPECT_EQ(IndxFindKey(oKey, 1, oKey), INDX_RESULT_CURSOR);
    ObjReleaseInternal(&oKey);
}

TEST_F(Search, TextKeysAreRefusedWhenEmptyOrLongerThanTheFieldAllows)
{
    for (const int32_t keyType : {INDX_KEY_TEXT, INDX_KEY_TEXT_NO_CASE}) {
        IndexFixture index(directory_.path("t" + std::to_string(keyType)), {{keyType, false, 10}});
        index.Add(1, TextKey("here"));
        ASSERT_TRUE(index.Add(2, TextKey(""))); // it is indexed, and cannot be looked for
        EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{2, 1}));
        ASSERT_EQ(index.Find(1, TextKey("here")), INDX_RESULT_FOUND);
        const auto Stays = [&] {
            return index.cursor()->status == INDX_ON_KEY && CursorId(index.cursor()) == 1;
        };
        EXPECT_EQ(index.Find(0, TextKey("")), INDX_RESULT_EMPTY_KEY);
        EXPECT_TRUE(Stays());
        void* oNull = ObjStringNew(nullptr);
        EXPECT_EQ(IndxFindKey(index.cursor(), 0, oNull), INDX_RESULT_EMPTY_KEY);
        ObjReleaseInternal(&oNull);
        EXPECT_TRUE(Stays());
        EXPECT_EQ(index.Find(0, TextKey("1234567890")), INDX_RESULT_LONG_KEY);
        EXPECT_TRUE(Stays());
        EXPECT_EQ(index.Find(0, TextKey("123456789")), INDX_RESULT_NOT_FOUND);
    }
}

TEST_F(Search, AKeyObjectOfAnotherTypeGivesCode12AndDoesNotMove)
{
    const UniqueId id = {};
    void* objects[] = {
        nullptr, ObjIntegerNew(1), ObjInt64New(1), ObjStringNew("x"), ObjUniqueNew(&id)};
    const uint32_t wanted[] = {
        0, OBJ_MAGIC_INTEGER, OBJ_MAGIC_INT64, OBJ_MAGIC_STRING, OBJ_MAGIC_UNIQUE};
    const struct {
        int32_t keyType;
        size_t right;
    } cases[] = {
        {INDX_KEY_INTEGER, 1},
        {INDX_KEY_INT64, 2},
        {INDX_KEY_TEXT, 3},
        {INDX_KEY_TEXT_NO_CASE, 3},
        {INDX_KEY_UNIQUE_ID, 4}};
    for (const auto& c : cases) {
        IndexFixture index(directory_.path("o" + std::to_string(c.keyType)), {{c.keyType}});
        index.Add(1, {1, std::string(32, 'q')});
        IndxFirstKey(index.cursor());
        for (size_t i = 0; i < 5; ++i) {
            const int32_t code = IndxFindKey(index.cursor(), 0, objects[i]);
            if (i == c.right) {
                EXPECT_TRUE(code == INDX_RESULT_FOUND || code == INDX_RESULT_NOT_FOUND);
                EXPECT_EQ(OBJ_HEADER(objects[i])->refCount, 1);
                IndxFirstKey(index.cursor());
            } else {
                EXPECT_EQ(code, INDX_RESULT_KEY_OBJECT) << c.keyType << " " << wanted[i];
                EXPECT_EQ(index.cursor()->status, INDX_ON_KEY);
                EXPECT_EQ(CursorId(index.cursor()), 1u);
            }
        }
    }
    for (void*& object : objects)
        ObjReleaseInternal(&object);
}

TEST_F(Search, OtherKeyTypesGiveCode5)
{
    CrashRecorder crash;
    for (const int32_t keyType : {4095, 99, 1, 4100}) {
        IndexFixture index(directory_.path("x" + std::to_string(keyType)), {{keyType}});
        EXPECT_EQ(IndxFindKey(index.cursor(), 1, nullptr), INDX_RESULT_KEY_TYPE);
    }
    // A cursor that stands on a key stays there.
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Add(3, NumberKey(5)));
    ASSERT_EQ(IndxFirstKey(index.cursor()), INDX_RESULT_FOUND);
    index.field()->keyType = 99;
    EXPECT_EQ(IndxFindKey(index.cursor(), 1, nullptr), INDX_RESULT_KEY_TYPE);
    EXPECT_EQ(index.cursor()->status, INDX_ON_KEY);
    EXPECT_EQ(CursorId(index.cursor()), 3u);
    index.field()->keyType = INDX_KEY_INTEGER;
    EXPECT_EQ(crash.count(), 0u);
}

TEST_F(Search, TextsWithoutANulAreComparedInTheirLength)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}, {INDX_KEY_TEXT_NO_CASE}});
    for (size_t i = 0; i < 2; ++i) {
        ASSERT_TRUE(index.Add(1, BytesKey("abcd"), 0, i)); // entry 0 ends where the node ends
        ASSERT_TRUE(index.Add(2, BytesKey("abce"), 0, i));
        ASSERT_TRUE(index.Add(3, BytesKey(std::string("ab\0\0", 4)), 0, i));
        EXPECT_EQ(index.Walk(i), (std::vector<uint32_t>{3, 1, 2}));
        EXPECT_EQ(index.Find(0, TextKey("abcd"), i), INDX_RESULT_FOUND);
        EXPECT_EQ(CursorId(index.cursor(i)), 1u);
        EXPECT_EQ(index.Find(0, TextKey("ab"), i), INDX_RESULT_FOUND);
        EXPECT_EQ(CursorId(index.cursor(i)), 3u);
        EXPECT_EQ(index.Find(0, TextKey("abc"), i), INDX_RESULT_NOT_FOUND);
        EXPECT_EQ(index.Find(0, TextKey("abcde"), i), INDX_RESULT_NOT_FOUND);
        // The same text with its NUL is the same key.
        EXPECT_FALSE(index.Add(1, TextKey("abcd"), 0, i));
        EXPECT_TRUE(index.Remove(1, TextKey("abcd"), i));
    }
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Search, BytesAbove127SortBehindLettersAndOnlyAToZFold)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT_NO_CASE}});
    index.Add(1, TextKey("\xC4"));
    index.Add(2, TextKey("\xE4"));
    index.Add(3, TextKey("Z"));
    index.Add(4, TextKey("a"));
    index.Add(5, TextKey("["));
    EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{5, 4, 3, 1, 2}));
    EXPECT_TRUE(SoundTable(index.table()));
}

// ---- the order that wraps ----------------------------------------------------------------------

TEST_F(Search, IntegersMoreThanTwoToThe31ApartCompareTheWrongWayRound)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Add(1, NumberKey(-2'000'000'000)));
    ASSERT_TRUE(index.Add(2, NumberKey(2'000'000'000)));
    EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{2, 1}));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Search, IntegersExactlyTwoToThe31ApartHideEachOtherAndHarmNobodyElse)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}, {INDX_KEY_INTEGER, true}});
    ASSERT_TRUE(index.Add(1, NumberKey(0)));
    ASSERT_TRUE(index.Add(2, NumberKey(INT32_MIN)));
    EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{2, 1}));
    EXPECT_EQ(index.Find(1, NumberKey(0)), INDX_RESULT_NOT_FOUND);
    EXPECT_FALSE(index.Remove(1, NumberKey(0)));
    EXPECT_EQ(index.cursor()->result, INDX_RESULT_NOT_FOUND);
    EXPECT_TRUE(SoundTable(index.table()));
    // A unique index takes the hidden value a second time.
    ASSERT_TRUE(index.Add(1, NumberKey(0), 0, 1));
    ASSERT_TRUE(index.Add(2, NumberKey(INT32_MIN), 0, 1));
    EXPECT_TRUE(index.Add(3, NumberKey(0), 0, 1));
    EXPECT_EQ(index.Walk(1).size(), 3u);
}

TEST_F(Search, IdsWrapAsWellSoThatId0SortsBehindIdsFrom2ToThe31)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    ASSERT_TRUE(index.Add(0x90000000, NumberKey(5)));
    EXPECT_EQ(index.Find(0, NumberKey(5)), INDX_RESULT_NOT_FOUND);
    EXPECT_EQ(index.cursor()->status, INDX_AT_END);
    EXPECT_EQ(index.Find(0x90000000, NumberKey(5)), INDX_RESULT_FOUND);
    EXPECT_TRUE(SoundTable(index.table()));
    // In an index of ids, too.
    IndexFixture ids(directory_.path("ids"), {{INDX_KEY_RECORD_ID}});
    for (const uint32_t id : {1u, 0x90000000u})
        ASSERT_TRUE(ids.Add(id, {}));
    EXPECT_EQ(ids.Walk(), (std::vector<uint32_t>{0x90000000, 1}));
    EXPECT_EQ(In(ids, 0, 0, {}).first, 1);
}

TEST_F(Search, SixtyFourBitIntegersDoNotWrap)
{
    IndexFixture index(path(), {{INDX_KEY_INT64}});
    const int64_t values[] = {INT64_MIN, -5'000'000'000, -1, 0, 1, 5'000'000'000, INT64_MAX};
    for (uint32_t i = 7; i-- > 0;)
        ASSERT_TRUE(index.Add(i + 1, NumberKey(values[i])));
    EXPECT_EQ(index.Walk(), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_TRUE(SoundTable(index.table()));
}

TEST_F(Search, RandomIntegersOfTheWholeRangeNeverBreakTheTree)
{
    // Keys may become unfindable; links, parents, lowest keys and heap must hold all the same.
    IndexFixture index(path(), {{INDX_KEY_INTEGER}, {INDX_KEY_RECORD_ID}});
    uint32_t random = 12345;
    for (uint32_t i = 0; i < 20'000; ++i) {
        random = random * 1664525 + 1013904223;
        const Key key = NumberKey(static_cast<int32_t>(random));
        if (i % 3 == 2)
            index.Remove(i - 2, key) || index.Remove(random, {}, 1);
        else
            index.Add(i, key), index.Add(random, {}, 0, 1);
    }
    const TreeReport report = CheckTable(index.table());
    for (const std::string& problem : report.problems)
        EXPECT_NE(problem.find("order"), std::string::npos) << problem;
    EXPECT_GT(report.indexes[0].entries.size(), 5000u);
}

// ---- loading the cursor ------------------------------------------------------------------------

TEST_F(Search, ACursorIsLoadedOnlyAfterCode6Or7)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.Add(3, NumberKey(5), 50);
    IndxCursor* c = index.cursor();
    IndxFirstKey(c);
    for (const int32_t code : {0, 1, 2, 5, 8, 9, 11, 12}) {
        c->result = code;
        TraceRecorder trace;
        IndxUpdateCursor(c, nullptr, INDX_ON_KEY);
        EXPECT_EQ(c->status, INDX_ON_KEY);
        EXPECT_EQ(c->oKey, nullptr);
        EXPECT_TRUE(trace.has(TAG, 0, 4, "No record for type " + std::to_string(code)))
            << trace.dump();
    }
    for (const int32_t code : {6, 7}) {
        c->result = code;
        IndxUpdateCursor(c, nullptr, INDX_ON_KEY); // fetches the node itself
        EXPECT_EQ(CursorId(c), 3u);
        EXPECT_EQ(CursorOffset(c), 50u);
        EXPECT_EQ(c->oKey->keyType, INDX_KEY_INTEGER);
        EXPECT_EQ(c->result, code);
    }
}

TEST_F(Search, LoadingAKeyOfAForbiddenOrUnknownTypeEndsTheProcess)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    index.Add(3, NumberKey(5));
    IndxFirstKey(index.cursor());
    for (const auto& [keyType, text] :
         {std::pair{4095, "Unexpected field type"}, std::pair{98, "Unknown field type"}}) {
        CrashRecorder crash;
        TraceRecorder trace;
        index.field()->keyType = keyType;
        index.cursor()->result = INDX_RESULT_FOUND;
        uint8_t* pNode = nullptr;
        IndxGetNode(&pNode, index.cursor(), 0);
        if (keyType & INDX_KEY_HEAP_BIT) {
            index.field()->keyType = INDX_KEY_INTEGER;
            IndxGetNode(&pNode, index.cursor(), 0);
            index.field()->keyType = keyType;
        }
        IndxUpdateCursor(index.cursor(), pNode, INDX_ON_KEY);
        EXPECT_EQ(crash.codes(), std::vector<uint32_t>{0});
        EXPECT_TRUE(trace.has(TAG, 0, -1, text)) << trace.dump();
        EXPECT_EQ(index.cursor()->oKey, nullptr);
    }
    index.field()->keyType = INDX_KEY_INTEGER;
}

TEST_F(Search, AFindWithoutMemoryNeverClaimsToHaveFound)
{
    IndexFixture index(path(), {{INDX_KEY_TEXT}});
    index.Add(3, TextKey("five"));
    void* oKey = ObjStringNew("five");
    bool found = false;
    for (uint32_t nth = 1; !found; ++nth) {
        IndxCursorBOI(index.cursor());
        const ArmedFault fault(FAULT_ALLOC, nth, 0);
        const int32_t code = IndxFindKey(index.cursor(), 3, oKey);
        found = code == INDX_RESULT_FOUND;
        EXPECT_EQ(found, index.cursor()->oKey != nullptr) << nth;
        EXPECT_EQ(found, fault.hits() == 0) << nth;
        ASSERT_LT(nth, 100u);
    }
    ObjReleaseInternal(&oKey);
}

TEST_F(Search, ANodeThatCannotBeReadIsNotFoundWithError13)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (int i = 1; i <= 1000; ++i)
        index.Insert(static_cast<uint32_t>(i), NumberKey(i));
    index.Update();
    for (uint32_t nth = 1; nth <= 2; ++nth) {
        IndxSetError(0);
        TraceRecorder trace;
        {
            const ArmedFault fault(FAULT_READ, nth);
            EXPECT_EQ(index.Find(500, NumberKey(500)), INDX_RESULT_NOT_FOUND);
        }
        EXPECT_EQ(index.cursor()->status, INDX_AT_END);
        EXPECT_EQ(IndxError(), 13u);
        EXPECT_TRUE(trace.hasPart("Cannot use node")) << trace.dump();
        index.Backout();
    }
    EXPECT_EQ(index.Find(500, NumberKey(500)), INDX_RESULT_FOUND);
    EXPECT_TRUE(SoundTable(index.table()));
}

// ---- a cursor that stands where there is nothing -----------------------------------------------

TEST_F(Search, APlaceWithoutAnEntryGivesNoKeyAndIsReported)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (int i = 1; i <= 3; ++i)
        ASSERT_TRUE(index.Add(static_cast<uint32_t>(i), NumberKey(i)));
    IndxCursor* pCursor = index.cursor();
    const auto placedAt = [&](uint32_t tNode, int32_t position) {
        pCursor->result = INDX_RESULT_FOUND;
        pCursor->tNode = tNode;
        pCursor->position = position;
        IndxSetError(0);
        TraceRecorder trace;
        IndxUpdateCursor(pCursor, nullptr, INDX_ON_KEY);
        const bool bReported = trace.hasPart("Cannot use node " + std::to_string(tNode) + " ");
        EXPECT_EQ(bReported, IndxError() == 13u) << trace.dump();
        return bReported;
    };
    for (const int32_t position : {0, 2}) {
        EXPECT_FALSE(placedAt(0, position));
        EXPECT_EQ(pCursor->result, INDX_RESULT_FOUND);
        EXPECT_EQ(CursorId(pCursor), static_cast<uint32_t>(position) + 1);
    }
    for (const int32_t position : {3, -1, INT32_MAX, INT32_MIN}) {
        EXPECT_TRUE(placedAt(0, position)) << position;
        EXPECT_EQ(pCursor->oKey, nullptr);
        EXPECT_EQ(pCursor->result, INDX_RESULT_NOT_FOUND);
    }
    EXPECT_TRUE(placedAt(77, 0)); // no such node
    EXPECT_EQ(pCursor->oKey, nullptr);
    EXPECT_EQ(pCursor->result, INDX_RESULT_NOT_FOUND);
    index.Update();
}

TEST_F(Search, TheIndexTellsTheKeyTypeNeverTheKey)
{
    IndexFixture index(path(), {{INDX_KEY_INTEGER}});
    for (uint32_t id = 1; id <= 3; ++id)
        ASSERT_TRUE(index.Add(id, NumberKey(id)));
    IndxKeyInfo* pKey = index.MakeKeyInfo(2, NumberKey(2));
    pKey->keyType = INDX_KEY_TEXT;
    EXPECT_EQ(IndxFind(index.cursor(), pKey, nullptr), 1u);
    ObjRelease(pKey);
    EXPECT_EQ(CursorId(index.cursor()), 2u);
    index.Update();
}

} // namespace
