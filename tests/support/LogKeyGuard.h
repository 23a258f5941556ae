// Log key guard: linked into every test executable, it sees every log entry
// written through ZB_WriteLog (whatever sink is installed, and also the
// debug and information entries that the default sink drops) and every key
// handed to SQLCipher's sqlite3_key and sqlite3_rekey, and fails the running
// test when an entry holds key material. Key material is any run of 8
// consecutive key bytes (the whole key when it is shorter), as raw bytes or
// as hexadecimal text in either case. Entries are kept per test, so a key
// that reaches SQLCipher only after it was logged is still caught.
#ifndef IPC_DB_TESTS_SUPPORT_LOGKEYGUARD_H_
#define IPC_DB_TESTS_SUPPORT_LOGKEYGUARD_H_

#include <cstddef>
#include <string>

namespace ipc_db_test {

// Adds `secret` to the keys the guard looks for (keys that never reach
// SQLCipher, e.g. one only passed to SetEncryptKey). Keys shorter than 4
// bytes are ignored: too short to tell apart from ordinary text.
void RegisterSecret(const std::string& secret);

// Number of log entries the guard has checked since the process started.
size_t LogEntriesChecked();

// Number of distinct keys the guard knows.
size_t SecretsKnown();

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_LOGKEYGUARD_H_
