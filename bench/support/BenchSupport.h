// Shared pieces of the benchmarks that put the library beside raw SQLite:
// the benchmark record and its schema description, keyed databases in
// temporary directories opened the library's way and the raw way, the raw
// statement text that matches what the library sends, the raw column copy
// into the same records, and an SQL trace used to check that both sides of
// a pair send the same statements.
#ifndef IPC_DB_BENCH_SUPPORT_BENCHSUPPORT_H_
#define IPC_DB_BENCH_SUPPORT_BENCHSUPPORT_H_

#include <sqlcipher/sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TempDir.h"
#include "ipc_db.h"

namespace ipc_db_bench {

// The 64-character passphrase of every benchmark database.
extern const char kKey[65];

// Name of the benchmark table and the CREATE text the library sends for it
// (plain column names: the table is created with analyze_name 1).
extern const char kTableName[];
extern const char kCreateSql[];

// The file names, inside a temporary directory, of every benchmark database
// made by LibraryDb and RawDb.
extern const char kBenchDbFile[];
extern const char kBenchJournalFile[];

// A realistic camera event: an auto-increment key, three integers, a
// CHAR(32) label and a 64-byte blob.
struct BenchRecord {
  int32_t id;
  int32_t time;
  int32_t kind;
  int32_t value;
  char name[32];
  unsigned char data[64];
};

// `count` records with key 0 (so that the database assigns it), times
// counting up from `firstTime`, kinds alternating 0 and 1, labels such as
// "camera-event-000042" and blobs filled from the record's index.
std::vector<BenchRecord> MakeRecords(size_t count, int32_t firstTime = 1700000000);

// The description of BenchRecord: members iId_pa, iTime, iKind, iValue,
// cName and bData.
class BenchSchema {
 public:
  BenchSchema();
  BenchSchema(const BenchSchema&) = delete;
  BenchSchema& operator=(const BenchSchema&) = delete;

  Meta intType;
  Meta char32Type;
  Meta blob64Type;
  Meta record;
  Member* id;
  Member* time;
  Member* kind;
  Member* value;
  Member* name;
  Member* data;
};

// Whether the databases of RawOpenKeyed and LibraryDb are left unkeyed. The
// default is keyed; the quick smoke runs ask for plain files, since each
// keyed open derives the key (about 25 ms natively, more than a second
// under qemu-arm). Both sides send the same statements either way.
void SetPlainFiles(bool plain);
bool PlainFiles();

// Stops the process with a message; for setup steps that must not fail.
[[noreturn]] void Fatal(const std::string& message);

// The tests' temporary directory (tests/support/TempDir.h).
using ipc_db_test::TempDir;

// ---- Raw SQLite ------------------------------------------------------------

// What the library does before it keys a connection: SQLCipher 3's format as
// the process-wide default, set on a private in-memory connection (SQLCipher
// 4 copies the defaults into a connection at sqlite3_key). True on success.
bool RawUseCompatibleCipherDefaults();
// Opens `file`, keys it with the 64 key bytes (unless PlainFiles()) and sets
// the pragmas the library sets (compatibility 3, synchronous NORMAL, journal mode
// DELETE). Returns the handle; stops the process on a failure.
sqlite3* RawOpenKeyed(const std::string& file);
// Runs `sql`; stops the process on a failure.
void RawExec(sqlite3* db, const char* sql);
// Inserts `records` with one prepared statement in one transaction (setup).
void RawFill(sqlite3* db, const std::vector<BenchRecord>& records);

// The insert statement the library builds for `record` with all columns,
// written into `buffer` the way a C program would (snprintf). Returns its
// length, or -1 when it does not fit.
int RawInsertSql(char* buffer, size_t size, const BenchRecord& record);
// The same statement with the key as a parameter too: the text that the
// prepared-once ceiling binds all six values to.
extern const char kBoundInsertSql[];
// Binds the six values of `record` to a statement of kBoundInsertSql.
void RawBindRecord(sqlite3_stmt* stmt, const BenchRecord& record);

// Copies the six columns of the current row into `record` with the rules the
// library applies (a text or blob that does not fit, or NULL, leaves an
// empty string or a zero-filled field).
void RawCopyRecord(sqlite3_stmt* stmt, BenchRecord* record);
// Copies the text column `column` into a field of `width` bytes.
void RawCopyText(sqlite3_stmt* stmt, int column, char* dest, size_t width);

// ---- The library -----------------------------------------------------------

// A Db initialised on `dir` with the benchmark key (an empty one when
// PlainFiles()), opened, with the
// benchmark table created (analyze_name 1). Stops the process on a failure.
class LibraryDb {
 public:
  LibraryDb(const std::string& dir, BenchSchema* schema);
  ~LibraryDb();
  LibraryDb(const LibraryDb&) = delete;
  LibraryDb& operator=(const LibraryDb&) = delete;

  Table* table() const { return table_; }
  Db* db() { return &db_; }
  // The connection's SQLite handle.
  sqlite3* Handle() const;

 private:
  Db db_;
  Table* table_ = nullptr;
};

// A raw keyed database on `dir` with the benchmark table created by the same
// CREATE text.
class RawDb {
 public:
  explicit RawDb(const std::string& dir);
  ~RawDb();
  RawDb(const RawDb&) = delete;
  RawDb& operator=(const RawDb&) = delete;

  sqlite3* Handle() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// ---- Checking the statements ---------------------------------------------

// Records the text of every statement that starts running on `db`
// (sqlite3_trace_v2), until destroyed.
class SqlTrace {
 public:
  explicit SqlTrace(sqlite3* db);
  ~SqlTrace();
  SqlTrace(const SqlTrace&) = delete;
  SqlTrace& operator=(const SqlTrace&) = delete;

  const std::vector<std::string>& Statements() const { return statements_; }

 private:
  static int OnTrace(unsigned int type, void* ctx, void* p, void* x);
  sqlite3* db_;
  std::vector<std::string> statements_;
};

// Records the text of every statement of every connection opened while it
// lives: an automatic extension attaches the trace as soon as sqlite3_open
// has made a connection, before any statement of the opener runs. One at a
// time.
class ConnectionTrace {
 public:
  ConnectionTrace();
  ~ConnectionTrace();
  ConnectionTrace(const ConnectionTrace&) = delete;
  ConnectionTrace& operator=(const ConnectionTrace&) = delete;

  // The statements seen since the last Take, which starts a new list.
  std::vector<std::string> Take();

 private:
  static int Attach(sqlite3* db, const char** message, const void* api);
  static int Record(unsigned int type, void* ctx, void* p, void* x);
  static std::vector<std::string>* statements_;
  std::vector<std::string> seen_;
};

// Empty when `library` and `raw` hold the same statements in the same order;
// otherwise a description of the first difference.
std::string CompareStatements(const std::vector<std::string>& library,
                              const std::vector<std::string>& raw);

}  // namespace ipc_db_bench

#endif  // IPC_DB_BENCH_SUPPORT_BENCHSUPPORT_H_
