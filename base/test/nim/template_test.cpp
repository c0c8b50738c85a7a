// template_test.cpp: format texts, layouts, slots, and the registry.
#include "support/object_graph.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "nim/list.h"
#include "nim/objmap.h"

namespace {

constexpr uint32_t MAGIC = 0xc8000100u; // of this file's templates

struct Expected {
    int32_t kind;
    int32_t offset;
    int32_t slot;
    int32_t length;
};

void ExpectLayout(
    const char* format, uint32_t bodySize, uint32_t fixedSize, bool storable,
    const std::vector<Expected>& items)
{
    SCOPED_TRACE(format);
    ObjTemplate* tmpl = TemplateOf(MAGIC, format);
    ASSERT_NE(tmpl, nullptr);
    EXPECT_EQ(TemplateOf(MAGIC, format, nullptr, bodySize), tmpl); // the computed size
    EXPECT_EQ(TemplateOf(MAGIC, format, nullptr, bodySize - 1), nullptr);
    const ObjDbData* db = ObjGetDbDataFromTemplate(tmpl);
    EXPECT_STREQ(db->format, format);
    EXPECT_EQ(db->fixedSize, fixedSize);
    EXPECT_EQ(db->notStorable, storable ? 0u : 1u);
    EXPECT_EQ(db->reserved, 0u);
    ASSERT_EQ(db->fieldCount, static_cast<int32_t>(items.size()));
    for (size_t i = 0; i < items.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(db->fields[i].kind, items[i].kind);
        EXPECT_EQ(db->fields[i].objectOffset, items[i].offset);
        EXPECT_EQ(db->fields[i].fixedOffset, items[i].slot);
        EXPECT_EQ(db->fields[i].arrayLength, items[i].length);
        EXPECT_EQ(db->fields[i].reserved, 0);
    }
}

} // namespace

TEST(Template, SlotsOfRecordsAreFrozen)
{
    // Stored records depend on every number here.
    ExpectLayout("i;b;", 8, 16, true, {{2, 0, 4, 0}, {1, 4, 8, 0}});
    ExpectLayout("i;s;i;", 24, 20, true, {{2, 0, 4, 0}, {3, 8, 8, 0}, {2, 16, 16, 0}});
    ExpectLayout(
        "i;s;s;d;o;q;u;n5;", 96, 88, true,
        {{2, 0, 4, 0},
         {3, 8, 8, 0},
         {3, 16, 16, 0},
         {7, 24, 24, 0},
         {4, 40, 32, 0},
         {10, 48, 40, 0},
         {11, 56, 48, 0},
         {8, 88, 80, 5}});
    ExpectLayout("q;", 8, 16, true, {{10, 0, 4, 0}});
    ExpectLayout("u;", 32, 36, true, {{11, 0, 4, 0}});
    ExpectLayout(
        "n1;n2;b;n3", 16, 32, true, {{8, 0, 4, 1}, {8, 1, 12, 2}, {1, 4, 20, 0}, {8, 8, 24, 3}});
}

TEST(Template, ItemsWithoutDatabaseFormTakeNoSlotAndForbidStoring)
{
    ExpectLayout("i;p;i;", 24, 16, false, {{2, 0, 4, 0}, {6, 8, 8, 0}, {2, 16, 8, 0}});
    ExpectLayout("ol;s;", 16, 16, false, {{9, 0, 4, 0}, {3, 8, 4, 0}});
    ExpectLayout("s;sl", 16, 16, false, {{3, 0, 4, 0}, {12, 8, 12, 0}});
}

TEST(Template, LaysOutTheSystemsOwnTemplates)
{
    struct {
        const char* format;
        uint32_t size;
    } const cases[] = {
        {"i;s;d;", 32},
        {"s;sl;sl;sl;sl;ol;", 48},
        {"s;p;ol;ol;s;s;i;i;i;i;d;b;b;b;o;", 104},
        {"s;i;i;b;b;b;i;i;i;i;i;i;o;ol;", 72},
        {"i;i;i;i;o;o;", 32},
        {"i;i;o;i;i;", 24},
        {"p;n16384;i;b;b;", 16408},
        {"i;i;i;i;b;p;o;n16128;", 16168},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.format);
        ObjTemplate* tmpl = TemplateOf(MAGIC, one.format);
        ASSERT_NE(tmpl, nullptr);
        EXPECT_EQ(TemplateOf(MAGIC, one.format, nullptr, one.size), tmpl);
        EXPECT_EQ(TemplateOf(MAGIC, one.format, nullptr, one.size - 1), nullptr);
    }
}

