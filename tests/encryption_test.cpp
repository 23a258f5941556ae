// Tests of keying and journal mode against real SQLCipher files: what a
// keyed file reveals, who can read it (the sqlcipher shell with and without
// the key), re-keying (including the path that keeps the connection mutex
// held), the key buffer's copy rules, journal modes, and that no key byte
// ever reaches the log.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "ConnTestSupport.h"
#include "DBCommon.h"
#include "SQLiteDBConn.h"
#include "TestSupport.h"

using namespace ipc_db_test;

namespace {

constexpr const char* kMarker = "MARKER-plain-text-7f3a";

const std::string kOldKey = "3f9c1a7be2d4086f5a1c9e3b7d2f4a6c8e0b2d4f6a8c0e2b4d6f8a0c2e4b6d8f";
const std::string kNewKey = "b71e5c9a3d0f4e2a6c8b1d3f5e7a9c0b2d4e6f8a1c3e5b7d9f0a2c4e6b8d1f3a";

class EncryptionTest : public ::testing::Test {
 protected:
  std::string File() const { return dir_.Path() + "t.db"; }

  // Opens File() with `key`, writes the marker row and closes.
  void WriteMarker(const std::string& key) {
    if (!key.empty()) SetKey(conn_.get(), key);
    ASSERT_EQ(conn_->OpenConnection(), 0);
    std::string sql = std::string("create table t(v text); insert into t values('") + kMarker +
                      "');";
    ASSERT_EQ(conn_->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC), 0);
    ASSERT_EQ(conn_->CloseConnection(), 0);
  }

  // Output of "select v from t;" through the shell with `key`.
  std::string ShellRead(const std::string& key) {
    std::string output;
    RunShell(File(), key, "select v from t;", &output);
    return output;
  }

  std::string Journal() {
    return QueryText(conn_->m_pSqliteDB, "PRAGMA journal_mode;");
  }

  TempDir dir_;
  std::unique_ptr<CSqliteDBConn> conn_ = MakeConn(dir_.Path());
};

// True when some log entry contains the key or any 8-byte piece of it.
bool LogHoldsKey(const LogCapture& log, const std::string& key) {
  for (const LogEntry& entry : log.Entries()) {
    for (size_t i = 0; i + 8 <= key.size(); ++i) {
      if (entry.text.find(key.substr(i, 8)) != std::string::npos) return true;
    }
  }
  return false;
}

}  // namespace

// ---- What a keyed file shows ----

TEST_F(EncryptionTest, PlainFileShowsTheMarker) {
  WriteMarker("");
  EXPECT_NE(ReadFileBytes(File()).find(kMarker), std::string::npos);
  EXPECT_NE(ShellRead("").find(kMarker), std::string::npos);
}

TEST_F(EncryptionTest, KeyedFileHoldsNoPlainText) {
  LogCapture log;
  WriteMarker(kOldKey);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile,
                   "RECORD: sqlite3 encrypt:" + File() + " success");
  std::string bytes = ReadFileBytes(File());
  ASSERT_GT(bytes.size(), 0u);
  EXPECT_EQ(bytes.find(kMarker), std::string::npos);
  EXPECT_EQ(bytes.find("SQLite format 3"), std::string::npos);
  EXPECT_EQ(bytes.find("create table"), std::string::npos);
  EXPECT_EQ(bytes.find("CREATE TABLE"), std::string::npos);
}

TEST_F(EncryptionTest, ShellReadsRowsOnlyWithTheKey) {
  WriteMarker(kOldKey);
  EXPECT_EQ(ShellRead(kOldKey), std::string(kMarker) + "\n");
  std::string withoutKey = ShellRead("");
  EXPECT_EQ(withoutKey.find(kMarker), std::string::npos);
  EXPECT_NE(withoutKey.find(sqlite3_errstr(SQLITE_NOTADB)), std::string::npos)
      << withoutKey;
  std::string wrongKey = ShellRead(kNewKey);
  EXPECT_EQ(wrongKey.find(kMarker), std::string::npos);
}

TEST_F(EncryptionTest, ReopenWithTheSameKeyFindsTheRows) {
  WriteMarker(kOldKey);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "select v from t;"), kMarker);
}

