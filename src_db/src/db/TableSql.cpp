// Statement text and execution pieces shared by the record operations of
// Table: naming, the select list, the filter clause, the per-column copy of
// result values into caller memory, blob-bound statements and the
// transaction statements around multi-record operations.
#include "db/TableSql.h"

#include "DBConn.h"
#include "SQLiteDBConn.h"
#include "bounded_mem.h"
#include "db/CallerChecks.h"
#include "db/TermText.h"

namespace ipc_db::detail {

namespace {

// Length of a rendered term with its joint, for reserving room up front.
constexpr size_t kTypicalTermLength = 32;

bool IsClauseOperator(DbFilterOperator op) {
  return op >= DB_FILTER_OP_AND && op <= DB_FILTER_OP_OFFSET;
}

bool OpensClause(DbFilterOperator op) {
  return op == DB_FILTER_OP_ORDER_BY || op == DB_FILTER_OP_ORDER_BY_DESC ||
         op == DB_FILTER_OP_LIMIT;
}

void LogWrongFormat() { DB_LOG(kLogError, "filter in wrong format\n"); }

// The text that opens the clause, or null when the first term cannot open it.
const char* ClauseOpening(DbFilterOperator first) {
  if (first == DB_FILTER_OP_AND || first == DB_FILTER_OP_OFFSET) return nullptr;
  return OpensClause(first) ? " " : " where ";
}

// The joint between `current` and the `next` term, or null when an offset
// does not follow a limit.
const char* Joint(DbFilterOperator current, DbFilterOperator next) {
  if (!IsClauseOperator(next)) return " and ";
  if (next != DB_FILTER_OP_OFFSET) return " ";
  return current == DB_FILTER_OP_LIMIT ? " " : nullptr;
}

}  // namespace

bool CheckConnection(const Table& table) {
  if (!CheckTableObjects(table)) return false;
  if (table.parent->m_pDBConn != nullptr) return true;
  DB_LOG(kLogError, "parent->m_pDBConn is null.\n");
  return false;
}

sqlite3* TableHandle(const Table& table) {
  return static_cast<CSqliteDBConn*>(table.parent->m_pDBConn)->m_pSqliteDB;
}

std::string ColumnName(const Table& table, const Member* member) {
  if (table.analyze_name == 0) return member->name;
  return table.parent->getName(member->name);
}

void AppendTerm(const Table& table, const DbFilter* term, std::string* sql) {
  AppendTermText(*term, table.analyze_name != 0, sql);
}

std::vector<Member*> SelectedMembers(const Table& table, const DbFilters& cols) {
  if (cols.filters.empty()) return table.meta_data->members;
  std::vector<Member*> members;
  members.reserve(cols.filters.size());
  for (const DbFilter* term : cols.filters) members.push_back(term->member);
  return members;
}

bool EveryMemberMatches(const std::vector<Member*>& wanted,
                        const std::vector<Member*>& available) {
  for (const Member* member : wanted) {
    bool found = false;
    for (const Member* candidate : available) {
      found = found || (candidate->name == member->name &&
                        candidate->type_meta->type_size == member->type_meta->type_size);
    }
    if (!found) return false;
  }
  return true;
}

void AppendSelectList(const Table& table, const DbFilters& cols, std::string* sql) {
  if (cols.filters.empty()) {
    sql->append("*");
    return;
  }
  for (size_t i = 0; i < cols.filters.size(); ++i) {
    if (i > 0) sql->append(", ");
    sql->append(ColumnName(table, cols.filters[i]->member));
  }
}

bool IsBlobTerm(const DbFilter* term) {
  return term->member != nullptr && term->member->sql_type == "BLOB";
}

void AppendBlobTerm(const Table& table, const DbFilter* term, std::string* sql,
                    BoundBlob* blob) {
  sql->append(ColumnName(table, term->member)).append(" = ?");
  blob->data = term->value1;
  blob->size = static_cast<int>(term->member->type_meta->type_size);
  blob->present = true;
}

bool AppendFilterClause(const Table& table, const DbFilters& filters, std::string* sql,
                        BoundBlob* blob) {
  const std::vector<DbFilter*>& terms = filters.filters;
  if (terms.empty()) return true;
  const char* opening = ClauseOpening(terms[0]->op);
  if (opening == nullptr) {
    LogWrongFormat();
    return false;
  }
  // Room for a typical term each, so that the text grows once, not per term.
  sql->reserve(sql->size() + kTypicalTermLength * (terms.size() + 1));
  sql->append(opening);
  for (size_t i = 0; i < terms.size(); ++i) {
    if (blob != nullptr && IsBlobTerm(terms[i])) {
      AppendBlobTerm(table, terms[i], sql, blob);
    } else {
      AppendTerm(table, terms[i], sql);
    }
    if (i + 1 == terms.size()) break;
    const char* joint = Joint(terms[i]->op, terms[i + 1]->op);
    if (joint == nullptr) {
      LogWrongFormat();
      return false;
    }
    sql->append(joint);
  }
  return true;
}

bool BuildSelect(const Table& table, const DbFilters& cols, const DbFilters& filters,
                 std::string* sql) {
  sql->append("select ");
  AppendSelectList(table, cols, sql);
  sql->append(" from ").append(table.meta_data->type_name);
  if (!AppendFilterClause(table, filters, sql)) return false;
  sql->append(";");
  return true;
}

ColumnKind KindOf(const Member* member) {
  if (member->sql_type == "INTEGER") {
    return member->type_meta->type_size == 4 ? ColumnKind::kInt32 : ColumnKind::kInt64;
  }
  return member->sql_type == "BLOB" ? ColumnKind::kBlob : ColumnKind::kText;
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
  sqlite3_stmt* stmt = nullptr;
  int code = sqlite3_prepare(db, sql.c_str(), -1, &stmt, nullptr);
  if (code != 0) {
    LogSqliteFailure(SqliteCall::kPrepare, code, db);
    sqlite3_finalize(stmt);
    return -1;
  }
  int index = 1;
  for (const BoundBlob* blob : blobs) {
    if (!blob->present) continue;
    code = sqlite3_bind_blob(stmt, index++, blob->data, blob->size, SQLITE_STATIC);
    if (code != 0) {
      LogSqliteFailure(SqliteCall::kBindBlob, code, db);
      sqlite3_finalize(stmt);
      return -1;
    }
  }
  code = sqlite3_step(stmt);
  if (code != SQLITE_DONE && code != 0) {
    LogSqliteFailure(SqliteCall::kStep, code, db);
    sqlite3_finalize(stmt);
    return -1;
  }
  sqlite3_finalize(stmt);
  return 0;
}

long long RunTransactionStatement(const Table& table, bool begin, bool withLineEnd) {
  const char* sql = begin ? "begin;" : "commit;";
  long long result = table.parent->m_pDBConn->ExecuteSQL(sql, nullptr, DB_EXEC_SQL_SYNC);
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
