// A fresh directory under the system temp folder ($TMPDIR or /tmp) for one
// test or benchmark, removed with everything in it when the object goes
// away. Used by the tests and the benchmarks alike, so it needs no test
// framework: a directory that cannot be made stops the process.
#ifndef IPC_DB_TESTS_SUPPORT_TEMPDIR_H_
#define IPC_DB_TESTS_SUPPORT_TEMPDIR_H_

#include <string>

namespace ipc_db_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  // Ends with "/".
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_TEMPDIR_H_
