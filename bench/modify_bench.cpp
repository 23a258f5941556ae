// Update and remove pairs. update: Table::update_item setting one column of
// one row chosen by key (one statement, its own transaction) in a table of
// N records, against sqlite3_exec of the same text. remove: Table::rmv_item
// of N one-term lists, each deleting one row by key in one transaction,
// against the same "begin;", deletes and "commit;" sent raw; the deleted
// rows are put back between iterations, outside the measured time. Each side
// keeps one keyed database per pair and N for the whole process.
#include <benchmark/benchmark.h>

#include <vector>

#include "BenchSupport.h"
#include "PairMain.h"
#include "PairOps.h"

namespace ipc_db_bench {
namespace {

// The keys of the `count` rows inserted last.
std::vector<int32_t> LastKeys(sqlite3* db, size_t count) {
  int64_t last = sqlite3_last_insert_rowid(db);
  std::vector<int32_t> ids(count);
  for (size_t i = 0; i < count; ++i) {
    ids[i] = static_cast<int32_t>(last - static_cast<int64_t>(count - 1 - i));
  }
  return ids;
}

// Key of the row that iteration `iteration` updates in a table of `rows`.
int32_t UpdatedKey(uint64_t iteration, size_t rows) {
  return static_cast<int32_t>(iteration % rows) + 1;
}

void UpdateLibrary(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<LibraryFixture> cache;
  LibraryFixture& fixture = cache.Filled(state.range(0), rows);
  UpdateLists lists(&fixture.schema);
  uint64_t iteration = 0;
  for (auto _ : state) {
    lists.Set(UpdatedKey(iteration, rows), static_cast<int32_t>(iteration));
    ++iteration;
    if (!LibraryUpdate(fixture.db.table(), &lists)) {
      state.SkipWithError("update_item failed");
      break;
    }
  }
  SetRows(state, 1.0);
}

void UpdateRaw(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<RawFixture> cache;
  RawFixture& fixture = cache.Filled(state.range(0), rows);
  sqlite3* db = fixture.db.Handle();
  uint64_t iteration = 0;
  for (auto _ : state) {
    int32_t id = UpdatedKey(iteration, rows);
    int32_t value = static_cast<int32_t>(iteration);
    ++iteration;
    if (!RawUpdate(db, id, value)) {
      state.SkipWithError(sqlite3_errmsg(db));
      break;
    }
  }
  SetRows(state, 1.0);
}

void RemoveLibrary(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<LibraryFixture> cache;
  LibraryFixture& fixture = cache.Empty(state.range(0));
  sqlite3* db = fixture.db.Handle();
  std::vector<BenchRecord> records = MakeRecords(rows);
  RemoveLists lists(&fixture.schema, rows);
  for (auto _ : state) {
    state.PauseTiming();
    RawFill(db, records);
    lists.SetIds(LastKeys(db, rows));
    state.ResumeTiming();
    if (!LibraryRemove(fixture.db.table(), &lists)) {
      state.SkipWithError("rmv_item failed");
      break;
    }
  }
  SetRows(state, static_cast<double>(rows));
}

void RemoveRaw(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<RawFixture> cache;
  sqlite3* db = cache.Empty(state.range(0)).db.Handle();
  std::vector<BenchRecord> records = MakeRecords(rows);
  for (auto _ : state) {
    state.PauseTiming();
    RawFill(db, records);
    std::vector<int32_t> ids = LastKeys(db, rows);
    state.ResumeTiming();
    if (!RawRemove(db, ids)) {
      state.SkipWithError(sqlite3_errmsg(db));
      break;
    }
  }
  SetRows(state, static_cast<double>(rows));
}

void RegisterAll() {
  RegisterSide("update", "library", UpdateLibrary)->Arg(1000);
  RegisterSide("update", "raw", UpdateRaw)->Arg(1000);
  for (auto* bench : {RegisterSide("remove", "library", RemoveLibrary),
                      RegisterSide("remove", "raw", RemoveRaw)}) {
    bench->Arg(1)->Arg(32)->Arg(1000);
  }
}

// Rows left in the benchmark table of `db`.
int64_t RowCount(sqlite3* db) {
  sqlite3_stmt* stmt = nullptr;
  int64_t count = -1;
  if (sqlite3_prepare_v2(db, "select count(*) from t_event;", -1, &stmt, nullptr) ==
          SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    count = sqlite3_column_int64(stmt, 0);
  }
  sqlite3_finalize(stmt);
  return count;
}

// The statements of both sides for two updates and for removing 1 and 3
// rows, and the rows left afterwards.
std::string CheckModify() {
  const size_t rows = 10;
  BenchSchema schema;
  TempDir libraryDir;
  LibraryDb library(libraryDir.Path(), &schema);
  RawFill(library.Handle(), MakeRecords(rows));
  TempDir rawDir;
  RawDb raw(rawDir.Path());
  RawFill(raw.Handle(), MakeRecords(rows));
  UpdateLists updates(&schema);
  RemoveLists removeOne(&schema, 1);
  RemoveLists removeThree(&schema, 3);
  removeOne.SetIds({2});
  removeThree.SetIds({4, 5, 9});
  SqlTrace libraryTrace(library.Handle());
  SqlTrace rawTrace(raw.Handle());
  for (int32_t id : {3, -7}) {
    updates.Set(id, id * 11);
    if (!LibraryUpdate(library.table(), &updates)) return "update_item failed";
    if (!RawUpdate(raw.Handle(), id, id * 11)) return "raw update failed";
  }
  if (!LibraryRemove(library.table(), &removeOne) ||
      !LibraryRemove(library.table(), &removeThree)) {
    return "rmv_item failed";
  }
  if (!RawRemove(raw.Handle(), {2}) || !RawRemove(raw.Handle(), {4, 5, 9})) {
    return "raw remove failed";
  }
  std::string difference =
      CompareStatements(libraryTrace.Statements(), rawTrace.Statements());
  if (!difference.empty()) return difference;
  if (RowCount(library.Handle()) != 6 || RowCount(raw.Handle()) != 6) {
    return "rows left differ from 6";
  }
  return std::string();
}

}  // namespace
}  // namespace ipc_db_bench

int main(int argc, char** argv) {
  using namespace ipc_db_bench;
  RegisterAll();
  return PairMain(argc, argv, {{"update+remove", CheckModify}});
}
