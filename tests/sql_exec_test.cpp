// Tests of statement execution on an open plain database: synchronous runs
// with and without a result table, queued runs and their length limit,
// failures and their log entries, the count queries (including their scan
// of multi-row results), transactions, and behaviour while paused.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "ConnTestSupport.h"
#include "SQLiteDBConn.h"
#include "TestSupport.h"
#include "bounded_mem.h"

using namespace ipc_db_test;

namespace {

class SqlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(conn_->OpenConnection(), 0);
    db_ = conn_->m_pSqliteDB;
  }

  // Runs `sql` synchronously without a result and expects success.
  void Run(const std::string& sql) {
    ASSERT_EQ(conn_->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC), 0) << sql;
  }

  void MakeFiveRows() {
    Run("create table t(id integer primary key, v text);");
    for (int i = 1; i <= 5; ++i) Run("insert into t(v) values('r" + std::to_string(i) + "');");
  }

  std::string Cell(const DB_EXEC_RESULT& result, int index) {
    const char* value = result.ppszResult[index];
    return value != nullptr ? value : "<null>";
  }

  TempDir dir_;
  std::unique_ptr<CSqliteDBConn> conn_ = MakeConn(dir_.Path());
  sqlite3* db_ = nullptr;
};

}  // namespace

// ---- Synchronous execution ----

TEST_F(SqlTest, StatementWithoutResultRunsAsSentAndLogsAtDebugLevel) {
  SqlCapture sql(db_);
  LogCapture log;
  const char* text = "create table t(id integer primary key, v text);";
  EXPECT_EQ(conn_->ExecuteSQL(text, nullptr, DB_EXEC_SQL_SYNC), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{text});
  ExpectLoggedOnce(log, kLevelDebug, kSqliteConnFile,
                   std::string("RECORD: ExecuteSQL: ") + text + " SUCCESS");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(QueryText(db_, "select count(*) from sqlite_master where name = 't';"), "1");
}

TEST_F(SqlTest, UnknownExecutionKindRunsNow) {
  Run("create table t(v);");
  auto kind = static_cast<DB_EXEC_SQL_TYPE>(7);
  EXPECT_EQ(conn_->ExecuteSQL("insert into t values(1);", nullptr, kind), 0);
  EXPECT_EQ(QueryText(db_, "select count(*) from t;"), "1");
  EXPECT_TRUE(ExecItems(conn_.get()).empty());
}

TEST_F(SqlTest, ResultOnAnEmptyTableHasNoRows) {
  Run("create table t(id integer, v text, w blob);");
  DB_EXEC_RESULT result;
  std::memset(&result, 0, sizeof(result));
  LogCapture log;
  ASSERT_EQ(conn_->ExecuteSQL("select * from t;", &result, DB_EXEC_SQL_SYNC), 0);
  EXPECT_EQ(result.iRowCount, 0);
  // sqlite3_get_table fills in the column names from the first row, so an
  // empty result brings no header either: the table is allocated but empty.
  EXPECT_EQ(result.iColumnCount, 0);
  EXPECT_NE(result.ppszResult, nullptr);
  ExpectLoggedOnce(log, kLevelDebug, kSqliteConnFile,
                   "RECORD: ExecuteSQL: select * from t; SUCCESS");
  conn_->FreeExecuteResult(&result);
}

TEST_F(SqlTest, ResultOfOneRowStartsWithTheHeader) {
  Run("create table t(id integer, v text, w blob);");
  Run("insert into t values(5, 'five', x'0102');");
  DB_EXEC_RESULT result;
  std::memset(&result, 0, sizeof(result));
  ASSERT_EQ(conn_->ExecuteSQL("select * from t;", &result, DB_EXEC_SQL_SYNC), 0);
  EXPECT_EQ(result.iRowCount, 1);
  ASSERT_EQ(result.iColumnCount, 3);
  EXPECT_EQ(Cell(result, 0), "id");
  EXPECT_EQ(Cell(result, 1), "v");
  EXPECT_EQ(Cell(result, 2), "w");
  EXPECT_EQ(Cell(result, 3), "5");
  EXPECT_EQ(Cell(result, 4), "five");
  EXPECT_EQ(Cell(result, 5), "\x01\x02");
  conn_->FreeExecuteResult(&result);
}

