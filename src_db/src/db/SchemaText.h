// The SQL text of schema changes and upkeep: create table, add columns, drop
// table, the query of a table's stored CREATE text, create and drop index,
// and vacuum. Names and values go into the text as they stand, without
// quoting or escaping (apart from quoted default values). Nothing here
// touches the database or prepares a member: the callers prepare the
// members and name their columns first.
#ifndef IPC_DB_SRC_DB_SCHEMATEXT_H_
#define IPC_DB_SRC_DB_SCHEMATEXT_H_

#include <string>
#include <vector>

#include "Meta.h"

namespace ipc_db::detail {

// A prepared member (sql_type and flags set) with its column name.
struct NamedColumn {
  const Member* member;
  std::string name;
};

// "create table <table>(<column>,<column>...);" where each column is
// "<name> <sql_type>" followed by " PRIMARY KEY", " autoincrement",
// " NOT NULL" and " DEFAULT 0" for the flags the member has.
std::string CreateTableText(const std::string& table,
                            const std::vector<NamedColumn>& columns);

// "ALTER TABLE <table> " followed by "ADD COLUMN <name> <sql_type> DEFAULT
// <default>" and the key and null words for each column, separated by ",",
// then ";". The default is "0 " for a requested "NULL", the value unquoted
// for an integer column and quoted for any other. The default-zero flag is
// not used: the default is always written.
std::string AddColumnsText(const std::string& table,
                           const std::vector<NamedColumn>& columns,
                           const std::string& defaultValue);

// "drop table <table>;".
std::string DropTableText(const std::string& table);

// "select sql from sqlite_master where tbl_name = '<table>' and type =
// 'table'".
std::string StoredCreateQuery(const std::string& table);

// "create index <index> on <table>(<column>)".
std::string CreateIndexText(const std::string& index, const std::string& table,
                            const std::string& column);

// "DROP index <index> ;".
std::string DropIndexText(const std::string& index);

// "VACUUM <table>;".
std::string VacuumTableText(const std::string& table);

// The vacuum of the whole database.
inline constexpr char kVacuumText[] = "VACUUM;";

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_SCHEMATEXT_H_
