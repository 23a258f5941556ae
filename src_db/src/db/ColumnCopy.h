// Copying one result column of the current row from SQLite's own buffers
// into a field of the caller's memory: how each column is copied (by its
// kind and width) and the copy itself. Used by every read for every column
// of every row, so both are inline.
#ifndef IPC_DB_SRC_DB_COLUMNCOPY_H_
#define IPC_DB_SRC_DB_COLUMNCOPY_H_

#include <sqlcipher/sqlite3.h>

#include <cstddef>
#include <cstring>

#include "Meta.h"
#include "bounded_mem.h"
#include "db/ColumnKind.h"

namespace ipc_db::detail {

// How one result column is copied into caller memory.
enum class CopyKind { kInt32, kInt64, kBlob, kText };

// An integer column of width 4: 32-bit; any other integer column: 64-bit; a
// blob column: bytes; any other column: text.
inline CopyKind CopyKindOf(const Member& member) {
  switch (ColumnKindOf(member)) {
    case ColumnKind::kInteger:
      return member.type_meta->type_size == 4 ? CopyKind::kInt32 : CopyKind::kInt64;
    case ColumnKind::kBlob:
      return CopyKind::kBlob;
    case ColumnKind::kText:
      break;
  }
  return CopyKind::kText;
}

// Copies column `column` of the current row to `dest`, a field `width` bytes
// wide, straight from SQLite's buffers. Integers are stored as 4 or 8 bytes;
// a blob that does not fit, or a NULL blob, leaves the field zero-filled; a
// text that does not fit with its terminator, or a NULL text, leaves an
// empty string. The integer stores compile down to a single move.
inline void CopyColumn(sqlite3_stmt* stmt, int column, CopyKind kind, size_t width,
                       char* dest) {
  switch (kind) {
    case CopyKind::kInt32: {
      int value = sqlite3_column_int(stmt, column);
      std::memcpy(dest, &value, sizeof(value));
      return;
    }
    case CopyKind::kInt64: {
      sqlite3_int64 value = sqlite3_column_int64(stmt, column);
      std::memcpy(dest, &value, sizeof(value));
      return;
    }
    case CopyKind::kBlob: {
      const void* data = sqlite3_column_blob(stmt, column);
      int bytes = sqlite3_column_bytes(stmt, column);
      memcpy_s(dest, width, data, static_cast<size_t>(bytes));
      return;
    }
    case CopyKind::kText: {
      const char* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
      int bytes = sqlite3_column_bytes(stmt, column);
      strncpy_s(dest, width, text, static_cast<size_t>(bytes));
      return;
    }
  }
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_COLUMNCOPY_H_
