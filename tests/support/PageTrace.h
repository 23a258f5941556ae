// Where each row of a table lives: which leaf page holds it, and which
// pages lie on the paths from the table's root to its leaves. Found by
// reading the table in rowid order through a VFS that records the pages a
// read asks the file for: the page read when the cursor reaches a row it
// had not read before is that row's leaf, the other pages read on the way
// are interior pages. Works the same on keyed and plain files and on
// either engine (it sees page numbers, never page contents).
#ifndef IPC_DB_TESTS_SUPPORT_PAGETRACE_H_
#define IPC_DB_TESTS_SUPPORT_PAGETRACE_H_

#include <map>
#include <set>
#include <string>

namespace ipc_db_test {

struct TablePages {
  std::map<long long, long long> leafOfRowid;  // rowid -> leaf page
  std::set<long long> leaves;
  std::set<long long> interior;  // pages on the way to the leaves
  long long pageSize = 0;
  bool ok = false;  // the table read without error
};

// Reads `table` of the file at `path` (keyed with `key` in the library's
// format; empty: plain) in rowid order, or, with `index` set, the index of
// that name over its column `column` (then `leaves` are the index's pages
// and leafOfRowid stays empty).
TablePages TracePages(const std::string& path, const std::string& key, const std::string& table,
                      const std::string& index = "", const std::string& column = "");

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_PAGETRACE_H_