TEST(Template, LaysItemsOutAsTheCompilerDoes)
{
    struct Body {
        int32_t b;
        uint8_t n3[3];
        void* o;
        uint8_t n1[1];
        UniqueId u;
        int32_t i;
        ObjData d;
        uint8_t n9[9];
        int64_t q;
        uint8_t last[1];
    };
    ObjTemplate* tmpl = TemplateOf(MAGIC, "b;n3;o;n1;u;i;d;n9;q;n1;");
    ASSERT_NE(tmpl, nullptr);
    const ObjDbField* fields = ObjGetDbDataFromTemplate(tmpl)->fields;
    const size_t offsets[] = {offsetof(Body, b),   offsetof(Body, n3), offsetof(Body, o),
                              offsetof(Body, n1),  offsetof(Body, u),  offsetof(Body, i),
                              offsetof(Body, d),   offsetof(Body, n9), offsetof(Body, q),
                              offsetof(Body, last)};
    for (size_t i = 0; i < std::size(offsets); ++i)
        EXPECT_EQ(static_cast<size_t>(fields[i].objectOffset), offsets[i]) << i;
    EXPECT_EQ(TemplateOf(MAGIC, "b;n3;o;n1;u;i;d;n9;q;n1;", nullptr, sizeof(Body)), tmpl);
}

TEST(Template, AcceptsEveryCodeWithAndWithoutTheLastSemicolon)
{
    for (const char* code :
         {"b", "i", "s", "o", "p", "d", "n1", "n2147483000", "n007", "ol", "sl", "q", "u"}) {
        SCOPED_TRACE(code);
        EXPECT_NE(TemplateOf(MAGIC, code), nullptr);
        EXPECT_NE(TemplateOf(MAGIC, (std::string(code) + ";").c_str()), nullptr);
        EXPECT_NE(TemplateOf(MAGIC, ("i;" + std::string(code)).c_str()), nullptr);
    }
}

TEST(Template, RefusesWhatIsNoFormat)
{
    for (const char* format :
         {"",
          ";",
          ";;",
          ";i",
          "i;;",
          "i;;i",
          " ",
          "i ",
          " i",
          "i; s",
          "i;\ts",
          "I;",
          "S",
          "i,s",
          "x;",
          "l",
          "il",
          "pl;",
          "oll;",
          "slo",
          "ii;",
          "is",
          "n;",
          "n0;",
          "n-1;",
          "n 1;",
          "n+1",
          "nx;",
          "n1x;",
          "n2147483648;",
          "n4294967297;",
          "n18446744073709551617",
          "n1.5",
          "5;",
          "i;n",
          "b;u;v;",
          "\xc3\xa4;"}) {
        SCOPED_TRACE(format);
        auto* tmpl = reinterpret_cast<ObjTemplate*>(1);
        EXPECT_EQ(ObjTemplateCreateInternal(&tmpl, NO_SIZE, MAGIC, format, nullptr), 0u);
        EXPECT_EQ(tmpl, nullptr);
        void* object = &tmpl;
        EXPECT_EQ(ObjCreateInternal(&object, NO_SIZE, MAGIC, format, nullptr, 1), 0u);
        EXPECT_EQ(object, nullptr);
    }
}

TEST(Template, RefusesNullArguments)
{
    auto* tmpl = reinterpret_cast<ObjTemplate*>(1);
    EXPECT_EQ(ObjTemplateCreateInternal(&tmpl, NO_SIZE, MAGIC, nullptr, nullptr), 0u);
    EXPECT_EQ(tmpl, nullptr);
    EXPECT_EQ(ObjTemplateCreateInternal(nullptr, NO_SIZE, MAGIC, "i;", nullptr), 0u);
    EXPECT_EQ(ObjGetDbDataFromTemplate(nullptr), nullptr);
    EXPECT_EQ(ObjGetDbData(nullptr), nullptr);
    void* object = &tmpl;
    EXPECT_EQ(ObjCreateInternal(&object, NO_SIZE, MAGIC, nullptr, nullptr, 1), 0u);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(ObjCreateInternal(nullptr, NO_SIZE, MAGIC, "i;", nullptr, 1), 0u);
}

