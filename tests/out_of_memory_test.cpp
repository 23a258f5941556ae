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
#include <memory>
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
// Each case builds its arguments first and arms the failure just before the
// call, so that the failing allocation is the library's.
using Arm = std::function<void()>;

struct GuardedCall {
  const char* name;  // the call as its entry names it
  std::function<long long(Table*, Meta*, const Arm&)> run;
};

class EveryTableCall : public OutOfMemoryTest,
                       public testing::WithParamInterface<GuardedCall> {};

TEST_P(EveryTableCall, AnswersAFailedAllocationWithMinusOne) {
  Person person = MakePerson(0, 30, "ann", "note", 7);
  DbFilters none;
  ASSERT_EQ(table_->add_item(&person, 1, none), 0);
  ASSERT_EQ(table_->add_index("ix_age", meta_.Get("iAge")), 0);
  LogCapture log;
  long long rc = GetParam().run(table_, &meta_, [] { FaultAlloc::FailNth(1, false); });
  FaultAlloc::FailNth(0, false);
  EXPECT_EQ(rc, -1);
  ExpectLoggedOnce(log, 3, kDbLogFile,
                   std::string(GetParam().name) + " out of memory.\n");
  EXPECT_EQ(Query("select iAge, cName from t_person;"), (Rows{{"30", "ann"}}));
}

DbFilters* AgeIs(Meta* meta, int age) {
  return new DbFilters(
      1, new DbFilter(meta->Get("iAge"), DB_FILTER_OP_EQ, IntSlot(age), nullptr));
}

// Three rows' room for the whole-record reads.
struct ReadArea {
  DbFilters none;
  unsigned long long count = 0;
  Person rows[3];
};

const GuardedCall kGuardedCalls[] = {
    {"Table::add_item",
     [](Table* table, Meta*, const Arm& arm) {
       Person person = MakePerson(0, 1, "bo", "x", 1);
       DbFilters none;
       arm();
       return table->add_item(&person, 1, none);
     }},
    {"Table::update_item",
     [](Table* table, Meta* meta, const Arm& arm) {
       std::unique_ptr<DbFilters> set(AgeIs(meta, 31));
       DbFilters none;
       arm();
       return table->update_item(*set, none);
     }},
    {"Table::rmv_item",
     [](Table* table, Meta* meta, const Arm& arm) {
       std::unique_ptr<DbFilters> list(AgeIs(meta, 30));
       arm();
       return table->rmv_item(list.get(), 1);
     }},
    {"Table::get_item",
     [](Table* table, Meta*, const Arm& arm) {
       ReadArea area;
       arm();
       return table->get_item(area.none, area.none, area.count, area.rows);
     }},
    {"Table::get_item_z",
     [](Table* table, Meta* meta, const Arm& arm) {
       ReadArea area;
       arm();
       return table->get_item_z(area.none, area.none, area.count, area.rows, meta);
     }},
    {"Table::get_item_lz",
     [](Table* table, Meta* meta, const Arm& arm) {
       ReadArea area;
       std::list<std::string> out;
       arm();
       return table->get_item_lz(area.none, area.none, area.count, out, meta);
     }},
    {"Table::get_item_vz",
     [](Table* table, Meta* meta, const Arm& arm) {
       ReadArea area;
       std::vector<std::string> out;
       arm();
       return table->get_item_vz(area.none, area.none, area.count, out, meta);
     }},
    {"Table::get_item_sz",
     [](Table* table, Meta* meta, const Arm& arm) {
       ReadArea area;
       std::set<std::string> out;
       arm();
       return table->get_item_sz(area.none, area.none, area.count, out,
                                 meta->Get("cName"));
     }},
    {"Table::get_item_max",
     [](Table* table, Meta* meta, const Arm& arm) {
       std::unique_ptr<DbFilters> col(AgeIs(meta, 0));
       DbFilters none;
       std::string out;
       arm();
       return table->get_item_max(*col, none, out);
     }},
    {"Table::get_item_min",
     [](Table* table, Meta* meta, const Arm& arm) {
       std::unique_ptr<DbFilters> col(AgeIs(meta, 0));
       DbFilters none;
       std::string out;
       arm();
       return table->get_item_min(*col, none, out);
     }},
    {"Table::add_index",
     [](Table* table, Meta* meta, const Arm& arm) {
       arm();
       return table->add_index("iy", meta->Get("cName"));
     }},
    {"Table::drop_index",
     [](Table* table, Meta*, const Arm& arm) {
       // A name short enough that its copy into the by-value parameter, made
       // by the caller, needs no allocation.
       std::string name = "ix_age";
       arm();
       return table->drop_index(name);
     }},
    {"Table::table_vacuum",
     [](Table* table, Meta*, const Arm& arm) {
       arm();
       return table->table_vacuum();
     }},
};

std::string CallName(const testing::TestParamInfo<GuardedCall>& info) {
  std::string name = info.param.name;
  return name.substr(name.find("::") + 2);
}

INSTANTIATE_TEST_SUITE_P(Table, EveryTableCall, testing::ValuesIn(kGuardedCalls),
                         CallName);

}  // namespace
