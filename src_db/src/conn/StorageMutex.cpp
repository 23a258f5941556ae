// CSMutex: a non-recursive POSIX mutex that reports failures as -1 results
// with a log entry, and refuses to lock or unlock before Init().
#include "StorageMutex.h"

#include "base/Log.h"

namespace {

constexpr const char* kModule = ipc_db::detail::kLogModuleStorageMutex;
using ipc_db::detail::kLogError;

// Runs the pthread call `call` on the mutex of `mutex`: -1 without a log
// before Init, -1 with "RECORD: <name> failed" when the call fails, else 0.
long long CallInitialised(CSMutex* mutex, int (*call)(pthread_mutex_t*), const char* name) {
  if (mutex->m_bInit == 0) return -1;
  if (call(&mutex->m_mutex) != 0) {
    RECORD_LOG(kModule, kLogError, "%s failed", name);
    return -1;
  }
  return 0;
}

}  // namespace

CSMutex::CSMutex() : m_mutex(), m_bInit(0) {}

CSMutex::~CSMutex() {
  if (m_bInit == 1) pthread_mutex_destroy(&m_mutex);
}

long long CSMutex::Init() {
  if (m_bInit == 1) return 0;
  if (pthread_mutex_init(&m_mutex, nullptr) != 0) {
    RECORD_LOG(kModule, kLogError, "pthread_mutex_init failed");
    return -1;
  }
  m_bInit = 1;
  return 0;
}

long long CSMutex::Lock() {
  return CallInitialised(this, &pthread_mutex_lock, "pthread_mutex_lock");
}

long long CSMutex::Unlock() {
  return CallInitialised(this, &pthread_mutex_unlock, "pthread_mutex_unlock");
}
