// row_fixture.h: tables of small rows, for the tests of opening and of stored descriptions.
#pragma once

#include <filesystem>
#include <string>

#include "support/database_fixture.h"

inline constexpr const char* TAG = "INDX        ";
inline constexpr uint32_t UNCHANGED = 77;
inline constexpr const char* FORMAT = "i;s;i;";
inline constexpr const char* FIELDS = "Id,Name;Indexed,Size;Indexed;Unique";

inline std::string Hex(const void* p)
{
    char text[32];
    std::snprintf(
        text, sizeof text, "%016llX",
        static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

class RowTest : public DatabaseTest {
  protected:
    // A record of FORMAT.
    struct Row {
        int32_t id;
        int32_t padding;
        char* name;
        int32_t size;
    };

    void SetUp() override
    {
        DatabaseTest::SetUp();
        ASSERT_TRUE(Open());
        IndxSetError(UNCHANGED);
    }

    void* Create(const std::string& name, uint32_t version = INDX_VERSION_NONE)
    {
        return OpenTable(name, MAGIC, FORMAT, FIELDS, 0, version);
    }

    static bool Add(void* oTable, const std::string& name, int32_t size)
    {
        void* oRow = nullptr;
        ObjCreateInternal(&oRow, OBJ_SIZE_COMPUTED, MAGIC, FORMAT, nullptr, 1);
        auto* pRow = static_cast<Row*>(oRow);
        pRow->name = StrDuplicateIntoPool(name.c_str(), 1);
        pRow->size = size;
        uint32_t id = 0;
        const NimBool bAdded = IndxAddObjectToTable(&id, oTable, oRow);
        ObjReleaseInternal(&oRow);
        return bAdded && id != 0;
    }
    static void AddMany(void* oTable, int32_t count)
    {
        for (int32_t i = 0; i < count; ++i)
            ASSERT_TRUE(Add(oTable, "name " + std::to_string(i), i));
    }
    // The records of the table, counted through each of its indexes.
    static void ExpectRecords(void* oTable, int32_t count)
    {
        for (const char* field : {"Id", "Name", "Size"}) {
            void* oCursor = nullptr;
            ASSERT_EQ(IndxGetFieldCursor(&oCursor, oTable, field), 1u);
            int32_t seen = 0;
            for (int32_t result = IndxFirstKey(oCursor); result == 6;
                 result = IndxNextKey(oCursor)) {
                void* oRow = nullptr;
                ASSERT_EQ(IndxGetObjectAtCursor(&oRow, oCursor), 1u);
                EXPECT_EQ(
                    static_cast<Row*>(oRow)->name,
                    "name " + std::to_string(static_cast<Row*>(oRow)->size));
                ObjReleaseInternal(&oRow);
                ++seen;
            }
            EXPECT_EQ(seen, count) << field;
            IndxReleaseCursor(&oCursor);
        }
        IndxUpdateTable(oTable);
    }

    std::string VersionFile(const std::string& name) const { return PathOf("Attributes", name); }
};

// Lets a table's block file come back between the look for it and the making of a new one, as on a
// file system that forgets for a moment. Lives around the call that creates; nothing else is traced
// meanwhile.
class ReturningFile {
  public:
    explicit ReturningFile(const std::string& path) : path_(path)
    {
        std::filesystem::rename(path_, path_ + ".aside");
        TraceSetSink(Take, this, 3);
    }
    ~ReturningFile() { TraceSetSink(nullptr, nullptr, 0); }
    ReturningFile(const ReturningFile&) = delete;
    ReturningFile& operator=(const ReturningFile&) = delete;

    bool told(const std::string& text) const
    {
        return told_.find(text + "\n") != std::string::npos;
    }

  private:
    static void Take(void* context, const TraceLine* line)
    {
        auto* self = static_cast<ReturningFile*>(context);
        self->told_ += std::string(line->text) + "\n";
        if (std::string(line->text) == "Create a new table")
            std::filesystem::rename(self->path_ + ".aside", self->path_);
    }
    std::string path_;
    std::string told_;
};
