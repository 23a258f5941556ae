// Salvage of a damaged database file, part of the companion header (include
// ipc_db_helpers.h; header only, nothing exported, nothing added to the
// library). Salvage() reads every row it still can from a damaged file,
// keyed or plain, writes them into a new file in the same format with the
// same key, and puts the new file under the database's name, keeping the
// damaged original beside it as <file>.damaged.
//
// How rows are found, first way: rowid ranges. Every engine the library
// runs on can seek a table's B-tree by rowid, and a seek goes from the root
// through interior pages to one leaf; a damaged leaf fails only the seeks
// that end on it. So each table is read in rowid ranges: forward from the
// start of a range until a read fails, backward from its end until a read
// fails, then the unread middle is split in two and each half is read the
// same way, nearest to rows already read first. Every row on an intact leaf
// whose path from the root is intact is reached (a damaged record costs
// only itself), within a budget of range reads per table that bounds the
// time spent on rowids far from any readable row.
//
// Second way: page by page, when the program links ipc_db::salvage (which
// defines IPC_DB_SALVAGE_PAGE_READS and holds SQLite's recovery extension,
// built from the sources installed with the engine) and the engine has the
// sqlite_dbpage table (SQLITE_ENABLE_DBPAGE_VTAB; the pinned SQLCipher
// 4.6.1 has it, SQLite 3.15 has neither). Every page of the damaged file is
// read through sqlite_dbpage (a keyed file's pages come back decrypted; a
// page that does not read, counted in pages_unreadable, becomes zeros) into
// an image in memory, and the recovery extension walks that image as the
// shell's .recover does, into a scratch database in memory. Rows it finds
// that the range reads did not are added, by rowid (the union of both
// ways, so no table gets fewer rows than either alone). Rows of a table
// that the walk from its root cannot reach (under a damaged interior page
// or table root) end up on pages no table claims; each group of such pages
// is given to the one table whose shape its rows fit (field count, NULL in
// the INTEGER PRIMARY KEY column, no number in a text column, rowids at or
// below an AUTOINCREMENT counter). A group that fits no table or several is
// not written anywhere: its rows are counted in rows_unattributed. Memory:
// the image (the file's size) plus the rows found, while Salvage runs.
// A plain file's damaged page can give rows with damaged values; the range
// reads' rows, checked by the B-tree, take precedence for each rowid.
//
// The swap. The new file <file>.salvage is written in one transaction,
// synced, and its directory synced. Then the original gets a second name,
// <file>.damaged (a hard link), a journal or WAL file beside it moves along
// to <file>.damaged-journal / -wal, the directory is synced, and the new
// file is renamed over <file> and the directory synced once more. At every
// instant <file> names either the original or the complete new file.
#ifndef IPC_DB_IPC_DB_SALVAGE_H_
#define IPC_DB_IPC_DB_SALVAGE_H_

#include <fcntl.h>
#include <sqlcipher/sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <queue>
#include <string>
#include <utility>
#include <vector>

// SQLCipher 3's header declares its keying call only when SQLITE_HAS_CODEC
// is defined, which pkg-config's flags for it do not define; the call is
// the same on every engine.
extern "C" int sqlite3_key(sqlite3* db, const void* key, int length);

#if defined(IPC_DB_SALVAGE_PAGE_READS)
// SQLite's recovery extension, compiled into ipc_db::salvage.
extern "C" {
typedef struct sqlite3_recover sqlite3_recover;
sqlite3_recover* sqlite3_recover_init_sql(sqlite3* db, const char* schema,
                                          int (*sql)(void* context, const char* statement),
                                          void* context);
int sqlite3_recover_config(sqlite3_recover* recover, int option, void* argument);
int sqlite3_recover_run(sqlite3_recover* recover);
int sqlite3_recover_finish(sqlite3_recover* recover);
}
#define IPC_DB_SALVAGE_READERS ranges_and_pages
#else
#define IPC_DB_SALVAGE_READERS ranges_only
#endif

namespace ipc_db {

enum class SalvageStatus : int {
  kSalvaged = 0,   // the new file is under the database's name, the
                   // original beside it as <file>.damaged
  kBadArgument,    // empty file name, or a key longer than 64 bytes
  kNotFound,       // no file under the database's name
  kUnreadable,     // the schema does not read with this key (wrong key, no
                   // key for a keyed file, first page destroyed): nothing
                   // written, the file untouched
  kWriteFailed,    // the new file could not be written (storage full, I/O
                   // error, out of memory): removed, the original untouched
  kSwapFailed,     // a link, rename or sync of the swap failed: <file>
                   // names the original or the new file (check which with
                   // a read); `detail` says which step
};

// One table of the damaged file.
struct SalvageTable {
  std::string name;
  // Rows written into the new file.
  long long rows = 0;
  // Of those, rows only the page-by-page reads found (0 without them).
  long long rows_from_pages = 0;
  // Runs of rowids between rows read where a read failed: each is at least
  // one damaged page or record.
  long long damaged_stretches = 0;
  // Range reads run on this table.
  long long range_reads = 0;
  // True when the budget of range reads ran out with rowids left unprobed
  // (the farthest from any row read).
  bool budget_reached = false;
  // False when the table was not copied (not a rowid table, a virtual
  // table, or its creation failed in the new file); see `note`.
  bool copied = false;
  std::string note;
};

struct SalvageResult {
  SalvageStatus status = SalvageStatus::kBadArgument;
  // SQLite's extended code or errno behind a failed status; 0 otherwise.
  int code = 0;
  // The failed step, or empty.
  std::string detail;
  // What this engine allowed, in words.
  std::string engine_note;
  std::vector<SalvageTable> tables;
  // Indexes, views and triggers of the damaged file that could not be
  // made again in the new file, by name.
  std::vector<std::string> schema_not_restored;
  // Pages of the damaged file (PRAGMA page_count).
  long long pages_in_file = 0;
  // Pages whose read failed. On a keyed file every damaged page fails
  // (each page carries its own authentication code); on a plain file only a
  // page the storage cannot read, the damage of a plain page being found by
  // the B-tree checks (damaged_stretches). -1 on an engine without
  // page-by-page reads (SQLite 3.15, an engine without sqlite_dbpage, or a
  // program that does not link ipc_db::salvage).
  long long pages_unreadable = -1;
  // Rows the page-by-page reads found on pages no table claims and that
  // fit no single table: not written. -1 without page-by-page reads.
  long long rows_unattributed = -1;

