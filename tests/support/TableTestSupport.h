// Helpers for tests of the record operations: scalar type descriptions, a
// fixture that opens a real database file in a temporary directory (plain
// by default, keyed on request), and direct queries on the connection's
// handle to check rows independently of the code under test.
#ifndef IPC_DB_TESTS_SUPPORT_TABLETESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_TABLETESTSUPPORT_H_

#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
  ScalarTypes() {
    int2.Init("short", 2);
    int4.Init("int", 4);
    int8.Init("long long", 8);
    char8.Init("char8", 8);
    char16.Init("char16", 16);
    char32.Init("char32", 32);
    blob8.Init("blob8", 8);
    blob64.Init("blob64", 64);
  }
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

inline Person MakePerson(int32_t id, int32_t age, const char* name, const char* note,
                         unsigned char seed) {
  Person person;
  std::memset(&person, 0, sizeof(person));
  person.id = id;
  person.age = age;
  // Texts as long as their field are stored without a terminator.
  std::memcpy(person.name, name, std::min(std::strlen(name), sizeof(person.name)));
  std::memcpy(person.note, note, std::min(std::strlen(note), sizeof(person.note)));
  for (size_t i = 0; i < sizeof(person.data); ++i) {
    person.data[i] = static_cast<unsigned char>(seed + i);
  }
  return person;
}

// Hex text of a Person's data field as SQLite's hex() prints it.
inline std::string HexOf(const unsigned char* bytes, size_t size) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string hex;
  for (size_t i = 0; i < size; ++i) {
    hex.push_back(kDigits[bytes[i] >> 4]);
    hex.push_back(kDigits[bytes[i] & 15]);
  }
  return hex;
}

// An integer filter value travels in the pointer slot.
inline void* IntSlot(long long value) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(value));
}

// Rows of a query as text; a NULL value reads as "<null>".
using Rows = std::vector<std::vector<std::string>>;

inline Rows QueryRows(sqlite3* db, const std::string& sql) {
  Rows rows;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << "query failed: " << sql << ": " << sqlite3_errmsg(db);
    sqlite3_finalize(stmt);
    return rows;
  }
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    std::vector<std::string> row;
    for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
      const unsigned char* text = sqlite3_column_text(stmt, i);
      row.push_back(text == nullptr ? "<null>" : reinterpret_cast<const char*>(text));
    }
    rows.push_back(row);
  }
  sqlite3_finalize(stmt);
  return rows;
}

inline void ExecRaw(sqlite3* db, const std::string& sql) {
  char* message = nullptr;
  int code = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
  EXPECT_EQ(code, SQLITE_OK) << sql << ": " << (message ? message : "");
  sqlite3_free(message);
}

// Opens a database file "test.db" in a fresh temporary directory; closes
// and releases it at the end of the test.
class DbTest : public testing::Test {
 protected:
  void SetUp() override { OpenDb(""); }
  void TearDown() override { db_.UnInit(); }

  void OpenDb(const std::string& key) {
    std::vector<char> keyBuffer(key.begin(), key.end());
    keyBuffer.push_back('\0');
    ASSERT_EQ(db_.Init(0, dir_.Path(), "test.db", "test.db-journal", keyBuffer.data(),
                       static_cast<unsigned int>(key.size())),
              0);
    ASSERT_EQ(db_.OpenDB(), 0);
  }

  sqlite3* Handle() { return static_cast<CSqliteDBConn*>(db_.m_pDBConn)->m_pSqliteDB; }
  Rows Query(const std::string& sql) { return QueryRows(Handle(), sql); }
  void Exec(const std::string& sql) { ExecRaw(Handle(), sql); }
  std::string DbFile() const { return dir_.Path() + "test.db"; }

  // Describes Person as table `name` (members iId_pa, iAge, cName, tNote,
  // bData in that order).
  void DescribePerson(Meta* meta, const std::string& name = "t_person") {
    meta->Init(name, sizeof(Person));
    meta->AddMember(new Member("iId_pa", offsetof(Person, id), &types_.int4));
    meta->AddMember(new Member("iAge", offsetof(Person, age), &types_.int4));
    meta->AddMember(new Member("cName", offsetof(Person, name), &types_.char8));
    meta->AddMember(new Member("tNote", offsetof(Person, note), &types_.char16));
    meta->AddMember(new Member("bData", offsetof(Person, data), &types_.blob8));
  }

  // Creates the table of `meta` and keeps the handle.
  Table* Create(Meta* meta, int analyzeName) {
    tables_.emplace_back(db_.createTable(meta, analyzeName));
    EXPECT_NE(tables_.back(), nullptr) << meta->type_name;
    return tables_.back().get();
  }

  TempDir dir_;
  Db db_;
  ScalarTypes types_;
  std::vector<std::unique_ptr<Table>> tables_;
};

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_TABLETESTSUPPORT_H_
