// Entry point of the camera event recorder example: reads the optional data
// directory argument and runs one recording session (see Recorder.h).
#include <cstdio>
#include <cstring>

#include "Recorder.h"

namespace {

void PrintUsage(const char* program) {
  std::printf(
      "usage: %s [DATA_DIRECTORY]\n"
      "Records camera alarm events into an encrypted ipc_db database in\n"
      "DATA_DIRECTORY (default ./ipc_db_data, created when missing), queries,\n"
      "updates, prunes, migrates, re-keys and compacts it, and prints a report.\n"
      "Run it again to continue with the data the last run left.\n",
      program);
}

}  // namespace

int main(int argc, char** argv) {
  recorder::RecorderOptions options;
  if (argc > 2) {
    PrintUsage(argv[0]);
    return 2;
  }
  if (argc == 2) {
    if (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0) {
      PrintUsage(argv[0]);
      return 0;
    }
    options.directory = argv[1];
  }
  recorder::Recorder recorder(options);
  return recorder.Run();
}
