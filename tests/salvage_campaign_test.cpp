// The damage campaign of ipc_db::Salvage (companion header): damaged files,
// keyed and plain, drawn from a seed (printed; IPC_DB_SALVAGE_SEED replays),
// each measured four ways. The clean file is written once per test: t_event
// through the library (1000 events, an index on Seq), t_note (no INTEGER
// PRIMARY KEY), t_blob (records larger than a page, on overflow chains) and
// empty tables whose long CREATE texts spread the schema over several
// pages. An update that keeps every row's size gives the torn pages their
// second version of a page; the power cuts run it themselves and keep
// their own run's version (a keyed page is encrypted anew at each write).
// Per damaged file: the rows on intact pages (a row's leaf and overflow
// pages equal to the clean file's, known through support/PageTrace.h; a
// keyed file whose salt changed has none), the rows Salvage() recovers in
// a child process (a child that dies is a crash; SQLite memory still held
// after it returns, or a LeakSanitizer finding in the ASan build, is a
// leak), the rows the engine's shell `.recover` gives on the same file
// (keyed: with the key and the compatibility setting; a shell without
// `.recover` is "not available"), and the rows today's RepairDB leaves (on
// a copy; it gets no key). A recovered row counts only when it equals a
// version the writer wrote. Quick scale (one file per damage kind) by
// default; IPC_DB_SALVAGE_SCALE=full gives 34 files per damage kind (306
// per kind of file). Figures go to results/salvage (campaign-*.json).
#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "EngineFormat.h"
#include "FaultVfs.h"
#include "PageTrace.h"
#include "ReliabilityTestSupport.h"
#include "TestEnv.h"
#include "TestSupport.h"
#include "ipc_db_helpers.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define IPC_DB_CAMPAIGN_LSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define IPC_DB_CAMPAIGN_LSAN 1
#endif
#ifdef IPC_DB_CAMPAIGN_LSAN
#include <sanitizer/lsan_interface.h>
#endif

using namespace ipc_db_test;

namespace {

// The goals the salvage is held to: on an engine with page-by-page reads
// (4.6.1), at least 99% of the rows on intact pages come back, no file
// gives fewer rows than `.recover`, and no row of a keyed file comes back
// changed, nor a row of an intact page. Today's Salvage() (rowid-range
// reads, the damaged file's schema taken as it reads) does not meet them;
// the figures say by how much. Turn this on when the page-by-page salvage
// lands; IPC_DB_SALVAGE_GOALS=1 turns it on for a run. Crashes and leaks
// fail every run.
constexpr bool kGoalChecksEnabled = false;

constexpr int kEvents = 1000;
constexpr int kNotes = 60;
constexpr int kBlobs = 40;
constexpr int kAuxTables = 14;
constexpr int kFullFilesPerDamage = 34;
constexpr int kQuickFilesPerDamage = 1;
constexpr unsigned kSalvageSecondsLimit = 300;
constexpr const char* kFile = "c.db";
constexpr const char* kIndex = "idx_event_seq";
constexpr const char* kUpdateSql =
    "BEGIN; UPDATE t_event SET Value = 6 WHERE Seq % 3 = 0; "
    "UPDATE t_note SET Text = upper(Text); COMMIT;";

enum class Damage {
  kChangedBytes,
  kZeroedPages,
  kTornPage,
  kTruncated,
  kFirstPage,
  kSchemaPage,
  kIndexPage,
  kOverflowChain,
  kPowerCut,
};
constexpr int kDamageKinds = 9;

const char* DamageName(Damage damage) {
  switch (damage) {
    case Damage::kChangedBytes:
      return "changed_bytes";
    case Damage::kZeroedPages:
      return "zeroed_pages";
    case Damage::kTornPage:
      return "torn_page";
    case Damage::kTruncated:
      return "truncated";
    case Damage::kFirstPage:
      return "page_1";
    case Damage::kSchemaPage:
      return "schema_page";
    case Damage::kIndexPage:
      return "index_page";
    case Damage::kOverflowChain:
      return "overflow_chain";
    case Damage::kPowerCut:
      return "power_cut_journal_off";
  }
  return "?";
}

bool EnvIs(const char* name, const char* value) {
  const char* set = std::getenv(name);
  return set != nullptr && std::string(set) == value;
}

bool FullScale() { return EnvIs("IPC_DB_SALVAGE_SCALE", "full"); }

bool GoalsChecked() { return kGoalChecksEnabled || EnvIs("IPC_DB_SALVAGE_GOALS", "1"); }

unsigned Seed() {
  static const unsigned seed = [] {
    const char* fixed = std::getenv("IPC_DB_SALVAGE_SEED");
    const unsigned value = fixed != nullptr
                               ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10))
                               : std::random_device{}();
    std::printf(
        "salvage campaign: seed %u (IPC_DB_SALVAGE_SEED=%u replays), %s scale, "
        "engine %s\n",
        value, value, FullScale() ? "full" : "quick", EngineCipherVersion().c_str());
    return value;
  }();
  return seed;
}

void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// ---- Reading rows generically ----

