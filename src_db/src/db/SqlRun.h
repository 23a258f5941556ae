// Running the table operations' statements: the connection check, the raw
// handle, preparing, binding and stepping statements on it, copying result
// columns into caller memory, the row loop of every read, and the
// transaction statements around multi-record operations (which go through
// the connection's ExecuteSQL). The text comes from db/SqlText.
#ifndef IPC_DB_SRC_DB_SQLRUN_H_
#define IPC_DB_SRC_DB_SQLRUN_H_

#include <sqlcipher/sqlite3.h>

#include <cstring>
#include <initializer_list>
#include <string>

#include "Db.h"
#include "DbFilter.h"
#include "Log.h"
#include "Meta.h"
#include "SqliteOwners.h"
#include "Table.h"
#include "bounded_mem.h"
#include "db/SqlText.h"

namespace ipc_db::detail {

// True when the table has its Db and Meta (CheckTableObjects) and the Db has
// a connection; otherwise logs "parent->m_pDBConn is null.\n" (the row
// operations' wording).
bool CheckConnection(const Table& table);

// The open SQLite handle of the table's connection (null when closed), from
// SqliteHandleOf.
sqlite3* TableHandle(const Table& table);

// How one result column is copied into caller memory.
enum class ColumnKind { kInt32, kInt64, kBlob, kText };

// "INTEGER" of width 4: 32-bit; other "INTEGER": 64-bit; "BLOB": bytes;
// anything else: text.
ColumnKind KindOf(const Member* member);

// Copies column `column` of the current row to `dest`, a field `width` bytes
// wide, straight from SQLite's buffers. Integers are stored as 4 or 8 bytes;
// a blob that does not fit, or a NULL blob, leaves the field zero-filled; a
// text that does not fit with its terminator, or a NULL text, leaves an
// empty string. Inline: it runs once per column of every row read, and the
// integer stores compile down to a single move.
inline void CopyColumn(sqlite3_stmt* stmt, int column, ColumnKind kind, size_t width,
                       char* dest) {
  switch (kind) {
    case ColumnKind::kInt32: {
      int value = sqlite3_column_int(stmt, column);
      std::memcpy(dest, &value, sizeof(value));
      return;
    }
    case ColumnKind::kInt64: {
      sqlite3_int64 value = sqlite3_column_int64(stmt, column);
      std::memcpy(dest, &value, sizeof(value));
      return;
    }
    case ColumnKind::kBlob: {
      const void* data = sqlite3_column_blob(stmt, column);
      int bytes = sqlite3_column_bytes(stmt, column);
      memcpy_s(dest, width, data, static_cast<size_t>(bytes));
      return;
    }
    case ColumnKind::kText: {
      const char* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
      int bytes = sqlite3_column_bytes(stmt, column);
      strncpy_s(dest, width, text, static_cast<size_t>(bytes));
      return;
    }
  }
}

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

// The row loop shared by every read: builds the select statement, prepares
// it, steps it and hands each row to `copyRow(stmt, rowIndex)`, stopping
// after `itemcnt` rows when it is not 0. On success `itemcnt` becomes the
// number of rows read and the result is 0 (also when stepping ended on an
// error); a refused clause or a failed prepare gives -1 and leaves `itemcnt`.
template <typename CopyRow>
long long RunSelect(const Table& table, const DbFilters& cols, const DbFilters& filters,
                    unsigned long long& itemcnt, CopyRow&& copyRow) {
  std::string sql;
  if (!BuildSelect(table, cols, filters, &sql)) return -1;
  sqlite3* db = TableHandle(table);
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
