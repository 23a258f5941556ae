// RepairDB on damaged plain files, beside Debian's SQLCipher 3.4.1 shell
// (SQLite 3.15) doing the same dump and reload on a copy of each damaged
// file. On every engine the library's repair (the build's repair tool over
// that engine's shell) must keep at least the rows the 3.4.1 shell keeps:
// a newer shell stops its dump of a damaged file with a ROLLBACK and reads
// a short file as malformed from the first page on, and the repair tool
// undoes both. It must also keep at least what the tool's dump alone keeps
// (what it did before it added the rows of the shell's `.recover`), and on
// 4.6.1, with the table's root damaged, every row of the intact leaves.
// The damage is drawn from a seed (printed; set
// IPC_DB_REPAIR_SEED to replay, IPC_DB_REPAIR_KEEP=DIR to keep the damaged
// files): changed bytes, truncations and zeroed pages at random places. The
// figures go to results/repair.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "EngineFormat.h"
#include "PageTrace.h"
#include "ReliabilityTestSupport.h"
#include "TestEnv.h"
#include "TestSupport.h"

using ipc_db_test::Event;
using ipc_db_test::EventSchema;
using ipc_db_test::JsonObject;
using ipc_db_test::MakeBatch;
using ipc_db_test::OpenEventDb;
using ipc_db_test::ReadFileBytes;
using ipc_db_test::TestEnv;
using ipc_db_test::TempDir;
using ipc_db_test::WriteResultJson;

namespace {

constexpr int kRows = 1000;
constexpr int kCasesPerDamage = 20;

// The input RepairDB gives the repair tool, and one that asks for the same
// dump but not in exactly those words: the tool then runs the shell's own
// dump, as it did for every request before it used `.recover`.
const char* const kDumpRequest = "echo .dump";
const char* const kPlainDumpRequest = "printf '.dump\\n\\n'";

enum class Damage { kChangedBytes, kTruncated, kZeroedPage };
const char* const kDamageNames[] = {"changed bytes", "truncated", "zeroed page"};

void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// `bytes` with `damage` at a place drawn from `random`; page 1 is left
// whole so that both shells can read the schema.
std::string Damaged(std::string bytes, Damage damage, std::mt19937& random) {
  // A plain file's page size is in its header (bytes 16 and 17): 1024 on
  // SQLCipher 3.4.1, 4096 on 4.6.1.
  const size_t pageSize = (static_cast<unsigned char>(bytes[16]) << 8) |
                          static_cast<unsigned char>(bytes[17]);
  const size_t pages = bytes.size() / pageSize;
  std::uniform_int_distribution<size_t> page(1, pages - 1);
  switch (damage) {
    case Damage::kChangedBytes: {
      std::uniform_int_distribution<size_t> offset(pageSize, bytes.size() - 1);
      for (int i = 0; i < 4; ++i) {
        size_t at = offset(random);
        bytes[at] = static_cast<char>(bytes[at] ^ 0x5A);
      }
      break;
    }
    case Damage::kTruncated: {
      std::uniform_int_distribution<size_t> size(pageSize * 2, bytes.size() - 1);
      bytes.resize(size(random));
      break;
    }
    case Damage::kZeroedPage: {
      const size_t at = page(random) * pageSize;
      std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                bytes.begin() + static_cast<std::ptrdiff_t>(at + pageSize), '\0');
      break;
    }
  }
  return bytes;
}

void ZeroPage(std::string* bytes, long long page, long long pageSize) {
  const size_t at = static_cast<size_t>((page - 1) * pageSize);
  std::fill(bytes->begin() + static_cast<std::ptrdiff_t>(at),
            bytes->begin() + static_cast<std::ptrdiff_t>(at + static_cast<size_t>(pageSize)),
            '\0');
}

// Rows of t_event an application reads back intact from `path`: a
// whole-row read up to its first error, counting each written row once and
// only as it was written (event-1-<seq>, value 5, id seq + 1). A count(*)
// would also count rows whose record is damaged, and a zeroed or changed
// cell can read as a row that was never written. 0 when the table cannot be
// read.
long long RowsIn(const std::string& path) {
  sqlite3* db = nullptr;
  sqlite3_stmt* stmt = nullptr;
  std::set<long long> intact;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "select Id, Batch, Seq, Value, Text from t_event;", -1, &stmt,
                         nullptr) == SQLITE_OK) {
    while (sqlite3_step(stmt) == SQLITE_ROW) {
      const long long id = sqlite3_column_int64(stmt, 0);
      const int seq = sqlite3_column_int(stmt, 2);
      const unsigned char* text = sqlite3_column_text(stmt, 4);
      const bool asWritten = sqlite3_column_int(stmt, 1) == 1 && id == seq + 1 &&
                             sqlite3_column_int(stmt, 3) == 5 && text != nullptr &&
                             reinterpret_cast<const char*>(text) ==
                                 "event-1-" + std::to_string(seq);
      if (asWritten) intact.insert(id);
    }
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return static_cast<long long>(intact.size());
}

