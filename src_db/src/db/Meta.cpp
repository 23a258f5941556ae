// Schema descriptions: Member (one field of a record: decorated name, byte
// offset, type description), Meta (a named type with a size and an ordered,
// owned list of Members) and MetaDataManager (the process-wide registry of
// Metas by name). Only the text forms and the registry live here; the
// naming rule that turns a Member into a column is in DbNaming.cpp.
#include "Meta.h"

#include <sstream>
#include <utility>

#include "base/Log.h"
#include "db/MemberDefaults.h"

using ipc_db::detail::kNoIndex;
using ipc_db::detail::kUnknownType;

// ---- Member ----

Member::Member(std::string name, unsigned int offset, Meta* type_meta)
    : name(std::move(name)),
      offset(offset),
      type_meta(type_meta),
      index_name(kNoIndex),
      sql_type(kUnknownType),
      auto_increment(0),
      primary_key(0),
      not_null(0),
      default_zero(0) {}

Member::~Member() = default;

std::string Member::toString(std::string prefix) {
  std::ostringstream text;
  text << prefix << "name = " << name << ";"
       << "offset = " << offset << ";";
  if (type_meta != nullptr) text << type_meta->toString(prefix + " ");
  return text.str();
}

// ---- Meta ----

Meta::Meta() : type_name(kUnknownType), type_size(0) {}

Meta::~Meta() {
  for (Member* member : members) delete member;
  members.clear();
}

void Meta::Init(std::string name, unsigned int size) {
  type_name = std::move(name);
  type_size = size;
}

int Meta::AddMember(Member* member) {
  if (member == nullptr) {
    DB_LOG(ipc_db::detail::kLogError, "member is null\n");
    return 0;
  }
  if (Get(member->name) != nullptr) {
    DB_LOG(ipc_db::detail::kLogError, "Add Member failed\n");
    return 0;
  }
  members.push_back(member);
  return 1;
}

Member* Meta::Get(std::string name) {
  for (Member* member : members) {
    if (member != nullptr && member->name == name) return member;
  }
  return nullptr;
}

std::string Meta::toString(std::string prefix) {
  std::ostringstream text;
  text << "type_name = " << type_name << ";"
       << "type_size = " << type_size << ";"
       << "addr = " << static_cast<const void*>(this);
  if (members.empty()) return text.str();
  text << "\n";
  const std::string memberPrefix = prefix + " ";
  for (size_t i = 0; i < members.size(); ++i) {
    if (members[i] != nullptr) text << members[i]->toString(memberPrefix);
    if (i + 1 < members.size()) text << "\n";
  }
  return text.str();
}

// ---- MetaDataManager ----

MetaDataManager::MetaDataManager() = default;

MetaDataManager::~MetaDataManager() = default;

MetaDataManager* MetaDataManager::Singleton() {
  static MetaDataManager instance;
  return &instance;
}

void MetaDataManager::AddMetaData(Meta* meta) {
  if (meta == nullptr) {
    DB_LOG(ipc_db::detail::kLogError, "meta is null\n");
    return;
  }
  // The first registration under a name stays; later ones are ignored.
  meta_map.emplace(meta->type_name, meta);
}

Meta* MetaDataManager::GetMetaDataOf(std::string name) {
  auto found = meta_map.find(name);
  return found == meta_map.end() ? nullptr : found->second;
}
