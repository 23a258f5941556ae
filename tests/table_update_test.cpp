// Tests of Table::update_item and Table::rmv_item on real database files:
// the exact statements (assignments, the condition with its implicit "and",
// ordering, limit and offset placement), the refusals, the blob path with
// its parameter numbering, the deletes with their plain " and " joining, the
// transaction around several deletes and the one a failing delete leaves
// open, and Table::toString. A blob term of the condition is tried under
// every operator, with exactly the blob's bytes behind its value.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
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
using ipc_db_test::MakePerson;
using ipc_db_test::Person;
using ipc_db_test::Rows;
using ipc_db_test::SqlCapture;

namespace {

class UpdateTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    DescribePerson(&meta_);
    table_ = Create(&meta_, 0);
    id_ = meta_.Get("iId_pa");
    age_ = meta_.Get("iAge");
    name_ = meta_.Get("cName");
    data_ = meta_.Get("bData");
  }

  // Rows 1..count with age = id * 10, name "n<id>" and data seeded by id.
  void Fill(int count) {
    std::vector<Person> people;
    for (int i = 1; i <= count; ++i) {
      people.push_back(MakePerson(i, i * 10, ("n" + std::to_string(i)).c_str(), "note",
                                  static_cast<unsigned char>(i)));
    }
    DbFilters all;
    ASSERT_EQ(table_->add_item(people.data(), people.size(), all), 0);
  }

  Rows Ages() { return Query("select iId_pa, iAge from t_person order by iId_pa"); }

  DbFilter* Term(Member* member, DbFilterOperator op, void* v1 = nullptr,
                 void* v2 = nullptr) {
    return new DbFilter(member, op, v1, v2);
  }

  Meta meta_;
  Table* table_ = nullptr;
  Member* id_ = nullptr;
  Member* age_ = nullptr;
  Member* name_ = nullptr;
  Member* data_ = nullptr;
};

// ---- update_item: checks ----

TEST_F(UpdateTest, UpdateWithoutConnectionIsRefused) {
  Db unopened;
  Table table(&unopened, &meta_, 0);
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(1)));
  DbFilters where;
  LogCapture log;
  EXPECT_EQ(table.update_item(set, where), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "parent->m_pDBConn is null.\n");
}

TEST_F(UpdateTest, EmptySetIsRefused) {
  DbFilters set;
  DbFilters where;
  LogCapture log;
  EXPECT_EQ(table_->update_item(set, where), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "filters is empty.\n");
}

TEST_F(UpdateTest, SetTermWithAnotherOperatorIsRefusedBeforeAnythingRuns) {
  Fill(2);
  DbFilters set(2, Term(age_, DB_FILTER_OP_EQ, IntSlot(1)),
                Term(name_, DB_FILTER_OP_LT, nullptr));
  DbFilters where;
  SqlCapture sql(Handle());
  LogCapture log;
  EXPECT_EQ(table_->update_item(set, where), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "op is not equal\n");
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "20"}}));
}

// ---- update_item: statement text ----

TEST_F(UpdateTest, EmptyWhereChangesEveryRow) {
  Fill(3);
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(5)));
  DbFilters where;
  SqlCapture sql(Handle());
  LogCapture log;
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"update t_person set iAge = 5;"});
  ExpectLoggedOnce(log, 0, kDbLogFile,
                   " Table::update_item = update t_person set iAge = 5;\n");
  EXPECT_EQ(Ages(), (Rows{{"1", "5"}, {"2", "5"}, {"3", "5"}}));
}

TEST_F(UpdateTest, SeveralAssignmentsAreSeparatedByCommas) {
  Fill(2);
  char name[8] = "zed";
  DbFilters set(2, Term(age_, DB_FILTER_OP_EQ, IntSlot(-1)),
                Term(name_, DB_FILTER_OP_EQ, name));
  DbFilters where(1, Term(id_, DB_FILTER_OP_EQ, IntSlot(2)));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_person set iAge = -1, cName = 'zed' where "
                                     "iId_pa = 2;"});
  EXPECT_EQ(Query("select iId_pa, iAge, cName from t_person order by iId_pa"),
            (Rows{{"1", "10", "n1"}, {"2", "-1", "zed"}}));
}

TEST_F(UpdateTest, WhereOpeningWithALimitHasNoWhereKeyword) {
  Fill(7);
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(1)));
  DbFilters where(1, Term(nullptr, DB_FILTER_OP_LIMIT, IntSlot(5)));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_person set iAge = 1 limit 5;"});
  EXPECT_EQ(Query("select count(*) from t_person where iAge = 1"), (Rows{{"5"}}));
}

