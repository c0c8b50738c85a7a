// LMDB: main dbi keyed by integer Id, three DUPSORT|DUPFIXED secondary dbis -> Id.
#include "engine.h"
#include <lmdb.h>

namespace {
void ok(int rc, const char* what)
{
    if (rc)
        die(std::string("lmdb ") + what + ": " + mdb_strerror(rc));
}

class LmdbEngine : public Engine {
    unsigned flags_;
    MDB_env* env_ = nullptr;
    MDB_txn *rd_ = nullptr, *wr_ = nullptr; // wr_: open batch
    MDB_dbi main_ = 0, name_ = 0, size_ = 0, hash_ = 0;
    uint32_t last_ = 0;
    bool in_batch_ = false;

    struct Name {
        char b[256];
        MDB_val v;
        explicit Name(const std::string& s)
        {
            for (size_t i = 0; i < s.size(); ++i)
                b[i] = lower(s[i]);
            v = {s.size(), b};
        }
    };
    MDB_txn* begin()
    {
        if (in_batch_)
            return wr_;
        MDB_txn* t;
        ok(mdb_txn_begin(env_, nullptr, 0, &t), "begin");
        return t;
    }
    void commit(MDB_txn* t)
    {
        if (!in_batch_)
            ok(mdb_txn_commit(t), "commit");
    }
    bool find(MDB_dbi dbi, MDB_val k, Record& out)
    {
        ok(mdb_txn_renew(rd_), "renew");
        MDB_val id, rec;
        bool found = mdb_get(rd_, dbi, &k, &id) == 0 && mdb_get(rd_, main_, &id, &rec) == 0;
        if (found)
            decode(static_cast<const char*>(rec.mv_data), out);
        mdb_txn_reset(rd_);
        return found;
    }

  public:
    explicit LmdbEngine(unsigned flags) : flags_(flags) {}
    std::string version() const override { return mdb_version(nullptr, nullptr, nullptr); }
    bool has_batch() const override { return true; }
    void open(const std::string& dir, bool, uint64_t) override
    {
        ok(mdb_env_create(&env_), "create");
        mdb_env_set_maxdbs(env_, 8);
        ok(mdb_env_set_mapsize(env_, size_t(4) << 30), "mapsize");
        ok(mdb_env_open(env_, dir.c_str(), flags_ | MDB_NORDAHEAD, 0644), "open");
        MDB_txn* t;
        ok(mdb_txn_begin(env_, nullptr, 0, &t), "begin");
        const unsigned dup = MDB_CREATE | MDB_DUPSORT | MDB_DUPFIXED | MDB_INTEGERDUP;
        ok(mdb_dbi_open(t, "main", MDB_CREATE | MDB_INTEGERKEY, &main_), "dbi");
        ok(mdb_dbi_open(t, "name", dup, &name_), "dbi");
        ok(mdb_dbi_open(t, "size", dup | MDB_INTEGERKEY, &size_), "dbi");
        ok(mdb_dbi_open(t, "hash", dup, &hash_), "dbi");
        MDB_cursor* c;
        MDB_val k, v;
        ok(mdb_cursor_open(t, main_, &c), "cursor");
        last_ = 0;
        if (mdb_cursor_get(c, &k, &v, MDB_LAST) == 0)
            memcpy(&last_, k.mv_data, 4);
        mdb_cursor_close(c);
        ok(mdb_txn_commit(t), "commit");
        ok(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &rd_), "begin");
        mdb_txn_reset(rd_);
    }
    void insert(Record& r) override
    {
        r.id = int32_t(++last_);
        uint32_t id = last_, sz = uint32_t(r.size);
        char buf[kMaxEncoded];
        MDB_val kid{4, &id}, rec{encode(r, buf), buf}, ksz{4, &sz}, kh{32, r.hash};
        Name nm(r.name);
        MDB_txn* t = begin();
        ok(mdb_put(t, main_, &kid, &rec, MDB_APPEND), "put");
        ok(mdb_put(t, name_, &nm.v, &kid, 0), "put");
        ok(mdb_put(t, size_, &ksz, &kid, 0), "put");
        ok(mdb_put(t, hash_, &kh, &kid, 0), "put");
        commit(t);
    }
    void begin_batch() override
    {
        ok(mdb_txn_begin(env_, nullptr, 0, &wr_), "begin");
        in_batch_ = true;
    }
    void end_batch() override
    {
        in_batch_ = false;
        ok(mdb_txn_commit(wr_), "commit");
    }
    bool find_by_name(const std::string& name, Record& out) override
    {
        return find(name_, Name(name).v, out);
    }
    bool find_by_hash(const uint8_t hash[32], Record& out) override
    {
        return find(hash_, MDB_val{32, const_cast<uint8_t*>(hash)}, out);
    }
    void walk_by_name(Sink& sink) override
    {
        ok(mdb_txn_renew(rd_), "renew");
        MDB_cursor* c;
        ok(mdb_cursor_open(rd_, name_, &c), "cursor");
        MDB_val k, id, rec;
        Record r;
        for (int rc = mdb_cursor_get(c, &k, &id, MDB_FIRST); rc == 0;
             rc = mdb_cursor_get(c, &k, &id, MDB_NEXT)) {
            ok(mdb_get(rd_, main_, &id, &rec), "walk get");
            decode(static_cast<const char*>(rec.mv_data), r);
            sink.take(r);
        }
        mdb_cursor_close(c);
        mdb_txn_reset(rd_);
    }
    bool modify_size(int32_t id, int32_t size) override
    {
        MDB_txn* t = begin();
        MDB_val kid{4, &id}, rec;
        if (mdb_get(t, main_, &kid, &rec)) {
            if (!in_batch_)
                mdb_txn_abort(t);
            return false;
        }
        Record r;
        decode(static_cast<const char*>(rec.mv_data), r);
        uint32_t old = uint32_t(r.size), nu = uint32_t(size);
        r.size = size;
        char buf[kMaxEncoded];
        MDB_val nrec{encode(r, buf), buf}, ko{4, &old}, kn{4, &nu};
        ok(mdb_put(t, main_, &kid, &nrec, 0), "put");
        if (old != nu) {
            ok(mdb_del(t, size_, &ko, &kid), "del");
            ok(mdb_put(t, size_, &kn, &kid, 0), "put");
        }
        commit(t);
        return true;
    }
    bool erase(int32_t id) override
    {
        MDB_txn* t = begin();
        MDB_val kid{4, &id}, rec;
        if (mdb_get(t, main_, &kid, &rec)) {
            if (!in_batch_)
                mdb_txn_abort(t);
            return false;
        }
        Record r;
        decode(static_cast<const char*>(rec.mv_data), r);
        Name nm(r.name);
        MDB_val ksz{4, &r.size}, kh{32, r.hash};
        ok(mdb_del(t, main_, &kid, nullptr), "del");
        ok(mdb_del(t, name_, &nm.v, &kid), "del");
        ok(mdb_del(t, size_, &ksz, &kid), "del");
        ok(mdb_del(t, hash_, &kh, &kid), "del");
        commit(t);
        return true;
    }
    void close() override
    {
        mdb_txn_abort(rd_);
        mdb_env_close(env_);
    }
};
Registrar r1("lmdb", [] { return std::unique_ptr<Engine>(new LmdbEngine(MDB_NOSYNC)); });
Registrar r2("lmdb-wm", [] {
    return std::unique_ptr<Engine>(new LmdbEngine(MDB_NOSYNC | MDB_WRITEMAP));
});
} // namespace
