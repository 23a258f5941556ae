// The connection as the schema, facade and table layer (src_db/src/db) sees
// it: the one header of the connection subsystem that layer includes. It
// gives what a table operation needs and nothing of the connection's
// inside (no queues, locks, workers or environment):
//  - making the connection (NewConnection, for Db::Init) and the public
//    CDBConn interface (DBConn.h) for the lifecycle calls Db forwards;
//  - path 1, text through CDBConn::ExecuteSQL: RunText for a statement
//    without an answer (schema changes, deletes, plain updates, the
//    "begin;"/"commit;" of multi-record calls), ScopedExecResult::Run for a
//    query whose answer comes back as a result table. The connection logs a
//    failure, turns it into a maintenance request and honours a paused
//    connection;
//  - path 2, straight on the handle: SqliteHandleOf gives the raw handle
//    (null while closed or paused), and Statement / PrepareStatement own the
//    statements that db/SqlRun prepares, binds and steps on it. Failures are
//    logged by the caller and queue no maintenance request.
#ifndef IPC_DB_SRC_CONN_CONNECTION_H_
#define IPC_DB_SRC_CONN_CONNECTION_H_

#include <sqlcipher/sqlite3.h>

#include "DBConn.h"
#include "conn/SqliteOwners.h"

namespace ipc_db::detail {

// A new CSqliteDBConn, the only connection kind; null when the allocation
// fails. The caller owns it.
CDBConn* NewConnection();

// The open handle of `conn`: null while the connection is closed or paused.
// REQUIRES: `conn` came from NewConnection.
sqlite3* SqliteHandleOf(CDBConn* conn);

// m_enDBStatus of `conn` (1 open, 0 otherwise), read as the connection
// writes it (conn/SharedFlags.h): a maintenance worker may pause or resume
// the connection on another thread.
int ConnectionStatus(const CDBConn* conn);

// Runs `sql` now on path 1 without a result table: ExecuteSQL's result.
long long RunText(CDBConn* conn, const char* sql);

// A zeroed result record for a path-1 query, released through the
// connection's FreeExecuteResult whichever way the scope is left, also when
// a conversion of one of its values throws.
class ScopedExecResult {
 public:
  explicit ScopedExecResult(CDBConn* conn) : conn_(conn), result_{0, 0, nullptr} {}
  ~ScopedExecResult() { conn_->FreeExecuteResult(&result_); }
  ScopedExecResult(const ScopedExecResult&) = delete;
  ScopedExecResult& operator=(const ScopedExecResult&) = delete;

  // Runs `sql` now on path 1 into this record: ExecuteSQL's result.
  // REQUIRES: called once per record.
  long long Run(const char* sql) {
    return conn_->ExecuteSQL(sql, &result_, DB_EXEC_SQL_SYNC);
  }

  const DB_EXEC_RESULT& operator*() const { return result_; }
  const DB_EXEC_RESULT* operator->() const { return &result_; }
  // The first value cell (after the single heading), or null. A query
  // without rows (a limit of 0, say) has no such cell: its table may hold
  // the heading alone or nothing at all.
  const char* FirstValue() const {
    if (result_.ppszResult == nullptr || result_.iRowCount < 1 ||
        result_.iColumnCount < 1) {
      return nullptr;
    }
    return result_.ppszResult[1];
  }

 private:
  CDBConn* conn_;
  DB_EXEC_RESULT result_;
};

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_CONN_CONNECTION_H_
