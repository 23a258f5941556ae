// The SQL capture: a SQLITE_TRACE_STMT callback that appends each
// statement's text under a mutex.
#include "SqlCapture.h"

#include <sqlcipher/sqlite3.h>

namespace ipc_db_test {

SqlCapture::SqlCapture(sqlite3* db) : db_(db) {
  sqlite3_trace_v2(db_, SQLITE_TRACE_STMT, &SqlCapture::Trace, this);
}

SqlCapture::~SqlCapture() { Detach(); }

void SqlCapture::Detach() {
  if (db_ != nullptr) sqlite3_trace_v2(db_, 0, nullptr, nullptr);
  db_ = nullptr;
}

int SqlCapture::Trace(unsigned int type, void* ctx, void*, void* x) {
  if (type != SQLITE_TRACE_STMT || x == nullptr) return 0;
  auto* self = static_cast<SqlCapture*>(ctx);
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->statements_.emplace_back(static_cast<const char*>(x));
  return 0;
}

std::vector<std::string> SqlCapture::Statements() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return statements_;
}

void SqlCapture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  statements_.clear();
}

size_t SqlCapture::Count(const std::string& sql) const {
  size_t count = 0;
  for (const std::string& statement : Statements()) count += statement == sql;
  return count;
}

}  // namespace ipc_db_test