TEST(Template, RefusesBodiesOverTwoGigabytes)
{
    EXPECT_NE(TemplateOf(MAGIC, "n2147483647;n1;"), nullptr); // 2^31 exactly
    EXPECT_EQ(TemplateOf(MAGIC, "n2147483647;n2;"), nullptr); // rounded up, above
    EXPECT_EQ(TemplateOf(MAGIC, "n2147483647;i;"), nullptr);
    EXPECT_EQ(TemplateOf(MAGIC, "n2147483647;n2147483647;n2147483647;"), nullptr);
    EXPECT_NE(TemplateOf(MAGIC, "n1", nullptr, 0x80000000u), nullptr);
    EXPECT_EQ(TemplateOf(MAGIC, "n1", nullptr, 0x80000001u), nullptr);
    EXPECT_EQ(TemplateOf(MAGIC, "n1", nullptr, 0xFFFFFFFEu), nullptr);
}

TEST(Template, ALargerSizeLeavesAZeroedTailThatIsNeitherSerialisedNorReleased)
{
    ObjTemplate* small = TemplateOf(MAGIC, "s;o;");
    ObjTemplate* large = TemplateOf(MAGIC, "s;o;", nullptr, 16 + 24);
    ASSERT_NE(large, nullptr);
    EXPECT_NE(large, small);
    EXPECT_EQ(TemplateOf(MAGIC, "s;o;", nullptr, 33), large); // rounded up to 8
    Alive before;
    Ref plain = NewObject(small);
    Ref tailed = NewObject(large);
    char zeros[24] = {};
    char* tail = static_cast<char*>(tailed.get()) + 16;
    EXPECT_EQ(memcmp(tail, zeros, sizeof zeros), 0);
    memset(tail, 0xA5, sizeof zeros); // would crash if anybody followed it
    EXPECT_EQ(ObjSerializedSize(tailed.get()), ObjSerializedSize(plain.get()));
    plain = Ref();
    tailed = Ref();
    EXPECT_EQ(Alive(), before);
}

TEST(Template, TheSameQuestionGetsTheSameHandleAndTakesNoMemory)
{
    ObjDestructor destructor = [](void*) {};
    ObjTemplate* first = TemplateOf(MAGIC + 1, "i;s;", destructor, 64);
    ASSERT_NE(first, nullptr);
    FaultResetCalls();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(TemplateOf(MAGIC + 1, "i;s;", destructor, 64), first);
        void* object = nullptr;
        ASSERT_EQ(ObjCreateInternal(&object, 64, MAGIC + 1, "i;s;", destructor, 1), 1u);
        ASSERT_EQ(OBJ_HEADER(object)->tmpl, first);
        ObjReleaseInternal(&object);
    }
    EXPECT_EQ(FaultCalls(FAULT_ALLOC, nullptr), 1000u); // the objects
    FaultStopCalls();
}

TEST(Template, AnotherMagicFormatSizeOrDestructorIsAnotherTemplate)
{
    ObjDestructor destructor = [](void*) {};
    ObjTemplate* base = TemplateOf(MAGIC + 2, "i;i;");
    EXPECT_NE(TemplateOf(MAGIC + 3, "i;i;"), base);
    EXPECT_NE(TemplateOf(MAGIC + 2, "i;i"), base); // the exact text counts
    EXPECT_NE(TemplateOf(MAGIC + 2, "i;b;"), base);
    EXPECT_NE(TemplateOf(MAGIC + 2, "i;i;", destructor), base);
    EXPECT_NE(TemplateOf(MAGIC + 2, "i;i;", nullptr, 16), base);
    EXPECT_EQ(TemplateOf(MAGIC + 2, "i;i;"), base);
    EXPECT_EQ(TemplateOf(MAGIC + 2, "i;i;", nullptr, 8), base); // the computed size
}

TEST(Template, TheFormatTextIsCopied)
{
    std::string format = "i;q;n77;";
    ObjTemplate* tmpl = TemplateOf(MAGIC, format.c_str());
    format.assign(8, 'x');
    EXPECT_STREQ(ObjGetDbDataFromTemplate(tmpl)->format, "i;q;n77;");
    EXPECT_EQ(TemplateOf(MAGIC, "i;q;n77;"), tmpl);
}

TEST(Template, AnyMagicIsAccepted)
{
    for (uint32_t magic : {0u, 1u, 0x12345678u, 0xFFFFFFFFu}) {
        Ref object = NewObject(magic, "i;");
        EXPECT_EQ(ObjGetMagic(object.get()), magic);
    }
}

