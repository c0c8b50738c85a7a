// messages_wrappers_test.cpp: every message of the table wrappers, with its level and error flag.
// The two operations that get a record, and the two walks without record ids, fail in silence.

#include "database/indexwrappers.h"
#include "message_book.h"
#include "people_scene.h"

namespace {

constexpr const char* INDXWRAP = "INDXWRAP        ";
using S = PeopleScene;

uint32_t GoOn(void*, void*)
{
    return 1;
}
uint32_t GoOnWithId(void*, void*, uint32_t)
{
    return 1;
}

TEST(WrapperMessages, DeletingAndWalking)
{
    const std::vector<BookLine<S>> lines = {
        {"Failed to get cursor on '%s'", With("Shoe"), 1, -1,
         [](S& s) { EXPECT_EQ(IndxDeleteObjectFromTable(s.table_, "Shoe", 1, nullptr), 0u); }},
        {"Failed to get cursor on '%s'", With("(null)"), 1, -1,
         [](S& s) { EXPECT_EQ(IndxDeleteObjectFromTable(s.table_, nullptr, 1, nullptr), 0u); }},
        {"Could not find key", 1, -1,
         [](S& s) { EXPECT_EQ(IndxDeleteObjectFromTable(s.table_, "Id", 1, nullptr), 0u); }},
        {"Munged args to IndxWalkCallbackWithRecordId", 0, -1,
         [](S&) { EXPECT_EQ(IndxWalkTableWithRecordId(nullptr, "Id", GoOnWithId, nullptr), 0u); }},
        {"Munged args to IndxWalkCallbackWithRecordId", 0, -1,
         [](S& s) {
             EXPECT_EQ(IndxWalkTableWithRecordId(s.table_, nullptr, GoOnWithId, nullptr), 0u);
         }},
        {"Munged args to IndxWalkCallbackWithRecordId", 0, -1,
         [](S& s) { EXPECT_EQ(IndxWalkTableWithRecordId(s.table_, "Id", nullptr, nullptr), 0u); }},
        {"Failed to get field cursor for '%s'", With("Photo"), 0, -1,
         [](S& s) {
             EXPECT_EQ(IndxWalkTableWithRecordId(s.table_, "Photo", GoOnWithId, nullptr), 0u);
         }},
        {"Failed to fetch object at cursor - skip record in walk", 0, -1,
         [](S& s) {
             s.MustAdd(1);
             s.Fail(FAULT_READ, 1, 0, "Records");
             EXPECT_EQ(IndxWalkTableWithRecordId(s.table_, "Id", GoOnWithId, nullptr), 1u);
         }},
    };
    ReadBook(INDXWRAP, lines);
}

TEST(WrapperMessages, TheOthersHaveNone)
{
    S s;
    s.MustAdd(1);
    TraceRecorder trace;
    LogRecorder log;
    Held out;
    EXPECT_EQ(IndxGetRecordFromTable(out.out(), s.table_, "Shoe", 1, nullptr), 0u);
    EXPECT_EQ(IndxGetRecordFromTable(out.out(), s.table_, "Id", 1, nullptr), 0u); // looks for id 0
    EXPECT_EQ(IndxGetObjectFromTable(out.out(), s.table_, "Shoe", 1, nullptr), 0u);
    EXPECT_EQ(IndxGetObjectFromTable(out.out(), s.table_, "Id", 2, nullptr), 0u);
    EXPECT_EQ(IndxModifyObject(s.table_, nullptr), 0u);
    EXPECT_EQ(IndxWalkTable(nullptr, "Id", GoOn, nullptr), 0u);
    EXPECT_EQ(IndxWalkTable(s.table_, "Shoe", GoOn, nullptr), 0u);
    EXPECT_EQ(IndxWalkTableWithPartialRecords(s.table_, nullptr, "Shoe", GoOn, nullptr), 0u);
    s.Fail(FAULT_READ, 1, 0, "Records");
    EXPECT_EQ(IndxWalkTable(s.table_, "Id", GoOn, nullptr), 1u);
    EXPECT_EQ(IndxWalkTableWithPartialRecords(s.table_, nullptr, "Id", GoOn, nullptr), 1u);
    for (const TraceRecorder::Line& line : trace.lines())
        EXPECT_NE(line.tag, INDXWRAP) << line.text;
}

} // namespace
