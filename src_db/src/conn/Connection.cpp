// The connection's side of conn/Connection.h: making the one connection kind,
// reaching its raw handle, and running text on path 1. Kept out of the
// header so that the table layer never sees CSqliteDBConn's members.
#include "conn/Connection.h"

#include <new>

#include "SQLiteDBConn.h"
#include "conn/SharedFlags.h"

namespace ipc_db::detail {

CDBConn* NewConnection() { return new (std::nothrow) CSqliteDBConn(); }

sqlite3* SqliteHandleOf(CDBConn* conn) {
  return static_cast<CSqliteDBConn*>(conn)->m_pSqliteDB;
}

int ConnectionStatus(const CDBConn* conn) { return ReadFlag(conn->m_enDBStatus); }

long long RunText(CDBConn* conn, const char* sql) {
  return conn->ExecuteSQL(sql, nullptr, DB_EXEC_SQL_SYNC);
}

}  // namespace ipc_db::detail
