// Tests of the member naming rule: the SQL type from a name's first letter,
// the plain column name, the four attribute flags from the letters after the
// last "_", and preProcMember, which applies them all to one Member.
#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "Db.h"
#include "Meta.h"
#include "TestSupport.h"

using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::LogCapture;

namespace {

const char kDbLogFile[] = "src_db/src/db";

struct NamingCase {
  const char* name;       // decorated member name
  unsigned int typeSize;  // type_size of the member's type Meta
  const char* sqlType;    // expected sql_type after preProcMember
  const char* plainName;  // expected getName(name)
  int primaryKey;
  int autoIncrement;
  int notNull;
  int defaultZero;
  bool wrongFormat;  // getName logs "Name in wrong format\n"
};

const NamingCase kNamingCases[] = {
    // Rows of the type table and the documented examples.
    {"iId_pa", 4, "INTEGER", "Id", 1, 1, 0, 0, false},
    {"cName", 32, "CHAR(32)", "Name", 0, 0, 0, 0, false},
    {"tNote_nd", 0, "TEXT", "Note", 0, 0, 1, 1, false},
    {"dTime", 8, "datetime", "Time", 0, 0, 0, 0, false},
    {"bData_n", 16, "BLOB", "Data", 0, 0, 1, 0, false},
    // Attribute letters before the last "_" do not count.
    {"pAddr_n", 4, "unknown_type", "pAddr_n", 0, 0, 1, 0, true},
    {"iAddr_n", 4, "INTEGER", "Addr", 0, 0, 1, 0, false},
    {"ipand_n", 4, "INTEGER", "pand", 0, 0, 1, 0, false},
    // Several "_": the field name keeps all but the last.
    {"iA_b_p", 4, "INTEGER", "A_b", 1, 0, 0, 0, false},
    {"iA_pand_x", 4, "INTEGER", "A_pand", 0, 0, 0, 0, false},
    // "_" right after the type letter: empty plain name.
    {"i_p", 4, "INTEGER", "", 1, 0, 0, 0, false},
    {"i_", 4, "INTEGER", "", 0, 0, 0, 0, false},
    // One character.
    {"i", 4, "INTEGER", "", 0, 0, 0, 0, false},
    // d as type letter and as attribute.
    {"dT_d", 8, "datetime", "T", 0, 0, 0, 1, false},
    // Order and repetition of attributes do not matter; other letters ignored.
    {"iX_dnap", 4, "INTEGER", "X", 1, 1, 1, 1, false},
    {"iX_ppxz", 4, "INTEGER", "X", 1, 0, 0, 0, false},
    {"iX_PANDx", 4, "INTEGER", "X", 0, 0, 0, 0, false},
    // A CHAR member whose type size is 0.
    {"cEmpty", 0, "CHAR(0)", "Empty", 0, 0, 0, 0, false},
    {"cBig_n", 4294967295u, "CHAR(4294967295)", "Big", 0, 0, 1, 0, false},
    // Unknown first letters (upper case is not a type letter).
    {"xValue_p", 4, "unknown_type", "xValue_p", 1, 0, 0, 0, true},
    {"IValue", 4, "unknown_type", "IValue", 0, 0, 0, 0, true},
    {"_pa", 4, "unknown_type", "_pa", 1, 1, 0, 0, true},
};

class NamingRule : public testing::TestWithParam<NamingCase> {};

TEST_P(NamingRule, PreProcMemberAndGetName) {
  const NamingCase& c = GetParam();
  Meta typeMeta;
  typeMeta.Init("type_of_field", c.typeSize);
  Member member(c.name, 0, &typeMeta);
  Db db;
  LogCapture log;
  db.preProcMember(&member);
  EXPECT_EQ(member.sql_type, c.sqlType);
  EXPECT_EQ(member.primary_key, c.primaryKey);
  EXPECT_EQ(member.auto_increment, c.autoIncrement);
  EXPECT_EQ(member.not_null, c.notNull);
  EXPECT_EQ(member.default_zero, c.defaultZero);
  // preProcMember itself logs only the debug line of getType.
  ExpectLoggedOnce(log, 0, kDbLogFile,
                   std::string("name is ") + c.name + "    type is type_of_field \n");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();

  log.Clear();
  EXPECT_EQ(db.getName(c.name), c.plainName);
  if (c.wrongFormat) {
    ExpectLoggedOnce(log, 3, kDbLogFile, "Name in wrong format\n");
    EXPECT_EQ(log.Entries().size(), 1u);
  } else {
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  }
}

std::string CaseName(const testing::TestParamInfo<NamingCase>& info) {
  std::string label = std::to_string(info.index) + "_";
  for (const char* p = info.param.name; *p != '\0'; ++p) {
    label += std::isalnum(static_cast<unsigned char>(*p)) ? *p : 'U';
  }
  return label;
}

INSTANTIATE_TEST_SUITE_P(Names, NamingRule, testing::ValuesIn(kNamingCases), CaseName);

TEST(GetType, ReturnsTheTypeAndStoresIt) {
  Meta char16;
  char16.Init("char16", 16);
  Member member("cCode_p", 0, &char16);
  Db db;
  EXPECT_EQ(db.getType(&member), "CHAR(16)");
  EXPECT_EQ(member.sql_type, "CHAR(16)");
  // getType leaves the flags alone.
  EXPECT_EQ(member.primary_key, 0);
}

TEST(GetType, AlreadySetTypeIsKeptEvenAgainstTheLetter) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Member member("iCount", 0, &intMeta);
  member.sql_type = "TEXT";
  Db db;
  LogCapture log;
  EXPECT_EQ(db.getType(&member), "TEXT");
  EXPECT_EQ(member.sql_type, "TEXT");
  // The debug line is written on every call, also when nothing is computed.
  ExpectLoggedOnce(log, 0, kDbLogFile, "name is iCount    type is int \n");
}

