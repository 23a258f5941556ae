// Smallest useful program against the installed ipc_db: describes a record
// structure, opens a plain (unkeyed) database in a fresh temporary folder,
// creates its table, inserts two records, counts them, reads the largest id
// back and closes everything. Prints each step; exits non-zero when one
// fails. Uses only the installed headers (the umbrella header ipc_db.h).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "ipc_db.h"

namespace {

struct Camera {
  int id;
  char name[32];
};

int Fail(const char* step, long long result) {
  printf("consumer: %s failed (%lld)\n", step, result);
  return 1;
}

// Removes the database file, its journal and the folder.
void RemoveFolder(const std::string& folder) {
  unlink((folder + "cameras.db").c_str());
  unlink((folder + "cameras.db-journal").c_str());
  rmdir(folder.c_str());
}

int Run(const std::string& folder) {
  static Meta int_type;
  int_type.Init("int", sizeof(int));
  static Meta name_type;
  name_type.Init("char32", sizeof(Camera::name));
  // Registered descriptions must outlive every use of the registry.
  static Meta record_meta;
  Meta* record = &record_meta;
  record->Init("t_camera", sizeof(Camera));
  record->AddMember(new Member("iId_p", offsetof(Camera, id), &int_type));
  record->AddMember(new Member("cName", offsetof(Camera, name), &name_type));
  MetaDataManager::Singleton()->AddMetaData(record);
  printf("consumer: described %s, %u bytes a record, %zu columns\n",
         record->type_name.c_str(), record->type_size, record->members.size());

  Db db;
  char no_key[1] = "";
  long long result = db.Init(0, folder, "cameras.db", "cameras.db-journal", no_key, 0);
  if (result != 0) return Fail("Db::Init", result);
  result = db.OpenDB();
  if (result != 0) return Fail("Db::OpenDB", result);
  printf("consumer: opened %scameras.db, status %u\n", folder.c_str(), db.GetDBStatus());

  Table* table = db.createTable(record, 1);
  if (table == nullptr) return Fail("Db::createTable", -1);
  Camera cameras[2] = {{7, "porch"}, {9, "garage"}};
  DbFilters all_columns;
  result = table->add_item(cameras, 2, all_columns);
  if (result != 0) return Fail("Table::add_item", result);
  DbFilters no_filter;
  long long count = table->get_item_cnt(no_filter);
  if (count != 2) return Fail("Table::get_item_cnt", count);
  printf("consumer: inserted 2 records, table counts %lld\n", count);

  DbFilters id_column(
      1u, new DbFilter(record->members[0], DB_FILTER_OP_EQ, nullptr, nullptr));
  std::string largest;
  result = table->get_item_max(id_column, no_filter, largest);
  if (result != 9) return Fail("Table::get_item_max", result);
  printf("consumer: largest id %s\n", largest.c_str());

  delete table;
  db.UnInit();  // closes the database first
  if (db.m_pDBConn != nullptr) return Fail("Db::UnInit", -1);
  printf("consumer: closed; sizeof(long) %zu, sizeof(void*) %zu\n", sizeof(long),
         sizeof(void*));
  return 0;
}

}  // namespace

int main() {
  char pattern[] = "/tmp/ipc_db_consumer.XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  std::string folder = std::string(pattern) + "/";
  int status = Run(folder);
  RemoveFolder(folder);
  printf("consumer: %s\n", status == 0 ? "OK" : "FAILED");
  return status;
}
