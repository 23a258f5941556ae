// Storage full. Each budget point copies a base file and forks a child
// that opens it through the library, then limits the database, journal and
// WAL files together to their size at open plus a seeded share of the
// growth the workload needs (support/FaultVfs.h: writes past the budget
// fail with SQLITE_FULL). The child runs the four workload calls; the
// first call that meets the full disk must return -1. The space then comes
// back (the budget is lifted) and, on the same connection, the child takes
// the guide's one recovery step where the call leaves its transaction open
// (a multi-record add_item or rmv_item: "rollback;") and runs the call
// again, then the remaining calls; every one must return 0 (resumed). The
// parent reopens the file and checks integrity_check (intact) and that it
// holds exactly what the calls that returned 0 wrote (no committed row
// lost, nothing half applied). 24 budgets, or 240 with
// IPC_DB_FAULT_SCALE=full, spread over DELETE and WAL.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "FaultCampaign.h"
#include "FaultVfs.h"
#include "TestResults.h"

using namespace ipc_db_test;

namespace {

constexpr int kMaxCalls = 8;

struct Outcome {
  int32_t fullAt;              // 1 + index of the call that met the full disk
  int32_t fullResult;          // its result
  int32_t retryResult;         // the same call again, space back
  int32_t results[kMaxCalls];  // final result of each call
  int32_t ran;                 // calls run
};

struct Figures {
  long long budgets = 0, fullHit = 0, intact = 0, resumed = 0, rowsLost = 0;
  long long halfApplied = 0, failureValueOk = 0;
};

class StorageFullCampaign {
 public:
  StorageFullCampaign(const FaultSetting& setting, uint32_t seed, long long firstIndex)
      : setting_(setting), seed_(seed), firstIndex_(firstIndex) {}

  Figures Run(int points) {
    MakeBaseFile(base_.Path(), setting_);
    if (::testing::Test::HasFatalFailure()) return figures_;
    const long long growth = GrowthOfWorkload();
    EXPECT_GT(growth, 0) << setting_.Name();
    for (int i = 0; i < points && !::testing::Test::HasFatalFailure(); ++i) {
      const unsigned long long index = firstIndex_ + static_cast<unsigned long long>(i);
      if (PointSelected(index)) BudgetOnce(index, growth);
    }
    return figures_;
  }

 private:
  // Largest growth of the files during the workload, over their size at open.
  long long GrowthOfWorkload() {
    CopyBase(base_.Path(), work_.Path());
    Shared<long long> growth;
    ChildEnd end = RunChild([&] {
      FaultSession session;
      if (session.Open(work_.Path(), setting_) != 0) return 3;
      FaultVfs::ResetCounts();
      const long long atOpen = FaultVfs::TrackedBytes();
      for (const WorkCall& call : MakeWorkload(seed_)) {
        if (session.Run(call) != 0) return 4;
      }
      *growth = FaultVfs::PeakBytes() - atOpen;
      return 0;
    });
    EXPECT_TRUE(end.exited && end.status == 0) << setting_.Name() << " " << end.status;
    return *growth;
  }

  void BudgetOnce(unsigned long long index, long long growth) {
    const uint32_t pointSeed = PointSeed(seed_, index);
    std::mt19937 random(pointSeed);
    const long long room =
        static_cast<long long>(random() % static_cast<uint32_t>(growth));
    const std::vector<WorkCall> calls = MakeWorkload(pointSeed);
    SCOPED_TRACE(setting_.Name() + ", point " + std::to_string(index) + ", room " +
                 std::to_string(room));
    CopyBase(base_.Path(), work_.Path());
    outcome_.Clear();
    ChildEnd end = RunChild([&] {
      FaultSession session;
      if (session.Open(work_.Path(), setting_) != 0) return 3;
      FaultVfs::SetBudget(FaultVfs::TrackedBytes() + room);
      for (size_t k = 0; k < calls.size(); ++k) {
        long long rc = session.Run(calls[k]);
        if (rc != 0 && outcome_->fullAt == 0) {
          outcome_->fullAt = static_cast<int32_t>(k + 1);
          outcome_->fullResult = static_cast<int32_t>(rc);
          FaultVfs::SetBudget(-1);
          session.Recover(calls[k]);
          rc = session.Run(calls[k]);
          outcome_->retryResult = static_cast<int32_t>(rc);
        }
        outcome_->results[k] = static_cast<int32_t>(rc);
        outcome_->ran = static_cast<int32_t>(k + 1);
      }
      return 0;
    });
    FaultVfs::ForgetFiles();
    ASSERT_TRUE(end.exited && end.status == 0)
        << (end.exited ? "status " : "signal ") << end.status;
    ++figures_.budgets;
    Check(calls);
  }