TEST_F(EncryptionTest, OpeningWithTheWrongKeySucceedsButNothingCanBeRead) {
  WriteMarker(kOldKey);
  auto other = MakeConn(dir_.Path());
  SetKey(other.get(), kNewKey);
  LogCapture log;
  // Keying itself does not check the key; the journal pragma is the first
  // statement that reads the file.
  EXPECT_EQ(other->OpenConnection(), 0);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec PRAGMA journal_mode = DELETE failed:26");
  EXPECT_EQ(other->ExecuteSQL("select v from t;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
}

TEST_F(EncryptionTest, OpenKeysWithSixtyFourBytesOfTheBuffer) {
  // A 10-byte key over an earlier 64-byte one: the file is keyed with the
  // ten new bytes followed by bytes 10..63 of the old key.
  SetKey(conn_.get(), kOldKey);
  std::string shortKey = "0123456789";
  ASSERT_EQ(conn_->SetEncryptKey(shortKey.data(), 10), 0);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  ASSERT_EQ(Exec(conn_->m_pSqliteDB, std::string("create table t(v text); insert into t values('") +
                                         kMarker + "');"),
            0);
  ASSERT_EQ(conn_->CloseConnection(), 0);
  std::string effective = shortKey + kOldKey.substr(10);
  EXPECT_EQ(ShellRead(effective), std::string(kMarker) + "\n");
  EXPECT_EQ(ShellRead(kOldKey).find(kMarker), std::string::npos);
}

TEST_F(EncryptionTest, ResumeDoesNotKeyTheDatabase) {
  WriteMarker(kOldKey);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  ASSERT_EQ(conn_->PauseConnection(), 0);
  LogCapture log;
  EXPECT_EQ(conn_->ResumeConnection(), 0);
  EXPECT_EQ(conn_->m_enDBStatus, 1);
  EXPECT_EQ(log.Count("RECORD: sqlite3 encrypt:" + File() + " success"), 0u);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec PRAGMA journal_mode = DELETE failed:26");
  EXPECT_EQ(conn_->ExecuteSQL("select v from t;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  EXPECT_TRUE(log.Contains("RECORD: sqlite3_exec:select v from t; failed:26,")) << log.Dump();
  // Closing and opening again keys it.
  ASSERT_EQ(conn_->CloseConnection(), 0);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "select v from t;"), kMarker);
}

// ---- The key buffer ----

TEST_F(EncryptionTest, SetEncryptKeyCopiesWithoutTerminator) {
  std::string key = kOldKey;
  EXPECT_EQ(conn_->SetEncryptKey(key.data(), 64), 0);
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 64), kOldKey);
  EXPECT_EQ(conn_->m_szEncryptKey[64], '\0');
  std::string shortKey = "ABCDEFGHIJ";
  EXPECT_EQ(conn_->SetEncryptKey(shortKey.data(), 10), 0);
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 10), shortKey);
  EXPECT_EQ(std::string(conn_->m_szEncryptKey + 10, 54), kOldKey.substr(10));
  // 65 bytes fill the spare byte too.
  std::string full = kNewKey + "X";
  EXPECT_EQ(conn_->SetEncryptKey(full.data(), 65), 0);
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 65), full);
}

TEST_F(EncryptionTest, SetEncryptKeyRefusalsLeaveTheBufferUnchanged) {
  SetKey(conn_.get(), kOldKey);
  std::string before(conn_->m_szEncryptKey, 65);
  std::string tooLong(66, 'L');
  EXPECT_EQ(conn_->SetEncryptKey(tooLong.data(), 66), ERANGE);
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 65), before);
  EXPECT_EQ(conn_->SetEncryptKey(nullptr, 10), EINVAL);
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 65), before);
}

TEST_F(EncryptionTest, SetEncryptKeyTakesEffectAtTheNextOpen) {
  WriteMarker(kOldKey);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  std::string other = kNewKey;
  ASSERT_EQ(conn_->SetEncryptKey(other.data(), 64), 0);
  // The open handle still reads with the key it was opened with.
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "select v from t;"), kMarker);
}

// ---- Re-keying ----

