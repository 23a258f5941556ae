// Tests of Table::get_item and its variants get_item_z, get_item_lz,
// get_item_vz and get_item_sz on real database files: the select statement
// (select list, filter clause with its refusals), the row limit and count,
// whole-record and packed column copies, the copy rule of each column type
// (integer widths, blob and text fit rules, NULLs), failures, and the
// matching of caller layouts to the selected columns by name.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "DbFilter.h"
#include "Meta.h"
#include "Table.h"
#include "TableTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::DbTest;
using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::HexOf;
using ipc_db_test::IntSlot;
using ipc_db_test::kDbLogFile;
using ipc_db_test::LogCapture;
using ipc_db_test::Rows;
using ipc_db_test::SqlCapture;

namespace {

struct Item {
  int32_t id;             // iId_pa
  int32_t count;          // iCount
  char title[32];         // cTitle: CHAR(32)
  int64_t big;            // iBig: INTEGER, 8 bytes
  unsigned char blob[8];  // bBlob
  char code[16];          // tCode: TEXT, 16 bytes
  int16_t small;          // iSmall: INTEGER, 2 bytes
  char guard[6];          // room for the 8-byte write into iSmall
};

constexpr unsigned char kFill = 0x5A;

class ReadTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    DescribeItem(&meta_, "t_item");
    table_ = Create(&meta_, 0);
  }

  void DescribeItem(Meta* meta, const std::string& name) {
    meta->Init(name, sizeof(Item));
    meta->AddMember(new Member("iId_pa", offsetof(Item, id), &types_.int4));
    meta->AddMember(new Member("iCount", offsetof(Item, count), &types_.int4));
    meta->AddMember(new Member("cTitle", offsetof(Item, title), &types_.char32));
    meta->AddMember(new Member("iBig", offsetof(Item, big), &types_.int8));
    meta->AddMember(new Member("bBlob", offsetof(Item, blob), &types_.blob8));
    meta->AddMember(new Member("tCode", offsetof(Item, code), &types_.char16));
    meta->AddMember(new Member("iSmall", offsetof(Item, small), &types_.int2));
  }

  // Rows 1..count: count i*10, title "title<i>", big 5000000000+i, blob of
  // eight bytes i, code "c<i>", small i.
  void Fill(int count, const std::string& table = "t_item") {
    Exec("begin;");
    for (int i = 1; i <= count; ++i) {
      unsigned char bytes[8];
      std::memset(bytes, i, sizeof(bytes));
      std::string blob = HexOf(bytes, sizeof(bytes));
      Exec("insert into " + table + " values (" + std::to_string(i) + ", " +
           std::to_string(i * 10) + ", 'title" + std::to_string(i) + "', " +
           std::to_string(5000000000LL + i) + ", x'" + blob + "', 'c" +
           std::to_string(i) + "', " + std::to_string(i) + ");");
    }
    Exec("commit;");
  }

  static void Clear(void* buffer, size_t size) { std::memset(buffer, kFill, size); }

  static bool AllFill(const void* buffer, size_t size) {
    const unsigned char* bytes = static_cast<const unsigned char*>(buffer);
    for (size_t i = 0; i < size; ++i) {
      if (bytes[i] != kFill) return false;
    }
    return true;
  }

  Member* M(const std::string& name) { return meta_.Get(name); }
  DbFilter* Term(Member* member, DbFilterOperator op, void* v1 = nullptr,
                 void* v2 = nullptr) {
    return new DbFilter(member, op, v1, v2);
  }

  Meta meta_;
  Table* table_ = nullptr;
  DbFilters none_;
};

// ---- get_item ----

TEST_F(ReadTest, NoConnectionIsRefused) {
  Db unopened;
  Table table(&unopened, &meta_, 0);
  Item item;
  unsigned long long count = 4;
  LogCapture log;
  EXPECT_EQ(table.get_item(none_, none_, count, &item), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "parent->m_pDBConn is null.\n");
  EXPECT_EQ(count, 4u);
}

TEST_F(ReadTest, NullBufferIsRefused) {
  unsigned long long count = 4;
  LogCapture log;
  EXPECT_EQ(table_->get_item(none_, none_, count, nullptr), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "vecOutRows is null.\n");
  EXPECT_EQ(count, 4u);
}

