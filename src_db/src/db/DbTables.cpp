// Table-level operations of Db: creating a table from a Meta (or only
// preparing its members when the table already exists), dropping it, reading
// back its stored CREATE text, asking whether it exists, and adding columns
// to it with ALTER TABLE. Names and values go into the SQL text as they
// stand, without quoting or escaping (apart from quoted default values).
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "DBConn.h"
#include "Db.h"
#include "Log.h"
#include "Meta.h"
#include "OutOfMemory.h"
#include "SqliteOwners.h"
#include "Table.h"
#include "TableChange.h"
#include "db/CallerChecks.h"
#include "db/SqlRun.h"
#include "db/SqlText.h"

namespace {

// getTableSql and getTableStatus when there is no connection object.
constexpr long long kNoConnection = -201;

// The attribute words for the key, autoincrement and not-null flags, in
// their fixed order.
std::string KeyAndNullWords(const Member* member) {
  std::string words;
  if (member->primary_key != 0) words += " PRIMARY KEY";
  if (member->auto_increment != 0) words += " autoincrement";
  if (member->not_null != 0) words += " NOT NULL";
  return words;
}

// The text after " DEFAULT " for a column added by updateTable: a requested
// NULL becomes a zero default, an INTEGER column takes the value unquoted,
// any other column quoted.
std::string DefaultText(const Member* member, const std::string& value) {
  if (value == "NULL") return "0 ";
  if (member->sql_type == "INTEGER") return value;
  return "'" + value + "'";
}

// True when the Db has a connection; otherwise logs "<operation> m_pDBConn is
// null.\n".
bool HasConnection(const Db& db, const char* operation) {
  if (db.m_pDBConn != nullptr) return true;
  DB_LOG(ipc_db::detail::kLogError, "%s m_pDBConn is null.\n", operation);
  return false;
}

// The members of `change` can be added: at least one, none null, each with a
// type description.
bool CheckChange(const TableChange& change) {
  if (change.members.empty()) {
    DB_LOG(ipc_db::detail::kLogError, "TableChange is empty.\n");
    return false;
  }
  return ipc_db::detail::CheckMembers(change.members, "TableChange");
}

// True when the result of a one-column query holds a first value.
bool HasFirstValue(const DB_EXEC_RESULT& result) {
  const long long entries =
      (static_cast<long long>(result.iRowCount) + 1) * result.iColumnCount;
  return result.ppszResult != nullptr && entries >= 2 && result.ppszResult[1] != nullptr;
}

}  // namespace

Table* Db::createTable(Meta* meta, int analyze_name) {
  return ipc_db::detail::DbCall(
      "Db::createTable", static_cast<Table*>(nullptr), [&]() -> Table* {
        if (meta == nullptr) {
          DB_LOG(ipc_db::detail::kLogError, "Db::createTable meta_data is null.\n");
          return nullptr;
        }
        if (meta->members.empty()) {
          DB_LOG(ipc_db::detail::kLogError, "members is empty!\n");
          return nullptr;
        }
        if (!HasConnection(*this, "Db::createTable") ||
            !ipc_db::detail::CheckMembers(meta->members, "meta_data")) {
          return nullptr;
        }
        // Owned here until it is handed out: a std::bad_alloc further down
        // (the statement text) must not leak it.
        std::unique_ptr<Table> table(new (std::nothrow) Table(this, meta, analyze_name));
        if (table == nullptr) {
          DB_LOG(ipc_db::detail::kLogError, "Db::createTable alloc table fail.\n");
          return nullptr;
        }

        if (m_pDBConn->WhetherTableExist(meta->type_name.c_str()) == 1) {
          // The table is there already: only prepare the members, send no SQL.
          DB_LOG(ipc_db::detail::kLogInfo, "table %s has exist!\n",
                 meta->type_name.c_str());
          if (meta->members.empty()) {
            DB_LOG(ipc_db::detail::kLogError, "table members is empty!\n");
            return nullptr;
          }
          for (Member* member : meta->members) preProcMember(member);
          return table.release();
        }

        std::string sql = "create table " + meta->type_name + "(";
        for (size_t i = 0; i < meta->members.size(); ++i) {
          Member* member = meta->members[i];
          preProcMember(member);
          sql += ipc_db::detail::ColumnName(this, analyze_name, member) + " " +
                 member->sql_type;
          DB_LOG(ipc_db::detail::kLogDebug, "member name is %s   type is %s\n",
                 member->name.c_str(), member->sql_type.c_str());
          sql += KeyAndNullWords(member);
          if (member->default_zero != 0) sql += " DEFAULT 0";
          if (i + 1 < meta->members.size()) sql += ",";
        }
        sql += ");";

        if (ipc_db::detail::ExecuteText(m_pDBConn, sql, "createTable") != 0) {
          return nullptr;
        }
        return table.release();
      });
}

