// The code of the application developer's guide (docs/guide.md), compiled
// and run. Every region between "// [guide:NAME]" and "// [/guide:NAME]" is
// shown in the guide, less its common indentation, in the ```cpp block that
// follows the line "<!-- snippet: NAME -->"; tests/guide_snippets_test.cpp
// checks that both texts are identical and runs this program.
//
// Usage: guide_snippets DIRECTORY. Every snippet runs against a real
// database in DIRECTORY; the program prints each check and exits 1 when one
// of the results the guide describes does not come out.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ipc_db.h"
#include "ipc_db_helpers.h"
#include "zb_log.h"

namespace {

int g_failures = 0;

void Check(bool ok, const char* what) {
  std::printf("%s  %s\n", ok ? "ok  " : "FAIL", what);
  if (!ok) ++g_failures;
}

}  // namespace

// [guide:record]
struct Event {
  int id;                   // iId_pa    -> Id INTEGER PRIMARY KEY autoincrement
  int time;                 // iTime_n   -> Time INTEGER NOT NULL
  int channel;              // iChannel  -> Channel INTEGER
  char text[32];            // cText     -> Text CHAR(32)
  unsigned char thumb[16];  // bThumb    -> Thumb BLOB
};
// [/guide:record]

// [guide:describe]
// Descriptions must outlive every Table and filter that uses them.
Meta intType, textType, thumbType, eventMeta;

void DescribeEvent() {
  intType.Init("int", sizeof(int));  // one Meta per field width
  textType.Init("char32", 32);
  thumbType.Init("thumb16", 16);

  eventMeta.Init("t_event", sizeof(Event));  // table name, record stride
  eventMeta.AddMember(new Member("iId_pa", offsetof(Event, id), &intType));
  eventMeta.AddMember(new Member("iTime_n", offsetof(Event, time), &intType));
  eventMeta.AddMember(new Member("iChannel", offsetof(Event, channel), &intType));
  eventMeta.AddMember(new Member("cText", offsetof(Event, text), &textType));
  eventMeta.AddMember(new Member("bThumb", offsetof(Event, thumb), &thumbType));
  MetaDataManager::Singleton()->AddMetaData(&eventMeta);  // optional registry
}
// [/guide:describe]

// [guide:int_value]
// An integer filter value travels in the bits of the pointer argument.
void* IntValue(int value) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(value));
}
// [/guide:int_value]

// [guide:load_key]
// Where the 64-character key comes from is the device's business (its secure
// storage or key service). This stand-in returns a fixed key; replace its
// body with the read from your key store, and never log what it returns.
std::string LoadDeviceKey() { return std::string(64, 'k'); }
// [/guide:load_key]

// [guide:lifecycle]
// `dir` ends with "/".
long long RecordSomething(const std::string& dir) {
  Db db;                              // empty: GetDBStatus() == 2
  std::string key = LoadDeviceKey();  // exactly 64 characters
  long long rc = db.Init(0, dir, "events.db", "events.db-journal", &key[0], 64);
  if (rc != 0) return rc;  // null key, or a kind other than 0
  rc = db.OpenDB();        // makes dir (one level), opens, keys
  if (rc == 0) {
    db.SetJournalAttr(DB_JOURNAL_WAL);  // after OpenDB: each open resets DELETE
    Table* events = db.createTable(&eventMeta, 1);  // 1: plain column names
    if (events != nullptr) {
      // ... record operations on events ...
      delete events;  // the caller owns every Table
    }
    rc = db.CloseDB();
  }
  db.UnInit();  // closes when open, frees the connection
  return rc;
}
// [/guide:lifecycle]

long long Status(Db& db) { return db.GetDBStatus(); }

void TableStatus(Db& db) {
  // [guide:table_status]
  std::string name = "t_event";
  int exists = db.getTableStatus(name);  // 1 exists, 0 missing
  std::string sql;
  long long rc = db.getTableSql(name, sql);  // 0: sql holds the CREATE text
  // sql: CREATE TABLE t_event(Id INTEGER PRIMARY KEY autoincrement,
  //      Time INTEGER NOT NULL,Channel INTEGER,Text CHAR(32),Thumb BLOB)
  // [/guide:table_status]
  Check(exists == 1 && rc == 0, "getTableStatus 1, getTableSql 0");
  Check(sql ==
            "CREATE TABLE t_event(Id INTEGER PRIMARY KEY autoincrement,Time INTEGER NOT "
            "NULL,Channel INTEGER,Text CHAR(32),Thumb BLOB)",
        "stored CREATE text as the guide shows it");
}