TEST_F(UpdateTest, ConditionThenOrderingIsJoinedByABlank) {
  Fill(2);
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(1)));
  DbFilters where(2, Term(age_, DB_FILTER_OP_EQ, IntSlot(10)),
                  Term(id_, DB_FILTER_OP_ORDER_BY));
  LogCapture log;
  // SQLite wants a limit with an ordered update, so the statement fails.
  EXPECT_EQ(table_->update_item(set, where), -1);
  ExpectLoggedOnce(log, 0, kDbLogFile,
                   " Table::update_item = update t_person set iAge = 1 where iAge = 10 "
                   "order by iId_pa;\n");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for update_item failed!error:-204\n");
}

TEST_F(UpdateTest, OrderingAndLimitNarrowTheUpdate) {
  Fill(4);
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(0)));
  DbFilters where(3, Term(age_, DB_FILTER_OP_GT, IntSlot(10)),
                  Term(id_, DB_FILTER_OP_ORDER_BY_DESC),
                  Term(nullptr, DB_FILTER_OP_LIMIT, IntSlot(2)));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{
                                  "update t_person set iAge = 0 where iAge > 10 order by "
                                  "iId_pa DESC  limit 2;"});
  EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "20"}, {"3", "0"}, {"4", "0"}}));
}

TEST_F(UpdateTest, TwoConditionsAreJoinedByAnd) {
  Fill(3);
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(1)));
  DbFilters where(2, Term(id_, DB_FILTER_OP_EQ, IntSlot(2)),
                  Term(age_, DB_FILTER_OP_EQ, IntSlot(20)));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{
                "update t_person set iAge = 1 where iId_pa = 2 and iAge = 20;"});
  EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "1"}, {"3", "30"}}));
}

TEST_F(UpdateTest, LimitThenOffsetIsAccepted) {
  Fill(4);
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(7)));
  DbFilters where(2, Term(nullptr, DB_FILTER_OP_LIMIT, IntSlot(5)),
                  Term(nullptr, DB_FILTER_OP_OFFSET, IntSlot(10)));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_person set iAge = 7 limit 5 offset 10;"});
  EXPECT_EQ(Query("select count(*) from t_person where iAge = 7"), (Rows{{"0"}}));
}

TEST_F(UpdateTest, OffsetAfterAConditionIsRefused) {
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(1)));
  DbFilters where(2, Term(age_, DB_FILTER_OP_EQ, IntSlot(1)),
                  Term(nullptr, DB_FILTER_OP_OFFSET, IntSlot(10)));
  SqlCapture sql(Handle());
  LogCapture log;
  EXPECT_EQ(table_->update_item(set, where), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "filter in wrong format\n");
  EXPECT_TRUE(sql.Statements().empty());
  EXPECT_FALSE(log.Contains("Table::update_item"));
}

TEST_F(UpdateTest, WhereOpeningWithAndOrOffsetIsRefused) {
  for (DbFilterOperator op : {DB_FILTER_OP_AND, DB_FILTER_OP_OFFSET}) {
    DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(1)));
    DbFilters where(1, Term(nullptr, op, IntSlot(1)));
    LogCapture log;
    EXPECT_EQ(table_->update_item(set, where), -1) << op;
    ExpectLoggedOnce(log, 3, kDbLogFile, "filter in wrong format\n");
  }
}

