// The page-tracing VFS behind TracePages (PageTrace.h): a VFS named
// "page_trace" over the process's default one, whose database files note
// the offset of every whole-page read (and, while overflow pages are
// traced, of every read) in a list the tracer empties after each row.
#include "PageTrace.h"

#include <sqlcipher/sqlite3.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "EngineFormat.h"

namespace ipc_db_test {
namespace {

struct TraceFile {
  sqlite3_file base;
  sqlite3_file* real;
  bool database;
};

std::mutex g_mutex;
std::vector<long long> g_reads;  // offsets of reads of database files
bool g_partReads = false;        // reads of part of a page count too
sqlite3_vfs* g_real = nullptr;
sqlite3_io_methods g_methods;
int g_pageSize = 0;

sqlite3_file* Real(sqlite3_file* file) { return reinterpret_cast<TraceFile*>(file)->real; }

int TraceRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
  TraceFile* traced = reinterpret_cast<TraceFile*>(file);
  if (traced->database && (amount == g_pageSize || (g_partReads && g_pageSize > 0))) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_reads.push_back(offset);
  }
  return Real(file)->pMethods->xRead(Real(file), buffer, amount, offset);
}

int TraceClose(sqlite3_file* file) {
  int rc = Real(file)->pMethods->xClose(Real(file));
  file->pMethods = nullptr;
  return rc;
}

// The other methods pass straight through; set up once from the real
// file's methods (version 1 to 3 alike).
#define IPC_DB_FORWARD(name, signature, call) \
  int name signature { return Real(file)->pMethods->call; }
IPC_DB_FORWARD(TraceWrite, (sqlite3_file* file, const void* b, int n, sqlite3_int64 o),
               xWrite(Real(file), b, n, o))
IPC_DB_FORWARD(TraceTruncate, (sqlite3_file* file, sqlite3_int64 size),
               xTruncate(Real(file), size))
IPC_DB_FORWARD(TraceSync, (sqlite3_file* file, int flags), xSync(Real(file), flags))
IPC_DB_FORWARD(TraceFileSize, (sqlite3_file* file, sqlite3_int64* size),
               xFileSize(Real(file), size))
IPC_DB_FORWARD(TraceLock, (sqlite3_file* file, int lock), xLock(Real(file), lock))
IPC_DB_FORWARD(TraceUnlock, (sqlite3_file* file, int lock), xUnlock(Real(file), lock))
IPC_DB_FORWARD(TraceCheckReserved, (sqlite3_file* file, int* out),
               xCheckReservedLock(Real(file), out))
IPC_DB_FORWARD(TraceFileControl, (sqlite3_file* file, int op, void* arg),
               xFileControl(Real(file), op, arg))
IPC_DB_FORWARD(TraceSectorSize, (sqlite3_file* file), xSectorSize(Real(file)))
IPC_DB_FORWARD(TraceCharacteristics, (sqlite3_file* file),
               xDeviceCharacteristics(Real(file)))
#undef IPC_DB_FORWARD

int TraceOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  TraceFile* traced = reinterpret_cast<TraceFile*>(file);
  file->pMethods = nullptr;
  traced->real = reinterpret_cast<sqlite3_file*>(traced + 1);
  traced->database = (flags & SQLITE_OPEN_MAIN_DB) != 0;
  int rc = g_real->xOpen(g_real, name, traced->real, flags, outFlags);
  if (rc == SQLITE_OK) file->pMethods = &g_methods;
  return rc;
}

void InstallOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    static sqlite3_vfs vfs;
    g_real = sqlite3_vfs_find(nullptr);
    vfs = *g_real;
    vfs.iVersion = 1;  // no system-call overrides, no xCurrentTimeInt64 from the copy
    vfs.szOsFile = static_cast<int>(sizeof(TraceFile)) + g_real->szOsFile;
    vfs.zName = "page_trace";
    vfs.pNext = nullptr;
    vfs.xOpen = TraceOpen;
    std::memset(&g_methods, 0, sizeof(g_methods));
    g_methods.iVersion = 1;
    g_methods.xClose = TraceClose;
    g_methods.xRead = TraceRead;
    g_methods.xWrite = TraceWrite;
    g_methods.xTruncate = TraceTruncate;
    g_methods.xSync = TraceSync;
    g_methods.xFileSize = TraceFileSize;
    g_methods.xLock = TraceLock;
    g_methods.xUnlock = TraceUnlock;
    g_methods.xCheckReservedLock = TraceCheckReserved;
    g_methods.xFileControl = TraceFileControl;
    g_methods.xSectorSize = TraceSectorSize;
    g_methods.xDeviceCharacteristics = TraceCharacteristics;
    sqlite3_vfs_register(&vfs, 0);
  });
}

