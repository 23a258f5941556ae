// libFuzzer target: the member naming rule. A random decorated name, field
// width and (sometimes) an already set column type go through
// Db::preProcMember and Db::getName; the column type, the four flags and the
// plain name are compared with the rule written out below. A difference
// aborts as a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Db.h"
#include "FuzzSupport.h"
#include "Meta.h"

using ipc_db_fuzz::ExpectSame;
using ipc_db_fuzz::FuzzInput;

namespace {

const char kUnknown[] = "unknown_type";

std::string ExpectedType(const std::string& name, unsigned int width,
                         const std::string& set) {
  if (set != kUnknown) return set;
  switch (name.empty() ? '\0' : name[0]) {
    case 'c':
      return "CHAR(" + std::to_string(width) + ")";
    case 'b':
      return "BLOB";
    case 't':
      return "TEXT";
    case 'i':
      return "INTEGER";
    case 'd':
      return "datetime";
    default:
      return kUnknown;
  }
}

int ExpectedFlag(const std::string& name, char letter) {
  size_t underscore = name.rfind('_');
  if (underscore == std::string::npos) return 0;
  return name.find(letter, underscore) == std::string::npos ? 0 : 1;
}

std::string ExpectedName(const std::string& name) {
  const char first = name.empty() ? '\0' : name[0];
  if (std::string("bcdit").find(first) == std::string::npos || first == '\0') return name;
  size_t underscore = name.rfind('_');
  if (underscore == std::string::npos) return std::string(name.c_str() + 1);
  if (underscore <= 1) return "";
  return name.substr(1, underscore - 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ipc_db_fuzz::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const char* const kPreset[] = {"TEXT", "INTEGER", "whatever"};
  FuzzInput in(data, size);
  Meta type;
  type.Init("fuzz", in.U32());
  const uint8_t presetChoice = in.Byte();
  const std::string name = in.Text(48);
  Member member(name, 0, &type);
  if (presetChoice % 4 == 3) member.sql_type = kPreset[presetChoice % 3];
  const std::string preset = member.sql_type;

  Db db;
  db.preProcMember(&member);
  ExpectSame(member.sql_type, ExpectedType(name, type.type_size, preset), "sql_type");
  ExpectSame(std::to_string(member.primary_key), std::to_string(ExpectedFlag(name, 'p')),
             "primary_key");
  ExpectSame(std::to_string(member.auto_increment),
             std::to_string(ExpectedFlag(name, 'a')), "auto_increment");
  ExpectSame(std::to_string(member.not_null), std::to_string(ExpectedFlag(name, 'n')),
             "not_null");
  ExpectSame(std::to_string(member.default_zero), std::to_string(ExpectedFlag(name, 'd')),
             "default_zero");
  ExpectSame(db.getType(&member), member.sql_type, "getType");
  ExpectSame(db.getName(name), ExpectedName(name), "getName");
  return 0;
}
