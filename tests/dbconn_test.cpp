// Tests of the connection lifecycle: construction state and layout, file
// names, the install directory, open (plain, twice, failing), file modes,
// the connection pragmas, close, pause and resume, and destruction, each
// against a real database file in a per-test directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <string>

#include "ConnTestSupport.h"
#include "DBCommon.h"
#include "DBConn.h"
#include "SQLiteDBConn.h"
#include "TestEnv.h"
#include "TestSupport.h"

using namespace ipc_db_test;

namespace {

class ConnTest : public ::testing::Test {
 protected:
  std::string File() const { return dir_.Path() + "t.db"; }
  std::string Journal() const { return dir_.Path() + "t.db-journal"; }

  // The pause's settling sleep passes on a fake clock and is recorded.
  TestEnv env_{Clock::kFake};
  TempDir dir_;
  std::unique_ptr<CSqliteDBConn> conn_ = MakeConn(dir_.Path());
};

// Index of a virtual function in the vtable, or -1 for a non-virtual one.
template <typename MemberFunction>
long VirtualSlot(MemberFunction function) {
  struct Representation {
    std::ptrdiff_t ptr;
    std::ptrdiff_t adj;
  };
  static_assert(sizeof(MemberFunction) == sizeof(Representation));
  Representation rep;
  std::memcpy(&rep, &function, sizeof(rep));
#if defined(__arm__) || defined(__aarch64__)
  // ARM C++ ABI: the virtual mark is the low bit of the adjustment.
  if ((rep.adj & 1) == 0) return -1;
  return static_cast<long>(rep.ptr / static_cast<std::ptrdiff_t>(sizeof(void*)));
#else
  if ((rep.ptr & 1) == 0) return -1;
  return static_cast<long>((rep.ptr - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)));
#endif
}

template <typename T>
std::ptrdiff_t OffsetIn(const void* object, const T& member) {
  return reinterpret_cast<const char*>(&member) - static_cast<const char*>(object);
}

}  // namespace

// ---- Construction and layout ----

TEST_F(ConnTest, ConstructorSetsTheInitialState) {
  CSqliteDBConn conn;
  EXPECT_EQ(conn.m_iReserved, 0);
  EXPECT_EQ(conn.m_enDBStatus, 0);
  EXPECT_TRUE(conn.m_strInstallPath.empty());
  EXPECT_EQ(std::string(conn.m_szEncryptKey, 65), std::string(65, '\0'));
  EXPECT_EQ(conn.m_bExecThreadStarted, 0);
  EXPECT_EQ(conn.m_bExecThreadStop, 1);
  EXPECT_EQ(conn.m_bExecThreadRunning, 0);
  EXPECT_EQ(conn.m_pfnExecThread, &CSqliteDBConn::SqliteDBExecThreadFun);
  EXPECT_EQ(conn.m_pExecThreadArg, &conn);
  EXPECT_EQ(conn.m_pfnStopExecThread, &CSqliteDBConn::SqliteStopDBExecThreadFun);
  EXPECT_EQ(conn.m_pStopExecThreadArg, &conn);
  EXPECT_EQ(conn.m_mutexConn.m_bInit, 1);
  // The constructor configures the maintenance worker: stop flag cleared,
  // no thread started.
  EXPECT_EQ(conn.m_bMaintainThreadStarted, 0);
  EXPECT_EQ(conn.m_bMaintainThreadStop, 0);
  EXPECT_EQ(conn.m_bMaintainThreadRunning, 0);
  EXPECT_TRUE(conn.m_dqRepairItems.empty());
  EXPECT_EQ(conn.m_pSqliteDB, nullptr);
  EXPECT_TRUE(conn.m_strDBFile.empty());
  EXPECT_TRUE(conn.m_strDBJournal.empty());
  EXPECT_TRUE(conn.m_dqExecItems.empty());
  EXPECT_EQ(conn.m_bPaused, 0);
  EXPECT_EQ(conn.m_bInTransaction, 0);
  EXPECT_EQ(conn.m_ullExecCount, 0u);
  EXPECT_EQ(conn.m_ullWaitTimeOutCount, 0u);
}

TEST_F(ConnTest, ConstructionStartsNoThreadAndLogsNothing) {
  LogCapture log;
  int threadsBefore = ThreadCount();
  {
    CSqliteDBConn conn;
    EXPECT_EQ(ThreadCount(), threadsBefore);
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  }
}

