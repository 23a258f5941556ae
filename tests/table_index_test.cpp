// Tests of Table::add_index, Table::drop_index, Table::table_vacuum and
// Db::db_vacuum on real database files: the exact statements, the index
// name each member records in memory, and the refusals and failures with
// their messages.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Db.h"
#include "Meta.h"
#include "Table.h"
#include "TableTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::DbTest;
using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::kDbLogFile;
using ipc_db_test::LogCapture;
using ipc_db_test::Rows;
using ipc_db_test::SqlCapture;

namespace {

class IndexTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    // Table t with the plain column names id and age.
    meta_.Init("t", 8);
    meta_.AddMember(new Member("id", 0, &types_.int4));
    meta_.AddMember(new Member("age", 4, &types_.int4));
    table_ = Create(&meta_, 0);
    age_ = meta_.Get("age");
  }

  Rows Indexes() {
    return Query("select name from sqlite_master where type = 'index' order by name");
  }

  Meta meta_;
  Table* table_ = nullptr;
  Member* age_ = nullptr;
};

TEST_F(IndexTest, AddThenDropByName) {
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->add_index("idx_age", age_), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"create index idx_age on t(age)"});
  EXPECT_EQ(age_->index_name, "idx_age");
  EXPECT_EQ(meta_.Get("id")->index_name, "NONE");
  EXPECT_EQ(Indexes(), (Rows{{"idx_age"}}));

  sql.Clear();
  ASSERT_EQ(table_->drop_index("idx_age"), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"DROP index idx_age ;"});
  EXPECT_EQ(age_->index_name, "NONE");
  EXPECT_TRUE(Indexes().empty());
}

TEST_F(IndexTest, AnalyzedModeUsesThePlainColumnName) {
  Meta meta;
  meta.Init("t_rec", 4);
  meta.AddMember(new Member("iAge_n", 0, &types_.int4));
  Table* table = Create(&meta, 1);
  SqlCapture sql(Handle());
  ASSERT_EQ(table->add_index("idx_rec_age", meta.members[0]), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"create index idx_rec_age on t_rec(Age)"});
}

TEST_F(IndexTest, NullMemberIsRefused) {
  LogCapture log;
  EXPECT_EQ(table_->add_index("idx", nullptr), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "member dose not exit!");
}

TEST_F(IndexTest, ExistingIndexNameFailsAndKeepsTheRecord) {
  Exec("create index idx_taken on t(id);");
  LogCapture log;
  EXPECT_EQ(table_->add_index("idx_taken", age_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for add_index failed!error:-204\n");
  EXPECT_EQ(age_->index_name, "NONE");
}

TEST_F(IndexTest, IndexMadeOutsideThisProcessCannotBeDroppedByName) {
  Exec("create index idx_age on t(age);");
  SqlCapture sql(Handle());
  LogCapture log;
  EXPECT_EQ(table_->drop_index("idx_age"), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "index name has not found");
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_EQ(Indexes(), (Rows{{"idx_age"}}));
}

TEST_F(IndexTest, DroppingNoneTargetsAnIndexCalledNone) {
  ASSERT_EQ(table_->add_index("idx_id", meta_.Get("id")), 0);
  LogCapture log;
  EXPECT_EQ(table_->drop_index("NONE"), -1);
  // The first member without an index (age) was found; the drop failed.
  EXPECT_TRUE(log.Contains("RECORD: sqlite3_exec:DROP index NONE ; failed:"));
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for drop_index failed!error:-204\n");
  EXPECT_EQ(age_->index_name, "NONE");
  EXPECT_EQ(meta_.Get("id")->index_name, "idx_id");
}

TEST_F(IndexTest, FailedDropKeepsTheRecord) {
  ASSERT_EQ(table_->add_index("idx_age", age_), 0);
  Exec("drop index idx_age;");  // gone behind the table's back
  LogCapture log;
  EXPECT_EQ(table_->drop_index("idx_age"), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for drop_index failed!error:-204\n");
  EXPECT_EQ(age_->index_name, "idx_age");
}

TEST_F(IndexTest, SecondIndexOnAMemberOverwritesTheRecord) {
  ASSERT_EQ(table_->add_index("idx_one", age_), 0);
  ASSERT_EQ(table_->add_index("idx_two", age_), 0);
  EXPECT_EQ(age_->index_name, "idx_two");
  LogCapture log;
  EXPECT_EQ(table_->drop_index("idx_one"), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "index name has not found");
  EXPECT_EQ(Indexes(), (Rows{{"idx_one"}, {"idx_two"}}));
}

TEST_F(IndexTest, MemberOfAnotherDescriptionIsAccepted) {
  Meta other;
  other.Init("other", 4);
  Member* foreign = new Member("age", 0, &types_.int4);
  other.AddMember(foreign);
  ASSERT_EQ(table_->add_index("idx_foreign", foreign), 0);
  EXPECT_EQ(foreign->index_name, "idx_foreign");
  // It is not in this table's description, so it cannot be dropped here.
  EXPECT_EQ(table_->drop_index("idx_foreign"), -1);
}

TEST_F(IndexTest, TableVacuumNamesASchema) {
  SqlCapture sql(Handle());
  LogCapture log;
  EXPECT_EQ(table_->table_vacuum(), -1);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{});  // fails before running
  EXPECT_TRUE(log.Contains("unknown database t"));
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for VACUUM failed!error:-204\n");
}

TEST_F(IndexTest, TableVacuumSucceedsWhenASchemaHasTheTablesName) {
  Exec("attach database ':memory:' as t_mem;");
  Meta meta;
  meta.Init("t_mem", 4);
  meta.AddMember(new Member("iX", 0, &types_.int4));
  Table table(&db_, &meta, 0);
  SqlCapture sql(Handle());
  EXPECT_EQ(table.table_vacuum(), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"VACUUM t_mem;"});
}

TEST_F(IndexTest, TableVacuumWithoutConnectionIsRefused) {
  Db unopened;
  Table table(&unopened, &meta_, 0);
  LogCapture log;
  EXPECT_EQ(table.table_vacuum(), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "parent->m_pDBConn is null.");
}

TEST_F(IndexTest, DbVacuum) {
  SqlCapture sql(Handle());
  EXPECT_EQ(db_.db_vacuum(), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"VACUUM;"});
}

TEST_F(IndexTest, DbVacuumInsideATransactionFails) {
  Exec("begin;");
  LogCapture log;
  EXPECT_EQ(db_.db_vacuum(), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for VACUUM failed!error:-204\n");
  Exec("commit;");
}

TEST_F(IndexTest, DbVacuumOfANeverOpenedDbIsRefused) {
  Db never;
  LogCapture log;
  EXPECT_EQ(never.db_vacuum(), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "m_pDBConn is null.");
}

}  // namespace
