// table_model_test.cpp: random operations on whole tables of random schemas against a model in
// memory: adding, setting, modifying, deleting, finding, walking, reading in part, moving cursors,
// closing and opening again. Every answer is compared; after every thousand operations and at the
// end of each schema the trees are checked, and every record is sought through every index and
// compared item by item.
//
// NIM_TEST_SEED replays a run: the seed is printed. NIM_TEST_OPERATIONS sets the number of
// operations of the whole program, of which each part takes its share (support/effort.h).

#include <gtest/gtest.h>

#include <iostream>
#include <memory>

#include "database/indexwrappers.h"
#include "database/table_model.h"
#include "support/database_fixture.h"
#include "support/effort.h"
#include "support/quiet_trace.h"
#include "support/seed.h"
#include "support/tree_check.h"

namespace {

constexpr uint32_t PARTS = 8;
constexpr uint32_t SCHEMAS = 32; // of each part
constexpr uint32_t CHECK_INTERVAL = 1000;
constexpr uint32_t FIRST_MAGIC = 0xca500000;
constexpr uint32_t UNTOUCHED = 7777;       // a last error that nothing sets
constexpr uint32_t LAST_ID = 0x7ffffff0;   // ids beyond leave the window
constexpr uint32_t BAD_TEXT_LENGTH = 8168; // without its NUL; one too long for an index

// The share of each part.
uint64_t PartOperations()
{
    return ModelOperations() / PARTS;
}

// ---- a cursor and where it should stand
// ----------------------------------------------------------

struct TrackedCursor {
    enum Place { Beginning, On, End };

    void* oCursor = nullptr;
    size_t field = 0;
    Place place = Beginning;
    OrderedKey key; // when on one, which may have gone since
};

// ---- one schema
// ------------------------------------------------------------------------------------

class TableRun {
  public:
    // `open` opens the database if it is closed and gives the table, borrowed; `close` closes both.
    struct Database {
        std::function<void*(const Schema&)> open;
        std::function<void()> close;
        std::string recordsPath;
    };

    TableRun(const Schema& schema, uint32_t magic, Database database, Random& random)
        : schema_(schema), indexed_(schema.Indexed()), database_(std::move(database)),
          random_(random), model_(schema)
    {
        ObjTemplateCreateInternal(
            &pTemplate_, OBJ_SIZE_COMPUTED, magic, schema.format.c_str(), nullptr);
    }