TEST_F(SqlTest, ResultTableHoldsRowsWithNullsAsNullPointers) {
  Run("create table t(a integer, b text);");
  Run("insert into t values(1, 'one');");
  Run("insert into t values(2, null);");
  DB_EXEC_RESULT result;
  std::memset(&result, 0, sizeof(result));
  ASSERT_EQ(conn_->ExecuteSQL("select a, b from t order by a;", &result, DB_EXEC_SQL_SYNC), 0);
  EXPECT_EQ(result.iRowCount, 2);
  EXPECT_EQ(result.iColumnCount, 2);
  EXPECT_EQ(Cell(result, 0), "a");
  EXPECT_EQ(Cell(result, 1), "b");
  EXPECT_EQ(Cell(result, 2), "1");
  EXPECT_EQ(Cell(result, 3), "one");
  EXPECT_EQ(Cell(result, 4), "2");
  EXPECT_EQ(result.ppszResult[5], nullptr);
  conn_->FreeExecuteResult(&result);
}

TEST_F(SqlTest, FreeExecuteResultIgnoresNullRecordsAndTables) {
  conn_->FreeExecuteResult(nullptr);
  DB_EXEC_RESULT empty;
  std::memset(&empty, 0, sizeof(empty));
  empty.iRowCount = 3;
  conn_->FreeExecuteResult(&empty);
  EXPECT_EQ(empty.iRowCount, 3);
  EXPECT_EQ(empty.ppszResult, nullptr);
}

TEST_F(SqlTest, SyntaxErrorWithoutResult) {
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL("selec 1;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec:selec 1; failed:1,near \"selec\": syntax error");
  EXPECT_EQ(log.CountAtLevel(kLevelError), 1u) << log.Dump();
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_TRUE(RepairItems(conn_.get()).empty());  // SQLITE_ERROR queues nothing
}

TEST_F(SqlTest, SyntaxErrorWithResult) {
  DB_EXEC_RESULT result;
  std::memset(&result, 0, sizeof(result));
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL("selec 1;", &result, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_get_table:selec 1; failed:1,near \"selec\": syntax error");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  conn_->FreeExecuteResult(&result);
}

TEST_F(SqlTest, MissingTableReportsSqliteMessage) {
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL("select * from nowhere;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec:select * from nowhere; failed:1,no such table: nowhere");
}

TEST_F(SqlTest, ClosedConnectionRefusesEveryKind) {
  ASSERT_EQ(conn_->CloseConnection(), 0);
  LogCapture log;
  DB_EXEC_RESULT result;
  std::memset(&result, 0, sizeof(result));
  EXPECT_EQ(conn_->ExecuteSQL("select 1;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_CONN_NOT_EXIST);
  EXPECT_EQ(conn_->ExecuteSQL("select 1;", &result, DB_EXEC_SQL_SYNC), DB_ERR_CONN_NOT_EXIST);
  EXPECT_EQ(conn_->ExecuteSQL("select 1;", nullptr, DB_EXEC_SQL_ASYNC), DB_ERR_CONN_NOT_EXIST);
  EXPECT_EQ(log.Count("RECORD: DB Connection has not exist"), 3u) << log.Dump();
  EXPECT_EQ(log.CountAtLevel(kLevelError), 3u);
  EXPECT_TRUE(ExecItems(conn_.get()).empty());
}

// ---- Queued execution ----

TEST_F(SqlTest, QueuedStatementOf1023CharactersIsQueuedAndNotRun) {
  Run("create table t(v text);");
  std::string text = "insert into t values('";
  text += std::string(1023 - text.size() - 3, 'q') + "');";
  ASSERT_EQ(text.size(), 1023u);
  SqlCapture sql(db_);
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL(text.c_str(), nullptr, DB_EXEC_SQL_ASYNC), 0);
  auto items = ExecItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, SQLITE_EXEC_CMD_SQL);
  EXPECT_EQ(std::string(items[0].szSQL), text);
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  EXPECT_EQ(QueryText(db_, "select count(*) from t;"), "0");
}

