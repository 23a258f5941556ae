// Tests of filter terms and filter lists: the rendering of every operator
// for an integer and a text column under both renderers, the numbers carried
// in pointer slots, the inclusive character copy (with the byte past a field
// lying in the test's own memory), the in-operator over 4- and 8-byte
// integers and fixed-width texts, derived column names, and the list's
// construction, ownership, refusal of null terms and diagnostic text.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "Db.h"
#include "DbFilter.h"
#include "Meta.h"
#include "TableTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::IntSlot;
using ipc_db_test::kDbLogFile;
using ipc_db_test::LogCapture;
using ipc_db_test::ScalarTypes;

namespace {

// An integer member iAge (4 bytes) and a text member cName (8 bytes), with
// their column types filled in by the naming rule.
class FilterTest : public testing::Test {
 protected:
  FilterTest()
      : age_("iAge", 0, &types_.int4),
        name_("cName", 4, &types_.char8),
        big_("iBig_n", 0, &types_.int8) {
    Db namer;
    namer.preProcMember(&age_);
    namer.preProcMember(&name_);
    namer.preProcMember(&big_);
  }

  static std::string Render(Member* member, int op, void* v1, void* v2, bool analyze) {
    DbFilter term(member, static_cast<DbFilterOperator>(op), v1, v2);
    return analyze ? term.op2StrAnalyze() : term.op2Str();
  }

  ScalarTypes types_;
  Member age_;
  Member name_;
  Member big_;
};

TEST_F(FilterTest, NamingRuleGaveTheExpectedColumnTypes) {
  EXPECT_EQ(age_.sql_type, "INTEGER");
  EXPECT_EQ(name_.sql_type, "CHAR(8)");
}

TEST_F(FilterTest, EveryOperatorForAnIntegerMember) {
  char pattern[8] = "4%";
  int32_t list[3] = {1, 2, 3};
  struct Row {
    int op;
    void* v1;
    void* v2;
    const char* plain;
    const char* analyzed;
  } rows[] = {
      {0, IntSlot(42), nullptr, "iAge = 42", "Age = 42"},
      {1, IntSlot(42), nullptr, "iAge <> 42", "Age <> 42"},
      {2, IntSlot(42), nullptr, "iAge < 42", "Age < 42"},
      {3, IntSlot(42), nullptr, "iAge > 42", "Age > 42"},
      {4, IntSlot(42), nullptr, "iAge <= 42", "Age <= 42"},
      {5, IntSlot(42), nullptr, "iAge >= 42", "Age >= 42"},
      {6, IntSlot(42), nullptr, " and ", " and "},
      {7, nullptr, nullptr, "order by iAge", "order by Age"},
      {8, nullptr, nullptr, "order by iAge DESC ", "order by Age DESC "},
      {9, IntSlot(20), nullptr, "limit 20", "limit 20"},
      {10, IntSlot(40), nullptr, "offset 40", "offset 40"},
      {11, IntSlot(-3), IntSlot(9), "iAge between -3 and 9", "Age between -3 and 9"},
      {12, pattern, nullptr, "iAge like '4%'", "Age like '4%'"},
      {13, list, IntSlot(3), "iAge IN (1 , 2 , 3 )", "Age IN (1 , 2 , 3 )"},
      {14, IntSlot(42), nullptr, " ", " "},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Render(&age_, row.op, row.v1, row.v2, false), row.plain) << row.op;
    EXPECT_EQ(Render(&age_, row.op, row.v1, row.v2, true), row.analyzed) << row.op;
  }
}

