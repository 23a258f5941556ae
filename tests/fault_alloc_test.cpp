// Allocation failure. This program replaces the global operator new (all
// forms) so that it shares one countdown with SQLite's allocator
// (support/FaultVfs.h, FaultAlloc): the n-th allocation from the moment a
// point arms it fails, whether SQLite or the library asks for it (a failed
// operator new throws std::bad_alloc, as the standard one does). For each
// operation - opening (Init, OpenDB and a first count), createTable on an
// empty file, a multi-record add_item, get_item of every row, update_item,
// a two-list rmv_item - a counting run finds how many allocations it makes;
// then one point per allocation index runs it in a child with that
// allocation failing. Checked per point: the child ends on its own (an
// exception leaving a public call ends it by std::terminate: a crash); the
// call returns its success or its failure value; once the session is
// closed, sqlite3_memory_used() is back where it was before it opened,
// and under LeakSanitizer its recoverable check finds nothing (no leak); the parent finds
// the file intact and the call applied whole or not at all. Reduced scale samples 30
// points; IPC_DB_FAULT_SCALE=full runs every one.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "FaultCampaign.h"
#include "FaultVfs.h"
#include "TestResults.h"

using namespace ipc_db_test;

namespace {
std::atomic<long long> g_liveBlocks{0};
}  // namespace

// These functions are the replacement pair: GCC sees free() on a block from
// operator new and warns, not knowing that this operator new uses malloc.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  if (FaultAlloc::TakeAllocation()) throw std::bad_alloc();
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  ++g_liveBlocks;
  return block;
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return ::operator new(size, tag);
}
void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  --g_liveBlocks;
  std::free(block);
}
void operator delete[](void* block) noexcept { ::operator delete(block); }
void operator delete(void* block, std::size_t) noexcept { ::operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { ::operator delete(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept {
  ::operator delete(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  ::operator delete(block);
}

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
  long long leakedBlocks;
  long long leakedSqliteBytes;
  int32_t lsanLeaks;
  unsigned long long allocations;
};

struct Figures {
  long long points = 0, handled = 0, crashes = 0, leaks = 0, failed = 0, intact = 0;
  long long exceptions = 0;  // crashes where an exception left a public call
};

const FaultSetting kSetting{"DELETE", "NORMAL", false};

class AllocCampaign {
 public:
  explicit AllocCampaign(uint32_t seed) : calls_(MakeWorkload(seed)) {
    MakeBaseFile(base_.Path(), kSetting);
  }

  // Runs `operation` with allocation `failAt` failing (0: none) and fills
  // the report. Runs in the child.
  void Perform(Operation operation, unsigned long long failAt, Report* report) {
    const long long blocksBefore = g_liveBlocks;
    const long long sqliteBefore = sqlite3_memory_used();
    {
      FaultSession session;
      if (operation != Operation::kOpen && operation != Operation::kCreateTable &&
          session.Open(work_.Path(), kSetting) != 0) {
        _exit(3);
      }
      const unsigned long long before = FaultAlloc::Allocations();
      FaultAlloc::FailNth(failAt, false);
      long long rc = 0;
      try {
        rc = Call(operation, &session);
      } catch (...) {
        // An exception left a public call: an application would end in
        // std::terminate. End here, before unwinding meets a held lock.
        _exit(kExceptionExitStatus);
      }
      FaultAlloc::FailNth(0, false);
      report->allocations = FaultAlloc::Allocations() - before;
      report->result = rc == 0 ? 0 : rc == -1 || rc <= -200 ? 1 : 2;
      if (rc != 0 && (operation == Operation::kAdd || operation == Operation::kRemove)) {
        session.Execute("rollback;");
      }
    }
    // Reported, not judged: the log key guard linked into every test keeps
    // each log entry it checks, so live blocks grow with the log.
    report->leakedBlocks = g_liveBlocks - blocksBefore;
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
    EXPECT_NE(report->result, 2) << "neither success nor the failure value";
    if (report->result == 1) ++figures_.failed;
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

  long long Call(Operation operation, FaultSession* session) {
    switch (operation) {
      case Operation::kOpen: {
        long long rc = OpenEventDb(session->db(), work_.Path(), kFaultFile, "");
        if (rc != 0) return rc;
        Table table(&session->db(), session->schema().meta(), EventSchema::kAnalyzeName);
        DbFilters none(0);
        return table.get_item_cnt(none) == kFaultBaseBatches * kFaultRows ? 0 : -1;
      }
      case Operation::kCreateTable: {
        if (OpenEventDb(session->db(), work_.Path(), kFaultFile, "") != 0) return -201;
        std::unique_ptr<Table> table(session->db().createTable(
            session->schema().meta(), EventSchema::kAnalyzeName));
        return table != nullptr ? 0 : -1;
      }
      case Operation::kGet: {
        std::vector<Event> rows(kFaultBaseBatches * kFaultRows + 1);
        unsigned long long count = 0;
        DbFilters cols(0);
        DbFilters none(0);
        long long rc = session->table()->get_item(cols, none, count, rows.data());
        if (rc == 0 &&
            count != static_cast<unsigned long long>(kFaultBaseBatches) * kFaultRows) {
          return -2;  // a success that read a part
        }
        return rc;
      }
      case Operation::kAdd:
        return session->Run(CallOf(WorkCall::kAdd));
      case Operation::kUpdate:
        return session->Run(CallOf(WorkCall::kUpdate));
      case Operation::kRemove:
        return session->Run(CallOf(WorkCall::kRemove));
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
  TempDir base_;
  TempDir work_;
  Figures figures_;
};

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
      .Add("files_intact", figures.intact)
      .Add("points_in_all", static_cast<long long>(points.size()))
      .Add("seed", static_cast<long long>(seed));
  std::printf("alloc_failure: %s\n", json.Text().c_str());
  WriteResultJson("faults", "alloc_failure", json.Text());
}

}  // namespace
