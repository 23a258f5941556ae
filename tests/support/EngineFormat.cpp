// Which engine a test program runs on, and which format a keyed file is in,
// found by reading the file with each format's settings spelt out (not
// through the compatibility shortcut the library itself uses).
#include "EngineFormat.h"

#include <sys/stat.h>

#include <cstdlib>

namespace ipc_db_test {
namespace {

const char kSqlcipher3Settings[] =
    "PRAGMA cipher_page_size = 1024; PRAGMA kdf_iter = 64000; "
    "PRAGMA cipher_hmac_algorithm = HMAC_SHA1; "
    "PRAGMA cipher_kdf_algorithm = PBKDF2_HMAC_SHA1;";
const char kSqlcipher4Settings[] =
    "PRAGMA cipher_page_size = 4096; PRAGMA kdf_iter = 256000; "
    "PRAGMA cipher_hmac_algorithm = HMAC_SHA512; "
    "PRAGMA cipher_kdf_algorithm = PBKDF2_HMAC_SHA512;";

// First column of the first row of `sql`, or "" when it gives none.
std::string FirstValue(sqlite3* db, const char* sql) {
  sqlite3_stmt* stmt = nullptr;
  std::string value;
  if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(stmt, 0);
    if (text != nullptr) value = reinterpret_cast<const char*>(text);
  }
  sqlite3_finalize(stmt);
  return value;
}

// Opens `file` read-only with `key` and `settings`; returns its page size,
// or -1 when the schema cannot be read so.
long long PageSizeWith(const std::string& file, const std::string& key,
                       const char* settings) {
  sqlite3* db = nullptr;
  long long pageSize = -1;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      sqlite3_key(db, key.data(), static_cast<int>(key.size())) == SQLITE_OK &&
      sqlite3_exec(db, settings, nullptr, nullptr, nullptr) == SQLITE_OK &&
      sqlite3_exec(db, "select count(*) from sqlite_master;", nullptr, nullptr, nullptr) ==
          SQLITE_OK) {
    pageSize = std::atoll(FirstValue(db, "PRAGMA page_size;").c_str());
  }
  sqlite3_close(db);
  return pageSize;
}

}  // namespace

std::string EngineCipherVersion() {
  sqlite3* db = nullptr;
  std::string version;
  if (sqlite3_open(":memory:", &db) == SQLITE_OK) {
    version = FirstValue(db, "PRAGMA cipher_version;");
  }
  sqlite3_close(db);
  return version;
}

bool EngineIsSqlcipher4() { return std::atoi(EngineCipherVersion().c_str()) >= 4; }

KeyedFileFormat ProbeKeyedFile(const std::string& file, const std::string& key) {
  KeyedFileFormat format;
  format.pageSize = PageSizeWith(file, key, kSqlcipher3Settings);
  format.readsAsSqlcipher3 = format.pageSize > 0;
  format.readsAsSqlcipher4 = PageSizeWith(file, key, kSqlcipher4Settings) > 0;
  struct stat info {};
  if (stat(file.c_str(), &info) == 0) format.fileSize = static_cast<long long>(info.st_size);
  return format;
}

}  // namespace ipc_db_test
