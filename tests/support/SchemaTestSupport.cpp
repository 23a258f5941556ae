// The schema and facade test helpers.
#include "SchemaTestSupport.h"

namespace ipc_db_test {

sqlite3* HandleOf(Db& db) {
  auto* conn = dynamic_cast<CSqliteDBConn*>(db.m_pDBConn);
  return conn == nullptr ? nullptr : conn->m_pSqliteDB;
}

void OpenDb(Db& db, const std::string& dir, const std::string& file, std::string key) {
  char empty[1] = {0};
  char* keyBytes = key.empty() ? empty : key.data();
  ASSERT_EQ(db.Init(0, dir, file, file + "-journal", keyBytes,
                    static_cast<unsigned int>(key.size())),
            0);
  ASSERT_EQ(db.OpenDB(), 0);
}

std::string QueryOneValue(Db& db, const std::string& sql) {
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

RecordSchema::RecordSchema() {
  intMeta.Init("int", 4);
  char32Meta.Init("char32", 32);
  record.Init("t_rec", 40);
  record.AddMember(new Member("iId_pa", 0, &intMeta));
  record.AddMember(new Member("cName", 4, &char32Meta));
}

}  // namespace ipc_db_test
