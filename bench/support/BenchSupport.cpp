// Records, schema, keyed databases, raw statement text and raw column copies
// shared by the benchmarks; see BenchSupport.h.
#include "BenchSupport.h"

#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <utility>

namespace ipc_db_bench {

const char kKey[65] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
const char kTableName[] = "t_event";
const char kCreateSql[] =
    "create table t_event(Id INTEGER PRIMARY KEY autoincrement,Time INTEGER,"
    "Kind INTEGER,Value INTEGER,Name CHAR(32),Data BLOB);";
const char kBenchDbFile[] = "bench.db";
const char kBenchJournalFile[] = "bench.db-journal";
const char kBoundInsertSql[] =
    "insert into t_event(Id,Time,Kind,Value,Name,Data) values (?,?,?,?,?,?);";

namespace {

bool g_plainFiles = false;

}  // namespace

std::vector<BenchRecord> MakeRecords(size_t count, int32_t firstTime) {
  std::vector<BenchRecord> records(count);
  for (size_t i = 0; i < count; ++i) {
    BenchRecord& record = records[i];
    std::memset(&record, 0, sizeof(record));
    record.id = 0;
    record.time = firstTime + static_cast<int32_t>(i);
    record.kind = static_cast<int32_t>(i % 2);
    record.value = static_cast<int32_t>((i * 7919) % 100000);
    std::snprintf(record.name, sizeof(record.name), "camera-event-%06zu", i % 1000000);
    for (size_t b = 0; b < sizeof(record.data); ++b) {
      record.data[b] = static_cast<unsigned char>((i + b * 31) & 0xFF);
    }
  }
  return records;
}

BenchSchema::BenchSchema() {
  intType.Init("int", sizeof(int32_t));
  char32Type.Init("char32", sizeof(BenchRecord::name));
  blob64Type.Init("blob64", sizeof(BenchRecord::data));
  record.Init(kTableName, sizeof(BenchRecord));
  id = new Member("iId_pa", offsetof(BenchRecord, id), &intType);
  time = new Member("iTime", offsetof(BenchRecord, time), &intType);
  kind = new Member("iKind", offsetof(BenchRecord, kind), &intType);
  value = new Member("iValue", offsetof(BenchRecord, value), &intType);
  name = new Member("cName", offsetof(BenchRecord, name), &char32Type);
  data = new Member("bData", offsetof(BenchRecord, data), &blob64Type);
  for (Member* member : {id, time, kind, value, name, data}) {
    if (record.AddMember(member) != 1) Fatal("AddMember failed for " + member->name);
  }
}

void SetPlainFiles(bool plain) { g_plainFiles = plain; }

bool PlainFiles() { return g_plainFiles; }

void Fatal(const std::string& message) {
  std::fprintf(stderr, "bench: %s\n", message.c_str());
  std::fflush(stderr);
  std::exit(2);
}

// ---- Raw SQLite ------------------------------------------------------------

bool RawUseCompatibleCipherDefaults() {
  sqlite3* scratch = nullptr;
  bool ok = sqlite3_open(":memory:", &scratch) == SQLITE_OK &&
            sqlite3_exec(scratch, "PRAGMA cipher_default_compatibility = 3;", nullptr,
                         nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(scratch);
  return ok;
}

sqlite3* RawOpenKeyed(const std::string& file) {
  sqlite3* db = nullptr;
  if (sqlite3_open(file.c_str(), &db) != SQLITE_OK) Fatal("sqlite3_open failed: " + file);
  if (!PlainFiles() &&
      !(RawUseCompatibleCipherDefaults() && sqlite3_key(db, kKey, 64) == SQLITE_OK)) {
    Fatal("sqlite3_key failed: " + file);
  }
  RawExec(db, "PRAGMA cipher_default_compatibility = 3;");
  RawExec(db, "PRAGMA synchronous = NORMAL;");
  RawExec(db, "PRAGMA journal_mode = DELETE;");
  return db;
}

void RawExec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = std::string(sql) + ": " + (message != nullptr ? message : "?");
    sqlite3_free(message);
    Fatal(text);
  }
}

void RawFill(sqlite3* db, const std::vector<BenchRecord>& records) {
  RawExec(db, "begin;");
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, kBoundInsertSql, -1, &stmt, nullptr) != SQLITE_OK) {
    Fatal(std::string("prepare failed: ") + sqlite3_errmsg(db));
  }
  for (const BenchRecord& record : records) {
    RawBindRecord(stmt, record);
    if (sqlite3_step(stmt) != SQLITE_DONE)
      Fatal(std::string("fill: ") + sqlite3_errmsg(db));
    sqlite3_reset(stmt);
  }
  sqlite3_finalize(stmt);
  RawExec(db, "commit;");
}

int RawInsertSql(char* buffer, size_t size, const BenchRecord& record) {
  int length;
  if (record.id == 0) {
    length = std::snprintf(buffer, size,
                           "insert into t_event(Id,Time,Kind,Value,Name,Data) values "
                           "(NULL,%d,%d,%d,'%.32s',?);",
                           record.time, record.kind, record.value, record.name);
  } else {
    length =
        std::snprintf(buffer, size,
                      "insert into t_event(Id,Time,Kind,Value,Name,Data) values "
                      "(%d,%d,%d,%d,'%.32s',?);",
                      record.id, record.time, record.kind, record.value, record.name);
  }
  return length >= 0 && static_cast<size_t>(length) < size ? length : -1;
}

