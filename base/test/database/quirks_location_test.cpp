// quirks_location_test.cpp: what the location of databases does on purpose and keeps doing,
// oddities included. Munged ids are kept by others and must mean the same for ever.

#include "database/indexinternal.h"
#include "location_scene.h"
#include "support/trace_recorder.h"

namespace {

class LocationQuirk : public testing::Test {
  protected:
    static std::string FromMunged(uint32_t mungedId)
    {
        return LocationScene::Taken(DbGetDbPathFromMungedQtreeId(static_cast<int32_t>(mungedId)));
    }
    // The derived directory; "-" when there is none, and then the variable is as it was.
    static std::string Derived(const char* path)
    {
        char untouched[] = "untouched";
        char* derived = untouched;
        if (DbGetClusterDerivedPath(path, &derived))
            return LocationScene::Taken(derived);
        EXPECT_EQ(derived, untouched);
        return "-";
    }

    TraceRecorder trace_;
    LocationScene scene_;
};

// ---- the mode
// ------------------------------------------------------------------------------------

TEST_F(LocationQuirk, AnyValueIsStoredAsTheModeAndReturned)
{
    EXPECT_EQ(DbSetClusteredMode(7), 7u);
    EXPECT_EQ(DbGetClusteredMode(), 7u);
    EXPECT_EQ(gbDbClusteredMode, 7u); // only 1 means clustered, to those who ask
}

// ---- derived paths
// -------------------------------------------------------------------------------

TEST_F(LocationQuirk, SystemStateIsAskedForFirstThenAppThenADrive)
{
    EXPECT_EQ(Derived("sYSTEMsTATE:\\x"), scene_.Home());
    EXPECT_EQ(Derived("SystemState"), scene_.Home());
    EXPECT_EQ(Derived("SystemStat"), "-");
    EXPECT_EQ(Derived("application"), "-");
    EXPECT_EQ(Derived("APP1"), "-");
    EXPECT_EQ(Derived("a:pp"), "A:\\tambdb"); // no "App"
}

TEST_F(LocationQuirk, NothingIsLookedForOnTheDriveOfADerivedPath)
{
    LocationScene::Drives(""); // there are none
    EXPECT_EQ(Derived("q:whatever"), "Q:\\tambdb");
}

TEST_F(LocationQuirk, WhatBelongsToNoDirectoryLeavesTheVariableUntouched)
{
    for (const char* path : {"", "\\\\server\\share", "1:\\x", "cd", "/home", "Apple:\\"})
        EXPECT_EQ(Derived(path), "-") << path;
    EXPECT_EQ(Derived(nullptr), "-");
}

// ---- munged ids
// ----------------------------------------------------------------------------------

TEST_F(LocationQuirk, AnyPathOnADriveMungesToTheNumberOfTheDrive)
{
    for (const char* path : {"D:\\", "d:\\some\\where", "D", "dolphin"})
        EXPECT_EQ(DbMungeQtreeIdFromDbPath(0xAB000001, path), 0x04000001u) << path;
}

TEST_F(LocationQuirk, ACharacterBelowTheLettersWrapsTheDriveNumber)
{
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, "/home"), 0xEF000001u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, "\\\\server"), 0x1C000001u);
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(1, ""), 0xC0000001u);
}

TEST_F(LocationQuirk, TheHomeDirectoryHasNoDriveNumber)
{
    scene_.Configure("/Some/Where");
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, "/some/WHERE"), 0u);
    EXPECT_EQ(FromMunged(0), "/Some/Where");
    EXPECT_EQ(FromMunged(0x00FFFFFF), "/Some/Where"); // the low 24 bits are ignored
    EXPECT_EQ(DbMungeQtreeIdFromDbPath(0x12345678, nullptr), 0u);
}

TEST_F(LocationQuirk, ThereAndBackGivesTheDirectoryOfTheDriveNotThePath)
{
    EXPECT_EQ(FromMunged(DbMungeQtreeIdFromDbPath(0x12345678, "e:\\my\\base")), "E:\\tambdb");
}

