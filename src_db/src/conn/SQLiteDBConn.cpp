// CSqliteDBConn: one SQLCipher database file. Opens, keys and configures the
// file, runs statements on the caller's thread or queues them for the
// execution worker, answers count queries, turns SQLite failures into
// maintenance requests, rebuilds a damaged file through the command-line
// tool, re-keys the database and sets its journal mode.
#include "SQLiteDBConn.h"

#include <errno.h>
#include <sqlcipher/sqlite3.h>
#include <string.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "base/Env.h"
#include "base/Log.h"
#include "base/OutOfMemory.h"
#include "base/ThreadAnnotations.h"
#include "bounded_mem.h"
#include "conn/BoundedQueue.h"
#include "conn/Connection.h"
#include "conn/MutexLock.h"
#include "conn/SharedFlags.h"
#include "conn/SqliteOwners.h"

namespace {

constexpr const char* kModule = ipc_db::detail::kLogModuleSQLiteDBConn;
using ipc_db::detail::AnswerOutOfMemory;
using ipc_db::detail::BoundedQueue;
using ipc_db::detail::CurrentEnv;
using ipc_db::detail::kLogDebug;
using ipc_db::detail::kLogError;
using ipc_db::detail::kLogInfo;
using ipc_db::detail::MutexLock;
using ipc_db::detail::QueueSettings;
using ipc_db::detail::ReadFlag;
using ipc_db::detail::ScopedExecResult;
using ipc_db::detail::SqliteString;
using ipc_db::detail::WriteFlag;
using ipc_db::detail::ZeroFill;
using ipc_db::testing::Env;

constexpr size_t kExecQueueCapacity = 1024;
constexpr time_t kExecWaitSeconds = 5;
constexpr unsigned long long kBatchSize = 32;
constexpr unsigned long long kIdleCommitAfter = 2;  // commit after more than this
constexpr size_t kQueryBufferSize = 1024;
constexpr size_t kCommandBufferSize = 256;
constexpr unsigned int kFileMode = 0640;
constexpr int kKeyLengthAtOpen = 64;
constexpr unsigned long long kPauseSettleMs = 2000;

const char* const kCountColumn = "count(*)";

// True when `text` is set; otherwise logs "RECORD: <what> is null".
bool IsSet(const char* text, const char* what) {
  if (text != nullptr) return true;
  RECORD_LOG(kModule, kLogError, "%s is null", what);
  return false;
}

// Runs a public connection call's body; a std::bad_alloc leaving it gives
// `failure` and "RECORD: <operation> out of memory".
template <typename Result, typename Body>
Result ConnCall(const char* operation, Result failure, Body&& body) {
  return AnswerOutOfMemory(
      failure,
      [operation] { RECORD_LOG(kModule, kLogError, "%s out of memory", operation); },
      std::forward<Body>(body));
}

// Whether a statement may run on the connection now.
enum class HandleState {
  kPaused,    // paused for maintenance: callers answer quietly
  kNoHandle,  // closed: logged here, callers answer with their failure value
  kReady,
};

HandleState StateOf(const CSqliteDBConn& conn) {
  if (ReadFlag(conn.m_bPaused) == 1) return HandleState::kPaused;
  if (conn.m_pSqliteDB == nullptr) {
    RECORD_LOG(kModule, kLogError, "DB Connection has not exist");
    return HandleState::kNoHandle;
  }
  return HandleState::kReady;
}

// The execution queue: 1024 items at most; a refused item is reported to
// the caller.
constexpr QueueSettings kExecQueue{kExecQueueCapacity, kExecWaitSeconds, kModule,
                                   "Queue is full.", DB_ERR_QUEUE_FULL};

BoundedQueue<SQLITE_DB_EXEC_QUEUE_ITEM> ExecQueueOf(CSqliteDBConn* conn) {
  return BoundedQueue<SQLITE_DB_EXEC_QUEUE_ITEM>(&conn->m_dqExecItems, &conn->m_mutexExec,
                                                 &conn->m_condExec, kExecQueue);
}

// Runs one connection pragma and logs its outcome. Returns true on success.
bool RunPragma(sqlite3* db, const char* sql, const char* label) {
  int code = sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    RECORD_LOG(kModule, kLogError, "sqlite3_exec %s failed:%d", label, code);
    return false;
  }
  RECORD_LOG(kModule, kLogInfo, "sqlite3_exec %s success", label);
  return true;
}

