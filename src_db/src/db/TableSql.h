// Pieces of statement text and statement execution that the record
// operations of Table share: column names in the table's naming mode, the
// select list, the filter clause (with its ordering, limit and offset rules),
// the copy of one result column into caller memory, the row loop of every
// read, and the prepare/bind/step sequence of statements that carry blobs.
#ifndef IPC_DB_SRC_DB_TABLESQL_H_
#define IPC_DB_SRC_DB_TABLESQL_H_

#include <sqlcipher/sqlite3.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "Db.h"
#include "DbFilter.h"
#include "Log.h"
#include "Meta.h"
#include "Table.h"
#include "bounded_mem.h"

namespace ipc_db::detail {

// True when the table has its Db and Meta (CheckTableObjects) and the Db has
// a connection; otherwise logs "parent->m_pDBConn is null.\n" (the row
// operations' wording).
bool CheckConnection(const Table& table);

// The connection's open SQLite handle (null when closed).
sqlite3* TableHandle(const Table& table);

// Column name of `member`: its name as it stands in naming mode 0, else the
// plain name Db::getName derives from it.
std::string ColumnName(const Table& table, const Member* member);

// Appends `term` as op2Str renders it in naming mode 0, else as
// op2StrAnalyze does.
void AppendTerm(const Table& table, const DbFilter* term, std::string* sql);

// The members whose columns a select list names, in column order: the
// table's members for an empty list, else the members of its terms.
std::vector<Member*> SelectedMembers(const Table& table, const DbFilters& cols);

// True when every member of `wanted` has a namesake (same name, same field
// width) among `available`. Offsets and column types are not compared.
bool EveryMemberMatches(const std::vector<Member*>& wanted,
                        const std::vector<Member*>& available);

// Appends the select list: "*" for an empty list, else the column names of
// the terms' members separated by ", ".
void AppendSelectList(const Table& table, const DbFilters& cols, std::string* sql);

// A blob that a statement binds as a parameter instead of writing it into
// the text. Only the last blob of a list is kept.
struct BoundBlob {
  const void* data = nullptr;
  int size = 0;
  bool present = false;
};

// True for a term whose member is a "BLOB" column.
bool IsBlobTerm(const DbFilter* term);

// Appends "<column> = ?" for a blob term and remembers its data in `blob`.
void AppendBlobTerm(const Table& table, const DbFilter* term, std::string* sql,
                    BoundBlob* blob);

// Appends the filter clause of `filters`: nothing for an empty list, else an
// opening (" where " before a condition, " " before an ordering or a limit)
// and the rendered terms, joined by " and " before a condition and by " "
// before a clause term. Refuses (logging "filter in wrong format\n") a list
// that opens with an and- or offset-term, or an offset not directly after a
// limit. With `blob` set, blob terms are written as "<column> = ?" and
// remembered there. Returns false when refused.
bool AppendFilterClause(const Table& table, const DbFilters& filters, std::string* sql,
                        BoundBlob* blob = nullptr);

// "select <list> from <table><filter clause>;". False when the clause is
// refused.
bool BuildSelect(const Table& table, const DbFilters& cols, const DbFilters& filters,
                 std::string* sql);

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
  sqlite3_stmt* stmt = nullptr;
  int code = sqlite3_prepare(db, sql.c_str(), -1, &stmt, nullptr);
  if (code != 0) {
    LogSqliteFailure(SqliteCall::kPrepare, code, db);
    sqlite3_finalize(stmt);
    return -1;
  }
  unsigned long long rows = 0;
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    if (stmt == nullptr) {
      DB_LOG(kLogError, "stmt is null\n");
      break;
    }
    copyRow(stmt, rows);
    ++rows;
    if (itemcnt != 0 && rows >= itemcnt) break;
  }
  itemcnt = rows;
  sqlite3_finalize(stmt);
  return 0;
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_TABLESQL_H_
