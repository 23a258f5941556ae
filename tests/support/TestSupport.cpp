// Implementation of the shared test helpers.
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "zb_log.h"

namespace ipc_db_test {

LogCapture::LogCapture() { ZB_SetLogSink(&LogCapture::Sink, this); }

LogCapture::~LogCapture() { ZB_SetLogSink(nullptr, nullptr); }

void LogCapture::Sink(void* user, unsigned int module, unsigned int level,
                      unsigned int debugFlag, const char* file,
                      unsigned int line, const char* text) {
  auto* self = static_cast<LogCapture*>(user);
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->entries_.push_back(
      LogEntry{module, level, debugFlag, file ? file : "", line, text ? text : ""});
}

std::vector<LogEntry> LogCapture::Entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

std::vector<LogEntry> LogCapture::WithText(const std::string& text) const {
  std::vector<LogEntry> found;
  for (const LogEntry& entry : Entries()) {
    if (entry.text == text) found.push_back(entry);
  }
  return found;
}

size_t LogCapture::Count(const std::string& text) const {
  return WithText(text).size();
}

size_t LogCapture::CountAtLevel(unsigned int level) const {
  size_t count = 0;
  for (const LogEntry& entry : Entries()) count += entry.level == level ? 1 : 0;
  return count;
}

bool LogCapture::Contains(const std::string& fragment) const {
  for (const LogEntry& entry : Entries()) {
    if (entry.text.find(fragment) != std::string::npos) return true;
  }
  return false;
}

std::string LogCapture::Dump() const {
  std::ostringstream out;
  for (const LogEntry& entry : Entries()) {
    out << "[" << entry.level << "] " << entry.file << ":" << entry.line << " "
        << entry.text << "\n";
  }
  return out.str();
}

void ExpectLoggedOnce(const LogCapture& log, unsigned int level,
                      const std::string& file, const std::string& text) {
  std::vector<LogEntry> found = log.WithText(text);
  ASSERT_EQ(found.size(), 1u) << "entry \"" << text << "\" in:\n" << log.Dump();
  EXPECT_EQ(found[0].level, level) << text;
  EXPECT_EQ(found[0].module, 4u) << text;
  EXPECT_EQ(found[0].file, file) << text;
}

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

TempDir::TempDir() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "ipc_db_test.XXXXXX").string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed";
    path_ = "/nonexistent/";
    return;
  }
  path_ = std::string(buffer.data()) + "/";
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

int FileMode(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return -1;
  return static_cast<int>(info.st_mode & 07777);
}

bool FileExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

int RunCommand(const std::string& command, std::string* output) {
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  std::string text;
  char buffer[4096];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, got);
  int status = pclose(pipe);
  if (output != nullptr) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string MakeKey(char seed) { return std::string(64, seed); }

const char* RepairToolPath() { return IPC_DB_TEST_REPAIR_TOOL; }

bool RepairToolIsTestWrapper() {
  return std::string(IPC_DB_TEST_REPAIR_TOOL) == IPC_DB_TEST_WRAPPER_PATH;
}

}  // namespace ipc_db_test
