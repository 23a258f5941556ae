// Caller mistakes on the filter terms' own rendering (DbFilter::op2Str and
// op2StrAnalyze, and through them DbFilters::toString). A term that cannot be
// rendered renders as the empty text with one error entry; the table
// operations refuse the same terms before running anything (see
// table_mistakes_test.cpp). Each case was tried on the unchanged library
// under AddressSanitizer ("today").
//
// Case                                                   today
//      -> now
//  1 column operator (0-5, 7, 8, 11-13) without member   crash
//      -> "", "filter member is null.\n"
//  2 the same through op2StrAnalyze                      crash
//      -> the same
//  3 text member without type_meta                       crash
//      -> "", "type_meta of member tNote is null.\n"
//  4 comparison or like on a text member, value null     "col = ''"
//      -> "", "filter value is null.\n"
//  5 between on a text member, second value null         "... and ''"
//      -> "", "filter value is null.\n"
//  6 in-list with a null array and a count above 0       crash
//      -> "", "filter value is null.\n"
//  7 DbFilters::toString with a term without member      crash
//      -> that term empty, one entry
//
// Left alone, with the reason:
// - DbFilters(count, ...) and TableChange(count, ...) with fewer arguments
//   than `count`: not detectable.
// - An operator outside the enumeration renders " "; and-, limit- and
//   offset-terms read no member.
// - Text values read up to one byte past their field, unescaped.
// - An in-list count larger than its array: not detectable.
// - An integer member's number is taken from the pointer's bits; a member
//   whose type was never set reads its value slot as an address.
#include <gtest/gtest.h>

#include <string>

#include "MistakeTestSupport.h"

namespace ipc_db_test {
namespace {

class FilterMistakes : public testing::Test {
 protected:
  void SetUp() override {
    age_.sql_type = "INTEGER";
    note_.sql_type = "TEXT";
  }
  // `term` renders as "" in both naming modes, each time with one `text`.
  void ExpectNotRendered(DbFilter term, const std::string& text) {
    {
      LogCapture log;
      EXPECT_EQ(term.op2Str(), "") << term.op;
      ExpectOneError(log, kDbLogFile, text);
    }
    {
      LogCapture log;
      EXPECT_EQ(term.op2StrAnalyze(), "") << term.op;
      ExpectOneError(log, kDbLogFile, text);
    }
  }
  ScalarTypes types_;
  Member age_{"iAge", 0, &types_.int4};
  Member note_{"tNote", 4, &types_.char16};
  char text_[17] = "note";
};

TEST_F(FilterMistakes, ColumnOperatorWithoutMember) {
  for (int op : {0, 1, 2, 3, 4, 5, 7, 8, 11, 12, 13}) {
    ExpectNotRendered(DbFilter(nullptr, static_cast<DbFilterOperator>(op), text_, text_),
                      "filter member is null.\n");
  }
  // A correct term still renders.
  EXPECT_EQ(DbFilter(&age_, DB_FILTER_OP_EQ, IntSlot(3), nullptr).op2Str(), "iAge = 3");
}

TEST_F(FilterMistakes, TextMemberWithoutTypeMeta) {
  Member note("tNote", 4, nullptr);
  note.sql_type = "TEXT";
  ExpectNotRendered(DbFilter(&note, DB_FILTER_OP_EQ, text_, nullptr),
                    "type_meta of member tNote is null.\n");
  EXPECT_EQ(DbFilter(&note_, DB_FILTER_OP_EQ, text_, nullptr).op2Str(), "tNote = 'note'");
}

TEST_F(FilterMistakes, TextValueNull) {
  for (int op : {0, 1, 2, 3, 4, 5, 12}) {
    ExpectNotRendered(
        DbFilter(&note_, static_cast<DbFilterOperator>(op), nullptr, nullptr),
        "filter value is null.\n");
  }
  // Like reads its pattern whatever the column type.
  ExpectNotRendered(DbFilter(&age_, DB_FILTER_OP_LIKE, nullptr, nullptr),
                    "filter value is null.\n");
  EXPECT_EQ(DbFilter(&note_, DB_FILTER_OP_LIKE, text_, nullptr).op2Str(),
            "tNote like 'note'");
}

TEST_F(FilterMistakes, BetweenWithoutSecondTextValue) {
  ExpectNotRendered(DbFilter(&note_, DB_FILTER_OP_BETWEEN, text_, nullptr),
                    "filter value is null.\n");
  // On an integer member both values are numbers; 0 is a number.
  EXPECT_EQ(DbFilter(&age_, DB_FILTER_OP_BETWEEN, IntSlot(1), nullptr).op2Str(),
            "iAge between 1 and 0");
}

TEST_F(FilterMistakes, InListWithoutArray) {
  ExpectNotRendered(DbFilter(&age_, DB_FILTER_OP_IN, nullptr, IntSlot(3)),
                    "filter value is null.\n");
  ExpectNotRendered(DbFilter(&note_, DB_FILTER_OP_IN, nullptr, IntSlot(1)),
                    "filter value is null.\n");
  // Without elements no element is read.
  EXPECT_EQ(DbFilter(&age_, DB_FILTER_OP_IN, nullptr, IntSlot(0)).op2Str(),
            "iAge IN ( )");
}

TEST_F(FilterMistakes, ListTextWithATermWithoutMember) {
  DbFilters list(2, new DbFilter(&age_, DB_FILTER_OP_EQ, IntSlot(3), nullptr),
                 new DbFilter(nullptr, DB_FILTER_OP_GT, IntSlot(1), nullptr));
  LogCapture log;
  EXPECT_EQ(list.toString(), "iAge = 3  and ");
  ExpectOneError(log, kDbLogFile, "filter member is null.\n");
}

}  // namespace
}  // namespace ipc_db_test
