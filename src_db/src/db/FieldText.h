// Reading values out of the caller's memory for SQL text: the number carried
// in a filter's pointer slot, and the characters of a fixed-width field.
// Shared by the filter renderer and the insert so that both read fields by
// exactly the same rule.
#ifndef IPC_DB_SRC_DB_FIELDTEXT_H_
#define IPC_DB_SRC_DB_FIELDTEXT_H_

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace ipc_db::detail {

// The number a filter carries in a pointer slot: the slot's bits taken as a
// signed 32-bit integer (the low 32 bits where pointers are wider).
inline int32_t SlotInt(const void* slot) {
  return static_cast<int32_t>(reinterpret_cast<intptr_t>(slot));
}

// Appends the characters of the field at `field` that is `width` bytes wide,
// stopping at the first zero byte or after the character at index `width`.
// The bound is inclusive on purpose: a field filled to its last byte with no
// terminator contributes the byte that follows it as well. Nothing is
// escaped. A null field contributes nothing. The characters are found with
// one scan and appended with one copy.
inline void AppendFieldChars(std::string* out, const char* field, size_t width) {
  if (field == nullptr) return;
  const void* zero = std::memchr(field, '\0', width + 1);
  size_t length = zero != nullptr
                      ? static_cast<size_t>(static_cast<const char*>(zero) - field)
                      : width + 1;
  out->append(field, length);
}

// Appends `value` in plain decimal, as std::to_string writes it, without a
// temporary string.
inline void AppendDecimal(std::string* out, long long value) {
  char digits[24];
  std::to_chars_result written = std::to_chars(digits, digits + sizeof(digits), value);
  out->append(digits, static_cast<size_t>(written.ptr - digits));
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_FIELDTEXT_H_
