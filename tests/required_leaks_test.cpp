// The two leaks the library keeps on purpose, each in a test of its own so
// that the leak checkers (valgrind memcheck in scripts/test.sh, and
// LeakSanitizer in the asan build) can name them: a second Db::Init without
// UnInit drops the first connection, and a re-key whose key copy fails
// keeps the connection mutex, after which the connection can never be
// closed or freed (CloseDB and UnInit would wait on that mutex forever).
// tests/sanitizers/valgrind.supp and lsan.supp suppress exactly the blocks
// allocated under the two functions below that make these leaks.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

#include "ReliabilityTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::LogCapture;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenEventDb;
using ipc_db_test::TempDir;

namespace {

// The leaking steps live in functions of their own, never inlined, so that
// the suppressions can name them: every block they leave behind was
// allocated below one of these two frames.

// Configures `db` twice on two files and returns the first connection,
// which nothing owns afterwards.
__attribute__((noinline)) CDBConn* DropFirstConnectionBySecondInit(
    Db& db, const std::string& dir) {
  char empty[1] = {0};
  if (db.Init(0, dir, "first-connection.db", "first-connection.db-journal", empty, 0) !=
      0) {
    return nullptr;
  }
  CDBConn* first = db.m_pDBConn;
  if (db.Init(0, dir, "second-connection.db", "second-connection.db-journal", empty, 0) !=
      0) {
    return nullptr;
  }
  return first;
}

// Opens a keyed file and re-keys it with a 100-byte key, which SQLCipher
// takes and the 65-byte key buffer does not. Returns the re-key's result.
__attribute__((noinline)) long long OpenThenFailReKeyKeepingTheMutex(
    Db& db, const std::string& dir) {
  if (OpenEventDb(db, dir, "rekey.db", MakeKey('k')) != 0) return 0;
  std::string longKey(100, 'L');
  return db.reEncryptDB(longKey.c_str(), 100);
}

TEST(RequiredLeaks, SecondInitWithoutUnInitDropsTheFirstConnection) {
  TempDir dir;
  Db db;
  CDBConn* first = DropFirstConnectionBySecondInit(db, dir.Path());
  ASSERT_NE(first, nullptr);
  EXPECT_NE(db.m_pDBConn, first);
  EXPECT_EQ(db.UnInit(), 0);  // frees the second connection only
  // `first` is not freed here: nothing owns it any more.
}

// Keyed files of this process derive their keys with one PBKDF2 round
// instead of 64,000, so that the keyed open and the re-key below stay quick
// under valgrind. The leak does not depend on the key derivation.
void UseCheapKeyDerivation() {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  EXPECT_EQ(
      sqlite3_exec(db, "PRAGMA cipher_default_kdf_iter = 1;", nullptr, nullptr, nullptr),
      SQLITE_OK);
  sqlite3_close(db);
}

TEST(RequiredLeaks, FailedReKeyKeepsTheConnectionMutex) {
  UseCheapKeyDerivation();
  TempDir dir;
  Db db;
  LogCapture log;
  EXPECT_EQ(OpenThenFailReKeyKeepingTheMutex(db, dir.Path()), DB_ERR_ENCRYPT);
  EXPECT_EQ(db.GetDBStatus(), 1u);
  EXPECT_EQ(log.Count("RECORD: Failed to memcpy AESKey"), 1u);
  // The mutex is still held by this thread; any CloseDB, OpenDB, UnInit or
  // re-key on this connection would block for ever, so the connection, its
  // SQLite handle and its key stay allocated.
  EXPECT_EQ(pthread_mutex_trylock(&db.m_pDBConn->m_mutexConn.m_mutex), EBUSY);
}

}  // namespace
