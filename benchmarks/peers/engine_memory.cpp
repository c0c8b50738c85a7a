// Maps in memory, nothing stored: the example of an engine, and the one that checks the work
// itself.
#include "engine.h"
#include <map>
#include <unordered_map>

namespace {
struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const
    {
        return strcasecmp(a.c_str(), b.c_str()) < 0;
    }
};

class MemoryEngine : public Engine {
    struct Data {
        std::unordered_map<int32_t, Record> main;
        std::multimap<std::string, int32_t, NoCase> name;
        std::multimap<int32_t, int32_t> size;
        std::map<std::string, int32_t> hash;
        int32_t last = 0;
    };
    static std::map<std::string, Data>& kept()
    {
        static std::map<std::string, Data> k;
        return k;
    }
    Data* d_ = nullptr;
    static std::string key(const uint8_t* h)
    {
        return std::string(reinterpret_cast<const char*>(h), 32);
    }
    template <class M, class K>
    static void drop(M& m, const K& k, int32_t id)
    {
        for (auto r = m.equal_range(k); r.first != r.second; ++r.first)
            if (r.first->second == id) {
                m.erase(r.first);
                return;
            }
    }

  public:
    std::string version() const override { return "in memory"; }
    void open(const std::string& dir, bool create, uint64_t) override
    {
        if (create)
            kept().erase(dir);
        d_ = &kept()[dir];
    }
    void insert(Record& r) override
    {
        r.id = ++d_->last;
        d_->main[r.id] = r;
        d_->name.emplace(r.name, r.id);
        d_->size.emplace(r.size, r.id);
        d_->hash[key(r.hash)] = r.id;
    }
    bool find_by_name(const std::string& n, Record& out) override
    {
        auto i = d_->name.find(n);
        if (i == d_->name.end())
            return false;
        out = d_->main[i->second];
        return true;
    }
    bool find_by_hash(const uint8_t h[32], Record& out) override
    {
        auto i = d_->hash.find(key(h));
        if (i == d_->hash.end())
            return false;
        out = d_->main[i->second];
        return true;
    }
    void walk_by_name(Sink& s) override
    {
        Record r;
        for (auto& e : d_->name) {
            r = d_->main[e.second];
            s.take(r);
        }
    }
    bool modify_size(int32_t id, int32_t size) override
    {
        auto i = d_->main.find(id);
        if (i == d_->main.end())
            return false;
        drop(d_->size, i->second.size, id);
        i->second.size = size;
        d_->size.emplace(size, id);
        return true;
    }
    bool erase(int32_t id) override
    {
        auto i = d_->main.find(id);
        if (i == d_->main.end())
            return false;
        drop(d_->size, i->second.size, id);
        drop(d_->name, i->second.name, id);
        d_->hash.erase(key(i->second.hash));
        d_->main.erase(i);
        return true;
    }
    void close() override {}
};
Registrar r1("memory", [] { return std::unique_ptr<Engine>(new MemoryEngine); });
} // namespace
