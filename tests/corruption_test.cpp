// Damaged database files: a changed byte inside one of the table's b-tree
// pages, a file cut to half its length, and a garbage header, on a plain
// file and on a keyed one. For each: what OpenDB and real statements return,
// which maintenance request ErrorProcess queues, how many rows a read still
// delivers, and how many rows RepairDB (the real command-line tool, through
// the build's wrapper) brings back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "EngineFormat.h"
#include "ReliabilityTestSupport.h"
#include "TestEnv.h"
#include "TestSupport.h"

using ipc_db_test::Event;
using ipc_db_test::EventSchema;
using ipc_db_test::ExecuteScalar;
using ipc_db_test::FileExists;
using ipc_db_test::LogCapture;
using ipc_db_test::LogEntry;
using ipc_db_test::MakeBatch;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenEventDb;
using ipc_db_test::ReadFileBytes;
using ipc_db_test::JsonObject;
using ipc_db_test::ResultName;
using ipc_db_test::WriteResultJson;
using ipc_db_test::TempDir;
using ipc_db_test::TestEnv;

namespace {

constexpr int kRows = 1000;
const char kCountSql[] = "select count(*) from t_event;";

enum class Damage { kTableByte, kTruncated, kGarbageHeader };

const char* NameOf(Damage damage) {
  switch (damage) {
    case Damage::kTableByte:
      return "changed byte in a table b-tree page";
    case Damage::kTruncated:
      return "file truncated to half its length";
    case Damage::kGarbageHeader:
      return "garbage in the 100-byte header";
  }
  return "?";
}

void WriteFileBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Page size of a plain database file (header bytes 16 and 17).
size_t PlainPageSize(const std::string& bytes) {
  size_t size = (static_cast<unsigned char>(bytes[16]) << 8) |
                static_cast<unsigned char>(bytes[17]);
  return size == 1 ? 65536 : size;
}

// Offset of the middle one of the file's table leaf pages (type byte 13),
// so that the damage lands among the table's rows.
size_t MiddleTableLeafPage(const std::string& bytes) {
  size_t pageSize = PlainPageSize(bytes);
  std::vector<size_t> leaves;
  for (size_t page = pageSize; page + pageSize <= bytes.size(); page += pageSize) {
    if (bytes[page] == 0x0D) leaves.push_back(page);
  }
  return leaves.size() < 3 ? 0 : leaves[leaves.size() / 2];
}

// The damaged bytes. On a plain file the changed byte is the high byte of
// a table leaf page's cell count; on a keyed file (pages are encrypted and
// authenticated) it is a byte in the middle of the last page, a table leaf.
std::string Damaged(const std::string& bytes, Damage damage, bool keyed) {
  std::string out = bytes;
  switch (damage) {
    case Damage::kTableByte: {
      size_t at;
      if (keyed) {
        const size_t kCipherPageSize = 1024;
        at = out.size() - kCipherPageSize / 2;
      } else {
        size_t page = MiddleTableLeafPage(out);
        EXPECT_NE(page, 0u) << "no table leaf page found";
        at = page + 3;
      }
      out[at] = static_cast<char>(out[at] ^ 0xFF);
      break;
    }
    case Damage::kTruncated:
      out.resize(out.size() / 2);
      break;
    case Damage::kGarbageHeader:
      for (size_t i = 0; i < 100 && i < out.size(); ++i) {
        out[i] = static_cast<char>((i * 37 + 11) & 0xFF);
      }
      break;
  }
  return out;
}

// SQLite code in the entry "RECORD: sqlite3_get_table:<sql> failed:<code>,...".
int LoggedSqliteCode(const LogCapture& log, const std::string& sql) {
  const std::string prefix = "RECORD: sqlite3_get_table:" + sql + " failed:";
  for (const LogEntry& entry : log.Entries()) {
    if (entry.text.compare(0, prefix.size(), prefix) == 0) {
      return std::stoi(entry.text.substr(prefix.size()));
    }
  }
  return 0;
}

std::string QueueText(const std::deque<DB_REPAIR_ITEM>& queue) {
  static const char* const kNames[] = {"REPAIR", "RESTORE", "RECONNECT", "EXIT", "WAKE"};
  std::string text = "[";
  for (const DB_REPAIR_ITEM& item : queue) {
    if (text.size() > 1) text += ",";
    text += item.enCmdType >= 0 && item.enCmdType <= 4 ? kNames[item.enCmdType] : "?";
  }
  return text + "]";
}

// What a damaged file gave, step by step.
struct Outcome {
  long long open = 0;
  long long count = 0;  // get_item_cnt
  int sqliteCode = 0;   // code of the failed count statement
  long long read = 0;   // get_item result
  unsigned long long rowsRead = 0;
  std::deque<DB_REPAIR_ITEM> queued;
  long long repair = 0;
  long long rowsAfter = 0;  // get_item_cnt after repair and reopen
  std::string integrityAfter;
  long long fileSizeAfter = 0;
};

class CorruptionTest : public testing::TestWithParam<std::tuple<Damage, bool>> {
 protected:
  void SetUp() override {
    damage_ = std::get<0>(GetParam());
    keyed_ = std::get<1>(GetParam());
    key_ = keyed_ ? MakeKey('c') : "";
  }

