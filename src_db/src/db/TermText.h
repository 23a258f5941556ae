// Rendering of one filter term straight into a statement under
// construction: the same text as DbFilter::op2Str (or op2StrAnalyze), without
// the temporary string those return. Used by the table operations, which
// render every term of their filter lists.
#ifndef IPC_DB_SRC_DB_TERMTEXT_H_
#define IPC_DB_SRC_DB_TERMTEXT_H_

#include <string>

#include "DbFilter.h"

namespace ipc_db::detail {

// Appends to `out` what term.op2StrAnalyze() returns when `derivedName` is
// true, else what term.op2Str() returns.
void AppendTermText(const DbFilter& term, bool derivedName, std::string* out);

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_TERMTEXT_H_
