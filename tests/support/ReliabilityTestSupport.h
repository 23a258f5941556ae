// Helpers shared by the reliability tests (wrong keys, corruption, crash
// consistency, concurrency, file permissions): an event record and its
// schema description, opening a Db on a file in a test directory, and
// counting rows independently of the library. Their figures go to JSON
// result files (TestResults.h).
#ifndef IPC_DB_TESTS_SUPPORT_RELIABILITYTESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_RELIABILITYTESTSUPPORT_H_

#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Db.h"
#include "DbFilter.h"
#include "Meta.h"
#include "SQLiteDBConn.h"
#include "Table.h"
#include "TestResults.h"
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

  EventSchema();
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

// One event of batch `batch` at position `seq`, text "event-<batch>-<seq>".
Event MakeEvent(int32_t batch, int32_t seq, int32_t value);

// A batch of `count` events of one add_item call.
std::vector<Event> MakeBatch(int32_t batch, int count, int32_t value);

// Init and OpenDB on `dir` + `file` with `key` (empty: a plain file).
// Returns OpenDB's result, or -1000 when Init failed.
long long OpenEventDb(Db& db, const std::string& dir, const std::string& file,
                      const std::string& key);

inline CSqliteDBConn* SqliteConnOf(Db& db) {
  return static_cast<CSqliteDBConn*>(db.m_pDBConn);
}

// Writes `rows` events of batch 1 (value 5) into a new file through the
// library in one add_item, adds the index `index` on Seq, and closes the
// file. Returns 0, or the first failed call's result.
long long WriteIndexedEvents(const std::string& dir, const std::string& file,
                             const std::string& key, int rows, const std::string& index);

// Integer filter values travel in the pointer slot.
inline void* ValueSlot(long long value) { return IntSlot(value); }

// First value of the first row of `sql` run through the library's
// ExecuteSQL, or `fallback` when the statement fails or gives no row.
std::string ExecuteScalar(Db& db, const std::string& sql, const std::string& fallback,
                          long long* code = nullptr);

// Rows of `table` in a database file keyed with `key` (empty: plain),
// counted with SQLite directly (not through the library); -1 when the file
// cannot be read.
long long CountRowsDirectly(const std::string& path, const std::string& key,
                            const std::string& table = "t_event");

// The state a power cut can leave on a keyed file: a rollback journal
// beside it holding page 1, and page 1 in the file torn in its first bytes
// (the salt the key is derived with). Made with raw SQLite: a transaction
// that changes page 1 and spills to the file, both files copied while it
// is open, then the salt overwritten. Fails the calling test (gtest) when
// a step does not work.
void MakeTornFirstPage(const std::string& file, const std::string& key);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_RELIABILITYTESTSUPPORT_H_
