// CSqliteDBConn: the connection over one SQLCipher database file: opening,
// keying and configuring it, executing statements, the execution queue and
// its worker body, error processing into maintenance requests, repair,
// re-keying and journal mode.
//
// Users need no SQLCipher headers: the handle type is only declared here.
#ifndef IPC_DB_SQLITEDBCONN_H_
#define IPC_DB_SQLITEDBCONN_H_

#include <pthread.h>

#include <deque>
#include <string>

#include "DBConn.h"
#include "ipc_db_export.h"

struct sqlite3;

class IPC_DB_API CSqliteDBConn : public CDBConn {
 public:
  // No handle, not paused, worker hooks set to this connection.
  CSqliteDBConn();
  // Stops both workers, closes the handle (result ignored) and releases the
  // execution queue with any items in it. Never throws.
  ~CSqliteDBConn() override;

  long long OpenConnection() IPC_DB_LOCK_ATTRIBUTE(locks_excluded(m_mutexConn)) override;
  long long CloseConnection() IPC_DB_LOCK_ATTRIBUTE(locks_excluded(m_mutexConn)) override;
  // Re-keys the open database with `uiKeyLen` bytes of `szEncryptKey` and
  // keeps the new key for the next open. Returns 0 or DB_ERR_ENCRYPT (also
  // when either key is empty, logged at information level). If the key copy
  // fails after a successful re-key, m_mutexConn stays locked. REQUIRES:
  // `szEncryptKey` not null (DB_ERR_ENCRYPT and "RECORD: szEncryptKey is
  // null" otherwise, before the lock).
  long long ReEncryptDB(const char* szEncryptKey, unsigned int uiKeyLen)
      IPC_DB_LOCK_ATTRIBUTE(locks_excluded(m_mutexConn)) override;
  void SetDBFile(const std::string& strDBFile) override;
  void SetDBJournal(const std::string& strDBJournal) override;
  long long SetDBJournalAttr(DB_JOURNAL_TYPE enDbJournalType) override;
  // REQUIRES: `sql` not null: a synchronous call returns DB_ERR_EXEC with
  // "RECORD: sql is null" and queues no maintenance request.
  long long ExecuteSQL(const char* sql, DB_EXEC_RESULT* result,
                       DB_EXEC_SQL_TYPE type) override;
  void FreeExecuteResult(DB_EXEC_RESULT* result) override;
  long long BeginTransaction() override;
  long long CommitTransaction() override;
  // REQUIRES (these three): a text that is not null; otherwise 0 and
  // "RECORD: sql is null" or "RECORD: table is null".
  long long GetCountOfSQLResult(const char* sql) override;
  int WhetherTableExist(const char* table) override;
  long long GetRowCount(const char* table) override;
  long long ForceCommitTransaction() override;
  long long BackUpDB() override;
  long long RepairDB() override;
  long long RestoreDB() override;
  long long PauseConnection() override;
  long long ResumeConnection() override;
  // Runs the three connection pragmas (cipher compatibility 3, synchronous
  // NORMAL, journal mode DELETE). 0; -1 when any failed; 0 while paused;
  // DB_ERR_CONN_NOT_EXIST without a handle.
  virtual long long SetDBAttr();

  // ---- Execution queue and worker ----

  // Appends a copy of `item` and wakes one waiter. 0, or DB_ERR_QUEUE_FULL
  // when 1024 items are queued (the item is dropped).
  long long NotifySqlExecCmd(const SQLITE_DB_EXEC_QUEUE_ITEM& item);
  // Takes the oldest item, waiting once for up to 5 s. 0 or
  // DB_ERR_WAIT_TIMEOUT.
  long long WaitSqlExecCmd(SQLITE_DB_EXEC_QUEUE_ITEM& item);
  // Counts a quiet 5 s wait; from the third in a row, commits an open batch.
  void WaitExecTimeOutProcess();
  // Resets the count of quiet waits.
  void ClearWaitExecTimeOutCount();
  // Worker body: drains the execution queue in batches of 32 statements per
  // transaction until the stop flag is set. `conn` is the CSqliteDBConn.
  static void* SqliteDBExecThreadFun(void* conn);
  // Posts a stop item to wake the worker of the CSqliteDBConn `conn`.
  static void* SqliteStopDBExecThreadFun(void* conn);

  // ---- Maintenance ----

  // Maps a failed statement's SQLite primary code to a maintenance request
  // (reconnect, restore or repair) and queues it; other codes queue nothing.
  void ErrorProcess(int sqliteCode, const char* sql);

  // ---- Data, in layout order after the base ----
  sqlite3* m_pSqliteDB;           // open handle, null when closed or paused
  std::string m_strDBFile;        // full path of the database file
  std::string m_strDBJournal;     // full path of the journal file
  std::deque<SQLITE_DB_EXEC_QUEUE_ITEM> m_dqExecItems;
  pthread_mutex_t m_mutexExec;
  pthread_cond_t m_condExec;
  // 1 between pause and a successful resume; like the worker flags of
  // CDBConn, read and written by the library only with __atomic builtins.
  int m_bPaused;
  int m_bInTransaction;           // worker batch open
  unsigned long long m_ullExecCount;
  unsigned long long m_ullWaitTimeOutCount;
};

#endif  // IPC_DB_SQLITEDBCONN_H_
