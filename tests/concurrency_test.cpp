// Threads sharing one Db. Four threads run inserts (single records and
// batches), reads and counts on one table for a few seconds: nothing
// crashes, every row a call reported written is there (during the run, as
// each thread sees its own rows, and after a reopen), and every row read is
// whole. A second test runs the execution worker on a thread of its own
// while two threads queue statements. The ThreadSanitizer stage of
// scripts/test.sh runs this file.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ConnTestSupport.h"
#include "ReliabilityTestSupport.h"
#include "TestSupport.h"
#include "WaitBounds.h"

using ipc_db_test::Event;
using ipc_db_test::EventSchema;
using ipc_db_test::MakeBatch;
using ipc_db_test::MakeEvent;
using ipc_db_test::OpenEventDb;
using ipc_db_test::JsonObject;
using ipc_db_test::WriteResultJson;
using ipc_db_test::TempDir;
using ipc_db_test::ValueSlot;

namespace {

constexpr int kThreads = 4;
constexpr int kBatchRows = 5;
constexpr auto kRunTime = std::chrono::seconds(3);

// What one thread did.
struct Tally {
  long long rowsWritten = 0;  // rows of add_item calls that returned 0
  long long singleInserts = 0;
  long long batchInserts = 0;
  long long batchRefused = 0;  // "begin;" refused: another thread's batch was open
  long long reads = 0;
  long long rowsRead = 0;
  long long counts = 0;
  long long otherFailures = 0;
};

class SharedDbWorker {
 public:
  SharedDbWorker(Db* db, Table* table, EventSchema* schema, int index)
      : db_(db), table_(table), schema_(schema), index_(index) {}

  Tally Run(std::chrono::steady_clock::time_point deadline) {
    unsigned step = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      switch (step++ % 5) {
        case 0:
        case 1:
          InsertOne();
          break;
        case 2:
          InsertBatch();
          break;
        case 3:
          ReadOwnRows();
          break;
        default:
          CountRows();
          break;
      }
    }
    return tally_;
  }

 private:
  // Rows of this thread carry Batch = thread index and Seq = running number.
  void InsertOne() {
    Event event = MakeEvent(index_, static_cast<int32_t>(nextSeq_), 0);
    if (table_->add_item(&event, 1, DbFilters(0)) == 0) {
      ++nextSeq_;
      ++tally_.rowsWritten;
      ++tally_.singleInserts;
    } else {
      ++tally_.otherFailures;
    }
  }

  // A batch is one transaction on the shared handle: while another thread's
  // batch is open, "begin;" is refused and nothing of this batch is written.
  void InsertBatch() {
    std::vector<Event> events;
    for (int i = 0; i < kBatchRows; ++i) {
      events.push_back(MakeEvent(index_, static_cast<int32_t>(nextSeq_ + i), 0));
    }
    if (table_->add_item(events.data(), events.size(), DbFilters(0)) == 0) {
      nextSeq_ += kBatchRows;
      tally_.rowsWritten += kBatchRows;
      ++tally_.batchInserts;
    } else {
      ++tally_.batchRefused;
    }
  }

  // Reads this thread's rows back: as many as it wrote, each one whole.
  void ReadOwnRows() {
    DbFilters none(0);
    DbFilters mine(
        1, new DbFilter(schema_->batch(), DB_FILTER_OP_EQ, ValueSlot(index_), nullptr));
    // Room for one row more than written, and a limit to match, so that an
    // extra row is seen (and reported) rather than written past the array.
    std::vector<Event> out(static_cast<size_t>(tally_.rowsWritten) + 1);
    unsigned long long itemcnt = out.size();
    ASSERT_EQ(table_->get_item(none, mine, itemcnt, out.data()), 0);
    EXPECT_EQ(itemcnt, static_cast<unsigned long long>(tally_.rowsWritten));
    for (unsigned long long i = 0; i < itemcnt; ++i) {
      Event expected = MakeEvent(index_, out[i].seq, 0);
      EXPECT_EQ(out[i].batch, index_);
      EXPECT_STREQ(out[i].text, expected.text);
    }
    ++tally_.reads;
    tally_.rowsRead += static_cast<long long>(itemcnt);
  }

