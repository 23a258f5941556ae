// Tests of TableChange and Db::updateTable: the variadic member list, its
// text form, the exact ALTER TABLE texts with their default values, and the
// statements that SQLite rejects.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Db.h"
#include "Meta.h"
#include "SchemaTestSupport.h"
#include "Table.h"
#include "TableChange.h"
#include "TestSupport.h"

using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::HandleOf;
using ipc_db_test::LogCapture;
using ipc_db_test::OpenDb;
using ipc_db_test::QueryOneValue;
using ipc_db_test::RecordSchema;
using ipc_db_test::SqlCapture;
using ipc_db_test::TempDir;

namespace {

const char kDbLogFile[] = "src_db/src/db";
const char kUpdateFailed[] = "ExecuteSQL for updateTable failed!error:-204\n";

// ---- TableChange ----

TEST(TableChange, KeepsTheMembersInOrder) {
  Meta intMeta;
  Member a("iA", 0, &intMeta);
  Member b("iB", 4, &intMeta);
  Member c("iC", 8, &intMeta);
  TableChange change(3, &b, &a, &c);
  EXPECT_EQ(change.members, (std::vector<Member*>{&b, &a, &c}));
}

TEST(TableChange, CountZeroIsEmptyAndIgnoresFurtherArguments) {
  Meta intMeta;
  Member a("iA", 0, &intMeta);
  TableChange empty(0);
  EXPECT_TRUE(empty.members.empty());
  TableChange ignored(0, &a);
  EXPECT_TRUE(ignored.members.empty());
}

TEST(TableChange, NullMemberIsStoredUnchecked) {
  Meta intMeta;
  Member a("iA", 0, &intMeta);
  TableChange change(2, static_cast<Member*>(nullptr), &a);
  ASSERT_EQ(change.members.size(), 2u);
  EXPECT_EQ(change.members[0], nullptr);
  EXPECT_EQ(change.members[1], &a);
}

TEST(TableChange, DoesNotOwnItsMembers) {
  Meta intMeta;
  Member a("iA", 0, &intMeta);
  { TableChange change(1, &a); }
  EXPECT_EQ(a.name, "iA");  // still alive and intact
}

TEST(TableChangeToString, EmptyIsNoChangeWithLineEnd) {
  TableChange change(0);
  EXPECT_EQ(change.toString(), "No Change\n");
}

TEST(TableChangeToString, OneMemberFollowsOnTheSameLine) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Member a("iA_n", 12, &intMeta);
  TableChange change(1, &a);
  EXPECT_EQ(change.toString(), "table changes:" + a.toString("  "));
  EXPECT_EQ(change.toString().rfind("table changes:  name = iA_n;offset = 12;"
                                    "type_name = int;type_size = 4;addr = ",
                                    0),
            0u)
      << change.toString();
}

TEST(TableChangeToString, MembersAreSeparatedByLineEnds) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Member a("iA", 0, &intMeta);
  Member b("tB", 4, nullptr);
  TableChange change(2, &a, &b);
  EXPECT_EQ(change.toString(),
            "table changes:" + a.toString("  ") + "\n" + "  name = tB;offset = 4;");
}

// ---- updateTable ----

// A plain database with the table t_rec(Id, Name) in a fresh directory.
class UpdateTable : public testing::Test {
 protected:
  void SetUp() override {
    OpenDb(db_, dir_.Path(), "change.db", "");
    Table* table = db_.createTable(&schema_.record, 1);
    ASSERT_NE(table, nullptr);
    delete table;
    ASSERT_EQ(db_.m_pDBConn->ExecuteSQL("insert into t_rec(Name) values('old');", nullptr,
                                        DB_EXEC_SQL_SYNC),
              0);
    intMeta_.Init("int", 4);
    char8Meta_.Init("char8", 8);
  }
  void TearDown() override { db_.UnInit(); }