TEST_F(UpdateTest, DerivedNamesInAnalyzedMode) {
  Meta meta;
  DescribePerson(&meta, "t_plain");
  Table* table = Create(&meta, 1);
  DbFilters set(1, Term(meta.Get("iAge"), DB_FILTER_OP_EQ, IntSlot(3)));
  DbFilters where(1, Term(meta.Get("iId_pa"), DB_FILTER_OP_GE, IntSlot(0)));
  SqlCapture sql(Handle());
  ASSERT_EQ(table->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_plain set Age = 3 where Id >= 0;"});
}

// ---- update_item: blobs ----

TEST_F(UpdateTest, BlobAssignmentIsBoundAsTheFirstParameter) {
  Fill(2);
  unsigned char blob[8] = {9, 8, 7, 6, 5, 4, 3, 2};
  DbFilters set(1, Term(data_, DB_FILTER_OP_EQ, blob));
  DbFilters where(1, Term(id_, DB_FILTER_OP_EQ, IntSlot(2)));
  SqlCapture sql(Handle());
  LogCapture log;
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_person set bData = ? where iId_pa = 2;"});
  EXPECT_FALSE(log.Contains("Table::update_item")) << log.Dump();
  EXPECT_EQ(Query("select hex(bData) from t_person order by iId_pa"),
            (Rows{{"0102030405060708"}, {HexOf(blob, 8)}}));
}

TEST_F(UpdateTest, BlobConditionIsAlwaysAnEqualityBoundAtTheFirstParameter) {
  Fill(3);
  Person second = MakePerson(2, 0, "", "", 2);
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(99)));
  // The operator of a blob term does not matter: it is compared for equality.
  DbFilters where(1, Term(data_, DB_FILTER_OP_GT, second.data));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_person set iAge = 99 where bData = ?;"});
  EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "99"}, {"3", "30"}}));
}

TEST_F(UpdateTest, BlobAssignmentAndBlobConditionAreBoundAtOneAndTwo) {
  Fill(3);
  Person third = MakePerson(3, 0, "", "", 3);
  unsigned char blob[8] = {0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA, 0x99, 0x88};
  DbFilters set(1, Term(data_, DB_FILTER_OP_EQ, blob));
  DbFilters where(2, Term(data_, DB_FILTER_OP_EQ, third.data),
                  Term(nullptr, DB_FILTER_OP_LIMIT, IntSlot(1)));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(
      sql.Statements(),
      std::vector<std::string>{"update t_person set bData = ? where bData = ? limit 1;"});
  EXPECT_EQ(Query("select iId_pa from t_person where hex(bData) = 'FFEEDDCCBBAA9988'"),
            (Rows{{"3"}}));
}

TEST_F(UpdateTest, BlobNamesAreDerivedWithGetName) {
  Meta meta;
  DescribePerson(&meta, "t_plain");
  Table* table = Create(&meta, 1);
  unsigned char blob[8] = {1};
  DbFilters set(1, Term(meta.Get("bData"), DB_FILTER_OP_EQ, blob));
  DbFilters where(1, Term(meta.Get("bData"), DB_FILTER_OP_EQ, blob));
  SqlCapture sql(Handle());
  ASSERT_EQ(table->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_plain set Data = ? where Data = ?;"});
}

TEST_F(UpdateTest, WithSeveralBlobAssignmentsOnlyTheLastIsBound) {
  struct Row {
    int32_t id;
    unsigned char first[8];
    unsigned char second[8];
  };
  Meta meta;
  meta.Init("t_blobs", sizeof(Row));
  meta.AddMember(new Member("iId", offsetof(Row, id), &types_.int4));
  meta.AddMember(new Member("bFirst", offsetof(Row, first), &types_.blob8));
  meta.AddMember(new Member("bSecond", offsetof(Row, second), &types_.blob8));
  Table* table = Create(&meta, 0);
  Exec("insert into t_blobs values (1, x'00', x'00');");
  unsigned char a[8] = {0xA, 0xA, 0xA, 0xA, 0xA, 0xA, 0xA, 0xA};
  unsigned char b[8] = {0xB, 0xB, 0xB, 0xB, 0xB, 0xB, 0xB, 0xB};
  DbFilters set(2, Term(meta.Get("bFirst"), DB_FILTER_OP_EQ, a),
                Term(meta.Get("bSecond"), DB_FILTER_OP_EQ, b));
  DbFilters where;
  SqlCapture sql(Handle());
  ASSERT_EQ(table->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_blobs set bFirst = ?, bSecond = ?;"});
  // The second's data went to parameter 1; parameter 2 stayed unbound.
  EXPECT_EQ(Query("select hex(bFirst), bSecond is null from t_blobs"),
            (Rows{{HexOf(b, 8), "1"}}));
}

// ---- update_item: a blob condition under every operator ----

// Row 2's data (see Fill) in a heap buffer of exactly the blob's 8 bytes, the
// bytes update_item binds for a blob term whatever its operator: under
// AddressSanitizer any read past them fails the test.
std::unique_ptr<unsigned char[]> SecondRowData() {
  Person second = MakePerson(2, 0, "", "", 2);
  std::unique_ptr<unsigned char[]> data(new unsigned char[sizeof(second.data)]);
  std::memcpy(data.get(), second.data, sizeof(second.data));
  return data;
}

struct BlobTermCase {
  int op;
  void* value2;  // between's second bound, an in-list's element count
  const char* what;
};

TEST_F(UpdateTest, BlobConditionUnderEveryConditionOperatorIsAnEquality) {
  Fill(3);
  std::unique_ptr<unsigned char[]> upper = SecondRowData();
  // 14 and 15 name no operator; like a condition they open a " where ".
  const BlobTermCase cases[] = {
      {DB_FILTER_OP_EQ, nullptr, "equal"},
      {DB_FILTER_OP_NE, nullptr, "not equal"},
      {DB_FILTER_OP_LT, nullptr, "less"},
      {DB_FILTER_OP_GT, nullptr, "greater"},
      {DB_FILTER_OP_LE, nullptr, "less or equal"},
      {DB_FILTER_OP_GE, nullptr, "greater or equal"},
      {DB_FILTER_OP_BETWEEN, upper.get(), "between"},
      {DB_FILTER_OP_LIKE, nullptr, "like"},
      {DB_FILTER_OP_IN, IntSlot(0), "in-list of 0 elements"},
      {DB_FILTER_OP_IN, IntSlot(2), "in-list of 2 elements"},
      {14, nullptr, "operator 14"},
      {15, nullptr, "operator 15"},
  };
  for (const BlobTermCase& c : cases) {
    SCOPED_TRACE(c.what);
    Exec("update t_person set iAge = iId_pa * 10;");
    std::unique_ptr<unsigned char[]> data = SecondRowData();
    DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(99)));
    DbFilters where(1, Term(data_, static_cast<DbFilterOperator>(c.op), data.get(), c.value2));
    SqlCapture sql(Handle());
    EXPECT_EQ(table_->update_item(set, where), 0);
    EXPECT_EQ(sql.Statements(),
              std::vector<std::string>{"update t_person set iAge = 99 where bData = ?;"});
    EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "99"}, {"3", "30"}}));
  }
}

