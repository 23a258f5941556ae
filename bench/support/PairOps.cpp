// Both sides of every pair; see PairOps.h. The raw sides are written as a C
// programmer would write them against SQLite: statement text formatted with
// snprintf into a stack buffer, the same SQLite calls the library makes
// (sqlite3_prepare, sqlite3_exec, sqlite3_get_table) and the columns copied
// straight into the records.
#include "PairOps.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ipc_db_bench {

namespace {

// Room for every statement of the pairs.
constexpr size_t kSqlBufferSize = 512;

void* SlotOf(int32_t number) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(number));
}

bool Exec(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Prepares, binds the record's blob, steps and finalises one insert text.
bool RunInsertText(sqlite3* db, const char* sql, const BenchRecord& record) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
    sqlite3_finalize(stmt);
    return false;
  }
  bool ok =
      sqlite3_bind_blob(stmt, 1, record.data, sizeof(record.data), nullptr) == SQLITE_OK;
  if (ok) {
    int code = sqlite3_step(stmt);
    ok = code == SQLITE_DONE || code == SQLITE_OK;
  }
  sqlite3_finalize(stmt);
  return ok;
}

// Prepares `sql` and hands every row to `copyRow(stmt, rowIndex)`.
template <typename CopyRow>
bool RawSelect(sqlite3* db, const char* sql, uint64_t* rows, CopyRow&& copyRow) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
    sqlite3_finalize(stmt);
    return false;
  }
  uint64_t count = 0;
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    copyRow(stmt, count);
    ++count;
  }
  sqlite3_finalize(stmt);
  *rows = count;
  return true;
}

// sqlite3_get_table of `sql`; the first value cell as text (empty for none).
bool RawFirstCell(sqlite3* db, const char* sql, std::string* cell, bool* present) {
  char** table = nullptr;
  int rowCount = 0;
  int columnCount = 0;
  char* message = nullptr;
  int code = sqlite3_get_table(db, sql, &table, &rowCount, &columnCount, &message);
  if (message != nullptr) sqlite3_free(message);
  if (code != SQLITE_OK) {
    if (table != nullptr) sqlite3_free_table(table);
    return false;
  }
  *present = table != nullptr && table[1] != nullptr;
  if (*present) {
    cell->assign(table[1]);
  } else {
    cell->clear();
  }
  sqlite3_free_table(table);
  return true;
}

}  // namespace

// ---- Insert ----------------------------------------------------------------

bool LibraryInsert(Table* table, std::vector<BenchRecord>& records) {
  static const DbFilters kAllColumns;
  return table->add_item(records.data(), records.size(), kAllColumns) == 0;
}

bool RawInsertSameSql(sqlite3* db, const std::vector<BenchRecord>& records) {
  bool batch = records.size() > 1;
  if (batch && !Exec(db, "begin;")) return false;
  char sql[kSqlBufferSize];
  for (const BenchRecord& record : records) {
    if (RawInsertSql(sql, sizeof(sql), record) < 0) return false;
    if (!RunInsertText(db, sql, record)) return false;
  }
  return !batch || Exec(db, "commit;");
}

bool RawInsertBound(sqlite3* db, const std::vector<BenchRecord>& records) {
  bool batch = records.size() > 1;
  if (batch && !Exec(db, "begin;")) return false;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, kBoundInsertSql, -1, &stmt, nullptr) != SQLITE_OK) {
    sqlite3_finalize(stmt);
    return false;
  }
  bool ok = true;
  for (const BenchRecord& record : records) {
    RawBindRecord(stmt, record);
    ok = sqlite3_step(stmt) == SQLITE_DONE;
    sqlite3_reset(stmt);
    if (!ok) break;
  }
  sqlite3_finalize(stmt);
  return ok && (!batch || Exec(db, "commit;"));
}

// ---- Read ------------------------------------------------------------------

ReadQueries::ReadQueries(BenchSchema* schema)
    : none(),
      kindAndTime(
          2, new DbFilter(schema->kind, DB_FILTER_OP_EQ, SlotOf(kSelectedKind), nullptr),
          new DbFilter(schema->time, DB_FILTER_OP_GE, SlotOf(kFromTime), nullptr)),
      kindOnly(
          1, new DbFilter(schema->kind, DB_FILTER_OP_EQ, SlotOf(kSelectedKind), nullptr)),
      idAndName(2, new DbFilter(schema->id, DB_FILTER_OP_EQ, nullptr, nullptr),
                new DbFilter(schema->name, DB_FILTER_OP_EQ, nullptr, nullptr)),
      timeColumn(1, new DbFilter(schema->time, DB_FILTER_OP_EQ, nullptr, nullptr)) {}