  long long rows() const {
    long long total = 0;
    for (const SalvageTable& table : tables) total += table.rows;
    return total;
  }
};

// The file operations of the swap, each answering 0 or -1 with errno set
// (the C library's convention). Tests replace them to cut the power at each
// one; null entries take the real operation.
struct SalvageFileOps {
  int (*link_file)(const char* from, const char* to) = nullptr;
  int (*rename_file)(const char* from, const char* to) = nullptr;
  int (*unlink_file)(const char* path) = nullptr;
  int (*sync_file)(const char* path) = nullptr;
  int (*sync_directory)(const char* directory) = nullptr;
};

struct SalvageOptions {
  // Range reads allowed per table; 0: 4096 + 16 per page of the file.
  long long range_reads_per_table = 0;
  // The swap's file operations; null: the real ones.
  const SalvageFileOps* file_ops = nullptr;
};

namespace detail {

constexpr sqlite3_int64 kMinRowid = std::numeric_limits<sqlite3_int64>::min();
constexpr sqlite3_int64 kMaxRowid = std::numeric_limits<sqlite3_int64>::max();
constexpr unsigned int kSalvageKeyLength = 64;

// ---- Real file operations ----

inline int RealLink(const char* from, const char* to) { return ::link(from, to); }
inline int RealRename(const char* from, const char* to) { return std::rename(from, to); }
inline int RealUnlink(const char* path) { return ::unlink(path); }

inline int SyncPath(const char* path, int flags) {
  const int fd = ::open(path, flags);
  if (fd < 0) return -1;
  const int rc = ::fsync(fd);
  const int saved = errno;
  ::close(fd);
  errno = saved;
  return rc;
}
inline int RealSyncFile(const char* path) { return SyncPath(path, O_RDONLY); }
inline int RealSyncDirectory(const char* directory) {
  return SyncPath(directory, O_RDONLY | O_DIRECTORY);
}

// `ops` with every null entry replaced by the real operation.
inline SalvageFileOps CompleteOps(const SalvageFileOps* ops) {
  SalvageFileOps done = ops == nullptr ? SalvageFileOps() : *ops;
  if (done.link_file == nullptr) done.link_file = RealLink;
  if (done.rename_file == nullptr) done.rename_file = RealRename;
  if (done.unlink_file == nullptr) done.unlink_file = RealUnlink;
  if (done.sync_file == nullptr) done.sync_file = RealSyncFile;
  if (done.sync_directory == nullptr) done.sync_directory = RealSyncDirectory;
  return done;
}

inline bool PathExists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

// ---- SQL helpers ----

// `name` as an SQL identifier: in double quotes, inner quotes doubled.
inline std::string QuotedName(const std::string& name) {
  std::string quoted = "\"";
  for (char c : name) {
    quoted += c;
    if (c == '"') quoted += '"';
  }
  return quoted + "\"";
}

// Owns one prepared statement.
class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql) noexcept {
    code_ = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr);
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  bool ok() const noexcept { return code_ == SQLITE_OK && stmt_ != nullptr; }
  int code() const noexcept { return code_; }
  sqlite3_stmt* get() const noexcept { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int code_ = SQLITE_OK;
};

// First column of the first row of `sql` as an integer; `fallback` when
// the statement gives none.
inline long long IntOf(sqlite3* db, const std::string& sql, long long fallback) {
  Statement query(db, sql);
  if (!query.ok() || sqlite3_step(query.get()) != SQLITE_ROW) return fallback;
  return sqlite3_column_int64(query.get(), 0);
}

inline std::string TextOf(sqlite3* db, const std::string& sql) {
  Statement query(db, sql);
  if (!query.ok() || sqlite3_step(query.get()) != SQLITE_ROW) return std::string();
  const unsigned char* text = sqlite3_column_text(query.get(), 0);
  return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
}

// Opens `path` and keys it as the library does: the key's bytes padded
// with zero bytes to 64, then SQLCipher 3's format for this connection
// (SQLCipher 3 ignores the pragma). An empty key or one starting with a
// zero byte means a plain file, as for Db::Init.
inline int OpenInLibraryFormat(const std::string& path, const std::string& key, int flags,
                               sqlite3** db) {
  *db = nullptr;
  int code = sqlite3_open_v2(path.c_str(), db, flags, nullptr);
  if (code != SQLITE_OK || key.empty() || key[0] == '\0') return code;
  char padded[kSalvageKeyLength] = {};
  std::memcpy(padded, key.data(), key.size());
  code = sqlite3_key(*db, padded, static_cast<int>(kSalvageKeyLength));
  volatile char* wipe = padded;
  for (unsigned int i = 0; i < kSalvageKeyLength; ++i) wipe[i] = 0;
  if (code != SQLITE_OK) return code;
  return sqlite3_exec(*db, "PRAGMA cipher_compatibility = 3;", nullptr, nullptr, nullptr);
}

// ---- The damaged file's schema ----

struct SchemaEntry {
  std::string type, name, table, sql;
};

inline std::string ColumnText(sqlite3_stmt* stmt, int column) {
  const unsigned char* text = sqlite3_column_text(stmt, column);
  return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
}

// The entries of sqlite_master in rowid order. SQLite code of a failed read.
inline int ReadSchema(sqlite3* db, std::vector<SchemaEntry>* entries) {
  Statement query(db, "SELECT type, name, tbl_name, sql FROM main.sqlite_master ORDER BY rowid;");
  if (!query.ok()) return sqlite3_extended_errcode(db);
  int rc;
  while ((rc = sqlite3_step(query.get())) == SQLITE_ROW) {
    entries->push_back({ColumnText(query.get(), 0), ColumnText(query.get(), 1),
                        ColumnText(query.get(), 2), ColumnText(query.get(), 3)});
  }
  return rc == SQLITE_DONE ? SQLITE_OK : sqlite3_extended_errcode(db);
}

// ---- Reading one table by rowid ranges ----

// The columns of `table` and a name of the rowid that no column takes.
struct TableColumns {
  std::vector<std::string> names;
  std::string rowid;  // "rowid", "_rowid_" or "oid"; empty when all are taken
};

inline TableColumns ColumnsOf(sqlite3* db, const std::string& table) {
  TableColumns columns;
  Statement info(db, "PRAGMA main.table_info(" + QuotedName(table) + ");");
  while (info.ok() && sqlite3_step(info.get()) == SQLITE_ROW) {
    columns.names.push_back(ColumnText(info.get(), 1));
  }
  for (const char* alias : {"rowid", "_rowid_", "oid"}) {
    bool taken = false;
    for (const std::string& name : columns.names) {
      taken = taken || sqlite3_stricmp(name.c_str(), alias) == 0;
    }
    if (!taken) {
      columns.rowid = alias;
      break;
    }
  }
  return columns;
}

// "<rowid>, "a", "b"": the rowid and every column, for a SELECT or INSERT.
inline std::string ColumnList(const TableColumns& columns) {
  std::string list = columns.rowid;
  for (const std::string& name : columns.names) list += ", " + QuotedName(name);
  return list;
}

// A row read and not yet written: a copy of its values, kept until the
// next row of the same read shows it in order.
class HeldRow {
 public:
  HeldRow() = default;
  ~HeldRow() { Clear(); }
  HeldRow(const HeldRow&) = delete;
  HeldRow& operator=(const HeldRow&) = delete;

  // Copies the current row of `stmt`. False when memory ran out.
  bool Take(sqlite3_stmt* stmt) {
    Clear();
    const int columns = sqlite3_column_count(stmt);
    for (int i = 0; i < columns; ++i) {
      sqlite3_value* copy = sqlite3_value_dup(sqlite3_column_value(stmt, i));
      if (copy == nullptr) return false;
      values_.push_back(copy);
    }
    rowid_ = sqlite3_column_int64(stmt, 0);
    held_ = true;
    return true;
  }
  void Clear() {
    for (sqlite3_value* value : values_) sqlite3_value_free(value);
    values_.clear();
    held_ = false;
  }
  // Hands the values over to the caller, who frees them.
  std::vector<sqlite3_value*> Release() {
    std::vector<sqlite3_value*> values;
    values.swap(values_);
    held_ = false;
    return values;
  }
  bool held() const noexcept { return held_; }
  sqlite3_int64 rowid() const noexcept { return rowid_; }
  const std::vector<sqlite3_value*>& values() const noexcept { return values_; }

