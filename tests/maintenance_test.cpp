// Tests of maintenance: how failed statements (real SQLite failures on
// damaged, locked or read-only databases) become queued repair, restore or
// reconnect requests; the two-item queue; repair through the command-line
// tool on plain and encrypted files; the empty back-up and restore; the
// maintenance worker body on threads that the tests start themselves; and
// its stop handshake, also when the worker never answers. The repair tool is
// the build tree's stand-in and the long waits run on a fake clock, both
// from the test environment (TestEnv.h).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ConnTestSupport.h"
#include "SQLiteDBConn.h"
#include "TestEnv.h"
#include "TestSupport.h"
#include "WaitBounds.h"

using namespace ipc_db_test;

namespace {

constexpr int kNoRequest = -1;

// Request expected for an SQLite primary result code.
int ExpectedRequest(int code) {
  switch (code) {
    case SQLITE_PERM:
    case SQLITE_ABORT:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_READONLY:
    case SQLITE_INTERRUPT:
    case SQLITE_PROTOCOL:
      return DB_REPAIR_CMD_RECONNECT;
    case SQLITE_IOERR:
      return DB_REPAIR_CMD_RESTORE;
    case SQLITE_CORRUPT:
    case SQLITE_FORMAT:
      return DB_REPAIR_CMD_REPAIR;
    default:
      return kNoRequest;
  }
}

ino_t InodeOf(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return 0;
  return info.st_ino;
}

// Sets the repair tool wrapper's mode for the lifetime of the object.
class ToolMode {
 public:
  explicit ToolMode(const char* mode) { setenv("IPC_DB_TEST_TOOL_MODE", mode, 1); }
  ~ToolMode() { unsetenv("IPC_DB_TEST_TOOL_MODE"); }
};

class MaintenanceTest : public ::testing::Test {
 protected:
  std::string File() const { return dir_.Path() + "t.db"; }

  // The command RepairDB runs for File().
  std::string RepairCommand() const {
    return std::string("echo \".dump\" | ") + RepairToolPath() + " " + File() + " | " +
           RepairToolPath() + " " + File() + ".new";
  }

  // Creates File() with table t (and index idx on v) of `rows` rows.
  void CreateIndexedDatabase(int rows) {
    CreateDatabase(File(), rows);
    SecondHandle db(File());
    ASSERT_EQ(Exec(db.get(), "create index idx on t(v);"), 0);
  }

  // Overwrites the page-type byte of the root page of `name`.
  void DamageRootPage(const std::string& name) {
    long pageSize = 0;
    long root = 0;
    PageOf(File(), name, &pageSize, &root);
    ASSERT_GT(root, 1);
    PatchFile(File(), (root - 1) * pageSize, std::string(1, '\xff'));
  }

  void Open() {
    ASSERT_EQ(conn_->OpenConnection(), 0);
    db_ = conn_->m_pSqliteDB;
  }

  // RepairDB reaches the repair tool's stand-in; the pause's 2 s and the
  // queue's 120 s pass only when a test moves the clock.
  TestEnv env_{Clock::kFake};
  TempDir dir_;
  std::unique_ptr<CSqliteDBConn> conn_ = MakeConn(dir_.Path());
  sqlite3* db_ = nullptr;
};

}  // namespace

// ---- Error classification ----

TEST_F(MaintenanceTest, EachSqliteCodeMapsToItsRequest) {
  for (int code = 0; code <= 28; ++code) {
    conn_->m_dqRepairItems.clear();
    conn_->ErrorProcess(code, "select 1;");
    std::vector<DB_REPAIR_ITEM> items = RepairItems(conn_.get());
    int expected = ExpectedRequest(code);
    if (expected == kNoRequest) {
      EXPECT_TRUE(items.empty()) << "code " << code;
    } else {
      ASSERT_EQ(items.size(), 1u) << "code " << code;
      EXPECT_EQ(items[0].enCmdType, expected) << "code " << code;
      EXPECT_STREQ(items[0].szSQL, "select 1;");
    }
  }
  // Extended codes are not reduced to their primary code.
  conn_->m_dqRepairItems.clear();
  conn_->ErrorProcess(SQLITE_BUSY_SNAPSHOT, "x");
  conn_->ErrorProcess(SQLITE_IOERR_READ, "x");
  EXPECT_TRUE(RepairItems(conn_.get()).empty());
}