TEST(Template, CreatingByMagicAndFormatUsesTheFirstRegistered)
{
    static int deaths;
    deaths = 0;
    ObjDestructor one = [](void*) { deaths += 1; };
    ObjDestructor two = [](void*) { deaths += 100; };
    ObjTemplate* first = TemplateOf(MAGIC + 4, "i;", one);
    ObjTemplate* second = TemplateOf(MAGIC + 4, "i;", two);
    ObjTemplate* third = TemplateOf(MAGIC + 4, "i;");
    auto create = [&](ObjDestructor destructor, uint32_t size) {
        void* object = nullptr;
        EXPECT_EQ(ObjCreateInternal(&object, size, MAGIC + 4, "i;", destructor, 1), 1u);
        ObjTemplate* tmpl = OBJ_HEADER(object)->tmpl;
        ObjReleaseInternal(&object);
        return tmpl;
    };
    EXPECT_EQ(create(nullptr, NO_SIZE), first);
    EXPECT_EQ(deaths, 1);
    EXPECT_EQ(create(two, NO_SIZE), second);
    EXPECT_EQ(deaths, 101);
    EXPECT_NE(third, first);
    ObjTemplate* sized = create(nullptr, 40); // none of this size yet: made, without destructor
    EXPECT_EQ(deaths, 101);
    EXPECT_EQ(sized, TemplateOf(MAGIC + 4, "i;", nullptr, 40));
}

// A module may make objects of another one's magic and format before that one has registered them.
TEST(Template, WhatWasMadeForAnObjectGivesWayToWhatIsRegisteredLater)
{
    auto templateOfNew = [] {
        void* object = nullptr;
        EXPECT_EQ(ObjCreateInternal(&object, NO_SIZE, MAGIC + 17, "i;q;", nullptr, 1), 1u);
        ObjTemplate* tmpl = OBJ_HEADER(object)->tmpl;
        ObjReleaseInternal(&object);
        return tmpl;
    };
    ObjTemplate* made = templateOfNew();
    EXPECT_EQ(templateOfNew(), made);
    ObjTemplate* withTail = TemplateOf(MAGIC + 17, "i;q;", nullptr, 48);
    EXPECT_NE(withTail, made);
    EXPECT_EQ(templateOfNew(), withTail);
    // Registered now, but second.
    EXPECT_EQ(TemplateOf(MAGIC + 17, "i;q;"), made);
    EXPECT_EQ(templateOfNew(), withTail);
}

TEST(Template, CreatingByMagicAndFormatRegistersWhatIsNew)
{
    void* object = nullptr;
    ASSERT_EQ(ObjCreateInternal(&object, NO_SIZE, MAGIC + 5, "i;q;", nullptr, 1), 1u);
    EXPECT_EQ(OBJ_HEADER(object)->tmpl, TemplateOf(MAGIC + 5, "i;q;"));
    EXPECT_EQ(Item<int32_t>(object, 0), 0);
    EXPECT_EQ(Item<int64_t>(object, 1), 0);
    ObjReleaseInternal(&object);
    EXPECT_EQ(ObjCreateInternal(&object, NO_SIZE, MAGIC + 5, "i;q;", nullptr, 77), 0u);
    EXPECT_EQ(object, nullptr);
}

TEST(Template, WithoutMemoryNothingIsRegistered)
{
    for (uint32_t n = 1;; ++n) {
        FaultRule rule = {FAULT_ALLOC, nullptr, n, 0, FAULT_FAIL, 0};
        FaultArm(&rule);
        void* object = nullptr;
        NimBool made = ObjCreateInternal(&object, NO_SIZE, MAGIC + 6, "i;u;u;", nullptr, 1);
        FaultDisarmAll();
        if (made) {
            EXPECT_EQ(n, 3u); // the template, the object
            ObjReleaseInternal(&object);
            break;
        }
        EXPECT_EQ(object, nullptr);
        ASSERT_LT(n, 10u);
    }
    FaultRule rule = {FAULT_ALLOC, nullptr, 1, 0, FAULT_FAIL, 0};
    FaultArm(&rule);
    auto* tmpl = reinterpret_cast<ObjTemplate*>(1);
    EXPECT_EQ(ObjTemplateCreateInternal(&tmpl, NO_SIZE, MAGIC + 7, "i;", nullptr), 0u);
    EXPECT_EQ(tmpl, nullptr);
    FaultDisarmAll();
}