// SQLCipher 4 copies its process-wide cipher defaults into a connection at
// sqlite3_key, so the compatibility pragma that SetDBAttr runs on a keyed
// connection governs only the connections keyed after it. Running the same
// pragma just before the key, on a private in-memory connection, makes the
// connection about to be keyed read and write SQLCipher 3's format as well,
// whatever the process opened before it, so that every keyed file is in one
// format on either engine. SQLCipher 3 ignores the unknown pragma. The private
// connection's statement reaches neither the trace nor the log of the
// database's own connection. Returns SQLite's result code.
int UseCompatibleCipherDefaults() {
  sqlite3* scratch = nullptr;
  int code = sqlite3_open(":memory:", &scratch);
  if (code == SQLITE_OK) {
    code = sqlite3_exec(scratch, "PRAGMA cipher_default_compatibility = 3;", nullptr,
                        nullptr, nullptr);
  }
  sqlite3_close(scratch);
  return code;
}

// sqlite3_open hands back a handle even when it fails; release it so that
// the connection is left without a handle.
void ReleaseFailedHandle(sqlite3** handle) {
  sqlite3_close(*handle);
  *handle = nullptr;
}

// Mode text that follows "PRAGMA journal_mode = ", or null for an unknown type.
const char* JournalModeText(DB_JOURNAL_TYPE type) {
  switch (type) {
    case DB_JOURNAL_DELETE:
      return "Delete";
    case DB_JOURNAL_TRUNCATE:
      return "TRUNCATE";
    case DB_JOURNAL_PERSIST:
      return "PERSIST";
    case DB_JOURNAL_MEMORY:
      return "MEMORY";
    case DB_JOURNAL_WAL:
      return "WAL";
    case DB_JOURNAL_OFF:
      return "OFF";
  }
  return nullptr;
}

// Maintenance request for a failed statement's primary SQLite code, or -1
// when the failure needs none.
int RepairCommandFor(int sqliteCode) {
  switch (sqliteCode) {
    case SQLITE_PERM:
    case SQLITE_ABORT:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_READONLY:
    case SQLITE_INTERRUPT:
    case SQLITE_PROTOCOL:
      return DB_REPAIR_CMD_RECONNECT;
    case SQLITE_IOERR:
      return DB_REPAIR_CMD_RESTORE;
    case SQLITE_CORRUPT:
    case SQLITE_FORMAT:
      return DB_REPAIR_CMD_REPAIR;
    default:
      return -1;
  }
}

// Reads the value of the "count(*)" column out of a result table. The value
// index runs on across rows without skipping the rest of a matched row, so
// only single-row results read correctly.
long long ScanCountColumn(const DB_EXEC_RESULT& result) {
  long long count = 0;
  int index = result.iColumnCount;
  for (int row = 0; row < result.iRowCount; ++row) {
    for (int column = 0; column < result.iColumnCount; ++column) {
      const char* header = result.ppszResult[column];
      if (header != nullptr && strcmp(header, kCountColumn) == 0 &&
          result.ppszResult[index] != nullptr) {
        count = strtol(result.ppszResult[index], nullptr, 10);
        break;
      }
      ++index;
    }
  }
  return count;
}

}  // namespace

CSqliteDBConn::CSqliteDBConn()
    : CDBConn(),
      m_pSqliteDB(nullptr),
      m_strDBFile(),
      m_strDBJournal(),
      m_dqExecItems(),
      m_mutexExec(),
      m_condExec(),
      m_bPaused(0),
      m_bInTransaction(0),
      m_ullExecCount(0),
      m_ullWaitTimeOutCount(0) {
  pthread_mutex_init(&m_mutexExec, nullptr);
  pthread_cond_init(&m_condExec, nullptr);
  m_pfnExecThread = &CSqliteDBConn::SqliteDBExecThreadFun;
  m_pExecThreadArg = this;
  m_pfnStopExecThread = &CSqliteDBConn::SqliteStopDBExecThreadFun;
  m_pStopExecThreadArg = this;
}

CSqliteDBConn::~CSqliteDBConn() {
  StopExecThread();
  StopMaintenanceThread();
  CloseConnection();
  pthread_mutex_destroy(&m_mutexExec);
  pthread_cond_destroy(&m_condExec);
}

// ---- Files and lifecycle -------------------------------------------------

