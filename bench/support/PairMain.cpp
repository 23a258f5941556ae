// The common main of the pair benchmarks and the reporter that adds the
// library/raw ratios; see PairMain.h.
#include "PairMain.h"

#include <sqlcipher/sqlite3.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <tuple>

#include "BenchSupport.h"

namespace ipc_db_bench {

namespace {

constexpr char kLibrarySide[] = "library";
constexpr char kRawSide[] = "raw";
constexpr char kRowsCounter[] = "rows";

// "<pair>/<side>" split at its last "/".
bool SplitName(const std::string& functionName, std::string* pair, std::string* side) {
  size_t slash = functionName.rfind('/');
  if (slash == std::string::npos) return false;
  *pair = functionName.substr(0, slash);
  *side = functionName.substr(slash + 1);
  return true;
}

// Identifies a run up to its side: pair, arguments, and which repetition or
// which aggregate it is.
using RunKey = std::tuple<std::string, std::string, int, std::string, int64_t>;

bool KeyOf(const benchmark::BenchmarkReporter::Run& run, RunKey* key, std::string* side) {
  std::string pair;
  if (!SplitName(run.run_name.function_name, &pair, side)) return false;
  bool aggregate = run.run_type == benchmark::BenchmarkReporter::Run::RT_Aggregate;
  *key = RunKey(pair, run.run_name.args, aggregate ? 1 : 0,
                aggregate ? run.aggregate_name : std::string(),
                aggregate ? 0 : run.repetition_index);
  return true;
}

// Only rates are compared: a ratio of two spreads means nothing.
bool IsComparable(const benchmark::BenchmarkReporter::Run& run) {
  if (run.error_occurred) return false;
  if (run.run_type != benchmark::BenchmarkReporter::Run::RT_Aggregate) return true;
  return run.aggregate_name == "mean" || run.aggregate_name == "median";
}

double RowsOf(const benchmark::BenchmarkReporter::Run& run) {
  auto found = run.counters.find(kRowsCounter);
  return found == run.counters.end() ? 0.0 : found->second.value;
}

// Holds every run until Finalize, adds the ratio counters to the library's
// runs, then passes everything on to `inner`.
class RatioReporter : public benchmark::BenchmarkReporter {
 public:
  explicit RatioReporter(benchmark::BenchmarkReporter* inner) : inner_(inner) {}

  bool ReportContext(const Context& context) override {
    return inner_->ReportContext(context);
  }

  void ReportRuns(const std::vector<Run>& report) override { groups_.push_back(report); }

  void Finalize() override {
    std::map<RunKey, std::map<std::string, double>> rowsBySide;
    for (const auto& group : groups_) {
      for (const Run& run : group) {
        RunKey key;
        std::string side;
        if (IsComparable(run) && KeyOf(run, &key, &side))
          rowsBySide[key][side] = RowsOf(run);
      }
    }
    for (auto& group : groups_) {
      for (Run& run : group) AddRatios(rowsBySide, &run);
      inner_->ReportRuns(group);
    }
    inner_->Finalize();
  }

 private:
  static void AddRatios(const std::map<RunKey, std::map<std::string, double>>& rowsBySide,
                        Run* run) {
    RunKey key;
    std::string side;
    if (!IsComparable(*run) || !KeyOf(*run, &key, &side) || side != kLibrarySide) return;
    auto sides = rowsBySide.find(key);
    if (sides == rowsBySide.end()) return;
    double libraryRows = RowsOf(*run);
    for (const auto& [otherSide, otherRows] : sides->second) {
      if (otherSide == kLibrarySide || otherRows <= 0.0) continue;
      std::string counter = otherSide == kRawSide ? "ratio" : "ratio_" + otherSide;
      run->counters[counter] = benchmark::Counter(libraryRows / otherRows);
    }
  }

  benchmark::BenchmarkReporter* inner_;
  std::vector<std::vector<Run>> groups_;
};

// Answers the first column of the first row of `sql` on `db`.
std::string QueryText(sqlite3* db, const char* sql) {
  std::string text;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_text(stmt, 0) != nullptr) {
    text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
  }
  sqlite3_finalize(stmt);
  return text;
}

void AddVersionContext() {
  benchmark::AddCustomContext("sqlite_version", sqlite3_libversion());
  sqlite3* db = nullptr;
  if (sqlite3_open(":memory:", &db) == SQLITE_OK) {
    std::string cipher = QueryText(db, "PRAGMA cipher_version;");
    benchmark::AddCustomContext("sqlcipher_version", cipher.empty() ? "unknown" : cipher);
  }
  sqlite3_close(db);
}

// Runs the checks; false when one found a difference.
bool RunChecks(const std::vector<StatementCheck>& checks) {
  bool allSame = true;
  for (const StatementCheck& check : checks) {
    std::string difference = check.run();
    if (difference.empty()) {
      std::fprintf(stderr, "statements of %s: library and raw identical\n",
                   check.pair.c_str());
    } else {
      std::fprintf(stderr, "statements of %s DIFFER: %s\n", check.pair.c_str(),
                   difference.c_str());
      allSame = false;
    }
  }
  return allSame;
}

// Removes `flag` from the arguments; true when it was there.
bool TakeFlag(int* argc, char** argv, const char* flag) {
  for (int i = 1; i < *argc; ++i) {
    if (std::strcmp(argv[i], flag) == 0) {
      for (int j = i; j + 1 < *argc; ++j) argv[j] = argv[j + 1];
      --*argc;
      return true;
    }
  }
  return false;
}

}  // namespace

void SetRows(benchmark::State& state, double rowsPerIteration) {
  state.counters[kRowsCounter] =
      benchmark::Counter(rowsPerIteration * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}

benchmark::internal::Benchmark* RegisterSide(const std::string& pair,
                                             const std::string& side,
                                             void (*function)(benchmark::State&)) {
  return benchmark::RegisterBenchmark((pair + "/" + side).c_str(), function)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
}

int PairMain(int argc, char** argv, const std::vector<StatementCheck>& checks) {
  bool skipChecks = TakeFlag(&argc, argv, "--skip_statement_check");
  SetPlainFiles(TakeFlag(&argc, argv, "--plain_files"));
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (!skipChecks && !RunChecks(checks)) return 1;
  AddVersionContext();
  benchmark::AddCustomContext("database_files", PlainFiles() ? "plain" : "keyed");
  std::unique_ptr<benchmark::BenchmarkReporter> display(
      benchmark::CreateDefaultDisplayReporter());
  RatioReporter reporter(display.get());
  size_t ran = benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  if (ran == 0) {
    std::fprintf(stderr, "no benchmark matched the filter\n");
    return 1;
  }
  return 0;
}

}  // namespace ipc_db_bench