TEST_F(FilterTest, EveryOperatorForATextMember) {
  char bob[8] = "bob";
  char low[8] = "a";
  char high[8] = "m";
  char pattern[8] = "b%";
  char list[3][8] = {"a", "b", "c"};
  struct Row {
    int op;
    void* v1;
    void* v2;
    const char* plain;
    const char* analyzed;
  } rows[] = {
      {0, bob, nullptr, "cName = 'bob'", "Name = 'bob'"},
      {1, bob, nullptr, "cName <> 'bob'", "Name <> 'bob'"},
      {2, bob, nullptr, "cName < 'bob'", "Name < 'bob'"},
      {3, bob, nullptr, "cName > 'bob'", "Name > 'bob'"},
      {4, bob, nullptr, "cName <= 'bob'", "Name <= 'bob'"},
      {5, bob, nullptr, "cName >= 'bob'", "Name >= 'bob'"},
      {6, bob, nullptr, " and ", " and "},
      {7, nullptr, nullptr, "order by cName", "order by Name"},
      {8, nullptr, nullptr, "order by cName DESC ", "order by Name DESC "},
      {9, IntSlot(20), nullptr, "limit 20", "limit 20"},
      {10, IntSlot(40), nullptr, "offset 40", "offset 40"},
      {11, low, high, "cName between 'a' and 'm'", "Name between 'a' and 'm'"},
      {12, pattern, nullptr, "cName like 'b%'", "Name like 'b%'"},
      {13, list, IntSlot(3), "cName IN ('a', 'b', 'c')", "Name IN ('a', 'b', 'c')"},
      {14, bob, nullptr, " ", " "},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Render(&name_, row.op, row.v1, row.v2, false), row.plain) << row.op;
    EXPECT_EQ(Render(&name_, row.op, row.v1, row.v2, true), row.analyzed) << row.op;
  }
}

TEST_F(FilterTest, OperatorsFourteenAndAboveRenderOneBlank) {
  for (int op : {14, 15, 100, INT_MAX, -1}) {
    EXPECT_EQ(Render(&age_, op, IntSlot(1), nullptr, false), " ") << op;
    EXPECT_EQ(Render(&name_, op, nullptr, nullptr, true), " ") << op;
    // The member is not read either.
    EXPECT_EQ(Render(nullptr, op, nullptr, nullptr, false), " ") << op;
  }
}

TEST_F(FilterTest, AndLimitAndOffsetDoNotReadTheMember) {
  EXPECT_EQ(Render(nullptr, DB_FILTER_OP_AND, nullptr, nullptr, false), " and ");
  EXPECT_EQ(Render(nullptr, DB_FILTER_OP_LIMIT, IntSlot(5), nullptr, true), "limit 5");
  EXPECT_EQ(Render(nullptr, DB_FILTER_OP_OFFSET, IntSlot(10), nullptr, true),
            "offset 10");
}

TEST_F(FilterTest, LimitAndOffsetCarryTheirNumberForAnyMember) {
  // Even for a text member the slot is the number, not a pointer.
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_LIMIT, IntSlot(-7), nullptr, false), "limit -7");
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_OFFSET, IntSlot(0), nullptr, false), "offset 0");
}

TEST_F(FilterTest, IntegerSlotIsASigned32BitNumber) {
  EXPECT_EQ(Render(&age_, DB_FILTER_OP_EQ, IntSlot(-5), nullptr, false), "iAge = -5");
  EXPECT_EQ(Render(&age_, DB_FILTER_OP_EQ, IntSlot(0), nullptr, false), "iAge = 0");
  EXPECT_EQ(Render(&age_, DB_FILTER_OP_EQ, IntSlot(INT32_MIN), nullptr, false),
            "iAge = -2147483648");
  EXPECT_EQ(Render(&age_, DB_FILTER_OP_EQ, IntSlot(INT32_MAX), nullptr, false),
            "iAge = 2147483647");
  // Only the low 32 bits of the slot count (where a slot has more).
  EXPECT_EQ(Render(&age_, DB_FILTER_OP_EQ, IntSlot((1LL << 32) + 5), nullptr, false),
            "iAge = 5");
  // An 8-byte integer member is still compared with a 32-bit slot value.
  EXPECT_EQ(Render(&big_, DB_FILTER_OP_GT, IntSlot(-1), nullptr, true), "Big > -1");
}

