// The SQL text of one filter term: a condition, an ordering, a limit or an
// offset, appended straight into the text under construction. DbFilter's
// op2Str and op2StrAnalyze return it as a string of its own; the statements
// of db/SqlText append it in place, without a temporary string.
#ifndef IPC_DB_SRC_DB_TERMTEXT_H_
#define IPC_DB_SRC_DB_TERMTEXT_H_

#include <string>
#include <string_view>

#include "DbFilter.h"

namespace ipc_db::detail {

// Appends `term` to `out` with the member's name as the column name, or,
// when `derivedName` is true, with FilterNameOf(member name). REQUIRES: the
// term passed CheckFilterTerm.
void AppendTermText(const DbFilter& term, bool derivedName, std::string* out);

// The column name the filter rule derives from a decorated name, as a view
// into `name`: without the first character and without everything from the
// last "_"; empty when that "_" is at 0 or 1.
std::string_view FilterNameOf(const std::string& name);

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_TERMTEXT_H_
