// Tests of the execution worker that wait on its real 5-second time-outs:
// an idle batch committed at the third consecutive quiet wait, a single
// wait on an empty queue, and a stop request that the worker never answers.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "ConnTestSupport.h"
#include "SQLiteDBConn.h"
#include "TestSupport.h"
#include "WaitBounds.h"

using namespace ipc_db_test;

namespace {

class ExecWorkerSlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(conn_->OpenConnection(), 0);
    ASSERT_EQ(Exec(conn_->m_pSqliteDB, "create table t(v text);"), 0);
  }

  std::string CountFromOutside() {
    SecondHandle other(dir_.Path() + "t.db");
    return other.Query("select count(*) from t;");
  }

  TempDir dir_;
  std::unique_ptr<CSqliteDBConn> conn_ = MakeConn(dir_.Path());
};

}  // namespace

TEST_F(ExecWorkerSlowTest, ThirtyOneStatementsWaitForTheThirdQuietPeriod) {
  LogCapture log;
  ASSERT_TRUE(StartExecWorker(conn_.get()));
  // The quiet periods start after the last statement has run, which is after
  // this point: times measured from here are not shorter than the worker's.
  auto queued = std::chrono::steady_clock::now();
  for (int i = 1; i <= 31; ++i) {
    std::string sql = "insert into t values('v" + std::to_string(i) + "');";
    ASSERT_EQ(conn_->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_ASYNC), 0);
  }
  const std::string last = "RECORD: ExecuteSQL: insert into t values('v31'); SUCCESS";
  ASSERT_TRUE(WaitFor([&] { return log.Count(last) == 1; }, kConditionWaitMs))
      << log.Dump();
  EXPECT_EQ(CountFromOutside(), "0");

  // Two quiet periods (about 10 s) pass without a commit.
  std::this_thread::sleep_until(queued + std::chrono::milliseconds(12000));
  EXPECT_EQ(log.Count("RECORD: execSQL: commit success"), 0u);
  EXPECT_EQ(CountFromOutside(), "0");

  // The third ends at about 15 s and commits the batch.
  ASSERT_TRUE(WaitFor([&] { return log.Count("RECORD: execSQL: commit success") == 1; },
                      kConditionWaitMs));
  long long committedAfter = MillisecondsSince(queued);
  EXPECT_GE(committedAfter, 14500);
  EXPECT_LE(committedAfter, 16500 + kElapsedHeadroomMs);
  EXPECT_EQ(CountFromOutside(), "31");
  // The commit is logged before the batch state is reset; once it is, the
  // worker is back in its wait and its counters are stable.
  EXPECT_TRUE(WaitFor(
      [&] {
        return LoadFlag(conn_->m_bInTransaction) == 0 &&
               __atomic_load_n(&conn_->m_ullExecCount, __ATOMIC_SEQ_CST) == 0u;
      },
      kConditionWaitMs));
  EXPECT_EQ(__atomic_load_n(&conn_->m_ullWaitTimeOutCount, __ATOMIC_SEQ_CST), 3u);
  EXPECT_EQ(LoadFlag(conn_->m_bInTransaction), 0);
  EXPECT_EQ(__atomic_load_n(&conn_->m_ullExecCount, __ATOMIC_SEQ_CST), 0u);
  EXPECT_EQ(conn_->StopExecThread(), 0);
  EXPECT_EQ(LoadFlag(conn_->m_bExecThreadRunning), 0);
  // Taking the stop item cleared the count of quiet waits.
  EXPECT_EQ(conn_->m_ullWaitTimeOutCount, 0u);
}

TEST_F(ExecWorkerSlowTest, WaitOnAnEmptyQueueTimesOutAfterFiveSeconds) {
  SQLITE_DB_EXEC_QUEUE_ITEM item;
  item.enCmdType = 9;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn_->WaitSqlExecCmd(item), DB_ERR_WAIT_TIMEOUT);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 4900);
  EXPECT_LT(elapsed, 5000 + kElapsedHeadroomMs);
  EXPECT_EQ(item.enCmdType, 9);  // untouched
  // The queue mutex was released.
  EXPECT_EQ(pthread_mutex_trylock(&conn_->m_mutexExec), 0);
  pthread_mutex_unlock(&conn_->m_mutexExec);
}

TEST_F(ExecWorkerSlowTest, StopGivesUpAfterFiftyOneSleeps) {
  // A worker that claims to run but never takes its stop item.
  conn_->m_bExecThreadStarted = 1;
  conn_->m_bExecThreadRunning = 1;
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn_->StopExecThread(), 0);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 5050);
  EXPECT_LT(elapsed, 5100 + kElapsedHeadroomMs);
  ExpectLoggedOnce(log, kLevelError, kConnFile, "RECORD: ExecThread time out!");
  EXPECT_EQ(conn_->m_bExecThreadStarted, 0);
  EXPECT_EQ(conn_->m_bExecThreadStop, 1);
  auto items = ExecItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, SQLITE_EXEC_CMD_STOP);
  conn_->m_bExecThreadRunning = 0;
}
