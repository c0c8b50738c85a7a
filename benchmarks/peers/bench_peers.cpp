// bench_peers.cpp - one run of one engine; prints one tab-separated line per phase: engine,
// directory, records, phase, operations, seconds, seconds of processor time, microseconds an
// operation; or, for what is no time, the value in the last column. bench.py interleaves the
// engines, repeats, and takes the medians.
//   bench_peers --engine NAME --dir DIR --n N [--finds F] [--changes M] [--deletes D]
//               [--limit SECONDS]   a phase that would go on longer is cut and called "phase!cut"
//               [--verify]          fails when a walk is out of order or misses anything, when
//               deletes
//                                   leave something, and when a crash loses something
//               [--levels]          also the levels of the trees, if the engine can tell
//               [--no-batch]
//   bench_peers --crash --engine NAME --dir DIR --n N
//                                   inserts, kills itself, reopens, counts what is left
//   bench_peers --list
// DIR is removed and made anew.
#include "engine.h"
#include "measure.h"
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
void remove_tree(const std::string& d)
{
    std::filesystem::remove_all(d);
}

// Blocks really allocated, not lengths.
uint64_t allocated_bytes(const std::string& d)
{
    uint64_t t = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(d)) {
        struct stat s;
        if (entry.is_regular_file() && lstat(entry.path().c_str(), &s) == 0)
            t += uint64_t(s.st_blocks) * 512;
    }
    return t;
}

struct Options {
    std::string engine, dir;
    uint64_t n = 100000, finds = 0, changes = 0, deletes = 0;
    bool verify = false, batch = true, crash = false, levels = false, list = false;
    double limit = 180;
} opt;
long peak_anon = 0;
double deadline = 0;

void report(const char* phase, uint64_t ops, double sec, double cpu)
{
    printf(
        "%s\t%s\t%llu\t%s\t%llu\t%.6f\t%.6f\t%.3f\n", opt.engine.c_str(), opt.dir.c_str(),
        (unsigned long long)opt.n, phase, (unsigned long long)ops, sec, cpu,
        ops ? sec / double(ops) * 1e6 : 0.0);
    fflush(stdout);
}
void value(const char* what, double v)
{
    printf(
        "%s\t%s\t%llu\t%s\t-\t-\t-\t%.3f\n", opt.engine.c_str(), opt.dir.c_str(),
        (unsigned long long)opt.n, what, v);
    fflush(stdout);
}

// Runs `total` operations in chunks. prepare(i, k) makes the inputs of operation i, the k-th of its
// chunk, off the clock; only body is timed.
template <class Prepare, class Body>
uint64_t timed(const char* phase, uint64_t total, uint64_t chunk, Prepare prepare, Body body)
{
    double sec = 0, cpu = 0;
    uint64_t done = 0;
    int c = 0;
    while (done < total && now() < deadline) {
        uint64_t m = std::min(chunk, total - done);
        for (uint64_t k = 0; k < m; ++k)
            prepare(done + k, k);
        double c0 = cpu_seconds(), t0 = now();
        body(m);
        sec += now() - t0;
        cpu += cpu_seconds() - c0;
        done += m;
        if (++c % 16 == 0 || done == total)
            peak_anon = std::max(peak_anon, status_kb("RssAnon"));
    }
    report(done == total ? phase : (std::string(phase) + "!cut").c_str(), done, sec, cpu);
    return done;
}
void check(bool ok, const char* what)
{
    if (!ok)
        die(opt.engine + ": check failed: " + what);
}

// All phases of one engine's run, in the order in which they run.
class Run {
    static constexpr uint64_t CHUNK = 1000;
    static constexpr uint64_t BATCH = 10000; // records a transaction

    EngineFactory make_;
    std::unique_ptr<Engine> e_;
    uint64_t n_ = opt.n;
    uint64_t have_ = 0; // records in the table
    std::vector<Record> in_ = std::vector<Record>(BATCH);
    std::vector<uint32_t> pick_ = std::vector<uint32_t>(CHUNK);
    Record out_;
    SplitMix rnd_{99};
    uint64_t missing_ = 0;

    void open_new()
    {
        mkdir(opt.dir.c_str(), 0777);
        e_ = make_();
        e_->open(opt.dir, true, n_);
    }

    // What a walk comes to that meets every record.
    uint64_t expected_sum() const
    {
        Sink s;
        Record r;
        for (uint64_t i = 0; i < have_; ++i) {
            make_record(i, r);
            r.id = int32_t(i + 1);
            s.take(r);
        }
        return s.sum;
    }

  public:
    explicit Run(EngineFactory make) : make_(std::move(make)) {}