namespace {

// OpenConnection's answer to a worker that could not be configured: close
// again, with the connection mutex still held. StartExecThread always
// returns 0, so this never runs. Were it taken, CloseConnection would block
// on the mutex held here (it is not recursive); the thread-safety analysis
// reports exactly that, so the call is kept out of it, in its order.
void CloseWhileOpening(CSqliteDBConn* conn) REQUIRES(conn->m_mutexConn)
    NO_THREAD_SAFETY_ANALYSIS {
  conn->CloseConnection();
}

}  // namespace


void CSqliteDBConn::SetDBFile(const std::string& strDBFile) {
  m_strDBFile = m_strInstallPath + strDBFile;
}

void CSqliteDBConn::SetDBJournal(const std::string& strDBJournal) {
  m_strDBJournal = m_strInstallPath + strDBJournal;
}

long long CSqliteDBConn::OpenConnection() {
  if (ReadFlag(m_bPaused) == 1) return 0;
  {
    MutexLock lock(&m_mutexConn);
    if (m_pSqliteDB != nullptr) {
      RECORD_LOG(kModule, kLogError, "DB Connection has already exist");
      return DB_ERR_CONN_EXIST;
    }
    long long checked = CheckInstallPath();
    if (checked != 0) {
      RECORD_LOG(kModule, kLogError, "CheckInstallPath failed");
      return checked;
    }
    int code = sqlite3_open(m_strDBFile.c_str(), &m_pSqliteDB);
    if (code != SQLITE_OK) {
      RECORD_LOG(kModule, kLogError, "sqlite3_open:%s failed:%d", m_strDBFile.c_str(),
                 code);
      ReleaseFailedHandle(&m_pSqliteDB);
      return DB_ERR_OPEN;
    }
    RECORD_LOG(kModule, kLogInfo, "open:%s success", m_strDBFile.c_str());
    Env& env = CurrentEnv();
    if (env.CheckFileAccess(m_strDBFile.c_str()) == 0) {
      env.ChangeFileMode(m_strDBFile.c_str(), kFileMode);
      if (env.CheckFileAccess(m_strDBJournal.c_str()) == 0) {
        env.ChangeFileMode(m_strDBJournal.c_str(), kFileMode);
      }
    }
    if (m_szEncryptKey[0] != 0) {
      code = UseCompatibleCipherDefaults();
      if (code != SQLITE_OK) {
        RECORD_LOG(kModule, kLogError, "cipher defaults for:%s failed:%d",
                   m_strDBFile.c_str(), code);
        return DB_ERR_ENCRYPT;
      }
      code = sqlite3_key(m_pSqliteDB, m_szEncryptKey, kKeyLengthAtOpen);
      if (code != SQLITE_OK) {
        RECORD_LOG(kModule, kLogError, "sqlite3_key:%s failed:%d", m_strDBFile.c_str(),
                   code);
        return DB_ERR_ENCRYPT;
      }
      RECORD_LOG(kModule, kLogInfo, "sqlite3 encrypt:%s success", m_strDBFile.c_str());
    }
    SetDBAttr();
    if (StartExecThread() != 0) {
      RECORD_LOG(kModule, kLogError, "StartExecThread failed");
      CloseWhileOpening(this);
      return DB_ERR_OPEN;
    }
  }
  WriteFlag(m_enDBStatus, 1);
  return 0;
}

long long CSqliteDBConn::SetDBAttr() {
  HandleState state = StateOf(*this);
  if (state == HandleState::kPaused) return 0;
  if (state == HandleState::kNoHandle) return DB_ERR_CONN_NOT_EXIST;
  bool ok = RunPragma(m_pSqliteDB, "PRAGMA cipher_default_compatibility = 3;",
                      "PRAGMA cipher_default_compatibility = 3");
  ok = RunPragma(m_pSqliteDB, "PRAGMA synchronous = NORMAL;",
                 "PRAGMA synchronous = NORMAL") &&
       ok;
  ok = RunPragma(m_pSqliteDB, "PRAGMA journal_mode = DELETE;",
                 "PRAGMA journal_mode = DELETE") &&
       ok;
  return ok ? 0 : -1;
}

