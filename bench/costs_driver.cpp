// Device costs of the library beside raw SQLite doing the same work, for
// bench/costs (which runs this binary and writes the reports):
//   costs_driver writes <events>            bytes and syncs per event
//   costs_driver heap <rows>...             heap peak of one call
//   costs_driver prefill <dir> <rows>       a table of <rows> for growth
//   costs_driver growth <dir> <op> <rows>   the measured call, for callgrind
//   costs_driver soak <events> <window> <batch> <journal mode>
// --plain_files before the command leaves the files unkeyed (the smoke
// tests). Each prints JSON on stdout: one object per line (writes, heap) or one
// object (soak, growth). Bytes and syncs come from the fault VFS in
// counting mode, which passes every call through to the disk except the
// flush itself (a sync is counted, the disk is not asked to flush: counts
// are what is measured, not time). The heap figures come from this
// binary's own malloc and operator new (see HeapCounter.cpp).
#include <sys/stat.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "FaultVfs.h"
#include "HeapCounter.h"
#include "PairOps.h"

using namespace ipc_db_bench;
using ipc_db_test::FaultFile;
using ipc_db_test::FaultFileCounts;
using ipc_db_test::FaultVfs;

namespace {

#if defined(__arm__)
const char kArch[] = "armhf";
#else
const char kArch[] = "host";
#endif

void* SlotOf(long number) { return reinterpret_cast<void*>(static_cast<intptr_t>(number)); }

// ---- Journal modes and synchronous settings ----------------------------

struct JournalMode {
  const char* name;
  DB_JOURNAL_TYPE type;
};
const JournalMode kJournalModes[] = {{"DELETE", DB_JOURNAL_DELETE},
                                     {"TRUNCATE", DB_JOURNAL_TRUNCATE},
                                     {"PERSIST", DB_JOURNAL_PERSIST},
                                     {"WAL", DB_JOURNAL_WAL}};

const JournalMode* FindMode(const std::string& name) {
  for (const JournalMode& mode : kJournalModes) {
    if (name == mode.name) return &mode;
  }
  Fatal("unknown journal mode " + name);
}

// The library's journal mode call on its side; the same pragma text on the
// raw side. synchronous FULL is set on both handles alike (the library has
// no call for it). "NORMAL" is the library's own setting, left as opened.
void SetModes(LibraryDb* library, sqlite3* raw, const JournalMode& mode,
              const std::string& synchronous) {
  if (library->db()->SetJournalAttr(mode.type) != 0) Fatal("SetJournalAttr failed");
  if (raw != nullptr) {
    std::string text = mode.type == DB_JOURNAL_DELETE ? "Delete" : mode.name;
    RawExec(raw, ("PRAGMA journal_mode = " + text + ";").c_str());
  }
  if (synchronous == "FULL") {
    RawExec(library->Handle(), "PRAGMA synchronous = FULL;");
    if (raw != nullptr) RawExec(raw, "PRAGMA synchronous = FULL;");
  }
}

// ---- Writes --------------------------------------------------------------

struct Counted {
  FaultFileCounts files[3];
  unsigned long long bytes = 0;
  unsigned long long syncs = 0;
};

Counted Count(const std::function<bool()>& work) {
  FaultVfs::ResetCounts();
  if (!work()) Fatal("a measured operation failed");
  Counted counted;
  for (int i = 0; i < 3; ++i) {
    counted.files[i] = FaultVfs::Counts(static_cast<FaultFile>(i));
    counted.bytes += counted.files[i].bytesWritten;
    counted.syncs += counted.files[i].syncs;
  }
  return counted;
}

std::string FilesJson(const Counted& counted, double events) {
  static const char* kNames[] = {"database", "journal", "wal"};
  std::string out = "{";
  char item[160];
  for (int i = 0; i < 3; ++i) {
    std::snprintf(item, sizeof(item), "%s\"%s\": {\"bytes_per_event\": %.1f, "
                  "\"syncs_per_event\": %.4f}", i ? ", " : "", kNames[i],
                  counted.files[i].bytesWritten / events, counted.files[i].syncs / events);
    out += item;
  }
  return out + "}";
}

// The three operations of the writes table, each done `events` times in
// batches of `batch` on an open table that already holds `events` rows
// (ids 1..events) when the operation is not the insert.
enum class WriteOp { kAdd, kUpdate, kRemove };

struct WriteCase {
  WriteOp op;
  size_t batch;
  const JournalMode* mode;
  std::string synchronous;
  size_t events;
};

bool LibraryWrites(const WriteCase& c, Table* table, BenchSchema* schema,
                   std::vector<BenchRecord>& records) {
  for (size_t first = 0; first < c.events; first += c.batch) {
    bool ok = true;
    if (c.op == WriteOp::kAdd) {
      static const DbFilters kAllColumns;
      ok = table->add_item(&records[first], c.batch, kAllColumns) == 0;
    } else if (c.op == WriteOp::kUpdate) {
      DbFilters set(1, new DbFilter(schema->value, DB_FILTER_OP_EQ, SlotOf(7), nullptr));
      DbFilters where(
          2, new DbFilter(schema->id, DB_FILTER_OP_GT, SlotOf(long(first)), nullptr),
          new DbFilter(schema->id, DB_FILTER_OP_LE, SlotOf(long(first + c.batch)), nullptr));
      ok = table->update_item(set, where) == 0;
    } else {
      RemoveLists lists(schema, c.batch);
      std::vector<int32_t> ids;
      for (size_t i = 0; i < c.batch; ++i) ids.push_back(int32_t(first + i + 1));
      lists.SetIds(ids);
      ok = LibraryRemove(table, &lists);
    }
    if (!ok) return false;
  }
  return true;
}

bool RawWrites(const WriteCase& c, sqlite3* db, std::vector<BenchRecord>& records) {
  for (size_t first = 0; first < c.events; first += c.batch) {
    bool ok;
    if (c.op == WriteOp::kAdd) {
      std::vector<BenchRecord> batch(records.begin() + first,
                                     records.begin() + first + c.batch);
      ok = RawInsertSameSql(db, batch);
    } else if (c.op == WriteOp::kUpdate) {
      char sql[160];
      std::snprintf(sql, sizeof(sql),
                    "update t_event set Value = 7 where Id > %zu and Id <= %zu;", first,
                    first + c.batch);
      ok = sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
    } else {
      std::vector<int32_t> ids;
      for (size_t i = 0; i < c.batch; ++i) ids.push_back(int32_t(first + i + 1));
      ok = RawRemove(db, ids);
    }
    if (!ok) return false;
  }
  return true;
}

// Runs one case on a fresh library database and a fresh raw one, the raw
// side's statements checked against the library's, and prints its object.
void RunWriteCase(const WriteCase& c) {
  static const char* kOps[] = {"add_item", "update_item", "rmv_item"};
  BenchSchema schema;
  TempDir libraryDir;
  TempDir rawDir;
  LibraryDb library(libraryDir.Path(), &schema);
  RawDb raw(rawDir.Path());
  SetModes(&library, raw.Handle(), *c.mode, c.synchronous);
  std::vector<BenchRecord> records = MakeRecords(c.events);
  if (c.op != WriteOp::kAdd) {
    RawFill(library.Handle(), records);
    RawFill(raw.Handle(), records);
  } else {
    // One first event on both sides, so the files exist before counting.
    std::vector<BenchRecord> first = MakeRecords(1, 1600000000);
    if (!LibraryInsert(library.table(), first)) Fatal("first insert failed");
    if (!RawInsertSameSql(raw.Handle(), first)) Fatal("first raw insert failed");
  }
  SqlTrace libraryTrace(library.Handle());
  SqlTrace rawTrace(raw.Handle());
  Counted lib = Count([&] { return LibraryWrites(c, library.table(), &schema, records); });
  Counted rawCounted = Count([&] { return RawWrites(c, raw.Handle(), records); });
  std::string difference =
      CompareStatements(libraryTrace.Statements(), rawTrace.Statements());
  if (!difference.empty()) Fatal(std::string(kOps[int(c.op)]) + ": " + difference);
  double events = double(c.events);
  std::printf(
      "{\"op\": \"%s\", \"batch\": %zu, \"journal_mode\": \"%s\", \"synchronous\": \"%s\", "
      "\"events\": %zu, \"arch\": \"%s\", \"lib_bytes_per_event\": %.1f, "
      "\"raw_bytes_per_event\": %.1f, \"lib_syncs_per_event\": %.4f, "
      "\"raw_syncs_per_event\": %.4f, \"lib_files\": %s, \"raw_files\": %s}\n",
      kOps[int(c.op)], c.batch, c.mode->name, c.synchronous.c_str(), c.events, kArch,
      lib.bytes / events, rawCounted.bytes / events, lib.syncs / events,
      rawCounted.syncs / events, FilesJson(lib, events).c_str(),
      FilesJson(rawCounted, events).c_str());
  std::fflush(stdout);
}

int RunWrites(size_t events) {
  if (events % 256 != 0) Fatal("writes: events must be a multiple of the largest batch, 256");
  FaultVfs::Install();
  FaultVfs::SetRealSyncs(false);
  for (const JournalMode& mode : kJournalModes) {
    for (const char* synchronous : {"NORMAL", "FULL"}) {
      for (size_t batch : {1, 8, 32, 256}) {
        RunWriteCase({WriteOp::kAdd, batch, &mode, synchronous, events});
      }
      RunWriteCase({WriteOp::kUpdate, 32, &mode, synchronous, events});
      RunWriteCase({WriteOp::kRemove, 32, &mode, synchronous, events});
    }
  }
  return 0;
}

// ---- Heap ------------------------------------------------------------------

// Prints the heap object of one call: `call` runs with the counters on.
void PrintHeap(const char* op, size_t rows, const std::function<bool()>& call) {
  HeapCounter::Start();
  bool ok = call();
  HeapPeaks peaks = HeapCounter::Stop();
  if (!ok) Fatal(std::string(op) + " failed");
  std::printf("{\"op\": \"%s\", \"rows\": %zu, \"arch\": \"%s\", \"lib_peak_bytes\": %lld, "
              "\"sqlite_peak_bytes\": %lld, \"caller_owned_bytes\": %lld}\n",
              op, rows, kArch, peaks.libraryPeak - peaks.libraryRetained,
              peaks.sqlitePeak, peaks.libraryRetained);
  std::fflush(stdout);
}

int RunHeap(size_t rows) {
  BenchSchema schema;
  ReadQueries queries(&schema);
  TempDir dir;
  LibraryDb library(dir.Path(), &schema);
  Table* table = library.table();
  std::vector<BenchRecord> records = MakeRecords(rows);
  std::vector<BenchRecord> out(rows);
  Meta* userMeta = &schema.record;
  unsigned long long count = 0;
  // The schema read and the first statements' allocations happen once.
  long long warm = table->get_item_cnt(queries.none);
  if (warm != 0) Fatal("warm-up count failed");

  PrintHeap("add_item", rows, [&] { return LibraryInsert(table, records); });
  PrintHeap("get_item", rows, [&] {
    count = 0;
    return table->get_item(queries.none, queries.none, count, out.data()) == 0 &&
           count == rows;
  });
  PrintHeap("get_item_z", rows, [&] {
    count = 0;
    return table->get_item_z(queries.none, queries.none, count, out.data(), userMeta) == 0 &&
           count == rows;
  });
  {
    // The labels alone, each handed over as a string the caller owns.
    std::vector<std::string> names;
    Meta nameMeta;
    nameMeta.Init("names", sizeof(BenchRecord::name));
    nameMeta.AddMember(new Member("cName", 0, &schema.char32Type));
    DbFilters nameColumn(1, new DbFilter(schema.name, DB_FILTER_OP_EQ, nullptr, nullptr));
    PrintHeap("get_item_vz", rows, [&] {
      count = 0;
      return table->get_item_vz(nameColumn, queries.none, count, names, &nameMeta) == 0 &&
             count == rows;
    });
  }
  PrintHeap("get_item_cnt", rows, [&] { return table->get_item_cnt(queries.kindOnly) >= 0; });
  std::string text;
  PrintHeap("get_item_max", rows, [&] {
    return table->get_item_max(queries.timeColumn, queries.kindOnly, text) >= 0;
  });
  DbFilters set(1, new DbFilter(schema.value, DB_FILTER_OP_EQ, SlotOf(7), nullptr));
  DbFilters where(1, new DbFilter(schema.kind, DB_FILTER_OP_GE, SlotOf(0), nullptr));
  PrintHeap("update_item", rows, [&] { return table->update_item(set, where) == 0; });
  RemoveLists lists(&schema, rows);
  std::vector<int32_t> ids;
  for (size_t i = 0; i < rows; ++i) ids.push_back(int32_t(i + 1));
  lists.SetIds(ids);
  PrintHeap("rmv_item", rows, [&] { return LibraryRemove(table, &lists); });
  return 0;
}

// ---- Growth ----------------------------------------------------------------

// The index the growth read uses.
const char kTimeIndex[] = "t_event_time";

int RunPrefill(const std::string& dir, size_t rows) {
  BenchSchema schema;
  LibraryDb library(dir, &schema);
  if (library.table()->add_index(kTimeIndex, schema.time) != 0) Fatal("add_index failed");
  const size_t kChunk = 10000;
  for (size_t first = 0; first < rows; first += kChunk) {
    size_t n = rows - first < kChunk ? rows - first : kChunk;
    RawFill(library.Handle(), MakeRecords(n, 1700000000 + int32_t(first)));
  }
  return 0;
}

// One measured call with collection on; the rest of the run is not counted
// (callgrind runs with --collect-atstart=no).
bool Collected(const std::function<bool()>& call) {
  CALLGRIND_TOGGLE_COLLECT;
  bool ok = call();
  CALLGRIND_TOGGLE_COLLECT;
  return ok;
}

// Prints {"op", "rows", "per": rows the figure is divided by}.
int RunGrowth(const std::string& dir, const std::string& op, size_t rows) {
  BenchSchema schema;
  LibraryDb library(dir, &schema);
  Table* table = library.table();
  ReadQueries queries(&schema);
  size_t per = rows;
  bool ok;
  if (op == "add_item") {
    const size_t kBatches = 10;
    std::vector<BenchRecord> records = MakeRecords(32 * (kBatches + 1), 1800000000);
    ok = table->add_item(records.data(), 32, DbFilters()) == 0;  // warm-up
    ok = ok && Collected([&] {
      bool all = true;
      for (size_t b = 1; b <= kBatches; ++b) {
        all = all && table->add_item(&records[32 * b], 32, DbFilters()) == 0;
      }
      return all;
    });
    per = 32 * kBatches;
  } else if (op == "get_item") {
    std::vector<BenchRecord> out(100);
    long from = 1700000000 + long(rows / 2);
    DbFilters range(
        2, new DbFilter(schema.time, DB_FILTER_OP_GE, SlotOf(from), nullptr),
        new DbFilter(schema.time, DB_FILTER_OP_LT, SlotOf(from + 100), nullptr));
    unsigned long long count = 0;
    ok = table->get_item(queries.none, range, count, out.data()) == 0;  // warm-up
    ok = ok && Collected([&] {
      count = 0;
      return table->get_item(queries.none, range, count, out.data()) == 0 && count == 100;
    });
    per = 100;
  } else {
    // Warm-up: the schema read, through the primary key only.
    DbFilters first(1, new DbFilter(schema.id, DB_FILTER_OP_EQ, SlotOf(1), nullptr));
    ok = table->get_item_cnt(first) == 1;
    std::string text;
    ok = ok && Collected([&] {
      if (op == "get_item_cnt") return table->get_item_cnt(queries.kindOnly) >= 0;
      return table->get_item_max(queries.timeColumn, queries.kindOnly, text) >= 0;
    });
  }
  if (!ok) Fatal("growth " + op + " failed");
  std::printf("{\"op\": \"%s\", \"rows\": %zu, \"per\": %zu}\n", op.c_str(), rows, per);
  return 0;
}

// ---- Soak ------------------------------------------------------------------

long long FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : 0;
}