 private:
  std::vector<sqlite3_value*> values_;
  sqlite3_int64 rowid_ = 0;
  bool held_ = false;
};

// Inserts rows read from the damaged file into the new one under their own
// rowid (the INTEGER PRIMARY KEY column, when there is one, is that rowid).
// OR IGNORE: a row a UNIQUE index already holds is left out.
class RowCopier {
 public:
  RowCopier(sqlite3* to, const std::string& table, const TableColumns& columns)
      : to_(to), values_(static_cast<int>(columns.names.size()) + 1) {
    std::string sql = "INSERT OR IGNORE INTO main." + QuotedName(table) + " (" +
                      ColumnList(columns) + ") VALUES (?";
    for (int i = 1; i < values_; ++i) sql += ", ?";
    insert_.reset(new Statement(to, sql + ");"));
  }
  bool ok() const noexcept { return insert_->ok(); }
  int code() const noexcept { return insert_->code(); }

  // Inserts one row held by `row` (rowid, then the columns). SQLite's code
  // of a failed insert, else SQLITE_OK.
  int Copy(const std::vector<sqlite3_value*>& row) noexcept {
    sqlite3_stmt* insert = insert_->get();
    for (int i = 0; i < values_ && i < static_cast<int>(row.size()); ++i) {
      sqlite3_bind_value(insert, i + 1, row[static_cast<size_t>(i)]);
    }
    const int rc = sqlite3_step(insert);
    const int code = rc == SQLITE_DONE ? SQLITE_OK : sqlite3_extended_errcode(to_);
    if (rc == SQLITE_DONE && sqlite3_changes(to_) > 0) ++copied_;
    sqlite3_reset(insert);
    sqlite3_clear_bindings(insert);
    return code;
  }
  long long copied() const noexcept { return copied_; }

 private:
  sqlite3* to_;
  int values_;
  std::unique_ptr<Statement> insert_;
  long long copied_ = 0;
};

inline unsigned long long Gap(sqlite3_int64 low, sqlite3_int64 high) {
  return static_cast<unsigned long long>(high) - static_cast<unsigned long long>(low);
}

// Rowids [lo, hi] not read yet, and the nearest rows read below and above
// them (none: rowid 0 stands in, where automatic rowids start).
struct RowidRange {
  sqlite3_int64 lo, hi;
  bool has_below, has_above;
  sqlite3_int64 below, above;

  unsigned long long Distance() const {
    unsigned long long best = std::numeric_limits<unsigned long long>::max();
    if (has_below) best = std::min(best, Gap(below, lo));
    if (has_above) best = std::min(best, Gap(hi, above));
    if (has_below || has_above) return best;
    if (hi < 0) return Gap(hi, 0);
    return lo > 0 ? Gap(0, lo) : 0;
  }
};

struct FartherRange {
  bool operator()(const RowidRange& a, const RowidRange& b) const {
    return a.Distance() > b.Distance();
  }
};

// One read of a rowid range in one direction.
struct RangeRead {
  bool complete = false;  // the range was read to its end
  bool any = false;       // at least one row was read
  sqlite3_int64 first = 0, last = 0;
  int copy_failure = SQLITE_OK;
};

// Reads one table of the damaged file into the new one, range by range
// (see the top of this file).
class TableReader {
 public:
  TableReader(sqlite3* from, const std::string& table, const TableColumns& columns,
              RowCopier* copier, long long budget)
      : copier_(copier), budget_(budget) {
    // Only the start is bound: SQLite ends a bounded read at the first row
    // past the bound, and on a damaged page that row may hold a wrong rowid.
    const std::string select = "SELECT " + ColumnList(columns) + " FROM main." +
                               QuotedName(table) + " WHERE " + columns.rowid;
    forward_.reset(new Statement(from, select + " >= ?1 ORDER BY " + columns.rowid + " ASC;"));
    backward_.reset(new Statement(from, select + " <= ?1 ORDER BY " + columns.rowid + " DESC;"));
  }
  bool ok() const noexcept { return forward_->ok() && backward_->ok(); }
  int code() const noexcept { return forward_->ok() ? backward_->code() : forward_->code(); }

  // Reads rowids up to `highest`. SQLITE_OK, or the code of a failed
  // insert into the new file (which ends the salvage).
  int Run(sqlite3_int64 highest) {
    std::priority_queue<RowidRange, std::vector<RowidRange>, FartherRange> ranges;
    ranges.push({kMinRowid, highest, false, false, 0, 0});
    while (!ranges.empty()) {
      if (reads_ + 2 > budget_) {
        budget_reached_ = true;
        break;
      }
      const RowidRange range = ranges.top();
      ranges.pop();
      const int code = Process(range, &ranges);
      if (code != SQLITE_OK) return code;
    }
    return CopyUnconfirmed();
  }

  ~TableReader() {
    for (auto& row : unconfirmed_) {
      for (sqlite3_value* value : row.second) sqlite3_value_free(value);
    }
  }

  long long reads() const noexcept { return reads_; }
  bool budget_reached() const noexcept { return budget_reached_; }

  // Runs of unread rowids between rows read in which a read failed.
  long long DamagedStretches() const {
    std::vector<sqlite3_int64> starts;
    for (const auto& run : runs_) starts.push_back(run.first);
    std::sort(starts.begin(), starts.end());
    std::vector<size_t> gaps;
    for (sqlite3_int64 failure : failures_) {
      gaps.push_back(static_cast<size_t>(
          std::upper_bound(starts.begin(), starts.end(), failure) - starts.begin()));
    }
    std::sort(gaps.begin(), gaps.end());
    return static_cast<long long>(std::unique(gaps.begin(), gaps.end()) - gaps.begin());
  }

 private:
  using Queue = std::priority_queue<RowidRange, std::vector<RowidRange>, FartherRange>;

  // Reads `range` forward until a read fails, then backward from its end
  // down to that point until a read fails, and queues the two halves of
  // what lies between.
  int Process(const RowidRange& range, Queue* ranges) {
    const RangeRead up = Read(true, range.lo, range.hi);
    if (up.copy_failure != SQLITE_OK) return up.copy_failure;
    if (up.complete) return SQLITE_OK;
    const sqlite3_int64 low = up.any ? up.last + 1 : range.lo;  // a read from here fails
    failures_.push_back(low);
    const RangeRead down = Read(false, low, range.hi);
    if (down.copy_failure != SQLITE_OK) return down.copy_failure;
    if (down.complete) return SQLITE_OK;
    const sqlite3_int64 high = down.any ? down.last - 1 : range.hi;  // and from here down
    failures_.push_back(high);
    if (Gap(low, high) < 2) return SQLITE_OK;
    const sqlite3_int64 middle = low + static_cast<sqlite3_int64>(Gap(low, high) / 2);
    RowidRange part = range;
    if (up.any) {
      part.has_below = true;
      part.below = up.last;
    }
    if (down.any) {
      part.has_above = true;
      part.above = down.last;
    }
    part.lo = low + 1;
    part.hi = middle - 1;
    if (part.lo <= part.hi) ranges->push(part);
    part.lo = middle;
    part.hi = high - 1;
    ranges->push(part);
    return SQLITE_OK;
  }

