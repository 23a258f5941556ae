// Process, file and time utilities shared by the connection layer and
// exported for applications, and the debug flag of the connection layer's
// log entries.
#ifndef IPC_DB_DBCOMMON_H_
#define IPC_DB_DBCOMMON_H_

#include "ipc_db_export.h"

// Debug flag passed with every log entry of the connection layer. Default 0;
// the library only passes it on.
extern "C" IPC_DB_API int g_enRecordDebugFlag;

// Runs `command` through "/bin/sh -c" and waits for it.
// timeoutSeconds < 1 waits without limit; otherwise the wait gives up after
// about that many seconds and returns -1 ("RECORD: waitpid timed out."),
// leaving the child running (the caller reaps it).
// Returns 0 when the command exited with status 0; -1 for a null command,
// a failed fork, a time-out or a non-zero exit status (logged as
// "RECORD: ExecShell failed. WEXITSTATUS(status) is %d").
// The calling thread is suspended until the child has exec'd (vfork).
IPC_DB_API long long ExecShell(const char* command, int timeoutSeconds);

// Returns 0 when `path` can be opened for reading; else -1 with the warning
// "RECORD: open %s in read only failed on %d".
IPC_DB_API long long RecordFileAccess(const char* path);

// Sets the permission bits of the file `path` to `mode` (the chmod result is
// ignored). Returns 0 when the file could be opened for reading, else -1 with
// the same warning as RecordFileAccess.
IPC_DB_API long long RecordFileChmod(const char* path, unsigned int mode);

// Wall-clock milliseconds since the epoch (not monotonic).
IPC_DB_API unsigned long long GetTicks();

// Sleeps `ms` milliseconds, resuming after signals. Returns 0 after a
// completed wait, -1 when the wait failed for another reason, and the low 32
// bits of the tick count when the time was already used up at a check (for
// example for a delay of 0).
IPC_DB_API int Delay(unsigned long long ms);

// One select()-based sleep of `ms` milliseconds; returns select's result. An
// interrupted sleep ends early.
IPC_DB_API int Sleep(unsigned long long ms);

// One select()-based sleep of `us` microseconds; returns select's result.
IPC_DB_API int USleep(unsigned long long us);

#endif  // IPC_DB_DBCOMMON_H_
