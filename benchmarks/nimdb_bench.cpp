// nimdb_bench: add, find by text, find by 32-byte id, walk and open, in a table of 100,000 and one
// of 1,000,000 records with four indexes, each beside what the same input and output costs bare, in
// the same minute on the same disk.
//
// Operations are timed in rounds of a thousand, and a bare round follows every round, so that a
// machine that slows down slows both. The keys of a round are made before the clock starts. Google
// Benchmark reports means; the closing table gives medians, which a busy machine spoils less. A
// wrong result ends the program with a failure, a slow one does not.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <benchmark/benchmark.h>

#include "bare_io.h"
#include "table_under_test.h"
#include "workload.h"

namespace {

constexpr size_t ROUND = 1000; // operations
constexpr int FIND_ROUNDS = 300;
constexpr int OPENS = 200;
constexpr int WALKS = 3;
constexpr uint32_t MEASURED_PART = 5; // the last fifth of the records is added on the clock

// What is wanted of the larger table.
constexpr uint64_t WANTED_AT = 1000000;
constexpr double WANTED_ADD_RATIO = 2;
constexpr double WANTED_FIND_MICROSECONDS = 5;

// Indexes by their number in the block file.
constexpr size_t NAME_INDEX = 1;
constexpr size_t HASH_INDEX = 3;

double Seconds(const std::function<void()>& work)
{
    auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    auto middle = values.begin() + ptrdiff_t(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// ---- what was measured
// ---------------------------------------------------------------------------

struct Figure {
    std::string operation;
    uint64_t records;
    double microseconds;
    double bareMicroseconds;
};
std::vector<Figure> gFigures;

// Microseconds of single operations, the library's and bare.
class Measured {
  public:
    Measured(benchmark::State& state, std::string operation, uint64_t records)
        : state_(state), operation_(std::move(operation)), records_(records)
    {
    }
    Measured(const Measured&) = delete;
    Measured& operator=(const Measured&) = delete;

    // `count` operations of the library took `seconds`, and as many bare ones `bareSeconds`.
    void Take(size_t count, double seconds, double bareSeconds)
    {
        state_.SetIterationTime(seconds / double(count));
        times_.push_back(seconds / double(count) * 1e6);
        bareTimes_.push_back(bareSeconds / double(count) * 1e6);
    }

    ~Measured()
    {
        Figure figure = {operation_, records_, Median(times_), Median(bareTimes_)};
        state_.counters["median_us"] = figure.microseconds;
        state_.counters["bare_us"] = figure.bareMicroseconds;
        gFigures.push_back(figure);
    }

  private:
    benchmark::State& state_;
    std::string operation_;
    uint64_t records_;
    std::vector<double> times_;
    std::vector<double> bareTimes_;
};

// ---- the table and its bare counterpart
// ----------------------------------------------------------

class Stage {
  public:
    Stage(const std::string& directory, uint64_t records) : records_(records), table_(directory) {}

    TableUnderTest& Table() { return table_; }
    BareIo& Bare() { return *bare_; }

    void BuildTo(uint64_t count)
    {
        Sample sample;
        for (; added_ < count; ++added_) {
            MakeSample(sample, added_);
            table_.Add(sample);
        }
    }

    // The next samples to be added, not yet added.
    void TakeNext(std::vector<Sample>& samples)
    {
        for (Sample& sample : samples)
            MakeSample(sample, added_++);
    }

    void Complete()
    {
        BuildTo(records_);
        if (!bare_)
            MakeBare();
    }

    void MakeBare()
    {
        BlockFileFacts facts = table_.Inspect();
        uint32_t reads = 0;
        printf("table of %" PRIu64 " records: %u blocks; levels", added_, facts.blocks);
        for (const IndexFacts& index : facts.indexes) {
            printf(" %s %d", index.field.c_str(), index.levels);
            reads += uint32_t(index.levels);
        }
        printf("; an add reads %u blocks and writes %zu\n", reads, facts.indexes.size());
        bare_ = std::make_unique<BareIo>(table_.Directory(), facts, table_.RecordBytes());
    }

  private:
    uint64_t records_;
    uint64_t added_ = 0;
    TableUnderTest table_;
    std::unique_ptr<BareIo> bare_;
};

std::string gDirectory = ".";
std::unique_ptr<Stage> gStage; // one table at a time: the larger one would spoil the smaller one
uint64_t gStageRecords = 0;

Stage& StageFor(uint64_t records)
{
    if (gStageRecords != records) {
        gStage.reset();
        gStage = std::make_unique<Stage>(gDirectory, records);
        gStageRecords = records;
    }
    return *gStage;
}

// ---- the benchmarks
// ------------------------------------------------------------------------------

void BenchAdd(benchmark::State& state, uint64_t records)
{
    Stage& stage = StageFor(records);
    stage.BuildTo(records - records / MEASURED_PART);
    stage.MakeBare();
    Measured measured(state, "add", records);
    std::vector<Sample> samples(ROUND);
    for ([[maybe_unused]] auto _ : state) {
        stage.TakeNext(samples);
        double seconds = Seconds([&] {
            for (const Sample& sample : samples)
                stage.Table().Add(sample);
        });
        double bareSeconds = Seconds([&] {
            for (size_t i = 0; i < ROUND; ++i)
                stage.Bare().Add();
        });
        measured.Take(ROUND, seconds, bareSeconds);
    }
}

// Finds of records picked at random. `find` is the library's, `bare` its input and output.
void BenchFind(
    benchmark::State& state, uint64_t records, const char* operation,
    void (*find)(TableUnderTest&, const Sample&, uint32_t), void (*bare)(BareIo&))
{
    Stage& stage = StageFor(records);
    stage.Complete();
    stage.Table().ForgetNodes();
    Measured measured(state, operation, records);
    Random random(records);
    std::vector<Sample> samples(ROUND);
    std::vector<uint32_t> ids(ROUND);
    for ([[maybe_unused]] auto _ : state) {
        for (size_t i = 0; i < ROUND; ++i) {
            uint32_t n = random.Below(uint32_t(records));
            MakeSample(samples[i], n);
            ids[i] = n + 1;
        }
        double seconds = Seconds([&] {
            for (size_t i = 0; i < ROUND; ++i)
                find(stage.Table(), samples[i], ids[i]);
        });
        double bareSeconds = Seconds([&] {
            for (size_t i = 0; i < ROUND; ++i)
                bare(stage.Bare());
        });
        measured.Take(ROUND, seconds, bareSeconds);
    }
    stage.Table().ForgetNodes();
}

void BenchWalk(benchmark::State& state, uint64_t records)
{
    Stage& stage = StageFor(records);
    stage.Complete();
    uint64_t expected = 0;
    Sample sample;
    for (uint64_t n = 0; n < records; ++n) {
        MakeSample(sample, n);
        expected += SumOf(
            uint32_t(n + 1), sample.size, sample.stamp, sample.name.size(), sample.note.size());
    }
    uint32_t leaves = stage.Table().Inspect().indexes.at(NAME_INDEX).leaves;
    Measured measured(state, "walk by text, a record", records);
    for ([[maybe_unused]] auto _ : state) {
        uint64_t sum = 0;
        uint64_t count = 0;
        stage.Table().ForgetNodes();
        double seconds = Seconds([&] { count = stage.Table().Walk(sum); });
        if (count != records || sum != expected)
            throw std::runtime_error("the walk did not meet every record as it was added");
        double bareSeconds = Seconds([&] {
            for (uint32_t i = 0; i < leaves; ++i)
                stage.Bare().ReadLeaf();
            for (uint64_t i = 0; i < records; ++i)
                stage.Bare().ReadRecord();
        });
        measured.Take(records, seconds, bareSeconds);
    }
    stage.Table().ForgetNodes();
}

void BenchOpen(benchmark::State& state, uint64_t records)
{
    Stage& stage = StageFor(records);
    stage.Complete();
    Measured measured(state, "open", records);
    for ([[maybe_unused]] auto _ : state) {
        stage.Table().Close();
        double seconds = Seconds([&] { stage.Table().Open(); });
        double bareSeconds = Seconds([&] { stage.Bare().Open(); });
        measured.Take(1, seconds, bareSeconds);
    }
}

// A benchmark that fails says so and ends the run: figures of wrong results are worth nothing.
int gStatus = 0;

void Register(
    const char* name, uint64_t records, int iterations,
    const std::function<void(benchmark::State&)>& function)
{
    benchmark::RegisterBenchmark(
        (std::string(name) + "/" + std::to_string(records)).c_str(),
        [function](benchmark::State& state) {
            try {
                if (gStatus == 0)
                    function(state);
                else
                    state.SkipWithError("an earlier one failed");
            } catch (const std::exception& failure) {
                gStatus = 1;
                state.SkipWithError(failure.what());
            }
        })
        ->Iterations(iterations)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}

void RegisterAll(uint64_t records)
{
    using State = benchmark::State;
    int addRounds = int(records / MEASURED_PART / ROUND);
    Register("add", records, addRounds, [=](State& state) { BenchAdd(state, records); });
    Register("find_text", records, FIND_ROUNDS, [=](State& state) {
        BenchFind(
            state, records, "find by text",
            [](TableUnderTest& t, const Sample& s, uint32_t id) { t.FindByName(s, id); },
            [](BareIo& io) { io.ReadRecord(); });
    });
    Register("find_text_cold", records, FIND_ROUNDS, [=](State& state) {
        BenchFind(
            state, records, "find by text, no nodes kept",
            [](TableUnderTest& t, const Sample& s, uint32_t id) {
                t.FindByName(s, id);
                t.ForgetNodes();
            },
            [](BareIo& io) { io.Find(NAME_INDEX); });
    });
    Register("find_id", records, FIND_ROUNDS, [=](State& state) {
        BenchFind(
            state, records, "find by 32-byte id",
            [](TableUnderTest& t, const Sample& s, uint32_t id) { t.FindByHash(s, id); },
            [](BareIo& io) { io.ReadRecord(); });
    });
    Register("find_id_cold", records, FIND_ROUNDS, [=](State& state) {
        BenchFind(
            state, records, "find by 32-byte id, no nodes kept",
            [](TableUnderTest& t, const Sample& s, uint32_t id) {
                t.FindByHash(s, id);
                t.ForgetNodes();
            },
            [](BareIo& io) { io.Find(HASH_INDEX); });
    });
    Register("walk", records, WALKS, [=](State& state) { BenchWalk(state, records); });
    Register("open", records, OPENS, [=](State& state) { BenchOpen(state, records); });
}

// ---- the closing table
// ---------------------------------------------------------------------------

std::string Wanted(const Figure& figure)
{
    char text[64] = "";
    if (figure.records != WANTED_AT)
        return text;
    if (figure.operation == "add") {
        bool bMet = figure.microseconds < WANTED_ADD_RATIO * figure.bareMicroseconds;
        snprintf(text, sizeof text, "below %.0f x bare: %s", WANTED_ADD_RATIO, bMet ? "yes" : "NO");
    } else if (figure.operation == "find by text") {
        bool bMet = figure.microseconds < WANTED_FIND_MICROSECONDS;
        snprintf(
            text, sizeof text, "below %.0f us: %s", WANTED_FIND_MICROSECONDS, bMet ? "yes" : "NO");
    }
    return text;
}

void PrintFigures()
{
    printf(
        "\n%-34s %9s %10s %10s %7s  %s\n", "operation (medians)", "records", "us", "bare us",
        "ratio", "wanted");
    for (const Figure& figure : gFigures) {
        printf(
            "%-34s %9" PRIu64 " %10.2f %10.2f %7.2f  %s\n", figure.operation.c_str(),
            figure.records, figure.microseconds, figure.bareMicroseconds,
            figure.microseconds / figure.bareMicroseconds, Wanted(figure).c_str());
    }
    printf(
        "\nbare: positioned reads and writes of the same blocks and records, nothing else. A find\n"
        "reads its record; where no nodes are kept, also the nodes from root to leaf.\n");
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<uint64_t> sizes = {100000, 1000000};
    CLI::App app("Measures the database library against its own input and output.");
    app.add_option("--dir", gDirectory, "Directory for the files, on a disk and not in memory")
        ->capture_default_str()
        ->check(CLI::ExistingDirectory);
    app.add_option("--sizes", sizes, "Records of the tables")
        ->delimiter(',')
        ->capture_default_str()
        ->check(CLI::Range(10000, 20000000));
    app.allow_extras();
    app.footer("Options of Google Benchmark are passed on: --benchmark_filter=REGEX, "
               "--benchmark_out=FILE (JSON), ...");
    CLI11_PARSE(app, argc, argv);

    std::vector<std::string> rest = app.remaining();
    std::vector<char*> arguments = {argv[0]};
    for (std::string& argument : rest)
        arguments.push_back(argument.data());
    int count = int(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 1;
    for (uint64_t size : sizes)
        RegisterAll(size);

    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    gStage.reset();
    if (gStatus == 0)
        PrintFigures();
    return gStatus;
}
