// instance_test.cpp: creation, references, the order of death, and names.
#include "support/object_graph.h"
#include "support/trace_recorder.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "nim/list.h"
#include "nim/objmap.h"

namespace {

constexpr uint32_t MAGIC = 0xc8000200u;

// What destructors did, in order.
std::vector<std::string> gDied;

// "i;o;ol;o;": a name, and three references.
struct Node {
    int32_t name;
    void* first;
    void* second;
    void* third;
};

void NodeDied(void* object)
{
    gDied.push_back(std::to_string(static_cast<Node*>(object)->name));
}

Node* NewNode(int32_t name)
{
    Ref object = NewObject(MAGIC, "i;o;ol;o;", NodeDied);
    auto* node = static_cast<Node*>(object.take());
    node->name = name;
    return node;
}

} // namespace

TEST(Instance, IsZeroFilledWithOneReferenceBehindItsHeader)
{
    ObjTemplate* tmpl = TemplateOf(MAGIC, "p;n5000;i;q;s;");
    for (int round = 0; round < 3; ++round) { // memory that was used before included
        Ref object = NewObject(tmpl);
        ASSERT_NE(object.get(), nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(object.get()) % 16, 0u);
        ObjHeader* header = OBJ_HEADER(object.get());
        EXPECT_EQ(reinterpret_cast<char*>(header) + 32, object.get());
        uint32_t words[2];
        memcpy(words, header, sizeof words);
        EXPECT_EQ(words[0], MAGIC);
        EXPECT_EQ(words[1], 0u); // the host's flag word
        EXPECT_EQ(header->tmpl, tmpl);
        EXPECT_EQ(header->refCount, 1);
        EXPECT_EQ(header->pool, MemGetDefaultPoolId());
        auto* body = static_cast<char*>(object.get());
        constexpr size_t SIZE = 8 + 5000 + 8 + 8 + 8; // the four bytes of `i` are padded
        for (size_t i = 0; i < SIZE; ++i)
            ASSERT_EQ(body[i], 0) << i;
        memset(body, 0xEE, SIZE - 8); // all but the text
    }
}

TEST(Instance, UnclearedZeroesEverythingButLongInlineArrays)
{
    // A tail, a short array before and behind the long ones, and two long ones side by side.
    ObjTemplate* tmpl = TemplateOf(MAGIC, "p;n255;n256;i;n300;n4096;s;n5;", nullptr, 5000);
    const ObjDbField* fields = ObjGetDbDataFromTemplate(tmpl)->fields;
    for (int round = 0; round < 3; ++round) {
        void* object = nullptr;
        ASSERT_EQ(ObjTemplateCreateInstanceUncleared(&object, tmpl, 1), 1u);
        EXPECT_EQ(RefCount(object), 1);
        EXPECT_EQ(OBJ_HEADER(object)->flags, 0u);
        EXPECT_EQ(OBJ_HEADER(object)->reserved, 0u);
        auto* body = static_cast<char*>(object);
        for (int32_t i = 0; i < 5000; ++i) {
            bool open = false;
            for (int f : {2, 4, 5})
                open = open || (i >= fields[f].objectOffset &&
                                i < fields[f].objectOffset + fields[f].arrayLength);
            if (!open) {
                ASSERT_EQ(body[i], 0) << i;
            }
        }
        memset(body, 0xEE, 5000);
        memset(body + fields[6].objectOffset, 0, 8);
        ObjReleaseInternal(&object);
    }
}

#if !defined(NIM_SANITIZE)
TEST(Instance, UnclearedDoesNotTouchLongInlineArrays)
{
    ObjTemplate* tmpl = TemplateOf(MAGIC, "p;n16384;i;b;b;");
    void* object = nullptr;
    ASSERT_EQ(ObjTemplateCreateInstanceUncleared(&object, tmpl, 1), 1u);
    void* first = object;
    memset(static_cast<char*>(object) + 8, 0xEE, 16384);
    ObjReleaseInternal(&object);
    ASSERT_EQ(ObjTemplateCreateInstanceUncleared(&object, tmpl, 1), 1u);
    if (object != first) { // under a memory checker the pool keeps nothing
        ObjReleaseInternal(&object);
        GTEST_SKIP() << "the pool did not hand the same piece out again";
    }
    EXPECT_EQ(static_cast<uint8_t*>(object)[8], 0xEE);
    EXPECT_EQ(static_cast<uint8_t*>(object)[8 + 16383], 0xEE);
    ObjReleaseInternal(&object);
}
#endif

