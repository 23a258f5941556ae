// Helpers shared by the libFuzzer targets: a reader that turns the fuzzer's
// bytes into numbers, texts and exactly sized buffers, a reference rendering
// of filter terms written from the documented rules (the targets compare the
// library's output with it), and a log sink that drops every entry.
#ifndef IPC_DB_FUZZ_FUZZSUPPORT_H_
#define IPC_DB_FUZZ_FUZZSUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DbFilter.h"
#include "Meta.h"
#include "zb_log.h"

namespace ipc_db_fuzz {

// Reads the input front to back; gives zeros once it is used up.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint32_t U32() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = (value << 8) | Byte();
    return value;
  }
  int32_t I32() { return static_cast<int32_t>(U32()); }
  // A text of up to `maxLength` bytes (length taken from the input).
  std::string Text(size_t maxLength) {
    size_t length = Byte() % (maxLength + 1);
    std::string text;
    for (size_t i = 0; i < length; ++i) text.push_back(static_cast<char>(Byte()));
    return text;
  }
  // A heap buffer of exactly `size` bytes filled from the input, so that a
  // read past its end is caught by AddressSanitizer.
  std::unique_ptr<char[]> Buffer(size_t size) {
    std::unique_ptr<char[]> buffer(new char[size == 0 ? 1 : size]);
    for (size_t i = 0; i < size; ++i) buffer[i] = static_cast<char>(Byte());
    return buffer;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

inline void DropLogEntry(void*, unsigned int, unsigned int, unsigned int, const char*,
                         unsigned int, const char*) {}

// Installs the dropping sink once: the library logs every failed statement.
inline void QuietLogs() { ZB_SetLogSink(&DropLogEntry, nullptr); }

inline void* Slot(int32_t value) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(value));
}

inline int32_t SlotValue(const void* slot) {
  return static_cast<int32_t>(reinterpret_cast<intptr_t>(slot));
}

// Bytes an in-list of `count` elements over a member of width `width`
// reads from the caller's memory (integers: 4-byte elements for width 4,
// else 8-byte elements at a stride of `width`; texts: each element up to and
// including the byte just past its field). Other terms: a text value reads
// width + 1 bytes.
inline size_t ValueBytes(int op, bool integer, size_t width, int32_t count) {
  if (op == DB_FILTER_OP_IN) {
    if (count <= 0) return 0;
    if (integer) return static_cast<size_t>(count - 1) * width + (width == 4 ? 4 : 8);
    return static_cast<size_t>(count) * width + 1;
  }
  return integer ? 0 : width + 1;
}

// ---- Reference rendering -----------------------------------------------------

inline std::string QuotedChars(const char* field, size_t width) {
  std::string out;
  for (size_t i = 0; i <= width && field[i] != '\0'; ++i) out.push_back(field[i]);
  return out;
}

inline std::string ReferenceFilterName(const std::string& name) {
  size_t underscore = name.rfind('_');
  if (underscore == std::string::npos) return name.empty() ? "" : name.substr(1);
  if (underscore <= 1) return "";
  return name.substr(1, underscore - 1);
}

