// Table::update_item and Table::rmv_item: change and delete rows selected by
// filter lists. An update without blobs runs as plain text through the
// connection; one with a blob in its assignments or its condition is
// prepared on the handle with the blobs bound as parameters. A removal runs
// one delete per filter list, several inside one transaction, which a
// failing delete leaves open.
#include <new>
#include <string>

#include "base/OutOfMemory.h"
#include "db/CallerChecks.h"
#include "db/SqlRun.h"
#include "db/SqlText.h"

using ipc_db::detail::BoundBlob;
using ipc_db::detail::BuildUpdate;
using ipc_db::detail::CheckByteSize;
using ipc_db::detail::CheckConnection;
using ipc_db::detail::CheckFilterTerms;
using ipc_db::detail::CheckUpdateCondition;
using ipc_db::detail::CheckOpenHandle;
using ipc_db::detail::DbOutOfMemory;
using ipc_db::detail::DeleteStatement;
using ipc_db::detail::ExecuteText;
using ipc_db::detail::kLogError;
using ipc_db::detail::RunBoundStatement;
using ipc_db::detail::RunTransactionStatement;
using ipc_db::detail::StatementLog;
using ipc_db::detail::TableHandle;

namespace {

// Only equal terms may assign, each usable as a condition; false (logged)
// for any other operator or an unusable term.
bool CheckAssignments(const DbFilters& set) {
  for (const DbFilter* term : set.filters) {
    if (term != nullptr && term->op != DB_FILTER_OP_EQ) {
      DB_LOG(kLogError, "op is not equal\n");
      return false;
    }
  }
  return CheckFilterTerms(set);
}

long long RunTextUpdate(const Table& table, const std::string& sql) {
  long long result = ExecuteText(table.parent->m_pDBConn, sql, "update_item",
                                 StatementLog::kTableOperation);
  return result == 0 ? 0 : -1;
}

long long RunDelete(const Table& table, const DbFilters& list) {
  std::string sql = DeleteStatement(table, list);
  long long result = ExecuteText(table.parent->m_pDBConn, sql, "rmv_item",
                                 StatementLog::kTableOperation);
  return result == 0 ? 0 : -1;
}

// The array of lists is set and every term of every list is usable, so that
// no delete runs before a later list is found wrong.
bool CheckRemoveLists(const DbFilters* filters, unsigned long long itemcnt) {
  if (filters == nullptr) {
    DB_LOG(kLogError, "filters is null.\n");
    return false;
  }
  if (!CheckByteSize(itemcnt, sizeof(DbFilters))) return false;
  for (unsigned long long i = 0; i < itemcnt; ++i) {
    if (!CheckFilterTerms(filters[i])) return false;
  }
  return true;
}

}  // namespace

long long Table::update_item(DbFilters& set, DbFilters& where) try {
  if (!CheckConnection(*this)) return -1;
  if (set.filters.empty()) {
    DB_LOG(kLogError, "filters is empty.\n");
    return -1;
  }
  if (!CheckAssignments(set) || !CheckUpdateCondition(where)) return -1;
  std::string sql;
  BoundBlob setBlob;
  BoundBlob whereBlob;
  if (!BuildUpdate(*this, set, where, &sql, &setBlob, &whereBlob)) return -1;
  if (!setBlob.present && !whereBlob.present) return RunTextUpdate(*this, sql);
  if (!CheckOpenHandle(*this)) return -1;
  return RunBoundStatement(TableHandle(*this), sql, {&setBlob, &whereBlob});
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::update_item", -1LL);
}

long long Table::rmv_item(DbFilters* filters, unsigned long long itemcnt) try {
  if (!CheckConnection(*this)) return -1;
  if (itemcnt == 0) {
    DB_LOG(kLogError, "itemcnt values is  wrong.\n");
    return -1;
  }
  if (!CheckRemoveLists(filters, itemcnt)) return -1;
  bool batch = itemcnt > 1;
  if (batch && RunTransactionStatement(*this, true, true) != 0) return -1;
  for (unsigned long long i = 0; i < itemcnt; ++i) {
    if (RunDelete(*this, filters[i]) != 0) return -1;
  }
  if (batch && RunTransactionStatement(*this, false, true) != 0) return -1;
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::rmv_item", -1LL);
}
