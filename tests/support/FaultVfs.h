// Fault injection below the library: a SQLite VFS that wraps the default
// unix VFS and is registered as the default, so the library's own
// sqlite3_open goes through it, and a countdown on SQLite's allocator.
//
// The VFS sees every open, read, write, truncate, sync, delete and size
// query of the database, its rollback journal and its WAL file (and passes
// the shared-memory calls through), counts them, and on request fails the
// n-th operation of a kind with a chosen code, refuses writes past a byte
// budget with SQLITE_FULL, or cuts the power after the n-th durable
// operation (write, truncate, sync, delete).
//
// Power cut model. Per file (per inode), the VFS keeps the content as of
// the file's last sync and the writes and truncations since, in order. Per
// name, it keeps the directory entry as of the directory's last sync: the
// unix VFS syncs the directory at the first sync of a journal or WAL file
// it opened with SQLITE_OPEN_CREATE, and after a delete when SQLite asks
// for it (xDelete's dirSync, which SQLite sets only under synchronous =
// EXTRA). A file the VFS first meets already on disk counts as synced, with
// its directory entry. At the cut the process ends at once (_exit), after
// the files are rewritten to what a disk could hold after losing power:
//   - a name created or deleted since its directory's last sync keeps
//     either its old entry or its new one (each with probability 1/2);
//   - the surviving file holds its synced content, then each unsynced
//     operation in order: a truncation happens or not (1/2 each); a write
//     is kept whole (1/2), lost (1/4) or torn (1/4): the sectors before a
//     chosen sector of the write are written, that sector gets a prefix of
//     the new bytes and, for the rest of the write's bytes in it, the old
//     bytes or garbage (1/2 each), and the sectors after it keep the old
//     bytes. Bytes outside a write's own range are never changed
//     (SQLite assumes powersafe overwrite). The sector size is 512 or 4096
//     as the plan says.
//   - a sector reaches the disk whole from the page cache, which already
//     holds every earlier write to it: when a write lands in a sector (kept
//     or torn), the sector first takes the content it had in the cache
//     just before that write. A later write therefore never survives in a
//     sector where an earlier one is lost (a journal record's page number
//     and its first bytes share a sector: a disk cannot keep one and drop
//     the other).
// Each unsynced change is kept or lost on its own, so a lost truncation can
// be followed by a kept write into the range it would have freed: a
// journaling filesystem (ext4, f2fs, ubifs) commits the truncation before
// it reuses the freed blocks and never shows that, FAT on an SD card can.
// The model keeps it as the worse case; it is what corrupts TRUNCATE under
// NORMAL (docs/reliability.md).
// Every choice comes from the seed the plan gives, so a cut replays; with
// IPC_DB_FAULT_TRACE set, the operations and the cut's choices are printed.
//
// Only one process-wide instance exists; its state is guarded by a mutex.
// Plans are meant for a forked child: the parent installs the VFS, forks,
// and the child arms a plan before it opens the database.
#ifndef IPC_DB_TESTS_SUPPORT_FAULTVFS_H_
#define IPC_DB_TESTS_SUPPORT_FAULTVFS_H_

#include <cstdint>
#include <string>

namespace ipc_db_test {

// The operations the VFS counts and can fail.
enum class FaultOp { kOpen, kRead, kWrite, kTruncate, kSync, kDelete, kFileSize, kCount };

// The files it tells apart (by SQLite's open flags).
enum class FaultFile { kDatabase, kJournal, kWal, kCount };

// Bytes and calls per file kind since the last ResetCounts().
struct FaultFileCounts {
  unsigned long long bytesWritten = 0;
  unsigned long long writes = 0;
  unsigned long long syncs = 0;
};

// Exit status of a child whose power was cut.
constexpr int kPowerCutExitStatus = 77;

class FaultVfs {
 public:
  // Registers the VFS as the process's default (again, when another VFS
  // took that place). Call before the first open of a database that should
  // go through it; calling it again is harmless.
  static void Install();

