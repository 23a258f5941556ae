// ipc_db::Salvage (companion header) on real damaged files, keyed and
// plain. Each file is written through the library: table t_event (1000
// events, AUTOINCREMENT ids, an index on Seq) and t_note (rows with chosen
// rowids and no INTEGER PRIMARY KEY). Before the damage the file is read
// in rowid order through a page-tracing VFS (support/PageTrace.h), which
// tells on which leaf page each row lives and which pages are interior. The
// damage, drawn from a seed (printed; IPC_DB_SALVAGE_SEED replays), hits
// only leaf pages of t_event or of its index, or cuts the file after its
// interior pages: changed bytes, a zeroed leaf, a truncation, an index
// page, a leaf in the middle, a leaf between two damaged ones, the first
// and the last leaf. The salvaged file must open through the library with
// the key, hold every row whose leaf was left intact, exactly as written,
// keep its indexes and counters, pass integrity_check, and have the
// damaged original beside it; the result's figures must match what the
// file holds. On SQLCipher 4.x every case is also read by the engine
// shell's .recover, and salvage must give back no fewer rows of either
// table. A damaged table root and a damaged interior page below the root
// (no rowid seek passes them) must lose no row on 4.6.1, where the page
// reads run, and are reported in engine_note on 3.4.1. The figures go to
// results/salvage.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "ConnTestSupport.h"
#include "EngineFormat.h"
#include "PageTrace.h"
#include "ReliabilityTestSupport.h"
#include "TestSupport.h"
#include "ipc_db_helpers.h"

using namespace ipc_db_test;

namespace {

constexpr int kRows = 1000;
constexpr int kNotes = 50;
constexpr const char* kFile = "s.db";
constexpr const char* kIndex = "idx_event_seq";

enum class Damage {
  kChangedBytes,
  kZeroedLeaf,
  kTruncated,
  kIndexPage,
  kMiddleLeaf,
  kSandwichedLeaf,
  kEdgeLeaves,
};

const char* DamageName(Damage damage) {
  switch (damage) {
    case Damage::kChangedBytes: return "changed bytes";
    case Damage::kZeroedLeaf: return "zeroed leaf";
    case Damage::kTruncated: return "truncated";
    case Damage::kIndexPage: return "index page";
    case Damage::kMiddleLeaf: return "middle leaf";
    case Damage::kSandwichedLeaf: return "leaf between two damaged leaves";
    case Damage::kEdgeLeaves: return "first and last leaf";
  }
  return "?";
}

// True when the engine has the sqlite_dbpage table (page-by-page reads):
// the pinned SQLCipher 4.6.1 has it, SQLite 3.15 has not.
bool EngineHasPageReads() {
  sqlite3* db = nullptr;
  sqlite3_stmt* stmt = nullptr;
  const bool has = sqlite3_open(":memory:", &db) == SQLITE_OK &&
                   sqlite3_prepare_v2(db, "SELECT data FROM sqlite_dbpage;", -1, &stmt,
                                      nullptr) == SQLITE_OK;
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return has;
}

unsigned Seed() {
  static const unsigned seed = [] {
    const char* fixed = std::getenv("IPC_DB_SALVAGE_SEED");
    const unsigned value = fixed != nullptr
                               ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10))
                               : std::random_device{}();
    std::printf("salvage_test: seed %u (IPC_DB_SALVAGE_SEED=%u replays), engine %s\n", value,
                value, EngineCipherVersion().c_str());
    return value;
  }();
  return seed;
}

void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// The intact file and where its rows live.
struct IntactFile {
  std::string bytes;
  TablePages events;
  TablePages index;
  TablePages notes;
};

// A damaged copy: its bytes and the pages the damage reached (every page
// from `cutFrom` on is gone; 0: no cut).
struct DamagedFile {
  std::string bytes;
  std::set<long long> pages;
  long long cutFrom = 0;
};

// One column row of t_event as read back raw.
struct EventRow {
  long long batch, seq, value;
  std::string text;
};

class SalvageTest : public testing::Test {
 protected:
  std::string Path(const std::string& name = kFile) const { return dir_.Path() + name; }