TEST_F(UpdateTest, BlobConditionUnderEveryClauseOperatorChangesNothing) {
  Fill(3);
  const std::string wrongFormat = "filter in wrong format\n";
  const std::string syntaxError =
      "Failed to sqlite3_prepare!errorcode:1, reason:near \"bData\": syntax error!!\n";
  // And and offset cannot open the condition; order by and limit open it
  // with a blank, so that the blob's equality follows the assignments.
  const struct {
    DbFilterOperator op;
    const std::string& logged;
  } cases[] = {{DB_FILTER_OP_AND, wrongFormat},
               {DB_FILTER_OP_ORDER_BY, syntaxError},
               {DB_FILTER_OP_ORDER_BY_DESC, syntaxError},
               {DB_FILTER_OP_LIMIT, syntaxError},
               {DB_FILTER_OP_OFFSET, wrongFormat}};
  for (const auto& c : cases) {
    SCOPED_TRACE("operator " + std::to_string(c.op));
    std::unique_ptr<unsigned char[]> data = SecondRowData();
    DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(99)));
    DbFilters where(1, Term(data_, c.op, data.get()));
    LogCapture log;
    EXPECT_EQ(table_->update_item(set, where), -1);
    ExpectLoggedOnce(log, 3, kDbLogFile, c.logged);
    EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "20"}, {"3", "30"}}));
  }
}

TEST_F(UpdateTest, BlobInListOfNoElementsWithoutArrayBindsNull) {
  Fill(3);
  Exec("update t_person set bData = NULL where iId_pa = 3;");
  DbFilters set(1, Term(age_, DB_FILTER_OP_EQ, IntSlot(99)));
  DbFilters where(1, Term(data_, DB_FILTER_OP_IN, nullptr, IntSlot(0)));
  SqlCapture sql(Handle());
  EXPECT_EQ(table_->update_item(set, where), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"update t_person set iAge = 99 where bData = ?;"});
  // "bData = NULL" holds for no row, not even the one whose blob is NULL.
  EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "20"}, {"3", "30"}}));
}

TEST_F(UpdateTest, BlobPathPrepareFailureIsLogged) {
  unsigned char blob[8] = {1};
  Member ghost("iGhost", 0, &types_.int4);
  ghost.sql_type = "INTEGER";
  DbFilters set(1, Term(data_, DB_FILTER_OP_EQ, blob));
  DbFilters where(1, Term(&ghost, DB_FILTER_OP_EQ, IntSlot(1)));
  LogCapture log;
  EXPECT_EQ(table_->update_item(set, where), -1);
  ExpectLoggedOnce(
      log, 3, kDbLogFile,
      "Failed to sqlite3_prepare!errorcode:1, reason:no such column: iGhost!!\n");
}

