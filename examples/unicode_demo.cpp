// unicode_demo: the Unicode character database as a table.
//
// A host program as a user of the library would write it, with the public headers only: it opens a
// database, creates a table with six indexes, adds every line of UnicodeData.txt as a typed object,
// closes, opens again, finds, walks, and reads every record back through every index. It ends with
// exit status 0 only if everything read back equals what was read in.
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "block_file_inspector.h"
#include "database/dbconfig.h"
#include "database/index.h"
#include "nim/nim.h"
#include "progress.h"
#include "unicode_demo_input.h"

namespace {

// ---- the table ---------------------------------------------------------------------------------

constexpr const char* DATABASE = "unicode";
constexpr const char* TABLE = "characters";
constexpr uint32_t TABLE_VERSION = 1;

// The objects the table holds: a magic of our own, one letter an item, one name a letter, and the
// struct that lies over such an object. A text without "Case Sensitive" is compared without regard
// to case; the index of the field "Id" needs no flag.
constexpr uint32_t CHARACTER_MAGIC = 0xc8554344;
constexpr const char* CHARACTER_FORMAT = "i;i;s;s;s;s;q;u;b;";
constexpr const char* CHARACTER_FIELDS =
    "Id, CodePoint;Indexed;Unique, Name;Indexed, Category;Indexed;Case Sensitive, Bidirectional, "
    "Decomposition, CaseMapping;Indexed, Digest;Indexed;Unique, Mirrored";

struct CharacterRecord {
    int32_t id;
    int32_t codePoint;
    char* name;
    char* category;
    char* bidirectional;
    char* decomposition;
    int64_t caseMapping;
    UniqueId digest;
    int32_t bMirrored;
};
static_assert(sizeof(CharacterRecord) == 88 && offsetof(CharacterRecord, bMirrored) == 80);

// ---- failures and handles ----------------------------------------------------------------------

[[noreturn]] void Fail(const std::string& what)
{
    throw std::runtime_error(fmt::format("{} (last error {})", what, IndxError()));
}

// An object of the base services; its reference is given back at the end of the scope.
class Object {
  public:
    explicit Object(void* handle = nullptr) : handle_(handle) {}
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    ~Object() { ObjReleaseInternal(&handle_); }

    void** Out() { return &handle_; }
    void* Get() const { return handle_; }

  private:
    void* handle_;
};

class Cursor {
  public:
    Cursor(void* oTable, const char* field)
    {
        if (!IndxGetFieldCursor(&oCursor_, oTable, field))
            Fail(fmt::format("no cursor on {}", field));
    }
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;
    ~Cursor() { IndxReleaseCursor(&oCursor_); }

    bool First() { return IndxFirstKey(oCursor_) == INDX_RESULT_FOUND; }
    bool Next() { return IndxNextKey(oCursor_) == INDX_RESULT_FOUND; }
    bool NextMatching() { return IndxNextMatchingKey(oCursor_) == INDX_RESULT_FOUND; }
    bool Find(const Object& key)
    {
        return IndxFindKey(oCursor_, 0, key.Get()) == INDX_RESULT_FOUND;
    }

    // The record under the cursor, decoded.
    const CharacterRecord& Read(Object& object) const
    {
        if (!IndxGetObjectAtCursor(object.Out(), oCursor_))
            Fail("a record cannot be read");
        return *static_cast<const CharacterRecord*>(object.Get());
    }

  private:
    void* oCursor_ = nullptr;
};

class Database {
  public:
    Database()
    {
        if (!IndxOpenDatabase(&oDatabase_, DATABASE, nullptr, nullptr))
            Fail("the database cannot be opened");
        if (!IndxOpenTableInternal(
                &oTable_, oDatabase_, TABLE, TABLE, CHARACTER_MAGIC, CHARACTER_FORMAT,
                CHARACTER_FIELDS, FALSE, TABLE_VERSION)) {
            IndxCloseDatabase(&oDatabase_);
            Fail("the table cannot be opened");
        }
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    ~Database()
    {
        IndxReleaseTable(&oTable_);
        IndxCloseDatabase(&oDatabase_);
    }

    void* Table() const { return oTable_; }
    // Reading keeps nodes in memory; this lets go of them.
    void ForgetNodes() const
    {
        if (!IndxUpdateTable(oTable_))
            Fail("the table cannot be updated");
    }

  private:
    void* oDatabase_ = nullptr;
    void* oTable_ = nullptr;
};

// ---- phases and what they cost -----------------------------------------------------------------

class Phase {
  public:
    Phase(std::string what, size_t count)
        : what_(std::move(what)), count_(count), progress_(what_.c_str(), count)
    {
    }
    Phase(const Phase&) = delete;
    Phase& operator=(const Phase&) = delete;

