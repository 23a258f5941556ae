// The replaced global operator new and delete (see FailingOperatorNew.h).
// Blocks come from malloc, so that a block allocated before the countdown
// was armed is freed the same way; live blocks are counted.
#include "FailingOperatorNew.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "FaultVfs.h"

namespace {
// Constant-initialized: operator new may run before any constructor.
std::atomic<long long> g_liveBlocks{0};
}  // namespace

namespace ipc_db_test {
long long LiveOperatorNewBlocks() { return g_liveBlocks; }
}  // namespace ipc_db_test

// GCC sees free() on a block from operator new and warns, not knowing that
// this operator new uses malloc.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  if (ipc_db_test::FaultAlloc::TakeAllocation()) throw std::bad_alloc();
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  ++g_liveBlocks;
  return block;
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return ::operator new(size, tag);
}
void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  --g_liveBlocks;
  std::free(block);
}
void operator delete[](void* block) noexcept { ::operator delete(block); }
void operator delete(void* block, std::size_t) noexcept { ::operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { ::operator delete(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept {
  ::operator delete(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  ::operator delete(block);
}
