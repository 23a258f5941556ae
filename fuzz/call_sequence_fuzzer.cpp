// libFuzzer target: sequences of public calls with caller mistakes in them.
// At start-up a plain database file in a fresh temporary directory gets a
// table of records of every column kind. Each input is decoded into up to 24
// calls on the facade, the table operations, the filters and the connection,
// with arguments picked from sets that mix correct and wrong ones: null and
// correct buffers (always exactly as large as the count the call is given, so
// that any access beyond them is the library's), counts 0, small and so large
// that their byte size wraps, Metas with a null member, a member without type
// description, a record size of 0 or one too small for the members, filter
// terms with null members, values and arrays, Tables without Db or Meta, and
// the Db closed, uninitialised or open again. AddressSanitizer and
// UndefinedBehaviorSanitizer report what goes wrong; the target also checks
// that every table and facade call returns 0, -1 or a count (never throws).
// Text values never hold a quote: a quote changes the statement, by design.
#include <sqlcipher/sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "DBConn.h"
#include "Db.h"
#include "DbFilter.h"
#include "FuzzSupport.h"
#include "Meta.h"
#include "SQLiteDBConn.h"
#include "Table.h"
#include "TableChange.h"

using ipc_db_fuzz::FuzzInput;
using ipc_db_fuzz::Slot;