  void Check(const std::vector<WorkCall>& calls) {
    const Outcome& outcome = *outcome_;
    bool resumed = true;
    BatchState expected = BaseState();
    for (size_t k = 0; k < calls.size(); ++k) {
      if (outcome.results[k] == 0) {
        ApplyCall(calls[k], &expected);
      } else {
        resumed = false;
      }
    }
    if (outcome.fullAt != 0) {
      ++figures_.fullHit;
      if (outcome.fullResult == -1) ++figures_.failureValueOk;
      EXPECT_EQ(outcome.fullResult, -1) << "the call meeting the full disk";
      resumed = resumed && outcome.retryResult == 0;
    }
    EXPECT_TRUE(resumed) << "call " << outcome.fullAt << " failed again with space back";
    if (resumed) ++figures_.resumed;
    Reopened reopened = ReopenAndRead(work_.Path(), setting_);
    const FileSeen& seen = reopened.seen;
    const bool intact = seen.readable && seen.integrityOk;
    EXPECT_TRUE(intact) << "code " << seen.code;
    if (!intact) return;
    ++figures_.intact;
    if (!EveryBatchWhole(seen)) ++figures_.halfApplied;
    const long long lost = RowsDiffering(expected, seen);
    figures_.rowsLost += lost;
    EXPECT_EQ(lost, 0);
  }

  FaultSetting setting_;
  uint32_t seed_;
  long long firstIndex_;
  TempDir base_;
  TempDir work_;
  Shared<Outcome> outcome_;
  Figures figures_;
};

TEST(StorageFull, BudgetsAcrossTheWorkload) {
  const uint32_t seed = StartCampaign("storage_full");
  const int points = ScaledPoints(120, 12);
  Figures total;
  long long firstIndex = 0;
  for (const FaultSetting& setting :
       {FaultSetting{"DELETE", "NORMAL", false}, FaultSetting{"WAL", "NORMAL", false}}) {
    Figures figures = StorageFullCampaign(setting, seed, firstIndex).Run(points);
    firstIndex += 100000;
    total.budgets += figures.budgets;
    total.fullHit += figures.fullHit;
    total.intact += figures.intact;
    total.resumed += figures.resumed;
    total.rowsLost += figures.rowsLost;
    total.halfApplied += figures.halfApplied;
    total.failureValueOk += figures.failureValueOk;
  }
  if (FaultPointOnly() >= 0) return;
  EXPECT_EQ(total.budgets, 2 * points);
  EXPECT_GT(total.fullHit, total.budgets / 2);  // the budgets land inside the workload
  JsonObject json;
  json.Add("budgets", total.budgets)
      .Add("intact", total.intact)
      .Add("resumed", total.resumed)
      .Add("committed_rows_lost", total.rowsLost)
      .Add("full_disk_met", total.fullHit)
      .Add("failure_value_returned", total.failureValueOk)
      .Add("half_applied", total.halfApplied)
      .Add("journal_modes", "DELETE, WAL")
      .Add("seed", static_cast<long long>(seed));
  std::printf("storage_full: %s\n", json.Text().c_str());
  WriteResultJson("faults", "storage_full", json.Text());
}

}  // namespace
