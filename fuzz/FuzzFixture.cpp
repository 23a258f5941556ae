// The fuzz targets' database fixture: opening a plain file through the
// library, running fixture statements, keeping a built file as an image and
// writing it back before each input. Every failure here
// aborts: a fixture that cannot be set up would make every input pass.
#include "FuzzFixture.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "DBConn.h"
#include "FileUtil.h"
#include "SQLiteDBConn.h"

namespace ipc_db_fuzz {

namespace {

[[noreturn]] void FixtureFailed(const char* what, const std::string& detail) {
  std::fprintf(stderr, "fuzz fixture: %s %s\n", what, detail.c_str());
  std::abort();
}

}  // namespace

sqlite3* HandleOf(Db& db) {
  if (db.m_pDBConn == nullptr) return nullptr;
  return static_cast<CSqliteDBConn*>(db.m_pDBConn)->m_pSqliteDB;
}

void OpenPlain(Db& db, const std::string& dir, const std::string& file) {
  char noKey[1] = {0};
  if (db.m_pDBConn == nullptr &&
      db.Init(0, dir, file, file + "-journal", noKey, 0) != 0) {
    FixtureFailed("Init failed for", dir + file);
  }
  if (HandleOf(db) == nullptr && db.OpenDB() != 0) {
    FixtureFailed("OpenDB failed for", dir + file);
  }
}

void ExecOrAbort(Db& db, const std::string& sql) {
  if (db.m_pDBConn->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC) != 0) {
    FixtureFailed("statement failed:", sql);
  }
}

DatabaseImage::DatabaseImage(const std::string& file, const std::function<void(Db&)>& build)
    : file_(file) {
  Db db;
  OpenPlain(db, Dir(), file_);
  build(db);
  db.UnInit();
  bytes_ = ipc_db_test::ReadFileBytes(Dir() + file_);
  if (bytes_.empty()) FixtureFailed("empty image of", Dir() + file_);
}

void DatabaseImage::Restore() const {
  std::remove((Dir() + file_ + "-journal").c_str());
  std::ofstream out(Dir() + file_, std::ios::binary | std::ios::trunc);
  out.write(bytes_.data(), static_cast<std::streamsize>(bytes_.size()));
  out.close();
  if (!out) FixtureFailed("cannot restore", Dir() + file_);
}

bool DatabaseImage::Matches() const {
  return ipc_db_test::ReadFileBytes(Dir() + file_) == bytes_;
}

FreshDatabase::FreshDatabase(const DatabaseImage& image) : image_(image) {
  image_.Restore();
  Reopen();
}

FreshDatabase::~FreshDatabase() { db.UnInit(); }

}  // namespace ipc_db_fuzz
