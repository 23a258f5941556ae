// Power cuts during a salvage (ipc_db::Salvage, companion header). A file
// of events is written through the library, keyed and plain, and a leaf in
// the middle of its table is damaged. A forked child salvages a copy with
// the swap's file operations routed through the fault VFS (FaultVfs::Link,
// Rename, Unlink, SyncFile, SyncDirectory), so that the power model sees
// them beside SQLite's own writes and syncs of the new file; a dry run
// counts the durable operations, then one child per point cuts the power
// right after the n-th of them (every one, and once after Salvage returned),
// with the model's seeded choices (support/FaultVfs.h). After each cut the
// file under the database's name must either be the damaged original,
// byte for byte (it reads all the rows it read before), or the complete
// salvaged file: it opens through the library with the key, passes
// integrity_check and holds exactly the rows of the dry run's salvage; and
// then the original is beside it as <file>.damaged, byte for byte.
// Figures go to results/faults/salvage_power_cut.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "EngineFormat.h"
#include "FaultCampaign.h"
#include "FaultVfs.h"
#include "PageTrace.h"
#include "TestResults.h"
#include "ipc_db_helpers.h"

using namespace ipc_db_test;

namespace {

constexpr int kRows = 300;
constexpr const char* kFile = "s.db";
// The last durable operations of a salvage, which hold its swap (syncs,
// link, rename, unlinks), and the cuts drawn at each of them.
constexpr unsigned long long kSwapTail = 10;
constexpr int kDrawsInTheSwap = 8;

const ipc_db::SalvageFileOps& FaultOps() {
  static ipc_db::SalvageFileOps ops = [] {
    ipc_db::SalvageFileOps fault;
    fault.link_file = FaultVfs::Link;
    fault.rename_file = FaultVfs::Rename;
    fault.unlink_file = FaultVfs::Unlink;
    fault.sync_file = FaultVfs::SyncFile;
    fault.sync_directory = FaultVfs::SyncDirectory;
    return fault;
  }();
  return ops;
}

// Every row of t_event, rendered, by rowid; empty when the file does not
// read whole.
std::map<long long, std::string> ReadRows(const std::string& path, const std::string& key) {
  std::map<long long, std::string> rows;
  sqlite3* db = nullptr;
  sqlite3_stmt* stmt = nullptr;
  bool whole = false;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      (key.empty() || KeyInLibraryFormat(db, key) == SQLITE_OK) &&
      sqlite3_prepare_v2(db, "SELECT Id, Batch, Seq, Value, Text FROM t_event;", -1, &stmt,
                         nullptr) == SQLITE_OK) {
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      std::string row;
      for (int i = 1; i < 5; ++i) {
        const unsigned char* text = sqlite3_column_text(stmt, i);
        row += std::string(text == nullptr ? "" : reinterpret_cast<const char*>(text)) + "|";
      }
      rows[sqlite3_column_int64(stmt, 0)] = row;
    }
    whole = rc == SQLITE_DONE;
  }
  sqlite3_finalize(stmt);
  if (whole) {
    whole = sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &stmt, nullptr) == SQLITE_OK &&
            sqlite3_step(stmt) == SQLITE_ROW &&
            std::string(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0))) == "ok";
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  if (!whole) rows.clear();
  return rows;
}

