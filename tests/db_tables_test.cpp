// Tests of table creation and destruction through Db: the exact CREATE and
// DROP texts, handles for tables that already exist, the stored CREATE text,
// the existence check, and a table that survives closing and reopening an
// encrypted file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Db.h"
#include "Meta.h"
#include "SchemaTestSupport.h"
#include "Table.h"
#include "TableChange.h"
#include "TestSupport.h"

using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::HandleOf;
using ipc_db_test::LogCapture;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenDb;
using ipc_db_test::QueryOneValue;
using ipc_db_test::RecordSchema;
using ipc_db_test::SqlCapture;
using ipc_db_test::TempDir;

namespace {

const char kDbLogFile[] = "src_db/src/db";

std::string ExistsQuery(const std::string& table) {
  return "select count(*) from sqlite_master where type = 'table' and name = '" + table +
         "'";
}

std::string SqlOfTableQuery(const std::string& table) {
  return "select sql from sqlite_master where tbl_name = '" + table +
         "' and type = 'table'";
}

// A plain database opened in a fresh directory for each test.
class DbTables : public testing::Test {
 protected:
  void SetUp() override { OpenDb(db_, dir_.Path(), "tables.db", ""); }
  void TearDown() override { db_.UnInit(); }

  long long Exec(const std::string& sql) {
    return db_.m_pDBConn->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC);
  }

  TempDir dir_;
  Db db_;
};

// ---- createTable ----

TEST_F(DbTables, CreateWithPlainNamesSendsTheExactText) {
  RecordSchema schema;
  SqlCapture sql(HandleOf(db_));
  Table* table = db_.createTable(&schema.record, 1);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(sql.Statements(),
            (std::vector<std::string>{ExistsQuery("t_rec"),
                                      "create table t_rec(Id INTEGER PRIMARY KEY "
                                      "autoincrement,Name CHAR(32));"}));
  EXPECT_EQ(table->parent, &db_);
  EXPECT_EQ(table->meta_data, &schema.record);
  EXPECT_EQ(table->analyze_name, 1);
  std::string name = "t_rec";
  EXPECT_EQ(db_.getTableStatus(name), 1);
  delete table;
}

TEST_F(DbTables, CreateWithDecoratedNamesUsesThemAsColumns) {
  RecordSchema schema;
  SqlCapture sql(HandleOf(db_));
  Table* table = db_.createTable(&schema.record, 0);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(sql.Count("create table t_rec(iId_pa INTEGER PRIMARY KEY "
                      "autoincrement,cName CHAR(32));"),
            1u);
  EXPECT_EQ(table->analyze_name, 0);
  EXPECT_EQ(Exec("insert into t_rec(cName) values('x');"), 0);
  EXPECT_EQ(QueryOneValue(db_, "select iId_pa from t_rec;"), "1");
  delete table;
}

TEST_F(DbTables, CreateLogsEachMemberAtDebugLevel) {
  RecordSchema schema;
  LogCapture log;
  Table* table = db_.createTable(&schema.record, 1);
  ASSERT_NE(table, nullptr);
  ExpectLoggedOnce(log, 0, kDbLogFile, "member name is iId_pa   type is INTEGER\n");
  ExpectLoggedOnce(log, 0, kDbLogFile, "member name is cName   type is CHAR(32)\n");
  EXPECT_EQ(log.CountAtLevel(3), 0u) << log.Dump();
  delete table;
}

TEST_F(DbTables, CreateFillsTypesAndFlags) {
  RecordSchema schema;
  Table* table = db_.createTable(&schema.record, 1);
  ASSERT_NE(table, nullptr);
  const Member* id = schema.record.Get("iId_pa");
  const Member* name = schema.record.Get("cName");
  EXPECT_EQ(id->sql_type, "INTEGER");
  EXPECT_EQ(id->primary_key, 1);
  EXPECT_EQ(id->auto_increment, 1);
  EXPECT_EQ(name->sql_type, "CHAR(32)");
  EXPECT_EQ(
      name->primary_key + name->auto_increment + name->not_null + name->default_zero, 0);
  delete table;
}