    // One record an operation.
    void insert()
    {
        remove_tree(opt.dir);
        open_new();
        have_ = timed(
            "insert", n_, CHUNK, [&](uint64_t i, uint64_t k) { make_record(i, in_[k]); },
            [&](uint64_t m) {
                for (uint64_t k = 0; k < m; ++k)
                    e_->insert(in_[k]);
            });
        check(in_[(have_ - 1) % CHUNK].id == int32_t(have_), "auto ids are 1..N");
    }

    // Closes, looks at the size on disk, and opens three times; the second time is reported.
    void reopen()
    {
        double t0 = now();
        e_->close();
        report("close_after_insert", 1, now() - t0, 0);
        value("bytes_per_record", double(allocated_bytes(opt.dir)) / double(have_));
        if (opt.levels) {
            for (const auto& index : e_->levels(opt.dir))
                value(("levels_" + index.first).c_str(), index.second);
        }
        for (uint64_t k = 0; k < 3; ++k) {
            make_record(have_ / 2 + k, in_[0]);
            double c0 = now();
            e_ = make_();
            e_->open(opt.dir, false, n_);
            double c1 = now();
            bool ok = e_->find_by_name(in_[0].name, out_);
            double c2 = now();
            check(ok && out_.note == in_[0].note, "first find");
            if (k == 1) {
                report("open", 1, c1 - c0, 0);
                report("open+first_find", 1, c2 - c0, 0);
            }
            if (k != 2)
                e_->close();
        }
    }

    void find()
    {
        auto prepare_random = [&](uint64_t, uint64_t k) {
            pick_[k] = rnd_.below(uint32_t(have_));
            make_record(pick_[k], in_[k]);
        };
        timed("find_name", opt.finds, CHUNK, prepare_random, [&](uint64_t m) {
            for (uint64_t k = 0; k < m; ++k)
                missing_ += !e_->find_by_name(in_[k].name, out_);
            check(
                out_.note == in_[m - 1].note && out_.id == int32_t(pick_[m - 1] + 1),
                "find_name result");
        });
        timed("find_hash", opt.finds, CHUNK, prepare_random, [&](uint64_t m) {
            for (uint64_t k = 0; k < m; ++k)
                missing_ += !e_->find_by_hash(in_[k].hash, out_);
            check(
                out_.note == in_[m - 1].note && !memcmp(out_.hash, in_[m - 1].hash, 32),
                "find_hash result");
        });
        check(!missing_, "every find hits");
    }

    void walk()
    {
        if (now() < deadline) {
            Sink s;
            s.check_order = opt.verify;
            s.ignore_case = e_->ignores_case();
            double c0 = cpu_seconds(), t0 = now();
            e_->walk_by_name(s);
            report("walk_name", s.count, now() - t0, cpu_seconds() - c0);
            check(s.count == have_ && !s.inversions, "walk");
            if (opt.verify)
                check(s.sum == expected_sum(), "every record as it was added");
        }
        value("peak_anon_MiB_reading_or_inserting", double(peak_anon) / 1024);
    }

    // Another Size for records picked by Id.
    void modify()
    {
        std::vector<int32_t> newsize(CHUNK);
        uint64_t changed = timed(
            "modify", opt.changes, CHUNK,
            [&](uint64_t, uint64_t k) {
                pick_[k] = 1 + rnd_.below(uint32_t(have_));
                newsize[k] = int32_t(rnd_.below(50000));
            },
            [&](uint64_t m) {
                for (uint64_t k = 0; k < m; ++k)
                    missing_ += !e_->modify_size(int32_t(pick_[k]), newsize[k]);
            });
        check(!missing_, "every modify hits");
        if (changed) {
            uint64_t last = (changed - 1) % CHUNK;
            make_record(pick_[last] - 1, in_[0]);
            check(
                e_->find_by_name(in_[0].name, out_) && out_.size == newsize[last],
                "modify visible");
        }
    }

    // A random half, or as many as were asked for.
    void erase()
    {
        std::vector<uint32_t> perm(have_);
        for (uint32_t i = 0; i < have_; ++i)
            perm[i] = i;
        for (uint32_t i = 0; i < have_; ++i)
            std::swap(perm[i], perm[i + rnd_.below(uint32_t(have_ - i))]);
        uint64_t base = 0;
        uint64_t gone = timed(
            "delete", std::min(opt.deletes, have_), CHUNK, [](uint64_t, uint64_t) {},
            [&](uint64_t m) {
                for (uint64_t k = 0; k < m; ++k)
                    missing_ += !e_->erase(int32_t(perm[base + k] + 1));
                base += m;
            });
        check(!missing_, "every delete hits");
        if (opt.verify) {
            Sink s;
            e_->walk_by_name(s);
            check(s.count == have_ - gone, "count after delete");
            for (uint64_t k = 0; k < std::min<uint64_t>(gone, 1000); ++k) {
                make_record(perm[k], in_[0]);
                check(
                    !e_->find_by_name(in_[0].name, out_) && !e_->find_by_hash(in_[0].hash, out_),
                    "deleted is gone");
            }
        }
    }

