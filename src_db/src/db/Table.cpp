// The Table handle: its construction, destruction and text form. A Table
// refers to (and owns neither) its Db and its Meta, and keeps the naming mode
// that decides whether decorated member names or plain names are the column
// names. The record operations live in their own source files.
#include "Table.h"

#include <utility>

#include "Meta.h"
#include "base/Log.h"

Table::Table(Db* parent, Meta* meta_data, int analyze_name)
    : parent(parent), meta_data(meta_data), analyze_name(analyze_name) {}

Table::~Table() = default;

std::string Table::toString(std::string prefix) {
  if (meta_data == nullptr) {
    DB_LOG(ipc_db::detail::kLogError, "meta_data is null.\n");
    return std::string();
  }
  return meta_data->toString(std::move(prefix)) + "\n";
}
