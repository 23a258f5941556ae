// Filter terms and filter lists. A DbFilter renders itself as one SQL
// fragment (a condition, an ordering, a limit or an offset); the table
// operations join the fragments of a DbFilters into their statements. Values
// come from the caller's memory: integer columns carry their number in the
// pointer slot itself, other columns point at the characters of a record
// field, which are copied unescaped.
#include "DbFilter.h"

#include <cstdarg>
#include <cstring>
#include <string>
#include <utility>

#include "Log.h"
#include "Meta.h"
#include "db/FieldText.h"

using ipc_db::detail::AppendFieldChars;
using ipc_db::detail::kLogError;
using ipc_db::detail::SlotInt;

namespace {

bool IsIntegerMember(const Member* member) { return member->sql_type == "INTEGER"; }

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
    out->append(std::to_string(SlotInt(value)));
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
    out->append(std::to_string(IntegerElement(array, width, i)));
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
void AppendInList(std::string* out, const DbFilter& term, const std::string& column) {
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

const char* ComparisonText(DbFilterOperator op) {
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
      return nullptr;
  }
}

// The member name is read only by the operators that name a column, so that
// and-, limit- and offset-terms may carry no member at all.
bool NamesColumn(DbFilterOperator op) {
  switch (op) {
    case DB_FILTER_OP_AND:
    case DB_FILTER_OP_LIMIT:
    case DB_FILTER_OP_OFFSET:
      return false;
    default:
      return op >= DB_FILTER_OP_EQ && op <= DB_FILTER_OP_IN;
  }
}

void AppendBetween(std::string* out, const DbFilter& term, const std::string& column) {
  out->append(column).append(" between ");
  if (IsIntegerMember(term.member)) {
    out->append(std::to_string(SlotInt(term.value1)));
    out->append(" and ");
    out->append(std::to_string(SlotInt(term.value2)));
  } else {
    AppendQuoted(out, term.value1, FieldWidth(term.member));
    out->append(" and ");
    AppendQuoted(out, term.value2, FieldWidth(term.member));
  }
}

// Renders `term` with `column` as the column name.
std::string RenderTerm(const DbFilter& term, const std::string& column) {
  std::string out;
  if (const char* comparison = ComparisonText(term.op)) {
    out.append(column).append(comparison);
    AppendValue(&out, term.member, term.value1);
    return out;
  }
  switch (term.op) {
    case DB_FILTER_OP_AND:
      return " and ";
    case DB_FILTER_OP_ORDER_BY:
      return "order by " + column;
    case DB_FILTER_OP_ORDER_BY_DESC:
      return "order by " + column + " DESC ";
    case DB_FILTER_OP_LIMIT:
      return "limit " + std::to_string(SlotInt(term.value1));
    case DB_FILTER_OP_OFFSET:
      return "offset " + std::to_string(SlotInt(term.value1));
    case DB_FILTER_OP_BETWEEN:
      AppendBetween(&out, term, column);
      return out;
    case DB_FILTER_OP_LIKE:
      out.append(column).append(" like ");
      AppendQuoted(&out, term.value1, FieldWidth(term.member));
      return out;
    case DB_FILTER_OP_IN:
      AppendInList(&out, term, column);
      return out;
    default:
      return " ";
  }
}

}  // namespace

DbFilter::DbFilter(Member* member, DbFilterOperator op, void* value1, void* value2)
    : member(member), op(op), value1(value1), value2(value2) {}

DbFilter::~DbFilter() {}

std::string DbFilter::op2Str() {
  return RenderTerm(*this, NamesColumn(op) ? member->name : std::string());
}

std::string DbFilter::op2StrAnalyze() {
  return RenderTerm(*this, NamesColumn(op) ? getFilterName(member->name) : std::string());
}

std::string DbFilter::getFilterName(std::string name) {
  size_t underscore = name.rfind('_');
  if (underscore == std::string::npos) return name.empty() ? name : name.substr(1);
  if (underscore <= 1) return std::string();
  return name.substr(1, underscore - 1);
}

DbFilters::DbFilters() {}

DbFilters::DbFilters(unsigned int count, ...) {
  va_list args;
  va_start(args, count);
  for (unsigned int i = 0; i < count; ++i) filters.push_back(va_arg(args, DbFilter*));
  va_end(args);
}

DbFilters::~DbFilters() {
  for (DbFilter* filter : filters) delete filter;
}

DbFilters::DbFilters(DbFilters&& other) noexcept : filters(std::move(other.filters)) {
  other.filters.clear();
}

DbFilters& DbFilters::operator=(DbFilters&& other) noexcept {
  if (this == &other) return *this;
  for (DbFilter* filter : filters) delete filter;
  filters = std::move(other.filters);
  other.filters.clear();
  return *this;
}

long long DbFilters::add_filter(DbFilter* filter) {
  if (filter == nullptr) {
    DB_LOG(kLogError, "filter is null");
    return -1;
  }
  filters.push_back(filter);
  return 0;
}

std::string DbFilters::toString() {
  if (filters.empty()) return "No Filter\n";
  std::string out;
  for (size_t i = 0; i < filters.size(); ++i) {
    if (filters[i] != nullptr) out.append(filters[i]->op2Str());
    out.append(i == 0 ? " " : " and ");
  }
  return out;
}