void Insert(Db& db, Table* events) {
  // [guide:add_item]
  Event batch[3];
  std::memset(batch, 0, sizeof(batch));  // zero bytes end every text field
  for (int i = 0; i < 3; ++i) {
    batch[i].id = 0;  // 0 in an autoincrement key: assigned
    batch[i].time = 1700000000 + i;
    batch[i].channel = 2;
    std::snprintf(batch[i].text, sizeof(batch[i].text), "motion in zone %d", i);
    std::memset(batch[i].thumb, 0xA0 + i, sizeof(batch[i].thumb));
  }
  DbFilters allColumns;  // empty: every member, in Meta order
  long long rc = events->add_item(batch, 3, allColumns);  // one transaction
  if (rc != 0) {
    // A failed multi-record call leaves its transaction open: end it.
    db.m_pDBConn->ExecuteSQL("rollback;", nullptr, DB_EXEC_SQL_SYNC);
  }
  // [/guide:add_item]
  Check(rc == 0, "add_item of three records");
  for (int i = 0; i < 20; ++i) {
    Event more;
    std::memset(&more, 0, sizeof(more));
    more.time = 1700000100 + i;
    more.channel = 1 + i % 4;
    std::snprintf(more.text, sizeof(more.text), "line crossing %d", i % 3);
    DbFilters none;
    Check(events->add_item(&more, 1, none) == 0, "add_item of one more record");
  }
}

void AddSomeColumns(Table* events) {
  // [guide:add_item_columns]
  Event partial;
  std::memset(&partial, 0, sizeof(partial));
  partial.time = 1700000500;
  std::strcpy(partial.text, "tamper");
  Member* time = eventMeta.Get("iTime_n");
  Member* text = eventMeta.Get("cText");
  // Only the listed members are written; the others get their defaults.
  DbFilters someColumns(2, new DbFilter(time, DB_FILTER_OP_EQ, nullptr, nullptr),
                        new DbFilter(text, DB_FILTER_OP_EQ, nullptr, nullptr));
  long long rc = events->add_item(&partial, 1, someColumns);
  // insert into t_event(Time,Text) values (1700000500,'tamper');
  // [/guide:add_item_columns]
  Check(rc == 0, "add_item with a column list");
}

void ReadPage(Table* events) {
  // [guide:get_item]
  Member* channel = eventMeta.Get("iChannel");
  Member* time = eventMeta.Get("iTime_n");
  Event page[5];
  DbFilters allColumns;  // empty: whole records ("select *")
  DbFilters filters(4, new DbFilter(channel, DB_FILTER_OP_EQ, IntValue(2), nullptr),
                    new DbFilter(time, DB_FILTER_OP_ORDER_BY_DESC, nullptr, nullptr),
                    new DbFilter(nullptr, DB_FILTER_OP_LIMIT, IntValue(5), nullptr),
                    new DbFilter(nullptr, DB_FILTER_OP_OFFSET, IntValue(5), nullptr));
  unsigned long long rows = 5;  // in: at most 5 (0: no limit); out: read
  long long rc = events->get_item(allColumns, filters, rows, page);
  // select * from t_event where Channel = 2 order by Time DESC  limit 5 offset 5;
  // [/guide:get_item]
  // Channel 2 holds the three batch records and five of the twenty singles.
  Check(rc == 0 && rows == 3, "get_item: second page of channel 2 has 3 rows");
  Check(rows == 3 && page[0].time > page[1].time && page[1].time > page[2].time,
        "get_item: newest first");
}

void ReadPacked(Table* events) {
  // [guide:get_item_columns]
  Member* id = eventMeta.Get("iId_pa");
  Member* thumb = eventMeta.Get("bThumb");
  unsigned char preview[16];  // exactly the selected column
  DbFilters thumbOnly(1, new DbFilter(thumb, DB_FILTER_OP_EQ, nullptr, nullptr));
  DbFilters byId(1, new DbFilter(id, DB_FILTER_OP_EQ, IntValue(2), nullptr));
  unsigned long long rows = 1;
  // With a column list the columns are packed at the start of the buffer,
  // whatever their offsets in Event, and each row overwrites the last.
  long long rc = events->get_item(thumbOnly, byId, rows, preview);
  // [/guide:get_item_columns]
  Check(rc == 0 && rows == 1 && preview[0] == 0xA1 && preview[15] == 0xA1,
        "get_item with a column list packs the blob at the buffer's start");
}

// [guide:brief]
struct EventBrief {  // the caller's own, smaller layout
  char text[32];
  int time;
};
// [/guide:brief]