TEST_F(LocationQuirk, AMungedIdKeepsItsSignAndItsLetterIsCutToEightBits)
{
    EXPECT_EQ(FromMunged(0xEF000001), "/:\\tambdb");
    EXPECT_EQ(FromMunged(0xC0000000), std::string()); // character 0 ends the text
    EXPECT_EQ(FromMunged(0x7F000000), "\xBF:\\tambdb");
}

// ---- the list
// ------------------------------------------------------------------------------------

TEST_F(LocationQuirk, TheHomeDirectoryIsListedWhenExactlyOneIsAsked)
{
    scene_.Configure("/home/bases");
    LocationScene::Drives("Z", 5);
    EXPECT_TRUE(scene_.Listed(0).empty());
    EXPECT_TRUE(scene_.Listed(2).empty());
    EXPECT_EQ(scene_.Listed(1), std::vector<std::string>({"/home/bases"}));
}

TEST_F(LocationQuirk, TheHomeDirectoryIsListedWithoutBeingLookedForAndThoughTheDrivesCannotBe)
{
    scene_.Configure("/no/such/place");
    EXPECT_EQ(scene_.Listed(1), std::vector<std::string>({"/no/such/place"}));
    EXPECT_TRUE(trace_.has("GetLogicalDrives failed. Unable to enumerate drives"));
}

TEST_F(LocationQuirk, OnlyFixedDrivesAreLookedAt)
{
    for (uint32_t type : {0u, 1u, 2u, 4u, 5u, 6u}) {
        LocationScene::Drives("C", type);
        trace_.clear();
        EXPECT_TRUE(scene_.Listed(0).empty());
        EXPECT_FALSE(trace_.hasPart("PathIsADirectory")) << type;
    }
}

TEST_F(LocationQuirk, AFixedDriveWithoutTheDirectoryIsNotListed)
{
    if (!LocationScene::DrivesAreNames())
        GTEST_SKIP() << "the drives of this machine are real";
    scene_.MakeDriveDirectories("AZ");
    LocationScene::Drives("AMZ");
    EXPECT_EQ(scene_.Listed(0), std::vector<std::string>({"A:\\tambdb", "Z:\\tambdb"}));
}

TEST_F(LocationQuirk, TheEnumerationStopsWhenNoDriveIsLeft)
{
    LocationScene::Drives("B", 5);
    trace_.clear();
    scene_.Listed(0);
    EXPECT_EQ(trace_.texts(), std::vector<std::string>({"The drive type for drive B:\\ is 5"}));
}

TEST_F(LocationQuirk, ListsAreAppendedTo)
{
    scene_.Configure("/home/bases");
    EXPECT_EQ(scene_.Listed(1).size(), 1u);
    EXPECT_EQ(scene_.Listed(1).size(), 2u);
}

TEST_F(LocationQuirk, NothingHereSetsTheLastError)
{
    IndxSetError(77);
    Derived(nullptr);
    Derived("App");
    DbMungeQtreeIdFromDbPath(1, nullptr);
    scene_.Listed(1); // and no drive
    EXPECT_TRUE(trace_.has("GetLogicalDrives failed. Unable to enumerate drives"));
    EXPECT_EQ(IndxError(), 77u);
}

// ---- the home
// ------------------------------------------------------------------------------------

TEST_F(LocationQuirk, TheResultOfTheHomeDirectoryIsAlwaysOne)
{
    char* home = nullptr;
    EXPECT_EQ(DbGetHomeDir(&home), 1u);
    MemFree(home);
    scene_.Configure("");
    EXPECT_EQ(DbGetHomeDir(&home), 1u); // an empty value is none
    EXPECT_NE(home, nullptr);
    MemFree(home);
}

TEST_F(LocationQuirk, TheConfiguredHomeIsUsedAsItStands)
{
    scene_.Configure("some\\..\\where");
    EXPECT_EQ(scene_.Home(), "some\\..\\where");
}

} // namespace