struct Handle {
  sqlite3* db = nullptr;
  ~Handle() { sqlite3_close(db); }
};

// Opens `path` read-only, keyed in the library's format unless `key` is empty.
bool OpenRead(Handle* handle, const std::string& path, const std::string& key) {
  return sqlite3_open_v2(path.c_str(), &handle->db, SQLITE_OPEN_READONLY, nullptr) ==
             SQLITE_OK &&
         (key.empty() || KeyInLibraryFormat(handle->db, key) == SQLITE_OK);
}

// One value, typed and length-prefixed so that no two values look alike.
std::string Cell(sqlite3_stmt* stmt, int column) {
  const int type = sqlite3_column_type(stmt, column);
  if (type == SQLITE_NULL) return "N;";
  if (type == SQLITE_INTEGER)
    return "I" + std::to_string(sqlite3_column_int64(stmt, column)) + ";";
  if (type == SQLITE_FLOAT) {
    char text[40];
    std::snprintf(text, sizeof(text), "F%.17g;", sqlite3_column_double(stmt, column));
    return text;
  }
  const char* bytes = static_cast<const char*>(sqlite3_column_blob(stmt, column));
  const int size = sqlite3_column_bytes(stmt, column);
  return (type == SQLITE_TEXT ? "T" : "B") + std::to_string(size) + ":" +
         std::string(bytes == nullptr ? "" : bytes, static_cast<size_t>(size)) + ";";
}

// Runs `sql` and calls `row` for each row; false when it did not run to
// its end.
bool EachRow(sqlite3* db, const std::string& sql,
             const std::function<void(sqlite3_stmt*)>& row) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
  if (rc == SQLITE_OK) {
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) row(stmt);
  }
  sqlite3_finalize(stmt);
  return rc == SQLITE_DONE;
}

using TableRows = std::map<long long, std::string>;  // rowid -> its values
using Rows = std::map<std::string, TableRows>;       // table -> its rows

// The rows of `table` that read, each with every column in order; with
// `ipkColumn` >= 0 that column is written as the record holds it (NULL).
TableRows ReadTable(sqlite3* db, const std::string& table, int ipkColumn = -1) {
  TableRows rows;
  EachRow(db, "SELECT rowid, * FROM \"" + table + "\";", [&](sqlite3_stmt* stmt) {
    std::string values;
    for (int i = 1; i < sqlite3_column_count(stmt); ++i) {
      values += i - 1 == ipkColumn ? "N;" : Cell(stmt, i);
    }
    rows[sqlite3_column_int64(stmt, 0)] = values;
  });
  return rows;
}

const std::vector<std::string>& WriterTables() {
  static const std::vector<std::string> tables = {"t_event", "t_note", "t_blob"};
  return tables;
}

// The INTEGER PRIMARY KEY column of each writer table (-1: none).
int IpkColumnOf(const std::string& table) { return table == "t_note" ? -1 : 0; }

Rows ReadWriterRows(const std::string& path, const std::string& key) {
  Rows rows;
  Handle handle;
  if (!OpenRead(&handle, path, key)) return rows;
  for (const std::string& table : WriterTables())
    rows[table] = ReadTable(handle.db, table);
  return rows;
}

// ---- The clean file ----

struct CleanFile {
  std::string before;  // as written
  std::string after;   // after kUpdateSql (rows of the same size, same pages)
  long long pageSize = 0;
  std::map<std::string, TablePages> tables;
  TablePages index;
  std::set<long long> schema;
  Rows rowsBefore;
  Rows rowsAfter;
  std::vector<long long> pagesChangedByUpdate;
  // "<rowid>|<values as the record holds them>" -> "<table>/<rowid>", to
  // recognise rows recovered into a lost-and-found table.
  std::map<std::string, std::string> recordForms;
};

