// CDBConn: the abstract interface of one database connection, with the
// maintenance (repair) queue and the configuration of both workers, which
// every implementation shares.
//
// Threads: the library creates no thread. StartExecThread and
// StartMaintenanceThread only prepare thread attributes and clear the stop
// flags; ExecThreadFun and MaintenanceThreadFun are thread bodies that an
// application (or a test) may run on threads of its own.
#ifndef IPC_DB_DBCONN_H_
#define IPC_DB_DBCONN_H_

#include <pthread.h>

#include <deque>
#include <string>

#include "DBTypes.h"
#include "StorageMutex.h"
#include "ipc_db_export.h"

// Signature of the worker bodies and of the stop hook.
typedef void* (*DB_THREAD_FUNC)(void* arg);

// Size of the key buffer: 64 key bytes and a spare byte.
#define DB_ENCRYPT_KEY_SIZE 65

class IPC_DB_API CDBConn {
 public:
  // Zeroes the fields, initialises m_mutexConn, m_mutexRepair and
  // m_condRepair, and configures the maintenance worker
  // (StartMaintenanceThread) as its last step.
  CDBConn();
  // Overwrites the key with zeros, stops both workers, releases the repair
  // queue (with any requests in it) and destroys m_mutexConn. Never throws.
  virtual ~CDBConn();

  CDBConn(const CDBConn&) = delete;
  CDBConn& operator=(const CDBConn&) = delete;

  // ---- Virtual operations, in slot order ----
  //
  // OpenConnection, CloseConnection and ReEncryptDB take m_mutexConn, which
  // is not recursive: they must not be called with it held (checked by
  // clang's thread-safety analysis, see StorageMutex.h).

  // Opens (and creates) the database file. Results: 0, DB_ERR_CONN_EXIST,
  // DB_ERR_OPEN, DB_ERR_ENCRYPT or CheckInstallPath's code.
  virtual long long OpenConnection()
      IPC_DB_LOCK_ATTRIBUTE(locks_excluded(m_mutexConn)) = 0;
  // Closes the database. Results: 0, DB_ERR_CONN_NOT_EXIST, DB_ERR_CLOSE.
  virtual long long CloseConnection()
      IPC_DB_LOCK_ATTRIBUTE(locks_excluded(m_mutexConn)) = 0;
  // Changes the key of an open database. The base does nothing, returns 0.
  virtual long long ReEncryptDB(const char* szEncryptKey, unsigned int uiKeyLen)
      IPC_DB_LOCK_ATTRIBUTE(locks_excluded(m_mutexConn));
  // Sets the database file to m_strInstallPath + name. REQUIRES:
  // m_strInstallPath assigned first (and ending in "/").
  virtual void SetDBFile(const std::string& strDBFile) = 0;
  // Sets the journal file to m_strInstallPath + name.
  virtual void SetDBJournal(const std::string& strDBJournal) = 0;
  // Runs "PRAGMA journal_mode = <mode>;". Results: 0, -1, DB_ERR_CONN_NOT_EXIST.
  virtual long long SetDBJournalAttr(DB_JOURNAL_TYPE enDbJournalType) = 0;
  // Copies `uiKeyLen` bytes of `szEncryptKey` into m_szEncryptKey (no
  // terminator written; later bytes keep their old contents). Used at the
  // next OpenConnection. Returns 0; 22 for a null key (buffer unchanged);
  // 34 for a length above 65 (buffer unchanged). Takes no lock.
  virtual long long SetEncryptKey(char* szEncryptKey, unsigned int uiKeyLen);
  // Runs `sql` now (type 0) or queues it (type 1). Results: 0,
  // DB_ERR_CONN_NOT_EXIST, DB_ERR_EXEC, DB_ERR_QUEUE_FULL or the bounded
  // copy's code. A non-null `result` must be zeroed by the caller and
  // released with FreeExecuteResult.
  virtual long long ExecuteSQL(const char* sql, DB_EXEC_RESULT* result,
                               DB_EXEC_SQL_TYPE type) = 0;
  // Releases a result table; null record or table: nothing.
  virtual void FreeExecuteResult(DB_EXEC_RESULT* result) = 0;
  // "begin;" through ExecuteSQL; its result.
  virtual long long BeginTransaction() = 0;
  // "commit;" through ExecuteSQL; its result.
  virtual long long CommitTransaction() = 0;
  // Value of the "count(*)" column of `sql`'s result; 0 on any failure.
  virtual long long GetCountOfSQLResult(const char* sql) = 0;
  // 1 when table `table` exists, else 0 (also on failure).
  virtual int WhetherTableExist(const char* table) = 0;
  // Number of rows of `table`; 0 on failure.
  virtual long long GetRowCount(const char* table) = 0;
  // Asks the execution worker to commit its open batch. 0 or
  // DB_ERR_QUEUE_FULL.
  virtual long long ForceCommitTransaction() = 0;
  // Does nothing; returns 0.
  virtual long long BackUpDB() = 0;
  // Rebuilds the database file through the command-line tool. 0 or -1.
  // REQUIRES: the connection closed or paused.
  virtual long long RepairDB() = 0;
  // Does nothing; returns 0.
  virtual long long RestoreDB() = 0;
  // Closes the handle and marks the connection paused. 0 or DB_ERR_CLOSE.
  virtual long long PauseConnection() = 0;
  // Reopens a paused connection (without keying). 0, DB_ERR_OPEN or -1.
  virtual long long ResumeConnection() = 0;