TEST_F(ConnTest, DataMembersLieInTheirDeclaredOrderAndWidths) {
  CSqliteDBConn conn;
  const void* base = static_cast<const CDBConn*>(&conn);
  std::ptrdiff_t offsets[] = {
      OffsetIn(base, conn.m_iReserved),
      OffsetIn(base, conn.m_enDBStatus),
      OffsetIn(base, conn.m_strInstallPath),
      OffsetIn(base, conn.m_szEncryptKey),
      OffsetIn(base, conn.m_bExecThreadStarted),
      OffsetIn(base, conn.m_bExecThreadStop),
      OffsetIn(base, conn.m_bExecThreadRunning),
      OffsetIn(base, conn.m_pfnExecThread),
      OffsetIn(base, conn.m_pExecThreadArg),
      OffsetIn(base, conn.m_pfnStopExecThread),
      OffsetIn(base, conn.m_pStopExecThreadArg),
      OffsetIn(base, conn.m_mutexConn),
      OffsetIn(base, conn.m_bMaintainThreadStarted),
      OffsetIn(base, conn.m_bMaintainThreadStop),
      OffsetIn(base, conn.m_bMaintainThreadRunning),
      OffsetIn(base, conn.m_dqRepairItems),
      OffsetIn(base, conn.m_mutexRepair),
      OffsetIn(base, conn.m_condRepair),
      OffsetIn(base, conn.m_pSqliteDB),
      OffsetIn(base, conn.m_strDBFile),
      OffsetIn(base, conn.m_strDBJournal),
      OffsetIn(base, conn.m_dqExecItems),
      OffsetIn(base, conn.m_mutexExec),
      OffsetIn(base, conn.m_condExec),
      OffsetIn(base, conn.m_bPaused),
      OffsetIn(base, conn.m_bInTransaction),
      OffsetIn(base, conn.m_ullExecCount),
      OffsetIn(base, conn.m_ullWaitTimeOutCount),
  };
  // The vtable pointer comes first.
  EXPECT_EQ(offsets[0], static_cast<std::ptrdiff_t>(sizeof(void*)));
  for (size_t i = 1; i < sizeof(offsets) / sizeof(offsets[0]); ++i) {
    EXPECT_LT(offsets[i - 1], offsets[i]) << "member " << i;
  }
  EXPECT_EQ(sizeof(conn.m_iReserved), 4u);
  EXPECT_EQ(sizeof(conn.m_enDBStatus), 4u);
  EXPECT_EQ(sizeof(conn.m_szEncryptKey), 65u);
  EXPECT_EQ(sizeof(conn.m_bExecThreadStarted), 4u);
  EXPECT_EQ(sizeof(conn.m_bMaintainThreadRunning), 4u);
  EXPECT_EQ(sizeof(conn.m_bPaused), 4u);
  EXPECT_EQ(sizeof(conn.m_bInTransaction), 4u);
  EXPECT_EQ(sizeof(conn.m_ullExecCount), 8u);
  EXPECT_EQ(sizeof(conn.m_ullWaitTimeOutCount), 8u);
  EXPECT_EQ(sizeof(SQLITE_DB_EXEC_QUEUE_ITEM), 1028u);
  EXPECT_EQ(sizeof(DB_REPAIR_ITEM), 1028u);
  EXPECT_EQ(sizeof(DB_EXEC_RESULT), 8u + sizeof(char**));
  EXPECT_EQ(sizeof(DB_JOURNAL_TYPE), 4u);
  EXPECT_EQ(sizeof(DB_EXEC_SQL_TYPE), 4u);
}

