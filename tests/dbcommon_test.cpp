// Tests of the connection layer's shared utilities: the CSMutex wrapper,
// ExecShell with and without a time-out, the file access helpers and the
// select()-based sleeps and tick counter, with their exact log entries.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "DBCommon.h"
#include "StorageMutex.h"
#include "TestSupport.h"
#include "WaitBounds.h"

using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::FileMode;
using ipc_db_test::kElapsedHeadroomMs;
using ipc_db_test::LogCapture;
using ipc_db_test::TempDir;

namespace {

constexpr const char* kCommonFile = "src_db/src/DBCommon";
constexpr const char* kMutexFile = "src_db/src/StorageMutex";
constexpr unsigned int kDebug = 0;
constexpr unsigned int kInfo = 1;
constexpr unsigned int kWarn = 2;
constexpr unsigned int kError = 3;

long long MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now() - start)
      .count();
}

// Live child processes of `parent` whose command line contains `word`.
std::vector<pid_t> ChildrenOf(pid_t parent, const std::string& word) {
  std::vector<pid_t> found;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return found;
  while (dirent* entry = readdir(proc)) {
    char* end = nullptr;
    long pid = strtol(entry->d_name, &end, 10);
    if (pid <= 0 || *end != '\0') continue;
    std::string base = std::string("/proc/") + entry->d_name;
    std::ifstream statFile(base + "/stat");
    std::string stat((std::istreambuf_iterator<char>(statFile)), {});
    size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    long ppid = 0;
    if (sscanf(stat.c_str() + close + 1, " %c %ld", &state, &ppid) != 2) continue;
    if (ppid != parent || state == 'Z') continue;
    std::ifstream cmdFile(base + "/cmdline");
    std::string cmdline((std::istreambuf_iterator<char>(cmdFile)), {});
    if (cmdline.find(word) != std::string::npos) found.push_back(static_cast<pid_t>(pid));
  }
  closedir(proc);
  return found;
}

// Sends SIGUSR1 (handled, without SA_RESTART) to the calling thread after
// `delayMs`, so that a blocking select() in it is interrupted. With `repeat`,
// sends it again every `delayMs` until the object is destroyed: a thread that
// reaches its select() only after the first signal (a busy machine may hold
// it back that long) is interrupted by the next one.
class Interrupter {
 public:
  Interrupter(int delayMs, bool repeat) : target_(pthread_self()) {
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = [](int) {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGUSR1, &action, &previous_);
    thread_ = std::thread([this, delayMs, repeat] {
      do {
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        if (!stop_) pthread_kill(target_, SIGUSR1);
      } while (repeat && !stop_);
    });
  }
  ~Interrupter() {
    stop_ = true;
    thread_.join();
    sigaction(SIGUSR1, &previous_, nullptr);
  }

