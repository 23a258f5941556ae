// Index and compaction statements: Table::add_index and Table::drop_index,
// which also record in each Member the name of the index it carries (so an
// index is dropped by name alone), Table::table_vacuum and Db::db_vacuum.
// The index record lives in memory only. The statement text comes from
// db/SchemaText.
#include <new>
#include <string>

#include "base/Log.h"
#include "base/OutOfMemory.h"
#include "db/CallerChecks.h"
#include "db/MemberDefaults.h"
#include "db/SchemaText.h"
#include "db/SqlRun.h"
#include "db/SqlText.h"

using ipc_db::detail::CheckMembers;
using ipc_db::detail::CheckTableObjects;
using ipc_db::detail::ColumnName;
using ipc_db::detail::CreateIndexText;
using ipc_db::detail::DbOutOfMemory;
using ipc_db::detail::DropIndexText;
using ipc_db::detail::ExecuteText;
using ipc_db::detail::kLogError;
using ipc_db::detail::kNoIndex;
using ipc_db::detail::kVacuumText;
using ipc_db::detail::VacuumTableText;

namespace {

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

long long Table::add_index(std::string name, Member* member) try {
  if (!CheckTableObjects(*this)) return -1;
  if (member == nullptr) {
    DB_LOG(kLogError, "member dose not exit!");
    return -1;
  }
  if (!HasConnection(*this)) return -1;
  std::string sql =
      CreateIndexText(name, meta_data->type_name, ColumnName(*this, member));
  if (ExecuteText(parent->m_pDBConn, sql, "add_index") != 0) return -1;
  member->index_name = name;
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::add_index", -1LL);
}

long long Table::drop_index(std::string name) try {
  if (!CheckTableObjects(*this) || !CheckMembers(meta_data->members, "meta_data")) {
    return -1;
  }
  Member* member = MemberWithIndex(meta_data, name);
  if (member == nullptr) {
    DB_LOG(kLogError, "index name has not found");
    return -1;
  }
  if (!HasConnection(*this)) return -1;
  if (ExecuteText(parent->m_pDBConn, DropIndexText(name), "drop_index") != 0) return -1;
  member->index_name = kNoIndex;
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::drop_index", -1LL);
}

long long Table::table_vacuum() try {
  if (!CheckTableObjects(*this) || !HasConnection(*this)) return -1;
  std::string sql = VacuumTableText(meta_data->type_name);
  if (ExecuteText(parent->m_pDBConn, sql, "VACUUM") != 0) return -1;
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::table_vacuum", -1LL);
}

long long Db::db_vacuum() try {
  if (m_pDBConn == nullptr) {
    DB_LOG(kLogError, "m_pDBConn is null.");
    return -1;
  }
  if (ExecuteText(m_pDBConn, kVacuumText, "VACUUM") != 0) return -1;
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::db_vacuum", -1LL);
}
