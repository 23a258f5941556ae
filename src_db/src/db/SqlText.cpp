// Assembly of the table operations' SQL text: column names, the select
// list, the filter clause and the select, insert, update, delete, count and
// max/min statements. The text is built in one string per statement,
// rendering filter terms straight into it.
#include "db/SqlText.h"

#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/Log.h"
#include "db/ColumnKind.h"
#include "db/FieldText.h"
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

// The text that opens the clause, or an empty view when the first term
// cannot open it. The texts are views of literals: appending them needs no
// length count.
std::string_view ClauseOpening(DbFilterOperator first) {
  if (first == DB_FILTER_OP_AND || first == DB_FILTER_OP_OFFSET)
    return std::string_view();
  return OpensClause(first) ? " " : " where ";
}

// The joint between `current` and the `next` term, or an empty view when an
// offset does not follow a limit.
std::string_view Joint(DbFilterOperator current, DbFilterOperator next) {
  if (!IsClauseOperator(next)) return " and ";
  if (next != DB_FILTER_OP_OFFSET) return " ";
  return current == DB_FILTER_OP_LIMIT ? " " : std::string_view();
}

void AppendIntegerValue(std::string* sql, const Member* member, const char* field) {
  int32_t value;
  std::memcpy(&value, field, sizeof(value));
  if (value == 0 && member->auto_increment == 1 && member->primary_key == 1) {
    sql->append("NULL");
  } else {
    sql->append(std::to_string(value));
  }
}

void AppendValue(std::string* sql, const Member* member, const char* field,
                 BoundBlob* blob) {
  size_t width = member->type_meta->type_size;
  switch (ColumnKindOf(*member)) {
    case ColumnKind::kBlob:
      sql->push_back('?');
      blob->data = field;
      blob->size = static_cast<int>(width);
      blob->present = true;
      return;
    case ColumnKind::kInteger:
      AppendIntegerValue(sql, member, field);
      return;
    case ColumnKind::kText:
      sql->push_back('\'');
      AppendFieldChars(sql, field, width);
      sql->push_back('\'');
      return;
  }
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

}  // namespace

std::string ColumnName(Db* db, int analyzeName, const Member* member) {
  if (analyzeName == 0) return member->name;
  return db->getName(member->name);
}

std::string ColumnName(const Table& table, const Member* member) {
  return ColumnName(table.parent, table.analyze_name, member);
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
  return term->member != nullptr && ColumnKindOf(*term->member) == ColumnKind::kBlob;
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
  std::string_view opening = ClauseOpening(terms[0]->op);
  if (opening.empty()) {
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
    std::string_view joint = Joint(terms[i]->op, terms[i + 1]->op);
    if (joint.empty()) {
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

std::string InsertPrefix(const Table& table, const std::vector<Member*>& columns) {
  std::string sql = "insert into " + table.meta_data->type_name + "(";
  for (size_t i = 0; i < columns.size(); ++i) {
    if (i > 0) sql.push_back(',');
    sql.append(ColumnName(table, columns[i]));
  }
  sql.append(") values (");
  return sql;
}

std::string InsertStatement(const std::string& prefix,
                            const std::vector<Member*>& columns, const char* record,
                            BoundBlob* blob) {
  std::string sql = prefix;
  for (size_t i = 0; i < columns.size(); ++i) {
    if (i > 0) sql.push_back(',');
    AppendValue(&sql, columns[i], record + columns[i]->offset, blob);
  }
  sql.append(");");
  return sql;
}

bool BuildUpdate(const Table& table, const DbFilters& set, const DbFilters& where,
                 std::string* sql, BoundBlob* setBlob, BoundBlob* whereBlob) {
  sql->append("update ").append(table.meta_data->type_name).append(" set ");
  AppendAssignments(table, set, sql, setBlob);
  if (!AppendFilterClause(table, where, sql, whereBlob)) return false;
  sql->append(";");
  return true;
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

bool BuildCount(const Table& table, const DbFilters& filters, std::string* sql) {
  sql->append("select count(*) from ").append(table.meta_data->type_name);
  if (!AppendFilterClause(table, filters, sql)) return false;
  sql->append(";");
  return true;
}

bool BuildExtremum(const Table& table, Extremum extremum, const Member* member,
                   const DbFilters& filters, std::string* sql) {
  sql->append(extremum == Extremum::kMax ? "select max(" : "select min(");
  sql->append(ColumnName(table, member)).append(")");
  sql->append(" from ").append(table.meta_data->type_name);
  if (!AppendFilterClause(table, filters, sql)) return false;
  sql->append(";");
  return true;
}

}  // namespace ipc_db::detail
