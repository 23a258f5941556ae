// Helpers shared by the reliability tests (wrong keys, corruption, crash
// consistency, concurrency, file permissions): an event record and its
// schema description, opening a Db on a file in a test directory, counting
// rows independently of the library, and the "[reliability]" report lines
// from which docs/reliability.md is written.
#ifndef IPC_DB_TESTS_SUPPORT_RELIABILITYTESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_RELIABILITYTESTSUPPORT_H_

#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Db.h"
#include "DbFilter.h"
#include "Meta.h"
#include "SQLiteDBConn.h"
#include "Table.h"
#include "TestSupport.h"

namespace ipc_db_test {

// The record the reliability tests store.
struct Event {
  int32_t id;     // iId_pa: Id INTEGER PRIMARY KEY autoincrement
  int32_t batch;  // iBatch: Batch INTEGER (the add_item call that wrote it)
  int32_t seq;    // iSeq: Seq INTEGER (position inside that call)
  int32_t value;  // iValue: Value INTEGER (changed by updates)
  char text[24];  // cText: Text CHAR(24)
};

// Schema description of Event as table t_event, with plain column names
// (Id, Batch, Seq, Value, Text).
class EventSchema {
 public:
  static constexpr int kAnalyzeName = 1;

  EventSchema() {
    int4_.Init("int", 4);
    char24_.Init("char24", 24);
    meta_.Init("t_event", sizeof(Event));
    meta_.AddMember(new Member("iId_pa", offsetof(Event, id), &int4_));
    meta_.AddMember(new Member("iBatch", offsetof(Event, batch), &int4_));
    meta_.AddMember(new Member("iSeq", offsetof(Event, seq), &int4_));
    meta_.AddMember(new Member("iValue", offsetof(Event, value), &int4_));
    meta_.AddMember(new Member("cText", offsetof(Event, text), &char24_));
  }
  EventSchema(const EventSchema&) = delete;
  EventSchema& operator=(const EventSchema&) = delete;

  Meta* meta() { return &meta_; }
  Member* member(size_t index) { return meta_.members[index]; }
  Member* batch() { return member(1); }
  Member* value() { return member(3); }

 private:
  Meta int4_;
  Meta char24_;
  Meta meta_;
};

inline Event MakeEvent(int32_t batch, int32_t seq, int32_t value) {
  Event event;
  std::memset(&event, 0, sizeof(event));
  event.batch = batch;
  event.seq = seq;
  event.value = value;
  std::snprintf(event.text, sizeof(event.text), "event-%d-%d", batch, seq);
  return event;
}

// A batch of `count` events of one add_item call.
inline std::vector<Event> MakeBatch(int32_t batch, int count, int32_t value) {
  std::vector<Event> events;
  for (int seq = 0; seq < count; ++seq) events.push_back(MakeEvent(batch, seq, value));
  return events;
}

// Init and OpenDB on `dir` + `file` with `key` (empty: a plain file).
// Returns OpenDB's result, or -1000 when Init failed.
inline long long OpenEventDb(Db& db, const std::string& dir, const std::string& file,
                             const std::string& key) {
  std::vector<char> buffer(key.begin(), key.end());
  buffer.push_back('\0');
  if (db.Init(0, dir, file, file + "-journal", buffer.data(),
              static_cast<unsigned int>(key.size())) != 0) {
    return -1000;
  }
  return db.OpenDB();
}

inline CSqliteDBConn* SqliteConnOf(Db& db) {
  return static_cast<CSqliteDBConn*>(db.m_pDBConn);
}

// Integer filter values travel in the pointer slot.
inline void* ValueSlot(long long value) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(value));
}

// First value of the first row of `sql` run through the library's
// ExecuteSQL, or `fallback` when the statement fails or gives no row.
inline std::string ExecuteScalar(Db& db, const std::string& sql,
                                 const std::string& fallback, long long* code = nullptr) {
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

// Rows of table t_event in a plain database file, counted with SQLite
// directly (not through the library); -1 when the file cannot be read.
inline long long CountRowsDirectly(const std::string& path, const std::string& key) {
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

// Writes one line of the reliability report to standard output. The lines
// start with "[reliability] " and are collected into docs/reliability.md.
inline void Report(const std::string& line) {
  std::printf("[reliability] %s\n", line.c_str());
  std::fflush(stdout);
}

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_RELIABILITYTESTSUPPORT_H_
