// objmap_test.cpp: ordered maps of objects, with compare functions and with an integer key.
#include "support/object_graph.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <vector>

#include "nim/list.h"
#include "nim/objmap.h"

namespace {

constexpr uint32_t MAGIC = 0xc8000400u;

// "p;i;i;": like a block, the key is not the first item.
struct Entry {
    void* owner;
    int32_t key;
    int32_t serial;
};

uint64_t gCompares;

int32_t Order(int32_t a, int32_t b)
{
    return a < b ? -1 : a > b ? 1 : 0;
}

int32_t CompareEntries(const void* a, const void* b)
{
    ++gCompares;
    return Order(static_cast<const Entry*>(a)->key, static_cast<const Entry*>(b)->key);
}

int32_t CompareKey(const void* key, const void* b)
{
    ++gCompares;
    return Order(*static_cast<const int32_t*>(key), static_cast<const Entry*>(b)->key);
}

// What destructors saw.
std::vector<int32_t> gDied;
std::function<void(Entry*)> gOnDeath;

void EntryDied(void* object)
{
    auto* entry = static_cast<Entry*>(object);
    gDied.push_back(entry->key);
    if (gOnDeath)
        gOnDeath(entry);
}

Ref NewEntry(int32_t key, int32_t serial = 0)
{
    Ref object = NewObject(MAGIC, "p;i;i;", EntryDied);
    static_cast<Entry*>(object.get())->key = key;
    static_cast<Entry*>(object.get())->serial = serial;
    return object;
}

// Every behaviour holds with compare functions and with an integer key.
class ObjMap : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override
    {
        gDied.clear();
        gOnDeath = nullptr;
        map_ = NewMap();
        gCompares = 0;
    }
    void TearDown() override
    {
        gOnDeath = nullptr;
        map_ = Ref();
        if (GetParam()) {
            EXPECT_EQ(gCompares, 0u) << "an integer key calls no compare function";
        }
    }

    Ref NewMap(uint32_t magic = MAGIC)
    {
        Ref map;
        EXPECT_EQ(ObjMapCreateInternal(map.out(), magic, 64, CompareEntries, CompareKey, 0), 1u);
        if (GetParam())
            ObjMapSetIntegerKey(map.get(), offsetof(Entry, key));
        return map;
    }
    void* map() { return map_.get(); }
    NimBool Insert(int32_t key, int32_t serial = 0)
    {
        return ObjMapInsert(map(), NewEntry(key, serial).get());
    }
    Ref Find(int32_t key)
    {
        Ref found;
        NimBool there = ObjMapFind(found.out(), map(), &key);
        EXPECT_EQ(there, found.get() ? 1u : 0u);
        return found;
    }
    NimBool Walk(const std::function<NimBool(Entry*)>& visit)
    {
        return ObjMapWalk(
            map(),
            [](void* context, void* object) {
                return (*static_cast<const std::function<NimBool(Entry*)>*>(context))(
                    static_cast<Entry*>(object));
            },
            const_cast<std::function<NimBool(Entry*)>*>(&visit));
    }
    std::vector<int32_t> Keys()
    {
        std::vector<int32_t> keys;
        EXPECT_EQ(
            Walk([&](Entry* entry) {
                keys.push_back(entry->key);
                return 1u;
            }),
            1u);
        return keys;
    }

    Ref map_;
};

using KeyList = std::vector<int32_t>;

} // namespace

INSTANTIATE_TEST_SUITE_P(Keys, ObjMap, testing::Values(false, true), [](const auto& key) {
    return key.param ? "Integer" : "Compared";
});

TEST_P(ObjMap, IsAnObjectThatNobodyButItselfCounts)
{
    EXPECT_EQ(ObjGetMagic(map()), OBJ_MAGIC_MAP);
    EXPECT_EQ(RefCount(map()), 1);
    EXPECT_EQ(ObjMapCount(map()), 0u);
    void* stale = reinterpret_cast<void*>(uintptr_t{0x1234}); // is not looked at
    ASSERT_EQ(ObjMapCreateInternal(&stale, MAGIC, 64, CompareEntries, CompareKey, 0), 1u);
    ObjReleaseInternal(&stale);
}