void ReadBrief(Table* events) {
  // [guide:get_item_z]
  Meta briefMeta;  // not registered, not a table
  briefMeta.Init("event_brief", sizeof(EventBrief));
  briefMeta.AddMember(new Member("cText", offsetof(EventBrief, text), &textType));
  briefMeta.AddMember(new Member("iTime_n", offsetof(EventBrief, time), &intType));
  // Members match the table's by decorated name and width; their offsets
  // are the caller's. Columns the layout lacks are read and skipped.
  Member* time = eventMeta.Get("iTime_n");
  EventBrief briefs[3];
  DbFilters allColumns;
  DbFilters firstThree(2, new DbFilter(time, DB_FILTER_OP_ORDER_BY, nullptr, nullptr),
                       new DbFilter(nullptr, DB_FILTER_OP_LIMIT, IntValue(3), nullptr));
  unsigned long long rows = 3;
  long long rc = events->get_item_z(allColumns, firstThree, rows, briefs, &briefMeta);
  // [/guide:get_item_z]
  Check(rc == 0 && rows == 3 && std::strcmp(briefs[0].text, "motion in zone 0") == 0 &&
            briefs[0].time == 1700000000,
        "get_item_z fills the smaller struct at its own offsets");
}

void ReadTexts(Table* events) {
  // [guide:get_item_vz]
  Meta textRow;  // the text must sit at offset 0
  textRow.Init("text_row", 32);
  textRow.AddMember(new Member("cText", 0, &textType));
  Member* text = eventMeta.Get("cText");
  DbFilters textOnly(1, new DbFilter(text, DB_FILTER_OP_EQ, nullptr, nullptr));
  DbFilters everyRow;
  std::vector<std::string> texts;  // appended to, in row order
  unsigned long long rows = 0;     // 0: no limit
  long long rc = events->get_item_vz(textOnly, everyRow, rows, texts, &textRow);

  std::set<std::string> distinct;  // equal texts collapse
  Member textAtZero("cText", 0, &textType);
  DbFilters allColumns;
  rows = 0;
  long long rc2 = events->get_item_sz(allColumns, everyRow, rows, distinct, &textAtZero);
  // [/guide:get_item_vz]
  Check(rc == 0 && texts.size() == 24 && texts[0] == "motion in zone 0",
        "get_item_vz: one string per row");
  Check(rc2 == 0 && rows == 24 && distinct.size() == 7,
        "get_item_sz: 24 rows, 7 distinct texts");
}

void Conditions(Table* events) {
  // [guide:conditions]
  Member* channel = eventMeta.Get("iChannel");
  Member* time = eventMeta.Get("iTime_n");
  Member* text = eventMeta.Get("cText");
  int channels[2] = {1, 3};             // an int member of width 4: int elements
  char pattern[32] = "line crossing%";  // text values point to the characters
  DbFilters filters(3, new DbFilter(channel, DB_FILTER_OP_IN, channels, IntValue(2)),
                    new DbFilter(time, DB_FILTER_OP_BETWEEN, IntValue(1700000100),
                                 IntValue(1700000119)),
                    new DbFilter(text, DB_FILTER_OP_LIKE, pattern, nullptr));
  long long count = events->get_item_cnt(filters);
  // select count(*) from t_event where Channel IN (1 , 3 ) and
  //   Time between 1700000100 and 1700000119 and Text like 'line crossing%';
  // [/guide:conditions]
  Check(count == 10, "get_item_cnt with IN, BETWEEN and LIKE joined by and");
}

void Aggregates(Table* events) {
  // [guide:aggregates]
  Member* time = eventMeta.Get("iTime_n");
  DbFilters everyRow;
  long long rows = events->get_item_cnt(everyRow);  // -1 on failure
  DbFilters timeColumn(1, new DbFilter(time, DB_FILTER_OP_EQ, nullptr, nullptr));
  std::string newestText, oldestText;
  long long newest = events->get_item_max(timeColumn, everyRow, newestText);
  long long oldest = events->get_item_min(timeColumn, everyRow, oldestText);
  // An INTEGER column returns its value (and its text); a failure returns -1
  // and leaves the text unchanged, so check the text to tell them apart.
  // [/guide:aggregates]
  Check(rows == 24, "get_item_cnt of every row");
  Check(newest == 1700000500 && newestText == "1700000500" && oldest == 1700000000,
        "get_item_max/get_item_min of an INTEGER column");
}

void Update(Table* events) {
  // [guide:update_item]
  Member* id = eventMeta.Get("iId_pa");
  Member* text = eventMeta.Get("cText");
  Member* thumb = eventMeta.Get("bThumb");
  char newText[32] = "motion, checked";
  unsigned char newThumb[16];
  std::memset(newThumb, 0x5A, sizeof(newThumb));
  // Every set term uses DB_FILTER_OP_EQ; a blob term is bound as a parameter.
  DbFilters set(2, new DbFilter(text, DB_FILTER_OP_EQ, newText, nullptr),
                new DbFilter(thumb, DB_FILTER_OP_EQ, newThumb, nullptr));
  DbFilters where(1, new DbFilter(id, DB_FILTER_OP_EQ, IntValue(1), nullptr));
  long long rc = events->update_item(set, where);
  // update t_event set Text = 'motion, checked', Thumb = ? where Id = 1;
  // [/guide:update_item]
  Check(rc == 0, "update_item with a text and a blob");
  Event row;
  DbFilters allColumns;
  DbFilters byId(1, new DbFilter(id, DB_FILTER_OP_EQ, IntValue(1), nullptr));
  unsigned long long rows = 1;
  Check(events->get_item(allColumns, byId, rows, &row) == 0 && rows == 1 &&
            std::strcmp(row.text, "motion, checked") == 0 && row.thumb[7] == 0x5A,
        "update_item changed both columns");
}

