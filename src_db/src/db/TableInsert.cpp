// Table::add_item: writes records from the caller's own structures. Each
// record becomes one insert statement whose values are read at the members'
// offsets: integers as signed 32-bit decimals (an unset auto-increment key as
// NULL), text quoted as it stands, and a blob bound as the statement's one
// parameter. Several records run inside one transaction; a failure returns
// at once and leaves that transaction open on the handle.
#include <new>
#include <string>
#include <vector>

#include "base/OutOfMemory.h"
#include "db/CallerChecks.h"
#include "db/SqlRun.h"
#include "db/SqlText.h"

using ipc_db::detail::BoundBlob;
using ipc_db::detail::CheckByteSize;
using ipc_db::detail::CheckColumnTerms;
using ipc_db::detail::CheckConnection;
using ipc_db::detail::CheckMembers;
using ipc_db::detail::CheckOpenHandle;
using ipc_db::detail::CheckRecordLayout;
using ipc_db::detail::DbOutOfMemory;
using ipc_db::detail::EveryMemberMatches;
using ipc_db::detail::InsertPrefix;
using ipc_db::detail::InsertStatement;
using ipc_db::detail::kLogError;
using ipc_db::detail::RunBoundStatement;
using ipc_db::detail::RunTransactionStatement;
using ipc_db::detail::SelectedMembers;
using ipc_db::detail::TableHandle;

namespace {

bool CheckArguments(const Table& table, const void* obj, unsigned long long itemcnt,
                    const DbFilters& filters) {
  if (!CheckConnection(table)) return false;
  if (itemcnt == 0) {
    DB_LOG(kLogError, "itemcnt values is wrong.\n");
    return false;
  }
  if (obj == nullptr) {
    DB_LOG(kLogError, "obj is null\n");
    return false;
  }
  if (table.meta_data->members.empty()) {
    DB_LOG(kLogError, "members is null\n");
    return false;
  }
  if (!CheckMembers(table.meta_data->members, "meta_data") ||
      !CheckColumnTerms(filters)) {
    return false;
  }
  if (!filters.filters.empty() &&
      !EveryMemberMatches(SelectedMembers(table, filters), table.meta_data->members)) {
    DB_LOG(kLogError, "filter doesn't match meta_data");
    return false;
  }
  // The records are read at the members' offsets with the Meta's stride.
  return CheckRecordLayout(*table.meta_data, "meta_data") &&
         CheckByteSize(itemcnt, table.meta_data->type_size) && CheckOpenHandle(table);
}

}  // namespace

long long Table::add_item(void* obj, unsigned long long itemcnt,
                          const DbFilters& filters) try {
  if (!CheckArguments(*this, obj, itemcnt, filters)) return -1;
  bool batch = itemcnt > 1;
  if (batch && RunTransactionStatement(*this, true, false) != 0) return -1;
  std::vector<Member*> columns = SelectedMembers(*this, filters);
  std::string prefix = InsertPrefix(*this, columns);
  sqlite3* db = TableHandle(*this);
  const char* records = static_cast<const char*>(obj);
  for (unsigned long long i = 0; i < itemcnt; ++i) {
    BoundBlob blob;
    const char* record = records + i * meta_data->type_size;
    std::string sql = InsertStatement(prefix, columns, record, &blob);
    if (RunBoundStatement(db, sql, {&blob}) != 0) return -1;
  }
  if (batch && RunTransactionStatement(*this, false, false) != 0) return -1;
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::add_item", -1LL);
}