  // One read of [lo, hi], ascending or descending. A row is written only
  // once the next row of the read (or the end of the table) shows it in
  // order: a damaged page can hold a record whose rowid is wrong, and such
  // a row must not take the place of an intact row of that rowid. The read
  // is complete when it reaches the end of the table, or a row past the
  // range's end that the row after it confirms. It ends at a failed read or
  // at a row out of order.
  RangeRead Read(bool ascending, sqlite3_int64 lo, sqlite3_int64 hi) {
    ++reads_;
    RangeRead read;
    sqlite3_stmt* stmt = (ascending ? forward_ : backward_)->get();
    sqlite3_bind_int64(stmt, 1, ascending ? lo : hi);
    HeldRow held;
    bool pastEnd = false;
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      const sqlite3_int64 rowid = sqlite3_column_int64(stmt, 0);
      const bool inOrder = held.held() ? (ascending ? rowid > held.rowid() : rowid < held.rowid())
                                       : (ascending ? rowid >= lo : rowid <= hi);
      if (!inOrder) break;
      if (pastEnd) {
        read.complete = true;
        break;
      }
      if (held.held() && !Commit(held, &read)) break;
      pastEnd = ascending ? rowid > hi : rowid < lo;
      if (!held.Take(stmt)) {
        read.copy_failure = SQLITE_NOMEM;
        break;
      }
    }
    if (rc == SQLITE_DONE) {
      read.complete = true;
      if (held.held() && !pastEnd) Commit(held, &read);
    } else if (held.held() && !pastEnd && read.copy_failure == SQLITE_OK) {
      KeepUnconfirmed(&held);
    }
    if (read.any && read.last == (ascending ? hi : lo)) read.complete = true;
    sqlite3_reset(stmt);  // ends the read transaction: the next read starts afresh
    if (read.any) {
      runs_.push_back(ascending ? std::make_pair(read.first, read.last)
                                : std::make_pair(read.last, read.first));
    }
    return read;
  }

  // A row that a failed read or a row out of order followed: on a keyed
  // file it is as sound as any (a page reads whole or not at all), on a
  // plain file its rowid may be damaged. It is written after every
  // confirmed row of the table, and only where no such row took its rowid.
  void KeepUnconfirmed(HeldRow* held) {
    if (unconfirmed_.count(held->rowid()) != 0) return;
    const sqlite3_int64 rowid = held->rowid();
    unconfirmed_[rowid] = held->Release();
  }

  int CopyUnconfirmed() {
    for (const auto& row : unconfirmed_) {
      const int code = copier_->Copy(row.second);
      if (code != SQLITE_OK) return code;
    }
    return SQLITE_OK;
  }

  // Writes the held row into the new file. False when the write failed.
  bool Commit(const HeldRow& held, RangeRead* read) {
    read->copy_failure = copier_->Copy(held.values());
    if (read->copy_failure != SQLITE_OK) return false;
    if (!read->any) read->first = held.rowid();
    read->any = true;
    read->last = held.rowid();
    return true;
  }

  RowCopier* copier_;
  long long budget_;
  std::unique_ptr<Statement> forward_;
  std::unique_ptr<Statement> backward_;
  long long reads_ = 0;
  bool budget_reached_ = false;
  std::vector<std::pair<sqlite3_int64, sqlite3_int64>> runs_;
  std::vector<sqlite3_int64> failures_;
  std::map<sqlite3_int64, std::vector<sqlite3_value*>> unconfirmed_;
};

// ---- The salvage, step by step ----

// Reads pages 1..`pages` of `db` through the sqlite_dbpage table (a keyed
// file's pages come back decrypted) and counts those whose read fails.
// With `image` (room for `pages` pages of `pageSize` bytes, zeroed), each
// page that reads is copied to its place. -1 when the engine has no
// sqlite_dbpage.
// SQLCipher answers a page that fails its check with zeros and fails the
// next page read of the same transaction instead; so each page is read in
// a transaction of its own followed by a read of page 1.
inline long long ReadPages(sqlite3* db, long long pages, long long pageSize,
                           unsigned char* image) {
  Statement page(db, "SELECT data FROM sqlite_dbpage WHERE pgno = ?1;");
  Statement check(db, "SELECT length(data) FROM sqlite_dbpage WHERE pgno = 1;");
  if (!page.ok() || !check.ok()) return -1;
  long long failed = 0;
  for (long long number = 1; number <= pages; ++number) {
    sqlite3_exec(db, "BEGIN;", nullptr, nullptr, nullptr);
    sqlite3_bind_int64(page.get(), 1, number);
    const bool read = sqlite3_step(page.get()) == SQLITE_ROW;
    const bool checked = sqlite3_step(check.get()) == SQLITE_ROW;
    if (!read || !checked) {
      ++failed;
    } else if (image != nullptr) {
      const long long length = std::min<long long>(sqlite3_column_bytes(page.get(), 0), pageSize);
      const void* data = sqlite3_column_blob(page.get(), 0);
      if (data != nullptr && length > 0) {
        std::memcpy(image + (number - 1) * pageSize, data, static_cast<size_t>(length));
      }
    }
    sqlite3_reset(page.get());
    sqlite3_reset(check.get());
    sqlite3_exec(db, "ROLLBACK;", nullptr, nullptr, nullptr);  // a failed page fails no other
  }
  return failed;
}

inline long long UnreadablePages(sqlite3* db, long long pages) {
  return ReadPages(db, pages, 0, nullptr);
}

// Why the page-by-page reads did not run, for the engine note.
enum class PageReads { kDone, kNotLinked, kNoPageTable, kFailed };

inline std::string EngineNote(PageReads reads, int code = SQLITE_OK) {
  const std::string engine = "SQLite " + std::string(sqlite3_libversion());
  if (reads == PageReads::kDone) {
    return "rows found by rowid ranges through the intact B-tree pages and page by page with " +
           engine + "'s recovery extension: rows under a damaged interior page or table root "
           "are found too; rows on pages no table claims that fit no single table are counted "
           "in rows_unattributed, not written";
  }
  std::string note = "rows found by rowid ranges through the intact B-tree pages; ";
  if (sqlite3_libversion_number() < 3040000) {
    note += engine + " has no recovery API: rows under a damaged interior page are not reached";
  } else if (reads == PageReads::kNotLinked) {
    note += "the page-by-page reader (ipc_db::salvage, SQLite's recovery extension) is not "
            "linked: rows under a damaged interior page are not reached";
  } else if (reads == PageReads::kNoPageTable) {
    note += engine + " has no sqlite_dbpage table (built without SQLITE_ENABLE_DBPAGE_VTAB): "
            "rows under a damaged interior page are not reached";
  } else {
    note += "the page-by-page reads failed (SQLite code " + std::to_string(code) +
            "): rows under a damaged interior page are not reached";
  }
  return note;
}