TEST_F(SqlTest, QueuedStatementOf1024CharactersIsRefused) {
  std::string text = "select '" + std::string(1024 - 10, 'x') + "';";
  ASSERT_EQ(text.size(), 1024u);
  char probe[1024];
  int expected = strncpy_s(probe, sizeof(probe), text.c_str(), 1023);
  ASSERT_NE(expected, 0);
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL(text.c_str(), nullptr, DB_EXEC_SQL_ASYNC), expected);
  EXPECT_EQ(expected, ERANGE);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: Copy szSQL failed");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_TRUE(ExecItems(conn_.get()).empty());
}

TEST_F(SqlTest, QueuedNullStatementIsRefused) {
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL(nullptr, nullptr, DB_EXEC_SQL_ASYNC), EINVAL);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: Copy szSQL failed");
  EXPECT_TRUE(ExecItems(conn_.get()).empty());
}

TEST_F(SqlTest, QueuedStatementIgnoresTheResultRecord) {
  DB_EXEC_RESULT result;
  result.iRowCount = 11;
  result.iColumnCount = 12;
  result.ppszResult = nullptr;
  EXPECT_EQ(conn_->ExecuteSQL("select 1;", &result, DB_EXEC_SQL_ASYNC), 0);
  EXPECT_EQ(result.iRowCount, 11);
  EXPECT_EQ(result.iColumnCount, 12);
  EXPECT_EQ(result.ppszResult, nullptr);
  EXPECT_EQ(ExecItems(conn_.get()).size(), 1u);
}

// ---- Count queries ----

TEST_F(SqlTest, CountOfFiveRows) {
  MakeFiveRows();
  LogCapture log;
  EXPECT_EQ(conn_->GetCountOfSQLResult("select count(*) from t"), 5);
  EXPECT_EQ(log.CountAtLevel(kLevelError), 0u) << log.Dump();
}

TEST_F(SqlTest, CountWithAnAliasIsNotRecognised) {
  MakeFiveRows();
  EXPECT_EQ(conn_->GetCountOfSQLResult("select count(*) as n from t"), 0);
  EXPECT_EQ(conn_->GetCountOfSQLResult("select count(id) from t"), 0);
  EXPECT_EQ(conn_->GetCountOfSQLResult("select COUNT(*) from t"), 0);
}

TEST_F(SqlTest, CountColumnNeedNotComeFirst) {
  MakeFiveRows();
  EXPECT_EQ(conn_->GetCountOfSQLResult("select 'x', count(*) from t"), 5);
}

TEST_F(SqlTest, CountOverSeveralRowsReadsShiftedValues) {
  Run("create table g(x integer);");
  for (const char* value : {"7", "7", "9", "9", "9"}) {
    Run(std::string("insert into g values(") + value + ");");
  }
  // Rows (7, 2) and (9, 3): after the match in the first row the running
  // index stays, so the second row's count is read from its x column.
  EXPECT_EQ(conn_->GetCountOfSQLResult("select x, count(*) from g group by x order by x"), 9);
  // Count first: the index never moves, so the first row's count is read
  // again for the second row.
  EXPECT_EQ(conn_->GetCountOfSQLResult("select count(*), x from g group by x order by x"), 2);
}

TEST_F(SqlTest, CountOfAFailingQueryIsZero) {
  LogCapture log;
  EXPECT_EQ(conn_->GetCountOfSQLResult("select count(*) from missing"), 0);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: ExecuteSQL:select count(*) from missing failed");
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_get_table:select count(*) from missing failed:1,"
                   "no such table: missing");
}