TEST_F(MaintenanceTest, RequestWithoutStatementHasEmptyText) {
  conn_->ErrorProcess(SQLITE_CORRUPT, nullptr);
  auto items = RepairItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, DB_REPAIR_CMD_REPAIR);
  EXPECT_EQ(std::string(items[0].szSQL, sizeof(items[0].szSQL)),
            std::string(sizeof(items[0].szSQL), '\0'));
}

TEST_F(MaintenanceTest, CorruptTableFromARealStatementQueuesARepair) {
  CreateIndexedDatabase(300);
  DamageRootPage("t");
  Open();
  LogCapture log;
  const char* sql = "select * from t;";
  EXPECT_EQ(conn_->ExecuteSQL(sql, nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec:select * from t; failed:11,database disk image is "
                   "malformed");
  auto items = RepairItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, DB_REPAIR_CMD_REPAIR);
  EXPECT_STREQ(items[0].szSQL, sql);
}

TEST_F(MaintenanceTest, CorruptIndexFromAResultQueryQueuesARepair) {
  CreateIndexedDatabase(300);
  DamageRootPage("idx");
  Open();
  DB_EXEC_RESULT result;
  std::memset(&result, 0, sizeof(result));
  const char* sql = "select id from t where v = 'row5';";
  EXPECT_EQ(conn_->ExecuteSQL(sql, &result, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  conn_->FreeExecuteResult(&result);
  auto items = RepairItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, DB_REPAIR_CMD_REPAIR);
  EXPECT_STREQ(items[0].szSQL, sql);
}

TEST_F(MaintenanceTest, DamagedHeaderGivesNotADatabaseAndQueuesNothing) {
  CreateDatabase(File(), 5);
  PatchFile(File(), 0, "this is no header");
  LogCapture log;
  Open();
  // The journal-mode pragma already meets the damage; it is only logged.
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec PRAGMA journal_mode = DELETE failed:26");
  EXPECT_EQ(conn_->ExecuteSQL("select * from t;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   std::string("RECORD: sqlite3_exec:select * from t; failed:26,") +
                       sqlite3_errstr(SQLITE_NOTADB));
  EXPECT_TRUE(RepairItems(conn_.get()).empty());
}

TEST_F(MaintenanceTest, KeyedFileOpenedWithoutKeyQueuesNothing) {
  CreateDatabase(File(), 5, MakeKey('k'));
  Open();
  EXPECT_EQ(conn_->ExecuteSQL("select * from t;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  EXPECT_TRUE(RepairItems(conn_.get()).empty());
}

TEST_F(MaintenanceTest, ConstraintFailureQueuesNothing) {
  Open();
  ASSERT_EQ(Exec(db_, "create table u(id integer primary key); insert into u values(1);"), 0);
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL("insert into u values(1);", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: sqlite3_exec:insert into u values(1); failed:19,UNIQUE constraint "
                   "failed: u.id");
  EXPECT_TRUE(RepairItems(conn_.get()).empty());
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST_F(MaintenanceTest, LockedDatabaseQueuesAReconnect) {
  CreateDatabase(File(), 2);
  Open();
  SecondHandle holder(File());
  ASSERT_EQ(Exec(holder.get(), "begin exclusive;"), 0);
  EXPECT_EQ(conn_->ExecuteSQL("select * from t;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ASSERT_EQ(Exec(holder.get(), "commit;"), 0);
  auto items = RepairItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, DB_REPAIR_CMD_RECONNECT);
  EXPECT_STREQ(items[0].szSQL, "select * from t;");
}

TEST_F(MaintenanceTest, ReadOnlyRefusalQueuesAReconnect) {
  CreateDatabase(File(), 2);
  Open();
  ASSERT_EQ(Exec(db_, "PRAGMA query_only = 1;"), 0);
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL("delete from t;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  EXPECT_TRUE(log.Contains("failed:8,")) << log.Dump();
  auto items = RepairItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, DB_REPAIR_CMD_RECONNECT);
}

TEST_F(MaintenanceTest, ThirdRequestIsDroppedAndTheCallStillSucceeds) {
  CreateDatabase(File(), 2);
  Open();
  SecondHandle holder(File());
  ASSERT_EQ(Exec(holder.get(), "begin exclusive;"), 0);
  LogCapture log;
  for (int i = 0; i < 3; ++i) {
    std::string sql = "select " + std::to_string(i) + " from t;";
    EXPECT_EQ(conn_->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  }
  ASSERT_EQ(Exec(holder.get(), "commit;"), 0);
  ExpectLoggedOnce(log, kLevelError, kConnFile, "RECORD: MaintainDBCmd Queue is full.");
  auto items = RepairItems(conn_.get());
  ASSERT_EQ(items.size(), 2u);
  EXPECT_STREQ(items[0].szSQL, "select 0 from t;");
  EXPECT_STREQ(items[1].szSQL, "select 1 from t;");

  // Posting directly: still 0 and still dropped.
  DB_REPAIR_ITEM item;
  std::memset(&item, 0, sizeof(item));
  item.enCmdType = DB_REPAIR_CMD_EXIT;
  EXPECT_EQ(conn_->NotifyMaintainDBCmd(item), 0);
  EXPECT_EQ(log.Count("RECORD: MaintainDBCmd Queue is full."), 2u);
  EXPECT_EQ(RepairItems(conn_.get()).size(), 2u);
}

TEST_F(MaintenanceTest, FailedStatementTooLongToCopyQueuesNothing) {
  CreateIndexedDatabase(50);
  DamageRootPage("t");
  Open();
  // 1023 characters fit into the request; 1024 do not.
  std::string fits = "select * from t where id > 0" + std::string(1023 - 29, ' ') + ";";
  ASSERT_EQ(fits.size(), 1023u);
  std::string tooLong = "select * from t where id > 0" + std::string(1024 - 29, ' ') + ";";
  LogCapture log;
  EXPECT_EQ(conn_->ExecuteSQL(tooLong.c_str(), nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: Copy szSQL failed");
  EXPECT_TRUE(RepairItems(conn_.get()).empty());
  EXPECT_EQ(conn_->ExecuteSQL(fits.c_str(), nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  auto items = RepairItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(std::string(items[0].szSQL), fits);
}

// ---- The queue ----

TEST_F(MaintenanceTest, WaitTakesRequestsInOrder) {
  DB_REPAIR_ITEM item;
  std::memset(&item, 0, sizeof(item));
  item.enCmdType = DB_REPAIR_CMD_RESTORE;
  std::strcpy(item.szSQL, "first");
  ASSERT_EQ(conn_->NotifyMaintainDBCmd(item), 0);
  item.enCmdType = DB_REPAIR_CMD_WAKE;
  std::strcpy(item.szSQL, "second");
  ASSERT_EQ(conn_->NotifyMaintainDBCmd(item), 0);
  DB_REPAIR_ITEM out;
  ASSERT_EQ(conn_->WaitMaintainDBCmd(out), 0);
  EXPECT_EQ(out.enCmdType, DB_REPAIR_CMD_RESTORE);
  EXPECT_STREQ(out.szSQL, "first");
  ASSERT_EQ(conn_->WaitMaintainDBCmd(out), 0);
  EXPECT_EQ(out.enCmdType, DB_REPAIR_CMD_WAKE);
  EXPECT_STREQ(out.szSQL, "second");
  EXPECT_TRUE(RepairItems(conn_.get()).empty());
}

TEST_F(MaintenanceTest, WakeUpWithAnEmptyQueueEndsTheWait) {
  std::atomic<long long> result{1};
  std::thread waiter([&] {
    DB_REPAIR_ITEM item;
    result = conn_->WaitMaintainDBCmd(item);
  });
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(WakeUntil(
      &conn_->m_mutexRepair, &conn_->m_condRepair, [&] { return result.load() != 1; },
      kConditionWaitMs));
  waiter.join();
  EXPECT_EQ(result.load(), DB_ERR_WAIT_TIMEOUT);
  // Far from the 120 s limit.
  EXPECT_LT(MillisecondsSince(start), 5000 + kElapsedHeadroomMs);
}

TEST_F(MaintenanceTest, StartMaintenanceThreadCreatesNoThread) {
  conn_->m_bMaintainThreadStop = 1;
  int threads = ThreadCount();
  EXPECT_EQ(conn_->StartMaintenanceThread(), 0);
  EXPECT_EQ(conn_->m_bMaintainThreadStop, 0);
  EXPECT_EQ(conn_->m_bMaintainThreadStarted, 0);
  EXPECT_EQ(ThreadCount(), threads);
}

TEST_F(MaintenanceTest, StopGivesUpAfterFiftyOneSleeps) {
  // A worker that claims to run but never takes its wake item.
  conn_->m_bMaintainThreadStarted = 1;
  conn_->m_bMaintainThreadRunning = 1;
  LogCapture log;
  EXPECT_EQ(conn_->StopMaintenanceThread(), 0);
  EXPECT_EQ(env_.Sleeps(), std::vector<unsigned long long>(51, 100));
  EXPECT_EQ(env_.ElapsedMs(), 5100);
  ExpectLoggedOnce(log, kLevelError, kConnFile, "RECORD: MaintenanceThread stop time out!");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(conn_->m_bMaintainThreadStarted, 0);
  EXPECT_EQ(conn_->m_bMaintainThreadStop, 1);
  auto items = RepairItems(conn_.get());
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, DB_REPAIR_CMD_WAKE);
  conn_->m_bMaintainThreadRunning = 0;
}

TEST_F(MaintenanceTest, StopDoesNotLookAgainAfterTheLastSleep) {
  // A worker that leaves during the 51st sleep: this handshake, unlike the
  // execution worker's, logs the time-out without a look after that sleep.
  conn_->m_bMaintainThreadStarted = 1;
  conn_->m_bMaintainThreadRunning = 1;
  env_.OnSleep([this](size_t count) {
    if (count == 51) __atomic_store_n(&conn_->m_bMaintainThreadRunning, 0, __ATOMIC_SEQ_CST);
  });
  LogCapture log;
  EXPECT_EQ(conn_->StopMaintenanceThread(), 0);
  EXPECT_EQ(env_.Sleeps().size(), 51u);
  ExpectLoggedOnce(log, kLevelError, kConnFile, "RECORD: MaintenanceThread stop time out!");
  EXPECT_EQ(conn_->m_bMaintainThreadStarted, 0);
}

TEST_F(MaintenanceTest, StopOfANeverStartedMaintenanceWorkerReturnsAtOnce) {
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn_->StopMaintenanceThread(), 0);
  conn_->m_bMaintainThreadStarted = 1;  // started but not running
  EXPECT_EQ(conn_->StopMaintenanceThread(), 0);
  EXPECT_LT(MillisecondsSince(start), 50 + kElapsedHeadroomMs);
  EXPECT_EQ(conn_->m_bMaintainThreadStarted, 1);
  EXPECT_EQ(conn_->m_bMaintainThreadStop, 0);
  EXPECT_TRUE(RepairItems(conn_.get()).empty());
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  conn_->m_bMaintainThreadStarted = 0;
}

// ---- Back-up and restore ----

TEST_F(MaintenanceTest, BackUpAndRestoreChangeNothing) {
  CreateDatabase(File(), 3);
  Open();
  std::string before = ReadFileBytes(File());
  sqlite3* handle = conn_->m_pSqliteDB;
  LogCapture log;
  EXPECT_EQ(conn_->BackUpDB(), 0);
  EXPECT_EQ(conn_->RestoreDB(), 0);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  EXPECT_EQ(ReadFileBytes(File()), before);
  EXPECT_EQ(conn_->m_pSqliteDB, handle);
  EXPECT_EQ(conn_->m_enDBStatus, 1);
  EXPECT_EQ(conn_->m_bPaused, 0);
  EXPECT_TRUE(RepairItems(conn_.get()).empty());
  EXPECT_EQ(QueryText(handle, "select count(*) from t;"), "3");
  // Also on a closed connection.
  ASSERT_EQ(conn_->CloseConnection(), 0);
  EXPECT_EQ(conn_->BackUpDB(), 0);
  EXPECT_EQ(conn_->RestoreDB(), 0);
  EXPECT_EQ(ReadFileBytes(File()), before);
}

// ---- Repair through the command-line tool ----

TEST_F(MaintenanceTest, RepairRebuildsAPlainDatabase) {
  {
    SecondHandle db(File());
    ASSERT_EQ(Exec(db.get(),
                   "create table t(id integer primary key, v text, b blob, n integer);"
                   "create index idx on t(v);"
                   "insert into t values(1, 'it''s', x'00ff10', null);"
                   "insert into t values(2, 'two', null, 42);"),
              0);
  }
  ino_t before = InodeOf(File());
  LogCapture log;
  EXPECT_EQ(conn_->RepairDB(), 0);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: repair DB: " + File() + " begin");
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile,
                   "RECORD: repair DB command: " + RepairCommand());
  // The library names the device's tool; the test environment's shell ran
  // the stand-in in its place, and ExecShell logs what it ran.
  ExpectLoggedOnce(log, kLevelInfo, kCommonFile,
                   "RECORD: Begin ExecShell:" + ToolCommand(RepairCommand()) + ".");
  EXPECT_EQ(env_.ShellCommands(), std::vector<std::string>{ToolCommand(RepairCommand())});
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: repair DB: " + File() + " end");
  EXPECT_EQ(log.CountAtLevel(kLevelError), 0u) << log.Dump();
  EXPECT_FALSE(FileExists(File() + ".new"));
  ASSERT_TRUE(FileExists(File()));
  EXPECT_NE(InodeOf(File()), before);  // the rebuilt file took the name

  SecondHandle db(File());
  EXPECT_EQ(db.Query("select count(*) from t;"), "2");
  EXPECT_EQ(db.Query("select v from t where id = 1;"), "it's");
  EXPECT_EQ(db.Query("select hex(b) from t where id = 1;"), "00FF10");
  EXPECT_EQ(db.Query("select n from t where id = 1;"), "<null>");
  EXPECT_EQ(db.Query("select n from t where id = 2;"), "42");
  EXPECT_EQ(db.Query("select count(*) from sqlite_master where name = 'idx';"), "1");
}

TEST_F(MaintenanceTest, RepairLeavesTheJournalAlone) {
  CreateDatabase(File(), 2);
  conn_->SetDBJournal("side.journal");
  std::string journal = dir_.Path() + "side.journal";
  std::ofstream(journal) << "journal bytes";
  EXPECT_EQ(conn_->RepairDB(), 0);
  EXPECT_EQ(ReadFileBytes(journal), "journal bytes");
}

TEST_F(MaintenanceTest, RepairWithTheToolMissingLeavesTheDatabaseUntouched) {
  CreateDatabase(File(), 4);
  std::string bytes = ReadFileBytes(File());
  ino_t inode = InodeOf(File());
  ToolMode missing("missing");
  LogCapture log;
  EXPECT_EQ(conn_->RepairDB(), -1);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: Run:" + RepairCommand() + " failed");
  ExpectLoggedOnce(log, kLevelError, kCommonFile,
                   "RECORD: ExecShell failed. WEXITSTATUS(status) is 127");
  EXPECT_EQ(log.Count("RECORD: repair DB: " + File() + " end"), 0u);
  EXPECT_EQ(ReadFileBytes(File()), bytes);
  EXPECT_EQ(InodeOf(File()), inode);
  EXPECT_FALSE(FileExists(File() + ".new"));
}

TEST_F(MaintenanceTest, RepairWithAFailingToolLeavesTheDatabaseUntouched) {
  CreateDatabase(File(), 4);
  std::string bytes = ReadFileBytes(File());
  ToolMode failing("fail");
  LogCapture log;
  EXPECT_EQ(conn_->RepairDB(), -1);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: Run:" + RepairCommand() + " failed");
  EXPECT_EQ(ReadFileBytes(File()), bytes);
}

TEST_F(MaintenanceTest, RepairCommandLongerThanItsBufferIsCutAndRun) {
  // Choose the directory names so that the 255 characters of the command end
  // 50 characters into the second directory name: the cut command then
  // dumps a file that does not exist and never writes the ".new" file.
  std::string head = std::string("echo \".dump\" | ") + RepairToolPath() + " " + dir_.Path();
  long firstLength = 255 - static_cast<long>(head.size()) - 1 - 50;
  ASSERT_GE(firstLength, 1) << "tool path too long for this test";
  std::string first = dir_.Path() + std::string(firstLength, 'a') + "/";
  std::string install = first + std::string(100, 'b') + "/";
  ASSERT_EQ(mkdir(first.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(install.c_str(), 0755), 0);
  auto conn = MakeConn(install);
  CreateDatabase(conn->m_strDBFile, 2);
  std::string bytes = ReadFileBytes(conn->m_strDBFile);
  std::string newFile = conn->m_strDBFile + ".new";
  std::string full = std::string("echo \".dump\" | ") + RepairToolPath() + " " +
                     conn->m_strDBFile + " | " + RepairToolPath() + " " + newFile;
  std::string cut = full.substr(0, 255);
  ASSERT_EQ(cut, head + std::string(firstLength, 'a') + "/" + std::string(50, 'b'));

  LogCapture log;
  EXPECT_EQ(conn->RepairDB(), -1);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile, "RECORD: snprintf fail! error code is -1\n");
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: repair DB command: " + cut);
  ExpectLoggedOnce(log, kLevelDebug, kCommonFile,
                   "RECORD: End ExecShell:" + ToolCommand(cut) + ".");
  ExpectLoggedOnce(log, kLevelWarn, kCommonFile,
                   "RECORD: open " + newFile + " in read only failed on 2");
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: New file:" + newFile + " not exist!");
  EXPECT_EQ(ReadFileBytes(conn->m_strDBFile), bytes);
  EXPECT_FALSE(FileExists(newFile));
}

TEST_F(MaintenanceTest, RepairThatCannotDeleteTheOldFileLeavesTheNewOne) {
  // The database name is a directory: the tool dumps nothing, the loader
  // leaves the existing ".new" file alone, and unlink refuses a directory.
  ASSERT_EQ(mkdir(File().c_str(), 0755), 0);
  std::ofstream(File() + ".new") << "left over";
  LogCapture log;
  EXPECT_EQ(conn_->RepairDB(), -1);
  ExpectLoggedOnce(log, kLevelError, kSqliteConnFile,
                   "RECORD: delete:" + File() + " failed on 21");
  EXPECT_EQ(log.Count("RECORD: repair DB: " + File() + " end"), 0u);
  EXPECT_EQ(ReadFileBytes(File() + ".new"), "left over");
  struct stat info;
  ASSERT_EQ(stat(File().c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

TEST_F(MaintenanceTest, RepairOfAnEncryptedDatabaseEmptiesIt) {
  std::string key = MakeKey('e');
  SetKey(conn_.get(), key);
  Open();
  ASSERT_EQ(Exec(db_, "create table t(v text); insert into t values('secret row');"), 0);
  ASSERT_EQ(conn_->CloseConnection(), 0);
  ASSERT_GT(ReadFileBytes(File()).size(), 0u);

  // The tool gets no key: its dump holds only an error comment, the second
  // instance loads nothing into an empty file, and that file replaces the
  // database.
  LogCapture log;
  EXPECT_EQ(conn_->RepairDB(), 0);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: repair DB: " + File() + " end");
  EXPECT_EQ(log.CountAtLevel(kLevelError), 0u) << log.Dump();
  EXPECT_FALSE(FileExists(File() + ".new"));
  ASSERT_TRUE(FileExists(File()));
  EXPECT_EQ(ReadFileBytes(File()).size(), 0u);

  // Opening with the key succeeds on the empty file: the rows are gone.
  Open();
  EXPECT_EQ(conn_->WhetherTableExist("t"), 0);
  EXPECT_EQ(conn_->ExecuteSQL("create table t(v text);", nullptr, DB_EXEC_SQL_SYNC), 0);
  ASSERT_EQ(conn_->CloseConnection(), 0);
  std::string output;
  ASSERT_EQ(RunShell(File(), key, "select count(*) from t;", &output), 0);
  EXPECT_EQ(output, "0\n");
}

TEST_F(MaintenanceTest, RepairOfAnEncryptedDatabaseBetweenPauseAndResumeLeavesItPlain) {
  std::string key = MakeKey('p');
  SetKey(conn_.get(), key);
  Open();
  ASSERT_EQ(Exec(db_, "create table t(v text); insert into t values('old row');"), 0);
  // The worker's sequence: pause, repair, resume. Resume does not key the
  // handle, so after the repair emptied the file, new data is written plain.
  ASSERT_EQ(conn_->PauseConnection(), 0);
  EXPECT_EQ(env_.Sleeps(), std::vector<unsigned long long>{2000});  // the pause settles
  ASSERT_EQ(conn_->RepairDB(), 0);
  ASSERT_EQ(conn_->ResumeConnection(), 0);
  EXPECT_EQ(conn_->WhetherTableExist("t"), 0);
  ASSERT_EQ(conn_->ExecuteSQL("create table t(v text);", nullptr, DB_EXEC_SQL_SYNC), 0);
  ASSERT_EQ(conn_->ExecuteSQL("insert into t values('written after repair');", nullptr,
                              DB_EXEC_SQL_SYNC),
            0);
  ASSERT_EQ(conn_->CloseConnection(), 0);
  std::string bytes = ReadFileBytes(File());
  EXPECT_EQ(bytes.compare(0, 16, std::string("SQLite format 3\0", 16)), 0);
  EXPECT_NE(bytes.find("written after repair"), std::string::npos);
  EXPECT_EQ(bytes.find("old row"), std::string::npos);
  // The next keyed open cannot read the now plain file.
  ASSERT_EQ(conn_->OpenConnection(), 0);
  EXPECT_EQ(conn_->ExecuteSQL("select * from t;", nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
}

// ---- The maintenance worker body ----

namespace {

// A connection whose maintenance actions only record that they were called
// and on which thread.
class RecordingConn : public CSqliteDBConn {
 public:
  long long PauseConnection() override { return Note("pause"); }
  long long ResumeConnection() override { return Note("resume"); }
  long long RepairDB() override { return Note("repair"); }
  long long RestoreDB() override { return Note("restore"); }
  long long BackUpDB() override { return Note("backup"); }

  std::vector<std::string> Calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  std::vector<std::string> ThreadNames() {
    std::lock_guard<std::mutex> lock(mutex_);
    return names_;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
  }

 private:
  long long Note(const char* call) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(call);
    names_.push_back(ThreadName(CurrentTid()));
    return 0;
  }
  std::mutex mutex_;
  std::vector<std::string> calls_;
  std::vector<std::string> names_;
};

// MaintenanceThreadFun calls made by this process so far.
int g_maintainThreadsEntered = 0;

DB_REPAIR_ITEM RepairItem(int command) {
  DB_REPAIR_ITEM item;
  std::memset(&item, 0, sizeof(item));
  item.enCmdType = command;
  return item;
}

}  // namespace

TEST(MaintenanceWorker, DispatchesEachRequestAndNamesItsThread) {
  RecordingConn conn;
  int number = g_maintainThreadsEntered;
  ASSERT_TRUE(StartMaintenanceWorker(&conn));
  ++g_maintainThreadsEntered;

  struct Case {
    int command;
    std::vector<std::string> calls;
  };
  std::vector<Case> cases = {
      {DB_REPAIR_CMD_REPAIR, {"pause", "repair", "resume"}},
      {DB_REPAIR_CMD_RESTORE, {"pause", "restore", "resume"}},
      {DB_REPAIR_CMD_RECONNECT, {"pause", "resume"}},
      {7, {"pause", "resume"}},
  };
  for (const Case& c : cases) {
    conn.Clear();
    ASSERT_EQ(conn.NotifyMaintainDBCmd(RepairItem(c.command)), 0);
    ASSERT_TRUE(
        WaitFor([&] { return conn.Calls().size() == c.calls.size(); }, kConditionWaitMs))
        << "command " << c.command;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(conn.Calls(), c.calls) << "command " << c.command;
  }
  // A wake item does nothing.
  conn.Clear();
  ASSERT_EQ(conn.NotifyMaintainDBCmd(RepairItem(DB_REPAIR_CMD_WAKE)), 0);
  ASSERT_TRUE(WaitFor([&] { return RepairItems(&conn).empty(); }, kConditionWaitMs));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(conn.Calls().empty());
  EXPECT_EQ(LoadFlag(conn.m_bMaintainThreadRunning), 1);

  for (const std::string& name : conn.ThreadNames()) {
    EXPECT_EQ(name, "db_maintain_" + std::to_string(number));
  }
  EXPECT_FALSE(conn.ThreadNames().empty());

  // An exit item ends the loop without the stop flag.
  ASSERT_EQ(conn.NotifyMaintainDBCmd(RepairItem(DB_REPAIR_CMD_EXIT)), 0);
  EXPECT_TRUE(WaitFor([&] { return LoadFlag(conn.m_bMaintainThreadRunning) == 0; },
                      kConditionWaitMs));
  EXPECT_EQ(conn.m_bMaintainThreadStop, 0);
  EXPECT_TRUE(conn.Calls().empty());
  conn.m_bMaintainThreadStarted = 0;
}

TEST(MaintenanceWorker, QuietWaitCallsBackUp) {
  RecordingConn conn;
  ASSERT_TRUE(StartMaintenanceWorker(&conn));
  ++g_maintainThreadsEntered;
  // A wake-up that brings no request is handled like the 120 s time-out.
  EXPECT_TRUE(WakeUntil(
      &conn.m_mutexRepair, &conn.m_condRepair, [&] { return !conn.Calls().empty(); },
      kConditionWaitMs));
  EXPECT_EQ(conn.Calls().front(), "backup");
  EXPECT_EQ(conn.StopMaintenanceThread(), 0);
}

TEST(MaintenanceWorker, TwoQuietMinutesCallBackUp) {
  TestEnv env(Clock::kFake, kLiveWorkerSleepCapMs);
  RecordingConn conn;
  ASSERT_TRUE(StartMaintenanceWorker(&conn));
  ++g_maintainThreadsEntered;
  TestEnv::WaitState wait;
  ASSERT_TRUE(env.AwaitBlockedWait(&wait, kConditionWaitMs));
  EXPECT_EQ(wait.remainingMs, 120000);
  // A millisecond short of the deadline, the wait goes on.
  env.Advance(119999);
  EXPECT_FALSE(env.WaitEnded(wait));
  EXPECT_TRUE(conn.Calls().empty());
  // At the deadline it ends without a request: the worker calls BackUpDB.
  env.Advance(1);
  ASSERT_TRUE(env.AwaitWaitEnd(wait, kConditionWaitMs));
  ASSERT_TRUE(WaitFor([&] { return !conn.Calls().empty(); }, kConditionWaitMs));
  EXPECT_EQ(conn.Calls(), std::vector<std::string>{"backup"});
  EXPECT_EQ(env.ElapsedMs(), 120000);
  EXPECT_EQ(conn.StopMaintenanceThread(), 0);
}

TEST(MaintenanceWorker, StopHandshakeEndsARunningWorker) {
  RecordingConn conn;
  ASSERT_TRUE(StartMaintenanceWorker(&conn));
  ++g_maintainThreadsEntered;
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn.StopMaintenanceThread(), 0);
  EXPECT_LT(MillisecondsSince(start), 1000 + kElapsedHeadroomMs);
  EXPECT_EQ(LoadFlag(conn.m_bMaintainThreadRunning), 0);
  EXPECT_EQ(conn.m_bMaintainThreadStarted, 0);
  EXPECT_EQ(conn.m_bMaintainThreadStop, 1);
  EXPECT_TRUE(conn.Calls().empty());  // the wake item does nothing
  EXPECT_TRUE(RepairItems(&conn).empty());
  EXPECT_EQ(log.CountAtLevel(kLevelError), 0u) << log.Dump();
}

TEST(MaintenanceWorker, ThreadNamesCountUpOverTheProcess) {
  int first = g_maintainThreadsEntered;
  for (int i = 0; i < 2; ++i) {
    RecordingConn conn;
    ASSERT_TRUE(StartMaintenanceWorker(&conn));
    ++g_maintainThreadsEntered;
    ASSERT_EQ(conn.NotifyMaintainDBCmd(RepairItem(DB_REPAIR_CMD_RECONNECT)), 0);
    ASSERT_TRUE(WaitFor([&] { return conn.Calls().size() == 2; }, kConditionWaitMs));
    EXPECT_EQ(conn.ThreadNames().front(), "db_maintain_" + std::to_string(first + i));
    EXPECT_EQ(conn.StopMaintenanceThread(), 0);
  }
}

TEST(MaintenanceWorker, RepairsARealCorruptionEndToEnd) {
  TestEnv env(Clock::kFake, kLiveWorkerSleepCapMs);
  TempDir dir;
  std::string file = dir.Path() + "t.db";
  CreateDatabase(file, 300);
  {
    SecondHandle db(file);
    ASSERT_EQ(Exec(db.get(), "create index idx on t(v);"), 0);
  }
  long pageSize = 0;
  long root = 0;
  PageOf(file, "idx", &pageSize, &root);
  PatchFile(file, (root - 1) * pageSize, std::string(1, '\xff'));

  auto conn = MakeConn(dir.Path());
  ASSERT_EQ(conn->OpenConnection(), 0);
  const char* lookup = "select count(*) from t where v = 'row77'";
  ASSERT_EQ(conn->ExecuteSQL(lookup, nullptr, DB_EXEC_SQL_SYNC), DB_ERR_EXEC);
  ASSERT_EQ(RepairItems(conn.get()).size(), 1u);

  LogCapture log;
  ASSERT_TRUE(StartMaintenanceWorker(conn.get()));
  ++g_maintainThreadsEntered;
  // Pause (2 s on the fake clock), repair with the tool, resume.
  ASSERT_TRUE(
      WaitFor([&] { return log.Count("RECORD: open DB:" + file + " success") == 1; },
              kConditionWaitMs))
      << log.Dump();
  ASSERT_TRUE(
      WaitFor([&] { return LoadFlag(conn->m_enDBStatus) == 1; }, kConditionWaitMs));
  EXPECT_EQ(conn->StopMaintenanceThread(), 0);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: Pause DB:" + file);
  ExpectLoggedOnce(log, kLevelInfo, kSqliteConnFile, "RECORD: repair DB: " + file + " end");
  std::vector<unsigned long long> sleeps = env.Sleeps();
  ASSERT_FALSE(sleeps.empty());
  EXPECT_EQ(sleeps.front(), 2000u);  // the pause settled before the repair
  EXPECT_EQ(conn->m_bPaused, 0);
  // The index was rebuilt from the table's rows.
  EXPECT_EQ(conn->GetCountOfSQLResult(lookup), 1);
  EXPECT_EQ(conn->GetRowCount("t"), 300);
  EXPECT_EQ(QueryText(conn->m_pSqliteDB, "PRAGMA integrity_check;"), "ok");
}