int RunSoak(size_t events, size_t window, size_t batch, const std::string& modeName) {
  FaultVfs::Install();
  FaultVfs::SetRealSyncs(false);
  const JournalMode* mode = FindMode(modeName);
  BenchSchema schema;
  TempDir dir;
  LibraryDb library(dir.Path(), &schema);
  if (mode->type != DB_JOURNAL_DELETE) SetModes(&library, nullptr, *mode, "NORMAL");
  Table* table = library.table();
  std::string file = dir.Path() + "bench.db";
  DbFilters oldest(1, new DbFilter(schema.id, DB_FILTER_OP_LE, SlotOf(0), nullptr));
  std::vector<BenchRecord> records;
  std::printf("{\"journal_mode\": \"%s\", \"events\": %zu, \"window\": %zu, \"batch\": %zu, "
              "\"series\": [", mode->name, events, window, batch);
  long long steady = -1;
  long long maxBytes = 0;
  long long maxDatabase = 0;
  long long maxSide = 0;  // the journal or WAL file
  for (size_t done = 0; done < events; done += batch) {
    records = MakeRecords(batch, 1700000000 + int32_t(done));
    if (table->add_item(records.data(), batch, DbFilters()) != 0) Fatal("soak insert");
    size_t stored = done + batch;
    if (stored > window) {
      oldest.filters[0]->value1 = SlotOf(long(stored - window));
      if (table->rmv_item(&oldest, 1) != 0) Fatal("soak remove");
    }
    long long database = FileSize(file);
    long long side = FileSize(file + "-wal") + FileSize(file + "-journal");
    long long bytes = database + side;
    if (database > maxDatabase) maxDatabase = database;
    if (side > maxSide) maxSide = side;
    if (steady < 0 && stored >= window) steady = bytes;
    if (bytes > maxBytes) maxBytes = bytes;
    std::printf("%s[%zu, %lld]", done ? ", " : "", stored, bytes);
  }
  std::printf("], \"steady_bytes\": %lld, \"max_bytes\": %lld, \"max_database_bytes\": %lld, "
              "\"max_journal_or_wal_bytes\": %lld}\n",
              steady, maxBytes, maxDatabase, maxSide);
  return 0;
}

