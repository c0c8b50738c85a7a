// Kyoto Cabinet: four TreeDB files (main by Id, name+Id, size+Id, hash+Id).
//   kc       default (leaf pages cached in the process: not crash safe)
//   kc-auto  OAUTOTRAN: every update is its own transaction per tree, no fsync
#include "engine.h"
#include <kcpolydb.h>
namespace kc = kyotocabinet;

namespace {
class KyotoEngine : public Engine {
    bool auto_;
    kc::TreeDB main_, name_, size_, hash_;
    std::unique_ptr<kc::DB::Cursor> cur_;
    uint32_t last_ = 0;
    static void ok(bool b, const char* what)
    {
        if (!b)
            die(std::string("kc ") + what);
    }
    void open_tree(kc::TreeDB& t, const std::string& p, int64_t cache, uint64_t n)
    {
        t.tune_map(256ll << 20);
        t.tune_page_cache(cache);
        t.tune_buckets(int64_t(n / 10 + 1000));
        t.tune_options(kc::TreeDB::TLINEAR);
        uint32_t m = kc::TreeDB::OWRITER | kc::TreeDB::OREADER | kc::TreeDB::OCREATE;
        if (auto_)
            m |= kc::TreeDB::OAUTOTRAN;
        ok(t.open(p, m), "open");
    }
    static size_t name_key(const std::string& s, uint32_t id, char* k)
    {
        for (size_t i = 0; i < s.size(); ++i)
            k[i] = lower(s[i]);
        k[s.size()] = 0;
        put_be32(k + s.size() + 1, id);
        return s.size() + 5;
    }
    static void size_key(int32_t sz, uint32_t id, char* k)
    {
        put_be32(k, uint32_t(sz));
        put_be32(k + 4, id);
    }
    static void hash_key(const uint8_t* h, uint32_t id, char* k)
    {
        memcpy(k, h, 32);
        put_be32(k + 32, id);
    }
    bool load(uint32_t id, Record& r)
    {
        char key[4], buf[kMaxEncoded];
        put_be32(key, id);
        if (main_.get(key, 4, buf, sizeof buf) < 0)
            return false;
        decode(buf, r);
        return true;
    }

  public:
    explicit KyotoEngine(bool a) : auto_(a) {}
    std::string version() const override { return kc::VERSION; }
    void open(const std::string& dir, bool, uint64_t n) override
    {
        open_tree(main_, dir + "/main.kct", 128ll << 20, n);
        open_tree(name_, dir + "/name.kct", 64ll << 20, n);
        open_tree(size_, dir + "/size.kct", 64ll << 20, n);
        open_tree(hash_, dir + "/hash.kct", 64ll << 20, n);
        std::unique_ptr<kc::DB::Cursor> c(main_.cursor());
        std::string k;
        last_ = c->jump_back() && c->get_key(&k) ? get_be32(k.data()) : 0;
        cur_.reset(name_.cursor());
    }
    void insert(Record& r) override
    {
        r.id = int32_t(++last_);
        char key[4], buf[kMaxEncoded], nk[300], sk[8], hk[36];
        put_be32(key, last_);
        ok(main_.set(key, 4, buf, encode(r, buf)), "set");
        ok(name_.set(nk, name_key(r.name, last_, nk), "", 0), "set");
        size_key(r.size, last_, sk);
        ok(size_.set(sk, 8, "", 0), "set");
        hash_key(r.hash, last_, hk);
        ok(hash_.set(hk, 36, "", 0), "set");
    }
    bool find_prefix(kc::TreeDB& t, const char* p, size_t n, Record& out)
    {
        std::unique_ptr<kc::DB::Cursor> c(t.cursor());
        if (!c->jump(p, n))
            return false;
        size_t len;
        char* k = c->get_key(&len);
        bool found = k && len == n + 4 && !memcmp(k, p, n) && load(get_be32(k + n), out);
        delete[] k;
        return found;
    }
    bool find_by_name(const std::string& s, Record& out) override
    {
        char nk[300];
        name_key(s, 0, nk);
        return find_prefix(name_, nk, s.size() + 1, out);
    }
    bool find_by_hash(const uint8_t h[32], Record& out) override
    {
        return find_prefix(hash_, reinterpret_cast<const char*>(h), 32, out);
    }
    void walk_by_name(Sink& sink) override
    {
        Record r;
        if (!cur_->jump())
            return;
        size_t len;
        while (char* k = cur_->get_key(&len, true)) {
            if (load(get_be32(k + len - 4), r))
                sink.take(r);
            delete[] k;
        }
    }
    bool modify_size(int32_t id, int32_t size) override
    {
        Record r;
        char key[4], buf[kMaxEncoded], sk[8];
        if (!load(uint32_t(id), r))
            return false;
        size_key(r.size, uint32_t(id), sk);
        ok(size_.remove(sk, 8), "remove");
        r.size = size;
        put_be32(key, uint32_t(id));
        ok(main_.set(key, 4, buf, encode(r, buf)), "set");
        size_key(r.size, uint32_t(id), sk);
        ok(size_.set(sk, 8, "", 0), "set");
        return true;
    }
    bool erase(int32_t id) override
    {
        Record r;
        char key[4], nk[300], sk[8], hk[36];
        if (!load(uint32_t(id), r))
            return false;
        put_be32(key, uint32_t(id));
        ok(main_.remove(key, 4), "remove");
        ok(name_.remove(nk, name_key(r.name, uint32_t(id), nk)), "remove");
        size_key(r.size, uint32_t(id), sk);
        ok(size_.remove(sk, 8), "remove");
        hash_key(r.hash, uint32_t(id), hk);
        ok(hash_.remove(hk, 36), "remove");
        return true;
    }
    void close() override
    {
        cur_.reset();
        ok(main_.close(), "close");
        ok(name_.close(), "close");
        ok(size_.close(), "close");
        ok(hash_.close(), "close");
    }
};
Registrar r1("kc", [] { return std::unique_ptr<Engine>(new KyotoEngine(false)); });
Registrar r2("kc-auto", [] { return std::unique_ptr<Engine>(new KyotoEngine(true)); });
} // namespace
