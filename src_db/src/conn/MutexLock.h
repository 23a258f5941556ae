// Scope classes for the library's locks: MutexLock holds a CSMutex (the
// connection mutex), PosixMutexLock a queue's pthread mutex through
// QueueMutex. Each locks in its constructor and unlocks in its destructor,
// so that no return path can leave a mutex held. Every lock the library
// takes goes through one of them, and clang's thread-safety analysis knows
// them as scoped locks (base/ThreadAnnotations.h).
#ifndef IPC_DB_SRC_CONN_MUTEXLOCK_H_
#define IPC_DB_SRC_CONN_MUTEXLOCK_H_

#include <pthread.h>

#include "StorageMutex.h"
#include "base/ThreadAnnotations.h"

namespace ipc_db::detail {

// Holds `*mutex` from construction to the end of the scope. The unlock runs
// whatever Lock() returned, as CSMutex reports (and logs) both itself.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(CSMutex* mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_->Lock(); }
  ~MutexLock() RELEASE() {
    if (mutex_ != nullptr) mutex_->Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Leaves the mutex locked when the scope ends. Only for a state in which
  // the holder must keep every later taker of the mutex out for good. The
  // analysis cannot follow this (it takes the destructor's release as
  // given), so a function that calls it is left out of the analysis.
  void KeepLocked() { mutex_ = nullptr; }

 private:
  CSMutex* mutex_;
};

// A queue's pthread mutex (a member of the connection, not owned here) as
// a lock the analysis can name, so that the queue's storage can be marked
// as guarded by it. Lock and Unlock are the pthread calls themselves, which
// the analysis does not know; they are where it starts to trust.
class CAPABILITY("mutex") QueueMutex {
 public:
  explicit QueueMutex(pthread_mutex_t* mutex) : mutex_(mutex) {}

  void Lock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS { pthread_mutex_lock(mutex_); }
  void Unlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS { pthread_mutex_unlock(mutex_); }
  // The mutex itself, for a condition wait while it is held.
  pthread_mutex_t* native() const { return mutex_; }

 private:
  pthread_mutex_t* mutex_;
};

// Holds `*mutex` from construction to the end of the scope.
class SCOPED_CAPABILITY PosixMutexLock {
 public:
  explicit PosixMutexLock(QueueMutex* mutex) ACQUIRE(mutex) : mutex_(mutex) {
    mutex_->Lock();
  }
  ~PosixMutexLock() RELEASE() { mutex_->Unlock(); }
  PosixMutexLock(const PosixMutexLock&) = delete;
  PosixMutexLock& operator=(const PosixMutexLock&) = delete;

 private:
  QueueMutex* mutex_;
};

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_CONN_MUTEXLOCK_H_
