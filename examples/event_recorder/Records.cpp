// Builds the schema descriptions of the event recorder's records: one type
// description per field width, one per table and one per read-side layout,
// each field a Member with its decorated name, its offset and its width
// taken from the C struct (checked by the compiler).
#include "Records.h"

#include <cstddef>

namespace recorder {

const char* EventTypeName(int32_t type) {
  switch (type) {
    case kMotion:
      return "motion";
    case kLineCrossing:
      return "line crossing";
    case kIntrusion:
      return "intrusion";
    case kVideoLoss:
      return "video loss";
    case kTamper:
      return "tamper";
    default:
      return "unknown";
  }
}

int32_t SeverityOf(int32_t type) {
  switch (type) {
    case kIntrusion:
    case kTamper:
      return 3;
    case kLineCrossing:
    case kVideoLoss:
      return 2;
    default:
      return 1;
  }
}

RecorderSchema::RecorderSchema()
    : event_meta(*event_type.meta()),
      config_meta(*config_type.meta()),
      brief_meta(*brief_type.meta()),
      severity_row_meta(*severity_row_type.meta()),
      text_row_meta(*text_row_type.meta()),
      text_row_member("cText", offsetof(TextRow, text), text_type.meta()) {
  // Column order is member order. With plain column names (analyze_name 1)
  // iId_pa becomes "Id INTEGER PRIMARY KEY autoincrement", cText "Text
  // CHAR(48)", bThumb "Thumb BLOB".
  id = Accepted(IPC_DB_FIELD(event_type, AlarmEvent, id, "iId_pa", int32_type));
  time = Accepted(IPC_DB_FIELD(event_type, AlarmEvent, time, "iTime_n", int32_type));
  channel =
      Accepted(IPC_DB_FIELD(event_type, AlarmEvent, channel, "iChannel_n", int32_type));
  type = Accepted(IPC_DB_FIELD(event_type, AlarmEvent, type, "iType_n", int32_type));
  acked = Accepted(IPC_DB_FIELD(event_type, AlarmEvent, acked, "iAcked_d", int32_type));
  text = Accepted(IPC_DB_FIELD(event_type, AlarmEvent, text, "cText", text_type));
  thumb = Accepted(IPC_DB_FIELD(event_type, AlarmEvent, thumb, "bThumb", thumb_type));
  // Added to the description only once the table has the column, so it is
  // made apart; its width is checked here instead.
  static_assert(sizeof(AlarmEvent::severity) == sizeof(int32_t),
                "iSeverity is an integer member: 4 bytes");
  pending_severity_ = std::make_unique<Member>(
      "iSeverity", static_cast<unsigned int>(offsetof(AlarmEvent, severity)),
      int32_type.meta());

  config_name = Accepted(
      IPC_DB_FIELD(config_type, ConfigEntry, name, "cName_pn", config_name_type));
  config_value = Accepted(
      IPC_DB_FIELD(config_type, ConfigEntry, value, "cValue", config_value_type));
  config_updated = Accepted(
      IPC_DB_FIELD(config_type, ConfigEntry, updated, "iUpdated", int32_type));

  // Read-side layouts: the same decorated names and widths as the table's
  // members, at offsets of their own structs.
  Accepted(IPC_DB_FIELD(brief_type, AlarmBrief, type, "iType_n", int32_type));
  Accepted(IPC_DB_FIELD(brief_type, AlarmBrief, text, "cText", text_type));
  Accepted(IPC_DB_FIELD(brief_type, AlarmBrief, time, "iTime_n", int32_type));

  Accepted(IPC_DB_FIELD(severity_row_type, SeverityRow, id, "iId_pa", int32_type));
  Accepted(IPC_DB_FIELD(severity_row_type, SeverityRow, type, "iType_n", int32_type));
  Accepted(
      IPC_DB_FIELD(severity_row_type, SeverityRow, severity, "iSeverity", int32_type));

  Accepted(IPC_DB_FIELD(text_row_type, TextRow, text, "cText", text_type));
}

bool RecorderSchema::AdoptSeverity() {
  if (!pending_severity_) return severity != nullptr;
  Member* member = pending_severity_.get();
  if (event_meta.AddMember(member) != 1) return false;
  pending_severity_.release();  // event_meta owns it now
  severity = member;
  return true;
}

Member* RecorderSchema::Accepted(Member* member) {
  if (member == nullptr) ok_ = false;
  return member;
}

}  // namespace recorder