TEST_F(UpdateTest, BlobPathStepFailureIsLogged) {
  Fill(2);
  unsigned char blob[8] = {1};
  DbFilters set(2, Term(data_, DB_FILTER_OP_EQ, blob),
                Term(id_, DB_FILTER_OP_EQ, IntSlot(1)));
  DbFilters where(1, Term(id_, DB_FILTER_OP_EQ, IntSlot(2)));
  LogCapture log;
  EXPECT_EQ(table_->update_item(set, where), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile,
                   std::string("Failed to sqlite3_step!errorcode:1, reason:") +
                       sqlite3_errstr(SQLITE_ERROR) + "!!\n");
  EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "20"}}));
}

TEST_F(UpdateTest, BlobPathBindFailureIsLogged) {
  unsigned char blob[8] = {1};
  DbFilters set(1, Term(data_, DB_FILTER_OP_EQ, blob));
  DbFilters where;
  int previous = sqlite3_limit(Handle(), SQLITE_LIMIT_LENGTH, 4);
  LogCapture log;
  EXPECT_EQ(table_->update_item(set, where), -1);
  sqlite3_limit(Handle(), SQLITE_LIMIT_LENGTH, previous);
  ExpectLoggedOnce(log, 3, kDbLogFile,
                   "Failed to sqlite3_bind_blob!errorcode:18, reason:string or blob too "
                   "big!!\n");
}

// ---- rmv_item ----

TEST_F(UpdateTest, RemoveWithoutConnectionIsRefused) {
  Db unopened;
  Table table(&unopened, &meta_, 0);
  DbFilters list;
  LogCapture log;
  EXPECT_EQ(table.rmv_item(&list, 1), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "parent->m_pDBConn is null.\n");
}

TEST_F(UpdateTest, RemoveWithCountZeroIsRefused) {
  DbFilters list;
  LogCapture log;
  EXPECT_EQ(table_->rmv_item(&list, 0), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "itemcnt values is  wrong.\n");
}

TEST_F(UpdateTest, RemoveWithOneEmptyListDeletesEveryRow) {
  Fill(3);
  DbFilters list;
  SqlCapture sql(Handle());
  LogCapture log;
  ASSERT_EQ(table_->rmv_item(&list, 1), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"delete from t_person;"});
  ExpectLoggedOnce(log, 1, kDbLogFile, "filters is null!\n");
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::rmv_item = delete from t_person;\n");
  EXPECT_FALSE(log.Contains("Table::begin"));
  EXPECT_TRUE(Ages().empty());
}

TEST_F(UpdateTest, RemoveJoinsTermsWithAnd) {
  Fill(4);
  char name[8] = "n3";
  DbFilters list(2, Term(age_, DB_FILTER_OP_GT, IntSlot(10)),
                 Term(name_, DB_FILTER_OP_NE, name));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->rmv_item(&list, 1), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{
                "delete from t_person where iAge > 10 and cName <> 'n3';"});
  EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"3", "30"}}));
}

TEST_F(UpdateTest, RemoveJoinsOrderingWithAndToo) {
  Fill(2);
  DbFilters list(2, Term(age_, DB_FILTER_OP_EQ, IntSlot(10)),
                 Term(id_, DB_FILTER_OP_ORDER_BY));
  LogCapture log;
  EXPECT_EQ(table_->rmv_item(&list, 1), -1);
  ExpectLoggedOnce(log, 0, kDbLogFile,
                   " Table::rmv_item = delete from t_person where iAge = 10 and order by "
                   "iId_pa;\n");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for rmv_item failed!error:-204\n");
  EXPECT_EQ(Ages().size(), 2u);
}

TEST_F(UpdateTest, RemoveUsesDerivedNamesInAnalyzedMode) {
  Meta meta;
  DescribePerson(&meta, "t_plain");
  Table* table = Create(&meta, 1);
  DbFilters list(1, Term(meta.Get("iId_pa"), DB_FILTER_OP_IN, nullptr, IntSlot(0)));
  SqlCapture sql(Handle());
  ASSERT_EQ(table->rmv_item(&list, 1), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"delete from t_plain where Id IN ( );"});
}

