// Entry point of the camera event recorder example: reads the options and
// the optional data directory argument and runs one recording session (see
// Recorder.h).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Recorder.h"

namespace {

void PrintUsage(const char* program) {
  std::printf(
      "usage: %s [--events N] [DATA_DIRECTORY]\n"
      "Records N (default 4000) camera alarm events into an encrypted ipc_db\n"
      "database in DATA_DIRECTORY (default ./ipc_db_data, created when missing),\n"
      "queries, updates, prunes, migrates, re-keys and compacts it, and prints a\n"
      "report. Run it again to continue with the data the last run left.\n",
      program);
}

// Fills `options` from the command line. Returns -1 to go on, else the exit
// status to end with.
int ParseArguments(int argc, char** argv, recorder::RecorderOptions* options) {
  bool have_directory = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
      PrintUsage(argv[0]);
      return 0;
    }
    if (std::strcmp(argv[i], "--events") == 0 && i + 1 < argc) {
      char* end = nullptr;
      long events = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || events < 1 || events > 1000000) {
        std::fprintf(stderr, "--events takes a number from 1 to 1000000\n");
        return 2;
      }
      options->events_per_run = static_cast<int>(events);
    } else if (!have_directory && argv[i][0] != '-') {
      options->directory = argv[i];
      have_directory = true;
    } else {
      PrintUsage(argv[0]);
      return 2;
    }
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  recorder::RecorderOptions options;
  int status = ParseArguments(argc, argv, &options);
  if (status >= 0) return status;
  recorder::Recorder recorder(options);
  return recorder.Run();
}
