// floor.cpp - the physical limit of the file design: issues only the input and output (and, for
// finds and walks, the descent and the decode), no tree maintenance.
//   floor DIR N     prints, tab-separated, DIR, N, scenario, microseconds an operation: the median
//   of
//                   5 interleaved rounds
// Block file: control block of 16168 bytes at 0, nodes of 16384 bytes behind it, four trees (Id,
// Name, Size, Hash) with realistic leaf counts; 3 levels at 1,000,000 records, 2 at 100,000.
// Records file: header of 16 bytes and encoded record, one after another.
#include "engine.h"
#include "measure.h"
#include <algorithm>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr size_t B = 16384, C = 16168;
void must(bool b, const char* w)
{
    if (!b) {
        perror(w);
        exit(1);
    }
}

// Block numbers.
struct Tree {
    uint32_t root, mid0, mids, leaf0, leaves;
};
int levels = 3;
struct Path {
    uint32_t root, middle, leaf;
    uint32_t node(int level) const // from 0
    {
        return level == 0 ? root : level + 1 == levels ? leaf : middle;
    }
};

int fb, fr; // block file, records file
uint32_t blocks;
char *mb, *mr; // their mappings
size_t mr_len, rec_end0, rec_end;
std::vector<Tree> trees;
std::vector<uint64_t> rec_off; // by id-1
uint64_t N;
volatile uint64_t g_sink;
alignas(4096) char buf[16 * B], control[B], recbuf[1024];

off_t at(uint32_t block)
{
    return off_t(B) * (block + 1);
}
// Touches what a binary search touches.
void probe(const char* p)
{
    uint64_t s = 0;
    size_t lo = 0, step = B / 2;
    while (step >= 32) {
        s += uint8_t(p[lo + step - 1]);
        if (s & 1)
            lo += step;
        step /= 2;
    }
    g_sink = g_sink + s;
}
Path pick(int t, SplitMix& g, bool last)
{
    const Tree& x = trees[size_t(t)];
    uint32_t leaf = last ? x.leaves - 1 : g.below(x.leaves);
    return {x.root, x.mid0 + uint32_t(uint64_t(leaf) * x.mids / x.leaves), x.leaf0 + leaf};
}

// How a scenario reads and writes.
enum class Rd { pread, seek, copy, pointer, none };
enum class Wr { pwrite, seek, map, inplace, none };
struct Io {
    Rd r;
    Wr w;
};

void read_node(Rd r, uint32_t b, char* into)
{
    switch (r) {
    case Rd::pread:
        must(pread(fb, into, B, at(b)) == ssize_t(B), "pread");
        probe(into);
        break;
    case Rd::seek:
        lseek(fb, at(b), SEEK_SET);
        must(read(fb, into, B) == ssize_t(B), "read");
        probe(into);
        break;
    case Rd::copy:
        memcpy(into, mb + at(b), B);
        probe(into);
        break;
    case Rd::pointer:
        probe(mb + at(b));
        break;
    case Rd::none:
        break;
    }
}
void write_node(Wr w, uint32_t b, const char* from, SplitMix& g)
{
    switch (w) {
    case Wr::pwrite:
        must(pwrite(fb, from, B, at(b)) == ssize_t(B), "pwrite");
        break;
    case Wr::seek:
        lseek(fb, at(b), SEEK_SET);
        must(write(fb, from, B) == ssize_t(B), "write");
        break;
    case Wr::map:
        memcpy(mb + at(b), from, B);
        break;
    case Wr::inplace: {
        char* p = mb + at(b);
        size_t k = g.below(11000);
        memmove(p + k + 24, p + k, 11000 - k);
        memcpy(p + k, from, 24);
        break;
    }
    case Wr::none:
        break;
    }
}
void write_control(Wr w)
{
    switch (w) {
    case Wr::pwrite:
        must(pwrite(fb, control, C, 0) == ssize_t(C), "pwrite");
        break;
    case Wr::seek:
        lseek(fb, 0, SEEK_SET);
        must(write(fb, control, C) == ssize_t(C), "write");
        break;
    case Wr::map:
        memcpy(mb, control, C);
        break;
    case Wr::inplace:
        memcpy(mb, control, 128);
        break;
    case Wr::none:
        break;
    }
}
void append_record(Wr w, size_t len)
{
    switch (w) {
    case Wr::pwrite:
        must(pwrite(fr, recbuf, len, off_t(rec_end)) == ssize_t(len), "append");
        break;
    case Wr::seek:
        lseek(fr, 0, SEEK_END);
        must(write(fr, recbuf, len) == ssize_t(len), "append");
        break;
    case Wr::map:
    case Wr::inplace:
        if (rec_end + len > mr_len) {
            // Grow in steps of 4 MiB.
            size_t nl = mr_len + (4u << 20);
            must(ftruncate(fr, off_t(nl)) == 0, "ftruncate");
            mr = static_cast<char*>(mremap(mr, mr_len, nl, MREMAP_MAYMOVE));
            must(mr != MAP_FAILED, "mremap");
            mr_len = nl;
        }
        memcpy(mr + rec_end, recbuf, len);
        break;
    case Wr::none:
        return;
    }
    rec_end += len;
}

