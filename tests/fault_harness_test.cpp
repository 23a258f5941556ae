// Tests of the fault harness itself (support/FaultVfs.h): the VFS is the
// default, fails what a plan names and nothing else, counts bytes and syncs
// per file kind, refuses writes past its budget until the budget is lifted,
// and a power cut leaves the files as its model says (synced bytes kept,
// unsynced writes kept, lost or torn inside their own range only, entries
// not synced into their directory kept or not). The SQLite allocator
// countdown fails the allocation it names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlcipher/sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include "FaultVfs.h"
#include "TestSupport.h"

using ipc_db_test::FaultAlloc;
using ipc_db_test::FaultFile;
using ipc_db_test::FaultOp;
using ipc_db_test::FaultVfs;
using ipc_db_test::kPowerCutExitStatus;
using ipc_db_test::ReadFileBytes;
using ipc_db_test::TempDir;

namespace {

class FaultHarness : public ::testing::Test {
 protected:
  void SetUp() override {
    FaultAlloc::Install();
    FaultVfs::Reset();
    FaultVfs::ForgetFiles();
  }
  void TearDown() override { FaultVfs::Reset(); }
  TempDir dir_;
};

// A file opened through the default VFS with SQLite's own flags.
class VfsFile {
 public:
  VfsFile(const std::string& path, int kindFlag) : path_(path) {
    vfs_ = sqlite3_vfs_find(nullptr);
    file_ = static_cast<sqlite3_file*>(std::calloc(1, vfs_->szOsFile));
    int out = 0;
    rc_ = vfs_->xOpen(vfs_, path_.c_str(), file_,
                      kindFlag | SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &out);
  }
  ~VfsFile() {
    if (file_->pMethods != nullptr) file_->pMethods->xClose(file_);
    std::free(file_);
  }
  int openCode() const { return rc_; }
  int Write(const std::string& bytes, long long offset) {
    if (file_->pMethods == nullptr) _exit(2);  // the open failed
    return file_->pMethods->xWrite(file_, bytes.data(), static_cast<int>(bytes.size()),
                                   offset);
  }
  int Sync() {
    if (file_->pMethods == nullptr) _exit(2);
    return file_->pMethods->xSync(file_, SQLITE_SYNC_NORMAL);
  }

 private:
  std::string path_;
  sqlite3_vfs* vfs_;
  sqlite3_file* file_;
  int rc_;
};

// Runs `body` in a child, which is expected to end by a power cut.
void InChild(const std::function<void()>& body) {
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    body();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  ASSERT_EQ(WEXITSTATUS(status), kPowerCutExitStatus);
}

void WriteFile(const std::string& path, const std::string& bytes) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0640);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  close(fd);
}

TEST_F(FaultHarness, IsTheDefaultVfs) {
  EXPECT_STREQ(sqlite3_vfs_find(nullptr)->zName, "ipc_db_fault");
}

