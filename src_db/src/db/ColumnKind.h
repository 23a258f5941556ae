// The one rule that decides how a member's column is treated: as an integer,
// a blob or text, from the member's SQL type (sql_type, which the naming
// rule fills in or the caller sets). Every place that reads or writes a
// value by its column's kind asks here: filter values, inserted values,
// copied result columns, the defaults of added columns, the aggregates'
// results and the argument checks.
#ifndef IPC_DB_SRC_DB_COLUMNKIND_H_
#define IPC_DB_SRC_DB_COLUMNKIND_H_

#include <string_view>

#include "Meta.h"

namespace ipc_db::detail {

// The SQL types that make a column an integer or a blob; the naming rule
// gives them for the type letters i and b.
inline constexpr char kIntegerType[] = "INTEGER";
inline constexpr char kBlobType[] = "BLOB";

enum class ColumnKind { kInteger, kBlob, kText };

// kInteger for the SQL type "INTEGER", kBlob for "BLOB", kText for any other
// (CHAR(n), TEXT, datetime, a type the caller set, "unknown_type"). Inline
// and compared as views, length first: it runs once per term and value.
inline ColumnKind ColumnKindOf(const Member& member) {
  std::string_view type(member.sql_type);
  if (type == std::string_view(kIntegerType)) return ColumnKind::kInteger;
  if (type == std::string_view(kBlobType)) return ColumnKind::kBlob;
  return ColumnKind::kText;
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_COLUMNKIND_H_
