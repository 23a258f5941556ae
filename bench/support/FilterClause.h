// The five-term filter list of the text-assembly pair and its two
// renderings: the library's own clause builder (internal to the library, so
// whatever uses this links the library's objects) and snprintf of the same
// text into a stack buffer.
#ifndef IPC_DB_BENCH_SUPPORT_FILTERCLAUSE_H_
#define IPC_DB_BENCH_SUPPORT_FILTERCLAUSE_H_

#include <cstddef>
#include <string>

#include "BenchSupport.h"

namespace ipc_db_bench {

// Kind = 1, Time >= 1700000000, Name like 'camera-event-00%', order by Time
// descending, limit 100, over a Table of the benchmark schema in naming
// mode 1. The pattern lives in a field as wide as the Name column, as a
// caller's record field would. Prepares the schema's members' column types
// as creating the table does.
struct FiveTerms {
  explicit FiveTerms(BenchSchema* schema);
  FiveTerms(const FiveTerms&) = delete;
  FiveTerms& operator=(const FiveTerms&) = delete;

  Table table;
  char pattern[32];
  DbFilters filters;
};

// Appends the clause to an emptied `clause` with the library's builder.
bool LibraryClause(FiveTerms* terms, std::string* clause);
// snprintf of the same text; its length, or -1.
int RawClause(char* buffer, size_t size);

}  // namespace ipc_db_bench

#endif  // IPC_DB_BENCH_SUPPORT_FILTERCLAUSE_H_
