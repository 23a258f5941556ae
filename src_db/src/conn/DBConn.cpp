// CDBConn: the part of a connection that every implementation shares: field
// set-up and teardown, the key buffer, the install directory check, the
// configuration, thread entry and stop handshake that the execution and
// maintenance workers share, the maintenance queue and the maintenance
// worker's loop.
//
// The Start*Thread functions prepare thread attributes and clear the stop
// flags but create no thread; the thread bodies run only when an
// application starts them on threads of its own.
#include "DBConn.h"

#include <errno.h>
#include <sys/prctl.h>

#include "base/Env.h"
#include "base/Log.h"
#include "bounded_mem.h"
#include "conn/BoundedQueue.h"
#include "conn/SharedFlags.h"

namespace {

constexpr const char* kModule = ipc_db::detail::kLogModuleDBConn;
using ipc_db::detail::BoundedQueue;
using ipc_db::detail::CurrentEnv;
using ipc_db::detail::kLogError;
using ipc_db::detail::QueueSettings;
using ipc_db::detail::ReadFlag;
using ipc_db::detail::TakeNext;
using ipc_db::detail::WriteFlag;
using ipc_db::detail::ZeroFill;

constexpr size_t kThreadStackSize = 262144;
constexpr int kStopWaitRounds = 51;
constexpr unsigned long long kStopWaitStepMs = 100;
constexpr size_t kMaintainQueueLimit = 2;
constexpr time_t kMaintainWaitSeconds = 120;
constexpr size_t kThreadNameSize = 32;
constexpr unsigned int kInstallDirMode = 0777;

// Numbers the worker threads over the life of the process. Taken without a
// lock, as one atomic step (TakeNext), since worker threads may start at
// once.
int g_execThreadIndex = 0;
int g_maintainThreadIndex = 0;

// Prepares (and discards) the attributes a worker thread would be created
// with: 256 KiB stack, detached.
void PrepareWorkerAttributes() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kThreadStackSize);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_destroy(&attributes);
}

// Names the calling thread "<pattern>" with the next number of `counter`,
// makes it asynchronously cancellable and detaches it.
void SetUpWorkerThread(const char* pattern, int* counter) {
  char name[kThreadNameSize] = {0};
  int index = TakeNext(*counter);
  int written = snprintf_s(name, kThreadNameSize, kThreadNameSize - 1, pattern, index);
  if (written < 1) {
    RECORD_LOG(kModule, kLogError, "snprintf fail! error code is %d\n", written);
  }
  if (prctl(PR_SET_NAME, name) != 0) {
    RECORD_LOG(kModule, kLogError, "Set thread name [%s] fail!", name);
  }
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
  pthread_detach(pthread_self());
}

// The maintenance queue: two requests at most; a third is dropped with a
// log line and still reported as queued.
constexpr QueueSettings kMaintainQueue{kMaintainQueueLimit, kMaintainWaitSeconds, kModule,
                                       "MaintainDBCmd Queue is full.", 0};

BoundedQueue<DB_REPAIR_ITEM> MaintainQueueOf(CDBConn* conn) {
  return BoundedQueue<DB_REPAIR_ITEM>(&conn->m_dqRepairItems, &conn->m_mutexRepair,
                                      &conn->m_condRepair, kMaintainQueue);
}

// What tells the two workers apart: their flags, the name and number of
// their threads, what the thread runs, how a stop request wakes them, and
// the end of their stop handshake.
//
// The stop handshake both share: a worker is stopped only when it was
// started and runs; its stop flag is set, it is woken (a stop item on the
// execution queue, a wake item on the maintenance queue), and its running
// flag is looked at up to 51 times, with a 100 ms sleep after each look that
// finds it still running. The two differ in the end of the wait: the
// execution worker's handshake looks once more after the 51st sleep and logs
// the time-out only if the worker still runs; the maintenance worker's logs
// it after the 51st sleep without looking again. Either way the started flag
// is cleared and the result is 0.
struct Worker {
  int CDBConn::*started;
  int CDBConn::*stop;
  int CDBConn::*running;
  const char* namePattern;  // thread name, numbered from *threadCounter
  int* threadCounter;
  void (*body)(CDBConn* conn);
  void (*wake)(CDBConn* conn);
  bool looksAfterLastSleep;
  const char* timeOutText;  // logged (error level) when the wait gives up
};

