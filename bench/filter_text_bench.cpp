// Text assembly alone: a DbFilters of five terms (two integer conditions, a
// like on a CHAR(32) column, a descending order and a limit) rendered into
// the filter clause that every read, count and update appends, by the
// library's own clause builder, against snprintf of the same text into a
// stack buffer. This binary links the library's objects directly (not the
// shared library), since the clause builder is internal.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>

#include "BenchSupport.h"
#include "PairMain.h"
#include "PairOps.h"
#include "db/TableSql.h"

namespace ipc_db_bench {
namespace {

constexpr int32_t kLimit = 100;
constexpr char kPattern[] = "camera-event-00%";

void* SlotOf(int32_t number) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(number));
}

// The five terms over the benchmark schema; the pattern lives in a field
// as wide as the Name column, as a caller's record field would.
struct FiveTerms {
  explicit FiveTerms(BenchSchema* schema) : table(nullptr, &schema->record, 1) {
    std::memset(pattern, 0, sizeof(pattern));
    std::memcpy(pattern, kPattern, sizeof(kPattern));
    filters.add_filter(
        new DbFilter(schema->kind, DB_FILTER_OP_EQ, SlotOf(kSelectedKind), nullptr));
    filters.add_filter(
        new DbFilter(schema->time, DB_FILTER_OP_GE, SlotOf(kFromTime), nullptr));
    filters.add_filter(new DbFilter(schema->name, DB_FILTER_OP_LIKE, pattern, nullptr));
    filters.add_filter(
        new DbFilter(schema->time, DB_FILTER_OP_ORDER_BY_DESC, nullptr, nullptr));
    filters.add_filter(new DbFilter(nullptr, DB_FILTER_OP_LIMIT, SlotOf(kLimit), nullptr));
  }
  Table table;
  char pattern[32];
  DbFilters filters;
};

// Prepares the members' column types as creating the table does.
void PrepareMembers(BenchSchema* schema) {
  Db db;
  for (Member* member : schema->record.members) db.preProcMember(member);
}

bool LibraryClause(FiveTerms* terms, std::string* clause) {
  clause->clear();
  return ipc_db::detail::AppendFilterClause(terms->table, terms->filters, clause);
}

int RawClause(char* buffer, size_t size) {
  return std::snprintf(buffer, size,
                       " where Kind = %d and Time >= %d and Name like '%s' order by "
                       "Time DESC  limit %d",
                       kSelectedKind, kFromTime, kPattern, kLimit);
}

void ClauseLibrary(benchmark::State& state) {
  BenchSchema schema;
  PrepareMembers(&schema);
  FiveTerms terms(&schema);
  for (auto _ : state) {
    std::string clause;
    if (!ipc_db::detail::AppendFilterClause(terms.table, terms.filters, &clause)) {
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
  PrepareMembers(&schema);
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
