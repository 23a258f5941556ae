// CSMutex: a thin, non-recursive wrapper over a POSIX mutex that reports
// failures as results instead of aborting.
#ifndef IPC_DB_STORAGE_MUTEX_H_
#define IPC_DB_STORAGE_MUTEX_H_

#include <pthread.h>

#include "ipc_db_export.h"

// Clang's thread-safety analysis (-Wthread-safety) sees a CSMutex as a lock:
// Lock() holds it when it returns 0, Unlock() releases it. Other compilers
// see nothing. The attributes change neither the layout of the class nor
// any symbol.
#if defined(__clang__)
#define IPC_DB_LOCK_ATTRIBUTE(x) __attribute__((x))
#else
#define IPC_DB_LOCK_ATTRIBUTE(x)
#endif

class IPC_DB_API IPC_DB_LOCK_ATTRIBUTE(capability("mutex")) CSMutex {
 public:
  // Leaves the mutex uninitialised (m_bInit 0); call Init() before use.
  CSMutex();
  // Destroys the mutex if Init() succeeded. REQUIRES: not locked.
  ~CSMutex();

  CSMutex(const CSMutex&) = delete;
  CSMutex& operator=(const CSMutex&) = delete;

  // Initialises the mutex with default attributes. Returns 0 on success or
  // when already initialised (no re-initialisation); -1 with the error
  // "RECORD: pthread_mutex_init failed" logged.
  long long Init();
  // Locks. Returns 0; -1 without a log when never initialised; -1 with
  // "RECORD: pthread_mutex_lock failed" when the lock call fails. Locking
  // twice from one thread blocks (the mutex is not recursive).
  long long Lock() IPC_DB_LOCK_ATTRIBUTE(try_acquire_capability(0));
  // Unlocks. Returns 0; -1 without a log when never initialised; -1 with
  // "RECORD: pthread_mutex_unlock failed" when the unlock call fails.
  long long Unlock() IPC_DB_LOCK_ATTRIBUTE(release_capability());

  pthread_mutex_t m_mutex;
  int m_bInit;  // 1 once m_mutex is initialised
};

#endif  // IPC_DB_STORAGE_MUTEX_H_
