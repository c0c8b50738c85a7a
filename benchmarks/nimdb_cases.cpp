// nimdb_cases.cpp - what the yardstick's table does not show: many tables, many fields, long
// records, long keys, and the memory that reading keeps. Each case is a run of its own, in a new
// directory; prints name, tab, value; what is called "..._us" is the median of several batches, in
// microseconds an operation.
//   nimdb_cases tables COUNT DIR          opening and closing a database of so many tables
//   nimdb_cases fields COUNT DIR          records of so many fields, four of them indexed
//   nimdb_cases record BYTES DIR          records with so many bytes of data
//   nimdb_cases key BYTES DIR             an index over texts of so many bytes, their NUL included
//   nimdb_cases make RECORDS DIR          the table for the next three, which stays
//   nimdb_cases walk RECORDS DIR          its walk by name, every record decoded: peak memory
//   nimdb_cases walk-unmapped RECORDS DIR the same without mappings: blocks are brought into memory
//   nimdb_cases walk-updating RECORDS DIR that with IndxUpdateTable after every 10,000 records
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <database/index.h>
#include <nim/nim.h>

#include "block_file_inspector.h"
#include "peers/engine.h"
#include "peers/measure.h"
#include "peers/nimdb_table.h"

namespace {

constexpr int BATCHES = 5;
constexpr const char* DATABASE = "cases";

void Must(bool bDone, const char* what)
{
    if (!bDone)
        die(std::string(what) + ", last error " + std::to_string(IndxError()));
}

void Print(const std::string& name, double value)
{
    printf("%s\t%.3f\n", name.c_str(), value);
    fflush(stdout);
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Prints the median of BATCHES batches of `count` operations; work(i) is operation i of them all.
void Time(const std::string& name, uint32_t count, const std::function<void(uint32_t)>& work)
{
    std::vector<double> times;
    for (uint32_t batch = 0; batch < BATCHES; ++batch) {
        double start = now();
        for (uint32_t i = 0; i < count; ++i)
            work(batch * count + i);
        times.push_back((now() - start) / count * 1e6);
    }
    Print(name + "_us", Median(times));
}

// A database that is open, and its tables by the name of each.
class Host {
    void* oDatabase_ = nullptr;

  public:
    explicit Host(const std::string& directory)
    {
        Must(PathSetHome(directory.c_str()), "home");
        Must(IndxOpenDatabase(&oDatabase_, DATABASE, nullptr, nullptr), "open database");
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host() { IndxCloseDatabase(&oDatabase_); }

    // Given back by the caller with IndxReleaseTable.
    void* Table(
        const std::string& name, uint32_t magic, const std::string& format,
        const std::string& fields) const
    {
        void* oTable = nullptr;
        Must(
            IndxOpenTableInternal(
                &oTable, oDatabase_, name.c_str(), name.c_str(), magic, format.c_str(),
                fields.c_str(), FALSE, INDX_VERSION_NONE),
            "open table");
        return oTable;
    }
};

char* Text(const std::string& text)
{
    return StrDuplicateRangeIntoPool(text.data(), MemGetDefaultPoolId(), uint32_t(text.size()));
}

void* NewObject(uint32_t magic, const std::string& format)
{
    ObjTemplate* type = nullptr;
    void* oObject = nullptr;
    Must(
        ObjTemplateCreateInternal(&type, OBJ_SIZE_COMPUTED, magic, format.c_str(), nullptr) &&
            ObjTemplateCreateInstanceFromPool(&oObject, type, MemGetDefaultPoolId()),
        "object");
    return oObject;
}

void AddAndRelease(void* oTable, void* oObject)
{
    Must(IndxAddObjectToTable(nullptr, oTable, oObject), "add");
    ObjReleaseInternal(&oObject);
}

void ReadAtCursor(void* oCursor)
{
    void* oObject = nullptr;
    Must(IndxGetObjectAtCursor(&oObject, oCursor), "read");
    ObjReleaseInternal(&oObject);
}

// Walks all records, for the first time, finds them by their ids in scattered order, and walks them
// again: the first to read through a mapping pays for its pages.
void TimeReading(void* oTable, const char* walked)
{
    void* oById = nullptr;
    void* oWalked = nullptr;
    Must(IndxGetFieldCursor(&oById, oTable, "Id"), "cursor");
    Must(IndxGetFieldCursor(&oWalked, oTable, walked), "cursor");
    std::vector<uint32_t> ids;
    for (int32_t result = IndxFirstKey(oById); result == INDX_RESULT_FOUND;
         result = IndxNextKey(oById)) {
        ids.push_back(0);
        IndxCursorGetId(&ids.back(), oById);
    }
    auto count = uint32_t(ids.size()) / BATCHES;
    auto walkStep = [&](uint32_t i) {
        int32_t result = i == 0 ? IndxFirstKey(oWalked) : IndxNextKey(oWalked);
        Must(result == INDX_RESULT_FOUND, "walk");
        ReadAtCursor(oWalked);
    };
    Time("first_walk", count, walkStep);
    SplitMix random(count);
    Time("find_by_id", count, [&](uint32_t) {
        uint32_t id = ids[random.below(uint32_t(ids.size()))];
        Must(IndxFindKey(oById, id, nullptr) == INDX_RESULT_FOUND, "find");
        ReadAtCursor(oById);
    });
    Time("walk", count, walkStep);
    IndxReleaseCursor(&oById);
    IndxReleaseCursor(&oWalked);
}

// ---- the cases ------------------------------------------------------------

constexpr uint32_t SMALL_MAGIC = 0xc8424e44;
constexpr const char* SMALL_FORMAT = "i;s;i;";
constexpr const char* SMALL_FIELDS = "Id, Name;Indexed, Size;Indexed";
struct Small {
    int32_t id;
    char* name;
    int32_t size;
};

void Tables(const std::string& directory, uint32_t count)
{
    constexpr uint32_t RECORDS = 100;
    constexpr uint32_t OPENS = 20;
    {
        Host host(directory);
        for (uint32_t t = 0; t < count; ++t) {
            void* oTable =
                host.Table("table" + std::to_string(t), SMALL_MAGIC, SMALL_FORMAT, SMALL_FIELDS);
            for (uint32_t i = 0; i < RECORDS; ++i) {
                void* oObject = NewObject(SMALL_MAGIC, SMALL_FORMAT);
                auto* pSmall = static_cast<Small*>(oObject);
                pSmall->name = Text("name " + std::to_string(i * 7919 % RECORDS));
                pSmall->size = int32_t(i);
                AddAndRelease(oTable, oObject);
            }
            IndxReleaseTable(&oTable);
        }
    }
    std::vector<double> opens;
    std::vector<double> closes;
    std::vector<double> singles;
    for (uint32_t i = 0; i < OPENS; ++i) {
        double start = now();
        auto host = std::make_unique<Host>(directory);
        opens.push_back((now() - start) * 1e6);
        start = now();
        void* oTable = host->Table(
            "table" + std::to_string(count - 1), SMALL_MAGIC, SMALL_FORMAT, SMALL_FIELDS);
        singles.push_back((now() - start) * 1e6);
        IndxReleaseTable(&oTable);
        start = now();
        host.reset();
        closes.push_back((now() - start) * 1e6);
    }
    Print("open_database_us", Median(opens));
    Print("open_last_table_us", Median(singles));
    Print("close_database_us", Median(closes));
}

// Id, then texts and 32-bit integers in turn, of which the first three are indexed.
void Fields(const std::string& directory, uint32_t count)
{
    constexpr uint32_t MAGIC = 0xc8424e45;
    constexpr uint32_t RECORDS = 5000;
    if (count < 5)
        die("at least 5 fields");
    std::string format = "i;";
    std::string fields = "Id";
    for (uint32_t f = 1; f < count; ++f) {
        format += f % 2 ? "s;" : "i;";
        fields += ", Field" + std::to_string(f) + (f <= 3 ? ";Indexed" : "");
    }
    Host host(directory);
    void* oTable = host.Table("wide", MAGIC, format, fields);
    void* oFirst = NewObject(MAGIC, format);
    const ObjDbData* pShape = ObjGetDbData(oFirst);
    ObjReleaseInternal(&oFirst);
    Time("add", RECORDS / BATCHES, [&](uint32_t i) {
        void* oObject = NewObject(MAGIC, format);
        SplitMix random(i);
        for (uint32_t f = 1; f < count; ++f) {
            char* item = static_cast<char*>(oObject) + pShape->fields[f].objectOffset;
            auto value = int32_t(random.next() >> 33);
            if (f % 2) {
                char* text = Text("text " + std::to_string(value));
                memcpy(item, &text, sizeof text);
            } else {
                memcpy(item, &value, sizeof value);
            }
        }
        AddAndRelease(oTable, oObject);
    });
    TimeReading(oTable, "Field1");
    IndxReleaseTable(&oTable);
}

// The same bytes appended to a file and read again, without this library.
void TimeBareBytes(const std::string& path, std::string& data, uint32_t count)
{
    int file = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    Must(file >= 0, "a file beside the database");
    auto bytes = ssize_t(data.size());
    Time("bare_write", count, [&](uint32_t i) {
        Must(pwrite(file, data.data(), data.size(), off_t(i) * bytes) == bytes, "write");
    });
    SplitMix random(count);
    Time("bare_read", count, [&](uint32_t) {
        off_t at = off_t(random.below(count * BATCHES)) * bytes;
        Must(pread(file, data.data(), data.size(), at) == bytes, "read");
    });
    close(file);
}

void LongRecords(const std::string& directory, uint32_t bytes)
{
    constexpr uint32_t MAGIC = 0xc8424e46;
    constexpr const char* FORMAT = "i;i;d;";
    constexpr uint32_t MOST_BYTES = 256u << 20; // in all
    struct Long {
        int32_t id;
        int32_t size;
        ObjData data;
    };
    uint32_t records = std::clamp(MOST_BYTES / std::max(bytes, 1u), 50u, 5000u);
    Host host(directory);
    void* oTable = host.Table("long", MAGIC, FORMAT, "Id, Size;Indexed, Data");
    std::string data(bytes, '\0');
    SplitMix random(bytes);
    std::generate(data.begin(), data.end(), [&] { return char(random.next()); });
    Time("add", records / BATCHES, [&](uint32_t) {
        void* oObject = NewObject(MAGIC, FORMAT);
        auto* pLong = static_cast<Long*>(oObject);
        pLong->size = int32_t(random.below(50000));
        pLong->data.data = MemAllocateUncleared(bytes, MemGetDefaultPoolId());
        Must(pLong->data.data != nullptr, "memory");
        pLong->data.size = bytes;
        memcpy(pLong->data.data, data.data(), bytes);
        AddAndRelease(oTable, oObject);
    });
    TimeReading(oTable, "Size");
    IndxReleaseTable(&oTable);
    TimeBareBytes(directory + "/bare", data, records / BATCHES);
}

constexpr uint32_t ALWAYS_FITS = 8152; // two keys of this length fit into one node
constexpr uint32_t SHORT_KEY = 18;

// Texts that differ near their beginning, in random order. Keys longer than ALWAYS_FITS find room
// only among shorter ones, and not always: every tenth is long then, and those that are refused are
// counted.
void LongKeys(const std::string& directory, uint32_t bytes)
{
    constexpr uint32_t MAGIC = 0xc8424e47;
    constexpr uint32_t RECORDS = 2000;
    if (bytes < SHORT_KEY)
        die("at least 18 bytes a key");
    Host host(directory);
    void* oTable = host.Table("keys", MAGIC, SMALL_FORMAT, "Id, Name;Indexed, Size");
    uint32_t refused = 0;
    Time("add", RECORDS / BATCHES, [&](uint32_t i) {
        void* oObject = NewObject(MAGIC, SMALL_FORMAT);
        bool bShort = bytes > ALWAYS_FITS && i % 10 != 0;
        std::string text((bShort ? SHORT_KEY : bytes) - 1, 'k');
        char digits[17];
        snprintf(digits, sizeof digits, "%016llx", (unsigned long long)SplitMix(i).next());
        memcpy(text.data(), digits, 16);
        static_cast<Small*>(oObject)->name = Text(text);
        bool bAdded = IndxAddObjectToTable(nullptr, oTable, oObject);
        Must(bAdded || bytes > ALWAYS_FITS, "add");
        refused += !bAdded;
        ObjReleaseInternal(&oObject);
    });
    if (bytes > ALWAYS_FITS)
        Print("refused", refused);
    TimeReading(oTable, "Name");
    IndxReleaseTable(&oTable);
    auto file = directory + "/db/" + DATABASE + "/Indexes/keys";
    for (const IndexFacts& index : InspectBlockFile(file).indexes) {
        if (index.field == "Name")
            Print("levels", index.levels);
    }
}

EngineFactory NimdbEngine()
{
    for (auto& entry : engines()) {
        if (entry.first == "nimdb")
            return entry.second;
    }
    die("no engine nimdb");
}

void MakeTable(const std::string& directory, uint32_t records)
{
    auto engine = NimdbEngine()();
    engine->open(directory, true, records);
    Record record;
    for (uint32_t i = 0; i < records; ++i) {
        make_record(i, record);
        engine->insert(record);
    }
    engine->close();
}

// The table that MakeTable made, walked by a cursor. `updateEvery` is a number of records, 0 for
// never.
void WalkForMemory(
    const std::string& directory, uint32_t records, bool bMapped, uint32_t updateEvery)
{
    FileSysSetMapping(bMapped);
    constexpr uint32_t SAMPLE_EVERY = 1000; // a look at the memory
    void* oDatabase = nullptr;
    void* oTable = nullptr;
    void* oCursor = nullptr;
    Must(PathSetHome(directory.c_str()), "home");
    Must(IndxOpenDatabase(&oDatabase, SAMPLE_DATABASE, nullptr, nullptr), "open database");
    Must(
        IndxOpenTableInternal(
            &oTable, oDatabase, SAMPLE_TABLE, SAMPLE_TABLE, SAMPLE_MAGIC, SAMPLE_FORMAT,
            SAMPLE_FIELDS, FALSE, INDX_VERSION_NONE),
        "open table");
    Must(IndxGetFieldCursor(&oCursor, oTable, "Name"), "cursor");
    long before = status_kb("RssAnon");
    long peak = before;
    uint32_t count = 0;
    double seconds = 0;
    double start = now();
    for (int32_t result = IndxFirstKey(oCursor); result == INDX_RESULT_FOUND;
         result = IndxNextKey(oCursor)) {
        ReadAtCursor(oCursor);
        ++count;
        if (updateEvery != 0 && count % updateEvery == 0)
            Must(IndxUpdateTable(oTable), "update");
        if (count % SAMPLE_EVERY == 0) {
            seconds += now() - start;
            peak = std::max(peak, status_kb("RssAnon"));
            start = now();
        }
    }
    seconds += now() - start;
    peak = std::max(peak, status_kb("RssAnon"));
    Must(count == records, "the walk did not meet every record");
    Print("walk_us", seconds / count * 1e6);
    Print("anon_before_MiB", double(before) / 1024);
    Print("anon_peak_MiB", double(peak) / 1024);
    IndxReleaseCursor(&oCursor);
    IndxReleaseTable(&oTable);
    IndxCloseDatabase(&oDatabase);
}

} // namespace

int main(int argc, char** argv)
{
    std::string name = argc > 3 ? argv[1] : "";
    auto amount = argc > 3 ? uint32_t(strtoul(argv[2], nullptr, 10)) : 0;
    std::string directory = argc > 3 ? argv[3] : "";
    if (amount == 0)
        die("usage: nimdb_cases CASE AMOUNT DIR; the cases stand at the head of nimdb_cases.cpp");
    bool bKept = name == "walk" || name == "walk-unmapped" || name == "walk-updating";
    if (!bKept) {
        std::filesystem::remove_all(directory);
        std::filesystem::create_directories(directory);
    }
    if (name == "tables")
        Tables(directory, amount);
    else if (name == "fields")
        Fields(directory, amount);
    else if (name == "record")
        LongRecords(directory, amount);
    else if (name == "key")
        LongKeys(directory, amount);
    else if (name == "make")
        MakeTable(directory, amount);
    else if (name == "walk")
        WalkForMemory(directory, amount, true, 0);
    else if (name == "walk-unmapped")
        WalkForMemory(directory, amount, false, 0);
    else if (name == "walk-updating")
        WalkForMemory(directory, amount, false, 10000);
    else
        die("no case " + name);
    if (!bKept && name != "make")
        std::filesystem::remove_all(directory);
    return 0;
}
