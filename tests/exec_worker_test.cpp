// Tests of the execution worker body running on threads that the tests
// start themselves (the library never starts one): thread names, batching
// of queued statements into transactions of 32, commit items, failed
// statements inside a batch, the idle commit after three quiet 5 s waits,
// and the stop handshake from StopExecThread, PauseConnection and
// CloseConnection, also when the worker never answers it. Changes are
// observed from a second handle on the file. Waits of seconds run on the
// test environment's fake clock (TestEnv.h), moved by the tests.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ConnTestSupport.h"
#include "SQLiteDBConn.h"
#include "TestEnv.h"
#include "TestSupport.h"
#include "WaitBounds.h"

using namespace ipc_db_test;

namespace {

constexpr const char* kThreadEnd = "RECORD: !!!!!   SqliteDBExecThreadFun(): thread end !!!!!";

// ExecThreadFun calls made by this process so far; its names count from 0.
int g_execThreadsEntered = 0;

std::mutex g_probeMutex;
std::vector<std::string> g_probeNames;

// Worker body that notes the name of the thread it runs on, then runs the
// real body.
void* NamingProbe(void* conn) {
  {
    std::lock_guard<std::mutex> lock(g_probeMutex);
    g_probeNames.push_back(ThreadName(CurrentTid()));
  }
  return CSqliteDBConn::SqliteDBExecThreadFun(conn);
}

class ExecWorkerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(conn_->OpenConnection(), 0);
    ASSERT_EQ(Exec(conn_->m_pSqliteDB, "create table t(v text);"), 0);
  }

  void TearDown() override {
    if (LoadFlag(conn_->m_bExecThreadRunning) == 1) StopWorker();
  }

  void StartWorker() {
    ASSERT_TRUE(StartExecWorker(conn_.get()));
    ++g_execThreadsEntered;
  }

  void StopWorker() {
    EXPECT_EQ(conn_->StopExecThread(), 0);
    EXPECT_EQ(LoadFlag(conn_->m_bExecThreadRunning), 0);
  }

  void Queue(const std::string& sql) {
    ASSERT_EQ(conn_->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_ASYNC), 0);
  }

  void QueueInserts(int first, int last) {
    for (int i = first; i <= last; ++i) Queue("insert into t values('v" + std::to_string(i) + "');");
  }

  // Waits until the worker has logged the outcome of `count` statements.
  bool WaitExecuted(size_t count) {
    return WaitFor(
        [&] {
          size_t done = 0;
          for (const LogEntry& entry : log_.Entries()) {
            if (entry.text.rfind("RECORD: ExecuteSQL: insert", 0) == 0 ||
                entry.text.rfind("RECORD: ExecuteSQL for:", 0) == 0) {
              ++done;
            }
          }
          return done >= count;
        },
        kConditionWaitMs);
  }

  std::string CountFromOutside() {
    SecondHandle other(File());
    return other.Query("select count(*) from t;");
  }

  std::string File() const { return dir_.Path() + "t.db"; }

  TempDir dir_;
  std::unique_ptr<CSqliteDBConn> conn_ = MakeConn(dir_.Path());
  LogCapture log_;
};

}  // namespace

TEST_F(ExecWorkerTest, ThreadNamesCountUpOverTheProcess) {
  conn_->m_pfnExecThread = &NamingProbe;
  int first = g_execThreadsEntered;
  for (int round = 0; round < 3; ++round) {
    StartWorker();
    StopWorker();
  }
  std::lock_guard<std::mutex> lock(g_probeMutex);
  std::vector<std::string> expected;
  for (int i = 0; i < 3; ++i) expected.push_back("db_exec_" + std::to_string(first + i));
  EXPECT_EQ(g_probeNames, expected);
  g_probeNames.clear();
}

