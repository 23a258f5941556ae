// The recorder's printed report: one numbered line per step with its figures
// and time taken, indented detail lines, a progress line that rewrites
// itself on a terminal, and failure messages on stderr.
#ifndef IPC_DB_EXAMPLES_EVENT_RECORDER_REPORT_H_
#define IPC_DB_EXAMPLES_EVENT_RECORDER_REPORT_H_

#include <chrono>
#include <cstdio>
#include <string>

namespace recorder {

// printf-style formatting into a std::string.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Milliseconds since construction (or the last Restart).
class Stopwatch {
 public:
  Stopwatch() : start_(std::chrono::steady_clock::now()) {}
  void Restart() { start_ = std::chrono::steady_clock::now(); }
  double Ms() const {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() -
                                                     start_)
        .count();
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

class Report {
 public:
  Report();

  void Title(const std::string& text);
  // "NN  label  text  [t ms]"; a negative `ms` prints no time.
  void Step(const std::string& label, const std::string& text, double ms);
  // An indented line under the last step.
  void Detail(const std::string& text);
  // "  label: done/total" rewritten in place; only on a terminal.
  void Progress(const std::string& label, unsigned long long done,
                unsigned long long total);
  // Clears the progress line.
  void EndProgress();
  // "FAILED at step NN (label): reason" on stderr.
  void Fail(const std::string& label, const std::string& reason);
  // A line outside the numbered steps.
  void Plain(const std::string& text);

 private:
  int step_ = 0;
  bool terminal_;
  bool progress_shown_ = false;
};

}  // namespace recorder

#endif  // IPC_DB_EXAMPLES_EVENT_RECORDER_REPORT_H_