TEST(Instance, NullAndUnknownArgumentsAreAnswered)
{
    ObjTemplate* tmpl = TemplateOf(MAGIC, "i;");
    void* object = &tmpl;
    EXPECT_EQ(ObjTemplateCreateInstanceFromPool(&object, nullptr, 1), 0u);
    EXPECT_EQ(object, nullptr);
    object = &tmpl;
    EXPECT_EQ(ObjTemplateCreateInstanceUncleared(&object, nullptr, 1), 0u);
    EXPECT_EQ(object, nullptr);
    object = &tmpl;
    EXPECT_EQ(ObjTemplateCreateInstanceFromPool(&object, tmpl, 12345), 0u);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(ObjTemplateCreateInstanceUncleared(&object, tmpl, 12345), 0u);
    EXPECT_EQ(ObjTemplateCreateInstanceFromPool(nullptr, tmpl, 1), 0u);
    EXPECT_EQ(ObjTemplateCreateInstanceUncleared(nullptr, tmpl, 1), 0u);
    EXPECT_EQ(ObjIncRefCount(nullptr), nullptr);
    ObjReleaseInternal(nullptr);
    object = nullptr;
    ObjReleaseInternal(&object);
    EXPECT_EQ(ObjGetMagic(nullptr), 0xFFFFFFFFu);
}

TEST(Instance, WithoutMemoryThereIsNone)
{
    ObjTemplate* tmpl = TemplateOf(MAGIC, "i;");
    Alive before;
    for (uint32_t n = 1; n <= 2; ++n) {
        FaultRule rule = {FAULT_ALLOC, nullptr, 1, 1, FAULT_FAIL, 0};
        FaultArm(&rule);
        void* object = &rule;
        EXPECT_EQ(
            n == 1 ? ObjTemplateCreateInstanceFromPool(&object, tmpl, 1)
                   : ObjTemplateCreateInstanceUncleared(&object, tmpl, 1),
            0u);
        EXPECT_EQ(object, nullptr);
        FaultDisarmAll();
    }
    EXPECT_EQ(Alive(), before);
}

TEST(Instance, ReferencesAreCounted)
{
    gDied.clear();
    void* object = NewNode(1);
    OBJ_HEADER(object)->flags = 0x12345678; // the host's, and nobody else touches it
    EXPECT_EQ(ObjIncRefCount(object), object);
    EXPECT_EQ(RefCount(object), 2);
    void* second = object;
    ObjReleaseInternal(&second);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(OBJ_HEADER(object)->flags, 0x12345678u);
    EXPECT_EQ(memcmp(reinterpret_cast<char*>(OBJ_HEADER(object)) + 4, "\x78\x56\x34\x12", 4), 0);
    EXPECT_EQ(RefCount(object), 1);
    EXPECT_TRUE(gDied.empty());
    ObjReleaseInternal(&object);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(gDied, std::vector<std::string>{"1"});
}

TEST(Instance, TheDestructorSeesAnIntactBodyACountOfOneAndANullVariable)
{
    static void* variable;
    static bool seen;
    struct Body {
        int32_t value;
        char* text;
        ObjData data;
        void* nested;
        void* transient;
        char* path;
    };
    seen = false;
    Ref object = NewObject(MAGIC + 1, "i;s;d;o;ol;sl;", [](void* handle) {
        seen = true;
        auto* body = static_cast<Body*>(handle);
        EXPECT_EQ(variable, nullptr);
        EXPECT_EQ(RefCount(handle), 1);
        EXPECT_EQ(ObjGetMagic(handle), MAGIC + 1);
        EXPECT_EQ(body->value, 7);
        EXPECT_STREQ(body->text, "text");
        EXPECT_EQ(memcmp(body->data.data, "bytes", 5), 0);
        EXPECT_EQ(ObjGetInteger(body->nested), 11);
        EXPECT_EQ(ObjGetInteger(body->transient), 12);
        EXPECT_STREQ(body->path, "path");
    });
    auto* body = static_cast<Body*>(object.get());
    body->value = 7;
    body->text = PoolText("text");
    body->data = PoolData("bytes");
    body->nested = ObjIntegerNew(11);
    body->transient = ObjIntegerNew(12);
    body->path = PoolText("path");
    Alive before;
    variable = object.take();
    ObjReleaseInternal(&variable);
    EXPECT_TRUE(seen);
    Alive after;
    EXPECT_EQ(before.objects - after.objects, 3u);
    EXPECT_EQ(before.pieces - after.pieces, 6u); // three objects, text, bytes, path
}

