// Tests of Table::add_item on real database files: the argument checks and
// their order, the exact insert statements (column list, integer, text and
// blob values, the NULL for an unset auto-increment key, the inclusive read
// of a full text field), the transaction around several records, the single
// bound blob, and the transaction left open by a failing record.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
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
using ipc_db_test::kDbLogFile;
using ipc_db_test::LogCapture;
using ipc_db_test::MakePerson;
using ipc_db_test::Person;
using ipc_db_test::Rows;
using ipc_db_test::SqlCapture;

namespace {

const char kAllColumns[] = "insert into t_person(iId_pa,iAge,cName,tNote,bData) values (";

class InsertTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    DescribePerson(&meta_);
    table_ = Create(&meta_, 0);
  }

  Rows AllRows() {
    return Query(
        "select iId_pa, iAge, cName, tNote, hex(bData) from t_person order by iId_pa");
  }

  Meta meta_;
  Table* table_ = nullptr;
  DbFilters all_;
};

TEST_F(InsertTest, ItemCountZeroIsRefusedBeforeTheRecordIsLookedAt) {
  LogCapture log;
  EXPECT_EQ(table_->add_item(nullptr, 0, all_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "itemcnt values is wrong.\n");
  EXPECT_EQ(log.Count("obj is null\n"), 0u);
}

TEST_F(InsertTest, NullRecordIsRefused) {
  LogCapture log;
  EXPECT_EQ(table_->add_item(nullptr, 1, all_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "obj is null\n");
  EXPECT_TRUE(AllRows().empty());
}

TEST_F(InsertTest, MissingConnectionIsRefusedFirst) {
  Db unopened;
  Table table(&unopened, &meta_, 0);
  LogCapture log;
  EXPECT_EQ(table.add_item(nullptr, 0, all_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "parent->m_pDBConn is null.\n");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
}

TEST_F(InsertTest, MetaWithoutMembersIsRefused) {
  Meta empty;
  empty.Init("t_person", sizeof(Person));
  Table table(&db_, &empty, 0);
  Person person = MakePerson(1, 2, "a", "b", 0);
  LogCapture log;
  EXPECT_EQ(table.add_item(&person, 1, all_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "members is null\n");
}

TEST_F(InsertTest, OneRecordRunsNoTransactionStatement) {
  Person person = MakePerson(7, 30, "bob", "hello", 0x10);
  SqlCapture sql(Handle());
  LogCapture log;
  ASSERT_EQ(table_->add_item(&person, 1, all_), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{std::string(kAllColumns) +
                                                       "7,30,'bob','hello',?);"});
  EXPECT_FALSE(log.Contains("Table::begin"));
  EXPECT_FALSE(log.Contains("Table::end"));
  EXPECT_EQ(AllRows(), (Rows{{"7", "30", "bob", "hello", "1011121314151617"}}));
}

TEST_F(InsertTest, SeveralRecordsRunInOneTransaction) {
  Person people[3] = {MakePerson(1, 10, "a", "x", 0), MakePerson(2, 20, "b", "y", 8),
                      MakePerson(3, 30, "c", "z", 16)};
  SqlCapture sql(Handle());
  LogCapture log;
  ASSERT_EQ(table_->add_item(people, 3, all_), 0);
  EXPECT_EQ(sql.Statements(),
            (std::vector<std::string>{
                "begin;", std::string(kAllColumns) + "1,10,'a','x',?);",
                std::string(kAllColumns) + "2,20,'b','y',?);",
                std::string(kAllColumns) + "3,30,'c','z',?);", "commit;"}));
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::begin = begin;");
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::end = commit;");
  EXPECT_EQ(AllRows(), (Rows{{"1", "10", "a", "x", "0001020304050607"},
                             {"2", "20", "b", "y", "08090A0B0C0D0E0F"},
                             {"3", "30", "c", "z", "1011121314151617"}}));
  EXPECT_NE(sqlite3_get_autocommit(Handle()), 0);
}

TEST_F(InsertTest, UnsetAutoIncrementKeyIsWrittenAsNull) {
  Person zero = MakePerson(0, 5, "n", "n", 0);
  Person seven = MakePerson(7, 6, "s", "s", 0);
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->add_item(&zero, 1, all_), 0);
  ASSERT_EQ(table_->add_item(&seven, 1, all_), 0);
  ASSERT_EQ(table_->add_item(&zero, 1, all_), 0);
  std::vector<std::string> statements = sql.Statements();
  ASSERT_EQ(statements.size(), 3u);
  EXPECT_EQ(statements[0], std::string(kAllColumns) + "NULL,5,'n','n',?);");
  EXPECT_EQ(statements[1], std::string(kAllColumns) + "7,6,'s','s',?);");
  // The database assigned the keys.
  EXPECT_EQ(Query("select iId_pa, iAge from t_person order by iId_pa"),
            (Rows{{"1", "5"}, {"7", "6"}, {"8", "5"}}));
}

TEST_F(InsertTest, ZeroInOtherIntegerColumnsIsWrittenAsZero) {
  // Key only (no autoincrement), autoincrement only, and a plain column.
  struct Row {
    int32_t key;
    int32_t counter;
    int32_t plain;
  };
  // An autoincrement column that is no key cannot be created; the table is
  // made by hand and the description only supplies the flags.
  Exec(
      "create table t_zero(iKey_p INTEGER PRIMARY KEY, iCounter_a INTEGER, iPlain "
      "INTEGER);");
  Meta meta;
  meta.Init("t_zero", sizeof(Row));
  meta.AddMember(new Member("iKey_p", offsetof(Row, key), &types_.int4));
  meta.AddMember(new Member("iCounter_a", offsetof(Row, counter), &types_.int4));
  meta.AddMember(new Member("iPlain", offsetof(Row, plain), &types_.int4));
  Table* table = Create(&meta, 0);
  ASSERT_EQ(meta.members[1]->auto_increment, 1);
  Row row = {0, 0, 0};
  SqlCapture sql(Handle());
  ASSERT_EQ(table->add_item(&row, 1, all_), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{
                "insert into t_zero(iKey_p,iCounter_a,iPlain) values (0,0,0);"});
}

TEST_F(InsertTest, NegativeIntegersAreWrittenInDecimal) {
  Person person = MakePerson(-3, -2147483647 - 1, "m", "m", 0);
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->add_item(&person, 1, all_), 0);
  EXPECT_EQ(sql.Statements()[0], std::string(kAllColumns) + "-3,-2147483648,'m','m',?);");
}

TEST_F(InsertTest, FullTextFieldIsWrittenWithTheByteAfterIt) {
  // name[8] holds eight letters and no zero byte; the next field (note)
  // begins with 'h', so the ninth character comes from our own record.
  Person person = MakePerson(1, 1, "ABCDEFGH", "hi", 0);
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->add_item(&person, 1, all_), 0);
  EXPECT_EQ(sql.Statements()[0], std::string(kAllColumns) + "1,1,'ABCDEFGHh','hi',?);");
  EXPECT_EQ(Query("select cName from t_person"), (Rows{{"ABCDEFGHh"}}));
}

TEST_F(InsertTest, SingleQuoteBreaksTheStatement) {
  Person person = MakePerson(1, 1, "O'Brien", "x", 0);
  LogCapture log;
  EXPECT_EQ(table_->add_item(&person, 1, all_), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile,
                   "Failed to sqlite3_prepare!errorcode:1, reason:near \"Brien\": syntax "
                   "error!!\n");
  EXPECT_TRUE(AllRows().empty());
}

TEST_F(InsertTest, FilterMemberWithAnotherWidthDoesNotMatch) {
  Member wider("cName", offsetof(Person, name), &types_.char16);
  Person person = MakePerson(1, 1, "a", "b", 0);
  DbFilters columns(1, new DbFilter(&wider, DB_FILTER_OP_EQ, nullptr, nullptr));
  LogCapture log;
  EXPECT_EQ(table_->add_item(&person, 1, columns), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "filter doesn't match meta_data");
}

TEST_F(InsertTest, FilterMemberWithAnotherNameDoesNotMatch) {
  // Same width, name differing only in length.
  Member longer("cNam", offsetof(Person, name), &types_.char8);
  Person person = MakePerson(1, 1, "a", "b", 0);
  DbFilters columns(1, new DbFilter(&longer, DB_FILTER_OP_EQ, nullptr, nullptr));
  LogCapture log;
  EXPECT_EQ(table_->add_item(&person, 1, columns), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "filter doesn't match meta_data");
}

TEST_F(InsertTest, FilterChoosesColumnsInItsOrder) {
  Person person = MakePerson(9, 41, "eve", "ignored", 0);
  // Operators and values of the terms are not looked at.
  DbFilters columns(2,
                    new DbFilter(meta_.Get("cName"), DB_FILTER_OP_GT, nullptr, nullptr),
                    new DbFilter(meta_.Get("iAge"), DB_FILTER_OP_LIKE, nullptr, nullptr));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->add_item(&person, 1, columns), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{
                                  "insert into t_person(cName,iAge) values ('eve',41);"});
  // hex() of a NULL blob is the empty text.
  EXPECT_EQ(AllRows(), (Rows{{"1", "41", "eve", "<null>", ""}}));
  EXPECT_EQ(Query("select bData is null from t_person"), (Rows{{"1"}}));
}