TEST_F(ConnTest, VirtualOperationsOccupyTheirSlots) {
  // Slots 0 and 1 hold the two destructors.
  EXPECT_EQ(VirtualSlot(&CDBConn::OpenConnection), 2);
  EXPECT_EQ(VirtualSlot(&CDBConn::CloseConnection), 3);
  EXPECT_EQ(VirtualSlot(&CDBConn::ReEncryptDB), 4);
  EXPECT_EQ(VirtualSlot(&CDBConn::SetDBFile), 5);
  EXPECT_EQ(VirtualSlot(&CDBConn::SetDBJournal), 6);
  EXPECT_EQ(VirtualSlot(&CDBConn::SetDBJournalAttr), 7);
  EXPECT_EQ(VirtualSlot(&CDBConn::SetEncryptKey), 8);
  EXPECT_EQ(VirtualSlot(&CDBConn::ExecuteSQL), 9);
  EXPECT_EQ(VirtualSlot(&CDBConn::FreeExecuteResult), 10);
  EXPECT_EQ(VirtualSlot(&CDBConn::BeginTransaction), 11);
  EXPECT_EQ(VirtualSlot(&CDBConn::CommitTransaction), 12);
  EXPECT_EQ(VirtualSlot(&CDBConn::GetCountOfSQLResult), 13);
  EXPECT_EQ(VirtualSlot(&CDBConn::WhetherTableExist), 14);
  EXPECT_EQ(VirtualSlot(&CDBConn::GetRowCount), 15);
  EXPECT_EQ(VirtualSlot(&CDBConn::ForceCommitTransaction), 16);
  EXPECT_EQ(VirtualSlot(&CDBConn::BackUpDB), 17);
  EXPECT_EQ(VirtualSlot(&CDBConn::RepairDB), 18);
  EXPECT_EQ(VirtualSlot(&CDBConn::RestoreDB), 19);
  EXPECT_EQ(VirtualSlot(&CDBConn::PauseConnection), 20);
  EXPECT_EQ(VirtualSlot(&CDBConn::ResumeConnection), 21);
  EXPECT_EQ(VirtualSlot(&CSqliteDBConn::SetDBAttr), 22);
  EXPECT_EQ(VirtualSlot(&CDBConn::StartExecThread), -1);
  EXPECT_EQ(VirtualSlot(&CDBConn::CheckInstallPath), -1);
}

// ---- File names and the install directory ----

