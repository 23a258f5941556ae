// The fault VFS and the allocation countdown (see FaultVfs.h). Each method
// of the wrapped file counts the call, applies the armed plan (a failure
// code, the byte budget), runs the unix VFS's method, then records what a
// power cut needs: unsynced writes and truncations per inode, directory
// entries changed since their directory's last sync.
#include "FaultVfs.h"

#include <fcntl.h>
#include <sqlcipher/sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

namespace ipc_db_test {
namespace {

// What a file holds as of its last sync, and the changes since.
struct Inode {
  struct Change {
    bool truncate;
    long long offset;  // new size of a truncation
    std::string bytes;
  };
  std::string synced;
  std::vector<Change> changes;
};

// One directory entry: the inode it names now and the one it named at the
// directory's last sync (null: no file).
struct Entry {
  std::shared_ptr<Inode> current;
  std::shared_ptr<Inode> durable;
};

struct FailPlan {
  bool armed = false;
  unsigned long long n = 0;
  unsigned long long seen = 0;
  int code = SQLITE_IOERR;
  bool persistent = false;
};

struct State {
  std::mutex mutex;
  sqlite3_vfs* real = nullptr;
  unsigned long long counts[static_cast<int>(FaultOp::kCount)] = {};
  FaultFileCounts fileCounts[static_cast<int>(FaultFile::kCount)];
  unsigned long long durableOps = 0;
  FailPlan plans[static_cast<int>(FaultOp::kCount)];
  unsigned long long injected = 0;
  long long budget = -1;
  long long peakBytes = 0;
  std::map<std::string, long long> sizes;
  std::map<std::string, Entry> entries;
  bool cutArmed = false;
  unsigned long long cutAt = 0;
  uint32_t cutSeed = 0;
  int sectorSize = 512;
  bool realSyncs = true;
};

State& TheState() {
  static State* state = new State;  // never destroyed: children _exit
  return *state;
}

// With IPC_DB_FAULT_TRACE set, every durable operation and every choice
// of a power cut is printed to stderr (for replaying one point).
bool Tracing() {
  static const bool tracing = std::getenv("IPC_DB_FAULT_TRACE") != nullptr;
  return tracing;
}

void Trace(const char* what, const std::string& path, long long offset, long long size) {
  if (!Tracing()) return;
  size_t slash = path.rfind('/');
  std::fprintf(stderr, "fault vfs: %s %s at %lld, %lld bytes\n", what,
               path.c_str() + (slash == std::string::npos ? 0 : slash + 1), offset, size);
}

struct Handle {
  sqlite3_file base;
  sqlite3_file* real;
  const char* path;  // SQLite keeps the name valid until xClose
  bool tracked;
  FaultFile kind;
  bool dirSyncPending;
};

sqlite3_file* Real(sqlite3_file* file) { return reinterpret_cast<Handle*>(file)->real; }

std::string DirOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string ReadWhole(const std::string& path) {
  std::string bytes;
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return bytes;
  char buffer[65536];
  ssize_t got;
  while ((got = read(fd, buffer, sizeof(buffer))) > 0) bytes.append(buffer, got);
  close(fd);
  return bytes;
}

void Put(std::string* image, size_t at, const char* bytes, size_t size) {
  if (image->size() < at + size) image->resize(at + size, '\0');
  std::memcpy(&(*image)[at], bytes, size);
}

void Apply(std::string* image, const Inode::Change& change) {
  if (change.truncate) {
    image->resize(static_cast<size_t>(change.offset), '\0');
  } else {
    Put(image, static_cast<size_t>(change.offset), change.bytes.data(),
        change.bytes.size());
  }
}

// A sector reaches the disk whole from the page cache, which already holds
// every earlier write to it: before a write's bytes land in a sector, the
// sector takes the cache's content as it was before that write. So a later
// write never survives in a sector where an earlier one is lost.
void LandSector(std::string* image, const std::string& cache, long long sector,
                int sectorSize) {
  const long long from = sector * sectorSize;
  const long long to =
      std::min((sector + 1) * sectorSize, static_cast<long long>(cache.size()));
  if (to > from) {
    Put(image, static_cast<size_t>(from), cache.data() + static_cast<size_t>(from),
        static_cast<size_t>(to - from));
  }
}

void ApplyKept(std::string* image, const std::string& cache, const Inode::Change& change,
               int sectorSize) {
  const long long end = change.offset + static_cast<long long>(change.bytes.size());
  for (long long sector = change.offset / sectorSize; sector <= (end - 1) / sectorSize;
       ++sector) {
    LandSector(image, cache, sector, sectorSize);
  }
  Apply(image, change);
}

// A write cut short: whole sectors up to a chosen one, a prefix of that one
// followed by old bytes or garbage, nothing after it.
void ApplyTorn(std::string* image, const std::string& cache, const Inode::Change& change,
               std::mt19937* random, int sectorSize) {
  const long long begin = change.offset;
  const long long end = begin + static_cast<long long>(change.bytes.size());
  const long long firstSector = begin / sectorSize;
  const long long lastSector = (end - 1) / sectorSize;
  const long long torn =
      firstSector + static_cast<long long>((*random)() % (lastSector - firstSector + 1));
  const long long tornBegin = std::max(begin, torn * sectorSize);
  const long long tornEnd = std::min(end, (torn + 1) * sectorSize);
  const long long prefix = static_cast<long long>((*random)() % (tornEnd - tornBegin));
  const bool garbage = (*random)() % 2 == 0;
  for (long long sector = firstSector; sector <= torn; ++sector) {
    LandSector(image, cache, sector, sectorSize);
  }
  const char* bytes = change.bytes.data();
  Put(image, static_cast<size_t>(begin), bytes,
      static_cast<size_t>(tornBegin + prefix - begin));
  if (garbage) {
    std::string noise(static_cast<size_t>(tornEnd - tornBegin - prefix), '\0');
    for (char& c : noise) c = static_cast<char>((*random)() & 0xFF);
    Put(image, static_cast<size_t>(tornBegin + prefix), noise.data(), noise.size());
  }
}

// What the inode holds after the cut: its synced content and a subset of
// the changes since, some writes torn. `cache` follows every change, as
// the page cache did.
std::string Survivor(const Inode& inode, std::mt19937* random, int sectorSize) {
  std::string image = inode.synced;
  std::string cache = inode.synced;
  for (const Inode::Change& change : inode.changes) {
    unsigned roll = (*random)() % 4;
    const char* fate = "lost";
    if (change.truncate) {
      if (roll < 2) Apply(&image, change);
      fate = roll < 2 ? "truncation kept" : "truncation lost";
    } else if (change.bytes.empty() || roll < 2) {
      if (!change.bytes.empty()) ApplyKept(&image, cache, change, sectorSize);
      fate = "kept";
    } else if (roll == 3) {
      ApplyTorn(&image, cache, change, random, sectorSize);
      fate = "torn";
    }
    Apply(&cache, change);
    if (Tracing()) {
      std::fprintf(stderr, "fault vfs: cut: change at %lld, %zu bytes: %s\n", change.offset,
                   change.bytes.size(), fate);
    }
  }
  return image;
}

void WriteWhole(const std::string& path, const std::string& bytes) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0640);
  if (fd < 0) _exit(kPowerCutExitStatus + 1);
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
    if (put <= 0) _exit(kPowerCutExitStatus + 1);
    done += static_cast<size_t>(put);
  }
  close(fd);
}