std::string BlobBytes(std::mt19937& random) {
  std::uniform_int_distribution<int> size(4500, 14000);  // more than a 4096-byte page
  std::string bytes(static_cast<size_t>(size(random)), '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() & 0xff);
  return bytes;
}

std::string AuxTableSql(int number) {
  std::string sql = "CREATE TABLE t_aux_" + std::to_string(number) + " (";
  for (int i = 0; i < 24; ++i) {
    sql += (i ? ", " : "") + std::string("aux_column_with_a_rather_long_name_") +
           std::to_string(i) + " INTEGER";
  }
  return sql + ");";
}

// Adds t_note, t_blob and the empty tables with a handle of its own.
bool AddRawTables(const std::string& path, const std::string& key, std::mt19937& random) {
  Handle handle;
  if (sqlite3_open(path.c_str(), &handle.db) != SQLITE_OK ||
      (!key.empty() && KeyInLibraryFormat(handle.db, key) != SQLITE_OK)) {
    return false;
  }
  std::string sql =
      "BEGIN; CREATE TABLE t_note (Seq INTEGER, Text CHAR(24)); "
      "CREATE TABLE t_blob (Id INTEGER PRIMARY KEY, Tag TEXT, Body BLOB); ";
  for (int i = 1; i <= kNotes; ++i) {
    sql += "INSERT INTO t_note (rowid, Seq, Text) VALUES (" +
           std::to_string(i * 1000 + 7) + ", " + std::to_string(i) + ", 'note-" +
           std::to_string(i) + "'); ";
  }
  for (int i = 1; i <= kAuxTables; ++i) sql += AuxTableSql(i) + " ";
  if (sqlite3_exec(handle.db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    return false;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(handle.db, "INSERT INTO t_blob (Tag, Body) VALUES (?, ?);", -1,
                         &stmt, nullptr) != SQLITE_OK) {
    return false;
  }
  bool ok = true;
  for (int i = 1; i <= kBlobs && ok; ++i) {
    const std::string tag = "blob-" + std::to_string(i);
    const std::string body = BlobBytes(random);
    sqlite3_bind_text(stmt, 1, tag.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_blob(stmt, 2, body.data(), static_cast<int>(body.size()),
                      SQLITE_TRANSIENT);
    ok = sqlite3_step(stmt) == SQLITE_DONE && sqlite3_reset(stmt) == SQLITE_OK;
  }
  sqlite3_finalize(stmt);
  return ok && sqlite3_exec(handle.db, "COMMIT;", nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Opens `path` (keyed unless `key` is empty) for writing in the unsafe
// mode, journal off and synchronous off, and runs kUpdateSql.
bool OpenAndUpdate(Handle* handle, const std::string& path, const std::string& key) {
  return sqlite3_open(path.c_str(), &handle->db) == SQLITE_OK &&
         (key.empty() || KeyInLibraryFormat(handle->db, key) == SQLITE_OK) &&
         sqlite3_exec(handle->db, "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;",
                      nullptr, nullptr, nullptr) == SQLITE_OK &&
         sqlite3_exec(handle->db, kUpdateSql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool RunUpdate(const std::string& path, const std::string& key) {
  Handle handle;
  return OpenAndUpdate(&handle, path, key);
}

// Runs `body` in a child process; returns its wait status.
int InChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return status;
}

void AddRecordForms(CleanFile* clean, const std::string& path, const std::string& key) {
  Handle handle;
  if (!OpenRead(&handle, path, key)) return;
  for (const std::string& table : WriterTables()) {
    for (const auto& [rowid, values] : ReadTable(handle.db, table, IpkColumnOf(table))) {
      clean->recordForms[std::to_string(rowid) + "|" + values] =
          table + "/" + std::to_string(rowid);
    }
  }
}

std::vector<long long> PagesThatDiffer(const std::string& a, const std::string& b,
                                       long long pageSize) {
  std::vector<long long> pages;
  const size_t size = static_cast<size_t>(pageSize);
  for (size_t at = 0; at + size <= a.size() && at + size <= b.size(); at += size) {
    if (a.compare(at, size, b, at, size) != 0)
      pages.push_back(static_cast<long long>(at / size) + 1);
  }
  return pages;
}

// ---- Damage ----

struct DamagedFile {
  std::string bytes;
  bool twoVersions = false;  // pages may hold the update's version too
  std::string after;         // the pages of the update's version, when the
                             // file may hold them whole
};

long long PageCount(const CleanFile& clean) {
  return static_cast<long long>(clean.before.size()) / clean.pageSize;
}

long long AnyPage(std::mt19937& random, long long from, long long to) {
  return std::uniform_int_distribution<long long>(from, to)(random);
}

template <typename Set>
long long PickFrom(const Set& pages, std::mt19937& random) {
  std::vector<long long> list(pages.begin(), pages.end());
  return list[std::uniform_int_distribution<size_t>(0, list.size() - 1)(random)];
}

void ChangeBytes(std::string* bytes, size_t from, size_t size, std::mt19937& random) {
  const int count = 1 + static_cast<int>(random() % 8);
  for (int i = 0; i < count; ++i) {
    const size_t at = from + random() % size;
    (*bytes)[at] = static_cast<char>((*bytes)[at] ^ (1 + random() % 255));
  }
}

void ZeroPage(std::string* bytes, long long page, long long pageSize) {
  std::fill(bytes->begin() + (page - 1) * pageSize, bytes->begin() + page * pageSize,
            '\0');
}

// Zeroes `page` or changes a few of its bytes, by the draw.
void HitPage(std::string* bytes, long long page, long long pageSize,
             std::mt19937& random) {
  if (random() % 2 == 0) {
    ZeroPage(bytes, page, pageSize);
  } else {
    ChangeBytes(bytes, static_cast<size_t>((page - 1) * pageSize),
                static_cast<size_t>(pageSize), random);
  }
}

long long OverflowPage(const CleanFile& clean, std::mt19937& random) {
  const TablePages& blobs = clean.tables.at("t_blob");
  std::vector<long long> pages;
  for (const auto& [rowid, chain] : blobs.overflowOfRowid)
    pages.insert(pages.end(), chain.begin(), chain.end());
  return pages[std::uniform_int_distribution<size_t>(0, pages.size() - 1)(random)];
}

// Pages of sqlite_master beyond page 1, or page 1 when it holds it all.
long long SchemaPage(const CleanFile& clean, std::mt19937& random) {
  std::set<long long> pages = clean.schema;
  if (pages.size() > 1) pages.erase(1);
  return PickFrom(pages, random);
}

// A power cut after the update in the unsafe mode committed, before the
// disk got its writes (synchronous off syncs nothing): the fault VFS's
// power model keeps, loses or tears each write. The file as the update
// left it just before the cut is this run's second version of each page
// (a keyed page is encrypted anew at each write).
void PowerCut(const CleanFile& clean, const std::string& path, const std::string& key,
              std::mt19937& random, DamagedFile* damaged) {
  WriteBytes(path, clean.before);
  const uint32_t cutSeed = static_cast<uint32_t>(random());
  const int sector = random() % 2 == 0 ? 512 : 4096;
  const int status = InChild([&] {
    FaultVfs::Install();
    FaultVfs::Reset();
    FaultVfs::SetRealSyncs(false);
    FaultVfs::ArmPowerCut(0, cutSeed, sector);  // chooses the cut's seed and sectors only
    // Closed before the cut (closing syncs nothing in this mode), so that
    // the child leaves no SQLite memory behind for a leak checker.
    if (!RunUpdate(path, key)) return 1;
    WriteBytes(path + ".after", ReadFileBytes(path));
    FaultVfs::CutNow();
  });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == kPowerCutExitStatus)
      << "power cut child status " << status;
  damaged->bytes = ReadFileBytes(path);
  damaged->after = ReadFileBytes(path + ".after");
  std::remove((path + ".after").c_str());
}

DamagedFile Damaged(const CleanFile& clean, Damage damage, const std::string& path,
                    const std::string& key, std::mt19937& random) {
  DamagedFile damaged{clean.before, false, ""};
  std::string& bytes = damaged.bytes;
  const long long size = clean.pageSize;
  const long long pages = PageCount(clean);
  switch (damage) {
    case Damage::kChangedBytes: {
      const long long page = AnyPage(random, 2, pages);
      ChangeBytes(&bytes, static_cast<size_t>((page - 1) * size),
                  static_cast<size_t>(size), random);
      break;
    }
    case Damage::kZeroedPages:
      for (long long i = 0, n = 1 + random() % 3; i < n; ++i)
        ZeroPage(&bytes, AnyPage(random, 2, pages), size);
      break;
    case Damage::kTornPage: {
      // The first sectors of a page from the update, the rest as before.
      const long long page = PickFrom(clean.pagesChangedByUpdate, random);
      const long long sectors = size / 512;
      const long long written = 512 * AnyPage(random, 1, sectors - 1);
      bytes.replace(static_cast<size_t>((page - 1) * size), static_cast<size_t>(written),
                    clean.after, static_cast<size_t>((page - 1) * size),
                    static_cast<size_t>(written));
      damaged.twoVersions = true;
      break;
    }
    case Damage::kTruncated:
      bytes.resize(
          static_cast<size_t>(AnyPage(random, pages * size / 2, pages * size - 1)));
      break;
    case Damage::kFirstPage: {
      const unsigned how = random() % 3;
      if (how == 0) ZeroPage(&bytes, 1, size);
      if (how == 1) ChangeBytes(&bytes, 0, 100, random);
      if (how == 2) ChangeBytes(&bytes, 100, static_cast<size_t>(size - 100), random);
      break;
    }
    case Damage::kSchemaPage:
      HitPage(&bytes, SchemaPage(clean, random), size, random);
      break;
    case Damage::kIndexPage: {
      std::set<long long> index = clean.index.leaves;
      index.insert(clean.index.interior.begin(), clean.index.interior.end());
      HitPage(&bytes, PickFrom(index, random), size, random);
      break;
    }
    case Damage::kOverflowChain:
      HitPage(&bytes, OverflowPage(clean, random), size, random);
      break;
    case Damage::kPowerCut:
      PowerCut(clean, path, key, random, &damaged);
      damaged.twoVersions = true;
      break;
  }
  return damaged;
}

// ---- Which rows are on intact pages ----

struct PageState {
  bool asBefore = false;
  bool asAfter = false;
};

// Each page of the clean file compared with the damaged one. On a keyed
// file every page's key comes from the salt at the start of page 1: when
// the salt changed, no page is intact.
std::vector<PageState> PageStates(const CleanFile& clean, const DamagedFile& damaged,
                                  bool keyed) {
  const size_t size = static_cast<size_t>(clean.pageSize);
  std::vector<PageState> states(static_cast<size_t>(PageCount(clean)) + 1);
  if (keyed && damaged.bytes.compare(0, 16, clean.before, 0, 16) != 0) return states;
  for (size_t page = 1; page < states.size(); ++page) {
    const size_t at = (page - 1) * size;
    if (at + size > damaged.bytes.size()) break;
    states[page].asBefore = damaged.bytes.compare(at, size, clean.before, at, size) == 0;
    states[page].asAfter = at + size <= damaged.after.size() &&
                           damaged.bytes.compare(at, size, damaged.after, at, size) == 0;
  }
  return states;
}

// Rows whose leaf and overflow pages all hold one version: "<table>/<rowid>".
std::set<std::string> IntactRows(const CleanFile& clean,
                                 const std::vector<PageState>& states) {
  std::set<std::string> rows;
  for (const auto& [table, pages] : clean.tables) {
    for (const auto& [rowid, leaf] : pages.leafOfRowid) {
      std::set<long long> all = {leaf};
      auto overflow = pages.overflowOfRowid.find(rowid);
      if (overflow != pages.overflowOfRowid.end())
        all.insert(overflow->second.begin(), overflow->second.end());
      bool before = true, after = true;
      for (long long page : all) {
        before = before && states[static_cast<size_t>(page)].asBefore;
        after = after && states[static_cast<size_t>(page)].asAfter;
      }
      if (before || after) rows.insert(table + "/" + std::to_string(rowid));
    }
  }
  return rows;
}

// ---- Counting what a recovery gave ----

struct Recovered {
  std::set<std::string> right;  // rows equal to a version the writer wrote
  long long wrong = 0;          // rows of a writer table equal to none
  long long intactWrong = 0;    // of those, rows of intact pages
  std::string firstWrong;       // "<table>/<rowid>" of the first
};

bool IsWritten(const CleanFile& clean, bool twoVersions, const std::string& table,
               long long rowid, const std::string& values) {
  for (const Rows* rows : {&clean.rowsBefore, &clean.rowsAfter}) {
    if (rows == &clean.rowsAfter && !twoVersions) break;
    auto found = rows->at(table).find(rowid);
    if (found != rows->at(table).end() && found->second == values) return true;
  }
  return false;
}

// Rows of a lost-and-found table (rootpgno, pgno, nfield, id, c0, ...)
// that equal a row the writer wrote, in its record's form.
void CountLostAndFound(sqlite3* db, const std::string& table, const CleanFile& clean,
                       Recovered* recovered) {
  EachRow(db, "SELECT * FROM \"" + table + "\";", [&](sqlite3_stmt* stmt) {
    const int fields = sqlite3_column_int(stmt, 2);
    std::string values;
    for (int i = 0; i < fields && 4 + i < sqlite3_column_count(stmt); ++i)
      values += Cell(stmt, 4 + i);
    auto found = clean.recordForms.find(std::to_string(sqlite3_column_int64(stmt, 3)) +
                                        "|" + values);
    if (found != clean.recordForms.end()) recovered->right.insert(found->second);
  });
}

bool IsLostAndFound(sqlite3* db, const std::string& table) {
  std::vector<std::string> columns;
  EachRow(db, "PRAGMA table_info(\"" + table + "\");", [&](sqlite3_stmt* stmt) {
    columns.push_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1)));
  });
  return columns.size() > 4 && columns[2] == "nfield" && columns[3] == "id";
}

// What the file at `path` (keyed with `key`, or plain) holds of the writer's rows.
Recovered CountRecovered(const std::string& path, const std::string& key,
                         const CleanFile& clean, bool twoVersions,
                         const std::set<std::string>& intact) {
  Recovered recovered;
  Handle handle;
  if (!FileExists(path) || !OpenRead(&handle, path, key)) return recovered;
  std::vector<std::string> tables;
  EachRow(handle.db, "SELECT name FROM sqlite_master WHERE type = 'table';",
          [&](sqlite3_stmt* stmt) {
            tables.push_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)));
          });
  for (const std::string& table : tables) {
    if (clean.rowsBefore.count(table) == 0) {
      if (IsLostAndFound(handle.db, table))
        CountLostAndFound(handle.db, table, clean, &recovered);
      continue;
    }
    for (const auto& [rowid, values] : ReadTable(handle.db, table)) {
      const std::string name = table + "/" + std::to_string(rowid);
      if (IsWritten(clean, twoVersions, table, rowid, values)) {
        recovered.right.insert(name);
      } else {
        ++recovered.wrong;
        if (intact.count(name)) ++recovered.intactWrong;
        if (recovered.firstWrong.empty()) recovered.firstWrong = name;
      }
    }
  }
  return recovered;
}