  // ---- Workers and queues (not virtual) ----

  // Prepares the execution worker's attributes and clears its stop flag.
  // Creates no thread. Always 0.
  long long StartExecThread();
  // Stops a started, running execution worker (51 x 100 ms handshake).
  // Returns 0 at once when the worker was never started. Always 0.
  long long StopExecThread();
  // Thread entry: names the thread "db_exec_<n>", detaches, and runs
  // m_pfnExecThread(m_pExecThreadArg) of the CDBConn `conn`.
  static void* ExecThreadFun(void* conn);
  // Prepares the maintenance worker's attributes and clears its stop flag.
  // Creates no thread. Always 0.
  long long StartMaintenanceThread();
  // Stops a started, running maintenance worker. Always 0.
  long long StopMaintenanceThread();
  // Thread entry and loop of the maintenance worker of the CDBConn `conn`;
  // names the thread "db_maintain_<n>" and detaches.
  static void* MaintenanceThreadFun(void* conn);
  // Queues a maintenance request; a third request while two are queued is
  // dropped with "RECORD: MaintainDBCmd Queue is full.". Always 0.
  long long NotifyMaintainDBCmd(const DB_REPAIR_ITEM& item);
  // Takes the oldest maintenance request, waiting once for up to 120 s.
  // 0 or DB_ERR_WAIT_TIMEOUT.
  long long WaitMaintainDBCmd(DB_REPAIR_ITEM& item);
  // Makes sure m_strInstallPath exists, creating one level with mode 0777.
  // 0 or DB_ERR_OPEN.
  long long CheckInstallPath();
  // 0 when `path` is a directory that can be opened; -1 otherwise.
  long long RecordDirAccess(const char* path);

  // ---- Data, in layout order ----
  //
  // m_enDBStatus and the six worker flags (m_bExecThread*,
  // m_bMaintainThread*) are read and written on different threads. They
  // stay `int` for the layout applications compile against; the library
  // reads and writes them only with the compiler's __atomic builtins
  // (sequentially consistent), never as a plain access. Code outside the
  // library that reads them while a worker runs should do the same.
  int m_iReserved;                       // unused by this layer; kept 0
  int m_enDBStatus;                      // 1 open, 0 otherwise
  std::string m_strInstallPath;          // directory of the files, ends in "/"
  char m_szEncryptKey[DB_ENCRYPT_KEY_SIZE];  // key; first byte 0: no key
  int m_bExecThreadStarted;
  int m_bExecThreadStop;
  int m_bExecThreadRunning;
  DB_THREAD_FUNC m_pfnExecThread;
  void* m_pExecThreadArg;
  DB_THREAD_FUNC m_pfnStopExecThread;
  void* m_pStopExecThreadArg;
  CSMutex m_mutexConn;                   // serialises open, close and re-key
  int m_bMaintainThreadStarted;
  int m_bMaintainThreadStop;
  int m_bMaintainThreadRunning;
  std::deque<DB_REPAIR_ITEM> m_dqRepairItems;
  pthread_mutex_t m_mutexRepair;
  pthread_cond_t m_condRepair;
};

#endif  // IPC_DB_DBCONN_H_
