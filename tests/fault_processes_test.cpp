// Several processes on one file. 2 and 4 processes, each with its own Db
// on the same database file, each run a fixed number of calls at once
// (multi-record add_item of batches of their own, update_item and two-list
// rmv_item of their own batches, get_item_cnt), first without and then
// with a busy timeout the application sets ("PRAGMA busy_timeout = 5000;"
// through ExecuteSQL after OpenDB). A failed multi-record call is followed
// by the guide's "rollback;". Each process logs every call and its result
// in shared memory. Afterwards the parent checks with raw SQLite: the file
// is intact, every call that returned 0 is in it (rows_lost counts rows of
// such calls missing or changed), no call is half applied (a batch not
// whole, or a failed call's batch present). Failed calls are counted per
// run. The runs are bounded by their call count, not by time.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "FaultCampaign.h"
#include "FaultVfs.h"
#include "TestResults.h"

using namespace ipc_db_test;

namespace {

constexpr int kMaxProcesses = 4;
constexpr int kMaxCallsPerProcess = 200;

struct CallRecord {
  WorkCall call;
  int32_t read;  // a count, not in the model
  int32_t result;
};

struct ProcessLog {
  int32_t failedOpens;  // createTable tries that failed
  int32_t calls;
  CallRecord records[kMaxCallsPerProcess];
};

struct Logs {
  ProcessLog processes[kMaxProcesses];
};

struct RunFigures {
  long long calls = 0, failed = 0, rowsLost = 0, corrupt = 0, halfApplied = 0;
};

// The calls of process `p`: its own batches p*1000+1, ...
void RunProcess(const std::string& dir, int p, int calls, int timeoutMs, uint32_t seed,
                ProcessLog* log) {
  FaultSession session;
  FaultSetting setting;
  // OpenDB's own statements may meet another process's lock; they decide
  // nothing here (the file exists), so only a failed Init/OpenDB counts.
  if (session.OpenFile(dir, setting) != 0 && session.db().GetDBStatus() != 1) _exit(3);
  if (timeoutMs > 0 &&
      session.Execute("PRAGMA busy_timeout = " + std::to_string(timeoutMs) + ";") != 0) {
    _exit(4);
  }
  // createTable reads the schema and may meet a lock too: the application
  // tries again (each failed try counts as a failed call).
  int tries = 0;
  while (session.MakeTable() != 0) {
    if (++tries > 10000) _exit(5);
    ++log->failedOpens;
    usleep(1000);
  }
  std::mt19937 random(seed);
  std::vector<int32_t> mine;
  int32_t next = p * 1000 + 1;
  for (int i = 0; i < calls; ++i) {
    CallRecord& record = log->records[i];
    unsigned roll = random() % 10;
    if (roll < 4 || mine.size() < 2) {
      record.call = WorkCall{WorkCall::kAdd, next++, 0, 0};
    } else if (roll < 6) {
      record.call = WorkCall{WorkCall::kUpdate, mine[random() % mine.size()], 0,
                             static_cast<int32_t>(random() % 100000 + 1)};
    } else if (roll < 8) {
      record.call = WorkCall{WorkCall::kRemove, mine[0], mine[1], 0};
    } else {
      record.read = 1;
      DbFilters none(0);
      record.result = session.table()->get_item_cnt(none) >= 0 ? 0 : -1;
      log->calls = i + 1;
      continue;
    }
    long long rc = session.Run(record.call);
    if (rc != 0) session.Recover(record.call);
    record.result = static_cast<int32_t>(rc);
    log->calls = i + 1;
    if (rc != 0) continue;
    if (record.call.kind == WorkCall::kAdd) mine.push_back(record.call.batch);
    if (record.call.kind == WorkCall::kRemove) mine.erase(mine.begin(), mine.begin() + 2);
  }
  session.Close();
  _exit(0);
}

RunFigures RunOnce(int processes, int calls, int timeoutMs, uint32_t seed) {
  RunFigures figures;
  TempDir dir;
  {
    FaultSession session;
    EXPECT_EQ(session.Open(dir.Path(), FaultSetting()), 0);
  }
  Shared<Logs> logs;
  std::vector<pid_t> children;
  for (int p = 0; p < processes; ++p) {
    pid_t child = fork();
    if (child == 0) {
      PrepareChild();
      RunProcess(dir.Path(), p + 1, calls, timeoutMs, PointSeed(seed, p),
                 &logs->processes[p]);
    }
    children.push_back(child);
  }
  for (pid_t child : children) {
    ChildEnd end = WaitChild(child);
    EXPECT_TRUE(end.exited && end.status == 0)
        << (end.exited ? "status " : "signal ") << end.status;
  }
  BatchState expected;
  std::set<int32_t> failedAdds;
  for (int p = 0; p < processes; ++p) {
    const ProcessLog& log = logs->processes[p];
    figures.calls += log.failedOpens;
    figures.failed += log.failedOpens;
    for (int i = 0; i < log.calls; ++i) {
      const CallRecord& record = log.records[i];
      ++figures.calls;
      if (record.result != 0) {
        ++figures.failed;
        if (!record.read && record.call.kind == WorkCall::kAdd) {
          failedAdds.insert(record.call.batch);
        }
        continue;
      }
      if (!record.read) ApplyCall(record.call, &expected);
    }
  }
  FileSeen seen = ReadFileRaw(dir.Path() + kFaultFile, "");
  if (!seen.readable || !seen.integrityOk) {
    ++figures.corrupt;
    return figures;
  }
  figures.rowsLost = RowsDiffering(expected, seen);
  bool half = !EveryBatchWhole(seen);
  for (int32_t batch : failedAdds) half = half || seen.batches.count(batch) != 0;
  figures.halfApplied = half ? 1 : 0;
  return figures;
}

TEST(Processes, SharingOneFile) {
  const uint32_t seed = StartCampaign("processes");
  const int calls = ScaledPoints(200, 30);
  std::vector<std::string> items;
  RunFigures total;
  long long index = 0;
  int mostProcesses = 0;
  for (int timeoutMs : {0, 5000}) {
    for (int processes : {2, 4}) {
      mostProcesses = std::max(mostProcesses, processes);
      RunFigures figures;
      if (PointSelected(index)) {
        figures = RunOnce(processes, calls, timeoutMs, PointSeed(seed, index));
      }
      ++index;
      EXPECT_EQ(figures.rowsLost, 0);
      EXPECT_EQ(figures.corrupt, 0);
      EXPECT_EQ(figures.halfApplied, 0);
      total.calls += figures.calls;
      total.failed += figures.failed;
      total.rowsLost += figures.rowsLost;
      total.corrupt += figures.corrupt;
      total.halfApplied += figures.halfApplied;
      JsonObject json;
      json.Add("processes", processes)
          .Add("busy_timeout_ms", timeoutMs)
          .Add("calls", figures.calls)
          .Add("failed_calls", figures.failed)
          .Add("rows_lost", figures.rowsLost)
          .Add("corrupt", figures.corrupt)
          .Add("half_applied", figures.halfApplied)
          .Add("seed", static_cast<long long>(seed));
      items.push_back(json.Text());
      std::printf("processes: %s\n", items.back().c_str());
      std::fflush(stdout);
    }
  }
  // The totals over the four runs (with the most processes that shared the
  // file at once), and each run with its figures.
  JsonObject json;
  json.Add("processes", mostProcesses)
      .Add("calls", total.calls)
      .Add("failed_calls", total.failed)
      .Add("rows_lost", total.rowsLost)
      .Add("corrupt", total.corrupt)
      .Add("half_applied", total.halfApplied)
      .AddRaw("runs", JsonList(items))
      .Add("seed", static_cast<long long>(seed));
  if (FaultPointOnly() < 0) WriteResultJson("faults", "processes", json.Text());
}

}  // namespace