TEST_P(ObjMap, CannotBeMadeOfNothing)
{
    void* made = &made;
    EXPECT_EQ(ObjMapCreateInternal(&made, MAGIC, 64, nullptr, CompareKey, 0), 0u);
    EXPECT_EQ(made, nullptr);
    made = &made;
    EXPECT_EQ(ObjMapCreateInternal(&made, MAGIC, 64, CompareEntries, nullptr, 0), 0u);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(ObjMapCreateInternal(nullptr, MAGIC, 64, CompareEntries, CompareKey, 0), 0u);
    FaultRule rule = {FAULT_ALLOC, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    made = &made;
    EXPECT_EQ(ObjMapCreateInternal(&made, MAGIC, 64, CompareEntries, CompareKey, 0), 0u);
    EXPECT_EQ(made, nullptr);
    FaultDisarmAll();
}

TEST_P(ObjMap, InsertTakesAReferenceAndFindAddsOne)
{
    Ref entry = NewEntry(5);
    ASSERT_EQ(ObjMapInsert(map(), entry.get()), 1u);
    EXPECT_EQ(RefCount(entry.get()), 2);
    Ref found = Find(5);
    EXPECT_EQ(found.get(), entry.get());
    EXPECT_EQ(RefCount(entry.get()), 3);
    EXPECT_EQ(Find(4).get(), nullptr);
    EXPECT_EQ(Find(6).get(), nullptr);
    found = Ref();
    map_ = Ref();
    EXPECT_EQ(RefCount(entry.get()), 1);
}

TEST_P(ObjMap, ADuplicateIsRefusedAndTheFirstStays)
{
    ASSERT_EQ(Insert(5, 1), 1u);
    Ref second = NewEntry(5, 2);
    EXPECT_EQ(ObjMapInsert(map(), second.get()), 0u);
    EXPECT_EQ(RefCount(second.get()), 1);
    EXPECT_EQ(static_cast<Entry*>(Find(5).get())->serial, 1);
    EXPECT_EQ(ObjMapCount(map()), 1u);
}

TEST_P(ObjMap, RefusesOtherMagicsNullsAndWhatIsNoMap)
{
    Ref integer(ObjIntegerNew(1));
    Ref entry = NewEntry(1);
    int32_t key = 1;
    void* found = &key;
    EXPECT_EQ(ObjMapInsert(map(), integer.get()), 0u);
    EXPECT_EQ(ObjMapInsert(map(), nullptr), 0u);
    for (void* wrong : {static_cast<void*>(nullptr), integer.get()}) {
        EXPECT_EQ(ObjMapInsert(wrong, entry.get()), 0u);
        EXPECT_EQ(ObjMapFind(&found, wrong, &key), 0u);
        EXPECT_EQ(found, nullptr);
        EXPECT_EQ(ObjMapPeek(wrong, &key), nullptr);
        EXPECT_EQ(
            ObjMapWalk(
                wrong, [](void*, void*) -> NimBool { return 1; }, nullptr),
            0u);
        EXPECT_EQ(ObjMapCount(wrong), 0u);
        ObjMapReleaseEntries(wrong);
        ObjMapSetIntegerKey(wrong, 0);
    }
    ASSERT_EQ(ObjMapInsert(map(), entry.get()), 1u);
    EXPECT_EQ(ObjMapFind(&found, map(), nullptr), 0u);
    EXPECT_EQ(ObjMapFind(nullptr, map(), &key), 0u);
    EXPECT_EQ(ObjMapPeek(map(), nullptr), nullptr);
    EXPECT_EQ(ObjMapPeek(map(), &key), entry.get()) << "takes no reference";
    EXPECT_EQ(OBJ_HEADER(entry.get())->refCount, 2u);
    EXPECT_EQ(ObjMapWalk(map(), nullptr, nullptr), 0u);
    EXPECT_EQ(ObjGetInteger(integer.get()), 1);
}

TEST_P(ObjMap, APeekShowsWhatAFindFindsAndTakesNoReference)
{
    int32_t key = 5;
    EXPECT_EQ(ObjMapPeek(map(), &key), nullptr);
    for (int32_t n = 0; n < 1000; ++n)
        ASSERT_EQ(Insert(n * 2), 1u);
    for (key = -3; key < 2003; ++key) {
        const Ref found = Find(key);
        ASSERT_EQ(ObjMapPeek(map(), &key), found.get()) << key;
        if (found.get()) {
            ASSERT_EQ(OBJ_HEADER(found.get())->refCount, 2u) << key;
        }
    }
}

TEST_P(ObjMap, AMagicAloneIsNoMap)
{
    Ref object = NewObject(OBJ_MAGIC_MAP, "i;");
    EXPECT_EQ(ObjMapInsert(object.get(), object.get()), 0u);
    EXPECT_EQ(ObjMapCount(object.get()), 0u);
}

TEST_P(ObjMap, InsertSurvivesEveryFault)
{
    // Enough to split chunks and grow the directory more than once.
    map_ = NewMap();
    Alive before;
    for (int32_t i = 0; i < 6000; ++i) {
        int32_t key = i * 7919 % 6007;
        Ref entry = NewEntry(key);
        FaultRule rule = {FAULT_ALLOC, nullptr, 1, 1, FAULT_FAIL, 0};
        uint32_t id = FaultArm(&rule);
        NimBool inserted = ObjMapInsert(map(), entry.get());
        EXPECT_EQ(inserted, FaultHits(id) ? 0u : 1u);
        FaultDisarmAll();
        if (!inserted) {
            ASSERT_EQ(RefCount(entry.get()), 1);
            ASSERT_EQ(ObjMapCount(map()), static_cast<uint32_t>(i));
            ASSERT_EQ(Find(key).get(), nullptr);
            for (uint32_t n = 2; !inserted; ++n) { // the later steps of the same insert
                rule.nth = n;
                FaultArm(&rule);
                inserted = ObjMapInsert(map(), entry.get());
                FaultDisarmAll();
                ASSERT_LT(n, 10u);
            }
        }
        ASSERT_EQ(Find(key).get(), entry.get());
    }
    KeyList keys = Keys();
    EXPECT_EQ(keys.size(), 6000u);
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    map_ = Ref();
    EXPECT_EQ(ObjLiveCount(MAGIC), 0u);
    map_ = NewMap();
    EXPECT_EQ(Alive(), before);
}

TEST_P(ObjMap, IsWalkedInAscendingOrderWhateverTheOrderOfInsertion)
{
    for (int32_t key : {3, -1, INT32_MAX, 0, INT32_MIN, 7, 2})
        ASSERT_EQ(Insert(key), 1u);
    EXPECT_EQ(Keys(), (KeyList{INT32_MIN, -1, 0, 2, 3, 7, INT32_MAX}));
}

TEST_P(ObjMap, AWalkGoesOnAtExactlyOne)
{
    for (int32_t key : {1, 2, 3})
        ASSERT_EQ(Insert(key), 1u);
    for (NimBool stop : {0u, 2u, 0xFFFFFFFFu}) {
        int seen = 0;
        EXPECT_EQ(Walk([&](Entry*) { return ++seen == 2 ? stop : 1u; }), 0u);
        EXPECT_EQ(seen, 2);
    }
    int seen = 0;
    EXPECT_EQ(
        Walk([&](Entry* entry) {
            EXPECT_EQ(RefCount(entry), 1) << "borrowed";
            ++seen;
            return 1u;
        }),
        1u);
    EXPECT_EQ(seen, 3);
    ObjMapReleaseEntries(map());
    EXPECT_EQ(Walk([&](Entry*) { return 0u; }), 1u) << "empty";
    EXPECT_EQ(RefCount(map()), 1);
}

TEST_P(ObjMap, AWalkMeetsWhatIsInsertedBehindItsCurrentEntry)
{
    for (int32_t key = 0; key < 1000; key += 10)
        ASSERT_EQ(Insert(key), 1u);
    KeyList seen;
    EXPECT_EQ(
        Walk([&](Entry* entry) {
            seen.push_back(entry->key);
            if (entry->key % 10 == 0) {
                for (int32_t d = 1; d < 10; ++d) { // splits chunks around the walk
                    EXPECT_EQ(Insert(entry->key + d), 1u);
                    EXPECT_EQ(Insert(-entry->key - d), 1u);
                }
            }
            return 1u;
        }),
        1u);
    KeyList expected;
    for (int32_t key = 0; key < 1000; ++key)
        expected.push_back(key);
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(ObjMapCount(map()), 1900u);
}

TEST_P(ObjMap, AWalkEndsWhenTheMapIsEmptiedUnderIt)
{
    for (int32_t key = 0; key < 600; ++key)
        ASSERT_EQ(Insert(key), 1u);
    int seen = 0;
    EXPECT_EQ(
        Walk([&](Entry*) {
            ++seen;
            ObjMapReleaseEntries(map());
            for (int32_t key : {5, 6, 7, 8}) // something to be found there
                EXPECT_EQ(Insert(key), 1u);
            return 1u;
        }),
        1u);
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(Keys(), (KeyList{5, 6, 7, 8}));
}

TEST_P(ObjMap, AWalkSurvivesTheLastReleaseOfItsMap)
{
    ASSERT_EQ(Insert(1), 1u);
    ASSERT_EQ(Insert(2), 1u);
    int seen = 0;
    EXPECT_EQ(
        Walk([&](Entry*) {
            ++seen;
            map_ = Ref();
            return 1u;
        }),
        1u);
    EXPECT_EQ(seen, 2);
    EXPECT_EQ(ObjLiveCount(MAGIC), 0u);
}

TEST_P(ObjMap, ReleasingDropsEveryReferenceInAscendingOrder)
{
    Ref kept = NewEntry(500);
    ASSERT_EQ(ObjMapInsert(map(), kept.get()), 1u);
    KeyList expected;
    for (int32_t i = 0; i < 1500; ++i) {
        if (i != 500)
            expected.push_back(i);
        int32_t key = i * 7 % 1500;
        if (key != 500) {
            ASSERT_EQ(Insert(key), 1u);
        }
    }
    ObjMapReleaseEntries(map());
    EXPECT_EQ(gDied, expected);
    EXPECT_EQ(RefCount(kept.get()), 1);
    EXPECT_EQ(ObjMapCount(map()), 0u);
    EXPECT_EQ(Find(1).get(), nullptr);
    ASSERT_EQ(Insert(1), 1u) << "the map stays usable";
    EXPECT_EQ(Keys(), (KeyList{1}));
    ObjMapReleaseEntries(map());
    ObjMapReleaseEntries(map());
}

TEST_P(ObjMap, ADestructorFindsTheMapEmptyAndMayInsertIntoIt)
{
    for (int32_t key = 0; key < 700; ++key)
        ASSERT_EQ(Insert(key), 1u);
    gOnDeath = [&](Entry* entry) {
        if (entry->key >= 700)
            return;
        EXPECT_EQ(Find(entry->key + 1).get(), nullptr);
        EXPECT_EQ(ObjMapCount(map()), static_cast<uint32_t>(entry->key));
        EXPECT_EQ(Insert(entry->key + 10000), 1u);
    };
    ObjMapReleaseEntries(map());
    EXPECT_EQ(gDied.size(), 700u);
    EXPECT_EQ(ObjMapCount(map()), 700u);
    KeyList keys = Keys();
    EXPECT_EQ(keys.front(), 10000);
    EXPECT_EQ(keys.back(), 10699);
}

TEST_P(ObjMap, ADestructorMayReleaseTheMapThatIsBeingEmptied)
{
    for (int32_t key = 0; key < 5; ++key)
        ASSERT_EQ(Insert(key), 1u);
    gOnDeath = [&](Entry*) { map_ = Ref(); };
    ObjMapReleaseEntries(map());
    EXPECT_EQ(gDied, (KeyList{0, 1, 2, 3, 4}));
}

TEST_P(ObjMap, ADyingMapIsEmptyForItsEntriesDestructors)
{
    for (int32_t key = 0; key < 600; ++key)
        ASSERT_EQ(Insert(key), 1u);
    void* dying = map();
    int asked = 0;
    gOnDeath = [&](Entry* entry) {
        int32_t key = entry->key + 1;
        void* found = nullptr;
        EXPECT_EQ(ObjMapFind(&found, dying, &key), 0u);
        if (entry->serial == 0) {
            EXPECT_EQ(ObjMapInsert(dying, NewEntry(90000, 1).get()), 0u);
        }
        EXPECT_EQ(ObjMapCount(dying), 0u);
        EXPECT_EQ(
            ObjMapWalk(
                dying, [](void*, void*) -> NimBool { return 1; }, nullptr),
            0u);
        ObjMapReleaseEntries(dying);
        ++asked;
    };
    map_ = Ref();
    EXPECT_EQ(asked, 1200);
    EXPECT_EQ(ObjLiveCount(MAGIC), 0u);
}

TEST_P(ObjMap, AMapThatIsFilledAndEmptiedTakesNoMemoryAfterTheFirstTime)
{
    std::vector<Ref> entries;
    for (int32_t key = 0; key < 256; ++key)
        entries.push_back(NewEntry(key));
    auto cycle = [&] {
        for (Ref& entry : entries)
            ASSERT_EQ(ObjMapInsert(map(), entry.get()), 1u);
        ObjMapReleaseEntries(map());
    };
    cycle();
    Alive before;
    FaultResetCalls();
    for (int i = 0; i < 50; ++i)
        cycle();
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 0u);
    FaultStopCalls();
    EXPECT_EQ(Alive(), before);
}

