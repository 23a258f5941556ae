// CSMutex: a non-recursive POSIX mutex that reports failures as -1 results
// with a log entry, and refuses to lock or unlock before Init().
#include "StorageMutex.h"

#include "base/Log.h"

namespace {
constexpr const char* kModule = ipc_db::detail::kLogModuleStorageMutex;
}  // namespace

using ipc_db::detail::kLogError;

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
  if (m_bInit == 0) return -1;
  if (pthread_mutex_lock(&m_mutex) != 0) {
    RECORD_LOG(kModule, kLogError, "pthread_mutex_lock failed");
    return -1;
  }
  return 0;
}

long long CSMutex::Unlock() {
  if (m_bInit == 0) return -1;
  if (pthread_mutex_unlock(&m_mutex) != 0) {
    RECORD_LOG(kModule, kLogError, "pthread_mutex_unlock failed");
    return -1;
  }
  return 0;
}
