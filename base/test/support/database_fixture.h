// database_fixture.h: a database in a directory of its own, for tests that need one. At the end of
// each test everything is closed, and nothing may be left: no object, no memory, no open file.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "database/block.h"
#include "database/dbconfig.h"
#include "database/index.h"
#include "database/indexinternal.h"
#include "file_bytes.h"
#include "nim/fault.h"
#include "nim/nim.h"
#include "temporary_directory.h"
#include "trace_recorder.h"

// What is alive, for a comparison before and after.
struct LiveCounts {
    uint32_t objects = ObjLiveCount(0);
    uint32_t memory = MemLiveCount();
    uint32_t files = FileSysOpenCount();

    bool operator==(const LiveCounts& other) const
    {
        return objects == other.objects && memory == other.memory && files == other.files;
    }
};

inline std::ostream& operator<<(std::ostream& out, const LiveCounts& counts)
{
    return out << counts.objects << " objects, " << counts.memory << " pieces of memory, "
               << counts.files << " files";
}

// Opens nothing by itself: the test calls Open, OpenTable and so on; what is open at its end is
// closed. A reference that the test took with its own calls is its own to give back.
class DatabaseTest : public testing::Test {
  protected:
    static constexpr const char* DATABASE = "Data";
    static constexpr uint32_t MAGIC = 0xca111111; // of the records of most tests

    void SetUp() override
    {
        PathSetHome(directory_.path().c_str());
        // The templates are process-wide and stay; so does what the first open keeps.
        static bool sWarm = false;
        if (!sWarm) {
            sWarm = true;
            ASSERT_TRUE(Open("WarmUp"));
            ASSERT_NE(OpenTable("T", MAGIC, "i;", "Id"), nullptr);
            Close();
            // Each test may run in a process of its own, and some want to see the home made.
            std::filesystem::remove_all(HomePath());
            name_ = DATABASE;
        }
        before_ = LiveCounts();
    }

    void TearDown() override
    {
        FaultDisarmAll();
        FaultStopCalls();
        Close();
        DbSetClusteredMode(0);
        PathSetHome(nullptr);
        EXPECT_EQ(before_, LiveCounts());
    }

    // ---- the database ----

    bool Open(const std::string& name = DATABASE, void* tableNames = nullptr)
    {
        name_ = name;
        return IndxOpenDatabase(&oDatabase_, name.c_str(), tableNames, nullptr) == TRUE;
    }
    // Gives the references of OpenTable back and closes the database.
    void Close()
    {
        for (void*& oTable : tables_)
            IndxReleaseTable(&oTable);
        tables_.clear();
        if (oDatabase_) {
            EXPECT_EQ(IndxCloseDatabase(&oDatabase_), 1u);
        }
    }
    bool Reopen(void* tableNames = nullptr)
    {
        Close();
        return Open(name_, tableNames);
    }
    void* database() const { return oDatabase_; }
    void** databaseVariable() { return &oDatabase_; }

    // ---- tables ----

    // A table of the open database, opened or created; null on failure. The reference is the
    // fixture's.
    void* OpenTable(
        const std::string& name, uint32_t magic, const char* format, const char* fields,
        uint32_t flag = 0, uint32_t version = INDX_VERSION_NONE)
    {
        void* oTable = nullptr;
        const NimBool bOpened = IndxOpenTableInternal(
            &oTable, oDatabase_, name.c_str(), name.c_str(), magic, format, fields, flag, version);
        if (oTable)
            tables_.push_back(oTable);
        return bOpened ? oTable : nullptr;
    }
    // How many tables the database has in its list.
    uint32_t TableCount() const
    {
        const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase_);
        return pDatabase ? ListGetCount(pDatabase->oTables) : 0;
    }
    // The table of this name in the list, borrowed; null when it is not there.
    IndxTable* ListedTable(const std::string& name) const
    {
        const IndxDatabase* pDatabase = IndxAsDatabase(oDatabase_);
        void* oTable = nullptr;
        for (uint32_t i = 0; pDatabase && ListGetNthItem(&oTable, pDatabase->oTables, i) && oTable;
             ++i) {
            if (name == static_cast<IndxTable*>(oTable)->name)
                return static_cast<IndxTable*>(oTable);
        }
        return nullptr;
    }
    // Field `position` (from 0) of a table, borrowed.
    static IndxField* Field(void* oTable, uint32_t position)
    {
        void* oField = nullptr;
        const IndxTable* pTable = IndxAsTable(oTable);
        if (pTable)
            ListGetNthItem(&oField, pTable->oFields, position);
        return static_cast<IndxField*>(oField);
    }

    // ---- files ----

    // A path with the separators of the system, as the library builds them.
    static std::string Native(std::string path)
    {
        const auto separator = static_cast<char>(std::filesystem::path::preferred_separator);
        std::replace(path.begin(), path.end(), '/', separator);
        return path;
    }
    std::string HomePath() const { return directory_.path(home_); }
    // From here on databases lie in another directory, which the configuration names.
    void ConfigureHome(const std::string& home)
    {
        home_ = home;
        WriteFileBytes(
            directory_.path("configure.cfg"), "[Directories]\ndatabase = " + HomePath() + "\n");
    }
    std::string DatabasePath() const { return Native(HomePath() + "/" + name_); }
    // The path of a table's file in "Indexes", "Records", "Files" or "Attributes".
    std::string PathOf(const std::string& kind, const std::string& fileName) const
    {
        return Native(DatabasePath() + "/" + kind + "/" + fileName);
    }
    const TemporaryDirectory& directory() const { return directory_; }

    // ---- faults ----

    // From the n-th matching call on, `times` calls fail (0: for ever).
    static uint32_t
    Fail(uint32_t point, uint32_t nth = 1, uint32_t times = 1, const char* pathPart = nullptr)
    {
        const FaultRule rule = {point, pathPart, nth, times, FAULT_FAIL, 0};
        return FaultArm(&rule);
    }

  private:
    TemporaryDirectory directory_;
    std::string home_ = "db";
    std::string name_ = DATABASE;
    void* oDatabase_ = nullptr;
    std::vector<void*> tables_;
    LiveCounts before_;
};
