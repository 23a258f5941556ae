// Helpers for tests of the record operations: scalar type descriptions, a
// fixture that opens a real database file in a temporary directory (plain
// by default, keyed on request), and direct queries on the connection's
// handle to check rows independently of the code under test.
#ifndef IPC_DB_TESTS_SUPPORT_TABLETESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_TABLETESTSUPPORT_H_

#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Db.h"
#include "DbFilter.h"
#include "Meta.h"
#include "SQLiteDBConn.h"
#include "Table.h"
#include "TestSupport.h"

namespace ipc_db_test {

constexpr char kDbLogFile[] = "src_db/src/db";

// Scalar type descriptions that member descriptions point at. They outlive
// every Meta of a test.
struct ScalarTypes {
  ScalarTypes();
  Meta int2, int4, int8, char8, char16, char32, blob8, blob64;
};

// The record most tests store: five columns of the four kinds.
struct Person {
  int32_t id;             // iId_pa: INTEGER PRIMARY KEY autoincrement
  int32_t age;            // iAge: INTEGER
  char name[8];           // cName: CHAR(8)
  char note[16];          // tNote: TEXT
  unsigned char data[8];  // bData: BLOB
};

// A Person with `name` and `note` copied without a terminator when they fill
// their fields, and data bytes counting up from `seed`.
Person MakePerson(int32_t id, int32_t age, const char* name, const char* note,
                  unsigned char seed);

// Hex text of a Person's data field as SQLite's hex() prints it.
std::string HexOf(const unsigned char* bytes, size_t size);

// Rows of a query as text; a NULL value reads as "<null>". A statement that
// cannot be prepared adds a gtest failure and gives no rows.
using Rows = std::vector<std::vector<std::string>>;
Rows QueryRows(sqlite3* db, const std::string& sql);

// Runs `sql` on `db`, expecting SQLITE_OK.
void ExecRaw(sqlite3* db, const std::string& sql);

// Opens a database file "test.db" in a fresh temporary directory; closes
// and releases it at the end of the test.
class DbTest : public testing::Test {
 protected:
  void SetUp() override { OpenDb(""); }
  void TearDown() override { db_.UnInit(); }

  void OpenDb(const std::string& key);

  sqlite3* Handle() { return static_cast<CSqliteDBConn*>(db_.m_pDBConn)->m_pSqliteDB; }
  Rows Query(const std::string& sql) { return QueryRows(Handle(), sql); }
  void Exec(const std::string& sql) { ExecRaw(Handle(), sql); }
  std::string DbFile() const { return dir_.Path() + "test.db"; }

  // Describes Person as table `name` (members iId_pa, iAge, cName, tNote,
  // bData in that order).
  void DescribePerson(Meta* meta, const std::string& name = "t_person");

  // Creates the table of `meta` and keeps the handle.
  Table* Create(Meta* meta, int analyzeName);

  TempDir dir_;
  Db db_;
  ScalarTypes types_;
  std::vector<std::unique_ptr<Table>> tables_;
};

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_TABLETESTSUPPORT_H_