TEST_F(ReadTest, WholeRecordsLandAtTheirOffsetsWithTheTableStride) {
  Fill(3);
  Item items[4];
  Clear(items, sizeof(items));
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item(none_, none_, count, items), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"select * from t_item;"});
  ASSERT_EQ(count, 3u);
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(items[i].id, i + 1);
    EXPECT_EQ(items[i].count, (i + 1) * 10);
    EXPECT_STREQ(items[i].title, ("title" + std::to_string(i + 1)).c_str());
    EXPECT_EQ(items[i].big, 5000000001LL + i);
    for (unsigned char byte : items[i].blob) EXPECT_EQ(byte, i + 1);
    EXPECT_STREQ(items[i].code, ("c" + std::to_string(i + 1)).c_str());
  }
  EXPECT_TRUE(AllFill(&items[3], sizeof(Item)));
}

TEST_F(ReadTest, ItemCountLimitsTheRowsRead) {
  Fill(10);
  Item items[4];
  Clear(items, sizeof(items));
  unsigned long long count = 3;
  ASSERT_EQ(table_->get_item(none_, none_, count, items), 0);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(items[2].id, 3);
  EXPECT_TRUE(AllFill(&items[3], sizeof(Item)));
}

TEST_F(ReadTest, ItemCountAboveTheMatchesGivesTheMatches) {
  Fill(10);
  Item items[3];
  DbFilters filters(1, Term(M("iId_pa"), DB_FILTER_OP_LE, IntSlot(2)));
  unsigned long long count = 3;
  ASSERT_EQ(table_->get_item(none_, filters, count, items), 0);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(items[1].id, 2);
}

TEST_F(ReadTest, NoMatchingRowLeavesTheBufferUntouched) {
  Fill(3);
  Item item;
  Clear(&item, sizeof(item));
  DbFilters filters(1, Term(M("iId_pa"), DB_FILTER_OP_GT, IntSlot(100)));
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item(none_, filters, count, &item), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(AllFill(&item, sizeof(item)));
}

TEST_F(ReadTest, SelectedColumnsArePackedAndEachRowOverwritesTheLast) {
  Fill(5);
  Item items[2];
  Clear(items, sizeof(items));
  DbFilters cols(2, Term(M("iCount"), DB_FILTER_OP_EQ),
                 Term(M("cTitle"), DB_FILTER_OP_EQ));
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item(cols, none_, count, items), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"select iCount, cTitle from t_item;"});
  EXPECT_EQ(count, 5u);
  const char* bytes = reinterpret_cast<const char*>(items);
  int32_t packedCount;
  std::memcpy(&packedCount, bytes, 4);
  EXPECT_EQ(packedCount, 50);
  EXPECT_STREQ(bytes + 4, "title5");
  // Bytes after the text's terminator and everything past 36 bytes stay.
  EXPECT_TRUE(AllFill(bytes + 4 + 7, 32 - 7));
  EXPECT_TRUE(AllFill(bytes + 36, sizeof(items) - 36));
}

TEST_F(ReadTest, TextThatDoesNotFitWithItsTerminatorGivesAnEmptyString) {
  Exec("insert into t_item (iId_pa, tCode) values (1, '0123456789abcdef');");  // 16
  Exec("insert into t_item (iId_pa, tCode) values (2, '0123456789abcde');");   // 15
  Exec("insert into t_item (iId_pa, tCode) values (3, NULL);");
  Item items[3];
  Clear(items, sizeof(items));
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item(none_, none_, count, items), 0);
  ASSERT_EQ(count, 3u);
  EXPECT_EQ(items[0].code[0], '\0');
  EXPECT_STREQ(items[1].code, "0123456789abcde");
  EXPECT_EQ(items[2].code[0], '\0');
}

TEST_F(ReadTest, ShortTextKeepsTheBytesAfterItsTerminator) {
  Exec("insert into t_item (iId_pa, tCode) values (1, 'ab');");
  Item item;
  Clear(&item, sizeof(item));
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item(none_, none_, count, &item), 0);
  EXPECT_STREQ(item.code, "ab");
  EXPECT_TRUE(AllFill(item.code + 3, sizeof(item.code) - 3));
}

