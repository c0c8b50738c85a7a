// location_scene.h: a product home of its own, and drives of the tests' own.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "database/dbconfig.h"
#include "database/dbconfig_internal.h"
#include "nim/fault.h"
#include "nim/nim.h"
#include "support/file_bytes.h"
#include "support/temporary_directory.h"

class LocationScene {
  public:
    LocationScene() : former_(std::filesystem::current_path())
    {
        PathSetHome(directory_.path().c_str());
        sMask = 0;
        sType = DB_DRIVE_FIXED;
        gpDbDrives = &sDrives;
        list = ListNewFromPool(0, MemGetDefaultPoolId());
    }
    ~LocationScene()
    {
        FaultDisarmAll();
        ObjReleaseInternal(&list);
        gpDbDrives = &kDbSystemDrives;
        DbSetClusteredMode(0);
        PathSetHome(nullptr);
        std::filesystem::current_path(former_);
    }
    LocationScene(const LocationScene&) = delete;
    LocationScene& operator=(const LocationScene&) = delete;

    static constexpr uint32_t SYSTEM_ERROR = 5;
    void* list = nullptr;

    // Where drive letters are no more than characters, the directory of a drive is a name in the
    // current directory, which a test can make.
    static bool DrivesAreNames() { return std::filesystem::path::preferred_separator == '/'; }

    void Configure(const std::string& home)
    {
        WriteFileBytes(
            directory_.path("configure.cfg"), "[Directories]\ndatabase = " + home + "\n");
    }
    static void FailOnce(uint32_t point, const char* part)
    {
        const FaultRule rule = {point, part, 1, 1, FAULT_FAIL, 0};
        FaultArm(&rule);
    }
    static std::string Taken(char* text)
    {
        const std::string copy = text ? text : "(null)";
        MemFree(text);
        return copy;
    }
    static std::string Home()
    {
        char* home = nullptr;
        EXPECT_EQ(DbGetHomeDir(&home), 1u);
        return Taken(home);
    }
    // These drives exist, all of one type.
    static void Drives(const std::string& letters, uint32_t type = DB_DRIVE_FIXED)
    {
        sType = type;
        for (char letter : letters)
            sMask |= 1u << (letter - 'A');
    }
    void MakeDriveDirectories(const std::string& letters)
    {
        std::filesystem::current_path(directory_.path());
        for (char letter : letters)
            std::filesystem::create_directory(std::string(1, letter) + ":\\tambdb");
    }
    // What DbGetDbPathList appends.
    std::vector<std::string> Listed(uint32_t includeHome)
    {
        DbGetDbPathList(list, includeHome);
        std::vector<std::string> paths;
        void* item = nullptr;
        for (uint32_t i = 0; ListGetNthItem(&item, list, i); ++i)
            paths.push_back(ObjGetString(item));
        return paths;
    }

  private:
    static uint32_t GetMask() { return sMask; }
    static uint32_t GetType(const char*) { return sType; }
    static uint32_t GetError() { return SYSTEM_ERROR; }

    static inline uint32_t sMask = 0;
    static inline uint32_t sType = 0;
    static inline const DbDrives sDrives = {GetMask, GetType, GetError};

    TemporaryDirectory directory_;
    std::filesystem::path former_;
};
