// Env: everything the connection layer asks of the world outside the
// process's memory and SQLite: the shell that runs the repair tool, the file
// and directory calls of opening and repair, sleeping, the wall clock, and
// the timed condition wait of the worker queues. The connection layer calls
// the world only through CurrentEnv(), so a test can put an Env of its own
// in place at run time (ipc_db::testing::SetEnv) in the library that ships:
// a shell that reaches a stand-in for the repair tool, or a clock and sleeps
// that the test moves itself.
//
// DefaultEnv() is the real one: the exported utilities of DBCommon.h
// (ExecShell, RecordFileAccess, RecordFileChmod, Sleep) and the POSIX calls
// the connection layer made before it had an Env, with the same results,
// errno and log entries. It is what the library runs on unless a test
// changes it.
//
// This is the one internal name in the library's dynamic symbol table
// (namespace ipc_db::testing): tests link against the shipped libipc_db.so
// and must reach it. Applications have no use for it; it is not in the
// public headers.
#ifndef IPC_DB_SRC_BASE_ENV_H_
#define IPC_DB_SRC_BASE_ENV_H_

#include <pthread.h>

#include "ipc_db_export.h"

namespace ipc_db::testing {

class IPC_DB_API Env {
 public:
  Env() = default;
  virtual ~Env();
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;

  // Runs `command` through "/bin/sh -c" and waits for it: ExecShell's
  // contract and log entries (DBCommon.h).
  virtual long long RunShell(const char* command, int timeoutSeconds) = 0;
  // 0 when `path` can be opened for reading: RecordFileAccess's contract.
  virtual long long CheckFileAccess(const char* path) = 0;
  // Sets the permission bits of `path`: RecordFileChmod's contract.
  virtual long long ChangeFileMode(const char* path, unsigned int mode) = 0;
  // 0 when `path` is a directory that opens, else -1 (null: -1): the check
  // of CDBConn::RecordDirAccess, with its "RECORD: closedir fail!\n".
  virtual long long CheckDirectory(const char* path) = 0;
  // mkdir(2): 0, or -1 with errno set.
  virtual int MakeDirectory(const char* path, unsigned int mode) = 0;
  // unlink(2): 0, or -1 with errno set.
  virtual int RemoveFile(const char* path) = 0;
  // rename(2): 0, or -1 with errno set.
  virtual int RenameFile(const char* from, const char* to) = 0;
  // Sleeps `ms` milliseconds: Sleep's contract (DBCommon.h).
  virtual int SleepMs(unsigned long long ms) = 0;
  // Wall-clock microseconds since the epoch (gettimeofday).
  virtual unsigned long long NowMicros() = 0;
  // Waits once on `cond` until signalled or until NowMicros() reaches
  // `deadlineMicros`: pthread_cond_timedwait's contract and results (0, or
  // ETIMEDOUT). REQUIRES: `mutex` locked by the caller.
  virtual int WaitForSignal(pthread_cond_t* cond, pthread_mutex_t* mutex,
                            unsigned long long deadlineMicros) = 0;
};

// The real environment; lives as long as the process.
IPC_DB_API Env* DefaultEnv();

// Makes `env` the environment of every later call of the connection layer
// (null: the default) and returns the one it replaces. The caller keeps
// `env` alive until it has put the previous one back. Safe to call while
// other threads use the library; a call that has already started may finish
// on the environment it started on.
IPC_DB_API Env* SetEnv(Env* env);

}  // namespace ipc_db::testing

namespace ipc_db::detail {

// The environment the connection layer calls now.
ipc_db::testing::Env& CurrentEnv();

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_BASE_ENV_H_
