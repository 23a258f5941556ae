// The answer of a public call to an allocation failure: the call's body runs
// inside AnswerOutOfMemory, which turns a std::bad_alloc leaving the body
// into the call's ordinary failure value and one error-level log entry, so
// that no public call throws it. Scoped locks and owners release what the
// body held while the exception unwinds; a transaction the body began stays
// as any other failure of the call leaves it. Other exceptions pass through.
#ifndef IPC_DB_SRC_OUTOFMEMORY_H_
#define IPC_DB_SRC_OUTOFMEMORY_H_

#include <new>
#include <utility>

#include "Log.h"

namespace ipc_db::detail {

// Runs `body` and returns its result; on std::bad_alloc calls `log` (the
// layer's one error entry) and returns `failure`.
template <typename Result, typename Log, typename Body>
Result AnswerOutOfMemory(Result failure, Log&& log, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const std::bad_alloc&) {
    std::forward<Log>(log)();
    return failure;
  }
}

// The schema, facade, filter and table calls: "<operation> out of memory.\n"
// through DB_LOG.
template <typename Result, typename Body>
Result DbCall(const char* operation, Result failure, Body&& body) {
  return AnswerOutOfMemory(
      std::move(failure),
      [operation] { DB_LOG(kLogError, "%s out of memory.\n", operation); },
      std::forward<Body>(body));
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_OUTOFMEMORY_H_
