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
sqlite3* HandleOf(Db& db);

// Init and OpenDB of `db` on `file` in `dir` (gtest assertions). An empty
// `key` opens a plain file (no keying cost).
void OpenDb(Db& db, const std::string& dir, const std::string& file, std::string key);

// The first value of the first row of `sql` run through the connection, or
// "<error N>" / "<no row>" / "<null>".
std::string QueryOneValue(Db& db, const std::string& sql);

// Type descriptions and the record t_rec { int Id; char Name[32]; ... }
// (stride 40) with the members iId_pa and cName.
struct RecordSchema {
  RecordSchema();
  Meta intMeta;
  Meta char32Meta;
  Meta record;
};

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_SCHEMATESTSUPPORT_H_
