// nimdb_instructions.cpp - the work whose instructions are counted: valgrind's callgrind counts
// what lies between Counted's start and end, and writes each as a dump of its own, which bench.py
// reads.
//   valgrind --tool=callgrind --instr-atstart=no nimdb_instructions RECORDS OPERATIONS DIR
// Counts depend on nothing but the code: the records are functions of their numbers, and what the
// memory pools do is counted as it is shipped (see main).
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <valgrind/callgrind.h>

#include "peers/engine.h"

namespace {

// Counts what `work` does with `operations` inputs that are ready.
template <class Work>
void Counted(const char* name, uint64_t operations, Work work)
{
    std::string label = std::string(name) + " " + std::to_string(operations);
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
    work();
    CALLGRIND_STOP_INSTRUMENTATION;
    CALLGRIND_DUMP_STATS_AT(label.c_str());
}

void Check(bool bRight, const char* what)
{
    if (!bRight)
        die(what);
}

std::unique_ptr<Engine> NimdbEngine()
{
    for (auto& entry : engines()) {
        if (entry.first == "nimdb")
            return entry.second();
    }
    die("no engine nimdb");
}

// Ids from 1 to `records`, each at most once, in random order.
std::vector<int32_t> PickIds(uint32_t records, uint32_t count)
{
    std::vector<int32_t> ids(records);
    for (uint32_t i = 0; i < records; ++i)
        ids[i] = int32_t(i + 1);
    SplitMix random(records);
    for (uint32_t i = 0; i < count; ++i)
        std::swap(ids[i], ids[i + random.below(records - i)]);
    ids.resize(count);
    return ids;
}

void CountAll(Engine& engine, uint32_t records, uint32_t operations)
{
    std::vector<Record> inputs(operations);
    for (uint32_t i = 0; i < records; ++i) {
        make_record(i, inputs[0]);
        engine.insert(inputs[0]);
    }
    for (uint32_t i = 0; i < operations; ++i)
        make_record(records + i, inputs[i]);
    Counted("add", operations, [&] {
        for (Record& record : inputs)
            engine.insert(record);
    });
    uint32_t all = records + operations;

    std::vector<int32_t> ids = PickIds(all, operations);
    for (uint32_t i = 0; i < operations; ++i)
        make_record(uint64_t(ids[i]) - 1, inputs[i]);
    Record out;
    uint32_t found = 0;
    Counted("find by name", operations, [&] {
        for (const Record& record : inputs)
            found += engine.find_by_name(record.name, out);
    });
    Counted("find by 32-byte id", operations, [&] {
        for (const Record& record : inputs)
            found += engine.find_by_hash(record.hash, out);
    });
    Counted("find by record id", operations, [&] {
        for (int32_t id : ids)
            found += engine.find_by_id(id, out);
    });
    Counted("find by 32-bit integer", operations, [&] {
        for (const Record& record : inputs)
            found += engine.find_by_size(record.size, out);
    });
    Check(found == 4 * operations, "a record is not found");

    Sink sink;
    Counted("walk step", all, [&] { engine.walk_by_name(sink); });
    Check(sink.count == all, "the walk did not meet every record");

    uint32_t done = 0;
    Counted("modify", operations, [&] {
        for (int32_t id : ids)
            done += engine.modify_size(id, id * 31 % 50000);
    });
    Counted("delete", operations, [&] {
        for (int32_t id : ids)
            done += engine.erase(id);
    });
    Check(done == 2 * operations, "a record is not modified or deleted");
}

} // namespace

int main(int argc, char** argv)
{
    // The memory pools recognise valgrind by what it preloads, and then hand every piece through to
    // the heap; here they are to do what they do in a host.
    unsetenv("LD_PRELOAD");
    uint32_t records = argc > 3 ? uint32_t(strtoul(argv[1], nullptr, 10)) : 0;
    uint32_t operations = argc > 3 ? uint32_t(strtoul(argv[2], nullptr, 10)) : 0;
    if (records == 0 || operations == 0)
        die("usage: nimdb_instructions RECORDS OPERATIONS DIR");
    std::string directory = argv[3];
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    auto engine = NimdbEngine();
    engine->open(directory, true, records);
    CountAll(*engine, records, operations);
    engine->close();
    std::filesystem::remove_all(directory);
    return 0;
}
