// The tests' environment under the shipped library: the repair tool's
// device path rewritten to the build tree's stand-in, real files, and a
// clock that either is the real one or moves only when the test (or a sleep)
// moves it.
#include "TestEnv.h"

#include <errno.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

#include "TestSupport.h"
#include "base/Env.h"

namespace ipc_db_test {

namespace {

using ipc_db::testing::Env;

constexpr unsigned long long kMicrosPerMs = 1000ULL;

}  // namespace

class TestEnv::Impl : public Env {
 public:
  Impl(Clock clock, long realSleepCapMs)
      : fake_(clock == Clock::kFake),
        realSleepCapMs_(realSleepCapMs),
        real_(ipc_db::testing::DefaultEnv()),
        start_(real_->NowMicros()),
        now_(start_) {}

  long long RunShell(const char* command, int timeoutSeconds) override {
    if (command == nullptr) return real_->RunShell(command, timeoutSeconds);
    std::string ran = ToolCommand(command);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      shellCommands_.push_back(ran);
    }
    return real_->RunShell(ran.c_str(), timeoutSeconds);
  }
  long long CheckFileAccess(const char* path) override { return real_->CheckFileAccess(path); }
  long long ChangeFileMode(const char* path, unsigned int mode) override {
    return real_->ChangeFileMode(path, mode);
  }
  long long CheckDirectory(const char* path) override { return real_->CheckDirectory(path); }
  int MakeDirectory(const char* path, unsigned int mode) override {
    return real_->MakeDirectory(path, mode);
  }
  int RemoveFile(const char* path) override { return real_->RemoveFile(path); }
  int RenameFile(const char* from, const char* to) override {
    return real_->RenameFile(from, to);
  }

  int SleepMs(unsigned long long ms) override {
    size_t count = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      sleeps_.push_back(ms);
      count = sleeps_.size();
    }
    int result = 0;  // select's result for a completed sleep
    if (fake_) {
      Advance(static_cast<long long>(ms));
      long realMs = std::min<long>(static_cast<long>(ms), realSleepCapMs_);
      if (realMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(realMs));
    } else {
      result = real_->SleepMs(ms);
    }
    if (sleepHook_) sleepHook_(count);
    return result;
  }

  void OnSleep(std::function<void(size_t)> hook) { sleepHook_ = std::move(hook); }

  unsigned long long NowMicros() override { return fake_ ? now_.load() : real_->NowMicros(); }

  // Fake clock: waits without a real time limit until signalled, or until
  // an Advance brings the clock to the deadline (and wakes it).
  int WaitForSignal(pthread_cond_t* cond, pthread_mutex_t* queueMutex,
                    unsigned long long deadlineMicros) override {
    if (!fake_) return real_->WaitForSignal(cond, queueMutex, deadlineMicros);
    unsigned long long id = Register(cond, queueMutex, deadlineMicros);
    int result = ETIMEDOUT;
    if (now_.load() < deadlineMicros) {
      MarkBlocked(id);
      pthread_cond_wait(cond, queueMutex);
      // Woken before the deadline: by a signal (or spuriously), as a real
      // timed wait would be.
      if (now_.load() < deadlineMicros) result = 0;
    }
    Unregister(id);
    return result;
  }

  void Advance(long long ms) {
    unsigned long long now =
        now_.fetch_add(static_cast<unsigned long long>(ms) * kMicrosPerMs) +
        static_cast<unsigned long long>(ms) * kMicrosPerMs;
    std::vector<Wait> due;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const Wait& wait : waits_) {
        if (wait.deadline <= now) due.push_back(wait);
      }
    }
    // A wait reads the clock with its queue's mutex held and releases it
    // only inside pthread_cond_wait: broadcasting under that mutex cannot
    // fall between its look and its block. A wait not yet listed reads the
    // clock after this Advance moved it.
    for (const Wait& wait : due) {
      pthread_mutex_lock(wait.mutex);
      pthread_cond_broadcast(wait.cond);
      pthread_mutex_unlock(wait.mutex);
    }
  }

  // The first blocked wait, if any.
  bool BlockedWait(WaitState* state) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Wait& wait : waits_) {
      if (!wait.blocked) continue;
      state->id = wait.id;
      unsigned long long now = now_.load();
      unsigned long long remaining = wait.deadline > now ? wait.deadline - now : 0;
      state->remainingMs =
          static_cast<long long>((remaining + kMicrosPerMs - 1) / kMicrosPerMs);
      return true;
    }
    return false;
  }

  bool WaitEnded(const WaitState& state) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::none_of(waits_.begin(), waits_.end(),
                        [&](const Wait& wait) { return wait.id == state.id; });
  }

  long long ElapsedMs() const {
    return static_cast<long long>((now_.load() - start_) / kMicrosPerMs);
  }
  std::vector<unsigned long long> Sleeps() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sleeps_;
  }
  std::vector<std::string> ShellCommands() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return shellCommands_;
  }

 private:
  struct Wait {
    unsigned long long id;
    pthread_cond_t* cond;
    pthread_mutex_t* mutex;
    unsigned long long deadline;
    bool blocked;
  };

  unsigned long long Register(pthread_cond_t* cond, pthread_mutex_t* queueMutex,
                              unsigned long long deadline) {
    std::lock_guard<std::mutex> lock(mutex_);
    waits_.push_back(Wait{++lastWaitId_, cond, queueMutex, deadline, false});
    return lastWaitId_;
  }
  void MarkBlocked(unsigned long long id) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Wait& wait : waits_) {
      if (wait.id == id) wait.blocked = true;
    }
  }
  void Unregister(unsigned long long id) {
    std::lock_guard<std::mutex> lock(mutex_);
    waits_.erase(std::remove_if(waits_.begin(), waits_.end(),
                                [id](const Wait& wait) { return wait.id == id; }),
                 waits_.end());
  }

  const bool fake_;
  const long realSleepCapMs_;
  Env* const real_;
  const unsigned long long start_;
  std::atomic<unsigned long long> now_;
  mutable std::mutex mutex_;  // guards the members below
  unsigned long long lastWaitId_ = 0;
  std::vector<Wait> waits_;
  std::vector<unsigned long long> sleeps_;
  std::function<void(size_t)> sleepHook_;  // set before the library sleeps
  std::vector<std::string> shellCommands_;
};