TEST_F(FilterTest, TextStopsAtTheFirstZeroByte) {
  char value[8] = {'b', 'o', 'b', '\0', 'x', 'y', 'z', '\0'};
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_EQ, value, nullptr, false), "cName = 'bob'");
  char empty[8] = {};
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_EQ, empty, nullptr, false), "cName = ''");
}

TEST_F(FilterTest, FullFieldIsReadOneCharacterPastItsEnd) {
  // The field of 8 bytes holds no zero byte; the byte after it belongs to the
  // next field of the same structure, so the read stays in our memory.
  struct {
    char name[8];
    char next[8];
  } record;
  std::memcpy(record.name, "ABCDEFGH", 8);
  std::memcpy(record.next, "ZYX", 4);
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_EQ, record.name, nullptr, false),
            "cName = 'ABCDEFGHZ'");
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_LIKE, record.name, nullptr, false),
            "cName like 'ABCDEFGHZ'");
  // Seven letters and a terminator: no extra byte.
  std::memcpy(record.name, "ABCDEFG", 8);
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_EQ, record.name, nullptr, false),
            "cName = 'ABCDEFG'");
}

TEST_F(FilterTest, BetweenReadsBothTextValuesWithTheInclusiveBound) {
  struct {
    char low[8];
    char high[8];
    char after[4];
  } values;
  std::memcpy(values.low, "AAAAAAAA", 8);
  std::memcpy(values.high, "BBBBBBBB", 8);
  std::memcpy(values.after, "C", 2);
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_BETWEEN, values.low, values.high, false),
            "cName between 'AAAAAAAAB' and 'BBBBBBBBC'");
}

TEST_F(FilterTest, SingleQuoteIsNotEscaped) {
  Member wide("cName", 0, &types_.char16);
  Db().preProcMember(&wide);
  char value[16] = "O'Brien";
  EXPECT_EQ(Render(&wide, DB_FILTER_OP_EQ, value, nullptr, false), "cName = 'O'Brien'");
}

TEST_F(FilterTest, InOverFourByteIntegers) {
  int32_t values[4] = {-1, 0, 2147483647, -2147483647 - 1};
  EXPECT_EQ(Render(&age_, DB_FILTER_OP_IN, values, IntSlot(4), false),
            "iAge IN (-1 , 0 , 2147483647 , -2147483648 )");
  EXPECT_EQ(Render(&age_, DB_FILTER_OP_IN, values, IntSlot(1), true), "Age IN (-1 )");
}

TEST_F(FilterTest, InOverEightByteIntegers) {
  int64_t values[3] = {-1, 4294967296LL, 7};
  EXPECT_EQ(Render(&big_, DB_FILTER_OP_IN, values, IntSlot(3), false),
            "iBig_n IN (-1 , 4294967296 , 7 )");
  EXPECT_EQ(Render(&big_, DB_FILTER_OP_IN, values, IntSlot(3), true),
            "Big IN (-1 , 4294967296 , 7 )");
}

TEST_F(FilterTest, InOverOtherWidthsReads64BitElementsWithTheFieldStride) {
  // A 2-byte integer member: each element is 8 bytes read every 2 bytes.
  Member small("iSmall", 0, &types_.int2);
  Db().preProcMember(&small);
  unsigned char bytes[16] = {1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  // Element 0 = bytes 0..7 (0x00020001), element 1 = bytes 2..9 (2), on a
  // little-endian machine (the host and the ARM target both are).
  EXPECT_EQ(Render(&small, DB_FILTER_OP_IN, bytes, IntSlot(2), false),
            "iSmall IN (131073 , 2 )");
}

TEST_F(FilterTest, InOverFixedSizeCharacterFields) {
  char values[3][8] = {"a", "bb", "ccc"};
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_IN, values, IntSlot(3), false),
            "cName IN ('a', 'bb', 'ccc')");
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_IN, values, IntSlot(1), true), "Name IN ('a')");
}