    void Step() { progress_.Step(); }

    static void PrintAll()
    {
        fmt::print("\n{:<34}{:>10}{:>12}{:>14}\n", "phase", "count", "seconds", "per second");
        for (const std::string& line : lines_)
            fmt::print("{}\n", line);
    }

    ~Phase()
    {
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - start_;
        double rate = took.count() > 0 ? double(count_) / took.count() : 0;
        lines_.push_back(
            fmt::format("{:<34}{:>10}{:>12.3f}{:>14.0f}", what_, count_, took.count(), rate));
    }

  private:
    static inline std::vector<std::string> lines_;

    std::string what_;
    size_t count_;
    Progress progress_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// ---- adding ------------------------------------------------------------------------------------

// Texts of an object come from a pool and die with the object.
char* PoolText(const std::string& text)
{
    char* copy = StrDuplicateIntoPool(text.c_str(), MemGetDefaultPoolId());
    if (!copy)
        Fail("no memory");
    return copy;
}

void AddAll(const Database& database, const std::vector<Character>& input)
{
    ObjTemplate* tmpl = nullptr;
    if (!ObjTemplateCreateInternal(
            &tmpl, OBJ_SIZE_COMPUTED, CHARACTER_MAGIC, CHARACTER_FORMAT, nullptr))
        Fail("the record template cannot be made");

    Phase phase("add", input.size());
    for (const Character& character : input) {
        Object object;
        if (!ObjTemplateCreateInstanceFromPool(object.Out(), tmpl, MemGetDefaultPoolId()))
            Fail("no memory");
        auto& record = *static_cast<CharacterRecord*>(object.Get());
        record.codePoint = character.codePoint;
        record.name = PoolText(character.name);
        record.category = PoolText(character.category);
        record.bidirectional = PoolText(character.bidirectional);
        record.decomposition = PoolText(character.decomposition);
        record.caseMapping = character.caseMapping;
        record.digest = character.digest;
        record.bMirrored = character.bMirrored;

        uint32_t id = 0;
        if (!IndxAddObjectToTable(&id, database.Table(), object.Get()))
            Fail(fmt::format("U+{:04X} cannot be added", character.codePoint));
        if (&character != &input[id - 1])
            Fail(fmt::format("U+{:04X} got the id {}", character.codePoint, id));
        phase.Step();
    }
}

// ---- comparing ---------------------------------------------------------------------------------

bool Same(const CharacterRecord& record, const Character& character)
{
    return record.codePoint == character.codePoint && record.name == character.name &&
           record.category == character.category &&
           record.bidirectional == character.bidirectional &&
           record.decomposition == character.decomposition &&
           record.caseMapping == character.caseMapping &&
           UniqueEqual(&record.digest, &character.digest) &&
           record.bMirrored == int32_t(character.bMirrored);
}

// The line a record was made of; fails unless all of it came back. A text that is missing would be
// a null pointer, so that is looked at first.
const Character& Compare(const CharacterRecord& record, const std::vector<Character>& input)
{
    if (!record.name || !record.category || !record.bidirectional || !record.decomposition)
        Fail(fmt::format("record {} came back without a text", record.id));
    if (record.id < 1 || size_t(record.id) > input.size())
        Fail(fmt::format("there is a record {} of {}", record.id, input.size()));
    const Character& character = input[size_t(record.id) - 1];
    if (!Same(record, character))
        Fail(fmt::format("U+{:04X} did not come back as it was", character.codePoint));
    return character;
}

// ---- finding -----------------------------------------------------------------------------------

std::string LowerCase(std::string text)
{
    for (char& c : text)
        c = c >= 'A' && c <= 'Z' ? char(c + ('a' - 'A')) : c;
    return text;
}

void FindAllByCodePoint(const Database& database, const std::vector<Character>& input)
{
    Phase phase("find by code point", input.size());
    Cursor cursor(database.Table(), "CodePoint");
    for (const Character& character : input) {
        Object object;
        if (!cursor.Find(Object(ObjIntegerNew(character.codePoint))) ||
            &Compare(cursor.Read(object), input) != &character)
            Fail(fmt::format("U+{:04X} is not found", character.codePoint));
        phase.Step();
    }
}

// In small letters, although they were stored in capitals. A name may stand for several characters
// ("<control>" does), and the cursor is then on the one with the lowest id.
void FindAllByName(const Database& database, const std::vector<Character>& input)
{
    Phase phase("find by name", input.size());
    Cursor cursor(database.Table(), "Name");
    for (const Character& character : input) {
        Object object;
        if (!cursor.Find(Object(ObjStringNew(LowerCase(character.name).c_str()))) ||
            Compare(cursor.Read(object), input).name != character.name)
            Fail(fmt::format("{} is not found", character.name));
        phase.Step();
    }
}

void FindAllByDigest(const Database& database, const std::vector<Character>& input)
{
    Phase phase("find by 32-byte id", input.size());
    Cursor cursor(database.Table(), "Digest");
    for (const Character& character : input) {
        Object object;
        if (!cursor.Find(Object(ObjUniqueNew(&character.digest))) ||
            &Compare(cursor.Read(object), input) != &character)
            Fail(fmt::format("the digest of U+{:04X} is not found", character.codePoint));
        phase.Step();
    }
}

void Print(const CharacterRecord& record)
{
    fmt::print(
        "    U+{:04X}  {:<44} {:<3}{:<4}{}\n", record.codePoint, record.name, record.category,
        record.bidirectional, record.bMirrored ? "mirrored" : "");
}

void PrintFound(Cursor& cursor, const Object& key, const std::string& what)
{
    Object object;
    if (cursor.Find(key))
        Print(cursor.Read(object));
    else
        fmt::print("    {} is not among the lines read\n", what);
}

void ShowExamples(const Database& database)
{
    fmt::print("\nfound by code point:\n");
    Cursor byCodePoint(database.Table(), "CodePoint");
    for (int32_t codePoint : {0x41, 0x28, 0xe9, 0x20ac, 0x10348})
        PrintFound(
            byCodePoint, Object(ObjIntegerNew(codePoint)), fmt::format("U+{:04X}", codePoint));

    fmt::print("\nfound by name, without regard to case:\n");
    Cursor byName(database.Table(), "Name");
    for (const char* name : {"Greek small letter pi", "snowman", "ARABIC LETTER alef"})
        PrintFound(byName, Object(ObjStringNew(name)), name);

    size_t controls = 0;
    bool bFound = byName.Find(Object(ObjStringNew("<CONTROL>")));
    for (; bFound; bFound = byName.NextMatching())
        ++controls;
    fmt::print("    {} characters are named <control>\n", controls);
}

// ---- walking -----------------------------------------------------------------------------------

void WalkCategory(const Database& database, const std::vector<Character>& input, const char* name)
{
    constexpr size_t SHOWN = 5;
    size_t expected = 0;
    for (const Character& character : input)
        expected += character.category == name;
    fmt::print("\ncategory {} in order of the records:\n", name);

    Phase phase("walk one category", expected);
    Cursor cursor(database.Table(), "Category");
    size_t count = 0;
    const Character* before = nullptr;
    bool bFound = cursor.Find(Object(ObjStringNew(name)));
    for (; bFound; bFound = cursor.NextMatching()) {
        Object object;
        const CharacterRecord& record = cursor.Read(object);
        const Character& character = Compare(record, input);
        if (character.category != name || (before && before >= &character))
            Fail(fmt::format("U+{:04X} stands in the wrong place", character.codePoint));
        if (count++ < SHOWN)
            Print(record);
        before = &character;
        phase.Step();
    }
    if (count != expected)
        Fail(fmt::format("{} records of category {}, not {}", count, name, expected));
    if (count > SHOWN)
        fmt::print("    and {} more\n", count - SHOWN);
}

// How the keys of an index are ordered; equal keys follow their record ids.
struct Order {
    const char* field;
    int (*compare)(const Character&, const Character&);
};

template <class T>
int ThreeWay(T a, T b)
{
    return a < b ? -1 : a > b;
}

constexpr Order ORDERS[] = {
    {"Id", [](const Character&, const Character&) { return 0; }},
    {"CodePoint",
     [](const Character& a, const Character& b) { return ThreeWay(a.codePoint, b.codePoint); }},
    {"Name",
     [](const Character& a, const Character& b) {
         return int(StrCompareNoCase(a.name.c_str(), b.name.c_str()));
     }},
    {"Category",
     [](const Character& a, const Character& b) { return a.category.compare(b.category); }},
    {"CaseMapping",
     [](const Character& a, const Character& b) { return ThreeWay(a.caseMapping, b.caseMapping); }},
    {"Digest", [](const Character& a, const Character& b) {
         return std::memcmp(a.digest.b, b.digest.b, sizeof a.digest.b);
     }}};

// Every record once, in the order of the index, and equal to the line it was made of.
void ReadBack(const Database& database, const std::vector<Character>& input, const Order& order)
{
    Phase phase(fmt::format("read back by {}", order.field), input.size());
    Cursor cursor(database.Table(), order.field);
    size_t count = 0;
    const Character* before = nullptr;
    for (bool bFound = cursor.First(); bFound; bFound = cursor.Next()) {
        Object object;
        const Character& character = Compare(cursor.Read(object), input);
        if (before) {
            int compared = order.compare(*before, character);
            if (compared > 0 || (compared == 0 && before >= &character))
                Fail(fmt::format("U+{:04X} is out of order", character.codePoint));
        }
        before = &character;
        ++count;
        phase.Step();
    }
    // Strictly ascending, so none came twice: as many as there are lines means every one.
    if (count != input.size())
        Fail(fmt::format("{} records through {}, not {}", count, order.field, input.size()));
    database.ForgetNodes();
}

// ---- what lies on disk -------------------------------------------------------------------------

std::filesystem::path TableFile(const char* directory)
{
    char* home = nullptr;
    if (!DbGetHomeDir(&home) || !home)
        Fail("no memory");
    std::filesystem::path path = std::filesystem::path(home) / DATABASE / directory / TABLE;
    MemFree(home);
    return path;
}

void ShowFiles(const std::vector<Character>& input)
{
    std::filesystem::path records = TableFile("Records");
    BlockFileFacts facts = InspectBlockFile(TableFile("Indexes").string());
    uint64_t recordBytes = std::filesystem::file_size(records);

    fmt::print(
        "\n{:<14}{:>8}{:>10}{:>8}{:>10}{:>12}\n", "index", "levels", "branches", "leaves",
        "entries", "leaf fill");
    for (const IndexFacts& index : facts.indexes) {
        fmt::print(
            "{:<14}{:>8}{:>10}{:>8}{:>10}{:>10.0f} %\n", index.field, index.levels, index.branches,
            index.leaves, index.entries, 100 * index.LeafFill());
        if (index.entries != input.size())
            Fail(fmt::format("the index {} holds {} entries", index.field, index.entries));
    }
    if (facts.indexes.size() != std::size(ORDERS) || facts.highestId != input.size() ||
        facts.Nodes() + facts.freeBlocks != facts.blocks)
        Fail("the block file does not hold what it should");

    fmt::print("\n{} records, {} bytes in {}\n", facts.highestId, recordBytes, records.string());
    fmt::print(
        "{} nodes, {} free blocks, {} bytes in {}\n", facts.Nodes(), facts.freeBlocks, facts.bytes,
        TableFile("Indexes").string());
    fmt::print("{:.1f} bytes a record\n", double(recordBytes + facts.bytes) / double(input.size()));
}

void Run(const std::string& inputPath, size_t lines)
{
    const std::vector<Character> input = ReadUnicodeData(inputPath, lines);
    if (input.empty())
        throw std::runtime_error(inputPath + " has no lines");
    fmt::print("{} lines read from {}\n", input.size(), inputPath);
    {
        Database database;
        if (IndxNextId(database.Table()) != 1)
            throw std::runtime_error("there is such a database here: use an empty directory");
        AddAll(database, input);
    }
    {
        Database database;
        FindAllByCodePoint(database, input);
        FindAllByName(database, input);
        FindAllByDigest(database, input);
        ShowExamples(database);
        WalkCategory(database, input, "Lu");
        database.ForgetNodes();
        for (const Order& order : ORDERS)
            ReadBack(database, input, order);
    }
    Phase::PrintAll();
    ShowFiles(input);
    fmt::print("\nevery record read back equals the line it was made of\n");
}

} // namespace

int main(int argc, char** argv)
{
    std::string inputPath = "/usr/share/unicode/UnicodeData.txt";
    std::string home = ".";
    size_t lines = 0;
    CLI::App app("Stores the Unicode character database in a table, and reads it back.");
    app.add_option("--input", inputPath, "UnicodeData.txt")->capture_default_str();
    app.add_option("--lines", lines, "Only the first lines (0 = all)")->capture_default_str();
    app.add_option("--home", home, "Directory of the product, for db/unicode and configure.cfg")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    int status = 0;
    try {
        PathSetHome(home.c_str());
        Run(inputPath, lines);
    } catch (const std::exception& failure) {
        fmt::print(stderr, "unicode_demo: {}\n", failure.what());
        status = 1;
    }
    MemTrim();
    return status;
}
