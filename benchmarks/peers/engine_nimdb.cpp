// This library, used the way a host would: the exported C interface, one object a record.
//   nimdb           files are read through mappings, as they are by default
//   nimdb-unmapped  files are read with positioned reads (FileSysSetMapping)
//   nimdb-mapped-writes  what lies inside a file is written through the mapping, too
// Cursors stay open between operations, as the other engines keep their statements and handles.
#include "block_file_inspector.h"
#include "engine.h"
#include "nimdb_table.h"

#include <database/index.h>
#include <nim/nim.h>

namespace {

void Must(bool bDone, const char* what)
{
    if (!bDone)
        die(std::string("nimdb ") + what + ", last error " + std::to_string(IndxError()));
}

void Fetch(void* oCursor, Record& out)
{
    void* oObject = nullptr;
    Must(IndxGetObjectAtCursor(&oObject, oCursor), "read");
    const auto* pSample = static_cast<const Sample*>(oObject);
    out.id = pSample->id;
    out.name = pSample->name;
    out.size = pSample->size;
    out.stamp = pSample->stamp;
    memcpy(out.hash, &pSample->hash, sizeof out.hash);
    out.note = pSample->note;
    ObjReleaseInternal(&oObject);
}

// Takes the key object over.
bool FindAndFetch(void* oCursor, void* oKey, Record& out)
{
    bool bFound = IndxFindKey(oCursor, 0, oKey) == INDX_RESULT_FOUND;
    ObjReleaseInternal(&oKey);
    if (bFound)
        Fetch(oCursor, out);
    return bFound;
}

class NimdbEngine : public Engine {
    bool bMapped_;
    bool bStoring_;
    uint32_t pool_ = 0;
    ObjTemplate* type_ = nullptr;
    void* oDatabase_ = nullptr;
    void* oTable_ = nullptr;
    void* oById_ = nullptr;
    void* oByName_ = nullptr;
    void* oByHash_ = nullptr;
    void* oBySize_ = nullptr;

    bool Position(int32_t id)
    {
        return IndxFindKey(oById_, uint32_t(id), nullptr) == INDX_RESULT_FOUND;
    }

    char* Text(const std::string& text) const
    {
        return StrDuplicateRangeIntoPool(text.data(), pool_, uint32_t(text.size()));
    }

  public:
    NimdbEngine(bool bMapped, bool bStoring) : bMapped_(bMapped), bStoring_(bStoring) {}

    std::string version() const override { return "this checkout"; }

    void open(const std::string& dir, bool, uint64_t) override
    {
        FileSysSetMapping(bMapped_);
        FileSysSetMappedWriting(bStoring_);
        pool_ = MemGetDefaultPoolId();
        Must(
            ObjTemplateCreateInternal(&type_, sizeof(Sample), SAMPLE_MAGIC, SAMPLE_FORMAT, nullptr),
            "template");
        Must(PathSetHome(dir.c_str()), "home");
        Must(IndxOpenDatabase(&oDatabase_, SAMPLE_DATABASE, nullptr, nullptr), "open database");
        Must(
            IndxOpenTableInternal(
                &oTable_, oDatabase_, SAMPLE_TABLE, SAMPLE_TABLE, SAMPLE_MAGIC, SAMPLE_FORMAT,
                SAMPLE_FIELDS, FALSE, INDX_VERSION_NONE),
            "open table");
        Must(IndxGetFieldCursor(&oById_, oTable_, "Id"), "cursor");
        Must(IndxGetFieldCursor(&oByName_, oTable_, "Name"), "cursor");
        Must(IndxGetFieldCursor(&oByHash_, oTable_, "Hash"), "cursor");
        Must(IndxGetFieldCursor(&oBySize_, oTable_, "Size"), "cursor");
    }

    void insert(Record& r) override
    {
        void* oObject = nullptr;
        Must(ObjTemplateCreateInstanceFromPool(&oObject, type_, pool_), "object");
        auto* pSample = static_cast<Sample*>(oObject);
        pSample->name = Text(r.name);
        pSample->size = r.size;
        pSample->stamp = r.stamp;
        memcpy(&pSample->hash, r.hash, sizeof r.hash);
        pSample->note = Text(r.note);
        uint32_t id = 0;
        Must(IndxAddObjectToTable(&id, oTable_, oObject), "add");
        ObjReleaseInternal(&oObject);
        r.id = int32_t(id);
    }

    bool find_by_name(const std::string& name, Record& out) override
    {
        return FindAndFetch(oByName_, ObjStringNew(name.c_str()), out);
    }

    bool find_by_hash(const uint8_t hash[32], Record& out) override
    {
        UniqueId id;
        memcpy(&id, hash, sizeof id);
        return FindAndFetch(oByHash_, ObjUniqueNew(&id), out);
    }

    bool find_by_id(int32_t id, Record& out) override
    {
        if (!Position(id))
            return false;
        Fetch(oById_, out);
        return true;
    }

    bool find_by_size(int32_t size, Record& out) override
    {
        return FindAndFetch(oBySize_, ObjIntegerNew(size), out);
    }

    void walk_by_name(Sink& sink) override
    {
        Record r;
        int32_t result = IndxFirstKey(oByName_);
        for (; result == INDX_RESULT_FOUND; result = IndxNextKey(oByName_)) {
            Fetch(oByName_, r);
            sink.take(r);
        }
        Must(result == INDX_RESULT_NO_KEY, "walk");
    }

    bool modify_size(int32_t id, int32_t size) override
    {
        if (!Position(id))
            return false;
        void* oObject = nullptr;
        Must(IndxGetObjectAtCursor(&oObject, oById_), "read");
        static_cast<Sample*>(oObject)->size = size;
        Must(IndxModifyObjectAtCursor(oById_, oObject), "modify");
        ObjReleaseInternal(&oObject);
        return true;
    }

    bool erase(int32_t id) override
    {
        if (!Position(id))
            return false;
        Must(IndxDeleteRecord(oById_), "delete");
        return true;
    }

    void close() override
    {
        for (void** poCursor : {&oById_, &oByName_, &oByHash_, &oBySize_})
            IndxReleaseCursor(poCursor);
        IndxReleaseTable(&oTable_);
        Must(IndxCloseDatabase(&oDatabase_), "close");
    }

    std::vector<std::pair<std::string, int>> levels(const std::string& dir) const override
    {
        std::vector<std::pair<std::string, int>> result;
        auto file = dir + "/db/" + SAMPLE_DATABASE + "/Indexes/" + SAMPLE_TABLE;
        for (const IndexFacts& index : InspectBlockFile(file).indexes)
            result.emplace_back(index.field, index.levels);
        return result;
    }
};

Registrar r1("nimdb", [] { return std::unique_ptr<Engine>(new NimdbEngine(true, false)); });
Registrar r2("nimdb-unmapped", [] {
    return std::unique_ptr<Engine>(new NimdbEngine(false, false));
});
Registrar r3("nimdb-mapped-writes", [] {
    return std::unique_ptr<Engine>(new NimdbEngine(true, true));
});

} // namespace