TEST_F(SqlTest, CountQueriesWithoutAHandle) {
  ASSERT_EQ(conn_->CloseConnection(), 0);
  LogCapture log;
  EXPECT_EQ(conn_->GetCountOfSQLResult("select count(*) from t"), 0);
  EXPECT_EQ(conn_->WhetherTableExist("t"), 0);
  EXPECT_EQ(conn_->GetRowCount("t"), 0);
  EXPECT_EQ(log.Count("RECORD: DB Connection has not exist"), 3u) << log.Dump();
  EXPECT_EQ(log.Entries().size(), 3u) << log.Dump();
}

TEST_F(SqlTest, WhetherTableExist) {
  MakeFiveRows();
  SqlCapture sql(db_);
  EXPECT_EQ(conn_->WhetherTableExist("t"), 1);
  EXPECT_EQ(conn_->WhetherTableExist("u"), 0);
  std::vector<std::string> expected = {
      "select count(*) from sqlite_master where type = 'table' and name = 't'",
      "select count(*) from sqlite_master where type = 'table' and name = 'u'"};
  EXPECT_EQ(sql.Statements(), expected);
}

TEST_F(SqlTest, WhetherTableExistInsertsTheNameVerbatim) {
  MakeFiveRows();
  // The name is not escaped, so this text widens the condition.
  EXPECT_EQ(conn_->WhetherTableExist("nothing' or name = 't"), 1);
  LogCapture log;
  EXPECT_EQ(conn_->WhetherTableExist("it's"), 0);  // a syntax error reads as missing
  EXPECT_TRUE(log.Contains("RECORD: sqlite3_get_table:")) << log.Dump();
}

TEST_F(SqlTest, WhetherTableExistLogsAFormattingFailureTwice) {
  std::string name(1100, 'n');
  LogCapture log;
  EXPECT_EQ(conn_->WhetherTableExist(name.c_str()), 0);
  std::vector<LogEntry> entries = log.WithText("RECORD: snprintf fail! error code is -1\n");
  ASSERT_EQ(entries.size(), 2u) << log.Dump();
  EXPECT_EQ(entries[0].level, kLevelError);
  EXPECT_EQ(entries[1].level, kLevelError);
  EXPECT_EQ(entries[0].file, kSqliteConnFile);
  // The cut text is run all the same.
  std::string cut = "select count(*) from sqlite_master where type = 'table' and name = '";
  cut += std::string(1023 - cut.size(), 'n');
  EXPECT_EQ(log.Count("RECORD: ExecuteSQL:" + cut + " failed"), 1u) << log.Dump();
}

TEST_F(SqlTest, GetRowCount) {
  MakeFiveRows();
  SqlCapture sql(db_);
  EXPECT_EQ(conn_->GetRowCount("t"), 5);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"select count(*) from t"});
  EXPECT_EQ(conn_->GetRowCount("missing"), 0);
  Run("create table e(v);");
  EXPECT_EQ(conn_->GetRowCount("e"), 0);
}

TEST_F(SqlTest, GetRowCountLogsAFormattingFailureOnce) {
  std::string name(1100, 'n');
  LogCapture log;
  EXPECT_EQ(conn_->GetRowCount(name.c_str()), 0);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: snprintf fail! error code is -1\n");
}

// ---- Transactions ----

TEST_F(SqlTest, BeginAndCommit) {
  Run("create table t(v);");
  SqlCapture sql(db_);
  LogCapture log;
  EXPECT_EQ(conn_->BeginTransaction(), 0);
  EXPECT_EQ(sqlite3_get_autocommit(db_), 0);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: execSQL: begin success");
  Run("insert into t values(1);");
  {
    SecondHandle other(dir_.Path() + "t.db");
    EXPECT_EQ(other.Query("select count(*) from t;"), "0");
  }
  EXPECT_EQ(conn_->CommitTransaction(), 0);
  EXPECT_EQ(sqlite3_get_autocommit(db_), 1);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: execSQL: commit success");
  std::vector<std::string> expected = {"begin;", "insert into t values(1);", "commit;"};
  EXPECT_EQ(sql.Statements(), expected);
  SecondHandle other(dir_.Path() + "t.db");
  EXPECT_EQ(other.Query("select count(*) from t;"), "1");
}

