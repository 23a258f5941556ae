// The text-assembly pair's filter list and renderings; see FilterClause.h.
#include "FilterClause.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "PairOps.h"
#include "db/SqlText.h"

namespace ipc_db_bench {

namespace {

constexpr int32_t kLimit = 100;
constexpr char kPattern[] = "camera-event-00%";

void* SlotOf(int32_t number) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(number));
}

Meta* PreparedRecord(BenchSchema* schema) {
  Db db;
  for (Member* member : schema->record.members) db.preProcMember(member);
  return &schema->record;
}

}  // namespace

FiveTerms::FiveTerms(BenchSchema* schema) : table(nullptr, PreparedRecord(schema), 1) {
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

}  // namespace ipc_db_bench
