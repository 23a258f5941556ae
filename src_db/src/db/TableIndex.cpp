// Index and compaction statements: Table::add_index and Table::drop_index,
// which also record in each Member the name of the index it carries (so an
// index is dropped by name alone), Table::table_vacuum and Db::db_vacuum.
// The index record lives in memory only.
#include <string>

#include "DBConn.h"
#include "db/CallerChecks.h"
#include "db/TableSql.h"

using ipc_db::detail::CheckMembers;
using ipc_db::detail::CheckTableObjects;
using ipc_db::detail::ColumnName;
using ipc_db::detail::kLogError;

namespace {

constexpr const char* kNoIndex = "NONE";

long long Run(CDBConn* conn, const std::string& sql) {
  return conn->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC);
}

// The row operations' wording for a Table whose Db has no connection.
bool HasConnection(const Table& table) {
  if (table.parent->m_pDBConn != nullptr) return true;
  DB_LOG(kLogError, "parent->m_pDBConn is null.");
  return false;
}

// The first member of `meta` that records the index `name`, or null.
Member* MemberWithIndex(const Meta* meta, const std::string& name) {
  for (Member* member : meta->members) {
    if (member->index_name == name) return member;
  }
  return nullptr;
}

}  // namespace

long long Table::add_index(std::string name, Member* member) {
  if (!CheckTableObjects(*this)) return -1;
  if (member == nullptr) {
    DB_LOG(kLogError, "member dose not exit!");
    return -1;
  }
  if (!HasConnection(*this)) return -1;
  std::string sql = "create index " + name + " on " + meta_data->type_name + "(" +
                    ColumnName(*this, member) + ")";
  long long result = Run(parent->m_pDBConn, sql);
  if (result != 0) {
    DB_LOG(kLogError, "ExecuteSQL for add_index failed!error:%lld\n", result);
    return -1;
  }
  member->index_name = name;
  return 0;
}

long long Table::drop_index(std::string name) {
  if (!CheckTableObjects(*this) || !CheckMembers(meta_data->members, "meta_data")) {
    return -1;
  }
  Member* member = MemberWithIndex(meta_data, name);
  if (member == nullptr) {
    DB_LOG(kLogError, "index name has not found");
    return -1;
  }
  if (!HasConnection(*this)) return -1;
  long long result = Run(parent->m_pDBConn, "DROP index " + name + " ;");
  if (result != 0) {
    DB_LOG(kLogError, "ExecuteSQL for drop_index failed!error:%lld\n", result);
    return -1;
  }
  member->index_name = kNoIndex;
  return 0;
}

long long Table::table_vacuum() {
  if (!CheckTableObjects(*this) || !HasConnection(*this)) return -1;
  long long result = Run(parent->m_pDBConn, "VACUUM " + meta_data->type_name + ";");
  if (result != 0) {
    DB_LOG(kLogError, "ExecuteSQL for VACUUM failed!error:%lld\n", result);
    return -1;
  }
  return 0;
}

long long Db::db_vacuum() {
  if (m_pDBConn == nullptr) {
    DB_LOG(kLogError, "m_pDBConn is null.");
    return -1;
  }
  long long result = Run(m_pDBConn, "VACUUM;");
  if (result != 0) {
    DB_LOG(kLogError, "ExecuteSQL for VACUUM failed!error:%lld\n", result);
    return -1;
  }
  return 0;
}