TestEnv::TestEnv(Clock clock, long realSleepCapMs)
    : impl_(std::make_unique<Impl>(clock, realSleepCapMs)) {
  previous_ = ipc_db::testing::SetEnv(impl_.get());
}

TestEnv::~TestEnv() { ipc_db::testing::SetEnv(previous_); }

void TestEnv::Advance(long long ms) { impl_->Advance(ms); }

long long TestEnv::ElapsedMs() const { return impl_->ElapsedMs(); }

std::vector<unsigned long long> TestEnv::Sleeps() const { return impl_->Sleeps(); }

namespace {

// Polls `done` every real millisecond until it holds or `timeoutMs` passes.
template <typename Done>
bool PollFor(Done&& done, long timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace

bool TestEnv::AwaitBlockedWait(WaitState* state, long timeoutMs) const {
  return PollFor([&] { return impl_->BlockedWait(state); }, timeoutMs);
}

bool TestEnv::WaitEnded(const WaitState& state) const { return impl_->WaitEnded(state); }

bool TestEnv::AwaitWaitEnd(const WaitState& state, long timeoutMs) const {
  return PollFor([&] { return impl_->WaitEnded(state); }, timeoutMs);
}

long long TestEnv::AdvanceToDeadline(long timeoutMs) {
  WaitState state;
  if (!AwaitBlockedWait(&state, timeoutMs)) return -1;
  Advance(state.remainingMs);
  if (!AwaitWaitEnd(state, timeoutMs)) return -1;
  return state.remainingMs;
}

void TestEnv::OnSleep(std::function<void(size_t)> hook) { impl_->OnSleep(std::move(hook)); }

std::vector<std::string> TestEnv::ShellCommands() const { return impl_->ShellCommands(); }

std::string ToolCommand(const std::string& command) {
  const std::string tool = RepairToolPath();
  const std::string standIn = RepairToolStandInPath();
  std::string ran = command;
  for (size_t at = ran.find(tool); at != std::string::npos;
       at = ran.find(tool, at + standIn.size())) {
    ran.replace(at, tool.size(), standIn);
  }
  return ran;
}

}  // namespace ipc_db_test
