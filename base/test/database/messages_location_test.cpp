// messages_location_test.cpp: every message about where databases live, with its level.

#include "location_scene.h"
#include "message_book.h"

namespace {

constexpr const char* DBCONFIG = "DBCONFIG        ";
using S = LocationScene;

TEST(LocationMessages, HomeAndPaths)
{
    // The directory that a path belongs to; where there is none the variable is as it was.
    static char sUntouched[] = "untouched";
    const auto derive = [](const char* path) {
        return [=](S& s) {
            s.Configure("/home/bases");
            char* derived = sUntouched;
            if (DbGetClusterDerivedPath(path, &derived))
                MemFree(derived);
        };
    };
    const auto munge = [](uint32_t qtreeId, const char* path) {
        return [=](S& s) {
            s.Configure("/home/bases");
            DbMungeQtreeIdFromDbPath(qtreeId, path);
        };
    };
    const std::vector<BookLine<S>> lines = {
        {"Db home dir is %s", With("/some/where"), 0, 4,
         [](S& s) {
             s.Configure("/some/where");
             s.Home();
         }},
        {"For path %s, retval is %s, db is %s", With("e:\\x", "TRUE", "E:\\tambdb"), 0, 4,
         derive("e:\\x")},
        {"For path %s, retval is %s, db is %s", With("SystemState", "TRUE", "/home/bases"), 0, 4,
         derive("SystemState")},
        {"For path %s, retval is %s, db is %s", With("App", "FALSE", "untouched"), 0, 4,
         derive("App")},
        {"For path %s, retval is %s, db is %s", With("(null)", "FALSE", "untouched"), 0, 4,
         derive(nullptr)},
        {"For path %s, retval is %s, db is %s", With("xyz", "FALSE", "(null)"), 0, 4,
         [](S&) {
             char* none = nullptr;
             EXPECT_EQ(DbGetClusterDerivedPath("xyz", &none), 0u);
         }},
        {"For path %s, retval is %s, db is %s", With("e:\\x", "FALSE", "(null)"), 0, 4,
         [](S&) { EXPECT_EQ(DbGetClusterDerivedPath("e:\\x", nullptr), 0u); }},
        {"Failed to munge path %s: the home directory cannot be told", With("e:\\x"), 1, -1,
         [](S& s) {
             s.Configure("/some/where");
             s.FailOnce(FAULT_READ, "configure.cfg");
             EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "e:\\x"), 0u);
         }},
        {"For path %s and qtree id %d 0x%x, the return value is 0x%x",
         With("e:\\x", 305419896, 0x12345678, 0x5345678), 0, 4, munge(0x12345678, "e:\\x")},
        {"For path %s and qtree id %d 0x%x, the return value is 0x%x",
         With("e:\\x", -1842063752, 0x92345678, 0x5345678), 0, 4, munge(0x92345678, "e:\\x")},
        {"For path %s and qtree id %d 0x%x, the return value is 0x%x", With("(null)", 5, 5, 0), 0,
         4, munge(5, nullptr)},
        {"For path %s and qtree id %d 0x%x, the return value is 0x%x", With("/home/bases", 5, 5, 0),
         0, 4, munge(5, "/home/bases")},
    };
    ReadBook(DBCONFIG, lines);
}

TEST(LocationMessages, Drives)
{
    std::vector<BookLine<S>> lines = {
        // The line's error word carries the system's own error value.
        {"GetLogicalDrives failed. Unable to enumerate drives", S::SYSTEM_ERROR, -1,
         [](S& s) { DbGetDbPathList(s.list, 0); }},
        {"Failed to tell the type of drive %s; it is left out", With("D:\\"), 1, -1,
         [](S& s) {
             s.Drives("D", 0);
             DbGetDbPathList(s.list, 0);
         }},
        {"Failed to tell whether %s is a directory; it is left out", With("D:\\tambdb"), 1, -1,
         [](S& s) {
             s.Drives("D");
             s.FailOnce(FAULT_EXISTS, "tambdb");
             DbGetDbPathList(s.list, 0);
         }},
        {"The drive type for drive %s is %d", With("D:\\", 4), 0, 1,
         [](S& s) {
             s.Drives("D", 4);
             DbGetDbPathList(s.list, 0);
         }},
    };
    if (S::DrivesAreNames()) {
        lines.push_back(
            {"PathIsADirectory returned TRUE for %s", With("C:\\tambdb"), 0, 1, [](S& s) {
                 s.MakeDriveDirectories("C");
                 s.Drives("CD");
                 DbGetDbPathList(s.list, 0);
             }});
        lines.push_back(
            {"PathIsADirectory returned FALSE for %s", With("D:\\tambdb"), 0, 1, [](S& s) {
                 s.MakeDriveDirectories("C");
                 s.Drives("CD");
                 DbGetDbPathList(s.list, 0);
             }});
    }
    ReadBook<S>(DBCONFIG, lines);
}

} // namespace