TEST_F(ExecWorkerTest, EntryWithoutConnectionStillTakesANumber) {
  int threads = ThreadCount();
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, &CDBConn::ExecThreadFun, nullptr), 0);
  ++g_execThreadsEntered;
  // The entry detaches itself; wait until its thread is gone.
  ASSERT_TRUE(WaitFor([&] { return ThreadCount() <= threads; }, kConditionWaitMs));
  conn_->m_pfnExecThread = &NamingProbe;
  StartWorker();
  StopWorker();
  std::lock_guard<std::mutex> lock(g_probeMutex);
  EXPECT_EQ(g_probeNames,
            std::vector<std::string>{"db_exec_" + std::to_string(g_execThreadsEntered - 1)});
  g_probeNames.clear();
}

TEST_F(ExecWorkerTest, EntryWithoutBodyOnlyMarksItselfRunning) {
  conn_->m_pfnExecThread = nullptr;
  int threads = ThreadCount();
  conn_->m_bExecThreadRunning = 0;
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, &CDBConn::ExecThreadFun, conn_.get()), 0);
  ++g_execThreadsEntered;
  ASSERT_TRUE(WaitFor([&] { return ThreadCount() <= threads; }, kConditionWaitMs));
  EXPECT_EQ(LoadFlag(conn_->m_bExecThreadRunning), 0);
}

TEST_F(ExecWorkerTest, PauseStopsTheWorker) {
  TestEnv env(Clock::kFake, kLiveWorkerSleepCapMs);
  StartWorker();
  EXPECT_EQ(conn_->PauseConnection(), 0);
  // The handshake's 100 ms sleeps while the worker leaves, then the pause's
  // 2 s.
  std::vector<unsigned long long> sleeps = env.Sleeps();
  ASSERT_FALSE(sleeps.empty());
  EXPECT_EQ(sleeps.back(), 2000u);
  sleeps.pop_back();
  EXPECT_EQ(sleeps, std::vector<unsigned long long>(sleeps.size(), 100));
  EXPECT_EQ(log_.Count("RECORD: ExecThread time out!"), 0u);
  EXPECT_EQ(LoadFlag(conn_->m_bExecThreadRunning), 0);
  EXPECT_EQ(conn_->m_bExecThreadStarted, 0);
  ASSERT_TRUE(WaitFor([&] { return log_.Count(kThreadEnd) == 1; }, kConditionWaitMs));
  // Resuming configures the worker again but starts no thread.
  EXPECT_EQ(conn_->ResumeConnection(), 0);
  EXPECT_EQ(conn_->m_bExecThreadStop, 0);
  EXPECT_EQ(LoadFlag(conn_->m_bExecThreadRunning), 0);
}

TEST_F(ExecWorkerTest, StopHandshakeEndsARunningWorker) {
  StartWorker();
  EXPECT_EQ(LoadFlag(conn_->m_bExecThreadStop), 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn_->StopExecThread(), 0);
  EXPECT_LT(MillisecondsSince(start), 1000 + kElapsedHeadroomMs);
  EXPECT_EQ(LoadFlag(conn_->m_bExecThreadRunning), 0);
  EXPECT_EQ(conn_->m_bExecThreadStarted, 0);
  EXPECT_EQ(conn_->m_bExecThreadStop, 1);
  ASSERT_TRUE(WaitFor([&] { return log_.Count(kThreadEnd) == 1; }, kConditionWaitMs));
  ExpectLoggedOnce(log_, kLevelInfo, kSqliteConnFile, kThreadEnd);
  EXPECT_EQ(log_.Count("RECORD: ExecThread time out!"), 0u);
  EXPECT_TRUE(ExecItems(conn_.get()).empty());  // the stop item was taken
}

