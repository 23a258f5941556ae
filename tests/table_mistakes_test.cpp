// Caller mistakes on the record operations of Table. Every case below was
// tried on the unchanged library under AddressSanitizer before the checks
// were written ("today" is that outcome). Cases 6 to 42 and 44 to 48 are
// named rows of one table (kRefusals), each run as a test of its own by one
// parameterised test that checks the result, the one error entry, the rows
// of the file (read through a connection of the test's own), the caller's
// buffer and its guard bytes, the count, the containers and text a read
// would fill, and that a correct call afterwards succeeds. The other cases
// differ in shape and have tests of their own.
//
// Case                                            today
//      -> now
//  1 Table without Db (all 15 operations)         crash
//      -> -1, "parent is null.\n"
//  2 Table without Meta (all 15 operations)       crash
//      -> -1, "meta_data is null.\n"
//  3 raw-handle operations on a closed Db         crash (null handle)
//    (add_item, get_item, get_item_z/lz/vz/sz, update_item with a blob)
//      -> -1, "parent->m_pDBConn->m_pSqliteDB is null.\n"
//  4 add_index after UnInit                       crash
//      -> -1, "parent->m_pDBConn is null."
//  5 drop_index after UnInit                      crash
//      -> -1, "parent->m_pDBConn is null."
//  6 add_item: Meta with a null member            crash
//      -> -1, "meta_data has a null member.\n"
//  7 add_item: member without type_meta           crash
//      -> -1, "type_meta of member iAge is null.\n"
//  8 add_item: record size 0                      reads past obj
//      -> -1, "meta_data size is null.\n"
//  9 add_item: member beyond the record size      reads past obj
//      -> -1, "member bData lies outside meta_data.\n"
// 10 add_item: count * size wraps (word size)     reads past obj
//      -> -1, "itemcnt values is too large.\n"
// 11 add_item: null term in the column list       crash
//      -> -1, "filters has a null filter.\n"
// 12 add_item: column term without member         crash
//      -> -1, "filter member is null.\n"
// 13 update_item: null term in set                crash
//      -> -1, "filters has a null filter.\n"
// 14 update_item: set term without member         crash
//      -> -1, "filter member is null.\n"
// 15 update_item: set text value null             blanks every name
//      -> -1, "filter value is null.\n"
// 16 update_item: set blob value null             nulls every blob
//      -> -1, "filter value is null.\n"
// 17 update_item: null term in where              crash
//      -> -1, "filters has a null filter.\n"
// 18 update_item: where text value null           changes rows with ''
//      -> -1, "filter value is null.\n"
// 19 update_item: where term without member       crash
//      -> -1, "filter member is null.\n"
// 20 rmv_item: null array of lists                crash
//      -> -1, "filters is null.\n"
// 21 rmv_item: null term in a list                crash
//      -> -1, "filters has a null filter.\n"
// 22 rmv_item: text value null                    deletes rows with ''
//      -> -1, "filter value is null.\n"
// 23 rmv_item: term without member                crash
//      -> -1, "filter member is null.\n"
// 24 rmv_item: in-list with a null array          crash
//      -> -1, "filter value is null.\n"
// 25 rmv_item: between with a null second value   deletes by ''
//      -> -1, "filter value is null.\n"
// 26 rmv_item: like with a null pattern           deletes by ''
//      -> -1, "filter value is null.\n"
// 27 rmv_item: a wrong list after a good one      first list deleted
//      -> -1, nothing deleted
// 28 rmv_item: count * sizeof(DbFilters) wraps    reads past array
//      -> -1, "itemcnt values is too large.\n"
// 29 get_item: null term in cols                  crash
//      -> -1, "filters has a null filter.\n"
// 30 get_item: null term in filters               crash
//      -> -1, "filters has a null filter.\n"
// 31 get_item: text filter value null             reads by ''
//      -> -1, "filter value is null.\n"
// 32 get_item: member beyond the record size      writes past obj
//      -> -1, "member bData lies outside meta_data.\n"
// 33 get_item: record size 0                      writes past obj
//      -> -1, "meta_data size is null.\n"
// 34 get_item: table member without type_meta     crash
//      -> -1, "type_meta of member iAge is null.\n"
// 35 get_item: count * size wraps (word size)     accepted
//      -> -1, "itemcnt values is too large.\n"
// 36 get_item_z: layout member without type_meta  crash
//      -> -1, "type_meta of member iAge is null.\n"
// 37 get_item_z: layout with a null member        crash
//      -> -1, "userMeta_data has a null member.\n"
// 38 get_item_z: layout member beyond its size    writes past obj
//      -> -1, "member iAge lies outside userMeta_data.\n"
// 39 get_item_z: count * size wraps (word size)   accepted
//      -> -1, "itemcnt values is too large.\n"
// 40 get_item_lz: layout member beyond its size   heap overflow
//      -> -1, "member tNote lies outside userMeta_data.\n"
// 41 get_item_vz: layout member beyond its size   heap overflow
//      -> -1, "member cName lies outside userMeta_data.\n"
// 42 get_item_sz: member without type_meta        crash
//      -> -1, "type_meta of member cName is null.\n"
// 43 get_item_sz: offset near 4 GiB (word size)
//         today: 32-bit: wild write; 64-bit: 4 GiB scratch
//      -> 0 and empty texts, as for any offset but 0
// 44 get_item_cnt: null term in filters           crash
//      -> -1, "filters has a null filter.\n"
// 45 get_item_cnt: term without member            crash
//      -> -1, "filter member is null.\n"
// 46 get_item_max: null term in col               crash
//      -> -1, "filters has a null filter.\n"
// 47 get_item_max: col term without member        crash
//      -> -1, "filter member is null.\n"
// 48 get_item_min: text filter value null         reads by ''
//      -> -1, "filter value is null.\n"
// 49 toString of a Table without Meta             crash
//      -> "" and "meta_data is null.\n"
// 50 update_item: blob where term without type_meta, any operator (" and ")
//                                                 crash
//      -> -1, "type_meta of member bData is null.\n"
//
// Left alone, with the reason:
// - itemcnt (add_item, get_item) or an in-list count larger than the
//   caller's array without wrapping: the array's size cannot be seen.
// - get_item with itemcnt 0 writes every row: 0 means "no limit".
// - Text values read up to one byte past their field and go into the SQL
//   unescaped; the transaction of a failed multi-record call stays open;
//   std::stol of a count or maximum beyond a 32-bit long throws: all kept
//   as they are.
// - Filter members that are not the table's, and add_index with a member of
//   another Meta: matched by column name, as the column is named in the
//   SQL; an unknown column fails in SQLite (-1).
// - A term member whose type was never set (sql_type "unknown_type") reads
//   its value slot as an address: a number cannot be told from a pointer.
// - Statement-only operations (update without blobs, rmv_item, counts,
//   aggregates, indexes, vacuum) on a closed Db: already -1, with the
//   connection's "DB Connection has not exist" and the operation's entry.
// - A Table used after its Db or Meta object was destroyed: undetectable.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <list>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "MistakeTestSupport.h"