  // Writes the file through the library and traces its pages.
  IntactFile MakeIntact(const std::string& key) {
    IntactFile intact;
    EXPECT_EQ(WriteIndexedEvents(dir_.Path(), kFile, key, kRows, kIndex), 0);
    {
      Db db;
      EXPECT_EQ(OpenEventDb(db, dir_.Path(), kFile, key), 0);
      std::string notes = "INSERT INTO t_note (rowid, Seq, Text) VALUES ";
      for (int i = 1; i <= kNotes; ++i) {
        notes += (i > 1 ? ", (" : "(") + std::to_string(i * 1000) + ", " + std::to_string(i) +
                 ", 'note-" + std::to_string(i) + "')";
      }
      EXPECT_EQ(db.m_pDBConn->ExecuteSQL("CREATE TABLE t_note (Seq INTEGER, Text CHAR(24));",
                                         nullptr, DB_EXEC_SQL_SYNC),
                0);
      EXPECT_EQ(db.m_pDBConn->ExecuteSQL((notes + ";").c_str(), nullptr, DB_EXEC_SQL_SYNC), 0);
      db.CloseDB();
      db.UnInit();
    }
    intact.bytes = ReadFileBytes(Path());
    intact.events = TracePages(Path(), key, "t_event");
    intact.index = TracePages(Path(), key, "t_event", kIndex, "Seq");
    intact.notes = TracePages(Path(), key, "t_note");
    EXPECT_TRUE(intact.events.ok && intact.index.ok && intact.notes.ok);
    EXPECT_EQ(intact.events.leafOfRowid.size(), static_cast<size_t>(kRows));
    EXPECT_GT(intact.events.leaves.size(), 4u);
    return intact;
  }

  // The leaves of t_event in rowid order.
  static std::vector<long long> LeavesInOrder(const IntactFile& intact) {
    std::vector<long long> order;
    for (const auto& [rowid, leaf] : intact.events.leafOfRowid) {
      if (order.empty() || order.back() != leaf) order.push_back(leaf);
    }
    return order;
  }

  static void ZeroPage(std::string* bytes, long long page, long long pageSize) {
    std::fill(bytes->begin() + (page - 1) * pageSize, bytes->begin() + page * pageSize, '\0');
  }

  static void ChangeBytes(std::string* bytes, long long page, long long pageSize,
                          std::mt19937& random) {
    std::uniform_int_distribution<long long> offset(0, pageSize - 1);
    for (int i = 0; i < 4; ++i) {
      const long long at = (page - 1) * pageSize + offset(random);
      (*bytes)[at] = static_cast<char>((*bytes)[at] ^ 0x5A);
    }
  }

  static DamagedFile Damaged(const IntactFile& intact, Damage damage, std::mt19937& random) {
    DamagedFile damaged{intact.bytes, {}, 0};
    const long long pageSize = intact.events.pageSize;
    const std::vector<long long> leaves = LeavesInOrder(intact);
    std::uniform_int_distribution<size_t> anyLeaf(0, leaves.size() - 1);
    std::uniform_int_distribution<size_t> innerLeaf(1, leaves.size() - 4);
    switch (damage) {
      case Damage::kChangedBytes: {
        const long long page = leaves[anyLeaf(random)];
        ChangeBytes(&damaged.bytes, page, pageSize, random);
        damaged.pages.insert(page);
        break;
      }
      case Damage::kZeroedLeaf:
        damaged.pages.insert(leaves[anyLeaf(random)]);
        break;
      case Damage::kTruncated: {
        // After every interior page, page 1 and the schema, inside the leaves.
        const long long lowest = *intact.events.interior.rbegin() + 1;
        const long long highest = *intact.events.leaves.rbegin();
        std::uniform_int_distribution<long long> cut(std::max(lowest, leaves[1] + 1), highest);
        damaged.cutFrom = cut(random);
        damaged.bytes.resize(static_cast<size_t>((damaged.cutFrom - 1) * pageSize));
        break;
      }
      case Damage::kIndexPage: {
        std::vector<long long> pages(intact.index.leaves.begin(), intact.index.leaves.end());
        std::uniform_int_distribution<size_t> pick(0, pages.size() - 1);
        damaged.pages.insert(pages[pick(random)]);
        break;
      }
      case Damage::kMiddleLeaf:
        damaged.pages.insert(intact.events.leafOfRowid.at(kRows / 2));
        break;
      case Damage::kSandwichedLeaf: {
        const size_t at = innerLeaf(random);
        damaged.pages.insert(leaves[at]);
        damaged.pages.insert(leaves[at + 2]);
        break;
      }
      case Damage::kEdgeLeaves:
        damaged.pages.insert(leaves.front());
        damaged.pages.insert(leaves.back());
        break;
    }
    if (damage == Damage::kChangedBytes) return damaged;
    for (long long page : damaged.pages) {
      // A zeroed leaf is zeroed; the other kinds take either damage by the draw.
      if (damage == Damage::kZeroedLeaf || random() % 2 == 0) {
        ZeroPage(&damaged.bytes, page, pageSize);
      } else {
        ChangeBytes(&damaged.bytes, page, pageSize, random);
      }
    }
    return damaged;
  }