  std::string Path() const { return dir_.Path() + "c.db"; }

  void WriteRows() {
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir_.Path(), "c.db", key_), 0);
    std::unique_ptr<Table> table(
        db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    ASSERT_NE(table, nullptr);
    std::vector<Event> events = MakeBatch(1, kRows, 5);
    ASSERT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
    ASSERT_EQ(db.UnInit(), 0);
  }

  Outcome DamageAndRepair() {
    Outcome outcome;
    WriteFileBytes(Path(), Damaged(ReadFileBytes(Path()), damage_, keyed_));
    LogCapture log;
    Db db;
    outcome.open = OpenEventDb(db, dir_.Path(), "c.db", key_);
    Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
    DbFilters none(0);
    outcome.count = table.get_item_cnt(none);
    outcome.sqliteCode = LoggedSqliteCode(log, kCountSql);
    std::vector<Event> out(kRows);
    outcome.rowsRead = 0;
    outcome.read = table.get_item(none, none, outcome.rowsRead, out.data());
    outcome.queued = db.m_pDBConn->m_dqRepairItems;
    // RepairDB wants the connection closed (the worker would pause it).
    EXPECT_EQ(db.CloseDB(), 0);
    outcome.repair = db.m_pDBConn->RepairDB();
    EXPECT_FALSE(FileExists(Path() + ".new"));
    outcome.fileSizeAfter = static_cast<long long>(ReadFileBytes(Path()).size());
    EXPECT_EQ(db.OpenDB(), 0);
    outcome.rowsAfter = table.get_item_cnt(none);
    outcome.integrityAfter = ExecuteScalar(db, "PRAGMA integrity_check;", "<failed>");
    EXPECT_EQ(db.UnInit(), 0);
    return outcome;
  }

  void ReportOutcome(const Outcome& o) {
    const std::string file = keyed_ ? "keyed" : "plain";
    JsonObject json;
    json.Add("file", file)
        .Add("case", NameOf(damage_))
        .Add("rows_written", kRows)
        .Add("open", o.open)
        .Add("get_item_cnt", o.count)
        .Add("sqlite_code", o.sqliteCode)
        .Add("get_item", o.read)
        .Add("rows_read", o.rowsRead)
        .Add("queued", QueueText(o.queued))
        .Add("RepairDB", o.repair)
        .Add("file_bytes_after", o.fileSizeAfter)
        .Add("rows_after_repair", o.rowsAfter < 0 ? 0 : o.rowsAfter)
        .Add("get_item_cnt_after", o.rowsAfter)
        .Add("integrity_after", o.integrityAfter);
    WriteResultJson("corruption", ResultName(file + "-" + NameOf(damage_)), json.Text());
  }

  TestEnv env_;  // RepairDB reaches the repair tool's stand-in
  TempDir dir_;
  EventSchema schema_;
  Damage damage_ = Damage::kTableByte;
  bool keyed_ = false;
  std::string key_;
};

