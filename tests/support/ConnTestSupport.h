// Helpers shared by the connection-layer tests: building a connection on a
// per-test directory, reading a database through a second, independent
// handle or through the sqlcipher shell, damaging a file on purpose,
// waiting for a condition with a deadline, and running the library's
// worker functions on threads of the test's own.
#ifndef IPC_DB_TESTS_SUPPORT_CONNTESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_CONNTESTSUPPORT_H_

#include <gtest/gtest.h>
#include <pthread.h>
#include <sqlcipher/sqlite3.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
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
std::unique_ptr<CSqliteDBConn> MakeConn(const std::string& dir,
                                        const std::string& file = "t.db");

// Sets a key of 64 characters (gtest assertion on failure).
void SetKey(CSqliteDBConn* conn, const std::string& key);

// First column of the first row of `sql` on `db` as text ("<null>" for a
// NULL, "<error N>" when the statement fails, "<none>" without rows).
std::string QueryText(sqlite3* db, const std::string& sql);

// Runs `sql` on `db`, returning the SQLite code.
int Exec(sqlite3* db, const std::string& sql);

// An independent handle on a database file, optionally keyed, that waits up
// to two seconds for locks. Closed with the object.
class SecondHandle {
 public:
  explicit SecondHandle(const std::string& file, const std::string& key = "");
  ~SecondHandle();
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
void CreateDatabase(const std::string& file, int rows, const std::string& key = "");

// Runs `script` through the engine's sqlcipher shell on `file` (keyed as the
// library keys, ShellKeyLines, when `key` is not empty). Returns the exit status and puts the
// merged output into `output`.
int RunShell(const std::string& file, const std::string& key, const std::string& script,
             std::string* output);

// Overwrites `bytes` at `offset` of `file` in place.
void PatchFile(const std::string& file, long offset, const std::string& bytes);

// Page size and root page of `name` in a plain database file.
void PageOf(const std::string& file, const std::string& name, long* pageSize,
            long* rootPage);

// Waits until `condition` holds or `timeoutMs` passes; returns the outcome.
bool WaitFor(const std::function<bool()>& condition, long timeoutMs);

long long MillisecondsSince(std::chrono::steady_clock::time_point start);

// Name of thread `tid` of this process as /proc shows it.
std::string ThreadName(pid_t tid);

pid_t CurrentTid();

// Number of threads of this process.
int ThreadCount();

// Items of the execution queue, copied under its mutex.
std::vector<SQLITE_DB_EXEC_QUEUE_ITEM> ExecItems(CSqliteDBConn* conn);

// Items of the maintenance queue, copied under its mutex.
std::vector<DB_REPAIR_ITEM> RepairItems(CDBConn* conn);

// Reads a flag that a worker thread writes without a lock.
inline int LoadFlag(const int& flag) { return __atomic_load_n(&flag, __ATOMIC_SEQ_CST); }

// Runs the execution worker of `conn` on a thread of the test's own, as a
// build that starts its workers would: StartExecThread clears the stop flag,
// the thread enters ExecThreadFun, and the started flag, which the library
// never sets, is set here. Returns once the worker reports that it runs.
bool StartExecWorker(CSqliteDBConn* conn);

// The same for the maintenance worker (MaintenanceThreadFun).
bool StartMaintenanceWorker(CDBConn* conn);

// Wakes every waiter of `cond` (guarded by `mutex`) until `done` holds or
// `timeoutMs` passes, without queuing anything: a wake-up with an empty queue.
bool WakeUntil(pthread_mutex_t* mutex, pthread_cond_t* cond,
               const std::function<bool()>& done, long timeoutMs);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_CONNTESTSUPPORT_H_