// The execution worker's thread runs the hook a connection kind set.
void RunExecHook(CDBConn* conn) {
  if (conn->m_pfnExecThread != nullptr) conn->m_pfnExecThread(conn->m_pExecThreadArg);
}

void WakeExecWorker(CDBConn* conn) {
  if (conn->m_pfnStopExecThread != nullptr) {
    conn->m_pfnStopExecThread(conn->m_pStopExecThreadArg);
  }
}

// The maintenance worker's loop: one request at a time until the stop flag
// or an exit request; a quiet wait calls BackUpDB.
void RunMaintenanceLoop(CDBConn* conn) {
  while (ReadFlag(conn->m_bMaintainThreadStop) == 0) {
    DB_REPAIR_ITEM item;
    ZeroFill(&item, kModule);
    if (conn->WaitMaintainDBCmd(item) != 0) {
      conn->BackUpDB();
      continue;
    }
    if (item.enCmdType == DB_REPAIR_CMD_WAKE) continue;
    if (item.enCmdType == DB_REPAIR_CMD_EXIT) break;
    conn->PauseConnection();
    if (item.enCmdType == DB_REPAIR_CMD_REPAIR) {
      conn->RepairDB();
    } else if (item.enCmdType == DB_REPAIR_CMD_RESTORE) {
      conn->RestoreDB();
    }
    conn->ResumeConnection();
  }
}

void WakeMaintenanceWorker(CDBConn* conn) {
  DB_REPAIR_ITEM wake;
  ZeroFill(&wake, kModule);
  wake.enCmdType = DB_REPAIR_CMD_WAKE;
  conn->NotifyMaintainDBCmd(wake);
}

constexpr Worker kExecWorker{&CDBConn::m_bExecThreadStarted,
                             &CDBConn::m_bExecThreadStop,
                             &CDBConn::m_bExecThreadRunning,
                             "db_exec_%d",
                             &g_execThreadIndex,
                             &RunExecHook,
                             &WakeExecWorker,
                             true,
                             "ExecThread time out!"};
constexpr Worker kMaintenanceWorker{&CDBConn::m_bMaintainThreadStarted,
                                    &CDBConn::m_bMaintainThreadStop,
                                    &CDBConn::m_bMaintainThreadRunning,
                                    "db_maintain_%d",
                                    &g_maintainThreadIndex,
                                    &RunMaintenanceLoop,
                                    &WakeMaintenanceWorker,
                                    false,
                                    "MaintenanceThread stop time out!"};

// Configures a worker: prepares its thread attributes and clears its stop
// flag. Creates no thread.
long long StartWorker(CDBConn* conn, const Worker& worker) {
  PrepareWorkerAttributes();
  WriteFlag(conn->*worker.stop, 0);
  return 0;
}

// The thread entry of a worker on `conn` (a CDBConn, or null).
void* RunWorkerThread(void* conn, const Worker& worker) {
  SetUpWorkerThread(worker.namePattern, worker.threadCounter);
  if (conn == nullptr) return nullptr;
  auto* self = static_cast<CDBConn*>(conn);
  WriteFlag(self->*worker.running, 1);
  worker.body(self);
  WriteFlag(self->*worker.running, 0);
  return nullptr;
}

// Waits for `running` to leave 1 as the handshake above says. True when a
// look found the worker stopped.
bool WaitForWorkerEnd(const int& running, bool looksAfterLastSleep) {
  for (int round = 0; round < kStopWaitRounds; ++round) {
    if (ReadFlag(running) != 1) return true;
    CurrentEnv().SleepMs(kStopWaitStepMs);
  }
  return looksAfterLastSleep && ReadFlag(running) != 1;
}