class RepairEnginesTest : public testing::Test {
 protected:
  void SetUp() override {
    const char* fixed = std::getenv("IPC_DB_REPAIR_SEED");
    seed_ = fixed != nullptr ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10))
                             : std::random_device{}();
    std::printf("repair_engines_test: seed %u (IPC_DB_REPAIR_SEED=%u replays), engine %s\n",
                seed_, seed_, ipc_db_test::EngineCipherVersion().c_str());
  }

  std::string Path(const std::string& name) const { return dir_.Path() + name; }

  // A plain file of kRows events written through the library.
  std::string IntactFile() {
    Db db;
    EXPECT_EQ(OpenEventDb(db, dir_.Path(), "intact.db", ""), 0);
    std::unique_ptr<Table> table(db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    EXPECT_NE(table, nullptr);
    std::vector<Event> events = MakeBatch(1, kRows, 5);
    EXPECT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
    db.UnInit();
    return ReadFileBytes(Path("intact.db"));
  }

  // Rows the library keeps: RepairDB on the closed connection, then a
  // count. A repair whose pipeline failed leaves the damaged file in place.
  long long RowsAfterLibraryRepair(const std::string& bytes, long long* repaired) {
    WriteBytes(Path("r.db"), bytes);
    std::remove(Path("r.db.new").c_str());  // a failed repair leaves its new file
    Db db;
    EXPECT_EQ(OpenEventDb(db, dir_.Path(), "r.db", ""), 0);
    EXPECT_EQ(db.CloseDB(), 0);
    *repaired = db.m_pDBConn->RepairDB();
    db.UnInit();
    return RowsIn(Path("r.db"));
  }

  // Rows a repair through `shell` alone keeps: the same dump and reload,
  // and the new file put in place only when the pipeline succeeded, as
  // RepairDB does. With Debian's 3.4.1 shell that is what the library's
  // repair kept on that engine; with this build's engine's own shell, what
  // it kept before the repair tool stood between them.
  long long RowsAfterShell(const std::string& shell, const std::string& bytes,
                           bool* repaired, const std::string& request = kDumpRequest) {
    WriteBytes(Path("d.db"), bytes);
    std::remove(Path("d.new").c_str());
    const std::string command = request + " | '" + shell + "' '" + Path("d.db") +
                                "' 2>/dev/null | '" + shell + "' '" + Path("d.new") +
                                "' >/dev/null 2>&1";
    const int status = std::system(command.c_str());
    *repaired = status == 0;
    if (*repaired) {
      EXPECT_EQ(std::rename(Path("d.new").c_str(), Path("d.db").c_str()), 0);
    }
    return RowsIn(Path("d.db"));
  }

  // With IPC_DB_REPAIR_KEEP=DIR, each damaged file is also written to
  // DIR/<damage>-<case>.db, to look at a case the seed replays.
  void KeepForInspection(const std::string& bytes, int kind, int index) {
    const char* keep = std::getenv("IPC_DB_REPAIR_KEEP");
    if (keep == nullptr) return;
    WriteBytes(std::string(keep) + "/" + ipc_db_test::ResultName(kDamageNames[kind]) + "-" +
                   std::to_string(index) + ".db",
               bytes);
  }

  TestEnv env_;  // RepairDB reaches the repair tool's stand-in
  TempDir dir_;
  EventSchema schema_;
  unsigned seed_ = 0;
};