[[noreturn]] void CutLocked(State& state) {
  std::mt19937 random(state.cutSeed);
  for (auto& [path, entry] : state.entries) {
    std::shared_ptr<Inode> survivor = entry.current;
    if (entry.current != entry.durable && random() % 2 == 0) survivor = entry.durable;
    if (Tracing()) {
      std::fprintf(stderr, "fault vfs: cut: %s: %s%s\n", path.c_str(),
                   survivor == nullptr ? "no file" : "file",
                   entry.current == entry.durable ? ""
                   : survivor == entry.durable ? " (old directory entry)"
                                               : " (new directory entry)");
    }
    if (survivor == nullptr) {
      unlink(path.c_str());
    } else {
      WriteWhole(path, Survivor(*survivor, &random, state.sectorSize));
    }
  }
  _exit(kPowerCutExitStatus);
}

// Counts `op` on a tracked file and answers the code of an armed failure
// (SQLITE_OK when the operation should run).
int Enter(State& state, FaultOp op) {
  ++state.counts[static_cast<int>(op)];
  FailPlan& plan = state.plans[static_cast<int>(op)];
  if (!plan.armed) return SQLITE_OK;
  ++plan.seen;
  if (plan.seen == plan.n || (plan.persistent && plan.seen > plan.n)) {
    ++state.injected;
    return plan.code;
  }
  return SQLITE_OK;
}