TEST(GetType, ComputedOnceThenKeptWhenTheSizeChanges) {
  Meta charMeta;
  charMeta.Init("char8", 8);
  Member member("cName", 0, &charMeta);
  Db db;
  EXPECT_EQ(db.getType(&member), "CHAR(8)");
  charMeta.type_size = 64;
  member.name = "iName";
  EXPECT_EQ(db.getType(&member), "CHAR(8)");
}

TEST(GetType, EmptyNameStaysUnknown) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Member member("", 0, &intMeta);
  Db db;
  EXPECT_EQ(db.getType(&member), "unknown_type");
  EXPECT_EQ(db.getName(""), "");
}

TEST(GetType, NullMemberLogsAndGivesUnknownType) {
  Db db;
  LogCapture log;
  EXPECT_EQ(db.getType(nullptr), "unknown_type");
  ExpectLoggedOnce(log, 3, kDbLogFile, "member is null\n");
  EXPECT_EQ(log.Entries().size(), 1u);
}

TEST(AttributeReaders, EachSetsOnlyItsOwnFlag) {
  Meta intMeta;
  Member member("iX_pand", 0, &intMeta);
  Db db;
  db.getPrimaryKey(&member);
  EXPECT_EQ(member.primary_key, 1);
  EXPECT_EQ(member.auto_increment + member.not_null + member.default_zero, 0);
  db.getAutoIncrement(&member);
  EXPECT_EQ(member.auto_increment, 1);
  EXPECT_EQ(member.not_null + member.default_zero, 0);
  db.getNotNull(&member);
  EXPECT_EQ(member.not_null, 1);
  EXPECT_EQ(member.default_zero, 0);
  db.getDefaultZero(&member);
  EXPECT_EQ(member.default_zero, 1);
  EXPECT_EQ(member.sql_type, "unknown_type");  // readers leave the type alone
}

TEST(AttributeReaders, AlwaysRewriteTheirFlag) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Member member("iX_pand", 0, &intMeta);
  Db db;
  db.preProcMember(&member);
  ASSERT_EQ(
      member.primary_key + member.auto_increment + member.not_null + member.default_zero,
      4);
  // A renamed member gets fresh flags but keeps its first type.
  member.name = "tX";
  db.preProcMember(&member);
  EXPECT_EQ(member.primary_key, 0);
  EXPECT_EQ(member.auto_increment, 0);
  EXPECT_EQ(member.not_null, 0);
  EXPECT_EQ(member.default_zero, 0);
  EXPECT_EQ(member.sql_type, "INTEGER");
}

TEST(AttributeReaders, FlagsSetBeforeAreClearedWithoutUnderscore) {
  Meta intMeta;
  Member member("iPand", 0, &intMeta);
  member.primary_key = member.auto_increment = 1;
  member.not_null = member.default_zero = 1;
  Db db;
  db.getPrimaryKey(&member);
  db.getAutoIncrement(&member);
  db.getNotNull(&member);
  db.getDefaultZero(&member);
  EXPECT_EQ(member.primary_key, 0);
  EXPECT_EQ(member.auto_increment, 0);
  EXPECT_EQ(member.not_null, 0);
  EXPECT_EQ(member.default_zero, 0);
}

TEST(AttributeReaders, NullMemberLogsForEachReader) {
  Db db;
  LogCapture log;
  db.getPrimaryKey(nullptr);
  db.getAutoIncrement(nullptr);
  db.getNotNull(nullptr);
  db.getDefaultZero(nullptr);
  EXPECT_EQ(log.Count("member is null\n"), 4u);
  EXPECT_EQ(log.CountAtLevel(3), 4u);
  EXPECT_EQ(log.Entries().size(), 4u);
}

TEST(PreProcMember, NullMemberLogsOnce) {
  Db db;
  LogCapture log;
  db.preProcMember(nullptr);
  ExpectLoggedOnce(log, 3, kDbLogFile, "member is null\n");
  EXPECT_EQ(log.Entries().size(), 1u);
}

TEST(GetName, StopsAtZeroByteWithoutUnderscore) {
  Db db;
  EXPECT_EQ(db.getName(std::string("iAb\0cd", 6)), "Ab");
}

TEST(GetName, DoesNotNeedTheConnection) {
  Db db;
  EXPECT_EQ(db.m_pDBConn, nullptr);
  EXPECT_EQ(db.getName("tNote_nd"), "Note");
  EXPECT_EQ(db.m_pDBConn, nullptr);
}

}  // namespace
