// Read pairs: Table::get_item of N rows (all columns; with a two-term
// filter; with a two-column list) against raw prepare, step and copy into
// the same records with the same statement text. Each side fills one keyed
// database per pair and N, once per process: N records for the unfiltered
// reads, 2N for the filtered one (the filter selects every second record).
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "BenchSupport.h"
#include "PairMain.h"
#include "PairOps.h"

namespace ipc_db_bench {
namespace {

enum class ReadKind { kAll, kFiltered, kColumns };

size_t StoredRows(ReadKind kind, size_t rows) {
  return kind == ReadKind::kFiltered ? FilteredReadStoredRows(rows) : rows;
}

bool LibraryRead(ReadKind kind, Table* table, ReadQueries* queries,
                 std::vector<BenchRecord>* out, uint64_t* rows) {
  switch (kind) {
    case ReadKind::kAll:
      return LibraryReadAll(table, queries, out->data(), rows);
    case ReadKind::kFiltered:
      return LibraryReadFiltered(table, queries, out->data(), rows);
    case ReadKind::kColumns:
      return LibraryReadColumns(table, queries, reinterpret_cast<char*>(out->data()),
                                rows);
  }
  return false;
}

bool RawRead(ReadKind kind, sqlite3* db, std::vector<BenchRecord>* out, uint64_t* rows) {
  switch (kind) {
    case ReadKind::kAll:
      return RawReadAll(db, out->data(), rows);
    case ReadKind::kFiltered:
      return RawReadFiltered(db, out->data(), rows);
    case ReadKind::kColumns:
      return RawReadColumns(db, reinterpret_cast<char*>(out->data()), rows);
  }
  return false;
}

template <ReadKind kKind>
void ReadLibrary(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<LibraryFixture> cache;
  LibraryFixture& fixture = cache.Filled(state.range(0), StoredRows(kKind, rows));
  std::vector<BenchRecord> out(rows);
  for (auto _ : state) {
    uint64_t read = 0;
    if (!LibraryRead(kKind, fixture.db.table(), &fixture.queries, &out, &read) ||
        read != rows) {
      state.SkipWithError("get_item failed or read a wrong number of rows");
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  SetRows(state, static_cast<double>(rows));
}

template <ReadKind kKind>
void ReadRaw(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<RawFixture> cache;
  RawFixture& fixture = cache.Filled(state.range(0), StoredRows(kKind, rows));
  std::vector<BenchRecord> out(rows);
  for (auto _ : state) {
    uint64_t read = 0;
    if (!RawRead(kKind, fixture.db.Handle(), &out, &read) || read != rows) {
      state.SkipWithError("raw read failed or read a wrong number of rows");
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  SetRows(state, static_cast<double>(rows));
}

template <ReadKind kKind>
void RegisterPair(const char* pair) {
  for (auto* bench : {RegisterSide(pair, "library", ReadLibrary<kKind>),
                      RegisterSide(pair, "raw", ReadRaw<kKind>)}) {
    bench->Arg(1)->Arg(32)->Arg(1000)->Arg(10000);
  }
}

// The statements of both sides, and the records they read compared byte for
// byte (the column list's packed output for kColumns).
std::string CheckRead(ReadKind kind) {
  const size_t rows = 5;
  std::vector<BenchRecord> stored = MakeRecords(StoredRows(kind, rows));
  BenchSchema schema;
  TempDir libraryDir;
  LibraryDb library(libraryDir.Path(), &schema);
  RawFill(library.Handle(), stored);
  TempDir rawDir;
  RawDb raw(rawDir.Path());
  RawFill(raw.Handle(), stored);
  ReadQueries queries(&schema);
  std::vector<BenchRecord> libraryOut(rows);
  std::vector<BenchRecord> rawOut(rows);
  std::memset(libraryOut.data(), 0, rows * sizeof(BenchRecord));
  std::memset(rawOut.data(), 0, rows * sizeof(BenchRecord));
  SqlTrace libraryTrace(library.Handle());
  SqlTrace rawTrace(raw.Handle());
  uint64_t libraryRows = 0;
  uint64_t rawRows = 0;
  if (!LibraryRead(kind, library.table(), &queries, &libraryOut, &libraryRows)) {
    return "get_item failed";
  }
  if (!RawRead(kind, raw.Handle(), &rawOut, &rawRows)) return "raw read failed";
  std::string difference =
      CompareStatements(libraryTrace.Statements(), rawTrace.Statements());
  if (!difference.empty()) return difference;
  if (libraryRows != rows || rawRows != rows) return "wrong number of rows read";
  if (std::memcmp(libraryOut.data(), rawOut.data(), rows * sizeof(BenchRecord)) != 0) {
    return "the records read differ";
  }
  return std::string();
}

}  // namespace
}  // namespace ipc_db_bench

int main(int argc, char** argv) {
  using namespace ipc_db_bench;
  RegisterPair<ReadKind::kAll>("read_all");
  RegisterPair<ReadKind::kFiltered>("read_filtered");
  RegisterPair<ReadKind::kColumns>("read_columns");
  return PairMain(argc, argv,
                  {{"read_all", [] { return CheckRead(ReadKind::kAll); }},
                   {"read_filtered", [] { return CheckRead(ReadKind::kFiltered); }},
                   {"read_columns", [] { return CheckRead(ReadKind::kColumns); }}});
}
