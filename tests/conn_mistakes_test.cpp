// Caller mistakes on the connection layer (CSqliteDBConn): null statement
// texts, table names and keys. Each case was tried on the unchanged library
// under AddressSanitizer ("today"); each refused case has one test here that
// checks the result, the one error entry, the rows of the file (read through
// a connection of the test's own), that no maintenance request was queued
// and that a correct call afterwards succeeds.
//
// Case                                            today
//      -> now
//  1 ExecuteSQL(null, no result, sync)            0, "(null)" logged
//      -> -204, "RECORD: sql is null"
//  2 ExecuteSQL(null, result, sync)               0, empty result
//      -> -204, "RECORD: sql is null"
//  3 GetCountOfSQLResult(null)                    0, "(null)" logged
//      -> 0, "RECORD: sql is null"
//  4 WhetherTableExist(null)                      0, asks for "(null)"
//      -> 0, "RECORD: table is null"
//  5 GetRowCount(null)                            0, two error entries
//      -> 0, "RECORD: table is null"
//  6 ReEncryptDB(null key) on a keyed database    crash
//      -> -209, "RECORD: szEncryptKey is null"
//
// Left alone, with the reason:
// - ExecuteSQL(null, ..., async): the bounded copy refuses it (22, "RECORD:
//   Copy szSQL failed"); a text longer than 1023 characters likewise (34).
// - SetEncryptKey with a null key (22) or a length above 65 (34): refused
//   before copying, the key buffer unchanged.
// - ReEncryptDB with a length above 65: the file is re-keyed, the copy is
//   refused and the connection mutex stays held; with a buffer shorter than
//   the length: not detectable. ReEncryptDB while closed or paused:
//   SQLCipher refuses the missing handle (-209).
// - WhetherTableExist, GetRowCount with names too long for the 1024-byte
//   query, RepairDB with paths too long for its 256-byte command: the cut
//   text is logged as a formatting failure and used as it stands.
// - Names and statements with quotes: inserted as they stand.
// - Calls in the wrong state (open twice, close twice, statements while
//   closed or paused): their codes (-200, -202, 0 while paused) stand.
// - ExecThreadFun and MaintenanceThreadFun with a null connection: return at
//   once (after naming and detaching the calling thread).
#include <gtest/gtest.h>

#include <string>

#include "ConnTestSupport.h"
#include "MistakeTestSupport.h"

namespace ipc_db_test {
namespace {

const std::string kKey =
    "7c1e9a3f5b2d4068ac1e3f5a7b9d0c2e4f6a8b0c2d4e6f8a0b2c4d6e8f0a1b3c";

class ConnMistakes : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(conn_->OpenConnection(), 0);
    ASSERT_EQ(conn_->ExecuteSQL("create table t(a); insert into t values (1);", nullptr,
                                DB_EXEC_SQL_SYNC),
              0);
    before_ = Rows();
  }
  ipc_db_test::Rows Rows() { return FileRows(dir_.Path() + "t.db", "select a from t;"); }

  // The refusal logged one error `text`, queued no maintenance request and
  // changed no row; a correct statement then runs.
  void ExpectRefused(const LogCapture& log, const std::string& text) {
    ExpectOneError(log, kSqliteConnFile, text);
    EXPECT_TRUE(conn_->m_dqRepairItems.empty());
    EXPECT_EQ(Rows(), before_);
    EXPECT_EQ(conn_->ExecuteSQL("insert into t values (2);", nullptr, DB_EXEC_SQL_SYNC),
              0);
    EXPECT_EQ(Rows().size(), before_.size() + 1);
  }

  TempDir dir_;
  std::unique_ptr<CSqliteDBConn> conn_ = MakeConn(dir_.Path());
  ipc_db_test::Rows before_;
};

TEST_F(ConnMistakes, ExecuteNullStatement) {
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL(nullptr, nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ExpectRefused(log, "RECORD: sql is null");
}

TEST_F(ConnMistakes, ExecuteNullStatementWithAResultRecord) {
  DB_EXEC_RESULT result = {0, 0, nullptr};
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL(nullptr, &result, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  EXPECT_EQ(result.ppszResult, nullptr);
  EXPECT_EQ(result.iRowCount, 0);
  EXPECT_EQ(result.iColumnCount, 0);
  ExpectRefused(log, "RECORD: sql is null");
}

TEST_F(ConnMistakes, CountOfANullStatement) {
  LogCapture log;
  EXPECT_EQ(conn_->GetCountOfSQLResult(nullptr), 0);
  ExpectRefused(log, "RECORD: sql is null");
  EXPECT_EQ(conn_->GetCountOfSQLResult("select count(*) from t;"), 2);
}

TEST_F(ConnMistakes, WhetherANullTableExists) {
  LogCapture log;
  EXPECT_EQ(conn_->WhetherTableExist(nullptr), 0);
  ExpectRefused(log, "RECORD: table is null");
  EXPECT_EQ(conn_->WhetherTableExist("t"), 1);
}

TEST_F(ConnMistakes, RowCountOfANullTable) {
  LogCapture log;
  EXPECT_EQ(conn_->GetRowCount(nullptr), 0);
  ExpectRefused(log, "RECORD: table is null");
  EXPECT_EQ(conn_->GetRowCount("t"), 2);
}

TEST(ConnKeyMistakes, ReEncryptWithANullKey) {
  TempDir dir;
  std::unique_ptr<CSqliteDBConn> conn = MakeConn(dir.Path());
  SetKey(conn.get(), kKey);
  ASSERT_EQ(conn->OpenConnection(), 0);
  ASSERT_EQ(conn->ExecuteSQL("create table t(a);", nullptr, DB_EXEC_SQL_SYNC), 0);
  LogCapture log;
  EXPECT_EQ(conn->ReEncryptDB(nullptr, 64), DB_ERR_ENCRYPT);
  ExpectOneError(log, kSqliteConnFile, "RECORD: szEncryptKey is null");
  EXPECT_EQ(std::string(conn->m_szEncryptKey, 64), kKey);
  // The mutex was not taken, and a correct re-key succeeds.
  ASSERT_EQ(pthread_mutex_trylock(&conn->m_mutexConn.m_mutex), 0);
  pthread_mutex_unlock(&conn->m_mutexConn.m_mutex);
  std::string newKey(kKey.rbegin(), kKey.rend());
  EXPECT_EQ(conn->ReEncryptDB(newKey.c_str(), 64), 0);
  EXPECT_EQ(std::string(conn->m_szEncryptKey, 64), newKey);
}

}  // namespace
}  // namespace ipc_db_test
