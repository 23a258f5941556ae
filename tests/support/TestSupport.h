// Shared test helpers: a log capture through the host log sink, an SQL
// capture through sqlite3_trace_v2 on a connection's handle, per-test
// temporary directories, and small file and process helpers.
#ifndef IPC_DB_TESTS_SUPPORT_TESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_TESTSUPPORT_H_

#include <mutex>
#include <string>
#include <vector>

struct sqlite3;

namespace ipc_db_test {

// One log entry as the sink received it.
struct LogEntry {
  unsigned int module;
  unsigned int level;
  unsigned int debugFlag;
  std::string file;
  unsigned int line;
  std::string text;
};

// Installs itself as the log sink for its lifetime and records every entry.
// The previous sink is the default one again afterwards.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogEntry> Entries() const;
  void Clear();
  // Entries whose text equals `text` exactly.
  std::vector<LogEntry> WithText(const std::string& text) const;
  // Number of entries whose text equals `text` exactly.
  size_t Count(const std::string& text) const;
  // Number of entries at `level`.
  size_t CountAtLevel(unsigned int level) const;
  // True when some entry's text contains `fragment`.
  bool Contains(const std::string& fragment) const;
  // Every entry's text, one per line (for failure messages).
  std::string Dump() const;

 private:
  static void Sink(void* user, unsigned int module, unsigned int level,
                   unsigned int debugFlag, const char* file, unsigned int line,
                   const char* text);
  mutable std::mutex mutex_;
  std::vector<LogEntry> entries_;
};

// Asserts (gtest) that exactly one entry has `text`, and that it came at
// `level` from module 4 and `file`.
void ExpectLoggedOnce(const LogCapture& log, unsigned int level,
                      const std::string& file, const std::string& text);

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

// A fresh directory under the system temp folder, removed with everything
// in it when the object goes away. Path() ends with "/".
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

// Whole contents of a file ("" when it cannot be read).
std::string ReadFileBytes(const std::string& path);
// Permission bits of a file, or -1 when it does not exist.
int FileMode(const std::string& path);
bool FileExists(const std::string& path);
// Runs `command` through /bin/sh, returns its exit status and puts its
// standard output (and error, merged) into `output`.
int RunCommand(const std::string& command, std::string* output);
// A 64-character key made of `seed` repeated.
std::string MakeKey(char seed);
// Path of the repair tool compiled into the library under test.
const char* RepairToolPath();
// True when the library's repair tool is the build tree's test wrapper.
bool RepairToolIsTestWrapper();

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_TESTSUPPORT_H_
