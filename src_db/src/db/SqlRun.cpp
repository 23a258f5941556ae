// Statement running for the table operations: the handle accessor,
// blob-bound statements, failure logging, text run through the connection
// and the transaction statements around multi-record operations.
#include "db/SqlRun.h"

#include "Db.h"

namespace ipc_db::detail {

sqlite3* TableHandle(const Table& table) {
  return SqliteHandleOf(table.parent->m_pDBConn);
}

void LogSqliteFailure(SqliteCall call, int code, sqlite3* db) {
  long long wide = code;
  switch (call) {
    case SqliteCall::kPrepare:
      DB_LOG(kLogError, "Failed to sqlite3_prepare!errorcode:%lld, reason:%s!!\n", wide,
             sqlite3_errmsg(db));
      return;
    case SqliteCall::kBindBlob:
      DB_LOG(kLogError, "Failed to sqlite3_bind_blob!errorcode:%lld, reason:%s!!\n", wide,
             sqlite3_errmsg(db));
      return;
    case SqliteCall::kStep:
      DB_LOG(kLogError, "Failed to sqlite3_step!errorcode:%lld, reason:%s!!\n", wide,
             sqlite3_errmsg(db));
      return;
  }
}

long long RunBoundStatement(sqlite3* db, const std::string& sql,
                            std::initializer_list<const BoundBlob*> blobs) {
  Statement stmt;
  int code = PrepareStatement(db, sql.c_str(), &stmt);
  if (code != 0) {
    LogSqliteFailure(SqliteCall::kPrepare, code, db);
    return -1;
  }
  int index = 1;
  for (const BoundBlob* blob : blobs) {
    if (!blob->present) continue;
    code = sqlite3_bind_blob(stmt.get(), index++, blob->data, blob->size, SQLITE_STATIC);
    if (code != 0) {
      LogSqliteFailure(SqliteCall::kBindBlob, code, db);
      return -1;
    }
  }
  code = sqlite3_step(stmt.get());
  if (code != SQLITE_DONE && code != 0) {
    LogSqliteFailure(SqliteCall::kStep, code, db);
    return -1;
  }
  return 0;
}

long long ExecuteText(CDBConn* conn, const std::string& sql, const char* operation,
                      StatementLog log) {
  long long result = RunText(conn, sql.c_str());
  if (log == StatementLog::kTableOperation) {
    DB_LOG(kLogDebug, " Table::%s = %s\n", operation, sql.c_str());
  }
  if (result != 0) {
    DB_LOG(kLogError, "ExecuteSQL for %s failed!error:%lld\n", operation, result);
  }
  return result;
}

long long RunTransactionStatement(const Table& table, bool begin, bool withLineEnd) {
  const char* sql = begin ? kBeginText : kCommitText;
  long long result = RunText(table.parent->m_pDBConn, sql);
  if (begin) {
    if (withLineEnd) {
      DB_LOG(kLogDebug, " Table::begin = %s\n", sql);
    } else {
      DB_LOG(kLogDebug, " Table::begin = %s", sql);
    }
    if (result != 0)
      DB_LOG(kLogError, "ExecuteSQL for begin failed!error:%lld\n", result);
  } else {
    if (withLineEnd) {
      DB_LOG(kLogDebug, " Table::end = %s\n", sql);
    } else {
      DB_LOG(kLogDebug, " Table::end = %s", sql);
    }
    if (result != 0) DB_LOG(kLogError, "ExecuteSQL for end failed!error:%lld\n", result);
  }
  return result == 0 ? 0 : -1;
}

}  // namespace ipc_db::detail