void Remove(Db& db, Table* events) {
  // [guide:rmv_item]
  Member* channel = eventMeta.Get("iChannel");
  Member* time = eventMeta.Get("iTime_n");
  DbFilters lists[2];  // one delete per list, one transaction
  lists[0].add_filter(new DbFilter(channel, DB_FILTER_OP_EQ, IntValue(4), nullptr));
  lists[1].add_filter(new DbFilter(time, DB_FILTER_OP_LT, IntValue(1700000002), nullptr));
  lists[1].add_filter(new DbFilter(channel, DB_FILTER_OP_EQ, IntValue(2), nullptr));
  long long rc = events->rmv_item(lists, 2);
  // delete from t_event where Channel = 4;
  // delete from t_event where Time < 1700000002 and Channel = 2;
  if (rc != 0) db.m_pDBConn->ExecuteSQL("rollback;", nullptr, DB_EXEC_SQL_SYNC);
  // [/guide:rmv_item]
  DbFilters everyRow;
  Check(rc == 0 && events->get_item_cnt(everyRow) == 17, "rmv_item removed 7 rows");
}

void Indexes(Table* events) {
  // [guide:add_index]
  Member* time = eventMeta.Get("iTime_n");
  long long rc = events->add_index("idx_event_time", time);
  // create index idx_event_time on t_event(Time)   (no "if not exists")
  // time->index_name is now "idx_event_time", in this process's memory only.
  long long rc2 = events->drop_index("idx_event_time");  // DROP index idx_event_time ;
  // [/guide:add_index]
  Check(rc == 0 && rc2 == 0 && time->index_name == "NONE", "add_index then drop_index");
}

// [guide:severity_member]
// Version 2 of the application adds a field at the end of its struct.
struct EventV2 {
  Event v1;
  int severity;  // iSeverity -> Severity INTEGER
};
// [/guide:severity_member]

void Migrate(Db& db) {
  // [guide:update_table]
  Member* severity = new Member("iSeverity", offsetof(EventV2, severity), &intType);
  TableChange change(1, severity);  // one member per call: SQLite adds one column
  long long rc = db.updateTable("t_event", change, "1", 1);
  // ALTER TABLE t_event ADD COLUMN Severity INTEGER DEFAULT 1;
  if (rc == 0) {
    eventMeta.AddMember(severity);               // the description owns it from now on
    eventMeta.Init("t_event", sizeof(EventV2));  // records are EventV2 now
  } else {
    delete severity;
  }
  // [/guide:update_table]
  Check(rc == 0, "updateTable added the column");
}

void ReadMigrated(Table* events) {
  Member* id = eventMeta.Get("iId_pa");
  EventV2 row;
  DbFilters allColumns;
  DbFilters byId(1, new DbFilter(id, DB_FILTER_OP_EQ, IntValue(3), nullptr));
  unsigned long long rows = 1;
  Check(events->get_item(allColumns, byId, rows, &row) == 0 && rows == 1 &&
            row.severity == 1 && std::strcmp(row.v1.text, "motion in zone 2") == 0,
        "the new column reads back with its default");
}

void Vacuum(Db& db, Table* events) {
  // [guide:vacuum]
  long long rc = db.db_vacuum();  // "VACUUM;": compacts the whole file
  long long rcTable = events->table_vacuum();
  // "VACUUM t_event;" fails on SQLite 3.15: it names an attached schema there.
  // [/guide:vacuum]
  Check(rc == 0, "db_vacuum");
  Check(rcTable == -1, "table_vacuum fails with -1 on this SQLite");
}

void Rekey(Db& db) {
  // [guide:rekey]
  // Store the new key before the call: the next open needs it.
  std::string newKey(64, 'n');
  long long rc = db.reEncryptDB(newKey.c_str(), 64);
  // 0: re-keyed. -209: the database has no key, or SQLCipher refused.
  // [/guide:rekey]
  Check(rc == 0, "reEncryptDB");
}

// [guide:log_sink]
// Host stand-in only (zb_log.h): see every entry, SQL texts included.
void PrintEntry(void* user, unsigned int module, unsigned int level,
                unsigned int debugFlag, const char* file, unsigned int line,
                const char* text) {
  (void)user;
  (void)debugFlag;
  std::fprintf(stderr, "[%u/%u] %s:%u %s\n", module, level, file, line, text);
}

