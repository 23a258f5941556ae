// Opening a database with the wrong key: a keyed file with another key, a
// plain file with a key, and a keyed file without a key. For each, what the
// lifecycle and the record operations return, which entries are logged, and
// that the file keeps every byte (no journal, no repair file, no rewrite)
// and still opens with the right key afterwards.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ReliabilityTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::CountRowsDirectly;
using ipc_db_test::Event;
using ipc_db_test::EventSchema;
using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::FileExists;
using ipc_db_test::LogCapture;
using ipc_db_test::MakeBatch;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenEventDb;
using ipc_db_test::ReadFileBytes;
using ipc_db_test::JsonObject;
using ipc_db_test::ResultName;
using ipc_db_test::WriteResultJson;
using ipc_db_test::SqliteConnOf;
using ipc_db_test::TempDir;

namespace {

const char kConnFile[] = "src_db/src/SQLiteDBConn";
const char kDbFile[] = "src_db/src/db";
// The engine's text for SQLITE_NOTADB ("file is encrypted or is not a
// database" on SQLite 3.15, "file is not a database" on 3.46).
const char* const kNotADb = sqlite3_errstr(SQLITE_NOTADB);
constexpr int kRows = 10;

class WrongKeyTest : public testing::Test {
 protected:
  std::string Path() const { return dir_.Path() + "w.db"; }

  // Writes kRows events into a new file keyed with `key` (empty: plain).
  void CreateFile(const std::string& key) {
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir_.Path(), "w.db", key), 0);
    std::unique_ptr<Table> table(
        db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    ASSERT_NE(table, nullptr);
    std::vector<Event> events = MakeBatch(1, kRows, 7);
    ASSERT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
    ASSERT_EQ(db.UnInit(), 0);
    original_ = ReadFileBytes(Path());
    ASSERT_FALSE(original_.empty());
  }

  // Opens with `key`, runs each operation once, and checks what a wrong key
  // gives: every statement fails with SQLITE_NOTADB (26), nothing is queued
  // for maintenance, nothing crashes. Reports the results.
  void OpenWithWrongKeyAndUse(const std::string& key, const std::string& label) {
    LogCapture log;
    Db db;
    long long opened = OpenEventDb(db, dir_.Path(), "w.db", key);
    // Keying does not read the file, so the open itself succeeds; the two
    // pragmas that read page 1 fail and are only logged.
    EXPECT_EQ(opened, 0);
    EXPECT_EQ(db.GetDBStatus(), 1u);
    ExpectLoggedOnce(
        log, 1, kConnFile,
        "RECORD: sqlite3_exec PRAGMA cipher_default_compatibility = 3 success");
    ExpectLoggedOnce(log, 3, kConnFile,
                     "RECORD: sqlite3_exec PRAGMA synchronous = NORMAL failed:26");
    ExpectLoggedOnce(log, 3, kConnFile,
                     "RECORD: sqlite3_exec PRAGMA journal_mode = DELETE failed:26");

    long long exists = db.m_pDBConn->WhetherTableExist("t_event");
    EXPECT_EQ(exists, 0);  // unreadable reads as missing

    Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
    DbFilters none(0);
    long long count = table.get_item_cnt(none);
    EXPECT_EQ(count, -1);
    ExpectLoggedOnce(log, 3, kConnFile,
                     std::string("RECORD: sqlite3_get_table:select count(*) from t_event;"
                                 " failed:26,") +
                         kNotADb);
    ExpectLoggedOnce(log, 3, kDbFile, "ExecuteSQL for get_item_cnt failed !");

    const std::string prepareFailed =
        std::string("Failed to sqlite3_prepare!errorcode:26, reason:") + kNotADb + "!!\n";
    Event out[kRows];
    unsigned long long itemcnt = 77;
    long long read = table.get_item(none, none, itemcnt, out);
    EXPECT_EQ(read, -1);
    EXPECT_EQ(itemcnt, 77u);
    ExpectLoggedOnce(log, 3, kDbFile, prepareFailed);

    // "begin;" reads nothing and succeeds; the first insert fails to
    // prepare, and the transaction is left open until the close.
    std::vector<Event> more = MakeBatch(2, 3, 1);
    long long added = table.add_item(more.data(), more.size(), DbFilters(0));
    EXPECT_EQ(added, -1);
    EXPECT_EQ(log.Count("RECORD: ExecuteSQL: begin; SUCCESS"), 1u);
    EXPECT_EQ(log.Count(prepareFailed), 2u);

    std::unique_ptr<Table> created(
        db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    EXPECT_EQ(created, nullptr);

    // SQLITE_NOTADB maps to no maintenance request: nothing is queued.
    EXPECT_TRUE(db.m_pDBConn->m_dqRepairItems.empty());

    EXPECT_EQ(db.CloseDB(), 0);
    EXPECT_EQ(db.UnInit(), 0);
    // The one warning: the journal file did not exist when the open set
    // the files' permissions.
    ASSERT_EQ(log.CountAtLevel(2), 1u) << log.Dump();
    EXPECT_TRUE(log.Contains("w.db-journal in read only failed on 2"));
    WriteResultJson("wrongkey", ResultName(label),
                    JsonObject()
                        .Add("case", label)
                        .Add("open", opened)
                        .Add("table_exists", exists)
                        .Add("get_item_cnt", count)
                        .Add("get_item", read)
                        .Add("add_item", added)
                        .Add("createTable", created ? "table" : "null")
                        .Add("repair_requests", 0)
                        .Add("sqlite_code", 26)
                        .Add("error_entries",
                             static_cast<unsigned long long>(log.CountAtLevel(3)))
                        .Text());
  }

  // The file is byte for byte what it was, with no journal or repair file
  // beside it, and opens with `rightKey` to all of its rows.
  void ExpectFileUntouched(const std::string& rightKey) {
    EXPECT_TRUE(ReadFileBytes(Path()) == original_) << "the database file was rewritten";
    EXPECT_FALSE(FileExists(Path() + "-journal"));
    EXPECT_FALSE(FileExists(Path() + ".new"));
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir_.Path(), "w.db", rightKey), 0);
    Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
    DbFilters none(0);
    EXPECT_EQ(table.get_item_cnt(none), kRows);
    EXPECT_EQ(db.UnInit(), 0);
  }

  TempDir dir_;
  EventSchema schema_;
  std::string original_;
};