TEST_P(ObjMap, AHundredThousandEntriesInEveryOrderOfInsertion)
{
    constexpr int32_t COUNT = 100000;
    for (int order = 0; order < 3; ++order) {
        map_ = NewMap();
        gCompares = 0;
        for (int32_t i = 0; i < COUNT; ++i) {
            int32_t key = order == 0 ? i : order == 1 ? COUNT - 1 - i : i * int64_t{69061} % COUNT;
            ASSERT_EQ(Insert(key), 1u);
        }
        if (!GetParam()) {
            EXPECT_LT(gCompares, uint64_t{COUNT} * 20);
        }
        gCompares = 0;
        for (int32_t key = 0; key < COUNT; key += 37)
            ASSERT_EQ(static_cast<Entry*>(Find(key).get())->key, key);
        if (!GetParam()) {
            EXPECT_LT(gCompares, uint64_t{COUNT} / 37 * 20);
        }
        EXPECT_EQ(Insert(order), 0u);
        EXPECT_EQ(ObjMapCount(map()), static_cast<uint32_t>(COUNT));
        KeyList keys = Keys();
        ASSERT_EQ(keys.size(), static_cast<size_t>(COUNT));
        for (int32_t i = 0; i < COUNT; ++i)
            ASSERT_EQ(keys[i], i);
        gCompares = 0;
    }
}