TEST_F(DbTables, ExistingTableGivesHandleWithoutSql) {
  RecordSchema first;
  Table* created = db_.createTable(&first.record, 1);
  ASSERT_NE(created, nullptr);
  delete created;

  // A fresh description of the same table, members not yet prepared.
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta textMeta;
  textMeta.Init("char64", 64);
  Meta again;
  again.Init("t_rec", 72);
  ASSERT_EQ(again.AddMember(new Member("iId_pa", 0, &intMeta)), 1);
  ASSERT_EQ(again.AddMember(new Member("cName", 4, &textMeta)), 1);
  ASSERT_EQ(again.AddMember(new Member("tNote_nd", 68, &intMeta)), 1);

  SqlCapture sql(HandleOf(db_));
  LogCapture log;
  Table* table = db_.createTable(&again, 3);
  ASSERT_NE(table, nullptr);
  // Only the existence check ran: no CREATE, and the columns are not
  // compared with the description.
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{ExistsQuery("t_rec")});
  ExpectLoggedOnce(log, 1, kDbLogFile, "table t_rec has exist!\n");
  EXPECT_EQ(log.CountAtLevel(3), 0u) << log.Dump();
  EXPECT_EQ(table->parent, &db_);
  EXPECT_EQ(table->meta_data, &again);
  EXPECT_EQ(table->analyze_name, 3);

  const Member* id = again.Get("iId_pa");
  EXPECT_EQ(id->sql_type, "INTEGER");
  EXPECT_EQ(id->primary_key, 1);
  EXPECT_EQ(id->auto_increment, 1);
  EXPECT_EQ(id->not_null, 0);
  EXPECT_EQ(id->default_zero, 0);
  const Member* name = again.Get("cName");
  EXPECT_EQ(name->sql_type, "CHAR(64)");
  EXPECT_EQ(
      name->primary_key + name->auto_increment + name->not_null + name->default_zero, 0);
  const Member* note = again.Get("tNote_nd");
  EXPECT_EQ(note->sql_type, "TEXT");
  EXPECT_EQ(note->primary_key, 0);
  EXPECT_EQ(note->auto_increment, 0);
  EXPECT_EQ(note->not_null, 1);
  EXPECT_EQ(note->default_zero, 1);
  delete table;
}

TEST_F(DbTables, OneMemberHasNoComma) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta record;
  record.Init("t_one", 4);
  ASSERT_EQ(record.AddMember(new Member("iOnly", 0, &intMeta)), 1);
  SqlCapture sql(HandleOf(db_));
  Table* table = db_.createTable(&record, 1);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(sql.Count("create table t_one(Only INTEGER);"), 1u);
  delete table;
}

TEST_F(DbTables, FlagsAreWrittenInFixedOrder) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta record;
  record.Init("t_flags", 8);
  ASSERT_EQ(record.AddMember(new Member("iKey_dnap", 0, &intMeta)), 1);
  ASSERT_EQ(record.AddMember(new Member("tNote_dn", 4, &intMeta)), 1);
  ASSERT_EQ(record.AddMember(new Member("dStamp_xd", 4, &intMeta)), 1);
  SqlCapture sql(HandleOf(db_));
  Table* table = db_.createTable(&record, 1);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(sql.Count("create table t_flags(Key INTEGER PRIMARY KEY "
                      "autoincrement NOT NULL DEFAULT 0,Note TEXT NOT NULL "
                      "DEFAULT 0,Stamp datetime DEFAULT 0);"),
            1u)
      << testing::PrintToString(sql.Statements());
  delete table;
}

TEST_F(DbTables, UnknownTypeLetterWritesUnknownType) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta record;
  record.Init("t_unk", 4);
  ASSERT_EQ(record.AddMember(new Member("xVal_n", 0, &intMeta)), 1);
  SqlCapture sql(HandleOf(db_));
  LogCapture log;
  Table* table = db_.createTable(&record, 1);
  ASSERT_NE(table, nullptr);
  // getName keeps the whole name and says so; the type word is written.
  EXPECT_EQ(sql.Count("create table t_unk(xVal_n unknown_type NOT NULL);"), 1u)
      << testing::PrintToString(sql.Statements());
  ExpectLoggedOnce(log, 3, kDbLogFile, "Name in wrong format\n");
  delete table;
}

TEST_F(DbTables, RejectedCreateDeletesTheHandle) {
  // Two members with the same plain name: SQLite refuses the statement.
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta record;
  record.Init("t_dup", 8);
  ASSERT_EQ(record.AddMember(new Member("iName", 0, &intMeta)), 1);
  ASSERT_EQ(record.AddMember(new Member("tName", 4, &intMeta)), 1);
  LogCapture log;
  EXPECT_EQ(db_.createTable(&record, 1), nullptr);
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for createTable failed!error:-204\n");
  EXPECT_TRUE(
      log.Contains("RECORD: sqlite3_exec:create table t_dup(Name INTEGER,Name TEXT); "
                   "failed:"))
      << log.Dump();
  std::string name = "t_dup";
  EXPECT_EQ(db_.getTableStatus(name), 0);
  // With the decorated names the same description is fine.
  Table* table = db_.createTable(&record, 0);
  EXPECT_NE(table, nullptr);
  delete table;
}

TEST_F(DbTables, NullMetaIsRefused) {
  LogCapture log;
  EXPECT_EQ(db_.createTable(nullptr, 1), nullptr);
  ExpectLoggedOnce(log, 3, kDbLogFile, "Db::createTable meta_data is null.\n");
  EXPECT_EQ(log.Entries().size(), 1u);
}