long long CountIn(const std::set<std::string>& rows, const std::set<std::string>& among) {
  long long count = 0;
  for (const std::string& row : rows) count += among.count(row);
  return count;
}

// True when the build's shell knows `.recover`.
bool ShellHasRecover() {
  static const bool has = [] {
    std::string output;
    RunCommand(std::string("'") + IPC_DB_SQLCIPHER_SHELL + "' :memory: .help 2>&1",
               &output);
    return output.find(".recover") != std::string::npos;
  }();
  return has;
}

// ---- Per file ----

struct FileOutcome {
  long long intact = 0;
  long long salvaged = 0;        // right rows after Salvage()
  long long salvagedIntact = 0;  // of them, rows of intact pages
  long long salvagedWrong = 0;
  long long salvagedIntactWrong = 0;
  std::string firstWrong;
  long long recovered = -1;    // right rows from `.recover`; -1: not available
  bool recoverFailed = false;  // the shell reported an error
  long long repaired = 0;      // right rows after RepairDB
  bool salvageDone = false;    // kSalvaged
  bool crashed = false;
  bool leaked = false;
};

const char* LeakCheckName() {
#ifdef IPC_DB_CAMPAIGN_LSAN
  return "LeakSanitizer and SQLite's memory count";
#else
  return "SQLite's memory count";
#endif
}

