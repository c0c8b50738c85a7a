// quirks_objects_test.cpp: what objects, their serialised form, lists, maps and memory do on
// purpose and keep doing: the database, and files that it has written, depend on each of these.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "nim/list.h"
#include "nim/objmap.h"
#include "nim/str.h"
#include "support/object_graph.h"

namespace {

constexpr uint32_t MAGIC = 0xc8000900u;
const uint32_t POOL = MemGetDefaultPoolId();

// ---- templates
// -----------------------------------------------------------------------------------

TEST(TemplateQuirk, ASizeOfAllOnesIsComputedAndALargerOneLeavesAZeroTail)
{
    const Ref computed = NewObject(TemplateOf(MAGIC, "i;s;d;"));
    EXPECT_EQ(ObjGetDbData(computed.get())->fields[2].objectOffset, 16);
    const Ref larger = NewObject(TemplateOf(MAGIC + 1, "i;", nullptr, 64));
    EXPECT_EQ(std::string(static_cast<char*>(larger.get()), 64), std::string(64, '\0'));
}

TEST(TemplateQuirk, TheSameTemplateIsMadeOnceHoweverOftenItIsAskedFor)
{
    ObjTemplate* const pTemplate = TemplateOf(MAGIC + 2, "i;s;");
    const uint32_t memory = MemLiveCount();
    EXPECT_EQ(TemplateOf(MAGIC + 2, "i;s;"), pTemplate);
    EXPECT_EQ(MemLiveCount(), memory);
    EXPECT_NE(TemplateOf(MAGIC + 3, "i;s;"), pTemplate);
    EXPECT_NE(TemplateOf(MAGIC + 2, "i;i;"), pTemplate);
}

TEST(TemplateQuirk, TheLastSemicolonMayBeMissing)
{
    const ObjDbData* pWith = ObjGetDbDataFromTemplate(TemplateOf(MAGIC + 4, "i;s;"));
    const ObjDbData* pWithout = ObjGetDbDataFromTemplate(TemplateOf(MAGIC + 5, "i;s"));
    ASSERT_TRUE(pWith && pWithout);
    EXPECT_EQ(pWith->fieldCount, pWithout->fieldCount);
    EXPECT_EQ(pWith->fixedSize, pWithout->fixedSize);
    EXPECT_STREQ(pWithout->format, "i;s"); // as it was given
    EXPECT_EQ(TemplateOf(MAGIC + 6, "i;s;;"), nullptr);
}

TEST(TemplateQuirk, EveryItemHasItsKind)
{
    const ObjDbData* pData =
        ObjGetDbDataFromTemplate(TemplateOf(MAGIC + 7, "b;i;s;o;p;d;n16;ol;q;u;sl;"));
    ASSERT_NE(pData, nullptr);
    const int32_t kinds[] = {1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12};
    for (int32_t i = 0; i < pData->fieldCount; ++i)
        EXPECT_EQ(pData->fields[i].kind, kinds[i]);
    EXPECT_EQ(pData->fields[6].arrayLength, 16);
}

TEST(TemplateQuirk, SlotsFollowOneAnotherFromTheFifthByteOnAndFixedPartsHaveSixteenBytes)
{
    const ObjDbData* pData = ObjGetDbDataFromTemplate(TemplateOf(MAGIC + 8, "b;q;i;u;s;"));
    ASSERT_NE(pData, nullptr);
    const int32_t offsets[] = {4, 8, 16, 20, 52};
    for (int32_t i = 0; i < pData->fieldCount; ++i)
        EXPECT_EQ(pData->fields[i].fixedOffset, offsets[i]);
    EXPECT_EQ(pData->fixedSize, 60u);
    EXPECT_EQ(ObjGetDbDataFromTemplate(TemplateOf(MAGIC + 9, "i;"))->fixedSize, 16u);
}

TEST(TemplateQuirk, OneItemWithoutDatabaseFormKeepsTheWholeObjectFromBeingStored)
{
    for (const char* format : {"i;p;", "i;ol;", "i;sl;"})
        EXPECT_NE(ObjGetDbDataFromTemplate(TemplateOf(MAGIC + 10, format))->notStorable, 0u);
    EXPECT_EQ(ObjGetDbDataFromTemplate(TemplateOf(MAGIC + 10, "i;s;o;"))->notStorable, 0u);
}

// ---- objects
// -------------------------------------------------------------------------------------

TEST(ObjectQuirk, ANewObjectIsZeroHasOneReferenceAndNoFlags)
{
    const Ref object = NewObject(MAGIC, "i;s;d;");
    EXPECT_EQ(std::string(static_cast<char*>(object.get()), 32), std::string(32, '\0'));
    EXPECT_EQ(RefCount(object.get()), 1);
    EXPECT_EQ(OBJ_HEADER(object.get())->flags, 0u);
}

TEST(ObjectQuirk, TheFlagsAreTheHostsAndNobodyElseTouchesThem)
{
    const Ref object = NewObject(MAGIC, "i;");
    OBJ_HEADER(object.get())->flags = 0x12345678;
    void* oSecond = ObjIncRefCount(object.get());
    ObjReleaseInternal(&oSecond);
    EXPECT_EQ(OBJ_HEADER(object.get())->flags, 0x12345678u);
}

TEST(ObjectQuirk, TheMagicIsTheFirstWordAndTheFlagsAreTheSecond)
{
    const Ref object = NewObject(MAGIC, "i;");
    const auto* words = reinterpret_cast<const uint32_t*>(OBJ_HEADER(object.get()));
    OBJ_HEADER(object.get())->flags = 1;
    EXPECT_EQ(words[0], MAGIC);
    EXPECT_EQ(words[1], 1u);
    EXPECT_EQ(ObjGetMagic(nullptr), 0xFFFFFFFFu);
}

TEST(ObjectQuirk, AVariableIsNullBeforeItsObjectGoes)
{
    static void* sVariable = nullptr;
    static int sSeen = 0;
    const auto destructor = [](void*) { sSeen += sVariable == nullptr ? 1 : 100; };
    sVariable = NewObject(MAGIC + 11, "i;", destructor).take();
    ObjReleaseInternal(&sVariable);
    EXPECT_EQ(sSeen, 1);
}

TEST(ObjectQuirk, ReferencesAndTextsGoWithTheirObjectPointersAndArraysDoNot)
{
    static const char sBytes[] = "nobody's";
    Ref object = NewObject(MAGIC + 12, "o;ol;s;sl;d;p;");
    Item<void*>(object.get(), 0) = ObjIntegerNew(1);
    Item<void*>(object.get(), 1) = ObjIntegerNew(2);
    Item<char*>(object.get(), 2) = PoolText("text");
    Item<char*>(object.get(), 3) = PoolText("transient");
    Item<ObjData>(object.get(), 4) = {1, 0, MemAllocateFromPool(1, POOL)};
    Item<const void*>(object.get(), 5) = sBytes;
    const uint32_t memory = MemLiveCount();
    const uint32_t integers = ObjLiveCount(OBJ_MAGIC_INTEGER);
    object = Ref();
    EXPECT_EQ(ObjLiveCount(OBJ_MAGIC_INTEGER), integers - 2);
    EXPECT_EQ(MemLiveCount(), memory - 6); // itself, two objects, two texts, the data
}

TEST(ObjectQuirk, ValuesOfAnotherTypeAreZeroOrNull)
{
    const Ref text(ObjStringNew("5"));
    EXPECT_EQ(ObjGetInteger(text.get()), 0);
    EXPECT_EQ(ObjGetInt64(text.get()), 0);
    EXPECT_EQ(ObjGetUnique(text.get()), nullptr);
    EXPECT_EQ(ObjGetDataFieldSize(text.get()), 0u);
    EXPECT_EQ(ObjGetString(Ref(ObjIntegerNew(5)).get()), nullptr);
}

TEST(ObjectQuirk, TheBuiltInObjectsHaveTheirOwnMagics)
{
    const UniqueId id = {};
    EXPECT_EQ(ObjGetMagic(Ref(ObjIntegerNew(1)).get()), 0xc96cf22au);
    EXPECT_EQ(ObjGetMagic(Ref(ObjInt64New(1)).get()), 0xc998c2b6u);
    EXPECT_EQ(ObjGetMagic(Ref(ObjStringNew("")).get()), 0xc96cec6fu);
    EXPECT_EQ(ObjGetMagic(Ref(ObjUniqueNew(&id)).get()), 0xca84a8d9u);
}

TEST(ObjectQuirk, ADataFieldHoldsItsBytesAndAHiddenNul)
{
    Ref field;
    ASSERT_EQ(ObjDataFieldCreate(field.out(), "abcd", 3), 1u);
    EXPECT_EQ(ObjGetDataFieldSize(field.get()), 3u);
    EXPECT_STREQ(static_cast<char*>(ObjGetDataFieldData(field.get())), "abc");
}

// ---- serialised objects
// --------------------------------------------------------------------------

std::string Form(const void* object)
{
    std::string form(ObjSerializedSize(object), '\0');
    uint32_t size = 0;
    EXPECT_EQ(ObjSerializeToMemory(object, form.data(), &size), 1u);
    EXPECT_EQ(size, form.size()); // the size was exact
    return form;
}

TEST(SerialQuirk, PointersAndTransientItemsAreLeftOut)
{
    const Ref object = NewObject(MAGIC + 13, "i;p;ol;sl;");
    const std::string before = Form(object.get());
    Item<const void*>(object.get(), 1) = "anything";
    Item<void*>(object.get(), 2) = ObjIntegerNew(2);
    Item<char*>(object.get(), 3) = PoolText("transient");
    EXPECT_EQ(Form(object.get()), before);
}

TEST(SerialQuirk, IntegersAlwaysTakeTheSameRoom)
{
    const Ref object = NewObject(MAGIC + 14, "i;q;b;");
    const size_t size = Form(object.get()).size();
    Item<int32_t>(object.get(), 0) = INT32_MIN;
    Item<int64_t>(object.get(), 1) = INT64_MAX;
    Item<uint32_t>(object.get(), 2) = 0xFFFFFFFF;
    EXPECT_EQ(Form(object.get()).size(), size); // a table is measured once, when it is created
}

TEST(SerialQuirk, ARingIsWrittenOnceAndClosedAgain)
{
    const Ref first = NewObject(MAGIC + 15, "i;o;");
    const Ref second = NewObject(MAGIC + 15, "i;o;");
    Item<int32_t>(first.get(), 0) = 1;
    Item<int32_t>(second.get(), 0) = 2;
    Item<void*>(first.get(), 1) = ObjIncRefCount(second.get());
    Item<void*>(second.get(), 1) = ObjIncRefCount(first.get());
    Ref rebuilt;
    ASSERT_EQ(ObjReconstructFromMemory(rebuilt.out(), Form(first.get()).data()), 1u);
    void* oOther = Item<void*>(rebuilt.get(), 1);
    EXPECT_EQ(Item<int32_t>(oOther, 0), 2);
    EXPECT_EQ(Item<void*>(oOther, 1), rebuilt.get());
    EXPECT_EQ(RefCount(rebuilt.get()), 2);
    ObjRelease(Item<void*>(oOther, 1)); // opens both rings
    ObjRelease(Item<void*>(second.get(), 1));
}

TEST(SerialQuirk, AFormThatWasTamperedWithIsRefusedAndLeavesNull)
{
    const Ref object = NewObject(MAGIC, "i;s;");
    std::string form = Form(object.get());
    form[form.size() - 1] ^= 1;
    const uint32_t memory = MemLiveCount();
    void* rebuilt = &form;
    EXPECT_EQ(ObjReconstructFromMemory(&rebuilt, form.data()), 0u);
    EXPECT_EQ(rebuilt, nullptr);
    EXPECT_EQ(MemLiveCount(), memory);
}

// ---- lists
// ---------------------------------------------------------------------------------------

NimBool CountItem(void* context, void*)
{
    ++*static_cast<int*>(context);
    return 7; // anything but 0 goes on
}
NimBool StopAtSecond(void* context, void*)
{
    return ++*static_cast<int*>(context) < 2;
}

Ref Numbers(int n)
{
    Ref list(ListNewFromPool(0, POOL));
    for (int i = 0; i < n; ++i) {
        void* oNumber = ObjIntegerNew(i);
        EXPECT_EQ(ListPushLastItemInternal(list.get(), &oNumber), 1u);
    }
    return list;
}

TEST(ListQuirk, PushingTakesTheReferenceOverAndAddingTakesOneOfItsOwn)
{
    const Ref list(ListNewFromPool(0, POOL));
    void* oPushed = ObjIntegerNew(1);
    EXPECT_EQ(ListPushLastItemInternal(list.get(), &oPushed), 1u);
    EXPECT_EQ(oPushed, nullptr);
    const Ref added(ObjIntegerNew(2));
    EXPECT_EQ(ListAddLastItem(list.get(), added.get()), 1u);
    EXPECT_EQ(RefCount(added.get()), 2);
}

TEST(ListQuirk, ARefusedPushLeavesTheReferenceWithItsOwner)
{
    const Ref list(ListNewFromPool(OBJ_MAGIC_STRING, POOL));
    void* oNumber = ObjIntegerNew(1);
    void* const oSame = oNumber;
    EXPECT_EQ(ListPushLastItemInternal(list.get(), &oNumber), 0u);
    EXPECT_EQ(oNumber, oSame);
    EXPECT_EQ(RefCount(oNumber), 1);
    ObjReleaseInternal(&oNumber);
}

TEST(ListQuirk, AWalkEndsWithZeroAtTheFirstZeroAndWithOneOtherwise)
{
    const Ref list = Numbers(3);
    int seen = 0;
    EXPECT_EQ(ListWalk(list.get(), CountItem, &seen), 1u);
    EXPECT_EQ(seen, 3);
    seen = 0;
    EXPECT_EQ(ListWalk(list.get(), StopAtSecond, &seen), 0u);
    EXPECT_EQ(seen, 2);
    EXPECT_EQ(ListWalk(Numbers(0).get(), StopAtSecond, &seen), 1u);
}

TEST(ListQuirk, ASearchTakesAnythingButZeroForAMatchAndAnswersOneOrZero)
{
    const Ref list = Numbers(3);
    const auto match = [](const void* key, const void* item) -> NimBool {
        return ObjGetInteger(item) == *static_cast<const int32_t*>(key) ? 99 : 0;
    };
    int32_t key = 1;
    void* item = nullptr;
    EXPECT_EQ(ListSearch(list.get(), match, &key, &item), 1u);
    EXPECT_EQ(ObjGetInteger(item), 1);
    EXPECT_EQ(RefCount(item), 1); // borrowed
    key = 9;
    EXPECT_EQ(ListSearch(list.get(), match, &key, nullptr), 0u);
}

TEST(ListQuirk, ItemsAreCountedFromZeroAndFoundByIdentity)
{
    const Ref list = Numbers(2);
    void* item = nullptr;
    EXPECT_EQ(ListGetNthItem(&item, list.get(), 1), 1u);
    EXPECT_EQ(ObjGetInteger(item), 1);
    ListNode* pNode = nullptr;
    EXPECT_EQ(ListFindNode(&pNode, list.get(), item), 1u);
    EXPECT_EQ(ListFindNode(&pNode, list.get(), Ref(ObjIntegerNew(1)).get()), 0u);
    EXPECT_EQ(ListGetNthItem(&item, list.get(), 2), 0u);
    EXPECT_EQ(item, nullptr);
}

TEST(ListQuirk, AWalkSurvivesTheRemovalOfTheItemItStandsOn)
{
    const Ref list = Numbers(5);
    struct Removal {
        void* list;
        int seen;
    } removal = {list.get(), 0};
    const auto remove = [](void* context, void* item) -> NimBool {
        auto* p = static_cast<Removal*>(context);
        ++p->seen;
        ListNode* pNode = nullptr;
        return ListFindNode(&pNode, p->list, item) && ListRemoveItem(pNode);
    };
    EXPECT_EQ(ListWalk(list.get(), remove, &removal), 1u);
    EXPECT_EQ(removal.seen, 5);
    EXPECT_EQ(ListGetCount(list.get()), 0u);
}

// ---- maps
// ----------------------------------------------------------------------------------------

int32_t CompareNumbers(const void* a, const void* b)
{
    return ObjGetInteger(a) - ObjGetInteger(b);
}
int32_t CompareKey(const void* key, const void* object)
{
    return *static_cast<const int32_t*>(key) - ObjGetInteger(object);
}
Ref MapOf(const std::vector<int32_t>& numbers)
{
    Ref map;
    EXPECT_EQ(ObjMapCreateInternal(map.out(), 0, 64, CompareNumbers, CompareKey, 0), 1u);
    for (int32_t n : numbers)
        EXPECT_EQ(ObjMapInsert(map.get(), Ref(ObjIntegerNew(n)).get()), 1u);
    return map;
}
std::vector<int32_t> sWalked;
NimBool Walked(void*, void* object)
{
    sWalked.push_back(ObjGetInteger(object));
    return sWalked.size() < 2 ? 1 : 2; // 2 does not go on
}

TEST(MapQuirk, TheMapTakesAReferenceOfItsOwnAndAFindAddsOne)
{
    const Ref map = MapOf({});
    const Ref number(ObjIntegerNew(5));
    EXPECT_EQ(ObjMapInsert(map.get(), number.get()), 1u);
    EXPECT_EQ(RefCount(number.get()), 2);
    const int32_t key = 5;
    Ref found;
    EXPECT_EQ(ObjMapFind(found.out(), map.get(), &key), 1u);
    EXPECT_EQ(RefCount(number.get()), 3);
}

TEST(MapQuirk, AnEqualEntryIsRefused)
{
    const Ref map = MapOf({5});
    const Ref second(ObjIntegerNew(5));
    EXPECT_EQ(ObjMapInsert(map.get(), second.get()), 0u);
    EXPECT_EQ(RefCount(second.get()), 1);
    EXPECT_EQ(ObjMapCount(map.get()), 1u);
}

TEST(MapQuirk, AWalkGoesUpAndOnlyExactlyOneGoesOn)
{
    sWalked.clear();
    EXPECT_EQ(ObjMapWalk(MapOf({9, 3, 7}).get(), Walked, nullptr), 0u);
    EXPECT_EQ(sWalked, std::vector<int32_t>({3, 7}));
}

TEST(MapQuirk, EntriesAreReleasedInAscendingOrderWhenTheMapIsEmptyAlready)
{
    static void* sMap = nullptr;
    static std::vector<int32_t> sGone;
    static std::vector<uint32_t> sCounts;
    const auto gone = [](void* object) {
        sGone.push_back(*static_cast<int32_t*>(object));
        sCounts.push_back(ObjMapCount(sMap));
    };
    const auto compare = [](const void* a, const void* b) {
        return *static_cast<const int32_t*>(a) - *static_cast<const int32_t*>(b);
    };
    Ref map;
    ASSERT_EQ(ObjMapCreateInternal(map.out(), 0, 64, compare, compare, 0), 1u);
    sMap = map.get();
    for (int32_t n : {3, 1, 2}) {
        const Ref entry = NewObject(MAGIC + 16, "i;", gone);
        Item<int32_t>(entry.get(), 0) = n;
        EXPECT_EQ(ObjMapInsert(map.get(), entry.get()), 1u);
    }
    ObjMapReleaseEntries(map.get());
    EXPECT_EQ(sGone, std::vector<int32_t>({1, 2, 3}));
    EXPECT_EQ(sCounts, std::vector<uint32_t>({0, 0, 0}));
}

// ---- memory
// --------------------------------------------------------------------------------------

TEST(MemoryQuirk, TheDefaultPoolIsNeverZeroAndAlwaysTheSame)
{
    EXPECT_NE(POOL, 0u);
    EXPECT_EQ(MemGetDefaultPoolId(), POOL);
    EXPECT_EQ(MemAllocateFromPool(1, POOL + 77), nullptr);
}

TEST(MemoryQuirk, MemoryIsZeroAndNoBytesAreAPieceOfTheirOwn)
{
    void* first = MemAllocateFromPool(0, POOL);
    void* second = MemAllocateFromPool(0, POOL);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(first, second);
    MemFreeInternal(&first);
    MemFreeInternal(&second);
    for (int round = 0; round < 2; ++round) { // the second time in used memory
        auto* bytes = static_cast<char*>(MemAllocateFromPool(64, POOL));
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(std::string(bytes, 64), std::string(64, '\0'));
        std::memset(bytes, 'x', 64);
        MemFree(bytes);
    }
}

TEST(MemoryQuirk, AFreedVariableIsNullAndNullIsFreed)
{
    void* bytes = MemAllocateFromPool(1, POOL);
    MemFreeInternal(&bytes);
    EXPECT_EQ(bytes, nullptr);
    MemFreeInternal(&bytes);
    MemFreeInternal(nullptr);
}

TEST(MemoryQuirk, CopiesMayOverlapBothWays)
{
    char up[] = "abcdef";
    MemCopy(up + 2, up, 4);
    EXPECT_STREQ(up, "ababcd");
    char down[] = "abcdef";
    MemCopy(down, down + 2, 4);
    EXPECT_STREQ(down, "cdefef");
}

} // namespace
