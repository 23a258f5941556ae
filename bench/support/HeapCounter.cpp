// The allocation counters of HeapCounter.h. malloc, calloc, realloc, free
// and the aligned forms are defined here, in the executable, so they take
// the place of the C library's for every shared object of the process
// (libstdc++'s operator new included); each forwards to the C library's
// own entry (__libc_malloc and kin) and, while counting, adds or subtracts
// the block's usable size. SQLite's allocations go through a wrapper of its
// default allocator that marks the thread as inside SQLite, so they are
// counted on SQLite's side only.
#include "HeapCounter.h"

#include <malloc.h>
#include <sqlcipher/sqlite3.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

// Under AddressSanitizer or ThreadSanitizer the sanitizer owns malloc: the
// replacements are left out there, and only SQLite's side is counted.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define IPC_DB_HEAP_COUNTER_REPLACES_MALLOC 0
#else
#define IPC_DB_HEAP_COUNTER_REPLACES_MALLOC 1
#endif

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* pointer);
}

namespace {

struct Side {
  std::atomic<long long> held{0};
  std::atomic<long long> peak{0};
  void Add(long long bytes) {
    long long now = held.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    long long seen = peak.load(std::memory_order_relaxed);
    while (now > seen && !peak.compare_exchange_weak(seen, now, std::memory_order_relaxed)) {
    }
  }
  void Restart() {
    held.store(0);
    peak.store(0);
  }
};

std::atomic<bool> g_counting{false};
Side g_library;
Side g_sqlite;
thread_local bool t_inSqlite = false;
sqlite3_mem_methods g_default;

#if IPC_DB_HEAP_COUNTER_REPLACES_MALLOC
void Note(void* pointer, int sign) {
  if (pointer == nullptr || t_inSqlite || !g_counting.load(std::memory_order_relaxed)) return;
  g_library.Add(sign * static_cast<long long>(malloc_usable_size(pointer)));
}
#endif

// SQLite's side: the default allocator, with the thread marked.
struct InSqlite {
  InSqlite() { t_inSqlite = true; }
  ~InSqlite() { t_inSqlite = false; }
};
void NoteSqlite(void* pointer, int sign) {
  if (pointer == nullptr || !g_counting.load(std::memory_order_relaxed)) return;
  g_sqlite.Add(sign * static_cast<long long>(g_default.xSize(pointer)));
}
void* SqliteMalloc(int size) {
  InSqlite mark;
  void* pointer = g_default.xMalloc(size);
  NoteSqlite(pointer, 1);
  return pointer;
}
void SqliteFree(void* pointer) {
  InSqlite mark;
  NoteSqlite(pointer, -1);
  g_default.xFree(pointer);
}
void* SqliteRealloc(void* pointer, int size) {
  InSqlite mark;
  long long before = pointer != nullptr ? g_default.xSize(pointer) : 0;
  void* moved = g_default.xRealloc(pointer, size);
  if (moved != nullptr && g_counting.load(std::memory_order_relaxed)) {
    g_sqlite.Add(g_default.xSize(moved) - before);
  }
  return moved;
}
int SqliteSize(void* pointer) { return g_default.xSize(pointer); }
int SqliteRoundup(int size) { return g_default.xRoundup(size); }
int SqliteInit(void* data) { return g_default.xInit(data); }
void SqliteShutdown(void* data) { g_default.xShutdown(data); }

}  // namespace

#if IPC_DB_HEAP_COUNTER_REPLACES_MALLOC
extern "C" {

void* malloc(size_t size) {
  void* pointer = __libc_malloc(size);
  Note(pointer, 1);
  return pointer;
}
void* calloc(size_t count, size_t size) {
  void* pointer = __libc_calloc(count, size);
  Note(pointer, 1);
  return pointer;
}
void* realloc(void* pointer, size_t size) {
  Note(pointer, -1);
  void* moved = __libc_realloc(pointer, size);
  Note(moved != nullptr || size == 0 ? moved : pointer, 1);
  return moved;
}
void free(void* pointer) {
  Note(pointer, -1);
  __libc_free(pointer);
}
void* memalign(size_t alignment, size_t size) {
  void* pointer = __libc_memalign(alignment, size);
  Note(pointer, 1);
  return pointer;
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** out, size_t alignment, size_t size) {
  void* pointer = memalign(alignment, size);
  if (pointer == nullptr) return ENOMEM;
  *out = pointer;
  return 0;
}

}  // extern "C"
#endif

void HeapCounter::Install() {
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &g_default);
  static const sqlite3_mem_methods kCounted = {SqliteMalloc,  SqliteFree,     SqliteRealloc,
                                               SqliteSize,    SqliteRoundup,  SqliteInit,
                                               SqliteShutdown, nullptr};
  sqlite3_config(SQLITE_CONFIG_MALLOC, &kCounted);
}

void HeapCounter::Start() {
  g_library.Restart();
  g_sqlite.Restart();
  g_counting.store(true);
}

HeapPeaks HeapCounter::Stop() {
  g_counting.store(false);
  HeapPeaks peaks;
  peaks.libraryPeak = g_library.peak.load();
  peaks.libraryRetained = g_library.held.load();
  peaks.sqlitePeak = g_sqlite.peak.load();
  return peaks;
}
