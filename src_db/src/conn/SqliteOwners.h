// Owners of what SQLite hands out and the library releases itself: a
// prepared statement (finalised when its owner goes) and an error message
// (released with sqlite3_free). Every statement the library prepares is held
// by a Statement, whose deleter is the library's only finalize call. The
// owner of a result table that ExecuteSQL filled, which needs the
// connection, is ScopedExecResult in conn/Connection.h.
#ifndef IPC_DB_SRC_CONN_SQLITEOWNERS_H_
#define IPC_DB_SRC_CONN_SQLITEOWNERS_H_

#include <sqlcipher/sqlite3.h>

#include <memory>

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

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_CONN_SQLITEOWNERS_H_
