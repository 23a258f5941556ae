// The log capture: the sink records entries under a mutex, since library
// calls on several threads log at once.
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <sstream>

#include "zb_log.h"

namespace ipc_db_test {

LogCapture::LogCapture() { ZB_SetLogSink(&LogCapture::Sink, this); }

LogCapture::~LogCapture() { ZB_SetLogSink(nullptr, nullptr); }

void LogCapture::Sink(void* user, unsigned int module, unsigned int level,
                      unsigned int debugFlag, const char* file, unsigned int line,
                      const char* text) {
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

size_t LogCapture::Count(const std::string& text) const { return WithText(text).size(); }

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

void ExpectLoggedOnce(const LogCapture& log, unsigned int level, const std::string& file,
                      const std::string& text) {
  std::vector<LogEntry> found = log.WithText(text);
  ASSERT_EQ(found.size(), 1u) << "entry \"" << text << "\" in:\n" << log.Dump();
  EXPECT_EQ(found[0].level, level) << text;
  EXPECT_EQ(found[0].module, 4u) << text;
  EXPECT_EQ(found[0].file, file) << text;
}

}  // namespace ipc_db_test
