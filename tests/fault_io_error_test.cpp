// I/O errors. For each journal mode (DELETE, TRUNCATE, WAL), each call of
// the workload (a multi-record add_item, an update_item, a two-list
// rmv_item) and each kind of operation (write, sync, truncate, read), a
// counting run finds how many such operations the call makes after the
// open; then one point per operation index fails exactly that operation
// (SQLITE_IOERR_WRITE, _FSYNC, _TRUNCATE, _READ), once or from there on
// (persistent, as failing flash does). The child runs the call on a copy
// of the base file, takes the guide's recovery step after a failed
// multi-record call and closes. The parent checks: the child ended on its
// own (no crash), and after reopening the file is intact and holds the
// state before the call or the state after it, never a part; a call that
// returned 0 is in the file. Reduced scale samples 36 points evenly;
// IPC_DB_FAULT_SCALE=full runs every one.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FaultCampaign.h"
#include "FaultVfs.h"
#include "TestResults.h"

using namespace ipc_db_test;

namespace {

struct OpKind {
  FaultOp op;
  int code;
  const char* name;
};

const OpKind kOpKinds[] = {{FaultOp::kWrite, SQLITE_IOERR_WRITE, "write"},
                           {FaultOp::kSync, SQLITE_IOERR_FSYNC, "sync"},
                           {FaultOp::kTruncate, SQLITE_IOERR_TRUNCATE, "truncate"},
                           {FaultOp::kRead, SQLITE_IOERR_READ, "read"}};

struct Point {
  FaultSetting setting;
  size_t call;  // index into the workload
  OpKind kind;
  unsigned long long n;
  bool persistent;
};

struct Figures {
  long long points = 0, atomic = 0, crashes = 0, failed = 0, succeeded = 0;
};

class IoErrorCampaign {
 public:
  explicit IoErrorCampaign(uint32_t seed) : seed_(seed), calls_(MakeWorkload(seed)) {}

  // Every point of every setting, in a fixed order.
  std::vector<Point> Points() {
    std::vector<Point> points;
    for (const char* journal : {"DELETE", "TRUNCATE", "WAL"}) {
      FaultSetting setting{journal, "NORMAL", false};
      MakeBase(setting);
      for (size_t call :
           {size_t{0}, CallOf(WorkCall::kUpdate), CallOf(WorkCall::kRemove)}) {
        for (const OpKind& kind : kOpKinds) {
          unsigned long long count = CountOps(setting, call, kind.op);
          for (unsigned long long n = 1; n <= count; ++n) {
            for (bool persistent : {false, true}) {
              points.push_back(Point{setting, call, kind, n, persistent});
            }
          }
        }
      }
    }
    return points;
  }

  void RunPoint(unsigned long long index, const Point& point) {
    const WorkCall& call = calls_[point.call];
    SCOPED_TRACE(std::string("point ") + std::to_string(index) + ": " +
                 point.setting.Name() + ", " + call.KindName() + ", " + point.kind.name +
                 " " + std::to_string(point.n) + (point.persistent ? " and after" : ""));
    MakeBase(point.setting);
    CopyBase(baseDir_[point.setting.journal]->Path(), work_.Path());
    ChildEnd end = RunChild([&] {
      FaultSession session;
      if (session.Open(work_.Path(), point.setting) != 0) return 3;
      FaultVfs::FailNth(point.kind.op, point.n, point.kind.code, point.persistent);
      long long rc = session.Run(call);
      if (!point.persistent) FaultVfs::Reset();
      if (rc != 0) session.Recover(call);
      session.Close();
      return rc == 0 ? 0 : 1;
    });
    FaultVfs::ForgetFiles();
    ++figures_.points;
    if (!end.exited || end.status > 1) {
      ++figures_.crashes;
      ADD_FAILURE() << "the child " << (end.exited ? "exited with " : "died of signal ")
                    << end.status;
      return;
    }
    (end.status == 0 ? figures_.succeeded : figures_.failed) += 1;
    BatchState before = BaseState();
    BatchState after = before;
    ApplyCall(call, &after);
    Reopened reopened = ReopenAndRead(work_.Path(), point.setting);
    const FileSeen& seen = reopened.seen;
    bool atomic = seen.readable && seen.integrityOk &&
                  (Matches(after, seen) || (end.status != 0 && Matches(before, seen)));
    EXPECT_TRUE(atomic) << "readable " << seen.readable << ", integrity "
                        << seen.integrityOk << ", call returned "
                        << (end.status == 0 ? "0" : "failure");
    if (atomic) ++figures_.atomic;
  }

  const Figures& figures() const { return figures_; }

 private:
  size_t CallOf(WorkCall::Kind kind) const {
    for (size_t i = 0; i < calls_.size(); ++i) {
      if (calls_[i].kind == kind) return i;
    }
    return 0;
  }

  void MakeBase(const FaultSetting& setting) {
    auto& dir = baseDir_[setting.journal];
    if (dir != nullptr) return;
    dir = std::make_unique<TempDir>();
    MakeBaseFile(dir->Path(), setting);
  }

  // Operations of `op` that `call` makes after the open.
  unsigned long long CountOps(const FaultSetting& setting, size_t call, FaultOp op) {
    CopyBase(baseDir_[setting.journal]->Path(), work_.Path());
    Shared<unsigned long long> count;
    ChildEnd end = RunChild([&] {
      FaultSession session;
      if (session.Open(work_.Path(), setting) != 0) return 3;
      FaultVfs::ResetCounts();
      if (session.Run(calls_[call]) != 0) return 4;
      *count = FaultVfs::Count(op);
      return 0;
    });
    FaultVfs::ForgetFiles();
    EXPECT_TRUE(end.exited && end.status == 0) << end.status;
    return *count;
  }

  uint32_t seed_;
  std::vector<WorkCall> calls_;
  std::map<std::string, std::unique_ptr<TempDir>> baseDir_;
  TempDir work_;
  Figures figures_;
};

TEST(IoError, EveryOperationOfThreeCalls) {
  const uint32_t seed = StartCampaign("io_error");
  IoErrorCampaign campaign(seed);
  std::vector<Point> points = campaign.Points();
  ASSERT_GT(points.size(), 100u);
  const size_t wanted = FaultScaleFull() ? points.size() : 36;
  const size_t step = std::max<size_t>(1, points.size() / wanted);
  for (size_t i = 0; i < points.size() && !::testing::Test::HasFatalFailure();
       i += step) {
    if (PointSelected(i)) campaign.RunPoint(i, points[i]);
  }
  if (FaultPointOnly() >= 0) return;
  const Figures& figures = campaign.figures();
  EXPECT_EQ(figures.atomic, figures.points);
  EXPECT_EQ(figures.crashes, 0);
  EXPECT_GT(figures.failed, 0);
  JsonObject json;
  json.Add("points", figures.points)
      .Add("atomic", figures.atomic)
      .Add("crashes", figures.crashes)
      .Add("calls_failed", figures.failed)
      .Add("calls_succeeded", figures.succeeded)
      .Add("points_in_all", static_cast<long long>(points.size()))
      .Add("journal_modes", "DELETE, TRUNCATE, WAL")
      .Add("seed", static_cast<long long>(seed));
  std::printf("io_error: %s\n", json.Text().c_str());
  WriteResultJson("faults", "io_error", json.Text());
}

}  // namespace