TEST_P(CorruptionTest, StatementsQueueAndRepair) {
  ASSERT_NO_FATAL_FAILURE(WriteRows());
  Outcome o = DamageAndRepair();
  ReportOutcome(o);

  // Keying and opening never read the damaged pages.
  EXPECT_EQ(o.open, 0);
  // Every damage makes the count statement fail.
  EXPECT_EQ(o.count, -1);
  const bool notADatabase = damage_ == Damage::kGarbageHeader;
  EXPECT_EQ(o.sqliteCode, notADatabase ? SQLITE_NOTADB : SQLITE_CORRUPT);
  // SQLITE_CORRUPT queues one repair request per failed statement
  // (createTable's existence check is not run here: the Table is made
  // directly); SQLITE_NOTADB queues nothing.
  if (notADatabase) {
    EXPECT_TRUE(o.queued.empty());
  } else {
    ASSERT_EQ(o.queued.size(), 1u);
    EXPECT_EQ(o.queued.front().enCmdType, DB_REPAIR_CMD_REPAIR);
    EXPECT_STREQ(o.queued.front().szSQL, kCountSql);
  }
  // A row read stops at the first step error and still reports success:
  // the caller gets the rows before the damaged page and cannot tell. A
  // truncated file or a garbage header already fails at the prepare.
  if (damage_ == Damage::kTableByte) {
    EXPECT_EQ(o.read, 0);
    EXPECT_GT(o.rowsRead, 0u);
    EXPECT_LT(o.rowsRead, static_cast<unsigned long long>(kRows));
  } else {
    EXPECT_EQ(o.read, -1);
    EXPECT_EQ(o.rowsRead, 0u);
  }
  // The tool is run and the new file put in place in every case.
  EXPECT_EQ(o.repair, 0);

  if (keyed_ || notADatabase) {
    // The tool gets no key (and cannot read a garbage header): it dumps
    // nothing, the empty new file replaces the database and every row is
    // gone. The table no longer exists, so the count fails.
    EXPECT_EQ(o.fileSizeAfter, 0);
    EXPECT_EQ(o.rowsAfter, -1);
  } else {
    // A plain file is dumped as far as it can be read: the rows before the
    // damage (and, for a changed byte, the rows after it) come back. Where
    // the engine's shell knows `.recover`, the repair tool adds the rows it
    // reads page by page: a changed cell count leaves every cell intact,
    // and all rows come back.
    EXPECT_GT(o.rowsAfter, 0);
    if (damage_ == Damage::kTableByte && ipc_db_test::EngineIsSqlcipher4()) {
      EXPECT_EQ(o.rowsAfter, kRows);
    } else {
      EXPECT_LT(o.rowsAfter, kRows);
    }
    EXPECT_GE(o.rowsAfter, static_cast<long long>(o.rowsRead));
    EXPECT_EQ(o.integrityAfter, "ok");
  }
}

std::string CaseName(const testing::TestParamInfo<std::tuple<Damage, bool>>& info) {
  static const char* const kNames[] = {"TableByte", "Truncated", "GarbageHeader"};
  return std::string(kNames[static_cast<int>(std::get<0>(info.param))]) +
         (std::get<1>(info.param) ? "Keyed" : "Plain");
}

INSTANTIATE_TEST_SUITE_P(Damages, CorruptionTest,
                         testing::Combine(testing::Values(Damage::kTableByte,
                                                          Damage::kTruncated,
                                                          Damage::kGarbageHeader),
                                          testing::Bool()),
                         CaseName);

// The maintenance queue holds two requests: further corrupt statements are
// dropped with a log entry and the statement still reports its own failure.
TEST(CorruptionQueue, ThirdCorruptStatementFindsTheQueueFull) {
  TempDir dir;
  EventSchema schema;
  {
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir.Path(), "q.db", ""), 0);
    std::unique_ptr<Table> table(
        db.createTable(schema.meta(), EventSchema::kAnalyzeName));
    ASSERT_NE(table, nullptr);
    std::vector<Event> events = MakeBatch(1, kRows, 5);
    ASSERT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
    ASSERT_EQ(db.UnInit(), 0);
  }
  std::string path = dir.Path() + "q.db";
  WriteFileBytes(path, Damaged(ReadFileBytes(path), Damage::kTruncated, false));
  LogCapture log;
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "q.db", ""), 0);
  Table table(&db, schema.meta(), EventSchema::kAnalyzeName);
  DbFilters none(0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(table.get_item_cnt(none), -1);
  EXPECT_EQ(db.m_pDBConn->m_dqRepairItems.size(), 2u);
  EXPECT_EQ(log.Count("RECORD: MaintainDBCmd Queue is full."), 1u);
  EXPECT_EQ(db.UnInit(), 0);
}

}  // namespace
