// Helpers for the tests of the schema and facade layer: a Db opened on a
// file in a per-test directory, its raw SQLite handle, one-value queries
// through the connection, and the usual record description t_rec.
#ifndef IPC_DB_TESTS_SUPPORT_SCHEMATESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_SCHEMATESTSUPPORT_H_

#include <gtest/gtest.h>

#include <string>

#include "DBConn.h"
#include "Db.h"
#include "Meta.h"
#include "SQLiteDBConn.h"

namespace ipc_db_test {

// The raw handle of `db`'s connection, or null.
inline sqlite3* HandleOf(Db& db) {
  auto* conn = dynamic_cast<CSqliteDBConn*>(db.m_pDBConn);
  return conn == nullptr ? nullptr : conn->m_pSqliteDB;
}

// Init and OpenDB of `db` on `file` in `dir`. An empty `key` opens a plain
// file (no keying cost).
inline void OpenDb(Db& db, const std::string& dir, const std::string& file,
                   std::string key) {
  char empty[1] = {0};
  char* keyBytes = key.empty() ? empty : key.data();
  ASSERT_EQ(db.Init(0, dir, file, file + "-journal", keyBytes,
                    static_cast<unsigned int>(key.size())),
            0);
  ASSERT_EQ(db.OpenDB(), 0);
}

// The first value of the first row of `sql` run through the connection, or
// "<error N>" / "<no row>" / "<null>".
inline std::string QueryOneValue(Db& db, const std::string& sql) {
  DB_EXEC_RESULT result = {0, 0, nullptr};
  long long code = db.m_pDBConn->ExecuteSQL(sql.c_str(), &result, DB_EXEC_SQL_SYNC);
  std::string value;
  if (code != 0) {
    value = "<error " + std::to_string(code) + ">";
  } else if (result.iRowCount < 1 || result.iColumnCount < 1) {
    value = "<no row>";
  } else if (result.ppszResult[result.iColumnCount] == nullptr) {
    value = "<null>";
  } else {
    value = result.ppszResult[result.iColumnCount];
  }
  db.m_pDBConn->FreeExecuteResult(&result);
  return value;
}

// Type descriptions and the record t_rec { int Id; char Name[32]; ... }
// (stride 40) with the members iId_pa and cName.
struct RecordSchema {
  RecordSchema() {
    intMeta.Init("int", 4);
    char32Meta.Init("char32", 32);
    record.Init("t_rec", 40);
    record.AddMember(new Member("iId_pa", 0, &intMeta));
    record.AddMember(new Member("cName", 4, &char32Meta));
  }
  Meta intMeta;
  Meta char32Meta;
  Meta record;
};

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_SCHEMATESTSUPPORT_H_