TEST(Instance, PointersAndInlineArraysAreLeftAlone)
{
    Ref other = NewObject(MAGIC, "i;");
    {
        Ref object = NewObject(MAGIC, "p;n32;p;");
        Item<void*>(object.get(), 0) = other.get();
        memset(&Item<uint8_t>(object.get(), 1), 0xEE, 32);
        Item<void*>(object.get(), 2) = reinterpret_cast<void*>(uintptr_t{0x1234});
    }
    EXPECT_EQ(RefCount(other.get()), 1);
}

TEST(Instance, WhatAnObjectHoldsDiesAfterItInTemplateOrderDepthFirst)
{
    gDied.clear();
    Node* root = NewNode(1);
    Node* a = NewNode(2);
    Node* b = NewNode(3);
    Node* c = NewNode(4);
    root->first = a;
    root->second = b;
    root->third = c;
    a->first = NewNode(21);
    a->second = NewNode(22);
    static_cast<Node*>(a->second)->third = NewNode(221);
    b->third = NewNode(33);
    void* handle = root;
    ObjReleaseInternal(&handle);
    EXPECT_EQ(gDied, (std::vector<std::string>{"1", "2", "21", "22", "221", "3", "33", "4"}));
}

TEST(Instance, TheHolderCanBeReadWhileWhatItHeldDiesAndItsItemIsAlreadyNull)
{
    struct Child {
        void* owner; // borrowed
        int32_t seen;
    };
    static int32_t seen;
    static std::vector<bool> ownItemWasNull;
    static std::vector<bool> laterItemWasThere;
    seen = 0;
    ownItemWasNull.clear();
    laterItemWasThere.clear();
    ObjDestructor childDied = [](void* handle) {
        auto* owner = static_cast<Node*>(static_cast<Child*>(handle)->owner);
        seen += owner->name;
        ownItemWasNull.push_back(owner->first == nullptr);
        laterItemWasThere.push_back(owner->third != nullptr);
    };
    Node* root = NewNode(50);
    for (void** item : {&root->first, &root->third}) {
        *item = NewObject(MAGIC + 2, "p;i;", childDied).take();
        static_cast<Child*>(*item)->owner = root;
    }
    void* handle = root;
    ObjReleaseInternal(&handle);
    EXPECT_EQ(seen, 100);
    EXPECT_EQ(ownItemWasNull, (std::vector<bool>{true, true}));
    EXPECT_EQ(laterItemWasThere, (std::vector<bool>{true, false}));
}

TEST(Instance, SharedObjectsDieWithTheirLastReference)
{
    gDied.clear();
    Node* root = NewNode(1);
    Node* shared = NewNode(9);
    root->first = shared;
    root->second = NewNode(2);
    static_cast<Node*>(root->second)->first = ObjIncRefCount(shared);
    root->third = ObjIncRefCount(shared);
    void* handle = root;
    ObjReleaseInternal(&handle);
    EXPECT_EQ(gDied, (std::vector<std::string>{"1", "2", "9"}));
}

TEST(Instance, ListsAndMapsDieEntryByEntryWithinTheirHolder)
{
    gDied.clear();
    Node* root = NewNode(1);
    root->first = ListNewFromPool(0, 1);
    for (int32_t name : {12, 11, 13}) {
        void* item = NewNode(name);
        static_cast<Node*>(item)->first = NewNode(name * 10);
        ASSERT_EQ(ListPushLastItemInternal(root->first, &item), 1u);
    }
    void* map = nullptr;
    auto compare = [](const void* a, const void* b) -> int32_t {
        return static_cast<const Node*>(a)->name - static_cast<const Node*>(b)->name;
    };
    ASSERT_EQ(ObjMapCreateInternal(&map, MAGIC, 64, compare, compare, 0), 1u);
    root->second = map;
    for (int32_t name : {25, 23, 24}) {
        Ref item(NewNode(name));
        ASSERT_EQ(ObjMapInsert(map, item.get()), 1u);
    }
    root->third = NewNode(3);
    void* handle = root;
    ObjReleaseInternal(&handle);
    EXPECT_EQ(
        gDied, (std::vector<std::string>{
                   "1", "12", "120", "11", "110", "13", "130", "23", "24", "25", "3"}));
}