    void Run(uint64_t operations)
    {
        OpenAll();
        if (random_.OneIn(8)) // some tables have large ids
            AddWithId(1 + static_cast<uint32_t>(random_.Below(LAST_ID - 100'000)), NewRow());
        for (uint64_t n = 1; n <= operations && !testing::Test::HasFailure(); ++n) {
            if (phaseLeft_-- == 0)
                NewPhase();
            Operate();
            if (n % CHECK_INTERVAL == 0)
                Check();
        }
        Check();
        Reopen();
        Check();
        CloseAll();
    }

  private:
    // ---- opening and closing ----

    void OpenAll()
    {
        table_ = database_.open(schema_);
        ASSERT_NE(table_, nullptr);
        IndxSetError(UNTOUCHED);
        for (TrackedCursor& tracked : cursors_) {
            tracked = {};
            tracked.field = AnyIndex();
            ASSERT_EQ(
                IndxGetFieldCursor(
                    &tracked.oCursor, table_, schema_.fields[tracked.field].name.c_str()),
                1u);
            ASSERT_EQ(IndxCursorBOI(tracked.oCursor), 1u);
        }
    }
    void CloseAll()
    {
        for (TrackedCursor& tracked : cursors_)
            IndxReleaseCursor(&tracked.oCursor);
        table_ = nullptr;
        database_.close();
    }
    void Reopen()
    {
        CloseAll();
        model_.Reopen();
        OpenAll();
        EXPECT_EQ(IndxNextId(table_), model_.highest() + 1);
    }

    // ---- choosing ----

    size_t AnyIndex() { return indexed_[random_.Below(indexed_.size())]; }
    uint32_t AnyId()
    {
        const auto& records = model_.records();
        // Near a random id, so that nothing has to be counted.
        auto at = records.lower_bound(static_cast<uint32_t>(random_.Below(model_.highest() + 1)));
        if (at == records.end())
            at = records.begin();
        for (uint64_t steps = random_.Below(4); steps > 0 && std::next(at) != records.end();
             --steps)
            ++at;
        return at->first;
    }
    uint32_t AbsentId()
    {
        for (;;) {
            const auto id =
                static_cast<uint32_t>(1 + random_.Below(uint64_t{model_.highest()} + 50));
            if (!model_.records().count(id) && id <= LAST_ID)
                return id;
        }
    }
    Value NewValue(const FieldSpec& field)
    {
        // Of unique values mostly one that was never used.
        const uint64_t n = field.domain == UINT64_MAX
                               ? (random_.OneIn(12) ? random_.Below(next_ + 1) : ++next_)
                               : random_.Below(field.domain);
        return MakeValue(field, n, random_);
    }
    Row NewRow()
    {
        Row row;
        for (const FieldSpec& field : schema_.fields)
            row.push_back(NewValue(field));
        SpoilSometimes(&row);
        SetId(schema_, &row, static_cast<uint32_t>(random_.Word()));
        return row;
    }
    // The row with some items, or none, replaced.
    Row ChangedRow(Row row)
    {
        const uint64_t changes = random_.Below(5);
        for (size_t i = 0; i < row.size(); ++i) {
            const FieldSpec& field = schema_.fields[i];
            if (changes == 4 || (changes >= 2 && random_.OneIn(3)) ||
                (changes == 1 && !field.indexed))
                row[i] = NewValue(field);
        }
        SpoilSometimes(&row);
        return row;
    }
    // An indexed text that is not there or too long: refused.
    void SpoilSometimes(Row* pRow)
    {
        if (!random_.OneIn(60))
            return;
        const size_t field = AnyIndex();
        if (schema_.fields[field].letter == 's')
            (*pRow)[field] = random_.OneIn(2) ? Value{true, ""}
                                              : Value{false, std::string(BAD_TEXT_LENGTH, 'x')};
    }

    // ---- operations ----

    // For a while a table mostly grows, mostly shrinks, or does either.
    void NewPhase()
    {
        const uint64_t percents[] = {95, 80, 60, 60, 40, 10};
        phaseLeft_ = 100 + random_.Below(1 + schema_.maximumLive);
        addPercent_ = percents[random_.Below(std::size(percents))];
        // A large table is filled first.
        if (model_.highest() < schema_.maximumLive / 2)
            addPercent_ = 95;
    }
    void Operate()
    {
        const uint64_t what = random_.Below(1000);
        if (what < 4)
            return Reopen();
        if (what < 8)
            return WalkAll();
        if (what < 20)
            return Store();
        if (what < 120)
            return Find();
        if (what < 220)
            return MoveCursor();
        if (what < 260 && !model_.records().empty())
            return ReadInPart();
        const bool full = model_.records().size() >= schema_.maximumLive;
        if (model_.records().empty() || (!full && random_.Below(100) < addPercent_))
            return random_.OneIn(4) ? AddWithId(SomeId(), NewRow()) : Add(NewRow());
        if (random_.OneIn(full || addPercent_ < 20 ? 2 : 4))
            return Delete(AnyId());
        Modify(AnyId());
    }
    void Store()
    {
        EXPECT_EQ(IndxUpdateTable(table_), 1u);
        model_.Store();
    }
    uint32_t SomeId()
    {
        return random_.OneIn(4) && !model_.records().empty() ? AnyId() : AbsentId();
    }
    // An operation's answer, and the last error that it leaves.
    void ExpectAnswer(NimBool answer, bool refused, uint32_t error)
    {
        EXPECT_EQ(answer, refused ? 0u : 1u);
        EXPECT_EQ(IndxError(), refused ? error : UNTOUCHED);
        IndxSetError(UNTOUCHED);
    }
    Held Object(const Row& row) { return MakeObject(schema_, pTemplate_, row); }

    void Add(const Row& row)
    {
        if (model_.highest() >= LAST_ID)
            return;
        const uint32_t expected = model_.IssueId();
        const bool refused = model_.Refuses(expected, row, true);
        uint32_t id = 0;
        const Held object = Object(row);
        NimBool answer;
        if (random_.OneIn(2)) {
            answer = IndxAddObjectToTable(&id, table_, object.get());
        } else {
            const Held blob = Encoded(object.get());
            answer = IndxAddRecordToTable(&id, table_, blob.get());
        }
        ExpectAnswer(answer, refused, INDX_ERROR_UPDATE);
        EXPECT_EQ(id, refused ? 0u : expected);
        if (!refused)
            model_.Add(expected, row);
    }
    void AddWithId(uint32_t id, const Row& row)
    {
        const bool refused = model_.Refuses(id, row, true);
        const Held blob = Encoded(Object(row).get());
        ExpectAnswer(IndxSetRecordInTable(id, table_, blob.get()), refused, INDX_ERROR_UPDATE);
        if (!refused)
            model_.Add(id, row);
    }

    void Modify(uint32_t id)
    {
        Row row = ChangedRow(model_.records().at(id).row);
        const bool refused = model_.Refuses(id, row, false);
        const uint64_t way = random_.Below(3);
        // Which id the new form carries: the same, none, or a wrong one.
        const uint64_t which = random_.Below(12);
        uint32_t given = id;
        if (which == 0)
            given = AbsentId();
        else if (which == 1 && way != 0)
            given = 0;
        SetId(schema_, &row, given);
        const bool wrong = given != id && given != 0;
        const Held object = Object(row);
        NimBool answer = 0;
        uint32_t error = UNTOUCHED;
        if (way == 0) { // finds the record by the id it is given
            answer = IndxModifyObject(table_, object.get());
        } else {
            if (wrong)
                error = INDX_ERROR_ID_MISMATCH;
            answer = way == 1
                         ? ModifyAtCursor(id, object.get())
                         : IndxModifyRecordInTable(
                               table_, model_.records().at(id).offset, Encoded(object.get()).get());
        }
        ExpectAnswer(answer, refused || wrong, error);
        if (!refused && !wrong)
            model_.Modify(id, row);
    }
    NimBool ModifyAtCursor(uint32_t id, void* oObject)
    {
        void* oCursor = CursorOn(id);
        const NimBool answer = IndxModifyObjectAtCursor(oCursor, oObject);
        IndxReleaseCursor(&oCursor);
        return answer;
    }
    // A cursor on a record, by any index that can find it.
    void* CursorOn(uint32_t id)
    {
        size_t field = AnyIndex();
        const Row& row = model_.records().at(id).row;
        if (!IsSearchable(schema_.fields[field], row[field]))
            field = schema_.idField;
        const FieldSpec& spec = schema_.fields[field];
        void* oCursor = nullptr;
        EXPECT_EQ(IndxGetFieldCursor(&oCursor, table_, spec.name.c_str()), 1u);
        const Held key = KeyObject(spec, row[field]);
        EXPECT_EQ(IndxFindKey(oCursor, id, key.get()), INDX_RESULT_FOUND) << spec.name;
        return oCursor;
    }

    void Delete(uint32_t id)
    {
        NimBool answer;
        if (random_.OneIn(2)) {
            void* oCursor = CursorOn(id);
            answer = IndxDeleteRecord(oCursor);
            IndxReleaseCursor(&oCursor);
        } else {
            size_t field = AnyIndex();
            const Row& row = model_.records().at(id).row;
            if (!IsSearchable(schema_.fields[field], row[field]))
                field = schema_.idField;
            const FieldSpec& spec = schema_.fields[field];
            const Held key = KeyObject(spec, row[field]);
            answer = IndxDeleteObjectFromTable(table_, spec.name.c_str(), id, key.get());
        }
        ExpectAnswer(answer, false, 0);
        model_.Delete(id);
        if (random_.OneIn(5)) {
            ExpectAnswer(IndxDeleteObjectFromTable(table_, "Id", id, nullptr), true, UNTOUCHED);
        }
    }

    // ---- finding and reading ----

    // A value that a record has or had or never had, with and without an id.
    void Find()
    {
        const size_t field = AnyIndex();
        const FieldSpec& spec = schema_.fields[field];
        const bool known = !model_.records().empty() && !random_.OneIn(3);
        const uint32_t holder = known ? AnyId() : 0;
        const Value value = known ? model_.records().at(holder).row[field] : NewValue(spec);
        uint32_t id = random_.OneIn(2) ? 0 : known && random_.OneIn(2) ? holder : AbsentId();
        if (spec.isId)
            id = known ? holder : AbsentId();
        if (!IsSearchable(spec, value))
            return;
        const OrderedKeys& keys = model_.index(field);
        const OrderedKey wanted = model_.KeyOf(field, value, id);
        const auto at = keys.lower_bound(spec.unique ? OrderedKey(wanted.first, 0) : wanted);
        const bool sameValue = at != keys.end() && at->first == wanted.first;
        const bool found = sameValue && (spec.unique || id == 0 || at->second == id);

        TrackedCursor& tracked = cursors_[random_.Below(std::size(cursors_))];
        void* oOther = nullptr;
        void* oCursor = tracked.oCursor;
        if (tracked.field != field) {
            ASSERT_EQ(IndxGetFieldCursor(&oOther, table_, spec.name.c_str()), 1u);
            oCursor = oOther;
        }
        const Held key = KeyObject(spec, value);
        EXPECT_EQ(
            IndxFindKey(oCursor, id, key.get()), found ? INDX_RESULT_FOUND : INDX_RESULT_NOT_FOUND)
            << spec.name;
        ExpectStandsOn(oCursor, at, keys);
        if (oOther) {
            IndxReleaseCursor(&oOther);
        } else {
            tracked.place = at == keys.end() ? TrackedCursor::End : TrackedCursor::On;
            if (at != keys.end())
                tracked.key = *at;
        }
        Held object;
        EXPECT_EQ(
            IndxGetObjectFromTable(object.out(), table_, spec.name.c_str(), id, key.get()),
            found ? 1u : 0u);
        if (found)
            ExpectIs(object.get(), at->second);
    }
    void ExpectStandsOn(void* oCursor, OrderedKeys::const_iterator at, const OrderedKeys& keys)
    {
        const auto* pCursor = static_cast<IndxCursor*>(oCursor);
        if (at == keys.end()) {
            EXPECT_EQ(pCursor->status, INDX_AT_END);
            return;
        }
        ASSERT_EQ(pCursor->status, INDX_ON_KEY);
        ASSERT_NE(pCursor->oKey, nullptr);
        EXPECT_EQ(pCursor->oKey->recordId, at->second);
        EXPECT_EQ(pCursor->oKey->fileOffset, model_.records().at(at->second).offset);
    }
    void ExpectIs(const void* object, uint32_t id)
    {
        ASSERT_NE(object, nullptr);
        EXPECT_TRUE(RowOf(schema_, object) == model_.records().at(id).row) << "record " << id;
    }

    // One step of a cursor that has been open since the table was: the key behind or before the one
    // it stood on, whether that one is still there or not.
    void MoveCursor()
    {
        TrackedCursor& tracked = cursors_[random_.Below(std::size(cursors_))];
        const OrderedKeys& keys = model_.index(tracked.field);
        auto* pCursor = static_cast<IndxCursor*>(tracked.oCursor);
        // In a unique index a value is the same key whichever record has it by now.
        const std::string& value = tracked.key.first;
        const bool unique = schema_.fields[tracked.field].unique;
        const uint32_t firstId = unique ? 0 : tracked.key.second;
        const uint32_t lastId = unique ? UINT32_MAX : tracked.key.second;
        if (random_.OneIn(2)) {
            IndxNextKey(pCursor);
            const auto at = tracked.place == TrackedCursor::Beginning ? keys.begin()
                            : tracked.place == TrackedCursor::On ? keys.upper_bound({value, lastId})
                                                                 : keys.end();
            ExpectStandsOn(pCursor, at, keys);
            tracked.place = at == keys.end() ? TrackedCursor::End : TrackedCursor::On;
            if (at != keys.end())
                tracked.key = *at;
            return;
        }
        IndxPreviousKey(pCursor);
        auto at = tracked.place == TrackedCursor::Beginning ? keys.begin()
                  : tracked.place == TrackedCursor::On      ? keys.lower_bound({value, firstId})
                                                            : keys.end();
        if (at == keys.begin()) {
            EXPECT_EQ(pCursor->status, INDX_AT_BEGINNING);
            tracked.place = TrackedCursor::Beginning;
            return;
        }
        ExpectStandsOn(pCursor, --at, keys);
        tracked.place = TrackedCursor::On;
        tracked.key = *at;
    }

    void ReadInPart()
    {
        const uint32_t id = AnyId();
        std::vector<uint32_t> selected(schema_.fields.size());
        for (uint32_t& flag : selected)
            flag = random_.OneIn(2);
        void* oCursor = CursorOn(id);
        {
            Held whole;
            EXPECT_EQ(IndxGetPartialObjectAtCursor(whole.out(), oCursor, selected.data()), 1u);
            ExpectIs(whole.get(), id);
            Held fixed;
            EXPECT_EQ(IndxGetPartialObjectAtCursor(fixed.out(), oCursor, nullptr), 1u);
            EXPECT_TRUE(
                RowOf(schema_, fixed.get()) ==
                WithoutVariableFields(schema_, model_.records().at(id).row));
            Held record;
            EXPECT_EQ(IndxGetRecordAtCursor(record.out(), oCursor), 1u);
            Held partial;
            EXPECT_EQ(IndxGetPartialRecordAtCursor(partial.out(), oCursor, selected.data()), 1u);
            EXPECT_EQ(RecordBytes(record.get()), RecordBytes(partial.get()));
            EXPECT_EQ(RecordBytes(record.get()).size(), model_.records().at(id).length);
        }
        IndxReleaseCursor(&oCursor);
    }

    // ---- walking and checking ----

    struct Walk {
        TableRun* pRun;
        OrderedKeys::const_iterator at;
        OrderedKeys::const_iterator end;
        uint64_t left; // steps until it is stopped
        bool partial;
    };
    static uint32_t Visit(void* oObject, void* context)
    {
        auto* pWalk = static_cast<Walk*>(context);
        if (pWalk->at == pWalk->end)
            return 2;
        const uint32_t id = pWalk->at->second;
        ++pWalk->at;
        if (pWalk->partial) {
            const Row expected = WithoutVariableFields(
                pWalk->pRun->schema_, pWalk->pRun->model_.records().at(id).row);
            EXPECT_TRUE(RowOf(pWalk->pRun->schema_, oObject) == expected) << "record " << id;
        } else {
            pWalk->pRun->ExpectIs(oObject, id);
        }
        return pWalk->left-- == 0 ? 4711 : 1;
    }
    static uint32_t VisitWithId(void* oObject, void* context, uint32_t id)
    {
        const auto* pWalk = static_cast<Walk*>(context);
        if (pWalk->at != pWalk->end) {
            EXPECT_EQ(id, pWalk->at->second);
        }
        return Visit(oObject, context);
    }
    void WalkAll() { WalkIndex(AnyIndex(), random_.OneIn(2) ? random_.Below(50) : UINT64_MAX); }
    void WalkIndex(size_t field, uint64_t left)
    {
        const OrderedKeys& keys = model_.index(field);
        Walk walk = {this, keys.begin(), keys.end(), left, false};
        const char* name = schema_.fields[field].name.c_str();
        const uint32_t expected = left < keys.size() ? 4711 : 1;
        uint32_t result;
        switch (random_.Below(3)) {
        case 0:
            result = IndxWalkTable(table_, name, Visit, &walk);
            break;
        case 1:
            result = IndxWalkTableWithRecordId(table_, name, VisitWithId, &walk);
            break;
        default:
            walk.partial = true;
            result = IndxWalkTableWithPartialRecords(table_, nullptr, name, Visit, &walk);
            break;
        }
        EXPECT_EQ(result, expected);
        if (expected == 1) {
            EXPECT_TRUE(walk.at == walk.end);
        }
    }

    void Check()
    {
        ASSERT_FALSE(testing::Test::HasFailure());
        // The blocks of reads are given up, so that the file is what counts.
        Store();
        EXPECT_EQ(std::filesystem::file_size(database_.recordsPath), model_.fileEnd());
        const TreeReport report = CheckTable(table_);
        ASSERT_TRUE(report.problems.empty()) << report.text();
        ASSERT_EQ(report.indexes.size(), indexed_.size());
        for (size_t i = 0; i < indexed_.size(); ++i)
            CheckIndex(report.indexes[i], indexed_[i]);
        WalkIndex(AnyIndex(), UINT64_MAX);
        for (const auto& [id, record] : model_.records()) {
            Held object;
            EXPECT_EQ(IndxGetObjectFromTable(object.out(), table_, "Id", id, nullptr), 1u);
            ExpectIs(object.get(), id);
        }
        EXPECT_EQ(IndxError(), UNTOUCHED);
    }
    // The leaves hold exactly the model's keys, each with its record's place, and a find leads to
    // every one of them.
    void CheckIndex(const IndexReport& report, size_t field)
    {
        const FieldSpec& spec = schema_.fields[field];
        const OrderedKeys& keys = model_.index(field);
        ASSERT_EQ(report.entries.size(), keys.size()) << spec.name;
        void* oCursor = nullptr;
        ASSERT_EQ(IndxGetFieldCursor(&oCursor, table_, spec.name.c_str()), 1u);
        size_t position = 0;
        for (auto at = keys.begin(); at != keys.end(); ++at, ++position) {
            const TreeEntry& entry = report.entries[position];
            const TableModel::Record& record = model_.records().at(at->second);
            EXPECT_EQ(entry.id, at->second) << spec.name;
            EXPECT_EQ(entry.offset, record.offset) << spec.name;
            if (!IsSearchable(spec, record.row[field]))
                continue;
            const Held key = KeyObject(spec, record.row[field]);
            EXPECT_EQ(IndxFindKey(oCursor, at->second, key.get()), INDX_RESULT_FOUND);
            ExpectStandsOn(oCursor, at, keys);
            if (testing::Test::HasFailure())
                break;
        }
        IndxReleaseCursor(&oCursor);
    }

    const Schema& schema_;
    const std::vector<size_t> indexed_;
    Database database_;
    Random& random_;
    TableModel model_;
    ObjTemplate* pTemplate_ = nullptr;
    void* table_ = nullptr;
    TrackedCursor cursors_[4];
    uint64_t addPercent_ = 50; // of the changes, how many add
    uint64_t phaseLeft_ = 0;
    uint64_t next_ = 0; // the last number that was used for a value
};

// ---- the parts of the run
// ----------------------------------------------------------------------------

class TableAgainstModel : public DatabaseTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(TableAgainstModel, TablesOfAnySchemaAnswerAsTheModelDoes)
{
    const uint64_t seed = TestSeed();
    const QuietTrace quiet;
    const LogRecorder log;
    FileSysSetMapping(GetParam() % 4 == 3 ? FALSE : TRUE); // some parts with plain reads
    for (uint32_t i = 0; i < SCHEMAS && !HasFailure(); ++i) {
        const uint32_t number = GetParam() * SCHEMAS + i;
        Random random(seed + number * 0x9e3779b97f4a7c15);
        // The first of each part gets the other half of the part's operations.
        const bool large = i == 0;
        const Schema schema = MakeSchema(random, large);
        SCOPED_TRACE(
            "schema " + std::to_string(number) + ": \"" + schema.format + "\", \"" +
            schema.fieldsText + "\"");
        const std::string name = "T" + std::to_string(number);
        const uint32_t magic = FIRST_MAGIC + number;
        TableRun run(
            schema, magic,
            {[&](const Schema& s) {
                 if (!database() && !Open(name))
                     return static_cast<void*>(nullptr);
                 return OpenTable("Table", magic, s.format.c_str(), s.fieldsText.c_str());
             },
             [&] { Close(); }, HomePath() + "/" + name + "/Records/Table"},
            random);
        run.Run(PartOperations() / 2 / (large ? 1 : SCHEMAS - 1) + 1);
        Close();
        std::filesystem::remove_all(HomePath() + "/" + name);
    }
    FileSysSetMapping(TRUE);
    EXPECT_TRUE(log.empty()) << log.dump();
}

INSTANTIATE_TEST_SUITE_P(Parts, TableAgainstModel, testing::Range(0u, PARTS));

} // namespace
