// Types and result codes that cross the connection interface: execution kind
// and result table of ExecuteSQL, journal modes, queue items of the execution
// and maintenance queues, and the DB_ERR_* codes.
#ifndef IPC_DB_DBTYPES_H_
#define IPC_DB_DBTYPES_H_

// Result codes of the connection layer (0 is success).
#define DB_ERR_CONN_EXIST (-200)      // open called while a handle is open
#define DB_ERR_OPEN (-201)            // directory, sqlite3_open or worker failed
#define DB_ERR_CONN_NOT_EXIST (-202)  // no open handle
#define DB_ERR_CLOSE (-203)           // sqlite3_close failed
#define DB_ERR_EXEC (-204)            // an SQL statement failed
#define DB_ERR_WAIT_TIMEOUT (-207)    // a queue wait timed out
#define DB_ERR_QUEUE_FULL (-208)      // the execution queue is full
#define DB_ERR_ENCRYPT (-209)         // keying or re-keying failed

// Size of the SQL text field of both queue items (at most 1023 characters).
#define DB_SQL_TEXT_SIZE 1024

// How ExecuteSQL runs a statement. Any value other than 1 behaves as 0.
enum DB_EXEC_SQL_TYPE : int {
  DB_EXEC_SQL_SYNC = 0,   // now, on the caller's thread
  DB_EXEC_SQL_ASYNC = 1,  // copied into the execution queue; returns at once
};

// Result table of a synchronous ExecuteSQL with a result record. The caller
// zeroes it before the call and releases it with FreeExecuteResult.
struct DB_EXEC_RESULT {
  int iRowCount;     // data rows, the header row not counted
  int iColumnCount;  // columns
  // Column names (one row of iColumnCount entries), then the values row by
  // row; a NULL value is a null pointer. Owned by SQLite.
  char** ppszResult;
};

// Journal modes for SetDBJournalAttr, mapped to the text after
// "PRAGMA journal_mode = ".
enum DB_JOURNAL_TYPE : int {
  DB_JOURNAL_DELETE = 0,    // "Delete"
  DB_JOURNAL_TRUNCATE = 1,  // "TRUNCATE"
  DB_JOURNAL_PERSIST = 2,   // "PERSIST"
  DB_JOURNAL_MEMORY = 3,    // "MEMORY"
  DB_JOURNAL_WAL = 4,       // "WAL"
  DB_JOURNAL_OFF = 5,       // "OFF"
};

// Commands of the execution queue.
enum SQLITE_EXEC_CMD_TYPE : int {
  SQLITE_EXEC_CMD_SQL = 0,     // execute szSQL
  SQLITE_EXEC_CMD_COMMIT = 1,  // commit the open batch
  SQLITE_EXEC_CMD_STOP = 2,    // wake the worker so that it sees its stop flag
};

// Item of the execution queue, copied by value (1028 bytes).
struct SQLITE_DB_EXEC_QUEUE_ITEM {
  int enCmdType;                   // an SQLITE_EXEC_CMD_TYPE value
  char szSQL[DB_SQL_TEXT_SIZE];    // zero-terminated SQL text
};

// Commands of the maintenance queue.
enum DB_REPAIR_CMD_TYPE : int {
  DB_REPAIR_CMD_REPAIR = 0,     // pause, RepairDB, resume
  DB_REPAIR_CMD_RESTORE = 1,    // pause, RestoreDB, resume
  DB_REPAIR_CMD_RECONNECT = 2,  // pause, resume
  DB_REPAIR_CMD_EXIT = 3,       // leave the worker loop
  DB_REPAIR_CMD_WAKE = 4,       // nothing; wakes the worker
};

// Item of the maintenance queue, copied by value (1028 bytes).
struct DB_REPAIR_ITEM {
  int enCmdType;                   // a DB_REPAIR_CMD_TYPE value
  char szSQL[DB_SQL_TEXT_SIZE];    // text of the failed statement, or empty
};

#endif  // IPC_DB_DBTYPES_H_
