// A small program that writes, reads and probes a database file through the
// library, for the cross-engine tests: the same file is written by a build
// on one engine and read by a build on the other, in separate processes
// (tests/cross_engine_test.sh). Exit status 0 when the step did what it
// says, 1 otherwise, with one line on what it found.
//
//   engine_file_tool write DIR FILE KEY ROWS   ROWS events into a new file
//   engine_file_tool read  DIR FILE KEY ROWS   the file holds exactly them
//   engine_file_tool probe DIR FILE KEY        SQLCipher 3's format only
// KEY is a 64-character key, or "-" for a plain file.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "EngineFormat.h"
#include "ReliabilityTestSupport.h"

using ipc_db_test::Event;
using ipc_db_test::EventSchema;

namespace {

int Fail(const std::string& what) {
  std::printf("engine %s: %s\n", ipc_db_test::EngineCipherVersion().c_str(), what.c_str());
  return 1;
}

int Write(const std::string& dir, const std::string& file, const std::string& key, int rows) {
  EventSchema schema;
  Db db;
  if (ipc_db_test::OpenEventDb(db, dir, file, key) != 0) return Fail("open failed");
  std::unique_ptr<Table> table(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
  if (table == nullptr) return Fail("createTable failed");
  std::vector<Event> events = ipc_db_test::MakeBatch(1, rows, 7);
  if (table->add_item(events.data(), events.size(), DbFilters(0)) != 0) {
    return Fail("add_item failed");
  }
  db.UnInit();
  std::printf("engine %s: wrote %d rows\n", ipc_db_test::EngineCipherVersion().c_str(), rows);
  return 0;
}

int Read(const std::string& dir, const std::string& file, const std::string& key, int rows) {
  EventSchema schema;
  Db db;
  if (ipc_db_test::OpenEventDb(db, dir, file, key) != 0) return Fail("open failed");
  // createTable prepares the members (column kinds) as an application's
  // start does; the table exists already.
  std::unique_ptr<Table> table(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
  if (table == nullptr) return Fail("createTable failed");
  std::vector<Event> read(static_cast<size_t>(rows) + 1);
  unsigned long long got = read.size();
  DbFilters cols(0);
  DbFilters all(0);
  long long result = table->get_item(cols, all, got, read.data());
  table.reset();
  db.UnInit();
  if (result != 0) return Fail("get_item failed: " + std::to_string(result));
  if (got != static_cast<unsigned long long>(rows)) {
    return Fail("read " + std::to_string(got) + " rows, expected " + std::to_string(rows));
  }
  const std::vector<Event> expected = ipc_db_test::MakeBatch(1, rows, 7);
  for (size_t i = 0; i < expected.size(); ++i) {
    if (read[i].seq != expected[i].seq || read[i].value != expected[i].value ||
        std::strcmp(read[i].text, expected[i].text) != 0) {
      return Fail("row " + std::to_string(i) + " differs: seq " + std::to_string(read[i].seq) +
                  ", value " + std::to_string(read[i].value) + ", text '" +
                  std::string(read[i].text, strnlen(read[i].text, sizeof(read[i].text))) +
                  "'");
    }
  }
  std::printf("engine %s: read %d rows\n", ipc_db_test::EngineCipherVersion().c_str(), rows);
  return 0;
}

int Probe(const std::string& path, const std::string& key) {
  ipc_db_test::KeyedFileFormat format = ipc_db_test::ProbeKeyedFile(path, key);
  std::printf("engine %s: SQLCipher 3 settings %s, SQLCipher 4 settings %s, page size %lld, "
              "%lld bytes\n",
              ipc_db_test::EngineCipherVersion().c_str(),
              format.readsAsSqlcipher3 ? "read" : "refused",
              format.readsAsSqlcipher4 ? "read" : "refused", format.pageSize,
              format.fileSize);
  const bool sqlcipher3 = format.readsAsSqlcipher3 && !format.readsAsSqlcipher4 &&
                          format.pageSize == 1024 && format.fileSize % 1024 == 0;
  return sqlcipher3 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: %s write|read DIR FILE KEY ROWS | probe DIR FILE KEY\n",
                 argv[0]);
    return 2;
  }
  const std::string command = argv[1];
  std::string dir = argv[2];
  if (dir.empty() || dir.back() != '/') dir += '/';
  const std::string file = argv[3];
  const std::string key = std::strcmp(argv[4], "-") == 0 ? "" : argv[4];
  const int rows = argc > 5 ? std::atoi(argv[5]) : 0;
  if (command == "write" && rows > 0) return Write(dir, file, key, rows);
  if (command == "read" && rows > 0) return Read(dir, file, key, rows);
  if (command == "probe") return Probe(dir + file, key);
  std::fprintf(stderr, "engine_file_tool: unknown command or no row count\n");
  return 2;
}