TEST_F(ConnTest, FileNamesArePlainConcatenations) {
  LogCapture log;
  CSqliteDBConn conn;
  conn.m_strInstallPath = "/data/rec/";
  conn.SetDBFile("a.db");
  conn.SetDBJournal("a.db-journal");
  EXPECT_EQ(conn.m_strDBFile, "/data/rec/a.db");
  EXPECT_EQ(conn.m_strDBJournal, "/data/rec/a.db-journal");
  conn.m_strInstallPath = "/data/rec";  // no slash of its own: none is added
  conn.SetDBFile("a.db");
  conn.SetDBJournal("j");
  EXPECT_EQ(conn.m_strDBFile, "/data/reca.db");
  EXPECT_EQ(conn.m_strDBJournal, "/data/recj");
  conn.m_strInstallPath.clear();
  conn.SetDBFile("rel.db");
  EXPECT_EQ(conn.m_strDBFile, "rel.db");
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(ConnTest, RecordDirAccess) {
  LogCapture log;
  std::string file = dir_.Path() + "plain-file";
  std::ofstream(file) << "x";
  EXPECT_EQ(conn_->RecordDirAccess(nullptr), -1);
  EXPECT_EQ(conn_->RecordDirAccess((dir_.Path() + "missing").c_str()), -1);
  EXPECT_EQ(conn_->RecordDirAccess(file.c_str()), -1);
  EXPECT_EQ(conn_->RecordDirAccess(dir_.Path().c_str()), 0);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(ConnTest, CheckInstallPathAcceptsAnExistingDirectory) {
  LogCapture log;
  ASSERT_EQ(chmod(dir_.Path().c_str(), 0700), 0);
  EXPECT_EQ(conn_->CheckInstallPath(), 0);
  EXPECT_EQ(FileMode(dir_.Path()), 0700);  // left as it was
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(ConnTest, OpenMakesAMissingInstallDirectoryWithMode0777) {
  mode_t previous = umask(0);
  std::string install = dir_.Path() + "rec/";
  auto conn = MakeConn(install);
  LogCapture log;
  EXPECT_EQ(conn->OpenConnection(), 0);
  umask(previous);
  EXPECT_EQ(FileMode(install), 0777);
  EXPECT_TRUE(FileExists(install + "t.db"));
  EXPECT_EQ(log.CountAtLevel(kLevelError), 0u) << log.Dump();
}

TEST_F(ConnTest, CheckInstallPathCreatesOneLevelWithMode0777) {
  mode_t previous = umask(0);
  conn_->m_strInstallPath = dir_.Path() + "one/";
  EXPECT_EQ(conn_->CheckInstallPath(), 0);
  umask(previous);
  EXPECT_EQ(FileMode(dir_.Path() + "one"), 0777);
}

TEST_F(ConnTest, MissingParentDirectoryFailsTheOpen) {
  std::string install = dir_.Path() + "no/such/";
  auto conn = MakeConn(install);
  LogCapture log;
  EXPECT_EQ(conn->OpenConnection(), DB_ERR_OPEN);
  ExpectLoggedOnce(log, kLevelError, kConnFile, "RECORD: mkdir " + install + " failed: 2");
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: CheckInstallPath failed");
  EXPECT_EQ(log.CountAtLevel(kLevelError), 2u) << log.Dump();
  EXPECT_EQ(conn->m_pSqliteDB, nullptr);
  EXPECT_EQ(conn->m_enDBStatus, 0);
  EXPECT_FALSE(FileExists(dir_.Path() + "no"));
  // The connection mutex was released: a later open can proceed.
  EXPECT_EQ(pthread_mutex_trylock(&conn->m_mutexConn.m_mutex), 0);
  pthread_mutex_unlock(&conn->m_mutexConn.m_mutex);
}

TEST_F(ConnTest, CheckInstallPathReportsAFailedMkdir) {
  conn_->m_strInstallPath = dir_.Path() + "a/b/";
  LogCapture log;
  EXPECT_EQ(conn_->CheckInstallPath(), DB_ERR_OPEN);
  ExpectLoggedOnce(log, kLevelError, kConnFile,
                   "RECORD: mkdir " + conn_->m_strInstallPath + " failed: 2");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

// ---- Open ----

TEST_F(ConnTest, OpenWithoutKeyMakesAPlainDatabase) {
  LogCapture log;
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_NE(conn_->m_pSqliteDB, nullptr);
  EXPECT_EQ(conn_->m_enDBStatus, 1);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: open:" + File() + " success");
  EXPECT_FALSE(log.Contains("encrypt")) << log.Dump();
  // The execution worker is configured (stop flag cleared) but not started.
  EXPECT_EQ(conn_->m_bExecThreadStop, 0);
  EXPECT_EQ(conn_->m_bExecThreadStarted, 0);
  EXPECT_EQ(conn_->m_bExecThreadRunning, 0);

  ASSERT_EQ(Exec(conn_->m_pSqliteDB, "create table t(v text); insert into t values('hello');"),
            0);
  ASSERT_EQ(conn_->CloseConnection(), 0);
  std::string bytes = ReadFileBytes(File());
  EXPECT_EQ(bytes.compare(0, 16, std::string("SQLite format 3\0", 16)), 0);
  EXPECT_NE(bytes.find("hello"), std::string::npos);
  SecondHandle plain(File());
  EXPECT_EQ(plain.Query("select v from t;"), "hello");
}

TEST_F(ConnTest, OpenLogsInOrderAndWarnsAboutAMissingJournal) {
  LogCapture log;
  ASSERT_EQ(conn_->OpenConnection(), 0);
  std::vector<std::string> texts;
  for (const LogEntry& entry : log.Entries()) texts.push_back(entry.text);
  std::vector<std::string> expected = {
      "RECORD: open:" + File() + " success",
      "RECORD: open " + Journal() + " in read only failed on 2",
      "RECORD: sqlite3_exec PRAGMA cipher_default_compatibility = 3 success",
      "RECORD: sqlite3_exec PRAGMA synchronous = NORMAL success",
      "RECORD: sqlite3_exec PRAGMA journal_mode = DELETE success",
  };
  EXPECT_EQ(texts, expected) << log.Dump();
  ExpectLoggedOnce(log, kLevelWarn, kCommonFile,
                   "RECORD: open " + Journal() + " in read only failed on 2");
  for (const char* text : {"RECORD: sqlite3_exec PRAGMA cipher_default_compatibility = 3 success",
                           "RECORD: sqlite3_exec PRAGMA synchronous = NORMAL success",
                           "RECORD: sqlite3_exec PRAGMA journal_mode = DELETE success"}) {
    ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, text);
  }
  for (const LogEntry& entry : log.Entries()) {
    EXPECT_EQ(entry.module, 4u);
    EXPECT_EQ(entry.debugFlag, 0u);
  }
}

TEST_F(ConnTest, EntriesCarryTheRecordDebugFlag) {
  LogCapture log;
  g_enRecordDebugFlag = 9;
  ASSERT_EQ(conn_->OpenConnection(), 0);
  g_enRecordDebugFlag = 0;
  ASSERT_FALSE(log.Entries().empty());
  for (const LogEntry& entry : log.Entries()) EXPECT_EQ(entry.debugFlag, 9u) << entry.text;
}

TEST_F(ConnTest, OpenSetsTheConnectionPragmas) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "PRAGMA synchronous;"), "1");  // NORMAL
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "PRAGMA journal_mode;"), "delete");
}