inline std::string ReferenceTerm(const DbFilter& term, const std::string& column) {
  const int op = term.op;
  if (op == DB_FILTER_OP_AND) return " and ";
  if (op == DB_FILTER_OP_LIMIT) return "limit " + std::to_string(SlotValue(term.value1));
  if (op == DB_FILTER_OP_OFFSET)
    return "offset " + std::to_string(SlotValue(term.value1));
  if (op < 0 || op > DB_FILTER_OP_IN) return " ";
  const bool integer = term.member->sql_type == "INTEGER";
  const size_t width = term.member->type_meta->type_size;
  static const char* const kComparisons[] = {" = ", " <> ", " < ", " > ", " <= ", " >= "};
  auto value = [&](const void* slot) {
    return integer ? std::to_string(SlotValue(slot))
                   : "'" + QuotedChars(static_cast<const char*>(slot), width) + "'";
  };
  switch (op) {
    case DB_FILTER_OP_ORDER_BY:
      return "order by " + column;
    case DB_FILTER_OP_ORDER_BY_DESC:
      return "order by " + column + " DESC ";
    case DB_FILTER_OP_BETWEEN:
      return column + " between " + value(term.value1) + " and " + value(term.value2);
    case DB_FILTER_OP_LIKE:
      return column + " like '" +
             QuotedChars(static_cast<const char*>(term.value1), width) + "'";
    case DB_FILTER_OP_IN: {
      const char* array = static_cast<const char*>(term.value1);
      int32_t count = SlotValue(term.value2);
      std::string out = column + " IN (";
      for (int32_t i = 0; i < count; ++i) {
        const char* element = array + static_cast<size_t>(i) * width;
        if (integer) {
          if (i > 0) out += " , ";
          if (width == 4) {
            int32_t number;
            std::memcpy(&number, element, 4);
            out += std::to_string(number);
          } else {
            int64_t number;
            std::memcpy(&number, element, 8);
            out += std::to_string(number);
          }
        } else {
          if (i > 0) out += "', ";
          out += "'" + QuotedChars(element, width);
        }
      }
      return out + (integer ? " )" : "')");
    }
    default:
      return column + kComparisons[op] + value(term.value1);
  }
}

// Aborts (a finding) when the library's text differs from the reference.
inline void ExpectSame(const std::string& actual, const std::string& expected,
                       const char* what) {
  if (actual == expected) return;
  std::fprintf(stderr, "%s differs:\n  library:   [%s]\n  reference: [%s]\n", what,
               actual.c_str(), expected.c_str());
  std::abort();
}

// A filter term built from the input, with its member, type description
// and value buffers owned here.
struct FuzzTerm {
  std::unique_ptr<Meta> type;
  std::unique_ptr<Member> member;  // null when the term takes a table member
  std::unique_ptr<char[]> value1;
  std::unique_ptr<char[]> value2;
  size_t value1Size = 0;
  size_t value2Size = 0;

  // True when a value holds a single quote (which can change the statement).
  bool HasQuote() const {
    return HasQuote(value1.get(), value1Size) || HasQuote(value2.get(), value2Size);
  }
  static bool HasQuote(const char* buffer, size_t size) {
    return buffer != nullptr && std::memchr(buffer, '\'', size) != nullptr;
  }
};

// Reads an operator and its values for `member` and returns the term; the
// value buffers go into `owned`. Characters are read through the slot for
// like (always), for an in-list over any column, and for the comparisons
// and between over a column that is not "INTEGER"; every other slot carries
// a number.
inline DbFilter* ReadTerm(FuzzInput& in, Member* member, FuzzTerm* owned) {
  const int op = in.Byte() % 16;
  const bool integer = member->sql_type == "INTEGER";
  const size_t width = member->type_meta->type_size;
  const bool comparison = op <= DB_FILTER_OP_GE || op == DB_FILTER_OP_BETWEEN;
  void* value1 = Slot(in.I32());
  void* value2 = Slot(in.I32());
  if (op == DB_FILTER_OP_IN) {
    int32_t count = static_cast<int32_t>(in.Byte() % 9);
    if (in.Byte() % 8 == 0) count = -count;
    owned->value1Size = ValueBytes(op, integer, width, count);
    owned->value1 = in.Buffer(owned->value1Size);
    value1 = owned->value1.get();
    value2 = Slot(count);
  } else if (op == DB_FILTER_OP_LIKE || (comparison && !integer)) {
    owned->value1Size = owned->value2Size = width + 1;
    owned->value1 = in.Buffer(width + 1);
    owned->value2 = in.Buffer(width + 1);
    value1 = owned->value1.get();
    value2 = owned->value2.get();
  }
  return new DbFilter(member, static_cast<DbFilterOperator>(op), value1, value2);
}

}  // namespace ipc_db_fuzz

#endif  // IPC_DB_FUZZ_FUZZSUPPORT_H_
