// bench_peers.cpp - one run of one engine; prints one tab-separated line per
// phase.  run_all.py interleaves engines and repeats and takes the medians.
//   bench_peers --engine NAME --dir DIR --n N [--finds F] [--changes M]
//               [--deletes D] [--verify] [--list] [--no-batch] [--limit SECONDS]
//               [--crash]   (inserts N, kills itself with SIGKILL, reopens, counts what is left)
#include "engine.h"
#include <algorithm>
#include <chrono>
#include <csignal>
#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
double cpu_seconds()
{ // user+system, all threads
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + 1e-6 * (u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}
long status_kb(const char* key)
{
    FILE* f = fopen("/proc/self/status", "r");
    char line[256];
    long v = 0;
    while (f && fgets(line, sizeof line, f))
        if (!strncmp(line, key, strlen(key))) {
            v = atol(line + strlen(key) + 1);
            break;
        }
    if (f)
        fclose(f);
    return v;
}
void remove_tree(const std::string& d)
{
    if (DIR* h = opendir(d.c_str())) {
        while (dirent* e = readdir(h)) {
            std::string n = e->d_name;
            if (n == "." || n == "..")
                continue;
            std::string p = d + "/" + n;
            struct stat s;
            if (!lstat(p.c_str(), &s) && S_ISDIR(s.st_mode))
                remove_tree(p);
            else
                unlink(p.c_str());
        }
        closedir(h);
        rmdir(d.c_str());
    }
}
uint64_t allocated_bytes(const std::string& d)
{ // blocks really allocated
    uint64_t t = 0;
    if (DIR* h = opendir(d.c_str())) {
        while (dirent* e = readdir(h)) {
            std::string n = e->d_name;
            if (n == "." || n == "..")
                continue;
            std::string p = d + "/" + n;
            struct stat s;
            if (lstat(p.c_str(), &s))
                continue;
            t += S_ISDIR(s.st_mode) ? allocated_bytes(p) : uint64_t(s.st_blocks) * 512;
        }
        closedir(h);
    }
    return t;
}

struct Options {
    std::string engine, dir;
    uint64_t n = 100000, finds = 0, changes = 0, deletes = 0;
    bool verify = false, batch = true, crash = false;
    double limit = 180;
} opt;
long peak_anon = 0;
double deadline = 0;

void report(const char* phase, uint64_t ops, double sec, double cpu)
{
    printf(
        "%s\t%s\t%llu\t%s\t%llu\t%.6f\t%.6f\t%.3f\n", opt.engine.c_str(), opt.dir.c_str(),
        (unsigned long long)opt.n, phase, (unsigned long long)ops, sec, cpu,
        ops ? sec / ops * 1e6 : 0.0);
    fflush(stdout);
}
void value(const char* what, double v)
{
    printf(
        "%s\t%s\t%llu\t%s\t-\t-\t-\t%.3f\n", opt.engine.c_str(), opt.dir.c_str(),
        (unsigned long long)opt.n, what, v);
    fflush(stdout);
}

// Runs `total` operations in chunks.  prepare(k) makes the inputs of operation
// k off the clock; only body(k) is timed.
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
} // namespace