// In place.
void rewrite_record(Wr w, uint64_t id, size_t len)
{
    if (w == Wr::pwrite)
        must(pwrite(fr, recbuf, len, off_t(rec_off[id])) == ssize_t(len), "pwrite");
    else if (w == Wr::seek) {
        lseek(fr, off_t(rec_off[id]), SEEK_SET);
        must(write(fr, recbuf, len) == ssize_t(len), "write");
    } else if (w != Wr::none)
        memcpy(mr + rec_off[id], recbuf, len);
}
// The length of record id is stored in its header; the header is read first.
size_t read_record(Rd r, uint64_t id, char* into)
{
    uint32_t len;
    off_t o = off_t(rec_off[id]);
    switch (r) {
    case Rd::pread:
        must(pread(fr, into, 16, o) == 16, "pread");
        memcpy(&len, into, 4);
        must(pread(fr, into + 16, len, o + 16) == ssize_t(len), "pread");
        return len;
    case Rd::seek:
        lseek(fr, o, SEEK_SET);
        must(read(fr, into, 16) == 16, "read");
        memcpy(&len, into, 4);
        must(read(fr, into + 16, len) == ssize_t(len), "read");
        return len;
    case Rd::copy:
        memcpy(into, mr + o, 16);
        memcpy(&len, into, 4);
        memcpy(into + 16, mr + o + 16, len);
        return len;
    default:
        memcpy(&len, mr + o, 4);
        memcpy(into, mr + o, 16 + len);
        return len; // a changed record is built in a buffer
    }
}

void op_insert(Io io, SplitMix& g)
{
    for (int t = 0; t < 4; ++t) {
        Path p = pick(t, g, t == 0);
        for (int l = 0; l < levels; ++l)
            read_node(io.r, p.node(l), buf + size_t(t * 3 + l) * B);
        write_node(io.w, p.leaf, buf + size_t(t * 3 + levels - 1) * B, g);
    }
    append_record(io.w, 16 + 90 + g.below(40));
    write_control(io.w);
}
void descend(Io io, int t, SplitMix& g, int writes, char* b)
{
    Path p = pick(t, g, false);
    for (int l = 0; l < levels; ++l)
        read_node(io.r, p.node(l), b + size_t(l) * B);
    if (writes)
        write_node(io.w, p.leaf, b + size_t(levels - 1) * B, g);
}

// Position by Id, change Size.
void op_modify(Io io, SplitMix& g)
{
    uint64_t id = g.below(uint32_t(N));
    descend(io, 0, g, 0, buf);
    size_t len = read_record(io.r, id, recbuf);
    descend(io, 2, g, 1, buf + 3 * B); // old key out
    descend(io, 2, g, 1, buf + 6 * B); // new key in
    rewrite_record(io.w, id, 16 + len);
    write_control(io.w);
}

