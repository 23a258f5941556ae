// The one way from a connection to its raw SQLite handle, for the table
// operations that run statements on the handle themselves.
//
// A table operation runs its statement in one of two ways:
//  - through CDBConn::ExecuteSQL (text without blobs, counts, transaction
//    statements, schema changes): the connection logs failures, turns them
//    into maintenance requests, and honours a paused connection;
//  - straight on the handle returned here (reads, and inserts and updates
//    that bind a blob): prepared, bound and stepped by db/SqlRun, with
//    failures logged there and no maintenance request.
#ifndef IPC_DB_SRC_CONNHANDLE_H_
#define IPC_DB_SRC_CONNHANDLE_H_

#include "DBConn.h"
#include "SQLiteDBConn.h"

namespace ipc_db::detail {

// The open handle of `conn`: null while the connection is closed or paused.
// REQUIRES: `conn` is a CSqliteDBConn, the only connection Db::Init creates.
inline sqlite3* SqliteHandleOf(CDBConn* conn) {
  return static_cast<CSqliteDBConn*>(conn)->m_pSqliteDB;
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_CONNHANDLE_H_