TEST_F(ExecWorkerTest, ThirtySecondStatementCommitsTheBatchAtOnce) {
  SqlCapture sql(conn_->m_pSqliteDB);
  StartWorker();
  QueueInserts(1, 31);
  ASSERT_TRUE(WaitExecuted(31)) << log_.Dump();
  EXPECT_EQ(CountFromOutside(), "0");
  EXPECT_EQ(log_.Count("RECORD: execSQL: begin success"), 1u);
  EXPECT_EQ(log_.Count("RECORD: execSQL: commit success"), 0u);
  ExpectLoggedOnce(log_, kLevelInfo, kSqliteConnFile,
                   "RECORD: SQL: insert into t values('v31');");

  auto start = std::chrono::steady_clock::now();
  QueueInserts(32, 32);
  ASSERT_TRUE(WaitFor([&] { return log_.Count("RECORD: execSQL: commit success") == 1; },
                      kConditionWaitMs));
  EXPECT_LT(MillisecondsSince(start), 1000 + kElapsedHeadroomMs);
  StopWorker();
  EXPECT_EQ(CountFromOutside(), "32");
  std::vector<std::string> statements = sql.Statements();
  ASSERT_EQ(statements.size(), 34u);
  EXPECT_EQ(statements.front(), "begin;");
  EXPECT_EQ(statements[1], "insert into t values('v1');");
  EXPECT_EQ(statements.back(), "commit;");
  EXPECT_EQ(conn_->m_bInTransaction, 0);
  EXPECT_EQ(conn_->m_ullExecCount, 0u);
}

TEST_F(ExecWorkerTest, SixtyFourStatementsMakeTwoTransactions) {
  SqlCapture sql(conn_->m_pSqliteDB);
  StartWorker();
  QueueInserts(1, 64);
  ASSERT_TRUE(WaitFor([&] { return log_.Count("RECORD: execSQL: commit success") == 2; },
                      kConditionWaitMs));
  StopWorker();
  EXPECT_EQ(sql.Count("begin;"), 2u);
  EXPECT_EQ(sql.Count("commit;"), 2u);
  std::vector<std::string> statements = sql.Statements();
  ASSERT_EQ(statements.size(), 68u);
  EXPECT_EQ(statements[33], "commit;");
  EXPECT_EQ(statements[34], "begin;");
  EXPECT_EQ(CountFromOutside(), "64");
}

TEST_F(ExecWorkerTest, CommitItemWithoutABatchDoesNothing) {
  SqlCapture sql(conn_->m_pSqliteDB);
  StartWorker();
  ASSERT_EQ(conn_->ForceCommitTransaction(), 0);
  ASSERT_TRUE(WaitFor([&] { return ExecItems(conn_.get()).empty(); }, kConditionWaitMs));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  StopWorker();
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_EQ(log_.CountAtLevel(kLevelError), 0u) << log_.Dump();
  EXPECT_FALSE(log_.Contains("commit")) << log_.Dump();
  EXPECT_EQ(conn_->m_bInTransaction, 0);
}

TEST_F(ExecWorkerTest, CommitItemCommitsTheOpenBatch) {
  SqlCapture sql(conn_->m_pSqliteDB);
  StartWorker();
  QueueInserts(1, 3);
  ASSERT_TRUE(WaitExecuted(3)) << log_.Dump();
  EXPECT_EQ(CountFromOutside(), "0");
  ASSERT_EQ(conn_->ForceCommitTransaction(), 0);
  ASSERT_TRUE(WaitFor([&] { return log_.Count("RECORD: execSQL: commit success") == 1; },
                      kConditionWaitMs));
  EXPECT_EQ(CountFromOutside(), "3");
  // The next statement opens a new batch.
  QueueInserts(4, 4);
  ASSERT_TRUE(WaitExecuted(4)) << log_.Dump();
  EXPECT_EQ(log_.Count("RECORD: execSQL: begin success"), 2u);
  ASSERT_EQ(conn_->ForceCommitTransaction(), 0);
  ASSERT_TRUE(WaitFor([&] { return log_.Count("RECORD: execSQL: commit success") == 2; },
                      kConditionWaitMs));
  StopWorker();
  EXPECT_EQ(CountFromOutside(), "4");
  EXPECT_EQ(sql.Count("commit;"), 2u);
}

