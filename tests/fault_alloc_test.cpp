// Allocation failure. This program links the replaced operator new of
// support/FailingOperatorNew.h, which shares one countdown with SQLite's
// allocator (support/FaultVfs.h, FaultAlloc): the n-th allocation made
// inside the library's calls fails, whether SQLite or the library asks for
// it (a failed operator new throws std::bad_alloc, as the standard one
// does). The countdown runs only while a library call runs; the test makes
// its arguments before. For each operation - opening (Init, OpenDB and a
// first count), createTable on an empty file, a multi-record add_item,
// get_item of every row, update_item, a two-list rmv_item - a counting run
// finds how many allocations its calls make; then one point per
// allocation index runs it in a child with that allocation failing.
// Checked per point: the child ends on its own (an exception leaving a
// public call would end an application by std::terminate: a crash); the
// call returns its success or its failure value; once the session is
// closed, sqlite3_memory_used() is back where it was before it opened, and
// under LeakSanitizer its recoverable check finds nothing (no leak); the
// parent finds the file intact and the call applied whole or not at all.
// Reduced scale samples 30 points; IPC_DB_FAULT_SCALE=full runs every one.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FailingOperatorNew.h"
#include "FaultCampaign.h"
#include "FaultVfs.h"
#include "TestResults.h"