TEST_F(FaultHarness, FailsTheNamedWriteWithItsCode) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_.Path() + "a.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "create table t(v);", nullptr, nullptr, nullptr), SQLITE_OK);
  FaultVfs::FailNth(FaultOp::kWrite, 2, SQLITE_IOERR_WRITE, false);
  sqlite3_extended_result_codes(db, 1);
  EXPECT_EQ(sqlite3_exec(db, "insert into t values(1);", nullptr, nullptr, nullptr),
            SQLITE_IOERR_WRITE);
  EXPECT_EQ(FaultVfs::Injected(), 1u);
  // One-shot: the next statement runs.
  EXPECT_EQ(sqlite3_exec(db, "insert into t values(2);", nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_EQ(FaultVfs::Injected(), 1u);
  sqlite3_close(db);
}

TEST_F(FaultHarness, PersistentFailureFailsEveryLaterOperation) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_.Path() + "a.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "create table t(v);", nullptr, nullptr, nullptr), SQLITE_OK);
  FaultVfs::FailNth(FaultOp::kSync, 1, SQLITE_IOERR_FSYNC, true);
  EXPECT_NE(sqlite3_exec(db, "insert into t values(1);", nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_NE(sqlite3_exec(db, "insert into t values(2);", nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_GE(FaultVfs::Injected(), 2u);
  FaultVfs::Reset();
  EXPECT_EQ(sqlite3_exec(db, "insert into t values(3);", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
}

TEST_F(FaultHarness, CountsBytesAndSyncsPerFileKind) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_.Path() + "a.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "create table t(v); insert into t values(1);", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  FaultVfs::ResetCounts();
  ASSERT_EQ(sqlite3_exec(db, "insert into t values(2);", nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_GT(FaultVfs::Counts(FaultFile::kJournal).bytesWritten, 0u);
  EXPECT_GT(FaultVfs::Counts(FaultFile::kDatabase).bytesWritten, 0u);
  EXPECT_GT(FaultVfs::Counts(FaultFile::kDatabase).syncs, 0u);
  EXPECT_EQ(FaultVfs::Counts(FaultFile::kWal).writes, 0u);
  EXPECT_EQ(FaultVfs::Count(FaultOp::kDelete), 1u);  // the journal
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA journal_mode = WAL;", nullptr, nullptr, nullptr),
            SQLITE_OK);
  FaultVfs::ResetCounts();
  ASSERT_EQ(sqlite3_exec(db, "insert into t values(3);", nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_GT(FaultVfs::Counts(FaultFile::kWal).bytesWritten, 0u);
  EXPECT_EQ(FaultVfs::Counts(FaultFile::kJournal).writes, 0u);
  sqlite3_close(db);
}

TEST_F(FaultHarness, BudgetRefusesGrowthUntilLifted) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir_.Path() + "a.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "create table t(v);", nullptr, nullptr, nullptr), SQLITE_OK);
  long long before = FaultVfs::TrackedBytes();
  EXPECT_GT(before, 0);
  FaultVfs::SetBudget(before + 1024);
  EXPECT_EQ(sqlite3_exec(db, "insert into t values(zeroblob(100000));", nullptr, nullptr,
                         nullptr),
            SQLITE_FULL);
  EXPECT_LE(FaultVfs::TrackedBytes(), before + 1024);
  FaultVfs::SetBudget(-1);
  EXPECT_EQ(sqlite3_exec(db, "insert into t values(zeroblob(100000));", nullptr, nullptr,
                         nullptr),
            SQLITE_OK);
  EXPECT_GT(FaultVfs::TrackedBytes(), 100000);
  sqlite3_close(db);
}

TEST_F(FaultHarness, CutKeepsSyncedBytesAndDropsWritesAfterTheCutPoint) {
  const std::string path = dir_.Path() + "f.db";
  WriteFile(path, std::string(1024, 'A'));
  InChild([&] {
    VfsFile file(path, SQLITE_OPEN_MAIN_DB);
    FaultVfs::ArmPowerCut(3, 1, 512);  // after write, sync, write
    file.Write(std::string(512, 'B'), 0);
    file.Sync();
    file.Write(std::string(512, 'C'), 512);  // unsynced: the cut follows
    file.Write(std::string(512, 'D'), 0);    // never runs
  });
  std::string bytes = ReadFileBytes(path);
  ASSERT_EQ(bytes.size(), 1024u);
  EXPECT_EQ(bytes.substr(0, 512), std::string(512, 'B'));
  EXPECT_EQ(bytes.find('D'), std::string::npos);
}

// An unsynced one-sector write over 'A's, cut with many seeds: kept, lost
// and torn each happen; a torn sector is a prefix of the new bytes followed
// by old bytes or by garbage; bytes outside the write never change.
TEST_F(FaultHarness, UnsyncedWritesAreKeptLostOrTornInsideTheirRange) {
  const std::string path = dir_.Path() + "f.db";
  int kept = 0, lost = 0, tornOld = 0, tornGarbage = 0;
  for (uint32_t seed = 1; seed <= 60; ++seed) {
    WriteFile(path, std::string(2048, 'A'));
    FaultVfs::ForgetFiles();
    InChild([&] {
      VfsFile file(path, SQLITE_OPEN_MAIN_DB);
      FaultVfs::ArmPowerCut(1, seed, 512);
      file.Write(std::string(512, 'B'), 512);
    });
    std::string bytes = ReadFileBytes(path);
    ASSERT_EQ(bytes.size(), 2048u) << "seed " << seed;
    EXPECT_EQ(bytes.substr(0, 512), std::string(512, 'A')) << "seed " << seed;
    EXPECT_EQ(bytes.substr(1024), std::string(1024, 'A')) << "seed " << seed;
    std::string sector = bytes.substr(512, 512);
    size_t prefix = sector.find_first_not_of('B');
    if (prefix == std::string::npos) {
      ++kept;
    } else if (sector == std::string(512, 'A')) {
      ++lost;
    } else if (sector.substr(prefix) == std::string(512 - prefix, 'A')) {
      ++tornOld;
    } else {
      ++tornGarbage;
    }
  }
  EXPECT_GT(kept, 0);
  EXPECT_GT(lost, 0);
  EXPECT_GT(tornOld, 0);
  EXPECT_GT(tornGarbage, 0);
}

// Two writes into one sector: the sector reaches the disk from the page
// cache, so the later one never survives without the earlier one.
TEST_F(FaultHarness, ALaterWriteInASectorNeverSurvivesWithoutAnEarlierOne) {
  const std::string path = dir_.Path() + "f.db";
  int both = 0, earlierOnly = 0, none = 0;
  for (uint32_t seed = 1; seed <= 60; ++seed) {
    WriteFile(path, std::string(1024, 'A'));
    FaultVfs::ForgetFiles();
    InChild([&] {
      VfsFile file(path, SQLITE_OPEN_MAIN_DB);
      FaultVfs::ArmPowerCut(2, seed, 512);
      file.Write(std::string(4, 'P'), 512);
      file.Write(std::string(508, 'D'), 516);
    });
    std::string bytes = ReadFileBytes(path);
    ASSERT_EQ(bytes.size(), 1024u) << "seed " << seed;
    const bool later = bytes.find('D') != std::string::npos;
    const bool earlier = bytes.substr(512, 4) == "PPPP";
    if (later) {
      EXPECT_TRUE(earlier) << "seed " << seed;
      ++both;
    } else if (earlier) {
      ++earlierOnly;
    } else {
      ++none;
    }
  }
  EXPECT_GT(both, 0);
  EXPECT_GT(earlierOnly, 0);
  EXPECT_GT(none, 0);
}

// A write over several 4096-byte sectors torn: whole sectors before the
// torn one are new, sectors after it are old.
TEST_F(FaultHarness, TornWriteFollowsSectorBoundaries) {
  const std::string path = dir_.Path() + "f.db";
  int torn = 0;
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    WriteFile(path, std::string(4 * 4096, 'A'));
    FaultVfs::ForgetFiles();
    InChild([&] {
      VfsFile file(path, SQLITE_OPEN_MAIN_DB);
      FaultVfs::ArmPowerCut(1, seed, 4096);
      file.Write(std::string(4 * 4096, 'B'), 0);
    });
    std::string bytes = ReadFileBytes(path);
    ASSERT_EQ(bytes.size(), 4u * 4096) << "seed " << seed;
    size_t firstOther = bytes.find_first_not_of('B');
    if (firstOther == std::string::npos || firstOther == 0) continue;  // kept or lost
    ++torn;
    size_t tornSector = firstOther / 4096;
    size_t after = (tornSector + 1) * 4096;
    EXPECT_EQ(bytes.substr(after), std::string(bytes.size() - after, 'A'))
        << "seed " << seed;
  }
  EXPECT_GT(torn, 0);
}

// A journal created without a directory sync may vanish; after its first
// sync (which syncs the directory) it stays.
TEST_F(FaultHarness, NewFileSurvivesOnlyOnceItsDirectoryIsSynced) {
  const std::string path = dir_.Path() + "f.db-journal";
  WriteFile(dir_.Path() + "f.db", "");  // the unix VFS takes a journal's mode from it
  int vanished = 0, stayed = 0;
  for (uint32_t seed = 1; seed <= 30; ++seed) {
    unlink(path.c_str());
    FaultVfs::ForgetFiles();
    InChild([&] {
      VfsFile file(path, SQLITE_OPEN_MAIN_JOURNAL);
      FaultVfs::ArmPowerCut(1, seed, 512);
      file.Write("journal", 0);
    });
    if (access(path.c_str(), F_OK) == 0) {
      ++stayed;
    } else {
      ++vanished;
    }
  }
  EXPECT_GT(vanished, 0);
  EXPECT_GT(stayed, 0);
  for (uint32_t seed = 1; seed <= 10; ++seed) {
    unlink(path.c_str());
    FaultVfs::ForgetFiles();
    InChild([&] {
      VfsFile file(path, SQLITE_OPEN_MAIN_JOURNAL);
      FaultVfs::ArmPowerCut(2, seed, 512);
      file.Write("journal", 0);
      file.Sync();
    });
    EXPECT_EQ(ReadFileBytes(path), "journal") << "seed " << seed;
  }
}

// A delete without dirSync may be undone by the cut; with dirSync it holds.
TEST_F(FaultHarness, DeleteHoldsOnlyWithADirectorySync) {
  const std::string path = dir_.Path() + "f.db-journal";
  WriteFile(dir_.Path() + "f.db", "");
  int undone = 0;
  for (int dirSync = 0; dirSync <= 1; ++dirSync) {
    for (uint32_t seed = 1; seed <= 20; ++seed) {
      WriteFile(path, "synced journal");
      FaultVfs::ForgetFiles();
      InChild([&] {
        {
          VfsFile file(path, SQLITE_OPEN_MAIN_JOURNAL);  // met on disk: synced
          if (file.openCode() != SQLITE_OK) _exit(2);
        }
        sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
        FaultVfs::ArmPowerCut(1, seed, 512);
        vfs->xDelete(vfs, path.c_str(), dirSync);
      });
      bool present = access(path.c_str(), F_OK) == 0;
      if (dirSync == 1) {
        EXPECT_FALSE(present) << "seed " << seed;
      } else if (present) {
        ++undone;
        EXPECT_EQ(ReadFileBytes(path), "synced journal");
      }
    }
  }
  EXPECT_GT(undone, 0);
}

TEST_F(FaultHarness, AllocationCountdownFailsTheNamedAllocation) {
  FaultAlloc::FailNth(2, false);
  void* first = sqlite3_malloc(64);
  void* second = sqlite3_malloc(64);
  void* third = sqlite3_malloc(64);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(second, nullptr);
  EXPECT_NE(third, nullptr);
  EXPECT_EQ(FaultAlloc::Failed(), 1u);
  sqlite3_free(first);
  sqlite3_free(third);
  FaultAlloc::FailNth(0, false);
}

TEST_F(FaultHarness, PointSeedsDifferAndRepeat) {
  EXPECT_EQ(ipc_db_test::PointSeed(7, 3), ipc_db_test::PointSeed(7, 3));
  EXPECT_NE(ipc_db_test::PointSeed(7, 3), ipc_db_test::PointSeed(7, 4));
  EXPECT_NE(ipc_db_test::PointSeed(7, 3), ipc_db_test::PointSeed(8, 3));
}

}  // namespace
