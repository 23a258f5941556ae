// Argument checks shared by the schema, facade, filter and table calls. They
// run before a statement is built, so a refused call leaves the database and
// the caller's memory exactly as they were, and each logs the one error
// entry of the refusal.
#include "db/CallerChecks.h"

#include <cstdint>
#include <string>

#include "Db.h"
#include "base/Log.h"
#include "conn/Connection.h"
#include "db/ColumnKind.h"
#include "db/FieldText.h"

namespace ipc_db::detail {

namespace {

bool IsIntegerMember(const Member& member) {
  return ColumnKindOf(member) == ColumnKind::kInteger;
}

// True when the term's operator reads a character or array value through
// `value1` (and, for between, `value2`).
bool ReadsValue1(const DbFilter& term) {
  switch (term.op) {
    case DB_FILTER_OP_LIKE:
      return true;
    case DB_FILTER_OP_IN:
      return SlotInt(term.value2) > 0;
    case DB_FILTER_OP_BETWEEN:
      return !IsIntegerMember(*term.member);
    default:
      return term.op >= DB_FILTER_OP_EQ && term.op <= DB_FILTER_OP_GE &&
             !IsIntegerMember(*term.member);
  }
}

bool ReadsValue2(const DbFilter& term) {
  return term.op == DB_FILTER_OP_BETWEEN && !IsIntegerMember(*term.member);
}

bool CheckTermSet(const DbFilter* term) {
  if (term != nullptr) return true;
  DB_LOG(kLogError, "filters has a null filter.\n");
  return false;
}

bool CheckTermMember(const DbFilter& term) {
  if (term.member == nullptr) {
    DB_LOG(kLogError, "filter member is null.\n");
    return false;
  }
  return CheckMemberType(*term.member);
}

}  // namespace

bool CheckMemberType(const Member& member) {
  if (member.type_meta != nullptr) return true;
  DB_LOG(kLogError, "type_meta of member %s is null.\n", member.name.c_str());
  return false;
}

bool CheckTableObjects(const Table& table) {
  if (table.parent == nullptr) {
    DB_LOG(kLogError, "parent is null.\n");
    return false;
  }
  if (table.meta_data == nullptr) {
    DB_LOG(kLogError, "meta_data is null.\n");
    return false;
  }
  return true;
}

bool CheckConnection(const Table& table) {
  if (!CheckTableObjects(table)) return false;
  if (table.parent->m_pDBConn != nullptr) return true;
  DB_LOG(kLogError, "parent->m_pDBConn is null.\n");
  return false;
}

bool CheckOpenHandle(const Table& table) {
  if (SqliteHandleOf(table.parent->m_pDBConn) != nullptr) return true;
  DB_LOG(kLogError, "parent->m_pDBConn->m_pSqliteDB is null.\n");
  return false;
}

bool CheckMembers(const std::vector<Member*>& members, const char* owner) {
  for (const Member* member : members) {
    if (member == nullptr) {
      DB_LOG(kLogError, "%s has a null member.\n", owner);
      return false;
    }
    if (!CheckMemberType(*member)) return false;
  }
  return true;
}

bool CheckRecordLayout(const Meta& meta, const char* owner) {
  if (meta.type_size == 0) {
    DB_LOG(kLogError, "%s size is null.\n", owner);
    return false;
  }
  for (const Member* member : meta.members) {
    // Compared without a sum, which could wrap around.
    const unsigned int width = member->type_meta->type_size;
    if (width > meta.type_size || member->offset > meta.type_size - width) {
      DB_LOG(kLogError, "member %s lies outside %s.\n", member->name.c_str(), owner);
      return false;
    }
  }
  return true;
}

bool CheckByteSize(unsigned long long count, size_t size) {
  if (size == 0 || count <= SIZE_MAX / size) return true;
  DB_LOG(kLogError, "itemcnt values is too large.\n");
  return false;
}

bool CheckColumnTerms(const DbFilters& cols) {
  for (const DbFilter* term : cols.filters) {
    if (!CheckTermSet(term) || !CheckTermMember(*term)) return false;
  }
  return true;
}

bool CheckFilterTerm(const DbFilter& term) {
  if (!TermNamesColumn(term.op)) return true;
  if (!CheckTermMember(term)) return false;
  if ((ReadsValue1(term) && term.value1 == nullptr) ||
      (ReadsValue2(term) && term.value2 == nullptr)) {
    DB_LOG(kLogError, "filter value is null.\n");
    return false;
  }
  return true;
}

bool CheckFilterTerms(const DbFilters& filters) {
  for (const DbFilter* term : filters.filters) {
    if (!CheckTermSet(term) || !CheckFilterTerm(*term)) return false;
  }
  return true;
}

bool CheckUpdateCondition(const DbFilters& where) {
  if (!CheckFilterTerms(where)) return false;
  for (const DbFilter* term : where.filters) {
    const bool blobMember =
        term->member != nullptr && ColumnKindOf(*term->member) == ColumnKind::kBlob;
    if (blobMember && !CheckMemberType(*term->member)) return false;
  }
  return true;
}

}  // namespace ipc_db::detail