TEST_F(ExecWorkerTest, FailedStatementDoesNotEndTheBatch) {
  StartWorker();
  Queue("insert into t values('good1');");
  Queue("insert into missing values(1);");
  Queue("insert into t values('good2');");
  ASSERT_TRUE(WaitExecuted(3)) << log_.Dump();
  ASSERT_EQ(conn_->ForceCommitTransaction(), 0);
  ASSERT_TRUE(WaitFor([&] { return log_.Count("RECORD: execSQL: commit success") == 1; },
                      kConditionWaitMs));
  StopWorker();
  ExpectLoggedOnce(log_, kLevelError, kSqliteConnFile,
                   "RECORD: ExecuteSQL for:insert into missing values(1); failed");
  ExpectLoggedOnce(log_, kLevelInfo, kSqliteConnFile,
                   "RECORD: SQL: insert into missing values(1);");
  EXPECT_EQ(log_.Count("RECORD: execSQL: begin success"), 1u);
  EXPECT_EQ(CountFromOutside(), "2");
}

TEST_F(ExecWorkerTest, CloseStopsTheWorkerAndDropsItsOpenBatch) {
  StartWorker();
  QueueInserts(1, 2);
  ASSERT_TRUE(WaitExecuted(2)) << log_.Dump();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn_->CloseConnection(), 0);
  EXPECT_LT(MillisecondsSince(start), 1000 + kElapsedHeadroomMs);
  EXPECT_EQ(LoadFlag(conn_->m_bExecThreadRunning), 0);
  EXPECT_EQ(conn_->m_bExecThreadStarted, 0);
  ASSERT_TRUE(WaitFor([&] { return log_.Count(kThreadEnd) == 1; }, kConditionWaitMs));
  // The worker does not commit when it stops; closing rolls the batch back.
  EXPECT_EQ(CountFromOutside(), "0");
  EXPECT_EQ(log_.Count("RECORD: execSQL: commit success"), 0u);
}

TEST_F(ExecWorkerTest, WakeUpWithoutAnItemCountsAsATimeOut) {
  StartWorker();
  QueueInserts(1, 1);
  ASSERT_TRUE(WaitExecuted(1)) << log_.Dump();
  // Three wake-ups that bring no item act as three quiet waits.
  ASSERT_TRUE(WakeUntil(
      &conn_->m_mutexExec, &conn_->m_condExec,
      [&] { return log_.Count("RECORD: execSQL: commit success") == 1; },
      kConditionWaitMs))
      << log_.Dump();
  StopWorker();
  EXPECT_EQ(CountFromOutside(), "1");
}

TEST_F(ExecWorkerTest, ThirtyOneStatementsWaitForTheThirdQuietPeriod) {
  TestEnv env(Clock::kFake, kLiveWorkerSleepCapMs);
  StartWorker();
  QueueInserts(1, 31);
  ASSERT_TRUE(WaitExecuted(31)) << log_.Dump();
  EXPECT_EQ(CountFromOutside(), "0");

  // Two quiet periods of 5 s pass without a commit. Once the worker is back
  // in its next wait, it has dealt with the time-out, and its counters are
  // stable to read.
  TestEnv::WaitState next;
  for (unsigned long long quiet = 1; quiet <= 2; ++quiet) {
    ASSERT_EQ(env.AdvanceToDeadline(kConditionWaitMs), 5000) << "quiet period " << quiet;
    ASSERT_TRUE(env.AwaitBlockedWait(&next, kConditionWaitMs));
    EXPECT_EQ(conn_->m_ullWaitTimeOutCount, quiet);
    EXPECT_EQ(log_.Count("RECORD: execSQL: commit success"), 0u);
    EXPECT_EQ(CountFromOutside(), "0");
  }
  // The third ends 15 s after the last statement and commits the batch.
  ASSERT_EQ(env.AdvanceToDeadline(kConditionWaitMs), 5000);
  ASSERT_TRUE(env.AwaitBlockedWait(&next, kConditionWaitMs));
  EXPECT_EQ(log_.Count("RECORD: execSQL: commit success"), 1u);
  EXPECT_EQ(env.ElapsedMs(), 15000);
  EXPECT_EQ(CountFromOutside(), "31");
  EXPECT_EQ(conn_->m_ullWaitTimeOutCount, 3u);
  EXPECT_EQ(conn_->m_bInTransaction, 0);
  EXPECT_EQ(conn_->m_ullExecCount, 0u);
  StopWorker();
  // Taking the stop item cleared the count of quiet waits.
  EXPECT_EQ(conn_->m_ullWaitTimeOutCount, 0u);
}