long long CSqliteDBConn::CloseConnection() {
  if (ReadFlag(m_bPaused) == 1) return 0;
  {
    MutexLock lock(&m_mutexConn);
    if (m_pSqliteDB == nullptr) {
      RECORD_LOG(kModule, kLogError, "DB Connection has not exist");
      return DB_ERR_CONN_NOT_EXIST;
    }
    StopExecThread();
    int code = sqlite3_close(m_pSqliteDB);
    if (code != SQLITE_OK) {
      RECORD_LOG(kModule, kLogError, "sqlite3_close failed:%d", code);
      return DB_ERR_CLOSE;
    }
    m_pSqliteDB = nullptr;
  }
  RECORD_LOG(kModule, kLogInfo, "close:%s success", m_strDBFile.c_str());
  WriteFlag(m_enDBStatus, 0);
  return 0;
}

long long CSqliteDBConn::PauseConnection() {
  if (m_pSqliteDB == nullptr) return 0;
  RECORD_LOG(kModule, kLogInfo, "Pause DB:%s", m_strDBFile.c_str());
  WriteFlag(m_bPaused, 1);
  StopExecThread();
  int code = sqlite3_close(m_pSqliteDB);
  if (code != SQLITE_OK) {
    RECORD_LOG(kModule, kLogError, "sqlite3_close failed:%d", code);
    return DB_ERR_CLOSE;
  }
  RECORD_LOG(kModule, kLogInfo, "close DB:%s success", m_strDBFile.c_str());
  m_pSqliteDB = nullptr;
  WriteFlag(m_enDBStatus, 0);
  CurrentEnv().SleepMs(kPauseSettleMs);
  return 0;
}

long long CSqliteDBConn::ResumeConnection() {
  if (m_pSqliteDB != nullptr) return 0;
  RECORD_LOG(kModule, kLogInfo, "Resume DB:%s", m_strDBFile.c_str());
  int code = sqlite3_open(m_strDBFile.c_str(), &m_pSqliteDB);
  if (code != SQLITE_OK) {
    RECORD_LOG(kModule, kLogError, "sqlite3_open failed:%d", code);
    ReleaseFailedHandle(&m_pSqliteDB);
    WriteFlag(m_bPaused, 0);
    return DB_ERR_OPEN;
  }
  RECORD_LOG(kModule, kLogInfo, "open DB:%s success", m_strDBFile.c_str());
  WriteFlag(m_bPaused, 0);
  SetDBAttr();
  if (StartExecThread() != 0) {
    RECORD_LOG(kModule, kLogError, "start execThread failed");
    sqlite3_close(m_pSqliteDB);
    m_pSqliteDB = nullptr;
    return -1;
  }
  WriteFlag(m_enDBStatus, 1);
  return 0;
}

// ---- Statements ------------------------------------------------------------

long long CSqliteDBConn::ExecuteSQL(const char* sql, DB_EXEC_RESULT* result,
                                    DB_EXEC_SQL_TYPE type) {
  return ConnCall("ExecuteSQL", static_cast<long long>(DB_ERR_EXEC), [&]() -> long long {
    HandleState state = StateOf(*this);
    if (state == HandleState::kPaused) return 0;
    if (state == HandleState::kNoHandle) return DB_ERR_CONN_NOT_EXIST;
    if (type == DB_EXEC_SQL_ASYNC) {
      SQLITE_DB_EXEC_QUEUE_ITEM item;
      int copied = strncpy_s(item.szSQL, sizeof(item.szSQL), sql, sizeof(item.szSQL) - 1);
      if (copied != 0) {
        RECORD_LOG(kModule, kLogError, "Copy szSQL failed");
        return copied;
      }
      item.enCmdType = SQLITE_EXEC_CMD_SQL;
      long long queued = NotifySqlExecCmd(item);
      if (queued != 0) RECORD_LOG(kModule, kLogError, "NotifySqlExecCmd failed");
      return queued;
    }
    // A null statement is refused here; SQLite would run it as an empty one.
    if (!IsSet(sql, "sql")) return DB_ERR_EXEC;
    char* message = nullptr;
    int code;
    if (result != nullptr) {
      code = sqlite3_get_table(m_pSqliteDB, sql, &result->ppszResult, &result->iRowCount,
                               &result->iColumnCount, &message);
    } else {
      code = sqlite3_exec(m_pSqliteDB, sql, nullptr, nullptr, &message);
    }
    SqliteString ownedMessage(message);
    if (code != SQLITE_OK) {
      if (result != nullptr) {
        RECORD_LOG(kModule, kLogError, "sqlite3_get_table:%s failed:%d,%s", sql, code,
                   message);
      } else {
        RECORD_LOG(kModule, kLogError, "sqlite3_exec:%s failed:%d,%s", sql, code,
                   message);
      }
      ErrorProcess(code, sql);
      return DB_ERR_EXEC;
    }
    RECORD_LOG(kModule, kLogDebug, "ExecuteSQL: %s SUCCESS", sql);
    return 0;
  });
}

