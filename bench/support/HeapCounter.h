// Heap peaks of one call in the device-cost benchmark: this binary's own
// malloc family (which libstdc++'s operator new calls too) counts the bytes
// the library and the benchmark hold, and a wrapper of SQLite's allocator
// counts SQLite's own apart, so that one is not counted in the other.
#ifndef IPC_DB_BENCH_SUPPORT_HEAPCOUNTER_H_
#define IPC_DB_BENCH_SUPPORT_HEAPCOUNTER_H_

struct HeapPeaks {
  // Largest growth of the bytes held outside SQLite since Start().
  long long libraryPeak = 0;
  // Growth still held at Stop(): what the call handed to the caller.
  long long libraryRetained = 0;
  // Largest growth of the bytes SQLite held since Start().
  long long sqlitePeak = 0;
};

class HeapCounter {
 public:
  // Wraps SQLite's allocator. Call before SQLite is first used.
  static void Install();
  static void Start();
  static HeapPeaks Stop();
};

#endif  // IPC_DB_BENCH_SUPPORT_HEAPCOUNTER_H_