using namespace ipc_db_test;

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace {

enum class Operation { kOpen, kCreateTable, kAdd, kGet, kUpdate, kRemove };

const char* NameOf(Operation operation) {
  switch (operation) {
    case Operation::kOpen:
      return "open";
    case Operation::kCreateTable:
      return "createTable";
    case Operation::kAdd:
      return "add_item";
    case Operation::kGet:
      return "get_item";
    case Operation::kUpdate:
      return "update_item";
    case Operation::kRemove:
      return "rmv_item";
  }
  return "?";
}

struct Report {
  int32_t result;  // 0 success, 1 failure value, 2 another value
  long long rc;    // what the operation answered (-2: more rows than there are)
  int32_t partialRead;  // get_item answered 0 having read a part of the rows
  long long leakedBlocks;
  long long leakedSqliteBytes;
  int32_t lsanLeaks;
  unsigned long long allocations;
};

struct Figures {
  long long points = 0, handled = 0, crashes = 0, leaks = 0, failed = 0, intact = 0;
  long long exceptions = 0;  // crashes where an exception left a public call
  long long partialReads = 0;
};

const FaultSetting kSetting{"DELETE", "NORMAL", false};

// Counts and fails allocations only while a library call runs: the
// allocation `failAt` (1-based, over the calls of one operation; 0: none)
// fails, whichever call makes it. An exception that leaves a call ends the
// child at once (an application would end in std::terminate), before
// unwinding meets a held lock.
class Countdown {
 public:
  explicit Countdown(unsigned long long failAt) : remaining_(failAt) {}

  template <typename Call>
  long long Run(Call call) {
    FaultAlloc::FailNth(remaining_, false);
    const unsigned long long before = FaultAlloc::Allocations();
    long long rc = 0;
    try {
      rc = call();
    } catch (...) {
      _exit(kExceptionExitStatus);
    }
    FaultAlloc::FailNth(0, false);
    const unsigned long long used = FaultAlloc::Allocations() - before;
    counted_ += used;
    remaining_ = remaining_ > used ? remaining_ - used : 0;
    return rc;
  }
  unsigned long long counted() const { return counted_; }

 private:
  unsigned long long remaining_;
  unsigned long long counted_ = 0;
};

class AllocCampaign {
 public:
  explicit AllocCampaign(uint32_t seed) : calls_(MakeWorkload(seed)) {
    MakeBaseFile(base_.Path(), kSetting);
  }

  // Runs `operation` with allocation `failAt` failing (0: none) and fills
  // the report. Runs in the child.
  void Perform(Operation operation, unsigned long long failAt, Report* report) {
    const long long blocksBefore = LiveOperatorNewBlocks();
    const long long sqliteBefore = sqlite3_memory_used();
    {
      FaultSession session;
      if (operation != Operation::kOpen && operation != Operation::kCreateTable &&
          session.Open(work_.Path(), kSetting) != 0) {
        _exit(3);
      }
      Countdown countdown(failAt);
      const long long rc = Call(operation, &session, &countdown);
      report->allocations = countdown.counted();
      report->rc = rc;
      report->partialRead = partialReads_;
      report->result = rc == 0 ? 0 : rc == -1 || rc <= -200 ? 1 : 2;
      if (rc != 0 && (operation == Operation::kAdd || operation == Operation::kRemove)) {
        session.Execute("rollback;");
      }
    }
    // Reported, not judged: the log key guard linked into every test keeps
    // each log entry it checks, so live blocks grow with the log.
    report->leakedBlocks = LiveOperatorNewBlocks() - blocksBefore;
    report->leakedSqliteBytes = sqlite3_memory_used() - sqliteBefore;
    if (__lsan_do_recoverable_leak_check != nullptr) {
      report->lsanLeaks = __lsan_do_recoverable_leak_check();
    }
  }

  void WarmUp() {
    for (Operation operation : kOperations) {
      Prepare(operation);
      Report report{};
      Perform(operation, 0, &report);
    }
  }

  unsigned long long CountAllocations(Operation operation) {
    Prepare(operation);
    Shared<Report> report;
    ChildEnd end = RunChild([&] {
      Perform(operation, 0, &*report);
      return 0;
    });
    FaultVfs::ForgetFiles();
    EXPECT_TRUE(end.exited && end.status == 0) << NameOf(operation);
    EXPECT_EQ(report->result, 0) << NameOf(operation);
    EXPECT_EQ(report->leakedSqliteBytes, 0) << NameOf(operation) << " without a failure";
    return report->allocations;
  }

  void RunPoint(size_t index, Operation operation, unsigned long long failAt) {
    SCOPED_TRACE(std::string("point ") + std::to_string(index) + ": " +
                 NameOf(operation) + ", allocation " + std::to_string(failAt));
    Prepare(operation);
    Shared<Report> report;
    ChildEnd end = RunChild([&] {
      Perform(operation, failAt, &*report);
      return 0;
    });
    FaultVfs::ForgetFiles();
    ++figures_.points;
    if (!end.exited || end.status != 0) {
      ++figures_.crashes;
      if (end.exited && end.status == kExceptionExitStatus) ++figures_.exceptions;
      ADD_FAILURE() << "the child " << (end.exited ? "exited with " : "died of signal ")
                    << end.status;
      return;
    }
    const bool leaked = report->leakedSqliteBytes != 0 || report->lsanLeaks != 0;
    if (leaked) ++figures_.leaks;
    EXPECT_FALSE(leaked) << report->leakedSqliteBytes << " SQLite bytes, LeakSanitizer "
                         << report->lsanLeaks;
    EXPECT_NE(report->result, 2) << "neither success nor the failure value: " << report->rc;
    if (report->result == 1) ++figures_.failed;
    if (report->partialRead != 0) ++figures_.partialReads;
    const bool intact = FileIntact(operation, report->result == 0);
    if (intact) ++figures_.intact;
    if (!leaked && report->result != 2 && intact) ++figures_.handled;
  }

  static constexpr Operation kOperations[] = {Operation::kOpen,   Operation::kCreateTable,
                                              Operation::kAdd,    Operation::kGet,
                                              Operation::kUpdate, Operation::kRemove};
  const Figures& figures() const { return figures_; }

 private:
  void Prepare(Operation operation) {
    CopyBase(base_.Path(), work_.Path());
    if (operation == Operation::kCreateTable)
      std::remove((work_.Path() + kFaultFile).c_str());
  }

  const WorkCall& CallOf(WorkCall::Kind kind) const {
    for (const WorkCall& call : calls_) {
      if (call.kind == kind) return call;
    }
    return calls_[0];
  }

  // The operation's library calls, each run through `countdown`; the
  // arguments are made before, so that only the library's own allocations
  // are counted and failed.
  long long Call(Operation operation, FaultSession* session, Countdown* countdown) {
    Db& db = session->db();
    Meta* meta = session->schema().meta();
    switch (operation) {
      case Operation::kOpen: {
        const std::string dir = work_.Path();
        const std::string file = kFaultFile;
        const std::string journal = file + "-journal";
        char key[1] = {'\0'};
        long long rc = countdown->Run([&] { return db.Init(0, dir, file, journal, key, 0); });
        if (rc != 0) return -1;
        rc = countdown->Run([&] { return db.OpenDB(); });
        if (rc != 0) return rc;
        std::optional<Table> table;
        table.emplace(&db, meta, EventSchema::kAnalyzeName);
        DbFilters none(0);
        rc = countdown->Run([&] { return table->get_item_cnt(none); });
        if (rc < 0) return rc;
        return rc == kFaultBaseBatches * kFaultRows ? 0 : -2;
      }
      case Operation::kCreateTable: {
        if (OpenEventDb(db, work_.Path(), kFaultFile, "") != 0) return -201;
        Table* made = nullptr;
        countdown->Run([&] {
          made = db.createTable(meta, EventSchema::kAnalyzeName);
          return 0LL;
        });
        std::unique_ptr<Table> table(made);
        return table != nullptr ? 0 : -1;
      }
      case Operation::kGet: {
        std::vector<Event> rows(kFaultBaseBatches * kFaultRows + 1);
        unsigned long long count = 0;
        DbFilters cols(0);
        DbFilters none(0);
        const long long rc = countdown->Run(
            [&] { return session->table()->get_item(cols, none, count, rows.data()); });
        // get_item answers 0 also when stepping stopped early on an error,
        // with itemcnt the rows read: such a read is counted, and must not
        // claim more rows than the table holds.
        const unsigned long long all =
            static_cast<unsigned long long>(kFaultBaseBatches) * kFaultRows;
        if (rc == 0 && count > all) return -2;
        if (rc == 0 && count < all) partialReads_ = 1;
        return rc;
      }
      case Operation::kAdd: {
        const WorkCall& call = CallOf(WorkCall::kAdd);
        std::vector<Event> events = MakeBatch(call.batch, kFaultRows, 0);
        DbFilters all(0);
        return countdown->Run([&] {
          return session->table()->add_item(events.data(), events.size(), all);
        });
      }
      case Operation::kUpdate: {
        const WorkCall& call = CallOf(WorkCall::kUpdate);
        EventSchema& schema = session->schema();
        DbFilters set(1, new DbFilter(schema.value(), DB_FILTER_OP_EQ,
                                      ValueSlot(call.value), nullptr));
        DbFilters where(1, new DbFilter(schema.batch(), DB_FILTER_OP_EQ,
                                        ValueSlot(call.batch), nullptr));
        return countdown->Run([&] { return session->table()->update_item(set, where); });
      }
      case Operation::kRemove: {
        const WorkCall& call = CallOf(WorkCall::kRemove);
        EventSchema& schema = session->schema();
        DbFilters lists[2] = {DbFilters(1, new DbFilter(schema.batch(), DB_FILTER_OP_EQ,
                                                        ValueSlot(call.batch), nullptr)),
                              DbFilters(1, new DbFilter(schema.batch(), DB_FILTER_OP_EQ,
                                                        ValueSlot(call.batch2), nullptr))};
        return countdown->Run([&] { return session->table()->rmv_item(lists, 2); });
      }
    }
    return -2;
  }

  bool FileIntact(Operation operation, bool succeeded) {
    if (operation == Operation::kCreateTable) {
      FileSeen seen = ReadFileRaw(work_.Path() + kFaultFile, "");
      // Without the table the count fails; the file must still be sound.
      return seen.integrityOk || (!succeeded && seen.code == SQLITE_ERROR);
    }
    Reopened reopened = ReopenAndRead(work_.Path(), kSetting);
    const FileSeen& seen = reopened.seen;
    BatchState before = BaseState();
    BatchState after = before;
    if (operation == Operation::kAdd) ApplyCall(CallOf(WorkCall::kAdd), &after);
    if (operation == Operation::kUpdate) ApplyCall(CallOf(WorkCall::kUpdate), &after);
    if (operation == Operation::kRemove) ApplyCall(CallOf(WorkCall::kRemove), &after);
    bool intact = seen.readable && seen.integrityOk &&
                  (Matches(after, seen) || (!succeeded && Matches(before, seen)));
    EXPECT_TRUE(intact) << "readable " << seen.readable << ", integrity "
                        << seen.integrityOk;
    return intact;
  }

  std::vector<WorkCall> calls_;
  int32_t partialReads_ = 0;
  TempDir base_;
  TempDir work_;
  Figures figures_;
};

// createTable allocates its Table before the statement text; a failure
// there once leaked the Table (found by this campaign under LeakSanitizer).
// Every allocation point of createTable runs here at any scale.
TEST(AllocFailure, EveryAllocationOfCreateTable) {
  FaultAlloc::Install();
  const uint32_t seed = StartCampaign("alloc_failure_create_table");
  AllocCampaign campaign(seed);
  campaign.WarmUp();
  const unsigned long long count = campaign.CountAllocations(Operation::kCreateTable);
  EXPECT_GT(count, 10u);
  for (unsigned long long n = 1; n <= count && !::testing::Test::HasFatalFailure(); ++n) {
    campaign.RunPoint(static_cast<size_t>(n), Operation::kCreateTable, n);
  }
  EXPECT_EQ(campaign.figures().handled, campaign.figures().points);
  EXPECT_EQ(campaign.figures().leaks, 0);
}

TEST(AllocFailure, EveryAllocationOfSixOperations) {
  FaultAlloc::Install();
  const uint32_t seed = StartCampaign("alloc_failure");
  AllocCampaign campaign(seed);
  campaign.WarmUp();  // first-use allocations happen here, not inside a point
  std::vector<std::pair<Operation, unsigned long long>> points;
  for (Operation operation : AllocCampaign::kOperations) {
    unsigned long long count = campaign.CountAllocations(operation);
    EXPECT_GT(count, 0u) << NameOf(operation);
    for (unsigned long long n = 1; n <= count; ++n) points.emplace_back(operation, n);
  }
  const size_t wanted = FaultScaleFull() ? points.size() : 30;
  const size_t step = std::max<size_t>(1, points.size() / wanted);
  for (size_t i = 0; i < points.size() && !::testing::Test::HasFatalFailure();
       i += step) {
    if (PointSelected(i)) campaign.RunPoint(i, points[i].first, points[i].second);
  }
  if (FaultPointOnly() >= 0) return;
  const Figures& figures = campaign.figures();
  EXPECT_EQ(figures.handled, figures.points);
  JsonObject json;
  json.Add("points", figures.points)
      .Add("handled", figures.handled)
      .Add("crashes", figures.crashes)
      .Add("leaks", figures.leaks)
      .Add("crashes_by_an_escaping_exception", figures.exceptions)
      .Add("calls_failed", figures.failed)
      .Add("get_item_partial_reads_answered_0", figures.partialReads)
      .Add("files_intact", figures.intact)
      .Add("points_in_all", static_cast<long long>(points.size()))
      .Add("seed", static_cast<long long>(seed));
  std::printf("alloc_failure: %s\n", json.Text().c_str());
  WriteResultJson("faults", "alloc_failure", json.Text());
}

}  // namespace