  // Clears the counters, every plan and the budget. The power model's
  // record of files is kept (ForgetFiles clears it).
  static void Reset();
  // With `real` false, a sync is counted and modelled but the disk is not
  // asked to flush (the power model needs no real flush; campaigns run
  // faster without). Syncs reach the disk by default.
  static void SetRealSyncs(bool real);
  // Clears the power model's record of files and directory entries: the
  // files on disk count as synced again.
  static void ForgetFiles();

  // ---- Counting ----
  static void ResetCounts();
  static unsigned long long Count(FaultOp op);
  static FaultFileCounts Counts(FaultFile file);
  // Durable operations (write, truncate, sync, delete) so far: the index a
  // power cut refers to.
  static unsigned long long DurableOps();

  // ---- I/O errors ----
  // Makes the n-th `op` (1-based, counted from this call) return `code`
  // instead of running; with `persistent`, every later one as well.
  static void FailNth(FaultOp op, unsigned long long n, int code, bool persistent);
  // Number of operations failed on purpose since the last Reset().
  static unsigned long long Injected();

  // ---- Storage budget ----
  // Writes that would make the database, journal and WAL files together
  // larger than `bytes` fail with SQLITE_FULL. A negative budget lifts it.
  static void SetBudget(long long bytes);
  // Current total size of the files the VFS knows of.
  static long long TrackedBytes();
  // Largest total size since the last ResetCounts().
  static long long PeakBytes();

  // ---- Power cut ----
  // Cuts the power right after the `afterOp`-th durable operation counted
  // from this call, with choices drawn from `seed` and torn writes at
  // `sectorSize` granularity.
  static void ArmPowerCut(unsigned long long afterOp, uint32_t seed, int sectorSize);
  // Cuts the power now: rewrites the files as the model says, then _exit.
  [[noreturn]] static void CutNow();

  // ---- File operations outside SQLite ----
  // For code that links, renames, removes or syncs files itself (the
  // salvage's swap): each runs the real operation (a sync only when syncs
  // reach the disk), answers as the C library does (0, or -1 with errno),
  // records the change in the power model as SQLite's own operations are
  // recorded, and counts as a durable operation, so a power cut can fall
  // right after it. A link or rename makes the new name share the file's
  // record; until its directory is synced, a cut leaves each changed name
  // with its old entry or its new one (1/2 each), as for a created file.
  static int Link(const char* from, const char* to);
  static int Rename(const char* from, const char* to);
  static int Unlink(const char* path);
  static int SyncFile(const char* path);
  static int SyncDirectory(const char* directory);
};

// ---- Allocation failure ----
// A countdown shared by SQLite's allocator (through SQLITE_CONFIG_MALLOC)
// and, in a test binary that replaces operator new, by that replacement.
class FaultAlloc {
 public:
  // Wraps SQLite's default allocator (shuts SQLite down first when it was
  // initialized: call it before any connection is open) and installs the
  // fault VFS again on top, since SQLite's restart registers the unix VFS
  // as the default.
  static void Install();
  // The n-th allocation from now fails (1-based), and every later one when
  // `persistent`. 0 disarms.
  static void FailNth(unsigned long long n, bool persistent);
  // Counts an allocation and tells whether it should fail.
  static bool TakeAllocation();
  static unsigned long long Allocations();
  static unsigned long long Failed();
  static void ResetCounts();
};

// While one lives, allocations on its thread are neither counted nor
// failed: the harness's own bookkeeping (the fault VFS's record of writes
// for the power model, the log key guard's copy of each entry) stands for
// the disk and the platform, not for the library, and must not throw
// through SQLite's frames.
class FaultAllocPause {
 public:
  FaultAllocPause();
  ~FaultAllocPause();
  FaultAllocPause(const FaultAllocPause&) = delete;
  FaultAllocPause& operator=(const FaultAllocPause&) = delete;
};

// ---- Plans ----
// The campaign seed: IPC_DB_FAULT_SEED when set, else drawn from the clock.
uint32_t FaultSeed();
// IPC_DB_FAULT_POINT when set (run that point only), else -1.
long long FaultPointOnly();
// True when IPC_DB_FAULT_SCALE is "full".
bool FaultScaleFull();
// A seed for point `index` of a campaign seeded `seed`.
uint32_t PointSeed(uint32_t seed, unsigned long long index);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_FAULTVFS_H_