long long Db::destroyTable(Meta* meta) {
  return ipc_db::detail::DbCall("Db::destroyTable", -1LL, [&]() -> long long {
    if (meta == nullptr) {
      DB_LOG(ipc_db::detail::kLogError, "Db::destroyTable meta_data is null.\n");
      return -1;
    }
    if (!HasConnection(*this, "Db::destroyTable")) return -1;
    if (m_pDBConn->WhetherTableExist(meta->type_name.c_str()) != 1) {
      DB_LOG(ipc_db::detail::kLogError, "table %s has destroy!\n",
             meta->type_name.c_str());
      return 0;
    }
    const std::string sql = "drop table " + meta->type_name + ";";
    if (ipc_db::detail::ExecuteText(m_pDBConn, sql, "destroyTable") != 0) {
      return -1;
    }
    return 0;
  });
}

long long Db::getTableSql(std::string& tableName, std::string& sql) {
  return ipc_db::detail::DbCall("Db::getTableSql", -1LL, [&]() -> long long {
    if (m_pDBConn == nullptr) return kNoConnection;
    const std::string query = "select sql from sqlite_master where tbl_name = '" +
                              tableName + "' and type = 'table'";
    ipc_db::detail::ScopedExecResult result(m_pDBConn);
    const long long code =
        m_pDBConn->ExecuteSQL(query.c_str(), result.get(), DB_EXEC_SQL_SYNC);
    if (code != 0) {
      DB_LOG(ipc_db::detail::kLogError, "Failed to get table result");
      return code;
    }
    // A query without rows holds no value after the header (and, from SQLite,
    // no header either): that is a missing table.
    if (!HasFirstValue(*result)) {
      DB_LOG(ipc_db::detail::kLogError, "Failed to get table result");
      return -1;
    }
    if (result->iRowCount > 0) sql = result->ppszResult[result->iColumnCount];
    return 0;
  });
}

int Db::getTableStatus(std::string& tableName) {
  if (m_pDBConn == nullptr) return static_cast<int>(kNoConnection);
  return m_pDBConn->WhetherTableExist(tableName.c_str()) == 1 ? 1 : 0;
}

long long Db::updateTable(std::string tableName, TableChange& change,
                          std::string defaultValue, int analyze_name) {
  return ipc_db::detail::DbCall("Db::updateTable", -1LL, [&]() -> long long {
    if (!HasConnection(*this, "Db::updateTable") || !CheckChange(change)) return -1;
    std::string sql = "ALTER TABLE " + tableName + " ";
    const std::vector<Member*>& members = change.members;
    for (size_t i = 0; i < members.size(); ++i) {
      Member* member = members[i];
      preProcMember(member);
      sql += "ADD COLUMN " + ipc_db::detail::ColumnName(this, analyze_name, member) +
             " " + member->sql_type + " DEFAULT " + DefaultText(member, defaultValue);
      // The default-zero flag is not used here: the default is always written.
      sql += KeyAndNullWords(member);
      if (i + 1 < members.size()) sql += ",";
    }
    sql += ";";

    if (ipc_db::detail::ExecuteText(m_pDBConn, sql, "updateTable") != 0) {
      return -1;
    }
    return 0;
  });
}