namespace ipc_db_test {
namespace {

class TableMistakes : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    DescribePerson(&meta_);
    table_ = Create(&meta_, 0);
    Person people[3] = {MakePerson(0, 30, "ann", "first", 1),
                        MakePerson(0, 40, "bob", "", 2),
                        MakePerson(0, 50, "cy", "third", 3)};
    ASSERT_EQ(table_->add_item(people, 3, none_), 0);
    before_ = Snapshot();
    ASSERT_EQ(before_.size(), 3u);
  }

  Rows Snapshot() {
    return FileRows(DbFile(),
                    "select iId_pa, iAge, cName, tNote, hex(bData) from t_person "
                    "order by iId_pa");
  }

  Member* M(const char* name) { return meta_.Get(name); }
  DbFilter* Term(const char* name, DbFilterOperator op, void* v1, void* v2 = nullptr) {
    return new DbFilter(M(name), op, v1, v2);
  }

  void ExpectCorrectCallWorks() {
    Person person = MakePerson(0, 60, "dee", "fourth", 4);
    EXPECT_EQ(table_->add_item(&person, 1, none_), 0);
    EXPECT_EQ(Snapshot().size(), before_.size() + 1);
  }

  // Every operation of `table`, each expected to refuse with `text`.
  void ExpectEveryOperationRefused(Table* table, const std::string& text) {
    GuardedBuffer buffer(3 * sizeof(Person));
    Person person = MakePerson(0, 1, "x", "y", 9);
    unsigned long long count = 3;
    std::list<std::string> texts;
    std::vector<std::string> vec;
    std::set<std::string> set;
    std::string out = "unchanged";
    std::vector<std::function<long long()>> calls = {
        [&] { return table->add_item(&person, 1, none_); },
        [&] {
          DbFilters s(1, Term("iAge", DB_FILTER_OP_EQ, IntSlot(1)));
          return table->update_item(s, none_);
        },
        [&] { return table->rmv_item(&none_, 1); },
        [&] { return table->get_item(none_, none_, count, buffer.data()); },
        [&] { return table->get_item_z(none_, none_, count, buffer.data(), &meta_); },
        [&] { return table->get_item_lz(none_, none_, count, texts, &meta_); },
        [&] { return table->get_item_vz(none_, none_, count, vec, &meta_); },
        [&] { return table->get_item_sz(none_, none_, count, set, M("cName")); },
        [&] { return table->get_item_cnt(none_); },
        [&] {
          DbFilters col(1, Term("iAge", DB_FILTER_OP_EQ, nullptr));
          return table->get_item_max(col, none_, out);
        },
        [&] {
          DbFilters col(1, Term("iAge", DB_FILTER_OP_EQ, nullptr));
          return table->get_item_min(col, none_, out);
        },
        [&] { return table->add_index("idx_mistake", M("iAge")); },
        [&] { return table->drop_index("idx_mistake"); },
        [&] { return table->table_vacuum(); },
    };
    for (size_t i = 0; i < calls.size(); ++i) {
      LogCapture log;
      EXPECT_EQ(calls[i](), -1) << "operation " << i;
      ExpectOneError(log, kDbLogFile, text);
    }
    EXPECT_TRUE(buffer.GuardsIntact());
    EXPECT_EQ(buffer.Contents(), GuardedBuffer(3 * sizeof(Person)).Contents());
    EXPECT_EQ(out, "unchanged");
    EXPECT_TRUE(texts.empty() && vec.empty() && set.empty());
    EXPECT_EQ(Snapshot(), before_);
    ExpectCorrectCallWorks();
  }