TEST(Instance, AChainOfAMillionObjectsIsReleasedWithoutRecursion)
{
    Alive before;
    ObjTemplate* tmpl = TemplateOf(MAGIC, "o;i;");
    void* chain = nullptr;
    for (int i = 0; i < 1000000; ++i) {
        Ref link = NewObject(tmpl);
        Item<void*>(link.get(), 0) = chain;
        chain = link.take();
    }
    EXPECT_EQ(ObjLiveCount(0), before.objects + 1000000);
    ObjReleaseInternal(&chain);
    EXPECT_EQ(Alive(), before);
}

TEST(Instance, AChainThroughListsAndTransientItemsIsReleasedWithoutRecursion)
{
    Alive before;
    ObjTemplate* tmpl = TemplateOf(MAGIC, "i;ol;");
    void* chain = nullptr;
    for (int i = 0; i < 200000; ++i) {
        void* list = ListNewFromPool(0, 1);
        if (chain) {
            ASSERT_EQ(ListPushLastItemInternal(list, &chain), 1u);
        }
        Ref link = NewObject(tmpl);
        Item<void*>(link.get(), 1) = list;
        chain = link.take();
    }
    ObjReleaseInternal(&chain);
    EXPECT_EQ(Alive(), before);
}

TEST(Instance, ADestructorMayReleaseOtherObjectsWhichDieBeforeItGoesOn)
{
    gDied.clear();
    static void* other;
    other = NewNode(2);
    static_cast<Node*>(other)->first = NewNode(3);
    Ref object = NewObject(MAGIC + 3, "o;", [](void*) {
        gDied.push_back("begin");
        ObjReleaseInternal(&other);
        gDied.push_back("end");
    });
    Item<void*>(object.get(), 0) = NewNode(4);
    object = Ref();
    EXPECT_EQ(gDied, (std::vector<std::string>{"begin", "2", "3", "end", "4"}));
}

TEST(Instance, ADestructorMayReferToItsObjectButNotKeepIt)
{
    Alive before;
    static int runs;
    runs = 0;
    Ref object = NewObject(MAGIC + 4, "i;", [](void* handle) {
        ++runs;
        void* again = ObjIncRefCount(handle);
        EXPECT_EQ(RefCount(handle), 2);
        ObjReleaseInternal(&again);
        EXPECT_EQ(RefCount(handle), 1);
        ObjIncRefCount(handle); // never given back
    });
    object = Ref();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(Alive(), before);
}

TEST(Instance, OneReleaseTooManyIsTracedAndEndsTheProcess)
{
    TraceRecorder trace;
    CrashRecorder crash;
    Ref object = NewObject(MAGIC, "i;");
    for (int32_t count : {0, -5}) {
        OBJ_HEADER(object.get())->refCount = count;
        void* handle = object.get();
        ObjReleaseInternal(&handle);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(RefCount(object.get()), count);
    }
    EXPECT_EQ(crash.codes(), (std::vector<uint32_t>{0, 0}));
    ASSERT_EQ(trace.lines().size(), 2u);
    EXPECT_EQ(trace.lines()[0].level, -1);
    EXPECT_EQ(trace.lines()[0].error, 1u);
    EXPECT_TRUE(trace.hasPart("Reference count -5 of ")) << trace.dump();
    OBJ_HEADER(object.get())->refCount = 1;
}

TEST(Instance, AnObjectThatReleasesItselfWhileItDiesIsReportedAndDiesOnce)
{
    TraceRecorder trace;
    CrashRecorder crash;
    Alive before;
    static int runs;
    runs = 0;
    Ref object = NewObject(MAGIC + 5, "o;", [](void* handle) {
        ++runs;
        void* wrong = handle;
        ObjReleaseInternal(&wrong);
    });
    Item<void*>(object.get(), 0) = ObjIntegerNew(1);
    object = Ref();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(crash.count(), 1u);
    EXPECT_EQ(Alive(), before);
}

TEST(Instance, AnItemThatHoldsOneReferenceTooManyOnItsDyingHolderIsReported)
{
    TraceRecorder trace;
    CrashRecorder crash;
    Alive before;
    Ref object = NewObject(MAGIC, "o;");
    Item<void*>(object.get(), 0) = object.get(); // not counted: a caller's fault
    object = Ref();
    EXPECT_EQ(crash.count(), 1u);
    EXPECT_EQ(Alive(), before);
}

TEST(Instance, AnObjectWhoseTemplateWasLostStillGivesItsMemoryBack)
{
    uint32_t pieces = MemLiveCount();
    Ref object = NewObject(MAGIC + 7, "i;"); // a kind of its own: it stays counted as living
    OBJ_HEADER(object.get())->tmpl = nullptr;
    object = Ref();
    EXPECT_EQ(MemLiveCount(), pieces);
}

