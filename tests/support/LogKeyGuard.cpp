// Log key guard (see LogKeyGuard.h). It takes the place of ZB_WriteLog,
// sqlite3_key and sqlite3_rekey inside each test executable: the library
// calls them through its dynamic symbol table, so the executable's
// definitions here come first. Each one does its check and then calls the
// real function (found with dlsym(RTLD_NEXT)), so sinks, LogCapture and
// SQLCipher behave exactly as without the guard. A gtest listener clears the
// per-test entry store when a test starts. Failure messages name the entry's
// source and position, never the matching bytes.
#include "LogKeyGuard.h"

#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "FaultVfs.h"
#include "TestResults.h"
#include "zb_log.h"

namespace {

constexpr size_t kWindow = 8;          // key bytes in a run that counts as a leak
constexpr size_t kShortestSecret = 4;  // shorter keys are not looked for
constexpr size_t kStoredEntriesMax = 200000;

struct StoredEntry {
  std::string file;
  unsigned int line;
  std::string text;
};

std::string HexOf(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char byte : bytes) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 0xF];
  }
  return hex;
}

std::string Lowercase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// Runs of key bytes (raw and as lowercase hexadecimal), by their length.
using WindowsByLength = std::map<size_t, std::unordered_set<std::string>>;

class Guard {
 public:
  // Returns the messages of the leaks found in `text` (empty when clean)
  // and keeps the entry for later keys.
  std::vector<std::string> CheckEntry(const char* file, unsigned int line,
                                      const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++checked_;
    std::vector<std::string> leaks;
    FindLeak(StoredEntry{file ? file : "?", line, text}, byLength_, &leaks);
    if (entries_.size() < kStoredEntriesMax) {
      entries_.push_back(StoredEntry{file ? file : "?", line, text});
    }
    return leaks;
  }

  // Adds a key; returns the leaks it reveals among this test's entries.
  std::vector<std::string> AddSecret(const std::string& secret) {
    std::vector<std::string> leaks;
    std::lock_guard<std::mutex> lock(mutex_);
    if (secret.size() < kShortestSecret || !secrets_.insert(secret).second) return leaks;
    WindowsByLength added;
    AddWindows(secret, &added);
    if (added.empty()) return leaks;
    for (const StoredEntry& entry : entries_) FindLeak(entry, added, &leaks);
    return leaks;
  }

  void BeginTest() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
  }

  size_t Checked() {
    std::lock_guard<std::mutex> lock(mutex_);
    return checked_;
  }

  size_t Secrets() {
    std::lock_guard<std::mutex> lock(mutex_);
    return secrets_.size();
  }

 private:
  // Every run of kWindow bytes without a zero byte (the whole key when it is
  // shorter), raw and as lowercase hexadecimal.
  // The runs not known before are also put into `added`.
  void AddWindows(const std::string& secret, WindowsByLength* added) {
    size_t width = secret.size() < kWindow ? secret.size() : kWindow;
    for (size_t start = 0; start + width <= secret.size(); ++start) {
      std::string run = secret.substr(start, width);
      if (run.find('\0') != std::string::npos) continue;
      for (const std::string& form : {run, HexOf(run)}) {
        if (byLength_[form.size()].insert(form).second)
          (*added)[form.size()].insert(form);
      }
    }
  }

  static void FindLeak(const StoredEntry& entry, const WindowsByLength& windows,
                       std::vector<std::string>* leaks) {
    if (windows.empty()) return;
    std::string lower = Lowercase(entry.text);
    for (const auto& [length, runs] : windows) {
      for (size_t at = 0; at + length <= entry.text.size(); ++at) {
        bool raw = runs.count(entry.text.substr(at, length)) != 0;
        bool hex = !raw && runs.count(lower.substr(at, length)) != 0 &&
                   lower.find_first_not_of("0123456789abcdef", at) >= at + length;
        if (raw || hex) {
          char message[256];
          std::snprintf(message, sizeof(message),
                        "log entry from %s:%u holds %zu bytes of a database key (%s, at "
                        "offset %zu of %zu)",
                        entry.file.c_str(), entry.line, raw ? length : length / 2,
                        raw ? "raw" : "hexadecimal", at, entry.text.size());
          leaks->push_back(message);
          return;
        }
      }
    }
  }

  std::mutex mutex_;
  size_t checked_ = 0;
  std::set<std::string> secrets_;
  WindowsByLength byLength_;
  std::vector<StoredEntry> entries_;
};

