// Runs one open of an existing file, its first read and its close, for the
// instruction counts of bench/open-cost:
//   open_driver [--setup-only] <case> <rows>
// with <case> one of open_keyed/library, open_keyed/raw (a keyed file),
// open_plain/library, open_plain/raw (an unkeyed file with the same table),
// or check. Setup, not measured: the file, holding the benchmark table with
// <rows> records, made the raw way; then one warm-up run of the same side,
// which pays for the first call of each function (lazy symbol binding,
// one-time set-up in the engine and in libcrypto). The measured run is the
// call of MeasuredSection, which callgrind collects alone
// (--toggle-collect=MeasuredSection), made between the two marks of
// InsnCountMarker.h, between which the qemu-user plugin counts.
// --setup-only leaves out the measured run and keeps the marks: the
// baseline of a whole-process count. Prints one JSON line with the case,
// the rows and the engine's versions.
//
// check compares, on a keyed and on a plain file, the statements both sides
// send (on every connection they open) and the counts they read.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "InsnCountMarker.h"
#include "PairOps.h"

using namespace ipc_db_bench;

// Kept out of line under a plain C name so that callgrind can find it.
extern "C" __attribute__((noinline)) bool MeasuredSection(
    const std::function<bool()>* run) {
  return (*run)();
}

namespace {

struct Versions {
  std::string cipher;
  std::string sqlite;
};

// A file of `rows` records in `dir` (keyed unless PlainFiles()) and the
// engine's versions, read on the same connection.
Versions MakeFile(const std::string& dir, size_t rows) {
  RawDb db(dir);
  RawFill(db.Handle(), MakeRecords(rows));
  Versions versions;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db.Handle(), "PRAGMA cipher_version;", -1, &stmt, nullptr) ==
          SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    versions.cipher = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
  }
  sqlite3_finalize(stmt);
  if (versions.cipher.empty()) Fatal("PRAGMA cipher_version gave nothing");
  versions.sqlite = sqlite3_libversion();
  return versions;
}

// The open, count and close of one side on the file in `dir`.
std::function<bool()> SideRun(const std::string& side, const std::string& dir,
                              BenchSchema* schema, long long* count) {
  bool keyed = !PlainFiles();
  if (side == "library") {
    return [=] { return LibraryOpenCount(dir, &schema->record, keyed, count); };
  }
  return [=] { return RawOpenCount(dir, keyed, count); };
}

int RunCase(const std::string& name, const std::string& side, size_t rows,
            bool setupOnly) {
  BenchSchema schema;
  TempDir dir;
  Versions versions = MakeFile(dir.Path(), rows);
  long long count = -1;
  std::function<bool()> run = SideRun(side, dir.Path(), &schema, &count);
  if (!run()) Fatal(name + ": the warm-up run failed");
  count = -1;
  InsnCountMark(1);
  bool ok = setupOnly || MeasuredSection(&run);
  InsnCountMark(0);
  if (!ok || (!setupOnly && count != static_cast<long long>(rows))) {
    std::fprintf(stderr, "%s: the measured run failed or read %lld rows of %zu\n",
                 name.c_str(), count, rows);
    return 1;
  }
  std::printf(
      "{\"case\": \"%s\", \"rows\": %zu, \"measured\": %s, \"cipher_version\": \"%s\", "
      "\"sqlite_version\": \"%s\"}\n",
      name.c_str(), rows, setupOnly ? "false" : "true", versions.cipher.c_str(),
      versions.sqlite.c_str());
  return 0;
}

// Both sides on one file: the same statements, the same count.
std::string CheckSides(size_t rows) {
  BenchSchema schema;
  TempDir dir;
  MakeFile(dir.Path(), rows);
  long long libraryCount = -1;
  long long rawCount = -1;
  ConnectionTrace trace;
  if (!SideRun("library", dir.Path(), &schema, &libraryCount)())
    return "library run failed";
  std::vector<std::string> library = trace.Take();
  if (!SideRun("raw", dir.Path(), &schema, &rawCount)()) return "raw run failed";
  std::vector<std::string> raw = trace.Take();
  std::string difference = CompareStatements(library, raw);
  if (!difference.empty()) return difference;
  if (libraryCount != static_cast<long long>(rows) || rawCount != libraryCount) {
    return "counts differ: library " + std::to_string(libraryCount) + ", raw " +
           std::to_string(rawCount) + ", rows " + std::to_string(rows);
  }
  std::printf("%s file: both sides sent the same %zu statements\n",
              PlainFiles() ? "plain" : "keyed", library.size());
  return std::string();
}

int RunCheck(size_t rows) {
  for (bool plain : {false, true}) {
    SetPlainFiles(plain);
    std::string problem = CheckSides(rows);
    if (!problem.empty()) {
      std::fprintf(stderr, "check (%s file): %s\n", plain ? "plain" : "keyed",
                   problem.c_str());
      return 1;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool setupOnly = argc > 1 && std::strcmp(argv[1], "--setup-only") == 0;
  if (setupOnly) {
    ++argv;
    --argc;
  }
  size_t rows = argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 0;
  if (argc != 3 || rows == 0) {
    std::fprintf(stderr, "usage: %s [--setup-only] <case> <rows>\n", argv[0]);
    return 2;
  }
  std::string name = argv[1];
  if (name == "check") return RunCheck(rows);
  size_t slash = name.find('/');
  std::string file = name.substr(0, slash);
  std::string side = slash == std::string::npos ? "" : name.substr(slash + 1);
  if ((file != "open_keyed" && file != "open_plain") ||
      (side != "library" && side != "raw")) {
    std::fprintf(stderr, "unknown case %s\n", argv[1]);
    return 2;
  }
  SetPlainFiles(file == "open_plain");
  return RunCase(name, side, rows, setupOnly);
}
