#include "table_under_test.h"

#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <unistd.h>

#include "database/index.h"
#include "nim/nim.h"

namespace {

constexpr uint32_t SAMPLE_MAGIC = 0xc8424e43;
constexpr const char* SAMPLE_FORMAT = "i;s;i;q;u;s;";
constexpr const char* SAMPLE_FIELDS = "Id, Name;Indexed, Size;Indexed, Stamp, Hash;Indexed, Note";
constexpr const char* DATABASE = "bench";
constexpr const char* TABLE = "samples";

void Must(bool bDone, const char* what)
{
    if (!bDone)
        throw std::runtime_error(std::string(what) + ", last error " + std::to_string(IndxError()));
}

} // namespace

TableUnderTest::TableUnderTest(const std::string& directory)
{
    directory_ = directory + "/nimdb_bench.XXXXXX";
    Must(mkdtemp(directory_.data()) != nullptr, "no directory for the database");
    Must(
        ObjTemplateCreateInternal(
            &template_, sizeof(SampleRecord), SAMPLE_MAGIC, SAMPLE_FORMAT, nullptr),
        "no template");
    Open();
}

TableUnderTest::~TableUnderTest()
{
    Close();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void TableUnderTest::Open()
{
    PathSetHome(directory_.c_str());
    Must(IndxOpenDatabase(&oDatabase_, DATABASE, nullptr, nullptr), "the database does not open");
    Must(
        IndxOpenTableInternal(
            &oTable_, oDatabase_, TABLE, TABLE, SAMPLE_MAGIC, SAMPLE_FORMAT, SAMPLE_FIELDS, FALSE,
            INDX_VERSION_NONE),
        "the table does not open");
    Must(IndxGetFieldCursor(&oByName_, oTable_, "Name"), "no cursor");
    Must(IndxGetFieldCursor(&oByHash_, oTable_, "Hash"), "no cursor");
}

void TableUnderTest::Close()
{
    IndxReleaseCursor(&oByName_);
    IndxReleaseCursor(&oByHash_);
    IndxReleaseTable(&oTable_);
    IndxCloseDatabase(&oDatabase_);
}

void TableUnderTest::Add(const Sample& sample)
{
    uint32_t pool = MemGetDefaultPoolId();
    void* object = nullptr;
    Must(ObjTemplateCreateInstanceFromPool(&object, template_, pool), "no memory");
    auto& record = *static_cast<SampleRecord*>(object);
    record.name = StrDuplicateRangeIntoPool(sample.name.data(), pool, uint32_t(sample.name.size()));
    record.size = sample.size;
    record.stamp = sample.stamp;
    record.hash = sample.hash;
    record.note = StrDuplicateRangeIntoPool(sample.note.data(), pool, uint32_t(sample.note.size()));
    NimBool bAdded = IndxAddObjectToTable(nullptr, oTable_, object);
    ObjReleaseInternal(&object);
    Must(bAdded, "a record cannot be added");
}

void TableUnderTest::Find(void* oCursor, void* oKey, uint32_t expectedId)
{
    void* object = nullptr;
    bool bFound = IndxFindKey(oCursor, 0, oKey) == INDX_RESULT_FOUND &&
                  IndxGetObjectAtCursor(&object, oCursor);
    bool bRight = bFound && static_cast<SampleRecord*>(object)->id == int32_t(expectedId);
    ObjReleaseInternal(&object);
    ObjReleaseInternal(&oKey);
    Must(bRight, "a record is not found");
}

void TableUnderTest::FindByName(const Sample& sample, uint32_t expectedId)
{
    Find(oByName_, ObjStringNew(sample.name.c_str()), expectedId);
}

void TableUnderTest::FindByHash(const Sample& sample, uint32_t expectedId)
{
    Find(oByHash_, ObjUniqueNew(&sample.hash), expectedId);
}

uint64_t SumOf(uint32_t id, int32_t size, int64_t stamp, size_t nameLength, size_t noteLength)
{
    return uint64_t(id) * 3 + uint64_t(size) * 5 + uint64_t(stamp) + nameLength * 7 +
           noteLength * 11;
}

uint64_t TableUnderTest::Walk(uint64_t& sum)
{
    uint64_t count = 0;
    sum = 0;
    int32_t result = IndxFirstKey(oByName_);
    for (; result == INDX_RESULT_FOUND; result = IndxNextKey(oByName_)) {
        void* object = nullptr;
        Must(IndxGetObjectAtCursor(&object, oByName_), "a record cannot be read");
        const auto& record = *static_cast<SampleRecord*>(object);
        sum += SumOf(
            uint32_t(record.id), record.size, record.stamp, strlen(record.name),
            strlen(record.note));
        ObjReleaseInternal(&object);
        ++count;
    }
    return count;
}

void TableUnderTest::ForgetNodes()
{
    Must(IndxUpdateTable(oTable_), "the table is not updated");
}

BlockFileFacts TableUnderTest::Inspect() const
{
    return InspectBlockFile(directory_ + "/db/" + DATABASE + "/Indexes/" + TABLE);
}

uint64_t TableUnderTest::RecordBytes() const
{
    return std::filesystem::file_size(directory_ + "/db/" + DATABASE + "/Records/" + TABLE);
}
