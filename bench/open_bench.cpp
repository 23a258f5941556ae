// Open and close pair: Db::OpenDB followed by Db::CloseDB on an initialised
// Db, against raw sqlite3_open, sqlite3_key with the 64 key bytes, the three
// pragmas the library sets and sqlite3_close. Both open an existing keyed
// database holding the benchmark table, so each open derives the key.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "PairMain.h"
#include "PairOps.h"

namespace ipc_db_bench {
namespace {

constexpr char kDbFile[] = "bench.db";

// A directory holding a keyed database with the benchmark table, made once.
const std::string& DatabaseDir() {
  static TempDir dir;
  static RawDb create(dir.Path());
  return dir.Path();
}

void OpenCloseLibrary(benchmark::State& state) {
  const std::string& dir = DatabaseDir();
  Db db;
  char key[65];
  std::memcpy(key, kKey, sizeof(key));
  if (db.Init(0, dir, kDbFile, "bench.db-journal", key, 64) != 0) {
    state.SkipWithError("Db::Init failed");
    return;
  }
  for (auto _ : state) {
    if (!LibraryOpenClose(&db)) {
      state.SkipWithError("OpenDB or CloseDB failed");
      break;
    }
  }
  db.UnInit();
  SetRows(state, 1.0);
}

void OpenCloseRaw(benchmark::State& state) {
  std::string file = DatabaseDir() + kDbFile;
  for (auto _ : state) {
    if (!RawOpenClose(file)) {
      state.SkipWithError("raw open or close failed");
      break;
    }
  }
  SetRows(state, 1.0);
}

// The statements that Db::OpenDB and Db::CloseDB send against those of the
// raw open and close, and that the library's open reads the raw side's
// keyed file.
std::string CheckOpen() {
  TempDir dir;
  { RawDb create(dir.Path()); }
  Db db;
  char key[65];
  std::memcpy(key, kKey, sizeof(key));
  if (db.Init(0, dir.Path(), kDbFile, "bench.db-journal", key, 64) != 0) {
    return "Db::Init failed";
  }
  ConnectionTrace trace;
  if (!LibraryOpenClose(&db)) return "Db::OpenDB or Db::CloseDB failed";
  std::vector<std::string> library = trace.Take();
  if (!RawOpenClose(dir.Path() + kDbFile)) return "raw open failed";
  std::vector<std::string> raw = trace.Take();
  std::string difference = CompareStatements(library, raw);
  if (!difference.empty()) return difference;
  if (db.OpenDB() != 0) return "Db::OpenDB failed";
  sqlite3* handle = static_cast<CSqliteDBConn*>(db.m_pDBConn)->m_pSqliteDB;
  bool readable = sqlite3_exec(handle, "select count(*) from t_event;", nullptr, nullptr,
                               nullptr) == SQLITE_OK;
  db.UnInit();
  if (!readable) return "the library's open cannot read the raw side's keyed file";
  return std::string();
}

}  // namespace
}  // namespace ipc_db_bench

int main(int argc, char** argv) {
  using namespace ipc_db_bench;
  RegisterSide("open_close", "library", OpenCloseLibrary);
  RegisterSide("open_close", "raw", OpenCloseRaw);
  return PairMain(argc, argv, {{"open_close", CheckOpen}});
}
