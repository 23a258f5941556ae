// Assembly of the schema statements' SQL text: the column definitions of
// create table and add column, and the one-line statements of drop, index
// and vacuum.
#include "db/SchemaText.h"

#include "db/ColumnKind.h"

namespace ipc_db::detail {

namespace {

// The attribute words for the key, autoincrement and not-null flags, in
// their fixed order.
std::string KeyAndNullWords(const Member* member) {
  std::string words;
  if (member->primary_key != 0) words += " PRIMARY KEY";
  if (member->auto_increment != 0) words += " autoincrement";
  if (member->not_null != 0) words += " NOT NULL";
  return words;
}

// The text after " DEFAULT " for an added column: a requested NULL becomes a
// zero default, an integer column takes the value unquoted, any other column
// quoted.
std::string DefaultText(const Member* member, const std::string& value) {
  if (value == "NULL") return "0 ";
  if (ColumnKindOf(*member) == ColumnKind::kInteger) return value;
  return "'" + value + "'";
}

}  // namespace

std::string CreateTableText(const std::string& table,
                            const std::vector<NamedColumn>& columns) {
  std::string sql = "create table " + table + "(";
  for (size_t i = 0; i < columns.size(); ++i) {
    const Member* member = columns[i].member;
    sql += columns[i].name + " " + member->sql_type;
    sql += KeyAndNullWords(member);
    if (member->default_zero != 0) sql += " DEFAULT 0";
    if (i + 1 < columns.size()) sql += ",";
  }
  sql += ");";
  return sql;
}

std::string AddColumnsText(const std::string& table,
                           const std::vector<NamedColumn>& columns,
                           const std::string& defaultValue) {
  std::string sql = "ALTER TABLE " + table + " ";
  for (size_t i = 0; i < columns.size(); ++i) {
    const Member* member = columns[i].member;
    sql += "ADD COLUMN " + columns[i].name + " " + member->sql_type + " DEFAULT " +
           DefaultText(member, defaultValue);
    sql += KeyAndNullWords(member);
    if (i + 1 < columns.size()) sql += ",";
  }
  sql += ";";
  return sql;
}

std::string DropTableText(const std::string& table) {
  return "drop table " + table + ";";
}

std::string StoredCreateQuery(const std::string& table) {
  return "select sql from sqlite_master where tbl_name = '" + table +
         "' and type = 'table'";
}

std::string CreateIndexText(const std::string& index, const std::string& table,
                            const std::string& column) {
  return "create index " + index + " on " + table + "(" + column + ")";
}

std::string DropIndexText(const std::string& index) {
  return "DROP index " + index + " ;";
}

std::string VacuumTableText(const std::string& table) { return "VACUUM " + table + ";"; }

}  // namespace ipc_db::detail
