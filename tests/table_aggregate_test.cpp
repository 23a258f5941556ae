// Tests of Table::get_item_cnt, get_item_max and get_item_min on real
// database files: the statements, the filter clause and its refusals, the
// numbers and texts they return, the failure paths and messages, and the
// conversion through `long`, whose range depends on the word size.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "DbFilter.h"
#include "Meta.h"
#include "Table.h"
#include "TableTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::DbTest;
using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::IntSlot;
using ipc_db_test::kDbLogFile;
using ipc_db_test::LogCapture;
using ipc_db_test::MakePerson;
using ipc_db_test::Person;
using ipc_db_test::SqlCapture;

namespace {

class AggregateTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    DescribePerson(&meta_);
    table_ = Create(&meta_, 0);
  }

  void Add(int32_t id, int32_t age, const char* name) {
    Person person = MakePerson(id, age, name, "", 0);
    DbFilters all;
    ASSERT_EQ(table_->add_item(&person, 1, all), 0);
  }

  DbFilter* Term(const char* member, DbFilterOperator op, void* v1 = nullptr) {
    return new DbFilter(meta_.Get(member), op, v1, nullptr);
  }

  Meta meta_;
  Table* table_ = nullptr;
  DbFilters none_;
};

// ---- get_item_cnt ----

TEST_F(AggregateTest, CountOfAnEmptyTableIsZero) {
  SqlCapture sql(Handle());
  LogCapture log;
  EXPECT_EQ(table_->get_item_cnt(none_), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"select count(*) from t_person;"});
  ExpectLoggedOnce(log, 0, kDbLogFile,
                   " Table::get_item_cnt = select count(*) from t_person;");
}

TEST_F(AggregateTest, CountWithAFilter) {
  Add(1, 10, "a");
  Add(2, 20, "b");
  Add(3, 30, "c");
  DbFilters filters(2, Term("iAge", DB_FILTER_OP_GT, IntSlot(10)),
                    Term("iId_pa", DB_FILTER_OP_ORDER_BY));
  SqlCapture sql(Handle());
  EXPECT_EQ(table_->get_item_cnt(filters), 2);
  EXPECT_EQ(
      sql.Statements(),
      std::vector<std::string>{"select count(*) from t_person where iAge > 10 order by "
                               "iId_pa;"});
  EXPECT_EQ(table_->get_item_cnt(none_), 3);
}

TEST_F(AggregateTest, CountWithoutConnectionIsRefused) {
  Db unopened;
  Table table(&unopened, &meta_, 0);
  LogCapture log;
  EXPECT_EQ(table.get_item_cnt(none_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "parent->m_pDBConn is null.");
}

TEST_F(AggregateTest, CountRefusesAFilterOpeningWithAnOffset) {
  DbFilters filters(1, new DbFilter(nullptr, DB_FILTER_OP_OFFSET, IntSlot(2), nullptr));
  SqlCapture sql(Handle());
  LogCapture log;
  EXPECT_EQ(table_->get_item_cnt(filters), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "filter in wrong format\n");
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_FALSE(log.Contains("Table::get_item_cnt"));
}

TEST_F(AggregateTest, CountFailureIsLoggedAfterTheStatement) {
  Member ghost("iGhost", 0, &types_.int4);
  ghost.sql_type = "INTEGER";
  DbFilters filters(1, new DbFilter(&ghost, DB_FILTER_OP_EQ, IntSlot(1), nullptr));
  LogCapture log;
  EXPECT_EQ(table_->get_item_cnt(filters), -1);
  ExpectLoggedOnce(
      log, 0, kDbLogFile,
      " Table::get_item_cnt = select count(*) from t_person where iGhost = 1;");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for get_item_cnt failed !");
}

TEST_F(AggregateTest, CountAboveTheRangeOfA32BitLong) {
  // The table name goes into the statement as it stands, which lets this
  // test make the count cell hold 2^32.
  Meta big;
  big.Init("t_person UNION ALL SELECT 4294967296 ORDER BY 1 DESC LIMIT 1",
           sizeof(Person));
  big.AddMember(new Member("iAge", 0, &types_.int4));
  Table table(&db_, &big, 0);
  if (sizeof(long) == 4) {
    EXPECT_THROW(table.get_item_cnt(none_), std::out_of_range);
  } else {
    EXPECT_EQ(table.get_item_cnt(none_), 4294967296LL);
  }
}

// ---- get_item_max / get_item_min ----

TEST_F(AggregateTest, MaxAndMinOfAnEmptyTable) {
  DbFilters col(1, Term("iAge", DB_FILTER_OP_EQ));
  std::string out = "before";
  EXPECT_EQ(table_->get_item_max(col, none_, out), 0);
  EXPECT_EQ(out, "");
  out = "before";
  EXPECT_EQ(table_->get_item_min(col, none_, out), 0);
  EXPECT_EQ(out, "");
}

TEST_F(AggregateTest, IntegerMaxIsReturnedAndWritten) {
  Add(1, 42, "a");
  Add(2, 7, "b");
  DbFilters col(1, Term("iAge", DB_FILTER_OP_LIKE, IntSlot(99)));  // operator ignored
  std::string out;
  SqlCapture sql(Handle());
  EXPECT_EQ(table_->get_item_max(col, none_, out), 42);
  EXPECT_EQ(out, "42");
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"select max(iAge) from t_person;"});
  EXPECT_EQ(table_->get_item_min(col, none_, out), 7);
  EXPECT_EQ(out, "7");
}

TEST_F(AggregateTest, TextMaxIsWrittenAndZeroReturned) {
  Add(1, 1, "abc");
  Add(2, 2, "ab");
  DbFilters col(1, Term("cName", DB_FILTER_OP_EQ));
  std::string out;
  EXPECT_EQ(table_->get_item_max(col, none_, out), 0);
  EXPECT_EQ(out, "abc");
  EXPECT_EQ(table_->get_item_min(col, none_, out), 0);
  EXPECT_EQ(out, "ab");
}

