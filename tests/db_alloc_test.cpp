// Tests of the allocation failures of Db::Init and Db::createTable. This
// program replaces the non-throwing operator new so that a test can make the
// next such allocation fail; the library allocates its connection and its
// Table handles with it.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "Db.h"
#include "SchemaTestSupport.h"
#include "Table.h"
#include "TestSupport.h"

namespace {

std::atomic<int> g_failNextNothrowNew{0};
std::atomic<int> g_nothrowNewCalls{0};

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++g_nothrowNewCalls;
  if (g_failNextNothrowNew.exchange(0) != 0) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}

void operator delete(void* pointer, const std::nothrow_t&) noexcept {
  ::operator delete(pointer);
}

using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::HandleOf;
using ipc_db_test::LogCapture;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenDb;
using ipc_db_test::RecordSchema;
using ipc_db_test::SqlCapture;
using ipc_db_test::TempDir;

namespace {

const char kDbLogFile[] = "src_db/src/db";

TEST(DbAlloc, InitReportsAFailedConnectionAllocation) {
  Db db;
  db.m_pDBConn = reinterpret_cast<CDBConn*>(&db);  // an old value, never used
  std::string key = MakeKey('a');
  LogCapture log;
  const int callsBefore = g_nothrowNewCalls;
  g_failNextNothrowNew = 1;
  EXPECT_EQ(db.Init(0, "/tmp/", "a.db", "a.db-journal", key.data(), 64), -1);
  EXPECT_EQ(g_nothrowNewCalls - callsBefore, 1);
  EXPECT_EQ(db.m_pDBConn, nullptr);
  ExpectLoggedOnce(log, 3, kDbLogFile, "New DBConn failed\n");
  EXPECT_EQ(log.Entries().size(), 1u);
  EXPECT_EQ(db.GetDBStatus(), 2u);
}

TEST(DbAlloc, CreateTableReportsAFailedHandleAllocation) {
  TempDir dir;
  Db db;
  OpenDb(db, dir.Path(), "alloc.db", "");
  RecordSchema schema;
  SqlCapture sql(HandleOf(db));
  LogCapture log;
  g_failNextNothrowNew = 1;
  EXPECT_EQ(db.createTable(&schema.record, 1), nullptr);
  ExpectLoggedOnce(log, 3, kDbLogFile, "Db::createTable alloc table fail.\n");
  // Nothing was asked of the database.
  EXPECT_TRUE(sql.Statements().empty());
  std::string name = "t_rec";
  EXPECT_EQ(db.getTableStatus(name), 0);

  // The next allocation works again.
  Table* table = db.createTable(&schema.record, 1);
  EXPECT_NE(table, nullptr);
  delete table;
  db.UnInit();
}

}  // namespace