TEST_P(ObjMap, BehavesAsAnOrderedMapUnderRandomOperations)
{
    Alive before;
    for (uint32_t seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        auto range = static_cast<int32_t>(seed % 3 == 0 ? 40 : seed % 3 == 1 ? 3000 : 2000000000);
        std::map<int32_t, int32_t> model;
        Ref held = NewMap();
        std::swap(map_, held);
        for (int32_t step = 0; step < 12000; ++step) {
            auto key = static_cast<int32_t>(random() % static_cast<uint32_t>(range)) - range / 2;
            switch (random() % 2500) {
            case 0:
                ObjMapReleaseEntries(map());
                model.clear();
                break;
            case 1: {
                std::map<int32_t, int32_t> seen;
                Walk([&](Entry* entry) {
                    EXPECT_TRUE(seen.empty() || seen.rbegin()->first < entry->key);
                    seen[entry->key] = entry->serial;
                    return 1u;
                });
                ASSERT_EQ(seen, model);
                break;
            }
            default:
                if (random() % 2) {
                    bool fresh = model.emplace(key, step).second;
                    ASSERT_EQ(Insert(key, step), fresh ? 1u : 0u);
                } else {
                    Ref found = Find(key);
                    auto expected = model.find(key);
                    ASSERT_EQ(found.get() != nullptr, expected != model.end());
                    if (found.get()) {
                        ASSERT_EQ(static_cast<Entry*>(found.get())->serial, expected->second);
                    }
                }
            }
            ASSERT_EQ(ObjMapCount(map()), model.size());
        }
        std::swap(map_, held);
    }
    EXPECT_EQ(Alive(), before);
}