// Page numbers read since the last call.
std::vector<long long> TakePages() {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<long long> pages;
  for (long long offset : g_reads) pages.push_back(offset / g_pageSize + 1);
  g_reads.clear();
  return pages;
}

long long PageSizeOf(sqlite3* db) {
  sqlite3_stmt* stmt = nullptr;
  long long size = 0;
  if (sqlite3_prepare_v2(db, "PRAGMA page_size;", -1, &stmt, nullptr) == SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    size = sqlite3_column_int64(stmt, 0);
  }
  sqlite3_finalize(stmt);
  return size;
}

// Opens `path` read-only through the tracing VFS, keyed with `key` when
// it is not empty; null on failure.
sqlite3* OpenTraced(const std::string& path, const std::string& key) {
  InstallOnce();
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, "page_trace") != SQLITE_OK ||
      (!key.empty() && KeyInLibraryFormat(db, key) != SQLITE_OK)) {
    sqlite3_close(db);
    return nullptr;
  }
  return db;
}

}  // namespace

bool TraceOverflow(const std::string& path, const std::string& key, const std::string& table,
                   TablePages* pages) {
  sqlite3* db = OpenTraced(path, key);
  if (db == nullptr) return false;
  g_pageSize = static_cast<int>(pages->pageSize);
  PageSizeOf(db);  // loads the schema
  // Each row is read alone, after the connection's cache was emptied: it
  // reads page 1, its path of interior pages, its leaf, then its overflow
  // chain, in that order.
  sqlite3_stmt* stmt = nullptr;
  const std::string sql = "SELECT * FROM \"" + table + "\" WHERE rowid = ?;";
  bool ok = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK;
  // An overflow page can be read straight from the file, in part.
  g_partReads = true;
  for (auto row = pages->leafOfRowid.cbegin(); ok && row != pages->leafOfRowid.cend(); ++row) {
    sqlite3_db_release_memory(db);
    TakePages();
    sqlite3_bind_int64(stmt, 1, row->first);
    ok = sqlite3_step(stmt) == SQLITE_ROW;
    // A value is read from its overflow pages when the caller asks for it.
    for (int i = 0; ok && i < sqlite3_column_count(stmt); ++i) sqlite3_column_blob(stmt, i);
    const std::vector<long long> read = TakePages();
    std::set<long long> overflow;
    for (long long page : read) {
      if (page != 1 && page != row->second && pages->interior.count(page) == 0) {
        overflow.insert(page);
      }
    }
    if (!overflow.empty()) pages->overflowOfRowid[row->first] = overflow;
    sqlite3_reset(stmt);
  }
  g_partReads = false;
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return ok;
}

std::set<long long> SchemaPages(const std::string& path, const std::string& key,
                                long long pageSize) {
  std::set<long long> pages;
  g_pageSize = static_cast<int>(pageSize);
  sqlite3* db = OpenTraced(path, key);
  if (db == nullptr) return pages;
  TakePages();
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, "SELECT count(*) FROM sqlite_master;", -1, &stmt, nullptr) ==
          SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    for (long long page : TakePages()) pages.insert(page);
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return pages;
}

TablePages TracePages(const std::string& path, const std::string& key, const std::string& table,
                      const std::string& index, const std::string& column) {
  InstallOnce();
  TablePages pages;
  sqlite3* db = nullptr;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, "page_trace") != SQLITE_OK ||
      (!key.empty() && KeyInLibraryFormat(db, key) != SQLITE_OK)) {
    sqlite3_close(db);
    return pages;
  }
  pages.pageSize = PageSizeOf(db);  // reads the schema: page 1 and sqlite_master
  g_pageSize = static_cast<int>(pages.pageSize);
  const std::string sql = index.empty()
                              ? "SELECT rowid FROM \"" + table + "\" ORDER BY rowid;"
                              : "SELECT \"" + column + "\" FROM \"" + table + "\" INDEXED BY \"" +
                                    index + "\" ORDER BY \"" + column + "\";";
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK) {
    TakePages();
    int rc;
    long long leaf = 0;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      std::vector<long long> read = TakePages();
      if (!read.empty()) {
        leaf = read.back();
        read.pop_back();
        pages.leaves.insert(leaf);
        pages.interior.insert(read.begin(), read.end());
      }
      if (index.empty()) pages.leafOfRowid[sqlite3_column_int64(stmt, 0)] = leaf;
    }
    pages.ok = rc == SQLITE_DONE;
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return pages;
}

}  // namespace ipc_db_test
