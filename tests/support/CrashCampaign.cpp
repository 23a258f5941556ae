// The crash-consistency campaign: the writing child, the parent's kills and
// the checks after every kill (see CrashCampaign.h).
#include "CrashCampaign.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ReliabilityTestSupport.h"
#include "TestResults.h"

namespace ipc_db_test {
namespace {

constexpr int kCrashBatchRows = 100;

// One pipe message (written whole: far below PIPE_BUF).
struct CrashMessage {
  enum Op : int32_t { kAdd = 1, kUpdate = 2, kRemove = 3 };
  enum Phase : int32_t { kStart = 1, kDone = 2, kFailed = 3 };
  int32_t op;
  int32_t phase;
  int32_t batch;   // add, update; first batch of a remove
  int32_t batch2;  // second batch of a remove
  int32_t value;   // update
};

// ---- The child --------------------------------------------------------------

class CrashWriter {
 public:
  CrashWriter(const std::string& dir, int pipeFd, int32_t firstBatch, uint32_t seed)
      : dir_(dir), pipeFd_(pipeFd), nextBatch_(firstBatch), random_(seed) {}

  // Writes until killed (or for at most 20 s). Never returns.
  [[noreturn]] void Run() {
    Db db;
    if (OpenEventDb(db, dir_, "crash.db", "") != 0) _exit(2);
    std::unique_ptr<Table> table(
        db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    if (table == nullptr) _exit(3);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      unsigned roll = random_() % 10;
      if (roll < 5 || mine_.empty()) {
        Add(table.get());
      } else if (roll < 7) {
        Update(table.get());
      } else {
        Remove(table.get());
      }
    }
    _exit(0);
  }

 private:
  void Send(int32_t op, int32_t phase, int32_t batch, int32_t batch2, int32_t value) {
    CrashMessage message{op, phase, batch, batch2, value};
    if (write(pipeFd_, &message, sizeof(message)) != sizeof(message)) _exit(4);
  }

  void Add(Table* table) {
    int32_t batch = nextBatch_++;
    std::vector<Event> events = MakeBatch(batch, kCrashBatchRows, 0);
    Send(CrashMessage::kAdd, CrashMessage::kStart, batch, 0, 0);
    bool ok = table->add_item(events.data(), events.size(), DbFilters(0)) == 0;
    Send(CrashMessage::kAdd, ok ? CrashMessage::kDone : CrashMessage::kFailed, batch, 0,
         0);
    if (ok) mine_.push_back(batch);
  }

  void Update(Table* table) {
    int32_t batch = mine_[random_() % mine_.size()];
    int32_t value = static_cast<int32_t>(random_() % 1000000) + 1;
    DbFilters set(
        1, new DbFilter(schema_.value(), DB_FILTER_OP_EQ, ValueSlot(value), nullptr));
    DbFilters where(
        1, new DbFilter(schema_.batch(), DB_FILTER_OP_EQ, ValueSlot(batch), nullptr));
    Send(CrashMessage::kUpdate, CrashMessage::kStart, batch, 0, value);
    bool ok = table->update_item(set, where) == 0;
    Send(CrashMessage::kUpdate, ok ? CrashMessage::kDone : CrashMessage::kFailed, batch,
         0, value);
  }

  // Removes the two oldest batches in the file with one two-list call.
  void Remove(Table* table) {
    int32_t first = 0;
    int32_t second = 0;
    if (!Oldest(table, 0, &first) || !Oldest(table, first, &second)) return;
    DbFilters lists[2] = {DbFilters(1, new DbFilter(schema_.batch(), DB_FILTER_OP_EQ,
                                                    ValueSlot(first), nullptr)),
                          DbFilters(1, new DbFilter(schema_.batch(), DB_FILTER_OP_EQ,
                                                    ValueSlot(second), nullptr))};
    Send(CrashMessage::kRemove, CrashMessage::kStart, first, second, 0);
    bool ok = table->rmv_item(lists, 2) == 0;
    Send(CrashMessage::kRemove, ok ? CrashMessage::kDone : CrashMessage::kFailed, first,
         second, 0);
    for (int32_t gone : {first, second}) {
      for (size_t i = 0; i < mine_.size(); ++i) {
        if (mine_[i] == gone) {
          mine_.erase(mine_.begin() + static_cast<long>(i));
          break;
        }
      }
    }
  }

  // The smallest batch number above `above`, through get_item_min.
  bool Oldest(Table* table, int32_t above, int32_t* batch) {
    DbFilters col(1, new DbFilter(schema_.batch(), DB_FILTER_OP_EQ, nullptr, nullptr));
    DbFilters filters(
        1, new DbFilter(schema_.batch(), DB_FILTER_OP_GT, ValueSlot(above), nullptr));
    std::string out;
    long long result = table->get_item_min(col, filters, out);
    if (out.empty()) return false;
    *batch = static_cast<int32_t>(result);
    return true;
  }