// The new file takes the old one's page size (plain files; a keyed file's
// page size is the format's), encoding, auto-vacuum mode, user version and
// application id. It is written without a journal (it is thrown away
// unless complete) and synced at its commit.
inline int CopyFileSettings(sqlite3* from, sqlite3* to, bool keyed) {
  std::string sql;
  if (!keyed) sql += "PRAGMA page_size = " + std::to_string(IntOf(from, "PRAGMA page_size;", 4096)) + ";";
  const std::string encoding = TextOf(from, "PRAGMA encoding;");
  if (!encoding.empty()) sql += "PRAGMA encoding = '" + encoding + "';";
  sql += "PRAGMA auto_vacuum = " + std::to_string(IntOf(from, "PRAGMA auto_vacuum;", 0)) + ";";
  sql += "PRAGMA user_version = " + std::to_string(IntOf(from, "PRAGMA user_version;", 0)) + ";";
  sql += "PRAGMA application_id = " + std::to_string(IntOf(from, "PRAGMA application_id;", 0)) + ";";
  sql += "PRAGMA journal_mode = OFF; PRAGMA synchronous = FULL;";
  return sqlite3_exec(to, sql.c_str(), nullptr, nullptr, nullptr);
}

inline bool IsCopiedTable(const SchemaEntry& entry) {
  return entry.type == "table" && !entry.sql.empty() &&
         sqlite3_strnicmp(entry.name.c_str(), "sqlite_", 7) != 0;
}

inline bool IsVirtualTable(const SchemaEntry& entry) {
  return sqlite3_strnicmp(entry.sql.c_str(), "CREATE VIRTUAL", 14) == 0;
}

