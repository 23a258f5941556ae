// Aggregate pairs: Table::get_item_cnt and Table::get_item_max (both with
// the condition Kind = 1) over a table of N records, against raw
// sqlite3_get_table of the same text with the value read from the first
// cell. Throughput counts the N rows the query covers.
#include <benchmark/benchmark.h>

#include "BenchSupport.h"
#include "PairMain.h"
#include "PairOps.h"

namespace ipc_db_bench {
namespace {

// What each side's query answers for `rows` records: the count and the
// largest time of the records with Kind = 1.
long long ExpectedCount(size_t rows) { return static_cast<long long>(rows / 2); }
long long ExpectedMax(size_t rows) {
  size_t last = rows % 2 == 0 ? rows - 1 : rows - 2;  // last index with kind 1
  return kFromTime + static_cast<long long>(last);
}

void CountLibrary(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<LibraryFixture> cache;
  LibraryFixture& fixture = cache.Filled(state.range(0), rows);
  for (auto _ : state) {
    long long count = 0;
    if (!LibraryCount(fixture.db.table(), &fixture.queries, &count) ||
        count != ExpectedCount(rows)) {
      state.SkipWithError("get_item_cnt failed or counted wrong");
      break;
    }
  }
  SetRows(state, static_cast<double>(rows));
}

void CountRaw(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<RawFixture> cache;
  RawFixture& fixture = cache.Filled(state.range(0), rows);
  for (auto _ : state) {
    long long count = 0;
    if (!RawCount(fixture.db.Handle(), &count) || count != ExpectedCount(rows)) {
      state.SkipWithError("raw count failed or counted wrong");
      break;
    }
  }
  SetRows(state, static_cast<double>(rows));
}

void MaxLibrary(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<LibraryFixture> cache;
  LibraryFixture& fixture = cache.Filled(state.range(0), rows);
  std::string text;
  for (auto _ : state) {
    long long max = 0;
    if (!LibraryMax(fixture.db.table(), &fixture.queries, &max, &text) ||
        max != ExpectedMax(rows)) {
      state.SkipWithError("get_item_max failed or answered wrong");
      break;
    }
  }
  SetRows(state, static_cast<double>(rows));
}

void MaxRaw(benchmark::State& state) {
  size_t rows = static_cast<size_t>(state.range(0));
  static FixtureCache<RawFixture> cache;
  RawFixture& fixture = cache.Filled(state.range(0), rows);
  std::string text;
  for (auto _ : state) {
    long long max = 0;
    if (!RawMax(fixture.db.Handle(), &max, &text) || max != ExpectedMax(rows)) {
      state.SkipWithError("raw max failed or answered wrong");
      break;
    }
  }
  SetRows(state, static_cast<double>(rows));
}

void RegisterAll() {
  for (auto* bench :
       {RegisterSide("count", "library", CountLibrary),
        RegisterSide("count", "raw", CountRaw),
        RegisterSide("max", "library", MaxLibrary), RegisterSide("max", "raw", MaxRaw)}) {
    bench->Arg(32)->Arg(1000)->Arg(10000);
  }
}

// The statements of both sides and their answers.
std::string CheckAggregates() {
  const size_t rows = 7;
  BenchSchema schema;
  TempDir libraryDir;
  LibraryDb library(libraryDir.Path(), &schema);
  RawFill(library.Handle(), MakeRecords(rows));
  TempDir rawDir;
  RawDb raw(rawDir.Path());
  RawFill(raw.Handle(), MakeRecords(rows));
  ReadQueries queries(&schema);
  SqlTrace libraryTrace(library.Handle());
  SqlTrace rawTrace(raw.Handle());
  long long libraryCount = 0, rawCount = 0, libraryMax = 0, rawMax = 0;
  std::string libraryText, rawText;
  if (!LibraryCount(library.table(), &queries, &libraryCount) ||
      !LibraryMax(library.table(), &queries, &libraryMax, &libraryText)) {
    return "get_item_cnt or get_item_max failed";
  }
  if (!RawCount(raw.Handle(), &rawCount) || !RawMax(raw.Handle(), &rawMax, &rawText)) {
    return "raw count or max failed";
  }
  std::string difference =
      CompareStatements(libraryTrace.Statements(), rawTrace.Statements());
  if (!difference.empty()) return difference;
  if (libraryCount != ExpectedCount(rows) || rawCount != ExpectedCount(rows)) {
    return "counts differ from " + std::to_string(ExpectedCount(rows));
  }
  if (libraryMax != ExpectedMax(rows) || rawMax != ExpectedMax(rows) ||
      libraryText != rawText) {
    return "maxima differ from " + std::to_string(ExpectedMax(rows));
  }
  return std::string();
}

}  // namespace
}  // namespace ipc_db_bench

int main(int argc, char** argv) {
  using namespace ipc_db_bench;
  RegisterAll();
  return PairMain(argc, argv, {{"count+max", CheckAggregates}});
}