void DurableOpDone(State& state) {
  ++state.durableOps;
  if (state.cutArmed && state.durableOps == state.cutAt) CutLocked(state);
}

void SyncDirectory(State& state, const std::string& dir) {
  for (auto& [path, entry] : state.entries) {
    if (DirOf(path) == dir) entry.durable = entry.current;
  }
}

// The inode a tracked path names now; made from the disk on first sight.
std::shared_ptr<Inode> InodeOf(State& state, const std::string& path) {
  auto found = state.entries.find(path);
  if (found != state.entries.end() && found->second.current != nullptr) {
    return found->second.current;
  }
  auto inode = std::make_shared<Inode>();
  struct stat info;
  bool onDisk = stat(path.c_str(), &info) == 0;
  if (onDisk) inode->synced = ReadWhole(path);
  if (found == state.entries.end()) {
    state.entries[path] = Entry{inode, onDisk ? inode : nullptr};
  } else {
    found->second.current = inode;
  }
  return inode;
}

void NoteSize(State& state, Handle* handle) {
  sqlite3_int64 size = 0;
  if (handle->real->pMethods->xFileSize(handle->real, &size) == SQLITE_OK) {
    state.sizes[handle->path] = size;
  }
}

long long TotalSize(const State& state) {
  long long total = 0;
  for (const auto& [path, size] : state.sizes) total += size;
  return total;
}

// ---- File methods ----

int FaultClose(sqlite3_file* file) {
  int rc = Real(file)->pMethods->xClose(Real(file));
  file->pMethods = nullptr;
  return rc;
}

int FaultRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
  Handle* handle = reinterpret_cast<Handle*>(file);
  if (handle->tracked) {
    State& state = TheState();
    std::lock_guard<std::mutex> lock(state.mutex);
    int code = Enter(state, FaultOp::kRead);
    if (code != SQLITE_OK) return code;
  }
  return handle->real->pMethods->xRead(handle->real, buffer, amount, offset);
}

int FaultWrite(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
  Handle* handle = reinterpret_cast<Handle*>(file);
  if (!handle->tracked) {
    return handle->real->pMethods->xWrite(handle->real, buffer, amount, offset);
  }
  FaultAllocPause pause;  // the record below is the disk's, not the library's
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  int code = Enter(state, FaultOp::kWrite);
  if (code != SQLITE_OK) return code;
  if (state.budget >= 0) {
    long long size = state.sizes[handle->path];
    long long growth = std::max(0LL, offset + amount - size);
    if (TotalSize(state) + growth > state.budget) {
      ++state.injected;
      return SQLITE_FULL;
    }
  }
  int rc = handle->real->pMethods->xWrite(handle->real, buffer, amount, offset);
  if (rc != SQLITE_OK) return rc;
  FaultFileCounts& counts = state.fileCounts[static_cast<int>(handle->kind)];
  ++counts.writes;
  counts.bytesWritten += static_cast<unsigned long long>(amount);
  InodeOf(state, handle->path)
      ->changes.push_back(Inode::Change{
          false, offset, std::string(static_cast<const char*>(buffer), amount)});
  Trace("write", handle->path, offset, amount);
  NoteSize(state, handle);
  state.peakBytes = std::max(state.peakBytes, TotalSize(state));
  DurableOpDone(state);
  return rc;
}

