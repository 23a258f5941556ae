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
  // rowid -> the overflow pages of its record (filled by TraceOverflow;
  // rows whose record fits on its leaf have no entry).
  std::map<long long, std::set<long long>> overflowOfRowid;
  long long pageSize = 0;
  bool ok = false;  // the table read without error
};

// Reads `table` of the file at `path` (keyed with `key` in the library's
// format; empty: plain) in rowid order, or, with `index` set, the index of
// that name over its column `column` (then `leaves` are the index's pages
// and leafOfRowid stays empty).
TablePages TracePages(const std::string& path, const std::string& key, const std::string& table,
                      const std::string& index = "", const std::string& column = "");

// Adds to `pages` (from TracePages on the same file and table) the
// overflow pages of each row, from a read of that row alone with an empty
// cache: after page 1 and the interior pages it reads the row's leaf, then
// its overflow chain. False when a read failed.
bool TraceOverflow(const std::string& path, const std::string& key, const std::string& table,
                   TablePages* pages);

// The pages read to load the schema of the file (page 1 and the pages of
// sqlite_master), for a file of `pageSize`-byte pages. Empty when the file
// does not open.
std::set<long long> SchemaPages(const std::string& path, const std::string& key,
                                long long pageSize);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_PAGETRACE_H_
