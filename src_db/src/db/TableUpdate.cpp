// Table::update_item and Table::rmv_item: change and delete rows selected by
// filter lists. An update without blobs runs as plain text through the
// connection; one with a blob in its assignments or its condition is
// prepared on the handle with the blobs bound as parameters. A removal runs
// one delete per filter list, several inside one transaction, which a
// failing delete leaves open.
#include <string>

#include "DBConn.h"
#include "db/SqlRun.h"
#include "db/SqlText.h"

using ipc_db::detail::BoundBlob;
using ipc_db::detail::BuildUpdate;
using ipc_db::detail::CheckConnection;
using ipc_db::detail::DeleteStatement;
using ipc_db::detail::ExecuteText;
using ipc_db::detail::kLogError;
using ipc_db::detail::RunBoundStatement;
using ipc_db::detail::RunTransactionStatement;
using ipc_db::detail::StatementLog;
using ipc_db::detail::TableHandle;

namespace {

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

}  // namespace

long long Table::update_item(DbFilters& set, DbFilters& where) {
  if (!CheckConnection(*this)) return -1;
  if (set.filters.empty()) {
    DB_LOG(kLogError, "filters is empty.\n");
    return -1;
  }
  std::string sql;
  BoundBlob setBlob;
  BoundBlob whereBlob;
  if (!BuildUpdate(*this, set, where, &sql, &setBlob, &whereBlob)) return -1;
  if (!setBlob.present && !whereBlob.present) return RunTextUpdate(*this, sql);
  return RunBoundStatement(TableHandle(*this), sql, {&setBlob, &whereBlob});
}

long long Table::rmv_item(DbFilters* filters, unsigned long long itemcnt) {
  if (!CheckConnection(*this)) return -1;
  if (itemcnt == 0) {
    DB_LOG(kLogError, "itemcnt values is  wrong.\n");
    return -1;
  }
  bool batch = itemcnt > 1;
  if (batch && RunTransactionStatement(*this, true, true) != 0) return -1;
  for (unsigned long long i = 0; i < itemcnt; ++i) {
    if (RunDelete(*this, filters[i]) != 0) return -1;
  }
  if (batch && RunTransactionStatement(*this, false, true) != 0) return -1;
  return 0;
}