// Salvage() in a child. Exit status: bit 1 set when the status was not
// kSalvaged, bit 0 when memory was left held.
int SalvageInChild(const std::string& dir, const std::string& key) {
  return InChild([&] {
    alarm(kSalvageSecondsLimit);
#ifdef IPC_DB_CAMPAIGN_LSAN
    const bool leakyBefore = __lsan_do_recoverable_leak_check() != 0;
#endif
    const sqlite3_int64 memoryBefore = sqlite3_memory_used();
    bool salvaged;
    {
      const ipc_db::SalvageResult result = ipc_db::Salvage(dir, kFile, key);
      salvaged = result.status == ipc_db::SalvageStatus::kSalvaged;
    }
    bool leaked = sqlite3_memory_used() != memoryBefore;
#ifdef IPC_DB_CAMPAIGN_LSAN
    leaked = leaked || (!leakyBefore && __lsan_do_recoverable_leak_check() != 0);
#endif
    return (salvaged ? 0 : 2) | (leaked ? 1 : 0);
  });
}

class SalvageCampaign : public testing::TestWithParam<std::tuple<bool, int>> {
 protected:
  std::string Path(const std::string& name = kFile) const { return dir_.Path() + name; }
  bool Keyed() const { return std::get<0>(GetParam()); }
  Damage DamageKind() const { return static_cast<Damage>(std::get<1>(GetParam())); }
  std::string Key() const { return Keyed() ? MakeKey('c') : ""; }

