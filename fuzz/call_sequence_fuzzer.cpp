// libFuzzer target: sequences of public calls with caller mistakes in them.
// Every input gets a fresh fixture: its own record descriptions and a plain
// database file in a fresh temporary directory, copied from an image built
// once (a table of records of every column kind holding a few rows), opened
// by a Db of its own. Nothing carries over between inputs, so a finding
// replays from its input alone. Each input is decoded into up to 24 calls on
// the facade, the table operations, the filters and the connection, with
// arguments picked from sets that mix correct and wrong ones: null and
// correct buffers (always exactly as large as the count the call is given,
// and value buffers exactly as large as FuzzSupport.h's rule says the call
// reads, so that any access beyond them is the library's), counts 0, small
// and so large that their byte size wraps, Metas with a null member, a
// member without type description, a record size of 0 or one too small for
// the members, filter terms with null members, values and arrays, Tables
// without Db or Meta, and the Db closed, uninitialised or open again.
// AddressSanitizer and UndefinedBehaviorSanitizer report what goes wrong;
// the target also checks that every table and facade call returns 0, -1 or
// a count (never throws). Text values never hold a quote: a quote changes
// the statement, by design.
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
#include "FuzzFixture.h"
#include "FuzzSupport.h"
#include "Meta.h"
#include "Table.h"
#include "TableChange.h"

using ipc_db_fuzz::ColumnKind;
using ipc_db_fuzz::FuzzInput;
using ipc_db_fuzz::Slot;
using ipc_db_fuzz::TermUse;

namespace {

struct Rec {
  int32_t id;
  int32_t age;
  char name[8];
  char note[16];
  unsigned char data[8];
};

// Rows the image holds, so that updates, removals and reads find some.
constexpr int kImageRows = 6;
constexpr int kMaxCalls = 24;
// Records one insert call writes at most (a larger count is refused).
constexpr int kMostInserted = 3;
// Room for every row an unlimited read can return.
constexpr size_t kReadRoom = 128;
static_assert(kImageRows + kMaxCalls * kMostInserted <= static_cast<int>(kReadRoom),
              "a read without a limit must fit the read buffer");

// Kinds of record description the calls may be given.
enum MetaKind { kGood, kNullMember, kNoTypeMeta, kSizeZero, kSizeSmall, kMetaKinds };

// The record descriptions, made anew for every input: calls change members
// (an index name, a type description).
struct Descriptions {
  Descriptions();
  Meta int4, char8, char16, blob8;
  Meta metas[kMetaKinds];
  Meta smallLayout, wideLayout, badLayout;
  Member loose{"cName", 0, nullptr};  // a member without type description
  Member farOffset{"cName", 0xFFFFFFF8u, nullptr};

