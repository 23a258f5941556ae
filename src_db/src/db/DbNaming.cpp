// The member naming rule of Db: a Member's decorated name carries its SQL
// column type in its first letter (c CHAR(n), b BLOB, t TEXT, i INTEGER,
// d datetime) and its column attributes in the letters after its last "_"
// (p primary key, a autoincrement, n not null, d default zero). These
// functions read the rule into the Member's sql_type and flags and derive the
// plain column name; none of them touches the database.
#include <string>

#include "Db.h"
#include "Meta.h"
#include "base/Log.h"
#include "db/CallerChecks.h"
#include "db/ColumnKind.h"
#include "db/MemberDefaults.h"

using ipc_db::detail::kBlobType;
using ipc_db::detail::kIntegerType;
using ipc_db::detail::kUnknownType;

namespace {

// The SQL type text for the type letter `letter`, or null for no type letter.
// CHAR is completed with its width by the caller.
const char* SqlTypeOfLetter(char letter) {
  switch (letter) {
    case 'c':
      return "CHAR";
    case 'b':
      return kBlobType;
    case 't':
      return "TEXT";
    case 'i':
      return kIntegerType;
    case 'd':
      return "datetime";
    default:
      return nullptr;
  }
}

// 1 when `letter` occurs in the attribute suffix of `name` (from its last
// "_" to the end), else 0. A name without "_" has no attributes.
int HasAttribute(const std::string& name, char letter) {
  const size_t lastUnderscore = name.rfind('_');
  if (lastUnderscore == std::string::npos) return 0;
  return name.find(letter, lastUnderscore) != std::string::npos ? 1 : 0;
}

// Shared body of the four attribute readers: sets `*flag` from `letter`.
void ReadAttribute(Member* member, char letter, int Member::*flag) {
  if (member == nullptr) {
    DB_LOG(ipc_db::detail::kLogError, "member is null\n");
    return;
  }
  member->*flag = HasAttribute(member->name, letter);
}

}  // namespace

std::string Db::getType(Member* member) {
  if (member == nullptr) {
    DB_LOG(ipc_db::detail::kLogError, "member is null\n");
    return kUnknownType;
  }
  if (!ipc_db::detail::CheckMemberType(*member)) return kUnknownType;
  DB_LOG(ipc_db::detail::kLogDebug, "name is %s    type is %s \n", member->name.c_str(),
         member->type_meta->type_name.c_str());
  // The type is worked out once; an earlier or caller-set value is kept.
  if (member->sql_type != kUnknownType) return member->sql_type;

  const char* typeText = SqlTypeOfLetter(member->name[0]);
  if (typeText == nullptr) return member->sql_type;
  if (member->name[0] == 'c') {
    member->sql_type =
        std::string(typeText) + "(" + std::to_string(member->type_meta->type_size) + ")";
  } else {
    member->sql_type = typeText;
  }
  return member->sql_type;
}

std::string Db::getName(std::string name) {
  if (SqlTypeOfLetter(name[0]) == nullptr) {
    DB_LOG(ipc_db::detail::kLogError, "Name in wrong format\n");
    return name;
  }
  const size_t lastUnderscore = name.rfind('_');
  if (lastUnderscore == std::string::npos) {
    // Everything after the type letter, up to a zero byte if there is one.
    return std::string(name.c_str() + 1);
  }
  if (lastUnderscore <= 1) return std::string();
  return name.substr(1, lastUnderscore - 1);
}

void Db::getPrimaryKey(Member* member) {
  ReadAttribute(member, 'p', &Member::primary_key);
}

void Db::getAutoIncrement(Member* member) {
  ReadAttribute(member, 'a', &Member::auto_increment);
}

void Db::getNotNull(Member* member) { ReadAttribute(member, 'n', &Member::not_null); }

void Db::getDefaultZero(Member* member) {
  ReadAttribute(member, 'd', &Member::default_zero);
}

void Db::preProcMember(Member* member) {
  if (member == nullptr) {
    DB_LOG(ipc_db::detail::kLogError, "member is null\n");
    return;
  }
  getType(member);
  getPrimaryKey(member);
  getAutoIncrement(member);
  getNotNull(member);
  getDefaultZero(member);
}
