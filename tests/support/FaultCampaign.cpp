// The device-fault campaigns' workload, sessions and file checks (see
// FaultCampaign.h).
#include "FaultCampaign.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>

#include "EngineFormat.h"
#include "FaultVfs.h"
#include "ipc_db_helpers.h"
#include "zb_log.h"

namespace ipc_db_test {

std::string FaultSetting::Name() const {
  return journal + "/" + synchronous + (keyed ? "/keyed" : "") +
         (companionDefaults ? "/companion defaults" : "");
}

std::string FaultSetting::Key() const { return keyed ? MakeKey('k') : std::string(); }

const char* WorkCall::KindName() const {
  switch (kind) {
    case kAdd:
      return "add_item";
    case kUpdate:
      return "update_item";
    case kRemove:
      return "rmv_item";
  }
  return "?";
}

BatchState BaseState() {
  BatchState state;
  for (int32_t batch = 1; batch <= kFaultBaseBatches; ++batch) state[batch] = batch;
  return state;
}

void ApplyCall(const WorkCall& call, BatchState* state) {
  switch (call.kind) {
    case WorkCall::kAdd:
      (*state)[call.batch] = 0;
      break;
    case WorkCall::kUpdate:
      if (state->count(call.batch) != 0) (*state)[call.batch] = call.value;
      break;
    case WorkCall::kRemove:
      state->erase(call.batch);
      state->erase(call.batch2);
      break;
  }
}

std::vector<WorkCall> MakeWorkload(uint32_t seed) {
  std::mt19937 random(seed);
  auto base = [&] { return static_cast<int32_t>(1 + random() % kFaultBaseBatches); };
  const int32_t updated = base();
  int32_t removed = base();
  while (removed == updated) removed = base();
  int32_t removed2 = base();
  while (removed2 == updated || removed2 == removed) removed2 = base();
  const int32_t value = static_cast<int32_t>(100 + random() % 100000);
  std::vector<WorkCall> calls = {
      {WorkCall::kAdd, 100, 0, 0},
      {WorkCall::kUpdate, updated, 0, value},
      {WorkCall::kRemove, removed, removed2, 0},
      {WorkCall::kAdd, 101, 0, 0},
  };
  std::shuffle(calls.begin(), calls.end() - 1, random);
  return calls;
}

std::vector<BatchState> StatesOf(const std::vector<WorkCall>& calls) {
  std::vector<BatchState> states = {BaseState()};
  for (const WorkCall& call : calls) {
    BatchState next = states.back();
    ApplyCall(call, &next);
    states.push_back(next);
  }
  return states;
}

// ---- FaultSession ----

FaultSession::~FaultSession() { Close(); }

long long FaultSession::Open(const std::string& dir, const FaultSetting& setting) {
  long long rc = OpenFile(dir, setting);
  return rc != 0 ? rc : MakeTable();
}

long long FaultSession::OpenFile(const std::string& dir, const FaultSetting& setting) {
  long long rc = OpenEventDb(db_, dir, kFaultFile, setting.Key());
  if (rc != 0) return rc;
  open_ = true;
  if (setting.companionDefaults) return ipc_db::ApplyOpenOptions(db_, ipc_db::OpenOptions());
  static const std::map<std::string, DB_JOURNAL_TYPE> kModes = {
      {"DELETE", DB_JOURNAL_DELETE},   {"TRUNCATE", DB_JOURNAL_TRUNCATE},
      {"PERSIST", DB_JOURNAL_PERSIST}, {"MEMORY", DB_JOURNAL_MEMORY},
      {"WAL", DB_JOURNAL_WAL},         {"OFF", DB_JOURNAL_OFF}};
  if (setting.journal != "DELETE" &&
      db_.SetJournalAttr(kModes.at(setting.journal)) != 0) {
    return -1;
  }
  if (setting.synchronous != "NORMAL" &&
      Execute("PRAGMA synchronous = " + setting.synchronous + ";") != 0) {
    return -1;
  }
  return 0;
}

long long FaultSession::MakeTable() {
  table_.reset(db_.createTable(schema_.meta(), EventSchema::kAnalyzeName));
  return table_ != nullptr ? 0 : -1;
}

long long FaultSession::Run(const WorkCall& call) {
  switch (call.kind) {
    case WorkCall::kAdd: {
      std::vector<Event> events = MakeBatch(call.batch, kFaultRows, 0);
      return table_->add_item(events.data(), events.size(), DbFilters(0));
    }
    case WorkCall::kUpdate: {
      DbFilters set(1, new DbFilter(schema_.value(), DB_FILTER_OP_EQ,
                                    ValueSlot(call.value), nullptr));
      DbFilters where(1, new DbFilter(schema_.batch(), DB_FILTER_OP_EQ,
                                      ValueSlot(call.batch), nullptr));
      return table_->update_item(set, where);
    }
    case WorkCall::kRemove: {
      DbFilters lists[2] = {DbFilters(1, new DbFilter(schema_.batch(), DB_FILTER_OP_EQ,
                                                      ValueSlot(call.batch), nullptr)),
                            DbFilters(1, new DbFilter(schema_.batch(), DB_FILTER_OP_EQ,
                                                      ValueSlot(call.batch2), nullptr))};
      return table_->rmv_item(lists, 2);
    }
  }
  return -1;
}

void FaultSession::Recover(const WorkCall& call) {
  if (call.Multi()) Execute("rollback;");
}

long long FaultSession::Execute(const std::string& sql) {
  if (db_.m_pDBConn == nullptr) return -1;
  return db_.m_pDBConn->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC);
}