  void MakeClean(std::mt19937& random) {
    const std::string key = Key();
    ASSERT_EQ(WriteIndexedEvents(dir_.Path(), kFile, key, kEvents, kIndex), 0);
    ASSERT_TRUE(AddRawTables(Path(), key, random));
    clean_.before = ReadFileBytes(Path());
    for (const std::string& table : WriterTables())
      clean_.tables[table] = TracePages(Path(), key, table);
    TablePages& blobs = clean_.tables["t_blob"];
    ASSERT_TRUE(TraceOverflow(Path(), key, "t_blob", &blobs));
    clean_.index = TracePages(Path(), key, "t_event", kIndex, "Seq");
    clean_.pageSize = blobs.pageSize;
    clean_.schema = SchemaPages(Path(), key, clean_.pageSize);
    clean_.rowsBefore = ReadWriterRows(Path(), key);
    AddRecordForms(&clean_, Path(), key);
    ASSERT_TRUE(RunUpdate(Path(), key));
    clean_.after = ReadFileBytes(Path());
    clean_.rowsAfter = ReadWriterRows(Path(), key);
    clean_.pagesChangedByUpdate =
        PagesThatDiffer(clean_.before, clean_.after, clean_.pageSize);
    CheckClean();
  }

  void CheckClean() {
    for (const auto& [table, pages] : clean_.tables) EXPECT_TRUE(pages.ok) << table;
    EXPECT_EQ(clean_.tables["t_event"].leafOfRowid.size(), static_cast<size_t>(kEvents));
    EXPECT_EQ(clean_.tables["t_note"].leafOfRowid.size(), static_cast<size_t>(kNotes));
    EXPECT_EQ(clean_.tables["t_blob"].overflowOfRowid.size(),
              static_cast<size_t>(kBlobs));
    EXPECT_GT(clean_.schema.size(), 1u) << "the schema should spread over several pages";
    EXPECT_EQ(clean_.before.size(), clean_.after.size()) << "the update keeps every page";
    EXPECT_FALSE(clean_.pagesChangedByUpdate.empty());
    EXPECT_EQ(clean_.rowsBefore["t_event"].size(), static_cast<size_t>(kEvents));
    EXPECT_EQ(clean_.recordForms.size(), static_cast<size_t>(kEvents + kNotes + kBlobs));
    // The leak check reads SQLite's count of the memory it holds.
    Handle handle;
    ASSERT_EQ(sqlite3_open(":memory:", &handle.db), SQLITE_OK);
    EXPECT_GT(sqlite3_memory_used(), 0)
        << "SQLite does not count its memory: leaks go unseen";
  }

  void RemoveFiles() {
    for (const char* name : {"c.db", "c.db.damaged", "c.db.salvage", "c.db-journal",
                             "c.db.damaged-journal", "r.db", "r.db.new", "r.db-journal",
                             "recovered.db", "recover.sql", "recover.err"}) {
      std::remove(Path(name).c_str());
    }
  }