TEST_F(EncryptionTest, ReEncryptThenReopenWithTheNewKey) {
  WriteMarker(kOldKey);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  LogCapture log;
  EXPECT_EQ(conn_->ReEncryptDB(kNewKey.c_str(), 64), 0);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: Success to ReEncryptDB " + File());
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 64), kNewKey);
  EXPECT_EQ(pthread_mutex_trylock(&conn_->m_mutexConn.m_mutex), 0);  // released
  pthread_mutex_unlock(&conn_->m_mutexConn.m_mutex);

  ASSERT_EQ(conn_->CloseConnection(), 0);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "select v from t;"), kMarker);
  ASSERT_EQ(conn_->CloseConnection(), 0);

  EXPECT_EQ(ShellRead(kNewKey), std::string(kMarker) + "\n");
  EXPECT_EQ(ShellRead(kOldKey).find(kMarker), std::string::npos);
  EXPECT_EQ(ReadFileBytes(File()).find(kMarker), std::string::npos);

  // A connection holding the old key can no longer read the file.
  auto stale = MakeConn(dir_.Path());
  SetKey(stale.get(), kOldKey);
  ASSERT_EQ(stale->OpenConnection(), 0);
  EXPECT_EQ(stale->ExecuteSQL("select v from t;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
}

TEST_F(EncryptionTest, ReEncryptOfAPlainDatabaseIsRefusedAtInformationLevel) {
  WriteMarker("");
  ASSERT_EQ(conn_->OpenConnection(), 0);
  LogCapture log;
  EXPECT_EQ(conn_->ReEncryptDB(kNewKey.c_str(), 64), DB_ERR_ENCRYPT);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: SqliteDB is not Encypt");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(conn_->m_szEncryptKey[0], '\0');
  ASSERT_EQ(conn_->CloseConnection(), 0);
  EXPECT_NE(ReadFileBytes(File()).find(kMarker), std::string::npos);  // still plain
}

TEST_F(EncryptionTest, ReEncryptWithAnEmptyNewKeyIsRefused) {
  WriteMarker(kOldKey);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  LogCapture log;
  EXPECT_EQ(conn_->ReEncryptDB("", 0), DB_ERR_ENCRYPT);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: SqliteDB is not Encypt");
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 64), kOldKey);
  ASSERT_EQ(conn_->CloseConnection(), 0);
  EXPECT_EQ(ShellRead(kOldKey), std::string(kMarker) + "\n");
}

TEST_F(EncryptionTest, ReEncryptWithoutAnOpenHandleFails) {
  SetKey(conn_.get(), kOldKey);
  LogCapture log;
  EXPECT_EQ(conn_->ReEncryptDB(kNewKey.c_str(), 64), DB_ERR_ENCRYPT);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: sqlite3 ReEncryptDB failed:1");
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 64), kOldKey);
  EXPECT_EQ(pthread_mutex_trylock(&conn_->m_mutexConn.m_mutex), 0);
  pthread_mutex_unlock(&conn_->m_mutexConn.m_mutex);
}

TEST_F(EncryptionTest, ReEncryptWithAKeyTooLongForTheBufferKeepsTheMutexHeld) {
  WriteMarker(kOldKey);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  std::string longKey = kNewKey + "XY";  // 66 bytes: the rekey accepts it
  LogCapture log;
  EXPECT_EQ(conn_->ReEncryptDB(longKey.c_str(), 66), DB_ERR_ENCRYPT);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: Failed to memcpy AESKey");
  EXPECT_EQ(log.Count("RECORD: Success to ReEncryptDB " + File()), 0u);
  // The refused copy cleared the buffer, and the mutex stays locked.
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 65), std::string(65, '\0'));
  EXPECT_EQ(pthread_mutex_trylock(&conn_->m_mutexConn.m_mutex), EBUSY);
  // The file was re-keyed with all 66 bytes all the same.
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "select v from t;"), kMarker);
  ASSERT_EQ(conn_->m_mutexConn.Unlock(), 0);  // let the test close it
  ASSERT_EQ(conn_->CloseConnection(), 0);
  EXPECT_EQ(ShellRead(longKey), std::string(kMarker) + "\n");
  EXPECT_EQ(ShellRead(kOldKey).find(kMarker), std::string::npos);
}