void CountWithEveryEntryShown(Table* events) {
  ZB_SetLogSink(PrintEntry, nullptr);  // every entry, levels 0 to 3
  DbFilters everyRow;
  events->get_item_cnt(everyRow);   // logs the SQL text at level 0
  ZB_SetLogSink(nullptr, nullptr);  // default: levels 2 and 3 to stderr
}
// [/guide:log_sink]

// [guide:text_check]
// True when `text` may go into a text field of `fieldSize` bytes, or into a
// filter on one: it ends inside the field (the library reads one byte past a
// field that holds no zero byte), holds no single quote (texts are quoted,
// never escaped) and no control character.
bool IsStorableText(const char* text, size_t fieldSize) {
  size_t length = strnlen(text, fieldSize);
  if (length == fieldSize) return false;  // no zero byte inside the field
  for (size_t i = 0; i < length; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\'' || c < 0x20 || c == 0x7F) return false;
  }
  return true;
}

// Before every insert or filter with a text that comes from outside:
//   if (!IsStorableText(event.text, sizeof(event.text))) return kRefused;
// [/guide:text_check]


// [guide:device_time]
// Seconds since 1970 no longer fit a signed 32-bit INTEGER column after
// 2038-01-19 03:14:07 UTC. Store seconds since a device epoch instead: a
// 32-bit count from 2020-01-01 00:00:00 UTC lasts until 2088-01-19, and
// comparisons, between and ordering on the column work as on any integer.
constexpr long long kDeviceEpoch = 1577836800;  // 2020-01-01T00:00:00Z

// REQUIRES: unixSeconds between kDeviceEpoch - 2^31 and kDeviceEpoch + 2^31 - 1.
int ToStoredTime(long long unixSeconds) {
  return static_cast<int>(unixSeconds - kDeviceEpoch);
}
long long FromStoredTime(int stored) { return kDeviceEpoch + stored; }
// [/guide:device_time]

// [guide:door_record]
struct DoorEvent {            // version 2; version 1 had the first three fields
  int id;                     // iId_pa  -> Id INTEGER PRIMARY KEY autoincrement
  int time;                   // iTime_n -> Time INTEGER NOT NULL, device epoch
  int door;                   // iDoor   -> Door INTEGER
  char card[16];              // cCard   -> Card CHAR(16), added by version 2
  int reader;                 // iReader -> Reader INTEGER, added by version 2
  unsigned char badge[8];     // bBadge  -> Badge BLOB, added by version 2
};
// [/guide:door_record]

Meta cardType, badgeType, doorMeta;

void DescribeDoorEvent() {
  cardType.Init("char16", 16);
  badgeType.Init("badge8", 8);
  doorMeta.Init("t_door", sizeof(DoorEvent));
  doorMeta.AddMember(new Member("iId_pa", offsetof(DoorEvent, id), &intType));
  doorMeta.AddMember(new Member("iTime_n", offsetof(DoorEvent, time), &intType));
  doorMeta.AddMember(new Member("iDoor", offsetof(DoorEvent, door), &intType));
  doorMeta.AddMember(new Member("cCard", offsetof(DoorEvent, card), &cardType));
  doorMeta.AddMember(new Member("iReader", offsetof(DoorEvent, reader), &intType));
  doorMeta.AddMember(new Member("bBadge", offsetof(DoorEvent, badge), &badgeType));
}

// [guide:migration]
// True when the CREATE text `sql` has a column named `column`.
bool HasColumn(const std::string& sql, const std::string& column) {
  for (size_t at = sql.find(column); at != std::string::npos;
       at = sql.find(column, at + 1)) {
    char before = at == 0 ? ' ' : sql[at - 1];
    char after = at + column.size() < sql.size() ? sql[at + column.size()] : ' ';
    if ((before == '(' || before == ',' || before == ' ') && after == ' ') return true;
  }
  return false;
}

// Run at every start, whatever version wrote the file. A fresh install gets
// the table at the current version in one statement; a file of an earlier
// version gets each column it lacks, one per call. No call here logs an
// error on a first boot (getTableSql would: it is only asked when the
// table exists).
Table* OpenDoorTable(Db& db) {
  std::string name = "t_door";
  if (db.getTableStatus(name) == 1) {  // written by some earlier run
    std::string sql;
    if (db.getTableSql(name, sql) != 0) return nullptr;
    for (Member* member : doorMeta.members) {  // in the order versions added them
      if (HasColumn(sql, db.getName(member->name))) continue;
      TableChange change(1, member);  // refers to the member; doorMeta owns it
      // getType works the column type out from the name; sql_type itself
      // stays "unknown_type" until createTable or updateTable has seen it.
      const char* initial = db.getType(member) == "INTEGER" ? "0" : "";
      if (db.updateTable(name, change, initial, 1) != 0) return nullptr;
    }
  }
  return db.createTable(&doorMeta, 1);  // creates it, or prepares the members
}
// [/guide:migration]

