// Table-level operations of Db: creating a table from a Meta (or only
// preparing its members when the table already exists), dropping it, reading
// back its stored CREATE text, asking whether it exists, and adding columns
// to it with ALTER TABLE. The members are prepared and their columns named
// here; the statement text comes from db/SchemaText.
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Db.h"
#include "Meta.h"
#include "Table.h"
#include "TableChange.h"
#include "base/Log.h"
#include "base/OutOfMemory.h"
#include "conn/Connection.h"
#include "db/CallerChecks.h"
#include "db/SchemaText.h"
#include "db/SqlRun.h"
#include "db/SqlText.h"

using ipc_db::detail::AddColumnsText;
using ipc_db::detail::CheckMembers;
using ipc_db::detail::ColumnName;
using ipc_db::detail::CreateTableText;
using ipc_db::detail::DbOutOfMemory;
using ipc_db::detail::DropTableText;
using ipc_db::detail::ExecuteText;
using ipc_db::detail::kLogDebug;
using ipc_db::detail::kLogError;
using ipc_db::detail::kLogInfo;
using ipc_db::detail::NamedColumn;
using ipc_db::detail::ScopedExecResult;
using ipc_db::detail::StoredCreateQuery;

namespace {

// getTableSql and getTableStatus when there is no connection object.
constexpr long long kNoConnection = -201;

// Whether PrepareColumns logs each member's name and type.
enum class MemberLog { kNone, kNameAndType };

// Prepares each member of `members` in order (type and flags from its name)
// and names its column under `analyzeName`; with kNameAndType it then logs
// "member name is <name>   type is <type>\n" at debug level.
std::vector<NamedColumn> PrepareColumns(Db* db, const std::vector<Member*>& members,
                                        int analyzeName, MemberLog log) {
  std::vector<NamedColumn> columns;
  columns.reserve(members.size());
  for (Member* member : members) {
    db->preProcMember(member);
    columns.push_back({member, ColumnName(db, analyzeName, member)});
    if (log == MemberLog::kNameAndType) {
      DB_LOG(kLogDebug, "member name is %s   type is %s\n", member->name.c_str(),
             member->sql_type.c_str());
    }
  }
  return columns;
}

// True when the Db has a connection; otherwise logs "<operation> m_pDBConn is
// null.\n".
bool HasConnection(const Db& db, const char* operation) {
  if (db.m_pDBConn != nullptr) return true;
  DB_LOG(kLogError, "%s m_pDBConn is null.\n", operation);
  return false;
}

// The members of `change` can be added: at least one, none null, each with a
// type description.
bool CheckChange(const TableChange& change) {
  if (change.members.empty()) {
    DB_LOG(kLogError, "TableChange is empty.\n");
    return false;
  }
  return CheckMembers(change.members, "TableChange");
}

// True when the result of a one-column query holds a first value.
bool HasFirstValue(const DB_EXEC_RESULT& result) {
  const long long entries =
      (static_cast<long long>(result.iRowCount) + 1) * result.iColumnCount;
  return result.ppszResult != nullptr && entries >= 2 && result.ppszResult[1] != nullptr;
}

}  // namespace

Table* Db::createTable(Meta* meta, int analyze_name) try {
  if (meta == nullptr) {
    DB_LOG(kLogError, "Db::createTable meta_data is null.\n");
    return nullptr;
  }
  if (meta->members.empty()) {
    DB_LOG(kLogError, "members is empty!\n");
    return nullptr;
  }
  if (!HasConnection(*this, "Db::createTable") ||
      !CheckMembers(meta->members, "meta_data")) {
    return nullptr;
  }
  // Owned here until it is handed out: a std::bad_alloc further down (the
  // statement text) must not leak it.
  std::unique_ptr<Table> table(new (std::nothrow) Table(this, meta, analyze_name));
  if (table == nullptr) {
    DB_LOG(kLogError, "Db::createTable alloc table fail.\n");
    return nullptr;
  }

  if (m_pDBConn->WhetherTableExist(meta->type_name.c_str()) == 1) {
    // The table is there already: only prepare the members, send no SQL.
    DB_LOG(kLogInfo, "table %s has exist!\n", meta->type_name.c_str());
    if (meta->members.empty()) {
      DB_LOG(kLogError, "table members is empty!\n");
      return nullptr;
    }
    for (Member* member : meta->members) preProcMember(member);
    return table.release();
  }

  std::vector<NamedColumn> columns =
      PrepareColumns(this, meta->members, analyze_name, MemberLog::kNameAndType);
  std::string sql = CreateTableText(meta->type_name, columns);
  if (ExecuteText(m_pDBConn, sql, "createTable") != 0) return nullptr;
  return table.release();
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::createTable", static_cast<Table*>(nullptr));
}

long long Db::destroyTable(Meta* meta) try {
  if (meta == nullptr) {
    DB_LOG(kLogError, "Db::destroyTable meta_data is null.\n");
    return -1;
  }
  if (!HasConnection(*this, "Db::destroyTable")) return -1;
  if (m_pDBConn->WhetherTableExist(meta->type_name.c_str()) != 1) {
    DB_LOG(kLogError, "table %s has destroy!\n", meta->type_name.c_str());
    return 0;
  }
  if (ExecuteText(m_pDBConn, DropTableText(meta->type_name), "destroyTable") != 0)
    return -1;
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::destroyTable", -1LL);
}

long long Db::getTableSql(std::string& tableName, std::string& sql) try {
  if (m_pDBConn == nullptr) return kNoConnection;
  const std::string query = StoredCreateQuery(tableName);
  ScopedExecResult result(m_pDBConn);
  const long long code = result.Run(query.c_str());
  if (code != 0) {
    DB_LOG(kLogError, "Failed to get table result");
    return code;
  }
  // A query without rows holds no value after the header (and, from SQLite,
  // no header either): that is a missing table.
  if (!HasFirstValue(*result)) {
    DB_LOG(kLogError, "Failed to get table result");
    return -1;
  }
  if (result->iRowCount > 0) sql = result->ppszResult[result->iColumnCount];
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::getTableSql", -1LL);
}

int Db::getTableStatus(std::string& tableName) {
  if (m_pDBConn == nullptr) return static_cast<int>(kNoConnection);
  return m_pDBConn->WhetherTableExist(tableName.c_str()) == 1 ? 1 : 0;
}

long long Db::updateTable(std::string tableName, TableChange& change,
                          std::string defaultValue, int analyze_name) try {
  if (!HasConnection(*this, "Db::updateTable") || !CheckChange(change)) return -1;
  std::vector<NamedColumn> columns =
      PrepareColumns(this, change.members, analyze_name, MemberLog::kNone);
  std::string sql = AddColumnsText(tableName, columns, defaultValue);
  if (ExecuteText(m_pDBConn, sql, "updateTable") != 0) return -1;
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::updateTable", -1LL);
}