  // A copy of the Person description under the table's name, for layouts
  // that a test then spoils.
  void DescribeCopy(Meta* meta) {
    DescribePerson(meta);
    for (Member* member : meta->members) db_.preProcMember(member);
  }

  Meta meta_;
  Table* table_ = nullptr;
  DbFilters none_;
  Rows before_;
};

// ---- The objects behind a Table and the state of its Db ----

TEST_F(TableMistakes, TableWithoutDb) {
  Table table(nullptr, &meta_, 0);
  ExpectEveryOperationRefused(&table, "parent is null.\n");
}

TEST_F(TableMistakes, TableWithoutMeta) {
  Table table(&db_, nullptr, 0);
  ExpectEveryOperationRefused(&table, "meta_data is null.\n");
}

TEST_F(TableMistakes, RawHandleOperationsOnAClosedDb) {
  ASSERT_EQ(db_.CloseDB(), 0);
  GuardedBuffer buffer(3 * sizeof(Person));
  Person people[2] = {MakePerson(0, 1, "x", "y", 9), MakePerson(0, 2, "z", "w", 8)};
  unsigned long long count = 3;
  std::list<std::string> texts;
  std::vector<std::string> vec;
  std::set<std::string> set;
  unsigned char blob[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  std::vector<std::function<long long()>> calls = {
      [&] { return table_->add_item(people, 1, none_); },
      [&] { return table_->add_item(people, 2, none_); },
      [&] { return table_->get_item(none_, none_, count, buffer.data()); },
      [&] { return table_->get_item_z(none_, none_, count, buffer.data(), &meta_); },
      [&] { return table_->get_item_lz(none_, none_, count, texts, &meta_); },
      [&] { return table_->get_item_vz(none_, none_, count, vec, &meta_); },
      [&] { return table_->get_item_sz(none_, none_, count, set, M("cName")); },
      [&] {
        DbFilters s(1, Term("bData", DB_FILTER_OP_EQ, blob));
        DbFilters w(1, Term("iAge", DB_FILTER_OP_EQ, IntSlot(30)));
        return table_->update_item(s, w);
      },
  };
  for (size_t i = 0; i < calls.size(); ++i) {
    LogCapture log;
    EXPECT_EQ(calls[i](), -1) << "operation " << i;
    ExpectOneError(log, kDbLogFile, "parent->m_pDBConn->m_pSqliteDB is null.\n");
  }
  EXPECT_TRUE(buffer.GuardsIntact());
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(Snapshot(), before_);
  ASSERT_EQ(db_.OpenDB(), 0);
  ExpectCorrectCallWorks();
}

TEST_F(TableMistakes, AddIndexAfterUnInit) {
  ASSERT_EQ(db_.UnInit(), 0);
  LogCapture log;
  EXPECT_EQ(table_->add_index("idx_age", M("iAge")), -1);
  ExpectOneError(log, kDbLogFile, "parent->m_pDBConn is null.");
  EXPECT_EQ(M("iAge")->index_name, "NONE");
  OpenDb("");
  EXPECT_EQ(table_->add_index("idx_age", M("iAge")), 0);
}

TEST_F(TableMistakes, DropIndexAfterUnInit) {
  ASSERT_EQ(table_->add_index("idx_age", M("iAge")), 0);
  ASSERT_EQ(db_.UnInit(), 0);
  LogCapture log;
  EXPECT_EQ(table_->drop_index("idx_age"), -1);
  ExpectOneError(log, kDbLogFile, "parent->m_pDBConn is null.");
  EXPECT_EQ(M("iAge")->index_name, "idx_age");
  OpenDb("");
  EXPECT_EQ(table_->drop_index("idx_age"), 0);
}

TEST_F(TableMistakes, ToStringOfATableWithoutMeta) {
  Table table(&db_, nullptr, 0);
  LogCapture log;
  EXPECT_EQ(table.toString(""), "");
  ExpectOneError(log, kDbLogFile, "meta_data is null.\n");
  EXPECT_NE(table_->toString(""), "");
}

// ---- Refused calls: one named case each, run by one test ----

struct Small {
  int32_t age;
  int32_t spare;
};

// Everything a refused call is handed: the table and its description, a
// guarded caller buffer holding three records, the count, the containers
// and text a read would fill, term lists owned here, a copy of the
// description (with its own Table) for a case to spoil, and a layout for a
// case to describe.
struct Caller {
  Caller(Db* db, Table* table, Meta* meta, ScalarTypes* types, unsigned long long count)
      : db(db), table(table), meta(meta), types(types), count(count) {
    Person people[3] = {MakePerson(0, 1, "x", "y", 9), MakePerson(0, 2, "z", "w", 8),
                        MakePerson(0, 3, "v", "u", 7)};
    std::memcpy(buffer.data(), people, sizeof(people));
  }

  char* Records() { return buffer.data(); }
  DbFilter* Term(const char* name, DbFilterOperator op, void* v1, void* v2 = nullptr) {
    return new DbFilter(meta->Get(name), op, v1, v2);
  }
  // A list of the one term `term` (null included), owned here.
  DbFilters& List(DbFilter* term) {
    lists.emplace_back(1, term);
    return lists.back();
  }
  // The layout of Small (8 bytes) or of a 5000-byte record, with `member`
  // as its one member (null included).
  Meta* SmallLayout(Member* member) { return Layout("small", sizeof(Small), member); }
  Meta* WideLayout(Member* member) { return Layout("wide", 5000, member); }
  // get_item_z of the iAge column into the buffer, laid out by `userMeta`.
  long long ReadAges(Meta* userMeta) {
    return table->get_item_z(List(Term("iAge", DB_FILTER_OP_EQ, nullptr)), none, count,
                             Records(), userMeta);
  }

  Db* db;
  Table* table;
  Meta* meta;
  ScalarTypes* types;
  unsigned long long count;
  GuardedBuffer buffer{3 * sizeof(Person)};
  DbFilters none;
  std::deque<DbFilters> lists;
  std::list<std::string> textList;
  std::vector<std::string> textVector;
  std::set<std::string> textSet;
  std::string out = "unchanged";
  Meta copy;
  Table copyTable{db, &copy, 0};
  Meta layout;

 private:
  Meta* Layout(const char* name, unsigned int size, Member* member) {
    layout.Init(name, size);
    layout.members.push_back(member);
    return &layout;
  }
};

struct Refusal {
  const char* name;
  const char* error;  // the one error entry
  std::function<long long(Caller&)> call;
  unsigned long long count = 3;  // the count handed to the call
};

// gtest prints a case by its name.
void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

// The call returned -1 and logged one error entry; the caller's buffer, its
// guard bytes, the count, the containers and the text are as they were; the
// rows of the file (read through a connection of the test's own) are
// unchanged; and a correct insert afterwards succeeds.
class RefusedCall : public TableMistakes, public testing::WithParamInterface<Refusal> {};

TEST_P(RefusedCall, ReturnsMinusOneAndChangesNothing) {
  const Refusal& refusal = GetParam();
  Caller caller(&db_, table_, &meta_, &types_, refusal.count);
  DescribeCopy(&caller.copy);
  const std::vector<unsigned char> bufferBefore = caller.buffer.Contents();
  LogCapture log;
  EXPECT_EQ(refusal.call(caller), -1);
  ExpectOneError(log, kDbLogFile, refusal.error);
  EXPECT_TRUE(caller.buffer.GuardsIntact());
  EXPECT_EQ(caller.buffer.Contents(), bufferBefore);
  EXPECT_EQ(caller.count, refusal.count);
  EXPECT_TRUE(caller.textList.empty() && caller.textVector.empty() &&
              caller.textSet.empty());
  EXPECT_EQ(caller.out, "unchanged");
  EXPECT_EQ(Snapshot(), before_);
  ExpectCorrectCallWorks();
}

// The smallest counts whose byte size exceeds SIZE_MAX depend on the word
// size: for records of Person, about 1.07e8 on 32-bit targets and 4.6e17 on
// 64-bit ones; for lists, about 3.6e8 (12-byte lists) and 7.7e17 (24-byte
// lists).
constexpr unsigned long long kPersonsWrap = SIZE_MAX / sizeof(Person) + 1;
constexpr unsigned long long kSmallsWrap = SIZE_MAX / sizeof(Small) + 1;
constexpr unsigned long long kListsWrap = SIZE_MAX / sizeof(DbFilters) + 1;

const Refusal kRefusals[] = {
    // ---- add_item ----
    {"AddItemMetaWithANullMember", "meta_data has a null member.\n",
     [](Caller& c) {
       c.copy.members.push_back(nullptr);
       return c.copyTable.add_item(c.Records(), 1, c.none);
     }},
    {"AddItemMemberWithoutTypeMeta", "type_meta of member iAge is null.\n",
     [](Caller& c) {
       c.copy.Get("iAge")->type_meta = nullptr;
       return c.copyTable.add_item(c.Records(), 1, c.none);
     }},
    {"AddItemRecordSizeZero", "meta_data size is null.\n",
     [](Caller& c) {
       c.copy.type_size = 0;
       return c.copyTable.add_item(c.Records(), 2, c.none);
     }},
    {"AddItemMemberBeyondTheRecordSize", "member bData lies outside meta_data.\n",
     [](Caller& c) {
       c.copy.type_size = 36;  // bData lies at 32..39
       return c.copyTable.add_item(c.Records(), 1, c.none);
     }},
    {"AddItemCountWhoseByteSizeWraps", "itemcnt values is too large.\n",
     [](Caller& c) { return c.table->add_item(c.Records(), c.count, c.none); },
     kPersonsWrap},
    {"AddItemNullColumnTerm", "filters has a null filter.\n",
     [](Caller& c) { return c.table->add_item(c.Records(), 1, c.List(nullptr)); }},
    {"AddItemColumnTermWithoutMember", "filter member is null.\n",
     [](Caller& c) {
       DbFilter* term = new DbFilter(nullptr, DB_FILTER_OP_EQ, nullptr, nullptr);
       return c.table->add_item(c.Records(), 1, c.List(term));
     }},

    // ---- update_item ----
    {"UpdateNullSetTerm", "filters has a null filter.\n",
     [](Caller& c) { return c.table->update_item(c.List(nullptr), c.none); }},
    {"UpdateSetTermWithoutMember", "filter member is null.\n",
     [](Caller& c) {
       DbFilter* term = new DbFilter(nullptr, DB_FILTER_OP_EQ, IntSlot(1), nullptr);
       return c.table->update_item(c.List(term), c.none);
     }},
    // Rendered as '' this would blank the name of every row.
    {"UpdateSetTextValueNull", "filter value is null.\n",
     [](Caller& c) {
       return c.table->update_item(c.List(c.Term("cName", DB_FILTER_OP_EQ, nullptr)),
                                   c.none);
     }},
    {"UpdateSetBlobValueNull", "filter value is null.\n",
     [](Caller& c) {
       return c.table->update_item(c.List(c.Term("bData", DB_FILTER_OP_EQ, nullptr)),
                                   c.none);
     }},
    {"UpdateNullWhereTerm", "filters has a null filter.\n",
     [](Caller& c) {
       DbFilters& set = c.List(c.Term("iAge", DB_FILTER_OP_EQ, IntSlot(99)));
       return c.table->update_item(set, c.List(nullptr));
     }},
    // Rendered as '' this would change bob's row, whose note is empty.
    {"UpdateWhereTextValueNull", "filter value is null.\n",
     [](Caller& c) {
       DbFilters& set = c.List(c.Term("iAge", DB_FILTER_OP_EQ, IntSlot(99)));
       return c.table->update_item(set,
                                   c.List(c.Term("tNote", DB_FILTER_OP_EQ, nullptr)));
     }},
    {"UpdateWhereTermWithoutMember", "filter member is null.\n",
     [](Caller& c) {
       DbFilters& set = c.List(c.Term("iAge", DB_FILTER_OP_EQ, IntSlot(99)));
       DbFilter* term = new DbFilter(nullptr, DB_FILTER_OP_GT, IntSlot(1), nullptr);
       return c.table->update_item(set, c.List(term));
     }},
    // update_item binds a blob member's condition as "= ?" with type_size
    // bytes whatever the term's operator, so even an " and " term that names
    // a blob member needs the member's type_meta.
    {"UpdateWhereBlobTermWithoutTypeMeta", "type_meta of member bData is null.\n",
     [](Caller& c) {
       c.copy.Get("bData")->type_meta = nullptr;
       DbFilters& set = c.List(new DbFilter(c.copy.Get("iAge"), DB_FILTER_OP_EQ, IntSlot(99),
                                            nullptr));
       c.lists.emplace_back(
           3, new DbFilter(c.copy.Get("iAge"), DB_FILTER_OP_EQ, IntSlot(1), nullptr),
           new DbFilter(c.copy.Get("bData"), DB_FILTER_OP_AND, nullptr, nullptr),
           new DbFilter(c.copy.Get("iAge"), DB_FILTER_OP_EQ, IntSlot(2), nullptr));
       return c.copyTable.update_item(set, c.lists.back());
     }},

    // ---- rmv_item ----
    {"RemoveWithANullArrayOfLists", "filters is null.\n",
     [](Caller& c) { return c.table->rmv_item(nullptr, 1); }},
    {"RemoveWithANullTerm", "filters has a null filter.\n",
     [](Caller& c) { return c.table->rmv_item(&c.List(nullptr), 1); }},
    // Rendered as '' this would delete bob's row, whose note is empty.
    {"RemoveWithANullTextValue", "filter value is null.\n",
     [](Caller& c) {
       return c.table->rmv_item(&c.List(c.Term("tNote", DB_FILTER_OP_EQ, nullptr)), 1);
     }},
    {"RemoveWithATermWithoutMember", "filter member is null.\n",
     [](Caller& c) {
       DbFilter* term = new DbFilter(nullptr, DB_FILTER_OP_EQ, IntSlot(30), nullptr);
       return c.table->rmv_item(&c.List(term), 1);
     }},
    {"RemoveWithAnInListWithoutArray", "filter value is null.\n",
     [](Caller& c) {
       DbFilter* term = c.Term("iAge", DB_FILTER_OP_IN, nullptr, IntSlot(2));
       return c.table->rmv_item(&c.List(term), 1);
     }},
    {"RemoveWithABetweenWithoutSecondValue", "filter value is null.\n",
     [](Caller& c) {
       char low[8] = "a";
       return c.table->rmv_item(&c.List(c.Term("cName", DB_FILTER_OP_BETWEEN, low)), 1);
     }},
    {"RemoveWithALikeWithoutPattern", "filter value is null.\n",
     [](Caller& c) {
       return c.table->rmv_item(&c.List(c.Term("tNote", DB_FILTER_OP_LIKE, nullptr)), 1);
     }},
    {"RemoveWithAWrongListAfterAGoodOne", "filter value is null.\n",
     [](Caller& c) {
       DbFilters lists[2];
       lists[0].add_filter(c.Term("iAge", DB_FILTER_OP_EQ, IntSlot(30)));
       lists[1].add_filter(c.Term("tNote", DB_FILTER_OP_EQ, nullptr));
       return c.table->rmv_item(lists, 2);
     }},
    {"RemoveCountWhoseByteSizeWraps", "itemcnt values is too large.\n",
     [](Caller& c) {
       DbFilters& list = c.List(c.Term("iAge", DB_FILTER_OP_EQ, IntSlot(30)));
       return c.table->rmv_item(&list, c.count);
     },
     kListsWrap},

    // ---- get_item into three records ----
    {"GetItemNullColumnTerm", "filters has a null filter.\n",
     [](Caller& c) {
       return c.table->get_item(c.List(nullptr), c.none, c.count, c.Records());
     }},
    {"GetItemNullFilterTerm", "filters has a null filter.\n",
     [](Caller& c) {
       return c.table->get_item(c.none, c.List(nullptr), c.count, c.Records());
     }},
    {"GetItemTextFilterValueNull", "filter value is null.\n",
     [](Caller& c) {
       DbFilters& filters = c.List(c.Term("cName", DB_FILTER_OP_LT, nullptr));
       return c.table->get_item(c.none, filters, c.count, c.Records());
     }},
    {"GetItemMemberBeyondTheRecordSize", "member bData lies outside meta_data.\n",
     [](Caller& c) {
       c.copy.type_size = 36;
       return c.copyTable.get_item(c.none, c.none, c.count, c.Records());
     }},
    {"GetItemRecordSizeZero", "meta_data size is null.\n",
     [](Caller& c) {
       c.copy.type_size = 0;
       return c.copyTable.get_item(c.none, c.none, c.count, c.Records());
     }},
    {"GetItemTableMemberWithoutTypeMeta", "type_meta of member iAge is null.\n",
     [](Caller& c) {
       c.copy.Get("iAge")->type_meta = nullptr;
       return c.copyTable.get_item(c.none, c.none, c.count, c.Records());
     }},
    {"GetItemCountWhoseByteSizeWraps", "itemcnt values is too large.\n",
     [](Caller& c) { return c.table->get_item(c.none, c.none, c.count, c.Records()); },
     kPersonsWrap},

    // ---- get_item_z, get_item_lz, get_item_vz, get_item_sz ----
    {"GetItemZLayoutMemberWithoutTypeMeta", "type_meta of member iAge is null.\n",
     [](Caller& c) { return c.ReadAges(c.SmallLayout(new Member("iAge", 0, nullptr))); }},
    {"GetItemZLayoutWithANullMember", "userMeta_data has a null member.\n",
     [](Caller& c) { return c.ReadAges(c.SmallLayout(nullptr)); }},
    {"GetItemZLayoutMemberBeyondItsSize", "member iAge lies outside userMeta_data.\n",
     [](Caller& c) {
       // 6..9 in 8 bytes
       return c.ReadAges(c.SmallLayout(new Member("iAge", 6, &c.types->int4)));
     }},
    {"GetItemZCountWhoseByteSizeWraps", "itemcnt values is too large.\n",
     [](Caller& c) {
       return c.ReadAges(c.SmallLayout(new Member("iAge", 0, &c.types->int4)));
     },
     kSmallsWrap},
    // The scratch record of the string reads is the layout's size; a member
    // beyond it would be written past the scratch area (on the heap above
    // 4 KiB).
    {"GetItemLzLayoutMemberBeyondItsSize", "member tNote lies outside userMeta_data.\n",
     [](Caller& c) {
       Meta* wide = c.WideLayout(new Member("tNote", 4990, &c.types->char16));
       DbFilters& cols = c.List(c.Term("tNote", DB_FILTER_OP_EQ, nullptr));
       return c.table->get_item_lz(cols, c.none, c.count, c.textList, wide);
     },
     0},
    {"GetItemVzLayoutMemberBeyondItsSize", "member cName lies outside userMeta_data.\n",
     [](Caller& c) {
       Meta* wide = c.WideLayout(new Member("cName", 4996, &c.types->char8));
       return c.table->get_item_vz(c.none, c.none, c.count, c.textVector, wide);
     },
     0},
    {"GetItemSzMemberWithoutTypeMeta", "type_meta of member cName is null.\n",
     [](Caller& c) {
       Member name("cName", 0, nullptr);
       return c.table->get_item_sz(c.none, c.none, c.count, c.textSet, &name);
     },
     0},

    // ---- get_item_cnt, get_item_max, get_item_min ----
    {"CountWithANullTerm", "filters has a null filter.\n",
     [](Caller& c) { return c.table->get_item_cnt(c.List(nullptr)); }},
    {"CountWithATermWithoutMember", "filter member is null.\n",
     [](Caller& c) {
       DbFilter* term = new DbFilter(nullptr, DB_FILTER_OP_ORDER_BY, nullptr, nullptr);
       return c.table->get_item_cnt(c.List(term));
     }},
    {"MaxWithANullColumnTerm", "filters has a null filter.\n",
     [](Caller& c) { return c.table->get_item_max(c.List(nullptr), c.none, c.out); }},
    {"MaxWithAColumnTermWithoutMember", "filter member is null.\n",
     [](Caller& c) {
       DbFilter* term = new DbFilter(nullptr, DB_FILTER_OP_EQ, nullptr, nullptr);
       return c.table->get_item_max(c.List(term), c.none, c.out);
     }},
    {"MinWithANullTextFilterValue", "filter value is null.\n",
     [](Caller& c) {
       DbFilters& col = c.List(c.Term("iAge", DB_FILTER_OP_EQ, nullptr));
       DbFilters& filters = c.List(c.Term("cName", DB_FILTER_OP_NE, nullptr));
       return c.table->get_item_min(col, filters, c.out);
     }},
};

INSTANTIATE_TEST_SUITE_P(TableMistakes, RefusedCall, testing::ValuesIn(kRefusals),
                         [](const testing::TestParamInfo<Refusal>& info) {
                           return std::string(info.param.name);
                         });

// ---- Calls that succeed where they once went wrong ----

TEST_F(TableMistakes, GetItemSzOffsetNearTheEndOfTheAddressSpace) {
  // Word-size dependent before the fix: offset + width wrapped around on
  // 32-bit targets (a write far outside the scratch area) and asked for a
  // 4 GiB scratch area on 64-bit ones. A whole-table read with an offset
  // other than 0 yields empty texts, and now does so on both.
  Member name("cName", 0xFFFFFFF8u, &types_.char8);
  std::set<std::string> out;
  unsigned long long count = 0;
  LogCapture log;
  EXPECT_EQ(table_->get_item_sz(none_, none_, count, out, &name), 0);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(out, (std::set<std::string>{""}));
  EXPECT_EQ(log.CountAtLevel(3), 0u) << log.Dump();
  EXPECT_EQ(Snapshot(), before_);
}

// Found by call_sequence_fuzzer: a query that yields no row at all left a
// result table without a value cell, and the cell after the heading was read
// all the same.
TEST_F(TableMistakes, AggregatesWithALimitOfZero) {
  DbFilters limit(1, new DbFilter(nullptr, DB_FILTER_OP_LIMIT, IntSlot(0), nullptr));
  LogCapture log;
  EXPECT_EQ(table_->get_item_cnt(limit), 0);
  DbFilters col(1, Term("cName", DB_FILTER_OP_EQ, nullptr));
  std::string out = "unchanged";
  EXPECT_EQ(table_->get_item_max(col, limit, out), 0);
  EXPECT_EQ(out, "");
  out = "unchanged";
  EXPECT_EQ(table_->get_item_min(col, limit, out), 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(log.CountAtLevel(3), 0u) << log.Dump();
  EXPECT_EQ(Snapshot(), before_);
  EXPECT_EQ(table_->get_item_cnt(none_), 3);
}

}  // namespace
}  // namespace ipc_db_test
