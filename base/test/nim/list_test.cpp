// list_test.cpp: lists, and lists that change while they are walked.
#include "support/object_graph.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "nim/list.h"

namespace {

constexpr uint32_t MAGIC = 0xc8000300u;

Ref NewList(uint32_t itemMagic = 0)
{
    return Ref(ListNewFromPool(itemMagic, MemGetDefaultPoolId()));
}

void Push(void* list, int32_t value)
{
    void* object = ObjIntegerNew(value);
    ASSERT_EQ(ListPushLastItemInternal(list, &object), 1u);
}

Ref ListOf(const std::vector<int32_t>& values)
{
    Ref list = NewList();
    for (int32_t value : values)
        Push(list.get(), value);
    return list;
}

using Visit = std::function<NimBool(void* object)>;

NimBool WalkWith(void* list, const Visit& visit)
{
    return ListWalk(
        list,
        [](void* context, void* object) { return (*static_cast<const Visit*>(context))(object); },
        const_cast<Visit*>(&visit));
}

std::vector<int32_t> Values(void* list)
{
    std::vector<int32_t> values;
    WalkWith(list, [&](void* object) {
        values.push_back(ObjGetInteger(object));
        return TRUE;
    });
    return values;
}

void* Nth(void* list, uint32_t n)
{
    void* item = nullptr;
    ListGetNthItem(&item, list, n);
    return item;
}

void Remove(void* list, const void* object)
{
    ListNode* node = nullptr;
    ASSERT_EQ(ListFindNode(&node, list, object), 1u);
    ASSERT_EQ(ListRemoveItem(node), 1u);
}

void RemoveAll(void* list)
{
    while (ListGetCount(list))
        Remove(list, Nth(list, 0));
}

using Numbers = std::vector<int32_t>;

} // namespace

TEST(List, IsAnObjectOfItsOwnMagic)
{
    Ref list;
    ASSERT_EQ(ListCreateFromPool(list.out(), MAGIC, 1), 1u);
    EXPECT_EQ(ObjGetMagic(list.get()), OBJ_MAGIC_LIST);
    EXPECT_EQ(ListGetItemType(list.get()), MAGIC);
    EXPECT_EQ(ListGetCount(list.get()), 0u);
    EXPECT_EQ(RefCount(list.get()), 1);
    EXPECT_EQ(ListGetItemType(NewList().get()), 0u);
    EXPECT_EQ(ListGetItemType(nullptr), 0u);
    Ref other = NewObject(MAGIC, "i;");
    EXPECT_EQ(ListGetItemType(other.get()), 0u);
}

TEST(List, CannotBeMadeWithoutMemoryOrInAnUnknownPool)
{
    void* list = &list;
    EXPECT_EQ(ListCreateFromPool(&list, 0, 99), 0u);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(ListNewFromPool(0, 99), nullptr);
    EXPECT_EQ(ListCreateFromPool(nullptr, 0, 1), 0u);
    FaultRule rule = {FAULT_ALLOC, nullptr, 1, 2, FAULT_FAIL, 0};
    FaultArm(&rule);
    list = &list;
    EXPECT_EQ(ListCreateFromPool(&list, 0, 1), 0u);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(ListNewFromPool(0, 1), nullptr);
    FaultDisarmAll();
}

TEST(List, PushingTakesTheReferenceOverAndNullsTheVariable)
{
    Ref list = NewList();
    void* object = ObjIntegerNew(5);
    void* same = object;
    ASSERT_EQ(ListPushLastItemInternal(list.get(), &object), 1u);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(RefCount(same), 1);
    EXPECT_EQ(Nth(list.get(), 0), same);
}

TEST(List, AddingTakesAReferenceOfItsOwn)
{
    Ref list = NewList();
    Ref object(ObjIntegerNew(5));
    ASSERT_EQ(ListAddLastItem(list.get(), object.get()), 1u);
    EXPECT_EQ(RefCount(object.get()), 2);
    list = Ref();
    EXPECT_EQ(RefCount(object.get()), 1);
}

