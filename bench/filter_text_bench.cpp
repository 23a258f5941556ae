// Text assembly alone: a DbFilters of five terms (two integer conditions, a
// like on a CHAR(32) column, a descending order and a limit) rendered into
// the filter clause that every read, count and update appends, by the
// library's own clause builder, against snprintf of the same text into a
// stack buffer. This binary links the library's objects directly (not the
// shared library), since the clause builder is internal.
#include <benchmark/benchmark.h>

#include <string>

#include "BenchSupport.h"
#include "FilterClause.h"
#include "PairMain.h"

namespace ipc_db_bench {
namespace {

void ClauseLibrary(benchmark::State& state) {
  BenchSchema schema;
  FiveTerms terms(&schema);
  for (auto _ : state) {
    std::string clause;
    if (!LibraryClause(&terms, &clause)) {
      state.SkipWithError("filter clause refused");
      break;
    }
    benchmark::DoNotOptimize(clause.data());
  }
  SetRows(state, 1.0);
}

void ClauseRaw(benchmark::State& state) {
  char buffer[256];
  for (auto _ : state) {
    if (RawClause(buffer, sizeof(buffer)) < 0) {
      state.SkipWithError("snprintf failed");
      break;
    }
    benchmark::DoNotOptimize(buffer);
  }
  SetRows(state, 1.0);
}

std::string CheckClause() {
  BenchSchema schema;
  FiveTerms terms(&schema);
  std::string library;
  if (!LibraryClause(&terms, &library)) return "filter clause refused";
  char buffer[256];
  if (RawClause(buffer, sizeof(buffer)) < 0) return "snprintf failed";
  return CompareStatements({library}, {buffer});
}

}  // namespace
}  // namespace ipc_db_bench

int main(int argc, char** argv) {
  using namespace ipc_db_bench;
  RegisterSide("filter_clause", "library", ClauseLibrary)->Unit(benchmark::kNanosecond);
  RegisterSide("filter_clause", "raw", ClauseRaw)->Unit(benchmark::kNanosecond);
  return PairMain(argc, argv, {{"filter_clause (text)", CheckClause}});
}
