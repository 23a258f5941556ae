// Log capture for the tests: installs itself as the host log sink and
// records every entry, so that a test can check exact log texts, levels and
// source files.
#ifndef IPC_DB_TESTS_SUPPORT_LOGCAPTURE_H_
#define IPC_DB_TESTS_SUPPORT_LOGCAPTURE_H_

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

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
void ExpectLoggedOnce(const LogCapture& log, unsigned int level, const std::string& file,
                      const std::string& text);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_LOGCAPTURE_H_