bool LibraryReadAll(Table* table, ReadQueries* queries, BenchRecord* out,
                    uint64_t* rows) {
  unsigned long long count = 0;
  bool ok = table->get_item(queries->none, queries->none, count, out) == 0;
  *rows = count;
  return ok;
}

bool RawReadAll(sqlite3* db, BenchRecord* out, uint64_t* rows) {
  char sql[kSqlBufferSize];
  std::snprintf(sql, sizeof(sql), "select * from %s;", kTableName);
  return RawSelect(db, sql, rows, [out](sqlite3_stmt* stmt, uint64_t row) {
    RawCopyRecord(stmt, &out[row]);
  });
}

bool LibraryReadFiltered(Table* table, ReadQueries* queries, BenchRecord* out,
                         uint64_t* rows) {
  unsigned long long count = 0;
  bool ok = table->get_item(queries->none, queries->kindAndTime, count, out) == 0;
  *rows = count;
  return ok;
}

bool RawReadFiltered(sqlite3* db, BenchRecord* out, uint64_t* rows) {
  char sql[kSqlBufferSize];
  std::snprintf(sql, sizeof(sql), "select * from %s where Kind = %d and Time >= %d;",
                kTableName, kSelectedKind, kFromTime);
  return RawSelect(db, sql, rows, [out](sqlite3_stmt* stmt, uint64_t row) {
    RawCopyRecord(stmt, &out[row]);
  });
}

bool LibraryReadColumns(Table* table, ReadQueries* queries, char* out, uint64_t* rows) {
  unsigned long long count = 0;
  bool ok = table->get_item(queries->idAndName, queries->none, count, out) == 0;
  *rows = count;
  return ok;
}

bool RawReadColumns(sqlite3* db, char* out, uint64_t* rows) {
  char sql[kSqlBufferSize];
  std::snprintf(sql, sizeof(sql), "select Id, Name from %s;", kTableName);
  return RawSelect(db, sql, rows, [out](sqlite3_stmt* stmt, uint64_t) {
    int32_t id = sqlite3_column_int(stmt, 0);
    std::memcpy(out, &id, sizeof(id));
    RawCopyText(stmt, 1, out + sizeof(id), sizeof(BenchRecord::name));
  });
}

// ---- Aggregates ------------------------------------------------------------

bool LibraryCount(Table* table, ReadQueries* queries, long long* count) {
  *count = table->get_item_cnt(queries->kindOnly);
  return *count >= 0;
}

bool RawCount(sqlite3* db, long long* count) {
  char sql[kSqlBufferSize];
  std::snprintf(sql, sizeof(sql), "select count(*) from %s where Kind = %d;", kTableName,
                kSelectedKind);
  std::string cell;
  bool present = false;
  if (!RawFirstCell(db, sql, &cell, &present)) return false;
  *count = present ? std::strtol(cell.c_str(), nullptr, 10) : 0;
  return true;
}

bool LibraryMax(Table* table, ReadQueries* queries, long long* max, std::string* text) {
  *max = table->get_item_max(queries->timeColumn, queries->kindOnly, *text);
  return *max >= 0;
}

bool RawMax(sqlite3* db, long long* max, std::string* text) {
  char sql[kSqlBufferSize];
  std::snprintf(sql, sizeof(sql), "select max(Time) from %s where Kind = %d;", kTableName,
                kSelectedKind);
  bool present = false;
  if (!RawFirstCell(db, sql, text, &present)) return false;
  *max = present ? std::strtol(text->c_str(), nullptr, 10) : 0;
  return true;
}

// ---- Update and remove -------------------------------------------------

UpdateLists::UpdateLists(BenchSchema* schema)
    : set(1, new DbFilter(schema->value, DB_FILTER_OP_EQ, SlotOf(0), nullptr)),
      where(1, new DbFilter(schema->id, DB_FILTER_OP_EQ, SlotOf(0), nullptr)) {}

