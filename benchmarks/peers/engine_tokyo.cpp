// Tokyo Cabinet table database (TCTDB) with column indexes.
//   tc      no transactions (index pages cached in the process: not crash safe)
//   tc-txn  tctdbtranbegin/commit around every operation, no TSYNC
#include "engine.h"
#include <tctdb.h>
#include <tcutil.h>

namespace {
class TokyoEngine : public Engine {
    bool txn_;
    TCTDB* db_ = nullptr;
    void ok(bool b, const char* what)
    {
        if (!b)
            die(std::string("tc ") + what + ": " + tctdberrmsg(tctdbecode(db_)));
    }
    static void hex(const uint8_t* h, char* o)
    {
        static const char d[] = "0123456789abcdef";
        for (int i = 0; i < 32; ++i) {
            o[2 * i] = d[h[i] >> 4];
            o[2 * i + 1] = d[h[i] & 15];
        }
        o[64] = 0;
    }
    static uint8_t nib(char c) { return uint8_t(c <= '9' ? c - '0' : c - 'a' + 10); }
    bool load(const void* pk, int n, Record& r)
    {
        TCMAP* m = tctdbget(db_, pk, n);
        if (!m)
            return false;
        int len;
        char kb[16];
        memcpy(kb, pk, size_t(n));
        kb[n] = 0;
        r.id = atoi(kb);
        auto p = static_cast<const char*>(tcmapget(m, "Name", 4, &len));
        r.name.assign(p, size_t(len));
        r.size = atoi(static_cast<const char*>(tcmapget(m, "Size", 4, &len)));
        r.stamp = strtoll(static_cast<const char*>(tcmapget(m, "Stamp", 5, &len)), nullptr, 10);
        p = static_cast<const char*>(tcmapget(m, "Hash", 4, &len));
        for (int i = 0; i < 32; ++i)
            r.hash[i] = uint8_t(nib(p[2 * i]) << 4 | nib(p[2 * i + 1]));
        p = static_cast<const char*>(tcmapget(m, "Note", 4, &len));
        r.note.assign(p, size_t(len));
        tcmapdel(m);
        return true;
    }
    bool find(const char* col, const char* val, Record& out)
    {
        TDBQRY* q = tctdbqrynew(db_);
        tctdbqryaddcond(q, col, TDBQCSTREQ, val);
        tctdbqrysetlimit(q, 1, 0);
        TCLIST* l = tctdbqrysearch(q);
        bool found = tclistnum(l) > 0;
        if (found) {
            int n;
            const void* pk = tclistval(l, 0, &n);
            found = load(pk, n, out);
        }
        tclistdel(l);
        tctdbqrydel(q);
        return found;
    }
    void begin()
    {
        if (txn_)
            ok(tctdbtranbegin(db_), "begin");
    }
    void commit()
    {
        if (txn_)
            ok(tctdbtrancommit(db_), "commit");
    }

  public:
    explicit TokyoEngine(bool txn) : txn_(txn) {}
    std::string version() const override { return tcversion; }
    bool ignores_case() const override { return false; }
    void open(const std::string& dir, bool create, uint64_t n) override
    {
        db_ = tctdbnew();
        tctdbtune(db_, int64_t(n * 2), 4, 10, TDBTLARGE);
        tctdbsetcache(db_, 0, 65536, 8192);
        tctdbsetxmsiz(db_, int64_t(1) << 30);
        ok(tctdbopen(db_, (dir + "/t.tct").c_str(), TDBOREADER | TDBOWRITER | TDBOCREAT), "open");
        if (create) {
            ok(tctdbsetindex(db_, "Name", TDBITLEXICAL), "index");
            ok(tctdbsetindex(db_, "Size", TDBITDECIMAL), "index");
            ok(tctdbsetindex(db_, "Hash", TDBITLEXICAL), "index");
        }
    }
    void insert(Record& r) override
    {
        char pk[16], sz[16], st[24], hx[65];
        begin();
        r.id = int32_t(tctdbgenuid(db_));
        TCMAP* m = tcmapnew2(8);
        int n = snprintf(sz, sizeof sz, "%d", r.size);
        tcmapput(m, "Name", 4, r.name.data(), int(r.name.size()));
        tcmapput(m, "Size", 4, sz, n);
        n = snprintf(st, sizeof st, "%lld", static_cast<long long>(r.stamp));
        tcmapput(m, "Stamp", 5, st, n);
        hex(r.hash, hx);
        tcmapput(m, "Hash", 4, hx, 64);
        tcmapput(m, "Note", 4, r.note.data(), int(r.note.size()));
        n = snprintf(pk, sizeof pk, "%d", r.id);
        ok(tctdbput(db_, pk, n, m), "put");
        tcmapdel(m);
        commit();
    }
    bool find_by_name(const std::string& s, Record& out) override
    {
        return find("Name", s.c_str(), out);
    }
    bool find_by_hash(const uint8_t h[32], Record& out) override
    {
        char hx[65];
        hex(h, hx);
        return find("Hash", hx, out);
    }
    void walk_by_name(Sink& sink) override
    {
        TDBQRY* q = tctdbqrynew(db_);
        tctdbqrysetorder(q, "Name", TDBQOSTRASC);
        TCLIST* l = tctdbqrysearch(q);
        Record r;
        for (int i = 0, n = tclistnum(l); i < n; ++i) {
            int len;
            const void* pk = tclistval(l, i, &len);
            if (load(pk, len, r))
                sink.take(r);
        }
        tclistdel(l);
        tctdbqrydel(q);
    }
    bool modify_size(int32_t id, int32_t size) override
    {
        char pk[16], sz[16];
        int n = snprintf(pk, sizeof pk, "%d", id);
        TCMAP* m = tctdbget(db_, pk, n);
        if (!m)
            return false;
        int k = snprintf(sz, sizeof sz, "%d", size);
        tcmapput(m, "Size", 4, sz, k);
        begin();
        ok(tctdbput(db_, pk, n, m), "put");
        commit();
        tcmapdel(m);
        return true;
    }
    bool erase(int32_t id) override
    {
        char pk[16];
        int n = snprintf(pk, sizeof pk, "%d", id);
        begin();
        bool b = tctdbout(db_, pk, n);
        commit();
        return b;
    }
    void close() override
    {
        ok(tctdbclose(db_), "close");
        tctdbdel(db_);
    }
};
Registrar r1("tc", [] { return std::unique_ptr<Engine>(new TokyoEngine(false)); });
Registrar r2("tc-txn", [] { return std::unique_ptr<Engine>(new TokyoEngine(true)); });
} // namespace