  void CountRows() {
    DbFilters mine(
        1, new DbFilter(schema_->batch(), DB_FILTER_OP_EQ, ValueSlot(index_), nullptr));
    EXPECT_EQ(table_->get_item_cnt(mine), tally_.rowsWritten);
    DbFilters none(0);
    EXPECT_GE(table_->get_item_cnt(none), tally_.rowsWritten);
    ++tally_.counts;
  }

  Db* db_;
  Table* table_;
  EventSchema* schema_;
  int32_t index_;
  long long nextSeq_ = 0;
  Tally tally_;
};

TEST(SharedDb, FourThreadsInsertReadAndCountWithoutLosingARow) {
  TempDir dir;
  EventSchema schema;
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "shared.db", ""), 0);
  std::unique_ptr<Table> table(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
  ASSERT_NE(table, nullptr);

  const auto deadline = std::chrono::steady_clock::now() + kRunTime;
  std::vector<std::unique_ptr<SharedDbWorker>> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.push_back(std::make_unique<SharedDbWorker>(&db, table.get(), &schema, i));
  }
  std::vector<std::future<Tally>> futures;
  for (auto& worker : workers) {
    futures.push_back(std::async(
        std::launch::async, [w = worker.get(), deadline] { return w->Run(deadline); }));
  }
  std::vector<Tally> tallies;
  for (auto& future : futures) tallies.push_back(future.get());

  // Reopen: every reported row was committed, none is missing or extra.
  ASSERT_EQ(db.CloseDB(), 0);
  ASSERT_EQ(db.OpenDB(), 0);
  Tally total;
  long long rowsLost = 0;
  for (int i = 0; i < kThreads; ++i) {
    const Tally& t = tallies[static_cast<size_t>(i)];
    DbFilters mine(1,
                   new DbFilter(schema.batch(), DB_FILTER_OP_EQ, ValueSlot(i), nullptr));
    long long stored = table->get_item_cnt(mine);
    EXPECT_EQ(stored, t.rowsWritten) << "thread " << i;
    if (stored < t.rowsWritten) rowsLost += t.rowsWritten - stored;
    EXPECT_GT(t.singleInserts, 0);
    EXPECT_GT(t.reads, 0);
    EXPECT_EQ(t.otherFailures, 0);
    total.rowsWritten += t.rowsWritten;
    total.singleInserts += t.singleInserts;
    total.batchInserts += t.batchInserts;
    total.batchRefused += t.batchRefused;
    total.reads += t.reads;
    total.rowsRead += t.rowsRead;
    total.counts += t.counts;
  }
  DbFilters none(0);
  EXPECT_EQ(table->get_item_cnt(none), total.rowsWritten);
  EXPECT_EQ(db.UnInit(), 0);

  JsonObject json;
  json.Add("threads", kThreads)
      .Add("seconds", static_cast<long long>(kRunTime.count()))
      .Add("rows_written", total.rowsWritten)
      .Add("rows_lost", rowsLost)
      .Add("single_inserts", total.singleInserts)
      .Add("batch_inserts", total.batchInserts)
      .Add("batches_refused_at_begin", total.batchRefused)
      .Add("reads", total.reads)
      .Add("rows_read", total.rowsRead)
      .Add("counts", total.counts);
  WriteResultJson("concurrency", "shared_db_threads", json.Text());
}

// Runs CDBConn::ExecThreadFun on a thread of its own and says when that
// thread has left it (the thread detaches itself, so it cannot be joined).
class ExecWorkerThread {
 public:
  explicit ExecWorkerThread(CDBConn* conn) : conn_(conn) {
    conn_->m_bExecThreadStarted = 1;  // the library configures but never starts it
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, nullptr, &ExecWorkerThread::Body, this), 0);
  }
  void WaitUntilGone() { gone_.get_future().wait(); }

 private:
  static void* Body(void* self) {
    auto* worker = static_cast<ExecWorkerThread*>(self);
    CDBConn::ExecThreadFun(worker->conn_);
    worker->gone_.set_value();
    return nullptr;
  }
  CDBConn* conn_;
  std::promise<void> gone_;
};

