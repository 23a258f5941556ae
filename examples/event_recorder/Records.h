// The records of the camera event recorder and their schema descriptions:
// the alarm event (schema version 1, and the Severity column that version 2
// adds), the recorder's configuration entry, and the smaller read-side
// layouts that get_item_z, get_item_vz and get_item_sz fill.
//
// Every text field keeps a zero byte inside itself: the library reads a text
// field up to one byte past its end when it holds no terminator.
#ifndef IPC_DB_EXAMPLES_EVENT_RECORDER_RECORDS_H_
#define IPC_DB_EXAMPLES_EVENT_RECORDER_RECORDS_H_

#include <cstdint>
#include <memory>

#include "ipc_db.h"
#include "ipc_db_helpers.h"

namespace recorder {

constexpr unsigned int kTextSize = 48;
constexpr unsigned int kThumbSize = 64;
constexpr unsigned int kConfigNameSize = 32;
constexpr unsigned int kConfigValueSize = 64;
constexpr int32_t kChannelCount = 8;

constexpr char kEventTable[] = "t_alarm_event";
constexpr char kConfigTable[] = "t_recorder_config";

enum EventType : int32_t {
  kMotion = 1,
  kLineCrossing = 2,
  kIntrusion = 3,
  kVideoLoss = 4,
  kTamper = 5,
};
constexpr int32_t kEventTypeCount = 5;

// "motion", "line crossing", ... ("unknown" for any other value).
const char* EventTypeName(int32_t type);
// The severity that schema version 2 gives an event type (1 low .. 3 high).
int32_t SeverityOf(int32_t type);

// One alarm event, a row of t_alarm_event.
struct AlarmEvent {
  int32_t id;                 // iId_pa: 0 on insert, the database assigns it
  int32_t time;               // iTime_n: seconds since the epoch
  int32_t channel;            // iChannel_n: 1 .. kChannelCount
  int32_t type;               // iType_n: an EventType
  int32_t acked;              // iAcked_d: 1 once an operator acknowledged it
  char text[kTextSize];       // cText: short description, zero-terminated
  uint8_t thumb[kThumbSize];  // bThumb: a tiny preview image
  int32_t severity;           // iSeverity: schema version 2 only
};

// One configuration entry of the recorder, a row of t_recorder_config.
struct ConfigEntry {
  char name[kConfigNameSize];    // cName_pn: primary key
  char value[kConfigValueSize];  // cValue
  int32_t updated;               // iUpdated: seconds since the epoch
};

// get_item_z layout: three of the event's columns, at offsets of its own.
struct AlarmBrief {
  int32_t type;
  char text[kTextSize];
  int32_t time;
};

// get_item_z layout that reads the version-2 column back.
struct SeverityRow {
  int32_t id;
  int32_t type;
  int32_t severity;
};

// get_item_vz / get_item_sz layout: the text at offset 0 is the row's string.
struct TextRow {
  char text[kTextSize];
};

// The descriptions of all of the above, built with the companion header:
// every member takes its offset and width from its field, and a width that
// differs from its type description's does not compile. ok() tells whether
// every member was accepted. Not copyable (Meta is not).
class RecorderSchema {
 public:
  RecorderSchema();

  bool ok() const { return ok_; }
  // True once the event description holds the version-2 member.
  bool has_severity() const { return severity != nullptr; }
  // The member that schema version 2 adds, until AdoptSeverity hands it to
  // the event description; null afterwards.
  Member* pending_severity() const { return pending_severity_.get(); }
  // Appends the version-2 member to the event description. Call it once the
  // table has the column (after Db::updateTable, or when a run finds it).
  bool AdoptSeverity();

  // Scalar types: the width of each is the width of the fields using it.
  ipc_db::FieldType<sizeof(int32_t)> int32_type{"int32"};
  ipc_db::FieldType<kTextSize> text_type{"char48"};
  ipc_db::FieldType<kThumbSize> thumb_type{"thumb64"};
  ipc_db::FieldType<kConfigNameSize> config_name_type{"char32"};
  ipc_db::FieldType<kConfigValueSize> config_value_type{"char64"};

  // Tables.
  ipc_db::RecordType<AlarmEvent> event_type{kEventTable};
  ipc_db::RecordType<ConfigEntry> config_type{kConfigTable};
  Meta& event_meta;
  Meta& config_meta;
  Member* id = nullptr;
  Member* time = nullptr;
  Member* channel = nullptr;
  Member* type = nullptr;
  Member* acked = nullptr;
  Member* text = nullptr;
  Member* thumb = nullptr;
  Member* severity = nullptr;  // set by AdoptSeverity
  Member* config_name = nullptr;
  Member* config_value = nullptr;
  Member* config_updated = nullptr;

  // Read-side layouts (not registered, not tables).
  ipc_db::RecordType<AlarmBrief> brief_type{"alarm_brief"};
  ipc_db::RecordType<SeverityRow> severity_row_type{"severity_row"};
  ipc_db::RecordType<TextRow> text_row_type{"text_row"};
  Meta& brief_meta;
  Meta& severity_row_meta;
  Meta& text_row_meta;
  Member text_row_member;  // for get_item_sz: cText at offset 0

 private:
  // Notes a member the description refused.
  Member* Accepted(Member* member);

  bool ok_ = true;
  std::unique_ptr<Member> pending_severity_;
};

}  // namespace recorder

#endif  // IPC_DB_EXAMPLES_EVENT_RECORDER_RECORDS_H_