  std::string dir_;
  int pipeFd_;
  int32_t nextBatch_;
  std::mt19937 random_;
  EventSchema schema_;
  std::vector<int32_t> mine_;  // batches added by this child and not removed
};

// ---- The parent ---------------------------------------------------------------

struct CrashCampaignResult {
  int kills = 0;           // children killed with SIGKILL
  int survived = 0;        // kills after which every check held
  long long rowsLost = 0;  // rows of finished calls missing after a kill
  long long callsFinished = 0;
  int cutInAdd = 0, cutInUpdate = 0, cutInRemove = 0, cutBetweenCalls = 0;
  long long finalRows = 0;
};

class CrashCampaign {
 public:
  CrashCampaign(const std::string& dir, uint32_t seed) : dir_(dir), seed_(seed) {}

  CrashCampaignResult Run(int kills) {
    CreateTable();
    std::mt19937 random(seed_);
    for (int run = 0; run < kills && !::testing::Test::HasFatalFailure(); ++run) {
      uint32_t childSeed = random();
      int delayMs = 2 + static_cast<int>(random() % 150);
      KillOnce(run, childSeed, delayMs);
    }
    return result_;
  }

 private:
  void CreateTable() {
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir_, "crash.db", ""), 0);
    std::unique_ptr<Table> table(
        db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(db.UnInit(), 0);
  }

  void KillOnce(int run, uint32_t childSeed, int delayMs) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(fds[0]);
      CrashWriter(dir_, fds[1], (run + 1) * 100000, childSeed).Run();
    }
    close(fds[1]);
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    std::vector<CrashMessage> messages = Drain(fds[0]);
    close(fds[0]);
    std::ostringstream where;
    where << "seed " << seed_ << ", kill " << run << " after " << delayMs << " ms";
    SCOPED_TRACE(where.str());
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the child ended on its own with status " << status;
    ++result_.kills;
    int failuresBefore = ::testing::UnitTest::GetInstance()
                             ->current_test_info()
                             ->result()
                             ->total_part_count();
    Check(messages);
    int failuresAfter = ::testing::UnitTest::GetInstance()
                            ->current_test_info()
                            ->result()
                            ->total_part_count();
    if (failuresAfter == failuresBefore) ++result_.survived;
  }

  static std::vector<CrashMessage> Drain(int fd) {
    std::vector<CrashMessage> messages;
    std::string bytes;
    char buffer[4096];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof(buffer))) > 0) bytes.append(buffer, got);
    for (size_t at = 0; at + sizeof(CrashMessage) <= bytes.size();
         at += sizeof(CrashMessage)) {
      CrashMessage message;
      std::memcpy(&message, bytes.data() + at, sizeof(message));
      messages.push_back(message);
    }
    return messages;
  }

  // Batch -> (rows, lowest value, highest value, lowest seq, highest seq),
  // read through the library after reopening.
  struct Observed {
    long long rows, minValue, maxValue, minSeq, maxSeq;
  };

  std::map<int32_t, Observed> Observe(Db& db) {
    std::map<int32_t, Observed> batches;
    DB_EXEC_RESULT result = {0, 0, nullptr};
    long long code = db.m_pDBConn->ExecuteSQL(
        "select Batch, count(*), min(Value), max(Value), min(Seq), max(Seq) from t_event "
        "group by Batch;",
        &result, DB_EXEC_SQL_SYNC);
    EXPECT_EQ(code, 0);
    for (int row = 1; code == 0 && row <= result.iRowCount; ++row) {
      char** cells = result.ppszResult + row * result.iColumnCount;
      batches[std::atoi(cells[0])] =
          Observed{std::atoll(cells[1]), std::atoll(cells[2]), std::atoll(cells[3]),
                   std::atoll(cells[4]), std::atoll(cells[5])};
    }
    db.m_pDBConn->FreeExecuteResult(&result);
    return batches;
  }

  void Check(const std::vector<CrashMessage>& messages) {
    // Apply every finished call to the model; remember the one cut short.
    const CrashMessage* cut = nullptr;
    for (const CrashMessage& message : messages) {
      if (message.phase == CrashMessage::kStart) {
        cut = &message;
        continue;
      }
      cut = nullptr;
      EXPECT_EQ(message.phase, CrashMessage::kDone)
          << "a call failed in the child, op " << message.op;
      if (message.phase != CrashMessage::kDone) continue;
      ++result_.callsFinished;
      Apply(message, &model_);
    }
    if (cut == nullptr) {
      ++result_.cutBetweenCalls;
    } else if (cut->op == CrashMessage::kAdd) {
      ++result_.cutInAdd;
    } else if (cut->op == CrashMessage::kUpdate) {
      ++result_.cutInUpdate;
    } else {
      ++result_.cutInRemove;
    }

    Db db;
    ASSERT_EQ(OpenEventDb(db, dir_, "crash.db", ""), 0);
    EXPECT_EQ(ExecuteScalar(db, "PRAGMA integrity_check;", "<failed>"), "ok");
    std::map<int32_t, Observed> seen = Observe(db);
    Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
    DbFilters none(0);
    result_.finalRows = table.get_item_cnt(none);
    EXPECT_EQ(db.UnInit(), 0);

    // Every batch in the file is whole: all its rows, one value.
    for (const auto& [batch, observed] : seen) {
      EXPECT_EQ(observed.rows, kCrashBatchRows) << "batch " << batch;
      EXPECT_EQ(observed.minSeq, 0) << "batch " << batch;
      EXPECT_EQ(observed.maxSeq, kCrashBatchRows - 1) << "batch " << batch;
      EXPECT_EQ(observed.minValue, observed.maxValue) << "batch " << batch;
    }
    // The call cut short happened completely or not at all.
    std::map<int32_t, int32_t> withCut = model_;
    if (cut != nullptr) Apply(*cut, &withCut);
    const bool matchesBefore = Matches(model_, seen);
    const bool matchesAfter = Matches(withCut, seen);
    EXPECT_TRUE(matchesBefore || matchesAfter)
        << "the file holds neither the state before the interrupted call nor the one "
           "after it";
    if (matchesAfter && !matchesBefore) model_ = withCut;
    if (!matchesBefore && !matchesAfter) {
      for (const auto& [batch, value] : model_) {
        auto found = seen.find(batch);
        if (found == seen.end()) {
          result_.rowsLost += kCrashBatchRows;
        } else if (found->second.rows < kCrashBatchRows) {
          result_.rowsLost += kCrashBatchRows - found->second.rows;
        }
      }
      model_ = Snapshot(seen);  // go on from what is there
    }
  }

  static void Apply(const CrashMessage& message, std::map<int32_t, int32_t>* model) {
    switch (message.op) {
      case CrashMessage::kAdd:
        (*model)[message.batch] = 0;
        break;
      case CrashMessage::kUpdate:
        (*model)[message.batch] = message.value;
        break;
      case CrashMessage::kRemove:
        model->erase(message.batch);
        model->erase(message.batch2);
        break;
    }
  }

  static bool Matches(const std::map<int32_t, int32_t>& model,
                      const std::map<int32_t, Observed>& seen) {
    if (model.size() != seen.size()) return false;
    for (const auto& [batch, value] : model) {
      auto found = seen.find(batch);
      if (found == seen.end() || found->second.rows != kCrashBatchRows ||
          found->second.minValue != value || found->second.maxValue != value) {
        return false;
      }
    }
    return true;
  }

  static std::map<int32_t, int32_t> Snapshot(const std::map<int32_t, Observed>& seen) {
    std::map<int32_t, int32_t> model;
    for (const auto& [batch, observed] : seen) {
      model[batch] = static_cast<int32_t>(observed.minValue);
    }
    return model;
  }

  std::string dir_;
  uint32_t seed_;
  EventSchema schema_;
  std::map<int32_t, int32_t> model_;  // batch -> value of every batch that must be there
  CrashCampaignResult result_;
};

}  // namespace

