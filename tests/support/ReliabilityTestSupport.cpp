// The reliability test helpers: the event record, opening a Db on a test
// file, reads that go around the library, and a keyed file left as a power
// cut can leave it.
#include "ReliabilityTestSupport.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "EngineFormat.h"

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

long long WriteIndexedEvents(const std::string& dir, const std::string& file,
                             const std::string& key, int rows, const std::string& index) {
  Db db;
  EventSchema schema;
  long long result = OpenEventDb(db, dir, file, key);
  std::unique_ptr<Table> table;
  if (result == 0) table.reset(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
  if (result == 0 && table == nullptr) result = -1;
  if (result == 0) {
    std::vector<Event> events = MakeBatch(1, rows, 5);
    result = table->add_item(events.data(), events.size(), DbFilters(0));
  }
  if (result == 0) result = table->add_index(index, schema.member(2));
  table.reset();
  db.CloseDB();
  db.UnInit();
  return result;
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

long long CountRowsDirectly(const std::string& path, const std::string& key,
                            const std::string& table) {
  sqlite3* db = nullptr;
  long long count = -1;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      (key.empty() ||
       ipc_db_test::KeyInLibraryFormat(db, key) == SQLITE_OK)) {
    sqlite3_stmt* stmt = nullptr;
    const std::string sql = "select count(*) from " + table + ";";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
      count = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  return count;
}

void MakeTornFirstPage(const std::string& file, const std::string& key) {
  namespace fs = std::filesystem;
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(ipc_db_test::KeyInLibraryFormat(db, key), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "PRAGMA journal_mode = DELETE; PRAGMA cache_size = 2; begin; "
                         "create table torn_probe(y); with recursive n(i) as (select 1 "
                         "union all select i + 1 from n where i < 2000) insert into "
                         "torn_probe select randomblob(200) from n;",
                         nullptr, nullptr, nullptr),
            SQLITE_OK)
      << sqlite3_errmsg(db);
  fs::copy_file(file, file + ".cut");
  fs::copy_file(file + "-journal", file + "-journal.cut");
  sqlite3_exec(db, "rollback;", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  fs::rename(file + ".cut", file);
  fs::rename(file + "-journal.cut", file + "-journal");
  std::fstream torn(file, std::ios::in | std::ios::out | std::ios::binary);
  const char junk[16] = {'t', 'o', 'r', 'n', 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  torn.write(junk, sizeof(junk));
}

}  // namespace ipc_db_test
