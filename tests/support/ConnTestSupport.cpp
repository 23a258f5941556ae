// The connection-layer test helpers: second handles and shell runs on the
// same file, byte patches, deadline waits, and the worker threads.
#include "ConnTestSupport.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <thread>

#include "EngineFormat.h"
#include "WaitBounds.h"

namespace ipc_db_test {

std::unique_ptr<CSqliteDBConn> MakeConn(const std::string& dir, const std::string& file) {
  auto conn = std::make_unique<CSqliteDBConn>();
  conn->m_strInstallPath = dir;
  conn->SetDBFile(file);
  conn->SetDBJournal(file + "-journal");
  return conn;
}

void SetKey(CSqliteDBConn* conn, const std::string& key) {
  std::string copy = key;
  ASSERT_EQ(conn->SetEncryptKey(copy.data(), static_cast<unsigned int>(copy.size())), 0);
}

std::string QueryText(sqlite3* db, const std::string& sql) {
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

int Exec(sqlite3* db, const std::string& sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

SecondHandle::SecondHandle(const std::string& file, const std::string& key) {
  if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << file;
  }
  if (!key.empty()) KeyInLibraryFormat(db_, key);
  sqlite3_busy_timeout(db_, 2000);
}

SecondHandle::~SecondHandle() { sqlite3_close(db_); }

void CreateDatabase(const std::string& file, int rows, const std::string& key) {
  SecondHandle db(file, key);
  ASSERT_EQ(Exec(db.get(), "create table t(id integer primary key, v text);"), 0);
  ASSERT_EQ(Exec(db.get(), "begin;"), 0);
  for (int i = 1; i <= rows; ++i) {
    ASSERT_EQ(Exec(db.get(), "insert into t(v) values('row" + std::to_string(i) + "');"),
              0);
  }
  ASSERT_EQ(Exec(db.get(), "commit;"), 0);
}

int RunShell(const std::string& file, const std::string& key, const std::string& script,
             std::string* output) {
  std::string scriptFile = file + ".script";
  {
    std::ofstream out(scriptFile);
    if (!key.empty()) out << ShellKeyLines(key);
    out << script << "\n";
  }
  int status = RunCommand(std::string("'") + IPC_DB_SQLCIPHER_SHELL + "' '" + file + "' < '" +
                              scriptFile + "'",
                          output);
  std::remove(scriptFile.c_str());
  return status;
}

void PatchFile(const std::string& file, long offset, const std::string& bytes) {
  std::fstream io(file, std::ios::in | std::ios::out | std::ios::binary);
  ASSERT_TRUE(io.good()) << file;
  io.seekp(offset);
  io.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(io.good()) << file;
}

void PageOf(const std::string& file, const std::string& name, long* pageSize,
            long* rootPage) {
  SecondHandle db(file);
  *pageSize = std::stol(db.Query("PRAGMA page_size;"));
  *rootPage = std::stol(
      db.Query("select rootpage from sqlite_master where name = '" + name + "';"));
}

bool WaitFor(const std::function<bool()>& condition, long timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

long long MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now() - start)
      .count();
}

std::string ThreadName(pid_t tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

pid_t CurrentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

int ThreadCount() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("Threads:", 0) == 0) return std::stoi(line.substr(8));
  }
  return -1;
}

std::vector<SQLITE_DB_EXEC_QUEUE_ITEM> ExecItems(CSqliteDBConn* conn) {
  pthread_mutex_lock(&conn->m_mutexExec);
  std::vector<SQLITE_DB_EXEC_QUEUE_ITEM> items(conn->m_dqExecItems.begin(),
                                               conn->m_dqExecItems.end());
  pthread_mutex_unlock(&conn->m_mutexExec);
  return items;
}

std::vector<DB_REPAIR_ITEM> RepairItems(CDBConn* conn) {
  pthread_mutex_lock(&conn->m_mutexRepair);
  std::vector<DB_REPAIR_ITEM> items(conn->m_dqRepairItems.begin(),
                                    conn->m_dqRepairItems.end());
  pthread_mutex_unlock(&conn->m_mutexRepair);
  return items;
}

bool StartExecWorker(CSqliteDBConn* conn) {
  if (conn->StartExecThread() != 0) return false;
  conn->m_bExecThreadStarted = 1;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, &CDBConn::ExecThreadFun, conn) != 0) return false;
  return WaitFor([conn] { return LoadFlag(conn->m_bExecThreadRunning) == 1; },
                 kConditionWaitMs);
}

bool StartMaintenanceWorker(CDBConn* conn) {
  if (conn->StartMaintenanceThread() != 0) return false;
  conn->m_bMaintainThreadStarted = 1;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, &CDBConn::MaintenanceThreadFun, conn) != 0) {
    return false;
  }
  return WaitFor([conn] { return LoadFlag(conn->m_bMaintainThreadRunning) == 1; },
                 kConditionWaitMs);
}

bool WakeUntil(pthread_mutex_t* mutex, pthread_cond_t* cond,
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
