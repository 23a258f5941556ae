// Descriptions that the companion header must refuse at compile time, one
// per value of IPC_DB_MISUSE; 0 is the control that must compile. ctest
// compiles each (tests/CMakeLists.txt) and expects the refusals to fail
// with their own message.
#include <cstdint>

#include "ipc_db_helpers.h"

namespace {

struct Badge {
  int32_t id;
  char name[16];
  int64_t issued;
};

struct Other {
  int32_t id;
};

}  // namespace

void Describe() {
  static ipc_db::FieldType<4> int32("int32");
  static ipc_db::FieldType<16> char16("char16");
  static ipc_db::FieldType<8> wide("wide8");
  static ipc_db::RecordType<Badge> badge("t_badge");
  IPC_DB_FIELD(badge, Badge, id, "iId_pa", int32);
#if IPC_DB_MISUSE == 0
  IPC_DB_FIELD(badge, Badge, name, "cName", char16);
  IPC_DB_FIELD(badge, Badge, issued, "bIssued", wide);
#elif IPC_DB_MISUSE == 1
  IPC_DB_FIELD(badge, Badge, name, "cName", int32);  // 16 bytes described as 4
#elif IPC_DB_MISUSE == 2
  IPC_DB_FIELD(badge, Badge, issued, "iIssued", wide);  // an 8-byte integer column
#elif IPC_DB_MISUSE == 3
  IPC_DB_FIELD(badge, Other, id, "iOther", int32);  // a field of another struct
#endif
}
