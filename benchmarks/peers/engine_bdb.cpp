// Berkeley DB: B-tree primary keyed by big-endian Id, three associated secondaries.
//   bdb      plain, not transactional (dirty pages live in the process: NOT crash safe)
//   bdb-txn  transactional, log written at each commit but never fsynced
#include "engine.h"
#include <db.h>

namespace {
void ok(int rc, const char* what)
{
    if (rc)
        die(std::string("bdb ") + what + ": " + db_strerror(rc));
}
DBT dbt(const void* p, size_t n)
{
    DBT d;
    memset(&d, 0, sizeof d);
    d.data = const_cast<void*>(p);
    d.size = u_int32_t(n);
    return d;
}
DBT user(void* p, size_t cap)
{
    DBT d;
    memset(&d, 0, sizeof d);
    d.data = p;
    d.ulen = u_int32_t(cap);
    d.flags = DB_DBT_USERMEM;
    return d;
}

int name_of(DB*, const DBT*, const DBT* v, DBT* k)
{
    auto p = static_cast<char*>(v->data);
    memset(k, 0, sizeof *k);
    k->data = p + 50;
    k->size = uint8_t(p[48]);
    return 0;
}
int size_of(DB*, const DBT*, const DBT* v, DBT* k)
{
    memset(k, 0, sizeof *k);
    k->data = static_cast<char*>(v->data) + 4;
    k->size = 4;
    return 0;
}
int hash_of(DB*, const DBT*, const DBT* v, DBT* k)
{
    memset(k, 0, sizeof *k);
    k->data = static_cast<char*>(v->data) + 16;
    k->size = 32;
    return 0;
}
int cmp_nocase(DB*, const DBT* a, const DBT* b)
{
    size_t n = a->size < b->size ? a->size : b->size;
    auto p = static_cast<const char*>(a->data);
    auto q = static_cast<const char*>(b->data);
    for (size_t i = 0; i < n; ++i) {
        int d = int(uint8_t(lower(p[i]))) - int(uint8_t(lower(q[i])));
        if (d)
            return d;
    }
    return int(a->size) - int(b->size);
}
int cmp_i32(DB*, const DBT* a, const DBT* b)
{
    int32_t x, y;
    memcpy(&x, a->data, 4);
    memcpy(&y, b->data, 4);
    return x < y ? -1 : x > y;
}

class BdbEngine : public Engine {
    bool txn_;
    DB_ENV* env_ = nullptr;
    DB *main_ = nullptr, *name_ = nullptr, *size_ = nullptr, *hash_ = nullptr;
    DB_TXN* batch_ = nullptr;
    uint32_t last_ = 0, commits_ = 0;
    char buf_[kMaxEncoded];

    DB* open_db(const char* file, bool dup, int (*cmp)(DB*, const DBT*, const DBT*))
    {
        DB* d;
        ok(db_create(&d, env_, 0), "db_create");
        if (dup)
            d->set_flags(d, DB_DUPSORT);
        if (cmp)
            d->set_bt_compare(d, cmp);
        d->set_pagesize(d, 4096);
        ok(d->open(
               d, nullptr, file, nullptr, DB_BTREE, DB_CREATE | (txn_ ? DB_AUTO_COMMIT : 0), 0644),
           "open");
        return d;
    }
    void tick()
    {
        if (txn_ && !batch_ && ++commits_ % 20000 == 0)
            env_->txn_checkpoint(env_, 0, 0, 0);
    }
    bool find(DB* sec, const void* k, size_t n, Record& out)
    {
        DBT key = dbt(k, n), val = user(buf_, sizeof buf_);
        if (sec->get(sec, nullptr, &key, &val, 0))
            return false;
        decode(buf_, out);
        return true;
    }
    bool load(int32_t id, char key[4], Record& r)
    {
        put_be32(key, uint32_t(id));
        DBT k = dbt(key, 4), v = user(buf_, sizeof buf_);
        if (main_->get(main_, nullptr, &k, &v, 0))
            return false;
        decode(buf_, r);
        return true;
    }

