// The common main of the pair benchmarks. Every benchmark is named
// "<pair>/<side>/<args>": side "library" is the library's call, side "raw"
// raw SQLite sending the same statements, other sides further raw references
// (such as "raw_bound", one prepared statement reused with bind). Each side
// reports its throughput in the counter "rows" (rows per second); the
// library's runs also get "ratio", its rows/s over the raw side's, and
// "ratio_<side>" over each further side. Runs are held back until the whole
// suite is done so that the ratios can be formed whatever the (possibly
// random) order of the runs, then handed to the display reporter chosen by
// --benchmark_format.
#ifndef IPC_DB_BENCH_SUPPORT_PAIRMAIN_H_
#define IPC_DB_BENCH_SUPPORT_PAIRMAIN_H_

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace ipc_db_bench {

// A check that both sides of a pair send the same statements: returns an
// empty string when they do, else what differs.
struct StatementCheck {
  std::string pair;
  std::function<std::string()> run;
};

// Sets the "rows" counter of a benchmark that handled `rowsPerIteration`
// rows in each iteration.
void SetRows(benchmark::State& state, double rowsPerIteration);

// Registers `function` as "<pair>/<side>" measured in real time (the waits
// for the disk are part of the cost). Add the arguments to the result.
benchmark::internal::Benchmark* RegisterSide(const std::string& pair,
                                             const std::string& side,
                                             void (*function)(benchmark::State&));

// Parses the benchmark flags (and --plain_files, which leaves the databases
// unkeyed: see SetPlainFiles), runs every check (printing each outcome and
// failing the process on a difference unless --skip_statement_check is
// given), adds the SQLite and SQLCipher versions to the context and runs
// the benchmarks that the flags select. Returns the process status (1 also
// when the filter selected no benchmark).
int PairMain(int argc, char** argv, const std::vector<StatementCheck>& checks);

}  // namespace ipc_db_bench

#endif  // IPC_DB_BENCH_SUPPORT_PAIRMAIN_H_
