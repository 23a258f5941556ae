// Table::get_item_cnt, get_item_max and get_item_min: one-value queries run
// through the connection's ExecuteSQL, whose answer comes back as text in
// the first value cell of the result table. Numbers are converted with
// std::stol, so a value beyond the range of `long` throws std::out_of_range
// on targets where `long` has 32 bits.
#include <new>
#include <string>

#include "base/Log.h"
#include "base/OutOfMemory.h"
#include "conn/Connection.h"
#include "db/CallerChecks.h"
#include "db/ColumnKind.h"
#include "db/SqlText.h"

using ipc_db::detail::BuildCount;
using ipc_db::detail::BuildExtremum;
using ipc_db::detail::CheckColumnTerms;
using ipc_db::detail::CheckFilterTerms;
using ipc_db::detail::CheckTableObjects;
using ipc_db::detail::ColumnKind;
using ipc_db::detail::ColumnKindOf;
using ipc_db::detail::DbOutOfMemory;
using ipc_db::detail::Extremum;
using ipc_db::detail::kLogDebug;
using ipc_db::detail::kLogError;
using ipc_db::detail::ScopedExecResult;

namespace {

void LogOneFieldOnly(Extremum extremum) {
  if (extremum == Extremum::kMax) {
    DB_LOG(kLogError, "The get_item_max only supports one filed.");
  } else {
    DB_LOG(kLogError, "The get_item_min only supports one filed.");
  }
}

void LogExtremumFailed(Extremum extremum) {
  if (extremum == Extremum::kMax) {
    DB_LOG(kLogError, "ExecuteSQL for get_item_max failed !");
  } else {
    DB_LOG(kLogError, "ExecuteSQL for get_item_min failed !");
  }
}

long long GetExtremum(Table& table, Extremum extremum, DbFilters& col,
                      const DbFilters& filters, std::string& out) {
  if (!CheckTableObjects(table)) return -1;
  CDBConn* conn = table.parent->m_pDBConn;
  if (conn == nullptr) {
    DB_LOG(kLogError, "parent->m_pDBConn is null.");
    return -1;
  }
  if (col.filters.size() != 1) {
    LogOneFieldOnly(extremum);
    return -1;
  }
  if (!CheckColumnTerms(col) || !CheckFilterTerms(filters)) return -1;
  const Member* member = col.filters[0]->member;
  std::string sql;
  if (!BuildExtremum(table, extremum, member, filters, &sql)) return -1;
  ScopedExecResult result(conn);
  if (result.Run(sql.c_str()) != 0) {
    LogExtremumFailed(extremum);
    return -1;
  }
  const char* value = result.FirstValue();
  if (value == nullptr) {
    out.clear();
    return 0;
  }
  out = value;
  return ColumnKindOf(*member) == ColumnKind::kInteger ? std::stol(out, nullptr, 10) : 0;
}

}  // namespace

long long Table::get_item_cnt(DbFilters& filters) try {
  if (!CheckTableObjects(*this)) return -1;
  CDBConn* conn = parent->m_pDBConn;
  if (conn == nullptr) {
    DB_LOG(kLogError, "parent->m_pDBConn is null.");
    return -1;
  }
  if (!CheckFilterTerms(filters)) return -1;
  std::string sql;
  if (!BuildCount(*this, filters, &sql)) return -1;
  ScopedExecResult result(conn);
  long long code = result.Run(sql.c_str());
  DB_LOG(kLogDebug, " Table::get_item_cnt = %s", sql.c_str());
  if (code != 0) {
    DB_LOG(kLogError, "ExecuteSQL for get_item_cnt failed !");
    return -1;
  }
  const char* value = result.FirstValue();
  return value == nullptr ? 0 : std::stol(value, nullptr, 10);
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::get_item_cnt", -1LL);
}

long long Table::get_item_max(DbFilters& col, const DbFilters& filters,
                              std::string& out) try {
  return GetExtremum(*this, Extremum::kMax, col, filters, out);
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::get_item_max", -1LL);
}

long long Table::get_item_min(DbFilters& col, const DbFilters& filters,
                              std::string& out) try {
  return GetExtremum(*this, Extremum::kMin, col, filters, out);
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::get_item_min", -1LL);
}
