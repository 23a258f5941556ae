// Helpers shared by the connection-layer tests: building a connection on a
// per-test directory, reading a database through a second, independent
// handle or through the sqlcipher shell, damaging a file on purpose, and
// waiting for a condition with a deadline.
#ifndef IPC_DB_TESTS_SUPPORT_CONNTESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_CONNTESTSUPPORT_H_

#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SQLiteDBConn.h"
#include "TestSupport.h"

namespace ipc_db_test {

constexpr const char* kConnFile = "src_db/src/DBConn";
constexpr const char* kSqliteConnFile = "src_db/src/SQLiteDBConn";
constexpr const char* kCommonFile = "src_db/src/DBCommon";
constexpr unsigned int kLevelDebug = 0;
constexpr unsigned int kLevelInfo = 1;
constexpr unsigned int kLevelWarn = 2;
constexpr unsigned int kLevelError = 3;

// A connection whose files are `dir` + `file` and `dir` + `file` + "-journal"
// (the journal name SQLite itself uses). Not opened.
inline std::unique_ptr<CSqliteDBConn> MakeConn(const std::string& dir,
                                               const std::string& file = "t.db") {
  auto conn = std::make_unique<CSqliteDBConn>();
  conn->m_strInstallPath = dir;
  conn->SetDBFile(file);
  conn->SetDBJournal(file + "-journal");
  return conn;
}

// Sets a key of 64 characters.
inline void SetKey(CSqliteDBConn* conn, const std::string& key) {
  std::string copy = key;
  ASSERT_EQ(conn->SetEncryptKey(copy.data(), static_cast<unsigned int>(copy.size())), 0);
}

// First column of the first row of `sql` on `db` as text ("<null>" for a
// NULL, "<error N>" when the statement fails, "<none>" without rows).
inline std::string QueryText(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
  if (rc != SQLITE_OK) return "<error " + std::to_string(rc) + ">";
  std::string value;
  rc = sqlite3_step(stmt);
  if (rc == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(stmt, 0);
    value = text != nullptr ? reinterpret_cast<const char*>(text) : "<null>";
  } else if (rc == SQLITE_DONE) {
    value = "<none>";
  } else {
    value = "<error " + std::to_string(rc) + ">";
  }
  sqlite3_finalize(stmt);
  return value;
}

// Runs `sql` on `db`, returning the SQLite code.
inline int Exec(sqlite3* db, const std::string& sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

// An independent handle on a database file, optionally keyed, that waits up
// to two seconds for locks. Closed with the object.
class SecondHandle {
 public:
  explicit SecondHandle(const std::string& file, const std::string& key = "") {
    if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) {
      ADD_FAILURE() << "cannot open " << file;
    }
    if (!key.empty()) sqlite3_key(db_, key.data(), static_cast<int>(key.size()));
    sqlite3_busy_timeout(db_, 2000);
  }
  ~SecondHandle() { sqlite3_close(db_); }
  SecondHandle(const SecondHandle&) = delete;
  SecondHandle& operator=(const SecondHandle&) = delete;
  sqlite3* get() const { return db_; }
  std::string Query(const std::string& sql) const { return QueryText(db_, sql); }

 private:
  sqlite3* db_ = nullptr;
};

// Creates a plain or keyed database file with table t(id integer primary
// key, v text) holding `rows` rows ('row1', 'row2', ...), using a handle of
// its own.
inline void CreateDatabase(const std::string& file, int rows,
                           const std::string& key = "") {
  SecondHandle db(file, key);
  ASSERT_EQ(Exec(db.get(), "create table t(id integer primary key, v text);"), 0);
  ASSERT_EQ(Exec(db.get(), "begin;"), 0);
  for (int i = 1; i <= rows; ++i) {
    ASSERT_EQ(Exec(db.get(), "insert into t(v) values('row" + std::to_string(i) + "');"),
              0);
  }
  ASSERT_EQ(Exec(db.get(), "commit;"), 0);
}

// Runs `script` through Debian's sqlcipher shell on `file` (the first line
// sets the key when `key` is not empty). Returns the exit status and puts the
// merged output into `output`.
inline int RunShell(const std::string& file, const std::string& key,
                    const std::string& script, std::string* output) {
  std::string scriptFile = file + ".script";
  {
    std::ofstream out(scriptFile);
    if (!key.empty()) out << "PRAGMA key='" << key << "';\n";
    out << script << "\n";
  }
  int status = RunCommand("sqlcipher '" + file + "' < '" + scriptFile + "'", output);
  std::remove(scriptFile.c_str());
  return status;
}

// Overwrites `bytes` at `offset` of `file` in place.
inline void PatchFile(const std::string& file, long offset, const std::string& bytes) {
  std::fstream io(file, std::ios::in | std::ios::out | std::ios::binary);
  ASSERT_TRUE(io.good()) << file;
  io.seekp(offset);
  io.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(io.good()) << file;
}

// Page size and root page of `name` in a plain database file.
inline void PageOf(const std::string& file, const std::string& name, long* pageSize,
                   long* rootPage) {
  SecondHandle db(file);
  *pageSize = std::stol(db.Query("PRAGMA page_size;"));
  *rootPage = std::stol(db.Query("select rootpage from sqlite_master where name = '" +
                                 name + "';"));
}

// Waits until `condition` holds or `timeoutMs` passes; returns the outcome.
inline bool WaitFor(const std::function<bool()>& condition, long timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

inline long long MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now() - start)
      .count();
}