// Position by Id, remove from four indexes.
void op_delete(Io io, SplitMix& g)
{
    uint64_t id = g.below(uint32_t(N));
    descend(io, 0, g, 0, buf);
    read_record(io.r, id, recbuf);
    for (int t = 0; t < 4; ++t)
        descend(io, t, g, 1, buf + size_t(t) * 3 * B);
    rewrite_record(io.w, id, 16);
    write_control(io.w);
}

// ---- a real, static B+-tree of names in memory, 16 KiB nodes at 69 % --------
struct NameTree {
    std::vector<std::vector<char>> node;
    std::vector<bool> leaf;
    uint32_t root = 0, first_leaf = 0, leaf_count = 0;
    static uint16_t u16(const char* p)
    {
        uint16_t v;
        memcpy(&v, p, 2);
        return v;
    }
    static uint32_t u32(const char* p)
    {
        uint32_t v;
        memcpy(&v, p, 4);
        return v;
    }
    void build(const std::vector<std::pair<std::string, uint32_t>>& sorted)
    {
        std::vector<std::pair<std::string, uint32_t>> level = sorted, up;
        bool is_leaf = true;
        do {
            up.clear();
            for (size_t i = 0; i < level.size();) {
                std::vector<char> n(B);
                size_t used = 2, j = i, end = B;
                for (; j < level.size() && used + (B - end) < B * 69 / 100; ++j) {
                    const auto& e = level[j];
                    end -= e.first.size() + 5;
                    n[end] = char(e.first.size());
                    memcpy(&n[end + 1], e.first.data(), e.first.size());
                    memcpy(&n[end + 1 + e.first.size()], &e.second, 4);
                    uint16_t o = uint16_t(end);
                    memcpy(&n[used], &o, 2);
                    used += 2;
                }
                uint16_t c = uint16_t(j - i);
                memcpy(&n[0], &c, 2);
                up.emplace_back(level[i].first, uint32_t(node.size()));
                node.push_back(std::move(n));
                leaf.push_back(is_leaf);
                leaf_count += is_leaf;
                i = j;
            }
            is_leaf = false;
            level = up;
        } while (level.size() > 1);
        root = level[0].second;
    }
    static int cmp(const char* e, const std::string& k)
    {
        size_t n = uint8_t(*e);
        int c = memcmp(e + 1, k.data(), std::min(n, k.size()));
        return c ? c : int(n) - int(k.size());
    }
    static uint32_t val(const char* e) { return u32(e + 1 + uint8_t(*e)); }
    static const char* entry(const char* p, int i) { return p + u16(p + 2 + 2 * size_t(i)); }
    int64_t find(const std::string& k) const
    {
        for (uint32_t b = root;;) {
            const char* p = node[b].data();
            int lo = 0, hi = u16(p); // first entry > k
            while (lo < hi) {
                int m = (lo + hi) / 2;
                if (cmp(entry(p, m), k) <= 0)
                    lo = m + 1;
                else
                    hi = m;
            }
            if (!lo)
                return -1;
            const char* e = entry(p, lo - 1);
            if (leaf[b])
                return cmp(e, k) ? -1 : int64_t(val(e));
            b = val(e);
        }
    }
} names;

std::string lowered(const std::string& s)
{
    std::string r = s;
    for (char& c : r)
        c = lower(c);
    return r;
}

std::map<std::string, std::vector<double>> results;
std::vector<std::string> order;
void put(const std::string& k, double us)
{
    if (!results.count(k))
        order.push_back(k);
    results[k].push_back(us);
}

template <class F>
void scenario(const std::string& name, int ops, int round, F f)
{
    // A fresh sequence each time: no scenario inherits pages dirtied by the one before.
    static uint64_t seed = 0;
    SplitMix g(++seed * 1000003 + uint64_t(round));
    double t = now();
    for (int i = 0; i < ops; ++i)
        f(g);
    put(name, (now() - t) / ops * 1e6);
}