  // The rowids of a table whose leaf the damage left intact.
  static std::set<long long> IntactRowids(const TablePages& table, const DamagedFile& damaged) {
    std::set<long long> rowids;
    for (const auto& [rowid, leaf] : table.leafOfRowid) {
      const bool cut = damaged.cutFrom > 0 && leaf >= damaged.cutFrom;
      if (!cut && damaged.pages.count(leaf) == 0) rowids.insert(rowid);
    }
    return rowids;
  }

  // Rows of t_event in the file, read raw, by rowid.
  static std::map<long long, EventRow> ReadEvents(const std::string& path, const std::string& key) {
    std::map<long long, EventRow> rows;
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        (key.empty() || KeyInLibraryFormat(db, key) == SQLITE_OK) &&
        sqlite3_prepare_v2(db, "SELECT Id, Batch, Seq, Value, Text FROM t_event;", -1, &stmt,
                           nullptr) == SQLITE_OK) {
      while (sqlite3_step(stmt) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(stmt, 4);
        rows[sqlite3_column_int64(stmt, 0)] = {
            sqlite3_column_int64(stmt, 1), sqlite3_column_int64(stmt, 2),
            sqlite3_column_int64(stmt, 3),
            text == nullptr ? std::string() : reinterpret_cast<const char*>(text)};
      }
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
  }

  static std::string Scalar(const std::string& path, const std::string& key,
                            const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    std::string value = "<none>";
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        (key.empty() || KeyInLibraryFormat(db, key) == SQLITE_OK) &&
        sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
      const unsigned char* text = sqlite3_column_text(stmt, 0);
      value = text == nullptr ? "<null>" : reinterpret_cast<const char*>(text);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return value;
  }

  static const ipc_db::SalvageTable* TableOf(const ipc_db::SalvageResult& result,
                                              const std::string& name) {
    for (const ipc_db::SalvageTable& table : result.tables) {
      if (table.name == name) return &table;
    }
    return nullptr;
  }