TEST_F(DbTables, MetaWithoutMembersIsRefusedWithoutSql) {
  Meta record;
  record.Init("t_empty", 4);
  SqlCapture sql(HandleOf(db_));
  LogCapture log;
  EXPECT_EQ(db_.createTable(&record, 1), nullptr);
  ExpectLoggedOnce(log, 3, kDbLogFile, "members is empty!\n");
  EXPECT_EQ(log.Entries().size(), 1u);
  EXPECT_TRUE(sql.Statements().empty());
}

// ---- destroyTable ----

TEST_F(DbTables, DestroyDropsTheTable) {
  RecordSchema schema;
  delete db_.createTable(&schema.record, 1);
  SqlCapture sql(HandleOf(db_));
  LogCapture log;
  EXPECT_EQ(db_.destroyTable(&schema.record), 0);
  EXPECT_EQ(sql.Statements(),
            (std::vector<std::string>{ExistsQuery("t_rec"), "drop table t_rec;"}));
  EXPECT_EQ(log.CountAtLevel(3), 0u) << log.Dump();
  std::string name = "t_rec";
  EXPECT_EQ(db_.getTableStatus(name), 0);
  // The description is left as it was.
  EXPECT_EQ(schema.record.members.size(), 2u);
}

TEST_F(DbTables, DestroyOfMissingTableSucceedsWithErrorLine) {
  RecordSchema schema;
  schema.record.Init("t_gone", 40);
  SqlCapture sql(HandleOf(db_));
  LogCapture log;
  EXPECT_EQ(db_.destroyTable(&schema.record), 0);
  ExpectLoggedOnce(log, 3, kDbLogFile, "table t_gone has destroy!\n");
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{ExistsQuery("t_gone")});
}

TEST_F(DbTables, DestroyNullMetaIsRefused) {
  LogCapture log;
  EXPECT_EQ(db_.destroyTable(nullptr), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "Db::destroyTable meta_data is null.\n");
}

TEST_F(DbTables, RejectedDropGivesMinusOne) {
  // A table named by a keyword exists (created quoted) but the unquoted
  // DROP text is not valid SQL.
  ASSERT_EQ(Exec("create table \"order\"(a INTEGER);"), 0);
  Meta intMeta;
  Meta record;
  record.Init("order", 4);
  ASSERT_EQ(record.AddMember(new Member("iA", 0, &intMeta)), 1);
  LogCapture log;
  EXPECT_EQ(db_.destroyTable(&record), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for destroyTable failed!error:-204\n");
  EXPECT_TRUE(log.Contains("RECORD: sqlite3_exec:drop table order; failed:"))
      << log.Dump();
}

// ---- getTableSql, getTableStatus ----

TEST_F(DbTables, TableSqlIsTheStoredCreateText) {
  RecordSchema schema;
  delete db_.createTable(&schema.record, 1);
  std::string name = "t_rec";
  std::string text = "old";
  SqlCapture sql(HandleOf(db_));
  LogCapture log;
  EXPECT_EQ(db_.getTableSql(name, text), 0);
  // SQLite stores the text without its ";" and with the leading keywords in
  // upper case.
  EXPECT_EQ(text,
            "CREATE TABLE t_rec(Id INTEGER PRIMARY KEY autoincrement,Name "
            "CHAR(32))");
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{SqlOfTableQuery("t_rec")});
  EXPECT_EQ(log.CountAtLevel(3), 0u) << log.Dump();
}

TEST_F(DbTables, TableSqlOfMissingTableLeavesTextAlone) {
  std::string name = "t_none";
  std::string text = "unchanged";
  LogCapture log;
  EXPECT_EQ(db_.getTableSql(name, text), -1);
  EXPECT_EQ(text, "unchanged");
  ExpectLoggedOnce(log, 3, kDbLogFile, "Failed to get table result");
}

TEST_F(DbTables, TableSqlOfAnIndexNameIsNotATable) {
  RecordSchema schema;
  delete db_.createTable(&schema.record, 1);
  ASSERT_EQ(Exec("create index i_name on t_rec(Name);"), 0);
  std::string name = "i_name";
  std::string text = "unchanged";
  EXPECT_EQ(db_.getTableSql(name, text), -1);
  EXPECT_EQ(text, "unchanged");
}

TEST_F(DbTables, TableSqlQueryFailureGivesItsCode) {
  // The name is inserted unescaped: a quote breaks the query.
  std::string name = "a'b";
  std::string text = "unchanged";
  LogCapture log;
  EXPECT_EQ(db_.getTableSql(name, text), DB_ERR_EXEC);
  EXPECT_EQ(text, "unchanged");
  ExpectLoggedOnce(log, 3, kDbLogFile, "Failed to get table result");
  EXPECT_TRUE(
      log.Contains("RECORD: sqlite3_get_table:" + SqlOfTableQuery("a'b") + " failed:"))
      << log.Dump();
}