TEST(Instance, LivingObjectsAreCountedByMagic)
{
    uint32_t all = ObjLiveCount(0);
    uint32_t lists = ObjLiveCount(OBJ_MAGIC_LIST);
    uint32_t mine = ObjLiveCount(MAGIC + 6);
    EXPECT_EQ(mine, 0u);
    {
        Ref list(ListNewFromPool(0, 1));
        Ref one = NewObject(MAGIC + 6, "i;");
        Ref two = NewObject(MAGIC + 6, "q;"); // another template of this magic
        EXPECT_EQ(ObjLiveCount(0), all + 3);
        EXPECT_EQ(ObjLiveCount(OBJ_MAGIC_LIST), lists + 1);
        EXPECT_EQ(ObjLiveCount(MAGIC + 6), 2u);
    }
    EXPECT_EQ(ObjLiveCount(0), all);
    EXPECT_EQ(ObjLiveCount(MAGIC + 6), 0u);
}

TEST(Instance, NamesOfObjects)
{
    EXPECT_STREQ(ObjNameFromObject(nullptr), "(null)");
    EXPECT_STREQ(ObjNameFromMagic(OBJ_MAGIC_INTEGER), "Integer");
    EXPECT_STREQ(ObjNameFromMagic(OBJ_MAGIC_INT64), "Integer64");
    EXPECT_STREQ(ObjNameFromMagic(OBJ_MAGIC_STRING), "String");
    EXPECT_STREQ(ObjNameFromMagic(OBJ_MAGIC_UNIQUE), "UniqueId");
    EXPECT_STREQ(ObjNameFromMagic(OBJ_MAGIC_DATAFIELD), "DataField");
    EXPECT_STREQ(ObjNameFromMagic(OBJ_MAGIC_LIST), "List");
    EXPECT_STREQ(ObjNameFromMagic(OBJ_MAGIC_MAP), "ObjectMap");
    EXPECT_STREQ(ObjNameFromMagic(0xca8ab522u), "magic 0xca8ab522");
    EXPECT_STREQ(ObjNameFromMagic(0x12u), "magic 0x00000012");
    Ref object(ObjIntegerNew(1));
    EXPECT_STREQ(ObjNameFromObject(object.get()), "Integer");
    Ref mine = NewObject(MAGIC, "i;");
    EXPECT_STREQ(ObjNameFromObject(mine.get()), "magic 0xc8000200");
}

TEST(Instance, EightNamesCanBeUsedAtOnce)
{
    const char* names[8];
    for (uint32_t i = 0; i < 8; ++i)
        names[i] = ObjNameFromMagic(0xca000000u + i);
    for (uint32_t i = 0; i < 8; ++i)
        EXPECT_EQ(names[i], "magic 0xca00000" + std::to_string(i));
}

TEST(Instance, MagicsOfTheServicesObeyTheMask)
{
    std::set<uint32_t> magics = {OBJ_MAGIC_INTEGER, OBJ_MAGIC_INT64,     OBJ_MAGIC_STRING,
                                 OBJ_MAGIC_UNIQUE,  OBJ_MAGIC_DATAFIELD, OBJ_MAGIC_LIST,
                                 OBJ_MAGIC_MAP};
    // Files hold these numbers.
    EXPECT_EQ(
        magics,
        (std::set<uint32_t>{
            0xc96cf22a, 0xc998c2b6, 0xc96cec6f, 0xca84a8d9, 0xc96eda7a, 0xc96e1157, 0xc96e3a95}));
    EXPECT_EQ(OBJ_MAGIC_INTEGER, 0xc96cf22au);
    EXPECT_EQ(OBJ_MAGIC_INT64, 0xc998c2b6u);
    EXPECT_EQ(OBJ_MAGIC_STRING, 0xc96cec6fu);
    EXPECT_EQ(OBJ_MAGIC_UNIQUE, 0xca84a8d9u);
    for (uint32_t magic : magics)
        EXPECT_EQ(magic & OBJ_MAGIC_MASK, OBJ_MAGIC_VALID);
    EXPECT_NE(OBJ_MAGIC_NONE & OBJ_MAGIC_MASK, OBJ_MAGIC_VALID);
    EXPECT_NE(OBJ_MAGIC_DEAD & OBJ_MAGIC_MASK, OBJ_MAGIC_VALID);
}
