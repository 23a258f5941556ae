// The reliability test helpers: the event record, opening a Db on a test
// file, and reads that go around the library.
#include "ReliabilityTestSupport.h"

#include <cstdio>
#include <cstring>

namespace ipc_db_test {

EventSchema::EventSchema() {
  int4_.Init("int", 4);
  char24_.Init("char24", 24);
  meta_.Init("t_event", sizeof(Event));
  meta_.AddMember(new Member("iId_pa", offsetof(Event, id), &int4_));
  meta_.AddMember(new Member("iBatch", offsetof(Event, batch), &int4_));
  meta_.AddMember(new Member("iSeq", offsetof(Event, seq), &int4_));
  meta_.AddMember(new Member("iValue", offsetof(Event, value), &int4_));
  meta_.AddMember(new Member("cText", offsetof(Event, text), &char24_));
}

Event MakeEvent(int32_t batch, int32_t seq, int32_t value) {
  Event event;
  std::memset(&event, 0, sizeof(event));
  event.batch = batch;
  event.seq = seq;
  event.value = value;
  std::snprintf(event.text, sizeof(event.text), "event-%d-%d", batch, seq);
  return event;
}

std::vector<Event> MakeBatch(int32_t batch, int count, int32_t value) {
  std::vector<Event> events;
  for (int seq = 0; seq < count; ++seq) events.push_back(MakeEvent(batch, seq, value));
  return events;
}

long long OpenEventDb(Db& db, const std::string& dir, const std::string& file,
                      const std::string& key) {
  std::vector<char> buffer(key.begin(), key.end());
  buffer.push_back('\0');
  if (db.Init(0, dir, file, file + "-journal", buffer.data(),
              static_cast<unsigned int>(key.size())) != 0) {
    return -1000;
  }
  return db.OpenDB();
}

std::string ExecuteScalar(Db& db, const std::string& sql, const std::string& fallback,
                          long long* code) {
  DB_EXEC_RESULT result = {0, 0, nullptr};
  long long rc = db.m_pDBConn->ExecuteSQL(sql.c_str(), &result, DB_EXEC_SQL_SYNC);
  if (code != nullptr) *code = rc;
  std::string value = fallback;
  if (rc == 0 && result.ppszResult != nullptr && result.iRowCount > 0 &&
      result.ppszResult[result.iColumnCount] != nullptr) {
    value = result.ppszResult[result.iColumnCount];
  }
  db.m_pDBConn->FreeExecuteResult(&result);
  return value;
}

long long CountRowsDirectly(const std::string& path, const std::string& key) {
  sqlite3* db = nullptr;
  long long count = -1;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      (key.empty() ||
       sqlite3_key(db, key.data(), static_cast<int>(key.size())) == SQLITE_OK)) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "select count(*) from t_event;", -1, &stmt, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
      count = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  return count;
}

}  // namespace ipc_db_test
