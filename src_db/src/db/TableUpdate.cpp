// Table::update_item and Table::rmv_item: change and delete rows selected by
// filter lists. An update without blobs runs as plain text through the
// connection; one with a blob in its assignments or its condition is
// prepared on the handle with the blobs bound as parameters. A removal runs
// one delete per filter list, several inside one transaction, which a
// failing delete leaves open.
#include <string>

#include "DBConn.h"
#include "db/CallerChecks.h"
#include "db/TableSql.h"

using ipc_db::detail::AppendBlobTerm;
using ipc_db::detail::AppendFilterClause;
using ipc_db::detail::AppendTerm;
using ipc_db::detail::BoundBlob;
using ipc_db::detail::CheckByteSize;
using ipc_db::detail::CheckConnection;
using ipc_db::detail::CheckFilterTerms;
using ipc_db::detail::CheckOpenHandle;
using ipc_db::detail::IsBlobTerm;
using ipc_db::detail::kLogDebug;
using ipc_db::detail::kLogError;
using ipc_db::detail::kLogInfo;
using ipc_db::detail::RunBoundStatement;
using ipc_db::detail::RunTransactionStatement;
using ipc_db::detail::TableHandle;

namespace {

// Only equal terms may assign, each usable as a condition; false (logged)
// for any other operator or an unusable term.
bool CheckAssignments(const DbFilters& set) {
  for (const DbFilter* term : set.filters) {
    if (term != nullptr && term->op != DB_FILTER_OP_EQ) {
      DB_LOG(kLogError, "op is not equal\n");
      return false;
    }
  }
  return CheckFilterTerms(set);
}

// Appends the assignments of `set`, separated by ", ".
void AppendAssignments(const Table& table, const DbFilters& set, std::string* sql,
                       BoundBlob* blob) {
  for (size_t i = 0; i < set.filters.size(); ++i) {
    DbFilter* term = set.filters[i];
    if (i > 0) sql->append(", ");
    if (IsBlobTerm(term)) {
      AppendBlobTerm(table, term, sql, blob);
    } else {
      AppendTerm(table, term, sql);
    }
  }
}

long long RunTextUpdate(const Table& table, const std::string& sql) {
  long long result =
      table.parent->m_pDBConn->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC);
  DB_LOG(kLogDebug, " Table::update_item = %s\n", sql.c_str());
  if (result != 0) {
    DB_LOG(kLogError, "ExecuteSQL for update_item failed!error:%lld\n", result);
    return -1;
  }
  return 0;
}

// "delete from <table>", and " where " with the terms joined by " and ".
std::string DeleteStatement(const Table& table, const DbFilters& list) {
  std::string sql = "delete from " + table.meta_data->type_name;
  if (list.filters.empty()) {
    DB_LOG(kLogInfo, "filters is null!\n");
  } else {
    sql.append(" where ");
    for (size_t i = 0; i < list.filters.size(); ++i) {
      if (i > 0) sql.append(" and ");
      AppendTerm(table, list.filters[i], &sql);
    }
  }
  sql.append(";");
  return sql;
}

long long RunDelete(const Table& table, const DbFilters& list) {
  std::string sql = DeleteStatement(table, list);
  long long result =
      table.parent->m_pDBConn->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC);
  DB_LOG(kLogDebug, " Table::rmv_item = %s\n", sql.c_str());
  if (result != 0) {
    DB_LOG(kLogError, "ExecuteSQL for rmv_item failed!error:%lld\n", result);
    return -1;
  }
  return 0;
}

// The array of lists is set and every term of every list is usable, so that
// no delete runs before a later list is found wrong.
bool CheckRemoveLists(const DbFilters* filters, unsigned long long itemcnt) {
  if (filters == nullptr) {
    DB_LOG(kLogError, "filters is null.\n");
    return false;
  }
  if (!CheckByteSize(itemcnt, sizeof(DbFilters))) return false;
  for (unsigned long long i = 0; i < itemcnt; ++i) {
    if (!CheckFilterTerms(filters[i])) return false;
  }
  return true;
}

}  // namespace

long long Table::update_item(DbFilters& set, DbFilters& where) {
  if (!CheckConnection(*this)) return -1;
  if (set.filters.empty()) {
    DB_LOG(kLogError, "filters is empty.\n");
    return -1;
  }
  if (!CheckAssignments(set) || !CheckFilterTerms(where)) return -1;
  std::string sql = "update " + meta_data->type_name + " set ";
  BoundBlob setBlob;
  BoundBlob whereBlob;
  AppendAssignments(*this, set, &sql, &setBlob);
  if (!AppendFilterClause(*this, where, &sql, &whereBlob)) return -1;
  sql.append(";");
  if (!setBlob.present && !whereBlob.present) return RunTextUpdate(*this, sql);
  if (!CheckOpenHandle(*this)) return -1;
  return RunBoundStatement(TableHandle(*this), sql, {&setBlob, &whereBlob});
}

long long Table::rmv_item(DbFilters* filters, unsigned long long itemcnt) {
  if (!CheckConnection(*this)) return -1;
  if (itemcnt == 0) {
    DB_LOG(kLogError, "itemcnt values is  wrong.\n");
    return -1;
  }
  if (!CheckRemoveLists(filters, itemcnt)) return -1;
  bool batch = itemcnt > 1;
  if (batch && RunTransactionStatement(*this, true, true) != 0) return -1;
  for (unsigned long long i = 0; i < itemcnt; ++i) {
    if (RunDelete(*this, filters[i]) != 0) return -1;
  }
  if (batch && RunTransactionStatement(*this, false, true) != 0) return -1;
  return 0;
}
