// Tests of the Db lifecycle: Init, OpenDB, CloseDB, UnInit, GetDBStatus,
// reEncryptDB and SetJournalAttr, on real database files (encrypted where
// the test is about the key) in per-test directories.
#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>

#include <cstring>
#include <string>

#include "Db.h"
#include "SQLiteDBConn.h"
#include "SchemaTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::FileExists;
using ipc_db_test::HandleOf;
using ipc_db_test::LogCapture;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenDb;
using ipc_db_test::QueryOneValue;
using ipc_db_test::ReadFileBytes;
using ipc_db_test::TempDir;

namespace {

const char kDbLogFile[] = "src_db/src/db";
const char kNoConnection[] = "m_pDBConn is not exit\n";
const char kPlainHeader[] = "SQLite format 3";

CSqliteDBConn* ConnOf(Db& db) { return dynamic_cast<CSqliteDBConn*>(db.m_pDBConn); }

// ---- The state sequence ----

TEST(DbLifecycle, StatusSequenceOnEncryptedFile) {
  TempDir dir;
  std::string key = MakeKey('k');
  Db db;
  {
    LogCapture log;
    EXPECT_EQ(db.GetDBStatus(), 2u);
    ExpectLoggedOnce(log, 3, kDbLogFile, kNoConnection);
  }
  ASSERT_EQ(db.Init(0, dir.Path(), "rec.db", "rec.db-journal", key.data(), 64), 0);
  EXPECT_EQ(db.GetDBStatus(), 0u);
  EXPECT_FALSE(FileExists(dir.Path() + "rec.db"));  // Init does not open

  ASSERT_EQ(db.OpenDB(), 0);
  EXPECT_EQ(db.GetDBStatus(), 1u);
  ASSERT_EQ(
      db.m_pDBConn->ExecuteSQL("create table t_x(a INTEGER);", nullptr, DB_EXEC_SQL_SYNC),
      0);

  EXPECT_EQ(db.CloseDB(), 0);
  EXPECT_EQ(db.GetDBStatus(), 0u);
  // The file on disk is encrypted: no plain SQLite header.
  const std::string bytes = ReadFileBytes(dir.Path() + "rec.db");
  ASSERT_GE(bytes.size(), 16u);
  EXPECT_NE(bytes.compare(0, std::strlen(kPlainHeader), kPlainHeader), 0);

  EXPECT_EQ(db.UnInit(), 0);
  EXPECT_EQ(db.m_pDBConn, nullptr);
  LogCapture log;
  EXPECT_EQ(db.GetDBStatus(), 2u);
  ExpectLoggedOnce(log, 3, kDbLogFile, kNoConnection);
}

TEST(DbLifecycle, NewedDbStartsEmpty) {
  Db* db = new Db;
  EXPECT_EQ(db->m_pDBConn, nullptr);
  EXPECT_EQ(db->UnInit(), 0);
  delete db;
}

// ---- Init ----

TEST(DbInit, NullKeyIsTestedBeforeTheKind) {
  LogCapture log;
  Db db;
  EXPECT_EQ(db.Init(1, "/tmp/", "a.db", "a.db-journal", nullptr, 64), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "szEncryptKey is null\n");
  EXPECT_EQ(log.Entries().size(), 1u);
  EXPECT_EQ(db.m_pDBConn, nullptr);
}

TEST(DbInit, KindOneFailsWithoutLog) {
  LogCapture log;
  Db db;
  std::string key = MakeKey('a');
  EXPECT_EQ(db.Init(1, "/tmp/", "a.db", "a.db-journal", key.data(), 64), -1);
  EXPECT_EQ(db.m_pDBConn, nullptr);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(DbInit, KindWithNonZeroLowWordFails) {
  Db db;
  std::string key = MakeKey('a');
  EXPECT_EQ(db.Init(0x100000001ULL, "/tmp/", "a.db", "j", key.data(), 64), -1);
  EXPECT_EQ(db.m_pDBConn, nullptr);
}

TEST(DbInit, KindTwoToThe32IsAcceptedAsKindZero) {
  TempDir dir;
  Db db;
  std::string key = MakeKey('a');
  EXPECT_EQ(db.Init(1ULL << 32, dir.Path(), "a.db", "a.db-journal", key.data(), 64), 0);
  EXPECT_NE(db.m_pDBConn, nullptr);
  EXPECT_NE(ConnOf(db), nullptr);
  EXPECT_EQ(db.GetDBStatus(), 0u);
  db.UnInit();
}

TEST(DbInit, ConfiguresTheConnectionWithoutOpening) {
  TempDir dir;
  Db db;
  std::string key = MakeKey('q');
  ASSERT_EQ(db.Init(0, dir.Path(), "rec.db", "rec.jnl", key.data(), 64), 0);
  CSqliteDBConn* conn = ConnOf(db);
  ASSERT_NE(conn, nullptr);
  EXPECT_EQ(conn->m_strInstallPath, dir.Path());
  EXPECT_EQ(conn->m_strDBFile, dir.Path() + "rec.db");
  EXPECT_EQ(conn->m_strDBJournal, dir.Path() + "rec.jnl");
  EXPECT_EQ(std::memcmp(conn->m_szEncryptKey, key.data(), 64), 0);
  EXPECT_EQ(conn->m_pSqliteDB, nullptr);
  EXPECT_EQ(db.GetDBStatus(), 0u);
  EXPECT_FALSE(FileExists(dir.Path() + "rec.db"));
  db.UnInit();
}

TEST(DbInit, RefusedKeyLengthIsIgnored) {
  // A key longer than the connection keeps is refused by the connection;
  // Init ignores that result and still succeeds, leaving no key.
  TempDir dir;
  Db db;
  std::string key(70, 'z');
  ASSERT_EQ(db.Init(0, dir.Path(), "rec.db", "rec.jnl", key.data(), 70), 0);
  ASSERT_NE(ConnOf(db), nullptr);
  EXPECT_EQ(ConnOf(db)->m_szEncryptKey[0], 0);
  db.UnInit();
}

TEST(DbInit, SecondInitLeavesTheFirstConnectionAlone) {
  TempDir dir;
  char empty[1] = {0};
  Db db;
  ASSERT_EQ(db.Init(0, dir.Path(), "one.db", "one.jnl", empty, 0), 0);
  ASSERT_EQ(db.OpenDB(), 0);
  CDBConn* first = db.m_pDBConn;
  ASSERT_EQ(db.Init(0, dir.Path(), "two.db", "two.jnl", empty, 0), 0);
  EXPECT_NE(db.m_pDBConn, first);
  // The first connection was neither closed nor freed.
  EXPECT_EQ(first->m_enDBStatus, 1);
  EXPECT_NE(static_cast<CSqliteDBConn*>(first)->m_pSqliteDB, nullptr);
  EXPECT_EQ(db.GetDBStatus(), 0u);
  delete first;  // the test owns what Init dropped
  db.UnInit();
}

// ---- OpenDB, CloseDB ----

TEST(DbOpenClose, WithoutConnectionFailWithMinusOne) {
  Db db;
  LogCapture log;
  EXPECT_EQ(db.OpenDB(), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, kNoConnection);
  log.Clear();
  EXPECT_EQ(db.CloseDB(), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, kNoConnection);
  EXPECT_EQ(log.Entries().size(), 1u);
}

TEST(DbOpenClose, OpenFailureIsLoggedAndPassedOn) {
  TempDir dir;
  char empty[1] = {0};
  Db db;
  ASSERT_EQ(db.Init(0, dir.Path() + "missing/parent/", "rec.db", "j", empty, 0), 0);
  LogCapture log;
  EXPECT_EQ(db.OpenDB(), DB_ERR_OPEN);
  ExpectLoggedOnce(log, 3, kDbLogFile, "OpenConnection failed!error:-201\n");
  EXPECT_EQ(db.GetDBStatus(), 0u);
  db.UnInit();
}

TEST(DbOpenClose, SecondOpenPassesTheConnectionCodeOn) {
  TempDir dir;
  Db db;
  OpenDb(db, dir.Path(), "rec.db", "");
  LogCapture log;
  EXPECT_EQ(db.OpenDB(), DB_ERR_CONN_EXIST);
  ExpectLoggedOnce(log, 3, kDbLogFile, "OpenConnection failed!error:-200\n");
  EXPECT_EQ(db.GetDBStatus(), 1u);
  db.UnInit();
}

TEST(DbOpenClose, CloseOfConfiguredDbPassesTheConnectionCodeOn) {
  TempDir dir;
  char empty[1] = {0};
  Db db;
  ASSERT_EQ(db.Init(0, dir.Path(), "rec.db", "j", empty, 0), 0);
  LogCapture log;
  EXPECT_EQ(db.CloseDB(), DB_ERR_CONN_NOT_EXIST);
  ExpectLoggedOnce(log, 3, kDbLogFile, "CloseConnection failed!error:-202\n");
  db.UnInit();
}

TEST(DbOpenClose, SuccessfulOpenAndCloseLogNothingFromTheFacade) {
  TempDir dir;
  Db db;
  LogCapture log;
  OpenDb(db, dir.Path(), "rec.db", "");
  EXPECT_EQ(db.CloseDB(), 0);
  for (const auto& entry : log.Entries()) {
    EXPECT_NE(entry.file, kDbLogFile) << entry.text;
  }
  db.UnInit();
}

// ---- UnInit ----

TEST(DbUnInit, EmptyDbGivesZeroWithoutLog) {
  LogCapture log;
  Db db;
  EXPECT_EQ(db.UnInit(), 0);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  EXPECT_EQ(db.UnInit(), 0);
}

TEST(DbUnInit, OpenDbIsClosedAndFreed) {
  TempDir dir;
  Db db;
  OpenDb(db, dir.Path(), "rec.db", "");
  ASSERT_EQ(
      db.m_pDBConn->ExecuteSQL("create table t_x(a INTEGER);", nullptr, DB_EXEC_SQL_SYNC),
      0);
  LogCapture log;
  EXPECT_EQ(db.UnInit(), 0);
  EXPECT_EQ(db.m_pDBConn, nullptr);
  // The close ran through CloseDB (one successful close of the file) and
  // nothing failed.
  EXPECT_EQ(log.Count("RECORD: close:" + dir.Path() + "rec.db success"), 1u)
      << log.Dump();
  EXPECT_FALSE(log.Contains("CloseConnection failed"));
  EXPECT_EQ(db.GetDBStatus(), 2u);

  // The file is complete and can be opened again.
  Db again;
  OpenDb(again, dir.Path(), "rec.db", "");
  std::string name = "t_x";
  EXPECT_EQ(again.getTableStatus(name), 1);
  again.UnInit();
}

TEST(DbUnInit, ConfiguredDbLogsTheCloseFailureTwice) {
  TempDir dir;
  char empty[1] = {0};
  Db db;
  ASSERT_EQ(db.Init(0, dir.Path(), "rec.db", "j", empty, 0), 0);
  LogCapture log;
  EXPECT_EQ(db.UnInit(), 0);
  EXPECT_EQ(db.m_pDBConn, nullptr);
  const auto entries = log.WithText("CloseConnection failed!error:-202\n");
  ASSERT_EQ(entries.size(), 2u) << log.Dump();
  for (const auto& entry : entries) {
    EXPECT_EQ(entry.level, 3u);
    EXPECT_EQ(entry.file, kDbLogFile);
  }
}

TEST(DbUnInit, OpenDbWhoseCloseFailsIsStillFreed) {
  TempDir dir;
  Db db;
  OpenDb(db, dir.Path(), "rec.db", "");
  sqlite3* handle = HandleOf(db);
  ASSERT_NE(handle, nullptr);
  // An unfinished statement makes sqlite3_close refuse.
  sqlite3_stmt* statement = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(handle, "select 1;", -1, &statement, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);

  LogCapture log;
  EXPECT_EQ(db.UnInit(), 0);
  EXPECT_EQ(db.m_pDBConn, nullptr);
  const auto entries = log.WithText("CloseConnection failed!error:-203\n");
  ASSERT_EQ(entries.size(), 2u) << log.Dump();
  EXPECT_EQ(entries[0].level, 3u);
  EXPECT_EQ(entries[1].level, 3u);
  EXPECT_EQ(db.GetDBStatus(), 2u);

  // The refused closes left the handle open; release it here.
  sqlite3_finalize(statement);
  EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
}

// ---- reEncryptDB ----

TEST(DbReEncrypt, WithoutConnectionGivesTwo) {
  Db db;
  LogCapture log;
  std::string key = MakeKey('n');
  EXPECT_EQ(db.reEncryptDB(key.c_str(), 64), 2);
  ExpectLoggedOnce(log, 3, kDbLogFile, kNoConnection);
  EXPECT_EQ(log.Entries().size(), 1u);
  log.Clear();
  EXPECT_EQ(db.reEncryptDB(nullptr, 64), 2);  // the connection test wins
  ExpectLoggedOnce(log, 3, kDbLogFile, kNoConnection);
}

TEST(DbReEncrypt, NullKeyGivesMinusOne) {
  TempDir dir;
  Db db;
  std::string key = MakeKey('o');
  ASSERT_EQ(db.Init(0, dir.Path(), "rec.db", "j", key.data(), 64), 0);
  LogCapture log;
  EXPECT_EQ(db.reEncryptDB(nullptr, 64), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "szEncryptKey is null\n");
  EXPECT_EQ(log.Entries().size(), 1u);
  db.UnInit();
}

TEST(DbReEncrypt, PlainDatabasePassesTheConnectionCodeOn) {
  TempDir dir;
  Db db;
  OpenDb(db, dir.Path(), "rec.db", "");
  std::string key = MakeKey('p');
  LogCapture log;
  EXPECT_EQ(db.reEncryptDB(key.c_str(), 64), DB_ERR_ENCRYPT);
  // The facade adds no line of its own to the connection's.
  for (const auto& entry : log.Entries()) EXPECT_NE(entry.file, kDbLogFile);
  db.UnInit();
}

TEST(DbReEncrypt, NewKeyOpensTheFileAfterReopen) {
  TempDir dir;
  std::string oldKey = MakeKey('1');
  std::string newKey = MakeKey('2');
  {
    Db db;
    OpenDb(db, dir.Path(), "rec.db", oldKey);
    ASSERT_EQ(db.m_pDBConn->ExecuteSQL(
                  "create table t_x(a INTEGER);insert into t_x values(42);", nullptr,
                  DB_EXEC_SQL_SYNC),
              0);
    EXPECT_EQ(db.reEncryptDB(newKey.c_str(), 64), 0);
    EXPECT_EQ(db.UnInit(), 0);
  }
  Db reopened;
  OpenDb(reopened, dir.Path(), "rec.db", newKey);
  EXPECT_EQ(QueryOneValue(reopened, "select a from t_x;"), "42");
  reopened.UnInit();

  // The old key no longer reads the file.
  Db stale;
  OpenDb(stale, dir.Path(), "rec.db", oldKey);
  EXPECT_NE(QueryOneValue(stale, "select a from t_x;"), "42");
  stale.UnInit();
}

// ---- SetJournalAttr ----

TEST(DbJournal, WithoutConnectionFailsWithMinusOne) {
  Db db;
  LogCapture log;
  EXPECT_EQ(db.SetJournalAttr(DB_JOURNAL_WAL), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, kNoConnection);
  EXPECT_EQ(log.Entries().size(), 1u);
}

TEST(DbJournal, SetsTheModeOnAnOpenDb) {
  TempDir dir;
  Db db;
  OpenDb(db, dir.Path(), "rec.db", "");
  LogCapture log;
  EXPECT_EQ(db.SetJournalAttr(DB_JOURNAL_TRUNCATE), 0);
  EXPECT_EQ(QueryOneValue(db, "PRAGMA journal_mode;"), "truncate");
  EXPECT_EQ(log.Count("SetDBJournalAttr failed\n"), 0u);
  db.UnInit();
}

TEST(DbJournal, RefusedTypeIsLoggedWithoutNumber) {
  TempDir dir;
  Db db;
  OpenDb(db, dir.Path(), "rec.db", "");
  LogCapture log;
  EXPECT_EQ(db.SetJournalAttr(static_cast<DB_JOURNAL_TYPE>(6)), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "SetDBJournalAttr failed\n");
  EXPECT_EQ(QueryOneValue(db, "PRAGMA journal_mode;"), "delete");
  db.UnInit();
}

TEST(DbJournal, ClosedDbPassesTheConnectionCodeOn) {
  TempDir dir;
  char empty[1] = {0};
  Db db;
  ASSERT_EQ(db.Init(0, dir.Path(), "rec.db", "j", empty, 0), 0);
  LogCapture log;
  EXPECT_EQ(db.SetJournalAttr(DB_JOURNAL_WAL), DB_ERR_CONN_NOT_EXIST);
  ExpectLoggedOnce(log, 3, kDbLogFile, "SetDBJournalAttr failed\n");
  db.UnInit();
}

}  // namespace