namespace {

// Counts error-level entries (level 3) while a step runs.
int g_errorEntries = 0;
void CountErrors(void*, unsigned int, unsigned int level, unsigned int, const char*,
                 unsigned int, const char*) {
  if (level == 3) ++g_errorEntries;
}

// Opens (and for a fresh file creates) `file` in `dir` without a key.
bool OpenPlain(Db& db, const std::string& dir, const std::string& file) {
  std::string noKey(64, '\0');
  return db.Init(0, dir, file, file + "-journal", &noKey[0], 64) == 0 && db.OpenDB() == 0;
}

void DoorTimes(Table* doors) {
  // [guide:time_filters]
  DoorEvent opened = {0, ToStoredTime(2240611200LL), 2, "card 0042", 7, {1, 2}};  // 2041-01-01
  long long rc = doors->add_item(&opened, 1, DbFilters(0));
  // The id the row got: Id only grows (autoincrement), so it is the largest
  // one, as long as nobody else inserts in between.
  DbFilters idColumn(1, new DbFilter(doorMeta.Get("iId_pa"), DB_FILTER_OP_EQ, nullptr,
                                     nullptr));
  DbFilters everyRow;
  std::string idText;
  long long lastId = doors->get_item_max(idColumn, everyRow, idText);
  // Every opening since 2040-01-01, newest first.
  Member* time = doorMeta.Get("iTime_n");
  DbFilters since2040(2, new DbFilter(time, DB_FILTER_OP_GE,
                                      IntValue(ToStoredTime(2208988800LL)), nullptr),
                      new DbFilter(time, DB_FILTER_OP_ORDER_BY_DESC, nullptr, nullptr));
  DoorEvent found[4] = {};
  unsigned long long rows = 4;
  long long rc2 = doors->get_item(everyRow, since2040, rows, found);
  // found[0].time: FromStoredTime(found[0].time) == 2240611200
  // [/guide:time_filters]
  Check(rc == 0 && rc2 == 0, "add_item and get_item on times past 2038");
  Check(lastId > 0 && idText == std::to_string(lastId) && found[0].id == lastId,
        "the largest id is the row just inserted");
  Check(rows == 2 && FromStoredTime(found[0].time) == 2240611200LL &&
            FromStoredTime(found[1].time) == 2208988800LL + 60,
        "times after 2038 stored, filtered and ordered newest first");
  Check(std::strcmp(found[0].card, "card 0042") == 0 && found[0].reader == 7 &&
            found[0].badge[0] == 1 && found[0].badge[1] == 2,
        "a version-2 row keeps its added columns");
  const unsigned char noBadge[8] = {};
  Check(found[1].card[0] == '\0' && found[1].reader == 0 &&
            std::memcmp(found[1].badge, noBadge, sizeof noBadge) == 0,
        "the version-1 row has the added columns' defaults (text, integer and blob)");
}

// A file written by version 1 of the application: t_door without Card, one
// row at 2040-01-01 00:01:00.
void WriteVersion1(const std::string& dir) {
  Meta v1;
  v1.Init("t_door", sizeof(DoorEvent));
  for (const char* name : {"iId_pa", "iTime_n", "iDoor"}) {
    Member* member = doorMeta.Get(name);
    v1.AddMember(new Member(member->name, member->offset, member->type_meta));
  }
  Db db;
  Check(OpenPlain(db, dir, "door_v1.db"), "version 1 opens its file");
  Table* doors = db.createTable(&v1, 1);
  DoorEvent first = {0, ToStoredTime(2208988800LL + 60), 1, "", 0, {}};
  Check(doors != nullptr && doors->add_item(&first, 1, DbFilters(0)) == 0,
        "version 1 writes a row");
  delete doors;
  db.UnInit();
}

void Migrations(const std::string& dir) {
  DescribeDoorEvent();
  WriteVersion1(dir);
  // The upgrade first, as after a firmware update: no createTable has seen
  // doorMeta's members in this process yet.
  for (const char* file : {"door_v1.db", "door_fresh.db"}) {
    Db db;
    Check(OpenPlain(db, dir, file), "the current version opens the file");
    g_errorEntries = 0;
    ZB_SetLogSink(CountErrors, nullptr);
    Table* doors = OpenDoorTable(db);
    ZB_SetLogSink(nullptr, nullptr);
    Check(doors != nullptr && g_errorEntries == 0,
          "OpenDoorTable: fresh install and upgrade, no error entry");
    if (doors != nullptr && std::string(file) == "door_v1.db") DoorTimes(doors);
    delete doors;
    db.UnInit();
  }
}

}  // namespace

