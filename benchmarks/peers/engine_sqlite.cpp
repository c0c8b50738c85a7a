// SQLite: INTEGER PRIMARY KEY table + three secondary indexes, prepared statements.
#include "engine.h"
#include <sqlite3.h>

namespace {
class SqliteEngine : public Engine {
    std::string journal_, locking_, sync_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt *ins_ = nullptr, *by_name_ = nullptr, *by_hash_ = nullptr, *walk_ = nullptr,
                 *upd_ = nullptr, *del_ = nullptr, *begin_ = nullptr, *commit_ = nullptr;
    void exec(const std::string& s)
    {
        char* err = nullptr;
        if (sqlite3_exec(db_, s.c_str(), nullptr, nullptr, &err))
            die("sqlite: " + s + ": " + (err ? err : ""));
    }
    sqlite3_stmt* prep(const char* s)
    {
        sqlite3_stmt* p;
        if (sqlite3_prepare_v3(db_, s, -1, SQLITE_PREPARE_PERSISTENT, &p, nullptr))
            die(std::string("sqlite: ") + sqlite3_errmsg(db_));
        return p;
    }
    void run(sqlite3_stmt* s)
    {
        if (sqlite3_step(s) != SQLITE_DONE)
            die(std::string("sqlite step: ") + sqlite3_errmsg(db_));
        sqlite3_reset(s);
    }
    static void fetch(sqlite3_stmt* s, Record& r)
    {
        r.id = sqlite3_column_int(s, 0);
        auto t = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
        r.name.assign(t, size_t(sqlite3_column_bytes(s, 1)));
        r.size = sqlite3_column_int(s, 2);
        r.stamp = sqlite3_column_int64(s, 3);
        memcpy(r.hash, sqlite3_column_blob(s, 4), 32);
        t = reinterpret_cast<const char*>(sqlite3_column_text(s, 5));
        r.note.assign(t, size_t(sqlite3_column_bytes(s, 5)));
    }
    static bool one(sqlite3_stmt* s, Record& r)
    {
        bool ok = sqlite3_step(s) == SQLITE_ROW;
        if (ok)
            fetch(s, r);
        sqlite3_reset(s);
        return ok;
    }

  public:
    SqliteEngine(const char* journal, const char* locking, const char* sync = "OFF")
        : journal_(journal), locking_(locking), sync_(sync)
    {
    }
    std::string version() const override { return sqlite3_libversion(); }
    bool has_batch() const override { return true; }
    void open(const std::string& dir, bool create, uint64_t) override
    {
        if (sqlite3_open_v2(
                (dir + "/t.db").c_str(), &db_,
                SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr))
            die("sqlite open");
        exec("PRAGMA page_size=4096");
        exec("PRAGMA locking_mode=" + locking_);
        exec("PRAGMA journal_mode=" + journal_);
        exec("PRAGMA synchronous=" + sync_);
        exec("PRAGMA cache_size=-262144");
        exec("PRAGMA mmap_size=4294967296");
        exec("PRAGMA temp_store=MEMORY");
        if (create)
            exec("CREATE TABLE t(Id INTEGER PRIMARY KEY, Name TEXT COLLATE NOCASE, Size INTEGER, "
                 "Stamp INTEGER, Hash BLOB, Note TEXT);"
                 "CREATE INDEX t_name ON t(Name COLLATE NOCASE); CREATE INDEX t_size ON t(Size); "
                 "CREATE INDEX t_hash ON t(Hash);");
        ins_ = prep("INSERT INTO t(Name,Size,Stamp,Hash,Note) VALUES(?,?,?,?,?)");
        by_name_ = prep(
            "SELECT Id,Name,Size,Stamp,Hash,Note FROM t INDEXED BY t_name WHERE Name=? LIMIT 1");
        by_hash_ = prep(
            "SELECT Id,Name,Size,Stamp,Hash,Note FROM t INDEXED BY t_hash WHERE Hash=? LIMIT 1");
        walk_ = prep("SELECT Id,Name,Size,Stamp,Hash,Note FROM t INDEXED BY t_name ORDER BY Name "
                     "COLLATE NOCASE");
        upd_ = prep("UPDATE t SET Size=? WHERE Id=?");
        del_ = prep("DELETE FROM t WHERE Id=?");
        begin_ = prep("BEGIN IMMEDIATE");
        commit_ = prep("COMMIT");
    }
    void insert(Record& r) override
    {
        sqlite3_bind_text(ins_, 1, r.name.data(), int(r.name.size()), SQLITE_STATIC);
        sqlite3_bind_int(ins_, 2, r.size);
        sqlite3_bind_int64(ins_, 3, r.stamp);
        sqlite3_bind_blob(ins_, 4, r.hash, 32, SQLITE_STATIC);
        sqlite3_bind_text(ins_, 5, r.note.data(), int(r.note.size()), SQLITE_STATIC);
        run(ins_);
        r.id = int32_t(sqlite3_last_insert_rowid(db_));
    }
    void begin_batch() override { run(begin_); }
    void end_batch() override { run(commit_); }
    bool find_by_name(const std::string& name, Record& out) override
    {
        sqlite3_bind_text(by_name_, 1, name.data(), int(name.size()), SQLITE_STATIC);
        return one(by_name_, out);
    }
    bool find_by_hash(const uint8_t hash[32], Record& out) override
    {
        sqlite3_bind_blob(by_hash_, 1, hash, 32, SQLITE_STATIC);
        return one(by_hash_, out);
    }
    void walk_by_name(Sink& sink) override
    {
        Record r;
        while (sqlite3_step(walk_) == SQLITE_ROW) {
            fetch(walk_, r);
            sink.take(r);
        }
        sqlite3_reset(walk_);
    }
    bool modify_size(int32_t id, int32_t size) override
    {
        sqlite3_bind_int(upd_, 1, size);
        sqlite3_bind_int(upd_, 2, id);
        run(upd_);
        return sqlite3_changes(db_) == 1;
    }
    bool erase(int32_t id) override
    {
        sqlite3_bind_int(del_, 1, id);
        run(del_);
        return sqlite3_changes(db_) == 1;
    }
    void close() override
    {
        for (auto s : {ins_, by_name_, by_hash_, walk_, upd_, del_, begin_, commit_})
            sqlite3_finalize(s);
        if (sqlite3_close(db_))
            die("sqlite close");
        db_ = nullptr;
    }
};
Registrar r1("sqlite-wal", [] {
    return std::unique_ptr<Engine>(new SqliteEngine("WAL", "NORMAL"));
});
Registrar r2("sqlite-wal-x", [] {
    return std::unique_ptr<Engine>(new SqliteEngine("WAL", "EXCLUSIVE"));
});
Registrar r3("sqlite-mem-x", [] {
    return std::unique_ptr<Engine>(new SqliteEngine("MEMORY", "EXCLUSIVE"));
});
Registrar r4("sqlite-off-x", [] {
    return std::unique_ptr<Engine>(new SqliteEngine("OFF", "EXCLUSIVE"));
});
Registrar r6("sqlite-default", [] {
    return std::unique_ptr<Engine>(new SqliteEngine("DELETE", "NORMAL", "FULL"));
}); // fsyncs: run with a small --n
Registrar r5("sqlite-off", [] {
    return std::unique_ptr<Engine>(new SqliteEngine("OFF", "NORMAL"));
});
} // namespace