TEST_F(WrongKeyTest, KeyedFileWithAnotherKey) {
  CreateFile(MakeKey('r'));
  OpenWithWrongKeyAndUse(MakeKey('w'), "keyed file, other key");
  ExpectFileUntouched(MakeKey('r'));
}

TEST_F(WrongKeyTest, PlainFileWithAKey) {
  CreateFile("");
  OpenWithWrongKeyAndUse(MakeKey('w'), "plain file, with a key");
  ExpectFileUntouched("");
  EXPECT_EQ(CountRowsDirectly(Path(), ""), kRows);
}

TEST_F(WrongKeyTest, KeyedFileWithoutAKey) {
  CreateFile(MakeKey('r'));
  OpenWithWrongKeyAndUse("", "keyed file, no key");
  ExpectFileUntouched(MakeKey('r'));
}

// Re-keying a database that was opened with the wrong key: SQLCipher
// accepts the new key without reading a page, so reEncryptDB reports
// success and the connection keeps the new key, yet the file is left
// exactly as it was, still under its old key.
TEST_F(WrongKeyTest, ReKeyAfterAWrongKeyReportsSuccessButChangesNothing) {
  CreateFile(MakeKey('r'));
  LogCapture log;
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir_.Path(), "w.db", MakeKey('w')), 0);
  std::string next = MakeKey('n');
  long long rekeyed = db.reEncryptDB(next.c_str(), 64);
  EXPECT_EQ(rekeyed, 0);
  EXPECT_EQ(log.Count("RECORD: Success to ReEncryptDB " + Path()), 1u);
  EXPECT_EQ(std::string(db.m_pDBConn->m_szEncryptKey, 64), next);
  EXPECT_EQ(db.CloseDB(), 0);
  EXPECT_TRUE(ReadFileBytes(Path()) == original_) << "the database file was rewritten";
  // Neither the new key nor the wrong one opens it; the old one still does.
  ASSERT_EQ(db.OpenDB(), 0);
  Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
  DbFilters none(0);
  long long countWithNewKey = table.get_item_cnt(none);
  EXPECT_EQ(countWithNewKey, -1);
  EXPECT_EQ(db.UnInit(), 0);
  WriteResultJson("wrongkey", "rekey_after_wrong_key",
                  JsonObject()
                      .Add("case", "keyed file, other key, then reEncryptDB")
                      .Add("reEncryptDB", rekeyed)
                      .Add("file_changed", "no")
                      .Add("get_item_cnt_with_new_key", countWithNewKey)
                      .Text());
  ExpectFileUntouched(MakeKey('r'));
}

// A wrong key cannot be mended on the same connection: the handle stays
// open and a second OpenDB reports that it exists. Closing and opening again
// with the right key works.
TEST_F(WrongKeyTest, RightKeyAfterAWrongOneNeedsACloseFirst) {
  CreateFile(MakeKey('r'));
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir_.Path(), "w.db", MakeKey('w')), 0);
  std::string right = MakeKey('r');
  EXPECT_EQ(db.m_pDBConn->SetEncryptKey(&right[0], 64), 0);
  {
    LogCapture log;
    EXPECT_EQ(db.OpenDB(), DB_ERR_CONN_EXIST);
    ExpectLoggedOnce(log, 3, kConnFile, "RECORD: DB Connection has already exist");
  }
  EXPECT_EQ(db.CloseDB(), 0);
  EXPECT_EQ(db.OpenDB(), 0);
  Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
  DbFilters none(0);
  EXPECT_EQ(table.get_item_cnt(none), kRows);
  EXPECT_EQ(db.UnInit(), 0);
  EXPECT_TRUE(ReadFileBytes(Path()) == original_);
}

// The repair tool is given no key: on a keyed file that is opened with the
// wrong key nothing is queued, so repair never runs on its own; this is the
// case where the library keeps its hands off the file.
TEST_F(WrongKeyTest, NoRepairIsQueuedForAnyWrongKeyStatement) {
  CreateFile(MakeKey('r'));
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir_.Path(), "w.db", ""), 0);
  for (const char* sql :
       {"select * from t_event;", "insert into t_event(Batch) values(1);",
        "delete from t_event;", "create table x(a);", "VACUUM;"}) {
    EXPECT_EQ(db.m_pDBConn->ExecuteSQL(sql, nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC)
        << sql;
  }
  EXPECT_TRUE(db.m_pDBConn->m_dqRepairItems.empty());
  EXPECT_EQ(db.UnInit(), 0);
  ExpectFileUntouched(MakeKey('r'));
}

}  // namespace
