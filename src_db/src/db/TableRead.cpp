// Table::get_item: reads rows straight into the caller's records. Whole
// records are written at the members' offsets with the table's stride; a
// column selection is packed at the start of the caller's buffer, each row
// overwriting the previous one. Every value is copied from SQLite's own
// column buffer into the caller's memory with one bounded copy, without
// intermediate strings.
#include <new>
#include <string>
#include <vector>

#include "base/OutOfMemory.h"
#include "db/CallerChecks.h"
#include "db/ColumnCopy.h"
#include "db/SqlRun.h"
#include "db/SqlText.h"

using ipc_db::detail::BuildSelect;
using ipc_db::detail::CheckByteSize;
using ipc_db::detail::CheckColumnTerms;
using ipc_db::detail::CheckConnection;
using ipc_db::detail::CheckFilterTerms;
using ipc_db::detail::CheckMembers;
using ipc_db::detail::CheckOpenHandle;
using ipc_db::detail::CheckRecordLayout;
using ipc_db::detail::CopyColumn;
using ipc_db::detail::CopyKind;
using ipc_db::detail::CopyKindOf;
using ipc_db::detail::DbOutOfMemory;
using ipc_db::detail::kLogError;
using ipc_db::detail::RunSelect;
using ipc_db::detail::SelectedMembers;
using ipc_db::detail::TableHandle;

namespace {

// Where and how one selected column lands in a row's destination.
struct ColumnTarget {
  CopyKind kind;
  size_t width;
  size_t offset;
};

// Whole records: each column at its member's offset. A selection: the
// columns packed one after another from offset 0.
std::vector<ColumnTarget> PlanTargets(const std::vector<Member*>& members, bool packed) {
  std::vector<ColumnTarget> targets;
  targets.reserve(members.size());
  size_t packedOffset = 0;
  for (const Member* member : members) {
    size_t width = member->type_meta->type_size;
    targets.push_back(
        {CopyKindOf(*member), width, packed ? packedOffset : member->offset});
    packedOffset += width;
  }
  return targets;
}

// The table's members, both lists and, for whole records, the record layout
// and the byte size of `itemcnt` records are usable, and the handle is open.
bool CheckReadArguments(const Table& table, const DbFilters& cols,
                        const DbFilters& filters, unsigned long long itemcnt) {
  if (!CheckMembers(table.meta_data->members, "meta_data") || !CheckColumnTerms(cols) ||
      !CheckFilterTerms(filters)) {
    return false;
  }
  if (cols.filters.empty() && (!CheckRecordLayout(*table.meta_data, "meta_data") ||
                               !CheckByteSize(itemcnt, table.meta_data->type_size))) {
    return false;
  }
  return CheckOpenHandle(table);
}

}  // namespace

long long Table::get_item(DbFilters& cols, DbFilters& filters,
                          unsigned long long& itemcnt, void* obj) try {
  if (!CheckConnection(*this)) return -1;
  if (obj == nullptr) {
    DB_LOG(kLogError, "vecOutRows is null.\n");
    return -1;
  }
  if (!CheckReadArguments(*this, cols, filters, itemcnt)) return -1;
  bool packed = !cols.filters.empty();
  std::vector<ColumnTarget> targets = PlanTargets(SelectedMembers(*this, cols), packed);
  std::string sql;
  if (!BuildSelect(*this, cols, filters, &sql)) return -1;
  char* records = static_cast<char*>(obj);
  size_t stride = packed ? 0 : meta_data->type_size;
  // The plan's bounds are copied into the row function, so that the loop
  // over a row's columns keeps them in registers across the SQLite calls.
  const ColumnTarget* first = targets.data();
  const ColumnTarget* last = first + targets.size();
  return RunSelect(
      TableHandle(*this), sql, itemcnt,
      [records, stride, first, last](sqlite3_stmt* stmt, unsigned long long row) {
        char* base = records + row * stride;
        int column = 0;
        for (const ColumnTarget* target = first; target != last; ++target, ++column) {
          CopyColumn(stmt, column, target->kind, target->width, base + target->offset);
        }
      });
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::get_item", -1LL);
}