TEST_F(EncryptionTest, BaseReEncryptDoesNothing) {
  SetKey(conn_.get(), kOldKey);
  LogCapture log;
  EXPECT_EQ(conn_->CDBConn::ReEncryptDB(kNewKey.c_str(), 64), 0);
  EXPECT_EQ(std::string(conn_->m_szEncryptKey, 64), kOldKey);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(EncryptionTest, NoKeyByteReachesTheLog) {
  LogCapture log;
  g_enRecordDebugFlag = 1;
  SetKey(conn_.get(), kOldKey);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  ASSERT_EQ(conn_->ExecuteSQL("create table t(v text);", nullptr, DB_EXEC_SQL_SYNC), 0);
  ASSERT_EQ(conn_->ExecuteSQL("insert into t values('x');", nullptr, DB_EXEC_SQL_SYNC), 0);
  ASSERT_EQ(conn_->ReEncryptDB(kNewKey.c_str(), 64), 0);
  ASSERT_EQ(conn_->SetDBJournalAttr(DB_JOURNAL_TRUNCATE), 0);
  ASSERT_EQ(conn_->CloseConnection(), 0);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(conn_->GetRowCount("t"), 1);
  ASSERT_EQ(conn_->CloseConnection(), 0);
  conn_.reset();
  g_enRecordDebugFlag = 0;
  ASSERT_GT(log.Entries().size(), 10u);
  EXPECT_FALSE(LogHoldsKey(log, kOldKey)) << log.Dump();
  EXPECT_FALSE(LogHoldsKey(log, kNewKey)) << log.Dump();
  // The log does name the file.
  EXPECT_TRUE(log.Contains(File()));
}

// ---- Journal mode ----

TEST_F(EncryptionTest, WalReallySwitchesAndTheNextOpenResetsToDelete) {
  SetKey(conn_.get(), kOldKey);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  ASSERT_EQ(Exec(conn_->m_pSqliteDB, "create table t(v text);"), 0);
  SqlCapture sql(conn_->m_pSqliteDB);
  LogCapture log;
  EXPECT_EQ(conn_->SetDBJournalAttr(DB_JOURNAL_WAL), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"PRAGMA journal_mode = WAL;"});
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile,
                   "RECORD: sqlite3_exec success:PRAGMA journal_mode = WAL;");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(Journal(), "wal");
  ASSERT_EQ(Exec(conn_->m_pSqliteDB, "insert into t values('w');"), 0);
  EXPECT_TRUE(FileExists(File() + "-wal"));

  ASSERT_EQ(conn_->CloseConnection(), 0);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(Journal(), "delete");
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "select v from t;"), "w");
}

TEST_F(EncryptionTest, EachJournalTypeRunsItsModeText) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  struct Case {
    DB_JOURNAL_TYPE type;
    const char* text;
    const char* mode;
  };
  std::vector<Case> cases = {
      {DB_JOURNAL_TRUNCATE, "TRUNCATE", "truncate"}, {DB_JOURNAL_PERSIST, "PERSIST", "persist"},
      {DB_JOURNAL_MEMORY, "MEMORY", "memory"},       {DB_JOURNAL_OFF, "OFF", "off"},
      {DB_JOURNAL_DELETE, "Delete", "delete"},       {DB_JOURNAL_WAL, "WAL", "wal"},
  };
  for (const Case& c : cases) {
    SqlCapture sql(conn_->m_pSqliteDB);
    LogCapture log;
    std::string statement = std::string("PRAGMA journal_mode = ") + c.text + ";";
    EXPECT_EQ(conn_->SetDBJournalAttr(c.type), 0) << c.text;
    EXPECT_EQ(sql.Statements(), std::vector<std::string>{statement});
    ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: sqlite3_exec success:" + statement);
    EXPECT_EQ(Journal(), c.mode);
  }
}

TEST_F(EncryptionTest, UnknownJournalTypeIsRefusedBeforeAnySql) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  SqlCapture sql(conn_->m_pSqliteDB);
  LogCapture log;
  EXPECT_EQ(conn_->SetDBJournalAttr(static_cast<DB_JOURNAL_TYPE>(6)), -1);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: wrong enDbJournalType:6");
  EXPECT_EQ(conn_->SetDBJournalAttr(static_cast<DB_JOURNAL_TYPE>(-1)), -1);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: wrong enDbJournalType:-1");
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_EQ(log.Entries().size(), 2u) << log.Dump();
  EXPECT_EQ(Journal(), "delete");
}

TEST_F(EncryptionTest, JournalModeWithoutAHandle) {
  LogCapture log;
  EXPECT_EQ(conn_->SetDBJournalAttr(DB_JOURNAL_WAL), DB_ERR_CONN_NOT_EXIST);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: DB Connection has not exist");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST_F(EncryptionTest, FailedJournalPragmaLogsTheStatement) {
  WriteMarker(kOldKey);
  auto other = MakeConn(dir_.Path());
  SetKey(other.get(), kNewKey);  // wrong key: the pragma cannot read the file
  ASSERT_EQ(other->OpenConnection(), 0);
  LogCapture log;
  EXPECT_EQ(other->SetDBJournalAttr(DB_JOURNAL_WAL), -1);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec faild:PRAGMA journal_mode = WAL;");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}
