// Schema descriptions: a Meta describes a type (a record structure or a
// scalar), a Member one field of a record, and MetaDataManager is the
// process-wide registry of Metas by name.
//
// Threads: nothing here locks. Build descriptions before sharing them.
#ifndef IPC_DB_META_H_
#define IPC_DB_META_H_

#include <map>
#include <string>
#include <vector>

#include "ipc_db_export.h"

class Meta;

// One field of a record structure. Its decorated `name` carries the column
// type (first letter) and attributes (letters after the last "_"); see
// Db::getType and Db::getName.
class IPC_DB_API Member {
 public:
  // Stores the three values; index_name "NONE", sql_type "unknown_type",
  // flags 0. No validation. `type_meta` is not owned and must outlive this
  // Member; a Member used for a table needs one.
  Member(std::string name, unsigned int offset, Meta* type_meta);
  ~Member();

  // "<prefix>name = <name>;offset = <offset>;" followed, when type_meta is
  // set, by type_meta->toString(prefix + " ").
  std::string toString(std::string prefix);

  std::string name;          // decorated member name
  unsigned int offset;       // byte offset inside one record
  Meta* type_meta;           // type of the field, not owned
  std::string index_name;    // index created by Table::add_index, or "NONE"
  std::string sql_type;      // column type text, "unknown_type" until set
  int auto_increment;
  int primary_key;
  int not_null;
  int default_zero;
};

// A type description: name, size in bytes and ordered fields. A record's
// Meta gives the table name (type_name), the record stride (type_size) and
// the columns (members, in order). Owns its Members.
class IPC_DB_API Meta {
 public:
  // type_name "unknown_type", type_size 0, no members.
  Meta();
  // Deletes every non-null Member (but not their type_metas).
  ~Meta();

  Meta(const Meta&) = delete;
  Meta& operator=(const Meta&) = delete;

  // Sets type_name and type_size; may be called again.
  void Init(std::string name, unsigned int size);
  // Appends `member` and takes ownership: returns 1. Returns 0 (logging
  // "member is null\n") for null, or 0 (logging "Add Member failed\n") when a
  // member of the same name exists; the caller then still owns `member`.
  int AddMember(Member* member);
  // The first member named exactly `name`, or null. Not owned by the caller.
  Member* Get(std::string name);
  // "type_name = ...;type_size = ...;addr = 0x..." and, when there are
  // members, one further line per member (indented by prefix + " ").
  std::string toString(std::string prefix);

  std::string type_name;
  unsigned int type_size;
  std::vector<Member*> members;
};

// Process-wide registry of Metas by type_name. Does not own the Metas.
class IPC_DB_API MetaDataManager {
 public:
  // The one instance, created on first call, destroyed at process exit.
  static MetaDataManager* Singleton();
  // Frees the map only.
  ~MetaDataManager();

  // Registers `meta` under its type_name. A name already registered keeps
  // its first Meta. Null logs "meta is null\n". `meta` must outlive its use.
  void AddMetaData(Meta* meta);
  // The Meta registered under `name`, or null.
  Meta* GetMetaDataOf(std::string name);

  std::map<std::string, Meta*> meta_map;

 private:
  MetaDataManager();
};

#endif  // IPC_DB_META_H_
