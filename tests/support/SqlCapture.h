// SQL capture for the tests: the exact text of every statement a
// connection's handle starts running, through sqlite3_trace_v2.
#ifndef IPC_DB_TESTS_SUPPORT_SQLCAPTURE_H_
#define IPC_DB_TESTS_SUPPORT_SQLCAPTURE_H_

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

struct sqlite3;

namespace ipc_db_test {

// Records the text of every statement that starts running on `db`
// (sqlite3_trace_v2, SQLITE_TRACE_STMT). Detaches in its destructor.
// REQUIRES: `db` stays open while the capture lives.
class SqlCapture {
 public:
  explicit SqlCapture(sqlite3* db);
  ~SqlCapture();
  SqlCapture(const SqlCapture&) = delete;
  SqlCapture& operator=(const SqlCapture&) = delete;

  std::vector<std::string> Statements() const;
  void Clear();
  size_t Count(const std::string& sql) const;
  // Stops recording and lets go of the handle, keeping what was recorded.
  // Call it before the handle is closed when the capture lives on.
  void Detach();

 private:
  static int Trace(unsigned int type, void* ctx, void* p, void* x);
  sqlite3* db_;
  mutable std::mutex mutex_;
  std::vector<std::string> statements_;
};

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_SQLCAPTURE_H_
