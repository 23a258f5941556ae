// The steps of one recorder run. Each step calls the library, checks what it
// got back against figures it can verify independently (counts before and
// after, the rows it wrote), prints one report line, and returns false with a
// clear message as soon as something does not hold.
//
// The library's deliberate behaviours shape the code: text values go into
// SQL unescaped, so no text written here contains a quote; text fields are
// read up to one byte past their end, so every text field keeps a zero byte;
// a failed multi-record insert leaves its transaction open, so the recorder
// rolls it back itself; add_index has no "if not exists", so the recorder
// looks for its indexes first.
#include "Recorder.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <random>
#include <set>
#include <utility>

namespace recorder {

namespace {

constexpr char kDatabaseFile[] = "events.db";
constexpr char kJournalFile[] = "events.db-journal";
constexpr int32_t kDay = 24 * 60 * 60;
constexpr int32_t kHistoryDays = 30;        // generated events span this window
constexpr int32_t kRetentionDays = 21;      // events older than this are removed
constexpr int32_t kAckedRetentionDays = 7;  // acknowledged ones sooner
constexpr int32_t kPageSize = 5;
constexpr int32_t kQueryChannel = 3;
constexpr int32_t kTextChannel = 2;
constexpr int32_t kAckChannel = 1;

// An integer filter value travels in the pointer's bits, as a signed
// 32-bit number: the companion header's IntValue takes nothing wider.
using ipc_db::IntValue;

DbFilter* Term(Member* member, DbFilterOperator op, void* value1 = nullptr,
               void* value2 = nullptr) {
  return new DbFilter(member, op, value1, value2);
}

DbFilter* Equal(Member* member, int32_t value) {
  return Term(member, DB_FILTER_OP_EQ, IntValue(value));
}

// Limit and offset do not read their member.
DbFilter* Limit(int32_t rows) {
  return Term(nullptr, DB_FILTER_OP_LIMIT, IntValue(rows));
}
DbFilter* Offset(int32_t rows) {
  return Term(nullptr, DB_FILTER_OP_OFFSET, IntValue(rows));
}

std::string TimeText(int32_t seconds) {
  time_t value = seconds;
  struct tm parts;
  localtime_r(&value, &parts);
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

std::string SizeText(long long bytes) {
  if (bytes >= 1024 * 1024) return Format("%.2f MiB", bytes / (1024.0 * 1024.0));
  return Format("%.1f KiB", bytes / 1024.0);
}

long long FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

// A stand-in for a tiny JPEG preview: start and end markers around bytes
// derived from `seed`.
void FillThumbnail(uint32_t seed, uint8_t* thumb) {
  thumb[0] = 0xFF;
  thumb[1] = 0xD8;
  for (unsigned int i = 2; i + 2 < kThumbSize; ++i) {
    thumb[i] = static_cast<uint8_t>((seed * 2654435761u + i * 40503u) >> 13);
  }
  thumb[kThumbSize - 2] = 0xFF;
  thumb[kThumbSize - 1] = 0xD9;
}

int32_t PickType(uint32_t roll) {
  uint32_t percent = roll % 100;
  if (percent < 60) return kMotion;
  if (percent < 75) return kLineCrossing;
  if (percent < 85) return kIntrusion;
  if (percent < 92) return kVideoLoss;
  return kTamper;
}

// One synthetic event at `time`. Its text never holds a quote.
AlarmEvent MakeEvent(std::mt19937& random, int32_t time) {
  AlarmEvent event;
  std::memset(&event, 0, sizeof(event));
  event.time = time;
  event.channel = 1 + static_cast<int32_t>(random() % kChannelCount);
  event.type = PickType(random());
  int zone = 1 + static_cast<int>(random() % 4);
  std::snprintf(event.text, sizeof(event.text), "%s on ch%d zone %d",
                EventTypeName(event.type), event.channel, zone);
  FillThumbnail(random(), event.thumb);
  event.severity = SeverityOf(event.type);
  return event;
}

std::string CopyText(const char* field, size_t size) {
  return std::string(field, strnlen(field, size));
}

}  // namespace

Recorder::Recorder(RecorderOptions options)
    : options_(std::move(options)),
      directory_(options_.directory),
      keys_(options_.directory) {
  if (directory_.empty() || directory_.back() != '/') directory_ += '/';
  now_ = static_cast<int32_t>(std::time(nullptr));
}

Recorder::~Recorder() { ReleaseDatabase(); }

int Recorder::Run() {
  static const StepEntry kSteps[] = {
      {"data directory", &Recorder::PrepareDirectory},
      {"describe records", &Recorder::DescribeRecords},
      {"choose key", &Recorder::ChooseKey},
      {"open database", &Recorder::OpenDatabase},
      {"journal mode", &Recorder::ChooseJournalMode},
      {"tables", &Recorder::CreateTables},
      {"previous run", &Recorder::ReadPreviousRun},
      {"record events", &Recorder::RecordEvents},
      {"indexes", &Recorder::AddIndexes},
      {"latest of a channel", &Recorder::QueryLatestOfChannel},
      {"time range", &Recorder::QueryTimeRange},
      {"types in a list", &Recorder::QueryTypes},
      {"counts per channel", &Recorder::CountPerChannel},
      {"newest and oldest", &Recorder::NewestAndOldest},
      {"texts", &Recorder::ReadTexts},
      {"smaller struct", &Recorder::ReadBriefs},
      {"acknowledge alarms", &Recorder::AcknowledgeAlarms},
      {"replace thumbnail", &Recorder::ReplaceThumbnail},
      {"retention", &Recorder::ApplyRetention},
      {"schema migration", &Recorder::MigrateSchema},
      {"save run info", &Recorder::SaveRunInfo},
      {"re-key", &Recorder::RotateKey},
      {"vacuum", &Recorder::Vacuum},
      {"close", &Recorder::CloseDatabase},
  };
  report_.Title("ipc_db camera event recorder, data directory " + options_.directory);
  for (const StepEntry& step : kSteps) {
    label_ = step.label;
    if (!(this->*step.function)()) {
      ReleaseDatabase();
      return 1;
    }
  }
  PrintSummary();
  return 0;
}

// ---- Steps ----

bool Recorder::PrepareDirectory() {
  Stopwatch clock;
  std::error_code error;
  bool existed = std::filesystem::is_directory(directory_, error);
  if (!existed && !std::filesystem::create_directories(directory_, error)) {
    return Fail("cannot create " + directory_ + ": " + error.message());
  }
  report_.Step(label_, directory_ + (existed ? " (exists)" : " (created)"), clock.Ms());
  return true;
}

bool Recorder::DescribeRecords() {
  Stopwatch clock;
  if (!schema_.ok()) return Fail("a Member was refused by Meta::AddMember");
  MetaDataManager* registry = MetaDataManager::Singleton();
  registry->AddMetaData(&schema_.event_meta);
  registry->AddMetaData(&schema_.config_meta);
  if (registry->GetMetaDataOf(kEventTable) != &schema_.event_meta ||
      registry->GetMetaDataOf(kConfigTable) != &schema_.config_meta) {
    return Fail("MetaDataManager does not return the registered descriptions");
  }
  report_.Step(label_,
               Format("%s: %zu columns, %u-byte records; %s: %zu columns, %u-byte "
                      "records; registered",
                      kEventTable, schema_.event_meta.members.size(),
                      schema_.event_meta.type_size, kConfigTable,
                      schema_.config_meta.members.size(), schema_.config_meta.type_size),
               clock.Ms());
  return true;
}

bool Recorder::ChooseKey() {
  Stopwatch clock;
  KeyMarker marker;
  std::string error;
  if (!keys_.Load(&marker, &error)) return Fail(error);
  if (FileSize(DatabasePath()) < 0) {
    // A new database starts at generation 0, whatever an old marker says.
    if (!keys_.DropNext(&error) || !keys_.WriteCurrent(0, &error)) return Fail(error);
    figures_.key_generation = 0;
    report_.Step(label_,
                 "new database: key generation 0 (marker " + keys_.CurrentPath() + ")",
                 clock.Ms());
    return true;
  }
  if (!marker.has_current) {
    return Fail(DatabasePath() + " exists but its key marker " + keys_.CurrentPath() +
                " is missing: no key to open it with");
  }
  std::string note;
  figures_.key_generation = marker.current;
  if (marker.has_next) {
    // A rotation was interrupted: the file holds one of the two keys.
    bool retried = false;
    ipc_db::DbState state = ipc_db::DbState::kNotOpen;
    bool next_works = OpenAndProveKey(marker.next, &retried, &state);
    ReleaseDatabase();
    if (next_works) {
      if (!keys_.PromoteNext(&error)) return Fail(error);
      figures_.key_generation = marker.next;
    } else if (!keys_.DropNext(&error)) {
      return Fail(error);
    }
    note = Format(" (an interrupted rotation to generation %u was %s)", marker.next,
                  next_works ? "completed" : "undone");
  }
  report_.Step(label_,
               Format("key generation %u from %s%s", figures_.key_generation,
                      keys_.CurrentPath().c_str(), note.c_str()),
               clock.Ms());
  return true;
}

bool Recorder::OpenDatabase() {
  Stopwatch clock;
  bool retried = false;
  ipc_db::DbState state = ipc_db::DbState::kNotOpen;
  bool opened = OpenAndProveKey(figures_.key_generation, &retried, &state);
  if (!opened && state == ipc_db::DbState::kDamaged) {
    if (!SalvageDatabase()) return false;
    opened = OpenAndProveKey(figures_.key_generation, &retried, &state);
  }
  if (!opened) {
    return Fail(Format("the key of generation %u does not open %s (%s)",
                       figures_.key_generation, DatabasePath().c_str(),
                       ipc_db::DbStateName(state)));
  }
  report_.Step(label_,
               Format("%s with a 64-character key, status %u (1 = open)%s",
                      DatabasePath().c_str(), db_->GetDBStatus(),
                      retried ? "; the first open after a power cut failed its reads, "
                                "the second read every row"
                              : ""),
               clock.Ms());
  return true;
}

// The classifier found damage (SQLITE_CORRUPT, or quick_check). The
// companion header's Salvage copies every row it can still read into a new
// file with the same key, swaps it in and keeps the damaged original beside
// it as events.db.damaged; the run then goes on with the new file. RepairDB
// is no help here: its tool gets no key, and a keyed file comes back empty.
bool Recorder::SalvageDatabase() {
  Stopwatch clock;
  ReleaseDatabase();  // Salvage needs the file closed
  std::string key = KeyForGeneration(figures_.key_generation);
  const ipc_db::SalvageResult result = ipc_db::Salvage(directory_, kDatabaseFile, key);
  std::fill(key.begin(), key.end(), '\0');
  if (result.status != ipc_db::SalvageStatus::kSalvaged) {
    return Fail(Format("%s is damaged and its salvage failed (status %d, code %d: %s)",
                       DatabasePath().c_str(), static_cast<int>(result.status), result.code,
                       result.detail.c_str()));
  }
  std::string tables;
  long long stretches = 0;
  for (const ipc_db::SalvageTable& table : result.tables) {
    tables += Format("%s%s %lld", tables.empty() ? "" : ", ", table.name.c_str(), table.rows);
    stretches += table.damaged_stretches;
  }
  report_.Step("salvage",
               Format("%s was damaged: salvaged %lld rows (%s), %lld damaged stretches, "
                      "%lld of %lld pages unreadable; the damaged file kept as %s.damaged",
                      DatabasePath().c_str(), result.rows(), tables.c_str(), stretches,
                      result.pages_unreadable, result.pages_in_file,
                      DatabasePath().c_str()),
               clock.Ms());
  if (!result.schema_not_restored.empty()) {
    report_.Detail(Format("%zu schema entries not made again (the run adds its indexes "
                          "again)",
                          result.schema_not_restored.size()));
  }
  report_.Detail(result.engine_note);
  return true;
}

bool Recorder::ChooseJournalMode() {
  Stopwatch clock;
  long long result = db_->SetJournalAttr(DB_JOURNAL_WAL);
  if (result != 0) return Fail(Format("SetJournalAttr(WAL) returned %lld", result));
  report_.Step(label_, "WAL (set after open: every open resets it to DELETE)",
               clock.Ms());
  return true;
}

bool Recorder::CreateTables() {
  Stopwatch clock;
  std::string event_table = kEventTable;
  std::string config_table = kConfigTable;
  bool events_existed = db_->getTableStatus(event_table) == 1;
  bool config_existed = db_->getTableStatus(config_table) == 1;
  if (events_existed) {
    std::string sql;
    if (db_->getTableSql(event_table, sql) != 0) return Fail("getTableSql failed");
    // The stored CREATE text carries every column added by ALTER TABLE.
    if (sql.find("Severity") != std::string::npos && !schema_.AdoptSeverity()) {
      return Fail("the Severity member was refused");
    }
  }
  figures_.schema_version = schema_.has_severity() ? 2 : 1;
  events_.reset(db_->createTable(&schema_.event_meta, 1));
  config_.reset(db_->createTable(&schema_.config_meta, 1));
  if (!events_ || !config_) return Fail("createTable returned null");
  report_.Step(label_,
               Format("%s %s (schema version %d), %s %s", kEventTable,
                      events_existed ? "found" : "created", figures_.schema_version,
                      kConfigTable, config_existed ? "found" : "created"),
               clock.Ms());
  return true;
}

bool Recorder::ReadPreviousRun() {
  Stopwatch clock;
  ConfigEntry runs, stored, last;
  bool has_runs = false, has_stored = false, has_last = false;
  if (!ReadConfig("run_count", &runs, &has_runs) ||
      !ReadConfig("events_at_close", &stored, &has_stored) ||
      !ReadConfig("last_run", &last, &has_last) || !CountAll(&figures_.events_found)) {
    return false;
  }
  figures_.previous_runs = has_runs ? std::atoll(runs.value) : 0;
  if (figures_.previous_runs == 0) {
    report_.Step(
        label_,
        Format("none: first run, %lld events in the table", figures_.events_found),
        clock.Ms());
    return true;
  }
  long long recorded = has_stored ? std::atoll(stored.value) : -1;
  report_.Step(label_,
               Format("%lld runs so far, the last at %s; found %lld events, it left %lld "
                      "(%s)",
                      figures_.previous_runs, has_last ? last.value : "?",
                      figures_.events_found, recorded,
                      recorded == figures_.events_found ? "consistent"
                                                        : "differs: it did not finish"),
               clock.Ms());
  return true;
}

bool Recorder::RecordEvents() {
  Stopwatch clock;
  long long before = 0, after = 0;
  if (!CountAll(&before)) return false;
  std::mt19937 random(static_cast<uint32_t>(figures_.previous_runs * 7919 + 17));
  const int total = options_.events_per_run;
  const int32_t span = kHistoryDays * kDay;
  std::vector<AlarmEvent> batch(static_cast<size_t>(options_.batch_size));
  int done = 0, batches = 0;
  while (done < total) {
    size_t count = static_cast<size_t>(std::min(options_.batch_size, total - done));
    for (size_t i = 0; i < count; ++i) {
      long long step = static_cast<long long>(done + static_cast<int>(i)) * span / total;
      int32_t time =
          now_ - span + static_cast<int32_t>(step) + static_cast<int32_t>(random() % 600);
      batch[i] = MakeEvent(random, std::min(time, now_));
    }
    if (!InsertBatch(batch, count)) return false;
    done += static_cast<int>(count);
    ++batches;
    report_.Progress("recording events", static_cast<unsigned long long>(done),
                     static_cast<unsigned long long>(total));
  }
  if (!CountAll(&after)) return false;
  if (after - before != total) {
    return Fail(
        Format("%d events written but the table grew by %lld", total, after - before));
  }
  figures_.events_recorded = total;
  double ms = clock.Ms();
  report_.Step(label_,
               Format("%d events in %d batches of up to %d (add_item, one transaction "
                      "each), %.0f events/s; table now %lld",
                      total, batches, options_.batch_size, total * 1000.0 / ms, after),
               ms);
  return true;
}

bool Recorder::AddIndexes() {
  Stopwatch clock;
  const std::pair<const char*, Member*> indexes[] = {
      {"idx_alarm_time", schema_.time}, {"idx_alarm_channel", schema_.channel}};
  std::string text;
  for (const auto& index : indexes) {
    bool exists = IndexExists(index.first);
    if (!exists && events_->add_index(index.first, index.second) != 0) {
      return Fail(Format("add_index %s failed", index.first));
    }
    if (!text.empty()) text += ", ";
    text += Format("%s on %s %s", index.first, db_->getName(index.second->name).c_str(),
                   exists ? "(already there)" : "(created)");
  }
  report_.Step(label_, text, clock.Ms());
  return true;
}

bool Recorder::QueryLatestOfChannel() {
  Stopwatch clock;
  AlarmEvent pages[2][kPageSize];
  unsigned long long rows[2] = {0, 0};
  for (int page = 0; page < 2; ++page) {
    DbFilters all_columns;
    DbFilters filters(4, Equal(schema_.channel, kQueryChannel),
                      Term(schema_.time, DB_FILTER_OP_ORDER_BY_DESC), Limit(kPageSize),
                      Offset(page * kPageSize));
    rows[page] = kPageSize;
    if (events_->get_item(all_columns, filters, rows[page], pages[page]) != 0) {
      return Fail("get_item failed");
    }
  }
  // Check what the database promised: the channel asked for, newest first,
  // and page 2 strictly older-or-equal than page 1.
  int32_t previous = INT32_MAX;
  for (int page = 0; page < 2; ++page) {
    for (unsigned long long i = 0; i < rows[page]; ++i) {
      const AlarmEvent& event = pages[page][i];
      if (event.channel != kQueryChannel || event.time > previous) {
        return Fail("rows out of order or of another channel");
      }
      previous = event.time;
    }
  }
  report_.Step(
      label_,
      Format("channel %d, order by Time desc, limit %d: page 1 %llu rows, page 2 "
             "(offset %d) %llu rows, newest first",
             kQueryChannel, kPageSize, rows[0], kPageSize, rows[1]),
      clock.Ms());
  for (unsigned long long i = 0; i < rows[0]; ++i) {
    const AlarmEvent& event = pages[0][i];
    report_.Detail(Format("#%-6d %s  %-13s %s", event.id, TimeText(event.time).c_str(),
                          EventTypeName(event.type),
                          CopyText(event.text, kTextSize).c_str()));
  }
  return true;
}

bool Recorder::QueryTimeRange() {
  Stopwatch clock;
  const int32_t from = now_ - kDay;
  DbFilters range(
      1, Term(schema_.time, DB_FILTER_OP_BETWEEN, IntValue(from), IntValue(now_)));
  long long count = 0;
  if (!Count(range, &count)) return false;
  std::vector<AlarmEvent> rows(static_cast<size_t>(count) + 1);
  unsigned long long read = static_cast<unsigned long long>(count) + 1;
  DbFilters all_columns;
  if (events_->get_item(all_columns, range, read, rows.data()) != 0) {
    return Fail("get_item failed");
  }
  if (read != static_cast<unsigned long long>(count)) {
    return Fail(Format("get_item read %llu rows, get_item_cnt said %lld", read, count));
  }
  for (unsigned long long i = 0; i < read; ++i) {
    if (rows[i].time < from || rows[i].time > now_)
      return Fail("a row outside the range");
  }
  report_.Step(label_,
               Format("last 24 hours (Time between %s and %s): %lld events counted, %llu "
                      "read, all inside",
                      TimeText(from).c_str(), TimeText(now_).c_str(), count, read),
               clock.Ms());
  return true;
}

bool Recorder::QueryTypes() {
  Stopwatch clock;
  int32_t types[2] = {kIntrusion, kTamper};
  DbFilters in_list(1, Term(schema_.type, DB_FILTER_OP_IN, types, IntValue(2)));
  DbFilters intrusions(1, Equal(schema_.type, kIntrusion));
  DbFilters tampers(1, Equal(schema_.type, kTamper));
  long long both = 0, intrusion = 0, tamper = 0;
  if (!Count(in_list, &both) || !Count(intrusions, &intrusion) ||
      !Count(tampers, &tamper)) {
    return false;
  }
  if (both != intrusion + tamper) {
    return Fail(Format("Type IN (3, 5) counts %lld, the two types alone %lld + %lld",
                       both, intrusion, tamper));
  }
  report_.Step(label_,
               Format("Type in (intrusion, tamper): %lld events (%lld + %lld)", both,
                      intrusion, tamper),
               clock.Ms());
  return true;
}

bool Recorder::CountPerChannel() {
  Stopwatch clock;
  long long total = 0, sum = 0;
  if (!CountAll(&total)) return false;
  std::string text;
  for (int32_t channel = 1; channel <= kChannelCount; ++channel) {
    DbFilters filters(1, Equal(schema_.channel, channel));
    long long count = 0;
    if (!Count(filters, &count)) return false;
    sum += count;
    text += Format("%sch%d %lld", channel == 1 ? "" : "  ", channel, count);
  }
  if (sum != total) return Fail(Format("channels add up to %lld of %lld", sum, total));
  report_.Step(label_, Format("%lld events: ", total) + text, clock.Ms());
  return true;
}

bool Recorder::NewestAndOldest() {
  Stopwatch clock;
  DbFilters column(1, Term(schema_.time, DB_FILTER_OP_EQ));
  DbFilters all_rows;
  std::string newest_text, oldest_text;
  long long newest = events_->get_item_max(column, all_rows, newest_text);
  long long oldest = events_->get_item_min(column, all_rows, oldest_text);
  if (newest_text.empty() || oldest_text.empty()) {
    return Fail("get_item_max/get_item_min gave no value");
  }
  if (oldest > newest || newest > now_) return Fail("newest/oldest out of order");
  report_.Step(label_,
               Format("newest %s, oldest %s (get_item_max/min of Time)",
                      TimeText(static_cast<int32_t>(newest)).c_str(),
                      TimeText(static_cast<int32_t>(oldest)).c_str()),
               clock.Ms());
  return true;
}

bool Recorder::ReadTexts() {
  Stopwatch clock;
  DbFilters text_column(1, Term(schema_.text, DB_FILTER_OP_EQ));
  DbFilters latest(3, Equal(schema_.channel, kTextChannel),
                   Term(schema_.time, DB_FILTER_OP_ORDER_BY_DESC), Limit(kPageSize));
  std::vector<std::string> texts;
  unsigned long long rows = 0;
  if (events_->get_item_vz(text_column, latest, rows, texts, &schema_.text_row_meta) !=
      0) {
    return Fail("get_item_vz failed");
  }
  DbFilters all_columns;
  DbFilters channel(1, Equal(schema_.channel, kTextChannel));
  std::set<std::string> distinct;
  unsigned long long scanned = 0;
  if (events_->get_item_sz(all_columns, channel, scanned, distinct,
                           &schema_.text_row_member) != 0) {
    return Fail("get_item_sz failed");
  }
  long long expected = 0;
  if (!Count(channel, &expected)) return false;
  if (texts.size() != rows || static_cast<long long>(scanned) != expected) {
    return Fail("row counts of get_item_vz/get_item_sz do not match");
  }
  report_.Step(label_,
               Format("channel %d: %zu latest texts (get_item_vz); %zu distinct texts in "
                      "%llu rows (get_item_sz)",
                      kTextChannel, texts.size(), distinct.size(), scanned),
               clock.Ms());
  for (const std::string& text : texts) report_.Detail(text);
  return true;
}

bool Recorder::ReadBriefs() {
  Stopwatch clock;
  AlarmBrief briefs[3];
  std::memset(briefs, 0, sizeof(briefs));
  DbFilters all_columns;
  DbFilters filters(3, Equal(schema_.type, kIntrusion),
                    Term(schema_.time, DB_FILTER_OP_ORDER_BY_DESC), Limit(3));
  unsigned long long rows = 3;
  if (events_->get_item_z(all_columns, filters, rows, briefs, &schema_.brief_meta) != 0) {
    return Fail("get_item_z failed");
  }
  for (unsigned long long i = 0; i < rows; ++i) {
    if (briefs[i].type != kIntrusion) return Fail("get_item_z filled a wrong type");
  }
  report_.Step(label_,
               Format("%llu newest intrusions into a %zu-byte AlarmBrief (get_item_z; "
                      "the %u-byte records are not read whole)",
                      rows, sizeof(AlarmBrief), schema_.event_meta.type_size),
               clock.Ms());
  for (unsigned long long i = 0; i < rows; ++i) {
    report_.Detail(Format("%s  %s", TimeText(briefs[i].time).c_str(),
                          CopyText(briefs[i].text, kTextSize).c_str()));
  }
  return true;
}

bool Recorder::AcknowledgeAlarms() {
  Stopwatch clock;
  const int32_t cutoff = now_ - 3600;
  long long pending = 0, left = 0;
  DbFilters open_alarms(3, Equal(schema_.channel, kAckChannel), Equal(schema_.acked, 0),
                        Term(schema_.time, DB_FILTER_OP_LT, IntValue(cutoff)));
  if (!Count(open_alarms, &pending)) return false;
  DbFilters set(1, Equal(schema_.acked, 1));
  if (events_->update_item(set, open_alarms) != 0) return Fail("update_item failed");
  DbFilters acked(1, Equal(schema_.acked, 1));
  if (!Count(open_alarms, &left) || !Count(acked, &figures_.acknowledged)) return false;
  if (left != 0) return Fail(Format("%lld alarms still unacknowledged", left));
  report_.Step(label_,
               Format("channel %d, older than one hour: %lld acknowledged (update_item), "
                      "%lld acknowledged in all",
                      kAckChannel, pending, figures_.acknowledged),
               clock.Ms());
  return true;
}

bool Recorder::ReplaceThumbnail() {
  Stopwatch clock;
  AlarmEvent newest;
  DbFilters all_columns;
  DbFilters filters(3, Equal(schema_.channel, kTextChannel),
                    Term(schema_.time, DB_FILTER_OP_ORDER_BY_DESC), Limit(1));
  unsigned long long rows = 1;
  if (events_->get_item(all_columns, filters, rows, &newest) != 0 || rows != 1) {
    return Fail("no event to update");
  }
  uint8_t replacement[kThumbSize];
  FillThumbnail(static_cast<uint32_t>(now_), replacement);
  // A blob term is bound as a parameter: value1 points to the bytes.
  DbFilters set(1, Term(schema_.thumb, DB_FILTER_OP_EQ, replacement));
  DbFilters where(1, Equal(schema_.id, newest.id));
  if (events_->update_item(set, where) != 0) return Fail("update_item of a blob failed");
  // With a column list, get_item packs the columns at the start of the
  // buffer: the thumbnail alone lands in `stored`.
  uint8_t stored[kThumbSize] = {};
  DbFilters thumb_only(1, Term(schema_.thumb, DB_FILTER_OP_EQ));
  DbFilters same_id(1, Equal(schema_.id, newest.id));
  rows = 1;
  if (events_->get_item(thumb_only, same_id, rows, stored) != 0 || rows != 1) {
    return Fail("get_item of the thumbnail failed");
  }
  if (std::memcmp(stored, replacement, kThumbSize) != 0) {
    return Fail("the thumbnail read back differs from the one written");
  }
  report_.Step(label_,
               Format("event #%d (channel %d): %u-byte thumbnail replaced (blob update) "
                      "and read back identical",
                      newest.id, kTextChannel, kThumbSize),
               clock.Ms());
  return true;
}

bool Recorder::ApplyRetention() {
  Stopwatch clock;
  const int32_t cutoff = now_ - kRetentionDays * kDay;
  const int32_t acked_cutoff = now_ - kAckedRetentionDays * kDay;
  long long before = 0, after = 0, stale = 0;
  if (!CountAll(&before)) return false;
  // Two deletions in one rmv_item call, so in one transaction.
  DbFilters lists[2];
  lists[0].add_filter(Term(schema_.time, DB_FILTER_OP_LT, IntValue(cutoff)));
  lists[1].add_filter(Equal(schema_.acked, 1));
  lists[1].add_filter(Term(schema_.time, DB_FILTER_OP_LT, IntValue(acked_cutoff)));
  if (events_->rmv_item(lists, 2) != 0) return Fail("rmv_item failed");
  DbFilters old(1, Term(schema_.time, DB_FILTER_OP_LT, IntValue(cutoff)));
  if (!CountAll(&after) || !Count(old, &stale)) return false;
  if (stale != 0) return Fail(Format("%lld events older than the window remain", stale));
  figures_.events_removed = before - after;
  report_.Step(
      label_,
      Format("removed %lld events (older than %d days, or acknowledged and older "
             "than %d days; rmv_item with 2 lists); %lld left",
             figures_.events_removed, kRetentionDays, kAckedRetentionDays, after),
      clock.Ms());
  return true;
}

bool Recorder::MigrateSchema() {
  Stopwatch clock;
  std::string text;
  if (schema_.has_severity()) {
    text = "already at version 2 (column Severity found at open); nothing to change";
  } else {
    Member* severity = schema_.pending_severity();
    TableChange change(1, severity);
    if (db_->updateTable(kEventTable, change, "1", 1) != 0)
      return Fail("updateTable failed");
    if (!schema_.AdoptSeverity()) return Fail("the Severity member was refused");
    const int32_t high[] = {kIntrusion, kTamper};
    const int32_t medium[] = {kLineCrossing, kVideoLoss};
    if (!SetSeverityForTypes(3, high, 2) || !SetSeverityForTypes(2, medium, 2))
      return false;
    migrated_this_run_ = true;
    figures_.schema_version = 2;
    text =
        "version 1 -> 2: column Severity added (updateTable, default 1), set from Type";
  }
  std::string read_back;
  if (!ReadSeverityBack(&read_back)) return false;
  report_.Step(label_, text, clock.Ms());
  report_.Detail(read_back);
  std::string sql;
  std::string table = kEventTable;
  if (db_->getTableSql(table, sql) != 0) return Fail("getTableSql failed");
  report_.Detail("stored: " + sql);
  return true;
}

bool Recorder::SaveRunInfo() {
  Stopwatch clock;
  if (!CollectFinalFigures()) return false;
  const long long run = figures_.previous_runs + 1;
  if (!WriteConfig("run_count", Format("%lld", run)) ||
      !WriteConfig("events_at_close", Format("%lld", figures_.events_stored)) ||
      !WriteConfig("last_run", TimeText(now_))) {
    return false;
  }
  ConfigEntry check;
  bool found = false;
  if (!ReadConfig("run_count", &check, &found)) return false;
  if (!found || std::atoll(check.value) != run)
    return Fail("run_count did not read back");
  DbFilters all_rows;
  long long entries = config_->get_item_cnt(all_rows);
  if (entries < 0) return Fail("get_item_cnt of the configuration failed");
  report_.Step(label_,
               Format("run %lld, %lld events at close, in %s (%lld entries)", run,
                      figures_.events_stored, kConfigTable, entries),
               clock.Ms());
  return true;
}

bool Recorder::RotateKey() {
  Stopwatch clock;
  const unsigned int next = figures_.key_generation + 1;
  std::string error;
  if (!keys_.WriteNext(next, &error)) return Fail(error);
  std::string key = KeyForGeneration(next);
  long long result = db_->reEncryptDB(key.c_str(), kKeyLength);
  std::fill(key.begin(), key.end(), '\0');
  if (result != 0) {
    keys_.DropNext(&error);
    return Fail(Format("reEncryptDB returned %lld", result));
  }
  if (!keys_.PromoteNext(&error)) return Fail(error);
  const unsigned int previous = figures_.key_generation;
  figures_.key_generation = next;
  // Prove it: close, open again with the new key only, and count.
  ReleaseDatabase();
  long long count = 0;
  bool retried = false;
  ipc_db::DbState state = ipc_db::DbState::kNotOpen;
  if (!OpenAndProveKey(next, &retried, &state)) {
    return Fail(Format("the new key does not open the database (%s)",
                       ipc_db::DbStateName(state)));
  }
  events_.reset(db_->createTable(&schema_.event_meta, 1));
  if (!events_ || !CountAll(&count))
    return Fail("cannot read the events with the new key");
  if (count != figures_.events_stored) {
    return Fail(
        Format("%lld events after re-key, %lld before", count, figures_.events_stored));
  }
  report_.Step(
      label_,
      Format("generation %u -> %u (reEncryptDB), marker updated; reopened with the "
             "new key: %lld events",
             previous, next, count),
      clock.Ms());
  return true;
}

bool Recorder::Vacuum() {
  Stopwatch clock;
  long long before = FileSize(DatabasePath());
  long long table_result = events_->table_vacuum();
  if (db_->db_vacuum() != 0) return Fail("db_vacuum failed");
  figures_.file_bytes = FileSize(DatabasePath());
  report_.Step(label_,
               Format("db_vacuum: %s -> %s", SizeText(before).c_str(),
                      SizeText(figures_.file_bytes).c_str()),
               clock.Ms());
  report_.Detail(
      table_result == 0
          ? std::string("table_vacuum: 0")
          : Format("table_vacuum: %lld, as expected: this SQLite reads the name "
                   "after VACUUM as a schema name (library errors above)",
                   table_result));
  return true;
}

bool Recorder::CloseDatabase() {
  Stopwatch clock;
  events_.reset();
  config_.reset();
  long long result = db_->CloseDB();
  if (result != 0) return Fail(Format("CloseDB returned %lld", result));
  unsigned int status = db_->GetDBStatus();
  db_.Close();  // releases the connection: the database is closed already
  report_.Step(label_, Format("CloseDB, status %u (0 = closed), released", status),
               clock.Ms());
  return true;
}

void Recorder::PrintSummary() {
  report_.Plain("");
  report_.Plain("summary");
  report_.Plain(Format("    events found         %lld", figures_.events_found));
  report_.Plain(Format("    events recorded      %lld", figures_.events_recorded));
  report_.Plain(Format("    events removed       %lld", figures_.events_removed));
  report_.Plain(Format("    events stored        %lld", figures_.events_stored));
  std::string channels;
  for (int32_t i = 0; i < kChannelCount; ++i) {
    channels +=
        Format("%sch%d %lld", i == 0 ? "" : "  ", i + 1, figures_.channel_counts[i]);
  }
  report_.Plain("    per channel          " + channels);
  report_.Plain(Format("    acknowledged         %lld", figures_.acknowledged));
  report_.Plain(Format("    severity 3           %lld", figures_.high_severity));
  report_.Plain(Format("    schema version       %d", figures_.schema_version));
  report_.Plain(Format("    run                  %lld", figures_.previous_runs + 1));
  report_.Plain(Format("    key generation       %u", figures_.key_generation));
  report_.Plain(Format("    database file        %s, %s", DatabasePath().c_str(),
                       SizeText(figures_.file_bytes).c_str()));
  report_.Plain(Format("    total time           %.1f ms", run_clock_.Ms()));
  report_.Plain("");
  report_.Plain(
      "the library's warnings and errors go to stderr; a normal run shows these:");
  report_.Plain(
      "    \"open ...events.db-journal in read only failed on 2\"  at each open: the");
  report_.Plain(
      "        open sets the mode of an existing journal file and there is none");
  report_.Plain(
      "    \"DB Connection has not exist\"  when the connection this run closed with");
  report_.Plain("        CloseDB is released: its destructor closes once more");
  report_.Plain(
      "    \"VACUUM t_alarm_event; failed ... unknown database\"  table_vacuum");
}

// ---- Helpers ----

bool Recorder::Fail(const std::string& reason) {
  report_.Fail(label_, reason);
  return false;
}

long long Recorder::OpenQuietly(unsigned int generation) {
  std::string key = KeyForGeneration(generation);
  long long result =
      db_.Open(directory_, kDatabaseFile, kJournalFile, key.data(), kKeyLength);
  std::fill(key.begin(), key.end(), '\0');  // Open copied it
  return result;
}

// sqlite3_key only records the key: the first read shows whether it fits.
// The companion header's classifier makes that read and PRAGMA quick_check.
// A failed first read is not yet a wrong key: a power cut that tore the
// file's first page while a rollback journal lay beside it leaves a file
// whose first open derives the key from the torn salt and fails every read
// ("file is encrypted or is not a database"); that open rolls the journal
// back, and a second open reads every row. Discarding or re-keying the file
// on the first failure would lose it all, so the classifier closes and
// opens once more before it calls the key wrong (kUsableAfterReopen when
// the second open reads).
bool Recorder::OpenAndProveKey(unsigned int generation, bool* retried,
                               ipc_db::DbState* state) {
  *retried = false;
  *state = ipc_db::DbState::kNotOpen;
  if (OpenQuietly(generation) != 0) return false;
  *state = ipc_db::ClassifyOpenDb(db_.db()).state;
  *retried = *state == ipc_db::DbState::kUsableAfterReopen;
  return *state == ipc_db::DbState::kUsable || *retried;
}

void Recorder::ReleaseDatabase() {
  events_.reset();
  config_.reset();
  db_.Close();  // closes quietly when open; nothing when empty
}

bool Recorder::Count(DbFilters& filters, long long* count) {
  *count = events_->get_item_cnt(filters);
  if (*count < 0) return Fail("get_item_cnt failed");
  return true;
}

bool Recorder::CountAll(long long* count) {
  DbFilters all_rows;
  return Count(all_rows, count);
}

bool Recorder::InsertBatch(std::vector<AlarmEvent>& batch, size_t count) {
  DbFilters all_columns;
  if (events_->add_item(batch.data(), count, all_columns) == 0) return true;
  if (count > 1) {
    // add_item leaves its transaction open after a failure: end it here so
    // that the rows of the failed batch do not linger.
    db_->m_pDBConn->ExecuteSQL("rollback;", nullptr, DB_EXEC_SQL_SYNC);
  }
  return Fail(
      Format("add_item of a batch of %zu events failed (batch rolled back)", count));
}

bool Recorder::ReadConfig(const char* name, ConfigEntry* entry, bool* found) {
  ConfigEntry key;
  std::memset(&key, 0, sizeof(key));
  std::snprintf(key.name, sizeof(key.name), "%s", name);
  std::memset(entry, 0, sizeof(*entry));
  DbFilters all_columns;
  DbFilters filters(1, Term(schema_.config_name, DB_FILTER_OP_EQ, key.name));
  unsigned long long rows = 1;
  if (config_->get_item(all_columns, filters, rows, entry) != 0) {
    return Fail(Format("reading configuration entry %s failed", name));
  }
  *found = rows == 1;
  return true;
}

bool Recorder::WriteConfig(const char* name, const std::string& value) {
  ConfigEntry existing;
  bool found = false;
  if (!ReadConfig(name, &existing, &found)) return false;
  ConfigEntry entry;
  std::memset(&entry, 0, sizeof(entry));
  std::snprintf(entry.name, sizeof(entry.name), "%s", name);
  std::snprintf(entry.value, sizeof(entry.value), "%s", value.c_str());
  entry.updated = now_;
  long long result = 0;
  if (found) {
    DbFilters set(2, Term(schema_.config_value, DB_FILTER_OP_EQ, entry.value),
                  Equal(schema_.config_updated, entry.updated));
    DbFilters where(1, Term(schema_.config_name, DB_FILTER_OP_EQ, entry.name));
    result = config_->update_item(set, where);
  } else {
    DbFilters all_columns;
    result = config_->add_item(&entry, 1, all_columns);
  }
  if (result != 0) return Fail(Format("writing configuration entry %s failed", name));
  return true;
}

// add_index has no "if not exists": look the index up first. A failed
// lookup reads as missing, and add_index then reports the failure.
bool Recorder::IndexExists(const char* name) {
  std::string sql = Format(
      "select count(*) from sqlite_master where type = 'index' and name = '%s'", name);
  return db_->m_pDBConn->GetCountOfSQLResult(sql.c_str()) > 0;
}

bool Recorder::SetSeverityForTypes(int32_t severity, const int32_t* types, int count) {
  DbFilters set(1, Equal(schema_.severity, severity));
  DbFilters where(1, Term(schema_.type, DB_FILTER_OP_IN, const_cast<int32_t*>(types),
                          IntValue(count)));
  if (events_->update_item(set, where) != 0)
    return Fail("update_item of Severity failed");
  return true;
}

bool Recorder::ReadSeverityBack(std::string* read_back) {
  const int32_t high[] = {kIntrusion, kTamper};
  DbFilters high_types(
      1, Term(schema_.type, DB_FILTER_OP_IN, const_cast<int32_t*>(high), IntValue(2)));
  DbFilters high_severity(1, Equal(schema_.severity, 3));
  long long expected = 0, counted = 0;
  if (!Count(high_types, &expected) || !Count(high_severity, &counted)) return false;
  if (expected != counted) {
    return Fail(Format("%lld rows of severity 3, %lld intrusions and tampers", counted,
                       expected));
  }
  SeverityRow rows[3];
  std::memset(rows, 0, sizeof(rows));
  DbFilters all_columns;
  DbFilters newest(2, Term(schema_.time, DB_FILTER_OP_ORDER_BY_DESC), Limit(3));
  unsigned long long read = 3;
  if (events_->get_item_z(all_columns, newest, read, rows, &schema_.severity_row_meta) !=
      0) {
    return Fail("get_item_z of the Severity column failed");
  }
  std::string text;
  for (unsigned long long i = 0; i < read; ++i) {
    if (rows[i].severity != SeverityOf(rows[i].type)) {
      return Fail(Format("event #%d has severity %d", rows[i].id, rows[i].severity));
    }
    text += Format("%s#%d %s: %d", i == 0 ? "" : ", ", rows[i].id,
                   EventTypeName(rows[i].type), rows[i].severity);
  }
  *read_back = Format("read back (get_item_z): %lld rows of severity 3; newest %s",
                      counted, text.c_str());
  figures_.high_severity = counted;
  return true;
}

bool Recorder::CollectFinalFigures() {
  if (!CountAll(&figures_.events_stored)) return false;
  for (int32_t channel = 1; channel <= kChannelCount; ++channel) {
    DbFilters filters(1, Equal(schema_.channel, channel));
    if (!Count(filters, &figures_.channel_counts[channel - 1])) return false;
  }
  DbFilters acked(1, Equal(schema_.acked, 1));
  return Count(acked, &figures_.acknowledged);
}

std::string Recorder::DatabasePath() const { return directory_ + kDatabaseFile; }

}  // namespace recorder
