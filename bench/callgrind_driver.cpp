// Runs one side of the insert or read pairs once on N rows for callgrind:
//   callgrind_driver [--plain_files] <case> <N>
// with <case> one of insert/library, insert/raw, insert/raw_bound,
// read_all/library, read_all/raw, read_filtered/library, read_filtered/raw,
// read_columns/library, read_columns/raw, count/library, count/raw,
// max/library, max/raw (one query over a table of N rows). Setup (keyed
// open, filling the
// table) and one warm-up run happen first; the measured run is the call of
// MeasuredSection, which bench/callgrind collects alone
// (--toggle-collect=MeasuredSection). Prints the rows handled. The files are
// keyed unless --plain_files is given (the quick smoke runs).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "PairOps.h"

using namespace ipc_db_bench;

// Kept out of line under a plain C name so that callgrind can find it.
extern "C" __attribute__((noinline)) bool MeasuredSection(
    const std::function<bool()>* run) {
  return (*run)();
}

namespace {

bool Measure(const std::function<bool()>& run) {
  if (!run()) return false;  // warm-up: schema read, page cache, allocator
  return MeasuredSection(&run);
}

int RunInsert(const std::string& side, size_t rows) {
  BenchSchema schema;
  TempDir dir;
  std::vector<BenchRecord> records = MakeRecords(rows);
  bool ok;
  if (side == "library") {
    LibraryDb db(dir.Path(), &schema);
    ok = Measure([&] { return LibraryInsert(db.table(), records); });
  } else {
    RawDb db(dir.Path());
    auto insert = side == "raw" ? RawInsertSameSql : RawInsertBound;
    ok = Measure([&] { return insert(db.Handle(), records); });
  }
  return ok ? 0 : 1;
}

int RunRead(const std::string& pair, const std::string& side, size_t rows) {
  bool filtered = pair == "read_filtered";
  std::vector<BenchRecord> stored =
      MakeRecords(filtered ? FilteredReadStoredRows(rows) : rows);
  std::vector<BenchRecord> out(rows);
  char* packed = reinterpret_cast<char*>(out.data());
  uint64_t read = 0;
  BenchSchema schema;
  TempDir dir;
  bool ok;
  if (side == "library") {
    LibraryDb db(dir.Path(), &schema);
    RawFill(db.Handle(), stored);
    ReadQueries queries(&schema);
    Table* table = db.table();
    ok = Measure([&] {
      if (pair == "read_all") return LibraryReadAll(table, &queries, out.data(), &read);
      if (filtered) return LibraryReadFiltered(table, &queries, out.data(), &read);
      return LibraryReadColumns(table, &queries, packed, &read);
    });
  } else {
    RawDb db(dir.Path());
    RawFill(db.Handle(), stored);
    sqlite3* handle = db.Handle();
    ok = Measure([&] {
      if (pair == "read_all") return RawReadAll(handle, out.data(), &read);
      if (filtered) return RawReadFiltered(handle, out.data(), &read);
      return RawReadColumns(handle, packed, &read);
    });
  }
  return ok && read == rows ? 0 : 1;
}

int RunAggregate(const std::string& pair, const std::string& side, size_t rows) {
  std::vector<BenchRecord> stored = MakeRecords(rows);
  BenchSchema schema;
  TempDir dir;
  long long value = 0;
  std::string text;
  bool ok;
  if (side == "library") {
    LibraryDb db(dir.Path(), &schema);
    RawFill(db.Handle(), stored);
    ReadQueries queries(&schema);
    Table* table = db.table();
    ok = Measure([&] {
      if (pair == "count") return LibraryCount(table, &queries, &value);
      return LibraryMax(table, &queries, &value, &text);
    });
  } else {
    RawDb db(dir.Path());
    RawFill(db.Handle(), stored);
    sqlite3* handle = db.Handle();
    ok = Measure([&] {
      if (pair == "count") return RawCount(handle, &value);
      return RawMax(handle, &value, &text);
    });
  }
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--plain_files") == 0) {
    SetPlainFiles(true);
    ++argv;
    --argc;
  }
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <pair>/<side> <N>\n", argv[0]);
    return 2;
  }
  std::string name = argv[1];
  size_t slash = name.find('/');
  size_t rows = std::strtoul(argv[2], nullptr, 10);
  if (slash == std::string::npos || rows == 0) {
    std::fprintf(stderr, "bad case or N: %s %s\n", argv[1], argv[2]);
    return 2;
  }
  std::string pair = name.substr(0, slash);
  std::string side = name.substr(slash + 1);
  int status;
  if (pair == "insert") {
    status = RunInsert(side, rows);
  } else if (pair == "read_all" || pair == "read_filtered" || pair == "read_columns") {
    status = RunRead(pair, side, rows);
  } else if (pair == "count" || pair == "max") {
    status = RunAggregate(pair, side, rows);
  } else {
    std::fprintf(stderr, "unknown case %s\n", argv[1]);
    return 2;
  }
  if (status != 0) {
    std::fprintf(stderr, "%s failed\n", argv[1]);
    return status;
  }
  std::printf("rows %zu\n", rows);
  return 0;
}