char* map_file(int file, size_t length)
{
    void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file, 0);
    must(p != MAP_FAILED, "mmap");
    return static_cast<char*>(p);
}

// Drops what was appended.
void reset_records()
{
    must(ftruncate(fr, off_t(rec_end0)) == 0, "ftruncate");
    munmap(mr, mr_len);
    mr_len = rec_end0;
    mr = map_file(fr, mr_len);
    rec_end = rec_end0;
}

// ---- the files --------------------------------------------------------------

uint32_t make_trees()
{
    const double per_leaf[4] = {1000, 420, 940, 270};
    uint32_t next = 0;
    for (double k : per_leaf) {
        Tree t;
        t.leaves = uint32_t(double(N) / k) + 1;
        t.mids = std::max(1u, t.leaves / 300);
        t.root = next++;
        t.mid0 = next;
        next += t.mids;
        t.leaf0 = next;
        next += t.leaves;
        trees.push_back(t);
    }
    return next;
}

void make_block_file()
{
    SplitMix g(1);
    for (size_t i = 0; i < B; i += 8) {
        uint64_t v = g.next();
        memcpy(buf + i, &v, 8);
        memcpy(control + i, &v, 8);
    }
    must(pwrite(fb, control, B, 0) == ssize_t(B), "pwrite");
    for (uint32_t b = 0; b < blocks; ++b)
        must(pwrite(fb, buf, B, at(b)) == ssize_t(B), "pwrite");
}

// Header and encoded record number i; returns the length of both.
size_t stored_record(uint64_t i, Record& r, char* into)
{
    make_record(i, r);
    r.id = int32_t(i + 1);
    uint32_t len = uint32_t(encode(r, into + 16));
    memset(into, 0, 16);
    memcpy(into, &len, 4);
    memcpy(into + 4, &i, 8);
    return 16 + len;
}

void make_records_file()
{
    std::string chunk;
    Record r;
    char e[16 + kMaxEncoded];
    uint64_t off = 0;
    std::vector<std::pair<std::string, uint32_t>> keys;
    keys.reserve(N);
    for (uint64_t i = 0; i < N; ++i) {
        size_t len = stored_record(i, r, e);
        chunk.append(e, len);
        rec_off.push_back(off);
        off += len;
        if (chunk.size() > (1 << 20) || i + 1 == N) {
            must(write(fr, chunk.data(), chunk.size()) == ssize_t(chunk.size()), "write");
            chunk.clear();
        }
        keys.emplace_back(lowered(r.name), uint32_t(i));
    }
    rec_end0 = rec_end = off;
    std::sort(keys.begin(), keys.end());
    names.build(keys);
}

// Modify and delete overwrite record heads with whatever recbuf holds: puts the true bytes back.
void restore_records()
{
    Record r;
    char e[16 + kMaxEncoded];
    for (uint64_t i = 0; i < N; ++i) {
        size_t len = stored_record(i, r, e);
        memcpy(mr + rec_off[i], e, len);
    }
}

// ---- the scenarios ----------------------------------------------------------

struct Way {
    std::string name;
    Io io;
};
const std::vector<Way> ways = {
    {"a  pread + pwrite", {Rd::pread, Wr::pwrite}},
    {"a' seek,read + seek,write", {Rd::seek, Wr::seek}},
    {"b  memcpy from map + pwrite", {Rd::copy, Wr::pwrite}},
    {"b' pointer into map + pwrite", {Rd::pointer, Wr::pwrite}},
    {"c  memcpy from map + memcpy to map", {Rd::copy, Wr::map}},
    {"d  pointer into map + memcpy to map", {Rd::pointer, Wr::map}},
    {"d' pointer + in place (memmove, 128 B of control)", {Rd::pointer, Wr::inplace}},
    {"reads only, pread", {Rd::pread, Wr::none}},
    {"reads only, memcpy from map", {Rd::copy, Wr::none}},
    {"reads only, pointer", {Rd::pointer, Wr::none}},
    {"writes only, pwrite", {Rd::none, Wr::pwrite}},
    {"writes only, memcpy to map", {Rd::none, Wr::map}},
};
constexpr size_t WHOLE_WAYS = 7; // those that read and write