TEST_F(ReadTest, IntegerWidthsChooseThe32Or64BitRead) {
  // 2^32 + 5 in the 4-byte and in the 8-byte column; a value with eight
  // distinct bytes in the 2-byte column.
  Exec(
      "insert into t_item (iId_pa, iCount, iBig, iSmall) values (1, 4294967301, "
      "4294967301, 72623859790382856);");
  Item item;
  Clear(&item, sizeof(item));
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item(none_, none_, count, &item), 0);
  EXPECT_EQ(item.count, 5);           // sqlite3_column_int keeps the low 32 bits
  EXPECT_EQ(item.big, 4294967301LL);  // sqlite3_column_int64
  int64_t small;                      // 8 bytes written from iSmall's offset
  std::memcpy(&small, &item.small, sizeof(small));
  EXPECT_EQ(small, 0x0102030405060708LL);
}

TEST_F(ReadTest, BlobFitRules) {
  Exec("insert into t_item (iId_pa, bBlob) values (1, x'AABBCC');");
  Exec("insert into t_item (iId_pa, bBlob) values (2, x'0102030405060708090A');");
  Exec("insert into t_item (iId_pa, bBlob) values (3, NULL);");
  Exec("insert into t_item (iId_pa, bBlob) values (4, x'1122334455667788');");
  Item items[4];
  Clear(items, sizeof(items));
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item(none_, none_, count, items), 0);
  ASSERT_EQ(count, 4u);
  const unsigned char shorter[8] = {0xAA, 0xBB, 0xCC, kFill, kFill, kFill, kFill, kFill};
  EXPECT_EQ(std::memcmp(items[0].blob, shorter, 8), 0);
  const unsigned char zero[8] = {};
  EXPECT_EQ(std::memcmp(items[1].blob, zero, 8), 0);  // too long: zero-filled
  EXPECT_EQ(std::memcmp(items[2].blob, zero, 8), 0);  // NULL: zero-filled
  const unsigned char exact[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  EXPECT_EQ(std::memcmp(items[3].blob, exact, 8), 0);
}

TEST_F(ReadTest, LimitAndOffsetFollowTheTableName) {
  Fill(20);
  Item items[5];
  DbFilters filters(2, Term(nullptr, DB_FILTER_OP_LIMIT, IntSlot(5)),
                    Term(nullptr, DB_FILTER_OP_OFFSET, IntSlot(10)));
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item(none_, filters, count, items), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"select * from t_item limit 5 offset 10;"});
  ASSERT_EQ(count, 5u);
  EXPECT_EQ(items[0].id, 11);
  EXPECT_EQ(items[4].id, 15);
}

TEST_F(ReadTest, MisplacedClauseTermsAreRefusedBeforeAnythingRuns) {
  Item item;
  struct Case {
    const char* label;
    std::vector<DbFilter*> terms;
  };
  std::vector<Case> cases;
  cases.push_back({"offset alone", {Term(nullptr, DB_FILTER_OP_OFFSET, IntSlot(10))}});
  cases.push_back(
      {"and first",
       {Term(nullptr, DB_FILTER_OP_AND), Term(M("iCount"), DB_FILTER_OP_EQ)}});
  cases.push_back({"equal, offset",
                   {Term(M("iCount"), DB_FILTER_OP_EQ, IntSlot(1)),
                    Term(nullptr, DB_FILTER_OP_OFFSET, IntSlot(10))}});
  cases.push_back({"order, offset",
                   {Term(M("iCount"), DB_FILTER_OP_ORDER_BY),
                    Term(nullptr, DB_FILTER_OP_OFFSET, IntSlot(10))}});
  for (Case& c : cases) {
    DbFilters filters;
    for (DbFilter* term : c.terms) filters.add_filter(term);
    unsigned long long count = 9;
    SqlCapture sql(Handle());
    LogCapture log;
    EXPECT_EQ(table_->get_item(none_, filters, count, &item), -1) << c.label;
    ExpectLoggedOnce(log, 3, kDbLogFile, "filter in wrong format\n");
    EXPECT_EQ(count, 9u) << c.label;
    EXPECT_TRUE(sql.Statements().empty()) << c.label;
  }
}

TEST_F(ReadTest, ClauseJoinsConditionsWithAndAndClauseTermsWithABlank) {
  char bob[32] = "bob";
  DbFilters filters(5, Term(M("iId_pa"), DB_FILTER_OP_GT, IntSlot(5)),
                    Term(M("cTitle"), DB_FILTER_OP_EQ, bob),
                    Term(M("iId_pa"), DB_FILTER_OP_ORDER_BY),
                    Term(nullptr, DB_FILTER_OP_LIMIT, IntSlot(10)),
                    Term(nullptr, DB_FILTER_OP_OFFSET, IntSlot(20)));
  Item item;
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item(none_, filters, count, &item), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"select * from t_item where iId_pa > 5 and cTitle = "
                                     "'bob' order by iId_pa limit 10 offset 20;"});
}

