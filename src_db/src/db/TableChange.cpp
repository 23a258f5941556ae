// TableChange: the list of Members that Db::updateTable adds as columns to
// an existing table. The Members are referred to, not owned.
#include "TableChange.h"

#include <cstdarg>

#include "Meta.h"
#include "base/Log.h"

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
  bool nullLogged = false;
  for (size_t i = 0; i < members.size(); ++i) {
    // A null entry is left out of the text and reported once.
    if (members[i] == nullptr) {
      if (!nullLogged)
        DB_LOG(ipc_db::detail::kLogError, "TableChange has a null member.\n");
      nullLogged = true;
    } else {
      text += members[i]->toString("  ");
    }
    if (i + 1 < members.size()) text += "\n";
  }
  return text;
}