long long StopWorker(CDBConn* conn, const Worker& worker) {
  int& started = conn->*worker.started;
  if (ReadFlag(started) == 0 || ReadFlag(conn->*worker.running) == 0) return 0;
  WriteFlag(conn->*worker.stop, 1);
  worker.wake(conn);
  if (!WaitForWorkerEnd(conn->*worker.running, worker.looksAfterLastSleep)) {
    RECORD_LOG(kModule, kLogError, "%s", worker.timeOutText);
  }
  WriteFlag(started, 0);
  return 0;
}

}  // namespace

CDBConn::CDBConn()
    : m_iReserved(0),
      m_enDBStatus(0),
      m_strInstallPath(),
      m_szEncryptKey(),
      m_bExecThreadStarted(0),
      m_bExecThreadStop(1),
      m_bExecThreadRunning(0),
      m_pfnExecThread(nullptr),
      m_pExecThreadArg(nullptr),
      m_pfnStopExecThread(nullptr),
      m_pStopExecThreadArg(nullptr),
      m_mutexConn(),
      m_bMaintainThreadStarted(0),
      m_bMaintainThreadStop(1),
      m_bMaintainThreadRunning(0),
      m_dqRepairItems(),
      m_mutexRepair(),
      m_condRepair() {
  m_mutexConn.Init();
  pthread_mutex_init(&m_mutexRepair, nullptr);
  pthread_cond_init(&m_condRepair, nullptr);
  StartMaintenanceThread();
}

CDBConn::~CDBConn() {
  memset_s(m_szEncryptKey, sizeof(m_szEncryptKey), 0, sizeof(m_szEncryptKey));
  StopExecThread();
  StopMaintenanceThread();
  // m_mutexRepair and m_condRepair are left as they are: a maintenance
  // worker that outlived its stop handshake may still wait on them.
}

long long CDBConn::ReEncryptDB(const char* /*szEncryptKey*/, unsigned int /*uiKeyLen*/) {
  return 0;
}

long long CDBConn::SetEncryptKey(char* szEncryptKey, unsigned int uiKeyLen) {
  // Checked before copying so that a refused key leaves the old one intact.
  if (szEncryptKey == nullptr) return EINVAL;
  if (uiKeyLen > sizeof(m_szEncryptKey)) return ERANGE;
  return memcpy_s(m_szEncryptKey, sizeof(m_szEncryptKey), szEncryptKey, uiKeyLen);
}

long long CDBConn::StartExecThread() { return StartWorker(this, kExecWorker); }

long long CDBConn::StopExecThread() { return StopWorker(this, kExecWorker); }

void* CDBConn::ExecThreadFun(void* conn) { return RunWorkerThread(conn, kExecWorker); }

long long CDBConn::StartMaintenanceThread() { return StartWorker(this, kMaintenanceWorker); }

long long CDBConn::StopMaintenanceThread() { return StopWorker(this, kMaintenanceWorker); }

void* CDBConn::MaintenanceThreadFun(void* conn) {
  return RunWorkerThread(conn, kMaintenanceWorker);
}

long long CDBConn::NotifyMaintainDBCmd(const DB_REPAIR_ITEM& item) {
  return MaintainQueueOf(this).Push(item);
}

long long CDBConn::WaitMaintainDBCmd(DB_REPAIR_ITEM& item) {
  return MaintainQueueOf(this).Pop(&item);
}

long long CDBConn::CheckInstallPath() {
  if (RecordDirAccess(m_strInstallPath.c_str()) == 0) return 0;
  if (CurrentEnv().MakeDirectory(m_strInstallPath.c_str(), kInstallDirMode) == 0) return 0;
  RECORD_LOG(kModule, kLogError, "mkdir %s failed: %d", m_strInstallPath.c_str(), errno);
  return DB_ERR_OPEN;
}

long long CDBConn::RecordDirAccess(const char* path) {
  return CurrentEnv().CheckDirectory(path);
}
