// The environment the connection-layer tests put under the shipped library
// (ipc_db::testing::SetEnv, see src_db/src/base/Env.h) for the life of a
// TestEnv object:
//  - the shell: a command naming the repair tool's device path
//    (RepairToolPath(), "/usr/app/bin/sqlite3") runs with that path replaced
//    by the build tree's stand-in (tools/sqlite3, which runs the repair tool
//    over this build's engine shell; IPC_DB_TEST_TOOL_MODE makes it missing
//    or failing). The library still builds and logs the device's command;
//    ExecShell logs the one that ran (ToolCommand);
//  - files and directories: the real calls, on real files;
//  - time, with Clock::kFake: a clock that only the test moves (Advance).
//    A sleep adds its length to that clock and returns after at most
//    `realSleepCapMs` real milliseconds; a queue's timed wait ends when it
//    is signalled or when the clock reaches its deadline.
//    With Clock::kReal, the real clock, sleeps and waits.
// TestEnv objects nest: each puts back the environment it replaced.
#ifndef IPC_DB_TESTS_SUPPORT_TESTENV_H_
#define IPC_DB_TESTS_SUPPORT_TESTENV_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ipc_db::testing {
class Env;
}  // namespace ipc_db::testing

namespace ipc_db_test {

enum class Clock { kReal, kFake };

// The real-sleep cap for a fake clock under a worker that runs on a test
// thread: a stop handshake's 100 ms sleeps keep their real length, so that
// the worker has the real time it always had to answer, while a longer
// sleep (the pause's 2 s) passes in fake time.
constexpr long kLiveWorkerSleepCapMs = 100;

class TestEnv {
 public:
  explicit TestEnv(Clock clock = Clock::kReal, long realSleepCapMs = 0);
  ~TestEnv();
  TestEnv(const TestEnv&) = delete;
  TestEnv& operator=(const TestEnv&) = delete;

  // Fake clock only: moves it on by `ms`; every timed wait whose deadline
  // that reaches ends with a time-out.
  void Advance(long long ms);
  // Milliseconds the fake clock has moved since construction.
  long long ElapsedMs() const;
  // Every sleep the library asked for, in milliseconds, in order.
  std::vector<unsigned long long> Sleeps() const;
  // Runs `hook(n)` at the end of the n-th sleep (counting from 1), on the
  // sleeping thread. Set it before the library may sleep.
  void OnSleep(std::function<void(size_t)> hook);
  // A queue's timed wait on the fake clock, as the test sees it.
  struct WaitState {
    unsigned long long id = 0;  // one per call of the wait
    long long remainingMs = 0;  // from the fake clock to its deadline
  };
  // Fake clock only: true once a timed wait is blocked (its thread sits in
  // pthread_cond_wait, so that a signal or an Advance reaches it), with its
  // state in `*state`; false after `timeoutMs` real milliseconds without one.
  bool AwaitBlockedWait(WaitState* state, long timeoutMs) const;
  // Whether the wait `state` describes has ended.
  bool WaitEnded(const WaitState& state) const;
  // True once it has ended; false after `timeoutMs` real milliseconds.
  bool AwaitWaitEnd(const WaitState& state, long timeoutMs) const;
  // One quiet period: waits for a blocked wait, moves the clock exactly to
  // its deadline and waits until that wait has ended. The milliseconds the
  // clock moved, or -1 when no wait blocked or it did not end in time.
  long long AdvanceToDeadline(long timeoutMs);
  // Commands the shell ran, as it ran them.
  std::vector<std::string> ShellCommands() const;

  class Impl;

 private:
  std::unique_ptr<Impl> impl_;
  ipc_db::testing::Env* previous_ = nullptr;
};

// `command` as the test environment's shell runs it: every occurrence of
// RepairToolPath() replaced by the stand-in's path.
std::string ToolCommand(const std::string& command);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_TESTENV_H_
