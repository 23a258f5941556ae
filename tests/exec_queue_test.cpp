// Tests of the execution queue without a running worker: its capacity, the
// order in which items come out, queued statements that never run, the
// time-out bookkeeping that commits an idle batch, and starting and stopping
// a worker that the library never creates.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ConnTestSupport.h"
#include "SQLiteDBConn.h"
#include "TestSupport.h"
#include "WaitBounds.h"

using namespace ipc_db_test;

namespace {

class ExecQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(conn_->OpenConnection(), 0);
    db_ = conn_->m_pSqliteDB;
    ASSERT_EQ(Exec(db_, "create table t(v text);"), 0);
  }

  static SQLITE_DB_EXEC_QUEUE_ITEM Item(int command, const std::string& sql) {
    SQLITE_DB_EXEC_QUEUE_ITEM item;
    std::memset(&item, 0, sizeof(item));
    item.enCmdType = command;
    std::strncpy(item.szSQL, sql.c_str(), sizeof(item.szSQL) - 1);
    return item;
  }

  TempDir dir_;
  std::unique_ptr<CSqliteDBConn> conn_ = MakeConn(dir_.Path());
  sqlite3* db_ = nullptr;
};

}  // namespace

TEST_F(ExecQueueTest, HoldsAtMost1024Items) {
  LogCapture log;
  for (int i = 0; i < 1024; ++i) {
    ASSERT_EQ(conn_->NotifySqlExecCmd(Item(0, "insert into t values(" + std::to_string(i) + ");")),
              0)
        << i;
  }
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  EXPECT_EQ(conn_->NotifySqlExecCmd(Item(0, "insert into t values(1024);")), DB_ERR_QUEUE_FULL);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: Queue is full.");
  auto items = ExecItems(conn_.get());
  ASSERT_EQ(items.size(), 1024u);
  EXPECT_STREQ(items.front().szSQL, "insert into t values(0);");
  EXPECT_STREQ(items.back().szSQL, "insert into t values(1023);");
}

TEST_F(ExecQueueTest, QueuedStatementsBeyondTheLimitAreRefused) {
  for (int i = 0; i < 1024; ++i) {
    ASSERT_EQ(conn_->ExecuteSQL("insert into t values('a');", nullptr, DB_EXEC_SQL_ASYNC), 0);
  }
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL("insert into t values('b');", nullptr, DB_EXEC_SQL_ASYNC),
            DB_ERR_QUEUE_FULL);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: Queue is full.");
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: NotifySqlExecCmd failed");
  EXPECT_EQ(log.Entries().size(), 2u) << log.Dump();
  EXPECT_EQ(conn_->ForceCommitTransaction(), DB_ERR_QUEUE_FULL);
  EXPECT_EQ(ExecItems(conn_.get()).size(), 1024u);
  // None of them ran.
  EXPECT_EQ(QueryText(db_, "select count(*) from t;"), "0");
}

TEST_F(ExecQueueTest, QueuedStatementIsNotRun) {
  SqlCapture sql(db_);
  EXPECT_EQ(conn_->ExecuteSQL("insert into t values('later');", nullptr, DB_EXEC_SQL_ASYNC), 0);
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_EQ(QueryText(db_, "select count(*) from t;"), "0");
  // The capture lets go of the handle before the close frees it.
  sql.Detach();
  // Closing does not empty the queue.
  ASSERT_EQ(conn_->CloseConnection(), 0);
  EXPECT_EQ(ExecItems(conn_.get()).size(), 1u);
}

TEST_F(ExecQueueTest, ItemsComeOutInOrder) {
  ASSERT_EQ(conn_->NotifySqlExecCmd(Item(0, "first")), 0);
  ASSERT_EQ(conn_->NotifySqlExecCmd(Item(1, "")), 0);
  ASSERT_EQ(conn_->NotifySqlExecCmd(Item(2, "third")), 0);
  SQLITE_DB_EXEC_QUEUE_ITEM item;
  ASSERT_EQ(conn_->WaitSqlExecCmd(item), 0);
  EXPECT_EQ(item.enCmdType, 0);
  EXPECT_STREQ(item.szSQL, "first");
  ASSERT_EQ(conn_->WaitSqlExecCmd(item), 0);
  EXPECT_EQ(item.enCmdType, 1);
  EXPECT_STREQ(item.szSQL, "");
  ASSERT_EQ(conn_->WaitSqlExecCmd(item), 0);
  EXPECT_EQ(item.enCmdType, 2);
  EXPECT_STREQ(item.szSQL, "third");
  EXPECT_TRUE(ExecItems(conn_.get()).empty());
}

TEST_F(ExecQueueTest, WaitReturnsAnItemPostedWhileWaiting) {
  SQLITE_DB_EXEC_QUEUE_ITEM item;
  std::memset(&item, 0, sizeof(item));
  // Timed from before the poster starts, so that its 200 ms lie inside the
  // measured time even when this thread reaches its wait late.
  auto start = std::chrono::steady_clock::now();
  std::thread poster([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    conn_->NotifySqlExecCmd(Item(0, "posted"));
  });
  EXPECT_EQ(conn_->WaitSqlExecCmd(item), 0);
  long long elapsed = MillisecondsSince(start);
  poster.join();
  EXPECT_STREQ(item.szSQL, "posted");
  EXPECT_GE(elapsed, 150);
  EXPECT_LT(elapsed, 4000);
}