  public:
    explicit BdbEngine(bool txn) : txn_(txn) {}
    std::string version() const override { return db_version(nullptr, nullptr, nullptr); }
    bool has_batch() const override { return txn_; }
    void open(const std::string& dir, bool, uint64_t) override
    {
        ok(db_env_create(&env_, 0), "env_create");
        env_->set_cachesize(env_, 0, 384u << 20, 1);
        u_int32_t f = DB_CREATE | DB_PRIVATE | DB_INIT_MPOOL;
        if (txn_) {
            f |= DB_INIT_TXN | DB_INIT_LOG | DB_INIT_LOCK | DB_RECOVER;
            env_->set_flags(env_, DB_TXN_WRITE_NOSYNC, 1);
            env_->set_lg_bsize(env_, 8u << 20);
            env_->set_lg_max(env_, 64u << 20);
            env_->set_lk_max_locks(env_, 400000);
            env_->set_lk_max_objects(env_, 400000);
            env_->log_set_config(env_, DB_LOG_AUTO_REMOVE, 1);
        }
        ok(env_->open(env_, dir.c_str(), f, 0644), "env open");
        main_ = open_db("main.db", false, nullptr);
        name_ = open_db("name.db", true, cmp_nocase);
        size_ = open_db("size.db", true, cmp_i32);
        hash_ = open_db("hash.db", true, nullptr);
        u_int32_t af = txn_ ? DB_AUTO_COMMIT : 0;
        ok(main_->associate(main_, nullptr, name_, name_of, af), "associate");
        ok(main_->associate(main_, nullptr, size_, size_of, af), "associate");
        ok(main_->associate(main_, nullptr, hash_, hash_of, af), "associate");
        DBC* c;
        ok(main_->cursor(main_, nullptr, &c, 0), "cursor");
        DBT k = dbt(nullptr, 0), v = dbt(nullptr, 0);
        last_ = c->get(c, &k, &v, DB_LAST) == 0 ? get_be32(static_cast<char*>(k.data)) : 0;
        c->close(c);
    }
    void insert(Record& r) override
    {
        r.id = int32_t(++last_);
        char key[4];
        put_be32(key, last_);
        DBT k = dbt(key, 4), v = dbt(buf_, encode(r, buf_));
        ok(main_->put(main_, batch_, &k, &v, 0), "put");
        tick();
    }
    void begin_batch() override
    {
        if (txn_)
            ok(env_->txn_begin(env_, nullptr, &batch_, 0), "begin");
    }
    void end_batch() override
    {
        if (txn_) {
            ok(batch_->commit(batch_, 0), "commit");
            batch_ = nullptr;
            env_->txn_checkpoint(env_, 64 << 10, 0, 0);
        }
    }
    bool find_by_name(const std::string& s, Record& out) override
    {
        return find(name_, s.data(), s.size(), out);
    }
    bool find_by_hash(const uint8_t h[32], Record& out) override { return find(hash_, h, 32, out); }
    void walk_by_name(Sink& sink) override
    {
        DBC* c;
        ok(name_->cursor(name_, nullptr, &c, 0), "cursor");
        char kb[256];
        Record r;
        for (;;) {
            DBT k = user(kb, sizeof kb), v = user(buf_, sizeof buf_);
            if (c->get(c, &k, &v, DB_NEXT))
                break;
            decode(buf_, r);
            sink.take(r);
        }
        c->close(c);
    }
    bool modify_size(int32_t id, int32_t size) override
    {
        char key[4];
        Record r;
        if (!load(id, key, r))
            return false;
        r.size = size;
        DBT k = dbt(key, 4), v = dbt(buf_, encode(r, buf_));
        ok(main_->put(main_, batch_, &k, &v, 0), "put");
        tick();
        return true;
    }
    bool erase(int32_t id) override
    {
        char key[4];
        put_be32(key, uint32_t(id));
        DBT k = dbt(key, 4);
        int rc = main_->del(main_, batch_, &k, 0);
        tick();
        return rc == 0;
    }
    void close() override
    {
        for (DB* d : {name_, size_, hash_, main_})
            ok(d->close(d, 0), "close");
        if (txn_)
            env_->txn_checkpoint(env_, 0, 0, DB_FORCE);
        ok(env_->close(env_, 0), "env close");
    }
};
Registrar r1("bdb", [] { return std::unique_ptr<Engine>(new BdbEngine(false)); });
Registrar r2("bdb-txn", [] { return std::unique_ptr<Engine>(new BdbEngine(true)); });
} // namespace