void FaultSession::Close() {
  table_.reset();
  if (open_ || db_.m_pDBConn != nullptr) db_.UnInit();
  open_ = false;
}

// ---- Reading files back ----

namespace {

int Step(sqlite3* db, const char* sql, const std::function<void(sqlite3_stmt*)>& row) {
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
  while (rc == SQLITE_OK && (rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    row(stmt);
    rc = SQLITE_OK;
  }
  sqlite3_finalize(stmt);
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

}  // namespace

FileSeen ReadFileRaw(const std::string& path, const std::string& key) {
  FileSeen seen;
  sqlite3* db = nullptr;
  seen.code = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  if (seen.code == SQLITE_OK && !key.empty()) {
    seen.code = ipc_db_test::KeyInLibraryFormat(db, key);
  }
  std::string integrity;
  if (seen.code == SQLITE_OK) {
    seen.code = Step(db, "PRAGMA integrity_check;", [&](sqlite3_stmt* stmt) {
      const unsigned char* text = sqlite3_column_text(stmt, 0);
      integrity += text != nullptr ? reinterpret_cast<const char*>(text) : "";
    });
  }
  if (seen.code == SQLITE_OK) {
    seen.integrityOk = integrity == "ok";
    seen.code = Step(db,
                     "select Batch, count(*), min(Value), max(Value), min(Seq), max(Seq) "
                     "from t_event group by Batch;",
                     [&](sqlite3_stmt* stmt) {
                       BatchSeen& batch = seen.batches[sqlite3_column_int(stmt, 0)];
                       batch.rows = sqlite3_column_int64(stmt, 1);
                       batch.minValue = sqlite3_column_int64(stmt, 2);
                       batch.maxValue = sqlite3_column_int64(stmt, 3);
                       batch.minSeq = sqlite3_column_int64(stmt, 4);
                       batch.maxSeq = sqlite3_column_int64(stmt, 5);
                     });
    seen.readable = seen.code == SQLITE_OK;
  }
  sqlite3_close(db);
  return seen;
}

bool EveryBatchWhole(const FileSeen& seen) {
  for (const auto& [batch, observed] : seen.batches) {
    if (observed.rows != kFaultRows || observed.minSeq != 0 ||
        observed.maxSeq != kFaultRows - 1 || observed.minValue != observed.maxValue) {
      return false;
    }
  }
  return true;
}

bool Matches(const BatchState& state, const FileSeen& seen) {
  return seen.readable && EveryBatchWhole(seen) && RowsDiffering(state, seen) == 0;
}

long long RowsDiffering(const BatchState& state, const FileSeen& seen) {
  long long rows = 0;
  for (const auto& [batch, value] : state) {
    auto found = seen.batches.find(batch);
    if (found == seen.batches.end()) {
      rows += kFaultRows;
    } else if (found->second.minValue != value || found->second.maxValue != value ||
               found->second.rows != kFaultRows) {
      rows += kFaultRows;
    }
  }
  for (const auto& [batch, observed] : seen.batches) {
    if (state.count(batch) == 0) rows += observed.rows;
  }
  return rows;
}

Reopened ReopenAndRead(const std::string& dir, const FaultSetting& setting) {
  Reopened reopened;
  const std::string path = dir + kFaultFile;
  reopened.journalBefore = FileExists(path + "-journal");
  for (int attempt = 0; attempt < 2; ++attempt) {
    {
      FaultSession session;
      bool opened = OpenEventDb(session.db(), dir, kFaultFile, setting.Key()) == 0;
      if (opened && attempt == 0) {
        Table table(&session.db(), session.schema().meta(), EventSchema::kAnalyzeName);
        DbFilters none(0);
        reopened.firstReadOk = table.get_item_cnt(none) >= 0;
      }
      session.db().UnInit();
    }
    reopened.seen = ReadFileRaw(path, setting.Key());
    if (reopened.seen.readable) break;
  }
  return reopened;
}

// ---- Files ----

void MakeBaseFile(const std::string& dir, const FaultSetting& setting) {
  FaultSession session;
  ASSERT_EQ(OpenEventDb(session.db(), dir, kFaultFile, setting.Key()), 0);
  std::unique_ptr<Table> table(
      session.db().createTable(session.schema().meta(), EventSchema::kAnalyzeName));
  ASSERT_NE(table, nullptr);
  for (int32_t batch = 1; batch <= kFaultBaseBatches; ++batch) {
    std::vector<Event> events = MakeBatch(batch, kFaultRows, batch);
    ASSERT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
  }
  table.reset();
  ASSERT_EQ(session.db().UnInit(), 0);
  ASSERT_FALSE(FileExists(dir + kFaultFile + "-journal"));
}

void CopyBase(const std::string& baseDir, const std::string& workDir) {
  namespace fs = std::filesystem;
  const std::string target = workDir + kFaultFile;
  for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
    std::error_code ignored;
    fs::remove(target + suffix, ignored);
  }
  fs::copy_file(baseDir + kFaultFile, target);
}

// ---- Children ----

void PrepareChild() {
  FaultVfs::Reset();
  FaultVfs::ForgetFiles();
}

ChildEnd WaitChild(pid_t child) {
  ChildEnd end;
  int status = 0;
  if (child < 0) return end;
  // A child that hangs (a lock left held) is killed after 30 s and
  // counts as ended by SIGKILL.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  pid_t waited;
  while ((waited = waitpid(child, &status, WNOHANG)) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(child, SIGKILL);
      waited = waitpid(child, &status, 0);
      break;
    }
    usleep(500);
  }
  if (waited != child) return end;
  end.exited = WIFEXITED(status);
  end.status = end.exited ? WEXITSTATUS(status) : WTERMSIG(status);
  return end;
}

namespace {
void DiscardEntry(void*, unsigned int, unsigned int, unsigned int, const char*,
                  unsigned int, const char*) {}
}  // namespace

uint32_t StartCampaign(const std::string& campaign) {
  FaultVfs::Install();
  FaultVfs::SetRealSyncs(false);
  ZB_SetLogSink(DiscardEntry, nullptr);
  const uint32_t seed = FaultSeed();
  std::printf(
      "fault campaign %s: seed %u (replay with IPC_DB_FAULT_SEED=%u, one point with "
      "IPC_DB_FAULT_POINT=<index>)\n",
      campaign.c_str(), seed, seed);
  std::fflush(stdout);
  return seed;
}

int ScaledPoints(int full, int reduced) { return FaultScaleFull() ? full : reduced; }

bool PointSelected(unsigned long long index) {
  long long only = FaultPointOnly();
  return only < 0 || static_cast<unsigned long long>(only) == index;
}

}  // namespace ipc_db_test
