// The answer of a public call to an allocation failure: a std::bad_alloc
// leaving the call's body becomes the call's ordinary failure value and one
// error-level log entry, so that no public call throws it. The connection
// layer runs a body inside AnswerOutOfMemory; the schema, facade, filter and
// table calls are function-try-blocks whose handler returns DbOutOfMemory.
// Scoped locks and owners release what the body held while the exception
// unwinds; a transaction the body began stays as any other failure of the
// call leaves it. Other exceptions pass through.
#ifndef IPC_DB_SRC_BASE_OUTOFMEMORY_H_
#define IPC_DB_SRC_BASE_OUTOFMEMORY_H_

#include <new>
#include <utility>

#include "base/Log.h"

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

// The handler of a schema, facade, filter or table call: logs "<operation>
// out of memory.\n" through DB_LOG and returns `failure`. Each such call
// keeps its body at method level:
//
//   long long Table::table_vacuum() try {
//     ...
//   } catch (const std::bad_alloc&) {
//     return DbOutOfMemory("Table::table_vacuum", -1LL);
//   }
template <typename Result>
Result DbOutOfMemory(const char* operation, Result failure) {
  DB_LOG(kLogError, "%s out of memory.\n", operation);
  return failure;
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_BASE_OUTOFMEMORY_H_