int FaultTruncate(sqlite3_file* file, sqlite3_int64 size) {
  Handle* handle = reinterpret_cast<Handle*>(file);
  if (!handle->tracked) return handle->real->pMethods->xTruncate(handle->real, size);
  FaultAllocPause pause;
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  int code = Enter(state, FaultOp::kTruncate);
  if (code != SQLITE_OK) return code;
  int rc = handle->real->pMethods->xTruncate(handle->real, size);
  if (rc != SQLITE_OK) return rc;
  InodeOf(state, handle->path)->changes.push_back(Inode::Change{true, size, {}});
  Trace("truncate", handle->path, size, 0);
  NoteSize(state, handle);
  DurableOpDone(state);
  return rc;
}

int FaultSync(sqlite3_file* file, int flags) {
  Handle* handle = reinterpret_cast<Handle*>(file);
  if (!handle->tracked) return handle->real->pMethods->xSync(handle->real, flags);
  FaultAllocPause pause;
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  int code = Enter(state, FaultOp::kSync);
  if (code != SQLITE_OK) return code;
  int rc =
      state.realSyncs ? handle->real->pMethods->xSync(handle->real, flags) : SQLITE_OK;
  if (rc != SQLITE_OK) return rc;
  ++state.fileCounts[static_cast<int>(handle->kind)].syncs;
  std::shared_ptr<Inode> inode = InodeOf(state, handle->path);
  for (const Inode::Change& change : inode->changes) Apply(&inode->synced, change);
  inode->changes.clear();
  Trace(handle->dirSyncPending ? "sync (and directory)" : "sync", handle->path, 0,
        static_cast<long long>(inode->synced.size()));
  if (handle->dirSyncPending) {
    SyncDirectory(state, DirOf(handle->path));
    handle->dirSyncPending = false;
  }
  DurableOpDone(state);
  return rc;
}

int FaultFileSize(sqlite3_file* file, sqlite3_int64* size) {
  Handle* handle = reinterpret_cast<Handle*>(file);
  if (handle->tracked) {
    State& state = TheState();
    std::lock_guard<std::mutex> lock(state.mutex);
    int code = Enter(state, FaultOp::kFileSize);
    if (code != SQLITE_OK) return code;
  }
  return handle->real->pMethods->xFileSize(handle->real, size);
}

int FaultLock(sqlite3_file* file, int lock) {
  return Real(file)->pMethods->xLock(Real(file), lock);
}
int FaultUnlock(sqlite3_file* file, int lock) {
  return Real(file)->pMethods->xUnlock(Real(file), lock);
}
int FaultCheckReservedLock(sqlite3_file* file, int* out) {
  return Real(file)->pMethods->xCheckReservedLock(Real(file), out);
}
int FaultFileControl(sqlite3_file* file, int op, void* arg) {
  return Real(file)->pMethods->xFileControl(Real(file), op, arg);
}
int FaultSectorSize(sqlite3_file* file) {
  return Real(file)->pMethods->xSectorSize(Real(file));
}
int FaultDeviceCharacteristics(sqlite3_file* file) {
  return Real(file)->pMethods->xDeviceCharacteristics(Real(file));
}
int FaultShmMap(sqlite3_file* file, int page, int size, int extend, void volatile** out) {
  return Real(file)->pMethods->xShmMap(Real(file), page, size, extend, out);
}
int FaultShmLock(sqlite3_file* file, int offset, int n, int flags) {
  return Real(file)->pMethods->xShmLock(Real(file), offset, n, flags);
}
void FaultShmBarrier(sqlite3_file* file) {
  Real(file)->pMethods->xShmBarrier(Real(file));
}
int FaultShmUnmap(sqlite3_file* file, int deleteFlag) {
  return Real(file)->pMethods->xShmUnmap(Real(file), deleteFlag);
}
// No memory-mapped pages: every read goes through FaultRead.
int FaultFetch(sqlite3_file*, sqlite3_int64, int, void** out) {
  *out = nullptr;
  return SQLITE_OK;
}
int FaultUnfetch(sqlite3_file* file, sqlite3_int64 offset, void* page) {
  return Real(file)->pMethods->xUnfetch(Real(file), offset, page);
}