  // Adds `member` alone with `defaultValue` and returns the one statement
  // that ran (or "" when none ran) through `result`.
  long long AddOne(Member* member, const std::string& defaultValue, int analyzeName,
                   std::string* ran) {
    SqlCapture sql(HandleOf(db_));
    TableChange change(1, member);
    long long result = db_.updateTable("t_rec", change, defaultValue, analyzeName);
    std::vector<std::string> statements = sql.Statements();
    *ran = statements.empty() ? "" : statements.back();
    EXPECT_LE(statements.size(), 1u);
    return result;
  }

  std::string OldRowValue(const std::string& column) {
    return QueryOneValue(db_, "select " + column + " from t_rec where Name = 'old';");
  }

  TempDir dir_;
  Db db_;
  RecordSchema schema_;
  Meta intMeta_;
  Meta char8Meta_;
};

TEST_F(UpdateTable, IntegerDefaultIsUnquoted) {
  Member count("iCount_n", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&count, "5", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Count INTEGER DEFAULT 5 NOT NULL;");
  EXPECT_EQ(OldRowValue("Count"), "5");
}

TEST_F(UpdateTable, TextDefaultIsQuoted) {
  Member note("tNote", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&note, "abc", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Note TEXT DEFAULT 'abc';");
  EXPECT_EQ(OldRowValue("Note"), "abc");
}

TEST_F(UpdateTable, NullDefaultOnTextBecomesZeroAndBlank) {
  Member note("tNote", 40, &intMeta_);
  std::string ran;
  LogCapture log;
  EXPECT_EQ(AddOne(&note, "NULL", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Note TEXT DEFAULT 0 ;");
  EXPECT_EQ(OldRowValue("Note"), "0");
  EXPECT_EQ(log.CountAtLevel(3), 0u) << log.Dump();
}

TEST_F(UpdateTable, NullDefaultOnIntegerAlsoBecomesZero) {
  Member count("iCount", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&count, "NULL", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Count INTEGER DEFAULT 0 ;");
}

TEST_F(UpdateTable, LowerCaseNullIsAnOrdinaryValue) {
  Member note("tNote", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&note, "null", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Note TEXT DEFAULT 'null';");
}

TEST_F(UpdateTable, BlobDefaultIsQuoted) {
  Member data("bData", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&data, "7", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Data BLOB DEFAULT '7';");
}

TEST_F(UpdateTable, CharDefaultIsQuoted) {
  Member code("cCode", 40, &char8Meta_);
  std::string ran;
  EXPECT_EQ(AddOne(&code, "7", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Code CHAR(8) DEFAULT '7';");
}

TEST_F(UpdateTable, DatetimeDefaultIsQuoted) {
  Member stamp("dStamp", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&stamp, "2020-01-01", 1, &ran), 0);
  EXPECT_EQ(ran,
            "ALTER TABLE t_rec ADD COLUMN Stamp datetime DEFAULT "
            "'2020-01-01';");
  EXPECT_EQ(OldRowValue("Stamp"), "2020-01-01");
}

TEST_F(UpdateTable, UnknownTypeDefaultIsQuoted) {
  Member odd("xOdd", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&odd, "7", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN xOdd unknown_type DEFAULT '7';");
}

TEST_F(UpdateTable, DefaultZeroFlagIsNeverWritten) {
  Member flag("iFlag_d", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&flag, "3", 1, &ran), 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Flag INTEGER DEFAULT 3;");
  EXPECT_EQ(flag.default_zero, 1);  // set by the preparation all the same
  EXPECT_EQ(OldRowValue("Flag"), "3");
}

TEST_F(UpdateTable, DecoratedNamesWithNamingModeZero) {
  Member count("iCount_n", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&count, "5", 0, &ran), 0);
  EXPECT_EQ(ran,
            "ALTER TABLE t_rec ADD COLUMN iCount_n INTEGER DEFAULT 5 NOT "
            "NULL;");
  EXPECT_EQ(OldRowValue("iCount_n"), "5");
}

TEST_F(UpdateTable, PreparesTheMember) {
  Member note("tNote_nd", 40, &intMeta_);
  std::string ran;
  EXPECT_EQ(AddOne(&note, "x", 1, &ran), 0);
  EXPECT_EQ(note.sql_type, "TEXT");
  EXPECT_EQ(note.not_null, 1);
  EXPECT_EQ(note.default_zero, 1);
  EXPECT_EQ(note.primary_key, 0);
  EXPECT_EQ(ran, "ALTER TABLE t_rec ADD COLUMN Note TEXT DEFAULT 'x' NOT NULL;");
}

TEST_F(UpdateTable, TwoMembersMakeOneStatementThatIsRejected) {
  Member a("iA", 40, &intMeta_);
  Member b("tB_n", 44, &intMeta_);
  TableChange change(2, &a, &b);
  LogCapture log;
  EXPECT_EQ(db_.updateTable("t_rec", change, "1", 1), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, kUpdateFailed);
  EXPECT_TRUE(
      log.Contains("RECORD: sqlite3_exec:ALTER TABLE t_rec ADD COLUMN A INTEGER DEFAULT "
                   "1,ADD COLUMN B TEXT DEFAULT '1' NOT NULL; failed:"))
      << log.Dump();
  // Neither column was added.
  EXPECT_EQ(OldRowValue("A").rfind("<error", 0), 0u);
}

TEST_F(UpdateTable, ExistingColumnIsRejected) {
  Member name("cName", 4, &char8Meta_);
  LogCapture log;
  TableChange change(1, &name);
  EXPECT_EQ(db_.updateTable("t_rec", change, "x", 1), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, kUpdateFailed);
}

TEST_F(UpdateTable, MissingTableIsRejected) {
  Member a("iA", 0, &intMeta_);
  LogCapture log;
  TableChange change(1, &a);
  EXPECT_EQ(db_.updateTable("t_missing", change, "1", 1), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, kUpdateFailed);
  EXPECT_TRUE(
      log.Contains("RECORD: sqlite3_exec:ALTER TABLE t_missing ADD COLUMN A INTEGER "
                   "DEFAULT 1; failed:"));
}

TEST_F(UpdateTable, KeyWordsFollowTheDefault) {
  // SQLite cannot add a key column; the text shows the word order.
  Member key("iKey_pan", 40, &intMeta_);
  LogCapture log;
  TableChange change(1, &key);
  EXPECT_EQ(db_.updateTable("t_rec", change, "1", 1), -1);
  EXPECT_TRUE(log.Contains(
      "RECORD: sqlite3_exec:ALTER TABLE t_rec ADD COLUMN Key INTEGER DEFAULT "
      "1 PRIMARY KEY autoincrement NOT NULL; failed:"))
      << log.Dump();
  ExpectLoggedOnce(log, 3, kDbLogFile, kUpdateFailed);
}

TEST_F(UpdateTable, QuotesInsideTheValueAreNotEscaped) {
  Member note("tNote", 40, &intMeta_);
  LogCapture log;
  TableChange change(1, &note);
  EXPECT_EQ(db_.updateTable("t_rec", change, "it's", 1), -1);
  EXPECT_TRUE(
      log.Contains("RECORD: sqlite3_exec:ALTER TABLE t_rec ADD COLUMN Note TEXT DEFAULT "
                   "'it's'; failed:"))
      << log.Dump();
}

TEST_F(UpdateTable, ColumnsAddedOneByOneAreAllSeen) {
  Member a("iA", 40, &intMeta_);
  Member b("tB", 44, &intMeta_);
  TableChange first(1, &a);
  TableChange second(1, &b);
  EXPECT_EQ(db_.updateTable("t_rec", first, "1", 1), 0);
  EXPECT_EQ(db_.updateTable("t_rec", second, "two", 1), 0);
  EXPECT_EQ(OldRowValue("A"), "1");
  EXPECT_EQ(OldRowValue("B"), "two");
}

}  // namespace
