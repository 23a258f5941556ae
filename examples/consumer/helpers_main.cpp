// The companion header against the installed package: a ScopedDb opens a
// plain database in a fresh temporary folder, a RecordType checked by the
// compiler describes the record, two records go in and come back counted,
// and the classifier calls the file usable. Exits non-zero when a step
// fails. Built with the CMake target ipc_db::helpers (or, with pkg-config,
// `pkg-config --cflags --libs ipc_db sqlcipher`).
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <string>

#include "ipc_db.h"
#include "ipc_db_helpers.h"

namespace {

struct Camera {
  int id;
  char name[32];
};

int Run(const std::string& folder) {
  static ipc_db::FieldType<4> int_type("int");
  static ipc_db::FieldType<32> name_type("char32");
  static ipc_db::RecordType<Camera> camera("t_camera");
  Member* id = IPC_DB_FIELD(camera, Camera, id, "iId_p", int_type);
  Member* name = IPC_DB_FIELD(camera, Camera, name, "cName", name_type);
  if (id == nullptr || name == nullptr) return 1;

  ipc_db::ScopedDb owner;
  long long result = owner.Open(folder, "cameras.db", "cameras.db-journal", nullptr, 0);
  if (result != 0) {
    printf("helpers consumer: ScopedDb::Open failed (%lld)\n", result);
    return 1;
  }
  std::unique_ptr<Table> table(owner->createTable(camera.meta(), 1));
  if (!table) return 1;
  Camera cameras[2] = {{7, "porch"}, {9, "garage"}};
  DbFilters all_columns;
  if (table->add_item(cameras, 2, all_columns) != 0) return 1;
  ipc_db::TextValue<32> porch("porch");
  DbFilters by_name(1, ipc_db::NewTerm(name, DB_FILTER_OP_EQ, porch));
  const long long count = table->get_item_cnt(by_name);
  const ipc_db::DbDiagnosis state = ipc_db::ClassifyOpenDb(owner.db());
  printf("helpers consumer: %lld record named porch, file %s\n", count,
         ipc_db::DbStateName(state.state));
  table.reset();
  if (owner.Close() != 0) return 1;
  unlink((folder + "cameras.db").c_str());
  rmdir(folder.c_str());
  return count == 1 && state.state == ipc_db::DbState::kUsable ? 0 : 1;
}

}  // namespace

int main() {
  char pattern[] = "/tmp/ipc_db_helpers_consumer.XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  const int status = Run(std::string(pattern) + "/");
  printf("helpers consumer: %s\n", status == 0 ? "OK" : "FAILED");
  return status;
}