// Runs the schema entries of `type` in the new file; the names of those
// that fail go to `failed`.
inline void MakeEntries(sqlite3* to, const std::vector<SchemaEntry>& schema,
                        const char* type, std::vector<std::string>* failed) {
  for (const SchemaEntry& entry : schema) {
    if (entry.type != type || entry.sql.empty()) continue;
    if (sqlite3_strnicmp(entry.name.c_str(), "sqlite_", 7) == 0) continue;
    if (sqlite3_exec(to, entry.sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      failed->push_back(entry.name);
    }
  }
}

// The damaged file's AUTOINCREMENT counters (name, seq), as far as they read.
inline std::vector<std::pair<std::string, sqlite3_int64>> ReadSequences(sqlite3* from) {
  std::vector<std::pair<std::string, sqlite3_int64>> sequences;
  Statement query(from, "SELECT name, seq FROM main.sqlite_sequence;");
  while (query.ok() && sqlite3_step(query.get()) == SQLITE_ROW) {
    sequences.emplace_back(ColumnText(query.get(), 0), sqlite3_column_int64(query.get(), 1));
  }
  return sequences;
}

// Sets the new file's counters to the old ones, so that no id is given
// out twice: the rows put in under their own rowids moved each counter to
// its table's highest rowid; an old counter above that takes its place,
// one below it (a damaged record's rowid, found page by page) is set back,
// SQLite giving out ids above both the counter and the highest rowid.
// SQLite's code of a failed write.
inline int CopySequences(sqlite3* to,
                         const std::vector<std::pair<std::string, sqlite3_int64>>& sequences) {
  if (sequences.empty()) return SQLITE_OK;
  Statement update(to, "UPDATE main.sqlite_sequence SET seq = ?2 WHERE name = ?1;");
  Statement insert(to,
                   "INSERT INTO main.sqlite_sequence (name, seq) SELECT ?1, ?2 WHERE NOT "
                   "EXISTS (SELECT 1 FROM main.sqlite_sequence WHERE name = ?1);");
  if (!update.ok() || !insert.ok()) return SQLITE_OK;  // no AUTOINCREMENT table was made
  for (const auto& sequence : sequences) {
    for (sqlite3_stmt* stmt : {update.get(), insert.get()}) {
      sqlite3_bind_text(stmt, 1, sequence.first.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int64(stmt, 2, sequence.second);
      const int rc = sqlite3_step(stmt);
      sqlite3_reset(stmt);
      if (rc != SQLITE_DONE) return sqlite3_extended_errcode(to);
    }
  }
  return SQLITE_OK;
}

// The highest rowid an AUTOINCREMENT table can hold (its counter), else
// the largest rowid.
inline sqlite3_int64 HighestRowid(
    const std::string& table,
    const std::vector<std::pair<std::string, sqlite3_int64>>& sequences) {
  for (const auto& sequence : sequences) {
    if (sequence.first == table && sequence.second >= 0) return sequence.second;
  }
  return kMaxRowid;
}

// Creates one table of the damaged file in the new file; false (noted in
// `figures`) when it is a virtual table or its creation fails.
inline bool CreateTable(sqlite3* to, const SchemaEntry& entry, SalvageTable* figures) {
  figures->name = entry.name;
  if (IsVirtualTable(entry)) {
    figures->note = "a virtual table: not copied";
    return false;
  }
  if (sqlite3_exec(to, entry.sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    figures->note = std::string("not made in the new file: ") + sqlite3_errmsg(to);
    return false;
  }
  return true;
}

// Copies the readable rows of one table. SQLite's code of a failed insert
// (which ends the salvage); a table that cannot be read by rowid is noted
// in `figures` and skipped.
inline int FillTable(sqlite3* from, sqlite3* to, const SchemaEntry& entry,
                     sqlite3_int64 highest, long long budget, SalvageTable* figures) {
  const TableColumns columns = ColumnsOf(from, entry.name);
  if (columns.rowid.empty()) {
    figures->note = "every name of the rowid is a column's: not read";
    return SQLITE_OK;
  }
  RowCopier copier(to, entry.name, columns);
  TableReader reader(from, entry.name, columns, &copier, budget);
  if (!copier.ok() || !reader.ok()) {
    figures->note = std::string("not read by rowid: ") + sqlite3_errmsg(reader.ok() ? to : from);
    return SQLITE_OK;
  }
  figures->copied = true;
  const int code = reader.Run(highest);
  figures->rows = copier.copied();
  figures->range_reads = reader.reads();
  figures->budget_reached = reader.budget_reached();
  figures->damaged_stretches = reader.DamagedStretches();
  return code;
}

// ---- The swap ----

inline std::string DirectoryOf(const std::string& directory) {
  return directory.empty() ? std::string(".") : directory;
}

// Moves `path` + suffix (a journal or WAL file) to `damaged` + suffix.
inline bool MoveSidecar(const SalvageFileOps& ops, const std::string& path,
                        const std::string& damaged, const char* suffix) {
  if (!PathExists(path + suffix)) return true;
  return ops.link_file((path + suffix).c_str(), (damaged + suffix).c_str()) == 0 &&
         ops.unlink_file((path + suffix).c_str()) == 0;
}

inline bool RemoveIfPresent(const SalvageFileOps& ops, const std::string& path) {
  return !PathExists(path) || ops.unlink_file(path.c_str()) == 0;
}

// Puts the synced new file under `path`, the original staying as
// `path`.damaged (see the top of this file). False with `step` named.
inline bool SwapIn(const SalvageFileOps& ops, const std::string& directory,
                   const std::string& path, const std::string& fresh, std::string* step) {
  const std::string damaged = path + ".damaged";
  const std::string dir = DirectoryOf(directory);
  *step = "sync of the new file";
  if (ops.sync_file(fresh.c_str()) != 0 || ops.sync_directory(dir.c_str()) != 0) return false;
  *step = "removal of an earlier damaged copy";
  for (const char* suffix : {"", "-journal", "-wal"}) {
    if (!RemoveIfPresent(ops, damaged + suffix)) return false;
  }
  *step = "link of the original to its .damaged name";
  if (ops.link_file(path.c_str(), damaged.c_str()) != 0) return false;
  *step = "move of the original's journal";
  if (!MoveSidecar(ops, path, damaged, "-journal") || !MoveSidecar(ops, path, damaged, "-wal") ||
      !RemoveIfPresent(ops, path + "-shm")) {
    return false;
  }
  *step = "sync of the directory";
  if (ops.sync_directory(dir.c_str()) != 0) return false;
  *step = "rename of the new file over the database";
  if (ops.rename_file(fresh.c_str(), path.c_str()) != 0) return false;
  *step = "sync of the directory after the rename";
  if (ops.sync_directory(dir.c_str()) != 0) return false;
  step->clear();
  return true;
}

// Closes a connection when it goes.
class Connection {
 public:
  Connection() = default;
  ~Connection() { Close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  sqlite3** out() noexcept { return &db_; }
  sqlite3* get() const noexcept { return db_; }
  int Close() noexcept {
    const int rc = sqlite3_close(db_);
    db_ = nullptr;
    return rc;
  }

 private:
  sqlite3* db_ = nullptr;
};

inline SalvageResult Failed(SalvageResult result, SalvageStatus status, int code,
                            const std::string& detail) {
  result.status = status;
  result.code = code;
  result.detail = detail;
  return result;
}

inline int ErrorCodeOf(sqlite3* db, int rc) {
  return db == nullptr ? rc : sqlite3_extended_errcode(db);
}

#if defined(IPC_DB_SALVAGE_PAGE_READS)
// ---- Page-by-page reads (SQLite's recovery extension) ----

constexpr int kRecoverLostAndFound = 1;  // SQLITE_RECOVER_LOST_AND_FOUND
// The scratch database's table of rows on pages no table claims: rootpgno,
// pgno, nfield, id, then the fields c0, c1, ...
constexpr const char* kOrphanTable = "ipc_db_salvage_orphans";

// Copies every page of `from` that reads into an image in memory, opened
// as `image` (a page that does not read stays zeros). SQLITE_OK, or
// SQLITE_NOTFOUND when the engine has no sqlite_dbpage.
inline int LoadImage(sqlite3* from, SalvageResult* result, Connection* image) {
  const long long pageSize = IntOf(from, "PRAGMA page_size;", 0);
  const sqlite3_int64 size = static_cast<sqlite3_int64>(pageSize * result->pages_in_file);
  if (pageSize <= 0 || size <= 0) return SQLITE_CORRUPT;
  unsigned char* bytes = static_cast<unsigned char*>(sqlite3_malloc64(static_cast<sqlite3_uint64>(size)));
  if (bytes == nullptr) return SQLITE_NOMEM;
  std::memset(bytes, 0, static_cast<size_t>(size));
  result->pages_unreadable = ReadPages(from, result->pages_in_file, pageSize, bytes);
  if (result->pages_unreadable < 0) {
    sqlite3_free(bytes);
    return SQLITE_NOTFOUND;
  }
  // Page 1 of a keyed file starts with its salt; the image is a plain file.
  std::memcpy(bytes, "SQLite format 3", 16);
  int code = sqlite3_open(":memory:", image->out());
  if (code != SQLITE_OK) {
    sqlite3_free(bytes);
    return code;
  }
  return sqlite3_deserialize(image->get(), "main", bytes, size, size,
                             SQLITE_DESERIALIZE_FREEONCLOSE);  // frees `bytes` on failure too
}

// Runs each statement of the recovery in the scratch database.
struct RecoverySink {
  sqlite3* found;
  int code;
};

inline int RunRecoveredStatement(void* context, const char* statement) {
  RecoverySink* sink = static_cast<RecoverySink*>(context);
  const int rc = sqlite3_exec(sink->found, statement, nullptr, nullptr, nullptr);
  if (rc == SQLITE_NOMEM || rc == SQLITE_FULL) {
    sink->code = rc;
    return rc;  // stops the recovery
  }
  return SQLITE_OK;  // a statement the scratch database refuses costs only itself
}

// Walks the image page by page into `found` (an in-memory database).
inline int Recover(sqlite3* image, Connection* found) {
  int code = sqlite3_open(":memory:", found->out());
  if (code != SQLITE_OK) return code;
  RecoverySink sink{found->get(), SQLITE_OK};
  sqlite3_recover* recover = sqlite3_recover_init_sql(image, "main", RunRecoveredStatement, &sink);
  if (recover == nullptr) return SQLITE_NOMEM;
  sqlite3_recover_config(recover, kRecoverLostAndFound,
                         const_cast<char*>(kOrphanTable));
  sqlite3_recover_run(recover);
  code = sqlite3_recover_finish(recover);
  sqlite3_exec(found->get(), "COMMIT;", nullptr, nullptr, nullptr);  // when it stopped midway
  return sink.code != SQLITE_OK ? sink.code : code;
}

// Reads the damaged file page by page into `found`; sets pages_unreadable
// and rows_unattributed's start. The engine note says what happened.
inline PageReads ReadByPages(sqlite3* from, SalvageResult* result, Connection* found, int* code) {
  Connection image;
  *code = LoadImage(from, result, &image);
  if (*code == SQLITE_NOTFOUND) return PageReads::kNoPageTable;
  if (*code == SQLITE_OK) *code = Recover(image.get(), found);
  if (*code != SQLITE_OK && found->get() == nullptr) return PageReads::kFailed;
  result->rows_unattributed = 0;
  return *code == SQLITE_OK ? PageReads::kDone : PageReads::kFailed;
}

// A table of the new file as the page reads see it.
struct TableShape {
  TableColumns columns;
  int integer_key = -1;            // the INTEGER PRIMARY KEY column, or -1
  std::vector<bool> text;          // columns of text affinity
  sqlite3_int64 highest = kMaxRowid;
  SalvageTable* figures = nullptr;
};

inline bool HasTextAffinity(const std::string& type) {
  std::string upper;
  for (char c : type) upper += static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
  if (upper.find("INT") != std::string::npos) return false;
  return upper.find("CHAR") != std::string::npos || upper.find("CLOB") != std::string::npos ||
         upper.find("TEXT") != std::string::npos;
}

// The shape of `table` in `db`; false when it is not a rowid table there.
inline bool ShapeOf(sqlite3* db, const std::string& table, TableShape* shape) {
  shape->columns = ColumnsOf(db, table);
  if (shape->columns.names.empty() || shape->columns.rowid.empty()) return false;
  Statement rowid(db, "SELECT " + shape->columns.rowid + " FROM main." + QuotedName(table) +
                          " LIMIT 0;");
  if (!rowid.ok()) return false;  // WITHOUT ROWID
  Statement info(db, "PRAGMA main.table_info(" + QuotedName(table) + ");");
  int keys = 0, key = -1;
  while (info.ok() && sqlite3_step(info.get()) == SQLITE_ROW) {
    const std::string type = ColumnText(info.get(), 2);
    shape->text.push_back(HasTextAffinity(type));
    if (sqlite3_column_int(info.get(), 5) > 0) {
      ++keys;
      if (sqlite3_stricmp(type.c_str(), "INTEGER") == 0) key = sqlite3_column_int(info.get(), 0);
    }
  }
  shape->integer_key = keys == 1 ? key : -1;
  return true;
}

// Adds the rows of one table that the page reads found and the new file
// lacks (same rowid: the range read's row stays). All of them, as the
// shell's .recover keeps them: on a plain file a damaged record can give a
// rowid above the AUTOINCREMENT counter, which the counter then keeps as
// it was (CopySequences). SQLite's code of a failed insert, else SQLITE_OK.
inline int AddFoundRows(sqlite3* found, sqlite3* to, const std::string& table,
                        const TableShape& shape) {
  Statement rows(found, "SELECT " + ColumnList(shape.columns) + " FROM main." +
                            QuotedName(table) + ";");
  if (!rows.ok()) return SQLITE_OK;  // the walk found no such table
  RowCopier copier(to, table, shape.columns);
  if (!copier.ok()) return SQLITE_OK;
  std::vector<sqlite3_value*> values(shape.columns.names.size() + 1);
  while (sqlite3_step(rows.get()) == SQLITE_ROW) {
    for (size_t i = 0; i < values.size(); ++i) {
      values[i] = sqlite3_column_value(rows.get(), static_cast<int>(i));
    }
    const int code = copier.Copy(values);
    if (code != SQLITE_OK) return code;
  }
  shape.figures->rows += copier.copied();
  shape.figures->rows_from_pages += copier.copied();
  return SQLITE_OK;
}

// Fields c0, c1, ... of the orphan table.
inline int OrphanFields(sqlite3* found) {
  return static_cast<int>(IntOf(found, std::string("SELECT count(*) - 4 FROM pragma_table_info('") +
                                           kOrphanTable + "');", 0));
}

// An SQL condition true for an orphan row that fits `shape`.
inline std::string FitsCondition(const TableShape& shape, int fields) {
  const int columns = static_cast<int>(shape.columns.names.size());
  std::string fits = "(nfield BETWEEN 1 AND " + std::to_string(columns) + " AND id <= " +
                     std::to_string(shape.highest);
  for (int i = 0; i < columns && i < fields; ++i) {
    const std::string field = "c" + std::to_string(i);
    if (i == shape.integer_key) fits += " AND " + field + " IS NULL";
    if (shape.text[static_cast<size_t>(i)] && i != shape.integer_key) {
      fits += " AND typeof(" + field + ") NOT IN ('integer', 'real')";
    }
  }
  return fits + ")";
}

// The root page of each orphan group whose every row fits `shape`.
inline std::vector<sqlite3_int64> GroupsFitting(sqlite3* found, const TableShape& shape,
                                                int fields) {
  std::vector<sqlite3_int64> groups;
  Statement query(found, std::string("SELECT rootpgno FROM ") + kOrphanTable +
                             " WHERE id IS NOT NULL GROUP BY rootpgno HAVING count(*) = sum(" +
                             FitsCondition(shape, fields) + ");");
  while (query.ok() && sqlite3_step(query.get()) == SQLITE_ROW) {
    groups.push_back(sqlite3_column_int64(query.get(), 0));
  }
  return groups;
}

// Writes the rows of orphan group `root` into the table of `shape`, the
// INTEGER PRIMARY KEY column taking the rowid.
inline int AddGroup(sqlite3* found, sqlite3* to, const std::string& table,
                    const TableShape& shape, sqlite3_int64 root, int fields) {
  std::string select = "SELECT id";
  const int columns = static_cast<int>(shape.columns.names.size());
  for (int i = 0; i < columns; ++i) {
    select += i == shape.integer_key ? std::string(", id")
              : i < fields           ? ", c" + std::to_string(i)
                                     : std::string(", NULL");
  }
  Statement rows(found, select + " FROM " + kOrphanTable +
                            " WHERE id IS NOT NULL AND rootpgno = ?1 ORDER BY id;");
  if (!rows.ok()) return SQLITE_OK;
  sqlite3_bind_int64(rows.get(), 1, root);
  RowCopier copier(to, table, shape.columns);
  if (!copier.ok()) return SQLITE_OK;
  std::vector<sqlite3_value*> values(static_cast<size_t>(columns) + 1);
  while (sqlite3_step(rows.get()) == SQLITE_ROW) {
    for (size_t i = 0; i < values.size(); ++i) {
      values[i] = sqlite3_column_value(rows.get(), static_cast<int>(i));
    }
    const int code = copier.Copy(values);
    if (code != SQLITE_OK) return code;
  }
  shape.figures->rows += copier.copied();
  shape.figures->rows_from_pages += copier.copied();
  return SQLITE_OK;
}

// Gives each orphan group that fits exactly one table to that table; the
// rows of the other groups are counted in rows_unattributed.
inline int AddOrphans(sqlite3* found, sqlite3* to, const std::map<std::string, TableShape>& shapes,
                      SalvageResult* result) {
  const int fields = OrphanFields(found);
  if (fields <= 0) return SQLITE_OK;
  std::map<sqlite3_int64, std::vector<const std::string*>> fitting;
  for (const auto& shape : shapes) {
    for (sqlite3_int64 root : GroupsFitting(found, shape.second, fields)) {
      fitting[root].push_back(&shape.first);
    }
  }
  long long placed = 0;
  Statement size(found, std::string("SELECT count(*) FROM ") + kOrphanTable +
                            " WHERE id IS NOT NULL AND rootpgno = ?1;");
  for (const auto& group : fitting) {
    if (group.second.size() != 1) continue;
    const std::string& table = *group.second.front();
    const int code = AddGroup(found, to, table, shapes.at(table), group.first, fields);
    if (code != SQLITE_OK) return code;
    sqlite3_bind_int64(size.get(), 1, group.first);
    if (sqlite3_step(size.get()) == SQLITE_ROW) placed += sqlite3_column_int64(size.get(), 0);
    sqlite3_reset(size.get());
  }
  result->rows_unattributed =
      IntOf(found, std::string("SELECT count(*) FROM ") + kOrphanTable + " WHERE id IS NOT NULL;",
            0) - placed;
  return SQLITE_OK;
}

// Adds what the page reads found to the tables copied into `to`.
inline int AddPageRows(sqlite3* found, sqlite3* to,
                       const std::vector<std::pair<std::string, sqlite3_int64>>& sequences,
                       SalvageResult* result) {
  std::map<std::string, TableShape> shapes;
  for (SalvageTable& figures : result->tables) {
    TableShape shape;
    if (!ShapeOf(to, figures.name, &shape)) continue;
    shape.highest = HighestRowid(figures.name, sequences);
    shape.figures = &figures;
    const int code = AddFoundRows(found, to, figures.name, shape);
    if (code != SQLITE_OK) return code;
    if (figures.rows > 0) figures.copied = true;
    shapes.emplace(figures.name, std::move(shape));
  }
  return AddOrphans(found, to, shapes, result);
}
#endif  // IPC_DB_SALVAGE_PAGE_READS

// The functions below differ with IPC_DB_SALVAGE_PAGE_READS; the inline
// namespace keeps the two variants apart in one program.
}  // namespace detail
inline namespace IPC_DB_SALVAGE_READERS {
namespace salvage_steps {
using namespace ::ipc_db::detail;

// Writes every readable row of `from` into `to` (the open new file) in one
// transaction: tables, their indexes (made before the rows go in, so that
// a UNIQUE index keeps out a damaged record's clash with an intact one),
// rows, AUTOINCREMENT counters, views and triggers. SQLITE_OK, or the code
// of the write that failed.
inline int WriteSalvage(sqlite3* from, sqlite3* found, sqlite3* to,
                        const std::vector<SchemaEntry>& schema, long long budget,
                        SalvageResult* result) {
  if (sqlite3_exec(to, "BEGIN;", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite3_extended_errcode(to);
  }
  std::vector<const SchemaEntry*> made;
  for (const SchemaEntry& entry : schema) {
    if (!IsCopiedTable(entry)) continue;
    result->tables.emplace_back();
    if (CreateTable(to, entry, &result->tables.back())) made.push_back(&entry);
  }
  MakeEntries(to, schema, "index", &result->schema_not_restored);
  const auto sequences = ReadSequences(from);
  for (SalvageTable& figures : result->tables) {
    for (const SchemaEntry* entry : made) {
      if (entry->name != figures.name) continue;
      const int code = FillTable(from, to, *entry, HighestRowid(entry->name, sequences),
                                 budget, &figures);
      if (code != SQLITE_OK) return code;
    }
  }
#if defined(IPC_DB_SALVAGE_PAGE_READS)
  if (found != nullptr) {
    const int code = AddPageRows(found, to, sequences, result);
    if (code != SQLITE_OK) return code;
  }
#else
  (void)found;
#endif
  int code = CopySequences(to, sequences);
  if (code != SQLITE_OK) return code;
  MakeEntries(to, schema, "view", &result->schema_not_restored);
  MakeEntries(to, schema, "trigger", &result->schema_not_restored);
  if (sqlite3_exec(to, "COMMIT;", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return sqlite3_extended_errcode(to);
  }
  return SQLITE_OK;
}

inline std::string JoinPath(const std::string& directory, const std::string& file) {
  if (directory.empty() || directory.back() == '/') return directory + file;
  return directory + "/" + file;
}

// Opens the damaged file and reads its schema and page figures into
// `result`, and, with page-by-page reads, what they find into `found`.
// SQLITE_OK, or the code that made it unreadable.
inline int OpenDamaged(const std::string& path, const std::string& key, Connection* from,
                       Connection* found, std::vector<SchemaEntry>* schema,
                       SalvageResult* result) {
  int code = OpenInLibraryFormat(path, key, SQLITE_OPEN_READWRITE, from->out());
  if (code != SQLITE_OK) return ErrorCodeOf(from->get(), code);
  // A schema entry that no longer parses is skipped rather than failing
  // every statement.
  sqlite3_exec(from->get(), "PRAGMA writable_schema = ON;", nullptr, nullptr, nullptr);
  code = ReadSchema(from->get(), schema);
  if (code != SQLITE_OK) return code;
  result->pages_in_file = IntOf(from->get(), "PRAGMA page_count;", 0);
#if defined(IPC_DB_SALVAGE_PAGE_READS)
  int pageCode = SQLITE_OK;
  const PageReads reads = ReadByPages(from->get(), result, found, &pageCode);
#else
  (void)found;
  const PageReads reads = PageReads::kNotLinked;
  const int pageCode = SQLITE_OK;
#endif
  if (reads != PageReads::kDone && reads != PageReads::kFailed) {
    result->pages_unreadable = UnreadablePages(from->get(), result->pages_in_file);
  }
  result->engine_note = EngineNote(reads, pageCode);
  if (result->pages_unreadable < 0) {
    result->engine_note += "; no page-by-page reads: unreadable pages not counted";
  }
  return SQLITE_OK;
}

inline SalvageResult SalvageChecked(const std::string& directory, const std::string& file,
                                    const std::string& key, const SalvageOptions& options) {
  SalvageResult result;
  if (file.empty() || key.size() > kSalvageKeyLength) {
    return Failed(result, SalvageStatus::kBadArgument, 0, "file name empty or key too long");
  }
  const std::string path = JoinPath(directory, file);
  const std::string fresh = path + ".salvage";
  const SalvageFileOps ops = CompleteOps(options.file_ops);
  struct stat original {};
  if (::stat(path.c_str(), &original) != 0) {
    return Failed(result, SalvageStatus::kNotFound, errno, "no file at " + path);
  }
  if (!RemoveIfPresent(ops, fresh) || !RemoveIfPresent(ops, fresh + "-journal")) {
    return Failed(result, SalvageStatus::kWriteFailed, errno, "removal of an old .salvage file");
  }
  Connection from, found;
  std::vector<SchemaEntry> schema;
  int code = OpenDamaged(path, key, &from, &found, &schema, &result);
  if (code != SQLITE_OK) {
    return Failed(result, SalvageStatus::kUnreadable, code, "the schema does not read");
  }
  const long long budget = options.range_reads_per_table > 0
                               ? options.range_reads_per_table
                               : 4096 + 16 * result.pages_in_file;
  Connection to;
  const bool keyed = !key.empty() && key[0] != '\0';
  code = OpenInLibraryFormat(fresh, key, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, to.out());
  if (code == SQLITE_OK) code = CopyFileSettings(from.get(), to.get(), keyed);
  if (code == SQLITE_OK) code = WriteSalvage(from.get(), found.get(), to.get(), schema, budget, &result);
  if (code == SQLITE_OK && to.Close() != SQLITE_OK) code = SQLITE_IOERR;
  if (code != SQLITE_OK) {
    code = ErrorCodeOf(to.get(), code);
    to.Close();
    ops.unlink_file(fresh.c_str());
    return Failed(result, SalvageStatus::kWriteFailed, code, "writing " + fresh);
  }
  from.Close();
  ::chmod(fresh.c_str(), original.st_mode & 0777);
  std::string step;
  if (!SwapIn(ops, directory, path, fresh, &step)) {
    return Failed(result, SalvageStatus::kSwapFailed, errno, step);
  }
  result.status = SalvageStatus::kSalvaged;
  return result;
}

}  // namespace salvage_steps

// Salvages the database `file` in `directory` (as given to Db::Init: the
// file name is appended to it), keyed with `key` as Db::Init takes it (at
// most 64 bytes; empty for a plain file). Writes the readable rows into
// `<file>.salvage` in the same format with the same key, then swaps it in
// (see the top of this file). A `<file>.salvage` left by an interrupted
// salvage is removed first; a `<file>.damaged` from an earlier salvage is
// replaced by this one's original.
// The damaged file is opened read-write so that SQLite rolls back a hot
// journal beside it, as Db::OpenDB would; nothing else is written to it.
// REQUIRES: no connection of this process or another is open on the file
// (close the Db first and UnInit it; open it again afterwards). The result
// says what was kept; SalvageStatus::kSalvaged does not mean that rows were
// lost or not: compare the figures with what the application expects.
// Throws nothing: running out of memory gives kWriteFailed with
// SQLITE_NOMEM.
inline SalvageResult Salvage(const std::string& directory, const std::string& file,
                             const std::string& key,
                             const SalvageOptions& options = SalvageOptions()) noexcept {
  try {
    return salvage_steps::SalvageChecked(directory, file, key, options);
  } catch (const std::bad_alloc&) {
    const SalvageFileOps ops = detail::CompleteOps(options.file_ops);
    ops.unlink_file((salvage_steps::JoinPath(directory, file) + ".salvage").c_str());
    SalvageResult result;
    result.status = SalvageStatus::kWriteFailed;
    result.code = SQLITE_NOMEM;
    result.detail = "out of memory";
    return result;
  }
}

}  // inline namespace IPC_DB_SALVAGE_READERS
}  // namespace ipc_db

#endif  // IPC_DB_IPC_DB_SALVAGE_H_