  void RunSalvage(const DamagedFile& damaged, const std::set<std::string>& intact,
                  FileOutcome* outcome) {
    WriteBytes(Path(), damaged.bytes);
    const int status = SalvageInChild(dir_.Path(), Key());
    outcome->crashed = !WIFEXITED(status);
    if (outcome->crashed) return;
    outcome->salvageDone = (WEXITSTATUS(status) & 2) == 0;
    outcome->leaked = (WEXITSTATUS(status) & 1) != 0;
    if (!outcome->salvageDone) return;
    const Recovered back =
        CountRecovered(Path(), Key(), clean_, damaged.twoVersions, intact);
    outcome->salvaged = static_cast<long long>(back.right.size());
    outcome->salvagedIntact = CountIn(back.right, intact);
    outcome->salvagedWrong = back.wrong;
    outcome->salvagedIntactWrong = back.intactWrong;
    outcome->firstWrong = back.firstWrong;
  }

  void RunRecover(const DamagedFile& damaged, const std::set<std::string>& intact,
                  FileOutcome* outcome) {
    if (!ShellHasRecover()) return;
    WriteBytes(Path("r.db"), damaged.bytes);
    std::ofstream(Path("recover.sql"))
        << (Keyed() ? ShellKeyLines(Key()) : "") << ".recover\n";
    const std::string shell = std::string("'") + IPC_DB_SQLCIPHER_SHELL + "' -batch ";
    std::string output;
    RunCommand(shell + "'" + Path("r.db") + "' < '" + Path("recover.sql") + "' 2>'" +
                   Path("recover.err") + "' | " + shell + "'" + Path("recovered.db") +
                   "' 2>&1",
               &output);
    // The shell says so when `.recover` cannot read the file at all (it
    // cannot read a keyed file on 4.6.1: "file is not a database").
    outcome->recoverFailed = !ReadFileBytes(Path("recover.err")).empty();
    outcome->recovered = static_cast<long long>(
        CountRecovered(Path("recovered.db"), "", clean_, damaged.twoVersions, intact)
            .right.size());
  }

  // Today's RepairDB on a copy, through the library, as the maintenance
  // worker runs it; the rows count only when it reports success.
  void RunRepair(const DamagedFile& damaged, const std::set<std::string>& intact,
                 FileOutcome* outcome) {
    WriteBytes(Path("r.db"), damaged.bytes);
    std::remove(Path("r.db.new").c_str());
    const std::string key = Key();
    std::vector<char> buffer(key.begin(), key.end());
    buffer.push_back('\0');
    Db db;
    ASSERT_EQ(db.Init(0, dir_.Path(), "r.db", "r.db-journal", buffer.data(),
                      static_cast<unsigned int>(key.size())),
              0);
    const long long repaired = db.m_pDBConn->RepairDB();
    db.UnInit();
    if (repaired != 0) return;
    outcome->repaired = static_cast<long long>(
        CountRecovered(Path("r.db"), key, clean_, damaged.twoVersions, intact)
            .right.size());
  }

  FileOutcome RunFile(std::mt19937& random, int number) {
    SCOPED_TRACE(std::string(DamageName(DamageKind())) + ", file " +
                 std::to_string(number));
    RemoveFiles();
    FileOutcome outcome;
    const DamagedFile damaged = Damaged(clean_, DamageKind(), Path(), Key(), random);
    const std::set<std::string> intact =
        IntactRows(clean_, PageStates(clean_, damaged, Keyed()));
    outcome.intact = static_cast<long long>(intact.size());
    RunSalvage(damaged, intact, &outcome);
    RunRecover(damaged, intact, &outcome);
    RunRepair(damaged, intact, &outcome);
    CheckFile(outcome, number);
    return outcome;
  }

  // Crashes and leaks fail every run; the goals are checked per test.
  void CheckFile(const FileOutcome& outcome, int number) {
    EXPECT_FALSE(outcome.crashed) << "Salvage() died";
    EXPECT_FALSE(outcome.leaked) << "Salvage() left memory held";
    if (outcome.salvagedWrong > 0) {
      std::printf(
          "salvage campaign: %s %s file %d: %lld rows salvaged changed, first %s\n",
          Keyed() ? "keyed" : "plain", DamageName(DamageKind()), number,
          outcome.salvagedWrong, outcome.firstWrong.c_str());
    }
    if (outcome.recovered > outcome.salvaged || outcome.salvagedIntact < outcome.intact) {
      std::printf(
          "salvage campaign: %s %s file %d: intact %lld, salvaged %lld (of intact %lld, "
          "wrong %lld), .recover %lld, RepairDB %lld\n",
          Keyed() ? "keyed" : "plain", DamageName(DamageKind()), number, outcome.intact,
          outcome.salvaged, outcome.salvagedIntact, outcome.salvagedWrong,
          outcome.recovered, outcome.repaired);
    }
  }

  TestEnv env_;  // RepairDB reaches the repair tool's stand-in
  TempDir dir_;
  CleanFile clean_;
};

struct Totals {
  long long files = 0, intact = 0, salvaged = 0, salvagedIntact = 0, salvagedWrong = 0;
  long long salvagedIntactWrong = 0;
  long long recovered = 0, repaired = 0, worseThanRecover = 0, crashes = 0, leaks = 0;
  long long notSalvaged = 0, recoverFailed = 0;