TEST(Template, ListsAndMapsReportNoFieldsAndCannotBeStored)
{
    Ref list(ListNewFromPool(0, 1));
    Ref map;
    auto compare = [](const void*, const void*) -> int32_t { return 0; };
    ASSERT_EQ(ObjMapCreateInternal(map.out(), 0, 64, compare, compare, 0), 1u);
    for (void* handle : {list.get(), map.get()}) {
        const ObjDbData* db = ObjGetDbData(handle);
        ASSERT_NE(db, nullptr);
        EXPECT_EQ(db->fieldCount, 0);
        EXPECT_EQ(db->notStorable, 1u);
        EXPECT_EQ(db->fixedSize, 16u);
        EXPECT_STREQ(db->format, "");
    }
}

TEST(Template, AHeaderWithoutTemplateHasNoDescription)
{
    Ref object = NewObject(MAGIC, "i;");
    ObjTemplate* tmpl = OBJ_HEADER(object.get())->tmpl;
    OBJ_HEADER(object.get())->tmpl = nullptr;
    EXPECT_EQ(ObjGetDbData(object.get()), nullptr);
    EXPECT_EQ(ObjSerializedSize(object.get()), 0u);
    OBJ_HEADER(object.get())->tmpl = tmpl;
    EXPECT_NE(ObjGetDbData(object.get()), nullptr);
}

TEST(Template, ManyTemplatesAreAllFoundAgain)
{
    std::vector<ObjTemplate*> made;
    for (uint32_t i = 0; i < 5000; ++i)
        made.push_back(TemplateOf(MAGIC + 0x1000 + i % 50, ("n" + std::to_string(i + 1)).c_str()));
    for (uint32_t i = 0; i < 5000; ++i)
        ASSERT_EQ(
            TemplateOf(MAGIC + 0x1000 + i % 50, ("n" + std::to_string(i + 1)).c_str()), made[i]);
}

TEST(Template, ThreadsThatRegisterTheSameTemplatesGetTheSameHandles)
{
    constexpr int THREADS = 4;
    constexpr int TEMPLATES = 300;
    std::vector<std::vector<ObjTemplate*>> seen(THREADS);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&seen, t] {
            for (int i = 0; i < TEMPLATES; ++i) {
                std::string format = "i;n" + std::to_string(i + 1) + ";";
                seen[t].push_back(TemplateOf(MAGIC + 8, format.c_str()));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 1; t < THREADS; ++t)
        EXPECT_EQ(seen[t], seen[0]);
}

// An object is made of the first template that was registered for its magic and format, however the
// ";" at the end is spelt; handles of templates go by the exact text.
TEST(Template, ASemicolonAtTheEndMakesNoOtherObject)
{
    ObjTemplate* host = TemplateOf(MAGIC + 9, "i;s;i", nullptr, 64);
    ObjTemplate* later = TemplateOf(MAGIC + 9, "i;s;i;");
    EXPECT_NE(later, host);
    for (const char* format : {"i;s;i", "i;s;i;"}) {
        void* object = nullptr;
        ASSERT_EQ(
            ObjCreateInternal(&object, NO_SIZE, MAGIC + 9, format, nullptr, MemGetDefaultPoolId()),
            1u);
        EXPECT_EQ(OBJ_HEADER(object)->tmpl, host) << format;
        ObjReleaseInternal(&object);
    }
}

TEST(Template, TypedCreationFillsAVariableOfAnyPointerType)
{
    void* tmpl = nullptr;
    ASSERT_EQ(ObjTemplateCreate(&tmpl, NO_SIZE, MAGIC, "i;", nullptr), 1u);
    EXPECT_EQ(tmpl, TemplateOf(MAGIC, "i;"));
    ASSERT_EQ(ObjTemplateCreate(&tmpl, NO_SIZE, MAGIC, "?", nullptr), 0u);
    EXPECT_EQ(tmpl, nullptr);
    EXPECT_EQ(ObjTemplateCreate<void>(nullptr, NO_SIZE, MAGIC, "i;", nullptr), 0u);
    struct Body {
        int32_t value;
    };
    Body* body = nullptr;
    ASSERT_EQ(ObjTemplateCreateInstance(&body, TemplateOf(MAGIC, "i;"), 1), 1u);
    EXPECT_EQ(body->value, 0);
    ObjRelease(body);
    EXPECT_EQ(body, nullptr);
    ObjRelease(body);
}