TEST_F(SqlTest, CommitWithoutBeginFails) {
  LogCapture log;
  EXPECT_EQ(conn_->CommitTransaction(), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: ExecuteSQL failed");
  EXPECT_EQ(log.Count("RECORD: execSQL: commit success"), 0u);
}

TEST_F(SqlTest, NestedBeginFails) {
  ASSERT_EQ(conn_->BeginTransaction(), 0);
  LogCapture log;
  EXPECT_EQ(conn_->BeginTransaction(), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: ExecuteSQL failed");
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec:begin; failed:1,cannot start a transaction within a "
                   "transaction");
  EXPECT_EQ(conn_->CommitTransaction(), 0);
}

TEST_F(SqlTest, ForceCommitOnlyQueuesACommitItem) {
  Run("create table t(v);");
  ASSERT_EQ(conn_->BeginTransaction(), 0);
  Run("insert into t values(1);");
  SqlCapture sql(db_);
  EXPECT_EQ(conn_->ForceCommitTransaction(), 0);
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_EQ(sqlite3_get_autocommit(db_), 0);  // still inside the caller's transaction
  auto items = ExecItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, SQLITE_EXEC_CMD_COMMIT);
  EXPECT_EQ(std::string(items[0].szSQL, sizeof(items[0].szSQL)),
            std::string(sizeof(items[0].szSQL), '\0'));
  EXPECT_EQ(conn_->CommitTransaction(), 0);
}

// ---- Paused ----

TEST_F(SqlTest, WhilePausedStatementsAreDroppedAndCountsAreZero) {
  MakeFiveRows();
  ASSERT_EQ(conn_->PauseConnection(), 0);
  LogCapture log;
  DB_EXEC_RESULT result;
  result.iRowCount = 77;
  result.iColumnCount = 78;
  result.ppszResult = reinterpret_cast<char**>(&result);  // sentinel, never used
  EXPECT_EQ(conn_->ExecuteSQL("select * from t;", &result, DB_EXEC_SQL_SYNC), 0);
  EXPECT_EQ(result.iRowCount, 77);
  EXPECT_EQ(result.iColumnCount, 78);
  EXPECT_EQ(result.ppszResult, reinterpret_cast<char**>(&result));
  EXPECT_EQ(conn_->ExecuteSQL("delete from t;", nullptr, DB_EXEC_SQL_SYNC), 0);
  EXPECT_EQ(conn_->ExecuteSQL("delete from t;", nullptr, DB_EXEC_SQL_ASYNC), 0);
  EXPECT_EQ(conn_->ExecuteSQL("this is not sql", nullptr, DB_EXEC_SQL_SYNC), 0);
  EXPECT_TRUE(ExecItems(conn_.get()).empty());
  EXPECT_EQ(conn_->GetCountOfSQLResult("select count(*) from t"), 0);
  EXPECT_EQ(conn_->WhetherTableExist("t"), 0);
  EXPECT_EQ(conn_->GetRowCount("t"), 0);
  EXPECT_EQ(conn_->BeginTransaction(), 0);
  EXPECT_EQ(conn_->CommitTransaction(), 0);
  EXPECT_EQ(log.CountAtLevel(kLevelError), 0u) << log.Dump();
  EXPECT_EQ(log.CountAtLevel(kLevelDebug), 0u) << log.Dump();
  EXPECT_TRUE(RepairItems(conn_.get()).empty());

  ASSERT_EQ(conn_->ResumeConnection(), 0);
  EXPECT_EQ(conn_->GetRowCount("t"), 5);  // nothing was deleted
}
