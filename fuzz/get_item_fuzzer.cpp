// libFuzzer target: whole reads through Table::get_item on a real table.
// At start-up a plain database file in a temporary directory gets a table of
// 40 rows with every column kind (and NULLs, over-long texts and blobs,
// 64-bit numbers, a quote) and is opened once. Every input gets its own
// record description and Tables, and after its read the target checks that
// the file still holds the bytes it was built with and no transaction is
// open: every input starts from the same state, so a finding replays from
// its input alone, without a connection per input (which would cost twenty
// times the read). Each input picks the naming mode, a column selection, a
// list of filter terms with random operators and values (in buffers of
// exactly the size FuzzSupport.h's rule says the rendering reads) and a row
// limit, and reads. The output array holds every row the table has; the
// limit is left open (0) only when no value holds a quote, since a quote can
// turn the statement into one that yields more rows than the table.
#include <sqlcipher/sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DBConn.h"
#include "Db.h"
#include "DbFilter.h"
#include "FuzzFixture.h"
#include "FuzzSupport.h"
#include "Meta.h"
#include "Table.h"

using ipc_db_fuzz::ExecOrAbort;
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

// The record description, made anew for every input.
struct Descriptions {
  Descriptions();
  Meta int4, int8, char16, char32, blob8, char20, row;
};

Descriptions::Descriptions() {
  int4.Init("int", 4);
  int8.Init("long long", 8);
  char16.Init("char16", 16);
  char32.Init("char32", 32);
  blob8.Init("blob8", 8);
  char20.Init("char20", 20);
  row.Init("t_fuzz", sizeof(FuzzRow));
  row.AddMember(new Member("iId_pa", offsetof(FuzzRow, id), &int4));
  row.AddMember(new Member("iNum", offsetof(FuzzRow, num), &int4));
  row.AddMember(new Member("iBig", offsetof(FuzzRow, big), &int8));
  row.AddMember(new Member("cName", offsetof(FuzzRow, name), &char16));
  row.AddMember(new Member("tNote", offsetof(FuzzRow, note), &char32));
  row.AddMember(new Member("bData", offsetof(FuzzRow, data), &blob8));
  row.AddMember(new Member("dStamp", offsetof(FuzzRow, when), &char20));
}

// The database every input starts from: table t_fuzz (plain column names)
// with kRows rows.
void BuildImage(Db& db) {
  Descriptions d;
  std::unique_ptr<Table> table(db.createTable(&d.row, 1));
  if (table == nullptr) std::abort();
  std::vector<FuzzRow> rows(30);
  for (int i = 0; i < 30; ++i) {
    FuzzRow& r = rows[static_cast<size_t>(i)];
    std::memset(&r, 0, sizeof(r));
    r.num = (i % 7) - 3;
    std::snprintf(r.name, sizeof(r.name), "name%02d", i % 11);
    std::snprintf(r.note, sizeof(r.note), "note %d of the fixture", i);
    for (size_t b = 0; b < sizeof(r.data); ++b)
      r.data[b] = static_cast<unsigned char>(i + static_cast<int>(b));
    std::snprintf(r.when, sizeof(r.when), "2024-01-%02d 10:00:00", 1 + i % 28);
  }
  if (table->add_item(rows.data(), rows.size(), DbFilters(0)) != 0) std::abort();
  ExecOrAbort(db, "insert into t_fuzz(Num) values(NULL);");
  ExecOrAbort(db,
              "insert into t_fuzz(Num, Big, Name) values(2147483647, 1099511627776, "
              "'sixteen-chars-xx');");
  ExecOrAbort(db,
              "insert into t_fuzz(Num, Big, Note) values(-2147483648, -5, "
              "'a note that is far longer than thirty-two characters');");
  ExecOrAbort(db,
              "insert into t_fuzz(Name, Data) values('O''Brien', "
              "x'000102030405060708090a0b0c0d0e0f');");
  ExecOrAbort(db, "insert into t_fuzz(Name, Data, Stamp) values('', x'', '');");
  for (int i = 0; i < 5; ++i)
    ExecOrAbort(db, "insert into t_fuzz(Num) values(" + std::to_string(i * 1000) + ");");
}

// Built at start-up; destroyed at exit, which removes its directory.
std::unique_ptr<ipc_db_fuzz::DatabaseImage> g_image;
// The image opened once: a connection costs far more than a read, and the
// reads leave it as they found it (checked after every input).
std::unique_ptr<ipc_db_fuzz::FreshDatabase> g_database;

// One input's world: the description and two tables on the database.
struct Fixture {
  Fixture();
  Descriptions d;  // declared first: outlives the tables
  std::unique_ptr<Table> plainNames;      // naming mode 1: Id, Num, ...
  std::unique_ptr<Table> decoratedNames;  // naming mode 0: iId_pa, iNum, ...
};

Fixture::Fixture() {
  plainNames.reset(g_database->db.createTable(&d.row, 1));
  if (plainNames == nullptr) std::abort();
  decoratedNames.reset(new Table(&g_database->db, &d.row, 0));
}

// Aborts (a finding) unless the connection is open with no transaction and
// the file still holds the image's bytes: so every input starts from the
// image, as it would on a connection of its own.
void ExpectDatabaseAsBuilt() {
  sqlite3* handle = ipc_db_fuzz::HandleOf(g_database->db);
  if (handle != nullptr && sqlite3_get_autocommit(handle) != 0 && g_image->Matches()) return;
  std::fprintf(stderr, "a read left the database otherwise than it found it\n");
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ipc_db_fuzz::QuietLogs();
  g_image.reset(new ipc_db_fuzz::DatabaseImage("fuzz.db", &BuildImage));
  g_database.reset(new ipc_db_fuzz::FreshDatabase(*g_image));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture f;
  const Meta& row = f.d.row;
  FuzzInput in(data, size);
  Table* table = in.Byte() % 8 == 0 ? f.decoratedNames.get() : f.plainNames.get();
  const size_t memberCount = row.members.size();

  DbFilters cols;
  const int colCount = in.Byte() % 4;
  for (int i = 0; i < colCount; ++i) {
    cols.add_filter(new DbFilter(row.members[in.Byte() % memberCount], DB_FILTER_OP_EQ,
                                 nullptr, nullptr));
  }
  const int termCount = in.Byte() % 6;
  std::vector<FuzzTerm> owned(static_cast<size_t>(termCount));
  DbFilters filters;
  bool quoted = false;
  for (int i = 0; i < termCount; ++i) {
    FuzzTerm& term = owned[static_cast<size_t>(i)];
    filters.add_filter(ReadTerm(in, row.members[in.Byte() % memberCount], &term));
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
  ExpectDatabaseAsBuilt();
  return 0;
}