void CSqliteDBConn::FreeExecuteResult(DB_EXEC_RESULT* result) {
  if (result == nullptr || result->ppszResult == nullptr) return;
  sqlite3_free_table(result->ppszResult);
}

long long CSqliteDBConn::GetCountOfSQLResult(const char* sql) {
  return ConnCall("GetCountOfSQLResult", 0LL, [&]() -> long long {
    if (StateOf(*this) != HandleState::kReady || !IsSet(sql, "sql")) return 0;
    ScopedExecResult result(this);
    if (result.Run(sql) != 0) {
      RECORD_LOG(kModule, kLogError, "ExecuteSQL:%s failed", sql);
      return 0;
    }
    return ScanCountColumn(*result);
  });
}

int CSqliteDBConn::WhetherTableExist(const char* table) {
  return ConnCall("WhetherTableExist", 0, [&]() -> int {
    if (StateOf(*this) != HandleState::kReady) return 0;
    char query[kQueryBufferSize] = {0};
    if (!IsSet(table, "table")) return 0;
    int written = snprintf_s(query, sizeof(query), sizeof(query) - 1,
                             "select count(*) from sqlite_master where type = 'table' "
                             "and name = '%s'",
                             table);
    if (written < 1) {
      // The entry is written twice: log readers see two identical lines for a
      // count query that could not be formatted.
      RECORD_LOG(kModule, kLogError, "snprintf fail! error code is %d\n", written);
      RECORD_LOG(kModule, kLogError, "snprintf fail! error code is %d\n", written);
    }
    return GetCountOfSQLResult(query) != 0 ? 1 : 0;
  });
}

long long CSqliteDBConn::GetRowCount(const char* table) {
  return ConnCall("GetRowCount", 0LL, [&]() -> long long {
    if (StateOf(*this) != HandleState::kReady) return 0;
    char query[kQueryBufferSize] = {0};
    if (!IsSet(table, "table")) return 0;
    int written = snprintf_s(query, sizeof(query), sizeof(query) - 1,
                             "select count(*) from %s", table);
    if (written < 1) {
      RECORD_LOG(kModule, kLogError, "snprintf fail! error code is %d\n", written);
    }
    return GetCountOfSQLResult(query);
  });
}

namespace {

// Runs a transaction statement through the connection's ExecuteSQL and logs
// its outcome ("execSQL: <word> success" or "ExecuteSQL failed").
long long RunTransactionStatement(CDBConn* conn, const char* sql, const char* word) {
  long long result = conn->ExecuteSQL(sql, nullptr, DB_EXEC_SQL_SYNC);
  if (result != 0) {
    RECORD_LOG(kModule, kLogError, "ExecuteSQL failed");
  } else {
    RECORD_LOG(kModule, kLogInfo, "execSQL: %s success", word);
  }
  return result;
}

}  // namespace

long long CSqliteDBConn::BeginTransaction() {
  return RunTransactionStatement(this, "begin;", "begin");
}

long long CSqliteDBConn::CommitTransaction() {
  return RunTransactionStatement(this, "commit;", "commit");
}

long long CSqliteDBConn::ForceCommitTransaction() {
  SQLITE_DB_EXEC_QUEUE_ITEM item;
  ZeroFill(&item, kModule);
  item.enCmdType = SQLITE_EXEC_CMD_COMMIT;
  return NotifySqlExecCmd(item);
}

// ---- Execution queue and worker -------------------------------------------

long long CSqliteDBConn::NotifySqlExecCmd(const SQLITE_DB_EXEC_QUEUE_ITEM& item) {
  return ExecQueueOf(this).Push(item);
}

long long CSqliteDBConn::WaitSqlExecCmd(SQLITE_DB_EXEC_QUEUE_ITEM& item) {
  return ExecQueueOf(this).Pop(&item);
}

