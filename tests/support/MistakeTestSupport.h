// Helpers for the caller-mistake tests: caller buffers fenced by guard bytes,
// the rows of a database file read through a connection of the test's own,
// and the check that a refused call logged exactly one error-level entry.
#ifndef IPC_DB_TESTS_SUPPORT_MISTAKETESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_MISTAKETESTSUPPORT_H_

#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "TableTestSupport.h"
#include "TestSupport.h"

namespace ipc_db_test {

// A caller buffer of `size` bytes (filled with `fill`) with 64 guard bytes
// on each side.
class GuardedBuffer {
 public:
  explicit GuardedBuffer(size_t size, unsigned char fill = 0x5A)
      : bytes_(size + 2 * kGuard, kGuardByte), size_(size) {
    std::memset(data(), fill, size);
  }
  char* data() { return reinterpret_cast<char*>(bytes_.data()) + kGuard; }
  size_t size() const { return size_; }
  // The bytes of the buffer itself, for before/after comparisons.
  std::vector<unsigned char> Contents() const {
    return std::vector<unsigned char>(bytes_.begin() + kGuard,
                                      bytes_.begin() + kGuard + size_);
  }
  bool GuardsIntact() const {
    for (size_t i = 0; i < kGuard; ++i) {
      if (bytes_[i] != kGuardByte || bytes_[kGuard + size_ + i] != kGuardByte)
        return false;
    }
    return true;
  }

 private:
  static constexpr size_t kGuard = 64;
  static constexpr unsigned char kGuardByte = 0xA5;
  std::vector<unsigned char> bytes_;
  size_t size_;
};

// Rows of `sql` on the plain database file `file`, read through a fresh
// connection of the test's own (not the library's handle).
inline Rows FileRows(const std::string& file, const std::string& sql) {
  sqlite3* db = nullptr;
  Rows rows;
  if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << file;
  } else {
    rows = QueryRows(db, sql);
  }
  sqlite3_close(db);
  return rows;
}

// Exactly one error-level entry was logged, from `file`, with `text`.
inline void ExpectOneError(const LogCapture& log, const std::string& file,
                           const std::string& text) {
  EXPECT_EQ(log.CountAtLevel(3), 1u) << log.Dump();
  ExpectLoggedOnce(log, 3, file, text);
}

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_MISTAKETESTSUPPORT_H_