TEST_F(FilterTest, InOverFullCharacterFieldsReadsIntoTheNextElement) {
  char values[2][8];
  std::memcpy(values[0], "abcdefgh", 8);  // no terminator
  std::memcpy(values[1], "xy", 3);
  EXPECT_EQ(Render(&name_, DB_FILTER_OP_IN, values, IntSlot(2), false),
            "cName IN ('abcdefghx', 'xy')");
}

TEST_F(FilterTest, InWithACountOfZeroOrBelow) {
  int32_t numbers[1] = {1};
  char texts[1][8] = {"a"};
  for (long long count : {0LL, -1LL, -100LL}) {
    EXPECT_EQ(Render(&age_, DB_FILTER_OP_IN, numbers, IntSlot(count), false),
              "iAge IN ( )")
        << count;
    EXPECT_EQ(Render(&name_, DB_FILTER_OP_IN, texts, IntSlot(count), false),
              "cName IN (')")
        << count;
  }
}

TEST_F(FilterTest, LikeOnAnIntegerMemberIsQuotedCharacters) {
  // No integer form: the slot points at characters, read up to width + 1.
  struct {
    char pattern[4];
    char after[4];
  } value;
  std::memcpy(value.pattern, "1234", 4);
  std::memcpy(value.after, "5678", 4);
  EXPECT_EQ(Render(&age_, DB_FILTER_OP_LIKE, value.pattern, nullptr, false),
            "iAge like '12345'");
}

TEST_F(FilterTest, AnyNonIntegerTypeIsQuoted) {
  Member text("tNote", 0, &types_.char8);
  Member when("dWhen", 0, &types_.char8);
  Member blob("bData", 0, &types_.blob8);
  Db namer;
  namer.preProcMember(&text);
  namer.preProcMember(&when);
  namer.preProcMember(&blob);
  char value[8] = "7";
  EXPECT_EQ(Render(&text, DB_FILTER_OP_EQ, value, nullptr, true), "Note = '7'");
  EXPECT_EQ(Render(&when, DB_FILTER_OP_GE, value, nullptr, true), "When >= '7'");
  EXPECT_EQ(Render(&blob, DB_FILTER_OP_NE, value, nullptr, true), "Data <> '7'");
  // Only the exact text "INTEGER" counts as an integer column.
  Member odd("iOdd", 0, &types_.char8);
  odd.sql_type = "integer";
  EXPECT_EQ(Render(&odd, DB_FILTER_OP_EQ, value, nullptr, false), "iOdd = '7'");
}

TEST_F(FilterTest, GetFilterName) {
  DbFilter term(nullptr, DB_FILTER_OP_EQ, nullptr, nullptr);
  EXPECT_EQ(term.getFilterName("iAge"), "Age");
  EXPECT_EQ(term.getFilterName("sName_pk"), "Name");
  EXPECT_EQ(term.getFilterName("a_b"), "");
  EXPECT_EQ(term.getFilterName("_ab"), "");
  EXPECT_EQ(term.getFilterName("iA_b_c"), "A_b");
  EXPECT_EQ(term.getFilterName("i"), "");
  EXPECT_EQ(term.getFilterName("xyz_"), "yz");
  // Unlike Db::getName, any first character is dropped.
  EXPECT_EQ(term.getFilterName("Zeta"), "eta");
}

TEST_F(FilterTest, AnalyzedRenderingUsesGetFilterName) {
  Member oddName("Xvalue_q", 0, &types_.int4);
  oddName.sql_type = "INTEGER";
  EXPECT_EQ(Render(&oddName, DB_FILTER_OP_EQ, IntSlot(1), nullptr, true), "value = 1");
  EXPECT_EQ(Render(&oddName, DB_FILTER_OP_EQ, IntSlot(1), nullptr, false),
            "Xvalue_q = 1");
}