  void Add(const FileOutcome& outcome) {
    ++files;
    intact += outcome.intact;
    salvaged += outcome.salvaged;
    salvagedIntact += outcome.salvagedIntact;
    salvagedWrong += outcome.salvagedWrong;
    salvagedIntactWrong += outcome.salvagedIntactWrong;
    recovered += outcome.recovered < 0 ? 0 : outcome.recovered;
    repaired += outcome.repaired;
    worseThanRecover += outcome.recovered > outcome.salvaged ? 1 : 0;
    crashes += outcome.crashed ? 1 : 0;
    leaks += outcome.leaked ? 1 : 0;
    notSalvaged += !outcome.crashed && !outcome.salvageDone ? 1 : 0;
    recoverFailed += outcome.recoverFailed ? 1 : 0;
  }
};

TEST_P(SalvageCampaign, DamagedFiles) {
  const auto started = std::chrono::steady_clock::now();
  LogCapture log;  // the library's notes at each open, close and repair
  std::mt19937 random(Seed() * 31u +
                      static_cast<unsigned>(std::get<1>(GetParam())) * 7919u +
                      (Keyed() ? 1u : 0u));
  MakeClean(random);
  if (HasFatalFailure()) return;
  const int files = FullScale() ? kFullFilesPerDamage : kQuickFilesPerDamage;
  Totals totals;
  for (int i = 0; i < files; ++i) totals.Add(RunFile(random, i));
  RemoveFiles();
  const bool recoverAvailable = ShellHasRecover();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  JsonObject json;
  json.Add("kind", Keyed() ? "keyed" : "plain")
      .Add("engine", EngineCipherVersion())
      .Add("damage", DamageName(DamageKind()))
      .Add("seed", static_cast<long long>(Seed()))
      .Add("scale", FullScale() ? "full" : "quick")
      .Add("files", totals.files)
      .Add("rows_intact", totals.intact)
      .Add("rows_salvaged", totals.salvaged)
      .Add("rows_intact_salvaged", totals.salvagedIntact)
      .Add("rows_salvaged_wrong", totals.salvagedWrong)
      .Add("rows_intact_salvaged_wrong", totals.salvagedIntactWrong)
      .AddRaw("rows_recover",
              recoverAvailable ? std::to_string(totals.recovered) : "null")
      .Add("rows_repair_today", totals.repaired)
      .AddRaw("files_worse_than_recover",
              recoverAvailable ? std::to_string(totals.worseThanRecover) : "null")
      .AddRaw("files_recover_reported_errors",
              recoverAvailable ? std::to_string(totals.recoverFailed) : "null")
      .Add("files_not_salvaged", totals.notSalvaged)
      .Add("crashes", totals.crashes)
      .Add("leaks", totals.leaks)
      .Add("leak_check", LeakCheckName())
      .Add("seconds", seconds);
  WriteResultJson("salvage",
                  "campaign-" + std::string(Keyed() ? "keyed-" : "plain-") +
                      DamageName(DamageKind()) + "-" + ResultName(EngineCipherVersion()),
                  json.Text());
  std::printf(
      "salvage campaign: %s %s on %s: %lld files, rows intact %lld, salvaged %lld (of "
      "intact %lld), .recover %s, RepairDB %lld, worse than .recover %lld, crashes %lld, "
      "leaks %lld, %.1f s\n",
      Keyed() ? "keyed" : "plain", DamageName(DamageKind()),
      EngineCipherVersion().c_str(), totals.files, totals.intact, totals.salvaged,
      totals.salvagedIntact,
      recoverAvailable ? std::to_string(totals.recovered).c_str() : "not available",
      totals.repaired, totals.worseThanRecover, totals.crashes, totals.leaks, seconds);
  if (GoalsChecked()) {
    if (EngineIsSqlcipher4()) {
      EXPECT_GE(totals.salvagedIntact * 100, totals.intact * 99)
          << "goal: 99% of intact rows";
    }
    EXPECT_EQ(totals.worseThanRecover, 0) << "goal: never fewer rows than .recover";
    // A row of an intact page comes back as written (a damaged schema can
    // give its table other columns).
    EXPECT_EQ(totals.salvagedIntactWrong, 0) << "goal: intact rows come back unchanged";
    // A keyed page is checked when read: a row that comes back changed
    // (both engines read a zeroed last overflow page as zeros in the value)
    // should not be written.
    if (Keyed()) {
      EXPECT_EQ(totals.salvagedWrong, 0) << "goal: no changed rows from a keyed file";
    }
  }
}

std::string ParamName(const testing::TestParamInfo<std::tuple<bool, int>>& info) {
  return std::string(std::get<0>(info.param) ? "keyed_" : "plain_") +
         DamageName(static_cast<Damage>(std::get<1>(info.param)));
}

INSTANTIATE_TEST_SUITE_P(Campaign, SalvageCampaign,
                         testing::Combine(testing::Bool(),
                                          testing::Range(0, kDamageKinds)),
                         ParamName);

}  // namespace
