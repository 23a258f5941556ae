// libFuzzer target: whole reads through Table::get_item on a real table.
// At start-up a plain database file in a fresh temporary directory gets a
// table of 40 rows with every column kind (and NULLs, over-long texts and
// blobs, 64-bit numbers, a quote). Each input picks the naming mode, a
// column selection, a list of filter terms with random operators and values
// (in buffers of exactly the size the rendering may read) and a row limit,
// and reads. The output array holds every row the table has; the limit is
// left open (0) only when no value holds a quote, since a quote can turn
// the statement into one that yields more rows than the table.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DBConn.h"
#include "Db.h"
#include "DbFilter.h"
#include "FuzzSupport.h"
#include "Meta.h"
#include "Table.h"

using ipc_db_fuzz::FuzzInput;
using ipc_db_fuzz::FuzzTerm;
using ipc_db_fuzz::ReadTerm;

namespace {

struct FuzzRow {
  int32_t id;
  int32_t num;
  int64_t big;
  char name[16];
  char note[32];
  unsigned char data[8];
  char when[20];
};

constexpr int kRows = 40;

struct Fixture {
  std::string dir;
  Meta int4, int8, char16, char32, blob8, char20, row;
  Db db;
  std::unique_ptr<Table> plainNames;      // naming mode 1: Id, Num, ...
  std::unique_ptr<Table> decoratedNames;  // naming mode 0: iId_pa, iNum, ...
};

Fixture* g_fixture = nullptr;

void RemoveFixtureFiles() {
  if (g_fixture == nullptr) return;
  g_fixture->db.UnInit();
  unlink((g_fixture->dir + "fuzz.db").c_str());
  unlink((g_fixture->dir + "fuzz.db-journal").c_str());
  rmdir(g_fixture->dir.c_str());
}

void Exec(Db& db, const std::string& sql) {
  if (db.m_pDBConn->ExecuteSQL(sql.c_str(), nullptr, DB_EXEC_SQL_SYNC) != 0) {
    std::fprintf(stderr, "fixture statement failed: %s\n", sql.c_str());
    std::abort();
  }
}

void BuildFixture() {
  g_fixture = new Fixture;
  Fixture& f = *g_fixture;
  char pattern[] = "/tmp/ipc_db_fuzz.XXXXXX";
  if (mkdtemp(pattern) == nullptr) std::abort();
  f.dir = std::string(pattern) + "/";
  atexit(&RemoveFixtureFiles);
  f.int4.Init("int", 4);
  f.int8.Init("long long", 8);
  f.char16.Init("char16", 16);
  f.char32.Init("char32", 32);
  f.blob8.Init("blob8", 8);
  f.char20.Init("char20", 20);
  f.row.Init("t_fuzz", sizeof(FuzzRow));
  f.row.AddMember(new Member("iId_pa", offsetof(FuzzRow, id), &f.int4));
  f.row.AddMember(new Member("iNum", offsetof(FuzzRow, num), &f.int4));
  f.row.AddMember(new Member("iBig", offsetof(FuzzRow, big), &f.int8));
  f.row.AddMember(new Member("cName", offsetof(FuzzRow, name), &f.char16));
  f.row.AddMember(new Member("tNote", offsetof(FuzzRow, note), &f.char32));
  f.row.AddMember(new Member("bData", offsetof(FuzzRow, data), &f.blob8));
  f.row.AddMember(new Member("dStamp", offsetof(FuzzRow, when), &f.char20));
  char noKey[1] = {0};
  if (f.db.Init(0, f.dir, "fuzz.db", "fuzz.db-journal", noKey, 0) != 0 ||
      f.db.OpenDB() != 0) {
    std::abort();
  }
  f.plainNames.reset(f.db.createTable(&f.row, 1));
  if (f.plainNames == nullptr) std::abort();
  f.decoratedNames.reset(new Table(&f.db, &f.row, 0));

  std::vector<FuzzRow> rows(30);
  for (int i = 0; i < 30; ++i) {
    FuzzRow& r = rows[static_cast<size_t>(i)];
    std::memset(&r, 0, sizeof(r));
    r.num = (i % 7) - 3;
    std::snprintf(r.name, sizeof(r.name), "name%02d", i % 11);
    std::snprintf(r.note, sizeof(r.note), "note %d of the fixture", i);
    for (size_t b = 0; b < sizeof(r.data); ++b)
      r.data[b] = static_cast<unsigned char>(i + b);
    std::snprintf(r.when, sizeof(r.when), "2024-01-%02d 10:00:00", 1 + i % 28);
  }
  if (f.plainNames->add_item(rows.data(), rows.size(), DbFilters(0)) != 0) std::abort();
  Exec(f.db, "insert into t_fuzz(Num) values(NULL);");
  Exec(f.db,
       "insert into t_fuzz(Num, Big, Name) values(2147483647, 1099511627776, "
       "'sixteen-chars-xx');");
  Exec(f.db,
       "insert into t_fuzz(Num, Big, Note) values(-2147483648, -5, "
       "'a note that is far longer than thirty-two characters');");
  Exec(f.db,
       "insert into t_fuzz(Name, Data) values('O''Brien', "
       "x'000102030405060708090a0b0c0d0e0f');");
  Exec(f.db, "insert into t_fuzz(Name, Data, Stamp) values('', x'', '');");
  for (int i = 0; i < 5; ++i)
    Exec(f.db, "insert into t_fuzz(Num) values(" + std::to_string(i * 1000) + ");");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ipc_db_fuzz::QuietLogs();
  BuildFixture();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture& f = *g_fixture;
  FuzzInput in(data, size);
  Table* table = in.Byte() % 8 == 0 ? f.decoratedNames.get() : f.plainNames.get();
  const size_t memberCount = f.row.members.size();

  DbFilters cols;
  const int colCount = in.Byte() % 4;
  for (int i = 0; i < colCount; ++i) {
    cols.add_filter(new DbFilter(f.row.members[in.Byte() % memberCount], DB_FILTER_OP_EQ,
                                 nullptr, nullptr));
  }
  const int termCount = in.Byte() % 6;
  std::vector<FuzzTerm> owned(static_cast<size_t>(termCount));
  DbFilters filters;
  bool quoted = false;
  for (int i = 0; i < termCount; ++i) {
    FuzzTerm& term = owned[static_cast<size_t>(i)];
    filters.add_filter(ReadTerm(in, f.row.members[in.Byte() % memberCount], &term));
    quoted = quoted || term.HasQuote();
  }
  unsigned long long limit = in.Byte() % (kRows + 1);
  if (limit == 0 && quoted) limit = kRows;
  unsigned long long itemcnt = limit;

  std::vector<FuzzRow> out(kRows);
  const long long result = table->get_item(cols, filters, itemcnt, out.data());
  if (result != 0 && result != -1) std::abort();
  if (result == 0 && itemcnt > kRows) std::abort();
  if (result == 0 && limit != 0 && itemcnt > limit) std::abort();
  if (result == -1 && itemcnt != limit) std::abort();  // left alone on refusal
  return 0;
}