TEST_F(InsertTest, MatchingIgnoresOffsetAndTypeButUsesTheTermsMember) {
  // A separate member with the same name and width matches; its own offset
  // is where the value is read.
  Member other("iAge", offsetof(Person, id), &types_.int4);
  other.sql_type = "INTEGER";
  Person person = MakePerson(77, 41, "eve", "x", 0);
  DbFilters columns(1, new DbFilter(&other, DB_FILTER_OP_EQ, nullptr, nullptr));
  SqlCapture sql(Handle());
  ASSERT_EQ(table_->add_item(&person, 1, columns), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{"insert into t_person(iAge) values (77);"});
}

TEST_F(InsertTest, DerivedColumnNames) {
  Meta meta;
  DescribePerson(&meta, "t_plain");
  Table* table = Create(&meta, 1);
  Person person = MakePerson(0, 3, "p", "q", 0);
  SqlCapture sql(Handle());
  ASSERT_EQ(table->add_item(&person, 1, all_), 0);
  EXPECT_EQ(sql.Statements(),
            std::vector<std::string>{
                "insert into t_plain(Id,Age,Name,Note,Data) values (NULL,3,'p','q',?);"});
  EXPECT_EQ(Query("select Id, Age, Name, Note from t_plain"),
            (Rows{{"1", "3", "p", "q"}}));
}