TEST_F(ReadTest, ConditionsAndDescendingOrder) {
  Fill(6);
  DbFilters filters(3, Term(M("iCount"), DB_FILTER_OP_GE, IntSlot(20)),
                    Term(M("iCount"), DB_FILTER_OP_LE, IntSlot(40)),
                    Term(M("iId_pa"), DB_FILTER_OP_ORDER_BY_DESC));
  Item items[3];
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item(none_, filters, count, items), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{
                                  "select * from t_item where iCount >= 20 and iCount <= "
                                  "40 order by iId_pa DESC ;"});
  ASSERT_EQ(count, 3u);
  EXPECT_EQ(items[0].id, 4);
  EXPECT_EQ(items[1].id, 3);
  EXPECT_EQ(items[2].id, 2);
}

TEST_F(ReadTest, ClauseMayOpenWithAnOrdering) {
  Fill(3);
  DbFilters filters(2, Term(M("iId_pa"), DB_FILTER_OP_ORDER_BY_DESC),
                    Term(nullptr, DB_FILTER_OP_LIMIT, IntSlot(1)));
  Item item;
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item(none_, filters, count, &item), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{
                                  "select * from t_item order by iId_pa DESC  limit 1;"});
  EXPECT_EQ(item.id, 3);
}

TEST_F(ReadTest, PrepareFailureLeavesTheCountAlone) {
  Member ghost("iGhost", 0, &types_.int4);
  DbFilters cols(1, Term(&ghost, DB_FILTER_OP_EQ));
  Item item;
  unsigned long long count = 7;
  LogCapture log;
  EXPECT_EQ(table_->get_item(cols, none_, count, &item), -1);
  ExpectLoggedOnce(
      log, 3, kDbLogFile,
      "Failed to sqlite3_prepare!errorcode:1, reason:no such column: iGhost!!\n");
  EXPECT_EQ(count, 7u);
}

TEST_F(ReadTest, DerivedNamesInTheSelectListAndTheClause) {
  Meta meta;
  DescribeItem(&meta, "t_plain");
  Table* table = Create(&meta, 1);
  Fill(2, "t_plain");
  DbFilters cols(2, Term(meta.Get("iCount"), DB_FILTER_OP_EQ),
                 Term(meta.Get("cTitle"), DB_FILTER_OP_EQ));
  DbFilters filters(1, Term(meta.Get("iId_pa"), DB_FILTER_OP_EQ, IntSlot(2)));
  Item item;
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table->get_item(cols, filters, count, &item), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"select Count, Title from t_plain where Id = 2;"});
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(item.id, 20);  // packed: the count sits at the start
}

TEST_F(ReadTest, StepErrorEndsTheReadWithTheRowsSoFar) {
  Fill(4);
  // The third row of the view raises an integer overflow while stepping.
  Exec(
      "create view t_view as select iId_pa, case when iId_pa = 3 then "
      "abs(iBig - iBig - 9223372036854775807 - 1) else iCount end as iCount, cTitle, "
      "iBig, bBlob, tCode, "
      "iSmall from t_item order by iId_pa;");
  Meta view;
  DescribeItem(&view, "t_view");
  Table table(&db_, &view, 0);
  for (Member* member : view.members) db_.preProcMember(member);
  Item items[4];
  unsigned long long count = 0;
  LogCapture log;
  EXPECT_EQ(table.get_item(none_, none_, count, items), 0);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(log.CountAtLevel(3), 0u) << log.Dump();
}

// ---- get_item_z ----

struct Pair {
  char title[32];
  int32_t count;
  int32_t untouched;
};

class LayoutTest : public ReadTest {
 protected:
  void SetUp() override {
    ReadTest::SetUp();
    pair_.Init("pair", sizeof(Pair));
    pair_.AddMember(new Member("cTitle", offsetof(Pair, title), &types_.char32));
    pair_.AddMember(new Member("iCount", offsetof(Pair, count), &types_.int4));
  }
  Meta pair_;
};