TEST_P(ObjMap, AnyMagicIsTakenByAMapWithoutOne)
{
    map_ = NewMap(0);
    Ref other = NewObject(MAGIC + 1, "p;i;i;");
    static_cast<Entry*>(other.get())->key = 4;
    EXPECT_EQ(ObjMapInsert(map(), other.get()), 1u);
    EXPECT_EQ(Insert(4), 0u);
    EXPECT_EQ(Insert(3), 1u);
    EXPECT_EQ(Keys(), (KeyList{3, 4}));
}

TEST(ObjMapKey, AnIntegerKeyIsSetOnAnEmptyMapOnly)
{
    Ref map;
    ASSERT_EQ(ObjMapCreateInternal(map.out(), MAGIC, 64, CompareEntries, CompareKey, 0), 1u);
    ASSERT_EQ(ObjMapInsert(map.get(), NewEntry(1).get()), 1u);
    ObjMapSetIntegerKey(map.get(), offsetof(Entry, key));
    gCompares = 0;
    ASSERT_EQ(ObjMapInsert(map.get(), NewEntry(2).get()), 1u);
    EXPECT_GT(gCompares, 0u);
    ObjMapReleaseEntries(map.get());
    ObjMapSetIntegerKey(map.get(), offsetof(Entry, key));
    gCompares = 0;
    ASSERT_EQ(ObjMapInsert(map.get(), NewEntry(1).get()), 1u);
    ASSERT_EQ(ObjMapInsert(map.get(), NewEntry(2).get()), 1u);
    EXPECT_EQ(gCompares, 0u);
}