TEST_F(InsertTest, EightByteIntegerMemberIsWrittenFromItsFirstFourBytes) {
  struct Row {
    int64_t big;
  };
  Meta meta;
  meta.Init("t_big", sizeof(Row));
  meta.AddMember(new Member("iBig", 0, &types_.int8));
  Table* table = Create(&meta, 0);
  // 0x100000005: the low four bytes hold 5 (little-endian host and target).
  Row rows[2] = {{(1LL << 32) + 5}, {-1}};
  SqlCapture sql(Handle());
  ASSERT_EQ(table->add_item(rows, 2, all_), 0);
  EXPECT_EQ(sql.Statements(), (std::vector<std::string>{
                                  "begin;", "insert into t_big(iBig) values (5);",
                                  "insert into t_big(iBig) values (-1);", "commit;"}));
  EXPECT_EQ(Query("select iBig from t_big"), (Rows{{"5"}, {"-1"}}));
}

TEST_F(InsertTest, OnlyTheLastBlobIsBoundAtTheFirstParameter) {
  struct Row {
    unsigned char first[8];
    unsigned char second[8];
  };
  Meta meta;
  meta.Init("t_blobs", sizeof(Row));
  meta.AddMember(new Member("bFirst", offsetof(Row, first), &types_.blob8));
  meta.AddMember(new Member("bSecond", offsetof(Row, second), &types_.blob8));
  Table* table = Create(&meta, 0);
  Row row = {{1, 1, 1, 1, 1, 1, 1, 1}, {2, 2, 2, 2, 2, 2, 2, 2}};
  SqlCapture sql(Handle());
  ASSERT_EQ(table->add_item(&row, 1, all_), 0);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{
                                  "insert into t_blobs(bFirst,bSecond) values (?,?);"});
  EXPECT_EQ(Query("select hex(bFirst), bSecond is null from t_blobs"),
            (Rows{{HexOf(row.second, 8), "1"}}));
}

TEST_F(InsertTest, BlobIsStoredWithItsFullWidth) {
  Person person = MakePerson(1, 1, "a", "b", 0);
  std::memset(person.data, 0, sizeof(person.data));
  person.data[3] = 0xAB;
  ASSERT_EQ(table_->add_item(&person, 1, all_), 0);
  EXPECT_EQ(Query("select length(bData), hex(bData) from t_person"),
            (Rows{{"8", "000000AB00000000"}}));
}

TEST_F(InsertTest, BindFailureIsLogged) {
  // A length limit below the blob's 8 bytes makes the binding fail.
  int previous = sqlite3_limit(Handle(), SQLITE_LIMIT_LENGTH, 4);
  Person person = MakePerson(1, 1, "a", "b", 0);
  LogCapture log;
  EXPECT_EQ(table_->add_item(&person, 1, all_), -1);
  sqlite3_limit(Handle(), SQLITE_LIMIT_LENGTH, previous);
  ExpectLoggedOnce(log, 3, kDbLogFile,
                   "Failed to sqlite3_bind_blob!errorcode:18, reason:string or blob too "
                   "big!!\n");
  EXPECT_TRUE(AllRows().empty());
}