TEST_F(LayoutTest, RecordsOfAnotherLayoutGetTheMatchingColumns) {
  Fill(3);
  Pair pairs[4];
  Clear(pairs, sizeof(pairs));
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item_z(none_, none_, count, pairs, &pair_), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"select * from t_item;"});
  ASSERT_EQ(count, 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_STREQ(pairs[i].title, ("title" + std::to_string(i + 1)).c_str());
    EXPECT_EQ(pairs[i].count, (i + 1) * 10);
    EXPECT_TRUE(AllFill(&pairs[i].untouched, 4));
  }
  EXPECT_TRUE(AllFill(&pairs[3], sizeof(Pair)));
  // The naming rule was applied to the layout's members.
  EXPECT_EQ(pair_.members[0]->sql_type, "CHAR(32)");
  EXPECT_EQ(pair_.members[1]->sql_type, "INTEGER");
}

TEST_F(LayoutTest, NamingRuleIsAppliedOnlyWhenAValueIsCopied) {
  Pair pair;
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item_z(none_, none_, count, &pair, &pair_), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(pair_.members[0]->sql_type, "unknown_type");
}

TEST_F(LayoutTest, SelectedColumnMissingFromTheLayoutStillCountsItsIndex) {
  Fill(2);
  Meta counts;
  counts.Init("counts", 4);
  counts.AddMember(new Member("iCount", 0, &types_.int4));
  DbFilters cols(3, Term(M("iId_pa"), DB_FILTER_OP_EQ), Term(M("iBig"), DB_FILTER_OP_EQ),
                 Term(M("iCount"), DB_FILTER_OP_EQ));
  int32_t values[2] = {0, 0};
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item_z(cols, none_, count, values, &counts), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"select iId_pa, iBig, iCount from t_item;"});
  EXPECT_EQ(count, 2u);
  // Each row has its own record (unlike get_item with a selection).
  EXPECT_EQ(values[0], 10);
  EXPECT_EQ(values[1], 20);
}

TEST_F(LayoutTest, LayoutMemberWithAnotherWidthDoesNotMatch) {
  Meta wrong;
  wrong.Init("wrong", 16);
  wrong.AddMember(new Member("cTitle", 0, &types_.char16));
  Pair pair;
  unsigned long long count = 0;
  LogCapture log;
  EXPECT_EQ(table_->get_item_z(none_, none_, count, &pair, &wrong), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "userMeta_data doesn't match meta_data");
}

TEST_F(LayoutTest, LayoutMemberOutsideTheSelectionDoesNotMatch) {
  DbFilters cols(1, Term(M("iCount"), DB_FILTER_OP_EQ));
  Pair pair;
  unsigned long long count = 0;
  LogCapture log;
  EXPECT_EQ(table_->get_item_z(cols, none_, count, &pair, &pair_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "userMeta_data doesn't match obj1");
}

TEST_F(LayoutTest, ChecksOfGetItemZInOrder) {
  Db unopened;
  Table detached(&unopened, &meta_, 0);
  Meta sizeless;
  sizeless.Init("sizeless", 0);
  sizeless.AddMember(new Member("iCount", 0, &types_.int4));
  Meta memberless;
  memberless.Init("memberless", 4);
  Pair pair;
  unsigned long long count = 0;
  struct Case {
    Table* table;
    void* obj;
    Meta* layout;
    const char* message;
  } cases[] = {
      {&detached, nullptr, nullptr, "parent->m_pDBConn is null.\n"},
      {table_, nullptr, nullptr, "vecOutRows is null.\n"},
      {table_, &pair, nullptr, "userMeta_data is null."},
      {table_, &pair, &sizeless, "userMeta_data size is null."},
      {table_, &pair, &memberless, "userMeta_data->members.size() is zero."},
  };
  for (const Case& c : cases) {
    LogCapture log;
    EXPECT_EQ(c.table->get_item_z(none_, none_, count, c.obj, c.layout), -1) << c.message;
    ExpectLoggedOnce(log, 3, kDbLogFile, c.message);
    EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  }
}

TEST_F(LayoutTest, FilterRefusalAndPrepareFailureAsInGetItem) {
  DbFilters offsetFirst(1, Term(nullptr, DB_FILTER_OP_OFFSET, IntSlot(1)));
  Pair pair;
  unsigned long long count = 3;
  LogCapture log;
  EXPECT_EQ(table_->get_item_z(none_, offsetFirst, count, &pair, &pair_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "filter in wrong format\n");
  Member ghost("iGhost", 0, &types_.int4);
  ghost.sql_type = "INTEGER";
  DbFilters badCondition(1, Term(&ghost, DB_FILTER_OP_EQ, IntSlot(1)));
  EXPECT_EQ(table_->get_item_z(none_, badCondition, count, &pair, &pair_), -1);
  ExpectLoggedOnce(
      log, 3, kDbLogFile,
      "Failed to sqlite3_prepare!errorcode:1, reason:no such column: iGhost!!\n");
  EXPECT_EQ(count, 3u);
}

// ---- get_item_lz / get_item_vz ----

TEST_F(LayoutTest, ListGetsTheTextAtTheStartOfEachRow) {
  Exec("insert into t_item (iId_pa, cTitle) values (1, 'alpha');");
  Exec("insert into t_item (iId_pa, cTitle) values (2, NULL);");
  Exec("insert into t_item (iId_pa, cTitle) values (3, '" + std::string(32, 'x') + "');");
  Exec("insert into t_item (iId_pa, cTitle) values (4, '" + std::string(31, 'y') + "');");
  std::list<std::string> out = {"kept"};
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item_lz(none_, none_, count, out, &pair_), 0);
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(out, (std::list<std::string>{"kept", "alpha", "", "", std::string(31, 'y')}));
}

TEST_F(LayoutTest, VectorAppendsAfterItsElementsInRowOrder) {
  Fill(3);
  std::vector<std::string> out = {"first", "second"};
  DbFilters filters(1, Term(M("iId_pa"), DB_FILTER_OP_ORDER_BY_DESC));
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item_vz(none_, filters, count, out, &pair_), 0);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(out,
            (std::vector<std::string>{"first", "second", "title3", "title2", "title1"}));
}