 private:
  pthread_t target_;
  struct sigaction previous_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

// ---- CSMutex ----

TEST(CSMutex, ConstructedMutexIsNotInitialised) {
  CSMutex mutex;
  EXPECT_EQ(mutex.m_bInit, 0);
}

TEST(CSMutex, LockAndUnlockBeforeInitFailWithoutLogging) {
  LogCapture log;
  CSMutex mutex;
  EXPECT_EQ(mutex.Lock(), -1);
  EXPECT_EQ(mutex.Unlock(), -1);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(CSMutex, InitLockUnlock) {
  LogCapture log;
  CSMutex mutex;
  EXPECT_EQ(mutex.Init(), 0);
  EXPECT_EQ(mutex.m_bInit, 1);
  EXPECT_EQ(mutex.Lock(), 0);
  EXPECT_EQ(pthread_mutex_trylock(&mutex.m_mutex), EBUSY);
  EXPECT_EQ(mutex.Unlock(), 0);
  EXPECT_EQ(pthread_mutex_trylock(&mutex.m_mutex), 0);
  EXPECT_EQ(mutex.Unlock(), 0);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(CSMutex, SecondInitDoesNotReinitialise) {
  CSMutex mutex;
  ASSERT_EQ(mutex.Init(), 0);
  ASSERT_EQ(mutex.Lock(), 0);
  // Re-initialising would reset the held mutex to unlocked.
  EXPECT_EQ(mutex.Init(), 0);
  EXPECT_EQ(mutex.m_bInit, 1);
  EXPECT_EQ(pthread_mutex_trylock(&mutex.m_mutex), EBUSY);
  EXPECT_EQ(mutex.Unlock(), 0);
}

TEST(CSMutex, IsNotRecursive) {
  CSMutex mutex;
  ASSERT_EQ(mutex.Init(), 0);
  ASSERT_EQ(mutex.Lock(), 0);
  std::atomic<bool> acquired{false};
  std::thread other([&] {
    mutex.Lock();
    acquired = true;
    mutex.Unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(acquired.load());
  // The same thread cannot take it a second time either.
  EXPECT_EQ(pthread_mutex_trylock(&mutex.m_mutex), EBUSY);
  EXPECT_EQ(mutex.Unlock(), 0);
  other.join();
  EXPECT_TRUE(acquired.load());
}

TEST(CSMutex, LockAndUnlockFailuresAreLogged) {
  // Swap in an error-checking mutex so that pthread reports misuse.
  LogCapture log;
  CSMutex mutex;
  ASSERT_EQ(mutex.Init(), 0);
  pthread_mutex_destroy(&mutex.m_mutex);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex.m_mutex, &attr);
  pthread_mutexattr_destroy(&attr);

  EXPECT_EQ(mutex.Unlock(), -1);  // not owned: EPERM
  ExpectLoggedOnce(log, kError, kMutexFile, "RECORD: pthread_mutex_unlock failed");
  ASSERT_EQ(mutex.Lock(), 0);
  EXPECT_EQ(mutex.Lock(), -1);  // relock: EDEADLK
  ExpectLoggedOnce(log, kError, kMutexFile, "RECORD: pthread_mutex_lock failed");
  EXPECT_EQ(mutex.Unlock(), 0);
  EXPECT_EQ(log.Entries().size(), 2u) << log.Dump();
}

// ---- ExecShell ----

TEST(ExecShell, NullCommandFails) {
  LogCapture log;
  EXPECT_EQ(ExecShell(nullptr, 0), -1);
  ExpectLoggedOnce(log, kError, kCommonFile, "RECORD: Null pointer");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST(ExecShell, TrueSucceedsWithBeginAndEndEntries) {
  LogCapture log;
  EXPECT_EQ(ExecShell("true", 0), 0);
  ExpectLoggedOnce(log, kInfo, kCommonFile, "RECORD: Begin ExecShell:true.");
  ExpectLoggedOnce(log, kDebug, kCommonFile, "RECORD: End ExecShell:true.");
  EXPECT_EQ(log.Entries().size(), 2u) << log.Dump();
}

TEST(ExecShell, NonZeroExitStatusFails) {
  LogCapture log;
  EXPECT_EQ(ExecShell("exit 3", 0), -1);
  ExpectLoggedOnce(log, kInfo, kCommonFile, "RECORD: Begin ExecShell:exit 3.");
  ExpectLoggedOnce(log, kError, kCommonFile,
                   "RECORD: ExecShell failed. WEXITSTATUS(status) is 3");
  EXPECT_EQ(log.Count("RECORD: End ExecShell:exit 3."), 0u);
}

TEST(ExecShell, NegativeTimeoutWaitsWithoutLimit) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ExecShell("sleep 1; exit 0", -5), 0);
  EXPECT_GE(MillisecondsSince(start), 950);
}

TEST(ExecShell, CommandRunsThroughTheShell) {
  TempDir dir;
  std::string target = dir.Path() + "made by shell";
  std::string command = "echo hi > '" + target + "' && test -s '" + target + "'";
  EXPECT_EQ(ExecShell(command.c_str(), 0), 0);
  EXPECT_EQ(ipc_db_test::ReadFileBytes(target), "hi\n");
}

TEST(ExecShell, ChildKilledBySignalFails) {
  LogCapture log;
  EXPECT_EQ(ExecShell("kill -9 $$", 0), -1);
  // Bits 8..15 of a signal status are 0.
  ExpectLoggedOnce(log, kError, kCommonFile,
                   "RECORD: ExecShell failed. WEXITSTATUS(status) is 0");
}

TEST(ExecShell, QuickCommandWithinTimeLimitSucceeds) {
  LogCapture log;
  EXPECT_EQ(ExecShell("true", 3), 0);
  EXPECT_EQ(log.Count("RECORD: waitpid timed out."), 0u);
  ExpectLoggedOnce(log, kDebug, kCommonFile, "RECORD: End ExecShell:true.");
}

TEST(ExecShell, FailingCommandWithinTimeLimitReportsItsStatus) {
  LogCapture log;
  EXPECT_EQ(ExecShell("exit 7", 3), -1);
  ExpectLoggedOnce(log, kError, kCommonFile,
                   "RECORD: ExecShell failed. WEXITSTATUS(status) is 7");
}

TEST(ExecShell, TimeOutReturnsAfterAboutTheLimitAndLeavesTheChildRunning) {
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ExecShell("sleep 10", 2), -1);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 1900);
  EXPECT_LT(elapsed, 2000 + kElapsedHeadroomMs);
  ExpectLoggedOnce(log, kError, kCommonFile, "RECORD: waitpid timed out.");
  // The status stays 0 after a time-out, so the end entry is written and
  // no exit status is reported.
  ExpectLoggedOnce(log, kDebug, kCommonFile, "RECORD: End ExecShell:sleep 10.");
  EXPECT_FALSE(log.Contains("WEXITSTATUS")) << log.Dump();

  std::vector<pid_t> children = ChildrenOf(getpid(), "sleep");
  ASSERT_EQ(children.size(), 1u) << "the timed-out child should still run";
  pid_t child = children[0];
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "child already ended";
  // The shell may run the command as a process of its own. End the shell
  // first: ended first, that process would let the shell exit on its own
  // before the signal reaches it.
  std::vector<pid_t> grandchildren = ChildrenOf(child, "sleep");
  ASSERT_EQ(kill(child, SIGKILL), 0);
  for (pid_t grandchild : grandchildren) kill(grandchild, SIGKILL);
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

// ---- File helpers ----

TEST(RecordFileAccess, ExistingFileIsAccessible) {
  TempDir dir;
  std::string path = dir.Path() + "present";
  std::ofstream(path) << "x";
  LogCapture log;
  EXPECT_EQ(RecordFileAccess(path.c_str()), 0);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(RecordFileAccess, MissingFileFailsWithWarning) {
  TempDir dir;
  std::string path = dir.Path() + "missing";
  LogCapture log;
  EXPECT_EQ(RecordFileAccess(path.c_str()), -1);
  ExpectLoggedOnce(log, kWarn, kCommonFile,
                   "RECORD: open " + path + " in read only failed on 2");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST(RecordFileChmod, ChangesTheModeOfAnExistingFile) {
  TempDir dir;
  std::string path = dir.Path() + "file";
  std::ofstream(path) << "x";
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  LogCapture log;
  EXPECT_EQ(RecordFileChmod(path.c_str(), 0640), 0);
  EXPECT_EQ(FileMode(path), 0640);
  EXPECT_EQ(RecordFileChmod(path.c_str(), 0777), 0);
  EXPECT_EQ(FileMode(path), 0777);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(RecordFileChmod, MissingFileFailsWithTheSameWarning) {
  TempDir dir;
  std::string path = dir.Path() + "missing";
  LogCapture log;
  EXPECT_EQ(RecordFileChmod(path.c_str(), 0640), -1);
  ExpectLoggedOnce(log, kWarn, kCommonFile,
                   "RECORD: open " + path + " in read only failed on 2");
  EXPECT_FALSE(ipc_db_test::FileExists(path));
}

// ---- Time ----

TEST(GetTicks, IsWallClockMilliseconds) {
  struct timeval before;
  gettimeofday(&before, nullptr);
  unsigned long long ticks = GetTicks();
  struct timeval after;
  gettimeofday(&after, nullptr);
  unsigned long long low = before.tv_sec * 1000ULL + before.tv_usec / 1000;
  unsigned long long high = after.tv_sec * 1000ULL + after.tv_usec / 1000;
  EXPECT_GE(ticks, low);
  EXPECT_LE(ticks, high);
}

TEST(GetTicks, AdvancesWithTime) {
  unsigned long long first = GetTicks();
  std::this_thread::sleep_for(std::chrono::milliseconds(120));
  unsigned long long second = GetTicks();
  EXPECT_GE(second - first, 115u);
  EXPECT_LT(second - first, 120u + static_cast<unsigned>(kElapsedHeadroomMs));
}

TEST(Sleep, FifteenHundredMillisecondsInOneSelect) {
  // select() refuses a microsecond part of a million or more, so a success
  // after the full time shows the split into 1 s and 500000 us.
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Sleep(1500), 0);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 1495);
  EXPECT_LT(elapsed, 1500 + kElapsedHeadroomMs);
}

TEST(Sleep, InterruptedSleepEndsEarly) {
  // The sleep is long enough that the first signal reaching its select()
  // ends it well before its time, however late that signal comes.
  constexpr int kSleepMs = 10000;
  auto start = std::chrono::steady_clock::now();
  int result;
  {
    Interrupter interrupter(200, true);
    result = Sleep(kSleepMs);
  }
  EXPECT_EQ(result, -1);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 150);
  EXPECT_LT(elapsed, 200 + kElapsedHeadroomMs);
}

TEST(Sleep, ZeroReturnsAtOnce) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Sleep(0), 0);
  EXPECT_LT(MillisecondsSince(start), 50 + kElapsedHeadroomMs);
}

