// The file format of keyed databases on either engine. Every keyed file the
// library writes must be in SQLCipher 3's format (1024-byte pages,
// PBKDF2-HMAC-SHA1, 64,000 iterations), whatever the process opened before:
// SQLCipher 4 copies its process-wide defaults into a connection when it is
// keyed, so without care the first keyed connection of a process would get
// SQLCipher 4's format and every later one SQLCipher 3's. ctest runs each
// test in a process of its own, so each one's first open is the process's
// first keyed connection. Each file is probed with both formats' explicit
// settings.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "EngineFormat.h"
#include "ReliabilityTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::CountRowsDirectly;
using ipc_db_test::EngineCipherVersion;
using ipc_db_test::Event;
using ipc_db_test::EventSchema;
using ipc_db_test::KeyInLibraryFormat;
using ipc_db_test::MakeBatch;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenEventDb;
using ipc_db_test::ProbeKeyedFile;
using ipc_db_test::TempDir;

namespace {

constexpr int kRows = 20;

class EngineFormatTest : public testing::Test {
 protected:
  void SetUp() override { std::printf("engine: SQLCipher %s\n", EngineCipherVersion().c_str()); }

  std::string PathOf(const std::string& file) const { return dir_.Path() + file; }

  // Opens `file` with `key` in `db`, creates t_event and adds kRows events.
  void OpenAndWrite(Db& db, const std::string& file, const std::string& key) {
    ASSERT_EQ(OpenEventDb(db, dir_.Path(), file, key), 0);
    std::unique_ptr<Table> table(db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    ASSERT_NE(table, nullptr);
    std::vector<Event> events = MakeBatch(1, kRows, 7);
    ASSERT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
  }

  // Rows of t_event read through the library on a fresh Db.
  long long RowsThroughLibrary(const std::string& file, const std::string& key) {
    Db db;
    if (OpenEventDb(db, dir_.Path(), file, key) != 0) return -2;
    Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
    DbFilters all(0);
    long long rows = table.get_item_cnt(all);
    db.UnInit();
    return rows;
  }

  // The file reads with SQLCipher 3's settings only, with 1024-byte pages.
  void ExpectSqlcipher3Format(const std::string& file, const std::string& key) {
    ipc_db_test::KeyedFileFormat format = ProbeKeyedFile(PathOf(file), key);
    EXPECT_TRUE(format.readsAsSqlcipher3) << file;
    EXPECT_FALSE(format.readsAsSqlcipher4) << file;
    EXPECT_EQ(format.pageSize, 1024) << file;
    EXPECT_GT(format.fileSize, 0) << file;
    EXPECT_EQ(format.fileSize % 1024, 0) << file;
    // Two pages of 1024 bytes at least, and not a whole number of 4096-byte
    // pages for a file this small: the pages are SQLCipher 3's.
    EXPECT_LT(format.fileSize, 4096 * 4) << file;
  }

  TempDir dir_;
  EventSchema schema_;
};

TEST_F(EngineFormatTest, FirstKeyedDbOfTheProcessWritesSqlcipher3Format) {
  const std::string key = MakeKey('a');
  Db db;
  OpenAndWrite(db, "first.db", key);
  ASSERT_EQ(db.UnInit(), 0);
  ExpectSqlcipher3Format("first.db", key);
  EXPECT_EQ(CountRowsDirectly(PathOf("first.db"), key, "t_event"), kRows);
}

TEST_F(EngineFormatTest, TwoKeyedDbsOpenAtOnceShareOneFormat) {
  const std::string keyA = MakeKey('a');
  const std::string keyB = MakeKey('b');
  Db first;
  Db second;
  OpenAndWrite(first, "a.db", keyA);
  OpenAndWrite(second, "b.db", keyB);
  ASSERT_EQ(first.UnInit(), 0);
  ASSERT_EQ(second.UnInit(), 0);
  ExpectSqlcipher3Format("a.db", keyA);
  ExpectSqlcipher3Format("b.db", keyB);
  EXPECT_EQ(RowsThroughLibrary("a.db", keyA), kRows);
  EXPECT_EQ(RowsThroughLibrary("b.db", keyB), kRows);
}

TEST_F(EngineFormatTest, KeyedFileReopensInTheProcessThatWroteIt) {
  const std::string key = MakeKey('r');
  {
    Db db;
    OpenAndWrite(db, "reopen.db", key);
    ASSERT_EQ(db.CloseDB(), 0);
    ASSERT_EQ(db.OpenDB(), 0);  // the same Db, closed and opened again
    Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
    DbFilters all(0);
    EXPECT_EQ(table.get_item_cnt(all), kRows);
    ASSERT_EQ(db.UnInit(), 0);
  }
  EXPECT_EQ(RowsThroughLibrary("reopen.db", key), kRows);  // a second Db
  ExpectSqlcipher3Format("reopen.db", key);
}

TEST_F(EngineFormatTest, RekeyedFileReopensWithTheNewKey) {
  const std::string oldKey = MakeKey('o');
  const std::string newKey = MakeKey('n');
  Db db;
  OpenAndWrite(db, "rekey.db", oldKey);
  ASSERT_EQ(db.reEncryptDB(newKey.data(), static_cast<unsigned int>(newKey.size())), 0);
  ASSERT_EQ(db.UnInit(), 0);
  EXPECT_EQ(RowsThroughLibrary("rekey.db", newKey), kRows);
  EXPECT_EQ(RowsThroughLibrary("rekey.db", oldKey), -1);  // the old key reads nothing
  ExpectSqlcipher3Format("rekey.db", newKey);
}

// An application that keyed a handle of its own with the engine's defaults
// before the library's first open does not change the library's format.
TEST_F(EngineFormatTest, ApplicationHandleKeyedFirstDoesNotChangeTheFormat) {
  const std::string key = MakeKey('p');
  sqlite3* own = nullptr;
  ASSERT_EQ(sqlite3_open(PathOf("own.db").c_str(), &own), SQLITE_OK);
  ASSERT_EQ(sqlite3_key(own, key.data(), static_cast<int>(key.size())), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(own, "create table x(y);", nullptr, nullptr, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_close(own), SQLITE_OK);

  Db db;
  OpenAndWrite(db, "after.db", key);
  ASSERT_EQ(db.UnInit(), 0);
  ExpectSqlcipher3Format("after.db", key);
  EXPECT_EQ(RowsThroughLibrary("after.db", key), kRows);
}

// The tests' own keyed handles (KeyInLibraryFormat) write the same format.
TEST_F(EngineFormatTest, TestHandlesWriteTheLibraryFormat) {
  const std::string key = MakeKey('t');
  sqlite3* own = nullptr;
  ASSERT_EQ(sqlite3_open(PathOf("test.db").c_str(), &own), SQLITE_OK);
  ASSERT_EQ(KeyInLibraryFormat(own, key), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(own, "create table x(y);", nullptr, nullptr, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_close(own), SQLITE_OK);
  ExpectSqlcipher3Format("test.db", key);
}

}  // namespace
