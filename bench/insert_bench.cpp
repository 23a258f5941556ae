// Insert pair: Table::add_item of N records against raw SQLite sending the
// same statements (one text built and prepared per record, one transaction)
// and against one prepared statement reused with bind (the engine's
// ceiling). Each side keeps one keyed database per N for the whole process;
// the table grows by N records per iteration and is emptied (outside the
// measured time) at the start of every call and whenever it would pass
// 100000 rows.
#include <benchmark/benchmark.h>

#include "BenchSupport.h"
#include "PairMain.h"
#include "PairOps.h"

namespace ipc_db_bench {
namespace {

// Above this many rows the table is emptied between iterations, outside the
// measured time, so that it stays about the same size through the run.
constexpr size_t kMaxStoredRows = 100000;

// Empties the table of `db` when the next `rows` would take it past
// kMaxStoredRows.
void KeepTableSmall(benchmark::State& state, sqlite3* db, size_t rows, size_t* stored) {
  if (*stored + rows <= kMaxStoredRows) {
    *stored += rows;
    return;
  }
  state.PauseTiming();
  RawExec(db, "delete from t_event;");
  *stored = rows;
  state.ResumeTiming();
}

void InsertLibrary(benchmark::State& state) {
  static FixtureCache<LibraryFixture> cache;
  LibraryFixture& fixture = cache.Empty(state.range(0));
  std::vector<BenchRecord> records = MakeRecords(static_cast<size_t>(state.range(0)));
  size_t stored = kMaxStoredRows;
  for (auto _ : state) {
    KeepTableSmall(state, fixture.db.Handle(), records.size(), &stored);
    if (!LibraryInsert(fixture.db.table(), records)) {
      state.SkipWithError("add_item failed");
      break;
    }
  }
  SetRows(state, static_cast<double>(records.size()));
}

template <bool (*kInsert)(sqlite3*, const std::vector<BenchRecord>&)>
void InsertRaw(benchmark::State& state) {
  static FixtureCache<RawFixture> cache;
  RawFixture& fixture = cache.Empty(state.range(0));
  sqlite3* db = fixture.db.Handle();
  std::vector<BenchRecord> records = MakeRecords(static_cast<size_t>(state.range(0)));
  size_t stored = kMaxStoredRows;
  for (auto _ : state) {
    KeepTableSmall(state, db, records.size(), &stored);
    if (!kInsert(db, records)) {
      state.SkipWithError(sqlite3_errmsg(db));
      break;
    }
  }
  SetRows(state, static_cast<double>(records.size()));
}

void RegisterAll() {
  for (auto* bench : {RegisterSide("insert", "library", InsertLibrary),
                      RegisterSide("insert", "raw", InsertRaw<RawInsertSameSql>),
                      RegisterSide("insert", "raw_bound", InsertRaw<RawInsertBound>)}) {
    bench->Arg(1)->Arg(32)->Arg(1000)->Arg(10000);
  }
}

// The statements of add_item and of the raw side for `count` records.
std::string CheckInsert(size_t count) {
  std::vector<BenchRecord> records = MakeRecords(count);
  BenchSchema schema;
  TempDir libraryDir;
  LibraryDb library(libraryDir.Path(), &schema);
  TempDir rawDir;
  RawDb raw(rawDir.Path());
  SqlTrace libraryTrace(library.Handle());
  SqlTrace rawTrace(raw.Handle());
  if (!LibraryInsert(library.table(), records)) return "add_item failed";
  if (!RawInsertSameSql(raw.Handle(), records)) return "raw insert failed";
  return CompareStatements(libraryTrace.Statements(), rawTrace.Statements());
}

}  // namespace
}  // namespace ipc_db_bench

int main(int argc, char** argv) {
  using namespace ipc_db_bench;
  RegisterAll();
  return PairMain(argc, argv,
                  {{"insert/1", [] { return CheckInsert(1); }},
                   {"insert/3", [] { return CheckInsert(3); }}});
}