// Rows of t_queued that a separate connection sees, that is committed
// rows; -1 when the file cannot be read. The connection waits for a lock
// held by another one instead of failing at once.
long long CommittedRows(const std::string& path) {
  sqlite3* db = nullptr;
  long long count = -1;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, static_cast<int>(ipc_db_test::kConditionWaitMs));
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "select count(*) from t_queued;", -1, &stmt, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
      count = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  return count;
}

// Two threads queue inserts while the execution worker runs them in
// batches of 32; a forced commit and the stop handshake end it. Every queued
// statement is run and committed.
TEST(SharedDb, ExecutionWorkerRunsWhatTwoThreadsQueue) {
  TempDir dir;
  ipc_db_test::LogCapture log;
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "worker.db", ""), 0);
  ASSERT_EQ(db.m_pDBConn->ExecuteSQL("create table t_queued(a INTEGER, b INTEGER);",
                                     nullptr, DB_EXEC_SQL_SYNC),
            0);
  constexpr int kPerThread = 200;
  constexpr int kWorkerBatch = 32;  // statements the worker commits at a time
  ExecWorkerThread worker(db.m_pDBConn);
  auto queue = [&db](int thread) {
    int refused = 0;
    for (int i = 0; i < kPerThread; ++i) {
      std::string sql = "insert into t_queued values(" + std::to_string(thread) + "," +
                        std::to_string(i) + ");";
      while (db.m_pDBConn->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_ASYNC) != 0) {
        ++refused;  // the queue is full: wait for the worker
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    return refused;
  };
  auto first = std::async(std::launch::async, queue, 1);
  auto second = std::async(std::launch::async, queue, 2);
  first.get();
  second.get();
  ASSERT_EQ(db.m_pDBConn->ForceCommitTransaction(), 0);
  // The stop flag is looked at before each item, so a stop now would leave
  // queued items behind: wait until the queue is empty and the worker has
  // finished the commit item, the last one queued. Each full batch commits
  // once and the commit item ends the last, partial one. No other connection
  // reads the file meanwhile: the worker's handle does not wait for locks, so
  // a reader's shared lock would make its commit fail.
  auto* conn = ipc_db_test::SqliteConnOf(db);
  const size_t commits = (2 * kPerThread + kWorkerBatch - 1) / kWorkerBatch;
  const bool drained = ipc_db_test::WaitFor(
      [&] {
        return ipc_db_test::ExecItems(conn).empty() &&
               log.Count("RECORD: execSQL: commit success") +
                       log.Count("RECORD: CommitTransaction failed") >=
                   commits;
      },
      ipc_db_test::kConditionWaitMs);
  EXPECT_TRUE(drained) << "queued items left: " << ipc_db_test::ExecItems(conn).size();
  EXPECT_EQ(log.Count("RECORD: execSQL: commit success"), commits);
  // A second connection sees every row committed.
  long long committed = CommittedRows(dir.Path() + "worker.db");
  EXPECT_EQ(committed, 2 * kPerThread);
  ASSERT_EQ(db.m_pDBConn->StopExecThread(), 0);
  worker.WaitUntilGone();
  EXPECT_EQ(conn->m_bExecThreadRunning, 0);
  EXPECT_EQ(conn->m_bInTransaction, 0);
  EXPECT_TRUE(conn->m_dqExecItems.empty());
  EXPECT_EQ(db.m_pDBConn->GetRowCount("t_queued"), 2 * kPerThread);
  ASSERT_EQ(db.CloseDB(), 0);
  ASSERT_EQ(db.OpenDB(), 0);
  EXPECT_EQ(db.m_pDBConn->GetRowCount("t_queued"), 2 * kPerThread);
  EXPECT_EQ(db.UnInit(), 0);
  WriteResultJson(
      "concurrency", "execution_worker",
      JsonObject().Add("queued", 2 * kPerThread).Add("committed", committed).Text());
}

}  // namespace