 private:
  void Describe(Meta* meta);
};

void Descriptions::Describe(Meta* meta) {
  meta->Init("t_calls", sizeof(Rec));
  meta->AddMember(new Member("iId_pa", offsetof(Rec, id), &int4));
  meta->AddMember(new Member("iAge", offsetof(Rec, age), &int4));
  meta->AddMember(new Member("cName", offsetof(Rec, name), &char8));
  meta->AddMember(new Member("tNote", offsetof(Rec, note), &char16));
  meta->AddMember(new Member("bData", offsetof(Rec, data), &blob8));
  Db naming;  // the naming rule needs no connection
  for (Member* member : meta->members) naming.preProcMember(member);
}

Descriptions::Descriptions() {
  int4.Init("int", 4);
  char8.Init("char8", 8);
  char16.Init("char16", 16);
  blob8.Init("blob8", 8);
  for (Meta& meta : metas) Describe(&meta);
  metas[kNullMember].members.push_back(nullptr);
  metas[kNoTypeMeta].Get("iAge")->type_meta = nullptr;
  metas[kSizeZero].type_size = 0;
  metas[kSizeSmall].type_size = offsetof(Rec, data) + 4;
  smallLayout.Init("small", 8);
  smallLayout.AddMember(new Member("iAge", 0, &int4));
  smallLayout.AddMember(new Member("cName", 0, &char8));
  wideLayout.Init("wide", 5000);
  wideLayout.AddMember(new Member("tNote", 0, &char16));
  badLayout.Init("bad", 8);
  badLayout.AddMember(new Member("tNote", 2, &char16));
}

// The database every input starts from: table t_calls with kImageRows rows,
// every column set (blobs of 8 bytes, texts that fill their fields).
void BuildImage(Db& db) {
  Descriptions d;
  std::unique_ptr<Table> table(db.createTable(&d.metas[kGood], 0));
  if (table == nullptr) std::abort();
  Rec rows[kImageRows];
  std::memset(rows, 0, sizeof(rows));
  for (int i = 0; i < kImageRows; ++i) {
    Rec& row = rows[i];
    row.age = i * 10 - 20;
    std::snprintf(row.name, sizeof(row.name), "n%d", i);
    std::memset(row.note, 'a' + i, sizeof(row.note));
    for (size_t b = 0; b < sizeof(row.data); ++b)
      row.data[b] = static_cast<unsigned char>(i * 8 + static_cast<int>(b));
  }
  if (table->add_item(rows, kImageRows, DbFilters(0)) != 0) std::abort();
}

// Built at start-up; destroyed at exit, which removes its directory.
std::unique_ptr<ipc_db_fuzz::DatabaseImage> g_image;

// One input's world: descriptions, database and the tables over them.
struct Fixture {
  Fixture();
  Descriptions d;  // declared first: outlives the tables and the database
  ipc_db_fuzz::FreshDatabase files;
  Db& db;
  std::unique_ptr<Table> tables[kMetaKinds];
  std::unique_ptr<Table> noDb, noMeta;
};

Fixture::Fixture() : files(*g_image), db(files.db) {
  tables[kGood].reset(db.createTable(&d.metas[kGood], 0));
  if (tables[kGood] == nullptr) std::abort();
  for (int kind = 1; kind < kMetaKinds; ++kind) {
    tables[kind].reset(new Table(&db, &d.metas[kind], 0));
  }
  noDb.reset(new Table(nullptr, &d.metas[kGood], 0));
  noMeta.reset(new Table(&db, nullptr, 0));
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
  if (pick == 6) return &f.d.loose;
  if (pick == 7) return f.d.smallLayout.members[0];
  return f.d.metas[kGood].members[pick];
}

// A value slot through which a term reads `bytes`: a buffer of exactly that
// size filled from the input, or, when the term reads nothing there, a small
// number (an in-list's array stays a buffer, if only of zero bytes); null
// one time in four.
void* PickValue(FuzzInput& in, Arena* arena, size_t bytes, bool array) {
  const uint8_t pick = in.Byte();
  if (pick % 4 == 0) return nullptr;
  if (bytes == 0 && !array) return Slot(static_cast<int32_t>(pick) - 64);
  return arena->Buffer(in, bytes);
}

// A term with a member, an operator and values picked from the input, its
// buffers sized by the rule of FuzzSupport.h for the call's `use`.
DbFilter* PickTerm(Fixture& f, FuzzInput& in, Arena* arena, TermUse use) {
  Member* member = PickMember(f, in);
  const int op = in.Byte() % 16;
  const size_t width = member != nullptr && member->type_meta != nullptr
                           ? member->type_meta->type_size
                           : 0;
  const ColumnKind kind = ipc_db_fuzz::KindOf(member);
  const bool in_list = op == DB_FILTER_OP_IN;
  const int32_t count = in_list ? static_cast<int32_t>(in.Byte() % 5) : 0;
  void* value1 =
      PickValue(in, arena, ipc_db_fuzz::Value1Bytes(use, kind, op, width, count), in_list);
  void* value2 = in_list ? Slot(count)
                         : PickValue(in, arena,
                                     ipc_db_fuzz::Value2Bytes(use, kind, op, width), false);
  if (in.Byte() % 16 == 0) return nullptr;
  return new DbFilter(member, static_cast<DbFilterOperator>(op), value1, value2);
}

void PickTerms(Fixture& f, FuzzInput& in, Arena* arena, DbFilters* list, int most,
               TermUse use = TermUse::kRendered) {
  const int count = in.Byte() % (most + 1);
  for (int i = 0; i < count; ++i) list->filters.push_back(PickTerm(f, in, arena, use));
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
      return &f.d.wideLayout;
    case 2:
      return &f.d.badLayout;
    case 3:
      return &f.d.metas[in.Byte() % kMetaKinds];
    default:
      return &f.d.smallLayout;
  }
}

void ExpectResult(long long result, const char* call) {
  if (result == 0 || result == -1) return;
  std::fprintf(stderr, "%s returned %lld\n", call, result);
  std::abort();
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
      size_t bytes = count <= kMostInserted ? static_cast<size_t>(count) * stride : stride;
      char* records = in.Byte() % 8 == 0 ? nullptr : arena.Buffer(in, bytes);
      DbFilters cols;
      PickColumns(f, in, &cols);
      ExpectResult(table->add_item(records, count, cols), "add_item");
      return;
    }
    case 1: {
      DbFilters set, where;
      PickTerms(f, in, &arena, &set, 2, TermUse::kUpdateList);
      PickTerms(f, in, &arena, &where, 3, TermUse::kUpdateList);
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
        Member* member = in.Byte() % 3 == 0 ? &f.d.farOffset : PickMember(f, in);
        if (member == &f.d.farOffset)
          member->type_meta = in.Byte() % 2 ? &f.d.char8 : nullptr;
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
            in.Byte() % 4 == 0 ? nullptr : f.d.metas[kGood].members[2 + in.Byte() % 3];
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
      f.files.Reopen();
      return;
    case 16: {
      Meta* meta = &f.d.metas[in.Byte() % kMetaKinds];
      std::unique_ptr<Table> created(f.db.createTable(meta, in.Byte() % 2));
      return;
    }
    case 17: {
      Member* member = PickMember(f, in);
      TableChange change(in.Byte() % 2, member);
      change.toString();
      ExpectResult(f.db.updateTable("t_calls", change, "0", 0), "updateTable");
      f.db.getType(&f.d.loose);
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
  g_image.reset(new ipc_db_fuzz::DatabaseImage("calls.db", &BuildImage));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture f;
  FuzzInput in(data, size);
  const int calls = 1 + in.Byte() % kMaxCalls;
  for (int i = 0; i < calls; ++i) RunOneCall(f, in);
  return 0;
}