// [guide:helpers_describe]
// The Event of section 1 described with the companion header: each member's
// offset and width come from its field. Describing `text` with intType, or
// an `i` member that is not 4 bytes wide, does not compile.
ipc_db::FieldType<sizeof(int)> checkedInt("int");
ipc_db::FieldType<sizeof(Event::text)> checkedText("char32");
ipc_db::FieldType<sizeof(Event::thumb)> checkedThumb("thumb16");
ipc_db::RecordType<Event> checkedEvent("t_event");

bool DescribeEventChecked() {
  return IPC_DB_FIELD(checkedEvent, Event, id, "iId_pa", checkedInt) != nullptr &&
         IPC_DB_FIELD(checkedEvent, Event, time, "iTime_n", checkedInt) != nullptr &&
         IPC_DB_FIELD(checkedEvent, Event, channel, "iChannel", checkedInt) != nullptr &&
         IPC_DB_FIELD(checkedEvent, Event, text, "cText", checkedText) != nullptr &&
         IPC_DB_FIELD(checkedEvent, Event, thumb, "bThumb", checkedThumb) != nullptr;
}
// [/guide:helpers_describe]

// [guide:helpers_open]
// Opens, proves the key and the file, counts, and releases the Db on every
// return path. Returns the number of events, or -1 with `why` filled in.
long long CountEventsSafely(const std::string& dir, std::string& why) {
  ipc_db::ScopedDb owner;  // CloseDB and UnInit when it goes out of scope
  std::string key = LoadDeviceKey();
  long long rc = owner.Open(dir, "events.db", "events.db-journal", key.data(), 64);
  if (rc != 0) {
    why = "open failed: " + std::to_string(rc);
    return -1;
  }
  ipc_db::DbDiagnosis state = ipc_db::ClassifyOpenDb(owner.db());
  if (state.state != ipc_db::DbState::kUsable &&
      state.state != ipc_db::DbState::kUsableAfterReopen) {
    why = ipc_db::DbStateName(state.state);  // "wrong key", "damaged", ...
    return -1;
  }
  owner->SetJournalAttr(DB_JOURNAL_WAL);  // after-open settings, as always
  std::unique_ptr<Table> events(owner->createTable(checkedEvent.meta(), 1));
  if (!events) {
    why = ipc_db::DbStateName(ipc_db::ClassifyFailure(owner.db()).state);
    return -1;
  }
  ipc_db::TextValue<sizeof(Event::text)> text("line crossing%");  // zero byte inside
  DbFilters filters(2, ipc_db::NewTerm(checkedEvent.meta()->Get("iChannel"),
                                       DB_FILTER_OP_EQ, 1),
                    ipc_db::NewTerm(checkedEvent.meta()->Get("cText"),
                                    DB_FILTER_OP_LIKE, text));
  long long count = events->get_item_cnt(filters);
  if (count < 0) why = ipc_db::DbStateName(ipc_db::ClassifyFailure(owner.db()).state);
  return count;
}
// [/guide:helpers_open]

// [guide:helpers_salvage]
// At start-up: a file that reads as damaged is salvaged before the device
// goes on with it. Returns false when the file cannot be used; `report`
// says what happened.
bool OpenOrSalvage(const std::string& dir, std::string& report) {
  std::string key = LoadDeviceKey();
  {
    ipc_db::ScopedDb owner;
    if (owner.Open(dir, "events.db", "events.db-journal", key.data(), 64) != 0) return false;
    ipc_db::DbState state = ipc_db::ClassifyOpenDb(owner.db()).state;
    if (state == ipc_db::DbState::kUsable || state == ipc_db::DbState::kUsableAfterReopen) {
      report = "usable";
      return true;
    }
    if (state != ipc_db::DbState::kDamaged) {  // a wrong key is not damage: keep the file
      report = ipc_db::DbStateName(state);
      return false;
    }
  }  // closed and released here: Salvage needs the file closed
  ipc_db::SalvageResult result = ipc_db::Salvage(dir, "events.db", key);
  if (result.status != ipc_db::SalvageStatus::kSalvaged) {
    report = "salvage failed at: " + result.detail;
    return false;
  }
  report = "salvaged " + std::to_string(result.rows()) + " rows";
  for (const ipc_db::SalvageTable& table : result.tables) {
    if (table.damaged_stretches > 0) report += ", " + table.name + " lost some";
  }
  return true;  // events.db is the new file, events.db.damaged the old one
}
// [/guide:helpers_salvage]

