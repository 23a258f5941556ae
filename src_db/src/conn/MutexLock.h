// Scope classes for the library's locks: MutexLock holds a CSMutex (the
// connection mutex), PosixMutexLock a queue's pthread mutex. Each locks in
// its constructor and unlocks in its destructor, so that no return path can
// leave a mutex held. Every lock the library takes goes through one of them.
#ifndef IPC_DB_SRC_CONN_MUTEXLOCK_H_
#define IPC_DB_SRC_CONN_MUTEXLOCK_H_

#include <pthread.h>

#include "StorageMutex.h"

namespace ipc_db::detail {

// Holds `*mutex` from construction to the end of the scope. The unlock runs
// whatever Lock() returned, as CSMutex reports (and logs) both itself.
class MutexLock {
 public:
  explicit MutexLock(CSMutex* mutex) : mutex_(mutex) { mutex_->Lock(); }
  ~MutexLock() {
    if (mutex_ != nullptr) mutex_->Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Leaves the mutex locked when the scope ends. Only for a state in which
  // the holder must keep every later taker of the mutex out for good.
  void KeepLocked() { mutex_ = nullptr; }

 private:
  CSMutex* mutex_;
};

// Holds the pthread mutex `*mutex` from construction to the end of the
// scope. native() is the mutex for a condition wait inside the scope.
class PosixMutexLock {
 public:
  explicit PosixMutexLock(pthread_mutex_t* mutex) : mutex_(mutex) {
    pthread_mutex_lock(mutex_);
  }
  ~PosixMutexLock() { pthread_mutex_unlock(mutex_); }
  PosixMutexLock(const PosixMutexLock&) = delete;
  PosixMutexLock& operator=(const PosixMutexLock&) = delete;

  pthread_mutex_t* native() const { return mutex_; }

 private:
  pthread_mutex_t* mutex_;
};

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_CONN_MUTEXLOCK_H_
