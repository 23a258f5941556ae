// How tests key their own SQLite handles and sqlcipher shell sessions so
// that they read and write the file format the library uses on either
// engine: SQLCipher 3's (1024-byte pages, PBKDF2-HMAC-SHA1, 64,000
// iterations). SQLCipher 4 defaults to its own format; a handle keyed
// without these settings cannot read the library's keyed files there, and a
// file it creates would be in a format SQLCipher 3 cannot read. SQLCipher 3
// ignores the pragma, which it does not know.
#ifndef IPC_DB_TESTS_SUPPORT_ENGINEFORMAT_H_
#define IPC_DB_TESTS_SUPPORT_ENGINEFORMAT_H_

#include <sqlcipher/sqlite3.h>

#include <string>

namespace ipc_db_test {

// Keys `db` with `key` and selects SQLCipher 3's format for it. Returns
// sqlite3_key's result (the pragma fails only when the key did).
inline int KeyInLibraryFormat(sqlite3* db, const std::string& key) {
  int code = sqlite3_key(db, key.data(), static_cast<int>(key.size()));
  if (code != SQLITE_OK) return code;
  return sqlite3_exec(db, "PRAGMA cipher_compatibility = 3;", nullptr, nullptr, nullptr);
}

// The first lines of a sqlcipher shell script that key the session the same
// way. Their output is sent nowhere: SQLCipher 4's shell answers `ok` to
// PRAGMA key, SQLCipher 3's says nothing.
inline std::string ShellKeyLines(const std::string& key) {
  return ".output /dev/null\nPRAGMA key='" + key +
         "';\nPRAGMA cipher_compatibility = 3;\n.output\n";
}

// The engine this program runs on: "PRAGMA cipher_version"'s answer, such
// as "3.4.1" or "4.6.1 community".
std::string EngineCipherVersion();

// True on SQLCipher 4 and later.
bool EngineIsSqlcipher4();

// What a keyed file reveals when read (read-only) with each format's
// explicit settings.
struct KeyedFileFormat {
  // Reads with 1024-byte pages, PBKDF2-HMAC-SHA1 and 64,000 iterations.
  bool readsAsSqlcipher3 = false;
  // Reads with 4096-byte pages, PBKDF2-HMAC-SHA512 and 256,000 iterations.
  bool readsAsSqlcipher4 = false;
  // PRAGMA page_size under SQLCipher 3's settings; -1 when unreadable.
  long long pageSize = -1;
  // The file's size in bytes.
  long long fileSize = -1;
};
KeyedFileFormat ProbeKeyedFile(const std::string& file, const std::string& key);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_ENGINEFORMAT_H_