TEST_F(AggregateTest, MaxOfMinusOneLooksLikeAFailureExceptForTheText) {
  Add(1, -1, "a");
  Add(2, -5, "b");
  DbFilters col(1, Term("iAge", DB_FILTER_OP_EQ));
  std::string out = "unchanged";
  EXPECT_EQ(table_->get_item_max(col, none_, out), -1);
  EXPECT_EQ(out, "-1");
  // A real failure returns -1 too but leaves `out` alone.
  Member ghost("iGhost", 0, &types_.int4);
  ghost.sql_type = "INTEGER";
  DbFilters bad(1, new DbFilter(&ghost, DB_FILTER_OP_EQ, nullptr, nullptr));
  out = "unchanged";
  LogCapture log;
  EXPECT_EQ(table_->get_item_max(bad, none_, out), -1);
  EXPECT_EQ(out, "unchanged");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for get_item_max failed !");
  EXPECT_EQ(table_->get_item_min(bad, none_, out), -1);
  EXPECT_EQ(out, "unchanged");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for get_item_min failed !");
}

TEST_F(AggregateTest, MaxWithAFilterAndDerivedNames) {
  Meta meta;
  DescribePerson(&meta, "t_plain");
  Table* table = Create(&meta, 1);
  Exec("insert into t_plain (Id, Age) values (1, 10), (2, 20), (3, 30);");
  DbFilters col(1, new DbFilter(meta.Get("iAge"), DB_FILTER_OP_EQ, nullptr, nullptr));
  DbFilters filters(
      1, new DbFilter(meta.Get("iId_pa"), DB_FILTER_OP_LT, IntSlot(3), nullptr));
  std::string out;
  SqlCapture sql(Handle());
  EXPECT_EQ(table->get_item_max(col, filters, out), 20);
  EXPECT_EQ(table->get_item_min(col, filters, out), 10);
  EXPECT_EQ(sql.Statements(),
            (std::vector<std::string>{"select max(Age) from t_plain where Id < 3;",
                                      "select min(Age) from t_plain where Id < 3;"}));
}

TEST_F(AggregateTest, ColumnListMustHoldExactlyOneTerm) {
  DbFilters two(2, Term("iAge", DB_FILTER_OP_EQ), Term("cName", DB_FILTER_OP_EQ));
  DbFilters empty;
  std::string out = "unchanged";
  SqlCapture sql(Handle());
  LogCapture log;
  EXPECT_EQ(table_->get_item_max(two, none_, out), -1);
  EXPECT_EQ(table_->get_item_max(empty, none_, out), -1);
  EXPECT_EQ(log.Count("The get_item_max only supports one filed."), 2u);
  EXPECT_EQ(table_->get_item_min(two, none_, out), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "The get_item_min only supports one filed.");
  EXPECT_EQ(log.CountAtLevel(3), 3u);
  EXPECT_EQ(out, "unchanged");
  EXPECT_TRUE(sql.Statements().empty());
}

TEST_F(AggregateTest, MaxAndMinWithoutConnectionAreRefused) {
  Db unopened;
  Table table(&unopened, &meta_, 0);
  DbFilters col(1, Term("iAge", DB_FILTER_OP_EQ));
  std::string out;
  LogCapture log;
  EXPECT_EQ(table.get_item_max(col, none_, out), -1);
  EXPECT_EQ(table.get_item_min(col, none_, out), -1);
  EXPECT_EQ(log.Count("parent->m_pDBConn is null."), 2u);
}

TEST_F(AggregateTest, MaxAndMinRefuseAFilterOpeningWithAnOffset) {
  DbFilters col(1, Term("iAge", DB_FILTER_OP_EQ));
  DbFilters filters(1, new DbFilter(nullptr, DB_FILTER_OP_OFFSET, IntSlot(2), nullptr));
  std::string out = "unchanged";
  LogCapture log;
  EXPECT_EQ(table_->get_item_max(col, filters, out), -1);
  EXPECT_EQ(table_->get_item_min(col, filters, out), -1);
  EXPECT_EQ(log.Count("filter in wrong format\n"), 2u);
  EXPECT_EQ(out, "unchanged");
}

TEST_F(AggregateTest, MaxAboveTheRangeOfA32BitLong) {
  Exec("insert into t_person (iId_pa, iAge) values (1, 4294967296), (2, -4294967296);");
  DbFilters col(1, Term("iAge", DB_FILTER_OP_EQ));
  std::string out;
  if (sizeof(long) == 4) {
    EXPECT_THROW(table_->get_item_max(col, none_, out), std::out_of_range);
    EXPECT_EQ(out, "4294967296");  // written before the conversion
    EXPECT_THROW(table_->get_item_min(col, none_, out), std::out_of_range);
  } else {
    EXPECT_EQ(table_->get_item_max(col, none_, out), 4294967296LL);
    EXPECT_EQ(out, "4294967296");
    EXPECT_EQ(table_->get_item_min(col, none_, out), -4294967296LL);
    EXPECT_EQ(out, "-4294967296");
  }
}

TEST_F(AggregateTest, IntegerMaxThatIsNotANumberThrows) {
  // A text stored in an integer column reaches std::stol as it is.
  Exec("insert into t_person (iId_pa, iAge) values (1, 'abc');");
  DbFilters col(1, Term("iAge", DB_FILTER_OP_EQ));
  std::string out;
  EXPECT_THROW(table_->get_item_max(col, none_, out), std::invalid_argument);
  EXPECT_EQ(out, "abc");
}

}  // namespace