  // The rows t_event gives back through the library on the salvaged file.
  long long CountThroughLibrary(const std::string& key) {
    Db db;
    EXPECT_EQ(OpenEventDb(db, dir_.Path(), kFile, key), 0);
    std::unique_ptr<Table> table(db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    EXPECT_NE(table, nullptr);
    DbFilters all(0);
    const long long count = table == nullptr ? -1 : table->get_item_cnt(all);
    table.reset();
    db.CloseDB();
    db.UnInit();
    return count;
  }

  // Damages, salvages and checks one case; returns its figures as JSON.
  std::string RunCase(const IntactFile& intact, const std::string& key, Damage damage,
                      int index, std::mt19937& random) {
    const bool keyed = !key.empty();
    SCOPED_TRACE(std::string(keyed ? "keyed, " : "plain, ") + DamageName(damage) + ", case " +
                 std::to_string(index));
    const DamagedFile damaged = Damaged(intact, damage, random);
    for (const char* name : {"s.db", "s.db.damaged", "s.db.salvage"}) std::remove(Path(name).c_str());
    WriteBytes(Path(), damaged.bytes);
    // What the engine shell's .recover gives on the same file (4.x).
    const long long eventsByRecover =
        EngineIsSqlcipher4() ? RowsByShellRecover(Path(), key, "t_event") : -1;
    const long long notesByRecover =
        EngineIsSqlcipher4() ? RowsByShellRecover(Path(), key, "t_note") : -1;
    const ipc_db::SalvageResult result = ipc_db::Salvage(dir_.Path(), kFile, key);
    EXPECT_EQ(result.status, ipc_db::SalvageStatus::kSalvaged) << result.detail;
    const ipc_db::SalvageTable* events = TableOf(result, "t_event");
    const ipc_db::SalvageTable* notes = TableOf(result, "t_note");
    EXPECT_TRUE(events != nullptr && events->copied);
    EXPECT_TRUE(notes != nullptr && notes->copied);
    if (events == nullptr || notes == nullptr) return "{}";
    EXPECT_GE(events->rows, eventsByRecover);
    EXPECT_GE(notes->rows, notesByRecover);

    // The original beside the new file, byte for byte; no leftovers.
    EXPECT_EQ(ReadFileBytes(Path("s.db.damaged")), damaged.bytes);
    EXPECT_FALSE(FileExists(Path("s.db.salvage")));

    // Every row of an intact leaf, exactly as written.
    const std::set<long long> expected = IntactRowids(intact.events, damaged);
    const std::set<long long> notesExpected = IntactRowids(intact.notes, damaged);
    const std::map<long long, EventRow> rows = ReadEvents(Path(), key);
    long long intactBack = 0;
    for (long long rowid : expected) {
      auto found = rows.find(rowid);
      const Event written = MakeEvent(1, static_cast<int32_t>(rowid - 1), 5);
      const bool same = found != rows.end() && found->second.batch == written.batch &&
                        found->second.seq == written.seq && found->second.value == written.value &&
                        found->second.text == written.text;
      EXPECT_TRUE(same) << "row " << rowid << " of an intact leaf";
      if (same) ++intactBack;
    }
    EXPECT_EQ(static_cast<long long>(rows.size()), events->rows);
    EXPECT_EQ(CountThroughLibrary(key), events->rows);
    // t_note has no INTEGER PRIMARY KEY: its rows keep their rowids too.
    EXPECT_EQ(notes->rows, static_cast<long long>(notesExpected.size()));
    EXPECT_EQ(Scalar(Path(), key, "SELECT count(*) FROM t_note WHERE rowid = Seq * 1000 AND "
                                  "Text = 'note-' || Seq;"),
              std::to_string(notesExpected.size()));
    EXPECT_EQ(Scalar(Path(), key, "PRAGMA integrity_check;"), "ok");
    EXPECT_EQ(Scalar(Path(), key, std::string("SELECT count(*) FROM sqlite_master WHERE type = "
                                              "'index' AND name = '") + kIndex + "';"),
              "1");
    EXPECT_EQ(Scalar(Path(), key, "SELECT seq FROM sqlite_sequence WHERE name = 't_event';"),
              std::to_string(kRows));
    EXPECT_TRUE(result.schema_not_restored.empty());
    if (static_cast<long long>(rows.size()) < kRows) {
      EXPECT_GE(events->damaged_stretches, 1);
    }
    EXPECT_EQ(result.pages_unreadable >= 0, EngineHasPageReads());
    EXPECT_LE(result.pages_unreadable, result.pages_in_file);

    std::printf("salvage_test: %s %s, %s: written %d, on intact leaves %zu, back of those %lld, "
                "rows back %lld (%lld by page reads, %lld by the shell's .recover), stretches %lld, "
                "range reads %lld%s, pages unreadable %lld of %lld\n",
                EngineCipherVersion().c_str(), keyed ? "keyed" : "plain", DamageName(damage),
                kRows, expected.size(), intactBack, events->rows, events->rows_from_pages,
                eventsByRecover, events->damaged_stretches,
                events->range_reads, events->budget_reached ? " (budget reached)" : "",
                result.pages_unreadable, result.pages_in_file);
    JsonObject json;
    json.Add("keyed", keyed)
        .Add("damage", DamageName(damage))
        .Add("rows_written", kRows)
        .Add("rows_on_intact_leaves", static_cast<long long>(expected.size()))
        .Add("intact_rows_recovered", intactBack)
        .Add("rows_recovered", events->rows)
        .Add("rows_by_page_reads", events->rows_from_pages)
        .Add("rows_by_shell_recover", eventsByRecover)
        .Add("rows_unattributed", result.rows_unattributed)
        .Add("damaged_stretches", events->damaged_stretches)
        .Add("range_reads", events->range_reads)
        .Add("budget_reached", events->budget_reached)
        .Add("pages_damaged", static_cast<long long>(damaged.pages.size()))
        .Add("pages_unreadable", result.pages_unreadable)
        .Add("pages_in_file", result.pages_in_file);
    return json.Text();
  }

  void RunDamage(Damage damage, int cases) {
    LogCapture log;  // the library's notes at each open and close
    std::mt19937 random(Seed() + static_cast<unsigned>(damage) * 7919u);
    std::vector<std::string> items;
    for (bool keyed : {false, true}) {
      const std::string key = keyed ? MakeKey('s') : "";
      const IntactFile intact = MakeIntact(key);
      if (HasFailure()) return;
      for (int i = 0; i < cases && !HasFatalFailure(); ++i) {
        items.push_back(RunCase(intact, key, damage, i, random));
      }
      for (const char* name : {"s.db", "s.db.damaged", "s.db.salvage"}) {
        std::remove(Path(name).c_str());
      }
    }
    WriteResultJson("salvage", ResultName(DamageName(damage)) + "-" + ResultName(EngineCipherVersion()),
                    JsonList(items));
  }

  // Rows of `table` that the engine shell's .recover gives back from the
  // file at `path` (keyed as the library keys), loaded into a scratch
  // database. 4.x only: SQLite 3.15's shell has no .recover.
  static long long RowsByShellRecover(const std::string& path, const std::string& key,
                                      const std::string& table) {
    std::string script;
    RunShell(path, key, ".recover", &script);
    sqlite3* db = nullptr;
    long long rows = -1;
    if (sqlite3_open(":memory:", &db) == SQLITE_OK) {
      sqlite3_exec(db, script.c_str(), nullptr, nullptr, nullptr);
      sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr);
      sqlite3_stmt* stmt = nullptr;
      rows = 0;
      if (sqlite3_prepare_v2(db, ("SELECT count(*) FROM \"" + table + "\";").c_str(), -1, &stmt,
                             nullptr) == SQLITE_OK &&
          sqlite3_step(stmt) == SQLITE_ROW) {
        rows = sqlite3_column_int64(stmt, 0);
      }
      sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return rows;
  }

  // Damages interior page `page` of t_event (a keyed page gets changed
  // bytes, SQLCipher reading an all-zero page as empty rather than
  // damaged; a plain page is zeroed), salvages, and checks: on 4.6.1 every
  // one of the `written` rows comes back exactly, all leaves being intact,
  // and no fewer than the shell's .recover gives; on 3.4.1 the result says
  // that this engine cannot and counts no pages.
  void CheckInteriorDamage(const IntactFile& intact, const std::string& key, long long page,
                           const char* what, int written, std::mt19937& random) {
    const bool keyed = !key.empty();
    SCOPED_TRACE(std::string(keyed ? "keyed" : "plain") + ", damaged " + what + " " +
                 std::to_string(page));
    for (const char* name : {"s.db", "s.db.damaged", "s.db.salvage"}) std::remove(Path(name).c_str());
    std::string bytes = intact.bytes;
    if (keyed) {
      ChangeBytes(&bytes, page, intact.events.pageSize, random);
    } else {
      ZeroPage(&bytes, page, intact.events.pageSize);
    }
    WriteBytes(Path(), bytes);
    const long long byRecover =
        EngineIsSqlcipher4() ? RowsByShellRecover(Path(), key, "t_event") : -1;
    const ipc_db::SalvageResult result = ipc_db::Salvage(dir_.Path(), kFile, key);
    ASSERT_EQ(result.status, ipc_db::SalvageStatus::kSalvaged) << result.detail;
    const ipc_db::SalvageTable* events = TableOf(result, "t_event");
    ASSERT_TRUE(events != nullptr);
    const std::map<long long, EventRow> rows = ReadEvents(Path(), key);
    EXPECT_EQ(static_cast<long long>(rows.size()), events->rows);
    EXPECT_EQ(Scalar(Path(), key, "PRAGMA integrity_check;"), "ok");
    std::printf("salvage_test: %s %s, damaged %s: rows written %d, back %lld (%lld by page "
                "reads), by the shell's .recover %lld, unattributed %lld, pages unreadable "
                "%lld\n",
                EngineCipherVersion().c_str(), keyed ? "keyed" : "plain", what, written,
                events->rows, events->rows_from_pages, byRecover, result.rows_unattributed,
                result.pages_unreadable);
    if (!EngineIsSqlcipher4()) {
      EXPECT_EQ(result.pages_unreadable, -1);
      EXPECT_EQ(result.rows_unattributed, -1);
      EXPECT_NE(result.engine_note.find("has no recovery API"), std::string::npos)
          << result.engine_note;
      return;
    }
    EXPECT_NE(result.engine_note.find("page by page"), std::string::npos) << result.engine_note;
    EXPECT_EQ(result.rows_unattributed, 0);
    if (keyed) {
      EXPECT_GE(result.pages_unreadable, 1);
    }
    long long same = 0;
    for (long long rowid = 1; rowid <= written; ++rowid) {
      auto found = rows.find(rowid);
      const Event event = MakeEvent(1, static_cast<int32_t>(rowid - 1), 5);
      if (found != rows.end() && found->second.batch == event.batch &&
          found->second.seq == event.seq && found->second.value == event.value &&
          found->second.text == event.text) {
        ++same;
      }
    }
    EXPECT_EQ(same, written) << "every row sits on an intact leaf";
    EXPECT_GT(events->rows_from_pages, 0);
    EXPECT_GE(events->rows, byRecover);
    EXPECT_EQ(CountThroughLibrary(key), written);
  }

  static long long RootOf(const std::string& path, const std::string& key) {
    return std::stoll(
        Scalar(path, key, "SELECT rootpage FROM sqlite_master WHERE name = 't_event';"));
  }

  TempDir dir_;
  EventSchema schema_;
};

TEST_F(SalvageTest, IntactFileComesBackWhole) {
  LogCapture log;  // the library's notes at each open and close
  for (bool keyed : {false, true}) {
    const std::string key = keyed ? MakeKey('s') : "";
    const IntactFile intact = MakeIntact(key);
    const ipc_db::SalvageResult result = ipc_db::Salvage(dir_.Path(), kFile, key);
    ASSERT_EQ(result.status, ipc_db::SalvageStatus::kSalvaged) << result.detail;
    ASSERT_NE(TableOf(result, "t_event"), nullptr);
    EXPECT_EQ(TableOf(result, "t_event")->rows, kRows);
    EXPECT_EQ(TableOf(result, "t_event")->damaged_stretches, 0);
    EXPECT_EQ(TableOf(result, "t_event")->range_reads, 1);
    EXPECT_EQ(result.pages_unreadable, EngineHasPageReads() ? 0 : -1);
    EXPECT_EQ(ReadFileBytes(Path("s.db.damaged")), intact.bytes);
    EXPECT_EQ(CountThroughLibrary(key), kRows);
    EXPECT_FALSE(result.engine_note.empty());
    std::remove(Path("s.db").c_str());
    std::remove(Path("s.db.damaged").c_str());
  }
}

TEST_F(SalvageTest, WrongKeyOrNoKeyChangesNothing) {
  LogCapture log;
  const IntactFile intact = MakeIntact(MakeKey('s'));
  for (const std::string& key : {MakeKey('t'), std::string()}) {
    const ipc_db::SalvageResult result = ipc_db::Salvage(dir_.Path(), kFile, key);
    EXPECT_EQ(result.status, ipc_db::SalvageStatus::kUnreadable);
    EXPECT_EQ(result.code & 0xff, SQLITE_NOTADB);
    EXPECT_EQ(ReadFileBytes(Path()), intact.bytes);
    EXPECT_FALSE(FileExists(Path("s.db.salvage")));
    EXPECT_FALSE(FileExists(Path("s.db.damaged")));
  }
  EXPECT_EQ(ipc_db::Salvage(dir_.Path(), "missing.db", "").status,
            ipc_db::SalvageStatus::kNotFound);
  EXPECT_EQ(ipc_db::Salvage(dir_.Path(), kFile, std::string(65, 'k')).status,
            ipc_db::SalvageStatus::kBadArgument);
}

// A damaged table root: with 1000 rows t_event's tree has two levels, its
// root the only interior page. No rowid seek passes it.
TEST_F(SalvageTest, DamagedTableRoot) {
  LogCapture log;
  std::mt19937 random(Seed());
  for (bool keyed : {false, true}) {
    const std::string key = keyed ? MakeKey('s') : "";
    const IntactFile intact = MakeIntact(key);
    ASSERT_FALSE(HasFailure());
    const long long root = RootOf(Path(), key);
    ASSERT_EQ(intact.events.interior.count(root), 1u);
    CheckInteriorDamage(intact, key, root, "table root", kRows, random);
    if (EngineIsSqlcipher4()) {
      EXPECT_EQ(Scalar(Path(), key, "SELECT count(*) FROM t_note;"), std::to_string(kNotes));
    }
    for (const char* name : {"s.db", "s.db.damaged", "s.db.salvage"}) std::remove(Path(name).c_str());
  }
}

// A damaged interior page below the root: t_event gets a tree of three
// levels with 40000 rows on a keyed file's 1024-byte pages, with 100000 on
// a plain file's 4096-byte pages.
TEST_F(SalvageTest, DamagedInteriorPageBelowTheRoot) {
  LogCapture log;
  std::mt19937 random(Seed() + 1);
  for (bool keyed : {false, true}) {
    const std::string key = keyed ? MakeKey('s') : "";
    const int kDeepRows = keyed ? 40000 : 100000;
    for (const char* name : {"s.db", "s.db.damaged", "s.db.salvage"}) std::remove(Path(name).c_str());
    ASSERT_EQ(WriteIndexedEvents(dir_.Path(), kFile, key, kDeepRows, kIndex), 0);
    IntactFile intact;
    intact.bytes = ReadFileBytes(Path());
    intact.events = TracePages(Path(), key, "t_event");
    ASSERT_TRUE(intact.events.ok);
    const long long root = RootOf(Path(), key);
    std::vector<long long> below;
    for (long long page : intact.events.interior) {
      if (page != root) below.push_back(page);
    }
    ASSERT_GE(below.size(), 2u) << "the tree has a level between root and leaves: rows "
                                << intact.events.leafOfRowid.size() << ", leaves "
                                << intact.events.leaves.size() << ", interior "
                                << intact.events.interior.size();
    std::uniform_int_distribution<size_t> pick(0, below.size() - 1);
    CheckInteriorDamage(intact, key, below[pick(random)], "interior page", kDeepRows, random);
    for (const char* name : {"s.db", "s.db.damaged", "s.db.salvage"}) std::remove(Path(name).c_str());
  }
}

TEST_F(SalvageTest, ChangedBytesInALeaf) { RunDamage(Damage::kChangedBytes, 3); }
TEST_F(SalvageTest, ZeroedLeaf) { RunDamage(Damage::kZeroedLeaf, 3); }
TEST_F(SalvageTest, Truncated) { RunDamage(Damage::kTruncated, 3); }
TEST_F(SalvageTest, DamagedIndexPage) { RunDamage(Damage::kIndexPage, 2); }
TEST_F(SalvageTest, DamagedLeafInTheMiddle) { RunDamage(Damage::kMiddleLeaf, 1); }
TEST_F(SalvageTest, IntactLeafBetweenTwoDamagedOnes) { RunDamage(Damage::kSandwichedLeaf, 3); }
TEST_F(SalvageTest, FirstAndLastLeaf) { RunDamage(Damage::kEdgeLeaves, 1); }

}  // namespace