void UpdateLists::Set(int32_t id, int32_t value) {
  set.filters[0]->value1 = SlotOf(value);
  where.filters[0]->value1 = SlotOf(id);
}

bool LibraryUpdate(Table* table, UpdateLists* lists) {
  return table->update_item(lists->set, lists->where) == 0;
}

bool RawUpdate(sqlite3* db, int32_t id, int32_t value) {
  char sql[kSqlBufferSize];
  std::snprintf(sql, sizeof(sql), "update %s set Value = %d where Id = %d;", kTableName,
                value, id);
  return Exec(db, sql);
}

RemoveLists::RemoveLists(BenchSchema* schema, size_t count) {
  lists.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    lists.emplace_back(1, new DbFilter(schema->id, DB_FILTER_OP_EQ, SlotOf(0), nullptr));
  }
}

void RemoveLists::SetIds(const std::vector<int32_t>& ids) {
  for (size_t i = 0; i < lists.size() && i < ids.size(); ++i) {
    lists[i].filters[0]->value1 = SlotOf(ids[i]);
  }
}

bool LibraryRemove(Table* table, RemoveLists* lists) {
  return table->rmv_item(lists->lists.data(), lists->lists.size()) == 0;
}

bool RawRemove(sqlite3* db, const std::vector<int32_t>& ids) {
  bool batch = ids.size() > 1;
  if (batch && !Exec(db, "begin;")) return false;
  char sql[kSqlBufferSize];
  for (int32_t id : ids) {
    std::snprintf(sql, sizeof(sql), "delete from %s where Id = %d;", kTableName, id);
    if (!Exec(db, sql)) return false;
  }
  return !batch || Exec(db, "commit;");
}

// ---- Open and close -------------------------------------------------------

bool LibraryOpenClose(Db* db) { return db->OpenDB() == 0 && db->CloseDB() == 0; }

bool RawOpenClose(const std::string& file) {
  sqlite3* db = nullptr;
  bool ok = sqlite3_open(file.c_str(), &db) == SQLITE_OK &&
            RawUseCompatibleCipherDefaults() && sqlite3_key(db, kKey, 64) == SQLITE_OK &&
            Exec(db, "PRAGMA cipher_default_compatibility = 3;") &&
            Exec(db, "PRAGMA synchronous = NORMAL;") &&
            Exec(db, "PRAGMA journal_mode = DELETE;");
  return sqlite3_close(db) == SQLITE_OK && ok;
}

// ---- Open, first read, close ------------------------------------------

bool LibraryOpenCount(const std::string& dir, Meta* record, bool keyed,
                      long long* count) {
  char key[65] = {0};
  if (keyed) std::memcpy(key, kKey, sizeof(key));
  Db db;
  if (db.Init(0, dir, kBenchDbFile, kBenchJournalFile, key, 64) != 0) return false;
  bool ok = db.OpenDB() == 0;
  if (ok) {
    Table table(&db, record, 1);
    DbFilters all;
    *count = table.get_item_cnt(all);
    ok = *count >= 0;
    ok = db.CloseDB() == 0 && ok;
  }
  db.UnInit();
  return ok;
}

bool RawOpenCount(const std::string& dir, bool keyed, long long* count) {
  std::string file = dir + kBenchDbFile;
  sqlite3* db = nullptr;
  bool ok = sqlite3_open(file.c_str(), &db) == SQLITE_OK &&
            (!keyed || (RawUseCompatibleCipherDefaults() &&
                        sqlite3_key(db, kKey, 64) == SQLITE_OK)) &&
            Exec(db, "PRAGMA cipher_default_compatibility = 3;") &&
            Exec(db, "PRAGMA synchronous = NORMAL;") &&
            Exec(db, "PRAGMA journal_mode = DELETE;");
  if (ok) {
    char sql[kSqlBufferSize];
    std::snprintf(sql, sizeof(sql), "select count(*) from %s;", kTableName);
    std::string cell;
    bool present = false;
    ok = RawFirstCell(db, sql, &cell, &present);
    *count = present ? std::strtoll(cell.c_str(), nullptr, 10) : 0;
  }
  return sqlite3_close(db) == SQLITE_OK && ok;
}

}  // namespace ipc_db_bench
