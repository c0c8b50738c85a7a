// messages_location_test.cpp: every message about where databases live, with its level.

#include "location_scene.h"
#include "message_book.h"

namespace {

constexpr const char* DBCONFIG = "DBCONFIG        ";
using S = LocationScene;

TEST(LocationMessages, HomeAndPaths)
{
    ReadBook<S>(
        DBCONFIG, {
                      {"Db home dir is %s", 0, 4,
                       [](S& s) {
                           s.Configure("/some/where");
                           s.Home();
                           return std::string("Db home dir is /some/where");
                       }},
                      {"For path %s, retval is %s, db is %s", 0, 4,
                       [](S&) {
                           char* path = nullptr;
                           EXPECT_EQ(DbGetClusterDerivedPath("e:\\x", &path), 1u);
                           MemFree(path);
                           return std::string("For path e:\\x, retval is TRUE, db is E:\\tambdb");
                       }},
                      {"For path %s, retval is %s, db is %s", 0, 4,
                       [](S&) {
                           char* path = nullptr;
                           EXPECT_EQ(DbGetClusterDerivedPath("App1", &path), 0u);
                           return std::string("For path App1, retval is FALSE, db is (null)");
                       }},
                      {"For path %s, retval is %s, db is %s", 0, 4,
                       [](S&) {
                           char* path = nullptr;
                           EXPECT_EQ(DbGetClusterDerivedPath(nullptr, &path), 0u);
                           return std::string("For path (null), retval is FALSE, db is (null)");
                       }},
                      {"Failed to munge path %s: the home directory cannot be told", 1, -1,
                       [](S& s) {
                           s.Configure("/some/where");
                           s.FailOnce(FAULT_READ, "configure.cfg");
                           EXPECT_EQ(DbMungeQtreeIdFromDbPath(7, "e:\\x"), 0u);
                           return std::string("Failed to munge path e:\\x: the home directory "
                                              "cannot be told");
                       }},
                      {"For path %s and qtree id %d 0x%x, the return value is 0x%x", 0, 4,
                       [](S&) {
                           EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, "e:\\x"), 0x05345678u);
                           return std::string("For path e:\\x and qtree id 305419896 0x12345678, "
                                              "the return value is 0x5345678");
                       }},
                  });
}

TEST(LocationMessages, Drives)
{
    std::vector<BookLine<S>> lines = {
        // The line's error word carries the system's own error value.
        {"GetLogicalDrives failed. Unable to enumerate drives", S::SYSTEM_ERROR, -1,
         [](S& s) { DbGetDbPathList(s.list, 0); }},
        {"Failed to tell the type of drive %s; it is left out", 1, -1,
         [](S& s) {
             s.Drives("D", 0);
             DbGetDbPathList(s.list, 0);
             return std::string("Failed to tell the type of drive D:\\; it is left out");
         }},
        {"Failed to tell whether %s is a directory; it is left out", 1, -1,
         [](S& s) {
             s.Drives("D");
             s.FailOnce(FAULT_EXISTS, "tambdb");
             DbGetDbPathList(s.list, 0);
             return std::string("Failed to tell whether D:\\tambdb is a directory; it is left out");
         }},
        {"The drive type for drive %s is %d", 0, 1,
         [](S& s) {
             s.Drives("D", 4);
             DbGetDbPathList(s.list, 0);
             return std::string("The drive type for drive D:\\ is 4");
         }},
    };
    if (S::DrivesAreNames()) {
        lines.push_back({"PathIsADirectory returned TRUE for %s", 0, 1, [](S& s) {
                             s.MakeDriveDirectories("C");
                             s.Drives("CD");
                             DbGetDbPathList(s.list, 0);
                             return std::string("PathIsADirectory returned TRUE for C:\\tambdb");
                         }});
        lines.push_back({"PathIsADirectory returned FALSE for %s", 0, 1, [](S& s) {
                             s.MakeDriveDirectories("C");
                             s.Drives("CD");
                             DbGetDbPathList(s.list, 0);
                             return std::string("PathIsADirectory returned FALSE for D:\\tambdb");
                         }});
    }
    ReadBook<S>(DBCONFIG, lines);
}

} // namespace