void change_scenarios(int round)
{
    for (const Way& w : ways) {
        scenario("insert: " + w.name, 10000, round, [&](SplitMix& r) { op_insert(w.io, r); });
        reset_records();
    }
    // Mapped pages that write-back has cleaned fault again at the next store.
    for (auto [way, io] : {Way{"c", {Rd::copy, Wr::map}}, Way{"a", {Rd::pread, Wr::pwrite}}}) {
        fsync(fb);
        scenario(
            "insert: " + way + "  as above, all pages clean before (2000 ops)", 2000, round,
            [io = io](SplitMix& r) { op_insert(io, r); });
        reset_records();
    }
    for (size_t i = 0; i < WHOLE_WAYS; ++i) {
        scenario("modify: " + ways[i].name, 10000, round, [&](SplitMix& r) {
            op_modify(ways[i].io, r);
        });
    }
    for (size_t i = 0; i < WHOLE_WAYS; ++i) {
        scenario("delete: " + ways[i].name, 10000, round, [&](SplitMix& r) {
            op_delete(ways[i].io, r);
        });
    }
    restore_records();
}

void single_scenarios(int round)
{
    auto one = [&](const char* name, auto f) {
        scenario(std::string("one: ") + name, 50000, round, f);
    };
    one("pread 16384 random node",
        [](SplitMix& r) { must(pread(fb, buf, B, at(r.below(blocks))) == ssize_t(B), "pread"); });
    one("memcpy 16384 random node from map", [](SplitMix& r) {
        memcpy(buf, mb + at(r.below(blocks)), B);
        g_sink = g_sink + uint8_t(buf[77]);
    });
    one("pwrite 16384 random node",
        [](SplitMix& r) { must(pwrite(fb, buf, B, at(r.below(blocks))) == ssize_t(B), "pwrite"); });
    one("memcpy 16384 random node to map",
        [](SplitMix& r) { memcpy(mb + at(r.below(blocks)), buf, B); });
    one("pwrite 16168 control", [](SplitMix&) { write_control(Wr::pwrite); });
    one("append pwrite ~126 B", [](SplitMix& r) { append_record(Wr::pwrite, 106 + r.below(40)); });
    reset_records();
    one("append seek-end + write ~126 B",
        [](SplitMix& r) { append_record(Wr::seek, 106 + r.below(40)); });
    reset_records();
    one("append memcpy ~126 B, map grown 4 MiB",
        [](SplitMix& r) { append_record(Wr::map, 106 + r.below(40)); });
    reset_records();
    one("pread 16 B", [](SplitMix& r) {
        must(pread(fr, recbuf, 16, off_t(rec_off[r.below(uint32_t(N))])) == 16, "pread");
    });
}

// How a record is fetched and decoded.
enum class Get { nothing, pread, seek, pread256, copy, map };

void fetch(Get get, uint64_t n, Record& out)
{
    const char* p = recbuf;
    switch (get) {
    case Get::nothing:
        g_sink = g_sink + n;
        return;
    case Get::pread:
        read_record(Rd::pread, n, recbuf);
        break;
    case Get::seek:
        read_record(Rd::seek, n, recbuf);
        break;
    case Get::pread256:
        must(pread(fr, recbuf, 256, off_t(rec_off[n])) > 60, "pread");
        break;
    case Get::copy:
        read_record(Rd::copy, n, recbuf);
        break;
    case Get::map:
        p = mr + rec_off[n];
        break;
    }
    decode(p + 16, out);
}

