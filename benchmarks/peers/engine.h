// engine.h - the small interface that every measured engine sits behind, the record type, and the
// deterministic workload. To measure another library, add a source file with a class derived from
// Engine, a Registrar that makes one, and a line in CMakeLists.txt.
#pragma once
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct Record {
    int32_t id = 0;   // assigned by insert(), 1,2,3,...
    std::string name; // 8..24 bytes, unique in practice, index ignores case
    int32_t size = 0; // non-unique index
    int64_t stamp = 0;
    uint8_t hash[32] = {}; // indexed
    std::string note;      // 20..60 bytes
};

// Receives every record of a walk.  Keeps a checksum so that no engine can
// skip the materialising, and (verify mode) checks the order.
struct Sink {
    uint64_t count = 0, sum = 0, inversions = 0;
    bool check_order = false, ignore_case = true;
    std::string prev;
    void take(const Record& r)
    {
        ++count;
        sum += uint64_t(r.id) * 3 + uint64_t(r.size) * 5 + uint64_t(r.stamp) + r.hash[0] +
               r.hash[31] + r.name.size() * 7 + r.note.size() * 11 + uint8_t(r.name[0]) +
               uint8_t(r.note.back());
        if (check_order) {
            int c = ignore_case ? strcasecmp(prev.c_str(), r.name.c_str()) : prev.compare(r.name);
            inversions += c > 0;
            prev = r.name;
        }
    }
};

class Engine {
  public:
    virtual ~Engine() = default;
    virtual std::string version() const = 0;
    virtual bool ignores_case() const { return true; }
    virtual bool has_batch() const { return false; }
    virtual void open(const std::string& dir, bool create, uint64_t expected_records) = 0;
    virtual void insert(Record& r) = 0; // sets r.id
    virtual void begin_batch() {}
    virtual void end_batch() {}
    virtual bool find_by_name(const std::string& name, Record& out) = 0;
    virtual bool find_by_hash(const uint8_t hash[32], Record& out) = 0;
    // By the two orders that wrap; asked of this library alone.
    virtual bool find_by_id(int32_t, Record&) { return false; }
    virtual bool find_by_size(int32_t, Record&) { return false; } // any record of this size
    virtual void walk_by_name(Sink& sink) = 0;                    // whole table, Name order
    virtual bool modify_size(int32_t id, int32_t size) = 0;       // position by Id, change Size
    virtual bool erase(int32_t id) = 0;                           // position by Id, delete
    virtual void close() = 0;
    // Levels of the trees of a closed table by the names of their fields, from an engine that can
    // tell.
    virtual std::vector<std::pair<std::string, int>> levels(const std::string&) const { return {}; }
};

using EngineFactory = std::function<std::unique_ptr<Engine>()>;
inline std::vector<std::pair<std::string, EngineFactory>>& engines()
{
    static std::vector<std::pair<std::string, EngineFactory>> v;
    return v;
}
struct Registrar {
    Registrar(const char* name, EngineFactory f) { engines().emplace_back(name, std::move(f)); }
};

[[noreturn]] inline void die(const std::string& what)
{
    fprintf(stderr, "FATAL %s\n", what.c_str());
    exit(1);
}

// ---- workload --------------------------------------------------------------
struct SplitMix {
    uint64_t s;
    explicit SplitMix(uint64_t seed) : s(seed) {}
    uint64_t next()
    {
        uint64_t z = (s += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t n) { return uint32_t((next() >> 32) * n >> 32); }
};

// Record number i (0-based) is a pure function of i, so keys can be made again
// for the finds without holding the table in the benchmark's own memory.
inline void make_record(uint64_t i, Record& r)
{
    static const char alnum[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789__";
    static const char text[] = "abcdefghijklmnopqrstuvwxyz      ";
    SplitMix g(i * 0xD1342543DE82EF95ull + 12345);
    r.id = 0;
    r.name.resize(8 + g.below(17));
    uint64_t bits = 0;
    int have = 0;
    for (char& c : r.name) {
        if (have < 6) {
            bits = g.next();
            have = 64;
        }
        c = alnum[bits & 63];
        bits >>= 6;
        have -= 6;
    }
    r.size = int32_t(g.below(50000));
    r.stamp = int64_t(g.next() >> 2);
    for (int k = 0; k < 4; ++k) {
        uint64_t v = g.next();
        memcpy(r.hash + 8 * k, &v, 8);
    }
    r.note.resize(20 + g.below(41));
    have = 0;
    for (char& c : r.note) {
        if (have < 5) {
            bits = g.next();
            have = 64;
        }
        c = text[bits & 31];
        bits >>= 5;
        have -= 5;
    }
}

// ---- flat record encoding for the key/value engines ------------------------
//   id4 size4 stamp8 hash32 nameLen1 noteLen1 name note
inline size_t encode(const Record& r, char* p)
{
    memcpy(p, &r.id, 4);
    memcpy(p + 4, &r.size, 4);
    memcpy(p + 8, &r.stamp, 8);
    memcpy(p + 16, r.hash, 32);
    p[48] = char(r.name.size());
    p[49] = char(r.note.size());
    memcpy(p + 50, r.name.data(), r.name.size());
    memcpy(p + 50 + r.name.size(), r.note.data(), r.note.size());
    return 50 + r.name.size() + r.note.size();
}
constexpr size_t kMaxEncoded = 50 + 255 + 255;
inline void decode(const char* p, Record& r)
{
    memcpy(&r.id, p, 4);
    memcpy(&r.size, p + 4, 4);
    memcpy(&r.stamp, p + 8, 8);
    memcpy(r.hash, p + 16, 32);
    size_t n = uint8_t(p[48]), m = uint8_t(p[49]);
    r.name.assign(p + 50, n);
    r.note.assign(p + 50 + n, m);
}
inline char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? char(c + 32) : c;
}
inline void put_be32(char* p, uint32_t v)
{
    p[0] = char(v >> 24);
    p[1] = char(v >> 16);
    p[2] = char(v >> 8);
    p[3] = char(v);
}
inline uint32_t get_be32(const char* q)
{
    const uint8_t* p = reinterpret_cast<const uint8_t*>(q);
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