TEST_F(LayoutTest, StringEndsAtTheFirstZeroByteOfTheScratchRecord) {
  // The count (10 = 0x0A 0 0 0) comes first: only its first byte reaches
  // the string; the title after the zero bytes does not.
  Fill(1);
  Meta countFirst;
  countFirst.Init("count_first", 36);
  countFirst.AddMember(new Member("iCount", 0, &types_.int4));
  countFirst.AddMember(new Member("cTitle", 4, &types_.char32));
  std::vector<std::string> out;
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item_vz(none_, none_, count, out, &countFirst), 0);
  EXPECT_EQ(out, std::vector<std::string>{"\n"});
}

TEST_F(LayoutTest, ItemCountLimitsTheStringsToo) {
  Fill(5);
  std::list<std::string> out;
  unsigned long long count = 2;
  ASSERT_EQ(table_->get_item_lz(none_, none_, count, out, &pair_), 0);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(out, (std::list<std::string>{"title1", "title2"}));
}

TEST_F(LayoutTest, LargeLayoutUsesAHeapScratchRecord) {
  Fill(2);
  Meta large;
  large.Init("large", 8192);
  large.AddMember(new Member("cTitle", 0, &types_.char32));
  large.AddMember(new Member("iCount", 8000, &types_.int4));
  std::vector<std::string> out;
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item_vz(none_, none_, count, out, &large), 0);
  EXPECT_EQ(out, (std::vector<std::string>{"title1", "title2"}));
}

TEST_F(LayoutTest, ChecksOfTheStringVariantsInOrder) {
  Db unopened;
  Table detached(&unopened, &meta_, 0);
  Meta sizeless;
  sizeless.Init("sizeless", 0);
  Meta memberless;
  memberless.Init("memberless", 4);
  Meta wrong;
  wrong.Init("wrong", 8);
  wrong.AddMember(new Member("iCount", 0, &types_.int8));
  DbFilters onlyId(1, Term(M("iId_pa"), DB_FILTER_OP_EQ));
  struct Case {
    Table* table;
    Meta* layout;
    DbFilters* cols;
    const char* message;
  } cases[] = {
      {&detached, nullptr, &none_, "parent->m_pDBConn is null.\n"},
      {table_, nullptr, &none_, "userMeta_data is null."},
      {table_, &sizeless, &none_, "userMeta_data size is null."},
      {table_, &memberless, &none_, "userMeta_data->members.size() is zero."},
      {table_, &wrong, &none_, "userMeta_data doesn't match meta_data"},
      {table_, &pair_, &onlyId, "userMeta_data doesn't match obj1"},
  };
  for (const Case& c : cases) {
    std::list<std::string> list = {"x"};
    std::vector<std::string> vector = {"y"};
    unsigned long long count = 5;
    LogCapture log;
    EXPECT_EQ(c.table->get_item_lz(*c.cols, none_, count, list, c.layout), -1)
        << c.message;
    EXPECT_EQ(c.table->get_item_vz(*c.cols, none_, count, vector, c.layout), -1);
    EXPECT_EQ(log.Count(c.message), 2u) << log.Dump();
    EXPECT_EQ(log.Entries().size(), 2u) << log.Dump();
    EXPECT_EQ(list, std::list<std::string>{"x"});
    EXPECT_EQ(vector, std::vector<std::string>{"y"});
    EXPECT_EQ(count, 5u);
  }
}

