// The bounded queue behind both worker queues of a connection: the
// execution queue of CSqliteDBConn and the maintenance queue of CDBConn.
// BoundedQueue does not own its storage; it works on the deque, mutex and
// condition variable that the connection classes hold as members, with the
// limit, the wait and the full-queue answer given by QueueSettings. The
// helpers that every queue user needs (zero-filling an item, a deadline for
// the timed wait) live here too.
#ifndef IPC_DB_SRC_CONN_BOUNDEDQUEUE_H_
#define IPC_DB_SRC_CONN_BOUNDEDQUEUE_H_

#include <pthread.h>
#include <time.h>

#include <cstddef>
#include <deque>

#include "DBTypes.h"
#include "base/Env.h"
#include "base/Log.h"
#include "base/ThreadAnnotations.h"
#include "bounded_mem.h"
#include "conn/MutexLock.h"

namespace ipc_db::detail {

// Time of day `seconds` from now on the environment's clock, in
// microseconds, for the environment's timed condition wait.
inline unsigned long long DeadlineAfter(time_t seconds) {
  return CurrentEnv().NowMicros() + static_cast<unsigned long long>(seconds) * 1000000ULL;
}

// Zeroes `*item`, logging under `module` (and going on) if the bounded set
// fails.
template <typename Item>
void ZeroFill(Item* item, const char* module) {
  int result = memset_s(item, sizeof(*item), 0, sizeof(*item));
  if (result != 0) {
    RECORD_LOG(module, kLogError, "memset fail! error code is %d\n", result);
  }
}

// What distinguishes one queue from the other.
struct QueueSettings {
  size_t limit;          // Push refuses an item while this many are queued
  time_t waitSeconds;    // Pop waits once, this long, for an empty queue
  const char* module;    // module path of the log entries
  const char* fullText;  // logged (error level) when Push refuses an item
  long long fullResult;  // Push's result for a refused item
};

// A view over one queue's members. Push and Pop take the queue's mutex
// through PosixMutexLock for their whole run; the analysis checks that the
// items are touched only inside it.
template <typename Item>
class BoundedQueue {
 public:
  BoundedQueue(std::deque<Item>* items, pthread_mutex_t* mutex, pthread_cond_t* ready,
               const QueueSettings& settings)
      : mutex_(mutex), items_(items), ready_(ready), settings_(settings) {}

  // Appends a copy of `item` and wakes one waiter. 0, or
  // settings.fullResult (with settings.fullText logged) when the queue
  // holds settings.limit items; the item is then dropped.
  long long Push(const Item& item) {
    PosixMutexLock lock(&mutex_);
    if (items_->size() >= settings_.limit) {
      RECORD_LOG(settings_.module, kLogError, "%s", settings_.fullText);
      return settings_.fullResult;
    }
    items_->push_back(item);
    pthread_cond_signal(ready_);
    return 0;
  }

  // Moves the oldest item into `*item`. An empty queue is waited on once,
  // for up to settings.waitSeconds; DB_ERR_WAIT_TIMEOUT when the wait ends
  // (by time-out or a wake-up) with the queue still empty.
  long long Pop(Item* item) {
    PosixMutexLock lock(&mutex_);
    if (items_->empty()) {
      int waited = WaitOnce();
      if (waited != 0 || items_->empty()) return DB_ERR_WAIT_TIMEOUT;
    }
    *item = items_->front();
    items_->pop_front();
    return 0;
  }

 private:
  // One wait on the condition, up to settings.waitSeconds on the
  // environment's clock; releases the mutex while it waits. 0 when woken,
  // ETIMEDOUT at the deadline (the environment's WaitForSignal).
  int WaitOnce() REQUIRES(mutex_) {
    return CurrentEnv().WaitForSignal(ready_, mutex_.native(),
                                      DeadlineAfter(settings_.waitSeconds));
  }

  QueueMutex mutex_;
  std::deque<Item>* items_ PT_GUARDED_BY(mutex_);
  pthread_cond_t* ready_;  // signalled by Push, waited on by Pop, with mutex_ held
  QueueSettings settings_;
};

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_CONN_BOUNDEDQUEUE_H_