TEST_F(RepairEnginesTest, KeepsAtLeastWhatDebiansShellKeeps) {
  ipc_db_test::LogCapture log;  // the repairs' failures are expected: keep them off stderr
  const std::string intact = IntactFile();
  ASSERT_GT(intact.size(), 16u * 1024);
  std::mt19937 random(seed_);
  for (int kind = 0; kind < 3; ++kind) {
    long long ours = 0;
    long long debian = 0;
    int worse = 0;
    long long bare = 0;
    long long toolDump = 0;
    int oursRepaired = 0;
    int debianRepaired = 0;
    for (int i = 0; i < kCasesPerDamage; ++i) {
      const std::string bytes = Damaged(intact, static_cast<Damage>(kind), random);
      KeepForInspection(bytes, kind, i);
      long long repaired = -1;
      bool debianSucceeded = false;
      const long long kept = RowsAfterLibraryRepair(bytes, &repaired);
      const long long reference =
          RowsAfterShell(IPC_DB_DEBIAN_SHELL, bytes, &debianSucceeded);
      bool bareSucceeded = false;
      bare += RowsAfterShell(IPC_DB_SQLCIPHER_SHELL, bytes, &bareSucceeded);
      bool dumpSucceeded = false;
      const long long byDump =
          RowsAfterShell(IPC_DB_BUILT_REPAIR_TOOL, bytes, &dumpSucceeded, kPlainDumpRequest);
      EXPECT_GE(kept, reference) << kDamageNames[kind] << " case " << i << ", seed " << seed_;
      EXPECT_GE(kept, byDump) << kDamageNames[kind] << " case " << i << ", seed " << seed_;
      toolDump += byDump;
      // Where the 3.4.1 pipeline succeeded with rows in its file, so does
      // this engine's. (A damaged sqlite_sequence page can make 3.15's dump
      // empty, which reloads without error into an empty file, while 3.46's
      // dump keeps a "DELETE FROM sqlite_sequence;" that fails to reload: no
      // row is kept either way, and RepairDB then leaves the file alone.)
      if (debianSucceeded && reference > 0) {
        EXPECT_EQ(repaired, 0) << kDamageNames[kind] << " case " << i;
      }
      ours += kept;
      debian += reference;
      worse += kept < reference ? 1 : 0;
      oursRepaired += repaired == 0 ? 1 : 0;
      debianRepaired += debianSucceeded ? 1 : 0;
    }
    std::printf("%s: %d files, repaired %d (3.4.1: %d), rows kept %lld (3.4.1: %lld; this "
                "engine's shell without the tool: %lld; the tool's plain dump: %lld) of %d "
                "each\n",
                kDamageNames[kind], kCasesPerDamage, oursRepaired, debianRepaired, ours, debian,
                bare, toolDump, kRows);
    JsonObject json;
    json.Add("engine", ipc_db_test::EngineCipherVersion())
        .Add("damage", kDamageNames[kind])
        .Add("seed", static_cast<long long>(seed_))
        .Add("files", kCasesPerDamage)
        .Add("rows_per_file", kRows)
        .Add("repaired", oursRepaired)
        .Add("repaired_on_debian_3_4_1", debianRepaired)
        .Add("rows_after_repair", ours)
        .Add("rows_after_repair_on_debian_3_4_1", debian)
        .Add("rows_after_bare_shell_of_this_engine", bare)
        .Add("rows_after_plain_dump_of_the_tool", toolDump)
        .Add("files_worse", worse);
    WriteResultJson("repair", ipc_db_test::ResultName(std::string(kDamageNames[kind])),
                    json.Text());
  }
}

// A damaged table root (on a table of this size also its only interior
// page) cuts every leaf off the table: a dump reads nothing, and
// `.recover` finds the leaves' rows without their table. On a shell that
// knows `.recover` the repair puts them back, so it keeps every row on an
// intact leaf; the second file also loses one leaf.
TEST_F(RepairEnginesTest, KeepsRowsOfIntactLeavesUnderADamagedRoot) {
  if (!ipc_db_test::EngineIsSqlcipher4()) {
    GTEST_SKIP() << "this engine's shell has no .recover: the tool dumps as before";
  }
  ipc_db_test::LogCapture log;  // the damaged file's errors are expected
  const std::string intact = IntactFile();
  const ipc_db_test::TablePages pages = ipc_db_test::TracePages(Path("intact.db"), "", "t_event");
  ASSERT_TRUE(pages.ok);
  ASSERT_EQ(pages.interior.size(), 1u) << "the table's root is its only interior page";
  ASSERT_GE(pages.leaves.size(), 3u);
  const long long root = *pages.interior.begin();
  const long long lostLeaf = *std::next(pages.leaves.begin(), 1);
  for (bool leafToo : {false, true}) {
    std::string bytes = intact;
    ZeroPage(&bytes, root, pages.pageSize);
    if (leafToo) ZeroPage(&bytes, lostLeaf, pages.pageSize);
    long long onIntactLeaves = 0;
    for (const auto& rowAndLeaf : pages.leafOfRowid) {
      onIntactLeaves += !leafToo || rowAndLeaf.second != lostLeaf ? 1 : 0;
    }
    long long repaired = -1;
    const long long kept = RowsAfterLibraryRepair(bytes, &repaired);
    bool succeeded = false;
    const long long byDump =
        RowsAfterShell(IPC_DB_BUILT_REPAIR_TOOL, bytes, &succeeded, kPlainDumpRequest);
    const long long byDebian = RowsAfterShell(IPC_DB_DEBIAN_SHELL, bytes, &succeeded);
    std::printf("root %lld zeroed%s: rows on intact leaves %lld, kept %lld (the tool's plain "
                "dump: %lld, 3.4.1: %lld)\n",
                root, leafToo ? (", leaf " + std::to_string(lostLeaf) + " too").c_str() : "",
                onIntactLeaves, kept, byDump, byDebian);
    EXPECT_EQ(repaired, 0);
    EXPECT_EQ(kept, onIntactLeaves);
    EXPECT_GT(kept, byDump);
    EXPECT_GT(kept, byDebian);
  }
}

}  // namespace
