// The answer of the table calls to an allocation failure. This program
// links the replaced operator new of support/FailingOperatorNew.h, which
// shares FaultAlloc's countdown (support/FaultVfs.h): a test arms it for
// the n-th allocation from then on, which throws std::bad_alloc as the
// standard one does. The call under test must return -1 with one
// "<call> out of memory.\n" entry, change no row, and the next call must
// work.
#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "DbFilter.h"
#include "FaultVfs.h"
#include "Meta.h"
#include "Table.h"
#include "TableTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::DbTest;
using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::FaultAlloc;
using ipc_db_test::IntSlot;
using ipc_db_test::kDbLogFile;
using ipc_db_test::LogCapture;
using ipc_db_test::MakePerson;
using ipc_db_test::Person;
using ipc_db_test::Rows;

namespace {

class OutOfMemoryTest : public DbTest {
 protected:
  void SetUp() override {
    FaultAlloc::Install();
    DbTest::SetUp();
    DescribePerson(&meta_);
    table_ = Create(&meta_, 0);
  }

  Meta meta_;
  Table* table_ = nullptr;
};

TEST_F(OutOfMemoryTest, AddItemAnswersAFailedAllocationWithMinusOne) {
  Person person = MakePerson(1, 30, "ann", "note", 7);
  DbFilters cols;
  LogCapture log;
  FaultAlloc::FailNth(1, false);  // the first allocation of the call fails
  long long rc = table_->add_item(&person, 1, cols);
  FaultAlloc::FailNth(0, false);
  EXPECT_EQ(rc, -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "Table::add_item out of memory.\n");
  EXPECT_EQ(Query("select count(*) from t_person;"), (Rows{{"0"}}));
  EXPECT_EQ(table_->add_item(&person, 1, cols), 0);
  EXPECT_EQ(Query("select count(*) from t_person;"), (Rows{{"1"}}));
}

TEST_F(OutOfMemoryTest, GetItemCntAnswersAFailedAllocationWithMinusOne) {
  DbFilters none;
  LogCapture log;
  FaultAlloc::FailNth(1, false);
  long long rc = table_->get_item_cnt(none);
  FaultAlloc::FailNth(0, false);
  EXPECT_EQ(rc, -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "Table::get_item_cnt out of memory.\n");
  EXPECT_EQ(table_->get_item_cnt(none), 0);
}

// Every guarded record, read, aggregate and index call of Table: the first
// allocation inside the call fails, and the call answers with its failure
// value and its own "<call> out of memory.\n" entry, and changes no row.
// Every argument is built before the failure is armed, so that the failing
// allocation is the library's; the index names are short enough that their
// copies into by-value parameters need no allocation.
DbFilter* AgeIs(Meta* meta, int age) {
  return new DbFilter(meta->Get("iAge"), DB_FILTER_OP_EQ, IntSlot(age), nullptr);
}

struct CallArguments {
  explicit CallArguments(Meta* meta)
      : meta(meta),
        set(1, AgeIs(meta, 31)),
        list(1, AgeIs(meta, 30)),
        col(1, AgeIs(meta, 0)) {}

  Meta* meta;
  DbFilters none, set, list, col;
  Person person = MakePerson(0, 1, "bo", "x", 1);
  Person rows[3];
  unsigned long long count = 0;
  std::list<std::string> textList;
  std::vector<std::string> textVector;
  std::set<std::string> textSet;
  std::string out;
};

struct GuardedCall {
  const char* name;  // the call as its entry names it
  std::function<long long(Table*, CallArguments&)> run;
};

class EveryTableCall : public OutOfMemoryTest,
                       public testing::WithParamInterface<GuardedCall> {};

TEST_P(EveryTableCall, AnswersAFailedAllocationWithMinusOne) {
  Person person = MakePerson(0, 30, "ann", "note", 7);
  DbFilters none;
  ASSERT_EQ(table_->add_item(&person, 1, none), 0);
  ASSERT_EQ(table_->add_index("ix_age", meta_.Get("iAge")), 0);
  CallArguments arguments(&meta_);
  LogCapture log;
  FaultAlloc::FailNth(1, false);
  long long rc = GetParam().run(table_, arguments);
  FaultAlloc::FailNth(0, false);
  EXPECT_EQ(rc, -1);
  ExpectLoggedOnce(log, 3, kDbLogFile,
                   std::string(GetParam().name) + " out of memory.\n");
  EXPECT_EQ(Query("select iAge, cName from t_person;"), (Rows{{"30", "ann"}}));
}

using Args = CallArguments;

const GuardedCall kGuardedCalls[] = {
    {"Table::add_item",
     [](Table* t, Args& a) { return t->add_item(&a.person, 1, a.none); }},
    {"Table::update_item",
     [](Table* t, Args& a) { return t->update_item(a.set, a.none); }},
    {"Table::rmv_item", [](Table* t, Args& a) { return t->rmv_item(&a.list, 1); }},
    {"Table::get_item",
     [](Table* t, Args& a) { return t->get_item(a.none, a.none, a.count, a.rows); }},
    {"Table::get_item_z",
     [](Table* t, Args& a) {
       return t->get_item_z(a.none, a.none, a.count, a.rows, a.meta);
     }},
    {"Table::get_item_lz",
     [](Table* t, Args& a) {
       return t->get_item_lz(a.none, a.none, a.count, a.textList, a.meta);
     }},
    {"Table::get_item_vz",
     [](Table* t, Args& a) {
       return t->get_item_vz(a.none, a.none, a.count, a.textVector, a.meta);
     }},
    {"Table::get_item_sz",
     [](Table* t, Args& a) {
       return t->get_item_sz(a.none, a.none, a.count, a.textSet, a.meta->Get("cName"));
     }},
    {"Table::get_item_max",
     [](Table* t, Args& a) { return t->get_item_max(a.col, a.none, a.out); }},
    {"Table::get_item_min",
     [](Table* t, Args& a) { return t->get_item_min(a.col, a.none, a.out); }},
    {"Table::add_index",
     [](Table* t, Args& a) { return t->add_index("iy", a.meta->Get("cName")); }},
    {"Table::drop_index", [](Table* t, Args&) { return t->drop_index("ix_age"); }},
    {"Table::table_vacuum", [](Table* t, Args&) { return t->table_vacuum(); }},
};

std::string CallName(const testing::TestParamInfo<GuardedCall>& info) {
  std::string name = info.param.name;
  return name.substr(name.find("::") + 2);
}

INSTANTIATE_TEST_SUITE_P(Table, EveryTableCall, testing::ValuesIn(kGuardedCalls),
                         CallName);

}  // namespace
