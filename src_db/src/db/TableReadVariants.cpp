// The reads that deliver rows in a layout the caller describes apart from
// the table: get_item_z into records of another Meta, get_item_lz and
// get_item_vz as the text at the start of a scratch record per row,
// get_item_sz as the text of one member per row collected into a set.
// Layout members are matched to the selected columns by name; the statement,
// the row loop and the value copy are those of get_item.
#include <cstring>
#include <list>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "base/OutOfMemory.h"
#include "bounded_mem.h"
#include "db/CallerChecks.h"
#include "db/ColumnCopy.h"
#include "db/SqlRun.h"
#include "db/SqlText.h"

using ipc_db::detail::BuildSelect;
using ipc_db::detail::CheckByteSize;
using ipc_db::detail::CheckColumnTerms;
using ipc_db::detail::CheckConnection;
using ipc_db::detail::CheckFilterTerms;
using ipc_db::detail::CheckMembers;
using ipc_db::detail::CheckMemberType;
using ipc_db::detail::CheckOpenHandle;
using ipc_db::detail::CheckRecordLayout;
using ipc_db::detail::CopyColumn;
using ipc_db::detail::CopyKindOf;
using ipc_db::detail::DbOutOfMemory;
using ipc_db::detail::EveryMemberMatches;
using ipc_db::detail::kLogError;
using ipc_db::detail::RunSelect;
using ipc_db::detail::SelectedMembers;
using ipc_db::detail::TableHandle;

namespace {

// Checks the layout against the selected columns, logging a mismatch. The
// table's members and the selection are checked for null entries first, as
// the match reads them.
bool CheckLayoutMatch(const Table& table, const DbFilters& cols,
                      const std::vector<Member*>& layout) {
  if (!CheckMembers(table.meta_data->members, "meta_data") || !CheckColumnTerms(cols)) {
    return false;
  }
  if (EveryMemberMatches(layout, SelectedMembers(table, cols))) return true;
  if (cols.filters.empty()) {
    DB_LOG(kLogError, "userMeta_data doesn't match meta_data");
  } else {
    DB_LOG(kLogError, "userMeta_data doesn't match obj1");
  }
  return false;
}

bool CheckUserMeta(const Table& table, const DbFilters& cols, const Meta* userMeta) {
  if (userMeta == nullptr) {
    DB_LOG(kLogError, "userMeta_data is null.");
    return false;
  }
  if (userMeta->type_size == 0) {
    DB_LOG(kLogError, "userMeta_data size is null.");
    return false;
  }
  if (userMeta->members.empty()) {
    DB_LOG(kLogError, "userMeta_data->members.size() is zero.");
    return false;
  }
  // Every row is written at the layout's offsets, so every member must lie
  // inside one record of the layout.
  if (!CheckMembers(userMeta->members, "userMeta_data") ||
      !CheckRecordLayout(*userMeta, "userMeta_data")) {
    return false;
  }
  return CheckLayoutMatch(table, cols, userMeta->members);
}

// The first member of `layout` named like `column`, or null.
Member* FindByName(const std::vector<Member*>& layout, const Member* column) {
  for (Member* member : layout) {
    if (member->name == column->name) return member;
  }
  return nullptr;
}

// For every selected column, in column order, the layout member that
// receives it (null: the column is read but not stored).
std::vector<Member*> MatchColumns(const Table& table, const DbFilters& cols,
                                  const Meta* userMeta) {
  std::vector<Member*> matches;
  for (const Member* column : SelectedMembers(table, cols)) {
    matches.push_back(FindByName(userMeta->members, column));
  }
  return matches;
}

// Copies the columns of the current row into the record at `record`, each at
// its layout member's offset.
void CopyIntoLayout(Db* db, sqlite3_stmt* stmt, const std::vector<Member*>& matches,
                    char* record) {
  for (size_t i = 0; i < matches.size(); ++i) {
    Member* member = matches[i];
    if (member == nullptr) continue;
    db->preProcMember(member);
    CopyColumn(stmt, static_cast<int>(i), CopyKindOf(*member),
               member->type_meta->type_size, record + member->offset);
  }
}

// A zero-filled per-row work area: on the stack up to 4 KiB, on the heap
// above that. A heap area that cannot be had leaves the record unusable
// (Usable() logs it) instead of throwing out of the public call.
class ScratchRecord {
 public:
  explicit ScratchRecord(size_t size) : size_(size) {
    if (size_ > sizeof(stack_)) heap_.reset(new (std::nothrow) char[size_]);
    data_ = size_ > sizeof(stack_) ? heap_.get() : stack_;
  }
  ScratchRecord(const ScratchRecord&) = delete;
  ScratchRecord& operator=(const ScratchRecord&) = delete;

  bool Usable() const {
    if (data_ != nullptr) return true;
    DB_LOG(kLogError, "alloc scratch record fail.\n");
    return false;
  }
  char* Clear() {
    memset_s(data_, size_, 0, size_);
    return data_;
  }
  // The text from the first byte up to the first zero byte within `bound`.
  std::string Text(size_t bound) const {
    return std::string(data_, strnlen(data_, bound));
  }

