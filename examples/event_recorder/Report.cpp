// Prints the recorder's report. Standard output is flushed after every line
// so that the library's own messages on stderr appear next to the step that
// caused them.
#include "Report.h"

#include <unistd.h>

#include <cstdarg>
#include <vector>

namespace recorder {

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text;
  if (length > 0) {
    std::vector<char> buffer(static_cast<size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    text.assign(buffer.data(), static_cast<size_t>(length));
  }
  va_end(args);
  return text;
}

Report::Report() : terminal_(isatty(STDOUT_FILENO) == 1) {}

void Report::Title(const std::string& text) {
  std::printf("%s\n\n", text.c_str());
  std::fflush(stdout);
}

void Report::Step(const std::string& label, const std::string& text, double ms) {
  EndProgress();
  ++step_;
  std::string line = Format("%2d  %-20s %s", step_, label.c_str(), text.c_str());
  if (ms >= 0) line += Format("  [%.1f ms]", ms);
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void Report::Detail(const std::string& text) {
  std::printf("    %-20s %s\n", "", text.c_str());
  std::fflush(stdout);
}

void Report::Progress(const std::string& label, unsigned long long done,
                      unsigned long long total) {
  if (!terminal_) return;
  std::printf("\r    %s: %llu/%llu", label.c_str(), done, total);
  std::fflush(stdout);
  progress_shown_ = true;
}

void Report::EndProgress() {
  if (!progress_shown_) return;
  std::printf("\r%-72s\r", "");
  std::fflush(stdout);
  progress_shown_ = false;
}

void Report::Fail(const std::string& label, const std::string& reason) {
  EndProgress();
  std::fflush(stdout);
  std::fprintf(stderr, "FAILED at step %d (%s): %s\n", step_ + 1, label.c_str(),
               reason.c_str());
  std::fflush(stderr);
}

void Report::Plain(const std::string& text) {
  EndProgress();
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

}  // namespace recorder
