// The workload and the checks shared by the device-fault campaigns
// (tests/fault_*_test.cpp). A base file holds batches 1..kFaultBaseBatches
// of kFaultRows event rows each (batch b has value b); every point of a
// campaign starts from a copy of it, so a point replays from its seed and
// index alone. A forked child opens the copy through the library with the
// point's settings and runs calls of the workload (multi-record add_item,
// update_item of one batch, two-list rmv_item), telling the parent through
// shared memory which calls returned 0. The parent reads the file back
// with raw SQLite (after reopening it through the library, which rolls a
// hot journal back or recovers a WAL) and compares it with the states the
// calls lead through.
#ifndef IPC_DB_TESTS_SUPPORT_FAULTCAMPAIGN_H_
#define IPC_DB_TESTS_SUPPORT_FAULTCAMPAIGN_H_

#include <sys/mman.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Db.h"
#include "ReliabilityTestSupport.h"

namespace ipc_db_test {

constexpr int kFaultRows = 20;
constexpr int kFaultBaseBatches = 6;
constexpr const char* kFaultFile = "fault.db";

// Journal mode (as SetJournalAttr names it) and synchronous setting of a
// campaign; "NORMAL" is the library's own setting, anything else is set by
// the application after OpenDB.
struct FaultSetting {
  std::string journal = "DELETE";
  std::string synchronous = "NORMAL";
  bool keyed = false;
  // Opened as an application using the companion header's defaults would
  // (ipc_db::ApplyOpenOptions with OpenOptions()) instead of setting the
  // journal mode and synchronous above, which then only name what the
  // defaults are.
  bool companionDefaults = false;
  std::string Name() const;
  std::string Key() const;  // "" for a plain file
};

// One call of the workload.
struct WorkCall {
  enum Kind : int32_t { kAdd = 1, kUpdate = 2, kRemove = 3 };
  Kind kind;
  int32_t batch;
  int32_t batch2;  // second list of a remove
  int32_t value;   // update
  bool Multi() const { return kind != kUpdate; }
  const char* KindName() const;
};

// Batch number -> value of each of its rows.
using BatchState = std::map<int32_t, int32_t>;

BatchState BaseState();
void ApplyCall(const WorkCall& call, BatchState* state);
// Four calls drawn from `seed`: an add, an update, a two-batch remove and
// a second add, in an order and with batches drawn from the seed.
std::vector<WorkCall> MakeWorkload(uint32_t seed);
// States before the first call and after each call of `calls`.
std::vector<BatchState> StatesOf(const std::vector<WorkCall>& calls);

// A Db opened on `dir` with a setting, and the table handle.
class FaultSession {
 public:
  FaultSession() = default;
  ~FaultSession();
  FaultSession(const FaultSession&) = delete;
  FaultSession& operator=(const FaultSession&) = delete;

  // Init, OpenDB, journal mode, synchronous, createTable. 0 on success.
  long long Open(const std::string& dir, const FaultSetting& setting);
  // The same without createTable; then MakeTable. 0 on success.
  long long OpenFile(const std::string& dir, const FaultSetting& setting);
  long long MakeTable();
  long long Run(const WorkCall& call);
  // The guide's recovery step after a failed multi-record call: rollback.
  void Recover(const WorkCall& call);
  // Runs `sql` through the library's ExecuteSQL.
  long long Execute(const std::string& sql);
  void Close();
  Db& db() { return db_; }
  Table* table() { return table_.get(); }
  EventSchema& schema() { return schema_; }

 private:
  Db db_;
  EventSchema schema_;
  std::unique_ptr<Table> table_;
  bool open_ = false;
};

// A batch as read back: rows, lowest and highest value and seq.
struct BatchSeen {
  long long rows = 0, minValue = 0, maxValue = 0, minSeq = 0, maxSeq = 0;
};

// What a file holds, read with raw SQLite.
struct FileSeen {
  bool readable = false;     // the statements ran
  bool integrityOk = false;  // PRAGMA integrity_check said ok
  int code = 0;              // SQLite code of the failing statement
  std::map<int32_t, BatchSeen> batches;
};

FileSeen ReadFileRaw(const std::string& path, const std::string& key);
// Every batch has kFaultRows rows with seq 0..kFaultRows-1 and one value.
bool EveryBatchWhole(const FileSeen& seen);
bool Matches(const BatchState& state, const FileSeen& seen);
// Rows whose committed state the file does not hold: rows of a batch that
// is missing or holds another value, and rows of a batch that should be gone.
long long RowsDiffering(const BatchState& state, const FileSeen& seen);

// Result of reopening a file through the library after a fault.
struct Reopened {
  bool firstReadOk = false;    // get_item_cnt after the first OpenDB
  bool journalBefore = false;  // a -journal file lay beside the file before it
  FileSeen seen;               // read raw afterwards
};
// Opens through the library (which recovers the file), counts the rows,
// closes, then reads the file raw; when that fails, opens through the
// library once more and reads it raw again.
Reopened ReopenAndRead(const std::string& dir, const FaultSetting& setting);

// Makes the base file in `dir` (closed, no journal).
void MakeBaseFile(const std::string& dir, const FaultSetting& setting);
// Replaces the database of `workDir` (and any journal, WAL, shm) with a
// copy of the base file of `baseDir`.
void CopyBase(const std::string& baseDir, const std::string& workDir);

// Memory shared with forked children, zeroed; unmapped with the object.
template <typename T>
class Shared {
 public:
  Shared() {
    void* memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    value_ = memory == MAP_FAILED ? nullptr : new (memory) T();
  }
  ~Shared() {
    if (value_ != nullptr) munmap(value_, sizeof(T));
  }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T* operator->() { return value_; }
  T& operator*() { return *value_; }
  void Clear() { *value_ = T(); }

 private:
  T* value_;
};

// How a child ended.
struct ChildEnd {
  bool exited = false;
  int status = 0;  // exit status, or the signal
};
// Forks; the child runs `body` and _exits with its result (or with
// kExceptionExitStatus when an exception leaves it). The parent waits. The child first
// clears the fault VFS's plans and records.
template <typename Body>
ChildEnd RunChild(Body body);

ChildEnd WaitChild(pid_t child);
void PrepareChild();

// Exit status of a child whose body let an exception out (which gtest in
// the child would otherwise catch and report as a failure of its own).
constexpr int kExceptionExitStatus = 99;

template <typename Body>
ChildEnd RunChild(Body body) {
  pid_t child = fork();
  if (child == 0) {
    PrepareChild();
    int status = kExceptionExitStatus;
    try {
      status = body();
    } catch (...) {
    }
    _exit(status);
  }
  return WaitChild(child);
}

// Starts a campaign: installs the fault VFS (syncs modelled, not sent to
// the disk), sends the library's log entries nowhere (thousands of points
// log expected failures), and returns the seed, printed with how to
// replay one point.
uint32_t StartCampaign(const std::string& campaign);
// `full` with IPC_DB_FAULT_SCALE=full, else `reduced`.
int ScaledPoints(int full, int reduced);
// True when point `index` should run (IPC_DB_FAULT_POINT unset or equal).
bool PointSelected(unsigned long long index);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_FAULTCAMPAIGN_H_