// Keys are made off the clock. Cold: the path from root to leaf is read besides.
void find_scenario(const char* name, Get get, bool cold, int round)
{
    Record out;
    std::vector<std::string> q(1000);
    std::vector<uint32_t> id(1000);
    SplitMix r(uint64_t(round) + 5);
    double sec = 0;
    for (int c = 0; c < 40; ++c) {
        for (size_t i = 0; i < 1000; ++i) {
            Record t;
            id[i] = r.below(uint32_t(N));
            make_record(id[i], t);
            q[i] = t.name;
        }
        double t0 = now();
        for (size_t i = 0; i < 1000; ++i) {
            int64_t n = names.find(lowered(q[i]));
            must(n == int64_t(id[i]), "find");
            if (cold) {
                Path p = pick(1, r, false);
                for (int l = 0; l < levels; ++l)
                    read_node(Rd::pread, p.node(l), buf + size_t(l) * B);
            }
            fetch(get, uint64_t(n), out);
        }
        sec += now() - t0;
        must(get == Get::nothing || out.name == q[999], "decode");
    }
    put(name, sec / 40000 * 1e6);
}

void walk_scenario(const char* name, Get get)
{
    Record out;
    Sink s;
    uint64_t limit = std::min<uint64_t>(N, 200000);
    double t0 = now();
    for (uint32_t b = 0; b < names.leaf_count && s.count < limit; ++b) {
        const char* p = names.node[b].data();
        for (int i = 0, c = NameTree::u16(p); i < c; ++i) {
            fetch(get, NameTree::val(NameTree::entry(p, i)), out);
            s.take(out);
        }
    }
    put(name, (now() - t0) / double(s.count) * 1e6);
    g_sink = g_sink + s.sum;
}

void read_scenarios(int round)
{
    find_scenario("find: descent in memory only", Get::nothing, false, round);
    find_scenario("find: descent + 2 preads + decode", Get::pread, false, round);
    find_scenario("find: descent + seek,read,read + decode", Get::seek, false, round);
    find_scenario("find: descent + 1 pread of 256 + decode", Get::pread256, false, round);
    find_scenario("find: descent + memcpy from map + decode", Get::copy, false, round);
    find_scenario("find: descent + decode straight from map", Get::map, false, round);
    find_scenario("find: cold, path by pread 16 KiB + 2 preads + decode", Get::pread, true, round);
    walk_scenario("walk: 2 preads + decode", Get::pread);
    walk_scenario("walk: seek,read,read + decode", Get::seek);
    walk_scenario("walk: 1 pread of 256 + decode", Get::pread256);
    walk_scenario("walk: memcpy from map + decode", Get::copy);
    walk_scenario("walk: decode straight from map", Get::map);
}
} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        die("usage: floor DIR N");
    std::string dir = argv[1];
    N = strtoull(argv[2], nullptr, 10);
    must(N > 0, "N");
    levels = N > 300000 ? 3 : 2;
    blocks = make_trees();
    std::string pb = dir + "/floor.blk", pr = dir + "/floor.rec";
    fb = open(pb.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    fr = open(pr.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    must(fb >= 0 && fr >= 0, "open");
    make_block_file();
    make_records_file();
    fsync(fb);
    fsync(fr);
    mb = map_file(fb, size_t(at(blocks)));
    mr_len = rec_end0;
    mr = map_file(fr, mr_len);
    fprintf(
        stderr, "blocks %u, name tree nodes %zu leaves %u, records %zu bytes\n", blocks,
        names.node.size(), names.leaf_count, rec_end0);

    for (int round = 0; round < 5; ++round) {
        change_scenarios(round);
        single_scenarios(round);
        read_scenarios(round);
    }
    for (auto& k : order) {
        auto v = results[k];
        std::sort(v.begin(), v.end());
        printf(
            "%s\t%llu\t%s\t%.3f\n", dir.c_str(), (unsigned long long)N, k.c_str(), v[v.size() / 2]);
    }
    unlink(pb.c_str());
    unlink(pr.c_str());
    return 0;
}
