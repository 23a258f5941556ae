// A deliberately faulty library for the export check's own test: built with
// hidden visibility like libipc_db, it exports one API function as it
// should, keeps one internal helper hidden as it should, and exports an
// internal helper and a free function by mistake. check_exports.sh must
// report exactly the two mistakes as leaked.
#define IPC_DB_BUILDING_LIBRARY
#include <string>

#include "DBCommon.h"

namespace ipc_db::detail {

// Exported by mistake: internal helpers must not carry IPC_DB_API.
IPC_DB_API std::string QuoteForSql(const std::string& text) { return "'" + text + "'"; }

// Hidden, as an internal helper should be.
int CountColumns(const std::string& text) { return static_cast<int>(text.size()); }

}  // namespace ipc_db::detail

// Exported by mistake: a free function outside the public API.
IPC_DB_API int FormatRowForLog(int row) {
  return ipc_db::detail::CountColumns(std::to_string(row));
}

// Exported as the public API says.
unsigned long long GetTicks() { return 0; }
