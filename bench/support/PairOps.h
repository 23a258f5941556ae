// One operation of each side of each pair, shared by the Google Benchmark
// binaries and the callgrind driver. A library operation makes the library
// call; its raw counterpart sends the same statements with the SQLite API
// (text built and prepared as the library does); the bound variants are the
// engine's ceiling for reference. Each returns false when SQLite or the
// library reported a failure.
#ifndef IPC_DB_BENCH_SUPPORT_PAIROPS_H_
#define IPC_DB_BENCH_SUPPORT_PAIROPS_H_

#include <sqlcipher/sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace ipc_db_bench {

// The condition values of the reads and aggregates: Kind = 1 selects every
// second record of MakeRecords, Time >= kFromTime all of them.
constexpr int32_t kSelectedKind = 1;
constexpr int32_t kFromTime = 1700000000;

// How many records to store so that the filtered read (Kind = kSelectedKind)
// returns `rows` of them.
inline size_t FilteredReadStoredRows(size_t rows) { return 2 * rows; }

// ---- Insert ----------------------------------------------------------------

// add_item of all records with all columns.
bool LibraryInsert(Table* table, std::vector<BenchRecord>& records);
// "begin;" (more than one record), one insert text per record built,
// prepared, bound (the blob), stepped and finalised, "commit;".
bool RawInsertSameSql(sqlite3* db, const std::vector<BenchRecord>& records);
// The same transaction with one statement prepared once and bound per row.
bool RawInsertBound(sqlite3* db, const std::vector<BenchRecord>& records);

// ---- Read ------------------------------------------------------------------

// The filters and column lists of the read and aggregate pairs, built once
// per database from the schema's members.
struct ReadQueries {
  explicit ReadQueries(BenchSchema* schema);
  DbFilters none;
  DbFilters kindAndTime;  // Kind = 1, Time >= 1700000000
  DbFilters kindOnly;     // Kind = 1
  DbFilters idAndName;    // columns Id, Name
  DbFilters timeColumn;   // column Time
};

// get_item of all columns, no filter, no limit, into `out`. Sets `rows`.
bool LibraryReadAll(Table* table, ReadQueries* queries, BenchRecord* out, uint64_t* rows);
bool RawReadAll(sqlite3* db, BenchRecord* out, uint64_t* rows);
// All columns of the rows with Kind = 1 and Time >= 1700000000.
bool LibraryReadFiltered(Table* table, ReadQueries* queries, BenchRecord* out,
                         uint64_t* rows);
bool RawReadFiltered(sqlite3* db, BenchRecord* out, uint64_t* rows);
// Columns Id and Name, packed at the start of `out` (the last row stays).
bool LibraryReadColumns(Table* table, ReadQueries* queries, char* out, uint64_t* rows);
bool RawReadColumns(sqlite3* db, char* out, uint64_t* rows);

// ---- Aggregates ------------------------------------------------------------

// get_item_cnt with Kind = 1.
bool LibraryCount(Table* table, ReadQueries* queries, long long* count);
// sqlite3_get_table of the same text, the count read from cell 1.
bool RawCount(sqlite3* db, long long* count);
// get_item_max of Time with Kind = 1.
bool LibraryMax(Table* table, ReadQueries* queries, long long* max, std::string* text);
bool RawMax(sqlite3* db, long long* max, std::string* text);

// ---- Update and remove -------------------------------------------------

// The lists of update_item: set Value = <value>, where Id = <id>. Built once;
// each call writes its numbers into the terms' value slots, as an
// application that keeps its lists would.
struct UpdateLists {
  explicit UpdateLists(BenchSchema* schema);
  void Set(int32_t id, int32_t value);
  DbFilters set;
  DbFilters where;
};

// update_item setting Value on the row with Id (one statement, autocommit).
bool LibraryUpdate(Table* table, UpdateLists* lists);
bool RawUpdate(sqlite3* db, int32_t id, int32_t value);

// `count` lists of one term each (Id = <id>) for rmv_item, laid end to end.
struct RemoveLists {
  RemoveLists(BenchSchema* schema, size_t count);
  void SetIds(const std::vector<int32_t>& ids);
  std::vector<DbFilters> lists;
};

// rmv_item of one list per id, each deleting the row with that Id.
bool LibraryRemove(Table* table, RemoveLists* lists);
bool RawRemove(sqlite3* db, const std::vector<int32_t>& ids);

// ---- Open and close -------------------------------------------------------

// Db::OpenDB then Db::CloseDB on an initialised Db.
bool LibraryOpenClose(Db* db);
// sqlite3_open, sqlite3_key, the three pragmas, sqlite3_close.
bool RawOpenClose(const std::string& file);

// ---- Open, first read, close ------------------------------------------

// What an application does to read a table of an existing file once:
// Db::Init on `dir` with the benchmark file names and key (an all-zero key,
// which leaves the file plain, unless `keyed`), Db::OpenDB, get_item_cnt of
// the whole table through a Table of `record` (plain column names),
// Db::CloseDB, Db::UnInit. Sets `count`.
bool LibraryOpenCount(const std::string& dir, Meta* record, bool keyed, long long* count);
// The same statements the raw way: sqlite3_open, when `keyed` the
// compatible defaults and sqlite3_key with the 64 key bytes, the three
// pragmas, sqlite3_get_table of the count, sqlite3_close.
bool RawOpenCount(const std::string& dir, bool keyed, long long* count);

// ---- Fixtures ----------------------------------------------------------

// A library database with the benchmark table and the read lists.
struct LibraryFixture {
  LibraryFixture() = default;
  BenchSchema schema;
  TempDir dir;
  LibraryDb db{dir.Path(), &schema};
  ReadQueries queries{&schema};
};

// A raw database with the benchmark table.
struct RawFixture {
  TempDir dir;
  RawDb db{dir.Path()};
};

// Google Benchmark calls a benchmark function several times (to find the
// iteration count, then once per repetition). A FixtureCache, kept in a
// function-local static, makes each fixture once per key and keeps it for
// the rest of the process, so that those calls do not each pay for a keyed
// open and for filling the table.
template <typename Fixture>
class FixtureCache {
 public:
  // The fixture for `key`, made by `make(fixture)` on first use.
  template <typename Make>
  Fixture& Get(int64_t key, Make&& make) {
    std::unique_ptr<Fixture>& slot = fixtures_[key];
    if (!slot) {
      slot = std::make_unique<Fixture>();
      make(*slot);
    }
    return *slot;
  }

  // The fixture for `key`, its table holding MakeRecords(records) from first
  // use.
  Fixture& Filled(int64_t key, size_t records) {
    return Get(key, [records](Fixture& made) {
      RawFill(made.db.Handle(), MakeRecords(records));
    });
  }

  // The fixture for `key`, its table left empty.
  Fixture& Empty(int64_t key) {
    return Get(key, [](Fixture&) {});
  }

 private:
  std::map<int64_t, std::unique_ptr<Fixture>> fixtures_;
};

}  // namespace ipc_db_bench

#endif  // IPC_DB_BENCH_SUPPORT_PAIROPS_H_