// ---- get_item_sz ----

TEST_F(LayoutTest, SetCollapsesEqualStrings) {
  Exec("insert into t_item (iId_pa, cTitle) values (1, 'a'), (2, 'b'), (3, 'a');");
  Member title("cTitle", 0, &types_.char32);
  std::set<std::string> out = {"z"};
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item_sz(none_, none_, count, out, &title), 0);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(out, (std::set<std::string>{"a", "b", "z"}));
  EXPECT_EQ(title.sql_type, "CHAR(32)");
}

TEST_F(LayoutTest, SetWithASelectionCopiesToTheBufferStart) {
  Fill(2);
  // The member's offset is not 0; with a selection it is not used.
  Member title("cTitle", 8, &types_.char32);
  DbFilters cols(2, Term(M("iId_pa"), DB_FILTER_OP_EQ),
                 Term(M("cTitle"), DB_FILTER_OP_EQ));
  std::set<std::string> out;
  unsigned long long count = 0;
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->get_item_sz(cols, none_, count, out, &title), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"select iId_pa, cTitle from t_item;"});
  EXPECT_EQ(out, (std::set<std::string>{"title1", "title2"}));
}

TEST_F(LayoutTest, SetOfWholeRowsPlacesTheValueAtTheMemberOffset) {
  // Whole-row reads write at the member's offset, so only a member at
  // offset 0 yields its text; another offset leaves the start zero.
  Fill(2);
  Member shifted("cTitle", 8, &types_.char32);
  std::set<std::string> out;
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item_sz(none_, none_, count, out, &shifted), 0);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(out, std::set<std::string>{""});
}

TEST_F(LayoutTest, SetOfIntegersGivesTheirLeadingBytes) {
  Exec("insert into t_item (iId_pa, iCount) values (1, 65), (2, 16961);");  // "A", "AB"
  Member countMember("iCount", 0, &types_.int4);
  std::set<std::string> out;
  unsigned long long count = 0;
  ASSERT_EQ(table_->get_item_sz(none_, none_, count, out, &countMember), 0);
  EXPECT_EQ(out, (std::set<std::string>{"A", "AB"}));
}

TEST_F(LayoutTest, ChecksOfTheSetVariantInOrder) {
  Db unopened;
  Table detached(&unopened, &meta_, 0);
  Meta empty;
  empty.Init("empty", 0);
  Member sizeless("cTitle", 0, &empty);
  Member wrongWidth("cTitle", 0, &types_.char16);
  Member title("cTitle", 0, &types_.char32);
  DbFilters onlyId(1, Term(M("iId_pa"), DB_FILTER_OP_EQ));
  struct Case {
    Table* table;
    Member* member;
    DbFilters* cols;
    const char* message;
  } cases[] = {
      {&detached, nullptr, &none_, "parent->m_pDBConn is null.\n"},
      {table_, nullptr, &none_, "userMember_data is null."},
      {table_, &sizeless, &none_, "userMeta_data size is null."},
      {table_, &wrongWidth, &none_, "userMeta_data doesn't match meta_data"},
      {table_, &title, &onlyId, "userMeta_data doesn't match obj1"},
  };
  for (const Case& c : cases) {
    std::set<std::string> out = {"x"};
    unsigned long long count = 5;
    LogCapture log;
    EXPECT_EQ(c.table->get_item_sz(*c.cols, none_, count, out, c.member), -1)
        << c.message;
    ExpectLoggedOnce(log, 3, kDbLogFile, c.message);
    EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
    EXPECT_EQ(out, std::set<std::string>{"x"});
    EXPECT_EQ(count, 5u);
  }
}

}  // namespace