void CSqliteDBConn::WaitExecTimeOutProcess() {
  ++m_ullWaitTimeOutCount;
  if (m_ullWaitTimeOutCount > kIdleCommitAfter && m_bInTransaction == 1) {
    if (CommitTransaction() != 0) {
      RECORD_LOG(kModule, kLogError, "CommitTransaction failed");
    }
    m_bInTransaction = 0;
    m_ullExecCount = 0;
  }
}

void CSqliteDBConn::ClearWaitExecTimeOutCount() { m_ullWaitTimeOutCount = 0; }

namespace {

// Ends the worker's open batch with a commit; the batch state is reset
// whether or not the commit succeeded.
void CommitBatch(CSqliteDBConn* conn) {
  if (conn->CommitTransaction() != 0) {
    RECORD_LOG(kModule, kLogError, "CommitTransaction failed");
  }
  conn->m_bInTransaction = 0;
  conn->m_ullExecCount = 0;
}

// Runs one queued statement inside the worker's batch, opening the batch
// first when none is open and committing it at every 32nd statement.
void RunQueuedStatement(CSqliteDBConn* conn, const char* sql) {
  RECORD_LOG(kModule, kLogInfo, "SQL: %s", sql);
  if (conn->m_bInTransaction == 0) {
    if (conn->BeginTransaction() != 0) {
      RECORD_LOG(kModule, kLogError, "BeginTransaction failed");
    }
    conn->m_bInTransaction = 1;
  }
  if (conn->ExecuteSQL(sql, nullptr, DB_EXEC_SQL_SYNC) != 0) {
    RECORD_LOG(kModule, kLogError, "ExecuteSQL for:%s failed", sql);
  }
  ++conn->m_ullExecCount;
  if (conn->m_ullExecCount % kBatchSize == 0) CommitBatch(conn);
}

}  // namespace

void* CSqliteDBConn::SqliteDBExecThreadFun(void* conn) {
  if (conn == nullptr) {
    RECORD_LOG(kModule, kLogError, "null pointer");
    return nullptr;
  }
  auto* self = static_cast<CSqliteDBConn*>(conn);
  WriteFlag(self->m_bExecThreadRunning, 1);
  while (ReadFlag(self->m_bExecThreadStop) == 0) {
    SQLITE_DB_EXEC_QUEUE_ITEM item;
    ZeroFill(&item, kModule);
    long long waited = self->WaitSqlExecCmd(item);
    if (waited == DB_ERR_WAIT_TIMEOUT) {
      self->WaitExecTimeOutProcess();
      continue;
    }
    if (waited != 0) continue;
    self->ClearWaitExecTimeOutCount();
    if (item.enCmdType == SQLITE_EXEC_CMD_STOP) continue;
    if (item.enCmdType == SQLITE_EXEC_CMD_COMMIT) {
      if (self->m_bInTransaction == 1) CommitBatch(self);
      continue;
    }
    RunQueuedStatement(self, item.szSQL);
  }
  WriteFlag(self->m_bExecThreadRunning, 0);
  RECORD_LOG(kModule, kLogInfo, "!!!!!   SqliteDBExecThreadFun(): thread end !!!!!");
  return nullptr;
}

void* CSqliteDBConn::SqliteStopDBExecThreadFun(void* conn) {
  if (conn == nullptr) {
    RECORD_LOG(kModule, kLogError, "null pointer");
    return nullptr;
  }
  SQLITE_DB_EXEC_QUEUE_ITEM item;
  ZeroFill(&item, kModule);
  item.enCmdType = SQLITE_EXEC_CMD_STOP;
  static_cast<CSqliteDBConn*>(conn)->NotifySqlExecCmd(item);
  return nullptr;
}

// ---- Maintenance -----------------------------------------------------------

void CSqliteDBConn::ErrorProcess(int sqliteCode, const char* sql) {
  DB_REPAIR_ITEM item;
  ZeroFill(&item, kModule);
  if (sql != nullptr) {
    if (strncpy_s(item.szSQL, sizeof(item.szSQL), sql, sizeof(item.szSQL) - 1) != 0) {
      RECORD_LOG(kModule, kLogError, "Copy szSQL failed");
      return;
    }
  }
  int command = RepairCommandFor(sqliteCode);
  if (command < 0) return;
  item.enCmdType = command;
  NotifyMaintainDBCmd(item);
}