TEST_F(ExecWorkerTest, WaitOnAnEmptyQueueTimesOutAfterFiveSeconds) {
  TestEnv env(Clock::kFake);
  SQLITE_DB_EXEC_QUEUE_ITEM item;
  item.enCmdType = 9;
  std::atomic<long long> result{1};
  std::thread waiter([&] { result = conn_->WaitSqlExecCmd(item); });
  TestEnv::WaitState wait;
  bool blocked = env.AwaitBlockedWait(&wait, kConditionWaitMs);
  EXPECT_TRUE(blocked);
  EXPECT_EQ(wait.remainingMs, 5000);
  // A millisecond short of the deadline, the wait goes on.
  env.Advance(4999);
  EXPECT_FALSE(env.WaitEnded(wait));
  EXPECT_EQ(result.load(), 1);
  env.Advance(1);
  EXPECT_TRUE(blocked && env.AwaitWaitEnd(wait, kConditionWaitMs));
  waiter.join();
  EXPECT_EQ(result.load(), DB_ERR_WAIT_TIMEOUT);
  EXPECT_EQ(env.ElapsedMs(), 5000);
  EXPECT_EQ(item.enCmdType, 9);  // untouched
  // The queue mutex was released.
  EXPECT_EQ(pthread_mutex_trylock(&conn_->m_mutexExec), 0);
  pthread_mutex_unlock(&conn_->m_mutexExec);
}

TEST_F(ExecWorkerTest, StopGivesUpAfterFiftyOneSleeps) {
  TestEnv env(Clock::kFake);
  // A worker that claims to run but never takes its stop item.
  conn_->m_bExecThreadStarted = 1;
  conn_->m_bExecThreadRunning = 1;
  EXPECT_EQ(conn_->StopExecThread(), 0);
  EXPECT_EQ(env.Sleeps(), std::vector<unsigned long long>(51, 100));
  EXPECT_EQ(env.ElapsedMs(), 5100);
  ExpectLoggedOnce(log_, kLevelError, kConnFile, "RECORD: ExecThread time out!");
  EXPECT_EQ(conn_->m_bExecThreadStarted, 0);
  EXPECT_EQ(conn_->m_bExecThreadStop, 1);
  auto items = ExecItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, SQLITE_EXEC_CMD_STOP);
  conn_->m_bExecThreadRunning = 0;
}

TEST_F(ExecWorkerTest, StopLooksOnceMoreAfterTheLastSleep) {
  TestEnv env(Clock::kFake);
  // A worker that leaves during the 51st sleep: the handshake's look after
  // that sleep sees it gone, so there is no time-out.
  conn_->m_bExecThreadStarted = 1;
  conn_->m_bExecThreadRunning = 1;
  env.OnSleep([this](size_t count) {
    if (count == 51) __atomic_store_n(&conn_->m_bExecThreadRunning, 0, __ATOMIC_SEQ_CST);
  });
  EXPECT_EQ(conn_->StopExecThread(), 0);
  EXPECT_EQ(env.Sleeps().size(), 51u);
  EXPECT_EQ(log_.Count("RECORD: ExecThread time out!"), 0u) << log_.Dump();
  EXPECT_EQ(conn_->m_bExecThreadStarted, 0);
}