const sqlite3_io_methods kMethods = {3,
                                     FaultClose,
                                     FaultRead,
                                     FaultWrite,
                                     FaultTruncate,
                                     FaultSync,
                                     FaultFileSize,
                                     FaultLock,
                                     FaultUnlock,
                                     FaultCheckReservedLock,
                                     FaultFileControl,
                                     FaultSectorSize,
                                     FaultDeviceCharacteristics,
                                     FaultShmMap,
                                     FaultShmLock,
                                     FaultShmBarrier,
                                     FaultShmUnmap,
                                     FaultFetch,
                                     FaultUnfetch};

// ---- VFS methods ----

sqlite3_vfs* RealVfs() { return TheState().real; }

bool KindOf(int flags, FaultFile* kind) {
  if (flags & SQLITE_OPEN_MAIN_DB) {
    *kind = FaultFile::kDatabase;
  } else if (flags & SQLITE_OPEN_MAIN_JOURNAL) {
    *kind = FaultFile::kJournal;
  } else if (flags & SQLITE_OPEN_WAL) {
    *kind = FaultFile::kWal;
  } else {
    return false;
  }
  return true;
}

int FaultOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags,
              int* outFlags) {
  Handle* handle = reinterpret_cast<Handle*>(file);
  file->pMethods = nullptr;
  handle->real = reinterpret_cast<sqlite3_file*>(handle + 1);
  handle->path = name;
  handle->kind = FaultFile::kDatabase;
  handle->tracked = name != nullptr && KindOf(flags, &handle->kind);
  handle->dirSyncPending = handle->tracked && handle->kind != FaultFile::kDatabase &&
                           (flags & SQLITE_OPEN_CREATE);
  State& state = TheState();
  std::unique_lock<std::mutex> lock(state.mutex, std::defer_lock);
  if (handle->tracked) {
    lock.lock();
    int code = Enter(state, FaultOp::kOpen);
    if (code != SQLITE_OK) return code;
    FaultAllocPause pause;
    InodeOf(state, name);  // an existing file is recorded before SQLite changes it
  }
  // The unix VFS's own allocations here are SQLite's: they count and fail.
  int rc = RealVfs()->xOpen(RealVfs(), name, handle->real, flags, outFlags);
  FaultAllocPause pause;
  if (rc != SQLITE_OK) {
    if (handle->tracked && access(name, F_OK) != 0) state.entries[name].current = nullptr;
    return rc;
  }
  file->pMethods = &kMethods;
  if (handle->tracked) NoteSize(state, handle);
  return rc;
}

int FaultDelete(sqlite3_vfs*, const char* name, int dirSync) {
  FaultAllocPause pause;
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  auto found = state.entries.find(name);
  bool tracked = found != state.entries.end();
  if (tracked) {
    int code = Enter(state, FaultOp::kDelete);
    if (code != SQLITE_OK) return code;
  }
  int rc = RealVfs()->xDelete(RealVfs(), name, dirSync);
  if (!tracked || rc != SQLITE_OK) return rc;
  found->second.current = nullptr;
  state.sizes.erase(name);
  if (dirSync) SyncDirectory(state, DirOf(name));
  Trace(dirSync ? "delete (and directory)" : "delete", name, 0, 0);
  DurableOpDone(state);
  return rc;
}

