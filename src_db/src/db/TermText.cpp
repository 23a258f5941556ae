// The SQL text of one filter term. Values come from the caller's memory:
// integer columns carry their number in the pointer slot itself, other
// columns point at the characters of a record field, which are copied
// unescaped; an in-list reads an array of such values.
#include "db/TermText.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Meta.h"
#include "db/CallerChecks.h"
#include "db/ColumnKind.h"
#include "db/FieldText.h"

namespace ipc_db::detail {

namespace {

bool IsIntegerMember(const Member* member) {
  return ColumnKindOf(*member) == ColumnKind::kInteger;
}

size_t FieldWidth(const Member* member) { return member->type_meta->type_size; }

// "'" + the field's characters + "'".
void AppendQuoted(std::string* out, const void* value, size_t width) {
  out->push_back('\'');
  AppendFieldChars(out, static_cast<const char*>(value), width);
  out->push_back('\'');
}

// The value of a comparison: the slot's number for an integer member,
// otherwise the quoted characters it points at.
void AppendValue(std::string* out, const Member* member, const void* value) {
  if (IsIntegerMember(member)) {
    AppendDecimal(out, SlotInt(value));
  } else {
    AppendQuoted(out, value, FieldWidth(member));
  }
}

// One element of an integer array: 32-bit elements when the field is 4
// bytes wide, 64-bit elements read with the field's stride otherwise.
long long IntegerElement(const char* array, size_t width, int index) {
  const char* element = array + static_cast<size_t>(index) * width;
  if (width == 4) {
    int32_t value;
    std::memcpy(&value, element, sizeof(value));
    return value;
  }
  int64_t value;
  std::memcpy(&value, element, sizeof(value));
  return value;
}

void AppendIntegerList(std::string* out, const char* array, size_t width, int count) {
  for (int i = 0; i < count; ++i) {
    if (i > 0) out->append(" , ");
    AppendDecimal(out, IntegerElement(array, width, i));
  }
  out->append(" )");
}

void AppendTextList(std::string* out, const char* array, size_t width, int count) {
  for (int i = 0; i < count; ++i) {
    if (i > 0) out->append("', ");
    out->push_back('\'');
    AppendFieldChars(out, array + static_cast<size_t>(i) * width, width);
  }
  out->append("')");
}

// N IN (...): value1 is the array, value2 carries the element count.
void AppendInList(std::string* out, const DbFilter& term, std::string_view column) {
  const char* array = static_cast<const char*>(term.value1);
  size_t width = FieldWidth(term.member);
  int count = SlotInt(term.value2);
  out->append(column).append(" IN (");
  if (IsIntegerMember(term.member)) {
    AppendIntegerList(out, array, width, count);
  } else {
    AppendTextList(out, array, width, count);
  }
}

// The operator text of a comparison, empty for any other operator. Views of
// the literals, so that appending them needs no length count.
std::string_view ComparisonText(DbFilterOperator op) {
  switch (op) {
    case DB_FILTER_OP_EQ:
      return " = ";
    case DB_FILTER_OP_NE:
      return " <> ";
    case DB_FILTER_OP_LT:
      return " < ";
    case DB_FILTER_OP_GT:
      return " > ";
    case DB_FILTER_OP_LE:
      return " <= ";
    case DB_FILTER_OP_GE:
      return " >= ";
    default:
      return std::string_view();
  }
}

void AppendBetween(std::string* out, const DbFilter& term, std::string_view column) {
  out->append(column).append(" between ");
  if (IsIntegerMember(term.member)) {
    AppendDecimal(out, SlotInt(term.value1));
    out->append(" and ");
    AppendDecimal(out, SlotInt(term.value2));
  } else {
    AppendQuoted(out, term.value1, FieldWidth(term.member));
    out->append(" and ");
    AppendQuoted(out, term.value2, FieldWidth(term.member));
  }
}

// Appends `term` rendered with `column` as the column name.
void AppendTerm(const DbFilter& term, std::string_view column, std::string* out) {
  std::string_view comparison = ComparisonText(term.op);
  if (!comparison.empty()) {
    out->append(column).append(comparison);
    AppendValue(out, term.member, term.value1);
    return;
  }
  switch (term.op) {
    case DB_FILTER_OP_AND:
      out->append(" and ");
      return;
    case DB_FILTER_OP_ORDER_BY:
      out->append("order by ").append(column);
      return;
    case DB_FILTER_OP_ORDER_BY_DESC:
      out->append("order by ").append(column).append(" DESC ");
      return;
    case DB_FILTER_OP_LIMIT:
      out->append("limit ");
      AppendDecimal(out, SlotInt(term.value1));
      return;
    case DB_FILTER_OP_OFFSET:
      out->append("offset ");
      AppendDecimal(out, SlotInt(term.value1));
      return;
    case DB_FILTER_OP_BETWEEN:
      AppendBetween(out, term, column);
      return;
    case DB_FILTER_OP_LIKE:
      out->append(column).append(" like ");
      AppendQuoted(out, term.value1, FieldWidth(term.member));
      return;
    case DB_FILTER_OP_IN:
      AppendInList(out, term, column);
      return;
    default:
      out->append(" ");
      return;
  }
}

// The column a term names (none for and-, limit- and offset-terms): the
// member's name as it stands, or the part getFilterName derives from it.
std::string_view ColumnOf(const DbFilter& term, bool derivedName) {
  // The member name is read only by the operators that name a column, so
  // that and-, limit- and offset-terms may carry no member at all.
  if (!TermNamesColumn(term.op)) return std::string_view();
  return derivedName ? FilterNameOf(term.member->name)
                     : std::string_view(term.member->name);
}

}  // namespace

std::string_view FilterNameOf(const std::string& name) {
  std::string_view view(name);
  size_t underscore = view.rfind('_');
  if (underscore == std::string_view::npos) return view.empty() ? view : view.substr(1);
  if (underscore <= 1) return std::string_view();
  return view.substr(1, underscore - 1);
}

void AppendTermText(const DbFilter& term, bool derivedName, std::string* out) {
  AppendTerm(term, ColumnOf(term, derivedName), out);
}

}  // namespace ipc_db::detail
