// LevelDB and RocksDB: one key space, prefix byte per index, WriteBatch per operation,
// write-ahead log written (not fsynced) at every operation.
#include "engine.h"
#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/write_batch.h>
#ifdef HAVE_ROCKSDB
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/table.h>
#include <rocksdb/version.h>
#include <rocksdb/write_batch.h>
#endif

namespace {
struct Level {
    using DB = leveldb::DB;
    using Options = leveldb::Options;
    using Batch = leveldb::WriteBatch;
    using Slice = leveldb::Slice;
    using Iterator = leveldb::Iterator;
    using Read = leveldb::ReadOptions;
    using Write = leveldb::WriteOptions;
    static std::string version()
    {
        return std::to_string(leveldb::kMajorVersion) + "." +
               std::to_string(leveldb::kMinorVersion);
    }
    static const char* label() { return "leveldb"; }
    std::unique_ptr<leveldb::Cache> cache{leveldb::NewLRUCache(256u << 20)};
    std::unique_ptr<const leveldb::FilterPolicy> bloom{leveldb::NewBloomFilterPolicy(10)};
    void tune(Options& o)
    {
        o.block_cache = cache.get();
        o.filter_policy = bloom.get();
        o.write_buffer_size = 64u << 20;
        o.max_file_size = 16u << 20;
        o.max_open_files = 4000;
        o.compression = leveldb::kNoCompression;
    }
};
#ifdef HAVE_ROCKSDB
struct Rocks {
    using DB = rocksdb::DB;
    using Options = rocksdb::Options;
    using Batch = rocksdb::WriteBatch;
    using Slice = rocksdb::Slice;
    using Iterator = rocksdb::Iterator;
    using Read = rocksdb::ReadOptions;
    using Write = rocksdb::WriteOptions;
    static std::string version()
    {
        return std::to_string(ROCKSDB_MAJOR) + "." + std::to_string(ROCKSDB_MINOR) + "." +
               std::to_string(ROCKSDB_PATCH);
    }
    static const char* label() { return "rocksdb"; }
    void tune(Options& o)
    {
        rocksdb::BlockBasedTableOptions t;
        t.block_cache = rocksdb::NewLRUCache(256u << 20);
        t.filter_policy.reset(rocksdb::NewBloomFilterPolicy(10, false));
        t.data_block_index_type = rocksdb::BlockBasedTableOptions::kDataBlockBinaryAndHash;
        o.table_factory.reset(rocksdb::NewBlockBasedTableFactory(t));
        o.write_buffer_size = 64u << 20;
        o.compression = rocksdb::kNoCompression;
        o.allow_mmap_reads = true;
        o.max_open_files = -1;
        o.allow_concurrent_memtable_write = false;
        o.enable_write_thread_adaptive_yield = false;
        o.max_background_jobs = 2;
    }
};
#endif

template <class L>
class LsmEngine : public Engine {
    using S = typename L::Slice;
    L traits_;
    std::unique_ptr<typename L::DB> db_;
    typename L::Batch batch_;
    typename L::Read ro_;
    typename L::Write wo_;
    bool in_batch_ = false;
    uint32_t last_ = 0;
    std::string val_;
    template <class St>
    static void ok(const St& s, const char* what)
    {
        if (!s.ok())
            die(std::string(L::label()) + " " + what + ": " + s.ToString());
    }
    static S id_key(uint32_t id, char* k)
    {
        k[0] = 'p';
        put_be32(k + 1, id);
        return S(k, 5);
    }
    static S name_key(const std::string& s, uint32_t id, char* k)
    {
        k[0] = 'n';
        for (size_t i = 0; i < s.size(); ++i)
            k[i + 1] = lower(s[i]);
        k[s.size() + 1] = 0;
        put_be32(k + s.size() + 2, id);
        return S(k, s.size() + 6);
    }
    static S size_key(int32_t sz, uint32_t id, char* k)
    {
        k[0] = 's';
        put_be32(k + 1, uint32_t(sz));
        put_be32(k + 5, id);
        return S(k, 9);
    }
    static S hash_key(const uint8_t* h, char* k)
    {
        k[0] = 'h';
        memcpy(k + 1, h, 32);
        return S(k, 33);
    } // unique
    bool load(uint32_t id, Record& r)
    {
        char k[8];
        if (!db_->Get(ro_, id_key(id, k), &val_).ok())
            return false;
        decode(val_.data(), r);
        return true;
    }
    void write()
    {
        if (!in_batch_) {
            ok(db_->Write(wo_, &batch_), "write");
            batch_.Clear();
        }
    }