TEST_F(ConnTest, SetDBAttrRunsTheThreePragmasInOrder) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  ASSERT_EQ(Exec(conn_->m_pSqliteDB, "PRAGMA journal_mode = TRUNCATE; PRAGMA synchronous = FULL;"),
            0);
  SqlCapture sql(conn_->m_pSqliteDB);
  LogCapture log;
  EXPECT_EQ(conn_->SetDBAttr(), 0);
  std::vector<std::string> expected = {"PRAGMA cipher_default_compatibility = 3;",
                                       "PRAGMA synchronous = NORMAL;",
                                       "PRAGMA journal_mode = DELETE;"};
  EXPECT_EQ(sql.Statements(), expected);
  EXPECT_EQ(log.Entries().size(), 3u) << log.Dump();
  EXPECT_EQ(log.CountAtLevel(kLevelInfo), 3u) << log.Dump();
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "PRAGMA synchronous;"), "1");
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "PRAGMA journal_mode;"), "delete");
}

TEST_F(ConnTest, SetDBAttrWithoutAHandle) {
  LogCapture log;
  EXPECT_EQ(conn_->SetDBAttr(), DB_ERR_CONN_NOT_EXIST);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: DB Connection has not exist");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST_F(ConnTest, OpeningTwiceIsRefused) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  sqlite3* handle = conn_->m_pSqliteDB;
  LogCapture log;
  EXPECT_EQ(conn_->OpenConnection(), DB_ERR_CONN_EXIST);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: DB Connection has already exist");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(conn_->m_pSqliteDB, handle);
  EXPECT_EQ(conn_->m_enDBStatus, 1);
  EXPECT_EQ(QueryText(handle, "select 7;"), "7");
  EXPECT_EQ(pthread_mutex_trylock(&conn_->m_mutexConn.m_mutex), 0);
  pthread_mutex_unlock(&conn_->m_mutexConn.m_mutex);
}

TEST_F(ConnTest, OpenFailsWhenTheFileCannotBeOpened) {
  // The database name is a directory.
  ASSERT_EQ(mkdir(File().c_str(), 0755), 0);
  LogCapture log;
  EXPECT_EQ(conn_->OpenConnection(), DB_ERR_OPEN);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_open:" + File() + " failed:14");
  EXPECT_EQ(log.Count("RECORD: open:" + File() + " success"), 0u);
  EXPECT_EQ(conn_->m_enDBStatus, 0);
  // No handle is kept: once the cause is gone, the next open succeeds.
  EXPECT_EQ(conn_->m_pSqliteDB, nullptr);
  ASSERT_EQ(rmdir(File().c_str()), 0);
  EXPECT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(conn_->m_enDBStatus, 1);
}

TEST_F(ConnTest, DatabaseAndExistingJournalEndWithMode0640) {
  CreateDatabase(File(), 3);
  std::ofstream(Journal()).close();
  ASSERT_EQ(chmod(File().c_str(), 0666), 0);
  ASSERT_EQ(chmod(Journal().c_str(), 0604), 0);
  LogCapture log;
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(FileMode(File()), 0640);
  EXPECT_EQ(FileMode(Journal()), 0640);
  EXPECT_EQ(log.CountAtLevel(kLevelWarn), 0u) << log.Dump();
}

TEST_F(ConnTest, NewDatabaseEndsWithMode0640AndNoJournalIsMade) {
  mode_t previous = umask(0);
  ASSERT_EQ(conn_->OpenConnection(), 0);
  umask(previous);
  EXPECT_EQ(FileMode(File()), 0640);
  EXPECT_FALSE(FileExists(Journal()));
}

// ---- Close ----

TEST_F(ConnTest, ClosingANeverOpenedConnection) {
  LogCapture log;
  EXPECT_EQ(conn_->CloseConnection(), DB_ERR_CONN_NOT_EXIST);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: DB Connection has not exist");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(pthread_mutex_trylock(&conn_->m_mutexConn.m_mutex), 0);
  pthread_mutex_unlock(&conn_->m_mutexConn.m_mutex);
}

