// people_scene.h: the open table of people as a scene, for books that need one for each of their
// lines: set up when it is made, closed and checked for leftovers when it goes.
#pragma once

#include <functional>
#include <string>

#include "support/person_table.h"

class PeopleScene : public PeopleTest {
  public:
    PeopleScene() { SetUp(); }
    ~PeopleScene() override { TearDown(); }
    PeopleScene(const PeopleScene&) = delete;
    PeopleScene& operator=(const PeopleScene&) = delete;
    void TestBody() override {}

    using PeopleTest::Add;
    using PeopleTest::BlobOf;
    using PeopleTest::BlocksPath;
    using PeopleTest::Close;
    using PeopleTest::Cursor;
    using PeopleTest::database;
    using PeopleTest::DATABASE;
    using PeopleTest::DatabasePath;
    using PeopleTest::databaseVariable;
    using PeopleTest::directory;
    using PeopleTest::ExpectSound;
    using PeopleTest::Fail;
    using PeopleTest::Field;
    using PeopleTest::FIELDS;
    using PeopleTest::FindById;
    using PeopleTest::FindByName;
    using PeopleTest::FIXED_SIZE;
    using PeopleTest::FORMAT;
    using PeopleTest::HomePath;
    using PeopleTest::ListedTable;
    using PeopleTest::MustAdd;
    using PeopleTest::Native;
    using PeopleTest::ObjectOf;
    using PeopleTest::OffsetOf;
    using PeopleTest::Open;
    using PeopleTest::OpenPeople;
    using PeopleTest::OpenTable;
    using PeopleTest::PathOf;
    using PeopleTest::PERSON_MAGIC;
    using PeopleTest::RecordsPath;
    using PeopleTest::Reload;
    using PeopleTest::Reopen;
    using PeopleTest::SetRecordsLength;
    using PeopleTest::TABLE;
    using PeopleTest::table;
    using PeopleTest::table_;
    using PeopleTest::TableCount;
    using PeopleTest::UNTOUCHED;
    using PeopleTest::WithRecordsFile;
};