TEST(USleep, SplitsSecondsAndMicroseconds) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(USleep(1200000), 0);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 1195);
  EXPECT_LT(elapsed, 1200 + kElapsedHeadroomMs);
}

TEST(USleep, ShortSleep) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(USleep(30000), 0);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 29);
  EXPECT_LT(elapsed, 30 + kElapsedHeadroomMs);
}

TEST(Delay, CompletedWaitReturnsZero) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Delay(300), 0);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 295);
  EXPECT_LT(elapsed, 300 + kElapsedHeadroomMs);
}

TEST(Delay, ResumesAfterInterruption) {
  auto start = std::chrono::steady_clock::now();
  int result;
  {
    Interrupter interrupter(150, false);
    result = Delay(700);
  }
  EXPECT_EQ(result, 0);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 690);
  EXPECT_LT(elapsed, 700 + kElapsedHeadroomMs);
}

TEST(Delay, ZeroReturnsTheLow32BitsOfTheTicks) {
  unsigned long long before = GetTicks();
  int result = Delay(0);
  unsigned long long after = GetTicks();
  unsigned int low = static_cast<unsigned int>(result);
  unsigned int lowBefore = static_cast<unsigned int>(before & 0xFFFFFFFFULL);
  unsigned int lowAfter = static_cast<unsigned int>(after & 0xFFFFFFFFULL);
  // The three readings lie within a few milliseconds (no 32-bit wrap
  // expected between them).
  EXPECT_GE(low, lowBefore);
  EXPECT_LE(low, lowAfter);
  EXPECT_NE(result, 0);
}

TEST(RecordDebugFlag, DefaultsToZeroAndIsPassedWithEntries) {
  EXPECT_EQ(g_enRecordDebugFlag, 0);
  LogCapture log;
  g_enRecordDebugFlag = 5;
  RecordFileAccess("/nonexistent/ipc_db/file");
  g_enRecordDebugFlag = 0;
  RecordFileAccess("/nonexistent/ipc_db/file");
  auto entries = log.Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].debugFlag, 5u);
  EXPECT_EQ(entries[1].debugFlag, 0u);
  EXPECT_EQ(entries[0].module, 4u);
}
