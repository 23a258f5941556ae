// The real environment of the connection layer (PosixEnv) and the switch
// that tests use to put another in its place. PosixEnv forwards to the
// exported utilities of DBCommon.h and to the POSIX calls themselves, so
// that every result, errno value and log entry is the one the connection
// layer had before it called through an Env.
#include "base/Env.h"

#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "DBCommon.h"
#include "base/Log.h"

namespace ipc_db::testing {

Env::~Env() = default;

namespace {

constexpr unsigned long long kMicrosPerSecond = 1000000ULL;

class PosixEnv : public Env {
 public:
  long long RunShell(const char* command, int timeoutSeconds) override {
    return ExecShell(command, timeoutSeconds);
  }
  long long CheckFileAccess(const char* path) override { return RecordFileAccess(path); }
  long long ChangeFileMode(const char* path, unsigned int mode) override {
    return RecordFileChmod(path, mode);
  }
  long long CheckDirectory(const char* path) override {
    if (path == nullptr) return -1;
    DIR* dir = opendir(path);
    if (dir == nullptr) return -1;
    if (closedir(dir) != 0) {
      // The entry belongs to CDBConn::RecordDirAccess, whose check this is.
      RECORD_LOG(ipc_db::detail::kLogModuleDBConn, ipc_db::detail::kLogError,
                 "closedir fail!\n");
    }
    return 0;
  }
  int MakeDirectory(const char* path, unsigned int mode) override {
    return mkdir(path, static_cast<mode_t>(mode));
  }
  int RemoveFile(const char* path) override { return unlink(path); }
  int RenameFile(const char* from, const char* to) override { return rename(from, to); }
  int SleepMs(unsigned long long ms) override { return Sleep(ms); }
  unsigned long long NowMicros() override {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_sec) * kMicrosPerSecond +
           static_cast<unsigned long long>(now.tv_usec);
  }
  int WaitForSignal(pthread_cond_t* cond, pthread_mutex_t* mutex,
                    unsigned long long deadlineMicros) override {
    struct timespec deadline;
    deadline.tv_sec = static_cast<time_t>(deadlineMicros / kMicrosPerSecond);
    deadline.tv_nsec = static_cast<long>((deadlineMicros % kMicrosPerSecond) * 1000ULL);
    return pthread_cond_timedwait(cond, mutex, &deadline);
  }
};

// The environment set by SetEnv; null: the default.
std::atomic<Env*> g_env{nullptr};

}  // namespace

Env* DefaultEnv() {
  // Made on first use and never destroyed, so that it is there for calls
  // made during static initialisation and for workers still running at exit.
  static Env* const env = new PosixEnv();
  return env;
}

Env* SetEnv(Env* env) {
  Env* previous = g_env.exchange(env != DefaultEnv() ? env : nullptr);
  return previous != nullptr ? previous : DefaultEnv();
}

}  // namespace ipc_db::testing

namespace ipc_db::detail {

ipc_db::testing::Env& CurrentEnv() {
  ipc_db::testing::Env* env = ipc_db::testing::g_env.load();
  return env != nullptr ? *env : *ipc_db::testing::DefaultEnv();
}

}  // namespace ipc_db::detail
