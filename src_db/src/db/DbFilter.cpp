// Filter terms and filter lists, the public classes: a DbFilter hands back
// its own SQL text (rendered by db/TermText after the term's check), and a
// DbFilters owns an ordered list of terms that the table operations join
// into their statements.
#include "DbFilter.h"

#include <cstdarg>
#include <string>
#include <utility>

#include "base/Log.h"
#include "db/CallerChecks.h"
#include "db/TermText.h"

using ipc_db::detail::AppendTermText;
using ipc_db::detail::CheckFilterTerm;
using ipc_db::detail::FilterNameOf;
using ipc_db::detail::kLogError;

DbFilter::DbFilter(Member* member, DbFilterOperator op, void* value1, void* value2)
    : member(member), op(op), value1(value1), value2(value2) {}

DbFilter::~DbFilter() {}

std::string DbFilter::op2Str() {
  std::string out;
  if (CheckFilterTerm(*this)) AppendTermText(*this, false, &out);
  return out;
}

std::string DbFilter::op2StrAnalyze() {
  std::string out;
  if (CheckFilterTerm(*this)) AppendTermText(*this, true, &out);
  return out;
}

std::string DbFilter::getFilterName(std::string name) {
  return std::string(FilterNameOf(name));
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