int FaultAccess(sqlite3_vfs*, const char* name, int flags, int* out) {
  return RealVfs()->xAccess(RealVfs(), name, flags, out);
}
int FaultFullPathname(sqlite3_vfs*, const char* name, int size, char* out) {
  return RealVfs()->xFullPathname(RealVfs(), name, size, out);
}
void* FaultDlOpen(sqlite3_vfs*, const char* name) {
  return RealVfs()->xDlOpen(RealVfs(), name);
}
void FaultDlError(sqlite3_vfs*, int size, char* out) {
  RealVfs()->xDlError(RealVfs(), size, out);
}
void (*FaultDlSym(sqlite3_vfs*, void* library, const char* symbol))(void) {
  return RealVfs()->xDlSym(RealVfs(), library, symbol);
}
void FaultDlClose(sqlite3_vfs*, void* library) {
  RealVfs()->xDlClose(RealVfs(), library);
}
int FaultRandomness(sqlite3_vfs*, int size, char* out) {
  return RealVfs()->xRandomness(RealVfs(), size, out);
}
int FaultSleep(sqlite3_vfs*, int micros) { return RealVfs()->xSleep(RealVfs(), micros); }
int FaultCurrentTime(sqlite3_vfs*, double* out) {
  return RealVfs()->xCurrentTime(RealVfs(), out);
}
int FaultGetLastError(sqlite3_vfs*, int size, char* out) {
  return RealVfs()->xGetLastError(RealVfs(), size, out);
}
int FaultCurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* out) {
  return RealVfs()->xCurrentTimeInt64(RealVfs(), out);
}

sqlite3_vfs* TheVfs() {
  static sqlite3_vfs vfs = [] {
    sqlite3_vfs* real = sqlite3_vfs_find("unix");
    TheState().real = real;
    sqlite3_vfs made;
    std::memset(&made, 0, sizeof(made));
    made.iVersion = 2;
    made.szOsFile = static_cast<int>(sizeof(Handle)) + real->szOsFile;
    made.mxPathname = real->mxPathname;
    made.zName = "ipc_db_fault";
    made.xOpen = FaultOpen;
    made.xDelete = FaultDelete;
    made.xAccess = FaultAccess;
    made.xFullPathname = FaultFullPathname;
    made.xDlOpen = FaultDlOpen;
    made.xDlError = FaultDlError;
    made.xDlSym = FaultDlSym;
    made.xDlClose = FaultDlClose;
    made.xRandomness = FaultRandomness;
    made.xSleep = FaultSleep;
    made.xCurrentTime = FaultCurrentTime;
    made.xGetLastError = FaultGetLastError;
    made.xCurrentTimeInt64 = FaultCurrentTimeInt64;
    return made;
  }();
  return &vfs;
}

// ---- Allocation countdown ----

struct AllocState {
  std::atomic<unsigned long long> allocations{0};
  std::atomic<unsigned long long> failed{0};
  std::atomic<unsigned long long> failAt{0};  // allocation index, 0: none
  std::atomic<bool> persistent{false};
  sqlite3_mem_methods sqliteDefault{};
  bool installed = false;
};

// Constant-initialized: operator new of a test binary consults it, so it
// must exist before any allocation and never allocate itself.
AllocState g_alloc;

AllocState& TheAlloc() { return g_alloc; }

thread_local int t_allocPauses = 0;

void* AllocMalloc(int size) {
  if (FaultAlloc::TakeAllocation()) return nullptr;
  return TheAlloc().sqliteDefault.xMalloc(size);
}
void AllocFree(void* pointer) { TheAlloc().sqliteDefault.xFree(pointer); }
void* AllocRealloc(void* pointer, int size) {
  if (FaultAlloc::TakeAllocation()) return nullptr;
  return TheAlloc().sqliteDefault.xRealloc(pointer, size);
}
int AllocSize(void* pointer) { return TheAlloc().sqliteDefault.xSize(pointer); }
int AllocRoundup(int size) { return TheAlloc().sqliteDefault.xRoundup(size); }
int AllocInit(void* data) { return TheAlloc().sqliteDefault.xInit(data); }
void AllocShutdown(void* data) { TheAlloc().sqliteDefault.xShutdown(data); }

}  // namespace

// ---- FaultVfs ----

void FaultVfs::Install() { sqlite3_vfs_register(TheVfs(), 1); }

void FaultVfs::Reset() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (auto& count : state.counts) count = 0;
  for (auto& counts : state.fileCounts) counts = FaultFileCounts();
  for (auto& plan : state.plans) plan = FailPlan();
  state.durableOps = 0;
  state.injected = 0;
  state.budget = -1;
  state.cutArmed = false;
}