    void finish()
    {
        value("peak_rss_MiB", double(status_kb("VmHWM")) / 1024);
        value("peak_anon_MiB", double(peak_anon) / 1024);
        double t0 = now();
        e_->close();
        report("close_at_end", 1, now() - t0, 0);
        remove_tree(opt.dir);
    }

    // Many records a transaction, where the engine has transactions.
    void insert_batched()
    {
        if (!opt.batch || !e_->has_batch() || now() >= deadline)
            return;
        open_new();
        timed(
            "insert_batched", n_, BATCH, [&](uint64_t i, uint64_t k) { make_record(i, in_[k]); },
            [&](uint64_t m) {
                e_->begin_batch();
                for (uint64_t k = 0; k < m; ++k)
                    e_->insert(in_[k]);
                e_->end_batch();
            });
        e_->close();
        remove_tree(opt.dir);
    }
};

// What is left when the process dies after its last insert, without closing.
void crash(const EngineFactory& make)
{
    remove_tree(opt.dir);
    mkdir(opt.dir.c_str(), 0777);
    pid_t pid = fork();
    if (pid < 0)
        die("fork");
    if (pid == 0) {
        auto e = make();
        Record r;
        e->open(opt.dir, true, opt.n);
        for (uint64_t i = 0; i < opt.n; ++i) {
            make_record(i, r);
            e->insert(r);
        }
        raise(SIGKILL);
    }
    waitpid(pid, nullptr, 0);
    auto e = make();
    Sink s;
    Record r, out;
    uint64_t found = 0;
    e->open(opt.dir, false, opt.n);
    e->walk_by_name(s);
    for (uint64_t i = 0; i < opt.n; ++i) {
        make_record(i, r);
        found += e->find_by_hash(r.hash, out) && out.note == r.note;
    }
    value("walked_after_kill", double(s.count));
    value("found_after_kill", double(found));
    check(!opt.verify || (s.count == opt.n && found == opt.n), "what was finished is there");
    e->close();
    remove_tree(opt.dir);
}

void parse(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto arg = [&] {
            if (i + 1 >= argc)
                die("missing value");
            return std::string(argv[++i]);
        };
        if (a == "--engine")
            opt.engine = arg();
        else if (a == "--dir")
            opt.dir = arg();
        else if (a == "--n")
            opt.n = stoull(arg());
        else if (a == "--finds")
            opt.finds = stoull(arg());
        else if (a == "--changes")
            opt.changes = stoull(arg());
        else if (a == "--deletes")
            opt.deletes = stoull(arg());
        else if (a == "--limit")
            opt.limit = stod(arg());
        else if (a == "--verify")
            opt.verify = true;
        else if (a == "--crash")
            opt.crash = true;
        else if (a == "--levels")
            opt.levels = true;
        else if (a == "--no-batch")
            opt.batch = false;
        else if (a == "--list")
            opt.list = true;
        else
            die("unknown option " + a);
    }
    if (!opt.finds)
        opt.finds = std::min<uint64_t>(opt.n, 200000);
    if (!opt.changes)
        opt.changes = std::min<uint64_t>(opt.n, 100000);
    if (!opt.deletes)
        opt.deletes = opt.n / 2;
}
} // namespace

int main(int argc, char** argv)
{
    parse(argc, argv);
    if (opt.list) {
        for (auto& e : engines())
            printf("%s\t%s\n", e.first.c_str(), e.second()->version().c_str());
        return 0;
    }
    EngineFactory make;
    for (auto& e : engines()) {
        if (e.first == opt.engine)
            make = e.second;
    }
    if (!make)
        die("no engine " + opt.engine);
    if (opt.dir.empty())
        die("no --dir"); // it is removed and made anew
    if (opt.n == 0)
        die("nothing to do");

    deadline = now() + opt.limit;
    if (opt.crash) {
        crash(make);
        return 0;
    }
    Run run(make);
    run.insert();
    run.reopen();
    run.find();
    run.walk();
    run.modify();
    run.erase();
    run.finish();
    run.insert_batched();
    return 0;
}
