// Host implementation of the bounded memory and string functions. Each call
// validates sizes before writing and clears what it refuses to fill, which is
// the behaviour the device's own library has.
#include "bounded_mem.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

bool Overlaps(const void* a, size_t aSize, const void* b, size_t bSize) {
  auto a0 = reinterpret_cast<uintptr_t>(a);
  auto b0 = reinterpret_cast<uintptr_t>(b);
  return a0 < b0 + bSize && b0 < a0 + aSize;
}

}  // namespace

extern "C" {

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
  if (dest == nullptr || destMax == 0) return EINVAL;
  if (src == nullptr) {
    std::memset(dest, 0, destMax);
    return EINVAL;
  }
  if (count > destMax) {
    std::memset(dest, 0, destMax);
    return ERANGE;
  }
  if (count > 0 && Overlaps(dest, count, src, count)) {
    std::memset(dest, 0, destMax);
    return EINVAL;
  }
  if (count > 0) std::memcpy(dest, src, count);
  return 0;
}

int memset_s(void* dest, size_t destMax, int c, size_t count) {
  if (dest == nullptr || destMax == 0) return EINVAL;
  if (count > destMax) {
    std::memset(dest, c, destMax);
    return ERANGE;
  }
  std::memset(dest, c, count);
  return 0;
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
  if (dest == nullptr || destMax == 0) return EINVAL;
  if (src == nullptr) {
    dest[0] = '\0';
    return EINVAL;
  }
  // Never look further into `src` than both limits allow.
  size_t limit = (count < destMax ? count : destMax) + 1;
  size_t length = strnlen(src, limit);
  if (length > count || length + 1 > destMax) {
    dest[0] = '\0';
    return ERANGE;
  }
  if (Overlaps(dest, length + 1, src, length + 1)) {
    dest[0] = '\0';
    return EINVAL;
  }
  std::memcpy(dest, src, length);
  dest[length] = '\0';
  return 0;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
  if (dest == nullptr || destMax == 0 || format == nullptr) return -1;
  size_t room = count < destMax - 1 ? count : destMax - 1;
  va_list args;
  va_start(args, format);
  int wanted = std::vsnprintf(dest, room + 1, format, args);
  va_end(args);
  if (wanted < 0) {
    dest[0] = '\0';
    return -1;
  }
  if (static_cast<size_t>(wanted) > room) return -1;
  return wanted;
}

}  // extern "C"