long long CSqliteDBConn::RepairDB() {
  const char* file = m_strDBFile.c_str();
  RECORD_LOG(kModule, kLogInfo, "repair DB: %s begin", file);
  std::string newFile = m_strDBFile + ".new";
  char command[kCommandBufferSize] = {0};
  int written = snprintf_s(command, sizeof(command), sizeof(command) - 1,
                           "echo \".dump\" | %s %s | %s %s", IPC_DB_REPAIR_TOOL, file,
                           IPC_DB_REPAIR_TOOL, newFile.c_str());
  if (written < 1) {
    RECORD_LOG(kModule, kLogError, "snprintf fail! error code is %d\n", written);
  }
  RECORD_LOG(kModule, kLogInfo, "repair DB command: %s", command);
  Env& env = CurrentEnv();
  long long ran = env.RunShell(command, 0);
  if (ran != 0) {
    RECORD_LOG(kModule, kLogError, "Run:%s failed", command);
    return ran;
  }
  if (env.CheckFileAccess(newFile.c_str()) != 0) {
    RECORD_LOG(kModule, kLogError, "New file:%s not exist!", newFile.c_str());
    return -1;
  }
  if (env.RemoveFile(file) != 0) {
    RECORD_LOG(kModule, kLogError, "delete:%s failed on %d", file, errno);
    return -1;
  }
  if (env.RenameFile(newFile.c_str(), file) != 0) {
    RECORD_LOG(kModule, kLogError, "rename:%s to %s failed on %d", newFile.c_str(), file,
               errno);
    return -1;
  }
  RECORD_LOG(kModule, kLogInfo, "repair DB: %s end", file);
  return 0;
}

// Back-up and restore have no action on this platform; both report success.
long long CSqliteDBConn::BackUpDB() { return 0; }

long long CSqliteDBConn::RestoreDB() { return BackUpDB(); }

// ---- Encryption and journal mode ------------------------------------------

// Left out of the thread-safety analysis: on the key-copy failure below the
// connection mutex stays held past the return (MutexLock::KeepLocked), which
// the analysis cannot express; it would take the scope's release as given.
long long CSqliteDBConn::ReEncryptDB(const char* szEncryptKey, unsigned int uiKeyLen)
    NO_THREAD_SAFETY_ANALYSIS {
  if (!IsSet(szEncryptKey, "szEncryptKey")) return DB_ERR_ENCRYPT;
  if (m_szEncryptKey[0] == 0 || szEncryptKey[0] == 0) {
    RECORD_LOG(kModule, kLogInfo, "SqliteDB is not Encypt");
    return DB_ERR_ENCRYPT;
  }
  MutexLock lock(&m_mutexConn);
  int code = sqlite3_rekey(m_pSqliteDB, szEncryptKey, static_cast<int>(uiKeyLen));
  if (code != SQLITE_OK) {
    RECORD_LOG(kModule, kLogError, "sqlite3 ReEncryptDB failed:%d", code);
    return DB_ERR_ENCRYPT;
  }
  if (memcpy_s(m_szEncryptKey, sizeof(m_szEncryptKey), szEncryptKey, uiKeyLen) != 0) {
    // The one path that leaves the connection mutex held: the file now has
    // the new key but the buffer no longer holds it, so later opens, closes
    // and re-keys must not proceed with it.
    lock.KeepLocked();
    RECORD_LOG(kModule, kLogError, "Failed to memcpy AESKey");
    return DB_ERR_ENCRYPT;
  }
  RECORD_LOG(kModule, kLogInfo, "Success to ReEncryptDB %s", m_strDBFile.c_str());
  return 0;
}

long long CSqliteDBConn::SetDBJournalAttr(DB_JOURNAL_TYPE enDbJournalType) {
  HandleState state = StateOf(*this);
  if (state == HandleState::kPaused) return 0;
  if (state == HandleState::kNoHandle) return DB_ERR_CONN_NOT_EXIST;
  const char* mode = JournalModeText(enDbJournalType);
  if (mode == nullptr) {
    RECORD_LOG(kModule, kLogError, "wrong enDbJournalType:%d",
               static_cast<int>(enDbJournalType));
    return -1;
  }
  std::string sql = std::string("PRAGMA journal_mode = ") + mode + ";";
  if (sqlite3_exec(m_pSqliteDB, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    RECORD_LOG(kModule, kLogError, "sqlite3_exec faild:%s", sql.c_str());
    return -1;
  }
  RECORD_LOG(kModule, kLogInfo, "sqlite3_exec success:%s", sql.c_str());
  return 0;
}
