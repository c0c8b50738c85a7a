// full_disk_test.cpp: modifications and deletions on a disk that is full. What they cannot do they
// refuse, and leave everything as it was. The exception is the design's: a modified record that
// moves to the end of the records file and finds no room there is lost, it alone; its keys stay.

#include <random>

#include <gtest/gtest.h>

#include "database/indexwrappers.h"
#include "support/fault_sweep.h"
#include "support/seed.h"
#include "support/small_disk.h"

namespace {

class FullDiskChange : public FaultSweep {
  protected:
    // One random change. Records that were torn are left alone.
    void ChangeSomething(void* oTable, std::mt19937& random)
    {
        auto it = model_.begin();
        std::advance(it, random() % model_.size());
        const uint32_t id = it->first;
        if (torn_.count(id))
            return;
        const Person former = it->second;
        if (random() % 4 == 0) {
            if (IndxDeleteObjectFromTable(oTable, "Id", id, nullptr))
                model_.erase(it);
            else
                ++refused_;
            return;
        }
        Person wanted = MakePerson(
            300000 + next_++, random() % 3 ? 0 : 2000 + random() % 4000, random() % 5 ? 0 : 3000);
        wanted.id = id;
        wanted.photo.assign(random() % 200, 'p');
        if (!IndxModifyObject(oTable, ObjectOf(wanted).get())) {
            ++refused_;
            ASSERT_EQ(FindById(oTable, id), former);
            return;
        }
        it->second = wanted;
        if (FindById(oTable, id) != wanted)
            torn_.insert(id);
    }
    void Add(void* oTable, uint32_t n)
    {
        Person person = MakePerson(200000 + n, n % 2 ? 3000 : 0);
        if (PersonTest::Add(oTable, &person))
            model_[person.id] = person;
        else
            ++refused_;
    }

    People model_;
    std::set<uint32_t> torn_;
    uint32_t refused_ = 0;
    uint32_t next_ = 0; // no two share a name
};

class FullDiskKinds : public FullDiskChange, public testing::WithParamInterface<SmallDisk::Kind> {};

INSTANTIATE_TEST_SUITE_P(
    Disks, FullDiskKinds,
    testing::Values(SmallDisk::MOUNTED, SmallDisk::LIMITED, SmallDisk::FAULTY));

TEST_P(FullDiskKinds, NoOtherRecordIsLost)
{
    std::mt19937 random(static_cast<uint32_t>(TestSeed()));
    ASSERT_TRUE(Open());
    AddPeople(OpenPeople(), &model_, 0, 60);
    Close();
    SmallDisk disk(GetParam(), DatabasePath(), 400 * 1024);
    SCOPED_TRACE(disk.description());
    const QuietTrace quiet;
    LogRecorder log;
    ASSERT_TRUE(Open());
    void* oTable = OpenPeople();
    for (uint32_t n = 0; n < 1500 && model_.size() > torn_.size() + 5; ++n) {
        if (n % 3 == 0)
            Add(oTable, n);
        ASSERT_NO_FATAL_FAILURE(ChangeSomething(oTable, random)) << n;
        if (n % 50 == 0) {
            ASSERT_NO_FATAL_FAILURE(ExpectHoldsBut(oTable, model_, torn_)) << n;
        }
    }
    EXPECT_GT(refused_, 20u) << "the disk did not get full";
    // Where the system tells beforehand that there is no room, nothing is lost at all.
    if (disk.kind() != SmallDisk::FAULTY) {
        EXPECT_TRUE(torn_.empty());
    }
    // Nothing that was in memory met the full disk on its way out.
    EXPECT_EQ(log.count(1300), 0u) << log.dump();
    EXPECT_EQ(log.count(1298), 0u) << log.dump();
    EXPECT_EQ(log.count(1301), 0u) << log.dump();
    ASSERT_TRUE(Reopen());
    ASSERT_NO_FATAL_FAILURE(ExpectHoldsBut(OpenPeople(), model_, torn_));
    // With room again the table goes on.
    Close();
    disk.Enlarge();
    ASSERT_TRUE(Open());
    oTable = OpenPeople();
    const uint32_t refused = refused_;
    const size_t torn = torn_.size();
    for (uint32_t n = 0; n < 60; ++n) {
        Add(oTable, 5000 + n);
        ASSERT_NO_FATAL_FAILURE(ChangeSomething(oTable, random)) << n;
    }
    EXPECT_EQ(refused_, refused);
    EXPECT_EQ(torn_.size(), torn);
    ASSERT_TRUE(Reopen());
    ASSERT_NO_FATAL_FAILURE(ExpectHoldsBut(OpenPeople(), model_, torn_));
    Close();
    std::cout << refused << " refused, " << torn << " torn" << std::endl;
}

// What fits in its place needs no room: neither on a full disk nor where no file may get longer
// than the longest one is.
TEST_F(FullDiskChange, ChangesThatNeedNoRoomAreDone)
{
    ASSERT_TRUE(Open());
    AddPeople(OpenPeople(), &model_, 0, 200);
    Close();
    const uint64_t longest = std::max(
        std::filesystem::file_size(BlocksPath()), std::filesystem::file_size(RecordsPath()));
    for (const SmallDisk::Kind kind : {SmallDisk::MOUNTED, SmallDisk::LIMITED}) {
        SmallDisk disk(
            kind, DatabasePath(), kind == SmallDisk::MOUNTED ? 1024 * 1024 : 2 * longest);
        if (disk.kind() == SmallDisk::FAULTY)
            GTEST_SKIP() << "faults refuse also what fits in its place";
        SCOPED_TRACE(disk.description());
        if (kind == SmallDisk::MOUNTED)
            disk.Fill();
        People model = model_;
        LogRecorder log;
        ASSERT_TRUE(Open());
        void* oTable = OpenPeople();
        for (uint32_t id = 1; id <= 100; ++id) {
            Person& person = model.at(id);
            person.age = 90 - person.age;
            person.photo.clear();
            ASSERT_EQ(IndxModifyObject(oTable, ObjectOf(person).get()), 1u) << id;
        }
        for (uint32_t id = 101; id <= 190; ++id) {
            ASSERT_EQ(IndxDeleteObjectFromTable(oTable, "Id", id, nullptr), 1u) << id;
            model.erase(id);
        }
        ExpectHolds(oTable, model);
        EXPECT_TRUE(log.empty()) << log.dump();
        ASSERT_TRUE(Reopen());
        ExpectHolds(OpenPeople(), model);
        Close();
        disk.Enlarge();
        if (HasFailure())
            break;
    }
}

} // namespace