TEST(ObjMapKey, AnEntryTooSmallForItsIntegerKeyIsRefused)
{
    Ref map;
    ASSERT_EQ(ObjMapCreateInternal(map.out(), 0, 64, CompareEntries, CompareKey, 0), 1u);
    ObjMapSetIntegerKey(map.get(), 12);
    Ref small = NewObject(MAGIC + 2, "i;q;"); // 16 bytes: the key just fits
    EXPECT_EQ(ObjMapInsert(map.get(), small.get()), 1u);
    Ref smaller = NewObject(MAGIC + 2, "i;");
    EXPECT_EQ(ObjMapInsert(map.get(), smaller.get()), 0u);
    ObjMapReleaseEntries(map.get());
    ObjMapSetIntegerKey(map.get(), 0xFFFFFFFFu);
    EXPECT_EQ(ObjMapInsert(map.get(), small.get()), 0u);
}

TEST(ObjMapKey, AnOrderThatIsNoneNeitherHangsNorLosesEntries)
{
    // Wrapping subtraction is no order for keys more than 2^31 apart: what is found may be wrong,
    // but every entry is walked and released once.
    auto wrap = [](const void* a, const void* b) -> int32_t {
        return static_cast<int32_t>(
            static_cast<uint32_t>(static_cast<const Entry*>(a)->key) -
            static_cast<uint32_t>(static_cast<const Entry*>(b)->key));
    };
    auto wrapKey = [](const void* a, const void* b) -> int32_t {
        return static_cast<int32_t>(
            static_cast<uint32_t>(*static_cast<const int32_t*>(a)) -
            static_cast<uint32_t>(static_cast<const Entry*>(b)->key));
    };
    gDied.clear();
    gOnDeath = nullptr;
    Ref map;
    ASSERT_EQ(ObjMapCreateInternal(map.out(), MAGIC, 64, wrap, wrapKey, 0), 1u);
    std::mt19937 random(7);
    uint32_t inserted = 0;
    for (int i = 0; i < 20000; ++i) {
        Ref entry = NewEntry(static_cast<int32_t>(random()));
        inserted += ObjMapInsert(map.get(), entry.get());
        auto key = static_cast<int32_t>(random());
        Ref found;
        ObjMapFind(found.out(), map.get(), &key);
    }
    gDied.clear();
    EXPECT_EQ(ObjMapCount(map.get()), inserted);
    uint32_t seen = 0;
    ObjMapWalk(
        map.get(),
        [](void* context, void*) -> NimBool {
            ++*static_cast<uint32_t*>(context);
            return 1;
        },
        &seen);
    EXPECT_EQ(seen, inserted);
    map = Ref();
    EXPECT_EQ(gDied.size(), inserted);
}
