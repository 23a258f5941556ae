// Process, file and time utilities of the connection layer: running a shell
// command with an optional time-out, checking and changing file access, and
// select()-based sleeps. Also defines the connection layer's debug flag.
#include "DBCommon.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Log.h"

int g_enRecordDebugFlag = 0;  // C linkage from the declaration in DBCommon.h

namespace {

constexpr const char* kModule = ipc_db::detail::kLogModuleDBCommon;
using ipc_db::detail::kLogDebug;
using ipc_db::detail::kLogError;
using ipc_db::detail::kLogInfo;
using ipc_db::detail::kLogWarn;

// Waits for `pid` without a limit. ECHILD ends the wait with the status as
// it stands.
void WaitWithoutLimit(pid_t pid, int* status) {
  while (waitpid(pid, status, 0) < 0) {
    if (errno == ECHILD) {
      RECORD_LOG(kModule, kLogInfo, "waitpid failed for %d.", errno);
      return;
    }
  }
}

// Polls `pid` once a second for about `seconds` seconds. Returns 0, or -1
// after a time-out or an unexpected waitpid error.
long long WaitWithLimit(pid_t pid, int seconds, int* status) {
  int remaining = seconds;
  for (;;) {
    pid_t got = waitpid(pid, status, WNOHANG);
    if (got > 0) return 0;
    if (got == 0) {
      --remaining;
      Sleep(1000);
      if (remaining <= 0) {
        RECORD_LOG(kModule, kLogError, "waitpid timed out.");
        return -1;
      }
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == ECHILD) {
      RECORD_LOG(kModule, kLogInfo, "waitpid for %s.", strerror(errno));
      return 0;
    }
    RECORD_LOG(kModule, kLogError, "waitpid fail for %s.", strerror(errno));
    return -1;
  }
}

int SelectSleep(time_t seconds, suseconds_t micros) {
  struct timeval timeout;
  timeout.tv_sec = seconds;
  timeout.tv_usec = micros;
  return select(0, nullptr, nullptr, nullptr, &timeout);
}

}  // namespace

long long ExecShell(const char* command, int timeoutSeconds) {
  if (command == nullptr) {
    RECORD_LOG(kModule, kLogError, "Null pointer");
    return -1;
  }
  RECORD_LOG(kModule, kLogInfo, "Begin ExecShell:%s.", command);
  long long result = 0;
  int status = 0;
  pid_t pid = vfork();
  if (pid < 0) {
    RECORD_LOG(kModule, kLogError, "fork failed for %d.", errno);
    result = -1;
  } else if (pid == 0) {
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    RECORD_LOG(kModule, kLogError, "execl failed.");
    _exit(127);
  } else if (timeoutSeconds < 1) {
    WaitWithoutLimit(pid, &status);
  } else {
    result = WaitWithLimit(pid, timeoutSeconds, &status);
  }
  if (!WIFSIGNALED(status) && WEXITSTATUS(status) == 0) {
    RECORD_LOG(kModule, kLogDebug, "End ExecShell:%s.", command);
    return result;
  }
  RECORD_LOG(kModule, kLogError, "ExecShell failed. WEXITSTATUS(status) is %d",
             WEXITSTATUS(status));
  return -1;
}

long long RecordFileAccess(const char* path) {
  int fd = open(path, O_RDONLY);
  if (fd < 0) {
    RECORD_LOG(kModule, kLogWarn, "open %s in read only failed on %d", path, errno);
    return -1;
  }
  close(fd);
  return 0;
}

long long RecordFileChmod(const char* path, unsigned int mode) {
  int fd = open(path, O_RDONLY);
  if (fd < 0) {
    RECORD_LOG(kModule, kLogWarn, "open %s in read only failed on %d", path, errno);
    return -1;
  }
  (void)fchmod(fd, static_cast<mode_t>(mode));
  close(fd);
  return 0;
}

unsigned long long GetTicks() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
         static_cast<unsigned long long>(now.tv_usec) / 1000ULL;
}

int Sleep(unsigned long long ms) {
  return SelectSleep(static_cast<time_t>(ms / 1000),
                     static_cast<suseconds_t>((ms % 1000) * 1000));
}

int USleep(unsigned long long us) {
  return SelectSleep(static_cast<time_t>(us / 1000000),
                     static_cast<suseconds_t>(us % 1000000));
}

int Delay(unsigned long long ms) {
  unsigned long long reference = GetTicks();
  unsigned long long remaining = ms;
  int result;
  do {
    errno = 0;
    unsigned long long now = GetTicks();
    unsigned long long elapsed = now - reference;
    if (elapsed >= remaining) return static_cast<int>(now & 0xFFFFFFFFULL);
    remaining -= elapsed;
    result = SelectSleep(static_cast<time_t>(remaining / 1000),
                         static_cast<suseconds_t>((remaining % 1000) * 1000));
    reference = now;
  } while (result != 0 && errno == EINTR);
  return result;
}