namespace {

struct Rec {
  int32_t id;
  int32_t age;
  char name[8];
  char note[16];
  unsigned char data[8];
};

// Reads no more than this many rows at once: the table is emptied above it.
constexpr unsigned long long kRowCap = 40;
// Room for every row an unlimited read can return.
constexpr size_t kReadRoom = 128;
constexpr int kMaxCalls = 24;

// Kinds of record description the calls may be given.
enum MetaKind { kGood, kNullMember, kNoTypeMeta, kSizeZero, kSizeSmall, kMetaKinds };

struct Fixture {
  std::string dir;
  Meta int4, char8, char16, blob8;
  Meta metas[kMetaKinds];
  Meta smallLayout, wideLayout, badLayout;
  Member loose{"cName", 0, nullptr};  // a member without type description
  Member farOffset{"cName", 0xFFFFFFF8u, nullptr};
  Db db;
  std::unique_ptr<Table> tables[kMetaKinds];
  std::unique_ptr<Table> noDb, noMeta;
};

Fixture* g_fixture = nullptr;

void RemoveFixtureFiles() {
  if (g_fixture == nullptr) return;
  g_fixture->db.UnInit();
  unlink((g_fixture->dir + "calls.db").c_str());
  unlink((g_fixture->dir + "calls.db-journal").c_str());
  rmdir(g_fixture->dir.c_str());
}

void Describe(Fixture& f, Meta* meta) {
  meta->Init("t_calls", sizeof(Rec));
  meta->AddMember(new Member("iId_pa", offsetof(Rec, id), &f.int4));
  meta->AddMember(new Member("iAge", offsetof(Rec, age), &f.int4));
  meta->AddMember(new Member("cName", offsetof(Rec, name), &f.char8));
  meta->AddMember(new Member("tNote", offsetof(Rec, note), &f.char16));
  meta->AddMember(new Member("bData", offsetof(Rec, data), &f.blob8));
  for (Member* member : meta->members) f.db.preProcMember(member);
}

sqlite3* Handle(Db& db) {
  if (db.m_pDBConn == nullptr) return nullptr;
  return static_cast<CSqliteDBConn*>(db.m_pDBConn)->m_pSqliteDB;
}

void Open(Fixture& f) {
  char noKey[1] = {0};
  if (f.db.m_pDBConn == nullptr &&
      f.db.Init(0, f.dir, "calls.db", "calls.db-journal", noKey, 0) != 0) {
    std::abort();
  }
  if (Handle(f.db) == nullptr && f.db.OpenDB() != 0) std::abort();
}

void BuildFixture() {
  g_fixture = new Fixture;
  Fixture& f = *g_fixture;
  char pattern[] = "/tmp/ipc_db_calls.XXXXXX";
  if (mkdtemp(pattern) == nullptr) std::abort();
  f.dir = std::string(pattern) + "/";
  atexit(&RemoveFixtureFiles);
  f.int4.Init("int", 4);
  f.char8.Init("char8", 8);
  f.char16.Init("char16", 16);
  f.blob8.Init("blob8", 8);
  Open(f);
  for (Meta& meta : f.metas) Describe(f, &meta);
  f.metas[kNullMember].members.push_back(nullptr);
  f.metas[kNoTypeMeta].Get("iAge")->type_meta = nullptr;
  f.metas[kSizeZero].type_size = 0;
  f.metas[kSizeSmall].type_size = offsetof(Rec, data) + 4;
  f.tables[kGood].reset(f.db.createTable(&f.metas[kGood], 0));
  if (f.tables[kGood] == nullptr) std::abort();
  for (int kind = 1; kind < kMetaKinds; ++kind) {
    f.tables[kind].reset(new Table(&f.db, &f.metas[kind], 0));
  }
  f.noDb.reset(new Table(nullptr, &f.metas[kGood], 0));
  f.noMeta.reset(new Table(&f.db, nullptr, 0));
  f.smallLayout.Init("small", 8);
  f.smallLayout.AddMember(new Member("iAge", 0, &f.int4));
  f.smallLayout.AddMember(new Member("cName", 0, &f.char8));
  f.wideLayout.Init("wide", 5000);
  f.wideLayout.AddMember(new Member("tNote", 0, &f.char16));
  f.badLayout.Init("bad", 8);
  f.badLayout.AddMember(new Member("tNote", 2, &f.char16));
}

// Everything one call needs that the input chooses, owned for the call.
struct Arena {
  std::vector<std::unique_ptr<char[]>> buffers;
  char* Buffer(FuzzInput& in, size_t size) {
    buffers.push_back(in.Buffer(size));
    char* data = buffers.back().get();
    for (size_t i = 0; i < size; ++i) {
      if (data[i] == '\'') data[i] = 'q';
    }
    return data;
  }
};

Member* PickMember(Fixture& f, FuzzInput& in) {
  const uint8_t pick = in.Byte() % 8;
  if (pick == 5) return nullptr;
  if (pick == 6) return &f.loose;
  if (pick == 7) return f.smallLayout.members[0];
  return f.metas[kGood].members[pick];
}

// A term with a member and values picked from the input: numbers in the
// slots, buffers as wide as the member's field reads (plus the byte past
// it), arrays as long as their count, or null pointers.
DbFilter* PickTerm(Fixture& f, FuzzInput& in, Arena* arena) {
  Member* member = PickMember(f, in);
  const int op = in.Byte() % 16;
  void* value1 = Slot(static_cast<int32_t>(in.Byte()) - 64);
  void* value2 = Slot(static_cast<int32_t>(in.Byte()) - 64);
  const size_t width = member != nullptr && member->type_meta != nullptr
                           ? member->type_meta->type_size
                           : 0;
  const bool integer = member != nullptr && member->sql_type == "INTEGER";
  if (op == DB_FILTER_OP_IN) {
    const int32_t count = static_cast<int32_t>(in.Byte() % 5);
    size_t bytes = ipc_db_fuzz::ValueBytes(op, integer, width, count);
    value1 = in.Byte() % 4 == 0 ? nullptr : arena->Buffer(in, bytes);
    value2 = Slot(count);
  } else if ((op == DB_FILTER_OP_LIKE || !integer) && width > 0) {
    // Like reads its pattern through the slot whatever the column type.
    value1 = in.Byte() % 4 == 0 ? nullptr : arena->Buffer(in, width + 1);
    value2 = in.Byte() % 4 == 0 ? nullptr : arena->Buffer(in, width + 1);
  } else if (in.Byte() % 4 == 0) {
    value1 = nullptr;
  }
  if (in.Byte() % 16 == 0) return nullptr;
  return new DbFilter(member, static_cast<DbFilterOperator>(op), value1, value2);
}

void PickTerms(Fixture& f, FuzzInput& in, Arena* arena, DbFilters* list, int most) {
  const int count = in.Byte() % (most + 1);
  for (int i = 0; i < count; ++i) list->filters.push_back(PickTerm(f, in, arena));
}

// A column list: members only (values are not read).
void PickColumns(Fixture& f, FuzzInput& in, DbFilters* list) {
  const int count = in.Byte() % 3;
  for (int i = 0; i < count; ++i) {
    if (in.Byte() % 16 == 0) {
      list->filters.push_back(nullptr);
    } else {
      list->filters.push_back(
          new DbFilter(PickMember(f, in), DB_FILTER_OP_EQ, nullptr, nullptr));
    }
  }
}

Table* PickTable(Fixture& f, FuzzInput& in) {
  const uint8_t pick = in.Byte() % 16;
  if (pick == 14) return f.noDb.get();
  if (pick == 15) return f.noMeta.get();
  return f.tables[pick < 9 ? kGood : pick - 8].get();
}

size_t StrideOf(const Table* table) {
  return table->meta_data == nullptr ? sizeof(Rec) : table->meta_data->type_size;
}

// A count: 0, small, or one whose byte size at `stride` wraps around.
unsigned long long PickCount(FuzzInput& in, size_t stride) {
  const uint8_t pick = in.Byte() % 8;
  if (pick == 7) return SIZE_MAX / (stride == 0 ? 1 : stride) + 1;
  return pick % 4;
}

Meta* PickLayout(Fixture& f, FuzzInput& in) {
  switch (in.Byte() % 6) {
    case 0:
      return nullptr;
    case 1:
      return &f.wideLayout;
    case 2:
      return &f.badLayout;
    case 3:
      return &f.metas[in.Byte() % kMetaKinds];
    default:
      return &f.smallLayout;
  }
}

void ExpectResult(long long result, const char* call) {
  if (result == 0 || result == -1) return;
  std::fprintf(stderr, "%s returned %lld\n", call, result);
  std::abort();
}

// Keeps the table small and no transaction open between inputs.
void Settle(Fixture& f) {
  sqlite3* db = Handle(f.db);
  if (db == nullptr) return;
  if (sqlite3_get_autocommit(db) == 0)
    sqlite3_exec(db, "rollback;", nullptr, nullptr, nullptr);
  sqlite3_stmt* stmt = nullptr;
  unsigned long long rows = 0;
  if (sqlite3_prepare_v2(db, "select count(*) from t_calls;", -1, &stmt, nullptr) ==
          SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    rows = static_cast<unsigned long long>(sqlite3_column_int64(stmt, 0));
  }
  sqlite3_finalize(stmt);
  if (rows > kRowCap) sqlite3_exec(db, "delete from t_calls;", nullptr, nullptr, nullptr);
}

void RunOneCall(Fixture& f, FuzzInput& in) {
  Arena arena;
  Table* table = PickTable(f, in);
  const size_t stride = StrideOf(table);
  std::vector<char> room(kReadRoom * sizeof(Rec) * 2);
  unsigned long long count = 0;
  std::string out;
  switch (in.Byte() % 20) {
    case 0: {  // insert
      count = PickCount(in, stride);
      size_t bytes = count <= 3 ? static_cast<size_t>(count) * stride : stride;
      char* records = in.Byte() % 8 == 0 ? nullptr : arena.Buffer(in, bytes);
      DbFilters cols;
      PickColumns(f, in, &cols);
      ExpectResult(table->add_item(records, count, cols), "add_item");
      return;
    }
    case 1: {
      DbFilters set, where;
      PickTerms(f, in, &arena, &set, 2);
      PickTerms(f, in, &arena, &where, 3);
      ExpectResult(table->update_item(set, where), "update_item");
      return;
    }
    case 2: {
      const size_t lists = 1 + in.Byte() % 3;
      std::unique_ptr<DbFilters[]> array(new DbFilters[lists]);
      for (size_t i = 0; i < lists; ++i) PickTerms(f, in, &arena, &array[i], 2);
      count =
          in.Byte() % 8 == 7 ? SIZE_MAX / sizeof(DbFilters) + 1 : in.Byte() % (lists + 1);
      ExpectResult(table->rmv_item(in.Byte() % 8 == 0 ? nullptr : array.get(), count),
                   "rmv_item");
      return;
    }
    case 3:
    case 4: {  // reads into records: the limit is the room the buffer has
      DbFilters cols, filters;
      PickColumns(f, in, &cols);
      PickTerms(f, in, &arena, &filters, 3);
      Meta* layout = PickLayout(f, in);
      const size_t layoutStride = layout == nullptr ? 8 : layout->type_size;
      count = PickCount(in, in.Byte() % 2 == 0 ? stride : layoutStride);
      // An unlimited read may return every row: the buffer holds them all.
      char* records = in.Byte() % 8 == 0 ? nullptr : room.data();
      if (count > 3) count = SIZE_MAX / (stride == 0 ? 1 : stride) + 1;
      if (layout != nullptr && layoutStride * kReadRoom > room.size()) count = 1;
      const bool intoLayout = in.Byte() % 2 == 0;
      if (intoLayout) {
        if (count > 3) count = SIZE_MAX / (layoutStride == 0 ? 1 : layoutStride) + 1;
        ExpectResult(table->get_item_z(cols, filters, count, records, layout),
                     "get_item_z");
      } else {
        ExpectResult(table->get_item(cols, filters, count, records), "get_item");
      }
      return;
    }
    case 5:
    case 6:
    case 7: {
      DbFilters cols, filters;
      PickColumns(f, in, &cols);
      PickTerms(f, in, &arena, &filters, 3);
      count = in.Byte() % 4;
      std::list<std::string> list;
      std::vector<std::string> vec;
      std::set<std::string> set;
      const uint8_t kind = in.Byte() % 3;
      if (kind == 0) {
        ExpectResult(table->get_item_lz(cols, filters, count, list, PickLayout(f, in)),
                     "lz");
      } else if (kind == 1) {
        ExpectResult(table->get_item_vz(cols, filters, count, vec, PickLayout(f, in)),
                     "vz");
      } else {
        Member* member = in.Byte() % 3 == 0 ? &f.farOffset : PickMember(f, in);
        if (member == &f.farOffset)
          member->type_meta = in.Byte() % 2 ? &f.char8 : nullptr;
        ExpectResult(table->get_item_sz(cols, filters, count, set, member), "sz");
      }
      return;
    }
    case 8: {
      DbFilters filters;
      PickTerms(f, in, &arena, &filters, 3);
      if (table->get_item_cnt(filters) < -1) std::abort();
      return;
    }
    case 9:
    case 10: {  // aggregates over the text and blob columns (integer ones return values)
      DbFilters col, filters;
      if (in.Byte() % 8 == 0) {
        PickColumns(f, in, &col);
      } else {
        Member* member =
            in.Byte() % 4 == 0 ? nullptr : f.metas[kGood].members[2 + in.Byte() % 3];
        col.filters.push_back(in.Byte() % 16 == 0 ? nullptr
                                                  : new DbFilter(member, DB_FILTER_OP_EQ,
                                                                 nullptr, nullptr));
      }
      PickTerms(f, in, &arena, &filters, 3);
      long long result = in.Byte() % 2 ? table->get_item_max(col, filters, out)
                                       : table->get_item_min(col, filters, out);
      bool integer = col.filters.size() == 1 && col.filters[0] != nullptr &&
                     col.filters[0]->member != nullptr &&
                     col.filters[0]->member->sql_type == "INTEGER";
      if (!integer) ExpectResult(result, "get_item_max/min");
      return;
    }
    case 11:
      ExpectResult(table->add_index("idx_calls", PickMember(f, in)), "add_index");
      return;
    case 12:
      ExpectResult(table->drop_index(in.Byte() % 2 ? "idx_calls" : "NONE"), "drop_index");
      return;
    case 13:
      table->table_vacuum();
      table->toString("");
      return;
    case 14:
      f.db.CloseDB();
      return;
    case 15:
      if (in.Byte() % 2) f.db.UnInit();
      Open(f);
      return;
    case 16: {
      Meta* meta = &f.metas[in.Byte() % kMetaKinds];
      std::unique_ptr<Table> created(f.db.createTable(meta, in.Byte() % 2));
      return;
    }
    case 17: {
      Member* member = PickMember(f, in);
      TableChange change(in.Byte() % 2, member);
      change.toString();
      ExpectResult(f.db.updateTable("t_calls", change, "0", 0), "updateTable");
      f.db.getType(&f.loose);
      return;
    }
    case 18: {
      DbFilters list;
      PickTerms(f, in, &arena, &list, 3);
      list.toString();
      for (DbFilter* term : list.filters) {
        if (term != nullptr) term->op2StrAnalyze();
      }
      return;
    }
    default: {
      CDBConn* conn = f.db.m_pDBConn;
      if (conn == nullptr) return;
      DB_EXEC_RESULT result = {0, 0, nullptr};
      conn->ExecuteSQL(nullptr, in.Byte() % 2 ? &result : nullptr, DB_EXEC_SQL_SYNC);
      conn->FreeExecuteResult(&result);
      conn->GetCountOfSQLResult(nullptr);
      conn->WhetherTableExist(nullptr);
      conn->GetRowCount(nullptr);
      f.db.reEncryptDB(nullptr, 0);
      conn->ReEncryptDB(nullptr, 64);
      return;
    }
  }
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
  Open(f);
  Settle(f);
  const int calls = 1 + in.Byte() % kMaxCalls;
  for (int i = 0; i < calls; ++i) {
    RunOneCall(f, in);
    Settle(f);
  }
  Open(f);
  Settle(f);
  return 0;
}