size_t Number(const char* text) {
  char* end = nullptr;
  unsigned long value = std::strtoul(text, &end, 10);
  if (end == text || *end != '\0' || value == 0) Fatal(std::string("bad number ") + text);
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  HeapCounter::Install();
  // The smoke tests run on plain files: a keyed open derives the key, which
  // takes more than a second under qemu-arm.
  if (argc > 1 && std::strcmp(argv[1], "--plain_files") == 0) {
    SetPlainFiles(true);
    ++argv;
    --argc;
  }
  std::string command = argc > 1 ? argv[1] : "";
  if (command == "writes" && argc == 3) return RunWrites(Number(argv[2]));
  if (command == "heap" && argc >= 3) {
    for (int i = 2; i < argc; ++i) RunHeap(Number(argv[i]));
    return 0;
  }
  if (command == "prefill" && argc == 4) return RunPrefill(argv[2], Number(argv[3]));
  if (command == "growth" && argc == 5) return RunGrowth(argv[2], argv[3], Number(argv[4]));
  if (command == "soak" && argc == 6) {
    return RunSoak(Number(argv[2]), Number(argv[3]), Number(argv[4]), argv[5]);
  }
  std::fprintf(stderr,
               "usage: %s [--plain_files] writes <events> | heap <rows>... | prefill <dir> <rows> |\n"
               "       growth <dir> <add_item|get_item|get_item_cnt|get_item_max> <rows> |\n"
               "       soak <events> <window> <batch> <DELETE|WAL>\n",
               argv[0]);
  return 2;
}
