// Table: the handle through which records are inserted, read, updated,
// removed, counted and indexed. Records are the caller's own structures laid
// end to end: record i starts at i * meta_data->type_size and each column
// lies at its Member's offset, as wide as its type_meta->type_size.
//
// Threads: no lock is taken; statements run on the caller's thread on the
// connection's handle, relying on SQLite's serialisation of that handle.
// Text values are put into SQL text unescaped: never pass untrusted text.
//
// Caller mistakes: every operation REQUIRES `parent` and `meta_data` set,
// every member of `meta_data` (and of a layout Meta) set with a type_meta,
// every term of a list set, a member on every term whose operator names a
// column, and on a term over a non-"INTEGER" column (and on every like- or
// in-term with elements) the value pointers its operator reads. Record reads
// and writes further REQUIRE a record size above 0 that holds every member
// (offset + width), a count whose byte size fits in size_t, and an open
// database. A call that breaks one of these returns -1 before anything
// touches the database and logs one error entry naming the mistake
// ("parent is null.\n", "meta_data is null.\n", "<list> has a null
// member.\n", "type_meta of member <name> is null.\n", "<meta> size is
// null.\n", "member <name> lies outside <meta>.\n", "itemcnt values is too
// large.\n", "filters has a null filter.\n", "filter member is null.\n",
// "filter value is null.\n", "filters is null.\n",
// "parent->m_pDBConn->m_pSqliteDB is null.\n"). Not detectable: a count
// larger than the caller's array, a Table used after its Db or Meta died.
#ifndef IPC_DB_TABLE_H_
#define IPC_DB_TABLE_H_

#include <list>
#include <set>
#include <string>
#include <vector>

#include "ipc_db_export.h"

class Db;
class Meta;
class Member;
class DbFilters;

class IPC_DB_API Table {
 public:
  // Stores the three values. Nothing is owned; `parent` and `meta_data`
  // must outlive the Table. analyze_name 0: member names are the column
  // names; otherwise Db::getName of them.
  Table(Db* parent, Meta* meta_data, int analyze_name);
  ~Table();

  // Inserts `itemcnt` records starting at `obj`; more than one in a single
  // transaction. `filters` empty: all columns; else only its terms' members
  // (values ignored). 0 or -1. After a failure inside a multi-record call
  // the transaction is left open. REQUIRES: `obj` holds `itemcnt` records.
  long long add_item(void* obj, unsigned long long itemcnt,
                     const DbFilters& filters);
  // Sets the columns of `set` (equal terms only) on the rows selected by
  // `where`. 0 or -1. A term over a "BLOB" member, in either list, is not
  // rendered: it becomes "<column> = ?" whatever its operator (blobs compare
  // only for equality) and binds exactly type_size bytes read from its
  // value1; of several such terms in one list only the last is bound.
  // REQUIRES: the value1 of every such term, whatever its operator (an
  // in-list of 0 elements included), null or addressing type_size readable
  // bytes; a null value1 binds NULL where the checks above let it through.
  long long update_item(DbFilters& set, DbFilters& where);
  // Runs one delete per list of the array `filters` of `itemcnt` lists; an
  // empty list deletes every row. More than one in a transaction. 0 or -1.
  // REQUIRES: `filters` not null, with `itemcnt` lists; every list is checked
  // before the first delete runs.
  long long rmv_item(DbFilters* filters, unsigned long long itemcnt);
  // Meta::toString(prefix) of meta_data followed by "\n".
  std::string toString(std::string prefix);

  // Reads matching rows into the records at `obj`. itemcnt in: the most
  // rows (0 no limit); out: rows read. `cols` empty reads whole records;
  // otherwise the named columns are packed at the start of `obj`, each row
  // overwriting the previous one. 0 or -1. REQUIRES: `obj` has room for
  // `itemcnt` records (for every row when 0).
  long long get_item(DbFilters& cols, DbFilters& filters,
                     unsigned long long& itemcnt, void* obj);
  // As get_item, into records laid out by `userMeta` (matched by name).
  long long get_item_z(DbFilters& cols, DbFilters& filters,
                       unsigned long long& itemcnt, void* obj, Meta* userMeta);
  // As get_item_z, appending per row the text at the start of a scratch
  // record of `userMeta`'s layout to `out`.
  long long get_item_lz(DbFilters& cols, DbFilters& filters,
                        unsigned long long& itemcnt, std::list<std::string>& out,
                        Meta* userMeta);
  long long get_item_vz(DbFilters& cols, DbFilters& filters,
                        unsigned long long& itemcnt,
                        std::vector<std::string>& out, Meta* userMeta);
  // As get_item_lz for one member, inserting into a set.
  long long get_item_sz(DbFilters& cols, DbFilters& filters,
                        unsigned long long& itemcnt, std::set<std::string>& out,
                        Member* userMember);

  // Number of matching rows, or -1. A count beyond `long` throws
  // std::out_of_range (32-bit targets).
  long long get_item_cnt(DbFilters& filters);
  // Largest value of the one column of `col` among matching rows, as text
  // in `out` (empty when none). Returns 0, the value itself for an
  // "INTEGER" column, or -1 (`out` unchanged).
  long long get_item_max(DbFilters& col, const DbFilters& filters,
                         std::string& out);
  // As get_item_max with the smallest value.
  long long get_item_min(DbFilters& col, const DbFilters& filters,
                         std::string& out);

  // "create index <name> on <table>(<column>)"; records the name in
  // member->index_name. 0 or -1. REQUIRES: `member` not null and the Db
  // initialised ("parent->m_pDBConn is null." otherwise).
  long long add_index(std::string name, Member* member);
  // Drops the index that a member of this table records. 0 or -1.
  // REQUIRES: the Db initialised.
  long long drop_index(std::string name);
  // "VACUUM <table>;". 0 or -1.
  long long table_vacuum();

  Db* parent;
  Meta* meta_data;
  int analyze_name;
};

#endif  // IPC_DB_TABLE_H_
