// TableChange: the list of Members that Db::updateTable adds as columns to
// an existing table. The Members are referred to, not owned.
#include "TableChange.h"

#include <cstdarg>

#include "Meta.h"

TableChange::TableChange(unsigned int count, ...) {
  va_list args;
  va_start(args, count);
  for (unsigned int i = 0; i < count; ++i) {
    members.push_back(va_arg(args, Member*));
  }
  va_end(args);
}

TableChange::~TableChange() = default;

std::string TableChange::toString() {
  if (members.empty()) return "No Change\n";
  std::string text = "table changes:";
  for (size_t i = 0; i < members.size(); ++i) {
    text += members[i]->toString("  ");
    if (i + 1 < members.size()) text += "\n";
  }
  return text;
}