namespace {

// A keyed file of the lifecycle snippet with its second page changed: the
// classifier finds it damaged and the salvage puts a new file in its place.
void SalvageChecks(const std::string& dir) {
  Check(RecordSomething(dir) == 0, "a second file for the salvage");
  std::FILE* file = std::fopen((dir + "events.db").c_str(), "r+b");
  Check(file != nullptr && std::fseek(file, 1024 + 100, SEEK_SET) == 0 &&
            std::fputc(0x5A, file) != EOF,
        "one byte of page 2 changed");
  if (file != nullptr) std::fclose(file);
  std::string report;
  bool usable = OpenOrSalvage(dir, report);
  std::printf("      OpenOrSalvage: %s\n", report.c_str());
  Check(usable && report.rfind("salvaged", 0) == 0, "a damaged file is salvaged");
  Check(OpenOrSalvage(dir, report) && report == "usable", "the salvaged file is usable");
  std::FILE* kept = std::fopen((dir + "events.db.damaged").c_str(), "rb");
  Check(kept != nullptr, "the damaged original is kept beside it");
  if (kept != nullptr) std::fclose(kept);
}

void HelperChecks(const std::string& dir) {
  Check(DescribeEventChecked() && checkedEvent.meta()->members.size() == 5,
        "the checked description has the five members");
  std::string why;
  long long count = CountEventsSafely(dir, why);
  if (count < 0) std::printf("      CountEventsSafely: %s\n", why.c_str());
  Check(count >= 0, "ScopedDb and the classifier: the file is usable");
  Db wrong;
  std::string otherKey(64, 'w');
  wrong.Init(0, dir, "events.db", "events.db-journal", &otherKey[0], 64);
  wrong.OpenDB();
  ipc_db::DbDiagnosis state = ipc_db::ClassifyOpenDb(wrong);
  Check(state.state == ipc_db::DbState::kWrongKey && state.sqlite_code == 26,
        "the classifier names a wrong key (SQLite code 26)");
  wrong.UnInit();
  std::string report;
  Check(OpenOrSalvage(dir, report) && report == "usable", "a usable file is left as it is");
  SalvageChecks(dir + "salvage/");
}

std::string ScratchDirectory(const char* argument) {
  std::string dir = argument;
  if (dir.empty() || dir.back() != '/') dir += '/';
  return dir;
}

void RunTableSnippets(Db& db) {
  Table* events = db.createTable(&eventMeta, 1);
  Check(events != nullptr, "createTable after a first run finds the table");
  if (events == nullptr) return;
  TableStatus(db);
  Insert(db, events);
  AddSomeColumns(events);
  ReadPage(events);
  ReadPacked(events);
  ReadBrief(events);
  ReadTexts(events);
  Conditions(events);
  Aggregates(events);
  Update(events);
  Remove(db, events);
  Indexes(events);
  CountWithEveryEntryShown(events);
  Migrate(db);
  ReadMigrated(events);
  Vacuum(db, events);
  Rekey(db);
  delete events;
}

void TextChecks() {
  Event event = {};
  std::strcpy(event.text, "front door");
  Check(IsStorableText(event.text, sizeof(event.text)), "a plain text may be stored");
  std::strcpy(event.text, "x' or '1'='1");
  Check(!IsStorableText(event.text, sizeof(event.text)),
        "a text with a quote is refused");
  std::memset(event.text, 'a', sizeof(event.text));
  Check(!IsStorableText(event.text, sizeof(event.text)),
        "a text without a zero byte in its field is refused");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  const std::string dir = ScratchDirectory(argv[1]);
  DescribeEvent();
  Check(eventMeta.members.size() == 5, "five members described");
  Check(RecordSomething(dir) == 0, "lifecycle: init, open, create, close, uninit");
  HelperChecks(dir);  // on the file as RecordSomething left it

  Db db;
  Check(Status(db) == 2, "GetDBStatus of an empty Db is 2");
  std::string key = LoadDeviceKey();
  Check(db.Init(0, dir, "events.db", "events.db-journal", &key[0], 64) == 0, "Init");
  Check(db.OpenDB() == 0 && Status(db) == 1, "OpenDB, status 1");
  RunTableSnippets(db);
  Check(db.CloseDB() == 0 && Status(db) == 0, "CloseDB, status 0");
  db.UnInit();

  // The re-keyed file opens with the new key only.
  Db again;
  std::string newKey(64, 'n');
  again.Init(0, dir, "events.db", "events.db-journal", &newKey[0], 64);
  Check(again.OpenDB() == 0, "OpenDB with the new key");
  Check(again.m_pDBConn->GetRowCount("t_event") == 17,
        "17 rows readable with the new key");
  again.UnInit();

  TextChecks();
  Migrations(dir);
  std::printf("%s: %d failed\n", g_failures == 0 ? "all snippets ran" : "snippets FAILED",
              g_failures);
  return g_failures == 0 ? 0 : 1;
}
