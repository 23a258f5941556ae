// TableChange: the members to add as columns to an existing table with
// Db::updateTable.
#ifndef IPC_DB_TABLECHANGE_H_
#define IPC_DB_TABLECHANGE_H_

#include <string>
#include <vector>

#include "ipc_db_export.h"

class Member;

class IPC_DB_API TableChange {
 public:
  // Takes `count` further Member* arguments, in order; none is checked.
  // The Members are not owned.
  explicit TableChange(unsigned int count, ...);
  ~TableChange();

  // "No Change\n" when empty; otherwise "table changes:" followed by each
  // member's toString("  "), one per line. A null member is left out (its
  // line stays empty) and logged once: "TableChange has a null member.\n".
  std::string toString();

  std::vector<Member*> members;
};

#endif  // IPC_DB_TABLECHANGE_H_
