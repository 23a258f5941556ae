// Checks of the arguments a caller hands to the schema, facade, filter and
// table calls, made before anything touches the database: null pointers
// behind a Table, member lists with null entries or without a type
// description, record layouts whose members lie outside the record, counts
// whose byte size does not fit in memory, filter terms without a member or
// without the value their operator reads, and a connection without an open
// handle. Each check logs one error entry naming the mistake and returns
// false; true means the argument is usable.
#ifndef IPC_DB_SRC_DB_CALLERCHECKS_H_
#define IPC_DB_SRC_DB_CALLERCHECKS_H_

#include <cstddef>
#include <vector>

#include "DbFilter.h"
#include "Meta.h"
#include "Table.h"

namespace ipc_db::detail {

// parent and meta_data of `table` are set ("parent is null.\n",
// "meta_data is null.\n").
bool CheckTableObjects(const Table& table);

// CheckTableObjects, and the Db has a connection object
// ("parent->m_pDBConn is null.\n", the row operations' wording).
bool CheckConnection(const Table& table);

// The table's connection holds an open SQLite handle
// ("parent->m_pDBConn->m_pSqliteDB is null.\n"). REQUIRES: the connection
// exists.
bool CheckOpenHandle(const Table& table);

// Every entry of `members` is set and has a type description
// ("<owner> has a null member.\n", "type_meta of member <name> is null.\n").
// `owner` names the list in the message.
bool CheckMembers(const std::vector<Member*>& members, const char* owner);

// `member` has a type description ("type_meta of member <name> is null.\n").
bool CheckMemberType(const Member& member);

// `meta` describes a record: a size above 0 ("<owner> size is null.\n") and
// every member inside it ("member <name> lies outside <owner>.\n").
// REQUIRES: CheckMembers(meta.members) passed.
bool CheckRecordLayout(const Meta& meta, const char* owner);

// `count` records of `size` bytes fit in the address space
// ("itemcnt values is too large.\n").
bool CheckByteSize(unsigned long long count, size_t size);

// Every term of a column list (a selection, the columns of an insert, the
// column of an aggregate) is set and names a member with a type description
// ("filters has a null filter.\n", "filter member is null.\n",
// "type_meta of member <name> is null.\n").
bool CheckColumnTerms(const DbFilters& cols);

// Every term of a condition list is set, has a member with a type
// description where its operator names a column, and has every value its
// operator reads through a pointer ("filter value is null.\n" besides the
// column-list messages).
bool CheckFilterTerms(const DbFilters& filters);

// The condition of update_item: CheckFilterTerms, and every term whose
// member is a blob has the member's type description, whatever its
// operator, since the update binds such a term's type_size bytes as its
// value ("type_meta of member <name> is null.\n").
bool CheckUpdateCondition(const DbFilters& where);

// The check of CheckFilterTerms for one term, for DbFilter's own rendering.
bool CheckFilterTerm(const DbFilter& term);

// True for the operators that name a column (and so read the member): the
// comparisons, the orderings, between, like and in. Inline: the clause text
// asks it once per term.
inline bool TermNamesColumn(DbFilterOperator op) {
  switch (op) {
    case DB_FILTER_OP_AND:
    case DB_FILTER_OP_LIMIT:
    case DB_FILTER_OP_OFFSET:
      return false;
    default:
      return op >= DB_FILTER_OP_EQ && op <= DB_FILTER_OP_IN;
  }
}

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_DB_CALLERCHECKS_H_
