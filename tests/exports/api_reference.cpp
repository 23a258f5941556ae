// The exported interface of libipc_db, written as code: one reference to
// every out-of-line function, constructor, destructor, typeinfo and global
// that the public headers declare. This file is compiled but never linked
// into a program; check_exports.sh reads its undefined symbols (nm -u) as
// the list of symbols that libipc_db.so must define. Because it is compiled
// against the public headers, a renamed or re-typed declaration changes the
// list with it, and a typo here does not compile.
//
// Virtual functions are called with a qualified name so that the call names
// the function's own symbol instead of going through the vtable.
#include <list>
#include <set>
#include <string>
#include <typeinfo>
#include <vector>

#include "ipc_db.h"

namespace ipc_db_exports {

void ReferencePlatformUtilities() {
  g_enRecordDebugFlag = 0;
  ExecShell("true", 0);
  RecordFileAccess("/");
  RecordFileChmod("/", 0);
  GetTicks();
  Delay(0);
  Sleep(0);
  USleep(0);

  CSMutex* mutex = new CSMutex();
  mutex->Init();
  mutex->Lock();
  mutex->Unlock();
  delete mutex;
}

// A connection of another kind, as an application may derive one: its
// constructor and vtable need CDBConn's constructor and typeinfo.
class OtherConn : public CDBConn {
 public:
  long long OpenConnection() override { return 0; }
  long long CloseConnection() override { return 0; }
  void SetDBFile(const std::string&) override {}
  void SetDBJournal(const std::string&) override {}
  long long SetDBJournalAttr(DB_JOURNAL_TYPE) override { return 0; }
  long long ExecuteSQL(const char*, DB_EXEC_RESULT*, DB_EXEC_SQL_TYPE) override {
    return 0;
  }
  void FreeExecuteResult(DB_EXEC_RESULT*) override {}
  long long BeginTransaction() override { return 0; }
  long long CommitTransaction() override { return 0; }
  long long GetCountOfSQLResult(const char*) override { return 0; }
  int WhetherTableExist(const char*) override { return 0; }
  long long GetRowCount(const char*) override { return 0; }
  long long ForceCommitTransaction() override { return 0; }
  long long BackUpDB() override { return 0; }
  long long RepairDB() override { return 0; }
  long long RestoreDB() override { return 0; }
  long long PauseConnection() override { return 0; }
  long long ResumeConnection() override { return 0; }
};

CDBConn* MakeOtherConn() { return new OtherConn(); }

void ReferenceConnectionBase(CDBConn* conn, DB_REPAIR_ITEM& item) {
  conn->CDBConn::ReEncryptDB("", 0);
  conn->CDBConn::SetEncryptKey(nullptr, 0);
  conn->StartExecThread();
  conn->StopExecThread();
  CDBConn::ExecThreadFun(conn);
  conn->StartMaintenanceThread();
  conn->StopMaintenanceThread();
  CDBConn::MaintenanceThreadFun(conn);
  conn->NotifyMaintainDBCmd(item);
  conn->WaitMaintainDBCmd(item);
  conn->CheckInstallPath();
  conn->RecordDirAccess("/");
  conn->CDBConn::~CDBConn();
}

const std::type_info& ConnectionBaseType() { return typeid(CDBConn); }

void ReferenceSqliteConnection(DB_EXEC_RESULT* result, SQLITE_DB_EXEC_QUEUE_ITEM& item) {
  CSqliteDBConn* conn = new CSqliteDBConn();
  conn->CSqliteDBConn::OpenConnection();
  conn->CSqliteDBConn::CloseConnection();
  conn->CSqliteDBConn::ReEncryptDB("", 0);
  conn->CSqliteDBConn::SetDBFile("");
  conn->CSqliteDBConn::SetDBJournal("");
  conn->CSqliteDBConn::SetDBJournalAttr(DB_JOURNAL_DELETE);
  conn->CSqliteDBConn::ExecuteSQL("", result, DB_EXEC_SQL_SYNC);
  conn->CSqliteDBConn::FreeExecuteResult(result);
  conn->CSqliteDBConn::BeginTransaction();
  conn->CSqliteDBConn::CommitTransaction();
  conn->CSqliteDBConn::GetCountOfSQLResult("");
  conn->CSqliteDBConn::WhetherTableExist("");
  conn->CSqliteDBConn::GetRowCount("");
  conn->CSqliteDBConn::ForceCommitTransaction();
  conn->CSqliteDBConn::BackUpDB();
  conn->CSqliteDBConn::RepairDB();
  conn->CSqliteDBConn::RestoreDB();
  conn->CSqliteDBConn::PauseConnection();
  conn->CSqliteDBConn::ResumeConnection();
  conn->CSqliteDBConn::SetDBAttr();
  conn->NotifySqlExecCmd(item);
  conn->WaitSqlExecCmd(item);
  conn->WaitExecTimeOutProcess();
  conn->ClearWaitExecTimeOutCount();
  CSqliteDBConn::SqliteDBExecThreadFun(conn);
  CSqliteDBConn::SqliteStopDBExecThreadFun(conn);
  conn->ErrorProcess(0, "");
  conn->CSqliteDBConn::~CSqliteDBConn();
}

const std::type_info& SqliteConnectionType() { return typeid(CSqliteDBConn); }

void ReferenceSchema() {
  Meta* meta = new Meta();
  meta->Init("", 0);
  Member* member = new Member("", 0, meta);
  meta->AddMember(member);
  meta->Get("");
  meta->toString("");
  member->toString("");
  delete member;
  delete meta;

  MetaDataManager* registry = MetaDataManager::Singleton();
  registry->AddMetaData(nullptr);
  registry->GetMetaDataOf("");
  registry->~MetaDataManager();
}

void ReferenceDatabase(Db& db, Meta* meta, Member* member, TableChange& change) {
  std::string name;
  std::string sql;
  db.Init(0, "", "", "", nullptr, 0);
  db.OpenDB();
  db.CloseDB();
  db.UnInit();
  db.GetDBStatus();
  db.reEncryptDB("", 0);
  db.SetJournalAttr(DB_JOURNAL_DELETE);
  db.createTable(meta, 0);
  db.destroyTable(meta);
  db.getTableSql(name, sql);
  db.getTableStatus(name);
  db.updateTable("", change, "", 0);
  db.db_vacuum();
  db.getType(member);
  db.getName("");
  db.getPrimaryKey(member);
  db.getAutoIncrement(member);
  db.getNotNull(member);
  db.getDefaultZero(member);
  db.preProcMember(member);

  TableChange* built = new TableChange(0u);
  built->toString();
  delete built;
}

void ReferenceFilters(Member* member) {
  DbFilter* filter = new DbFilter(member, DB_FILTER_OP_EQ, nullptr, nullptr);
  filter->op2Str();
  filter->op2StrAnalyze();
  filter->getFilterName("");
  delete new DbFilter(member, DB_FILTER_OP_NE, nullptr, nullptr);

  DbFilters* empty = new DbFilters();
  DbFilters* counted = new DbFilters(1u, filter);
  DbFilters moved(std::move(*counted));
  *empty = std::move(moved);
  empty->add_filter(nullptr);
  empty->toString();
  delete counted;
  delete empty;
}

void ReferenceTable(Db* db, Meta* meta, Member* member) {
  DbFilters filters;
  unsigned long long count = 0;
  std::string text;
  std::list<std::string> list;
  std::vector<std::string> vector;
  std::set<std::string> set;

  Table* table = new Table(db, meta, 0);
  table->add_item(nullptr, 0, filters);
  table->update_item(filters, filters);
  table->rmv_item(&filters, 0);
  table->toString("");
  table->get_item(filters, filters, count, nullptr);
  table->get_item_z(filters, filters, count, nullptr, meta);
  table->get_item_lz(filters, filters, count, list, meta);
  table->get_item_vz(filters, filters, count, vector, meta);
  table->get_item_sz(filters, filters, count, set, member);
  table->get_item_cnt(filters);
  table->get_item_max(filters, filters, text);
  table->get_item_min(filters, filters, text);
  table->add_index("", member);
  table->drop_index("");
  table->table_vacuum();
  delete table;
}

}  // namespace ipc_db_exports
