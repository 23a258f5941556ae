// Host implementation of the logging library: formats each entry once and
// hands it to the installed sink under one process-wide lock, so that sinks
// see whole entries in a single order even when many threads log at once.
#include "zb_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex g_sinkMutex;
ZB_LogSink g_sink = nullptr;
void* g_sinkUser = nullptr;
unsigned int g_debugEnable = 0;

// Levels 2 (warning) and 3 (error) are printed; debug and information are
// dropped.
void DefaultSink(void*, unsigned int module, unsigned int level, unsigned int,
                 const char* file, unsigned int line, const char* text) {
  if (level < 2) return;
  std::fprintf(stderr, "[%u][%s] %s:%u %s\n", module,
               level == 2 ? "WARN" : "ERROR", file ? file : "?", line, text);
}

// Formats into a stack buffer and falls back to the heap for long entries.
int FormatAndDeliver(unsigned int module, unsigned int level,
                     unsigned int debugFlag, const char* file,
                     unsigned int line, const char* format, va_list args) {
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int length = std::vsnprintf(small, sizeof(small), format, copy);
  va_end(copy);
  if (length < 0) return -1;
  const char* text = small;
  std::vector<char> large;
  if (static_cast<size_t>(length) >= sizeof(small)) {
    large.resize(static_cast<size_t>(length) + 1);
    std::vsnprintf(large.data(), large.size(), format, args);
    text = large.data();
  }
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  if (g_sink != nullptr) {
    g_sink(g_sinkUser, module, level, debugFlag, file, line, text);
  } else {
    DefaultSink(nullptr, module, level, debugFlag, file, line, text);
  }
  return length;
}

// True when the entry would be dropped unseen, so formatting can be skipped.
bool DroppedByDefaultSink(unsigned int level) {
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  return g_sink == nullptr && level < 2;
}

}  // namespace

extern "C" {

int ZB_WriteLog(unsigned int module, unsigned int level, unsigned int debugFlag,
                unsigned int /*reserved*/, const char* file, unsigned int line,
                const char* format, ...) {
  if (format == nullptr) return -1;
  if (DroppedByDefaultSink(level)) return 0;
  va_list args;
  va_start(args, format);
  int result = FormatAndDeliver(module, level, debugFlag, file, line, format, args);
  va_end(args);
  return result;
}

unsigned int Log_GetLogDebugEnable(void) {
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  return g_debugEnable;
}

void Log_SetLogDebugEnable(unsigned int flag) {
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  g_debugEnable = flag;
}

void ZB_SetLogSink(ZB_LogSink sink, void* user) {
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  g_sink = sink;
  g_sinkUser = user;
}

}  // extern "C"