// The campaign's seed: IPC_DB_CRASH_SEED when set (to replay a failure),
// else drawn from the clock.
uint32_t CrashSeed() {
  const char* fixed = std::getenv("IPC_DB_CRASH_SEED");
  if (fixed != nullptr && *fixed != '\0') {
    return static_cast<uint32_t>(std::strtoul(fixed, nullptr, 10));
  }
  return static_cast<uint32_t>(
      std::chrono::steady_clock::now().time_since_epoch().count() & 0xFFFFFFFFu);
}

// Runs `kills` kills in a fresh directory and reports the outcome.
void RunCrashCampaign(const std::string& name, int kills) {
  uint32_t seed = CrashSeed();
  std::printf("crash campaign %s: seed %u (replay with IPC_DB_CRASH_SEED=%u)\n",
              name.c_str(), seed, seed);
  TempDir dir;
  auto started = std::chrono::steady_clock::now();
  CrashCampaignResult result = CrashCampaign(dir.Path(), seed).Run(kills);
  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  EXPECT_EQ(result.kills, kills);
  EXPECT_EQ(result.survived, result.kills);
  EXPECT_EQ(result.rowsLost, 0);
  // The kills must land inside calls, not only between them.
  EXPECT_GT(result.cutInAdd, 0);
  JsonObject json;
  json.Add("test", name)
      .Add("seed", static_cast<long long>(seed))
      .Add("kills", result.kills)
      .Add("survived", result.survived)
      .Add("rows_lost", result.rowsLost)
      .Add("calls_finished", result.callsFinished)
      .Add("cut_in_add_item", result.cutInAdd)
      .Add("cut_in_update_item", result.cutInUpdate)
      .Add("cut_in_rmv_item", result.cutInRemove)
      .Add("cut_between_calls", result.cutBetweenCalls)
      .Add("rows_at_end", result.finalRows)
      .Add("seconds", seconds);
  WriteResultJson("crash", name, json.Text());
}

}  // namespace ipc_db_test