  public:
    std::string version() const override { return L::version(); }
    bool has_batch() const override { return true; }
    void open(const std::string& dir, bool, uint64_t) override
    {
        typename L::Options o;
        o.create_if_missing = true;
        traits_.tune(o);
        typename L::DB* p = nullptr;
        ok(L::DB::Open(o, dir + "/db", &p), "open");
        db_.reset(p);
        std::unique_ptr<typename L::Iterator> it(db_->NewIterator(ro_));
        it->Seek(S("q", 1));
        if (it->Valid())
            it->Prev();
        else
            it->SeekToLast();
        last_ = it->Valid() && it->key()[0] == 'p' ? get_be32(it->key().data() + 1) : 0;
    }
    void insert(Record& r) override
    {
        r.id = int32_t(++last_);
        char buf[kMaxEncoded], ik[8], nk[300], sk[16], hk[40], idv[4];
        put_be32(idv, last_);
        batch_.Put(id_key(last_, ik), S(buf, encode(r, buf)));
        batch_.Put(name_key(r.name, last_, nk), S());
        batch_.Put(size_key(r.size, last_, sk), S());
        batch_.Put(hash_key(r.hash, hk), S(idv, 4));
        write();
    }
    void begin_batch() override { in_batch_ = true; }
    void end_batch() override
    {
        in_batch_ = false;
        write();
    }
    bool find_by_name(const std::string& s, Record& out) override
    {
        char nk[300];
        name_key(s, 0, nk);
        S prefix(nk, s.size() + 2);
        std::unique_ptr<typename L::Iterator> it(db_->NewIterator(ro_));
        it->Seek(prefix);
        return it->Valid() && it->key().starts_with(prefix) &&
               load(get_be32(it->key().data() + prefix.size()), out);
    }
    bool find_by_hash(const uint8_t h[32], Record& out) override
    {
        char hk[40];
        return db_->Get(ro_, hash_key(h, hk), &val_).ok() && load(get_be32(val_.data()), out);
    }
    void walk_by_name(Sink& sink) override
    {
        std::unique_ptr<typename L::Iterator> it(db_->NewIterator(ro_));
        Record r;
        for (it->Seek(S("n", 1)); it->Valid() && it->key()[0] == 'n'; it->Next()) {
            if (!load(get_be32(it->key().data() + it->key().size() - 4), r))
                die("lsm walk");
            sink.take(r);
        }
    }
    bool modify_size(int32_t id, int32_t size) override
    {
        Record r;
        if (!load(uint32_t(id), r))
            return false;
        char buf[kMaxEncoded], ik[8], so[16], sn[16];
        if (r.size != size) {
            batch_.Delete(size_key(r.size, uint32_t(id), so));
            batch_.Put(size_key(size, uint32_t(id), sn), S());
        }
        r.size = size;
        batch_.Put(id_key(uint32_t(id), ik), S(buf, encode(r, buf)));
        write();
        return true;
    }
    bool erase(int32_t id) override
    {
        Record r;
        if (!load(uint32_t(id), r))
            return false;
        char ik[8], nk[300], sk[16], hk[40];
        batch_.Delete(id_key(uint32_t(id), ik));
        batch_.Delete(name_key(r.name, uint32_t(id), nk));
        batch_.Delete(size_key(r.size, uint32_t(id), sk));
        batch_.Delete(hash_key(r.hash, hk));
        write();
        return true;
    }
    void close() override { db_.reset(); }
};
Registrar r1("leveldb", [] { return std::unique_ptr<Engine>(new LsmEngine<Level>); });
#ifdef HAVE_ROCKSDB
Registrar r2("rocksdb", [] { return std::unique_ptr<Engine>(new LsmEngine<Rocks>); });
#endif
} // namespace