TEST_F(ConnTest, CloseReleasesTheHandleAndReopenFindsTheData) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  ASSERT_EQ(Exec(conn_->m_pSqliteDB, "create table t(v); insert into t values(42);"), 0);
  LogCapture log;
  EXPECT_EQ(conn_->CloseConnection(), 0);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: close:" + File() + " success");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(conn_->m_pSqliteDB, nullptr);
  EXPECT_EQ(conn_->m_enDBStatus, 0);
  EXPECT_EQ(conn_->CloseConnection(), DB_ERR_CONN_NOT_EXIST);

  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "select v from t;"), "42");
}

TEST_F(ConnTest, CloseWithAnUnfinishedStatementFails) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  sqlite3* handle = conn_->m_pSqliteDB;
  sqlite3_stmt* stmt = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(handle, "select 1;", -1, &stmt, nullptr), SQLITE_OK);
  LogCapture log;
  EXPECT_EQ(conn_->CloseConnection(), DB_ERR_CLOSE);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: sqlite3_close failed:5");
  EXPECT_EQ(conn_->m_pSqliteDB, handle);  // the handle is kept
  EXPECT_EQ(conn_->m_enDBStatus, 1);
  EXPECT_EQ(pthread_mutex_trylock(&conn_->m_mutexConn.m_mutex), 0);
  pthread_mutex_unlock(&conn_->m_mutexConn.m_mutex);
  sqlite3_finalize(stmt);
  EXPECT_EQ(conn_->CloseConnection(), 0);
}

// ---- Pause and resume ----

TEST_F(ConnTest, PauseOfAClosedConnectionDoesNothing) {
  LogCapture log;
  EXPECT_EQ(conn_->PauseConnection(), 0);
  EXPECT_EQ(conn_->m_bPaused, 0);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(ConnTest, ResumeOfAnOpenConnectionDoesNothing) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  sqlite3* handle = conn_->m_pSqliteDB;
  LogCapture log;
  EXPECT_EQ(conn_->ResumeConnection(), 0);
  EXPECT_EQ(conn_->m_pSqliteDB, handle);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(ConnTest, PauseAndResumeLifecycle) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  ASSERT_EQ(Exec(conn_->m_pSqliteDB, "create table t(v); insert into t values('kept');"), 0);

  LogCapture log;
  EXPECT_EQ(conn_->PauseConnection(), 0);
  // Settles for 2 s after closing.
  EXPECT_EQ(env_.Sleeps(), std::vector<unsigned long long>{2000});
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: Pause DB:" + File());
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile,
                   "RECORD: close DB:" + File() + " success");
  EXPECT_EQ(log.Entries().size(), 2u) << log.Dump();
  EXPECT_EQ(conn_->m_bPaused, 1);
  EXPECT_EQ(conn_->m_pSqliteDB, nullptr);
  EXPECT_EQ(conn_->m_enDBStatus, 0);

  // While paused, open, close and the pragmas do nothing and succeed.
  log.Clear();
  EXPECT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(conn_->m_pSqliteDB, nullptr);
  EXPECT_EQ(conn_->m_enDBStatus, 0);
  EXPECT_EQ(conn_->CloseConnection(), 0);
  EXPECT_EQ(conn_->SetDBAttr(), 0);
  EXPECT_EQ(conn_->SetDBJournalAttr(DB_JOURNAL_WAL), 0);
  EXPECT_EQ(conn_->m_bPaused, 1);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  // A second pause finds no handle and does nothing.
  EXPECT_EQ(conn_->PauseConnection(), 0);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();

  EXPECT_EQ(conn_->ResumeConnection(), 0);
  EXPECT_EQ(conn_->m_bPaused, 0);
  EXPECT_NE(conn_->m_pSqliteDB, nullptr);
  EXPECT_EQ(conn_->m_enDBStatus, 1);
  EXPECT_EQ(conn_->m_bExecThreadStop, 0);
  std::vector<std::string> texts;
  for (const LogEntry& entry : log.Entries()) texts.push_back(entry.text);
  std::vector<std::string> expected = {
      "RECORD: Resume DB:" + File(),
      "RECORD: open DB:" + File() + " success",
      "RECORD: sqlite3_exec PRAGMA cipher_default_compatibility = 3 success",
      "RECORD: sqlite3_exec PRAGMA synchronous = NORMAL success",
      "RECORD: sqlite3_exec PRAGMA journal_mode = DELETE success",
  };
  EXPECT_EQ(texts, expected) << log.Dump();
  EXPECT_EQ(log.CountAtLevel(kLevelInfo), 5u);
  EXPECT_EQ(QueryText(conn_->m_pSqliteDB, "select v from t;"), "kept");
  EXPECT_EQ(conn_->CloseConnection(), 0);
}