// Name of thread `tid` of this process as /proc shows it.
inline std::string ThreadName(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

inline pid_t CurrentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Number of threads of this process.
inline int ThreadCount() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("Threads:", 0) == 0) return std::stoi(line.substr(8));
  }
  return -1;
}

// Items of the execution queue, copied under its mutex.
inline std::vector<SQLITE_DB_EXEC_QUEUE_ITEM> ExecItems(CSqliteDBConn* conn) {
  pthread_mutex_lock(&conn->m_mutexExec);
  std::vector<SQLITE_DB_EXEC_QUEUE_ITEM> items(conn->m_dqExecItems.begin(),
                                               conn->m_dqExecItems.end());
  pthread_mutex_unlock(&conn->m_mutexExec);
  return items;
}

// Items of the maintenance queue, copied under its mutex.
inline std::vector<DB_REPAIR_ITEM> RepairItems(CDBConn* conn) {
  pthread_mutex_lock(&conn->m_mutexRepair);
  std::vector<DB_REPAIR_ITEM> items(conn->m_dqRepairItems.begin(),
                                    conn->m_dqRepairItems.end());
  pthread_mutex_unlock(&conn->m_mutexRepair);
  return items;
}

// Reads a flag that a worker thread writes without a lock.
inline int LoadFlag(const int& flag) { return __atomic_load_n(&flag, __ATOMIC_SEQ_CST); }

// Runs the execution worker of `conn` on a thread of the test's own, as a
// build that starts its workers would: StartExecThread clears the stop flag,
// the thread enters ExecThreadFun, and the started flag, which the library
// never sets, is set here. Returns once the worker reports that it runs.
inline bool StartExecWorker(CSqliteDBConn* conn) {
  if (conn->StartExecThread() != 0) return false;
  conn->m_bExecThreadStarted = 1;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, &CDBConn::ExecThreadFun, conn) != 0) return false;
  return WaitFor([conn] { return LoadFlag(conn->m_bExecThreadRunning) == 1; }, 2000);
}

// The same for the maintenance worker (MaintenanceThreadFun).
inline bool StartMaintenanceWorker(CDBConn* conn) {
  if (conn->StartMaintenanceThread() != 0) return false;
  conn->m_bMaintainThreadStarted = 1;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, &CDBConn::MaintenanceThreadFun, conn) != 0) {
    return false;
  }
  return WaitFor([conn] { return LoadFlag(conn->m_bMaintainThreadRunning) == 1; }, 2000);
}

// Wakes every waiter of `cond` (guarded by `mutex`) until `done` holds or
// `timeoutMs` passes, without queuing anything: a wake-up with an empty queue.
inline bool WakeUntil(pthread_mutex_t* mutex, pthread_cond_t* cond,
                      const std::function<bool()>& done, long timeoutMs) {
  return WaitFor(
      [&] {
        pthread_mutex_lock(mutex);
        pthread_cond_broadcast(cond);
        pthread_mutex_unlock(mutex);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return done();
      },
      timeoutMs);
}

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_CONNTESTSUPPORT_H_