TEST_F(UpdateTest, RemoveSeveralListsInOneTransaction) {
  Fill(5);
  DbFilters lists[3];
  lists[0].add_filter(Term(id_, DB_FILTER_OP_EQ, IntSlot(1)));
  lists[1].add_filter(Term(id_, DB_FILTER_OP_EQ, IntSlot(3)));
  lists[2].add_filter(Term(age_, DB_FILTER_OP_GE, IntSlot(50)));
  SqlCapture sql(Handle());
  LogCapture log;
  ASSERT_EQ(table_->rmv_item(lists, 3), 0);
  EXPECT_EQ(sql.Statements(), (std::vector<std::string>{
                                  "begin;", "delete from t_person where iId_pa = 1;",
                                  "delete from t_person where iId_pa = 3;",
                                  "delete from t_person where iAge >= 50;", "commit;"}));
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::begin = begin;\n");
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::end = commit;\n");
  EXPECT_EQ(Ages(), (Rows{{"2", "20"}, {"4", "40"}}));
  EXPECT_NE(sqlite3_get_autocommit(Handle()), 0);
}

TEST_F(UpdateTest, FailingDeleteLeavesTheTransactionOpen) {
  Fill(3);
  Member ghost("iGhost", 0, &types_.int4);
  ghost.sql_type = "INTEGER";
  DbFilters lists[3];
  lists[0].add_filter(Term(id_, DB_FILTER_OP_EQ, IntSlot(1)));
  lists[1].add_filter(Term(&ghost, DB_FILTER_OP_EQ, IntSlot(1)));
  lists[2].add_filter(Term(id_, DB_FILTER_OP_EQ, IntSlot(3)));
  SqlCapture sql(Handle());
  LogCapture log;
  EXPECT_EQ(table_->rmv_item(lists, 3), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for rmv_item failed!error:-204\n");
  // The third delete never ran; no commit, no rollback.
  EXPECT_EQ(sql.Statements(), (std::vector<std::string>{
                                  "begin;", "delete from t_person where iId_pa = 1;"}));
  EXPECT_EQ(sqlite3_get_autocommit(Handle()), 0);
  EXPECT_EQ(Ages(), (Rows{{"2", "20"}, {"3", "30"}}));

  // The next multi-list removal fails at its own "begin;".
  DbFilters next[2];
  next[0].add_filter(Term(id_, DB_FILTER_OP_EQ, IntSlot(2)));
  next[1].add_filter(Term(id_, DB_FILTER_OP_EQ, IntSlot(3)));
  log.Clear();
  sql.Clear();
  EXPECT_EQ(table_->rmv_item(next, 2), -1);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"begin;"});
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::begin = begin;\n");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for begin failed!error:-204\n");

  // Closing discards the open transaction: the first delete is undone.
  sql.Detach();  // the capture must not outlive the handle it traces
  ASSERT_EQ(db_.CloseDB(), 0);
  ASSERT_EQ(db_.OpenDB(), 0);
  EXPECT_EQ(Ages(), (Rows{{"1", "10"}, {"2", "20"}, {"3", "30"}}));
}

TEST_F(UpdateTest, CommitFailureOfARemovalIsLogged) {
  // A deferred foreign key turns the commit into the failing statement.
  Exec("PRAGMA foreign_keys = ON;");
  Exec(
      "create table t_ref(iPerson INTEGER REFERENCES t_person(iId_pa) DEFERRABLE "
      "INITIALLY DEFERRED);");
  Fill(2);
  Exec("insert into t_ref values (1);");
  DbFilters lists[2];
  lists[0].add_filter(Term(id_, DB_FILTER_OP_EQ, IntSlot(1)));
  lists[1].add_filter(Term(id_, DB_FILTER_OP_EQ, IntSlot(2)));
  LogCapture log;
  EXPECT_EQ(table_->rmv_item(lists, 2), -1);
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::end = commit;\n");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for end failed!error:-204\n");
}

// ---- toString ----

TEST_F(UpdateTest, ToStringIsTheMetaTextAndALineEnd) {
  EXPECT_EQ(table_->toString("x"), meta_.toString("x") + "\n");
  EXPECT_EQ(table_->toString(""), meta_.toString("") + "\n");
  Meta bare;
  bare.Init("t_bare", 4);
  Table table(&db_, &bare, 0);
  EXPECT_EQ(table.toString("x"), bare.toString("x") + "\n");
  EXPECT_EQ(table.toString("x").find('\n'), table.toString("x").size() - 1);
}

}  // namespace