TEST_F(ConnTest, FailedPauseKeepsTheHandleAndStaysPaused) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  sqlite3* handle = conn_->m_pSqliteDB;
  sqlite3_stmt* stmt = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(handle, "select 1;", -1, &stmt, nullptr), SQLITE_OK);
  LogCapture log;
  EXPECT_EQ(conn_->PauseConnection(), DB_ERR_CLOSE);
  EXPECT_TRUE(env_.Sleeps().empty());  // no settling sleep
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: Pause DB:" + File());
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: sqlite3_close failed:5");
  EXPECT_EQ(conn_->m_bPaused, 1);
  EXPECT_EQ(conn_->m_pSqliteDB, handle);
  EXPECT_EQ(conn_->m_enDBStatus, 1);
  // Paused with a handle: resume sees the handle and does nothing, and close
  // sees the pause and does nothing.
  EXPECT_EQ(conn_->ResumeConnection(), 0);
  EXPECT_EQ(conn_->m_bPaused, 1);
  EXPECT_EQ(conn_->CloseConnection(), 0);
  EXPECT_EQ(conn_->m_pSqliteDB, handle);
  sqlite3_finalize(stmt);
  EXPECT_EQ(sqlite3_close(handle), SQLITE_OK);
  conn_->m_pSqliteDB = nullptr;
}

TEST_F(ConnTest, FailedResumeLeavesTheConnectionNeitherPausedNorOpen) {
  std::string install = dir_.Path() + "rec/";
  auto conn = MakeConn(install);
  ASSERT_EQ(conn->OpenConnection(), 0);
  ASSERT_EQ(conn->PauseConnection(), 0);
  // Take the directory away while paused.
  ASSERT_EQ(unlink((install + "t.db").c_str()), 0);
  ASSERT_EQ(rmdir(install.c_str()), 0);

  LogCapture log;
  EXPECT_EQ(conn->ResumeConnection(), DB_ERR_OPEN);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: Resume DB:" + install + "t.db");
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: sqlite3_open failed:14");
  EXPECT_EQ(conn->m_bPaused, 0);
  EXPECT_EQ(conn->m_pSqliteDB, nullptr);
  EXPECT_EQ(conn->m_enDBStatus, 0);
  log.Clear();
  EXPECT_EQ(conn->ExecuteSQL("select 1;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_CONN_NOT_EXIST);
  EXPECT_EQ(conn->CloseConnection(), DB_ERR_CONN_NOT_EXIST);
  EXPECT_EQ(log.Count("RECORD: DB Connection has not exist"), 2u) << log.Dump();
}

// ---- Destruction ----

TEST_F(ConnTest, DestructionClosesAnOpenConnection) {
  ASSERT_EQ(conn_->OpenConnection(), 0);
  ASSERT_EQ(Exec(conn_->m_pSqliteDB, "create table t(v); insert into t values(1);"), 0);
  LogCapture log;
  conn_.reset();
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: close:" + File() + " success");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  SecondHandle check(File());
  EXPECT_EQ(check.Query("select count(*) from t;"), "1");
}

TEST_F(ConnTest, DestructionOfANeverOpenedConnectionReportsNoHandle) {
  LogCapture log;
  conn_.reset();
  // The destructor's close finds no handle; its result is ignored.
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: DB Connection has not exist");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST_F(ConnTest, DestructionOverwritesTheKey) {
  alignas(CSqliteDBConn) unsigned char storage[sizeof(CSqliteDBConn)];
  auto* conn = new (storage) CSqliteDBConn();
  std::string key = MakeKey('Z');
  ASSERT_EQ(conn->SetEncryptKey(key.data(), 64), 0);
  std::ptrdiff_t offset =
      reinterpret_cast<unsigned char*>(conn->m_szEncryptKey) - storage;
  ASSERT_EQ(std::memcmp(storage + offset, key.data(), 64), 0);
  conn->~CSqliteDBConn();
  EXPECT_EQ(std::string(reinterpret_cast<char*>(storage) + offset, 65),
            std::string(65, '\0'));
}