// Never destroyed: entries may still be written while statics go away.
Guard& TheGuard() {
  static Guard* guard = new Guard;
  return *guard;
}

void Report(const std::vector<std::string>& leaks) {
  for (const std::string& leak : leaks) ADD_FAILURE() << leak;
}

template <typename Function>
Function RealFunction(const char* name) {
  void* symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) {
    std::fprintf(stderr, "LogKeyGuard: %s not found after the test executable\n", name);
    std::abort();
  }
  return reinterpret_cast<Function>(symbol);
}

using WriteLogFunction = int (*)(unsigned int, unsigned int, unsigned int, unsigned int,
                                 const char*, unsigned int, const char*, ...);
using KeyFunction = int (*)(sqlite3*, const void*, int);

std::string Secret(const void* key, int length) {
  if (key == nullptr || length <= 0) return std::string();
  return std::string(static_cast<const char*>(key), static_cast<size_t>(length));
}

class GuardListener : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { TheGuard().BeginTest(); }
  // One result file per test process: results/logguard/<executable>.json,
  // or <executable>.<filter>.json when ctest runs one test per process.
  void OnTestProgramEnd(const testing::UnitTest&) override {
    std::string name = program_invocation_short_name;
    const std::string filter = testing::GTEST_FLAG(filter);
    if (filter != "*") name += "." + filter;
    ipc_db_test::WriteResultJson(
        "logguard", ipc_db_test::ResultName(name),
        ipc_db_test::JsonObject()
            .Add("entries_checked", static_cast<unsigned long long>(TheGuard().Checked()))
            .Add("keys_seen", static_cast<unsigned long long>(TheGuard().Secrets()))
            .Text());
  }
};

[[maybe_unused]] const bool kListenerInstalled = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new GuardListener);
  return true;
}();

}  // namespace

namespace ipc_db_test {

void RegisterSecret(const std::string& secret) { Report(TheGuard().AddSecret(secret)); }

size_t LogEntriesChecked() { return TheGuard().Checked(); }

size_t SecretsKnown() { return TheGuard().Secrets(); }

}  // namespace ipc_db_test

extern "C" {

int ZB_WriteLog(unsigned int module, unsigned int level, unsigned int debugFlag,
                unsigned int reserved, const char* file, unsigned int line,
                const char* format, ...) {
  static const WriteLogFunction real = RealFunction<WriteLogFunction>("ZB_WriteLog");
  // The guard's copy of the entry (and the log it stands in front of) is
  // not the library's memory: an allocation campaign does not fail it.
  ipc_db_test::FaultAllocPause pause;
  if (format == nullptr) return -1;
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length < 0) {
    va_end(args);
    return -1;
  }
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, args);
  va_end(args);
  text.resize(static_cast<size_t>(length));
  Report(TheGuard().CheckEntry(file, line, text));
  return real(module, level, debugFlag, reserved, file, line, "%s", text.c_str());
}

int sqlite3_key(sqlite3* db, const void* pKey, int nKey) {
  static const KeyFunction real = RealFunction<KeyFunction>("sqlite3_key");
  {
    ipc_db_test::FaultAllocPause pause;
    Report(TheGuard().AddSecret(Secret(pKey, nKey)));
  }
  return real(db, pKey, nKey);
}

int sqlite3_rekey(sqlite3* db, const void* pKey, int nKey) {
  static const KeyFunction real = RealFunction<KeyFunction>("sqlite3_rekey");
  {
    ipc_db_test::FaultAllocPause pause;
    Report(TheGuard().AddSecret(Secret(pKey, nKey)));
  }
  return real(db, pKey, nKey);
}

}  // extern "C"