TEST_F(ExecQueueTest, SqliteStopHookPostsAStopItem) {
  LogCapture log;
  CSqliteDBConn::SqliteStopDBExecThreadFun(conn_.get());
  auto items = ExecItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, SQLITE_EXEC_CMD_STOP);
  EXPECT_STREQ(items[0].szSQL, "");
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(ExecQueueTest, WorkerFunctionsRefuseANullConnection) {
  LogCapture log;
  CSqliteDBConn::SqliteStopDBExecThreadFun(nullptr);
  CSqliteDBConn::SqliteDBExecThreadFun(nullptr);
  EXPECT_EQ(log.Count("RECORD: null pointer"), 2u) << log.Dump();
  for (const LogEntry& entry : log.Entries()) {
    EXPECT_EQ(entry.level, kLevelError);
    EXPECT_EQ(entry.file, kSqliteConnFile);
  }
}

// ---- Idle-commit bookkeeping ----

TEST_F(ExecQueueTest, ThirdConsecutiveTimeOutCommitsTheOpenBatch) {
  ASSERT_EQ(conn_->BeginTransaction(), 0);
  ASSERT_EQ(Exec(db_, "insert into t values('x');"), 0);
  conn_->m_bInTransaction = 1;
  conn_->m_ullExecCount = 7;
  SqlCapture sql(db_);
  conn_->WaitExecTimeOutProcess();
  conn_->WaitExecTimeOutProcess();
  EXPECT_EQ(conn_->m_ullWaitTimeOutCount, 2u);
  EXPECT_EQ(sqlite3_get_autocommit(db_), 0);
  EXPECT_EQ(conn_->m_bInTransaction, 1);
  EXPECT_TRUE(sql.Statements().empty());
  LogCapture log;
  conn_->WaitExecTimeOutProcess();
  EXPECT_EQ(conn_->m_ullWaitTimeOutCount, 3u);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"commit;"});
  EXPECT_EQ(sqlite3_get_autocommit(db_), 1);
  EXPECT_EQ(conn_->m_bInTransaction, 0);
  EXPECT_EQ(conn_->m_ullExecCount, 0u);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: execSQL: commit success");

  // The count is not reset: the next time-out commits a new batch at once.
  ASSERT_EQ(conn_->BeginTransaction(), 0);
  conn_->m_bInTransaction = 1;
  conn_->WaitExecTimeOutProcess();
  EXPECT_EQ(conn_->m_ullWaitTimeOutCount, 4u);
  EXPECT_EQ(sqlite3_get_autocommit(db_), 1);
  EXPECT_EQ(conn_->m_bInTransaction, 0);
}

TEST_F(ExecQueueTest, TimeOutsWithoutABatchCommitNothing) {
  SqlCapture sql(db_);
  for (int i = 0; i < 5; ++i) conn_->WaitExecTimeOutProcess();
  EXPECT_EQ(conn_->m_ullWaitTimeOutCount, 5u);
  EXPECT_TRUE(sql.Statements().empty());
  conn_->ClearWaitExecTimeOutCount();
  EXPECT_EQ(conn_->m_ullWaitTimeOutCount, 0u);
}

TEST_F(ExecQueueTest, FailedIdleCommitStillResetsTheBatch) {
  conn_->m_bInTransaction = 1;  // no transaction is actually open
  conn_->m_ullExecCount = 3;
  conn_->m_ullWaitTimeOutCount = 2;
  LogCapture log;
  conn_->WaitExecTimeOutProcess();
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: CommitTransaction failed");
  EXPECT_EQ(conn_->m_bInTransaction, 0);
  EXPECT_EQ(conn_->m_ullExecCount, 0u);
}

// ---- Start and stop without a thread ----

TEST_F(ExecQueueTest, StartExecThreadCreatesNoThread) {
  conn_->m_bExecThreadStop = 1;
  int threads = ThreadCount();
  LogCapture log;
  EXPECT_EQ(conn_->StartExecThread(), 0);
  EXPECT_EQ(conn_->m_bExecThreadStop, 0);
  EXPECT_EQ(conn_->m_bExecThreadStarted, 0);
  EXPECT_EQ(conn_->m_bExecThreadRunning, 0);
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(ExecQueueTest, StopOfANeverStartedWorkerReturnsAtOnce) {
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn_->StopExecThread(), 0);
  EXPECT_LT(MillisecondsSince(start), 50 + kElapsedHeadroomMs);
  EXPECT_EQ(conn_->m_bExecThreadStop, 0);  // untouched
  EXPECT_TRUE(ExecItems(conn_.get()).empty());
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(ExecQueueTest, StopOfAStartedButNotRunningWorkerKeepsTheStartedFlag) {
  conn_->m_bExecThreadStarted = 1;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn_->StopExecThread(), 0);
  EXPECT_LT(MillisecondsSince(start), 50 + kElapsedHeadroomMs);
  EXPECT_EQ(conn_->m_bExecThreadStarted, 1);
  EXPECT_EQ(conn_->m_bExecThreadStop, 0);
  EXPECT_TRUE(ExecItems(conn_.get()).empty());
  conn_->m_bExecThreadStarted = 0;
}
