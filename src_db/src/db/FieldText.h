// Reading values out of the caller's memory for SQL text: the number carried
// in a filter's pointer slot, and the characters of a fixed-width field.
// Shared by the filter renderer and the insert so that both read fields by
// exactly the same rule.
#ifndef IPC_DB_SRC_DB_FIELDTEXT_H_
#define IPC_DB_SRC_DB_FIELDTEXT_H_

#include <cstddef>
#include <cstdint>
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
// escaped. A null field contributes nothing.
inline void AppendFieldChars(std::string* out, const char* field, size_t width) {
  if (field == nullptr) return;
  for (size_t i = 0; i <= width; ++i) {
    if (field[i] == '\0') return;
    out->push_back(field[i]);
  }
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_FIELDTEXT_H_
