// Small file and process helpers of the tests: whole-file reads, permission
// bits, existence, and running a shell command with its output captured.
// Free of the test framework, like TempDir.
#ifndef IPC_DB_TESTS_SUPPORT_FILEUTIL_H_
#define IPC_DB_TESTS_SUPPORT_FILEUTIL_H_

#include <string>

namespace ipc_db_test {

// Whole contents of a file ("" when it cannot be read).
std::string ReadFileBytes(const std::string& path);
// Permission bits of a file, or -1 when it does not exist.
int FileMode(const std::string& path);
bool FileExists(const std::string& path);
// Runs `command` through /bin/sh, returns its exit status and puts its
// standard output (and error, merged) into `output`.
int RunCommand(const std::string& command, std::string* output);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_FILEUTIL_H_