TEST_F(DbTables, TableSqlOnClosedDbGivesTheConnectionCode) {
  ASSERT_EQ(db_.CloseDB(), 0);
  std::string name = "t_rec";
  std::string text = "unchanged";
  LogCapture log;
  EXPECT_EQ(db_.getTableSql(name, text), DB_ERR_CONN_NOT_EXIST);
  EXPECT_EQ(text, "unchanged");
  ExpectLoggedOnce(log, 3, kDbLogFile, "Failed to get table result");
}

TEST_F(DbTables, TableStatusSaysWhetherTheTableExists) {
  RecordSchema schema;
  std::string name = "t_rec";
  EXPECT_EQ(db_.getTableStatus(name), 0);
  delete db_.createTable(&schema.record, 1);
  EXPECT_EQ(db_.getTableStatus(name), 1);
  std::string other = "t_re";
  EXPECT_EQ(db_.getTableStatus(other), 0);
}

TEST_F(DbTables, TableStatusOnClosedDbIsZero) {
  ASSERT_EQ(Exec("create table t_x(a INTEGER);"), 0);
  ASSERT_EQ(db_.CloseDB(), 0);
  std::string name = "t_x";
  EXPECT_EQ(db_.getTableStatus(name), 0);
}

TEST(DbTablesWithoutConnection, StatusAndSqlGiveMinus201WithoutLog) {
  Db db;
  std::string name = "t_rec";
  std::string text = "unchanged";
  LogCapture log;
  EXPECT_EQ(db.getTableStatus(name), -201);
  EXPECT_EQ(db.getTableSql(name, text), -201);
  EXPECT_EQ(text, "unchanged");
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

// ---- A table across closing and reopening an encrypted file ----

TEST(DbTablesPersistence, TableIsFoundAgainAfterReopenWithTheSameKey) {
  TempDir dir;
  const std::string key = MakeKey('s');
  const std::string storedCreate =
      "CREATE TABLE t_rec(Id INTEGER PRIMARY KEY autoincrement,Name "
      "CHAR(32))";
  {
    RecordSchema schema;
    Db db;
    OpenDb(db, dir.Path(), "keep.db", key);
    Table* table = db.createTable(&schema.record, 1);
    ASSERT_NE(table, nullptr);
    delete table;
    ASSERT_EQ(db.m_pDBConn->ExecuteSQL("insert into t_rec(Name) values('first');",
                                       nullptr, DB_EXEC_SQL_SYNC),
              0);
    ASSERT_EQ(db.CloseDB(), 0);
    ASSERT_EQ(db.UnInit(), 0);
  }

  RecordSchema schema;
  Db db;
  OpenDb(db, dir.Path(), "keep.db", key);
  SqlCapture sql(HandleOf(db));
  Table* table = db.createTable(&schema.record, 1);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{ExistsQuery("t_rec")});
  EXPECT_EQ(schema.record.Get("cName")->sql_type, "CHAR(32)");
  std::string name = "t_rec";
  std::string text;
  EXPECT_EQ(db.getTableSql(name, text), 0);
  EXPECT_EQ(text, storedCreate);
  EXPECT_EQ(db.getTableStatus(name), 1);

  // A new field in a later version of the record: add its column.
  Meta intMeta;
  intMeta.Init("int", 4);
  Member* count = new Member("iCount_n", 40, &intMeta);
  ASSERT_EQ(schema.record.AddMember(count), 1);
  TableChange change(1, count);
  sql.Clear();
  EXPECT_EQ(db.updateTable("t_rec", change, "5", 1), 0);
  EXPECT_EQ(
      sql.Statements(),
      std::vector<std::string>{"ALTER TABLE t_rec ADD COLUMN Count INTEGER DEFAULT 5 NOT "
                               "NULL;"});
  ASSERT_EQ(
      db.m_pDBConn->ExecuteSQL("insert into t_rec(Name, Count) values('second', 9);",
                               nullptr, DB_EXEC_SQL_SYNC),
      0);
  delete table;
  ASSERT_EQ(db.UnInit(), 0);

  // Reopened once more, the column is there for old and new rows.
  Db later;
  OpenDb(later, dir.Path(), "keep.db", key);
  EXPECT_EQ(QueryOneValue(later, "select Count from t_rec where Name = 'first';"), "5");
  EXPECT_EQ(QueryOneValue(later, "select Count from t_rec where Name = 'second';"), "9");
  EXPECT_EQ(later.getTableSql(name, text), 0);
  EXPECT_EQ(text,
            "CREATE TABLE t_rec(Id INTEGER PRIMARY KEY autoincrement,Name "
            "CHAR(32), Count INTEGER DEFAULT 5 NOT NULL)");
  later.UnInit();
}

}  // namespace