void FaultVfs::SetRealSyncs(bool real) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.realSyncs = real;
}

void FaultVfs::ForgetFiles() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.entries.clear();
  state.sizes.clear();
}

void FaultVfs::ResetCounts() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (auto& count : state.counts) count = 0;
  for (auto& counts : state.fileCounts) counts = FaultFileCounts();
  state.durableOps = 0;
  state.peakBytes = TotalSize(state);
}

unsigned long long FaultVfs::Count(FaultOp op) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.counts[static_cast<int>(op)];
}

FaultFileCounts FaultVfs::Counts(FaultFile file) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.fileCounts[static_cast<int>(file)];
}

unsigned long long FaultVfs::DurableOps() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.durableOps;
}

void FaultVfs::FailNth(FaultOp op, unsigned long long n, int code, bool persistent) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  FailPlan& plan = state.plans[static_cast<int>(op)];
  plan.armed = n > 0;
  plan.n = n;
  plan.seen = 0;
  plan.code = code;
  plan.persistent = persistent;
}

unsigned long long FaultVfs::Injected() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.injected;
}

void FaultVfs::SetBudget(long long bytes) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.budget = bytes;
}

long long FaultVfs::TrackedBytes() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return TotalSize(state);
}

long long FaultVfs::PeakBytes() {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  return state.peakBytes;
}

void FaultVfs::ArmPowerCut(unsigned long long afterOp, uint32_t seed, int sectorSize) {
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.cutArmed = afterOp > 0;
  state.cutAt = state.durableOps + afterOp;
  state.cutSeed = seed;
  state.sectorSize = sectorSize;
}

void FaultVfs::CutNow() {
  State& state = TheState();
  state.mutex.lock();  // held until _exit
  CutLocked(state);
}

// ---- File operations outside SQLite ----

namespace {

// The directory name as the records hold it: no trailing slash.
std::string DirectoryName(const char* directory) {
  std::string name = directory;
  while (name.size() > 1 && name.back() == '/') name.pop_back();
  return name;
}

// Runs `operation` and, when it succeeded, `record` under the state's lock,
// then counts a durable operation (and cuts there when armed).
template <typename Operation, typename Record>
int OutsideOp(const char* what, const std::string& path, Operation operation, Record record) {
  FaultAllocPause pause;
  State& state = TheState();
  std::lock_guard<std::mutex> lock(state.mutex);
  record(state, true);  // before: files met for the first time are read from the disk
  const int rc = operation(state);
  if (rc != 0) return rc;
  record(state, false);
  Trace(what, path, 0, 0);
  DurableOpDone(state);
  return 0;
}

// A link or a rename: `to` comes to name the file `from` names; after a
// rename `from` names nothing.
int NewName(const char* what, const char* from, const char* to, bool keepOld) {
  std::shared_ptr<Inode> inode;
  return OutsideOp(
      what, to,
      [&](State&) { return keepOld ? link(from, to) : rename(from, to); },
      [&](State& state, bool before) {
        if (before) {
          inode = InodeOf(state, from);
          if (access(to, F_OK) == 0) InodeOf(state, to);
          return;
        }
        state.entries[to].current = inode;
        if (keepOld) return;
        state.entries[from].current = nullptr;
        state.sizes.erase(from);
      });
}

}  // namespace

int FaultVfs::Link(const char* from, const char* to) { return NewName("link", from, to, true); }

int FaultVfs::Rename(const char* from, const char* to) {
  return NewName("rename", from, to, false);
}

int FaultVfs::Unlink(const char* path) {
  return OutsideOp(
      "unlink", path, [&](State&) { return unlink(path); },
      [&](State& state, bool before) {
        if (before) {
          if (access(path, F_OK) == 0) InodeOf(state, path);
        } else {
          state.entries[path].current = nullptr;
          state.sizes.erase(path);
        }
      });
}