TEST(List, ARefusedPushLeavesVariableAndReferenceWithTheCaller)
{
    Ref typed = NewList(OBJ_MAGIC_STRING);
    Ref any = NewList();
    void* integer = ObjIntegerNew(5);
    void* kept = integer;
    EXPECT_EQ(ListPushLastItemInternal(typed.get(), &integer), 0u); // another magic
    EXPECT_EQ(ListPushLastItemInternal(nullptr, &integer), 0u);
    EXPECT_EQ(ListPushLastItemInternal(kept, &integer), 0u); // no list
    FaultRule rule = {FAULT_ALLOC, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    EXPECT_EQ(ListPushLastItemInternal(any.get(), &integer), 0u);
    FaultDisarmAll();
    EXPECT_EQ(integer, kept);
    EXPECT_EQ(RefCount(kept), 1);
    EXPECT_EQ(ListPushLastItemInternal(any.get(), nullptr), 0u);
    void* null = nullptr;
    EXPECT_EQ(ListPushLastItemInternal(any.get(), &null), 0u);
    EXPECT_EQ(ListGetCount(typed.get()) + ListGetCount(any.get()), 0u);
    ObjReleaseInternal(&integer);
}

TEST(List, ARefusedAddChangesNothing)
{
    Ref typed = NewList(OBJ_MAGIC_STRING);
    Ref any = NewList();
    Ref integer(ObjIntegerNew(5));
    Alive before;
    EXPECT_EQ(ListAddLastItem(typed.get(), integer.get()), 0u);
    EXPECT_EQ(ListAddLastItem(any.get(), nullptr), 0u);
    EXPECT_EQ(ListAddLastItem(nullptr, integer.get()), 0u);
    EXPECT_EQ(ListAddLastItem(integer.get(), integer.get()), 0u);
    FaultRule rule = {FAULT_ALLOC, nullptr, 1, 1, FAULT_FAIL, 0};
    FaultArm(&rule);
    EXPECT_EQ(ListAddLastItem(any.get(), integer.get()), 0u);
    FaultDisarmAll();
    EXPECT_EQ(RefCount(integer.get()), 1);
    EXPECT_EQ(ListGetCount(any.get()), 0u);
    EXPECT_EQ(Alive(), before);
}

TEST(List, ATypedListTakesItsTypeOnly)
{
    Ref list = NewList(OBJ_MAGIC_STRING);
    void* string = ObjStringNew("a");
    EXPECT_EQ(ListPushLastItemInternal(list.get(), &string), 1u);
    EXPECT_EQ(ListGetCount(list.get()), 1u);
}

TEST(List, TypedPushClearsAVariableOfAnyPointerType)
{
    Ref list = NewList();
    auto* value = static_cast<int32_t*>(ObjIntegerNew(3));
    EXPECT_EQ(ListPushLastItem(list.get(), value), 1u);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(ListPushLastItem(list.get(), value), 0u);
}

TEST(List, ItemsAreFoundByPlaceAndIdentity)
{
    Ref list = ListOf({10, 11, 12, 13, 14});
    for (uint32_t n = 0; n < 5; ++n)
        EXPECT_EQ(ObjGetInteger(Nth(list.get(), n)), static_cast<int32_t>(10 + n));
    void* item = &list;
    EXPECT_EQ(ListGetNthItem(&item, list.get(), 5), 0u);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(ListGetNthItem(&item, list.get(), 0xFFFFFFFFu), 0u);
    EXPECT_EQ(ListGetNthItem(&item, nullptr, 0), 0u);
    EXPECT_EQ(ListGetNthItem(nullptr, list.get(), 0), 0u);
    EXPECT_EQ(RefCount(Nth(list.get(), 2)), 1) << "items are borrowed";

    ListNode* node = nullptr;
    EXPECT_EQ(ListFindNode(&node, list.get(), Nth(list.get(), 3)), 1u);
    EXPECT_NE(node, nullptr);
    Ref stranger(ObjIntegerNew(13)); // equal, not identical
    EXPECT_EQ(ListFindNode(&node, list.get(), stranger.get()), 0u);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(ListFindNode(&node, list.get(), nullptr), 0u);
    EXPECT_EQ(ListFindNode(&node, nullptr, stranger.get()), 0u);
    EXPECT_EQ(ListFindNode(nullptr, list.get(), stranger.get()), 0u);
}

TEST(List, TheSameObjectMayStandInItMoreThanOnce)
{
    Ref list = NewList();
    Ref object(ObjIntegerNew(1));
    ASSERT_EQ(ListAddLastItem(list.get(), object.get()), 1u);
    Push(list.get(), 2);
    ASSERT_EQ(ListAddLastItem(list.get(), object.get()), 1u);
    EXPECT_EQ(RefCount(object.get()), 3);
    Remove(list.get(), object.get()); // the first
    EXPECT_EQ(Values(list.get()), (Numbers{2, 1}));
    EXPECT_EQ(RefCount(object.get()), 2);
}

TEST(List, RemovingKeepsTheOrderOfTheOthersAndDropsTheReference)
{
    for (uint32_t n = 0; n < 4; ++n) {
        Ref list = ListOf({0, 1, 2, 3});
        Ref held(ObjIncRefCount(Nth(list.get(), n)));
        Remove(list.get(), held.get());
        EXPECT_EQ(RefCount(held.get()), 1);
        Numbers expected = {0, 1, 2, 3};
        expected.erase(expected.begin() + n);
        EXPECT_EQ(Values(list.get()), expected);
        EXPECT_EQ(ListGetCount(list.get()), 3u);
        Push(list.get(), 9); // both ends are still right
        expected.push_back(9);
        EXPECT_EQ(Values(list.get()), expected);
    }
    EXPECT_EQ(ListRemoveItem(nullptr), 0u);
}

TEST(List, SearchCallsWithKeyAndItemAndAnythingButZeroMatches)
{
    Ref list = ListOf({10, 20, 30, 20});
    auto match = [](const void* key, const void* item) -> NimBool {
        return *static_cast<const int32_t*>(key) == ObjGetInteger(item) ? 2u : 0u;
    };
    int32_t key = 20;
    void* item = nullptr;
    EXPECT_EQ(ListSearch(list.get(), match, &key, &item), 1u);
    EXPECT_EQ(item, Nth(list.get(), 1));
    EXPECT_EQ(RefCount(item), 1) << "borrowed";
    EXPECT_EQ(ListSearch(list.get(), match, &key, nullptr), 1u);
    key = 99;
    EXPECT_EQ(ListSearch(list.get(), match, &key, &item), 0u);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(ListSearch(list.get(), match, &key, nullptr), 0u);
    item = &key;
    EXPECT_EQ(ListSearch(nullptr, match, &key, &item), 0u);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(ListSearch(list.get(), nullptr, &key, &item), 0u);
}

TEST(List, AWalkGoesOnAtAnythingButZero)
{
    Ref list = ListOf({1, 2, 3});
    Numbers seen;
    auto visit = [&](NimBool result) {
        seen.clear();
        return WalkWith(list.get(), [&, result](void* object) {
            seen.push_back(ObjGetInteger(object));
            return seen.size() == 2 ? result : 1;
        });
    };
    EXPECT_EQ(visit(2), 1u);
    EXPECT_EQ(seen, (Numbers{1, 2, 3}));
    EXPECT_EQ(visit(0xFFFFFFFFu), 1u);
    EXPECT_EQ(seen, (Numbers{1, 2, 3}));
    EXPECT_EQ(visit(0), 0u);
    EXPECT_EQ(seen, (Numbers{1, 2}));
    EXPECT_EQ(WalkWith(NewList().get(), [](void*) { return 0u; }), 1u) << "empty";
    EXPECT_EQ(WalkWith(nullptr, [](void*) { return 1u; }), 0u);
    EXPECT_EQ(ListWalk(list.get(), nullptr, nullptr), 0u);
    Ref integer(ObjIntegerNew(1));
    EXPECT_EQ(WalkWith(integer.get(), [](void*) { return 1u; }), 0u);
}

TEST(List, AWalkBorrowsItsItems)
{
    Ref list = ListOf({1, 2});
    WalkWith(list.get(), [](void* object) {
        EXPECT_EQ(RefCount(object), 1);
        return 1u;
    });
    EXPECT_EQ(RefCount(list.get()), 1);
}

TEST(List, WalkSurvivesRemovalOfTheCurrentItem)
{
    Ref list = ListOf({1, 2, 3, 4});
    Numbers seen;
    EXPECT_EQ(
        WalkWith(
            list.get(),
            [&](void* object) {
                seen.push_back(ObjGetInteger(object));
                Remove(list.get(), object);
                return 1u;
            }),
        1u);
    EXPECT_EQ(seen, (Numbers{1, 2, 3, 4}));
    EXPECT_EQ(ListGetCount(list.get()), 0u);
}

TEST(List, WalkSurvivesRemovalOfTheNextItemAndDoesNotMeetIt)
{
    Ref list = ListOf({1, 2, 3, 4, 5});
    Numbers seen;
    WalkWith(list.get(), [&](void* object) {
        seen.push_back(ObjGetInteger(object));
        if (seen.size() == 2) { // the next two
            Remove(list.get(), Nth(list.get(), 2));
            Remove(list.get(), Nth(list.get(), 2));
        }
        return 1u;
    });
    EXPECT_EQ(seen, (Numbers{1, 2, 5}));
}

TEST(List, WalkSurvivesRemovalOfEverythingAndMeetsWhatIsAppendedAfterwards)
{
    Ref list = ListOf({1, 2, 3});
    Numbers seen;
    EXPECT_EQ(
        WalkWith(
            list.get(),
            [&](void* object) {
                seen.push_back(ObjGetInteger(object));
                if (seen.size() == 1) {
                    RemoveAll(list.get());
                    Push(list.get(), 7);
                    Push(list.get(), 8);
                }
                return 1u;
            }),
        1u);
    EXPECT_EQ(seen, (Numbers{1, 7, 8}));
}

TEST(List, WalkMeetsWhatIsAppendedMeanwhile)
{
    Ref list = ListOf({1, 2});
    Numbers seen;
    WalkWith(list.get(), [&](void* object) {
        seen.push_back(ObjGetInteger(object));
        if (seen.size() <= 3)
            Push(list.get(), 10 + static_cast<int32_t>(seen.size()));
        return 1u;
    });
    EXPECT_EQ(seen, (Numbers{1, 2, 11, 12, 13}));
}

TEST(List, WalkSurvivesTheLastReleaseOfItsList)
{
    Alive before;
    static void* list;
    list = ListOf({1, 2, 3}).take();
    int seen = 0;
    EXPECT_EQ(
        WalkWith(
            list,
            [&](void*) {
                ++seen;
                ObjReleaseInternal(&list);
                return 1u;
            }),
        1u);
    EXPECT_EQ(seen, 3) << "the walk held it";
    EXPECT_EQ(Alive(), before);
}

TEST(List, AnItemsDestructorMayChangeTheListThatItLeaves)
{
    static void* list;
    Ref held = NewList();
    list = held.get();
    for (int i = 0; i < 3; ++i) {
        void* object = NewObject(MAGIC, "i;", [](void*) {
                           if (ListGetCount(list))
                               Remove(list, Nth(list, 0));
                       }).take();
        ASSERT_EQ(ListPushLastItemInternal(list, &object), 1u);
    }
    Remove(list, Nth(list, 2)); // each takes the next one with it
    EXPECT_EQ(ListGetCount(list), 0u);
}

TEST(List, NestedWalksOfOneListSurviveEachOthersRemovals)
{
    Ref list = ListOf({1, 2, 3, 4, 5, 6});
    Numbers outer;
    Numbers inner;
    WalkWith(list.get(), [&](void* object) {
        outer.push_back(ObjGetInteger(object));
        return WalkWith(list.get(), [&](void* nested) {
            int32_t value = ObjGetInteger(nested);
            inner.push_back(value);
            if (outer.size() == 1 && value <= 3) // the outer's current and next ones
                Remove(list.get(), nested);
            return 1u;
        });
    });
    EXPECT_EQ(outer, (Numbers{1, 4, 5, 6}));
    EXPECT_EQ(inner, (Numbers{1, 2, 3, 4, 5, 6, 4, 5, 6, 4, 5, 6, 4, 5, 6}));
}

TEST(List, WalkThatStopsLeavesTheListWalkable)
{
    Ref list = ListOf({1, 2, 3});
    WalkWith(list.get(), [](void*) { return 0u; });
    Remove(list.get(), Nth(list.get(), 1)); // an end walk left behind would be followed here
    Push(list.get(), 4);
    EXPECT_EQ(Values(list.get()), (Numbers{1, 3, 4}));
    EXPECT_EQ(RefCount(list.get()), 1);
}

TEST(List, ADeadListGivesEverythingBack)
{
    Alive before;
    ListOf({1, 2, 3});
    Ref outer = NewList();
    for (int i = 0; i < 3; ++i) {
        void* inner = ListOf({i, i}).take();
        ASSERT_EQ(ListPushLastItemInternal(outer.get(), &inner), 1u);
    }
    outer = Ref();
    EXPECT_EQ(Alive(), before);
}

TEST(List, AMagicAloneIsNoList)
{
    Ref object = NewObject(OBJ_MAGIC_LIST, "i;"); // a host's own template under that magic
    Ref integer(ObjIntegerNew(1));
    EXPECT_EQ(ListGetCount(object.get()), 0u);
    EXPECT_EQ(ListAddLastItem(object.get(), integer.get()), 0u);
    EXPECT_EQ(WalkWith(object.get(), [](void*) { return 1u; }), 0u);
}

// ---- against a model ----------------------------------------------------------------------------

namespace {

// Random changes from within walks within walks. The model is a plain sequence of the values, each
// unique, and a cursor for each walk under way.
class ListModel {
  public:
    explicit ListModel(uint32_t seed) : random_(seed), list_(NewList()) {}

    void Run(int steps)
    {
        for (int i = 0; i < steps; ++i) {
            Change();
            if (Roll(3) == 0)
                Walk(1);
            ASSERT_EQ(Values(list_.get()), model_);
            ASSERT_EQ(ListGetCount(list_.get()), model_.size());
        }
    }

  private:
    uint32_t Roll(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

    void Change()
    {
        uint32_t what = Roll(20);
        if (what < 9 || model_.empty()) {
            Push(list_.get(), next_);
            model_.push_back(next_++);
        } else if (what == 19) {
            RemoveAll(list_.get());
            model_.clear();
        } else {
            RemoveAt(Roll(static_cast<uint32_t>(model_.size())));
        }
    }

    void RemoveAt(uint32_t at)
    {
        int32_t value = model_[at];
        ASSERT_EQ(ObjGetInteger(Nth(list_.get(), at)), value);
        Remove(list_.get(), Nth(list_.get(), at));
        model_.erase(model_.begin() + at);
    }

    // A walk has to meet exactly the values above the last one it met that are still there: values
    // ascend along the list, because they are only ever appended.
    void Walk(int depth)
    {
        int32_t last = -1;
        WalkWith(list_.get(), [&](void* object) {
            int32_t value = ObjGetInteger(object);
            auto expected = std::upper_bound(model_.begin(), model_.end(), last);
            EXPECT_NE(expected, model_.end());
            if (expected != model_.end()) {
                EXPECT_EQ(value, *expected);
            }
            last = value;
            if (Roll(3) == 0) // the current one
                RemoveAt(static_cast<uint32_t>(
                    std::lower_bound(model_.begin(), model_.end(), value) - model_.begin()));
            if (model_.size() < 40 || Roll(2) == 0)
                Change();
            if (depth < 3 && Roll(8) == 0)
                Walk(depth + 1);
            return model_.size() > 60 ? 0u : 1u;
        });
        if (model_.size() <= 60) {
            EXPECT_TRUE(model_.empty() || last >= model_.back());
        }
    }

    std::mt19937 random_;
    Ref list_;
    Numbers model_;
    int32_t next_ = 0;
};

} // namespace

TEST(List, BehavesAsItsModelUnderRandomChangesDuringNestedWalks)
{
    Alive before;
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        ListModel model(seed);
        model.Run(200);
        if (HasFatalFailure() || HasNonfatalFailure())
            break;
    }
    EXPECT_EQ(Alive(), before);
}
