// Helpers shared by the libFuzzer targets: a reader that turns the fuzzer's
// bytes into numbers, texts and exactly sized buffers, the rule of how many
// bytes the library reads through a term's values, a reference rendering
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

// ---- What the library reads through a term's value slots ----------------
//
// The one rule the targets size their value buffers by, written from the
// public headers: DbFilter.h (the comment above class DbFilter: what a
// rendered term reads) and Table.h (update_item: a term over a "BLOB" member
// of its lists is bound, not rendered). A buffer is allocated with exactly
// these bytes, so that AddressSanitizer reports any read beyond them.

// Column kinds as the library tells them apart, by the member's sql_type.
enum class ColumnKind { kInteger, kBlob, kOther };

inline ColumnKind KindOf(const Member* member) {
  if (member == nullptr) return ColumnKind::kOther;
  if (member->sql_type == "INTEGER") return ColumnKind::kInteger;
  return member->sql_type == "BLOB" ? ColumnKind::kBlob : ColumnKind::kOther;
}

// How a call uses the terms of a list.
enum class TermUse {
  kRendered,    // written into SQL text: reads, counts, extrema, deletes, op2Str
  kUpdateList,  // a term of update_item's `set` or `where` list
};

// Bytes a rendered term reads through value1 (DbFilter.h). `count` is the
// in-list's element count (value2); `width` the member's type_size.
inline size_t RenderedValue1Bytes(ColumnKind kind, int op, size_t width, int32_t count) {
  const bool comparison = (op >= DB_FILTER_OP_EQ && op <= DB_FILTER_OP_GE) ||
                          op == DB_FILTER_OP_BETWEEN;
  if (op == DB_FILTER_OP_LIKE) return width + 1;
  if (comparison) return kind == ColumnKind::kInteger ? 0 : width + 1;
  if (op != DB_FILTER_OP_IN || count <= 0) return 0;
  const size_t elements = static_cast<size_t>(count);
  if (kind == ColumnKind::kInteger) return (elements - 1) * width + (width == 4 ? 4 : 8);
  return elements * width + 1;
}

// Bytes a call reads through value1 of a term that it uses as `use` says
// (Table.h, update_item: whatever the operator, a "BLOB" term binds exactly
// type_size bytes from value1, an in-list of 0 elements included).
inline size_t Value1Bytes(TermUse use, ColumnKind kind, int op, size_t width,
                          int32_t count) {
  if (use == TermUse::kUpdateList && kind == ColumnKind::kBlob) return width;
  return RenderedValue1Bytes(kind, op, width, count);
}

// Bytes read through value2: only between over a column that is not
// "INTEGER" reads characters there, and only when the term is rendered.
inline size_t Value2Bytes(TermUse use, ColumnKind kind, int op, size_t width) {
  if (use == TermUse::kUpdateList && kind == ColumnKind::kBlob) return 0;
  return op == DB_FILTER_OP_BETWEEN && kind != ColumnKind::kInteger ? width + 1 : 0;
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

// Reads an operator and its values for `member` and returns the term as a
// rendering uses it; the value buffers go into `owned`. A slot the term
// reads characters or numbers through points at a buffer of exactly the
// bytes of RenderedValue1Bytes / Value2Bytes (an in-list always points at
// one, if only of zero bytes); every other slot carries a number.
inline DbFilter* ReadTerm(FuzzInput& in, Member* member, FuzzTerm* owned) {
  const int op = in.Byte() % 16;
  const ColumnKind kind = KindOf(member);
  const size_t width = member->type_meta->type_size;
  void* value1 = Slot(in.I32());
  void* value2 = Slot(in.I32());
  int32_t count = 0;
  if (op == DB_FILTER_OP_IN) {
    count = static_cast<int32_t>(in.Byte() % 9);
    if (in.Byte() % 8 == 0) count = -count;
    value2 = Slot(count);
  }
  owned->value1Size = Value1Bytes(TermUse::kRendered, kind, op, width, count);
  owned->value2Size = Value2Bytes(TermUse::kRendered, kind, op, width);
  if (owned->value1Size > 0 || op == DB_FILTER_OP_IN) {
    owned->value1 = in.Buffer(owned->value1Size);
    value1 = owned->value1.get();
  }
  if (owned->value2Size > 0) {
    owned->value2 = in.Buffer(owned->value2Size);
    value2 = owned->value2.get();
  }
  return new DbFilter(member, static_cast<DbFilterOperator>(op), value1, value2);
}

}  // namespace ipc_db_fuzz

#endif  // IPC_DB_FUZZ_FUZZSUPPORT_H_