int FaultVfs::SyncFile(const char* path) {
  return OutsideOp(
      "sync", path,
      [&](State& state) {
        if (!state.realSyncs) return access(path, F_OK);
        const int fd = open(path, O_RDONLY);
        if (fd < 0) return -1;
        const int rc = fsync(fd);
        close(fd);
        return rc;
      },
      [&](State& state, bool before) {
        std::shared_ptr<Inode> inode = InodeOf(state, path);
        if (before) return;
        for (const Inode::Change& change : inode->changes) Apply(&inode->synced, change);
        inode->changes.clear();
      });
}

int FaultVfs::SyncDirectory(const char* directory) {
  const std::string name = DirectoryName(directory);
  return OutsideOp(
      "directory sync", name,
      [&](State& state) {
        if (!state.realSyncs) return access(name.c_str(), F_OK);
        const int fd = open(name.c_str(), O_RDONLY | O_DIRECTORY);
        if (fd < 0) return -1;
        const int rc = fsync(fd);
        close(fd);
        return rc;
      },
      [&](State& state, bool before) {
        if (!before) ::ipc_db_test::SyncDirectory(state, name);
      });
}

// ---- FaultAlloc ----

void FaultAlloc::Install() {
  AllocState& state = TheAlloc();
  if (!state.installed) {
    sqlite3_shutdown();
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &state.sqliteDefault);
    static sqlite3_mem_methods wrapped = {AllocMalloc,   AllocFree,    AllocRealloc,
                                          AllocSize,     AllocRoundup, AllocInit,
                                          AllocShutdown, nullptr};
    sqlite3_config(SQLITE_CONFIG_MALLOC, &wrapped);
    sqlite3_initialize();
    state.installed = true;
  }
  FaultVfs::Install();
}

void FaultAlloc::FailNth(unsigned long long n, bool persistent) {
  AllocState& state = TheAlloc();
  state.persistent = persistent;
  state.failAt = n == 0 ? 0 : state.allocations + n;
}

bool FaultAlloc::TakeAllocation() {
  if (t_allocPauses > 0) return false;
  AllocState& state = TheAlloc();
  unsigned long long index = ++state.allocations;
  unsigned long long failAt = state.failAt;
  if (failAt != 0 && (index == failAt || (state.persistent && index > failAt))) {
    ++state.failed;
    return true;
  }
  return false;
}

FaultAllocPause::FaultAllocPause() { ++t_allocPauses; }
FaultAllocPause::~FaultAllocPause() { --t_allocPauses; }

unsigned long long FaultAlloc::Allocations() { return TheAlloc().allocations; }
unsigned long long FaultAlloc::Failed() { return TheAlloc().failed; }
void FaultAlloc::ResetCounts() {
  TheAlloc().allocations = 0;
  TheAlloc().failed = 0;
  TheAlloc().failAt = 0;
}

// ---- Plans ----

uint32_t FaultSeed() {
  const char* fixed = std::getenv("IPC_DB_FAULT_SEED");
  if (fixed != nullptr && *fixed != '\0') {
    return static_cast<uint32_t>(std::strtoul(fixed, nullptr, 10));
  }
  return static_cast<uint32_t>(
      std::chrono::steady_clock::now().time_since_epoch().count() & 0xFFFFFFFFu);
}

long long FaultPointOnly() {
  const char* point = std::getenv("IPC_DB_FAULT_POINT");
  if (point == nullptr || *point == '\0') return -1;
  return std::strtoll(point, nullptr, 10);
}

bool FaultScaleFull() {
  const char* scale = std::getenv("IPC_DB_FAULT_SCALE");
  return scale != nullptr && std::strcmp(scale, "full") == 0;
}

uint32_t PointSeed(uint32_t seed, unsigned long long index) {
  // splitmix64 of the pair: neighbouring indexes give unrelated seeds.
  uint64_t z = (static_cast<uint64_t>(seed) << 32) ^ index;
  z += 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  z ^= z >> 31;
  return static_cast<uint32_t>(z ^ (z >> 32));
}

}  // namespace ipc_db_test