int main(int argc, char** argv)
{
    bool list = false;
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
        else if (a == "--no-batch")
            opt.batch = false;
        else if (a == "--list")
            list = true;
        else
            die("unknown option " + a);
    }
    if (list) {
        for (auto& e : engines())
            printf("%s\t%s\n", e.first.c_str(), e.second()->version().c_str());
        return 0;
    }
    EngineFactory make;
    for (auto& e : engines())
        if (e.first == opt.engine)
            make = e.second;
    if (!make)
        die("no engine " + opt.engine);
    const uint64_t n = opt.n;
    if (!opt.finds)
        opt.finds = std::min<uint64_t>(n, 200000);
    if (!opt.changes)
        opt.changes = std::min<uint64_t>(n, 100000);
    if (!opt.deletes)
        opt.deletes = n / 2;
    deadline = now() + opt.limit;

    if (opt.crash) {
        remove_tree(opt.dir);
        mkdir(opt.dir.c_str(), 0777);
        if (pid_t pid = fork())
            waitpid(pid, nullptr, 0);
        else {
            auto e = make();
            Record r;
            e->open(opt.dir, true, n);
            for (uint64_t i = 0; i < n; ++i) {
                make_record(i, r);
                e->insert(r);
            }
            raise(SIGKILL);
        }
        auto e = make();
        Sink s;
        Record r, out;
        uint64_t found = 0;
        e->open(opt.dir, false, n);
        e->walk_by_name(s);
        for (uint64_t i = 0; i < n; ++i) {
            make_record(i, r);
            found += e->find_by_hash(r.hash, out) && out.note == r.note;
        }
        value("walked_after_kill", double(s.count));
        value("found_after_kill", double(found));
        e->close();
        remove_tree(opt.dir);
        return 0;
    }

    const uint64_t chunk = 1000;
    std::vector<Record> in(10000);
    std::vector<uint32_t> pick(chunk);
    Record out;

    // (1) insert, one record per operation
    remove_tree(opt.dir);
    mkdir(opt.dir.c_str(), 0777);
    auto e = make();
    e->open(opt.dir, true, n);
    uint64_t have = timed(
        "insert", n, chunk, [&](uint64_t i, uint64_t k) { make_record(i, in[k]); },
        [&](uint64_t m) {
            for (uint64_t k = 0; k < m; ++k)
                e->insert(in[k]);
        });
    check(in[(have - 1) % chunk].id == int32_t(have), "auto ids are 1..N");

    // (8) size, open time
    double t0 = now();
    e->close();
    report("close_after_insert", 1, now() - t0, 0);
    value("bytes_per_record", double(allocated_bytes(opt.dir)) / have);
    for (int k = 0; k < 3; ++k) {
        make_record(have / 2 + k, in[0]);
        double c0 = now();
        e = make();
        e->open(opt.dir, false, n);
        double c1 = now();
        bool ok = e->find_by_name(in[0].name, out);
        double c2 = now();
        check(ok && out.note == in[0].note, "first find");
        if (k == 1) {
            report("open", 1, c1 - c0, 0);
            report("open+first_find", 1, c2 - c0, 0);
        }
        if (k != 2)
            e->close();
    }

    // (3) find by Name, (4) find by Hash
    SplitMix rnd(99);
    uint64_t sum = 0, missing = 0;
    auto prepare_random = [&](uint64_t, uint64_t k) {
        pick[k] = rnd.below(uint32_t(have));
        make_record(pick[k], in[k]);
    };
    timed("find_name", opt.finds, chunk, prepare_random, [&](uint64_t m) {
        for (uint64_t k = 0; k < m; ++k) {
            missing += !e->find_by_name(in[k].name, out);
            sum += out.note.size();
        }
        check(out.note == in[m - 1].note && out.id == int32_t(pick[m - 1] + 1), "find_name result");
    });
    timed("find_hash", opt.finds, chunk, prepare_random, [&](uint64_t m) {
        for (uint64_t k = 0; k < m; ++k) {
            missing += !e->find_by_hash(in[k].hash, out);
            sum += out.note.size();
        }
        check(
            out.note == in[m - 1].note && !memcmp(out.hash, in[m - 1].hash, 32),
            "find_hash result");
    });
    check(!missing, "every find hits");

    // (5) walk by Name
    if (now() < deadline) {
        Sink s;
        s.check_order = opt.verify;
        s.ignore_case = e->ignores_case();
        double c0 = cpu_seconds();
        t0 = now();
        e->walk_by_name(s);
        report("walk_name", s.count, now() - t0, cpu_seconds() - c0);
        check(s.count == have && !s.inversions, "walk");
        if (opt.verify)
            printf("#sum %llu\n", (unsigned long long)s.sum);
    }
    value("peak_anon_MiB_reading_or_inserting", peak_anon / 1024.0);

    // (6) modify Size by Id
    std::vector<int32_t> newsize(chunk);
    uint64_t changed = timed(
        "modify", opt.changes, chunk,
        [&](uint64_t, uint64_t k) {
            pick[k] = 1 + rnd.below(uint32_t(have));
            newsize[k] = int32_t(rnd.below(50000));
        },
        [&](uint64_t m) {
            for (uint64_t k = 0; k < m; ++k)
                missing += !e->modify_size(int32_t(pick[k]), newsize[k]);
        });
    check(!missing, "every modify hits");
    if (changed) {
        uint64_t lastk = (changed - 1) % chunk;
        make_record(pick[lastk] - 1, in[0]);
        check(e->find_by_name(in[0].name, out) && out.size == newsize[lastk], "modify visible");
    }

    // (7) delete a random half (or --deletes of them)
    std::vector<uint32_t> perm(have);
    for (uint32_t i = 0; i < have; ++i)
        perm[i] = i;
    for (uint32_t i = 0; i < have; ++i)
        std::swap(perm[i], perm[i + rnd.below(uint32_t(have - i))]);
    uint64_t base = 0;
    uint64_t gone = timed(
        "delete", std::min(opt.deletes, have), chunk, [](uint64_t, uint64_t) {},
        [&](uint64_t m) {
            for (uint64_t k = 0; k < m; ++k)
                missing += !e->erase(int32_t(perm[base + k] + 1));
            base += m;
        });
    check(!missing, "every delete hits");
    if (opt.verify) {
        Sink s;
        e->walk_by_name(s);
        check(s.count == have - gone, "count after delete");
        for (uint64_t k = 0; k < std::min<uint64_t>(gone, 1000); ++k) {
            make_record(perm[k], in[0]);
            check(
                !e->find_by_name(in[0].name, out) && !e->find_by_hash(in[0].hash, out),
                "deleted is gone");
        }
    }
    value("peak_rss_MiB", status_kb("VmHWM") / 1024.0);
    value("peak_anon_MiB", peak_anon / 1024.0);
    t0 = now();
    e->close();
    report("close_at_end", 1, now() - t0, 0);
    remove_tree(opt.dir);

    // (2) batched insert, 10 000 records per transaction
    if (opt.batch && e->has_batch() && now() < deadline) {
        mkdir(opt.dir.c_str(), 0777);
        e = make();
        e->open(opt.dir, true, n);
        timed(
            "insert_batched", n, 10000, [&](uint64_t i, uint64_t k) { make_record(i, in[k]); },
            [&](uint64_t m) {
                e->begin_batch();
                for (uint64_t k = 0; k < m; ++k)
                    e->insert(in[k]);
                e->end_batch();
            });
        e->close();
        remove_tree(opt.dir);
    }
    return sum == 42 ? 2 : 0;
}
