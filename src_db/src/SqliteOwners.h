// Owners of what SQLite hands out and the library releases itself: a
// prepared statement (finalised when its owner goes), an error message
// (released with sqlite3_free) and a result table that ExecuteSQL filled
// (released through the connection's FreeExecuteResult). Every statement the
// library prepares is held by a Statement, whose deleter is the library's
// only finalize call.
#ifndef IPC_DB_SRC_SQLITEOWNERS_H_
#define IPC_DB_SRC_SQLITEOWNERS_H_

#include <sqlcipher/sqlite3.h>

#include <memory>

#include "DBConn.h"

namespace ipc_db::detail {

struct StatementFinalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};

// A prepared statement, finalised when the owner is destroyed or reset.
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// Prepares `sql` on `db` with sqlite3_prepare. `*stmt` owns whatever the
// call handed back (also after a failure). Returns SQLite's result code.
inline int PrepareStatement(sqlite3* db, const char* sql, Statement* stmt) {
  sqlite3_stmt* raw = nullptr;
  int code = sqlite3_prepare(db, sql, -1, &raw, nullptr);
  stmt->reset(raw);
  return code;
}

struct SqliteFreer {
  void operator()(char* text) const { sqlite3_free(text); }
};

// A string that SQLite allocated (an error message), released with
// sqlite3_free.
using SqliteString = std::unique_ptr<char, SqliteFreer>;

// A zeroed result record for ExecuteSQL, released through the connection's
// FreeExecuteResult whichever way the scope is left, also when a conversion
// of one of its values throws.
class ScopedExecResult {
 public:
  explicit ScopedExecResult(CDBConn* conn) : conn_(conn), result_{0, 0, nullptr} {}
  ~ScopedExecResult() { conn_->FreeExecuteResult(&result_); }
  ScopedExecResult(const ScopedExecResult&) = delete;
  ScopedExecResult& operator=(const ScopedExecResult&) = delete;

  DB_EXEC_RESULT* get() { return &result_; }
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

#endif  // IPC_DB_SRC_SQLITEOWNERS_H_