void RawBindRecord(sqlite3_stmt* stmt, const BenchRecord& record) {
  if (record.id == 0) {
    sqlite3_bind_null(stmt, 1);
  } else {
    sqlite3_bind_int(stmt, 1, record.id);
  }
  sqlite3_bind_int(stmt, 2, record.time);
  sqlite3_bind_int(stmt, 3, record.kind);
  sqlite3_bind_int(stmt, 4, record.value);
  sqlite3_bind_text(stmt, 5, record.name,
                    static_cast<int>(strnlen(record.name, sizeof(record.name))),
                    SQLITE_STATIC);
  sqlite3_bind_blob(stmt, 6, record.data, sizeof(record.data), SQLITE_STATIC);
}

void RawCopyText(sqlite3_stmt* stmt, int column, char* dest, size_t width) {
  const unsigned char* text = sqlite3_column_text(stmt, column);
  size_t length = static_cast<size_t>(sqlite3_column_bytes(stmt, column));
  if (text != nullptr && length < width) {
    std::memcpy(dest, text, length + 1);
  } else {
    dest[0] = '\0';
  }
}

namespace {

void RawCopyBlob(sqlite3_stmt* stmt, int column, unsigned char* dest, size_t width) {
  const void* blob = sqlite3_column_blob(stmt, column);
  size_t length = static_cast<size_t>(sqlite3_column_bytes(stmt, column));
  if (blob != nullptr && length <= width) {
    std::memcpy(dest, blob, length);
  } else {
    std::memset(dest, 0, width);
  }
}

}  // namespace

void RawCopyRecord(sqlite3_stmt* stmt, BenchRecord* record) {
  record->id = sqlite3_column_int(stmt, 0);
  record->time = sqlite3_column_int(stmt, 1);
  record->kind = sqlite3_column_int(stmt, 2);
  record->value = sqlite3_column_int(stmt, 3);
  RawCopyText(stmt, 4, record->name, sizeof(record->name));
  RawCopyBlob(stmt, 5, record->data, sizeof(record->data));
}

// ---- The library -----------------------------------------------------------

LibraryDb::LibraryDb(const std::string& dir, BenchSchema* schema) {
  // A key whose first byte is zero leaves the file plain.
  char key[65] = {0};
  if (!PlainFiles()) std::memcpy(key, kKey, sizeof(key));
  if (db_.Init(0, dir, kBenchDbFile, kBenchJournalFile, key, 64) != 0)
    Fatal("Db::Init failed");
  if (db_.OpenDB() != 0) Fatal("Db::OpenDB failed");
  table_ = db_.createTable(&schema->record, 1);
  if (table_ == nullptr) Fatal("Db::createTable failed");
}

LibraryDb::~LibraryDb() {
  delete table_;
  db_.UnInit();
}

sqlite3* LibraryDb::Handle() const {
  return static_cast<CSqliteDBConn*>(db_.m_pDBConn)->m_pSqliteDB;
}

RawDb::RawDb(const std::string& dir) {
  db_ = RawOpenKeyed(dir + kBenchDbFile);
  RawExec(db_, kCreateSql);
}

RawDb::~RawDb() { sqlite3_close(db_); }

// ---- Checking the statements ---------------------------------------------

SqlTrace::SqlTrace(sqlite3* db) : db_(db) {
  sqlite3_trace_v2(db_, SQLITE_TRACE_STMT, &SqlTrace::OnTrace, this);
}

SqlTrace::~SqlTrace() { sqlite3_trace_v2(db_, 0, nullptr, nullptr); }

int SqlTrace::OnTrace(unsigned int type, void* ctx, void* /*p*/, void* x) {
  if (type == SQLITE_TRACE_STMT && x != nullptr) {
    static_cast<SqlTrace*>(ctx)->statements_.emplace_back(static_cast<const char*>(x));
  }
  return 0;
}

std::vector<std::string>* ConnectionTrace::statements_ = nullptr;

ConnectionTrace::ConnectionTrace() {
  statements_ = &seen_;
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(&Attach));
}

ConnectionTrace::~ConnectionTrace() {
  sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(&Attach));
  statements_ = nullptr;
}

std::vector<std::string> ConnectionTrace::Take() {
  std::vector<std::string> taken = std::move(seen_);
  seen_.clear();
  return taken;
}

int ConnectionTrace::Attach(sqlite3* db, const char** /*message*/, const void* /*api*/) {
  sqlite3_trace_v2(db, SQLITE_TRACE_STMT, &Record, nullptr);
  return SQLITE_OK;
}

int ConnectionTrace::Record(unsigned int type, void* /*ctx*/, void* /*p*/, void* x) {
  if (type == SQLITE_TRACE_STMT && x != nullptr && statements_ != nullptr) {
    statements_->emplace_back(static_cast<const char*>(x));
  }
  return 0;
}

std::string CompareStatements(const std::vector<std::string>& library,
                              const std::vector<std::string>& raw) {
  size_t common = library.size() < raw.size() ? library.size() : raw.size();
  for (size_t i = 0; i < common; ++i) {
    if (library[i] != raw[i]) {
      return "statement " + std::to_string(i) + " differs:\n  library: " + library[i] +
             "\n  raw:     " + raw[i];
    }
  }
  if (library.size() != raw.size()) {
    return "the library sent " + std::to_string(library.size()) +
           " statements, the raw side " + std::to_string(raw.size());
  }
  if (library.empty()) return "no statement was sent";
  return std::string();
}

}  // namespace ipc_db_bench