// Rows of t_event the library counts in the file; -1 when it cannot.
long long CountThroughLibrary(const std::string& dir, const std::string& key) {
  Db db;
  EventSchema schema;
  long long count = -1;
  if (OpenEventDb(db, dir, kFile, key) == 0) {
    std::unique_ptr<Table> table(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
    DbFilters all(0);
    if (table != nullptr) count = table->get_item_cnt(all);
    table.reset();
    db.CloseDB();
  }
  db.UnInit();
  return count;
}

void WriteBytes(const std::string& path, const std::string& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
  std::fclose(file);
}

struct Figures {
  long long points = 0, original = 0, salvaged = 0, neither = 0;
};

class SalvagePowerCut {
 public:
  SalvagePowerCut(const std::string& key, uint32_t seed) : key_(key), seed_(seed) {}

  Figures Run(unsigned long long firstIndex) {
    MakeDamaged();
    if (::testing::Test::HasFatalFailure()) return figures_;
    const unsigned long long durable = DryRun();
    if (::testing::Test::HasFatalFailure()) return figures_;
    // The swap's own operations (the last few) each get several draws of
    // the model: a name changed since the last directory sync survives a
    // cut with its old or its new entry, and the combinations matter there.
    for (unsigned long long n = 1; n <= durable + 1; ++n) {
      const int draws = n + kSwapTail > durable ? kDrawsInTheSwap : 1;
      for (int draw = 0; draw < draws && !::testing::Test::HasFatalFailure(); ++draw) {
        const unsigned long long index = firstIndex + n * 100 + static_cast<unsigned>(draw);
        if (PointSelected(index)) CutAt(index, n, durable);
      }
    }
    return figures_;
  }

 private:
  std::string Path(const std::string& name = kFile) const { return work_.Path() + name; }

  // The file written through the library, with the leaf of the middle row
  // zeroed.
  void MakeDamaged() {
    ASSERT_EQ(WriteIndexedEvents(work_.Path(), kFile, key_, kRows, "idx_event_seq"), 0);
    const TablePages pages = TracePages(Path(), key_, "t_event");
    ASSERT_TRUE(pages.ok);
    const long long leaf = pages.leafOfRowid.at(kRows / 2);
    damaged_ = ReadFileBytes(Path());
    std::fill(damaged_.begin() + (leaf - 1) * pages.pageSize,
              damaged_.begin() + leaf * pages.pageSize, '\0');
  }

  void Restore() {
    for (const char* name : {"s.db", "s.db.damaged", "s.db.salvage", "s.db-journal"}) {
      std::remove(Path(name).c_str());
    }
    WriteBytes(Path(), damaged_);
  }

  // Salvages once without a cut: the durable operations it takes and the
  // rows it keeps.
  unsigned long long DryRun() {
    Restore();
    Shared<unsigned long long> count;
    ipc_db::SalvageOptions options;
    options.file_ops = &FaultOps();
    ChildEnd end = RunChild([&] {
      FaultVfs::ResetCounts();
      const ipc_db::SalvageResult result = ipc_db::Salvage(work_.Path(), kFile, key_, options);
      *count = FaultVfs::DurableOps();
      return result.status == ipc_db::SalvageStatus::kSalvaged ? 0 : 3;
    });
    FaultVfs::ForgetFiles();
    EXPECT_TRUE(end.exited && end.status == 0) << end.status;
    salvaged_ = ReadRows(Path(), key_);
    EXPECT_GT(salvaged_.size(), 0u);
    EXPECT_LT(salvaged_.size(), static_cast<size_t>(kRows));
    EXPECT_EQ(ReadFileBytes(Path("s.db.damaged")), damaged_);
    EXPECT_GT(*count, 5u);
    return *count;
  }

  void CutAt(unsigned long long index, unsigned long long n, unsigned long long durable) {
    std::mt19937 random(PointSeed(seed_, index));
    const int sectorSize = random() % 2 == 0 ? 512 : 4096;
    const uint32_t cutSeed = random();
    SCOPED_TRACE("point " + std::to_string(index) + ", cut after durable operation " +
                 std::to_string(n) + " of " + std::to_string(durable) + ", sector " +
                 std::to_string(sectorSize));
    Restore();
    ipc_db::SalvageOptions options;
    options.file_ops = &FaultOps();
    ChildEnd end = RunChild([&]() -> int {
      if (n <= durable) FaultVfs::ArmPowerCut(n, cutSeed, sectorSize);
      ipc_db::Salvage(work_.Path(), kFile, key_, options);
      FaultVfs::CutNow();
    });
    FaultVfs::ForgetFiles();
    ASSERT_TRUE(end.exited && end.status == kPowerCutExitStatus)
        << (end.exited ? "status " : "signal ") << end.status;
    ++figures_.points;
    Check(index);
  }

  void Check(unsigned long long index) {
    if (ReadFileBytes(Path()) == damaged_) {
      ++figures_.original;
      return;
    }
    const bool whole = ReadRows(Path(), key_) == salvaged_;
    const bool besideIt = ReadFileBytes(Path("s.db.damaged")) == damaged_;
    const long long counted = CountThroughLibrary(work_.Path(), key_);
    if (whole && besideIt && counted == static_cast<long long>(salvaged_.size())) {
      ++figures_.salvaged;
      return;
    }
    ++figures_.neither;
    ADD_FAILURE() << "point " << index << ": neither the original nor the salvaged file (rows "
                  << (whole ? "as salvaged" : "differ") << ", original beside it "
                  << besideIt << ", library count " << counted << ")";
  }

  std::string key_;
  uint32_t seed_;
  TempDir work_;
  std::string damaged_;
  std::map<long long, std::string> salvaged_;
  Figures figures_;
};

TEST(SalvagePowerCut, EveryOperationLeavesTheOriginalOrTheSalvagedFile) {
  const uint32_t seed = StartCampaign("salvage_power_cut");
  std::vector<std::string> items;
  unsigned long long firstIndex = 0;
  for (bool keyed : {false, true}) {
    const Figures figures = SalvagePowerCut(keyed ? MakeKey('p') : "", seed).Run(firstIndex);
    firstIndex += 1000000;
    JsonObject json;
    json.Add("keyed", keyed)
        .Add("engine", EngineCipherVersion())
        .Add("points", figures.points)
        .Add("original_under_the_name", figures.original)
        .Add("salvaged_file_under_the_name", figures.salvaged)
        .Add("neither", figures.neither)
        .Add("seed", static_cast<long long>(seed));
    items.push_back(json.Text());
    std::printf("salvage_power_cut: %s\n", items.back().c_str());
    if (FaultPointOnly() < 0) {
      EXPECT_GT(figures.original, 0);
      EXPECT_GT(figures.salvaged, 0);
    }
    EXPECT_EQ(figures.neither, 0);
  }
  if (FaultPointOnly() < 0) WriteResultJson("faults", "salvage_power_cut", JsonList(items));
}

}  // namespace
