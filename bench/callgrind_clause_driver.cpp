// Renders the five-term filter clause of filter_text_bench N times for
// callgrind, by the library's clause builder or by snprintf:
//   callgrind_clause_driver filter_clause/library|filter_clause/raw <N>
// One warm-up rendering comes first; the measured renderings are the call
// of MeasuredSection, which bench/callgrind collects alone. Links the
// library's objects, as the clause builder is internal.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "FilterClause.h"

using namespace ipc_db_bench;

extern "C" __attribute__((noinline)) bool MeasuredSection(
    const std::function<bool()>* run) {
  return (*run)();
}

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s filter_clause/library|filter_clause/raw <N>\n",
                 argv[0]);
    return 2;
  }
  std::string name = argv[1];
  size_t count = std::strtoul(argv[2], nullptr, 10);
  if (count == 0 || (name != "filter_clause/library" && name != "filter_clause/raw")) {
    std::fprintf(stderr, "bad case or N: %s %s\n", argv[1], argv[2]);
    return 2;
  }
  BenchSchema schema;
  FiveTerms terms(&schema);
  std::function<bool()> run;
  if (name == "filter_clause/library") {
    run = [&] {
      for (size_t i = 0; i < count; ++i) {
        std::string clause;
        if (!LibraryClause(&terms, &clause)) return false;
      }
      return true;
    };
  } else {
    run = [&] {
      char buffer[256];
      for (size_t i = 0; i < count; ++i) {
        if (RawClause(buffer, sizeof(buffer)) < 0) return false;
      }
      return true;
    };
  }
  std::string warmUp;
  if (!LibraryClause(&terms, &warmUp) || !MeasuredSection(&run)) {
    std::fprintf(stderr, "%s failed\n", argv[1]);
    return 1;
  }
  std::printf("rows %zu\n", count);
  return 0;
}
