// The answer of the table calls to an allocation failure. This program
// links the replaced operator new of support/FailingOperatorNew.h, which
// shares FaultAlloc's countdown (support/FaultVfs.h): a test arms it for
// the n-th allocation from then on, which throws std::bad_alloc as the
// standard one does. The call under test must return -1 with one
// "<call> out of memory.\n" entry, change no row, and the next call must
// work.
#include <gtest/gtest.h>

#include <string>

#include "DbFilter.h"
#include "FaultVfs.h"
#include "Meta.h"
#include "Table.h"
#include "TableTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::DbTest;
using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::FaultAlloc;
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

}  // namespace