TEST_F(FilterTest, ConstructorStoresTheFourFields) {
  int marker = 0;
  DbFilter term(&age_, DB_FILTER_OP_BETWEEN, &marker, IntSlot(9));
  EXPECT_EQ(term.member, &age_);
  EXPECT_EQ(term.op, DB_FILTER_OP_BETWEEN);
  EXPECT_EQ(term.value1, &marker);
  EXPECT_EQ(term.value2, IntSlot(9));
}

TEST_F(FilterTest, ListToStringSeparators) {
  DbFilters empty;
  EXPECT_EQ(empty.toString(), "No Filter\n");
  DbFilters zero(0);
  EXPECT_EQ(zero.toString(), "No Filter\n");

  DbFilters one(1, new DbFilter(&age_, DB_FILTER_OP_EQ, IntSlot(1), nullptr));
  EXPECT_EQ(one.toString(), "iAge = 1 ");

  DbFilters three(3, new DbFilter(&age_, DB_FILTER_OP_EQ, IntSlot(1), nullptr),
                  new DbFilter(&age_, DB_FILTER_OP_GT, IntSlot(2), nullptr),
                  new DbFilter(nullptr, DB_FILTER_OP_LIMIT, IntSlot(3), nullptr));
  EXPECT_EQ(three.toString(), "iAge = 1 iAge > 2 and limit 3 and ");
}

TEST_F(FilterTest, ToStringAlwaysUsesTheDecoratedName) {
  DbFilters list(1, new DbFilter(&age_, DB_FILTER_OP_ORDER_BY, nullptr, nullptr));
  EXPECT_EQ(list.toString(), "order by iAge ");
}

TEST_F(FilterTest, VariadicConstructorKeepsOrderAndNullTerms) {
  DbFilter* first = new DbFilter(&age_, DB_FILTER_OP_EQ, IntSlot(1), nullptr);
  DbFilter* third = new DbFilter(&name_, DB_FILTER_OP_ORDER_BY, nullptr, nullptr);
  DbFilters list(3, first, static_cast<DbFilter*>(nullptr), third);
  ASSERT_EQ(list.filters.size(), 3u);
  EXPECT_EQ(list.filters[0], first);
  EXPECT_EQ(list.filters[1], nullptr);
  EXPECT_EQ(list.filters[2], third);
  // The destructor skips the null entry (checked under the sanitizers).
}

TEST_F(FilterTest, AddFilterRefusesNull) {
  DbFilters list;
  LogCapture log;
  EXPECT_EQ(list.add_filter(nullptr), -1);
  ExpectLoggedOnce(log, 3, kDbLogFile, "filter is null");
  EXPECT_TRUE(list.filters.empty());
}

TEST_F(FilterTest, AddFilterAppendsInOrder) {
  DbFilters list(1, new DbFilter(&age_, DB_FILTER_OP_EQ, IntSlot(1), nullptr));
  LogCapture log;
  DbFilter* added = new DbFilter(&name_, DB_FILTER_OP_ORDER_BY, nullptr, nullptr);
  EXPECT_EQ(list.add_filter(added), 0);
  ASSERT_EQ(list.filters.size(), 2u);
  EXPECT_EQ(list.filters[1], added);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST_F(FilterTest, MoveTakesOverTheTerms) {
  DbFilter* term = new DbFilter(&age_, DB_FILTER_OP_EQ, IntSlot(1), nullptr);
  DbFilters source(1, term);
  DbFilters moved(std::move(source));
  EXPECT_TRUE(source.filters.empty());
  ASSERT_EQ(moved.filters.size(), 1u);
  EXPECT_EQ(moved.filters[0], term);

  DbFilters assigned(1, new DbFilter(&name_, DB_FILTER_OP_ORDER_BY, nullptr, nullptr));
  assigned = std::move(moved);
  EXPECT_TRUE(moved.filters.empty());
  ASSERT_EQ(assigned.filters.size(), 1u);
  EXPECT_EQ(assigned.filters[0], term);
}

}  // namespace