 private:
  char stack_[4096];
  std::unique_ptr<char[]> heap_;
  char* data_;
  size_t size_;
};

// The body of get_item_lz and get_item_vz: one string per row, appended to
// `out`. It answers an allocation failure itself, as those two calls would,
// with `operation` naming the call in the entry.
template <typename Texts>
long long ReadTexts(const char* operation, Table& table, DbFilters& cols,
                    DbFilters& filters, unsigned long long& itemcnt, Meta* userMeta,
                    Texts* out) try {
  if (!CheckConnection(table) || !CheckUserMeta(table, cols, userMeta)) return -1;
  if (!CheckFilterTerms(filters) || !CheckOpenHandle(table)) return -1;
  std::vector<Member*> matches = MatchColumns(table, cols, userMeta);
  ScratchRecord scratch(userMeta->type_size);
  if (!scratch.Usable()) return -1;
  std::string sql;
  if (!BuildSelect(table, cols, filters, &sql)) return -1;
  return RunSelect(TableHandle(table), sql, itemcnt,
                   [&](sqlite3_stmt* stmt, unsigned long long) {
                     CopyIntoLayout(table.parent, stmt, matches, scratch.Clear());
                     out->push_back(scratch.Text(userMeta->type_size));
                   });
} catch (const std::bad_alloc&) {
  return DbOutOfMemory(operation, -1LL);
}

// Column index of the first selected column named like `member`, or -1.
int FindColumn(const Table& table, const DbFilters& cols, const Member* member) {
  std::vector<Member*> columns = SelectedMembers(table, cols);
  for (size_t i = 0; i < columns.size(); ++i) {
    if (columns[i]->name == member->name) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace

long long Table::get_item_z(DbFilters& cols, DbFilters& filters,
                            unsigned long long& itemcnt, void* obj, Meta* userMeta) try {
  if (!CheckConnection(*this)) return -1;
  if (obj == nullptr) {
    DB_LOG(kLogError, "vecOutRows is null.\n");
    return -1;
  }
  if (!CheckUserMeta(*this, cols, userMeta)) return -1;
  if (!CheckFilterTerms(filters) || !CheckByteSize(itemcnt, userMeta->type_size) ||
      !CheckOpenHandle(*this)) {
    return -1;
  }
  std::string sql;
  if (!BuildSelect(*this, cols, filters, &sql)) return -1;
  std::vector<Member*> matches = MatchColumns(*this, cols, userMeta);
  char* records = static_cast<char*>(obj);
  size_t stride = userMeta->type_size;
  return RunSelect(TableHandle(*this), sql, itemcnt,
                   [&](sqlite3_stmt* stmt, unsigned long long row) {
                     CopyIntoLayout(parent, stmt, matches, records + row * stride);
                   });
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::get_item_z", -1LL);
}

long long Table::get_item_lz(DbFilters& cols, DbFilters& filters,
                             unsigned long long& itemcnt, std::list<std::string>& out,
                             Meta* userMeta) {
  return ReadTexts("Table::get_item_lz", *this, cols, filters, itemcnt, userMeta, &out);
}

long long Table::get_item_vz(DbFilters& cols, DbFilters& filters,
                             unsigned long long& itemcnt, std::vector<std::string>& out,
                             Meta* userMeta) {
  return ReadTexts("Table::get_item_vz", *this, cols, filters, itemcnt, userMeta, &out);
}

long long Table::get_item_sz(DbFilters& cols, DbFilters& filters,
                             unsigned long long& itemcnt, std::set<std::string>& out,
                             Member* userMember) try {
  if (!CheckConnection(*this)) return -1;
  if (userMember == nullptr) {
    DB_LOG(kLogError, "userMember_data is null.");
    return -1;
  }
  if (!CheckMemberType(*userMember)) return -1;
  size_t width = userMember->type_meta->type_size;
  if (width == 0) {
    DB_LOG(kLogError, "userMeta_data size is null.");
    return -1;
  }
  if (!CheckLayoutMatch(*this, cols, {userMember})) return -1;
  if (!CheckFilterTerms(filters) || !CheckOpenHandle(*this)) return -1;
  int column = FindColumn(*this, cols, userMember);
  // Whole-table reads place the value at the member's offset and the text is
  // read from the start of the zeroed area: with an offset other than 0 the
  // value never reaches the text read, which is then always empty. So the
  // value is copied only for offset 0, and the area is one field wide
  // whatever the offset (an offset near 4 GiB must not size it).
  bool lands = !cols.filters.empty() || userMember->offset == 0;
  ScratchRecord scratch(width);
  if (!scratch.Usable()) return -1;
  std::string sql;
  if (!BuildSelect(*this, cols, filters, &sql)) return -1;
  return RunSelect(TableHandle(*this), sql, itemcnt,
                   [&](sqlite3_stmt* stmt, unsigned long long) {
                     char* buffer = scratch.Clear();
                     if (column >= 0) {
                       parent->preProcMember(userMember);
                       if (lands)
                         CopyColumn(stmt, column, CopyKindOf(*userMember), width, buffer);
                     }
                     out.insert(scratch.Text(width));
                   });
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Table::get_item_sz", -1LL);
}