TEST_F(InsertTest, StepFailureIsLogged) {
  Person person = MakePerson(5, 1, "a", "b", 0);
  ASSERT_EQ(table_->add_item(&person, 1, all_), 0);
  LogCapture log;
  EXPECT_EQ(table_->add_item(&person, 1, all_), -1);
  // A statement from the legacy sqlite3_prepare reports the generic code
  // and message from its step; the precise cause comes with finalize. The
  // message is the engine's text for SQLITE_ERROR.
  ExpectLoggedOnce(log, 3, kDbLogFile,
                   std::string("Failed to sqlite3_step!errorcode:1, reason:") +
                       sqlite3_errstr(SQLITE_ERROR) + "!!\n");
  EXPECT_EQ(Query("select count(*) from t_person"), (Rows{{"1"}}));
}

TEST_F(InsertTest, FailingRecordLeavesTheTransactionOpen) {
  Person people[3] = {MakePerson(1, 10, "a", "x", 0), MakePerson(2, 20, "O'B", "y", 0),
                      MakePerson(3, 30, "c", "z", 0)};
  SqlCapture sql(Handle());
  EXPECT_EQ(table_->add_item(people, 3, all_), -1);
  // begin and the first insert ran; no commit and no rollback.
  EXPECT_EQ(sql.Statements(),
            (std::vector<std::string>{"begin;",
                                      std::string(kAllColumns) + "1,10,'a','x',?);"}));
  EXPECT_EQ(sqlite3_get_autocommit(Handle()), 0);
  EXPECT_EQ(Query("select iId_pa from t_person"), (Rows{{"1"}}));

  // The next multi-record call fails at its own "begin;".
  Person more[2] = {MakePerson(4, 40, "d", "w", 0), MakePerson(5, 50, "e", "v", 0)};
  LogCapture log;
  sql.Clear();
  EXPECT_EQ(table_->add_item(more, 2, all_), -1);
  EXPECT_EQ(sql.Statements(), std::vector<std::string>{"begin;"});
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::begin = begin;");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for begin failed!error:-204\n");

  // A single record needs no "begin;" and lands in the open transaction.
  ASSERT_EQ(table_->add_item(&more[0], 1, all_), 0);
  EXPECT_EQ(sqlite3_get_autocommit(Handle()), 0);

  // Closing discards the open transaction with everything inside it.
  sql.Detach();  // the capture must not outlive the handle it traces
  ASSERT_EQ(db_.CloseDB(), 0);
  ASSERT_EQ(db_.OpenDB(), 0);
  EXPECT_TRUE(AllRows().empty());
}

TEST_F(InsertTest, OpenTransactionIsEndedByALaterCommit) {
  Person people[2] = {MakePerson(1, 10, "a", "x", 0), MakePerson(1, 20, "b", "y", 0)};
  EXPECT_EQ(table_->add_item(people, 2, all_), -1);  // duplicate key in step
  EXPECT_EQ(sqlite3_get_autocommit(Handle()), 0);
  ASSERT_EQ(db_.m_pDBConn->ExecuteSQL("commit;", nullptr, DB_EXEC_SQL_SYNC), 0);
  ASSERT_EQ(db_.CloseDB(), 0);
  ASSERT_EQ(db_.OpenDB(), 0);
  EXPECT_EQ(Query("select iId_pa, iAge from t_person"), (Rows{{"1", "10"}}));
  // With the transaction closed, multi-record inserts work again.
  Person again[2] = {MakePerson(2, 1, "c", "z", 0), MakePerson(3, 1, "d", "z", 0)};
  EXPECT_EQ(table_->add_item(again, 2, all_), 0);
}

TEST_F(InsertTest, CommitFailureIsLogged) {
  // A deferred foreign-key violation lets every insert succeed and makes
  // the commit fail.
  struct Child {
    int32_t parent;
  };
  Exec("PRAGMA foreign_keys = ON;");
  Exec("create table t_parent(id INTEGER PRIMARY KEY);");
  Exec(
      "create table t_child(iParent INTEGER REFERENCES t_parent(id) DEFERRABLE "
      "INITIALLY DEFERRED);");
  Meta meta;
  meta.Init("t_child", sizeof(Child));
  meta.AddMember(new Member("iParent", 0, &types_.int4));
  Table* table = Create(&meta, 0);
  Child children[2] = {{1}, {2}};
  LogCapture log;
  EXPECT_EQ(table->add_item(children, 2, all_), -1);
  ExpectLoggedOnce(log, 0, kDbLogFile, " Table::end = commit;");
  ExpectLoggedOnce(log, 3, kDbLogFile, "ExecuteSQL for end failed!error:-204\n");
}

}  // namespace
