// Assembly of the SQL text that the record operations send: column names in
// the table's naming mode, the select list, the filter clause (with its
// ordering, limit and offset rules; each term's text comes from
// db/TermText), the whole select, insert, update, delete, count and max/min
// statements, and the transaction statements around multi-record calls.
// Values are written into the text as they stand in the caller's memory,
// without escaping; blobs are left as "?" parameters and handed back as
// BoundBlob for db/SqlRun to bind. Nothing here touches the database. The
// schema statements are in db/SchemaText.
#ifndef IPC_DB_SRC_DB_SQLTEXT_H_
#define IPC_DB_SRC_DB_SQLTEXT_H_

#include <string>
#include <vector>

#include "Db.h"
#include "DbFilter.h"
#include "Meta.h"
#include "Table.h"

namespace ipc_db::detail {

// Column name of `member`: its name as it stands in naming mode 0, else the
// plain name Db::getName derives from it.
std::string ColumnName(Db* db, int analyzeName, const Member* member);
// The same under `table`'s naming mode.
std::string ColumnName(const Table& table, const Member* member);

// Appends `term` as op2Str renders it in naming mode 0, else as
// op2StrAnalyze does.
void AppendTerm(const Table& table, const DbFilter* term, std::string* sql);

// The members whose columns a select list names, in column order: the
// table's members for an empty list, else the members of its terms.
std::vector<Member*> SelectedMembers(const Table& table, const DbFilters& cols);

// True when every member of `wanted` has a namesake (same name, same field
// width) among `available`. Offsets and column types are not compared.
bool EveryMemberMatches(const std::vector<Member*>& wanted,
                        const std::vector<Member*>& available);

// Appends the select list: "*" for an empty list, else the column names of
// the terms' members separated by ", ".
void AppendSelectList(const Table& table, const DbFilters& cols, std::string* sql);

// A blob that a statement binds as a parameter instead of writing it into
// the text. Only the last blob of a list is kept.
struct BoundBlob {
  const void* data = nullptr;
  int size = 0;
  bool present = false;
};

// True for a term whose member is a blob column.
bool IsBlobTerm(const DbFilter* term);

// Appends "<column> = ?" for a blob term and remembers its data in `blob`.
void AppendBlobTerm(const Table& table, const DbFilter* term, std::string* sql,
                    BoundBlob* blob);

// Appends the filter clause of `filters`: nothing for an empty list, else an
// opening (" where " before a condition, " " before an ordering or a limit)
// and the rendered terms, joined by " and " before a condition and by " "
// before a clause term. Refuses (logging "filter in wrong format\n") a list
// that opens with an and- or offset-term, or an offset not directly after a
// limit. With `blob` set, blob terms are written as "<column> = ?" and
// remembered there. Returns false when refused.
bool AppendFilterClause(const Table& table, const DbFilters& filters, std::string* sql,
                        BoundBlob* blob = nullptr);

// "select <list> from <table><filter clause>;". False when the clause is
// refused.
bool BuildSelect(const Table& table, const DbFilters& cols, const DbFilters& filters,
                 std::string* sql);

// "insert into <table>(<col>,<col>...) values (": the part of an insert
// that is the same for every record.
std::string InsertPrefix(const Table& table, const std::vector<Member*>& columns);

// `prefix` followed by the values of the record at `record` and ");".
// Integers are read as signed 32-bit (an unset auto-increment key as NULL),
// other text quoted as it stands, a blob as "?" remembered in `blob`.
std::string InsertStatement(const std::string& prefix,
                            const std::vector<Member*>& columns, const char* record,
                            BoundBlob* blob);

// "update <table> set <assignments><filter clause>;" with blob terms of the
// assignments in `setBlob` and of the clause in `whereBlob`. False when the
// clause is refused. REQUIRES: every assignment is a usable equal term
// (Table::update_item checks that before building).
bool BuildUpdate(const Table& table, const DbFilters& set, const DbFilters& where,
                 std::string* sql, BoundBlob* setBlob, BoundBlob* whereBlob);

// "delete from <table>", and " where " with the terms joined by " and ",
// then ";". An empty list is logged ("filters is null!\n", information).
std::string DeleteStatement(const Table& table, const DbFilters& list);

// "select count(*) from <table><filter clause>;". False when refused.
bool BuildCount(const Table& table, const DbFilters& filters, std::string* sql);

// Which end of a column's values an aggregate asks for.
enum class Extremum { kMax, kMin };

// "select max(<column>) from <table><filter clause>;" (min( for kMin).
// False when refused.
bool BuildExtremum(const Table& table, Extremum extremum, const Member* member,
                   const DbFilters& filters, std::string* sql);

// The transaction statements around a multi-record operation.
inline constexpr char kBeginText[] = "begin;";
inline constexpr char kCommitText[] = "commit;";

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_SQLTEXT_H_
