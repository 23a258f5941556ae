// Filter terms: one DbFilter names a column (a Member), an operator and up to
// two values; a DbFilters is an ordered list of terms that owns them. Table
// operations render the terms into conditions, ordering and paging.
#ifndef IPC_DB_DBFILTER_H_
#define IPC_DB_DBFILTER_H_

#include <string>
#include <vector>

#include "ipc_db_export.h"

class Member;

enum DbFilterOperator : int {
  DB_FILTER_OP_EQ = 0,             // column = value1
  DB_FILTER_OP_NE = 1,             // column <> value1
  DB_FILTER_OP_LT = 2,             // column < value1
  DB_FILTER_OP_GT = 3,             // column > value1
  DB_FILTER_OP_LE = 4,             // column <= value1
  DB_FILTER_OP_GE = 5,             // column >= value1
  DB_FILTER_OP_AND = 6,            // " and "; member and values not read
  DB_FILTER_OP_ORDER_BY = 7,       // order by column
  DB_FILTER_OP_ORDER_BY_DESC = 8,  // order by column, descending
  DB_FILTER_OP_LIMIT = 9,          // limit value1 (a number)
  DB_FILTER_OP_OFFSET = 10,        // offset value1 (a number)
  DB_FILTER_OP_BETWEEN = 11,       // column between value1 and value2
  DB_FILTER_OP_LIKE = 12,          // column like value1 (always quoted)
  DB_FILTER_OP_IN = 13,            // column in array value1 of value2 elements
};

// One filter term. Values are read by the operator and the member's
// sql_type; W below is the type_size of the member's type_meta:
// - the six comparisons and between over an "INTEGER" member: the slot's
//   bits are the number (signed 32-bit); no memory is read;
// - the six comparisons and between over any other member, and like over
//   any member: the characters at value1 (for between also at value2), up
//   to the first zero byte and at most W + 1 bytes (one past the field when
//   it holds no zero byte); value2 of a comparison or like is not read;
// - in: value2 carries the element count N, and value1 points to the array;
//   N <= 0 reads nothing. Over an "INTEGER" member the elements are signed
//   32-bit when W is 4 (4 * N bytes), else signed 64-bit at a stride of W
//   ((N - 1) * W + 8 bytes); over any other member they are N fields of W
//   bytes, each read as above (at most N * W + 1 bytes);
// - limit and offset carry their number in value1; and, order by, order by
//   descending and any other operator read no value.
// Table::update_item binds a term over a "BLOB" member instead of rendering
// it, and reads its value1 otherwise (Table.h).
class IPC_DB_API DbFilter {
 public:
  // Stores the four fields; no checks. Nothing is owned.
  DbFilter(Member* member, DbFilterOperator op, void* value1, void* value2);
  ~DbFilter();

  // The term as SQL text, with the member's name as the column name.
  // REQUIRES: a member with a type_meta when the operator names a column,
  // and the value pointers the operator reads (see above). Otherwise the
  // empty text and one error entry ("filter member is null.\n", "type_meta
  // of member <name> is null.\n", "filter value is null.\n").
  std::string op2Str();
  // As op2Str, with getFilterName(member->name) as the column name.
  std::string op2StrAnalyze();
  // Column name of a decorated name: without its first character and
  // without everything from its last "_"; empty when that "_" is at 0 or 1.
  std::string getFilterName(std::string name);

  Member* member;
  DbFilterOperator op;
  void* value1;
  void* value2;
};

// An ordered list of terms. Owns them: the destructor deletes every
// non-null term, so terms are created with new and belong to one list.
class IPC_DB_API DbFilters {
 public:
  // An empty list.
  DbFilters();
  // Takes `count` further DbFilter* arguments and appends them in order,
  // null ones included. DbFilters(0) is empty.
  explicit DbFilters(unsigned int count, ...);
  // Deletes the held terms (null entries skipped).
  ~DbFilters();

  DbFilters(const DbFilters&) = delete;
  DbFilters& operator=(const DbFilters&) = delete;
  // Takes over `other`'s terms; `other` is left empty.
  DbFilters(DbFilters&& other) noexcept;
  DbFilters& operator=(DbFilters&& other) noexcept;

  // Appends `filter` (ownership passes to the list) and returns 0; null is
  // refused with the log "filter is null" and -1.
  long long add_filter(DbFilter* filter);
  // Diagnostic rendering: "No Filter\n" when empty; otherwise each term's
  // op2Str followed by " " after the first term and " and " after later ones.
  std::string toString();

  std::vector<DbFilter*> filters;  // the terms, in order (owned)
};

#endif  // IPC_DB_DBFILTER_H_
