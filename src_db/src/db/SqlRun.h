// Running the table operations' finished statement text: on the table's raw
// handle (preparing, binding blobs, stepping, the row loop of every read)
// or through the connection's ExecuteSQL (plain text and the transaction
// statements around multi-record operations), with the failure entries of
// both. Nothing here builds text beyond choosing a finished statement; the
// text comes from db/SqlText and db/SchemaText.
#ifndef IPC_DB_SRC_DB_SQLRUN_H_
#define IPC_DB_SRC_DB_SQLRUN_H_

#include <sqlcipher/sqlite3.h>

#include <initializer_list>
#include <string>

#include "Table.h"
#include "base/Log.h"
#include "conn/Connection.h"
#include "db/SqlText.h"

namespace ipc_db::detail {

// The open SQLite handle of the table's connection (null when closed), from
// SqliteHandleOf.
sqlite3* TableHandle(const Table& table);

enum class SqliteCall { kPrepare, kBindBlob, kStep };

// Logs a failed SQLite call with its code and the handle's message.
void LogSqliteFailure(SqliteCall call, int code, sqlite3* db);

// Prepares `sql`, binds the present blobs of `blobs` at parameter indices 1,
// 2, ... in order, steps once (done or 0 is success) and finalises. 0, or -1
// after logging the failing call.
long long RunBoundStatement(sqlite3* db, const std::string& sql,
                            std::initializer_list<const BoundBlob*> blobs);

// Which debug line ExecuteText writes after running a statement.
enum class StatementLog { kNone, kTableOperation };

// Runs `sql` through the connection's ExecuteSQL (the text path). With
// kTableOperation it then logs " Table::<operation> = <sql>\n" at debug
// level. A failure is logged as "ExecuteSQL for <operation>
// failed!error:<result>\n". Returns ExecuteSQL's result.
long long ExecuteText(CDBConn* conn, const std::string& sql, const char* operation,
                      StatementLog log = StatementLog::kNone);

// Runs "begin;" (or "commit;" when `begin` is false) for a multi-record
// operation and logs it at debug level as " Table::begin = ..." (or
// " Table::end = ..."), followed by a line end when `withLineEnd`. A failure
// is logged with its code. 0 or -1.
long long RunTransactionStatement(const Table& table, bool begin, bool withLineEnd);

// The row loop shared by every read: prepares the select statement `sql` on
// `db`, steps it and hands each row to `copyRow(stmt, rowIndex)`, stopping
// after `itemcnt` rows when it is not 0. On success `itemcnt` becomes the
// number of rows read and the result is 0 (also when stepping ended on an
// error); a failed prepare gives -1 and leaves `itemcnt`.
template <typename CopyRow>
long long RunSelect(sqlite3* db, const std::string& sql, unsigned long long& itemcnt,
                    CopyRow&& copyRow) {
  Statement stmt;
  int code = PrepareStatement(db, sql.c_str(), &stmt);
  if (code != 0) {
    LogSqliteFailure(SqliteCall::kPrepare, code, db);
    return -1;
  }
  unsigned long long rows = 0;
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
    if (stmt == nullptr) {
      DB_LOG(kLogError, "stmt is null\n");
      break;
    }
    copyRow(stmt.get(), rows);
    ++rows;
    if (itemcnt != 0 && rows >= itemcnt) break;
  }
  itemcnt = rows;
  return 0;
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_SQLRUN_H_
