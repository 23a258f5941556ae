// The database side of the fuzz targets that run on a real file: a plain
// (unkeyed) database that a target builds once through the library, in a
// temporary directory (tests/support's TempDir), and keeps as an image in
// memory. Before every input the image is written back over the file and a
// new Db opens it, so every input starts from the same bytes and a
// connection of its own, and a finding replays from its input alone.
// Writing the image back costs one small write, where building the table
// again would cost a transaction.
#ifndef IPC_DB_FUZZ_FUZZFIXTURE_H_
#define IPC_DB_FUZZ_FUZZFIXTURE_H_

#include <sqlcipher/sqlite3.h>

#include <functional>
#include <string>

#include "Db.h"
#include "TempDir.h"

namespace ipc_db_fuzz {

// The connection's SQLite handle, or null when there is no connection or it
// is closed.
sqlite3* HandleOf(Db& db);

// Creates the connection (empty key: a plain file) unless there is one, and
// opens it unless it is open. Aborts when either fails.
void OpenPlain(Db& db, const std::string& dir, const std::string& file);

// Runs `sql` through the connection; aborts when it fails.
void ExecOrAbort(Db& db, const std::string& sql);

// A database file built once, and the copy of it that each input gets.
class DatabaseImage {
 public:
  // Opens a fresh plain file named `file` in a temporary directory of its
  // own, runs `build` on it, closes it and keeps its bytes. Aborts when
  // anything fails.
  DatabaseImage(const std::string& file, const std::function<void(Db&)>& build);

  // Puts the image's bytes back into the file and removes a journal beside
  // it. The file keeps its inode: a new file or directory per input would
  // cost the file system more than the input's calls.
  void Restore() const;
  // True when the file holds exactly the image's bytes.
  bool Matches() const;
  const std::string& Dir() const { return dir_.Path(); }
  const std::string& File() const { return file_; }

 private:
  ipc_db_test::TempDir dir_;
  std::string file_;
  std::string bytes_;
};

// The image restored and opened through a Db of its own, closed with the
// object: one per input where the calls write, one per process where they
// only read.
class FreshDatabase {
 public:
  explicit FreshDatabase(const DatabaseImage& image);
  ~FreshDatabase();
  FreshDatabase(const FreshDatabase&) = delete;
  FreshDatabase& operator=(const FreshDatabase&) = delete;

  // Opens the database again when a call closed it or dropped the connection.
  void Reopen() { OpenPlain(db, image_.Dir(), image_.File()); }

  Db db;

 private:
  const DatabaseImage& image_;
};

}  // namespace ipc_db_fuzz

#endif  // IPC_DB_FUZZ_FUZZFIXTURE_H_
